#include "trees/migrationrules.h"

#include "tests/support/files.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

Q_DECLARE_METATYPE(tulo::ImageChange::Kind)

using namespace tulo;

namespace {

using Kind = MigrationStep::Kind;

const QString& fileName()
{
    static const QString name = QStringLiteral("/rules/0001-a.json");
    return name;
}

Migration migrationOf(const char* json)
{
    Migration migration;
    const QString fault = parseMigration(fileName(), json, &migration);
    if (!fault.isEmpty())
        qFatal("%s", qPrintable(fault));
    return migration;
}

} // namespace

/// The files of rules.
class tst_migrationrules : public QObject
{
    Q_OBJECT

private slots:
    void stepsAreRead();
    void faultHasItsPlace_data();
    void faultHasItsPlace();
    void fileNameIsNumberAndName_data();
    void fileNameIsNumberAndName();
    void directoryIsReadInOrder();
    void missingDirectoryHasNoRules();
    void directoryWithAFaultIsRejected_data();
    void directoryWithAFaultIsRejected();
    void coverage_data();
    void coverage();
};

void tst_migrationrules::stepsAreRead()
{
    const Migration migration = migrationOf(R"([
        {"rename": "/vehicle/mode", "to": "/driving/mode"},
        {"clamp": "/"},
        {"remove": "VEH-0602"},
        {"map": "/driving/mode", "values": [["eco", "economy"], [1, 2.5]]},
        {"convert": "/audio/volume", "kind": "double", "scale": 0.1}
    ])");

    QCOMPARE(migration.name, QStringLiteral("0001-a"));
    QCOMPARE(migration.number, 1);
    QCOMPARE(migration.steps.size(), 5);
    QCOMPARE(migration.steps[0].kind, Kind::Rename);
    QCOMPARE(migration.steps[0].target, QStringLiteral("/vehicle/mode"));
    QCOMPARE(migration.steps[0].to, QStringLiteral("/driving/mode"));
    QCOMPARE(migration.steps[1].kind, Kind::Clamp);
    QCOMPARE(migration.steps[1].target, QStringLiteral("/"));
    QCOMPARE(migration.steps[2].kind, Kind::Remove);
    QCOMPARE(migration.steps[2].target, QStringLiteral("VEH-0602"));
    QCOMPARE(migration.steps[3].kind, Kind::Map);
    const QVector<QPair<QVariant, QVariant>> values {
        { QStringLiteral("eco"), QStringLiteral("economy") }, { 1LL, 2.5 }
    };
    QCOMPARE(migration.steps[3].values, values);
    QCOMPARE(migration.steps[4].kind, Kind::Convert);
    QCOMPARE(migration.steps[4].valueKind, QStringLiteral("double"));
    QCOMPARE(migration.steps[4].scale, 0.1);
}

