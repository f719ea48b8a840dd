#include "tests/daemon/servicefixture.h"

#include <QTemporaryDir>
#include <QTest>

#include <csignal>

namespace {

ChildResult runOn(const PrivateBus& bus, const char* line, const QString& directory = QString())
{
    ChildProcess command(QStringLiteral(TULO_CM_PROGRAM),
                         QStringList { QStringLiteral("--bus"), bus.address() }
                             + QString::fromUtf8(line).split(QLatin1Char(' ')));
    if (!directory.isEmpty())
        command.setWorkingDirectory(directory);
    if (command.start())
        command.closeInput();
    return command.finish();
}

} // namespace

/// Commands on a service that stops, comes back, or does not answer as they expect.
class TstServiceCommands : public QObject
{
    Q_OBJECT

private slots:
    void checkNeverReadsTheCurrentFolderInstead();
    void watchThatTheBusRefusesFails_data();
    void watchThatTheBusRefusesFails();
    void watchThatTheBusJustAllowsMissesNothing();
    void watchOfManyPathsMissesNone();
    void watchFollowsTheServiceThatStartsAnew();
    void watchTellsWhatDiffersAfterARestart_data();
    void watchTellsWhatDiffersAfterARestart();
    void watchOfASubtreeTellsEverythingBelow();
    void watchThatIsInterruptedWithoutAServiceFails();
    void shellSaysThatTheServiceHasGone();
    void unsavedSettingsAreCountedForWhoMayNotNameThem_data();
    void unsavedSettingsAreCountedForWhoMayNotNameThem();
    void interruptEndsAWaitAtOnce_data();
    void interruptEndsAWaitAtOnce();
    void interruptEndsTheWaitForTheDisk_data();
    void interruptEndsTheWaitForTheDisk();
};

void TstServiceCommands::checkNeverReadsTheCurrentFolderInstead()
{
    const PrivateBus bus(PrivateBus::openPolicy() + R"(<policy context="mandatory">
  <deny send_destination="org.tulo.ConfigurationManager1"
        send_interface="org.freedesktop.DBus.Properties"/>
</policy>)");
    const CommandLine trees;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const QTemporaryDir empty;

    const ChildResult result = runOn(bus, "check", empty.path());

    QVERIFY2(result.standardError.startsWith("tulo-cm: the bus does not permit it: "),
             result.standardError);
    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.exitCode, 7);
}

void TstServiceCommands::watchThatTheBusRefusesFails_data()
{
    QTest::addColumn<int>("rules");
    QTest::newRow("no rule") << 0;
    QTest::newRow("what tells of a restart, but not the signals") << 1;
}

void TstServiceCommands::watchThatTheBusRefusesFails()
{
    QFETCH(int, rules);
    const PrivateBus bus(PrivateBus::openPolicy()
                         + "<limit name=\"max_match_rules_per_connection\">"
                         + QByteArray::number(rules) + "</limit>");
    const CommandLine trees;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());

    const ChildResult result = runOn(bus, "watch --initial /settings/audio/volume");

    QVERIFY2(result.standardError.startsWith(
                 "tulo-cm: cannot watch '/settings/audio/volume': the bus refuses it: "),
             result.standardError);
    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.exitCode, 7);
}

void TstServiceCommands::watchThatTheBusJustAllowsMissesNothing()
{
    const PrivateBus bus(PrivateBus::openPolicy()
                         + R"(<limit name="max_match_rules_per_connection">3</limit>)");
    const CommandLine trees;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());

    const ChildResult result = ChildProcess::run(
        QStringLiteral(TULO_CM_PROGRAM),
        { QStringLiteral("--bus"), bus.address(), QStringLiteral("shell") },
        "watch /settings/audio/volume /settings/audio\nset /settings/audio/volume 40\n");

    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.standardOutput,
             QByteArray("value /settings/audio/volume 40\ndata /settings/audio/volume\n"
                        "rows /settings/audio 4\n40\n"));
    QCOMPARE(result.exitCode, 0);
}

// More than a system bus allows match rules.
void TstServiceCommands::watchOfManyPathsMissesNone()
{
    constexpr int count = 600;
    const PrivateBus bus(PrivateBus::openPolicy()
                         + R"(<limit name="max_match_rules_per_connection">512</limit>)");
    const CommandLine trees;
    QByteArray watched = "watch";
    QByteArray changes;
    QByteArray expected;
    for (int i = 0; i < count; ++i) {
        const QByteArray name = QByteArray::number(i);
        trees.tree.writeDefault(QStringLiteral("/many/") + QString::fromUtf8(name),
                                R"({"value":{"int":0}})");
        watched += " /settings/many/" + name;
        changes += "set /settings/many/" + name + " 1\n";
        expected += "value /settings/many/" + name + " 1\ndata /settings/many/" + name + "\n1\n";
    }
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());

    const ChildResult result =
        ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM),
                          { QStringLiteral("--bus"), bus.address(), QStringLiteral("shell") },
                          watched + '\n' + changes);

    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.standardOutput, expected);
    QCOMPARE(result.exitCode, 0);
}

