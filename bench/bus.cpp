// bench_bus WORK SAMPLES SEED: what requests cost over the session bus, beside an empty call of
// a service that does nothing. Once by a client on QtDBus, as most programs are, and once by one on
// sd-bus, which our service is on as well. And completion in a shell, which is a process each time.

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
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>

#include <systemd/sd-bus.h>

namespace {

// Short turns, often: what else the machine does then meets all of them alike.
constexpr int callRounds = 201;
constexpr int callsEach = 10;
constexpr int changeRounds = 11;
constexpr int changes = 1000;
// As many requests of one client as the service has under way at a time.
constexpr std::size_t underWay = 16;
constexpr int completionRounds = 51;
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
    QDBusMessage message = QDBusMessage::createMethodCall(
        service, QStringLiteral("/org/tulo/ConfigurationManager1"),
        service + QStringLiteral(".Change"), QStringLiteral("SetValue"));
    message.setArguments(
        { path, QVariant::fromValue(QDBusVariant(qlonglong(value))), QVariantMap() });
    return message;
}

void call(const QDBusMessage& message)
{
    requireAnswer(QDBusConnection::sessionBus().call(message));
}

// ---------------------------------------------------------------------------------------------
// The client on sd-bus.
// ---------------------------------------------------------------------------------------------

struct BusUnref
{
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using SdBus = std::unique_ptr<sd_bus, BusUnref>;

void require(int result, const char* what)
{
    if (result < 0)
        throw std::runtime_error(std::string(what) + ": " + std::strerror(-result));
}

SdBus openSdBus()
{
    sd_bus* bus = nullptr;
    require(sd_bus_open_user(&bus), "no session bus");
    return SdBus(bus);
}

void callEmpty(sd_bus* bus)
{
    require(sd_bus_call_method(bus, "org.tulo.BenchEchoSd", "/", "org.tulo.BenchEchoSd", "empty",
                               nullptr, nullptr, ""),
            "empty call");
}

void callSet(sd_bus* bus, const QByteArray& path, int value)
{
    require(sd_bus_call_method(bus, "org.tulo.ConfigurationManager1",
                               "/org/tulo/ConfigurationManager1",
                               "org.tulo.ConfigurationManager1.Change", "SetValue", nullptr,
                               nullptr, "sva{sv}", path.constData(), "x", int64_t(value), 0),
            "SetValue");
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

template<typename Function>
double callRepeatedly(Function&& function)
{
    return nanoseconds([&] {
               for (int i = 0; i < callsEach; ++i)
                   function();
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
    Child sdEcho({ std::string(TULO_BENCH_PROGRAMS) + "/bench_echo_sd" });
    sdEcho.readLine();
    const Service server({ TULO_SETTINGSD_PROGRAM, "--default-path", defaultTree(directory),
                           "--write-path", writableTree(directory), "--bus", "session" });
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
    const SdBus sdBus = openSdBus();
    const QByteArray sdPath = path.toUtf8();
    // Each change is one.
    int value = 0;
    const auto called = [](const QDBusMessage& message) {
        return [&message] {
            return callRepeatedly([&message] { call(message); });
        };
    };
    std::vector<Measurement> calls {
        { "bus_get", "empty", called(empty) },
        { "bus_get", "tulo", called(get) },
        { "bus_rows", "tulo", called(rows) },
        { "bus_set", "tulo",
          [&] {
              return callRepeatedly([&] { call(change(path, ++value)); });
          } },
        { "bus_set_sd", "empty",
          [&] {
              return callRepeatedly([&] { callEmpty(sdBus.get()); });
          } },
        { "bus_set_sd", "tulo",
          [&] {
              return callRepeatedly([&] { callSet(sdBus.get(), sdPath, ++value); });
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

// The names of a whole directory, from the start of the program to its end.
void measureCompletion(const Arguments& arguments)
{
    const Shape shape { 200, 200 };
    const std::string directory = storeDirectory(arguments.work, tuloStore, shape);
    if (std::filesystem::create_directories(directory))
        tuloStore.fill(directory, shape);
    const Service server({ TULO_SETTINGSD_PROGRAM, "--default-path", defaultTree(directory),
                           "--write-path", writableTree(directory), "--bus", "session" });
    waitForService();

    // On a machine that is busy it is slow and not silent.
    ::setenv("TULO_COMPLETE_MS", "60000", 1);
    Samples samples(arguments.samples);
    for (int round = 0; round < completionRounds; ++round) {
        const double time = nanoseconds([&shape] {
            Child program({ TULO_CM_PROGRAM, "complete", "--", "--bus", "session", "get",
                            "/settings/" + shape.directory(0) + "/" });
            for (int name = 0; name < shape.settings; ++name)
                program.readLine();
        });
        samples.add("completion", "tulo", shape.settings, time);
    }
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
        measureCompletion(arguments);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench_bus: %s\n", failure.what());
        return 1;
    }
}
