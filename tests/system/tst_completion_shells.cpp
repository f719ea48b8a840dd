#include "tests/support/files.h"
#include "tests/support/terminal.h"
#include "tests/system/commandline.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

namespace {

/// A shell of the system, ready at its first prompt, with the program in its path.
class SystemShell
{
public:
    enum class Kind { Bash, BashWithPackage, Zsh, Fish };

    SystemShell(Kind kind, const CommandLine& trees)
        : m_terminal(100, 24)
    {
        QStringList arguments;
        switch (kind) {
        case Kind::Bash:
            write("bashrc", "PS1='$ '\n. " + source("tulo-cm.bash"));
            arguments = QStringList { QStringLiteral("bash"), QStringLiteral("--rcfile"),
                                      m_directory.filePath(QStringLiteral("bashrc")),
                                      QStringLiteral("-i") };
            break;
        case Kind::BashWithPackage:
            // Which finds the completion of a command by its name.
            write("completions/tulo-cm", ". " + source("tulo-cm.bash"));
            write("bashrc",
                  "PS1='$ '\nBASH_COMPLETION_USER_DIR=" + QFile::encodeName(m_directory.path())
                      + "\n. /usr/share/bash-completion/bash_completion\n");
            arguments = QStringList { QStringLiteral("bash"), QStringLiteral("--rcfile"),
                                      m_directory.filePath(QStringLiteral("bashrc")),
                                      QStringLiteral("-i") };
            break;
        case Kind::Zsh:
            write(".zshrc",
                  "PS1='$ '\nunsetopt promptsp\nfpath=(" + source("")
                      + " $fpath)\n"
                        "autoload -Uz compinit\ncompinit -u -D\n");
            arguments =
                QStringList { QStringLiteral("zsh"), QStringLiteral("-d"), QStringLiteral("-i") };
            break;
        case Kind::Fish:
            write("fish/config.fish",
                  "set -g fish_greeting\nset -g fish_autosuggestion_enabled 0\n"
                  "function fish_prompt; echo -n '$ '; end\nfunction fish_right_prompt; end\n"
                  "function fish_title; end\n"
                  "source "
                      + source("tulo-cm.fish") + '\n');
            arguments = QStringList { QStringLiteral("fish"), QStringLiteral("-i") };
            break;
        }
        const QByteArray home = QFile::encodeName(m_directory.path());
        for (const char* name : { "HOME", "ZDOTDIR", "XDG_CONFIG_HOME", "XDG_DATA_HOME" })
            m_terminal.setVariable(name, home);
        m_terminal.setVariable("LC_ALL", "C.UTF-8");
        m_terminal.setVariable("PATH",
                               QFileInfo(QStringLiteral(TULO_CM_PROGRAM)).path().toUtf8() + ':'
                                   + qgetenv("PATH"));
        // As long as a busy machine needs.
        m_terminal.setVariable("TULO_COMPLETE_MS", QByteArray::number(ChildProcess::waitMs));
        m_terminal.start(QStringLiteral("/usr/bin/env"),
                         QStringList { QStringLiteral("--chdir"), trees.tree.path() } + arguments);
    }

    Terminal& terminal() { return m_terminal; }

private:
    static QByteArray source(const char* name)
    {
        return QByteArray(TULO_SOURCE_DIR "/packaging/completions/") + name;
    }

    void write(const char* name, const QByteArray& content) const
    {
        writeFile(m_directory.filePath(QLatin1String(name)), content);
    }

    const QTemporaryDir m_directory;
    Terminal m_terminal;
};

bool isInstalled(const char* program)
{
    return !QStandardPaths::findExecutable(QLatin1String(program)).isEmpty();
}

} // namespace

/// Completion in the shells themselves, by the Tab key.
class TstCompletionShells : public QObject
{
    Q_OBJECT

private slots:
    void bashCompletes();
    void bashWithItsPackageCompletes();
    void zshCompletes();
    void fishCompletes();

    void bashListsWithDescriptions();
    void zshListsWithDescriptions();
    void fishListsWithDescriptions();
    void bashCompletesTheNameOfAFileBehindARedirection();

private:
    static void check(SystemShell::Kind kind);
    static void checkList(SystemShell::Kind kind, const char* keys, const char* shown);
};

