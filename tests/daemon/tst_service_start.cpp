#include "tests/daemon/servicefixture.h"

#include <QCryptographicHash>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QTest>

#include <csignal>
#include <functional>

#include <sys/stat.h>
#include <unistd.h>

using Arrange = std::function<void(const TemporaryTree&)>;

Q_DECLARE_METATYPE(Arrange)

namespace {

void makePipe(const QString& name)
{
    QDir().mkpath(QFileInfo(name).path());
    if (::mkfifo(QFile::encodeName(name).constData(), 0600) != 0)
        qFatal("cannot make a pipe");
}

} // namespace

/// What the service looks at before it serves.
class TstServiceStart : public QObject
{
    Q_OBJECT

private slots:
    void findingStopsTheStart_data();
    void findingStopsTheStart();
    void directoriesAreChecked_data();
    void directoriesAreChecked();
    void busWhoseNameIsMistypedIsWrongUsage();
    void treeThatMayNotBeWrittenStopsTheStart();
    void harmlessFindingIsLoggedAndServed();
    void directoryOfAnotherUserStopsTheStart();
    void hiddenFilesSurviveStartStopAndKill();
    void staleTemporaryFileIsReusedByTheNextWrite();
    void interruptedChangeIsFinishedAtTheStart();
    void factoryResetIsDoneBeforeAnythingIsServed();
    void resetOfEverythingFulfilsTheRequestOfAFactoryReset_data();
    void resetOfEverythingFulfilsTheRequestOfAFactoryReset();
    void damagedJournalIsToldAndServed();
    void changeThatCannotBeFinishedIsToldAndServedForReading();
    void defaultFileThatBreaksLaterIsNamedAtTheNextStart();
};

void TstServiceStart::findingStopsTheStart_data()
{
    QTest::addColumn<Arrange>("arrange");
    QTest::addColumn<QByteArray>("lines");
    QTest::addColumn<int>("exitCode");
    const auto row = [](const char* name, const Arrange& arrange, const QByteArray& lines,
                        int exitCode) {
        QTest::newRow(name) << arrange << lines << exitCode;
    };
    row(
        "broken default file",
        [](const TemporaryTree& tree) {
            tree.writeDefault(QStringLiteral("/audio/volume"), QByteArrayLiteral("{broken"));
        },
        "ERROR tulo-settingsd: %T/default/audio/volume:1:2: Missing a name for object member.\n",
        8);
    row(
        "several",
        [](const TemporaryTree& tree) {
            tree.writeDefault(QStringLiteral("/audio/.meta"), QByteArrayLiteral("[1"));
            tree.writeDefault(QStringLiteral("/serial"), QByteArray());
        },
        "ERROR tulo-settingsd: %T/default/audio/.meta:1:3: Missing a comma or ']' after an array "
        "element.\n"
        "ERROR tulo-settingsd: %T/default/serial:1:1: The document is empty.\n",
        8);
    row(
        "pipe in the default tree",
        [](const TemporaryTree& tree) {
            makePipe(tree.defaultPath() + QLatin1String("/audio/pipe"));
        },
        "ERROR tulo-settingsd: %T/default/audio/pipe: is neither a regular file nor a directory\n",
        7);
    row(
        "pipe in the writable tree",
        [](const TemporaryTree& tree) {
            makePipe(tree.writePath() + QLatin1String("/audio/volume"));
        },
        "ERROR tulo-settingsd: %T/write/audio/volume: is neither a regular file nor a directory\n",
        7);
    row(
        "link to a device",
        [](const TemporaryTree& tree) {
            QFile::link(QStringLiteral("/dev/zero"),
                        tree.defaultPath() + QLatin1String("/audio/zero"));
        },
        "ERROR tulo-settingsd: %T/default/audio/zero: is neither a regular file nor a directory\n",
        7);
    row(
        "pipe behind a link",
        [](const TemporaryTree& tree) {
            makePipe(tree.path() + QLatin1String("/real/pipe"));
            QFile::link(QStringLiteral("../real"), tree.defaultPath() + QLatin1String("/linked"));
        },
        "ERROR tulo-settingsd: %T/default/linked/pipe: is neither a regular file nor a directory\n",
        7);
    row(
        "written file of 3 GiB",
        [](const TemporaryTree& tree) {
            const QByteArray name = QFile::encodeName(tree.writePath()) + "/serial";
            tree.writeWritten(QStringLiteral("/serial"), QByteArray());
            if (::truncate(name.constData(), off_t(3) << 30) != 0)
                qFatal("cannot make a large file");
        },
        "ERROR tulo-settingsd: %T/write/serial: is larger than 1 MiB\n", 7);
    row(
        "default file that holds null",
        [](const TemporaryTree& tree) {
            tree.writeDefault(QStringLiteral("/serial"), QByteArrayLiteral("null"));
        },
        "ERROR tulo-settingsd: %T/default/serial:1:1: holds null instead of an object\n", 8);
    row(
        "link in the place of the lock",
        [](const TemporaryTree& tree) {
            QFile::link(QStringLiteral("/etc/passwd"),
                        tree.writePath() + QLatin1String("/.tulo-cm.lock"));
        },
        "ERROR tulo-settingsd: Lock file '%T/write/.tulo-cm.lock' is a symbolic link\n", 7);
}

