#pragma once

#include <chrono>
#include <fstream>
#include <random>
#include <string>

/// Nanoseconds that a call takes.
template<typename Function>
double nanoseconds(Function&& function)
{
    const auto start = std::chrono::steady_clock::now();
    function();
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
        .count();
}

/// What was measured, one line a sample: work, subject, number of settings and value, separated
/// by tabs. The unit belongs to the work: nanoseconds, and bytes for memory.
class Samples
{
public:
    explicit Samples(const std::string& fileName)
        : m_stream(fileName, std::ios::app)
    {
    }

    void add(const std::string& work, const std::string& subject, int settings, double value)
    {
        m_stream << work << '\t' << subject << '\t' << settings << '\t' << value << std::endl;
    }

private:
    std::ofstream m_stream;
};

/// How the measuring programs are called: where the stores are, where the samples go, and the
/// random seed that decides the order.
struct Arguments
{
    std::string work;
    std::string samples;
    std::mt19937::result_type seed = 0;

    /// False when `argv` is not "PROGRAM WORK SAMPLES SEED".
    bool parse(int argc, char* argv[])
    {
        if (argc != 4)
            return false;
        work = argv[1];
        samples = argv[2];
        seed = std::mt19937::result_type(std::stoul(argv[3]));
        return true;
    }
};
