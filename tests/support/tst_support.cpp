#include "api/core/tulo.h"
#include "tests/support/childprocess.h"
#include "tests/support/logcapture.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"
#include "tests/support/terminal.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>
#include <QTimer>

#include <log4cplus/loggingmacros.h>

#include <csignal>
#include <cstdlib>

#include <unistd.h>

namespace {

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("tst_support"));

} // namespace

/// What all other tests rely on: above all that these helpers can fail.
class tst_support : public QObject
{
    Q_OBJECT

private slots:
    void unexpectedRecordFails_data();
    void unexpectedRecordFails();
    void expectedRecordPasses();
    void missingRecordFails();
    void takenRecordsPass();
    void capturePutsTheLevelBack();
    void recordKeepsItsOrigin();
    void namedCaptureHearsItsLoggerOnly();

    void childAborts();
    void childThatFailsACheckExitsWith1();
    void childThatPassesExitsWith0();
    void childOfARowRunsThatRow_data();
    void childOfARowRunsThatRow();
    void childGivesUpItsPrivileges();
    void childLeavesNoFilesBehind();
    void programIsRunWithInput();
    void programIsInterrupted();
    void programThatDoesNotEndIsKilled();
    void missingProgramIsTold();

    void treesAreWrittenAndRead();
    void entriesAreListedHiddenOnesToo();
    void treeIsRemoved();

    void waiterServesEvents();
    void waiterGivesUp();

    void terminalThatGetsLowerKeepsItsCursor();
    void terminalOfOneColumnTakesWideCharacters();
};

void tst_support::unexpectedRecordFails_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<bool>("fails");
    QTest::newRow("INFO") << int(log4cplus::INFO_LOG_LEVEL) << false;
    QTest::newRow("WARN") << int(log4cplus::WARN_LOG_LEVEL) << true;
    QTest::newRow("ERROR") << int(log4cplus::ERROR_LOG_LEVEL) << true;
    QTest::newRow("FATAL") << int(log4cplus::FATAL_LOG_LEVEL) << true;
}

void tst_support::unexpectedRecordFails()
{
    QFETCH(int, level);
    QFETCH(bool, fails);
    const ChildResult child = ChildProcess::runInChild([level] {
        const LogCapture log;
        logger.log(level, "what happened");
        log.verifyNothingUnexpected();
    });

    QCOMPARE(child.exitCode, fails ? 1 : 0);
    QCOMPARE(child.standardOutput.contains("record of tst_support: what happened"), fails);
}

void tst_support::expectedRecordPasses()
{
    LogCapture log;
    log.expect(log4cplus::ERROR_LOG_LEVEL, QStringLiteral("before"));
    LOG4CPLUS_ERROR(logger, "before");
    LOG4CPLUS_WARN(logger, "after");
    log.expect(log4cplus::WARN_LOG_LEVEL, QStringLiteral("after"));

    log.verifyNothingUnexpected();
}

void tst_support::missingRecordFails()
{
    const ChildResult child = ChildProcess::runInChild([] {
        LogCapture log;
        LOG4CPLUS_ERROR(logger, "once");
        log.expect(log4cplus::ERROR_LOG_LEVEL, QStringLiteral("once"));
        log.expect(log4cplus::ERROR_LOG_LEVEL, QStringLiteral("once"));
        log.verifyNothingUnexpected();
    });

    QCOMPARE(child.exitCode, 1);
    QVERIFY2(child.standardOutput.contains("missing ERROR record: once"), child.standardOutput);
}

void tst_support::takenRecordsPass()
{
    LogCapture log;
    LOG4CPLUS_ERROR(logger, "seen");

    QCOMPARE(log.messages(log4cplus::ERROR_LOG_LEVEL), QStringList({ QStringLiteral("seen") }));
    QCOMPARE(log.take().size(), 1);
    QVERIFY(log.records().isEmpty());
    log.verifyNothingUnexpected();
}

void tst_support::capturePutsTheLevelBack()
{
    const log4cplus::LogLevel before = log4cplus::Logger::getRoot().getLogLevel();
    {
        LogCapture log(log4cplus::TRACE_LOG_LEVEL);
        LOG4CPLUS_TRACE(logger, "heard");
        QCOMPARE(log.records().size(), 1);
        log.setLevel(log4cplus::ERROR_LOG_LEVEL);
        LOG4CPLUS_WARN(logger, "not heard");
        QCOMPARE(log.records().size(), 1);
    }

    QCOMPARE(log4cplus::Logger::getRoot().getLogLevel(), before);
    QVERIFY(log4cplus::Logger::getRoot().getAllAppenders().empty());
}

