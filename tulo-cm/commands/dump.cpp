#include "trees/journal.h"
#include "tulo-cm/dumping.h"
#include "tulo-cm/place.h"
#include "tulo-cm/progress.h"
#include "tulo-cm/waiting.h"

#include <tulo/settings.h>

namespace tulo {
namespace {

// What reads the files without the lock of their tree can meet a change of several that is not
// complete.
Error checkComplete(const Context& context, const Status& status)
{
    if (context.place.kind != Place::Kind::OwnProcess || !hasJournal(status.writePath))
        return {};
    return { ErrorCode::Unavailable,
             QStringLiteral("a change of several settings of '%1' is not finished; see what a "
                            "command that opens it for changes says, such as 'tulo-cm flush'")
                 .arg(status.writePath),
             QString() };
}

Error readDump(Context& context, const QString& path, bool withSecrets, Changed* changed,
               int* exitCode)
{
    const auto status = finished(context.settings->status());
    Error error = status.error();
    if (!error)
        error = checkComplete(context, status.value());
    if (error)
        return error;
    *exitCode = readChanged(context, path, withSecrets, changed);
    error = checkComplete(context, status.value());
    if (error || *exitCode != Done)
        return error;
    const auto digest = finished(context.settings->treeDigest());
    changed->dump.product = status.value().product;
    changed->dump.tree = digest.value();
    return digest.error();
}

int run(Context& context, const Arguments& arguments)
{
    const QString path =
        arguments.positional.isEmpty() ? topPath() : arguments.positional.constFirst();
    const Progress progress(QStringLiteral("dumping"));
    Changed changed;
    int exitCode = Done;
    const Error error =
        readDump(context, path, arguments.isSet(secretsOption), &changed, &exitCode);
    if (error)
        return context.output.report(error);
    if (exitCode != Done)
        return exitCode;
    context.output.object(headerObject(changed.dump));
    for (const DumpedSetting& setting : qAsConst(changed.dump.settings))
        context.output.object(settingObject(setting));
    if (!changed.leftOut.isEmpty()) {
        context.output.note(QStringLiteral("encrypted settings left out: %1; '--secrets' takes "
                                           "them in")
                                .arg(changed.leftOut.size()));
    }
    return Done;
}

} // namespace

namespace commands {

Command dump()
{
    return { "dump",
             "",
             { { "PATH", Argument::Count::Optional, Argument::Kind::Path } },
             { secretsOption },
             "Prints the settings that were changed, at and below PATH or all, for 'load': a line "
             "of\nJSON each, sorted, behind one that says what they are.",
             "dump /settings/audio",
             Command::Where::Anywhere,
             Command::Needs::Settings,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
