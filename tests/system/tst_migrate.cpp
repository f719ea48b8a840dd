#include "tests/daemon/servicefixture.h"
#include "tests/support/childprocess.h"
#include "tests/support/files.h"
#include "tests/support/temporarytree.h"
#include "trees/ownerlock.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

using namespace tulo;

namespace {

QStringList words(const QString& line)
{
    return line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

/// Images in a folder, and the writable tree of a device that has one after the other.
class Device
{
public:
    Device() { QDir(m_directory.path()).mkdir(QStringLiteral("settings")); }

    QString writePath() const { return m_directory.filePath(QStringLiteral("settings")); }
    QString defaultPath(const char* image) const
    {
        return m_directory.filePath(QLatin1String(image) + QStringLiteral("/settings-default"));
    }
    void put(const char* image, const char* name, const QByteArray& content) const
    {
        writeFile(
            m_directory.filePath(QLatin1String(image) + QLatin1Char('/') + QLatin1String(name)),
            content);
    }

    QStringList trees(const char* image) const
    {
        return { QStringLiteral("--default-path"), defaultPath(image),
                 QStringLiteral("--write-path"), writePath() };
    }
    /// The program on one of the images.
    ChildResult run(const char* image, const char* line) const
    {
        return ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM),
                                 trees(image) + words(QString::fromUtf8(line)));
    }
    /// Opens the tree for changes, as the service of that image does, and reads a value.
    QByteArray valueUnder(const char* image, const char* path) const
    {
        const ChildResult migrated = run(image, "migrate");
        if (migrated.exitCode != 0)
            return migrated.standardError;
        const QByteArray line = QByteArray("get ") + path;
        return run(image, line.constData()).standardOutput.trimmed();
    }
    ChildResult check(const char* image, const char* against) const
    {
        return ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM),
                                 { QStringLiteral("check"), defaultPath(image),
                                   QStringLiteral("--against"), defaultPath(against),
                                   QStringLiteral("--rule"), QStringLiteral("no-title=off"),
                                   QStringLiteral("--rule"), QStringLiteral("id-missing=off") });
    }

private:
    QTemporaryDir m_directory;
};

const char mode[] = R"({"id":"VEH-0602","value":{"string":"normal"},)"
                    R"("edit":{"kind":"string","values":["eco","normal"]}})";

QByteArray volume(int maximum)
{
    return R"({"id":"AUD-0101","value":{"int":35},"edit":{"kind":"int","min":0,"max":)"
        + QByteArray::number(maximum) + "}}";
}

} // namespace

/// What users have when images change: the stories, told by the programs.
class TstMigrate : public QObject
{
    Q_OBJECT

private slots:
    void renamedSettingKeepsItsValueThereAndBack();
    void narrowedSettingIsClampedThereAndWideAgainBack();
    void settingOfAnotherKindIsConvertedThereAndBack();
    void resetSettingShowsTheNextDefault();
    void resetOfEverythingReachesTheRecord();
    void keptSettingIsTakenBackAfterAReset();

    void planIsPrintedAndNothingDone();
    void planTellsThatTheStampIsStale();
    void planIsPrintedAsJson();
    void valueOfAnEncryptedSettingIsNotPrinted();
    void faultInARuleIsAFinding();
    void otherCommandsWorkAndTellOfTheFault();
    void treeInUseIsUnavailable();
    void rulesCanBeElsewhere();
    void rulesAreThoseBesideTheTreeThatALinkLeadsTo();
    void lastRunIsTakenBack();
    void serviceMigratesBeforeItServes();
    void serviceStartsAndTellsWhenMigrationFails();
    void serviceOwnsTheTree();
};

void TstMigrate::renamedSettingKeepsItsValueThereAndBack()
{
    const Device device;
    device.put("a", "settings-default/vehicle/drive-mode", mode);
    device.put("b", "settings-default/driving/mode", mode);
    QCOMPARE(device.run("a", "set /settings/vehicle/drive-mode eco").exitCode, 0);
    QCOMPARE(device.check("b", "a").exitCode, 0);

    QCOMPARE(device.valueUnder("b", "/settings/driving/mode"), QByteArray("eco"));
    // Nothing is left of the old path.
    QCOMPARE(device.run("b", "get /settings/vehicle/drive-mode").exitCode, 3);
    QCOMPARE(device.run("b", "ls /settings").standardOutput.contains("vehicle"), false);

    QCOMPARE(device.valueUnder("a", "/settings/vehicle/drive-mode"), QByteArray("eco"));
}

