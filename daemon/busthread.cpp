#include "daemon/busthread.h"

#include "daemon/log.h"

#include "wire/codec.h"
#include "wire/messages.h"

#include <QMutexLocker>

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <utility>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace tulo {

namespace {

// In one turn, so that those who send much do not keep answers from going out.
constexpr int messagesPerTurn = 32;

qint64 sizeOf(const QVariantList& arguments)
{
    qint64 bytes = 0;
    for (const QVariant& argument : arguments)
        bytes += wire::busSize(argument);
    return bytes;
}

bool isFlush(const wire::Method& method)
{
    return std::strcmp(method.member, wire::flush.member) == 0;
}

// How many changes the limit counts for a call.
int changesOf(const wire::Method& method, const QVariantList& arguments)
{
    const bool isReset = std::strcmp(method.member, wire::reset.member) == 0;
    if ((std::strcmp(method.interface, wire::changeInterface) != 0 && !isReset) || isFlush(method))
        return 0;
    ChangeOptions options;
    // What comes with options that are not valid is rejected, and counts.
    if (!isReset && !wire::optionsFromMap(arguments.last().toMap(), &options) && options.isDryRun)
        return 0;
    if (isReset || std::strcmp(method.member, wire::setMany.member) == 0)
        return std::max(1, arguments.first().toList().size());
    return 1;
}

// Of arguments that could not be read: a value that no setting can have, or a text that is none.
Error argumentError(const wire::Method& method, sd_bus_message* message)
{
    const bool isChange = std::strcmp(method.interface, wire::changeInterface) == 0;
    QString text = isChange ? QStringLiteral("A setting cannot hold this value")
                            : QStringLiteral("An argument is not valid text");
    const char* path = nullptr;
    if (isChange && method.in[0] == 's' && sd_bus_message_rewind(message, 1) >= 0
        && sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &path) > 0)
        text += QStringLiteral("; path:'%1'").arg(QString::fromUtf8(path));
    return { isChange ? ErrorCode::Rejected : ErrorCode::Refused, text, QString() };
}

} // namespace

BusThread::BusThread(const QString& bus, int changesPerMinute)
    : m_bus(bus)
    , m_wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    , m_limit(changesPerMinute)
{
    if (m_wake < 0)
        qFatal("no eventfd for the bus thread");
}

BusThread::~BusThread()
{
    end();
    ::close(m_wake);
}

// ---------------------------------------------------------------------------------------------
// From other threads.
// ---------------------------------------------------------------------------------------------

void BusThread::give(Outgoing outgoing, bool mayWait)
{
    {
        const QMutexLocker locker(&m_mutex);
        m_given.append(std::move(outgoing));
        if (mayWait || std::exchange(m_isWoken, true))
            return;
    }
    ::eventfd_write(m_wake, 1);
}

void BusThread::setProperties(const QVariantMap& values)
{
    const QMutexLocker locker(&m_mutex);
    m_properties = values;
}

void BusThread::answer(quint64 number, const QVariantList& arguments)
{
    Outgoing outgoing;
    outgoing.number = number;
    outgoing.arguments = arguments;
    give(std::move(outgoing));
}

void BusThread::fail(quint64 number, const Error& error)
{
    Outgoing outgoing;
    outgoing.kind = Outgoing::Kind::Failure;
    outgoing.number = number;
    outgoing.error = error;
    give(std::move(outgoing));
}

void BusThread::announce(const wire::Signal& signal, const QVariantList& arguments,
                         bool isAnswerComing)
{
    Outgoing outgoing;
    outgoing.kind = Outgoing::Kind::Signal;
    outgoing.signal = &signal;
    outgoing.arguments = arguments;
    give(std::move(outgoing), isAnswerComing);
}

void BusThread::announceProperties()
{
    Outgoing outgoing;
    outgoing.kind = Outgoing::Kind::Properties;
    give(std::move(outgoing));
}

std::optional<qint64> BusThread::limitedCount() const
{
    return m_limit.isOn() ? std::make_optional(m_limitedCount.load()) : std::nullopt;
}

void BusThread::refuseCalls()
{
    {
        const QMutexLocker locker(&m_mutex);
        m_isRefusing = true;
    }
    ::eventfd_write(m_wake, 1);
}

