#include "engine/writewatch.h"

#include "tests/support/logcapture.h"

#include <QSignalSpy>
#include <QTest>

#include <log4cplus/loggingmacros.h>

#include <memory>

using namespace tulo;

namespace {

const QString tree = QStringLiteral("/tree/write");
const QString volume = QStringLiteral("/settings/audio/volume");

log4cplus::Logger workerLogger()
{
    return log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("CMSettingsWorker"));
}

void info(const QString& text)
{
    LOG4CPLUS_INFO(workerLogger(), text.toStdString());
}

void error(const QString& text)
{
    LOG4CPLUS_ERROR(workerLogger(), text.toStdString());
}

const QString written = QStringLiteral("written file: /tree/write/audio/volume");
const QString failed = QStringLiteral("Settings: path '/tree/write/audio/.volume' flush failed");
const QString sync = QStringLiteral("Flush action: sync");
const TuloRoles roles { TuloHash({ { QStringLiteral("timestamp"), 5 } }) };
const QString syncFailed = QStringLiteral("Sync failed with return code1, output is: x");

} // namespace

/// The watch on records that are emitted here as the worker emits them.
class tst_writewatch : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void nothingIsKnownAtFirst();
    void acceptedPathIsPendingUntilItIsWritten();
    void everyFailureIsReadFromItsRecord_data();
    void everyFailureIsReadFromItsRecord();
    void unsavedPathIsSavedByALaterWrite();
    void unsavedPathStaysWhenAnotherIsWritten();
    void writtenPathIsConfirmedByTheNextSync();
    void syncConfirmsNothingWrittenAfterItBegan();
    void failedSyncMakesWrittenPathsUnsaved();
    void unsavedChangesHoldTheirRoles();
    void unsavedChangeThatIsPendingAgainIsLeftToTheWorker();
    void unconfirmedChangesAddUp();
    void unconfirmedPathsAreCounted();
    void workersOwnSyncConfirmsNothing();
    void longErrorIsCut();
    void revisionGrowsWithWhatIsUnsavedOnly();
    void otherRecordsChangeNothing_data();
    void otherRecordsChangeNothing();
    void treeAtTheRootIsWatched();
    void changesAreSignalled();
    void attachingTwiceCountsOnce();
    void attachingLowersTheLevelToInfo();
    void attachingLeavesALowerLevel();
    void recordsAfterAReconfigurationAreReadWhenAttachedAgain();
    void destroyedWatchIsOffTheLogger();

private:
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<WriteWatch> m_watch;
};

void tst_writewatch::init()
{
    m_log = std::make_unique<LogCapture>();
    m_watch = std::make_unique<WriteWatch>(tree, CMPath(QStringLiteral("/settings")));
    m_watch->attach();
}

void tst_writewatch::cleanup()
{
    m_watch.reset();
    m_log.reset();
    workerLogger().setLogLevel(log4cplus::NOT_SET_LOG_LEVEL);
}

void tst_writewatch::nothingIsKnownAtFirst()
{
    QCOMPARE(m_watch->pendingPaths(), QStringList());
    QCOMPARE(m_watch->unsavedPaths(), QStringList());
    QCOMPARE(m_watch->lastError(), QString());
    QVERIFY(!m_watch->needsFlush());
    QVERIFY(m_watch->isSaved());
}

void tst_writewatch::acceptedPathIsPendingUntilItIsWritten()
{
    m_watch->addPending(CMPath(volume), roles);
    m_watch->addPending(CMPath(QStringLiteral("/settings/audio/bass")), roles);
    QCOMPARE(m_watch->pendingPaths(),
             QStringList({ QStringLiteral("/settings/audio/bass"), volume }));
    QVERIFY(!m_watch->isSaved());
    QVERIFY(m_watch->needsFlush());

    info(written);
    QCOMPARE(m_watch->pendingPaths(), QStringList(QStringLiteral("/settings/audio/bass")));

    info(QStringLiteral("written file: /tree/write/audio/bass"));
    QCOMPARE(m_watch->pendingPaths(), QStringList());
    QVERIFY(m_watch->isSaved());
}

