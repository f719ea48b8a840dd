#include "tests/support/childprocess.h"
#include "tests/support/files.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

namespace {

struct Step
{
    QByteArray command;
    QByteArray output;
};

// The commands of a page's console blocks, with what they print there. A command that goes on in
// the next line goes on after "> ".
QVector<Step> readSteps(const QByteArray& text)
{
    QVector<Step> steps;
    bool inBlock = false;
    bool inStep = false;
    for (const QByteArray& line : text.split('\n')) {
        if (line.startsWith("```")) {
            inBlock = !inBlock && line == "```console";
            inStep = false;
        } else if (inBlock && line.startsWith("$ ")) {
            inStep = true;
            steps.append({ line.mid(2) + '\n', QByteArray() });
        } else if (inStep && line.startsWith("> ")) {
            steps.last().command += line.mid(2) + '\n';
        } else if (inStep) {
            steps.last().output += line + '\n';
        }
    }
    return steps;
}

QByteArray readPage(const char* name)
{
    return readFile(QStringLiteral(TULO_SOURCE_DIR "/") + QLatin1String(name));
}

bool writeScript(const QString& fileName, const QByteArray& arguments)
{
    QFile script(fileName);
    return script.open(QIODevice::WriteOnly)
        && script.write("#!/bin/sh\nexec '" TULO_CM_PROGRAM "' " + arguments + " \"$@\"\n") > 0
        && script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

QByteArray run(const Step& step, const QTemporaryDir& folder)
{
    ChildProcess shell(
        QStringLiteral("/bin/sh"),
        { QStringLiteral("-c"), QStringLiteral("exec 2>&1\n") + QString::fromUtf8(step.command) });
    shell.setWorkingDirectory(folder.path());
    shell.setVariable(QStringLiteral("PATH"),
                      folder.path() + QLatin1Char(':') + qEnvironmentVariable("PATH"));
    if (!shell.start())
        return "the shell cannot be started";
    shell.closeInput();
    return shell.finish().standardOutput;
}

// "..." in what is shown stands for any text.
bool isShown(const QByteArray& output, const QByteArray& shown)
{
    QString pattern = QRegularExpression::escape(QString::fromUtf8(shown));
    pattern.replace(QLatin1String("\\.\\.\\."), QLatin1String(".*"));
    const QRegularExpression expression(QRegularExpression::anchoredPattern(pattern),
                                        QRegularExpression::DotMatchesEverythingOption);
    return expression.match(QString::fromUtf8(output)).hasMatch();
}

} // namespace

/// What the pages show can be typed, and prints what they say.
class TstReadme : public QObject
{
    Q_OBJECT

private slots:
    void sessionPrintsWhatItShows_data();
    void sessionPrintsWhatItShows();
    void imagesPageHasNoOtherCommands();
};

void TstReadme::sessionPrintsWhatItShows_data()
{
    QTest::addColumn<QByteArray>("page");
    QTest::newRow("readme") << QByteArray("README.md");
    QTest::newRow("images") << QByteArray("docs/images.md");
}

void TstReadme::sessionPrintsWhatItShows()
{
    QFETCH(const QByteArray, page);
    const QVector<Step> steps = readSteps(readPage(page.constData()));
    QVERIFY(!steps.isEmpty());

    const QTemporaryDir folder;
    QVERIFY(writeScript(folder.filePath(QStringLiteral("tulo-cm")), "--log-level warn"));
    // Stands in for ./run, which would build first and use a writable tree that others changed.
    QVERIFY(QDir(folder.path()).mkdir(QStringLiteral("written")));
    QVERIFY(writeScript(folder.filePath(QStringLiteral("run")),
                        "--default-path '" TULO_EXAMPLE_TREE
                        "' --write-path written --catalogues '" TULO_CATALOGUES "'"));

    for (const Step& step : steps) {
        const QByteArray output = run(step, folder);
        if (!isShown(output, step.output))
            QCOMPARE("$ " + step.command + output, "$ " + step.command + step.output);
    }
}

// Whatever can be typed there is run.
void TstReadme::imagesPageHasNoOtherCommands()
{
    const QByteArray page = readPage("docs/images.md");

    QVERIFY(!page.isEmpty());
    QVERIFY(!page.contains("```sh"));
}

QTEST_GUILESS_MAIN(TstReadme)
#include "tst_readme.moc"
