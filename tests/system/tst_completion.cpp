#include "tests/daemon/servicefixture.h"
#include "tests/support/childprocess.h"
#include "tests/support/repeats.h"
#include "tests/support/temporarytree.h"
#include "tests/system/commandline.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

namespace {

/// The words of a line without quotes. A blank at its end begins a new word.
QStringList words(const char* line)
{
    return QString::fromUtf8(line).split(QLatin1Char(' '));
}

/// `milliseconds`: long enough for a slow machine; the usual limit for 0.
ChildResult complete(const QStringList& arguments, int milliseconds = ChildProcess::waitMs)
{
    ChildProcess program(QStringLiteral(TULO_CM_PROGRAM),
                         QStringList(QStringLiteral("complete")) + arguments);
    program.removeVariable(QStringLiteral("TULO_COMPLETE_MS"));
    if (milliseconds != 0)
        program.setVariable(QStringLiteral("TULO_COMPLETE_MS"), QString::number(milliseconds));
    program.start();
    return program.finish();
}

// What is completed; a complaint when it is not silent.
QByteArray outcome(const ChildResult& result)
{
    return result.exitCode == 0 && result.standardError.isEmpty()
        ? result.standardOutput
        : "exit code " + QByteArray::number(result.exitCode) + ": " + result.standardError;
}

QByteArray completed(const QStringList& typed)
{
    return outcome(complete(QStringList(QStringLiteral("--")) + typed));
}

QByteArray completedForBash(const QString& line, const QString& replaced)
{
    return outcome(complete({ QStringLiteral("--bash"), line, replaced }));
}

/// Every file of both trees with its content.
QMap<QString, QByteArray> contentOf(const TemporaryTree& tree)
{
    QMap<QString, QByteArray> content;
    for (const QString& name : tree.defaultEntries())
        content.insert(QStringLiteral("default ") + name, tree.readDefault(name));
    for (const QString& name : tree.writtenEntries())
        content.insert(QStringLiteral("written ") + name, tree.readWritten(name));
    return content;
}

} // namespace

/// Completion as bash, zsh and fish ask for it.
class TstCompletion : public QObject
{
    Q_OBJECT

private slots:
    void commandsAreThoseOfTheCommandLine();
    void wordIsCompleted_data();
    void wordIsCompleted();
    void productsAreThoseOfTheTree();
    void languagesAreThoseOfTheCatalogues();
    void titlesAreInTheLanguageOfTheLine();
    void textsCannotControlATerminal();
    void valuesAreSpelledSoThatTheyAreStored();
    void wordForBashIsQuotedAndBeginsWhereBashReplaces_data();
    void wordForBashIsQuotedAndBeginsWhereBashReplaces();
    void allOfTenThousandNamesAreCompleted();
    void otherOwnerOfTheTreeDoesNotMatter();
    void brokenWordsAreSilent();
    void randomWordsAreSilentAndChangeNothing();

    void serviceIsAsked();
    void manyNamesOfAServiceAreNarrowed();
    void missingServiceIsSilent();
    void serviceIsNotStarted();
    void hungServiceIsNotWaitedFor();
    void hungBusIsNotWaitedFor();
    void otherMachineIsNotAsked();
};

void TstCompletion::commandsAreThoseOfTheCommandLine()
{
    const QByteArray help =
        ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM), { QStringLiteral("--help") })
            .standardOutput;
    QList<QByteArray> expected;
    for (const QByteArray& line : help.mid(help.indexOf("Commands:\n")).split('\n')) {
        if (line.startsWith("  "))
            expected.append(line.simplified());
    }

    QList<QByteArray> lines = completed({ QString() }).split('\n');
    lines.removeLast();
    for (QByteArray& line : lines)
        line = line.simplified();

    QCOMPARE(lines, expected);
    QVERIFY(!help.contains("  complete"));
}