void BusThread::start()
{
    m_thread = std::thread([this] { run(); });
}

void BusThread::end()
{
    {
        const QMutexLocker locker(&m_mutex);
        m_isRefusing = true;
        m_isEnding = true;
    }
    ::eventfd_write(m_wake, 1);
    if (m_thread.joinable())
        m_thread.join();
}

// ---------------------------------------------------------------------------------------------
// The thread.
// ---------------------------------------------------------------------------------------------

void BusThread::run()
{
    ::pthread_setname_np(::pthread_self(), "bus");
    m_connection = newConnection();
    while (true) {
        sendGiven();
        if (isAtEnd())
            break;
        superviseBus();
        bool isBusy = false;
        for (int i = 0; i < messagesPerTurn && m_connection && m_connection->process(); ++i)
            isBusy = true;
        if (m_successor && m_successor->process())
            isBusy = true;
        handOut();
        if (!isBusy)
            waitForBus();
    }
    m_calls.clear();
    m_successor.reset();
    m_connection.reset();
}

bool BusThread::isAtEnd()
{
    if (!m_isReleasing) {
        {
            const QMutexLocker locker(&m_mutex);
            if (!m_isEnding)
                return false;
        }
        // The last of it may have come after this turn's.
        sendGiven();
        m_isReleasing = true;
        m_endLimit = Clock::now() + releaseLimit;
        if (m_connection)
            m_connection->release();
    }
    return !m_connection || m_connection->state() != BusConnection::State::Serving
        || m_connection->isReleased() || Clock::now() >= m_endLimit;
}

void BusThread::waitForBus()
{
    std::array<pollfd, 3> descriptors { pollfd { m_wake, POLLIN, 0 } };
    nfds_t count = 1;
    std::optional<Clock::time_point> next;
    const auto wakeAt = [&next](std::optional<Clock::time_point> time) {
        if (time && (!next || *time < *next))
            next = time;
    };
    for (const BusConnection* connection : { m_connection.get(), m_successor.get() }) {
        if (connection == nullptr)
            continue;
        // One that has failed is looked at in the next turn.
        if (connection->state() != BusConnection::State::Connecting
            && connection->state() != BusConnection::State::Serving)
            return;
        descriptors[count++] = connection->pollDescriptor();
        wakeAt(connection->timeout());
        wakeAt(connection->supervisionTime());
    }
    if (m_isReleasing)
        wakeAt(m_endLimit);
    else if (!m_connection)
        wakeAt(m_nextAttempt);

    int milliseconds = -1;
    if (next) {
        const auto remaining =
            std::chrono::ceil<std::chrono::milliseconds>(*next - Clock::now()).count();
        milliseconds = int(std::clamp<qint64>(remaining, 0, 60000));
    }
    if (::poll(descriptors.data(), count, milliseconds) > 0 && descriptors[0].revents != 0) {
        eventfd_t value = 0;
        ::eventfd_read(m_wake, &value);
    }
}

// ---------------------------------------------------------------------------------------------
// Calls: in, to the settings' thread, and back.
// ---------------------------------------------------------------------------------------------

void BusThread::handleCall(const wire::Method& method, sd_bus_message* message)
{
    const CallQueue::Call queued { sd_bus_message_get_sender(message),
                                   argumentBytes(message, CallQueue::maximumSenderBytes),
                                   isFlush(method) };
    const auto refuse = [&](const Error& error) {
        if (sd_bus_message_get_expect_reply(message) > 0)
            m_connection->fail(message, error);
    };
    const QString refusal = m_queue.refusal(queued);
    if (!refusal.isEmpty()) {
        refuse({ ErrorCode::Limits, refusal, QString() });
        return;
    }
    const std::optional<QVariantList> arguments = wire::readArguments(message);
    if (!arguments) {
        refuse(argumentError(method, message));
        return;
    }
    const quint64 number = ++m_lastNumber;
    m_queue.add(number, queued);
    Call& call = m_calls[number];
    call.method = &method;
    call.arguments = *arguments;
    call.sender = queued.sender;
    call.changes = m_limit.isOn() ? changesOf(method, *arguments) : 0;
    if (sd_bus_message_get_expect_reply(message) > 0)
        call.message.reset(sd_bus_message_ref(message));
    // Later calls of this sender wait, too, so that they stay in their order.
    if (call.changes > 0 && !m_users.contains(call.sender) && !m_queue.isHeld(call.sender)) {
        m_queue.hold(call.sender);
        m_connection->findUser(call.sender);
    }
}

