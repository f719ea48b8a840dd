#pragma once

#include "api/core/model/cmpath.h"

#include <QHash>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QVariant>
#include <QVector>
#include <QWaitCondition>

/// Receives announcements. Not owned by the registry: its owner calls CMSubscribe::unsubscribe()
/// before its destruction begins, at the latest in the destructor of the most derived class.
/// Called on the announcing thread, outside the registry's lock, so it may subscribe, unsubscribe
/// and ask from inside. Announcements made on several threads at once reach it at the same time,
/// in any order.
class CMSubscriber
{
public:
    virtual ~CMSubscriber() = default;

    /// `value` is the new value as a hash.
    virtual void valueChanged(const CMPath& path, const QVariant& value);
    virtual void dataChanged(const CMPath& path);
    /// `command` is the index of the row that changed, with a leading "+" for a row that was
    /// inserted there; `version` is the directory's rows version from now on.
    virtual void rowsChanged(const CMPath& path, const QString& command, int version);
};

/// The subscription registry of one worker: holds the subscribers of each path and announces every
/// change. Subscribers of exactly the announced path are called synchronously, in order of
/// subscription, observers after them; each once. One that is taken out while an announcement is
/// under way is not called any more.
///
/// Every operation may be called on any thread; the path-added signals are emitted on the calling
/// one. Destroy the registry when no other thread uses it.
class CMSubscribe : public QObject
{
    Q_OBJECT

public:
    CMSubscribe() = default;

    // Each emits the path-added signal of its kind, a repeated subscription too.
    void subscribeValue(const CMPath& path, CMSubscriber* subscriber);
    void subscribeData(const CMPath& path, CMSubscriber* subscriber);
    void subscribeRows(const CMPath& path, CMSubscriber* subscriber);
    /// Takes `subscriber` out of every path and out of the observers, then waits for the calls to
    /// it that are under way on other threads. Once this returns it is not called any more and
    /// may be destroyed.
    ///
    /// Inside a call to `subscriber` on the same thread this waits for nothing: calls on other
    /// threads may still be under way then. The caller holds no lock that the awaited calls need,
    /// and two subscribers do not take each other out from within their calls.
    void unsubscribe(CMSubscriber* subscriber);
    /// An observer hears every announcement, whether anybody subscribed or not.
    void addObserver(CMSubscriber* observer);

    /// Announces a node's new value.
    void valueChanged(const CMPath& path, const QVariant& value);
    /// Announces that a node's data changed.
    void dataChanged(const CMPath& path);
    /// Announces a change in a directory's rows and raises its rows version before. The two
    /// numbers are reserved for ranges; -1 stands for none.
    void rowsChanged(const CMPath& path, const QString& command, int first, int last);

    /// How often the rows of `path` changed, 0 at first.
    int rowsVersion(const CMPath& path) const;
    /// The subscribed data paths that are `prefix` or lie below it, compared by whole
    /// components with or without the leading "/"; each once, sorted.
    QList<CMPath> dataPathsStartingWith(const CMPath& prefix) const;

signals:
    void dataPathAdded(const CMPath& path);
    void rowsPathAdded(const CMPath& path);
    void valuePathAdded(const CMPath& path);

private:
    using Subscribers = QHash<CMPath, QList<CMSubscriber*>>;

    /// An announcement under way.
    struct Delivery
    {
        Qt::HANDLE thread = nullptr;
        QList<CMSubscriber*> listeners; ///< null for one that was taken out meanwhile
        CMSubscriber* called = nullptr; ///< by `thread`, now
    };

    void subscribe(Subscribers& subscribers, const CMPath& path, CMSubscriber* subscriber);
    /// The subscribers of `path`, then the observers that are not among them. Caller holds the
    /// mutex.
    QList<CMSubscriber*> listeners(const Subscribers& subscribers, const CMPath& path) const;
    /// Calls `tell` for each of them that is still one when its turn comes. Takes the mutex only
    /// between the calls.
    template<typename Tell>
    void announce(const Subscribers& subscribers, const CMPath& path, Tell tell);
    /// Whether another thread calls `subscriber` now and this one does not. Caller holds the
    /// mutex.
    bool isCalledElsewhere(const CMSubscriber* subscriber) const;

    mutable QMutex m_mutex;
    QWaitCondition m_callEnded;
    // Under the mutex.
    Subscribers m_valueSubscribers;
    Subscribers m_dataSubscribers;
    Subscribers m_rowsSubscribers;
    QList<CMSubscriber*> m_observers;
    QHash<CMPath, int> m_rowsVersions;
    QVector<Delivery*> m_deliveries; ///< each lives on the stack of its thread
};
