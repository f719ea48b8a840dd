#include "tulo-cm/command.h"
#include "tulo-cm/listing.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/shownroles.h"

namespace tulo {
namespace {

QStringList cellsOf(const VisitedNode& node)
{
    // The top by its whole path.
    const QString name = node.depth == 0 ? node.path : node.name;
    const QString indented = QString(2 * node.depth, QLatin1Char(' ')) + name;
    if (node.isDirectory)
        return { indented + QLatin1Char('/') };
    return { indented, shownInCell(node.roles.value(roles::value())) };
}

int run(Context& context, const Arguments& arguments)
{
    Output& output = context.output;
    const Paging paging(output);
    // What people see is aligned, so it is printed when all of it is there.
    QVector<TableRow> lines;
    const auto print = [&output, &lines](const VisitedNode& node) {
        if (output.isJson()) {
            output.object(
                nodeObject(node.path, roleObject(node.roles, { roles::type(), roles::value() })));
        } else {
            lines.append(markedRow(cellsOf(node), node.roles, node.isDirectory));
        }
        return !output.isClosed() && !output.hasFailed();
    };
    const int exitCode = walk(*context.settings, arguments.positional.value(0, context.start()),
                              neededRoles(output, { roles::value() }, true), output, print);
    output.table({}, lines);
    return exitCode;
}

} // namespace

namespace commands {

Command tree()
{
    return { "tree",
             "",
             { { "PATH", Argument::Count::Optional, Argument::Kind::Path } },
             {},
             "Prints everything at and below a path, /settings when none is given. On a terminal "
             "\"*\" marks\nchanged settings, \"=\" read-only ones.",
             "tree /settings/audio",
             Command::Where::Anywhere,
             Command::Needs::Settings,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
