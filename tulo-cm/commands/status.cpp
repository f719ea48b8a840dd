#include "tulo-cm/command.h"
#include "tulo-cm/place.h"
#include "tulo-cm/waiting.h"

#include <tulo/settings.h>

#include <QFile>

#include <ctime>

#include <unistd.h>

namespace tulo {
namespace {

// ---------------------------------------------------------------------------------------------
// The process that serves the settings.
// ---------------------------------------------------------------------------------------------

/// From /proc; 0 where they are not known.
struct ProcessFigures
{
    qint64 uptimeSeconds = 0;
    qint64 memoryBytes = 0;
};

QList<QByteArray> fieldsOf(qint64 processId, const char* name)
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
    const qint64 ticks = fieldsOf(processId, "stat").value(startField).toLongLong();
    if (ticks > 0 && ::clock_gettime(CLOCK_BOOTTIME, &now) == 0)
        figures.uptimeSeconds = now.tv_sec - ticks / ::sysconf(_SC_CLK_TCK);
    figures.memoryBytes =
        fieldsOf(processId, "statm").value(residentField).toLongLong() * ::sysconf(_SC_PAGESIZE);
    return figures;
}

// ---------------------------------------------------------------------------------------------
// Printing.
// ---------------------------------------------------------------------------------------------

void printObject(Output& output, const Status& status, const Reply<QStringList>& unsaved,
                 const Reply<QVariantMap>& statistics, const ProcessFigures& figures)
{
    output.object({ { QStringLiteral("version"), status.version },
                    { QStringLiteral("product"), status.product },
                    { QStringLiteral("processId"), status.processId },
                    { QStringLiteral("defaultPath"), status.defaultPath },
                    { QStringLiteral("writePath"), status.writePath },
                    { QStringLiteral("writable"), status.isWritable },
                    { QStringLiteral("pendingWrites"), status.pendingWrites },
                    { QStringLiteral("unsavedCount"), status.unsavedCount },
                    { QStringLiteral("unsavedPaths"),
                      unsaved.error() ? QVariant() : QVariant(unsaved.value()) },
                    { QStringLiteral("lastWriteError"), status.lastWriteError },
                    { QStringLiteral("statistics"),
                      statistics.error() ? QVariant() : QVariant(statistics.value()) },
                    { QStringLiteral("uptimeSeconds"), figures.uptimeSeconds },
                    { QStringLiteral("memoryBytes"), figures.memoryBytes } });
}

// What was done since the start, in a few words each.
QVector<QStringList> linesOf(const QVariantMap& statistics)
{
    if (statistics.isEmpty())
        return {};
    const auto number = [&statistics](const char* name) {
        return statistics.value(QLatin1String(name)).toString();
    };
    QVector<QStringList> lines {
        { QStringLiteral("requests"),
          QStringLiteral("%1 (%2 failed)").arg(number("requests"), number("failed")) },
        { QStringLiteral("changes"),
          QStringLiteral("%1, %2 announcements").arg(number("changes"), number("announcements")) },
        { QStringLiteral("settings reset"), number("resets") },
        { QStringLiteral("files written"),
          QStringLiteral("%1 (%2 errors), %3 flushes")
              .arg(number("writes"), number("writeErrors"), number("flushes")) },
        { QStringLiteral("values in memory"), number("keptValues") },
    };
    if (statistics.contains(QStringLiteral("limited")))
        lines.append({ QStringLiteral("calls over the limit"), number("limited") });
    return lines;
}

void printTable(Output& output, const Status& status, const QStringList& unsavedPaths,
                const QVariantMap& statistics, const ProcessFigures& figures)
{
    const auto orNone = [](const QString& text) {
        return text.isEmpty() ? QStringLiteral("-") : text;
    };
    QVector<QStringList> lines {
        { QStringLiteral("version"), status.version },
        { QStringLiteral("product"), orNone(status.product) },
        { QStringLiteral("process"), QString::number(status.processId) },
        { QStringLiteral("default tree"), status.defaultPath },
        { QStringLiteral("writable tree"), status.writePath },
        { QStringLiteral("writable"),
          status.isWritable ? QStringLiteral("yes") : QStringLiteral("no") },
        { QStringLiteral("pending writes"), QString::number(status.pendingWrites) },
        { QStringLiteral("failed writes"), QString::number(status.unsavedCount) },
        { QStringLiteral("last error"), orNone(status.lastWriteError) },
        { QStringLiteral("uptime"), QStringLiteral("%1 s").arg(figures.uptimeSeconds) },
        { QStringLiteral("memory"), QStringLiteral("%1 KiB").arg(figures.memoryBytes / 1024) },
    };
    lines += linesOf(statistics);
    for (const QString& path : unsavedPaths)
        lines.append({ QStringLiteral("last write failed"), path });
    output.list(lines);
}

int run(Context& context, const Arguments&)
{
    constexpr int maximumPaths = 1000;
    const auto status = finished(context.settings->status());
    if (status.error())
        return context.output.report(status.error());
    // The names of settings are not for everybody who may ask for the count.
    const auto unsaved = finished(context.settings->unsavedPaths(maximumPaths));
    const auto statistics = finished(context.settings->statistics());
    // Another device's processes are not in /proc.
    const ProcessFigures figures =
        context.place.host.isEmpty() ? figuresOf(status.value().processId) : ProcessFigures();
    if (context.output.isJson())
        printObject(context.output, status.value(), unsaved, statistics, figures);
    else
        printTable(context.output, status.value(), unsaved.value(), statistics.value(), figures);
    return Done;
}

} // namespace

namespace commands {

Command status()
{
    return { "status",
             "",
             {},
             {},
             "Shows the status of the service: its version and process, its directories, "
             "pending\nwrites, the settings whose last write failed, and what was done since the "
             "start.",
             "status",
             Command::Where::ServiceOrShell,
             Command::Needs::Settings,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