void BusThread::userFound(const QByteArray& sender, std::optional<uint> user)
{
    if (m_users.size() >= maximumKnownSenders) {
        for (auto known = m_users.begin(); known != m_users.end();)
            known = m_queue.hasCalls(known.key()) ? std::next(known) : m_users.erase(known);
    }
    m_users.insert(sender, user);
    m_queue.release(sender);
}

// Counts the changes of a call whose turn it is; answers it, and returns true, when they are too
// many. Senders that were gone before the bus could tell who they are share one limit.
bool BusThread::refuseTooMuch(quint64 number, const Call& call)
{
    constexpr auto nobody = uint(-1);
    const uint user = m_users.value(call.sender).value_or(nobody);
    const std::optional<ChangeLimit::Refusal> refusal =
        m_limit.count(user, call.changes, Clock::now());
    if (!refusal)
        return false;
    ++m_limitedCount;
    if (refusal->isNews) {
        LOG4CPLUS_WARN(daemonLogger(),
                       QStringLiteral("%1 (bus name %2)")
                           .arg(refusal->message, QString::fromUtf8(call.sender))
                           .toStdString());
    }
    Outgoing outgoing;
    outgoing.kind = Outgoing::Kind::Failure;
    outgoing.number = number;
    outgoing.error = { ErrorCode::Limits, refusal->message, QString() };
    answerCall(outgoing);
    return true;
}

void BusThread::handOut()
{
    bool isRefusing = false;
    {
        const QMutexLocker locker(&m_mutex);
        isRefusing = m_isRefusing;
    }
    if (isRefusing) {
        refuseWaiting();
        return;
    }
    // Answers that the bus does not take need not be made yet.
    if (m_connection && m_connection->unsentBytes() > maximumUnsentBytes)
        return;
    while (const std::optional<quint64> number = m_queue.takeNext()) {
        Call& call = m_calls[*number];
        if (call.changes > 0 && refuseTooMuch(*number, call))
            continue;
        const BusCall handedOut { *number, call.method, std::exchange(call.arguments, {}) };
        // A queued signal would wake the other thread while it holds the lock of that one's
        // connections, which the other thread wants first of all.
        QMetaObject::invokeMethod(
            this, [this, handedOut] { emit called(handedOut); }, Qt::QueuedConnection);
    }
}

void BusThread::refuseWaiting()
{
    for (const quint64 number : m_queue.waiting()) {
        Outgoing outgoing;
        outgoing.kind = Outgoing::Kind::Failure;
        outgoing.number = number;
        outgoing.error = { ErrorCode::Unavailable, QStringLiteral("The service is stopping"),
                           QString() };
        answerCall(outgoing);
    }
}

void BusThread::sendGiven()
{
    QVector<Outgoing> given;
    {
        const QMutexLocker locker(&m_mutex);
        given.swap(m_given);
        m_isWoken = false;
    }
    for (const Outgoing& outgoing : qAsConst(given)) {
        switch (outgoing.kind) {
        case Outgoing::Kind::Answer:
        case Outgoing::Kind::Failure:
            answerCall(outgoing);
            break;
        case Outgoing::Kind::Signal:
            if (m_connection) {
                m_connection->announce(*outgoing.signal, outgoing.arguments,
                                       sizeOf(outgoing.arguments));
            }
            break;
        case Outgoing::Kind::Properties:
            if (m_connection)
                m_connection->announceProperties();
            break;
        }
    }
}

void BusThread::answerCall(const Outgoing& outgoing)
{
    const auto call = m_calls.find(outgoing.number);
    if (call == m_calls.end())
        return;
    m_queue.remove(outgoing.number);
    const Call& answered = call->second;
    if (answered.message && m_connection) {
        if (outgoing.kind == Outgoing::Kind::Failure) {
            m_connection->fail(answered.message.get(), outgoing.error);
        } else {
            m_connection->answer(answered.message.get(), *answered.method, outgoing.arguments,
                                 sizeOf(outgoing.arguments));
        }
    }
    m_calls.erase(call);
}

