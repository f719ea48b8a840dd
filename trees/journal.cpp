#include "trees/journal.h"

#include "client/base/checks.h"
#include "trees/fileprobe.h"
#include "trees/separator.h"
#include "trees/uniquefd.h"

#include "api/core/tulojson.h"

#include <QCryptographicHash>
#include <QFile>
#include <QMap>
#include <QSet>
#include <QVariant>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace tulo {

namespace {

constexpr char journalName[] = ".tulo-cm.journal";
/// Not decided upon yet: reused by the next one.
constexpr char newJournalName[] = ".tulo-cm.journal.new";
const QLatin1String recordPrefix(".tulo-cm.");
/// The first line is this, the format's number, and the SHA-256 of everything behind that line.
constexpr char magic[] = "tulo-journal";
constexpr char format[] = "1";
constexpr mode_t allPermissions = S_IRWXU | S_IRWXG | S_IRWXO;
constexpr int maximumJournalBytes = 64 * 1024 * 1024;

const QLatin1String pathKey("path");
const QLatin1String recordKey("record");
const QLatin1String contentKey("content");
const QLatin1String beforeKey("before");
const QLatin1String permissionsKey("permissions");

using Status = JournalResult::Status;

/// One file of the tree.
struct Entry
{
    QByteArray directory; ///< below the tree, such as "audio/presets"; empty for the tree
    QByteArray name;
    std::optional<QByteArray> content;
    mode_t mode = 0;
    std::optional<mode_t> permissions = std::nullopt;
    /// Digest of the file that the change was made for. Not set: it replaces whatever is there.
    std::optional<QByteArray> before = std::nullopt;

