#include "tests/daemon/servicefixture.h"
#include "tests/support/repeats.h"

#include <QDBusConnectionInterface>
#include <QDBusPendingCall>
#include <QFile>
#include <QTest>

#include <cstring>
#include <memory>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const QString volume = QStringLiteral("/settings/audio/volume");
const QString gain = QStringLiteral("/settings/audio/gain");

QString numbered(int number)
{
    return QStringLiteral("/many/n%1").arg(number, 3, 10, QLatin1Char('0'));
}

QByteArray fileNameOf(const TemporaryTree& tree, const char* name)
{
    return QFile::encodeName(tree.writePath()) + name;
}

QVariantHash writtenVolume(const TemporaryTree& tree)
{
    return tree.readWrittenRoles(QStringLiteral("/audio/volume"))
        .value(QStringLiteral("value"))
        .toHash();
}

sockaddr_un socketAddress(const QByteArray& name)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (size_t(name.size()) >= sizeof address.sun_path)
        qFatal("the socket's name is too long");
    std::memcpy(address.sun_path, name.constData(), size_t(name.size()));
    return address;
}

} // namespace

/// Start and stop, the owner's lock, and what becomes of the service without its bus.
class TstServiceLifetime : public QObject
{
    Q_OBJECT

private slots:
    void orderlyStopLeavesEverythingOnDisk_data();
    void orderlyStopLeavesEverythingOnDisk();
    void stopAnswersTheFlushThatRuns();
    void stopSavesBeforeItTalksToTheBus();
    void stopTellsThatTheDiskFailed_data();
    void stopTellsThatTheDiskFailed();
    void killedServiceLeavesWhatWasFlushed();
    void secondInstanceIsRefused();
    void otherTreeOnTheSameBusIsRefused();
    void otherUserCannotHoldTheLockFirst_data();
    void otherUserCannotHoldTheLockFirst();
    void lockOfAnotherUserStopsTheStart();
    void readinessIsToldToTheServiceManager();
    void watchdogIsFedFromTheEventLoop();
    void serviceNeedsNoServiceManager();

    void lostBusEndsNothing();
    void serviceWithoutABusStopsInOrder();
    void busThatAnswersNothingHoldsNothingUp();
    void closedConnectionIsMadeAgain();
    void nameTakenAwayIsWaitedFor();
    void missingBusIsTold();
};

// ---------------------------------------------------------------------------------------------
// Stop and start.
// ---------------------------------------------------------------------------------------------

void TstServiceLifetime::orderlyStopLeavesEverythingOnDisk_data()
{
    QTest::addColumn<int>("signal");
    QTest::addColumn<int>("count");
    QTest::newRow("SIGTERM") << SIGTERM << 300;
    QTest::newRow("SIGINT") << SIGINT << 10;
}

void TstServiceLifetime::orderlyStopLeavesEverythingOnDisk()
{
    QFETCH(const int, signal);
    QFETCH(const int, count);
    const CommandLine trees;
    for (int i = 0; i < count; ++i)
        trees.tree.writeDefault(numbered(i), QByteArrayLiteral("{\"value\":{\"int\":0}}"));
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    for (int i = 0; i < count; ++i) {
        QCOMPARE(
            client.call("SetValue", { QLatin1String("/settings") + numbered(i), variantOf(i + 1) }),
            QStringLiteral("{timestamp: *, value: x %1}").arg(i + 1));
    }

    const ChildResult result = service.end(signal);

    QCOMPARE(result.exitCode, 0);
    QCOMPARE(ServiceProcess::complaints(result), QByteArray());
    for (int i = 0; i < count; ++i) {
        QCOMPARE(trees.tree.readWrittenRoles(numbered(i)).value(QStringLiteral("value")).toHash(),
                 QVariantHash({ { QStringLiteral("int"), i + 1 } }));
    }
}

void TstServiceLifetime::stopAnswersTheFlushThatRuns()
{
    const CommandLine trees;
    const PrivateBus bus;
    const SyncGate gate;
    ServiceProcess service(trees, bus.address());
    service.replaceSync(gate.script());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    client.call("SetValue", { volume, variantOf(40) });
    QDBusPendingCall flush = client.connection().asyncCall(
        BusClient::message(QStringLiteral("Flush")), ChildProcess::waitMs);
    QVERIFY(gate.waitForFlush());

    service.sendSignal(SIGTERM);
    gate.letOneThrough();

    flush.waitForFinished();
    QCOMPARE(BusClient::shown(flush.reply()), QStringLiteral("u 0"));
    const ChildResult result = service.finish();
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(ServiceProcess::complaints(result), QByteArray());
}

