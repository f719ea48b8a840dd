#include "tulo-cm/command.h"
#include "tulo-cm/waiting.h"

#include <tulo/settings.h>

namespace tulo {
namespace {

int run(Context& context, const Arguments&)
{
    const auto dropped = finished(context.settings->dropCache());
    if (dropped.error())
        return context.output.report(dropped.error());
    context.output.done(QStringLiteral("/settings/actions/dropCache"));
    return Done;
}

} // namespace

namespace commands {

Command dropCache()
{
    return { "drop-cache",
             "",
             {},
             {},
             "Discards cached values; settings are read from their files again.",
             "drop-cache",
             Command::Where::ServiceOrShell,
             Command::Needs::Settings,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
