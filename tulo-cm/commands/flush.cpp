#include "tulo-cm/command.h"
#include "tulo-cm/flushing.h"

namespace tulo {
namespace {

int run(Context& context, const Arguments&)
{
    const int exitCode = flushChanges(*context.settings, context.output);
    if (exitCode == Done)
        context.output.done(QStringLiteral("/settings/actions/flush"));
    return exitCode;
}

} // namespace

namespace commands {

Command flush()
{
    return { "flush",
             "",
             {},
             {},
             "Writes all pending changes and syncs the file systems.",
             "flush",
             Command::Where::Anywhere,
             Command::Needs::Settings,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
