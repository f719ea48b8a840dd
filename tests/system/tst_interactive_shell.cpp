#include "tests/daemon/servicefixture.h"
#include "tests/support/files.h"
#include "tests/support/terminal.h"
#include "tests/system/commandline.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <initializer_list>
#include <memory>

#include <unistd.h>

namespace {

// Keys.
const char interrupt[] = "\x03";
const char endOfInput[] = "\x04";
const char search[] = "\x12";
const char upKey[] = "\x1b[A";
const char leftKey[] = "\x1b[D";
const char homeKey[] = "\x1b[H";
const char deletion[] = "\x1b[3~";
const char backspace[] = "\x7f";

/// A person at the shell, with a home directory.
class Person
{
public:
    /// The shell serves the trees itself.
    Person()
        : m_options(cli.arguments({}))
    {
    }
    /// Through the service on this bus.
    explicit Person(const PrivateBus& bus)
        : m_options { QStringLiteral("--bus"), bus.address() }
    {
    }

    const CommandLine cli;
    const QTemporaryDir home;

    QString historyFile() const
    {
        return home.path() + QLatin1String("/.local/state/tulo-cm/history");
    }

    QByteArray history() const { return readFile(historyFile()); }

    void writeHistory(const QByteArray& content) const { writeFile(historyFile(), content); }

    /// Opens a shell.
    void sitDownAt(Terminal* terminal, const QStringList& options = {}) const
    {
        terminal->setVariable("HOME", QFile::encodeName(home.path()));
        terminal->setVariable("NO_COLOR", "1");
        const QStringList words = options + QStringList(QStringLiteral("shell"));
        terminal->start(QStringLiteral(TULO_CM_PROGRAM), m_options + words);
    }

private:
    const QStringList m_options;
};

QString lines(std::initializer_list<const char*> rows)
{
    QStringList texts;
    for (const char* const row : rows)
        texts.append(QString::fromUtf8(row));
    return texts.join(QLatin1Char('\n'));
}

/// A shell that serves the trees itself, and the person at it.
struct Shell
{
    explicit Shell(int columns = 80, int rows = 24)
        : terminal(columns, rows)
    {
    }

    /// Opens it and waits for the prompt.
    bool begin()
    {
        person.sitDownAt(&terminal);
        const QString prompt = lines({ "/settings> |" });
        return terminal.screenSoon(prompt) == prompt;
    }

    const Person person;
    Terminal terminal;
};

/// The first line of a shell once these keys were typed.
void compareLineAfter(const QByteArray& keys, const QString& line)
{
    Shell shell;
    QVERIFY(shell.begin());

    shell.terminal.type(keys);

    COMPARE_SCREEN(shell.terminal, lines({ "/settings> " }) + line);
}

/// Types a line and waits until it was run.
bool enter(Terminal* terminal, const QByteArray& line)
{
    terminal->type(line);
    if (!terminal->waitForEnd(lines({ "> " }) + QString::fromUtf8(line)))
        return false;
    terminal->type("\r");
    return terminal->waitForEnd(lines({ "> " }));
}

} // namespace

/// The shell as a person has it on a terminal, compared by what the screen shows.
class TstInteractiveShell : public QObject
{
    Q_OBJECT

private slots:
    void lineIsTypedAndRun();
    void lineIsEdited_data();
    void lineIsEdited();
    void longLineIsEditedOverRows();
    void historyIsThatOfAllShells();
    void historyHoldsNoLineTwiceAndAThousand();
    void historyHoldsNoEncryptedValue();
    void historyIsPrivate();
    void otherHistoryIsNotUsed_data();
    void otherHistoryIsNotUsed();
    void namedStateDirectoryIsUsed();
    void searchFindsALine();
    void searchSurvivesAnEvent();
    void tabCompletesTheWord_data();
    void tabCompletesTheWord();
    void tabListsWhatIsPossible();
    void tabWithoutAServiceDoesNothing();
    void eventComesAboveTheLine();
    void logRecordComesAboveTheLine();
    void lineOverRowsIsRedrawnBelowAnEvent();
    void resizedTerminalGetsTheLineAgain();
    void interruptDropsTheLine();
    void interruptThatIsNoSignalDropsTheLine();
    void interruptEndsTheCommand();
    void endOfInputLeaves();
    void exitLeavesWithTheFirstFailure();
    void quitSignalIsIgnored();
    void linesTypedAheadAreShownOnce();
    void directoryIsInThePrompt();
    void pathsAreRelative_data();
    void pathsAreRelative();
    void noPathIsTheDirectory();
    void scriptHasRelativePathsAfterCd();
    void serviceGoesAndComesBack();
    void busGoesAndComesBack();
    void watchGoesOnAfterTheBusCameBack();
    void plainTerminalHasThePrompt();
    void closedTerminalSavesTheChange();
    void terminationSavesTheChange();
};

