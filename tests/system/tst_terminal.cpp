#include "tests/system/commandline.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QTest>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <vector>

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// The program on a terminal, which is its standard input, output and error.
class Terminal
{
public:
    explicit Terminal(const QStringList& arguments)
    {
        std::vector<QByteArray> words { QByteArrayLiteral(TULO_CM_PROGRAM) };
        for (const QString& argument : arguments)
            words.push_back(argument.toUtf8());
        std::vector<char*> argv;
        for (QByteArray& word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        m_child = ::forkpty(&m_descriptor, nullptr, nullptr, nullptr);
        if (m_child < 0)
            qFatal("no terminal");
        if (m_child == 0) {
            // No colours, so that each control sequence comes from what is printed.
            ::setenv("NO_COLOR", "1", 1);
            ::execv(argv.front(), argv.data());
            ::_exit(127);
        }
    }

    ~Terminal()
    {
        hangUp();
        if (m_child > 0) {
            ::kill(m_child, SIGKILL);
            ::waitpid(m_child, nullptr, 0);
        }
    }
    Q_DISABLE_COPY(Terminal)

    void type(const QByteArray& text) const
    {
        if (::write(m_descriptor, text.constData(), size_t(text.size())) != text.size())
            qFatal("cannot type");
    }

    /// Reads until `text` was shown; without one until the program has left the terminal.
    bool waitFor(const QByteArray& text = QByteArray())
    {
        const QDeadlineTimer deadline(ChildProcess::waitMs);
        while (text.isEmpty() || !m_shown.contains(text)) {
            pollfd output { m_descriptor, POLLIN, 0 };
            char bytes[4096];
            const int ready = ::poll(&output, 1, int(deadline.remainingTime()));
            const ssize_t count = ready > 0 ? ::read(m_descriptor, bytes, sizeof bytes) : ready;
            if (count > 0)
                m_shown.append(bytes, int(count));
            else if (ready == 0)
                return false;
            else if (count == 0 || errno != EINTR)
                return text.isEmpty();
        }
        return true;
    }

    /// All that was shown, with the line ends of a file.
    QByteArray shown() const { return QByteArray(m_shown).replace("\r\n", "\n"); }

    /// The terminal goes away, as when its window is closed.
    void hangUp()
    {
        if (m_descriptor >= 0)
            ::close(m_descriptor);
        m_descriptor = -1;
    }

    /// The exit code; -1 after a signal.
    int wait()
    {
        int status = 0;
        while (::waitpid(m_child, &status, 0) < 0 && errno == EINTR) { }
        m_child = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    QByteArray m_shown;
    int m_descriptor = -1;
    pid_t m_child = -1;
};

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
bool controlsTerminal(const QByteArray& shown)
{
    const QString text = QString::fromUtf8(shown);
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

/// The program on a terminal: nothing that a setting or a file name holds gets through to it, and
/// nothing is lost when it goes away.
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
    void typedLinesHaveNoNumbers();
    void closingTheTerminalSavesTheChange();
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

    Terminal terminal(cli.arguments(words));

    QVERIFY(terminal.waitFor());
    QCOMPARE(terminal.wait(), 0);
    QVERIFY2(terminal.shown().contains(hostileCell), terminal.shown());
    QVERIFY(!controlsTerminal(terminal.shown()));
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

    Terminal terminal(cli.arguments(words));

    QVERIFY(terminal.waitFor());
    QVERIFY(terminal.wait() > 0);
    QVERIFY2(terminal.shown().contains("[31m"), terminal.shown());
    QVERIFY2(!controlsTerminal(terminal.shown()), terminal.shown());
}

void TstTerminal::hostileLogRecord()
{
    const CommandLine cli;

    Terminal terminal(
        cli.arguments({ QStringLiteral("--log-level"), QStringLiteral("trace"),
                        QStringLiteral("get"), QStringLiteral("/settings/audio/\u202e") }));

    QVERIFY(terminal.waitFor());
    QCOMPARE(terminal.wait(), 3);
    QVERIFY2(terminal.shown().contains("TRACE CMSettingsWorker: "), terminal.shown());
    QVERIFY2(terminal.shown().contains("/audio/\\u202E"), terminal.shown());
    QVERIFY(!controlsTerminal(terminal.shown()));
}

void TstTerminal::joinersAreShown()
{
    const CommandLine cli;
    const QByteArray text =
        "\xd9\x86\xe2\x80\x8c\xd9\x87 \xf0\x9f\x91\xa9\xe2\x80\x8d\xf0\x9f\x94\xa7";
    cli.tree.writeDefault(QStringLiteral("/joined"), "{\"value\":{\"string\":\"" + text + "\"}}");

    Terminal terminal(cli.arguments({ QStringLiteral("get"), QStringLiteral("/settings/joined") }));

    QVERIFY(terminal.waitFor());
    QCOMPARE(terminal.wait(), 0);
    QCOMPARE(terminal.shown(), text + '\n');
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

void TstTerminal::typedLinesHaveNoNumbers()
{
    const CommandLine cli;
    Terminal terminal(cli.arguments({ QStringLiteral("shell") }));
    QVERIFY(terminal.waitFor("tulo-cm> "));

    terminal.type("get\nexit\n");

    QVERIFY(terminal.waitFor());
    QCOMPARE(terminal.wait(), 2);
    QVERIFY2(terminal.shown().contains("\ntulo-cm: missing arguments for 'get'"), terminal.shown());
}

void TstTerminal::closingTheTerminalSavesTheChange()
{
    const CommandLine cli;
    Terminal terminal(cli.arguments({ QStringLiteral("shell") }));
    QVERIFY(terminal.waitFor("tulo-cm> "));
    terminal.type("set /settings/audio/volume 40\n");
    QVERIFY(terminal.waitFor("40\r\ntulo-cm> "));

    terminal.hangUp();

    // Not by the signal; 1, as nothing can be printed any more.
    const int exitCode = terminal.wait();
    QVERIFY2(exitCode == 0 || exitCode == 1, QByteArray::number(exitCode));
    QVERIFY(!cli.tree.readWritten(QStringLiteral("/audio/volume")).isNull());
}

QTEST_GUILESS_MAIN(TstTerminal)
#include "tst_terminal.moc"
