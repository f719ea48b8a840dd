#include "tests/daemon/servicefixture.h"

#include "engine/engine.h"

#include "tests/support/enginechanges.h"
#include "tests/support/logcapture.h"
#include "tests/support/repeats.h"

#include <QDBusPendingCall>
#include <QFile>
#include <QTest>

#include <deque>
#include <memory>

#include <malloc.h>
#include <unistd.h>

#ifdef TULO_ADDRESS_SANITIZER
#include <sanitizer/allocator_interface.h>
#endif

using namespace tulo;

namespace {

constexpr int pathCount = 100000;
constexpr qint64 allowedGrowth = 2 * 1024 * 1024;

#ifdef TULO_ADDRESS_SANITIZER
// Ten times as slow.
const int rounds = 1;
const int busRequests = repeats(2000, 20000);
constexpr bool keepsFreedMemory = true;

qint64 allocatedBytes()
{
    return qint64(__sanitizer_get_current_allocated_bytes());
}
#else
const int rounds = repeats(3, 10);
const int busRequests = repeats(20000, 100000);
constexpr bool keepsFreedMemory = false;

qint64 allocatedBytes()
{
    const struct mallinfo2 info = ::mallinfo2();
    return qint64(info.uordblks + info.hblkhd);
}
#endif

qint64 residentBytes(qint64 processId)
{
    QFile file(QStringLiteral("/proc/%1/statm").arg(processId));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().split(' ').value(1).toLongLong() * ::sysconf(_SC_PAGESIZE);
}

// Bad in different ways, and never twice the same.
QString badPath(int number)
{
    switch (number % 5) {
    case 0:
        return QStringLiteral("/settings/no%1").arg(number);
    case 1:
        return QStringLiteral("/settings/audio/volume/no%1").arg(number);
    case 2:
        return QStringLiteral("/settings/../no%1").arg(number);
    case 3:
        return QStringLiteral("/settings/audio//no%1").arg(number);
    default:
        return QStringLiteral("/other/no%1").arg(number);
    }
}

// Each path is asked for its data, its rows and for a change, in turn.
int kindOf(int number, int round)
{
    return (number + round) % 3;
}

} // namespace

/// Requests for what is not there cost nothing that stays, however many come.
class TstServiceFlood : public QObject
{
    Q_OBJECT

private slots:
    void badRequestsCostTheEngineNothing();
    void badRequestsCostTheServiceNothing();
};

void TstServiceFlood::badRequestsCostTheEngineNothing()
{
    const LogCapture log(log4cplus::WARN_LOG_LEVEL);
    const CommandLine trees;
    EngineOptions options;
    options.pluginFile = QStringLiteral(TULO_PLUGIN_FILE);
    options.defaultPath = trees.tree.defaultPath();
    options.writePath = trees.tree.writePath();
    options.access = EngineOptions::Access::Own;
    EngineFailure failure;
    const std::unique_ptr<Engine> engine = Engine::open(options, &failure);
    QVERIFY2(engine != nullptr, qPrintable(failure.message));
    const QStringList roles { TuloRoles::Value() };
    const TuloValue value = TuloValue::of(TuloValue::Int(), 1);
    int answered = 0;
    const auto ask = [&](int number, int round) {
        const CMPath path(badPath(number));
        CMError error;
        switch (kindOf(number, round)) {
        case 0:
            error = engine->dispatcher().getData(path, roles).error();
            break;
        case 1:
            error = engine->dispatcher().getRows(path, 0, 100, roles).error();
            break;
        default:
            error = sendValue(engine->dispatcher(), path, value).error();
            break;
        }
        answered += errorCode(error) == ErrorCode::None ? 0 : 1;
    };
    // What is made once, on first use.
    for (int number = 0; number < 1000; ++number)
        ask(number, number);
    answered = 0;
    const qint64 before = allocatedBytes();

    for (int round = 0; round < rounds; ++round) {
        for (int number = 0; number < pathCount; ++number)
            ask(number, round);
    }

    const qint64 growth = allocatedBytes() - before;
    QCOMPARE(answered, rounds * pathCount);
    QVERIFY2(growth < allowedGrowth, qPrintable(QStringLiteral("%1 bytes").arg(growth)));
    QVERIFY(engine->stop());
    log.verifyNothingUnexpected();
}

void TstServiceFlood::badRequestsCostTheServiceNothing()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    const QStringList roles { QStringLiteral("value") };
    const auto request = [&roles](int number) {
        const QString path = badPath(number);
        switch (kindOf(number, 0)) {
        case 0:
            return BusClient::message(QStringLiteral("GetData"), { path, roles });
        case 1:
            return BusClient::message(QStringLiteral("GetRows"), { path, 0, 100, roles });
        default:
            return BusClient::message(QStringLiteral("SetValue"), { path, variantOf(1) });
        }
    };
    int refused = 0;
    std::deque<QDBusPendingCall> underWay;
    const auto finishFirst = [&] {
        underWay.front().waitForFinished();
        const QString error = BusClient::errorOf(underWay.front().reply());
        refused += error.startsWith(QLatin1String("InvalidPath: "))
                || error.startsWith(QLatin1String("Refused: "))
            ? 1
            : 0;
        underWay.pop_front();
    };
    const auto ask = [&](int first, int last) {
        for (int number = first; number < last; ++number) {
            // As many as the bus lets a client have.
            while (underWay.size() >= 16)
                finishFirst();
            underWay.push_back(
                client.connection().asyncCall(request(number), ChildProcess::waitMs));
        }
        while (!underWay.empty())
            finishFirst();
    };
    constexpr int warmUp = 2000;
    ask(0, warmUp);
    const qint64 before = residentBytes(service.processId());

    ask(warmUp, warmUp + busRequests);

    const qint64 growth = residentBytes(service.processId()) - before;
    QCOMPARE(refused, warmUp + busRequests);
    if (!keepsFreedMemory)
        QVERIFY2(growth < allowedGrowth, qPrintable(QStringLiteral("%1 bytes").arg(growth)));
    QCOMPARE(service.end().exitCode, 0);
}

QTEST_GUILESS_MAIN(TstServiceFlood)
#include "tst_service_flood.moc"
