#pragma once

#include "daemon/busmessage.h"

#include "wire/names.h"

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QVariant>

#include <chrono>
#include <deque>
#include <memory>
#include <optional>

#include <poll.h>

namespace tulo {

/// One connection to a bus that offers the settings' object and acquires the bus name.
///
/// Nothing in it blocks. Lives on the bus thread, which polls it; sd-bus calls the handler from
/// within process().
class BusConnection
{
public:
    using Clock = std::chrono::steady_clock;

    /// What comes over the connection.
    class Handler
    {
    public:
        /// A call of one of our methods. To answer later, keep a reference.
        virtual void handleCall(const wire::Method& method, sd_bus_message* message) = 0;
        /// The value of a property in the type of its signature.
        virtual QVariant propertyValue(const char* name) = 0;
        /// What findUser() has found; no user when the bus knows none of that name any more.
        virtual void userFound(const QByteArray& sender, std::optional<uint> user) = 0;

    protected:
        ~Handler() = default;
    };

    enum class State {
        Connecting, ///< the bus has not said yet whether we have the name
        Serving, ///< has the bus name
        Refused, ///< the bus, or another owner of the name, does not let us have it
        Closed ///< or never opened
    };

    /// As much may wait for the bus to read it, before the connection counts as broken.
    static constexpr qint64 maximumUnsentBytes = qint64(64) * 1024 * 1024;
    static constexpr quint64 maximumUnsentMessages = 100000;

    /// Connects to "system", "session" or an address. The name is taken over from the connection
    /// that the bus calls `predecessor`, and from nobody else.
    BusConnection(const QString& bus, const QByteArray& predecessor, Handler* handler);
    ~BusConnection();
    Q_DISABLE_COPY(BusConnection)

    State state() const { return m_state; }
    /// Why it is refused or closed, in one line.
    const QString& failure() const { return m_failure; }
    /// The bus name went to another connection.
    bool hasLostName() const { return m_hasLostName; }
    /// The connection's own name; empty before the bus has given it.
    QByteArray uniqueName() const;

    // The loop of the thread that polls.
    pollfd pollDescriptor() const;
    /// When process() is to be called without anything to read or write.
    std::optional<Clock::time_point> timeout() const;
    /// Receives, handles or sends a message; false when there is nothing to do now.
    bool process();

    /// What was sent and is not in the hands of the system yet.
    qint64 unsentBytes();
    /// Finds out whether the bus reads what we send, by sending a little more if need be. To be
    /// called as often as supervisionTime() says.
    void supervise(Clock::time_point now);
    std::optional<Clock::time_point> supervisionTime() const;
    /// There is something to read, and the bus has read nothing for about two seconds. Counted in
    /// looks, as a machine on which we get no time to look gives the bus none either.
    bool isSilent() const { return m_looksWithoutProgress >= 10; }

    /// Each takes arguments of about so many bytes.
    void answer(sd_bus_message* call, const wire::Method& method, const QVariantList& arguments,
                qint64 bytes);
    void fail(sd_bus_message* call, const Error& error);
    void announce(const wire::Signal& signal, const QVariantList& arguments, qint64 bytes);
    void announceProperties();

    /// Asks the bus which user a sender is, for the handler.
    void findUser(const QByteArray& sender);

    /// Has the bus notice that the connection it calls `uniqueName`, from which it does not read,
    /// is closed: it writes to it. Only then do callers that wait for its answers get an error.
    void announceClosed(const QByteArray& uniqueName);

    /// Gives the name back. isReleased() once the bus has answered, which it does after it has read
    /// everything that was sent before.
    void release();
    bool isReleased() const { return m_isReleased; }

private:
    // Called by sd-bus, with this object as `userdata`.
    static int on_call(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int on_property(sd_bus* bus, const char* path, const char* interface, const char* name,
                           sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int on_message(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int on_owner_found(sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int on_user_found(sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int on_name_requested(sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int on_name_released(sd_bus_message* reply, void* userdata, sd_bus_error* error);

    struct VTables;
    static const VTables& vtables();

    int open(const QString& bus);
    int handle(sd_bus_message* message);
    bool succeed(int result);
    void close(State state, const QString& reason);
    void requestName(quint64 flags);
    void send(sd_bus_message* message, qint64 bytes);
    void sendProbe();

    Handler* const m_handler;
    const QByteArray m_predecessor;
    sd_bus* m_bus = nullptr;
    State m_state = State::Connecting;
    QString m_failure;
    bool m_hasLostName = false;
    bool m_isReleased = false;

    std::deque<MessagePointer> m_early; ///< calls that came before the answer about the name
    std::deque<qint64> m_unsent; ///< bytes of each message that waits, the first ones first
    qint64 m_unsentBytes = 0;
    quint64 m_sent = 0;

    QHash<quint64, QByteArray> m_sought; ///< senders, by the number of the question to the bus

    // Supervision of what was sent.
    bool m_hasSent = false; ///< since the bus was last known to have passed on everything
    std::optional<quint64> m_sentBeforeProbe; ///< messages; none when no probe is under way
    int m_looksWithoutProgress = 0; ///< one after the other
    int m_unread = 0; ///< bytes in the socket
    quint64 m_handedOver = 0; ///< messages that had reached the socket
    Clock::time_point m_nextLook;
};

} // namespace tulo
