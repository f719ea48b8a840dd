#include "trees/journal.h"
#include "trees/ownerlock.h"
#include "trees/uniquefd.h"

#include "tests/support/childprocess.h"
#include "tests/support/files.h"
#include "tests/support/temporarytree.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QTest>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

using namespace tulo;

using Status = JournalResult::Status;
Q_DECLARE_METATYPE(JournalResult::Status)

// -------------------------------------------------------------------------------------------
// The calls that can fail. Each can be told to.
// -------------------------------------------------------------------------------------------

namespace {

/// Fails from the call of this number on, counted from 1.
struct Fault
{
    int call = 0; ///< 0: none
    int error = 0;
};

Fault fault; // NOLINT: one test program, one thread
// What the file system says to have, at most.
constexpr auto plenty = std::numeric_limits<fsblkcnt_t>::max();
fsblkcnt_t freeBlocks = plenty; // NOLINT
fsfilcnt_t freeFiles = plenty; // NOLINT
int callCount = 0; // NOLINT

bool fails()
{
    ++callCount;
    if (fault.call == 0 || callCount < fault.call)
        return false;
    errno = fault.error;
    return true;
}

template<typename Function>
Function next(const char* name)
{
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

ssize_t write(int file, const void* bytes, size_t size)
{
    static const auto original = next<ssize_t (*)(int, const void*, size_t)>("write");
    return file > STDERR_FILENO && fails() ? -1 : original(file, bytes, size);
}

int fsync(int file)
{
    static const auto original = next<int (*)(int)>("fsync");
    return fails() ? -1 : original(file);
}

int renameat(int from, const char* oldName, int to, const char* newName) noexcept
{
    static const auto original = next<int (*)(int, const char*, int, const char*)>("renameat");
    return fails() ? -1 : original(from, oldName, to, newName);
}

int fstatvfs(int file, struct statvfs* fileSystem) noexcept
{
    static const auto original = next<int (*)(int, struct statvfs*)>("fstatvfs");
    const int result = original(file, fileSystem);
    fileSystem->f_bfree = fileSystem->f_bavail = std::min(fileSystem->f_bfree, freeBlocks);
    fileSystem->f_ffree = fileSystem->f_favail = std::min(fileSystem->f_ffree, freeFiles);
    return result;
}

int unlinkat(int directory, const char* name, int flags) noexcept
{
    static const auto original = next<int (*)(int, const char*, int)>("unlinkat");
    return fails() ? -1 : original(directory, name, flags);
}
}

namespace {

// -------------------------------------------------------------------------------------------
// A tree, and what is in it.
// -------------------------------------------------------------------------------------------

const QString journal = QStringLiteral("/.tulo-cm.journal");
const QString newJournal = QStringLiteral("/.tulo-cm.journal.new");

UniqueFd opened(const TemporaryTree& tree)
{
    return UniqueFd(
        ::open(QFile::encodeName(tree.writePath()).constData(), O_RDONLY | O_DIRECTORY));
}

JournalResult commit(const TemporaryTree& tree, const QVector<FileChange>& changes,
                     const QHash<QString, QByteArray>& records = {})
{
    const UniqueFd directory = opened(tree);
    return commitChanges(directory.get(), changes, records);
}

JournalResult redo(const TemporaryTree& tree)
{
    const UniqueFd directory = opened(tree);
    return redoJournal(directory.get());
}

/// One setting that is there, one that is new in directories that are new, one that goes.
void prepare(const TemporaryTree& tree)
{
    tree.writeWritten(QStringLiteral("/audio/volume"), QByteArrayLiteral("old volume"));
    tree.writeWritten(QStringLiteral("/video/contrast"), QByteArrayLiteral("old contrast"));
}

const QVector<FileChange>& threeChanges()
{
    static const QVector<FileChange> changes {
        { QStringLiteral("/video/contrast"), std::nullopt },
        { QStringLiteral("/radio/presets/first"), QByteArrayLiteral("new \"first\"\n\u00fc") },
        { QStringLiteral("/audio/volume"), QByteArrayLiteral("new volume") },
    };
    return changes;
}

const QStringList oldEntries { QStringLiteral("/audio/"), QStringLiteral("/audio/volume"),
                               QStringLiteral("/video/"), QStringLiteral("/video/contrast") };
const QStringList newEntries { QStringLiteral("/audio/"),
                               QStringLiteral("/audio/volume"),
                               QStringLiteral("/radio/"),
                               QStringLiteral("/radio/presets/"),
                               QStringLiteral("/radio/presets/first"),
                               QStringLiteral("/video/") };

bool isUnchanged(const TemporaryTree& tree)
{
    return tree.writtenEntries() == oldEntries
        && tree.readWritten(QStringLiteral("/audio/volume")) == "old volume"
        && tree.readWritten(QStringLiteral("/video/contrast")) == "old contrast";
}

bool isChanged(const TemporaryTree& tree)
{
    return tree.writtenEntries() == newEntries
        && tree.readWritten(QStringLiteral("/audio/volume")) == "new volume"
        && tree.readWritten(QStringLiteral("/radio/presets/first")) == "new \"first\"\n\u00fc";
}

QByteArray journalOf(const QByteArray& body, const QByteArray& format = "1")
{
    return "tulo-journal " + format + ' '
        + QCryptographicHash::hash(body, QCryptographicHash::Sha256).toHex() + '\n' + body;
}

} // namespace

class tst_Journal : public QObject
{
    Q_OBJECT

private slots:
    void cleanup()
    {
        fault = {};
        callCount = 0;
        freeBlocks = freeFiles = plenty;
    }

