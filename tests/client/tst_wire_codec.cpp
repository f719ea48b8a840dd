#include "wire/codec.h"
#include "wire/messages.h"
#include "wire/names.h"

#include <QTest>

#include <systemd/sd-bus.h>

#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace tulo;

namespace {

struct Unref
{
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

using MessagePtr = std::unique_ptr<sd_bus_message, Unref>;

/// Messages of a bus that nobody is at the other end of.
class Messages
{
public:
    Messages()
    {
        sd_bus* bus = nullptr;
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_sockets.data()) != 0
            || sd_bus_new(&bus) < 0)
            qFatal("cannot make a bus");
        m_bus.reset(bus);
        if (sd_bus_set_fd(bus, m_sockets[0], m_sockets[0]) < 0 || sd_bus_start(bus) < 0)
            qFatal("cannot start a bus");
    }
    ~Messages() { ::close(m_sockets[1]); }
    Q_DISABLE_COPY(Messages)

    MessagePtr create() const
    {
        sd_bus_message* message = nullptr;
        if (sd_bus_message_new_signal(m_bus.get(), &message, "/a", "a.b", "C") < 0)
            qFatal("cannot make a message");
        return MessagePtr(message);
    }

    /// What is read of a message that `write` filled.
    std::optional<QVariantList> read(const std::function<bool(sd_bus_message*)>& write) const
    {
        const MessagePtr message = create();
        if (!write(message.get()) || sd_bus_message_seal(message.get(), 1, 0) < 0)
            qFatal("cannot fill the message");
        return wire::readArguments(message.get());
    }

    /// `arguments` after their way through a message; none when they cannot be written.
    std::optional<QVariantList> passed(const char* signature, const QVariantList& arguments) const
    {
        const MessagePtr message = create();
        if (!wire::appendArguments(message.get(), signature, arguments))
            return std::nullopt;
        if (sd_bus_message_seal(message.get(), 1, 0) < 0
            || std::string(signature) != sd_bus_message_get_signature(message.get(), 1))
            qFatal("not a message with the signature %s", signature);
        return wire::readArguments(message.get());
    }

    std::optional<QVariant> passedValue(const QVariant& value) const
    {
        const auto arguments = passed("v", { value });
        return arguments ? std::make_optional(arguments->value(0)) : std::nullopt;
    }

private:
    std::array<int, 2> m_sockets {};
    std::unique_ptr<sd_bus, Unref> m_bus;
};

/// Two ends of a connection, to see what goes over it.
class Peers
{
public:
    Peers()
    {
        sd_bus* client = nullptr;
        sd_bus* server = nullptr;
        const sd_id128_t id { { 1 } };
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_sockets.data()) != 0
            || sd_bus_new(&client) < 0 || sd_bus_new(&server) < 0)
            qFatal("cannot make a connection");
        m_client.reset(client);
        m_server.reset(server);
        if (sd_bus_set_fd(client, m_sockets[0], m_sockets[0]) < 0
            || sd_bus_set_fd(server, m_sockets[1], m_sockets[1]) < 0
            || sd_bus_set_server(server, 1, id) < 0 || sd_bus_start(server) < 0
            || sd_bus_start(client) < 0)
            qFatal("cannot start a connection");
        for (int i = 0; i < 100 && (!isReady(client) || !isReady(server)); ++i) {
            if (sd_bus_process(client, nullptr) < 0 || sd_bus_process(server, nullptr) < 0)
                qFatal("cannot connect");
        }
        if (!isReady(client) || !isReady(server))
            qFatal("not connected");
    }

    /// The bytes of a signal with these values.
    qint64 bytesSent(const QVariantList& values)
    {
        sd_bus_message* message = nullptr;
        const bool isSent =
            sd_bus_message_new_signal(m_client.get(), &message, "/a", "a.b", "C") >= 0
            && wire::appendArguments(message, "av", { QVariant(values) })
            && sd_bus_send(m_client.get(), message, nullptr) >= 0;
        sd_bus_message_unref(message);
        int bytes = 0;
        if (!isSent || ::ioctl(m_sockets[1], FIONREAD, &bytes) != 0)
            qFatal("cannot send");
        QByteArray received(bytes, '\0');
        if (::read(m_sockets[1], received.data(), std::size_t(bytes)) != bytes)
            qFatal("cannot receive");
        return bytes;
    }

private:
    static bool isReady(sd_bus* bus) { return sd_bus_is_ready(bus) > 0; }

    std::array<int, 2> m_sockets {};
    std::unique_ptr<sd_bus, Unref> m_client;
    std::unique_ptr<sd_bus, Unref> m_server;
};

QVariant nestedList(int depth)
{
    QVariant value = qlonglong(1);
    for (int i = 0; i < depth; ++i)
        value = QVariantList { value };
    return value;
}

QVariant nestedMap(int depth)
{
    QVariant value = qlonglong(1);
    for (int i = 0; i < depth; ++i)
        value = QVariantMap { { QStringLiteral("a"), value } };
    return value;
}

} // namespace

