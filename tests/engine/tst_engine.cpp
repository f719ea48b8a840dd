#include "engine/engine.h"
#include "engine/loader.h"

#include "api/core/language.h"
#include "tests/support/childprocess.h"
#include "tests/support/enginechanges.h"
#include "tests/support/logcapture.h"
#include "tests/support/registryobserver.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTest>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>

#include <unistd.h>

using namespace tulo;

Q_DECLARE_METATYPE(EngineFailure::Kind)

namespace {

// In the place of the system's, which would wait for the disk: the error that it returns, and how
// often it was asked. Called on a thread beside the test's.
std::atomic<int> syncError { 0 };
std::atomic<int> syncCount { 0 };
// What stands in its way, if anything.
std::function<void()> syncGate;

} // namespace

extern "C" int syncfs(int)
{
    ++syncCount;
    if (syncGate)
        syncGate();
    errno = syncError;
    return syncError == 0 ? 0 : -1;
}

namespace {

using Access = EngineOptions::Access;

const CMPath volume(QStringLiteral("/settings/audio/volume"));

TuloValue number(int value)
{
    return TuloValue::of(TuloValue::Int(), value);
}

QVariant valueOf(Engine& engine)
{
    return engine.dispatcher().getData(volume, { TuloRoles::Value() }).value().value(0);
}

const QString journal = QStringLiteral("/.tulo-cm.journal");

// A change of the volume to 7 that was decided, and interrupted.
void writeJournal(const TemporaryTree& tree)
{
    const QByteArray body("{\"content\":\"{\\\"value\\\":{\\\"int\\\":7}}\","
                          "\"path\":\"/audio/volume\"}\n");
    tree.writeWritten(journal,
                      "tulo-journal 1 "
                          + QCryptographicHash::hash(body, QCryptographicHash::Sha256).toHex()
                          + '\n' + body);
}

log4cplus::Logger workerLogger()
{
    return log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("CMSettingsWorker"));
}

} // namespace

class tst_engine : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void directoriesAreChecked_data();
    void directoriesAreChecked();
    void linkedDirectoriesAreCanonical();
    void missingPluginIsToldAndGivesTheTreeBack();
    void directoryThatGoesAwayIsNoticed();
    void unreadableDirectoryIsTold();
    void unwritableTreeIsToldToItsOwner();
    void productVariantIsServed();
    void textsAreInTheLanguage();
    void secondOwnerIsTurnedAway();
    void readerTakesNoLock();
    void readerSaysWhoOwnsTheTree();
    void readerRefusesChanges();
    void interruptedChangeIsFinishedBeforeAnythingIsRead();
    void changeThatCannotBeFinishedLeavesTheTreeReadable();
    void damagedJournalIsToldAndStopsNothing();
    void readerLeavesAnInterruptedChangeAlone();
    void requestsPassTheGuard();
    void changesAreAnnounced();
    void observersOutliveTheWorkerThatAResetReplaces();

    void acceptedChangeIsPendingUntilTheFlush();
    void acceptedChangeIsWrittenByTheTimer();
    void failedWriteIsStoredAgainByTheNextFlush();
    void unsavedValueOutlivesTheWorkersCache();
    void failedSyncMakesEverythingSinceTheLastGoodOneUnsaved();
    void flushThatWaitsHoldsUpNoRequest();
    void flushesThatWaitShareTheNext();
    void stopAnswersEveryFlush();
    void manyWritesAreConfirmedUnasked();
    void largestValueIsStoredAgain();
    void changeWithoutAValueIsStoredAgainWithoutOne();
    void replacedTreeIsNotSaved();
    void replacedTreeIsNoticedAfterAWrite();
    void changeToAReplacedTreeIsRefused();
    void workersSlotForWritingHasItsName();
    void stopFlushesWhatIsPending();
    void stopSyncsWhatTheTimerWrote();
    void stopWithoutChangesRunsNoSync();
    void stopTellsOfAFailedWrite();
    void stopGivesTheTreeBackAndRefusesRequests();
    void destructionFlushes();

private:
    EngineOptions options(Access access = Access::Own) const;
    std::unique_ptr<Engine> openEngine(Access access = Access::Own) const;
    /// Waits until the worker's timer has written what is pending.
    static bool waitForTimer(Engine& engine);

    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<TemporaryTree> m_tree;
};

