#include "trees/treeadoption.h"
#include "trees/treeowner.h"

#include "client/base/checks.h"

#include "tests/support/childprocess.h"
#include "tests/support/files.h"
#include "tests/support/readonlyplace.h"
#include "tests/support/smalldisk.h"
#include "tests/support/temporarytree.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <cstring>
#include <memory>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace tulo;

using Status = AdoptionResult::Status;

namespace {

// Every Debian has these two users and groups.
const QString user = QStringLiteral("daemon");
constexpr uid_t own = 1;
constexpr uid_t another = 2;
// Nobody's.
constexpr uid_t old = 54321;
constexpr uid_t older = 54322;

const QString markName = QStringLiteral("/.tulo-cm.owner");

QByteArray encoded(const TemporaryTree& tree, const QString& name)
{
    return QFile::encodeName(tree.writePath() + name);
}

void giveTo(const TemporaryTree& tree, const QString& name, uid_t to)
{
    if (::lchown(encoded(tree, name).constData(), to, to) != 0)
        qFatal("cannot give '%s' away", qPrintable(name));
}

// "USER:GROUP", of the file itself.
QByteArray ownerOf(const TemporaryTree& tree, const QString& name)
{
    struct stat file = {};
    if (::lstat(encoded(tree, name).constData(), &file) != 0)
        return std::strerror(errno);
    return QByteArray::number(file.st_uid) + ':' + QByteArray::number(file.st_gid);
}

const QByteArray ownOwner("1:1");
const QByteArray oldOwner("54321:54321");

/// A tree as a service whose user had the old number left it.
class OldTree : public TemporaryTree
{
public:
    explicit OldTree(const QByteArray& mark = "daemon 54321:54321\n")
    {
        writeWritten(QStringLiteral("/audio/volume"), "{}");
        writeWritten(QStringLiteral("/.tulo-cm.lock"), "");
        for (const char* name : { "", "/audio", "/audio/volume", "/.tulo-cm.lock" })
            giveTo(*this, QLatin1String(name), old);
        // Not that of the files above.
        if (!mark.isEmpty())
            writeWritten(markName, mark);
    }
};

} // namespace

/// Trees whose owner had another number.
class tst_TreeAdoption : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void treeOfTheUserIsMarkedOnce();
    void markThatWasGivenAwayIsRootsAgain();
    void markThatCouldNotBeWrittenIsNotInTheWay_data();
    void markThatCouldNotBeWrittenIsNotInTheWay();
    void oldNumbersFollowTheUser();
    void filesThatRunAsTheirOwnerFollowTheUserAndDoSoNoLonger();
    void othersKeepWhatIsTheirs();
    void filesOfTheNewNumberLoseTheOldGroup();
    void whatIsDeeperThanASettingStays();
    void treeOfAnotherUserIsLeftAlone_data();
    void treeOfAnotherUserIsLeftAlone();
    void linksAreNotFollowed();
    void otherMountsAreNotEntered();
    void filesOnAnOverlayFollowTheUser();
    void whatAnInterruptionLeftIsDoneByEitherImage();
    void treeThatIsNotThereIsNothing();
    void onlyRootAdopts();
    void treeInUseIsLeftAlone();
    void fullDiskHindersNothing();
    void treeThatMayNotBeChangedIsTold();
    void threadKeepsTheRightToChangeOwnersOnly();

private:
    static AdoptionResult adopt(const TemporaryTree& tree)
    {
        return adoptTree(tree.writePath(), user);
    }
};

void tst_TreeAdoption::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("needs root, to give files away");
}

