#pragma once

// Kills a process before a call that changes files, in the program that includes this from one
// source: a child of it ends itself at the call that the test names, as if it had been killed
// there. Nothing needs to be on the disk for that, so nothing is synced. Between two of these calls
// the files are the same, so that a kill before any other call would leave the same.

#include "tests/crash/filecalls.h"

#include <QtGlobal>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include <sys/wait.h>
#include <unistd.h>

namespace {

int callsLeft = -1; // NOLINT: one test program, one thread; below 0: not counted

void beforeCall(FileCall)
{
    if (callsLeft < 0)
        return;
    if (callsLeft == 0)
        ::kill(::getpid(), SIGKILL);
    --callsLeft;
}

int replacedSync(int)
{
    return 0;
}

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
