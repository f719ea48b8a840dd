#pragma once

#include <QString>

#include <optional>

/// The right to change a writable tree, which one process has at a time: a lock on the file
/// ".tulo-cm.lock" in it that the kernel gives up when the process ends, however it ends. The
/// file holds the owner's process id in decimal and stays behind, empty, when the lock is given
/// back; one that a crash left is taken over.
///
/// The file is readable by its owner only (0600), so no other user can hold the lock first: a
/// read lock needs a file that can be opened. One that belongs to neither this process's user
/// nor the tree's owner is refused, as is a link, a second name of another file and anything
/// but a regular file. When root creates it, it is given to the tree's owner.
///
/// The lock belongs to the open file, not to the process: a second one in the same process is
/// refused like any other, and child processes do not inherit it.
class OwnerLock
{
public:
    enum class Status { Owned, InUse, Failed };

    OwnerLock() = default;
    /// Gives the lock back.
    ~OwnerLock();
    Q_DISABLE_COPY(OwnerLock)

    /// Tries to become the owner of the tree in the directory `writePath`, without waiting.
    Status acquire(const QString& writePath);
    void release();

    bool isOwned() const;
    /// After InUse: the holder's process id, 0 when it has not said yet.
    qint64 holder() const;
    /// After InUse or Failed: one line that names the file or the tree.
    QString message() const;

    /// The process id of whoever owns the tree now, 0 when it has not said; nothing when nobody
    /// does, or when the file cannot be read. Takes no lock, so it disturbs nobody.
    static std::optional<qint64> holderOf(const QString& writePath);
    static QString fileName(const QString& writePath);

private:
    Status fail(const QString& reason);

    QString m_fileName;
    int m_descriptor = -1;
    qint64 m_holder = 0;
    QString m_message;
};
