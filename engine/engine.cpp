#include "engine/engine.h"

#include "client/base/checks.h"
#include "engine/errors.h"
#include "engine/loader.h"
#include "trees/factoryreset.h"
#include "trees/migrator.h"
#include "trees/partition.h"
#include "trees/separator.h"
#include "trees/treepreparation.h"
#include "trees/writtenfiles.h"

#include "api/core/language.h"
#include "api/core/tulo.h"

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <QUrl>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include <unistd.h>

namespace tulo {

namespace {

bool isBelow(const QString& path, const QString& directory)
{
    return path.startsWith(directory.endsWith(separator) ? directory : directory + separator);
}

QString readOnlyText(const QString& writePath)
{
    return QStringLiteral("The file system of the writable tree '%1' is read-only").arg(writePath);
}

bool fail(EngineFailure* failure, EngineFailure::Kind kind, const QString& message)
{
    failure->kind = kind;
    failure->message = message;
    return false;
}

} // namespace

QString Engine::builtInDefaultPath()
{
    return QStringLiteral("/etc/tulo/settings-default");
}

QString Engine::builtInWritePath()
{
    return QStringLiteral("/settings/");
}

int Engine::translate(const QString& language, const QStringList& directories)
{
    return Language::instance()->setLocale(language, directories);
}

// ---------------------------------------------------------------------------------------------
// Opening: directories, ownership, worker, and the guard in front of it.
// ---------------------------------------------------------------------------------------------

Engine::Engine(const EngineOptions& options)
    : m_options(options)
{
}

std::unique_ptr<Engine> Engine::open(const EngineOptions& options, EngineFailure* failure)
{
    std::unique_ptr<Engine> engine(new Engine(options));
    *failure = EngineFailure();
    if (engine->chooseDirectories(failure) && engine->takeTree(failure)
        && engine->createWorker(failure))
        return engine;
    return nullptr;
}

bool Engine::chooseDirectories(EngineFailure* failure)
{
    using Kind = EngineFailure::Kind;
    if (m_options.defaultPath.isEmpty() != m_options.writePath.isEmpty()) {
        return fail(failure, Kind::Usage,
                    QStringLiteral("Name both the default path and the write path, or neither"));
    }
    const bool isBuiltIn = m_options.defaultPath.isEmpty();
    const QFileInfo defaultTree(isBuiltIn ? builtInDefaultPath() : m_options.defaultPath);
    const QFileInfo writeTree(isBuiltIn ? builtInWritePath() : m_options.writePath);
    for (const QFileInfo& tree : { defaultTree, writeTree }) {
        if (!tree.exists()) {
            return fail(failure, Kind::Usage,
                        QStringLiteral("Directory '%1' does not exist").arg(tree.filePath()));
        }
        if (!tree.isDir()) {
            return fail(failure, Kind::Usage,
                        QStringLiteral("'%1' is not a directory").arg(tree.filePath()));
        }
        if (!tree.isReadable() || !tree.isExecutable()) {
            return fail(failure, Kind::NoAccess,
                        QStringLiteral("Directory '%1' cannot be read").arg(tree.filePath()));
        }
    }
    m_defaultPath = defaultTree.canonicalFilePath();
    m_writePath = writeTree.canonicalFilePath();

    if (m_defaultPath == m_writePath || isBelow(m_defaultPath, m_writePath)
        || isBelow(m_writePath, m_defaultPath)) {
        return fail(failure, Kind::Usage,
                    QStringLiteral("The default tree '%1' and the writable tree '%2' must lie "
                                   "apart")
                        .arg(m_defaultPath, m_writePath));
    }
    if (m_options.access != EngineOptions::Access::Own)
        return true;
    errno = 0;
    if (::access(QFile::encodeName(m_writePath).constData(), W_OK) != 0) {
        if (errno == EROFS)
            return fail(failure, Kind::NotWritable, readOnlyText(m_writePath));
        return fail(failure, Kind::NoAccess,
                    QStringLiteral("Directory '%1' cannot be written").arg(writeTree.filePath()));
    }
    return true;
}

bool Engine::takeTree(EngineFailure* failure)
{
    if (m_options.access == EngineOptions::Access::Read) {
        m_otherOwner = OwnerLock::holderOf(m_writePath);
        m_readOnlyReason = m_otherOwner.value_or(0) == 0
            ? QStringLiteral("The writable tree '%1' is open for reading only").arg(m_writePath)
            : QStringLiteral("The writable tree '%1' is in use by process %2")
                  .arg(m_writePath, QString::number(*m_otherOwner));
        return true;
    }
    switch (m_lock.acquire(m_writePath)) {
    case OwnerLock::Status::Owned:
        prepareTree();
        return true;
    case OwnerLock::Status::InUse:
        failure->holder = m_lock.holder();
        return fail(failure, EngineFailure::Kind::InUse, m_lock.message());
    case OwnerLock::Status::NotWritable:
        return fail(failure, EngineFailure::Kind::NotWritable, m_lock.message());
    case OwnerLock::Status::Failed:
        break;
    }
    return fail(failure, EngineFailure::Kind::NoAccess, m_lock.message());
}

MigrationPlace Engine::migrationPlace() const
{
    return { m_defaultPath, m_writePath, m_options.productPostfix, m_options.migrationsPath };
}

// Before the worker reads the tree.
void Engine::prepareTree()
{
    const TreePreparation done =
        tulo::prepareTree(m_lock.directory(), migrationPlace(), MigrationRun::Migrate);
    for (const QString& message : done.messages)
        m_notes.append(QStringLiteral("'%1': %2").arg(m_writePath, message));
    if (done.obstacle.isEmpty())
        note(done.migration);
    else
        refuseUntilFinished(done.obstacle);
}

// When it failed, the values are served as they are.
void Engine::note(const MigrationResult& result)
{
    for (const PlannedMigration& value : result.values)
        m_notes.append(QStringLiteral("Migrated: ") + describe(value));
    // A broken default file stops the service, or the worker that reads it, with its own message.
    if (!result.message.isEmpty() && result.status != MigrationResult::Status::BrokenImage)
        m_notes.append(QStringLiteral("Migration failed: ") + result.message);
    if (result.status == MigrationResult::Status::Unfinished)
        refuseUntilFinished(result.message);
}

// What is written before could be undone by that.
void Engine::refuseUntilFinished(const QString& reason)
{
    m_isUnfinished = true;
    m_readOnlyReason =
        QStringLiteral("The writable tree '%1' admits no change: %2").arg(m_writePath, reason);
}

std::unique_ptr<CMWorker> Engine::newWorker(EngineFailure* failure) const
{
    QVariantHash configuration { { QStringLiteral("default_path"), m_defaultPath },
                                 { QStringLiteral("write_path"), m_writePath } };
    if (!m_options.productPostfix.isNull())
        configuration.insert(QStringLiteral("product_postfix"), m_options.productPostfix);
    LoadResult loaded = loadWorker(m_options.pluginFile, configuration);
    if (!loaded.worker) {
        fail(failure, EngineFailure::Kind::NoPlugin, loaded.message);
        return nullptr;
    }

    // Had one gone since it was looked at, the worker would now be on the device's own tree.
    for (const QString& path : { m_defaultPath, m_writePath }) {
        if (QFileInfo(path).canonicalFilePath() != path) {
            fail(failure, EngineFailure::Kind::NoAccess,
                 QStringLiteral("Directory '%1' has gone").arg(path));
            return nullptr;
        }
    }
    return std::move(loaded.worker);
}

bool Engine::createWorker(EngineFailure* failure)
{
    m_worker = newWorker(failure);
    if (!m_worker)
        return false;
    m_writes = std::make_unique<WriteTracker>(m_writePath, m_worker->prefixPath());
    m_writes->attach();
    m_router.addWorker(m_worker.get());
    m_guard = std::make_unique<Guard>(m_worker.get(), m_defaultPath, m_writePath,
                                      m_options.productPostfix);
    m_router.setRowCheck([this](const CMPath& path) { return m_guard->checkFiles(path); });
    m_guard->setRefusal([this] {
        lookAtTree();
        return changeRefusal();
    });
    m_dispatcher = std::make_unique<Dispatcher>(&m_router, m_guard.get());
    QObject::connect(m_dispatcher.get(), &Dispatcher::changeAccepted, m_writes.get(),
                     &WriteTracker::addPending);
    m_flusher =
        std::make_unique<Flusher>(m_worker.get(), m_dispatcher.get(), &m_lock, m_writes.get());
    if (!m_options.language.isEmpty())
        m_catalogueCount = translate(m_options.language, m_options.catalogues);
    return true;
}

// ---------------------------------------------------------------------------------------------
// The tree that is owned may be unmounted, mounted over, read-only or full at any time.
// ---------------------------------------------------------------------------------------------

void Engine::lookAtTree()
{
    if (!m_lock.isOwned())
        return;
    m_treeReason = m_lock.displacement();
    m_isTreeReplaced = !m_treeReason.isEmpty();
    if (m_treeReason.isEmpty() && isReadOnly(m_lock.directory()))
        m_treeReason = readOnlyText(m_writePath);
}

bool Engine::lookForRoom()
{
    lookAtTree();
    if (!m_lock.isOwned() || !m_treeReason.isEmpty())
        return false;
    const bool hadRoom = std::exchange(m_noRoomReason, QString()).isEmpty();
    switch (tryWriting(m_lock.directory())) {
    case ENOSPC:
        m_noRoomReason =
            QStringLiteral("The file system of the writable tree '%1' is full").arg(m_writePath);
        break;
    case EDQUOT:
        m_noRoomReason =
            QStringLiteral("The disk quota of the writable tree '%1' is used up").arg(m_writePath);
        break;
    case EROFS:
        // Some do not say so until they are written to.
        m_noRoomReason = readOnlyText(m_writePath);
        break;
    default:
        break;
    }
    return !hadRoom && m_noRoomReason.isEmpty();
}

bool Engine::lacksRoom() const
{
    return !m_noRoomReason.isEmpty();
}

QString Engine::changeRefusal() const
{
    if (!m_readOnlyReason.isEmpty())
        return m_readOnlyReason;
    return m_treeReason.isEmpty() ? m_noRoomReason : m_treeReason;
}

void Engine::setReadOnlyReason(const QString& reason)
{
    m_readOnlyReason = reason;
}

QStringList Engine::filePaths() const
{
    // Ends in "/", as the first one is a link.
    const QString tree = m_lock.isOwned()
        ? QStringLiteral("/proc/self/fd/%1/").arg(m_lock.directory())
        : m_writePath + separator;
    QStringList paths;
    QDirIterator files(tree, QDir::Files | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QString path = m_worker->addPrefix(separator + files.next().mid(tree.size())).text();
        if (!checkPath(path))
            paths.append(path);
    }
    return paths;
}

bool Engine::isTreeReplaced() const
{
    return m_isTreeReplaced;
}

bool Engine::isUnfinished() const
{
    return m_isUnfinished;
}

// ---------------------------------------------------------------------------------------------
// Reset: the written layer of settings is taken away.
// ---------------------------------------------------------------------------------------------

namespace {

Error notReset(ErrorCode code, const QString& reason)
{
    return { code, QStringLiteral("Nothing was reset: ") + reason, QString() };
}

// Like shownPath(), but with the characters of a pattern as they are.
QString shownGlob(const QString& glob)
{
    constexpr int shownLength = 200;
    return QString::fromLatin1(QUrl::toPercentEncoding(glob.left(shownLength), "/*?[]"));
}

/// What a recursive reset leaves as it is.
class KeptPaths
{
public:
    explicit KeptPaths(const QString& top)
        : m_top(top)
    {
    }

