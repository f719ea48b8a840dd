#include "tulo-cm/command.h"
#include "tulo-cm/signalhandler.h"

namespace tulo {
namespace {

int run(Context& context, const Arguments& arguments)
{
    bool isNumber = false;
    const int milliseconds = arguments.positional.first().toInt(&isNumber);
    if (!isNumber || milliseconds < 0) {
        return context.output.reportUsage(
            QStringLiteral("'wait' needs a number of milliseconds, not '%1'")
                .arg(arguments.positional.first()));
    }
    serveEvents(milliseconds, [&context] { return context.output.isClosed(); });
    return Done;
}

} // namespace

namespace commands {

Command wait()
{
    return { "wait",
             "",
             { { "MS" } },
             {},
             "Waits this many milliseconds; meanwhile prints events and writes pending changes.",
             "wait 1500",
             Command::Where::Shell,
             Command::Needs::Nothing,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
