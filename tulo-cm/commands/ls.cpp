#include "tulo-cm/commandline.h"
#include "tulo-cm/listing.h"
#include "tulo-cm/progress.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/shownroles.h"
#include "tulo-cm/waiting.h"

#include <tulo/settings.h>

#include <climits>

namespace tulo {
namespace {

constexpr Option firstOption { "first", "N", "index of the first row, from 0" };
constexpr Option lastOption { "last", "N", "index of the last row, inclusive" };

void printObject(Output& output, const QString& path, const Rows& rows, const QStringList& roles)
{
    QVariantList list;
    for (const Row& row : rows.rows) {
        QVariantMap object = nodeObject(pathBelow(path, row.name), roleObject(row.roles, roles));
        object.insert(QStringLiteral("name"), row.name);
        list.append(object);
    }
    QVariantMap object = nodeObject(path, roleObject(rows.directory));
    object.insert(QStringLiteral("rows"), list);
    object.insert(QStringLiteral("rowsCount"), rows.count);
    object.insert(QStringLiteral("rowsVersion"), rows.version);
    output.object(object);
}

void printTable(Output& output, const QVector<Row>& rows, const QStringList& roles)
{
    QVector<TableRow> lines;
    for (const Row& row : rows) {
        const QString name = row.isDirectory ? row.name + QLatin1Char('/') : row.name;
        lines.append(markedRow(QStringList(name) + roleCells(output, row.roles, roles), row.roles,
                               row.isDirectory));
    }
    const QStringList heading =
        roles.size() > 1 ? QStringList(QStringLiteral("name")) + roles : QStringList();
    if (!lines.isEmpty())
        output.table(heading, lines);
}

QString validate(const QStringList& roles, const QVector<Row>& rows)
{
    QVector<QVariantMap> found;
    for (const Row& row : rows)
        found.append(row.roles);
    return validateRoles(roles, found);
}

Listing list(Context& context, const QString& path, int first, int last, const QStringList& roles)
{
    Progress progress(QStringLiteral("reading rows"));
    return listRows(*context.settings, path, first, last, roles, progress);
}

// For a person, as listing a setting fails as if there were nothing.
void noteSetting(Context& context, const QString& path)
{
    Output& output = context.output;
    if (output.showsHints() && !finished(context.settings->get(path, { roles::type() })).error())
        output.note(QStringLiteral("'%1' is a setting, not a directory").arg(path));
}

int run(Context& context, const Arguments& arguments)
{
    Output& output = context.output;
    const auto first = numberOption(context, arguments, firstOption, 0);
    const auto last = numberOption(context, arguments, lastOption, INT_MAX);
    if (!first || !last)
        return Usage;
    const QString path = arguments.positional.value(0, context.start());
    const QStringList roles = chosenRoles(arguments);

    const Listing listing = list(context, path, *first, *last, neededRoles(output, roles, true));
    if (listing.error) {
        const int exitCode = output.report(listing.error);
        noteSetting(context, path);
        return exitCode;
    }
    const QString error = validate(roles, listing.rows.rows);
    if (!error.isEmpty())
        return output.reportUsage(error);
    if (output.isJson())
        printObject(output, path, listing.rows, roles);
    else
        printTable(output, listing.rows.rows, roles);
    return reportLeftOut(output, path, listing.leftOut);
}

} // namespace

namespace commands {

Command ls()
{
    return { "ls",
             "",
             { { "PATH", Argument::Count::Optional, Argument::Kind::Path } },
             { roleOption, firstOption, lastOption },
             "Prints the rows of a directory, with the value when no role is named; those of "
             "/settings\nwhen no path is given. On a terminal \"*\" marks changed settings, \"=\" "
             "read-only ones.",
             "ls /settings/audio --first 0 --last 9",
             Command::Where::Anywhere,
             Command::Needs::Settings,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
