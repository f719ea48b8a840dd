#pragma once

#include "tulo-cm/completion.h"

#include <tulo/settings.h>

#include <QDeadlineTimer>

namespace tulo {

/// Asks settings, and serves events while it waits for them, for so long in all.
class SettingsSource : public CompletionSource
{
public:
    SettingsSource(Settings& settings, int milliseconds);

    QVector<KnownRow> rows(const QString& path, const QString& prefix) override;
    QVariantMap roles(const QString& path, const QStringList& roles) override;

private:
    /// Of a directory's rows, whose names are sorted: from `first` to in front of `end`.
    struct Range
    {
        QString path;
        int first = 0;
        int end = 0;
    };

    template<typename T>
    T answer(const Reply<T>& reply) const;
    QVector<KnownRow> read(const Range& range) const;
    KnownRow readOne(const Range& range, int index) const;
    int firstNotBefore(const QString& name, const Range& range) const;
    int firstBehind(const QString& prefix, const Range& range) const;
    QVector<KnownRow> beginnings(const Range& range) const;

    Settings& m_settings;
    const QDeadlineTimer m_deadline;
};

} // namespace tulo
