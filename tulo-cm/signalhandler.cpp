#include "signalhandler.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace tulo {

namespace {

// What the signal handler may touch.
volatile std::sig_atomic_t endCame = 0;
volatile std::sig_atomic_t hangUpCame = 0;
volatile std::sig_atomic_t hangUpEnds = 1;
int wakePipe[2] = { -1, -1 };

void handleSignal(int number)
{
    const int errorBefore = errno;
    if (number == SIGHUP && hangUpEnds == 0)
        hangUpCame = 1;
    else
        endCame = 1;
    // A full pipe wakes the event loop just as well.
    (void)!::write(wakePipe[1], "", 1);
    errno = errorBefore;
}

void setHandler(int number, void (*handler)(int))
{
    struct sigaction action
    {
    };
    action.sa_handler = handler;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(number, &action, nullptr);
}

bool isIgnored(int number)
{
    struct sigaction action
    {
    };
    ::sigaction(number, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

} // namespace

SignalHandler::SignalHandler()
    : m_ignoresHangUp(isIgnored(SIGHUP))
{
    endCame = 0;
    hangUpCame = 0;
    hangUpEnds = 1;
    if (::pipe2(wakePipe, O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("no pipe for signals");
    auto* const notifier = new QSocketNotifier(wakePipe[0], QSocketNotifier::Read, this);
    // SIGINT, SIGTERM and SIGHUP only wake the loop: serveEvents() checks requested().
    connect(notifier, &QSocketNotifier::activated, this, [this] {
        char bytes[64];
        while (::read(wakePipe[0], bytes, sizeof bytes) > 0) { }
        if (hangUpCame != 0) {
            hangUpCame = 0;
            emit hangUp();
        }
    });
    setHandler(SIGINT, handleSignal);
    setHandler(SIGTERM, handleSignal);
    if (!m_ignoresHangUp)
        setHandler(SIGHUP, handleSignal);
}

SignalHandler::~SignalHandler()
{
    setHandler(SIGINT, SIG_DFL);
    setHandler(SIGTERM, SIG_DFL);
    setHandler(SIGHUP, m_ignoresHangUp ? SIG_IGN : SIG_DFL);
    ::close(wakePipe[0]);
    ::close(wakePipe[1]);
    endCame = 0;
    hangUpCame = 0;
}

void SignalHandler::catchHangUp()
{
    hangUpEnds = 0;
    setHandler(SIGHUP, handleSignal);
}

bool SignalHandler::isEndRequested()
{
    return endCame != 0;
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
