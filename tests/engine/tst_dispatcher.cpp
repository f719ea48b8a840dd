#include "engine/dispatcher.h"
#include "engine/guard.h"
#include "engine/loader.h"
#include "engine/router.h"

#include "api/core/model/tulosettingsactions.h"
#include "tests/engine/enginefixture.h"
#include "tests/support/childprocess.h"
#include "tests/support/enginechanges.h"
#include "tests/support/logcapture.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QTest>

#include <csignal>
#include <memory>
#include <thread>

using namespace tulo;

namespace {

const CMPath volume(QStringLiteral("/settings/audio/volume"));

QVariant intValue(qlonglong number)
{
    return TuloValue::of(TuloValue::Int(), number).__variant();
}

} // namespace

/// The dispatcher in front of the real worker on a small tree.
class tst_dispatcher : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void requestIsServedAtOnce();
    void requestFromAnotherThreadAborts();
    void dataAreAskedInTheOrderOfTheRoles();
    void rowsOfARangeAreAsked();
    void changesAreMade();
    void droppedCacheIsReadAgain();
    void closedDispatcherAnswersUnavailable();
    void refusedRequestDoesNotReachTheWorker();
    void acceptedChangeIsSignalled_data();
    void acceptedChangeIsSignalled();
    void rowsGetTheirNamesFromTheirPaths();
    void rowsOfAnEmptyAnswerAreEmpty();

private:
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<TemporaryTree> m_tree;
    std::unique_ptr<CMWorker> m_worker;
    std::unique_ptr<Router> m_router;
    std::unique_ptr<Guard> m_guard;
    std::unique_ptr<Dispatcher> m_dispatcher;
};

void tst_dispatcher::init()
{
    m_log = std::make_unique<LogCapture>(log4cplus::WARN_LOG_LEVEL);
    m_tree = std::make_unique<TemporaryTree>();
    m_tree->writeDefault(QStringLiteral("/audio/balance"), R"({"title":"Balance"})");
    m_tree->writeDefault(QStringLiteral("/audio/fader"), R"({"title":"Fader"})");
    m_tree->writeDefault(QStringLiteral("/audio/volume"),
                         R"({"title":"Volume","value":{"int":5}})");
    m_worker = loadWorker(QStringLiteral(TULO_PLUGIN_FILE), m_tree->config()).worker;
    QVERIFY(m_worker);
    m_router = std::make_unique<Router>();
    m_router->addWorker(m_worker.get());
    m_guard = std::make_unique<Guard>(m_worker.get(), m_tree->defaultPath(), m_tree->writePath());
    m_dispatcher = std::make_unique<Dispatcher>(m_router.get(), m_guard.get());
}

void tst_dispatcher::cleanup()
{
    m_dispatcher.reset();
    m_guard.reset();
    m_worker.reset();
    m_router.reset();
    m_tree.reset();
    m_log->verifyNothingUnexpected();
    m_log.reset();
}

void tst_dispatcher::requestIsServedAtOnce()
{
    const auto reply = m_dispatcher->getData(volume, { TuloRoles::Value() });

    QVERIFY(reply.isFinished());
    QCOMPARE(reply.value(), QList<QVariant>({ intValue(5) }));
}

