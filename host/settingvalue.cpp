#include "host/settingvalue.h"

#include "api/core/model/cmedit.h"
#include "api/core/tulojson.h"

namespace {

QString jsonText(const QVariant& content)
{
    return QString::fromUtf8(TuloJson::serialize(content));
}

} // namespace

QString kindOfSetting(const TuloRoles& roles)
{
    if (!roles.value().kind().isEmpty())
        return roles.value().kind();
    if (!roles.defaultValue().kind().isEmpty())
        return roles.defaultValue().kind();
    return CMEdit::kind(TuloValue(), roles.edit());
}

TuloValue valueOfKind(const QString& kind, const QVariant& content)
{
    TuloValue value = TuloValue::ofContent(content);
    TuloValue converted = value.convertedTo(kind);
    if (!converted.isEmpty())
        return converted;
    const bool isScalar = !value.isEmpty() && value.kind() != TuloValue::List();
    if (kind == TuloValue::String() && isScalar)
        return TuloValue::of(kind, jsonText(value.content()));
    return value;
}

QString withLimits(const QString& reason, const TuloEdit& edit)
{
    QString text = reason;
    const QVariantHash constraints = edit.__variant().toHash();
    for (auto constraint = constraints.cbegin(); constraint != constraints.cend(); ++constraint) {
        const QString name = QLatin1Char('\'') + constraint.key() + QLatin1Char('\'');
        if (constraint.key() != TuloEdit::Kind() && reason.contains(name))
            text.replace(name, QStringLiteral("%1 (%2)").arg(name, jsonText(*constraint)));
    }
    return text;
}
