#include "wire/names.h"

#include <cstring>

namespace tulo::wire {

QString errorName(ErrorCode code)
{
    return QLatin1String(errorPrefix) + QLatin1String(describe(code).name);
}

std::optional<ErrorCode> errorCodeOf(const char* name)
{
    const auto length = std::strlen(errorPrefix);
    if (std::strncmp(name, errorPrefix, length) != 0)
        return std::nullopt;
    return errorCodeNamed(QLatin1String(name + length));
}

} // namespace tulo::wire
