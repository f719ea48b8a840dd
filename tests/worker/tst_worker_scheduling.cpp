#include "changefixture.h"

#include "api/core/model/tulosettingsactions.h"

#include <QTest>

#include <QElapsedTimer>
#include <QSignalSpy>

#include <thread>

class tst_WorkerScheduling : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void firstSaveStartsTheTimer();
    void laterSavesLeaveTheTimerAlone();
    void secondSaveWithinTheDelayWritesOnce();
    void saveLateInTheDelayIsWrittenWithTheBatch();
    void saveAfterTheTimerFiredArmsItAgain();
    void expiredTimerWritesByItself();
    void pendingEntryIsReplacedWhole();
    void drainLeavesTheTimerRunning();
    void expiryAfterAFlushWritesNothing();
    void saveAfterAFlushIsWrittenAtTheExpiry();
    void failedWriteIsDropped();
    void entryScheduledDuringTheDrainIsDropped();
    void entriesArePendingUntilTheLastOneIsWritten();
    void pendingRolesAreReadInPlaceOfTheFile_data();
    void pendingRolesAreReadInPlaceOfTheFile();
    void loadWithinTheDelayTakesFourPendingRoles_data();
    void loadWithinTheDelayTakesFourPendingRoles();
    void scheduleFromAnotherThreadWaitsForTheWorkersThread();
    void slotsTakeNoMutex();
    void pendingWritesAreLostWithTheWorker();

private:
    /// Lets the write timer expire now, as its event loop would.
    void expireTimer() const;

    std::unique_ptr<ChangeFixture> m_fixture;
    QTimer* m_timer = nullptr;
};

void tst_WorkerScheduling::init()
{
    m_fixture = std::make_unique<ChangeFixture>();
    m_fixture->tree.writeDefault("/audio/volume"_s, R"({"value":{"int":3},"title":"Volume"})");
    m_timer = m_fixture->worker->m_writeTimer;
}

void tst_WorkerScheduling::cleanup()
{
    m_fixture->log.verifyNothingUnexpected();
    m_fixture.reset();
}

void tst_WorkerScheduling::expireTimer() const
{
    QVERIFY(m_timer->isActive());
    QTimerEvent expiry(m_timer->timerId());
    QCoreApplication::sendEvent(m_timer, &expiry);
}

void tst_WorkerScheduling::firstSaveStartsTheTimer()
{
    QVERIFY(!m_timer->isActive());

    m_fixture->set("/audio/volume"_s, intValue(5));

    QVERIFY(m_timer->isActive());
    QVERIFY(m_timer->isSingleShot());
    QCOMPARE(m_timer->interval(), 1000);
    QCOMPARE(m_fixture->tree.writtenEntries(), QStringList());
}

// A timer that is started again gets another id.
void tst_WorkerScheduling::laterSavesLeaveTheTimerAlone()
{
    m_fixture->set("/audio/volume"_s, intValue(5));
    const int timerId = m_timer->timerId();

    m_fixture->set("/audio/volume"_s, intValue(6));
    m_fixture->set("/audio/bass"_s, intValue(7));

    QVERIFY(m_timer->isActive());
    QCOMPARE(m_timer->timerId(), timerId);
}

void tst_WorkerScheduling::secondSaveWithinTheDelayWritesOnce()
{
    m_fixture->set("/audio/volume"_s, intValue(5));
    const auto second = m_fixture->set("/audio/volume"_s, intValue(6));

    expireTimer();

    QCOMPARE(m_fixture->log.messages(log4cplus::INFO_LOG_LEVEL),
             QStringList { "written file: "_s + m_fixture->fileName("/audio/volume"_s) });
    QCOMPARE(m_fixture->tree.readWritten("/audio/volume"_s), json(second.value()));
}

