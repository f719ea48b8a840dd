// bench_inprocess WORK SAMPLES SEED: what a call costs inside one process, ours beside the
// others and beside the least that such work can cost. Every repetition runs all benchmarks in
// another random order. Nothing here waits, so what counts is the calling thread's processor
// time: what else the machine does hardly shows in it.

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

namespace {

// Many short samples: a machine that is shared stands still now and then, and a median of samples
// shorter than the time between two such stops does not know it. Each follows a warm-up: what is
// measured here is never the first of its kind for the processor or the page cache.
constexpr int repetitions = 31;
// First listings are long, and each costs the whole work anew.
constexpr int longRepetitions = 11;
constexpr double secondsEach = 0.0002;
constexpr double warmUpSeconds = 0.03;
// Time for all the settings that first loads go through.
constexpr double loadWarmUpSeconds = 0.3;

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
    benchmark::RegisterBenchmark(name.c_str(), function)
        ->MinTime(secondsEach)
        ->MinWarmUpTime(benchmark.work == "load" ? loadWarmUpSeconds : warmUpSeconds);
}

// ---------------------------------------------------------------------------------------------
// Ours and the floors.
// ---------------------------------------------------------------------------------------------

// Made when it is first run and kept from then on, with its count: what a first load met before
// the last of these is met no more.
struct Running
{
    Operation operation;
    int next = 0;
};

template<typename Factory>
void addOperation(const Benchmark& benchmark, Factory factory)
{
    add(benchmark, [factory, running = Running()](benchmark::State& state) mutable {
        if (!running.operation)
            running.operation = factory();
        for (auto _ : state)
            running.operation(running.next++);
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

// A store whose selected settings were all read before: first the working set, then the first
// directory.
std::shared_ptr<Store> openStore(const std::string& work, const StoreKind& kind)
{
    const Shape shape = comparedShapes().front();
    std::vector<int> settings = someSettings(shape, workingSet);
    for (int setting = 0; setting < shape.perDirectory; ++setting)
        settings.push_back(setting);
    const std::shared_ptr<Store> store = kind.open(storeDirectory(work, kind, shape), shape);
    store->select(settings);
    for (std::size_t position = 0; position < settings.size(); ++position)
        store->read(position);
    return store;
}

void readNumber(Store& store, int i)
{
    benchmark::DoNotOptimize(store.read(std::size_t(i) % workingSet));
}

void readDirectory(Store& store, int count)
{
    for (int position = workingSet; position < workingSet + count; ++position)
        benchmark::DoNotOptimize(store.read(std::size_t(position)));
}

void setNumbers(benchmark::State& state, Store& store)
{
    static int value = 0;
    for (auto _ : state) {
        ++value;
        store.set(std::size_t(value) % workingSet, value % 1000000);
    }
    // Written outside the measurement, and before anything else is measured.
    store.sync();
}

void addStores(const std::string& work)
{
    const Shape shape = comparedShapes().front();
    for (const StoreKind* kind : storeKinds()) {
        // One for all work: not every store may be open twice in a process.
        const std::shared_ptr<Store> store = openStore(work, *kind);
        addOperation({ "get", kind->name, shape.settings }, [store] {
            return [store](int i) {
                readNumber(*store, i);
            };
        });
        if (kind == &tuloStore)
            continue;
        addOperation({ "rows_20", kind->name, shape.settings }, [store, shape] {
            return [=](int) {
                readDirectory(*store, shape.perDirectory);
            };
        });
        add({ "accept", kind->name, shape.settings },
            [store](benchmark::State& state) { setNumbers(state, *store); });
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
                          run.GetAdjustedCPUTime());
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
        for (const std::string& name : order) {
            if (repetition < longRepetitions || benchmarks.at(name).work != "list_first")
                benchmark::RunSpecifiedBenchmarks(&collector, "^" + name + "/");
        }
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