void TstServiceStart::findingStopsTheStart()
{
    QFETCH(const Arrange, arrange);
    QFETCH(QByteArray, lines);
    QFETCH(const int, exitCode);
    const CommandLine trees;
    const PrivateBus bus;
    arrange(trees.tree);

    ServiceProcess service(trees, bus.address());
    QVERIFY(service.start());
    const ChildResult result = service.finish();

    QCOMPARE(result.standardError, lines.replace("%T", trees.tree.path().toUtf8()));
    QCOMPARE(result.exitCode, exitCode);
}

void TstServiceStart::directoriesAreChecked_data()
{
    QTest::addColumn<QString>("defaultPath");
    QTest::addColumn<QString>("writePath");
    QTest::addColumn<QByteArray>("line");
    const auto row = [](const char* name, const char* defaultPath, const char* writePath,
                        const char* line) {
        QTest::newRow(name) << QString::fromLatin1(defaultPath) << QString::fromLatin1(writePath)
                            << QByteArray(line);
    };
    row("missing default tree", "%T/none", "%T/write", "directory '%T/none' does not exist");
    row("missing writable tree", "%T/default", "%T/none", "directory '%T/none' does not exist");
    row("file", "%T/default/serial", "%T/write", "'%T/default/serial' is not a directory");
    row("empty name", "", "%T/write", "directory '' does not exist");
    row("equal", "%T/default", "%T/default/../default",
        "The default tree '%T/default' and the writable tree '%T/default' must lie apart");
    row("one inside the other", "%T/default", "%T/default/audio",
        "The default tree '%T/default' and the writable tree '%T/default/audio' must lie apart");
    row("the other way round", "%T/default/audio", "%T/default",
        "The default tree '%T/default/audio' and the writable tree '%T/default' must lie apart");
}

void TstServiceStart::directoriesAreChecked()
{
    QFETCH(QString, defaultPath);
    QFETCH(QString, writePath);
    QFETCH(QByteArray, line);
    const CommandLine trees;
    const PrivateBus bus;
    const QString base = trees.tree.path();

    const ChildResult result = ChildProcess::run(
        QStringLiteral(TULO_SETTINGSD_PROGRAM),
        { QStringLiteral("--default-path"), defaultPath.replace(QStringLiteral("%T"), base),
          QStringLiteral("--write-path"), writePath.replace(QStringLiteral("%T"), base),
          QStringLiteral("--bus"), bus.address() });

    QCOMPARE(result.standardError.split('\n').first(),
             "ERROR tulo-settingsd: " + line.replace("%T", base.toUtf8()));
    QCOMPARE(result.exitCode, 2);
}

