#include "changefixture.h"

#include "tests/support/childprocess.h"

#include <QTest>

#include <climits>
#include <csignal>

// The worker reads the rows version through this while a test looks on.
static std::function<void()> onRowsVersion; // NOLINT: set by one test, called by the wrapper

int realRowsVersion(const CMSubscribe* registry,
                    const CMPath& path) asm("__real__ZNK11CMSubscribe11rowsVersionERK6CMPath");
int wrappedRowsVersion(const CMSubscribe* registry,
                       const CMPath& path) asm("__wrap__ZNK11CMSubscribe11rowsVersionERK6CMPath");

int wrappedRowsVersion(const CMSubscribe* registry, const CMPath& path)
{
    if (onRowsVersion)
        onRowsVersion();
    return realRowsVersion(registry, path);
}

namespace {

using RowReply = CMReply<QList<QVariant>>;

/// Serves row requests as a test wants, and remembers them.
class RowRouter : public CMRouter
{
public:
    std::function<RowReply(const CMPath&, const QStringList&, const RowReply&)> serve;
    QStringList asked;

    RowReply getData(const CMPath& path, const QStringList& roles, const RowReply& reply) override
    {
        asked.append(path.text());
        return serve(path, roles, reply);
    }
};

RowReply answer(const RowReply& reply, const QList<QVariant>& values)
{
    reply.setValue(values);
    return reply;
}

} // namespace

class tst_WorkerGetRows : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void rangeIsAnsweredInListingOrder_data();
    void rangeIsAnsweredInListingOrder();
    void answerWithoutRowsIsAFullRecord();
    void emptyDirectoryHasNoRows();
    void negativeFirstRowAborts_data();
    void negativeFirstRowAborts();
    void rowHoldsTheRequestedRolesInOrder();
    void rowsOfTheTopDirectoryHaveOneSlash_data();
    void rowsOfTheTopDirectoryHaveOneSlash();
    void rowsOutsideTheRangeAreNotAskedFor();
    void everyRowIsAskedWithAFreshReply();
    void rowIsTakenFromTheReplyThatTheRouterReturns();
    void failureOfTheThirdRowIsTheAnswer();
    void errorWithoutANameIsNoFailure();
    void unfinishedRowReplyAborts();
    void missingDirectoryIsAnInvalidPath();
    void settingIsNoDirectory();
    void directoryThatNoTreeHoldsYetIsListed();
    void rowsVersionIsThatOfThePathAsSent();
    void rowsVersionIsReadAfterTheRows();
    void rowsVersionIsReadUnderTheMutex();
    void rowsAreAskedForUnderTheMutex();
    void successIsAnsweredWithoutTheMutex();
    void errorsAreAnsweredUnderTheMutex_data();
    void errorsAreAnsweredUnderTheMutex();
    void relativePathWarnsOnceAndIsCorrectedInTheRows();
    void lastRecordComesAfterTheAnswer();
    void everyRequestIsAnsweredOnce_data();
    void everyRequestIsAnsweredOnce();

private:
    void writeFiveSettings() const;

    std::unique_ptr<ChangeFixture> m_fixture;
    std::unique_ptr<RowRouter> m_router;
};

void tst_WorkerGetRows::init()
{
    m_router = std::make_unique<RowRouter>();
    m_fixture = std::make_unique<ChangeFixture>();
}

void tst_WorkerGetRows::cleanup()
{
    onRowsVersion = nullptr;
    m_fixture->log.verifyNothingUnexpected();
    m_fixture.reset();
}

// "/audio/a" to "/audio/e" with the values 1 to 5.
void tst_WorkerGetRows::writeFiveSettings() const
{
    m_fixture->tree.writeDefault("/audio/.meta"_s, R"({"title":"Audio"})");
    const QString names = "abcde"_s;
    for (int i = 0; i < names.size(); ++i) {
        m_fixture->tree.writeDefault("/audio/"_s + names.at(i),
                                     QVariantHash { { TuloRoles::Value(), intValue(i + 1) } });
    }
}

