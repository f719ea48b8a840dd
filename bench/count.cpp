// bench_count DIRECTORY OPERATION COUNT: does one kind of work COUNT times. Instructions
// and system calls are counted from outside: the work is done inside the function `measured`,
// and the same work with COUNT 0 shows what is done around it. Makes its own stores in
// DIRECTORY where they are missing. Prints the memory allocations of one operation.

#include "operations.h"
#include "stores.h"

#include <QCoreApplication>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>

// ---------------------------------------------------------------------------------------------
// Every allocation of the process passes here.
// ---------------------------------------------------------------------------------------------

namespace {

unsigned long allocations = 0;

} // namespace

extern "C" {

// The C library's own names for what is replaced below.
void* __libc_malloc(std::size_t size); // NOLINT
void* __libc_calloc(std::size_t count, std::size_t size); // NOLINT
void* __libc_realloc(void* block, std::size_t size); // NOLINT

void* malloc(std::size_t size) noexcept
{
    ++allocations;
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept
{
    ++allocations;
    return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) noexcept
{
    ++allocations;
    return __libc_realloc(block, size);
}

[[gnu::noinline]] void measured(const std::function<void(int)>& operation, int count)
{
    for (int i = 0; i < count; ++i)
        operation(i);
}

} // extern "C"

namespace {

// The store with this shape below `work`, made if it is not there.
std::string storeOf(const std::string& work, const Shape& shape)
{
    const std::string directory = storeDirectory(work, tuloStore, shape);
    if (std::filesystem::create_directories(directory))
        tuloStore.fill(directory, shape);
    return directory;
}

using Factory = std::function<Operation(const std::string& work)>;

template<typename Make>
Factory onStore(const Shape& shape, Make make)
{
    return [=](const std::string& work) {
        return make(storeOf(work, shape), shape);
    };
}

template<typename Make>
Factory alone(Make make)
{
    return [=](const std::string&) {
        return make();
    };
}

const std::map<std::string, Factory>& operations()
{
    // No larger than first loads need, so that counting takes a minute or two.
    constexpr Shape manyDirectories { 400, 20 };
    constexpr Shape oneDirectory { 400, 400 };
    static constexpr Shape thousand { 1000, 20 };
    const auto reset = [](int count) {
        return onStore(thousand, [count](const std::string& store, const Shape& shape) {
            return resetSettings(store, shape, count);
        });
    };
    static const std::map<std::string, Factory> all {
        { "get", onStore(manyDirectories, warmGet) },
        { "get_floor", alone(getFloor) },
        { "rows", onStore(manyDirectories, warmRows) },
        { "load", onStore(manyDirectories, firstLoad) },
        { "load_floor", onStore(manyDirectories, loadFloor) },
        { "list_first", onStore(oneDirectory, firstListing) },
        { "list_floor", onStore(oneDirectory, listFloor) },
        { "list_cached", onStore(oneDirectory, cachedListing) },
        { "accept", onStore(manyDirectories, acceptChange) },
        { "accept_directory", onStore(oneDirectory, acceptChange) },
        { "durable", onStore(manyDirectories, durableChange) },
        { "changes_1000", onStore(manyDirectories, thousandChanges) },
        { "read", onStore(manyDirectories, firstRead) },
        { "judge", onStore(manyDirectories, judgedChange) },
        { "reset_1", reset(1) },
        { "reset_100", reset(100) },
        { "reset_1000", reset(1000) },
        { "reset_made", onStore(thousand, resetMade) },
        { "unsaved", alone([] { return failedChange(0); }) },
        { "unsaved_8000", alone([] { return failedChange(8000); }) },
        { "check_2000",
          [](const std::string& work) {
              return checkBothTrees(storeOf(work, { 2000, 20 }));
          } },
        { "migrate_2000",
          [](const std::string& work) {
              return migrateNothing(storeOf(work, { 2000, 20 }), false);
          } },
        { "migrate_stamped",
          [](const std::string& work) {
              return migrateNothing(storeOf(work, { 2000, 20 }), true);
          } },
        { "json_parse", alone(parseJson) },
        { "json_floor", alone(buildHash) },
        { "json_serialize", alone(serializeJson) },
    };
    return all;
}

void count(const std::string& work, const std::string& name, int times)
{
    const Operation operation = operations().at(name)(work);
    const unsigned long before = allocations;
    measured(operation, times);
    const unsigned long after = allocations;
    std::printf("%.2f\n", times == 0 ? 0.0 : double(after - before) / times);
}

} // namespace

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    if (argc != 4 || operations().count(argv[2]) == 0) {
        std::fprintf(stderr, "usage: bench_count DIRECTORY OPERATION COUNT\noperations:");
        for (const auto& operation : operations())
            std::fprintf(stderr, " %s", operation.first.c_str());
        std::fputc('\n', stderr);
        return 2;
    }
    try {
        count(argv[1], argv[2], std::stoi(argv[3]));
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench_count: %s\n", failure.what());
        return 1;
    }
}
