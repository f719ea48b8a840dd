#include "engine/localsettings.h"
#include "tests/crash/killpoints.h"
#include "tests/daemon/servicefixture.h"

#include "tests/support/childprocess.h"
#include "tests/support/inmemory.h"
#include "tests/support/logcapture.h"
#include "tests/support/temporarytree.h"

#include <tulo/remotesettings.h>

#include <QTest>

#include <algorithm>
#include <csignal>
#include <iterator>
#include <memory>
#include <vector>

using namespace tulo;

namespace {

const QString journal = QStringLiteral("/.tulo-cm.journal");
// One that stays, and three that are reset: two with a default, one without.
const QString other = QStringLiteral("/audio/balance");
const QStringList resetSettings { QStringLiteral("/audio/fader"), QStringLiteral("/audio/volume"),
                                  QStringLiteral("/presets/mine") };
const QByteArray content = R"({"timestamp":5,"value":{"int":5}})";

void prepare(const TemporaryTree& tree)
{
    for (const char* setting : { "/audio/balance", "/audio/fader", "/audio/volume" })
        tree.writeDefault(QLatin1String(setting), QByteArrayLiteral(R"({"value":{"int":0}})"));
    tree.writeDefault(QStringLiteral("/presets/.meta"),
                      QByteArrayLiteral(R"({"defaultValue":{"int":1}})"));
    for (const QString& setting : resetSettings + QStringList(other))
        tree.writeWritten(setting, content);
}

QStringList fullPaths()
{
    QStringList paths;
    for (const QString& setting : resetSettings)
        paths.append(QStringLiteral("/settings") + setting);
    return paths;
}

QStringList reset(const TemporaryTree& tree, const QStringList& paths)
{
    return QStringList(QStringLiteral(TULO_CM_PROGRAM)) + optionsOf(tree)
        + QStringList(QStringLiteral("reset")) + paths;
}

QStringList resetAll(const TemporaryTree& tree)
{
    return reset(tree, fullPaths());
}

} // namespace

/// Processes that are killed while they reset settings: all are reset, or none.
class tst_ResetKillPoints : public QObject
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

    void resetKilledAtAnySystemCallIsWholeOrNotMade();
    void recoveryKilledAtAnySystemCallIsFinishedLater();
    void serviceKilledInAResetResetsAllOrNone();

private:
    void verifyAllOrNone(const TemporaryTree& tree, bool mayBeUnchanged);

    std::unique_ptr<LogCapture> m_log;
    bool m_canTrace = false;
};

void tst_ResetKillPoints::initTestCase()
{
    m_canTrace = canTrace();
    // A kill does not ask what the disk has.
    keepTreesInMemory();
}

// The next owner of the tree finds all of the settings reset, or none, and can change them.
void tst_ResetKillPoints::verifyAllOrNone(const TemporaryTree& tree, bool mayBeUnchanged)
{
    EngineOptions options;
    options.pluginFile = QStringLiteral(TULO_PLUGIN_FILE);
    options.defaultPath = tree.defaultPath();
    options.writePath = tree.writePath();
    options.access = EngineOptions::Access::Own;
    EngineFailure failure;
    const auto settings = LocalSettings::open(options, &failure);
    QVERIFY2(settings, qPrintable(failure.message));

    QStringList left;
    for (const QString& setting : resetSettings) {
        const QByteArray bytes = tree.readWritten(setting);
        if (!bytes.isNull())
            left.append(setting);
        QVERIFY2(bytes.isNull() || bytes == content, bytes);
    }
    QVERIFY2(left.isEmpty() || (left == resetSettings && mayBeUnchanged),
             qPrintable(left.join(QLatin1Char(' '))));
    QCOMPARE(tree.readWritten(other), content);
    QVERIFY(!tree.writtenEntries().contains(journal));

    QStringList changed { QStringLiteral("/settings") + other };
    if (!left.isEmpty())
        changed += fullPaths();
    ResetOptions everything;
    everything.isRecursive = true;
    const Reply<QStringList> reset = settings->reset({ QStringLiteral("/settings") }, everything);
    QVERIFY2(reset.wait(), qPrintable(reset.error().message));
    QCOMPARE(reset.value(), changed);
}

void tst_ResetKillPoints::resetKilledAtAnySystemCallIsWholeOrNotMade()
{
    if (!m_canTrace)
        QSKIP("needs strace and the right to trace a process");
    killAtItsCalls(prepare, resetAll, [this](const TemporaryTree& tree, bool isKilled) {
        verifyAllOrNone(tree, isKilled);
    });
}

