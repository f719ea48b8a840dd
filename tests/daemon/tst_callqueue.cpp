#include "daemon/callqueue.h"

#include <QTest>

using namespace tulo;

namespace {

CallQueue::Call call(const char* sender, qint64 bytes = 100)
{
    return { sender, bytes, false };
}

CallQueue::Call flush(const char* sender)
{
    return { sender, 0, true };
}

// Takes and answers everything there is, in the queue's order.
QVector<quint64> served(CallQueue* queue)
{
    QVector<quint64> numbers;
    while (const auto number = queue->takeNext()) {
        numbers.append(*number);
        queue->remove(*number);
    }
    return numbers;
}

} // namespace

/// Who is served when, and what is too much.
class TstCallQueue : public QObject
{
    Q_OBJECT

private slots:
    void fewCallsAreServedAtATime();
    void sendersAreServedInTurnEachInItsOrder();
    void flushesDoNotHoldUpOtherCalls();
    void senderHasSoManyCalls();
    void senderHasSoManyBytes();
    void senderHasSoManyFlushes();
    void allSendersTogetherHaveSoManyBytes();
    void smallCallsAreCountedWithWhatKeepingThemTakes();
    void removedCallsAreNotServedAndMakeRoom();
    void heldSenderWaitsAndHoldsUpNobody();
};

void TstCallQueue::fewCallsAreServedAtATime()
{
    CallQueue queue;
    for (quint64 number = 1; number <= 6; ++number)
        queue.add(number, call("a"));

    for (quint64 number = 1; number <= CallQueue::maximumServed; ++number)
        QCOMPARE(queue.takeNext(), std::optional<quint64>(number));
    QCOMPARE(queue.takeNext(), std::nullopt);
    queue.remove(2);
    QCOMPARE(queue.takeNext(), std::optional<quint64>(5));
    QCOMPARE(queue.takeNext(), std::nullopt);
    queue.remove(5);
    QCOMPARE(queue.takeNext(), std::optional<quint64>(6));
}

void TstCallQueue::sendersAreServedInTurnEachInItsOrder()
{
    CallQueue queue;
    for (quint64 number = 1; number <= 4; ++number)
        queue.add(number, call("a"));
    queue.add(11, call("b"));
    queue.add(12, call("b"));
    queue.add(21, call("c"));

    QCOMPARE(served(&queue), (QVector<quint64> { 1, 11, 21, 2, 12, 3, 4 }));
}

void TstCallQueue::flushesDoNotHoldUpOtherCalls()
{
    CallQueue queue;
    queue.add(1, flush("a"));
    for (quint64 number = 2; number <= 6; ++number)
        queue.add(number, call("a"));
    queue.add(11, flush("b"));

    QVector<quint64> taken;
    while (const auto number = queue.takeNext())
        taken.append(*number);

    QCOMPARE(taken, (QVector<quint64> { 1, 11, 2, 3, 4, 5 }));
}

void TstCallQueue::senderHasSoManyCalls()
{
    CallQueue queue;
    for (quint64 number = 1; number <= 64; ++number) {
        QCOMPARE(queue.refusal(call("a")), QString());
        queue.add(number, call("a"));
    }

    QCOMPARE(queue.refusal(call("a")), QStringLiteral("More than 64 calls are under way"));
    QCOMPARE(queue.refusal(flush("a")), QStringLiteral("More than 64 calls are under way"));
    QCOMPARE(queue.refusal(call("b")), QString());
    // Taken is not answered.
    QCOMPARE(queue.takeNext(), std::optional<quint64>(1));
    QVERIFY(!queue.refusal(call("a")).isEmpty());
    queue.remove(1);
    QCOMPARE(queue.refusal(call("a")), QString());
}

void TstCallQueue::senderHasSoManyBytes()
{
    CallQueue queue;
    QVERIFY(!queue.refusal(call("a", CallQueue::maximumSenderBytes)).isEmpty());
    queue.add(1, call("a", CallQueue::maximumSenderBytes / 2));

    QCOMPARE(queue.refusal(call("a", CallQueue::maximumSenderBytes / 2)),
             QStringLiteral("Calls of more than 2097152 bytes are under way"));
    QCOMPARE(queue.refusal(call("a", CallQueue::maximumSenderBytes / 3)), QString());
    QCOMPARE(queue.refusal(call("b", CallQueue::maximumSenderBytes / 2)), QString());
}

void TstCallQueue::senderHasSoManyFlushes()
{
    CallQueue queue;
    for (quint64 number = 1; number <= 16; ++number)
        queue.add(number, flush("a"));

    QCOMPARE(queue.refusal(flush("a")), QStringLiteral("More than 16 flushes are waiting"));
    QCOMPARE(queue.refusal(call("a")), QString());
    QCOMPARE(queue.refusal(flush("b")), QString());
    QCOMPARE(served(&queue).size(), 16);
    QCOMPARE(queue.refusal(flush("a")), QString());
}

void TstCallQueue::allSendersTogetherHaveSoManyBytes()
{
    CallQueue queue;
    for (char name = 'a'; name < 'i'; ++name) {
        const CallQueue::Call large { QByteArray(1, name), 2000000, false };
        QCOMPARE(queue.refusal(large), QString());
        queue.add(quint64(name), large);
    }

    QCOMPARE(queue.refusal(call("z", 1000000)),
             QStringLiteral("Calls of more than 16777216 bytes of all clients are under way"));
    queue.remove(quint64('a'));
    QCOMPARE(queue.refusal(call("z", 1000000)), QString());
}

// So that many senders of many small calls have their limit, too.
void TstCallQueue::smallCallsAreCountedWithWhatKeepingThemTakes()
{
    CallQueue queue;
    quint64 number = 0;
    while (queue.refusal({ QByteArray::number(number / 64), 0, false }).isEmpty()) {
        QVERIFY(number < 100000);
        queue.add(number, { QByteArray::number(number / 64), 0, false });
        ++number;
    }

    QVERIFY(number > 10000);
}

void TstCallQueue::removedCallsAreNotServedAndMakeRoom()
{
    CallQueue queue;
    for (quint64 number = 1; number <= 64; ++number)
        queue.add(number, call("a"));
    queue.add(100, call("b"));
    QCOMPARE(queue.waiting().size(), 65);
    QCOMPARE(queue.takeNext(), std::optional<quint64>(1));

    const QVector<quint64> waiting = queue.waiting();
    for (const quint64 number : waiting)
        queue.remove(number);
    queue.remove(4711);

    QCOMPARE(waiting.size(), 64);
    QCOMPARE(queue.refusal(call("a")), QString());
    queue.remove(1);
    QCOMPARE(queue.takeNext(), std::nullopt);
    queue.add(200, call("a"));
    QCOMPARE(queue.takeNext(), std::optional<quint64>(200));
}

void TstCallQueue::heldSenderWaitsAndHoldsUpNobody()
{
    CallQueue queue;
    queue.add(1, call("a"));
    queue.add(2, call("a"));
    queue.add(11, call("b"));

    queue.hold("a");
    queue.add(3, call("a"));
    QVERIFY(queue.isHeld("a"));
    QCOMPARE(served(&queue), (QVector<quint64> { 11 }));
    queue.remove(1);
    queue.release("a");

    QVERIFY(!queue.isHeld("a"));
    QCOMPARE(served(&queue), (QVector<quint64> { 2, 3 }));
    QVERIFY(!queue.hasCalls("a"));
}

QTEST_GUILESS_MAIN(TstCallQueue)
#include "tst_callqueue.moc"
