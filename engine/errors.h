#pragma once

#include <tulo/error.h>

#include "api/core/model/cmerror.h"

#include <QString>

namespace tulo {

// Errors as the framework's requests carry them: the name is that of a code. Any other error of a
// worker is Internal.

/// None for an empty error.
ErrorCode errorCode(const CMError& error);
/// The same error as programs get it, about `path`.
Error errorOf(const CMError& error, const QString& path);
/// `message` is one line, final and untranslated.
CMError engineError(ErrorCode code, const QString& message);

} // namespace tulo
