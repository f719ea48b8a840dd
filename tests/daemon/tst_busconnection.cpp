#include "daemon/busconnection.h"

#include "wire/messages.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QList>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>
#include <cstring>
#include <memory>
#include <optional>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace tulo;
namespace {

/// A bus of which the test decides what it reads and answers.
class ScriptedBus
{
public:
    ScriptedBus()
    {
        const QByteArray name = QFile::encodeName(m_directory.filePath(QStringLiteral("bus")));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.constData(),
                    qMin(size_t(name.size()), sizeof address.sun_path - 1));
        if (::bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0
            || ::listen(m_listener, 1) != 0)
            qFatal("no socket for a bus");
    }
    ~ScriptedBus()
    {
        sd_bus_close_unref(m_peer);
        ::close(m_listener);
    }
    Q_DISABLE_COPY(ScriptedBus)

    QString address() const
    {
        return QStringLiteral("unix:path=") + m_directory.filePath(QStringLiteral("bus"));
    }

    /// Of the one connection to it, which has been made.
    void accept()
    {
        const int socket = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        sd_id128_t id {};
        if (socket < 0 || sd_id128_randomize(&id) < 0 || sd_bus_new(&m_peer) < 0
            || sd_bus_set_fd(m_peer, socket, socket) < 0 || sd_bus_set_server(m_peer, 1, id) < 0
            || sd_bus_set_trusted(m_peer, 1) < 0
            || sd_bus_add_filter(m_peer, nullptr, on_message, this) < 0 || sd_bus_start(m_peer) < 0)
            qFatal("no connection for a bus");
    }

    /// Reads all that there is. Answers nothing but Hello and RequestName.
    void read()
    {
        while (sd_bus_process(m_peer, nullptr) > 0) { }
    }

    void readOne()
    {
        const int before = m_received.size();
        while (m_received.size() == before && sd_bus_process(m_peer, nullptr) > 0) { }
    }

    /// The members of the messages that came, but those of making the connection.
    const QList<QByteArray>& received() const { return m_received; }

private:
    static int on_message(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/)
    {
        auto* const self = static_cast<ScriptedBus*>(userdata);
        if (sd_bus_message_is_method_call(message, nullptr, "Hello") > 0)
            return sd_bus_reply_method_return(message, "s", ":1.1");
        if (sd_bus_message_is_method_call(message, nullptr, "RequestName") > 0)
            return sd_bus_reply_method_return(message, "u", 1);
        self->m_received.append(sd_bus_message_get_member(message));
        return 1;
    }

    const QTemporaryDir m_directory;
    const int m_listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sd_bus* m_peer = nullptr;
    QList<QByteArray> m_received;
};

class NoCalls final : public BusConnection::Handler
{
public:
    void handleCall(const wire::Method& /*method*/, sd_bus_message* /*message*/) override { }
    QVariant propertyValue(const char* /*name*/) override { return QVariant(); }
    void userFound(const QByteArray& /*sender*/, std::optional<uint> /*user*/) override { }
};

} // namespace

/// How a connection finds out whether the bus reads.
class TstBusConnection : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void busThatReadsAndAnswersNothingIsNotSilent();
    void busThatReadsSlowlyIsNotSilent();
    void busThatStopsReadingIsSilentUntilItReadsAgain();
    void busThatReadEverythingAndThenStopsIsSilent();
    void supervisionEndsWithOneMoreMessage();
    void oneLateLookIsNotSilence();

private:
    void process()
    {
        while (m_connection->process()) { }
    }
    void announce()
    {
        m_connection->announce(wire::dataChanged, { QStringLiteral("/settings") }, 0);
        process();
    }
    /// Looks as soon as that is due; false when nothing is.
    bool look()
    {
        const std::optional<BusConnection::Clock::time_point> next =
            m_connection->supervisionTime();
        if (!next)
            return false;
        m_connection->supervise(*next);
        process();
        return true;
    }

    std::unique_ptr<ScriptedBus> m_bus;
    NoCalls m_noCalls;
    std::unique_ptr<BusConnection> m_connection;
};

void TstBusConnection::init()
{
    m_connection.reset();
    m_bus = std::make_unique<ScriptedBus>();
    m_connection = std::make_unique<BusConnection>(m_bus->address(), QByteArray(), &m_noCalls);
    m_bus->accept();
    const QDeadlineTimer deadline(10000);
    while (m_connection->state() == BusConnection::State::Connecting && !deadline.hasExpired()) {
        process();
        m_bus->read();
    }
    QCOMPARE(int(m_connection->state()), int(BusConnection::State::Serving));
}

// An answer may have to wait behind all that others send us.
void TstBusConnection::busThatReadsAndAnswersNothingIsNotSilent()
{
    announce();
    QVERIFY(look());
    QCOMPARE(m_bus->received().size(), 0);

    bool isDue = true;
    for (int i = 0; i < 100 && isDue; ++i) {
        m_bus->read();
        isDue = look();
        QVERIFY(!m_connection->isSilent());
    }

    QVERIFY(!isDue);
    QCOMPARE(m_bus->received(), QList<QByteArray>({ "DataChanged", "Ping" }));
}

void TstBusConnection::busThatReadsSlowlyIsNotSilent()
{
    constexpr int messages = 5000;
    for (int i = 0; i < messages; ++i)
        announce();

    for (int i = 0; i < 100; ++i) {
        QVERIFY(look());
        m_bus->readOne();
        QVERIFY(!m_connection->isSilent());
    }

    QCOMPARE(m_bus->received().size(), 100);
}

void TstBusConnection::busThatStopsReadingIsSilentUntilItReadsAgain()
{
    announce();

    for (int i = 0; i < 100 && !m_connection->isSilent(); ++i)
        QVERIFY(look());
    QVERIFY(m_connection->isSilent());

    m_bus->read();
    // Long before the next look is due.
    m_connection->supervise({});
    QVERIFY(!m_connection->isSilent());
}

// What it read last may be stuck in it.
void TstBusConnection::busThatReadEverythingAndThenStopsIsSilent()
{
    announce();
    m_bus->read();

    for (int i = 0; i < 100 && !m_connection->isSilent(); ++i)
        QVERIFY(look());

    QVERIFY(m_connection->isSilent());
}

void TstBusConnection::supervisionEndsWithOneMoreMessage()
{
    announce();
    m_bus->read();

    while (look())
        m_bus->read();

    QCOMPARE(m_bus->received(), QList<QByteArray>({ "DataChanged", "Ping" }));
    QVERIFY(!m_connection->isSilent());
}

// On a machine that gave us no time, the bus had none either.
void TstBusConnection::oneLateLookIsNotSilence()
{
    announce();
    QVERIFY(look());

    const std::optional<BusConnection::Clock::time_point> next = m_connection->supervisionTime();
    QVERIFY(next);
    m_connection->supervise(*next + std::chrono::hours(1));

    QVERIFY(!m_connection->isSilent());
}

QTEST_GUILESS_MAIN(TstBusConnection)
#include "tst_busconnection.moc"
