#include "daemon/signals.h"

#include <QSocketNotifier>

#include <csignal>

#include <sys/signalfd.h>
#include <unistd.h>

namespace tulo {

namespace {

sigset_t handled()
{
    sigset_t numbers;
    sigemptyset(&numbers);
    for (const int number : { SIGTERM, SIGINT, SIGHUP })
        sigaddset(&numbers, number);
    return numbers;
}

} // namespace

Signals::Signals()
{
    const sigset_t numbers = handled();
    if (::pthread_sigmask(SIG_BLOCK, &numbers, nullptr) == 0)
        m_descriptor = ::signalfd(-1, &numbers, SFD_CLOEXEC | SFD_NONBLOCK);
    if (m_descriptor < 0)
        qFatal("signals cannot be received");
    auto* const notifier = new QSocketNotifier(m_descriptor, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &Signals::on_notifier_activated);
}

Signals::~Signals()
{
    ::close(m_descriptor);
}

void Signals::on_notifier_activated()
{
    signalfd_siginfo signal = {};
    while (::read(m_descriptor, &signal, sizeof signal) == ssize_t(sizeof signal)) {
        if (signal.ssi_signo == SIGHUP) {
            emit hangUp();
        } else {
            m_isEndRequested = true;
            emit endRequested();
        }
    }
}

} // namespace tulo
