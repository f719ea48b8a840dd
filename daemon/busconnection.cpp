#include "daemon/busconnection.h"

#include "wire/codec.h"

#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include <linux/sockios.h>
#include <sys/ioctl.h>

namespace tulo {

namespace {

using namespace std::chrono_literals;

constexpr const char* busService = "org.freedesktop.DBus";
constexpr const char* busPath = "/org/freedesktop/DBus";

// How often the bus is looked at while we send, and while there is something that it has not read.
constexpr auto lookInterval = 1000ms;
constexpr auto closeLookInterval = 200ms;

QString errorText(int result)
{
    return qt_error_string(-result);
}

} // namespace

// ---------------------------------------------------------------------------------------------
// What is offered: one table for each interface, made of the description of the messages. The
// policy of the bus decides who may call what, so every entry is unprivileged.
// ---------------------------------------------------------------------------------------------

struct BusConnection::VTables
{
    struct OfInterface
    {
        const char* interface;
        std::vector<sd_bus_vtable> entries;
    };
    std::vector<OfInterface> interfaces;
};

const BusConnection::VTables& BusConnection::vtables()
{
    static const VTables tables = [] {
        VTables all;
        for (const char* interface :
             { wire::readInterface, wire::changeInterface, wire::adminInterface }) {
            std::vector<sd_bus_vtable> entries;
            const auto add = [&entries](char type, uint flags) -> sd_bus_vtable& {
                entries.emplace_back();
                sd_bus_vtable& entry = entries.back();
                std::memset(&entry, 0, sizeof entry);
                entry.type = quint8(type);
                entry.flags = flags;
                return entry;
            };
            sd_bus_vtable& start = add(_SD_BUS_VTABLE_START, 0);
            start.x.start.element_size = sizeof(sd_bus_vtable);
            start.x.start.features = _SD_BUS_VTABLE_PARAM_NAMES;
            start.x.start.vtable_format_reference = &sd_bus_object_vtable_format;
            for (const wire::Method& method : wire::methodTable) {
                if (std::strcmp(method.interface, interface) != 0)
                    continue;
                sd_bus_vtable& entry = add(_SD_BUS_VTABLE_METHOD, uint(SD_BUS_VTABLE_UNPRIVILEGED));
                entry.x.method.member = method.member;
                entry.x.method.signature = method.in;
                entry.x.method.result = method.out;
                entry.x.method.handler = on_call;
                entry.x.method.names = method.names;
            }
            for (const wire::Signal& signal : wire::signalTable) {
                if (std::strcmp(signal.interface, interface) != 0)
                    continue;
                sd_bus_vtable& entry = add(_SD_BUS_VTABLE_SIGNAL, 0);
                entry.x.signal.member = signal.member;
                entry.x.signal.signature = signal.signature;
                entry.x.signal.names = signal.names;
            }
            for (const wire::Property& property : wire::propertyTable) {
                if (std::strcmp(property.interface, interface) != 0)
                    continue;
                uint flags = 0;
                if (property.announced == wire::Property::Announced::Constant)
                    flags = uint(SD_BUS_VTABLE_PROPERTY_CONST);
                else if (property.announced == wire::Property::Announced::Changes)
                    flags = uint(SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE);
                sd_bus_vtable& entry = add(_SD_BUS_VTABLE_PROPERTY, flags);
                entry.x.property.member = property.name;
                entry.x.property.signature = property.signature;
                entry.x.property.get = on_property;
            }
            add(_SD_BUS_VTABLE_END, 0);
            all.interfaces.push_back({ interface, std::move(entries) });
        }
        return all;
    }();
    return tables;
}

int BusConnection::on_call(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/)
{
    auto* const self = static_cast<BusConnection*>(userdata);
    if (self->m_state == State::Serving)
        return self->handle(message);
    // Where a call starts the service, the bus delivers it before it says that the name is ours.
    const char* const destination = sd_bus_message_get_destination(message);
    if (self->m_state != State::Connecting || destination == nullptr
        || std::strcmp(destination, wire::busName) != 0)
        return -EAGAIN;
    self->m_early.emplace_back(sd_bus_message_ref(message));
    return 1;
}

int BusConnection::handle(sd_bus_message* message)
{
    const char* const interface = sd_bus_message_get_interface(message);
    const char* const member = sd_bus_message_get_member(message);
    for (const wire::Method& method : wire::methodTable) {
        // A call without an interface means any.
        if (std::strcmp(method.member, member) == 0
            && (interface == nullptr || std::strcmp(method.interface, interface) == 0)) {
            m_handler->handleCall(method, message);
            return 1;
        }
    }
    return 0;
}

int BusConnection::on_property(sd_bus* /*bus*/, const char* /*path*/, const char* /*interface*/,
                               const char* name, sd_bus_message* reply, void* userdata,
                               sd_bus_error* /*error*/)
{
    for (const wire::Property& property : wire::propertyTable) {
        if (std::strcmp(property.name, name) == 0) {
            const QVariant value =
                static_cast<BusConnection*>(userdata)->m_handler->propertyValue(name);
            return wire::appendArguments(reply, property.signature, { value }) ? 1 : -EINVAL;
        }
    }
    return -ENOENT;
}

// ---------------------------------------------------------------------------------------------
// Connecting, and the name.
// ---------------------------------------------------------------------------------------------

BusConnection::BusConnection(const QString& bus, const QByteArray& predecessor, Handler* handler)
    : m_handler(handler)
    , m_predecessor(predecessor)
{
    const int result = open(bus);
    if (result < 0)
        close(State::Closed,
              QStringLiteral("cannot connect to the bus '%1': %2").arg(bus, errorText(result)));
}

BusConnection::~BusConnection()
{
    // What is unsent is discarded: sending it could block.
    sd_bus_close_unref(m_bus);
}

int BusConnection::open(const QString& bus)
{
    int result = sd_bus_new(&m_bus);
    if (result >= 0)
        result = sd_bus_set_address(m_bus, wire::addressOf(bus).constData());
    if (result >= 0)
        result = sd_bus_set_bus_client(m_bus, 1);
    // None of our methods takes a file descriptor, and we would have to keep those that come.
    if (result >= 0)
        result = sd_bus_negotiate_fds(m_bus, 0);
    for (const VTables::OfInterface& table : vtables().interfaces) {
        if (result >= 0) {
            result = sd_bus_add_object_vtable(m_bus, nullptr, wire::objectPath, table.interface,
                                              table.entries.data(), this);
        }
    }
    if (result >= 0)
        result = sd_bus_add_filter(m_bus, nullptr, on_message, this);
    if (result >= 0)
        result = sd_bus_start(m_bus);
    if (result < 0)
        return result;
    // Both are sent after the bus has let us in.
    if (m_predecessor.isEmpty()) {
        requestName(0);
        return 0;
    }
    return sd_bus_call_method_async(m_bus, nullptr, busService, busPath, busService, "GetNameOwner",
                                    on_owner_found, this, "s", wire::busName);
}

// The name is replaced only where our own earlier connection has it, so that two daemons do not
// take it from each other.
int BusConnection::on_owner_found(sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/)
{
    auto* const self = static_cast<BusConnection*>(userdata);
    const char* owner = "";
    if (sd_bus_message_is_method_error(reply, nullptr) == 0)
        (void)sd_bus_message_read(reply, "s", &owner);
    self->requestName(self->m_predecessor == owner ? SD_BUS_NAME_REPLACE_EXISTING : 0);
    return 1;
}

void BusConnection::requestName(quint64 flags)
{
    succeed(sd_bus_request_name_async(m_bus, nullptr, wire::busName,
                                      flags | SD_BUS_NAME_ALLOW_REPLACEMENT, on_name_requested,
                                      this));
}

int BusConnection::on_name_requested(sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/)
{
    auto* const self = static_cast<BusConnection*>(userdata);
    QString detail = QStringLiteral("already owned");
    if (sd_bus_message_is_method_error(reply, nullptr) != 0) {
        detail = QString::fromUtf8(sd_bus_message_get_error(reply)->message);
    } else {
        constexpr quint32 primaryOwner = 1;
        constexpr quint32 alreadyOwner = 4;
        quint32 answer = 0;
        (void)sd_bus_message_read(reply, "u", &answer);
        if (answer == primaryOwner || answer == alreadyOwner) {
            if (self->m_state == State::Connecting)
                self->m_state = State::Serving;
            return 1;
        }
    }
    if (self->m_state == State::Connecting) {
        self->close(State::Refused,
                    QStringLiteral("cannot acquire the bus name '%1': %2")
                        .arg(QLatin1String(wire::busName), detail));
    }
    return 1;
}

// What is sent to us alone, and not a call or its answer.
int BusConnection::on_message(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/)
{
    if (sd_bus_message_is_signal(message, busService, "NameLost") == 0)
        return 0;
    const char* name = nullptr;
    if (sd_bus_message_read(message, "s", &name) > 0 && std::strcmp(name, wire::busName) == 0)
        static_cast<BusConnection*>(userdata)->m_hasLostName = true;
    return 0;
}

QByteArray BusConnection::uniqueName() const
{
    const char* name = nullptr;
    // Would wait while connecting.
    if (m_state == State::Connecting || sd_bus_get_unique_name(m_bus, &name) < 0)
        return QByteArray();
    return name;
}

// The connection itself is closed by the destructor, outside of what sd-bus calls.
void BusConnection::close(State state, const QString& reason)
{
    if (m_state == State::Closed || m_state == State::Refused)
        return;
    m_state = state;
    m_failure = reason;
}

bool BusConnection::succeed(int result)
{
    if (result >= 0)
        return true;
    close(State::Closed,
          QStringLiteral("the bus closed the connection: %1").arg(errorText(result)));
    return false;
}

void BusConnection::release()
{
    if (m_state == State::Serving)
        succeed(sd_bus_release_name_async(m_bus, nullptr, wire::busName, on_name_released, this));
}

int BusConnection::on_name_released(sd_bus_message* /*reply*/, void* userdata,
                                    sd_bus_error* /*error*/)
{
    static_cast<BusConnection*>(userdata)->m_isReleased = true;
    return 1;
}

// ---------------------------------------------------------------------------------------------
// The loop.
// ---------------------------------------------------------------------------------------------

pollfd BusConnection::pollDescriptor() const
{
    const int events = sd_bus_get_events(m_bus);
    return { sd_bus_get_fd(m_bus), short(events < 0 ? 0 : events), 0 };
}

std::optional<BusConnection::Clock::time_point> BusConnection::timeout() const
{
    // Of the monotonic clock, as Clock is.
    uint64_t microseconds = 0;
    if (sd_bus_get_timeout(m_bus, &microseconds) <= 0
        || microseconds > quint64(std::numeric_limits<qint64>::max() / 1000))
        return std::nullopt;
    return Clock::time_point(std::chrono::microseconds(microseconds));
}

bool BusConnection::process()
{
    if (m_state == State::Closed || m_state == State::Refused)
        return false;
    if (m_state == State::Serving && !m_early.empty()) {
        const MessagePointer call = std::move(m_early.front());
        m_early.pop_front();
        handle(call.get());
        return true;
    }
    const int result = sd_bus_process(m_bus, nullptr);
    return succeed(result) && result > 0;
}

// ---------------------------------------------------------------------------------------------
// Supervision. A bus whose queue for a client that does not read is full stops reading from us,
// without a word: what we send from then on stays in our socket. What it had read by then may be
// stuck as well, so that an empty socket proves nothing. But it reads no further before it has
// passed on what it read earlier: once it reads one more message, the probe, all is well. An answer
// to that could prove no more, and would have to wait behind all that the bus has for us.
// ---------------------------------------------------------------------------------------------

void BusConnection::supervise(Clock::time_point now)
{
    if (m_state != State::Serving || !m_hasSent)
        return;
    // Before the name is taken over from a connection that is read again.
    if (now < m_nextLook && !isSilent())
        return;
    uint64_t queued = 0;
    int unread = 0;
    const bool isKnown = sd_bus_get_n_queued_write(m_bus, &queued) >= 0
        && ::ioctl(sd_bus_get_fd(m_bus), SIOCOUTQ, &unread) == 0;
    const bool isRead = isKnown && queued == 0 && unread == 0;
    const bool isMoving =
        unread < m_unread || (unread == m_unread && m_sent - queued > m_handedOver);
    m_looksWithoutProgress = isRead || isMoving ? 0 : m_looksWithoutProgress + 1;
    m_unread = unread;
    m_handedOver = m_sent - queued;
    m_nextLook = now + closeLookInterval;
    if (!isRead)
        return;
    if (m_sentBeforeProbe) {
        m_hasSent = m_sent != *std::exchange(m_sentBeforeProbe, std::nullopt);
        m_nextLook = now + lookInterval;
    } else {
        m_sentBeforeProbe = m_sent;
        sendProbe();
    }
}

void BusConnection::sendProbe()
{
    sd_bus_message* message = nullptr;
    int result = sd_bus_message_new_method_call(m_bus, &message, busService, busPath,
                                                "org.freedesktop.DBus.Peer", "Ping");
    const MessagePointer owner(message);
    if (result >= 0)
        result = sd_bus_message_set_expect_reply(message, 0);
    succeed(result < 0 ? result : sd_bus_send(m_bus, message, nullptr));
}

std::optional<BusConnection::Clock::time_point> BusConnection::supervisionTime() const
{
    if (m_state != State::Serving || !m_hasSent)
        return std::nullopt;
    return m_nextLook;
}

qint64 BusConnection::unsentBytes()
{
    uint64_t queued = 0;
    if (m_unsent.empty() || sd_bus_get_n_queued_write(m_bus, &queued) < 0)
        return m_unsentBytes;
    // sd-bus also queues internal messages, so the count may be too high for a moment.
    while (m_unsent.size() > queued) {
        m_unsentBytes -= m_unsent.front();
        m_unsent.pop_front();
    }
    return m_unsentBytes;
}

// ---------------------------------------------------------------------------------------------
// Sending.
// ---------------------------------------------------------------------------------------------

void BusConnection::send(sd_bus_message* message, qint64 bytes)
{
    if (m_state != State::Serving || !succeed(sd_bus_send(m_bus, message, nullptr)))
        return;
    if (!m_hasSent) {
        m_hasSent = true;
        m_nextLook = Clock::now() + lookInterval;
    }
    ++m_sent;
    m_unsent.push_back(bytes);
    m_unsentBytes += bytes;
    uint64_t queued = 0;
    (void)sd_bus_get_n_queued_write(m_bus, &queued);
    // Messages that do not arrive may be missing only together with the connection.
    if (unsentBytes() > maximumUnsentBytes || queued > maximumUnsentMessages) {
        close(State::Closed, QStringLiteral("the bus does not read: %1 messages wait").arg(queued));
    }
}

void BusConnection::answer(sd_bus_message* call, const wire::Method& method,
                           const QVariantList& arguments, qint64 bytes)
{
    sd_bus_message* reply = nullptr;
    const int result = sd_bus_message_new_method_return(call, &reply);
    const MessagePointer owner(reply);
    if (result >= 0 && wire::appendArguments(reply, method.out, arguments)) {
        send(reply, bytes);
    } else {
        fail(call,
             { ErrorCode::Internal, QStringLiteral("the answer cannot be carried by the bus"),
               QString() });
    }
}

void BusConnection::fail(sd_bus_message* call, const Error& error)
{
    sd_bus_message* reply = nullptr;
    sd_bus_error description {};
    sd_bus_error_set(&description, wire::errorName(error.code).toUtf8().constData(),
                     error.message.toUtf8().constData());
    const int result = sd_bus_message_new_method_error(call, &reply, &description);
    sd_bus_error_free(&description);
    const MessagePointer owner(reply);
    if (result >= 0)
        send(reply, error.message.size());
}

void BusConnection::announce(const wire::Signal& signal, const QVariantList& arguments,
                             qint64 bytes)
{
    if (m_state != State::Serving)
        return;
    sd_bus_message* message = nullptr;
    const int result = sd_bus_message_new_signal(m_bus, &message, wire::objectPath,
                                                 signal.interface, signal.member);
    const MessagePointer owner(message);
    if (result >= 0 && wire::appendArguments(message, signal.signature, arguments))
        send(message, bytes);
}

// The messages of a bus daemon do not say it.
void BusConnection::findUser(const QByteArray& sender)
{
    sd_bus_message* message = nullptr;
    int result = sd_bus_message_new_method_call(m_bus, &message, busService, busPath, busService,
                                                "GetConnectionUnixUser");
    const MessagePointer owner(message);
    if (result >= 0)
        result = sd_bus_message_append(message, "s", sender.constData());
    if (result >= 0)
        result = sd_bus_call_async(m_bus, nullptr, message, on_user_found, this, 0);
    uint64_t number = 0;
    if (succeed(result) && sd_bus_message_get_cookie(message, &number) >= 0)
        m_sought.insert(number, sender);
}

int BusConnection::on_user_found(sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/)
{
    auto* const self = static_cast<BusConnection*>(userdata);
    uint64_t number = 0;
    (void)sd_bus_message_get_reply_cookie(reply, &number);
    uint user = 0;
    const bool isFound = sd_bus_message_is_method_error(reply, nullptr) == 0
        && sd_bus_message_read(reply, "u", &user) > 0;
    self->m_handler->userFound(self->m_sought.take(number),
                               isFound ? std::make_optional(user) : std::nullopt);
    return 1;
}

void BusConnection::announceClosed(const QByteArray& uniqueName)
{
    // A signal, because the policy of a system bus lets those pass to anybody.
    sd_bus_message* message = nullptr;
    int result = sd_bus_message_new_signal(m_bus, &message, wire::objectPath, wire::readInterface,
                                           wire::dataChanged.member);
    const MessagePointer owner(message);
    if (result >= 0)
        result = sd_bus_message_set_destination(message, uniqueName.constData());
    if (result >= 0 && wire::appendArguments(message, wire::dataChanged.signature, { QString() }))
        send(message, 0);
}

void BusConnection::announceProperties()
{
    if (m_state != State::Serving)
        return;
    for (const VTables::OfInterface& table : vtables().interfaces) {
        std::vector<char*> names;
        for (const wire::Property& property : wire::propertyTable) {
            if (property.announced == wire::Property::Announced::Changes
                && std::strcmp(property.interface, table.interface) == 0)
                names.push_back(const_cast<char*>(property.name));
        }
        if (names.empty())
            continue;
        names.push_back(nullptr);
        succeed(sd_bus_emit_properties_changed_strv(m_bus, wire::objectPath, table.interface,
                                                    names.data()));
    }
}

} // namespace tulo
