#include "commands.h"

#include "listing.h"
#include "signalhandler.h"

#include "api/core/tuloroles.h"

#include <algorithm>
#include <climits>
#include <numeric>

namespace tulo {

namespace {

const QString roleOption = QStringLiteral("role");

QStringList requestedRoles(const Arguments& arguments)
{
    return arguments.isSet(roleOption) ? arguments.values(roleOption)
                                       : QStringList { TuloRoles::Value() };
}

QVariantHash nodeObject(const QString& path, const QVariantHash& roles)
{
    return { { QStringLiteral("path"), path }, { QStringLiteral("roles"), roles } };
}

QStringList cellsOf(const QVariantHash& roles, const QStringList& names)
{
    QStringList cells;
    for (const QString& name : names)
        cells.append(shownInCell(roles.value(name)));
    return cells;
}

// Only the roles that the node has.
QVariantHash present(const QVariantHash& roles)
{
    QVariantHash result;
    for (auto role = roles.cbegin(); role != roles.cend(); ++role) {
        if (role->isValid())
            result.insert(role.key(), *role);
    }
    return result;
}

// ---------------------------------------------------------------------------------------------
// Roles that there are not
// ---------------------------------------------------------------------------------------------

// Characters to insert, remove or replace to make one of the other.
int distance(const QString& from, const QString& to)
{
    QVector<int> costs(to.size() + 1);
    std::iota(costs.begin(), costs.end(), 0);
    for (int i = 0; i < from.size(); ++i) {
        int diagonal = costs.at(0);
        costs[0] = i + 1;
        for (int j = 0; j < to.size(); ++j) {
            const int replaced = diagonal + (from.at(i) == to.at(j) ? 0 : 1);
            diagonal = costs.at(j + 1);
            costs[j + 1] = std::min({ replaced, diagonal + 1, costs.at(j) + 1 });
        }
    }
    return costs.last();
}

QString hintFor(const QString& role)
{
    if (role.contains(QLatin1Char(',')))
        return QStringLiteral("give '--role' once for each role");
    const QStringList& known = TuloRoles::keys();
    const QString closest =
        *std::min_element(known.cbegin(), known.cend(), [&](const QString& a, const QString& b) {
            return distance(role, a) < distance(role, b);
        });
    if (2 * distance(role, closest) < role.size())
        return QStringLiteral("did you mean '%1'?").arg(closest);
    return QStringLiteral("roles are: %1").arg(known.join(QStringLiteral(", ")));
}

// Files of the default tree may have keys beside the known roles, so a role is unknown only when
// none of the nodes has it either.
Failure checkRoles(const QStringList& roles, const QVector<QVariantHash>& nodes)
{
    for (const QString& role : roles) {
        const bool isFound =
            std::any_of(nodes.cbegin(), nodes.cend(),
                        [&role](const QVariantHash& node) { return node.value(role).isValid(); });
        if (!nodes.isEmpty() && !isFound && !TuloRoles::keys().contains(role))
            return usageFailure(QStringLiteral("unknown role '%1'; %2").arg(role, hintFor(role)));
    }
    return {};
}

// ---------------------------------------------------------------------------------------------
// get
// ---------------------------------------------------------------------------------------------

struct Node
{
    QString path;
    QVariantHash roles;
};

// One line a role; several nodes one below the other, each under its path.
void printRoleLines(Output& output, const QVector<Node>& nodes, const QStringList& roles,
                    bool withPaths)
{
    for (const Node& node : nodes) {
        QVector<QStringList> lines;
        for (const QString& role : roles) {
            if (node.roles.contains(role))
                lines.append(QStringList { role, shownInCell(node.roles.value(role)) });
        }
        if (withPaths)
            output.line(node.path);
        output.table({}, lines);
    }
}

void printNodes(Output& output, const QVector<Node>& nodes, const QStringList& roles)
{
    QVector<QStringList> lines;
    for (const Node& node : nodes)
        lines.append(QStringList(node.path) + cellsOf(node.roles, roles));
    const QStringList heading =
        roles.size() > 1 ? QStringList(QStringLiteral("path")) + roles : QStringList();
    if (!lines.isEmpty())
        output.table(heading, lines);
}

} // namespace

int runGet(Context& context, const Arguments& arguments)
{
    const bool all = arguments.isSet(QStringLiteral("all"));
    if (all && arguments.isSet(roleOption)) {
        const Failure failure =
            usageFailure(QStringLiteral("'--role' and '--all' exclude each other"));
        context.output.failure(failure);
        return failure.exitCode;
    }
    const QStringList roles = all ? TuloRoles::keys() : requestedRoles(arguments);

    QVector<Answer<QVariantHash>> answers;
    QVector<QVariantHash> found;
    for (const QString& path : arguments.positional) {
        answers.append(context.session->getData(path, roles));
        if (!answers.last().failure)
            found.append(answers.last().value);
    }
    const Failure failure = checkRoles(roles, found);
    if (failure) {
        context.output.failure(failure);
        return failure.exitCode;
    }

    int exitCode = Done;
    QVector<Node> nodes;
    for (int i = 0; i < answers.size(); ++i) {
        const Answer<QVariantHash>& answer = answers.at(i);
        if (answer.failure) {
            context.output.failure(answer.failure);
            exitCode = firstFailure(exitCode, answer.failure.exitCode);
            continue;
        }
        const Node node { arguments.positional.at(i), all ? present(answer.value) : answer.value };
        if (context.output.isJson())
            context.output.object(nodeObject(node.path, node.roles));
        else
            nodes.append(node);
    }

    const bool isOnePath = arguments.positional.size() == 1;
    if (isOnePath && roles.size() == 1 && !nodes.isEmpty())
        context.output.value(nodes.first().roles.value(roles.first()));
    else if (isOnePath || all)
        printRoleLines(context.output, nodes, roles, !isOnePath);
    else
        printNodes(context.output, nodes, roles);
    return exitCode;
}

// ---------------------------------------------------------------------------------------------
// ls
// ---------------------------------------------------------------------------------------------

namespace {

void printRowsObject(Output& output, const QString& path, const RowPage& page)
{
    QVariantList rows;
    for (const PageRow& row : page.rows) {
        rows.append(QVariantHash { { QStringLiteral("name"), row.name() },
                                   { QStringLiteral("path"), row.path },
                                   { QStringLiteral("roles"), row.roles } });
    }
    QVariantHash object = nodeObject(path, page.roles);
    object.insert(QStringLiteral("rows"), rows);
    object.insert(QStringLiteral("rowsCount"), page.count);
    object.insert(QStringLiteral("rowsVersion"), page.version);
    output.object(object);
}

QString shownName(const PageRow& row)
{
    return row.isDirectory ? row.name() + QLatin1Char('/') : row.name();
}

int printFailures(Output& output, const Listing& listing)
{
    if (listing.failure) {
        output.failure(listing.failure);
        return listing.failure.exitCode;
    }
    for (const Failure& failure : listing.leftOut)
        output.failure(failure);
    return listing.leftOut.isEmpty() ? Done : listing.leftOut.first().exitCode;
}

} // namespace

int runLs(Context& context, const Arguments& arguments)
{
    Output& output = context.output;
    Failure failure;
    const int first = numberOption(arguments, QStringLiteral("first"), 0, &failure);
    const int last = numberOption(arguments, QStringLiteral("last"), INT_MAX, &failure);
    if (failure) {
        output.failure(failure);
        return failure.exitCode;
    }
    const QString path = arguments.positional.value(0, topPath);
    const QStringList roles = requestedRoles(arguments);

    Listing listing;
    {
        Progress progress(QStringLiteral("rows"));
        listing = listRows(*context.session, path, first, last, roles, progress);
    }
    QVector<QVariantHash> found;
    for (const PageRow& row : qAsConst(listing.page.rows))
        found.append(row.roles);
    failure = checkRoles(roles, found);
    if (failure) {
        output.failure(failure);
        return failure.exitCode;
    }
    if (!listing.failure && output.isJson()) {
        printRowsObject(output, path, listing.page);
    } else if (!listing.failure) {
        QVector<QStringList> lines;
        for (const PageRow& row : qAsConst(listing.page.rows))
            lines.append(QStringList(shownName(row)) + cellsOf(row.roles, roles));
        const QStringList heading =
            roles.size() > 1 ? QStringList(QStringLiteral("name")) + roles : QStringList();
        if (!lines.isEmpty())
            output.table(heading, lines);
    }
    return printFailures(output, listing);
}

// ---------------------------------------------------------------------------------------------
// tree
// ---------------------------------------------------------------------------------------------

namespace {

class TreePrinter
{
public:
    explicit TreePrinter(Context& context)
        : m_context(context)
        , m_progress(QStringLiteral("nodes"))
    {
    }

