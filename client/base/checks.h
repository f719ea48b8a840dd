#pragma once

#include "tulo/error.h"
#include "tulo/export.h"

#include <QString>

// What is wrong with a request by itself, in the same words wherever that is noticed. Shared by the
// kinds of settings, not installed.

namespace tulo {

/// A path, or a name that a program gave, for a one-line message: percent-encoded, and cut when it
/// is long because that is what is wrong with it.
TULO_SETTINGS_EXPORT QString shownPath(const QString& path);

/// Components of a path, the mount included.
inline constexpr int maximumLevels = 16;
inline constexpr int maximumNameBytes = 200; ///< of a component, in UTF-8
inline constexpr int maximumPathBytes = 1000; ///< of a whole path, in UTF-8

/// What is wrong with a text that names a bus: "system", "session" or an address. Empty when
/// nothing is.
TULO_SETTINGS_EXPORT QString checkBus(const QString& bus);

/// What is wrong with a path by itself.
TULO_SETTINGS_EXPORT Error checkPath(const QString& path);

} // namespace tulo
