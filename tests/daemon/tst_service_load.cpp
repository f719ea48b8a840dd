#include "tests/daemon/rawconnection.h"
#include "tests/daemon/servicefixture.h"
#include "tests/support/inmemory.h"
#include "tests/support/repeats.h"

#include "daemon/tulo/bus-types.h"

#include <QDBusPendingCall>
#include <QElapsedTimer>
#include <QTest>
#include <QVector>

#include <algorithm>
#include <atomic>
#include <thread>

namespace {

const QString volume = QStringLiteral("/settings/audio/volume");
const QString token = QStringLiteral("/settings/token");

QByteArray readOfVolume()
{
    RawArguments arguments;
    arguments.addString("/settings/audio/volume");
    arguments.addStrings({ "value" });
    return RawConnection::serviceCall(nullptr, "GetData", "sas", arguments);
}

QByteArray changeOfToken(const QByteArray& text)
{
    RawArguments arguments;
    arguments.addString("/settings/token");
    arguments.addSignature("s");
    arguments.addString(text);
    arguments.addEmptyMap();
    return RawConnection::serviceCall("Change", "SetValue", "sva{sv}", arguments,
                                      RawConnection::Answer::NotWanted);
}

/// How long calls took, in microseconds.
class Times
{
public:
    /// Reads the volume; false when the answer is not `expected`.
    bool measure(const BusClient& client, const QString& expected)
    {
        QElapsedTimer time;
        time.start();
        const QString answer = client.value(volume);
        m_times.append(time.nsecsElapsed() / 1000);
        if (answer != expected)
            qWarning("after %lld us: %s", m_times.last(), qPrintable(answer));
        return answer == expected;
    }
    qint64 median()
    {
        std::sort(m_times.begin(), m_times.end());
        return m_times.value(m_times.size() / 2);
    }
    qint64 worst() const
    {
        return m_times.isEmpty() ? 0 : *std::max_element(m_times.cbegin(), m_times.cend());
    }
    int count() const { return m_times.size(); }

private:
    QVector<qint64> m_times;
};

} // namespace

/// One who asks for too much, or reads nothing, costs the others little.
class TstServiceLoad : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void manyReadsAtOnceHoldNobodyUp();
    void callsThatWantNoAnswerHoldNobodyUp();
    void watcherThatNeverReadsSilencesNobody_data();
    void watcherThatNeverReadsSilencesNobody();
    void busThatStandsStillLosesNothing();
    void loneChangeTakesFiveMessages();
};

// How long a disk takes, which others write to as well, is not what is measured.
void TstServiceLoad::initTestCase()
{
    keepTreesInMemory();
}

