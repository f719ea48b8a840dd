#include "tests/support/files.h"
#include "tests/support/terminal.h"
#include "tests/system/commandline.h"

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <csignal>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const QString program = QStringLiteral(TULO_CM_PROGRAM);

/// A socket that takes connections as a bus would and says nothing.
class SilentBus
{
public:
    SilentBus()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const QByteArray file = QFile::encodeName(fileName());
        qstrncpy(address.sun_path, file.constData(), sizeof address.sun_path);
        m_socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0
            || ::listen(m_socket, 1) != 0)
            qFatal("no socket");
    }
    ~SilentBus() { close(); }
    Q_DISABLE_COPY(SilentBus)

    QString address() const { return QStringLiteral("unix:path=") + fileName(); }
    /// Ends the connections, too.
    void close()
    {
        if (m_socket >= 0)
            ::close(m_socket);
        m_socket = -1;
    }

private:
    QString fileName() const { return m_folder.filePath(QStringLiteral("bus")); }

    const QTemporaryDir m_folder;
    int m_socket = -1;
};

/// Catches the key that interrupts and ends with the line that is typed after it, whether the
/// signal comes while it reads or just before.
constexpr char pagerThatReads[] = "trap 'echo caught' INT; cat > /dev/null; "
                                  "stty -echo < /dev/tty; echo reads; "
                                  "until read line < /dev/tty; do :; done; "
                                  "stty echo < /dev/tty; echo left";

QStringList words(const char* line)
{
    return QString::fromUtf8(line).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

} // namespace

/// What a person sees on a terminal: the same commands, in another shape than for a program.
class TstPeople : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void tableFitsTheTerminal();
    void tableHasMarks();
    void coloursFollowTheEnvironment_data();
    void coloursFollowTheEnvironment();
    void jsonIsAsInAPipe();
    void timestampIsALocalDate();
    void constraintsAreInWords();
    void wordsOfTheTreeAreEscaped();
    void misspeltWordGetsAHint_data();
    void misspeltWordGetsAHint();
    void settingIsNotListed();
    void hintIsForATerminal();
    void watchOfATreeNamesRowsAndSaysEachChangeOnce();

    void longOutputGoesThroughThePager();
    void shortOutputGoesThroughNoPager();
    void pagerIsChosenByTheEnvironment_data();
    void pagerIsChosenByTheEnvironment();
    void pagerStartsNoShellUnderSudo();
    void pagerThatDoesNotStartCostsNothing();
    void pagerThatEndsEarlyIsNoError();
    void errorsFollowThePagedOutput();
    void interruptionIsThePagers();
    void shellServesEventsWhileThePagerRuns();

    void progressIsShownAndErased();
    void interruptionTakesColoursAndProgressBack();

private:
    CommandLine m_cli;
};

void TstPeople::init()
{
    for (const char* name : { "NO_COLOR", "TULO_PAGER", "PAGER", "COLUMNS", "LINES" })
        qunsetenv(name);
    qputenv("TZ", "TEST-3");
}

// ---------------------------------------------------------------------------------------------
// Tables.
// ---------------------------------------------------------------------------------------------

void TstPeople::tableFitsTheTerminal()
{
    const CommandLine cli;
    Terminal terminal(26, 10);

    terminal.start(program, cli.arguments(words("ls /settings/audio --role value --role title")));

    COMPARE_SCREEN(terminal,
                   QStringLiteral("name     value     title\n"
                                  "gain     0.5       gain\n"
                                  "loudne\u2026  true      Loudne\u2026\n"
                                  "mode     mid       mode\n"
                                  "sources  [\"fm\",\"\u2026  sources\n"
                                  "volume   35        Volume\n|"));
    QCOMPARE(terminal.wait(), 0);
}

void TstPeople::tableHasMarks()
{
    const CommandLine cli;
    QCOMPARE(cli.run("set /settings/audio/volume 40").exitCode, 0);
    for (const char* line : { "ls", "tree", "find e" }) {
        Terminal terminal(80, 40);

        terminal.start(program, cli.arguments(words(line)));

        QCOMPARE(terminal.wait(), 0);
        const QString screen = QLatin1Char('\n') + terminal.screen();
        QVERIFY2(screen.contains(QRegularExpression(QStringLiteral("\n= [a-z/ ]*serial  +X1"))),
                 qPrintable(screen));
        const bool hasVolume = screen.contains(QLatin1String("volume"));
        QCOMPARE(hasVolume, qstrcmp(line, "ls") != 0);
        const QRegularExpression changed(QStringLiteral("\n\\* [a-z/ ]*volume  +40"));
        QVERIFY2(!hasVolume || screen.contains(changed), qPrintable(screen));
    }
}

