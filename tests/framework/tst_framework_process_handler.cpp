#include "api/core/tuloprocesshandler.h"
#include "tests/support/childprocess.h"

#include <QElapsedTimer>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <cerrno>
#include <csignal>
#include <memory>

#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

// ---------------------------------------------------------------------------------------------
// A disk that does not answer: a program that does not get started, and one that is not ended by
// anything. These stand in for the C library's functions.
// ---------------------------------------------------------------------------------------------

// NOLINTNEXTLINE: switched by one test at a time
static bool execIsHeldBack = false;
static bool killHasNoEffect = false; // NOLINT

extern "C" {
int slowExecv(const char* file, char* const* arguments) asm("execv");
int quietKill(pid_t id, int number) asm("kill");
}

int slowExecv(const char* file, char* const* arguments)
{
    // Longer than the test's patience, and not for ever.
    if (execIsHeldBack)
        ::poll(nullptr, 0, ChildProcess::waitMs);
    return int(::syscall(SYS_execve, file, arguments, environ));
}

int quietKill(pid_t id, int number)
{
    return killHasNoEffect ? 0 : int(::syscall(SYS_kill, id, number));
}

// ---------------------------------------------------------------------------------------------

namespace {

// Long enough for a shell to start and to say something on a busy machine.
constexpr int shortTimeOutMs = 3000;

TuloProcessResult shell(const char* script, int timeout = ChildProcess::waitMs)
{
    return TuloProcessHandler::startSync(
        QStringLiteral("sh"), { QStringLiteral("-c"), QString::fromLatin1(script) }, timeout);
}

} // namespace

/// Running a program to its end: return codes, output, time-out.
class tst_framework_process_handler : public QObject
{
    Q_OBJECT

private slots:
    void successIsZero();
    void returnCodeIsTheProgramsOwn_data();
    void returnCodeIsTheProgramsOwn();
    void programIsLookedUpInPath();
    void missingProgramIsMinusOne_data();
    void missingProgramIsMinusOne();
    void crashIs128AndTheSignal_data();
    void crashIs128AndTheSignal();
    void argumentsPassNoShell();
    void outputHoldsBothStreamsInOrder();
    void outputIsNotCut();
    void standardInputIsEmpty();
    void timeOutKillsAndIsMinusTwo();
    void programThatIgnoresTerminationIsKilled();
    void timeOutKeepsTheOutputSoFar();
    void timeOutIncludesTheStart();
    void programThatCannotBeKilledIsLeftBehind();
    void endlessOutputDoesNotOutrunTheTimeOut();
    void failedForkIsMinusOne();
    void tooManyOpenFilesIsMinusOne();
    void openPipeOfAGrandchildIsNotWaitedFor();
    void noTimeOutWaitsForTheEnd();
    void noEventIsServedMeanwhile();
    void worksOnAnyThread();
};

void tst_framework_process_handler::successIsZero()
{
    const TuloProcessResult result = shell("exit 0");

    QCOMPARE(result.returnCode, 0);
    QCOMPARE(result.output, QByteArray());
}

void tst_framework_process_handler::returnCodeIsTheProgramsOwn_data()
{
    QTest::addColumn<int>("code");
    for (const int code : { 1, 2, 127, 128, 255 })
        QTest::addRow("%d", code) << code;
}

void tst_framework_process_handler::returnCodeIsTheProgramsOwn()
{
    QFETCH(int, code);

    QCOMPARE(shell(qPrintable(QStringLiteral("exit %1").arg(code))).returnCode, code);
}

void tst_framework_process_handler::programIsLookedUpInPath()
{
    QCOMPARE(
        TuloProcessHandler::startSync(QStringLiteral("true"), {}, ChildProcess::waitMs).returnCode,
        0);
    QCOMPARE(
        TuloProcessHandler::startSync(QStringLiteral("false"), {}, ChildProcess::waitMs).returnCode,
        1);
}

void tst_framework_process_handler::missingProgramIsMinusOne_data()
{
    QTest::addColumn<QString>("program");
    QTest::newRow("not in PATH") << QStringLiteral("no-such-program-anywhere");
    QTest::newRow("no such file") << QStringLiteral("/no/such/program");
    QTest::newRow("a folder") << QStringLiteral("/");
    QTest::newRow("not executable") << QStringLiteral("/etc/passwd");
}

void tst_framework_process_handler::missingProgramIsMinusOne()
{
    QFETCH(QString, program);

    const TuloProcessResult result =
        TuloProcessHandler::startSync(program, {}, ChildProcess::waitMs);

    QCOMPARE(result.returnCode, -1);
    // It says why.
    QVERIFY(!result.output.isEmpty());
}

void tst_framework_process_handler::crashIs128AndTheSignal_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<int>("code");
    QTest::newRow("KILL") << QByteArray("KILL") << 128 + SIGKILL;
    QTest::newRow("TERM") << QByteArray("TERM") << 128 + SIGTERM;
    QTest::newRow("SEGV") << QByteArray("SEGV") << 128 + SIGSEGV;
}

void tst_framework_process_handler::crashIs128AndTheSignal()
{
    QFETCH(QByteArray, name);
    QFETCH(int, code);

    QCOMPARE(shell(("ulimit -c 0; kill -" + name + " $$").constData()).returnCode, code);
}

void tst_framework_process_handler::argumentsPassNoShell()
{
    const TuloProcessResult result = TuloProcessHandler::startSync(
        QStringLiteral("printf"),
        { QStringLiteral("%s|%s"), QStringLiteral("a b; $HOME *"), QStringLiteral(u"\u00e4") },
        ChildProcess::waitMs);

    QCOMPARE(result.output, QByteArray("a b; $HOME *|\xC3\xA4"));
}

