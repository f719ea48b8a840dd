#include "engine/servedtree.h"

#include "tests/support/enginechanges.h"
#include "tests/support/logcapture.h"
#include "tests/support/registryobserver.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace tulo;

namespace {

const CMPath volume(QStringLiteral("/settings/audio/volume"));
const QString volumeFile = QStringLiteral("/audio/volume");

TuloValue number(int value)
{
    return TuloValue::of(TuloValue::Int(), value);
}

TuloValue volumeOf(ServedTree& tree)
{
    const QList<QVariant> values =
        tree.engine().dispatcher().getData(volume, { TuloRoles::Value() }).value();
    return TuloValue(TuloHash(values.value(0).toHash()));
}

} // namespace

/// A tree whose place is taken by nothing or by another one. What takes a mount is tested with the
/// service: see tst_service_partition.
class tst_ServedTree : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void missingTreeIsStoodForByAnEmptyDirectory();
    void treeThatIsNotWaitedForHasToBeThere();
    void treeOfAnotherOwnerIsNotServed();
    void treeThatStaysIsNotOpenedAgain();
    void treeThatGoesLeavesItsChangesToKeep();
    void treeThatComesBackGetsWhatWasKept();
    void replacedTreeGetsWhatWasAccepted();
    void observerHearsEveryEngine();
    void writesOfAllTreesAreCounted();

private:
    EngineOptions options() const;
    std::unique_ptr<ServedTree> opened(const EngineOptions& options) const;
    std::unique_ptr<ServedTree> opened() const { return opened(options()); }
    QString elsewhere() const { return m_trees->path() + QLatin1String("/elsewhere"); }
    /// Takes the tree away from its path.
    bool takeAway() const { return QDir().rename(m_trees->writePath(), elsewhere()); }
    bool putBack() const { return QDir().rename(elsewhere(), m_trees->writePath()); }

    std::unique_ptr<TemporaryTree> m_trees;
    std::unique_ptr<LogCapture> m_log;
};

void tst_ServedTree::init()
{
    m_log = std::make_unique<LogCapture>();
    m_trees = std::make_unique<TemporaryTree>();
    m_trees->writeDefault(volumeFile, R"({"value":{"int":35}})");
}

void tst_ServedTree::cleanup()
{
    m_log->verifyNothingUnexpected();
    m_log.reset();
    m_trees.reset();
}

EngineOptions tst_ServedTree::options() const
{
    EngineOptions options;
    options.pluginFile = QStringLiteral(TULO_PLUGIN_FILE);
    options.defaultPath = m_trees->defaultPath();
    options.writePath = m_trees->writePath();
    options.access = EngineOptions::Access::Own;
    options.waitsForTree = true;
    return options;
}

std::unique_ptr<ServedTree> tst_ServedTree::opened(const EngineOptions& options) const
{
    EngineFailure failure;
    std::unique_ptr<ServedTree> tree = ServedTree::open(options, &failure);
    if (!tree)
        qFatal("%s", qPrintable(failure.message));
    return tree;
}

void tst_ServedTree::missingTreeIsStoodForByAnEmptyDirectory()
{
    QVERIFY(QDir().rmdir(m_trees->writePath()));
    EngineOptions waiting = options();
    waiting.waitsForMount = true;

    const std::unique_ptr<ServedTree> tree = opened(waiting);

    QVERIFY(tree->isServed());
    QVERIFY(!tree->engine().ownsTree());
    QCOMPARE(tree->engine().changeRefusal(),
             QStringLiteral("The partition of the writable tree '%1' is not mounted")
                 .arg(m_trees->writePath()));
    QCOMPARE(tree->lastWriteError(), tree->engine().changeRefusal());
    QCOMPARE(tree->path(), m_trees->writePath());
    const QString substitute = tree->engine().writePath();
    QVERIFY(QDir(substitute).isEmpty());
    QVERIFY(!QFile::exists(m_trees->writePath()));
    QCOMPARE(volumeOf(*tree), number(35));
    QVERIFY(tree->stop());
}

void tst_ServedTree::treeThatIsNotWaitedForHasToBeThere()
{
    QVERIFY(QDir().rmdir(m_trees->writePath()));
    EngineOptions impatient = options();
    impatient.waitsForTree = false;
    EngineFailure failure;

    QVERIFY(!ServedTree::open(impatient, &failure));

    QCOMPARE(failure.kind, EngineFailure::Kind::Usage);
    QCOMPARE(failure.message,
             QStringLiteral("Directory '%1' does not exist").arg(m_trees->writePath()));
}

void tst_ServedTree::treeOfAnotherOwnerIsNotServed()
{
    const std::unique_ptr<ServedTree> owner = opened();
    EngineFailure failure;

    QVERIFY(!ServedTree::open(options(), &failure));

    QCOMPARE(failure.kind, EngineFailure::Kind::InUse);
}

void tst_ServedTree::treeThatStaysIsNotOpenedAgain()
{
    const std::unique_ptr<ServedTree> tree = opened();
    const Engine* const engine = &tree->engine();
    const QSignalSpy changed(tree.get(), &ServedTree::changed);
    const QSignalSpy refusalChanged(tree.get(), &ServedTree::refusalChanged);

    tree->check();

    QCOMPARE(&tree->engine(), engine);
    QCOMPARE(changed.count(), 0);
    QCOMPARE(refusalChanged.count(), 0);
}

