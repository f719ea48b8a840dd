#include "host/writewatch.h"

#include "host/separator.h"

#include <QDir>
#include <QMutexLocker>

#include <algorithm>
#include <array>

#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

namespace {

// The worker's records. Their texts are an interface.
const QLatin1String writtenText("written file: ");
const QLatin1String syncText("Flush action: sync");
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
// hold quotes, so the texts are taken off both ends and nothing is searched for.
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

QStringList sorted(const QSet<QString>& paths)
{
    QStringList list(paths.cbegin(), paths.cend());
    list.sort();
    return list;
}

} // namespace

/// Hands the worker's records to the watch.
class WriteWatch::Appender : public log4cplus::Appender
{
public:
    explicit Appender(WriteWatch* watch)
        : m_watch(watch)
    {
        setThreshold(log4cplus::INFO_LOG_LEVEL);
    }
    ~Appender() override { destructorImpl(); }
    Q_DISABLE_COPY(Appender)

    void close() override { closed = true; }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        m_watch->read(QString::fromStdString(event.getMessage()));
    }

private:
    WriteWatch* const m_watch;
};

WriteWatch::WriteWatch(const QString& writePath, const CMPath& prefix)
    : m_writePath(writePath)
    , m_prefix(prefix.text())
    , m_appender(new Appender(this))
{
}

WriteWatch::~WriteWatch()
{
    workerLogger().removeAppender(m_appender);
}

void WriteWatch::attach()
{
    log4cplus::Logger logger = workerLogger();
    // The same appender is not added twice.
    logger.addAppender(m_appender);
    if (logger.getChainedLogLevel() > log4cplus::INFO_LOG_LEVEL)
        logger.setLogLevel(log4cplus::INFO_LOG_LEVEL);
}

void WriteWatch::addPending(const CMPath& path)
{
    QMutexLocker locker(&m_mutex);
    m_pending.insert(path.text());
    locker.unlock();
    emit changed();
}

// The tree's path of a file's name; empty for a file outside the tree.
QString WriteWatch::nodeOf(const QString& fileName) const
{
    const QString name = QDir::cleanPath(fileName);
    const QString root = m_writePath.endsWith(separator) ? m_writePath : m_writePath + separator;
    return name.startsWith(root) ? m_prefix + separator + name.mid(root.size()) : QString();
}

void WriteWatch::read(const QString& record)
{
    QMutexLocker locker(&m_mutex);
    if (record.startsWith(writtenText)) {
        const QString node = nodeOf(record.mid(writtenText.size()));
        if (node.isEmpty())
            return;
        m_pending.remove(node);
        m_unsaved.remove(node);
        m_unsynced = true;
    } else if (record == syncText) {
        m_unsynced = false;
        m_syncFailed = false;
    } else if (record.startsWith(syncFailedText)) {
        m_unsynced = true;
        m_syncFailed = true;
        m_lastError = record;
    } else {
        const QString node = nodeOf(failedFile(record));
        if (node.isEmpty())
            return;
        m_pending.remove(node);
        m_unsaved.insert(node);
        m_lastError = record;
    }
    locker.unlock();
    emit changed();
}

QStringList WriteWatch::pendingPaths() const
{
    const QMutexLocker locker(&m_mutex);
    return sorted(m_pending);
}

QStringList WriteWatch::unsavedPaths() const
{
    const QMutexLocker locker(&m_mutex);
    return sorted(m_unsaved);
}

QString WriteWatch::lastError() const
{
    const QMutexLocker locker(&m_mutex);
    return m_lastError;
}

bool WriteWatch::syncFailed() const
{
    const QMutexLocker locker(&m_mutex);
    return m_syncFailed;
}

bool WriteWatch::needsFlush() const
{
    const QMutexLocker locker(&m_mutex);
    return !m_pending.isEmpty() || m_unsynced;
}

bool WriteWatch::isSaved() const
{
    const QMutexLocker locker(&m_mutex);
    return m_pending.isEmpty() && m_unsaved.isEmpty() && !m_syncFailed;
}
