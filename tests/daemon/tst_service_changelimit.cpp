#include "tests/daemon/servicefixture.h"

#include "daemon/tulo/bus-types.h"

#include <QDBusPendingCall>
#include <QRegularExpression>
#include <QTest>

#include <unistd.h>

namespace {

const QString volume = QStringLiteral("/settings/audio/volume");
const QString gain = QStringLiteral("/settings/audio/gain");
const QString limitText = QStringLiteral("Limits: User %1 makes more than 2 changes a minute; try "
                                         "again in ");

const QStringList limitOfTwo { QStringLiteral("--changes-per-minute"), QStringLiteral("2") };

bool isLimited(const QString& answer, uint user = ::geteuid())
{
    return answer.startsWith(limitText.arg(user));
}

QString set(const BusClient& client, int value)
{
    return client.call("SetValue", { volume, variantOf(value) });
}

} // namespace

/// A service that limits changes. Each test has a separate service; within a minute of its start,
/// the third change of a user is too much.
class TstServiceChangeLimit : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void thirdChangeIsRefusedOnAnyConnection();
    void everyKindOfChangeCounts_data();
    void everyKindOfChangeCounts();
    void readsFlushesAndDryRunsAreFree();
    void otherUserHasALimitOfTheirOwn();
    void callsOfASenderStayInTheirOrder();
    void badNumberIsWrongUsage_data();
    void badNumberIsWrongUsage();
    void noLimitUnlessGiven();
};

void TstServiceChangeLimit::initTestCase()
{
    tulo::registerBusTypes();
}

void TstServiceChangeLimit::thirdChangeIsRefusedOnAnyConnection()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address(), limitOfTwo);
    QVERIFY2(service.serve(), service.standardError());
    const BusClient first(bus.address());
    const BusClient second(bus.address());
    QCOMPARE(set(first, 40), QStringLiteral("{timestamp: *, value: x 40}"));
    QCOMPARE(set(second, 45), QStringLiteral("{timestamp: *, value: x 45}"));

    const QString refused = set(first, 50);
    QVERIFY2(isLimited(refused), qPrintable(refused));
    QVERIFY(isLimited(set(second, 50)));
    const ChildResult command =
        ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM),
                          { QStringLiteral("--bus"), bus.address(), QStringLiteral("set"), volume,
                            QStringLiteral("50") });

    QVERIFY2(command.standardError.contains("makes more than 2 changes a minute; try again in "),
             command.standardError);
    QCOMPARE(command.exitCode, 4);
    QCOMPARE(first.value(volume), QStringLiteral("x 45"));
    QVERIFY(first.call("Statistics").contains(QLatin1String("limited: x 3")));
    const ChildResult status =
        ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM),
                          { QStringLiteral("--bus"), bus.address(), QStringLiteral("status") });
    QVERIFY2(QRegularExpression(QStringLiteral("\ncalls over the limit +3\n"))
                 .match(QString::fromUtf8(status.standardOutput))
                 .hasMatch(),
             status.standardOutput);
    const QByteArray complaints = ServiceProcess::complaints(service.end());
    // Once a minute.
    QCOMPARE(complaints.count('\n'), 1);
    QVERIFY2(complaints.startsWith("WARN  tulo-settingsd: User "), complaints);
    QVERIFY2(complaints.contains(" (bus name :1."), complaints);
}

void TstServiceChangeLimit::everyKindOfChangeCounts_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QVariantList>("arguments");
    const QVariantMap value { { QStringLiteral("value"), variantOf(40) } };
    const tulo::BusNodes three { { volume, value },
                                 { gain, { { QStringLiteral("value"), variantOf(0.25) } } },
                                 { QStringLiteral("/settings/audio/loudness"),
                                   { { QStringLiteral("value"), variantOf(false) } } } };
    const auto row = [](const char* method, const QVariantList& arguments) {
        QTest::newRow(method) << QByteArray(method) << arguments;
    };
    row("SetRoles", { volume, value });
    row("Apply", { volume, QStringLiteral("add"), QVariantList { variantOf(5) } });
    row("SetMany", { QVariant::fromValue(three) });
    row("Reset", { QStringList { volume, gain, QStringLiteral("/settings/audio/mode") } });
}

