#include "trees/ownerlock.h"

#include "trees/treeowner.h"

#include <QByteArray>
#include <QFile>

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tulo {

namespace {

constexpr char lockName[] = ".tulo-cm.lock";

// The whole file, for the calls below.
struct flock wholeFile()
{
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    return range;
}

qint64 readProcessId(int descriptor)
{
    char text[32] = {};
    const ssize_t length = ::pread(descriptor, text, sizeof text, 0);
    return length > 0 ? QByteArray(text, int(length)).trimmed().toLongLong() : 0;
}

// The process id is informational; ignore errors.
void emptyFile(int descriptor)
{
    const int result = ::ftruncate(descriptor, 0);
    Q_UNUSED(result)
}

} // namespace

OwnerLock::~OwnerLock()
{
    release();
}

QString OwnerLock::fileName(const QString& writePath)
{
    return writePath + QLatin1Char('/') + QLatin1String(lockName);
}

bool OwnerLock::isOwned() const
{
    return m_isOwned;
}

int OwnerLock::directory() const
{
    return m_isOwned ? m_directory.get() : -1;
}

qint64 OwnerLock::holder() const
{
    return m_holder;
}

QString OwnerLock::message() const
{
    return m_message;
}

// ---------------------------------------------------------------------------------------------
// Acquiring: the directory is opened first, so that both locks are on one and the same tree.
// ---------------------------------------------------------------------------------------------

OwnerLock::Status OwnerLock::fail(const QString& reason)
{
    m_message = QStringLiteral("Lock file '%1' %2").arg(fileName(m_writePath), reason);
    return Status::Failed;
}

OwnerLock::Status OwnerLock::inUse(qint64 holder)
{
    m_holder = holder;
    m_message = holder == 0
        ? QStringLiteral("The writable tree '%1' is in use by another process").arg(m_writePath)
        : QStringLiteral("The writable tree '%1' is in use by process %2")
              .arg(m_writePath, QString::number(holder));
    return Status::InUse;
}

OwnerLock::Status OwnerLock::acquire(const QString& writePath)
{
    release();
    m_writePath = writePath;
    Status status = openBoth();
    if (status == Status::Owned)
        status = lockBoth();
    m_isOwned = status == Status::Owned;
    if (!m_isOwned) {
        m_directory.reset();
        m_file.reset();
    }
    return status;
}

OwnerLock::Status OwnerLock::openBoth()
{
    m_directory = UniqueFd(::open(QFile::encodeName(m_writePath).constData(),
                                  O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
    struct stat tree = {};
    if (!m_directory || ::fstat(m_directory.get(), &tree) != 0) {
        m_message = QStringLiteral("Directory '%1' cannot be opened: %2")
                        .arg(m_writePath, qt_error_string(errno));
        return Status::Failed;
    }

    m_directoryId = { tree.st_dev, tree.st_ino };

    // What root writes, the tree's owner could not use.
    if (::geteuid() == 0 && tree.st_uid != 0) {
        m_message = QStringLiteral("The writable tree '%1' belongs to user '%2'; run as that user")
                        .arg(m_writePath, userName(tree.st_uid));
        return Status::Failed;
    }

    // Not blocking, because opening a pipe for reading and writing could wait for its peer.
    m_file =
        UniqueFd(::openat(m_directory.get(), lockName,
                          O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600));
    if (!m_file) {
        if (errno == EROFS || errno == ENOSPC || errno == EDQUOT) {
            m_message = QStringLiteral("Lock file '%1' cannot be opened: %2")
                            .arg(fileName(m_writePath), qt_error_string(errno));
            return Status::NotWritable;
        }
        return fail(errno == ELOOP ? QStringLiteral("is a symbolic link")
                                   : QStringLiteral("cannot be opened: ") + qt_error_string(errno));
    }
    struct stat file = {};
    if (::fstat(m_file.get(), &file) != 0)
        return fail(QStringLiteral("cannot be examined: ") + qt_error_string(errno));
    m_fileId = { file.st_dev, file.st_ino };
    if (!S_ISREG(file.st_mode))
        return fail(QStringLiteral("is not a regular file"));
    // What is written below must not land in another file of ours that was linked here.
    if (file.st_nlink != 1)
        return fail(QStringLiteral("has more than one name"));
    if (file.st_uid != ::geteuid() && file.st_uid != tree.st_uid)
        return fail(QStringLiteral("belongs to another user (%1)").arg(file.st_uid));
    if (::fchmod(m_file.get(), 0600) != 0)
        return fail(QStringLiteral("cannot be protected: ") + qt_error_string(errno));
    return Status::Owned;
}

OwnerLock::Status OwnerLock::lockBoth()
{
    struct flock range = wholeFile();
    if (::fcntl(m_file.get(), F_OFD_SETLK, &range) != 0) {
        if (errno != EAGAIN && errno != EACCES)
            return fail(QStringLiteral("cannot be locked: ") + qt_error_string(errno));
        return inUse(readProcessId(m_file.get()));
    }
    // Some network file systems lock no directory; then the file has to do.
    const bool isLocked = ::flock(m_directory.get(), LOCK_EX | LOCK_NB) == 0;
    if (!isLocked && errno != EBADF && errno != ENOLCK && errno != EOPNOTSUPP) {
        // The file that the owner locked has gone, and its process id with it.
        if (errno == EWOULDBLOCK)
            return inUse(0);
        m_message = QStringLiteral("Directory '%1' cannot be locked: %2")
                        .arg(m_writePath, qt_error_string(errno));
        return Status::Failed;
    }
    const QByteArray text = QByteArray::number(qint64(::getpid())) + '\n';
    emptyFile(m_file.get());
    // A short write could leave a wrong process id.
    if (::pwrite(m_file.get(), text.constData(), size_t(text.size()), 0) != text.size())
        emptyFile(m_file.get());
    return Status::Owned;
}

void OwnerLock::release()
{
    m_holder = 0;
    m_message.clear();
    // Before the lock goes with the descriptor: the next owner may write its own at once.
    if (m_isOwned)
        emptyFile(m_file.get());
    m_isOwned = false;
    // The reverse of the order in which they are locked, or the next owner would find one taken.
    m_directory.reset();
    m_file.reset();
}

// ---------------------------------------------------------------------------------------------
// Asking.
// ---------------------------------------------------------------------------------------------

QString OwnerLock::displacement() const
{
    if (!m_isOwned)
        return QString();
    struct stat found = {};
    if (::stat(QFile::encodeName(m_writePath).constData(), &found) != 0) {
        return QStringLiteral("The writable tree '%1' cannot be examined: %2")
            .arg(m_writePath, qt_error_string(errno));
    }
    if (FileId(found.st_dev, found.st_ino) != m_directoryId)
        return QStringLiteral("The writable tree '%1' has been replaced").arg(m_writePath);
    if (::fstatat(m_directory.get(), lockName, &found, AT_SYMLINK_NOFOLLOW) != 0
        || FileId(found.st_dev, found.st_ino) != m_fileId) {
        return QStringLiteral("Lock file '%1' has been removed or replaced")
            .arg(fileName(m_writePath));
    }
    return QString();
}

std::optional<qint64> OwnerLock::holderOf(const QString& writePath)
{
    const UniqueFd file(::open(QFile::encodeName(fileName(writePath)).constData(),
                               O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct flock range = wholeFile();
    if (!file || ::fcntl(file.get(), F_OFD_GETLK, &range) != 0 || range.l_type == F_UNLCK)
        return std::nullopt;
    return readProcessId(file.get());
}

} // namespace tulo
