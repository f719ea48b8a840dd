#include "cm_settings.h"

#include "engine/dispatcher.h"
#include "engine/guard.h"
#include "engine/router.h"

#include "api/core/model/tulosettingsactions.h"
#include "tests/support/enginechanges.h"
#include "tests/support/logcapture.h"
#include "tests/support/repeats.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QEventLoop>
#include <QFile>
#include <QMutex>
#include <QTemporaryDir>
#include <QTest>
#include <QWaitCondition>

#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <utility>
#include <vector>

using namespace tulo;

namespace {

constexpr int threadCount = 8;
const int requestsPerThread = repeats(2500, 12500);

/// Runs `body` on so many threads, with the number of each.
class Threads
{
public:
    Threads(int count, const std::function<void(int)>& body)
    {
        for (int number = 0; number < count; ++number)
            m_threads.emplace_back(body, number);
    }
    ~Threads() { join(); }
    Q_DISABLE_COPY(Threads)

    void join()
    {
        for (std::thread& thread : m_threads) {
            if (thread.joinable())
                thread.join();
        }
    }
    /// The calling thread serves its events until all threads have ended.
    void joinServingEvents()
    {
        QEventLoop loop;
        std::thread waiter([this, &loop] {
            join();
            QMetaObject::invokeMethod(&loop, &QEventLoop::quit, Qt::QueuedConnection);
        });
        loop.exec();
        waiter.join();
    }

private:
    std::vector<std::thread> m_threads;
};

TuloValue intValue(qlonglong number)
{
    return TuloValue::of(TuloValue::Int(), number);
}

CMPath ownSetting(int thread)
{
    return CMPath(QStringLiteral("/settings/own/s%1").arg(thread));
}

CMPath sharedSetting(int number)
{
    return CMPath(QStringLiteral("/settings/shared/s%1").arg(number));
}

/// A worker with its engine's parts, on the main thread.
class Stage
{
public:
    static constexpr int sharedCount = 20;

    Stage()
    {
        m_tree.writeDefault(QStringLiteral("/own/.meta"), QVariantHash {});
        const QByteArray content = QByteArrayLiteral("{\"value\":{\"int\":0},\"title\":\"T\"}");
        for (int thread = 0; thread < threadCount; ++thread)
            m_tree.writeDefault(ownSetting(thread).base(), content);
        for (int number = 0; number < sharedCount; ++number)
            m_tree.writeDefault(sharedSetting(number).base(), content);
        worker = std::make_unique<CMSettingsWorker>(m_tree.config());
        delete std::exchange(worker->m_encryptionHandler, &m_handler);
        router.addWorker(worker.get());
        m_guard = std::make_unique<Guard>(worker.get(), m_tree.defaultPath(), m_tree.writePath());
        dispatcher = std::make_unique<Dispatcher>(&router, m_guard.get());
    }
    ~Stage()
    {
        dispatcher.reset();
        router.removeWorker(worker.get());
    }
    Q_DISABLE_COPY(Stage)

    TuloRoles written(const CMPath& path) const
    {
        return TuloRoles(TuloHash(m_tree.readWrittenRoles(path.base())));
    }

    Router router;
    std::unique_ptr<CMSettingsWorker> worker;
    std::unique_ptr<Dispatcher> dispatcher;

private:
    const TemporaryTree m_tree;
    NoOpEncryptionHandler m_handler;
    std::unique_ptr<Guard> m_guard;
};

/// A client thread: has everything asked on the worker's thread, in random order, and checks each
/// answer on its own. What it finds wrong it counts; QtTest is for the main thread.
class Requester
{
public:
    Requester(Dispatcher* dispatcher, int number)
        : m_dispatcher(dispatcher)
        , m_number(number)
        , m_random(unsigned(number) + 1)
    {
    }

    void run()
    {
        for (int i = 0; i < requestsPerThread; ++i)
            request();
    }
    qlonglong lastNumber() const { return m_lastNumber; }
    int failures() const { return m_failures; }

private:
    int below(int bound) { return int(m_random() % unsigned(bound)); }
    CMPath anyShared() { return sharedSetting(below(Stage::sharedCount)); }

