#include "commands.h"

#include "trees/settingvalue.h"

#include "api/core/model/cmedit.h"
#include "api/core/model/cmoperation.h"
#include "api/core/model/tulosettingsactions.h"
#include "api/core/tulojson.h"
#include "api/core/tuloroles.h"
#include "textinput.h"

namespace tulo {

namespace {

const QString stringOption = QStringLiteral("string");
const QString rolesOption = QStringLiteral("roles");
const QString defaultOption = QStringLiteral("default");

int report(Context& context, const Failure& failure)
{
    context.output.failure(failure);
    return failure.exitCode;
}

// ---------------------------------------------------------------------------------------------
// What was given: the setting as it is now, and the VALUE.
// ---------------------------------------------------------------------------------------------

// The roles that tell what a value has to be. A setting that does not exist yet takes them from
// its directory; none are answered for a path where the change itself will fail.
Answer<TuloRoles> readSetting(Session& session, const QString& path)
{
    const QStringList names { TuloRoles::Value(), TuloRoles::DefaultValue(), TuloRoles::Edit() };
    Answer<QVariantHash> answer = session.getData(path, names);
    if (answer.failure.exitCode == NoSuchPath) {
        const QString parent = path.section(QLatin1Char('/'), 0, -2);
        answer = session.getData(parent, names);
        if (answer.failure)
            return {};
    }
    return { TuloRoles(TuloHash(answer.value)), answer.failure };
}

// VALUE, with "-" replaced by what standard input holds.
Answer<QString> readText(const Context& context, const QString& word)
{
    if (word != QLatin1String("-"))
        return { word, {} };
    if (context.inShell) {
        return { {},
                 usageFailure(QStringLiteral(
                     "'-' reads standard input, from which the shell reads its lines")) };
    }
    Answer<QString> text = readStandardInput();
    if (text.value.endsWith(QLatin1Char('\n')))
        text.value.chop(1);
    return text;
}

bool looksStructured(const QString& text)
{
    return text.startsWith(QLatin1Char('[')) || text.startsWith(QLatin1Char('{'));
}

// The value that `text` stands for in a setting whose values are of `kind`.
Answer<TuloValue> parseValue(const QString& text, const QString& kind)
{
    TuloError error;
    const QVariant content = TuloJson::parse(text.toUtf8(), error, nullptr);
    if (!error.isEmpty() && looksStructured(text)) {
        return { {},
                 usageFailure(
                     QStringLiteral("VALUE is not valid JSON (%1); '--string' takes it as a text")
                         .arg(error.message())) };
    }
    if (!error.isEmpty())
        return { TuloValue::of(TuloValue::String(), text), {} };

    if (content.userType() == QMetaType::QVariantHash) {
        const TuloValue value { TuloHash(content.toHash()) };
        if (!value.convertedTo(value.kind()).isEmpty())
            return { value, {} };
        return { {},
                 usageFailure(QStringLiteral("VALUE is an object, but not one with a single kind "
                                             "(%1) and what fits it")
                                  .arg(TuloValue::kinds().join(QStringLiteral(", ")))) };
    }
    const bool isText = content.userType() == QMetaType::QString;
    const bool isList = content.userType() == QMetaType::QVariantList;
    // As it was typed: 1.0 is no longer 1.0 once it was a number.
    if (kind == TuloValue::String() && !isText && !isList)
        return { TuloValue::of(kind, text), {} };
    const TuloValue value = valueOfKind(kind, content);
    if (value.isEmpty())
        return { {}, usageFailure(QStringLiteral("'%1' is not a value").arg(text)) };
    return { value, {} };
}

Answer<TuloValue> givenValue(const Context& context, const Arguments& arguments,
                             const QString& word, const TuloRoles& setting)
{
    const Answer<QString> text = readText(context, word);
    if (text.failure)
        return { {}, text.failure };
    if (arguments.isSet(stringOption))
        return { TuloValue::of(TuloValue::String(), text.value), {} };
    return parseValue(text.value, kindOfSetting(setting));
}

// ---------------------------------------------------------------------------------------------
// What came of it.
// ---------------------------------------------------------------------------------------------

bool isSame(const TuloValue& requested, const TuloValue& stored)
{
    return requested == stored || requested.convertedTo(stored.kind()) == stored;
}

void printStored(Output& output, const QString& path, const QVariantHash& roles)
{
    if (output.isJson()) {
        output.object({ { QStringLiteral("path"), path }, { QStringLiteral("roles"), roles } });
    } else {
        output.value(roles.value(TuloRoles::Value()));
    }
}

QString shownValue(const TuloValue& value)
{
    return shownInCell(value.isEmpty() ? QVariant() : value.__variant());
}

Failure adjusted(const QString& path, const QString& what, const QString& reason,
                 const TuloValue& now)
{
    return { Adjusted, QStringLiteral("Adjusted"),
             QStringLiteral("%1 was adjusted: %2; the value is now %3")
                 .arg(what, reason, shownValue(now)),
             path };
}

// Prints what a change of `before` to `requested` led to.
int printOutcome(Context& context, const QString& path, const TuloRoles& before,
                 const TuloValue& requested, const QVariantHash& roles)
{
    const TuloValue now(TuloHash(roles.value(TuloRoles::Value()).toHash()));
    if (isSame(requested, now)) {
        printStored(context.output, path, roles);
        return Done;
    }
    const QString reason = validateChange(before, requested).reason;
    printStored(context.output, path, roles);
    return report(context, adjusted(path, shownValue(requested), reason, now));
}

// ---------------------------------------------------------------------------------------------
// set
// ---------------------------------------------------------------------------------------------

int setRoles(Context& context, const Arguments& arguments, const QString& path)
{
    TuloError error;
    const QVariant roles = TuloJson::parse(arguments.value(rolesOption).toUtf8(), error, nullptr);
    if (!error.isEmpty() || roles.userType() != QMetaType::QVariantHash) {
        return report(
            context,
            usageFailure(
                error.isEmpty()
                    ? QStringLiteral("'--roles' needs a JSON object")
                    : QStringLiteral("'--roles' needs a JSON object: %1").arg(error.message())));
    }
    const Answer<TuloRoles> before = readSetting(*context.session, path);
    const Answer<QVariantHash> answer = context.session->setRoles(path, roles.toHash());
    if (answer.failure)
        return report(context, answer.failure);
    const TuloValue requested = TuloRoles(TuloHash(roles.toHash())).value();
    if (!requested.isEmpty())
        return printOutcome(context, path, before.value, requested, answer.value);
    printStored(context.output, path, answer.value);
    return Done;
}

int setValue(Context& context, const QString& path, const TuloRoles& before, const TuloValue& value)
{
    const Answer<QVariantHash> answer = context.session->setValue(path, value);
    if (answer.failure)
        return report(context, answer.failure);
    return printOutcome(context, path, before, value, answer.value);
}

} // namespace

int runSet(Context& context, const Arguments& arguments)
{
    const QString path = arguments.positional.first();
    const bool hasValue = arguments.positional.size() > 1;
    const bool hasRoles = arguments.isSet(rolesOption);
    const bool toDefault = arguments.isSet(defaultOption);
    if (int(hasValue) + int(hasRoles) + int(toDefault) != 1) {
        return report(context,
                      usageFailure(QStringLiteral(
                          "'set' needs one of VALUE, '--roles JSON' and '--default'")));
    }
    if (arguments.isSet(stringOption) && !hasValue)
        return report(context, usageFailure(QStringLiteral("'--string' needs a VALUE")));
    if (hasRoles)
        return setRoles(context, arguments, path);

    const Answer<TuloRoles> before = readSetting(*context.session, path);
    if (before.failure)
        return report(context, before.failure);
    if (!toDefault) {
        const Answer<TuloValue> value =
            givenValue(context, arguments, arguments.positional.at(1), before.value);
        if (value.failure)
            return report(context, value.failure);
        return setValue(context, path, before.value, value.value);
    }
    const TuloValue value = before.value.defaultValue();
    if (value.isEmpty()) {
        const Failure failure = context.session->getData(path, {}).failure;
        return report(context,
                      failure ? failure
                              : Failure { Refused, QStringLiteral("Refused"),
                                          QStringLiteral("there is no default value"), path });
    }
    return setValue(context, path, before.value, value);
}

// ---------------------------------------------------------------------------------------------
// op
// ---------------------------------------------------------------------------------------------

namespace {

bool takesOperand(const QString& verb)
{
    return verb != QLatin1String("toggle") && verb != QLatin1String("next")
        && verb != QLatin1String("previous");
}

Failure checkVerb(const QString& verb, bool hasOperand)
{
    if (!CMOperation::verbs().contains(verb)) {
        return usageFailure(QStringLiteral("unknown verb '%1'; verbs are: %2")
                                .arg(verb, CMOperation::verbs().join(QStringLiteral(", "))));
    }
    if (hasOperand && !takesOperand(verb))
        return usageFailure(QStringLiteral("'%1' takes no VALUE").arg(verb));
    if (!hasOperand && takesOperand(verb))
        return usageFailure(QStringLiteral("'%1' needs a VALUE").arg(verb));
    return {};
}

// Prints what an operation on `before` led to. Others may have changed the setting in between,
// so only a result that the constraints explain was adjusted.
int printResult(Context& context, const QString& path, const TuloRoles& before,
                const TuloOperation& operation, const QVariantHash& roles)
{
    const TuloValue now(TuloHash(roles.value(TuloRoles::Value()).toHash()));
    const ValidatedValue validated = validateOperation(before, operation);
    printStored(context.output, path, roles);
    if (validated.reason.isEmpty() || validated.value != now || isSame(validated.asked, now))
        return Done;
    return report(context, adjusted(path, shownValue(validated.asked), validated.reason, now));
}

} // namespace

int runOp(Context& context, const Arguments& arguments)
{
    const QString path = arguments.positional.at(0);
    const QString verb = arguments.positional.at(1);
    const bool hasOperand = arguments.positional.size() > 2;
    const Failure failure = checkVerb(verb, hasOperand);
    if (failure)
        return report(context, failure);
    const Answer<TuloRoles> before = readSetting(*context.session, path);
    if (before.failure)
        return report(context, before.failure);
    Answer<TuloValue> operand;
    if (hasOperand)
        operand = givenValue(context, arguments, arguments.positional.at(2), before.value);
    if (operand.failure)
        return report(context, operand.failure);

    const Answer<QVariantHash> answer = context.session->apply(path, verb, operand.value);
    if (answer.failure)
        return report(context, answer.failure);
    return printResult(context, path, before.value, TuloOperation(verb, operand.value),
                       answer.value);
}

// ---------------------------------------------------------------------------------------------
// The actions
// ---------------------------------------------------------------------------------------------

namespace {

int printDone(Context& context, const Failure& failure, const QString& path)
{
    if (failure)
        return report(context, failure);
    if (context.output.isJson()) {
        context.output.object(
            { { QStringLiteral("path"), path }, { QStringLiteral("done"), true } });
    }
    return Done;
}

} // namespace

int runFlush(Context& context, const Arguments&)
{
    return printDone(context, context.session->flush(), TuloSettingsActionsFlush().text());
}

int runDropCache(Context& context, const Arguments&)
{
    return printDone(context, context.session->dropCache(), TuloSettingsActionsDropCache().text());
}

} // namespace tulo
