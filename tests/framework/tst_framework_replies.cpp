#include "api/core/model/cmreply.h"
#include "api/core/model/cmrequest.h"
#include "tests/support/childprocess.h"
#include "tests/support/replywaiter.h"

#include <QTest>
#include <QThread>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include <dlfcn.h>

namespace {

CMError someError(const QString& name)
{
    return CMError(name, TrString(QStringLiteral("message")));
}

// Notes what it was told, in a list that several watchers share.
class Watcher : public CMReplyWatcher
{
public:
    Watcher(const QString& name, QStringList* told)
        : m_name(name)
        , m_told(told)
    {
    }

    void replyFinished(const CMVoidReply& reply) override
    {
        m_told->append(m_name);
        // Deadlocks unless the mutex of the reply is free.
        wasFinished = reply.isFinished();
        data = reply.data();
        thread = QThread::currentThread();
    }

    bool wasFinished = false;
    CMReplyAbstractData* data = nullptr;
    QThread* thread = nullptr;

private:
    const QString m_name;
    QStringList* const m_told;
};

class CountedData : public CMReplyData<QVariant>
{
public:
    explicit CountedData(int* destroyed)
        : m_destroyed(destroyed)
    {
    }
    ~CountedData() override { ++*m_destroyed; }

private:
    int* const m_destroyed;
};

void runOnThread(const std::function<void()>& function)
{
    const std::unique_ptr<QThread> thread(QThread::create(function));
    thread->start();
    if (!thread->wait(replyWaitMs))
        qFatal("the thread does not end");
}

// Where a virtual function stands in its table. The layout is that of the Itanium ABI: an odd
// pointer is the offset plus 1; on ARM the offset is plain and the mark is in the second word.
template<typename Function>
int slotOf(Function function)
{
    std::ptrdiff_t words[2];
    static_assert(sizeof(function) == sizeof(words));
    std::memcpy(words, &function, sizeof(words));
    return int((words[0] & ~std::ptrdiff_t(1)) / std::ptrdiff_t(sizeof(void*)));
}

} // namespace

/// Replies: finished once, in fixed steps, waited for and watched from any thread.
class tst_framework_replies : public QObject
{
    Q_OBJECT

private slots:
    void freshReplyIsUnfinished();
    void valueFinishesTheReply();
    void errorFinishesTheReply();
    void setValueHasItsSignature();
    void setValueMovesATemporary();
    void secondAnswerIsIgnored_data();
    void secondAnswerIsIgnored();
    void copiesShareTheReply();
    void voidHandleSeesTheTypedReply();
    void assignedHandleGivesUpItsOldReply();
    void lastHandleDestroysTheData();
    void watcherIsToldOnceWithTheReply();
    void watchersAreToldInListOrder();
    void watcherIsToldOfAnErrorToo();
    void watcherIsToldOnTheFinishingThread();
    void watcherMayUseTheReply();
    void lateWatcherIsToldAtOnce();
    void removedWatcherIsNotTold();
    void watcherMayDropTheLastOtherHandle();
    void waitReturnsAtTimeOut();
    void waitOfFinishedReplyReturnsAtOnce();
    void waitWithoutLimitEndsWhenAnotherThreadFinishes();
    void everyWaiterIsWoken();
    void valueWaitsForTheReply();
    void valueAsVariantWaitsAndWraps();
    void valueAsVariantOfARecordIsItsHash();
    void setFromVariantConvertsAndFinishes();
    void manyThreadsFinishOnce();
    void virtualSlotsAreInOrder();
    void emptyHandleAssertsD_data();
    void emptyHandleAssertsD();
};

void tst_framework_replies::freshReplyIsUnfinished()
{
    const auto reply = CMReply<QVariant>::create();

    QVERIFY(!reply.isFinished());
    QVERIFY(reply.error().isEmpty());
    QVERIFY(!reply.data()->waitForFinished(0));
}

void tst_framework_replies::valueFinishesTheReply()
{
    const auto reply = CMReply<QVariant>::create();
    reply.setValue(5);

    QVERIFY(reply.isFinished());
    QCOMPARE(reply.value(), QVariant(5));
    QVERIFY(reply.error().isEmpty());
}

void tst_framework_replies::errorFinishesTheReply()
{
    const auto reply = CMReply<QVariant>::create();
    reply.setError(someError(QStringLiteral("E")));

    QVERIFY(reply.isFinished());
    QCOMPARE(reply.error().name(), QStringLiteral("E"));
    QVERIFY(!reply.value().isValid());
}

