// Cuts the power at every step of a change of several files, and of finishing it: the tree lies on
// a separate file system inside an image file, a copy of which is taken while a call is about to
// be made.

#include "tests/crash/filecalls.h"
#include "tests/crash/journalscenario.h"
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
// Of the first file that is synced, which is the new journal.
bool firstSyncDoesNothing = false; // NOLINT

void beforeCall(FileCall call)
{
    // The others leave nothing to be found.
    if (!observer || call == FileCall::Open || call == FileCall::Truncate
        || call == FileCall::Close)
        return;
    // The observer's own calls do not count.
    const std::function<void()> called = std::exchange(observer, nullptr);
    called();
    observer = called;
}

int replacedSync(int file)
{
    if (observer && std::exchange(firstSyncDoesNothing, false))
        return 0;
    return result(::syscall(SYS_fsync, file));
}

/// A mounted image with the tree of before on it.
class Disk
{
public:
    explicit Disk(const QString& options)
    {
        if (!makeImage(image()))
            return;
        m_mount = std::make_unique<MountedImage>(image(), tree(), options);
        if (isMounted() && prepareScenario(tree()))
            syncAll();
    }
    Q_DISABLE_COPY(Disk)

    bool isMounted() const { return m_mount && m_mount->isMounted(); }
    QString tree() const { return m_place.path() + QLatin1String("/disk"); }
    QString image() const { return m_place.path() + QLatin1String("/disk.img"); }
    QString place() const { return m_place.path(); }

    /// Commits the file system's journal as anybody's sync of anything does, but no data.
    void syncSomethingElse() const
    {
        QFile other(tree() + QLatin1String("/other"));
        if (!other.open(QIODevice::WriteOnly) || other.write("x") != 1 || !other.flush()
            || ::syscall(SYS_fsync, other.handle()) != 0)
            qFatal("cannot sync another file");
    }

private:
    void syncAll() const
    {
        const UniqueFd directory(::open(QFile::encodeName(tree()).constData(), O_RDONLY));
        if (::syncfs(directory.get()) != 0)
            qFatal("cannot sync the image");
    }

    const TemporaryTree m_place;
    std::unique_ptr<MountedImage> m_mount;
};

/// What is found by a process that opens the tree on the copy of an image.
Found foundOn(const QString& copy, const QString& directory, const QString& options)
{
    const MountedImage mounted(copy, directory, options);
    if (!mounted.isMounted())
        qFatal("cannot mount the copy: %s", mounted.error().constData());
    return redoScenario(directory).status == JournalResult::Status::Unfinished
        ? Found::Wrong
        : findScenario(directory);
}

/// The same after a power cut at this moment.
Found foundAfterPowerCut(const Disk& disk, const QString& options)
{
    const QString copy = disk.place() + QLatin1String("/copy.img");
    copyImage(disk.image(), copy);
    return foundOn(copy, disk.place() + QLatin1String("/copy"), options);
}

} // namespace

class tst_JournalPowerCut : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup()
    {
        observer = nullptr;
        firstSyncDoesNothing = false;
    }

    void powerCutAtAnyStepLeavesAWholeChangeOrNone_data();
    void powerCutAtAnyStepLeavesAWholeChangeOrNone();
    void powerCutAtAnyStepOfARecoveryIsFinishedByTheNext_data();
    void powerCutAtAnyStepOfARecoveryIsFinishedByTheNext();
    void powerCutWithAnUnsyncedJournalIsSeenToLoseValues();

private:
    bool m_canMount = false;
};

namespace {

void addOptions()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<bool>("journalIsCommitted");
    // The file system's journal is committed by a sync only.
    const QString usual = QStringLiteral(",commit=300");
    const QString loose = QStringLiteral(",noauto_da_alloc,data=writeback,commit=300");
    QTest::newRow("default options") << usual << false;
    QTest::newRow("default options, committed at every step") << usual << true;
    QTest::newRow("data=writeback") << loose << false;
    QTest::newRow("data=writeback, committed at every step") << loose << true;
}

} // namespace

void tst_JournalPowerCut::initTestCase()
{
    m_canMount = ::geteuid() == 0 && Disk(QString()).isMounted();
}

void tst_JournalPowerCut::powerCutAtAnyStepLeavesAWholeChangeOrNone_data()
{
    addOptions();
}

