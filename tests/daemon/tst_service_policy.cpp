#include "tests/daemon/servicefixture.h"

#include "daemon/tulo/bus-types.h"

#include "tests/support/files.h"

#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QDBusPendingCall>
#include <QDBusPendingCallWatcher>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>
#include <QFile>
#include <QSignalSpy>
#include <QTest>
#include <QVector>

#include <memory>

#include <unistd.h>

namespace {

const QString volume = QStringLiteral("/settings/audio/volume");
// The names of the packaged policy are made when it is installed; here others, which every Debian
// has, stand in their place. The bus looks a user's groups up in the system's tables: the users
// "daemon" and "sys" are in the groups of these names, "nobody" is in neither.
const QString memberGroup = QStringLiteral("daemon");
const QString readerGroup = QStringLiteral("sys");
const QString serviceUser = QStringLiteral("bin");
constexpr uid_t member = 1;
constexpr uid_t serviceUserId = 2;
constexpr uid_t reader = 3;
constexpr uid_t outsider = 65534;

void replaceOnce(QByteArray& text, const QByteArray& before, const QByteArray& after)
{
    if (text.count(before) != 1)
        qFatal("not there exactly once: %s", before.constData());
    text.replace(before, after);
}

/// The distribution's configuration of the system bus, which finds the installed policy beside it,
/// and one of another service.
QByteArray systemPolicy(const QString& root)
{
    const ChildResult installation = install(root, QStringLiteral("/usr"));
    if (installation.exitCode != 0)
        qFatal("cannot install: %s", installation.standardError.constData());
    const QString folder = root + QLatin1String("/usr/share/dbus-1/");

    const QString policyFile =
        folder + QLatin1String("system.d/org.tulo.ConfigurationManager1.conf");
    QByteArray policy = readFile(policyFile);
    replaceOnce(policy, "group=\"tulo-read\"", "group=\"" + readerGroup.toUtf8() + '"');
    replaceOnce(policy, "group=\"tulo\"", "group=\"" + memberGroup.toUtf8() + '"');
    replaceOnce(policy, "user=\"tulo-cm\"", "user=\"" + serviceUser.toUtf8() + '"');
    writeFile(policyFile, policy);
    writeFile(folder + QLatin1String("system.d/org.example.Neighbour.conf"), R"(<busconfig>
  <policy context="default"><allow send_destination="org.example.Neighbour"/></policy>
  <policy user="root"><allow own="org.example.Neighbour"/></policy>
</busconfig>)");

    // Without what would make it this machine's own bus.
    QByteArray system = readFile(QStringLiteral("/usr/share/dbus-1/system.conf"));
    for (const char* element :
         { "<user>messagebus</user>", "<fork/>", "<pidfile>/run/dbus/pid</pidfile>", "<syslog/>",
           "<standard_system_servicedirs/>",
           "<listen>unix:path=/run/dbus/system_bus_socket</listen>",
           "<include ignore_missing=\"yes\">/etc/dbus-1/system.conf</include>",
           "<includedir>/etc/dbus-1/system.d</includedir>",
           "<include ignore_missing=\"yes\">/etc/dbus-1/system-local.conf</include>" })
        replaceOnce(system, element, QByteArray());
    writeFile(folder + QLatin1String("system.conf"), system);
    return "<include>" + QFile::encodeName(folder) + "system.conf</include>\n";
}

/// The words that have setpriv run a program as this user.
QStringList asUser(uid_t user)
{
    return { QStringLiteral("--reuid=%1").arg(user), QStringLiteral("--regid=%1").arg(user),
             QStringLiteral("--clear-groups") };
}

/// Waits in the event loop, where this program's own service answers.
QDBusMessage answerOf(const QDBusPendingCall& call)
{
    const QDBusPendingCallWatcher watcher(call);
    QSignalSpy finished(&watcher, &QDBusPendingCallWatcher::finished);
    if (!call.isFinished())
        finished.wait(ChildProcess::waitMs);
    return call.reply();
}

} // namespace

/// Another service on the same bus.
class Neighbour : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.example.Neighbour")

