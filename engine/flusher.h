#pragma once

#include "engine/writetracker.h"
#include "trees/treesync.h"

#include <QObject>
#include <QString>
#include <QTimer>
#include <QVector>

#include <functional>

class CMWorker;

namespace tulo {

class Dispatcher;
class OwnerLock;

/// What became of a flush.
struct [[nodiscard]] FlushResult
{
    QString error; ///< why not everything is confirmed to be on disk; empty when it is
    int unsaved = 0; ///< settings whose last write failed or could not be confirmed
};

/// Gets accepted changes onto the disk, and knows when they are there.
///
/// A flush stores again what an earlier one could not (with the timestamps of then), has the
/// worker write what is pending, and then asks the tree's own file system for confirmation,
/// beside the worker's thread: a slow or stalled disk holds up only those who wait for it.
/// Other file systems are left alone. Calls that come while a flush runs share the next one.
///
/// What the worker's timer wrote is confirmed in the same way, soon and without being asked for,
/// so that little has to be kept and stored again.
///
/// The worker's slot "on_writeTimer_timeout" is invoked by that name: it writes everything
/// pending, and never reports anything.
///
/// When the tree was replaced, what is written does not arrive in the tree that was opened: that
/// is an error of each flush, and of WriteTracker soon after the next write.
///
/// Lives on the worker's thread.
class Flusher : public QObject
{
    Q_OBJECT

public:
    /// A file system that has not confirmed by then counts as failed.
    static constexpr int syncTimeoutMs = 30000;
    /// What was written is confirmed after so long, or when it is so many settings.
    static constexpr int confirmDelayMs = 30000;
    static constexpr int maximumUnconfirmed = 100;

    using Done = std::function<void(const FlushResult&)>;

    /// All outlive it. Without an owned `lock` nothing can be changed, so nothing is done.
    Flusher(CMWorker* worker, Dispatcher* dispatcher, const OwnerLock* lock, WriteTracker* writes);
    /// Answers those who still wait that nothing was saved.
    ~Flusher() override;
    Q_DISABLE_COPY(Flusher)

    /// From now on this worker is asked to write.
    void setWorker(CMWorker* worker);

    /// Has the worker write what is pending, and again what it could not write before. Returns the
    /// reason when nothing can be written; what became of each write is in the WriteTracker.
    [[nodiscard]] QString writePending();
    /// Calls `done` on this thread, later, once; from the event loop or from flushNow().
    void flush(const Done& done);
    /// Waits for its end, without the event loop; answers everybody else who waits.
    FlushResult flushNow();
    bool isWaitedFor() const;

private slots:
    void on_start_timeout();
    void on_sync_finished(const QString& error);
    void on_deadline_timeout();
    void on_writes_changed();
    void on_placeCheck_timeout();
    void on_confirmation_timeout();

private:
    void begin();
    void startSync();
    void fail(const QString& error);
    void answer(const QString& error);

    CMWorker* m_worker;
    Dispatcher* const m_dispatcher;
    const OwnerLock* const m_lock;
    WriteTracker* const m_writes;
    TreeSync m_sync;
    int m_syncNumber = 0; ///< of the last sync that was started
    bool m_coversServed = false; ///< the sync under way began after their changes were written
    QTimer m_start; ///< so that all who ask in one turn of the event loop share a flush
    QTimer m_deadline;
    QTimer m_placeCheck;
    QTimer m_confirmation;
    QVector<Done> m_waiting; ///< for a flush that has not begun
    QVector<Done> m_served; ///< by the flush under way
};

} // namespace tulo
