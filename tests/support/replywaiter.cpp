#include "tests/support/replywaiter.h"

#include <QDeadlineTimer>
#include <QEventLoop>
#include <QMutexLocker>
#include <QTimer>

ReplyWaiter::ReplyWaiter(const CMVoidReply& reply)
    : m_reply(reply)
{
    m_reply.addWatcher(this);
}

ReplyWaiter::~ReplyWaiter()
{
    m_reply.removeWatcher(this);
}

bool ReplyWaiter::wait(int milliseconds)
{
    const QDeadlineTimer deadline(milliseconds);
    const QMutexLocker locker(&m_mutex);
    while (m_count == 0) {
        if (!m_condition.wait(&m_mutex, deadline))
            break;
    }
    return m_count > 0;
}

bool ReplyWaiter::waitServingEvents(int milliseconds)
{
    QEventLoop loop;
    {
        const QMutexLocker locker(&m_mutex);
        if (m_count > 0)
            return true;
        m_loop = &loop;
    }
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
    const QMutexLocker locker(&m_mutex);
    m_loop = nullptr;
    return m_count > 0;
}

int ReplyWaiter::count() const
{
    const QMutexLocker locker(&m_mutex);
    return m_count;
}

QThread* ReplyWaiter::finishingThread() const
{
    const QMutexLocker locker(&m_mutex);
    return m_finishingThread;
}

void ReplyWaiter::replyFinished(const CMVoidReply&)
{
    const QMutexLocker locker(&m_mutex);
    ++m_count;
    m_finishingThread = QThread::currentThread();
    m_condition.wakeAll();
    // Queued: the loop may not have been entered yet.
    if (m_loop != nullptr)
        QMetaObject::invokeMethod(m_loop, &QEventLoop::quit, Qt::QueuedConnection);
}

CMReply<QList<QVariant>> getData(CMWorker* worker, const QString& path, const QStringList& roles)
{
    const auto reply = CMReply<QList<QVariant>>::create();
    worker->getDataRequest(CMGetDataRequest(CMPath(path), roles, reply));
    return reply;
}

CMReply<TuloRowsRoles> getRows(CMWorker* worker, const QString& path, int firstRow, int lastRow,
                               const QStringList& roles)
{
    const auto reply = CMReply<TuloRowsRoles>::create();
    worker->getRowsRequest(CMGetRowsRequest(CMPath(path), firstRow, lastRow, roles, reply));
    return reply;
}

CMReply<QVariant> setData(CMWorker* worker, const QString& path, const QString& role,
                          const QVariant& value)
{
    const auto reply = CMReply<QVariant>::create();
    worker->setDataRequest(CMSetDataRequest(CMPath(path), role, value, reply));
    return reply;
}

CMReply<QVariant> activate(CMWorker* worker, const CMPath& path)
{
    return setData(worker, path.text(), TuloRoles::Activate(), QVariant());
}

QString errorText(const CMVoidReply& reply)
{
    const CMError error = reply.error();
    return error.name().isEmpty() ? QString()
                                  : error.name() + QLatin1String(": ") + error.message().toString();
}
