#pragma once

#include "engine/errors.h"
#include "engine/guard.h"

#include "api/core/model/cmrequest.h"
#include "api/core/model/cmworker.h"

#include <QList>
#include <QMutex>
#include <QObject>
#include <QStringList>

namespace tulo {

class Router;

/// One row of a directory. Answers of the worker hold no names; these come from the row's path.
struct DirectoryRow
{
    QString name;
    CMPath path;
    bool isDirectory = false;
    QList<QVariant> values; ///< of the roles asked for, in that order; none after an error
    QString error; ///< why the row cannot be served; empty when it can
};

/// The answer to Dispatcher::getRows(), taken apart.
struct DirectoryRows
{
    int count = 0; ///< rows of the whole directory, not of those answered
    int version = 0;
    TuloRoles directory; ///< the directory's own roles
    QList<DirectoryRow> rows;
};

/// The way of every request to the worker: builds it, has the guard check it and the worker serve
/// it on the worker's thread, one request at a time, and hands out the reply.
///
/// Lives on the worker's thread. The request functions are thread-safe: on the worker's thread
/// a request is served at once (every reply of the settings worker is then finished when the
/// function returns), from any other it is queued and wait() waits for it.
class Dispatcher : public QObject
{
    Q_OBJECT

public:
    static constexpr int defaultTimeoutMs = 60000;

    /// `guard` checks every request; without one (for measurements) everything is admitted.
    /// Both outlive the dispatcher.
    explicit Dispatcher(Router* router, Guard* guard = nullptr);
    /// Closes.
    ~Dispatcher() override;

    CMGetDataRequest::Reply getData(const CMPath& path, const QStringList& roles);
    /// `lastRow` is inclusive; at most Guard::maximumRows are answered. Asks for two roles more
    /// than `roles`; rowsOf() takes the answer apart.
    CMGetRowsRequest::Reply getRows(const CMPath& path, qint32 firstRow, qint32 lastRow,
                                    const QStringList& roles);
    CMSetDataRequest::Reply setValue(const CMPath& path, const TuloValue& value);
    CMSetDataRequest::Reply setRoles(const CMPath& path, const TuloRoles& roles);
    CMSetDataRequest::Reply apply(const CMPath& path, const TuloOperation& operation);
    CMSetDataRequest::Reply dropCache();
    /// What the functions above are made of: any role, any value.
    CMSetDataRequest::Reply setData(const CMPath& path, const QString& role, const QVariant& value);

    /// Serves `request` at once on the worker's thread, queues it from any other.
    void submit(const CMRequest& request);
    /// Serves `request` at once on the calling thread, whichever it is, without the guard. For
    /// tests of what the worker does on a foreign thread.
    void callDirectly(const CMRequest& request) const;

    /// Waits until `reply` is finished, on any thread but the worker's. After `milliseconds` it
    /// gets the error TimedOut; an answer that comes later is ignored.
    static void wait(const CMVoidReply& reply, int milliseconds = defaultTimeoutMs);

    /// Like getRows(), taken apart. A row that cannot be served keeps its place, with its name, as
    /// far as that is known, and the reason: it hides no other. `error` is set when the directory
    /// itself cannot be listed. Worker thread only.
    DirectoryRows rows(const CMPath& path, qint32 firstRow, qint32 lastRow,
                       const QStringList& roles, CMError* error);
    /// Stores again what was accepted before, without checking it again. Worker thread only.
    CMSetDataRequest::Reply storeAgain(const CMPath& path, const TuloRoles& roles);
    /// How the value of the last change was adjusted to fit, if it was. Worker thread only.
    const Guard::Adjustment& adjustment() const;

    /// Takes an answer to getRows() apart; `roles` are those that were given there.
    static DirectoryRows rowsOf(const TuloRowsRoles& answer, const QStringList& roles);

    /// From now on every request, those that are queued included, gets the error Stopped.
    /// Worker thread only.
    void close();

signals:
    /// The worker accepted a change to the setting `path` (with its leading "/"): `roles` are those
    /// that were changed, and the timestamp. Emitted on the worker's thread, after the reply was
    /// finished.
    void changeAccepted(const CMPath& path, const TuloRoles& roles);
    /// Hands the turn to the worker's thread, once for each queued request.
    void privateRequestQueued();

private:
    void serve(const CMRequest& request);
    void route(const CMRequest& admitted);
    void serveQueued();

    Router* const m_router;
    Guard* const m_guard;
    // Worker thread only.
    Guard::Adjustment m_adjustment;

    QMutex m_mutex;
    // Under the mutex.
    QList<CMRequest> m_queue;
    bool m_closed = false;
};

} // namespace tulo
