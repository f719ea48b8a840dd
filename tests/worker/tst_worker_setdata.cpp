#include "changefixture.h"

#include "api/core/model/cmoperation.h"
#include "api/core/model/tulosettingsactions.h"

#include <QTest>

#include <QDeadlineTimer>

#include <thread>

// What the worker passes to CMOperation::apply(), while a test looks on; the result is then the
// test's own.
struct Application
{
    QByteArray current;
    QByteArray edit;
    QByteArray operation;
};
static std::function<TuloValue(const Application&)> onApply; // NOLINT: set by tests

TuloValue realApply(
    const TuloValue& current, const TuloEdit& edit,
    const TuloOperation& operation) asm("__real__ZN11CMOperation5applyERK9TuloValueRK8TuloEdit"
                                        "RK13TuloOperation");
TuloValue wrappedApply(
    const TuloValue& current, const TuloEdit& edit,
    const TuloOperation& operation) asm("__wrap__ZN11CMOperation5applyERK9TuloValueRK8TuloEdit"
                                        "RK13TuloOperation");

TuloValue wrappedApply(const TuloValue& current, const TuloEdit& edit,
                       const TuloOperation& operation)
{
    return onApply ? onApply({ json(current), json(edit), json(operation) })
                   : realApply(current, edit, operation);
}

class tst_WorkerSetData : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void dropCacheEmptiesTheValueCacheOnly();
    void valueOfAnActionIsIgnored();
    void flushLeavesTheReplyToItsHandler();
    void flushOnTheWorkersThreadEndsInsideTheRequest();
    void flushFromAnotherThreadWaitsForTheWorkersThread();
    void activateElsewhereIsRefused_data();
    void activateElsewhereIsRefused();
    void otherRoleIsRefused_data();
    void otherRoleIsRefused();
    void pathIsCorrectedBeforeTheRoleIsJudged();
    void relativePathIsServedWithAWarning();
    void wholeRolesAreSaved();
    void valueAloneIsSaved();
    void valueThatIsNoHashIsSavedAsEmpty_data();
    void valueThatIsNoHashIsSavedAsEmpty();
    void operationIsAppliedToStoredValueAndConstraints();
    void operationOnAMissingSettingStartsEmpty();
    void operationSeesAChangeThatIsNotYetWritten();
    void mutexIsHeldOnEveryWay_data();
    void mutexIsHeldOnEveryWay();
    void requestIsLoggedBeforeTheMutexIsWaitedFor();
    void everyRequestIsAnsweredOnce_data();
    void everyRequestIsAnsweredOnce();

private:
    std::unique_ptr<ChangeFixture> m_fixture;
    std::unique_ptr<FakeSync> m_sync;
};

void tst_WorkerSetData::init()
{
    m_fixture = std::make_unique<ChangeFixture>();
    m_sync = std::make_unique<FakeSync>(m_fixture->tree);
    m_fixture->tree.writeDefault("/audio/volume"_s, R"({"value":{"int":3},"edit":{"max":50}})");
    m_fixture->tree.writeDefault("/audio/fixed"_s, R"({"value":{"int":3},"modifiable":false})");
}

void tst_WorkerSetData::cleanup()
{
    onApply = nullptr;
    m_sync.reset();
    m_fixture->log.verifyNothingUnexpected();
    m_fixture.reset();
}

