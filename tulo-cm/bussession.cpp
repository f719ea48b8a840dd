#include "bussession.h"

#include "configurationmanagerproxy.h"

#include "daemon/service.h"
#include "engine/guard.h"

#include "api/core/model/tulosettingsactions.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QDBusPendingReply>

namespace tulo {

namespace {

// Long enough for a flush whose sync takes its 30 seconds, another one before it, and the writes.
constexpr int callTimeoutMs = 90000;

const QString connectionName = QStringLiteral("tulo-cm");

struct KnownError
{
    const char* name;
    int exitCode;
};

const KnownError knownErrors[] = {
    { "InvalidPath", NoSuchPath },  { "NotModifiable", Refused }, { "Refused", Refused },
    { "Rejected", Refused },        { "Limits", Refused },        { "NotSaved", NotSaved },
    { "Unavailable", Unavailable },
};

Failure failureOf(const QDBusError& error, const QString& path)
{
    Failure failure;
    failure.path = path;
    failure.message = error.message();
    if (error.name().startsWith(Service::errorPrefix())) {
        failure.exitCode = Failed;
        failure.name = QStringLiteral("InternalError");
        for (const KnownError& known : knownErrors) {
            if (error.name() == Service::errorPrefix() + QLatin1String(known.name)) {
                failure.exitCode = known.exitCode;
                failure.name = QLatin1String(known.name);
            }
        }
        return failure;
    }
    failure.exitCode = Unavailable;
    failure.name = QStringLiteral("NoService");
    if (error.type() == QDBusError::AccessDenied)
        failure.message = QStringLiteral("the bus does not permit it: ") + error.message();
    else if (error.type() == QDBusError::NoReply || error.type() == QDBusError::TimedOut)
        failure.message = QStringLiteral("the service gave no answer: ") + error.message();
    return failure;
}

// With its kind, so that the service stores what was asked for here. Invalid for a value that the
// bus cannot carry.
QVariant sentValue(const TuloValue& value)
{
    const QVariant content = busRole(TuloRoles::Value(), value.__variant());
    return content.isValid() ? QVariantMap { { value.kind(), content } } : QVariant();
}

Failure notCarried(const QString& path)
{
    return { Refused, QStringLiteral("Rejected"), QStringLiteral("value cannot be sent over D-Bus"),
             path };
}

Failure checkValue(const QString& path, const QVariant& value)
{
    const CMError error = Guard::checkValue(CMPath(path), value);
    const ErrorCode kind = errorCode(error);
    if (kind == ErrorCode::None)
        return {};
    return { Refused, QLatin1String(describe(kind).name), error.message().toString(), path };
}

QVariantHash namedRoles(const QStringList& roles, const QVariantMap& values)
{
    QVariantHash result;
    for (const QString& role : roles) {
        const auto value = values.constFind(role);
        result.insert(role, value == values.cend() ? QVariant() : roleFromBus(role, *value));
    }
    return result;
}

template<typename Reply>
Answer<QVariantHash> changed(const Reply& reply, const QString& path)
{
    if (reply.isError())
        return { {}, failureOf(reply.error(), path) };
    const QVariantMap values = reply.value();
    return { namedRoles(values.keys(), values), {} };
}

} // namespace

// ---------------------------------------------------------------------------------------------
// The way to the service.
// ---------------------------------------------------------------------------------------------

QDBusConnection BusSession::connectTo(const QString& bus)
{
    // An earlier one, which the bus may have closed, stays closed.
    QDBusConnection::disconnectFromBus(connectionName);
    if (bus == QLatin1String("system"))
        return QDBusConnection::connectToBus(QDBusConnection::SystemBus, connectionName);
    if (bus == QLatin1String("session"))
        return QDBusConnection::connectToBus(QDBusConnection::SessionBus, connectionName);
    return QDBusConnection::connectToBus(bus, connectionName);
}

std::unique_ptr<BusSession> BusSession::open(const QString& bus, Failure* failure)
{
    registerBusTypes();
    const bool isNamed = bus == QLatin1String("system") || bus == QLatin1String("session");
    const QString where =
        (isNamed ? QStringLiteral("the %1 bus") : QStringLiteral("the bus '%1'")).arg(bus);
    std::unique_ptr<BusSession> session(new BusSession(connectTo(bus)));
    QDBusConnectionInterface* const daemon = session->m_connection.interface();
    // The first call would start it as well, but its failure would look like any other.
    const bool isThere = daemon != nullptr
        && (daemon->isServiceRegistered(Service::busName())
            || !daemon->startService(Service::busName()).error().isValid());
    if (isThere)
        return session;
    *failure = { Unavailable, QStringLiteral("NoService"),
                 QStringLiteral("no service on %1; use --in-process, or --default-path and "
                                "--write-path, to work without one")
                     .arg(where),
                 QString() };
    return nullptr;
}

BusSession::BusSession(const QDBusConnection& connection)
    : m_connection(connection)
    , m_proxy(std::make_unique<ConfigurationManagerProxy>(Service::busName(), Service::objectPath(),
                                                          m_connection))
{
    m_proxy->setTimeout(callTimeoutMs);
}

BusSession::~BusSession()
{
    QDBusConnection::disconnectFromBus(connectionName);
}

Answer<ServiceStatus> BusSession::status()
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        Service::busName(), Service::objectPath(),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("GetAll"));
    call << Service::interfaceName();
    QDBusPendingReply<QVariantMap> reply = m_connection.asyncCall(call, callTimeoutMs);
    reply.waitForFinished();
    if (reply.isError())
        return { {}, failureOf(reply.error(), QString()) };
    const QVariantMap properties = reply.value();
    ServiceStatus status;
    status.version = properties.value(QStringLiteral("Version")).toString();
    status.defaultPath = properties.value(QStringLiteral("DefaultPath")).toString();
    status.writePath = properties.value(QStringLiteral("WritePath")).toString();
    status.pendingWrites = properties.value(QStringLiteral("PendingWrites")).toUInt();
    status.unsavedPaths = properties.value(QStringLiteral("UnsavedPaths")).toStringList();
    status.lastWriteError = properties.value(QStringLiteral("LastWriteError")).toString();
    status.processId = m_connection.interface()->servicePid(Service::busName()).value();
    return { status, {} };
}

