#pragma once

#include <QLatin1Char>

/// Between the names of a path, a setting's or a file's.
inline constexpr QLatin1Char separator('/');