void TstServiceChangeLimit::everyKindOfChangeCounts()
{
    QFETCH(const QByteArray, method);
    QFETCH(const QVariantList, arguments);
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address(), limitOfTwo);
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    QCOMPARE(set(client, 50), QStringLiteral("{timestamp: *, value: x 50}"));
    // One that is rejected counts, too.
    QVERIFY(client.call("SetValue", { volume, variantOf(QStringLiteral("loud")) })
                .startsWith(QLatin1String("Rejected: ")));

    const QString answer = client.call(method.constData(), arguments);

    QVERIFY2(isLimited(answer), qPrintable(answer));
    QCOMPARE(client.value(volume), QStringLiteral("x 50"));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceChangeLimit::readsFlushesAndDryRunsAreFree()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address(), limitOfTwo);
    service.replaceSync("exit 0");
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());

    for (int i = 0; i < 5; ++i) {
        QCOMPARE(client.value(volume), QStringLiteral("x 35"));
        QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
        QCOMPARE(client.call("SetValue",
                             { volume, variantOf(40),
                               QVariantMap { { QStringLiteral("dry-run"), true } } }),
                 QStringLiteral("{timestamp: *, value: x 40}"));
    }

    QCOMPARE(set(client, 40), QStringLiteral("{timestamp: *, value: x 40}"));
    QCOMPARE(set(client, 45), QStringLiteral("{timestamp: *, value: x 45}"));
    QCOMPARE(ServiceProcess::complaints(service.end()), QByteArray());
}

void TstServiceChangeLimit::otherUserHasALimitOfTheirOwn()
{
    if (::geteuid() != 0)
        QSKIP("needs root to become another user");
    constexpr uid_t other = 65534;
    const CommandLine trees;
    const PrivateBus bus(PrivateBus::openPolicy()
                         + "<policy context=\"default\"><allow user=\"*\"/></policy>");
    ServiceProcess service(trees, bus.address(), limitOfTwo);
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    const auto otherClient = clientOf(other, bus.address());
    for (int i = 0; i < 3; ++i)
        set(client, 40);
    QVERIFY(isLimited(set(client, 40)));

    QCOMPARE(set(*otherClient, 60), QStringLiteral("{timestamp: *, value: x 60}"));
    QCOMPARE(set(*otherClient, 65), QStringLiteral("{timestamp: *, value: x 65}"));
    const QString refused = set(*otherClient, 70);

    QVERIFY2(isLimited(refused, other), qPrintable(refused));
    QCOMPARE(service.end().exitCode, 0);
}

// Until the bus has told who the sender is, what comes behind the first change waits with it.
void TstServiceChangeLimit::callsOfASenderStayInTheirOrder()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address(), limitOfTwo);
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    const auto message = [](const char* method, const QVariantList& arguments) {
        return BusClient::message(QString::fromLatin1(method), arguments);
    };
    const QDBusMessage read = message("GetData", { volume, QStringList(QStringLiteral("value")) });

    const QDBusPendingCall before = client.connection().asyncCall(read);
    (void)client.connection().asyncCall(message("SetValue", { volume, variantOf(40) }));
    const QDBusPendingCall between = client.connection().asyncCall(read);
    (void)client.connection().asyncCall(message("SetValue", { volume, variantOf(45) }));
    QDBusPendingCall after = client.connection().asyncCall(read);
    after.waitForFinished();

    QCOMPARE(BusClient::shown(before.reply()), QStringLiteral("{value: x 35}"));
    QCOMPARE(BusClient::shown(between.reply()), QStringLiteral("{value: x 40}"));
    QCOMPARE(BusClient::shown(after.reply()), QStringLiteral("{value: x 45}"));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceChangeLimit::badNumberIsWrongUsage_data()
{
    QTest::addColumn<QString>("number");
    QTest::newRow("text") << QStringLiteral("many");
    QTest::newRow("negative") << QStringLiteral("-1");
    QTest::newRow("too large") << QStringLiteral("1000001");
}

void TstServiceChangeLimit::badNumberIsWrongUsage()
{
    QFETCH(const QString, number);
    const CommandLine trees;
    const PrivateBus bus;

    ServiceProcess service(trees, bus.address(),
                           { QStringLiteral("--changes-per-minute=") + number });
    QVERIFY(service.start());
    const ChildResult result = service.finish();

    QCOMPARE(result.standardError,
             QStringLiteral("ERROR tulo-settingsd: '%1' is not a number of changes a minute, which "
                            "is from 0 to 1000000\n")
                 .arg(number)
                 .toUtf8());
    QCOMPARE(result.exitCode, 2);
}

// As the unit gives an empty one.
void TstServiceChangeLimit::noLimitUnlessGiven()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address(),
                           { QStringLiteral("--changes-per-minute"), QString() });
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());

    for (int i = 0; i < 100; ++i)
        QVERIFY(set(client, i % 2 == 0 ? 40 : 45).startsWith(QLatin1Char('{')));

    QVERIFY(!client.call("Statistics").contains(QLatin1String("limited")));
    QCOMPARE(ServiceProcess::complaints(service.end()), QByteArray());
}

QTEST_GUILESS_MAIN(TstServiceChangeLimit)
#include "tst_service_changelimit.moc"
