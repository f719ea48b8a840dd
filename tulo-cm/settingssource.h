#pragma once

#include "tulo-cm/completion.h"

#include <QDeadlineTimer>

namespace tulo {

/// Asks settings, and serves events while it waits for them, for so long in all.
class SettingsSource : public CompletionSource
{
public:
    SettingsSource(Settings& settings, int milliseconds);

    QVector<Row> rows(const QString& path, const QString& prefix) override;
    QVariantMap roles(const QString& path, const QStringList& roles) override;

private:
    template<typename T>
    T answer(const Reply<T>& reply) const;

    Settings& m_settings;
    const QDeadlineTimer m_deadline;
};

} // namespace tulo