    void expect(bool fulfilled)
    {
        if (!fulfilled)
            ++m_failures;
    }
    // Has the worker's thread make a request; waits for its reply.
    template<typename Request>
    auto served(const Request& request)
    {
        decltype(request(*m_dispatcher)) reply;
        QMutex mutex;
        QWaitCondition served;
        bool isServed = false;
        QMutexLocker locker(&mutex);
        QMetaObject::invokeMethod(
            m_dispatcher,
            [&] {
                const QMutexLocker serving(&mutex);
                reply = request(*m_dispatcher);
                isServed = true;
                served.wakeOne();
            },
            Qt::QueuedConnection);
        while (!isServed)
            served.wait(&mutex);
        return reply;
    }
    template<typename Request>
    auto succeeded(const Request& request)
    {
        const auto reply = served(request);
        expect(reply.isFinished() && errorCode(reply.error()) == ErrorCode::None);
        return reply;
    }

    void request()
    {
        const int dice = below(995);
        if (dice < 300)
            readShared();
        else if (dice < 450)
            readOwn();
        else if (dice < 600)
            writeOwn();
        else if (dice < 850)
            writeShared();
        else if (dice < 900)
            list();
        else if (dice < 990)
            refused();
        else if (dice < 993)
            succeeded([](Dispatcher& dispatcher) { return dispatcher.dropCache(); });
        else
            flush();
    }

    void readShared()
    {
        succeeded([path = anyShared()](Dispatcher& dispatcher) {
            return dispatcher.getData(path, { TuloRoles::Value(), TuloRoles::Title() });
        });
    }

    // No other thread changes it.
    void readOwn()
    {
        const auto reply = succeeded([this](Dispatcher& dispatcher) {
            return dispatcher.getData(ownSetting(m_number), { TuloRoles::Value() });
        });
        const TuloValue value(TuloHash(reply.value().value(0).toHash()));
        expect(value == intValue(m_lastNumber));
    }

    void writeOwn()
    {
        TuloRoles roles;
        roles.setValue(intValue(m_lastNumber + 1));
        const auto reply = succeeded([this, &roles](Dispatcher& dispatcher) {
            return sendRoles(dispatcher, ownSetting(m_number), roles);
        });
        ++m_lastNumber;
        expect(TuloRoles(TuloHash(reply.value().toHash())).value() == intValue(m_lastNumber));
    }

    void writeShared()
    {
        const CMPath path = anyShared();
        const int number = below(100);
        if (number < 60) {
            succeeded([path, number](Dispatcher& dispatcher) {
                return sendValue(dispatcher, path, intValue(number));
            });
        } else {
            succeeded([path](Dispatcher& dispatcher) {
                return sendOperation(dispatcher, path, { QStringLiteral("add"), intValue(1) });
            });
        }
    }

    void list()
    {
        const auto reply = succeeded([](Dispatcher& dispatcher) {
            return dispatcher.getRows(CMPath(QStringLiteral("/settings/shared")), 0, 9,
                                      { TuloRoles::Value() });
        });
        const DirectoryRows rows = Dispatcher::rowsOf(reply.value(), { TuloRoles::Value() });
        expect(rows.count == Stage::sharedCount);
        expect(rows.rows.size() == 10);
    }

    void refused()
    {
        const auto reply = served([](Dispatcher& dispatcher) {
            return sendValue(dispatcher, CMPath(QStringLiteral("/settings/../up")), intValue(1));
        });
        expect(errorCode(reply.error()) == ErrorCode::Refused);
    }

    void flush()
    {
        succeeded([](Dispatcher& dispatcher) {
            return sendChange(dispatcher, TuloSettingsActionsFlush(), TuloRoles::Activate(),
                              QVariant());
        });
    }

    Dispatcher* const m_dispatcher;
    const int m_number;
    std::mt19937 m_random;
    qlonglong m_lastNumber = 0;
    int m_failures = 0;
};

} // namespace

