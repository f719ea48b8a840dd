#include "tests/daemon/servicefixture.h"

#include <QFile>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uid_t nobody = 65534;
const QString volume = QStringLiteral("/settings/audio/volume");

struct stat statOf(const TemporaryTree& tree, const QString& settingPath)
{
    struct stat entry = {};
    const QByteArray name = QFile::encodeName(tree.writePath() + settingPath);
    if (::lstat(name.constData(), &entry) != 0)
        qFatal("cannot examine %s", name.constData());
    return entry;
}

// setpriv and the words that have it run a program as the tree's owner.
QStringList asOwner()
{
    return { QStringLiteral("setpriv"), QStringLiteral("--reuid=65534"),
             QStringLiteral("--regid=65534"), QStringLiteral("--clear-groups") };
}

// Where all users may do everything.
QByteArray policyForAll()
{
    return PrivateBus::openPolicy() + R"(<policy context="default"><allow user="*"/></policy>)";
}

} // namespace

/// Root on a tree of another user: what it writes, that user can use.
class TstServiceRoot : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void changeInProcessBelongsToTheOwner_data();
    void changeInProcessBelongsToTheOwner();
    void readingInProcessChangesNothing();
    void serviceStartedByRootIsTheOwners();
    void formerNumberOfTheUserIsCorrected();
    void rootThatCannotBecomeTheOwnerIsRefused_data();
    void rootThatCannotBecomeTheOwnerIsRefused();

private:
    /// Trees, the writable one of another user.
    static void giveAway(const CommandLine& trees)
    {
        const QByteArray name = QFile::encodeName(trees.tree.writePath());
        if (::chown(name.constData(), nobody, nobody) != 0 || ::chmod(name.constData(), 0700) != 0)
            qFatal("cannot give the tree away");
    }
};

void TstServiceRoot::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("needs root");
}

void TstServiceRoot::changeInProcessBelongsToTheOwner_data()
{
    QTest::addColumn<QString>("umask");
    for (const char* mask : { "022", "077", "0777" })
        QTest::newRow(mask) << QString::fromLatin1(mask);
}

void TstServiceRoot::changeInProcessBelongsToTheOwner()
{
    QFETCH(const QString, umask);
    const CommandLine trees;
    giveAway(trees);

    const ChildResult change = ChildProcess::run(
        QStringLiteral("sh"),
        QStringList { QStringLiteral("-c"), QStringLiteral("umask \"$0\"; exec \"$@\""), umask,
                      QStringLiteral(TULO_CM_PROGRAM) }
            + trees.arguments({ QStringLiteral("set"), volume, QStringLiteral("30") }));

    QCOMPARE(change.standardError, QByteArray());
    QCOMPARE(change.exitCode, 0);
    QCOMPARE(trees.tree.writtenEntries(),
             QStringList({ QStringLiteral("/.tulo-cm.lock"), QStringLiteral("/audio/"),
                           QStringLiteral("/audio/volume") }));
    for (const char* entry : { "/.tulo-cm.lock", "/audio", "/audio/volume" }) {
        QCOMPARE(statOf(trees.tree, QString::fromLatin1(entry)).st_uid, nobody);
        QCOMPARE(statOf(trees.tree, QString::fromLatin1(entry)).st_gid, nobody);
    }

    // And the owner's service goes on from there and saves.
    const PrivateBus bus(policyForAll());
    ServiceProcess service(trees, bus.address(), {}, asOwner());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    QCOMPARE(client.value(volume), QStringLiteral("x 30"));
    QCOMPARE(client.call("SetValue", { volume, variantOf(80) }),
             QStringLiteral("{timestamp: *, value: x 80}"));
    QCOMPARE(service.end().exitCode, 0);
    QCOMPARE(trees.tree.readWrittenRoles(QStringLiteral("/audio/volume"))
                 .value(QStringLiteral("value"))
                 .toHash(),
             (QVariantHash { { QStringLiteral("int"), 80 } }));
}

void TstServiceRoot::readingInProcessChangesNothing()
{
    const CommandLine trees;
    giveAway(trees);

    const ChildResult result = trees.run("get /settings/audio/volume");

    QCOMPARE(result.standardOutput, QByteArray("35\n"));
    QCOMPARE(trees.tree.writtenEntries(), QStringList());
}