class tst_WireCodec : public QObject
{
    Q_OBJECT

private slots:
    void valuesKeepTheirType_data();
    void valuesKeepTheirType();
    void smallerIntegersAreWidened_data();
    void smallerIntegersAreWidened();
    void otherShapesBecomeTheUsualOnes();
    void valuesThatCannotBeCarriedAreNotWritten_data();
    void valuesThatCannotBeCarriedAreNotWritten();
    void argumentsKeepTheirType_data();
    void argumentsKeepTheirType();
    void argumentsOfAnotherTypeAreNotWritten_data();
    void argumentsOfAnotherTypeAreNotWritten();
    void arraysOfAnyTypeAreLists();
    void nestedVariantsAreLookedThrough();
    void refusedTypesAreNotRead_data();
    void refusedTypesAreNotRead();
    void nestingIsBoundedBothWays();
    void textsThatSdBusTakesAreCarried();
    void rolesOfAnAnswerAreCarriedAsFarAsPossible();
    void sizeIsNeverBelowTheMessage();
    void tableOfMessagesHoldsTogether();
    void busesHaveAddresses();
    void errorsHaveNamesOnTheBus();
    void errorEntriesReturnTheError();
    void nodesPassTheBus();
    void originsPassTheBus();
    void rowsPassTheBus();
    void moreRowsThanCountedAreMalformed();
    void changesPassTheBus();
    void malformedOutcomesAreRejected();
    void optionsPassTheBus();
    void resetOptionsPassTheBus();
    void unknownOptionsAreRefused_data();
    void unknownOptionsAreRefused();
    void assignmentsPassTheBus();
    void assignmentWithoutRolesIsRefused();
    void eventsPassTheBus();
    void statusPassesTheBus();
    void malformedStatusIsRejected();

private:
    const Messages m_messages;
};

// ---------------------------------------------------------------------------------------------
// Values.
// ---------------------------------------------------------------------------------------------

void tst_WireCodec::valuesKeepTheirType_data()
{
    QTest::addColumn<QVariant>("value");

    QTest::newRow("true") << QVariant(true);
    QTest::newRow("false") << QVariant(false);
    QTest::newRow("integer") << QVariant(qlonglong(-5));
    QTest::newRow("least") << QVariant(std::numeric_limits<qlonglong>::min());
    QTest::newRow("greatest") << QVariant(std::numeric_limits<qlonglong>::max());
    QTest::newRow("unsigned") << QVariant(std::numeric_limits<qulonglong>::max());
    QTest::newRow("double") << QVariant(0.1);
    QTest::newRow("whole double") << QVariant(5.0);
    QTest::newRow("text") << QVariant(QStringLiteral("gr\u00fc\u00df dich \U0001F600"));
    QTest::newRow("empty text") << QVariant(QString(QLatin1String("")));
    QTest::newRow("list") << QVariant(QVariantList {
        true, qlonglong(1), 2.5, QStringLiteral("x"), QVariant(QVariantList { qlonglong(2) }),
        QVariantMap { { QStringLiteral("k"), 1.0 } } });
    QTest::newRow("empty list") << QVariant(QVariantList {});
    QTest::newRow("map") << QVariant(
        QVariantMap { { QStringLiteral("min"), qlonglong(0) }, { QStringLiteral("max"), 9.5 } });
    QTest::newRow("empty map") << QVariant(QVariantMap {});
}

void tst_WireCodec::valuesKeepTheirType()
{
    QFETCH(const QVariant, value);

    const std::optional<QVariant> passed = m_messages.passedValue(value);

    QVERIFY(passed);
    QCOMPARE(passed->userType(), value.userType());
    QCOMPARE(*passed, value);
}

void tst_WireCodec::smallerIntegersAreWidened_data()
{
    QTest::addColumn<QVariant>("value");

    QTest::newRow("int") << QVariant(7);
    QTest::newRow("uint") << QVariant(7U);
    QTest::newRow("small unsigned") << QVariant(7ULL);
    QTest::newRow("short") << QVariant::fromValue(short(7));
    QTest::newRow("unsigned short") << QVariant::fromValue(ushort(7));
    QTest::newRow("long") << QVariant::fromValue(7L);
    QTest::newRow("unsigned long") << QVariant::fromValue(7UL);
}

void tst_WireCodec::smallerIntegersAreWidened()
{
    QFETCH(const QVariant, value);

    const std::optional<QVariant> passed = m_messages.passedValue(value);

    QVERIFY(passed);
    QCOMPARE(passed->userType(), int(QMetaType::LongLong));
    QCOMPARE(passed->toLongLong(), 7);
}

void tst_WireCodec::otherShapesBecomeTheUsualOnes()
{
    const QString key = QStringLiteral("a");
    QCOMPARE(m_messages.passedValue(QVariant(0.5F)), std::make_optional(QVariant(0.5)));
    QCOMPARE(m_messages.passedValue(QVariantHash { { key, true } }),
             std::make_optional(QVariant(QVariantMap { { key, true } })));
    QCOMPARE(m_messages.passedValue(QStringList(key)),
             std::make_optional(QVariant(QVariantList { key })));
    QCOMPARE(m_messages.passedValue(QVariant::fromValue(~0UL)),
             std::make_optional(QVariant(~0ULL)));
}

