#include "checks.h"

#include <QUrl>

namespace tulo {
namespace {

constexpr int shownPathLength = 200;

} // namespace

QString shownPath(const QString& path)
{
    const QString text = QString::fromLatin1(QUrl::toPercentEncoding(path, "/"));
    return text.size() <= shownPathLength ? text
                                          : text.left(shownPathLength) + QLatin1String("...");
}

Error unsuitableValue(const QString& path)
{
    return { ErrorCode::Rejected,
             QStringLiteral("The value for '%1' is not one that a setting can have")
                 .arg(shownPath(path)),
             path };
}

} // namespace tulo
