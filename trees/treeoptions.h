#pragma once

#include <QString>

// What is wrong with options about the trees, in the same words for every program that takes them.
// Empty when nothing is.

namespace tulo {

/// Of the name of a directory, which has to exist.
[[nodiscard]] QString checkDirectory(const QString& path);

/// Of a product postfix; an empty one stands for no product.
[[nodiscard]] QString checkProduct(const QString& postfix);

} // namespace tulo
