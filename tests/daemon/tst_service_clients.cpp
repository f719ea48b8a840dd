#include "tests/daemon/rawconnection.h"
#include "tests/daemon/servicefixture.h"

#include <QDBusConnection>
#include <QDBusPendingCall>
#include <QFile>
#include <QTest>
#include <QVector>

#include <memory>
#include <vector>

namespace {

const QString volume = QStringLiteral("/settings/audio/volume");
const QStringList valueRole { QStringLiteral("value") };

QDBusPendingCall start(const BusClient& client, const char* method,
                       const QVariantList& arguments = {})
{
    return client.connection().asyncCall(BusClient::message(QString::fromLatin1(method), arguments),
                                         ChildProcess::waitMs);
}

QString answerOf(QDBusPendingCall call)
{
    call.waitForFinished();
    return BusClient::shown(call.reply());
}

// Returns when the service has taken up all that this client sent: a read is served after it, and
// beside flushes that wait.
void reachTheService(const BusClient& client)
{
    QCOMPARE(client.value(volume), QStringLiteral("x 35"));
}

/// A change of the volume to a value that is given as the bus carries it.
QByteArray rawSetValue(const QByteArray& valueSignature, const QByteArray& value)
{
    RawArguments arguments;
    arguments.addString("/settings/audio/volume");
    arguments.addSignature(valueSignature);
    arguments.pad(4);
    arguments.bytes += value;
    arguments.addEmptyMap();
    return RawConnection::serviceCall("Change", "SetValue", "sva{sv}", arguments);
}

} // namespace

/// Many clients, and clients that behave badly: each costs the others nothing.
class TstServiceClients : public QObject
{
    Q_OBJECT

private slots:
    void fiftyClientsAtOnceAreServed();
    void clientKilledInTheMiddleIsForgotten();
    void stuckWatcherCostsOthersNothing();
    void stuckCallerCostsOthersNothing();
    void waitingFlushesShareOneRun();
    void seventeenthWaitingFlushIsRefused();
    void callsWithoutAnAnswerAreServedInTheirOrder();
    void sixtyFifthCallIsRefused();
    void largestValueTravelsAndLargerOnesAreRefused();
    void largeRowHidesNoOther();
    void oddRowHidesNoOther_data();
    void oddRowHidesNoOther();
    void rowsThatDoNotFitComeInParts();
    void malformedMessageEndsItsSenderOnly_data();
    void malformedMessageEndsItsSenderOnly();
    void handleThatWasNotSentIsRefused();
};