void tst_TreeAdoption::treeOfTheUserIsMarkedOnce()
{
    const TemporaryTree tree;
    tree.writeWritten(QStringLiteral("/volume"), "{}");
    giveTo(tree, QString(), own);
    giveTo(tree, QStringLiteral("/volume"), another);

    const AdoptionResult result = adopt(tree);

    QCOMPARE(result.message, QString());
    QCOMPARE(result.status, Status::Done);
    QCOMPARE(tree.readWritten(markName), QByteArray("daemon 1:1\n"));
    QCOMPARE(ownerOf(tree, markName), QByteArray("0:0"));
    QCOMPARE(ownerOf(tree, QStringLiteral("/volume")), QByteArray("2:2"));
    struct stat before = {};
    struct stat after = {};
    QCOMPARE(::stat(encoded(tree, markName).constData(), &before), 0);
    QCOMPARE(int(adopt(tree).status), int(Status::Done));
    QCOMPARE(::stat(encoded(tree, markName).constData(), &after), 0);
    QCOMPARE(after.st_ino, before.st_ino);
}

// By "chown -R", of a restored backup for example. The next image would not believe it.
void tst_TreeAdoption::markThatWasGivenAwayIsRootsAgain()
{
    const TemporaryTree tree;
    tree.writeWritten(markName, "daemon 1:1\n");
    giveTo(tree, markName, own);
    giveTo(tree, QString(), own);

    const AdoptionResult result = adopt(tree);

    QVERIFY2(result.status == Status::Done, qPrintable(result.message));
    QCOMPARE(ownerOf(tree, markName), QByteArray("0:0"));
    QCOMPARE(tree.readWritten(markName), QByteArray("daemon 1:1\n"));
}

void tst_TreeAdoption::markThatCouldNotBeWrittenIsNotInTheWay_data()
{
    QTest::addColumn<uid_t>("owner");
    QTest::addColumn<bool>("isLink");
    QTest::newRow("of root") << uid_t(0) << false;
    QTest::newRow("given away by chown -R") << own << false;
    QTest::newRow("link") << own << true;
}

// For want of room, for example.
void tst_TreeAdoption::markThatCouldNotBeWrittenIsNotInTheWay()
{
    QFETCH(const uid_t, owner);
    QFETCH(const bool, isLink);
    const QString newMarkName = markName + QLatin1String(".new");
    const TemporaryTree tree;
    giveTo(tree, QString(), own);
    tree.writeDefault(QStringLiteral("/other"), "{}");
    if (isLink)
        QVERIFY(QFile::link(tree.defaultPath() + QLatin1String("/other"),
                            tree.writePath() + newMarkName));
    else
        tree.writeWritten(newMarkName, "daem");
    giveTo(tree, newMarkName, owner);

    const AdoptionResult result = adopt(tree);

    QCOMPARE(result.message, QString());
    QCOMPARE(result.status, Status::Done);
    QCOMPARE(tree.writtenEntries(), QStringList(markName));
    QCOMPARE(tree.readWritten(markName), QByteArray("daemon 1:1\n"));
    QCOMPARE(ownerOf(tree, markName), QByteArray("0:0"));
    QCOMPARE(readFile(tree.defaultPath() + QLatin1String("/other")), QByteArray("{}"));
}

void tst_TreeAdoption::oldNumbersFollowTheUser()
{
    const OldTree tree;
    QVERIFY(QFile::link(QStringLiteral("volume"), tree.writePath() + QLatin1String("/audio/link")));
    giveTo(tree, QStringLiteral("/audio/link"), old);

    const AdoptionResult result = adopt(tree);

    QCOMPARE(result.status, Status::Done);
    QCOMPARE(result.message,
             QStringLiteral("the writable tree '%1' is user daemon's again, whose number is 1 now: "
                            "5 files and directories")
                 .arg(tree.writePath()));
    for (const char* name : { "", "/audio", "/audio/volume", "/audio/link", "/.tulo-cm.lock" })
        QCOMPARE(ownerOf(tree, QLatin1String(name)), ownOwner);
    QCOMPARE(tree.readWritten(markName), QByteArray("daemon 1:1\n"));
    QCOMPARE(tree.readWritten(QStringLiteral("/audio/volume")), QByteArray("{}"));
    QVERIFY(!tree.writtenEntries().contains(markName + QLatin1String(".new")));
}

