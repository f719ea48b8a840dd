#include "tests/daemon/servicefixture.h"

#include <QTemporaryDir>
#include <QTest>

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

/// Commands on a service that does not answer as they expect: they fail and say so.
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
    void watchEndsWithTheBus();
    void shellSaysThatTheBusIsGone();
};

void TstServiceCommands::checkNeverReadsTheCurrentFolderInstead()
{
    const PrivateBus bus(PrivateBus::openPolicy() + R"(<policy context="mandatory">
  <deny send_destination="org.tulo.ConfigurationManager1"
        send_interface="org.freedesktop.DBus.Properties"/>
</policy>)");
    const CommandLine trees;
    ServeCommand service(trees, bus.address());
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
    QTest::newRow("the one that the connection has already") << 1;
    QTest::newRow("the signals, but not what tells of a restart") << 2;
}

void TstServiceCommands::watchThatTheBusRefusesFails()
{
    QFETCH(int, rules);
    const PrivateBus bus(PrivateBus::openPolicy()
                         + "<limit name=\"max_match_rules_per_connection\">"
                         + QByteArray::number(rules) + "</limit>");
    const CommandLine trees;
    ServeCommand service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());

    const ChildResult result = runOn(bus, "watch --initial /settings/audio/volume");

    QVERIFY2(result.standardError.startsWith(
                 "tulo-cm: cannot watch '/settings/audio/volume': the bus refused a match rule: "),
             result.standardError);
    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.exitCode, 7);
}

void TstServiceCommands::watchThatTheBusJustAllowsMissesNothing()
{
    const PrivateBus bus(PrivateBus::openPolicy()
                         + R"(<limit name="max_match_rules_per_connection">3</limit>)");
    const CommandLine trees;
    ServeCommand service(trees, bus.address());
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
    ServeCommand service(trees, bus.address());
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
    ServeCommand first(trees, bus.address());
    QVERIFY2(first.serve(), first.standardError());
    ChildProcess shell(QStringLiteral(TULO_CM_PROGRAM),
                       { QStringLiteral("--bus"), bus.address(), QStringLiteral("shell") });
    QVERIFY(shell.start());
    shell.writeInput("watch --initial /settings/audio/volume\n");
    QVERIFY2(shell.waitForOutput("value /settings/audio/volume 35\n"), shell.standardError());

    QCOMPARE(first.end().exitCode, 0);
    ServeCommand second(trees, bus.address());
    QVERIFY2(second.serve(), second.standardError());
    // Answered after the news of the new owner.
    shell.writeInput("get /settings/serial\n");
    QVERIFY2(shell.waitForOutput("X1\n"), shell.standardError());
    QCOMPARE(runOn(bus, "set /settings/audio/volume 40").exitCode, 0);

    QVERIFY2(shell.waitForOutput("value /settings/audio/volume 40\n"), shell.standardOutput());
    shell.closeInput();
    QCOMPARE(shell.finish().exitCode, 0);
}

void TstServiceCommands::watchEndsWithTheBus()
{
    PrivateBus bus;
    const CommandLine trees;
    ServeCommand service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    ChildProcess watch(QStringLiteral(TULO_CM_PROGRAM),
                       { QStringLiteral("--bus"), bus.address(), QStringLiteral("watch"),
                         QStringLiteral("--initial"), QStringLiteral("/settings/audio/volume") });
    QVERIFY(watch.start());
    QVERIFY2(watch.waitForOutput("value /settings/audio/volume 35\n"), watch.standardError());

    bus.kill();
    const ChildResult result = watch.finish();

    QVERIFY(!result.timedOut);
    QCOMPARE(result.standardError,
             QByteArray("tulo-cm: the bus closed the connection; changes from now on are "
                        "missed\n"));
    QCOMPARE(result.exitCode, 7);
}

void TstServiceCommands::shellSaysThatTheBusIsGone()
{
    PrivateBus bus;
    const CommandLine trees;
    ServeCommand service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    ChildProcess shell(QStringLiteral(TULO_CM_PROGRAM),
                       { QStringLiteral("--bus"), bus.address(), QStringLiteral("--json"),
                         QStringLiteral("shell") });
    QVERIFY(shell.start());
    shell.writeInput("watch --initial /settings/audio/volume\n");
    QVERIFY2(shell.waitForOutput(R"({"event":"value")"), shell.standardError());

    bus.kill();

    QVERIFY2(shell.waitForOutput(R"({"error":{"message":"the bus closed the connection; )"
                                 R"(changes from now on are missed","name":"NoBus")"),
             shell.standardError());
    shell.closeInput();
    QVERIFY(!shell.finish().timedOut);
}

QTEST_GUILESS_MAIN(TstServiceCommands)
#include "tst_service_commands.moc"