    void changesAreMadeAndTheJournalGoes();
    void aRecordIsWrittenWithTheChanges();
    void filesHaveTheModesThatTheWorkerGives();
    void aStaleTemporaryFileIsReused();
    void noChangesTouchNothing();
    void whatIsRefusedChangesNothing_data();
    void whatIsRefusedChangesNothing();
    void whatIsInTheWayIsRefusedAndStays_data();
    void whatIsInTheWayIsRefusedAndStays();
    void aChangeOfTooManyBytesIsRefused();
    void aChangeThatTheDiskHasNoRoomForIsRefused_data();
    void aChangeThatTheDiskHasNoRoomForIsRefused();
    void anErrorBeforeTheDecisionChangesNothingAndAfterItIsRedone_data();
    void anErrorBeforeTheDecisionChangesNothingAndAfterItIsRedone();
    void aTreeThatCannotBeWrittenIsUnchanged();
    void noJournalIsNothingToFinish();
    void whatIsNoWholeJournalIsNotCarriedOutAndStays_data();
    void whatIsNoWholeJournalIsNotCarriedOutAndStays();
    void aJournalThatIsNotAFileIsLeftAlone_data();
    void aJournalThatIsNotAFileIsLeftAlone();
    void aJournalCannotReachOutOfTheTree_data();
    void aJournalCannotReachOutOfTheTree();
    void aJournalIsNotFollowedThroughALink();
    void whatWasChangedSinceIsLeftAsItIs();
    void aForeignFileOfTheNewJournalsNameStays();
    void anUncommittedJournalIsReused_data();
    void anUncommittedJournalIsReused();
};

void tst_Journal::changesAreMadeAndTheJournalGoes()
{
    const TemporaryTree tree;
    prepare(tree);

    const JournalResult result = commit(tree, threeChanges());

    QCOMPARE(result.message, QString());
    QCOMPARE(result.status, Status::Done);
    QVERIFY(isChanged(tree));
}

void tst_Journal::aRecordIsWrittenWithTheChanges()
{
    const TemporaryTree tree;
    const QString record = QStringLiteral("/.tulo-cm.example");
    tree.writeWritten(record, QByteArrayLiteral("old"));

    const JournalResult result = commit(tree, {}, { { record.mid(1), QByteArrayLiteral("new") } });

    QCOMPARE(result.message, QString());
    QCOMPARE(tree.readWritten(record), QByteArrayLiteral("new"));
    QCOMPARE(tree.writtenEntries(), QStringList(record));
}

void tst_Journal::filesHaveTheModesThatTheWorkerGives()
{
    const TemporaryTree tree;
    const mode_t before = ::umask(0027);

    const JournalResult result =
        commit(tree, { { QStringLiteral("/radio/first"), QByteArrayLiteral("x") } },
               { { QStringLiteral(".tulo-cm.example"), QByteArrayLiteral("x") } });
    ::umask(before);

    QCOMPARE(result.message, QString());
    const auto modeOf = [&tree](const char* name) {
        struct stat file = {};
        ::stat((QFile::encodeName(tree.writePath()) + name).constData(), &file);
        return file.st_mode & 0777;
    };
    QCOMPARE(modeOf("/radio"), mode_t(0750));
    QCOMPARE(modeOf("/radio/first"), mode_t(0640));
    QCOMPARE(modeOf("/.tulo-cm.example"), mode_t(0600));
}

void tst_Journal::aStaleTemporaryFileIsReused()
{
    const TemporaryTree tree;
    prepare(tree);
    tree.writeWritten(QStringLiteral("/audio/.volume"), QByteArray(1000, 'x'));

    const JournalResult result = commit(tree, threeChanges());

    QCOMPARE(result.message, QString());
    QVERIFY(isChanged(tree));
}

void tst_Journal::noChangesTouchNothing()
{
    const TemporaryTree tree;
    fault = { 1, EIO };

    const JournalResult result = commit(tree, {});

    QCOMPARE(result.status, Status::Done);
    QCOMPARE(callCount, 0);
}

// -------------------------------------------------------------------------------------------
// Before the decision.
// -------------------------------------------------------------------------------------------

void tst_Journal::whatIsRefusedChangesNothing_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("record");
    const QByteArray content("x");
    QTest::newRow("relative") << "audio/volume" << content << QString();
    QTest::newRow("empty") << QString() << content << QString();
    QTest::newRow("the tree") << "/" << content << QString();
    QTest::newRow("parent") << "/audio/../../escaped" << content << QString();
    QTest::newRow("same directory") << "/./audio" << content << QString();
    QTest::newRow("empty component") << "/audio//volume" << content << QString();
    QTest::newRow("directory") << "/audio/" << content << QString();
    QTest::newRow("hidden") << "/audio/.meta" << content << QString();
    QTest::newRow("the lock") << "/.tulo-cm.lock" << content << QString();
    QTest::newRow("control character") << "/audio/vol\nume" << content << QString();
    QTest::newRow("long name") << (QStringLiteral("/") + QString(201, QLatin1Char('x'))) << content
                               << QString();
    QTest::newRow("deep") << QStringLiteral("/x").repeated(16) << content << QString();
    QTest::newRow("path twice") << "/audio/volume" << content << QString();
    QTest::newRow("no UTF-8") << "/audio/loudness" << QByteArray("\xff") << QString();
    QTest::newRow("byte order mark") << "/audio/loudness" << QByteArray("\xef\xbb\xbf{}") << "";
    QTest::newRow("record elsewhere") << "/x" << content << ".tulo-cm./../../x";
    QTest::newRow("record of another name") << "/x" << content << ".meta";
    QTest::newRow("record without a name") << "/x" << content << ".tulo-cm.";
    QTest::newRow("record is the lock") << "/x" << content << ".tulo-cm.lock";
    QTest::newRow("record is the journal") << "/x" << content << ".tulo-cm.journal";
    QTest::newRow("record is the new journal") << "/x" << content << ".tulo-cm.journal.new";
}