void tst_WorkerSetData::dropCacheEmptiesTheValueCacheOnly()
{
    CMSettingsWorker* worker = m_fixture->worker.get();
    getRows(worker, "/settings/audio"_s, 0, 9, { TuloRoles::Value() });
    m_fixture->set("/audio/volume"_s, intValue(5));
    const QStringList listed = m_fixture->listing("/audio"_s);
    const QByteArray pending = m_fixture->pending("/audio/volume"_s);
    const int timerId = worker->m_writeTimer->timerId();
    QVERIFY(worker->m_valueCache.totalCost() > 0);

    const auto reply = activate(worker, TuloSettingsActionsDropCache());

    QVERIFY(reply.isFinished());
    QCOMPARE(errorText(reply), QString());
    QVERIFY(!reply.value().isValid());
    QVERIFY(worker->m_valueCache.isEmpty());
    QCOMPARE(worker->m_valueCache.totalCost(), 0);
    QCOMPARE(listed, QStringList({ "fixed"_s, "volume"_s }));
    QCOMPARE(worker->m_dirCache.keys(), QStringList({ "/audio"_s }));
    QCOMPARE(m_fixture->listing("/audio"_s), listed);
    QCOMPARE(worker->m_pendingWrites.size(), 1);
    QCOMPARE(m_fixture->pending("/audio/volume"_s), pending);
    QVERIFY(worker->m_writeTimer->isActive());
    QCOMPARE(worker->m_writeTimer->timerId(), timerId);
    QCOMPARE(m_fixture->log.messages(log4cplus::INFO_LOG_LEVEL),
             QStringList({ "Dropping settings cache"_s }));
}

void tst_WorkerSetData::valueOfAnActionIsIgnored()
{
    const auto reply =
        setData(m_fixture->worker.get(), TuloSettingsActionsDropCache().text(),
                TuloRoles::Activate(), QVariantHash { { TuloRoles::Path(), "x"_s } });

    QCOMPARE(errorText(reply), QString());
    QVERIFY(reply.isFinished());
    QVERIFY(!reply.value().isValid());
}

void tst_WorkerSetData::flushLeavesTheReplyToItsHandler()
{
    CMSettingsWorker* worker = m_fixture->worker.get();
    QVERIFY(worker->disconnect(worker, &CMSettingsWorker::privateFlushInvoked, worker, nullptr));
    QList<CMSetDataRequest> invoked;
    connect(worker, &CMSettingsWorker::privateFlushInvoked, this,
            [&invoked](const CMSetDataRequest& request) { invoked.append(request); });

    const auto reply = activate(worker, TuloSettingsActionsFlush());

    QVERIFY(!reply.isFinished());
    QCOMPARE(invoked.size(), 1);
    QCOMPARE(invoked.first().reply().data(), reply.data());
    worker->on_flush_invoked(invoked.first());
    QVERIFY(reply.isFinished());
    QVERIFY(!reply.value().isValid());
}

void tst_WorkerSetData::flushOnTheWorkersThreadEndsInsideTheRequest()
{
    m_fixture->set("/audio/volume"_s, intValue(5));

    const auto reply = activate(m_fixture->worker.get(), TuloSettingsActionsFlush());

    QVERIFY(reply.isFinished());
    QCOMPARE(m_fixture->tree.writtenEntries(), QStringList({ "/audio/"_s, "/audio/volume"_s }));
    QCOMPARE(m_sync->runs(), 1);
}

void tst_WorkerSetData::flushFromAnotherThreadWaitsForTheWorkersThread()
{
    CMSettingsWorker* worker = m_fixture->worker.get();
    m_fixture->set("/audio/volume"_s, intValue(5));
    const auto reply = CMReply<QVariant>::create();
    const ReplyWaiter waiter(reply);
    QList<bool> wasFree;
    const ReplyHook hook(reply, [&] { wasFree.append(mutexIsFree(worker)); });

    onAnotherThread([&] {
        worker->setDataRequest(
            CMSetDataRequest(TuloSettingsActionsFlush(), TuloRoles::Activate(), QVariant(), reply));
    });

    QVERIFY(!reply.isFinished());
    QVERIFY(m_fixture->tree.writtenEntries().isEmpty());
    QVERIFY(mutexIsFree(worker));
    QCoreApplication::sendPostedEvents(worker);
    QVERIFY(reply.isFinished());
    QCOMPARE(waiter.finishingThread(), QThread::currentThread());
    QCOMPARE(wasFree, QList<bool>({ true }));
    QCOMPARE(m_fixture->tree.writtenEntries(), QStringList({ "/audio/"_s, "/audio/volume"_s }));
    QCOMPARE(m_sync->runs(), 1);
}