void TstInteractiveShell::lineIsTypedAndRun()
{
    Shell shell;
    QVERIFY(shell.begin());

    shell.terminal.type("get /settings/audio/volume\r");

    COMPARE_SCREEN(shell.terminal,
                   lines({ "/settings> get /settings/audio/volume", "35", "/settings> |" }));
}

void TstInteractiveShell::lineIsEdited_data()
{
    QTest::addColumn<QByteArray>("keys");
    QTest::addColumn<QString>("line");

    const QByteArray word = QByteArrayLiteral("get audio");
    QTest::newRow("typed") << word << lines({ "get audio|" });
    QTest::newRow("backspace") << word + backspace << lines({ "get audi|" });
    QTest::newRow("insertion") << word + homeKey + "for" << lines({ "for|get audio" });
    QTest::newRow("left") << word + leftKey + leftKey + "x" << lines({ "get audx|io" });
    QTest::newRow("deletion") << word + homeKey + deletion << lines({ "|et audio" });
    QTest::newRow("word deleted") << word + "\x17" << lines({ "get |" });
    QTest::newRow("word left") << word + "\x1b[1;5D" << lines({ "get |audio" });
    QTest::newRow("cut and pasted")
        << word + "\x01\x0b\x19\x19" << lines({ "get audioget audio|" });
    QTest::newRow("end") << word + homeKey + "\x1b[F" + "x" << lines({ "get audiox|" });
    QTest::newRow("umlaut") << QByteArray("gr\xc3\xb6\xc3\x9f") + "e"
                            << lines({ "gr\u00f6\u00dfe|" });
    QTest::newRow("umlaut deleted") << QByteArray("gr\xc3\xb6") + backspace << lines({ "gr|" });
    QTest::newRow("wide characters")
        << QByteArray("\xe9\x9f\xb3\xe9\x87\x8f") << lines({ "\u97f3\u91cf|" });
    QTest::newRow("between wide characters")
        << QByteArray("\xe9\x9f\xb3\xe9\x87\x8f") + leftKey + "x" << lines({ "\u97f3x|\u91cf" });
    QTest::newRow("beyond the first plane")
        << QByteArray("\xf0\x9f\x94\x8a") + "x" << lines({ "\U0001f50ax|" });
    QTest::newRow("not UTF-8") << QByteArray("a\xff\xc3z\x80") << lines({ "az|" });
    QTest::newRow("commands of the editor itself")
        << QByteArray("a\x1bxbind") << lines({ "abind|" });
}

void TstInteractiveShell::lineIsEdited()
{
    QFETCH(const QByteArray, keys);
    QFETCH(const QString, line);

    compareLineAfter(keys, line);
}

void TstInteractiveShell::longLineIsEditedOverRows()
{
    Shell shell(20, 6);
    QVERIFY(shell.begin());

    shell.terminal.type(QByteArray("set audio/mode one-two-three") + homeKey + deletion + "S");

    COMPARE_SCREEN(shell.terminal, lines({ "/settings> S|et audio", "/mode one-two-three" }));
}

// ---------------------------------------------------------------------------------------------
// History.
// ---------------------------------------------------------------------------------------------

void TstInteractiveShell::historyIsThatOfAllShells()
{
    const Person person;
    {
        Terminal one;
        Terminal other;
        person.sitDownAt(&one);
        COMPARE_SCREEN(one, lines({ "/settings> |" }));
        person.sitDownAt(&other);
        QVERIFY(other.waitFor(lines({ "this shell only reads\n/settings> " })));
        one.type("get serial\r");
        COMPARE_SCREEN(one, lines({ "/settings> get serial", "X1", "/settings> |" }));
        other.type("get token\r");
        QVERIFY(other.waitFor(lines({ "get token\n-\n/settings> " })));
        one.type("exit\r");
        QCOMPARE(one.wait(), 0);
        other.type("exit\r");
        QCOMPARE(other.wait(), 0);
    }

    QCOMPARE(person.history(), QByteArray("get serial\nget token\nexit\n"));
    Terminal next;
    person.sitDownAt(&next);
    COMPARE_SCREEN(next, lines({ "/settings> |" }));
    next.type(QByteArray(upKey) + upKey);
    COMPARE_SCREEN(next, lines({ "/settings> get token|" }));
    next.type(QByteArray(upKey) + "\r");
    COMPARE_SCREEN(next, lines({ "/settings> get serial", "X1", "/settings> |" }));
}

void TstInteractiveShell::historyHoldsNoLineTwiceAndAThousand()
{
    Shell shell;
    QByteArray before;
    for (int i = 0; i < 1000; ++i)
        before += "get " + QByteArray::number(i) + '\n';
    shell.person.writeHistory(before);
    QVERIFY(shell.begin());

    QVERIFY(enter(&shell.terminal, "cd"));
    QVERIFY(enter(&shell.terminal, "wait 0"));
    QVERIFY(enter(&shell.terminal, "cd"));
    shell.terminal.type("exit\r");

    QCOMPARE(shell.terminal.wait(), 0);
    const QByteArray kept = before.mid(before.indexOf("get 3\n"));
    QCOMPARE(shell.person.history(), kept + "wait 0\ncd\nexit\n");
}

