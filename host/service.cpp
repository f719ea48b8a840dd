#include "host/service.h"

#include "configurationmanageradaptor.h"

#include "api/core/model/cmoperation.h"

#include <QDBusConnectionInterface>
#include <QDBusError>

#include <algorithm>
#include <utility>

namespace {

const QString rejectedError = QStringLiteral("Rejected");
const QString notSavedError = QStringLiteral("NotSaved");
const QString internalError = QStringLiteral("Internal");

// What a client may change; the rest of a setting's roles belongs to its default file.
const QStringList& settableRoles()
{
    static const QStringList roles { TuloRoles::Value(), TuloRoles::Timestamp(), TuloRoles::Id(),
                                     TuloRoles::Disabled() };
    return roles;
}

// The kinds that other processes may tell apart; the rest is the service's own affair.
QString busErrorOf(ErrorKind kind)
{
    switch (kind) {
    case ErrorKind::InvalidPath:
    case ErrorKind::Refused:
    case ErrorKind::NotModifiable:
    case ErrorKind::Limits:
        return errorName(kind);
    default:
        return internalError;
    }
}

} // namespace

QString Service::busName()
{
    return QStringLiteral("org.tulo.ConfigurationManager1");
}

QString Service::objectPath()
{
    return QStringLiteral("/org/tulo/ConfigurationManager1");
}

QString Service::interfaceName()
{
    return QStringLiteral("org.tulo.ConfigurationManager1");
}

QString Service::errorPrefix()
{
    return QStringLiteral("org.tulo.ConfigurationManager1.Error.");
}

// ---------------------------------------------------------------------------------------------
// On and off the bus.
// ---------------------------------------------------------------------------------------------

Service::Service(Host& host)
    : m_host(host)
    , m_bus(QString())
{
    registerBusTypes();
    new ConfigurationManagerAdaptor(this);
    m_host.registry()->addObserver(this);
    // Queued: it is emitted inside a log call of the worker.
    connect(&m_host.writes(), &WriteWatch::changed, this, &Service::announceProperties,
            Qt::QueuedConnection);
    m_flushRun.setSingleShot(true);
    connect(&m_flushRun, &QTimer::timeout, this, &Service::answerFlushes);
}

Service::~Service()
{
    withdraw();
    if (m_host.registry() != nullptr)
        m_host.registry()->unsubscribe(this);
}

bool Service::offer(const QDBusConnection& bus, QString* reason)
{
    m_bus = bus;
    // What was before, whoever comes reads.
    m_announced = changingProperties();
    if (!m_bus.registerObject(objectPath(), this)) {
        *reason = QStringLiteral("The object '%1' is offered already").arg(objectPath());
        return false;
    }
    m_isOffered = true;
    m_bus.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"),
                  QStringLiteral("org.freedesktop.DBus.Local"), QStringLiteral("Disconnected"),
                  this, SLOT(on_bus_disconnected()));
    if (m_bus.registerService(busName()))
        return true;
    const QString detail = m_bus.lastError().message();
    *reason = QStringLiteral("The name '%1' is not to be had on this bus%2")
                  .arg(busName(),
                       detail.isEmpty() ? QStringLiteral(": another service has it")
                                        : QStringLiteral(": ") + detail);
    withdraw();
    return false;
}

void Service::withdraw()
{
    if (!m_isOffered)
        return;
    m_isOffered = false;
    // Whoever calls from now on waits for the next owner of the name, where there will be one.
    m_bus.unregisterService(busName());
    m_bus.unregisterObject(objectPath());
    answerFlushes();
    // Asked and answered after everything that was sent, which is then out of the process.
    m_bus.interface()->isServiceRegistered(busName());
}

bool Service::isConnected() const
{
    return m_bus.isConnected();
}

// Waking the event loop is all.
void Service::on_bus_disconnected() { }

// ---------------------------------------------------------------------------------------------
// Properties.
// ---------------------------------------------------------------------------------------------

QString Service::version() const
{
    return QStringLiteral(TULO_VERSION);
}

uint Service::pendingWrites() const
{
    return uint(m_host.writes().pendingPaths().size());
}

QStringList Service::unsavedPaths() const
{
    // Half a message, as other properties may travel with this one.
    const QStringList all = m_host.writes().unsavedPaths();
    QStringList paths;
    int size = 0;
    for (const QString& path : all) {
        size += busSize(path);
        if (size > maximumBodyBytes / 2)
            break;
        paths.append(path);
    }
    return paths;
}

QString Service::lastWriteError() const
{
    return m_host.writes().lastError();
}

QString Service::defaultPath() const
{
    return m_host.defaultPath();
}

QString Service::writePath() const
{
    return m_host.writePath();
}

QVariantMap Service::changingProperties() const
{
    return { { QStringLiteral("PendingWrites"), pendingWrites() },
             { QStringLiteral("UnsavedPaths"), unsavedPaths() },
             { QStringLiteral("LastWriteError"), lastWriteError() } };
}

