// bench_bus WORK SAMPLES SEED: what requests cost over the session bus, beside an empty call of
// a service that does nothing.

#include "child.h"
#include "samples.h"
#include "store_tulo.h"
#include "stores.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QEventLoop>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <exception>
#include <functional>
#include <stdexcept>

namespace {

// Short turns, often: what else the machine does then meets all of them alike.
constexpr int callRounds = 201;
constexpr int callsEach = 10;
constexpr int changeRounds = 11;
constexpr int changes = 1000;
// As many requests of one client as the service has under way at a time.
constexpr std::size_t underWay = 16;
constexpr int startTimeoutMs = 30000;

const QString service = QStringLiteral("org.tulo.ConfigurationManager1");

void requireAnswer(const QDBusMessage& answer)
{
    if (answer.type() != QDBusMessage::ReplyMessage)
        throw std::runtime_error(answer.errorMessage().toStdString());
}

QDBusMessage request(const QString& method, const QVariantList& arguments)
{
    QDBusMessage message = QDBusMessage::createMethodCall(
        service, QStringLiteral("/org/tulo/ConfigurationManager1"), service, method);
    message.setArguments(arguments);
    return message;
}

QDBusMessage change(const QString& path, int value)
{
    return request(QStringLiteral("SetValue"),
                   { path, QVariant::fromValue(QDBusVariant(qlonglong(value))) });
}

void call(const QDBusMessage& message)
{
    requireAnswer(QDBusConnection::sessionBus().call(message));
}

// A service does not end with its standard input.
class Service : public Child
{
public:
    using Child::Child;
    ~Service() { terminate(); }
};

void waitForService()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    QEventLoop loop;
    const QDBusServiceWatcher watcher(service, bus, QDBusServiceWatcher::WatchForRegistration);
    QObject::connect(&watcher, &QDBusServiceWatcher::serviceRegistered, &loop, &QEventLoop::quit);
    if (bus.interface()->isServiceRegistered(service).value())
        return;
    bool isLate = false;
    QTimer::singleShot(startTimeoutMs, &loop, [&] {
        isLate = true;
        loop.quit();
    });
    loop.exec();
    if (isLate)
        throw std::runtime_error("the service does not start");
}

// ---------------------------------------------------------------------------------------------
// The measurements. Each returns the nanoseconds of one call, or of all changes.
// ---------------------------------------------------------------------------------------------

double callRepeatedly(const QDBusMessage& message)
{
    return nanoseconds([&] {
               for (int i = 0; i < callsEach; ++i)
                   call(message);
           })
        / callsEach;
}

double changeWaiting(const QString& path)
{
    return nanoseconds([&] {
        for (int i = 0; i < changes; ++i)
            call(change(path, i));
    });
}

double changeWithoutWaiting(const QString& path)
{
    return nanoseconds([&] {
        std::deque<QDBusPendingCall> calls;
        const auto finishOldest = [&calls] {
            calls.front().waitForFinished();
            requireAnswer(calls.front().reply());
            calls.pop_front();
        };
        for (int i = 0; i < changes; ++i) {
            if (calls.size() == underWay)
                finishOldest();
            calls.push_back(QDBusConnection::sessionBus().asyncCall(change(path, i)));
        }
        while (!calls.empty())
            finishOldest();
    });
}

void measure(const Arguments& arguments)
{
    const Shape shape = comparedShapes().front();
    const std::string directory = storeDirectory(arguments.work, tuloStore, shape);
    Child echo({ std::string(TULO_BENCH_PROGRAMS) + "/bench_echo" });
    echo.readLine();
    const Service server({ TULO_CM_PROGRAM, "--default-path", defaultTree(directory),
                           "--write-path", writableTree(directory), "--bus", "session", "serve" });
    waitForService();

    const QString group = QLatin1String("/settings/") + QString::fromStdString(shape.directory(0));
    const QString path = group + QLatin1Char('/') + QString::fromStdString(shape.name(0));
    const QDBusMessage empty = QDBusMessage::createMethodCall(
        QStringLiteral("org.tulo.BenchEcho"), QStringLiteral("/"),
        QStringLiteral("org.tulo.BenchEcho"), QStringLiteral("empty"));
    const QDBusMessage get =
        request(QStringLiteral("GetData"), { path, QStringList { TuloRoles::Value() } });
    const QDBusMessage rows =
        request(QStringLiteral("GetRows"),
                { group, 0, 19,
                  QStringList { TuloRoles::Value(), TuloRoles::Title(), TuloRoles::Type() } });

    struct Measurement
    {
        const char* work;
        const char* subject;
        std::function<double()> function;
    };
    std::vector<Measurement> calls {
        { "bus_get", "empty",
          [&] {
              return callRepeatedly(empty);
          } },
        { "bus_get", "tulo",
          [&] {
              return callRepeatedly(get);
          } },
        { "bus_rows", "tulo",
          [&] {
              return callRepeatedly(rows);
          } },
    };
    std::vector<Measurement> manyChanges {
        { "bus_changes", "waiting",
          [&] {
              return changeWaiting(path);
          } },
        { "bus_changes", "not waiting",
          [&] {
              return changeWithoutWaiting(path);
          } },
    };
    Samples samples(arguments.samples);
    std::mt19937 random(arguments.seed);
    const auto repeat = [&](std::vector<Measurement>& measurements, int rounds) {
        for (int round = 0; round < rounds; ++round) {
            std::shuffle(measurements.begin(), measurements.end(), random);
            for (const Measurement& measurement : measurements) {
                samples.add(measurement.work, measurement.subject, shape.settings,
                            measurement.function());
            }
        }
    };
    repeat(calls, callRounds);
    repeat(manyChanges, changeRounds);
}

} // namespace

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    Arguments arguments;
    if (!arguments.parse(argc, argv)) {
        std::fprintf(stderr, "usage: bench_bus WORK SAMPLES SEED\n");
        return 2;
    }
    try {
        measure(arguments);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench_bus: %s\n", failure.what());
        return 1;
    }
}
