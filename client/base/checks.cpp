#include "checks.h"

#include <QStringView>
#include <QUrl>

#include <algorithm>

namespace tulo {
namespace {

constexpr int shownPathLength = 200;
const QLatin1Char separator('/');

bool isControl(QChar character)
{
    return character.category() == QChar::Other_Control;
}

// Whether the text takes more bytes in UTF-8; for a short one without making them.
bool isLonger(QStringView text, int bytes)
{
    constexpr int bytesPerCharacter = 3;
    return text.size() * bytesPerCharacter > bytes && text.toUtf8().size() > bytes;
}

Error refused(const char* reason, const QString& path)
{
    return { ErrorCode::Refused, QLatin1String(reason).arg(shownPath(path)), path };
}

Error overLimit(const char* reason, const QString& path, int limit)
{
    return { ErrorCode::Limits, QLatin1String(reason).arg(shownPath(path), QString::number(limit)),
             path };
}

} // namespace

QString shownPath(const QString& path)
{
    const QString text = QString::fromLatin1(QUrl::toPercentEncoding(path, "/"));
    return text.size() <= shownPathLength ? text
                                          : text.left(shownPathLength) + QLatin1String("...");
}

QString checkBus(const QString& bus)
{
    // An address begins with the kind of transport and ':'.
    if (bus == QLatin1String("system") || bus == QLatin1String("session")
        || bus.contains(QLatin1Char(':')))
        return QString();
    return QStringLiteral("'%1' is not a bus, which is system, session or an address such as "
                          "unix:path=/run/dbus/system_bus_socket")
        .arg(bus);
}

Error checkPath(const QString& path)
{
    if (path.isEmpty())
        return { ErrorCode::Refused, QStringLiteral("The path is empty"), path };
    if (!path.isValidUtf16())
        return refused("Path '%1' is not valid Unicode", path);
    if (std::any_of(path.cbegin(), path.cend(), isControl))
        return refused("Path '%1' holds a control character", path);
    if (isLonger(path, maximumPathBytes))
        return overLimit("Path '%1' is longer than %2 bytes", path, maximumPathBytes);

    const auto names = path.midRef(path.startsWith(separator) ? 1 : 0).split(separator);
    for (const QStringRef& name : names) {
        if (name.isEmpty())
            return refused("Path '%1' has an empty component", path);
        if (name.startsWith(QLatin1Char('.')))
            return refused("Path '%1' has a component that begins with '.'", path);
        if (isLonger(name, maximumNameBytes)) {
            return overLimit("Path '%1' has a name of more than %2 bytes", path, maximumNameBytes);
        }
    }
    if (names.size() > maximumLevels)
        return overLimit("Path '%1' has more than %2 levels", path, maximumLevels);
    return {};
}

} // namespace tulo
