// Kills a process that gives a tree to the new number of its user before every call of it.

#include "tests/crash/killedcalls.h"

#include "trees/treeadoption.h"

#include "tests/support/inmemory.h"
#include "tests/support/temporarytree.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace tulo;

namespace {

// Every Debian has this user, and no user of the other number.
const QString user = QStringLiteral("daemon");
constexpr uid_t own = 1;
constexpr uid_t old = 54321;

const QStringList names { QString(),
                          QStringLiteral("/audio"),
                          QStringLiteral("/audio/balance"),
                          QStringLiteral("/audio/volume"),
                          QStringLiteral("/radio"),
                          QStringLiteral("/radio/mode") };

void prepare(const TemporaryTree& tree)
{
    if (!QDir(tree.writePath()).removeRecursively() || !QDir().mkpath(tree.writePath()))
        qFatal("cannot empty the tree");
    for (const QString& name : names) {
        if (name.count(QLatin1Char('/')) == 2)
            tree.writeWritten(name, "{}");
    }
    for (const QString& name : names) {
        if (::lchown(QFile::encodeName(tree.writePath() + name).constData(), old, old) != 0)
            qFatal("cannot give '%s' away", qPrintable(name));
    }
    tree.writeWritten(QStringLiteral("/.tulo-cm.owner"), "daemon 54321:54321\n");
}

int countOf(const TemporaryTree& tree, uid_t owner)
{
    int count = 0;
    for (const QString& name : names) {
        struct stat file = {};
        if (::lstat(QFile::encodeName(tree.writePath() + name).constData(), &file) == 0)
            count += int(file.st_uid == owner);
    }
    return count;
}

} // namespace

class tst_AdoptionKillPoints : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void adoptionKilledAtAnyCallIsFinishedByTheNext();
    void imageThatComesBackAfterAKillHasItsTree();
};

void tst_AdoptionKillPoints::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("needs root, to give files away");
    keepTreesInMemory();
}

void tst_AdoptionKillPoints::adoptionKilledAtAnyCallIsFinishedByTheNext()
{
    const TemporaryTree tree;
    int begun = 0;
    for (int call = 0;; ++call) {
        prepare(tree);
        const bool isKilled =
            isKilledAt(call, [&tree] { (void)adoptTree(tree.writePath(), user); });
        const int given = countOf(tree, own);
        begun += int(given > 0 && given < names.size());

        QCOMPARE(adoptTree(tree.writePath(), user).status, AdoptionResult::Status::Done);
        QCOMPARE(countOf(tree, own), int(names.size()));
        QCOMPARE(tree.readWritten(QStringLiteral("/.tulo-cm.owner")), QByteArray("daemon 1:1\n"));
        if (!isKilled)
            break;
    }
    QVERIFY(begun > 10);
}

// "bin" stands for the user in the image before: the mark is given its name.
void tst_AdoptionKillPoints::imageThatComesBackAfterAKillHasItsTree()
{
    constexpr uid_t before = 2;
    const TemporaryTree tree;
    int calls = 0;
    for (;; ++calls) {
        prepare(tree);
        if (!isKilledAt(calls, [&tree] { (void)adoptTree(tree.writePath(), user); }))
            break;
        const QString markName = QStringLiteral("/.tulo-cm.owner");
        tree.writeWritten(markName, tree.readWritten(markName).replace("daemon", "bin"));

        QCOMPARE(adoptTree(tree.writePath(), QStringLiteral("bin")).status,
                 AdoptionResult::Status::Done);
        QCOMPARE(countOf(tree, before), int(names.size()));
    }
    QVERIFY(calls > 20);
}

QTEST_GUILESS_MAIN(tst_AdoptionKillPoints)
#include "tst_adoption_kill_points.moc"
