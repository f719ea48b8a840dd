#include "tests/system/commandline.h"

#include <QTest>

#include <csignal>

namespace {

const QString program = QStringLiteral(TULO_CM_PROGRAM);

QStringList textWords()
{
    return { QStringLiteral("shell") };
}

QStringList jsonWords()
{
    return { QStringLiteral("--json"), QStringLiteral("shell") };
}

} // namespace

/// Commands, one a line, in one process: changes wait for the write timer there, events come in
/// between, and errors do not end it.
class TstShell : public QObject
{
    Q_OBJECT

private slots:
    void changeTravelsFromRequestToFile();
    void timerWritesOneSecondAfterTheChange();
    void lines_data();
    void lines();
    void jsonLines_data();
    void jsonLines();
    void lastLineNeedsNoLineEnd();
    void errorsDoNotEndIt();
    void helpIsWhatCanBeTypedThere();
    void endOfInputFlushes();
    void quitFlushes();
    void signalFlushes_data();
    void signalFlushes();
    void ignoredHangUpStaysIgnored();
    void signalEndsWait();
    void closedPipeFlushesAndEndsQuietly();
    void countEndsWatching();
    void secondShellOnlyReads();
    void dropCacheReadsFilesAgain();
    void unsavedChangeIsToldAtTheEnd();
    void statusIsThatOfThisProcess();
};

void TstShell::changeTravelsFromRequestToFile()
{
    const CommandLine cli;

    const ChildResult first = cli.run(
        jsonWords(),
        "get /settings/audio/volume\n"
        "watch /settings/audio/volume /settings/audio\n"
        "set /settings/audio/volume --roles '{\"value\":{\"int\":40},\"timestamp\":1700000000000}'\n"
        "drop-cache\n"
        "get /settings/audio/volume\n"
        "wait 1500\n"
        "get /settings/audio/volume --role timestamp\n");
    const QByteArray stored = R"({"timestamp":1700000000000,"value":{"int":40}})";
    const ChildResult second = cli.run("get /settings/audio/volume");

    QCOMPARE(first.standardError, QByteArray());
    QCOMPARE(first.exitCode, 0);
    QCOMPARE(first.standardOutput,
             QByteArray(R"({"path":"/settings/audio/volume","roles":{"value":{"int":35}}})"
                        "\n"
                        R"({"event":"value","path":"/settings/audio/volume","value":{"int":40}})"
                        "\n"
                        R"({"event":"data","path":"/settings/audio/volume"})"
                        "\n"
                        R"({"command":"4","event":"rows","path":"/settings/audio","rowsVersion":1})"
                        "\n"
                        R"({"path":"/settings/audio/volume","roles":)"
                        + stored
                        + "}\n"
                          R"({"done":true,"path":"/settings/actions/dropCache"})"
                          "\n"
                          R"({"path":"/settings/audio/volume","roles":{"value":{"int":40}}})"
                          "\n"
                          R"({"path":"/settings/audio/volume","roles":{"timestamp":1700000000000}})"
                          "\n"));
    QCOMPARE(cli.tree.readWritten(QStringLiteral("/audio/volume")), stored);
    QCOMPARE(second.standardOutput, QByteArray("40\n"));
}

void TstShell::timerWritesOneSecondAfterTheChange()
{
    const CommandLine cli;
    ChildProcess shell(program,
                       cli.arguments({ QStringLiteral("--log-level"), QStringLiteral("info"),
                                       QStringLiteral("shell") }));
    QVERIFY(shell.start());

    shell.writeInput("set /settings/audio/volume 40\nset /settings/audio/mode high\nwait 30000\n");

    // Without the end of the input, and long before the wait is over.
    QVERIFY(shell.waitForError("written file: " + cli.tree.writePath().toUtf8() + "/audio/volume"));
    QVERIFY(shell.waitForError("written file: " + cli.tree.writePath().toUtf8() + "/audio/mode"));
    QVERIFY(!shell.standardError().contains("Flush action"));
    QCOMPARE(cli.tree.readWrittenRoles(QStringLiteral("/audio/volume"))
                 .value(QStringLiteral("value"))
                 .toHash()
                 .value(QStringLiteral("int"))
                 .toInt(),
             40);
    shell.sendSignal(SIGTERM);
    QCOMPARE(shell.finish().exitCode, 0);
}

