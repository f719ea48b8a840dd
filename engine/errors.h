#pragma once

#include "api/core/model/cmerror.h"

#include <QString>

namespace tulo {

/// Why a request was not served. The engine's own errors carry the kind's name; every other error
/// of a worker is Other.
enum class ErrorKind {
    None, ///< no error
    InvalidPath, ///< names nothing
    Refused, ///< rejected by the guard before the worker is asked
    Rejected, ///< a value that the setting cannot have
    Unavailable, ///< the setting's files cannot be read at this moment
    NotModifiable, ///< a change to a read-only setting
    Limits, ///< too long, too deep or too many
    InUse, ///< a change by an engine that does not own the writable tree
    Stopped, ///< the engine has stopped, the worker was not asked
    Other ///< the worker's own answer
};

/// The error name of a kind, such as "NotModifiable"; empty for None and Other.
QString errorName(ErrorKind kind);
/// The kind of a reply's error.
ErrorKind errorKind(const CMError& error);
/// An error of the engine: `message` is one line, final and untranslated.
CMError engineError(ErrorKind kind, const QString& message);

} // namespace tulo