// With no more match rules than it asks for itself.
void TstServiceCommands::watchFollowsTheServiceThatStartsAnew()
{
    const PrivateBus bus(PrivateBus::openPolicy()
                         + R"(<limit name="max_match_rules_per_connection">3</limit>)");
    const CommandLine trees;
    ServiceProcess first(trees, bus.address());
    QVERIFY2(first.serve(), first.standardError());
    ChildProcess shell(QStringLiteral(TULO_CM_PROGRAM),
                       { QStringLiteral("--bus"), bus.address(), QStringLiteral("shell") });
    QVERIFY(shell.start());
    shell.writeInput("watch --initial /settings/audio/volume\n");
    QVERIFY2(shell.waitForOutput("value /settings/audio/volume 35\n"), shell.standardError());

    QCOMPARE(first.end().exitCode, 0);
    ServiceProcess second(trees, bus.address());
    QVERIFY2(second.serve(), second.standardError());
    // Answered after the news of the new owner.
    shell.writeInput("get /settings/serial\n");
    QVERIFY2(shell.waitForOutput("X1\n"), shell.standardError());
    QCOMPARE(runOn(bus, "set /settings/audio/volume 40").exitCode, 0);

    QVERIFY2(shell.waitForOutput("value /settings/audio/volume 40\n"), shell.standardOutput());
    shell.closeInput();
    QCOMPARE(shell.finish().exitCode, 0);
}

// What changed while there was no service is printed, and nothing else.
void TstServiceCommands::watchTellsWhatDiffersAfterARestart_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("initial");
    QTest::addColumn<QByteArray>("differing");
    const QStringList node { QStringLiteral("/settings/audio/volume"),
                             QStringLiteral("/settings/audio/mode") };
    QTest::newRow("settings") << node
                              << QByteArray("value /settings/audio/volume 35\n"
                                            "value /settings/audio/mode mid\n")
                              << QByteArray("value /settings/audio/volume 60\n");
    QTest::newRow("subtrees") << QStringList { QStringLiteral("-r"),
                                               QStringLiteral("/settings/audio"),
                                               QStringLiteral("/settings/presets") }
                              << QByteArray("rows /settings/audio\n"
                                            "value /settings/audio/gain 0.5\n"
                                            "value /settings/audio/loudness true\n"
                                            "value /settings/audio/mode mid\n"
                                            "value /settings/audio/sources [\"fm\",\"usb\"]\n"
                                            "value /settings/audio/volume 35\n"
                                            "rows /settings/presets\n"
                                            "value /settings/presets/one -\n")
                              << QByteArray("value /settings/audio/volume 60\n"
                                            "rows /settings/presets\n"
                                            "value /settings/presets/two fm:1\n");
    QTest::newRow("directory") << QStringList { QStringLiteral("/settings/presets") }
                               << QByteArray("rows /settings/presets\n")
                               << QByteArray("rows /settings/presets\n");
}

void TstServiceCommands::watchTellsWhatDiffersAfterARestart()
{
    QFETCH(const QStringList, options);
    QFETCH(const QByteArray, initial);
    QFETCH(const QByteArray, differing);
    const PrivateBus bus;
    const CommandLine trees;
    ServiceProcess first(trees, bus.address());
    QVERIFY2(first.serve(), first.standardError());
    ChildProcess watch(QStringLiteral(TULO_CM_PROGRAM),
                       QStringList { QStringLiteral("--bus"), bus.address(),
                                     QStringLiteral("watch"), QStringLiteral("--initial") }
                           + options);
    QVERIFY(watch.start());
    QVERIFY2(watch.waitForOutput(initial), watch.standardOutput() + watch.standardError());

    QCOMPARE(first.end().exitCode, 0);
    QVERIFY2(watch.waitForError("tulo-cm: the service has gone; changes are missed until it is "
                                "back\n"),
             watch.standardError());
    QCOMPARE(trees.run("set /settings/audio/volume 60").exitCode, 0);
    QCOMPARE(trees.run("set /settings/presets/two fm:1").exitCode, 0);
    ServiceProcess second(trees, bus.address());
    QVERIFY2(second.serve(), second.standardError());

    QVERIFY2(watch.waitForOutput(initial + differing), watch.standardOutput());
    QVERIFY(watch.standardError().endsWith("tulo-cm: the service is back; what differs follows\n"));
    watch.sendSignal(SIGINT);
    const ChildResult result = watch.finish();
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.standardOutput, initial + differing);
}