namespace {

struct Row
{
    const char* keys;
    const char* line; ///< that is there then
};

// What is completed ends with a blank, unless more of the same word follows.
const Row rows[] = {
    { "tulo-cm dr\t", "tulo-cm drop-cache |" },
    { "tulo-cm --default-path default --write-path=written get /se\tau\tv\t",
      "tulo-cm --default-path default --write-path=written get /settings/audio/volume |" },
    { "tulo-cm check --st\b\bag\t", "tulo-cm check --against |" },
    { "tulo-cm --log-level=er\t", "tulo-cm --log-level=error |" },
    { "tulo-cm --log-level er\t", "tulo-cm --log-level error |" },
    { "tulo-cm nothing /se\t", "tulo-cm nothing /se|" },
    { "tulo-cm --default-path default set /settings/text tw\t",
      "tulo-cm --default-path default set /settings/text two\\ words |" },
    { "tulo-cm --default-path default set /settings/text two\\ w\t",
      "tulo-cm --default-path default set /settings/text two\\ words |" },
    { "tulo-cm --default-path default set /settings/text 'two w\t",
      "tulo-cm --default-path default set /settings/text 'two words' |" },
    { "tulo-cm --default-path default set /settings/text \"two w\t",
      "tulo-cm --default-path default set /settings/text \"two words\" |" },
    { "tulo-cm --default-path default set '/settings/te\t",
      "tulo-cm --default-path default set '/settings/text' |" },
    { "tulo-cm --default-path 'default' set '/settings/text' tw\t",
      "tulo-cm --default-path 'default' set '/settings/text' two\\ words |" },
    { "tulo-cm --default-path default set /settings/text it\t",
      "tulo-cm --default-path default set /settings/text it\\'s |" },
    { "tulo-cm --default-path default set /settings/text a:\t",
      "tulo-cm --default-path default set /settings/text a:b=c |" },
    { "tulo-cm --default-path default set /settings/text a:b=\t",
      "tulo-cm --default-path default set /settings/text a:b=c |" },
    { "tulo-cm --default-path default set /settings/text ü\t",
      "tulo-cm --default-path default set /settings/text ü\\ ä |" },
    { "tulo-cm --default-path default set /settings/text \\$\t",
      "tulo-cm --default-path default set /settings/text \\$x |" },
    { "tulo-cm load a\t", "tulo-cm load a\\ dump |" },
    { "tulo-cm --default-path de\t", "tulo-cm --default-path default/|" },
    { "tulo-cm --default-path=de\t", "tulo-cm --default-path=default/|" },
};

} // namespace

void TstCompletionShells::check(SystemShell::Kind kind)
{
    const CommandLine trees;
    trees.tree.writeDefault(QStringLiteral("/text"),
                            R"({"edit":{"values":["two words","it's","a:b=c","ü ä","$x"]}})");
    QVERIFY(QFile(trees.tree.path() + QStringLiteral("/a dump")).open(QIODevice::WriteOnly));
    QVERIFY(QFile(trees.tree.path() + QStringLiteral("/denoted")).open(QIODevice::WriteOnly));
    SystemShell shell(kind, trees);
    COMPARE_SCREEN(shell.terminal(), QStringLiteral("$ |"));

    for (const Row& row : rows) {
        shell.terminal().type(row.keys);
        COMPARE_SCREEN(shell.terminal(), QStringLiteral("$ ") + QString::fromUtf8(row.line));
        // Discards the line.
        shell.terminal().type("\x15");
        COMPARE_SCREEN(shell.terminal(), QStringLiteral("$ |"));
    }
}

void TstCompletionShells::bashCompletes()
{
    check(SystemShell::Kind::Bash);
}

void TstCompletionShells::bashWithItsPackageCompletes()
{
    if (!QFile::exists(QStringLiteral("/usr/share/bash-completion/bash_completion")))
        QSKIP("needs bash-completion");
    check(SystemShell::Kind::BashWithPackage);
}

void TstCompletionShells::zshCompletes()
{
    if (!isInstalled("zsh"))
        QSKIP("needs zsh");
    check(SystemShell::Kind::Zsh);
}

void TstCompletionShells::fishCompletes()
{
    if (!isInstalled("fish"))
        QSKIP("needs fish");
    check(SystemShell::Kind::Fish);
}

// How a list is laid out is the shell's business.
void TstCompletionShells::checkList(SystemShell::Kind kind, const char* keys, const char* shown)
{
    const CommandLine trees;
    SystemShell shell(kind, trees);
    COMPARE_SCREEN(shell.terminal(), QStringLiteral("$ |"));

    shell.terminal().type(QByteArray("tulo-cm --default-path default get /settings/audio/") + keys);

    QVERIFY2(shell.terminal().waitFor(QLatin1String(shown)), qPrintable(shell.terminal().screen()));
    // The list has changed nothing.
    shell.terminal().type("v\t");
    QVERIFY(shell.terminal().waitFor(QStringLiteral("get /settings/audio/volume")));
}

void TstCompletionShells::bashListsWithDescriptions()
{
    checkList(SystemShell::Kind::Bash, "\t\t", "/settings/audio/loudness  -- Loudness");
}

void TstCompletionShells::zshListsWithDescriptions()
{
    if (!isInstalled("zsh"))
        QSKIP("needs zsh");
    checkList(SystemShell::Kind::Zsh, "\t", "/settings/audio/loudness  -- Loudness");
}

void TstCompletionShells::fishListsWithDescriptions()
{
    if (!isInstalled("fish"))
        QSKIP("needs fish");
    checkList(SystemShell::Kind::Fish, "\t", "audio/loudness  (Loudness)");
}

void TstCompletionShells::bashCompletesTheNameOfAFileBehindARedirection()
{
    const CommandLine trees;
    SystemShell shell(SystemShell::Kind::Bash, trees);
    COMPARE_SCREEN(shell.terminal(), QStringLiteral("$ |"));

    shell.terminal().type("tulo-cm get > de\t");

    COMPARE_SCREEN(shell.terminal(), QStringLiteral("$ tulo-cm get > default/|"));
}

QTEST_GUILESS_MAIN(TstCompletionShells)
#include "tst_completion_shells.moc"
