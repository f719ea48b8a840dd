#include "tests/system/commandline.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

// The line that says which trees were checked.
QByteArray summary(const QString& defaultPath, const QString& writePath, int findings,
                   int harmless = 0)
{
    return QStringLiteral("tulo-cm: checked '%1' and '%2'; findings: %3, harmless: %4\n")
        .arg(defaultPath, writePath, QString::number(findings), QString::number(harmless))
        .toUtf8();
}

QByteArray summary(const CommandLine& cli, int findings, int harmless = 0)
{
    return summary(cli.tree.defaultPath(), cli.tree.writePath(), findings, harmless);
}

} // namespace

/// What is wrong in the trees is found before it is met.
class TstCheck : public QObject
{
    Q_OBJECT

private slots:
    void exampleTreeIsClean();
    void filesOfTheFormatPageAreClean();
    void findings_data();
    void findings();
    void jsonFindings();
    void allFindingsInListingOrder();
    void hiddenDirectoryIsNotEntered();
    void linksAreFollowedOnce();
    void specialFilesAreNotOpened();
    void writableTreeIsChecked();
    void staleTemporaryFileIsHarmless();
    void shellChecksItsOwnTrees();
    void unreadableDirectoryIsAnError_data();
    void unreadableDirectoryIsAnError();
};

void TstCheck::exampleTreeIsClean()
{
    const QTemporaryDir written;

    const ChildResult result = ChildProcess::run(
        QStringLiteral(TULO_CM_PROGRAM),
        { QStringLiteral("--default-path"), QStringLiteral(TULO_EXAMPLE_TREE),
          QStringLiteral("--write-path"), written.path(), QStringLiteral("check") });

    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.standardError, summary(QStringLiteral(TULO_EXAMPLE_TREE), written.path(), 0));
    QCOMPARE(result.exitCode, 0);
}

// The examples of the page, in its order, are what they say they are.
void TstCheck::filesOfTheFormatPageAreClean()
{
    QFile page(QStringLiteral(TULO_SOURCE_DIR "/docs/file-format.md"));
    QVERIFY(page.open(QIODevice::ReadOnly));
    const QList<QByteArray> lines = page.readAll().split('\n');
    QVector<QByteArray> files;
    for (int i = 0; i < lines.size(); ++i) {
        if (lines.at(i) != "```json")
            continue;
        files.append(QByteArray());
        for (++i; lines.at(i) != "```"; ++i)
            files.last() += lines.at(i) + '\n';
    }
    QCOMPARE(files.size(), 4);
    const QTemporaryDir defaults;
    const QTemporaryDir written;
    const QStringList names { defaults.filePath(QStringLiteral("audio/volume")),
                              defaults.filePath(QStringLiteral("audio/.meta")),
                              defaults.filePath(QStringLiteral("audio/presets/.meta")),
                              written.filePath(QStringLiteral("audio/volume")) };
    for (int i = 0; i < names.size(); ++i) {
        QVERIFY(QDir().mkpath(QFileInfo(names.at(i)).path()));
        QFile file(names.at(i));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(files.at(i));
    }
    const QStringList trees { QStringLiteral("--default-path"), defaults.path(),
                              QStringLiteral("--write-path"), written.path() };
    const QString program = QStringLiteral(TULO_CM_PROGRAM);

    const ChildResult check =
        ChildProcess::run(program, trees + QStringList(QStringLiteral("check")));
    QCOMPARE(check.standardOutput, QByteArray());
    QCOMPARE(check.exitCode, 0);
    const ChildResult volume = ChildProcess::run(
        program,
        trees + QStringList { QStringLiteral("get"), QStringLiteral("/settings/audio/volume") });
    QCOMPARE(volume.standardOutput, QByteArray("20\n"));
    const ChildResult preset = ChildProcess::run(
        program,
        trees
            + QStringList { QStringLiteral("set"), QStringLiteral("/settings/audio/presets/one"),
                            QStringLiteral("dab:5C") });
    QCOMPARE(preset.standardOutput, QByteArray("dab:5C\n"));
}

