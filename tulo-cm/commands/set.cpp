#include "tulo-cm/change.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/waiting.h"

namespace tulo {
namespace {

constexpr Option rolesOption { "roles", "JSON", "send these roles, an object" };
constexpr Option defaultOption { "default", "", "store today's default value" };

QString validate(const Arguments& arguments)
{
    const bool hasValue = arguments.positional.size() > 1;
    if (int(hasValue) + int(arguments.isSet(rolesOption)) + int(arguments.isSet(defaultOption))
        != 1)
        return QStringLiteral("'set' needs one of VALUE, '--roles JSON' and '--default'");
    if (arguments.isSet(stringOption) && !hasValue)
        return QStringLiteral("'--string' needs a VALUE");
    return QString();
}

int defaultValue(Context& context, const QString& path, QVariant* value)
{
    QVariantMap setting;
    const int exitCode = readSetting(context, path, &setting);
    *value = setting.value(roles::defaultValue());
    if (exitCode != Done || value->isValid())
        return exitCode;
    // Or there is no such setting at all.
    const auto node = finished(context.settings->get(path, { roles::type() }));
    return context.output.report(
        node.error()
            ? node.error()
            : Error { ErrorCode::Refused, QStringLiteral("there is no default value"), path });
}

int setRoles(Context& context, const Arguments& arguments, const QString& path)
{
    QVariantMap roles;
    const int exitCode = givenRoles(context, arguments.value(rolesOption), &roles);
    if (exitCode != Done)
        return exitCode;
    return printChange(context, arguments, path, context.settings->setRoles(path, roles));
}

int run(Context& context, const Arguments& arguments)
{
    const QString error = validate(arguments);
    if (!error.isEmpty())
        return context.output.reportUsage(error);
    const QString path = arguments.positional.first();
    if (arguments.isSet(rolesOption))
        return setRoles(context, arguments, path);
    QVariant value;
    const int exitCode = arguments.isSet(defaultOption)
        ? defaultValue(context, path, &value)
        : givenValue(context, arguments, path, arguments.positional.at(1), &value);
    if (exitCode != Done)
        return exitCode;
    return printChange(context, arguments, path, context.settings->set(path, value));
}

} // namespace

namespace commands {

Command set()
{
    return { "set",
             "",
             { { "PATH", Argument::Count::One, Argument::Kind::Path },
               { "VALUE", Argument::Count::Optional, Argument::Kind::Value } },
             { stringOption, rolesOption, defaultOption, flushOption },
             "Changes a setting and prints the value that is stored now. VALUE is read as JSON, "
             "else\nas a text; \"-\" reads it from standard input, except in the shell. In place "
             "of VALUE:\n--roles, or --default, which stores today's default, so that the default "
             "of a later image\ndoes not show: see 'reset'.",
             "set /settings/audio/volume 40",
             Command::Where::Anywhere,
             Command::Needs::Changes,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
