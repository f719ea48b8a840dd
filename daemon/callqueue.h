#pragma once

#include <QByteArray>
#include <QHash>
#include <QSet>
#include <QString>
#include <QVector>

#include <deque>
#include <optional>

namespace tulo {

/// The calls that clients have under way: what is too much is refused, the rest is taken a few at a
/// time, senders in turn, each in its own order. Knows calls by number only. A plain data
/// structure; lives on the bus thread.
class CallQueue
{
public:
    /// The most that one sender has under way.
    static constexpr int maximumCalls = 64;
    static constexpr qint64 maximumSenderBytes = qint64(2) * 1024 * 1024;
    static constexpr int maximumFlushes = 16;
    /// The most of all senders together.
    static constexpr qint64 maximumBytes = qint64(16) * 1024 * 1024;

    /// Taken and not answered: enough that the thread of the settings never waits for the next one,
    /// and few, so that no sender waits long for its turn.
    static constexpr int maximumServed = 4;

    struct Call
    {
        QByteArray sender;
        qint64 bytes = 0; ///< of its message
        bool isFlush = false; ///< waits for the disk, and does not hold up other calls
    };

    /// Empty when `call` can be added; otherwise why not, in one line.
    QString refusal(const Call& call) const;
    /// `number` is not known yet.
    void add(quint64 number, const Call& call);
    /// The next call to serve, none while maximumServed are being served that are not flushes.
    std::optional<quint64> takeNext();
    /// From now on, until release(), no call of a sender that has calls here is taken.
    void hold(const QByteArray& sender);
    void release(const QByteArray& sender);
    bool isHeld(const QByteArray& sender) const;
    bool hasCalls(const QByteArray& sender) const;
    /// The call has been answered, or will not be. Nothing for a number that is not known.
    void remove(quint64 number);
    /// Those that were not taken.
    QVector<quint64> waiting() const;

private:
    struct Sender
    {
        std::deque<quint64> waiting;
        bool isHeld = false;
        int calls = 0;
        int flushes = 0;
        qint64 bytes = 0;
    };

    QHash<quint64, Call> m_calls;
    QHash<QByteArray, Sender> m_senders;
    std::deque<QByteArray> m_turns; ///< senders with calls that wait, each once; not those held
    qint64 m_bytes = 0;
    QSet<quint64> m_served; ///< without flushes
};

} // namespace tulo
