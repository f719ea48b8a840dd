#include "api/core/model/cmworker.h"

#include <QDir>

/// A plug-in in whose start the writable tree goes away.
extern "C" Q_DECL_EXPORT CMWorker* worker_create(void*, const QVariantHash& config)
{
    QDir(config.value(QStringLiteral("write_path")).toString()).removeRecursively();
    return new CMWorker(config, QStringLiteral("RemovingWorker"));
}
