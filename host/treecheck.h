#pragma once

#include <QString>
#include <QVector>

/// Something wrong in a default tree.
struct TreeFinding
{
    enum class Kind {
        Unreadable, ///< counts as missing
        Unparsable, ///< ends the process when it is read
        NoObject, ///< holds a JSON document of another type: no roles
        NoKind, ///< a value that names no known kind, or whose content is not of that kind
        OutsideConstraints, ///< a value that its own constraints would not let in as it is
        NotListed ///< a name that no listing shows
    };

    Kind kind = Kind::Unparsable;
    QString file; ///< its place below the tree, "audio/volume"
    QString message; ///< one line, without the file
};

/// The kind as a word for programs, such as "unparsable".
QString findingName(TreeFinding::Kind kind);

/// Looks at every file of the default tree in `directory` as the worker would read it, variants
/// of all products included, and returns what is wrong, by file in listing order. Reads the file
/// system only, so it needs no worker and disturbs none.
QVector<TreeFinding> checkDefaultTree(const QString& directory);