void tst_ServedTree::treeThatGoesLeavesItsChangesToKeep()
{
    const std::unique_ptr<ServedTree> tree = opened();
    const QSignalSpy changed(tree.get(), &ServedTree::changed);
    const QSignalSpy refusalChanged(tree.get(), &ServedTree::refusalChanged);
    const auto reply = sendValue(tree->engine().dispatcher(), volume, number(40));
    QCOMPARE(errorText(reply), QString());
    QCOMPARE(tree->pendingCount(), 1);

    QVERIFY(takeAway());
    tree->check();

    QCOMPARE(changed.count(), 1);
    QCOMPARE(changed.first().first().toStringList(), QStringList(volume.text()));
    QCOMPARE(refusalChanged.count(), 1);
    QCOMPARE(tree->engine().changeRefusal(),
             QStringLiteral("Directory '%1' does not exist").arg(m_trees->writePath()));
    QVERIFY(tree->keepsChanges());
    QVERIFY(tree->hasUnwrittenChanges());
    QCOMPARE(tree->pendingCount(), 0);
    QCOMPARE(tree->unsavedCount(), 1);
    QCOMPARE(tree->unsavedPaths(), QStringList(volume.text()));
    QCOMPARE(volumeOf(*tree), number(40));
    QVERIFY(!QFile::exists(elsewhere() + volumeFile));
    QVERIFY(!tree->stop());
    QVERIFY(!tree->stop());
    QVERIFY(!QFile::exists(m_trees->writePath()));
}

void tst_ServedTree::treeThatComesBackGetsWhatWasKept()
{
    const std::unique_ptr<ServedTree> tree = opened();
    (void)sendValue(tree->engine().dispatcher(), volume, number(40));
    QVERIFY(takeAway());
    tree->check();
    const QString substitute = tree->engine().writePath();
    const QSignalSpy changed(tree.get(), &ServedTree::changed);
    const QSignalSpy refusalChanged(tree.get(), &ServedTree::refusalChanged);

    QVERIFY(putBack());
    tree->check();

    QCOMPARE(changed.count(), 1);
    QCOMPARE(refusalChanged.count(), 1);
    QVERIFY(tree->engine().ownsTree());
    QVERIFY(!tree->keepsChanges());
    QVERIFY(!QFile::exists(substitute));
    QCOMPARE(volumeOf(*tree), number(40));
    QVERIFY(tree->stop());
    QCOMPARE(m_trees->readWrittenRoles(volumeFile).value(QStringLiteral("value")),
             number(40).__variant());
}

void tst_ServedTree::replacedTreeGetsWhatWasAccepted()
{
    m_trees->writeWritten(QStringLiteral("/presets/mine"), R"({"value":{"int":1}})");
    const std::unique_ptr<ServedTree> tree = opened();
    const QSignalSpy changed(tree.get(), &ServedTree::changed);
    (void)sendValue(tree->engine().dispatcher(), volume, number(40));
    QVERIFY(takeAway());
    m_trees->writeWritten(QStringLiteral("/presets/theirs"), R"({"value":{"int":2}})");

    tree->check();

    QCOMPARE(changed.count(), 1);
    QStringList paths = changed.first().first().toStringList();
    paths.removeDuplicates();
    paths.sort();
    QCOMPARE(paths,
             (QStringList { volume.text(), QStringLiteral("/settings/presets/mine"),
                            QStringLiteral("/settings/presets/theirs") }));
    QVERIFY(tree->engine().ownsTree());
    QCOMPARE(tree->path(), m_trees->writePath());
    QVERIFY(tree->stop());
    QCOMPARE(m_trees->readWrittenRoles(volumeFile).value(QStringLiteral("value")),
             number(40).__variant());
    QVERIFY(!QFile::exists(elsewhere() + volumeFile));
}

void tst_ServedTree::observerHearsEveryEngine()
{
    RegistryObserver observer(nullptr);
    const std::unique_ptr<ServedTree> tree = opened();
    tree->observe(&observer);
    (void)sendValue(tree->engine().dispatcher(), volume, number(40));
    QVERIFY(observer.take().contains(QStringLiteral("value /settings/audio/volume {int: 40}")));

    QVERIFY(takeAway());
    tree->check();
    QVERIFY(putBack());
    tree->check();
    (void)observer.take();
    (void)sendValue(tree->engine().dispatcher(), volume, number(45));

    QVERIFY(observer.take().contains(QStringLiteral("value /settings/audio/volume {int: 45}")));
    QVERIFY(tree->stop());
}

void tst_ServedTree::writesOfAllTreesAreCounted()
{
    const std::unique_ptr<ServedTree> tree = opened();
    (void)sendValue(tree->engine().dispatcher(), volume, number(40));
    QCOMPARE(flushed(tree->engine()).error, QString());
    QCOMPARE(tree->writeCount(), 1);

    QVERIFY(takeAway());
    tree->check();
    QCOMPARE(tree->writeCount(), 1);
    QVERIFY(putBack());
    tree->check();
    (void)sendValue(tree->engine().dispatcher(), volume, number(45));
    QCOMPARE(flushed(tree->engine()).error, QString());

    QCOMPARE(tree->writeCount(), 2);
    // That there was no tree.
    QCOMPARE(tree->writeErrorCount(), 1);
    QVERIFY(tree->stop());
}

QTEST_GUILESS_MAIN(tst_ServedTree)
#include "tst_servedtree.moc"
