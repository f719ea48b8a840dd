#pragma once

#include "tulo/error.h"
#include "tulo/export.h"

#include <QObject>
#include <QSharedPointer>

#include <utility>

namespace tulo {

/// The part of a reply that does not depend on what it holds. Programs use Reply.
class TULO_SETTINGS_EXPORT ReplyState : public QObject
{
    Q_OBJECT

public:
    bool isFinished() const { return m_isFinished; }
    const Error& error() const { return m_error; }

    /// Finishes without a value, if it has not finished.
    void fail(const Error& error);
    /// Runs an event loop until the reply has finished.
    void wait();

signals:
    /// Once.
    void finished();

protected:
    void finish();

private:
    Error m_error;
    bool m_isFinished = false;
};

template<typename T>
class Promise;

/// A handle on the answer to a request: a value or an error, later. Copies share the answer.
///
/// It finishes once, from the event loop and never inside of the call that returned it. Lives on
/// the thread of the tulo::Settings that was asked. A handle that is dropped changes nothing about
/// the request.
template<typename T>
class [[nodiscard]] Reply
{
public:
    bool isFinished() const { return m_state->isFinished(); }
    /// No error while it has not finished.
    const Error& error() const { return m_state->error(); }
    /// A default value while it has not finished and after an error.
    const T& value() const { return m_state->value; }

    /// Calls `function`, which takes a `const Reply<T>&`, when the reply has finished, from the
    /// event loop and once; not when `context` is destroyed before.
    template<typename Function>
    void then(QObject* context, Function function) const
    {
        if (isFinished()) {
            QMetaObject::invokeMethod(
                context, [reply = *this, function]() mutable { function(reply); },
                Qt::QueuedConnection);
            return;
        }
        // Weak: the state owns the connection, and is alive while it emits.
        QObject::connect(m_state.data(), &ReplyState::finished, context,
                         [state = m_state.toWeakRef(), function]() mutable {
                             function(Reply(state.toStrongRef()));
                         });
    }

    /// Emits finished().
    const ReplyState* state() const { return m_state.data(); }

    /// Stops waiting: finishes with the error Cancelled, at once. The request may have been
    /// carried out or may still be.
    void cancel() const
    {
        const auto state = m_state;
        state->fail({ ErrorCode::Cancelled, QStringLiteral("cancelled"), QString() });
    }

    /// For programs without an event loop: runs one until the reply has finished, and returns
    /// whether it has a value. Other events are served meanwhile.
    bool wait() const
    {
        const auto state = m_state;
        state->wait();
        return !error();
    }

private:
    friend class Promise<T>;

    struct State : ReplyState
    {
        T value {};
        void finishWith(const T& result)
        {
            if (isFinished())
                return;
            value = result;
            finish();
        }
    };

    explicit Reply(QSharedPointer<State> state)
        : m_state(std::move(state))
    {
    }

    QSharedPointer<State> m_state;
};

/// The answering side of a reply. The first answer counts, later ones are ignored, so that a
/// cancelled reply may still be answered. Copies share the answer.
template<typename T>
class Promise
{
public:
    // Not QSharedPointer::create(): g++ 12 takes what that leaves for uninitialized.
    Promise()
        : m_state(new typename Reply<T>::State)
    {
    }

    Reply<T> reply() const { return Reply<T>(m_state); }
    bool isFinished() const { return m_state->isFinished(); }

    // The state is kept alive while it tells of its end.
    void finish(const T& value) const
    {
        const auto state = m_state;
        state->finishWith(value);
    }
    void fail(const Error& error) const
    {
        const auto state = m_state;
        state->fail(error);
    }

private:
    QSharedPointer<typename Reply<T>::State> m_state;
};

} // namespace tulo
