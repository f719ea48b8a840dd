#include "remote/clientconnection.h"

#include <QElapsedTimer>
#include <QSocketNotifier>

#include <cstdint>
#include <ctime>
#include <limits>
#include <utility>

#include <poll.h>

namespace tulo {
namespace {

// What one turn of the event loop is given to, at most.
constexpr int messagesOfTurn = 64;
constexpr qint64 nanosecondsOfTurn = 2'000'000;

constexpr quint64 usOfMs = 1000;

quint64 nowUs()
{
    timespec now {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return quint64(now.tv_sec) * 1'000'000 + quint64(now.tv_nsec) / 1000;
}

} // namespace

struct ClientConnection::Call
{
    ClientConnection* connection;
    Handler handler;
};

ClientConnection::ClientConnection(Handler signalled)
    : m_signalled(std::move(signalled))
{
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &ClientConnection::process);
}

ClientConnection::~ClientConnection()
{
    close();
}

int ClientConnection::open(const QByteArray& address)
{
    close();
    int result = sd_bus_new(&m_bus);
    if (result >= 0)
        result = sd_bus_set_address(m_bus, address.constData());
    if (result >= 0)
        result = sd_bus_set_bus_client(m_bus, 1);
    if (result >= 0)
        result = sd_bus_negotiate_fds(m_bus, 0);
    if (result >= 0)
        result = sd_bus_set_exit_on_disconnect(m_bus, 0);
    if (result >= 0)
        result = sd_bus_start(m_bus);
    if (result < 0)
        close();
    else
        listen();
    return result;
}

void ClientConnection::close()
{
    m_timer.stop();
    m_readable.reset();
    m_writable.reset();
    m_descriptor = -1;
    // Without a flush, which would wait. A program that the address named is ended.
    sd_bus_close_unref(std::exchange(m_bus, nullptr));
}

MessagePointer ClientConnection::createCall(const char* destination, const char* path,
                                            const char* interface, const char* member)
{
    sd_bus_message* message = nullptr;
    if (m_bus != nullptr)
        sd_bus_message_new_method_call(m_bus, &message, destination, path, interface, member);
    return MessagePointer(message);
}

bool ClientConnection::send(const MessagePointer& call, qint64 timeoutMs, Handler handler)
{
    if (m_bus == nullptr)
        return false;
    auto pending = std::make_unique<Call>(Call { this, std::move(handler) });
    sd_bus_slot* slot = nullptr;
    const int result = sd_bus_call_async(m_bus, &slot, call.get(), &ClientConnection::on_answer,
                                         pending.get(), quint64(timeoutMs) * usOfMs);
    if (result < 0)
        return false;
    // Owned by the connection from now on, with what belongs to it.
    sd_bus_slot_set_destroy_callback(slot, [](void* userdata) {
        const std::unique_ptr<Call> owner(static_cast<Call*>(userdata));
    });
    pending.release(); // NOLINT(bugprone-unused-return-value): the slot's
    sd_bus_slot_set_floating(slot, 1);
    sd_bus_slot_unref(slot);
    listen();
    return true;
}

// ---------------------------------------------------------------------------------------------
// In the event loop. What sd-bus waits for changes only when it is called, so each function that
// calls it ends with listen().
// ---------------------------------------------------------------------------------------------

void ClientConnection::listen()
{
    if (m_bus == nullptr)
        return;
    const int descriptor = sd_bus_get_fd(m_bus);
    const int events = sd_bus_get_events(m_bus);
    uint64_t deadlineUs = 0;
    const int timeout = sd_bus_get_timeout(m_bus, &deadlineUs);
    if (descriptor < 0 || events < 0 || timeout < 0) {
        // Found to be closed from the event loop.
        m_timer.start(0);
        return;
    }
    // Another one of an address that names several places.
    if (descriptor != m_descriptor) {
        m_descriptor = descriptor;
        m_readable = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
        m_writable = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Write);
        for (const auto* notifier : { m_readable.get(), m_writable.get() })
            connect(notifier, &QSocketNotifier::activated, this, &ClientConnection::process);
    }
    m_readable->setEnabled((events & POLLIN) != 0);
    m_writable->setEnabled((events & POLLOUT) != 0);

    if (deadlineUs == std::numeric_limits<uint64_t>::max()) {
        m_timer.stop();
        return;
    }
    // A timer that fires too early is set again then.
    if (m_timer.isActive() && m_deadlineUs <= deadlineUs)
        return;
    m_deadlineUs = deadlineUs;
    const quint64 now = nowUs();
    m_timer.start(deadlineUs <= now ? 0 : int((deadlineUs - now + usOfMs - 1) / usOfMs));
}

void ClientConnection::process()
{
    const QPointer<ClientConnection> self(this);
    QElapsedTimer turn;
    turn.start();
    for (int i = 0; i < messagesOfTurn && turn.nsecsElapsed() < nanosecondsOfTurn; ++i) {
        if (!processOne() || !self)
            break;
    }
    if (self)
        listen();
}

// False when there is nothing more to do now, among others because a handler closed or destroyed
// the connection.
bool ClientConnection::processOne()
{
    if (m_bus == nullptr)
        return false;
    sd_bus_message* message = nullptr;
    const int result = sd_bus_process(m_bus, &message);
    const MessagePointer received(message);
    if (result < 0 || sd_bus_is_open(m_bus) <= 0) {
        lose(result);
        return false;
    }
    if (m_answered) {
        const Handler handler = std::exchange(m_answered, nullptr);
        const MessagePointer answer = std::move(m_answer);
        handler(answer.get());
        return true;
    }
    if (received && sd_bus_message_is_signal(message, nullptr, nullptr) > 0)
        m_signalled(message);
    else if (received && sd_bus_message_is_method_call(message, nullptr, nullptr) > 0)
        sd_bus_reply_method_errorf(message, SD_BUS_ERROR_UNKNOWN_METHOD, "no such method");
    return result > 0;
}

int ClientConnection::on_answer(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    Call* const call = static_cast<Call*>(userdata);
    call->connection->m_answered = std::move(call->handler);
    call->connection->m_answer.reset(sd_bus_message_ref(message));
    return 1;
}

void ClientConnection::lose(int error)
{
    m_answered = nullptr;
    m_answer.reset();
    close();
    emit lost(error < 0 ? qt_error_string(-error) : QStringLiteral("the connection was closed"));
}

} // namespace tulo
