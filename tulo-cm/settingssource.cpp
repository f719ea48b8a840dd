#include "tulo-cm/settingssource.h"

#include "tulo-cm/roles.h"
#include "tulo-cm/signalhandler.h"

#include <algorithm>

namespace tulo {
namespace {

// The service needs some 35 microseconds for each, more on a slow device.
constexpr int maximumRead = Settings::maximumRows;

} // namespace

SettingsSource::SettingsSource(Settings& settings, int milliseconds)
    : m_settings(settings)
    , m_deadline(milliseconds)
{
}

template<typename T>
T SettingsSource::answer(const Reply<T>& reply) const
{
    serveEvents(int(m_deadline.remainingTime()), [&reply] { return reply.isFinished(); });
    reply.cancel();
    return reply.value();
}

QVector<KnownRow> SettingsSource::rows(const QString& path, const QString& prefix)
{
    // A request would start a service that is away.
    if (m_settings.state() != Settings::State::Ready)
        return {};
    // A range that ends before it begins: their number only.
    Range range { path, 0, answer(m_settings.rows(path, 1, 0, {})).count };
    if (range.end > maximumRead) {
        range.first = firstNotBefore(prefix, range);
        range.end = firstBehind(prefix, range);
    }
    const bool isTooMuch = range.end - range.first > maximumRead;
    const QVector<KnownRow> rows = isTooMuch ? beginnings(range) : read(range);
    // Some of them would be taken for all.
    return m_deadline.hasExpired() ? QVector<KnownRow>() : rows;
}

QVector<KnownRow> SettingsSource::read(const Range& range) const
{
    QVector<KnownRow> rows;
    for (int next = range.first; next < range.end;) {
        const Rows page =
            answer(m_settings.rows(range.path, next, range.end - 1, { roles::title() }));
        if (page.rows.isEmpty())
            return {};
        for (const Row& row : page.rows)
            rows.append({ row.name, row.roles.value(roles::title()).toString(), row.isDirectory });
        next += page.rows.size();
    }
    return rows;
}

// ---------------------------------------------------------------------------------------------
// Directories with more rows than can be read in time.
// ---------------------------------------------------------------------------------------------

KnownRow SettingsSource::readOne(const Range& range, int index) const
{
    return read({ range.path, index, index + 1 }).value(0);
}

int SettingsSource::firstNotBefore(const QString& name, const Range& range) const
{
    int first = range.first;
    int end = range.end;
    while (first < end) {
        const int middle = first + (end - first) / 2;
        if (readOne(range, middle).name < name)
            first = middle + 1;
        else
            end = middle;
    }
    return first;
}

int SettingsSource::firstBehind(const QString& prefix, const Range& range) const
{
    // Behind every character that a name can have.
    return firstNotBefore(prefix + QChar(0xffff), range);
}

// By the first character in which the names differ.
QVector<KnownRow> SettingsSource::beginnings(const Range& range) const
{
    const QString first = readOne(range, range.first).name;
    const QString last = readOne(range, range.end - 1).name;
    const auto end = std::mismatch(first.cbegin(), first.cend(), last.cbegin(), last.cend());
    const int same = int(end.first - first.cbegin());
    QVector<KnownRow> rows;
    for (Range rest = range; rest.first < rest.end && !m_deadline.hasExpired();) {
        KnownRow row = readOne(rest, rest.first);
        int next = rest.first + 1;
        if (row.name.size() > same) {
            const QString beginning = row.name.left(same + 1);
            next = std::max(next, firstBehind(beginning, rest));
            const int count = next - rest.first;
            if (count > 1)
                row = { beginning, QStringLiteral("%1 names").arg(count), false, true };
        }
        rows.append(row);
        rest.first = next;
    }
    return rows;
}

QVariantMap SettingsSource::roles(const QString& path, const QStringList& roles)
{
    if (m_settings.state() != Settings::State::Ready)
        return {};
    return answer(m_settings.get(path, roles));
}

} // namespace tulo