void tst_WorkerGetRows::rangeIsAnsweredInListingOrder_data()
{
    QTest::addColumn<int>("firstRow");
    QTest::addColumn<int>("lastRow");
    QTest::addColumn<QByteArray>("rows");

    const QByteArray all = R"([[{"int":1}],[{"int":2}],[{"int":3}],[{"int":4}],[{"int":5}]])";
    QTest::newRow("inside") << 1 << 3 << QByteArray(R"([[{"int":2}],[{"int":3}],[{"int":4}]])");
    QTest::newRow("one") << 2 << 2 << QByteArray(R"([[{"int":3}]])");
    QTest::newRow("first") << 0 << 0 << QByteArray(R"([[{"int":1}]])");
    QTest::newRow("to the last") << 0 << 4 << all;
    QTest::newRow("to the number of rows") << 0 << 5 << all;
    QTest::newRow("beyond the end") << 0 << 100 << all;
    QTest::newRow("to the greatest number") << 0 << INT_MAX << all;
    QTest::newRow("from the last on") << 4 << 100 << QByteArray(R"([[{"int":5}]])");
    QTest::newRow("from the number of rows") << 5 << 100 << QByteArray("[]");
    QTest::newRow("far beyond") << 100 << 200 << QByteArray("[]");
    QTest::newRow("from the greatest number") << INT_MAX << INT_MAX << QByteArray("[]");
    QTest::newRow("backwards") << 3 << 1 << QByteArray("[]");
    QTest::newRow("up to -1") << 0 << -1 << QByteArray("[]");
    QTest::newRow("up to the least number") << 0 << INT_MIN << QByteArray("[]");
    QTest::newRow("backwards below 0") << -2 << -3 << QByteArray("[]");
}

void tst_WorkerGetRows::rangeIsAnsweredInListingOrder()
{
    QFETCH(int, firstRow);
    QFETCH(int, lastRow);
    QFETCH(QByteArray, rows);
    writeFiveSettings();

    const auto reply = getRows(m_fixture->worker.get(), "/settings/audio"_s, firstRow, lastRow,
                               { TuloRoles::Value() });

    QCOMPARE(errorText(reply), QString());
    QCOMPARE(json(reply.value().rows()), rows);
    QCOMPARE(reply.value().rowsCount(), 5);
}

void tst_WorkerGetRows::answerWithoutRowsIsAFullRecord()
{
    writeFiveSettings();
    m_fixture->worker->subscribe()->rowsChanged(CMPath("/settings/audio"_s), "0"_s, -1, -1);

    const auto reply =
        getRows(m_fixture->worker.get(), "/settings/audio"_s, 5, 9, { TuloRoles::Value() });

    QCOMPARE(json(reply.value()),
             QByteArray(R"({"roles":{"path":"/settings/audio","title":"Audio","type":1},)"
                        R"("rows":[],"rowsCount":5,"rowsVersion":1})"));
}

void tst_WorkerGetRows::emptyDirectoryHasNoRows()
{
    m_fixture->tree.makeDefaultDirectory("/audio"_s);

    const auto reply =
        getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 9, { TuloRoles::Value() });

    QCOMPARE(json(reply.value()),
             QByteArray(R"({"roles":{"path":"/settings/audio","title":"audio","type":1},)"
                        R"("rows":[],"rowsCount":0,"rowsVersion":0})"));
    QCOMPARE(reply.value().rows().userType(), int(QMetaType::QVariantList));
}

void tst_WorkerGetRows::negativeFirstRowAborts_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("firstRow");
    QTest::addColumn<int>("lastRow");

    QTest::newRow("to 0") << "/settings/audio"_s << -1 << 0;
    QTest::newRow("to itself") << "/settings/audio"_s << -1 << -1;
    QTest::newRow("below 0") << "/settings/audio"_s << -5 << -2;
    QTest::newRow("beyond the end") << "/settings/audio"_s << INT_MIN << INT_MAX;
    QTest::newRow("no rows") << "/settings/empty"_s << -1 << 5;
}

void tst_WorkerGetRows::negativeFirstRowAborts()
{
    QFETCH(QString, path);
    QFETCH(int, firstRow);
    QFETCH(int, lastRow);
    writeFiveSettings();
    m_fixture->tree.makeDefaultDirectory("/empty"_s);

    const ChildResult child = ChildProcess::runInChild(
        [&] { getRows(m_fixture->worker.get(), path, firstRow, lastRow, { TuloRoles::Value() }); });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("\"index out of range\""), child.standardError);
}

void tst_WorkerGetRows::rowHoldsTheRequestedRolesInOrder()
{
    writeFiveSettings();

    const auto reply = getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 1,
                               { TuloRoles::Type(), "unheardOf"_s, TuloRoles::Value(),
                                 TuloRoles::Path(), TuloRoles::Type() });
    const auto bare = getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 1, {});

    QCOMPARE(json(reply.value().rows()),
             QByteArray(R"([[101,null,{"int":1},"/settings/audio/a",101],)"
                        R"([101,null,{"int":2},"/settings/audio/b",101]])"));
    QCOMPARE(json(bare.value().rows()), QByteArray("[[],[]]"));
}