void TstCheck::findings_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("message");

    const auto row = [](const char* name, const char* file, const char* content,
                        const char* message) {
        QTest::newRow(name) << QString::fromUtf8(file) << QByteArray(content)
                            << QByteArray(message);
    };
    row("empty", "audio/x", "", "line 1, column 1: The document is empty.");
    row("no JSON", "audio/x", "{\"value\":", "line 1, column 10: Invalid value.");
    row("directory's roles", "audio/.meta", "{",
        "line 1, column 2: Missing a name for object member.");
    row("null", "audio/x", "null", "holds null instead of an object");
    row("list", "audio/x", "[]", "holds list instead of an object");
    row("number", "audio/x", "5", "holds int instead of an object");
    row("value without a kind", "audio/x", "{\"value\":5}",
        "value: 5 is not a value of a known kind, such as {\"int\":5}");
    row("value of an unknown kind", "audio/x", "{\"value\":{\"number\":5}}",
        "value: {\"number\":5} is not a value of a known kind, such as {\"int\":5}");
    row("value of two kinds", "audio/x", "{\"value\":{\"int\":5,\"double\":5.0}}",
        "value: {\"double\":5.0,\"int\":5} is not a value of a known kind, such as {\"int\":5}");
    row("content of another kind", "audio/x", "{\"value\":{\"bool\":1}}",
        "value: {\"bool\":1} is not a value of a known kind, such as {\"int\":5}");
    row("default value without a kind", "audio/x", "{\"defaultValue\":\"x\"}",
        "defaultValue: \"x\" is not a value of a known kind, such as {\"int\":5}");
    row("template's value", "presets/.meta", "{\"value\":true}",
        "value: true is not a value of a known kind, such as {\"int\":5}");
    row("above the range", "audio/x", "{\"value\":{\"int\":5},\"edit\":{\"max\":4}}",
        "value: 5: it is above 'max' (4)");
    row("beside the step", "audio/x", "{\"value\":{\"int\":5},\"edit\":{\"step\":2}}",
        "value: 5: it does not lie on a 'step' (2)");
    row("not listed", "audio/x",
        "{\"value\":{\"string\":\"c\"},\"edit\":{\"values\":[\"a\",\"b\"]}}",
        "value: \"c\": it is not one of the 'values' ([\"a\",\"b\"])");
    row("of another kind than asked for", "audio/x",
        "{\"value\":{\"int\":5},\"edit\":{\"kind\":\"string\"}}",
        "value: 5: it is not of the kind 'string'");
    row("constraints in a text", "audio/x", "{\"value\":{\"int\":5},\"edit\":\"0..100\"}",
        "edit: \"0..100\" is not an object");
    row("product variant", "audio/volume_sport", "{\"value\":{\"int\":5},\"edit\":{\"max\":4}}",
        "value: 5: it is above 'max' (4)");
    row("name with a dot", "audio/x.json", "{}", "no listing shows this name");
    row("backup", "audio/volume~", "{}", "no listing shows this name");
    row("hidden file", "audio/.x", "{}", "no listing shows this name");
}

void TstCheck::findings()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, message);
    const CommandLine cli;
    cli.tree.writeDefault(QLatin1Char('/') + file, content);

    const ChildResult result = cli.run("check");

    QCOMPARE(result.standardOutput,
             cli.tree.defaultPath().toUtf8() + '/' + file.toUtf8() + ": " + message + '\n');
    QCOMPARE(result.standardError, summary(cli, 1));
    QCOMPARE(result.exitCode, 8);
}

void TstCheck::jsonFindings()
{
    const CommandLine cli;
    cli.tree.writeDefault(QStringLiteral("/audio/x"), QByteArray("{"));
    cli.tree.writeDefault(QStringLiteral("/audio/y~"), QByteArray("{}"));

    const ChildResult result = cli.run("check --json");

    const QByteArray root = cli.tree.defaultPath().toUtf8();
    QCOMPARE(
        result.standardOutput,
        "{\"file\":\"" + root
            + "/audio/x\",\"finding\":\"unparsable\",\"message\":\"line 1, column 2: Missing a name "
              "for object member.\"}\n{\"file\":\""
            + root
            + "/audio/y~\",\"finding\":\"notListed\",\"message\":\"no listing shows this name\"}\n");
    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.exitCode, 8);
}

void TstCheck::allFindingsInListingOrder()
{
    const CommandLine cli;
    cli.tree.writeDefault(QStringLiteral("/b"), QByteArray("1"));
    cli.tree.writeDefault(QStringLiteral("/a/z"), QByteArray("1"));
    cli.tree.writeDefault(QStringLiteral("/a/Y"), QByteArray("1"));

    const QList<QByteArray> lines = cli.run("check").standardOutput.split('\n');

    QCOMPARE(lines.size(), 4);
    QVERIFY(lines.at(0).contains("/a/Y: "));
    QVERIFY(lines.at(1).contains("/a/z: "));
    QVERIFY(lines.at(2).contains("/b: "));
}

