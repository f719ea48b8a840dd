#pragma once

#include "session.h"

#include <QDBusConnection>
#include <QDBusVariant>
#include <QObject>
#include <QSet>

#include <memory>

class ConfigurationManagerProxy;
class QDBusError;

namespace tulo {

/// The state of the service, from its properties and from the bus.
struct ServiceStatus
{
    QString version;
    QString defaultPath;
    QString writePath;
    uint pendingWrites = 0;
    QStringList unsavedPaths;
    QString lastWriteError;
    qint64 processId = 0; ///< 0 when the bus does not know
};

/// The settings served by another process, over D-Bus.
class BusSession : public QObject, public Session
{
    Q_OBJECT

public:
    /// `bus` is "system", "session" or an address. Null when there is no bus or no service on
    /// it; `failure` says so. A service that the bus can start is started.
    static std::unique_ptr<BusSession> open(const QString& bus, Failure* failure);
    /// Connects to a bus by the same names.
    static QDBusConnection connectTo(const QString& bus);
    ~BusSession() override;

    /// True after watchesLost().
    bool hasLostWatches() const { return m_hasLostWatches; }
    Answer<ServiceStatus> status();

    bool isOwnProcess() const override { return false; }
    Answer<TreeDirectories> directories() override;

    Answer<QVariantHash> getData(const QString& path, const QStringList& roles) override;
    Answer<RowPage> getRows(const QString& path, int first, int last,
                            const QStringList& roles) override;
    Answer<QVariantHash> setValue(const QString& path, const TuloValue& value) override;
    Answer<QVariantHash> setRoles(const QString& path, const QVariantHash& roles) override;
    Answer<QVariantHash> apply(const QString& path, const QString& verb,
                               const TuloValue& operand) override;
    Failure flush() override;
    Failure dropCache() override;
    /// The service writes by itself, so there is nothing to wait for unless it is asked for.
    Failure settle(bool forDisk) override;
    Failure watch(const QString& path) override;
    void unwatch(const QString& path) override;

signals:
    /// From the event loop: the bus closed the connection, so no more events come.
    void watchesLost();

private slots:
    void on_bus_disconnected();
    void on_service_valueChanged(const QString& path, const QDBusVariant& value);
    void on_service_dataChanged(const QString& path);
    void on_service_rowsChanged(const QString& path, const QString& command, int rowsVersion);

private:
    explicit BusSession(const QDBusConnection& connection);

    void deliverEvents();
    Failure subscribe(const QString& path);

    QDBusConnection m_connection;
    const std::unique_ptr<ConfigurationManagerProxy> m_proxy;
    QSet<QString> m_watched;
    bool m_isSubscribed = false;
    bool m_hasLostWatches = false;
};

} // namespace tulo
