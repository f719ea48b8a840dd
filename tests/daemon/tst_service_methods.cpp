#include "tests/daemon/servicefixture.h"

#include "daemon/tulo/bus-types.h"

#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusSignature>
#include <QDBusUnixFileDescriptor>
#include <QTest>

#include <cmath>
#include <limits>
#include <memory>

#include <unistd.h>

namespace {

const QString volume = QStringLiteral("/settings/audio/volume");
const QString volumeFile = QStringLiteral("/audio/volume");
const QString gain = QStringLiteral("/settings/audio/gain");
const QString loudness = QStringLiteral("/settings/audio/loudness");
const QString mode = QStringLiteral("/settings/audio/mode");
const QString sources = QStringLiteral("/settings/audio/sources");
// Without constraints or a value of their own: they take what comes.
const QString token = QStringLiteral("/settings/token");
const QString secret = QStringLiteral("/settings/secret");

const QStringList valueRole { QStringLiteral("value") };

QVariantList list(std::initializer_list<QVariant> entries)
{
    return QVariantList(entries);
}

using Values = QVector<QPair<QString, QVariant>>;

/// The first argument of SetMany.
QVariant assignments(const Values& values)
{
    tulo::BusNodes nodes;
    for (const auto& [path, value] : values)
        nodes.append({ path, { { QStringLiteral("value"), value } } });
    return QVariant::fromValue(nodes);
}

/// A list of `depth` lists inside each other.
QVariant nested(int depth)
{
    QVariant value = QVariantList();
    for (int i = 1; i < depth; ++i)
        value = QVariantList { value };
    return value;
}

} // namespace

Q_DECLARE_METATYPE(Values)

/// What a client of the service can ask for, and what it gets. Each test has a service and a bus of
/// its own; the rows of a test share them.
class TstServiceMethods : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void cleanupTestCase() { end(); }

    void reading_data();
    void reading();
    void rows_data();
    void rows();
    void rowsAreClampedAndSayHowManyThereAre();
    void setValueTakesEveryIntegerType_data();
    void setValueTakesEveryIntegerType();
    void setValueStores_data();
    void setValueStores();
    void rejectedValueChangesNothing_data();
    void rejectedValueChangesNothing();
    void setValueRefuses_data();
    void setValueRefuses();
    void setRoles_data();
    void setRoles();
    void setRolesDoesWhatItIsAsked();
    void apply_data();
    void apply();
    void explanationNamesLayerAndPlace();
    void manySettingsAreReadInOneCall();
    void manySettingsAreChangedAtOnce();
    void rejectedChangeOfManyChangesNone_data();
    void rejectedChangeOfManyChangesNone();
    void conditionThatDoesNotHoldChangesNothing_data();
    void conditionThatDoesNotHoldChangesNothing();
    void dryRunAnswersAndChangesNothing();
    void unknownOptionIsRefused();
    void changeIsVisibleAtOnceAndOnDiskAfterFlush();
    void newSettingIsMadeFromItsTemplate();
    void dropCacheReadsTheFilesAgain();
    void nullsAreLeftOutOfMaps();
    void callsThatDoNotExistAreRefused();

    void changeIsBroadcastInOrder();
    void sameValueIsBroadcastAsDataOnly();
    void newSettingIsBroadcastAsARow();
    void refusedChangeIsNotBroadcast();
    void matchRulePicksOnePath();
    void encryptedValueIsNeverBroadcast();

    void propertiesTellTheState();
    void propertiesAreReadOnly();
    void pendingWritesAreNotAnnounced();

private:
    void end();

    QString m_servedFunction;
    std::unique_ptr<CommandLine> m_trees;
    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<ServiceProcess> m_service;
    std::unique_ptr<BusClient> m_client;
};

void TstServiceMethods::init()
{
    if (m_servedFunction == QLatin1String(QTest::currentTestFunction()))
        return;
    tulo::registerBusTypes();
    end();
    m_servedFunction = QLatin1String(QTest::currentTestFunction());
    m_trees = std::make_unique<CommandLine>();
    m_trees->tree.writeDefault(QStringLiteral("/presets/.meta"),
                               R"({"title":"Preset","defaultValue":{"string":"fm:87.5"}})");
    m_trees->tree.writeDefault(QStringLiteral("/secret"),
                               R"({"encrypted":true,"value":{"string":"old"}})");
    m_bus = std::make_unique<PrivateBus>();
    // The framework's records of adjusted and refused values are not shown.
    m_service = std::make_unique<ServiceProcess>(
        *m_trees, m_bus->address(),
        QStringList { QStringLiteral("--log-level"), QStringLiteral("error") });
    m_service->replaceSync("exit 0");
    QVERIFY2(m_service->serve(), m_service->standardError().constData());
    m_client = std::make_unique<BusClient>(m_bus->address());
}

// For the next row: everything is as in the default tree again.
void TstServiceMethods::cleanup()
{
    QCOMPARE(m_client->call("Flush"), QStringLiteral("u 0"));
    const QString lock = QStringLiteral("/.tulo-cm.lock");
    QStringList written = m_trees->tree.writtenEntries();
    written.removeOne(lock);
    for (const QString& file : qAsConst(written)) {
        if (!file.endsWith(QLatin1Char('/')))
            QVERIFY(QFile::remove(m_trees->tree.writePath() + file));
    }
    QCOMPARE(m_client->call("DropCache"), QString());
}

void TstServiceMethods::end()
{
    if (!m_service)
        return;
    const ChildResult result = m_service->end();
    QCOMPARE(ServiceProcess::complaints(result), QByteArray());
    QCOMPARE(result.exitCode, 0);
    m_client.reset();
    m_service.reset();
}

// ---------------------------------------------------------------------------------------------
// Reading.
// ---------------------------------------------------------------------------------------------

