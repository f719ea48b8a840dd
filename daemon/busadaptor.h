#pragma once

#include "daemon/busthread.h"

#include <tulo/settings.h>

#include <QObject>
#include <QSet>
#include <QTimer>
#include <QVariant>

#include <functional>
#include <memory>

namespace tulo {

/// Translates between the bus and a tulo::Settings: the calls that the bus thread hands out, their
/// answers, and everything that happens to the settings, which becomes broadcast signals.
///
/// Lives on the thread of the settings.
class BusAdaptor : public QObject
{
    Q_OBJECT

public:
    /// The rows or nodes of one answer take about so many bytes; one that takes more comes with an
    /// error in place of its roles. Far below what a bus allows, so that no answer holds others up.
    static constexpr qint64 maximumPageBytes = qint64(1024) * 1024;
    /// The roles of one node take at most so many bytes: more than any file of a tree makes.
    static constexpr qint64 maximumRolesBytes = qint64(24) * 1024 * 1024;
    /// How often changed properties are announced at most.
    static constexpr int announcementIntervalMs = 1000;

    /// All outlive it. `status` tells the present state of the settings, on their thread. The bus
    /// thread may be started then.
    BusAdaptor(Settings& settings, std::function<Status()> status, BusThread& bus);

    /// Calls that were handed out and are not answered.
    int unanswered() const { return m_unanswered; }

public slots:
    /// To be connected to whatever tells that the state of the settings may have changed.
    void refreshStatus();

private slots:
    void on_bus_called(const tulo::BusCall& call);
    void on_watch_changed(const tulo::Event& event);
    void on_announcement_timeout();

private:
    using Arguments = QVariantList;

    void getData(quint64 call, const Arguments& arguments);
    void getMany(quint64 call, const Arguments& arguments);
    void getRows(quint64 call, const Arguments& arguments);
    void explain(quint64 call, const Arguments& arguments);
    void setValue(quint64 call, const Arguments& arguments);
    void setRoles(quint64 call, const Arguments& arguments);
    void apply(quint64 call, const Arguments& arguments);
    void getTreeDigest(quint64 call, const Arguments& arguments);
    void setMany(quint64 call, const Arguments& arguments);
    void reset(quint64 call, const Arguments& arguments);
    void resetBelow(quint64 call, const Arguments& arguments);
    void flush(quint64 call, const Arguments& arguments);
    void dropCache(quint64 call, const Arguments& arguments);
    void statistics(quint64 call, const Arguments& arguments);
    void getUnsaved(quint64 call, const Arguments& arguments);

    template<typename T, typename Convert>
    void answer(quint64 call, const Reply<T>& reply, Convert convert);
    void finish(quint64 call, const Error& error, const Arguments& arguments);
    bool fail(quint64 call, const Error& error);

    Settings& m_settings;
    const std::function<Status()> m_statusNow;
    BusThread& m_bus;
    const std::unique_ptr<Watch> m_watch;
    int m_unanswered = 0;
    QSet<quint64> m_served; ///< those of them that are not flushes, which wait
    Status m_status; ///< what the properties read
    Status m_announced; ///< what they read when they were last announced
    QTimer m_announcement;
    QTimer m_pendingCheck; ///< nobody tells when the last pending write was made
};

} // namespace tulo