void tst_Journal::whatIsRefusedChangesNothing()
{
    QFETCH(const QString, path);
    QFETCH(const QByteArray, content);
    QFETCH(const QString, record);
    const TemporaryTree tree;
    prepare(tree);
    QVector<FileChange> changes = threeChanges();
    changes.append({ path, content });
    QHash<QString, QByteArray> records;
    if (!record.isEmpty())
        records.insert(record, content);

    const JournalResult result = commit(tree, changes, records);

    QCOMPARE(result.status, Status::Refused);
    QVERIFY(!result.message.isEmpty());
    QVERIFY(isUnchanged(tree));
}

void tst_Journal::whatIsInTheWayIsRefusedAndStays_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("link at the file") << "ln -s /nowhere radio";
    QTest::newRow("link on the way") << "mkdir elsewhere && ln -s elsewhere radio";
    QTest::newRow("file on the way") << "touch radio";
    QTest::newRow("link instead of the file")
        << "mkdir -p radio/presets && ln -s ../../audio/volume radio/presets/first";
    QTest::newRow("directory instead of the file") << "mkdir -p radio/presets/first";
    QTest::newRow("pipe instead of the file")
        << "mkdir -p radio/presets && mkfifo radio/presets/first";
    QTest::newRow("link instead of the temporary file")
        << "mkdir -p radio/presets && ln -s ../../audio/volume radio/presets/.first";
    QTest::newRow("hard link instead of the temporary file")
        << "mkdir -p radio/presets && ln audio/volume radio/presets/.first";
    QTest::newRow("directory instead of the temporary file") << "mkdir -p radio/presets/.first";
    QTest::newRow("link to be removed") << "ln -sf ../audio/volume video/contrast";
    QTest::newRow("directory to be removed") << "rm video/contrast && mkdir video/contrast";
}

