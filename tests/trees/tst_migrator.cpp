#include "trees/migrator.h"

#include "tests/support/files.h"
#include "tests/support/temporarytree.h"
#include "trees/ownerlock.h"
#include "trees/treecheck.h"
#include "trees/treestamp.h"

#include "api/core/tulojson.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <memory>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

using namespace tulo;

namespace {

using Outcome = MigrationResult::Status;

QString path(const char* text)
{
    return QString::fromLatin1(text);
}

const char eco[] = R"({"id":"VEH","timestamp":5,"value":{"string":"eco"}})";

} // namespace

/// Migrations in real trees.
class tst_migrator : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void valueIsMovedInTheTree();
    void emptiedDirectoriesAreRemoved();
    void directoryWithSomethingElseStays();
    void nothingToDoWritesNothing();
    void productDecidesWhichDefaultCounts();
    void childrenOfTemplatesStay();
    void templateThatIsReadOnlyKeepsNoChildren();
    void loopOfLinksEnds();
    void stampedTreeThatIsUnchangedIsNotReadAgain();
    void stampIsOfNoUseWithOtherRules();
    void otherProductIsLookedAtAgain();
    void stampOfAnEarlierImageIsForgotten();
    void brokenInputChangesNothing_data();
    void brokenInputChangesNothing();
    void treeThatIsNotMountedChangesNothing();
    void linkInTheWayIsAnObstacle();
    void linksInTheWritableTreeAreLeftAlone();
    void nothingIsRemovedThroughALink();
    void modesAreKept();
    void recordIsForItsOwnerOnly();
    void recordIsNoFinding();
    void planIsMadeWithoutTheLock();
    void undoTakesTheLastRunBack();

private:
    void putRule(const char* name, const char* text) const;
    MigrationPlace place() const;
    MigrationResult run(MigrationRun kind = MigrationRun::Migrate) const;
    QByteArray record() const { return m_tree->readWritten(path("/.tulo-cm.migrations")); }
    QStringList written() const;

    std::unique_ptr<TemporaryTree> m_tree;
};

void tst_migrator::init()
{
    m_tree = std::make_unique<TemporaryTree>();
    m_tree->writeDefault(
        path("/driving/mode"),
        R"({"id":"VEH","value":{"string":"normal"},"edit":{"values":["eco","normal"]}})");
}

void tst_migrator::cleanup()
{
    m_tree.reset();
}

void tst_migrator::putRule(const char* name, const char* text) const
{
    writeFile(m_tree->path() + path("/settings-migrations/") + path(name), text);
}

MigrationPlace tst_migrator::place() const
{
    return { m_tree->defaultPath(), m_tree->writePath(), QString(), QString() };
}

MigrationResult tst_migrator::run(MigrationRun kind) const
{
    OwnerLock lock;
    if (lock.acquire(m_tree->writePath()) != OwnerLock::Status::Owned)
        qFatal("%s", qPrintable(lock.message()));
    return migrate(lock.directory(), place(), kind);
}

// Without our own files.
QStringList tst_migrator::written() const
{
    return m_tree->writtenEntries().filter(QRegularExpression(path("^/[^.]")));
}

void tst_migrator::valueIsMovedInTheTree()
{
    m_tree->writeWritten(path("/vehicle/drive-mode"), eco);

    const MigrationResult result = run();

    QCOMPARE(result.status, Outcome::Done);
    QCOMPARE(result.values.size(), 1);
    QCOMPARE(describe(result.values.first()),
             path("/vehicle/drive-mode -> /driving/mode (id 'VEH')"));
    QCOMPARE(m_tree->readWritten(path("/driving/mode")), QByteArray(eco));
    QCOMPARE(written(), (QStringList { path("/driving/"), path("/driving/mode") }));
}

void tst_migrator::emptiedDirectoriesAreRemoved()
{
    m_tree->writeWritten(path("/a/b/c/drive-mode"), eco);
    m_tree->writeWritten(path("/a/keep"), R"({"value":{"int":1}})");

    QCOMPARE(run().status, Outcome::Done);

    QCOMPARE(
        written(),
        (QStringList { path("/a/"), path("/a/keep"), path("/driving/"), path("/driving/mode") }));
}

void tst_migrator::directoryWithSomethingElseStays()
{
    m_tree->writeWritten(path("/a/drive-mode"), eco);
    m_tree->writeWritten(path("/a/.drive-mode"), "stale");

    QCOMPARE(run().status, Outcome::Done);

    QCOMPARE(m_tree->readWritten(path("/a/.drive-mode")), QByteArray("stale"));
}

