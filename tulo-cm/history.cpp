#include "tulo-cm/history.h"

#include "tulo-cm/textinput.h"

#include "trees/treeowner.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tulo {
namespace {

constexpr int maximumLines = 1000;
// A file of this size was not written by us.
constexpr int maximumBytes = 64 * 1024 * 1024;

QString systemError(const QString& fileName)
{
    return QStringLiteral("'%1': %2").arg(fileName, qt_error_string(errno));
}

void insert(QStringList* lines, const QString& line)
{
    lines->removeAll(line);
    lines->append(line);
    while (lines->size() > maximumLines)
        lines->removeFirst();
}

// ---------------------------------------------------------------------------------------------
// Opening. Nothing is created in, or taken from, a directory of another user: with sudo the home
// directory may be one. Each function returns why there is no history; an empty text when it is
// done.
// ---------------------------------------------------------------------------------------------

struct Directory
{
    UniqueFd descriptor;
    QString name;
};

QString checkOwner(const struct stat& status, const QString& name)
{
    return status.st_uid == ::geteuid()
        ? QString()
        : QStringLiteral("'%1' belongs to user '%2'").arg(name, userName(status.st_uid));
}

// Takes the rights of others away.
QString makePrivate(int descriptor, const struct stat& status, const QString& name)
{
    constexpr mode_t rightsOfOthers = S_IRWXG | S_IRWXO;
    QString reason = checkOwner(status, name);
    const bool isNarrow = (status.st_mode & rightsOfOthers) == 0;
    if (!reason.isEmpty() || isNarrow || ::fchmod(descriptor, status.st_mode & S_IRWXU) == 0)
        return reason;
    return systemError(name);
}

// Goes to a directory in this one, which is created where it is missing.
QString enter(Directory* directory, const char* name, int flags)
{
    const int parent = directory->descriptor.get();
    struct stat status = {};
    if (::fstat(parent, &status) != 0)
        return systemError(directory->name);
    QString reason = checkOwner(status, directory->name);
    if (!reason.isEmpty())
        return reason;
    directory->name += QLatin1Char('/') + QLatin1String(name);
    if (::mkdirat(parent, name, S_IRWXU) != 0 && errno != EEXIST)
        return systemError(directory->name);
    UniqueFd entered(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags));
    if (!entered)
        return systemError(directory->name);
    directory->descriptor = std::move(entered);
    return QString();
}