void tst_WorkerGetRows::rowsOfTheTopDirectoryHaveOneSlash_data()
{
    QTest::addColumn<QString>("path");

    QTest::newRow("prefix") << "/settings"_s;
    QTest::newRow("prefix with a slash") << "/settings/"_s;
}

void tst_WorkerGetRows::rowsOfTheTopDirectoryHaveOneSlash()
{
    QFETCH(QString, path);
    m_fixture->tree.writeDefault("/alpha"_s, R"({"value":{"int":1}})");
    m_fixture->tree.makeWriteDirectory("/beta"_s);
    m_router->serve = [](const CMPath&, const QStringList&, const RowReply& reply) {
        return answer(reply, {});
    };
    m_fixture->worker->setRouter(m_router.get());

    const auto reply = getRows(m_fixture->worker.get(), path, 0, 9, { TuloRoles::Value() });

    QCOMPARE(m_router->asked, QStringList({ "/settings/alpha"_s, "/settings/beta"_s }));
    QCOMPARE(reply.value().rowsCount(), 2);
}

void tst_WorkerGetRows::rowsOutsideTheRangeAreNotAskedFor()
{
    writeFiveSettings();

    getRows(m_fixture->worker.get(), "/settings/audio"_s, 1, 2, { TuloRoles::Value() });

    QStringList loaded = m_fixture->worker->m_valueCache.keys();
    loaded.sort();
    QCOMPARE(loaded, QStringList({ "/audio"_s, "/audio/b"_s, "/audio/c"_s }));
}

void tst_WorkerGetRows::everyRowIsAskedWithAFreshReply()
{
    writeFiveSettings();
    QList<RowReply> replies;
    int fresh = 0;
    QStringList roles;
    m_router->serve = [&](const CMPath&, const QStringList& requested, const RowReply& reply) {
        fresh += !reply.isFinished() && reply.error().isEmpty() ? 1 : 0;
        roles += requested;
        replies.append(reply);
        return answer(reply, { replies.size() });
    };
    m_fixture->worker->setRouter(m_router.get());

    const auto reply = getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 1,
                               { TuloRoles::Id(), TuloRoles::Value() });

    QCOMPARE(fresh, 2);
    QVERIFY(replies.at(0).data() != replies.at(1).data());
    QCOMPARE(
        roles,
        QStringList({ TuloRoles::Id(), TuloRoles::Value(), TuloRoles::Id(), TuloRoles::Value() }));
    QCOMPARE(json(reply.value().rows()), QByteArray("[[1],[2]]"));
}

void tst_WorkerGetRows::rowIsTakenFromTheReplyThatTheRouterReturns()
{
    writeFiveSettings();
    m_router->serve = [](const CMPath&, const QStringList&, const RowReply&) {
        return answer(RowReply::create(), { "another"_s });
    };
    m_fixture->worker->setRouter(m_router.get());

    const auto reply =
        getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 0, { TuloRoles::Value() });

    QCOMPARE(json(reply.value().rows()), QByteArray(R"([["another"]])"));
}

void tst_WorkerGetRows::failureOfTheThirdRowIsTheAnswer()
{
    writeFiveSettings();
    CMError failure("Strange"_s, TrString("third"_s), TrString("Own title"_s));
    failure.__setHashAttribute("detail"_s, 7);
    m_router->serve = [&](const CMPath& path, const QStringList&, const RowReply& reply) {
        if (path.text().endsWith(QLatin1Char('c')))
            reply.setError(failure);
        else
            reply.setValue({ 1 });
        return reply;
    };
    m_fixture->worker->setRouter(m_router.get());

    const auto reply =
        getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 4, { TuloRoles::Value() });

    QVERIFY(reply.error() == failure);
    QVERIFY(reply.value().isEmpty());
    QCOMPARE(m_router->asked,
             QStringList({ "/settings/audio/a"_s, "/settings/audio/b"_s, "/settings/audio/c"_s }));
    m_fixture->log.expect(log4cplus::ERROR_LOG_LEVEL,
                          "Loaded path is invalid: /settings/audio/c"_s);
}

void tst_WorkerGetRows::errorWithoutANameIsNoFailure()
{
    writeFiveSettings();
    m_router->serve = [&](const CMPath&, const QStringList&, const RowReply& reply) {
        reply.setError(CMError(QString(), TrString("nameless"_s)));
        return reply;
    };
    m_fixture->worker->setRouter(m_router.get());

    const auto reply =
        getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 1, { TuloRoles::Value() });

    QVERIFY(reply.error().isEmpty());
    QCOMPARE(json(reply.value().rows()), QByteArray("[[],[]]"));
}