void tst_dispatcher::requestFromAnotherThreadAborts()
{
    const ChildResult child = ChildProcess::runInChild([this] {
        std::thread([this] { m_dispatcher->getData(volume, { TuloRoles::Value() }); }).join();
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("ASSERT: \"QThread::currentThread() == thread()\""),
             child.standardError);
}

void tst_dispatcher::dataAreAskedInTheOrderOfTheRoles()
{
    const auto reply = m_dispatcher->getData(volume, { TuloRoles::Title(), TuloRoles::Value() });

    QCOMPARE(reply.value(), QList<QVariant>({ QStringLiteral("Volume"), intValue(5) }));
}

void tst_dispatcher::rowsOfARangeAreAsked()
{
    CMError error;

    const DirectoryRows rows = m_dispatcher->rows(CMPath(QStringLiteral("/settings/audio")), 1, 2,
                                                  { TuloRoles::Title() }, &error);

    QVERIFY(error.isEmpty());
    QCOMPARE(rows.count, 3);
    QCOMPARE(rows.rows.size(), 2);
    QCOMPARE(rows.rows.at(0).name, QStringLiteral("fader"));
    QCOMPARE(rows.rows.at(0).values, QList<QVariant>({ QStringLiteral("Fader") }));
    QCOMPARE(rows.rows.at(1).name, QStringLiteral("volume"));
    QCOMPARE(rows.rows.at(1).values, QList<QVariant>({ QStringLiteral("Volume") }));
}

void tst_dispatcher::changesAreMade()
{
    TuloRoles roles;
    roles.setId(QStringLiteral("x"));

    const auto set = sendValue(*m_dispatcher, volume, TuloValue::of(TuloValue::Int(), 6));
    const auto named = sendRoles(*m_dispatcher, volume, roles);
    const auto added = sendOperation(*m_dispatcher, volume,
                                     { QStringLiteral("add"), TuloValue::of(TuloValue::Int(), 4) });

    QCOMPARE(errorText(set) + errorText(named) + errorText(added), QString());
    QCOMPARE(m_dispatcher->getData(volume, { TuloRoles::Value(), TuloRoles::Id() }).value(),
             QList<QVariant>({ intValue(10), QStringLiteral("x") }));
}

void tst_dispatcher::droppedCacheIsReadAgain()
{
    QCOMPARE(m_dispatcher->getData(volume, { TuloRoles::Value() }).value(),
             QList<QVariant>({ intValue(5) }));
    m_tree->writeDefault(QStringLiteral("/audio/volume"), R"({"value":{"int":7}})");
    QCOMPARE(m_dispatcher->getData(volume, { TuloRoles::Value() }).value(),
             QList<QVariant>({ intValue(5) }));

    const auto reply = m_dispatcher->dropCache();

    QCOMPARE(errorText(reply), QString());
    QCOMPARE(m_dispatcher->getData(volume, { TuloRoles::Value() }).value(),
             QList<QVariant>({ intValue(7) }));
}

void tst_dispatcher::closedDispatcherAnswersUnavailable()
{
    m_dispatcher->close();

    const auto reply = m_dispatcher->getData(volume, { TuloRoles::Value() });

    QVERIFY(reply.isFinished());
    QCOMPARE(errorCode(reply.error()), ErrorCode::Unavailable);
    QCOMPARE(errorText(reply), QStringLiteral("Unavailable: The engine has stopped"));
    QVERIFY(reply.value().isEmpty());
}

void tst_dispatcher::refusedRequestDoesNotReachTheWorker()
{
    NotingWorker worker;
    Router router;
    router.addWorker(&worker);
    Guard guard(&worker, m_tree->defaultPath(), m_tree->writePath());
    Dispatcher dispatcher(&router, &guard);

    const auto refused = dispatcher.getData(CMPath(QStringLiteral("/settings/../etc")), {});
    const auto served = dispatcher.getData(volume, {});

    QCOMPARE(errorCode(refused.error()), ErrorCode::Refused);
    QCOMPARE(errorText(served), QString());
    QCOMPARE(worker.requests().size(), 1);
    QCOMPARE(worker.requests().at(0).path(), volume);
}

void tst_dispatcher::acceptedChangeIsSignalled_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("role");
    QTest::addColumn<QVariant>("sent");
    QTest::addColumn<QStringList>("signalled");
    const QString path = volume.text();
    const QVariant add =
        TuloOperation(QStringLiteral("add"), TuloValue::of(TuloValue::Int(), 1)).__variant();
    QTest::newRow("value") << path << TuloRoles::Value() << intValue(6) << QStringList(path);
    QTest::newRow("operation") << path << TuloRoles::ValueOperation() << add << QStringList(path);
    QTest::newRow("path without its slash")
        << path.mid(1) << TuloRoles::Value() << intValue(6) << QStringList(path);
    QTest::newRow("action") << TuloSettingsActionsDropCache().text() << TuloRoles::Activate()
                            << QVariant() << QStringList();
    QTest::newRow("refused") << QStringLiteral("/settings/audio") << TuloRoles::Value()
                             << intValue(6) << QStringList();
    QTest::newRow("served by nobody")
        << QStringLiteral("/media/a") << TuloRoles::Value() << intValue(6) << QStringList();
}

void tst_dispatcher::acceptedChangeIsSignalled()
{
    QFETCH(QString, path);
    QFETCH(QString, role);
    QFETCH(QVariant, sent);
    QFETCH(QStringList, signalled);
    QStringList paths;
    if (!path.startsWith(QLatin1Char('/'))) {
        m_log->expect(log4cplus::WARN_LOG_LEVEL,
                      QStringLiteral("Wrong settings path detected: '%1' - please fix your code. "
                                     "Adding missing leading '/' for now.")
                          .arg(path));
    }
    connect(m_dispatcher.get(), &Dispatcher::changeAccepted, this,
            [&paths](const CMPath& accepted) { paths.append(accepted.text()); });

    sendChange(*m_dispatcher, CMPath(path), role, sent);

    QCOMPARE(paths, signalled);
}

void tst_dispatcher::rowsGetTheirNamesFromTheirPaths()
{
    const QVariantList setting { QStringLiteral("Volume"), volume.toVariant(), 101 };
    const QVariantList directory { QVariant(),
                                   CMPath(QStringLiteral("/settings/audio/presets")).toVariant(),
                                   1 };
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
