#include "localsession.h"

#include "api/core/model/tulosettingsactions.h"
#include "api/core/trstring.h"

namespace tulo {

namespace {

Failure failureOf(const CMError& error, const QString& path)
{
    Failure failure;
    failure.exitCode = describe(errorCode(error)).exitCode;
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

int exitCodeOf(EngineFailure::Kind kind)
{
    return kind == EngineFailure::Kind::Usage ? Usage : Unavailable;
}

QString nameOf(EngineFailure::Kind kind)
{
    switch (kind) {
    case EngineFailure::Kind::None:
        break;
    case EngineFailure::Kind::Usage:
        return QStringLiteral("Usage");
    case EngineFailure::Kind::NoPlugin:
        return QStringLiteral("NoPlugin");
    case EngineFailure::Kind::NoAccess:
        return QStringLiteral("NoAccess");
    case EngineFailure::Kind::InUse:
        return QStringLiteral("InUse");
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

std::unique_ptr<LocalSession> LocalSession::open(const EngineOptions& options, Access access,
                                                 Failure* failure)
{
    EngineOptions engineOptions = options;
    engineOptions.access =
        access == Access::Read ? EngineOptions::Access::Read : EngineOptions::Access::Own;
    EngineFailure reason;
    QString readOnlyReason;
    std::unique_ptr<Engine> engine = Engine::open(engineOptions, &reason);

    const bool mayRead =
        reason.kind == EngineFailure::Kind::InUse || reason.kind == EngineFailure::Kind::NoAccess;
    if (!engine && access == Access::OwnIfPossible && mayRead) {
        readOnlyReason = reason.message;
        engineOptions.access = EngineOptions::Access::Read;
        engine = Engine::open(engineOptions, &reason);
    }
    if (!engine) {
        *failure = { exitCodeOf(reason.kind), nameOf(reason.kind), reason.message, QString() };
        return nullptr;
    }
    return std::unique_ptr<LocalSession>(new LocalSession(std::move(engine), readOnlyReason));
}

LocalSession::LocalSession(std::unique_ptr<Engine> engine, const QString& readOnlyReason)
    : m_engine(std::move(engine))
    , m_readOnlyReason(readOnlyReason)
{
}

LocalSession::~LocalSession()
{
    m_engine->registry()->unsubscribe(this);
}

QString LocalSession::readOnlyReason() const
{
    return m_readOnlyReason;
}

std::optional<qint64> LocalSession::otherOwner() const
{
    return m_engine->otherOwner();
}

int LocalSession::catalogueCount() const
{
    return m_engine->catalogueCount();
}

Answer<TreeDirectories> LocalSession::directories()
{
    return { { m_engine->defaultPath(), m_engine->writePath() }, {} };
}

Answer<QVariantHash> LocalSession::getData(const QString& path, const QStringList& roles)
{
    const CMGetDataRequest::Reply reply = m_engine->dispatcher().getData(CMPath(path), roles);
    const Failure failure = failureOf(reply, path);
    if (failure)
        return { {}, failure };
    return { named(roles, reply.value()), {} };
}

Answer<RowPage> LocalSession::getRows(const QString& path, int first, int last,
                                      const QStringList& roles)
{
    CMError error;
    const DirectoryRows rows =
        m_engine->dispatcher().rows(CMPath(path), first, last, roles, &error);
    const Failure failure = failureOf(error, path);
    if (failure)
        return { {}, failure };
    RowPage page;
    page.count = rows.count;
    page.version = rows.version;
    page.roles = plain(rows.directory.__variant().toHash());
    for (const DirectoryRow& row : rows.rows)
        page.rows.append({ row.path.text(), row.isDirectory, named(roles, row.values),
                           row.error.message().toString() });
    return { page, {} };
}

Answer<QVariantHash> LocalSession::setValue(const QString& path, const TuloValue& value)
{
    return changed(m_engine->dispatcher().setValue(CMPath(path), value), path);
}

Answer<QVariantHash> LocalSession::setRoles(const QString& path, const QVariantHash& roles)
{
    return changed(m_engine->dispatcher().setRoles(CMPath(path), TuloRoles(TuloHash(roles))), path);
}

Answer<QVariantHash> LocalSession::apply(const QString& path, const QString& verb,
                                         const TuloValue& operand)
{
    return changed(m_engine->dispatcher().apply(CMPath(path), TuloOperation(verb, operand)), path);
}

Failure LocalSession::flush()
{
    const FlushResult result = m_engine->flushNow();
    if (!result.error.isEmpty())
        return notSaved(m_engine->writes().unsavedPaths(), result.error);
    return saved();
}

Failure LocalSession::dropCache()
{
    return failureOf(m_engine->dispatcher().dropCache(), TuloSettingsActionsDropCache().text());
}

Failure LocalSession::settle(bool)
{
    // Without a change there is nothing to write, and another owner may be using the tree.
    if (m_engine->writes().needsFlush()) {
        Failure failure = flush();
        if (failure)
            return failure;
    }
    return saved();
}

Failure LocalSession::saved() const
{
    const WriteTracker& writes = m_engine->writes();
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
        m_engine->registry()->subscribeValue(node, this);
        m_engine->registry()->subscribeData(node, this);
        m_engine->registry()->subscribeRows(node, this);
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