public:
    explicit Neighbour(const QString& bus)
        : m_connection(QDBusConnection::connectToBus(bus, QStringLiteral("neighbour")))
    {
        if (!m_connection.registerObject(QStringLiteral("/"), this, QDBusConnection::ExportAllSlots)
            || !m_connection.registerService(QStringLiteral("org.example.Neighbour")))
            qFatal("no neighbour: %s", qPrintable(m_connection.lastError().message()));
    }

    ~Neighbour() override { QDBusConnection::disconnectFromBus(m_connection.name()); }

    static QDBusMessage message(const char* method, const QVariantList& arguments = {})
    {
        QDBusMessage message = QDBusMessage::createMethodCall(
            QStringLiteral("org.example.Neighbour"), QStringLiteral("/"),
            QStringLiteral("org.example.Neighbour"), QString::fromLatin1(method));
        message.setArguments(arguments);
        return message;
    }

    bool isConnected() const { return m_connection.isConnected(); }

    /// Waits until so many calls of wait() are under way.
    bool waitForCalls(int count)
    {
        QSignalSpy arrived(this, &Neighbour::privateCallArrived);
        while (m_waiting.size() < count) {
            if (!arrived.wait(ChildProcess::waitMs))
                return false;
        }
        return true;
    }

    void answerCalls()
    {
        for (const QDBusMessage& call : qAsConst(m_waiting))
            m_connection.send(call.createReply());
    }

public slots:
    QByteArray echo(const QByteArray& bytes) { return bytes; }
    bool take(const QDBusUnixFileDescriptor& descriptor) { return descriptor.isValid(); }
    void wait(const QDBusMessage& call)
    {
        call.setDelayedReply(true);
        m_waiting.append(call);
        emit privateCallArrived();
    }

signals:
    void privateCallArrived();

private:
    QDBusConnection m_connection;
    QVector<QDBusMessage> m_waiting;
};

/// What the packaged bus policy lets whom do, on a bus as the distribution configures it.
class TstServicePolicy : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void rightsFollowTheInterface_data();
    void rightsFollowTheInterface();
    void userOutsideTheGroupsHearsNothing();
    void readerHearsOfChanges();
    void memberMayNotServe();
    void largeMessagesOfAnotherServicePass();
    void manyCallsOfAnotherServicePass();
    void messageWithAFileDescriptorIsDeniedForOurNameOnly_data();
    void messageWithAFileDescriptorIsDeniedForOurNameOnly();
    void oversizedMessageIsRefusedAndEndsNobody();

private:
    const CommandLine m_trees;
    const QTemporaryDir m_root;
    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<ServiceProcess> m_service;
};

void TstServicePolicy::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("needs root to become other users");
    tulo::registerBusTypes();
    m_bus = std::make_unique<PrivateBus>(systemPolicy(m_root.path()));
    m_service = std::make_unique<ServiceProcess>(m_trees, m_bus->address());
    QVERIFY2(m_service->serve(), m_service->standardError());
}

void TstServicePolicy::cleanupTestCase()
{
    if (!m_service)
        return;
    const ChildResult result = m_service->end();
    QCOMPARE(ServiceProcess::complaints(result), QByteArray());
    QCOMPARE(result.exitCode, 0);
}

void TstServicePolicy::rightsFollowTheInterface_data()
{
    QTest::addColumn<uint>("user");
    QTest::addColumn<bool>("mayRead");
    QTest::addColumn<bool>("mayChange");
    QTest::addColumn<bool>("mayAdminister");
    QTest::newRow("outsider") << uint(outsider) << false << false << false;
    QTest::newRow("reader") << uint(reader) << true << false << false;
    QTest::newRow("member") << uint(member) << true << true << false;
    QTest::newRow("the service's own user") << uint(serviceUserId) << true << true << true;
    QTest::newRow("root") << 0U << true << true << true;
}

