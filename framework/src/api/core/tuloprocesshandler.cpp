#include "api/core/tuloprocesshandler.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QList>
#include <QStandardPaths>
#include <QVector>

#include <array>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

// Not QProcess: that of Qt 5.15 takes a failed fork for the running process -1, returns what its
// exit code happens to be, and its kill() ends every process that this one may end.

namespace {

constexpr int cannotStart = -1;
constexpr int timedOut = -2;
constexpr int signalBase = 128;
constexpr int killWaitMs = 1000;

/// A file descriptor, closed with the object; -1 when there is none.
class Descriptor
{
public:
    explicit Descriptor(int number = -1)
        : m_number(number)
    {
    }
    ~Descriptor() { reset(-1); }
    Q_DISABLE_COPY(Descriptor)

    int number() const { return m_number; }
    void reset(int number)
    {
        if (m_number >= 0)
            ::close(m_number);
        m_number = number;
    }

private:
    int m_number;
};

struct Pipe
{
    Descriptor readEnd;
    Descriptor writeEnd;

    bool open()
    {
        std::array<int, 2> ends {};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0)
            return false;
        readEnd.reset(ends[0]);
        writeEnd.reset(ends[1]);
        return true;
    }
};

/// The files of a program that runs.
struct Channels
{
    Descriptor input;
    Pipe output;
    Pipe failure; ///< takes the error of an exec that fails

    bool open()
    {
        input.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        return input.number() >= 0 && output.open() && failure.open()
            && ::fcntl(output.readEnd.number(), F_SETFL, O_NONBLOCK) == 0
            && ::fcntl(failure.readEnd.number(), F_SETFL, O_NONBLOCK) == 0;
    }
};

TuloProcessResult failedToStart(int error)
{
    return { cannotStart, qt_error_string(error).toUtf8() };
}

// In the new process, in which any lock may be held for ever: nothing but system calls.
[[noreturn]] void execute(const char* file, char* const* arguments, const Channels& channels)
{
    ::dup2(channels.input.number(), STDIN_FILENO);
    ::dup2(channels.output.writeEnd.number(), STDOUT_FILENO);
    ::dup2(channels.output.writeEnd.number(), STDERR_FILENO);
    ::signal(SIGPIPE, SIG_DFL);
    ::execv(file, arguments);
    const int error = errno;
    const ssize_t written = ::write(channels.failure.writeEnd.number(), &error, sizeof(error));
    Q_UNUSED(written)
    ::_exit(127);
}

// Takes some of what the pipe holds now and tells whether there was anything; closes it at its end.
bool readAvailable(Descriptor* output, QByteArray* bytes)
{
    std::array<char, 65536> block; // NOLINT: filled by read()
    const ssize_t count = ::read(output->number(), block.data(), block.size());
    if (count > 0)
        bytes->append(block.data(), int(count));
    else if (count == 0)
        output->reset(-1);
    return count > 0;
}

// Collects the output until the process has ended. False when the deadline comes first.
bool readUntilEnd(const Descriptor& process, const QDeadlineTimer& deadline, Descriptor* output,
                  QByteArray* bytes)
{
    for (;;) {
        std::array<pollfd, 2> watched { pollfd { process.number(), POLLIN, 0 },
                                        pollfd { output->number(), POLLIN, 0 } };
        const int ready = ::poll(watched.data(), watched.size(), int(deadline.remainingTime()));
        if (ready > 0 && watched[1].revents != 0)
            readAvailable(output, bytes);
        if (ready > 0 && watched[0].revents != 0) {
            // What it wrote before its end. Others may have the pipe open and write on.
            while (readAvailable(output, bytes) && !deadline.hasExpired()) { }
            return true;
        }
        if (deadline.hasExpired())
            return false;
    }
}

// How a process that has ended did so, or that it never became the program.
TuloProcessResult resultOf(pid_t id, const Descriptor& failure, const QByteArray& output)
{
    siginfo_t info {};
    if (::waitid(P_PID, id_t(id), &info, WEXITED) != 0)
        return failedToStart(errno);
    int error = 0;
    if (::read(failure.number(), &error, sizeof(error)) == sizeof(error))
        return failedToStart(error);
    return { info.si_code == CLD_EXITED ? info.si_status : signalBase + info.si_status, output };
}

// Follows the process to its end, at most until the deadline and the second after it.
TuloProcessResult follow(pid_t id, const QDeadlineTimer& deadline, Channels* channels)
{
    channels->output.writeEnd.reset(-1);
    channels->failure.writeEnd.reset(-1);
    const Descriptor process(int(::syscall(SYS_pidfd_open, id, 0)));
    if (process.number() < 0) {
        const int error = errno;
        ::kill(id, SIGKILL);
        ::waitid(P_PID, id_t(id), nullptr, WEXITED);
        return failedToStart(error);
    }

    Descriptor* const readEnd = &channels->output.readEnd;
    QByteArray output;
    if (readUntilEnd(process, deadline, readEnd, &output))
        return resultOf(id, channels->failure.readEnd, output);
    ::kill(id, SIGKILL);
    // One that even this does not end is left behind.
    if (readUntilEnd(process, QDeadlineTimer(killWaitMs), readEnd, &output))
        ::waitid(P_PID, id_t(id), nullptr, WEXITED);
    return { timedOut, output };
}

} // namespace

TuloProcessResult TuloProcessHandler::startSync(const QString& program,
                                                const QStringList& arguments, int timeout)
{
    const QDeadlineTimer deadline(timeout);
    const QString found =
        program.contains(QLatin1Char('/')) ? program : QStandardPaths::findExecutable(program);
    if (found.isEmpty())
        return failedToStart(ENOENT);
    const QByteArray file = QFile::encodeName(found);
    QList<QByteArray> texts { QFile::encodeName(program) };
    for (const QString& argument : arguments)
        texts.append(argument.toLocal8Bit());
    QVector<char*> pointers;
    for (QByteArray& text : texts)
        pointers.append(text.data());
    pointers.append(nullptr);

    Channels channels;
    if (!channels.open())
        return failedToStart(errno);
    const pid_t id = ::fork();
    if (id < 0)
        return failedToStart(errno);
    if (id == 0)
        execute(file.constData(), pointers.constData(), channels);
    return follow(id, deadline, &channels);
}
