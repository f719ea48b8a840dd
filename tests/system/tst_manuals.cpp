#include "tests/support/childprocess.h"
#include "tests/support/files.h"
#include "tests/system/commandline.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QRegularExpression>
#include <QSet>
#include <QStringList>
#include <QTest>

/// What the manuals, help and completion say about commands and options.
class TstManuals : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void pagesSayWhatTheProgramsDo();
    void optionsAreTheSameEverywhere_data();
    void optionsAreTheSameEverywhere();
    void everyNameOfTheInterfaceHasAnEntry();
    void pagesNeedNoUtf8();

private:
    const CommandLine m_cli;
};

namespace {

using Names = QSet<QString>;

// "general" stands for the program itself.
const QString general = QStringLiteral("general");

QString page(const char* name)
{
    return QString::fromUtf8(
        readFile(QStringLiteral(TULO_SOURCE_DIR "/docs/man/") + QLatin1String(name)));
}

QStringList sorted(const Names& names)
{
    QStringList list = names.values();
    list.sort();
    return list;
}

Names matches(const QString& text, const char* expression)
{
    Names names;
    auto match = QRegularExpression(QLatin1String(expression), QRegularExpression::MultilineOption)
                     .globalMatch(text);
    while (match.hasNext())
        names.insert(match.next().captured(1));
    return names;
}

// ---------------------------------------------------------------------------------------------
// By command, in each of the places.
// ---------------------------------------------------------------------------------------------

// The page's terms: "*get* _PATH_..." of a command, one column further "*--role* _ROLE_".
QMap<QString, Names> inManual()
{
    QMap<QString, Names> options;
    QString section;
    QString command;
    const QStringList lines = page("tulo-cm.1.scd").split(QLatin1Char('\n'));
    for (const QString& line : lines) {
        if (line.startsWith(QLatin1String("# ")))
            section = line.mid(2);
        if (section == QLatin1String("OPTIONS")) {
            options[general] += matches(line, "^\\*--([-a-z]+)\\*");
        } else if (section == QLatin1String("COMMANDS") || section == QLatin1String("SHELL")) {
            for (const QString& name : matches(line, "^\\*([-a-z]+)\\*"))
                command = name;
            if (!command.isEmpty())
                options[command] += matches(line, "^\\t\\*--([-a-z]+)\\*");
        }
    }
    return options;
}

Names namesOf(const QJsonValue& options)
{
    Names names;
    const QJsonArray array = options.toArray();
    for (const QJsonValue& option : array)
        names.insert(option.toObject().value(QLatin1String("name")).toString());
    return names;
}

QMap<QString, Names> inJson(const CommandLine& cli)
{
    const QByteArray outside = cli.run("help --json").standardOutput;
    const QByteArray inShell = cli.run("--json shell", "help\n").standardOutput;
    QMap<QString, Names> options;
    for (const QByteArray& help : { outside, inShell }) {
        const QJsonObject object = QJsonDocument::fromJson(help).object();
        const QJsonArray commands = object.value(QLatin1String("commands")).toArray();
        for (const QJsonValue& command : commands)
            options[command.toObject().value(QLatin1String("name")).toString()] +=
                namesOf(command.toObject().value(QLatin1String("options")));
        options[general] += namesOf(object.value(QLatin1String("options")));
    }
    return options;
}

Names inHelp(const CommandLine& cli, const QString& command)
{
    QStringList words { QStringLiteral("help") };
    if (command != general)
        words.append(command);
    const QString help = QString::fromUtf8(cli.run(words).standardOutput);
    return matches(help.section(QLatin1String("\nOptions:\n"), 1), "^  --([-a-z]+)");
}

Names inCompletion(const QString& command)
{
    QStringList words { QStringLiteral("complete"), QStringLiteral("--") };
    if (command != general)
        words.append(command);
    words.append(QStringLiteral("--"));
    // Without trees: options need none.
    ChildProcess program(QStringLiteral(TULO_CM_PROGRAM), words);
    program.setVariable(QStringLiteral("TULO_COMPLETE_MS"), QString::number(ChildProcess::waitMs));
    program.start();
    const ChildResult result = program.finish();
    return matches(QString::fromUtf8(result.standardOutput), "^--([-a-z]+)\\t");
}

} // namespace

// The pages are committed, so that a build for another machine needs to run nothing.
void TstManuals::pagesSayWhatTheProgramsDo()
{
    const ChildResult result =
        ChildProcess::run(QStringLiteral(TULO_SOURCE_DIR "/scripts/manuals"),
                          { QStringLiteral("--check"), QStringLiteral(TULO_BUILD_DIR) });

    QVERIFY2(result.exitCode == 0, result.standardOutput + result.standardError);
}

void TstManuals::optionsAreTheSameEverywhere_data()
{
    QTest::addColumn<QString>("command");
    const auto options = inJson(m_cli);
    QVERIFY(options.size() > 20);
    QCOMPARE(inManual().keys(), options.keys());
    for (auto entry = options.cbegin(); entry != options.cend(); ++entry)
        QTest::newRow(qPrintable(entry.key())) << entry.key();
}

void TstManuals::optionsAreTheSameEverywhere()
{
    QFETCH(const QString, command);

    const QStringList expected = sorted(inJson(m_cli).value(command));

    QCOMPARE(sorted(inHelp(m_cli, command)), expected);
    QCOMPARE(sorted(inManual().value(command)), expected);
    QCOMPARE(sorted(inCompletion(command)), expected);
}

void TstManuals::everyNameOfTheInterfaceHasAnEntry()
{
    const QString description = QString::fromUtf8(
        readFile(QStringLiteral(TULO_SOURCE_DIR "/daemon/org.tulo.ConfigurationManager1.xml")));
    const QString manual = page("org.tulo.ConfigurationManager1.5.scd");

    const Names interfaces = matches(description, "<interface name=\"([^\"]+)\"");
    QCOMPARE(interfaces.size(), 3);
    QCOMPARE(sorted(matches(manual, "^# INTERFACE (.*)$")), sorted(interfaces));
    Names members = matches(description, "<(?:method|signal|property) name=\"([^\"]+)\"");
    QVERIFY(members.size() > 20);
    const Names terms = matches(manual, "^\\*([A-Za-z]+)\\*");
    QCOMPARE(sorted(members - terms), QStringList());
    // What was refused is named in the page as it is on the bus.
    QVERIFY(terms.contains(QStringLiteral("NotModifiable")));
}

// In another locale man warns of what it cannot show.
void TstManuals::pagesNeedNoUtf8()
{
    const QStringList names { QStringLiteral("*.scd") };
    const QDir directory(QStringLiteral(TULO_SOURCE_DIR "/docs/man"));
    const QStringList files = directory.entryList(names, QDir::Files);
    QVERIFY(!files.isEmpty());
    for (const QString& file : files) {
        const QStringList others = matches(page(qPrintable(file)), "([^\\x00-\\x7f]+)").values();
        QVERIFY2(others.isEmpty(),
                 qPrintable(file + QLatin1String(": ") + others.join(QLatin1Char(' '))));
    }
}

QTEST_GUILESS_MAIN(TstManuals)
#include "tst_manuals.moc"
