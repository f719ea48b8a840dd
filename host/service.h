#pragma once

#include "host/busvalue.h"
#include "host/host.h"

#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <QVariant>
#include <QVector>

/// Offers a host's settings on D-Bus. The interface, its methods, signals and errors are
/// described in org.tulo.ConfigurationManager1.xml; the names below are theirs.
///
/// Lives on the host's thread and serves every call there, in the order of arrival, so one
/// request of all clients is under way at a time. Only flushes wait: those that wait already
/// share one run, and a client has at most maximumWaiting of them. Null and wrong values are
/// turned away before they reach the worker; what the worker announces goes out as broadcast
/// signals, which no slow reader holds up.
///
/// A call whose sender wants no answer is not served: the bus limits the answers that a client
/// waits for, and nothing else keeps one client from filling the queue for all.
class Service : public QObject, protected QDBusContext, private CMSubscriber
{
    Q_OBJECT
    Q_PROPERTY(QString Version READ version)
    Q_PROPERTY(uint PendingWrites READ pendingWrites)
    Q_PROPERTY(QStringList UnsavedPaths READ unsavedPaths)
    Q_PROPERTY(QString LastWriteError READ lastWriteError)
    Q_PROPERTY(QString DefaultPath READ defaultPath)
    Q_PROPERTY(QString WritePath READ writePath)

public:
    static constexpr int maximumWaiting = 16;
    /// The bus closes the connection of whoever sends more than 64 KiB, so the service sends
    /// less: what follows a message's header has at most so many bytes ...
    static constexpr int maximumBodyBytes = 62 * 1024;
    /// ... and a value that is set, which is announced and answered later, so many.
    static constexpr int maximumValueBytes = 56 * 1024;

    static QString busName();
    static QString objectPath();
    static QString interfaceName();
    /// The name of an error on the bus, from its last part: "InvalidPath".
    static QString errorPrefix();

    /// `host` outlives the service.
    explicit Service(Host& host);
    /// Withdraws.
    ~Service() override;

    /// Offers the object and takes the bus name. False when the bus or another service does not
    /// allow it; `reason`, one line, says why.
    bool offer(const QDBusConnection& bus, QString* reason);
    /// Takes no more calls; answers the flushes that wait. Can be offered again.
    void withdraw();
    /// False once the bus has closed the connection. The event loop wakes up for that.
    bool isConnected() const;

    QString version() const;
    uint pendingWrites() const;
    QStringList unsavedPaths() const;
    QString lastWriteError() const;
    QString defaultPath() const;
    QString writePath() const;

    // Called by the adaptor, inside a D-Bus call.
    QVariantMap GetData(const QString& path, const QStringList& roles);
    uint GetRows(const QString& path, int first, int last, const QStringList& roles,
                 int& rowsVersion, QVariantMap& directoryRoles, BusRows& rows);
    QVariantMap SetValue(const QString& path, const QDBusVariant& value);
    QVariantMap SetRoles(const QString& path, const QVariantMap& roles);
    QVariantMap Apply(const QString& path, const QString& verb, const QVariantList& operand);
    uint Flush();
    void DropCache();

signals:
    void ValueChanged(const QString& path, const QDBusVariant& value);
    void DataChanged(const QString& path);
    void RowsChanged(const QString& path, const QString& command, int rowsVersion);

private slots:
    void on_bus_disconnected();

private:
    void valueChanged(const CMPath& path, const QVariant& value) override;
    void dataChanged(const CMPath& path) override;
    void rowsChanged(const CMPath& path, const QString& command, int version) override;

    void refuse(const QString& error, const QString& message);
    void refuseSize(const QString& path);
    bool refused(const CMVoidReply& reply);
    bool accepted(const QString& path);
    bool acceptedValue(const QString& path, const QVariant& sent, TuloValue* value);
    QVariantMap stored(const CMSetDataRequest::Reply& reply);
    TuloRoles settingRoles(const QString& path);
    bool isEncrypted(const CMPath& path);
    void answerFlushes();
    QVariantMap changingProperties() const;
    void announceProperties();

    Host& m_host;
    QDBusConnection m_bus;
    bool m_isOffered = false;
    QVector<QDBusMessage> m_waitingFlushes;
    QTimer m_flushRun;
    QVariantMap m_announced; ///< the changing properties as they were announced last
};
