#include "engine/dispatcher.h"

#include "engine/router.h"
#include "trees/separator.h"

#include "api/core/model/tulosettingsactions.h"
#include "api/core/tulo.h"

#include <QThread>

#include <algorithm>

namespace tulo {

namespace {

// The path under which the worker announces a change.
CMPath absolute(const CMPath& path)
{
    return path.text().startsWith(separator) ? path : CMPath(separator + path.text());
}

} // namespace

Dispatcher::Dispatcher(Router* router, Guard* guard)
    : m_router(router)
    , m_guard(guard)
{
}

// ---------------------------------------------------------------------------------------------
// Requests.
// ---------------------------------------------------------------------------------------------

CMGetDataRequest::Reply Dispatcher::getData(const CMPath& path, const QStringList& roles)
{
    auto reply = CMGetDataRequest::Reply::create();
    submit(CMGetDataRequest(path, roles, reply));
    return reply;
}

CMGetRowsRequest::Reply Dispatcher::getRows(const CMPath& path, qint32 firstRow, qint32 lastRow,
                                            const QStringList& roles)
{
    auto reply = CMGetRowsRequest::Reply::create();
    const QStringList rowRoles = roles + QStringList { TuloRoles::Path(), TuloRoles::Type() };
    submit(CMGetRowsRequest(path, firstRow, lastRow, rowRoles, reply));
    return reply;
}

CMSetDataRequest::Reply Dispatcher::dropCache()
{
    auto reply = CMSetDataRequest::Reply::create();
    submit(
        CMSetDataRequest(TuloSettingsActionsDropCache(), TuloRoles::Activate(), QVariant(), reply));
    return reply;
}

DirectoryRows Dispatcher::rowsOf(const TuloRowsRoles& answer, const QStringList& roles)
{
    DirectoryRows rows;
    rows.count = answer.rowsCount();
    rows.version = answer.rowsVersion();
    rows.directory = answer.roles();
    const QVariantList answered = answer.rows().toList();
    for (const QVariant& entry : answered) {
        // Behind the roles that were asked for: path and type.
        QList<QVariant> values = entry.toList();
        TULO_ASSERT(values.size() == roles.size() + Guard::addedRowRoles);
        DirectoryRow row;
        row.isDirectory = values.takeLast().toInt() == TuloRolesType::Directory;
        row.path = CMPath::fromVariant(values.takeLast());
        row.name = nameOf(row.path.text());
        row.values = values;
        rows.rows.append(row);
    }
    return rows;
}

DirectoryRows Dispatcher::rows(const CMPath& path, qint32 firstRow, qint32 lastRow,
                               const QStringList& roles, CMError* error)
{
    const CMGetRowsRequest::Reply all = getRows(path, firstRow, lastRow, roles);
    *error = all.error();
    if (errorCode(*error) == ErrorCode::None)
        return rowsOf(all.value(), roles);
    // A range that ends before it begins is answered without any row, so it tells whether the
    // directory itself can be listed.
    const CMGetRowsRequest::Reply none = getRows(path, 1, 0, roles);
    if (errorCode(none.error()) != ErrorCode::None)
        return DirectoryRows();
    DirectoryRows result = rowsOf(none.value(), roles);
    if (firstRow < 0 || lastRow < 0)
        return DirectoryRows();
    *error = CMError();

    const QStringList names = m_guard->listedNames(path);
    const qint64 end = std::min(
        { qint64(lastRow) + 1, qint64(firstRow) + Guard::maximumRows, qint64(result.count) });
    for (qint32 index = firstRow; index < end; ++index) {
        const CMGetRowsRequest::Reply one = getRows(path, index, index, roles);
        if (errorCode(one.error()) == ErrorCode::None) {
            result.rows += rowsOf(one.value(), roles).rows;
            continue;
        }
        DirectoryRow row;
        row.name = names.size() == result.count ? names.at(index) : QString();
        row.path = CMPath(path.text() + separator + row.name);
        row.error = one.error();
        result.rows.append(row);
    }
    return result;
}

// ---------------------------------------------------------------------------------------------
// The way to the worker.
// ---------------------------------------------------------------------------------------------

void Dispatcher::submit(const CMRequest& request)
{
    TULO_ASSERT(QThread::currentThread() == thread());
    if (m_isClosed) {
        request.voidReply().setError(
            engineError(ErrorCode::Unavailable, QStringLiteral("The engine has stopped")));
        return;
    }
    CMError error;
    const CMRequest admitted = m_guard->admit(request, &error);
    if (errorCode(error) == ErrorCode::None)
        serveAdmitted(admitted);
    else
        request.voidReply().setError(error);
}

void Dispatcher::serveAdmitted(const CMRequest& admitted)
{
    m_router->request(admitted);
    if (admitted.kind() != CMRequest::Kind::SetData)
        return;
    const CMSetDataRequest change(admitted);
    if (change.role() == TuloRoles::Activate() || !change.reply().isFinished()
        || errorCode(change.reply().error()) != ErrorCode::None)
        return;
    TuloRoles roles(TuloHash(change.value().toHash()));
    if (change.role() == TuloRoles::Value()) {
        roles = TuloRoles();
        roles.setValue(TuloValue(TuloHash(change.value().toHash())));
    }
    roles.setTimestamp(TuloRoles(TuloHash(change.reply().value().toHash())).timestamp());
    emit changeAccepted(absolute(change.path()), roles);
}

CMSetDataRequest::Reply Dispatcher::storeAgain(const CMPath& path, const TuloRoles& roles)
{
    auto reply = CMSetDataRequest::Reply::create();
    const CMSetDataRequest request(path, TuloRoles::SetRoles(), roles.__variant(), reply);
    const CMError error = m_guard->checkStoringAgain(path);
    if (errorCode(error) == ErrorCode::None)
        serveAdmitted(request);
    else
        reply.setError(error);
    return reply;
}

void Dispatcher::close()
{
    m_isClosed = true;
}

} // namespace tulo
