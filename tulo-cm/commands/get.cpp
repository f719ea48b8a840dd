#include "tulo-cm/command.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/shownroles.h"
#include "tulo-cm/waiting.h"

#include <tulo/settings.h>

namespace tulo {
namespace {

constexpr Option allOption { "all", "", "all known roles that the node has" };

QVector<Node> readNodes(Settings& settings, const QStringList& paths, const QStringList& roles)
{
    QVector<Node> nodes;
    for (int first = 0; first < paths.size(); first += Settings::maximumPaths) {
        const QStringList some = paths.mid(first, Settings::maximumPaths);
        const auto reply = finished(settings.getMany(some, roles));
        for (int i = 0; i < some.size(); ++i)
            nodes.append(reply.error() ? Node { some.at(i), {}, reply.error() }
                                       : reply.value().at(i));
    }
    return nodes;
}

// By itself: for a program as it is.
void printOne(Output& output, const QString& name, const QVariantMap& roles)
{
    if (output.isForPeople())
        output.text(shownRole(output, name, roles));
    else
        output.value(roles.value(name));
}

// One line a role; several nodes one below the other, each under its path.
void printRoleLines(Output& output, const QVector<Node>& nodes, const QStringList& roles,
                    bool withPaths, bool presentOnly)
{
    for (const Node& node : nodes) {
        QVector<TableRow> lines;
        for (const QString& role : roles) {
            if (!presentOnly || node.roles.contains(role))
                lines.append({ { role, shownRole(output, role, node.roles) } });
        }
        if (withPaths)
            output.line(node.path);
        output.table({}, lines);
    }
}

void printTable(Output& output, const QVector<Node>& nodes, const QStringList& roles)
{
    QVector<TableRow> lines;
    for (const Node& node : nodes)
        lines.append({ QStringList(node.path) + roleCells(output, node.roles, roles) });
    const QStringList heading =
        roles.size() > 1 ? QStringList(QStringLiteral("path")) + roles : QStringList();
    if (!lines.isEmpty())
        output.table(heading, lines);
}

// Prints the errors and takes them out. JSON objects come among them, in the order of the paths.
int printErrors(Output& output, const QStringList& names, QVector<Node>* nodes)
{
    int exitCode = Done;
    QVector<Node> served;
    for (const Node& node : qAsConst(*nodes)) {
        if (node.error) {
            exitCode = firstFailure(exitCode, output.report(node.error));
            continue;
        }
        if (output.isJson())
            output.object(nodeObject(node.path, roleObject(node.roles, names)));
        served.append(node);
    }
    *nodes = served;
    return exitCode;
}

QString validate(const QStringList& roles, const QVector<Node>& nodes)
{
    QVector<QVariantMap> found;
    for (const Node& node : nodes) {
        if (!node.error)
            found.append(node.roles);
    }
    return validateRoles(roles, found);
}

int run(Context& context, const Arguments& arguments)
{
    Output& output = context.output;
    const bool isAll = arguments.isSet(allOption);
    if (isAll && arguments.isSet(roleOption))
        return output.reportUsage(QStringLiteral("'--role' and '--all' exclude each other"));
    const QStringList roles = isAll ? roles::known() : chosenRoles(arguments);
    QVector<Node> nodes =
        readNodes(*context.settings, arguments.positional, neededRoles(output, roles));
    const QString error = validate(roles, nodes);
    if (!error.isEmpty())
        return output.reportUsage(error);

    const int exitCode = printErrors(output, isAll ? QStringList() : roles, &nodes);
    const bool isOnePath = arguments.positional.size() == 1;
    if (output.isJson())
        return exitCode;
    if (isOnePath && roles.size() == 1 && !nodes.isEmpty())
        printOne(output, roles.first(), nodes.first().roles);
    else if (isOnePath || isAll)
        printRoleLines(output, nodes, roles, !isOnePath, isAll);
    else
        printTable(output, nodes, roles);
    return exitCode;
}

} // namespace

namespace commands {

Command get()
{
    return { "get",
             "",
             { { "PATH", Argument::Count::OneOrMore, Argument::Kind::Path } },
             { roleOption, allOption },
             "Prints values of settings, or the roles that are named.",
             "get /settings/audio/volume --role value --role title",
             Command::Where::Anywhere,
             Command::Needs::Settings,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
