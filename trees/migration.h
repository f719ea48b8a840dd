#pragma once

#include "trees/journal.h"
#include "trees/migrationrecord.h"
#include "trees/migrationrules.h"

#include "api/core/tuloroles.h"
#include "api/core/tulovalue.h"

#include <QByteArray>
#include <QHash>
#include <QMap>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

// What becomes of the written files of a tree when the image changes. Nothing here touches a file.
// All paths are setting paths, "/audio/volume".

namespace tulo {

/// What an image ships, as the worker sees it for one product.
struct ImageSettings
{
    /// Settings with a default file, with the roles that they have unless something is written.
    /// Another product's variant, which listings show as a setting, is among them.
    QHash<QString, TuloRoles> settings;
    /// By directory, the roles of ".meta" where it allows clients to make children.
    QHash<QString, TuloRoles> templates;
    QSet<QString> directories;

    /// The roles of a setting that can be at `path`: a shipped one, or a child that a client may
    /// make there. None where the image has no place for a written value.
    std::optional<TuloRoles> place(const QString& path) const;
    /// The shipped settings that have an id, sorted: one as a rule. Variants of a setting count as
    /// it.
    QHash<QString, QStringList> pathsById() const;
};

struct MigrationInput
{
    QMap<QString, QByteArray> written; ///< content by path; what cannot be parsed stays as it is
    QSet<QString> writtenDirectories; ///< nothing is written where one of them is
    ImageSettings image;
    QVector<Migration> migrations; ///< that the image brings
    MigrationRecord record; ///< of the tree
};

/// What becomes of one written value.
struct PlannedMigration
{
    QString from; ///< empty: it comes back out of the record
    QString to; ///< empty: it is taken away
    TuloValue before; ///< both empty for an encrypted setting
    TuloValue after;
    /// Why: "id 'VEH-0602'", "0001-drive-mode", "undo 0001-drive-mode".
    QStringList causes;
    /// Why it stays where and as it is instead; then `to` and `after` are what it was meant to be.
    QString obstacle;
};

struct MigrationPlan
{
    QVector<FileChange> changes; ///< of written files, by path
    MigrationRecord record; ///< as it is to be afterwards
    QVector<PlannedMigration> values; ///< by path
};

/// Fits the written files to an image:
///
/// 1. Migrations that were applied and that the image does not know are taken back. Known are those
///    that it brings, and all with a number below the highest of them.
/// 2. A value whose setting has moved follows its id.
/// 3. Migrations that the image brings and that have not been applied are applied in order.
///
/// A value goes, or becomes, only what the image can take there as it is; otherwise it stays where
/// and as it is. Where an older image comes back and cannot take a value that a user set
/// meanwhile, that image gets what it had, and the newer value stays in the record for the image
/// that it belongs to. No written value is overwritten by another setting's.
[[nodiscard]] MigrationPlan planMigration(const MigrationInput& input);

/// Takes back what the last run that changed anything did, for an older image that does not do so
/// itself. What users changed since is carried back too, if its kind allows.
[[nodiscard]] MigrationPlan planUndo(const MigrationInput& input);

} // namespace tulo
