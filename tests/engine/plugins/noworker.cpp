#include "api/core/model/cmworker.h"

/// A plug-in that creates nothing.
extern "C" Q_DECL_EXPORT CMWorker* worker_create(void*, const QVariantHash&)
{
    return nullptr;
}
