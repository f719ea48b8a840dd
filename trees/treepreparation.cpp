#include "trees/treepreparation.h"

#include "trees/factoryreset.h"

namespace tulo {

namespace {

// Tells whether what comes next may begin.
bool note(const JournalResult& result, TreePreparation* preparation)
{
    if (!result.message.isEmpty())
        preparation->messages.append(result.message);
    if (result.status == JournalResult::Status::Unfinished)
        preparation->obstacle = result.message;
    return preparation->obstacle.isEmpty();
}

} // namespace

TreePreparation prepareTree(int directory, const MigrationPlace& place, MigrationRun run)
{
    TreePreparation preparation;
    if (note(
            finishFactoryReset(directory, place.defaultPath, place.writePath, place.productPostfix),
            &preparation)
        && note(redoJournal(directory), &preparation))
        preparation.migration = migrate(directory, place, run);
    return preparation;
}

} // namespace tulo