Answer<TreeDirectories> BusSession::directories()
{
    const Answer<ServiceStatus> now = status();
    if (now.failure)
        return { {}, now.failure };
    const TreeDirectories directories { now.value.defaultPath, now.value.writePath };
    // An empty name would stand for the current folder.
    if (directories.defaultPath.isEmpty() || directories.writePath.isEmpty()) {
        return { {},
                 { Failed, QStringLiteral("InternalError"),
                   QStringLiteral("the service does not say where its directories are"),
                   QString() } };
    }
    return { directories, {} };
}

// ---------------------------------------------------------------------------------------------
// Requests. Each waits for its answer. A change delivers the events that came before the answer,
// as a local session does; the event loop delivers the others.
// ---------------------------------------------------------------------------------------------

Answer<QVariantHash> BusSession::getData(const QString& path, const QStringList& roles)
{
    auto reply = m_proxy->GetData(path, roles);
    reply.waitForFinished();
    if (reply.isError())
        return { {}, failureOf(reply.error(), path) };
    return { namedRoles(roles, reply.value()), {} };
}

Answer<RowPage> BusSession::getRows(const QString& path, int first, int last,
                                    const QStringList& roles)
{
    const QStringList rowRoles = roles + QStringList { TuloRoles::Path(), TuloRoles::Type() };
    auto reply = m_proxy->GetRows(path, first, last, rowRoles);
    reply.waitForFinished();
    if (reply.isError())
        return { {}, failureOf(reply.error(), path) };
    RowPage page;
    page.count = int(reply.argumentAt<0>());
    page.version = reply.argumentAt<1>();
    const QVariantMap directoryRoles = reply.argumentAt<2>();
    page.roles = namedRoles(directoryRoles.keys(), directoryRoles);
    const BusRows rows = reply.argumentAt<3>();
    for (const BusRow& row : rows) {
        const QString error = row.roles.value(QStringLiteral("error")).toString();
        const bool isServed = error.isEmpty() || row.roles.contains(TuloRoles::Path());
        page.rows.append({ isServed ? row.roles.value(TuloRoles::Path()).toString()
                                    : path + QLatin1Char('/') + row.name,
                           row.roles.value(TuloRoles::Type()).toInt() == TuloRolesType::Directory,
                           namedRoles(roles, row.roles), isServed ? QString() : error });
    }
    return { page, {} };
}

void BusSession::deliverEvents()
{
    QCoreApplication::sendPostedEvents(this);
}

Answer<QVariantHash> BusSession::setValue(const QString& path, const TuloValue& value)
{
    const QVariant sent = sentValue(value);
    if (!sent.isValid())
        return { {}, notCarried(path) };
    auto reply = m_proxy->SetValue(path, QDBusVariant(sent));
    reply.waitForFinished();
    deliverEvents();
    return changed(reply, path);
}

Answer<QVariantHash> BusSession::setRoles(const QString& path, const QVariantHash& roles)
{
    // Values on the bus are plain, so the service could take malformed roles for a value.
    const Failure failure = checkValue(path, roles.value(TuloRoles::Value(), QVariantHash()));
    if (failure)
        return { {}, failure };
    QVariantMap sent;
    for (auto role = roles.cbegin(); role != roles.cend(); ++role) {
        // An empty value leaves the stored one.
        if (role.key() == TuloRoles::Value() && role->toHash().isEmpty())
            continue;
        const QVariant value = role.key() == TuloRoles::Value()
            ? sentValue(TuloValue(TuloHash(role->toHash())))
            : busRole(role.key(), *role);
        if (!value.isValid())
            return { {}, notCarried(path) };
        sent.insert(role.key(), value);
    }
    auto reply = m_proxy->SetRoles(path, sent);
    reply.waitForFinished();
    deliverEvents();
    return changed(reply, path);
}