void tst_support::recordKeepsItsOrigin()
{
    const LogCapture log;
    LOG4CPLUS_INFO(logger, "text");
    const int line = __LINE__ - 1;

    const LogRecord record = log.records().first();
    QCOMPARE(record.level, log4cplus::INFO_LOG_LEVEL);
    QCOMPARE(record.message, QStringLiteral("text"));
    QCOMPARE(record.logger, QStringLiteral("tst_support"));
    QVERIFY(record.file.endsWith(QStringLiteral("tst_support.cpp")));
    QCOMPARE(record.line, line);
    QVERIFY(record.function.contains(QStringLiteral("recordKeepsItsOrigin")));
}

void tst_support::namedCaptureHearsItsLoggerOnly()
{
    const LogCapture log(log4cplus::INFO_LOG_LEVEL, QStringLiteral("tst_support"));
    LOG4CPLUS_INFO(logger, "mine");
    LOG4CPLUS_INFO(log4cplus::Logger::getInstance("tst_support_other"), "other");

    QCOMPARE(log.messages(log4cplus::INFO_LOG_LEVEL), QStringList({ QStringLiteral("mine") }));
}

void tst_support::childAborts()
{
    const ChildResult child =
        ChildProcess::runInChild([] { TULO_ASSERT_TEXT(false, "on purpose"); });

    QCOMPARE(child.signal, SIGABRT);
    QCOMPARE(child.exitCode, -1);
    QVERIFY(!child.timedOut);
    QVERIFY(child.standardError.contains("on purpose"));
}

void tst_support::childThatFailsACheckExitsWith1()
{
    const ChildResult child = ChildProcess::runInChild([] { QCOMPARE(1, 2); });

    QCOMPARE(child.exitCode, 1);
    QCOMPARE(child.signal, 0);
}

void tst_support::childThatPassesExitsWith0()
{
    const ChildResult child = ChildProcess::runInChild([] { QVERIFY(::write(2, "ran", 3) == 3); });

    QCOMPARE(child.exitCode, 0);
    QVERIFY(child.standardError.contains("ran"));
}

void tst_support::childOfARowRunsThatRow_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("first") << QByteArray("row one");
    QTest::newRow("second row") << QByteArray("row two");
}

void tst_support::childOfARowRunsThatRow()
{
    QFETCH(QByteArray, text);
    const ChildResult child = ChildProcess::runInChild(
        [&text] { QVERIFY(::write(2, text.constData(), size_t(text.size())) > 0); });

    QCOMPARE(child.standardError, text);
}

void tst_support::childGivesUpItsPrivileges()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/a"), QByteArray("content"));
    QVERIFY(QFile::setPermissions(tree.defaultPath() + QStringLiteral("/a"), QFile::Permissions()));
    const ChildResult child = ChildProcess::runInChild(
        [&tree] {
            QVERIFY(::geteuid() != 0);
            QVERIFY(QFileInfo(tree.defaultPath()).isReadable());
            QVERIFY(!QFileInfo(tree.defaultPath() + QStringLiteral("/a")).isReadable());
        },
        ChildProcess::User::Nobody);

    QVERIFY2(child.exitCode == 0, child.standardOutput);
}

