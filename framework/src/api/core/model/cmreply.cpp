#include "api/core/model/cmreply.h"

#include <chrono>
#include <utility>

template class CMReplyData<TuloRowsRoles>;

bool CMReplyAbstractData::isFinished() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_finished;
}

CMError CMReplyAbstractData::error() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_error;
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
    const auto isFinished = [this] {
        return m_finished;
    };
    std::unique_lock<std::mutex> lock(m_mutex);
    if (milliseconds <= longestWaitMs)
        return m_condition.wait_for(lock, std::chrono::milliseconds(milliseconds), isFinished);
    m_condition.wait(lock, isFinished);
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

void CMReplyAbstractData::acquire()
{
    m_references.fetch_add(1, std::memory_order_relaxed);
}

void CMReplyAbstractData::release()
{
    if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete this;
}

QList<CMReplyWatcher*> CMReplyAbstractData::finish()
{
    m_finished = true;
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

CMVoidReply::CMVoidReply(CMReplyAbstractData* data)
    : m_data(data)
{
    if (m_data != nullptr)
        m_data->acquire();
}

CMVoidReply::CMVoidReply(const CMVoidReply& other)
    : CMVoidReply(other.m_data)
{
}

CMVoidReply::CMVoidReply(CMVoidReply&& other) noexcept
    : m_data(std::exchange(other.m_data, nullptr))
{
}

CMVoidReply& CMVoidReply::operator=(CMVoidReply other) noexcept
{
    std::swap(m_data, other.m_data);
    return *this;
}

CMVoidReply::~CMVoidReply()
{
    if (m_data != nullptr)
        m_data->release();
}

CMReplyAbstractData* CMVoidReply::data() const
{
    return m_data;
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

CMReplyAbstractData* CMVoidReply::d() const
{
    return m_data;
}
