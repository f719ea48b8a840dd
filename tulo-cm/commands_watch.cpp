#include "commands.h"

#include "bussession.h"
#include "signalhandler.h"

namespace tulo {

int runWatch(Context& context, const Arguments& arguments)
{
    Output& output = context.output;
    const QString countOption = QStringLiteral("count");
    Failure failure;
    const int count = numberOption(arguments, countOption, 0, &failure);
    if (!failure && arguments.isSet(countOption) && count < 1)
        failure = usageFailure(QStringLiteral("'--count' needs a number above 0"));
    if (!failure)
        failure = context.watches->add(arguments.positional, count);
    for (const QString& path : arguments.positional) {
        if (!failure && arguments.isSet(QStringLiteral("initial")))
            failure = context.watches->printCurrent(path);
    }
    if (failure) {
        output.failure(failure);
        return failure.exitCode;
    }
    // In the shell the next line goes on, and the events come in between.
    if (context.inShell)
        return Done;
    const auto isLost = [&context] {
        return context.service != nullptr && context.service->hasLostWatches();
    };
    serveEvents(-1, [&context, &output, &isLost] {
        return context.watches->isEmpty() || output.isClosed() || output.hasFailed() || isLost();
    });
    return isLost() ? Unavailable : Done;
}

int runUnwatch(Context& context, const Arguments& arguments)
{
    if (arguments.positional.isEmpty())
        context.watches->removeAll();
    for (const QString& path : arguments.positional)
        context.watches->remove(path);
    return Done;
}

int runWait(Context& context, const Arguments& arguments)
{
    bool isNumber = false;
    const int milliseconds = arguments.positional.first().toInt(&isNumber);
    if (!isNumber || milliseconds < 0) {
        const Failure failure =
            usageFailure(QStringLiteral("'wait' needs a number of milliseconds, not '%1'")
                             .arg(arguments.positional.first()));
        context.output.failure(failure);
        return failure.exitCode;
    }
    serveEvents(milliseconds, [&context] { return context.output.isClosed(); });
    return Done;
}

} // namespace tulo
