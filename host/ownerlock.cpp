#include "host/ownerlock.h"

#include <QByteArray>
#include <QFile>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

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

QString systemText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// What the file holds is a courtesy to whoever asks for the owner, so a failure is nobody's loss.
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
    return writePath + QStringLiteral("/.tulo-cm.lock");
}

bool OwnerLock::isOwned() const
{
    return m_descriptor >= 0;
}

qint64 OwnerLock::holder() const
{
    return m_holder;
}

QString OwnerLock::message() const
{
    return m_message;
}

OwnerLock::Status OwnerLock::fail(const QString& reason)
{
    m_message = QStringLiteral("Lock file '%1' %2").arg(m_fileName, reason);
    return Status::Failed;
}

OwnerLock::Status OwnerLock::acquire(const QString& writePath)
{
    release();
    m_fileName = fileName(writePath);

    struct stat tree = {};
    if (::stat(QFile::encodeName(writePath).constData(), &tree) != 0)
        return fail(QStringLiteral("cannot be opened: ") + systemText(errno));

    // Not blocking, because opening a pipe for reading and writing could wait for its peer.
    const int descriptor =
        ::open(QFile::encodeName(m_fileName).constData(),
               O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        return fail(errno == ELOOP ? QStringLiteral("is a symbolic link")
                                   : QStringLiteral("cannot be opened: ") + systemText(errno));
    }
    // Owned by this object from here on: every return below that is no success gives it back.
    struct Closer
    {
        int descriptor;
        ~Closer()
        {
            if (descriptor >= 0)
                ::close(descriptor);
        }
    } closer { descriptor };

    struct stat file = {};
    if (::fstat(descriptor, &file) != 0)
        return fail(QStringLiteral("cannot be examined: ") + systemText(errno));
    if (!S_ISREG(file.st_mode))
        return fail(QStringLiteral("is not a regular file"));
    // What is written below must not land in another file of ours that somebody linked here.
    if (file.st_nlink != 1)
        return fail(QStringLiteral("has more than one name"));
    if (file.st_uid != ::geteuid() && file.st_uid != tree.st_uid)
        return fail(QStringLiteral("belongs to another user (%1)").arg(file.st_uid));
    if (::fchmod(descriptor, 0600) != 0)
        return fail(QStringLiteral("cannot be protected: ") + systemText(errno));
    // Without this a run as root would lock the tree's owner out for good.
    if (::geteuid() == 0 && file.st_uid != tree.st_uid
        && ::fchown(descriptor, tree.st_uid, tree.st_gid) != 0)
        return fail(QStringLiteral("cannot be given to the tree's owner: ") + systemText(errno));

    struct flock range = wholeFile();
    if (::fcntl(descriptor, F_OFD_SETLK, &range) != 0) {
        if (errno != EAGAIN && errno != EACCES)
            return fail(QStringLiteral("cannot be locked: ") + systemText(errno));
        m_holder = readProcessId(descriptor);
        m_message = m_holder == 0
            ? QStringLiteral("The writable tree '%1' is in use by another process").arg(writePath)
            : QStringLiteral("The writable tree '%1' is in use by process %2")
                  .arg(writePath, QString::number(m_holder));
        return Status::InUse;
    }

    const QByteArray text = QByteArray::number(qint64(::getpid())) + '\n';
    emptyFile(descriptor);
    // Half a number on a full disk would be another process.
    if (::pwrite(descriptor, text.constData(), size_t(text.size()), 0) != text.size())
        emptyFile(descriptor);
    m_descriptor = descriptor;
    closer.descriptor = -1;
    return Status::Owned;
}

void OwnerLock::release()
{
    m_holder = 0;
    m_message.clear();
    if (m_descriptor < 0)
        return;
    // Before the lock goes with the descriptor: the next owner may write its own at once.
    emptyFile(m_descriptor);
    ::close(m_descriptor);
    m_descriptor = -1;
}

std::optional<qint64> OwnerLock::holderOf(const QString& writePath)
{
    const int descriptor = ::open(QFile::encodeName(fileName(writePath)).constData(),
                                  O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (descriptor < 0)
        return std::nullopt;
    std::optional<qint64> holder;
    struct flock range = wholeFile();
    if (::fcntl(descriptor, F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK)
        holder = readProcessId(descriptor);
    ::close(descriptor);
    return holder;
}