void TstServiceCommands::watchOfASubtreeTellsEverythingBelow()
{
    const PrivateBus bus;
    const CommandLine trees;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());

    const ChildResult result =
        ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM),
                          { QStringLiteral("--bus"), bus.address(), QStringLiteral("shell") },
                          "watch --recursive /settings/audio /settings/serial\n"
                          "set /settings/audio/volume 40\n"
                          "set /settings/presets/one fm:1\n"
                          "unwatch /settings/audio\n"
                          "set /settings/audio/volume 45\n");

    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.standardOutput,
             QByteArray("value /settings/audio/volume 40\ndata /settings/audio/volume\n"
                        "rows /settings/audio 4\n40\nfm:1\n45\n"));
    QCOMPARE(result.exitCode, 0);
}

void TstServiceCommands::watchThatIsInterruptedWithoutAServiceFails()
{
    PrivateBus bus;
    const CommandLine trees;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    ChildProcess watch(QStringLiteral(TULO_CM_PROGRAM),
                       { QStringLiteral("--bus"), bus.address(), QStringLiteral("watch"),
                         QStringLiteral("--initial"), QStringLiteral("/settings/audio/volume") });
    QVERIFY(watch.start());
    QVERIFY2(watch.waitForOutput("value /settings/audio/volume 35\n"), watch.standardError());

    bus.kill();
    QVERIFY2(watch.waitForError("tulo-cm: the service has gone; changes are missed until it is "
                                "back\n"),
             watch.standardError());
    watch.sendSignal(SIGINT);

    const ChildResult result = watch.finish();
    QVERIFY(!result.timedOut);
    QCOMPARE(result.exitCode, 7);
}

void TstServiceCommands::shellSaysThatTheServiceHasGone()
{
    PrivateBus bus;
    const CommandLine trees;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    ChildProcess shell(QStringLiteral(TULO_CM_PROGRAM),
                       { QStringLiteral("--bus"), bus.address(), QStringLiteral("--json"),
                         QStringLiteral("shell") });
    QVERIFY(shell.start());
    shell.writeInput("watch --initial /settings/audio/volume\n");
    QVERIFY2(shell.waitForOutput(R"({"event":"value")"), shell.standardError());

    bus.kill();

    QVERIFY2(shell.waitForOutput(R"({"error":{"message":"the service has gone; changes are missed )"
                                 R"(until it is back","name":"Unavailable")"),
             shell.standardOutput());
    shell.closeInput();
    QVERIFY(!shell.finish().timedOut);
}

void TstServiceCommands::unsavedSettingsAreCountedForWhoMayNotNameThem_data()
{
    QTest::addColumn<QByteArray>("denied");
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QByteArray>("paths");
    QTest::newRow("who may name them")
        << QByteArray() << QByteArray("tulo-cm: not on disk: /settings/audio/volume (")
        << QByteArray(R"("unsavedPaths":["/settings/audio/volume"])");
    QTest::newRow("others") << QByteArray(R"(<policy context="mandatory">
  <deny send_destination="org.tulo.ConfigurationManager1"
        send_interface="org.tulo.ConfigurationManager1.Admin"/>
</policy>)") << QByteArray("tulo-cm: not on disk: settings: 1 (")
                            << QByteArray(R"("unsavedPaths":null)");
}

void TstServiceCommands::unsavedSettingsAreCountedForWhoMayNotNameThem()
{
    QFETCH(const QByteArray, denied);
    QFETCH(const QByteArray, message);
    QFETCH(const QByteArray, paths);
    const PrivateBus bus(PrivateBus::openPolicy() + denied);
    const CommandLine trees;
    // A directory where the temporary file has to be.
    trees.tree.writeWritten(QStringLiteral("/audio/.volume/kept"), QByteArray("{}"));
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());

    QCOMPARE(runOn(bus, "set /settings/audio/volume 40").exitCode, 0);
    const ChildResult flush = runOn(bus, "flush");
    const ChildResult status = runOn(bus, "--json status");
    const ChildResult shownStatus = runOn(bus, "status");

    QVERIFY2(flush.standardError.startsWith(message), flush.standardError);
    QCOMPARE(flush.exitCode, 6);
    QVERIFY2(status.standardOutput.contains(R"("unsavedCount":1)"), status.standardOutput);
    QVERIFY2(status.standardOutput.contains(paths), status.standardOutput);
    QCOMPARE(status.exitCode, 0);
    QVERIFY2(shownStatus.standardOutput.simplified().contains(" failed writes 1 last error "),
             shownStatus.standardOutput);
    QCOMPARE(shownStatus.standardOutput.contains("\nlast write failed  /settings/audio/volume\n"),
             denied.isEmpty());
}

