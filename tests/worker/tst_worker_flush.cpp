#include "changefixture.h"

#include "api/core/model/tulosettingsactions.h"
#include "api/core/tuloprocesshandler.h"

#include <QTest>

// Stands in for running a program, while a test looks on.
static std::function<TuloProcessResult(const QString&, const QStringList&, int)> onStart; // NOLINT

TuloProcessResult realStart(const QString& program, const QStringList& arguments, int timeout) asm(
    "__real__ZN18TuloProcessHandler9startSyncERK7QStringRK11QStringListi");
TuloProcessResult wrappedStart(
    const QString& program, const QStringList& arguments,
    int timeout) asm("__wrap__ZN18TuloProcessHandler9startSyncERK7QStringRK11QStringListi");

TuloProcessResult wrappedStart(const QString& program, const QStringList& arguments, int timeout)
{
    return onStart ? onStart(program, arguments, timeout) : realStart(program, arguments, timeout);
}

class tst_WorkerFlush : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void emptyTableWritesNothingAndSyncs();
    void savedFileIsOnDiskWhenTheAnswerComes();
    void secondFlushWritesNothingAndSyncsAgain();
    void syncIsRunWithoutArgumentsForThirtySeconds();
    void stepsComeInOrder();
    void failedSyncIsLoggedAndAnsweredAsASuccess_data();
    void failedSyncIsLoggedAndAnsweredAsASuccess();
    void missingSyncIsLoggedAndAnsweredAsASuccess();
    void lateSyncIsLoggedAndAnsweredAsASuccess();
    void successfulSyncIsNotLogged();
    void failedWriteStopsNeitherTheOthersNorTheSync();
    void timerAndValueCacheAreLeftAlone();
    void flushOnTheWorkersThreadHoldsTheMutex();
    void flushFromAnotherThreadHoldsNoMutex();
    void changeAndFlushFromAnotherThreadReachTheDisk();

private:
    CMReply<QVariant> flush() const;

    std::unique_ptr<ChangeFixture> m_fixture;
};

void tst_WorkerFlush::init()
{
    m_fixture = std::make_unique<ChangeFixture>();
}

void tst_WorkerFlush::cleanup()
{
    onStart = nullptr;
    m_fixture->log.verifyNothingUnexpected();
    m_fixture.reset();
}

CMReply<QVariant> tst_WorkerFlush::flush() const
{
    return activate(m_fixture->worker.get(), TuloSettingsActionsFlush());
}

void tst_WorkerFlush::emptyTableWritesNothingAndSyncs()
{
    const FakeSync sync(m_fixture->tree);

    const auto reply = flush();

    QCOMPARE(sync.runs(), 1);
    QVERIFY(reply.isFinished());
    QCOMPARE(errorText(reply), QString());
    QVERIFY(!reply.value().isValid());
    QCOMPARE(m_fixture->tree.writtenEntries(), QStringList());
    QCOMPARE(m_fixture->log.messages(log4cplus::INFO_LOG_LEVEL),
             QStringList({ "Flush action: write cached data"_s, "Flush action: sync"_s }));
}

void tst_WorkerFlush::savedFileIsOnDiskWhenTheAnswerComes()
{
    const FakeSync sync(m_fixture->tree);
    const auto saved = m_fixture->set("/audio/volume"_s, intValue(5));
    const auto reply = CMReply<QVariant>::create();
    QByteArray onDisk;
    const ReplyHook hook(reply, [&] { onDisk = m_fixture->tree.readWritten("/audio/volume"_s); });

    m_fixture->worker->setDataRequest(
        CMSetDataRequest(TuloSettingsActionsFlush(), TuloRoles::Activate(), QVariant(), reply));

    QCOMPARE(onDisk, json(saved.value()));
    QVERIFY(m_fixture->worker->m_pendingWrites.isEmpty());
}

void tst_WorkerFlush::secondFlushWritesNothingAndSyncsAgain()
{
    const FakeSync sync(m_fixture->tree);
    m_fixture->set("/audio/volume"_s, intValue(5));
    flush();
    m_fixture->log.take();

    const auto reply = flush();

    QCOMPARE(sync.runs(), 2);
    QVERIFY(reply.isFinished());
    QCOMPARE(m_fixture->log.messages(log4cplus::INFO_LOG_LEVEL),
             QStringList({ "Flush action: write cached data"_s, "Flush action: sync"_s }));
}

