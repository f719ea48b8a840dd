#include "api/core/model/cmreply.h"

#include <chrono>

template class CMReplyData<TuloRowsRoles>;

bool CMReplyAbstractData::isFinished() const
{
    return m_finished.load(std::memory_order_acquire);
}

CMError CMReplyAbstractData::error() const
{
    return isFinished() ? m_error : CMError();
}

void CMReplyAbstractData::setError(const CMError& error)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_finished)
        return;
    m_error = error;
    const QList<CMReplyWatcher*> watchers = finish();
    lock.unlock();
    notify(watchers);
}

bool CMReplyAbstractData::waitForFinished(unsigned long milliseconds) const
{
    // Beyond this the clock's range ends, long after anybody's patience.
    constexpr unsigned long longestWaitMs = 1000UL * 3600 * 24 * 365;
    if (isFinished())
        return true;
    const auto finished = [this] {
        return isFinished();
    };
    std::unique_lock<std::mutex> lock(m_mutex);
    if (milliseconds <= longestWaitMs)
        return m_condition.wait_for(lock, std::chrono::milliseconds(milliseconds), finished);
    m_condition.wait(lock, finished);
    return true;
}

void CMReplyAbstractData::addWatcher(CMReplyWatcher* watcher)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_finished) {
        m_watchers.append(watcher);
        return;
    }
    lock.unlock();
    notify({ watcher });
}

void CMReplyAbstractData::removeWatcher(CMReplyWatcher* watcher)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_watchers.removeAll(watcher);
}

QList<CMReplyWatcher*> CMReplyAbstractData::finish()
{
    m_finished.store(true, std::memory_order_release);
    QList<CMReplyWatcher*> watchers;
    watchers.swap(m_watchers);
    m_condition.notify_all();
    return watchers;
}

void CMReplyAbstractData::notify(const QList<CMReplyWatcher*>& watchers)
{
    if (watchers.isEmpty())
        return;
    const CMVoidReply reply(this);
    for (CMReplyWatcher* watcher : watchers)
        watcher->replyFinished(reply);
}

bool CMVoidReply::isFinished() const
{
    TULO_ASSERT(d());
    return d()->isFinished();
}

CMError CMVoidReply::error() const
{
    TULO_ASSERT(d());
    return d()->error();
}

void CMVoidReply::setError(const CMError& error) const
{
    TULO_ASSERT(d());
    d()->setError(error);
}

void CMVoidReply::addWatcher(CMReplyWatcher* watcher) const
{
    TULO_ASSERT(d());
    d()->addWatcher(watcher);
}

void CMVoidReply::removeWatcher(CMReplyWatcher* watcher) const
{
    TULO_ASSERT(d());
    d()->removeWatcher(watcher);
}
