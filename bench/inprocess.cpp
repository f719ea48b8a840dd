// bench_inprocess WORK SAMPLES SEED: what a call costs inside one process, ours beside the
// others and beside the least that such work can cost. Every repetition runs all benchmarks in
// another random order.

#include "operations.h"
#include "samples.h"
#include "stores.h"

#include <benchmark/benchmark.h>

#include <QCoreApplication>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <numeric>

namespace {

constexpr int repetitions = 11;
constexpr double secondsEach = 0.05;

struct Benchmark
{
    std::string work;
    std::string subject;
    int settings = 0;
};

std::map<std::string, Benchmark> benchmarks;

template<typename Function>
void add(const Benchmark& benchmark, Function function)
{
    const std::string name =
        benchmark.work + "-" + benchmark.subject + "-" + std::to_string(benchmark.settings);
    benchmarks[name] = benchmark;
    benchmark::RegisterBenchmark(name.c_str(), function)->MinTime(secondsEach);
}

// ---------------------------------------------------------------------------------------------
// Ours and the floors.
// ---------------------------------------------------------------------------------------------

template<typename Factory>
void addOperation(const Benchmark& benchmark, Factory factory)
{
    add(benchmark, [factory](benchmark::State& state) {
        const Operation operation = factory();
        int i = 0;
        for (auto _ : state)
            operation(i++);
    });
}

void addOperations(const std::string& work)
{
    using Factory = Operation (*)(const std::string&, const Shape&);
    const auto addOurs = [&work](const char* name, const char* subject, Factory factory,
                                 const Shape& shape) {
        const std::string directory = storeDirectory(work, tuloStore, shape);
        addOperation({ name, subject, shape.settings }, [=] { return factory(directory, shape); });
    };
    for (const Shape& shape : comparedShapes()) {
        addOurs("get_reply", "tulo", warmGet, shape);
        addOurs("load", "tulo", firstLoad, shape);
        addOurs("load", "floor", loadFloor, shape);
        addOurs("accept", "tulo", acceptChange, shape);
    }
    for (const Shape& shape : directoryShapes()) {
        addOurs("list_first", "tulo", firstListing, shape);
        addOurs("list_first", "floor", listFloor, shape);
        addOurs("list_cached", "tulo", cachedListing, shape);
        addOurs("accept_directory", "tulo", acceptChange, shape);
    }
    const Shape shape = comparedShapes().front();
    addOurs("rows_20", "tulo", warmRows, shape);
    addOperation({ "get_reply", "floor", shape.settings }, getFloor);
    addOperation({ "json", "tulo", 1 }, parseJson);
    addOperation({ "json", "floor", 1 }, buildHash);
}

// ---------------------------------------------------------------------------------------------
// Every store through the common interface.
// ---------------------------------------------------------------------------------------------

std::unique_ptr<Store> openStore(const std::string& work, const StoreKind& kind,
                                 const std::vector<int>& settings)
{
    const Shape shape = comparedShapes().front();
    std::unique_ptr<Store> store = kind.open(storeDirectory(work, kind, shape), shape);
    store->select(settings);
    for (std::size_t position = 0; position < settings.size(); ++position)
        store->read(position);
    return store;
}

void getNumber(benchmark::State& state, const std::string& work, const StoreKind& kind)
{
    const std::vector<int> settings = someSettings(comparedShapes().front(), workingSet);
    const std::unique_ptr<Store> store = openStore(work, kind, settings);
    std::size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(store->read(i++ % settings.size()));
}

void getTwenty(benchmark::State& state, const std::string& work, const StoreKind& kind)
{
    std::vector<int> settings(20);
    std::iota(settings.begin(), settings.end(), 0);
    const std::unique_ptr<Store> store = openStore(work, kind, settings);
    for (auto _ : state) {
        for (std::size_t position = 0; position < settings.size(); ++position)
            benchmark::DoNotOptimize(store->read(position));
    }
}

void setNumber(benchmark::State& state, const std::string& work, const StoreKind& kind)
{
    const std::vector<int> settings = someSettings(comparedShapes().front(), workingSet);
    const std::unique_ptr<Store> store = openStore(work, kind, settings);
    static int value = 0;
    std::size_t i = 0;
    for (auto _ : state)
        store->set(i++ % settings.size(), ++value % 1000000);
    // Written outside the measurement, and before anything else is measured.
    store->sync();
}

void addStores(const std::string& work)
{
    const int settings = comparedShapes().front().settings;
    for (const StoreKind* kind : storeKinds()) {
        add({ "get", kind->name, settings },
            [=](benchmark::State& state) { getNumber(state, work, *kind); });
        if (kind == &tuloStore)
            continue;
        add({ "rows_20", kind->name, settings },
            [=](benchmark::State& state) { getTwenty(state, work, *kind); });
        add({ "accept", kind->name, settings },
            [=](benchmark::State& state) { setNumber(state, work, *kind); });
    }
}

// ---------------------------------------------------------------------------------------------
// Running them.
// ---------------------------------------------------------------------------------------------

class Collector : public benchmark::BenchmarkReporter
{
public:
    explicit Collector(const std::string& samples)
        : m_samples(samples)
    {
    }

    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            const Benchmark& benchmark = benchmarks.at(run.run_name.function_name);
            m_samples.add(benchmark.work, benchmark.subject, benchmark.settings,
                          run.GetAdjustedRealTime());
        }
    }

private:
    Samples m_samples;
};

void measure(const Arguments& arguments)
{
    addOperations(arguments.work);
    addStores(arguments.work);
    std::vector<std::string> order;
    for (const auto& entry : benchmarks)
        order.push_back(entry.first);
    std::mt19937 random(arguments.seed);
    Collector collector(arguments.samples);
    for (int repetition = 0; repetition < repetitions; ++repetition) {
        std::shuffle(order.begin(), order.end(), random);
        for (const std::string& name : order)
            benchmark::RunSpecifiedBenchmarks(&collector, "^" + name + "/");
    }
}

} // namespace

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    Arguments arguments;
    if (!arguments.parse(argc, argv)) {
        std::fprintf(stderr, "usage: bench_inprocess WORK SAMPLES SEED\n");
        return 2;
    }
    try {
        measure(arguments);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench_inprocess: %s\n", failure.what());
        return 1;
    }
}
