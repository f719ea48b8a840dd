#include "workerfixture.h"

#include "tests/support/childprocess.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTest>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

// ---------------------------------------------------------------------------------------------
// Faulty system calls. The functions below stand in for the C library's, for the worker (linked
// into this program) and for Qt alike. While faults are armed, a call on the watched file is
// counted and may fail; every other call does what it always does.
// ---------------------------------------------------------------------------------------------

namespace {

enum Call { Access, Open, Read, Stat, CallCount };

/// Without constructors: libraries make system calls before this program's run.
struct Faults
{
    bool armed = false;
    dev_t device = 0; ///< of the watched file
    ino_t inode = 0;
    Call call = CallCount;
    int first = 1; ///< the number of the call that fails
    int last = 0; ///< and that of the last one that does
    int error = EIO;
    size_t bytesARead = SIZE_MAX; ///< how much a read gives at most
    std::array<int, CallCount> counts {};
};

} // namespace

static Faults faults; // NOLINT: armed by one test at a time

static bool isWatched(int result, const struct stat& status)
{
    return result == 0 && status.st_dev == faults.device && status.st_ino == faults.inode;
}

static bool isWatched(const char* name)
{
    struct stat status;
    return faults.armed && isWatched(::stat(name, &status), status);
}

static bool isWatched(int file)
{
    struct stat status;
    return faults.armed && isWatched(::fstat(file, &status), status);
}

static bool fails(Call call)
{
    const int count = ++faults.counts.at(call);
    if (call != faults.call || count < faults.first || count > faults.last)
        return false;
    errno = faults.error;
    return true;
}

// As the C library declares them; the names are given to the linker only.
extern "C" {
int faultyAccess(const char* name, int mode) asm("access");
int faultyOpen(const char* name, int flags, ...) asm("open");
int faultyOpen64(const char* name, int flags, ...) asm("open64");
ssize_t faultyRead(int file, void* bytes, size_t size) asm("read");
int faultyStat(int directory, const char* name, int flags, unsigned mask,
               struct statx* status) asm("statx");
}

int faultyAccess(const char* name, int mode)
{
    if (isWatched(name) && fails(Access))
        return -1;
    return int(::syscall(SYS_faccessat, AT_FDCWD, name, mode));
}

static int openUnlessFaulty(const char* name, int flags, mode_t mode)
{
    if (isWatched(name) && fails(Open))
        return -1;
    return int(::syscall(SYS_openat, AT_FDCWD, name, flags, mode));
}

int faultyOpen(const char* name, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openUnlessFaulty(name, flags, mode);
}

int faultyOpen64(const char* name, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openUnlessFaulty(name, flags, mode);
}

ssize_t faultyRead(int file, void* bytes, size_t size)
{
    if (isWatched(file)) {
        if (fails(Read))
            return -1;
        size = std::min(size, faults.bytesARead);
    }
    return ::syscall(SYS_read, file, bytes, size);
}

int faultyStat(int directory, const char* name, int flags, unsigned mask, struct statx* status)
{
    if (isWatched(name) && fails(Stat))
        return -1;
    return int(::syscall(SYS_statx, directory, name, flags, mask, status));
}

// ---------------------------------------------------------------------------------------------

namespace {

constexpr int always = 1000000;
constexpr int tries = 6;
constexpr int pausesMs = 31;
const QString setting = QStringLiteral("/audio/volume");

struct NamedError
{
    const char* name;
    int error;
};
constexpr NamedError passingErrors[] = {
    { "EIO", EIO },       { "EMFILE", EMFILE }, { "ENFILE", ENFILE }, { "EACCES", EACCES },
    { "ENOMEM", ENOMEM }, { "ESTALE", ESTALE }, { "EAGAIN", EAGAIN },
};

struct NamedCall
{
    const char* name;
    Call call;
};
constexpr NamedCall allCalls[] = {
    { "access", Access }, { "open", Open }, { "read", Read }, { "stat", Stat }
};

TuloValue intValue(qlonglong number)
{
    return TuloValue::of(TuloValue::Int(), number);
}

} // namespace

