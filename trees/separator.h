#pragma once

#include <QLatin1Char>
#include <QString>

namespace tulo {

/// Between the names of a path, a setting's or a file's.
inline constexpr QLatin1Char separator('/');

/// The last name of a path.
inline QString nameOf(const QString& path)
{
    return path.mid(path.lastIndexOf(separator) + 1);
}

} // namespace tulo