void TstServiceMethods::reading_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QStringList>("roles");
    QTest::addColumn<QString>("answer");
    const auto row = [](const char* name, const QString& path, const QStringList& roles,
                        const char* answer) {
        QTest::newRow(name) << path << roles << QString::fromUtf8(answer);
    };
    row("int", volume, valueRole, "{value: x 35}");
    row("double", gain, valueRole, "{value: d 0.5}");
    row("bool", loudness, valueRole, "{value: b true}");
    row("string", mode, valueRole, "{value: s \"mid\"}");
    row("list", sources, valueRole, "{value: av [s \"fm\", s \"usb\"]}");
    row("without a leading slash", volume.mid(1), valueRole, "{value: x 35}");
    row("several roles", volume,
        { QStringLiteral("title"), QStringLiteral("value"), QStringLiteral("valueUnit"),
          QStringLiteral("path"), QStringLiteral("type"), QStringLiteral("edit") },
        "{edit: {kind: s \"int\", max: x 100, min: x 0, step: x 5}, path: s "
        "\"/settings/audio/volume\", title: s \"Volume\", type: x 101, value: x 35, valueUnit: s "
        "\"%\"}");
    row("roles that it lacks", token, { QStringLiteral("value"), QStringLiteral("title") },
        "{title: s \"Token\"}");
    row("no roles: all", volume, {},
        "{defaultValue: x 35, edit: {kind: s \"int\", max: x 100, min: x 0, step: x 5}, path: s "
        "\"/settings/audio/volume\", title: s \"Volume\", type: x 101, value: x 35, valueUnit: s "
        "\"%\"}");
    row("the same role twice", volume, valueRole + valueRole, "{value: x 35}");
    row("a role that nobody knows", volume, { QStringLiteral("colour") }, "{}");
    row("directory", QStringLiteral("/settings/audio"),
        { QStringLiteral("title"), QStringLiteral("type"), QStringLiteral("modifiable") },
        "{modifiable: b false, title: s \"Audio\", type: x 1}");
    row("the mount", QStringLiteral("/settings"), { QStringLiteral("title") },
        "{title: s \"Settings\"}");
    row("no such path", QStringLiteral("/settings/nothing"), valueRole,
        "InvalidPath: Invalid path '/settings/nothing'");
    row("another mount", QStringLiteral("/other/audio"), valueRole,
        "InvalidPath: Invalid path '/other/audio'");
    row("empty path", QString(), valueRole, "Refused: The path is empty");
    row("parent", QStringLiteral("/settings/../audio"), valueRole,
        "Refused: Path '/settings/../audio' has a component that begins with '.'");
    QStringList many;
    for (int i = 0; i < 65; ++i)
        many.append(QStringLiteral("title"));
    row("65 roles", volume, many,
        "Limits: A request for '/settings/audio/volume' names more than 64 roles");
}

void TstServiceMethods::reading()
{
    QFETCH(const QString, path);
    QFETCH(const QStringList, roles);
    QFETCH(const QString, answer);

    QCOMPARE(m_client->call("GetData", { path, roles }), answer);
}

void TstServiceMethods::rows_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("last");
    QTest::addColumn<QStringList>("roles");
    QTest::addColumn<QString>("answer");
    const QString audio = QStringLiteral("/settings/audio");
    const QString head = QStringLiteral(
        "u 5 i 0 {modifiable: b false, path: s \"/settings/audio\", title: s \"Audio\", type: x 1}");
    const int most = std::numeric_limits<int>::max();
    QTest::newRow("first two")
        << audio << 0 << 1 << valueRole
        << head
            + QStringLiteral(
                " a(sa{sv}) [(s \"gain\", {value: d 0.5}), (s \"loudness\", {value: b true})]");
    QTest::newRow("last")
        << audio << 4 << most
        << QStringList { QStringLiteral("title"), QStringLiteral("valueUnit") }
        << head
            + QStringLiteral(
                " a(sa{sv}) [(s \"volume\", {title: s \"Volume\", valueUnit: s \"%\"})]");
    QTest::newRow("without roles") << audio << 0 << 0 << QStringList()
                                   << head + QStringLiteral(" a(sa{sv}) [(s \"gain\", {})]");
    QTest::newRow("empty range") << audio << 1 << 0 << valueRole
                                 << head + QStringLiteral(" a(sa{sv}) []");
    QTest::newRow("beyond the end")
        << audio << 9 << 12 << valueRole << head + QStringLiteral(" a(sa{sv}) []");
    QTest::newRow("negative") << audio << -1 << 2 << valueRole
                              << QStringLiteral("Refused: A row index at '/settings/audio' is "
                                                "negative");
    QTest::newRow("setting") << volume << 0 << 2 << valueRole
                             << QStringLiteral("InvalidPath: Invalid path "
                                               "'/settings/audio/volume'");
    QTest::newRow("no such path") << QStringLiteral("/settings/no") << 0 << 2 << valueRole
                                  << QStringLiteral("InvalidPath: Invalid path '/settings/no'");
}

void TstServiceMethods::rows()
{
    QFETCH(const QString, path);
    QFETCH(const int, first);
    QFETCH(const int, last);
    QFETCH(const QStringList, roles);
    QFETCH(const QString, answer);

    QCOMPARE(m_client->call("GetRows", { path, first, last, roles }), answer);
}

void TstServiceMethods::rowsAreClampedAndSayHowManyThereAre()
{
    for (int i = 0; i < 600; ++i)
        m_trees->tree.writeDefault(QStringLiteral("/many/n%1").arg(i, 4, 10, QLatin1Char('0')),
                                   QByteArrayLiteral("{}"));

    const QString answer =
        m_client->call("GetRows", { QStringLiteral("/settings/many"), 0, 1000, QStringList() });

    QVERIFY2(answer.startsWith(QStringLiteral("u 600 i 0 {")), qPrintable(answer.left(100)));
    QCOMPARE(answer.count(QStringLiteral("(s \"n")), 500);
    QVERIFY(answer.endsWith(QStringLiteral("(s \"n0499\", {})]")));
}

// ---------------------------------------------------------------------------------------------
// Values that are set.
// ---------------------------------------------------------------------------------------------

void TstServiceMethods::setValueTakesEveryIntegerType_data()
{
    QTest::addColumn<QVariant>("sent");
    QTest::newRow("y") << QVariant::fromValue(uchar(40));
    QTest::newRow("n") << QVariant::fromValue(short(40));
    QTest::newRow("q") << QVariant::fromValue(ushort(40));
    QTest::newRow("i") << QVariant(40);
    QTest::newRow("u") << QVariant(40U);
    QTest::newRow("x") << QVariant(40LL);
    QTest::newRow("t") << QVariant(40ULL);
    QTest::newRow("variant") << variantOf(40);
    QTest::newRow("with its kind") << QVariant(QVariantMap { { QStringLiteral("int"), 40 } });
}

