#include "trees/settingvalue.h"

#include "api/core/model/cmedit.h"
#include "api/core/model/cmoperation.h"
#include "api/core/tulojson.h"

namespace tulo {

namespace {

QString jsonText(const QVariant& content)
{
    return QString::fromUtf8(TuloJson::serialize(content));
}

} // namespace

bool isNumberKind(const QString& kind)
{
    return kind == TuloValue::Int() || kind == TuloValue::Double();
}

QString kindOfSetting(const TuloRoles& setting)
{
    const TuloEdit edit = setting.edit();
    const QString constrained = CMEdit::kind(TuloValue(), edit);
    if (constrained.isEmpty()) {
        return setting.defaultValue().kind().isEmpty() ? setting.value().kind()
                                                       : setting.defaultValue().kind();
    }
    const bool mayBeDouble = constrained == TuloValue::Int() && edit.kind().isEmpty();
    const bool isDouble = setting.defaultValue().kind() == TuloValue::Double()
        || setting.value().kind() == TuloValue::Double();
    return mayBeDouble && isDouble ? TuloValue::Double() : constrained;
}

namespace {

// The constraints with the kind spelled out. Malformed ones stay as they are, to refuse.
TuloEdit typedEdit(const TuloRoles& setting)
{
    TuloEdit edit = setting.edit();
    const QString kind = kindOfSetting(setting);
    if (!kind.isEmpty())
        edit.__setHashAttribute(TuloEdit::Kind(), kind);
    return edit;
}

bool isStep(const QString& verb)
{
    return verb == QLatin1String("next") || verb == QLatin1String("previous");
}

// Tells whether the verb can do anything with such a setting; if not, it leaves the value alone.
bool applies(const QString& verb, const QString& kind, const TuloValue& operand,
             const TuloEdit& edit)
{
    if (verb == QLatin1String("toggle"))
        return kind.isEmpty() || kind == TuloValue::Bool();
    if (isStep(verb))
        return isNumberKind(kind) || !edit.values().isEmpty();
    if (verb == QLatin1String("add") || verb == QLatin1String("multiply"))
        return isNumberKind(kind) && !operand.convertedTo(kind).isEmpty();
    return kind == TuloValue::List()
        || (kind == TuloValue::String() && operand.kind() == TuloValue::String());
}

} // namespace

ValidatedValue validateChange(const TuloRoles& setting, const TuloValue& requested)
{
    ValidatedValue result;
    result.asked = requested;
    if (requested.isEmpty())
        return result;
    const TuloEdit edit = typedEdit(setting);
    // Without limits it stays as it is, integers beyond the signed 64 bits among them.
    if (setting.edit().__isEmpty() && (edit.__isEmpty() || edit.kind() == requested.kind())) {
        result.value = requested;
        return result;
    }
    CMEdit::Judgement judgement = CMEdit::judge(setting.value(), requested, edit);
    // The worker, which sees neither default value nor kind, must come to the same. It does where
    // the constraints name the kind: a value that fits is left alone.
    if (!judgement.value.isEmpty() && setting.edit().kind() != edit.kind()) {
        const CMEdit::Judgement workers =
            CMEdit::judge(setting.value(), judgement.value, setting.edit());
        if (workers.value != judgement.value)
            judgement = workers;
    }
    result.value = judgement.value;
    result.isAccepted = !judgement.value.isEmpty();
    result.reason = withLimits(judgement.reason, edit);
    return result;
}

ValidatedValue validateOperation(const TuloRoles& setting, const TuloOperation& operation)
{
    const QString verb = operation.op();
    ValidatedValue result;
    result.isAccepted = false;
    if (!CMOperation::verbs().contains(verb)) {
        result.reason = QStringLiteral("'%1' is not an operation").arg(verb);
        return result;
    }
    if (verb == QLatin1String("set"))
        return validateChange(setting, operation.value());
    const TuloEdit edit = typedEdit(setting);
    const QString kind = edit.kind().isEmpty() ? operation.value().kind() : edit.kind();
    if (!applies(verb, kind, operation.value(), edit)) {
        result.reason =
            QStringLiteral("'%1' is not applicable to a value of kind '%2'").arg(verb, kind);
        return result;
    }
    if (isStep(verb))
        return validateChange(setting, CMOperation::apply(setting.value(), edit, operation));
    // Without the limits, so that the validation can tell which of them cut the result.
    const TuloEdit kindOnly =
        kind.isEmpty() ? TuloEdit() : TuloEdit(TuloHash({ { TuloEdit::Kind(), kind } }));
    return validateChange(setting, CMOperation::apply(setting.value(), kindOnly, operation));
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
    if (reason.isEmpty())
        return reason;
    QString text = reason;
    const QVariantHash constraints = edit.__variant().toHash();
    for (auto constraint = constraints.cbegin(); constraint != constraints.cend(); ++constraint) {
        const QString name = QLatin1Char('\'') + constraint.key() + QLatin1Char('\'');
        if (constraint.key() != TuloEdit::Kind() && reason.contains(name))
            text.replace(name, QStringLiteral("%1 (%2)").arg(name, jsonText(*constraint)));
    }
    return text;
}

} // namespace tulo