void tst_WireCodec::valuesThatCannotBeCarriedAreNotWritten_data()
{
    QTest::addColumn<QVariant>("value");

    QTest::newRow("invalid") << QVariant();
    QTest::newRow("invalid in a list") << QVariant(QVariantList { QVariant() });
    QTest::newRow("invalid in a map") << QVariant(QVariantMap { { QStringLiteral("a"), {} } });
    QTest::newRow("not a number") << QVariant(std::nan(""));
    QTest::newRow("infinity") << QVariant(std::numeric_limits<double>::infinity());
    QTest::newRow("bytes") << QVariant(QByteArray("a"));
    QTest::newRow("character") << QVariant(QChar(QLatin1Char('a')));
    QTest::newRow("zero character") << QVariant(QString(QChar(0)));
    QTest::newRow("lone surrogate") << QVariant(QString(QChar(0xD83D)));
    QTest::newRow("reversed surrogates") << QVariant(QString(QChar(0xDE00)) + QChar(0xD83D));
    QTest::newRow("noncharacter") << QVariant(QString(QChar(0xFFFE)));
    QTest::newRow("noncharacter in the middle") << QVariant(QString(QChar(0xFDD0)));
    QTest::newRow("noncharacter of a plane") << QVariant(QString(QChar(0xD83F)) + QChar(0xDFFF));
    QTest::newRow("zero character in a key")
        << QVariant(QVariantMap { { QString(QChar(0)), true } });
}

void tst_WireCodec::valuesThatCannotBeCarriedAreNotWritten()
{
    QFETCH(const QVariant, value);

    QVERIFY(!m_messages.passedValue(value));
    QVERIFY(!wire::isCarried(value));
    QVERIFY(!m_messages.passed("av", { QVariant(QVariantList { value }) }));
    QVERIFY(!m_messages.passed("a{sv}", { QVariantMap { { QStringLiteral("a"), value } } }));
}

// ---------------------------------------------------------------------------------------------
// Arguments.
// ---------------------------------------------------------------------------------------------

void tst_WireCodec::argumentsKeepTheirType_data()
{
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<QVariantList>("arguments");

    const QVariantMap roles { { QStringLiteral("value"), qlonglong(5) } };
    const QVariantList row { QStringLiteral("name"), roles };
    QTest::newRow("none") << QByteArray("") << QVariantList {};
    QTest::newRow("numbers") << QByteArray("iub") << QVariantList { -3, 4U, true };
    QTest::newRow("texts") << QByteArray("sas")
                           << QVariantList { QStringLiteral("a"),
                                             QStringList { QStringLiteral("b"), QString() } };
    QTest::newRow("no texts") << QByteArray("as") << QVariantList { QStringList() };
    QTest::newRow("roles") << QByteArray("sa{sv}") << QVariantList { QStringLiteral("a"), roles };
    QTest::newRow("rows")
        << QByteArray("uia{sv}a(sa{sv})")
        << QVariantList { 1U, 2, roles, QVariant(QVariantList { QVariant(row), QVariant(row) }) };
    QTest::newRow("no rows") << QByteArray("a(sa{sv})")
                             << QVariantList { QVariant(QVariantList {}) };
    QTest::newRow("operand") << QByteArray("ssava{sv}")
                             << QVariantList { QStringLiteral("a"), QStringLiteral("add"),
                                               QVariant(QVariantList { 0.5 }), roles };
}

void tst_WireCodec::argumentsKeepTheirType()
{
    QFETCH(const QByteArray, signature);
    QFETCH(const QVariantList, arguments);

    const auto passed = m_messages.passed(signature.constData(), arguments);

    QVERIFY(passed);
    QCOMPARE(*passed, arguments);
    for (int i = 0; i < arguments.size(); ++i)
        QCOMPARE(passed->at(i).userType(), arguments.at(i).userType());
}

void tst_WireCodec::argumentsOfAnotherTypeAreNotWritten_data()
{
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<QVariantList>("arguments");

    QTest::newRow("text for a number") << QByteArray("i") << QVariantList { QStringLiteral("5") };
    QTest::newRow("number for a text") << QByteArray("s") << QVariantList { 5 };
    QTest::newRow("list for texts")
        << QByteArray("as") << QVariantList { QVariant(QVariantList { 1 }) };
    QTest::newRow("number for a map") << QByteArray("a{sv}") << QVariantList { 5 };
    QTest::newRow("too few") << QByteArray("ss") << QVariantList { QStringLiteral("a") };
    QTest::newRow("too many") << QByteArray("s")
                              << QVariantList { QStringLiteral("a"), QStringLiteral("b") };
    QTest::newRow("short structure")
        << QByteArray("(ss)") << QVariantList { QVariant(QVariantList { QStringLiteral("a") }) };
    QTest::newRow("text with zero") << QByteArray("s") << QVariantList { QString(QChar(0)) };
    QTest::newRow("texts with zero")
        << QByteArray("as") << QVariantList { QStringList { QString(QChar(0)) } };
    QTest::newRow("object path") << QByteArray("o") << QVariantList { QStringLiteral("/a") };
    QTest::newRow("unfinished structure")
        << QByteArray("(s") << QVariantList { QVariant(QVariantList { QStringLiteral("a") }) };
    QTest::newRow("array of nothing")
        << QByteArray("a") << QVariantList { QVariant(QVariantList {}) };
}

void tst_WireCodec::argumentsOfAnotherTypeAreNotWritten()
{
    QFETCH(const QByteArray, signature);
    QFETCH(const QVariantList, arguments);

    QVERIFY(!m_messages.passed(signature.constData(), arguments));
}

// ---------------------------------------------------------------------------------------------
// What others send.
// ---------------------------------------------------------------------------------------------

