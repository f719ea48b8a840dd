#pragma once

#include "api/core/model/cmworker.h"

#include <QString>
#include <QVariant>

#include <memory>

namespace tulo {

/// How loading a worker ended.
enum class LoadStatus { Loaded, NoSuchFile, NotALibrary, NoEntryPoint, NoWorker };

struct [[nodiscard]] LoadResult
{
    std::unique_ptr<CMWorker> worker; ///< null unless status is Loaded
    LoadStatus status = LoadStatus::Loaded;
    QString message; ///< one line naming the file in single quotes; empty when Loaded
};

/// Loads the plug-in `fileName` (as it stands, no search path, no suffix added) and creates its
/// worker with `configuration`. The worker belongs to the calling thread.
///
/// The library stays loaded until the process ends, whatever became of the worker: replies,
/// metatypes and log4cplus objects may refer to its code.
LoadResult loadWorker(const QString& fileName, const QVariantHash& configuration);

} // namespace tulo
