#pragma once

#include "engine/errors.h"
#include "engine/guard.h"

#include "api/core/model/cmrequest.h"
#include "api/core/model/cmworker.h"

#include <QList>
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
    CMError error; ///< why the row cannot be served; empty when it can
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
/// it at once, and hands out the reply, which the settings worker has finished by then.
///
/// Lives on the worker's thread, the only one that may use it.
class Dispatcher : public QObject
{
    Q_OBJECT

public:
    /// Both outlive the dispatcher.
    Dispatcher(Router* router, Guard* guard);

    CMGetDataRequest::Reply getData(const CMPath& path, const QStringList& roles);
    /// `lastRow` is inclusive; at most Guard::maximumRows are answered. Asks for two roles more
    /// than `roles`; rowsOf() takes the answer apart.
    CMGetRowsRequest::Reply getRows(const CMPath& path, qint32 firstRow, qint32 lastRow,
                                    const QStringList& roles);
    CMSetDataRequest::Reply dropCache();

    void submit(const CMRequest& request);

    /// Like getRows(), taken apart. A row that cannot be served keeps its place, with its name, as
    /// far as that is known, and the reason: it hides no other. `error` is set when the directory
    /// itself cannot be listed.
    DirectoryRows rows(const CMPath& path, qint32 firstRow, qint32 lastRow,
                       const QStringList& roles, CMError* error);
    /// Has the worker carry out a request that the guard admitted.
    void serveAdmitted(const CMRequest& admitted);
    /// Stores again what was accepted before, without checking it again.
    CMSetDataRequest::Reply storeAgain(const CMPath& path, const TuloRoles& roles);

    /// Takes an answer to getRows() apart; `roles` are those that were given there.
    static DirectoryRows rowsOf(const TuloRowsRoles& answer, const QStringList& roles);

    /// From now on every request fails with Unavailable.
    void close();

signals:
    /// The worker accepted a change to the setting `path` (with its leading "/"): `roles` are those
    /// that were changed, and the timestamp. Emitted after the reply was finished.
    void changeAccepted(const CMPath& path, const TuloRoles& roles);

private:
    Router* const m_router;
    Guard* const m_guard;
    bool m_isClosed = false;
};

} // namespace tulo
