#include "trees/migrator.h"

#include "client/base/checks.h"
#include "trees/fileprobe.h"
#include "trees/nodenames.h"
#include "trees/separator.h"
#include "trees/treereader.h"
#include "trees/treestamp.h"
#include "trees/uniquefd.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QStringList>

#include <algorithm>
#include <cerrno>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tulo {

namespace {

using Outcome = MigrationResult::Status;

/// Of what a setting path can name.
constexpr int maximumDepth = maximumLevels - 1;
constexpr int maximumRecordBytes = 64 * 1024 * 1024;

MigrationResult faulty(const QString& reason)
{
    return { Outcome::Faulty, reason, {} };
}

// ---------------------------------------------------------------------------------------------
// The image.
// ---------------------------------------------------------------------------------------------

class ImageScan
{
public:
    ImageScan(const QString& defaultPath, const QString& productPostfix)
        : m_defaultPath(defaultPath)
        , m_reader(defaultPath, QString(), productPostfix)
    {
    }

    void run(ImageSettings* image)
    {
        m_image = image;
        scan(QString(separator), 0);
    }

    // What is wrong with a default file: what it says was guessed. Reads all of them again.
    QString defect() const
    {
        QStringList paths = m_image->settings.keys() + m_image->directories.values();
        std::sort(paths.begin(), paths.end());
        QString defect;
        for (auto path = paths.cbegin(); path != paths.cend() && defect.isEmpty(); ++path)
            defect = m_reader.defect(*path);
        return defect;
    }

private:
    void scan(const QString& directory, int depth)
    {
        const QString place = QFileInfo(m_defaultPath + directory).canonicalFilePath();
        if (m_around.contains(place))
            return;
        m_around.append(place);
        const QString prefix = depth == 0 ? directory : directory + separator;
        const QStringList names = m_reader.children(directory);
        for (const QString& name : names)
            add(prefix + name, depth + 1);
        m_around.removeLast();
    }

    void add(const QString& path, int depth)
    {
        if (!m_reader.isDirectory(path)) {
            m_image->settings.insert(path, m_reader.roles(path));
            return;
        }
        m_image->directories.insert(path);
        const TuloRoles roles = m_reader.roles(path);
        if (roles.modifiable()
            && QFileInfo(m_defaultPath + path + QLatin1String("/.meta")).isFile())
            m_image->templates.insert(path, roles);
        if (depth < maximumDepth)
            scan(path, depth);
    }

    const QString m_defaultPath;
    const TreeReader m_reader;
    ImageSettings* m_image = nullptr;
    QStringList m_around; ///< directories that are being read
};

// ---------------------------------------------------------------------------------------------
// What is written.
// ---------------------------------------------------------------------------------------------

class WrittenScan
{
public:
    explicit WrittenScan(const QString& writePath)
        : m_writePath(writePath)
    {
    }

    QString run(MigrationInput* input)
    {
        scan(QString(), 0, input);
        return m_error;
    }

private:
    void scan(const QString& directory, int depth, MigrationInput* input)
    {
        // Hidden files are not settings.
        const QFileInfoList entries =
            QDir(m_writePath + directory)
                .entryInfoList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
        for (const QFileInfo& entry : entries) {
            const QString path = directory + separator + entry.fileName();
            if (!m_error.isEmpty() || !isListable(entry.fileName()))
                continue;
            if (entry.isDir() && !entry.isSymLink()) {
                input->writtenDirectories.insert(path);
                if (depth + 1 < maximumDepth)
                    scan(path, depth + 1, input);
            } else if (entry.isFile() && !entry.isSymLink()) {
                input->written.insert(path, read(entry.filePath()));
            } else {
                // In the way of what would be written there.
                input->written.insert(path, QByteArray());
            }
        }
    }

    // A value that cannot be read at this moment must not count as none.
    QByteArray read(const QString& fileName)
    {
        QFile file(fileName);
        if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
            m_error = fileName + QStringLiteral(": ") + file.errorString();
            return QByteArray();
        }
        const QByteArray content = file.read(FileProbe::maximumFileBytes + 1);
        if (file.error() != QFileDevice::NoError)
            m_error = fileName + QStringLiteral(": ") + file.errorString();
        return content.size() > FileProbe::maximumFileBytes ? QByteArray() : content;
    }

    const QString m_writePath;
    QString m_error;
};

