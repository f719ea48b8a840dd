#include "child.h"

#include <array>
#include <csignal>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

Child::Child(const std::vector<std::string>& arguments)
    : m_program(arguments.front())
{
    std::array<int, 2> input {};
    std::array<int, 2> output {};
    if (::pipe2(input.data(), O_CLOEXEC) != 0 || ::pipe2(output.data(), O_CLOEXEC) != 0)
        throw std::runtime_error("no pipes");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str())); // NOLINT: what the call asks for
    argv.push_back(nullptr);
    const int error = ::posix_spawn(&m_process, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(input[0]);
    ::close(output[1]);
    if (error != 0)
        throw std::runtime_error("cannot start " + m_program);
    m_input = ::fdopen(input[1], "w");
    m_output = ::fdopen(output[0], "r");
}

Child::~Child()
{
    std::fclose(m_input);
    std::fclose(m_output);
    ::waitpid(m_process, nullptr, 0);
}

void Child::writeLine(const std::string& line)
{
    std::fprintf(m_input, "%s\n", line.c_str());
    std::fflush(m_input);
}

std::string Child::readLine()
{
    std::array<char, 256> line {};
    if (std::fgets(line.data(), int(line.size()), m_output) == nullptr)
        throw std::runtime_error(m_program + " ended early");
    std::string text(line.data());
    text.erase(text.find_last_not_of('\n') + 1);
    return text;
}

void Child::readToEnd()
{
    std::array<char, 4096> block {};
    while (std::fread(block.data(), 1, block.size(), m_output) > 0) { }
}

void Child::terminate() const
{
    ::kill(m_process, SIGTERM);
}

double Child::residentBytes() const
{
    std::ifstream rollup("/proc/" + std::to_string(m_process) + "/smaps_rollup");
    std::string word;
    double kibibytes = 0;
    while (rollup >> word) {
        if (word == "Rss:" && rollup >> kibibytes)
            return kibibytes * 1024;
    }
    throw std::runtime_error("no memory figures of " + m_program);
}