void tst_Journal::whatIsInTheWayIsRefusedAndStays()
{
    QFETCH(const QString, command);
    const TemporaryTree tree;
    prepare(tree);
    const ChildResult made =
        ChildProcess::run(QStringLiteral("sh"),
                          { QStringLiteral("-c"),
                            QStringLiteral("cd '%1' && { %2; }").arg(tree.writePath(), command) });
    QCOMPARE(made.exitCode, 0);
    const QStringList before = tree.writtenEntries();

    const JournalResult result = commit(tree, threeChanges());

    QCOMPARE(result.status, Status::Refused);
    QVERIFY2(result.message.contains(QLatin1String("in the way of")), qPrintable(result.message));
    QCOMPARE(tree.writtenEntries(), before);
    QCOMPARE(tree.readWritten(QStringLiteral("/audio/volume")), QByteArrayLiteral("old volume"));
}

void tst_Journal::aChangeOfTooManyBytesIsRefused()
{
    const TemporaryTree tree;
    prepare(tree);
    QVector<FileChange> changes;
    constexpr int megabyte = 1024 * 1024;
    for (int i = 0; i < 65; ++i)
        changes.append({ QStringLiteral("/audio/s%1").arg(i), QByteArray(megabyte, 'x') });

    const JournalResult result = commit(tree, changes);

    QCOMPARE(result.status, Status::Refused);
    QCOMPARE(result.message, QStringLiteral("the change takes more than 64 MiB"));
    QVERIFY(isUnchanged(tree));
}

// Before the journal gets its name: afterwards there would be no way back.
void tst_Journal::aChangeThatTheDiskHasNoRoomForIsRefused_data()
{
    QTest::addColumn<int>("blocks");
    QTest::addColumn<int>("files");
    QTest::addColumn<QString>("reason");
    // Blocks: the journal and one for a temporary file, a new file, the directories for it.
    QTest::newRow("blocks") << 3 << 10 << "has no room for";
    QTest::newRow("files") << 1000 << 2 << "has no room for 3 files";
}

void tst_Journal::aChangeThatTheDiskHasNoRoomForIsRefused()
{
    QFETCH(const int, blocks);
    QFETCH(const int, files);
    QFETCH(const QString, reason);
    const TemporaryTree tree;
    prepare(tree);
    freeBlocks = fsblkcnt_t(blocks);
    freeFiles = fsfilcnt_t(files);

    const JournalResult result = commit(tree, threeChanges());

    QCOMPARE(result.status, Status::Refused);
    QVERIFY2(result.message.contains(reason), qPrintable(result.message));
    QVERIFY(isUnchanged(tree));
    freeBlocks = freeFiles = plenty;
    QCOMPARE(commit(tree, threeChanges()).status, Status::Done);
}

void tst_Journal::anErrorBeforeTheDecisionChangesNothingAndAfterItIsRedone_data()
{
    QTest::addColumn<int>("error");
    QTest::newRow("full disk") << ENOSPC;
    QTest::newRow("broken disk") << EIO;
    QTest::newRow("read-only disk") << EROFS;
}

