#pragma once

#include "api/core/model/cmrequest.h"
#include "api/core/model/cmworker.h"

#include <QHash>
#include <QString>

#include <functional>

namespace tulo {

/// Finds the worker that serves a path: the one with the longest prefix, in whole components,
/// with or without the path's leading "/". "/settings2" is not below "/settings".
///
/// Owns no worker. Worker thread only.
class Router : public CMRouter
{
public:
    /// Routes what is at or below the worker's prefix to it, and becomes its router for row
    /// sub-requests. A worker already added under the same prefix is replaced.
    void addWorker(CMWorker* worker);
    /// To be called before `worker` is destroyed.
    void removeWorker(CMWorker* worker);

    /// Asked before a worker's own request for a row is served; an error is then the answer.
    void setRowCheck(const std::function<CMError(const CMPath&)>& check);

    /// Null when no worker serves `path`.
    CMWorker* workerFor(const CMPath& path) const;

    /// Has the request answered on the calling thread; the invalid-path error when nobody
    /// serves its path. The reply is finished now or, if the worker chooses so, later.
    void request(const CMRequest& request) const;

    CMReply<QList<QVariant>> getData(const CMPath& path, const QStringList& roles,
                                     const CMReply<QList<QVariant>>& reply) override;

private:
    QHash<QString, CMWorker*> m_workers; ///< by prefix, with its leading "/"
    std::function<CMError(const CMPath&)> m_rowCheck;
};

} // namespace tulo
