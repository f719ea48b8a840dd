#include "engine/writetracker.h"

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

/// A tracker of records that are emitted here as the worker emits them.
class tst_writetracker : public QObject
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
    void unconfirmedChangesAreSorted();
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
    std::unique_ptr<WriteTracker> m_tracker;
};

void tst_writetracker::init()
{
    m_log = std::make_unique<LogCapture>();
    m_tracker = std::make_unique<WriteTracker>(tree, CMPath(QStringLiteral("/settings")));
    m_tracker->attach();
}

void tst_writetracker::cleanup()
{
    m_tracker.reset();
    m_log.reset();
    workerLogger().setLogLevel(log4cplus::NOT_SET_LOG_LEVEL);
}

void tst_writetracker::nothingIsKnownAtFirst()
{
    QCOMPARE(m_tracker->pendingPaths(), QStringList());
    QCOMPARE(m_tracker->unsavedPaths(), QStringList());
    QCOMPARE(m_tracker->lastError(), QString());
    QVERIFY(!m_tracker->needsFlush());
    QVERIFY(m_tracker->isSaved());
}

void tst_writetracker::acceptedPathIsPendingUntilItIsWritten()
{
    m_tracker->addPending(CMPath(volume), roles);
    m_tracker->addPending(CMPath(QStringLiteral("/settings/audio/bass")), roles);
    QCOMPARE(m_tracker->pendingPaths(),
             QStringList({ QStringLiteral("/settings/audio/bass"), volume }));
    QVERIFY(!m_tracker->isSaved());
    QVERIFY(m_tracker->needsFlush());

    info(written);
    QCOMPARE(m_tracker->pendingPaths(), QStringList(QStringLiteral("/settings/audio/bass")));

    info(QStringLiteral("written file: /tree/write/audio/bass"));
    QCOMPARE(m_tracker->pendingPaths(), QStringList());
    QVERIFY(m_tracker->isSaved());
}

void tst_writetracker::everyFailureIsReadFromItsRecord_data()
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

void tst_writetracker::everyFailureIsReadFromItsRecord()
{
    QFETCH(QString, record);
    QFETCH(QString, path);
    m_tracker->addPending(CMPath(path), roles);

    error(record);

    QCOMPARE(m_tracker->unsavedPaths(), QStringList(path));
    QCOMPARE(m_tracker->pendingPaths(), QStringList());
    QCOMPARE(m_tracker->lastError(), record);
    QVERIFY(!m_tracker->isSaved());
}

void tst_writetracker::unsavedPathIsSavedByALaterWrite()
{
    error(failed);
    info(sync);
    QCOMPARE(m_tracker->unsavedPaths(), QStringList(volume));

    m_tracker->addPending(CMPath(volume), roles);
    info(written);

    QCOMPARE(m_tracker->unsavedPaths(), QStringList());
    QCOMPARE(m_tracker->unsavedCount(), 0);
    QVERIFY(m_tracker->isSaved());
    // The last error is history and stays.
    QCOMPARE(m_tracker->lastError(), failed);
}

void tst_writetracker::unsavedPathStaysWhenAnotherIsWritten()
{
    error(failed);

    info(QStringLiteral("written file: /tree/write/audio/bass"));

    QCOMPARE(m_tracker->unsavedPaths(), QStringList(volume));
}

void tst_writetracker::writtenPathIsConfirmedByTheNextSync()
{
    m_tracker->addPending(CMPath(volume), roles);
    info(written);
    QVERIFY(m_tracker->needsFlush());

    m_tracker->endSync(m_tracker->beginSync(), QString());

    QVERIFY(!m_tracker->needsFlush());
    QVERIFY(m_tracker->isSaved());
}

void tst_writetracker::syncConfirmsNothingWrittenAfterItBegan()
{
    const int number = m_tracker->beginSync();
    m_tracker->addPending(CMPath(volume), roles);
    info(written);

    m_tracker->endSync(number, QString());

    QVERIFY(m_tracker->needsFlush());
    QVERIFY(m_tracker->isSaved());
}

void tst_writetracker::failedSyncMakesWrittenPathsUnsaved()
{
    m_tracker->addPending(CMPath(volume), roles);
    info(written);
    const int number = m_tracker->beginSync();
    // The error may be about it as well.
    m_tracker->addPending(CMPath(QStringLiteral("/settings/audio/bass")), roles);
    info(QStringLiteral("written file: /tree/write/audio/bass"));

    m_tracker->endSync(number, QStringLiteral("broken"));

    QCOMPARE(m_tracker->unsavedPaths(),
             QStringList({ QStringLiteral("/settings/audio/bass"), volume }));
    QCOMPARE(m_tracker->unsavedCount(), 2);
    QCOMPARE(m_tracker->lastError(), QStringLiteral("broken"));
    QVERIFY(!m_tracker->isSaved());
}

void tst_writetracker::unsavedChangesHoldTheirRoles()
{
    m_tracker->addPending(CMPath(volume), roles);
    error(failed);

    const QVector<WriteTracker::Change> changes = m_tracker->unsavedChanges();

    QCOMPARE(changes.size(), 1);
    QCOMPARE(changes.first().path, CMPath(volume));
    QVERIFY(changes.first().roles == roles);
}

void tst_writetracker::unsavedChangeThatIsPendingAgainIsLeftToTheWorker()
{
    m_tracker->addPending(CMPath(volume), roles);
    error(failed);

    m_tracker->addPending(CMPath(volume), roles);

    QVERIFY(m_tracker->unsavedChanges().isEmpty());
    QCOMPARE(m_tracker->unsavedPaths(), QStringList(volume));
}

