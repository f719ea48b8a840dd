#include "tulo-cm/command.h"

namespace tulo {
namespace {

int run(Context& context, const Arguments&)
{
    context.quit = true;
    return Done;
}

} // namespace

namespace commands {

Command quit()
{
    return { "quit",
             "exit",
             {},
             {},
             "Ends the shell, like 'exit' and the end of standard input.",
             "quit",
             Command::Where::Shell,
             Command::Needs::Nothing,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
