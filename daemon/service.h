#pragma once

#include "daemon/busvalue.h"
#include "engine/engine.h"

#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QHash>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <QVariant>

namespace tulo {

/// Offers an engine's settings on D-Bus. The interface, its methods, signals and errors are
/// described in org.tulo.ConfigurationManager1.xml; the names below are theirs.
///
/// Lives on the engine's thread and serves every call there, in the order of arrival, so one
/// request of all clients is under way at a time. Only flushes wait, and hold up others no
/// longer than the pending files take to write; a client has at most maximumWaiting of them.
/// Invalid values are rejected before they reach the worker; what the worker announces goes out
/// as broadcast signals.
///
/// A call whose sender wants no answer is ignored.
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
    /// The rows of one answer take about so many bytes; a row that takes more comes with an error
    /// in place of its roles. Far below what a bus allows, so that no answer holds others up.
    static constexpr int maximumPageBytes = 1024 * 1024;
    /// The roles of one node take at most so many bytes: more than any file of a tree makes.
    static constexpr int maximumRolesBytes = 24 * 1024 * 1024;
    /// How often changed properties are announced at most.
    static constexpr int announcementIntervalMs = 1000;
    /// How long the bus may take to answer when the service withdraws from it.
    static constexpr int withdrawTimeoutMs = 2000;

    static QString busName();
    static QString objectPath();
    static QString interfaceName();
    /// The name of an error on the bus, from its last part: "InvalidPath".
    static QString errorPrefix();

    /// `engine` outlives the service.
    explicit Service(Engine& engine);
    /// Withdraws.
    ~Service() override;

    /// Offers the object and takes the bus name. False when the bus or another service does not
    /// allow it; `reason`, one line, says why.
    bool offer(const QDBusConnection& bus, QString* reason);
    /// Takes no more calls; what was sent before is out of the process when this returns, unless
    /// the bus does not answer in withdrawTimeoutMs. Can be offered again.
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
    bool refused(const CMError& error);
    bool accepted(const QString& path);
    bool acceptedValue(const QString& path, const QVariant& sent, TuloValue* value);
    QVariantMap stored(const CMSetDataRequest::Reply& reply);
    TuloRoles settingRoles(const QString& path);
    bool isEncrypted(const CMPath& path);
    void answerFlush(const QDBusMessage& call, const FlushResult& result);
    void announceProperties();

    Engine& m_engine;
    QDBusConnection m_bus;
    bool m_isOffered = false;
    QHash<QString, int> m_waitingFlushes; ///< by client
    QTimer m_announcement;
    int m_announcedRevision = 0; ///< of the write tracker
};

} // namespace tulo
