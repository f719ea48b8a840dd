// Kills a process before every call of a change of several files, and the process that finishes it
// before every one of its calls, too.

#include "tests/crash/journalscenario.h"
#include "tests/crash/killedcalls.h"

#include "tests/support/inmemory.h"
#include "tests/support/repeats.h"
#include "tests/support/temporarytree.h"

#include <QDir>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QTest>

#include <functional>

#include <fcntl.h>
#include <unistd.h>

using namespace tulo;

namespace {

void emptyTree(const QString& tree)
{
    if (!QDir(tree).removeRecursively() || !QDir().mkpath(tree) || !prepareScenario(tree))
        qFatal("cannot prepare '%s'", qPrintable(tree));
}

/// What is found in the end of a tree in which the change was killed at `call`; nothing when it
/// came to its end.
std::optional<Found> foundAfterKillAt(const QString& tree, int call,
                                      const std::function<void()>& change)
{
    emptyTree(tree);
    if (!isKilledAt(call, change))
        return std::nullopt;
    if (redoScenario(tree).status != JournalResult::Status::Done)
        return Found::Wrong;
    return findScenario(tree);
}

// The order that is tempting: what marks the change as done, the old files, the new ones.
void changeWithoutJournal(const QString& tree)
{
    const UniqueFd directory(
        ::openat(AT_FDCWD, QFile::encodeName(tree).constData(), O_RDONLY | O_DIRECTORY));
    const auto put = [&](const ScenarioFile& file) {
        const QByteArray name = QFile::encodeName(file.path.mid(1));
        QDir(tree).mkpath(QFileInfo(tree + file.path).path());
        {
            const UniqueFd written(
                ::openat(directory.get(), name + ".new", O_WRONLY | O_CREAT | O_TRUNC, 0666));
            if (::write(written.get(), file.after.constData(), size_t(file.after.size())) < 0)
                qFatal("cannot write");
        }
        ::renameat(directory.get(), name + ".new", directory.get(), name);
    };
    for (const ScenarioFile& file : scenarioFiles()) {
        if (isRecord(file))
            put(file);
    }
    for (const ScenarioFile& file : scenarioFiles()) {
        if (file.after.isNull())
            ::unlinkat(directory.get(), QFile::encodeName(file.path.mid(1)), 0);
    }
    for (const ScenarioFile& file : scenarioFiles()) {
        if (!file.after.isNull() && !isRecord(file))
            put(file);
    }
}

} // namespace

class tst_JournalKillPoints : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void changeKilledAtAnyCallIsMadeAsAWholeOrNotAtAll();
    void recoveryKilledAtAnyCallIsFinishedByTheNext();
    void recoveriesKilledAgainAndAgainComeToAnEnd();
    void changeWithoutAJournalIsSeenToLoseValues();
};

void tst_JournalKillPoints::initTestCase()
{
    // A kill does not ask what the disk has.
    keepTreesInMemory();
}

void tst_JournalKillPoints::changeKilledAtAnyCallIsMadeAsAWholeOrNotAtAll()
{
    const TemporaryTree place;
    const QString tree = place.writePath();
    int before = 0;
    int after = 0;
    for (int call = 0;; ++call) {
        const auto found = foundAfterKillAt(tree, call, [&] { (void)commitScenario(tree); });
        if (!found)
            break;
        QVERIFY2(*found != Found::Wrong, QByteArray::number(call));
        // Once it is decided, it stays so.
        QVERIFY2(*found == Found::After || after == 0, QByteArray::number(call));
        ++(*found == Found::After ? after : before);
    }

    QCOMPARE(findScenario(tree), Found::After);
    QVERIFY(before > 10);
    QVERIFY(after > 40);
    qInfo("killed at %d calls", before + after);
}

// Both at every call.
void tst_JournalKillPoints::recoveryKilledAtAnyCallIsFinishedByTheNext()
{
    const TemporaryTree place;
    const QString tree = place.writePath();
    QRandomGenerator random(1);
    int kills = 0;
    // In the usual run one in ten, and of those one in twenty.
    for (int call = random.bounded(repeats(20, 1));; call += 1 + random.bounded(repeats(20, 1))) {
        emptyTree(tree);
        if (!isKilledAt(call, [&] { (void)commitScenario(tree); }))
            break;
        for (int redoCall = random.bounded(repeats(20, 1));;
             redoCall += 1 + random.bounded(repeats(40, 1))) {
            emptyTree(tree);
            QVERIFY(isKilledAt(call, [&] { (void)commitScenario(tree); }));
            if (!isKilledAt(redoCall, [&] { (void)redoScenario(tree); }))
                break;
            ++kills;
            QCOMPARE(redoScenario(tree).status, JournalResult::Status::Done);
            QVERIFY2(findScenario(tree) != Found::Wrong,
                     QByteArray::number(call) + ", " + QByteArray::number(redoCall));
        }
    }

    QVERIFY(kills > 10);
    qInfo("killed again at %d calls", kills);
}

void tst_JournalKillPoints::recoveriesKilledAgainAndAgainComeToAnEnd()
{
    const TemporaryTree place;
    const QString tree = place.writePath();
    const int rounds = repeats(10, 1000);
    QRandomGenerator random(2);
    for (int round = 0; round < rounds; ++round) {
        emptyTree(tree);
        isKilledAt(int(random.bounded(80)), [&] { (void)commitScenario(tree); });
        for (int kill = 0; kill < 6; ++kill)
            isKilledAt(int(random.bounded(60)), [&] { (void)redoScenario(tree); });

        QCOMPARE(redoScenario(tree).status, JournalResult::Status::Done);
        QVERIFY2(findScenario(tree) != Found::Wrong, QByteArray::number(round));
    }
}

// Without it nobody would know whether the tests above could fail.
void tst_JournalKillPoints::changeWithoutAJournalIsSeenToLoseValues()
{
    const TemporaryTree place;
    const QString tree = place.writePath();
    int wrong = 0;
    for (int call = 0;; ++call) {
        const auto found = foundAfterKillAt(tree, call, [&] { changeWithoutJournal(tree); });
        if (!found)
            break;
        wrong += *found == Found::Wrong ? 1 : 0;
    }

    QCOMPARE(findScenario(tree), Found::After);
    QVERIFY(wrong > 10);
}

QTEST_GUILESS_MAIN(tst_JournalKillPoints)
#include "tst_journal_kill_points.moc"
