#pragma once

#include "trees/uniquefd.h"

#include <QString>

#include <optional>
#include <utility>

#include <sys/types.h>

namespace tulo {

/// The right to change a writable tree, which one process has at a time: a lock on the file
/// ".tulo-cm.lock" in it and one on the directory itself, which the kernel gives up when the
/// process ends, however it ends. The file holds the owner's process id in decimal and stays
/// behind, empty, when the locks are released; one that a crash left is taken over.
///
/// The lock on the directory keeps a second owner out when the file has been removed. When the
/// file or the tree was removed or replaced, displacement() says so: what is written from then
/// on may be lost.
///
/// The file is readable by its owner only (0600), so no other user can hold its lock first: a
/// lock needs a file that can be opened. The same holds for the directory if other users cannot
/// read it (0700); a user who can may lock it and so keep an owner out, but changes nothing. A
/// file that belongs to neither this process's user nor the tree's owner is rejected, as is a
/// link, a second name of another file and anything but a regular file.
///
/// Root is refused a tree of another user, who could not use the files that root makes there.
/// becomeOwner() makes the process that user.
///
/// The locks belong to the open files, not to the process: a second one in the same process is
/// refused like any other, and child processes do not inherit them.
class OwnerLock
{
public:
    enum class Status {
        Owned,
        InUse,
        NotWritable, ///< its file system is read-only, or has no room for the lock file
        Failed
    };

    OwnerLock() = default;
    /// Releases.
    ~OwnerLock();
    Q_DISABLE_COPY(OwnerLock)

    /// Tries to become the owner of the tree in the directory `writePath`, without waiting.
    [[nodiscard]] Status acquire(const QString& writePath);
    void release();

    bool isOwned() const;
    /// A descriptor of the tree, open as long as it is owned; otherwise -1.
    int directory() const;
    /// Empty while `writePath` and the lock file in it are still those that were locked;
    /// otherwise one line that says what happened. Empty when nothing is owned.
    QString displacement() const;
    /// After InUse: the holder's process id, 0 when it is not known.
    qint64 holder() const;
    /// Unless it is owned: one line that names the file or the tree.
    QString message() const;

    /// The process id of the tree's owner, 0 when it is not known; nothing when the tree has no
    /// owner, or when the lock file cannot be read. Takes no lock.
    [[nodiscard]] static std::optional<qint64> holderOf(const QString& writePath);
    static QString fileName(const QString& writePath);

private:
    Status openBoth();
    Status lockBoth();
    Status fail(const QString& reason);
    Status inUse(qint64 holder);

    using FileId = std::pair<dev_t, ino_t>;

    QString m_writePath;
    UniqueFd m_directory;
    UniqueFd m_file;
    FileId m_directoryId;
    FileId m_fileId;
    bool m_isOwned = false;
    qint64 m_holder = 0;
    QString m_message;
};

} // namespace tulo
