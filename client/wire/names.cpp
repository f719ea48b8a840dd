#include "wire/names.h"

#include <cstring>

namespace tulo::wire {

QByteArray addressOf(const QString& bus)
{
    const auto fromEnvironment = [](const char* name, const QByteArray& otherwise) {
        const QByteArray address = qgetenv(name);
        return address.isEmpty() ? otherwise : address;
    };
    if (bus == QLatin1String("system"))
        return fromEnvironment("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/dbus/system_bus_socket");
    if (bus == QLatin1String("session")) {
        const QByteArray directory = qgetenv("XDG_RUNTIME_DIR").toPercentEncoding("/", "~");
        return fromEnvironment("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + directory + "/bus");
    }
    return bus.toUtf8();
}

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