void tst_WorkerScheduling::saveLateInTheDelayIsWrittenWithTheBatch()
{
    m_fixture->set("/audio/volume"_s, intValue(5));
    m_fixture->set("/audio/bass"_s, intValue(6));

    expireTimer();

    QCOMPARE(m_fixture->tree.writtenEntries(),
             QStringList({ "/audio/"_s, "/audio/bass"_s, "/audio/volume"_s }));
    QVERIFY(m_fixture->worker->m_pendingWrites.isEmpty());
    QVERIFY(!m_timer->isActive());
}

void tst_WorkerScheduling::saveAfterTheTimerFiredArmsItAgain()
{
    m_fixture->set("/audio/volume"_s, intValue(5));
    expireTimer();
    QVERIFY(!m_timer->isActive());
    m_fixture->log.take();

    m_fixture->set("/audio/bass"_s, intValue(6));

    QVERIFY(m_timer->isActive());
    expireTimer();
    QCOMPARE(m_fixture->log.messages(log4cplus::INFO_LOG_LEVEL),
             QStringList { "written file: "_s + m_fixture->fileName("/audio/bass"_s) });
}

// Waits for the real timer: that it is armed with the delay, and that its expiry reaches the
// worker, shows nowhere else.
void tst_WorkerScheduling::expiredTimerWritesByItself()
{
    QSignalSpy expiries(m_timer, &QTimer::timeout);
    QElapsedTimer sinceSave;
    sinceSave.start();

    m_fixture->set("/audio/volume"_s, intValue(5));
    QVERIFY(expiries.wait(replyWaitMs));

    // The event loop may be five per cent early, and begins to count at a whole millisecond.
    QVERIFY(sinceSave.elapsed() >= 949);
    QCOMPARE(m_fixture->tree.writtenEntries(), QStringList({ "/audio/"_s, "/audio/volume"_s }));
    QVERIFY(m_fixture->worker->m_pendingWrites.isEmpty());
    QVERIFY(!m_timer->isActive());
}

void tst_WorkerScheduling::pendingEntryIsReplacedWhole()
{
    TuloRoles first;
    first.setId("left"_s);
    first.setTitle(TrString("First"_s));
    TuloRoles second;
    second.setTimestamp(12);

    m_fixture->worker->on_scheduleWrite(m_fixture->fileName("/x"_s), first);
    m_fixture->worker->on_scheduleWrite(m_fixture->fileName("/x"_s), second);

    QCOMPARE(m_fixture->worker->m_pendingWrites.size(), 1);
    QCOMPARE(m_fixture->pending("/x"_s), QByteArray(R"({"timestamp":12})"));
}

void tst_WorkerScheduling::drainLeavesTheTimerRunning()
{
    m_fixture->set("/audio/volume"_s, intValue(5));
    const int timerId = m_timer->timerId();

    m_fixture->worker->on_writeTimer_timeout();

    QVERIFY(m_timer->isActive());
    QCOMPARE(m_timer->timerId(), timerId);
    QVERIFY(m_fixture->worker->m_pendingWrites.isEmpty());
}

void tst_WorkerScheduling::expiryAfterAFlushWritesNothing()
{
    const FakeSync sync(m_fixture->tree);
    m_fixture->set("/audio/volume"_s, intValue(5));
    activate(m_fixture->worker.get(), TuloSettingsActionsFlush());
    QVERIFY(m_fixture->worker->m_pendingWrites.isEmpty());
    m_fixture->log.take();
    m_fixture->log.setLevel(log4cplus::TRACE_LOG_LEVEL);

    expireTimer();

    const QList<LogRecord> records = m_fixture->log.records();
    QCOMPARE(records.size(), 1);
    QCOMPARE(records.first().message, "Enter CMSettingsWorker::on_writeTimer_timeout: "_s);
}

void tst_WorkerScheduling::saveAfterAFlushIsWrittenAtTheExpiry()
{
    const FakeSync sync(m_fixture->tree);
    m_fixture->set("/audio/volume"_s, intValue(5));
    const int timerId = m_timer->timerId();
    activate(m_fixture->worker.get(), TuloSettingsActionsFlush());
    m_fixture->log.take();

    m_fixture->set("/audio/bass"_s, intValue(6));
    QCOMPARE(m_timer->timerId(), timerId);
    expireTimer();

    QCOMPARE(m_fixture->log.messages(log4cplus::INFO_LOG_LEVEL),
             QStringList { "written file: "_s + m_fixture->fileName("/audio/bass"_s) });
}

