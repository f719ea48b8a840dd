#include "serve.h"

#include "bussession.h"
#include "commands.h"
#include "signalhandler.h"

#include "daemon/service.h"
#include "trees/treecheck.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>

#include <csignal>
#include <memory>

#include <systemd/sd-daemon.h>

namespace tulo {

namespace {

int report(Output& output, int exitCode, const QString& name, const QString& message)
{
    output.failure({ exitCode, name, message, QString() });
    return exitCode;
}

// Prints what is wrong in the trees; fails when they cannot be served.
int checkTrees(const Engine& engine, Output& output)
{
    int exitCode = Done;
    const QVector<TreeFinding> findings = inspectTrees(engine.defaultPath(), engine.writePath());
    for (const TreeFinding& finding : findings) {
        const QString text = finding.file + QStringLiteral(": ") + finding.message;
        if (finding.effect != TreeFinding::Effect::StopsStart) {
            output.note(text);
            continue;
        }
        const bool isContent = finding.kind == TreeFinding::Kind::Unparsable
            || finding.kind == TreeFinding::Kind::NoObject;
        exitCode =
            firstFailure(exitCode,
                         isContent ? report(output, Findings, QStringLiteral("Findings"), text)
                                   : report(output, Unavailable, QStringLiteral("NoAccess"), text));
    }
    return exitCode;
}

// Takes the log configuration as it is now; one that cannot be read changes nothing.
void reloadLogging(const ServeOptions& options, Engine& engine, Output& output)
{
    const Failure failure = options.configureLogging();
    if (failure)
        output.failure(failure);
    // The configuration may have dropped it.
    engine.writes().attach();
}

/// As long as it lives, SIGTERM and SIGINT end the process at once, also one that came before.
class EndAtOnce
{
public:
    EndAtOnce()
    {
        struct sigaction byDefault = {};
        byDefault.sa_handler = SIG_DFL;
        ::sigaction(SIGTERM, &byDefault, &m_terminate);
        ::sigaction(SIGINT, &byDefault, &m_interrupt);
        if (SignalHandler::isEndRequested())
            ::raise(SIGTERM);
    }
    ~EndAtOnce()
    {
        ::sigaction(SIGTERM, &m_terminate, nullptr);
        ::sigaction(SIGINT, &m_interrupt, nullptr);
    }
    Q_DISABLE_COPY(EndAtOnce)

private:
    struct sigaction m_terminate = {};
    struct sigaction m_interrupt = {};
};

// Offers the service on a new connection. A bus that accepts it and then says nothing is waited
// for without a limit. Everything that could be written is on disk by then.
bool offer(Service& service, const QString& busName, QString* reason)
{
    const QDBusConnection bus = [&busName] {
        const EndAtOnce endAtOnce;
        return BusSession::connectTo(busName);
    }();
    if (bus.isConnected())
        return service.offer(bus, reason);
    *reason = QStringLiteral("no %1 bus: %2").arg(busName, bus.lastError().message());
    return false;
}

// Serves until a signal comes, or the bus is gone for good: one that only closed this connection
// (as it does to clients that send too much) has the service back at once. Returns whether there is
// a bus.
bool serveOnBus(Service& service, Engine& engine, const QString& busName, Output& output)
{
    while (!SignalHandler::isEndRequested()) {
        serveEvents(-1, [&service] { return !service.isConnected(); });
        if (SignalHandler::isEndRequested())
            break;
        // Before anything that may take long; what fails is in the properties and the log.
        if (engine.writes().needsFlush())
            (void)engine.flushNow();
        service.withdraw();
        QString reason;
        if (!offer(service, busName, &reason)) {
            report(output, Unavailable, QStringLiteral("NoBus"),
                   QStringLiteral("the bus has gone; ") + reason);
            return false;
        }
        output.note(QStringLiteral("the bus closed the connection; connected again"));
    }
    return true;
}

} // namespace

int serve(const ServeOptions& options, Output& output)
{
    // Before anything is opened, so that no signal finds a half-made service.
    SignalHandler signalHandler;
    signalHandler.catchHangUp();
    EngineOptions engineOptions = options.engine;
    engineOptions.access = EngineOptions::Access::Own;
    EngineFailure failure;
    const std::unique_ptr<Engine> engine = Engine::open(engineOptions, &failure);
    if (!engine) {
        return report(output, failure.kind == EngineFailure::Kind::Usage ? Usage : Unavailable,
                      QStringLiteral("NotStarted"), failure.message);
    }
    // As the tree's owner, but before anything is read or served.
    const int checked = checkTrees(*engine, output);
    if (checked != Done)
        return checked;
    QObject::connect(&signalHandler, &SignalHandler::hangUp, &signalHandler,
                     [&options, &engine, &output] { reloadLogging(options, *engine, output); });

    Service service(*engine);
    QString reason;
    if (!offer(service, options.bus, &reason))
        return report(output, Unavailable, QStringLiteral("NoBus"), reason);
    output.note(QStringLiteral("serving '%1' over '%2'; process %3")
                    .arg(engine->writePath(), engine->defaultPath(),
                         QString::number(QCoreApplication::applicationPid())));
    sd_notify(0, "READY=1");
    const bool hasBus = serveOnBus(service, *engine, options.bus, output);
    sd_notify(0, "STOPPING=1");

    // Written first, so that a bus that hangs costs no change; this also answers the flushes that
    // wait.
    const bool isSaved = engine->stop();
    service.withdraw();
    if (!isSaved) {
        const Failure unsaved =
            notSaved(engine->writes().unsavedPaths(), engine->writes().lastError());
        output.failure(unsaved);
        return unsaved.exitCode;
    }
    return hasBus ? Done : Unavailable;
}

} // namespace tulo