void TstServiceMethods::setValueTakesEveryIntegerType()
{
    QFETCH(const QVariant, sent);

    QCOMPARE(m_client->call("SetValue", { volume, variantOf(sent) }),
             QStringLiteral("{timestamp: *, value: x 40}"));

    QCOMPARE(m_client->value(volume), QStringLiteral("x 40"));
}

void TstServiceMethods::setValueStores_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("sent");
    QTest::addColumn<QString>("stored");
    const auto row = [](const char* name, const QString& path, const QVariant& sent,
                        const QString& stored) {
        QTest::newRow(name) << path << sent << stored;
    };
    row("above the range", volume, 400,
        QStringLiteral("x 100 {adjusted: b true, asked: x 400, reason: s \"it is above 'max' "
                       "(100)\"}"));
    row("between the steps", volume, 41,
        QStringLiteral("x 40 {adjusted: b true, asked: x 41, reason: s \"it does not lie on a "
                       "'step' (5)\"}"));
    row("whole double for an int", volume, 40.0, QStringLiteral("x 40"));
    row("int for a double", gain, 1, QStringLiteral("d 1"));
    row("double", gain, -0.25, QStringLiteral("d -0.25"));
    row("bool", loudness, false, QStringLiteral("b false"));
    row("text", mode, QStringLiteral("high"), QStringLiteral("s \"high\""));
    row("list of strings", sources, QStringList { QStringLiteral("dab") },
        QStringLiteral("av [s \"dab\"]"));
    row("list of variants", sources, list({ QStringLiteral("dab"), 5, true, 0.5 }).mid(0, 3),
        QStringLiteral("av [s \"dab\", x 5, b true]"));
    row("list of lists", sources, list({ list({ 1, list({ 2 }) }) }),
        QStringLiteral("av [av [x 1, av [x 2]]]"));
    row("empty list", sources, QVariantList(), QStringLiteral("av []"));
    // A setting without a kind takes that of the value.
    row("free: bool", token, true, QStringLiteral("b true"));
    row("free: int", token, -5, QStringLiteral("x -5"));
    row("free: smallest", token, std::numeric_limits<qlonglong>::min(),
        QStringLiteral("x -9223372036854775808"));
    row("free: largest that is signed", token, std::numeric_limits<qlonglong>::max(),
        QStringLiteral("x 9223372036854775807"));
    row("free: the same without a sign", token, quint64(std::numeric_limits<qlonglong>::max()),
        QStringLiteral("x 9223372036854775807"));
    row("free: largest of all", token, std::numeric_limits<quint64>::max(),
        QStringLiteral("t 18446744073709551615"));
    row("free: largest of all with its kind", token,
        QVariantMap { { QStringLiteral("int"), std::numeric_limits<quint64>::max() } },
        QStringLiteral("t 18446744073709551615"));
    row("free: double", token, 0.1, QStringLiteral("d 0.1"));
    row("free: whole double", token, 5.0, QStringLiteral("d 5"));
    row("free: empty text", token, QString(QLatin1String("")), QStringLiteral("s \"\""));
    row("free: text", token, QString::fromUtf8("gr\303\274n \360\237\232\227"),
        QString::fromUtf8("s \"gr\303\274n \360\237\232\227\""));
    row("free: text that looks like JSON", token, QStringLiteral("{\"int\":1}"),
        QStringLiteral("s \"{\"int\":1}\""));
    row("free: list of maps", token, list({ QVariantMap { { QStringLiteral("a"), 1 } } }),
        QStringLiteral("av [{a: x 1}]"));
    row("free: eight lists", token, nested(8),
        QStringLiteral("av [av [av [av [av [av [av [av "
                       "[]]]]]]]]"));
    row("free: with its kind", token, QVariantMap { { QStringLiteral("double"), 5 } },
        QStringLiteral("d 5"));
    row("free: nested variants", token, variantOf(variantOf(7)), QStringLiteral("x 7"));
}

void TstServiceMethods::setValueStores()
{
    QFETCH(const QString, path);
    QFETCH(const QVariant, sent);
    QFETCH(const QString, stored);

    const QString answer = m_client->call("SetValue", { path, variantOf(sent) });

    const int outcome = stored.indexOf(QLatin1String(" {adjusted"));
    const QString value = stored.left(outcome);
    QCOMPARE(answer,
             QStringLiteral("{timestamp: *, value: %1}%2")
                 .arg(value, outcome < 0 ? QString() : stored.mid(outcome)));
    QCOMPARE(m_client->value(path), value);
    // And the same from disk.
    QCOMPARE(m_client->call("Flush"), QStringLiteral("u 0"));
    QCOMPARE(m_client->call("DropCache"), QString());
    QCOMPARE(m_client->value(path), value);
}

void TstServiceMethods::rejectedValueChangesNothing_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("sent");
    QTest::addColumn<QString>("reason");
    QTest::addColumn<QString>("stored");
    const QString notInt = QStringLiteral("it is not of the kind 'int'");
    const QString untouched = QStringLiteral("x 35");
    QTest::newRow("text for an int")
        << volume << QVariant(QStringLiteral("40")) << notInt << untouched;
    QTest::newRow("bool for an int") << volume << QVariant(true) << notInt << untouched;
    QTest::newRow("text that is not among the values")
        << mode << QVariant(QStringLiteral("top"))
        << QStringLiteral(R"(it is not one of the 'values' (["low","mid","high"]))")
        << QStringLiteral("s \"mid\"");
    QTest::newRow("list too long") << sources << QVariant(list({ 1, 2, 3, 4 }))
                                   << QStringLiteral("it is longer than 'maxLength' (3)")
                                   << QStringLiteral("av [s \"fm\", s \"usb\"]");
}