void tst_engine::init()
{
    m_log = std::make_unique<LogCapture>();
    m_tree = std::make_unique<TemporaryTree>();
    m_tree->writeDefault(QStringLiteral("/audio/volume"), R"({"value":{"int":5}})");
    m_tree->writeDefault(QStringLiteral("/audio/volume_car"), R"({"value":{"int":9}})");
    syncError = 0;
    syncCount = 0;
    syncGate = nullptr;
}

void tst_engine::cleanup()
{
    m_log->verifyNothingUnexpected();
    m_log.reset();
    m_tree.reset();
    workerLogger().setLogLevel(log4cplus::NOT_SET_LOG_LEVEL);
}

EngineOptions tst_engine::options(Access access) const
{
    EngineOptions options;
    options.pluginFile = QStringLiteral(TULO_PLUGIN_FILE);
    options.defaultPath = m_tree->defaultPath();
    options.writePath = m_tree->writePath();
    options.access = access;
    return options;
}

std::unique_ptr<Engine> tst_engine::openEngine(Access access) const
{
    EngineFailure failure;
    std::unique_ptr<Engine> engine = Engine::open(options(access), &failure);
    if (!engine)
        qFatal("no engine: %s", qPrintable(failure.message));
    return engine;
}

bool tst_engine::waitForTimer(Engine& engine)
{
    QSignalSpy spy(&engine.writes(), &WriteTracker::changed);
    return spy.wait(replyWaitMs) && engine.writes().pendingPaths().isEmpty();
}

// ---------------------------------------------------------------------------------------------
// Opening
// ---------------------------------------------------------------------------------------------

void tst_engine::directoriesAreChecked_data()
{
    // %1 stands for the folder of the trees.
    QTest::addColumn<QString>("defaultPath");
    QTest::addColumn<QString>("writePath");
    QTest::addColumn<EngineFailure::Kind>("kind");
    QTest::addColumn<QString>("message");
    const auto row = [](const char* name, const char* defaultPath, const char* writePath,
                        const char* message) {
        QTest::newRow(name) << QString::fromLatin1(defaultPath) << QString::fromLatin1(writePath)
                            << EngineFailure::Kind::Usage << QString::fromLatin1(message);
    };
    row("no write path", "%1/default", "",
        "Name both the default path and the write path, or neither");
    row("no default path", "", "%1/write",
        "Name both the default path and the write path, or neither");
    row("missing default path", "%1/none", "%1/write", "Directory '%1/none' does not exist");
    row("missing write path", "%1/default", "%1/none", "Directory '%1/none' does not exist");
    row("file as the default path", "%1/default/audio/volume", "%1/write",
        "'%1/default/audio/volume' is not a directory");
    row("file as the write path", "%1/default", "%1/default/audio/volume",
        "'%1/default/audio/volume' is not a directory");
    row("same", "%1/default", "%1/default/../default",
        "The default tree '%1/default' and the writable tree '%1/default' must lie apart");
    row("write path inside", "%1/default", "%1/default/audio",
        "The default tree '%1/default' and the writable tree '%1/default/audio' must lie apart");
    row("default path inside", "%1/default", "%1",
        "The default tree '%1/default' and the writable tree '%1' must lie apart");
    row("default path inside the root", "%1/default", "/",
        "The default tree '%1/default' and the writable tree '/' must lie apart");
}

void tst_engine::directoriesAreChecked()
{
    QFETCH(QString, defaultPath);
    QFETCH(QString, writePath);
    QFETCH(EngineFailure::Kind, kind);
    QFETCH(QString, message);
    const auto filled = [this](QString text) {
        return text.replace(QStringLiteral("%1"), m_tree->path());
    };
    EngineOptions options = this->options();
    options.defaultPath = filled(defaultPath);
    options.writePath = filled(writePath);

    EngineFailure failure;
    const std::unique_ptr<Engine> engine = Engine::open(options, &failure);

    QVERIFY(!engine);
    QCOMPARE(failure.message, filled(message));
    QCOMPARE(failure.kind, kind);
    // The worker, which would fall back to the device's own tree, was not made.
    QVERIFY(m_log->records().isEmpty());
    QCOMPARE(m_tree->writtenEntries(), QStringList());
}

