#include "daemon/service.h"

#include "configurationmanageradaptor.h"

#include "api/core/model/cmoperation.h"

#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QPointer>

namespace tulo {

namespace {

const QString notSavedError = QStringLiteral("NotSaved");
const QString internalError = QStringLiteral("Internal");

// What a client may change; the rest of a setting's roles belongs to its default file.
const QStringList& settableRoles()
{
    static const QStringList roles { TuloRoles::Value(), TuloRoles::Timestamp(), TuloRoles::Id(),
                                     TuloRoles::Disabled() };
    return roles;
}

// What a row that cannot be served has in place of its roles.
QVariantMap errorEntry(const QString& message)
{
    return { { QStringLiteral("error"), message } };
}

QVariantMap rolesOf(const DirectoryRow& row, const QStringList& roles)
{
    if (!row.error.isEmpty())
        return errorEntry(row.error.message().toString());
    QVariantHash values;
    for (int i = 0; i < roles.size(); ++i)
        values.insert(roles.at(i), row.values.value(i));
    return busRoles(values);
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

Service::Service(Engine& engine)
    : m_engine(engine)
    , m_bus(QString())
{
    registerBusTypes();
    new ConfigurationManagerAdaptor(this);
    m_engine.registry()->addObserver(this);
    m_announcement.setSingleShot(true);
    m_announcement.setInterval(announcementIntervalMs);
    connect(&m_announcement, &QTimer::timeout, this, &Service::announceProperties);
    // Queued: it is emitted inside a log call of the worker.
    connect(
        &m_engine.writes(), &WriteTracker::changed, this,
        [this] {
            if (!m_announcement.isActive() && m_engine.writes().revision() != m_announcedRevision)
                m_announcement.start();
        },
        Qt::QueuedConnection);
}

Service::~Service()
{
    withdraw();
    if (m_engine.registry() != nullptr)
        m_engine.registry()->unsubscribe(this);
}

bool Service::offer(const QDBusConnection& bus, QString* reason)
{
    m_bus = bus;
    // Clients read the current properties when they connect, so only later changes are announced.
    m_announcedRevision = m_engine.writes().revision();
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
    *reason = QStringLiteral("cannot acquire the bus name '%1': %2")
                  .arg(busName(), detail.isEmpty() ? QStringLiteral("already owned") : detail);
    withdraw();
    return false;
}

void Service::withdraw()
{
    if (!m_isOffered)
        return;
    m_isOffered = false;
    m_bus.unregisterObject(objectPath());
    if (!m_bus.isConnected())
        return;
    // Asked and answered after everything that was sent. Not unregisterService(), which would
    // wait for a bus that hangs.
    QDBusMessage release = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("ReleaseName"));
    release << busName();
    m_bus.asyncCall(release, withdrawTimeoutMs).waitForFinished();
}

bool Service::isConnected() const
{
    return m_bus.isConnected();
}

// Nothing to do: receiving the signal wakes the event loop.
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
    return uint(m_engine.writes().pendingCount());
}

QStringList Service::unsavedPaths() const
{
    const QStringList all = m_engine.writes().unsavedPaths();
    QStringList paths;
    int size = 0;
    for (const QString& path : all) {
        size += busSize(path);
        if (size > maximumPageBytes)
            break;
        paths.append(path);
    }
    return paths;
}

QString Service::lastWriteError() const
{
    return m_engine.writes().lastError();
}

QString Service::defaultPath() const
{
    return m_engine.defaultPath();
}

QString Service::writePath() const
{
    return m_engine.writePath();
}

void Service::announceProperties()
{
    if (!m_isOffered)
        return;
    m_announcedRevision = m_engine.writes().revision();
    const QVariantMap changed { { QStringLiteral("UnsavedPaths"), unsavedPaths() },
                                { QStringLiteral("LastWriteError"), lastWriteError() } };
    QDBusMessage signal =
        QDBusMessage::createSignal(objectPath(), QStringLiteral("org.freedesktop.DBus.Properties"),
                                   QStringLiteral("PropertiesChanged"));
    signal << interfaceName() << changed << QStringList();
    m_bus.send(signal);
}

// ---------------------------------------------------------------------------------------------
// Reading. On the engine's thread every reply is finished when the client's function returns.
// ---------------------------------------------------------------------------------------------

void Service::refuse(const QString& error, const QString& message)
{
    sendErrorReply(errorPrefix() + error, message);
}

void Service::refuseSize(const QString& path)
{
    refuse(QLatin1String(describe(ErrorCode::Limits).name),
           QStringLiteral("Too much for one message; path:'%1'").arg(path));
}

// For every call with a path, which from then on is short enough for any answer.
bool Service::accepted(const QString& path)
{
    if (!message().isReplyRequired())
        return false;
    const CMError error = Guard::checkPath(CMPath(path));
    const ErrorCode kind = errorCode(error);
    if (kind == ErrorCode::None)
        return true;
    refuse(QLatin1String(describe(kind).name), error.message().toString());
    return false;
}

bool Service::refused(const CMVoidReply& reply)
{
    return refused(reply.error());
}

bool Service::refused(const CMError& error)
{
    const ErrorCode kind = errorCode(error);
    if (kind == ErrorCode::None)
        return false;
    refuse(QLatin1String(describe(kind).name), error.message().toString());
    return true;
}

QVariantMap Service::GetData(const QString& path, const QStringList& roles)
{
    if (!accepted(path))
        return {};
    const auto reply = m_engine.dispatcher().getData(CMPath(path), roles);
    if (refused(reply))
        return {};
    const QVariantList values = reply.value();
    QVariantHash answer;
    for (int i = 0; i < roles.size(); ++i)
        answer.insert(roles.at(i), values.value(i));
    const QVariantMap present = busRoles(answer);
    if (busSize(present) > maximumRolesBytes) {
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
    CMError error;
    const DirectoryRows answer =
        m_engine.dispatcher().rows(CMPath(path), first, last, roles, &error);
    if (refused(error))
        return 0;
    rowsVersion = answer.version;
    directoryRoles = busRoles(answer.directory.__variant().toHash());
    if (busSize(directoryRoles) > maximumRolesBytes) {
        refuseSize(path);
        return 0;
    }
    int size = 0;
    for (const DirectoryRow& row : answer.rows) {
        BusRow busRow { row.name, rolesOf(row, roles) };
        int rowSize = busSize(busRow.name) + busSize(busRow.roles);
        if (rowSize > maximumPageBytes) {
            busRow.roles = errorEntry(
                QStringLiteral("The row takes more than %1 bytes").arg(maximumPageBytes));
            rowSize = busSize(busRow.name) + busSize(busRow.roles);
        }
        size += rowSize;
        // Those that fit; the client asks for the rest.
        if (size > maximumPageBytes && !rows.isEmpty())
            break;
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
        const auto reply = m_engine.dispatcher().getData(CMPath(node), names);
        if (errorCode(reply.error()) != ErrorCode::None)
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
        refuse(QLatin1String(describe(ErrorCode::Rejected).name),
               QStringLiteral("A setting cannot hold this value; path:'%1'").arg(path));
        return false;
    }
    return true;
}

QVariantMap Service::stored(const CMSetDataRequest::Reply& reply)
{
    if (refused(reply))
        return {};
    return busRoles(reply.value().toHash());
}

QVariantMap Service::SetValue(const QString& path, const QDBusVariant& value)
{
    TuloValue settingValue;
    if (!accepted(path) || !acceptedValue(path, value.variant(), &settingValue))
        return {};
    return stored(m_engine.dispatcher().setValue(CMPath(path), settingValue));
}

QVariantMap Service::SetRoles(const QString& path, const QVariantMap& roles)
{
    if (!accepted(path))
        return {};
    TuloRoles changed;
    for (auto role = roles.cbegin(); role != roles.cend(); ++role) {
        if (!settableRoles().contains(role.key())) {
            refuse(QLatin1String(describe(ErrorCode::Refused).name),
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
            refuse(QLatin1String(describe(ErrorCode::Rejected).name),
                   QStringLiteral("The role '%1' cannot hold this value; path:'%2'")
                       .arg(role.key(), path));
            return {};
        }
    }
    return stored(m_engine.dispatcher().setRoles(CMPath(path), changed));
}

QVariantMap Service::Apply(const QString& path, const QString& verb, const QVariantList& operand)
{
    if (!accepted(path))
        return {};
    if (!CMOperation::verbs().contains(verb) || operand.size() > 1) {
        refuse(QLatin1String(describe(ErrorCode::Refused).name),
               QStringLiteral("An operation is one of %1, with one operand at most; path:'%2'")
                   .arg(CMOperation::verbs().join(QStringLiteral(", ")), path));
        return {};
    }
    TuloValue value;
    if (!operand.isEmpty() && !acceptedValue(path, operand.first(), &value))
        return {};
    return stored(m_engine.dispatcher().apply(CMPath(path), TuloOperation(verb, value)));
}

uint Service::Flush()
{
    if (!message().isReplyRequired())
        return 0;
    const QDBusMessage call = message();
    int& waiting = m_waitingFlushes[call.service()];
    if (waiting >= maximumWaiting) {
        refuse(QLatin1String(describe(ErrorCode::Limits).name),
               QStringLiteral("More than %1 flushes are waiting").arg(maximumWaiting));
        return 0;
    }
    ++waiting;
    setDelayedReply(true);
    m_engine.flush([service = QPointer<Service>(this), call](const FlushResult& result) {
        if (service)
            service->answerFlush(call, result);
    });
    return 0;
}

void Service::answerFlush(const QDBusMessage& call, const FlushResult& result)
{
    const auto waiting = m_waitingFlushes.find(call.service());
    if (--*waiting == 0)
        m_waitingFlushes.erase(waiting);
    m_bus.send(result.error.isEmpty()
                   ? call.createReply(uint(result.unsaved))
                   : call.createErrorReply(errorPrefix() + notSavedError, result.error));
}

void Service::DropCache()
{
    if (message().isReplyRequired())
        refused(m_engine.dispatcher().dropCache());
}

// ---------------------------------------------------------------------------------------------
// Announcements, inside the worker's own: they only send.
// ---------------------------------------------------------------------------------------------

bool Service::isEncrypted(const CMPath& path)
{
    const auto reply = m_engine.dispatcher().getData(path, { TuloRoles::Encrypted() });
    // If we cannot tell, treat the value as encrypted.
    return errorCode(reply.error()) != ErrorCode::None || reply.value().value(0).toBool();
}

void Service::valueChanged(const CMPath& path, const QVariant& value)
{
    const QVariant plain = busRole(TuloRoles::Value(), value);
    if (plain.isValid() && !isEncrypted(path))
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

} // namespace tulo
