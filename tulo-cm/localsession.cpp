#include "localsession.h"

#include "api/core/model/tulosettingsactions.h"
#include "api/core/trstring.h"

namespace tulo {

namespace {

int exitCodeOf(ErrorKind kind)
{
    switch (kind) {
    case ErrorKind::None:
        return Done;
    case ErrorKind::InvalidPath:
        return NoSuchPath;
    case ErrorKind::Refused:
    case ErrorKind::Rejected:
    case ErrorKind::NotModifiable:
    case ErrorKind::Limits:
        return Refused;
    case ErrorKind::InUse:
    case ErrorKind::Unavailable:
    case ErrorKind::Stopped:
        return Unavailable;
    case ErrorKind::TimedOut:
    case ErrorKind::Other:
        break;
    }
    return Failed;
}

Failure failureOf(const CMError& error, const QString& path)
{
    Failure failure;
    failure.exitCode = exitCodeOf(errorKind(error));
    failure.name = error.name();
    failure.message = error.message().toString();
    failure.path = path;
    failure.title = error.title().toString();
    return failure;
}

Failure failureOf(const CMVoidReply& reply, const QString& path)
{
    return failureOf(reply.error(), path);
}

int exitCodeOf(HostFailure::Kind kind)
{
    return kind == HostFailure::Kind::Usage ? Usage : Unavailable;
}

QString nameOf(HostFailure::Kind kind)
{
    switch (kind) {
    case HostFailure::Kind::None:
        break;
    case HostFailure::Kind::Usage:
        return QStringLiteral("Usage");
    case HostFailure::Kind::NoPlugin:
        return QStringLiteral("NoPlugin");
    case HostFailure::Kind::NoAccess:
        return QStringLiteral("NoAccess");
    case HostFailure::Kind::InUse:
        return errorName(ErrorKind::InUse);
    }
    return QString();
}

// Texts and paths become strings here, where an answer leaves the worker's world.
QVariant plain(const QVariant& role)
{
    if (TrString::isIn(role))
        return TrString::fromVariant(role).toString();
    if (CMPath::isIn(role))
        return CMPath::fromVariant(role).text();
    return role;
}

QVariantHash plain(const QVariantHash& roles)
{
    QVariantHash result;
    for (auto role = roles.cbegin(); role != roles.cend(); ++role)
        result.insert(role.key(), plain(role.value()));
    return result;
}

QVariantHash named(const QStringList& roles, const QList<QVariant>& values)
{
    QVariantHash result;
    for (int i = 0; i < roles.size(); ++i)
        result.insert(roles.at(i), plain(values.value(i)));
    return result;
}

Answer<QVariantHash> changed(const CMSetDataRequest::Reply& reply, const QString& path)
{
    const Failure failure = failureOf(reply, path);
    if (failure)
        return { {}, failure };
    return { plain(reply.value().toHash()), {} };
}

} // namespace

std::unique_ptr<LocalSession> LocalSession::open(const HostOptions& options, Access access,
                                                 Failure* failure)
{
    HostOptions hostOptions = options;
    hostOptions.access =
        access == Access::Read ? HostOptions::Access::Read : HostOptions::Access::Own;
    HostFailure reason;
    QString readOnlyReason;
    std::unique_ptr<Host> host = Host::open(hostOptions, &reason);

    const bool mayRead =
        reason.kind == HostFailure::Kind::InUse || reason.kind == HostFailure::Kind::NoAccess;
    if (!host && access == Access::OwnIfPossible && mayRead) {
        readOnlyReason = reason.message;
        hostOptions.access = HostOptions::Access::Read;
        host = Host::open(hostOptions, &reason);
    }
    if (!host) {
        *failure = { exitCodeOf(reason.kind), nameOf(reason.kind), reason.message, QString() };
        return nullptr;
    }
    return std::unique_ptr<LocalSession>(new LocalSession(std::move(host), readOnlyReason));
}

LocalSession::LocalSession(std::unique_ptr<Host> host, const QString& readOnlyReason)
    : m_host(std::move(host))
    , m_readOnlyReason(readOnlyReason)
{
}

LocalSession::~LocalSession()
{
    m_host->registry()->unsubscribe(this);
}

QString LocalSession::readOnlyReason() const
{
    return m_readOnlyReason;
}

std::optional<qint64> LocalSession::otherOwner() const
{
    return m_host->otherOwner();
}

int LocalSession::catalogueCount() const
{
    return m_host->catalogueCount();
}

Answer<TreeDirectories> LocalSession::directories()
{
    return { { m_host->defaultPath(), m_host->writePath() }, {} };
}

Answer<QVariantHash> LocalSession::getData(const QString& path, const QStringList& roles)
{
    const CMGetDataRequest::Reply reply = m_host->dispatcher().getData(CMPath(path), roles);
    const Failure failure = failureOf(reply, path);
    if (failure)
        return { {}, failure };
    return { named(roles, reply.value()), {} };
}

Answer<RowPage> LocalSession::getRows(const QString& path, int first, int last,
                                      const QStringList& roles)
{
    CMError error;
    const DirectoryRows rows = m_host->dispatcher().rows(CMPath(path), first, last, roles, &error);
    const Failure failure = failureOf(error, path);
    if (failure)
        return { {}, failure };
    RowPage page;
    page.count = rows.count;
    page.version = rows.version;
    page.roles = plain(rows.directory.__variant().toHash());
    for (const DirectoryRow& row : rows.rows)
        page.rows.append({ row.path.text(), row.isDirectory, named(roles, row.values), row.error });
    return { page, {} };
}

Answer<QVariantHash> LocalSession::setValue(const QString& path, const TuloValue& value)
{
    return changed(m_host->dispatcher().setValue(CMPath(path), value), path);
}

Answer<QVariantHash> LocalSession::setRoles(const QString& path, const QVariantHash& roles)
{
    return changed(m_host->dispatcher().setRoles(CMPath(path), TuloRoles(TuloHash(roles))), path);
}

Answer<QVariantHash> LocalSession::apply(const QString& path, const QString& verb,
                                         const TuloValue& operand)
{
    return changed(m_host->dispatcher().apply(CMPath(path), TuloOperation(verb, operand)), path);
}

Failure LocalSession::flush()
{
    const FlushResult result = m_host->flushNow();
    if (!result.error.isEmpty())
        return notSaved(m_host->writes().unsavedPaths(), result.error);
    return saved();
}

Failure LocalSession::dropCache()
{
    return failureOf(m_host->dispatcher().dropCache(), TuloSettingsActionsDropCache().text());
}

Failure LocalSession::settle(bool)
{
    // Without a change there is nothing to write, and another owner may be using the tree.
    if (m_host->writes().needsFlush()) {
        Failure failure = flush();
        if (failure)
            return failure;
    }
    return saved();
}

Failure LocalSession::saved() const
{
    const WriteTracker& writes = m_host->writes();
    if (writes.isSaved())
        return {};
    return notSaved(writes.unsavedPaths(), writes.lastError());
}

Failure LocalSession::watch(const QString& path)
{
    const CMPath node(path);
    // Asking first keeps paths that name nothing out of the registry, which forgets none.
    Failure failure = getData(path, {}).failure;
    if (failure)
        return failure;
    if (!m_subscribed.contains(path)) {
        m_subscribed.insert(path);
        m_host->registry()->subscribeValue(node, this);
        m_host->registry()->subscribeData(node, this);
        m_host->registry()->subscribeRows(node, this);
    }
    m_watched.insert(path);
    return {};
}

void LocalSession::unwatch(const QString& path)
{
    m_watched.remove(path);
}

void LocalSession::valueChanged(const CMPath& path, const QVariant& value)
{
    if (!m_watched.contains(path.text()))
        return;
    SessionEvent event;
    event.kind = SessionEvent::Kind::Value;
    event.path = path.text();
    event.value = value.toHash();
    emitEvent(event);
}

void LocalSession::dataChanged(const CMPath& path)
{
    if (!m_watched.contains(path.text()))
        return;
    SessionEvent event;
    event.path = path.text();
    emitEvent(event);
}

void LocalSession::rowsChanged(const CMPath& path, const QString& command, int version)
{
    if (!m_watched.contains(path.text()))
        return;
    SessionEvent event;
    event.kind = SessionEvent::Kind::Rows;
    event.path = path.text();
    event.command = command;
    event.rowsVersion = version;
    emitEvent(event);
}

} // namespace tulo
