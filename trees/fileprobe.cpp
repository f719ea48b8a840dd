#include "trees/fileprobe.h"

#include "trees/separator.h"
#include "trees/uniquefd.h"

#include <QByteArray>
#include <QFile>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tulo {

namespace {

// The worker holds 300 nodes. A request makes it load three at most that are not looked at here on
// its behalf: a parent directory, an alias.
constexpr int rememberedNodes = 75;

enum class Look { Absent, File, FileWithRoles, Directory, Unsound };

// Absence, not trouble. A name below a file does not exist; one that is too long cannot.
bool isAbsent(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ENAMETOOLONG;
}

Look unsound(const QString& fileName, const QString& what, QString* reason)
{
    *reason = QStringLiteral("'%1' %2").arg(fileName, what);
    return Look::Unsound;
}

Look unreadable(const QString& fileName, int error, QString* reason)
{
    if (isAbsent(error))
        return Look::Absent;
    return unsound(
        fileName, QStringLiteral("cannot be read: ") + QString::fromLocal8Bit(std::strerror(error)),
        reason);
}

// Reads `bytes` bytes. Returns zero, or the system's error. Tells whether they can only be those of
// an object with a member: nothing else that begins with a brace holds a text.
int readAll(int file, qint64 bytes, bool* hasMember)
{
    std::array<char, 4096> block; // NOLINT: filled by read()
    bool isObject = false;
    for (bool isFirst = true; bytes > 0;) {
        const ssize_t count = ::read(file, block.data(), block.size());
        if (count == 0)
            break;
        if (count < 0) {
            if (errno != EINTR)
                return errno;
            continue;
        }
        isObject = isFirst ? block[0] == '{' : isObject;
        *hasMember = *hasMember || (isObject && std::memchr(block.data(), '"', std::size_t(count)));
        isFirst = false;
        bytes -= count;
    }
    return 0;
}

// Through links, as the worker reads it. A directory is sound: the worker does not read it.
Look lookAtFile(const QString& fileName, QString* reason)
{
    const QByteArray name = QFile::encodeName(fileName);
    struct stat file = {};
    // Before it is opened, which can have an effect on a device.
    if (::stat(name.constData(), &file) != 0)
        return unreadable(fileName, errno, reason);
    if (S_ISDIR(file.st_mode))
        return Look::Directory;
    if (!S_ISREG(file.st_mode))
        return unsound(fileName, QStringLiteral("is not a regular file"), reason);
    if (file.st_size > FileProbe::maximumFileBytes) {
        return unsound(fileName,
                       QStringLiteral("is larger than %1 bytes").arg(FileProbe::maximumFileBytes),
                       reason);
    }
    const UniqueFd opened(::open(name.constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!opened)
        return unreadable(fileName, errno, reason);
    bool hasMember = false;
    const int error = readAll(opened.get(), file.st_size, &hasMember);
    if (error != 0)
        return unreadable(fileName, error, reason);
    return hasMember ? Look::FileWithRoles : Look::File;
}

Look lookAtDirectory(const QString& name, QString* reason)
{
    DIR* const directory = ::opendir(QFile::encodeName(name).constData());
    if (directory == nullptr)
        return unreadable(name, errno, reason);
    errno = 0;
    const bool isRead = ::readdir(directory) != nullptr || errno == 0;
    const int error = errno;
    ::closedir(directory);
    return isRead ? Look::Directory : unreadable(name, error, reason);
}

} // namespace

FileProbe::FileProbe(const QString& defaultPath, const QString& writePath,
                     const QString& productPostfix)
    : m_defaultPath(defaultPath)
    , m_writePath(writePath)
    , m_productPostfix(productPostfix)
    , m_nodes(rememberedNodes)
{
}

QString FileProbe::inspect(const QString& settingPath)
{
    const bool* const isSound = m_nodes.object(settingPath);
    return isSound != nullptr && *isSound ? QString() : inspectAgain(settingPath).reason;
}

FileProbe::Seen FileProbe::inspectAgain(const QString& settingPath)
{
    const QLatin1String meta("/.meta");
    const QString parent = settingPath.left(settingPath.lastIndexOf(separator));
    const QString own = m_defaultPath + settingPath;
    Seen seen;
    bool exists = false;
    // Nothing more is looked at once something is wrong.
    const auto look = [&seen](const QString& fileName) {
        return seen.reason.isEmpty() ? lookAtFile(fileName, &seen.reason) : Look::Unsound;
    };
    const auto lookAtOwn = [&](const QString& fileName) {
        const Look found = look(fileName);
        exists = exists || (found != Look::Absent && found != Look::Unsound);
        return found;
    };

    const Look ofProduct = lookAtOwn(own + QLatin1Char('_') + m_productPostfix);
    const Look ofAll = lookAtOwn(own);
    if (ofAll == Look::Directory) {
        seen.isDirectory = true;
        lookAtOwn(own + meta);
    }
    if (lookAtOwn(m_writePath + settingPath) == Look::Directory)
        seen.isDirectory = true;
    // The worker reads it only for a setting whose default file has no roles.
    const bool isOfProduct = ofProduct == Look::File || ofProduct == Look::FileWithRoles;
    if (!seen.isDirectory && (isOfProduct ? ofProduct : ofAll) != Look::FileWithRoles)
        look(m_defaultPath + parent + meta);
    m_nodes.insert(settingPath, new bool(seen.reason.isEmpty() && exists));
    return seen;
}

QString FileProbe::inspectListing(const QString& settingPath)
{
    if (m_soundListings.contains(settingPath))
        return QString();
    QString reason;
    bool exists = false;
    for (const QString& tree : { m_defaultPath, m_writePath }) {
        const Look found = lookAtDirectory(tree + settingPath, &reason);
        if (found == Look::Unsound)
            return reason;
        exists = exists || found == Look::Directory;
    }
    if (exists)
        m_soundListings.insert(settingPath);
    return QString();
}

void FileProbe::forget()
{
    m_nodes.clear();
    m_soundListings.clear();
}

} // namespace tulo