// Whatever call is the first to fail; from then on all do.
void tst_Journal::anErrorBeforeTheDecisionChangesNothingAndAfterItIsRedone()
{
    QFETCH(const int, error);
    int refusals = 0;
    int redone = 0;
    for (int call = 1;; ++call) {
        const TemporaryTree tree;
        prepare(tree);
        callCount = 0;
        fault = { call, error };
        const JournalResult result = commit(tree, threeChanges());
        fault = {};
        if (result.status == Status::Done)
            break;
        QVERIFY2(result.message.contains(qt_error_string(error)), qPrintable(result.message));

        // All but the word of the disk that the journal has gone.
        const bool isMade = isChanged(tree);

        const JournalResult again = redo(tree);

        QCOMPARE(again.status, Status::Done);
        if (result.status == Status::Refused) {
            ++refusals;
            QCOMPARE(again.message, QString());
            const JournalResult once = commit(tree, threeChanges());
            QCOMPARE(once.status, Status::Done);
        } else {
            const QString finished =
                QStringLiteral("finished a change of 3 files that was interrupted");
            QCOMPARE(again.message, isMade ? QString() : finished);
            ++redone;
        }
        QVERIFY(isChanged(tree));
    }
    QVERIFY(refusals >= 3);
    QVERIFY(redone >= 8);
}

void tst_Journal::aTreeThatCannotBeWrittenIsUnchanged()
{
    const TemporaryTree tree;
    prepare(tree);
    QVERIFY(::chmod(QFile::encodeName(tree.writePath()).constData(), 0555) == 0);

    const ChildResult child = ChildProcess::runInChild(
        [&tree] {
            const JournalResult result = commit(tree, threeChanges());
            QCOMPARE(result.status, Status::Refused);
            QCOMPARE(result.message,
                     QStringLiteral("cannot write '.tulo-cm.journal' in the writable tree: "
                                    "Permission denied"));
            QVERIFY(isUnchanged(tree));
        },
        ChildProcess::User::Nobody);

    QVERIFY2(child.exitCode == 0, child.standardOutput);
}

// -------------------------------------------------------------------------------------------
// Finishing.
// -------------------------------------------------------------------------------------------

void tst_Journal::noJournalIsNothingToFinish()
{
    const TemporaryTree tree;
    prepare(tree);

    const JournalResult result = redo(tree);

    QCOMPARE(result.status, Status::Done);
    QCOMPARE(result.message, QString());
    QVERIFY(isUnchanged(tree));
}

void tst_Journal::whatIsNoWholeJournalIsNotCarriedOutAndStays_data()
{
    QTest::addColumn<QByteArray>("content");
    const QByteArray line("{\"content\":\"new volume\",\"path\":\"/audio/volume\"}\n");
    const QByteArray whole = journalOf(line);
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("zeros") << QByteArray(whole.size(), '\0');
    QTest::newRow("foreign") << QByteArray("my notes\n");
    QTest::newRow("cut in the first line") << whole.left(20);
    QTest::newRow("first line only") << whole.left(whole.indexOf('\n') + 1);
    QTest::newRow("cut at the end") << whole.chopped(1);
    QTest::newRow("longer") << QByteArray(whole + '\n');
    QTest::newRow("one character else") << QByteArray(whole).replace("new volume", "new volumf");
    QTest::newRow("another format") << journalOf(line, "2");
    QTest::newRow("not JSON") << journalOf("{\n");
    QTest::newRow("neither path nor record") << journalOf("{\"content\":\"x\"}\n");
    QTest::newRow("record without content") << journalOf("{\"record\":\".tulo-cm.example\"}\n");
}

