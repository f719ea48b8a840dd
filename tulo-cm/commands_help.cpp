#include "commands.h"

int runHelp(Context& context, const Arguments& arguments)
{
    QString text = generalHelp(context.inShell);
    if (!arguments.positional.isEmpty()) {
        const QString name = arguments.positional.first();
        const Command* const command = findCommand(name);
        if (command == nullptr) {
            const Failure failure = usageFailure(QStringLiteral("unknown command '%1'").arg(name));
            context.output.failure(failure);
            return failure.exitCode;
        }
        text = commandHelp(*command);
    }
    text.chop(1);
    context.output.text(text);
    return Done;
}
