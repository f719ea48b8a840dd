#include "remote/clientconnection.h"
#include "tests/client/scriptedservice.h"
#include "tests/daemon/servicefixture.h"
#include "tests/support/waituntil.h"

#include "wire/codec.h"
#include "wire/names.h"

#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <memory>

using namespace tulo;

namespace {

const QString path = QStringLiteral("/settings/audio/volume");

QByteArray errorName(sd_bus_message* message)
{
    const sd_bus_error* const error = sd_bus_message_get_error(message);
    return error == nullptr ? QByteArray() : QByteArray(error->name);
}

} // namespace

class tst_ClientConnection : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void callIsAnswered();
    void silentPeerIsTimedOut();
    void answerAfterTheTimeOutIsIgnored();
    void noHandlerIsCalledAfterClosing();
    void floodLeavesOtherEventsTheirTurn();
    void secondPlaceOfAnAddressIsTried();
    void unsuitableAddressFailsAtOnce_data();
    void unsuitableAddressFailsAtOnce();
    void endOfTheBusIsTold();
    void callsToTheProgramAreRejected();

private:
    bool send(qint64 timeoutMs, const ClientConnection::Handler& handler);

    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<ScriptedService> m_service;
    std::unique_ptr<ClientConnection> m_connection;
    int m_signals = 0;
};

void tst_ClientConnection::init()
{
    m_signals = 0;
    m_bus = std::make_unique<PrivateBus>();
    m_service = std::make_unique<ScriptedService>(m_bus->address());
    m_connection = std::make_unique<ClientConnection>([this](sd_bus_message* message) {
        if (sd_bus_message_is_signal(message, wire::readInterface, nullptr) > 0)
            ++m_signals;
    });
    QVERIFY(m_connection->open(m_bus->address().toUtf8()) >= 0);
}

void tst_ClientConnection::cleanup()
{
    m_connection.reset();
    m_service.reset();
    m_bus.reset();
}

// GetData.
bool tst_ClientConnection::send(qint64 timeoutMs, const ClientConnection::Handler& handler)
{
    const MessagePointer call = m_connection->createCall(
        wire::busName, wire::objectPath, wire::getData.interface, wire::getData.member);
    return call && wire::appendArguments(call.get(), wire::getData.in, { path, QStringList() })
        && m_connection->send(call, timeoutMs, handler);
}

void tst_ClientConnection::callIsAnswered()
{
    QByteArray sender;
    int count = 0;

    QVERIFY(send(ChildProcess::waitMs, [&](sd_bus_message* answer) {
        sender = sd_bus_message_get_sender(answer);
        ++count;
    }));
    QCOMPARE(count, 0);

    QVERIFY(waitUntil([&] { return count > 0; }));
    QCOMPARE(sender, m_service->uniqueName());
    QCOMPARE(count, 1);
}

void tst_ClientConnection::silentPeerIsTimedOut()
{
    m_service->script = [this](sd_bus_message* call) {
        m_service->hold(call);
    };
    QByteArray name;

    QVERIFY(send(100, [&](sd_bus_message* answer) { name = errorName(answer); }));

    QVERIFY(waitUntil([&] { return !name.isEmpty(); }));
    QCOMPARE(name, QByteArray("org.freedesktop.DBus.Error.NoReply"));
}

void tst_ClientConnection::answerAfterTheTimeOutIsIgnored()
{
    m_service->script = [this](sd_bus_message* call) {
        m_service->hold(call);
    };
    int late = 0;
    bool isOtherAnswered = false;
    QVERIFY(send(100, [&](sd_bus_message*) { ++late; }));
    QVERIFY(waitUntil([&] { return late == 1 && m_service->held.size() == 1; }));

    m_service->answerEmpty(m_service->held.front().get());
    m_service->script = nullptr;
    QVERIFY(send(ChildProcess::waitMs,
                 [&](sd_bus_message* answer) { isOtherAnswered = errorName(answer).isEmpty(); }));

    QVERIFY(waitUntil([&] { return isOtherAnswered; }));
    QCOMPARE(late, 1);
}

