#include "tulo-cm/progress.h"

#include "tulo-cm/signalhandler.h"
#include "tulo-cm/terminal.h"

#include "trees/printable.h"

#include <QElapsedTimer>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <thread>

#include <unistd.h>

namespace tulo {
namespace {

constexpr qint64 startMs = 2000;
constexpr std::chrono::milliseconds step(200);
constexpr int usualColumns = 80; ///< of a terminal that does not tell
constexpr char eraseSequence[] = "\r\x1b[K";

// ---------------------------------------------------------------------------------------------
// The one line of the process, and the thread that draws it.
// ---------------------------------------------------------------------------------------------

struct Line
{
    // Guarded by the mutex.
    std::mutex mutex;
    std::condition_variable ended;
    Progress* innermost = nullptr;
    QString shown; ///< empty while the line is not there

    // Of the main thread.
    std::thread thread;
    QElapsedTimer time;
};

Line& theLine()
{
    static Line line;
    return line;
}

void write(const QByteArray& bytes)
{
    // A failure of standard error cannot be reported anywhere.
    (void)!::write(STDERR_FILENO, bytes.constData(), size_t(bytes.size()));
}

// Caller holds the mutex.
void show(Line& line, const QString& text)
{
    if (text == line.shown)
        return;
    writeOnSignal(STDERR_FILENO, text.isEmpty() ? nullptr : eraseSequence);
    write(eraseSequence + text.toUtf8());
    line.shown = text;
}

void draw()
{
    Line& line = theLine();
    std::unique_lock<std::mutex> lock(line.mutex);
    while (line.innermost != nullptr) {
        const int columns = terminalSize(STDERR_FILENO).columns;
        // The last column stays free, so that no terminal goes on to the next line.
        const QString text =
            line.innermost->lineAt(line.time.elapsed(), (columns > 0 ? columns : usualColumns) - 1);
        if (!text.isEmpty())
            show(line, text);
        line.ended.wait_for(lock, step);
    }
}

bool isPossible()
{
    return ::isatty(STDERR_FILENO) == 1 && !isDumbTerminal();
}

// Signals are for the main thread.
std::thread startThread()
{
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread(draw);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

} // namespace

Progress::Progress(const QString& what)
    : m_what(what)
    , m_outer(theLine().innermost)
{
    Line& line = theLine();
    {
        const std::lock_guard<std::mutex> lock(line.mutex);
        line.innermost = this;
        if (m_outer == nullptr)
            line.time.start();
    }
    if (m_outer == nullptr && isPossible())
        line.thread = startThread();
}

Progress::~Progress()
{
    Line& line = theLine();
    {
        const std::lock_guard<std::mutex> lock(line.mutex);
        line.innermost = m_outer;
        if (m_outer == nullptr)
            show(line, QString());
    }
    if (m_outer != nullptr || !line.thread.joinable())
        return;
    line.ended.notify_one();
    line.thread.join();
}

QString Progress::lineAt(qint64 elapsedMs, int columns) const
{
    if (elapsedMs < startMs || columns < 1)
        return QString();
    const int count = m_count;
    const int total = m_total;
    QString text = escaped(m_what);
    if (total > 0)
        text += QStringLiteral(": %1 of %2").arg(std::min(count, total)).arg(total);
    else if (count > 0)
        text += QStringLiteral(": %1").arg(count);
    return shortened(text + QStringLiteral(" ..."), columns);
}

ProgressPause::ProgressPause()
    : m_lock(theLine().mutex)
{
    show(theLine(), QString());
}

} // namespace tulo