void TstMigrate::narrowedSettingIsClampedThereAndWideAgainBack()
{
    const Device device;
    device.put("a", "settings-default/audio/volume", volume(100));
    device.put("b", "settings-default/audio/volume", volume(80));
    QCOMPARE(device.run("a", "set /settings/audio/volume 95").exitCode, 0);
    QCOMPARE(device.check("b", "a").exitCode, 8);
    device.put("b", "settings-migrations/0001-volume.json", R"([{"clamp":"AUD-0101"}])");
    QCOMPARE(device.check("b", "a").exitCode, 0);

    QCOMPARE(device.valueUnder("b", "/settings/audio/volume"), QByteArray("80"));

    QCOMPARE(device.valueUnder("a", "/settings/audio/volume"), QByteArray("95"));
}

void TstMigrate::settingOfAnotherKindIsConvertedThereAndBack()
{
    const Device device;
    device.put("a", "settings-default/audio/volume", volume(100));
    device.put("b", "settings-default/audio/volume",
               R"({"id":"AUD-0101","value":{"string":"35"},"edit":{"kind":"string"}})");
    QCOMPARE(device.run("a", "set /settings/audio/volume 95").exitCode, 0);
    QCOMPARE(device.check("b", "a").exitCode, 8);
    device.put("b", "settings-migrations/0001-volume.json",
               R"([{"convert":"AUD-0101","kind":"string"}])");
    QCOMPARE(device.check("b", "a").exitCode, 0);

    QCOMPARE(device.run("b", "migrate").exitCode, 0);
    QCOMPARE(device.run("b", "get /settings/audio/volume --json").standardOutput,
             QByteArray(R"({"path":"/settings/audio/volume","roles":{"value":{"string":"95"}}})"
                        "\n"));

    QCOMPARE(device.valueUnder("a", "/settings/audio/volume"), QByteArray("95"));
}

void TstMigrate::resetSettingShowsTheNextDefault()
{
    const Device device;
    device.put("a", "settings-default/audio/volume", volume(100));
    device.put("b", "settings-default/audio/volume", volume(100).replace("35", "25"));
    QCOMPARE(device.run("a", "set /settings/audio/volume 95").exitCode, 0);
    QCOMPARE(device.run("a", "reset /settings/audio/volume").exitCode, 0);

    QCOMPARE(device.valueUnder("b", "/settings/audio/volume"), QByteArray("25"));
}

// What a rule took away, changed and renamed must not come back, nor be found, after the device has
// changed hands.
void TstMigrate::resetOfEverythingReachesTheRecord()
{
    const Device device;
    const QByteArray text = R"({"value":{"string":"nobody"},"edit":{"kind":"string"}})";
    for (const char* name : { "owner", "caller", "network" })
        device.put("a", (QByteArray("settings-default/phone/") + name).constData(), text);
    for (const char* name : { "caller", "access-point" })
        device.put("b", (QByteArray("settings-default/phone/") + name).constData(), text);
    device.put("b", "settings-migrations/0001-phone.json",
               R"([{"remove":"/phone/owner"},)"
               R"({"map":"/phone/caller","values":[["secret-1","secret-2"]]},)"
               R"({"rename":"/phone/network","to":"/phone/access-point"}])");
    QCOMPARE(device.run("a", "set /settings/phone/owner secret-0").exitCode, 0);
    QCOMPARE(device.run("a", "set /settings/phone/caller secret-1").exitCode, 0);
    QCOMPARE(device.run("a", "set /settings/phone/network secret-3").exitCode, 0);
    QCOMPARE(device.valueUnder("b", "/settings/phone/caller"), QByteArray("secret-2"));

    QCOMPARE(device.run("b", "reset --all").exitCode, 0);

    const QByteArray record = readFile(device.writePath() + QStringLiteral("/.tulo-cm.migrations"));
    QVERIFY(!record.isNull());
    QVERIFY(!record.contains("secret"));
    for (const char* name : { "owner", "caller", "network" })
        QCOMPARE(device.valueUnder("a", (QByteArray("/settings/phone/") + name).constData()),
                 QByteArray("nobody"));
}

