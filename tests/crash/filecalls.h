#pragma once

// Meets the calls that change files by replacing them in the program that includes this, from one
// source. That source defines the two functions that are declared here.

#include <cstdarg>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

enum class FileCall {
    Open,
    Create,
    MakeDirectory,
    Truncate,
    Write,
    ChangeOwner,
    Sync,
    Rename,
    Remove,
    Close
};

/// Called before each of them but writes to the standard streams.
void beforeCall(FileCall call);
/// Made in place of fsync().
int replacedSync(int file);

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
    beforeCall((flags & O_CREAT) != 0 ? FileCall::Create : FileCall::Open);
    return result(::syscall(SYS_openat, directory, name, flags, mode));
}

int mkdirat(int directory, const char* name, mode_t mode) noexcept
{
    beforeCall(FileCall::MakeDirectory);
    return result(::syscall(SYS_mkdirat, directory, name, mode));
}

int ftruncate(int file, off_t length) noexcept
{
    beforeCall(FileCall::Truncate);
    return result(::syscall(SYS_ftruncate, file, length));
}

ssize_t write(int file, const void* bytes, size_t size)
{
    if (file > STDERR_FILENO)
        beforeCall(FileCall::Write);
    return ::syscall(SYS_write, file, bytes, size);
}

int fchownat(int directory, const char* name, uid_t user, gid_t group, int flags) noexcept
{
    beforeCall(FileCall::ChangeOwner);
    return result(::syscall(SYS_fchownat, directory, name, user, group, flags));
}

int fsync(int file)
{
    beforeCall(FileCall::Sync);
    return replacedSync(file);
}

int renameat(int from, const char* oldName, int to, const char* newName) noexcept
{
    beforeCall(FileCall::Rename);
    return result(::syscall(SYS_renameat2, from, oldName, to, newName, 0));
}

int unlinkat(int directory, const char* name, int flags) noexcept
{
    beforeCall(FileCall::Remove);
    return result(::syscall(SYS_unlinkat, directory, name, flags));
}

int close(int file)
{
    beforeCall(FileCall::Close);
    return result(::syscall(SYS_close, file));
}
}