void tst_migrator::nothingToDoWritesNothing()
{
    m_tree->writeWritten(path("/driving/mode"), eco);

    QCOMPARE(run().status, Outcome::Done);

    QVERIFY(record().isNull());
}

void tst_migrator::productDecidesWhichDefaultCounts()
{
    m_tree->writeDefault(path("/driving/mode_sport"),
                         R"({"id":"VEH","value":{"string":"sport"},"edit":{"values":["sport"]}})");
    m_tree->writeWritten(path("/vehicle/drive-mode"), eco);
    MigrationPlace sport = place();
    sport.productPostfix = path("sport");

    QCOMPARE(planMigrationOf(place(), MigrationRun::Migrate).values.first().obstacle, QString());
    QCOMPARE(planMigrationOf(sport, MigrationRun::Migrate).values.first().obstacle,
             path(R"(it is not one of the 'values' (["sport"]))"));
}

void tst_migrator::childrenOfTemplatesStay()
{
    m_tree->writeDefault(path("/presets/.meta"), "{}");
    m_tree->writeWritten(path("/presets/drive-mode"), eco);

    QVERIFY(run().values.isEmpty());
}

void tst_migrator::templateThatIsReadOnlyKeepsNoChildren()
{
    m_tree->writeDefault(path("/vehicle/.meta"), R"({"modifiable":false})");
    m_tree->writeWritten(path("/vehicle/drive-mode"), eco);

    QCOMPARE(run().values.size(), 1);
}

void tst_migrator::loopOfLinksEnds()
{
    QVERIFY(QFile::link(m_tree->defaultPath(), m_tree->defaultPath() + path("/driving/loop")));
    QVERIFY(QFile::link(m_tree->defaultPath(), m_tree->defaultPath() + path("/driving/loop2")));
    m_tree->writeWritten(path("/vehicle/drive-mode"), eco);

    QCOMPARE(run().values.size(), 1);
}

void tst_migrator::stampedTreeThatIsUnchangedIsNotReadAgain()
{
    QCOMPARE(writeStamp(m_tree->defaultPath()), QString());
    m_tree->writeWritten(path("/vehicle/drive-mode"), eco);
    QCOMPARE(run().values.size(), 1);
    // Would be moved, and the rule is a fault, if anything were read.
    m_tree->writeWritten(path("/other/drive-mode"), eco);
    putRule("0001-a.json", "[{}]");

    QCOMPARE(run().status, Outcome::Done);

    QVERIFY(m_tree->writtenEntries().contains(path("/other/drive-mode")));
    QVERIFY(QFile::remove(stampFile(m_tree->defaultPath())));
    QCOMPARE(run().status, Outcome::Faulty);
}

void tst_migrator::stampIsOfNoUseWithOtherRules()
{
    QCOMPARE(writeStamp(m_tree->defaultPath()), QString());
    QCOMPARE(run().status, Outcome::Done);
    putRule("0001-a.json", "[{}]");
    OwnerLock lock;
    QCOMPARE(lock.acquire(m_tree->writePath()), OwnerLock::Status::Owned);
    MigrationPlace other = place();
    other.migrationsPath = m_tree->path() + path("/settings-migrations");

    QCOMPARE(migrate(lock.directory(), other, MigrationRun::Migrate).status, Outcome::Faulty);
}

void tst_migrator::otherProductIsLookedAtAgain()
{
    QCOMPARE(writeStamp(m_tree->defaultPath()), QString());
    QCOMPARE(run().status, Outcome::Done);
    putRule("0001-a.json", "[{}]");
    OwnerLock lock;
    QCOMPARE(lock.acquire(m_tree->writePath()), OwnerLock::Status::Owned);
    MigrationPlace sport = place();
    sport.productPostfix = path("sport");

    QCOMPARE(migrate(lock.directory(), sport, MigrationRun::Migrate).status, Outcome::Faulty);
}

// An image without a stamp comes in between.
void tst_migrator::stampOfAnEarlierImageIsForgotten()
{
    QCOMPARE(writeStamp(m_tree->defaultPath()), QString());
    m_tree->writeWritten(path("/driving/mode"), eco);
    QCOMPARE(run().status, Outcome::Done);
    MigrationPlace other = place();
    other.defaultPath = m_tree->path() + path("/b/settings-default");
    QVERIFY(QDir().mkpath(other.defaultPath + path("/vehicle")));
    QVERIFY(QFile::copy(m_tree->defaultPath() + path("/driving/mode"),
                        other.defaultPath + path("/vehicle/mode")));
    {
        OwnerLock lock;
        QCOMPARE(lock.acquire(m_tree->writePath()), OwnerLock::Status::Owned);
        QCOMPARE(migrate(lock.directory(), other, MigrationRun::Migrate).values.size(), 1);
    }

    QCOMPARE(run().values.size(), 1);

    QCOMPARE(m_tree->readWritten(path("/driving/mode")), QByteArray(eco));
}

