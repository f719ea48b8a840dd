#pragma once

#include <QByteArray>
#include <QList>
#include <QMetaMethod>
#include <QMetaType>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <iosfwd>
#include <string>

/// Prints `condition` and its place on standard error and aborts the process.
/// Called by the assertion macros only; safe on every thread.
[[noreturn]] void tuloAssertionFailed(const char* condition, const char* file, int line);

/// Ends the process when `condition` does not hold, in every build type: an assertion states
/// what only a programming error can break. `text` is what the operator reads.
#define TULO_ASSERT_TEXT(condition, text)                                                          \
    do {                                                                                           \
        if (Q_UNLIKELY(!(condition)))                                                              \
            tuloAssertionFailed(text, __FILE__, __LINE__);                                         \
    } while (false)

/// The same with the condition's own source text.
#define TULO_ASSERT(condition) TULO_ASSERT_TEXT(condition, #condition)

/// Tells whether every argument of the signal `method` can be queued: a pointer, or a type that
/// the meta-type system already knows under its normalised name. Registers nothing.
bool signalParametersAreQueueable(const QMetaMethod& method);

/// Tells whether `signal` can be connected with `type`. Only a connection that is queued now
/// (explicitly, or because sender and receiver live on different threads) needs its argument
/// types registered; a queued emission of an unknown type would be dropped.
template<typename Sender, typename Signal, typename Receiver>
bool verifyConnectionSignalParameters(const Sender* sender, Signal signal, const Receiver* receiver,
                                      Qt::ConnectionType type)
{
    // With a null pointer QObject::connect() fails, which is asserted as such.
    const bool exist = sender != nullptr && receiver != nullptr;
    const bool queued = type == Qt::QueuedConnection
        || (type == Qt::AutoConnection && exist && sender->thread() != receiver->thread());
    return !queued || signalParametersAreQueueable(QMetaMethod::fromSignal(signal));
}

/// Connects `signal` of `sender` to `slot` of `receiver` and asserts that the connection was
/// made. QObject::connect() itself passes the argument types on for the queued kinds only.
template<typename Sender, typename Signal, typename Receiver, typename Slot>
void checkedConnect(const Sender* sender, Signal signal, const Receiver* receiver, Slot slot,
                    Qt::ConnectionType type = Qt::AutoConnection)
{
    TULO_ASSERT(verifyConnectionSignalParameters(sender, signal, receiver, type));
    const QMetaObject::Connection connection =
        QObject::connect(sender, signal, receiver, slot, type);
    TULO_ASSERT(connection);
}

/// Returns the short name of a function for entry records: `className` and the function's own
/// name, from a full signature.
///
/// ("virtual void Worker::trace(const Path&)", "Worker") gives "Worker::trace". A signature
/// without the class gives the name before its parameter list.
std::string dbglog_scopedFunction(const std::string& signature, const std::string& className);

// Text forms for log lines, in UTF-8: strings as they are, lists as "[a, b]", hashes as
// "{key: value, ...}" with sorted keys, booleans as true and false, an invalid variant as null.
std::ostream& operator<<(std::ostream& stream, const QString& text);
std::ostream& operator<<(std::ostream& stream, const QStringList& texts);
std::ostream& operator<<(std::ostream& stream, const QVariant& value);
std::ostream& operator<<(std::ostream& stream, const QList<QVariant>& values);
