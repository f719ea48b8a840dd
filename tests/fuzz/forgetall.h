#pragma once

#include "cm_settings.h"

/// Leaves the worker as a new process begins: what it answers next comes from the files. Making a
/// new one for each input would be half of a target's time.
inline void forgetAll(CMSettingsWorker* worker)
{
    worker->m_valueCache.clear();
    worker->m_dirCache.clear();
    worker->m_pendingWrites.clear();
}