void tst_Journal::whatIsNoWholeJournalIsNotCarriedOutAndStays()
{
    QFETCH(const QByteArray, content);
    const TemporaryTree tree;
    prepare(tree);
    tree.writeWritten(journal, content);

    const JournalResult result = redo(tree);
    const JournalResult change = commit(tree, threeChanges());

    QCOMPARE(result.status, Status::Refused);
    QCOMPARE(result.message,
             QStringLiteral("the file '.tulo-cm.journal' in the writable tree is damaged, or was "
                            "not written by this program; nothing of it has been done, see what "
                            "it holds and move it elsewhere"));
    QCOMPARE(change.status, Status::Refused);
    QCOMPARE(tree.readWritten(journal), content);
    QVERIFY(QFile::remove(tree.writePath() + journal));
    QVERIFY(isUnchanged(tree));
}

void tst_Journal::aJournalThatIsNotAFileIsLeftAlone_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("link") << "ln -s ../journal .tulo-cm.journal";
    QTest::newRow("broken link") << "ln -s nowhere .tulo-cm.journal";
    QTest::newRow("directory") << "mkdir .tulo-cm.journal";
    QTest::newRow("pipe") << "mkfifo .tulo-cm.journal";
}

void tst_Journal::aJournalThatIsNotAFileIsLeftAlone()
{
    QFETCH(const QString, command);
    const TemporaryTree tree;
    prepare(tree);
    writeFile(tree.path() + QLatin1String("/journal"), journalOf("{\"path\":\"/audio/volume\"}\n"));
    const ChildResult made = ChildProcess::run(
        QStringLiteral("sh"),
        { QStringLiteral("-c"), QStringLiteral("cd '%1' && %2").arg(tree.writePath(), command) });
    QCOMPARE(made.exitCode, 0);
    const QStringList before = tree.writtenEntries();

    const JournalResult result = redo(tree);

    QCOMPARE(result.status, Status::Refused);
    QVERIFY2(result.message.contains(QLatin1String("is not a regular file")),
             qPrintable(result.message));
    QCOMPARE(tree.writtenEntries(), before);
    QCOMPARE(tree.readWritten(QStringLiteral("/audio/volume")), QByteArrayLiteral("old volume"));
}

void tst_Journal::aJournalCannotReachOutOfTheTree_data()
{
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<QByteArray>("name");
    QTest::newRow("parent") << QByteArray("path") << QByteArray("/../outside");
    QTest::newRow("parent further down") << QByteArray("path") << QByteArray("/a/../../outside");
    QTest::newRow("relative") << QByteArray("path") << QByteArray("../outside");
    QTest::newRow("hidden") << QByteArray("path") << QByteArray("/.tulo-cm.lock");
    QTest::newRow("zero character") << QByteArray("path") << QByteArray("/a\\u0000b");
    QTest::newRow("record") << QByteArray("record") << QByteArray(".tulo-cm./../../outside");
    QTest::newRow("record of another name") << QByteArray("record") << QByteArray("../outside");
}

void tst_Journal::aJournalCannotReachOutOfTheTree()
{
    QFETCH(const QByteArray, key);
    QFETCH(const QByteArray, name);
    const TemporaryTree tree;
    prepare(tree);
    tree.writeWritten(journal,
                      journalOf("{\"content\":\"x\",\"" + key + "\":\"" + name + "\"}\n"
                                + "{\"path\":\"/video/contrast\"}\n"));

    const JournalResult result = redo(tree);

    QCOMPARE(result.status, Status::Refused);
    QVERIFY(!QFile::exists(tree.path() + QLatin1String("/outside")));
    QVERIFY(QFile::remove(tree.writePath() + journal));
    QVERIFY(isUnchanged(tree));
}

// The names are those of settings, but a link leads elsewhere.
void tst_Journal::aJournalIsNotFollowedThroughALink()
{
    const TemporaryTree tree;
    prepare(tree);
    const QString outside = tree.path() + QLatin1String("/outside");
    QVERIFY(QDir().mkpath(outside));
    QVERIFY(QFile::link(outside, tree.writePath() + QLatin1String("/radio")));
    const QByteArray text = journalOf("{\"content\":\"x\",\"path\":\"/radio/first\"}\n");
    tree.writeWritten(journal, text);

    const JournalResult result = redo(tree);

    QCOMPARE(result.status, Status::Unfinished);
    QVERIFY(QDir(outside).isEmpty());
    QCOMPARE(tree.readWritten(journal), text);
    QVERIFY(QFile::remove(tree.writePath() + QLatin1String("/radio")));
    QCOMPARE(redo(tree).status, Status::Done);
    QCOMPARE(tree.readWritten(QStringLiteral("/radio/first")), QByteArrayLiteral("x"));
}

