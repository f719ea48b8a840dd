#include "engine/servedtree.h"

#include "engine/errors.h"

#include <QDir>
#include <QFileInfo>

#include <utility>

namespace tulo {

namespace {

QString treePath(const EngineOptions& options)
{
    return options.writePath.isEmpty() ? Engine::builtInWritePath() : options.writePath;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Opening and the end.
// ---------------------------------------------------------------------------------------------

std::unique_ptr<ServedTree> ServedTree::open(const EngineOptions& options, EngineFailure* failure)
{
    Opening opening = options.waitsForTree ? openTree(options, Place::Nothing) : openOwned(options);
    *failure = opening.failure;
    // Whatever else keeps it from being owned is for somebody to mend.
    const bool isWaitedFor = failure->kind == EngineFailure::Kind::None
        || failure->kind == EngineFailure::Kind::NotWritable;
    if (!opening.engine || !isWaitedFor)
        return nullptr;
    *failure = EngineFailure();
    return std::unique_ptr<ServedTree>(new ServedTree(options, std::move(opening)));
}

ServedTree::ServedTree(const EngineOptions& options, Opening opening)
    : m_options(options)
{
    use(std::move(opening));
    m_refusal = m_engine->changeRefusal();
    if (m_options.access != EngineOptions::Access::Own)
        return;
    m_check.setInterval(checkMs);
    m_check.setSingleShot(true);
    connect(&m_check, &QTimer::timeout, this, &ServedTree::check);
    connect(this, &ServedTree::unsavedChanged, this, &ServedTree::check);
    if (m_options.waitsForTree) {
        m_mounts = std::make_unique<MountWatch>();
        connect(m_mounts.get(), &MountWatch::changed, this, &ServedTree::check);
    }
    if (m_refusal.isEmpty())
        return;
    // It may be for that that a change is not finished.
    m_engine->lookForRoom();
    m_engine->writes().setError(m_refusal);
    m_check.start();
}

void ServedTree::observe(CMSubscriber* observer)
{
    m_observer = observer;
    m_engine->addObserver(observer);
}

bool ServedTree::stop()
{
    if (!std::exchange(m_isStopped, true) && isServed())
        m_engine->removeObserver(m_observer);
    return m_engine->stop() && m_carried.isEmpty();
}

Engine& ServedTree::engine()
{
    return *m_engine;
}

const Engine& ServedTree::engine() const
{
    return *m_engine;
}

bool ServedTree::isServed() const
{
    return m_place != Place::Nothing;
}

QString ServedTree::path() const
{
    const bool isThere = m_place == Place::Owned || m_place == Place::Read;
    return isThere ? m_engine->writePath() : treePath(m_options);
}

// ---------------------------------------------------------------------------------------------
// What is there of the tree.
// ---------------------------------------------------------------------------------------------

ServedTree::Opening ServedTree::openOwned(const EngineOptions& options)
{
    Opening opening;
    opening.engine = Engine::open(options, &opening.failure);
    opening.place = opening.engine ? Place::Owned : Place::Nothing;
    return opening;
}

// Opens as much of the tree as possible; nothing when that is already served, from `present`.
ServedTree::Opening ServedTree::openTree(const EngineOptions& options, Place present)
{
    Opening opening;
    const bool isMissing = options.waitsForMount && !isOnOwnFileSystem(treePath(options));
    if (isMissing) {
        opening.refusal = QStringLiteral("The partition of the writable tree '%1' is not mounted")
                              .arg(treePath(options));
    } else {
        opening = openOwned(options);
        opening.refusal = opening.failure.message;
    }
    if (opening.engine)
        return opening;

    EngineOptions reading = options;
    reading.access = EngineOptions::Access::Read;
    EngineFailure failure;
    if (!isMissing) {
        opening.place = Place::Read;
        if (present == Place::Read && QFileInfo(treePath(options)).isReadable())
            return opening;
        opening.engine = Engine::open(reading, &failure);
    }
    if (!opening.engine) {
        opening.place = Place::Substitute;
        if (present == Place::Substitute)
            return opening;
        opening.substitute = std::make_unique<QTemporaryDir>();
        if (!opening.substitute->isValid()) {
            opening.place = Place::Nothing;
            opening.failure = {
                EngineFailure::Kind::NotWritable,
                QStringLiteral("%1; no temporary directory can be made in '%2' to stand for it: %3")
                    .arg(opening.refusal, QDir::tempPath(), opening.substitute->errorString())
            };
            opening.refusal = opening.failure.message;
            return opening;
        }
        reading.defaultPath =
            options.defaultPath.isEmpty() ? Engine::builtInDefaultPath() : options.defaultPath;
        reading.writePath = opening.substitute->path();
        opening.engine = Engine::open(reading, &failure);
    }
    if (!opening.engine) {
        opening.place = Place::Nothing;
        opening.failure = failure;
    }
    return opening;
}

void ServedTree::use(Opening opening)
{
    m_place = opening.place;
    if (!opening.engine)
        return;
    m_engine = std::move(opening.engine);
    m_substitute = std::move(opening.substitute);
    if (m_place != Place::Owned && m_options.access == EngineOptions::Access::Own)
        m_engine->setReadOnlyReason(opening.refusal);
    // Once it was mounted, what is there while it is not is another place.
    if (m_place == Place::Owned || m_place == Place::Read)
        m_options.waitsForMount =
            m_options.waitsForMount || isOnOwnFileSystem(m_engine->writePath());
    if (m_place == Place::Read)
        m_readTree = directoryId(m_engine->writePath());
    if (m_observer != nullptr)
        m_engine->addObserver(m_observer);
    // Inside a log call of the worker, so it only looks: with each change, too, an event would be
    // too much.
    const WriteTracker* const writes = &m_engine->writes();
    m_unsavedRevision = writes->revision();
    connect(
        writes, &WriteTracker::changed, this,
        [this, writes] {
            const int revision = writes->revision();
            if (m_unsavedRevision.exchange(revision) != revision)
                QMetaObject::invokeMethod(this, &ServedTree::unsavedChanged, Qt::QueuedConnection);
        },
        Qt::DirectConnection);
}

void ServedTree::noticeRefusal()
{
    if (m_engine->changeRefusal() != m_refusal)
        QMetaObject::invokeMethod(this, &ServedTree::check, Qt::QueuedConnection);
}

void ServedTree::check()
{
    if (m_isStopped)
        return;
    if (m_place != Place::Owned) {
        openAnew();
        return;
    }
    bool hasRoomAgain = false;
    if (m_engine->writes().unsavedCount() > 0 || m_engine->lacksRoom())
        hasRoomAgain = m_engine->lookForRoom();
    else
        m_engine->lookAtTree();
    if (m_engine->isTreeReplaced() || (hasRoomAgain && m_engine->isUnfinished()))
        openAnew();
    else
        noteRefusal();
}

void ServedTree::noteRefusal()
{
    const QString refusal = m_engine->changeRefusal();
    if (!refusal.isEmpty())
        m_check.start();
    if (refusal == m_refusal)
        return;
    m_refusal = refusal;
    if (!refusal.isEmpty())
        m_engine->writes().setError(refusal);
    else
        flushUnasked();
    emit refusalChanged();
}

// What was accepted for the tree of before is stored in that of now. Without one it is only shown.
void ServedTree::openAnew()
{
    const bool wasOwned = m_place == Place::Owned;
    QStringList paths;
    Opening opening;
    if (wasOwned) {
        // First, as it may be the same tree, which has one owner at a time.
        paths = m_engine->filePaths();
        m_engine->removeObserver(m_observer);
        m_carried = m_engine->abandon();
        opening = openTree(m_options, Place::Nothing);
    } else {
        const bool isReplaced =
            m_place == Place::Read && directoryId(treePath(m_options)) != m_readTree;
        opening = openTree(m_options, isReplaced ? Place::Nothing : m_place);
        if (!opening.engine && opening.place == m_place) {
            m_engine->setReadOnlyReason(opening.refusal);
            noteRefusal();
            return;
        }
        if (m_place != Place::Nothing) {
            paths = m_engine->filePaths();
            m_engine->removeObserver(m_observer);
            (void)m_engine->abandon();
        }
    }
    if (opening.engine) {
        m_lastWriteError = lastWriteError();
        m_writeCount = writeCount();
        m_writeErrorCount = writeErrorCount();
    }
    const QString refusal = opening.refusal;
    use(std::move(opening));
    if (m_place == Place::Nothing) {
        m_engine->setReadOnlyReason(refusal);
        noteRefusal();
        return;
    }
    for (const WriteTracker::Change& change : qAsConst(m_carried)) {
        paths.append(change.path.text());
        if (m_place == Place::Read)
            continue;
        const CMError error = m_engine->dispatcher().storeAgain(change.path, change.roles).error();
        if (errorCode(error) != ErrorCode::None)
            m_engine->writes().setError(error.message().toString());
    }
    if (m_place == Place::Owned)
        m_carried.clear();
    paths += m_engine->filePaths();
    emit changed(paths);
    flushUnasked();
    noteRefusal();
    emit unsavedChanged();
}

// What happens to it is in the status.
void ServedTree::flushUnasked()
{
    if (m_engine->ownsTree() && m_engine->writes().needsFlush())
        m_engine->flush([](const FlushResult& /*result*/) {});
}

// ---------------------------------------------------------------------------------------------
// What was accepted.
// ---------------------------------------------------------------------------------------------

bool ServedTree::hasUnwrittenChanges() const
{
    return keepsChanges() || std::as_const(*m_engine).writes().needsFlush();
}

bool ServedTree::keepsChanges() const
{
    return !m_carried.isEmpty();
}

int ServedTree::pendingCount() const
{
    return keepsChanges() ? 0 : std::as_const(*m_engine).writes().pendingCount();
}

int ServedTree::unsavedCount() const
{
    return keepsChanges() ? m_carried.size() : std::as_const(*m_engine).writes().unsavedCount();
}

QStringList ServedTree::unsavedPaths() const
{
    if (!keepsChanges())
        return std::as_const(*m_engine).writes().unsavedPaths();
    QStringList paths;
    for (const WriteTracker::Change& change : m_carried)
        paths.append(change.path.text());
    paths.sort();
    return paths;
}

QString ServedTree::lastWriteError() const
{
    const QString error = std::as_const(*m_engine).writes().lastError();
    return error.isEmpty() ? m_lastWriteError : error;
}

qint64 ServedTree::writeCount() const
{
    return m_writeCount + std::as_const(*m_engine).writes().writeCount();
}

qint64 ServedTree::writeErrorCount() const
{
    return m_writeErrorCount + std::as_const(*m_engine).writes().errorCount();
}

} // namespace tulo
