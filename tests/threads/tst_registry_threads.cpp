#include "api/core/model/cmsubscribe.h"
#include "tests/support/repeats.h"

#include <QByteArray>
#include <QFile>
#include <QSemaphore>
#include <QTest>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

namespace {

const CMPath path(QStringLiteral("/settings/a"));

/// Calls `onData` in each announcement and counts those that come after it retired.
class Subscriber : public CMSubscriber
{
public:
    explicit Subscriber(std::function<void()> onData = {})
        : m_onData(std::move(onData))
    {
    }

    void retire() { m_retired = true; }
    int lateCalls() const { return m_lateCalls; }

    void dataChanged(const CMPath&) override
    {
        if (m_onData)
            m_onData();
        // After the hook, which may give others the time to retire this.
        if (m_retired)
            ++m_lateCalls;
    }

private:
    const std::function<void()> m_onData;
    std::atomic<bool> m_retired { false };
    std::atomic<int> m_lateCalls { 0 };
};

/// Whether the thread waits in the kernel.
bool sleeps(long thread)
{
    QFile status(QStringLiteral("/proc/self/task/%1/stat").arg(thread));
    if (!status.open(QIODevice::ReadOnly))
        return false;
    const QByteArray line = status.readAll();
    // "ID (NAME) STATE ...": the name may hold anything.
    return line.mid(line.lastIndexOf(')') + 2, 1) == "S";
}

} // namespace

/// The registry used by several threads: when a subscriber may be destroyed.
class tst_registry_threads : public QObject
{
    Q_OBJECT

private slots:
    void unsubscribeWaitsForTheCallUnderWay();
    void unsubscribeOfAnotherSubscriberDoesNotWait();
    void unsubscribeInsideACallWaitsForNoOtherThread();
    void subscriberIsNeverCalledAfterUnsubscribe();
};

void tst_registry_threads::unsubscribeWaitsForTheCallUnderWay()
{
    CMSubscribe registry;
    QSemaphore entered;
    QSemaphore leave;
    std::atomic<bool> callEnded { false };
    Subscriber subscriber([&] {
        entered.release();
        leave.acquire();
        callEnded = true;
    });
    registry.subscribeData(path, &subscriber);
    std::thread announcing([&] { registry.dataChanged(path); });
    entered.acquire();

    std::atomic<long> waiting { 0 };
    std::atomic<bool> unsubscribed { false };
    bool endedBefore = false;
    std::thread unsubscribing([&] {
        waiting = ::syscall(SYS_gettid);
        registry.unsubscribe(&subscriber);
        endedBefore = callEnded;
        unsubscribed = true;
    });
    while (!unsubscribed && (waiting == 0 || !sleeps(waiting)))
        std::this_thread::yield();
    leave.release();
    unsubscribing.join();
    announcing.join();

    QVERIFY(endedBefore);
}

void tst_registry_threads::unsubscribeOfAnotherSubscriberDoesNotWait()
{
    CMSubscribe registry;
    QSemaphore entered;
    QSemaphore leave;
    Subscriber busy([&] {
        entered.release();
        leave.acquire();
    });
    Subscriber other;
    registry.subscribeData(path, &busy);
    registry.subscribeData(path, &other);
    std::thread announcing([&] { registry.dataChanged(path); });
    entered.acquire();

    registry.unsubscribe(&other);
    other.retire();
    leave.release();
    announcing.join();

    QCOMPARE(other.lateCalls(), 0);
}

void tst_registry_threads::unsubscribeInsideACallWaitsForNoOtherThread()
{
    CMSubscribe registry;
    QSemaphore entered;
    QSemaphore leave;
    std::atomic<bool> unsubscribed { false };
    // The first call blocks, the second takes the subscriber out.
    std::atomic<int> calls { 0 };
    Subscriber subscriber([&] {
        if (++calls == 1) {
            entered.release();
            leave.acquire();
        } else {
            registry.unsubscribe(&subscriber);
            unsubscribed = true;
        }
    });
    registry.subscribeData(path, &subscriber);
    std::thread announcing([&] { registry.dataChanged(path); });
    entered.acquire();

    registry.dataChanged(path);

    QVERIFY(unsubscribed);
    leave.release();
    announcing.join();
    registry.dataChanged(path);
    QCOMPARE(calls.load(), 2);
}

void tst_registry_threads::subscriberIsNeverCalledAfterUnsubscribe()
{
    const int rounds = repeats(1000, 3000);
    CMSubscribe registry;
    std::atomic<bool> done { false };
    std::vector<std::thread> announcing;
    for (int i = 0; i < 2; ++i) {
        announcing.emplace_back([&] {
            while (!done) {
                registry.dataChanged(path);
                std::this_thread::yield();
            }
        });
    }
    int lateCalls = 0;
    // Kept until no thread can call them any more, so that a late call is counted safely.
    std::vector<std::unique_ptr<Subscriber>> subscribers;

    for (int round = 0; round < rounds; ++round) {
        subscribers.push_back(std::make_unique<Subscriber>(std::this_thread::yield));
        registry.subscribeData(path, subscribers.back().get());
        std::this_thread::yield();
        registry.unsubscribe(subscribers.back().get());
        subscribers.back()->retire();
    }
    done = true;
    for (std::thread& thread : announcing)
        thread.join();

    for (const std::unique_ptr<Subscriber>& subscriber : subscribers)
        lateCalls += subscriber->lateCalls();
    QCOMPARE(lateCalls, 0);
}

QTEST_GUILESS_MAIN(tst_registry_threads)
#include "tst_registry_threads.moc"
