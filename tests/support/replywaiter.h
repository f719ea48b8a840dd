#pragma once

#include "api/core/model/cmreply.h"
#include "api/core/model/cmrequest.h"
#include "api/core/model/cmworker.h"

#include <QList>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QThread>
#include <QVariant>
#include <QWaitCondition>

class QEventLoop;

// Longer than anything a test waits for; only a failing test ever waits so long.
constexpr int replyWaitMs = 30000;

/// Counts how often a reply tells that it is finished, and waits for it.
class ReplyWaiter : public CMReplyWatcher
{
public:
    explicit ReplyWaiter(const CMVoidReply& reply);
    ~ReplyWaiter() override;

    /// Blocks the calling thread until the reply told, and says whether it did. For a reply that
    /// another thread finishes.
    bool wait(int milliseconds = replyWaitMs);
    /// The same while the calling thread's events are served. For a reply that is finished by a
    /// call queued to this thread.
    bool waitServingEvents(int milliseconds = replyWaitMs);

    int count() const;
    /// The thread that told last; null before.
    QThread* finishingThread() const;

    void replyFinished(const CMVoidReply& reply) override;

private:
    Q_DISABLE_COPY(ReplyWaiter)

    const CMVoidReply m_reply;
    mutable QMutex m_mutex;
    QWaitCondition m_condition;
    // Under the mutex.
    int m_count = 0;
    QThread* m_finishingThread = nullptr;
    QEventLoop* m_loop = nullptr; ///< the one that waits, if any
};

// One request each, made directly on the calling thread. The replies are usually finished when
// the call returns.
CMReply<QList<QVariant>> getData(CMWorker* worker, const QString& path, const QStringList& roles);
CMReply<TuloRowsRoles> getRows(CMWorker* worker, const QString& path, int firstRow, int lastRow,
                               const QStringList& roles);
CMReply<QVariant> setData(CMWorker* worker, const QString& path, const QString& role,
                          const QVariant& value);
/// Set data with the activate role and no value: an action.
CMReply<QVariant> activate(CMWorker* worker, const CMPath& path);

/// "name: message" of a reply's error, empty when it has none.
QString errorText(const CMVoidReply& reply);