void TstServiceRoot::serviceStartedByRootIsTheOwners()
{
    const CommandLine trees;
    giveAway(trees);
    const PrivateBus bus(policyForAll());
    const QString logFile = trees.tree.path() + QLatin1String("/log/service.log");
    const QByteArray logDirectory = QFile::encodeName(trees.tree.path()) + "/log";
    QCOMPARE(::mkdir(logDirectory.constData(), 0700), 0);
    QCOMPARE(::chown(logDirectory.constData(), nobody, nobody), 0);
    QFile configuration(trees.tree.path() + QLatin1String("/log.properties"));
    QVERIFY(configuration.open(QIODevice::WriteOnly));
    configuration.write("log4cplus.rootLogger=INFO, F\n"
                        "log4cplus.appender.F=log4cplus::FileAppender\n"
                        "log4cplus.appender.F.File="
                        + QFile::encodeName(logFile) + '\n');
    configuration.close();

    ServiceProcess service(trees, bus.address(),
                           { QStringLiteral("--log-config"), configuration.fileName() });
    QVERIFY2(service.serve(), service.standardError());
    QFile status(QStringLiteral("/proc/%1/status").arg(service.processId()));
    QVERIFY(status.open(QIODevice::ReadOnly));
    const QByteArray text = status.readAll();
    QVERIFY2(text.contains("\nUid:\t65534\t65534\t65534\t65534\n"), text);
    QVERIFY2(text.contains("\nGid:\t65534\t65534\t65534\t65534\n"), text);
    QVERIFY2(text.contains("\nGroups:\t65534 \n"), text);
    const BusClient client(bus.address());
    QCOMPARE(client.call("SetValue", { volume, variantOf(80) }),
             QStringLiteral("{timestamp: *, value: x 80}"));
    QCOMPARE(service.end().exitCode, 0);

    QCOMPARE(statOf(trees.tree, QStringLiteral("/audio/volume")).st_uid, nobody);
    struct stat log = {};
    QCOMPARE(::stat(QFile::encodeName(logFile).constData(), &log), 0);
    QCOMPARE(log.st_uid, nobody);
}

// As the unit does before it starts the service.
void TstServiceRoot::formerNumberOfTheUserIsCorrected()
{
    const CommandLine trees;
    trees.tree.writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":40}})");
    const auto adopt = [&trees](const char* user) {
        ChildProcess process(
            QStringLiteral(TULO_SETTINGSD_PROGRAM),
            trees.arguments({ QStringLiteral("--adopt"), QString::fromLatin1(user) }));
        // A check for leaks cannot stop threads that have more rights than its own.
        process.setVariable(QStringLiteral("ASAN_OPTIONS"), QStringLiteral("detect_leaks=0"));
        process.start();
        return process.finish();
    };
    for (const char* name : { "", "/audio", "/audio/volume" }) {
        const QByteArray file = QFile::encodeName(trees.tree.writePath()) + name;
        QCOMPARE(::chown(file.constData(), 54321, 54321), 0);
    }

    const ChildResult foreign = adopt("nobody");
    trees.tree.writeWritten(QStringLiteral("/.tulo-cm.owner"), "nobody 54321:54321\n");
    const ChildResult adopted = adopt("nobody");
    const ChildResult again = adopt("nobody");
    const ChildResult none = adopt("");

    const QByteArray tree = '\'' + trees.tree.writePath().toUtf8() + '\'';
    QCOMPARE(
        foreign.standardError,
        "WARN  tulo-settingsd: the writable tree " + tree
            + " belongs to user '54321' and stays so; to give it to 'nobody': chown -R nobody: "
            + trees.tree.writePath().toUtf8() + '\n');
    QCOMPARE(foreign.exitCode, 0);
    QCOMPARE(adopted.standardError,
             "WARN  tulo-settingsd: the writable tree " + tree
                 + " is user nobody's again, whose number is 65534 now: 3 files and directories\n");
    QCOMPARE(adopted.exitCode, 0);
    QCOMPARE(again.standardError, QByteArray());
    QCOMPARE(none.standardError,
             QByteArray("ERROR tulo-settingsd: '--adopt' needs the name of a user\n"));
    QCOMPARE(none.exitCode, 2);
    const PrivateBus bus(policyForAll());
    ServiceProcess service(trees, bus.address(), {}, asOwner());
    QVERIFY2(service.serve(), service.standardError());
    QCOMPARE(BusClient(bus.address()).value(volume), QStringLiteral("x 40"));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceRoot::rootThatCannotBecomeTheOwnerIsRefused_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("change") << QStringLiteral("set /settings/audio/volume 30");
    QTest::newRow("shell") << QStringLiteral("shell");
    QTest::newRow("service") << QString();
}

void TstServiceRoot::rootThatCannotBecomeTheOwnerIsRefused()
{
    QFETCH(const QString, command);
    const CommandLine trees;
    giveAway(trees);

    const QString program = command.isEmpty() ? QStringLiteral(TULO_SETTINGSD_PROGRAM)
                                              : QStringLiteral(TULO_CM_PROGRAM);
    const ChildResult result = ChildProcess::run(
        QStringLiteral("setpriv"),
        QStringList { QStringLiteral("--bounding-set=-setuid,-setgid"),
                      QStringLiteral("--inh-caps=-setuid,-setgid"), program }
            + trees.arguments(command.split(QLatin1Char(' '), Qt::SkipEmptyParts)));

    QCOMPARE(result.standardError,
             QByteArray(command.isEmpty() ? "ERROR tulo-settingsd" : "tulo-cm")
                 + ": cannot become user 'nobody', who owns the writable tree '"
                 + trees.tree.writePath().toUtf8() + "': Operation not permitted\n");
    QCOMPARE(result.exitCode, 7);
    QCOMPARE(trees.tree.writtenEntries(), QStringList());
}

QTEST_GUILESS_MAIN(TstServiceRoot)
#include "tst_service_root.moc"
