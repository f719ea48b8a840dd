#include "host/client.h"

#include "host/guard.h"
#include "host/router.h"
#include "host/separator.h"

#include "api/core/model/tulosettingsactions.h"
#include "api/core/tulo.h"

#include <QMutexLocker>
#include <QThread>

namespace {

CMError stoppedError()
{
    return hostError(ErrorKind::Stopped, QStringLiteral("The host has stopped"));
}

// The path under which the worker announces a change.
CMPath absolute(const CMPath& path)
{
    return path.text().startsWith(separator) ? path : CMPath(separator + path.text());
}

} // namespace

Client::Client(Router* router, const Guard* guard)
    : m_router(router)
    , m_guard(guard)
{
    checkedConnect(this, &Client::privateRequestQueued, this, &Client::serveQueued,
                   Qt::QueuedConnection);
}

Client::~Client()
{
    close();
}

// ---------------------------------------------------------------------------------------------
// Requests. Thread-safe.
// ---------------------------------------------------------------------------------------------

CMGetDataRequest::Reply Client::getData(const CMPath& path, const QStringList& roles)
{
    auto reply = CMGetDataRequest::Reply::create();
    submit(CMGetDataRequest(path, roles, reply));
    return reply;
}

CMGetRowsRequest::Reply Client::getRows(const CMPath& path, qint32 firstRow, qint32 lastRow,
                                        const QStringList& roles)
{
    auto reply = CMGetRowsRequest::Reply::create();
    const QStringList rowRoles = roles + QStringList { TuloRoles::Path(), TuloRoles::Type() };
    submit(CMGetRowsRequest(path, firstRow, lastRow, rowRoles, reply));
    return reply;
}

CMSetDataRequest::Reply Client::setValue(const CMPath& path, const TuloValue& value)
{
    return setData(path, TuloRoles::Value(), value.__variant());
}

CMSetDataRequest::Reply Client::setRoles(const CMPath& path, const TuloRoles& roles)
{
    return setData(path, TuloRoles::SetRoles(), roles.__variant());
}

CMSetDataRequest::Reply Client::apply(const CMPath& path, const TuloOperation& operation)
{
    return setData(path, TuloRoles::ValueOperation(), operation.__variant());
}

CMSetDataRequest::Reply Client::flush()
{
    return setData(TuloSettingsActionsFlush(), TuloRoles::Activate(), QVariant());
}

CMSetDataRequest::Reply Client::dropCache()
{
    return setData(TuloSettingsActionsDropCache(), TuloRoles::Activate(), QVariant());
}

CMSetDataRequest::Reply Client::setData(const CMPath& path, const QString& role,
                                        const QVariant& value)
{
    auto reply = CMSetDataRequest::Reply::create();
    submit(CMSetDataRequest(path, role, value, reply));
    return reply;
}

void Client::wait(const CMVoidReply& reply, int milliseconds)
{
    if (reply.data()->waitForFinished(static_cast<unsigned long>(milliseconds)))
        return;
    reply.setError(
        hostError(ErrorKind::TimedOut, QStringLiteral("No answer within %1 ms").arg(milliseconds)));
}

Rows Client::rowsOf(const TuloRowsRoles& answer, const QStringList& roles)
{
    Rows rows;
    rows.count = answer.rowsCount();
    rows.version = answer.rowsVersion();
    rows.directory = answer.roles();
    const QVariantList answered = answer.rows().toList();
    for (const QVariant& entry : answered) {
        // Behind the roles that were asked for: path and type.
        QList<QVariant> values = entry.toList();
        Row row;
        row.isDirectory = values.takeLast().toInt() == TuloRolesType::Directory;
        row.path = CMPath::fromVariant(values.takeLast());
        row.name = nameOf(row.path.text());
        row.values = values;
        TULO_ASSERT(row.values.size() == roles.size());
        rows.rows.append(row);
    }
    return rows;
}

// ---------------------------------------------------------------------------------------------
// The way to the worker's thread: one queued event a request, so that timers and other events
// have their turn between two requests.
// ---------------------------------------------------------------------------------------------

void Client::submit(const CMRequest& request)
{
    QMutexLocker locker(&m_mutex);
    if (m_closed) {
        locker.unlock();
        request.voidReply().setError(stoppedError());
        return;
    }
    if (QThread::currentThread() == thread()) {
        locker.unlock();
        serve(request);
        return;
    }
    m_queue.append(request);
    // Under the lock, so that close() and destruction come before it or find the request.
    emit privateRequestQueued();
}

void Client::serveQueued()
{
    QMutexLocker locker(&m_mutex);
    if (m_queue.isEmpty())
        return;
    const CMRequest request = m_queue.takeFirst();
    locker.unlock();
    serve(request);
}

void Client::serve(const CMRequest& request)
{
    CMError error;
    const CMRequest admitted = m_guard == nullptr ? request : m_guard->admit(request, &error);
    if (errorKind(error) != ErrorKind::None) {
        request.voidReply().setError(error);
        return;
    }
    m_router->request(admitted);

    if (request.kind() != CMRequest::Kind::SetData
        || CMSetDataRequest(request).role() == TuloRoles::Activate())
        return;
    const CMVoidReply& reply = request.voidReply();
    if (reply.isFinished() && errorKind(reply.error()) == ErrorKind::None)
        emit changeAccepted(absolute(request.path()));
}

void Client::callDirectly(const CMRequest& request) const
{
    m_router->request(request);
}

void Client::close()
{
    QMutexLocker locker(&m_mutex);
    m_closed = true;
    QList<CMRequest> queue;
    queue.swap(m_queue);
    locker.unlock();
    for (const CMRequest& request : qAsConst(queue))
        request.voidReply().setError(stoppedError());
}
