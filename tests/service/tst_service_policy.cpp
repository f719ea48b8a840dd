#include "tests/service/servicefixture.h"

#include <QDBusPendingCall>
#include <QFile>
#include <QTest>

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

/// The system bus's own rules, with the packaged policy on top.
QByteArray systemPolicy(const QString& directory)
{
    QFile packaged(
        QStringLiteral(TULO_SOURCE_DIR "/packaging/org.tulo.ConfigurationManager1.conf"));
    QFile copy(directory + QLatin1String("/policy.conf"));
    if (!packaged.open(QIODevice::ReadOnly) || !copy.open(QIODevice::WriteOnly))
        qFatal("cannot copy the policy");
    QByteArray policy = packaged.readAll();
    if (policy.count("group=\"tulo\"") != 1 || policy.count("user=\"tulo-cm\"") != 1)
        qFatal("the policy names other users");
    policy.replace("group=\"tulo\"", "group=\"" + memberGroup.toUtf8() + '"');
    policy.replace("user=\"tulo-cm\"", "user=\"" + serviceUser.toUtf8() + '"');
    copy.write(policy);
    return R"(<type>system</type>
<policy context="default">
  <allow user="*"/>
  <deny own="*"/>
  <deny send_type="method_call"/>
  <allow send_type="signal"/>
  <allow send_requested_reply="true" send_type="method_return"/>
  <allow send_requested_reply="true" send_type="error"/>
  <allow receive_type="method_call"/>
  <allow receive_type="method_return"/>
  <allow receive_type="error"/>
  <allow receive_type="signal"/>
  <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
</policy>
<include>)"
        + QFile::encodeName(copy.fileName()) + "</include>\n";
}

/// The words that have setpriv run a program as this user.
QStringList asUser(const QString& user)
{
    return { QStringLiteral("--reuid=") + user, QStringLiteral("--regid=") + user,
             QStringLiteral("--clear-groups") };
}

} // namespace

/// What the packaged bus policy lets whom do, on a bus with the rules of a system bus.
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
    void seventeenthCallUnderWayIsRefused();
    void oversizedMessageEndsItsSenderOnly();

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
    const SyncGate m_gate;
    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<ServiceProcess> m_service;
};

void TstServicePolicy::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("needs root to become other users");
    m_bus = std::make_unique<PrivateBus>(systemPolicy(m_trees.tree.path()));
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

    QVERIFY2(result.standardError.startsWith("tulo-cm: The name 'org.tulo.ConfigurationManager1' "
                                             "is not to be had on this bus: "),
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

void TstServicePolicy::seventeenthCallUnderWayIsRefused()
{
    const CommandLine trees;
    const PrivateBus bus(systemPolicy(trees.tree.path()));
    ServiceProcess service(trees, bus.address());
    service.replaceSync(m_gate.script());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    const BusClient other(bus.address());
    QDBusPendingCall first = other.connection().asyncCall(
        BusClient::message(QStringLiteral("Flush")), ChildProcess::waitMs);
    QVERIFY(m_gate.waitForFlush());

    QVector<QDBusPendingCall> calls;
    for (int i = 0; i < 17; ++i) {
        calls.append(client.connection().asyncCall(
            BusClient::message(QStringLiteral("GetData"),
                               { volume, QStringList { QStringLiteral("value") } }),
            ChildProcess::waitMs));
    }
    calls[16].waitForFinished();

    QVERIFY2(BusClient::shown(calls[16].reply())
                 .startsWith(QStringLiteral("org.freedesktop.DBus.Error.LimitsExceeded: ")),
             qPrintable(BusClient::shown(calls[16].reply())));
    m_gate.letOneThrough();
    for (int i = 0; i < 16; ++i) {
        calls[i].waitForFinished();
        QCOMPARE(BusClient::shown(calls[i].reply()), QStringLiteral("{value: x 35}"));
    }
    first.waitForFinished();
    QCOMPARE(BusClient::shown(first.reply()), QStringLiteral("u 0"));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServicePolicy::oversizedMessageEndsItsSenderOnly()
{
    const BusClient sender(m_bus->address());
    const BusClient other(m_bus->address());

    const QString answer =
        sender.call("SetValue", { volume, variantOf(QString(70000, QLatin1Char('x'))) });

    QVERIFY2(answer.startsWith(QStringLiteral("org.freedesktop.DBus.Error.")), qPrintable(answer));
    QVERIFY(!sender.connection().isConnected());
    QCOMPARE(other.value(volume), QStringLiteral("x 35"));
}

QTEST_GUILESS_MAIN(TstServicePolicy)
#include "tst_service_policy.moc"