void tst_engine::linkedDirectoriesAreCanonical()
{
    QVERIFY(QFile::link(m_tree->defaultPath(), m_tree->path() + QStringLiteral("/d")));
    QVERIFY(QFile::link(m_tree->writePath(), m_tree->path() + QStringLiteral("/w")));
    EngineOptions options = this->options();
    options.defaultPath = m_tree->path() + QStringLiteral("/d/");
    options.writePath = m_tree->path() + QStringLiteral("/w");

    EngineFailure failure;
    const std::unique_ptr<Engine> engine = Engine::open(options, &failure);

    QVERIFY2(engine, qPrintable(failure.message));
    QCOMPARE(engine->defaultPath(), m_tree->defaultPath());
    QCOMPARE(engine->writePath(), m_tree->writePath());
    QVERIFY(engine->ownsTree());
    QCOMPARE(errorText(sendValue(engine->dispatcher(), volume, number(1))), QString());
    (void)flushed(*engine);
    QVERIFY(engine->writes().isSaved());
}

void tst_engine::missingPluginIsToldAndGivesTheTreeBack()
{
    EngineOptions options = this->options();
    options.pluginFile = QStringLiteral("/no/such/plugin.so");

    EngineFailure failure;
    const std::unique_ptr<Engine> engine = Engine::open(options, &failure);

    QVERIFY(!engine);
    QCOMPARE(failure.kind, EngineFailure::Kind::NoPlugin);
    QCOMPARE(failure.message, QStringLiteral("Plug-in '/no/such/plugin.so' does not exist"));
    QCOMPARE(OwnerLock::holderOf(m_tree->writePath()), std::nullopt);
}

void tst_engine::directoryThatGoesAwayIsNoticed()
{
    EngineOptions options = this->options(Access::Read);
    options.pluginFile = QStringLiteral(TULO_REMOVING_PLUGIN);

    EngineFailure failure;
    const std::unique_ptr<Engine> engine = Engine::open(options, &failure);

    QVERIFY(!engine);
    QCOMPARE(failure.kind, EngineFailure::Kind::NoAccess);
    QCOMPARE(failure.message, QStringLiteral("Directory '%1' has gone").arg(m_tree->writePath()));
}