void TstServicePolicy::rightsFollowTheInterface()
{
    QFETCH(const uint, user);
    QFETCH(const bool, mayRead);
    QFETCH(const bool, mayChange);
    QFETCH(const bool, mayAdminister);
    const std::unique_ptr<BusClient> client = clientOf(user, m_bus->address());
    const auto isAllowed = [&client](const char* method, const QVariantList& arguments = {}) {
        const QString answer = client->call(method, arguments);
        return !answer.startsWith(QLatin1String("org.freedesktop.DBus.Error.AccessDenied: "));
    };
    const QString settings = QStringLiteral("/settings");
    const QStringList roles { QStringLiteral("value") };
    const QString denied = QStringLiteral("org.freedesktop.DBus.Error.AccessDenied: ");

    QCOMPARE(isAllowed("GetData", { volume, roles }), mayRead);
    QCOMPARE(isAllowed("GetMany", { QStringList { volume }, roles }), mayRead);
    QCOMPARE(isAllowed("GetRows", { settings, 0, 5, roles }), mayRead);
    QCOMPARE(isAllowed("GetTreeDigest"), mayRead);
    QCOMPARE(isAllowed("Explain", { volume }), mayRead);
    QCOMPARE(!client->property("PendingWrites").startsWith(denied), mayRead);
    QCOMPARE(isAllowed("SetValue", { volume, variantOf(40) }), mayChange);
    QCOMPARE(isAllowed("SetRoles", { volume, QVariantMap() }), mayChange);
    QCOMPARE(isAllowed("Apply", { volume, QStringLiteral("add"), QVariantList { variantOf(-5) } }),
             mayChange);
    QCOMPARE(isAllowed("SetMany", { QVariant::fromValue(tulo::BusNodes {}) }), mayChange);
    QCOMPARE(isAllowed("Reset", { QStringList { volume } }), mayChange);
    QDBusMessage resetBelow = BusClient::message(QStringLiteral("Reset"), { QStringList(volume) });
    resetBelow = QDBusMessage::createMethodCall(resetBelow.service(), resetBelow.path(),
                                                resetBelow.service() + QStringLiteral(".Admin"),
                                                resetBelow.member())
        << resetBelow.arguments();
    QCOMPARE(!BusClient::shown(client->connection().call(resetBelow)).startsWith(denied),
             mayAdminister);
    QCOMPARE(isAllowed("Flush"), mayChange);
    QCOMPARE(isAllowed("DropCache"), mayAdminister);
    QCOMPARE(isAllowed("GetUnsaved", { 10U }), mayAdminister);
    QCOMPARE(isAllowed("Statistics"), mayAdminister);
    // By the name of the connection, too.
    QDBusMessage direct = BusClient::message(QStringLiteral("SetValue"), { volume, variantOf(35) });
    const QString owner = client->connection().interface()->serviceOwner(direct.service());
    direct =
        QDBusMessage::createMethodCall(owner, direct.path(), direct.interface(), direct.member())
        << direct.arguments();
    QCOMPARE(!BusClient::shown(client->connection().call(direct)).startsWith(denied), mayChange);
    // Without an interface, any could be meant.
    QDBusMessage any = BusClient::message(QStringLiteral("GetData"), { volume, roles });
    any = QDBusMessage::createMethodCall(any.service(), any.path(), QString(), any.member())
        << any.arguments();
    QCOMPARE(!BusClient::shown(client->connection().call(any)).startsWith(denied), mayAdminister);
    // Nobody can set a property; only root gets that answer from the service itself.
    QDBusMessage set = QDBusMessage::createMethodCall(
        any.service(), any.path(), QStringLiteral("org.freedesktop.DBus.Properties"),
        QStringLiteral("Set"));
    set << any.service() << QStringLiteral("WritePath") << variantOf(QStringLiteral("/"));
    QCOMPARE(!BusClient::shown(client->connection().call(set)).startsWith(denied), mayAdminister);

    const BusClient root(m_bus->address());
    QCOMPARE(root.value(volume), QStringLiteral("x 35"));
    QCOMPARE(root.call("Flush"), QStringLiteral("u 0"));
}

void TstServicePolicy::userOutsideTheGroupsHearsNothing()
{
    ChildProcess monitor(QStringLiteral("setpriv"),
                         asUser(outsider)
                             + QStringList { QStringLiteral("stdbuf"), QStringLiteral("-oL"),
                                             QStringLiteral("dbus-monitor"),
                                             QStringLiteral("--address"), m_bus->address(),
                                             QStringLiteral("type='signal'") });
    QVERIFY(monitor.start());
    QVERIFY(monitor.waitForOutput("member=NameAcquired"));
    BusClient client(m_bus->address());
    SignalRecorder recorder(client.connection());
    // Its match rule is known by now if this reaches it.
    const QByteArray owner = "\"" + client.connection().baseService().toUtf8() + "\"";
    QVERIFY(monitor.waitForOutput(owner));

    client.call("SetValue", { volume, variantOf(50) });
    QVERIFY(recorder.waitFor(QStringLiteral("ValueChanged /settings/audio/volume x 50")));

    // Somebody else's coming, which everybody hears of, comes after it.
    const BusClient other(m_bus->address());
    QVERIFY(monitor.waitForOutput("\"" + other.connection().baseService().toUtf8() + "\""));
    QVERIFY(!monitor.standardOutput().contains("audio"));
    client.call("SetValue", { volume, variantOf(35) });
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
}

