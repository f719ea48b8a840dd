#pragma once

#include "trees/migrationrules.h"
#include "trees/treecheck.h"

#include <QString>
#include <QVector>

namespace tulo {

/// What users of the image in `oldPath` would lose with that of `trees`: settings are found again
/// by their id, or by their path. Each product of the old image is compared. What one of
/// `migrations` takes care of is marked as covered. Of what differs without a loss, only moves and
/// default values are reported: differencesOf() lists everything.
[[nodiscard]] QVector<TreeFinding> compareTrees(const QString& oldPath, const TreesToCheck& trees,
                                                const QVector<Migration>& migrations);

} // namespace tulo
