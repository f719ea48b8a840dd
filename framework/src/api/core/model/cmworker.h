#pragma once

#include "api/core/model/cmerror.h"
#include "api/core/model/cmpath.h"
#include "api/core/model/cmreply.h"
#include "api/core/model/cmrequest.h"
#include "api/core/model/cmsubscribe.h"

#include <QHash>
#include <QObject>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>

/// Takes change notifications of connectChange(); opaque to workers.
class ChangeNotifier;

/// Finds the worker that serves a path. Installed by the host, which owns it and keeps it alive
/// as long as the workers that use it.
class CMRouter
{
public:
    virtual ~CMRouter() = default;

    /// Has the request for `roles` of `path` answered on the calling thread and returns `reply`,
    /// finished.
    virtual CMReply<QList<QVariant>> getData(const CMPath& path, const QStringList& roles,
                                             const CMReply<QList<QVariant>>& reply) = 0;
};

/// The operations that the framework calls on a worker, and those that every worker may use.
///
/// Lives on the thread that creates it. Every request operation finishes the request's reply
/// exactly once, during the call or later.
class CMAbstractWorker : public QObject
{
    Q_OBJECT

public:
    enum class ChangeType { Value, Data, Rows };

    /// `prefix` is one component with its leading "/".
    CMAbstractWorker(const QString& name, const QString& prefix);

    // The order of the virtual operations is part of the interface.

    /// Hands the request to the operation of its kind.
    virtual void request(CMRequest request);
    virtual void ping(const CMSetDataRequest& request) = 0;
    virtual void trace() = 0;
    virtual void getDataRequest(const CMGetDataRequest& request) = 0;
    virtual void getRowsRequest(const CMGetRowsRequest& request) = 0;
    virtual void matchRowRequest(const CMMatchRowRequest& request) = 0;
    virtual void setDataRequest(const CMSetDataRequest& request) = 0;
    virtual void connectChange(ChangeType type, const CMPath& path, QObject* receiver,
                               std::function<bool(ChangeNotifier*)> connect) = 0;
    virtual void disconnectChange(ChangeType type, const CMPath& path, QObject* receiver,
                                  std::function<void(ChangeNotifier*)> disconnect) = 0;

    /// The name given at construction.
    QString workerName() const;

    /// `router` serves getData() from now on; null returns to the worker itself.
    void setRouter(CMRouter* router);

    /// Has some roles of any node answered by whichever worker serves it, synchronously on the
    /// calling thread: `reply` is finished when it is returned. Without a router a path under
    /// the own prefix is served by this worker, any other gets the invalid-path error.
    CMReply<QList<QVariant>> getData(const CMPath& path, const QStringList& roles,
                                     const CMReply<QList<QVariant>>& reply);

    /// The error for a path that names nothing: name "InvalidPath", message
    /// "Invalid path '%1'" with the encoded path.
    static CMError createErrorInvalidPath(const CMPath& path);
    /// The error for a failure inside: name "InternalError", message exactly `text`.
    static CMError createErrorInternal(const QString& text);

protected:
    const QString& prefix() const;

private:
    const QString m_name;
    const QString m_prefix;
    CMRouter* m_router = nullptr; ///< worker thread only
};

/// The base of all workers: serves one subtree, and answers every request that a derived worker
/// does not override with the invalid-path error (a ping with an invalid variant).
class CMWorker : public CMAbstractWorker
{
    Q_OBJECT

public:
    /// Reads the key "prefix" (one component, default "/settings") of the configuration and
    /// registers the types that workers queue: TuloRoles and CMSetDataRequest.
    CMWorker(const QHash<QString, QVariant>& configuration, const QString& workerName);
    ~CMWorker() override;

    void ping(const CMSetDataRequest& request) override;
    void trace() override;
    void getDataRequest(const CMGetDataRequest& request) override;
    void getRowsRequest(const CMGetRowsRequest& request) override;
    void matchRowRequest(const CMMatchRowRequest& request) override;
    void setDataRequest(const CMSetDataRequest& request) override;
    void connectChange(ChangeType type, const CMPath& path, QObject* receiver,
                       std::function<bool(ChangeNotifier*)> connect) override;
    void disconnectChange(ChangeType type, const CMPath& path, QObject* receiver,
                          std::function<void(ChangeNotifier*)> disconnect) override;

    /// The full path of a base: "/audio" gives "/settings/audio"; "audio", the base of a path
    /// without its leading "/", gives "settings/audio" again; "/" and "" give "/settings".
    CMPath addPrefix(const QString& base) const;
    /// "/settings", or as configured.
    CMPath prefixPath() const;

    /// The worker's registry. Owned by the worker, lives on the worker's thread.
    CMSubscribe* subscribe() const;

private:
    const std::unique_ptr<CMSubscribe> m_subscribe;
};

/// The entry point that a plug-in exports under the name "worker_create". The first argument is
/// the framework's own affair. The caller owns the worker.
extern "C" using CMWorkerCreate = CMWorker * (void*, const QVariantHash&);