void TstServiceStart::busWhoseNameIsMistypedIsWrongUsage()
{
    const CommandLine trees;

    ServiceProcess service(trees, QStringLiteral("sesion"));
    QVERIFY(service.start());
    const ChildResult result = service.finish();

    QCOMPARE(result.standardError,
             QByteArray("ERROR tulo-settingsd: 'sesion' is not a bus, which is system, session or "
                        "an address such as unix:path=/run/dbus/system_bus_socket\n"));
    QCOMPARE(result.exitCode, 2);
}

void TstServiceStart::treeThatMayNotBeWrittenStopsTheStart()
{
    if (::geteuid() != 0)
        QSKIP("needs root to become another user");
    const CommandLine trees;
    const PrivateBus bus;

    ServiceProcess service(trees, bus.address(), {},
                           { QStringLiteral("setpriv"), QStringLiteral("--reuid=65534"),
                             QStringLiteral("--regid=65534"), QStringLiteral("--clear-groups") });
    QVERIFY(service.start());
    const ChildResult result = service.finish();

    QCOMPARE(result.standardError,
             "ERROR tulo-settingsd: Directory '" + trees.tree.writePath().toUtf8()
                 + "' cannot be written\n");
    QCOMPARE(result.exitCode, 7);
}

void TstServiceStart::harmlessFindingIsLoggedAndServed()
{
    const CommandLine trees;
    const PrivateBus bus;
    trees.tree.makeWriteDirectory(QStringLiteral("/audio"));
    const QString link = trees.tree.writePath() + QLatin1String("/audio/link");
    QVERIFY(QFile::link(QStringLiteral("../../default/serial"), link));
    // Without a kind; it can be served.
    trees.tree.writeDefault(QStringLiteral("/plain"), R"({"value":5})");

    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const ChildResult result = service.end();

    QCOMPARE(result.exitCode, 0);
    QCOMPARE(
        ServiceProcess::complaints(result),
        "WARN  tulo-settingsd: " + trees.tree.defaultPath().toUtf8()
            + "/plain:1:2: value: 5 is not a value of a known kind, such as {\"int\":5}\nWARN  tulo-settingsd: "
            + link.toUtf8() + ": is a link; no change is written through it\n");
}

// As a change in process by root with another umask leaves it, for example.
void TstServiceStart::directoryOfAnotherUserStopsTheStart()
{
    if (::geteuid() != 0)
        QSKIP("needs root to give a file away");
    const CommandLine trees;
    const PrivateBus bus;
    trees.tree.writeWritten(QStringLiteral("/audio/volume"),
                            QByteArrayLiteral(R"({"value":{"int":30}})"));
    QCOMPARE(::chown(QFile::encodeName(trees.tree.writePath()).constData(), 65534, 65534), 0);

    ServiceProcess service(trees, bus.address(), {},
                           { QStringLiteral("setpriv"), QStringLiteral("--reuid=65534"),
                             QStringLiteral("--regid=65534"), QStringLiteral("--clear-groups") });
    QVERIFY(service.start());
    const ChildResult result = service.finish();

    QCOMPARE(result.standardError,
             "ERROR tulo-settingsd: " + trees.tree.writePath().toUtf8()
                 + "/audio: user 'nobody' cannot read and write it; change its owner (chown "
                   "nobody) or its mode\n");
    QCOMPARE(result.exitCode, 7);
}

// Nobody can tell a temporary file from one that a person named like it.
void TstServiceStart::hiddenFilesSurviveStartStopAndKill()
{
    const CommandLine trees;
    const PrivateBus bus;
    const QStringList names {
        QStringLiteral("/.bash_history"), QStringLiteral("/.profile"),
        QStringLiteral("/.serial"),       QStringLiteral("/.token"),
        QStringLiteral("/audio/.b.c"),    QStringLiteral("/audio/.volume.swp"),
        QStringLiteral("/sub/.gitkeep"),  QStringLiteral("/sub/.hidden/file"),
    };
    const auto contentOf = [](const QString& name) {
        return name.endsWith(QLatin1String("keep")) ? QByteArray("") : "not JSON: " + name.toUtf8();
    };
    for (const QString& name : names) {
        trees.tree.writeDefault(name, contentOf(name));
        trees.tree.writeWritten(name, contentOf(name));
    }

    for (const bool killed : { false, true, false }) {
        ServiceProcess service(trees, bus.address());
        QVERIFY2(service.serve(), service.standardError());
        const BusClient client(bus.address());
        QCOMPARE(
            client.call("SetValue", { QStringLiteral("/settings/audio/volume"), variantOf(40) }),
            QStringLiteral("{timestamp: *, value: x 40}"));
        QCOMPARE(service.end(killed ? SIGKILL : SIGTERM).signal, killed ? SIGKILL : 0);
    }

    for (const QString& name : names) {
        QCOMPARE(trees.tree.readDefault(name), contentOf(name));
        QCOMPARE(trees.tree.readWritten(name), contentOf(name));
    }
}