QVariant BusThread::propertyValue(const char* name)
{
    const QMutexLocker locker(&m_mutex);
    return m_properties.value(QLatin1String(name));
}

// ---------------------------------------------------------------------------------------------
// Connections.
// ---------------------------------------------------------------------------------------------

std::unique_ptr<BusConnection> BusThread::newConnection()
{
    Handler* const handler = this;
    return std::make_unique<BusConnection>(m_bus, m_lastUniqueName, handler);
}

void BusThread::superviseBus()
{
    const Clock::time_point now = Clock::now();
    if (!m_connection) {
        if (!m_isReleasing && now >= m_nextAttempt)
            m_connection = newConnection();
        return;
    }
    switch (m_connection->state()) {
    case BusConnection::State::Connecting:
        return;
    case BusConnection::State::Serving:
        break;
    case BusConnection::State::Refused:
    case BusConnection::State::Closed:
        if (!m_hasServed && m_lastUniqueName.isEmpty() && !m_isReleasing) {
            m_isReleasing = true;
            m_endLimit = now;
            emit failed(m_connection->failure());
        } else {
            pauseBeforeConnecting(m_connection->failure());
        }
        return;
    }
    if (!m_hasServed) {
        m_hasServed = true;
        m_servingSince = now;
        if (m_lastUniqueName.isEmpty()) {
            emit offered();
        } else {
            LOG4CPLUS_INFO(daemonLogger(), "connected to the bus again");
            m_connection->announceClosed(m_lastUniqueName);
        }
        m_lastUniqueName = m_connection->uniqueName();
    }
    // To the successor, unless that says otherwise.
    if (m_connection->hasLostName() && !m_successor && !m_isReleasing) {
        pauseBeforeConnecting(QStringLiteral("the bus name has a new owner"));
        return;
    }
    m_connection->supervise(now);
    superviseSuccessor();
}

// The connection stays in use until another one has the name: the bus may only be slow.
void BusThread::superviseSuccessor()
{
    const Clock::time_point now = Clock::now();
    const bool isSilent = m_connection->isSilent();
    if (isSilent && !std::exchange(m_isSilent, isSilent))
        LOG4CPLUS_WARN(daemonLogger(), "the bus does not read what is sent; connecting again");
    m_isSilent = isSilent;
    if (!m_successor) {
        if (isSilent && now >= m_nextAttempt)
            m_successor = newConnection();
        return;
    }
    switch (m_successor->state()) {
    case BusConnection::State::Connecting:
        if (!isSilent)
            m_successor.reset();
        return;
    case BusConnection::State::Serving:
        LOG4CPLUS_INFO(daemonLogger(), "connected to the bus again");
        replaceConnection(std::move(m_successor));
        m_connection->announceClosed(m_lastUniqueName);
        m_lastUniqueName = m_connection->uniqueName();
        return;
    case BusConnection::State::Refused:
    case BusConnection::State::Closed:
        m_successor.reset();
        m_nextAttempt = now + firstPause;
        return;
    }
}

// Calls of the connection before cannot be answered any more. Their senders know from the bus, so
// those that nobody has begun to serve are dropped.
void BusThread::replaceConnection(std::unique_ptr<BusConnection> successor)
{
    for (const quint64 number : m_queue.waiting()) {
        if (m_calls[number].message) {
            m_queue.remove(number);
            m_calls.erase(number);
        }
    }
    for (auto& [number, call] : m_calls) {
        call.message.reset();
        m_queue.release(call.sender);
    }
    // The next bus may give a name again.
    m_users.clear();
    m_connection = std::move(successor);
}

void BusThread::pauseBeforeConnecting(const QString& reason)
{
    const Clock::time_point now = Clock::now();
    if (m_hasServed) {
        LOG4CPLUS_WARN(daemonLogger(), reason.toStdString());
        // At once, unless it happens again and again.
        if (now - m_servingSince >= longestPause)
            m_pause = std::chrono::seconds(0);
    }
    m_hasServed = false;
    m_successor.reset();
    replaceConnection(nullptr);
    m_nextAttempt = now + m_pause;
    m_pause = std::clamp(2 * m_pause, firstPause, longestPause);
}

} // namespace tulo