void Service::announceProperties()
{
    if (!m_isOffered)
        return;
    const QVariantMap now = changingProperties();
    QVariantMap changed;
    for (auto property = now.cbegin(); property != now.cend(); ++property) {
        if (m_announced.value(property.key()) != *property)
            changed.insert(property.key(), *property);
    }
    m_announced = now;
    if (changed.isEmpty())
        return;
    QDBusMessage signal =
        QDBusMessage::createSignal(objectPath(), QStringLiteral("org.freedesktop.DBus.Properties"),
                                   QStringLiteral("PropertiesChanged"));
    signal << interfaceName() << changed << QStringList();
    m_bus.send(signal);
}

// ---------------------------------------------------------------------------------------------
// Reading. On the host's thread every reply is finished when the client's function returns.
// ---------------------------------------------------------------------------------------------

void Service::refuse(const QString& error, const QString& message)
{
    sendErrorReply(errorPrefix() + error, message);
}

void Service::refuseSize(const QString& path)
{
    refuse(errorName(ErrorKind::Limits),
           QStringLiteral("Too much for one message; path:'%1'").arg(path));
}

// For every call with a path, which from then on is short enough for any answer.
bool Service::accepted(const QString& path)
{
    if (!message().isReplyRequired())
        return false;
    const CMError error = Guard::judgePath(CMPath(path));
    const ErrorKind kind = errorKind(error);
    if (kind == ErrorKind::None)
        return true;
    refuse(busErrorOf(kind), error.message().toString());
    return false;
}

bool Service::refused(const CMVoidReply& reply)
{
    const CMError error = reply.error();
    const ErrorKind kind = errorKind(error);
    if (kind == ErrorKind::None)
        return false;
    refuse(busErrorOf(kind), error.message().toString());
    return true;
}

QVariantMap Service::GetData(const QString& path, const QStringList& roles)
{
    if (!accepted(path))
        return {};
    const auto reply = m_host.client().getData(CMPath(path), roles);
    if (refused(reply))
        return {};
    const QVariantList values = reply.value();
    QVariantHash answer;
    for (int i = 0; i < roles.size(); ++i)
        answer.insert(roles.at(i), values.at(i));
    const QVariantMap present = busRoles(answer);
    if (busSize(present) > maximumBodyBytes) {
        refuseSize(path);
        return {};
    }
    return present;
}

uint Service::GetRows(const QString& path, int first, int last, const QStringList& roles,
                      int& rowsVersion, QVariantMap& directoryRoles, BusRows& rows)
{
    if (!accepted(path))
        return 0;
    const auto reply = m_host.client().getRows(CMPath(path), first, last, roles);
    if (refused(reply))
        return 0;
    const Rows answer = Client::rowsOf(reply.value(), roles);
    rowsVersion = answer.version;
    directoryRoles = busRoles(answer.directory.__variant().toHash());
    int size = busSize(directoryRoles);
    for (const Row& row : answer.rows) {
        QVariantHash rowRoles;
        for (int i = 0; i < roles.size(); ++i)
            rowRoles.insert(roles.at(i), row.values.at(i));
        const BusRow busRow { row.name, busRoles(rowRoles) };
        size += busSize(busRow.name) + busSize(busRow.roles);
        if (size > maximumBodyBytes) {
            // Those that fit; the client asks for the rest.
            if (rows.isEmpty())
                refuseSize(path);
            break;
        }
        rows.append(busRow);
    }
    return uint(answer.count);
}

// ---------------------------------------------------------------------------------------------
// Changes.
// ---------------------------------------------------------------------------------------------

// What tells the kind of a value. A setting that does not exist yet has the constraints of its
// directory's template; where there is none either, the change itself will fail.
TuloRoles Service::settingRoles(const QString& path)
{
    const QStringList names { TuloRoles::Value(), TuloRoles::DefaultValue(), TuloRoles::Edit() };
    for (const QString& node : { path, path.section(QLatin1Char('/'), 0, -2) }) {
        const auto reply = m_host.client().getData(CMPath(node), names);
        if (errorKind(reply.error()) != ErrorKind::None)
            continue;
        TuloRoles roles;
        for (int i = 0; i < names.size(); ++i)
            roles.__setHashAttribute(names.at(i), reply.value().at(i));
        return roles;
    }
    return {};
}

bool Service::acceptedValue(const QString& path, const QVariant& sent, TuloValue* value)
{
    bool accepted = true;
    const QVariant content = plainFromBus(sent, &accepted);
    if (accepted)
        *value = valueFromPlain(content, settingRoles(path));
    if (!accepted || value->isEmpty()) {
        refuse(rejectedError,
               QStringLiteral("A setting cannot hold this value; path:'%1'").arg(path));
        return false;
    }
    // On the bus it takes more than it took: a list of numbers becomes one of variants.
    if (busSize(busRole(TuloRoles::Value(), value->__variant())) > maximumValueBytes) {
        refuseSize(path);
        return false;
    }
    return true;
}

QVariantMap Service::stored(const CMSetDataRequest::Reply& reply)
{
    if (refused(reply))
        return {};
    // Done is done: roles that do not fit are left out.
    QVariantMap roles = busRoles(reply.value().toHash());
    while (busSize(roles) > maximumBodyBytes)
        roles.erase(roles.begin());
    return roles;
}

