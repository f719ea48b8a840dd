#pragma once

#include <QObject>
#include <QString>

#include <memory>

namespace tulo {

/// Asks the file system of a writable tree whether everything written to it is on the disk, on a
/// thread beside the caller's. A stalled disk holds up that thread only.
///
/// The kernel reports an error once per open file, to the first sync after it (Linux 5.8 or
/// later), so the directory must have been open before anything was written. Lives on the thread
/// that made it, whose event loop delivers finished().
class TreeSync : public QObject
{
    Q_OBJECT

public:
    TreeSync() = default;
    /// Does not wait; a sync that runs ends by itself.
    ~TreeSync() override;

    /// Starts a sync of the file system of the open `directory`, which may be closed at any time.
    /// One at a time: only when none is running.
    void start(int directory);
    bool isRunning() const;
    /// Waits until the running sync has ended, at most so long; false when it has not. Without
    /// the event loop; finished() is emitted before this returns.
    [[nodiscard]] bool wait(int milliseconds);

signals:
    /// `error` is empty when the file system confirmed, otherwise the reason.
    void finished(const QString& error);

private slots:
    void on_run_ended();

private:
    struct Run;

    std::shared_ptr<Run> m_run; ///< null: none is running
};

} // namespace tulo