void tst_WorkerSetData::activateElsewhereIsRefused_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("message");

    QTest::newRow("setting") << "/settings/audio/volume"_s
                             << "Invalid activate path: '/settings/audio/volume'"_s;
    QTest::newRow("encoded") << "/settings/ä b"_s
                             << "Invalid activate path: '/settings/%C3%A4%20b'"_s;
    QTest::newRow("below an action") << "/settings/actions/flush/"_s
                                     << "Invalid activate path: '/settings/actions/flush/'"_s;
    // Relative forms are no actions, and are not corrected with a warning either.
    QTest::newRow("relative flush") << "settings/actions/flush"_s
                                    << "Invalid activate path: 'settings/actions/flush'"_s;
    QTest::newRow("relative drop-cache") << "settings/actions/dropCache"_s
                                         << "Invalid activate path: 'settings/actions/dropCache'"_s;
    QTest::newRow("empty") << QString() << "Invalid activate path: ''"_s;
}

void tst_WorkerSetData::activateElsewhereIsRefused()
{
    QFETCH(QString, path);
    QFETCH(QString, message);

    const auto reply = activate(m_fixture->worker.get(), CMPath(path));

    QVERIFY(reply.error()
            == CMError(QVariantHash { { CMError::Name(), "Error"_s },
                                      { CMError::Message(), TrString(message) },
                                      { CMError::Title(), CMError::DefaultTitle() } }));
    QVERIFY(m_fixture->worker->m_valueCache.isEmpty());
    QCOMPARE(m_sync->runs(), 0);
}

void tst_WorkerSetData::otherRoleIsRefused_data()
{
    QTest::addColumn<QString>("role");

    QTest::newRow("title") << TuloRoles::Title();
    QTest::newRow("permission") << TuloRoles::Permission();
    QTest::newRow("none") << QString();
    QTest::newRow("another case") << "Value"_s;
    QTest::newRow("activate in another case") << "Activate"_s;
    QTest::newRow("marker") << "%1"_s;
    QTest::newRow("letters") << "ä b"_s;
}

void tst_WorkerSetData::otherRoleIsRefused()
{
    QFETCH(QString, role);

    const auto reply =
        setData(m_fixture->worker.get(), "/settings/audio/volume"_s, role, intValue(5));

    QVERIFY(reply.error()
            == CMError(
                QVariantHash { { CMError::Name(), "Error"_s },
                               { CMError::Message(), TrString("Invalid set data role: "_s + role) },
                               { CMError::Title(), CMError::DefaultTitle() } }));
    QVERIFY(m_fixture->worker->m_valueCache.isEmpty());
    QVERIFY(m_fixture->worker->m_pendingWrites.isEmpty());
}

void tst_WorkerSetData::pathIsCorrectedBeforeTheRoleIsJudged()
{
    const auto reply =
        setData(m_fixture->worker.get(), "settings/audio/volume"_s, "unheardOf"_s, intValue(5));

    QCOMPARE(errorText(reply), "Error: Invalid set data role: unheardOf"_s);
    m_fixture->log.expect(
        log4cplus::WARN_LOG_LEVEL,
        "Wrong settings path detected: 'settings/audio/volume' - please fix your code. "
        "Adding missing leading '/' for now."_s);
}

void tst_WorkerSetData::relativePathIsServedWithAWarning()
{
    const auto reply = setData(m_fixture->worker.get(), "settings/audio/volume"_s,
                               TuloRoles::Value(), intValue(5));

    QCOMPARE(errorText(reply), QString());
    QCOMPARE(json(m_fixture->get("/audio/volume"_s, TuloRoles::Value())),
             QByteArray(R"({"int":5})"));
    m_fixture->log.expect(
        log4cplus::WARN_LOG_LEVEL,
        "Wrong settings path detected: 'settings/audio/volume' - please fix your code. "
        "Adding missing leading '/' for now."_s);
}

void tst_WorkerSetData::wholeRolesAreSaved()
{
    const auto reply = m_fixture->setRoles("/audio/volume"_s,
                                           { { TuloRoles::Value(), intValue(5) },
                                             { TuloRoles::Timestamp(), 12 },
                                             { TuloRoles::Id(), "left"_s },
                                             { "colour"_s, "red"_s } });

    const QByteArray roles = R"({"colour":"red","id":"left","timestamp":12,"value":{"int":5}})";
    QCOMPARE(json(reply.value()), roles);
    QCOMPARE(m_fixture->pending("/audio/volume"_s), roles);
}

