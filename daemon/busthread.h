#pragma once

#include "daemon/busconnection.h"
#include "daemon/callqueue.h"
#include "daemon/changelimit.h"

#include <QHash>
#include <QMutex>
#include <QObject>
#include <QVariant>
#include <QVector>

#include <atomic>
#include <memory>
#include <thread>
#include <unordered_map>

namespace tulo {

/// A call from the bus, for the thread of the settings.
struct BusCall
{
    quint64 number = 0;
    const wire::Method* method = nullptr;
    QVariantList arguments; ///< in the types of the method's signature
};

/// The thread that talks to the bus. It touches no setting: it always reads, refuses what is too
/// much, hands out a few calls at a time (flushes, which wait, beside them) and sends what it is
/// given, in that order.
///
/// A bus that goes, or falls silent, does not end it: it connects again, with growing pauses. What
/// could not be sent then is lost together with the bus name's owner, which clients notice.
///
/// Made, started and destroyed on one thread; the other functions are thread-safe.
class BusThread : public QObject, private BusConnection::Handler
{
    Q_OBJECT

public:
    /// How long the bus may take to read everything when the service ends.
    static constexpr std::chrono::milliseconds releaseLimit { 2000 };
    /// While so much waits for the bus to read it, no call is handed out.
    static constexpr qint64 maximumUnsentBytes = qint64(8) * 1024 * 1024;
    /// Between attempts to connect.
    static constexpr std::chrono::seconds firstPause { 1 };
    static constexpr std::chrono::seconds longestPause { 30 };

    /// What it knows of senders; of those without a call under way it may forget it.
    static constexpr int maximumKnownSenders = 1024;

    /// Zero: any number of changes a minute.
    explicit BusThread(const QString& bus, int changesPerMinute = 0);
    /// Ends.
    ~BusThread() override;

    /// What the properties read from now on, by name, in the types of their signatures.
    void setProperties(const QVariantMap& values);

    // What is to be sent. Each call that was handed out is answered once.
    void answer(quint64 number, const QVariantList& arguments);
    void fail(quint64 number, const Error& error);
    /// With `isAnswerComing` the signal may wait for the answer that follows: it is sent before it,
    /// and the thread need not wake up twice.
    void announce(const wire::Signal& signal, const QVariantList& arguments, bool isAnswerComing);
    void announceProperties();

    /// Calls that the limit of changes has refused; 0 without a limit.
    std::optional<qint64> limitedCount() const;

    /// Hands out no more calls: those that wait, and those that come, fail with Unavailable.
    void refuseCalls();
    /// Once.
    void start();
    /// Sends what it was given, gives the name back and ends. Returns when it has, after
    /// releaseLimit at the latest.
    void end();

signals:
    /// A call to serve. On the thread that made this.
    void called(const tulo::BusCall& call);
    /// For the first time, the service has its name on the bus.
    void offered();
    /// The first connection failed, and the thread ends.
    void failed(const QString& reason);

private:
    using Clock = BusConnection::Clock;

    struct Outgoing
    {
        enum class Kind { Answer, Failure, Signal, Properties };

        Kind kind = Kind::Answer;
        quint64 number = 0; ///< of the call
        const wire::Signal* signal = nullptr;
        QVariantList arguments;
        Error error;
    };

    struct Call
    {
        const wire::Method* method = nullptr;
        QVariantList arguments; ///< until it is handed out
        QByteArray sender;
        int changes = 0; ///< that the limit counts; 0 without a limit
        MessagePointer message; ///< null when no answer is wanted, or none can be sent any more
    };

    void handleCall(const wire::Method& method, sd_bus_message* message) override;
    QVariant propertyValue(const char* name) override;
    void userFound(const QByteArray& sender, std::optional<uint> user) override;

    void run();
    void give(Outgoing outgoing, bool mayWait = false);
    void sendGiven();
    void answerCall(const Outgoing& outgoing);
    void handOut();
    void refuseWaiting();
    [[nodiscard]] bool refuseTooMuch(quint64 number, const Call& call);

    std::unique_ptr<BusConnection> newConnection();
    void superviseBus();
    void superviseSuccessor();
    void replaceConnection(std::unique_ptr<BusConnection> successor);
    void pauseBeforeConnecting(const QString& reason);
    bool isAtEnd();
    void waitForBus();

    const QString m_bus;
    std::thread m_thread;
    std::atomic<qint64> m_limitedCount { 0 };
    const int m_wake; ///< an eventfd: something was given, or the thread is to end

    QMutex m_mutex;
    // Under the mutex.
    QVector<Outgoing> m_given;
    bool m_isWoken = false; ///< to send what was given
    QVariantMap m_properties;
    bool m_isRefusing = false;
    bool m_isEnding = false;

    // Bus thread only.
    std::unique_ptr<BusConnection> m_connection; ///< null while there is no bus
    bool m_isSilent = false; ///< the connection, when it was last looked at
    std::unique_ptr<BusConnection> m_successor; ///< while it is
    QByteArray m_lastUniqueName; ///< of the last connection that had the name
    bool m_hasServed = false; ///< the present connection
    Clock::time_point m_servingSince;
    CallQueue m_queue;
    std::unordered_map<quint64, Call> m_calls;
    quint64 m_lastNumber = 0;
    ChangeLimit m_limit;
    QHash<QByteArray, std::optional<uint>> m_users; ///< of senders, once the bus has told
    std::chrono::seconds m_pause { 0 };
    Clock::time_point m_nextAttempt;
    Clock::time_point m_endLimit;
    bool m_isReleasing = false; ///< ending
};

} // namespace tulo