void tst_migrationrules::faultHasItsPlace_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("fault");
    const auto row = [](const char* name, const char* text, const char* fault) {
        QTest::newRow(name) << QByteArray(text)
                            << fileName() + QLatin1Char(':') + QLatin1String(fault);
    };
    row("not a list", "{}", "1:1: rules are a list of steps, in \"[\" and \"]\"");
    row("not an object", "[\n  5]",
        "2:3: a step is an object with 'rename', 'clamp', 'remove', 'map' or 'convert'");
    row("unknown step", R"([{"move": "/a", "to": "/b"}])",
        "1:2: a step is an object with 'rename', 'clamp', 'remove', 'map' or 'convert'");
    row("two steps in one", R"([{"clamp": "/a", "remove": "/a"}])",
        "1:2: a step has one of 'clamp' and 'remove'");
    row("twice", "[{\"clamp\": \"/a\",\n\"clamp\": \"/b\"}]", "2:1: 'clamp' stands here twice");
    row("unknown key", R"([{"clamp": "/a", "to": "/b"}])", "1:18: 'clamp' has no 'to'");
    row("no path", R"([{"clamp": ""}])", "1:3: expected a setting path such as \"/audio/volume\"");
    row("not a text", R"([{"clamp": 5}])",
        "1:3: expected a setting path such as \"/audio/volume\"");
    row("hidden", R"([{"clamp": "/.a"}])",
        "1:3: '/.a' is not a setting path such as \"/audio/volume\"");
    row("outside", R"([{"remove": "/a/../../b"}])",
        "1:3: '/a/../../b' is not a setting path such as \"/audio/volume\"");
    row("slash at the end", R"([{"clamp": "/a/"}])",
        "1:3: '/a/' is not a setting path such as \"/audio/volume\"");
    row("rename by id", R"([{"rename": "VEH", "to": "/b"}])",
        "1:3: 'VEH' is not a setting path such as \"/audio/volume\"");
    row("rename of everything", R"([{"rename": "/", "to": "/b"}])",
        "1:3: '/' is not a setting path such as \"/audio/volume\"");
    row("rename to nothing", R"([{"rename": "/a"}])",
        "1:2: expected a setting path such as \"/audio/volume\"");
    row("rename to itself", R"([{"rename": "/a", "to": "/a"}])",
        "1:19: '/a' and '/a' are not apart");
    row("rename into itself", R"([{"rename": "/a", "to": "/a/b"}])",
        "1:19: '/a' and '/a/b' are not apart");
    row("map without values", R"([{"map": "/a"}])",
        "1:2: expected 'values', a list of pairs [OLD, NEW]");
    row("map of an object", R"([{"map": "/a", "values": {"1": 2}}])",
        "1:16: expected 'values', a list of pairs [OLD, NEW]");
    row("pair of three", R"([{"map": "/a", "values": [[1,2],[1,2,3]]}])",
        "1:33: expected a pair [OLD, NEW]");
    row("pair with an object", R"([{"map": "/a", "values": [[1,{"int":2}]]}])",
        "1:27: expected a pair [OLD, NEW]");
    row("convert to nothing", R"([{"convert": "/a"}])",
        "1:2: expected 'kind', one of \"int\", \"double\" and \"string\"");
    row("convert to a list", R"([{"convert": "/a", "kind": "list"}])",
        "1:20: expected 'kind', one of \"int\", \"double\" and \"string\"");
    row("scale of 0", R"([{"convert": "/a", "kind": "int", "scale": 0}])",
        "1:35: 'scale' is a number, for a number's kind");
    row("scale of a text", R"([{"convert": "/a", "kind": "string", "scale": 2}])",
        "1:38: 'scale' is a number, for a number's kind");
}

void tst_migrationrules::faultHasItsPlace()
{
    QFETCH(const QByteArray, text);
    QFETCH(const QString, fault);
    Migration migration;

    QCOMPARE(parseMigration(fileName(), text, &migration), fault);
    QVERIFY(migration.steps.isEmpty());
}

void tst_migrationrules::fileNameIsNumberAndName_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isGood");
    const auto row = [](const char* name, bool isGood) {
        QTest::newRow(name) << QString::fromLatin1(name) << isGood;
    };
    row("0001-drive-mode.json", true);
    row("9999-A_b.json", true);
    row("001-a.json", false);
    row("00001-a.json", false);
    row("0001.json", false);
    row("0001-.json", false);
    row("0001-a.json~", false);
    row("0001-a.txt", false);
    row("0001-a b.json", false);
}

void tst_migrationrules::fileNameIsNumberAndName()
{
    QFETCH(const QString, name);
    QFETCH(const bool, isGood);
    Migration migration;

    QCOMPARE(parseMigration(name, "[]", &migration),
             isGood ? QString()
                    : name + QStringLiteral(": is not named like \"0001-drive-mode.json\""));
}

namespace {

void put(const QTemporaryDir& directory, const char* name, const char* text)
{
    writeFile(directory.filePath(QLatin1String(name)), text);
}

} // namespace