    Error add(const QString& glob)
    {
        QString text = glob;
        while (text.endsWith(separator))
            text.chop(1);
        const QRegularExpression pattern = patternOf(text);
        const QString top = text.section(separator, 0, m_top.count(separator));
        // One that no path can match would keep nothing of what it was to save.
        if (!pattern.isValid() || !patternOf(top).match(m_top).hasMatch()
            || text.contains(QLatin1String("//"))) {
            return { ErrorCode::Refused,
                     QStringLiteral("'%1' is not a path to keep: it begins with '%2', and '*' and "
                                    "'?' stand for any characters of a name")
                         .arg(shownGlob(glob), m_top),
                     QString() };
        }
        m_patterns.append(pattern);
        return {};
    }

    /// Tells whether a path or a directory that it is in is kept.
    bool contains(const QString& path) const
    {
        for (QString above = path; !above.isEmpty(); above.truncate(above.lastIndexOf(separator))) {
            const auto matches = [&above](const QRegularExpression& pattern) {
                return pattern.match(above).hasMatch();
            };
            if (std::any_of(m_patterns.cbegin(), m_patterns.cend(), matches))
                return true;
        }
        return false;
    }

private:
    static QRegularExpression patternOf(const QString& glob)
    {
        return QRegularExpression(QRegularExpression::wildcardToRegularExpression(glob));
    }