// As after "chmod -R g+s"; to take such a bit away is another right than to change the owner.
void tst_TreeAdoption::filesThatRunAsTheirOwnerFollowTheUserAndDoSoNoLonger()
{
    const OldTree tree;
    const QString name = QStringLiteral("/audio/volume");
    QCOMPARE(::chmod(encoded(tree, name).constData(), 06755), 0);
    QCOMPARE(::chmod(encoded(tree, QStringLiteral("/audio")).constData(), 02755), 0);

    const ChildResult child = ChildProcess::runInChild([&tree, &name] {
        QCOMPARE(keepRightToChangeOwners(), QString());
        const AdoptionResult result = adopt(tree);
        QVERIFY2(result.status == Status::Done, qPrintable(result.message));
        struct stat file = {};
        QCOMPARE(::stat(encoded(tree, name).constData(), &file), 0);
        QCOMPARE(file.st_mode, mode_t(S_IFREG | 0755));
        for (const char* part : { "", "/audio", "/audio/volume", "/.tulo-cm.lock" })
            QCOMPARE(ownerOf(tree, QLatin1String(part)), ownOwner);
    });

    QVERIFY2(child.exitCode == 0, child.standardOutput);
}

void tst_TreeAdoption::othersKeepWhatIsTheirs()
{
    const OldTree tree;
    const QString anothers = QStringLiteral("/audio/another");
    const QString grouped = QStringLiteral("/audio/grouped");
    const QString linked = QStringLiteral("/audio/linked");
    const QString pipe = QStringLiteral("/audio/pipe");
    for (const QString& name : { anothers, grouped, linked })
        tree.writeWritten(name, "{}");
    giveTo(tree, anothers, another);
    giveTo(tree, linked, old);
    QCOMPARE(::lchown(encoded(tree, grouped).constData(), old, another), 0);
    const QByteArray outside = QFile::encodeName(tree.path()) + "/second-name";
    QCOMPARE(::link(encoded(tree, linked).constData(), outside.constData()), 0);
    QCOMPARE(::mkfifo(encoded(tree, pipe).constData(), 0600), 0);
    giveTo(tree, pipe, old);

    QCOMPARE(adopt(tree).status, Status::Done);

    QCOMPARE(ownerOf(tree, anothers), QByteArray("2:2"));
    QCOMPARE(ownerOf(tree, grouped), QByteArray("1:2"));
    QCOMPARE(ownerOf(tree, linked), oldOwner);
    QCOMPARE(ownerOf(tree, pipe), oldOwner);
    QCOMPARE(ownerOf(tree, QString()), ownOwner);
}

// As "chown USER" without a group leaves them.
void tst_TreeAdoption::filesOfTheNewNumberLoseTheOldGroup()
{
    const OldTree tree;
    const QString name = QStringLiteral("/audio/volume");
    QCOMPARE(::lchown(encoded(tree, name).constData(), own, old), 0);

    QCOMPARE(adopt(tree).status, Status::Done);

    QCOMPARE(ownerOf(tree, name), ownOwner);
}

void tst_TreeAdoption::whatIsDeeperThanASettingStays()
{
    const OldTree tree;
    QString path;
    QStringList paths;
    for (int level = 0; level < 40; ++level) {
        path += QLatin1String("/d");
        tree.makeWriteDirectory(path);
        giveTo(tree, path, old);
        paths.append(path);
    }

    QCOMPARE(adopt(tree).status, Status::Done);

    for (int level = 0; level < maximumLevels; ++level)
        QCOMPARE(ownerOf(tree, paths.at(level)), ownOwner);
    QCOMPARE(ownerOf(tree, paths.last()), oldOwner);
}