void TstServicePolicy::readerHearsOfChanges()
{
    const std::unique_ptr<BusClient> client = clientOf(reader, m_bus->address());
    SignalRecorder recorder(client->connection());
    const std::unique_ptr<BusClient> changing = clientOf(member, m_bus->address());

    QCOMPARE(changing->call("SetValue", { volume, variantOf(60) }),
             QStringLiteral("{timestamp: *, value: x 60}"));

    QVERIFY(recorder.waitFor(QStringLiteral("ValueChanged /settings/audio/volume x 60")));
    QCOMPARE(client->value(volume), QStringLiteral("x 60"));
    changing->call("SetValue", { volume, variantOf(35) });
    QCOMPARE(changing->call("Flush"), QStringLiteral("u 0"));
}

void TstServicePolicy::memberMayNotServe()
{
    const CommandLine trees;
    QCOMPARE(::chown(QFile::encodeName(trees.tree.writePath()).constData(), 1, 1), 0);
    ServiceProcess service(trees, m_bus->address(), {},
                           QStringList { QStringLiteral("setpriv") } + asUser(member));
    QVERIFY(service.start());

    const ChildResult result = service.finish();

    QVERIFY2(result.standardError.startsWith("ERROR tulo-settingsd: cannot acquire the bus name "
                                             "'org.tulo.ConfigurationManager1': "),
             result.standardError);
    QCOMPARE(result.exitCode, 7);
}

void TstServicePolicy::largeMessagesOfAnotherServicePass()
{
    const Neighbour neighbour(m_bus->address());
    const BusClient client(m_bus->address());
    const QByteArray large(1024 * 1024, 'x');

    const QDBusMessage answer =
        answerOf(client.connection().asyncCall(Neighbour::message("echo", { large })));

    QVERIFY2(answer.type() == QDBusMessage::ReplyMessage, qPrintable(answer.errorMessage()));
    QVERIFY(answer.arguments().value(0).toByteArray() == large);
    QVERIFY(neighbour.isConnected());
    QVERIFY(client.connection().isConnected());
}

void TstServicePolicy::manyCallsOfAnotherServicePass()
{
    Neighbour neighbour(m_bus->address());
    const BusClient client(m_bus->address());

    QVector<QDBusPendingCall> calls;
    for (int i = 0; i < 100; ++i)
        calls.append(client.connection().asyncCall(Neighbour::message("wait")));
    QVERIFY(neighbour.waitForCalls(100));
    neighbour.answerCalls();

    for (const QDBusPendingCall& call : qAsConst(calls)) {
        const QDBusMessage answer = answerOf(call);
        QVERIFY2(answer.type() == QDBusMessage::ReplyMessage, qPrintable(answer.errorMessage()));
    }
}

void TstServicePolicy::messageWithAFileDescriptorIsDeniedForOurNameOnly_data()
{
    QTest::addColumn<uint>("user");
    QTest::newRow("root") << 0U;
    QTest::newRow("reader") << uint(reader);
    QTest::newRow("member") << uint(member);
    QTest::newRow("the service's own user") << uint(serviceUserId);
}

void TstServicePolicy::messageWithAFileDescriptorIsDeniedForOurNameOnly()
{
    QFETCH(const uint, user);
    const Neighbour neighbour(m_bus->address());
    const std::unique_ptr<BusClient> client = clientOf(user, m_bus->address());
    const QVariant descriptor = QVariant::fromValue(QDBusUnixFileDescriptor(STDIN_FILENO));

    const QDBusMessage ours = answerOf(client->connection().asyncCall(BusClient::message(
        QStringLiteral("GetData"), { QVariant::fromValue(QDBusVariant(descriptor)) })));
    const QDBusMessage other =
        answerOf(client->connection().asyncCall(Neighbour::message("take", { descriptor })));

    QCOMPARE(ours.errorName(), QDBusError::errorString(QDBusError::AccessDenied));
    QCOMPARE(BusClient::shown(other), QStringLiteral("b true"));
    QCOMPARE(client->value(volume), QStringLiteral("x 35"));
}

void TstServicePolicy::oversizedMessageIsRefusedAndEndsNobody()
{
    const BusClient sender(m_bus->address());
    const BusClient other(m_bus->address());

    const QString answer =
        sender.call("SetValue", { volume, variantOf(QString(1024 * 1024, QLatin1Char('x'))) });

    QVERIFY2(answer.startsWith(QStringLiteral("Limits: ")), qPrintable(answer.left(200)));
    QCOMPARE(sender.value(volume), QStringLiteral("x 35"));
    QCOMPARE(other.value(volume), QStringLiteral("x 35"));
}

QTEST_GUILESS_MAIN(TstServicePolicy)
#include "tst_service_policy.moc"
