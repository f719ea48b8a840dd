#include "daemon/busadaptor.h"
#include "daemon/busthread.h"
#include "daemon/log.h"
#include "daemon/logging.h"
#include "daemon/options.h"
#include "daemon/signals.h"

#include "engine/localsettings.h"
#include "engine/standardstreams.h"
#include "trees/treeadoption.h"
#include "trees/treecheck.h"
#include "trees/treeowner.h"

#include <QCoreApplication>
#include <QTextCodec>
#include <QTimer>

#include <csignal>
#include <memory>

#include <systemd/sd-daemon.h>

using namespace tulo;

namespace {

enum ExitCode { Done = 0, Usage = 2, NotSaved = 6, NotAvailable = 7, Findings = 8 };

int fail(ExitCode code, const QString& reason)
{
    LOG4CPLUS_ERROR(daemonLogger(), reason.toStdString());
    return code;
}

// Logs what is wrong in the trees; fails when they cannot be served.
int checkTrees(const LocalSettings& settings)
{
    int exitCode = Done;
    const QVector<TreeFinding> findings =
        inspectTrees(settings.defaultPath(), settings.writePath());
    for (const TreeFinding& finding : findings) {
        const QString text = placeOf(finding) + QStringLiteral(": ") + finding.message;
        if (!finding.stopsStart) {
            LOG4CPLUS_WARN(daemonLogger(), text.toStdString());
            continue;
        }
        const bool isContent = qstrcmp(ruleOf(finding.rule).group, "json") == 0;
        const int failure = fail(isContent ? Findings : NotAvailable, text);
        if (exitCode == Done)
            exitCode = failure;
    }
    return exitCode;
}

void logNotes(const LocalSettings& settings)
{
    const QStringList notes = settings.notes();
    for (const QString& note : notes)
        LOG4CPLUS_WARN(daemonLogger(), note.toStdString());
}

void logRefusal(const LocalSettings& settings)
{
    if (!settings.changeRefusal().isEmpty()) {
        LOG4CPLUS_WARN(
            daemonLogger(),
            (QStringLiteral("no change is accepted: ") + settings.changeRefusal()).toStdString());
    } else {
        LOG4CPLUS_INFO(daemonLogger(), "changes are accepted again");
    }
}

std::unique_ptr<LocalSettings> openSettings(const DaemonOptions& options, int* exitCode)
{
    EngineOptions engineOptions;
    engineOptions.pluginFile = options.plugin;
    engineOptions.defaultPath = options.defaultPath;
    engineOptions.writePath = options.writePath;
    engineOptions.productPostfix = options.product.isEmpty() ? QString() : options.product;
    engineOptions.migrationsPath = options.migrations;
    engineOptions.language = options.language;
    engineOptions.catalogues = options.catalogues;
    engineOptions.access = EngineOptions::Access::Own;
    engineOptions.waitsForTree = true;
    engineOptions.waitsForMount = options.waitsForMount;
    EngineFailure failure;
    std::unique_ptr<LocalSettings> settings = LocalSettings::open(engineOptions, &failure);
    if (!settings) {
        *exitCode = fail(failure.kind == EngineFailure::Kind::Usage ? Usage : NotAvailable,
                         failure.message);
        return nullptr;
    }
    logNotes(*settings);
    if (!settings->changeRefusal().isEmpty())
        logRefusal(*settings);
    // As the tree's owner, but before anything is read or served.
    *exitCode = checkTrees(*settings);
    if (*exitCode != Done)
        return nullptr;
    if (!options.language.isEmpty() && settings->catalogueCount() == 0) {
        LOG4CPLUS_WARN(daemonLogger(),
                       QStringLiteral("no catalogue for '%1': texts stay as they are")
                           .arg(options.language)
                           .toStdString());
    }
    return settings;
}

// Takes the log configuration as it is now; one that cannot be read changes nothing.
void reloadLogging(const DaemonOptions& options, LocalSettings& settings)
{
    const QString reason = configureLogging(options.logLevel, options.logConfiguration);
    if (!reason.isEmpty())
        LOG4CPLUS_ERROR(daemonLogger(), reason.toStdString());
    // The configuration may have dropped its appender.
    settings.followLog();
}

// Notifies the service manager at half the time that it allows, from the event loop that serves the
// settings.
void feedWatchdog(QTimer* timer)
{
    uint64_t microseconds = 0;
    if (sd_watchdog_enabled(0, &microseconds) <= 0)
        return;
    QObject::connect(timer, &QTimer::timeout, timer, [] { sd_notify(0, "WATCHDOG=1"); });
    timer->start(int(microseconds / 2000));
}

QString unsavedText(const LocalSettings& settings)
{
    QString text = QStringLiteral("not on disk");
    const QStringList paths = settings.notSavedPaths();
    if (!paths.isEmpty())
        text += QStringLiteral(": ") + paths.join(QStringLiteral(", "));
    if (!settings.lastWriteError().isEmpty())
        text += QStringLiteral(" (%1)").arg(settings.lastWriteError());
    return text;
}

// Everything is written first, so that a bus that does not answer costs no change; this also
// answers the flushes that wait.
int stop(LocalSettings& settings, const BusAdaptor& adaptor, BusThread& bus)
{
    sd_notify(0, "STOPPING=1");
    bus.refuseCalls();
    const bool isSaved = settings.stop();
    QCoreApplication::processEvents();
    while (adaptor.unanswered() > 0)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    bus.end();
    return isSaved ? int(Done) : fail(NotSaved, unsavedText(settings));
}

int serve(const DaemonOptions& options, const Signals& signalSource)
{
    int exitCode = Done;
    const std::unique_ptr<LocalSettings> settings = openSettings(options, &exitCode);
    if (!settings)
        return exitCode;

    BusThread bus(options.bus, options.changesPerMinute);
    const BusAdaptor adaptor(
        *settings, [&settings] { return settings->currentStatus(); }, bus);
    QTimer watchdog;
    QObject::connect(settings.get(), &LocalSettings::unsavedChanged, &adaptor,
                     &BusAdaptor::refreshStatus);
    QObject::connect(settings.get(), &LocalSettings::refusalChanged, &adaptor,
                     [&] { logRefusal(*settings); });
    QObject::connect(settings.get(), &LocalSettings::refusalChanged, &adaptor,
                     &BusAdaptor::refreshStatus);
    // Too late to end for what is found: requests for it fail.
    QObject::connect(settings.get(), &LocalSettings::openedAnew, &adaptor, [&] {
        LOG4CPLUS_INFO(daemonLogger(),
                       QStringLiteral("opened the writable tree '%1' anew")
                           .arg(settings->currentStatus().writePath)
                           .toStdString());
        logNotes(*settings);
        (void)checkTrees(*settings);
    });
    QObject::connect(&signalSource, &Signals::endRequested, &adaptor,
                     [] { QCoreApplication::exit(Done); });
    QObject::connect(&signalSource, &Signals::hangUp, &adaptor,
                     [&] { reloadLogging(options, *settings); });
    QObject::connect(&bus, &BusThread::failed, &adaptor, [](const QString& reason) {
        QCoreApplication::exit(fail(NotAvailable, reason));
    });
    QObject::connect(&bus, &BusThread::offered, &adaptor, [&] {
        LOG4CPLUS_INFO(daemonLogger(),
                       QStringLiteral("serving '%1' over '%2'; process %3")
                           .arg(settings->currentStatus().writePath, settings->defaultPath(),
                                QString::number(QCoreApplication::applicationPid()))
                           .toStdString());
        sd_notify(0, "READY=1");
        feedWatchdog(&watchdog);
    });
    bus.start();
    if (!signalSource.isEndRequested())
        exitCode = QCoreApplication::exec();
    const int stopCode = stop(*settings, adaptor, bus);
    return stopCode == Done ? exitCode : stopCode;
}

// A tree of somebody else is the service's to report, if it cannot use it.
int adopt(const DaemonOptions& options)
{
    const QString reason = keepRightToChangeOwners();
    if (!reason.isEmpty())
        return fail(NotAvailable, reason);
    const AdoptionResult result = adoptTree(options.writePath, options.adoptingUser);
    if (result.status == AdoptionResult::Status::Failed)
        return fail(NotAvailable, result.message);
    if (!result.message.isEmpty())
        LOG4CPLUS_WARN(daemonLogger(), result.message.toStdString());
    return Done;
}

int run(const QStringList& words)
{
    // Before anything is opened, so that no signal finds a half-made service.
    const Signals signalSource;
    QString reason;
    const std::optional<DaemonOptions> options = parseOptions(words, &reason);
    if (!options)
        return fail(Usage, reason);
    if (!options->adoptingUser.isEmpty())
        return adopt(*options);
    // Before logging, so that log files belong to the same user, too.
    reason = becomeOwner(options->writePath);
    if (!reason.isEmpty())
        return fail(NotAvailable, reason);
    reason = configureLogging(options->logLevel, options->logConfiguration);
    if (!reason.isEmpty())
        return fail(Usage, reason);
    return serve(*options, signalSource);
}

} // namespace

int main(int argc, char** argv)
{
    openStandardStreams();
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("tulo-settingsd"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TULO_VERSION));
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    // A reader that goes away is noticed when writing to it.
    std::signal(SIGPIPE, SIG_IGN);
    (void)configureLogging(QString(), QString());
    return run(QCoreApplication::arguments());
}
