#include "tulo-cm/help.h"
#include "tulo-cm/suggesting.h"

#include "trees/misspelling.h"

namespace tulo {
namespace {

int run(Context& context, const Arguments& arguments)
{
    if (arguments.positional.isEmpty())
        return context.inShell ? printOverview(context) : printGeneralHelp(context);
    const QString name = arguments.positional.first();
    const Command* const command = findCommand(name);
    if (command == nullptr) {
        const int exitCode =
            context.output.reportUsage(QStringLiteral("unknown command '%1'").arg(name));
        suggest(context.output, nearest(name, commandNames(context.inShell)));
        return exitCode;
    }
    return printHelp(context, *command);
}

} // namespace

namespace commands {

Command help()
{
    return { "help",
             "",
             { { "COMMAND", Argument::Count::Optional, Argument::Kind::Command } },
             {},
             "Prints what the commands do.",
             "help set",
             Command::Where::Anywhere,
             Command::Needs::Nothing,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
