// Preloaded into a service: syncfs() runs the shell script in TULO_TEST_SYNC and fails with EIO
// when that ends with anything but 0. The real one takes as long as the disk needs for what all
// other programs wrote.

#include <cerrno>
#include <cstdlib>

#include <spawn.h>
#include <sys/wait.h>

extern "C" int syncfs(int)
{
    char shell[] = "/bin/sh";
    char option[] = "-c";
    char* arguments[] = { shell, option, std::getenv("TULO_TEST_SYNC"), nullptr };
    char path[] = "PATH=/usr/bin:/bin";
    char* environment[] = { path, nullptr };
    pid_t child = 0;
    int status = -1;
    if (::posix_spawn(&child, shell, nullptr, nullptr, arguments, environment) != 0)
        return -1;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) { }
    errno = EIO;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}