// By a framework that knows no journal.
void tst_Journal::whatWasChangedSinceIsLeftAsItIs()
{
    const TemporaryTree tree;
    prepare(tree);
    tree.writeWritten(QStringLiteral("/radio/mode"), QByteArrayLiteral("old mode"));
    QVector<FileChange> changes = threeChanges();
    changes.append({ QStringLiteral("/radio/mode"), std::nullopt });
    changes.append({ QStringLiteral("/video/sharpness"), QByteArrayLiteral("new sharpness") });
    // From the first call on that follows the decision.
    for (int call = 1; !QFile::exists(tree.writePath() + journal); ++call) {
        callCount = 0;
        fault = { call, ENOSPC };
        const JournalResult result = commit(tree, changes);
        fault = {};
        QVERIFY(result.status != Status::Done);
    }
    QVERIFY(!isChanged(tree));
    tree.writeWritten(QStringLiteral("/audio/volume"), QByteArrayLiteral("newer volume"));
    tree.writeWritten(QStringLiteral("/radio/mode"), QByteArrayLiteral("newer mode"));
    tree.writeWritten(QStringLiteral("/video/sharpness"), QByteArrayLiteral("newer sharpness"));

    const JournalResult result = redo(tree);

    QCOMPARE(result.status, Status::Done);
    QCOMPARE(result.message,
             QStringLiteral("finished a change of 2 files that was interrupted; left out are 3 "
                            "that were changed since"));
    QCOMPARE(tree.readWritten(QStringLiteral("/audio/volume")), QByteArrayLiteral("newer volume"));
    QCOMPARE(tree.readWritten(QStringLiteral("/radio/mode")), QByteArrayLiteral("newer mode"));
    QCOMPARE(tree.readWritten(QStringLiteral("/video/sharpness")),
             QByteArrayLiteral("newer sharpness"));
    QVERIFY(!QFile::exists(tree.writePath() + QLatin1String("/video/contrast")));
    QVERIFY(!QFile::exists(tree.writePath() + journal));
}

void tst_Journal::aForeignFileOfTheNewJournalsNameStays()
{
    const TemporaryTree tree;
    prepare(tree);
    tree.writeWritten(newJournal, QByteArrayLiteral("my notes, which are longer"));

    const JournalResult result = commit(tree, threeChanges());

    QCOMPARE(result.status, Status::Refused);
    QCOMPARE(result.message,
             QStringLiteral("the file '.tulo-cm.journal.new' in the writable tree is in the way; "
                            "move it elsewhere"));
    QCOMPARE(tree.readWritten(newJournal), QByteArrayLiteral("my notes, which are longer"));
    QVERIFY(QFile::remove(tree.writePath() + newJournal));
    QVERIFY(isUnchanged(tree));
}

void tst_Journal::anUncommittedJournalIsReused_data()
{
    QTest::addColumn<QByteArray>("content");
    const QByteArray whole = journalOf("{\"path\":\"/audio/volume\"}\n");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("begun") << whole.left(5);
    QTest::newRow("whole") << whole;
    QTest::newRow("zeros") << QByteArray(4096, '\0');
}

void tst_Journal::anUncommittedJournalIsReused()
{
    QFETCH(const QByteArray, content);
    const TemporaryTree tree;
    prepare(tree);
    tree.writeWritten(newJournal, content);

    const JournalResult redone = redo(tree);
    QCOMPARE(redone.status, Status::Done);
    QCOMPARE(redone.message, QString());
    QCOMPARE(tree.readWritten(QStringLiteral("/audio/volume")), QByteArrayLiteral("old volume"));
    const JournalResult result = commit(tree, threeChanges());

    QCOMPARE(result.message, QString());
    QVERIFY(isChanged(tree));
}

QTEST_GUILESS_MAIN(tst_Journal)
#include "tst_journal.moc"