void tst_JournalPowerCut::powerCutAtAnyStepLeavesAWholeChangeOrNone()
{
    if (!m_canMount)
        QSKIP("needs root and loop devices, to mount a file system");
    QFETCH(const QString, options);
    QFETCH(const bool, journalIsCommitted);
    const Disk disk(options);
    QRandomGenerator random(1);
    int steps = 0;
    int cuts = 0;
    int after = 0;
    const auto cutPower = [&] {
        if (journalIsCommitted)
            disk.syncSomethingElse();
        ++steps;
        // In the usual run one in four.
        if (random.bounded(repeats(4, 1)) != 0)
            return;
        ++cuts;
        const Found found = foundAfterPowerCut(disk, options);
        QVERIFY2(found != Found::Wrong, QByteArray::number(steps));
        QVERIFY2(found == Found::After || after == 0, QByteArray::number(steps));
        after += found == Found::After ? 1 : 0;
    };

    observer = cutPower;
    const JournalResult result = commitScenario(disk.tree());
    observer = nullptr;

    QCOMPARE(result.message, QString());
    QCOMPARE(foundAfterPowerCut(disk, options), Found::After);
    QVERIFY(steps > 40);
    QVERIFY(after > 0);
    QVERIFY(cuts > after);
    qInfo("cut at %d of %d steps", cuts, steps);
}

void tst_JournalPowerCut::powerCutAtAnyStepOfARecoveryIsFinishedByTheNext_data()
{
    addOptions();
}

// The first cut is at each step, too: in the usual run at two of them.
void tst_JournalPowerCut::powerCutAtAnyStepOfARecoveryIsFinishedByTheNext()
{
    if (!m_canMount)
        QSKIP("needs root and loop devices, to mount a file system");
    QFETCH(const QString, options);
    QFETCH(const bool, journalIsCommitted);
    const Disk disk(options);
    QRandomGenerator random(2);
    QVector<QString> images;
    int steps = 0;
    const auto keepImage = [&] {
        if (journalIsCommitted)
            disk.syncSomethingElse();
        if (random.bounded(repeats(20, 2)) != 0)
            return;
        images.append(QStringLiteral("%1/cut%2.img").arg(disk.place()).arg(steps++));
        copyImage(disk.image(), images.constLast());
    };
    observer = keepImage;
    QCOMPARE(commitScenario(disk.tree()).message, QString());
    observer = nullptr;
    QVERIFY(!images.isEmpty());

    int cuts = 0;
    const QString directory = disk.place() + QLatin1String("/first");
    const QString copy = disk.place() + QLatin1String("/second.img");
    for (const QString& image : qAsConst(images)) {
        const MountedImage mounted(image, directory, options);
        QVERIFY2(mounted.isMounted(), mounted.error());
        const auto cutPower = [&] {
            if (random.bounded(repeats(8, 2)) != 0)
                return;
            ++cuts;
            copyImage(image, copy);
            const Found found = foundOn(copy, disk.place() + QLatin1String("/second"), options);
            QVERIFY(found != Found::Wrong);
        };
        observer = cutPower;
        const JournalResult result = redoScenario(directory);
        observer = nullptr;
        QCOMPARE(result.status, JournalResult::Status::Done);
    }
    qInfo("cut %d times after %d cuts", cuts, int(images.size()));
}

// Without it nobody would know whether the tests above could fail.
void tst_JournalPowerCut::powerCutWithAnUnsyncedJournalIsSeenToLoseValues()
{
    if (!m_canMount)
        QSKIP("needs root and loop devices, to mount a file system");
    const QString options = QStringLiteral(",noauto_da_alloc,data=writeback,commit=300");
    const Disk disk(options);
    int wrong = 0;

    firstSyncDoesNothing = true;
    observer = [&] {
        disk.syncSomethingElse();
        wrong += foundAfterPowerCut(disk, options) == Found::Wrong ? 1 : 0;
    };
    const JournalResult result = commitScenario(disk.tree());
    observer = nullptr;

    QCOMPARE(result.message, QString());
    QVERIFY(wrong > 0);
}

QTEST_GUILESS_MAIN(tst_JournalPowerCut)
#include "tst_journal_power_cut.moc"
