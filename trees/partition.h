#pragma once

#include "trees/uniquefd.h"

#include <QObject>
#include <QSocketNotifier>
#include <QString>

#include <memory>
#include <tuple>

#include <sys/types.h>

// The file system that the writable tree is on: whether it is there, and can be written.

namespace tulo {

/// Tells whether `directory` exists on another file system than the root directory.
bool isOnOwnFileSystem(const QString& directory);

/// Tells a directory from another that is found at its path later, on another file system for
/// example. Another one, too, once its entries have changed.
using DirectoryId = std::tuple<dev_t, ino_t, time_t, long>;
DirectoryId directoryId(const QString& directory);

/// Tells whether nothing can be written to the file system of the open `directory`.
bool isReadOnly(int directory);

/// Finds out whether there is room for one more setting in the file system of the open `directory`;
/// writes nothing to the disk. Zero or the error that a write would get, such as ENOSPC, EDQUOT or
/// EROFS. Zero, too, where the file system makes no files without a name.
int tryWriting(int directory);

/// Notices that a file system is mounted, mounted otherwise or unmounted, anywhere in the view of
/// this process.
class MountWatch : public QObject
{
    Q_OBJECT

public:
    MountWatch();

signals:
    void changed();

private:
    const UniqueFd m_mounts;
    std::unique_ptr<QSocketNotifier> m_notifier; ///< null where the system tells nothing
};

} // namespace tulo