void tst_migrator::brokenInputChangesNothing_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("reason");
    QTest::addColumn<bool>("isImage");
    QTest::newRow("rule") << path("settings-migrations/0002-b.json") << QByteArray("[{}]")
                          << path("/settings-migrations/0002-b.json:1:2: a step is an object")
                          << false;
    QTest::newRow("default file") << path("default/audio/volume") << QByteArray("{")
                                  << path("/audio/volume") << true;
    QTest::newRow("record of another format")
        << path("write/.tulo-cm.migrations") << QByteArray(R"({"format":2})")
        << path("has the format 2, and this program knows 1; move it elsewhere") << false;
    QTest::newRow("damaged record") << path("write/.tulo-cm.migrations") << QByteArray("{")
                                    << path("move it elsewhere") << false;
    QTest::newRow("empty record") << path("write/.tulo-cm.migrations") << QByteArray("")
                                  << path("is empty; move it elsewhere") << false;
}

void tst_migrator::brokenInputChangesNothing()
{
    QFETCH(const QString, file);
    QFETCH(const QByteArray, content);
    QFETCH(const QString, reason);
    QFETCH(const bool, isImage);
    putRule("0001-a.json", R"([{"remove":"/driving"}])");
    m_tree->writeWritten(path("/vehicle/drive-mode"), eco);
    const QString name = QString(file)
                             .replace(QRegularExpression(path("^default")), m_tree->defaultPath())
                             .replace(QRegularExpression(path("^write")), m_tree->writePath());
    writeFile(QDir(m_tree->path()).absoluteFilePath(name), content);

    const MigrationResult result = run();

    QCOMPARE(result.status, isImage ? Outcome::BrokenImage : Outcome::Faulty);
    QVERIFY2(result.message.contains(reason), qPrintable(result.message));
    QCOMPARE(m_tree->readWritten(path("/vehicle/drive-mode")), QByteArray(eco));
    QCOMPARE(written(), (QStringList { path("/vehicle/"), path("/vehicle/drive-mode") }));
}

// An empty directory is all there is of it, and nothing of the rules.
void tst_migrator::treeThatIsNotMountedChangesNothing()
{
    putRule("0001-mode.json", R"([{"clamp":"/driving/mode"}])");
    QCOMPARE(run().status, Outcome::Done);
    m_tree->writeWritten(path("/driving/mode"), eco);
    const QByteArray before = record();
    QVERIFY(QDir(m_tree->defaultPath()).removeRecursively());
    QVERIFY(QDir().mkdir(m_tree->defaultPath()));
    QVERIFY(QDir(m_tree->path() + path("/settings-migrations")).removeRecursively());

    const MigrationResult result = run();

    QCOMPARE(result.status, Outcome::Faulty);
    QCOMPARE(result.message,
             QStringLiteral("the default tree '%1' is empty").arg(m_tree->defaultPath()));
    QCOMPARE(m_tree->readWritten(path("/driving/mode")), QByteArray(eco));
    QCOMPARE(record(), before);
}

void tst_migrator::linkInTheWayIsAnObstacle()
{
    m_tree->writeWritten(path("/vehicle/drive-mode"), eco);
    QVERIFY(QFile::link(path("nowhere"), m_tree->writePath() + path("/driving")));
    QCOMPARE(run().values.first().obstacle, path("'/driving' is a written file"));

    QCOMPARE(written(),
             (QStringList { path("/driving"), path("/vehicle/"), path("/vehicle/drive-mode") }));
}

void tst_migrator::linksInTheWritableTreeAreLeftAlone()
{
    m_tree->writeWritten(path("/elsewhere/drive-mode"), eco);
    QVERIFY(QFile::rename(m_tree->writePath() + path("/elsewhere"),
                          m_tree->path() + path("/elsewhere")));
    QVERIFY(
        QFile::link(m_tree->path() + path("/elsewhere"), m_tree->writePath() + path("/vehicle")));

    QVERIFY(run().values.isEmpty());

    QVERIFY(QFile::exists(m_tree->path() + path("/elsewhere/drive-mode")));
}

