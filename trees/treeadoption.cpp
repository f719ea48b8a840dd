#include "trees/treeadoption.h"

#include "client/base/checks.h"
#include "trees/treeowner.h"
#include "trees/uniquefd.h"

#include <QByteArray>
#include <QFile>
#include <QVector>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tulo {

namespace {

using Status = AdoptionResult::Status;

constexpr char markName[] = ".tulo-cm.owner";
constexpr char newMarkName[] = ".tulo-cm.owner.new";

/// The numbers that one image gave to the user.
struct Numbers
{
    uid_t user = 0;
    gid_t group = 0;

    bool operator==(const Numbers& other) const
    {
        return user == other.user && group == other.group;
    }
};

QString systemText()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

bool hasUser(const QVector<Numbers>& all, uid_t user)
{
    return std::any_of(all.cbegin(), all.cend(),
                       [user](const Numbers& numbers) { return numbers.user == user; });
}

// ---------------------------------------------------------------------------------------------
// The mark: the user's name, and the numbers that the tree may belong to, "998:998 997:997".
// ---------------------------------------------------------------------------------------------

struct Mark
{
    QVector<Numbers> numbers;
    bool isOfRoot = false; ///< nobody else can have made it
};

QByteArray textOf(const QByteArray& user, const QVector<Numbers>& all)
{
    QByteArray text = user;
    for (const Numbers& numbers : all)
        text += ' ' + QByteArray::number(numbers.user) + ':' + QByteArray::number(numbers.group);
    return text + '\n';
}

// Empty when it is not the text of a mark for this user.
QVector<Numbers> numbersOf(const QByteArray& text, const QByteArray& user)
{
    QVector<Numbers> all;
    const QList<QByteArray> words = text.trimmed().split(' ');
    for (const QByteArray& word : words.mid(1)) {
        const QList<QByteArray> pair = word.split(':');
        all.append({ pair.first().toUInt(), pair.last().toUInt() });
    }
    return textOf(user, all) == text ? all : QVector<Numbers>();
}

Mark readMark(int tree, const QByteArray& user)
{
    constexpr qint64 maximumMarkBytes = 4096;
    const UniqueFd file(
        ::openat(tree, markName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat opened = {};
    QFile reader;
    if (!file || ::fstat(file.get(), &opened) != 0 || !S_ISREG(opened.st_mode)
        || !reader.open(file.get(), QIODevice::ReadOnly | QIODevice::Unbuffered))
        return {};
    return { numbersOf(reader.read(maximumMarkBytes), user),
             opened.st_uid == 0 && opened.st_nlink == 1 };
}

// False, and errno, when it is not on the disk.
bool writeMark(int tree, const QByteArray& user, const QVector<Numbers>& numbers)
{
    constexpr mode_t ownerOnly = 0600;
    const QByteArray text = textOf(user, numbers);
    // One that was interrupted. It may have been given away since, so another process may have it
    // open: that file must not become the mark.
    (void)::unlinkat(tree, newMarkName, 0);
    const UniqueFd file(::openat(tree, newMarkName,
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, ownerOnly));
    return file && ::write(file.get(), text.constData(), size_t(text.size())) == text.size()
        && ::fsync(file.get()) == 0 && ::renameat(tree, newMarkName, tree, markName) == 0
        && ::fsync(tree) == 0;
}

// ---------------------------------------------------------------------------------------------
// The tree.
// ---------------------------------------------------------------------------------------------

/// Gives what belongs to old numbers to the user.
class Handover
{
public:
    Handover(const QVector<Numbers>& old, const Numbers& own)
        : m_old(old)
        , m_own(own)
    {
    }

    /// Everything in the directory, but not itself. False, and message(), when that failed.
    bool giveContent(int directory, const QByteArray& name = QByteArray(), int depth = 0);
    /// The file itself.
    bool give(int file, const struct statx& found, const QByteArray& name);

    int count() const { return m_count; }
    QString message() const { return m_message; }

private:
    bool giveEntry(int directory, const QByteArray& entryName, const QByteArray& path, int depth);
    bool fail(const char* what, const QByteArray& name);

    const QVector<Numbers> m_old;
    const Numbers m_own;
    int m_count = 0;
    QString m_message;
};

bool examine(int file, struct statx* found)
{
    return ::statx(file, "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, found) == 0;
}

// Device numbers tell only where the kernel does not: on an overlay those of files differ from
// those of their directories.
bool isMount(const struct statx& found, const struct statx& above)
{
    if ((found.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0)
        return (found.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    return found.stx_dev_major != above.stx_dev_major || found.stx_dev_minor != above.stx_dev_minor;
}

bool Handover::fail(const char* what, const QByteArray& name)
{
    m_message = QStringLiteral("cannot %1 '%2': %3")
                    .arg(QLatin1String(what),
                         name.isEmpty() ? QStringLiteral(".") : shownPath(QFile::decodeName(name)),
                         systemText());
    return false;
}

bool Handover::give(int file, const struct statx& found, const QByteArray& name)
{
    const bool isOwn = found.stx_uid == m_own.user;
    const bool isOldGroup = found.stx_gid != m_own.group
        && std::any_of(m_old.cbegin(), m_old.cend(),
                       [&found](const Numbers& numbers) { return numbers.group == found.stx_gid; });
    if (isOwn ? !isOldGroup : !hasUser(m_old, found.stx_uid))
        return true;
    const bool isFile = S_ISREG(found.stx_mode) && found.stx_nlink == 1;
    if (!isFile && !S_ISDIR(found.stx_mode) && !S_ISLNK(found.stx_mode))
        return true;
    constexpr auto sameGroup = gid_t(-1);
    if (::fchownat(file, "", m_own.user, isOldGroup ? m_own.group : sameGroup,
                   AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW)
        != 0)
        return fail("change the owner of", name);
    ++m_count;
    return true;
}

bool Handover::giveEntry(int directory, const QByteArray& entryName, const QByteArray& path,
                         int depth)
{
    const UniqueFd file(
        ::openat(directory, entryName.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct statx above = {};
    struct statx found = {};
    // Gone meanwhile.
    if (!file && errno == ENOENT)
        return true;
    if (!file || !examine(file.get(), &found) || !examine(directory, &above))
        return fail("examine", path);
    if (isMount(found, above))
        return true;
    // Deeper than any setting is nothing of ours.
    const bool isEntered = S_ISDIR(found.stx_mode) && depth < maximumLevels;
    return (!isEntered || giveContent(file.get(), path, depth + 1))
        && give(file.get(), found, path);
}

bool Handover::giveContent(int directory, const QByteArray& name, int depth)
{
    // Closed with the stream.
    const int descriptor = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(
        descriptor < 0 ? nullptr : ::fdopendir(descriptor), ::closedir);
    if (!stream)
        return fail("open", name);
    for (;;) {
        errno = 0;
        const struct dirent* const entry = ::readdir(stream.get());
        if (entry == nullptr)
            return errno == 0 || fail("list", name);
        const QByteArray entryName(entry->d_name);
        if (entryName == "." || entryName == "..")
            continue;
        const QByteArray path = name.isEmpty() ? entryName : name + '/' + entryName;
        if (!giveEntry(directory, entryName, path, depth))
            return false;
    }
}

AdoptionResult failed(const QString& writePath, const QString& reason)
{
    return { Status::Failed,
             QStringLiteral("the owner of the writable tree '%1' cannot be corrected: %2")
                 .arg(writePath, reason) };
}

AdoptionResult foreign(const QString& writePath, uid_t owner, const QString& user)
{
    return { Status::Foreign,
             QStringLiteral("the writable tree '%1' belongs to user '%2' and stays so; to give it "
                            "to '%3': chown -R %3: %1")
                 .arg(writePath, userName(owner), user) };
}

// The tree that is open as `tree`, of which the mark lists `marked`.
AdoptionResult handOver(const QString& writePath, int tree, const QByteArray& user,
                        const QVector<Numbers>& marked, const Numbers& own)
{
    if (::flock(tree, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK)
        return failed(writePath, QStringLiteral("another process is using it"));
    // An image that comes back before the end finds both numbers. On a full disk that has to do
    // without: this image goes on by the old one.
    QVector<Numbers> either = marked;
    if (!either.contains(own))
        either.append(own);
    if (either != marked && !writeMark(tree, user, either) && errno != ENOSPC && errno != EDQUOT)
        return failed(
            writePath,
            QStringLiteral("cannot write '%1': %2").arg(QLatin1String(markName), systemText()));

    Handover handover(marked, own);
    struct statx top = {};
    if (!handover.giveContent(tree))
        return failed(writePath, handover.message());
    if (::syncfs(tree) != 0 || !examine(tree, &top))
        return failed(writePath, systemText());
    if (!handover.give(tree, top, QByteArray()))
        return failed(writePath, handover.message());
    if (::fsync(tree) != 0)
        return failed(writePath, systemText());
    QString message = QStringLiteral("the writable tree '%1' is user %2's again, whose number is "
                                     "%3 now: %4 files and directories")
                          .arg(writePath, QString::fromLocal8Bit(user))
                          .arg(own.user)
                          .arg(handover.count());
    if (!writeMark(tree, user, { own })) {
        message +=
            QStringLiteral("; cannot write '%1': %2").arg(QLatin1String(markName), systemText());
    }
    return { Status::Done, message };
}

} // namespace

AdoptionResult adoptTree(const QString& writePath, const QString& user)
{
    // The mark of another user would not be believed.
    if (::geteuid() != 0)
        return failed(writePath, QStringLiteral("only root can do that"));
    const QByteArray name = user.toLocal8Bit();
    const struct passwd* const entry = ::getpwnam(name.constData());
    if (entry == nullptr || entry->pw_uid == 0)
        return failed(writePath, QStringLiteral("'%1' is not a user who can own it").arg(user));
    const Numbers own { entry->pw_uid, entry->pw_gid };
    const UniqueFd tree(::open(QFile::encodeName(writePath).constData(),
                               O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
    if (!tree && errno == ENOENT)
        return {};
    struct stat top = {};
    if (!tree || ::fstat(tree.get(), &top) != 0)
        return failed(writePath, systemText());

    const Mark mark = readMark(tree.get(), name);
    const bool isOwn = top.st_uid == own.user;
    if (isOwn && mark.isOfRoot && mark.numbers == QVector<Numbers> { own })
        return {};
    const QVector<Numbers> marked = mark.isOfRoot ? mark.numbers : QVector<Numbers>();
    if (!isOwn && !hasUser(marked, top.st_uid))
        return foreign(writePath, top.st_uid, user);
    if (!marked.isEmpty())
        return handOver(writePath, tree.get(), name, marked, own);
    // What is read-only today is marked another time.
    if (!writeMark(tree.get(), name, { own }) && errno != EROFS) {
        return failed(writePath,
                      QStringLiteral("cannot write '%1', by which an image with another "
                                     "number of '%2' knows it: %3")
                          .arg(QLatin1String(markName), user, systemText()));
    }
    return {};
}

} // namespace tulo