void TstMigrate::keptSettingIsTakenBackAfterAReset()
{
    const Device device;
    const QByteArray text = R"({"value":{"string":"nobody"},"edit":{"kind":"string"}})";
    device.put("a", "settings-default/phone/owner", text);
    device.put("a", "settings-default/network/name", text);
    device.put("b", "settings-default/network/name", text);
    device.put("b", "settings-migrations/0001-phone.json",
               R"([{"remove":"/phone/owner"},)"
               R"({"map":"/network/name","values":[["home","Home"]]}])");
    QCOMPARE(device.run("a", "set /settings/phone/owner somebody").exitCode, 0);
    QCOMPARE(device.run("a", "set /settings/network/name home").exitCode, 0);
    QCOMPARE(device.valueUnder("b", "/settings/network/name"), QByteArray("Home"));

    QCOMPARE(device.run("b", "reset --all --keep /settings/network").exitCode, 0);

    QCOMPARE(device.valueUnder("a", "/settings/network/name"), QByteArray("home"));
    QCOMPARE(device.valueUnder("a", "/settings/phone/owner"), QByteArray("nobody"));
}

void TstMigrate::planIsPrintedAndNothingDone()
{
    const Device device;
    device.put("b", "settings-default/driving/mode", mode);
    device.put("b", "settings-default/audio/volume", volume(80));
    device.put("b", "settings-default/audio/bass", volume(80).replace("AUD-0101", "AUD-0102"));
    device.put("b", "settings-migrations/0001-volume.json", R"([{"clamp":"AUD-0101"}])");
    device.put("settings", "audio/volume", R"({"id":"AUD-0101","value":{"int":95}})");
    device.put("settings", "old/bass", R"({"id":"AUD-0102","value":{"int":95}})");
    device.put("settings", "vehicle/drive-mode", R"({"id":"VEH-0602","value":{"string":"eco"}})");

    const ChildResult result = device.run("b", "migrate --dry-run");

    QCOMPARE(result.standardOutput,
             QByteArray("/audio/volume (0001-volume): 95 -> 80\n"
                        "/old/bass -> /audio/bass (id 'AUD-0102'): stays as it is: it is above "
                        "'max' (80)\n"
                        "/vehicle/drive-mode -> /driving/mode (id 'VEH-0602')\n"));
    QCOMPARE(result.standardError,
             QByteArray("tulo-cm: values changed: 2, not changed for a reason: 1\n"));
    QCOMPARE(result.exitCode, 0);
    QVERIFY(QFile::exists(device.writePath() + QStringLiteral("/vehicle/drive-mode")));
    QVERIFY(!QFile::exists(device.writePath() + QStringLiteral("/.tulo-cm.migrations")));
}

void TstMigrate::planTellsThatTheStampIsStale()
{
    const Device device;
    device.put("new", "settings-default/volume", volume(100));
    QCOMPARE(ChildProcess::run(
                 QStringLiteral(TULO_CM_PROGRAM),
                 { QStringLiteral("check"), QStringLiteral("--stamp"), device.defaultPath("new") })
                 .exitCode,
             0);
    device.put("settings", "volume", R"({"id":"AUD-0101","value":{"int":95}})");
    QCOMPARE(device.run("new", "migrate").exitCode, 0);
    const ChildResult before = device.run("new", "migrate --dry-run");
    device.put("new", "settings-default/volume", volume(80));
    device.put("new", "settings-migrations/0001-volume.json", R"([{"clamp":"/volume"}])");

    const ChildResult result = device.run("new", "migrate --dry-run");

    const QByteArray summary = "tulo-cm: values changed: %1, not changed for a reason: 0\n";
    QCOMPARE(before.standardError, QByteArray(summary).replace("%1", "0"));
    QCOMPARE(result.standardError,
             "tulo-cm: the stamp of '" + device.defaultPath("new").toUtf8()
                 + "' is stale: a device that has it already migrates nothing; stamp the tree with "
                   "'check --stamp'\n"
                 + QByteArray(summary).replace("%1", "1"));
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(device.run("new", "migrate").standardOutput, QByteArray());
}

