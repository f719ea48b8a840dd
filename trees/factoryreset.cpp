#include "trees/factoryreset.h"

#include "trees/migrationrecord.h"
#include "trees/uniquefd.h"
#include "trees/writtenfiles.h"

#include <QDir>
#include <QFileInfo>
#include <QStringList>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tulo {

namespace {

using Status = JournalResult::Status;

constexpr char requestName[] = ".tulo-cm.factory-reset";

// What is inside of a directory has the longer path.
QStringList deepestFirst(QStringList directories)
{
    std::sort(directories.begin(), directories.end(),
              [](const QString& left, const QString& right) { return left.size() > right.size(); });
    return directories;
}

JournalResult unfinished(const QString& reason)
{
    return { Status::Unfinished,
             QStringLiteral("a factory reset is asked for and is done when the tree is opened for "
                            "changes the next time: ")
                 + reason };
}

// Whether there is a request; `problem` is why it does not count.
bool isRequested(int directory, QString* problem)
{
    struct stat request = {};
    struct stat tree = {};
    if (::fstatat(directory, requestName, &request, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    if (!S_ISREG(request.st_mode))
        *problem = QStringLiteral("is not a regular file");
    else if (::fstat(directory, &tree) != 0
             || (request.st_uid != 0 && request.st_uid != ::geteuid()
                 && request.st_uid != tree.st_uid))
        *problem = QStringLiteral("belongs to another user");
    return true;
}

} // namespace

JournalResult requestFactoryReset(int directory)
{
    constexpr mode_t ownerOnly = 0600;
    const UniqueFd file(::openat(directory, requestName,
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, ownerOnly));
    if (file && ::fsync(file.get()) == 0 && ::fsync(directory) == 0)
        return {};
    QString problem;
    if (!file && errno == EEXIST && isRequested(directory, &problem) && problem.isEmpty()
        && ::fsync(directory) == 0)
        return {};
    const QString reason = QStringLiteral("cannot write '%1' in the writable tree: %2")
                               .arg(QLatin1String(requestName), qt_error_string(errno));
    // Nobody knows whether it would be there after a power cut, so it must not.
    if (file && ::unlinkat(directory, requestName, 0) != 0)
        return unfinished(reason);
    return { Status::Refused, reason };
}

void withdrawFactoryReset(int directory)
{
    QString problem;
    if (isRequested(directory, &problem) && problem.isEmpty()
        && ::unlinkat(directory, requestName, 0) == 0)
        (void)::fsync(directory);
}

JournalResult finishFactoryReset(int directory, const QString& defaultPath,
                                 const QString& writePath, const QString& productPostfix)
{
    QString problem;
    if (!isRequested(directory, &problem))
        return {};
    if (!problem.isEmpty()) {
        return { Status::Refused,
                 QStringLiteral("the file '%1' in the writable tree %2; nothing was reset")
                     .arg(QLatin1String(requestName), problem) };
    }
    if (QDir(defaultPath).isEmpty())
        return unfinished(QStringLiteral("the default tree '%1' is empty").arg(defaultPath));
    // The request must outlive a power cut that finds some of the files removed.
    if (::fsync(directory) != 0)
        return unfinished(qt_error_string(errno));

    const WrittenFiles files(QFileInfo(defaultPath).canonicalFilePath(),
                             QFileInfo(writePath).canonicalFilePath(), productPostfix);
    const QStringList settings = files.settingsBelow(QStringLiteral("/"));
    const QString error = removeDecided(
        directory, settings, deepestFirst(files.strayDirectoriesBelow(QStringLiteral("/"))),
        { MigrationRecord::fileName() });
    if (!error.isEmpty())
        return unfinished(error);
    if (::unlinkat(directory, requestName, 0) != 0 || ::fsync(directory) != 0)
        return unfinished(qt_error_string(errno));
    return { Status::Done,
             QStringLiteral("factory reset: %1 settings were taken back to their defaults")
                 .arg(settings.size()) };
}

} // namespace tulo
