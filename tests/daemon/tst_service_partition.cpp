#include "tests/crash/mountedimage.h"
#include "tests/daemon/servicefixture.h"
#include "tests/support/partition.h"
#include "tests/support/smalldisk.h"
#include "trees/partition.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <csignal>
#include <functional>
#include <memory>

#include <unistd.h>

namespace {

const QString volume = QStringLiteral("/settings/audio/volume");
const QString volumeFile = QStringLiteral("/audio/volume");
const QStringList waiting { QStringLiteral("--wait-for-mount") };

QByteArray fileOf(int value)
{
    return "{\"value\":{\"int\":" + QByteArray::number(value) + "}}";
}

bool holds(const QByteArray& file, int value)
{
    return file.contains("\"value\":{\"int\":" + QByteArray::number(value) + '}');
}

QString set(const BusClient& client, int value)
{
    return client.call("SetValue", { volume, variantOf(value) });
}

QString accepted(int value)
{
    return QStringLiteral("{timestamp: *, value: x %1}").arg(value);
}

bool becomesWritable(const BusClient& client, bool isWritable)
{
    const QString expected = QLatin1String("b ") + QVariant(isWritable).toString();
    return QTest::qWaitFor([&] { return client.property("Writable") == expected; },
                           ChildProcess::waitMs);
}

bool isEmptyDirectory(const QString& path)
{
    return QDir(path).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
}

} // namespace

/// The partition of the writable tree comes late, goes, is read-only or full. On the machine that
/// runs the test: with root, in its own mounts.
class TstServicePartition : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void missingTreeIsWaitedForAndNothingIsMade();
    void latePartitionIsServedWhenItIsThere_data();
    void latePartitionIsServedWhenItIsThere();
    void latePartitionIsMigrated();
    void partitionThatGoesLosesNoAcceptedChange();
    void stopWhileThePartitionIsAwayTellsWhatIsNotSaved();
    void partitionMountedOverTheTreeIsServed();
    void readOnlyPartitionIsRead();
    void readOnlyPartitionThatIsReplacedIsReadAnew();
    void withoutATemporaryDirectoryNoOtherTreeIsServed();
    void partitionThatTurnsReadOnlyKeepsWhatWasAccepted();
    void fullPartitionRefusesChangesUntilThereIsRoom();
    void killLosesNothingThatWasFlushed_data();
    void killLosesNothingThatWasFlushed();

private:
    CommandLine* trees() { return m_trees.get(); }

    std::unique_ptr<CommandLine> m_trees;
    std::unique_ptr<PrivateBus> m_bus;
};

void TstServicePartition::init()
{
    m_trees = std::make_unique<CommandLine>();
    m_bus = std::make_unique<PrivateBus>();
}

#define NEEDS_MOUNTS(partition)                                                                    \
    if (::geteuid() != 0)                                                                          \
        QSKIP("needs root to mount a file system");                                                \
    if (!(partition).isMade())                                                                     \
    QSKIP("needs the right to mount a file system")

void TstServicePartition::missingTreeIsWaitedForAndNothingIsMade()
{
    const QString tree = trees()->tree.writePath();
    QVERIFY(QDir().rmdir(tree));
    ServiceProcess service(*trees(), m_bus->address(), waiting);
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(m_bus->address());

    QCOMPARE(client.property("Writable"), QStringLiteral("b false"));
    QCOMPARE(client.property("WritePath"), QStringLiteral("s \"%1\"").arg(tree));
    QCOMPARE(client.value(volume), QStringLiteral("x 35"));
    const QString reason =
        QStringLiteral("The partition of the writable tree '%1' is not mounted").arg(tree);
    QCOMPARE(set(client, 40), QLatin1String("Unavailable: ") + reason);
    QCOMPARE(client.call("Reset", { QStringList(volume) }),
             QLatin1String("Unavailable: ") + reason);
    QCOMPARE(client.property("LastWriteError"), QStringLiteral("s \"%1\"").arg(reason));

    const ChildResult result = service.end();
    QCOMPARE(ServiceProcess::complaints(result),
             "WARN  tulo-settingsd: no change is accepted: " + reason.toUtf8() + '\n');
    QCOMPARE(result.exitCode, 0);
    QVERIFY(!QFile::exists(tree));
}

void TstServicePartition::latePartitionIsServedWhenItIsThere_data()
{
    QTest::addColumn<bool>("isTreeInside");
    QTest::newRow("mounted at the tree's directory") << false;
    QTest::newRow("the tree is a directory in it") << true;
}

