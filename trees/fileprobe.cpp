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

enum class Look { Absent, Sound, Unsound };

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

// Zero, or the system's error, of reading `bytes` bytes.
int readAll(int file, qint64 bytes)
{
    std::array<char, 4096> block; // NOLINT: filled by read()
    while (bytes > 0) {
        const ssize_t count = ::read(file, block.data(), block.size());
        if (count == 0)
            break;
        if (count < 0 && errno != EINTR)
            return errno;
        bytes -= std::max(count, ssize_t(0));
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
        return Look::Sound;
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
    const int error = readAll(opened.get(), file.st_size);
    return error == 0 ? Look::Sound : unreadable(fileName, error, reason);
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
    return isRead ? Look::Sound : unreadable(name, error, reason);
}

// Looks at each of `names` until one is unsound, and says what is wrong with it. Sets `exists`
// when one of them does.
template<typename Names>
QString inspectAll(const Names& names, Look (*look)(const QString&, QString*), bool* exists)
{
    QString reason;
    for (const QString& name : names) {
        const Look seen = look(name, &reason);
        if (seen == Look::Unsound)
            return reason;
        *exists = *exists || seen == Look::Sound;
    }
    return QString();
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
    return isSound != nullptr && *isSound ? QString() : inspectAgain(settingPath);
}

QString FileProbe::inspectAgain(const QString& settingPath)
{
    const QLatin1String meta("/.meta");
    const QString parent = settingPath.left(settingPath.lastIndexOf(separator));
    const std::array<QString, 4> own { {
        m_defaultPath + settingPath + QLatin1Char('_') + m_productPostfix,
        m_defaultPath + settingPath,
        m_defaultPath + settingPath + meta,
        m_writePath + settingPath,
    } };
    const std::array<QString, 1> shared { { m_defaultPath + parent + meta } };
    bool exists = false;
    bool hasTemplate = false;
    QString reason = inspectAll(own, lookAtFile, &exists);
    if (reason.isEmpty())
        reason = inspectAll(shared, lookAtFile, &hasTemplate);
    m_nodes.insert(settingPath, new bool(reason.isEmpty() && exists));
    return reason;
}

QString FileProbe::inspectListing(const QString& settingPath)
{
    if (m_soundListings.contains(settingPath))
        return QString();
    const std::array<QString, 2> names { { m_defaultPath + settingPath,
                                           m_writePath + settingPath } };
    bool exists = false;
    QString reason = inspectAll(names, lookAtDirectory, &exists);
    if (reason.isEmpty() && exists)
        m_soundListings.insert(settingPath);
    return reason;
}

void FileProbe::forget()
{
    m_nodes.clear();
    m_soundListings.clear();
}

} // namespace tulo
