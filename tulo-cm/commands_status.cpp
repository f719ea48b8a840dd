#include "bussession.h"
#include "commands.h"

#include <QFile>

#include <ctime>

#include <unistd.h>

namespace tulo {

namespace {

// Figures of a process from /proc; 0 where they are not known.
struct ProcessFigures
{
    qint64 uptimeSeconds = 0;
    qint64 memoryBytes = 0;
};

QList<QByteArray> numbersOf(qint64 processId, const char* name)
{
    QFile file(QStringLiteral("/proc/%1/%2").arg(QString::number(processId), QLatin1String(name)));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    // The program's name, in parentheses, may hold anything.
    const QByteArray text = file.readAll();
    return text.mid(text.lastIndexOf(')') + 1).simplified().split(' ');
}

ProcessFigures figuresOf(qint64 processId)
{
    // After the name: the start in clock ticks since the system's, resident pages.
    constexpr int startField = 19;
    constexpr int residentField = 1;
    ProcessFigures figures;
    timespec now = {};
    const qint64 ticks = numbersOf(processId, "stat").value(startField).toLongLong();
    if (ticks > 0 && ::clock_gettime(CLOCK_BOOTTIME, &now) == 0)
        figures.uptimeSeconds = now.tv_sec - ticks / ::sysconf(_SC_CLK_TCK);
    figures.memoryBytes =
        numbersOf(processId, "statm").value(residentField).toLongLong() * ::sysconf(_SC_PAGESIZE);
    return figures;
}

} // namespace

int runStatus(Context& context, const Arguments&)
{
    Answer<ServiceStatus> answer;
    if (context.service != nullptr) {
        answer = context.service->status();
    } else {
        answer.failure = { Unavailable, QStringLiteral("NoService"),
                           QStringLiteral("'status' works on the service only"), QString() };
    }
    if (answer.failure) {
        context.output.failure(answer.failure);
        return answer.failure.exitCode;
    }
    const ServiceStatus& status = answer.value;
    const ProcessFigures figures = figuresOf(status.processId);
    if (context.output.isJson()) {
        context.output.object({ { QStringLiteral("version"), status.version },
                                { QStringLiteral("processId"), status.processId },
                                { QStringLiteral("defaultPath"), status.defaultPath },
                                { QStringLiteral("writePath"), status.writePath },
                                { QStringLiteral("pendingWrites"), status.pendingWrites },
                                { QStringLiteral("unsavedPaths"), status.unsavedPaths },
                                { QStringLiteral("lastWriteError"), status.lastWriteError },
                                { QStringLiteral("uptimeSeconds"), figures.uptimeSeconds },
                                { QStringLiteral("memoryBytes"), figures.memoryBytes } });
        return Done;
    }
    const QString none = QStringLiteral("-");
    QVector<QStringList> lines {
        { QStringLiteral("version"), status.version },
        { QStringLiteral("process"), QString::number(status.processId) },
        { QStringLiteral("default tree"), status.defaultPath },
        { QStringLiteral("writable tree"), status.writePath },
        { QStringLiteral("pending writes"), QString::number(status.pendingWrites) },
        { QStringLiteral("unsaved paths"), QString::number(status.unsavedPaths.size()) },
        { QStringLiteral("last error"),
          status.lastWriteError.isEmpty() ? none : status.lastWriteError },
        { QStringLiteral("uptime"), QStringLiteral("%1 s").arg(figures.uptimeSeconds) },
        { QStringLiteral("memory"), QStringLiteral("%1 KiB").arg(figures.memoryBytes / 1024) },
    };
    for (const QString& path : status.unsavedPaths)
        lines.append({ QStringLiteral("unsaved"), path });
    context.output.table({}, lines);
    return Done;
}

} // namespace tulo