void TstInteractiveShell::historyHoldsNoEncryptedValue()
{
    Shell shell(80, 40);
    shell.person.cli.tree.writeDefault(QStringLiteral("/pin"),
                                       R"({"encrypted":true,"edit":{"kind":"string"}})");
    QVERIFY(shell.begin());

    for (const char* const line :
         { "set pin 1111", "op pin append 2222", R"(set pin --roles '{"value":{"string":"3333"}}')",
           "'set' '/settings/pin' 4444", "cd audio", "set ../pin 5555", "set ../pni 6666",
           "sett ../pin 7777", "set '../pin 8888", " get volume", "# get volume", "set volume 40",
           "get volume" })
        QVERIFY(enter(&shell.terminal, line));

    QCOMPARE(shell.person.history(), QByteArray("cd audio\nset volume 40\nget volume\n"));
    // What was only mistyped can be called back to be corrected, but not a value that was stored.
    shell.terminal.type(QByteArray(search) + "6666");
    QVERIFY(shell.terminal.waitFor(lines({ "/settings/audio> set ../pni 6666\nbck:6666" })));
    shell.terminal.type(QByteArray(interrupt) + search + "5555");
    QVERIFY(shell.terminal.waitFor(lines({ "bck?" })));
}

void TstInteractiveShell::historyIsPrivate()
{
    Shell shell;
    shell.person.writeHistory("get serial\n");
    const QString directory = QFileInfo(shell.person.historyFile()).path();
    const QFile::Permissions everybody = QFile::Permissions(0x7777);
    QVERIFY(QFile::setPermissions(shell.person.historyFile(), everybody));
    QVERIFY(QFile::setPermissions(directory, everybody));
    QVERIFY(shell.begin());

    const auto rightsOfOthers = QFile::Permissions(0x0077);
    QCOMPARE(QFile::permissions(shell.person.historyFile()) & rightsOfOthers, QFile::Permissions());
    QCOMPARE(QFile::permissions(directory) & rightsOfOthers, QFile::Permissions());
    shell.terminal.type(upKey);
    COMPARE_SCREEN(shell.terminal, lines({ "/settings> get serial|" }));
}

void TstInteractiveShell::otherHistoryIsNotUsed_data()
{
    QTest::addColumn<QString>("script");
    QTest::addColumn<QString>("reason");

    const auto row = [](const char* name, const char* script, const char* reason) {
        QTest::newRow(name) << QString::fromUtf8(script) << QString::fromUtf8(reason);
    };
    row("link", "mkdir -p .local/state/tulo-cm; echo kept >else; ln -s ../../../else $FILE",
        "'%1/.local/state/tulo-cm/history': Too many levels of symbolic links");
    row("second name", "mkdir -p .local/state/tulo-cm; echo kept >else; ln else $FILE",
        "'%1/.local/state/tulo-cm/history' is not a file by itself");
    row("pipe", "mkdir -p .local/state/tulo-cm; echo kept >else; mkfifo $FILE",
        "'%1/.local/state/tulo-cm/history' is not a file by itself");
    row("directory", "mkdir -p $FILE; echo kept >else",
        "'%1/.local/state/tulo-cm/history': Is a directory");
    row("linked directory",
        "mkdir -p .local/state elsewhere; echo kept >else; ln -s ../../elsewhere "
        ".local/state/tulo-cm",
        "'%1/.local/state/tulo-cm': Not a directory");
    row("file for a directory", "echo kept >else; echo kept >.local",
        "'%1/.local': Not a directory");
    if (::geteuid() == 0) {
        row("file of another user",
            "mkdir -p .local/state/tulo-cm; echo kept >else; touch $FILE; chown nobody $FILE",
            "'%1/.local/state/tulo-cm/history' belongs to user 'nobody'");
        row("directory of another user",
            "mkdir -p .local/state/tulo-cm; echo kept >else; chown nobody .local/state/tulo-cm",
            "'%1/.local/state/tulo-cm' belongs to user 'nobody'");
        row("home of another user", "echo kept >else; chown nobody .",
            "'%1' belongs to user 'nobody'");
    }
}