// A worker that is compiled elsewhere names the operation by its parameter.
void tst_framework_replies::setValueHasItsSignature()
{
    void (CMReplyData<QVariant>::*const ofData)(const QVariant&) = &CMReplyData<QVariant>::setValue;
    void (CMReply<QVariant>::*const ofHandle)(const QVariant&) const = &CMReply<QVariant>::setValue;
    const auto first = CMReply<QVariant>::create();
    const auto second = CMReply<QVariant>::create();
    const QVariant value(5);

    (static_cast<CMReplyData<QVariant>*>(first.data())->*ofData)(value);
    (second.*ofHandle)(value);

    QCOMPARE(first.value(), value);
    QCOMPARE(second.value(), value);
    QVERIFY(::dlsym(RTLD_DEFAULT, "_ZN11CMReplyDataI13TuloRowsRolesE8setValueERKS0_") != nullptr);
}

void tst_framework_replies::setValueMovesATemporary()
{
    const auto reply = CMReply<QList<QVariant>>::create();
    QList<QVariant> values { 1, 2 };
    const QVariant* const stored = &values.constFirst();

    reply.setValue(std::move(values));

    const QList<QVariant> answer = reply.value();
    QCOMPARE(&answer.constFirst(), stored);
}

void tst_framework_replies::secondAnswerIsIgnored_data()
{
    QTest::addColumn<bool>("firstIsValue");
    QTest::addColumn<bool>("secondIsValue");
    QTest::newRow("value, value") << true << true;
    QTest::newRow("value, error") << true << false;
    QTest::newRow("error, value") << false << true;
    QTest::newRow("error, error") << false << false;
}

void tst_framework_replies::secondAnswerIsIgnored()
{
    QFETCH(bool, firstIsValue);
    QFETCH(bool, secondIsValue);
    const auto reply = CMReply<QVariant>::create();
    const ReplyWaiter waiter(reply);
    const auto answer = [&reply](bool isValue, const QString& text) {
        if (isValue)
            reply.setValue(text);
        else
            reply.setError(someError(text));
    };

    answer(firstIsValue, QStringLiteral("first"));
    answer(secondIsValue, QStringLiteral("second"));

    QCOMPARE(reply.value(), firstIsValue ? QVariant(QStringLiteral("first")) : QVariant());
    QCOMPARE(reply.error().name(), firstIsValue ? QString() : QStringLiteral("first"));
    QCOMPARE(waiter.count(), 1);
}

void tst_framework_replies::copiesShareTheReply()
{
    const auto reply = CMReply<QVariant>::create();
    const CMReply<QVariant> copy = reply; // NOLINT(performance-unnecessary-copy-initialization)
    reply.setValue(1);

    QCOMPARE(copy.data(), reply.data());
    QCOMPARE(copy.value(), QVariant(1));
}

void tst_framework_replies::voidHandleSeesTheTypedReply()
{
    const auto reply = CMReply<QVariant>::create();
    const CMVoidReply handle = reply;
    handle.setError(someError(QStringLiteral("E")));

    QVERIFY(reply.isFinished());
    QCOMPARE(reply.error().name(), QStringLiteral("E"));
}

void tst_framework_replies::assignedHandleGivesUpItsOldReply()
{
    int destroyed = 0;
    CMReply<QVariant> handle(new CountedData(&destroyed));
    handle = CMReply<QVariant>::create();
    QCOMPARE(destroyed, 1);

    CMReply<QVariant> moved = std::move(handle);
    QVERIFY(moved.data() != nullptr);
    const CMReply<QVariant>& self = moved;
    moved = self;
    QVERIFY(!moved.isFinished());
}

void tst_framework_replies::lastHandleDestroysTheData()
{
    int destroyed = 0;
    {
        CMVoidReply outer;
        {
            const CMReply<QVariant> reply(new CountedData(&destroyed));
            outer = reply;
        }
        QCOMPARE(destroyed, 0);
    }

    QCOMPARE(destroyed, 1);
}

void tst_framework_replies::watcherIsToldOnceWithTheReply()
{
    const auto reply = CMReply<QVariant>::create();
    QStringList told;
    Watcher watcher(QStringLiteral("a"), &told);
    reply.addWatcher(&watcher);
    QCOMPARE(told, QStringList());

    reply.setValue(1);
    reply.setValue(2);

    QCOMPARE(told, QStringList({ QStringLiteral("a") }));
    QVERIFY(watcher.wasFinished);
    QCOMPARE(watcher.data, reply.data());
}

void tst_framework_replies::watchersAreToldInListOrder()
{
    const auto reply = CMReply<QVariant>::create();
    QStringList told;
    Watcher first(QStringLiteral("first"), &told);
    Watcher second(QStringLiteral("second"), &told);
    Watcher third(QStringLiteral("third"), &told);
    for (Watcher* watcher : { &second, &first, &third })
        reply.addWatcher(watcher);

    reply.setValue(1);

    QCOMPARE(told,
             QStringList(
                 { QStringLiteral("second"), QStringLiteral("first"), QStringLiteral("third") }));
}