void tst_ResetKillPoints::recoveryKilledAtAnySystemCallIsFinishedLater()
{
    if (!m_canTrace)
        QSKIP("needs strace and the right to trace a process");
    // Decided, and interrupted after the first of the files was removed.
    const auto interrupt = [](const TemporaryTree& tree) {
        prepare(tree);
        const auto child = traced(resetAll(tree), killing({ QStringLiteral("unlinkat"), 2, true }));
        QVERIFY(child->start());
        QCOMPARE(child->finish().signal, SIGKILL);
        QVERIFY(tree.writtenEntries().contains(journal));
    };
    const auto recover = [](const TemporaryTree& tree) {
        return reset(tree, { fullPaths().first() });
    };

    killAtItsCalls(interrupt, recover,
                   [this](const TemporaryTree& tree, bool) { verifyAllOrNone(tree, false); });
}

void tst_ResetKillPoints::serviceKilledInAResetResetsAllOrNone()
{
    if (!m_canTrace)
        QSKIP("needs strace and the right to trace a process");
    // What changes the tree: the loop of the service makes these for nothing else.
    static const QStringList changing { QStringLiteral("renameat"), QStringLiteral("rename"),
                                        QStringLiteral("fsync"),    QStringLiteral("unlinkat"),
                                        QStringLiteral("unlink"),   QStringLiteral("rmdir"),
                                        QStringLiteral("ftruncate") };
    const PrivateBus bus;
    const auto resetByClient = [&bus](const TemporaryTree& tree, const QStringList& options,
                                      ChildResult* result) {
        const auto service =
            traced(QStringList(QStringLiteral(TULO_SETTINGSD_PROGRAM)) + optionsOf(tree)
                       + QStringList({ QStringLiteral("--bus"), bus.address() }),
                   options);
        service->setVariable(QStringLiteral("LD_PRELOAD"), QStringLiteral(TULO_SCRIPTED_SYNC));
        service->setVariable(QStringLiteral("TULO_TEST_SYNC"), QStringLiteral("true"));
        QVERIFY(service->start());
        // Some are at its start.
        if (!service->waitForError("serving '")) {
            *result = service->finish();
            QCOMPARE(result->signal, SIGKILL);
            return;
        }
        RemoteSettings settings(bus.address());
        const Reply<Status> status = settings.status();
        QVERIFY(status.wait());
        // Something pending, too, that is written first.
        const Reply<Change> change = settings.set(fullPaths().first(), 7);
        const Reply<QStringList> reset = settings.reset(fullPaths());
        if (!reset.wait())
            QCOMPARE(reset.error().code, ErrorCode::Unavailable);
        else
            QCOMPARE(reset.value(), fullPaths());
        ::kill(pid_t(status.value().processId), SIGTERM);
        *result = service->finish();
        QVERIFY(result->signal == SIGKILL || result->exitCode == 0);
    };
    const TemporaryTree reference;
    prepare(reference);
    const QString traceFile = reference.path() + QLatin1String("/trace");
    ChildResult result;
    resetByClient(reference, { QStringLiteral("-o"), traceFile }, &result);
    std::vector<KillPoint> points;
    const std::vector<KillPoint> all = killPoints(traceFile);
    std::copy_if(all.cbegin(), all.cend(), std::back_inserter(points),
                 [](const KillPoint& point) { return changing.contains(point.call); });
    QVERIFY(points.size() > 10);

    int killed = 0;
    for (const KillPoint& point : points) {
        const TemporaryTree tree;
        prepare(tree);
        resetByClient(tree, killing(point), &result);
        killed += int(result.signal == SIGKILL);
        // The first one may have the value that was pending.
        const QByteArray first = tree.readWritten(resetSettings.first());
        if (!first.isNull() && first != content) {
            QVERIFY2(first.contains("\"value\":{\"int\":7}"), first);
            // Not what a decided reset would take for a newer one.
            if (!tree.writtenEntries().contains(journal))
                tree.writeWritten(resetSettings.first(), content);
        }
        verifyAllOrNone(tree, true);
        if (QTest::currentTestFailed()) {
            qWarning("killed at %s %d", qPrintable(point.call), point.count);
            return;
        }
    }
    qInfo("killed at %d of %d system calls", killed, int(points.size()));
    QVERIFY(killed > 10);
}

QTEST_GUILESS_MAIN(tst_ResetKillPoints)
#include "tst_reset_kill_points.moc"
