#include "engine/writetracker.h"

#include "trees/separator.h"

#include <QDir>
#include <QMutexLocker>

#include <algorithm>
#include <array>
#include <mutex>

#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

namespace tulo {

namespace {

// The worker's records. Their texts are an interface.
const QLatin1String writtenText("written file: ");
const QLatin1String syncFailedText("Sync failed with return code");
const QLatin1String failureText("Settings: path '");
const QLatin1String noDirectoryText("' could not create parent directory");
const QLatin1String renameText("' rename to path '");
const QLatin1String renameFailedText("' failed");
const std::array<QLatin1String, 6> temporaryFailures { {
    QLatin1String("' open file failed"),
    QLatin1String("' file is not writeable"),
    QLatin1String("' could not serialize variant value"),
    QLatin1String("' write to file failed"),
    QLatin1String("' flush failed"),
    QLatin1String("' fsync failed"),
} };

log4cplus::Logger workerLogger()
{
    return log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("CMSettingsWorker"));
}

// "/tree/audio/.volume" is the temporary file of "/tree/audio/volume".
QString targetOf(const QString& temporaryName)
{
    const int name = temporaryName.lastIndexOf(separator) + 1;
    return temporaryName.left(name) + temporaryName.mid(name + 1);
}

// The file that a record of a failed write is about; empty for any other record. File names may
// hold quotes, so the known prefix and suffix are stripped instead of searching.
QString failedFile(const QString& record)
{
    if (!record.startsWith(failureText))
        return QString();
    const QString rest = record.mid(failureText.size());
    if (rest.endsWith(noDirectoryText))
        return rest.left(rest.size() - noDirectoryText.size());
    for (const QLatin1String& failure : temporaryFailures) {
        if (rest.endsWith(failure))
            return targetOf(rest.left(rest.size() - failure.size()));
    }
    if (!rest.endsWith(renameFailedText))
        return QString();
    // "<temporary>' rename to path '<target>": the two differ by the dot, one character.
    const QString names = rest.left(rest.size() - renameFailedText.size());
    const int targetLength = (names.size() - renameText.size() - 1) / 2;
    return names.mid(targetLength + 1).startsWith(renameText) ? names.right(targetLength)
                                                              : QString();
}

} // namespace

/// Hands the worker's records to the tracker, as long as there is one: a record may be under way on
/// another thread when the tracker is destroyed.
class WriteTracker::Appender : public log4cplus::Appender
{
public:
    explicit Appender(WriteTracker* tracker)
        : m_tracker(tracker)
    {
        setThreshold(log4cplus::INFO_LOG_LEVEL);
    }
    ~Appender() override { destructorImpl(); }
    Q_DISABLE_COPY(Appender)

    void close() override { closed = true; }
    /// From here on the tracker is not touched any more. Waits for a record that is being read.
    void detach()
    {
        const std::lock_guard<std::recursive_mutex> locker(m_trackerMutex);
        m_tracker = nullptr;
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        const std::lock_guard<std::recursive_mutex> locker(m_trackerMutex);
        if (m_tracker != nullptr)
            m_tracker->read(QString::fromStdString(event.getMessage()));
    }

private:
    // Recursive: what is connected to changed() may log.
    std::recursive_mutex m_trackerMutex;
    WriteTracker* m_tracker;
};

WriteTracker::WriteTracker(const QString& writePath, const CMPath& prefix)
    : m_writePath(writePath)
    , m_prefix(prefix.text())
    , m_appender(new Appender(this))
{
}

WriteTracker::~WriteTracker()
{
    workerLogger().removeAppender(m_appender);
    static_cast<Appender&>(*m_appender).detach();
}

void WriteTracker::attach()
{
    log4cplus::Logger logger = workerLogger();
    // The same appender is not added twice.
    logger.addAppender(m_appender);
    if (logger.getChainedLogLevel() > log4cplus::INFO_LOG_LEVEL)
        logger.setLogLevel(log4cplus::INFO_LOG_LEVEL);
}

// ---------------------------------------------------------------------------------------------
// The life of a change: pending, then written or unsaved, then confirmed or unsaved.
// ---------------------------------------------------------------------------------------------

void WriteTracker::addPending(const CMPath& path, const TuloRoles& roles)
{
    QMutexLocker locker(&m_mutex);
    State& state = m_changes[path.text()];
    const QVariantHash added = roles.__variant().toHash();
    for (auto role = added.cbegin(); role != added.cend(); ++role)
        state.roles.__setHashAttribute(role.key(), role.value());
    setPending(&state, true);
    locker.unlock();
    emit changed();
}

void WriteTracker::forget(const QStringList& paths)
{
    QMutexLocker locker(&m_mutex);
    for (const QString& path : paths) {
        const auto change = m_changes.find(path);
        if (change == m_changes.end())
            continue;
        setPending(&*change, false);
        setUnsaved(&*change, false);
        setUnconfirmed(&*change, 0);
        m_changes.erase(change);
    }
    locker.unlock();
    emit changed();
}

void WriteTracker::setPending(State* state, bool isPending)
{
    m_pendingCount += int(isPending) - int(state->isPending);
    state->isPending = isPending;
}

void WriteTracker::setUnsaved(State* state, bool isUnsaved)
{
    if (state->isUnsaved == isUnsaved)
        return;
    m_unsavedCount += isUnsaved ? 1 : -1;
    state->isUnsaved = isUnsaved;
    ++m_revision;
}

void WriteTracker::setUnconfirmed(State* state, int sync)
{
    m_unconfirmedCount += int(sync != 0) - int(state->unconfirmedBy != 0);
    state->unconfirmedBy = sync;
}