void tst_framework_replies::watcherIsToldOfAnErrorToo()
{
    const auto reply = CMReply<QVariant>::create();
    QStringList told;
    Watcher watcher(QStringLiteral("a"), &told);
    reply.addWatcher(&watcher);

    reply.setError(someError(QStringLiteral("E")));

    QCOMPARE(told, QStringList({ QStringLiteral("a") }));
    QVERIFY(watcher.wasFinished);
}

void tst_framework_replies::watcherIsToldOnTheFinishingThread()
{
    const auto reply = CMReply<QVariant>::create();
    const ReplyWaiter waiter(reply);
    QThread* finishing = nullptr;
    runOnThread([&] {
        finishing = QThread::currentThread();
        reply.setValue(1);
    });

    QCOMPARE(waiter.finishingThread(), finishing);
    QVERIFY(waiter.finishingThread() != QThread::currentThread());
}

void tst_framework_replies::watcherMayUseTheReply()
{
    class Nosy : public CMReplyWatcher
    {
    public:
        void replyFinished(const CMVoidReply& reply) override
        {
            name = reply.error().name();
            reply.setError(someError(QStringLiteral("later")));
            reply.removeWatcher(this);
        }
        QString name;
    };
    const auto reply = CMReply<QVariant>::create();
    Nosy watcher;
    reply.addWatcher(&watcher);

    reply.setError(someError(QStringLiteral("E")));

    QCOMPARE(watcher.name, QStringLiteral("E"));
    QCOMPARE(reply.error().name(), QStringLiteral("E"));
}

void tst_framework_replies::lateWatcherIsToldAtOnce()
{
    const auto reply = CMReply<QVariant>::create();
    runOnThread([&reply] { reply.setValue(1); });
    QStringList told;
    Watcher watcher(QStringLiteral("late"), &told);

    reply.addWatcher(&watcher);

    QCOMPARE(told, QStringList({ QStringLiteral("late") }));
    QCOMPARE(watcher.thread, QThread::currentThread());
}

void tst_framework_replies::removedWatcherIsNotTold()
{
    const auto reply = CMReply<QVariant>::create();
    QStringList told;
    Watcher gone(QStringLiteral("gone"), &told);
    Watcher stays(QStringLiteral("stays"), &told);
    reply.addWatcher(&gone);
    reply.addWatcher(&stays);
    reply.removeWatcher(&gone);

    reply.setValue(1);

    QCOMPARE(told, QStringList({ QStringLiteral("stays") }));
}

void tst_framework_replies::watcherMayDropTheLastOtherHandle()
{
    class Dropper : public CMReplyWatcher
    {
    public:
        void replyFinished(const CMVoidReply& reply) override
        {
            handle = CMVoidReply();
            finished = reply.isFinished();
        }
        CMVoidReply handle;
        bool finished = false;
    };
    int destroyed = 0;
    Dropper watcher;
    watcher.handle = CMVoidReply(new CountedData(&destroyed));
    watcher.handle.addWatcher(&watcher);

    watcher.handle.data()->setError(someError(QStringLiteral("E")));

    QVERIFY(watcher.finished);
    QCOMPARE(destroyed, 1);
}

void tst_framework_replies::waitReturnsAtTimeOut()
{
    const auto reply = CMReply<QVariant>::create();

    QVERIFY(!reply.data()->waitForFinished(0));
    QVERIFY(!reply.data()->waitForFinished(1));
}

void tst_framework_replies::waitOfFinishedReplyReturnsAtOnce()
{
    const auto reply = CMReply<QVariant>::create();
    reply.setValue(1);

    QVERIFY(reply.data()->waitForFinished(0));
    QVERIFY(reply.data()->waitForFinished(ULONG_MAX));
}

void tst_framework_replies::waitWithoutLimitEndsWhenAnotherThreadFinishes()
{
    const auto reply = CMReply<QVariant>::create();
    const std::unique_ptr<QThread> thread(QThread::create([&reply] { reply.setValue(1); }));
    thread->start();

    QVERIFY(reply.data()->waitForFinished(ULONG_MAX));

    QVERIFY(thread->wait(replyWaitMs));
}

void tst_framework_replies::everyWaiterIsWoken()
{
    const auto reply = CMReply<QVariant>::create();
    std::vector<std::unique_ptr<QThread>> threads;
    std::atomic<int> woken { 0 };
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back(QThread::create([&] {
            if (reply.data()->waitForFinished(ULONG_MAX))
                ++woken;
        }));
        threads.back()->start();
    }

    reply.setValue(1);

    for (const auto& thread : threads)
        QVERIFY(thread->wait(replyWaitMs));
    QCOMPARE(woken.load(), 3);
}

