#include "engine/errors.h"

#include "api/core/trstring.h"

namespace tulo {

ErrorCode errorCode(const CMError& error)
{
    const QString name = error.isEmpty() ? QString() : error.name();
    return name.isEmpty() ? ErrorCode::None : errorCodeNamed(name);
}

Error errorOf(const CMError& error, const QString& path)
{
    const ErrorCode code = errorCode(error);
    if (code == ErrorCode::None)
        return {};
    return { code, error.message().toString(), path };
}

CMError engineError(ErrorCode code, const QString& message)
{
    return CMError(QLatin1String(describe(code).name), TrString(message));
}

} // namespace tulo
