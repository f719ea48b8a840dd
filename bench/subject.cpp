// bench_subject_NAME DIRECTORY SETTINGS: one store in a process of its own, under the driver.
// Reads a setting, prints a line, and then does what each line of standard input asks; every
// answer is one line, the nanoseconds that it took.
//
//     read N            reads N settings
//     write N ROUND     changes N settings, other ones each round, and waits for the disk
//     change N ROUND    changes one setting N times and waits for the disk
//
// TULO_BENCH_STORE names the store.

#include "samples.h"
#include "store.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>

namespace {

std::vector<int> distinctSettings(const Shape& shape, int count, int round)
{
    // A step without a common factor with the number of settings visits all of them in turn. Of
    // each store the same ones, however many lie beside them: as many directories are met anew.
    constexpr long long step = 7919;
    const long long visited = std::min(shape.settings, Shape().settings);
    std::vector<int> settings;
    for (long long i = 0; i < count; ++i)
        settings.push_back(int((i + static_cast<long long>(round) * count) * step % visited));
    return settings;
}

void perform(Store& store, const Shape& shape, const char* command, int count, int round)
{
    const bool isChange = std::strcmp(command, "change") == 0;
    store.select(distinctSettings(shape, isChange ? 1 : count, round));
    const int first = 1000 * (round + 1);
    double time = 0;
    if (std::strcmp(command, "read") == 0) {
        // One after the other: nobody keeps a name for everything that there is.
        for (const int setting : distinctSettings(shape, count, round)) {
            store.select({ setting });
            time += nanoseconds([&store] { store.read(0); });
        }
    } else {
        // Settings that a program changes are settings that it has read.
        for (int i = 0; i < (isChange ? 1 : count); ++i)
            store.read(std::size_t(i));
        time = nanoseconds([&] {
            for (int i = 0; i < count; ++i)
                store.set(isChange ? 0 : std::size_t(i), first + i);
            store.sync();
        });
    }
    std::printf("%.0f\n", time);
}

void serve(const std::string& directory, const Shape& shape)
{
    const std::unique_ptr<Store> store = TULO_BENCH_STORE.open(directory, shape);
    store->select({ shape.settings / 2 });
    std::printf("%d\n", store->read(0));
    std::fflush(stdout);

    char command[16];
    int count = 0;
    int round = 0;
    while (std::scanf("%15s %d %d", command, &count, &round) == 3) {
        perform(*store, shape, command, count, round);
        std::fflush(stdout);
    }
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_subject_NAME DIRECTORY SETTINGS\n");
        return 2;
    }
    try {
        Shape shape;
        shape.settings = std::stoi(argv[2]);
        serve(argv[1], shape);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s: %s\n", argv[0], failure.what());
        return 1;
    }
}
