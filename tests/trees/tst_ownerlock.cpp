#include "trees/ownerlock.h"
#include "trees/treeowner.h"

#include "tests/support/childprocess.h"
#include "tests/support/temporarytree.h"

#include <QFile>
#include <QTest>

#include <csignal>
#include <cstdio>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace tulo;

Q_DECLARE_METATYPE(OwnerLock::Status)

namespace {

constexpr uid_t nobody = 65534;
const QString holdOption = QStringLiteral("--hold");

// What this program is when it is started as the other process: owns the tree until its input
// ends.
int holdTree(const QString& writePath)
{
    OwnerLock lock;
    if (lock.acquire(writePath) != OwnerLock::Status::Owned) {
        std::fprintf(stderr, "%s\n", qPrintable(lock.message()));
        return 1;
    }
    std::puts("owned");
    std::fflush(stdout);
    while (std::getchar() != EOF) { }
    return 0;
}

/// Another process that owns a tree.
class Holder : public ChildProcess
{
public:
    explicit Holder(const QString& writePath)
        : ChildProcess(QCoreApplication::applicationFilePath(), { holdOption, writePath })
    {
    }

    bool hold() { return start() && waitForOutput("owned"); }
};

QByteArray lockName(const TemporaryTree& tree)
{
    return QFile::encodeName(OwnerLock::fileName(tree.writePath()));
}

void writeLockFile(const TemporaryTree& tree, const QByteArray& content)
{
    tree.writeWritten(QStringLiteral("/.tulo-cm.lock"), content);
}

QByteArray readLockFile(const TemporaryTree& tree)
{
    return tree.readWritten(QStringLiteral("/.tulo-cm.lock"));
}

struct stat statOf(const QByteArray& fileName)
{
    struct stat file = {};
    if (::lstat(fileName.constData(), &file) != 0)
        qFatal("cannot examine %s", fileName.constData());
    return file;
}

} // namespace

class tst_ownerlock : public QObject
{
    Q_OBJECT

private slots:
    void freeTreeIsTaken();
    void secondLockOfTheSameProcessIsRefused();
    void secondProcessIsRefusedWithTheHoldersProcessId();
    void holderThatHasNotSaidIsAnotherProcess();
    void treeIsFreeAfterRelease();
    void treeIsFreeAfterDestruction();
    void treeOfAKilledProcessIsTakenOver();
    void staleFileIsTakenOver();
    void childProcessDoesNotInheritTheLock();
    void askingDisturbsNobody();
    void ownedTreeIsInPlace();
    void removedLockFileIsNoticedAndLetsNoSecondOwnerIn();
    void replacedLockFileIsNoticed();
    void treeThatWasRenamedAndMadeAnewIsNoticed();
    void treeThatHasGoneIsNoticed();
    void directoryLockedByAnotherProgramIsInUse();
    void missingFileMeansNoHolder();

    void fileOfTheWrongSortIsRefused_data();
    void fileOfTheWrongSortIsRefused();
    void linkedFileKeepsItsContent();
    void missingTreeIsToldWithTheReason();
    void fileIsForItsOwnerOnly();
    void otherUserCannotHoldTheLockFirst();
    void fileOfAnotherUserIsRefused();
    void rootIsRefusedATreeOfAnotherUser();
    void rootBecomesTheOwner_data();
    void rootBecomesTheOwner();
    void othersStayWhoTheyAre();
};

void tst_ownerlock::freeTreeIsTaken()
{
    const TemporaryTree tree;
    OwnerLock lock;

    const OwnerLock::Status status = lock.acquire(tree.writePath());

    QCOMPARE(status, OwnerLock::Status::Owned);
    QVERIFY(lock.isOwned());
    QCOMPARE(lock.message(), QString());
    QCOMPARE(tree.writtenEntries(), QStringList(QStringLiteral("/.tulo-cm.lock")));
    QCOMPARE(readLockFile(tree), QByteArray::number(qint64(::getpid())) + '\n');
    QCOMPARE(OwnerLock::holderOf(tree.writePath()), std::optional<qint64>(::getpid()));
}

