#include "engine/localsettings.h"
#include "tests/crash/killpoints.h"

#include "tests/support/childprocess.h"
#include "tests/support/files.h"
#include "tests/support/inmemory.h"
#include "tests/support/logcapture.h"
#include "tests/support/temporarytree.h"

#include <QMap>
#include <QTest>

#include <csignal>
#include <memory>

using namespace tulo;

namespace {

using Files = QMap<QString, QByteArray>;

const QString journal = QStringLiteral("/.tulo-cm.journal");

QByteArray contentOf(qlonglong number)
{
    return R"({"timestamp":)" + QByteArray::number(number) + R"(,"value":{"int":)"
        + QByteArray::number(number) + "}}";
}

// One that stays, one that is changed, one that is reset; two that come, one of them in a new
// directory.
const Files& filesBefore()
{
    static const Files files { { QStringLiteral("/audio/volume"), contentOf(1) },
                               { QStringLiteral("/audio/fader"), contentOf(1) },
                               { QStringLiteral("/video/contrast"), contentOf(1) } };
    return files;
}

const Files& filesAfter()
{
    static const Files files { { QStringLiteral("/audio/volume"), contentOf(22222) },
                               { QStringLiteral("/audio/balance"), contentOf(3) },
                               { QStringLiteral("/audio/presets/mine"), contentOf(4) },
                               { QStringLiteral("/video/contrast"), contentOf(1) } };
    return files;
}

Files filesOf(const TemporaryTree& tree)
{
    Files files;
    const QStringList entries = tree.writtenEntries();
    for (const QString& entry : entries) {
        if (!entry.endsWith(QLatin1Char('/')) && !entry.contains(QStringLiteral("/.")))
            files.insert(entry, tree.readWritten(entry));
    }
    return files;
}

void prepare(const TemporaryTree& tree)
{
    for (const char* setting :
         { "/audio/volume", "/audio/fader", "/audio/balance", "/video/contrast" })
        tree.writeDefault(QLatin1String(setting), QByteArrayLiteral(R"({"value":{"int":0}})"));
    tree.writeDefault(QStringLiteral("/audio/presets/.meta"), QByteArrayLiteral("{}"));
    for (auto file = filesBefore().cbegin(); file != filesBefore().cend(); ++file)
        tree.writeWritten(file.key(), *file);
    writeFile(tree.path() + QLatin1String("/dump"),
              R"({"count":3,"path":"/settings/audio","product":"","secrets":false,"tree":"",)"
              R"("tulo":1})"
              "\n"
              R"({"path":"/settings/audio/balance","timestamp":3,"value":3})"
              "\n"
              R"({"path":"/settings/audio/presets/mine","timestamp":4,"value":4})"
              "\n"
              R"({"path":"/settings/audio/volume","timestamp":22222,"value":22222})"
              "\n");
}

QStringList load(const TemporaryTree& tree, const QString& option)
{
    return QStringList(QStringLiteral(TULO_CM_PROGRAM)) + optionsOf(tree)
        + QStringList({ QStringLiteral("load"), tree.path() + QLatin1String("/dump"), option });
}

QStringList replace(const TemporaryTree& tree)
{
    return load(tree, QStringLiteral("--replace"));
}

} // namespace

/// Processes that are killed while they load a dump: all of it is loaded, or nothing.
class tst_LoadKillPoints : public QObject
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

    void loadKilledAtAnySystemCallIsWholeOrNotMade();
    void recoveryKilledAtAnySystemCallIsFinishedLater();

private:
    static void verifyAllOrNothing(const TemporaryTree& tree, bool mayBeUnchanged);

    std::unique_ptr<LogCapture> m_log;
    bool m_canTrace = false;
};

void tst_LoadKillPoints::initTestCase()
{
    m_canTrace = canTrace();
    // A kill does not ask what the disk has.
    keepTreesInMemory();
}

// What the next owner of the tree finds.
void tst_LoadKillPoints::verifyAllOrNothing(const TemporaryTree& tree, bool mayBeUnchanged)
{
    EngineOptions options;
    options.pluginFile = QStringLiteral(TULO_PLUGIN_FILE);
    options.defaultPath = tree.defaultPath();
    options.writePath = tree.writePath();
    options.access = EngineOptions::Access::Own;
    EngineFailure failure;
    const auto settings = LocalSettings::open(options, &failure);
    QVERIFY2(settings, qPrintable(failure.message));

    const Files files = filesOf(tree);
    QVERIFY(files == filesAfter() || (files == filesBefore() && mayBeUnchanged));
    QVERIFY(!tree.writtenEntries().contains(journal));
    QVERIFY(settings->currentStatus().isWritable);
}

void tst_LoadKillPoints::loadKilledAtAnySystemCallIsWholeOrNotMade()
{
    if (!m_canTrace)
        QSKIP("needs strace and the right to trace a process");
    killAtItsCalls(prepare, replace, verifyAllOrNothing);
}

void tst_LoadKillPoints::recoveryKilledAtAnySystemCallIsFinishedLater()
{
    if (!m_canTrace)
        QSKIP("needs strace and the right to trace a process");
    // Decided, and interrupted after the first of the files was written.
    const auto interrupt = [](const TemporaryTree& tree) {
        prepare(tree);
        const auto child = traced(replace(tree), killing({ QStringLiteral("renameat"), 3, true }));
        QVERIFY(child->start());
        QCOMPARE(child->finish().signal, SIGKILL);
        QVERIFY(tree.writtenEntries().contains(journal));
        QVERIFY(filesOf(tree) != filesBefore());
    };
    const auto recover = [](const TemporaryTree& tree) {
        return load(tree, QStringLiteral("--dry-run"));
    };

    killAtItsCalls(interrupt, recover,
                   [](const TemporaryTree& tree, bool) { verifyAllOrNothing(tree, false); });
}

QTEST_GUILESS_MAIN(tst_LoadKillPoints)
#include "tst_load_kill_points.moc"
