#include "trees/partition.h"

#include <QFile>

#include <array>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace tulo {

namespace {

// More than the largest value and the directory that its file is in.
constexpr size_t roomBytes = size_t(64) * 1024;

} // namespace

bool isOnOwnFileSystem(const QString& directory)
{
    struct stat tree = {};
    struct stat root = {};
    return ::stat(QFile::encodeName(directory).constData(), &tree) == 0 && ::stat("/", &root) == 0
        && tree.st_dev != root.st_dev;
}

DirectoryId directoryId(const QString& directory)
{
    struct stat found = {};
    if (::stat(QFile::encodeName(directory).constData(), &found) != 0)
        return {};
    return { found.st_dev, found.st_ino, found.st_ctim.tv_sec, found.st_ctim.tv_nsec };
}

bool isReadOnly(int directory)
{
    struct statvfs fileSystem = {};
    return ::fstatvfs(directory, &fileSystem) == 0 && (fileSystem.f_flag & ST_RDONLY) != 0;
}

int tryWriting(int directory)
{
    struct statvfs fileSystem = {};
    if (::fstatvfs(directory, &fileSystem) != 0)
        return errno;
    const quint64 blocks = ::geteuid() == 0 ? fileSystem.f_bfree : fileSystem.f_bavail;
    // Not every file system counts them.
    if (fileSystem.f_blocks > 0 && blocks * fileSystem.f_frsize < roomBytes)
        return ENOSPC;
    // Never has a name, so it is gone with the descriptor, however the process ends.
    const UniqueFd file(::openat(directory, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    if (!file)
        return errno == EOPNOTSUPP || errno == EISDIR || errno == ENOENT ? 0 : errno;
    const std::array<char, 4096> page {};
    for (size_t written = 0; written < roomBytes; written += page.size()) {
        const ssize_t count = ::write(file.get(), page.data(), page.size());
        if (count < 0)
            return errno;
        // What a write could not hold the next one cannot hold either.
        if (size_t(count) < page.size())
            return ENOSPC;
    }
    return 0;
}

MountWatch::MountWatch()
    : m_mounts(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC))
{
    if (!m_mounts)
        return;
    m_notifier = std::make_unique<QSocketNotifier>(m_mounts.get(), QSocketNotifier::Exception);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, [this] { emit changed(); });
}

} // namespace tulo