void tst_support::childLeavesNoFilesBehind()
{
    const ChildResult child = ChildProcess::runInChild([] {
        const TemporaryTree tree;
        const QByteArray path = tree.path().toUtf8();
        QVERIFY(::write(2, path.constData(), size_t(path.size())) > 0);
        std::abort();
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY(!child.standardError.isEmpty());
    QVERIFY(!QFileInfo::exists(QString::fromUtf8(child.standardError)));
}

void tst_support::programIsRunWithInput()
{
    const ChildResult child = ChildProcess::run(
        QStringLiteral("sh"),
        { QStringLiteral("-c"), QStringLiteral("cat; echo error >&2; exit 3") }, "input");

    QCOMPARE(child.exitCode, 3);
    QCOMPARE(child.signal, 0);
    QCOMPARE(child.standardOutput, QByteArray("input"));
    QCOMPARE(child.standardError, QByteArray("error\n"));
}

void tst_support::programIsInterrupted()
{
    ChildProcess child(QStringLiteral("sh"),
                       { QStringLiteral("-c"),
                         QStringLiteral("echo $NAME; read line; echo got $line; exec cat") });
    child.setVariable(QStringLiteral("NAME"), QStringLiteral("ready"));
    QVERIFY(child.start());
    QVERIFY(child.waitForOutput("ready\n"));
    child.writeInput("text\n");
    QVERIFY(child.waitForOutput("got text\n"));
    QVERIFY(child.isRunning());
    child.sendSignal(SIGINT);

    const ChildResult result = child.finish();
    QCOMPARE(result.signal, SIGINT);
    QCOMPARE(result.standardOutput, QByteArray("ready\ngot text\n"));
}

void tst_support::programThatDoesNotEndIsKilled()
{
    ChildProcess child(QStringLiteral("cat"));
    QVERIFY(child.start());

    const ChildResult result = child.finish(1);

    QVERIFY(result.timedOut);
    QCOMPARE(result.signal, SIGKILL);
}

void tst_support::missingProgramIsTold()
{
    ChildProcess child(QStringLiteral("/no/such/program"));

    QVERIFY(!child.start());
    QCOMPARE(child.finish().exitCode, -1);
}

void tst_support::treesAreWrittenAndRead()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/audio/volume"), QByteArray("raw"));
    tree.writeWritten(QStringLiteral("/audio/volume"),
                      QVariantHash { { QStringLiteral("id"), 5 } });
    tree.writeWritten(QStringLiteral("/empty"), QByteArray(""));

    QCOMPARE(tree.readDefault(QStringLiteral("/audio/volume")), QByteArray("raw"));
    QCOMPARE(tree.readWritten(QStringLiteral("/audio/volume")), QByteArray(R"({"id":5})"));
    QCOMPARE(tree.readWrittenRoles(QStringLiteral("/audio/volume")).value(QStringLiteral("id")),
             QVariant(5));
    QVERIFY(tree.readWritten(QStringLiteral("/none")).isNull());
    QVERIFY(!tree.readWritten(QStringLiteral("/empty")).isNull());
    QCOMPARE(tree.config().value(QStringLiteral("default_path")).toString(), tree.defaultPath());
    QCOMPARE(tree.config().value(QStringLiteral("write_path")).toString(), tree.writePath());
    QCOMPARE(QFileInfo(tree.writePath()).canonicalFilePath(), tree.writePath());
}

void tst_support::entriesAreListedHiddenOnesToo()
{
    const TemporaryTree tree;
    tree.writeWritten(QStringLiteral("/b/.a"), QByteArray("x"));
    tree.writeWritten(QStringLiteral("/a"), QByteArray("x"));
    tree.makeWriteDirectory(QStringLiteral("/c/d"));
    QVERIFY(
        QFile::link(QStringLiteral("/no/such/file"), tree.writePath() + QStringLiteral("/link")));

    QCOMPARE(
        tree.writtenEntries(),
        QStringList({ QStringLiteral("/a"), QStringLiteral("/b/"), QStringLiteral("/b/.a"),
                      QStringLiteral("/c/"), QStringLiteral("/c/d/"), QStringLiteral("/link") }));
    QCOMPARE(tree.defaultEntries(), QStringList());
}

void tst_support::treeIsRemoved()
{
    QString path;
    {
        const TemporaryTree tree;
        path = tree.path();
        QVERIFY(QFileInfo(path).isDir());
    }

    QVERIFY(!QFileInfo::exists(path));
}

void tst_support::waiterServesEvents()
{
    const auto reply = CMReply<QVariant>::create();
    ReplyWaiter waiter(reply);
    QTimer::singleShot(0, this, [&reply] { reply.setValue(1); });

    QVERIFY(waiter.waitServingEvents());
    QVERIFY(waiter.wait());
    QCOMPARE(waiter.count(), 1);
}

void tst_support::waiterGivesUp()
{
    ReplyWaiter waiter(CMReply<QVariant>::create());

    QVERIFY(!waiter.wait(1));
    QVERIFY(!waiter.waitServingEvents(1));
    QCOMPARE(waiter.count(), 0);
}

void tst_support::terminalThatGetsLowerKeepsItsCursor()
{
    Terminal terminal(10, 6);
    terminal.start(QStringLiteral("/bin/sh"),
                   { QStringLiteral("-c"),
                     QStringLiteral("printf '1\\n2\\n3\\n4\\n5\\033[H'; read -r line;"
                                    "printf '\\033[Jend'") });
    COMPARE_SCREEN(terminal, QStringLiteral("|1\n2\n3\n4\n5"));

    terminal.resize(10, 2);
    terminal.type("\r");

    QVERIFY(terminal.waitForEnd(QStringLiteral("\nend")));
    QCOMPARE(terminal.wait(), 0);
}

void tst_support::terminalOfOneColumnTakesWideCharacters()
{
    Terminal terminal;
    terminal.start(
        QStringLiteral("/bin/sh"),
        { QStringLiteral("-c"), QStringLiteral("read -r line; stty size; echo \u97f3") });

    terminal.resize(1, 5);
    terminal.type("\r");

    QVERIFY(terminal.waitForOutput("5 1\r\n\xe9\x9f\xb3\r\n"));
    QCOMPARE(terminal.wait(), 0);
}

QTEST_GUILESS_MAIN(tst_support)
#include "tst_support.moc"