void tst_WorkerFlush::syncIsRunWithoutArgumentsForThirtySeconds()
{
    QStringList started;
    onStart = [&](const QString& program, const QStringList& arguments, int timeout) {
        started.append(
            QStringLiteral("'%1' %2 %3").arg(program).arg(arguments.size()).arg(timeout));
        return TuloProcessResult();
    };

    flush();

    QCOMPARE(started, QStringList { "'sync' 0 30000"_s });
}

void tst_WorkerFlush::stepsComeInOrder()
{
    m_fixture->set("/audio/volume"_s, intValue(5));
    const auto reply = CMReply<QVariant>::create();
    Journal journal(&m_fixture->log);
    onStart = [&](const QString&, const QStringList&, int) {
        journal.note(m_fixture->tree.writtenEntries().join(" "_s)
                     + (reply.isFinished() ? ", answered"_s : ", unanswered"_s));
        return TuloProcessResult { 1, "x" };
    };
    const ReplyHook hook(reply, [&] { journal.note("answer"_s); });

    m_fixture->worker->setDataRequest(
        CMSetDataRequest(TuloSettingsActionsFlush(), TuloRoles::Activate(), QVariant(), reply));

    QCOMPARE(journal.entries(),
             QStringList({ "INFO Flush action: write cached data"_s,
                           "INFO written file: "_s + m_fixture->fileName("/audio/volume"_s),
                           "INFO Flush action: sync"_s, "/audio/ /audio/volume, unanswered"_s,
                           "ERROR Sync failed with return code1, output is: x"_s, "answer"_s }));
}

void tst_WorkerFlush::failedSyncIsLoggedAndAnsweredAsASuccess_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QString>("record");

    QTest::newRow("exit code") << QByteArray("printf x\nexit 1\n")
                               << "Sync failed with return code1, output is: x"_s;
    QTest::newRow("both streams") << QByteArray("printf a\nprintf b >&2\nprintf c\nexit 3\n")
                                  << "Sync failed with return code3, output is: abc"_s;
    QTest::newRow("no output") << QByteArray("exit 255\n")
                               << "Sync failed with return code255, output is: "_s;
    QTest::newRow("bytes as they are") << QByteArray("printf ' \\303\\244\\n%%1\\n'\nexit 1\n")
                                       << "Sync failed with return code1, output is:  ä\n%1\n"_s;
    QTest::newRow("crash") << QByteArray("printf x\nkill -SEGV $$\n")
                           << "Sync failed with return code139, output is: x"_s;
}

void tst_WorkerFlush::failedSyncIsLoggedAndAnsweredAsASuccess()
{
    QFETCH(QByteArray, script);
    QFETCH(QString, record);
    const FakeSync sync(m_fixture->tree, script);

    const auto reply = flush();

    QVERIFY(reply.isFinished());
    QCOMPARE(errorText(reply), QString());
    QVERIFY(!reply.value().isValid());
    m_fixture->log.expect(log4cplus::ERROR_LOG_LEVEL, record);
}

void tst_WorkerFlush::missingSyncIsLoggedAndAnsweredAsASuccess()
{
    const QByteArray before = qgetenv("PATH");
    qputenv("PATH", QFile::encodeName(m_fixture->tree.path()));
    const auto reply = flush();
    qputenv("PATH", before);

    QVERIFY(reply.isFinished());
    QCOMPARE(errorText(reply), QString());
    QVERIFY(!reply.value().isValid());
    const QStringList errors = m_fixture->log.messages(log4cplus::ERROR_LOG_LEVEL);
    QCOMPARE(errors.size(), 1);
    // What follows is the process runner's own text.
    QVERIFY2(errors.first().startsWith("Sync failed with return code-1, output is: "_s),
             qPrintable(errors.first()));
    m_fixture->log.take();
}

void tst_WorkerFlush::lateSyncIsLoggedAndAnsweredAsASuccess()
{
    onStart = [](const QString&, const QStringList&, int) {
        return TuloProcessResult { -2, "half" };
    };

    const auto reply = flush();

    QVERIFY(reply.isFinished());
    QCOMPARE(errorText(reply), QString());
    QVERIFY(!reply.value().isValid());
    m_fixture->log.expect(log4cplus::ERROR_LOG_LEVEL,
                          "Sync failed with return code-2, output is: half"_s);
}

