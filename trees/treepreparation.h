#pragma once

#include "trees/journal.h"
#include "trees/migrator.h"

#include <QString>
#include <QStringList>

namespace tulo {

/// What became of a tree before it is read.
struct [[nodiscard]] TreePreparation
{
    /// One line each, of a factory reset and of a change that had been interrupted.
    QStringList messages;
    /// Why one of these two is not finished, which is the last message: nothing else may be
    /// written, and nothing was migrated. Empty when both are.
    QString obstacle;
    MigrationResult migration;
};

/// Does what comes between acquiring the lock of a tree and reading it, in the one order that is
/// right: a factory reset that was asked for, as it discards what the others would do, see
/// factoryreset.h; what an interrupted change of several files left to finish, see journal.h; and
/// `run`, see migrator.h. For the owner of the tree, whose descriptor `directory` is.
TreePreparation prepareTree(int directory, const MigrationPlace& place, MigrationRun run);

} // namespace tulo
