#include "tulo/error.h"

#include <algorithm>
#include <array>

namespace tulo {
namespace {

constexpr std::array<ErrorDescription, 11> descriptions { {
    { ErrorCode::None, "", 0, "No error." },
    { ErrorCode::InvalidPath, "InvalidPath", 3, "The path names nothing." },
    { ErrorCode::NotModifiable, "NotModifiable", 4, "The setting is read-only." },
    { ErrorCode::Refused, "Refused", 4,
      "A path, name or role that is not served, or not to this caller." },
    { ErrorCode::Rejected, "Rejected", 4, "The setting cannot have this value." },
    { ErrorCode::Conflict, "Conflict", 4, "The setting is no longer as the change expected." },
    { ErrorCode::NotSaved, "NotSaved", 6, "The change is accepted, but not safely on disk." },
    { ErrorCode::Limits, "Limits", 4, "Too long, too deep or too many." },
    { ErrorCode::Unavailable, "Unavailable", 7,
      "No service, no bus, or files that cannot be read at this moment." },
    { ErrorCode::Cancelled, "Cancelled", 130, "The caller stopped waiting." },
    { ErrorCode::Internal, "Internal", 1, "Any other error." },
} };

} // namespace

const ErrorDescription& describe(ErrorCode code)
{
    return descriptions.at(std::size_t(code));
}

ErrorCode errorCodeNamed(const QString& name)
{
    const auto* const entry = std::find_if(
        descriptions.begin() + 1, descriptions.end(),
        [&name](const ErrorDescription& known) { return name == QLatin1String(known.name); });
    return entry == descriptions.end() ? ErrorCode::Internal : entry->code;
}

QString Error::name() const
{
    return QLatin1String(describe(code).name);
}

bool operator==(const Error& left, const Error& right)
{
    return left.code == right.code && left.message == right.message && left.path == right.path;
}

} // namespace tulo
