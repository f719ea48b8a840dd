#include "tests/support/childprocess.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <grp.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr char childVariable[] = "TULO_TEST_CHILD";
constexpr unsigned nobody = 65534;

// The running test function as the command line of a test program names it.
QString currentTest()
{
    QString test = QString::fromLatin1(QTest::currentTestFunction());
    if (QTest::currentDataTag() != nullptr)
        test += QLatin1Char(':') + QString::fromUtf8(QTest::currentDataTag());
    return test;
}

void becomeNobody()
{
    if (::geteuid() != 0)
        return;
    if (::setgroups(0, nullptr) != 0 || ::setresgid(nobody, nobody, nobody) != 0
        || ::setresuid(nobody, nobody, nobody) != 0)
        qFatal("cannot give up the privileges of root");
}

[[noreturn]] void runBody(const std::function<void()>& body, ChildProcess::User user)
{
    ::unsetenv(childVariable);
    // An abort is what many bodies are for.
    const rlimit noCoreFile { 0, 0 };
    ::setrlimit(RLIMIT_CORE, &noCoreFile);
    if (user == ChildProcess::User::Nobody)
        becomeNobody();
    body();
    std::fflush(nullptr);
    // Nothing is torn down: that belongs to the test function, which ends here.
    ::_exit(QTest::currentTestFailed() ? 1 : 0);
}

} // namespace

ChildProcess::ChildProcess(const QString& program, const QStringList& arguments)
{
    m_process.setProgram(program);
    m_process.setArguments(arguments);
}

ChildProcess::~ChildProcess()
{
    if (!isRunning())
        return;
    m_process.kill();
    m_process.waitForFinished(waitMs);
}

void ChildProcess::setVariable(const QString& name, const QString& value)
{
    m_environment.insert(name, value);
}

void ChildProcess::removeVariable(const QString& name)
{
    m_environment.remove(name);
}

void ChildProcess::setWorkingDirectory(const QString& directory)
{
    m_process.setWorkingDirectory(directory);
}

bool ChildProcess::start()
{
    m_process.setProcessEnvironment(m_environment);
    m_process.start();
    return m_process.waitForStarted(waitMs);
}

qint64 ChildProcess::processId() const
{
    return m_process.processId();
}

bool ChildProcess::isRunning() const
{
    return m_process.state() != QProcess::NotRunning;
}

bool ChildProcess::hasEnded()
{
    return !isRunning() || m_process.waitForFinished(0);
}

void ChildProcess::writeInput(const QByteArray& bytes)
{
    m_process.write(bytes);
    while (m_process.bytesToWrite() > 0 && m_process.waitForBytesWritten(waitMs)) { }
}

void ChildProcess::closeInput()
{
    m_process.closeWriteChannel();
}

void ChildProcess::sendSignal(int number) const
{
    // 0 would reach the whole process group.
    if (processId() > 0)
        ::kill(pid_t(processId()), number);
}

void ChildProcess::read()
{
    m_output += m_process.readAllStandardOutput();
    m_error += m_process.readAllStandardError();
}

bool ChildProcess::waitFor(QProcess::ProcessChannel channel, const QByteArray& text,
                           int milliseconds)
{
    const QDeadlineTimer deadline(milliseconds);
    const QByteArray& stream = channel == QProcess::StandardOutput ? m_output : m_error;
    m_process.setReadChannel(channel);
    read();
    while (!stream.contains(text)) {
        const bool more = m_process.waitForReadyRead(int(deadline.remainingTime()));
        read();
        if (!more)
            break;
    }
    return stream.contains(text);
}

bool ChildProcess::waitForOutput(const QByteArray& text, int milliseconds)
{
    return waitFor(QProcess::StandardOutput, text, milliseconds);
}

bool ChildProcess::waitForError(const QByteArray& text, int milliseconds)
{
    return waitFor(QProcess::StandardError, text, milliseconds);
}

QByteArray ChildProcess::standardOutput()
{
    read();
    return m_output;
}

QByteArray ChildProcess::standardError()
{
    read();
    return m_error;
}

ChildResult ChildProcess::finish(int milliseconds)
{
    ChildResult result;
    if (isRunning() && !m_process.waitForFinished(milliseconds) && isRunning()) {
        result.timedOut = true;
        m_process.kill();
        m_process.waitForFinished(waitMs);
    }
    if (m_process.exitStatus() == QProcess::CrashExit)
        result.signal = m_process.exitCode();
    else if (m_process.error() != QProcess::FailedToStart)
        result.exitCode = m_process.exitCode();
    result.standardOutput = standardOutput();
    result.standardError = standardError();
    return result;
}

ChildResult ChildProcess::run(const QString& program, const QStringList& arguments,
                              const QByteArray& input)
{
    ChildProcess child(program, arguments);
    if (child.start()) {
        child.writeInput(input);
        child.closeInput();
    }
    return child.finish();
}

ChildResult ChildProcess::runInChild(const std::function<void()>& body, User user)
{
    if (qEnvironmentVariableIsSet(childVariable))
        runBody(body, user);

    static QString testBefore;
    const QString test = currentTest();
    if (test == testBefore)
        qFatal("%s runs a second child", qPrintable(test));
    testBefore = test;

    const QTemporaryDir temporary;
    // As chmod 755.
    QFile::setPermissions(temporary.path(), QFile::Permissions(0x7755));
    ChildProcess child(QFile::symLinkTarget(QStringLiteral("/proc/self/exe")),
                       { QStringLiteral("-nocrashhandler"), test });
    child.setVariable(QLatin1String(childVariable), test);
    child.setVariable(QStringLiteral("TMPDIR"), temporary.path());
    child.start();
    child.closeInput();
    return child.finish();
}
