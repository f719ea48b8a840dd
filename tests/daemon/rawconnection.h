#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

/// The arguments of a message, put together byte by byte, little-endian.
struct RawArguments
{
    void pad(int alignment);
    void addNumber(quint32 number);
    void addString(const QByteArray& text);
    void addSignature(const QByteArray& signature);
    void addStrings(const QList<QByteArray>& texts);
    /// An a{sv} without entries.
    void addEmptyMap();

    QByteArray bytes;
};

/// A connection to a bus that speaks byte by byte and reads only when it is asked to.
class RawConnection
{
public:
    /// Connects, and asks for a name; the answer is the first that receive() gives.
    explicit RawConnection(const QString& bus);
    ~RawConnection();
    Q_DISABLE_COPY(RawConnection)

    bool send(const QByteArray& bytes) const;
    /// Asks for all signals of the service. When it returns the bus has the request.
    bool watchService() const;
    /// What comes next; empty when the bus has closed the connection.
    QByteArray receive() const;
    /// Reads so many answers of the service, errors among them.
    bool receiveAnswers(int count) const;
    /// Waits until the bus closes the connection.
    bool waitForClose() const;

    enum class Answer { Wanted, NotWanted };

    static QByteArray call(const QByteArray& destination, const QByteArray& path,
                           const QByteArray& interface, const QByteArray& member,
                           const QByteArray& signature = QByteArray(),
                           const RawArguments& arguments = RawArguments(),
                           Answer answer = Answer::Wanted);
    /// A call of the service; `part` is the end of the interface's name, null for the first one.
    static QByteArray serviceCall(const char* part, const QByteArray& member,
                                  const QByteArray& signature, const RawArguments& arguments,
                                  Answer answer = Answer::Wanted);

private:
    const int m_socket;
};