void tst_WorkerGetRows::unfinishedRowReplyAborts()
{
    writeFiveSettings();
    m_router->serve = [](const CMPath&, const QStringList&, const RowReply& reply) {
        return reply;
    };
    m_fixture->worker->setRouter(m_router.get());

    const ChildResult child = ChildProcess::runInChild([&] {
        getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 0, { TuloRoles::Value() });
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("\"rowReply.isFinished()\""), child.standardError);
}

void tst_WorkerGetRows::missingDirectoryIsAnInvalidPath()
{
    const auto reply =
        getRows(m_fixture->worker.get(), "/settings/no such"_s, 0, 9, { TuloRoles::Value() });

    QVERIFY(reply.error()
            == CMAbstractWorker::createErrorInvalidPath(CMPath("/settings/no such"_s)));
    QCOMPARE(errorText(reply), "InvalidPath: Invalid path '/settings/no%20such'"_s);
    // The listing comes first, so nothing was loaded.
    QVERIFY(m_fixture->worker->m_valueCache.isEmpty());
}

void tst_WorkerGetRows::settingIsNoDirectory()
{
    writeFiveSettings();

    const auto reply =
        getRows(m_fixture->worker.get(), "/settings/audio/a"_s, 0, 9, { TuloRoles::Value() });

    QCOMPARE(errorText(reply), "InvalidPath: Invalid path '/settings/audio/a'"_s);
}

// Between a save and its write the directory exists only in the worker's listing; it has no
// roles of its own then, and that is no error.
void tst_WorkerGetRows::directoryThatNoTreeHoldsYetIsListed()
{
    m_fixture->set("/new/first"_s, intValue(1));

    const auto reply =
        getRows(m_fixture->worker.get(), "/settings/new"_s, 0, 9, { TuloRoles::Value() });

    QCOMPARE(errorText(reply), QString());
    QCOMPARE(json(reply.value()),
             QByteArray(R"({"roles":{"path":"/settings/new","title":"new","type":101},)"
                        R"("rows":[[{"int":1}]],"rowsCount":1,"rowsVersion":1})"));
}

void tst_WorkerGetRows::rowsVersionIsThatOfThePathAsSent()
{
    writeFiveSettings();
    CMSubscribe* registry = m_fixture->worker->subscribe();
    registry->rowsChanged(CMPath("/settings/audio"_s), "0"_s, -1, -1);
    registry->rowsChanged(CMPath("/settings/audio"_s), "0"_s, -1, -1);
    registry->rowsChanged(CMPath("settings/audio"_s), "0"_s, -1, -1);

    const auto absolute = getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 0, {});
    const auto relative = getRows(m_fixture->worker.get(), "settings/audio"_s, 0, 0, {});

    QCOMPARE(absolute.value().rowsVersion(), 2);
    QCOMPARE(relative.value().rowsVersion(), 1);
    m_fixture->log.expect(log4cplus::WARN_LOG_LEVEL,
                          "Wrong settings path detected: 'settings/audio' - please fix your code. "
                          "Adding missing leading '/' for now."_s);
}

void tst_WorkerGetRows::rowsVersionIsReadAfterTheRows()
{
    writeFiveSettings();
    m_router->serve = [&](const CMPath&, const QStringList&, const RowReply& reply) {
        m_fixture->worker->subscribe()->rowsChanged(CMPath("/settings/audio"_s), "0"_s, -1, -1);
        return answer(reply, {});
    };
    m_fixture->worker->setRouter(m_router.get());

    const auto reply = getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 2, {});

    QCOMPARE(reply.value().rowsVersion(), 3);
}

void tst_WorkerGetRows::rowsVersionIsReadUnderTheMutex()
{
    writeFiveSettings();
    QList<bool> wasFree;
    onRowsVersion = [&] {
        wasFree.append(mutexIsFree(m_fixture->worker.get()));
    };

    getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 0, {});

    QCOMPARE(wasFree, QList<bool>({ false }));
}

void tst_WorkerGetRows::rowsAreAskedForUnderTheMutex()
{
    writeFiveSettings();
    QList<bool> wasFree;
    m_router->serve = [&](const CMPath& path, const QStringList& roles, const RowReply& reply) {
        wasFree.append(mutexIsFree(m_fixture->worker.get()));
        // Comes back on the same thread, as from the host's router.
        m_fixture->worker->getDataRequest(CMGetDataRequest(path, roles, reply));
        return reply;
    };
    m_fixture->worker->setRouter(m_router.get());

    const auto reply =
        getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 1, { TuloRoles::Value() });

    QCOMPARE(wasFree, QList<bool>({ false, false }));
    QCOMPARE(json(reply.value().rows()), QByteArray(R"([[{"int":1}],[{"int":2}]])"));
}