void tst_WireCodec::arraysOfAnyTypeAreLists()
{
    const auto read = m_messages.read([](sd_bus_message* message) {
        return sd_bus_message_append(message, "vvvvv", "ai", 2, -1, 2, "as", 1, "x", "at", 1,
                                     uint64_t(3), "aan", 2, 1, 4, 0, "a{si}", 1, "k", 6)
            >= 0;
    });

    QVERIFY(read);
    const QVariantList expected {
        QVariant(QVariantList { qlonglong(-1), qlonglong(2) }),
        QVariant(QVariantList { QStringLiteral("x") }),
        QVariant(QVariantList { qlonglong(3) }),
        QVariant(
            QVariantList { QVariant(QVariantList { qlonglong(4) }), QVariant(QVariantList {}) }),
        QVariantMap { { QStringLiteral("k"), qlonglong(6) } },
    };
    QCOMPARE(*read, expected);
    QCOMPARE(read->at(1).userType(), int(QMetaType::QVariantList));
    QCOMPARE(read->at(0).toList().at(0).userType(), int(QMetaType::LongLong));
    QCOMPARE(read->at(2).toList().at(0).userType(), int(QMetaType::LongLong));
    QCOMPARE(read->at(4).toMap().first().userType(), int(QMetaType::LongLong));
}

void tst_WireCodec::nestedVariantsAreLookedThrough()
{
    const auto read = m_messages.read([](sd_bus_message* message) {
        return sd_bus_message_append(message, "v", "v", "v", "av", 1, "v", "u", 5U) >= 0;
    });

    QVERIFY(read);
    QCOMPARE(*read, QVariantList { QVariant(QVariantList { qlonglong(5) }) });
}

void tst_WireCodec::refusedTypesAreNotRead_data()
{
    QTest::addColumn<QByteArray>("contents");

    for (const char* contents : { "o", "g", "(s)", "ay", "ao", "ag", "a(s)", "aay", "a{is}",
                                  "a{oy}", "a{sy}", "ah", "a{s(s)}" })
        QTest::newRow(contents) << QByteArray(contents);
}

void tst_WireCodec::refusedTypesAreNotRead()
{
    QFETCH(const QByteArray, contents);

    const auto read = m_messages.read([&](sd_bus_message* message) {
        const char* const type = contents.constData();
        if (contents == "o")
            return sd_bus_message_append(message, "v", type, "/a") >= 0;
        if (contents == "g" || contents == "(s)")
            return sd_bus_message_append(message, "v", type, "s") >= 0;
        return sd_bus_message_append(message, "v", type, 0) >= 0;
    });

    QVERIFY(!read);
}

void tst_WireCodec::nestingIsBoundedBothWays()
{
    const auto lists = [](int depth) {
        return [depth](sd_bus_message* message) {
            bool isWritten = true;
            for (int i = 0; i < depth; ++i) {
                isWritten = isWritten && sd_bus_message_open_container(message, 'v', "av") >= 0
                    && sd_bus_message_open_container(message, 'a', "v") >= 0;
            }
            for (int i = 0; i < 2 * depth; ++i)
                isWritten = isWritten && sd_bus_message_close_container(message) >= 0;
            return isWritten;
        };
    };
    const auto variants = [](int depth) {
        return [depth](sd_bus_message* message) {
            bool isWritten = true;
            for (int i = 1; i < depth; ++i)
                isWritten = isWritten && sd_bus_message_open_container(message, 'v', "v") >= 0;
            isWritten = isWritten && sd_bus_message_append(message, "v", "b", 1) >= 0;
            for (int i = 1; i < depth; ++i)
                isWritten = isWritten && sd_bus_message_close_container(message) >= 0;
            return isWritten;
        };
    };

    QVERIFY(m_messages.passedValue(nestedList(wire::maximumDepth)));
    QVERIFY(m_messages.passedValue(nestedMap(wire::maximumDepth)));
    QVERIFY(!m_messages.passedValue(nestedList(wire::maximumDepth + 1)));
    QVERIFY(!m_messages.passedValue(nestedMap(wire::maximumDepth + 1)));
    QVERIFY(m_messages.read(lists(wire::maximumDepth)));
    QVERIFY(!m_messages.read(lists(wire::maximumDepth + 1)));
    QVERIFY(m_messages.read(variants(wire::maximumDepth)));
    // More than that sd-bus itself writes not much of.
    QVERIFY(!m_messages.read(variants(60)));
}

void tst_WireCodec::textsThatSdBusTakesAreCarried()
{
    // Each character that is written reaches the other side, and only those that sd-bus does not
    // take are not written.
    int refused = 0;
    for (uint point = 0; point <= 0x10FFFF; ++point) {
        if (point >= 0xD800 && point <= 0xDFFF)
            continue;
        // Whole ranges of plain characters say no more than some of them.
        if (point > 0x300 && point % 61 != 0 && (point & 0xFFFF) < 0xFFF0
            && (point < 0xFDC0 || point > 0xFE00))
            continue;
        const QVariant text = QString::fromUcs4(&point, 1);
        const std::optional<QVariant> passed = m_messages.passedValue(text);
        if (passed) {
            QCOMPARE(*passed, text);
            continue;
        }
        ++refused;
        if (point == 0)
            continue;
        const MessagePtr message = m_messages.create();
        QVERIFY2(sd_bus_message_append(message.get(), "s", text.toString().toUtf8().constData())
                     < 0,
                 qPrintable(QString::number(point, 16)));
    }
    // Zero, 32 in one block and two in each of 17 planes.
    QCOMPARE(refused, 1 + 32 + 34);
}