void TstServiceStart::staleTemporaryFileIsReusedByTheNextWrite()
{
    const CommandLine trees;
    const PrivateBus bus;
    trees.tree.writeWritten(QStringLiteral("/audio/.volume"),
                            QByteArrayLiteral("{\"value\":{\"in"));
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    QCOMPARE(client.value(QStringLiteral("/settings/audio/volume")), QStringLiteral("x 35"));

    QCOMPARE(client.call("SetValue", { QStringLiteral("/settings/audio/volume"), variantOf(40) }),
             QStringLiteral("{timestamp: *, value: x 40}"));
    QCOMPARE(service.end().exitCode, 0);

    QCOMPARE(trees.tree.writtenEntries(),
             QStringList({ QStringLiteral("/.tulo-cm.lock"), QStringLiteral("/audio/"),
                           QStringLiteral("/audio/volume") }));
    QCOMPARE(trees.tree.readWrittenRoles(QStringLiteral("/audio/volume"))
                 .value(QStringLiteral("value"))
                 .toHash(),
             (QVariantHash { { QStringLiteral("int"), 40 } }));
}

namespace {

const QString journal = QStringLiteral("/.tulo-cm.journal");

/// A change of the volume to 20 that was decided, and interrupted.
QByteArray decidedChange()
{
    const QByteArray body("{\"content\":\"{\\\"value\\\":{\\\"int\\\":20}}\","
                          "\"path\":\"/audio/volume\"}\n");
    return "tulo-journal 1 " + QCryptographicHash::hash(body, QCryptographicHash::Sha256).toHex()
        + '\n' + body;
}

} // namespace

void TstServiceStart::interruptedChangeIsFinishedAtTheStart()
{
    const CommandLine trees;
    const PrivateBus bus;
    trees.tree.writeWritten(journal, decidedChange());
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());

    QCOMPARE(BusClient(bus.address()).value(QStringLiteral("/settings/audio/volume")),
             QStringLiteral("x 20"));
    QCOMPARE(ServiceProcess::complaints(service.end()),
             QStringLiteral("WARN  tulo-settingsd: '%1': finished a change of 1 files that was "
                            "interrupted\n")
                 .arg(trees.tree.writePath())
                 .toUtf8());
    QVERIFY(!trees.tree.writtenEntries().contains(journal));
}

void TstServiceStart::factoryResetIsDoneBeforeAnythingIsServed()
{
    const CommandLine trees;
    const PrivateBus bus;
    const QString request = QStringLiteral("/.tulo-cm.factory-reset");
    trees.tree.writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":40}})");
    trees.tree.writeWritten(journal, decidedChange());
    trees.tree.writeWritten(request, "");
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());

    QCOMPARE(BusClient(bus.address()).value(QStringLiteral("/settings/audio/volume")),
             QStringLiteral("x 35"));
    QCOMPARE(ServiceProcess::complaints(service.end()),
             QStringLiteral("WARN  tulo-settingsd: '%1': factory reset: 1 settings were taken back "
                            "to their defaults\n")
                 .arg(trees.tree.writePath())
                 .toUtf8());
    QCOMPARE(trees.tree.writtenEntries(),
             QStringList({ QStringLiteral("/.tulo-cm.lock"), QStringLiteral("/audio/") }));
}