void tst_writewatch::everyFailureIsReadFromItsRecord_data()
{
    QTest::addColumn<QString>("record");
    QTest::addColumn<QString>("path");
    const auto row = [](const char* name, const char* record, const char* path) {
        QTest::newRow(name) << QStringLiteral("Settings: path '") + QString::fromUtf8(record)
                            << QString::fromUtf8(path);
    };
    row("directory", "/tree/write/audio/volume' could not create parent directory",
        "/settings/audio/volume");
    row("open", "/tree/write/audio/.volume' open file failed", "/settings/audio/volume");
    row("not writable", "/tree/write/audio/.volume' file is not writeable",
        "/settings/audio/volume");
    row("serialization", "/tree/write/audio/.volume' could not serialize variant value",
        "/settings/audio/volume");
    row("write", "/tree/write/audio/.volume' write to file failed", "/settings/audio/volume");
    row("flush", "/tree/write/audio/.volume' flush failed", "/settings/audio/volume");
    row("fsync", "/tree/write/audio/.volume' fsync failed", "/settings/audio/volume");
    row("rename", "/tree/write/audio/.volume' rename to path '/tree/write/audio/volume' failed",
        "/settings/audio/volume");
    row("top", "/tree/write/.volume' flush failed", "/settings/volume");
    row("top, renamed", "/tree/write/.volume' rename to path '/tree/write/volume' failed",
        "/settings/volume");
    row("other letters", "/tree/write/\xC3\xA4/.\xC3\xB6' flush failed",
        "/settings/\xC3\xA4/\xC3\xB6");
    row("quote", "/tree/write/a/.it's' flush failed", "/settings/a/it's");
    row("quote, renamed", "/tree/write/a/.it's' rename to path '/tree/write/a/it's' failed",
        "/settings/a/it's");
    row("name like a record",
        "/tree/write/a/.x' rename to path 'y' rename to path '/tree/write/a/x' rename to path "
        "'y' failed",
        "/settings/a/x' rename to path 'y");
    row("name like another record", "/tree/write/a/.x' flush failed' fsync failed",
        "/settings/a/x' flush failed");
}

void tst_writewatch::everyFailureIsReadFromItsRecord()
{
    QFETCH(QString, record);
    QFETCH(QString, path);
    m_watch->addPending(CMPath(path), roles);

    error(record);

    QCOMPARE(m_watch->unsavedPaths(), QStringList(path));
    QCOMPARE(m_watch->pendingPaths(), QStringList());
    QCOMPARE(m_watch->lastError(), record);
    QVERIFY(!m_watch->isSaved());
}

void tst_writewatch::unsavedPathIsSavedByALaterWrite()
{
    error(failed);
    info(sync);
    QCOMPARE(m_watch->unsavedPaths(), QStringList(volume));

    m_watch->addPending(CMPath(volume), roles);
    info(written);

    QCOMPARE(m_watch->unsavedPaths(), QStringList());
    QCOMPARE(m_watch->unsavedCount(), 0);
    QVERIFY(m_watch->isSaved());
    // The last error is history and stays.
    QCOMPARE(m_watch->lastError(), failed);
}

void tst_writewatch::unsavedPathStaysWhenAnotherIsWritten()
{
    error(failed);

    info(QStringLiteral("written file: /tree/write/audio/bass"));

    QCOMPARE(m_watch->unsavedPaths(), QStringList(volume));
}

void tst_writewatch::writtenPathIsConfirmedByTheNextSync()
{
    m_watch->addPending(CMPath(volume), roles);
    info(written);
    QVERIFY(m_watch->needsFlush());

    m_watch->endSync(m_watch->beginSync(), QString());

    QVERIFY(!m_watch->needsFlush());
    QVERIFY(m_watch->isSaved());
}

void tst_writewatch::syncConfirmsNothingWrittenAfterItBegan()
{
    const int number = m_watch->beginSync();
    m_watch->addPending(CMPath(volume), roles);
    info(written);

    m_watch->endSync(number, QString());

    QVERIFY(m_watch->needsFlush());
    QVERIFY(m_watch->isSaved());
}

void tst_writewatch::failedSyncMakesWrittenPathsUnsaved()
{
    m_watch->addPending(CMPath(volume), roles);
    info(written);
    const int number = m_watch->beginSync();
    // The error may be about it as well.
    m_watch->addPending(CMPath(QStringLiteral("/settings/audio/bass")), roles);
    info(QStringLiteral("written file: /tree/write/audio/bass"));

    m_watch->endSync(number, QStringLiteral("broken"));

    QCOMPARE(m_watch->unsavedPaths(),
             QStringList({ QStringLiteral("/settings/audio/bass"), volume }));
    QCOMPARE(m_watch->unsavedCount(), 2);
    QCOMPARE(m_watch->lastError(), QStringLiteral("broken"));
    QVERIFY(!m_watch->isSaved());
}

void tst_writewatch::unsavedChangesHoldTheirRoles()
{
    m_watch->addPending(CMPath(volume), roles);
    error(failed);

    const QVector<WriteWatch::Change> changes = m_watch->unsavedChanges();

    QCOMPARE(changes.size(), 1);
    QCOMPARE(changes.first().path, CMPath(volume));
    QVERIFY(changes.first().roles == roles);
}

void tst_writewatch::unsavedChangeThatIsPendingAgainIsLeftToTheWorker()
{
    m_watch->addPending(CMPath(volume), roles);
    error(failed);

    m_watch->addPending(CMPath(volume), roles);

    QVERIFY(m_watch->unsavedChanges().isEmpty());
    QCOMPARE(m_watch->unsavedPaths(), QStringList(volume));
}

void tst_writewatch::unconfirmedChangesAddUp()
{
    m_watch->addPending(CMPath(volume),
                        TuloRoles(TuloHash({ { QStringLiteral("id"), QStringLiteral("A") },
                                             { QStringLiteral("timestamp"), 4 } })));
    m_watch->addPending(CMPath(volume), roles);
    error(failed);

    QVERIFY(m_watch->unsavedChanges().first().roles
            == TuloRoles(TuloHash({ { QStringLiteral("id"), QStringLiteral("A") },
                                    { QStringLiteral("timestamp"), 5 } })));
}

