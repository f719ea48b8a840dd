#include "tulo-cm/pager.h"

#include "tulo-cm/signalhandler.h"

#include <QProcess>
#include <QProcessEnvironment>

#include <csignal>
#include <initializer_list>

namespace tulo {
namespace {

/// Takes no notice of the keys that interrupt as long as it lives: the terminal sends their signals
/// to the pager and to this process.
class KeysIgnored
{
public:
    KeysIgnored()
    {
        struct sigaction ignored = {};
        ignored.sa_handler = SIG_IGN;
        ::sigaction(SIGINT, &ignored, &m_interrupt);
        ::sigaction(SIGQUIT, &ignored, &m_quit);
    }
    ~KeysIgnored()
    {
        ::sigaction(SIGINT, &m_interrupt, nullptr);
        ::sigaction(SIGQUIT, &m_quit, nullptr);
    }
    Q_DISABLE_COPY(KeysIgnored)

private:
    struct sigaction m_interrupt = {};
    struct sigaction m_quit = {};
};

class PagerProcess : public QProcess
{
protected:
    void setupChildProcess() override
    {
        for (const int number : { SIGINT, SIGQUIT, SIGPIPE })
            std::signal(number, SIG_DFL);
    }
};

QProcessEnvironment pagerEnvironment()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const auto insert = [&environment](const char* name, const char* value) {
        if (!environment.contains(QLatin1String(name)))
            environment.insert(QLatin1String(name), QLatin1String(value));
    };
    // Ends where the text fits, shows colours, leaves the text on the screen.
    insert("LESS", "FRX");
    // What is printed is UTF-8 whatever the locale says.
    insert("LESSCHARSET", "utf-8");
    // Who may run this program by sudo should not get a shell of root with less.
    if (environment.contains(QStringLiteral("SUDO_UID")))
        insert("LESSSECURE", "1");
    return environment;
}

} // namespace

QString pagerCommand()
{
    for (const char* variable : { "TULO_PAGER", "PAGER" }) {
        if (qEnvironmentVariableIsSet(variable)) {
            const QString command = qEnvironmentVariable(variable).trimmed();
            return command == QLatin1String("cat") ? QString() : command;
        }
    }
    return QStringLiteral("less");
}

bool showInPager(const QString& command, const QByteArray& text)
{
    // What a shell answers for a command that it cannot run.
    constexpr int notExecutable = 126;
    constexpr int notFound = 127;
    const KeysIgnored keysIgnored;
    PagerProcess pager;
    pager.setProcessEnvironment(pagerEnvironment());
    pager.setProcessChannelMode(QProcess::ForwardedChannels);
    pager.start(QStringLiteral("/bin/sh"), { QStringLiteral("-c"), command });
    if (!pager.waitForStarted(-1))
        return false;
    pager.write(text);
    pager.closeWriteChannel();
    serveEvents(-1, [&pager] { return pager.state() == QProcess::NotRunning; });
    if (pager.state() != QProcess::NotRunning) {
        pager.terminate();
        pager.waitForFinished(-1);
    }
    return pager.exitStatus() != QProcess::NormalExit
        || (pager.exitCode() != notExecutable && pager.exitCode() != notFound);
}

} // namespace tulo
