#include "engine/engine.h"

#include "engine/loader.h"
#include "trees/journal.h"
#include "trees/separator.h"

#include "api/core/language.h"

#include <QFileInfo>

namespace tulo {

namespace {

bool isBelow(const QString& path, const QString& directory)
{
    return path.startsWith(directory.endsWith(separator) ? directory : directory + separator);
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
    if (m_options.access == EngineOptions::Access::Own && !writeTree.isWritable()) {
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
        finishJournal();
        return true;
    case OwnerLock::Status::InUse:
        failure->holder = m_lock.holder();
        return fail(failure, EngineFailure::Kind::InUse, m_lock.message());
    case OwnerLock::Status::Failed:
        break;
    }
    return fail(failure, EngineFailure::Kind::NoAccess, m_lock.message());
}

void Engine::finishJournal()
{
    const JournalResult result = redoJournal(m_lock.directory());
    if (!result.message.isEmpty())
        m_notes.append(QStringLiteral("'%1': %2").arg(m_writePath, result.message));
    if (result.status == JournalResult::Status::Unfinished) {
        m_readOnlyReason = QStringLiteral("The writable tree '%1' admits no change: %2")
                               .arg(m_writePath, result.message);
    }
}

bool Engine::createWorker(EngineFailure* failure)
{
    QVariantHash configuration { { QStringLiteral("default_path"), m_defaultPath },
                                 { QStringLiteral("write_path"), m_writePath } };
    if (!m_options.productPostfix.isNull())
        configuration.insert(QStringLiteral("product_postfix"), m_options.productPostfix);
    LoadResult loaded = loadWorker(m_options.pluginFile, configuration);
    if (!loaded.worker)
        return fail(failure, EngineFailure::Kind::NoPlugin, loaded.message);

    // Had one gone since it was looked at, the worker would now be on the device's own tree.
    for (const QString& path : { m_defaultPath, m_writePath }) {
        if (QFileInfo(path).canonicalFilePath() != path) {
            return fail(failure, EngineFailure::Kind::NoAccess,
                        QStringLiteral("Directory '%1' has gone").arg(path));
        }
    }

    m_worker = std::move(loaded.worker);
    m_writes = std::make_unique<WriteTracker>(m_writePath, m_worker->prefixPath());
    m_writes->attach();
    m_router.addWorker(m_worker.get());
    m_guard = std::make_unique<Guard>(m_worker.get(), m_defaultPath, m_writePath,
                                      m_options.productPostfix);
    m_router.setRowCheck([this](const CMPath& path) { return m_guard->checkFiles(path); });
    m_guard->setReadOnly(m_readOnlyReason);
    m_dispatcher = std::make_unique<Dispatcher>(&m_router, m_guard.get());
    QObject::connect(m_dispatcher.get(), &Dispatcher::changeAccepted, m_writes.get(),
                     &WriteTracker::addPending);
    m_flusher =
        std::make_unique<Flusher>(m_worker.get(), m_dispatcher.get(), &m_lock, m_writes.get());
    if (!m_options.language.isEmpty()) {
        m_catalogueCount =
            Language::instance()->setLocale(m_options.language, m_options.catalogues);
    }
    return true;
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
    m_flusher.reset();
    m_dispatcher->close();
    m_router.removeWorker(m_worker.get());
    m_worker.reset();
    m_lock.release();
    if (!m_options.language.isEmpty())
        Language::instance()->setLocale(QString(), QStringList());
    return m_isSaved;
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
    return m_lock.isOwned() && m_readOnlyReason.isEmpty();
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
