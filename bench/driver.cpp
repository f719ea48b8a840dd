// bench_driver WORK SAMPLES SEED: what only whole processes show: changes that are safely on
// disk, starts, memory. Every subject is a process of its own; each round asks all of them, in
// another random order.

#include "child.h"
#include "samples.h"
#include "store_tulo.h"
#include "stores.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <stdexcept>

namespace {

constexpr int durableRounds = 200;
// Some stores rewrite all that they hold for one change: of the largest ones, every round would
// take an hour.
constexpr int largeRounds = 11;
constexpr int burstRounds = 11;
constexpr int burstSize = 100;
constexpr int changes = 1000;
constexpr int startRounds = 31;
constexpr int checkRounds = 11;
constexpr int memoryRounds = 11;

using Random = std::mt19937;

struct Subject
{
    std::string name;
    int settings = 0;
    std::vector<std::string> command;
};

Subject subjectOf(const std::string& work, const StoreKind& kind, const Shape& shape)
{
    const std::string program = std::string(TULO_BENCH_PROGRAMS) + "/bench_subject_" + kind.name;
    return { kind.name,
             shape.settings,
             { program, storeDirectory(work, kind, shape), std::to_string(shape.settings) } };
}

Subject trivial(const char* name)
{
    return { name, 0, { std::string(TULO_BENCH_PROGRAMS) + "/bench_" + name } };
}

// ---------------------------------------------------------------------------------------------
// Durable changes. A floor for each size: what lies beside a file may change what it costs.
// ---------------------------------------------------------------------------------------------

std::vector<Subject> durableSubjects(const std::string& work)
{
    std::vector<Subject> subjects;
    for (const Shape& shape : comparedShapes()) {
        const bool isMiddle = shape.settings != comparedShapes().front().settings
            && shape.settings != comparedShapes().back().settings;
        for (const StoreKind* kind : storeKinds()) {
            if (kind == &tuloStore || !isMiddle)
                subjects.push_back(subjectOf(work, *kind, shape));
        }
    }
    subjects.push_back(subjectOf(work, floorStore, comparedShapes().front()));
    return subjects;
}

void measureWrites(const std::string& work, Samples& samples, Random& random)
{
    struct Running
    {
        Subject subject;
        std::unique_ptr<Child> child;
    };
    std::vector<Running> all;
    for (const Subject& subject : durableSubjects(work)) {
        all.push_back({ subject, std::make_unique<Child>(subject.command) });
        all.back().child->readLine();
    }
    const auto rounds = [&](const char* name, const std::string& command, int count, auto wanted) {
        for (int round = 0; round < count; ++round) {
            std::shuffle(all.begin(), all.end(), random);
            for (const Running& running : all) {
                if (!wanted(running.subject, round))
                    continue;
                running.child->writeLine(command + " " + std::to_string(round));
                samples.add(name, running.subject.name, running.subject.settings,
                            std::stod(running.child->readLine()));
            }
        }
    };
    const auto isSmall = [](const Subject& subject, int) {
        return subject.settings == comparedShapes().front().settings;
    };
    rounds("durable", "write 1", durableRounds, [](const Subject& subject, int round) {
        return subject.settings != comparedShapes().back().settings
            || subject.name == tuloStore.name || round < largeRounds;
    });
    rounds("burst_100", "write " + std::to_string(burstSize), burstRounds, isSmall);
    rounds("changes_1000", "change " + std::to_string(changes), burstRounds, isSmall);
}

// ---------------------------------------------------------------------------------------------
// Start to first value, and memory.
// ---------------------------------------------------------------------------------------------

std::vector<Subject> startSubjects(const std::string& work)
{
    const Shape shape = comparedShapes().front();
    std::vector<Subject> subjects { trivial("trivial"), trivial("trivial_command") };
    for (const StoreKind* kind : storeKinds())
        subjects.push_back(subjectOf(work, *kind, shape));

    const std::string directory = storeDirectory(work, tuloStore, shape);
    subjects.push_back({ "tulo-cm",
                         shape.settings,
                         { TULO_CM_PROGRAM, "--default-path", defaultTree(directory),
                           "--write-path", writableTree(directory), "get",
                           "/settings/" + shape.directory(0) + "/" + shape.name(0) } });
    subjects.push_back({ "tulo-cm --help", 0, { TULO_CM_PROGRAM, "--help" } });
    return subjects;
}

void measureStarts(const std::string& work, Samples& samples, Random& random)
{
    std::vector<Subject> subjects = startSubjects(work);
    for (int round = 0; round < startRounds; ++round) {
        std::shuffle(subjects.begin(), subjects.end(), random);
        for (const Subject& subject : subjects) {
            std::unique_ptr<Child> child;
            const double time = nanoseconds([&] {
                child = std::make_unique<Child>(subject.command);
                child->readLine();
            });
            samples.add("start", subject.name, subject.settings, time);
        }
    }
}

// All files of both trees, from the start of the program to its end.
void measureCheck(const std::string& work, Samples& samples)
{
    const Shape shape = comparedShapes().front();
    const std::string directory = storeDirectory(work, tuloStore, shape);
    for (int round = 0; round < checkRounds; ++round) {
        const double time = nanoseconds([&directory] {
            Child program({ TULO_CM_PROGRAM, "--default-path", defaultTree(directory),
                            "--write-path", writableTree(directory), "check" });
            program.readLine();
            program.readToEnd();
        });
        samples.add("check", "tulo", shape.settings, time);
    }
}

void measureMemory(const std::string& work, Samples& samples, Random& random)
{
    std::vector<Subject> subjects { trivial("trivial") };
    for (const StoreKind* kind : storeKinds())
        subjects.push_back(subjectOf(work, *kind, comparedShapes().front()));
    subjects.push_back(subjectOf(work, tuloStore, comparedShapes().back()));
    for (int round = 0; round < memoryRounds; ++round) {
        std::shuffle(subjects.begin(), subjects.end(), random);
        for (const Subject& subject : subjects) {
            Child child(subject.command);
            child.readLine();
            if (subject.settings != 0) {
                child.writeLine("read 1000 0");
                child.readLine();
            }
            samples.add("memory", subject.name, subject.settings, child.residentBytes());
        }
    }
}

void measure(const Arguments& arguments)
{
    Samples samples(arguments.samples);
    Random random(arguments.seed);
    const Shape shape = comparedShapes().front();
    const std::string floor = storeDirectory(arguments.work, floorStore, shape);
    if (std::filesystem::create_directories(floor))
        floorStore.fill(floor, shape);
    measureStarts(arguments.work, samples, random);
    measureCheck(arguments.work, samples);
    measureMemory(arguments.work, samples, random);
    measureWrites(arguments.work, samples, random);
}

} // namespace

int main(int argc, char* argv[])
{
    Arguments arguments;
    if (!arguments.parse(argc, argv)) {
        std::fprintf(stderr, "usage: bench_driver WORK SAMPLES SEED\n");
        return 2;
    }
    try {
        measure(arguments);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench_driver: %s\n", failure.what());
        return 1;
    }
}
