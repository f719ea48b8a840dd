#include "tests/service/servicefixture.h"

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

QTEST_GUILESS_MAIN(TstServiceCommands)
#include "tst_service_commands.moc"
