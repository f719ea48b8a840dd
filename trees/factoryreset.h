#pragma once

#include "trees/journal.h"

#include <QString>

// A reset of everything that is asked for by the file ".tulo-cm.factory-reset" in the writable
// tree: before the service runs, from a recovery system, or where there is no room for a journal.
// The file is the decision, so the removal needs no room and is begun again until it is done.

namespace tulo {

/// Asks for a factory reset, unless it is asked for; Refused when the file is not on the disk.
JournalResult requestFactoryReset(int directory);

/// Takes the request away, if there is one that counts: everything has been reset since.
void withdrawFactoryReset(int directory);

/// Does what a factory reset is asked to, if it is: removes the written files that belong to
/// settings, see WrittenFiles, the directories that the default tree does not have if they are
/// empty then, what migrations have recorded, and a journal. Then, once that is on the disk, the
/// request. All other files stay. For the owner of the tree, whose descriptor `directory` is,
/// before redoJournal(); costs one failed fstatat() where nothing is asked for.
///
/// Does nothing, Refused, when the request is not a regular file of root, of this user or of the
/// tree's owner; and nothing, Unfinished, while the default tree is empty: it is not mounted.
JournalResult finishFactoryReset(int directory, const QString& defaultPath,
                                 const QString& writePath, const QString& productPostfix);

} // namespace tulo
