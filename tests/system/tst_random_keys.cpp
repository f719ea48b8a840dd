#include "tests/support/repeats.h"
#include "tests/support/terminal.h"
#include "tests/system/commandline.h"

#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

namespace {

constexpr int sequences = 100;
constexpr int sequencesInFull = 2000;
constexpr int pieces = 40;

/// What a person, a cat on the keyboard or a pasted file sends, without what ends the shell.
class Keys
{
public:
    explicit Keys(quint32 seed)
        : m_random(seed)
    {
    }

    QByteArray next()
    {
        switch (m_random.bounded(8)) {
        case 0:
            return pick(lines) + '\r';
        case 1:
            return pick(words);
        case 2:
            return pick(sequencesOfTheKeyboard);
        case 3:
            return "\x1b" + anyByte();
        case 4:
            return anyByte() + anyByte() + anyByte();
        case 5:
            return QByteArray(m_random.bounded(200), 'x');
        case 6:
            return "\t";
        default:
            return anyByte();
        }
    }

    /// A size of the terminal.
    int side(int from) { return m_random.bounded(from, 100); }

private:
    static const QByteArrayList lines;
    static const QByteArrayList words;
    static const QByteArrayList sequencesOfTheKeyboard;

    QByteArray pick(const QByteArrayList& list) { return list.at(m_random.bounded(list.size())); }

    // Any but Ctrl-D, which ends the shell on an empty line.
    QByteArray anyByte()
    {
        const char byte = char(m_random.bounded(256));
        return QByteArray(1, byte == 0x04 ? 'd' : byte);
    }

    QRandomGenerator m_random;
};

const QByteArrayList Keys::lines { "get audio/volume",
                                   "set audio/volume 40",
                                   "cd audio",
                                   "cd ..",
                                   "cd -",
                                   "ls",
                                   "watch -r /",
                                   "unwatch",
                                   "help",
                                   "wait 10",
                                   "#",
                                   "'" };
const QByteArrayList Keys::words {
    "get ",     "set ",         "audio/",           "cd ",       "'",
    "\xc3\xb6", "\xe9\x9f\xb3", "\xf0\x9f\x94\x8a", "e\xcc\x81", " "
};
const QByteArrayList Keys::sequencesOfTheKeyboard {
    "\x1b[A", "\x1b[B", "\x1b[C", "\x1b[D", "\x1b[H",    "\x1b[F",    "\x1b[3~", "\x1b[1;5C",
    "\x12",   "\x13",   "\x17",   "\x0c",   "\x1b[1;5D", "\x1b[200~", "\x7f",    "\x19"
};

} // namespace

/// Whatever is typed, the shell goes on, and does what it is told after that.
class TstRandomKeys : public QObject
{
    Q_OBJECT

private slots:
    void shellStaysUsable_data();
    void shellStaysUsable();
};

void TstRandomKeys::shellStaysUsable_data()
{
    QTest::addColumn<quint32>("seed");
    const int count = repeats(sequences, sequencesInFull);
    for (int seed = 1; seed <= count; ++seed)
        QTest::newRow(QByteArray::number(seed).constData()) << quint32(seed);
}

void TstRandomKeys::shellStaysUsable()
{
    QFETCH(const quint32, seed);
    const CommandLine cli;
    const QTemporaryDir home;
    Terminal terminal;
    terminal.setVariable("HOME", QFile::encodeName(home.path()));
    // Waits for nobody.
    terminal.setVariable("PAGER", "cat");
    terminal.start(QStringLiteral(TULO_CM_PROGRAM), cli.arguments({ QStringLiteral("shell") }));
    QVERIFY(terminal.waitForEnd(QStringLiteral("/settings> ")));

    Keys keys(seed);
    for (int i = 0; i < pieces; ++i) {
        terminal.type(keys.next());
        if (i % 20 == 19)
            terminal.resize(keys.side(1), keys.side(1));
    }
    terminal.resize(80, 24);
    // Ends a search, a command and the line, and wipes what is left on the screen.
    terminal.type("\x07\x03\x0c");
    QVERIFY2(terminal.waitForEnd(QStringLiteral("> ")), qPrintable(terminal.screen()));
    terminal.type("cd /settings\rget serial\r");

    QVERIFY2(terminal.waitForEnd(QStringLiteral("X1\n/settings> ")), qPrintable(terminal.screen()));
    terminal.type("\x04");
    QVERIFY(terminal.wait() >= 0);
}

QTEST_GUILESS_MAIN(TstRandomKeys)
#include "tst_random_keys.moc"
