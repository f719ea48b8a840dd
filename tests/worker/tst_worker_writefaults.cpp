#include "changefixture.h"

#include "api/core/model/tulosettingsactions.h"
#include "api/core/tuloprocesshandler.h"

#include <QTest>

#include <QDirIterator>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <limits>
#include <vector>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

// ---------------------------------------------------------------------------------------------
// Faulty system calls. The functions below stand in for the C library's, for the worker (linked
// into this program) and for Qt alike. While faults are armed, a call on a file of the watched
// tree is counted and may fail; every other call does what it always does.
// ---------------------------------------------------------------------------------------------

namespace {

enum Call { Mkdir, Open, Write, Fsync, Rename, Unlink, CallCount };

using FileName = std::array<char, 4096>;

/// Without constructors: libraries make system calls before this program's run.
struct Faults
{
    FileName tree {}; ///< empty: not armed
    Call call = CallCount;
    int first = 0; ///< the number, from 1, of the call that fails
    bool persistent = false; ///< all calls after it fail, too
    int error = EIO;
    std::array<int, CallCount> counts {};
    bool shortWrites = false; ///< each write takes half
    bool notWritable = false; ///< QIODevice::isWritable() says no
};

bool isBelow(const char* name, const FileName& tree)
{
    const std::size_t length = std::strlen(tree.data());
    return length != 0 && std::strncmp(name, tree.data(), length) == 0;
}

bool isBelow(int file, const FileName& tree)
{
    if (tree.front() == '\0')
        return false;
    FileName name {};
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(file);
    return ::readlink(link.constData(), name.data(), name.size() - 1) > 0
        && isBelow(name.data(), tree);
}

} // namespace

static Faults faults; // NOLINT: armed by one test at a time

static bool fails(Call call)
{
    const int count = ++faults.counts.at(call);
    if (call != faults.call || count < faults.first || (count > faults.first && !faults.persistent))
        return false;
    errno = faults.error;
    return true;
}

// As the C library declares them; the names are given to the linker only.
extern "C" {
int faultyMkdir(const char* name, mode_t mode) asm("mkdir");
int faultyOpen(const char* name, int flags, ...) asm("open64");
ssize_t faultyWrite(int file, const void* bytes, size_t size) asm("write");
int faultyFsync(int file) asm("fsync");
int faultyRename(const char* from, const char* to) asm("rename");
int faultyUnlink(const char* name) asm("unlink");
}

int faultyMkdir(const char* name, mode_t mode)
{
    if (isBelow(name, faults.tree) && fails(Mkdir))
        return -1;
    return int(::syscall(SYS_mkdirat, AT_FDCWD, name, mode));
}

int faultyOpen(const char* name, int flags, ...)
{
    if (isBelow(name, faults.tree) && fails(Open))
        return -1;
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return int(::syscall(SYS_openat, AT_FDCWD, name, flags, mode));
}

ssize_t faultyWrite(int file, const void* bytes, size_t size)
{
    if (isBelow(file, faults.tree)) {
        if (fails(Write))
            return -1;
        if (faults.shortWrites && size > 1)
            size /= 2;
    }
    return ::syscall(SYS_write, file, bytes, size);
}

int faultyFsync(int file)
{
    if (isBelow(file, faults.tree) && fails(Fsync))
        return -1;
    return int(::syscall(SYS_fsync, file));
}