/// Reads that fail: for a moment, or for good.
class tst_WorkerReadFaults : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void soundFileIsReadOnce();
    void momentsErrorHarmsNoValue_data();
    void momentsErrorHarmsNoValue();
    void momentsErrorOfATemplateHarmsNoRole();
    void momentsErrorDoesNotHideAProductFile();
    void momentsErrorDoesNotMakeAFileOfADirectory_data();
    void momentsErrorDoesNotMakeAFileOfADirectory();
    void errorInTheMiddleIsNotTheEndOfTheFile();
    void interruptedReadIsContinued();
    void writtenFileThatNeverReadsCountsAsDamaged_data();
    void writtenFileThatNeverReadsCountsAsDamaged();
    void beginningOfAFileIsNotTakenForTheFile();
    void fileWithoutPermissionCountsAsMissing_data();
    void fileWithoutPermissionCountsAsMissing();
    void defaultFileThatNeverReadsEndsTheProcess_data();
    void defaultFileThatNeverReadsEndsTheProcess();
    void missingFileIsLookedForOnce_data();
    void missingFileIsLookedForOnce();

private:
    QString writtenFile() const { return m_fixture->tree.writePath() + setting; }
    QString defaultFile() const { return m_fixture->tree.defaultPath() + setting; }
    /// Has the calls on the file named `file` from `first` on fail, so many of them.
    static void arm(const QString& file, Call call, int error, int count, int first = 1);
    TuloRoles load() { return m_fixture->worker->load(setting, nullptr); }
    static std::array<int, CallCount> takeCounts();

    std::unique_ptr<WorkerFixture> m_fixture;
};

void tst_WorkerReadFaults::init()
{
    faults = Faults();
    m_fixture = std::make_unique<WorkerFixture>();
    m_fixture->tree.writeDefault(setting, QByteArray(R"({"title":"Volume","value":{"int":35}})"));
    m_fixture->tree.writeWritten(setting, QByteArray(R"({"timestamp":12,"value":{"int":60}})"));
    m_fixture->create();
}

void tst_WorkerReadFaults::cleanup()
{
    faults = Faults();
    m_fixture->log.verifyNothingUnexpected();
    m_fixture.reset();
}

void tst_WorkerReadFaults::arm(const QString& file, Call call, int error, int count, int first)
{
    struct stat status;
    QCOMPARE(::stat(QFile::encodeName(file).constData(), &status), 0);
    faults = Faults();
    faults.call = call;
    faults.error = error;
    faults.first = first;
    faults.last = first + count - 1;
    faults.device = status.st_dev;
    faults.inode = status.st_ino;
    faults.armed = true;
}

std::array<int, CallCount> tst_WorkerReadFaults::takeCounts()
{
    faults.armed = false;
    return faults.counts;
}

void tst_WorkerReadFaults::soundFileIsReadOnce()
{
    arm(writtenFile(), CallCount, 0, 0);

    QCOMPARE(load().value(), intValue(60));

    const std::array<int, CallCount> expected { 1, 1, 2, 1 };
    QVERIFY(takeCounts() == expected);
}

void tst_WorkerReadFaults::momentsErrorHarmsNoValue_data()
{
    QTest::addColumn<bool>("ofDefault");
    QTest::addColumn<int>("call");
    QTest::addColumn<int>("error");
    QTest::addColumn<int>("count");

    for (const bool ofDefault : { false, true }) {
        for (const auto& [callName, call] : allCalls) {
            for (const auto& [errorName, error] : passingErrors) {
                for (const int count : { 1, tries - 1 }) {
                    QTest::addRow("%s, %s, %s, %d times", ofDefault ? "default" : "written",
                                  callName, errorName, count)
                        << ofDefault << int(call) << error << count;
                }
            }
        }
    }
}