void TstServicePartition::latePartitionIsServedWhenItIsThere()
{
    QFETCH(const bool, isTreeInside);
    Partition partition;
    NEEDS_MOUNTS(partition);
    const QString mountPoint = trees()->tree.writePath();
    if (!isTreeInside && tulo::isOnOwnFileSystem(mountPoint))
        QSKIP("needs a folder for temporary files on the root file system");
    const QString inside = isTreeInside ? QStringLiteral("/tree") : QString();
    partition.write(inside + volumeFile, fileOf(45));
    partition.write(inside + QLatin1String("/presets/mine"), R"({"value":{"string":"fm:99.9"}})");
    QStringList options = waiting;
    if (isTreeInside)
        options << QStringLiteral("--write-path") << mountPoint + inside;
    ServiceProcess service(*trees(), m_bus->address(), options);
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(m_bus->address());
    SignalRecorder recorder(client.connection());
    QCOMPARE(client.property("Writable"), QStringLiteral("b false"));
    QCOMPARE(client.value(volume), QStringLiteral("x 35"));
    QVERIFY(set(client, 60).endsWith(QLatin1String("is not mounted")));

    QVERIFY(partition.appearAt(mountPoint));

    QVERIFY(recorder.waitFor(QStringLiteral("ValueChanged %1 x 45").arg(volume)));
    QVERIFY(recorder.waitFor(QStringLiteral("DataChanged /settings/presets/mine")));
    // A version is left out: the directory is to be listed again.
    QVERIFY2(recorder.waitFor(QStringLiteral("RowsChanged /settings/presets 0 i 2")),
             qPrintable(recorder.received().join(QLatin1Char('\n'))));
    QVERIFY(becomesWritable(client, true));
    QStringList directories;
    for (const QString& signal : recorder.received().filter(QStringLiteral("RowsChanged ")))
        directories.append(signal.section(QLatin1Char(' '), 1, 1));
    QCOMPARE(directories,
             QStringList({ QStringLiteral("/settings"), QStringLiteral("/settings/audio"),
                           QStringLiteral("/settings/presets") }));
    QCOMPARE(client.value(volume), QStringLiteral("x 45"));
    QCOMPARE(client.value(QStringLiteral("/settings/presets/mine")),
             QStringLiteral("s \"fm:99.9\""));
    QCOMPARE(set(client, 50), accepted(50));
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QVERIFY(holds(partition.read(inside + volumeFile), 50));

    QCOMPARE(service.end().exitCode, 0);
    QVERIFY(partition.disappear());
    QVERIFY(isEmptyDirectory(mountPoint));
}

void TstServicePartition::latePartitionIsMigrated()
{
    Partition partition;
    NEEDS_MOUNTS(partition);
    trees()->tree.writeDefault(QStringLiteral("/../settings-migrations/0001-volume.json"),
                               R"([{"clamp": "/audio/volume"}])");
    const QString tree = trees()->tree.writePath() + QLatin1String("/tree");
    partition.write(QStringLiteral("/tree") + volumeFile, fileOf(200));
    ServiceProcess service(
        *trees(), m_bus->address(),
        waiting
            + QStringList { QStringLiteral("--write-path"), tree, QStringLiteral("--migrations"),
                            trees()->tree.path() + QLatin1String("/settings-migrations") });
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(m_bus->address());

    QVERIFY(partition.appearAt(trees()->tree.writePath()));

    QVERIFY(becomesWritable(client, true));
    QCOMPARE(client.value(volume), QStringLiteral("x 100"));
    const QByteArray complaints = ServiceProcess::complaints(service.end());
    QVERIFY2(complaints.contains("WARN  tulo-settingsd: Migrated: "), complaints);
}

