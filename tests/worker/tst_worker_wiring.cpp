// The worker's seven connections, which thread its slots run on, and the checked connect helper.

#include "tests/support/childprocess.h"
#include "tests/support/registryobserver.h"
#include "tests/support/replywaiter.h"
#include "workerfixture.h"

#include "api/core/language.h"
#include "api/core/model/tulosettingsactions.h"

#include <QCoreApplication>
#include <QFile>
#include <QMetaMethod>
#include <QThread>

#include <csignal>

/// A type that nothing registers.
struct UnregisteredType
{
};

/// Sends what the helper is asked to connect.
class Sender : public QObject
{
    Q_OBJECT

signals:
    void nothing();
    void number(int value);
    void pointer(UnregisteredType* value);
    void unregistered(const UnregisteredType& value);
    void unregisteredSecond(int first, const UnregisteredType& second);

public slots:
    void receive() { ++received; }

public:
    int received = 0;
};

class tst_worker_wiring : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init() { m = std::make_unique<WorkerFixture>(); }
    void cleanup()
    {
        m->log.verifyNothingUnexpected();
        m.reset();
    }

    void eachSignalHasOneReceiver();
    void languageConnectionGoesWithWorker();
    void scheduleSignalOnWorkerThreadRunsSlotInside();
    void scheduleSignalFromOtherThreadIsQueued();
    void savedValueIsScheduledBeforeAnnouncementAndReply();
    void valueSavedOnOtherThreadIsScheduledByEventLoop();
    void timerSignalRunsDrain();
    void flushSignalOnWorkerThreadRunsSlotInside();
    void flushSignalFromOtherThreadWorksOnCopy();
    void languageSignalOnWorkerThreadRunsSlotInside();
    void languageSignalFromOtherThreadIsQueued();
    void subscriptionOnWorkerThreadRunsHookInside();
    void subscriptionFromOtherThreadIsQueued();
    void constructionRegistersNoPathAndNoText();
    void argumentTypesAreRegisteredUnderPlainNamesOnFirstNeed();
    void registryOnOtherThreadNeedsRegisteredPath();
    void registryOnOtherThreadWithRegisteredPathIsConnected();
    void languageOnOtherThreadIsConnected();

    void helperConnectsDirectlyWithoutKnowingTypes();
    void helperPassesPointersWhenQueued();
    void helperPassesKnownTypesWhenQueued();
    void helperRefusesUnknownTypesWhenQueued_data();
    void helperRefusesUnknownTypesWhenQueued();
    void helperRefusesUnknownTypeBetweenThreads();
    void helperLooksAtThreadsForAutomaticConnectionsOnly();
    void helperAssertsConnection();

private:
    static void runOnOtherThread(const std::function<void()>& function)
    {
        std::thread(function).join();
    }
    static QByteArray verificationText()
    {
        return "ASSERT: \"verifyConnectionSignalParameters(sender, signal, receiver, type)\" in file ";
    }

    QTemporaryDir m_programs;
    std::unique_ptr<WorkerFixture> m;
};

void tst_worker_wiring::initTestCase()
{
    // A flush here is about threads: it must not wait for the machine's disks.
    QVERIFY(QFile::link(QStringLiteral("/bin/true"), m_programs.filePath(QStringLiteral("sync"))));
    qputenv("PATH", QFile::encodeName(m_programs.path()) + ':' + qgetenv("PATH"));
}

void tst_worker_wiring::eachSignalHasOneReceiver()
{
    const CMSettingsWorker& worker = m->create();

    QCOMPARE(worker.receivers(SIGNAL(privateScheduleWrite(QString, TuloRoles))), 1);
    QCOMPARE(worker.receivers(SIGNAL(privateFlushInvoked(CMSetDataRequest))), 1);
    QCOMPARE(worker.m_writeTimer->receivers(SIGNAL(timeout())), 1);
    QCOMPARE(worker.subscribe()->receivers(SIGNAL(dataPathAdded(CMPath))), 1);
    QCOMPARE(worker.subscribe()->receivers(SIGNAL(rowsPathAdded(CMPath))), 1);
    QCOMPARE(worker.subscribe()->receivers(SIGNAL(valuePathAdded(CMPath))), 1);
}

