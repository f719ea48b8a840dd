#include "cm_settings.h"

#include "tests/crash/killpoints.h"

#include "tests/support/childprocess.h"
#include "tests/support/logcapture.h"
#include "tests/support/repeats.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QTest>

#include <algorithm>
#include <csignal>
#include <memory>
#include <vector>

using namespace tulo;

namespace {

/// A save of three settings in one go: one that is there, one that is new, one in directories
/// that are new as well.
const QStringList settings { QStringLiteral("/audio/volume"), QStringLiteral("/audio/balance"),
                             QStringLiteral("/radio/presets/list/first") };
constexpr qlonglong oldNumber = 1;
constexpr qlonglong newNumber = 2222222222;

QByteArray contentOf(qlonglong number)
{
    return QByteArrayLiteral("{\"timestamp\":") + QByteArray::number(number)
        + QByteArrayLiteral(",\"value\":{\"int\":") + QByteArray::number(number)
        + QByteArrayLiteral("}}");
}

void prepare(const TemporaryTree& tree, bool targetExists)
{
    for (const QString& setting : settings)
        tree.writeDefault(setting, QByteArrayLiteral("{\"value\":{\"int\":0}}"));
    if (!targetExists)
        return;
    for (const QString& setting : settings)
        tree.writeWritten(setting, contentOf(oldNumber));
}

QStringList driver(const TemporaryTree& tree)
{
    QStringList command { QStringLiteral(TULO_CRASH_DRIVER), QStringLiteral(TULO_PLUGIN_FILE),
                          tree.defaultPath(), tree.writePath(), QStringLiteral("begin") };
    for (const QString& setting : settings)
        command.append(QStringLiteral("%1=%2").arg(setting).arg(newNumber));
    return command << QStringLiteral("write") << QStringLiteral("end");
}

/// The system calls between the two marks of a driver's trace.
std::vector<KillPoint> killPointsOfASave(const QString& traceFile)
{
    std::vector<KillPoint> points;
    int marks = 0;
    for (const TracedCall& call : callsOfFirstThread(traceFile)) {
        if (call.name == QLatin1String("getppid"))
            ++marks;
        else if (marks == 1)
            points.push_back({ call.name, call.count, false });
    }
    return points;
}

} // namespace

class tst_KillPoints : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init() { m_log = std::make_unique<LogCapture>(); }
    void cleanup()
    {
        m_log->verifyNothingUnexpected();
        m_log.reset();
    }

    void processKilledAtAnySystemCallOfASaveLeavesWholeFiles_data();
    void processKilledAtAnySystemCallOfASaveLeavesWholeFiles();
    void writtenValuesSurviveAKillAtAnyMoment();

private:
    void verifyWholeFiles(const TemporaryTree& tree, bool targetExisted);

    std::unique_ptr<LogCapture> m_log;
    bool m_canTrace = false;
};

void tst_KillPoints::initTestCase()
{
    m_canTrace = canTrace();
}

void tst_KillPoints::processKilledAtAnySystemCallOfASaveLeavesWholeFiles_data()
{
    QTest::addColumn<bool>("targetExists");
    QTest::newRow("existing target") << true;
    QTest::newRow("new target") << false;
}

void tst_KillPoints::processKilledAtAnySystemCallOfASaveLeavesWholeFiles()
{
    if (!m_canTrace)
        QSKIP("needs strace and the right to trace a process");
    QFETCH(const bool, targetExists);
    const TemporaryTree reference;
    prepare(reference, targetExists);

    const QString traceFile = traceOf(reference, driver(reference));
    QVERIFY(!traceFile.isEmpty());
    for (const QString& setting : settings)
        QCOMPARE(reference.readWritten(setting), contentOf(newNumber));
    const std::vector<KillPoint> points = killPointsOfASave(traceFile);
    const auto renames = std::count_if(points.cbegin(), points.cend(), [](const KillPoint& point) {
        return point.call == QLatin1String("rename");
    });
    QCOMPARE(renames, std::ptrdiff_t(settings.size()));

    killAtEach(
        points, [targetExists](const TemporaryTree& tree) { prepare(tree, targetExists); }, driver,
        [this, targetExists](const TemporaryTree& tree, bool isKilled) {
            QVERIFY(isKilled);
            verifyWholeFiles(tree, targetExists);
        });
}

void tst_KillPoints::verifyWholeFiles(const TemporaryTree& tree, bool targetExisted)
{
    QVariantList expected;
    for (const QString& setting : settings) {
        const QByteArray content = tree.readWritten(setting);
        const bool isNew = content == contentOf(newNumber);
        const bool isOld = targetExisted ? content == contentOf(oldNumber) : content.isNull();
        QVERIFY2(isNew || isOld, content);
        const qlonglong number = isNew ? newNumber : targetExisted ? oldNumber : 0;
        expected.append(TuloValue::of(TuloValue::Int(), number).__variant());
    }

    CMSettingsWorker worker(tree.config());
    const std::unique_ptr<EncryptionHandler> handler(worker.m_encryptionHandler);
    QVariantList answered;
    for (const QString& setting : settings) {
        const auto reply =
            getData(&worker, QLatin1String("/settings") + setting, { TuloRoles::Value() });
        answered.append(reply.value());
    }
    QCOMPARE(answered, expected);

    // What the killed process left behind is in nobody's way.
    const qlonglong nextNumber = 3;
    for (const QString& setting : settings) {
        TuloRoles roles;
        roles.setValue(TuloValue::of(TuloValue::Int(), nextNumber));
        roles.setTimestamp(nextNumber);
        setData(&worker, QLatin1String("/settings") + setting, TuloRoles::SetRoles(),
                roles.__variant());
    }
    worker.on_writeTimer_timeout();
    for (const QString& setting : settings)
        QCOMPARE(tree.readWritten(setting), contentOf(nextNumber));
    QCOMPARE(tree.writtenEntries().filter(QStringLiteral("/.")), QStringList());
}

void tst_KillPoints::writtenValuesSurviveAKillAtAnyMoment()
{
    const int rounds = repeats(20, 200);
    // More steps than a driver gets through before it is killed.
    const int steps = 380 + rounds;
    for (int round = 0; round < rounds; ++round) {
        const TemporaryTree tree;
        prepare(tree, false);
        QStringList arguments { QStringLiteral(TULO_PLUGIN_FILE), tree.defaultPath(),
                                tree.writePath() };
        for (int number = 1; number <= steps; ++number) {
            for (const QString& setting : settings)
                arguments.append(QStringLiteral("%1=%2").arg(setting).arg(number));
            arguments.append(QStringLiteral("write"));
        }
        ChildProcess child(QStringLiteral(TULO_CRASH_DRIVER), arguments);
        QVERIFY(child.start());

        QVERIFY(child.waitForOutput(
            QStringLiteral("%1=%2\nwrite\n").arg(settings.last()).arg(round + 1).toUtf8()));
        child.sendSignal(SIGKILL);
        const ChildResult result = child.finish();

        // The last number that the driver reported as written, and the last that can have been set.
        const int written = result.standardOutput.count("write\n");
        QVERIFY2(result.signal == SIGKILL, "the driver ended by itself");
        for (const QString& setting : settings) {
            const QByteArray content = tree.readWritten(setting);
            QVERIFY2(content == contentOf(written) || content == contentOf(written + 1),
                     content + " where " + QByteArray::number(written) + " was written");
        }
    }
}

QTEST_GUILESS_MAIN(tst_KillPoints)
#include "tst_kill_points.moc"