class tst_Threads : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init() { m_log = std::make_unique<LogCapture>(log4cplus::WARN_LOG_LEVEL); }
    void cleanup()
    {
        m_log->verifyNothingUnexpected();
        m_log.reset();
    }

    void eightThreadsGetTheAnswersToTheirRequests();
    void callsFromForeignThreadsReachTheIdleLoopLater();
    void flushFromAForeignThreadWaitsForTheLoop();

private:
    QTemporaryDir m_programs;
    std::unique_ptr<LogCapture> m_log;
};

// Hundreds of flushes need no disk that is as slow.
void tst_Threads::initTestCase()
{
    QVERIFY(QFile::link(QStringLiteral("/bin/true"), m_programs.filePath(QStringLiteral("sync"))));
    qputenv("PATH", QFile::encodeName(m_programs.path()) + ':' + qgetenv("PATH"));
}

void tst_Threads::eightThreadsGetTheAnswersToTheirRequests()
{
    const Stage stage;
    std::vector<std::unique_ptr<Requester>> requesters;
    for (int number = 0; number < threadCount; ++number)
        requesters.push_back(std::make_unique<Requester>(stage.dispatcher.get(), number));

    Threads threads(threadCount, [&requesters](int number) { requesters[number]->run(); });
    threads.joinServingEvents();
    sendChange(*stage.dispatcher, TuloSettingsActionsFlush(), TuloRoles::Activate(), QVariant());

    for (int number = 0; number < threadCount; ++number) {
        QCOMPARE(requesters[number]->failures(), 0);
        QVERIFY(requesters[number]->lastNumber() > 0);
        QCOMPARE(stage.written(ownSetting(number)).value().content().toLongLong(),
                 requesters[number]->lastNumber());
    }
}

void tst_Threads::callsFromForeignThreadsReachTheIdleLoopLater()
{
    const int rounds = repeats(50, 250);
    const Stage stage;
    std::atomic<int> failures { 0 };

    // The loop of the worker's thread does not run: this thread waits for the others.
    Threads threads(threadCount, [&stage, &failures, rounds](int number) {
        for (int round = 1; round <= rounds; ++round) {
            const auto reply = CMReply<QVariant>::create();
            stage.router.request(CMSetDataRequest(ownSetting(number), TuloRoles::Value(),
                                                  intValue(round).__variant(), reply));
            const auto answer = CMReply<QList<QVariant>>::create();
            stage.router.request(
                CMGetDataRequest(ownSetting(number), { TuloRoles::Value() }, answer));
            if (!reply.isFinished()
                || TuloValue(TuloHash(answer.value().value(0).toHash())) != intValue(round))
                ++failures;
        }
    });
    threads.join();

    QCOMPARE(failures.load(), 0);
    QVERIFY(stage.worker->m_pendingWrites.isEmpty());
    QVERIFY(!stage.worker->m_writeTimer->isActive());

    QCoreApplication::sendPostedEvents(stage.worker.get());

    QCOMPARE(stage.worker->m_pendingWrites.size(), threadCount);
    QVERIFY(stage.worker->m_writeTimer->isActive());
    stage.worker->on_writeTimer_timeout();
    for (int number = 0; number < threadCount; ++number)
        QCOMPARE(stage.written(ownSetting(number)).value().content().toInt(), rounds);
}

void tst_Threads::flushFromAForeignThreadWaitsForTheLoop()
{
    const Stage stage;
    sendValue(*stage.dispatcher, ownSetting(0), intValue(5));
    const auto reply = CMReply<QVariant>::create();

    Threads threads(1, [&stage, &reply](int) {
        stage.router.request(
            CMSetDataRequest(TuloSettingsActionsFlush(), TuloRoles::Activate(), QVariant(), reply));
    });
    threads.join();

    QVERIFY(!reply.isFinished());
    QVERIFY(stage.written(ownSetting(0)).isEmpty());

    QCoreApplication::sendPostedEvents(stage.worker.get());

    QVERIFY(reply.isFinished());
    QCOMPARE(stage.written(ownSetting(0)).value().content().toInt(), 5);
}

QTEST_GUILESS_MAIN(tst_Threads)
#include "tst_threads.moc"