void TstMigrate::planIsPrintedAsJson()
{
    const Device device;
    device.put("b", "settings-default/audio/volume", volume(80));
    device.put("b", "settings-migrations/0001-volume.json", R"([{"clamp":"AUD-0101"}])");
    device.put("settings", "loud", R"({"id":"AUD-0101","value":{"int":95}})");

    const ChildResult result = device.run("b", "migrate --dry-run --json");

    QCOMPARE(result.standardOutput,
             QByteArray(R"({"after":80,"before":95,"causes":["id 'AUD-0101'","0001-volume"],)"
                        R"("from":"/loud","to":"/audio/volume"})"
                        "\n"));
    QCOMPARE(result.exitCode, 0);
}

void TstMigrate::valueOfAnEncryptedSettingIsNotPrinted()
{
    const Device device;
    device.put("b", "settings-default/audio/volume", volume(80));
    device.put("b", "settings-migrations/0001-volume.json", R"([{"clamp":"AUD-0101"}])");
    device.put("settings", "loud", R"({"encrypted":true,"id":"AUD-0101","value":{"int":95}})");

    const ChildResult result = device.run("b", "migrate");

    QCOMPARE(result.standardOutput,
             QByteArray("/loud -> /audio/volume (id 'AUD-0101', 0001-volume)\n"));
}

void TstMigrate::faultInARuleIsAFinding()
{
    const Device device;
    device.put("b", "settings-default/driving/mode", mode);
    device.put("b", "settings-migrations/0001-a.json",
               "[{\"clamp\": \"/a\"},\n{\"calmp\": \"/b\"}]");
    device.put("settings", "vehicle/drive-mode", R"({"id":"VEH-0602","value":{"string":"eco"}})");

    const ChildResult result = device.run("b", "migrate");

    QVERIFY2(result.standardError.contains("/b/settings-migrations/0001-a.json:2:1: a step is an "),
             result.standardError);
    QCOMPARE(result.exitCode, 8);
    QVERIFY(QFile::exists(device.writePath() + QStringLiteral("/vehicle/drive-mode")));
}

void TstMigrate::otherCommandsWorkAndTellOfTheFault()
{
    const Device device;
    device.put("b", "settings-default/driving/mode", mode);
    device.put("b", "settings-migrations/0001-a.json", "[{}]");

    const ChildResult result = device.run("b", "set /settings/driving/mode eco");

    QVERIFY2(result.standardError.startsWith("tulo-cm: Migration failed: "), result.standardError);
    QCOMPARE(result.exitCode, 0);
}

void TstMigrate::treeInUseIsUnavailable()
{
    const Device device;
    device.put("b", "settings-default/driving/mode", mode);
    OwnerLock lock;
    QCOMPARE(lock.acquire(device.writePath()), OwnerLock::Status::Owned);

    QCOMPARE(device.run("b", "migrate").exitCode, 7);
    QCOMPARE(device.run("b", "migrate --undo").exitCode, 7);
    QCOMPARE(device.run("b", "migrate --dry-run").exitCode, 0);
}

void TstMigrate::rulesCanBeElsewhere()
{
    const Device device;
    device.put("b", "settings-default/audio/volume", volume(80));
    device.put("rules", "0001-volume.json", R"([{"clamp":"/"}])");
    device.put("settings", "audio/volume", R"({"id":"AUD-0101","value":{"int":95}})");
    const QString rules = QFileInfo(device.writePath()).path() + QStringLiteral("/rules");

    const ChildResult result = ChildProcess::run(
        QStringLiteral(TULO_CM_PROGRAM),
        device.trees("b")
            + QStringList { QStringLiteral("--migrations"), rules, QStringLiteral("migrate") });

    QCOMPARE(result.standardOutput, QByteArray("/audio/volume (0001-volume): 95 -> 80\n"));
    QCOMPARE(device.run("b", "--migrations /none migrate").exitCode, 2);
}