void TstCheck::hiddenDirectoryIsNotEntered()
{
    const CommandLine cli;
    cli.tree.writeDefault(QStringLiteral("/.hidden/x"), QByteArray("broken"));

    QCOMPARE(cli.run("check").standardOutput,
             cli.tree.defaultPath().toUtf8() + "/.hidden: no listing shows this name\n");
}

void TstCheck::linksAreFollowedOnce()
{
    const CommandLine cli;
    const QString root = cli.tree.defaultPath();
    QVERIFY(QFile::link(root, root + QStringLiteral("/audio/loop")));
    QVERIFY(QFile::link(root + QStringLiteral("/none"), root + QStringLiteral("/broken")));

    QCOMPARE(cli.run("check").standardOutput,
             root.toUtf8() + "/audio/loop: is a link to a directory that it lies in\n"
                 + root.toUtf8() + "/broken: is a link that leads nowhere\n");
}

void TstCheck::specialFilesAreNotOpened()
{
    const CommandLine cli;
    const QByteArray pipe = cli.tree.defaultPath().toUtf8() + "/pipe";
    QCOMPARE(::mkfifo(pipe.constData(), 0644), 0);

    const ChildResult result = cli.run("check");

    QCOMPARE(result.standardOutput, pipe + ": is neither a regular file nor a directory\n");
    QCOMPARE(result.exitCode, 8);
}

void TstCheck::writableTreeIsChecked()
{
    const CommandLine cli;
    cli.tree.writeDefault(QStringLiteral("/audio/x"), QByteArray("{"));
    cli.tree.writeWritten(QStringLiteral("/audio/volume"), QByteArray("{\"val"));
    const QByteArray pipe = cli.tree.writePath().toUtf8() + "/audio/mode";
    QCOMPARE(::mkfifo(pipe.constData(), 0644), 0);

    const ChildResult result = cli.run("check");

    QCOMPARE(result.standardOutput,
             cli.tree.defaultPath().toUtf8()
                 + "/audio/x: line 1, column 2: Missing a name for object member.\n" + pipe
                 + ": is neither a regular file nor a directory\n" + cli.tree.writePath().toUtf8()
                 + "/audio/volume: line 1, column 6: Missing a closing quotation mark in "
                   "string.\n");
    QCOMPARE(result.standardError, summary(cli, 3));
    QCOMPARE(result.exitCode, 8);
}

void TstCheck::staleTemporaryFileIsHarmless()
{
    const CommandLine cli;
    cli.tree.writeWritten(QStringLiteral("/audio/.volume"), QByteArray("{\"val"));

    const ChildResult result = cli.run("check");

    QCOMPARE(result.standardOutput,
             cli.tree.writePath().toUtf8()
                 + "/audio/.volume: may be left from an interrupted write of 'volume', whose next "
                   "write reuses it\n");
    QCOMPARE(result.standardError, summary(cli, 0, 1));
    QCOMPARE(result.exitCode, 0);
}

void TstCheck::shellChecksItsOwnTrees()
{
    const CommandLine cli;
    cli.tree.writeWritten(QStringLiteral("/audio/volume"), QByteArray("5"));

    const ChildResult result = cli.run({ QStringLiteral("shell") }, "check\n");

    QCOMPARE(result.standardOutput,
             cli.tree.writePath().toUtf8() + "/audio/volume: holds int instead of an object\n");
    QCOMPARE(result.standardError, summary(cli, 1));
    QCOMPARE(result.exitCode, 8);
}

void TstCheck::unreadableDirectoryIsAnError_data()
{
    QTest::addColumn<bool>("isWritableTree");
    QTest::newRow("default tree") << false;
    QTest::newRow("writable tree") << true;
}

void TstCheck::unreadableDirectoryIsAnError()
{
    QFETCH(const bool, isWritableTree);
    const CommandLine cli;
    const QString closed = isWritableTree ? cli.tree.writePath() : cli.tree.defaultPath();
    QCOMPARE(::chmod(QFile::encodeName(closed).constData(), 0000), 0);

    // Root could read it.
    const QStringList words = cli.arguments({ QStringLiteral("check") });
    const ChildResult result = ::geteuid() != 0
        ? ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM), words)
        : ChildProcess::run(
            QStringLiteral("setpriv"),
            QStringList { QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"),
                          QStringLiteral("--clear-groups"), QStringLiteral(TULO_CM_PROGRAM) }
                + words);

    QCOMPARE(::chmod(QFile::encodeName(closed).constData(), 0755), 0);
    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.standardError, "tulo-cm: directory '" + closed.toUtf8() + "' cannot be read\n");
    QCOMPARE(result.exitCode, 7);
}

QTEST_GUILESS_MAIN(TstCheck)
#include "tst_check.moc"
