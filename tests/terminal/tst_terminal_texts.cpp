#include "tulo-cm/terminal.h"

#include <QTest>

#include <clocale>

#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

Q_DECLARE_METATYPE(tulo::Colours)

using namespace tulo;

namespace {

/// A terminal that nobody reads.
class Pty
{
public:
    Pty()
    {
        if (::openpty(&m_master, &m_slave, nullptr, nullptr, nullptr) != 0)
            qFatal("no terminal");
    }
    ~Pty()
    {
        ::close(m_master);
        ::close(m_slave);
    }
    Q_DISABLE_COPY(Pty)

    int descriptor() const { return m_slave; }
    void resize(unsigned short columns, unsigned short rows) const
    {
        winsize size = {};
        size.ws_col = columns;
        size.ws_row = rows;
        if (::ioctl(m_master, TIOCSWINSZ, &size) != 0)
            qFatal("cannot resize");
    }

private:
    int m_master = -1;
    int m_slave = -1;
};

} // namespace

class tst_terminal_texts : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void columnsOfText_data();
    void columnsOfText();
    void longTextIsShortened_data();
    void longTextIsShortened();
    void sizeIsTheTerminalsElseTheEnvironments();
    void coloursFollowTerminalAndEnvironment_data();
    void coloursFollowTerminalAndEnvironment();
    void everyStyleIsEnded();
};

void tst_terminal_texts::initTestCase()
{
    QVERIFY(std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr);
}

void tst_terminal_texts::init()
{
    for (const char* name : { "COLUMNS", "LINES", "NO_COLOR" })
        qunsetenv(name);
    qputenv("TERM", "xterm");
}

void tst_terminal_texts::columnsOfText_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("columns");
    QTest::newRow("nothing") << QString() << 0;
    QTest::newRow("letters") << QStringLiteral("volume") << 6;
    QTest::newRow("umlaut") << QString::fromUtf8("Lautstärke") << 10;
    QTest::newRow("combining") << QString::fromUtf8("e\u0301") << 1;
    QTest::newRow("wide") << QString::fromUtf8("音量") << 4;
    QTest::newRow("beyond 16 bits") << QString::fromUtf8("🔧") << 2;
    QTest::newRow("joiner") << QString::fromUtf8("\u200d") << 0;
}

void tst_terminal_texts::columnsOfText()
{
    QFETCH(QString, text);
    QFETCH(int, columns);

    QCOMPARE(widthOf(text), columns);
}

void tst_terminal_texts::longTextIsShortened_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("columns");
    QTest::addColumn<QString>("fromEnd");
    QTest::addColumn<QString>("fromBeginning");
    const auto row = [](const char* name, const char* text, int columns, const char* fromEnd,
                        const char* fromBeginning) {
        QTest::newRow(name) << QString::fromUtf8(text) << columns << QString::fromUtf8(fromEnd)
                            << QString::fromUtf8(fromBeginning);
    };
    row("fits", "volume", 6, "volume", "volume");
    row("one too long", "volume", 5, "volu…", "…lume");
    row("two columns", "volume", 2, "v…", "…e");
    row("one column", "volume", 1, "…", "…");
    row("no column", "volume", 0, "", "");
    row("less than none", "volume", -1, "", "");
    row("nothing", "", 0, "", "");
    // A wide character is not cut into two.
    row("wide", "音量音量", 6, "音量…", "…音量");
    row("wide, with a column left", "音量音量", 4, "音…", "…量");
    row("wide in one column", "音量", 1, "…", "…");
    row("wide in two columns", "音量", 2, "…", "…");
    // What combines stays with its character.
    row("combining", "e\u0301e\u0301e\u0301", 2, "e\u0301…", "…e\u0301");
    row("beyond 16 bits", "🔧🔧🔧", 5, "🔧🔧…", "…🔧🔧");
}

