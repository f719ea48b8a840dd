#pragma once

#include "tests/support/childprocess.h"
#include "tests/system/commandline.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QVariant>

#include <csignal>
#include <memory>

#include <sys/types.h>

// What the tests of the service share: a bus, a service and clients of a test's own.

/// A dbus-daemon for one test.
class PrivateBus
{
public:
    /// What a session bus allows: everybody everything.
    static QByteArray openPolicy();

    /// `policy` is the content of the bus configuration beside its address.
    explicit PrivateBus(const QByteArray& policy = openPolicy());

    QString address() const;
    void kill();
    /// After kill(): another daemon, at the same address.
    void startAgain();
    /// The daemon no longer runs, and its socket still accepts; until goOn().
    void stop() const;
    void goOn() const;

private:
    void startDaemon();

    const QTemporaryDir m_directory;
    std::unique_ptr<ChildProcess> m_daemon;
};

/// tulo-settingsd on trees and a bus.
class ServiceProcess : public ChildProcess
{
public:
    /// `program` comes before all of it: a program that runs another one.
    ServiceProcess(const CommandLine& trees, const QString& bus, const QStringList& options = {},
                   const QStringList& program = {});
    ~ServiceProcess();

    /// Before start(): a shell script in the place of syncing the tree's file system. A flush
    /// else takes as long as the disk needs for what all other programs wrote.
    void replaceSync(const QByteArray& script);

    /// Starts and waits until it serves.
    bool serve();
    /// Waits for what it tells the service manager: "READY=1". Empty when it ended before.
    QByteArray waitForNotice();
    /// Ends it in order, or by another signal.
    ChildResult end(int signal = SIGTERM);
    /// What it wrote to standard error, without the line that it serves.
    static QByteArray complaints(const ChildResult& result);

private:
    const int m_manager; ///< the socket of the service manager
};

/// Installs what a device needs of this build below `root`, as into an image: a file of the prefix
/// "/usr" is at root + "/usr/...".
ChildResult install(const QString& root, const QString& prefix);

/// A gate in the place of syncing: a flush stands there until it is opened, for one flush at a
/// time.
class SyncGate
{
public:
    SyncGate();
    ~SyncGate();
    Q_DISABLE_COPY(SyncGate)

    /// For ServiceProcess::replaceSync().
    QByteArray script() const;
    /// Waits until a flush stands at the gate.
    bool waitForFlush() const;
    void letOneThrough() const;

private:
    const QTemporaryDir m_directory;
    int m_arrivals = -1;
    int m_gate = -1;
};

/// A connection to a bus, with which a test plays client.
class BusClient
{
public:
    explicit BusClient(const QString& bus);
    ~BusClient();
    Q_DISABLE_COPY(BusClient)

    const QDBusConnection& connection() const { return m_connection; }
    /// A call of one of the service's methods. Changes have no options, unless they are given.
    static QDBusMessage message(const QString& method, const QVariantList& arguments = {});

    /// Calls a method of the service and waits: its answer as shown() or "ERROR: MESSAGE", the
    /// error without the service's prefix. The outcome of a change is left out when it is empty.
    QString call(const char* method, const QVariantList& arguments = {}) const;
    /// Any error's name and message; empty for an answer.
    static QString errorOf(const QDBusMessage& reply);
    /// The value of a property, as shown().
    QString property(const char* name) const;
    /// The value of a setting by itself: "x 35".
    QString value(const QString& path) const;
    /// The call and the answer as text.
    static QString shown(const QDBusMessage& message);

private:
    QDBusConnection m_connection;
};

/// A client that is another user, and in the group of that number; for root, if `user` is not.
std::unique_ptr<BusClient> clientOf(uid_t user, const QString& bus);

/// What the bus carried, with its types: `x 35`, `s "fm"`, `av [x 1]`, `{key: b true}`. Variants
/// are looked through; time stamps, which differ from run to run, are "*".
QString shown(const QVariant& value);

/// A value inside a variant, as SetValue takes it.
QVariant variantOf(const QVariant& value);

/// Records the signals that reach a client, in order: "ValueChanged /settings/audio/volume x 40".
class SignalRecorder : public QObject
{
    Q_OBJECT

public:
    /// Records the broadcasts of the service from now on, all or those of one path; when this
    /// returns, the bus knows.
    explicit SignalRecorder(const QDBusConnection& connection, const QString& path = QString());

    /// Those that came so far; what was sent before an answer that has come is among them.
    QStringList received();
    /// Waits for this one.
    bool waitFor(const QString& signal);

private slots:
    void on_bus_signal(const QDBusMessage& message);

private:
    QDBusConnection m_connection;
    QStringList m_received;
};
