#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include <sys/types.h>

/// A program under the driver, with its standard streams at hand. Failures throw
/// std::runtime_error.
class Child
{
public:
    /// Starts `arguments`, the program's file name first. Does not wait for anything.
    explicit Child(const std::vector<std::string>& arguments);
    /// Closes the child's standard input and waits for its end.
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void writeLine(const std::string& line);
    /// The next line of its standard output, without the line end.
    std::string readLine();
    /// Waits for the end of its output.
    void readToEnd();
    /// Asks it to end, for a program that does not end with its standard input.
    void terminate() const;
    /// Resident memory in bytes.
    double residentBytes() const;

private:
    const std::string m_program;
    pid_t m_process = 0;
    std::FILE* m_input = nullptr;
    std::FILE* m_output = nullptr;
};