QString readRecord(int directory, MigrationRecord* record)
{
    const QLatin1String name = MigrationRecord::fileName();
    const auto failure = [&name](const QString& reason) {
        return QStringLiteral("'%1' in the writable tree: %2; move it elsewhere to begin without "
                              "it")
            .arg(name, reason);
    };
    const UniqueFd descriptor(::openat(directory, name.latin1(),
                                       O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!descriptor)
        return errno == ENOENT ? QString() : failure(qt_error_string(errno));
    struct stat status = {};
    if (::fstat(descriptor.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return failure(QStringLiteral("is not a regular file"));
    QFile file;
    file.open(descriptor.get(), QIODevice::ReadOnly | QIODevice::Unbuffered);
    const QByteArray text = file.read(maximumRecordBytes);
    if (file.error() != QFileDevice::NoError)
        return failure(file.errorString());
    const QString error =
        text.isEmpty() ? QStringLiteral("is empty") : MigrationRecord::fromJson(text, record);
    return error.isEmpty() ? QString() : failure(error);
}

// ---------------------------------------------------------------------------------------------
// Both.
// ---------------------------------------------------------------------------------------------

// Names the image that a tree was fitted to. Empty when it has no stamp.
QString imageName(const MigrationPlace& place)
{
    // The stamp covers the rules beside the tree, not others.
    const QByteArray stamp =
        place.migrationsPath.isEmpty() ? readStamp(place.defaultPath) : QByteArray();
    return stamp.isEmpty() ? QString()
                           : QLatin1String(stamp) + QLatin1Char(' ') + place.productPostfix;
}

bool isSame(MigrationRecord before, const MigrationRecord& after)
{
    before.image = after.image;
    return before.toJson() == after.toJson();
}

/// Everything that is read, and what is to be done.
struct Work
{
    MigrationInput input;
    MigrationPlan plan;

    bool isNothing() const { return plan.changes.isEmpty() && isSame(input.record, plan.record); }
};

// Reads all but the record, which `work` has.
MigrationResult prepare(const MigrationPlace& place, MigrationRun run, Work* work)
{
    const QString migrationsPath =
        place.migrationsPath.isEmpty() ? migrationsBeside(place.defaultPath) : place.migrationsPath;
    QString error = readMigrations(migrationsPath, &work->input.migrations);
    if (error.isEmpty())
        error = WrittenScan(place.writePath).run(&work->input);
    if (!error.isEmpty())
        return faulty(error);
    ImageScan scan(place.defaultPath, place.productPostfix);
    scan.run(&work->input.image);
    work->plan = run == MigrationRun::Undo ? planUndo(work->input) : planMigration(work->input);
    MigrationResult result;
    result.values = work->plan.values;
    if (work->isNothing())
        return result;
    // More likely its file system is not mounted.
    if (work->input.image.settings.isEmpty() && work->input.image.directories.isEmpty())
        return faulty(QStringLiteral("the default tree '%1' is empty").arg(place.defaultPath));
    // Only for what is done it matters whether it was planned on sound files.
    const QString defect = scan.defect();
    return defect.isEmpty() ? result : MigrationResult { Outcome::BrokenImage, defect, {} };
}

bool isBehindLink(int directory, const QByteArray& name)
{
    for (int end = name.indexOf('/'); end >= 0; end = name.indexOf('/', end + 1)) {
        struct stat file = {};
        if (::fstatat(directory, name.left(end).constData(), &file, AT_SYMLINK_NOFOLLOW) == 0
            && S_ISLNK(file.st_mode))
            return true;
    }
    return false;
}

// The directories above what migrations have taken away are empty now, if nothing else is in them.
// A listing would show them, and a setting could not be where one is.
void removeEmptied(int directory, const MigrationRecord& record, const MigrationPlan& plan)
{
    QSet<QString> left;
    for (const FileChange& change : plan.changes)
        left.insert(change.settingPath);
    for (const MigrationRecord::Moved& moved : record.moved)
        left.insert(moved.path);
    for (const MigrationRecord::Applied& applied : record.applied) {
        for (const MigrationRecord::Change& change : applied.changes) {
            left.insert(change.path);
            for (const MigrationRecord::Change::File& file : change.files)
                left.insert(file.from);
        }
    }
    for (const QString& path : qAsConst(left)) {
        if (checkPath(QStringLiteral("/settings") + path))
            continue;
        for (QString above = parentOf(path); !above.isEmpty(); above = parentOf(above)) {
            const QByteArray name = QFile::encodeName(above.mid(1));
            if (isBehindLink(directory, name)
                || (::unlinkat(directory, name.constData(), AT_REMOVEDIR) != 0 && errno != ENOENT))
                break;
        }
    }
}

MigrationResult resultOf(const JournalResult& journal)
{
    switch (journal.status) {
    case JournalResult::Status::Done:
        return {};
    case JournalResult::Status::Refused:
        return { Outcome::Failed, journal.message, {} };
    case JournalResult::Status::Unfinished:
        break;
    }
    return { Outcome::Unfinished, journal.message, {} };
}

// Others may read the tree where another framework serves it, or must not.
void keepPermissions(int directory, MigrationPlan* plan)
{
    QHash<QString, QString> origins;
    for (const PlannedMigration& value : qAsConst(plan->values)) {
        if (value.obstacle.isEmpty() && !value.from.isEmpty())
            origins.insert(value.to, value.from);
    }
    for (FileChange& change : plan->changes) {
        const QByteArray origin = QFile::encodeName(origins.value(change.settingPath).mid(1));
        struct stat file = {};
        if (::fstatat(directory, origin.constData(), &file, AT_SYMLINK_NOFOLLOW) == 0)
            change.permissions = file.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO);
    }
}

JournalResult commit(int directory, const QVector<FileChange>& changes,
                     const MigrationRecord& before, const MigrationRecord& after)
{
    QHash<QString, QByteArray> records;
    const QByteArray text = after.toJson();
    if (text != before.toJson())
        records.insert(MigrationRecord::fileName(), text);
    return commitChanges(directory, changes, records);
}

} // namespace

MigrationResult planMigrationOf(const MigrationPlace& place, MigrationRun run)
{
    Work work;
    const UniqueFd directory(
        ::open(QFile::encodeName(place.writePath).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const QString error = directory
        ? readRecord(directory.get(), &work.input.record)
        : place.writePath + QStringLiteral(": ") + qt_error_string(errno);
    return error.isEmpty() ? prepare(place, run, &work) : faulty(error);
}

MigrationResult migrate(int directory, const MigrationPlace& place, MigrationRun run)
{
    const QString image = run == MigrationRun::Undo ? QString() : imageName(place);
    Work work;
    const QString error = readRecord(directory, &work.input.record);
    if (!error.isEmpty())
        return faulty(error);
    if (!image.isEmpty() && work.input.record.image == image)
        return {};
    MigrationResult result = prepare(place, run, &work);
    if (result.status != Outcome::Done)
        return result;
    // Without a stamp there is no image to record; the one that the tree fits is still the one.
    // What an interrupted run has emptied is still there.
    if (work.isNothing() && image.isEmpty()) {
        removeEmptied(directory, work.input.record, work.plan);
        return result;
    }

    keepPermissions(directory, &work.plan);
    MigrationRecord record = work.plan.record;
    // Not before the directories have gone: an interruption would leave them.
    record.image = work.plan.changes.isEmpty() ? image : QString();
    MigrationResult made =
        resultOf(commit(directory, work.plan.changes, work.input.record, record));
    if (made.status == Outcome::Done) {
        removeEmptied(directory, record, work.plan);
        MigrationRecord fitted = record;
        fitted.image = image;
        made = resultOf(commit(directory, {}, record, fitted));
    }
    made.values = result.values;
    return made;
}

QHash<QString, QByteArray> recordAfterReset(int directory,
                                            const std::function<bool(const QString&)>& isReset)
{
    MigrationRecord record;
    if (!readRecord(directory, &record).isEmpty())
        return {};
    const QByteArray before = record.toJson();
    record.forgetValues(isReset);
    const QByteArray after = record.toJson();
    return after == before ? QHash<QString, QByteArray>()
                           : QHash<QString, QByteArray> { { MigrationRecord::fileName(), after } };
}

QString describe(const PlannedMigration& value)
{
    QString text = shownPath(value.from);
    if (value.from.isEmpty())
        text = shownPath(value.to);
    else if (value.to.isEmpty())
        text += QStringLiteral(": taken away");
    else if (value.to != value.from)
        text += QStringLiteral(" -> ") + shownPath(value.to);
    text += QStringLiteral(" (%1)").arg(value.causes.join(QStringLiteral(", ")));
    if (!value.obstacle.isEmpty())
        text += QStringLiteral(": stays as it is: ") + value.obstacle;
    return text;
}

} // namespace tulo