void tst_terminal_texts::longTextIsShortened()
{
    QFETCH(QString, text);
    QFETCH(int, columns);
    QFETCH(QString, fromEnd);
    QFETCH(QString, fromBeginning);

    QCOMPARE(shortened(text, columns), fromEnd);
    QCOMPARE(shortened(text, columns, true), fromBeginning);
}

void tst_terminal_texts::sizeIsTheTerminalsElseTheEnvironments()
{
    const Pty pty;
    QCOMPARE(terminalSize(pty.descriptor()).columns, 0);
    QCOMPARE(terminalSize(pty.descriptor()).rows, 0);

    qputenv("COLUMNS", "70");
    qputenv("LINES", "-3");
    QCOMPARE(terminalSize(pty.descriptor()).columns, 70);
    QCOMPARE(terminalSize(pty.descriptor()).rows, 0);

    pty.resize(132, 50);
    QCOMPARE(terminalSize(pty.descriptor()).columns, 132);
    QCOMPARE(terminalSize(pty.descriptor()).rows, 50);
}

void tst_terminal_texts::coloursFollowTerminalAndEnvironment_data()
{
    QTest::addColumn<Colours>("colours");
    QTest::addColumn<QByteArray>("noColor"); ///< null: not set
    QTest::addColumn<QByteArray>("term");
    QTest::addColumn<bool>("onTerminal");
    QTest::addColumn<bool>("inPipe");
    const QByteArray unset;
    const QByteArray empty("");
    const QByteArray xterm("xterm");
    QTest::newRow("auto") << Colours::Auto << unset << xterm << true << false;
    QTest::newRow("auto, NO_COLOR") << Colours::Auto << QByteArray("1") << xterm << false << false;
    QTest::newRow("auto, NO_COLOR is empty") << Colours::Auto << empty << xterm << true << false;
    QTest::newRow("auto, dumb") << Colours::Auto << unset << QByteArray("dumb") << false << false;
    QTest::newRow("always") << Colours::Always << unset << xterm << true << true;
    QTest::newRow("always, NO_COLOR")
        << Colours::Always << QByteArray("1") << xterm << true << true;
    QTest::newRow("never") << Colours::Never << unset << xterm << false << false;
}

void tst_terminal_texts::coloursFollowTerminalAndEnvironment()
{
    QFETCH(Colours, colours);
    QFETCH(QByteArray, noColor);
    QFETCH(QByteArray, term);
    QFETCH(bool, onTerminal);
    QFETCH(bool, inPipe);
    const Pty pty;
    int pipe[2];
    QVERIFY(::pipe(pipe) == 0);
    if (!noColor.isNull())
        qputenv("NO_COLOR", noColor);
    qputenv("TERM", term);

    QCOMPARE(usesColours(colours, pty.descriptor()), onTerminal);
    QCOMPARE(usesColours(colours, pipe[1]), inPipe);

    ::close(pipe[0]);
    ::close(pipe[1]);
}

void tst_terminal_texts::everyStyleIsEnded()
{
    const QString text = QStringLiteral("x");
    QCOMPARE(styled(text, Style::Plain), text);
    QCOMPARE(styled(text, Style::Heading), QStringLiteral("\x1b[1mx\x1b[0m"));
    QCOMPARE(styled(text, Style::Directory), QStringLiteral("\x1b[1;34mx\x1b[0m"));
    QCOMPARE(styled(text, Style::Changed), QStringLiteral("\x1b[1mx\x1b[0m"));
    QCOMPARE(styled(text, Style::ReadOnly), QStringLiteral("\x1b[2mx\x1b[0m"));
    QCOMPARE(styled(text, Style::Warning), QStringLiteral("\x1b[33mx\x1b[0m"));
    QCOMPARE(styled(text, Style::Error), QStringLiteral("\x1b[31mx\x1b[0m"));
    QCOMPARE(styled(QString(), Style::Error), QString());
}

QTEST_GUILESS_MAIN(tst_terminal_texts)
#include "tst_terminal_texts.moc"