void TstServiceMethods::rejectedValueChangesNothing()
{
    QFETCH(const QString, path);
    QFETCH(const QVariant, sent);
    QFETCH(const QString, reason);
    QFETCH(const QString, stored);
    SignalRecorder recorder(m_client->connection());
    const QString error =
        QStringLiteral("Rejected: The value for '%1' was rejected: %2").arg(path, reason);

    QCOMPARE(m_client->call("SetValue", { path, variantOf(sent) }), error);
    QCOMPARE(m_client->call("SetRoles",
                            { path,
                              QVariantMap { { QStringLiteral("value"), sent },
                                            { QStringLiteral("id"), QStringLiteral("X") } } }),
             error);
    QCOMPARE(
        m_client->call("Apply", { path, QStringLiteral("set"), QVariantList { variantOf(sent) } }),
        error);

    QCOMPARE(m_client->value(path), stored);
    QCOMPARE(m_client->property("PendingWrites"), QStringLiteral("u 0"));
    QCOMPARE(recorder.received(), QStringList());
}

void TstServiceMethods::setValueRefuses_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("sent");
    QTest::addColumn<QString>("error");
    const auto row = [](const char* name, const QString& path, const QVariant& sent,
                        const QString& error) {
        QTest::newRow(name) << path << sent << error;
    };
    const QString rejected = QStringLiteral("Rejected: A setting cannot hold this value; "
                                            "path:'/settings/token'");
    const double infinity = std::numeric_limits<double>::infinity();
    row("object path", token, QVariant::fromValue(QDBusObjectPath(QStringLiteral("/x"))), rejected);
    row("signature", token, QVariant::fromValue(QDBusSignature(QStringLiteral("a{sv}"))), rejected);
    // The bus itself refuses descriptors for a service that takes none.
    const QString noDescriptor =
        QStringLiteral("org.freedesktop.DBus.Error.NotSupported: Tried to send message with Unix "
                       "file descriptorsto a client that doesn't support that.");
    row("handle", token, QVariant::fromValue(QDBusUnixFileDescriptor(STDIN_FILENO)), noDescriptor);
    row("bytes", token, QByteArrayLiteral("abc"), rejected);
    row("object path in a list", token,
        list({ 1, QVariant::fromValue(QDBusObjectPath(QStringLiteral("/x"))) }), rejected);
    row("list of object paths", token,
        QVariant::fromValue(QList<QDBusObjectPath> { QDBusObjectPath(QStringLiteral("/x")) }),
        rejected);
    row("handle in a map in a list", token,
        list({ QVariantMap { { QStringLiteral("a"),
                               QVariant::fromValue(QDBusUnixFileDescriptor(STDIN_FILENO)) } } }),
        noDescriptor);
    row("bytes in a list", token, list({ QByteArrayLiteral("abc") }), rejected);
    row("not a number", token, std::nan(""), rejected);
    row("infinity", token, infinity, rejected);
    row("negative infinity in a list", token, list({ -infinity }), rejected);
    row("not a number with its kind", token, QVariantMap { { QStringLiteral("double"), infinity } },
        rejected);
    row("map without a kind", token, QVariantMap(),
        QStringLiteral("Rejected: The value for '/settings/token' is not one that a setting can "
                       "have"));
    row("map of an unknown kind", token, QVariantMap { { QStringLiteral("colour"), 1 } },
        QStringLiteral("Refused: A value for '/settings/token' does not have one known kind"));
    row("map of two kinds", token,
        QVariantMap { { QStringLiteral("int"), 1 }, { QStringLiteral("bool"), true } },
        QStringLiteral("Refused: A value for '/settings/token' does not have one known kind"));
    row("map of another kind than its value", token,
        QVariantMap { { QStringLiteral("int"), QStringLiteral("x") } },
        QStringLiteral("Refused: A value for '/settings/token' is not of the kind it names"));
    row("nine lists", token, nested(9),
        QStringLiteral("Limits: A value for '/settings/token' nests more than 8 deep"));
    row("thirty lists", token, nested(30), rejected);
    row("larger than fits", token, QString(60000, QLatin1Char('x')),
        QStringLiteral("Limits: A value for '/settings/token' takes more than 49152 bytes"));
    row("read-only", QStringLiteral("/settings/serial"), QStringLiteral("X2"),
        QStringLiteral("NotModifiable: Setting '/settings/serial' is not modifiable"));
    row("directory", QStringLiteral("/settings/audio"), 1,
        QStringLiteral("Refused: Path '/settings/audio' is a directory"));
    row("the mount", QStringLiteral("/settings"), 1,
        QStringLiteral("Refused: Path '/settings' is a directory"));
    row("another mount", QStringLiteral("/other/x"), 1,
        QStringLiteral("InvalidPath: Invalid path '/other/x'"));
    row("no such setting", QStringLiteral("/settings/new"), 1,
        QStringLiteral(
            "InvalidPath: There is no setting '/settings/new', and none can be created at the "
            "top"));
    row("no such setting in a directory", QStringLiteral("/settings/audio/new"), 1,
        QStringLiteral(
            "InvalidPath: There is no setting '/settings/audio/new', and none can be created: "
            "its template is not modifiable"));
    row("no such directory", QStringLiteral("/settings/none/new"), 1,
        QStringLiteral(
            "InvalidPath: There is no setting '/settings/none/new', and no directory for it"));
    row("below a setting", QStringLiteral("/settings/token/new"), 1,
        QStringLiteral("Refused: Path '/settings/token/new' is below a setting"));
    row("hidden", QStringLiteral("/settings/.meta"), 1,
        QStringLiteral("Refused: Path '/settings/.meta' has a component that begins with '.'"));
    row("action", QStringLiteral("/settings/actions/flush"), 1,
        QStringLiteral("Refused: Path '/settings/actions/flush' is an action"));
}

void TstServiceMethods::setValueRefuses()
{
    QFETCH(const QString, path);
    QFETCH(const QVariant, sent);
    QFETCH(const QString, error);
    qDBusRegisterMetaType<QList<QDBusObjectPath>>();

    QCOMPARE(m_client->call("SetValue", { path, variantOf(sent) }), error);

    QCOMPARE(m_client->property("PendingWrites"), QStringLiteral("u 0"));
    QCOMPARE(m_client->value(token), QStringLiteral("? "));
    QCOMPARE(m_trees->tree.writtenEntries(), QStringList(QStringLiteral("/.tulo-cm.lock")));
}

// ---------------------------------------------------------------------------------------------
// Roles and operations.
// ---------------------------------------------------------------------------------------------