    QByteArray temporaryName() const { return '.' + name; }
};

using Entries = QVector<Entry>;

QString systemText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// "cannot write 'audio/volume': No space left on device", with the error of the last call.
QString failed(const char* what, const QByteArray& directory, const QByteArray& name = QByteArray())
{
    const int error = errno;
    const QByteArray file =
        directory.isEmpty() || name.isEmpty() ? directory + name : directory + '/' + name;
    return QStringLiteral("cannot %1 '%2' in the writable tree: %3")
        .arg(QLatin1String(what), file.isEmpty() ? QStringLiteral(".") : QFile::decodeName(file),
             systemText(error));
}

QString inTheWay(const Entry& entry, const char* what)
{
    const QByteArray directory = entry.directory.isEmpty() ? QByteArray() : entry.directory + '/';
    return QStringLiteral("%1 in the writable tree is in the way of '%2'")
        .arg(QLatin1String(what), QFile::decodeName(directory + entry.name));
}

// ---------------------------------------------------------------------------------------------
// Names. Those of a journal are checked like those of a caller: it cannot name a file outside the
// tree, nor a hidden one.
// ---------------------------------------------------------------------------------------------

bool isSettingPath(const QString& path)
{
    // Setting paths are checked as clients name them, below a mount.
    return path.startsWith(separator) && !checkPath(QStringLiteral("/settings") + path);
}

bool isRecordName(const QString& name)
{
    return name.startsWith(recordPrefix) && name.size() > recordPrefix.size()
        && !name.contains(separator) && !name.contains(QChar::Null)
        && name.toUtf8().size() <= maximumNameBytes && name != QLatin1String(journalName)
        && name != QLatin1String(newJournalName) && name != QLatin1String(".tulo-cm.lock");
}

Entry settingEntry(const QString& path, const std::optional<QByteArray>& content)
{
    constexpr mode_t settingMode = 0666;
    const int last = path.lastIndexOf(separator);
    return { QFile::encodeName(path.mid(1, qMax(last - 1, 0))),
             QFile::encodeName(path.mid(last + 1)), content, settingMode };
}

Entry recordEntry(const QString& name, const std::optional<QByteArray>& content)
{
    constexpr mode_t ownerOnly = 0600;
    return { QByteArray(), QFile::encodeName(name), content, ownerOnly };
}

// ---------------------------------------------------------------------------------------------
// The journal's text: a first line, and one JSON object a line for each file.
// ---------------------------------------------------------------------------------------------

QByteArray digestOf(const QByteArray& content)
{
    return QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex();
}

QByteArray firstLine(const QByteArray& body)
{
    return QByteArray(magic) + ' ' + format + ' ' + digestOf(body) + '\n';
}

QByteArray lineOf(QLatin1String key, const QString& name, const Entry& entry)
{
    QVariantHash object { { key, name } };
    if (entry.content)
        object.insert(contentKey, QString::fromUtf8(*entry.content));
    if (entry.before)
        object.insert(beforeKey, QString::fromLatin1(*entry.before));
    if (entry.permissions)
        object.insert(permissionsKey, qint64(*entry.permissions));
    return TuloJson::serialize(object) + '\n';
}

std::optional<Entry> entryOf(const QByteArray& line)
{
    TuloError error;
    const QVariantHash object = TuloJson::parse(line, error, nullptr).toHash();
    if (!error.isEmpty())
        return std::nullopt;
    std::optional<QByteArray> content;
    if (object.contains(contentKey))
        content = object.value(contentKey).toString().toUtf8();
    const QString path = object.value(pathKey).toString();
    const QString record = object.value(recordKey).toString();
    if (isSettingPath(path)) {
        Entry entry = settingEntry(path, content);
        if (object.contains(beforeKey))
            entry.before = object.value(beforeKey).toString().toLatin1();
        if (object.contains(permissionsKey))
            entry.permissions = object.value(permissionsKey).toUInt() & allPermissions;
        return entry;
    }
    if (content && isRecordName(record))
        return recordEntry(record, *content);
    return std::nullopt;
}

// Nothing when it is not a whole journal of this format.
std::optional<Entries> entriesOf(const QByteArray& text)
{
    const int lineEnd = text.indexOf('\n');
    const QByteArray body = text.mid(lineEnd + 1);
    if (lineEnd < 0 || text.left(lineEnd + 1) != firstLine(body))
        return std::nullopt;
    Entries entries;
    QList<QByteArray> lines = body.split('\n');
    // Behind the last line's end.
    lines.removeLast();
    for (const QByteArray& line : qAsConst(lines)) {
        const std::optional<Entry> entry = entryOf(line);
        if (!entry)
            return std::nullopt;
        entries.append(*entry);
    }
    return entries;
}

// ---------------------------------------------------------------------------------------------
// Files and directories below the tree. No link is followed.
// ---------------------------------------------------------------------------------------------

// Made where it is missing, if `isMade`. Invalid, and errno, when it cannot be opened.
UniqueFd openDirectory(int tree, const QByteArray& directory, bool isMade)
{
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    UniqueFd opened(::openat(tree, ".", flags));
    if (directory.isEmpty())
        return opened;
    const QList<QByteArray> names = directory.split('/');
    for (const QByteArray& name : names) {
        // As QDir::mkpath() does.
        constexpr mode_t mode = 0777;
        if (opened && isMade && ::mkdirat(opened.get(), name.constData(), mode) != 0
            && errno != EEXIST)
            return UniqueFd();
        if (opened)
            opened = UniqueFd(::openat(opened.get(), name.constData(), flags));
    }
    return opened;
}

QString syncDirectory(int tree, const QByteArray& directory)
{
    const UniqueFd opened = openDirectory(tree, directory, false);
    // Some file systems sync no directory.
    if (!opened || (::fsync(opened.get()) != 0 && errno != EINVAL))
        return failed("sync", directory);
    return QString();
}

// Of the file of an entry as it is now; of one that is too large for a setting, of its beginning.
// Empty when there is none, nothing when it cannot be read.
std::optional<QByteArray> digestThere(int tree, const Entry& entry)
{
    const UniqueFd directory = openDirectory(tree, entry.directory, false);
    UniqueFd file;
    if (directory) {
        file = UniqueFd(::openat(directory.get(), entry.name.constData(),
                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    }
    if (!file)
        return errno == ENOENT ? std::make_optional(QByteArray()) : std::nullopt;
    struct stat opened = {};
    QFile reader;
    if (::fstat(file.get(), &opened) != 0 || !S_ISREG(opened.st_mode)
        || !reader.open(file.get(), QIODevice::ReadOnly | QIODevice::Unbuffered))
        return std::nullopt;
    const QByteArray content = reader.read(FileProbe::maximumFileBytes + 1);
    return reader.error() == QFileDevice::NoError ? std::make_optional(digestOf(content))
                                                  : std::nullopt;
}

// What is in the way of writing or removing a file of this name. Sets `freed` to the bytes that go
// with the one that is there.
QString checkPlace(int directory, const Entry& entry, qint64* freed)
{
    struct stat file = {};
    if (::fstatat(directory, entry.name.constData(), &file, AT_SYMLINK_NOFOLLOW) == 0) {
        if (!S_ISREG(file.st_mode))
            return inTheWay(entry, "What is not a regular file");
        constexpr qint64 blockBytes = 512;
        *freed = qint64(file.st_blocks) * blockBytes;
    } else if (errno != ENOENT) {
        return failed("examine", entry.directory, entry.name);
    }
    const QByteArray temporary = entry.temporaryName();
    if (!entry.content)
        return QString();
    if (::fstatat(directory, temporary.constData(), &file, AT_SYMLINK_NOFOLLOW) == 0) {
        // What is written to it would land in another file.
        if (!S_ISREG(file.st_mode) || file.st_nlink > 1)
            return inTheWay(entry, "A temporary file that is a link or not a regular file");
    } else if (errno != ENOENT) {
        return failed("examine", entry.directory, temporary);
    }
    return QString();
}

bool writeAll(int file, const QByteArray& content)
{
    const char* next = content.constData();
    auto left = size_t(content.size());
    while (left > 0) {
        const ssize_t written = ::write(file, next, left);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        next += written;
        left -= size_t(written);
    }
    return true;
}

// Reuses the file when it is there. False, and errno, when it does not hold `content` on the disk.
bool writeNew(int directory, const QByteArray& name, const QByteArray& content, mode_t mode,
              std::optional<mode_t> permissions = std::nullopt)
{
    UniqueFd file(::openat(directory, name.constData(),
                           O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                           mode));
    struct stat opened = {};
    if (!file || ::fstat(file.get(), &opened) != 0)
        return false;
    if (!S_ISREG(opened.st_mode) || opened.st_nlink != 1) {
        errno = EEXIST;
        return false;
    }
    // It may be another user's file, left by an interruption: then the content is what counts.
    if (permissions)
        (void)::fchmod(file.get(), *permissions);
    return ::ftruncate(file.get(), 0) == 0 && writeAll(file.get(), content)
        && ::fsync(file.get()) == 0;
}

// As the worker does.
QString writeFile(int directory, const Entry& entry)
{
    const QByteArray temporary = entry.temporaryName();
    qint64 freed = 0;
    QString error = checkPlace(directory, entry, &freed);
    if (!error.isEmpty())
        return error;
    if (!writeNew(directory, temporary, *entry.content, entry.mode, entry.permissions)
        || ::renameat(directory, temporary.constData(), directory, entry.name.constData()) != 0) {
        QString reason = failed("write", entry.directory, entry.name);
        ::unlinkat(directory, temporary.constData(), 0);
        return reason;
    }
    return QString();
}

QString removeFile(int directory, const Entry& entry)
{
    qint64 freed = 0;
    QString error = checkPlace(directory, entry, &freed);
    if (!error.isEmpty())
        return error;
    if (::unlinkat(directory, entry.name.constData(), 0) != 0 && errno != ENOENT)
        return failed("remove", entry.directory, entry.name);
    return QString();
}

// ---------------------------------------------------------------------------------------------
// Making the changes of a journal. Can be interrupted and begun again any number of times.
// ---------------------------------------------------------------------------------------------

// Calls `change` for each of `entries`, whose directories follow one another.
QString changeFiles(int tree, const Entries& entries, QString (*change)(int, const Entry&))
{
    UniqueFd directory;
    QByteArray opened;
    for (const Entry& entry : entries) {
        if (!directory || entry.directory != opened) {
            directory = openDirectory(tree, entry.directory, entry.content.has_value());
            opened = entry.directory;
        }
        // A file in a directory that does not exist is removed already.
        if (!directory && !entry.content && errno == ENOENT)
            continue;
        if (!directory)
            return failed("open", entry.directory);
        QString error = change(directory.get(), entry);
        if (!error.isEmpty())
            return error;
    }
    return QString();
}

QString syncDirectories(int tree, const QSet<QByteArray>& directories)
{
    for (const QByteArray& directory : directories) {
        QString error = syncDirectory(tree, directory);
        if (!error.isEmpty())
            return error;
    }
    return QString();
}

// An interrupted attempt may have made any of the directories that lead to a file, so that one
// that is there need not be on the disk.
void insertAllAbove(QByteArray directory, QSet<QByteArray>* directories)
{
    directories->insert(directory);
    while (!directory.isEmpty()) {
        directory.truncate(qMax(directory.lastIndexOf('/'), 0));
        directories->insert(directory);
    }
}

QString write(int tree, const Entries& entries)
{
    QSet<QByteArray> directories;
    for (const Entry& entry : entries)
        insertAllAbove(entry.directory, &directories);
    const QString error = changeFiles(tree, entries, writeFile);
    return error.isEmpty() ? syncDirectories(tree, directories) : error;
}

// Those of `entries` that exist.
QSet<QByteArray> directoriesOf(int tree, const Entries& entries)
{
    QSet<QByteArray> directories;
    for (const Entry& entry : entries) {
        if (!directories.contains(entry.directory) && openDirectory(tree, entry.directory, false))
            directories.insert(entry.directory);
    }
    return directories;
}

QString remove(int tree, const Entries& entries)
{
    const QString error = changeFiles(tree, entries, removeFile);
    return error.isEmpty() ? syncDirectories(tree, directoriesOf(tree, entries)) : error;
}

JournalResult unfinished(const QString& reason)
{
    return { Status::Unfinished,
             QStringLiteral("a change of several files has begun and is finished when the tree "
                            "is opened for changes the next time: ")
                 + reason };
}

// What the journal in the tree says, which is on the disk.
JournalResult finish(int tree, const Entries& entries)
{
    QMap<QByteArray, Entries> entriesByDirectory;
    for (const Entry& entry : entries)
        entriesByDirectory[entry.directory].append(entry);
    Entries written;
    Entries removed;
    for (const Entries& inDirectory : qAsConst(entriesByDirectory)) {
        for (const Entry& entry : inDirectory)
            (entry.content ? written : removed).append(entry);
    }
    // First, so that the value of a setting that moves is always in one of its places.
    QString error = write(tree, written);
    if (error.isEmpty())
        error = remove(tree, removed);
    if (error.isEmpty() && ::unlinkat(tree, journalName, 0) != 0)
        error = failed("remove", journalName);
    // Or it could come back, and with it the values of today.
    if (error.isEmpty())
        error = syncDirectory(tree, QByteArray());
    return error.isEmpty() ? JournalResult() : unfinished(error);
}

// ---------------------------------------------------------------------------------------------
// Deciding: everything that can be wrong is found before the journal gets its name.
// ---------------------------------------------------------------------------------------------

bool isUtf8(const QByteArray& text)
{
    return QString::fromUtf8(text).toUtf8() == text;
}

QString checkChanges(const QVector<FileChange>& changes, const QHash<QString, QByteArray>& records)
{
    QSet<QString> paths;
    for (const FileChange& change : changes) {
        const QString shown = shownPath(change.settingPath);
        if (!isSettingPath(change.settingPath))
            return QStringLiteral("'%1' cannot be the path of a setting").arg(shown);
        if (paths.contains(change.settingPath))
            return QStringLiteral("'%1' is changed twice").arg(shown);
        if (change.content && !isUtf8(*change.content))
            return QStringLiteral("what is to be written for '%1' is not UTF-8").arg(shown);
        paths.insert(change.settingPath);
    }
    for (auto record = records.cbegin(); record != records.cend(); ++record) {
        if (!isRecordName(record.key()) || !isUtf8(*record))
            return QStringLiteral("'%1' cannot be a record").arg(shownPath(record.key()));
    }
    return QString();
}

// The bytes and files that the change takes up beside what it frees, and never gives back before.
struct Need
{
    qint64 bytes = 0;
    qint64 files = 0;
};

// What is in the way of the change of one file.
QString checkEntry(int tree, const Entry& entry, qint64 blockBytes, Need* need)
{
    const auto blocks = [blockBytes](qint64 bytes) {
        return (bytes + blockBytes - 1) / blockBytes * blockBytes;
    };
    qint64 freed = 0;
    const UniqueFd directory = openDirectory(tree, entry.directory, false);
    if (directory) {
        QString error = checkPlace(directory.get(), entry, &freed);
        if (!error.isEmpty())
            return error;
    } else if (errno == ELOOP || errno == ENOTDIR) {
        return inTheWay(entry, "A link or a file");
    } else if (errno != ENOENT) {
        return failed("open", entry.directory);
    }
    if (!entry.content)
        return QString();
    need->bytes += qMax(blocks(entry.content->size()) - freed, qint64(0));
    if (freed == 0)
        ++need->files;
    // One block for each directory that is made, at least.
    if (!directory)
        need->bytes += blockBytes;
    return QString();
}

QString checkPlaces(int tree, const Entries& entries, qint64 blockBytes, Need* need)
{
    for (const Entry& entry : entries) {
        QString error = checkEntry(tree, entry, blockBytes, need);
        if (!error.isEmpty())
            return error;
    }
    return QString();
}

// Most of the bytes are needed after the journal got its name, when there is no way back.
QString checkRoom(const struct statvfs& fileSystem, qint64 blockBytes, const Need& need)
{
    const bool isRoot = ::geteuid() == 0;
    const auto blocks = qint64(isRoot ? fileSystem.f_bfree : fileSystem.f_bavail);
    const auto files = qint64(isRoot ? fileSystem.f_ffree : fileSystem.f_favail);
    // Not every file system counts them.
    if (fileSystem.f_blocks > 0 && blocks * blockBytes < need.bytes) {
        return QStringLiteral("the file system of the writable tree has no room for %1 bytes")
            .arg(need.bytes);
    }
    if (fileSystem.f_files > 0 && files < need.files) {
        return QStringLiteral("the file system of the writable tree has no room for %1 files")
            .arg(need.files);
    }
    return QString();
}

bool isOfOwner(int tree, const struct stat& file)
{
    struct stat directory = {};
    return ::fstat(tree, &directory) == 0
        && (file.st_uid == ::geteuid() || file.st_uid == directory.st_uid);
}

// What a power cut left of an uncommitted journal is a part of it, or as many zeros.
bool mayBeJournal(int file)
{
    char begin[sizeof magic - 1] = {};
    const ssize_t count = ::pread(file, begin, sizeof begin, 0);
    const char zeros[sizeof begin] = {};
    return count >= 0
        && (std::memcmp(begin, magic, size_t(count)) == 0
            || std::memcmp(begin, zeros, size_t(count)) == 0);
}

// Nothing but what an interrupted commit left is written over.
QString checkNewJournal(int tree)
{
    const UniqueFd file(
        ::openat(tree, newJournalName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file && errno == ENOENT)
        return QString();
    struct stat opened = {};
    if (!file || ::fstat(file.get(), &opened) != 0 || !S_ISREG(opened.st_mode)
        || opened.st_nlink != 1 || !isOfOwner(tree, opened) || !mayBeJournal(file.get())) {
        return QStringLiteral("the file '%1' in the writable tree is in the way; move it "
                              "elsewhere")
            .arg(QLatin1String(newJournalName));
    }
    return QString();
}

QString checkJournal(int tree)
{
    struct stat file = {};
    if (::fstatat(tree, journalName, &file, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT)
        return QString();
    return QStringLiteral("there is a file '%1' in the writable tree that is not finished; see "
                          "what it holds and move it elsewhere")
        .arg(QLatin1String(journalName));
}

JournalResult refused(const QString& reason)
{
    return { Status::Refused, reason };
}

// Done when the journal is on the disk.
JournalResult writeJournal(int tree, const QByteArray& text, const Entries& entries)
{
    constexpr mode_t ownerOnly = 0600;
    QString error;
    bool hasNoRoom = false;
    if (!writeNew(tree, newJournalName, text, ownerOnly)) {
        hasNoRoom = errno == ENOSPC || errno == EDQUOT;
        error = failed("write", journalName);
    }
    // After a power cut, too, the files have to be those that the journal is about.
    if (error.isEmpty())
        error = syncDirectories(tree, directoriesOf(tree, entries));
    if (error.isEmpty() && ::renameat(tree, newJournalName, tree, journalName) != 0)
        error = failed("write", journalName);
    if (!error.isEmpty()) {
        ::unlinkat(tree, newJournalName, 0);
        return { Status::Refused, error, hasNoRoom };
    }
    error = syncDirectory(tree, QByteArray());
    if (error.isEmpty())
        return {};
    // Nobody knows whether it would be there after a power cut, so it must not.
    if (::unlinkat(tree, journalName, 0) != 0)
        return unfinished(error);
    if (!syncDirectory(tree, QByteArray()).isEmpty())
        error += QStringLiteral("; after a power cut the change may be made");
    return refused(error);
}

} // namespace

JournalResult commitChanges(int directory, const QVector<FileChange>& changes,
                            const QHash<QString, QByteArray>& records)
{
    if (changes.isEmpty() && records.isEmpty())
        return {};
    QString error = checkChanges(changes, records);
    if (!error.isEmpty())
        return refused(error);

    Entries entries;
    QByteArray body;
    for (const FileChange& change : changes) {
        Entry entry = settingEntry(change.settingPath, change.content);
        entry.before = digestThere(directory, entry);
        entry.permissions = change.permissions;
        entries.append(entry);
        body += lineOf(pathKey, change.settingPath, entry);
        if (body.size() > maximumJournalBytes)
            break;
    }
    for (auto record = records.cbegin(); record != records.cend(); ++record) {
        entries.append(recordEntry(record.key(), *record));
        body += lineOf(recordKey, record.key(), entries.constLast());
    }
    const QByteArray text = firstLine(body) + body;
    if (text.size() > maximumJournalBytes) {
        return refused(QStringLiteral("the change takes more than %1 MiB")
                           .arg(maximumJournalBytes / 1024 / 1024));
    }

    for (const auto& check : { checkJournal, checkNewJournal }) {
        error = check(directory);
        if (!error.isEmpty())
            return refused(error);
    }
    struct statvfs fileSystem = {};
    if (::fstatvfs(directory, &fileSystem) != 0)
        return refused(failed("examine", QByteArray()));
    const qint64 blockBytes = qMax(qint64(fileSystem.f_frsize), qint64(1));
    // The journal, and a temporary file.
    Need need { text.size() + 2 * blockBytes, 2 };
    error = checkPlaces(directory, entries, blockBytes, &need);
    if (!error.isEmpty())
        return refused(error);
    error = checkRoom(fileSystem, blockBytes, need);
    if (!error.isEmpty())
        return { Status::Refused, error, true };
    const JournalResult decided = writeJournal(directory, text, entries);
    return decided.status == Status::Done ? finish(directory, entries) : decided;
}

// ---------------------------------------------------------------------------------------------
// Finishing what was interrupted.
// ---------------------------------------------------------------------------------------------

namespace {

// Who changed a file since knew nothing of the journal: another framework, for example. What it
// wrote is newer.
bool isChangedSince(int tree, const Entry& entry)
{
    if (!entry.before)
        return false;
    const std::optional<QByteArray> now = digestThere(tree, entry);
    const QByteArray after = entry.content ? digestOf(*entry.content) : QByteArray();
    return now && *now != *entry.before && *now != after;
}

} // namespace

JournalResult redoJournal(int directory)
{
    const auto left = [](const QString& reason) {
        return refused(QStringLiteral("the file '%1' in the writable tree %2; nothing of it has "
                                      "been done, see what it holds and move it elsewhere")
                           .arg(QLatin1String(journalName), reason));
    };
    const UniqueFd file(::openat(directory, journalName,
                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file && errno == ENOENT)
        return {};
    if (!file && (errno == ELOOP || errno == ENXIO))
        return left(QStringLiteral("is not a regular file"));
    struct stat opened = {};
    // Whether there is something to finish is not known then.
    if (!file || ::fstat(file.get(), &opened) != 0)
        return unfinished(failed("open", journalName));
    if (!S_ISREG(opened.st_mode))
        return left(QStringLiteral("is not a regular file"));
    if (!isOfOwner(directory, opened))
        return left(QStringLiteral("belongs to another user"));
    if (opened.st_size > maximumJournalBytes)
        return left(QStringLiteral("is too large for a journal"));

    QByteArray text;
    QFile reader;
    if (!reader.open(file.get(), QIODevice::ReadOnly | QIODevice::Unbuffered))
        return unfinished(failed("read", journalName));
    text = reader.read(maximumJournalBytes + 1);
    if (reader.error() != QFileDevice::NoError)
        return unfinished(failed("read", journalName));
    const std::optional<Entries> entries = entriesOf(text);
    if (!entries)
        return left(QStringLiteral("is damaged, or was not written by this program"));
    Entries unchanged;
    for (const Entry& entry : *entries) {
        if (!isChangedSince(directory, entry))
            unchanged.append(entry);
    }

    JournalResult result = finish(directory, unchanged);
    if (result.status == Status::Done) {
        result.message = QStringLiteral("finished a change of %1 files that was interrupted")
                             .arg(unchanged.size());
        const int changed = entries->size() - unchanged.size();
        if (changed > 0) {
            result.message +=
                QStringLiteral("; left out are %1 that were changed since").arg(changed);
        }
    }
    return result;
}

// ---------------------------------------------------------------------------------------------
// Without a journal.
// ---------------------------------------------------------------------------------------------

namespace {

// What it was to write is removed, or it is not on the disk yet.
QString discardJournal(int tree, const char* name)
{
    const UniqueFd file(
        ::openat(tree, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat opened = {};
    if (!file || ::fstat(file.get(), &opened) != 0 || !S_ISREG(opened.st_mode)
        || !isOfOwner(tree, opened) || !mayBeJournal(file.get()))
        return QString();
    return ::unlinkat(tree, name, 0) == 0 ? QString() : failed("remove", name);
}

} // namespace

QString removeDecided(int directory, const QStringList& settingPaths,
                      const QStringList& directories, const QStringList& records)
{
    Entries entries;
    for (const QString& settingPath : settingPaths)
        entries.append(settingEntry(settingPath, std::nullopt));
    for (const QString& record : records)
        entries.append(recordEntry(record, std::nullopt));
    QString error = discardJournal(directory, journalName);
    if (error.isEmpty())
        error = discardJournal(directory, newJournalName);
    if (error.isEmpty())
        error = remove(directory, entries);
    Entries above { recordEntry(QString(), std::nullopt) };
    for (const QString& path : directories) {
        const Entry entry = settingEntry(path, std::nullopt);
        const UniqueFd parent = openDirectory(directory, entry.directory, false);
        if (parent && ::unlinkat(parent.get(), entry.name.constData(), AT_REMOVEDIR) == 0)
            above.append(entry);
    }
    if (error.isEmpty())
        error = syncDirectories(directory, directoriesOf(directory, above));
    return error;
}

bool hasJournal(const QString& writePath)
{
    struct stat file = {};
    const QByteArray name = QFile::encodeName(writePath) + '/' + journalName;
    return ::lstat(name.constData(), &file) == 0;
}

} // namespace tulo
