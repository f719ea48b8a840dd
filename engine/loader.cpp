#include "engine/loader.h"

#include <QFileInfo>
#include <QLibrary>

namespace tulo {

namespace {

LoadResult failure(LoadStatus status, const QString& message)
{
    LoadResult result;
    result.status = status;
    result.message = message;
    return result;
}

} // namespace

LoadResult loadWorker(const QString& fileName, const QVariantHash& configuration)
{
    const QFileInfo file(fileName);
    if (!file.exists()) {
        return failure(LoadStatus::NoSuchFile,
                       QStringLiteral("Plug-in '%1' does not exist").arg(fileName));
    }

    // An absolute name is tried as it stands. All symbols are resolved now: one that is missing
    // is found here and not in the middle of a request.
    QLibrary library(file.absoluteFilePath());
    library.setLoadHints(QLibrary::ResolveAllSymbolsHint | QLibrary::PreventUnloadHint);
    if (!library.load()) {
        return failure(LoadStatus::NotALibrary,
                       QStringLiteral("Plug-in '%1' cannot be loaded: %2")
                           .arg(fileName, library.errorString().simplified()));
    }

    auto* const create = reinterpret_cast<CMWorkerCreate*>(library.resolve("worker_create"));
    if (create == nullptr) {
        return failure(
            LoadStatus::NoEntryPoint,
            QStringLiteral("Plug-in '%1' has no entry point 'worker_create'").arg(fileName));
    }

    LoadResult result;
    result.worker.reset(create(nullptr, configuration));
    if (!result.worker) {
        return failure(LoadStatus::NoWorker,
                       QStringLiteral("Plug-in '%1' created no worker").arg(fileName));
    }
    return result;
}

} // namespace tulo