void tst_WireCodec::rolesOfAnAnswerAreCarriedAsFarAsPossible()
{
    const QVariantMap roles {
        { QStringLiteral("title"), QString(QChar(0)) },
        { QStringLiteral("value"), QVariant(QVariantList { QVariant() }) },
        { QStringLiteral("valueUnit"), QStringLiteral("dB") },
        { QStringLiteral("edit"),
          QVariantMap { { QStringLiteral("min"), QVariant() },
                        { QStringLiteral("max"), qlonglong(5) } } },
        { QStringLiteral("id"), QVariant() },
    };

    const QVariantMap carried {
        { QStringLiteral("valueUnit"), QStringLiteral("dB") },
        { QStringLiteral("edit"), QVariantMap { { QStringLiteral("max"), qlonglong(5) } } },
    };
    QCOMPARE(wire::carriedRoles(roles), carried);
    QVERIFY(m_messages.passed("a{sv}", { wire::carriedRoles(roles) }));
}

void tst_WireCodec::sizeIsNeverBelowTheMessage()
{
    const QVector<QVariant> values {
        QVariant(true),
        QVariant(qlonglong(5)),
        QVariant(0.5),
        QVariant(QString(1000, QLatin1Char('a'))),
        QVariant(QString(1000, QChar(0xFC))),
        QVariant(QString(1000, QChar(0x20AC))),
        QVariant(QStringLiteral("\U0001F600").repeated(500)),
        nestedList(16),
        nestedMap(16),
        QVariant(QVariantList { true, qlonglong(1), true, QStringLiteral("abc"), true }),
        QVariant(QStringList { QStringLiteral("abc"), QString() }),
    };
    Peers peers;
    const qint64 empty = peers.bytesSent({});
    for (const QVariant& value : values) {
        const qint64 bytes = peers.bytesSent({ value, value, value }) - empty;
        const qint64 size = 3 * wire::busSize(value);
        QVERIFY2(bytes <= size, qPrintable(QStringLiteral("%1 > %2").arg(bytes).arg(size)));
        // Nor is it so far above that it would refuse what fits.
        QVERIFY2(size <= 5 * bytes, qPrintable(QStringLiteral("%1 << %2").arg(bytes).arg(size)));
    }
}

// ---------------------------------------------------------------------------------------------
// The table.
// ---------------------------------------------------------------------------------------------

namespace {

std::size_t completeTypes(const char* signature)
{
    std::size_t count = 0;
    int depth = 0;
    for (const char* c = signature; *c != '\0'; ++c) {
        if (*c == '(' || *c == '{')
            ++depth;
        else if (*c == ')' || *c == '}')
            --depth;
        if (depth == 0 && *c != 'a')
            ++count;
    }
    return count;
}

std::size_t namesIn(const char* names)
{
    std::size_t count = 0;
    for (; *names != '\0'; names += std::strlen(names) + 1)
        ++count;
    return count;
}

} // namespace

void tst_WireCodec::tableOfMessagesHoldsTogether()
{
    std::set<std::string> members;
    for (const wire::Method& method : wire::methodTable) {
        QVERIFY(sd_bus_interface_name_is_valid(method.interface) > 0);
        QVERIFY(sd_bus_member_name_is_valid(method.member) > 0);
        QCOMPARE(namesIn(method.names), completeTypes(method.in) + completeTypes(method.out));
        // "Reset" is a method of two interfaces.
        const std::string prefix = method.member == std::string("Reset") ? method.interface : "";
        QVERIFY(members.insert(prefix + method.member).second);
    }
    for (const wire::Signal& signal : wire::signalTable) {
        QCOMPARE(namesIn(signal.names), completeTypes(signal.signature));
        QVERIFY(members.insert(signal.member).second);
    }
    const QVariantMap status = wire::statusToProperties({});
    QCOMPARE(std::size_t(status.size()), wire::propertyTable.size());
    for (const wire::Property& property : wire::propertyTable) {
        QVERIFY(members.insert(property.name).second);
        const QVariant value = status.value(QLatin1String(property.name));
        QVERIFY(m_messages.passed(property.signature, { value }));
    }
    QVERIFY(sd_bus_service_name_is_valid(wire::busName) > 0);
    QVERIFY(sd_bus_object_path_is_valid(wire::objectPath) > 0);
}

void tst_WireCodec::busesHaveAddresses()
{
    const QString session = QStringLiteral("session");
    const QString system = QStringLiteral("system");

    qunsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    qunsetenv("DBUS_SESSION_BUS_ADDRESS");
    qputenv("XDG_RUNTIME_DIR", "/run/user/a,b~");
    QCOMPARE(wire::addressOf(system), QByteArray("unix:path=/run/dbus/system_bus_socket"));
    QCOMPARE(wire::addressOf(session), QByteArray("unix:path=/run/user/a%2Cb%7E/bus"));
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/a");
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/b");
    QCOMPARE(wire::addressOf(system), QByteArray("unix:path=/a"));
    QCOMPARE(wire::addressOf(session), QByteArray("unix:path=/b"));
    QCOMPARE(wire::addressOf(QStringLiteral("unix:path=/c")), QByteArray("unix:path=/c"));
}

void tst_WireCodec::errorsHaveNamesOnTheBus()
{
    QCOMPARE(wire::errorName(ErrorCode::Limits),
             QStringLiteral("org.tulo.ConfigurationManager1.Error.Limits"));
    for (int code = int(ErrorCode::InvalidPath); code <= int(ErrorCode::Internal); ++code) {
        const QByteArray name = wire::errorName(ErrorCode(code)).toUtf8();
        QVERIFY(sd_bus_interface_name_is_valid(name.constData()) > 0);
        QCOMPARE(wire::errorCodeOf(name.constData()), std::optional(ErrorCode(code)));
    }
    QCOMPARE(wire::errorCodeOf("org.tulo.ConfigurationManager1.Error.New"),
             std::optional(ErrorCode::Internal));
    QCOMPARE(wire::errorCodeOf("org.freedesktop.DBus.Error.NoReply"), std::optional<ErrorCode>());
}

