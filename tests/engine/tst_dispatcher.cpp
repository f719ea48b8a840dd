#include "engine/dispatcher.h"
#include "engine/guard.h"
#include "engine/router.h"

#include "api/core/model/tulosettingsactions.h"
#include "tests/engine/enginefixture.h"
#include "tests/support/replywaiter.h"

#include <QTest>
#include <QThread>

#include <future>
#include <memory>
#include <vector>

using namespace tulo;

namespace {

const QStringList noRoles;

CMPath node(const QString& path)
{
    return CMPath(path);
}

/// A dispatcher with its worker on a thread of their own, which runs an event loop.
class WorkerThread
{
public:
    WorkerThread()
    {
        m_router.addWorker(&worker);
        worker.moveToThread(&m_thread);
        dispatcher.moveToThread(&m_thread);
        m_thread.start();
    }

    ~WorkerThread()
    {
        m_thread.quit();
        m_thread.wait();
    }

    QThread* thread() { return &m_thread; }

private:
    QThread m_thread;
    Router m_router;

public:
    NotingWorker worker;
    Dispatcher dispatcher { &m_router };
};

} // namespace

class tst_dispatcher : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void requestOnTheWorkersThreadIsServedAtOnce();
    void requestFromAnotherThreadIsServedOnTheWorkersThread();
    void requestsOfManyThreadsAreServedOneAtATime();
    void directCallRunsOnTheCallingThread();
    void requestsCarryWhatWasAsked();
    void actionsAreActivated();
    void waitingEndsWithTheAnswer();
    void waitingTimesOutAndTheAnswerThatComesLaterIsIgnored();
    void closedDispatcherAnswersStopped();
    void queuedRequestIsAnsweredStoppedWhenTheDispatcherCloses();
    void queuedRequestIsAnsweredStoppedWhenTheDispatcherIsDestroyed();
    void refusedRequestDoesNotReachTheWorker();
    void acceptedChangeIsSignalled_data();
    void acceptedChangeIsSignalled();
    void rowsGetTheirNamesFromTheirPaths();
    void rowsOfAnEmptyAnswerAreEmpty();

private:
    std::unique_ptr<NotingWorker> m_worker;
    std::unique_ptr<Router> m_router;
    std::unique_ptr<Dispatcher> m_dispatcher;
};

void tst_dispatcher::init()
{
    m_worker = std::make_unique<NotingWorker>();
    m_router = std::make_unique<Router>();
    m_router->addWorker(m_worker.get());
    m_dispatcher = std::make_unique<Dispatcher>(m_router.get());
}

void tst_dispatcher::cleanup()
{
    m_dispatcher.reset();
    m_router.reset();
    m_worker.reset();
}

void tst_dispatcher::requestOnTheWorkersThreadIsServedAtOnce()
{
    const auto reply = m_dispatcher->getData(node(QStringLiteral("/settings/a")), noRoles);

    QVERIFY(reply.isFinished());
    QCOMPARE(reply.value(), QList<QVariant>({ QStringLiteral("/settings/a") }));
}

void tst_dispatcher::requestFromAnotherThreadIsServedOnTheWorkersThread()
{
    WorkerThread other;

    const auto reply = other.dispatcher.getData(node(QStringLiteral("/settings/a")), noRoles);
    Dispatcher::wait(reply);

    QCOMPARE(errorText(reply), QString());
    QCOMPARE(reply.value(), QList<QVariant>({ QStringLiteral("/settings/a") }));
    QCOMPARE(other.worker.notes().size(), 1);
    QCOMPARE(other.worker.notes().at(0).thread, other.thread());
}

void tst_dispatcher::requestsOfManyThreadsAreServedOneAtATime()
{
    constexpr int threads = 8;
    constexpr int requests = 50;
    WorkerThread other;

    std::vector<std::future<int>> clients;
    for (int dispatcher = 0; dispatcher < threads; ++dispatcher) {
        clients.push_back(std::async(std::launch::async, [&other, dispatcher] {
            int own = 0;
            for (int request = 0; request < requests; ++request) {
                const QString path = QStringLiteral("/settings/%1/%2").arg(dispatcher).arg(request);
                const auto reply = other.dispatcher.getData(node(path), noRoles);
                Dispatcher::wait(reply);
                own += reply.value() == QList<QVariant>({ path }) ? 1 : 0;
            }
            return own;
        }));
    }
    for (std::future<int>& client : clients)
        QCOMPARE(client.get(), requests);

    const QList<NotingWorker::Note> notes = other.worker.notes();
    QCOMPARE(notes.size(), threads * requests);
    for (const NotingWorker::Note& note : notes)
        QCOMPARE(note.thread, other.thread());
}