void tst_WorkerReadFaults::momentsErrorHarmsNoValue()
{
    QFETCH(bool, ofDefault);
    QFETCH(int, call);
    QFETCH(int, error);
    QFETCH(int, count);
    arm(ofDefault ? defaultFile() : writtenFile(), Call(call), error, count);

    const TuloRoles roles = load();

    QVERIFY(takeCounts().at(std::size_t(call)) > count);
    QCOMPARE(roles.value(), intValue(60));
    QCOMPARE(roles.defaultValue(), intValue(35));
    QCOMPARE(roles.title().toString(), QStringLiteral("Volume"));
    QCOMPARE(roles.timestamp(), 12LL);
}

void tst_WorkerReadFaults::momentsErrorOfATemplateHarmsNoRole()
{
    m_fixture->tree.writeDefault(QStringLiteral("/presets/.meta"),
                                 QByteArray(R"({"valueUnit":"dB"})"));
    arm(m_fixture->tree.defaultPath() + QStringLiteral("/presets/.meta"), Open, EMFILE, 1);

    const TuloRoles roles = m_fixture->worker->load(QStringLiteral("/presets/one"), nullptr);

    QCOMPARE(takeCounts().at(Open), 2);
    QCOMPARE(roles.valueUnit().toString(), QStringLiteral("dB"));
}

void tst_WorkerReadFaults::momentsErrorDoesNotHideAProductFile()
{
    m_fixture->tree.writeDefault(setting + QStringLiteral("_sport"),
                                 QByteArray(R"({"value":{"int":70}})"));
    m_fixture->create({ { QStringLiteral("product_postfix"), QStringLiteral("sport") } });
    arm(defaultFile() + QStringLiteral("_sport"), Stat, EIO, 1);

    const TuloRoles roles = load();

    QCOMPARE(takeCounts().at(Stat), 2);
    QCOMPARE(roles.defaultValue(), intValue(70));
}

void tst_WorkerReadFaults::momentsErrorDoesNotMakeAFileOfADirectory_data()
{
    QTest::addColumn<bool>("ofDefault");

    QTest::newRow("default") << true;
    QTest::newRow("written") << false;
}

void tst_WorkerReadFaults::momentsErrorDoesNotMakeAFileOfADirectory()
{
    QFETCH(bool, ofDefault);
    const QString path = QStringLiteral("/folder");
    if (ofDefault)
        m_fixture->tree.makeDefaultDirectory(path);
    else
        m_fixture->tree.makeWriteDirectory(path);
    arm((ofDefault ? m_fixture->tree.defaultPath() : m_fixture->tree.writePath()) + path, Stat,
        ENOMEM, 1);

    const TuloRoles roles = m_fixture->worker->load(path, nullptr);

    QCOMPARE(takeCounts().at(Stat), 2);
    QCOMPARE(int(roles.type()), int(TuloRolesType::Directory));
}

void tst_WorkerReadFaults::errorInTheMiddleIsNotTheEndOfTheFile()
{
    arm(writtenFile(), Read, EIO, 1, 3);
    faults.bytesARead = 10;

    QCOMPARE(load().value(), intValue(60));

    QVERIFY(takeCounts().at(Read) > 3);
}

void tst_WorkerReadFaults::interruptedReadIsContinued()
{
    arm(writtenFile(), Read, EINTR, 1, 2);
    faults.bytesARead = 10;

    QCOMPARE(load().value(), intValue(60));

    QCOMPARE(takeCounts().at(Open), 1);
}

void tst_WorkerReadFaults::writtenFileThatNeverReadsCountsAsDamaged_data()
{
    QTest::addColumn<int>("call");
    QTest::addColumn<int>("error");

    QTest::newRow("open, EIO") << int(Open) << EIO;
    QTest::newRow("open, EMFILE") << int(Open) << EMFILE;
    QTest::newRow("read, EIO") << int(Read) << EIO;
    QTest::newRow("read, ENOMEM") << int(Read) << ENOMEM;
}