void TstServiceMethods::setRoles_data()
{
    QTest::addColumn<QVariantMap>("sent");
    QTest::addColumn<QString>("answer");
    const auto row = [](const char* name, const QVariantMap& sent, const QString& answer) {
        QTest::newRow(name) << sent << answer;
    };
    const auto role = [](const char* name, const QVariant& value) {
        return QVariantMap { { QString::fromLatin1(name), value } };
    };
    const auto notSettable = [](const char* name) {
        return QStringLiteral("Refused: The role '%1' of '/settings/audio/volume' cannot be set; "
                              "those that can are value, timestamp, id, disabled")
            .arg(QLatin1String(name));
    };
    const auto notOfItsType = [](const char* name) {
        return QStringLiteral("Rejected: The role '%1' of '/settings/audio/volume' cannot have "
                              "this value")
            .arg(QLatin1String(name));
    };
    row("value", role("value", 40), QStringLiteral("{timestamp: *, value: x 40}"));
    row("id", role("id", QStringLiteral("A1")),
        QStringLiteral("{id: s \"A1\", timestamp: *, value: x 35}"));
    row("disabled", role("disabled", true),
        QStringLiteral("{disabled: b true, timestamp: *, value: x 35}"));
    row("timestamp", role("timestamp", 1700000000000LL),
        QStringLiteral("{timestamp: *, value: x 35}"));
    row("none", {}, QStringLiteral("{timestamp: *, value: x 35}"));
    row("activate", role("activate", true), notSettable("activate"));
    row("value and activate",
        { { QStringLiteral("value"), 40 }, { QStringLiteral("activate"), true } },
        notSettable("activate"));
    for (const char* name :
         { "path", "title", "type", "edit", "modifiable", "encrypted", "encryptedValue",
           "defaultValue", "permission", "setRoles", "valueOperation", "colour", "Value", "" })
        row(name[0] == 0 ? "empty name" : name, role(name, 1), notSettable(name));
    row("timestamp as text", role("timestamp", QStringLiteral("now")), notOfItsType("timestamp"));
    row("id as number", role("id", 1), notOfItsType("id"));
    row("disabled as number", role("disabled", 1), notOfItsType("disabled"));
    row("value that is an object path",
        role("value", QVariant::fromValue(QDBusObjectPath(QStringLiteral("/x")))),
        QStringLiteral("Rejected: A setting cannot hold this value; "
                       "path:'/settings/audio/volume'"));
    row("long id", role("id", QString(60000, QLatin1Char('i'))),
        QStringLiteral("Limits: A value for '/settings/audio/volume' takes more than 49152 bytes"));
}

void TstServiceMethods::setRoles()
{
    QFETCH(const QVariantMap, sent);
    QFETCH(const QString, answer);

    QCOMPARE(m_client->call("SetRoles", { volume, sent }), answer);

    const bool isTaken = answer.startsWith(QLatin1Char('{'));
    QCOMPARE(m_client->call("Flush"), QStringLiteral("u 0"));
    QCOMPARE(m_trees->tree.writtenEntries().contains(volumeFile), isTaken);
}

void TstServiceMethods::setRolesDoesWhatItIsAsked()
{
    const QVariantMap sent { { QStringLiteral("value"), 40 },
                             { QStringLiteral("id"), QStringLiteral("A1") },
                             { QStringLiteral("timestamp"), 1700000000000LL } };

    m_client->call("SetRoles", { volume, sent });
    QCOMPARE(m_client->call("Flush"), QStringLiteral("u 0"));

    QCOMPARE(m_trees->tree.readWritten(volumeFile),
             QByteArray(R"({"id":"A1","timestamp":1700000000000,"value":{"int":40}})"));
}

void TstServiceMethods::apply_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("verb");
    QTest::addColumn<QVariantList>("operand");
    QTest::addColumn<QString>("answer");
    const auto row = [](const char* name, const QString& path, const char* verb,
                        const QVariantList& operand, const QString& answer) {
        QTest::newRow(name) << path << QString::fromLatin1(verb) << operand
                            << (answer.contains(QLatin1Char(':'))
                                    ? answer
                                    : QStringLiteral("{timestamp: *, value: %1}").arg(answer));
    };
    row("set", volume, "set", list({ 40 }), QStringLiteral("x 40"));
    row("add", volume, "add", list({ QVariant::fromValue(uchar(5)) }), QStringLiteral("x 40"));
    row("add beyond the range", volume, "add", list({ 500 }),
        QStringLiteral("{timestamp: *, value: x 100} {adjusted: b true, asked: x 535, reason: s "
                       "\"it is above 'max' (100)\"}"));
    row("multiply", volume, "multiply", list({ 2 }), QStringLiteral("x 70"));
    row("toggle", loudness, "toggle", {}, QStringLiteral("b false"));
    row("append", sources, "append", list({ QStringLiteral("dab") }),
        QStringLiteral("av [s \"fm\", s \"usb\", s \"dab\"]"));
    row("remove", sources, "remove", list({ QStringLiteral("fm") }),
        QStringLiteral("av [s \"usb\"]"));
    row("next", mode, "next", {}, QStringLiteral("s \"high\""));
    row("previous", mode, "previous", {}, QStringLiteral("s \"low\""));
    const QString unknown = QStringLiteral(
        "Refused: '%1' is not an operation for '/settings/audio/volume'; operations are set, add, "
        "multiply, toggle, append, remove, next, previous");
    row("unknown verb", volume, "double", list({ 1 }), unknown.arg(QStringLiteral("double")));
    row("empty verb", volume, "", {}, unknown.arg(QString()));
    row("two operands", volume, "add", list({ 1, 2 }),
        QStringLiteral("Refused: An operation takes one operand at most; "
                       "path:'/settings/audio/volume'"));
    row("operand that is a signature", volume, "add",
        list({ QVariant::fromValue(QDBusSignature(QStringLiteral("s"))) }),
        QStringLiteral("Rejected: A setting cannot hold this value; "
                       "path:'/settings/audio/volume'"));
    row("read-only", QStringLiteral("/settings/serial"), "set", list({ QStringLiteral("X2") }),
        QStringLiteral("NotModifiable: Setting '/settings/serial' is not modifiable"));
    row("no such path", QStringLiteral("/settings/none/x"), "toggle", {},
        QStringLiteral(
            "InvalidPath: There is no setting '/settings/none/x', and no directory for it"));
}

