// bench_client WORK SAMPLES SEED: what the client library costs a program, beside GSettings and an
// empty call over the session bus.

#include "child.h"
#include "samples.h"
#include "store_tulo.h"
#include "stores.h"

#include <tulo/remotesettings.h>
#include <tulo/setting.h>

#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QEventLoop>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

using namespace tulo;

namespace {

constexpr int valueRounds = 31;
constexpr double valueSeconds = 0.002;
constexpr int callRounds = 201;
constexpr int callsEach = 10;
constexpr int changeRounds = 501;
constexpr int readyRounds = 15;
constexpr int coldRounds = 7;
constexpr int serviceRounds = 11;
constexpr int programRounds = 11;
constexpr int timeoutMs = 60000;

std::string program(const char* name)
{
    return std::string(TULO_BENCH_PROGRAMS) + "/" + name;
}

QString pathOf(const Shape& shape, int setting)
{
    return QString::fromStdString("/settings/" + shape.directory(setting) + "/"
                                  + shape.name(setting));
}

/// Runs the event loop until the condition holds, which a signal of the library ends.
void runUntil(const std::function<bool()>& condition)
{
    QTimer timeout;
    timeout.setSingleShot(true);
    timeout.start(timeoutMs);
    while (!condition()) {
        if (!timeout.isActive())
            throw std::runtime_error("the settings do not answer");
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
}

/// The service on the trees of one shape, and an end to it.
class Service
{
public:
    Service(const std::string& work, const Shape& shape)
        : m_child({ TULO_SETTINGSD_PROGRAM, "--default-path",
                    defaultTree(storeDirectory(work, tuloStore, shape)), "--write-path",
                    writableTree(storeDirectory(work, tuloStore, shape)), "--bus", "session" })
    {
        const RemoteSettings settings(QStringLiteral("session"));
        runUntil([&] { return settings.state() == Settings::State::Ready; });
    }
    ~Service() { m_child.terminate(); }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

private:
    const Child m_child;
};

/// Settings of a program, in the order in which it made them.
class Watched
{
public:
    Watched(const Shape& shape, int count)
        : m_settings(QStringLiteral("session"))
    {
        int missing = count;
        for (int i = 0; i < count; ++i) {
            m_all.push_back(std::make_unique<Setting<qint64>>(&m_settings, pathOf(shape, i), -1));
            QObject::connect(m_all.back().get(), &AnySetting::readyChanged, m_all.back().get(),
                             [&missing] { --missing; });
        }
        runUntil([&] { return missing == 0; });
        if (m_all.back()->value() < 0)
            throw std::runtime_error("the settings have no values");
    }

    const std::vector<std::unique_ptr<Setting<qint64>>>& all() const { return m_all; }

private:
    RemoteSettings m_settings;
    std::vector<std::unique_ptr<Setting<qint64>>> m_all;
};

// ---------------------------------------------------------------------------------------------
// Reading a value, in processor time.
// ---------------------------------------------------------------------------------------------

class Collector : public benchmark::BenchmarkReporter
{
public:
    explicit Collector(Samples* samples)
        : m_samples(samples)
    {
    }
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            m_samples->add("client_value", run.run_name.function_name, Shape().settings,
                           run.GetAdjustedCPUTime());
        }
    }

private:
    Samples* const m_samples;
};

void measureValues(const std::string& work, Samples* samples, std::mt19937* random)
{
    const Shape shape = comparedShapes().front();
    const Watched watched(shape, shape.settings);
    std::vector<std::string> names;
    const auto add = [&names](const std::string& name, auto read) {
        names.push_back(name);
        benchmark::RegisterBenchmark(name.c_str(), [read](benchmark::State& state) {
            std::size_t i = 0;
            for (auto _ : state)
                benchmark::DoNotOptimize(read(i++));
        })->MinTime(valueSeconds);
    };
    add("tulo",
        [&](std::size_t i) { return watched.all()[i % std::size_t(shape.settings)]->value(); });
    std::vector<std::unique_ptr<Store>> stores;
    for (const StoreKind* kind : storeKinds()) {
        if (kind == &tuloStore)
            continue;
        stores.push_back(kind->open(storeDirectory(work, *kind, shape), shape));
        Store& store = *stores.back();
        std::vector<int> settings(std::size_t(shape.settings));
        for (int i = 0; i < shape.settings; ++i)
            settings[std::size_t(i)] = i;
        store.select(settings);
        for (std::size_t i = 0; i < settings.size(); ++i)
            store.read(i);
        add(kind->name, [&store, &shape](std::size_t i) {
            return store.read(i % std::size_t(shape.settings));
        });
    }
    Collector collector(samples);
    for (int round = 0; round < valueRounds; ++round) {
        std::shuffle(names.begin(), names.end(), *random);
        for (const std::string& name : names)
            benchmark::RunSpecifiedBenchmarks(&collector, "^" + name + "/");
    }
}

// ---------------------------------------------------------------------------------------------
// Over the bus, in elapsed time.
// ---------------------------------------------------------------------------------------------

