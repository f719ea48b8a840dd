#include "tulo-cm/change.h"
#include "tulo-cm/verbs.h"

#include <algorithm>

namespace tulo {
namespace {

QString namesOfVerbs()
{
    QStringList names;
    for (const Verb& verb : verbs)
        names.append(QLatin1String(verb.name));
    return names.join(QLatin1String(", "));
}

QString validate(const QString& name, bool hasOperand)
{
    const auto* const verb = std::find_if(verbs.begin(), verbs.end(), [&name](const Verb& known) {
        return name == QLatin1String(known.name);
    });
    if (verb == verbs.end())
        return QStringLiteral("unknown verb '%1'; verbs are: %2").arg(name, namesOfVerbs());
    const bool takesOperand = verb->operand != Verb::Operand::None;
    if (hasOperand && !takesOperand)
        return QStringLiteral("'%1' takes no VALUE").arg(name);
    if (!hasOperand && takesOperand)
        return QStringLiteral("'%1' needs a VALUE").arg(name);
    return QString();
}

int run(Context& context, const Arguments& arguments)
{
    const QString path = arguments.positional.at(0);
    const QString verb = arguments.positional.at(1);
    const bool hasOperand = arguments.positional.size() > 2;
    const QString error = validate(verb, hasOperand);
    if (!error.isEmpty())
        return context.output.reportUsage(error);
    QVariant operand;
    if (hasOperand) {
        const int exitCode =
            givenValue(context, arguments, path, arguments.positional.at(2), &operand);
        if (exitCode != Done)
            return exitCode;
    }
    return printChange(context, arguments, path, context.settings->apply(path, verb, operand));
}

} // namespace

namespace commands {

Command op()
{
    return { "op",
             "",
             { { "PATH", Argument::Count::One, Argument::Kind::Path },
               { "VERB", Argument::Count::One, Argument::Kind::Verb },
               { "VALUE", Argument::Count::Optional, Argument::Kind::Operand } },
             { stringOption, flushOption },
             "Applies an operation and prints the value that is stored now. VERB is one of\nset, "
             "add, multiply, toggle, append, remove, next, previous.",
             "op /settings/audio/volume add -5",
             Command::Where::Anywhere,
             Command::Needs::Changes,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
