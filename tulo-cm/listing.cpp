#include "listing.h"

#include <algorithm>

namespace tulo {

namespace {

constexpr int pageRows = 250;
// Bounds the retries in case the directory never stops changing.
constexpr int maximumAttempts = 10;

enum class Attempt { Complete, RowsChanged };

class Lister
{
public:
    Lister(Session& session, const QString& path, const QStringList& roles, Progress& progress)
        : m_session(session)
        , m_path(path)
        , m_roles(roles)
        , m_progress(progress)
    {
    }

    Listing list(int first, int last)
    {
        for (int attempt = 0; attempt < maximumAttempts; ++attempt) {
            m_listing = Listing();
            m_isFirstRequest = true;
            if (tryOnce(first, last) == Attempt::Complete)
                return m_listing;
        }
        m_listing.failure = { Failed, QStringLiteral("RowsChanging"),
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
            Answer<RowPage> answer = m_session.getRows(m_path, pageFirst, pageLast, m_roles);
            next = qint64(pageLast) + 1;
            if (answer.failure) {
                m_listing.failure = answer.failure;
                return Attempt::Complete;
            }
            if (take(answer.value) == Attempt::RowsChanged)
                return Attempt::RowsChanged;
            // Fewer than asked for when more do not fit in an answer.
            if (!answer.value.rows.isEmpty())
                next = qint64(pageFirst) + answer.value.rows.size();
        } while (next <= last && next < m_listing.page.count);
        return Attempt::Complete;
    }

    Attempt take(const RowPage& answer)
    {
        RowPage& page = m_listing.page;
        if (!m_isFirstRequest && page.version != answer.version)
            return Attempt::RowsChanged;
        m_isFirstRequest = false;
        page.count = answer.count;
        page.version = answer.version;
        page.roles = answer.roles;
        for (const PageRow& row : answer.rows) {
            if (row.error.isEmpty())
                page.rows.append(row);
            else
                leaveOut(row);
        }
        m_progress.add(answer.rows.size());
        return Attempt::Complete;
    }

    void leaveOut(const PageRow& row)
    {
        m_listing.leftOut.append({ Failed, QStringLiteral("RowNotServed"),
                                   QStringLiteral("row '%1' left out: %2").arg(row.path, row.error),
                                   row.path });
    }

    Session& m_session;
    const QString m_path;
    const QStringList m_roles;
    Progress& m_progress;
    Listing m_listing;
    bool m_isFirstRequest = true;
};

} // namespace

Listing listRows(Session& session, const QString& path, int first, int last,
                 const QStringList& roles, Progress& progress)
{
    return Lister(session, path, roles, progress).list(first, last);
}

} // namespace tulo