void TstInteractiveShell::otherHistoryIsNotUsed()
{
    QFETCH(const QString, script);
    QFETCH(const QString, reason);
    const Person person;
    const ChildResult prepared =
        ChildProcess::run(QStringLiteral("/bin/sh"),
                          { QStringLiteral("-ec"),
                            QStringLiteral("cd '%1'; FILE=.local/state/tulo-cm/history; %2")
                                .arg(person.home.path(), script) });
    QCOMPARE(prepared.standardError, QByteArray());
    QCOMPARE(prepared.exitCode, 0);
    Terminal terminal(200, 24);

    person.sitDownAt(&terminal);
    const QString note = QStringLiteral("tulo-cm: lines are not kept for the next shell: ")
        + reason.arg(person.home.path());
    COMPARE_SCREEN(terminal, note + lines({ "\n/settings> |" }));
    QVERIFY(enter(&terminal, "get serial"));
    terminal.type(upKey);

    COMPARE_SCREEN(terminal,
                   note + lines({ "\n/settings> get serial\nX1\n/settings> get serial|" }));
    QCOMPARE(readFile(person.home.path() + QLatin1String("/else")), QByteArray("kept\n"));
}

void TstInteractiveShell::namedStateDirectoryIsUsed()
{
    const Person person;
    Terminal terminal;
    terminal.setVariable("XDG_STATE_HOME", QFile::encodeName(person.home.path()) + "/state");
    person.sitDownAt(&terminal);
    COMPARE_SCREEN(terminal, lines({ "/settings> |" }));

    terminal.type("exit\r");

    QCOMPARE(terminal.wait(), 0);
    QCOMPARE(readFile(person.home.path() + QLatin1String("/state/tulo-cm/history")),
             QByteArray("exit\n"));
    QVERIFY(!QFileInfo::exists(person.historyFile()));
}

void TstInteractiveShell::searchFindsALine()
{
    Shell shell;
    shell.person.writeHistory("get serial\nget audio/volume\nls\n");
    QVERIFY(shell.begin());

    shell.terminal.type(QByteArray(search) + "ser");
    COMPARE_SCREEN(shell.terminal, lines({ "/settings> get |serial", "bck:ser" }));
    shell.terminal.type("\r");

    COMPARE_SCREEN(shell.terminal, lines({ "/settings> get serial", "X1", "/settings> |" }));
}

// ---------------------------------------------------------------------------------------------
// Completion.
// ---------------------------------------------------------------------------------------------

void TstInteractiveShell::tabCompletesTheWord_data()
{
    QTest::addColumn<QByteArray>("keys");
    QTest::addColumn<QString>("line");

    QTest::newRow("command") << QByteArray("desc\t") << lines({ "describe |" });
    QTest::newRow("option") << QByteArray("get x --ro\t") << lines({ "get x --role |" });
    QTest::newRow("directory") << QByteArray("get au\t") << lines({ "get audio/|" });
    QTest::newRow("setting") << QByteArray("get audio/v\t") << lines({ "get audio/volume |" });
    QTest::newRow("common part") << QByteArray("get audio/so\t")
                                 << lines({ "get audio/sources |" });
    QTest::newRow("full path") << QByteArray("get /settings/ser\t")
                               << lines({ "get /settings/serial |" });
    QTest::newRow("value") << QByteArray("set audio/mode h\t")
                           << lines({ "set audio/mode high |" });
    QTest::newRow("in quotes") << QByteArray("get 'audio/vo\t")
                               << lines({ "get 'audio/volume' |" });
    QTest::newRow("only directories") << QByteArray("cd audio/v\t") << lines({ "cd audio/v|" });
    QTest::newRow("in front of the cursor only")
        << QByteArray("desc serial") + homeKey + "\x1b[1;5C\t" << lines({ "describe | serial" });
    QTest::newRow("nothing") << QByteArray("get none/\t") << lines({ "get none/|" });
    QTest::newRow("nothing typed") << QByteArray("get 'au\x01\x0b zzz\t") << lines({ " zzz|" });
}

void TstInteractiveShell::tabCompletesTheWord()
{
    QFETCH(const QByteArray, keys);
    QFETCH(const QString, line);

    compareLineAfter(keys, line);
}

void TstInteractiveShell::tabListsWhatIsPossible()
{
    Shell shell;
    shell.person.cli.tree.writeDefault(QStringLiteral("/audio/volume-limit"),
                                       R"({"title":"Limit","value":{"int":5}})");
    QVERIFY(shell.begin());
    QVERIFY(enter(&shell.terminal, "cd audio"));

    shell.terminal.type("get v\t");
    COMPARE_SCREEN(shell.terminal,
                   lines({ "/settings> cd audio", "/settings/audio> get volume|" }));
    shell.terminal.type("\t");
    COMPARE_SCREEN(shell.terminal,
                   lines({ "/settings> cd audio", "volume        Volume", "volume-limit  Limit",
                           "/settings/audio> get volume|" }));
    shell.terminal.type("-\t\r");

    COMPARE_SCREEN(shell.terminal,
                   lines({ "/settings> cd audio", "volume        Volume", "volume-limit  Limit",
                           "/settings/audio> get volume-limit", "5", "/settings/audio> |" }));
}