void TstPeople::coloursFollowTheEnvironment_data()
{
    QTest::addColumn<QByteArray>("variable");
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<bool>("areShown");
    const QByteArray noColor("NO_COLOR");
    QTest::newRow("nothing set") << QByteArray("X") << QByteArray() << QStringList() << true;
    QTest::newRow("NO_COLOR") << noColor << QByteArray("1") << QStringList() << false;
    QTest::newRow("NO_COLOR is empty") << noColor << QByteArray() << QStringList() << true;
    QTest::newRow("NO_COLOR, asked for")
        << noColor << QByteArray("1") << words("--color always") << true;
    QTest::newRow("not wanted") << QByteArray("X") << QByteArray() << words("--color never")
                                << false;
    QTest::newRow("dumb terminal")
        << QByteArray("TERM") << QByteArray("dumb") << QStringList() << false;
}

void TstPeople::coloursFollowTheEnvironment()
{
    QFETCH(QByteArray, variable);
    QFETCH(QByteArray, value);
    QFETCH(QStringList, options);
    QFETCH(bool, areShown);
    Terminal results;
    Terminal errors;

    results.setVariable(variable, value);
    results.start(program, m_cli.arguments(options + words("ls")));
    errors.setVariable(variable, value);
    errors.start(program, m_cli.arguments(options + words("get /settings/nothing")));

    QCOMPARE(results.wait(), 0);
    QCOMPARE(results.output().contains("\x1b[2mserial "), areShown);
    QCOMPARE(results.output().contains("\x1b[1;34maudio/\x1b[0m"), areShown);
    QCOMPARE(errors.wait(), 3);
    QCOMPARE(errors.output().startsWith("\x1b[31mtulo-cm: "), areShown);
    QCOMPARE(results.output().contains('\x1b') || errors.output().contains('\x1b'), areShown);
}

void TstPeople::jsonIsAsInAPipe()
{
    for (const char* line :
         { "--json ls", "--json tree", "--json get /settings/audio/volume --all",
           "--json explain /settings/audio/volume", "--json help", "--json find volume",
           "--json --color always get /settings/nothing" }) {
        const ChildResult inPipe = m_cli.run(line);
        Terminal terminal(20, 5);

        terminal.start(program, m_cli.arguments(words(line)));

        QCOMPARE(terminal.wait(), inPipe.exitCode);
        QCOMPARE(terminal.output(), inPipe.standardOutput + inPipe.standardError);
    }
}

// ---------------------------------------------------------------------------------------------
// Roles in words.
// ---------------------------------------------------------------------------------------------

void TstPeople::timestampIsALocalDate()
{
    const CommandLine cli;
    const QStringList line = words("get /settings/audio/volume --role timestamp");
    QCOMPARE(
        cli.run(words(R"(set /settings/audio/volume --roles {"value":40,"timestamp":86400000})"))
            .exitCode,
        0);
    Terminal terminal;

    terminal.start(program, cli.arguments(line));

    QCOMPARE(terminal.wait(), 0);
    QCOMPARE(terminal.output(), QByteArray("1970-01-02 03:00:00\n"));
    QCOMPARE(cli.run(line).standardOutput, QByteArray("86400000\n"));
}

void TstPeople::constraintsAreInWords()
{
    const char* const inWords = "a whole number from 0 to 100 in steps of 5";
    for (const char* line :
         { "get /settings/audio/volume --all", "get /settings/audio/volume --role edit",
           "explain /settings/audio/volume", "ls /settings/audio --role edit" }) {
        Terminal terminal(300, 40);

        terminal.start(program, m_cli.arguments(words(line)));

        QCOMPARE(terminal.wait(), 0);
        QVERIFY2(terminal.output().contains(inWords), terminal.output());
        QVERIFY(!m_cli.run(line).standardOutput.contains(inWords));
    }
    Terminal choices(300, 40);
    choices.start(program, m_cli.arguments(words("get /settings/audio/mode --role edit")));
    QCOMPARE(choices.wait(), 0);
    QCOMPARE(choices.output(), QByteArray("one of low, mid, high\n"));
}

