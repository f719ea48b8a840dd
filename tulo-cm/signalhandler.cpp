#include "tulo-cm/signalhandler.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QSocketNotifier>
#include <QTimer>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace tulo {
namespace {

// What the handler may touch.
volatile std::sig_atomic_t endCame = 0; // the signal's number
volatile std::sig_atomic_t isInteractive = 0;
volatile std::sig_atomic_t interruptionCame = 0;
volatile std::sig_atomic_t terminalChanged = 0;
int wakePipe[2] = { -1, -1 };

std::atomic<const char*> toWrite[STDERR_FILENO + 1] = {}; // by descriptor

void tidyTerminal()
{
    for (int descriptor : { STDOUT_FILENO, STDERR_FILENO }) {
        const char* const bytes = toWrite[descriptor];
        if (bytes != nullptr)
            (void)!::write(descriptor, bytes, std::strlen(bytes));
    }
}

void handleSignal(int number)
{
    const int errorBefore = errno;
    if (number == SIGWINCH || number == SIGCONT) {
        terminalChanged = 1;
    } else if (number != SIGQUIT) {
        tidyTerminal();
        if (number == SIGINT && isInteractive != 0)
            interruptionCame = 1;
        else
            endCame = number;
    }
    // A full pipe wakes the event loop just as well.
    (void)!::write(wakePipe[1], "", 1);
    errno = errorBefore;
}

void setHandler(int number, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(number, &action, nullptr);
}

// Without a SignalHandler.
void endBySignal(int number)
{
    tidyTerminal();
    setHandler(number, SIG_DFL);
    ::raise(number);
}

bool take(volatile std::sig_atomic_t* flag)
{
    const bool wasSet = *flag != 0;
    *flag = 0;
    return wasSet;
}

void endInteraction()
{
    for (const int number : { SIGQUIT, SIGWINCH, SIGCONT })
        setHandler(number, SIG_DFL);
    isInteractive = 0;
    interruptionCame = 0;
}

bool isIgnored(int number)
{
    struct sigaction action = {};
    ::sigaction(number, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

} // namespace

SignalHandler::SignalHandler()
{
    endCame = 0;
    if (::pipe2(wakePipe, O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("no pipe for signals");
    // Waking the event loop is all there is to do: serveEvents() checks isEndRequested().
    auto* const notifier = new QSocketNotifier(wakePipe[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [] {
        char bytes[64];
        while (::read(wakePipe[0], bytes, sizeof bytes) > 0) { }
    });
    setHandler(SIGINT, handleSignal);
    setHandler(SIGTERM, handleSignal);
    if (!isIgnored(SIGHUP))
        setHandler(SIGHUP, handleSignal);
}

SignalHandler::~SignalHandler()
{
    setHandler(SIGINT, endBySignal);
    setHandler(SIGTERM, endBySignal);
    if (!isIgnored(SIGHUP))
        setHandler(SIGHUP, endBySignal);
    endInteraction();
    ::close(wakePipe[0]);
    ::close(wakePipe[1]);
    endCame = 0;
}

bool SignalHandler::isEndRequested()
{
    return endCame != 0 || interruptionCame != 0;
}

void SignalHandler::setInteractive()
{
    isInteractive = 1;
    for (const int number : { SIGQUIT, SIGWINCH, SIGCONT })
        setHandler(number, handleSignal);
}

bool SignalHandler::takeInterruption()
{
    return take(&interruptionCame);
}

bool SignalHandler::takeTerminalChange()
{
    return take(&terminalChanged);
}

void SignalHandler::forget()
{
    // It follows the end of the input when the terminal is closed.
    setHandler(SIGHUP, SIG_IGN);
    endInteraction();
    endCame = 0;
}

void SignalHandler::endProcess()
{
    const int number = endCame;
    setHandler(number, SIG_DFL);
    ::raise(number);
    std::abort();
}

void writeOnSignal(int descriptor, const char* bytes)
{
    toWrite[descriptor] = bytes;
    if (bytes == nullptr)
        return;
    // Not in the place of a SignalHandler, and not where the signal is ignored.
    for (const int number : { SIGINT, SIGTERM, SIGHUP }) {
        struct sigaction action = {};
        ::sigaction(number, nullptr, &action);
        if (action.sa_handler == SIG_DFL)
            setHandler(number, endBySignal);
    }
}

void serveEvents(int milliseconds, const std::function<bool()>& ended)
{
    const QDeadlineTimer deadline(milliseconds);
    QTimer wake;
    wake.setSingleShot(true);
    wake.setTimerType(Qt::PreciseTimer);
    if (milliseconds >= 0)
        wake.start(milliseconds);
    while (!ended() && !SignalHandler::isEndRequested() && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
}

} // namespace tulo
