#include "engine/host.h"
#include "engine/loader.h"

#include "api/core/language.h"
#include "tests/support/childprocess.h"
#include "tests/support/logcapture.h"
#include "tests/support/registryobserver.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

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

Q_DECLARE_METATYPE(HostFailure::Kind)

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

using Access = HostOptions::Access;

const CMPath volume(QStringLiteral("/settings/audio/volume"));

TuloValue number(int value)
{
    return TuloValue::of(TuloValue::Int(), value);
}

log4cplus::Logger workerLogger()
{
    return log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("CMSettingsWorker"));
}

} // namespace

class tst_host : public QObject
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
    void requestsPassTheGuard();
    void changesAreAnnounced();

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
    void workersSlotForWritingHasItsName();
    void stopFlushesWhatIsPending();
    void stopSyncsWhatTheTimerWrote();
    void stopWithoutChangesRunsNoSync();
    void stopTellsOfAFailedWrite();
    void stopGivesTheTreeBackAndRefusesRequests();
    void destructionFlushes();

private:
    HostOptions options(Access access = Access::Own) const;
    std::unique_ptr<Host> openHost(Access access = Access::Own) const;
    /// Waits until the worker's timer has written what is pending.
    static bool waitForTimer(Host& host);

    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<TemporaryTree> m_tree;
};

void tst_host::init()
{
    m_log = std::make_unique<LogCapture>();
    m_tree = std::make_unique<TemporaryTree>();
    m_tree->writeDefault(QStringLiteral("/audio/volume"), R"({"value":{"int":5}})");
    m_tree->writeDefault(QStringLiteral("/audio/volume_car"), R"({"value":{"int":9}})");
    syncError = 0;
    syncCount = 0;
    syncGate = nullptr;
}

void tst_host::cleanup()
{
    m_log->verifyNothingUnexpected();
    m_log.reset();
    m_tree.reset();
    workerLogger().setLogLevel(log4cplus::NOT_SET_LOG_LEVEL);
}

HostOptions tst_host::options(Access access) const
{
    HostOptions options;
    options.pluginFile = QStringLiteral(TULO_PLUGIN_FILE);
    options.defaultPath = m_tree->defaultPath();
    options.writePath = m_tree->writePath();
    options.access = access;
    return options;
}

std::unique_ptr<Host> tst_host::openHost(Access access) const
{
    HostFailure failure;
    std::unique_ptr<Host> host = Host::open(options(access), &failure);
    if (!host)
        qFatal("no host: %s", qPrintable(failure.message));
    return host;
}

bool tst_host::waitForTimer(Host& host)
{
    QSignalSpy spy(&host.writes(), &WriteTracker::changed);
    return spy.wait(replyWaitMs) && host.writes().pendingPaths().isEmpty();
}

// ---------------------------------------------------------------------------------------------
// Opening
// ---------------------------------------------------------------------------------------------

