#include "tulo-cm/change.h"

#include "tulo-cm/flushing.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/textinput.h"
#include "tulo-cm/waiting.h"

#include "trees/plainjson.h"

namespace tulo {

// ---------------------------------------------------------------------------------------------
// What was given: VALUE, to be taken for what the setting needs.
// ---------------------------------------------------------------------------------------------

int readSetting(Context& context, const QString& path, QVariantMap* roles)
{
    const QStringList names { roles::value(), roles::defaultValue(), roles::edit() };
    const auto setting = finished(context.settings->get(path, names));
    if (setting.error() && setting.error().code != ErrorCode::InvalidPath)
        return context.output.report(setting.error());
    *roles = setting.value();
    if (setting.error()) {
        const QString directory = path.section(QLatin1Char('/'), 0, -2);
        *roles = finished(context.settings->get(directory, names)).value();
    }
    return Done;
}

namespace {

// VALUE, with "-" replaced by what standard input holds.
int readText(const Context& context, const QString& word, QString* text)
{
    *text = word;
    if (word != QLatin1String("-"))
        return Done;
    if (context.inShell) {
        return context.output.reportUsage(
            QStringLiteral("'-' reads standard input, from which the shell reads its lines"));
    }
    QString error;
    const std::optional<QString> input = readStandardInput(&error);
    if (!input)
        return context.output.reportUsage(error);
    *text = input->endsWith(QLatin1Char('\n')) ? input->chopped(1) : *input;
    return Done;
}

bool looksStructured(const QString& text)
{
    return text.startsWith(QLatin1Char('[')) || text.startsWith(QLatin1Char('{'));
}

// Whether the map is a value under its kind, such as {"int": 5}.
bool isValueObject(const QVariantMap& object)
{
    if (object.size() != 1 || !kinds().contains(object.firstKey()))
        return false;
    const QString kind = kindOf(object.first());
    return kind == object.firstKey()
        || (kind == QLatin1String("int") && object.firstKey() == QLatin1String("double"));
}

QString validate(const QVariant& content, const QString& text)
{
    if (content.userType() == QMetaType::QVariantMap) {
        if (isValueObject(content.toMap()))
            return QString();
        return QStringLiteral("VALUE is an object, but not one with a single kind (%1) and what "
                              "fits it")
            .arg(kinds().join(QLatin1String(", ")));
    }
    return kindOf(content).isEmpty() ? QStringLiteral("'%1' is not a value").arg(text) : QString();
}

// Constraints, the default and the value tell, in this order.
bool wantsText(const QVariantMap& setting)
{
    const QVariantMap edit = setting.value(roles::edit()).toMap();
    const QString kind = edit.value(QStringLiteral("kind")).toString();
    if (!kind.isEmpty())
        return kind == QLatin1String("string");
    for (const QVariant& value :
         { edit.value(QStringLiteral("min")), edit.value(QStringLiteral("max")),
           edit.value(QStringLiteral("values")).toList().value(0),
           setting.value(roles::defaultValue()), setting.value(roles::value()) }) {
        if (value.isValid())
            return value.userType() == QMetaType::QString;
    }
    return false;
}

// A number or truth value that was not typed as JSON spells it is no longer the same text once it
// was read: 1.50, 1e3. Only a setting that holds texts needs it as it was typed.
int readAsTyped(Context& context, const QString& path, const QString& text, QVariant* value)
{
    const bool isScalar = value->userType() != QMetaType::QString
        && value->userType() != QMetaType::QVariantList
        && value->userType() != QMetaType::QVariantMap;
    if (!isScalar || jsonOf(*value) == text.toUtf8())
        return Done;
    QVariantMap setting;
    const int exitCode = readSetting(context, path, &setting);
    if (wantsText(setting))
        *value = text;
    return exitCode;
}

int parseValue(Context& context, const QString& path, const QString& text, QVariant* value)
{
    QString error;
    *value = fromJson(text.toUtf8(), &error);
    if (!error.isEmpty() && looksStructured(text)) {
        return context.output.reportUsage(
            QStringLiteral("VALUE is not valid JSON (%1); '--string' takes it as a text")
                .arg(error));
    }
    if (!error.isEmpty()) {
        *value = text;
        return Done;
    }
    error = validate(*value, text);
    return error.isEmpty() ? readAsTyped(context, path, text, value)
                           : context.output.reportUsage(error);
}

} // namespace

int givenValue(Context& context, const Arguments& arguments, const QString& path,
               const QString& word, QVariant* value)
{
    QString text;
    const int exitCode = readText(context, word, &text);
    if (exitCode != Done)
        return exitCode;
    if (!arguments.isSet(stringOption))
        return parseValue(context, path, text, value);
    *value = QVariantMap { { QStringLiteral("string"), text } };
    return Done;
}

int givenRoles(Context& context, const QString& json, QVariantMap* roles)
{
    QString error;
    const QVariant content = fromJson(json.toUtf8(), &error);
    if (!error.isEmpty()) {
        return context.output.reportUsage(
            QStringLiteral("'--roles' needs a JSON object: %1").arg(error));
    }
    if (content.userType() != QMetaType::QVariantMap)
        return context.output.reportUsage(QStringLiteral("'--roles' needs a JSON object"));
    *roles = content.toMap();
    return Done;
}

// ---------------------------------------------------------------------------------------------
// What became of it.
// ---------------------------------------------------------------------------------------------

namespace {

int printOutcome(Output& output, const QString& path, const Change& change)
{
    const QVariant value = change.stored.value(roles::value());
    if (output.isJson())
        output.object(nodeObject(path, roleObject(change.stored)));
    else
        output.value(value);
    if (!change.isAdjusted)
        return Done;
    return output.report(Adjusted, "Adjusted",
                         QStringLiteral("%1 was adjusted: %2; the value is now %3")
                             .arg(shownInCell(change.asked), change.reason, shownInCell(value)),
                         path);
}

} // namespace

int printChange(Context& context, const Arguments& arguments, const QString& path,
                const Reply<Change>& reply)
{
    const auto change = finished(reply);
    if (change.error())
        return context.output.report(change.error());
    const int exitCode = printOutcome(context.output, path, change.value());
    if (!arguments.isSet(flushOption))
        return exitCode;
    return afterFlush(exitCode, flushChanges(*context.settings, context.output));
}

} // namespace tulo
