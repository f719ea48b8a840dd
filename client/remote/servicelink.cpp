#include "remote/servicelink.h"

#include "wire/codec.h"
#include "wire/messages.h"

#include <QPointer>
#include <QtGlobal>

#include <algorithm>
#include <cstring>
#include <utility>

namespace tulo {
namespace {

// Longer than a flush whose sync takes its 30 seconds, with another one before it, and the writes.
constexpr qint64 callTimeoutMs = 90'000;

// A bus takes 128 calls without an answer of a connection, the service half of that and 2 MiB.
constexpr std::size_t maximumUnderWay = 32;
constexpr qint64 maximumBytesUnderWay = qint64(1024) * 1024;
constexpr int maximumPartialUnderWay = 8;
// A bus closes the connection over one message of 32 MiB.
constexpr qint64 maximumCallBytes = qint64(16) * 1024 * 1024;

constexpr int firstPauseMs = 1000;
constexpr int longestPauseMs = 30'000;

constexpr const char* driverPath = "/org/freedesktop/DBus";

bool isSame(const char* left, const char* right)
{
    return left != nullptr && std::strcmp(left, right) == 0;
}

bool isChange(const wire::Method& method)
{
    return isSame(method.interface, wire::changeInterface)
        || isSame(method.interface, wire::adminInterface);
}

// The answer may hold less than was asked for.
bool isPartial(const wire::Method& method)
{
    return &method == &wire::getMany;
}

Error cancelledError(const QString& path)
{
    return { ErrorCode::Cancelled, QStringLiteral("cancelled"), path };
}

} // namespace

ServiceLink::ServiceLink(const QString& bus)
    : m_bus(bus)
    , m_connection([this](sd_bus_message* message) { on_connection_signalled(message); })
    , m_pauseMs(firstPauseMs)
{
    m_nextAttempt.setSingleShot(true);
    connect(&m_nextAttempt, &QTimer::timeout, this, &ServiceLink::connectToBus);
    connect(&m_connection, &ClientConnection::lost, this, &ServiceLink::on_connection_lost);
    m_nextAttempt.start(0);
}

QString ServiceLink::where() const
{
    if (m_bus == QLatin1String("system") || m_bus == QLatin1String("session"))
        return QStringLiteral("the %1 bus").arg(m_bus);
    return QStringLiteral("the bus '%1'").arg(m_bus);
}

// ---------------------------------------------------------------------------------------------
// The connection and the owner of the service's name. The bus tells in order: its answer to who
// the owner is comes before all signals that the program subscribes to later.
// ---------------------------------------------------------------------------------------------

void ServiceLink::connectToBus()
{
    m_sinceAttempt.start();
    const int result = m_connection.open(wire::addressOf(m_bus));
    if (result < 0) {
        on_connection_lost(qt_error_string(-result));
        return;
    }
    const QString name = QLatin1String(wire::busName);
    callBus(addMatch,
            QStringLiteral("type='signal',sender='%1',path='%2',interface='%1',"
                           "member='NameOwnerChanged',arg0='%3'")
                .arg(QLatin1String(busDriver), QLatin1String(driverPath), name),
            [](const Answer&) {});
    callBus(getNameOwner, name, [this](const Answer& answer) { on_owner_answered(answer); });
    emit connected();
    sendCalls();
}

void ServiceLink::on_owner_answered(const Answer& answer)
{
    setOwner(answer.arguments.value(0).toString().toUtf8(), answer.error.message);
}

void ServiceLink::on_connection_lost(const QString& reason)
{
    const bool wasEstablished = std::exchange(m_isEstablished, false);
    m_owner.clear();
    auto unanswered = std::exchange(m_underWay, {});
    m_bytesUnderWay = 0;
    m_partialUnderWay = 0;
    std::deque<Call> waiting;
    QString problem;
    if (wasEstablished) {
        // What has not been sent waits for one attempt more.
        problem = QStringLiteral("the connection to %1 was lost: %2").arg(where(), reason);
        m_nextAttempt.start(0);
    } else {
        problem = QStringLiteral("cannot connect to %1: %2").arg(where(), reason);
        waiting = std::exchange(m_waiting, {});
        m_nextAttempt.start(m_pauseMs);
        m_pauseMs = std::min(2 * m_pauseMs, longestPauseMs);
    }

    // Handlers may destroy this.
    setState(Settings::State::Away, problem);
    for (auto& [number, call] : unanswered)
        call.handler({ { ErrorCode::Unavailable, problem, call.path }, {} });
    for (Call& call : waiting)
        call.handler({ { ErrorCode::Unavailable, problem, call.path }, {} });
}

void ServiceLink::on_connection_signalled(sd_bus_message* message)
{
    const char* const sender = sd_bus_message_get_sender(message);
    const bool isOfDriver = isSame(sender, busDriver);
    const bool isOfService = !m_owner.isEmpty() && isSame(sender, m_owner.constData())
        && isSame(sd_bus_message_get_path(message), wire::objectPath);
    if (isOfDriver && sd_bus_message_is_signal(message, busDriver, "NameOwnerChanged") > 0) {
        const auto arguments = wire::readArguments(message);
        if (arguments && arguments->value(0).toString() == QLatin1String(wire::busName))
            setOwner(arguments->value(2).toString().toUtf8(),
                     QStringLiteral("no service on %1").arg(where()));
        return;
    }
    if (!isOfService)
        return;
    for (const wire::Signal& known : wire::signalTable) {
        if (sd_bus_message_is_signal(message, known.interface, known.member) <= 0
            || sd_bus_message_has_signature(message, known.signature) <= 0)
            continue;
        const auto arguments = wire::readArguments(message);
        const auto event =
            arguments ? wire::eventFromArguments(known.member, *arguments) : std::nullopt;
        if (event)
            emit eventReceived(*event);
        return;
    }
}

void ServiceLink::setOwner(const QByteArray& owner, const QString& problem)
{
    m_isEstablished = true;
    m_pauseMs = firstPauseMs;
    const bool isFirst = m_state == Settings::State::Connecting;
    if (owner == m_owner && !isFirst && !owner.isEmpty())
        return;
    const QPointer<ServiceLink> self(this);
    m_owner = owner;
    if (owner.isEmpty()) {
        setState(Settings::State::Away, problem);
        return;
    }
    if (m_state == Settings::State::Ready)
        setState(Settings::State::Away, QStringLiteral("another service took its place"));
    if (self)
        setState(Settings::State::Ready, QString());
    if (self && !isFirst)
        emit returned();
}

void ServiceLink::setState(Settings::State state, const QString& problem)
{
    m_problem = problem;
    if (std::exchange(m_state, state) != state)
        emit stateChanged(state);
}

// ---------------------------------------------------------------------------------------------
// Calls: waiting, then under way, then answered.
// ---------------------------------------------------------------------------------------------

void ServiceLink::call(const wire::Method& method, const QVariantList& arguments,
                       const QString& path, Handler handler)
{
    Call call = callOf(method, arguments, path, std::move(handler));
    if (!prepare(call))
        return;
    m_waiting.push_back(std::move(call));
    sendCalls();
}

void ServiceLink::callNext(const wire::Method& method, const QVariantList& arguments,
                           const QString& path, Handler handler)
{
    Call call = callOf(method, arguments, path, std::move(handler));
    if (!prepare(call))
        return;
    m_waiting.push_front(std::move(call));
    sendCalls();
}

ServiceLink::Call ServiceLink::callOf(const wire::Method& method, const QVariantList& arguments,
                                      const QString& path, Handler handler) const
{
    return { &method, arguments, path, std::move(handler), wire::busSize(QVariant(arguments)) };
}

void ServiceLink::callBus(const wire::Method& method, const QString& argument, Handler handler)
{
    const auto answered = [this, &method, handler](sd_bus_message* answer) {
        const sd_bus_error* const error = sd_bus_message_get_error(answer);
        if (error != nullptr && sd_bus_error_has_name(error, SD_BUS_ERROR_NO_REPLY) > 0) {
            // It may do it yet: nobody knows what holds for this connection.
            m_connection.close();
            on_connection_lost(QStringLiteral("the bus gave no answer"));
            return;
        }
        handler(read(method, QString(), answer));
    };
    if (!sendMessage(method, { argument }, answered)) {
        refuse(
            { ErrorCode::Internal, QStringLiteral("cannot be sent to %1").arg(where()), QString() },
            std::move(handler));
    }
}

// Fails a call that cannot be sent, and returns false then. Without a connection, starts the next
// attempt to connect, unless the last one was just now.
bool ServiceLink::prepare(const Call& call)
{
    if (m_isAbandoned) {
        call.handler({ cancelledError(call.path), {} });
        return false;
    }
    if (call.bytes > maximumCallBytes) {
        refuse({ ErrorCode::Limits,
                 QStringLiteral("a request of more than %1 bytes").arg(maximumCallBytes),
                 call.path },
               call.handler);
        return false;
    }
    if (m_connection.isOpen())
        return true;
    if (m_nextAttempt.remainingTime() > 0 && m_sinceAttempt.elapsed() < firstPauseMs) {
        refuse({ ErrorCode::Unavailable, m_problem, call.path }, call.handler);
        return false;
    }
    m_nextAttempt.start(0);
    return true;
}

void ServiceLink::sendCalls()
{
    while (!m_waiting.empty() && mayBeSent(m_waiting.front())) {
        Call call = std::move(m_waiting.front());
        m_waiting.pop_front();
        send(std::move(call));
    }
}

bool ServiceLink::mayBeSent(const Call& call) const
{
    if (!m_connection.isOpen())
        return false;
    // The rest of what was asked for before a change must not be read after it.
    if (isChange(*call.method) && m_partialUnderWay > 0)
        return false;
    if (isPartial(*call.method) && m_partialUnderWay >= maximumPartialUnderWay)
        return false;
    return m_underWay.empty()
        || (m_underWay.size() < maximumUnderWay
            && m_bytesUnderWay + call.bytes <= maximumBytesUnderWay);
}

void ServiceLink::send(Call call)
{
    const quint64 number = ++m_lastNumber;
    const bool isSent =
        sendMessage(*call.method, call.arguments,
                    [this, number](sd_bus_message* answer) { on_call_answered(number, answer); });
    if (!isSent) {
        refuse(
            { ErrorCode::Internal, QStringLiteral("cannot be sent to %1").arg(where()), call.path },
            std::move(call.handler));
        return;
    }
    m_bytesUnderWay += call.bytes;
    if (isPartial(*call.method))
        ++m_partialUnderWay;
    m_underWay.emplace(number, std::move(call));
}

bool ServiceLink::sendMessage(const wire::Method& method, const QVariantList& arguments,
                              ClientConnection::Handler handler)
{
    const bool isOfBus = isSame(method.interface, busDriver);
    const MessagePointer message = m_connection.createCall(isOfBus ? busDriver : wire::busName,
                                                           isOfBus ? driverPath : wire::objectPath,
                                                           method.interface, method.member);
    return message && wire::appendArguments(message.get(), method.in, arguments)
        && m_connection.send(message, callTimeoutMs, std::move(handler));
}

void ServiceLink::on_call_answered(quint64 number, sd_bus_message* answer)
{
    const auto entry = m_underWay.find(number);
    const Call call = std::move(entry->second);
    m_underWay.erase(entry);
    m_bytesUnderWay -= call.bytes;
    if (isPartial(*call.method))
        --m_partialUnderWay;

    const QPointer<ServiceLink> self(this);
    call.handler(read(*call.method, call.path, answer));
    if (self)
        sendCalls();
}

ServiceLink::Answer ServiceLink::read(const wire::Method& method, const QString& path,
                                      sd_bus_message* answer) const
{
    if (sd_bus_message_is_method_error(answer, nullptr) > 0)
        return { errorOf(answer, path), {} };
    auto arguments = sd_bus_message_has_signature(answer, method.out) > 0
        ? wire::readArguments(answer)
        : std::nullopt;
    if (!arguments)
        return { malformedAnswer(path), {} };
    return { {}, std::move(*arguments) };
}

Error ServiceLink::malformedAnswer(const QString& path)
{
    return { ErrorCode::Internal, QStringLiteral("malformed answer from the service"), path };
}

// ---------------------------------------------------------------------------------------------
// Errors: the service's own, and those of the bus.
// ---------------------------------------------------------------------------------------------

Error ServiceLink::errorOf(sd_bus_message* answer, const QString& path) const
{
    const sd_bus_error* const error = sd_bus_message_get_error(answer);
    const QString message = QString::fromUtf8(error->message);
    if (const auto code = wire::errorCodeOf(error->name))
        return { *code, message, path };

    const auto isOneOf = [error](std::initializer_list<const char*> names) {
        return std::any_of(names.begin(), names.end(), [error](const char* name) {
            return sd_bus_error_has_name(error, name) > 0;
        });
    };
    if (isOneOf({ SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER }))
        return { ErrorCode::Unavailable, QStringLiteral("no service on %1").arg(where()), path };
    if (isOneOf({ SD_BUS_ERROR_ACCESS_DENIED })) {
        return { ErrorCode::Unavailable,
                 QStringLiteral("the bus does not permit it: %1; members of the group 'tulo-read' "
                                "may read, those of 'tulo' also change")
                     .arg(message),
                 path };
    }
    if (isOneOf({ SD_BUS_ERROR_NO_REPLY, SD_BUS_ERROR_TIMEOUT, SD_BUS_ERROR_DISCONNECTED,
                  "org.freedesktop.DBus.Error.TimedOut" })) {
        return { ErrorCode::Unavailable,
                 QStringLiteral("the service gave no answer: %1").arg(message), path };
    }
    // The second are those of systemd, such as that the unit is masked.
    const QByteArray name(error->name);
    if (name.startsWith("org.freedesktop.DBus.Error.Spawn.")
        || name.startsWith("org.freedesktop.systemd1.")) {
        return { ErrorCode::Unavailable,
                 QStringLiteral("the service cannot be started: %1").arg(message), path };
    }
    if (isOneOf({ SD_BUS_ERROR_LIMITS_EXCEEDED })) {
        return { ErrorCode::Limits, QStringLiteral("the bus refuses it: %1").arg(message), path };
    }
    return { ErrorCode::Internal,
             QStringLiteral("%1: %2").arg(QString::fromUtf8(error->name), message), path };
}

void ServiceLink::refuse(const Error& error, Handler handler)
{
    if (m_isAbandoned) {
        handler({ cancelledError(error.path), {} });
        return;
    }
    m_refused.push_back({ error, std::move(handler) });
    QMetaObject::invokeMethod(this, &ServiceLink::refuseNext, Qt::QueuedConnection);
}

void ServiceLink::refuseNext()
{
    const Refusal refusal = std::move(m_refused.front());
    m_refused.pop_front();
    refusal.handler({ refusal.error, {} });
}

void ServiceLink::abandon()
{
    m_isAbandoned = true;
    m_connection.close();
    m_nextAttempt.stop();
    const auto underWay = std::exchange(m_underWay, {});
    const auto waiting = std::exchange(m_waiting, {});
    const auto refused = std::exchange(m_refused, {});
    for (const auto& [number, call] : underWay)
        call.handler({ cancelledError(call.path), {} });
    for (const Call& call : waiting)
        call.handler({ cancelledError(call.path), {} });
    for (const Refusal& refusal : refused)
        refusal.handler({ cancelledError(refusal.error.path), {} });
}

} // namespace tulo