void tst_framework_replies::valueWaitsForTheReply()
{
    const auto reply = CMReply<QVariant>::create();
    const std::unique_ptr<QThread> thread(QThread::create([&reply] { reply.setValue(7); }));
    thread->start();

    QCOMPARE(reply.value(), QVariant(7));

    QVERIFY(thread->wait(replyWaitMs));
}

void tst_framework_replies::valueAsVariantWaitsAndWraps()
{
    const auto reply = CMReply<QList<QVariant>>::create();
    const std::unique_ptr<QThread> thread(QThread::create([&reply] {
        reply.setValue({ 1, QStringLiteral("x") });
    }));
    thread->start();

    const QVariant value = reply.data()->valueAsVariant();

    QVERIFY(thread->wait(replyWaitMs));
    QCOMPARE(value.userType(), int(QMetaType::QVariantList));
    QCOMPARE(value.toList(), QVariantList({ 1, QStringLiteral("x") }));

    const auto plain = CMReply<QVariant>::create();
    plain.setValue(5);
    QCOMPARE(plain.data()->valueAsVariant(), QVariant(5));
}

void tst_framework_replies::valueAsVariantOfARecordIsItsHash()
{
    const auto reply = CMReply<TuloRowsRoles>::create();
    TuloRowsRoles rows;
    rows.setRowsCount(3);
    reply.setValue(rows);

    const QVariantHash hash { { QStringLiteral("rowsCount"), 3 } };
    QCOMPARE(reply.data()->valueAsVariant(), QVariant(hash));
}

void tst_framework_replies::setFromVariantConvertsAndFinishes()
{
    const auto rows = CMReply<TuloRowsRoles>::create();
    rows.data()->setFromVariant(QVariantHash { { QStringLiteral("rowsCount"), 3 } });
    QVERIFY(rows.isFinished());
    QCOMPARE(rows.value().rowsCount(), 3);

    const auto values = CMReply<QList<QVariant>>::create();
    values.data()->setFromVariant(QVariantList { 1, 2 });
    QVERIFY(values.isFinished());
    QCOMPARE(values.value().size(), 2);

    const auto plain = CMReply<QVariant>::create();
    plain.data()->setFromVariant(QStringLiteral("x"));
    QVERIFY(plain.isFinished());
    QCOMPARE(plain.value(), QVariant(QStringLiteral("x")));
}

void tst_framework_replies::manyThreadsFinishOnce()
{
    const auto reply = CMReply<QVariant>::create();
    const ReplyWaiter waiter(reply);
    std::vector<std::unique_ptr<QThread>> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(QThread::create([&reply, i] {
            // A handle of its own: the reference count is shared, too.
            const CMReply<QVariant> handle = reply; // NOLINT
            if (i % 2 == 0)
                handle.setValue(i);
            else
                handle.setError(someError(QString::number(i)));
        }));
        threads.back()->start();
    }

    for (const auto& thread : threads)
        QVERIFY(thread->wait(replyWaitMs));

    QCOMPARE(waiter.count(), 1);
    QVERIFY(reply.value().isValid() != !reply.error().isEmpty());
}

void tst_framework_replies::virtualSlotsAreInOrder()
{
    // The complete and the deleting destructor come first.
    QCOMPARE(slotOf(&CMReplyAbstractData::valueAsVariant), 2);
    QCOMPARE(slotOf(&CMReplyAbstractData::setFromVariant), 3);
    QCOMPARE(slotOf(&CMReplyData<QVariant>::valueAsVariant), 2);
    QCOMPARE(slotOf(&CMReplyData<QVariant>::setFromVariant), 3);
}

void tst_framework_replies::emptyHandleAssertsD_data()
{
    QTest::addColumn<int>("operation");
    QTest::newRow("isFinished") << 0;
    QTest::newRow("error") << 1;
    QTest::newRow("setError") << 2;
    QTest::newRow("setValue") << 3;
    QTest::newRow("value") << 4;
    QTest::newRow("addWatcher") << 5;
    QTest::newRow("removeWatcher") << 6;
}

void tst_framework_replies::emptyHandleAssertsD()
{
    QFETCH(int, operation);
    const ChildResult child = ChildProcess::runInChild([operation] {
        const CMReply<QVariant> empty;
        switch (operation) {
        case 0:
            empty.isFinished();
            break;
        case 1:
            empty.error();
            break;
        case 2:
            empty.setError(CMError());
            break;
        case 3:
            empty.setValue(1);
            break;
        case 4:
            empty.value();
            break;
        case 5:
            empty.addWatcher(nullptr);
            break;
        default:
            empty.removeWatcher(nullptr);
        }
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("ASSERT: \"d()\" in file "), child.standardError);
}

QTEST_GUILESS_MAIN(tst_framework_replies)
#include "tst_framework_replies.moc"