void tst_WorkerScheduling::failedWriteIsDropped()
{
    const QByteArray old = R"({"value":{"int":4}})";
    m_fixture->tree.writeWritten("/audio/volume"_s, old);
    m_fixture->tree.makeWriteDirectory("/audio/.volume"_s);
    const auto reply = m_fixture->set("/audio/volume"_s, intValue(5));

    expireTimer();

    QCOMPARE(errorText(reply), QString());
    QVERIFY(m_fixture->worker->m_pendingWrites.isEmpty());
    QVERIFY(!m_timer->isActive());
    QCOMPARE(m_fixture->tree.readWritten("/audio/volume"_s), old);
    QCOMPARE(json(m_fixture->worker->loadFile(m_fixture->fileName("/audio/volume"_s), false)), old);
    QCOMPARE(json(m_fixture->get("/audio/volume"_s, TuloRoles::Value())),
             QByteArray(R"({"int":5})"));
    activate(m_fixture->worker.get(), TuloSettingsActionsDropCache());
    QCOMPARE(json(m_fixture->get("/audio/volume"_s, TuloRoles::Value())),
             QByteArray(R"({"int":4})"));
    m_fixture->log.expect(log4cplus::ERROR_LOG_LEVEL,
                          "Settings: path '"_s + m_fixture->fileName("/audio/.volume"_s)
                              + "' open file failed"_s);
}

// The drain walks a copy and then empties the table, so what comes in between is not written.
void tst_WorkerScheduling::entryScheduledDuringTheDrainIsDropped()
{
    CMSettingsWorker* worker = m_fixture->worker.get();
    RecordingHandler handler;
    worker->m_encryptionHandler = &handler;
    TuloRoles roles;
    roles.setEncrypted(true);
    worker->on_scheduleWrite(m_fixture->fileName("/secret"_s), roles);
    handler.onEncrypt = [&] {
        for (int i = 0; i < 100; ++i)
            worker->on_scheduleWrite(m_fixture->fileName("/late%1"_s.arg(i)), TuloRoles());
    };

    expireTimer();

    QCOMPARE(m_fixture->tree.writtenEntries(), QStringList { "/secret"_s });
    QVERIFY(worker->m_pendingWrites.isEmpty());
}

void tst_WorkerScheduling::entriesArePendingUntilTheLastOneIsWritten()
{
    CMSettingsWorker* worker = m_fixture->worker.get();
    RecordingHandler handler;
    worker->m_encryptionHandler = &handler;
    TuloRoles roles;
    roles.setEncrypted(true);
    worker->on_scheduleWrite(m_fixture->fileName("/one"_s), roles);
    worker->on_scheduleWrite(m_fixture->fileName("/two"_s), roles);
    QList<int> pending;
    handler.onEncrypt = [&] {
        pending.append(worker->m_pendingWrites.size());
    };

    expireTimer();

    QCOMPARE(pending, QList<int>({ 2, 2 }));
}

void tst_WorkerScheduling::pendingRolesAreReadInPlaceOfTheFile_data()
{
    QTest::addColumn<QByteArray>("onDisk");

    QTest::newRow("missing file") << QByteArray();
    QTest::newRow("older file") << QByteArray(R"({"value":{"int":4},"id":"old"})");
    QTest::newRow("broken file") << QByteArray("{");
}

