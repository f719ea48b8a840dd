#pragma once

#include <QStringList>

namespace tulo {

/// Tells whether listings show a child of this name. Thread-safe.
bool isListable(const QString& name);

/// The settings of which a file may be a product's variant by its name, which listings show like a
/// setting: "/a/b_c_d" gives "/a/b_c" and "/a/b". Thread-safe.
QStringList plainPathsOf(const QString& path);

} // namespace tulo
