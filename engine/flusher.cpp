#include "engine/flusher.h"

#include "engine/dispatcher.h"
#include "trees/ownerlock.h"

#include "api/core/tulo.h"

#include <QDeadlineTimer>

#include <utility>

namespace tulo {

namespace {

constexpr int placeCheckMs = 1000;

} // namespace

Flusher::Flusher(CMWorker* worker, Dispatcher* dispatcher, const OwnerLock* lock,
                 WriteTracker* writes)
    : m_worker(worker)
    , m_dispatcher(dispatcher)
    , m_lock(lock)
    , m_writes(writes)
{
    m_start.setSingleShot(true);
    m_deadline.setSingleShot(true);
    m_deadline.setInterval(syncTimeoutMs);
    checkedConnect(&m_start, &QTimer::timeout, this, &Flusher::on_start_timeout);
    checkedConnect(&m_deadline, &QTimer::timeout, this, &Flusher::on_deadline_timeout);
    m_placeCheck.setSingleShot(true);
    m_placeCheck.setInterval(placeCheckMs);
    checkedConnect(&m_placeCheck, &QTimer::timeout, this, &Flusher::on_placeCheck_timeout);
    checkedConnect(&m_sync, &TreeSync::finished, this, &Flusher::on_sync_finished);
    m_confirmation.setSingleShot(true);
    m_confirmation.setInterval(confirmDelayMs);
    checkedConnect(&m_confirmation, &QTimer::timeout, this, &Flusher::on_confirmation_timeout);
    // Queued: it is emitted inside a log call of the worker.
    connect(m_writes, &WriteTracker::changed, this, &Flusher::on_writes_changed,
            Qt::QueuedConnection);
}

Flusher::~Flusher()
{
    m_served += std::exchange(m_waiting, {});
    if (!m_served.isEmpty())
        answer(QStringLiteral("The engine has stopped"));
}

// ---------------------------------------------------------------------------------------------
// A flush: write, sync, answer.
// ---------------------------------------------------------------------------------------------

void Flusher::setWorker(CMWorker* worker)
{
    m_worker = worker;
}

void Flusher::flush(const Done& done)
{
    m_waiting.append(done);
    m_start.start();
}

void Flusher::on_start_timeout()
{
    if (m_waiting.isEmpty() || !m_served.isEmpty())
        return;
    m_served = std::exchange(m_waiting, {});
    if (!m_lock->isOwned()) {
        answer(QString());
        return;
    }
    begin();
}

FlushResult Flusher::flushNow()
{
    FlushResult result;
    bool isAnswered = false;
    m_served += std::exchange(m_waiting, {});
    m_served.append([&result, &isAnswered](const FlushResult& answered) {
        result = answered;
        isAnswered = true;
    });
    if (m_lock->isOwned())
        begin();
    else
        answer(QString());
    // The writes may have taken long, too.
    const QDeadlineTimer deadline(syncTimeoutMs);
    while (!isAnswered && m_sync.wait(int(deadline.remainingTime()))) { }
    if (!isAnswered)
        on_deadline_timeout();
    return result;
}

bool Flusher::isWaitedFor() const
{
    return !m_waiting.isEmpty() || !m_served.isEmpty();
}

void Flusher::begin()
{
    const QString error = writePending();
    if (!error.isEmpty()) {
        fail(error);
        return;
    }
    // One that began before, for others or in vain, covers only what was written by then.
    m_coversServed = m_sync.isRunning() && !m_writes->hasWrittenSinceSync();
    if (!m_sync.isRunning())
        startSync();
    m_deadline.start();
}

QString Flusher::writePending()
{
    const QVector<WriteTracker::Change> unsaved = m_writes->unsavedChanges();
    for (const WriteTracker::Change& change : unsaved) {
        const CMError error = m_dispatcher->storeAgain(change.path, change.roles).error();
        if (errorCode(error) != ErrorCode::None)
            m_writes->setError(error.message().toString());
    }
    if (!QMetaObject::invokeMethod(m_worker, "on_writeTimer_timeout", Qt::DirectConnection))
        return QStringLiteral("The worker cannot be asked to write");
    // Each write leaves a record of its success or failure.
    if (m_writes->pendingCount() > 0)
        return QStringLiteral("The worker has not told what became of every write");
    return m_lock->displacement();
}

void Flusher::startSync()
{
    m_coversServed = true;
    m_syncNumber = m_writes->beginSync();
    m_sync.start(m_lock->directory());
}

void Flusher::on_sync_finished(const QString& error)
{
    // What was written since the tree was replaced went elsewhere.
    const QString reason = error.isEmpty()
        ? m_lock->displacement()
        : QStringLiteral("The file system did not sync: ") + error;
    m_writes->endSync(m_syncNumber, reason);
    if (m_coversServed && !m_served.isEmpty())
        answer(reason);
    else if (!m_served.isEmpty())
        startSync();
}

void Flusher::on_deadline_timeout()
{
    const QString reason =
        QStringLiteral("The file system did not sync within %1 seconds").arg(syncTimeoutMs / 1000);
    // The outcome is unknown, so the next flush writes it again.
    m_writes->endSync(m_syncNumber, reason);
    answer(reason);
}

// ---------------------------------------------------------------------------------------------
// What the worker's timer wrote, and where.
// ---------------------------------------------------------------------------------------------

void Flusher::on_writes_changed()
{
    if (!m_lock->isOwned())
        return;
    if (!m_placeCheck.isActive())
        m_placeCheck.start();
    const int unconfirmed = m_writes->unconfirmedCount();
    if (unconfirmed >= maximumUnconfirmed)
        on_confirmation_timeout();
    else if (unconfirmed > 0 && !m_confirmation.isActive())
        m_confirmation.start();
}

void Flusher::on_confirmation_timeout()
{
    if (!m_sync.isRunning() && m_writes->unconfirmedCount() > 0)
        startSync();
}

void Flusher::on_placeCheck_timeout()
{
    const QString displacement = m_lock->displacement();
    if (!displacement.isEmpty() && displacement != m_writes->lastError())
        m_writes->setError(displacement);
}

void Flusher::fail(const QString& error)
{
    m_writes->setError(error);
    answer(error);
}

void Flusher::answer(const QString& error)
{
    m_deadline.stop();
    m_coversServed = false;
    const FlushResult result { error, m_writes->unsavedCount() };
    const QVector<Done> served = std::exchange(m_served, {});
    for (const Done& done : served)
        done(result);
    if (!m_waiting.isEmpty())
        m_start.start();
}

} // namespace tulo
