// Cuts the power at every step of a factory reset: the tree lies on a separate file system inside
// an image file, a copy of which is taken while a call is about to be made.

#include "tests/crash/factoryresetscenario.h"
#include "tests/crash/filecalls.h"
#include "tests/crash/mountedimage.h"

#include "tests/support/repeats.h"
#include "tests/support/temporarytree.h"

#include <QRandomGenerator>
#include <QTest>

#include <functional>
#include <memory>
#include <utility>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace tulo;

namespace {

std::function<void()> observer; // NOLINT: one test program, one thread

void beforeCall(FileCall call)
{
    // The others leave nothing to be found.
    if (!observer || call == FileCall::Open || call == FileCall::Close)
        return;
    // The observer's own calls do not count.
    const std::function<void()> called = std::exchange(observer, nullptr);
    called();
    observer = called;
}

int replacedSync(int file)
{
    return result(::syscall(SYS_fsync, file));
}

} // namespace

class tst_FactoryResetPowerCut : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { observer = nullptr; }
    void powerCutAtAnyStepLeavesAllOrIsFinished_data();
    void powerCutAtAnyStepLeavesAllOrIsFinished();
};

void tst_FactoryResetPowerCut::powerCutAtAnyStepLeavesAllOrIsFinished_data()
{
    QTest::addColumn<bool>("isAskedBefore");
    QTest::addColumn<bool>("journalIsCommitted");
    QTest::newRow("asked by the process") << false << false;
    QTest::newRow("asked by the process, committed at every step") << false << true;
    QTest::newRow("asked before, without a sync") << true << false;
    QTest::newRow("asked before, committed at every step") << true << true;
}

void tst_FactoryResetPowerCut::powerCutAtAnyStepLeavesAllOrIsFinished()
{
    QFETCH(const bool, isAskedBefore);
    QFETCH(const bool, journalIsCommitted);
    const TemporaryTree place;
    const QString image = place.path() + QLatin1String("/disk.img");
    const QString tree = place.path() + QLatin1String("/disk");
    const QString copy = place.path() + QLatin1String("/copy.img");
    // The file system's journal is committed by a sync only.
    const QString options = QStringLiteral(",commit=300");
    const bool isMade = ::geteuid() == 0 && makeImage(image);
    const MountedImage mounted(image, tree, options);
    if (!isMade || !mounted.isMounted())
        QSKIP("needs root and loop devices, to mount a file system");
    prepareReset(place.defaultPath(), tree);
    const UniqueFd directory(::open(QFile::encodeName(tree).constData(), O_RDONLY));
    QCOMPARE(::syncfs(directory.get()), 0);
    if (isAskedBefore)
        writeFile(requestFile(tree), QByteArray());

    QRandomGenerator random(3);
    int steps = 0;
    int cuts = 0;
    int after = 0;
    observer = [&] {
        if (journalIsCommitted) {
            QFile other(tree + QLatin1String("/.other"));
            QVERIFY(other.open(QIODevice::WriteOnly) && other.write("x") == 1 && other.flush());
            QCOMPARE(::syscall(SYS_fsync, other.handle()), 0L);
        }
        ++steps;
        // In the usual run one in three.
        if (random.bounded(repeats(3, 1)) != 0)
            return;
        ++cuts;
        copyImage(image, copy);
        const QString found = place.path() + QLatin1String("/copy");
        const MountedImage cut(copy, found, options);
        QVERIFY2(cut.isMounted(), cut.error());
        const Remains remains = remainsIn(place.defaultPath(), found);
        QVERIFY2(remains != Remains::Some, QByteArray::number(steps));
        QVERIFY2(remains == Remains::Nothing || after == 0, QByteArray::number(steps));
        after += remains == Remains::Nothing ? 1 : 0;
    };
    const JournalResult result = isAskedBefore ? finishReset(place.defaultPath(), tree)
                                               : requestAndReset(place.defaultPath(), tree);
    observer = nullptr;

    QCOMPARE(result.status, JournalResult::Status::Done);
    QCOMPARE(remainsIn(place.defaultPath(), tree), Remains::Nothing);
    QVERIFY(after > 0);
    qInfo("cut at %d of %d steps", cuts, steps);
}

QTEST_GUILESS_MAIN(tst_FactoryResetPowerCut)
#include "tst_factory_reset_power_cut.moc"