void TstServiceMethods::apply()
{
    QFETCH(const QString, path);
    QFETCH(const QString, verb);
    QFETCH(const QVariantList, operand);
    QFETCH(const QString, answer);

    QCOMPARE(m_client->call("Apply", { path, verb, operand }), answer);
}

// ---------------------------------------------------------------------------------------------
// Many settings in one call, and the options of a change.
// ---------------------------------------------------------------------------------------------

void TstServiceMethods::explanationNamesLayerAndPlace()
{
    const QString file = m_trees->tree.defaultPath() + QStringLiteral("/audio/volume");

    const QString answer = m_client->call("Explain", { volume });

    QVERIFY2(answer.startsWith(QStringLiteral("a(sa{sv}) [(s \"value\", {column: x 19, file: s "
                                              "\"%1\", layer: s \"default\", line: x 1, state: s "
                                              "\"effective\", value: x 35}), ")
                                   .arg(file)),
             qPrintable(answer));
    QVERIFY2(answer.contains(QLatin1String("(s \"type\", {layer: s \"builtIn\", state: s "
                                           "\"effective\", value: x 101})")),
             qPrintable(answer));
    QVERIFY2(answer.contains(QLatin1String("reason: s \"a template is for settings without a "
                                           "default file\", state: s \"hidden\"")),
             qPrintable(answer));
    QCOMPARE(m_client->call("Explain", { QStringLiteral("/settings/nothing") }),
             QStringLiteral("InvalidPath: Invalid path '/settings/nothing'"));
}

void TstServiceMethods::manySettingsAreReadInOneCall()
{
    const QStringList paths { volume, QStringLiteral("/settings/nothing"), loudness,
                              QStringLiteral("/settings/../x"), volume };

    QCOMPARE(
        m_client->call("GetMany", { paths, valueRole }),
        QStringLiteral(
            "a(sa{sv}) [(s \"/settings/audio/volume\", {value: x 35}), (s \"/settings/nothing\", "
            "{error: s \"InvalidPath: Invalid path '/settings/nothing'\"}), (s "
            "\"/settings/audio/loudness\", {value: b true}), (s \"/settings/../x\", {error: s "
            "\"Refused: Path '/settings/../x' has a component that begins with '.'\"}), (s "
            "\"/settings/audio/volume\", {value: x 35})]"));
    QStringList tooMany;
    for (int i = 0; i < 1001; ++i)
        tooMany.append(volume);
    QVERIFY(
        m_client->call("GetMany", { tooMany, valueRole }).startsWith(QLatin1String("Limits: ")));
}

void TstServiceMethods::manySettingsAreChangedAtOnce()
{
    SignalRecorder recorder(m_client->connection());

    const QString answer =
        m_client->call("SetMany", { assignments({ { volume, 41 }, { gain, -0.5 } }) });

    QCOMPARE(
        answer,
        QStringLiteral("a(a{sv}a{sv}) [({timestamp: *, value: x 40}, {adjusted: b true, asked: "
                       "x 41, reason: s \"it does not lie on a 'step' (5)\"}), ({timestamp: "
                       "*, value: d -0.5}, {})]"));
    QCOMPARE(m_client->value(volume), QStringLiteral("x 40"));
    QCOMPARE(m_client->value(gain), QStringLiteral("d -0.5"));
    QCOMPARE(recorder.received().filter(QStringLiteral("ValueChanged")),
             QStringList({ QStringLiteral("ValueChanged /settings/audio/volume x 40"),
                           QStringLiteral("ValueChanged /settings/audio/gain d -0.5") }));
}

void TstServiceMethods::rejectedChangeOfManyChangesNone_data()
{
    QTest::addColumn<Values>("values");
    QTest::addColumn<QString>("error");
    QTest::newRow("rejected value")
        << Values { { volume, 40 }, { mode, QStringLiteral("top") }, { gain, 0.0 } }
        << QStringLiteral("Rejected: ");
    QTest::newRow("read-only") << Values { { volume, 40 },
                                           { QStringLiteral("/settings/serial"), 1 } }
                               << QStringLiteral("NotModifiable: ");
    QTest::newRow("no such directory")
        << Values { { volume, 40 }, { QStringLiteral("/settings/none/x"), 1 } }
        << QStringLiteral("InvalidPath: ");
    QTest::newRow("twice") << Values { { volume, 40 }, { gain, 0.0 }, { volume, 45 } }
                           << QStringLiteral("Refused: ");
    QTest::newRow("value that no setting has")
        << Values { { volume, 40 }, { token, std::nan("") } } << QStringLiteral("Rejected: ");
}

void TstServiceMethods::rejectedChangeOfManyChangesNone()
{
    QFETCH(const Values, values);
    QFETCH(const QString, error);
    SignalRecorder recorder(m_client->connection());

    const QString answer = m_client->call("SetMany", { assignments(values) });

    QVERIFY2(answer.startsWith(error), qPrintable(answer));
    QCOMPARE(m_client->value(volume), QStringLiteral("x 35"));
    QCOMPARE(m_client->value(gain), QStringLiteral("d 0.5"));
    QCOMPARE(m_client->property("PendingWrites"), QStringLiteral("u 0"));
    QCOMPARE(recorder.received(), QStringList());
}

void TstServiceMethods::conditionThatDoesNotHoldChangesNothing_data()
{
    QTest::addColumn<QVariantMap>("options");
    QTest::newRow("value") << QVariantMap { { QStringLiteral("if-value"), 40 } };
    QTest::newRow("timestamp") << QVariantMap { { QStringLiteral("if-timestamp"), 1LL } };
}

void TstServiceMethods::conditionThatDoesNotHoldChangesNothing()
{
    QFETCH(const QVariantMap, options);

    const QString answer = m_client->call("SetValue", { volume, variantOf(50), options });

    QVERIFY2(answer.startsWith(QLatin1String("Conflict: ")), qPrintable(answer));
    QCOMPARE(m_client->value(volume), QStringLiteral("x 35"));
    QCOMPARE(m_client->call(
                 "SetValue",
                 { volume, variantOf(50), QVariantMap { { QStringLiteral("if-value"), 35 } } }),
             QStringLiteral("{timestamp: *, value: x 50}"));
}