void tst_dispatcher::directCallRunsOnTheCallingThread()
{
    WorkerThread other;
    const auto reply = CMGetDataRequest::Reply::create();

    other.dispatcher.callDirectly(
        CMGetDataRequest(node(QStringLiteral("/settings/a")), noRoles, reply));

    QVERIFY(reply.isFinished());
    QCOMPARE(other.worker.notes().size(), 1);
    QCOMPARE(other.worker.notes().at(0).thread, QThread::currentThread());
}

void tst_dispatcher::requestsCarryWhatWasAsked()
{
    const CMPath path = node(QStringLiteral("/settings/a"));
    const TuloValue value = TuloValue::of(TuloValue::Int(), 5);
    const TuloOperation operation(QStringLiteral("add"), value);
    TuloRoles roles;
    roles.setId(QStringLiteral("x"));

    m_dispatcher->getData(path, { TuloRoles::Title(), TuloRoles::Value() });
    m_dispatcher->getRows(path, 2, 7, { TuloRoles::Title() });
    m_dispatcher->setValue(path, value);
    m_dispatcher->setRoles(path, roles);
    m_dispatcher->apply(path, operation);

    const QList<NotingWorker::Note> notes = m_worker->notes();
    QCOMPARE(notes.size(), 5);
    QCOMPARE(m_worker->paths(),
             QStringList({ path.text(), path.text(), path.text(), path.text(), path.text() }));
    QCOMPARE(CMGetDataRequest(notes.at(0).request).roles(),
             QStringList({ TuloRoles::Title(), TuloRoles::Value() }));
    const CMGetRowsRequest rows(notes.at(1).request);
    QCOMPARE(rows.firstRow(), 2);
    QCOMPARE(rows.lastRow(), 7);
    QCOMPARE(rows.roles(),
             QStringList({ TuloRoles::Title(), TuloRoles::Path(), TuloRoles::Type() }));
    QCOMPARE(CMSetDataRequest(notes.at(2).request).role(), TuloRoles::Value());
    QCOMPARE(CMSetDataRequest(notes.at(2).request).value(), value.__variant());
    QCOMPARE(CMSetDataRequest(notes.at(3).request).role(), TuloRoles::SetRoles());
    QCOMPARE(CMSetDataRequest(notes.at(3).request).value(), roles.__variant());
    QCOMPARE(CMSetDataRequest(notes.at(4).request).role(), TuloRoles::ValueOperation());
    QCOMPARE(CMSetDataRequest(notes.at(4).request).value(), operation.__variant());
}

void tst_dispatcher::actionsAreActivated()
{
    m_dispatcher->setData(TuloSettingsActionsFlush(), TuloRoles::Activate(), QVariant());
    m_dispatcher->dropCache();

    QCOMPARE(
        m_worker->paths(),
        QStringList({ TuloSettingsActionsFlush().text(), TuloSettingsActionsDropCache().text() }));
    const QList<NotingWorker::Note> notes = m_worker->notes();
    for (const NotingWorker::Note& note : notes)
        QCOMPARE(CMSetDataRequest(note.request).role(), TuloRoles::Activate());
}

void tst_dispatcher::waitingEndsWithTheAnswer()
{
    m_worker->setAnswering(false);
    const auto reply = m_dispatcher->getData(node(QStringLiteral("/settings/a")), noRoles);
    QVERIFY(!reply.isFinished());
    const auto answering =
        std::async(std::launch::async, [reply] { reply.setValue({ QStringLiteral("x") }); });

    Dispatcher::wait(reply);

    QCOMPARE(errorText(reply), QString());
    QCOMPARE(reply.value(), QList<QVariant>({ QStringLiteral("x") }));
}

void tst_dispatcher::waitingTimesOutAndTheAnswerThatComesLaterIsIgnored()
{
    m_worker->setAnswering(false);
    const auto reply = m_dispatcher->getData(node(QStringLiteral("/settings/a")), noRoles);

    Dispatcher::wait(reply, 1);
    reply.setValue({ QStringLiteral("x") });

    QCOMPARE(errorKind(reply.error()), ErrorKind::TimedOut);
    QCOMPARE(errorText(reply), QStringLiteral("TimedOut: No answer within 1 ms"));
    QCOMPARE(reply.value(), QList<QVariant>());
}

void tst_dispatcher::closedDispatcherAnswersStopped()
{
    m_dispatcher->close();

    const auto reply = m_dispatcher->getData(node(QStringLiteral("/settings/a")), noRoles);

    QVERIFY(reply.isFinished());
    QCOMPARE(errorKind(reply.error()), ErrorKind::Stopped);
    QCOMPARE(errorText(reply), QStringLiteral("Stopped: The host has stopped"));
    QVERIFY(m_worker->notes().isEmpty());
}