// ---------------------------------------------------------------------------------------------
// Messages. Each passes a real message of its signature.
// ---------------------------------------------------------------------------------------------

void tst_WireCodec::errorEntriesReturnTheError()
{
    const QString path = QStringLiteral("/settings/a");
    const Error error { ErrorCode::Unavailable, QStringLiteral("cannot read: a: b"), path };
    const auto entry = [](const char* text) {
        return QVariantMap { { QStringLiteral("error"), QLatin1String(text) } };
    };

    QCOMPARE(wire::errorEntry(error), entry("Unavailable: cannot read: a: b"));
    QCOMPARE(wire::errorOf(wire::errorEntry(error), path), error);
    QCOMPARE(wire::errorOf(entry("Something: else"), path),
             (Error { ErrorCode::Internal, QStringLiteral("Something: else"), path }));
    QCOMPARE(wire::errorOf(entry(": a"), path),
             (Error { ErrorCode::Internal, QStringLiteral(": a"), path }));
    QVERIFY(!wire::errorOf({}, path));
    QVERIFY(!wire::errorOf({ { QStringLiteral("value"), true } }, path));
}

void tst_WireCodec::nodesPassTheBus()
{
    QVector<Node> nodes(2);
    nodes[0].path = QStringLiteral("/settings/a");
    nodes[0].roles = { { QStringLiteral("value"), qlonglong(3) } };
    nodes[1].path = QStringLiteral("/settings/b");
    nodes[1].error = { ErrorCode::InvalidPath, QStringLiteral("no such"), nodes[1].path };

    const auto arguments = m_messages.passed(wire::getMany.out, wire::nodesToArguments(nodes));

    QVERIFY(arguments);
    const QVector<Node> passed = wire::nodesFromArguments(*arguments);
    QCOMPARE(passed.size(), 2);
    for (int i = 0; i < 2; ++i) {
        QCOMPARE(passed.at(i).path, nodes.at(i).path);
        QCOMPARE(passed.at(i).roles, nodes.at(i).roles);
        QCOMPARE(passed.at(i).error, nodes.at(i).error);
    }
}

void tst_WireCodec::originsPassTheBus()
{
    QVector<RoleOrigin> origins(3);
    origins[0].role = QStringLiteral("value");
    origins[0].layer = RoleOrigin::Layer::Written;
    origins[0].value = QVariantList { 1LL };
    origins[0].file = QStringLiteral("/settings/a");
    origins[0].line = 3;
    origins[0].column = 7;
    origins[1].role = QStringLiteral("title");
    origins[1].layer = RoleOrigin::Layer::Template;
    origins[1].state = RoleOrigin::State::Hidden;
    origins[1].value = QVariant::fromValue(QString(QChar(0)));
    origins[1].reason = QStringLiteral("because");
    origins[2].layer = RoleOrigin::Layer::Cached;
    origins[2].state = RoleOrigin::State::Ignored;

    const auto arguments = m_messages.passed(wire::explain.out, wire::originsToArguments(origins));

    QVERIFY(arguments);
    const auto passed = wire::originsFromArguments(*arguments);
    QVERIFY(passed);
    QCOMPARE(passed->size(), 3);
    // What the bus cannot carry is left out.
    origins[1].value = QVariant();
    for (int i = 0; i < 3; ++i) {
        const RoleOrigin& origin = passed->at(i);
        QCOMPARE(origin.role, origins.at(i).role);
        QCOMPARE(origin.layer, origins.at(i).layer);
        QCOMPARE(origin.state, origins.at(i).state);
        QCOMPARE(origin.value, origins.at(i).value);
        QCOMPARE(origin.file, origins.at(i).file);
        QCOMPARE(origin.line, origins.at(i).line);
        QCOMPARE(origin.column, origins.at(i).column);
        QCOMPARE(origin.reason, origins.at(i).reason);
    }
}

void tst_WireCodec::rowsPassTheBus()
{
    Rows rows;
    rows.count = 7;
    rows.version = 3;
    rows.directory = { { QStringLiteral("title"), QStringLiteral("Audio") } };
    rows.rows.resize(3);
    rows.rows[0].name = QStringLiteral("volume");
    rows.rows[0].roles = { { QStringLiteral("type"), qlonglong(101) } };
    rows.rows[1].name = QStringLiteral("fader");
    rows.rows[1].isDirectory = true;
    rows.rows[1].roles = { { QStringLiteral("type"), qlonglong(1) } };
    rows.rows[2].name = QStringLiteral("broken");
    rows.rows[2].error = { ErrorCode::Unavailable, QStringLiteral("cannot read"),
                           QStringLiteral("/settings/audio/broken") };

    const auto arguments = m_messages.passed(wire::getRows.out, wire::rowsToArguments(rows));
    QVERIFY(arguments);
    const auto passed = wire::rowsFromArguments(QStringLiteral("/settings/audio"), *arguments);

    QVERIFY(passed);
    QCOMPARE(passed->count, 7);
    QCOMPARE(passed->version, 3);
    QCOMPARE(passed->directory, rows.directory);
    QCOMPARE(passed->rows.size(), 3);
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(passed->rows.at(i).name, rows.rows.at(i).name);
        QCOMPARE(passed->rows.at(i).isDirectory, rows.rows.at(i).isDirectory);
        QCOMPARE(passed->rows.at(i).roles, rows.rows.at(i).roles);
        QCOMPARE(passed->rows.at(i).error, rows.rows.at(i).error);
    }
}