void tst_TreeAdoption::treeOfAnotherUserIsLeftAlone_data()
{
    QTest::addColumn<QByteArray>("mark");
    QTest::addColumn<uid_t>("markOwner");
    QTest::newRow("no mark") << QByteArray() << uid_t(0);
    QTest::newRow("mark of another number") << QByteArray("daemon 54322:54322\n") << uid_t(0);
    QTest::newRow("mark of another user") << QByteArray("bin 54321:54321\n") << uid_t(0);
    QTest::newRow("mark that root did not write") << QByteArray("daemon 54321:54321\n") << old;
    QTest::newRow("damaged mark") << QByteArray("daemon 54321:54321 x\n") << uid_t(0);
    QTest::newRow("mark without its end") << QByteArray("daemon 54321:54321") << uid_t(0);
    QTest::newRow("number with a sign") << QByteArray("daemon +54321:54321\n") << uid_t(0);
}

void tst_TreeAdoption::treeOfAnotherUserIsLeftAlone()
{
    QFETCH(const QByteArray, mark);
    QFETCH(const uid_t, markOwner);
    const OldTree tree(mark);
    if (!mark.isEmpty())
        giveTo(tree, markName, markOwner);
    const QStringList before = tree.writtenEntries();

    const AdoptionResult result = adopt(tree);

    QCOMPARE(result.status, Status::Foreign);
    QCOMPARE(result.message,
             QStringLiteral("the writable tree '%1' belongs to user '54321' and stays so; to give "
                            "it to 'daemon': chown -R daemon: %1")
                 .arg(tree.writePath()));
    QCOMPARE(tree.writtenEntries(), before);
    for (const char* name : { "", "/audio", "/audio/volume", "/.tulo-cm.lock" })
        QCOMPARE(ownerOf(tree, QLatin1String(name)), oldOwner);
    if (!mark.isEmpty())
        QCOMPARE(tree.readWritten(markName), mark);
}

void tst_TreeAdoption::linksAreNotFollowed()
{
    const OldTree tree;
    const QString outside = tree.path() + QLatin1String("/outside");
    QVERIFY(QDir().mkpath(outside + QLatin1String("/below")));
    const QByteArray below = QFile::encodeName(outside) + "/below";
    QCOMPARE(::lchown(below.constData(), old, old), 0);
    QVERIFY(QFile::link(outside, tree.writePath() + QLatin1String("/audio/link")));
    QVERIFY(QFile::link(QFile::decodeName(below), tree.writePath() + QLatin1String("/direct")));

    QCOMPARE(adopt(tree).status, Status::Done);

    struct stat file = {};
    QCOMPARE(::stat(below.constData(), &file), 0);
    QCOMPARE(file.st_uid, old);
}

void tst_TreeAdoption::otherMountsAreNotEntered()
{
    const OldTree tree;
    const QString other = tree.path() + QLatin1String("/other");
    QVERIFY(QDir().mkpath(other + QLatin1String("/below")));
    const QByteArray from = QFile::encodeName(other);
    for (const QByteArray& name : { from, QByteArray(from + "/below") })
        QCOMPARE(::lchown(name.constData(), old, old), 0);
    tree.makeWriteDirectory(QStringLiteral("/bound"));
    const QByteArray place = encoded(tree, QStringLiteral("/bound"));
    // Of the same file system.
    if (::mount(from.constData(), place.constData(), nullptr, MS_BIND, nullptr) != 0)
        QSKIP("needs the right to mount");

    const AdoptionResult result = adopt(tree);

    const QByteArray bound = ownerOf(tree, QStringLiteral("/bound"));
    const QByteArray below = ownerOf(tree, QStringLiteral("/bound/below"));
    QCOMPARE(::umount2(place.constData(), MNT_DETACH), 0);
    QCOMPARE(result.status, Status::Done);
    QCOMPARE(bound, oldOwner);
    QCOMPARE(below, oldOwner);
}