void TstServiceMethods::dryRunAnswersAndChangesNothing()
{
    const QVariantMap dryRun { { QStringLiteral("dry-run"), true } };
    SignalRecorder recorder(m_client->connection());

    const QString answer = m_client->call("SetValue", { volume, variantOf(400), dryRun });

    QVERIFY2(answer.contains(QLatin1String("value: x 100} {adjusted: b true, asked: x 400")),
             qPrintable(answer));
    QVERIFY(m_client->call("SetValue", { mode, variantOf(QStringLiteral("top")), dryRun })
                .startsWith(QLatin1String("Rejected: ")));
    QCOMPARE(m_client->value(volume), QStringLiteral("x 35"));
    QCOMPARE(m_client->property("PendingWrites"), QStringLiteral("u 0"));
    QCOMPARE(recorder.received(), QStringList());
}

void TstServiceMethods::unknownOptionIsRefused()
{
    for (const QVariantMap& options :
         { QVariantMap { { QStringLiteral("force"), true } },
           QVariantMap { { QStringLiteral("dry-run"), QStringLiteral("yes") } } }) {
        const QString answer = m_client->call("SetValue", { volume, variantOf(50), options });
        QVERIFY2(answer.startsWith(QLatin1String("Refused: ")), qPrintable(answer));
    }

    QCOMPARE(m_client->value(volume), QStringLiteral("x 35"));
}

// ---------------------------------------------------------------------------------------------
// The rest of what can be asked for.
// ---------------------------------------------------------------------------------------------

void TstServiceMethods::changeIsVisibleAtOnceAndOnDiskAfterFlush()
{
    m_client->call("SetValue", { volume, variantOf(40) });
    const BusClient other(m_bus->address());

    QCOMPARE(other.value(volume), QStringLiteral("x 40"));

    QCOMPARE(other.call("Flush"), QStringLiteral("u 0"));
    QCOMPARE(m_trees->tree.readWrittenRoles(volumeFile).value(QStringLiteral("value")).toHash(),
             QVariantHash({ { QStringLiteral("int"), 40 } }));
    QCOMPARE(other.call("Flush"), QStringLiteral("u 0"));
}

void TstServiceMethods::newSettingIsMadeFromItsTemplate()
{
    const QString path = QStringLiteral("/settings/presets/two");

    QCOMPARE(m_client->call("SetValue", { path, variantOf(QStringLiteral("fm:99")) }),
             QStringLiteral("{timestamp: *, value: s \"fm:99\"}"));

    QCOMPARE(m_client->call("GetData", { path, QStringList { QStringLiteral("title") } }),
             QStringLiteral("{title: s \"Preset\"}"));
}

void TstServiceMethods::dropCacheReadsTheFilesAgain()
{
    QCOMPARE(m_client->value(volume), QStringLiteral("x 35"));
    m_trees->tree.writeWritten(volumeFile, R"({"value":{"int":45}})");
    QCOMPARE(m_client->value(volume), QStringLiteral("x 35"));

    QCOMPARE(m_client->call("DropCache"), QString());

    QCOMPARE(m_client->value(volume), QStringLiteral("x 45"));
}

// A null that reached the wire would end the service.
void TstServiceMethods::nullsAreLeftOutOfMaps()
{
    const TemporaryTree& tree = m_trees->tree;
    tree.writeDefault(QStringLiteral("/null/value"), R"({"value":{"int":null},"title":"A"})");
    tree.writeDefault(QStringLiteral("/null/list"), R"({"value":{"list":[1,null]},"title":"B"})");
    tree.writeDefault(QStringLiteral("/null/map"),
                      R"({"value":{"list":[{"a":null,"b":1}]},"title":null})");
    tree.writeDefault(QStringLiteral("/null/edit"),
                      R"({"value":{"int":1},"edit":{"min":null,"values":[null],"max":2}})");
    tree.writeDefault(QStringLiteral("/null/zero"), R"({"value":{"string":"a\u0000b"}})");
    const QStringList roles { QStringLiteral("value"), QStringLiteral("title"),
                              QStringLiteral("edit") };

    const QString answer =
        m_client->call("GetRows", { QStringLiteral("/settings/null"), 0, 10, roles });

    QCOMPARE(
        answer,
        QStringLiteral(
            "u 5 i 0 {path: s \"/settings/null\", title: s \"null\", type: x 1} a(sa{sv}) [(s "
            "\"edit\", {edit: {max: x 2}, title: s \"edit\", value: x 1}), (s \"list\", {title: "
            "s \"B\"}), (s \"map\", {value: av [{b: x 1}]}), (s \"value\", {title: s \"A\"}), "
            "(s \"zero\", {title: s \"zero\"})]"));
    for (const char* name : { "value", "list", "map", "edit", "zero" }) {
        const QString path = QLatin1String("/settings/null/") + QLatin1String(name);
        QVERIFY(m_client->call("GetData", { path, roles }).startsWith(QLatin1Char('{')));
        QVERIFY(m_client->call("SetRoles", { path, QVariantMap() }).startsWith(QLatin1Char('{')));
    }
}

void TstServiceMethods::callsThatDoNotExistAreRefused()
{
    const QString unknown = QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod: ");
    const QString invalid = QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs: ");
    QVERIFY(m_client->call("Nothing").startsWith(unknown));
    QVERIFY(m_client->call("GetData").startsWith(invalid));
    QVERIFY(m_client->call("GetData", { 1, 2 }).startsWith(invalid));
    QVERIFY(m_client->call("Flush", { 1 }).startsWith(invalid));
    // Of another interface.
    QDBusMessage change = BusClient::message(QStringLiteral("SetValue"), { volume, variantOf(40) });
    change = QDBusMessage::createMethodCall(change.service(), change.path(),
                                            QStringLiteral("org.tulo.ConfigurationManager1"),
                                            change.member())
        << change.arguments();
    QVERIFY(BusClient::shown(m_client->connection().call(change)).startsWith(unknown));

    QCOMPARE(m_client->value(volume), QStringLiteral("x 35"));
}