void tst_worker_wiring::languageConnectionGoesWithWorker()
{
    const char* const signal = SIGNAL(languageChanged());
    const int before = Language::instance()->receivers(signal);

    m->create();
    QCOMPARE(Language::instance()->receivers(signal), before + 1);

    m->destroyWorker();
    QCOMPARE(Language::instance()->receivers(signal), before);
}

void tst_worker_wiring::scheduleSignalOnWorkerThreadRunsSlotInside()
{
    CMSettingsWorker& worker = m->create();
    const TuloRoles roles(json(R"({"value": {"int": 4}})"));

    emit worker.privateScheduleWrite(QStringLiteral("/file"), roles);

    QCOMPARE(worker.m_pendingWrites.keys(), QStringList(QStringLiteral("/file")));
    COMPARE_RECORDS(worker.m_pendingWrites.value(QStringLiteral("/file")), roles);
    QVERIFY(worker.m_writeTimer->isActive());
}

void tst_worker_wiring::scheduleSignalFromOtherThreadIsQueued()
{
    CMSettingsWorker& worker = m->create();

    // Returns although the loop is idle: the emission does not wait.
    runOnOtherThread([&worker] {
        emit worker.privateScheduleWrite(QStringLiteral("/file"),
                                         TuloRoles(json(R"({"value": {"int": 4}})")));
    });
    QVERIFY(worker.m_pendingWrites.isEmpty());
    QVERIFY(!worker.m_writeTimer->isActive());

    QCoreApplication::processEvents();
    QCOMPARE(worker.m_pendingWrites.keys(), QStringList(QStringLiteral("/file")));
    COMPARE_RECORDS(worker.m_pendingWrites.value(QStringLiteral("/file")),
                    TuloRoles(json(R"({"value": {"int": 4}})")));
    QVERIFY(worker.m_writeTimer->isActive());
}

void tst_worker_wiring::savedValueIsScheduledBeforeAnnouncementAndReply()
{
    m->tree.writeDefault(QStringLiteral("/volume"), json(R"({"value": {"int": 3}})"));
    CMSettingsWorker& worker = m->create();
    RegistryObserver observer(worker.subscribe());
    observer.observe();
    QList<int> pending;
    observer.onAnnouncement = [&](const Announcement&) {
        pending.append(worker.m_pendingWrites.size());
    };

    setData(&worker, QStringLiteral("/settings/volume"), TuloRoles::Value(), json(R"({"int": 4})"));

    QCOMPARE(pending, (QList<int> { 1, 1, 1 }));
    QCOMPARE(worker.m_pendingWrites.keys(),
             QStringList(m->tree.writePath() + QLatin1String("/volume")));
}

void tst_worker_wiring::valueSavedOnOtherThreadIsScheduledByEventLoop()
{
    m->tree.writeDefault(QStringLiteral("/volume"), json(R"({"value": {"int": 3}})"));
    CMSettingsWorker& worker = m->create();

    bool finished = false;
    runOnOtherThread([&] {
        finished = setData(&worker, QStringLiteral("/settings/volume"), TuloRoles::Value(),
                           json(R"({"int": 4})"))
                       .isFinished();
    });
    QVERIFY(finished);
    QVERIFY(worker.m_pendingWrites.isEmpty());
    COMPARE_RECORDS(worker.load(QStringLiteral("/volume"), nullptr).value(), json(R"({"int": 4})"));

    QCoreApplication::processEvents();
    QCOMPARE(worker.m_pendingWrites.keys(),
             QStringList(m->tree.writePath() + QLatin1String("/volume")));
    QVERIFY(worker.m_writeTimer->isActive());
}

void tst_worker_wiring::timerSignalRunsDrain()
{
    CMSettingsWorker& worker = m->create();
    const QString file = m->tree.writePath() + QLatin1String("/volume");
    worker.m_pendingWrites.insert(file, TuloRoles(json(R"({"id": "v"})")));

    emit worker.m_writeTimer->timeout(QTimer::QPrivateSignal());

    QVERIFY(worker.m_pendingWrites.isEmpty());
    QCOMPARE(m->tree.readWritten(QStringLiteral("/volume")), QByteArray(R"({"id":"v"})"));
}

void tst_worker_wiring::flushSignalOnWorkerThreadRunsSlotInside()
{
    CMSettingsWorker& worker = m->create();
    const auto reply = CMReply<QVariant>::create();

    emit worker.privateFlushInvoked(
        CMSetDataRequest(TuloSettingsActionsFlush(), TuloRoles::Activate(), QVariant(), reply));

    QVERIFY(reply.isFinished());
}