void TstCompletion::wordIsCompleted_data()
{
    QTest::addColumn<QByteArray>("line"); ///< behind the options that name the trees
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("command") << QByteArray("dr")
                             << QByteArray("drop-cache\tDiscards cached values\n");
    QTest::newRow("unknown command") << QByteArray("gte /set") << QByteArray();
    QTest::newRow("command of the shell only")
        << QByteArray("unwatch /set") << QByteArray("/settings/\tSettings\n");
    QTest::newRow("help") << QByteArray(
        "help fl") << QByteArray("flush\tWrites all pending changes and syncs the file systems\n");
    QTest::newRow("too many arguments") << QByteArray("explain /settings /set") << QByteArray();
    QTest::newRow("no arguments") << QByteArray("flush ") << QByteArray();

    QTest::newRow("general option")
        << QByteArray("--in")
        << QByteArray("--in-process\tserve the built-in directories in this process\n");
    QTest::newRow("general option behind the command") << QByteArray("ls --in") << QByteArray();
    QTest::newRow("command's options")
        << QByteArray("ls --")
        << QByteArray("--role\ta role to print; can be given more than once\n"
                      "--first\tindex of the first row, from 0\n"
                      "--last\tindex of the last row, inclusive\n");
    QTest::newRow("option that was given")
        << QByteArray("ls --first 1 --last=2 --role value -")
        << QByteArray("--role\ta role to print; can be given more than once\n");
    QTest::newRow("letter") << QByteArray("watch -r")
                            << QByteArray("-r\teverything at and below the paths\n");
    QTest::newRow("letter that was given") << QByteArray("watch -r --r") << QByteArray();
    QTest::newRow("option behind --") << QByteArray("ls -- --f") << QByteArray();
    QTest::newRow("option of no command")
        << QByteArray("--nothing ls --f")
        << QByteArray("--first\tindex of the first row, from 0\n");

    QTest::newRow("value of an option") << QByteArray("--log-level er") << QByteArray("error\n");
    QTest::newRow("value behind =")
        << QByteArray("--log-level=er") << QByteArray("--log-level=error\n");
    QTest::newRow("bus") << QByteArray("--bus s") << QByteArray("system\tthe default\nsession\n");
    QTest::newRow("address of a bus") << QByteArray("--bus unix:path=/r") << QByteArray();
    QTest::newRow("host") << QByteArray("--host u") << QByteArray();
    QTest::newRow("value that nobody knows") << QByteArray("ls --first ") << QByteArray();
    QTest::newRow("value of an unknown option") << QByteArray("--nothing=") << QByteArray();
    QTest::newRow("several of a list")
        << QByteArray("find x --in path,t") << QByteArray("path,title\n");
    QTest::newRow("word up to =") << QByteArray("check --rule sy")
                                  << QByteArray("syntax=\tA default file is not JSON.\n");
    QTest::newRow("word behind =")
        << QByteArray("check --rule=syntax=o")
        << QByteArray("--rule=syntax=off\tA default file is not JSON.\n");
    QTest::newRow("file") << QByteArray("load ") << QByteArray(":files\n");
    QTest::newRow("directory") << QByteArray("--default-path=") << QByteArray(":directories\n");
    QTest::newRow("path or tree") << QByteArray("diff --tree old ") << QByteArray(":directories\n");

    QTest::newRow("top") << QByteArray("get ") << QByteArray("/settings/\tSettings\n");
    QTest::newRow("part of the top")
        << QByteArray("get /se") << QByteArray("/settings/\tSettings\n");
    QTest::newRow("one level") << QByteArray("get /settings/")
                               << QByteArray("/settings/audio/\tAudio\n"
                                             "/settings/empty\n"
                                             "/settings/presets/\tPreset\n"
                                             "/settings/secret\tSecret\n"
                                             "/settings/serial\n"
                                             "/settings/token\tToken\n");
    QTest::newRow("setting") << QByteArray("get /settings/audio/v")
                             << QByteArray("/settings/audio/volume\tVolume\n");
    QTest::newRow("second path") << QByteArray("get /settings/token settings/audio/l")
                                 << QByteArray("settings/audio/loudness\tLoudness\n");
    QTest::newRow("doubled slash")
        << QByteArray("get //settings//to") << QByteArray("//settings//token\tToken\n");
    QTest::newRow("below a setting") << QByteArray("get /settings/token/") << QByteArray();
    QTest::newRow("below nothing") << QByteArray("get /settings/nothing/") << QByteArray();
    QTest::newRow("outside") << QByteArray("get /etc/") << QByteArray();
    QTest::newRow("beside the tree")
        << QByteArray("get /settings/../settings/../../")
        << QByteArray("/settings/../settings/../../settings/\tSettings\n");
    QTest::newRow("path of an option")
        << QByteArray("reset --all --keep /settings/au") << QByteArray("/settings/audio/\tAudio\n");
    QTest::newRow("path of diff") << QByteArray("diff /settings/au")
                                  << QByteArray("/settings/audio/\tAudio\n");

    QTest::newRow("roles of a setting")
        << QByteArray("get /settings/token --role t") << QByteArray("title\ntype\n");
    QTest::newRow("roles of rows") << QByteArray("ls /settings --role val")
                                   << QByteArray("value\nvalueUnit\nvalueOperation\n");
    QTest::newRow("known roles") << QByteArray("get --role=tim")
                                 << QByteArray("--role=timestamp\n");
    QTest::newRow("role that was given")
        << QByteArray("get /settings/token --role title --role t") << QByteArray("type\n");

    QTest::newRow("listed values")
        << QByteArray("set /settings/audio/mode ") << QByteArray("low\nmid\tnow, default\nhigh\n");
    QTest::newRow("truth values") << QByteArray("set /settings/audio/loudness ")
                                  << QByteArray("true\tnow, default\nfalse\n");
    QTest::newRow("truth values without a value")
        << QByteArray("set /settings/empty ") << QByteArray("true\nfalse\n");
    QTest::newRow("changed number")
        << QByteArray("set /settings/audio/volume ") << QByteArray("50\tnow\n35\tdefault\n");
    QTest::newRow("value of a list") << QByteArray("set /settings/audio/sources ")
                                     << QByteArray("[\"fm\",\"usb\"]\tnow, default\n");
    QTest::newRow("value of a new setting")
        << QByteArray("set /settings/presets/two ") << QByteArray("fm:87.5\tdefault\n");
    QTest::newRow("value behind --")
        << QByteArray("set -- /settings/audio/mode l") << QByteArray("low\n");
    QTest::newRow("encrypted value") << QByteArray("set /settings/secret ") << QByteArray();
    QTest::newRow("value of a directory") << QByteArray("set /settings/audio ") << QByteArray();
    QTest::newRow("value of nothing")
        << QByteArray("set /settings/nothing/at/all ") << QByteArray();
    QTest::newRow("verb") << QByteArray("op /settings/audio/volume t")
                          << QByteArray("toggle\tthe other truth value\n");
    QTest::newRow("operand: a value")
        << QByteArray("op /settings/audio/mode set h") << QByteArray("high\n");
    QTest::newRow("operand: an element")
        << QByteArray("op /settings/audio/sources remove ") << QByteArray("fm\nusb\n");
    QTest::newRow("operand: a number")
        << QByteArray("op /settings/audio/volume add ") << QByteArray();
    QTest::newRow("operand: none")
        << QByteArray("op /settings/audio/loudness toggle ") << QByteArray();
    QTest::newRow("operand: of no verb")
        << QByteArray("op /settings/audio/mode sit ") << QByteArray();
}