void TstInteractiveShell::tabWithoutAServiceDoesNothing()
{
    const PrivateBus bus;
    const Person person(bus);
    ServiceProcess service(person.cli, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    Terminal terminal;
    person.sitDownAt(&terminal);
    QVERIFY(terminal.waitFor(lines({ "/settings> " })));
    service.end(SIGKILL);
    QVERIFY(terminal.waitForEnd(lines({ "until it is back\n/settings> " })));

    terminal.type("get au\tdio");

    QVERIFY(terminal.waitForEnd(lines({ "until it is back\n/settings> get audio" })));
}

// ---------------------------------------------------------------------------------------------
// What comes while a line is typed.
// ---------------------------------------------------------------------------------------------

namespace {

/// The shell on a service, watching the volume.
struct Watcher
{
    explicit Watcher(int columns = 80, int rows = 24)
        : person(bus)
        , service(person.cli, bus.address())
        , terminal(columns, rows)
        , client(bus.address())
    {
    }

    bool begin()
    {
        if (!service.serve())
            return false;
        person.sitDownAt(&terminal);
        if (!terminal.waitFor(lines({ "/settings> " })))
            return false;
        terminal.type("watch audio/volume\r");
        return terminal.waitFor(lines({ "volume\n/settings> " }));
    }

    void change(int volume) const
    {
        client.call("SetValue", { QStringLiteral("/settings/audio/volume"), variantOf(volume) });
    }

    PrivateBus bus;
    Person person;
    ServiceProcess service;
    Terminal terminal;
    BusClient client;
};

} // namespace

void TstInteractiveShell::eventComesAboveTheLine()
{
    Watcher watcher;
    QVERIFY(watcher.begin());
    watcher.terminal.type(QByteArray("get serial") + leftKey + leftKey);
    COMPARE_SCREEN(watcher.terminal,
                   lines({ "/settings> watch audio/volume", "/settings> get seri|al" }));

    watcher.change(40);

    COMPARE_SCREEN(watcher.terminal,
                   lines({ "/settings> watch audio/volume", "value /settings/audio/volume 40",
                           "/settings> get seri|al" }));
    watcher.terminal.type("\r");
    COMPARE_SCREEN(watcher.terminal,
                   lines({ "/settings> watch audio/volume", "value /settings/audio/volume 40",
                           "/settings> get serial", "X1", "/settings> |" }));
}

void TstInteractiveShell::lineOverRowsIsRedrawnBelowAnEvent()
{
    Watcher watcher(40, 12);
    QVERIFY(watcher.begin());
    const QByteArray typed = "set audio/mode 'a value that takes \xe9\x9f\xb3 more than a row'";
    watcher.terminal.type(typed);
    const QString line =
        lines({ "/settings> set audio/mode 'a value that", "takes \u97f3 more than a row'|" });
    COMPARE_SCREEN(watcher.terminal,
                   lines({ "/settings> watch audio/volume" }) + QLatin1Char('\n') + line);

    watcher.change(40);

    COMPARE_SCREEN(watcher.terminal,
                   lines({ "/settings> watch audio/volume", "value /settings/audio/volume 40" })
                       + QLatin1Char('\n') + line);
}

void TstInteractiveShell::searchSurvivesAnEvent()
{
    Watcher watcher;
    watcher.person.writeHistory("get serial\n");
    QVERIFY(watcher.begin());
    watcher.terminal.type(QByteArray(search) + "ser");
    COMPARE_SCREEN(watcher.terminal,
                   lines({ "/settings> watch audio/volume", "/settings> get |serial", "bck:ser" }));

    watcher.change(40);

    COMPARE_SCREEN(watcher.terminal,
                   lines({ "/settings> watch audio/volume", "value /settings/audio/volume 40",
                           "/settings> get |serial", "bck:ser" }));
}

void TstInteractiveShell::logRecordComesAboveTheLine()
{
    const Person person;
    Terminal terminal(160, 24);
    person.sitDownAt(&terminal, { QStringLiteral("--log-level"), QStringLiteral("info") });
    QVERIFY(terminal.waitFor(lines({ "/settings> " })));

    // Written a second later.
    QVERIFY(enter(&terminal, "set audio/volume 40"));
    terminal.type("get ser");

    QVERIFY(terminal.waitFor(QStringLiteral("written file: %1/audio/volume\n/settings> get ser")
                                 .arg(person.cli.tree.writePath())));
}

void TstInteractiveShell::resizedTerminalGetsTheLineAgain()
{
    const Person person;
    Terminal terminal(60, 12);
    person.sitDownAt(&terminal);
    QVERIFY(terminal.waitFor(lines({ "/settings> " })));
    terminal.type("get serial\r");
    QVERIFY(terminal.waitFor(lines({ "X1\n/settings> " })));
    terminal.type("get audio/volume audio/mode");
    COMPARE_SCREEN(
        terminal,
        lines({ "/settings> get serial", "X1", "/settings> get audio/volume audio/mode|" }));

    terminal.resize(30, 12);
    COMPARE_SCREEN(
        terminal,
        lines({ "/settings> get serial", "X1", "/settings> get audio/volume au", "dio/mode|" }));
    terminal.resize(60, 12);
    COMPARE_SCREEN(
        terminal,
        lines({ "/settings> get serial", "X1", "/settings> get audio/volume audio/mode|" }));
}

// ---------------------------------------------------------------------------------------------
// Ends.
// ---------------------------------------------------------------------------------------------

void TstInteractiveShell::interruptDropsTheLine()
{
    Shell shell;
    QVERIFY(shell.begin());
    shell.terminal.type(QByteArray("quit") + leftKey + leftKey);
    COMPARE_SCREEN(shell.terminal, lines({ "/settings> qu|it" }));

    shell.terminal.type(interrupt);
    COMPARE_SCREEN(shell.terminal, lines({ "/settings> quit^C", "/settings> |" }));
    shell.terminal.type("get serial\r");

    COMPARE_SCREEN(shell.terminal,
                   lines({ "/settings> quit^C", "/settings> get serial", "X1", "/settings> |" }));
}

// As it is for a moment behind ^V.
void TstInteractiveShell::interruptThatIsNoSignalDropsTheLine()
{
    const Person person;
    Terminal terminal;
    terminal.setVariable("HOME", QFile::encodeName(person.home.path()));
    terminal.start(QStringLiteral("/bin/sh"),
                   QStringList { QStringLiteral("-c"), QStringLiteral("stty intr ^X; exec \"$@\""),
                                 QStringLiteral("sh"), QStringLiteral(TULO_CM_PROGRAM) }
                       + person.cli.arguments({ QStringLiteral("shell") }));
    COMPARE_SCREEN(terminal, lines({ "/settings> |" }));
    terminal.type(QByteArray("quit") + leftKey);
    COMPARE_SCREEN(terminal, lines({ "/settings> qui|t" }));

    terminal.type(interrupt);

    COMPARE_SCREEN(terminal, lines({ "/settings> quit^C", "/settings> |" }));
}

void TstInteractiveShell::interruptEndsTheCommand()
{
    Shell shell;
    QVERIFY(shell.begin());
    shell.terminal.type("wait 3600000\r");
    COMPARE_SCREEN(shell.terminal, lines({ "/settings> wait 3600000", "|" }));

    shell.terminal.type(interrupt);
    COMPARE_SCREEN(shell.terminal, lines({ "/settings> wait 3600000", "/settings> |" }));
    shell.terminal.type("exit\r");

    QCOMPARE(shell.terminal.wait(), 0);
}

void TstInteractiveShell::endOfInputLeaves()
{
    Shell shell;
    QVERIFY(shell.begin());
    shell.terminal.type(QByteArray("x") + endOfInput);
    COMPARE_SCREEN(shell.terminal, lines({ "/settings> x|" }));

    shell.terminal.type(QByteArray(1, backspace[0]) + endOfInput);

    QCOMPARE(shell.terminal.wait(), 0);
    QCOMPARE(shell.terminal.screen(), lines({ "/settings> ^D", "|" }));
}

void TstInteractiveShell::exitLeavesWithTheFirstFailure()
{
    Shell shell;
    QVERIFY(shell.begin());

    QVERIFY(enter(&shell.terminal, "get"));
    QVERIFY(enter(&shell.terminal, "get none"));
    shell.terminal.type("exit\r");

    QCOMPARE(shell.terminal.wait(), 2);
    // Lines that were typed have no numbers.
    QVERIFY2(shell.terminal.output().contains("\ntulo-cm: missing arguments for 'get'"),
             shell.terminal.output());
}

void TstInteractiveShell::quitSignalIsIgnored()
{
    Shell shell;
    QVERIFY(shell.begin());

    shell.terminal.type("\x1cget serial\r");

    COMPARE_SCREEN(shell.terminal, lines({ "/settings> get serial", "X1", "/settings> |" }));
}

// ---------------------------------------------------------------------------------------------
// Directories.
// ---------------------------------------------------------------------------------------------

void TstInteractiveShell::linesTypedAheadAreShownOnce()
{
    Shell shell;
    QVERIFY(shell.begin());

    shell.terminal.type("wait 300\rget audio/volume\rcd audio\rget volume");

    COMPARE_SCREEN(shell.terminal,
                   lines({ "/settings> wait 300", "/settings> get audio/volume", "35",
                           "/settings> cd audio", "/settings/audio> get volume|" }));
}

void TstInteractiveShell::directoryIsInThePrompt()
{
    Shell shell;
    QVERIFY(shell.begin());

    shell.terminal.type(
        "cd audio/\rcd -\rcd -\rcd ..\rcd ..\rcd settings/audio\rcd volume\rcd none\rcd\r");

    COMPARE_SCREEN(
        shell.terminal,
        lines({ "/settings> cd audio/", "/settings/audio> cd -", "/settings> cd -",
                "/settings/audio> cd ..", "/settings> cd ..", "/settings> cd settings/audio",
                "/settings/audio> cd volume",
                "tulo-cm: '/settings/audio/volume' is not a directory", "/settings/audio> cd none",
                "tulo-cm: Invalid path '/settings/audio/none'", "/settings/audio> cd",
                "/settings> |" }));
}

void TstInteractiveShell::pathsAreRelative_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("answer");

    QTest::newRow("name") << QByteArray("get volume") << lines({ "35" });
    QTest::newRow("dot") << QByteArray("get ./volume") << lines({ "35" });
    QTest::newRow("above") << QByteArray("get ../serial") << lines({ "X1" });
    QTest::newRow("far above") << QByteArray("get ../../../serial") << lines({ "X1" });
    QTest::newRow("there and back") << QByteArray("get x/../volume") << lines({ "35" });
    QTest::newRow("from the top") << QByteArray("get /settings/serial") << lines({ "X1" });
    QTest::newRow("complete without the slash")
        << QByteArray("get settings/serial") << lines({ "X1" });
    QTest::newRow("not complete")
        << QByteArray("get ./settings/serial")
        << lines({ "tulo-cm: Invalid path '/settings/audio/settings/serial'" });
}