void tst_dispatcher::queuedRequestIsAnsweredStoppedWhenTheDispatcherCloses()
{
    const auto reply =
        std::async(std::launch::async, [this] {
            return m_dispatcher->getData(node(QStringLiteral("/settings/a")), noRoles);
        }).get();
    QVERIFY(!reply.isFinished());

    m_dispatcher->close();
    QCoreApplication::sendPostedEvents();

    QCOMPARE(errorKind(reply.error()), ErrorKind::Stopped);
    QVERIFY(m_worker->notes().isEmpty());
}

void tst_dispatcher::queuedRequestIsAnsweredStoppedWhenTheDispatcherIsDestroyed()
{
    const auto reply =
        std::async(std::launch::async, [this] {
            return m_dispatcher->getData(node(QStringLiteral("/settings/a")), noRoles);
        }).get();

    m_dispatcher.reset();

    QCOMPARE(errorKind(reply.error()), ErrorKind::Stopped);
}

void tst_dispatcher::refusedRequestDoesNotReachTheWorker()
{
    Guard guard(m_worker.get(), QStringLiteral("/nowhere"), QStringLiteral("/nowhere"));
    Dispatcher dispatcher(m_router.get(), &guard);

    const auto reply = dispatcher.getData(node(QStringLiteral("/settings/../etc")), noRoles);

    QVERIFY(reply.isFinished());
    QCOMPARE(errorKind(reply.error()), ErrorKind::Refused);
    QVERIFY(m_worker->notes().isEmpty());
}

void tst_dispatcher::acceptedChangeIsSignalled_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("role");
    QTest::addColumn<QStringList>("signalled");
    const QString path = QStringLiteral("/settings/a");
    QTest::newRow("value") << path << TuloRoles::Value() << QStringList(path);
    QTest::newRow("operation") << path << TuloRoles::ValueOperation() << QStringList(path);
    QTest::newRow("path without its slash")
        << path.mid(1) << TuloRoles::Value() << QStringList(path);
    QTest::newRow("action") << TuloSettingsActionsFlush().text() << TuloRoles::Activate()
                            << QStringList();
    QTest::newRow("error") << QStringLiteral("/media/a") << TuloRoles::Value() << QStringList();
}

void tst_dispatcher::acceptedChangeIsSignalled()
{
    QFETCH(QString, path);
    QFETCH(QString, role);
    QFETCH(QStringList, signalled);
    QStringList paths;
    connect(m_dispatcher.get(), &Dispatcher::changeAccepted, this,
            [&paths](const CMPath& accepted) { paths.append(accepted.text()); });

    m_dispatcher->setData(node(path), role, QVariantHash());

    QCOMPARE(paths, signalled);
}

void tst_dispatcher::rowsGetTheirNamesFromTheirPaths()
{
    const QVariantList setting { QStringLiteral("Volume"),
                                 node(QStringLiteral("/settings/audio/volume")).toVariant(), 101 };
    const QVariantList directory { QVariant(),
                                   node(QStringLiteral("/settings/audio/presets")).toVariant(), 1 };
    TuloRoles directoryRoles;
    directoryRoles.setId(QStringLiteral("x"));
    TuloRowsRoles answer;
    answer.setRows(QVariantList { QVariant(setting), QVariant(directory) });
    answer.setRowsCount(7);
    answer.setRowsVersion(3);
    answer.setRoles(directoryRoles);

    const DirectoryRows rows = Dispatcher::rowsOf(answer, { TuloRoles::Title() });

    QCOMPARE(rows.count, 7);
    QCOMPARE(rows.version, 3);
    QCOMPARE(rows.directory.id(), QStringLiteral("x"));
    QCOMPARE(rows.rows.size(), 2);
    QCOMPARE(rows.rows.at(0).name, QStringLiteral("volume"));
    QCOMPARE(rows.rows.at(0).path.text(), QStringLiteral("/settings/audio/volume"));
    QCOMPARE(rows.rows.at(0).isDirectory, false);
    QCOMPARE(rows.rows.at(0).values, QList<QVariant>({ QStringLiteral("Volume") }));
    QCOMPARE(rows.rows.at(1).name, QStringLiteral("presets"));
    QCOMPARE(rows.rows.at(1).isDirectory, true);
    QCOMPARE(rows.rows.at(1).values, QList<QVariant>({ QVariant() }));
}

void tst_dispatcher::rowsOfAnEmptyAnswerAreEmpty()
{
    const DirectoryRows rows = Dispatcher::rowsOf(TuloRowsRoles(), { TuloRoles::Title() });

    QCOMPARE(rows.count, 0);
    QVERIFY(rows.rows.isEmpty());
}

QTEST_GUILESS_MAIN(tst_dispatcher)
#include "tst_dispatcher.moc"
