#pragma once

#include "engine/dispatcher.h"
#include "engine/engine.h"

#include "api/core/model/cmrequest.h"
#include "api/core/tuloroles.h"
#include "api/core/tulovalue.h"

#include <QEventLoop>
#include <QString>
#include <QVariant>

// Changes in the worker's own terms, through an engine's dispatcher: what a program asks of
// tulo::Settings arrives there in these forms.

namespace tulo {

inline CMSetDataRequest::Reply sendChange(Dispatcher& dispatcher, const CMPath& path,
                                          const QString& role, const QVariant& value)
{
    auto reply = CMSetDataRequest::Reply::create();
    dispatcher.submit(CMSetDataRequest(path, role, value, reply));
    return reply;
}

inline CMSetDataRequest::Reply sendValue(Dispatcher& dispatcher, const CMPath& path,
                                         const TuloValue& value)
{
    return sendChange(dispatcher, path, TuloRoles::Value(), value.__variant());
}

inline CMSetDataRequest::Reply sendRoles(Dispatcher& dispatcher, const CMPath& path,
                                         const TuloRoles& roles)
{
    return sendChange(dispatcher, path, TuloRoles::SetRoles(), roles.__variant());
}

inline CMSetDataRequest::Reply sendOperation(Dispatcher& dispatcher, const CMPath& path,
                                             const TuloOperation& operation)
{
    return sendChange(dispatcher, path, TuloRoles::ValueOperation(), operation.__variant());
}

/// Flushes, and serves events until that is done.
inline FlushResult flushed(Engine& engine)
{
    QEventLoop loop;
    FlushResult result;
    engine.flush([&](const FlushResult& flushResult) {
        result = flushResult;
        loop.quit();
    });
    loop.exec();
    return result;
}

} // namespace tulo