void TstServicePartition::partitionThatGoesLosesNoAcceptedChange()
{
    Partition partition;
    NEEDS_MOUNTS(partition);
    QVERIFY(partition.appearAt(trees()->tree.writePath()));
    ServiceProcess service(*trees(), m_bus->address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(m_bus->address());
    QCOMPARE(set(client, 40), accepted(40));
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QCOMPARE(set(client, 45), accepted(45));

    QVERIFY(partition.disappear());

    QVERIFY(becomesWritable(client, false));
    QVERIFY(!set(client, 50).startsWith(QLatin1Char('{')));
    QCOMPARE(client.value(volume), QStringLiteral("x 45"));
    QCOMPARE(client.call("GetUnsaved", { 10U }), QStringLiteral("as [%1]").arg(volume));
    QCOMPARE(client.property("UnsavedCount"), QStringLiteral("u 1"));
    QVERIFY(client.call("Flush").startsWith(QLatin1String("NotSaved: ")));

    QVERIFY(partition.appearAt(trees()->tree.writePath()));

    QVERIFY(becomesWritable(client, true));
    QCOMPARE(client.value(volume), QStringLiteral("x 45"));
    QTRY_VERIFY_WITH_TIMEOUT(holds(partition.read(volumeFile), 45), ChildProcess::waitMs);
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QCOMPARE(client.property("UnsavedCount"), QStringLiteral("u 0"));
    QCOMPARE(set(client, 50), accepted(50));
    QCOMPARE(service.end().exitCode, 0);
    QVERIFY(holds(partition.read(volumeFile), 50));
}

void TstServicePartition::stopWhileThePartitionIsAwayTellsWhatIsNotSaved()
{
    Partition partition;
    NEEDS_MOUNTS(partition);
    QVERIFY(partition.appearAt(trees()->tree.writePath()));
    ServiceProcess service(*trees(), m_bus->address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(m_bus->address());
    QCOMPARE(set(client, 40), accepted(40));
    QVERIFY(partition.disappear());
    QVERIFY(becomesWritable(client, false));

    const ChildResult result = service.end();

    QVERIFY2(result.standardError.contains("ERROR tulo-settingsd: not on disk: " + volume.toUtf8()
                                           + " (The partition of the writable "),
             result.standardError);
    QCOMPARE(result.exitCode, 6);
}

// Nobody said that there would be one.
void TstServicePartition::partitionMountedOverTheTreeIsServed()
{
    Partition partition;
    NEEDS_MOUNTS(partition);
    trees()->tree.writeWritten(QStringLiteral("/audio/gain"), R"({"value":{"double":0.25}})");
    partition.write(QStringLiteral("/audio/loudness"), R"({"value":{"bool":false}})");
    ServiceProcess service(*trees(), m_bus->address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(m_bus->address());
    SignalRecorder recorder(client.connection());
    QCOMPARE(client.value(QStringLiteral("/settings/audio/gain")), QStringLiteral("d 0.25"));
    QCOMPARE(set(client, 45), accepted(45));

    QVERIFY(partition.appearAt(trees()->tree.writePath()));

    // What the tree had, what the partition has, and what was accepted.
    QVERIFY(recorder.waitFor(QStringLiteral("ValueChanged /settings/audio/gain d 0.5")));
    QVERIFY(recorder.waitFor(QStringLiteral("ValueChanged /settings/audio/loudness b false")));
    QTRY_VERIFY_WITH_TIMEOUT(holds(partition.read(volumeFile), 45), ChildProcess::waitMs);
    QCOMPARE(client.property("Writable"), QStringLiteral("b true"));
    QVERIFY(!partition.read(QStringLiteral("/.tulo-cm.lock")).isEmpty());
    QCOMPARE(service.end().exitCode, 0);
}

void TstServicePartition::readOnlyPartitionIsRead()
{
    Partition partition;
    NEEDS_MOUNTS(partition);
    const QString tree = trees()->tree.writePath();
    partition.write(volumeFile, fileOf(45));
    QVERIFY(partition.appearAt(tree));
    QVERIFY(partition.setReadOnly(true));
    ServiceProcess service(*trees(), m_bus->address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(m_bus->address());
    const QString reason =
        QStringLiteral("The file system of the writable tree '%1' is read-only").arg(tree);

    QCOMPARE(client.property("Writable"), QStringLiteral("b false"));
    QCOMPARE(client.value(volume), QStringLiteral("x 45"));
    QCOMPARE(set(client, 50), QLatin1String("Unavailable: ") + reason);
    const ChildResult command = trees()->run("--in-process set /settings/audio/volume 50");
    QVERIFY2(command.standardError.contains(reason.toUtf8()), command.standardError);
    QCOMPARE(command.exitCode, 7);

    QVERIFY(partition.setReadOnly(false));

    QVERIFY(becomesWritable(client, true));
    QCOMPARE(set(client, 50), accepted(50));
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QVERIFY(holds(partition.read(volumeFile), 50));
    const ChildResult result = service.end();
    QCOMPARE(ServiceProcess::complaints(result),
             "WARN  tulo-settingsd: no change is accepted: " + reason.toUtf8()
                 + "\nINFO  tulo-settingsd: opened the writable tree '" + tree.toUtf8()
                 + "' anew\nINFO  tulo-settingsd: changes are accepted again\n");
    QCOMPARE(result.exitCode, 0);
}

void TstServicePartition::readOnlyPartitionThatIsReplacedIsReadAnew()
{
    const QTemporaryDir elsewhere;
    Partition first;
    Partition second;
    NEEDS_MOUNTS(first);
    const QString tree = trees()->tree.writePath();
    first.write(volumeFile, fileOf(45));
    QVERIFY(first.appearAt(tree));
    QVERIFY(first.setReadOnly(true));
    second.write(volumeFile, fileOf(60));
    QVERIFY(second.appearAt(elsewhere.path()));
    QVERIFY(second.setReadOnly(true));
    ServiceProcess service(*trees(), m_bus->address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(m_bus->address());
    SignalRecorder recorder(client.connection());
    QCOMPARE(client.value(volume), QStringLiteral("x 45"));

    // Read-only from the first moment, as nobody opens it for writing.
    QVERIFY(::mount(QFile::encodeName(elsewhere.path()).constData(),
                    QFile::encodeName(tree).constData(), nullptr, MS_BIND, nullptr)
            == 0);

    QVERIFY(recorder.waitFor(QStringLiteral("ValueChanged %1 x 60").arg(volume)));
    QCOMPARE(client.value(volume), QStringLiteral("x 60"));
    QCOMPARE(client.property("Writable"), QStringLiteral("b false"));
    QCOMPARE(service.end().exitCode, 0);
}

// What is at another path is not this tree.
void TstServicePartition::withoutATemporaryDirectoryNoOtherTreeIsServed()
{
    QVERIFY(QDir().rmdir(trees()->tree.writePath()));
    ServiceProcess service(*trees(), m_bus->address(), waiting,
                           { QStringLiteral("env"), QStringLiteral("TMPDIR=/proc") });

    QVERIFY(!service.serve());

    const ChildResult result = service.end();
    QVERIFY2(result.standardError.contains("'/proc'"), result.standardError);
    QCOMPARE(result.exitCode, 7);
}

// As after an error of the disk: ext4 with errors=remount-ro.
void TstServicePartition::partitionThatTurnsReadOnlyKeepsWhatWasAccepted()
{
    if (::geteuid() != 0)
        QSKIP("needs root and loop devices, to mount a file system");
    const QString tree = trees()->tree.writePath();
    const QString image = trees()->tree.path() + QLatin1String("/image");
    QVERIFY(tulo::makeImage(image));
    auto mounted =
        std::make_unique<tulo::MountedImage>(image, tree, QStringLiteral(",errors=remount-ro"));
    if (!mounted->isMounted())
        QSKIP("needs root and loop devices, to mount a file system");
    const QByteArray device =
        ChildProcess::run(QStringLiteral("findmnt"),
                          { QStringLiteral("-no"), QStringLiteral("SOURCE"), tree })
            .standardOutput.trimmed();
    // Where the file system is mounted from: "/dev/loop3".
    QFile fault(QLatin1String("/sys/fs/ext4/")
                + QString::fromUtf8(device.mid(device.lastIndexOf('/') + 1))
                + QLatin1String("/trigger_fs_error"));
    if (!fault.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
        QSKIP("needs ext4 that can be given an error");
    ServiceProcess service(*trees(), m_bus->address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(m_bus->address());
    QCOMPARE(set(client, 40), accepted(40));
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));

    QVERIFY(fault.write("1") == 1);
    fault.close();
    // The first change after it is refused, or found to be impossible to write.
    const QString first = set(client, 45);
    const bool isAccepted = first == accepted(45);
    QVERIFY(client.call("Flush").startsWith(QLatin1String("NotSaved: ")));
    QVERIFY(becomesWritable(client, false));
    QCOMPARE(set(client, 50),
             QStringLiteral("Unavailable: The file system of the writable tree '%1' is read-only")
                 .arg(tree));
    QCOMPARE(client.value(volume), QLatin1String(isAccepted ? "x 45" : "x 40"));

    // Repaired and mounted again.
    mounted.reset();
    QVERIFY(becomesWritable(client, false));
    const QString repaired = trees()->tree.path() + QLatin1String("/repaired");
    tulo::copyImage(image, repaired);
    mounted = std::make_unique<tulo::MountedImage>(repaired, tree, QString());
    QVERIFY2(mounted->isMounted(), mounted->error());

    QVERIFY(becomesWritable(client, true));
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QCOMPARE(client.value(volume), QLatin1String(isAccepted ? "x 45" : "x 40"));
    QVERIFY(holds(trees()->tree.readWritten(volumeFile), isAccepted ? 45 : 40));
    QCOMPARE(service.end().exitCode, 0);
}

void TstServicePartition::fullPartitionRefusesChangesUntilThereIsRoom()
{
    if (::geteuid() != 0)
        QSKIP("needs root to mount a file system");
    const QString tree = trees()->tree.writePath();
    const SmallDisk disk(tree);
    if (!disk.isMounted())
        QSKIP("needs the right to mount a file system");
    ServiceProcess service(*trees(), m_bus->address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(m_bus->address());
    SignalRecorder recorder(client.connection());
    QCOMPARE(set(client, 40), accepted(40));
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QVERIFY(disk.fill());
    QCOMPARE(set(client, 45), accepted(45));

    QVERIFY(becomesWritable(client, false));

    const QString reason =
        QStringLiteral("The file system of the writable tree '%1' is full").arg(tree);
    QCOMPARE(set(client, 50), QLatin1String("Unavailable: ") + reason);
    QVERIFY(recorder.waitFor(
        QStringLiteral("PropertiesChanged org.tulo.ConfigurationManager1 {Writable: b false, "
                       "UnsavedCount: u 1, LastWriteError: s \"%1\"} as []")
            .arg(reason)));
    QCOMPARE(client.value(volume), QStringLiteral("x 45"));
    QCOMPARE(client.call("Flush"), QStringLiteral("u 1"));

    QVERIFY(disk.makeRoom());

    // Nobody asks for it.
    QTRY_VERIFY_WITH_TIMEOUT(holds(trees()->tree.readWritten(volumeFile), 45),
                             ChildProcess::waitMs);
    QVERIFY(becomesWritable(client, true));
    QCOMPARE(set(client, 50), accepted(50));
    QCOMPARE(service.end().exitCode, 0);
    QVERIFY(holds(trees()->tree.readWritten(volumeFile), 50));
}

void TstServicePartition::killLosesNothingThatWasFlushed_data()
{
    QTest::addColumn<QString>("state");
    for (const char* state : { "away", "read-only", "full" })
        QTest::newRow(state) << QString::fromLatin1(state);
}

void TstServicePartition::killLosesNothingThatWasFlushed()
{
    QFETCH(const QString, state);
    Partition partition;
    NEEDS_MOUNTS(partition);
    const QString tree = trees()->tree.writePath();
    partition.write(volumeFile, fileOf(30));
    QVERIFY(partition.appearAt(tree));
    const bool isReadOnly = state == QLatin1String("read-only");
    if (isReadOnly)
        QVERIFY(partition.setReadOnly(true));
    {
        ServiceProcess service(*trees(), m_bus->address());
        QVERIFY2(service.serve(), service.standardError());
        const BusClient client(m_bus->address());
        if (!isReadOnly) {
            QCOMPARE(set(client, 40), accepted(40));
            QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
        }
        if (state == QLatin1String("away")) {
            QCOMPARE(set(client, 45), accepted(45));
            QVERIFY(partition.disappear());
        } else if (state == QLatin1String("full")) {
            partition.write(QStringLiteral("/filler"), QByteArray());
            QFile filler(partition.path() + QLatin1String("/filler"));
            QVERIFY(filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
            const QByteArray page(4096, 'x');
            while (filler.write(page) == page.size()) { }
            QCOMPARE(set(client, 45), accepted(45));
        }
        QVERIFY(becomesWritable(client, false));
        QCOMPARE(service.end(SIGKILL).signal, SIGKILL);
    }
    if (state == QLatin1String("away"))
        QVERIFY(partition.appearAt(tree));

    ServiceProcess service(*trees(), m_bus->address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(m_bus->address());

    const QString value = client.value(volume);
    const QStringList expected = isReadOnly
        ? QStringList(QStringLiteral("x 30"))
        : QStringList { QStringLiteral("x 40"), QStringLiteral("x 45") };
    QVERIFY2(expected.contains(value), qPrintable(value));
    QVERIFY(!service.standardError().contains("ERROR"));
}

QTEST_GUILESS_MAIN(TstServicePartition)
#include "tst_service_partition.moc"