int faultyRename(const char* from, const char* to)
{
    if (isBelow(from, faults.tree) && fails(Rename))
        return -1;
    return int(::syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

int faultyUnlink(const char* name)
{
    if (isBelow(name, faults.tree) && fails(Unlink))
        return -1;
    return int(::syscall(SYS_unlinkat, AT_FDCWD, name, 0));
}

// No file that opens for writing ever says that it is not writable, so this one is replaced.
bool realIsWritable(const QIODevice* device) asm("__real__ZNK9QIODevice10isWritableEv");
bool wrappedIsWritable(const QIODevice* device) asm("__wrap__ZNK9QIODevice10isWritableEv");

bool wrappedIsWritable(const QIODevice* device)
{
    return !faults.notWritable && realIsWritable(device);
}

// A flush shall not wait for the machine's disks in each of a hundred turns.
TuloProcessResult wrappedStart(const QString&, const QStringList&, int) asm(
    "__wrap__ZN18TuloProcessHandler9startSyncERK7QStringRK11QStringListi");

TuloProcessResult wrappedStart(const QString&, const QStringList&, int)
{
    return TuloProcessResult();
}

// ---------------------------------------------------------------------------------------------

namespace {

/// A small file system of its own on a folder, while the object lives.
class SmallFileSystem
{
public:
    explicit SmallFileSystem(const QString& directory)
        : m_directory(QFile::encodeName(directory))
        , m_isMounted(::mount("tmpfs", m_directory, "tmpfs", 0, "size=64k") == 0)
    {
    }
    ~SmallFileSystem()
    {
        if (m_isMounted)
            ::umount2(m_directory, MNT_DETACH);
    }

    bool isMounted() const { return m_isMounted; }

private:
    Q_DISABLE_COPY(SmallFileSystem)

    const QByteArray m_directory;
    const bool m_isMounted;
};

} // namespace

class tst_WorkerWriteFaults : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void fileAsParentDirectory();
    void failedParentDirectoryLeavesAStaleTemporaryFile();
    void directoryInTheTemporarysPlace_data();
    void directoryInTheTemporarysPlace();
    void fileThatIsNotWriteable();
    void rolesThatCannotBeSerialised_data();
    void rolesThatCannotBeSerialised();
    void fullDevice_data();
    void fullDevice();
    void fullFileSystem_data();
    void fullFileSystem();
    void deviceThatCannotBeSynced();
    void failedFsync();
    void directoryAsTarget();
    void failedRename();
    void failedCleanUpIsIgnored();
    void shortSystemWritesAreContinued();
    void everyCallFailingInTurn_data();
    void everyCallFailingInTurn();

private:
    /// Every file, folder and link of the writable tree with its content.
    QStringList snapshot() const;
    void arm(Call call, int first, bool persistent) const;
    static void disarm();
    static int openFiles();
    /// Writes `roles` as "/audio/volume" and checks that this fails as `record` says, in which
    /// "TEMP" and "TARGET" stand for the two files, and leaves the tree as it is told.
    void writeFails(const QVariantHash& roles, const QString& record,
                    const QStringList& left) const;
    void writeFails(const QString& record) const;

    std::unique_ptr<ChangeFixture> m_fixture;
};

void tst_WorkerWriteFaults::init()
{
    faults = Faults();
    m_fixture = std::make_unique<ChangeFixture>();
}

void tst_WorkerWriteFaults::cleanup()
{
    faults = Faults();
    m_fixture->log.verifyNothingUnexpected();
    m_fixture.reset();
}

QStringList tst_WorkerWriteFaults::snapshot() const
{
    QStringList state;
    const QStringList entries = m_fixture->tree.writtenEntries();
    for (const QString& entry : entries) {
        const QString name = m_fixture->fileName(entry);
        const QString link = QFile::symLinkTarget(name);
        state.append(entry + " "_s
                     + (link.isEmpty() ? QString::fromUtf8(m_fixture->tree.readWritten(entry))
                                       : "-> "_s + link));
    }
    return state;
}

void tst_WorkerWriteFaults::arm(Call call, int first, bool persistent) const
{
    faults = Faults();
    faults.call = call;
    faults.first = first;
    faults.persistent = persistent;
    qstrncpy(faults.tree.data(), QFile::encodeName(m_fixture->tree.writePath()).constData(),
             uint(faults.tree.size()));
}

void tst_WorkerWriteFaults::disarm()
{
    faults.tree.fill('\0');
}

int tst_WorkerWriteFaults::openFiles()
{
    int count = 0;
    QDirIterator iterator("/proc/self/fd"_s, QDir::AllEntries | QDir::System);
    for (; iterator.hasNext(); iterator.next())
        ++count;
    return count;
}

void tst_WorkerWriteFaults::writeFails(const QVariantHash& roles, const QString& record,
                                       const QStringList& left) const
{
    const QString target = m_fixture->fileName("/audio/volume"_s);
    const int openBefore = openFiles();

    m_fixture->worker->on_scheduleWrite(target, TuloRoles(TuloHash(roles)));
    m_fixture->worker->on_writeTimer_timeout();

    disarm();
    QCOMPARE(snapshot(), left);
    QCOMPARE(openFiles(), openBefore);
    QVERIFY(m_fixture->worker->m_pendingWrites.isEmpty());
    QString expected = record;
    expected.replace("TARGET"_s, target).replace("TEMP"_s, m_fixture->fileName("/audio/.volume"_s));
    QCOMPARE(m_fixture->log.messages(log4cplus::ERROR_LOG_LEVEL), QStringList { expected });
    QCOMPARE(m_fixture->log.take().size(), 1);
}

void tst_WorkerWriteFaults::writeFails(const QString& record) const
{
    writeFails({ { TuloRoles::Timestamp(), 12 } }, record, snapshot());
}

void tst_WorkerWriteFaults::fileAsParentDirectory()
{
    m_fixture->tree.writeWritten("/audio"_s, "no directory");

    writeFails("Settings: path 'TARGET' could not create parent directory"_s);
}

// The one failure that comes before the temporary file is made, so that there is none to remove.
void tst_WorkerWriteFaults::failedParentDirectoryLeavesAStaleTemporaryFile()
{
    m_fixture->tree.writeWritten("/audio/volume"_s, "old");
    m_fixture->tree.writeWritten("/audio/.volume"_s, "stale");
    arm(Mkdir, 1, true);

    writeFails("Settings: path 'TARGET' could not create parent directory"_s);
}

void tst_WorkerWriteFaults::directoryInTheTemporarysPlace_data()
{
    QTest::addColumn<QString>("inside");

    QTest::newRow("empty") << QString();
    QTest::newRow("with a file") << "/audio/.volume/inside"_s;
}

void tst_WorkerWriteFaults::directoryInTheTemporarysPlace()
{
    QFETCH(QString, inside);
    m_fixture->tree.writeWritten("/audio/volume"_s, "old");
    m_fixture->tree.makeWriteDirectory("/audio/.volume"_s);
    if (!inside.isEmpty())
        m_fixture->tree.writeWritten(inside, "kept");

    writeFails("Settings: path 'TEMP' open file failed"_s);
}

void tst_WorkerWriteFaults::fileThatIsNotWriteable()
{
    m_fixture->tree.writeWritten("/audio/volume"_s, "old");
    faults.notWritable = true;

    writeFails("Settings: path 'TEMP' file is not writeable"_s);
}

void tst_WorkerWriteFaults::rolesThatCannotBeSerialised_data()
{
    QTest::addColumn<QVariant>("role");

    QTest::newRow("not a number") << QVariant(std::numeric_limits<double>::quiet_NaN());
    QTest::newRow("infinite") << QVariant(std::numeric_limits<double>::infinity());
    QTest::newRow("bytes") << QVariant(QByteArray("bytes"));
    QTest::newRow("deep inside") << QVariant(
        QVariantList { QVariantHash { { "x"_s, QSize(1, 2) } } });
}

void tst_WorkerWriteFaults::rolesThatCannotBeSerialised()
{
    QFETCH(QVariant, role);
    m_fixture->tree.writeWritten("/audio/volume"_s, "old");

    writeFails({ { "colour"_s, role } },
               "Settings: path 'TEMP' could not serialize variant value"_s, snapshot());
}

void tst_WorkerWriteFaults::fullDevice_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QString>("record");

    // What the file buffers shows when it is flushed, what is larger at once.
    QTest::newRow("small") << 10 << "Settings: path 'TEMP' flush failed"_s;
    QTest::newRow("just within the buffer") << 16384 - 9 << "Settings: path 'TEMP' flush failed"_s;
    QTest::newRow("beyond the buffer")
        << 16384 - 8 << "Settings: path 'TEMP' write to file failed"_s;
    QTest::newRow("large") << 200000 << "Settings: path 'TEMP' write to file failed"_s;
}