void TstCompletion::wordIsCompleted()
{
    QFETCH(QByteArray, line);
    QFETCH(QByteArray, expected);
    const CommandLine trees;
    trees.tree.writeDefault(QStringLiteral("/secret"),
                            R"({"title":"Secret","encrypted":true,"value":{"string":"hush"}})");
    trees.tree.writeDefault(QStringLiteral("/empty"), R"({"edit":{"kind":"bool"}})");
    trees.tree.writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":50}})");

    QCOMPARE(completed(trees.arguments(words(line.constData()))), expected);
}

void TstCompletion::productsAreThoseOfTheTree()
{
    const CommandLine trees;
    trees.tree.writeDefault(QStringLiteral("/audio/volume_sport"),
                            R"({"title":"Volume","value":{"int":60}})");

    QCOMPARE(completed(trees.arguments({ QStringLiteral("--product"), QString() })),
             QByteArray("sport\n"));
    // The variant's value is another one.
    QCOMPARE(completed(trees.arguments(words("--product sport set /settings/audio/volume "))),
             QByteArray("60\tnow, default\n"));
}

void TstCompletion::languagesAreThoseOfTheCatalogues()
{
    const QTemporaryDir directory;
    for (const char* name : { "settings_de.qm", "my_settings_pt_BR.qm", "settings_fi.ts", "x.qm" })
        QVERIFY(QFile(directory.filePath(QLatin1String(name))).open(QIODevice::WriteOnly));

    QCOMPARE(completed({ QStringLiteral("--catalogues"), directory.path(),
                         QStringLiteral("--language"), QString() }),
             QByteArray("pt_BR\nde\n"));
}

