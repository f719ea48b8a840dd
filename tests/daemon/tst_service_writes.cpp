#include "tests/daemon/servicefixture.h"
#include "tests/support/files.h"
#include "tests/support/smalldisk.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTest>

#include <csignal>

#include <unistd.h>

namespace {

const QString volume = QStringLiteral("/settings/audio/volume");
const QString gain = QStringLiteral("/settings/audio/gain");

/// A directory where the worker wants to write its temporary file: each write fails.
class Obstacle
{
public:
    explicit Obstacle(const TemporaryTree& tree)
        : m_name(tree.writePath() + QLatin1String("/audio/.volume"))
    {
        if (!QDir().mkpath(m_name))
            qFatal("cannot make a directory");
    }
    void remove() const { QDir().rmdir(m_name); }

private:
    const QString m_name;
};

QString obstacleRecord(const TemporaryTree& tree)
{
    return QStringLiteral("Settings: path '%1/audio/.volume' open file failed")
        .arg(tree.writePath());
}

} // namespace

/// Writes that fail are reported, and made again.
class TstServiceWrites : public QObject
{
    Q_OBJECT

private slots:
    void failedWriteAtTheTimerIsNotForgotten();
    void failedSyncIsAnsweredToTheFlush();
    void flushSyncsTheFileSystemOfTheTreeAlone();
    void unsavedChangeIsToldAtTheStop();
    void fullDiskIsTold();
    void resetOfEverythingNeedsNoRoom();
    void hangUpReadsTheLogConfiguration();
    void failedWriteIsSeenAfterHangUp_data();
    void failedWriteIsSeenAfterHangUp();
    void missingLogConfigurationChangesNothing();
};

void TstServiceWrites::failedWriteAtTheTimerIsNotForgotten()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    SignalRecorder recorder(client.connection());
    const Obstacle obstacle(trees.tree);
    const QString record = obstacleRecord(trees.tree);

    client.call("SetValue", { volume, variantOf(40) });
    QVERIFY(recorder.waitFor(
        QStringLiteral("PropertiesChanged org.tulo.ConfigurationManager1 {Writable: b true, "
                       "UnsavedCount: u 1, LastWriteError: s \"%1\"} as []")
            .arg(record)));

    QCOMPARE(client.property("UnsavedCount"), QStringLiteral("u 1"));
    QCOMPARE(client.call("GetUnsaved", { 10U }), QStringLiteral("as [/settings/audio/volume]"));
    QCOMPARE(client.property("LastWriteError"), QStringLiteral("s \"%1\"").arg(record));
    QCOMPARE(client.call("Flush"), QStringLiteral("u 1"));

    // The next flush writes it again.
    obstacle.remove();
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QCOMPARE(client.property("UnsavedCount"), QStringLiteral("u 0"));
    QCOMPARE(client.call("GetUnsaved", { 10U }), QStringLiteral("as []"));
    QCOMPARE(trees.tree.readWrittenRoles(QStringLiteral("/audio/volume"))
                 .value(QStringLiteral("value"))
                 .toHash(),
             QVariantHash({ { QStringLiteral("int"), 40 } }));
    const ChildResult result = service.end();
    // At the timer, and at the first flush.
    QCOMPARE(ServiceProcess::complaints(result),
             QByteArray("ERROR CMSettingsWorker: " + record.toUtf8() + '\n').repeated(2));
    QCOMPARE(result.exitCode, 0);
}

void TstServiceWrites::failedSyncIsAnsweredToTheFlush()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    service.replaceSync("exit 3");
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    client.call("SetValue", { volume, variantOf(40) });

    const QString answer = client.call("Flush");

    QCOMPARE(answer, QStringLiteral("NotSaved: The file system did not sync: Input/output error"));
    QCOMPARE(client.property("UnsavedCount"), QStringLiteral("u 1"));
    QCOMPARE(client.call("GetUnsaved", { 10U }), QStringLiteral("as [/settings/audio/volume]"));
    QCOMPARE(client.property("LastWriteError"), QStringLiteral("s \"%1\"").arg(answer.mid(10)));
    const ChildResult result = service.end();
    QCOMPARE(result.exitCode, 6);
}

