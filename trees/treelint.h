#pragma once

#include "trees/treedocuments.h"

namespace tulo {

/// What is wrong in a default tree that no file tells by itself: variants, ids, texts. Each product
/// is looked at.
[[nodiscard]] QVector<TreeFinding> lintDefaults(const TreeContents& defaults,
                                                const TreesToCheck& trees);

/// What written files hold that does not fit the default tree. Where the product is not known, only
/// what fits none of them.
[[nodiscard]] QVector<TreeFinding> lintWritten(const TreeContents& written,
                                               const TreeContents& defaults,
                                               const TreesToCheck& trees);

} // namespace tulo
