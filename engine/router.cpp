#include "engine/router.h"

#include "trees/separator.h"

namespace tulo {

void Router::addWorker(CMWorker* worker)
{
    m_workers.insert(worker->prefixPath().text(), worker);
    worker->setRouter(this);
}

void Router::removeWorker(CMWorker* worker)
{
    m_workers.remove(worker->prefixPath().text());
    worker->setRouter(nullptr);
}

void Router::setRowCheck(const std::function<CMError(const CMPath&)>& check)
{
    m_rowCheck = check;
}

CMWorker* Router::workerFor(const CMPath& path) const
{
    QString prefix = path.text();
    if (!prefix.startsWith(separator))
        prefix.prepend(separator);
    while (!prefix.isEmpty()) {
        const auto entry = m_workers.constFind(prefix);
        if (entry != m_workers.cend())
            return *entry;
        prefix.truncate(prefix.lastIndexOf(separator));
    }
    return nullptr;
}

void Router::request(const CMRequest& request) const
{
    if (CMWorker* const worker = workerFor(request.path()))
        worker->request(request);
    else
        request.voidReply().setError(CMAbstractWorker::createErrorInvalidPath(request.path()));
}

CMReply<QList<QVariant>> Router::getData(const CMPath& path, const QStringList& roles,
                                         const CMReply<QList<QVariant>>& reply)
{
    const CMError error = m_rowCheck ? m_rowCheck(path) : CMError();
    if (error.isEmpty())
        request(CMGetDataRequest(path, roles, reply));
    else
        reply.setError(error);
    return reply;
}

} // namespace tulo
