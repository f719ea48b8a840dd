#include "daemon/callqueue.h"

#include <algorithm>

namespace tulo {

namespace {

// What keeping any call takes beside its message.
constexpr qint64 callBytes = 512;

} // namespace

QString CallQueue::refusal(const Call& call) const
{
    const Sender sender = m_senders.value(call.sender);
    const qint64 bytes = call.bytes + callBytes;
    if (sender.calls >= maximumCalls)
        return QStringLiteral("More than %1 calls are under way").arg(maximumCalls);
    if (call.isFlush && sender.flushes >= maximumFlushes)
        return QStringLiteral("More than %1 flushes are waiting").arg(maximumFlushes);
    if (sender.bytes + bytes > maximumSenderBytes)
        return QStringLiteral("Calls of more than %1 bytes are under way").arg(maximumSenderBytes);
    if (m_bytes + bytes > maximumBytes) {
        return QStringLiteral("Calls of more than %1 bytes of all clients are under way")
            .arg(maximumBytes);
    }
    return QString();
}

void CallQueue::add(quint64 number, const Call& call)
{
    m_calls.insert(number, call);
    Sender& sender = m_senders[call.sender];
    if (sender.waiting.empty() && !sender.isHeld)
        m_turns.push_back(call.sender);
    sender.waiting.push_back(number);
    sender.calls += 1;
    sender.flushes += call.isFlush ? 1 : 0;
    sender.bytes += call.bytes + callBytes;
    m_bytes += call.bytes + callBytes;
}

std::optional<quint64> CallQueue::takeNext()
{
    if (m_served.size() == maximumServed || m_turns.empty())
        return std::nullopt;
    const QByteArray name = m_turns.front();
    m_turns.pop_front();
    Sender& sender = m_senders[name];
    const quint64 number = sender.waiting.front();
    sender.waiting.pop_front();
    if (!sender.waiting.empty())
        m_turns.push_back(name);
    if (!m_calls.value(number).isFlush)
        m_served.insert(number);
    return number;
}

void CallQueue::hold(const QByteArray& sender)
{
    const auto held = m_senders.find(sender);
    if (held == m_senders.end())
        return;
    held->isHeld = true;
    m_turns.erase(std::remove(m_turns.begin(), m_turns.end(), sender), m_turns.end());
}

void CallQueue::release(const QByteArray& sender)
{
    const auto held = m_senders.find(sender);
    if (held == m_senders.end() || !held->isHeld)
        return;
    held->isHeld = false;
    if (!held->waiting.empty())
        m_turns.push_back(sender);
}

bool CallQueue::isHeld(const QByteArray& sender) const
{
    return m_senders.value(sender).isHeld;
}

bool CallQueue::hasCalls(const QByteArray& sender) const
{
    return m_senders.contains(sender);
}

void CallQueue::remove(quint64 number)
{
    const auto entry = m_calls.find(number);
    if (entry == m_calls.end())
        return;
    const auto sender = m_senders.find(entry->sender);
    sender->calls -= 1;
    sender->flushes -= entry->isFlush ? 1 : 0;
    sender->bytes -= entry->bytes + callBytes;
    m_bytes -= entry->bytes + callBytes;
    const auto waiting = std::find(sender->waiting.begin(), sender->waiting.end(), number);
    if (waiting != sender->waiting.end()) {
        sender->waiting.erase(waiting);
        if (sender->waiting.empty() && !sender->isHeld)
            m_turns.erase(std::find(m_turns.begin(), m_turns.end(), entry->sender));
    }
    if (sender->calls == 0)
        m_senders.erase(sender);
    m_served.remove(number);
    m_calls.erase(entry);
}

QVector<quint64> CallQueue::waiting() const
{
    QVector<quint64> numbers;
    for (const Sender& sender : m_senders) {
        for (const quint64 number : sender.waiting)
            numbers.append(number);
    }
    return numbers;
}

} // namespace tulo