// A slow disk of somebody else holds up no flush.
void TstServiceWrites::flushSyncsTheFileSystemOfTheTreeAlone()
{
    const CommandLine trees;
    const PrivateBus bus;
    const QString traceFile = trees.tree.path() + QLatin1String("/trace");
    ServiceProcess service(trees, bus.address(), {},
                           { QStringLiteral("strace"), QStringLiteral("-f"), QStringLiteral("-o"),
                             traceFile, QStringLiteral("-e"),
                             QStringLiteral("trace=execve,sync,syncfs") });
    // The leak checker cannot work in a process that is traced already.
    service.setVariable(QStringLiteral("ASAN_OPTIONS"), QStringLiteral("detect_leaks=0"));
    if (!service.serve())
        QSKIP("this machine does not let strace trace a process");
    const BusClient client(bus.address());
    client.call("SetValue", { volume, variantOf(40) });
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    client.call("SetValue", { volume, variantOf(45) });
    QVERIFY(service.waitForError("; process "));
    const QByteArray words = service.standardError();
    const int processId = words.mid(words.lastIndexOf(' ')).trimmed().toInt();
    QVERIFY2(processId > 0, words);

    QCOMPARE(::kill(processId, SIGTERM), 0);
    QCOMPARE(service.finish().exitCode, 0);

    const QByteArray trace = readFile(traceFile);
    // For the flush, and for the stop.
    QCOMPARE(trace.count(" syncfs("), 2);
    QCOMPARE(trace.count(" sync("), 0);
    QCOMPARE(trace.count(" execve("), 1);
}

void TstServiceWrites::unsavedChangeIsToldAtTheStop()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    const Obstacle obstacle(trees.tree);
    client.call("SetValue", { volume, variantOf(40) });

    const ChildResult result = service.end();

    const QByteArray record = obstacleRecord(trees.tree).toUtf8();
    QCOMPARE(ServiceProcess::complaints(result),
             QByteArray("ERROR CMSettingsWorker: " + record
                        + "\nERROR tulo-settingsd: not on disk: /settings/audio/volume (" + record
                        + ")\n"));
    QCOMPARE(result.exitCode, 6);
}

void TstServiceWrites::fullDiskIsTold()
{
    if (::geteuid() != 0)
        QSKIP("needs root to mount a file system");
    const CommandLine trees;
    const SmallDisk disk(trees.tree.writePath());
    if (!disk.isMounted())
        QSKIP("needs the right to mount a file system");
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    client.call("SetValue", { volume, variantOf(40) });
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QVERIFY(disk.fill());

    client.call("SetValue", { volume, variantOf(45) });
    client.call("SetValue", { gain, variantOf(-0.5) });
    QCOMPARE(client.call("Flush"), QStringLiteral("u 2"));

    QCOMPARE(client.call("GetUnsaved", { 10U }),
             QStringLiteral("as [/settings/audio/gain, /settings/audio/volume]"));
    // The old file is whole, and no temporary file takes room.
    QCOMPARE(trees.tree.readWrittenRoles(QStringLiteral("/audio/volume"))
                 .value(QStringLiteral("value"))
                 .toHash(),
             QVariantHash({ { QStringLiteral("int"), 40 } }));

    QVERIFY(disk.makeRoom());
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QCOMPARE(client.property("UnsavedCount"), QStringLiteral("u 0"));
    QCOMPARE(client.call("GetUnsaved", { 10U }), QStringLiteral("as []"));
    QCOMPARE(trees.tree.readWrittenRoles(QStringLiteral("/audio/volume"))
                 .value(QStringLiteral("value"))
                 .toHash(),
             QVariantHash({ { QStringLiteral("int"), 45 } }));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceWrites::resetOfEverythingNeedsNoRoom()
{
    if (::geteuid() != 0)
        QSKIP("needs root to mount a file system");
    const CommandLine trees;
    const SmallDisk disk(trees.tree.writePath());
    if (!disk.isMounted())
        QSKIP("needs the right to mount a file system");
    trees.tree.writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":40}})");
    trees.tree.writeWritten(QStringLiteral("/older/image"), R"({"value":{"int":40}})");
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    QVERIFY(disk.fill());

    const auto run = [&bus](const char* words) {
        return ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM),
                                 QStringList { QStringLiteral("--bus"), bus.address() }
                                     + QString::fromLatin1(words).split(QLatin1Char(' ')));
    };
    const ChildResult one = run("reset /settings/audio/volume");
    const ChildResult kept = run("reset --all --keep /settings/older");
    const ChildResult all = run("reset --all");

    QVERIFY2(one.standardError.contains("has no room for"), one.standardError);
    QCOMPARE(one.exitCode, 6);
    QCOMPARE(kept.exitCode, 6);
    QCOMPARE(all.standardError, QByteArray());
    QCOMPARE(all.standardOutput, QByteArray("/settings/audio/volume\n/settings/older/image\n"));
    QCOMPARE(client.value(volume), QStringLiteral("x 35"));
    QCOMPARE(run("ls /settings").standardOutput,
             QByteArray("audio/    -\npresets/  -\nserial    X1\ntoken     -\n"));
    QCOMPARE(trees.tree.writtenEntries().filter(QRegularExpression(QStringLiteral("^/[^.]"))),
             QStringList({ QStringLiteral("/audio/"), QStringLiteral("/filler") }));
    // And changes are admitted.
    QVERIFY(disk.makeRoom());
    client.call("SetValue", { volume, variantOf(45) });
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QCOMPARE(service.end().exitCode, 0);
}

