#include "api/core/model/cmworker.h"

namespace {

const QString defaultPrefix = QStringLiteral("/settings");
const QLatin1Char separator('/');

QString configuredPrefix(const QHash<QString, QVariant>& configuration)
{
    const auto entry = configuration.constFind(QStringLiteral("prefix"));
    return entry == configuration.cend() ? defaultPrefix : entry->toString();
}

// Whether the path's first component is the prefix; the path may lack its leading "/".
bool isBelow(const QString& prefix, const QString& path)
{
    const QStringView mount = QStringView(prefix).mid(path.startsWith(separator) ? 0 : 1);
    return path.startsWith(mount)
        && (path.size() == mount.size() || path.at(int(mount.size())) == separator);
}

} // namespace

CMAbstractWorker::CMAbstractWorker(const QString& name, const QString& prefix)
    : m_name(name)
    , m_prefix(prefix)
{
    TULO_ASSERT_TEXT(prefix.size() > 1 && prefix.lastIndexOf(separator) == 0,
                     "the prefix is one component");
}

void CMAbstractWorker::request(CMRequest request)
{
    switch (request.kind()) {
    case CMRequest::Kind::Ping:
        return ping(CMSetDataRequest(request));
    case CMRequest::Kind::GetData:
        return getDataRequest(CMGetDataRequest(request));
    case CMRequest::Kind::GetRows:
        return getRowsRequest(CMGetRowsRequest(request));
    case CMRequest::Kind::MatchRow:
        return matchRowRequest(CMMatchRowRequest(request));
    case CMRequest::Kind::SetData:
        return setDataRequest(CMSetDataRequest(request));
    }
}

QString CMAbstractWorker::workerName() const
{
    return m_name;
}

void CMAbstractWorker::setRouter(CMRouter* router)
{
    m_router = router;
}

CMReply<QList<QVariant>> CMAbstractWorker::getData(const CMPath& path, const QStringList& roles,
                                                   const CMReply<QList<QVariant>>& reply)
{
    if (m_router != nullptr)
        return m_router->getData(path, roles, reply);
    if (isBelow(m_prefix, path.text()))
        getDataRequest(CMGetDataRequest(path, roles, reply));
    else
        reply.setError(createErrorInvalidPath(path));
    return reply;
}

CMError CMAbstractWorker::createErrorInvalidPath(const CMPath& path)
{
    return CMError(
        QStringLiteral("InvalidPath"),
        TrString({ "CMAbstractWorker", "Invalid path '%1'", nullptr, -1 }, { path.toEncoded() }));
}

CMError CMAbstractWorker::createErrorInternal(const QString& text)
{
    return CMError(QStringLiteral("InternalError"), TrString(text));
}

const QString& CMAbstractWorker::prefix() const
{
    return m_prefix;
}

CMWorker::CMWorker(const QHash<QString, QVariant>& configuration, const QString& workerName)
    : CMAbstractWorker(workerName, configuredPrefix(configuration))
    , m_subscribe(std::make_unique<CMSubscribe>())
{
    qRegisterMetaType<TuloRoles>("TuloRoles");
    qRegisterMetaType<CMSetDataRequest>("CMSetDataRequest");
}

CMWorker::~CMWorker() = default;

void CMWorker::ping(const CMSetDataRequest& request)
{
    request.reply().setValue(QVariant());
}

void CMWorker::trace() { }

void CMWorker::getDataRequest(const CMGetDataRequest& request)
{
    request.reply().setError(createErrorInvalidPath(request.path()));
}

void CMWorker::getRowsRequest(const CMGetRowsRequest& request)
{
    request.reply().setError(createErrorInvalidPath(request.path()));
}

void CMWorker::matchRowRequest(const CMMatchRowRequest& request)
{
    request.reply().setError(createErrorInvalidPath(request.path()));
}

void CMWorker::setDataRequest(const CMSetDataRequest& request)
{
    request.reply().setError(createErrorInvalidPath(request.path()));
}

void CMWorker::connectChange(ChangeType, const CMPath&, QObject*,
                             std::function<bool(ChangeNotifier*)>)
{
}

void CMWorker::disconnectChange(ChangeType, const CMPath&, QObject*,
                                std::function<void(ChangeNotifier*)>)
{
}

CMPath CMWorker::addPrefix(const QString& base) const
{
    if (base.isEmpty() || base == separator)
        return prefixPath();
    if (base.startsWith(separator))
        return CMPath(prefix(), base);
    return CMPath(prefix().mid(1) + separator + base);
}

CMPath CMWorker::prefixPath() const
{
    return CMPath(prefix());
}

CMSubscribe* CMWorker::subscribe() const
{
    return m_subscribe.get();
}