void tst_ownerlock::secondLockOfTheSameProcessIsRefused()
{
    const TemporaryTree tree;
    OwnerLock first;
    QCOMPARE(first.acquire(tree.writePath()), OwnerLock::Status::Owned);
    OwnerLock second;

    QCOMPARE(second.acquire(tree.writePath()), OwnerLock::Status::InUse);

    QVERIFY(!second.isOwned());
    QCOMPARE(second.holder(), qint64(::getpid()));
    QVERIFY(first.isOwned());
}

void tst_ownerlock::secondProcessIsRefusedWithTheHoldersProcessId()
{
    const TemporaryTree tree;
    Holder holder(tree.writePath());
    QVERIFY(holder.hold());
    OwnerLock lock;

    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::InUse);

    QCOMPARE(lock.holder(), holder.processId());
    QCOMPARE(lock.message(),
             QStringLiteral("The writable tree '%1' is in use by process %2")
                 .arg(tree.writePath(), QString::number(holder.processId())));
    QCOMPARE(OwnerLock::holderOf(tree.writePath()), std::optional<qint64>(holder.processId()));
    holder.closeInput();
    QCOMPARE(holder.finish().exitCode, 0);
}

void tst_ownerlock::holderThatHasNotSaidIsAnotherProcess()
{
    const TemporaryTree tree;
    Holder holder(tree.writePath());
    QVERIFY(holder.hold());
    QCOMPARE(::truncate(lockName(tree).constData(), 0), 0);
    OwnerLock lock;

    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::InUse);

    QCOMPARE(lock.holder(), 0);
    QCOMPARE(lock.message(),
             QStringLiteral("The writable tree '%1' is in use by another process")
                 .arg(tree.writePath()));
    QCOMPARE(OwnerLock::holderOf(tree.writePath()), std::optional<qint64>(0));
}

void tst_ownerlock::treeIsFreeAfterRelease()
{
    const TemporaryTree tree;
    OwnerLock first;
    QCOMPARE(first.acquire(tree.writePath()), OwnerLock::Status::Owned);

    first.release();

    QVERIFY(!first.isOwned());
    QCOMPARE(readLockFile(tree), QByteArray(""));
    QCOMPARE(OwnerLock::holderOf(tree.writePath()), std::nullopt);
    OwnerLock second;
    QCOMPARE(second.acquire(tree.writePath()), OwnerLock::Status::Owned);
}

void tst_ownerlock::treeIsFreeAfterDestruction()
{
    const TemporaryTree tree;
    {
        OwnerLock first;
        QCOMPARE(first.acquire(tree.writePath()), OwnerLock::Status::Owned);
    }
    OwnerLock second;

    QCOMPARE(second.acquire(tree.writePath()), OwnerLock::Status::Owned);
}

void tst_ownerlock::treeOfAKilledProcessIsTakenOver()
{
    const TemporaryTree tree;
    Holder holder(tree.writePath());
    QVERIFY(holder.hold());

    holder.sendSignal(SIGKILL);
    QCOMPARE(holder.finish().signal, SIGKILL);

    QCOMPARE(OwnerLock::holderOf(tree.writePath()), std::nullopt);
    OwnerLock lock;
    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Owned);
}

void tst_ownerlock::staleFileIsTakenOver()
{
    const TemporaryTree tree;
    writeLockFile(tree, "123456789\n");
    OwnerLock lock;

    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Owned);

    QCOMPARE(readLockFile(tree), QByteArray::number(qint64(::getpid())) + '\n');
}

void tst_ownerlock::childProcessDoesNotInheritTheLock()
{
    const TemporaryTree tree;
    OwnerLock lock;
    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Owned);
    ChildProcess child(QStringLiteral("cat"));
    QVERIFY(child.start());

    lock.release();

    QVERIFY(child.isRunning());
    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Owned);
}

void tst_ownerlock::askingDisturbsNobody()
{
    const TemporaryTree tree;
    OwnerLock lock;
    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Owned);

    // Closing one of its files must not cost the process its lock.
    QVERIFY(OwnerLock::holderOf(tree.writePath()).has_value());

    Holder other(tree.writePath());
    QVERIFY(other.start());
    const ChildResult result = other.finish();
    QCOMPARE(result.exitCode, 1);
}

