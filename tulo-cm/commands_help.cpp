#include "commands.h"

namespace tulo {

namespace {

void print(Output& output, QString text, const QVariantHash& object)
{
    if (output.isJson()) {
        output.object(object);
    } else {
        text.chop(1);
        output.text(text);
    }
}

} // namespace

int runHelp(Context& context, const Arguments& arguments)
{
    if (arguments.positional.isEmpty()) {
        print(context.output, context.inShell ? overview(true) : generalHelp(),
              helpObject(context.inShell));
        return Done;
    }
    const QString name = arguments.positional.first();
    const Command* const command = findCommand(name);
    if (command == nullptr) {
        const Failure failure = usageFailure(QStringLiteral("unknown command '%1'").arg(name));
        context.output.failure(failure);
        return failure.exitCode;
    }
    print(context.output, commandHelp(*command), helpObject(*command));
    return Done;
}

int runHelpOption(Context& context, const Arguments& arguments)
{
    if (arguments.command == nullptr) {
        print(context.output, overview(context.inShell), helpObject(context.inShell));
    } else {
        print(context.output, commandHelp(*arguments.command), helpObject(*arguments.command));
    }
    return Done;
}

} // namespace tulo
