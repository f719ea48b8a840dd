#include "tests/daemon/rawconnection.h"

#include "tests/support/childprocess.h"

#include <QFile>

#include <atomic>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// ---------------------------------------------------------------------------------------------
// Messages.
// ---------------------------------------------------------------------------------------------

void RawArguments::pad(int alignment)
{
    while (bytes.size() % alignment != 0)
        bytes.append('\0');
}

void RawArguments::addNumber(quint32 number)
{
    pad(4);
    for (int i = 0; i < 4; ++i)
        bytes.append(char(number >> (8 * i)));
}

void RawArguments::addString(const QByteArray& text)
{
    addNumber(quint32(text.size()));
    bytes.append(text).append('\0');
}

void RawArguments::addSignature(const QByteArray& signature)
{
    bytes.append(char(signature.size())).append(signature).append('\0');
}

void RawArguments::addStrings(const QList<QByteArray>& texts)
{
    RawArguments elements;
    for (const QByteArray& text : texts)
        elements.addString(text);
    addNumber(quint32(elements.bytes.size()));
    bytes += elements.bytes;
}

void RawArguments::addEmptyMap()
{
    addNumber(0);
    pad(8);
}

QByteArray RawConnection::call(const QByteArray& destination, const QByteArray& path,
                               const QByteArray& interface, const QByteArray& member,
                               const QByteArray& signature, const RawArguments& arguments,
                               Answer answer)
{
    static std::atomic<quint32> serial { 0 };
    RawArguments fields;
    const auto addField = [&fields](int code, char type, const QByteArray& text) {
        fields.pad(8);
        fields.bytes.append(char(code));
        fields.addSignature(QByteArray(1, type));
        if (type == 'g')
            fields.addSignature(text);
        else
            fields.addString(text);
    };
    addField(1, 'o', path);
    addField(2, 's', interface);
    addField(3, 's', member);
    addField(6, 's', destination);
    if (!signature.isEmpty())
        addField(8, 'g', signature);
    RawArguments message;
    message.bytes = QByteArray("l\1\0\1", 4);
    message.bytes[2] = answer == Answer::Wanted ? '\0' : '\1';
    message.addNumber(quint32(arguments.bytes.size()));
    message.addNumber(++serial);
    message.addNumber(quint32(fields.bytes.size()));
    message.bytes += fields.bytes;
    message.pad(8);
    return message.bytes + arguments.bytes;
}

QByteArray RawConnection::serviceCall(const char* part, const QByteArray& member,
                                      const QByteArray& signature, const RawArguments& arguments,
                                      Answer answer)
{
    const QByteArray name = "org.tulo.ConfigurationManager1";
    return call(name, "/org/tulo/ConfigurationManager1", part == nullptr ? name : name + '.' + part,
                member, signature, arguments, answer);
}

// ---------------------------------------------------------------------------------------------
// The connection.
// ---------------------------------------------------------------------------------------------

RawConnection::RawConnection(const QString& bus)
    : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    const QByteArray name = QFile::encodeName(bus.mid(int(std::strlen("unix:path="))));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.constData(),
                qMin(size_t(name.size()), sizeof address.sun_path - 1));
    const timeval limit { ChildProcess::waitMs / 1000, 0 };
    ::setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (::connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        qFatal("cannot connect to the bus");
    const QByteArray user = QByteArray::number(::geteuid()).toHex();
    send(QByteArray(1, '\0') + "AUTH EXTERNAL " + user + "\r\n");
    receive();
    send("BEGIN\r\n");
    send(call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello"));
}

RawConnection::~RawConnection()
{
    ::close(m_socket);
}

bool RawConnection::send(const QByteArray& bytes) const
{
    qint64 sent = 0;
    while (sent < bytes.size()) {
        const ssize_t size =
            ::send(m_socket, bytes.constData() + sent, size_t(bytes.size() - sent), MSG_NOSIGNAL);
        if (size <= 0)
            return false;
        sent += size;
    }
    return true;
}

bool RawConnection::watchService() const
{
    RawArguments rule;
    rule.addString("type='signal',interface='org.tulo.ConfigurationManager1'");
    if (!send(call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                   "AddMatch", "s", rule)))
        return false;
    // The beginning of an answer as the bus makes them: to Hello and to this.
    const QByteArray answer("l\2\1\1", 4);
    QByteArray received;
    while (received.count(answer) < 2) {
        const QByteArray more = receive();
        if (more.isEmpty())
            return false;
        received += more;
    }
    return true;
}

QByteArray RawConnection::receive() const
{
    char bytes[65536];
    const ssize_t size = ::recv(m_socket, bytes, sizeof bytes, 0);
    return QByteArray(bytes, int(qMax<ssize_t>(size, 0)));
}

bool RawConnection::receiveAnswers(int count) const
{
    constexpr int headBytes = 16;
    const auto number = [](const QByteArray& bytes, int place) {
        quint32 result = 0;
        std::memcpy(&result, bytes.constData() + place, sizeof result);
        return int(result);
    };
    QByteArray received;
    while (count > 0) {
        const QByteArray more = receive();
        if (more.isEmpty())
            return false;
        received += more;
        int begin = 0;
        while (received.size() - begin >= headBytes) {
            const QByteArray head = received.mid(begin, headBytes);
            const int fields = (number(head, 12) + 7) / 8 * 8;
            const int size = headBytes + fields + number(head, 4);
            if (received.size() - begin < size)
                break;
            // Method returns and errors, but those of the bus itself.
            const bool isAnswer = head[1] == 2 || head[1] == 3;
            const QByteArray header = received.mid(begin, headBytes + fields);
            if (isAnswer && !header.contains(QByteArray("org.freedesktop.DBus\0", 21)))
                --count;
            begin += size;
        }
        received.remove(0, begin);
    }
    return true;
}

bool RawConnection::waitForClose() const
{
    while (!receive().isEmpty()) { }
    char byte = 0;
    return ::recv(m_socket, &byte, 1, MSG_DONTWAIT) == 0;
}