void TstInteractiveShell::pathsAreRelative()
{
    QFETCH(const QByteArray, line);
    QFETCH(const QString, answer);
    Shell shell;
    QVERIFY(shell.begin());

    QVERIFY(enter(&shell.terminal, "cd audio"));
    QVERIFY(enter(&shell.terminal, line));

    COMPARE_SCREEN(shell.terminal,
                   lines({ "/settings> cd audio", "/settings/audio> " }) + QString::fromUtf8(line)
                       + QLatin1Char('\n') + answer + lines({ "\n/settings/audio> |" }));
}

void TstInteractiveShell::noPathIsTheDirectory()
{
    Shell shell;
    QVERIFY(shell.begin());

    QVERIFY(enter(&shell.terminal, "cd audio"));
    QVERIFY(enter(&shell.terminal, "ls"));

    QVERIFY(shell.terminal.waitFor(lines({ "/settings/audio> ls\ngain " })));
}

void TstInteractiveShell::scriptHasRelativePathsAfterCd()
{
    const CommandLine cli;

    const ChildResult result = cli.run("shell",
                                       "get serial\n"
                                       "get settings/serial\n"
                                       "cd settings/audio\n"
                                       "get volume\n"
                                       "get settings/serial\n"
                                       "cd -\n"
                                       "get serial\n");

    QCOMPARE(result.standardOutput, QByteArray("X1\n35\nX1\nX1\n"));
    QCOMPARE(result.standardError, QByteArray("tulo-cm: line 1: Invalid path '/serial'\n"));
    QCOMPARE(result.exitCode, 3);
}

