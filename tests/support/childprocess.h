#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <functional>

/// How a child process ended.
struct ChildResult
{
    bool timedOut = false; ///< it did not end in time and was killed
    int exitCode = -1; ///< -1 after a signal, or when the program could not be started
    int signal = 0; ///< the signal that ended it, 0 for a normal exit
    QByteArray standardOutput;
    QByteArray standardError;
};

/// A program run by a test. Every wait is bounded; a child that still runs is killed with the
/// object.
class ChildProcess
{
public:
    /// Longer than anything a test waits for; only a failing test ever waits so long.
    static constexpr int waitMs = 40000;

    explicit ChildProcess(const QString& program, const QStringList& arguments = {});
    ~ChildProcess();

    // Before start(): the child gets this process's environment with these changes.
    void setVariable(const QString& name, const QString& value);
    void removeVariable(const QString& name);
    void setWorkingDirectory(const QString& directory);

    /// Tells whether the program runs.
    bool start();
    qint64 processId() const;
    bool isRunning() const;
    /// Finds out whether it has ended by now, which isRunning() may not know yet.
    bool hasEnded();

    void writeInput(const QByteArray& bytes);
    void closeInput();
    void sendSignal(int number) const;

    // Wait until the stream, from its beginning, holds `text`.
    bool waitForOutput(const QByteArray& text, int milliseconds = waitMs);
    bool waitForError(const QByteArray& text, int milliseconds = waitMs);
    /// The streams so far, complete after finish().
    QByteArray standardOutput();
    QByteArray standardError();

    /// Waits for the end. Leaves the input open: close it first for a program that reads it all.
    ChildResult finish(int milliseconds = waitMs);

    /// Runs a program with `input` as its whole standard input.
    static ChildResult run(const QString& program, const QStringList& arguments,
                           const QByteArray& input = QByteArray());

    enum class User { Same, Nobody };

    /// Runs `body`, which may abort, in a new process of this test program: that process runs the
    /// current test function (and row) again up to this call, then `body`, and ends. Once for
    /// each function or row, and before anything that must not happen twice:
    ///
    ///     const ChildResult child = ChildProcess::runInChild([] { CMRequest().path(); });
    ///     QCOMPARE(child.signal, SIGABRT);
    ///
    /// The exit code is 1 when a check inside `body` failed, otherwise 0. As Nobody, a test that
    /// root runs gives up its privileges before `body`. Temporary files of the child go with it.
    static ChildResult runInChild(const std::function<void()>& body, User user = User::Same);

private:
    Q_DISABLE_COPY(ChildProcess)

    void read();
    bool waitFor(QProcess::ProcessChannel channel, const QByteArray& text, int milliseconds);

    QProcess m_process;
    QProcessEnvironment m_environment = QProcessEnvironment::systemEnvironment();
    QByteArray m_output;
    QByteArray m_error;
};
