#pragma once

#include "tulo/error.h"
#include "tulo/export.h"

#include <QString>

// What is wrong with a request by itself, in the same words wherever that is noticed. Shared by the
// kinds of settings, not installed.

namespace tulo {

/// A path for a one-line message: percent-encoded, and cut when it is long because that is what is
/// wrong with it.
TULO_SETTINGS_EXPORT QString shownPath(const QString& path);

/// Rejects what is not a value of one of the five types: null, bytes, a number that is not finite,
/// a text that is not valid Unicode or has a zero character, and lists that hold such.
TULO_SETTINGS_EXPORT Error unsuitableValue(const QString& path);

} // namespace tulo