QVariantMap Service::SetValue(const QString& path, const QDBusVariant& value)
{
    TuloValue settingValue;
    if (!accepted(path) || !acceptedValue(path, value.variant(), &settingValue))
        return {};
    return stored(m_host.client().setValue(CMPath(path), settingValue));
}

QVariantMap Service::SetRoles(const QString& path, const QVariantMap& roles)
{
    if (!accepted(path))
        return {};
    TuloRoles changed;
    for (auto role = roles.cbegin(); role != roles.cend(); ++role) {
        if (!settableRoles().contains(role.key())) {
            refuse(errorName(ErrorKind::Refused),
                   QStringLiteral("A role that cannot be set; those that can are %1; path:'%2'")
                       .arg(settableRoles().join(QStringLiteral(", ")), path));
            return {};
        }
        bool isPlain = true;
        const QVariant plain = plainFromBus(*role, &isPlain);
        if (role.key() == TuloRoles::Value()) {
            TuloValue value;
            if (!acceptedValue(path, *role, &value))
                return {};
            changed.setValue(value);
        } else if (role.key() == TuloRoles::Timestamp() && isPlain
                   && plain.userType() == QMetaType::LongLong) {
            changed.setTimestamp(plain.toLongLong());
        } else if (role.key() == TuloRoles::Id() && isPlain
                   && plain.userType() == QMetaType::QString) {
            changed.setId(plain.toString());
        } else if (role.key() == TuloRoles::Disabled() && isPlain
                   && plain.userType() == QMetaType::Bool) {
            changed.setDisabled(plain.toBool());
        } else {
            refuse(rejectedError,
                   QStringLiteral("The role '%1' cannot hold this value; path:'%2'")
                       .arg(role.key(), path));
            return {};
        }
    }
    if (busSize(busRoles(changed.__variant().toHash())) > maximumValueBytes) {
        refuseSize(path);
        return {};
    }
    return stored(m_host.client().setRoles(CMPath(path), changed));
}

QVariantMap Service::Apply(const QString& path, const QString& verb, const QVariantList& operand)
{
    if (!accepted(path))
        return {};
    if (!CMOperation::verbs().contains(verb) || operand.size() > 1) {
        refuse(errorName(ErrorKind::Refused),
               QStringLiteral("An operation is one of %1, with one operand at most; path:'%2'")
                   .arg(CMOperation::verbs().join(QStringLiteral(", ")), path));
        return {};
    }
    TuloValue value;
    if (!operand.isEmpty() && !acceptedValue(path, operand.first(), &value))
        return {};
    return stored(m_host.client().apply(CMPath(path), TuloOperation(verb, value)));
}

uint Service::Flush()
{
    if (!message().isReplyRequired())
        return 0;
    const QString client = message().service();
    const auto waiting =
        std::count_if(m_waitingFlushes.cbegin(), m_waitingFlushes.cend(),
                      [&client](const QDBusMessage& call) { return call.service() == client; });
    if (waiting >= maximumWaiting) {
        refuse(errorName(ErrorKind::Limits),
               QStringLiteral("More than %1 flushes are waiting").arg(maximumWaiting));
        return 0;
    }
    setDelayedReply(true);
    m_waitingFlushes.append(message());
    // Whoever asks before the event loop comes round shares this run.
    m_flushRun.start();
    return 0;
}

void Service::answerFlushes()
{
    const QVector<QDBusMessage> calls = std::exchange(m_waitingFlushes, {});
    if (calls.isEmpty())
        return;
    m_host.client().flush();
    const WriteWatch& writes = m_host.writes();
    const uint failed = uint(writes.unsavedPaths().size());
    for (const QDBusMessage& call : calls) {
        m_bus.send(writes.syncFailed()
                       ? call.createErrorReply(errorPrefix() + notSavedError, writes.lastError())
                       : call.createReply(failed));
    }
}

void Service::DropCache()
{
    if (message().isReplyRequired())
        refused(m_host.client().dropCache());
}

// ---------------------------------------------------------------------------------------------
// Announcements, inside the worker's own: they only send.
// ---------------------------------------------------------------------------------------------

bool Service::isEncrypted(const CMPath& path)
{
    const auto reply = m_host.client().getData(path, { TuloRoles::Encrypted() });
    // Whoever cannot be asked is not given away.
    return errorKind(reply.error()) != ErrorKind::None || reply.value().first().toBool();
}

void Service::valueChanged(const CMPath& path, const QVariant& value)
{
    const QVariant plain = busRole(TuloRoles::Value(), value);
    // One that a file brought may be too large for the bus; that it changed is told all the same.
    if (plain.isValid() && busSize(plain) <= maximumValueBytes && !isEncrypted(path))
        emit ValueChanged(path.text(), QDBusVariant(plain));
}

void Service::dataChanged(const CMPath& path)
{
    emit DataChanged(path.text());
}

void Service::rowsChanged(const CMPath& path, const QString& command, int version)
{
    emit RowsChanged(path.text(), command, version);
}