void tst_ownerlock::ownedTreeIsInPlace()
{
    const TemporaryTree tree;
    OwnerLock lock;
    QCOMPARE(lock.displacement(), QString());
    QCOMPARE(lock.directory(), -1);

    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Owned);

    QCOMPARE(lock.displacement(), QString());
    struct stat held = {};
    QCOMPARE(::fstat(lock.directory(), &held), 0);
    const struct stat named = statOf(QFile::encodeName(tree.writePath()));
    QCOMPARE(held.st_ino, named.st_ino);
    QCOMPARE(held.st_dev, named.st_dev);
    lock.release();
    QCOMPARE(lock.displacement(), QString());
    QCOMPARE(lock.directory(), -1);
}

void tst_ownerlock::removedLockFileIsNoticedAndLetsNoSecondOwnerIn()
{
    const TemporaryTree tree;
    OwnerLock first;
    QCOMPARE(first.acquire(tree.writePath()), OwnerLock::Status::Owned);

    QCOMPARE(::unlink(lockName(tree).constData()), 0);

    const QString removed = QStringLiteral("Lock file '%1' has been removed or replaced")
                                .arg(OwnerLock::fileName(tree.writePath()));
    QCOMPARE(first.displacement(), removed);
    OwnerLock second;
    QCOMPARE(second.acquire(tree.writePath()), OwnerLock::Status::InUse);
    QCOMPARE(second.holder(), 0);
    QCOMPARE(second.message(),
             QStringLiteral("The writable tree '%1' is in use by another process")
                 .arg(tree.writePath()));
    Holder other(tree.writePath());
    QVERIFY(other.start());
    QCOMPARE(other.finish().exitCode, 1);
    // The attempts left a new file, which is not the one that is locked.
    QCOMPARE(first.displacement(), removed);
    first.release();
    QCOMPARE(second.acquire(tree.writePath()), OwnerLock::Status::Owned);
    QCOMPARE(second.displacement(), QString());
}

void tst_ownerlock::replacedLockFileIsNoticed()
{
    const TemporaryTree tree;
    OwnerLock lock;
    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Owned);

    writeLockFile(tree, readLockFile(tree));
    QCOMPARE(lock.displacement(), QString());
    tree.writeWritten(QStringLiteral("/.other"), readLockFile(tree));
    const QByteArray other = QFile::encodeName(tree.writePath()) + "/.other";
    QCOMPARE(::rename(other.constData(), lockName(tree).constData()), 0);

    QVERIFY(lock.displacement().startsWith(QStringLiteral("Lock file ")));
}

void tst_ownerlock::treeThatWasRenamedAndMadeAnewIsNoticed()
{
    const TemporaryTree tree;
    OwnerLock first;
    QCOMPARE(first.acquire(tree.writePath()), OwnerLock::Status::Owned);
    const QByteArray name = QFile::encodeName(tree.writePath());

    QCOMPARE(::rename(name.constData(), (name + ".old").constData()), 0);
    QCOMPARE(::mkdir(name.constData(), 0700), 0);

    OwnerLock second;
    QCOMPARE(second.acquire(tree.writePath()), OwnerLock::Status::Owned);
    QCOMPARE(first.displacement(),
             QStringLiteral("The writable tree '%1' has been replaced").arg(tree.writePath()));
    QCOMPARE(second.displacement(), QString());
}

void tst_ownerlock::treeThatHasGoneIsNoticed()
{
    const TemporaryTree tree;
    OwnerLock lock;
    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Owned);
    const QByteArray name = QFile::encodeName(tree.writePath());

    QCOMPARE(::rename(name.constData(), (name + ".old").constData()), 0);

    QCOMPARE(lock.displacement(),
             QStringLiteral("The writable tree '%1' cannot be examined: No such file or directory")
                 .arg(tree.writePath()));
}

void tst_ownerlock::directoryLockedByAnotherProgramIsInUse()
{
    const TemporaryTree tree;
    const int directory =
        ::open(QFile::encodeName(tree.writePath()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    QCOMPARE(::flock(directory, LOCK_SH), 0);
    OwnerLock lock;

    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::InUse);

    QVERIFY(!lock.isOwned());
    QCOMPARE(lock.directory(), -1);
    QCOMPARE(::close(directory), 0);
    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Owned);
}

