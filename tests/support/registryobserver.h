#pragma once

#include "api/core/model/cmsubscribe.h"

#include <QList>
#include <QMutex>
#include <QPointer>
#include <QStringList>
#include <QVariant>

#include <functional>

/// One announcement of a registry.
struct Announcement
{
    enum class Kind { Value, Data, Rows };

    Kind kind = Kind::Data;
    CMPath path;
    QVariant value; ///< of a value change
    QString command; ///< of a rows change
    int version = 0; ///< of a rows change

    /// "value /settings/a {int: 5}", "data /settings/a" or "rows /settings +0 1".
    QString text() const;
};

/// Records what a registry announces, in order. Hears nothing before it observes or subscribes;
/// takes itself out of the registry when it is destroyed. Announcements may come on any thread.
class RegistryObserver : public CMSubscriber
{
public:
    explicit RegistryObserver(CMSubscribe* registry);
    ~RegistryObserver() override;

    /// Records every announcement, subscribed or not.
    void observe();
    // Subscribes like a client does, and records what that brings.
    void subscribeValue(const QString& path);
    void subscribeData(const QString& path);
    void subscribeRows(const QString& path);

    /// Called inside each announcement, after it was recorded: the place for what a client might
    /// do there. Set before announcements can come.
    std::function<void(const Announcement&)> onAnnouncement;

    QList<Announcement> announcements() const;
    /// The announcements as texts.
    QStringList texts() const;
    /// The texts so far, which are forgotten.
    QStringList take();

    void valueChanged(const CMPath& path, const QVariant& value) override;
    void dataChanged(const CMPath& path) override;
    void rowsChanged(const CMPath& path, const QString& command, int version) override;

private:
    Q_DISABLE_COPY(RegistryObserver)

    void record(const Announcement& announcement);

    const QPointer<CMSubscribe> m_registry;
    mutable QMutex m_mutex;
    QList<Announcement> m_announcements; ///< under the mutex
};