// ---------------------------------------------------------------------------------------------
// Ctrl-C while the service is stopped in the middle of a call.
// ---------------------------------------------------------------------------------------------

void TstServiceCommands::interruptEndsAWaitAtOnce_data()
{
    QTest::addColumn<QByteArray>("words");
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<int>("signal");
    QTest::addColumn<int>("exitCode");
    QTest::newRow("get") << QByteArray("get /settings/audio/volume") << QByteArray() << SIGINT
                         << -1;
    QTest::newRow("set") << QByteArray("set /settings/audio/volume 40") << QByteArray() << SIGINT
                         << -1;
    QTest::newRow("watch") << QByteArray("watch /settings/audio/volume") << QByteArray() << 0
                           << 130;
    QTest::newRow("shell") << QByteArray("shell") << QByteArray("get /settings/audio/volume\n") << 0
                           << 130;
}

void TstServiceCommands::interruptEndsAWaitAtOnce()
{
    QFETCH(const QByteArray, words);
    QFETCH(const QByteArray, input);
    QFETCH(const int, signal);
    QFETCH(const int, exitCode);
    const PrivateBus bus;
    const CommandLine trees;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    // Sees the call that nobody answers.
    ChildProcess monitor(
        QStringLiteral("dbus-monitor"),
        { QStringLiteral("--address"), bus.address(),
          QStringLiteral("type='method_call',destination='org.tulo.ConfigurationManager1'") });
    QVERIFY(monitor.start());
    // A marker that is seen tells that the monitor sees everything from then on.
    QVERIFY(monitor.waitForOutput("member=NameLost"));
    service.sendSignal(SIGSTOP);

    ChildProcess command(QStringLiteral(TULO_CM_PROGRAM),
                         QStringList { QStringLiteral("--bus"), bus.address() }
                             + QString::fromLatin1(words).split(QLatin1Char(' ')));
    QVERIFY(command.start());
    command.writeInput(input);
    QVERIFY2(monitor.waitForOutput("interface=org.tulo.ConfigurationManager1"),
             monitor.standardOutput());
    command.sendSignal(SIGINT);
    const ChildResult result = command.finish();

    QVERIFY(!result.timedOut);
    QCOMPARE(result.signal, signal);
    QCOMPARE(result.exitCode, exitCode);
    service.sendSignal(SIGCONT);
}

// In its own process a command waits for the disk itself. By then the change is in its file.
void TstServiceCommands::interruptEndsTheWaitForTheDisk_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::addColumn<QByteArray>("input");
    QTest::newRow("set") << QStringList {
        QStringLiteral("set"), QStringLiteral("/settings/audio/volume"), QStringLiteral("40")
    } << QByteArray();
    QTest::newRow("shell") << QStringList { QStringLiteral("shell") }
                           << QByteArray("set /settings/audio/volume 40\nquit\n");
}

void TstServiceCommands::interruptEndsTheWaitForTheDisk()
{
    QFETCH(const QStringList, words);
    QFETCH(const QByteArray, input);
    const CommandLine trees;
    const SyncGate gate;
    ChildProcess command(QStringLiteral(TULO_CM_PROGRAM), trees.arguments(words));
    command.setVariable(QStringLiteral("LD_PRELOAD"), QStringLiteral(TULO_SCRIPTED_SYNC));
    command.setVariable(QStringLiteral("TULO_TEST_SYNC"), QString::fromUtf8(gate.script()));
    QVERIFY(command.start());
    command.writeInput(input);
    QVERIFY2(gate.waitForFlush(), command.standardError());

    command.sendSignal(SIGINT);
    const ChildResult result = command.finish();

    QVERIFY(!result.timedOut);
    QCOMPARE(result.signal, SIGINT);
    QCOMPARE(result.standardOutput, QByteArray("40\n"));
    QVERIFY(!trees.tree.readWritten(QStringLiteral("/audio/volume")).isNull());
}

QTEST_GUILESS_MAIN(TstServiceCommands)
#include "tst_service_commands.moc"