void TstServiceStart::resetOfEverythingFulfilsTheRequestOfAFactoryReset_data()
{
    QTest::addColumn<bool>("isAnythingChanged");
    QTest::newRow("something is changed") << true;
    QTest::newRow("nothing is changed") << false;
}

// The next start would reset what has been set since.
void TstServiceStart::resetOfEverythingFulfilsTheRequestOfAFactoryReset()
{
    QFETCH(const bool, isAnythingChanged);
    const CommandLine trees;
    const PrivateBus bus;
    const QString request = QStringLiteral("/.tulo-cm.factory-reset");
    if (isAnythingChanged)
        trees.tree.writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":40}})");
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    trees.tree.writeWritten(request, "");
    const BusClient client(bus.address());

    QDBusMessage reset = BusClient::message(QStringLiteral("Reset"));
    reset =
        QDBusMessage::createMethodCall(reset.service(), reset.path(),
                                       reset.service() + QStringLiteral(".Admin"), reset.member())
        << QStringList(QStringLiteral("/settings")) << QVariantMap();
    const QDBusMessage answer = client.connection().call(reset);

    QCOMPARE(BusClient::errorOf(answer), QString());
    QVERIFY(!trees.tree.writtenEntries().contains(request));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceStart::damagedJournalIsToldAndServed()
{
    const CommandLine trees;
    const PrivateBus bus;
    const QByteArray damaged = decidedChange().replace("20", "30");
    trees.tree.writeWritten(journal, damaged);
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());

    QCOMPARE(client.value(QStringLiteral("/settings/audio/volume")), QStringLiteral("x 35"));
    QCOMPARE(client.call("SetValue", { QStringLiteral("/settings/audio/volume"), variantOf(40) }),
             QStringLiteral("{timestamp: *, value: x 40}"));
    QCOMPARE(ServiceProcess::complaints(service.end()),
             QStringLiteral("WARN  tulo-settingsd: '%1': the file '.tulo-cm.journal' in the "
                            "writable tree is damaged, or was not written by this program; "
                            "nothing of it has been done, see what it holds and move it "
                            "elsewhere\n")
                 .arg(trees.tree.writePath())
                 .toUtf8());
    QCOMPARE(trees.tree.readWritten(journal), damaged);
}

void TstServiceStart::changeThatCannotBeFinishedIsToldAndServedForReading()
{
    const CommandLine trees;
    const PrivateBus bus;
    trees.tree.writeWritten(journal, decidedChange());
    trees.tree.makeWriteDirectory(QStringLiteral("/audio/volume"));
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());

    QCOMPARE(client.property("Writable"), QStringLiteral("b false"));
    QCOMPARE(client.value(QStringLiteral("/settings/audio/gain")), QStringLiteral("d 0.5"));
    const QString answer =
        client.call("SetValue", { QStringLiteral("/settings/audio/gain"), variantOf(0.25) });
    QVERIFY2(answer.startsWith(QLatin1String("Unavailable: The writable tree '")),
             qPrintable(answer));
    const QByteArray complaints = ServiceProcess::complaints(service.end());
    QVERIFY2(complaints.contains("is in the way of 'audio/volume'"), complaints);
    QCOMPARE(trees.tree.readWritten(journal), decidedChange());
}

void TstServiceStart::defaultFileThatBreaksLaterIsNamedAtTheNextStart()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    trees.tree.writeDefault(QStringLiteral("/audio/volume"), QByteArrayLiteral("{broken"));

    const BusClient client(bus.address());
    QVERIFY(client.value(QStringLiteral("/settings/audio/volume"))
                .startsWith(QStringLiteral("org.freedesktop.DBus.Error.")));
    QCOMPARE(service.finish().signal, SIGABRT);

    ServiceProcess next(trees, bus.address());
    QVERIFY(next.start());
    const ChildResult result = next.finish();
    QVERIFY2(result.standardError.contains("/default/audio/volume:1:2: "), result.standardError);
    QCOMPARE(result.exitCode, 8);
}

QTEST_GUILESS_MAIN(TstServiceStart)
#include "tst_service_start.moc"
