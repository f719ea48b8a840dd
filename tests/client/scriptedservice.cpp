#include "tests/client/scriptedservice.h"

#include "wire/codec.h"
#include "wire/messages.h"

#include <cerrno>
#include <cstring>

using namespace tulo;

namespace {

void require(int result, const char* what)
{
    if (result < 0)
        qFatal("scripted service: %s: %s", what, std::strerror(-result));
}

} // namespace

ScriptedService::ScriptedService(const QString& address, Name name)
{
    sd_bus* bus = nullptr;
    require(sd_bus_new(&bus), "new");
    m_bus.reset(bus);
    require(sd_bus_set_address(bus, address.toUtf8().constData()), "address");
    require(sd_bus_set_bus_client(bus, 1), "client");
    require(sd_bus_start(bus), "start");
    if (name == Name::Owned)
        takeName();
    // Waits until it is connected.
    uniqueName();
    m_notifier = std::make_unique<QSocketNotifier>(sd_bus_get_fd(bus), QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &ScriptedService::process);
}

QVariantList ScriptedService::argumentsOf(sd_bus_message* message)
{
    const auto arguments = wire::readArguments(message);
    if (!arguments)
        qFatal("scripted service: cannot read a message");
    return *arguments;
}

QByteArray ScriptedService::uniqueName() const
{
    const char* name = nullptr;
    require(sd_bus_get_unique_name(m_bus.get(), &name), "name");
    return name;
}

void ScriptedService::takeName()
{
    require(sd_bus_request_name(m_bus.get(), wire::busName,
                                SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING),
            "request name");
    // What came meanwhile.
    QMetaObject::invokeMethod(
        this, [this] { process(); }, Qt::QueuedConnection);
}

void ScriptedService::releaseName()
{
    require(sd_bus_release_name(m_bus.get(), wire::busName), "release name");
}

const wire::Method& ScriptedService::methodOf(sd_bus_message* call)
{
    for (const wire::Method& method : wire::methodTable) {
        if (sd_bus_message_is_method_call(call, method.interface, method.member) > 0)
            return method;
    }
    static constexpr wire::Method properties { "org.freedesktop.DBus.Properties", "GetAll", "s",
                                               "a{sv}", "" };
    return properties;
}

QVariantList ScriptedService::emptyAnswer(const wire::Method& method, const QVariantList& asked)
{
    const QByteArray member = method.member;
    const QVariantMap none;
    if (member == "GetMany") {
        QVector<Node> nodes;
        const QStringList paths = asked.value(0).toStringList();
        for (const QString& path : paths)
            nodes.append({ path, {}, {} });
        return wire::nodesToArguments(nodes);
    }
    if (member == "GetRows")
        return wire::rowsToArguments({});
    if (member == "Explain")
        return wire::originsToArguments({});
    if (member == "GetAll")
        return { wire::statusToProperties({}) };
    if (member == "Statistics")
        return { QVariantMap() };
    if (member == "GetUnsaved" || member == "Reset")
        return { QStringList() };
    if (member == "Flush")
        return { 0U };
    if (member == "DropCache")
        return {};
    if (member == "SetMany") {
        QVector<Change> changes(asked.value(0).toList().size());
        return wire::changesToArguments(changes);
    }
    if (member == "GetData")
        return { none };
    return { none, none };
}

void ScriptedService::process()
{
    for (;;) {
        sd_bus_message* message = nullptr;
        const int result = sd_bus_process(m_bus.get(), &message);
        const MessagePointer call(message);
        if (result < 0) {
            // The bus is gone.
            m_notifier->setEnabled(false);
            return;
        }
        if (result == 0)
            return;
        if (!call || sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0)
            continue;
        const QVariantList arguments = argumentsOf(message);
        calls.append(QLatin1String(sd_bus_message_get_member(message)) + QLatin1Char(' ')
                     + arguments.value(0).toStringList().join(QLatin1Char(' ')));
        if (script)
            script(message);
        else
            answerEmpty(message);
    }
}

void ScriptedService::answer(sd_bus_message* call, const QVariantList& arguments)
{
    answerAs(call, methodOf(call).out, arguments);
}

void ScriptedService::answerAs(sd_bus_message* call, const char* signature,
                               const QVariantList& arguments)
{
    answerWith(call, [&](sd_bus_message* reply) {
        return wire::appendArguments(reply, signature, arguments) ? 0 : -EINVAL;
    });
}

void ScriptedService::answerWith(sd_bus_message* call,
                                 const std::function<int(sd_bus_message*)>& write)
{
    sd_bus_message* reply = nullptr;
    require(sd_bus_message_new_method_return(call, &reply), "answer");
    const MessagePointer owner(reply);
    require(write(reply), "write an answer");
    require(sd_bus_send(m_bus.get(), reply, nullptr), "send");
}

void ScriptedService::answerEmpty(sd_bus_message* call)
{
    answer(call, emptyAnswer(methodOf(call), argumentsOf(call)));
}

void ScriptedService::fail(sd_bus_message* call, const char* name, const char* message)
{
    require(sd_bus_reply_method_errorf(call, name, "%s", message), "error");
}

void ScriptedService::hold(sd_bus_message* call)
{
    held.emplace_back(sd_bus_message_ref(call));
}

void ScriptedService::announce(const wire::Signal& signal, const QVariantList& arguments,
                               const QByteArray& destination)
{
    sd_bus_message* message = nullptr;
    require(sd_bus_message_new_signal(m_bus.get(), &message, wire::objectPath, signal.interface,
                                      signal.member),
            "signal");
    const MessagePointer owner(message);
    if (!wire::appendArguments(message, signal.signature, arguments))
        qFatal("scripted service: cannot write a signal");
    require(sd_bus_send_to(m_bus.get(), message,
                           destination.isEmpty() ? nullptr : destination.constData(), nullptr),
            "send");
    require(sd_bus_flush(m_bus.get()), "flush");
}

QStringList ScriptedService::rulesOf(const QByteArray& uniqueName)
{
    sd_bus_message* reply = nullptr;
    require(sd_bus_call_method(m_bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus.Debug.Stats", "GetAllMatchRules", nullptr,
                               &reply, ""),
            "rules");
    const MessagePointer owner(reply);
    QMetaObject::invokeMethod(
        this, [this] { process(); }, Qt::QueuedConnection);
    return argumentsOf(reply).value(0).toMap().value(QString::fromUtf8(uniqueName)).toStringList();
}
