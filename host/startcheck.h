#pragma once

#include <QString>
#include <QStringList>

/// What stands in a tree that a settings service does not expect there. Entries are file names.
struct TreeOddities
{
    /// Neither regular files nor directories nor links to these: reading one could block for
    /// ever.
    QStringList special;
    /// Links in a writable tree: a change through one is refused.
    QStringList links;
};

/// Looks at everything in the default tree in `directory`.
TreeOddities inspectDefaultTree(const QString& directory);

/// Looks at everything in the writable tree in `directory`.
TreeOddities inspectWritableTree(const QString& directory);
