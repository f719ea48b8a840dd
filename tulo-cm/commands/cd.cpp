#include "tulo-cm/command.h"
#include "tulo-cm/listing.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/waiting.h"

#include <tulo/settings.h>

#include <utility>

namespace tulo {
namespace {

int checkDirectory(Context& context, const QString& path)
{
    const auto node = finished(context.settings->get(path, { roles::type() }));
    if (node.error())
        return context.output.report(node.error());
    if (isDirectory(node.value()))
        return Done;
    return context.output.report(
        { ErrorCode::InvalidPath, QStringLiteral("'%1' is not a directory").arg(path), path });
}

int run(Context& context, const Arguments& arguments)
{
    QString path = arguments.positional.value(0, topPath());
    if (path == QLatin1String("-")) {
        if (context.previousDirectory.isEmpty())
            return context.output.reportUsage(QStringLiteral("there is no directory before"));
        path = context.previousDirectory;
    }
    const int exitCode = checkDirectory(context, path);
    if (exitCode != Done)
        return exitCode;
    context.previousDirectory = std::exchange(context.directory, path);
    // Where a script begins that has not gone anywhere.
    if (context.previousDirectory.isEmpty())
        context.previousDirectory = topPath();
    return Done;
}

} // namespace

namespace commands {

Command cd()
{
    return { "cd",
             "",
             { { "DIRECTORY", Argument::Count::Optional, Argument::Kind::SettingsDirectory } },
             {},
             "Goes to a directory of settings, to the top without one, back with \"-\". From then "
             "on a\npath without \"/\" in front is relative to it, with \".\" and \"..\"; one that "
             "begins with\n\"settings\" stands for itself, as on the command line.",
             "cd audio",
             Command::Where::Shell,
             Command::Needs::Settings,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
