#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

#include <sys/types.h>

// Changes of several files of the writable tree, all of them or none, whatever interrupts the
// process or the machine. For the owner of the tree, see OwnerLock, while no worker has anything
// to write into it. No state; one call at a time for a tree.
//
// All changes are first written to the file ".tulo-cm.journal" in the tree, whose name appears
// when its content is on the disk: from then on they are made, by this process or by the next one
// that opens the tree for changes. The journal goes when everything is on the disk.
//
// A process that only reads the tree takes no lock and looks at no journal: while changes are being
// made, and after an interruption until somebody opens the tree for changes, it can see some of
// them made and others not.

namespace tulo {

/// What becomes of the written file of one setting.
struct FileChange
{
    QString settingPath; ///< such as "/audio/volume"
    std::optional<QByteArray> content; ///< valid UTF-8; nothing: the file is removed
    /// Of the file; nothing: those that the worker gives, which the process's mask limits.
    std::optional<mode_t> permissions = std::nullopt;
};

/// What became of changes.
struct [[nodiscard]] JournalResult
{
    enum class Status {
        Done, ///< all of them are on the disk, or there were none
        Refused, ///< none has been made; of redoJournal(): the file is not a journal, and stays
        Unfinished ///< decided, not all on the disk: redoJournal() goes on; write nothing else
    };

    Status status = Status::Done;
    /// One line. Empty when done, unless changes that had been interrupted were finished.
    QString message;
    bool hasNoRoom = false; ///< refused because the disk is full
};

/// Makes all of `changes` to the tree that is open as `directory`, and writes the files `records`
/// (by name, such as ".tulo-cm.migrated") directly in it, readable by their owner only.
///
/// Files are written as the worker writes them, directories are made where they are missing, and
/// stay when they are empty. A file that is to be removed and is not there counts as removed. A
/// path or name twice, a path that no request could have, a link or anything else but a regular
/// file in the way, and a lack of space are refused before anything has changed.
JournalResult commitChanges(int directory, const QVector<FileChange>& changes,
                            const QHash<QString, QByteArray>& records = {});

/// Finishes what commitChanges() was interrupted in, but for files that somebody else has written
/// or removed since: they are newer. To be called when the lock of the tree that is open as
/// `directory` was acquired, before anything reads the tree. Costs one failed open() where there is
/// nothing to finish.
///
/// A journal that is damaged, that another format wrote, or that is not a file of this user or of
/// the tree's owner is refused: nothing of it is made and it stays, for somebody to look at.
/// commitChanges() refuses while it is there.
JournalResult redoJournal(int directory);

/// Removes the written files of these settings, these directories (deepest first) if they are empty
/// then, these records, and a journal that is there: writes no journal, so it needs no room.
/// For a removal whose decision the caller has on the disk and which begins again until it is done.
/// Returns an empty text when it is on the disk, else one line that says why not.
[[nodiscard]] QString removeDecided(int directory, const QStringList& settingPaths,
                                    const QStringList& directories, const QStringList& records);

/// Tells whether there is a journal in the tree, for those that only read it.
[[nodiscard]] bool hasJournal(const QString& writePath);

} // namespace tulo
