#pragma once

#include <QString>

#include <atomic>
#include <mutex>

namespace tulo {

/// Shows on a terminal what a command is doing, from two seconds after its begin: one line on
/// standard error with the counts that are known, erased when the object is destroyed. Shows
/// nothing where standard error is not a terminal.
///
/// While one object lives, others may be made within its lifetime: the line is that of the
/// innermost, and the time that of the outermost. On one thread; the line is drawn by another one,
/// as much of what takes long serves no events.
class Progress
{
public:
    /// `what` is done, such as "reading settings".
    explicit Progress(const QString& what);
    ~Progress();
    Q_DISABLE_COPY(Progress)

    /// So many are to be done.
    void setTotal(int total) { m_total = total; }
    /// So many more are done.
    void add(int count) { m_count += count; }

    /// What a line of `columns` shows so long after the begin; empty for nothing.
    QString lineAt(qint64 elapsedMs, int columns) const;

private:
    const QString m_what;
    std::atomic<int> m_total { 0 };
    std::atomic<int> m_count { 0 };
    Progress* const m_outer;
};

/// Keeps the line away as long as it lives, for whatever else goes to the terminal.
class ProgressPause
{
public:
    ProgressPause();

private:
    std::unique_lock<std::mutex> m_lock;
};

} // namespace tulo
