// Kills a process that asks for a factory reset and does it before every call of it, and the
// process that goes on, too.

#include "tests/crash/factoryresetscenario.h"
#include "tests/crash/killedcalls.h"

#include "tests/support/inmemory.h"
#include "tests/support/temporarytree.h"

#include <QTest>

using namespace tulo;

class tst_FactoryResetKillPoints : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { keepTreesInMemory(); }
    void resetKilledAtAnyCallLeavesAllOrIsFinished();
    void resetKilledTwiceIsFinished();

private:
    static void prepare(const TemporaryTree& tree)
    {
        if (!QDir(tree.writePath()).removeRecursively())
            qFatal("cannot empty the tree");
        prepareReset(tree.defaultPath(), tree.writePath());
    }
};

void tst_FactoryResetKillPoints::resetKilledAtAnyCallLeavesAllOrIsFinished()
{
    const TemporaryTree tree;
    int before = 0;
    int after = 0;
    for (int call = 0;; ++call) {
        prepare(tree);
        if (!isKilledAt(call, [&] { (void)requestAndReset(tree.defaultPath(), tree.writePath()); }))
            break;
        const Remains remains = remainsIn(tree.defaultPath(), tree.writePath());
        QVERIFY2(remains != Remains::Some, QByteArray::number(call));
        // Once it is asked for, it stays so.
        QVERIFY2(remains == Remains::Nothing || after == 0, QByteArray::number(call));
        ++(remains == Remains::Nothing ? after : before);
    }
    QCOMPARE(remainsIn(tree.defaultPath(), tree.writePath()), Remains::Nothing);
    QVERIFY(before > 0);
    QVERIFY(after > 30);
    qInfo("killed at %d calls", before + after);
}

void tst_FactoryResetKillPoints::resetKilledTwiceIsFinished()
{
    const TemporaryTree tree;
    int kills = 0;
    const auto finish = [&tree] {
        (void)finishReset(tree.defaultPath(), tree.writePath());
    };
    const auto interrupt = [&](int call) {
        prepare(tree);
        writeFile(requestFile(tree.writePath()), QByteArray());
        return isKilledAt(call, finish);
    };
    for (int call = 0; interrupt(call); call += 5) {
        for (int again = 0; isKilledAt(again, finish); again += 3, interrupt(call)) {
            ++kills;
            QCOMPARE(remainsIn(tree.defaultPath(), tree.writePath()), Remains::Nothing);
        }
    }
    QVERIFY(kills > 20);
}

QTEST_GUILESS_MAIN(tst_FactoryResetKillPoints)
#include "tst_factory_reset_kill_points.moc"