void tst_WireCodec::moreRowsThanCountedAreMalformed()
{
    const QVariant row = QVariantList { QStringLiteral("a"), QVariantMap() };
    const QVariantList rows { row };

    const QString path = QStringLiteral("/settings");
    QVERIFY(!wire::rowsFromArguments(path, { 0U, 0, QVariantMap(), QVariant(rows) }));
    QVERIFY(!wire::rowsFromArguments(path, { 0x80000000U, 0, QVariantMap(), QVariant(rows) }));
    QVERIFY(wire::rowsFromArguments(path, { 1U, 0, QVariantMap(), QVariant(rows) }));
}

void tst_WireCodec::changesPassTheBus()
{
    QVector<Change> changes(2);
    changes[0].stored = { { QStringLiteral("value"), qlonglong(100) } };
    changes[0].isAdjusted = true;
    changes[0].asked = qlonglong(150);
    changes[0].reason = QStringLiteral("maximum 100");
    changes[1].stored = { { QStringLiteral("value"), true } };

    const auto one = m_messages.passed(wire::setValue.out, wire::changeToArguments(changes.at(1)));
    const auto many = m_messages.passed(wire::setMany.out, wire::changesToArguments(changes));

    QVERIFY(one && many);
    // Nothing is said about what went as asked.
    QCOMPARE(one->at(1).toMap(), QVariantMap());
    QCOMPARE(wire::changeFromArguments(*one)->stored, changes.at(1).stored);
    const auto passed = wire::changesFromArguments(*many);
    QVERIFY(passed);
    QCOMPARE(passed->size(), 2);
    for (int i = 0; i < 2; ++i) {
        QCOMPARE(passed->at(i).stored, changes.at(i).stored);
        QCOMPARE(passed->at(i).isAdjusted, changes.at(i).isAdjusted);
        QCOMPARE(passed->at(i).asked, changes.at(i).asked);
        QCOMPARE(passed->at(i).reason, changes.at(i).reason);
    }
}

void tst_WireCodec::malformedOutcomesAreRejected()
{
    const auto change = [](const QVariantMap& outcome) {
        return wire::changeFromArguments({ QVariantMap(), outcome });
    };
    const QString adjusted = QStringLiteral("adjusted");
    const QString reason = QStringLiteral("reason");

    QVERIFY(change({}));
    QVERIFY(change({ { adjusted, true }, { reason, QStringLiteral("a") } }));
    QVERIFY(change({ { QStringLiteral("later"), true } }));
    QVERIFY(!change({ { adjusted, qlonglong(1) }, { reason, QStringLiteral("a") } }));
    QVERIFY(!change({ { adjusted, true } }));
    QVERIFY(!wire::changesFromArguments({ QVariant(QVariantList {
        QVariant(QVariantList { QVariantMap(), QVariantMap { { adjusted, true } } }) }) }));
}

void tst_WireCodec::resetOptionsPassTheBus()
{
    ResetOptions options;
    QCOMPARE(wire::resetOptionsToMap(options), QVariantMap());
    options.keep = QStringList({ QStringLiteral("/settings/a"), QStringLiteral("/settings/b*") });
    const auto arguments = m_messages.passed("a{sv}", { wire::resetOptionsToMap(options) });
    QVERIFY(arguments);

    ResetOptions passed;
    QVERIFY(!wire::resetOptionsFromMap(arguments->at(0).toMap(), &passed));
    QCOMPARE(passed.keep, options.keep);
    QVERIFY(!passed.isRecursive);

    const QString keep = QStringLiteral("keep");
    for (const QVariantMap& map : { QVariantMap { { keep, QStringLiteral("/settings/a") } },
                                    QVariantMap { { keep, QVariantList { 5 } } },
                                    QVariantMap { { QStringLiteral("dry-run"), true } } }) {
        const Error error = wire::resetOptionsFromMap(map, &passed);
        QCOMPARE(error.code, ErrorCode::Refused);
        QVERIFY2(error.message.contains(map.firstKey()), qPrintable(error.message));
        QCOMPARE(passed.keep, options.keep);
    }
}

void tst_WireCodec::optionsPassTheBus()
{
    ChangeOptions options;
    options.ifValue = qlonglong(5);
    options.ifTimestamp = 1234567890123;
    options.isDryRun = true;

    const auto arguments = m_messages.passed("a{sv}", { wire::optionsToMap(options) });
    QVERIFY(arguments);
    ChangeOptions passed;
    QVERIFY(!wire::optionsFromMap(arguments->at(0).toMap(), &passed));

    QCOMPARE(passed.ifValue, options.ifValue);
    QCOMPARE(passed.ifTimestamp, options.ifTimestamp);
    QCOMPARE(passed.isDryRun, options.isDryRun);
    QCOMPARE(wire::optionsToMap({}), QVariantMap());
}

void tst_WireCodec::unknownOptionsAreRefused_data()
{
    QTest::addColumn<QVariantMap>("map");

    QTest::newRow("unknown") << QVariantMap { { QStringLiteral("force"), true } };
    QTest::newRow("timestamp") << QVariantMap { { QStringLiteral("if-timestamp"), 5.5 } };
    QTest::newRow("dry run") << QVariantMap { { QStringLiteral("dry-run"), qlonglong(1) } };
}