// ---------------------------------------------------------------------------------------------
// A service or a bus that goes.
// ---------------------------------------------------------------------------------------------

void TstInteractiveShell::serviceGoesAndComesBack()
{
    const PrivateBus bus;
    const Person person(bus);
    auto service = std::make_unique<ServiceProcess>(person.cli, bus.address());
    QVERIFY2(service->serve(), service->standardError());
    Terminal terminal;
    person.sitDownAt(&terminal);
    QVERIFY(terminal.waitFor(lines({ "/settings> " })));
    terminal.type("get serial\r");
    QVERIFY(terminal.waitFor(lines({ "X1\n/settings> " })));
    terminal.type("get audio/vol");

    service->end(SIGKILL);
    const QString gone = lines({ "/settings> get serial", "X1",
                                 "tulo-cm: the service has gone; commands fail until it is back",
                                 "/settings> get audio/vol" });
    COMPARE_SCREEN(terminal, gone + QLatin1Char('|'));
    terminal.type("ume\r");
    QVERIFY(terminal.waitFor(lines({ "get audio/volume\ntulo-cm: " })));
    terminal.type("cd audio\r");
    QVERIFY(terminal.waitFor(lines({ "cd audio\ntulo-cm: " })));
    service = std::make_unique<ServiceProcess>(person.cli, bus.address());
    QVERIFY2(service->serve(), service->standardError());
    QVERIFY(terminal.waitFor(lines({ "tulo-cm: the service is back\n/settings> " })));
    terminal.type("get audio/volume\r");
    QVERIFY(terminal.waitFor(lines({ "get audio/volume\n35\n/settings> " })));
    terminal.type("exit\r");

    // Of the first command that failed.
    QCOMPARE(terminal.wait(), 7);
    QCOMPARE(terminal.output().count("the service has gone"), 1);
    QCOMPARE(terminal.output().count("the service is back"), 1);
}