void tst_engine::unreadableDirectoryIsTold()
{
    QVERIFY(QFile::setPermissions(m_tree->defaultPath(), QFile::Permissions()));

    const ChildResult child = ChildProcess::runInChild(
        [this] {
            EngineFailure failure;
            QVERIFY(!Engine::open(options(Access::Read), &failure));
            QCOMPARE(failure.kind, EngineFailure::Kind::NoAccess);
            QCOMPARE(failure.message,
                     QStringLiteral("Directory '%1' cannot be read").arg(m_tree->defaultPath()));
        },
        ChildProcess::User::Nobody);

    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

void tst_engine::unwritableTreeIsToldToItsOwner()
{
    // As chmod 555.
    QVERIFY(QFile::setPermissions(m_tree->writePath(), QFile::Permissions(0x5555)));

    const ChildResult child = ChildProcess::runInChild(
        [this] {
            EngineFailure failure;
            QVERIFY(!Engine::open(options(Access::Own), &failure));
            QCOMPARE(failure.kind, EngineFailure::Kind::NoAccess);
            QCOMPARE(failure.message,
                     QStringLiteral("Directory '%1' cannot be written").arg(m_tree->writePath()));
        },
        ChildProcess::User::Nobody);

    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

void tst_engine::productVariantIsServed()
{
    EngineOptions options = this->options(Access::Read);
    options.productPostfix = QStringLiteral("car");

    EngineFailure failure;
    const std::unique_ptr<Engine> engine = Engine::open(options, &failure);

    QVERIFY(engine);
    QCOMPARE(engine->dispatcher().getData(volume, { TuloRoles::Value() }).value(),
             QList<QVariant>({ number(9).__variant() }));
}

void tst_engine::textsAreInTheLanguage()
{
    EngineOptions options = this->options(Access::Read);
    options.defaultPath = QStringLiteral(TULO_EXAMPLE_TREE);
    options.language = QStringLiteral("de");
    options.catalogues = QStringList(QStringLiteral(TULO_CATALOGUES));

    EngineFailure failure;
    std::unique_ptr<Engine> engine = Engine::open(options, &failure);
    QVERIFY(engine);
    QCOMPARE(engine->catalogueCount(), 1);
    const TrString title = TrString::fromVariant(
        engine->dispatcher().getData(volume, { TuloRoles::Title() }).value().value(0));

    QCOMPARE(title.source(), QStringLiteral("Volume"));
    QCOMPARE(title.toString(), QString::fromUtf8("Lautst\xC3\xA4rke"));
    engine.reset();
    QCOMPARE(title.toString(), QStringLiteral("Volume"));
}

void tst_engine::secondOwnerIsTurnedAway()
{
    const std::unique_ptr<Engine> first = openEngine();

    EngineFailure failure;
    const std::unique_ptr<Engine> second = Engine::open(options(), &failure);

    QVERIFY(!second);
    QCOMPARE(failure.kind, EngineFailure::Kind::InUse);
    QCOMPARE(failure.holder, qint64(::getpid()));
    QCOMPARE(failure.message,
             QStringLiteral("The writable tree '%1' is in use by process %2")
                 .arg(m_tree->writePath(), QString::number(::getpid())));
}

void tst_engine::readerTakesNoLock()
{
    const std::unique_ptr<Engine> reader = openEngine(Access::Read);

    QVERIFY(!reader->ownsTree());
    QCOMPARE(reader->otherOwner(), std::nullopt);
    QCOMPARE(m_tree->writtenEntries(), QStringList());
    const std::unique_ptr<Engine> owner = openEngine();
    QVERIFY(owner->ownsTree());
}

void tst_engine::readerSaysWhoOwnsTheTree()
{
    const std::unique_ptr<Engine> owner = openEngine();

    const std::unique_ptr<Engine> reader = openEngine(Access::Read);

    QCOMPARE(reader->otherOwner(), std::optional<qint64>(::getpid()));
    const auto reply = sendValue(reader->dispatcher(), volume, number(1));
    QCOMPARE(errorText(reply),
             QStringLiteral("Unavailable: The writable tree '%1' is in use by process %2")
                 .arg(m_tree->writePath(), QString::number(::getpid())));
}

void tst_engine::readerRefusesChanges()
{
    const std::unique_ptr<Engine> engine = openEngine(Access::Read);

    const auto change = sendValue(engine->dispatcher(), volume, number(1));

    QCOMPARE(errorText(change),
             QStringLiteral("Unavailable: The writable tree '%1' is open for reading only")
                 .arg(m_tree->writePath()));
    QCOMPARE(engine->dispatcher().getData(volume, { TuloRoles::Value() }).value(),
             QList<QVariant>({ number(5).__variant() }));
}

void tst_engine::interruptedChangeIsFinishedBeforeAnythingIsRead()
{
    m_tree->writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":6}})");
    writeJournal(*m_tree);

    const auto engine = openEngine();

    QCOMPARE(engine->notes(),
             QStringList(QStringLiteral("'%1': finished a change of 1 files that was interrupted")
                             .arg(m_tree->writePath())));
    QVERIFY(engine->ownsTree());
    QCOMPARE(valueOf(*engine), number(7).__variant());
    QVERIFY(m_tree->readWritten(journal).isNull());
}

// What is in its way is somebody's directory.
void tst_engine::changeThatCannotBeFinishedLeavesTheTreeReadable()
{
    writeJournal(*m_tree);
    m_tree->makeWriteDirectory(QStringLiteral("/audio/.volume"));
    const QString reason =
        QStringLiteral("a change of several files has begun and is finished when the tree is "
                       "opened for changes the next time: A temporary file that is a link or not "
                       "a regular file in the writable tree is in the way of 'audio/volume'");
    {
        const auto engine = openEngine();

        QCOMPARE(engine->notes(),
                 QStringList(QStringLiteral("'%1': %2").arg(m_tree->writePath(), reason)));
        QVERIFY(!engine->ownsTree());
        QCOMPARE(valueOf(*engine), number(5).__variant());
        QCOMPARE(errorText(sendValue(engine->dispatcher(), volume, number(8))),
                 QStringLiteral("Unavailable: The writable tree '%1' admits no change: %2")
                     .arg(m_tree->writePath(), reason));
        QVERIFY(engine->stop());
    }
    QVERIFY(QDir(m_tree->writePath()).rmdir(QStringLiteral("audio/.volume")));

    const auto engine = openEngine();

    QVERIFY(engine->ownsTree());
    QCOMPARE(valueOf(*engine), number(7).__variant());
}

void tst_engine::damagedJournalIsToldAndStopsNothing()
{
    m_tree->writeWritten(journal, QByteArrayLiteral("my notes"));

    const auto engine = openEngine();

    QCOMPARE(engine->notes().size(), 1);
    QVERIFY2(engine->notes().constFirst().contains(QLatin1String("was not written by this")),
             qPrintable(engine->notes().constFirst()));
    QVERIFY(engine->ownsTree());
    QCOMPARE(errorText(sendValue(engine->dispatcher(), volume, number(8))), QString());
    QVERIFY(engine->stop());
    QCOMPARE(m_tree->readWritten(journal), QByteArrayLiteral("my notes"));
}

void tst_engine::readerLeavesAnInterruptedChangeAlone()
{
    writeJournal(*m_tree);

    const auto engine = openEngine(Access::Read);

    QCOMPARE(engine->notes(), QStringList());
    QCOMPARE(valueOf(*engine), number(5).__variant());
    QVERIFY(!m_tree->readWritten(journal).isNull());
}

void tst_engine::requestsPassTheGuard()
{
    const std::unique_ptr<Engine> engine = openEngine();

    const auto reply = engine->dispatcher().getRows(CMPath(QStringLiteral("/settings")), -1, 9, {});

    QCOMPARE(errorCode(reply.error()), ErrorCode::Refused);
}

void tst_engine::changesAreAnnounced()
{
    const std::unique_ptr<Engine> engine = openEngine();
    RegistryObserver observer(engine->registry());
    observer.subscribeValue(volume.text());

    sendValue(engine->dispatcher(), volume, number(1));

    QCOMPARE(observer.texts(),
             QStringList(QStringLiteral("value /settings/audio/volume {int: 1}")));
}

void tst_engine::observersOutliveTheWorkerThatAResetReplaces()
{
    class Observer : public CMSubscriber
    {
    public:
        void dataChanged(const CMPath& path) override { paths.append(path.text()); }

        QStringList paths;
    };
    const QString old = QStringLiteral("/settings/audio/old");
    m_tree->writeWritten(QStringLiteral("/audio/old"), R"({"value":{"int":1}})");
    const std::unique_ptr<Engine> engine = openEngine();
    Observer observer;
    Observer removed;
    engine->addObserver(&observer);
    engine->addObserver(&removed);
    engine->removeObserver(&removed);
    CMSubscribe* const before = engine->registry();

    Engine::Reset reset;
    QVERIFY(!engine->planReset({ old, volume.text() }, {}, &reset));
    QCOMPARE(reset.settings, QStringList(old));
    QVERIFY(!engine->carryOut(&reset));

    QVERIFY(engine->registry() != before);
    QVERIFY(m_tree->readWritten(QStringLiteral("/audio/old")).isNull());
    QCOMPARE(errorText(sendValue(engine->dispatcher(), volume, number(1))), QString());
    QCOMPARE(observer.paths, QStringList(volume.text()));
    QCOMPARE(removed.paths, QStringList());
    QCOMPARE(flushed(*engine).error, QString());
    QVERIFY(!m_tree->readWritten(QStringLiteral("/audio/volume")).isNull());
    engine->removeObserver(&observer);
}

// ---------------------------------------------------------------------------------------------
// What is on disk
// ---------------------------------------------------------------------------------------------

void tst_engine::acceptedChangeIsPendingUntilTheFlush()
{
    const std::unique_ptr<Engine> engine = openEngine();

    QCOMPARE(errorText(sendValue(engine->dispatcher(), volume, number(1))), QString());
    QCOMPARE(engine->writes().pendingPaths(), QStringList(volume.text()));
    QVERIFY(!engine->writes().isSaved());

    QCOMPARE(flushed(*engine).error, QString());
    QVERIFY(engine->writes().isSaved());
    QVERIFY(!engine->writes().needsFlush());
    QCOMPARE(m_tree->readWrittenRoles(QStringLiteral("/audio/volume")).value(TuloRoles::Value()),
             number(1).__variant());
}

void tst_engine::acceptedChangeIsWrittenByTheTimer()
{
    const std::unique_ptr<Engine> engine = openEngine();
    sendValue(engine->dispatcher(), volume, number(1));

    QVERIFY(waitForTimer(*engine));

    QVERIFY(engine->writes().isSaved());
    QVERIFY(engine->writes().needsFlush());
    QVERIFY(!m_tree->readWritten(QStringLiteral("/audio/volume")).isNull());
}

void tst_engine::failedWriteIsStoredAgainByTheNextFlush()
{
    const QString record = QStringLiteral("Settings: path '%1/audio/.volume' rename to path "
                                          "'%1/audio/volume' failed")
                               .arg(m_tree->writePath());
    m_log->expect(log4cplus::ERROR_LOG_LEVEL, record);
    const std::unique_ptr<Engine> engine = openEngine();
    const auto reply = sendValue(engine->dispatcher(), volume, number(1));
    const qint64 timestamp = TuloRoles(TuloHash(reply.value().toHash())).timestamp();
    m_tree->makeWriteDirectory(QStringLiteral("/audio/volume"));

    const FlushResult failed = flushed(*engine);
    QCOMPARE(failed.error, QString());
    QCOMPARE(failed.unsaved, 1);
    QCOMPARE(engine->writes().unsavedPaths(), QStringList(volume.text()));
    QCOMPARE(engine->writes().lastError(), record);
    QVERIFY(!engine->writes().isSaved());

    QVERIFY(QDir().rmdir(m_tree->writePath() + QStringLiteral("/audio/volume")));
    QCOMPARE(flushed(*engine).unsaved, 0);

    QVERIFY(engine->writes().isSaved());
    const TuloRoles written(TuloHash(m_tree->readWrittenRoles(QStringLiteral("/audio/volume"))));
    QCOMPARE(written.value(), number(1));
    QCOMPARE(written.timestamp(), timestamp);
}

void tst_engine::unsavedValueOutlivesTheWorkersCache()
{
    m_log->expect(log4cplus::ERROR_LOG_LEVEL,
                  QStringLiteral("Settings: path '%1/audio/.volume' rename to path "
                                 "'%1/audio/volume' failed")
                      .arg(m_tree->writePath()));
    const std::unique_ptr<Engine> engine = openEngine();
    sendValue(engine->dispatcher(), volume, number(1));
    m_tree->makeWriteDirectory(QStringLiteral("/audio/volume"));
    QCOMPARE(flushed(*engine).unsaved, 1);
    QVERIFY(QDir().rmdir(m_tree->writePath() + QStringLiteral("/audio/volume")));

    QCOMPARE(errorText(engine->dispatcher().dropCache()), QString());
    QCOMPARE(flushed(*engine).unsaved, 0);

    QCOMPARE(engine->dispatcher().getData(volume, { TuloRoles::Value() }).value(),
             QList<QVariant>({ number(1).__variant() }));
}

void tst_engine::failedSyncMakesEverythingSinceTheLastGoodOneUnsaved()
{
    const std::unique_ptr<Engine> engine = openEngine();
    sendValue(engine->dispatcher(), CMPath(QStringLiteral("/settings/audio/balance")), number(1));
    QCOMPARE(flushed(*engine).error, QString());
    sendValue(engine->dispatcher(), volume, number(1));
    QVERIFY(waitForTimer(*engine));
    syncError = EIO;

    const FlushResult failed = flushed(*engine);

    QCOMPARE(failed.error, QStringLiteral("The file system did not sync: Input/output error"));
    QCOMPARE(engine->writes().unsavedPaths(), QStringList(volume.text()));
    QCOMPARE(engine->writes().lastError(), failed.error);
    QVERIFY(!engine->writes().isSaved());

    // The system reports an error once; what it was about is written again.
    syncError = 0;
    QVERIFY(QFile::remove(m_tree->writePath() + QStringLiteral("/audio/volume")));
    QCOMPARE(flushed(*engine).error, QString());
    QVERIFY(engine->writes().isSaved());
    QCOMPARE(m_tree->readWrittenRoles(QStringLiteral("/audio/volume")).value(TuloRoles::Value()),
             number(1).__variant());
}

void tst_engine::flushThatWaitsHoldsUpNoRequest()
{
    QSemaphore gate;
    syncGate = [&gate] {
        gate.acquire();
    };
    const std::unique_ptr<Engine> engine = openEngine();
    sendValue(engine->dispatcher(), volume, number(1));
    int answers = 0;
    engine->flush([&answers](const FlushResult&) { ++answers; });
    QTRY_COMPARE_WITH_TIMEOUT(syncCount.load(), 1, replyWaitMs);

    QCOMPARE(errorText(sendValue(engine->dispatcher(), volume, number(2))), QString());
    QCOMPARE(engine->dispatcher().getData(volume, { TuloRoles::Value() }).value(),
             QList<QVariant>({ number(2).__variant() }));
    QCOMPARE(answers, 0);

    gate.release();
    QTRY_COMPARE_WITH_TIMEOUT(answers, 1, replyWaitMs);
    gate.release(2);
}

void tst_engine::flushesThatWaitShareTheNext()
{
    QSemaphore gate;
    syncGate = [&gate] {
        gate.acquire();
    };
    const std::unique_ptr<Engine> engine = openEngine();
    QStringList answers;
    engine->flush([&answers](const FlushResult&) { answers.append(QStringLiteral("a")); });
    QTRY_COMPARE_WITH_TIMEOUT(syncCount.load(), 1, replyWaitMs);

    sendValue(engine->dispatcher(), volume, number(1));
    engine->flush([&answers](const FlushResult&) { answers.append(QStringLiteral("b")); });
    engine->flush([&answers](const FlushResult&) { answers.append(QStringLiteral("c")); });
    gate.release();
    QTRY_COMPARE_WITH_TIMEOUT(syncCount.load(), 2, replyWaitMs);
    QCOMPARE(answers, QStringList(QStringLiteral("a")));
    QVERIFY(!m_tree->readWritten(QStringLiteral("/audio/volume")).isNull());

    gate.release();
    QTRY_COMPARE_WITH_TIMEOUT(answers.size(), 3, replyWaitMs);
    QCOMPARE(syncCount.load(), 2);
}

void tst_engine::manyWritesAreConfirmedUnasked()
{
    for (int i = 0; i < Flusher::maximumUnconfirmed; ++i)
        m_tree->writeDefault(QStringLiteral("/many/n%1").arg(i), R"({"value":{"int":0}})");
    const std::unique_ptr<Engine> engine = openEngine();
    for (int i = 0; i < Flusher::maximumUnconfirmed; ++i)
        sendValue(engine->dispatcher(), CMPath(QStringLiteral("/settings/many/n%1").arg(i)),
                  number(1));

    QTRY_VERIFY_WITH_TIMEOUT(!engine->writes().needsFlush(), replyWaitMs);

    QVERIFY(syncCount >= 1);
}

void tst_engine::largestValueIsStoredAgain()
{
    m_tree->writeDefault(QStringLiteral("/audio/text"), R"({"id":"T","value":{"string":""}})");
    m_log->expect(log4cplus::ERROR_LOG_LEVEL,
                  QStringLiteral("Settings: path '%1/audio/.text' open file failed")
                      .arg(m_tree->writePath()));
    const std::unique_ptr<Engine> engine = openEngine();
    const TuloValue large = TuloValue::of(TuloValue::String(),
                                          QString(Guard::maximumValueBytes - 13, QLatin1Char('x')));
    QCOMPARE(errorText(sendValue(engine->dispatcher(),
                                 CMPath(QStringLiteral("/settings/audio/text")), large)),
             QString());
    m_tree->makeWriteDirectory(QStringLiteral("/audio/.text"));
    QCOMPARE(flushed(*engine).unsaved, 1);
    QVERIFY(QDir().rmdir(m_tree->writePath() + QStringLiteral("/audio/.text")));

    QCOMPARE(flushed(*engine).unsaved, 0);

    QVERIFY(m_tree->readWrittenRoles(QStringLiteral("/audio/text")).value(TuloRoles::Value())
            == large.__variant());
}

void tst_engine::changeWithoutAValueIsStoredAgainWithoutOne()
{
    m_tree->writeDefault(QStringLiteral("/audio/loud"),
                         R"({"value":{"int":200},"edit":{"max":100}})");
    const CMPath loud(QStringLiteral("/settings/audio/loud"));
    m_log->expect(log4cplus::ERROR_LOG_LEVEL,
                  QStringLiteral("Settings: path '%1/audio/.loud' open file failed")
                      .arg(m_tree->writePath()));
    const std::unique_ptr<Engine> engine = openEngine();
    TuloRoles roles;
    roles.setId(QStringLiteral("A"));
    QCOMPARE(errorText(sendRoles(engine->dispatcher(), loud, roles)), QString());
    m_tree->makeWriteDirectory(QStringLiteral("/audio/.loud"));
    QCOMPARE(flushed(*engine).unsaved, 1);
    QVERIFY(QDir().rmdir(m_tree->writePath() + QStringLiteral("/audio/.loud")));

    QCOMPARE(flushed(*engine).unsaved, 0);

    QCOMPARE(engine->dispatcher().getData(loud, { TuloRoles::Value() }).value(),
             QList<QVariant>({ number(200).__variant() }));
}

void tst_engine::stopAnswersEveryFlush()
{
    const std::unique_ptr<Engine> engine = openEngine();
    sendValue(engine->dispatcher(), volume, number(1));
    QStringList answers;
    engine->flush([&answers](const FlushResult& result) { answers.append(result.error); });

    QVERIFY(engine->stop());

    QCOMPARE(answers, QStringList(QString()));
    QVERIFY(!m_tree->readWritten(QStringLiteral("/audio/volume")).isNull());
}

void tst_engine::replacedTreeIsNotSaved()
{
    const std::unique_ptr<Engine> engine = openEngine();
    sendValue(engine->dispatcher(), volume, number(1));
    const QString tree = m_tree->writePath();
    QVERIFY(QDir().rename(tree, tree + QLatin1String(".old")));
    QVERIFY(QDir().mkdir(tree));

    const FlushResult result = flushed(*engine);

    QVERIFY2(result.error.contains(tree), qPrintable(result.error));
    QVERIFY(!engine->stop());
}

void tst_engine::replacedTreeIsNoticedAfterAWrite()
{
    const std::unique_ptr<Engine> engine = openEngine();
    const QString tree = m_tree->writePath();
    sendValue(engine->dispatcher(), volume, number(1));
    QVERIFY(QDir().rename(tree, tree + QLatin1String(".old")));
    QVERIFY(QDir().mkdir(tree));

    QTRY_VERIFY_WITH_TIMEOUT(engine->writes().lastError().contains(tree), replyWaitMs);
}

void tst_engine::changeToAReplacedTreeIsRefused()
{
    const std::unique_ptr<Engine> engine = openEngine();
    const QString tree = m_tree->writePath();
    QVERIFY(QDir().rename(tree, tree + QLatin1String(".old")));
    QVERIFY(QDir().mkdir(tree));

    QCOMPARE(errorText(sendValue(engine->dispatcher(), volume, number(1))),
             QStringLiteral("Unavailable: The writable tree '%1' has been replaced").arg(tree));

    QVERIFY(!engine->ownsTree());
    QVERIFY(engine->isTreeReplaced());
    QVERIFY(engine->stop());
    QVERIFY(QDir(tree).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));
}