    const QString m_top; ///< where all settings are
    QVector<QRegularExpression> m_patterns;
};

Error checkResetRequest(const QStringList& paths, const ResetOptions& options, KeptPaths* kept)
{
    if (paths.size() > Settings::maximumChanges || options.keep.size() > Settings::maximumPaths) {
        return { ErrorCode::Limits,
                 QStringLiteral("A request resets more than %1 paths or keeps more than %2")
                     .arg(Settings::maximumChanges)
                     .arg(Settings::maximumPaths),
                 QString() };
    }
    if (!options.isRecursive && !options.keep.isEmpty()) {
        return { ErrorCode::Refused, QStringLiteral("Only a recursive reset keeps paths"),
                 QString() };
    }
    Error error;
    for (auto glob = options.keep.cbegin(); glob != options.keep.cend() && !error; ++glob)
        error = kept->add(*glob);
    return error;
}

// What is inside of a directory has the longer path.
QStringList deepestFirst(const QSet<QString>& directories)
{
    QStringList sorted(directories.cbegin(), directories.cend());
    std::sort(sorted.begin(), sorted.end(), [](const QString& left, const QString& right) {
        return left.size() != right.size() ? left.size() > right.size() : left < right;
    });
    return sorted;
}

} // namespace

Error Engine::planReset(const QStringList& paths, const ResetOptions& options, Reset* reset)
{
    *reset = Reset();
    KeptPaths kept(m_worker->prefixPath().text());
    Error error = checkResetRequest(paths, options, &kept);
    for (auto path = paths.cbegin(); path != paths.cend() && !error; ++path)
        error = errorOf(m_guard->checkReset(CMPath(*path), options.isRecursive), *path);
    if (!error)
        error = writeAccepted();
    if (error)
        return error;

    const WrittenFiles files(m_defaultPath, m_writePath, m_options.productPostfix);
    QSet<QString> settings;
    QSet<QString> directories;
    const auto add = [this, &kept](const QStringList& settingPaths, QSet<QString>* nodes) {
        for (const QString& settingPath : settingPaths) {
            const QString node = m_worker->addPrefix(settingPath).text();
            if (!kept.contains(node))
                nodes->insert(node);
        }
    };
    for (const QString& path : paths) {
        const QString settingPath = Guard::settingPathOf(CMPath(path));
        if (options.isRecursive) {
            add(files.settingsBelow(settingPath), &settings);
            add(files.strayDirectoriesBelow(settingPath), &directories);
            if (settingPath == separator) {
                reset->isEverything = options.keep.isEmpty();
                reset->records =
                    recordAfterReset(m_lock.directory(), [this, &kept](const QString& setting) {
                        return !kept.contains(m_worker->addPrefix(setting).text());
                    });
            }
        } else if (files.isWritten(settingPath)) {
            add({ settingPath }, &settings);
            add(files.strayDirectoriesAbove(settingPath), &directories);
        } else if (!files.hasDefault(settingPath)) {
            return { ErrorCode::Refused,
                     QStringLiteral("The file of '%1' in the writable tree holds more than a "
                                    "setting does; remove it by hand if nothing needs it")
                         .arg(shownPath(path)),
                     path };
        }
    }
    reset->settings = QStringList(settings.cbegin(), settings.cend());
    reset->settings.sort();
    reset->directories = deepestFirst(directories);
    return {};
}

// What was accepted before would come back, were it written or stored again later.
Error Engine::writeAccepted()
{
    const QString problem = m_flusher->writePending();
    if (!problem.isEmpty())
        return notReset(ErrorCode::NotSaved, problem);
    if (m_writes->unsavedCount() > 0)
        return notReset(ErrorCode::NotSaved, m_writes->lastError());
    return {};
}

Error Engine::carryOut(Reset* reset)
{
    const Reset planned = std::exchange(*reset, Reset());
    if (planned.settings.isEmpty() && planned.directories.isEmpty() && planned.records.isEmpty()) {
        if (planned.isEverything)
            withdrawFactoryReset(m_lock.directory());
        return {};
    }
    const WrittenFiles files(m_defaultPath, m_writePath, m_options.productPostfix);
    QStringList settingPaths;
    for (const QString& path : planned.settings)
        settingPaths.append(Guard::settingPathOf(CMPath(path)));
    const bool isAnyGone =
        !std::all_of(settingPaths.cbegin(), settingPaths.cend(),
                     [&files](const QString& setting) { return files.hasDefault(setting); });
    // Before anything is removed: it may fail.
    std::unique_ptr<CMWorker> successor;
    EngineFailure failure;
    if (isAnyGone || !planned.directories.isEmpty()) {
        successor = newWorker(&failure);
        if (!successor)
            return notReset(ErrorCode::Unavailable, failure.message);
    }

    QVector<FileChange> removals;
    for (const QString& settingPath : qAsConst(settingPaths))
        removals.append({ settingPath, std::nullopt });
    JournalResult result = commitChanges(m_lock.directory(), removals, planned.records);
    if (result.hasNoRoom && planned.isEverything)
        result = resetWithoutRoom();
    if (result.status == JournalResult::Status::Refused)
        return notReset(ErrorCode::NotSaved, result.message);
    reset->settings = planned.settings;
    reset->directories = removeEmpty(planned.directories);

    m_writes->forget(planned.settings);
    for (const QString& settingPath : qAsConst(settingPaths))
        m_guard->forgetCreated(settingPath);
    if (isAnyGone || !reset->directories.isEmpty())
        replaceWorker(std::move(successor));
    // The guard's as well.
    const CMError error = m_dispatcher->dropCache().error();
    TULO_ASSERT(errorCode(error) == ErrorCode::None);
    if (result.status == JournalResult::Status::Done) {
        // Or the next start would do it again, to what is set until then.
        if (planned.isEverything)
            withdrawFactoryReset(m_lock.directory());
        return {};
    }
    refuseUntilFinished(result.message);
    return { ErrorCode::NotSaved, m_readOnlyReason, QString() };
}

// Not the first way: it cannot tell what another framework has written since an interruption.
JournalResult Engine::resetWithoutRoom()
{
    JournalResult result = requestFactoryReset(m_lock.directory());
    if (result.status == JournalResult::Status::Done) {
        result = finishFactoryReset(m_lock.directory(), m_defaultPath, m_writePath,
                                    m_options.productPostfix);
    }
    // As at an opening: which rules are behind the tree was recorded, too.
    if (result.status == JournalResult::Status::Done)
        note(migrate(m_lock.directory(), migrationPlace(), MigrationRun::Migrate));
    return result;
}

QStringList Engine::removeEmpty(const QStringList& directories) const
{
    QStringList removed;
    for (const QString& path : directories) {
        const QString fileName = m_writePath + Guard::settingPathOf(CMPath(path));
        if (::rmdir(QFile::encodeName(fileName).constData()) == 0 || errno == ENOENT)
            removed.append(path);
    }
    return removed;
}

void Engine::replaceWorker(std::unique_ptr<CMWorker> successor)
{
    m_router.removeWorker(m_worker.get());
    m_router.addWorker(successor.get());
    m_guard->setWorker(successor.get());
    m_flusher->setWorker(successor.get());
    for (CMSubscriber* const observer : qAsConst(m_observers)) {
        m_worker->subscribe()->unsubscribe(observer);
        successor->subscribe()->addObserver(observer);
    }
    m_worker = std::move(successor);
}

// ---------------------------------------------------------------------------------------------
// The end, in order.
// ---------------------------------------------------------------------------------------------

Engine::~Engine()
{
    stop();
}

bool Engine::stop()
{
    if (!m_flusher)
        return m_isSaved;
    if (m_writes->needsFlush() || m_flusher->isWaitedFor()) {
        const FlushResult result = m_flusher->flushNow();
        m_isSaved = result.error.isEmpty() && result.unsaved == 0;
    }
    end();
    if (!m_options.language.isEmpty())
        translate(QString(), QStringList());
    return m_isSaved;
}

QVector<WriteTracker::Change> Engine::abandon()
{
    if (!m_flusher)
        return {};
    const QVector<WriteTracker::Change> changes = m_writes->unconfirmedChanges();
    m_isSaved = changes.isEmpty();
    end();
    return changes;
}

void Engine::end()
{
    m_flusher.reset();
    m_dispatcher->close();
    m_router.removeWorker(m_worker.get());
    m_worker.reset();
    m_lock.release();
}

Dispatcher& Engine::dispatcher()
{
    return *m_dispatcher;
}

Guard& Engine::guard()
{
    return *m_guard;
}

CMSubscribe* Engine::registry() const
{
    return m_worker ? m_worker->subscribe() : nullptr;
}

void Engine::addObserver(CMSubscriber* observer)
{
    m_observers.append(observer);
    registry()->addObserver(observer);
}

void Engine::removeObserver(CMSubscriber* observer)
{
    m_observers.removeAll(observer);
    registry()->unsubscribe(observer);
}

void Engine::flush(const Flusher::Done& done)
{
    m_flusher->flush(done);
}

const WriteTracker& Engine::writes() const
{
    return *m_writes;
}

WriteTracker& Engine::writes()
{
    return *m_writes;
}

QString Engine::defaultPath() const
{
    return m_defaultPath;
}

QString Engine::writePath() const
{
    return m_writePath;
}

bool Engine::ownsTree() const
{
    return m_lock.isOwned() && changeRefusal().isEmpty();
}

int Engine::treeDirectory() const
{
    return m_lock.directory();
}

QStringList Engine::notes() const
{
    return m_notes;
}

std::optional<qint64> Engine::otherOwner() const
{
    return m_otherOwner;
}

int Engine::catalogueCount() const
{
    return m_catalogueCount;
}

} // namespace tulo