void tst_ownerlock::missingFileMeansNoHolder()
{
    const TemporaryTree tree;

    QCOMPARE(OwnerLock::holderOf(tree.writePath()), std::nullopt);

    QCOMPARE(tree.writtenEntries(), QStringList());
}

void tst_ownerlock::fileOfTheWrongSortIsRefused_data()
{
    QTest::addColumn<QString>("sort");
    QTest::addColumn<QString>("reason");
    QTest::newRow("link to a file")
        << QStringLiteral("link") << QStringLiteral("is a symbolic link");
    QTest::newRow("link to nothing")
        << QStringLiteral("dangling link") << QStringLiteral("is a symbolic link");
    QTest::newRow("pipe") << QStringLiteral("pipe") << QStringLiteral("is not a regular file");
    QTest::newRow("directory") << QStringLiteral("directory")
                               << QStringLiteral("cannot be opened: Is a directory");
    QTest::newRow("second name") << QStringLiteral("second name")
                                 << QStringLiteral("has more than one name");
}

void tst_ownerlock::fileOfTheWrongSortIsRefused()
{
    QFETCH(QString, sort);
    QFETCH(QString, reason);
    const TemporaryTree tree;
    const QByteArray name = lockName(tree);
    tree.writeWritten(QStringLiteral("/other"), "{}");
    const QByteArray other = QFile::encodeName(tree.writePath()) + "/other";
    if (sort == QStringLiteral("link"))
        QCOMPARE(::symlink(other.constData(), name.constData()), 0);
    else if (sort == QStringLiteral("dangling link"))
        QCOMPARE(::symlink("/no/such/file", name.constData()), 0);
    else if (sort == QStringLiteral("pipe"))
        QCOMPARE(::mkfifo(name.constData(), 0600), 0);
    else if (sort == QStringLiteral("directory"))
        QCOMPARE(::mkdir(name.constData(), 0700), 0);
    else
        QCOMPARE(::link(other.constData(), name.constData()), 0);
    OwnerLock lock;

    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Failed);

    QVERIFY(!lock.isOwned());
    QCOMPARE(
        lock.message(),
        QStringLiteral("Lock file '%1' %2").arg(OwnerLock::fileName(tree.writePath()), reason));
    QCOMPARE(OwnerLock::holderOf(tree.writePath()), std::nullopt);
}

void tst_ownerlock::linkedFileKeepsItsContent()
{
    const TemporaryTree tree;
    tree.writeWritten(QStringLiteral("/other"), "{}");
    const QByteArray other = QFile::encodeName(tree.writePath()) + "/other";
    QCOMPARE(::link(other.constData(), lockName(tree).constData()), 0);
    const mode_t mode = statOf(other).st_mode;
    OwnerLock lock;

    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Failed);

    QCOMPARE(tree.readWritten(QStringLiteral("/other")), QByteArray("{}"));
    QCOMPARE(statOf(other).st_mode, mode);
}

void tst_ownerlock::missingTreeIsToldWithTheReason()
{
    OwnerLock lock;

    QCOMPARE(lock.acquire(QStringLiteral("/no/such/tree")), OwnerLock::Status::Failed);

    QCOMPARE(lock.message(),
             QStringLiteral("Directory '/no/such/tree' cannot be opened: No such file or "
                            "directory"));
}

void tst_ownerlock::fileIsForItsOwnerOnly()
{
    const TemporaryTree tree;
    writeLockFile(tree, "1\n");
    QCOMPARE(::chmod(lockName(tree).constData(), 0666), 0);
    OwnerLock lock;

    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Owned);

    QCOMPARE(statOf(lockName(tree)).st_mode, mode_t(S_IFREG | 0600));
}