void TstServiceClients::fiftyClientsAtOnceAreServed()
{
    constexpr int count = 50;
    constexpr int changes = 16;
    const CommandLine trees;
    for (int i = 0; i < count; ++i)
        trees.tree.writeDefault(QStringLiteral("/many/n%1").arg(i), R"({"value":{"int":0}})");
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    std::vector<std::unique_ptr<BusClient>> clients;
    for (int i = 0; i < count; ++i)
        clients.push_back(std::make_unique<BusClient>(bus.address()));

    QVector<QVector<QDBusPendingCall>> calls(count);
    for (int change = 1; change <= changes; ++change) {
        for (int i = 0; i < count; ++i) {
            calls[i].append(start(*clients[size_t(i)], "Apply",
                                  { QStringLiteral("/settings/many/n%1").arg(i),
                                    QStringLiteral("add"), QVariantList { variantOf(i + 1) } }));
        }
    }

    // Each in its own order.
    for (int i = 0; i < count; ++i) {
        for (int change = 1; change <= changes; ++change) {
            QCOMPARE(answerOf(calls[i][change - 1]),
                     QStringLiteral("{timestamp: *, value: x %1} {}").arg(change * (i + 1)));
        }
    }
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceClients::clientKilledInTheMiddleIsForgotten()
{
    const CommandLine trees;
    const PrivateBus bus;
    const SyncGate gate;
    ServiceProcess service(trees, bus.address());
    service.replaceSync(gate.script());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    for (int i = 0; i < 5; ++i) {
        client.call("SetValue", { volume, variantOf(40 + 5 * i) });
        ChildProcess killed(QStringLiteral("busctl"),
                            { QStringLiteral("--address=") + bus.address(), QStringLiteral("call"),
                              QStringLiteral("org.tulo.ConfigurationManager1"),
                              QStringLiteral("/org/tulo/ConfigurationManager1"),
                              QStringLiteral("org.tulo.ConfigurationManager1.Change"),
                              QStringLiteral("Flush") });
        QVERIFY(killed.start());
        QVERIFY(gate.waitForFlush());
        killed.sendSignal(SIGKILL);
        QCOMPARE(killed.finish().signal, SIGKILL);
        gate.letOneThrough();

        QCOMPARE(client.value(volume), QStringLiteral("x %1").arg(40 + 5 * i));
    }
    // One that ends in the middle of a message.
    {
        const RawConnection raw(bus.address());
        QVERIFY(!raw.receive().isEmpty());
        QVERIFY(raw.send(rawSetValue("i", QByteArray(4, '\1')).chopped(30)));
    }

    QCOMPARE(client.value(volume), QStringLiteral("x 60"));
    const ChildResult result = service.end();
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(ServiceProcess::complaints(result), QByteArray());
}

// Many more bytes than a socket takes: the bus keeps them, or lets them go.
void TstServiceClients::stuckWatcherCostsOthersNothing()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    service.replaceSync("exit 0");
    QVERIFY2(service.serve(), service.standardError());
    const QString token = QStringLiteral("/settings/token");
    const BusClient client(bus.address());
    // Reads nothing of what it watches.
    const RawConnection watcher(bus.address());
    QVERIFY(watcher.watchService());

    for (int i = 0; i < 200; ++i) {
        const QString value = QString(20000, QLatin1Char('a')) + QString::number(i);
        QCOMPARE(client.call("SetValue", { token, variantOf(value) }),
                 QStringLiteral("{timestamp: *, value: s \"%1\"}").arg(value));
    }

    QCOMPARE(client.value(volume), QStringLiteral("x 35"));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceClients::stuckCallerCostsOthersNothing()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    trees.tree.writeDefault(QStringLiteral("/long"),
                            "{\"value\":{\"string\":\"" + QByteArray(20000, 'x') + "\"}}");
    RawArguments arguments;
    arguments.addString("/settings/long");
    arguments.addStrings({ "value" });
    const QByteArray call = RawConnection::serviceCall(nullptr, "GetData", "sas", arguments);

    // Asks for four megabytes and reads nothing of it.
    const RawConnection raw(bus.address());
    for (int i = 0; i < 200; ++i)
        QVERIFY(raw.send(call));

    for (int i = 0; i < 200; ++i)
        QCOMPARE(client.value(volume), QStringLiteral("x 35"));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceClients::waitingFlushesShareOneRun()
{
    const CommandLine trees;
    const PrivateBus bus;
    const SyncGate gate;
    ServiceProcess service(trees, bus.address());
    service.replaceSync(gate.script());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    const BusClient other(bus.address());
    const QDBusPendingCall first = start(client, "Flush");
    QVERIFY(gate.waitForFlush());

    QVector<QDBusPendingCall> calls;
    for (int i = 0; i < 10; ++i)
        calls.append(start(i % 2 == 0 ? client : other, "Flush"));
    reachTheService(client);
    reachTheService(other);
    gate.letOneThrough();
    QCOMPARE(answerOf(first), QStringLiteral("u 0"));
    // One run for the ten.
    QVERIFY(gate.waitForFlush());
    gate.letOneThrough();

    for (const QDBusPendingCall& call : qAsConst(calls))
        QCOMPARE(answerOf(call), QStringLiteral("u 0"));
    QCOMPARE(client.value(volume), QStringLiteral("x 35"));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceClients::seventeenthWaitingFlushIsRefused()
{
    const CommandLine trees;
    const PrivateBus bus;
    const SyncGate gate;
    ServiceProcess service(trees, bus.address());
    service.replaceSync(gate.script());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    const BusClient other(bus.address());
    const QDBusPendingCall first = start(client, "Flush");
    QVERIFY(gate.waitForFlush());

    QVector<QDBusPendingCall> calls;
    for (int i = 0; i < 20; ++i)
        calls.append(start(client, "Flush"));
    const QDBusPendingCall othersCall = start(other, "Flush");
    reachTheService(client);
    reachTheService(other);
    gate.letOneThrough();
    QVERIFY(gate.waitForFlush());
    gate.letOneThrough();

    QCOMPARE(answerOf(first), QStringLiteral("u 0"));
    for (int i = 0; i < 20; ++i) {
        QCOMPARE(answerOf(calls[i]),
                 // With the first one, which runs.
                 i < 15 ? QStringLiteral("u 0")
                        : QStringLiteral("Limits: More than 16 flushes are waiting"));
    }
    QCOMPARE(answerOf(othersCall), QStringLiteral("u 0"));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceClients::callsWithoutAnAnswerAreServedInTheirOrder()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    SignalRecorder recorder(client.connection());

    // Sent so that no answer is expected.
    client.connection().send(
        BusClient::message(QStringLiteral("SetValue"), { volume, variantOf(40) }));
    client.connection().send(BusClient::message(
        QStringLiteral("Apply"), { volume, QStringLiteral("add"), QVariantList { variantOf(5) } }));
    client.connection().send(BusClient::message(
        QStringLiteral("SetRoles"), { volume, QVariantMap { { QStringLiteral("value"), 60 } } }));
    client.connection().send(
        BusClient::message(QStringLiteral("SetValue"), { volume, variantOf(QLatin1String("x")) }));

    QCOMPARE(client.value(volume), QStringLiteral("x 60"));
    QCOMPARE(recorder.received().filter(QStringLiteral("ValueChanged")),
             QStringList({ QStringLiteral("ValueChanged /settings/audio/volume x 40"),
                           QStringLiteral("ValueChanged /settings/audio/volume x 45"),
                           QStringLiteral("ValueChanged /settings/audio/volume x 60") }));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceClients::sixtyFifthCallIsRefused()
{
    const CommandLine trees;
    // As many as a session bus lets a client have.
    const PrivateBus bus(PrivateBus::openPolicy()
                         + R"(<limit name="max_replies_per_connection">50000</limit>)");
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    const BusClient other(bus.address());
    service.sendSignal(SIGSTOP);
    QVector<QDBusPendingCall> calls;
    for (int i = 0; i < 200; ++i)
        calls.append(start(client, "GetData", { volume, valueRole }));
    const QDBusPendingCall othersCall = start(other, "GetData", { volume, valueRole });
    service.sendSignal(SIGCONT);

    int served = 0;
    for (const QDBusPendingCall& call : qAsConst(calls)) {
        const QString answer = answerOf(call);
        if (answer == QLatin1String("{value: x 35}"))
            ++served;
        else
            QCOMPARE(answer, QStringLiteral("Limits: More than 64 calls are under way"));
    }

    QVERIFY2(served >= 64, qPrintable(QString::number(served)));
    QCOMPARE(answerOf(othersCall), QStringLiteral("{value: x 35}"));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceClients::largestValueTravelsAndLargerOnesAreRefused()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    service.replaceSync("exit 0");
    QVERIFY2(service.serve(), service.standardError());
    const QString token = QStringLiteral("/settings/token");
    const BusClient client(bus.address());
    SignalRecorder recorder(client.connection());
    // As JSON, with its kind.
    const QString large(48 * 1024 - 13, QLatin1Char('x'));
    const QString tooMuch =
        QStringLiteral("Limits: A value for '/settings/token' takes more than 49152 bytes");

    QCOMPARE(client.call("SetValue", { token, variantOf(large) }),
             QStringLiteral("{timestamp: *, value: s \"%1\"}").arg(large));
    QVERIFY(recorder.received().contains(
        QStringLiteral("ValueChanged /settings/token %1").arg(shown(QVariant(large)))));
    QCOMPARE(client.value(token), shown(QVariant(large)));
    QCOMPARE(client.call("SetValue", { token, variantOf(large + QLatin1Char('x')) }), tooMuch);
    // Nor does it grow beyond it.
    QCOMPARE(client.call("Apply",
                         { token, QStringLiteral("append"),
                           QVariantList { variantOf(QStringLiteral("x")) } }),
             tooMuch);

    QCOMPARE(client.value(token), shown(QVariant(large)));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceClients::largeRowHidesNoOther()
{
    const CommandLine trees;
    trees.tree.writeDefault(QStringLiteral("/large/first"), R"({"value":{"int":1}})");
    trees.tree.writeDefault(QStringLiteral("/large/text"),
                            "{\"value\":{\"string\":\"" + QByteArray(70000, 'x') + "\"}}");
    // Small as a file, and large once each entry is a variant.
    trees.tree.writeDefault(QStringLiteral("/large/list"),
                            "{\"value\":{\"list\":[" + QByteArray("1,").repeated(60000) + "1]}}");
    trees.tree.writeDefault(QStringLiteral("/large/zero"), R"({"value":{"int":2}})");
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());

    const QString answer =
        client.call("GetRows", { QStringLiteral("/settings/large"), 0, 100, valueRole });

    QVERIFY2(answer.startsWith(QStringLiteral("u 4 ")), qPrintable(answer.left(100)));
    for (const char* row :
         { "(s \"first\", {value: x 1})",
           "(s \"list\", {error: s \"Limits: The row takes more than 1048576 bytes\"})",
           "(s \"zero\", {value: x 2})" })
        QVERIFY2(answer.contains(QLatin1String(row)), qPrintable(answer.right(2000)));
    QCOMPARE(client.value(QStringLiteral("/settings/large/list")).count(QStringLiteral("x 1")),
             60001);
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceClients::oddRowHidesNoOther_data()
{
    QTest::addColumn<QByteArray>("writtenFile");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("without roles") << QByteArray("{}");
    QTest::newRow("does not parse") << QByteArray("{\"value");
}

void TstServiceClients::oddRowHidesNoOther()
{
    QFETCH(const QByteArray, writtenFile);
    const CommandLine trees;
    trees.tree.writeDefault(QStringLiteral("/list/first"), R"({"value":{"int":1}})");
    trees.tree.writeWritten(QStringLiteral("/list/odd"), writtenFile);
    trees.tree.writeDefault(QStringLiteral("/list/zero"), R"({"value":{"int":2}})");
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());

    const QString answer =
        client.call("GetRows", { QStringLiteral("/settings/list"), 0, 9, valueRole });

    QVERIFY2(answer.startsWith(QStringLiteral("u 3 ")), qPrintable(answer));
    QVERIFY2(answer.endsWith(QStringLiteral(
                 "[(s \"first\", {value: x 1}), (s \"odd\", {error: s \"InvalidPath: Invalid "
                 "path '/settings/list/odd'\"}), (s \"zero\", {value: x 2})]")),
             qPrintable(answer));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceClients::rowsThatDoNotFitComeInParts()
{
    constexpr int count = 20;
    const CommandLine trees;
    const QByteArray text(100000, 'x');
    for (int i = 0; i < count; ++i) {
        trees.tree.writeDefault(QStringLiteral("/large/n%1").arg(i, 2, 10, QLatin1Char('0')),
                                "{\"value\":{\"string\":\"" + text + "\"}}");
    }
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());

    const QString answer =
        client.call("GetRows", { QStringLiteral("/settings/large"), 0, 100, valueRole });
    QVERIFY2(answer.startsWith(QStringLiteral("u 20 ")), qPrintable(answer.left(100)));
    QCOMPARE(answer.count(QStringLiteral("(s \"n")), 10);
    const QString rest =
        client.call("GetRows", { QStringLiteral("/settings/large"), 10, 100, valueRole });
    QCOMPARE(rest.count(QStringLiteral("(s \"n")), 10);
    QVERIFY(rest.contains(QStringLiteral("(s \"n10\", ")));
    // Nodes likewise.
    QStringList paths;
    for (int i = 0; i < count; ++i)
        paths.append(QStringLiteral("/settings/large/n%1").arg(i, 2, 10, QLatin1Char('0')));
    QCOMPARE(client.call("GetMany", { paths, valueRole }).count(QStringLiteral("(s \"/settings")),
             10);
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceClients::malformedMessageEndsItsSenderOnly_data()
{
    QTest::addColumn<QByteArray>("message");
    const QByteArray four("\1\0\0\0", 4);
    // A type of another dialect: a number that may be absent.
    QTest::newRow("null") << rawSetValue("mi", four);
    QTest::newRow("absent number") << rawSetValue("mi", QByteArray());
    QTest::newRow("no type") << rawSetValue("", QByteArray());
    QTest::newRow("two types") << rawSetValue("ii", four + four);
    QTest::newRow("unknown type") << rawSetValue("w", four);
    QTest::newRow("forty lists") << rawSetValue(QByteArray(40, 'a') + 'i', QByteArray(160, '\0'));
    QTest::newRow("text that is no UTF-8") << rawSetValue("s", four + "\xFF" + '\0');
    QTest::newRow("text without an end") << rawSetValue("s", four + "xx");
    QTest::newRow("boolean of 7") << rawSetValue("b", QByteArray("\7\0\0\0", 4));
    QTest::newRow("longer than it says") << rawSetValue("i", four + four);
    QTest::newRow("noise") << QByteArray(64, '\xA5');
}

void TstServiceClients::malformedMessageEndsItsSenderOnly()
{
    QFETCH(const QByteArray, message);
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    const RawConnection raw(bus.address());

    raw.send(message);

    QVERIFY(raw.waitForClose());
    QCOMPARE(client.value(volume), QStringLiteral("x 35"));
    const ChildResult result = service.end();
    QCOMPARE(ServiceProcess::complaints(result), QByteArray());
    QCOMPARE(result.exitCode, 0);
}

// The bus lets it through.
void TstServiceClients::handleThatWasNotSentIsRefused()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    const RawConnection raw(bus.address());
    const QByteArray four("\1\0\0\0", 4);

    QVERIFY(raw.send(rawSetValue("h", four)));

    QByteArray received;
    while (!received.contains("Error.")) {
        const QByteArray more = raw.receive();
        QVERIFY2(!more.isEmpty(), received);
        received += more;
    }
    QCOMPARE(client.value(volume), QStringLiteral("x 35"));
    const ChildResult result = service.end();
    QCOMPARE(ServiceProcess::complaints(result), QByteArray());
    QCOMPARE(result.exitCode, 0);
}

QTEST_GUILESS_MAIN(TstServiceClients)
#include "tst_service_clients.moc"
