#pragma once

#include <QLatin1Char>
#include <QString>
#include <QtGlobal>

namespace tulo {

/// Between the names of a path, a setting's or a file's.
inline constexpr QLatin1Char separator('/');

/// The last name of a path.
inline QString nameOf(const QString& path)
{
    return path.mid(path.lastIndexOf(separator) + 1);
}

/// What stands before the last "/"; nothing for a path without one, or at the top.
inline QString parentOf(const QString& path)
{
    return path.left(qMax(path.lastIndexOf(separator), 0));
}

/// Tells whether `path` is `top` or in it; everything is in "/".
inline bool isAtOrBelow(const QString& path, const QString& top)
{
    return path == top || top == QString(separator)
        || (path.size() > top.size() && path.startsWith(top) && path[top.size()] == separator);
}

} // namespace tulo