void tst_ownerlock::otherUserCannotHoldTheLockFirst()
{
    if (::geteuid() != 0)
        QSKIP("needs root to become another user");
    const TemporaryTree tree;
    {
        OwnerLock lock;
        QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Owned);
    }
    const QString writePath = tree.writePath();

    // The child runs this function again on another tree, so it checks everything itself.
    const ChildResult child = ChildProcess::runInChild(
        [&tree] {
            OwnerLock lock;
            QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Failed);
            QVERIFY(lock.message().endsWith(QStringLiteral("cannot be opened: Permission denied")));
            QCOMPARE(::open(lockName(tree).constData(), O_RDONLY), -1);
            QCOMPARE(OwnerLock::holderOf(tree.writePath()), std::nullopt);
        },
        ChildProcess::User::Nobody);

    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
    OwnerLock lock;
    QCOMPARE(lock.acquire(writePath), OwnerLock::Status::Owned);
}

void tst_ownerlock::fileOfAnotherUserIsRefused()
{
    if (::geteuid() != 0)
        QSKIP("needs root to give a file away");
    const TemporaryTree tree;
    writeLockFile(tree, "");
    QCOMPARE(::chown(lockName(tree).constData(), nobody, nobody), 0);
    OwnerLock lock;

    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Failed);

    QCOMPARE(lock.message(),
             QStringLiteral("Lock file '%1' belongs to another user (65534)")
                 .arg(OwnerLock::fileName(tree.writePath())));
}

void tst_ownerlock::rootIsRefusedATreeOfAnotherUser()
{
    if (::geteuid() != 0)
        QSKIP("needs root to give a tree away");
    const TemporaryTree tree;
    QCOMPARE(::chown(QFile::encodeName(tree.writePath()).constData(), nobody, nobody), 0);
    OwnerLock lock;

    QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Failed);

    QCOMPARE(lock.message(),
             QStringLiteral("The writable tree '%1' belongs to user 'nobody'; run as that user")
                 .arg(tree.writePath()));
    QCOMPARE(tree.writtenEntries(), QStringList());
}

void tst_ownerlock::rootBecomesTheOwner_data()
{
    QTest::addColumn<uid_t>("user");
    QTest::addColumn<gid_t>("group");
    QTest::addColumn<gid_t>("expectedGroup");
    // Those of Debian: the group of a user who has a name is the user's own.
    QTest::newRow("user with a name") << nobody << gid_t(1) << gid_t(nobody);
    QTest::newRow("user without a name") << uid_t(54321) << gid_t(54322) << gid_t(54322);
}

void tst_ownerlock::rootBecomesTheOwner()
{
    if (::geteuid() != 0)
        QSKIP("needs root to give a tree away");
    QFETCH(const uid_t, user);
    QFETCH(const gid_t, group);
    QFETCH(const gid_t, expectedGroup);
    const TemporaryTree tree;
    QCOMPARE(::chown(QFile::encodeName(tree.writePath()).constData(), user, group), 0);

    const ChildResult child = ChildProcess::runInChild([&] {
        ::umask(0777);
        QCOMPARE(becomeOwner(tree.writePath()), QString());

        QCOMPARE(::getuid(), user);
        QCOMPARE(::geteuid(), user);
        QCOMPARE(::getgid(), expectedGroup);
        QCOMPARE(::getegid(), expectedGroup);
        std::vector<gid_t> groups(size_t(::getgroups(0, nullptr)));
        QCOMPARE(::getgroups(int(groups.size()), groups.data()), int(groups.size()));
        QCOMPARE(groups, std::vector<gid_t> { expectedGroup });
        QCOMPARE(::setuid(0), -1);
        QCOMPARE(::umask(0), mode_t(0077));
        OwnerLock lock;
        QCOMPARE(lock.acquire(tree.writePath()), OwnerLock::Status::Owned);
        QCOMPARE(statOf(lockName(tree)).st_uid, user);
    });

    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

void tst_ownerlock::othersStayWhoTheyAre()
{
    const TemporaryTree tree;
    const uid_t user = ::geteuid();
    const mode_t mask = ::umask(0);
    ::umask(mask);

    QCOMPARE(becomeOwner(tree.writePath()), QString());
    QCOMPARE(becomeOwner(QStringLiteral("/no/such/tree")), QString());

    QCOMPARE(::geteuid(), user);
    QCOMPARE(::umask(mask), mask);
}

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.value(1) == holdOption)
        return holdTree(arguments.value(2));
    tst_ownerlock test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_ownerlock.moc"