void TstShell::lines_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<QByteArray>("error");
    QTest::addColumn<int>("exitCode");

    QTest::newRow("nothing") << QByteArray() << QByteArray() << QByteArray() << 0;
    QTest::newRow("blanks") << QByteArray("  \t ") << QByteArray() << QByteArray() << 0;
    QTest::newRow("single quotes")
        << QByteArray("get '/settings/audio/volume'") << QByteArray("35\n") << QByteArray() << 0;
    QTest::newRow("double quotes") << QByteArray(R"(set /settings/audio/mode "\"high\"")")
                                   << QByteArray("high\n") << QByteArray() << 0;
    QTest::newRow("backslash") << QByteArray(R"(get /settings/audio/volum\e)") << QByteArray("35\n")
                               << QByteArray() << 0;
    QTest::newRow("open quote") << QByteArray("get 'x") << QByteArray()
                                << QByteArray("tulo-cm: line 1: a quote is not closed\n") << 2;
    QTest::newRow("backslash at the end")
        << QByteArray("get x\\") << QByteArray()
        << QByteArray("tulo-cm: line 1: the line ends in a backslash\n") << 2;
    QTest::newRow("not UTF-8") << QByteArray("get \xff") << QByteArray()
                               << QByteArray("tulo-cm: line 1: the line is not UTF-8\n") << 2;
    QTest::newRow("null character outside of a word")
        << QByteArray("get\0/settings/audio/volume", 26) << QByteArray()
        << QByteArray("tulo-cm: line 1: the line holds a null character (U+0000)\n") << 2;
    QTest::newRow("null character in a path")
        << QByteArray("get /settings/audio\0/volume", 27) << QByteArray()
        << QByteArray("tulo-cm: line 1: the line holds a null character (U+0000)\n") << 2;
    QTest::newRow("comment") << QByteArray("# get 'x") << QByteArray() << QByteArray() << 0;
    QTest::newRow("indented comment") << QByteArray("  #") << QByteArray() << QByteArray() << 0;
    QTest::newRow("exit") << QByteArray("exit\nget /settings/serial") << QByteArray()
                          << QByteArray() << 0;
    QTest::newRow("third line")
        << QByteArray("\n# two\ngte") << QByteArray()
        << QByteArray(
               "tulo-cm: line 3: unknown command 'gte'; commands are: get, ls, tree, find, describe, explain, diff, set, op, reset, watch, unwatch, dump, flush, drop-cache, check, status, cd, wait, help, quit\n")
        << 2;
    QTest::newRow("error of the second line")
        << QByteArray("\nset /settings/audio 1") << QByteArray()
        << QByteArray("tulo-cm: line 2: Path '/settings/audio' is a directory\n") << 4;
    QTest::newRow("option of the program")
        << QByteArray("get --json /settings/audio/volume") << QByteArray()
        << QByteArray(
               "tulo-cm: line 1: '--json' is an option of the program, not of a line of the shell\n")
        << 2;
    QTest::newRow("shell in the shell")
        << QByteArray("shell") << QByteArray()
        << QByteArray("tulo-cm: line 1: 'shell' is not a command of the shell\n") << 2;
    QTest::newRow("standard input as value")
        << QByteArray("set /settings/audio/mode -") << QByteArray()
        << QByteArray(
               "tulo-cm: line 1: '-' reads standard input, from which the shell reads its lines\n")
        << 2;
    QTest::newRow("wait for nothing")
        << QByteArray("wait soon") << QByteArray()
        << QByteArray("tulo-cm: line 1: 'wait' needs a number of milliseconds, not 'soon'\n") << 2;
    QTest::newRow("negative value") << QByteArray("op /settings/audio/volume add -5")
                                    << QByteArray("30\n") << QByteArray() << 0;
    QTest::newRow("flush") << QByteArray("flush") << QByteArray() << QByteArray() << 0;
    QTest::newRow("watch nothing there")
        << QByteArray("watch /settings/audio/volum") << QByteArray()
        << QByteArray("tulo-cm: line 1: Invalid path '/settings/audio/volum'\n") << 3;
    QTest::newRow("initial value")
        << QByteArray("watch --initial /settings/audio/volume")
        << QByteArray("value /settings/audio/volume 35\n") << QByteArray() << 0;
    QTest::newRow("count is without the initial value")
        << QByteArray("watch --initial --count 1 /settings/audio/volume\n"
                      "set /settings/audio/volume 40\nset /settings/audio/volume 45")
        << QByteArray("value /settings/audio/volume 35\nvalue /settings/audio/volume 40\n40\n45\n")
        << QByteArray() << 0;
    QTest::newRow("paths without and with a slash too many")
        << QByteArray("watch settings/audio/volume/\nset /settings/audio/volume 40\n"
                      "unwatch settings/audio/volume\nset /settings/audio/volume 45")
        << QByteArray("value /settings/audio/volume 40\ndata /settings/audio/volume\n40\n45\n")
        << QByteArray() << 0;
    QTest::newRow("initial rows") << QByteArray("watch --initial /settings/audio")
                                  << QByteArray("rows /settings/audio\n") << QByteArray() << 0;
    QTest::newRow("count of nothing")
        << QByteArray("watch /settings/audio --count 0") << QByteArray()
        << QByteArray("tulo-cm: line 1: '--count' needs a number above 0\n") << 2;
}

