#include "api/core/model/cmsubscribe.h"

#include <QMutexLocker>
#include <QThread>

#include <algorithm>
#include <iterator>

void CMSubscriber::valueChanged(const CMPath&, const QVariant&) { }

void CMSubscriber::dataChanged(const CMPath&) { }

void CMSubscriber::rowsChanged(const CMPath&, const QString&, int) { }

void CMSubscribe::subscribe(Subscribers& subscribers, const CMPath& path, CMSubscriber* subscriber)
{
    // A path may have to be queued to the worker's thread from here on.
    CMPath::registerMetaType();
    const QMutexLocker locker(&m_mutex);
    QList<CMSubscriber*>& list = subscribers[path];
    if (!list.contains(subscriber))
        list.append(subscriber);
}

void CMSubscribe::subscribeValue(const CMPath& path, CMSubscriber* subscriber)
{
    subscribe(m_valueSubscribers, path, subscriber);
    emit valuePathAdded(path);
}

void CMSubscribe::subscribeData(const CMPath& path, CMSubscriber* subscriber)
{
    subscribe(m_dataSubscribers, path, subscriber);
    emit dataPathAdded(path);
}

void CMSubscribe::subscribeRows(const CMPath& path, CMSubscriber* subscriber)
{
    subscribe(m_rowsSubscribers, path, subscriber);
    emit rowsPathAdded(path);
}

void CMSubscribe::unsubscribe(CMSubscriber* subscriber)
{
    const QMutexLocker locker(&m_mutex);
    for (Subscribers* subscribers :
         { &m_valueSubscribers, &m_dataSubscribers, &m_rowsSubscribers }) {
        for (auto entry = subscribers->begin(); entry != subscribers->end();) {
            entry->removeAll(subscriber);
            entry = entry->isEmpty() ? subscribers->erase(entry) : std::next(entry);
        }
    }
    m_observers.removeAll(subscriber);

    CMSubscriber* const nobody = nullptr;
    for (Delivery* delivery : qAsConst(m_deliveries))
        std::replace(delivery->listeners.begin(), delivery->listeners.end(), subscriber, nobody);
    while (isCalledElsewhere(subscriber))
        m_callEnded.wait(&m_mutex);
}

bool CMSubscribe::isCalledElsewhere(const CMSubscriber* subscriber) const
{
    const Qt::HANDLE thisThread = QThread::currentThreadId();
    bool called = false;
    for (const Delivery* delivery : m_deliveries) {
        if (delivery->called != subscriber)
            continue;
        // Waiting here would be for this call's own end.
        if (delivery->thread == thisThread)
            return false;
        called = true;
    }
    return called;
}

void CMSubscribe::addObserver(CMSubscriber* observer)
{
    const QMutexLocker locker(&m_mutex);
    if (!m_observers.contains(observer))
        m_observers.append(observer);
}

QList<CMSubscriber*> CMSubscribe::listeners(const Subscribers& subscribers,
                                            const CMPath& path) const
{
    QList<CMSubscriber*> listeners = subscribers.value(path);
    for (CMSubscriber* observer : m_observers) {
        if (!listeners.contains(observer))
            listeners.append(observer);
    }
    return listeners;
}

template<typename Tell>
void CMSubscribe::announce(const Subscribers& subscribers, const CMPath& path, Tell tell)
{
    QMutexLocker locker(&m_mutex);
    Delivery delivery { QThread::currentThreadId(), listeners(subscribers, path), nullptr };
    if (delivery.listeners.isEmpty())
        return;
    m_deliveries.append(&delivery);
    for (int i = 0; i < delivery.listeners.size(); ++i) {
        CMSubscriber* const subscriber = delivery.listeners.at(i);
        if (subscriber == nullptr)
            continue;
        delivery.called = subscriber;
        locker.unlock();
        tell(subscriber);
        locker.relock();
        delivery.called = nullptr;
        m_callEnded.wakeAll();
    }
    m_deliveries.removeOne(&delivery);
}

void CMSubscribe::valueChanged(const CMPath& path, const QVariant& value)
{
    announce(m_valueSubscribers, path,
             [&](CMSubscriber* subscriber) { subscriber->valueChanged(path, value); });
}

void CMSubscribe::dataChanged(const CMPath& path)
{
    announce(m_dataSubscribers, path,
             [&](CMSubscriber* subscriber) { subscriber->dataChanged(path); });
}

void CMSubscribe::rowsChanged(const CMPath& path, const QString& command, int, int)
{
    QMutexLocker locker(&m_mutex);
    const int version = ++m_rowsVersions[path];
    locker.unlock();
    announce(m_rowsSubscribers, path,
             [&](CMSubscriber* subscriber) { subscriber->rowsChanged(path, command, version); });
}

int CMSubscribe::rowsVersion(const CMPath& path) const
{
    const QMutexLocker locker(&m_mutex);
    return m_rowsVersions.value(path);
}

QList<CMPath> CMSubscribe::dataPathsStartingWith(const CMPath& prefix) const
{
    const auto relative = [](const QString& text) {
        return text.startsWith(QLatin1Char('/')) ? text.mid(1) : text;
    };
    QString wanted = relative(prefix.text());
    if (wanted.endsWith(QLatin1Char('/')))
        wanted.chop(1);
    const QString below = wanted.isEmpty() ? QString() : wanted + QLatin1Char('/');
    QList<CMPath> paths;
    const QMutexLocker locker(&m_mutex);
    for (auto entry = m_dataSubscribers.cbegin(); entry != m_dataSubscribers.cend(); ++entry) {
        const QString text = relative(entry.key().text());
        if (text == wanted || text.startsWith(below))
            paths.append(entry.key());
    }
    std::sort(paths.begin(), paths.end(),
              [](const CMPath& left, const CMPath& right) { return left.text() < right.text(); });
    return paths;
}