void tst_WorkerScheduling::pendingRolesAreReadInPlaceOfTheFile()
{
    QFETCH(QByteArray, onDisk);
    TuloRoles roles;
    roles.setValue(TuloValue::of(TuloValue::Int(), 5));
    m_fixture->worker->on_scheduleWrite(m_fixture->fileName("/audio/volume"_s), roles);
    if (!onDisk.isNull())
        m_fixture->tree.writeWritten("/audio/volume"_s, onDisk);

    const auto answer = getData(m_fixture->worker.get(), "/settings/audio/volume"_s,
                                { TuloRoles::Value(), TuloRoles::Id() });

    QCOMPARE(json(answer.value()), QByteArray(R"([{"int":5},null])"));
}

void tst_WorkerScheduling::loadWithinTheDelayTakesFourPendingRoles_data()
{
    QTest::addColumn<bool>("evict");

    QTest::newRow("after drop-cache") << false;
    QTest::newRow("after eviction") << true;
}

void tst_WorkerScheduling::loadWithinTheDelayTakesFourPendingRoles()
{
    QFETCH(bool, evict);
    CMSettingsWorker* worker = m_fixture->worker.get();
    m_fixture->setRoles("/audio/volume"_s,
                        { { TuloRoles::Value(), intValue(5) },
                          { TuloRoles::Timestamp(), 12 },
                          { TuloRoles::Id(), "left"_s },
                          { TuloRoles::Disabled(), true },
                          { TuloRoles::Title(), "Client's"_s },
                          { "colour"_s, "red"_s } });
    const QByteArray pending = m_fixture->pending("/audio/volume"_s);
    if (!evict)
        activate(worker, TuloSettingsActionsDropCache());
    for (int i = 0; evict && i < 300; ++i)
        m_fixture->get("/other/%1"_s.arg(i), TuloRoles::Value());
    QVERIFY(!worker->m_valueCache.contains("/audio/volume"_s));

    m_fixture->get("/audio/volume"_s, TuloRoles::Value());

    QCOMPARE(json(worker->m_valueCache.object("/audio/volume"_s)->roles),
             QByteArray(R"({"defaultValue":{"int":3},"id":"left","path":"/settings/audio/volume",)"
                        R"("timestamp":12,"title":"Volume","type":101,"value":{"int":5}})"));
    QCOMPARE(m_fixture->pending("/audio/volume"_s), pending);
}

void tst_WorkerScheduling::scheduleFromAnotherThreadWaitsForTheWorkersThread()
{
    CMSettingsWorker* worker = m_fixture->worker.get();
    TuloRoles roles;
    roles.setTimestamp(12);

    onAnotherThread([&] { emit worker->privateScheduleWrite(m_fixture->fileName("/x"_s), roles); });

    QVERIFY(worker->m_pendingWrites.isEmpty());
    QVERIFY(!m_timer->isActive());
    QCoreApplication::sendPostedEvents(worker);
    QCOMPARE(m_fixture->pending("/x"_s), QByteArray(R"({"timestamp":12})"));
    QVERIFY(m_timer->isActive());
}

void tst_WorkerScheduling::slotsTakeNoMutex()
{
    CMSettingsWorker* worker = m_fixture->worker.get();
    std::promise<void> locked;
    std::promise<void> done;
    std::thread holder([&] {
        const QMutexLocker locker(&worker->m_mutex);
        locked.set_value();
        done.get_future().wait();
    });
    locked.get_future().wait();

    // A slot that waited for the mutex would never come back.
    worker->on_scheduleWrite(m_fixture->fileName("/x"_s), TuloRoles());
    expireTimer();
    done.set_value();
    holder.join();

    QCOMPARE(m_fixture->tree.readWritten("/x"_s), QByteArray("{}"));
}

void tst_WorkerScheduling::pendingWritesAreLostWithTheWorker()
{
    m_fixture->set("/audio/volume"_s, intValue(5));

    m_fixture->restartWorker();

    QCOMPARE(m_fixture->tree.writtenEntries(), QStringList());
    QCOMPARE(json(m_fixture->get("/audio/volume"_s, TuloRoles::Value())),
             QByteArray(R"({"int":3})"));
}

QTEST_GUILESS_MAIN(tst_WorkerScheduling)
#include "tst_worker_scheduling.moc"
