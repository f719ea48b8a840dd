#include "tulo-cm/listing.h"

#include "tulo-cm/progress.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/waiting.h"

#include "trees/treereader.h"

#include <algorithm>
#include <climits>

namespace tulo {
namespace {

constexpr int pageRows = 250;
// Bounds the retries in case the directory never stops changing.
constexpr int maximumAttempts = 10;

enum class Attempt { Complete, RowsChanged };

class Lister
{
public:
    Lister(Settings& settings, const QString& path, const QStringList& roles, Progress& progress)
        : m_settings(settings)
        , m_path(path)
        , m_roles(roles)
        , m_progress(progress)
    {
    }

    Listing list(int first, int last)
    {
        for (int attempt = 0; attempt < maximumAttempts; ++attempt) {
            m_listing = Listing();
            m_isFirstPage = true;
            if (tryOnce(first, last) == Attempt::Complete)
                return m_listing;
        }
        m_listing.error = { ErrorCode::Internal,
                            QStringLiteral("the rows change faster than they can be read"),
                            m_path };
        return m_listing;
    }

private:
    Attempt tryOnce(int first, int last)
    {
        qint64 next = first;
        do {
            const int pageFirst = int(next);
            const int pageLast = int(std::min(next + pageRows - 1, qint64(last)));
            const auto page = finished(m_settings.rows(m_path, pageFirst, pageLast, m_roles));
            m_listing.error = page.error();
            if (page.error())
                return Attempt::Complete;
            if (take(page.value()) == Attempt::RowsChanged)
                return Attempt::RowsChanged;
            // Fewer than asked for when more do not fit in an answer.
            const int count = page.value().rows.size();
            next = count == 0 ? qint64(pageLast) + 1 : qint64(pageFirst) + count;
        } while (next <= last && next < m_listing.rows.count);
        return Attempt::Complete;
    }

    Attempt take(const Rows& page)
    {
        Rows& rows = m_listing.rows;
        if (!m_isFirstPage && rows.version != page.version)
            return Attempt::RowsChanged;
        m_isFirstPage = false;
        rows.count = page.count;
        rows.version = page.version;
        rows.directory = page.directory;
        for (const Row& row : page.rows) {
            m_listing.names.append(row.name);
            (row.error ? m_listing.leftOut : rows.rows).append(row);
        }
        m_progress.add(page.rows.size());
        return Attempt::Complete;
    }

    Settings& m_settings;
    const QString m_path;
    const QStringList m_roles;
    Progress& m_progress;
    Listing m_listing;
    bool m_isFirstPage = true;
};

/// The recursion of walk().
class Walker
{
public:
    Walker(Settings& settings, const QStringList& roles, Output& output,
           const std::function<bool(const VisitedNode&)>& visit,
           const std::function<void(const QString&, const Listing&)>& listed)
        : m_settings(settings)
        , m_roles(QStringList(roles::type()) + roles)
        , m_output(output)
        , m_visit(visit)
        , m_listed(listed)
        , m_progress(QStringLiteral("reading settings"))
    {
    }

    int walk(const QString& path)
    {
        const auto top = finished(m_settings.get(path, m_roles));
        if (top.error())
            return m_output.report(top.error());
        node({ path, nameOf(path), 0, isDirectory(top.value()), top.value() });
        return m_exitCode;
    }

private:
    void node(const VisitedNode& node)
    {
        m_isEnded = m_isEnded || !m_visit(node);
        if (m_isEnded || !node.isDirectory)
            return;
        const Listing listing = listRows(m_settings, node.path, 0, INT_MAX, m_roles, m_progress);
        if (m_listed && !listing.error)
            m_listed(node.path, listing);
        for (const Row& row : listing.rows.rows) {
            Walker::node({ pathBelow(node.path, row.name), row.name, node.depth + 1,
                           row.isDirectory, row.roles });
        }
        const int exitCode = listing.error ? m_output.report(listing.error)
                                           : reportLeftOut(m_output, node.path, listing.leftOut);
        m_exitCode = firstFailure(m_exitCode, exitCode);
        m_isEnded = m_isEnded || listing.error.code == ErrorCode::Cancelled;
    }

    Settings& m_settings;
    const QStringList m_roles;
    Output& m_output;
    const std::function<bool(const VisitedNode&)>& m_visit;
    const std::function<void(const QString&, const Listing&)>& m_listed;
    Progress m_progress;
    bool m_isEnded = false;
    int m_exitCode = Done;
};

} // namespace

Listing listRows(Settings& settings, const QString& path, int first, int last,
                 const QStringList& roles, Progress& progress)
{
    return Lister(settings, path, roles, progress).list(first, last);
}

int reportLeftOut(Output& output, const QString& path, const QVector<Row>& leftOut)
{
    for (const Row& row : leftOut) {
        const QString rowPath = pathBelow(path, row.name);
        output.report(Failed, "RowNotServed",
                      QStringLiteral("row '%1' left out: %2").arg(rowPath, row.error.message),
                      rowPath);
    }
    return leftOut.isEmpty() ? Done : Failed;
}

int walk(Settings& settings, const QString& path, const QStringList& roles, Output& output,
         const std::function<bool(const VisitedNode&)>& visit,
         const std::function<void(const QString& path, const Listing&)>& listed)
{
    return Walker(settings, roles, output, visit, listed).walk(path);
}

int reportDefects(Output& output, const TreeReader& tree)
{
    int exitCode = Done;
    const QStringList paths = tree.nodes(QStringLiteral("/"));
    for (const QString& path : paths) {
        const QString defect = tree.defect(path);
        if (!defect.isEmpty())
            exitCode = output.report(Failed, "Failed", defect, QString());
    }
    return exitCode;
}

} // namespace tulo