// Files have other device numbers than their directories there.
void tst_TreeAdoption::filesOnAnOverlayFollowTheUser()
{
    const OldTree tree;
    const TemporaryTree upper;
    const SmallDisk disk(upper.writePath());
    upper.makeWriteDirectory(QStringLiteral("/upper"));
    upper.makeWriteDirectory(QStringLiteral("/work"));
    giveTo(upper, QStringLiteral("/upper"), old);
    const QByteArray place = encoded(tree, QString());
    const QByteArray layers = "lowerdir=" + place
        + ",upperdir=" + encoded(upper, QStringLiteral("/upper"))
        + ",workdir=" + encoded(upper, QStringLiteral("/work"));
    if (!disk.isMounted()
        || ::mount("overlay", place.constData(), "overlay", 0, layers.constData()) != 0)
        QSKIP("needs the right to mount");

    const AdoptionResult result = adopt(tree);

    QList<QByteArray> owners;
    for (const char* name : { "", "/audio", "/audio/volume", "/.tulo-cm.lock" })
        owners.append(ownerOf(tree, QLatin1String(name)));
    QCOMPARE(::umount2(place.constData(), MNT_DETACH), 0);
    QCOMPARE(result.status, Status::Done);
    QCOMPARE(owners, QList<QByteArray>({ ownOwner, ownOwner, ownOwner, ownOwner }));
}

// The one with the new number, or the one before, which comes back.
void tst_TreeAdoption::whatAnInterruptionLeftIsDoneByEitherImage()
{
    for (const uid_t top : { old, older, own }) {
        const OldTree tree("daemon 54321:54321 54322:54322\n");
        giveTo(tree, QStringLiteral("/audio/volume"), older);
        giveTo(tree, QString(), top);

        QCOMPARE(adopt(tree).status, Status::Done);

        for (const char* name : { "", "/audio", "/audio/volume", "/.tulo-cm.lock" })
            QCOMPARE(ownerOf(tree, QLatin1String(name)), ownOwner);
        QCOMPARE(tree.readWritten(markName), QByteArray("daemon 1:1\n"));
    }
}

void tst_TreeAdoption::treeThatIsNotThereIsNothing()
{
    const TemporaryTree tree;

    const AdoptionResult absent = adoptTree(tree.path() + QLatin1String("/absent"), user);
    const AdoptionResult noUser = adoptTree(tree.writePath(), QStringLiteral("no such user"));
    const AdoptionResult root = adoptTree(tree.writePath(), QStringLiteral("root"));

    QCOMPARE(absent.status, Status::Done);
    QCOMPARE(absent.message, QString());
    QCOMPARE(noUser.status, Status::Failed);
    QCOMPARE(noUser.message,
             QStringLiteral("the owner of the writable tree '%1' cannot be corrected: 'no such "
                            "user' is not a user who can own it")
                 .arg(tree.writePath()));
    QCOMPARE(root.status, Status::Failed);
    QCOMPARE(tree.writtenEntries(), QStringList());
}

// The mark that another user would make is not believed later.
void tst_TreeAdoption::onlyRootAdopts()
{
    const TemporaryTree tree;
    giveTo(tree, QString(), own);

    const ChildResult child = ChildProcess::runInChild([&tree] {
        QCOMPARE(::seteuid(own), 0);
        const AdoptionResult result = adopt(tree);
        QCOMPARE(result.message,
                 QStringLiteral("the owner of the writable tree '%1' cannot be corrected: only "
                                "root can do that")
                     .arg(tree.writePath()));
        QCOMPARE(result.status, Status::Failed);
    });

    QVERIFY2(child.exitCode == 0, child.standardOutput);
    QCOMPARE(tree.writtenEntries(), QStringList());
}