// ---------------------------------------------------------------------------------------------
// Signals.
// ---------------------------------------------------------------------------------------------

void TstServiceMethods::changeIsBroadcastInOrder()
{
    SignalRecorder recorder(m_client->connection());

    m_client->call("SetValue", { volume, variantOf(40) });

    QCOMPARE(recorder.received().mid(0, 3),
             QStringList({ QStringLiteral("ValueChanged /settings/audio/volume x 40"),
                           QStringLiteral("DataChanged /settings/audio/volume"),
                           QStringLiteral("RowsChanged /settings/audio 4 i 1") }));
}

void TstServiceMethods::sameValueIsBroadcastAsDataOnly()
{
    m_client->call("SetValue", { volume, variantOf(40) });
    const BusClient other(m_bus->address());
    SignalRecorder recorder(other.connection());

    other.call("SetValue", { volume, variantOf(40) });

    QStringList received = recorder.received();
    received.removeAll(QStringLiteral("PropertiesChanged"));
    QCOMPARE(received.filter(QStringLiteral("Changed /")),
             QStringList({ QStringLiteral("DataChanged /settings/audio/volume"),
                           QStringLiteral("RowsChanged /settings/audio 4 i 2") }));
}

void TstServiceMethods::newSettingIsBroadcastAsARow()
{
    SignalRecorder recorder(m_client->connection());

    m_client->call("SetValue",
                   { QStringLiteral("/settings/presets/two"), variantOf(QStringLiteral("fm:99")) });

    QVERIFY(recorder.received().contains(QStringLiteral("RowsChanged /settings/presets +1 i 1")));
}

void TstServiceMethods::refusedChangeIsNotBroadcast()
{
    SignalRecorder recorder(m_client->connection());

    m_client->call("SetValue", { QStringLiteral("/settings/serial"), variantOf(1) });
    m_client->call("SetValue", { token, variantOf(std::nan("")) });
    m_client->call("SetRoles", { volume, QVariantMap { { QStringLiteral("activate"), true } } });

    QCOMPARE(recorder.received(), QStringList());
}

void TstServiceMethods::matchRulePicksOnePath()
{
    SignalRecorder recorder(m_client->connection(), gain);

    m_client->call("SetValue", { volume, variantOf(40) });
    m_client->call("SetValue", { gain, variantOf(-0.5) });

    QCOMPARE(recorder.received(),
             QStringList({ QStringLiteral("ValueChanged /settings/audio/gain d -0.5"),
                           QStringLiteral("DataChanged /settings/audio/gain") }));
}

void TstServiceMethods::encryptedValueIsNeverBroadcast()
{
    SignalRecorder recorder(m_client->connection());

    QCOMPARE(m_client->call("SetValue", { secret, variantOf(QStringLiteral("hidden")) }),
             QStringLiteral("{encrypted: b true, timestamp: *, value: s \"hidden\"}"));
    m_client->call("Apply",
                   { secret, QStringLiteral("set"), list({ QStringLiteral("hidden too") }) });
    m_client->call(
        "SetRoles",
        { secret, QVariantMap { { QStringLiteral("value"), QStringLiteral("hidden 3") } } });

    QCOMPARE(m_client->value(secret), QStringLiteral("s \"hidden 3\""));
    QCOMPARE(recorder.received().filter(QStringLiteral("Changed /settings/secret")),
             QStringList({ QStringLiteral("DataChanged /settings/secret"),
                           QStringLiteral("DataChanged /settings/secret"),
                           QStringLiteral("DataChanged /settings/secret") }));
    QCOMPARE(recorder.received().filter(QStringLiteral("hidden")), QStringList());
}

// ---------------------------------------------------------------------------------------------
// Properties.
// ---------------------------------------------------------------------------------------------

void TstServiceMethods::propertiesTellTheState()
{
    const ChildResult version =
        ChildProcess::run(QStringLiteral(TULO_SETTINGSD_PROGRAM), { QStringLiteral("--version") });

    QCOMPARE(m_client->property("Version"),
             QStringLiteral("s \"%1\"")
                 .arg(QString::fromLatin1(version.standardOutput.trimmed().mid(15))));
    QCOMPARE(m_client->property("DefaultPath"),
             QStringLiteral("s \"%1\"").arg(m_trees->tree.defaultPath()));
    QCOMPARE(m_client->property("WritePath"),
             QStringLiteral("s \"%1\"").arg(m_trees->tree.writePath()));
    QCOMPARE(m_client->property("PendingWrites"), QStringLiteral("u 0"));
    QCOMPARE(m_client->property("UnsavedCount"), QStringLiteral("u 0"));
    QCOMPARE(m_client->call("GetUnsaved", { 10U }), QStringLiteral("as []"));
    QCOMPARE(m_client->property("Writable"), QStringLiteral("b true"));
    QCOMPARE(m_client->property("Product"), QStringLiteral("s \"\""));
    QCOMPARE(m_client->property("LastWriteError"), QStringLiteral("s \"\""));
}

void TstServiceMethods::propertiesAreReadOnly()
{
    QDBusMessage set = QDBusMessage::createMethodCall(
        QStringLiteral("org.tulo.ConfigurationManager1"),
        QStringLiteral("/org/tulo/ConfigurationManager1"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Set"));
    set << QStringLiteral("org.tulo.ConfigurationManager1") << QStringLiteral("WritePath")
        << variantOf(QStringLiteral("/"));

    const QString answer = BusClient::shown(m_client->connection().call(set));

    QVERIFY2(answer.startsWith(QStringLiteral("org.freedesktop.DBus.Error.PropertyReadOnly: ")),
             qPrintable(answer));
}

void TstServiceMethods::pendingWritesAreNotAnnounced()
{
    SignalRecorder recorder(m_client->connection());

    m_client->call("SetValue", { volume, variantOf(40) });
    QCOMPARE(m_client->property("PendingWrites"), QStringLiteral("u 1"));
    QCOMPARE(m_client->call("Flush"), QStringLiteral("u 0"));

    QCOMPARE(m_client->property("PendingWrites"), QStringLiteral("u 0"));
    // Value, data and row.
    QCOMPARE(recorder.received().size(), 3);
}

QTEST_GUILESS_MAIN(TstServiceMethods)
#include "tst_service_methods.moc"
