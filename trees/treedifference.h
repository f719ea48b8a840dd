#pragma once

#include <QString>
#include <QVariant>
#include <QVector>

namespace tulo {

class TreeReader;

/// A difference between two default trees. Paths are setting paths.
struct TreeDifference
{
    enum class Kind {
        Added,
        Removed,
        Moved, ///< the same id at another path
        Changed ///< one role
    };

    Kind kind = Kind::Changed;
    bool isDirectory = false;
    QString path; ///< in the newer tree; of what was removed in the older one
    QString oldPath; ///< of what moved
    QString role; ///< of what changed
    /// Plain values of the role; of what was added, and of what was removed, the default value.
    /// Invalid where there is none, and for the values of an encrypted setting.
    QVariant oldValue;
    QVariant newValue;
};

/// What changed from `older` to `newer`, sorted by path; compareTrees() finds what users
/// would lose by it. A setting that moved has one entry for that, and one for each role that
/// changed as well. A setting moved when its id names one setting among those removed and one among
/// those added; variants of products, which have the id of the plain file, move beside it.
/// `product` is the postfix of both readers: the files of that variant do not count as settings
/// beside theirs.
[[nodiscard]] QVector<TreeDifference> differencesOf(const TreeReader& older,
                                                    const TreeReader& newer,
                                                    const QString& product);

} // namespace tulo