Answer<QVariantHash> BusSession::apply(const QString& path, const QString& verb,
                                       const TuloValue& operand)
{
    QVariantList sent;
    if (!operand.isEmpty()) {
        const QVariant value = sentValue(operand);
        if (!value.isValid())
            return { {}, notCarried(path) };
        sent.append(value);
    }
    auto reply = m_proxy->Apply(path, verb, sent);
    reply.waitForFinished();
    deliverEvents();
    return changed(reply, path);
}

Failure BusSession::flush()
{
    auto reply = m_proxy->Flush();
    reply.waitForFinished();
    Failure failure;
    if (reply.isError())
        failure = failureOf(reply.error(), TuloSettingsActionsFlush().text());
    const bool isSaved = !reply.isError() && reply.value() == 0;
    if (isSaved || (failure && failure.exitCode != NotSaved))
        return failure;
    const Answer<ServiceStatus> now = status();
    return notSaved(now.value.unsavedPaths, now.value.lastWriteError);
}

Failure BusSession::dropCache()
{
    auto reply = m_proxy->DropCache();
    reply.waitForFinished();
    if (reply.isError())
        return failureOf(reply.error(), TuloSettingsActionsDropCache().text());
    return {};
}

Failure BusSession::settle(bool forDisk)
{
    return forDisk ? flush() : Failure();
}

// ---------------------------------------------------------------------------------------------
// Events: the bus delivers all of the service, and those of watched paths are passed on. A rule for
// each path would soon reach the number that a bus allows a connection.
// ---------------------------------------------------------------------------------------------

Failure BusSession::watch(const QString& path)
{
    Failure failure = getData(path, {}).failure;
    if (!failure)
        failure = subscribe(path);
    if (!failure)
        m_watched.insert(path);
    return failure;
}

void BusSession::unwatch(const QString& path)
{
    m_watched.remove(path);
}

Failure BusSession::subscribe(const QString& path)
{
    if (m_isSubscribed)
        return {};
    const QString bus = QStringLiteral("org.freedesktop.DBus");
    // QtDBus adds such rules itself, but does not look at the answer. By the second one it follows
    // the service when that starts anew.
    const QStringList rules {
        QStringLiteral("type='signal',sender='%1',path='%2',interface='%3'")
            .arg(Service::busName(), Service::objectPath(), Service::interfaceName()),
        QStringLiteral(
            "type='signal',sender='%1',interface='%1',member='NameOwnerChanged',arg0='%2'")
            .arg(bus, Service::busName()),
    };
    for (const QString& rule : rules) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            bus, QStringLiteral("/org/freedesktop/DBus"), bus, QStringLiteral("AddMatch"));
        call << rule;
        const QDBusMessage reply = m_connection.call(call, QDBus::Block, callTimeoutMs);
        if (reply.type() != QDBusMessage::ReplyMessage) {
            return { Unavailable, QStringLiteral("NotWatched"),
                     QStringLiteral("cannot watch '%1': the bus refused a match rule: %2")
                         .arg(path, reply.errorMessage()),
                     path };
        }
    }
    const auto listen = [this](const char* signal, const char* slot) {
        m_connection.connect(Service::busName(), Service::objectPath(), Service::interfaceName(),
                             QLatin1String(signal), this, slot);
    };
    listen("ValueChanged", SLOT(on_service_valueChanged(QString, QDBusVariant)));
    listen("DataChanged", SLOT(on_service_dataChanged(QString)));
    listen("RowsChanged", SLOT(on_service_rowsChanged(QString, QString, int)));
    m_connection.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"),
                         QStringLiteral("org.freedesktop.DBus.Local"),
                         QStringLiteral("Disconnected"), this, SLOT(on_bus_disconnected()));
    m_isSubscribed = true;
    return {};
}

void BusSession::on_bus_disconnected()
{
    if (m_watched.isEmpty())
        return;
    m_hasLostWatches = true;
    emit watchesLost();
}

void BusSession::on_service_valueChanged(const QString& path, const QDBusVariant& value)
{
    if (!m_watched.contains(path))
        return;
    SessionEvent event;
    event.kind = SessionEvent::Kind::Value;
    event.path = path;
    event.value = roleFromBus(TuloRoles::Value(), QVariant::fromValue(value)).toHash();
    emitEvent(event);
}

void BusSession::on_service_dataChanged(const QString& path)
{
    if (!m_watched.contains(path))
        return;
    SessionEvent event;
    event.path = path;
    emitEvent(event);
}

void BusSession::on_service_rowsChanged(const QString& path, const QString& command,
                                        int rowsVersion)
{
    if (!m_watched.contains(path))
        return;
    SessionEvent event;
    event.kind = SessionEvent::Kind::Rows;
    event.path = path;
    event.command = command;
    event.rowsVersion = rowsVersion;
    emitEvent(event);
}

} // namespace tulo
