#include "cm_settings.h"

#include "tests/support/childprocess.h"
#include "tests/support/logcapture.h"
#include "tests/support/repeats.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QFile>
#include <QMap>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>
#include <csignal>
#include <memory>
#include <vector>

namespace {

/// One system call of the driver, by its name and how often it was called up to then.
struct KillPoint
{
    QString call;
    int count = 0;
};

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

/// A driver under strace, which is told what to do by `options`.
std::unique_ptr<ChildProcess> traced(const TemporaryTree& tree, const QStringList& options)
{
    const QStringList arguments = QStringList { QStringLiteral("-f") } << options << driver(tree);
    auto child = std::make_unique<ChildProcess>(QStringLiteral("strace"), arguments);
    // The leak checker cannot work in a process that is traced already.
    child->setVariable(QStringLiteral("ASAN_OPTIONS"), QStringLiteral("detect_leaks=0"));
    // The same order of files in every run.
    child->setVariable(QStringLiteral("QT_HASH_SEED"), QStringLiteral("0"));
    return child;
}

bool canTrace()
{
    return ChildProcess::run(QStringLiteral("strace"), { QStringLiteral("true") }).exitCode == 0;
}

/// Every system call of the first thread between the two marks of a driver's trace. strace counts
/// the calls of each thread by itself, and the logging library's threads start when they like.
std::vector<KillPoint> killPoints(const QByteArray& trace)
{
    const QRegularExpression line(QStringLiteral("^(\\d+) +(\\w+)\\("));
    QString firstThread;
    QMap<QString, int> counts;
    std::vector<KillPoint> points;
    int marks = 0;
    const QList<QByteArray> lines = trace.split('\n');
    for (const QByteArray& text : lines) {
        const QRegularExpressionMatch match = line.match(QString::fromUtf8(text));
        if (!match.hasMatch())
            continue;
        if (firstThread.isEmpty())
            firstThread = match.captured(1);
        if (match.captured(1) != firstThread)
            continue;
        const QString call = match.captured(2);
        const int count = ++counts[call];
        if (call == QLatin1String("getppid"))
            ++marks;
        else if (marks == 1)
            points.push_back({ call, count });
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
    const QString traceFile = reference.path() + QLatin1String("/trace");

    const auto whole = traced(reference, { QStringLiteral("-o"), traceFile });
    QVERIFY(whole->start());
    QCOMPARE(whole->finish().exitCode, 0);
    for (const QString& setting : settings)
        QCOMPARE(reference.readWritten(setting), contentOf(newNumber));
    QFile trace(traceFile);
    QVERIFY(trace.open(QIODevice::ReadOnly));
    const std::vector<KillPoint> points = killPoints(trace.readAll());
    const auto renames = std::count_if(points.cbegin(), points.cend(), [](const KillPoint& point) {
        return point.call == QLatin1String("rename");
    });
    QCOMPARE(renames, std::ptrdiff_t(settings.size()));

    // Two at a time.
    struct Victim
    {
        const KillPoint* point;
        std::unique_ptr<TemporaryTree> tree;
        std::unique_ptr<ChildProcess> child;
    };
    const auto verify = [this, targetExists](const Victim& victim) {
        const ChildResult result = victim.child->finish();
        const QByteArray place =
            victim.point->call.toUtf8() + ' ' + QByteArray::number(victim.point->count);
        QVERIFY2(result.signal == SIGKILL, place + ": " + result.standardError);
        verifyWholeFiles(*victim.tree, targetExists);
        if (QTest::currentTestFailed())
            qWarning("killed at %s", place.constData());
    };
    std::unique_ptr<Victim> running;
    for (const KillPoint& point : points) {
        auto victim = std::make_unique<Victim>();
        victim->point = &point;
        victim->tree = std::make_unique<TemporaryTree>();
        prepare(*victim->tree, targetExists);
        victim->child = traced(
            *victim->tree,
            { QStringLiteral("-o"), QStringLiteral("/dev/null"), QStringLiteral("-e"),
              QStringLiteral("trace=") + point.call, QStringLiteral("-e"),
              QStringLiteral("inject=%1:signal=KILL:when=%2").arg(point.call).arg(point.count) });
        QVERIFY(victim->child->start());
        if (running)
            verify(*running);
        if (QTest::currentTestFailed())
            return;
        running = std::move(victim);
    }
    verify(*running);
    qInfo("killed at %d system calls", int(points.size()));
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

        // The last number that was told to be written, and the last that can have been set.
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