void tst_engine::stopFlushesWhatIsPending()
{
    const std::unique_ptr<Engine> engine = openEngine();
    sendValue(engine->dispatcher(), volume, number(1));

    QVERIFY(engine->stop());

    QCOMPARE(m_tree->readWrittenRoles(QStringLiteral("/audio/volume")).value(TuloRoles::Value()),
             number(1).__variant());
    QVERIFY(engine->writes().isSaved());
    QCOMPARE(syncCount.load(), 1);
}

void tst_engine::stopSyncsWhatTheTimerWrote()
{
    const std::unique_ptr<Engine> engine = openEngine();
    sendValue(engine->dispatcher(), volume, number(1));
    QVERIFY(waitForTimer(*engine));
    QCOMPARE(syncCount.load(), 0);

    QVERIFY(engine->stop());

    QCOMPARE(syncCount.load(), 1);
}

void tst_engine::stopWithoutChangesRunsNoSync()
{
    const std::unique_ptr<Engine> engine = openEngine();
    engine->dispatcher().getData(volume, { TuloRoles::Value() });

    QVERIFY(engine->stop());

    QCOMPARE(syncCount.load(), 0);
}

void tst_engine::workersSlotForWritingHasItsName()
{
    const std::unique_ptr<Engine> engine = openEngine();
    CMWorker* const worker = loadWorker(QStringLiteral(TULO_PLUGIN_FILE), {}).worker.release();

    QVERIFY(worker->metaObject()->indexOfSlot("on_writeTimer_timeout()") >= 0);
    delete worker;
}

