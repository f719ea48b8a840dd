// Cuts the power at every step of a save: the writable tree lies on a separate file system
// inside an image file, a copy of which is taken while a call is about to be made.
//
// The calls of the save are met by replacing them in this program, for Qt's calls as well.

#include "cm_settings.h"

#include "tests/crash/mountedimage.h"
#include "tests/support/logcapture.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include "api/core/model/tulosettingsactions.h"

#include <QCoreApplication>
#include <QFile>
#include <QTest>

#include <cstdarg>
#include <cstdio>
#include <functional>
#include <memory>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace tulo;

// -------------------------------------------------------------------------------------------
// The calls that a save is made of. Each tells the test of itself before it is made.
// -------------------------------------------------------------------------------------------

namespace {

std::function<void(const char*)> beforeCall; // NOLINT: one test program, one thread
bool fsyncDoesNothing = false; // NOLINT

void announce(const char* name)
{
    if (!beforeCall)
        return;
    // The calls of the observer do not count.
    const std::function<void(const char*)> observer = std::exchange(beforeCall, nullptr);
    observer(name);
    beforeCall = observer;
}

int result(long returned)
{
    return int(returned);
}

} // namespace

extern "C" {

int mkdir(const char* name, mode_t mode) noexcept
{
    announce("mkdir");
    return result(::syscall(SYS_mkdirat, AT_FDCWD, name, mode));
}

int open64(const char* name, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if ((flags & O_CREAT) != 0)
        announce("open");
    return result(::syscall(SYS_openat, AT_FDCWD, name, flags, mode));
}

ssize_t write(int file, const void* bytes, size_t size)
{
    if (file > STDERR_FILENO)
        announce("write");
    return ::syscall(SYS_write, file, bytes, size);
}

int fsync(int file)
{
    announce("fsync");
    return fsyncDoesNothing ? 0 : result(::syscall(SYS_fsync, file));
}

int rename(const char* from, const char* to) noexcept
{
    announce("rename");
    return result(::syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}
}

namespace {

// Nothing but the calls of a test writes to the image: the journal is committed by a sync only,
// and a rename does not bring the data along by itself.
const QString mountOptions = QStringLiteral(",noauto_da_alloc,commit=300");

const QString volume = QStringLiteral("/audio/volume");
constexpr qlonglong oldNumber = 1;
constexpr qlonglong newNumber = 2222222222;

QByteArray contentOf(qlonglong number)
{
    return QByteArrayLiteral("{\"timestamp\":") + QByteArray::number(number)
        + QByteArrayLiteral(",\"value\":{\"int\":") + QByteArray::number(number)
        + QByteArrayLiteral("}}");
}

enum class Content { Old, New, Damaged };

/// The place of a test: a mounted image with the writable tree, and a default tree.
class Disk
{
public:
    Disk()
    {
        m_tree.writeDefault(volume, QByteArrayLiteral("{\"value\":{\"int\":0}}"));
        if (makeImage(image()))
            m_mount = std::make_unique<MountedImage>(image(), directory(), mountOptions);
    }
    Q_DISABLE_COPY(Disk)

    bool isMounted() const { return m_mount && m_mount->isMounted(); }
    QString directory() const { return m_tree.path() + QLatin1String("/disk"); }

    std::unique_ptr<CMSettingsWorker> makeWorker() const
    {
        QVariantHash config = m_tree.config();
        config.insert(QStringLiteral("write_path"), directory());
        auto worker = std::make_unique<CMSettingsWorker>(config);
        delete std::exchange(worker->m_encryptionHandler, &m_handler);
        return worker;
    }

    /// Commits the journal as anybody's sync of anything does, but nothing of the settings.
    void syncSomethingElse() const
    {
        QFile other(directory() + QLatin1String("/other"));
        if (!other.open(QIODevice::WriteOnly) || other.write("x") != 1 || !other.flush()
            || ::syscall(SYS_fsync, other.handle()) != 0)
            qFatal("cannot sync another file");
    }

    /// What a start after a power cut at this moment finds.
    Content contentAfterPowerCut(bool targetExisted) const
    {
        const QString copy = m_tree.path() + QLatin1String("/copy.img");
        const QString place = m_tree.path() + QLatin1String("/copy");
        copyImage(image(), copy);
        const MountedImage mounted(copy, place, QString());
        if (!mounted.isMounted())
            qFatal("cannot mount the copy: %s", mounted.error().constData());
        QFile file(place + volume);
        if (!file.open(QIODevice::ReadOnly))
            return targetExisted || file.exists() ? Content::Damaged : Content::Old;
        const QByteArray content = file.readAll();
        if (content == contentOf(newNumber))
            return Content::New;
        return targetExisted && content == contentOf(oldNumber) ? Content::Old : Content::Damaged;
    }

private:
    QString image() const { return m_tree.path() + QLatin1String("/disk.img"); }

    const TemporaryTree m_tree;
    mutable NoOpEncryptionHandler m_handler;
    std::unique_ptr<MountedImage> m_mount;
};

void set(CMSettingsWorker* worker, qlonglong number)
{
    TuloRoles roles;
    roles.setValue(TuloValue::of(TuloValue::Int(), number));
    roles.setTimestamp(number);
    const auto reply = setData(worker, QLatin1String("/settings") + volume, TuloRoles::SetRoles(),
                               roles.__variant());
    QCOMPARE(errorText(reply), QString());
}

} // namespace

class tst_PowerCut : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init() { m_log = std::make_unique<LogCapture>(); }
    void cleanup()
    {
        beforeCall = nullptr;
        fsyncDoesNothing = false;
        m_log->verifyNothingUnexpected();
        m_log.reset();
    }

    void powerCutAtAnyStepLeavesAWholeFile_data();
    void powerCutAtAnyStepLeavesAWholeFile();
    void powerCutAfterAnAnsweredFlushLeavesTheNewFile_data();
    void powerCutAfterAnAnsweredFlushLeavesTheNewFile();
    void powerCutWithoutFsyncIsSeenToDamageANewFile();

private:
    std::unique_ptr<LogCapture> m_log;
    bool m_canMount = false;
};

