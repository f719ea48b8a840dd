#include "tulo-cm/flushing.h"

#include "tulo-cm/progress.h"
#include "tulo-cm/waiting.h"

namespace tulo {
namespace {

// Names the settings to a caller who may know them, and else counts them.
int reportUnsaved(Settings& settings, Output& output, const QString& reason)
{
    constexpr int maximumPaths = 1000;
    const auto paths = finished(settings.unsavedPaths(maximumPaths));
    const auto status = finished(settings.status());
    const int count = status.value().unsavedCount;
    QString message = QStringLiteral("not on disk");
    if (!paths.value().isEmpty())
        message += QStringLiteral(": ") + paths.value().join(QLatin1String(", "));
    else if (count > 0)
        message += QStringLiteral(": settings: %1").arg(count);
    const QString detail = reason.isEmpty() ? status.value().lastWriteError : reason;
    if (!detail.isEmpty())
        message += QStringLiteral(" (%1)").arg(detail);
    return output.report({ ErrorCode::NotSaved, message, paths.value().value(0) });
}

} // namespace

int flushChanges(Settings& settings, Output& output)
{
    return finishFlush(settings, settings.flush(), output);
}

int finishFlush(Settings& settings, const Reply<int>& flush, Output& output)
{
    const Progress progress(QStringLiteral("waiting for the disk"));
    const auto flushed = finished(flush);
    if (flushed.error() && flushed.error().code != ErrorCode::NotSaved)
        return output.report(flushed.error());
    if (!flushed.error() && flushed.value() == 0)
        return Done;
    return reportUnsaved(settings, output, flushed.error().message);
}

int afterFlush(int exitCode, int flushed)
{
    if (exitCode == Adjusted && flushed != Done)
        return flushed;
    return firstFailure(exitCode, flushed);
}

} // namespace tulo