void tst_WorkerGetRows::successIsAnsweredWithoutTheMutex()
{
    writeFiveSettings();
    const auto reply = CMReply<TuloRowsRoles>::create();
    QList<bool> wasFree;
    const ReplyHook hook(reply, [&] { wasFree.append(mutexIsFree(m_fixture->worker.get())); });

    m_fixture->worker->getRowsRequest(
        CMGetRowsRequest(CMPath("/settings/audio"_s), 0, 4, { TuloRoles::Value() }, reply));

    QCOMPARE(wasFree, QList<bool>({ true }));
}

void tst_WorkerGetRows::errorsAreAnsweredUnderTheMutex_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("record");

    QTest::newRow("missing directory") << "/settings/none"_s << QString();
    QTest::newRow("failing row") << "/settings/audio"_s
                                 << "Loaded path is invalid: /settings/audio/a"_s;
}

void tst_WorkerGetRows::errorsAreAnsweredUnderTheMutex()
{
    QFETCH(QString, path);
    QFETCH(QString, record);
    writeFiveSettings();
    m_router->serve = [](const CMPath&, const QStringList&, const RowReply& reply) {
        reply.setError(CMAbstractWorker::createErrorInternal("row"_s));
        return reply;
    };
    m_fixture->worker->setRouter(m_router.get());
    const auto reply = CMReply<TuloRowsRoles>::create();
    QList<bool> wasFree;
    const ReplyHook hook(reply, [&] { wasFree.append(mutexIsFree(m_fixture->worker.get())); });

    m_fixture->worker->getRowsRequest(CMGetRowsRequest(CMPath(path), 0, 4, {}, reply));

    QCOMPARE(wasFree, QList<bool>({ false }));
    QVERIFY(mutexIsFree(m_fixture->worker.get()));
    if (!record.isEmpty())
        m_fixture->log.expect(log4cplus::ERROR_LOG_LEVEL, record);
}

void tst_WorkerGetRows::relativePathWarnsOnceAndIsCorrectedInTheRows()
{
    writeFiveSettings();
    m_router->serve = [](const CMPath&, const QStringList&, const RowReply& reply) {
        return answer(reply, {});
    };
    m_fixture->worker->setRouter(m_router.get());

    const auto reply = getRows(m_fixture->worker.get(), "settings/audio"_s, 0, 1, {});

    QCOMPARE(m_router->asked, QStringList({ "/settings/audio/a"_s, "/settings/audio/b"_s }));
    QCOMPARE(reply.value().rowsCount(), 5);
    m_fixture->log.expect(log4cplus::WARN_LOG_LEVEL,
                          "Wrong settings path detected: 'settings/audio' - please fix your code. "
                          "Adding missing leading '/' for now."_s);
}

void tst_WorkerGetRows::lastRecordComesAfterTheAnswer()
{
    writeFiveSettings();
    m_fixture->log.setLevel(log4cplus::TRACE_LOG_LEVEL);
    Journal journal(&m_fixture->log);
    const auto reply = CMReply<TuloRowsRoles>::create();
    const ReplyHook hook(reply, [&] { journal.note("answered"_s); });

    m_fixture->worker->getRowsRequest(
        CMGetRowsRequest(CMPath("/settings/audio"_s), 0, 0, { TuloRoles::Value() }, reply));

    QCOMPARE(
        journal.entries().mid(journal.entries().indexOf("answered"_s)),
        QStringList(
            { "answered"_s,
              "TRACE CMSettingsWorker::getRowsRequest {roles: {path: /settings/audio, "
              "title: Audio, type: 1}, rows: [[{int: 1}]], rowsCount: 5, rowsVersion: 0}"_s }));
}

void tst_WorkerGetRows::everyRequestIsAnsweredOnce_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("firstRow");

    QTest::newRow("rows") << "/settings/audio"_s << 0;
    QTest::newRow("no rows") << "/settings/audio"_s << 9;
    QTest::newRow("missing directory") << "/settings/none"_s << 0;
}

void tst_WorkerGetRows::everyRequestIsAnsweredOnce()
{
    QFETCH(QString, path);
    QFETCH(int, firstRow);
    writeFiveSettings();
    const auto reply = CMReply<TuloRowsRoles>::create();
    const ReplyWaiter waiter(reply);

    m_fixture->worker->getRowsRequest(CMGetRowsRequest(CMPath(path), firstRow, 9, {}, reply));

    QVERIFY(reply.isFinished());
    QCOMPARE(waiter.count(), 1);
}

QTEST_GUILESS_MAIN(tst_WorkerGetRows)
#include "tst_worker_getrows.moc"
