#include "serve.h"

#include "bussession.h"
#include "interrupts.h"

#include "host/service.h"
#include "host/startcheck.h"
#include "host/treecheck.h"

#include <QFile>
#include <QFileInfo>

#include <systemd/sd-daemon.h>

namespace {

int report(Output& output, int exitCode, const QString& name, const QString& message)
{
    output.failure({ exitCode, name, message, QString() });
    return exitCode;
}

// A default file that cannot be parsed would end the process when somebody reads it. Everything
// else that the check finds can be served.
int judgeDefaultFiles(const QString& directory, Output& output)
{
    int exitCode = Done;
    const QVector<TreeFinding> findings = checkDefaultTree(directory);
    for (const TreeFinding& finding : findings) {
        const QString text =
            directory + QLatin1Char('/') + finding.file + QStringLiteral(": ") + finding.message;
        if (finding.kind == TreeFinding::Kind::Unparsable)
            exitCode = report(output, Findings, QStringLiteral("Findings"), text);
        else
            output.note(text);
    }
    return exitCode;
}

int judgeEntries(const QStringList& special, Output& output)
{
    for (const QString& fileName : special) {
        report(output, Unavailable, QStringLiteral("NoAccess"),
               QStringLiteral("'%1' is neither a regular file nor a directory").arg(fileName));
    }
    return special.isEmpty() ? Done : Unavailable;
}

int judgeTrees(const HostOptions& options, Output& output)
{
    const bool isBuiltIn = options.defaultPath.isEmpty();
    const QString defaultPath = isBuiltIn ? Host::builtInDefaultPath() : options.defaultPath;
    const QString writePath = isBuiltIn ? Host::builtInWritePath() : options.writePath;
    // Special files first: parsing one could block for ever.
    const TreeOddities written = inspectWritableTree(writePath);
    const int exitCode =
        judgeEntries(inspectDefaultTree(defaultPath).special + written.special, output);
    if (exitCode != Done)
        return exitCode;
    for (const QString& fileName : written.links)
        output.note(QStringLiteral("'%1' is a link; it will not be written").arg(fileName));
    return judgeDefaultFiles(defaultPath, output);
}

// Only the owner of the tree may: to anybody else they are files that are being written.
void removeLeftOver(const QString& writePath, Output& output)
{
    const QStringList leftOver = inspectWritableTree(writePath).leftOver;
    for (const QString& fileName : leftOver) {
        output.note(
            QFile::remove(fileName)
                ? QStringLiteral("removed left-over temporary file '%1'").arg(fileName)
                : QStringLiteral("left-over temporary file '%1' cannot be removed").arg(fileName));
    }
}

} // namespace

int serve(const ServeOptions& options, Output& output)
{
    // Before anything is opened, so that no signal finds a half-made service.
    Interrupts interrupts;
    const int judged = judgeTrees(options.host, output);
    if (judged != Done)
        return judged;

    HostFailure failure;
    const std::unique_ptr<Host> host = Host::open(options.host, &failure);
    if (!host) {
        return report(output, failure.kind == HostFailure::Kind::Usage ? Usage : Unavailable,
                      QStringLiteral("NotStarted"), failure.message);
    }
    removeLeftOver(host->writePath(), output);

    const QDBusConnection bus = BusSession::connectTo(options.bus);
    if (!bus.isConnected()) {
        return report(output, Unavailable, QStringLiteral("NoBus"),
                      QStringLiteral("no %1 bus: %2").arg(options.bus, bus.lastError().message()));
    }
    Service service(*host);
    QString reason;
    if (!service.offer(bus, &reason))
        return report(output, Unavailable, QStringLiteral("NoBus"), reason);

    QObject::connect(&interrupts, &Interrupts::hangUp, &interrupts, [&options, &host] {
        options.configureLogging();
        // The configuration may have dropped it.
        host->writes().attach();
    });
    output.note(
        QStringLiteral("serving '%1' over '%2'").arg(host->writePath(), host->defaultPath()));
    sd_notify(0, "READY=1");
    serveEvents(-1, [&bus] { return !bus.isConnected(); });
    sd_notify(0, "STOPPING=1");

    const bool isBusGone = !bus.isConnected();
    service.withdraw();
    if (!host->stop()) {
        return report(output, NotSaved, QStringLiteral("NotSaved"),
                      QStringLiteral("not on disk: %1 (%2)")
                          .arg(host->writes().unsavedPaths().join(QStringLiteral(", ")),
                               host->writes().lastError()));
    }
    if (isBusGone)
        return report(output, Unavailable, QStringLiteral("NoBus"),
                      QStringLiteral("the bus has gone"));
    return Done;
}
