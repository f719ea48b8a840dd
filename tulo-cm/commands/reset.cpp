#include "tulo-cm/command.h"
#include "tulo-cm/progress.h"
#include "tulo-cm/waiting.h"

#include <tulo/settings.h>

namespace tulo {
namespace {

constexpr Option recursiveOption {
    "recursive", "", "reset directories with everything below, and read-only settings", "r"
};
constexpr Option allOption { "all", "", "reset everything; no PATH" };
constexpr Option keepOption {
    "keep", "GLOB",         "with -r or --all: leave these paths, and what is below them",
    "",     WordKind::Path, nullptr,
    true
};

QString validate(const Arguments& arguments)
{
    const bool isAll = arguments.isSet(allOption);
    if (isAll == !arguments.positional.isEmpty())
        return QStringLiteral("'reset' needs one of PATH and '--all'");
    if (arguments.isSet(keepOption) && !isAll && !arguments.isSet(recursiveOption))
        return QStringLiteral("'--keep' needs '-r' or '--all'");
    return QString();
}

ResetOptions optionsOf(const Arguments& arguments)
{
    ResetOptions options;
    options.isRecursive = arguments.isSet(allOption) || arguments.isSet(recursiveOption);
    const QStringList globs = arguments.values(keepOption);
    // Like paths, without "/" at the beginning as well.
    for (const QString& glob : globs)
        options.keep.append(glob.startsWith(QLatin1Char('/')) ? glob : QLatin1Char('/') + glob);
    return options;
}

int run(Context& context, const Arguments& arguments)
{
    const QString problem = validate(arguments);
    if (!problem.isEmpty())
        return context.output.reportUsage(problem);
    const ResetOptions options = optionsOf(arguments);
    const QStringList paths =
        arguments.isSet(allOption) ? QStringList(topPath()) : arguments.positional;
    const Progress progress(QStringLiteral("resetting"));
    const auto reset = finished(context.settings->reset(paths, options));
    if (reset.error()) {
        Error error = reset.error();
        const bool needsRecursive =
            error.code == ErrorCode::Refused || error.code == ErrorCode::NotModifiable;
        if (needsRecursive && !options.isRecursive)
            error.message += QStringLiteral(" (option '-r')");
        return context.output.report(error);
    }
    for (const QString& path : reset.value()) {
        if (context.output.isJson())
            context.output.done(path);
        else
            context.output.line(path);
    }
    return Done;
}

} // namespace

namespace commands {

Command reset()
{
    return { "reset",
             "",
             { { "PATH", Argument::Count::Any, Argument::Kind::Path } },
             { recursiveOption, allOption, keepOption },
             "Takes settings back to the image's defaults, all or none. What was stored for them "
             "is discarded,\nso that the default of a later image shows; a setting without a "
             "default, such as one that\nwas made from a template, is gone then. Prints the paths "
             "of those that were changed before.\n\"*\" and \"?\" in GLOB stand for any characters "
             "of a name.",
             "reset --all --keep '/settings/connectivity/*'",
             Command::Where::Anywhere,
             Command::Needs::Changes,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