void TstShell::lines()
{
    QFETCH(QByteArray, line);
    const CommandLine cli;

    const ChildResult result = cli.run(textWords(), line + '\n');

    QTEST(result.standardOutput, "output");
    QTEST(result.standardError, "error");
    QTEST(result.exitCode, "exitCode");
}

void TstShell::jsonLines_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<int>("exitCode");

    QTest::newRow("error in its place")
        << QByteArray("get /settings/none /settings/audio/volume")
        << QByteArray(R"({"error":{"message":"Invalid path '/settings/none'","name":"InvalidPath",)"
                      R"("title":"Error"},"path":"/settings/none"})"
                      "\n"
                      R"({"path":"/settings/audio/volume","roles":{"value":{"int":35}}})"
                      "\n")
        << 3;
    QTest::newRow("usage in its place")
        << QByteArray("gte")
        << QByteArray(
               R"({"error":{"message":"unknown command 'gte'; commands are: get, ls, tree, )"
               R"(find, describe, explain, diff, )"
               R"(set, op, reset, watch, unwatch, dump, flush, drop-cache, check, status, cd, wait, help, quit",)"
               R"("name":"Usage","title":"Error"},"path":""})"
               "\n")
        << 2;
    QTest::newRow("flush") << QByteArray("flush")
                           << QByteArray(R"({"done":true,"path":"/settings/actions/flush"})"
                                         "\n")
                           << 0;
    QTest::newRow("initial rows")
        << QByteArray("watch --initial /settings/audio")
        << QByteArray(R"({"command":"","event":"rows","path":"/settings/audio","rowsVersion":0})"
                      "\n")
        << 0;
}

void TstShell::jsonLines()
{
    QFETCH(QByteArray, line);
    const CommandLine cli;

    const ChildResult result = cli.run(jsonWords(), line + '\n');

    QTEST(result.standardOutput, "output");
    QCOMPARE(result.standardError, QByteArray());
    QTEST(result.exitCode, "exitCode");
}

void TstShell::lastLineNeedsNoLineEnd()
{
    const CommandLine cli;

    const ChildResult result = cli.run(textWords(), "get /settings/audio/volume");

    QCOMPARE(result.standardOutput, QByteArray("35\n"));
    QCOMPARE(result.exitCode, 0);
}

void TstShell::errorsDoNotEndIt()
{
    const CommandLine cli;

    const ChildResult result =
        cli.run(textWords(),
                "get /settings/none\nfrobnicate\nset /settings/serial X2\nget /settings/serial\n");

    QCOMPARE(result.standardOutput, QByteArray("X1\n"));
    QCOMPARE(result.exitCode, 3); // of the first
}