void tst_host::directoriesAreChecked_data()
{
    // %1 stands for the folder of the trees.
    QTest::addColumn<QString>("defaultPath");
    QTest::addColumn<QString>("writePath");
    QTest::addColumn<HostFailure::Kind>("kind");
    QTest::addColumn<QString>("message");
    const auto row = [](const char* name, const char* defaultPath, const char* writePath,
                        const char* message) {
        QTest::newRow(name) << QString::fromLatin1(defaultPath) << QString::fromLatin1(writePath)
                            << HostFailure::Kind::Usage << QString::fromLatin1(message);
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

void tst_host::directoriesAreChecked()
{
    QFETCH(QString, defaultPath);
    QFETCH(QString, writePath);
    QFETCH(HostFailure::Kind, kind);
    QFETCH(QString, message);
    const auto filled = [this](QString text) {
        return text.replace(QStringLiteral("%1"), m_tree->path());
    };
    HostOptions options = this->options();
    options.defaultPath = filled(defaultPath);
    options.writePath = filled(writePath);

    HostFailure failure;
    const std::unique_ptr<Host> host = Host::open(options, &failure);

    QVERIFY(!host);
    QCOMPARE(failure.message, filled(message));
    QCOMPARE(failure.kind, kind);
    // The worker, which would fall back to the device's own tree, was not made.
    QVERIFY(m_log->records().isEmpty());
    QCOMPARE(m_tree->writtenEntries(), QStringList());
}

void tst_host::linkedDirectoriesAreCanonical()
{
    QVERIFY(QFile::link(m_tree->defaultPath(), m_tree->path() + QStringLiteral("/d")));
    QVERIFY(QFile::link(m_tree->writePath(), m_tree->path() + QStringLiteral("/w")));
    HostOptions options = this->options();
    options.defaultPath = m_tree->path() + QStringLiteral("/d/");
    options.writePath = m_tree->path() + QStringLiteral("/w");

    HostFailure failure;
    const std::unique_ptr<Host> host = Host::open(options, &failure);

    QVERIFY2(host, qPrintable(failure.message));
    QCOMPARE(host->defaultPath(), m_tree->defaultPath());
    QCOMPARE(host->writePath(), m_tree->writePath());
    QVERIFY(host->ownsTree());
    QCOMPARE(errorText(host->dispatcher().setValue(volume, number(1))), QString());
    (void)host->flushNow();
    QVERIFY(host->writes().isSaved());
}

void tst_host::missingPluginIsToldAndGivesTheTreeBack()
{
    HostOptions options = this->options();
    options.pluginFile = QStringLiteral("/no/such/plugin.so");

    HostFailure failure;
    const std::unique_ptr<Host> host = Host::open(options, &failure);

    QVERIFY(!host);
    QCOMPARE(failure.kind, HostFailure::Kind::NoPlugin);
    QCOMPARE(failure.message, QStringLiteral("Plug-in '/no/such/plugin.so' does not exist"));
    QCOMPARE(OwnerLock::holderOf(m_tree->writePath()), std::nullopt);
}

void tst_host::directoryThatGoesAwayIsNoticed()
{
    HostOptions options = this->options(Access::Read);
    options.pluginFile = QStringLiteral(TULO_REMOVING_PLUGIN);

    HostFailure failure;
    const std::unique_ptr<Host> host = Host::open(options, &failure);

    QVERIFY(!host);
    QCOMPARE(failure.kind, HostFailure::Kind::NoAccess);
    QCOMPARE(failure.message, QStringLiteral("Directory '%1' has gone").arg(m_tree->writePath()));
}

void tst_host::unreadableDirectoryIsTold()
{
    QVERIFY(QFile::setPermissions(m_tree->defaultPath(), QFile::Permissions()));

    const ChildResult child = ChildProcess::runInChild(
        [this] {
            HostFailure failure;
            QVERIFY(!Host::open(options(Access::Read), &failure));
            QCOMPARE(failure.kind, HostFailure::Kind::NoAccess);
            QCOMPARE(failure.message,
                     QStringLiteral("Directory '%1' cannot be read").arg(m_tree->defaultPath()));
        },
        ChildProcess::User::Nobody);

    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

void tst_host::unwritableTreeIsToldToItsOwner()
{
    // As chmod 555.
    QVERIFY(QFile::setPermissions(m_tree->writePath(), QFile::Permissions(0x5555)));

    const ChildResult child = ChildProcess::runInChild(
        [this] {
            HostFailure failure;
            QVERIFY(!Host::open(options(Access::Own), &failure));
            QCOMPARE(failure.kind, HostFailure::Kind::NoAccess);
            QCOMPARE(failure.message,
                     QStringLiteral("Directory '%1' cannot be written").arg(m_tree->writePath()));
        },
        ChildProcess::User::Nobody);

    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

void tst_host::productVariantIsServed()
{
    HostOptions options = this->options(Access::Read);
    options.productPostfix = QStringLiteral("car");

    HostFailure failure;
    const std::unique_ptr<Host> host = Host::open(options, &failure);

    QVERIFY(host);
    QCOMPARE(host->dispatcher().getData(volume, { TuloRoles::Value() }).value(),
             QList<QVariant>({ number(9).__variant() }));
}

void tst_host::textsAreInTheLanguage()
{
    HostOptions options = this->options(Access::Read);
    options.defaultPath = QStringLiteral(TULO_EXAMPLE_TREE);
    options.language = QStringLiteral("de");
    options.catalogues = QStringList(QStringLiteral(TULO_CATALOGUES));

    HostFailure failure;
    std::unique_ptr<Host> host = Host::open(options, &failure);
    QVERIFY(host);
    QCOMPARE(host->catalogueCount(), 1);
    const TrString title = TrString::fromVariant(
        host->dispatcher().getData(volume, { TuloRoles::Title() }).value().value(0));

    QCOMPARE(title.source(), QStringLiteral("Volume"));
    QCOMPARE(title.toString(), QString::fromUtf8("Lautst\xC3\xA4rke"));
    host.reset();
    QCOMPARE(title.toString(), QStringLiteral("Volume"));
}

void tst_host::secondOwnerIsTurnedAway()
{
    const std::unique_ptr<Host> first = openHost();

    HostFailure failure;
    const std::unique_ptr<Host> second = Host::open(options(), &failure);

    QVERIFY(!second);
    QCOMPARE(failure.kind, HostFailure::Kind::InUse);
    QCOMPARE(failure.holder, qint64(::getpid()));
    QCOMPARE(failure.message,
             QStringLiteral("The writable tree '%1' is in use by process %2")
                 .arg(m_tree->writePath(), QString::number(::getpid())));
}

void tst_host::readerTakesNoLock()
{
    const std::unique_ptr<Host> reader = openHost(Access::Read);

    QVERIFY(!reader->ownsTree());
    QCOMPARE(reader->otherOwner(), std::nullopt);
    QCOMPARE(m_tree->writtenEntries(), QStringList());
    const std::unique_ptr<Host> owner = openHost();
    QVERIFY(owner->ownsTree());
}

void tst_host::readerSaysWhoOwnsTheTree()
{
    const std::unique_ptr<Host> owner = openHost();

    const std::unique_ptr<Host> reader = openHost(Access::Read);

    QCOMPARE(reader->otherOwner(), std::optional<qint64>(::getpid()));
    const auto reply = reader->dispatcher().setValue(volume, number(1));
    QCOMPARE(errorText(reply),
             QStringLiteral("InUse: The writable tree '%1' is in use by process %2")
                 .arg(m_tree->writePath(), QString::number(::getpid())));
}

void tst_host::readerRefusesChanges()
{
    const std::unique_ptr<Host> host = openHost(Access::Read);

    const auto change = host->dispatcher().setValue(volume, number(1));

    QCOMPARE(errorText(change),
             QStringLiteral("InUse: The writable tree '%1' is open for reading only")
                 .arg(m_tree->writePath()));
    QCOMPARE(host->dispatcher().getData(volume, { TuloRoles::Value() }).value(),
             QList<QVariant>({ number(5).__variant() }));
}

void tst_host::requestsPassTheGuard()
{
    const std::unique_ptr<Host> host = openHost();

    const auto reply = host->dispatcher().getRows(CMPath(QStringLiteral("/settings")), -1, 9, {});

    QCOMPARE(errorKind(reply.error()), ErrorKind::Refused);
}

void tst_host::changesAreAnnounced()
{
    const std::unique_ptr<Host> host = openHost();
    RegistryObserver observer(host->registry());
    observer.subscribeValue(volume.text());

    host->dispatcher().setValue(volume, number(1));

    QCOMPARE(observer.texts(),
             QStringList(QStringLiteral("value /settings/audio/volume {int: 1}")));
}

// ---------------------------------------------------------------------------------------------
// What is on disk
// ---------------------------------------------------------------------------------------------

void tst_host::acceptedChangeIsPendingUntilTheFlush()
{
    const std::unique_ptr<Host> host = openHost();

    QCOMPARE(errorText(host->dispatcher().setValue(volume, number(1))), QString());
    QCOMPARE(host->writes().pendingPaths(), QStringList(volume.text()));
    QVERIFY(!host->writes().isSaved());

    QCOMPARE(host->flushNow().error, QString());
    QVERIFY(host->writes().isSaved());
    QVERIFY(!host->writes().needsFlush());
    QCOMPARE(m_tree->readWrittenRoles(QStringLiteral("/audio/volume")).value(TuloRoles::Value()),
             number(1).__variant());
}

void tst_host::acceptedChangeIsWrittenByTheTimer()
{
    const std::unique_ptr<Host> host = openHost();
    host->dispatcher().setValue(volume, number(1));

    QVERIFY(waitForTimer(*host));

    QVERIFY(host->writes().isSaved());
    QVERIFY(host->writes().needsFlush());
    QVERIFY(!m_tree->readWritten(QStringLiteral("/audio/volume")).isNull());
}

void tst_host::failedWriteIsStoredAgainByTheNextFlush()
{
    const QString record = QStringLiteral("Settings: path '%1/audio/.volume' rename to path "
                                          "'%1/audio/volume' failed")
                               .arg(m_tree->writePath());
    m_log->expect(log4cplus::ERROR_LOG_LEVEL, record);
    const std::unique_ptr<Host> host = openHost();
    const auto reply = host->dispatcher().setValue(volume, number(1));
    const qint64 timestamp = TuloRoles(TuloHash(reply.value().toHash())).timestamp();
    m_tree->makeWriteDirectory(QStringLiteral("/audio/volume"));

    const FlushResult failed = host->flushNow();
    QCOMPARE(failed.error, QString());
    QCOMPARE(failed.unsaved, 1);
    QCOMPARE(host->writes().unsavedPaths(), QStringList(volume.text()));
    QCOMPARE(host->writes().lastError(), record);
    QVERIFY(!host->writes().isSaved());

    QVERIFY(QDir().rmdir(m_tree->writePath() + QStringLiteral("/audio/volume")));
    QCOMPARE(host->flushNow().unsaved, 0);

    QVERIFY(host->writes().isSaved());
    const TuloRoles written(TuloHash(m_tree->readWrittenRoles(QStringLiteral("/audio/volume"))));
    QCOMPARE(written.value(), number(1));
    QCOMPARE(written.timestamp(), timestamp);
}

void tst_host::unsavedValueOutlivesTheWorkersCache()
{
    m_log->expect(log4cplus::ERROR_LOG_LEVEL,
                  QStringLiteral("Settings: path '%1/audio/.volume' rename to path "
                                 "'%1/audio/volume' failed")
                      .arg(m_tree->writePath()));
    const std::unique_ptr<Host> host = openHost();
    host->dispatcher().setValue(volume, number(1));
    m_tree->makeWriteDirectory(QStringLiteral("/audio/volume"));
    QCOMPARE(host->flushNow().unsaved, 1);
    QVERIFY(QDir().rmdir(m_tree->writePath() + QStringLiteral("/audio/volume")));

    QCOMPARE(errorText(host->dispatcher().dropCache()), QString());
    QCOMPARE(host->flushNow().unsaved, 0);

    QCOMPARE(host->dispatcher().getData(volume, { TuloRoles::Value() }).value(),
             QList<QVariant>({ number(1).__variant() }));
}

void tst_host::failedSyncMakesEverythingSinceTheLastGoodOneUnsaved()
{
    const std::unique_ptr<Host> host = openHost();
    host->dispatcher().setValue(CMPath(QStringLiteral("/settings/audio/balance")), number(1));
    QCOMPARE(host->flushNow().error, QString());
    host->dispatcher().setValue(volume, number(1));
    QVERIFY(waitForTimer(*host));
    syncError = EIO;

    const FlushResult failed = host->flushNow();

    QCOMPARE(failed.error, QStringLiteral("The file system did not sync: Input/output error"));
    QCOMPARE(host->writes().unsavedPaths(), QStringList(volume.text()));
    QCOMPARE(host->writes().lastError(), failed.error);
    QVERIFY(!host->writes().isSaved());

    // The system reports an error once; what it was about is written again.
    syncError = 0;
    QVERIFY(QFile::remove(m_tree->writePath() + QStringLiteral("/audio/volume")));
    QCOMPARE(host->flushNow().error, QString());
    QVERIFY(host->writes().isSaved());
    QCOMPARE(m_tree->readWrittenRoles(QStringLiteral("/audio/volume")).value(TuloRoles::Value()),
             number(1).__variant());
}

void tst_host::flushThatWaitsHoldsUpNoRequest()
{
    QSemaphore gate;
    syncGate = [&gate] {
        gate.acquire();
    };
    const std::unique_ptr<Host> host = openHost();
    host->dispatcher().setValue(volume, number(1));
    int answers = 0;
    host->flush([&answers](const FlushResult&) { ++answers; });
    QTRY_COMPARE_WITH_TIMEOUT(syncCount.load(), 1, replyWaitMs);

    QCOMPARE(errorText(host->dispatcher().setValue(volume, number(2))), QString());
    QCOMPARE(host->dispatcher().getData(volume, { TuloRoles::Value() }).value(),
             QList<QVariant>({ number(2).__variant() }));
    QCOMPARE(answers, 0);

    gate.release();
    QTRY_COMPARE_WITH_TIMEOUT(answers, 1, replyWaitMs);
    gate.release(2);
}

void tst_host::flushesThatWaitShareTheNext()
{
    QSemaphore gate;
    syncGate = [&gate] {
        gate.acquire();
    };
    const std::unique_ptr<Host> host = openHost();
    QStringList answers;
    host->flush([&answers](const FlushResult&) { answers.append(QStringLiteral("a")); });
    QTRY_COMPARE_WITH_TIMEOUT(syncCount.load(), 1, replyWaitMs);

    host->dispatcher().setValue(volume, number(1));
    host->flush([&answers](const FlushResult&) { answers.append(QStringLiteral("b")); });
    host->flush([&answers](const FlushResult&) { answers.append(QStringLiteral("c")); });
    gate.release();
    QTRY_COMPARE_WITH_TIMEOUT(syncCount.load(), 2, replyWaitMs);
    QCOMPARE(answers, QStringList(QStringLiteral("a")));
    QVERIFY(!m_tree->readWritten(QStringLiteral("/audio/volume")).isNull());

    gate.release();
    QTRY_COMPARE_WITH_TIMEOUT(answers.size(), 3, replyWaitMs);
    QCOMPARE(syncCount.load(), 2);
}

void tst_host::manyWritesAreConfirmedUnasked()
{
    for (int i = 0; i < Flusher::maximumUnconfirmed; ++i)
        m_tree->writeDefault(QStringLiteral("/many/n%1").arg(i), R"({"value":{"int":0}})");
    const std::unique_ptr<Host> host = openHost();
    for (int i = 0; i < Flusher::maximumUnconfirmed; ++i)
        host->dispatcher().setValue(CMPath(QStringLiteral("/settings/many/n%1").arg(i)), number(1));

    QTRY_VERIFY_WITH_TIMEOUT(!host->writes().needsFlush(), replyWaitMs);

    QVERIFY(syncCount >= 1);
}

void tst_host::largestValueIsStoredAgain()
{
    m_tree->writeDefault(QStringLiteral("/audio/text"), R"({"id":"T","value":{"string":""}})");
    m_log->expect(log4cplus::ERROR_LOG_LEVEL,
                  QStringLiteral("Settings: path '%1/audio/.text' open file failed")
                      .arg(m_tree->writePath()));
    const std::unique_ptr<Host> host = openHost();
    const TuloValue large = TuloValue::of(TuloValue::String(),
                                          QString(Guard::maximumValueBytes - 13, QLatin1Char('x')));
    QCOMPARE(errorText(host->dispatcher().setValue(CMPath(QStringLiteral("/settings/audio/text")),
                                                   large)),
             QString());
    m_tree->makeWriteDirectory(QStringLiteral("/audio/.text"));
    QCOMPARE(host->flushNow().unsaved, 1);
    QVERIFY(QDir().rmdir(m_tree->writePath() + QStringLiteral("/audio/.text")));

    QCOMPARE(host->flushNow().unsaved, 0);

    QVERIFY(m_tree->readWrittenRoles(QStringLiteral("/audio/text")).value(TuloRoles::Value())
            == large.__variant());
}

void tst_host::changeWithoutAValueIsStoredAgainWithoutOne()
{
    m_tree->writeDefault(QStringLiteral("/audio/loud"),
                         R"({"value":{"int":200},"edit":{"max":100}})");
    const CMPath loud(QStringLiteral("/settings/audio/loud"));
    m_log->expect(log4cplus::ERROR_LOG_LEVEL,
                  QStringLiteral("Settings: path '%1/audio/.loud' open file failed")
                      .arg(m_tree->writePath()));
    const std::unique_ptr<Host> host = openHost();
    TuloRoles roles;
    roles.setId(QStringLiteral("A"));
    QCOMPARE(errorText(host->dispatcher().setRoles(loud, roles)), QString());
    m_tree->makeWriteDirectory(QStringLiteral("/audio/.loud"));
    QCOMPARE(host->flushNow().unsaved, 1);
    QVERIFY(QDir().rmdir(m_tree->writePath() + QStringLiteral("/audio/.loud")));

    QCOMPARE(host->flushNow().unsaved, 0);

    QCOMPARE(host->dispatcher().getData(loud, { TuloRoles::Value() }).value(),
             QList<QVariant>({ number(200).__variant() }));
}

void tst_host::stopAnswersEveryFlush()
{
    const std::unique_ptr<Host> host = openHost();
    host->dispatcher().setValue(volume, number(1));
    QStringList answers;
    host->flush([&answers](const FlushResult& result) { answers.append(result.error); });

    QVERIFY(host->stop());

    QCOMPARE(answers, QStringList(QString()));
    QVERIFY(!m_tree->readWritten(QStringLiteral("/audio/volume")).isNull());
}

void tst_host::replacedTreeIsNotSaved()
{
    const std::unique_ptr<Host> host = openHost();
    host->dispatcher().setValue(volume, number(1));
    const QString tree = m_tree->writePath();
    QVERIFY(QDir().rename(tree, tree + QLatin1String(".old")));
    QVERIFY(QDir().mkdir(tree));

    const FlushResult result = host->flushNow();

    QVERIFY2(result.error.contains(tree), qPrintable(result.error));
    QVERIFY(!host->stop());
}

void tst_host::replacedTreeIsNoticedAfterAWrite()
{
    const std::unique_ptr<Host> host = openHost();
    const QString tree = m_tree->writePath();
    QVERIFY(QDir().rename(tree, tree + QLatin1String(".old")));
    QVERIFY(QDir().mkdir(tree));
    host->dispatcher().setValue(volume, number(1));

    QTRY_VERIFY_WITH_TIMEOUT(host->writes().lastError().contains(tree), replyWaitMs);
}

void tst_host::stopFlushesWhatIsPending()
{
    const std::unique_ptr<Host> host = openHost();
    host->dispatcher().setValue(volume, number(1));

    QVERIFY(host->stop());

    QCOMPARE(m_tree->readWrittenRoles(QStringLiteral("/audio/volume")).value(TuloRoles::Value()),
             number(1).__variant());
    QVERIFY(host->writes().isSaved());
    QCOMPARE(syncCount.load(), 1);
}

void tst_host::stopSyncsWhatTheTimerWrote()
{
    const std::unique_ptr<Host> host = openHost();
    host->dispatcher().setValue(volume, number(1));
    QVERIFY(waitForTimer(*host));
    QCOMPARE(syncCount.load(), 0);

    QVERIFY(host->stop());

    QCOMPARE(syncCount.load(), 1);
}

void tst_host::stopWithoutChangesRunsNoSync()
{
    const std::unique_ptr<Host> host = openHost();
    host->dispatcher().getData(volume, { TuloRoles::Value() });

    QVERIFY(host->stop());

    QCOMPARE(syncCount.load(), 0);
}

void tst_host::workersSlotForWritingHasItsName()
{
    const std::unique_ptr<Host> host = openHost();
    CMWorker* const worker = loadWorker(QStringLiteral(TULO_PLUGIN_FILE), {}).worker.release();

    QVERIFY(worker->metaObject()->indexOfSlot("on_writeTimer_timeout()") >= 0);
    delete worker;
}

void tst_host::stopTellsOfAFailedWrite()
{
    m_log->expect(log4cplus::ERROR_LOG_LEVEL,
                  QStringLiteral("Settings: path '%1/audio/.volume' rename to path "
                                 "'%1/audio/volume' failed")
                      .arg(m_tree->writePath()));
    const std::unique_ptr<Host> host = openHost();
    host->dispatcher().setValue(volume, number(1));
    m_tree->makeWriteDirectory(QStringLiteral("/audio/volume"));

    QVERIFY(!host->stop());
    QVERIFY(!host->stop());

    QCOMPARE(host->writes().unsavedPaths(), QStringList(volume.text()));
}

void tst_host::stopGivesTheTreeBackAndRefusesRequests()
{
    const std::unique_ptr<Host> host = openHost();

    QVERIFY(host->stop());

    QVERIFY(!host->ownsTree());
    QCOMPARE(host->registry(), nullptr);
    QCOMPARE(errorKind(host->dispatcher().getData(volume, {}).error()), ErrorKind::Stopped);
    const std::unique_ptr<Host> next = openHost();
    QVERIFY(next->ownsTree());
}

void tst_host::destructionFlushes()
{
    std::unique_ptr<Host> host = openHost();
    host->dispatcher().setValue(volume, number(1));

    host.reset();

    QVERIFY(!m_tree->readWritten(QStringLiteral("/audio/volume")).isNull());
}

QTEST_GUILESS_MAIN(tst_host)
#include "tst_host.moc"