void tst_worker_wiring::flushSignalFromOtherThreadWorksOnCopy()
{
    CMSettingsWorker& worker = m->create();
    const auto reply = CMReply<QVariant>::create();
    ReplyWaiter waiter(reply);

    // The request that was emitted is gone when the slot runs.
    runOnOtherThread([&worker, &reply] {
        emit worker.privateFlushInvoked(
            CMSetDataRequest(TuloSettingsActionsFlush(), TuloRoles::Activate(), 1, reply));
    });
    QCOMPARE(waiter.count(), 0);

    QCoreApplication::processEvents();
    QCOMPARE(waiter.count(), 1);
    QCOMPARE(waiter.finishingThread(), QThread::currentThread());
    QVERIFY(!reply.value().isValid());
    QCOMPARE(errorText(reply), QString());
}

void tst_worker_wiring::languageSignalOnWorkerThreadRunsSlotInside()
{
    CMSettingsWorker& worker = m->create();
    RegistryObserver client(worker.subscribe());
    client.subscribeData(QStringLiteral("/settings/volume"));

    emit Language::instance()->languageChanged();

    QCOMPARE(client.texts(), QStringList(QStringLiteral("data /settings/volume")));
}

void tst_worker_wiring::languageSignalFromOtherThreadIsQueued()
{
    CMSettingsWorker& worker = m->create();
    RegistryObserver client(worker.subscribe());
    client.subscribeData(QStringLiteral("/settings/volume"));
    QThread* announcingThread = nullptr;
    client.onAnnouncement = [&](const Announcement&) {
        announcingThread = QThread::currentThread();
    };

    runOnOtherThread([] { emit Language::instance()->languageChanged(); });
    QCOMPARE(client.texts(), QStringList());

    QCoreApplication::processEvents();
    QCOMPARE(client.texts(), QStringList(QStringLiteral("data /settings/volume")));
    QCOMPARE(announcingThread, QThread::currentThread());
}

void tst_worker_wiring::subscriptionOnWorkerThreadRunsHookInside()
{
    CMSettingsWorker& worker = m->create();
    RegistryObserver client(worker.subscribe());
    m->log.take();

    client.subscribeData(QStringLiteral("settings/a"));
    client.subscribeRows(QStringLiteral("settings/b"));
    client.subscribeValue(QStringLiteral("settings/c"));

    QCOMPARE(worker.m_dataPathMap.keys(), QStringList(QStringLiteral("/a")));
    QCOMPARE(worker.m_rowsPathMap.keys(), QStringList(QStringLiteral("/b")));
    QCOMPARE(worker.m_valuePathMap.keys(), QStringList(QStringLiteral("/c")));
    QCOMPARE(m->log.take().size(), 3); // the warnings
}

void tst_worker_wiring::subscriptionFromOtherThreadIsQueued()
{
    CMSettingsWorker& worker = m->create();
    RegistryObserver client(worker.subscribe());

    runOnOtherThread([&client] {
        client.subscribeData(QStringLiteral("settings/a"));
        client.subscribeRows(QStringLiteral("settings/b"));
        client.subscribeValue(QStringLiteral("settings/c"));
    });
    QVERIFY(worker.m_dataPathMap.isEmpty());
    QVERIFY(worker.m_rowsPathMap.isEmpty());
    QVERIFY(worker.m_valuePathMap.isEmpty());

    QCoreApplication::processEvents();
    QCOMPARE(worker.m_dataPathMap.keys(), QStringList(QStringLiteral("/a")));
    QCOMPARE(worker.m_rowsPathMap.keys(), QStringList(QStringLiteral("/b")));
    QCOMPARE(worker.m_valuePathMap.keys(), QStringList(QStringLiteral("/c")));
    QCOMPARE(m->log.take().size(), 3); // the warnings
}