QString openStateDirectory(Directory* directory)
{
    // A relative name is to be ignored.
    const QString state = qEnvironmentVariable("XDG_STATE_HOME");
    const bool isNamed = state.startsWith(QLatin1Char('/'));
    directory->name = isNamed ? state : qEnvironmentVariable("HOME");
    const QByteArray name = QFile::encodeName(directory->name);
    if (name.isEmpty())
        return QStringLiteral("neither HOME nor XDG_STATE_HOME is set");
    if (isNamed)
        (void)::mkdir(name.constData(), S_IRWXU);
    directory->descriptor = UniqueFd(::open(name.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory->descriptor)
        return systemError(directory->name);
    QString reason;
    for (const char* const step : { ".local", "state" }) {
        if (!isNamed && reason.isEmpty())
            reason = enter(directory, step, 0);
    }
    return reason;
}

QString openFile(UniqueFd* file)
{
    Directory directory;
    QString reason = openStateDirectory(&directory);
    if (reason.isEmpty())
        reason = enter(&directory, "tulo-cm", O_NOFOLLOW);
    if (!reason.isEmpty())
        return reason;
    const int parent = directory.descriptor.get();
    struct stat status = {};
    if (::fstat(parent, &status) != 0)
        return systemError(directory.name);
    reason = makePrivate(parent, status, directory.name);
    if (!reason.isEmpty())
        return reason;
    const QString name = directory.name + QLatin1String("/history");
    // Opening something else, a pipe for example, must not wait.
    UniqueFd opened(::openat(parent, "history",
                             O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                             S_IRUSR | S_IWUSR));
    if (!opened || ::fstat(opened.get(), &status) != 0)
        return systemError(name);
    if (!S_ISREG(status.st_mode) || status.st_nlink > 1)
        return QStringLiteral("'%1' is not a file by itself").arg(name);
    reason = makePrivate(opened.get(), status, name);
    if (reason.isEmpty())
        *file = std::move(opened);
    return reason;
}

// ---------------------------------------------------------------------------------------------
// Content: a line each. Read and written while no other shell does.
// ---------------------------------------------------------------------------------------------

class Lock
{
public:
    explicit Lock(int descriptor)
        : m_descriptor(descriptor)
    {
        while (::flock(descriptor, LOCK_EX) != 0 && errno == EINTR) { }
    }
    ~Lock() { ::flock(m_descriptor, LOCK_UN); }
    Q_DISABLE_COPY(Lock)

private:
    const int m_descriptor;
};

std::optional<QByteArray> read(int descriptor)
{
    struct stat status = {};
    if (::fstat(descriptor, &status) != 0)
        return std::nullopt;
    if (status.st_size > maximumBytes) {
        errno = EFBIG;
        return std::nullopt;
    }
    QByteArray content(int(status.st_size), 0);
    const ssize_t count = ::pread(descriptor, content.data(), size_t(content.size()), 0);
    if (count < 0)
        return std::nullopt;
    content.truncate(int(count));
    return content;
}

QStringList linesOf(const QByteArray& content)
{
    QStringList lines;
    for (const QByteArray& bytes : content.split('\n')) {
        QString error;
        const auto line = decode(bytes, QString(), &error);
        if (line && !line->isEmpty())
            insert(&lines, *line);
    }
    return lines;
}

bool writeAt(int descriptor, const QByteArray& bytes, qint64 offset)
{
    int written = 0;
    while (written < bytes.size()) {
        const ssize_t count = ::pwrite(descriptor, bytes.constData() + written,
                                       size_t(bytes.size() - written), offset + written);
        if (count < 0 && errno != EINTR)
            return false;
        written += int(std::max<ssize_t>(count, 0));
    }
    return true;
}

// Writes no more than what differs from `before`, usually the new line at the end.
bool replace(int descriptor, const QByteArray& before, const QByteArray& content)
{
    const int least = std::min(before.size(), content.size());
    int same = 0;
    while (same < least && before.at(same) == content.at(same))
        ++same;
    if (writeAt(descriptor, content.mid(same), same)
        && ::ftruncate(descriptor, content.size()) == 0)
        return true;
    // The disk is full, for example. What was there fits.
    const int error = errno;
    (void)writeAt(descriptor, before.mid(same), same);
    (void)!::ftruncate(descriptor, before.size());
    errno = error;
    return false;
}

// Each returns false with errno.

bool readLines(int descriptor, QStringList* lines)
{
    const Lock lock(descriptor);
    const std::optional<QByteArray> content = read(descriptor);
    if (content)
        *lines = linesOf(*content);
    return content.has_value();
}

bool addLine(int descriptor, const QString& line)
{
    const Lock lock(descriptor);
    const std::optional<QByteArray> before = read(descriptor);
    if (!before)
        return false;
    // With the lines that other shells have added.
    QStringList lines = linesOf(*before);
    insert(&lines, line);
    return replace(descriptor, *before, lines.join(QLatin1Char('\n')).toUtf8() + '\n');
}

} // namespace

QString History::open()
{
    QString reason = openFile(&m_file);
    if (reason.isEmpty() && !readLines(m_file.get(), &m_lines)) {
        reason = qt_error_string(errno);
        m_file.reset();
    }
    return reason;
}

QString History::add(const QString& line, Keep keep)
{
    insert(&m_lines, line);
    if (keep == Keep::Here || !m_file || addLine(m_file.get(), line))
        return QString();
    QString reason = qt_error_string(errno);
    m_file.reset();
    return reason;
}

} // namespace tulo