void tst_ClientConnection::noHandlerIsCalledAfterClosing()
{
    int answers = 0;
    QVERIFY(send(100, [&](sd_bus_message*) { ++answers; }));
    QVERIFY(send(100, [&](sd_bus_message*) { ++answers; }));

    m_connection->close();
    QVERIFY(!send(100, [&](sd_bus_message*) { ++answers; }));
    // Both time-outs are over when this one is.
    QVERIFY(m_connection->open(m_bus->address().toUtf8()) >= 0);
    m_service->script = [this](sd_bus_message* call) {
        m_service->hold(call);
    };
    bool isOver = false;
    QVERIFY(send(200, [&](sd_bus_message*) { isOver = true; }));

    QVERIFY(waitUntil([&] { return isOver; }));
    QCOMPARE(answers, 0);
}

void tst_ClientConnection::floodLeavesOtherEventsTheirTurn()
{
    bool isConnected = false;
    QByteArray name;
    m_service->script = [&](sd_bus_message* call) {
        name = sd_bus_message_get_sender(call);
        m_service->answerEmpty(call);
    };
    QVERIFY(send(ChildProcess::waitMs, [&](sd_bus_message*) { isConnected = true; }));
    QVERIFY(waitUntil([&] { return isConnected; }));
    constexpr int count = 2000;
    for (int i = 0; i < count; ++i)
        m_service->announce(wire::dataChanged, { path }, name);

    int before = 0;
    int most = 0;
    QTimer turns;
    connect(&turns, &QTimer::timeout, this, [&] {
        most = std::max(most, m_signals - before);
        before = m_signals;
    });
    turns.start(0);

    QVERIFY(waitUntil([&] { return m_signals == count; }));
    QVERIFY2(most > 0 && most <= 64, qPrintable(QString::number(most)));
}

void tst_ClientConnection::secondPlaceOfAnAddressIsTried()
{
    const QByteArray address = "unix:path=/nowhere/bus;" + m_bus->address().toUtf8();
    bool isAnswered = false;

    QVERIFY(m_connection->open(address) >= 0);
    QVERIFY(send(ChildProcess::waitMs,
                 [&](sd_bus_message* answer) { isAnswered = errorName(answer).isEmpty(); }));

    QVERIFY(waitUntil([&] { return isAnswered; }));
}

void tst_ClientConnection::unsuitableAddressFailsAtOnce_data()
{
    QTest::addColumn<QByteArray>("address");
    QTest::newRow("no such socket") << QByteArray("unix:path=/nowhere/bus");
    QTest::newRow("unknown transport") << QByteArray("pigeon:name=a");
    QTest::newRow("no address") << QByteArray("system");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("no path") << QByteArray("unix:");
}

void tst_ClientConnection::unsuitableAddressFailsAtOnce()
{
    QFETCH(const QByteArray, address);

    QVERIFY(m_connection->open(address) < 0);

    QVERIFY(!m_connection->isOpen());
    QVERIFY(!send(100, [](sd_bus_message*) {}));
}

void tst_ClientConnection::endOfTheBusIsTold()
{
    QSignalSpy lost(m_connection.get(), &ClientConnection::lost);
    bool isAnswered = false;
    QVERIFY(send(ChildProcess::waitMs, [&](sd_bus_message*) { isAnswered = true; }));
    QVERIFY(waitUntil([&] { return isAnswered; }));

    m_bus->kill();

    QVERIFY(waitUntil([&] { return !lost.isEmpty(); }));
    QCOMPARE(lost.size(), 1);
    QVERIFY(!lost.first().first().toString().isEmpty());
    QVERIFY(!m_connection->isOpen());
}

void tst_ClientConnection::callsToTheProgramAreRejected()
{
    QByteArray name;
    m_service->script = [&](sd_bus_message* call) {
        name = sd_bus_message_get_sender(call);
        m_service->answerEmpty(call);
    };
    QVERIFY(send(ChildProcess::waitMs, [](sd_bus_message*) {}));
    QVERIFY(waitUntil([&] { return !name.isEmpty(); }));
    const BusClient caller(m_bus->address());
    const QDBusMessage call =
        QDBusMessage::createMethodCall(QString::fromUtf8(name), QStringLiteral("/"),
                                       QStringLiteral("a.b"), QStringLiteral("Method"));

    QDBusPendingCall answer = caller.connection().asyncCall(call);

    QVERIFY(waitUntil([&] { return answer.isFinished(); }));
    QCOMPARE(answer.error().name(), QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"));
}

QTEST_GUILESS_MAIN(tst_ClientConnection)
#include "tst_client_connection.moc"
