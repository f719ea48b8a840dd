#include "tulo-cm/settingssource.h"

#include "tulo-cm/signalhandler.h"

namespace tulo {

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

QVector<Row> SettingsSource::rows(const QString& path, const QString&)
{
    // A request would start a service that is away.
    if (m_settings.state() != Settings::State::Ready)
        return {};
    const QStringList roles { QStringLiteral("title") };
    QVector<Row> rows;
    int count = 0;
    do {
        const int first = rows.size();
        const Rows page =
            answer(m_settings.rows(path, first, first + Settings::maximumRows - 1, roles));
        count = page.count;
        if (page.rows.isEmpty())
            break;
        rows += page.rows;
    } while (rows.size() < count);
    // Some of them would be taken for all.
    return rows.size() < count ? QVector<Row>() : rows;
}

QVariantMap SettingsSource::roles(const QString& path, const QStringList& roles)
{
    if (m_settings.state() != Settings::State::Ready)
        return {};
    return answer(m_settings.get(path, roles));
}

} // namespace tulo
