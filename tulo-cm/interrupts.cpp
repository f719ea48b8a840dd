#include "interrupts.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace {

// What the signal handler may touch.
volatile std::sig_atomic_t signalCame = 0;
int wakePipe[2] = { -1, -1 };

void handleSignal(int)
{
    const int errorBefore = errno;
    signalCame = 1;
    // A full pipe wakes the event loop just as well.
    (void)!::write(wakePipe[1], "", 1);
    errno = errorBefore;
}

void setHandler(void (*handler)(int))
{
    struct sigaction action
    {
    };
    action.sa_handler = handler;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

} // namespace

Interrupts::Interrupts()
{
    signalCame = 0;
    if (::pipe2(wakePipe, O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("no pipe for signals");
    auto* const notifier = new QSocketNotifier(wakePipe[0], QSocketNotifier::Read, this);
    // One waking is enough: whoever serves events asks requested().
    connect(notifier, &QSocketNotifier::activated, notifier,
            [notifier] { notifier->setEnabled(false); });
    setHandler(handleSignal);
}

Interrupts::~Interrupts()
{
    setHandler(SIG_DFL);
    ::close(wakePipe[0]);
    ::close(wakePipe[1]);
    signalCame = 0;
}

bool Interrupts::requested()
{
    return signalCame != 0;
}

void serveEvents(int milliseconds, const std::function<bool()>& ended)
{
    const QDeadlineTimer deadline(milliseconds);
    QTimer wake;
    wake.setSingleShot(true);
    wake.setTimerType(Qt::PreciseTimer);
    if (milliseconds >= 0)
        wake.start(milliseconds);
    while (!ended() && !Interrupts::requested() && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
}