// The tree's path of a file's name; empty for a file outside the tree.
QString WriteTracker::nodeOf(const QString& fileName) const
{
    const QString name = QDir::cleanPath(fileName);
    const QString root = m_writePath.endsWith(separator) ? m_writePath : m_writePath + separator;
    return name.startsWith(root) ? m_prefix + separator + name.mid(root.size()) : QString();
}

void WriteTracker::setLastError(const QString& error)
{
    m_lastError = error.left(maximumErrorLength);
    ++m_errorCount;
    ++m_revision;
}

void WriteTracker::read(const QString& record)
{
    QMutexLocker locker(&m_mutex);
    if (record.startsWith(writtenText)) {
        const QString node = nodeOf(record.mid(writtenText.size()));
        if (node.isEmpty())
            return;
        State& state = m_changes[node];
        setPending(&state, false);
        setUnsaved(&state, false);
        setUnconfirmed(&state, m_nextSync);
        m_hasWrittenSinceSync = true;
        ++m_writeCount;
    } else if (record.startsWith(syncFailedText)) {
        setLastError(record);
    } else {
        const QString node = nodeOf(failedFile(record));
        if (node.isEmpty())
            return;
        State& state = m_changes[node];
        setPending(&state, false);
        setUnsaved(&state, true);
        setUnconfirmed(&state, 0);
        setLastError(record);
    }
    locker.unlock();
    emit changed();
}

int WriteTracker::beginSync()
{
    const QMutexLocker locker(&m_mutex);
    m_hasWrittenSinceSync = false;
    return m_nextSync++;
}

bool WriteTracker::hasWrittenSinceSync() const
{
    const QMutexLocker locker(&m_mutex);
    return m_hasWrittenSinceSync;
}

void WriteTracker::endSync(int number, const QString& error)
{
    QMutexLocker locker(&m_mutex);
    for (auto change = m_changes.begin(); change != m_changes.end();) {
        State& state = *change;
        // The system reports an error once, so one may be about what was written meanwhile.
        const bool isCovered =
            state.unconfirmedBy != 0 && (state.unconfirmedBy <= number || !error.isEmpty());
        if (isCovered) {
            setUnconfirmed(&state, 0);
            setUnsaved(&state, state.isUnsaved || !error.isEmpty());
        }
        if (isCovered && !state.isPending && !state.isUnsaved)
            change = m_changes.erase(change);
        else
            ++change;
    }
    if (!error.isEmpty()) {
        setLastError(error);
    }
    locker.unlock();
    emit changed();
}

void WriteTracker::setError(const QString& error)
{
    QMutexLocker locker(&m_mutex);
    setLastError(error);
    locker.unlock();
    emit changed();
}

// ---------------------------------------------------------------------------------------------
// What is known.
// ---------------------------------------------------------------------------------------------

QStringList WriteTracker::pathsWhere(bool State::*flag) const
{
    const QMutexLocker locker(&m_mutex);
    QStringList paths;
    for (auto change = m_changes.cbegin(); change != m_changes.cend(); ++change) {
        if ((*change).*flag)
            paths.append(change.key());
    }
    paths.sort();
    return paths;
}

QStringList WriteTracker::pendingPaths() const
{
    return pathsWhere(&State::isPending);
}

QStringList WriteTracker::unsavedPaths() const
{
    return pathsWhere(&State::isUnsaved);
}

QVector<WriteTracker::Change> WriteTracker::unsavedChanges() const
{
    const QStringList paths = unsavedPaths();
    const QMutexLocker locker(&m_mutex);
    QVector<Change> changes;
    for (const QString& path : paths) {
        const State state = m_changes.value(path);
        if (state.isUnsaved && !state.isPending && !state.roles.__isEmpty())
            changes.append({ CMPath(path), state.roles });
    }
    return changes;
}

QVector<WriteTracker::Change> WriteTracker::unconfirmedChanges() const
{
    const QMutexLocker locker(&m_mutex);
    QVector<Change> changes;
    for (auto change = m_changes.cbegin(); change != m_changes.cend(); ++change) {
        if (!change->roles.__isEmpty())
            changes.append({ CMPath(change.key()), change->roles });
    }
    std::sort(changes.begin(), changes.end(), [](const Change& left, const Change& right) {
        return left.path.text() < right.path.text();
    });
    return changes;
}

int WriteTracker::pendingCount() const
{
    const QMutexLocker locker(&m_mutex);
    return m_pendingCount;
}

int WriteTracker::unconfirmedCount() const
{
    const QMutexLocker locker(&m_mutex);
    return m_unconfirmedCount;
}

int WriteTracker::unsavedCount() const
{
    const QMutexLocker locker(&m_mutex);
    return m_unsavedCount;
}

QString WriteTracker::lastError() const
{
    const QMutexLocker locker(&m_mutex);
    return m_lastError;
}

qint64 WriteTracker::writeCount() const
{
    const QMutexLocker locker(&m_mutex);
    return m_writeCount;
}

qint64 WriteTracker::errorCount() const
{
    const QMutexLocker locker(&m_mutex);
    return m_errorCount;
}

int WriteTracker::revision() const
{
    const QMutexLocker locker(&m_mutex);
    return m_revision;
}

bool WriteTracker::needsFlush() const
{
    const QMutexLocker locker(&m_mutex);
    return !m_changes.isEmpty();
}

bool WriteTracker::isSaved() const
{
    const QMutexLocker locker(&m_mutex);
    return m_pendingCount == 0 && m_unsavedCount == 0;
}

} // namespace tulo
