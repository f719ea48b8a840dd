#pragma once

#include "api/core/model/cmpath.h"
#include "api/core/tuloroles.h"

#include <QHash>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVector>

#include <log4cplus/appender.h>

namespace tulo {

/// Knows which accepted changes are not safely on disk. The worker reports only in its log
/// whether a write succeeded, so this reads the records of the logger "CMSettingsWorker".
///
/// A change is pending from its acceptance to the record about its file. Then it is either
/// unsaved, when the write failed, or written and not yet confirmed, until a sync of the tree's
/// file system tells: what that sync could not confirm is unsaved, too. The worker drops a write
/// that failed, so what was changed and is not confirmed is kept here, for Engine::flush() to store
/// it again.
///
/// Needs the worker's INFO records. attach() sees to that; a log configuration shows fewer
/// levels by the thresholds of appenders, not by that logger's level, and calls attach() again,
/// because a log4cplus configuration drops the appenders of the loggers it names.
///
/// Thread-safe, its destruction included, except attach(). A change costs the same however many
/// others are not on disk.
class WriteTracker : public QObject
{
    Q_OBJECT

public:
    /// What lastError() keeps of a record.
    static constexpr int maximumErrorLength = 1000;

    struct Change
    {
        CMPath path;
        TuloRoles roles; ///< everything that was changed and is not confirmed
    };

    /// Watches for files below the directory `writePath` (canonical); `prefix` is the worker's.
    WriteTracker(const QString& writePath, const CMPath& prefix);
    ~WriteTracker() override;

    /// Attaches to the worker's logger, once only however often it is called, and lowers that
    /// logger's level to INFO if it is above.
    void attach();

    /// A change to `path` was accepted: `roles` are those that were changed. They add to what is
    /// not confirmed of earlier changes to the same setting.
    void addPending(const CMPath& path, const TuloRoles& roles);

    /// These settings have been reset: what was changed is not to be stored again.
    void forget(const QStringList& paths);

    /// Begins a sync that covers everything written until now; returns its number, for
    /// endSync(), which may come in any order and late.
    int beginSync();
    /// Tells whether something was written since the last sync began.
    bool hasWrittenSinceSync() const;
    /// An empty `error`: everything that was written before that sync began is confirmed.
    /// Otherwise everything written and not confirmed is unsaved.
    void endSync(int number, const QString& error);
    /// Something else that keeps changes from the disk, for lastError().
    void setError(const QString& error);

    /// Settings accepted and not yet tried to write, sorted.
    QStringList pendingPaths() const;
    int pendingCount() const;
    /// Settings written and not confirmed.
    int unconfirmedCount() const;
    /// Settings whose last write failed or could not be confirmed, sorted.
    QStringList unsavedPaths() const;
    int unsavedCount() const;
    /// The unsaved changes that are not pending again, by path.
    QVector<Change> unsavedChanges() const;
    /// Everything that was changed and is not confirmed to be on the disk, by path.
    QVector<Change> unconfirmedChanges() const;
    /// The last failure to write or to sync, empty when there was none.
    QString lastError() const;
    /// Files that were written, and writes and syncs that failed.
    qint64 writeCount() const;
    qint64 errorCount() const;
    /// Grows whenever unsavedPaths() or lastError() may read differently.
    int revision() const;
    /// Tells whether a flush has anything to do: something is pending or unsaved, or was written
    /// and is not confirmed.
    bool needsFlush() const;
    /// Tells whether nothing is pending or unsaved. After a flush: whether everything accepted
    /// is safely on disk.
    bool isSaved() const;

signals:
    /// Any of the above may read differently. Emitted inside a log call of the worker: connect
    /// it queued, or do nothing that logs.
    void changed();

private:
    class Appender;
    struct State
    {
        TuloRoles roles;
        bool isPending = false;
        bool isUnsaved = false;
        int unconfirmedBy = 0; ///< the first sync that will cover the last write; 0: none
    };

    void read(const QString& record);
    void setPending(State* state, bool isPending);
    void setUnsaved(State* state, bool isUnsaved);
    void setUnconfirmed(State* state, int sync);
    void setLastError(const QString& error);
    QStringList pathsWhere(bool State::*flag) const;
    QString nodeOf(const QString& fileName) const;

    const QString m_writePath;
    const QString m_prefix;
    const log4cplus::SharedAppenderPtr m_appender;

    mutable QMutex m_mutex;
    // Under the mutex; by path with its prefix. What is confirmed has no entry.
    QHash<QString, State> m_changes;
    int m_pendingCount = 0;
    int m_unsavedCount = 0;
    int m_unconfirmedCount = 0;
    int m_nextSync = 1;
    bool m_hasWrittenSinceSync = false;
    qint64 m_writeCount = 0;
    qint64 m_errorCount = 0;
    QString m_lastError;
    int m_revision = 0;
};

} // namespace tulo
