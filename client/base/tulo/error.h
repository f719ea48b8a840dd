#pragma once

#include "tulo/export.h"

#include <QMetaType>
#include <QString>

namespace tulo {

/// Why a request was not served.
enum class ErrorCode {
    None, ///< no error
    InvalidPath, ///< the path names nothing
    NotModifiable, ///< a change to a read-only setting
    Refused, ///< a path, name or role that is not served, or not to this caller
    Rejected, ///< a value that the setting cannot have
    Conflict, ///< the setting no longer is what the change expected
    NotSaved, ///< accepted, but not confirmed to be on disk
    Limits, ///< too long, too deep or too many
    Unavailable, ///< no service, no bus, or the setting's files cannot be read at this moment
    Cancelled, ///< the caller gave up waiting; the request may have been carried out
    Internal ///< everything else
};

/// What is said about an error code wherever it appears. The one table of them.
struct ErrorDescription
{
    ErrorCode code;
    const char* name; ///< for programs, such as "InvalidPath"; the last part of the D-Bus name
    int exitCode; ///< of the command line
    const char* sentence; ///< for documents and help
};

/// The entry of `code`.
TULO_SETTINGS_EXPORT const ErrorDescription& describe(ErrorCode code);
/// The code with that name; Internal for a name that no code has.
TULO_SETTINGS_EXPORT ErrorCode errorCodeNamed(const QString& name);

/// An error of a request; converts to false when there is none.
struct [[nodiscard]] Error
{
    ErrorCode code = ErrorCode::None;
    QString message; ///< one line for people: what happened, to what
    QString path; ///< the setting or directory it is about; empty when it is about none

    explicit operator bool() const { return code != ErrorCode::None; }
    /// Such as "InvalidPath"; empty when there is no error.
    TULO_SETTINGS_EXPORT QString name() const;
};

TULO_SETTINGS_EXPORT bool operator==(const Error& left, const Error& right);

} // namespace tulo

Q_DECLARE_METATYPE(tulo::Error)
