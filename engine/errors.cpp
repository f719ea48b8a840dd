#include "engine/errors.h"

#include <algorithm>
#include <array>

namespace tulo {

namespace {

struct NamedKind
{
    ErrorKind kind;
    QLatin1String name;
};

const std::array<NamedKind, 8> namedKinds { {
    { ErrorKind::InvalidPath, QLatin1String("InvalidPath") },
    { ErrorKind::Refused, QLatin1String("Refused") },
    { ErrorKind::Rejected, QLatin1String("Rejected") },
    { ErrorKind::Unavailable, QLatin1String("Unavailable") },
    { ErrorKind::NotModifiable, QLatin1String("NotModifiable") },
    { ErrorKind::Limits, QLatin1String("Limits") },
    { ErrorKind::InUse, QLatin1String("InUse") },
    { ErrorKind::Stopped, QLatin1String("Stopped") },
} };

} // namespace

QString errorName(ErrorKind kind)
{
    const auto* const entry =
        std::find_if(namedKinds.cbegin(), namedKinds.cend(),
                     [kind](const NamedKind& named) { return named.kind == kind; });
    return entry == namedKinds.cend() ? QString() : QString(entry->name);
}

ErrorKind errorKind(const CMError& error)
{
    const QString name = error.isEmpty() ? QString() : error.name();
    if (name.isEmpty())
        return ErrorKind::None;
    const auto* const entry =
        std::find_if(namedKinds.cbegin(), namedKinds.cend(),
                     [&name](const NamedKind& named) { return named.name == name; });
    return entry == namedKinds.cend() ? ErrorKind::Other : entry->kind;
}

CMError engineError(ErrorKind kind, const QString& message)
{
    return CMError(errorName(kind), TrString(message));
}

} // namespace tulo
