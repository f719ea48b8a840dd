#include "tulo-cm/suggesting.h"

#include "tulo-cm/roles.h"
#include "tulo-cm/waiting.h"

#include "trees/misspelling.h"

#include <tulo/settings.h>

namespace tulo {
namespace {

// Longer than any path that is served.
constexpr int maximumNames = 32;

QString pathOf(const QStringList& names, int count)
{
    return QLatin1Char('/') + names.mid(0, count).join(QLatin1Char('/'));
}

// How many of the first names lead to a directory.
int knownNames(Settings& settings, const QStringList& names)
{
    QStringList paths;
    for (int count = 1; count < names.size(); ++count)
        paths.append(pathOf(names, count));
    const auto nodes = finished(settings.getMany(paths, { roles::type() }));
    int count = 0;
    for (const Node& node : nodes.value()) {
        if (node.error || !isDirectory(node.roles))
            break;
        ++count;
    }
    return count;
}

QStringList namesIn(Settings& settings, const QString& directory)
{
    const auto rows = finished(settings.rows(directory, 0, Settings::maximumRows - 1, {}));
    QStringList names;
    for (const Row& row : rows.value().rows)
        names.append(row.name);
    return names;
}

/// A path like `path` that exists; empty when none is near. Lists one directory at most.
QString nearestPath(Settings& settings, const QString& path)
{
    QStringList names = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (names.isEmpty() || names.size() > maximumNames)
        return QString();
    const int known = knownNames(settings, names);
    const QStringList candidates =
        known == 0 ? QStringList(nameOf(topPath())) : namesIn(settings, pathOf(names, known));
    names[known] = nearest(names.at(known), candidates);
    const QString whole = pathOf(names, names.size());
    // Or it is listed and not served.
    if (names.at(known).isEmpty() || whole == path)
        return QString();
    const bool isThere = !finished(settings.get(whole, { roles::type() })).error();
    return isThere ? whole : pathOf(names, known + 1);
}

} // namespace

int runWithHints(Context& context, const Arguments& arguments)
{
    const int exitCode = arguments.command->run(context, arguments);
    const QString path = context.output.takeUnknownPath();
    if (!path.isEmpty() && context.settings != nullptr && context.output.showsHints())
        suggest(context.output, nearestPath(*context.settings, path));
    return exitCode;
}

void suggest(Output& output, const QString& meant)
{
    if (!meant.isEmpty() && output.showsHints())
        output.note(QStringLiteral("did you mean '%1'?").arg(meant));
}

} // namespace tulo
