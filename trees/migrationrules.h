#pragma once

#include <QByteArray>
#include <QPair>
#include <QString>
#include <QVariant>
#include <QVector>

namespace tulo {

/// One step of a migration.
struct MigrationStep
{
    enum class Kind {
        Rename, ///< of a setting, or of a directory with everything below it
        Clamp, ///< numbers into the range and to the step that the image has now
        Remove, ///< written values are taken away, so that the image's default shows
        Map, ///< a value for a value
        Convert ///< a number or text into another kind
    };

    Kind kind = Kind::Rename;
    QString target; ///< a setting path, of a directory too, or, without "/" in front, an id
    QString to; ///< Rename: the new setting path
    QVector<QPair<QVariant, QVariant>> values; ///< Map: old and new content
    QString valueKind; ///< Convert: such as "int"
    double scale = 1; ///< Convert: numbers are multiplied by it
};

/// What one file of rules says. docs/migrations.md describes the files.
struct Migration
{
    QString name; ///< "0001-drive-mode", from the name of the file
    int number = 0;
    QVector<MigrationStep> steps; ///< in order
};

/// Reads one file of rules; `fileName` is for messages. Empty, or "FILE:LINE:COLUMN: reason".
[[nodiscard]] QString parseMigration(const QString& fileName, const QByteArray& text,
                                     Migration* migration);

/// Reads all rules in a directory, in order of their numbers. None when there is no such directory.
/// Returns an empty text, or what is wrong with one of the files, which means that no rule can be
/// relied on.
[[nodiscard]] QString readMigrations(const QString& directory, QVector<Migration>* migrations);

/// Where the rules of an image are: "settings-migrations" in the directory that holds the default
/// tree, links resolved: the same for everybody who opens it.
QString migrationsBeside(const QString& defaultPath);

/// Something that changed from one default tree to the next, so that written values are lost or no
/// longer fit.
struct ImageChange
{
    enum class Kind { Removed, Narrowed, KindChanged, MadeReadOnly };

    Kind kind = Kind::Removed;
    QString path; ///< in the old tree
    QString newPath; ///< in the new tree; of what was removed the same as `path`
    QString id; ///< in the old tree; empty when it has none
};

/// Tells whether one of the migrations takes care of the written values.
bool covers(const QVector<Migration>& migrations, const ImageChange& change);

} // namespace tulo