// The record names a directory that is behind a link by now.
void tst_migrator::nothingIsRemovedThroughALink()
{
    m_tree->writeWritten(path("/vehicle/drive/mode"), eco);
    QCOMPARE(run().status, Outcome::Done);
    const QString outside = m_tree->path() + path("/outside");
    QVERIFY(QDir().mkpath(outside + path("/drive")));
    QVERIFY(QFile::link(outside, m_tree->writePath() + path("/vehicle")));
    m_tree->writeDefault(path("/audio/volume"), R"({"id":"VOL","value":{"int":1}})");
    m_tree->writeWritten(path("/audio/loudness"), R"({"id":"VOL","value":{"int":2}})");

    QCOMPARE(run().status, Outcome::Done);

    QCOMPARE(written(),
             QStringList({ path("/audio/"), path("/audio/volume"), path("/driving/"),
                           path("/driving/mode"), path("/vehicle") }));
    QVERIFY(QFile::exists(outside + path("/drive")));
}

// Where another framework serves the tree, others may read it.
void tst_migrator::modesAreKept()
{
    const auto modeOf = [this](const char* name) {
        struct stat status = {};
        const QString fileName = m_tree->writePath() + path(name);
        return ::stat(QFile::encodeName(fileName).constData(), &status) == 0
            ? int(status.st_mode & 07777)
            : 0;
    };
    putRule("0001-volume.json", R"([{"map":"/audio/volume","values":[[5,6]]}])");
    m_tree->writeDefault(path("/audio/volume"), R"({"value":{"int":1}})");
    m_tree->writeDefault(path("/audio/pin"), R"({"id":"PIN","value":{"int":1}})");
    m_tree->writeWritten(path("/vehicle/drive-mode"), eco);
    m_tree->writeWritten(path("/audio/volume"), R"({"value":{"int":5}})");
    m_tree->writeWritten(path("/vehicle/pin"), R"({"id":"PIN","value":{"int":5}})");
    for (const auto& [name, mode] : { std::pair("/vehicle/drive-mode", 0644),
                                      { "/audio/volume", 0664 },
                                      { "/vehicle/pin", 0600 } }) {
        QVERIFY(::chmod(QFile::encodeName(m_tree->writePath() + path(name)).constData(), mode)
                == 0);
    }

    const mode_t mask = ::umask(0077);
    const Outcome status = run().status;
    ::umask(mask);

    QCOMPARE(status, Outcome::Done);
    QCOMPARE(modeOf("/driving/mode"), 0644);
    QCOMPARE(modeOf("/audio/volume"), 0664);
    QCOMPARE(modeOf("/audio/pin"), 0600);
}

void tst_migrator::recordIsForItsOwnerOnly()
{
    m_tree->writeWritten(path("/vehicle/drive-mode"), eco);
    QCOMPARE(run().status, Outcome::Done);

    struct stat status = {};
    QCOMPARE(::stat(QFile::encodeName(m_tree->writePath() + path("/.tulo-cm.migrations")), &status),
             0);
    QCOMPARE(int(status.st_mode & 0777), 0600);
}

void tst_migrator::recordIsNoFinding()
{
    m_tree->writeWritten(path("/vehicle/drive-mode"), eco);
    QCOMPARE(run().status, Outcome::Done);

    QCOMPARE(inspectTrees(m_tree->defaultPath(), m_tree->writePath()).size(), 0);
}

void tst_migrator::planIsMadeWithoutTheLock()
{
    m_tree->writeWritten(path("/vehicle/drive-mode"), eco);
    const QStringList before = m_tree->writtenEntries();
    OwnerLock lock;
    QCOMPARE(lock.acquire(m_tree->writePath()), OwnerLock::Status::Owned);

    const MigrationResult result = planMigrationOf(place(), MigrationRun::Migrate);

    QCOMPARE(result.status, Outcome::Done);
    QCOMPARE(result.values.size(), 1);
    lock.release();
    QVERIFY(QFile::remove(OwnerLock::fileName(m_tree->writePath())));
    QCOMPARE(m_tree->writtenEntries(), before);
}

void tst_migrator::undoTakesTheLastRunBack()
{
    putRule("0001-a.json", R"([{"map":"/driving/mode","values":[["eco","normal"]]}])");
    m_tree->writeWritten(path("/vehicle/drive-mode"), eco);
    QCOMPARE(run().status, Outcome::Done);
    QVERIFY(m_tree->readWritten(path("/driving/mode")).contains("normal"));

    QCOMPARE(run(MigrationRun::Undo).status, Outcome::Done);

    QCOMPARE(m_tree->readWritten(path("/vehicle/drive-mode")), QByteArray(eco));
    QCOMPARE(written(), (QStringList { path("/vehicle/"), path("/vehicle/drive-mode") }));
}

QTEST_APPLESS_MAIN(tst_migrator)

#include "tst_migrator.moc"
