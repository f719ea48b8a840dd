#pragma once

#include "api/core/model/cmpath.h"

#include <QMap>
#include <QMutex>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>

#include <log4cplus/appender.h>

/// Knows which accepted changes are not on disk. The worker tells nobody but its log whether a
/// write succeeded, so this reads the records of the logger "CMSettingsWorker".
///
/// A path is pending from its acceptance to the record about its file, and unsaved from a
/// record that its write failed to one that a later write succeeded: the worker drops a failed
/// write, so it is on disk again only after the setting was changed again.
///
/// Needs the worker's INFO records. attach() sees to that; whoever configures logging shows
/// fewer levels by the thresholds of appenders, not by that logger's level, and calls attach()
/// again, because a log4cplus configuration drops the appenders of the loggers it names.
///
/// Thread-safe, except attach().
class WriteWatch : public QObject
{
    Q_OBJECT

public:
    /// Watches for files below the directory `writePath` (canonical); `prefix` is the worker's.
    WriteWatch(const QString& writePath, const CMPath& prefix);
    ~WriteWatch() override;

    /// Hangs the watch on the worker's logger, once only however often it is called, and lowers
    /// that logger's level to INFO if it is above.
    void attach();

    /// A change to `path` was accepted and will be written.
    void addPending(const CMPath& path);

    /// Settings accepted and not yet tried to write, sorted.
    QStringList pendingPaths() const;
    /// Settings whose last write failed, sorted.
    QStringList unsavedPaths() const;
    /// The worker's last record of a failed write or sync, empty when there was none.
    QString lastError() const;
    /// Tells whether the sync of the last flush failed, so that a power cut could still undo
    /// what was written.
    bool syncFailed() const;
    /// Tells whether a flush has anything to do: something is pending, or was written and not
    /// synced since.
    bool needsFlush() const;
    /// Tells whether everything accepted is safely on disk. For after a flush.
    bool isSaved() const;

signals:
    /// Any of the above may read differently. Emitted inside a log call of the worker: connect
    /// it queued, or do nothing that logs.
    void changed();

private:
    class Appender;

    void read(const QString& record);
    QString nodeOf(const QString& fileName) const;

    const QString m_writePath;
    const QString m_prefix;
    log4cplus::SharedAppenderPtr m_appender;

    mutable QMutex m_mutex;
    // Under the mutex; paths with their prefix.
    QSet<QString> m_pending;
    QSet<QString> m_unsaved;
    QString m_lastError;
    bool m_syncFailed = false;
    bool m_unsynced = false;
};