void TstPeople::wordsOfTheTreeAreEscaped()
{
    const CommandLine cli;
    cli.tree.writeDefault(
        QStringLiteral("/hostile"),
        R"({"title":"a\u001b[31m","value":{"string":"x"},"edit":{"values":["x","b\u009b31m\n"]}})");
    for (const char* line : { "get /settings/hostile --all", "get /settings/hostile --role edit",
                              "explain /settings/hostile", "ls --role edit", "find hostile" }) {
        Terminal terminal(300, 40);
        terminal.setVariable("NO_COLOR", "1");

        terminal.start(program, cli.arguments(words(line)));

        QCOMPARE(terminal.wait(), 0);
        const QString shown = QString::fromUtf8(terminal.output());
        QVERIFY2(shown.contains(QLatin1String("\\u00")), qPrintable(shown));
        QVERIFY(std::none_of(shown.cbegin(), shown.cend(), [](QChar c) {
            return c.category() == QChar::Other_Control && c != QLatin1Char('\n');
        }));
    }
}

// ---------------------------------------------------------------------------------------------
// Hints.
// ---------------------------------------------------------------------------------------------

void TstPeople::misspeltWordGetsAHint_data()
{
    QTest::addColumn<QStringList>("line");
    QTest::addColumn<QByteArray>("hint"); ///< null: none
    QTest::addColumn<int>("exitCode");
    const auto row = [](const char* line, const char* hint, int exitCode) {
        QTest::newRow(line) << words(line) << QByteArray(hint) << exitCode;
    };
    row("gett /settings/serial", "get", 2);
    row("frobnicate", nullptr, 2);
    row("help treee", "tree", 2);
    row("get --rolle title /settings/serial", "--role", 2);
    row("get --frobnicate /settings/serial", nullptr, 2);
    row("get /settings/audio/volum", "/settings/audio/volume", 3);
    row("set /settings/audio/vloume 3", "/settings/audio/volume", 3);
    row("explain settings/serail/", "/settings/serial", 3);
    row("ls /settings/adio", "/settings/audio", 3);
    // The rest as it was typed, when it is there.
    row("get /settings/adio/volume", "/settings/audio/volume", 3);
    row("get /setings/audio/volume", "/settings/audio/volume", 3);
    row("get /settings/adio/brightness", "/settings/audio", 3);
    row("get /settings/brightness", nullptr, 3);
    // Nothing is below a setting.
    row("get /settings/serial/volume", nullptr, 3);
}

void TstPeople::misspeltWordGetsAHint()
{
    QFETCH(QStringList, line);
    QFETCH(QByteArray, hint);
    QFETCH(int, exitCode);
    const ChildResult inPipe = m_cli.run(line);
    Terminal terminal(400, 10);
    terminal.setVariable("NO_COLOR", "1");

    terminal.start(program, m_cli.arguments(line));

    QCOMPARE(terminal.wait(), exitCode);
    QCOMPARE(inPipe.exitCode, exitCode);
    // Behind the error, whose text stays.
    QByteArrayList lines = inPipe.standardError.split('\n');
    if (!hint.isNull())
        lines.insert(1, "tulo-cm: did you mean '" + hint + "'?");
    QCOMPARE(terminal.output(), lines.join('\n'));
}

void TstPeople::settingIsNotListed()
{
    Terminal terminal(200, 10);
    terminal.setVariable("NO_COLOR", "1");

    terminal.start(program, m_cli.arguments(words("ls /settings/audio/volume")));

    QCOMPARE(terminal.wait(), 3);
    QCOMPARE(terminal.output(),
             QByteArray("tulo-cm: Invalid path '/settings/audio/volume'\n"
                        "tulo-cm: '/settings/audio/volume' is a setting, not a directory\n"));
}

void TstPeople::hintIsForATerminal()
{
    const ChildResult result = m_cli.run("get /settings/audio/volum");

    QCOMPARE(result.standardError, QByteArray("tulo-cm: Invalid path '/settings/audio/volum'\n"));
}

// ---------------------------------------------------------------------------------------------
// Events.
// ---------------------------------------------------------------------------------------------

void TstPeople::watchOfATreeNamesRowsAndSaysEachChangeOnce()
{
    const CommandLine cli;
    QTemporaryDir folder;
    const QString script = folder.filePath(QStringLiteral("script"));
    writeFile(script,
              "watch -r /settings/presets\n"
              "set /settings/presets/two fm:99.9\n"
              "set /settings/presets/four fm:99.9\n"
              "set /settings/presets/one fm:90.1\n"
              "reset -r /settings/presets\n");
    const QStringList arguments { QStringLiteral("-c"),
                                  QStringLiteral("'%1' %2 shell < '%3'")
                                      .arg(program, cli.arguments({}).join(QLatin1Char(' ')),
                                           script) };
    Terminal terminal(80, 40);

    terminal.start(QStringLiteral("/bin/sh"), arguments);

    QCOMPARE(terminal.wait(), 0);
    QCOMPARE(terminal.output(),
             QByteArray("value /settings/presets/two fm:99.9\n"
                        "row /settings/presets/two appeared\n"
                        "fm:99.9\n"
                        "value /settings/presets/four fm:99.9\n"
                        "row /settings/presets/four appeared\n"
                        "fm:99.9\n"
                        "value /settings/presets/one fm:90.1\n"
                        "fm:90.1\n"
                        "data /settings/presets/four\n"
                        "data /settings/presets/one\n"
                        "data /settings/presets/two\n"
                        "row /settings/presets/two gone\n"
                        "row /settings/presets/four gone\n"
                        "/settings/presets/four\n"
                        "/settings/presets/one\n"
                        "/settings/presets/two\n"));
}

// ---------------------------------------------------------------------------------------------
// The pager.
// ---------------------------------------------------------------------------------------------

void TstPeople::longOutputGoesThroughThePager()
{
    for (const char* line :
         { "tree", "find e", "describe --markdown", "help", "explain /settings/audio/volume" }) {
        const QByteArray inPipe = m_cli.run(line).standardOutput;
        Terminal terminal(400, 5);
        terminal.setVariable("TULO_PAGER", "sed 's/^/> /'");

        terminal.start(program, m_cli.arguments(words("--color never") + words(line)));

        QCOMPARE(terminal.wait(), 0);
        const QByteArrayList lines = terminal.output().split('\n');
        QCOMPARE(lines.size(), inPipe.count('\n') + 1);
        for (const QByteArray& shown : lines.mid(0, lines.size() - 1))
            QVERIFY2(shown.startsWith("> "), shown);
    }
}

void TstPeople::shortOutputGoesThroughNoPager()
{
    Terminal terminal(80, 24);
    terminal.setVariable("TULO_PAGER", "sed 's/^/> /'");

    terminal.start(program, m_cli.arguments(words("tree /settings/presets")));

    QCOMPARE(terminal.wait(), 0);
    QVERIFY2(!terminal.output().contains('>'), terminal.output());
}

void TstPeople::pagerIsChosenByTheEnvironment_data()
{
    QTest::addColumn<QByteArray>("ours"); ///< null: not set
    QTest::addColumn<QByteArray>("general");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("first"); ///< of the output
    const QByteArray unset;
    const QByteArray empty("");
    const QByteArray one("sed 's/^/1/'");
    const QByteArray two("sed 's/^/2/'");
    QTest::newRow("TULO_PAGER") << one << two << QStringList() << QByteArray("1");
    QTest::newRow("PAGER") << unset << two << QStringList() << QByteArray("2");
    QTest::newRow("empty") << empty << two << QStringList() << QByteArray(" ");
    QTest::newRow("cat") << unset << QByteArray("cat") << QStringList() << QByteArray(" ");
    QTest::newRow("--no-pager") << one << two << words("--no-pager") << QByteArray(" ");
}

void TstPeople::pagerIsChosenByTheEnvironment()
{
    QFETCH(QByteArray, ours);
    QFETCH(QByteArray, general);
    QFETCH(QStringList, options);
    QFETCH(QByteArray, first);
    Terminal terminal(80, 5);
    if (!ours.isNull())
        terminal.setVariable("TULO_PAGER", ours);
    if (!general.isNull())
        terminal.setVariable("PAGER", general);

    terminal.start(program, m_cli.arguments(words("--color never") + options + words("tree")));

    QCOMPARE(terminal.wait(), 0);
    QCOMPARE(terminal.output().left(1), first);
}

void TstPeople::pagerStartsNoShellUnderSudo()
{
    Terminal terminal(80, 5);
    terminal.setVariable("SUDO_UID", "1000");
    terminal.setVariable("TULO_PAGER", "echo \"secure=$LESSSECURE.\"; cat >/dev/null");

    terminal.start(program, m_cli.arguments(words("tree")));

    QCOMPARE(terminal.wait(), 0);
    QVERIFY2(terminal.output().contains("secure=1."), terminal.output());
}

void TstPeople::pagerThatDoesNotStartCostsNothing()
{
    Terminal plain(80, 5);
    plain.start(program, m_cli.arguments(words("--no-pager tree")));
    QCOMPARE(plain.wait(), 0);
    Terminal terminal(80, 5);
    terminal.setVariable("TULO_PAGER", "/nowhere/pager");

    terminal.start(program, m_cli.arguments(words("tree")));

    QCOMPARE(terminal.wait(), 0);
    QVERIFY2(terminal.output().endsWith(plain.output()), terminal.output());
}

void TstPeople::pagerThatEndsEarlyIsNoError()
{
    Terminal terminal(80, 5);
    terminal.setVariable("TULO_PAGER", "true");

    terminal.start(program, m_cli.arguments(words("help")));

    QCOMPARE(terminal.wait(), 0);
    QCOMPARE(terminal.output(), QByteArray());
}

void TstPeople::errorsFollowThePagedOutput()
{
    const CommandLine cli;
    cli.tree.writeWritten(QStringLiteral("/audio/gain"), QByteArray(2 * 1024 * 1024, ' '));
    Terminal terminal(80, 5);
    terminal.setVariable("TULO_PAGER", "sed 's/^/> /'");

    terminal.start(program, cli.arguments(words("--color never --log-level off tree")));

    QCOMPARE(terminal.wait(), 1);
    const QByteArrayList lines = terminal.output().trimmed().split('\n');
    QVERIFY(lines.size() > 5);
    QVERIFY2(lines.last().startsWith("tulo-cm: row '/settings/audio/gain' left out: "),
             lines.last());
    for (const QByteArray& line : lines.mid(0, lines.size() - 1))
        QVERIFY2(line.startsWith("> "), line);
}

void TstPeople::interruptionIsThePagers()
{
    Terminal terminal(80, 5);
    terminal.setVariable("TULO_PAGER", pagerThatReads);
    terminal.start(program, m_cli.arguments(words("tree")));
    QVERIFY(terminal.waitForOutput("reads"));

    terminal.type("\x03\r");

    QCOMPARE(terminal.wait(), 0);
    QVERIFY2(terminal.output().endsWith("caught\nleft\n"), terminal.output());
}

// A change made before is written, and events are printed afterwards.
void TstPeople::shellServesEventsWhileThePagerRuns()
{
    const CommandLine cli;
    const QTemporaryDir state;
    Terminal terminal(80, 10);
    terminal.setVariable("XDG_STATE_HOME", QFile::encodeName(state.path()));
    terminal.setVariable("TULO_PAGER", pagerThatReads);
    terminal.start(program, cli.arguments(words("shell")));
    QVERIFY(terminal.waitFor(QStringLiteral("/settings> ")));
    terminal.type("set /settings/audio/volume 40\r");
    QVERIFY(terminal.waitForOutput("40\r\n"));
    terminal.type("tree\r");
    QVERIFY(terminal.waitForOutput("reads"));

    QTRY_VERIFY_WITH_TIMEOUT(!cli.tree.readWritten(QStringLiteral("/audio/volume")).isNull(),
                             ChildProcess::waitMs);

    terminal.type("\x03\r");
    QVERIFY(terminal.waitFor(QStringLiteral("caught\nleft\n/settings> ")));
    terminal.type("get /settings/serial\r");
    QVERIFY(terminal.waitFor(QStringLiteral("\nX1\n")));
    terminal.type("exit\r");
    QCOMPARE(terminal.wait(), 0);
}

// ---------------------------------------------------------------------------------------------
// Progress, and what is left on the terminal.
// ---------------------------------------------------------------------------------------------

void TstPeople::progressIsShownAndErased()
{
    SilentBus bus;
    Terminal terminal(200, 10);
    terminal.setVariable("NO_COLOR", "1");
    terminal.start(program,
                   { QStringLiteral("--bus"), bus.address(), QStringLiteral("get"),
                     QStringLiteral("/settings/serial") });
    QVERIFY(terminal.waitFor(QStringLiteral("waiting for the service ...")));

    bus.close();

    QCOMPARE(terminal.wait(), 7);
    const QString screen = terminal.screen();
    QVERIFY2(screen.startsWith(QLatin1String("tulo-cm: no service on the bus")),
             qPrintable(screen));
    QVERIFY2(!screen.contains(QLatin1String("waiting")), qPrintable(screen));
}

void TstPeople::interruptionTakesColoursAndProgressBack()
{
    const SilentBus bus;
    Terminal terminal;
    terminal.start(program,
                   { QStringLiteral("--bus"), bus.address(), QStringLiteral("get"),
                     QStringLiteral("/settings/serial") });
    QVERIFY(terminal.waitFor(QStringLiteral("waiting for the service ...")));

    terminal.sendSignal(SIGTERM);

    QCOMPARE(terminal.wait(), -1);
    QVERIFY2(terminal.output().endsWith("\x1b[0m\r\x1b[K"), terminal.output());
    QCOMPARE(terminal.screen(), QStringLiteral("|"));
}

QTEST_GUILESS_MAIN(TstPeople)
#include "tst_people.moc"
