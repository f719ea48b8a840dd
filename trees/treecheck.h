#pragma once

#include <QString>
#include <QVector>

namespace tulo {

/// Something in one of the two trees that is wrong or deserves a look.
struct TreeFinding
{
    enum class Kind {
        Special, ///< neither a regular file nor a directory nor a link to one: reading could block
        TooLarge, ///< too many bytes for a setting
        TooDeep, ///< below the last level that a path can name
        Unreadable, ///< in the default tree: counts as missing
        Unusable, ///< in the writable tree: the user who serves it cannot read or write it
        Unparsable, ///< a default file ends the process when it is read, a written one is ignored
        NoObject, ///< holds a JSON document of another type: no roles
        NoKind, ///< a value that names no known kind, or whose content is not of that kind
        BadEdit, ///< constraints that are not an object: no value satisfies them
        OutsideConstraints, ///< a value that its own constraints would not accept as it is
        NotListed, ///< in the default tree: a name that no listing shows
        Link, ///< in the writable tree: no change is written through it
        HardLink, ///< a temporary file with a second name: a write would overwrite that file
        Clash, ///< a file where the other tree has a directory, or the reverse
        StaleTemporary ///< what an interrupted write may have left; the next one reuses it
    };
    enum class Effect {
        Harmless, ///< nothing has to be done
        Wrong, ///< can be served, but something will not work as it looks
        StopsStart ///< cannot be served
    };

    Kind kind = Kind::Unparsable;
    Effect effect = Effect::Wrong;
    QString file; ///< with the tree's directory in front
    QString message; ///< one line, without the file
};

/// The kind as a word for programs, such as "unparsable".
QString findingName(TreeFinding::Kind kind);

/// Looks at both trees, product variants included, and returns what is wrong: first the default
/// tree, then the writable one, each in listing order.
///
/// Follows links as the worker does, visits each directory once, and goes as deep as paths do.
/// Opens nothing but regular files of at most 1 MiB, takes no lock, writes nothing. In the
/// writable tree it looks at settings and at their temporary files; other hidden files there
/// are ignored. It does not descend into names that no listing shows.
///
/// What cannot be read or written is checked for this process. Root may do everything, so when root
/// runs this, owner, group and mode are checked for the owner of the writable tree; supplementary
/// groups and access control lists do not count then.
[[nodiscard]] QVector<TreeFinding> inspectTrees(const QString& defaultPath,
                                                const QString& writePath);

} // namespace tulo
