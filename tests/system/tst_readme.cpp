#include "tests/support/childprocess.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {

struct Step
{
    QByteArray command;
    QByteArray output;
};

// The commands of the README's console blocks that use ./run, with what they print there. A
// command that goes on in the next line goes on after "> ".
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
            inStep = line.contains("./run");
            if (inStep)
                steps.append({ line.mid(2) + '\n', QByteArray() });
        } else if (inStep && line.startsWith("> ")) {
            steps.last().command += line.mid(2) + '\n';
        } else if (inStep) {
            steps.last().output += line + '\n';
        }
    }
    return steps;
}

} // namespace

/// The session that the README shows can be typed, and prints what the README says.
class TstReadme : public QObject
{
    Q_OBJECT

private slots:
    void sessionPrintsWhatItShows();
};

void TstReadme::sessionPrintsWhatItShows()
{
    QFile readme(QStringLiteral(TULO_SOURCE_DIR "/README.md"));
    QVERIFY(readme.open(QIODevice::ReadOnly));
    const QVector<Step> steps = readSteps(readme.readAll());
    QVERIFY(!steps.isEmpty());

    // Stands in for ./run, which would build first and use a writable tree that others changed.
    const QTemporaryDir folder;
    QVERIFY(QDir(folder.path()).mkdir(QStringLiteral("written")));
    QFile script(folder.filePath(QStringLiteral("run")));
    QVERIFY(script.open(QIODevice::WriteOnly));
    script.write("#!/bin/sh\nexec '" TULO_CM_PROGRAM "' --default-path '" TULO_EXAMPLE_TREE
                 "' --write-path written --catalogues '" TULO_CATALOGUES "' \"$@\"\n");
    script.close();
    QVERIFY(script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));

    for (const Step& step : steps) {
        ChildProcess shell(QStringLiteral("/bin/sh"),
                           { QStringLiteral("-c"),
                             QStringLiteral("exec 2>&1\n") + QString::fromUtf8(step.command) });
        shell.setWorkingDirectory(folder.path());
        QVERIFY(shell.start());
        shell.closeInput();
        const ChildResult result = shell.finish();
        QCOMPARE("$ " + step.command + result.standardOutput, "$ " + step.command + step.output);
    }
}

QTEST_GUILESS_MAIN(TstReadme)
#include "tst_readme.moc"
