#pragma once

// Kills a process before a call that changes files.
//
// The calls are met by replacing them in the program that includes this, from one source: a child
// of it ends itself at the call that the test names, as if it had been killed there. Nothing needs
// to be on the disk for that, so nothing is synced. Between two of these calls the files are the
// same, so that a kill before any other call would leave the same.

#include <QtGlobal>

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int callsLeft = -1; // NOLINT: one test program, one thread; below 0: not counted

void count()
{
    if (callsLeft < 0)
        return;
    if (callsLeft == 0)
        ::kill(::getpid(), SIGKILL);
    --callsLeft;
}

int result(long returned)
{
    return int(returned);
}

} // namespace

extern "C" {

int openat(int directory, const char* name, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    count();
    return result(::syscall(SYS_openat, directory, name, flags, mode));
}

int mkdirat(int directory, const char* name, mode_t mode) noexcept
{
    count();
    return result(::syscall(SYS_mkdirat, directory, name, mode));
}

int ftruncate(int file, off_t length) noexcept
{
    count();
    return result(::syscall(SYS_ftruncate, file, length));
}

ssize_t write(int file, const void* bytes, size_t size)
{
    count();
    return ::syscall(SYS_write, file, bytes, size);
}

int fsync(int)
{
    count();
    return 0;
}

int renameat(int from, const char* oldName, int to, const char* newName) noexcept
{
    count();
    return result(::syscall(SYS_renameat2, from, oldName, to, newName, 0));
}

int unlinkat(int directory, const char* name, int flags) noexcept
{
    count();
    return result(::syscall(SYS_unlinkat, directory, name, flags));
}

int close(int file)
{
    count();
    return result(::syscall(SYS_close, file));
}
}

namespace {

/// Runs `work` in a child that is killed before its call of that number, from 0. False when it came
/// to its end before.
bool isKilledAt(int call, const std::function<void()>& work)
{
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        callsLeft = call;
        work();
        callsLeft = -1;
        std::_Exit(0);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child)
        qFatal("cannot run a child");
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return false;
    if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL)
        qFatal("a child ended with status %d", status);
    return true;
}

} // namespace