void tst_framework_process_handler::outputHoldsBothStreamsInOrder()
{
    const TuloProcessResult result = shell("echo one; echo two >&2; echo three; exit 3");

    QCOMPARE(result.returnCode, 3);
    QCOMPARE(result.output, QByteArray("one\ntwo\nthree\n"));
}

void tst_framework_process_handler::outputIsNotCut()
{
    // More than any pipe holds.
    const TuloProcessResult result = shell("head -c 3000000 /dev/zero");

    QCOMPARE(result.returnCode, 0);
    QCOMPARE(result.output.size(), 3000000);
}

void tst_framework_process_handler::standardInputIsEmpty()
{
    const TuloProcessResult result = shell("cat; echo end");

    QCOMPARE(result.output, QByteArray("end\n"));
}

void tst_framework_process_handler::timeOutKillsAndIsMinusTwo()
{
    const TuloProcessResult result = shell("echo $$; exec tail -f /dev/null", shortTimeOutMs);

    QCOMPARE(result.returnCode, -2);
    // It is gone, and so is its entry in the process table.
    const int id = result.output.trimmed().toInt();
    QVERIFY(id > 0);
    QCOMPARE(::kill(id, 0), -1);
}

void tst_framework_process_handler::programThatIgnoresTerminationIsKilled()
{
    QElapsedTimer timer;
    timer.start();
    const TuloProcessResult result =
        shell("trap '' TERM HUP INT; echo ready; exec tail -f /dev/null", shortTimeOutMs);

    QCOMPARE(result.returnCode, -2);
    QVERIFY(timer.elapsed() < ChildProcess::waitMs);
}

void tst_framework_process_handler::timeOutKeepsTheOutputSoFar()
{
    QCOMPARE(shell("echo before; exec tail -f /dev/null", shortTimeOutMs).output,
             QByteArray("before\n"));
}

void tst_framework_process_handler::timeOutIncludesTheStart()
{
    QElapsedTimer timer;
    timer.start();
    execIsHeldBack = true;
    const TuloProcessResult result = shell("exit 0", 500);
    execIsHeldBack = false;

    QCOMPARE(result.returnCode, -2);
    QVERIFY(timer.elapsed() < ChildProcess::waitMs);
}

void tst_framework_process_handler::programThatCannotBeKilledIsLeftBehind()
{
    QElapsedTimer timer;
    timer.start();
    killHasNoEffect = true;
    const TuloProcessResult result = shell("echo $$; exec tail -f /dev/null", shortTimeOutMs);
    killHasNoEffect = false;

    QCOMPARE(result.returnCode, -2);
    QVERIFY(timer.elapsed() < ChildProcess::waitMs);
    const int id = result.output.trimmed().toInt();
    QVERIFY(id > 0);
    QCOMPARE(::kill(id, SIGKILL), 0);
    QCOMPARE(::waitpid(id, nullptr, 0), id);
}

void tst_framework_process_handler::endlessOutputDoesNotOutrunTheTimeOut()
{
    const TuloProcessResult result = shell("while :; do echo x; done", shortTimeOutMs);

    QCOMPARE(result.returnCode, -2);
    QVERIFY(!result.output.isEmpty());
}

void tst_framework_process_handler::failedForkIsMinusOne()
{
    const ChildResult child = ChildProcess::runInChild(
        [] {
            const rlimit none { 0, 0 };
            QCOMPARE(::setrlimit(RLIMIT_NPROC, &none), 0);

            const TuloProcessResult result = shell("exit 0");

            QCOMPARE(result.returnCode, -1);
            QCOMPARE(QString::fromUtf8(result.output), qt_error_string(EAGAIN));
        },
        ChildProcess::User::Nobody);

    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

void tst_framework_process_handler::tooManyOpenFilesIsMinusOne()
{
    const ChildResult child = ChildProcess::runInChild([] {
        // The three standard streams and one more.
        const rlimit few { 4, 4 };
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &few), 0);

        const TuloProcessResult result = shell("exit 0");

        QCOMPARE(result.returnCode, -1);
        QCOMPARE(QString::fromUtf8(result.output), qt_error_string(EMFILE));
    });

    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

void tst_framework_process_handler::openPipeOfAGrandchildIsNotWaitedFor()
{
    QElapsedTimer timer;
    timer.start();

    const TuloProcessResult result = shell("tail -f /dev/null & echo $!", -1);

    QVERIFY(timer.elapsed() < ChildProcess::waitMs);
    QCOMPARE(result.returnCode, 0);
    const int id = result.output.trimmed().toInt();
    QVERIFY(id > 0);
    QCOMPARE(::kill(id, SIGKILL), 0);
}

void tst_framework_process_handler::noTimeOutWaitsForTheEnd()
{
    QCOMPARE(shell("exit 4", -1).returnCode, 4);
}

void tst_framework_process_handler::noEventIsServedMeanwhile()
{
    bool served = false;
    QTimer::singleShot(0, this, [&served] { served = true; });

    QCOMPARE(shell("exit 0").returnCode, 0);

    QVERIFY(!served);
    QCoreApplication::processEvents();
    QVERIFY(served);
}

void tst_framework_process_handler::worksOnAnyThread()
{
    int code = 0;
    const std::unique_ptr<QThread> thread(
        QThread::create([&code] { code = shell("exit 9").returnCode; }));
    thread->start();
    QVERIFY(thread->wait(ChildProcess::waitMs));

    QCOMPARE(code, 9);
}

QTEST_GUILESS_MAIN(tst_framework_process_handler)
#include "tst_framework_process_handler.moc"