void TstServiceLifetime::stopSavesBeforeItTalksToTheBus()
{
    const CommandLine trees;
    const PrivateBus bus;
    const SyncGate gate;
    ServiceProcess service(trees, bus.address());
    service.replaceSync(gate.script());
    QVERIFY2(service.serve(), service.standardError());
    BusClient(bus.address()).call("SetValue", { volume, variantOf(40) });
    bus.stop();

    service.sendSignal(SIGTERM);
    QVERIFY(gate.waitForFlush());

    // What a killed service would leave.
    QCOMPARE(writtenVolume(trees.tree), QVariantHash({ { QStringLiteral("int"), 40 } }));
    gate.letOneThrough();
    const ChildResult result = service.finish();
    QCOMPARE(ServiceProcess::complaints(result), QByteArray());
    QCOMPARE(result.exitCode, 0);
}

void TstServiceLifetime::stopTellsThatTheDiskFailed_data()
{
    QTest::addColumn<bool>("answers");
    QTest::addColumn<QByteArray>("reason");
    QTest::newRow("error") << true
                           << QByteArray("The file system did not sync: Input/output error");
    if (repeats(0, 1) == 1) {
        QTest::newRow("no answer")
            << false << QByteArray("The file system did not sync within 30 seconds");
    }
}

void TstServiceLifetime::stopTellsThatTheDiskFailed()
{
    QFETCH(const bool, answers);
    QFETCH(const QByteArray, reason);
    const CommandLine trees;
    const PrivateBus bus;
    const SyncGate gate;
    ServiceProcess service(trees, bus.address());
    service.replaceSync(gate.script() + "; exit 1");
    QVERIFY2(service.serve(), service.standardError());
    BusClient(bus.address()).call("SetValue", { volume, variantOf(40) });

    service.sendSignal(SIGTERM);
    QVERIFY(gate.waitForFlush());
    if (answers)
        gate.letOneThrough();

    const ChildResult result = service.finish();
    QCOMPARE(ServiceProcess::complaints(result),
             "ERROR tulo-settingsd: not on disk: /settings/audio/volume (" + reason + ")\n");
    QCOMPARE(result.exitCode, 6);
}

void TstServiceLifetime::killedServiceLeavesWhatWasFlushed()
{
    const CommandLine trees;
    const PrivateBus bus;
    const BusClient client(bus.address());
    for (int value = 0; value < 100; value += 20) {
        ServiceProcess service(trees, bus.address());
        QVERIFY2(service.serve(), service.standardError());
        // What the service before left.
        QCOMPARE(client.value(volume), QStringLiteral("x %1").arg(value == 0 ? 35 : value - 20));
        client.call("SetValue", { volume, variantOf(value) });
        QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
        client.call("SetValue", { gain, variantOf(-0.5) });

        QCOMPARE(service.end(SIGKILL).signal, SIGKILL);
    }
}

void TstServiceLifetime::secondInstanceIsRefused()
{
    constexpr int attempts = 100;
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const QByteArray refusal =
        QStringLiteral("ERROR tulo-settingsd: The writable tree '%1' is in use by "
                       "process %2\n")
            .arg(trees.tree.writePath())
            .arg(service.processId())
            .toUtf8();

    int refused = 0;
    while (refused < attempts) {
        // Some at the same time.
        std::vector<std::unique_ptr<ServiceProcess>> others;
        for (int i = 0; i < 10; ++i) {
            others.push_back(std::make_unique<ServiceProcess>(trees, bus.address()));
            QVERIFY(others.back()->start());
        }
        for (const auto& other : others) {
            const ChildResult result = other->finish();
            QCOMPARE(result.standardError, refusal);
            QCOMPARE(result.exitCode, 7);
            ++refused;
        }
    }

    QCOMPARE(BusClient(bus.address()).value(volume), QStringLiteral("x 35"));
    const ChildResult result = service.end();
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(ServiceProcess::complaints(result), QByteArray());
}