void TstServiceLoad::manyReadsAtOnceHoldNobodyUp()
{
    constexpr int reads = 10000;
    constexpr int rounds = 10;
    const CommandLine trees;
    // As many as a session bus lets a client have.
    const PrivateBus bus(PrivateBus::openPolicy()
                         + R"(<limit name="max_replies_per_connection">50000</limit>)");
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    QByteArray calls;
    for (int i = 0; i < reads; ++i)
        calls += readOfVolume();

    // Served in the order in which they came, the client's reads would each wait for all of the
    // flood. One round of some has to be good, as this machine has other things to do.
    QStringList measured;
    bool isGood = false;
    for (int round = 0; round < rounds && !isGood; ++round) {
        const RawConnection flood(bus.address());
        std::atomic<bool> isAnswered { false };
        QElapsedTimer time;
        time.start();
        std::thread sender([&] { flood.send(calls); });
        std::thread reader([&] {
            flood.receiveAnswers(reads);
            isAnswered = true;
        });
        Times during;
        bool isRight = true;
        while (!isAnswered && isRight)
            isRight = during.measure(client, QStringLiteral("x 35"));
        const qint64 duration = time.nsecsElapsed() / 1000;
        sender.join();
        reader.join();
        QVERIFY(isRight);
        measured.append(QStringLiteral("%1 reads in %2 us, median %3 us, worst %4 us")
                            .arg(during.count())
                            .arg(duration)
                            .arg(during.median())
                            .arg(during.worst()));
        isGood = during.count() > 10 && during.worst() < duration / 2;
    }

    qInfo("%s", qPrintable(measured.last()));
    QVERIFY2(isGood, qPrintable(measured.join(QLatin1Char('\n'))));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceLoad::callsThatWantNoAnswerHoldNobodyUp()
{
    constexpr int pending = 1700;
    constexpr int calls = 190;
    const CommandLine trees;
    tulo::BusNodes nodes;
    for (int i = 0; i < pending; ++i) {
        const QString name = QStringLiteral("/many/n%1").arg(i);
        trees.tree.writeDefault(name, R"({"value":{"int":0}})");
        nodes.append({ QLatin1String("/settings") + name, { { QStringLiteral("value"), 1 } } });
    }
    tulo::registerBusTypes();
    // As a session bus has it. With less than the flood, the bus itself rejects calls of others
    // until the service, which may be slow, has read a part.
    const PrivateBus bus(PrivateBus::openPolicy()
                         + R"(<limit name="max_outgoing_bytes">1000000000</limit>)");
    ServiceProcess service(trees, bus.address());
    service.replaceSync("exit 0");
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    const RawConnection flood(bus.address());
    const QByteArray call = changeOfToken(QByteArray(1024 * 1024, 'x'));
    QVERIFY(
        client.call("SetMany", { QVariant::fromValue(nodes) }).startsWith(QLatin1String("a(a")));
    QCOMPARE(client.property("PendingWrites"), QStringLiteral("u %1").arg(pending));

    std::atomic<bool> isSent { false };
    std::thread sender([&] {
        for (int i = 0; i < calls && flood.send(call); ++i) { }
        isSent = true;
    });
    Times during;
    bool isRight = true;
    while (!isSent && isRight)
        isRight = during.measure(client, QStringLiteral("x 35"));
    sender.join();
    QVERIFY(isRight);
    isRight = during.measure(client, QStringLiteral("x 35"));

    QVERIFY(isRight);
    qInfo("%d reads, worst %lld us", during.count(), during.worst());
    QVERIFY2(during.worst() < ChildProcess::waitMs * Q_INT64_C(500), "half of the time-out");
    // Too large for a value, every one of them.
    QCOMPARE(client.value(token), QStringLiteral("? "));
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QCOMPARE(client.property("PendingWrites"), QStringLiteral("u 0"));
    const ChildResult result = service.end();
    QCOMPARE(ServiceProcess::complaints(result), QByteArray());
    QCOMPARE(result.exitCode, 0);
}

void TstServiceLoad::watcherThatNeverReadsSilencesNobody_data()
{
    QTest::addColumn<QByteArray>("limit");
    QTest::addColumn<int>("changes");
    QTest::addColumn<int>("size");
    // Enough of each to fill what the bus keeps of one sender: 127 MiB, or the limit.
    QTest::newRow("large values") << QByteArray() << 4000 << 48000;
    QTest::newRow("small values") << QByteArray(
        R"(<limit name="max_incoming_bytes">500000</limit>)")
                                  << 2000 << 0;
    if (repeats(0, 1) == 1)
        QTest::newRow("very many small values") << QByteArray() << 500000 << 0;
}

// With the system bus's limits, a bus stops reading from a sender that fills a client's queue.
void TstServiceLoad::watcherThatNeverReadsSilencesNobody()
{
    QFETCH(const QByteArray, limit);
    QFETCH(const int, changes);
    QFETCH(const int, size);
    const CommandLine trees;
    const PrivateBus bus(PrivateBus::openPolicy() + limit);
    ServiceProcess service(trees, bus.address());
    service.replaceSync("exit 0");
    QVERIFY2(service.serve(), service.standardError());
    const RawConnection watcher(bus.address());
    QVERIFY(watcher.watchService());
    const BusClient client(bus.address());
    const QString filler(size, QLatin1Char('x'));

    QString answered;
    qint64 worst = 0;
    int unanswered = 0;
    for (int i = 0; i < changes; ++i) {
        const QString value = filler + QString::number(i);
        QElapsedTimer time;
        time.start();
        const QString answer = client.call("SetValue", { token, variantOf(value) });
        worst = std::max(worst, time.elapsed());
        if (answer.startsWith(QLatin1Char('{')))
            answered = value;
        else if (answer.startsWith(QLatin1String("org.freedesktop.DBus.Error.NoReply: ")))
            ++unanswered;
        else
            QFAIL(qPrintable(answer.left(200)));
    }

    // Far from the client's own time-out.
    QVERIFY2(worst < ChildProcess::waitMs / 2, qPrintable(QStringLiteral("%1 ms").arg(worst)));
    // One for each time that the name was taken over.
    QVERIFY2(unanswered >= 1 && unanswered <= 3, qPrintable(QString::number(unanswered)));
    QVERIFY(service.waitForError("WARN  tulo-settingsd: the bus does not read what is sent; "
                                 "connecting again\nINFO  tulo-settingsd: connected to the bus "
                                 "again\n"));
    QCOMPARE(client.value(token), shown(QVariant(answered)));
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QCOMPARE(trees.tree.readWrittenRoles(QStringLiteral("/token"))
                 .value(QStringLiteral("value"))
                 .toHash(),
             QVariantHash({ { QStringLiteral("string"), answered } }));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceLoad::busThatStandsStillLosesNothing()
{
    const CommandLine trees;
    const PrivateBus bus;
    const SyncGate gate;
    ServiceProcess service(trees, bus.address());
    service.replaceSync(gate.script());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    client.call("SetValue", { volume, variantOf(40) });
    const QDBusPendingCall flush = client.connection().asyncCall(
        BusClient::message(QStringLiteral("Flush")), ChildProcess::waitMs);
    QVERIFY(gate.waitForFlush());

    bus.stop();
    // Answers the flush, which the bus does not read.
    gate.letOneThrough();
    QVERIFY(service.waitForError("WARN  tulo-settingsd: the bus does not read what is sent"));
    bus.goOn();

    QCOMPARE(client.value(volume), QStringLiteral("x 40"));
    QCOMPARE(client.call("SetValue", { volume, variantOf(45) }),
             QStringLiteral("{timestamp: *, value: x 45}"));
    QCOMPARE(trees.tree.readWrittenRoles(QStringLiteral("/audio/volume"))
                 .value(QStringLiteral("value"))
                 .toHash(),
             QVariantHash({ { QStringLiteral("int"), 40 } }));
    service.sendSignal(SIGTERM);
    QVERIFY(gate.waitForFlush());
    gate.letOneThrough();
    QCOMPARE(service.finish().exitCode, 0);
}

// The call, its answer, and three signals. A second later follows what shows that the bus reads.
void TstServiceLoad::loneChangeTakesFiveMessages()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    service.replaceSync("exit 0");
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    const BusClient other(bus.address());
    QCOMPARE(client.value(volume), QStringLiteral("x 35"));
    ChildProcess monitor(QStringLiteral("stdbuf"),
                         { QStringLiteral("-oL"), QStringLiteral("dbus-monitor"),
                           QStringLiteral("--address"), bus.address(),
                           QStringLiteral("sender=org.tulo.ConfigurationManager1"),
                           QStringLiteral("destination=org.tulo.ConfigurationManager1") });
    QVERIFY(monitor.start());
    QVERIFY(monitor.waitForOutput("member=NameLost"));
    const int before = monitor.standardOutput().size();

    client.call("SetValue", { volume, variantOf(40) });
    QCOMPARE(other.call("Flush"), QStringLiteral("u 0"));
    QVERIFY(monitor.waitForOutput("member=Flush\n"));

    const QByteArray seen = monitor.standardOutput().mid(before);
    const QByteArray lone = seen.left(seen.indexOf("member=Flush"));
    int messages = -1; // that of the flush
    for (const QByteArray& line : lone.split('\n')) {
        if (line.endsWith("member=Ping"))
            continue;
        for (const char* kind : { "method call ", "method return ", "signal ", "error " })
            messages += line.startsWith(kind) ? 1 : 0;
    }
    QVERIFY2(messages == 5, lone);
    QCOMPARE(service.end().exitCode, 0);
}

QTEST_GUILESS_MAIN(TstServiceLoad)
#include "tst_service_load.moc"
