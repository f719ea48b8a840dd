#include "tulo-cm/commandline.h"
#include "tulo-cm/listing.h"
#include "tulo-cm/place.h"
#include "tulo-cm/roles.h"

#include "trees/treedifference.h"
#include "trees/treeoptions.h"
#include "trees/treereader.h"

namespace tulo {
namespace {

constexpr Option treeOption {
    "tree", "OLD", "compare the default tree in the directory OLD with the one in NEW instead", "",
    WordKind::Tree
};

QString arrow(const QVariant& left, const QVariant& right)
{
    return shownInCell(left) + QStringLiteral(" -> ") + shownInCell(right);
}

// ---------------------------------------------------------------------------------------------
// Settings against their defaults.
// ---------------------------------------------------------------------------------------------

void printChange(const VisitedNode& node, Output& output)
{
    const bool isEncrypted = node.roles.value(roles::encrypted()).toBool();
    const QVariant value = node.roles.value(roles::value());
    const QVariant defaultValue = node.roles.value(roles::defaultValue());
    if (!output.isJson()) {
        output.line(
            node.path + QStringLiteral(": ")
            + (isEncrypted ? QStringLiteral("changed (encrypted)") : arrow(defaultValue, value)));
        return;
    }
    QVariantMap object { { QStringLiteral("path"), node.path } };
    if (isEncrypted) {
        object.insert(roles::encrypted(), true);
    } else {
        object.insert(roles::defaultValue(), valueObject(defaultValue));
        object.insert(roles::value(), valueObject(value));
    }
    output.object(object);
}

int printChanges(Context& context, const QString& path)
{
    Output& output = context.output;
    const auto visit = [&output](const VisitedNode& node) {
        if (!node.isDirectory && isChanged(node.roles))
            printChange(node, output);
        return !output.isClosed() && !output.hasFailed();
    };
    return walk(*context.settings, path,
                { roles::value(), roles::defaultValue(), roles::encrypted() }, output, visit);
}

// ---------------------------------------------------------------------------------------------
// Two default trees.
// ---------------------------------------------------------------------------------------------

// For people, the default is what the role "value" of a default file says.
QString nameOfRole(const QString& role)
{
    return role == roles::defaultValue() ? QStringLiteral("default") : role;
}

QString fullPath(const QString& settingPath, bool isDirectory)
{
    if (settingPath == QLatin1String("/"))
        return topPath() + settingPath;
    return topPath() + settingPath + QLatin1String(isDirectory ? "/" : "");
}

QString lineOf(const TreeDifference& difference)
{
    const QString path = fullPath(difference.path, difference.isDirectory);
    switch (difference.kind) {
    case TreeDifference::Kind::Added:
        return path + QStringLiteral(": added")
            + (difference.newValue.isValid()
                   ? QStringLiteral(", default ") + shownInCell(difference.newValue)
                   : QString());
    case TreeDifference::Kind::Removed:
        return path + QStringLiteral(": removed");
    case TreeDifference::Kind::Moved:
        return path + QStringLiteral(": moved from ") + fullPath(difference.oldPath, false);
    case TreeDifference::Kind::Changed:
        break;
    }
    const QString role = path + QStringLiteral(": ") + nameOfRole(difference.role);
    const bool isSecret = !difference.oldValue.isValid() && !difference.newValue.isValid();
    return role + QLatin1Char(' ')
        + (isSecret ? QStringLiteral("changed (encrypted)")
                    : arrow(difference.oldValue, difference.newValue));
}

QVariantMap objectOf(const TreeDifference& difference)
{
    static const char* const kinds[] = { "added", "removed", "moved", "changed" };
    QVariantMap object { { QStringLiteral("path"), fullPath(difference.path, false) },
                         { QStringLiteral("change"), QLatin1String(kinds[int(difference.kind)]) },
                         { QStringLiteral("directory"), difference.isDirectory } };
    if (difference.kind == TreeDifference::Kind::Moved)
        object.insert(QStringLiteral("from"), fullPath(difference.oldPath, false));
    if (difference.kind == TreeDifference::Kind::Changed)
        object.insert(QStringLiteral("role"), difference.role);
    const bool isValue =
        difference.kind != TreeDifference::Kind::Changed || isValueRole(difference.role);
    const auto insert = [&](const char* key, const QVariant& value) {
        if (value.isValid())
            object.insert(QLatin1String(key), isValue ? valueObject(value) : value);
    };
    insert("old", difference.oldValue);
    insert("new", difference.newValue);
    return object;
}

int compare(Context& context, const QString& older, const QString& newer, const QString& product)
{
    Output& output = context.output;
    for (const QString& directory : { older, newer }) {
        const QString problem = checkDirectory(directory);
        if (!problem.isEmpty())
            return output.reportUsage(problem);
    }
    const TreeReader oldTree(older, QString(), product);
    const TreeReader newTree(newer, QString(), product);
    const QVector<TreeDifference> differences = differencesOf(oldTree, newTree, product);
    for (const TreeDifference& difference : differences) {
        if (output.isJson())
            output.object(objectOf(difference));
        else
            output.line(lineOf(difference));
    }
    // What cannot be read is not compared.
    return firstFailure(reportDefects(output, oldTree), reportDefects(output, newTree));
}

// ---------------------------------------------------------------------------------------------
// The command.
// ---------------------------------------------------------------------------------------------

int run(Context& context, const Arguments& arguments)
{
    const Paging paging(context.output);
    const QString word = arguments.positional.value(0);
    if (!arguments.isSet(treeOption))
        return printChanges(
            context, word.isEmpty() ? context.start() : completePath(word, context.directory));
    if (word.isEmpty())
        return context.output.reportUsage(QStringLiteral("'--tree OLD' needs the newer tree"));
    const QString product = arguments.isSet(general::product) ? arguments.value(general::product)
                                                              : context.place.engine.productPostfix;
    return compare(context, arguments.value(treeOption), word, product);
}

} // namespace

namespace commands {

Command diff()
{
    Command command {
        "diff",
        "",
        { { "PATH", Argument::Count::Optional, Argument::Kind::PathOrTree } },
        { treeOption },
        "Prints the settings that differ from the image's defaults, at and below a path or, when "
        "none\nis given, all of them: 'path: default -> value'. With --tree OLD the argument is the "
        "directory\nof a newer default tree: what was added, removed, moved (the same id), and "
        "which roles changed,\nfor the variant that --product names. Ends with 0 whether or not "
        "there are differences. Values\nof encrypted settings are not printed.",
        "diff /settings/audio",
        Command::Where::Anywhere,
        Command::Needs::Settings,
        Command::Runs::ToItsEnd,
        run
    };
    command.standalone = &treeOption;
    return command;
}

} // namespace commands

} // namespace tulo