void TstServiceLifetime::otherTreeOnTheSameBusIsRefused()
{
    const CommandLine trees;
    const CommandLine otherTrees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());

    ServiceProcess other(otherTrees, bus.address());
    QVERIFY(other.start());
    const ChildResult result = other.finish();

    QCOMPARE(result.standardError,
             QByteArray("ERROR tulo-settingsd: cannot acquire the bus name "
                        "'org.tulo.ConfigurationManager1': already owned\n"));
    QCOMPARE(result.exitCode, 7);
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceLifetime::otherUserCannotHoldTheLockFirst_data()
{
    QTest::addColumn<QByteArray>("locked");
    QTest::newRow("lock file") << QByteArray("/.tulo-cm.lock");
    QTest::newRow("directory") << QByteArray("");
}

void TstServiceLifetime::otherUserCannotHoldTheLockFirst()
{
    if (::geteuid() != 0)
        QSKIP("needs root to become another user");
    QFETCH(const QByteArray, locked);
    const CommandLine trees;
    // As the package makes it; the lock file needs no such help.
    if (locked.isEmpty())
        QCOMPARE(::chmod(fileNameOf(trees.tree, "").constData(), 0700), 0);
    const PrivateBus bus;
    {
        ServiceProcess service(trees, bus.address());
        QVERIFY2(service.serve(), service.standardError());
        QCOMPARE(service.end().exitCode, 0);
    }

    // While no service runs: opens and locks as soon as it may, and keeps the lock.
    ChildProcess other(QStringLiteral("setpriv"),
                       { QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"),
                         QStringLiteral("--clear-groups"), QStringLiteral("flock"),
                         QFile::decodeName(fileNameOf(trees.tree, locked)),
                         QStringLiteral("cat") });
    QVERIFY(other.start());
    QVERIFY(other.waitForError("Permission denied"));

    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceLifetime::lockOfAnotherUserStopsTheStart()
{
    if (::geteuid() != 0)
        QSKIP("needs root to give a file away");
    const CommandLine trees;
    const PrivateBus bus;
    // In a tree where others may write, which is a mistake in its setup.
    trees.tree.writeWritten(QStringLiteral("/.tulo-cm.lock"), QByteArray());
    QCOMPARE(::chown(fileNameOf(trees.tree, "/.tulo-cm.lock").constData(), 65534, 65534), 0);

    ServiceProcess service(trees, bus.address());
    QVERIFY(service.start());
    const ChildResult result = service.finish();

    QCOMPARE(
        result.standardError,
        QStringLiteral("ERROR tulo-settingsd: Lock file '%1/.tulo-cm.lock' belongs to another user "
                       "(65534)\n")
            .arg(trees.tree.writePath())
            .toUtf8());
    QCOMPARE(result.exitCode, 7);
}

void TstServiceLifetime::readinessIsToldToTheServiceManager()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());

    QVERIFY(service.start());
    QCOMPARE(service.waitForNotice(), QByteArray("READY=1"));
    QCOMPARE(service.end().exitCode, 0);
    QCOMPARE(service.waitForNotice(), QByteArray("STOPPING=1"));
}

void TstServiceLifetime::watchdogIsFedFromTheEventLoop()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    service.setVariable(QStringLiteral("WATCHDOG_USEC"), QStringLiteral("200000"));

    QVERIFY2(service.serve(), service.standardError());
    for (int i = 0; i < 3; ++i)
        QCOMPARE(service.waitForNotice(), QByteArray("WATCHDOG=1"));

    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceLifetime::serviceNeedsNoServiceManager()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    service.removeVariable(QStringLiteral("NOTIFY_SOCKET"));

    QVERIFY(service.start());
    QVERIFY2(service.waitForError("INFO  tulo-settingsd: serving '"), service.standardError());
    QCOMPARE(BusClient(bus.address()).value(volume), QStringLiteral("x 35"));

    QCOMPARE(service.end().exitCode, 0);
}

// ---------------------------------------------------------------------------------------------
// The bus.
// ---------------------------------------------------------------------------------------------