void tst_writetracker::unconfirmedChangesAddUp()
{
    m_tracker->addPending(CMPath(volume),
                          TuloRoles(TuloHash({ { QStringLiteral("id"), QStringLiteral("A") },
                                               { QStringLiteral("timestamp"), 4 } })));
    m_tracker->addPending(CMPath(volume), roles);
    error(failed);

    QVERIFY(m_tracker->unsavedChanges().first().roles
            == TuloRoles(TuloHash({ { QStringLiteral("id"), QStringLiteral("A") },
                                    { QStringLiteral("timestamp"), 5 } })));
}

void tst_writetracker::unconfirmedChangesAreSorted()
{
    QStringList paths;
    for (char name = 'a'; name <= 'z'; ++name)
        paths.append(QStringLiteral("/settings/%1").arg(QLatin1Char(name)));
    for (const QString& path : qAsConst(paths))
        m_tracker->addPending(CMPath(path), roles);

    QStringList listed;
    const QVector<WriteTracker::Change> changes = m_tracker->unconfirmedChanges();
    for (const WriteTracker::Change& change : changes)
        listed.append(change.path.text());
    QCOMPARE(listed, paths);
}

void tst_writetracker::unconfirmedPathsAreCounted()
{
    m_tracker->addPending(CMPath(volume), roles);
    QCOMPARE(m_tracker->unconfirmedCount(), 0);
    info(written);
    info(written);
    QCOMPARE(m_tracker->unconfirmedCount(), 1);

    m_tracker->endSync(m_tracker->beginSync(), QString());

    QCOMPARE(m_tracker->unconfirmedCount(), 0);
}

void tst_writetracker::workersOwnSyncConfirmsNothing()
{
    m_tracker->addPending(CMPath(volume), roles);
    info(written);

    info(sync);
    QVERIFY(m_tracker->needsFlush());

    error(syncFailed);
    QCOMPARE(m_tracker->lastError(), syncFailed);
    QVERIFY(m_tracker->isSaved());
}

void tst_writetracker::longErrorIsCut()
{
    error(QStringLiteral("Sync failed with return code1, output is: ")
          + QString(100000, QLatin1Char('x')));

    QCOMPARE(m_tracker->lastError().size(), WriteTracker::maximumErrorLength);
}

void tst_writetracker::revisionGrowsWithWhatIsUnsavedOnly()
{
    const int before = m_tracker->revision();
    m_tracker->addPending(CMPath(volume), roles);
    info(written);
    QCOMPARE(m_tracker->revision(), before);

    error(failed);
    QVERIFY(m_tracker->revision() > before);
}

void tst_writetracker::otherRecordsChangeNothing_data()
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

void tst_writetracker::otherRecordsChangeNothing()
{
    QFETCH(QString, record);
    m_tracker->addPending(CMPath(volume), roles);

    error(record);

    QCOMPARE(m_tracker->pendingPaths(), QStringList(volume));
    QCOMPARE(m_tracker->unsavedPaths(), QStringList());
    QCOMPARE(m_tracker->lastError(), QString());
}

void tst_writetracker::treeAtTheRootIsWatched()
{
    WriteTracker tracker(QStringLiteral("/"), CMPath(QStringLiteral("/settings")));
    tracker.attach();
    tracker.addPending(CMPath(volume), roles);

    info(QStringLiteral("written file: //audio/volume"));

    QCOMPARE(tracker.pendingPaths(), QStringList());
}

void tst_writetracker::changesAreSignalled()
{
    QSignalSpy spy(m_tracker.get(), &WriteTracker::changed);

    m_tracker->addPending(CMPath(volume), roles);
    info(written);
    error(failed);
    m_tracker->endSync(m_tracker->beginSync(), QString());
    info(QStringLiteral("something else"));

    QCOMPARE(spy.count(), 4);
}

void tst_writetracker::attachingTwiceCountsOnce()
{
    QSignalSpy spy(m_tracker.get(), &WriteTracker::changed);

    m_tracker->attach();
    info(written);

    QCOMPARE(spy.count(), 1);
}

void tst_writetracker::attachingLowersTheLevelToInfo()
{
    workerLogger().setLogLevel(log4cplus::ERROR_LOG_LEVEL);
    m_tracker->addPending(CMPath(volume), roles);

    m_tracker->attach();
    info(written);

    QCOMPARE(workerLogger().getLogLevel(), log4cplus::INFO_LOG_LEVEL);
    QCOMPARE(m_tracker->pendingPaths(), QStringList());
}

void tst_writetracker::attachingLeavesALowerLevel()
{
    workerLogger().setLogLevel(log4cplus::TRACE_LOG_LEVEL);

    m_tracker->attach();

    QCOMPARE(workerLogger().getLogLevel(), log4cplus::TRACE_LOG_LEVEL);
}

void tst_writetracker::recordsAfterAReconfigurationAreReadWhenAttachedAgain()
{
    m_tracker->addPending(CMPath(volume), roles);
    workerLogger().removeAllAppenders();
    workerLogger().setLogLevel(log4cplus::OFF_LOG_LEVEL);

    m_tracker->attach();
    info(written);

    QCOMPARE(m_tracker->pendingPaths(), QStringList());
}

void tst_writetracker::destroyedWatchIsOffTheLogger()
{
    m_tracker.reset();

    QVERIFY(workerLogger().getAllAppenders().empty());
    info(written);
}

QTEST_GUILESS_MAIN(tst_writetracker)
#include "tst_writetracker.moc"
