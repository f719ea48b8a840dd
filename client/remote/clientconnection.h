#pragma once

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <QVariant>

#include <functional>
#include <memory>

#include <systemd/sd-bus.h>

class QSocketNotifier;

namespace tulo {

struct MessageUnref
{
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

using MessagePointer = std::unique_ptr<sd_bus_message, MessageUnref>;

/// One connection to a bus in the event loop of its thread: no thread, no nested event loop, and
/// nothing blocks. What is sent before the bus has answered the first greeting waits.
///
/// Messages are handed out one after another in the order of the bus, at most so many in one turn
/// of the event loop. A handler may run an event loop, close the connection or destroy it.
class ClientConnection : public QObject
{
    Q_OBJECT

public:
    /// Takes the answer to a call, which is an error message after a time-out. Not called any more
    /// once the connection is closed or lost.
    using Handler = std::function<void(sd_bus_message* message)>;

    /// `signalled` takes the signals of the bus.
    explicit ClientConnection(Handler signalled);
    ~ClientConnection() override;

    /// Connects to a D-Bus address. Returns a negative error number when that fails at once.
    [[nodiscard]] int open(const QByteArray& address);
    void close();
    bool isOpen() const { return m_bus != nullptr; }

    /// A method call to be filled in and sent. Null when memory is exhausted.
    MessagePointer createCall(const char* destination, const char* path, const char* interface,
                              const char* member);
    /// False when it cannot be sent; the handler is not called then.
    [[nodiscard]] bool send(const MessagePointer& call, qint64 timeoutMs, Handler handler);

signals:
    /// The connection has ended and is closed.
    void lost(const QString& reason);

private:
    struct Call;

    static int on_answer(sd_bus_message* message, void* userdata, sd_bus_error* error);

    void process();
    bool processOne();
    void listen();
    void lose(int error);

    const Handler m_signalled;
    sd_bus* m_bus = nullptr;
    int m_descriptor = -1;
    std::unique_ptr<QSocketNotifier> m_readable;
    std::unique_ptr<QSocketNotifier> m_writable;
    QTimer m_timer;
    quint64 m_deadlineUs = 0; ///< when the timer fires; of no meaning while it does not run

    // The answer that sd-bus just handed out. It is handled when sd-bus has returned, because
    // sd-bus cannot be called from inside of it for more messages.
    Handler m_answered;
    MessagePointer m_answer;
};

} // namespace tulo
