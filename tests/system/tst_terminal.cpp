#include "tests/support/terminal.h"
#include "tests/system/commandline.h"

#include <QTest>

#include <algorithm>

namespace {

// Without colours, so that each control sequence comes from what is printed.
void start(Terminal* terminal, const CommandLine& cli, const QStringList& words)
{
    terminal->setVariable("NO_COLOR", "1");
    terminal->start(QStringLiteral(TULO_CM_PROGRAM), cli.arguments(words));
}

// Sets colours, goes to the title, deletes, begins C1 sequences, turns the direction round and
// breaks lines in three ways.
const char hostileJson[] =
    R"({"value":{"string":"a\u001b[31m\u007f\u0085\u009b31m\u202eb\u2066\u2028\u2029\u00ad\ufeffc\n"}})";
const char hostileCell[] =
    R"("a\u001B[31m\u007F\u0085\u009B31m\u202Eb\u2066\u2028\u2029\u00AD\uFEFFc\n")";

QByteArray hostileText()
{
    return "a\x1b[31m\x7f\xc2\x85\xc2\x9b"
           "31m\xe2\x80\xae"
           "b\xe2\x81\xa6\xe2\x80\xa8\xe2\x80\xa9\xc2\xad\xef\xbb\xbf"
           "c\n";
}

// Everything but line ends.
bool controlsTerminal(const QByteArray& output)
{
    const QString text = QString::fromUtf8(output);
    return std::any_of(text.cbegin(), text.cend(), [](QChar c) {
        switch (c.category()) {
        case QChar::Other_Control:
            return c != QLatin1Char('\n');
        case QChar::Other_Format:
        case QChar::Separator_Line:
        case QChar::Separator_Paragraph:
            return true;
        default:
            return false;
        }
    });
}

} // namespace

/// The program on a terminal: nothing that a setting or a file name holds gets through to it.
class TstTerminal : public QObject
{
    Q_OBJECT

private slots:
    void hostileValue_data();
    void hostileValue();
    void hostileFileName_data();
    void hostileFileName();
    void hostileLogRecord();
    void joinersAreShown();
    void pipeGetsTheValueAsItIs();
    void pipeGetsEscapesInCellsEventsAndJson_data();
    void pipeGetsEscapesInCellsEventsAndJson();
};

void TstTerminal::hostileValue_data()
{
    QTest::addColumn<QStringList>("words");
    const QString path = QStringLiteral("/settings/hostile");
    QTest::newRow("get") << QStringList { QStringLiteral("get"), path };
    QTest::newRow("get, as JSON") << QStringList { QStringLiteral("get"), path,
                                                   QStringLiteral("--json") };
    QTest::newRow("get of two") << QStringList { QStringLiteral("get"), path, path };
    QTest::newRow("get of all roles")
        << QStringList { QStringLiteral("get"), path, QStringLiteral("--all") };
    QTest::newRow("ls") << QStringList { QStringLiteral("ls"), QStringLiteral("/settings") };
    QTest::newRow("tree") << QStringList { QStringLiteral("tree") };
    QTest::newRow("set") << QStringList { QStringLiteral("set"), path,
                                          QString::fromUtf8(hostileText()) };
}

void TstTerminal::hostileValue()
{
    QFETCH(QStringList, words);
    const CommandLine cli;
    cli.tree.writeDefault(QStringLiteral("/hostile"), hostileJson);

    Terminal terminal(200);
    start(&terminal, cli, words);

    QCOMPARE(terminal.wait(), 0);
    QVERIFY2(terminal.output().contains(hostileCell), terminal.output());
    QVERIFY(!controlsTerminal(terminal.output()));
}

void TstTerminal::hostileFileName_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::newRow("finding") << QStringList { QStringLiteral("check") };
    QTest::newRow("finding, as JSON")
        << QStringList { QStringLiteral("--json"), QStringLiteral("check") };
    QTest::newRow("message") << QStringList { QStringLiteral("get"),
                                              QStringLiteral("/settings/x\x1b[31m\u202e") };
    QTest::newRow("message of a path that is served")
        << QStringList { QStringLiteral("get"), QStringLiteral("/settings/[31m\u202e") };
    QTest::newRow("usage") << QStringList { QStringLiteral("x\x1b[31m\u202e") };
}

void TstTerminal::hostileFileName()
{
    QFETCH(QStringList, words);
    const CommandLine cli;
    cli.tree.writeDefault(QStringLiteral("/x\x1b[31m\u202e"), "{}");

    Terminal terminal(200);
    start(&terminal, cli, words);

    QVERIFY(terminal.wait() > 0);
    QVERIFY2(terminal.output().contains("[31m"), terminal.output());
    QVERIFY2(!controlsTerminal(terminal.output()), terminal.output());
}

void TstTerminal::hostileLogRecord()
{
    const CommandLine cli;

    Terminal terminal(200);
    start(&terminal, cli,
          { QStringLiteral("--log-level"), QStringLiteral("trace"), QStringLiteral("get"),
            QStringLiteral("/settings/audio/\u202e") });

    QCOMPARE(terminal.wait(), 3);
    QVERIFY2(terminal.output().contains("TRACE CMSettingsWorker: "), terminal.output());
    QVERIFY2(terminal.output().contains("/audio/\\u202E"), terminal.output());
    QVERIFY(!controlsTerminal(terminal.output()));
}

void TstTerminal::joinersAreShown()
{
    const CommandLine cli;
    const QByteArray text =
        "\xd9\x86\xe2\x80\x8c\xd9\x87 \xf0\x9f\x91\xa9\xe2\x80\x8d\xf0\x9f\x94\xa7";
    cli.tree.writeDefault(QStringLiteral("/joined"), "{\"value\":{\"string\":\"" + text + "\"}}");

    Terminal terminal(200);
    start(&terminal, cli, { QStringLiteral("get"), QStringLiteral("/settings/joined") });

    QCOMPARE(terminal.wait(), 0);
    QCOMPARE(terminal.output(), text + '\n');
}

void TstTerminal::pipeGetsTheValueAsItIs()
{
    const CommandLine cli;
    cli.tree.writeDefault(QStringLiteral("/hostile"), hostileJson);

    const ChildResult result = cli.run("get /settings/hostile");

    QCOMPARE(result.standardOutput, hostileText() + '\n');
}

void TstTerminal::pipeGetsEscapesInCellsEventsAndJson_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("cell") << QByteArray("get /settings/hostile /settings/hostile");
    QTest::newRow("row") << QByteArray("ls /settings");
    QTest::newRow("event") << QByteArray("watch --initial /settings/hostile");
}

void TstTerminal::pipeGetsEscapesInCellsEventsAndJson()
{
    QFETCH(QByteArray, line);
    const CommandLine cli;
    cli.tree.writeDefault(QStringLiteral("/hostile"), hostileJson);

    const ChildResult text = cli.run("shell", line);
    const ChildResult json = cli.run("--json shell", line);

    for (const ChildResult& result : { text, json }) {
        QCOMPARE(result.exitCode, 0);
        QVERIFY2(result.standardOutput.contains(hostileCell), result.standardOutput);
        QVERIFY(!controlsTerminal(result.standardOutput));
    }
}

QTEST_GUILESS_MAIN(TstTerminal)
#include "tst_terminal.moc"
