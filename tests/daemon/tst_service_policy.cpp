#include "tests/daemon/servicefixture.h"

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
const QString program = QStringLiteral(TULO_CM_PROGRAM);
// The names of the packaged policy are made when it is installed; here others, which every Debian
// has, stand in their place. The bus looks a user's groups up in the system's tables: the user
// "daemon" is in the group of that name, "nobody" is not.
const QString memberGroup = QStringLiteral("daemon");
const QString serviceUser = QStringLiteral("bin");
const QString member = QStringLiteral("1");
const QString outsider = QStringLiteral("65534");

QByteArray contentOf(const QString& name)
{
    QFile file(name);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot read %s", qPrintable(name));
    return file.readAll();
}

void write(const QString& name, const QByteArray& content)
{
    QFile file(name);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write %s", qPrintable(name));
}

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
    QByteArray policy = contentOf(policyFile);
    replaceOnce(policy, "group=\"tulo\"", "group=\"" + memberGroup.toUtf8() + '"');
    replaceOnce(policy, "user=\"tulo-cm\"", "user=\"" + serviceUser.toUtf8() + '"');
    write(policyFile, policy);
    write(folder + QLatin1String("system.d/org.example.Neighbour.conf"), R"(<busconfig>
  <policy context="default"><allow send_destination="org.example.Neighbour"/></policy>
  <policy user="root"><allow own="org.example.Neighbour"/></policy>
</busconfig>)");

    // Without what would make it this machine's own bus.
    QByteArray system = contentOf(QStringLiteral("/usr/share/dbus-1/system.conf"));
    for (const char* element :
         { "<user>messagebus</user>", "<fork/>", "<pidfile>/run/dbus/pid</pidfile>", "<syslog/>",
           "<standard_system_servicedirs/>",
           "<listen>unix:path=/run/dbus/system_bus_socket</listen>",
           "<include ignore_missing=\"yes\">/etc/dbus-1/system.conf</include>",
           "<includedir>/etc/dbus-1/system.d</includedir>",
           "<include ignore_missing=\"yes\">/etc/dbus-1/system-local.conf</include>" })
        replaceOnce(system, element, QByteArray());
    write(folder + QLatin1String("system.conf"), system);
    return "<include>" + QFile::encodeName(folder) + "system.conf</include>\n";
}

/// The words that have setpriv run a program as this user.
QStringList asUser(const QString& user)
{
    return { QStringLiteral("--reuid=") + user, QStringLiteral("--regid=") + user,
             QStringLiteral("--clear-groups") };
}

/// Connects as another user, and in the group of that number: the bus asks the system who is at the
/// other end.
class ConnectAs
{
public:
    explicit ConnectAs(uid_t user)
    {
        if (::setegid(user) != 0 || ::seteuid(user) != 0)
            qFatal("cannot become another user");
    }
    ~ConnectAs()
    {
        if (::seteuid(0) != 0 || ::setegid(0) != 0)
            qFatal("cannot become root again");
    }
    Q_DISABLE_COPY(ConnectAs)
};

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

    void userOutsideTheGroupIsRefusedEverything();
    void userOutsideTheGroupHearsNothing();
    void memberReadsChangesAndFlushes();
    void memberMayNotDropTheCache();
    void memberMayNotServe();
    void rootMayDoEverything();
    void largeMessagesOfAnotherServicePass();
    void manyCallsOfAnotherServicePass();
    void messageWithAFileDescriptorIsDeniedForOurNameOnly_data();
    void messageWithAFileDescriptorIsDeniedForOurNameOnly();
    void oversizedMessageIsRefusedAndEndsNobody();

private:
    ChildResult run(const QString& user, const QStringList& words,
                    const QByteArray& input = QByteArray()) const
    {
        return ChildProcess::run(
            QStringLiteral("setpriv"),
            asUser(user) + QStringList { program, QStringLiteral("--bus"), m_bus->address() }
                + words,
            input);
    }

    const CommandLine m_trees;
    const QTemporaryDir m_root;
    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<ServiceProcess> m_service;
};

void TstServicePolicy::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("needs root to become other users");
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