void tst_WorkerSetData::valueAloneIsSaved()
{
    const auto reply = m_fixture->set("/audio/volume"_s, intValue(5));

    QVariantHash roles = reply.value().toHash();
    QVERIFY(roles.take(TuloRoles::Timestamp()).toLongLong() > 0);
    QCOMPARE(json(roles), QByteArray(R"({"value":{"int":5}})"));
}

void tst_WorkerSetData::valueThatIsNoHashIsSavedAsEmpty_data()
{
    QTest::addColumn<QString>("role");
    QTest::addColumn<QVariant>("value");

    const QStringList roles { TuloRoles::Value(), TuloRoles::SetRoles() };
    for (const QString& role : roles) {
        const QByteArray utf8 = role.toUtf8();
        const char* name = utf8.constData();
        QTest::addRow("%s, invalid", name) << role << QVariant();
        QTest::addRow("%s, number", name) << role << QVariant(5);
        QTest::addRow("%s, text", name) << role << QVariant(R"({"int":5})"_s);
        QTest::addRow("%s, list", name) << role << QVariant(QVariantList { 5 });
    }
}

void tst_WorkerSetData::valueThatIsNoHashIsSavedAsEmpty()
{
    QFETCH(QString, role);
    QFETCH(QVariant, value);

    const auto reply = setData(m_fixture->worker.get(), "/settings/audio/volume"_s, role, value);

    QVariantHash roles = reply.value().toHash();
    QVERIFY(roles.take(TuloRoles::Timestamp()).toLongLong() > 0);
    QCOMPARE(json(roles), QByteArray(R"({"value":{"int":3}})"));
}

void tst_WorkerSetData::operationIsAppliedToStoredValueAndConstraints()
{
    QList<Application> applications;
    onApply = [&applications](const Application& application) {
        applications.append(application);
        return TuloValue::of(TuloValue::Int(), 42);
    };
    const TuloOperation operation("add"_s, TuloValue::of(TuloValue::Int(), 2));

    const auto reply = setData(m_fixture->worker.get(), "/settings/audio/volume"_s,
                               TuloRoles::ValueOperation(), operation.__variant());

    QCOMPARE(applications.size(), 1);
    QCOMPARE(applications.first().current, QByteArray(R"({"int":3})"));
    QCOMPARE(applications.first().edit, QByteArray(R"({"max":50})"));
    QCOMPARE(applications.first().operation, QByteArray(R"({"op":"add","value":{"int":2}})"));
    QVariantHash roles = reply.value().toHash();
    QVERIFY(roles.take(TuloRoles::Timestamp()).toLongLong() > 0);
    QCOMPARE(json(roles), QByteArray(R"({"value":{"int":42}})"));
}

void tst_WorkerSetData::operationOnAMissingSettingStartsEmpty()
{
    QList<Application> applications;
    onApply = [&applications](const Application& application) {
        applications.append(application);
        return TuloValue::of(TuloValue::Int(), 7);
    };

    const auto reply = setData(m_fixture->worker.get(), "/settings/none/yet"_s,
                               TuloRoles::ValueOperation(), QVariant("no operation"_s));

    QCOMPARE(applications.size(), 1);
    QCOMPARE(applications.first().current, QByteArray("{}"));
    QCOMPARE(applications.first().edit, QByteArray("{}"));
    QCOMPARE(applications.first().operation, QByteArray("{}"));
    QCOMPARE(errorText(reply), QString());
    QCOMPARE(json(m_fixture->get("/none/yet"_s, TuloRoles::Value())), QByteArray(R"({"int":7})"));
}

void tst_WorkerSetData::operationSeesAChangeThatIsNotYetWritten()
{
    m_fixture->set("/audio/volume"_s, intValue(5));
    const TuloOperation operation("add"_s, TuloValue::of(TuloValue::Int(), 2));

    const auto reply = setData(m_fixture->worker.get(), "/settings/audio/volume"_s,
                               TuloRoles::ValueOperation(), operation.__variant());

    QCOMPARE(json(TuloRoles(reply.value().toHash()).value()), QByteArray(R"({"int":7})"));
}

