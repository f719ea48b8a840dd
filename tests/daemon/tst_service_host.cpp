#include "tests/daemon/servicefixture.h"

#include "tests/support/files.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <memory>

#include <unistd.h>

namespace {

QStringList hostWords(const QStringList& words)
{
    return QStringList { QStringLiteral("--host"), QStringLiteral("user@device") } + words;
}

QStringList get()
{
    return { QStringLiteral("get"), QStringLiteral("/settings/audio/volume") };
}

} // namespace

/// Commands on another device, to which ssh leads. A script stands in for ssh.
class TstServiceHost : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void commandsWorkOnTheDevice();
    void sshIsGivenTheHostAndTheBridge();
    void keyboardReachesTheProgramAndNotSsh();
    void hostThatIsNotReachedIsNoService();
    void interruptEndsTheWaitForTheDevice_data();
    void interruptEndsTheWaitForTheDevice();
    void statusSaysNothingOfThisDevicesProcesses();

private:
    void standInForSsh(const QByteArray& script);
    QByteArray bridgeTo(const PrivateBus& bus) const;
    QByteArray written(const char* name) const;
    QString path(const char* name) const { return m_folder->filePath(QLatin1String(name)); }
    void prepare(ChildProcess* command) const;
    ChildResult run(const QStringList& words, const QByteArray& input = QByteArray()) const;

    std::unique_ptr<QTemporaryDir> m_folder;
};

void TstServiceHost::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
}

void TstServiceHost::standInForSsh(const QByteArray& script)
{
    QFile file(path("ssh"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("#!/bin/sh\n" + script + '\n');
    QVERIFY(file.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
}

QByteArray TstServiceHost::bridgeTo(const PrivateBus& bus) const
{
    return "exec systemd-stdio-bridge -p '" + bus.address().toUtf8() + '\'';
}

QByteArray TstServiceHost::written(const char* name) const
{
    return readFile(path(name));
}

void TstServiceHost::prepare(ChildProcess* command) const
{
    command->setVariable(QStringLiteral("PATH"),
                         m_folder->path() + QLatin1Char(':') + qEnvironmentVariable("PATH"));
}

ChildResult TstServiceHost::run(const QStringList& words, const QByteArray& input) const
{
    ChildProcess command(QStringLiteral(TULO_CM_PROGRAM), hostWords(words));
    prepare(&command);
    if (command.start()) {
        command.writeInput(input);
        command.closeInput();
    }
    return command.finish();
}

void TstServiceHost::commandsWorkOnTheDevice()
{
    const PrivateBus bus;
    const CommandLine trees;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    standInForSsh(bridgeTo(bus));

    const ChildResult one = run(get());
    const ChildResult shell = run({ QStringLiteral("shell") },
                                  "watch /settings/audio/volume\nset /settings/audio/volume 40\n");

    QCOMPARE(one.standardError, QByteArray());
    QCOMPARE(one.standardOutput, QByteArray("35\n"));
    QCOMPARE(one.exitCode, 0);
    QCOMPARE(shell.standardOutput,
             QByteArray("value /settings/audio/volume 40\ndata /settings/audio/volume\n40\n"));
    QCOMPARE(shell.exitCode, 0);
}

void TstServiceHost::sshIsGivenTheHostAndTheBridge()
{
    standInForSsh("printf '%s\\n' \"$@\" >'" + path("arguments").toUtf8() + "'; exit 1");

    QCOMPARE(run(get()).exitCode, 7);

    // Options first; none can be made of what follows "--".
    QVERIFY2(written("arguments").endsWith("\n--\nuser@device\nsystemd-stdio-bridge\n"),
             written("arguments"));
}

// Ctrl-C goes to the processes of the terminal's session.
void TstServiceHost::keyboardReachesTheProgramAndNotSsh()
{
    standInForSsh("cut -d ' ' -f 6 </proc/$$/stat >'" + path("session").toUtf8() + "'; exit 1");

    run(get());

    bool isNumber = false;
    const pid_t session = pid_t(written("session").trimmed().toInt(&isNumber));
    QVERIFY(isNumber);
    QVERIFY(session != ::getsid(0));
}

void TstServiceHost::hostThatIsNotReachedIsNoService()
{
    standInForSsh("echo 'ssh: could not resolve device' >&2; exit 255");

    const ChildResult result = run(get());

    QVERIFY2(result.standardError.contains("tulo-cm: no service on 'user@device': "),
             result.standardError);
    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.exitCode, 7);
}

void TstServiceHost::interruptEndsTheWaitForTheDevice_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::newRow("get") << get();
    QTest::newRow("shell") << QStringList { QStringLiteral("shell") };
    QTest::newRow("watch") << QStringList { QStringLiteral("watch"), QStringLiteral("/settings") };
}

// The stand-in takes what is sent and never answers.
void TstServiceHost::interruptEndsTheWaitForTheDevice()
{
    QFETCH(const QStringList, words);
    const QByteArray pipe = QFile::encodeName(path("pipe"));
    standInForSsh("mkfifo '" + pipe + "'; echo $$ >'" + path("process").toUtf8()
                  + "'; echo called >&2; exec cat '" + pipe + "'");
    ChildProcess command(QStringLiteral(TULO_CM_PROGRAM), hostWords(words));
    prepare(&command);
    QVERIFY(command.start());
    QVERIFY2(command.waitForError("called\n"), command.standardError());

    command.sendSignal(SIGINT);
    const ChildResult result = command.finish();

    QVERIFY(!result.timedOut);
    QCOMPARE(result.exitCode, 130);
    QCOMPARE(result.standardOutput, QByteArray());
    // It took its ssh along.
    QVERIFY(::kill(written("process").trimmed().toInt(), 0) != 0);
}

void TstServiceHost::statusSaysNothingOfThisDevicesProcesses()
{
    const PrivateBus bus;
    const CommandLine trees;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    standInForSsh(bridgeTo(bus));

    const ChildResult result = run({ QStringLiteral("--json"), QStringLiteral("status") });

    QVERIFY2(result.standardOutput.contains(R"("memoryBytes":0)"), result.standardOutput);
    QVERIFY2(result.standardOutput.contains(R"("uptimeSeconds":0)"), result.standardOutput);
    QCOMPARE(result.exitCode, 0);
}

QTEST_GUILESS_MAIN(TstServiceHost)
#include "tst_service_host.moc"
