#include "api/core/tuloprocesshandler.h"

#include <QDeadlineTimer>
#include <QProcess>

#include <memory>

namespace {

constexpr int cannotStart = -1;
constexpr int timedOut = -2;
constexpr int signalBase = 128;
constexpr int killWaitMs = 1000;

} // namespace

TuloProcessResult TuloProcessHandler::startSync(const QString& program,
                                                const QStringList& arguments, int timeout)
{
    auto process = std::make_unique<QProcess>();
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->setStandardInputFile(QProcess::nullDevice());
    const QDeadlineTimer deadline(timeout);
    process->start(program, arguments, QIODevice::ReadOnly);
    // Asked for apart: the exit code of a program that never ran reads 0. Not under the time-out,
    // which would make one out of a program that starts late.
    if (!process->waitForStarted(-1))
        return { cannotStart, process->errorString().toUtf8() };
    if (!process->waitForFinished(int(deadline.remainingTime()))
        && process->state() != QProcess::NotRunning) {
        process->kill();
        const bool ended = process->waitForFinished(killWaitMs);
        const QByteArray output = process->readAll();
        // One that even SIGKILL does not end is left behind: its destructor would wait again.
        if (!ended)
            Q_UNUSED(process.release())
        return { timedOut, output };
    }
    // For a crash QProcess reports the number of the signal as exit code.
    const int code = process->exitStatus() == QProcess::CrashExit ? signalBase + process->exitCode()
                                                                  : process->exitCode();
    return { code, process->readAll() };
}