void TstServicePolicy::userOutsideTheGroupIsRefusedEverything()
{
    QByteArray lines;
    for (int i = 0; i < 25; ++i) {
        lines += "get /settings/audio/volume\nset /settings/audio/volume "
            + QByteArray::number(5 * (i % 20)) + '\n';
    }

    const ChildResult result = run(outsider, { QStringLiteral("shell") }, lines);

    QCOMPARE(result.standardOutput, QByteArray());
    // A change asks for the present value first, which is refused already.
    QCOMPARE(result.standardError.count("the bus does not permit it: "), 50);
    QCOMPARE(result.standardError.count('\n'), 50);
    QCOMPARE(result.exitCode, 7);
    const QStringList calls { QStringLiteral("SetValue sv /settings/audio/volume i 5"),
                              QStringLiteral("SetRoles sa{sv} /settings/audio/volume 0"),
                              QStringLiteral("Apply ssav /settings/audio/volume add 1 i 5"),
                              QStringLiteral("GetRows siias /settings 0 5 0"),
                              QStringLiteral("Flush"),
                              QStringLiteral("DropCache") };
    for (const QString& call : calls) {
        const ChildResult refused =
            ChildProcess::run(QStringLiteral("setpriv"),
                              asUser(outsider)
                                  + QStringList { QStringLiteral("busctl"),
                                                  QStringLiteral("--address=") + m_bus->address(),
                                                  QStringLiteral("call"),
                                                  QStringLiteral("org.tulo.ConfigurationManager1"),
                                                  QStringLiteral("/org/tulo/ConfigurationManager1"),
                                                  QStringLiteral("org.tulo.ConfigurationManager1") }
                                  + call.split(QLatin1Char(' ')));
        QCOMPARE(refused.exitCode, 1);
        QCOMPARE(refused.standardOutput, QByteArray());
    }
    QCOMPARE(BusClient(m_bus->address()).value(volume), QStringLiteral("x 35"));
    QCOMPARE(BusClient(m_bus->address()).property("PendingWrites"), QStringLiteral("u 0"));
}

void TstServicePolicy::userOutsideTheGroupHearsNothing()
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

void TstServicePolicy::memberReadsChangesAndFlushes()
{
    ChildProcess watch(QStringLiteral("setpriv"),
                       asUser(member)
                           + QStringList { program, QStringLiteral("--bus"), m_bus->address(),
                                           QStringLiteral("watch"), volume,
                                           QStringLiteral("--initial"), QStringLiteral("--count"),
                                           QStringLiteral("2") });
    QVERIFY(watch.start());
    QVERIFY2(watch.waitForOutput("value /settings/audio/volume 35\n"), watch.standardError());

    const ChildResult set = run(
        member, { QStringLiteral("set"), volume, QStringLiteral("60"), QStringLiteral("--flush") });
    QCOMPARE(set.standardOutput, QByteArray("60\n"));
    QCOMPARE(set.exitCode, 0);
    const ChildResult get = run(member, { QStringLiteral("get"), volume });
    QCOMPARE(get.standardOutput, QByteArray("60\n"));
    QCOMPARE(run(member, { QStringLiteral("flush") }).exitCode, 0);
    QCOMPARE(run(member, { QStringLiteral("status") }).exitCode, 0);
    QCOMPARE(watch.finish().standardOutput,
             QByteArray("value /settings/audio/volume 35\nvalue /settings/audio/volume 60\n"
                        "data /settings/audio/volume\n"));
    QCOMPARE(run(member,
                 { QStringLiteral("set"), volume, QStringLiteral("35"), QStringLiteral("--flush") })
                 .exitCode,
             0);
}

void TstServicePolicy::memberMayNotDropTheCache()
{
    const ChildResult result = run(member, { QStringLiteral("drop-cache") });

    QVERIFY2(result.standardError.contains("the bus does not permit it: "), result.standardError);
    QCOMPARE(result.exitCode, 7);
}

void TstServicePolicy::memberMayNotServe()
{
    const CommandLine trees;
    QCOMPARE(::chown(QFile::encodeName(trees.tree.writePath()).constData(), 1, 1), 0);
    ServiceProcess service(trees, m_bus->address(), {},
                           QStringList { QStringLiteral("setpriv") } + asUser(member));
    QVERIFY(service.start());

    const ChildResult result = service.finish();

    QVERIFY2(result.standardError.startsWith("tulo-cm: cannot acquire the bus name "
                                             "'org.tulo.ConfigurationManager1': "),
             result.standardError);
    QCOMPARE(result.exitCode, 7);
}

void TstServicePolicy::rootMayDoEverything()
{
    const BusClient root(m_bus->address());

    QCOMPARE(root.value(volume), QStringLiteral("x 35"));
    QCOMPARE(root.call("DropCache"), QString());
    QCOMPARE(root.call("Flush"), QStringLiteral("u 0"));
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
    QTest::newRow("member") << member.toUInt();
    QTest::newRow("the service's own user") << 2U;
}

void TstServicePolicy::messageWithAFileDescriptorIsDeniedForOurNameOnly()
{
    QFETCH(const uint, user);
    const Neighbour neighbour(m_bus->address());
    std::unique_ptr<BusClient> client;
    {
        const ConnectAs connecting(user);
        client = std::make_unique<BusClient>(m_bus->address());
    }
    const QVariant descriptor = QVariant::fromValue(QDBusUnixFileDescriptor(STDIN_FILENO));

    const QDBusMessage ours = answerOf(client->connection().asyncCall(BusClient::message(
        QStringLiteral("SetValue"), { volume, QVariant::fromValue(QDBusVariant(descriptor)) })));
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