void TstInteractiveShell::busGoesAndComesBack()
{
    PrivateBus bus;
    const Person person(bus);
    auto service = std::make_unique<ServiceProcess>(person.cli, bus.address());
    QVERIFY2(service->serve(), service->standardError());
    Terminal terminal;
    person.sitDownAt(&terminal);
    QVERIFY(terminal.waitFor(lines({ "/settings> " })));

    bus.kill();
    QVERIFY(terminal.waitFor(lines({ "has gone; commands fail until it is back\n/settings> " })));
    terminal.type("get serial\r");
    QVERIFY(terminal.waitFor(lines({ "get serial\ntulo-cm: " })));
    bus.startAgain();
    QVERIFY(terminal.waitFor(lines({ "tulo-cm: the service is back\n/settings> " })));
    terminal.type("get serial\r");

    QVERIFY(terminal.waitFor(lines({ "get serial\nX1\n/settings> " })));
    QCOMPARE(terminal.output().count("the service has gone"), 1);
    QCOMPARE(terminal.output().count("the service is back"), 1);
}

void TstInteractiveShell::watchGoesOnAfterTheBusCameBack()
{
    Watcher watcher;
    QVERIFY(watcher.begin());

    watcher.bus.kill();
    QVERIFY(watcher.terminal.waitFor(
        lines({ "has gone; changes are missed until it is back\n/settings> " })));
    watcher.bus.startAgain();
    QVERIFY(watcher.terminal.waitFor(
        lines({ "the service is back; what differs follows\n/settings> " })));
    const BusClient client(watcher.bus.address());
    client.call("SetValue", { QStringLiteral("/settings/audio/volume"), variantOf(40) });

    QVERIFY(watcher.terminal.waitFor(lines({ "value /settings/audio/volume 40\n/settings> " })));
    QCOMPARE(watcher.terminal.output().count("has gone"), 1);
    QCOMPARE(watcher.terminal.output().count("is back;"), 1);
}

// ---------------------------------------------------------------------------------------------
// Other terminals, and none.
// ---------------------------------------------------------------------------------------------

void TstInteractiveShell::plainTerminalHasThePrompt()
{
    const Person person;
    Terminal terminal;
    terminal.setVariable("TERM", "dumb");
    person.sitDownAt(&terminal);
    COMPARE_SCREEN(terminal, lines({ "/settings> |" }));

    terminal.type("gex");
    COMPARE_SCREEN(terminal, lines({ "/settings> gex|" }));
    terminal.type(interrupt);
    COMPARE_SCREEN(terminal, lines({ "/settings> gex^C", "/settings> |" }));
    QVERIFY(enter(&terminal, "cd audio"));
    terminal.type(QByteArray("get volumx") + backspace + "e\r");

    COMPARE_SCREEN(terminal,
                   lines({ "/settings> gex^C", "/settings> cd audio", "/settings/audio> get volume",
                           "35", "/settings/audio> |" }));
    QVERIFY(!terminal.output().contains('\x1b'));
    terminal.type(endOfInput);
    QCOMPARE(terminal.wait(), 0);
}

void TstInteractiveShell::closedTerminalSavesTheChange()
{
    Shell shell;
    QVERIFY(shell.begin());
    QVERIFY(enter(&shell.terminal, "set audio/volume 40"));
    shell.terminal.type("get ser");
    COMPARE_SCREEN(shell.terminal,
                   lines({ "/settings> set audio/volume 40", "40", "/settings> get ser|" }));

    shell.terminal.hangUp();

    // Not by the signal; 1, as nothing can be printed any more.
    const int exitCode = shell.terminal.wait();
    QVERIFY2(exitCode == 0 || exitCode == 1, QByteArray::number(exitCode));
    QVERIFY(!shell.person.cli.tree.readWritten(QStringLiteral("/audio/volume")).isNull());
    QCOMPARE(shell.person.history(), QByteArray("set audio/volume 40\n"));
}

void TstInteractiveShell::terminationSavesTheChange()
{
    Shell shell;
    QVERIFY(shell.begin());
    QVERIFY(enter(&shell.terminal, "set audio/volume 40"));
    shell.terminal.type(QByteArray("get ser") + leftKey);
    COMPARE_SCREEN(shell.terminal,
                   lines({ "/settings> set audio/volume 40", "40", "/settings> get se|r" }));

    shell.terminal.sendSignal(SIGTERM);

    QCOMPARE(shell.terminal.wait(), 0);
    QVERIFY(!shell.person.cli.tree.readWritten(QStringLiteral("/audio/volume")).isNull());
    QCOMPARE(shell.terminal.screen(),
             lines({ "/settings> set audio/volume 40", "40", "/settings> get ser", "|" }));
}

QTEST_GUILESS_MAIN(TstInteractiveShell)
#include "tst_interactive_shell.moc"
