#pragma once

#include "remote/clientconnection.h"
#include "wire/names.h"

#include <tulo/error.h>
#include <tulo/settings.h>

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVariant>
#include <QVector>

#include <deque>
#include <functional>
#include <map>

namespace tulo {

// Calls of the bus itself.
inline constexpr const char* busDriver = "org.freedesktop.DBus";
inline constexpr wire::Method addMatch { busDriver, "AddMatch", "s", "", "" };
inline constexpr wire::Method removeMatch { busDriver, "RemoveMatch", "s", "", "" };
inline constexpr wire::Method getNameOwner { busDriver, "GetNameOwner", "s", "s", "" };
inline constexpr wire::Method getProcessId { busDriver, "GetConnectionUnixProcessID", "s", "u",
                                             "" };

/// The way to the service on a bus: keeps a connection, knows who owns the service's name, and
/// sends calls in the order in which they were made, no more at a time than the bus and the service
/// take.
///
/// A call that is made without a connection starts an attempt to connect and waits for it; when the
/// attempt fails, so does the call.
class ServiceLink : public QObject
{
    Q_OBJECT

public:
    struct Answer
    {
        Error error;
        QVariantList arguments; ///< of the types that the method's signature says
    };
    /// Called once, from the event loop, except by abandon().
    using Handler = std::function<void(const Answer&)>;

    /// The bus by name or address. Connects from the event loop.
    explicit ServiceLink(const QString& bus);

    Settings::State state() const { return m_state; }
    bool isConnected() const { return m_connection.isOpen(); }
    /// Why it is Away; else empty.
    const QString& problem() const { return m_problem; }
    const QByteArray& owner() const { return m_owner; }

    /// Calls the service, or the bus. `path` is what an error is about.
    void call(const wire::Method& method, const QVariantList& arguments, const QString& path,
              Handler handler);
    /// The same before all calls that wait, for the rest of one that has been answered.
    void callNext(const wire::Method& method, const QVariantList& arguments, const QString& path,
                  Handler handler);
    /// Answers with an error, from the event loop.
    void refuse(const Error& error, Handler handler);
    /// Calls the bus about this connection, before all calls that wait. When the connection is lost
    /// the handler is not called.
    void callBus(const wire::Method& method, const QString& argument, Handler handler);

    /// The error of an answer that is not what the method promises.
    static Error malformedAnswer(const QString& path);

    /// Fails all calls, and any that are made from now on, with Cancelled.
    void abandon();

signals:
    /// There is a new connection, on which nothing is subscribed to yet.
    void connected();
    void stateChanged(tulo::Settings::State state);
    /// The service is there again, so events may have been missed.
    void returned();
    void eventReceived(const tulo::Event& event);

private:
    struct Call
    {
        const wire::Method* method;
        QVariantList arguments;
        QString path;
        Handler handler;
        qint64 bytes = 0;
    };
    struct Refusal
    {
        Error error;
        Handler handler;
    };

    void connectToBus();
    void on_connection_lost(const QString& reason);
    void on_connection_signalled(sd_bus_message* message);
    void on_owner_answered(const Answer& answer);
    void setOwner(const QByteArray& owner, const QString& problem);
    void setState(Settings::State state, const QString& problem);

    Call callOf(const wire::Method& method, const QVariantList& arguments, const QString& path,
                Handler handler) const;
    bool prepare(const Call& call);
    void sendCalls();
    bool mayBeSent(const Call& call) const;
    void send(Call call);
    bool sendMessage(const wire::Method& method, const QVariantList& arguments,
                     ClientConnection::Handler handler);
    void on_call_answered(quint64 number, sd_bus_message* answer);
    Answer read(const wire::Method& method, const QString& path, sd_bus_message* answer) const;
    Error errorOf(sd_bus_message* answer, const QString& path) const;
    QString where() const;
    void refuseNext();

    const QString m_bus;
    ClientConnection m_connection;
    Settings::State m_state = Settings::State::Connecting;
    QString m_problem;
    QByteArray m_owner; ///< unique name of the service's connection; empty when there is none

    // Connecting.
    QTimer m_nextAttempt;
    QElapsedTimer m_sinceAttempt;
    int m_pauseMs;
    bool m_isEstablished = false; ///< the bus has said who owns the name

    // Calls.
    std::deque<Call> m_waiting;
    std::map<quint64, Call> m_underWay; ///< by number, which grows
    quint64 m_lastNumber = 0;
    qint64 m_bytesUnderWay = 0;
    int m_partialUnderWay = 0; ///< those whose answer may be a part, so that the rest comes next
    std::deque<Refusal> m_refused;
    bool m_isAbandoned = false;
};

} // namespace tulo
