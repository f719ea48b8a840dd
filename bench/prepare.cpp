// bench_prepare DIRECTORY: makes every store in every shape. Prints the stores and their
// versions.

#include "stores.h"

#include <cstdio>
#include <exception>
#include <filesystem>

namespace {

void prepare(const std::string& work)
{
    const auto fill = [&work](const StoreKind& kind, const Shape& shape) {
        const std::string directory = storeDirectory(work, kind, shape);
        std::filesystem::create_directories(directory);
        kind.fill(directory, shape);
    };
    for (const StoreKind* kind : storeKinds()) {
        for (const Shape& shape : comparedShapes())
            fill(*kind, shape);
        std::printf("%s\t%s\n", kind->name, kind->version().c_str());
    }
    for (const Shape& shape : directoryShapes())
        fill(tuloStore, shape);
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: bench_prepare DIRECTORY\n");
        return 2;
    }
    try {
        prepare(argv[1]);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench_prepare: %s\n", failure.what());
        return 1;
    }
}