// A link chooses the image: whoever opens the tree, and whatever it is called.
void TstMigrate::rulesAreThoseBesideTheTreeThatALinkLeadsTo()
{
    const Device device;
    device.put("b", "settings-default/audio/volume", volume(80));
    device.put("b", "settings-migrations/0001-volume.json", R"([{"clamp":"AUD-0101"}])");
    device.put("settings", "audio/volume", R"({"id":"AUD-0101","value":{"int":95}})");
    device.put("current", "note", "");
    const QString link = device.defaultPath("current");
    QVERIFY(QFile::link(device.defaultPath("b"), link));

    const ChildResult result = device.run("current", "migrate");
    // Nothing is left to do for the service, nor to take back.
    const ChildResult direct = device.run("b", "migrate");
    const ChildResult relative = ChildProcess::run(
        QStringLiteral("sh"),
        { QStringLiteral("-c"),
          QStringLiteral("cd '%1' && '%2' --default-path . --write-path '%3' migrate")
              .arg(device.defaultPath("b"), QStringLiteral(TULO_CM_PROGRAM), device.writePath()) });

    QVERIFY2(result.standardOutput.contains("95 -> 80"), result.standardError);
    QCOMPARE(direct.standardOutput, QByteArray());
    QCOMPARE(relative.standardOutput, QByteArray());
    QCOMPARE(device.run("current", "get /settings/audio/volume").standardOutput.trimmed(),
             QByteArray("80"));
}

void TstMigrate::lastRunIsTakenBack()
{
    const Device device;
    device.put("b", "settings-default/driving/mode", mode);
    const QByteArray content = R"({"id":"VEH-0602","timestamp":7,"value":{"string":"eco"}})";
    device.put("settings", "vehicle/drive-mode", content);
    QCOMPARE(device.run("b", "migrate").exitCode, 0);

    const ChildResult result = device.run("b", "migrate --undo");

    QCOMPARE(result.standardOutput,
             QByteArray("/driving/mode -> /vehicle/drive-mode (undo id 'VEH-0602')\n"));
    QCOMPARE(readFile(device.writePath() + QStringLiteral("/vehicle/drive-mode")), content);
}

// ---------------------------------------------------------------------------------------------
// The service.
// ---------------------------------------------------------------------------------------------

void TstMigrate::serviceMigratesBeforeItServes()
{
    const CommandLine trees;
    trees.tree.writeDefault(QStringLiteral("/audio/bass"), R"({"id":"B","value":{"int":1}})");
    trees.tree.writeWritten(QStringLiteral("/old/bass"),
                            QByteArray(R"({"id":"B","timestamp":7,"value":{"int":9}})"));
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());

    QCOMPARE(trees.tree.readWritten(QStringLiteral("/audio/bass")),
             QByteArray(R"({"id":"B","timestamp":7,"value":{"int":9}})"));
    const ChildResult result = service.end();
    QVERIFY2(result.standardError.contains("Migrated: /old/bass -> /audio/bass (id 'B')"),
             result.standardError);
    QCOMPARE(result.exitCode, 0);
}

void TstMigrate::serviceStartsAndTellsWhenMigrationFails()
{
    const CommandLine trees;
    const QString rules = trees.tree.path() + QStringLiteral("/settings-migrations/0001-a.json");
    writeFile(rules, "[{}]");
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());

    QVERIFY2(service.serve(), service.standardError());

    const ChildResult result = service.end();
    QVERIFY2(result.standardError.contains(
                 "WARN  tulo-settingsd: Migration failed: " + rules.toUtf8() + ":1:2: a step is"),
             result.standardError);
    QCOMPARE(result.exitCode, 0);
}

void TstMigrate::serviceOwnsTheTree()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const auto run = [&bus](const QString& line) {
        return ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM),
                                 QStringList { QStringLiteral("--bus"), bus.address() }
                                     + words(line));
    };

    const ChildResult refused = run(QStringLiteral("migrate"));
    const ChildResult plan = run(QStringLiteral("migrate --dry-run"));

    QCOMPARE(refused.exitCode, 7);
    QVERIFY2(refused.standardError.contains("migrates it when it starts"), refused.standardError);
    QVERIFY2(plan.exitCode == 0, plan.standardError);
    QCOMPARE(service.end().exitCode, 0);
}

QTEST_GUILESS_MAIN(TstMigrate)
#include "tst_migrate.moc"