void TstShell::helpIsWhatCanBeTypedThere()
{
    const CommandLine cli;

    const ChildResult result = cli.run("shell", "help flush\nflush --help\n");

    const QByteArray help = "Usage: flush\n"
                            "\n"
                            "Writes all pending changes and syncs the file systems.\n"
                            "\n"
                            "Example:\n"
                            "  flush\n";
    QCOMPARE(result.standardOutput, help + help);
    QCOMPARE(result.exitCode, 0);
}

void TstShell::endOfInputFlushes()
{
    const CommandLine cli;

    const ChildResult result = cli.run(textWords(), "set /settings/audio/volume 40\n");

    QCOMPARE(result.exitCode, 0);
    QVERIFY(!cli.tree.readWritten(QStringLiteral("/audio/volume")).isNull());
}

void TstShell::quitFlushes()
{
    const CommandLine cli;

    const ChildResult result =
        cli.run(textWords(), "set /settings/audio/volume 40\nquit\nget /settings/audio/volume\n");

    QCOMPARE(result.standardOutput, QByteArray("40\n"));
    QVERIFY(!cli.tree.readWritten(QStringLiteral("/audio/volume")).isNull());
}

void TstShell::signalFlushes_data()
{
    QTest::addColumn<int>("number");
    QTest::newRow("SIGINT") << SIGINT;
    QTest::newRow("SIGTERM") << SIGTERM;
    QTest::newRow("SIGHUP") << SIGHUP;
}

void TstShell::signalFlushes()
{
    QFETCH(int, number);
    const CommandLine cli;
    ChildProcess shell(program, cli.arguments(textWords()));
    QVERIFY(shell.start());
    shell.writeInput("set /settings/audio/volume 40\n");
    QVERIFY(shell.waitForOutput("40\n"));

    shell.sendSignal(number);
    const ChildResult result = shell.finish();

    QCOMPARE(result.signal, 0);
    QCOMPARE(result.exitCode, 0);
    QVERIFY(!cli.tree.readWritten(QStringLiteral("/audio/volume")).isNull());
}

void TstShell::ignoredHangUpStaysIgnored()
{
    const CommandLine cli;
    QStringList words { QStringLiteral("-c"), QStringLiteral("trap '' HUP; exec \"$@\""),
                        QStringLiteral("sh"), program };
    words += cli.arguments(textWords());
    ChildProcess shell(QStringLiteral("/bin/sh"), words);
    QVERIFY(shell.start());
    shell.writeInput("get /settings/audio/volume\n");
    QVERIFY(shell.waitForOutput("35\n"));

    shell.sendSignal(SIGHUP);
    shell.writeInput("get /settings/serial\n");

    QVERIFY(shell.waitForOutput("X1\n"));
    shell.closeInput();
    QCOMPARE(shell.finish().exitCode, 0);
}

void TstShell::signalEndsWait()
{
    const CommandLine cli;
    ChildProcess shell(program, cli.arguments(textWords()));
    QVERIFY(shell.start());
    shell.writeInput("get /settings/serial\nwait 3600000\n");
    QVERIFY(shell.waitForOutput("X1\n"));

    shell.sendSignal(SIGINT);

    QCOMPARE(shell.finish().exitCode, 0);
}

void TstShell::closedPipeFlushesAndEndsQuietly()
{
    const CommandLine cli;
    QStringList words { QStringLiteral("-c"), QStringLiteral("\"$@\" | head -n 1"),
                        QStringLiteral("sh"), program };
    words += cli.arguments(textWords());

    // Enough output to overflow the pipe, which head has left by then.
    QByteArray input = "set /settings/audio/volume 40\n";
    for (int i = 0; i < 3000; ++i)
        input += "ls /settings/audio --role value --role title --role edit\n";
    const ChildResult result = ChildProcess::run(QStringLiteral("/bin/sh"), words, input);

    QCOMPARE(result.standardOutput, QByteArray("40\n"));
    QVERIFY(!result.standardError.contains("roken pipe"));
    QVERIFY(!cli.tree.readWritten(QStringLiteral("/audio/volume")).isNull());
}