void tst_WorkerReadFaults::writtenFileThatNeverReadsCountsAsDamaged()
{
    QFETCH(int, call);
    QFETCH(int, error);
    TuloError parseError;
    TuloJson::parse(QByteArray(), parseError, nullptr);
    m_fixture->log.expect(log4cplus::ERROR_LOG_LEVEL,
                          QStringLiteral("Settings: Unable to parse '%1': %2")
                              .arg(writtenFile(), parseError.message()));
    arm(writtenFile(), Call(call), error, always);
    QElapsedTimer timer;
    timer.start();

    const TuloRoles roles = load();

    QVERIFY(timer.elapsed() >= pausesMs);
    QCOMPARE(takeCounts().at(std::size_t(call)), tries);
    QCOMPARE(roles.value(), intValue(35));
}

void tst_WorkerReadFaults::beginningOfAFileIsNotTakenForTheFile()
{
    const QByteArray beginning = R"({"value":{"int":1}})";
    m_fixture->tree.writeWritten(setting, beginning + "\n");
    TuloError parseError;
    TuloJson::parse(QByteArray(), parseError, nullptr);
    m_fixture->log.expect(log4cplus::ERROR_LOG_LEVEL,
                          QStringLiteral("Settings: Unable to parse '%1': %2")
                              .arg(writtenFile(), parseError.message()));
    // Each read but the first fails: that one gives what would parse.
    arm(writtenFile(), Read, EIO, always, 2);
    faults.bytesARead = std::size_t(beginning.size());

    QCOMPARE(load().value(), intValue(35));
}

void tst_WorkerReadFaults::fileWithoutPermissionCountsAsMissing_data()
{
    QTest::addColumn<bool>("ofDefault");
    QTest::addColumn<int>("call");

    QTest::newRow("written, access") << false << int(Access);
    QTest::newRow("written, open") << false << int(Open);
    QTest::newRow("default, access") << true << int(Access);
    QTest::newRow("default, open") << true << int(Open);
}

void tst_WorkerReadFaults::fileWithoutPermissionCountsAsMissing()
{
    QFETCH(bool, ofDefault);
    QFETCH(int, call);
    arm(ofDefault ? defaultFile() : writtenFile(), Call(call), EACCES, always);

    const TuloRoles roles = load();

    // QFileInfo asks twice.
    QCOMPARE(takeCounts().at(std::size_t(call)), call == Access ? 2 * tries : tries);
    QCOMPARE(roles.value(), intValue(ofDefault ? 60 : 35));
    QCOMPARE(roles.defaultValue().isEmpty(), ofDefault);
}

void tst_WorkerReadFaults::defaultFileThatNeverReadsEndsTheProcess_data()
{
    QTest::addColumn<int>("call");

    QTest::newRow("open") << int(Open);
    QTest::newRow("read") << int(Read);
}

void tst_WorkerReadFaults::defaultFileThatNeverReadsEndsTheProcess()
{
    QFETCH(int, call);

    const ChildResult child = ChildProcess::runInChild([this, call] {
        logToStandardError(log4cplus::ERROR_LOG_LEVEL);
        arm(defaultFile(), Call(call), EIO, always);
        load();
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("ERROR - Settings: Unable to parse '"),
             child.standardError.constData());
}

void tst_WorkerReadFaults::missingFileIsLookedForOnce_data()
{
    QTest::addColumn<int>("error");

    QTest::newRow("no such file") << ENOENT;
    QTest::newRow("no directory") << ENOTDIR;
    QTest::newRow("name too long") << ENAMETOOLONG;
    QTest::newRow("links without end") << ELOOP;
}

void tst_WorkerReadFaults::missingFileIsLookedForOnce()
{
    QFETCH(int, error);
    arm(writtenFile(), Access, error, always);

    QCOMPARE(load().value(), intValue(35));

    const std::array<int, CallCount> expected { 1, 0, 0, 1 };
    QVERIFY(takeCounts() == expected);
}

QTEST_GUILESS_MAIN(tst_WorkerReadFaults)
#include "tst_worker_readfaults.moc"