void tst_migrationrules::directoryIsReadInOrder()
{
    const QTemporaryDir directory;
    put(directory, "0010-b.json", "[]");
    put(directory, "0002-c.json", R"([{"clamp":"/a"}])");
    put(directory, ".0003-d.json.swp", "not a rule");
    QVector<Migration> migrations;

    QCOMPARE(readMigrations(directory.path(), &migrations), QString());

    QCOMPARE(migrations.size(), 2);
    QCOMPARE(migrations[0].name, QStringLiteral("0002-c"));
    QCOMPARE(migrations[0].steps.size(), 1);
    QCOMPARE(migrations[1].name, QStringLiteral("0010-b"));
}

void tst_migrationrules::missingDirectoryHasNoRules()
{
    const QTemporaryDir directory;
    QVector<Migration> migrations;

    QCOMPARE(readMigrations(directory.filePath(QStringLiteral("none")), &migrations), QString());
    QVERIFY(migrations.isEmpty());
    QCOMPARE(migrationsBeside(QStringLiteral("/etc/tulo/settings-default/")),
             QStringLiteral("/etc/tulo/settings-migrations"));
}

void tst_migrationrules::directoryWithAFaultIsRejected_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("fault in a file") << QStringLiteral("0002-b.json");
    QTest::newRow("name") << QStringLiteral("README");
    QTest::newRow("number twice") << QStringLiteral("0001-b.json");
    QTest::newRow("directory") << QStringLiteral("0003-b.json/");
}

void tst_migrationrules::directoryWithAFaultIsRejected()
{
    QFETCH(const QString, name);
    const QTemporaryDir directory;
    put(directory, "0001-a.json", "[]");
    if (name.endsWith(QLatin1Char('/')))
        QVERIFY(QDir(directory.path()).mkdir(name));
    else
        put(directory, name.toLatin1().constData(),
            name.startsWith(QLatin1String("0001")) ? "[]" : "[5]");
    QVector<Migration> migrations;

    const QString fault = readMigrations(directory.path(), &migrations);

    QVERIFY2(fault.startsWith(QDir::cleanPath(directory.filePath(name)) + QLatin1Char(':')),
             qPrintable(fault));
    QVERIFY(migrations.isEmpty());
}

void tst_migrationrules::coverage_data()
{
    using Change = ImageChange::Kind;
    QTest::addColumn<QByteArray>("rules");
    QTest::addColumn<Change>("kind");
    QTest::addColumn<QString>("id");
    QTest::addColumn<bool>("isCovered");
    const auto row = [](const char* name, const char* rules, Change kind, bool isCovered,
                        const char* id = "") {
        QTest::newRow(name) << QByteArray(rules) << kind << QString::fromLatin1(id) << isCovered;
    };
    // From /a/b to /c/b.
    row("removed", "[]", Change::Removed, false);
    row("removed by rule", R"([{"remove":"/a"}])", Change::Removed, true);
    row("another one removed", R"([{"remove":"/a/bb"}])", Change::Removed, false);
    row("removed by id", R"([{"remove":"X"}])", Change::Removed, true, "X");
    row("narrowed", R"([{"rename":"/a","to":"/c"}])", Change::Narrowed, false);
    row("clamped", R"([{"clamp":"/"}])", Change::Narrowed, true);
    row("clamped at the new place", R"([{"clamp":"/c/b"}])", Change::Narrowed, true);
    row("mapped", R"([{"map":"/a/b","values":[[1,2]]}])", Change::Narrowed, true);
    row("other kind, clamped", R"([{"clamp":"/a/b"}])", Change::KindChanged, false);
    row("converted", R"([{"convert":"/a/b","kind":"int"}])", Change::KindChanged, true);
    row("made read-only", "[]", Change::MadeReadOnly, false);
    row("read-only and removed", R"([{"remove":"/a/b"}])", Change::MadeReadOnly, true);
}

void tst_migrationrules::coverage()
{
    QFETCH(const QByteArray, rules);
    QFETCH(const ImageChange::Kind, kind);
    QFETCH(const QString, id);
    QFETCH(const bool, isCovered);

    QCOMPARE(covers({ migrationOf(rules.constData()) },
                    { kind, QStringLiteral("/a/b"), QStringLiteral("/c/b"), id }),
             isCovered);
}

QTEST_APPLESS_MAIN(tst_migrationrules)

#include "tst_migrationrules.moc"