void tst_writewatch::unconfirmedPathsAreCounted()
{
    m_watch->addPending(CMPath(volume), roles);
    QCOMPARE(m_watch->unconfirmedCount(), 0);
    info(written);
    info(written);
    QCOMPARE(m_watch->unconfirmedCount(), 1);

    m_watch->endSync(m_watch->beginSync(), QString());

    QCOMPARE(m_watch->unconfirmedCount(), 0);
}

void tst_writewatch::workersOwnSyncConfirmsNothing()
{
    m_watch->addPending(CMPath(volume), roles);
    info(written);

    info(sync);
    QVERIFY(m_watch->needsFlush());

    error(syncFailed);
    QCOMPARE(m_watch->lastError(), syncFailed);
    QVERIFY(m_watch->isSaved());
}

void tst_writewatch::longErrorIsCut()
{
    error(QStringLiteral("Sync failed with return code1, output is: ")
          + QString(100000, QLatin1Char('x')));

    QCOMPARE(m_watch->lastError().size(), WriteWatch::maximumErrorLength);
}

void tst_writewatch::revisionGrowsWithWhatIsUnsavedOnly()
{
    const int before = m_watch->revision();
    m_watch->addPending(CMPath(volume), roles);
    info(written);
    QCOMPARE(m_watch->revision(), before);

    error(failed);
    QVERIFY(m_watch->revision() > before);
}

void tst_writewatch::otherRecordsChangeNothing_data()
{
    QTest::addColumn<QString>("record");
    QTest::newRow("other tree") << QStringLiteral("written file: /tree/write2/audio/volume");
    QTest::newRow("tree itself") << QStringLiteral("written file: /tree/write");
    QTest::newRow("unparsable file")
        << QStringLiteral("Settings: Unable to parse '/tree/write/audio/volume': flush failed");
    QTest::newRow("unknown failure")
        << QStringLiteral("Settings: path '/tree/write/audio/.volume' got lost");
    QTest::newRow("half a rename")
        << QStringLiteral("Settings: path '/tree/write/audio/.volume' failed");
    QTest::newRow("first step of a flush") << QStringLiteral("Flush action: write cached data");
    QTest::newRow("empty") << QString();
}

void tst_writewatch::otherRecordsChangeNothing()
{
    QFETCH(QString, record);
    m_watch->addPending(CMPath(volume), roles);

    error(record);

    QCOMPARE(m_watch->pendingPaths(), QStringList(volume));
    QCOMPARE(m_watch->unsavedPaths(), QStringList());
    QCOMPARE(m_watch->lastError(), QString());
}

void tst_writewatch::treeAtTheRootIsWatched()
{
    WriteWatch watch(QStringLiteral("/"), CMPath(QStringLiteral("/settings")));
    watch.attach();
    watch.addPending(CMPath(volume), roles);

    info(QStringLiteral("written file: //audio/volume"));

    QCOMPARE(watch.pendingPaths(), QStringList());
}

void tst_writewatch::changesAreSignalled()
{
    QSignalSpy spy(m_watch.get(), &WriteWatch::changed);

    m_watch->addPending(CMPath(volume), roles);
    info(written);
    error(failed);
    m_watch->endSync(m_watch->beginSync(), QString());
    info(QStringLiteral("something else"));

    QCOMPARE(spy.count(), 4);
}

void tst_writewatch::attachingTwiceCountsOnce()
{
    QSignalSpy spy(m_watch.get(), &WriteWatch::changed);

    m_watch->attach();
    info(written);

    QCOMPARE(spy.count(), 1);
}

void tst_writewatch::attachingLowersTheLevelToInfo()
{
    workerLogger().setLogLevel(log4cplus::ERROR_LOG_LEVEL);
    m_watch->addPending(CMPath(volume), roles);

    m_watch->attach();
    info(written);

    QCOMPARE(workerLogger().getLogLevel(), log4cplus::INFO_LOG_LEVEL);
    QCOMPARE(m_watch->pendingPaths(), QStringList());
}

void tst_writewatch::attachingLeavesALowerLevel()
{
    workerLogger().setLogLevel(log4cplus::TRACE_LOG_LEVEL);

    m_watch->attach();

    QCOMPARE(workerLogger().getLogLevel(), log4cplus::TRACE_LOG_LEVEL);
}

void tst_writewatch::recordsAfterAReconfigurationAreReadWhenAttachedAgain()
{
    m_watch->addPending(CMPath(volume), roles);
    workerLogger().removeAllAppenders();
    workerLogger().setLogLevel(log4cplus::OFF_LOG_LEVEL);

    m_watch->attach();
    info(written);

    QCOMPARE(m_watch->pendingPaths(), QStringList());
}

void tst_writewatch::destroyedWatchIsOffTheLogger()
{
    m_watch.reset();

    QVERIFY(workerLogger().getAllAppenders().empty());
    info(written);
}

QTEST_GUILESS_MAIN(tst_writewatch)
#include "tst_writewatch.moc"