    int print(const QString& path)
    {
        const Answer<QVariantHash> top = m_context.session->getData(path, m_roles);
        if (top.failure) {
            m_context.output.failure(top.failure);
            return top.failure.exitCode;
        }
        const bool isDirectory =
            top.value.value(TuloRoles::Type()).toInt() == TuloRolesType::Directory;
        node({ path, isDirectory, top.value }, path, 0);
        return m_exitCode;
    }

    /// What people see is aligned, so it is printed when all of it is there.
    void finish() { m_context.output.table({}, m_lines); }

private:
    void node(const PageRow& row, const QString& name, int depth)
    {
        Output& output = m_context.output;
        if (output.isJson()) {
            output.object(nodeObject(row.path, row.roles));
        } else {
            const QString indented = QString(2 * depth, QLatin1Char(' ')) + name;
            if (row.isDirectory)
                m_lines.append(QStringList(indented + QLatin1Char('/')));
            else
                m_lines.append(
                    QStringList { indented, shownInCell(row.roles.value(TuloRoles::Value())) });
        }
        if (row.isDirectory)
            children(row.path, depth + 1);
    }

    void children(const QString& path, int depth)
    {
        Output& output = m_context.output;
        if (output.isClosed() || output.hasFailed() || SignalHandler::isEndRequested())
            return;
        const Listing listing = listRows(*m_context.session, path, 0, INT_MAX, m_roles, m_progress);
        for (const PageRow& row : listing.page.rows)
            node(row, row.name(), depth);
        m_exitCode = firstFailure(m_exitCode, printFailures(output, listing));
    }

    Context& m_context;
    Progress m_progress;
    const QStringList m_roles { TuloRoles::Type(), TuloRoles::Value() };
    QVector<QStringList> m_lines;
    int m_exitCode = Done;
};

} // namespace

int runTree(Context& context, const Arguments& arguments)
{
    TreePrinter printer(context);
    const int exitCode = printer.print(arguments.positional.value(0, topPath));
    printer.finish();
    return exitCode;
}

} // namespace tulo