void tst_WireCodec::unknownOptionsAreRefused()
{
    QFETCH(const QVariantMap, map);
    ChangeOptions options;

    const Error error = wire::optionsFromMap(map, &options);

    QCOMPARE(error.code, ErrorCode::Refused);
    QVERIFY2(error.message.contains(map.firstKey()), qPrintable(error.message));
}

void tst_WireCodec::assignmentsPassTheBus()
{
    const QVector<Assignment> assignments {
        { QStringLiteral("/settings/a"), qlonglong(5) },
        { QStringLiteral("/settings/b"), QVariant(QVariantList { true }) },
        { QStringLiteral("/settings/c"), true, { { QStringLiteral("timestamp"), qlonglong(7) } } },
        { QStringLiteral("/settings/d"), {}, { { QStringLiteral("timestamp"), qlonglong(7) } } },
    };

    const auto arguments = m_messages.passed(
        wire::setMany.in,
        { QVariant(wire::assignmentsToArgument(assignments)), wire::optionsToMap({}) });
    QVERIFY(arguments);
    QVector<Assignment> passed;
    QVERIFY(!wire::assignmentsFromArgument(arguments->at(0).toList(), &passed));

    QCOMPARE(passed.size(), assignments.size());
    for (int i = 0; i < passed.size(); ++i) {
        QCOMPARE(passed.at(i).path, assignments.at(i).path);
        QCOMPARE(passed.at(i).value, assignments.at(i).value);
        QCOMPARE(passed.at(i).roles, assignments.at(i).roles);
    }
}

void tst_WireCodec::assignmentWithoutRolesIsRefused()
{
    const QVariant entry = QVariantList { QStringLiteral("/settings/a"), QVariantMap() };
    QVector<Assignment> assignments;

    const Error error = wire::assignmentsFromArgument({ entry }, &assignments);

    QCOMPARE(error.code, ErrorCode::Refused);
    QCOMPARE(error.path, QStringLiteral("/settings/a"));
}

void tst_WireCodec::eventsPassTheBus()
{
    QVector<Event> events(3);
    events[0].kind = Event::Kind::Value;
    events[0].path = QStringLiteral("/settings/a");
    events[0].value = 0.5;
    events[1].kind = Event::Kind::Data;
    events[1].path = QStringLiteral("/settings/b");
    events[2].kind = Event::Kind::Rows;
    events[2].path = QStringLiteral("/settings");
    events[2].command = QStringLiteral("+3");
    events[2].version = 9;

    for (const Event& event : qAsConst(events)) {
        const wire::Signal& signal = wire::signalOf(event.kind);
        const auto arguments = m_messages.passed(signal.signature, wire::eventToArguments(event));
        QVERIFY(arguments);
        const auto passed = wire::eventFromArguments(signal.member, *arguments);
        QVERIFY(passed);
        QVERIFY(passed->kind == event.kind);
        QCOMPARE(passed->path, event.path);
        QCOMPARE(passed->value, event.value);
        QCOMPARE(passed->command, event.command);
        QCOMPARE(passed->version, event.version);
    }
    QVERIFY(!wire::eventFromArguments("Other", { QStringLiteral("/settings") }));
}

void tst_WireCodec::statusPassesTheBus()
{
    Status status;
    status.version = QStringLiteral("0.1.0");
    status.product = QStringLiteral("sport");
    status.defaultPath = QStringLiteral("/a");
    status.writePath = QStringLiteral("/b");
    status.isWritable = true;
    status.pendingWrites = 3;
    status.unsavedCount = 2;
    status.lastWriteError = QStringLiteral("no space");

    QVariantMap all;
    for (const wire::Property& property : wire::propertyTable) {
        const QString name = QLatin1String(property.name);
        all.insert(name, wire::statusToProperties(status).value(name));
    }
    const auto arguments = m_messages.passed("a{sv}", { all });
    QVERIFY(arguments);
    const auto passed = wire::statusFromProperties(arguments->at(0).toMap());

    QVERIFY(passed);
    QCOMPARE(passed->version, status.version);
    QCOMPARE(passed->product, status.product);
    QCOMPARE(passed->defaultPath, status.defaultPath);
    QCOMPARE(passed->writePath, status.writePath);
    QCOMPARE(passed->isWritable, status.isWritable);
    QCOMPARE(passed->pendingWrites, status.pendingWrites);
    QCOMPARE(passed->unsavedCount, status.unsavedCount);
    QCOMPARE(passed->lastWriteError, status.lastWriteError);
}

void tst_WireCodec::malformedStatusIsRejected()
{
    const auto arguments = m_messages.passed("a{sv}", { wire::statusToProperties({}) });
    QVERIFY(arguments);
    const QVariantMap whole = arguments->at(0).toMap();
    QVERIFY(wire::statusFromProperties(whole));

    for (const QString& name : whole.keys()) {
        QVariantMap lacking = whole;
        lacking.remove(name);
        QVERIFY2(!wire::statusFromProperties(lacking), qPrintable(name));
        QVariantMap other = whole;
        other.insert(name, 0.5);
        QVERIFY2(!wire::statusFromProperties(other), qPrintable(name));
    }
}

QTEST_GUILESS_MAIN(tst_WireCodec)
#include "tst_wire_codec.moc"
