#pragma once

#include "trees/locatedjson.h"
#include "trees/rules.h"

#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

namespace tulo {

/// Something in one of the two trees that is wrong or deserves a look.
struct TreeFinding
{
    RuleId rule = RuleId::Syntax;
    bool stopsStart = false; ///< the service does not start on such trees
    bool isCovered = false; ///< a migration takes care of it
    QString file; ///< with the tree's directory in front, as it was given
    QString name; ///< below the tree, such as "audio/volume_sport"; empty for the tree itself
    QString settingPath; ///< what it is about, such as "/audio/volume"; empty when that is nothing
    TextPosition position; ///< none when it is not about the content
    QString message; ///< one line, without the file
};

/// "FILE:LINE:COLUMN", or the file alone, as compilers name places and editors find them.
QString placeOf(const TreeFinding& finding);

/// Looks at both trees, product variants included, for what the service cannot serve and for what
/// it would serve wrongly: first the default tree, then the writable one, each in listing order.
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

/// What checkTrees() looks at.
struct TreesToCheck
{
    QString defaultPath;
    QString writePath; ///< empty: the default tree alone
    /// The product postfix; none: every one that the names in the tree tell of.
    std::optional<QString> product;
    /// The product postfix that the written files belong to; none: as `product`.
    std::optional<QString> writtenBy;
    QStringList catalogues; ///< *.qm files that ought to have every text
};

/// The same with every rule, those about an older tree excepted.
[[nodiscard]] QVector<TreeFinding> checkTrees(const TreesToCheck& trees);

} // namespace tulo