// ---------------------------------------------------------------------------------------------
// SIGHUP.
// ---------------------------------------------------------------------------------------------

namespace {

void writeConfiguration(const QString& name, const char* workerLevel, const char* threshold)
{
    writeFile(name,
              QByteArray("log4cplus.rootLogger=INFO, STDERR\n"
                         "log4cplus.logger.CMSettingsWorker=")
                  + workerLevel
                  + "\n"
                    "log4cplus.appender.STDERR=log4cplus::ConsoleAppender\n"
                    "log4cplus.appender.STDERR.logToStdErr=true\n"
                    "log4cplus.appender.STDERR.ImmediateFlush=true\n"
                    "log4cplus.appender.STDERR.Threshold="
                  + threshold
                  + "\n"
                    "log4cplus.appender.STDERR.layout=log4cplus::PatternLayout\n"
                    "log4cplus.appender.STDERR.layout.ConversionPattern=%-5p %c: %m%n\n");
}

// Whether the service got so far as to write this, on its way through calls of a client.
bool writesAfter(ServiceProcess& service, const BusClient& client, const QByteArray& text)
{
    for (int i = 0; i < 10000 && !service.standardError().contains(text); ++i) {
        client.call("SetValue", { volume, variantOf(i % 2 == 0 ? 40 : 45) });
        client.call("Flush");
        service.waitForError(text, 1);
    }
    return service.standardError().contains(text);
}

} // namespace

void TstServiceWrites::hangUpReadsTheLogConfiguration()
{
    const CommandLine trees;
    const PrivateBus bus;
    const QString configuration = trees.tree.path() + QLatin1String("/log.properties");
    writeConfiguration(configuration, "INFO", "WARN");
    ServiceProcess service(trees, bus.address(), { QStringLiteral("--log-config"), configuration });
    service.replaceSync("exit 0");
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    client.call("SetValue", { volume, variantOf(45) });
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QVERIFY(!service.standardError().contains("written file"));

    writeConfiguration(configuration, "INFO", "INFO");
    service.sendSignal(SIGHUP);

    QVERIFY(writesAfter(service, client, "INFO  CMSettingsWorker: written file: "));
    QCOMPARE(client.property("PendingWrites"), QStringLiteral("u 0"));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceWrites::failedWriteIsSeenAfterHangUp_data()
{
    QTest::addColumn<QByteArray>("workerLevel");
    QTest::newRow("the appender is dropped") << QByteArray("INFO");
    // Which hides the record of success.
    QTest::newRow("the level is raised") << QByteArray("ERROR");
    QTest::newRow("the level is off") << QByteArray("OFF");
}

void TstServiceWrites::failedWriteIsSeenAfterHangUp()
{
    QFETCH(const QByteArray, workerLevel);
    const CommandLine trees;
    const PrivateBus bus;
    const QString configuration = trees.tree.path() + QLatin1String("/log.properties");
    writeConfiguration(configuration, "INFO", "INFO");
    ServiceProcess service(trees, bus.address(), { QStringLiteral("--log-config"), configuration });
    service.replaceSync("exit 0");
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    // Another text in the pattern tells that the file was read again.
    writeConfiguration(configuration, workerLevel.constData(), "INFO");
    QFile file(configuration);
    QVERIFY(file.open(QIODevice::Append));
    file.write("log4cplus.appender.STDERR.layout.ConversionPattern=again %c: %m%n\n");
    file.close();

    service.sendSignal(SIGHUP);
    QVERIFY(writesAfter(service, client, "again CMSettingsWorker: written file: "));
    const Obstacle obstacle(trees.tree);
    client.call("SetValue", { volume, variantOf(50) });

    QCOMPARE(client.call("Flush"), QStringLiteral("u 1"));
    obstacle.remove();
    client.call("SetValue", { volume, variantOf(55) });
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServiceWrites::missingLogConfigurationChangesNothing()
{
    const CommandLine trees;
    const PrivateBus bus;
    const QString configuration = trees.tree.path() + QLatin1String("/log.properties");
    writeConfiguration(configuration, "INFO", "INFO");
    ServiceProcess service(trees, bus.address(), { QStringLiteral("--log-config"), configuration });
    service.replaceSync("exit 0");
    QVERIFY2(service.serve(), service.standardError());
    QVERIFY(QFile::remove(configuration));

    service.sendSignal(SIGHUP);
    QVERIFY(service.waitForError("ERROR tulo-settingsd: log configuration '"
                                 + configuration.toUtf8() + "' cannot be read\n"));

    const BusClient client(bus.address());
    QVERIFY(writesAfter(service, client, "INFO  CMSettingsWorker: written file: "));
    QCOMPARE(service.end().exitCode, 0);
}

QTEST_GUILESS_MAIN(TstServiceWrites)
#include "tst_service_writes.moc"