void tst_PowerCut::initTestCase()
{
    const LogCapture log;
    m_canMount = ::geteuid() == 0 && Disk().isMounted();
}

void tst_PowerCut::powerCutAtAnyStepLeavesAWholeFile_data()
{
    QTest::addColumn<bool>("targetExists");
    QTest::addColumn<bool>("journalIsCommitted");
    QTest::newRow("existing target") << true << false;
    QTest::newRow("existing target, journal committed at every step") << true << true;
    QTest::newRow("new target") << false << false;
    QTest::newRow("new target, journal committed at every step") << false << true;
}

void tst_PowerCut::powerCutAtAnyStepLeavesAWholeFile()
{
    if (!m_canMount)
        QSKIP("needs root and loop devices, to mount a file system");
    QFETCH(const bool, targetExists);
    QFETCH(const bool, journalIsCommitted);
    const Disk disk;
    const auto worker = disk.makeWorker();
    if (targetExists) {
        set(worker.get(), oldNumber);
        worker->on_writeTimer_timeout();
        disk.syncSomethingElse();
    }
    QStringList calls;
    const auto cutPower = [&](const char* call) {
        calls.append(QString::fromLatin1(call));
        if (journalIsCommitted)
            disk.syncSomethingElse();
        QVERIFY2(disk.contentAfterPowerCut(targetExists) != Content::Damaged, call);
    };

    set(worker.get(), newNumber);
    beforeCall = cutPower;
    worker->on_writeTimer_timeout();
    beforeCall = nullptr;
    cutPower("after the save");

    // Directories are made, or found to be there, before all this.
    calls.removeAll(QStringLiteral("mkdir"));
    const QStringList expected { QStringLiteral("open"), QStringLiteral("write"),
                                 QStringLiteral("fsync"), QStringLiteral("rename"),
                                 QStringLiteral("after the save") };
    QCOMPARE(calls, expected);
    if (journalIsCommitted)
        QVERIFY(disk.contentAfterPowerCut(targetExists) == Content::New);
}

void tst_PowerCut::powerCutAfterAnAnsweredFlushLeavesTheNewFile_data()
{
    QTest::addColumn<bool>("targetExists");
    QTest::newRow("existing target") << true;
    QTest::newRow("new target") << false;
}

void tst_PowerCut::powerCutAfterAnAnsweredFlushLeavesTheNewFile()
{
    if (!m_canMount)
        QSKIP("needs root and loop devices, to mount a file system");
    QFETCH(const bool, targetExists);
    const Disk disk;
    const auto worker = disk.makeWorker();
    if (targetExists) {
        set(worker.get(), oldNumber);
        worker->on_writeTimer_timeout();
        disk.syncSomethingElse();
    }
    set(worker.get(), newNumber);

    const auto reply = activate(worker.get(), TuloSettingsActionsFlush());

    QVERIFY(reply.isFinished());
    QVERIFY(disk.contentAfterPowerCut(targetExists) == Content::New);
}

// Without it nobody would know whether the tests above could fail.
void tst_PowerCut::powerCutWithoutFsyncIsSeenToDamageANewFile()
{
    if (!m_canMount)
        QSKIP("needs root and loop devices, to mount a file system");
    const Disk disk;
    const auto worker = disk.makeWorker();
    set(worker.get(), newNumber);

    fsyncDoesNothing = true;
    worker->on_writeTimer_timeout();
    disk.syncSomethingElse();

    QVERIFY(disk.contentAfterPowerCut(false) == Content::Damaged);
}

QTEST_GUILESS_MAIN(tst_PowerCut)
#include "tst_power_cut.moc"