// A link in the temporary's place leads to a device that is always full. The link is what is
// cleaned up.
void tst_WorkerWriteFaults::fullDevice()
{
    QFETCH(int, size);
    QFETCH(QString, record);
    m_fixture->tree.writeWritten("/audio/volume"_s, "old");
    const QStringList left = snapshot();
    QVERIFY(QFile::link("/dev/full"_s, m_fixture->fileName("/audio/.volume"_s)));

    // {"id":"..."}: nine bytes and the text.
    writeFails({ { TuloRoles::Id(), QString(size, QLatin1Char('x')) } }, record, left);
}

void tst_WorkerWriteFaults::fullFileSystem_data()
{
    fullDevice_data();
}

void tst_WorkerWriteFaults::fullFileSystem()
{
    QFETCH(int, size);
    QFETCH(QString, record);
    const SmallFileSystem fileSystem(m_fixture->tree.writePath());
    if (!fileSystem.isMounted())
        QSKIP("mounting a small file system needs root");
    m_fixture->tree.writeWritten("/audio/volume"_s, "old");
    QFile filler(m_fixture->fileName("/filler"_s));
    QVERIFY(filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
    while (filler.write(QByteArray(1024, '-')) > 0) { }
    const QVariantHash roles { { TuloRoles::Id(), QString(size, QLatin1Char('x')) } };

    writeFails(roles, record, snapshot());

    // With room again the next write is as good as any; a large one has none even so.
    QVERIFY(filler.resize(0));
    if (size < 65536) {
        m_fixture->worker->writeFile(m_fixture->fileName("/audio/volume"_s),
                                     TuloRoles(TuloHash(roles)));
        QCOMPARE(m_fixture->tree.readWritten("/audio/volume"_s), json(roles));
    }
}

void tst_WorkerWriteFaults::deviceThatCannotBeSynced()
{
    m_fixture->tree.writeWritten("/audio/volume"_s, "old");
    const QStringList left = snapshot();
    QVERIFY(QFile::link("/dev/null"_s, m_fixture->fileName("/audio/.volume"_s)));

    writeFails({ { TuloRoles::Timestamp(), 12 } }, "Settings: path 'TEMP' fsync failed"_s, left);
}

void tst_WorkerWriteFaults::failedFsync()
{
    m_fixture->tree.writeWritten("/audio/volume"_s, "old");
    arm(Fsync, 1, false);

    writeFails("Settings: path 'TEMP' fsync failed"_s);
}

void tst_WorkerWriteFaults::directoryAsTarget()
{
    m_fixture->tree.writeWritten("/audio/volume/inside"_s, "kept");

    writeFails("Settings: path 'TEMP' rename to path 'TARGET' failed"_s);
}

void tst_WorkerWriteFaults::failedRename()
{
    m_fixture->tree.writeWritten("/audio/volume"_s, "old");
    arm(Rename, 1, false);

    writeFails("Settings: path 'TEMP' rename to path 'TARGET' failed"_s);
}

void tst_WorkerWriteFaults::failedCleanUpIsIgnored()
{
    m_fixture->tree.writeWritten("/audio/volume"_s, "old");
    m_fixture->tree.writeWritten("/audio/.volume"_s, "stale");
    arm(Unlink, 1, true);
    faults.notWritable = true;

    writeFails({}, "Settings: path 'TEMP' file is not writeable"_s,
               { "/audio/ "_s, "/audio/.volume "_s, "/audio/volume old"_s });
}

void tst_WorkerWriteFaults::shortSystemWritesAreContinued()
{
    arm(CallCount, 0, false);
    faults.shortWrites = true;
    const QVariantHash roles { { TuloRoles::Id(), QString(20000, QLatin1Char('x')) } };

    m_fixture->worker->writeFile(m_fixture->fileName("/audio/volume"_s),
                                 TuloRoles(TuloHash(roles)));

    QVERIFY(faults.counts.at(Write) > 10);
    QCOMPARE(m_fixture->tree.readWritten("/audio/volume"_s), json(roles));
}

void tst_WorkerWriteFaults::everyCallFailingInTurn_data()
{
    QTest::addColumn<int>("call");
    QTest::addColumn<bool>("persistent");
    QTest::addColumn<bool>("existing");
    QTest::addColumn<int>("size");

    const std::array<const char*, 5> names { "mkdir", "open", "write", "fsync", "rename" };
    for (int call = Mkdir; call <= Rename; ++call) {
        for (const bool persistent : { false, true }) {
            for (const bool existing : { false, true }) {
                for (const int size : { 10, 20000 }) {
                    QTest::addRow("%s%s, %s, %d bytes", names.at(std::size_t(call)),
                                  persistent ? " for good" : " once",
                                  existing ? "existing targets" : "new targets", size)
                        << call << persistent << existing << size;
                }
            }
        }
    }
}

// Two settings in two directories are saved and flushed, with the first, second, ... call of a
// kind failing until there is no such call any more.
void tst_WorkerWriteFaults::everyCallFailingInTurn()
{
    QFETCH(int, call);
    QFETCH(bool, persistent);
    QFETCH(bool, existing);
    QFETCH(int, size);
    CMSettingsWorker* worker = m_fixture->worker.get();
    const int openBefore = openFiles();
    const QByteArray old = R"({"id":"old"})";
    int turns = 0;

    for (bool reached = true; reached;) {
        const QString directory = "/turn%1/"_s.arg(++turns);
        const QStringList paths { directory + "a/one"_s, directory + "b/two"_s };
        QStringList entries { directory, directory + "a/"_s, directory + "b/"_s };
        QList<QByteArray> wanted;
        QList<CMReply<QVariant>> replies;
        std::vector<std::unique_ptr<ReplyWaiter>> waiters;
        const auto request = [&](const CMPath& path, const QString& role, const QVariant& value) {
            replies.append(CMReply<QVariant>::create());
            waiters.push_back(std::make_unique<ReplyWaiter>(replies.last()));
            worker->setDataRequest(CMSetDataRequest(path, role, value, replies.last()));
        };
        if (existing) {
            for (const QString& path : paths)
                m_fixture->tree.writeWritten(path, old);
        }

        for (const QString& path : paths) {
            const QVariantHash roles { { TuloRoles::Id(), QString(size, QLatin1Char('x')) },
                                       { TuloRoles::Timestamp(), 12 },
                                       { TuloRoles::Value(), stringValue(path) } };
            wanted.append(json(roles));
            request(CMPath(ChangeFixture::node(path)), TuloRoles::SetRoles(), roles);
        }
        arm(Call(call), turns, persistent);
        request(TuloSettingsActionsFlush(), TuloRoles::Activate(), QVariant());
        reached = faults.counts.at(std::size_t(call)) >= turns;
        disarm();

        for (std::size_t i = 0; i < waiters.size(); ++i) {
            QCOMPARE(waiters.at(i)->count(), 1);
            QCOMPARE(errorText(replies.at(int(i))), QString());
        }
        QVERIFY(worker->m_pendingWrites.isEmpty());
        int written = 0;
        for (int i = 0; i < paths.size(); ++i) {
            const QByteArray content = m_fixture->tree.readWritten(paths.at(i));
            const bool isNew = content == wanted.at(i);
            written += isNew ? 1 : 0;
            QVERIFY2(isNew || content == (existing ? old : QByteArray()), content);
            if (!content.isNull())
                entries.append(paths.at(i));
        }
        // Every failure is told once, and no success is a failure.
        const QList<LogRecord> records = m_fixture->log.take();
        int told = 0;
        for (const LogRecord& entry : records)
            told += entry.level >= log4cplus::WARN_LOG_LEVEL ? 1 : 0;
        QCOMPARE(told, 2 - written);
        QCOMPARE(written < 2, reached);
        // A directory may or may not have been made; nothing else may be there.
        const QStringList found = m_fixture->tree.writtenEntries().filter(directory);
        for (const QString& entry : found)
            QVERIFY2(entries.contains(entry), qPrintable(entry));
        QCOMPARE(openFiles(), openBefore);

        // Saved again without a fault, each is there.
        for (const QString& path : paths)
            m_fixture->setRoles(path, { { TuloRoles::Timestamp(), 13 } });
        worker->on_writeTimer_timeout();
        for (const QString& path : paths)
            QCOMPARE(m_fixture->tree.readWrittenRoles(path).value(TuloRoles::Timestamp()).toInt(),
                     13);
        m_fixture->log.take();
    }
    QVERIFY(turns > 2);
}

QTEST_GUILESS_MAIN(tst_WorkerWriteFaults)
#include "tst_worker_writefaults.moc"
