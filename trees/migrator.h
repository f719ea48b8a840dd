#pragma once

#include "trees/journal.h"
#include "trees/migration.h"

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QVector>

#include <functional>

namespace tulo {

/// Where migrate() finds what it needs.
struct MigrationPlace
{
    QString defaultPath;
    QString writePath;
    QString productPostfix; ///< null: no product variant
    QString migrationsPath; ///< of the rules; empty: beside the default tree
};

/// What came of it.
struct [[nodiscard]] MigrationResult
{
    enum class Status {
        Done, ///< the tree fits the image
        BrokenImage, ///< a default file cannot be used; nothing was changed
        Faulty, ///< a rule or the record is; nothing was changed
        Failed, ///< nothing was changed
        Unfinished ///< see JournalResult: nothing else may be written
    };

    Status status = Status::Done;
    QString message; ///< one line; empty when done. The next opening tries again.
    QVector<PlannedMigration> values; ///< what was done, or was meant to be
};

/// How a tree is brought to fit.
enum class MigrationRun {
    Migrate,
    Undo ///< takes back what the last run did
};

/// What migrate() would do now. Reads the files without a lock and changes nothing.
MigrationResult planMigrationOf(const MigrationPlace& place, MigrationRun run);

/// Fits the written files of a tree to the image, all or none of them, and records it. Afterwards
/// removes directories that it has emptied. For the owner of the tree, whose descriptor `directory`
/// is, before a worker reads it and after redoJournal().
///
/// When the default tree has the stamp, and the product is the one, that the tree was fitted to,
/// only stamp and record are read. Otherwise all files of both trees are.
MigrationResult migrate(int directory, const MigrationPlace& place, MigrationRun run);

/// What the record becomes when values are reset: see MigrationRecord::forgetValues(). To be
/// written with the reset; empty when nothing changes. A record that cannot be read is left as it
/// is.
QHash<QString, QByteArray> recordAfterReset(
    int directory, const std::function<bool(const QString& settingPath)>& isReset);

/// One line for people, without the values: they may be secret.
QString describe(const PlannedMigration& value);

} // namespace tulo