void TstCompletion::titlesAreInTheLanguageOfTheLine()
{
    const QTemporaryDir written;
    const QStringList trees { QStringLiteral("--default-path"), QStringLiteral(TULO_EXAMPLE_TREE),
                              QStringLiteral("--write-path"), written.path() };
    const QStringList german { QStringLiteral("--catalogues"), QStringLiteral(TULO_CATALOGUES),
                               QStringLiteral("--language"), QStringLiteral("de") };

    QCOMPARE(completed(trees + german + words("get /settings/audio/volume")),
             QByteArray("/settings/audio/volume\tLautst\xc3\xa4rke\n"
                        "/settings/audio/volume_comfort\tLautst\xc3\xa4rke\n"
                        "/settings/audio/volume_sport\tLautst\xc3\xa4rke\n"));
    QCOMPARE(completed(trees + words("get /settings/audio/volume_s")),
             QByteArray("/settings/audio/volume_sport\tVolume\n"));
}

void TstCompletion::textsCannotControlATerminal()
{
    const CommandLine trees;
    trees.tree.writeDefault(
        QStringLiteral("/hostile"),
        R"({"title":"a\u001b[31m\tb\nc\u202e","edit":{"values":["a\u001b[31m","b\nc","d\te","f"]}})");

    QCOMPARE(completed(trees.arguments(words("get /settings/h"))),
             QByteArray("/settings/hostile\ta\\u001B[31m\\u0009b\\u000Ac\\u202E\n"));
    QCOMPARE(completed(trees.arguments(words("set /settings/hostile "))), QByteArray("f\n"));
}

// Whatever a text is, what is completed for it stores that text.
void TstCompletion::valuesAreSpelledSoThatTheyAreStored()
{
    const CommandLine trees;
    trees.tree.writeDefault(
        QStringLiteral("/text"),
        R"({"edit":{"kind":"string","values":["","-","-x","5","1.50","true","null","\"q\"","[a",)"
        R"("{}","two words","it's","ü=:"]}})");

    QList<QByteArray> lines = completed(trees.arguments(words("set /settings/text "))).split('\n');
    lines.removeLast();
    QByteArray stored;
    for (const QByteArray& line : lines) {
        stored += trees
                      .run({ QStringLiteral("set"), QStringLiteral("/settings/text"),
                             QString::fromUtf8(line) })
                      .standardOutput;
    }

    QCOMPARE(stored,
             QByteArray("\n-\n-x\n5\n1.50\ntrue\nnull\n\"q\"\n[a\n{}\ntwo words\nit's\nü=:\n"));
}

void TstCompletion::wordForBashIsQuotedAndBeginsWhereBashReplaces_data()
{
    QTest::addColumn<QString>("line"); ///< behind the options that name the trees
    QTest::addColumn<QString>("replaced");
    QTest::addColumn<QString>("expected");

    const auto row = [](const char* name, const char* line, const char* replaced,
                        const char* expected) {
        QTest::newRow(name) << QString::fromUtf8(line) << QString::fromUtf8(replaced)
                            << QString::fromUtf8(expected);
    };
    row("empty word", "set ", "", "/settings/\n");
    row("blank", "set /settings/text two", "two", "two\\ words\ntwo\\ wörter\n");
    row("blank typed with a backslash", "set /settings/text two\\ wo", "two\\ wo", "two\\ words\n");
    row("in single quotes", "set /settings/text 'two wo", "two wo", "two words\n");
    row("in double quotes", "set /settings/text \"two wo", "two wo", "two words\n");
    row("behind quotes", "set /settings/text \"two w\"o", "\"two w\"o", "two\\ words\n");
    row("quote", "set /settings/text it", "it", "it\\'s\n");
    row("quote in single quotes", "set /settings/text 'it", "it", "it'\\''s\n");
    row("quote in double quotes", "set /settings/text \"it", "it", "it's\n");
    row("dollar", "set /settings/text \\$", "\\$", "\\$x\n");
    row("dollar in double quotes", "set /settings/text \"\\$", "\\$", "\\$x\n");
    row("behind a colon", "set /settings/text a:", "", "b=c\n");
    row("behind a colon and =", "set /settings/text a:b=", "", "c\n");
    row("colon in quotes", "set /settings/text \"a:", "a:", "a:b=c\n");
    row("behind a quoted colon", "set /settings/text a\\:", "a\\:", "a:b=c\n");
    row("value of an option", "--log-level=er", "er", "error\n");
    row("quoted value of an option", "--log-level=\"er", "er", "error\n");
    row("not ASCII", "set /settings/text ü", "ü", "ü\\ ä\n");
    row("file", "load \"a b", "a b", ":files\n");
    row("backslash at the end", "set /settings/text two\\", "two\\", "two\\ words\ntwo\\ wörter\n");
    row("more replaced than there is", "set /settings/text tw", "xxxxxxxxxxxxxxxxxxxxxxxxxxxx",
        "two\\ words\ntwo\\ wörter\n");
}

void TstCompletion::wordForBashIsQuotedAndBeginsWhereBashReplaces()
{
    QFETCH(QString, line);
    QFETCH(QString, replaced);
    QFETCH(QString, expected);
    const CommandLine trees;
    trees.tree.writeDefault(
        QStringLiteral("/text"),
        R"({"edit":{"values":["two words","two wörter","it's","$x","a:b=c","ü ä"]}})");
    trees.tree.writeDefault(QStringLiteral("/.meta"), "{}");

    const QString before =
        QStringLiteral("tulo-cm ") + trees.arguments({}).join(QLatin1Char(' ')) + QLatin1Char(' ');

    QCOMPARE(QString::fromUtf8(completedForBash(before + line, replaced)), expected);
}

void TstCompletion::allOfTenThousandNamesAreCompleted()
{
    constexpr int count = 10000;
    const CommandLine trees;
    trees.tree.makeDefaultDirectory(QStringLiteral("/many"));
    QByteArray expected;
    for (int i = 0; i < count; ++i) {
        const QString name = QStringLiteral("n%1").arg(i, 5, 10, QLatin1Char('0'));
        QVERIFY(QFile(trees.tree.defaultPath() + QStringLiteral("/many/") + name)
                    .open(QIODevice::WriteOnly));
        expected += "/settings/many/" + name.toUtf8() + '\n';
    }

    QCOMPARE(completed(trees.arguments(words("get /settings/many/"))), expected);
}

void TstCompletion::otherOwnerOfTheTreeDoesNotMatter()
{
    const CommandLine trees;
    ChildProcess owner(QStringLiteral(TULO_CM_PROGRAM),
                       trees.arguments({ QStringLiteral("shell") }));
    QVERIFY(owner.start());
    owner.writeInput("set /settings/audio/volume 50 --flush\n");
    QVERIFY(owner.waitForOutput("50\n"));

    QCOMPARE(completed(trees.arguments(words("set /settings/audio/volume "))),
             QByteArray("50\tnow\n35\tdefault\n"));

    owner.closeInput();
    QCOMPARE(owner.finish().exitCode, 0);
}

void TstCompletion::brokenWordsAreSilent()
{
    QCOMPARE(outcome(complete({})), QByteArray());
    QCOMPARE(outcome(complete({ QStringLiteral("get") })), QByteArray());
    QCOMPARE(outcome(complete({ QStringLiteral("--bash") })), QByteArray());
    QCOMPARE(outcome(complete({ QStringLiteral("--"), QStringLiteral("--default-path"),
                                QStringLiteral("/nowhere"), QStringLiteral("get"),
                                QStringLiteral("/settings/") })),
             QByteArray());
    QCOMPARE(completed({ QStringLiteral("get"), QString(100000, QLatin1Char('/')) }), QByteArray());
    // No words at all stand for one that is empty.
    QVERIFY(completed({}).startsWith("get\t"));

    const ChildResult notUtf8 = ChildProcess::run(
        QStringLiteral("sh"),
        { QStringLiteral("-c"), QStringLiteral("exec \"$0\" complete -- get \"$(printf '\\377')\""),
          QStringLiteral(TULO_CM_PROGRAM) });
    QCOMPARE(outcome(notUtf8), QByteArray());
}

void TstCompletion::randomWordsAreSilentAndChangeNothing()
{
    const CommandLine trees;
    trees.tree.writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":50}})");
    const auto before = contentOf(trees.tree);
    const QStringList pieces =
        words("/settings audio / /settings/audio/ /settings/audio/volume .. "
              "get ls set op reset watch find load check texts migrate help "
              "--role --keep --tree --in --rule --product --flush -r -x - -- "
              "--= = : , ' \" \\ ü \u202e 5 -5 true set add remove value * { [")
        + QStringList { QStringLiteral("\n"), QStringLiteral("\t"), QStringLiteral("\x1b[31m") };
    const quint32 seed = randomSeed();
    QRandomGenerator random(seed);

    for (int round = 0; round < repeats(150, 5000); ++round) {
        QStringList typed = trees.arguments({});
        for (int word = random.bounded(6); word >= 0; --word) {
            QString text;
            for (int piece = random.bounded(4) == 0 ? 2 : 1; piece > 0; --piece)
                text += pieces.at(random.bounded(pieces.size()));
            typed.append(text);
        }
        const bool isForBash = random.bounded(2) == 0;
        const QString line = QStringLiteral("tulo-cm ") + typed.join(QLatin1Char(' '));
        const ChildResult result = isForBash
            ? complete({ QStringLiteral("--bash"), line, line.right(random.bounded(9)) })
            : complete(QStringList(QStringLiteral("--")) + typed);

        const QString what = QStringLiteral("seed %1, round %2: %3").arg(seed).arg(round).arg(line);
        QVERIFY2(result.exitCode == 0 && result.standardError.isEmpty(), qPrintable(what));
        QVERIFY2(!result.standardOutput.contains('\x1b'), qPrintable(what));
    }

    QCOMPARE(contentOf(trees.tree), before);
}

// ---------------------------------------------------------------------------------------------
// The service.
// ---------------------------------------------------------------------------------------------

void TstCompletion::serviceIsAsked()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY(service.serve());
    const QStringList options { QStringLiteral("--bus"), bus.address() };

    QCOMPARE(completed(options + words("get /settings/audio/")),
             QByteArray("/settings/audio/gain\n"
                        "/settings/audio/loudness\tLoudness\n"
                        "/settings/audio/mode\n"
                        "/settings/audio/sources\n"
                        "/settings/audio/volume\tVolume\n"));
    QCOMPARE(completed(options + words("set /settings/audio/volume ")),
             QByteArray("35\tnow, default\n"));
    QCOMPARE(completed(options + words("get /settings/audio/volume --role valueU")),
             QByteArray("valueUnit\n"));
    QCOMPARE(completed(options + words("get /settings/nothing/")), QByteArray());
    QCOMPARE(completed(options + words("set /settings/presets/two ")),
             QByteArray("fm:87.5\tdefault\n"));
    QCOMPARE(completed(options + words("set /settings/presets ")), QByteArray());
    QCOMPARE(service.end().exitCode, 0);
}

// More than a service can read in time.
void TstCompletion::manyNamesOfAServiceAreNarrowed()
{
    constexpr int count = 1000;
    const CommandLine trees;
    trees.tree.makeDefaultDirectory(QStringLiteral("/many"));
    trees.tree.makeDefaultDirectory(QStringLiteral("/many/n0-x"));
    trees.tree.writeDefault(QStringLiteral("/many/n0"), R"({"title":"Zero"})");
    for (int i = 0; i < count; ++i) {
        const QString name = QStringLiteral("/many/n%1").arg(i, 4, 10, QLatin1Char('0'));
        trees.tree.writeDefault(name, R"({"title":"Many"})");
    }
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY(service.serve());
    const QStringList options { QStringLiteral("--bus"), bus.address() };
    const QByteArray many("/settings/many/n0");
    QByteArray beginnings = many + "\tZero\n" + many + "-x/\n";
    QByteArray names;
    for (char digit = '0'; digit <= '9'; ++digit) {
        beginnings += many + digit + "\t100 names\n";
        names += many + "12" + digit + "\tMany\n";
    }

    QCOMPARE(completed(options + words("get /settings/many/")), beginnings);
    QCOMPARE(completed(options + words("get /settings/many/n0")), beginnings);
    QCOMPARE(completed(options + words("get /settings/many/n012")), names);
    QCOMPARE(completed(options + words("get /settings/many/n0999")),
             QByteArray("/settings/many/n0999\tMany\n"));
    QCOMPARE(completed(options + words("get /settings/many/o")), QByteArray());
    QCOMPARE(completed(options + words("get /settings/many/m")), QByteArray());
    QCOMPARE(service.end().exitCode, 0);
}

void TstCompletion::missingServiceIsSilent()
{
    const PrivateBus bus;

    QCOMPARE(
        completed({ QStringLiteral("--bus"), bus.address(), QStringLiteral("get"), QString() }),
        QByteArray());
    QCOMPARE(completed(words("--bus unix:path=/nowhere get ")), QByteArray());
    QCOMPARE(completed(words("--bus nonsense get ")), QByteArray());
    // Words that need no settings are completed without them.
    QCOMPARE(completed(words("--bus nonsense drop")),
             QByteArray("drop-cache\tDiscards cached values\n"));
}

void TstCompletion::serviceIsNotStarted()
{
    const QTemporaryDir directory;
    QFile file(directory.filePath(QStringLiteral("org.tulo.ConfigurationManager1.service")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("[D-BUS Service]\nName=org.tulo.ConfigurationManager1\nExec=/bin/false\n");
    file.close();
    const PrivateBus bus(PrivateBus::openPolicy() + "<servicedir>"
                         + QFile::encodeName(directory.path()) + "</servicedir>");
    ChildProcess monitor(QStringLiteral("dbus-monitor"),
                         { QStringLiteral("--address"), bus.address() });
    QVERIFY(monitor.start());
    QVERIFY(monitor.waitForOutput("member=NameLost"));
    const BusClient client(bus.address());
    const auto showAllSoFar = [&client, &monitor](const char* member) {
        client.connection().send(QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/"),
            QStringLiteral("org.example"), QLatin1String(member)));
        return monitor.waitForOutput(QByteArray("member=") + member);
    };
    const QByteArray toService = "destination=org.tulo.ConfigurationManager1";

    QCOMPARE(completed({ QStringLiteral("--bus"), bus.address(), QStringLiteral("get"),
                         QStringLiteral("/settings/") }),
             QByteArray());
    QVERIFY(showAllSoFar("First"));
    QVERIFY(monitor.standardOutput().contains("member=GetNameOwner"));
    QVERIFY(!monitor.standardOutput().contains(toService));
    QVERIFY(!monitor.standardOutput().contains("StartServiceByName"));

    // Another command does start it, and that is seen.
    ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM),
                      { QStringLiteral("--bus"), bus.address(), QStringLiteral("get"),
                        QStringLiteral("/settings") });
    QVERIFY(showAllSoFar("Second"));
    QVERIFY(monitor.standardOutput().contains(toService));
}