void tst_engine::stopTellsOfAFailedWrite()
{
    m_log->expect(log4cplus::ERROR_LOG_LEVEL,
                  QStringLiteral("Settings: path '%1/audio/.volume' rename to path "
                                 "'%1/audio/volume' failed")
                      .arg(m_tree->writePath()));
    const std::unique_ptr<Engine> engine = openEngine();
    sendValue(engine->dispatcher(), volume, number(1));
    m_tree->makeWriteDirectory(QStringLiteral("/audio/volume"));

    QVERIFY(!engine->stop());
    QVERIFY(!engine->stop());

    QCOMPARE(engine->writes().unsavedPaths(), QStringList(volume.text()));
}

void tst_engine::stopGivesTheTreeBackAndRefusesRequests()
{
    const std::unique_ptr<Engine> engine = openEngine();

    QVERIFY(engine->stop());

    QVERIFY(!engine->ownsTree());
    QCOMPARE(engine->registry(), nullptr);
    QCOMPARE(errorCode(engine->dispatcher().getData(volume, {}).error()), ErrorCode::Unavailable);
    const std::unique_ptr<Engine> next = openEngine();
    QVERIFY(next->ownsTree());
}

void tst_engine::destructionFlushes()
{
    std::unique_ptr<Engine> engine = openEngine();
    sendValue(engine->dispatcher(), volume, number(1));

    engine.reset();

    QVERIFY(!m_tree->readWritten(QStringLiteral("/audio/volume")).isNull());
}

QTEST_GUILESS_MAIN(tst_engine)
#include "tst_engine.moc"