double emptyCall()
{
    const QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.tulo.BenchEcho"), QStringLiteral("/"),
        QStringLiteral("org.tulo.BenchEcho"), QStringLiteral("empty"));
    return nanoseconds([&] {
               for (int i = 0; i < callsEach; ++i) {
                   if (QDBusConnection::sessionBus().call(call).type()
                       != QDBusMessage::ReplyMessage)
                       throw std::runtime_error("no echo");
               }
           })
        / callsEach;
}

/// From making the connection until the last of so many settings is ready.
double timeToReady(const Shape& shape, int count)
{
    std::unique_ptr<Watched> watched;
    return nanoseconds([&] { watched = std::make_unique<Watched>(shape, count); });
}

/// From set() in one program until changed() in this one.
class Changes
{
public:
    explicit Changes(const Shape& shape)
        : m_changer({ program("bench_client_subject"), "change", pathOf(shape, 0).toStdString() })
        , m_watched(shape, 1)
    {
        m_changer.readLine();
        QObject::connect(&setting(), &AnySetting::changed, &setting(), [this] {
            m_changedAt = std::chrono::steady_clock::now();
            m_isChanged = true;
        });
    }

    double measure()
    {
        m_isChanged = false;
        m_changer.writeLine(std::to_string(setting().value() + 1));
        const std::chrono::nanoseconds sentAt(std::stoll(m_changer.readLine()));
        runUntil([this] { return m_isChanged; });
        return double((m_changedAt.time_since_epoch() - sentAt).count());
    }

private:
    const Setting<qint64>& setting() const { return *m_watched.all().front(); }

    Child m_changer;
    const Watched m_watched;
    std::chrono::steady_clock::time_point m_changedAt;
    bool m_isChanged = false;
};

void measureBus(const std::string& work, Samples* samples, std::mt19937* random)
{
    const Shape shape = comparedShapes().front();
    const auto service = std::make_unique<Service>(work, shape);
    Changes changes(shape);
    enum { Empty, Changed };
    std::vector<int> order(std::size_t(callRounds), Empty);
    order.resize(std::size_t(callRounds + changeRounds), Changed);
    std::shuffle(order.begin(), order.end(), *random);
    for (const int what : order) {
        samples->add(what == Empty ? "client_empty" : "client_changed",
                     what == Empty ? "empty" : "tulo", shape.settings,
                     what == Empty ? emptyCall() : changes.measure());
    }
}

void measureReady(const std::string& work, Samples* samples)
{
    for (const Shape& shape : comparedShapes()) {
        if (shape.settings > 10000)
            continue;
        {
            const Service service(work, shape);
            timeToReady(shape, shape.settings);
            for (int round = 0; round < readyRounds; ++round) {
                samples->add("client_ready", "warm", shape.settings,
                             timeToReady(shape, shape.settings));
                samples->add("client_empty", "empty", shape.settings, emptyCall());
            }
        }
        for (int round = 0; round < coldRounds; ++round) {
            const Service service(work, shape);
            samples->add("client_ready", "cold", shape.settings,
                         timeToReady(shape, shape.settings));
        }
    }
}

void measureServiceStart(const std::string& work, Samples* samples)
{
    const Shape shape { 2000, 20 };
    const std::string directory = storeDirectory(work, tuloStore, shape);
    if (std::filesystem::create_directories(directory))
        tuloStore.fill(directory, shape);
    for (int round = 0; round < serviceRounds; ++round) {
        std::unique_ptr<Service> service;
        samples->add("service_start", "tulo", shape.settings,
                     nanoseconds([&] { service = std::make_unique<Service>(work, shape); }));
    }
}

// What programs take that watch settings, and how long they take to start.
void measurePrograms(const std::string& work, Samples* samples)
{
    const Shape shape = comparedShapes().front();
    const Service service(work, shape);
    for (int round = 0; round < programRounds; ++round) {
        const auto measure = [&](const char* subject, int settings,
                                 const std::vector<std::string>& command) {
            std::unique_ptr<Child> child;
            const double time = nanoseconds([&] {
                child = std::make_unique<Child>(command);
                child->readLine();
            });
            samples->add("client_start", subject, settings, time);
            samples->add("client_memory", subject, settings, child->residentBytes());
        };
        const std::string subject = program("bench_client_subject");
        measure("trivial", 0, { program("bench_client_trivial") });
        measure("tulo", 1, { subject, "watch", "1" });
        measure("tulo", shape.settings, { subject, "watch", std::to_string(shape.settings) });
    }
}

void measure(const Arguments& arguments)
{
    Samples samples(arguments.samples);
    std::mt19937 random(arguments.seed);
    Child echo({ program("bench_echo") });
    echo.readLine();
    measureReady(arguments.work, &samples);
    measureBus(arguments.work, &samples, &random);
    measurePrograms(arguments.work, &samples);
    measureServiceStart(arguments.work, &samples);
    const Service service(arguments.work, comparedShapes().front());
    measureValues(arguments.work, &samples, &random);
}

} // namespace

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    Arguments arguments;
    if (!arguments.parse(argc, argv)) {
        std::fprintf(stderr, "usage: bench_client WORK SAMPLES SEED\n");
        return 2;
    }
    try {
        measure(arguments);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench_client: %s\n", failure.what());
        return 1;
    }
}