void TstCompletion::hungServiceIsNotWaitedFor()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY(service.serve());
    service.sendSignal(SIGSTOP);

    QCOMPARE(outcome(complete({ QStringLiteral("--"), QStringLiteral("--bus"), bus.address(),
                                QStringLiteral("get"), QStringLiteral("/settings/") },
                              0)),
             QByteArray());

    service.sendSignal(SIGCONT);
    QCOMPARE(service.end().exitCode, 0);
}

void TstCompletion::hungBusIsNotWaitedFor()
{
    const PrivateBus bus;
    bus.stop();

    QCOMPARE(outcome(complete({ QStringLiteral("--"), QStringLiteral("--bus"), bus.address(),
                                QStringLiteral("get"), QStringLiteral("/settings/") },
                              0)),
             QByteArray());

    bus.goOn();
}

// A program in the place of ssh, and an address that runs one, would leave a trace.
void TstCompletion::otherMachineIsNotAsked()
{
    const QTemporaryDir directory;
    const QString trace = directory.filePath(QStringLiteral("trace"));
    QFile ssh(directory.filePath(QStringLiteral("ssh")));
    QVERIFY(ssh.open(QIODevice::WriteOnly));
    ssh.write("#!/bin/sh\necho called >>" + QFile::encodeName(trace) + '\n');
    ssh.close();
    QVERIFY(ssh.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    const QString address = QStringLiteral("unixexec:path=") + ssh.fileName();
    const QVector<QStringList> places {
        { QStringLiteral("--host"), QStringLiteral("user@device") },
        { QStringLiteral("--bus"), address },
        { QStringLiteral("--bus"), QStringLiteral("unix:path=/nowhere;") + address },
        { QStringLiteral("--bus"), QStringLiteral("tcp:host=device.invalid,port=1") },
        {} // the system bus, at the address of the environment
    };

    for (const QStringList& place : places) {
        ChildProcess program(QStringLiteral(TULO_CM_PROGRAM),
                             QStringList { QStringLiteral("complete"), QStringLiteral("--") }
                                 + place + words("get /settings/"));
        program.setVariable(QStringLiteral("PATH"), directory.path());
        program.setVariable(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), address);
        program.setVariable(QStringLiteral("TULO_COMPLETE_MS"),
                            QString::number(ChildProcess::waitMs));
        QVERIFY(program.start());
        QCOMPARE(outcome(program.finish()), QByteArray());
    }

    QVERIFY(!QFile::exists(trace));
}

QTEST_GUILESS_MAIN(TstCompletion)
#include "tst_completion.moc"