// What is pending is written nevertheless, and a bus at the same address has the service back.
void TstServiceLifetime::lostBusEndsNothing()
{
    const CommandLine trees;
    PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    service.replaceSync("exit 0");
    QVERIFY2(service.serve(), service.standardError());
    BusClient(bus.address()).call("SetValue", { volume, variantOf(40) });

    bus.kill();
    QVERIFY(service.waitForError("WARN  tulo-settingsd: the bus closed the connection: "));
    bus.startAgain();

    QVERIFY2(service.waitForError("INFO  tulo-settingsd: connected to the bus again\n"),
             service.standardError());
    const BusClient client(bus.address());
    QCOMPARE(client.value(volume), QStringLiteral("x 40"));
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QCOMPARE(writtenVolume(trees.tree), QVariantHash({ { QStringLiteral("int"), 40 } }));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceLifetime::serviceWithoutABusStopsInOrder()
{
    const CommandLine trees;
    PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    BusClient(bus.address()).call("SetValue", { volume, variantOf(40) });
    bus.kill();
    QVERIFY(service.waitForError("WARN  tulo-settingsd: the bus closed the connection: "));

    QCOMPARE(service.end().exitCode, 0);

    QCOMPARE(writtenVolume(trees.tree), QVariantHash({ { QStringLiteral("int"), 40 } }));
}

// A bus that accepts connections and says nothing.
void TstServiceLifetime::busThatAnswersNothingHoldsNothingUp()
{
    const CommandLine trees;
    PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    BusClient(bus.address()).call("SetValue", { volume, variantOf(40) });
    const QByteArray name = QFile::encodeName(bus.address().mid(int(std::strlen("unix:path="))));
    QCOMPARE(::unlink(name.constData()), 0);
    const sockaddr_un address = socketAddress(name);
    const int mute = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    QCOMPARE(::bind(mute, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    QCOMPARE(::listen(mute, 5), 0);

    bus.kill();
    // It connects.
    pollfd connection { mute, POLLIN, 0 };
    QCOMPARE(::poll(&connection, 1, ChildProcess::waitMs), 1);

    QCOMPARE(service.end().exitCode, 0);
    QCOMPARE(writtenVolume(trees.tree), QVariantHash({ { QStringLiteral("int"), 40 } }));
    ::close(mute);
}

void TstServiceLifetime::closedConnectionIsMadeAgain()
{
    const CommandLine trees;
    // A bus that takes much less than the service reckons with.
    const PrivateBus bus(PrivateBus::openPolicy()
                         + R"(<limit name="max_message_size">16384</limit>)");
    trees.tree.writeDefault(QStringLiteral("/long"),
                            "{\"value\":{\"string\":\"" + QByteArray(20000, 'x') + "\"}}");
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    QCOMPARE(client.value(volume), QStringLiteral("x 35"));

    QVERIFY(client.value(QStringLiteral("/settings/long")).startsWith(QStringLiteral("org.freed")));
    QVERIFY(service.waitForError("INFO  tulo-settingsd: connected to the bus again\n"));

    QCOMPARE(client.value(volume), QStringLiteral("x 35"));
    QCOMPARE(service.end().exitCode, 0);
}

// By one who may have the name: the service waits for it, and does not take it back.
void TstServiceLifetime::nameTakenAwayIsWaitedFor()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    const auto name = QStringLiteral("org.tulo.ConfigurationManager1");
    const auto busInterface = client.connection().interface();
    QVERIFY(busInterface
                ->registerService(name, QDBusConnectionInterface::ReplaceExistingService,
                                  QDBusConnectionInterface::AllowReplacement)
                .value()
            == QDBusConnectionInterface::ServiceRegistered);

    QVERIFY(service.waitForError("WARN  tulo-settingsd: the bus name has a new owner\n"));
    QCOMPARE(busInterface->serviceOwner(name).value(), client.connection().baseService());
    QVERIFY(busInterface->unregisterService(name).value());

    QVERIFY(service.waitForError("INFO  tulo-settingsd: connected to the bus again\n"));
    QCOMPARE(client.value(volume), QStringLiteral("x 35"));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceLifetime::missingBusIsTold()
{
    const CommandLine trees;
    ServiceProcess service(trees, QStringLiteral("unix:path=/no/such/bus"));
    QVERIFY(service.start());

    const ChildResult result = service.finish();

    QVERIFY2(result.standardError.startsWith(
                 "ERROR tulo-settingsd: cannot connect to the bus 'unix:path=/no/such/bus': "),
             result.standardError);
    QCOMPARE(result.exitCode, 7);
}

QTEST_GUILESS_MAIN(TstServiceLifetime)
#include "tst_service_lifetime.moc"