void tst_WorkerFlush::successfulSyncIsNotLogged()
{
    const FakeSync sync(m_fixture->tree, "echo talkative\n");

    flush();

    QCOMPARE(sync.runs(), 1);
    QCOMPARE(m_fixture->log.records().size(), 2);
}

void tst_WorkerFlush::failedWriteStopsNeitherTheOthersNorTheSync()
{
    const FakeSync sync(m_fixture->tree);
    QStringList written;
    for (int i = 0; i < 10; ++i) {
        m_fixture->set("/audio/%1"_s.arg(i), intValue(i));
        if (i % 2 == 0)
            written.append("/audio/%1"_s.arg(i));
        else
            m_fixture->tree.makeWriteDirectory("/audio/.%1"_s.arg(i));
    }

    const auto reply = flush();

    QCOMPARE(sync.runs(), 1);
    QVERIFY(reply.isFinished());
    QCOMPARE(errorText(reply), QString());
    QVERIFY(m_fixture->worker->m_pendingWrites.isEmpty());
    const QStringList entries = m_fixture->tree.writtenEntries();
    QCOMPARE(entries.filter(QRegularExpression("^/audio/[0-9]$"_s)), written);
    for (int i = 1; i < 10; i += 2) {
        m_fixture->log.expect(log4cplus::ERROR_LOG_LEVEL,
                              "Settings: path '"_s + m_fixture->fileName("/audio/.%1"_s.arg(i))
                                  + "' open file failed"_s);
    }
}

void tst_WorkerFlush::timerAndValueCacheAreLeftAlone()
{
    const FakeSync sync(m_fixture->tree);
    CMSettingsWorker* worker = m_fixture->worker.get();
    m_fixture->set("/audio/volume"_s, intValue(5));
    const int timerId = worker->m_writeTimer->timerId();
    const CMSettingsWorker::CacheRecord* cached = worker->m_valueCache.object("/audio/volume"_s);

    flush();

    QVERIFY(worker->m_writeTimer->isActive());
    QCOMPARE(worker->m_writeTimer->timerId(), timerId);
    QCOMPARE(worker->m_valueCache.size(), 1);
    QCOMPARE(worker->m_valueCache.object("/audio/volume"_s), cached);
}

void tst_WorkerFlush::flushOnTheWorkersThreadHoldsTheMutex()
{
    QList<bool> wasFree;
    onStart = [&](const QString&, const QStringList&, int) {
        wasFree.append(mutexIsFree(m_fixture->worker.get()));
        return TuloProcessResult();
    };

    flush();

    QCOMPARE(wasFree, QList<bool>({ false }));
}

void tst_WorkerFlush::flushFromAnotherThreadHoldsNoMutex()
{
    CMSettingsWorker* worker = m_fixture->worker.get();
    QList<bool> wasFree;
    QList<QThread*> threads;
    onStart = [&](const QString&, const QStringList&, int) {
        wasFree.append(mutexIsFree(worker));
        threads.append(QThread::currentThread());
        return TuloProcessResult();
    };
    CMReply<QVariant> reply;

    onAnotherThread([&] { reply = flush(); });
    QVERIFY(!reply.isFinished());
    QVERIFY(wasFree.isEmpty());
    QCoreApplication::sendPostedEvents(worker);

    QVERIFY(reply.isFinished());
    QCOMPARE(wasFree, QList<bool>({ true }));
    QCOMPARE(threads, QList<QThread*>({ QThread::currentThread() }));
}

void tst_WorkerFlush::changeAndFlushFromAnotherThreadReachTheDisk()
{
    const FakeSync sync(m_fixture->tree);
    CMReply<QVariant> saved;
    CMReply<QVariant> flushed;

    onAnotherThread([&] {
        saved = m_fixture->set("/audio/volume"_s, intValue(5));
        flushed = flush();
    });
    QVERIFY(saved.isFinished());
    QVERIFY(!flushed.isFinished());
    QCoreApplication::sendPostedEvents(m_fixture->worker.get());

    QVERIFY(flushed.isFinished());
    QCOMPARE(m_fixture->tree.readWritten("/audio/volume"_s), json(saved.value()));
}

QTEST_GUILESS_MAIN(tst_WorkerFlush)
#include "tst_worker_flush.moc"
