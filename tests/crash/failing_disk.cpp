// A disk that begins to fail: a file system with the one file "disk", kept in IMAGE, for a loop
// device.
//
//   failing_disk IMAGE DIRECTORY
//
// Its second file, "control", reads as the number of writes to the disk so far. After "N COUNT"
// was written there, the next N writes succeed and the COUNT writes after them fail with EIO.
// Ends when DIRECTORY is unmounted. Says "mounted" when it is.

#define FUSE_USE_VERSION 35

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <fuse.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// One thread serves all requests.
int image = -1; // NOLINT
long long writes = 0; // NOLINT
long long firstFailure = 0; // NOLINT: the number of a write
long long lastFailure = -1; // NOLINT

bool isControl(const char* path)
{
    return std::strcmp(path, "/control") == 0;
}

bool isDisk(const char* path)
{
    return std::strcmp(path, "/disk") == 0;
}

int result(ssize_t count)
{
    return count < 0 ? -errno : int(count);
}

void* start(fuse_conn_info*, fuse_config*)
{
    std::puts("mounted");
    std::fflush(stdout);
    return nullptr;
}

int getAttributes(const char* path, struct stat* attributes, fuse_file_info*)
{
    *attributes = {};
    if (std::strcmp(path, "/") == 0) {
        attributes->st_mode = S_IFDIR | 0700;
        attributes->st_nlink = 2;
        return 0;
    }
    if (!isControl(path) && !isDisk(path))
        return -ENOENT;
    struct stat file = {};
    if (::fstat(image, &file) != 0)
        return -errno;
    attributes->st_mode = S_IFREG | 0600;
    attributes->st_nlink = 1;
    attributes->st_size = isDisk(path) ? file.st_size : 0;
    return 0;
}

int openFile(const char* path, fuse_file_info* file)
{
    if (!isControl(path) && !isDisk(path))
        return -ENOENT;
    // Each write as it comes: the loop device takes one that is done in part for complete. And
    // the size of the control file is not known before.
    file->direct_io = 1;
    return 0;
}

int readFile(const char* path, char* bytes, size_t size, off_t offset, fuse_file_info*)
{
    if (isDisk(path))
        return result(::pread(image, bytes, size, offset));
    const std::string text = std::to_string(writes);
    if (offset >= off_t(text.size()))
        return 0;
    return int(text.copy(bytes, size, size_t(offset)));
}

int writeFile(const char* path, const char* bytes, size_t size, off_t offset, fuse_file_info*)
{
    if (isDisk(path)) {
        ++writes;
        if (writes >= firstFailure && writes <= lastFailure)
            return -EIO;
        return result(::pwrite(image, bytes, size, offset));
    }
    long long successes = 0;
    long long failures = 0;
    if (std::sscanf(std::string(bytes, size).c_str(), "%lld %lld", &successes, &failures) != 2)
        return -EINVAL;
    firstFailure = writes + successes + 1;
    lastFailure = firstFailure + failures - 1;
    return int(size);
}

// Opened for writing, the control file is emptied first.
int truncateFile(const char* path, off_t, fuse_file_info*)
{
    return isControl(path) ? 0 : -EPERM;
}

// The image outlives the test's file systems, not the machine.
int syncFile(const char*, int, fuse_file_info*)
{
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return 2;
    image = ::open(argv[1], O_RDWR | O_CLOEXEC);
    if (image < 0) {
        std::perror(argv[1]);
        return 1;
    }
    fuse_operations operations = {};
    operations.init = start;
    operations.getattr = getAttributes;
    operations.open = openFile;
    operations.read = readFile;
    operations.write = writeFile;
    operations.truncate = truncateFile;
    operations.fsync = syncFile;
    char foreground[] = "-f";
    char oneThread[] = "-s";
    char* arguments[] = { argv[0], foreground, oneThread, argv[2], nullptr };
    return fuse_main(4, arguments, &operations, nullptr);
}
