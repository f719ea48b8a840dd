#include "listing.h"

#include <algorithm>

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
            if (!answer.failure) {
                if (take(answer.value) == Attempt::RowsChanged)
                    return Attempt::RowsChanged;
                // Fewer than asked for when more do not fit in an answer.
                if (!answer.value.rows.isEmpty())
                    next = qint64(pageFirst) + answer.value.rows.size();
            } else if (const Answer<RowPage> none = askForNone();
                       none.failure || answer.failure.exitCode == Refused) {
                // Not the fault of one row.
                m_listing.failure = answer.failure;
                return Attempt::Complete;
            } else if (take(none.value) == Attempt::RowsChanged
                       || takeOneByOne(pageFirst, pageLast) == Attempt::RowsChanged) {
                return Attempt::RowsChanged;
            }
        } while (next <= last && next < m_listing.page.count);
        return Attempt::Complete;
    }

    // Tells whether the directory itself can be listed, and how long it is. A range that ends
    // before it begins is answered without any row.
    Answer<RowPage> askForNone() { return m_session.getRows(m_path, 1, 0, m_roles); }

    Attempt take(const RowPage& answer)
    {
        RowPage& page = m_listing.page;
        if (!m_isFirstRequest && page.version != answer.version)
            return Attempt::RowsChanged;
        m_isFirstRequest = false;
        page.count = answer.count;
        page.version = answer.version;
        page.roles = answer.roles;
        page.rows += answer.rows;
        m_progress.add(answer.rows.size());
        return Attempt::Complete;
    }

    Attempt takeOneByOne(int first, int last)
    {
        last = std::min(last, m_listing.page.count - 1);
        for (int index = first; index <= last; ++index) {
            const Answer<RowPage> answer = m_session.getRows(m_path, index, index, m_roles);
            if (answer.failure) {
                Failure failure = answer.failure;
                failure.exitCode = Failed;
                failure.path = m_path;
                failure.message = QStringLiteral("row %1 of '%2' left out: %3")
                                      .arg(QString::number(index), m_path, answer.failure.message);
                m_listing.leftOut.append(failure);
            } else if (take(answer.value) == Attempt::RowsChanged) {
                return Attempt::RowsChanged;
            }
        }
        return Attempt::Complete;
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
