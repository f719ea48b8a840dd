#include "tulo-cm/constraints.h"

#include "tulo-cm/roles.h"

#include "trees/plainjson.h"

#include <QMetaType>
#include <QStringList>

namespace tulo {
namespace {

QString shown(const QVariant& value)
{
    return value.userType() == QMetaType::QString ? value.toString()
                                                  : QString::fromUtf8(jsonOf(value));
}

QVariant entry(const QVariantMap& edit, const char* name)
{
    return edit.value(QLatin1String(name));
}

bool namesDouble(const QVariant& value)
{
    return value.userType() == QMetaType::Double;
}

QString kindOfRoles(const QVariantMap& edit, const QVariantMap& roles)
{
    QString named = entry(edit, "kind").toString();
    if (!named.isEmpty())
        return named;
    const QVariantList values = entry(edit, "values").toList();
    const QVariant defaultValue = roles.value(roles::defaultValue());
    for (const QVariant& value : { entry(edit, "min"), entry(edit, "max"), values.value(0),
                                   defaultValue, roles.value(roles::value()) }) {
        const QString kind = kindOf(value);
        if (kind.isEmpty())
            continue;
        // A number is a double as soon as one of them is.
        const bool isDouble = kind == QLatin1String("int")
            && (namesDouble(entry(edit, "max")) || namesDouble(defaultValue)
                || namesDouble(roles.value(roles::value())));
        return isDouble ? QStringLiteral("double") : kind;
    }
    return QString();
}

QString range(const QVariantMap& edit)
{
    const QVariant minimum = entry(edit, "min");
    const QVariant maximum = entry(edit, "max");
    QString text;
    if (minimum.isValid() && maximum.isValid())
        text = QStringLiteral(" from %1 to %2").arg(shown(minimum), shown(maximum));
    else if (minimum.isValid())
        text = QStringLiteral(" of at least %1").arg(shown(minimum));
    else if (maximum.isValid())
        text = QStringLiteral(" of at most %1").arg(shown(maximum));
    const QVariant step = entry(edit, "step");
    if (step.isValid())
        text += QStringLiteral(" in steps of %1").arg(shown(step));
    return text;
}

QString length(const QVariantMap& edit, const char* one, const char* many)
{
    const QVariant minimum = entry(edit, "minLength");
    const QVariant maximum = entry(edit, "maxLength");
    const auto counted = [one, many](const QVariant& number) {
        return shown(number) + QLatin1Char(' ')
            + QLatin1String(number == QVariant(1LL) ? one : many);
    };
    if (minimum.isValid() && maximum.isValid() && minimum != maximum)
        return QStringLiteral(" of %1 to %2").arg(shown(minimum), counted(maximum));
    if (minimum.isValid() && maximum.isValid())
        return QStringLiteral(" of %1").arg(counted(maximum));
    if (minimum.isValid())
        return QStringLiteral(" of at least %1").arg(counted(minimum));
    return maximum.isValid() ? QStringLiteral(" of at most %1").arg(counted(maximum)) : QString();
}

QString noun(const QString& kind)
{
    if (kind == QLatin1String("bool"))
        return QStringLiteral("true or false");
    if (kind == QLatin1String("int"))
        return QStringLiteral("a whole number");
    if (kind == QLatin1String("double"))
        return QStringLiteral("a number");
    if (kind == QLatin1String("string"))
        return QStringLiteral("a text");
    if (kind == QLatin1String("list"))
        return QStringLiteral("a list");
    return QStringLiteral("any value");
}

QString inWords(const QVariantMap& edit, const QString& kind)
{
    const QVariantList values = entry(edit, "values").toList();
    if (!values.isEmpty()) {
        QStringList texts;
        for (const QVariant& value : values)
            texts.append(shown(value));
        return QStringLiteral("one of %1").arg(texts.join(QStringLiteral(", ")));
    }
    QString text = noun(kind) + range(edit);
    if (kind == QLatin1String("list"))
        text += length(edit, "element", "elements");
    else
        text += length(edit, "character", "characters");
    const QString pattern = entry(edit, "pattern").toString();
    if (!pattern.isEmpty())
        text += QStringLiteral(" that matches the pattern %1").arg(pattern);
    const QVariantMap elements = entry(edit, "elements").toMap();
    if (!elements.isEmpty())
        text += QStringLiteral(", each %1").arg(inWords(elements, kindOfRoles(elements, {})));
    return text;
}

} // namespace

QString valuesInWords(const QVariantMap& roles)
{
    const QVariant edit = roles.value(roles::edit());
    if (edit.isValid() && edit.userType() != QMetaType::QVariantMap)
        return QStringLiteral("no value: its constraints cannot be understood");
    return inWords(edit.toMap(), kindOfRoles(edit.toMap(), roles));
}

} // namespace tulo
