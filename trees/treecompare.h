#pragma once

#include "trees/treecheck.h"

#include <QString>
#include <QVector>

#include <functional>

namespace tulo {

/// How a setting, or a directory whose children clients make, differs from an older image.
struct ImageChange
{
    RuleId rule = RuleId::Removed; ///< of the group "against"
    QString oldPath; ///< "/vehicle/drive-mode"
    QString newPath; ///< the same unless it moved; empty when it is gone
};

/// Tells whether changed values survive a change of the image by themselves.
using Coverage = std::function<bool(const ImageChange&)>;

/// What users of the image in `oldPath` would lose with that of `trees`: settings are found again
/// by their id, or by their path. Each product of the old image is compared.
[[nodiscard]] QVector<TreeFinding> compareTrees(const QString& oldPath, const TreesToCheck& trees,
                                                const Coverage& isCovered);

} // namespace tulo
