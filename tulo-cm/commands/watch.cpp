#include "tulo-cm/commandline.h"
#include "tulo-cm/signalhandler.h"
#include "tulo-cm/watches.h"

namespace tulo {
namespace {

constexpr Option recursiveOption { "recursive", "", "everything at and below the paths", "r" };
constexpr Option countOption { "count", "N",
                               "stop after N events; what --initial prints is not one" };
constexpr Option initialOption { "initial", "", "begin with what is there now" };

int run(Context& context, const Arguments& arguments)
{
    Output& output = context.output;
    Watches& watches = *context.watches;
    const auto count = numberOption(context, arguments, countOption, 0);
    if (!count)
        return Usage;
    if (arguments.isSet(countOption) && *count < 1)
        return output.reportUsage(QStringLiteral("'--count' needs a number above 0"));
    const auto scope = arguments.isSet(recursiveOption) ? Watch::Scope::Tree : Watch::Scope::Node;
    const int exitCode =
        watches.add({ arguments.positional, scope, *count, arguments.isSet(initialOption) });
    // In the shell the next line goes on, and the events come in between.
    if (exitCode != Done || context.inShell)
        return exitCode;
    serveEvents(-1, [&watches, &output] {
        return watches.isEmpty() || output.isClosed() || output.hasFailed();
    });
    const bool isAway = !watches.isEmpty() && context.settings->state() == Settings::State::Away;
    return firstFailure(watches.exitCode(),
                        isAway ? describe(ErrorCode::Unavailable).exitCode : int(Done));
}

} // namespace

namespace commands {

Command watch()
{
    return { "watch",
             "",
             { { "PATH", Argument::Count::OneOrMore, Argument::Kind::Path } },
             { recursiveOption, countOption, initialOption },
             "Prints the changes of settings and directories, until interrupted; in the shell\n"
             "while it goes on. On a terminal it leaves out what says nothing more about the same\n"
             "change. When the service comes back after a restart, it prints what differs. Ends\n"
             "with 7 when it is interrupted while there is no service.",
             "watch /settings/audio/volume --count 1",
             Command::Where::ServiceOrShell,
             Command::Needs::Settings,
             Command::Runs::UntilInterrupted,
             run };
}

} // namespace commands

} // namespace tulo
