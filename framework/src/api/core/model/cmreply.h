#pragma once

#include "api/core/model/cmerror.h"
#include "api/core/tulo.h"
#include "api/core/tuloroles.h"

#include <QList>
#include <QVariant>

#include <atomic>
#include <climits>
#include <condition_variable>
#include <mutex>
#include <type_traits>
#include <utility>

class CMVoidReply;

/// Called once when a reply is finished. Not owned by the reply: a watcher outlives it or takes
/// itself out with CMVoidReply::removeWatcher(). That does not wait for a thread that is calling
/// the watchers already.
class CMReplyWatcher
{
public:
    virtual ~CMReplyWatcher() = default;

    /// Runs on the thread that finished the reply, or that added the watcher to a finished one,
    /// outside the reply's mutex.
    virtual void replyFinished(const CMVoidReply& reply) = 0;
};

/// The shared state of a reply: unfinished, then finished once with a value or an error; a
/// later answer is ignored. Reference-counted by the handles below. Thread-safe.
class CMReplyAbstractData
{
public:
    CMReplyAbstractData() = default;
    virtual ~CMReplyAbstractData() = default;

    /// Waits without limit for the reply to finish, then returns the value as a variant: a
    /// record as a hash, anything else wrapped.
    virtual QVariant valueAsVariant() const = 0;
    /// Converts `value` to the reply's type and finishes the reply with it.
    virtual void setFromVariant(const QVariant& value) = 0;

    bool isFinished() const;
    /// The error, empty while unfinished and after a success.
    CMError error() const;
    void setError(const CMError& error);
    /// Blocks until the reply is finished or `milliseconds` have passed (ULONG_MAX: no limit)
    /// and tells whether it is finished.
    bool waitForFinished(unsigned long milliseconds) const;

    /// A watcher added to a finished reply is called at once.
    void addWatcher(CMReplyWatcher* watcher);
    void removeWatcher(CMReplyWatcher* watcher);

    void acquire() { m_references.fetch_add(1, std::memory_order_relaxed); }
    /// Destroys the data when the last reference is gone.
    void release()
    {
        if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

private:
    Q_DISABLE_COPY(CMReplyAbstractData)

    std::atomic<quint32> m_references { 0 };

protected:
    /// Sets the finished flag, wakes all waiters and returns the watchers, which the caller
    /// tells after unlocking. Caller holds the mutex.
    QList<CMReplyWatcher*> finish();
    /// Tells the watchers in list order. Caller does not hold the mutex.
    void notify(const QList<CMReplyWatcher*>& watchers);

    // The standard library's, which cost nothing to make: every request brings a reply.
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_condition;
    // Set under the mutex. A thread that finds it set may read the value and the error without the
    // mutex: they do not change any more.
    std::atomic<bool> m_finished { false };
    CMError m_error;
    QList<CMReplyWatcher*> m_watchers; // under the mutex
};

template<typename T>
class CMReplyData : public CMReplyAbstractData
{
public:
    QVariant valueAsVariant() const override
    {
        const T result = value();
        if constexpr (std::is_base_of_v<TuloHash, T>)
            return result.__variant();
        else
            return QVariant::fromValue(result);
    }

    void setFromVariant(const QVariant& value) override
    {
        if constexpr (std::is_base_of_v<TuloHash, T>)
            setValue(T(value.toHash()));
        else if constexpr (std::is_same_v<T, QVariant>)
            setValue(value);
        else
            setValue(value.value<T>());
    }

    void setValue(const T& value) { store(value); }
    void setValue(T&& value) { store(std::move(value)); }

    /// Waits without limit for the reply to finish; a default value after an error.
    T value() const
    {
        waitForFinished(ULONG_MAX);
        return m_value;
    }

private:
    template<typename Value>
    void store(Value&& value)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_finished)
            return;
        m_value = std::forward<Value>(value);
        const QList<CMReplyWatcher*> watchers = finish();
        lock.unlock();
        notify(watchers);
    }

    T m_value {};
};

extern template class CMReplyData<TuloRowsRoles>;

/// The untyped handle on a reply. Copies share the reply. Every operation on a handle without
/// data asserts "d()".
class CMVoidReply
{
public:
    CMVoidReply() = default;
    /// Takes a reference; the data is destroyed with its last handle.
    explicit CMVoidReply(CMReplyAbstractData* data)
        : m_data(data)
    {
        if (m_data != nullptr)
            m_data->acquire();
    }
    CMVoidReply(const CMVoidReply& other)
        : CMVoidReply(other.m_data)
    {
    }
    CMVoidReply(CMVoidReply&& other) noexcept
        : m_data(std::exchange(other.m_data, nullptr))
    {
    }
    CMVoidReply& operator=(CMVoidReply other) noexcept
    {
        std::swap(m_data, other.m_data);
        return *this;
    }
    ~CMVoidReply()
    {
        if (m_data != nullptr)
            m_data->release();
    }

    /// The data, null for an empty handle. Stays the handle's.
    CMReplyAbstractData* data() const { return m_data; }

    bool isFinished() const;
    CMError error() const;
    void setError(const CMError& error) const;
    void addWatcher(CMReplyWatcher* watcher) const;
    void removeWatcher(CMReplyWatcher* watcher) const;

protected:
    CMReplyAbstractData* d() const { return m_data; }

private:
    CMReplyAbstractData* m_data = nullptr;
};

/// The handle on a reply that carries a T.
template<typename T>
class CMReply : public CMVoidReply
{
public:
    CMReply() = default;
    explicit CMReply(CMReplyData<T>* data)
        : CMVoidReply(data)
    {
    }

    /// A handle on fresh data, unfinished, without value and error.
    static CMReply create() { return CMReply(new CMReplyData<T>); }

    void setValue(const T& value) const { typed()->setValue(value); }
    void setValue(T&& value) const { typed()->setValue(std::move(value)); }
    T value() const { return typed()->value(); }

private:
    CMReplyData<T>* typed() const
    {
        TULO_ASSERT(d());
        return static_cast<CMReplyData<T>*>(d());
    }
};