void tst_TreeAdoption::treeInUseIsLeftAlone()
{
    const OldTree tree;
    const int held = ::open(encoded(tree, QString()).constData(), O_RDONLY | O_DIRECTORY);
    QCOMPARE(::flock(held, LOCK_EX), 0);

    const AdoptionResult result = adopt(tree);

    ::close(held);
    QCOMPARE(result.status, Status::Failed);
    QCOMPARE(result.message,
             QStringLiteral("the owner of the writable tree '%1' cannot be corrected: another "
                            "process is using it")
                 .arg(tree.writePath()));
    QCOMPARE(ownerOf(tree, QStringLiteral("/audio/volume")), oldOwner);
}

void tst_TreeAdoption::fullDiskHindersNothing()
{
    const TemporaryTree tree;
    const SmallDisk disk(tree.writePath());
    if (!disk.isMounted())
        QSKIP("needs the right to mount");
    tree.writeWritten(QStringLiteral("/volume"), "{}");
    tree.writeWritten(markName, "daemon 54321:54321\n");
    giveTo(tree, QStringLiteral("/volume"), old);
    giveTo(tree, QString(), old);
    QVERIFY(disk.fill());

    const AdoptionResult result = adopt(tree);

    QCOMPARE(result.status, Status::Done);
    QVERIFY2(result.message.endsWith(
                 QLatin1String("; cannot write '.tulo-cm.owner': No space left on device")),
             qPrintable(result.message));
    QCOMPARE(ownerOf(tree, QString()), ownOwner);
    QCOMPARE(ownerOf(tree, QStringLiteral("/volume")), ownOwner);
    // And once there is room.
    QVERIFY(disk.makeRoom());
    QCOMPARE(adopt(tree).status, Status::Done);
    QCOMPARE(tree.readWritten(markName), QByteArray("daemon 1:1\n"));
}

void tst_TreeAdoption::treeThatMayNotBeChangedIsTold()
{
    const OldTree tree;
    auto place = std::make_unique<ReadOnlyPlace>(tree.writePath());
    if (!place->isReadOnly())
        QSKIP("needs the right to mount");

    const AdoptionResult result = adopt(tree);

    place.reset();
    QCOMPARE(result.status, Status::Failed);
    QCOMPARE(result.message,
             QStringLiteral("the owner of the writable tree '%1' cannot be corrected: cannot write "
                            "'.tulo-cm.owner': Read-only file system")
                 .arg(tree.writePath()));
    QCOMPARE(ownerOf(tree, QString()), oldOwner);

    // Where there is nothing to correct, there is nothing to tell.
    giveTo(tree, QString(), own);
    QVERIFY(QFile::remove(tree.writePath() + markName));
    place = std::make_unique<ReadOnlyPlace>(tree.writePath());
    QVERIFY(place->isReadOnly());
    const AdoptionResult owned = adopt(tree);
    place.reset();
    QCOMPARE(owned.message, QString());
    QCOMPARE(owned.status, Status::Done);
}

void tst_TreeAdoption::threadKeepsTheRightToChangeOwnersOnly()
{
    const TemporaryTree tree;
    const QByteArray name = encoded(tree, QString());
    const ChildResult child = ChildProcess::runInChild([&name] {
        QCOMPARE(keepRightToChangeOwners(), QString());
        QCOMPARE(::lchown(name.constData(), old, old), 0);
        QCOMPARE(::mount("tmpfs", name.constData(), "tmpfs", 0, nullptr), -1);
        const QByteArray text = readFile(QStringLiteral("/proc/thread-self/status"));
        // CAP_CHOWN, CAP_DAC_OVERRIDE and CAP_FOWNER.
        QVERIFY2(text.contains("\nCapPrm:\t000000000000000b\nCapEff:\t000000000000000b\n"), text);
        QVERIFY2(text.contains("\nNoNewPrivs:\t1\n"), text);
    });
    QVERIFY2(child.exitCode == 0, child.standardOutput);
}

QTEST_GUILESS_MAIN(tst_TreeAdoption)
#include "tst_treeadoption.moc"
