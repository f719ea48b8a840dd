#include "tulo-cm/command.h"
#include "tulo-cm/watches.h"

namespace tulo {
namespace {

int run(Context& context, const Arguments& arguments)
{
    if (arguments.positional.isEmpty())
        context.watches->removeAll();
    for (const QString& path : arguments.positional)
        context.watches->remove(path);
    return Done;
}

} // namespace

namespace commands {

Command unwatch()
{
    return { "unwatch",
             "",
             { { "PATH", Argument::Count::Any, Argument::Kind::Path } },
             {},
             "Ends watching these paths, or all.",
             "unwatch /settings/audio/volume",
             Command::Where::Shell,
             Command::Needs::Settings,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