void tst_WorkerSetData::mutexIsHeldOnEveryWay_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("role");

    QTest::newRow("no action") << "/settings/audio"_s << TuloRoles::Activate();
    QTest::newRow("drop-cache") << TuloSettingsActionsDropCache().text() << TuloRoles::Activate();
    QTest::newRow("flush") << TuloSettingsActionsFlush().text() << TuloRoles::Activate();
    QTest::newRow("value") << "/settings/audio/volume"_s << TuloRoles::Value();
    QTest::newRow("roles") << "/settings/audio/volume"_s << TuloRoles::SetRoles();
    QTest::newRow("operation") << "/settings/audio/volume"_s << TuloRoles::ValueOperation();
    QTest::newRow("refused") << "/settings/audio/fixed"_s << TuloRoles::Value();
    QTest::newRow("other role") << "/settings/audio/volume"_s << TuloRoles::Title();
}

void tst_WorkerSetData::mutexIsHeldOnEveryWay()
{
    QFETCH(QString, path);
    QFETCH(QString, role);
    CMSettingsWorker* worker = m_fixture->worker.get();
    const auto reply = CMReply<QVariant>::create();
    QList<bool> wasFree;
    const ReplyHook hook(reply, [&] { wasFree.append(mutexIsFree(worker)); });

    worker->setDataRequest(CMSetDataRequest(CMPath(path), role, QVariantHash(), reply));

    QCOMPARE(wasFree, QList<bool>({ false }));
    QVERIFY(mutexIsFree(worker));
    if (path.endsWith("fixed"_s)) {
        m_fixture->log.expect(log4cplus::FATAL_LOG_LEVEL,
                              "==Report== Setting is not modifiable; path:/settings/audio/fixed"_s);
    }
}

void tst_WorkerSetData::requestIsLoggedBeforeTheMutexIsWaitedFor()
{
    CMSettingsWorker* worker = m_fixture->worker.get();
    m_fixture->log.setLevel(log4cplus::DEBUG_LOG_LEVEL);
    const auto reply = CMReply<QVariant>::create();
    worker->m_mutex.lock();

    std::thread client([&] {
        worker->setDataRequest(
            CMSetDataRequest(CMPath("/settings/audio"_s), "none"_s, QVariant(), reply));
    });
    const QDeadlineTimer deadline(replyWaitMs);
    while (m_fixture->log.records().isEmpty() && !deadline.hasExpired())
        std::this_thread::yield();
    const QStringList logged = m_fixture->log.messages(log4cplus::DEBUG_LOG_LEVEL);
    const bool wasFinished = reply.isFinished();
    worker->m_mutex.unlock();
    client.join();

    QCOMPARE(
        logged,
        QStringList({ "Settings: setDataRequest path:/settings/audio role:none value:null"_s }));
    QVERIFY(!wasFinished);
    QVERIFY(reply.isFinished());
}

void tst_WorkerSetData::everyRequestIsAnsweredOnce_data()
{
    mutexIsHeldOnEveryWay_data();
}

void tst_WorkerSetData::everyRequestIsAnsweredOnce()
{
    QFETCH(QString, path);
    QFETCH(QString, role);
    const auto reply = CMReply<QVariant>::create();
    const ReplyWaiter waiter(reply);

    m_fixture->worker->setDataRequest(CMSetDataRequest(CMPath(path), role, QVariantHash(), reply));
    m_fixture->worker->on_writeTimer_timeout();
    QCoreApplication::processEvents();

    QVERIFY(reply.isFinished());
    QCOMPARE(waiter.count(), 1);
    if (path.endsWith("fixed"_s)) {
        m_fixture->log.expect(log4cplus::FATAL_LOG_LEVEL,
                              "==Report== Setting is not modifiable; path:/settings/audio/fixed"_s);
    }
}

QTEST_GUILESS_MAIN(tst_WorkerSetData)
#include "tst_worker_setdata.moc"
