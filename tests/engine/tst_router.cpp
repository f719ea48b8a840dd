#include "engine/errors.h"
#include "engine/router.h"

#include "tests/engine/enginefixture.h"
#include "tests/support/replywaiter.h"

#include <QTest>

using namespace tulo;

class tst_router : public QObject
{
    Q_OBJECT

private slots:
    void pathGoesToTheWorkerOfItsPrefix_data();
    void pathGoesToTheWorkerOfItsPrefix();
    void pathWithoutWorkerGetsTheInvalidPathError();
    void everyKindOfRequestReachesItsOperation();
    void rowRequestsOfAWorkerGoToTheWorkerThatServesThem();
    void removedWorkerIsAskedNoMore();
};

void tst_router::pathGoesToTheWorkerOfItsPrefix_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("prefix");
    QTest::newRow("mount") << QStringLiteral("/settings") << QStringLiteral("/settings");
    QTest::newRow("below") << QStringLiteral("/settings/a/b") << QStringLiteral("/settings");
    QTest::newRow("without the leading slash")
        << QStringLiteral("settings/a") << QStringLiteral("/settings");
    QTest::newRow("mount without the leading slash")
        << QStringLiteral("settings") << QStringLiteral("/settings");
    QTest::newRow("longer name") << QStringLiteral("/settings2/a") << QStringLiteral("/settings2");
    QTest::newRow("shorter name") << QStringLiteral("/setting/a") << QString();
    QTest::newRow("longer name that nobody has") << QStringLiteral("/settings3") << QString();
    QTest::newRow("other case") << QStringLiteral("/Settings/a") << QString();
    QTest::newRow("empty") << QString() << QString();
    QTest::newRow("root") << QStringLiteral("/") << QString();
    QTest::newRow("two slashes") << QStringLiteral("//settings") << QString();
}

void tst_router::pathGoesToTheWorkerOfItsPrefix()
{
    QFETCH(QString, path);
    QFETCH(QString, prefix);
    NotingWorker settings;
    NotingWorker other(QStringLiteral("/settings2"));
    Router router;
    router.addWorker(&settings);
    router.addWorker(&other);

    CMWorker* const worker = router.workerFor(CMPath(path));

    QCOMPARE(worker == nullptr ? QString() : worker->prefixPath().text(), prefix);
}

void tst_router::pathWithoutWorkerGetsTheInvalidPathError()
{
    NotingWorker worker;
    Router router;
    router.addWorker(&worker);
    const auto reply = CMReply<QList<QVariant>>::create();

    router.request(CMGetDataRequest(CMPath(QStringLiteral("/media/a b")), {}, reply));

    QVERIFY(reply.isFinished());
    QCOMPARE(errorCode(reply.error()), ErrorCode::InvalidPath);
    QCOMPARE(errorText(reply), QStringLiteral("InvalidPath: Invalid path '/media/a%20b'"));
    QVERIFY(worker.requests().isEmpty());
}

void tst_router::everyKindOfRequestReachesItsOperation()
{
    NotingWorker worker;
    Router router;
    router.addWorker(&worker);
    const CMPath path(QStringLiteral("/settings/a"));
    const auto rowsReply = CMReply<TuloRowsRoles>::create();
    const auto setReply = CMReply<QVariant>::create();
    const auto pingReply = CMReply<QVariant>::create();

    router.request(CMGetRowsRequest(path, 0, 1, {}, rowsReply));
    router.request(CMSetDataRequest(path, TuloRoles::Value(), QVariant(), setReply));
    router.request(CMSetDataRequest::ping(path, pingReply));

    QVERIFY(rowsReply.isFinished() && setReply.isFinished() && pingReply.isFinished());
    QCOMPARE(worker.requests().size(), 2);
    QCOMPARE(worker.requests().at(0).kind(), CMRequest::Kind::GetRows);
    QCOMPARE(worker.requests().at(1).kind(), CMRequest::Kind::SetData);
}

void tst_router::rowRequestsOfAWorkerGoToTheWorkerThatServesThem()
{
    NotingWorker settings;
    NotingWorker other(QStringLiteral("/media"));
    Router router;
    router.addWorker(&settings);
    router.addWorker(&other);

    const auto reply = settings.getData(CMPath(QStringLiteral("/media/a")), {},
                                        CMReply<QList<QVariant>>::create());

    QVERIFY(reply.isFinished());
    QCOMPARE(other.requests().size(), 1);
    QCOMPARE(other.requests().at(0).path().text(), QStringLiteral("/media/a"));
    QVERIFY(settings.requests().isEmpty());
}

void tst_router::removedWorkerIsAskedNoMore()
{
    NotingWorker settings;
    NotingWorker other(QStringLiteral("/media"));
    Router router;
    router.addWorker(&settings);
    router.addWorker(&other);

    router.removeWorker(&other);

    QCOMPARE(router.workerFor(CMPath(QStringLiteral("/media/a"))), nullptr);
    QCOMPARE(router.workerFor(CMPath(QStringLiteral("/settings/a"))), &settings);
}

QTEST_GUILESS_MAIN(tst_router)
#include "tst_router.moc"