void tst_worker_wiring::constructionRegistersNoPathAndNoText()
{
    // In a process in which nothing has used a path in a variant yet.
    const ChildResult child = ChildProcess::runInChild([this] {
        QCOMPARE(QMetaType::type("TuloRoles"), int(QMetaType::UnknownType));
        QCOMPARE(QMetaType::type("CMSetDataRequest"), int(QMetaType::UnknownType));

        m->create();

        // By the base, before anything can be queued.
        QVERIFY(QMetaType::type("TuloRoles") != QMetaType::UnknownType);
        QVERIFY(QMetaType::type("CMSetDataRequest") != QMetaType::UnknownType);
        QCOMPARE(QMetaType::type("CMPath"), int(QMetaType::UnknownType));
        QCOMPARE(QMetaType::type("TrString"), int(QMetaType::UnknownType));
    });

    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

void tst_worker_wiring::argumentTypesAreRegisteredUnderPlainNamesOnFirstNeed()
{
    const ChildResult child = ChildProcess::runInChild([] {
        const auto argument = [](int method, int parameter) {
            const QMetaObject& type = CMSettingsWorker::staticMetaObject;
            return type.method(type.methodOffset() + method).parameterType(parameter);
        };
        for (const char* name : { "TuloRoles", "CMSetDataRequest", "CMPath" })
            QCOMPARE(QMetaType::type(name), int(QMetaType::UnknownType));

        for (const int method : { 0, 2 }) {
            QVERIFY(argument(method, 1) != QMetaType::UnknownType);
            QCOMPARE(argument(method, 1), QMetaType::type("TuloRoles"));
        }
        for (const int method : { 1, 4 }) {
            QVERIFY(argument(method, 0) != QMetaType::UnknownType);
            QCOMPARE(argument(method, 0), QMetaType::type("CMSetDataRequest"));
        }
        for (const int method : { 6, 7, 8 }) {
            QVERIFY(argument(method, 0) != QMetaType::UnknownType);
            QCOMPARE(argument(method, 0), QMetaType::type("CMPath"));
        }
    });

    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

namespace {

// Builds a worker whose registry moves to another thread in the middle of the constructor: at
// the first record, when the base is complete and nothing is connected yet.
struct WorkerWithForeignRegistry
{
    explicit WorkerWithForeignRegistry(const QVariantHash& config)
    {
        const RecordHook hook([this](const QString&) {
            auto* const unfinished = reinterpret_cast<CMSettingsWorker*>(memory);
            unfinished->subscribe()->moveToThread(&thread);
        });
        worker = new (memory) CMSettingsWorker(config);
    }

    alignas(CMSettingsWorker) unsigned char memory[sizeof(CMSettingsWorker)];
    QThread thread;
    CMSettingsWorker* worker = nullptr;
};

} // namespace

void tst_worker_wiring::registryOnOtherThreadNeedsRegisteredPath()
{
    const ChildResult child = ChildProcess::runInChild([this] {
        QCOMPARE(QMetaType::type("CMPath"), int(QMetaType::UnknownType));
        WorkerWithForeignRegistry foreign(m->tree.config());
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains(verificationText()), child.standardError.constData());
}

void tst_worker_wiring::registryOnOtherThreadWithRegisteredPathIsConnected()
{
    const ChildResult child = ChildProcess::runInChild([this] {
        CMPath::registerMetaType();
        WorkerWithForeignRegistry foreign(m->tree.config());
        QCOMPARE(foreign.worker->subscribe()->thread(), &foreign.thread);

        // Queued or not is decided by the emitting thread, so this one runs inside.
        emit foreign.worker->subscribe()->dataPathAdded(CMPath(QStringLiteral("settings/a")));
        emit foreign.worker->subscribe()->rowsPathAdded(CMPath(QStringLiteral("settings/b")));
        emit foreign.worker->subscribe()->valuePathAdded(CMPath(QStringLiteral("settings/c")));

        QCOMPARE(foreign.worker->m_dataPathMap.keys(), QStringList(QStringLiteral("/a")));
        QCOMPARE(foreign.worker->m_rowsPathMap.keys(), QStringList(QStringLiteral("/b")));
        QCOMPARE(foreign.worker->m_valuePathMap.keys(), QStringList(QStringLiteral("/c")));
        // The foreign thread is gone with this function.
        foreign.worker->~CMSettingsWorker();
    });

    QCOMPARE(child.signal, 0);
    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

void tst_worker_wiring::languageOnOtherThreadIsConnected()
{
    const ChildResult child = ChildProcess::runInChild([this] {
        QThread thread;
        Language::instance()->moveToThread(&thread);
        QCOMPARE(QMetaType::type("CMPath"), int(QMetaType::UnknownType));

        CMSettingsWorker& worker = m->create();

        RegistryObserver client(worker.subscribe());
        client.subscribeData(QStringLiteral("/settings/a"));
        emit Language::instance()->languageChanged();
        QCOMPARE(client.texts(), QStringList(QStringLiteral("data /settings/a")));
    });

    QCOMPARE(child.signal, 0);
    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

// ---------------------------------------------------------------------------------------------
// The helper.
// ---------------------------------------------------------------------------------------------

void tst_worker_wiring::helperConnectsDirectlyWithoutKnowingTypes()
{
    Sender sender;
    for (const Qt::ConnectionType type : { Qt::AutoConnection, Qt::DirectConnection }) {
        checkedConnect(&sender, &Sender::unregistered, &sender, &Sender::receive, type);
        checkedConnect(&sender, &Sender::unregisteredSecond, &sender, &Sender::receive, type);
    }

    emit sender.unregistered({});
    emit sender.unregisteredSecond(1, {});

    QCOMPARE(sender.received, 4);
    QCOMPARE(QMetaType::type("UnregisteredType"), int(QMetaType::UnknownType));
}

void tst_worker_wiring::helperPassesPointersWhenQueued()
{
    // Known pointers or not: the name decides. Qt itself would say which it cannot queue.
    Sender sender;

    QVERIFY(
        verifyConnectionSignalParameters(&sender, &Sender::pointer, &sender, Qt::QueuedConnection));
    QCOMPARE(QMetaType::type("UnregisteredType*"), int(QMetaType::UnknownType));
}

void tst_worker_wiring::helperPassesKnownTypesWhenQueued()
{
    Sender sender;
    checkedConnect(&sender, &Sender::number, &sender, &Sender::receive, Qt::QueuedConnection);
    checkedConnect(&sender, &Sender::nothing, &sender, &Sender::receive, Qt::QueuedConnection);

    emit sender.number(1);
    emit sender.nothing();
    QCOMPARE(sender.received, 0);

    QCoreApplication::processEvents();
    QCOMPARE(sender.received, 2);
}

void tst_worker_wiring::helperRefusesUnknownTypesWhenQueued_data()
{
    QTest::addColumn<bool>("second");

    QTest::newRow("first parameter") << false;
    QTest::newRow("second parameter") << true;
}

void tst_worker_wiring::helperRefusesUnknownTypesWhenQueued()
{
    QFETCH(bool, second);
    const ChildResult child = ChildProcess::runInChild([second] {
        Sender sender;
        if (second)
            checkedConnect(&sender, &Sender::unregisteredSecond, &sender, &Sender::receive,
                           Qt::QueuedConnection);
        else
            checkedConnect(&sender, &Sender::unregistered, &sender, &Sender::receive,
                           Qt::QueuedConnection);
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains(verificationText()), child.standardError.constData());
}

void tst_worker_wiring::helperRefusesUnknownTypeBetweenThreads()
{
    const ChildResult child = ChildProcess::runInChild([] {
        QThread thread;
        Sender receiver;
        receiver.moveToThread(&thread);
        Sender sender;
        checkedConnect(&sender, &Sender::unregistered, &receiver, &Sender::receive);
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains(verificationText()), child.standardError.constData());
}

void tst_worker_wiring::helperLooksAtThreadsForAutomaticConnectionsOnly()
{
    QThread thread;
    Sender receiver;
    receiver.moveToThread(&thread);
    const Sender sender;

    QVERIFY(verifyConnectionSignalParameters(&sender, &Sender::unregistered, &receiver,
                                             Qt::DirectConnection));
    QVERIFY(verifyConnectionSignalParameters(&sender, &Sender::unregistered, &receiver,
                                             Qt::BlockingQueuedConnection));
    QVERIFY(!verifyConnectionSignalParameters(&sender, &Sender::unregistered, &receiver,
                                              Qt::AutoConnection));
}

void tst_worker_wiring::helperAssertsConnection()
{
    const ChildResult child = ChildProcess::runInChild([] {
        Sender sender;
        // The second of two unique connections is not made.
        for (int i = 0; i < 2; ++i)
            checkedConnect(&sender, &Sender::nothing, &sender, &Sender::receive,
                           Qt::UniqueConnection);
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains(R"(ASSERT: "connection" in file)"),
             child.standardError.constData());
}

QTEST_GUILESS_MAIN(tst_worker_wiring)
#include "tst_worker_wiring.moc"