void TstShell::countEndsWatching()
{
    const CommandLine cli;

    const ChildResult result =
        cli.run(textWords(),
                "watch /settings/audio/volume /settings/audio/mode --count 3\n"
                "set /settings/audio/volume 40\n"
                "set /settings/audio/mode low\n"
                "set /settings/audio/volume 45\n"
                "watch /settings/audio/volume\n"
                "unwatch\n"
                "set /settings/audio/volume 50\n");

    QCOMPARE(result.standardOutput,
             QByteArray("value /settings/audio/volume 40\n"
                        "data /settings/audio/volume\n"
                        "40\n"
                        "value /settings/audio/mode low\n"
                        "low\n"
                        "45\n"
                        "50\n"));
    QCOMPARE(result.exitCode, 0);
}

void TstShell::secondShellOnlyReads()
{
    const CommandLine cli;
    ChildProcess owner(program, cli.arguments(textWords()));
    QVERIFY(owner.start());
    owner.writeInput("get /settings/serial\n");
    QVERIFY(owner.waitForOutput("X1\n"));

    const ChildResult second =
        cli.run(textWords(), "get /settings/audio/volume\nset /settings/audio/volume 40\n");

    const QByteArray holder = QByteArray::number(owner.processId());
    QCOMPARE(second.standardOutput, QByteArray("35\n"));
    const QList<QByteArray> errors = second.standardError.split('\n');
    QCOMPARE(errors.size(), 3);
    QVERIFY(errors.at(0).contains("process " + holder));
    QVERIFY(errors.at(0).endsWith("; this shell only reads"));
    QVERIFY(errors.at(1).contains("process " + holder));
    QCOMPARE(second.exitCode, 7);
}

void TstShell::dropCacheReadsFilesAgain()
{
    const CommandLine cli;
    ChildProcess shell(program, cli.arguments(textWords()));
    QVERIFY(shell.start());
    shell.writeInput("get /settings/audio/mode\n");
    QVERIFY(shell.waitForOutput("mid\n"));

    cli.tree.writeWritten(QStringLiteral("/audio/mode"), R"({"value":{"string":"low"}})");
    shell.writeInput("get /settings/audio/mode\ndrop-cache\nget /settings/audio/mode\n");
    shell.closeInput();

    QCOMPARE(shell.finish().standardOutput, QByteArray("mid\nmid\nlow\n"));
}

void TstShell::unsavedChangeIsToldAtTheEnd()
{
    const CommandLine cli;
    // A directory where the temporary file has to be.
    cli.tree.writeWritten(QStringLiteral("/audio/.volume/kept"), QByteArray("{}"));

    const ChildResult result =
        cli.run({ QStringLiteral("--log-level"), QStringLiteral("off"), QStringLiteral("shell") },
                "set /settings/audio/volume 40\n");

    QCOMPARE(result.standardOutput, QByteArray("40\n"));
    QVERIFY(result.standardError.startsWith("tulo-cm: not on disk: /settings/audio/volume"));
    QCOMPARE(result.exitCode, 6);
}

void TstShell::statusIsThatOfThisProcess()
{
    const CommandLine cli;
    ChildProcess shell(program, cli.arguments(jsonWords()));
    QVERIFY(shell.start());

    // Asked now, as nothing is known of a process that has ended.
    const QByteArray processId = "\"processId\":" + QByteArray::number(shell.processId()) + ',';

    shell.writeInput("set /settings/audio/volume 40\nstatus\n");
    QVERIFY(shell.waitForOutput("\"writable\""));
    shell.closeInput();
    const ChildResult result = shell.finish();

    const QByteArray status = result.standardOutput.split('\n').value(1);
    QVERIFY2(status.contains(processId), status);
    QVERIFY2(status.contains("\"defaultPath\":\"" + cli.tree.defaultPath().toUtf8() + '"'), status);
    QVERIFY2(status.contains("\"writePath\":\"" + cli.tree.writePath().toUtf8() + '"'), status);
    QVERIFY2(status.contains("\"writable\":true"), status);
    QCOMPARE(result.exitCode, 0);
}

QTEST_GUILESS_MAIN(TstShell)
#include "tst_shell.moc"
