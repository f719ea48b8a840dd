#pragma once

#include "api/core/model/cmworker.h"

#include <QList>
#include <QMutex>
#include <QString>
#include <QThread>
#include <QVariant>

// What the tests of the engine share.

/// A worker that notes what it is asked and on which thread, and answers every request with the
/// request's path, or leaves it open.
class NotingWorker : public CMWorker
{
public:
    explicit NotingWorker(const QString& prefix = QStringLiteral("/settings"))
        : CMWorker({ { QStringLiteral("prefix"), prefix } }, QStringLiteral("NotingWorker"))
    {
    }

    struct Note
    {
        CMRequest request;
        QThread* thread = nullptr;
    };

    /// Keeps the replies of later requests unfinished.
    void setAnswering(bool isAnswering) { m_isAnswering = isAnswering; }

    QList<Note> notes() const
    {
        const QMutexLocker locker(&m_mutex);
        return m_notes;
    }

    QStringList paths() const
    {
        QStringList paths;
        const QList<Note> all = notes();
        for (const Note& note : all)
            paths.append(note.request.path().text());
        return paths;
    }

    void getDataRequest(const CMGetDataRequest& request) override
    {
        if (note(request))
            request.reply().setValue({ request.path().text() });
    }

    void getRowsRequest(const CMGetRowsRequest& request) override
    {
        if (note(request))
            request.reply().setValue(TuloRowsRoles());
    }

    void setDataRequest(const CMSetDataRequest& request) override
    {
        if (note(request))
            request.reply().setValue(request.path().text());
    }

private:
    bool note(const CMRequest& request)
    {
        const QMutexLocker locker(&m_mutex);
        m_notes.append({ request, QThread::currentThread() });
        return m_isAnswering;
    }

    bool m_isAnswering = true;
    mutable QMutex m_mutex;
    QList<Note> m_notes; ///< under the mutex
};
