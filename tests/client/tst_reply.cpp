#include <tulo/error.h>
#include <tulo/reply.h>

#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace tulo;

class tst_Reply : public QObject
{
    Q_OBJECT

private slots:
    void valueArrivesOnce();
    void errorArrivesWithoutValue();
    void firstAnswerCounts();
    void cancelledReplyIgnoresItsAnswer();
    void continuationRunsWhenFinished();
    void continuationOfFinishedReplyRunsFromTheEventLoop();
    void continuationDiesWithItsContext();
    void continuationMayDropTheLastHandle();
    void waitServesOtherEvents();
    void everyErrorHasItsName();
};

void tst_Reply::valueArrivesOnce()
{
    const Promise<int> promise;
    const Reply<int> reply = promise.reply();
    QSignalSpy finished(reply.state(), &ReplyState::finished);
    QVERIFY(!reply.isFinished());
    QCOMPARE(reply.value(), 0);

    promise.finish(5);

    QVERIFY(reply.isFinished());
    QVERIFY(!reply.error());
    QCOMPARE(reply.value(), 5);
    QCOMPARE(finished.size(), 1);
}

void tst_Reply::errorArrivesWithoutValue()
{
    const Promise<int> promise;
    const Error error { ErrorCode::Limits, QStringLiteral("too much"), QStringLiteral("/a") };

    promise.fail(error);

    QVERIFY(promise.reply().isFinished());
    QCOMPARE(promise.reply().error(), error);
    QCOMPARE(promise.reply().value(), 0);
}

void tst_Reply::firstAnswerCounts()
{
    const Promise<int> promise;
    QSignalSpy finished(promise.reply().state(), &ReplyState::finished);

    promise.finish(1);
    promise.finish(2);
    promise.fail({ ErrorCode::Internal, QStringLiteral("late"), QString() });

    QCOMPARE(promise.reply().value(), 1);
    QVERIFY(!promise.reply().error());
    QCOMPARE(finished.size(), 1);
}

void tst_Reply::cancelledReplyIgnoresItsAnswer()
{
    const Promise<int> promise;
    const Reply<int> reply = promise.reply();

    reply.cancel();
    promise.finish(1);

    QCOMPARE(reply.error().code, ErrorCode::Cancelled);
    QCOMPARE(reply.value(), 0);
}

void tst_Reply::continuationRunsWhenFinished()
{
    const Promise<int> promise;
    QVector<int> seen;
    promise.reply().then(this, [&seen](const Reply<int>& reply) { seen.append(reply.value()); });
    QCOMPARE(seen, QVector<int>());

    promise.finish(3);

    QCOMPARE(seen, QVector<int>({ 3 }));
}

void tst_Reply::continuationOfFinishedReplyRunsFromTheEventLoop()
{
    const Promise<int> promise;
    promise.finish(3);
    QVector<int> seen;

    promise.reply().then(this, [&seen](const Reply<int>& reply) { seen.append(reply.value()); });

    QCOMPARE(seen, QVector<int>());
    QCoreApplication::sendPostedEvents(this);
    QCOMPARE(seen, QVector<int>({ 3 }));
}

void tst_Reply::continuationDiesWithItsContext()
{
    const Promise<int> promise;
    bool hasRun = false;
    auto context = std::make_unique<QObject>();
    promise.reply().then(context.get(), [&hasRun](const Reply<int>&) { hasRun = true; });

    context.reset();
    promise.finish(1);

    QVERIFY(!hasRun);
}

void tst_Reply::continuationMayDropTheLastHandle()
{
    auto promise = std::make_unique<Promise<int>>();
    int seen = 0;
    promise->reply().then(this, [&promise, &seen](const Reply<int>& reply) {
        promise.reset();
        seen = reply.value();
    });

    promise->finish(4);

    QCOMPARE(seen, 4);
}

void tst_Reply::waitServesOtherEvents()
{
    const Promise<int> promise;
    QMetaObject::invokeMethod(
        this, [promise] { promise.finish(7); }, Qt::QueuedConnection);

    QVERIFY(promise.reply().wait());
    QCOMPARE(promise.reply().value(), 7);
    // Finished: no event loop is run.
    QVERIFY(promise.reply().wait());
}

void tst_Reply::everyErrorHasItsName()
{
    for (int code = int(ErrorCode::None); code <= int(ErrorCode::Internal); ++code) {
        const ErrorDescription& description = describe(ErrorCode(code));
        QCOMPARE(int(description.code), code);
        if (code != int(ErrorCode::None))
            QCOMPARE(int(errorCodeNamed(QLatin1String(description.name))), code);
    }
    QCOMPARE(errorCodeNamed(QStringLiteral("NoSuchName")), ErrorCode::Internal);
    QCOMPARE(errorCodeNamed(QString()), ErrorCode::Internal);
}

QTEST_GUILESS_MAIN(tst_Reply)
#include "tst_reply.moc"
