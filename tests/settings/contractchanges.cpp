#include "tests/settings/settingscontract.h"

#include "tests/settings/contracttexts.h"

#include <QTest>

#include <cmath>
#include <limits>
#include <utility>

Q_DECLARE_METATYPE(tulo::Assignment)

namespace tulo {

namespace {

QVariantList list(std::initializer_list<QVariant> entries)
{
    return QVariantList(entries);
}

QVariant kinded(const char* kind, const QVariant& content)
{
    return QVariantMap { { QLatin1String(kind), content } };
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

// ---------------------------------------------------------------------------------------------
// Values.
// ---------------------------------------------------------------------------------------------

void SettingsContract::setTakesEveryNumberType_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::newRow("short") << QVariant::fromValue(short(40));
    QTest::newRow("ushort") << QVariant::fromValue(ushort(40));
    QTest::newRow("int") << QVariant(40);
    QTest::newRow("uint") << QVariant(40U);
    QTest::newRow("long") << QVariant::fromValue(40L);
    QTest::newRow("qlonglong") << QVariant(40LL);
    QTest::newRow("qulonglong") << QVariant(40ULL);
    QTest::newRow("double") << QVariant(40.0);
    QTest::newRow("float") << QVariant(40.0F);
    QTest::newRow("with its kind") << kinded("int", 40);
    QTest::newRow("a double with its kind") << kinded("double", 40.0);
}

void SettingsContract::setTakesEveryNumberType()
{
    QFETCH(const QVariant, value);

    QCOMPARE(answerOf(settings().set(volume, value)), storedAs(QStringLiteral("x 40")));

    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 40}"));
}

void SettingsContract::setStores_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("stored");
    const auto row = [](const char* name, const QString& path, const QVariant& value,
                        const QString& stored) {
        QTest::newRow(name) << path << value << stored;
    };
    row("int for a double", gain, 1, QStringLiteral("d 1"));
    row("double", gain, -0.25, QStringLiteral("d -0.25"));
    row("bool", loudness, false, QStringLiteral("b false"));
    row("text", mode, QStringLiteral("high"), QStringLiteral("s \"high\""));
    row("number for a text", secondPreset, 5.5, QStringLiteral("s \"5.5\""));
    row("bool for a text", secondPreset, true, QStringLiteral("s \"true\""));
    row("list of texts", sources, QStringList { QStringLiteral("dab") },
        QStringLiteral("[s \"dab\"]"));
    row("list of many kinds", sources, list({ QStringLiteral("dab"), 5, true }),
        QStringLiteral("[s \"dab\", x 5, b true]"));
    row("list of lists", sources, list({ list({ 1, list({ 2 }) }) }),
        QStringLiteral("[[x 1, [x 2]]]"));
    row("empty list", sources, QVariantList(), QStringLiteral("[]"));
    // A setting without a kind takes that of the value.
    row("free: bool", token, true, QStringLiteral("b true"));
    row("free: int", token, -5, QStringLiteral("x -5"));
    row("free: smallest", token, std::numeric_limits<qlonglong>::min(),
        QStringLiteral("x -9223372036854775808"));
    row("free: largest with a sign", token, std::numeric_limits<qlonglong>::max(),
        QStringLiteral("x 9223372036854775807"));
    row("free: the same without a sign", token, qulonglong(std::numeric_limits<qlonglong>::max()),
        QStringLiteral("x 9223372036854775807"));
    row("free: largest", token, std::numeric_limits<qulonglong>::max(),
        QStringLiteral("t 18446744073709551615"));
    row("free: largest with its kind", token, kinded("int", std::numeric_limits<qulonglong>::max()),
        QStringLiteral("t 18446744073709551615"));
    row("free: double", token, 0.1, QStringLiteral("d 0.10000000000000001"));
    row("free: whole double", token, 5.0, QStringLiteral("d 5"));
    row("free: int as a double", token, kinded("double", 5), QStringLiteral("d 5"));
    row("free: empty text", token, QStringLiteral(""), QStringLiteral("s \"\""));
    row("free: null text", token, QString(), QStringLiteral("s \"\""));
    row("free: text", token, QString::fromUtf8("gr\303\274n \360\237\232\227"),
        QString::fromUtf8("s \"gr\303\274n \360\237\232\227\""));
    row("free: text that looks like JSON", token, QStringLiteral("{\"int\":1}"),
        QStringLiteral("s \"{\"int\":1}\""));
    row("free: list of maps", token, list({ QVariantMap { { QStringLiteral("a"), 1 } } }),
        QStringLiteral("[{a: x 1}]"));
    row("free: eight lists", token, nested(8), QStringLiteral("[[[[[[[[]]]]]]]]"));
}

void SettingsContract::setStores()
{
    QFETCH(const QString, path);
    QFETCH(const QVariant, value);
    QFETCH(const QString, stored);
    const QString read = QStringLiteral("{value: %1}").arg(stored);

    QCOMPARE(answerOf(settings().set(path, value)), storedAs(stored));

    QCOMPARE(answerOf(settings().get(path, valueRole)), read);
    // And the same from disk.
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));
    QVERIFY(settings().dropCache().wait());
    QCOMPARE(answerOf(settings().get(path, valueRole)), read);
}

void SettingsContract::valueIsAdjusted_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("answer");
    const auto row = [](const char* name, const QString& path, const QVariant& value,
                        const char* answer) {
        QTest::newRow(name) << path << value << QString::fromUtf8(answer);
    };
    row("above", volume, 400, "x 100} for x 400: it is above 'max' (100)");
    row("below", volume, -5, "x 0} for x -5: it is below 'min' (0)");
    row("between two steps", volume, 41, "x 40} for x 41: it does not lie on a 'step' (5)");
    row("fraction for an int", volume, 39.6,
        "x 40} for d 39.600000000000001: it is not of the kind 'int'");
    row("above all integers", volume, std::numeric_limits<qulonglong>::max(),
        "x 100} for d 1.8446744073709552e+19: it is not of the kind 'int', it is above 'max' "
        "(100)");
    row("double", gain, 0.3,
        "d 0.25} for d 0.29999999999999999: it does not lie on a 'step' "
        "(0.25)");
}

void SettingsContract::valueIsAdjusted()
{
    QFETCH(const QString, path);
    QFETCH(const QVariant, value);
    QFETCH(const QString, answer);
    const QString expected = QStringLiteral("{timestamp: *, value: ") + answer;

    QCOMPARE(answerOf(settings().set(path, value)), expected);
    QCOMPARE(answerOf(settings().setRoles(path, { { QStringLiteral("value"), value } })), expected);
    QCOMPARE(answerOf(settings().apply(path, QStringLiteral("set"), value)), expected);
}

void SettingsContract::valueIsRejected_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("error");
    const auto row = [](const char* name, const QString& path, const QVariant& value,
                        const QString& error) {
        QTest::newRow(name) << path << value << error;
    };
    const QString rejected = QStringLiteral("Rejected: The value for '%1' was rejected: %2");
    const QString notInt = rejected.arg(volume, QStringLiteral("it is not of the kind 'int'"));
    row("text for an int", volume, QStringLiteral("40"), notInt);
    row("text for a bool", loudness, QStringLiteral("true"),
        rejected.arg(loudness, QStringLiteral("it is not of the kind 'bool'")));
    row("bool for an int", volume, true, notInt);
    row("text that is not listed", mode, QStringLiteral("top"),
        rejected.arg(mode,
                     QStringLiteral(R"(it is not one of the 'values' (["low","mid","high"]))")));
    row("list too long", sources, list({ 1, 2, 3, 4 }),
        rejected.arg(sources, QStringLiteral("it is longer than 'maxLength' (3)")));
    row("another kind by name", volume, kinded("string", QStringLiteral("40")), notInt);

    const QString unsuitable = QStringLiteral("Rejected: The value for '/settings/token' is not "
                                              "one that a setting can have");
    const double infinity = std::numeric_limits<double>::infinity();
    row("none", token, QVariant(), unsuitable);
    row("bytes", token, QByteArrayLiteral("abc"), unsuitable);
    row("bytes in a list", token, list({ QByteArrayLiteral("abc") }), unsuitable);
    row("null in a list", token, list({ 1, QVariant() }), unsuitable);
    row("null in a map in a list", token,
        list({ QVariantMap { { QStringLiteral("a"), QVariant() } } }), unsuitable);
    row("date", token, QDate(2026, 1, 1), unsuitable);
    row("not a number", token, std::nan(""), unsuitable);
    row("infinity", token, infinity, unsuitable);
    row("negative infinity in a list", token, list({ -infinity }), unsuitable);
    row("infinity with its kind", token, kinded("double", infinity), unsuitable);
    row("zero character", token, QString(QChar(0)), unsuitable);
    row("half a character", token, QString(QChar(0xD800)), unsuitable);
    row("empty map", token, QVariantMap(), unsuitable);

    const QString refused = QStringLiteral("Refused: A value for '/settings/token' ");
    row("map of an unknown kind", token, kinded("colour", 1),
        refused + QStringLiteral("does not have one known kind"));
    row("map of two kinds", token,
        QVariantMap { { QStringLiteral("int"), 1 }, { QStringLiteral("bool"), true } },
        refused + QStringLiteral("does not have one known kind"));
    row("map of another kind than its content", token, kinded("int", QStringLiteral("x")),
        refused + QStringLiteral("is not of the kind it names"));
    const QString limits = QStringLiteral("Limits: A value for '/settings/token' ");
    row("nine lists", token, nested(9), limits + QStringLiteral("nests more than 8 deep"));
    row("large", token, QString(60000, QLatin1Char('x')),
        limits + QStringLiteral("takes more than 49152 bytes"));
}

void SettingsContract::valueIsRejected()
{
    QFETCH(const QString, path);
    QFETCH(const QVariant, value);
    QFETCH(const QString, error);
    EventLog log(settings().watchTree(QStringLiteral("/settings")));
    const QString before = answerOf(settings().get(path, {}));

    QCOMPARE(answerOf(settings().set(path, value)), error);
    QCOMPARE(answerOf(settings().setRoles(path,
                                          { { QStringLiteral("value"), value },
                                            { QStringLiteral("id"), QStringLiteral("X") } })),
             error);
    QCOMPARE(answerOf(settings().apply(path, QStringLiteral("set"), value)), error);
    QCOMPARE(answerOf(settings().setMany({ { path, value } })), error);

    QCOMPARE(answerOf(settings().get(path, {})), before);
    QCOMPARE(log.texts, QStringList());
    const Reply<Status> status = settings().status();
    QVERIFY(status.wait());
    QCOMPARE(status.value().pendingWrites, 0);
}

void SettingsContract::changeIsRefused_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("error");
    const auto row = [](const char* name, const char* path, const char* error) {
        QTest::newRow(name) << QString::fromUtf8(path) << QString::fromUtf8(error);
    };
    row("read-only", "/settings/serial",
        "NotModifiable: Setting '/settings/serial' is not modifiable");
    row("directory", "/settings/audio", "Refused: Path '/settings/audio' is a directory");
    row("the mount", "/settings", "Refused: Path '/settings' is a directory");
    row("another mount", "/other/x", "InvalidPath: Invalid path '/other/x'");
    row("empty", "", "Refused: The path is empty");
    row("nothing at the top", "/settings/new",
        "InvalidPath: There is no setting '/settings/new', and none can be created at the top");
    row("nothing in a directory", "/settings/audio/new",
        "InvalidPath: There is no setting '/settings/audio/new', and none can be created: its "
        "template is not modifiable");
    row("no such directory", "/settings/none/new",
        "InvalidPath: There is no setting '/settings/none/new', and no directory for it");
    row("below a setting", "/settings/token/new",
        "Refused: Path '/settings/token/new' is below a setting");
    row("name that is not listed", "/settings/presets/a.b",
        "Refused: No listing would show the setting '/settings/presets/a.b'");
    row("hidden", "/settings/.meta",
        "Refused: Path '/settings/.meta' has a component that begins with '.'");
    row("action", "/settings/actions/flush",
        "Refused: Path '/settings/actions/flush' is an action");
}

void SettingsContract::changeIsRefused()
{
    QFETCH(const QString, path);
    QFETCH(const QString, error);
    EventLog log(settings().watchTree(QStringLiteral("/settings")));

    QCOMPARE(answerOf(settings().set(path, 1)), error);
    QCOMPARE(answerOf(settings().setRoles(path, {})), error);
    QCOMPARE(answerOf(settings().apply(path, QStringLiteral("toggle"), {})), error);
    QCOMPARE(answerOf(settings().setMany({ { volume, 40 }, { path, 1 } })), error);
    ChangeOptions options;
    options.isDryRun = true;
    QCOMPARE(answerOf(settings().set(path, 1, options)), error);

    QCOMPARE(log.texts, QStringList());
}

// ---------------------------------------------------------------------------------------------
// Roles and operations.
// ---------------------------------------------------------------------------------------------

void SettingsContract::setRoles_data()
{
    QTest::addColumn<QVariantMap>("roles");
    QTest::addColumn<QString>("answer");
    const auto row = [](const char* name, const QVariantMap& roles, const QString& answer) {
        QTest::newRow(name) << roles << answer;
    };
    const auto role = [](const char* name, const QVariant& value) {
        return QVariantMap { { QLatin1String(name), value } };
    };
    row("value", role("value", 40), QStringLiteral("{timestamp: *, value: x 40}"));
    row("id", role("id", QStringLiteral("A1")),
        QStringLiteral("{id: s \"A1\", timestamp: *, value: x 35}"));
    row("disabled", role("disabled", true),
        QStringLiteral("{disabled: b true, timestamp: *, value: x 35}"));
    row("timestamp", role("timestamp", 1700000000000LL),
        QStringLiteral("{timestamp: *, value: x 35}"));
    row("none", {}, QStringLiteral("{timestamp: *, value: x 35}"));
    row("timestamp as text", role("timestamp", QStringLiteral("now")),
        QStringLiteral("Rejected: The role 'timestamp' of '/settings/audio/volume' cannot have "
                       "this value"));
    row("id as number", role("id", 1),
        QStringLiteral("Rejected: The role 'id' of '/settings/audio/volume' cannot have this "
                       "value"));
    row("disabled as number", role("disabled", 1),
        QStringLiteral("Rejected: The role 'disabled' of '/settings/audio/volume' cannot have "
                       "this value"));
    row("long id", role("id", QString(60000, QLatin1Char('i'))),
        QStringLiteral("Limits: A value for '/settings/audio/volume' takes more than 49152 "
                       "bytes"));
    for (const char* name :
         { "activate", "path", "title", "type", "edit", "modifiable", "encrypted", "encryptedValue",
           "defaultValue", "permission", "setRoles", "valueOperation", "colour", "Value" }) {
        row(name, { { QLatin1String(name), 1 }, { QStringLiteral("value"), 45 } },
            QStringLiteral("Refused: The role '%1' of '/settings/audio/volume' cannot be set; "
                           "those that can are value, timestamp, id, disabled")
                .arg(QLatin1String(name)));
    }
}

void SettingsContract::setRoles()
{
    QFETCH(const QVariantMap, roles);
    QFETCH(const QString, answer);

    QCOMPARE(answerOf(settings().setRoles(volume, roles)), answer);
}

void SettingsContract::apply_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("before");
    QTest::addColumn<QString>("verb");
    QTest::addColumn<QVariant>("operand");
    QTest::addColumn<QString>("answer");
    const auto row = [](const char* name, const QString& path, const QVariant& before,
                        const char* verb, const QVariant& operand, const char* answer) {
        QTest::newRow(name) << path << before << QString(QLatin1String(verb)) << operand
                            << QString::fromUtf8(answer);
    };
    row("set", volume, 35, "set", 40, "{timestamp: *, value: x 40}");
    row("add", volume, 35, "add", QVariant::fromValue(ushort(5)), "{timestamp: *, value: x 40}");
    row("add beyond the range", volume, 35, "add", 500,
        "{timestamp: *, value: x 100} for x 535: it is above 'max' (100)");
    row("multiply", volume, 35, "multiply", 2, "{timestamp: *, value: x 70}");
    row("toggle", loudness, true, "toggle", {}, "{timestamp: *, value: b false}");
    row("toggle with an operand that it ignores", loudness, true, "toggle", 5,
        "{timestamp: *, value: b false}");
    row("append", sources, QStringList({ QStringLiteral("fm"), QStringLiteral("usb") }), "append",
        QStringLiteral("dab"), "{timestamp: *, value: [s \"fm\", s \"usb\", s \"dab\"]}");
    row("remove", sources, QStringList({ QStringLiteral("fm"), QStringLiteral("usb") }), "remove",
        QStringLiteral("fm"), "{timestamp: *, value: [s \"usb\"]}");
    row("next", mode, QStringLiteral("mid"), "next", {}, "{timestamp: *, value: s \"high\"}");
    row("previous", mode, QStringLiteral("mid"), "previous", {},
        "{timestamp: *, value: s \"low\"}");
    row("on another kind", volume, 35, "toggle", {},
        "Rejected: The value for '/settings/audio/volume' was rejected: 'toggle' is not applicable "
        "to a value of kind 'int'");
    row("without its operand", volume, 35, "add", {},
        "Rejected: The value for '/settings/audio/volume' is not one that a setting can have");
    const char* const verbs = "Refused: '%1' is not an operation for '/settings/audio/volume'; "
                              "operations are set, add, multiply, toggle, append, remove, next, "
                              "previous";
    row("unknown", volume, 35, "double", 1,
        qPrintable(QString::fromLatin1(verbs).arg(QStringLiteral("double"))));
    row("of two lines", volume, 35, "a\nb", 1,
        qPrintable(QString::fromLatin1(verbs).arg(QStringLiteral("a%0Ab"))));
    row("none", volume, 35, "", 1, qPrintable(QString::fromLatin1(verbs).arg(QString())));
}

void SettingsContract::apply()
{
    QFETCH(const QString, path);
    QFETCH(const QVariant, before);
    QFETCH(const QString, verb);
    QFETCH(const QVariant, operand);
    QFETCH(const QString, answer);
    QVERIFY(settings().set(path, before).wait());

    QCOMPARE(answerOf(settings().apply(path, verb, operand)), answer);
}

void SettingsContract::newSettingIsMadeFromItsTemplate()
{
    QCOMPARE(answerOf(settings().set(secondPreset, QStringLiteral("fm:99"))),
             storedAs(QStringLiteral("s \"fm:99\"")));

    QCOMPARE(answerOf(settings().get(secondPreset,
                                     { QStringLiteral("title"), QStringLiteral("value") })),
             QStringLiteral("{title: s \"Preset\", value: s \"fm:99\"}"));
}

// ---------------------------------------------------------------------------------------------
// Conditions and trials.
// ---------------------------------------------------------------------------------------------

void SettingsContract::dryRunChangesNothing_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("answer");
    QTest::newRow("good value") << volume << QVariant(40) << storedAs(QStringLiteral("x 40"));
    QTest::newRow("adjusted value") << volume << QVariant(400)
                                    << storedAs(QStringLiteral("x 100"))
            + QStringLiteral(" for x 400: it is above 'max' (100)");
    QTest::newRow("rejected value")
        << volume << QVariant(true)
        << QStringLiteral("Rejected: The value for '/settings/audio/volume' was rejected: it is "
                          "not of the kind 'int'");
    QTest::newRow("new setting") << secondPreset << QVariant(QStringLiteral("fm:99"))
                                 << storedAs(QStringLiteral("s \"fm:99\""));
    QTest::newRow("encrypted") << secret << QVariant(QStringLiteral("x"))
                               << QStringLiteral(
                                      "{encrypted: b true, timestamp: *, value: s \"x\"}");
}

void SettingsContract::dryRunChangesNothing()
{
    QFETCH(const QString, path);
    QFETCH(const QVariant, value);
    QFETCH(const QString, answer);
    EventLog log(settings().watchTree(QStringLiteral("/settings")));
    const QString before = answerOf(settings().get(path, {}));
    ChangeOptions options;
    options.isDryRun = true;

    QCOMPARE(answerOf(settings().set(path, value, options)), answer);
    QCOMPARE(answerOf(settings().setRoles(path, { { QStringLiteral("value"), value } }, options)),
             answer);
    QCOMPARE(answerOf(settings().apply(path, QStringLiteral("set"), value, options)), answer);

    QCOMPARE(answerOf(settings().get(path, {})), before);
    QCOMPARE(log.texts, QStringList());
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));
    QVERIFY(!tree().writtenEntries().join(QString()).contains(path.section(QLatin1Char('/'), -1)));
}

void SettingsContract::changeOnCondition_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("before");
    QTest::addColumn<QVariant>("ifValue");
    QTest::addColumn<bool>("isMade");
    QTest::newRow("value") << volume << QVariant(35) << QVariant(35) << true;
    QTest::newRow("value as a double") << volume << QVariant(35) << QVariant(35.0) << true;
    QTest::newRow("value with its kind") << volume << QVariant(35) << kinded("int", 35) << true;
    QTest::newRow("other value") << volume << QVariant(35) << QVariant(40) << false;
    QTest::newRow("text of the number")
        << volume << QVariant(35) << QVariant(QStringLiteral("35")) << false;
    QTest::newRow("not a value") << volume << QVariant(35) << QVariant(QDate(2026, 1, 1)) << false;
    QTest::newRow("list") << sources << QVariant(QStringList(QStringLiteral("fm")))
                          << QVariant(list({ QStringLiteral("fm") })) << true;
    QTest::newRow("other list") << sources << QVariant(QStringList(QStringLiteral("fm")))
                                << QVariant(QVariantList()) << false;
    QTest::newRow("text") << token << QVariant(QStringLiteral("5")) << QVariant(QStringLiteral("5"))
                          << true;
    QTest::newRow("number of the text")
        << token << QVariant(QStringLiteral("5")) << QVariant(5) << false;
    QTest::newRow("new setting") << secondPreset << QVariant()
                                 << QVariant(QStringLiteral("fm:87.5")) << false;
}

void SettingsContract::changeOnCondition()
{
    QFETCH(const QString, path);
    QFETCH(const QVariant, before);
    QFETCH(const QVariant, ifValue);
    QFETCH(const bool, isMade);
    const QString conflict =
        QStringLiteral("Conflict: Setting '%1' does not have the expected value").arg(path);
    if (before.isValid())
        QVERIFY(settings().set(path, before).wait());
    ChangeOptions options;
    options.ifValue = ifValue;

    const Reply<Change> byValue = settings().set(path, before, options);
    QVERIFY(byValue.wait() == isMade);
    if (!isMade)
        QCOMPARE(shown(byValue.error()), conflict);

    options = ChangeOptions();
    const Reply<QVariantMap> now = settings().get(path, { QStringLiteral("timestamp") });
    options.ifTimestamp =
        now.wait() ? now.value().value(QStringLiteral("timestamp")).toLongLong() : 0;
    const QVariantMap later { { QStringLiteral("timestamp"), *options.ifTimestamp + 1 } };
    QVERIFY(settings().setRoles(path, later, options).wait());
    QCOMPARE(
        answerOf(settings().setRoles(path, later, options)),
        QStringLiteral("Conflict: Setting '%1' does not have the expected timestamp").arg(path));
}

// ---------------------------------------------------------------------------------------------
// Many changes.
// ---------------------------------------------------------------------------------------------

void SettingsContract::manyChangesAreMadeTogether()
{
    EventLog log(settings().watchTree(QStringLiteral("/settings")));
    QStringList order;
    QObject context;
    connect(log.watch(), &Watch::changed, &context,
            [&order](const Event& event) { order.append(shown(event)); });
    const Reply<QVector<Change>> changes =
        settings().setMany({ { volume, 400 },
                             { secondPreset, QStringLiteral("fm:99") },
                             { gain, kinded("double", 1) } });
    changes.then(&context, [&order](const Reply<QVector<Change>>&) {
        order.append(QStringLiteral("answer"));
    });
    const Reply<QVariantMap> after = settings().get(volume, valueRole);
    after.then(&context, [&order](const Reply<QVariantMap>&) {
        order.append(QStringLiteral("next answer"));
    });

    QVERIFY(after.wait());

    QCOMPARE(answerOf(changes),
             QStringLiteral("{timestamp: *, value: x 100} for x 400: it is above 'max' (100); "
                            "{timestamp: *, value: s \"fm:99\"}; {timestamp: *, value: d 1}"));
    QCOMPARE(order,
             QStringList({ QStringLiteral("value /settings/audio/volume x 100"),
                           QStringLiteral("data /settings/audio/volume"),
                           QStringLiteral("rows /settings/audio 4 1"),
                           QStringLiteral("value /settings/presets/two s \"fm:99\""),
                           QStringLiteral("data /settings/presets/two"),
                           QStringLiteral("rows /settings/presets +1 1"),
                           QStringLiteral("value /settings/audio/gain d 1"),
                           QStringLiteral("data /settings/audio/gain"),
                           QStringLiteral("rows /settings/audio 0 2"), QStringLiteral("answer"),
                           QStringLiteral("next answer") }));
}

void SettingsContract::manyChangesAreAllOrNone_data()
{
    QTest::addColumn<QVector<Assignment>>("assignments");
    QTest::addColumn<QString>("error");
    const QVector<Assignment> good { { volume, 40 }, { secondPreset, QStringLiteral("fm:99") } };
    const QVector<Assignment> bad { { mode, QStringLiteral("top") }, { serial, 1 } };
    const QString rejected =
        QStringLiteral("Rejected: The value for '/settings/audio/mode' was rejected: it is not one "
                       "of the 'values' ([\"low\",\"mid\",\"high\"])");
    QTest::newRow("first rejected") << bad + good << rejected;
    QTest::newRow("last rejected") << good + bad.mid(0, 1) << rejected;
    QTest::newRow("read-only") << good + bad.mid(1, 1)
                               << QStringLiteral("NotModifiable: Setting '/settings/serial' is not "
                                                 "modifiable");
    QTest::newRow("path twice") << good + good.mid(0, 1)
                                << QStringLiteral("Refused: Path '/settings/audio/volume' is "
                                                  "changed twice by a request");
    QTest::newRow("too many") << QVector<Assignment>(Settings::maximumChanges + 1, { volume, 40 })
                              << QStringLiteral("Limits: A request makes more than 10000 changes");
    QVector<Assignment> large;
    for (int i = 0; i < 26; ++i) {
        large.append(
            { QStringLiteral("/settings/presets/n%1").arg(i), QString(42000, QLatin1Char('x')) });
    }
    QTest::newRow("too large") << large
                               << QStringLiteral("Limits: The changes of a request take more than "
                                                 "1048576 bytes");
}

void SettingsContract::manyChangesAreAllOrNone()
{
    QFETCH(const QVector<Assignment>, assignments);
    QFETCH(const QString, error);
    EventLog log(settings().watchTree(QStringLiteral("/settings")));

    QCOMPARE(answerOf(settings().setMany(assignments)), error);

    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 35}"));
    QCOMPARE(answerOf(settings().get(secondPreset, valueRole)),
             QStringLiteral("InvalidPath: Invalid path '/settings/presets/two'"));
    QCOMPARE(log.texts, QStringList());
    QCOMPARE(answerOf(settings().setMany({})), QString());
}

void SettingsContract::manyChangesOnATrial()
{
    EventLog log(settings().watchTree(QStringLiteral("/settings")));
    ChangeOptions options;
    options.isDryRun = true;

    QCOMPARE(answerOf(settings().setMany({ { volume, 400 }, { secondPreset, 5 } }, options)),
             QStringLiteral("{timestamp: *, value: x 100} for x 400: it is above 'max' (100); "
                            "{timestamp: *, value: s \"5\"}"));

    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 35}"));
    QCOMPARE(log.texts, QStringList());
}

void SettingsContract::manyChangesTakeRoles()
{
    const QString timestamp = QStringLiteral("timestamp");
    const Reply<QVector<Change>> changes =
        settings().setMany({ { volume, 40, { { timestamp, qlonglong(7) } } },
                             { gain, {}, { { timestamp, qlonglong(8) } } } });
    QCOMPARE(answerOf(changes),
             storedAs(QStringLiteral("x 40")) + QStringLiteral("; ")
                 + storedAs(QStringLiteral("d 0.5")));
    for (const auto& [path, time] : { std::pair(volume, 7), std::pair(gain, 8) }) {
        const Reply<QVariantMap> roles = settings().get(path, { timestamp });
        QVERIFY(roles.wait());
        QCOMPARE(roles.value(), QVariantMap({ { timestamp, qlonglong(time) } }));
    }

    QCOMPARE(answerOf(settings().setMany(
                 { { volume, 50 }, { gain, 0.25, { { QStringLiteral("title"), true } } } })),
             QStringLiteral("Refused: The role 'title' of '/settings/audio/gain' cannot be set; "
                            "those that can are value, timestamp, id, disabled"));
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 40}"));
}

void SettingsContract::manyChangesHaveNoConditions()
{
    ChangeOptions options;
    options.ifValue = 5;
    options.ifTimestamp = 5;

    QCOMPARE(answerOf(settings().setMany({ { volume, 40 } }, options)),
             storedAs(QStringLiteral("x 40")));
}

void SettingsContract::newSettingsOfOneRequestCount()
{
    // One less than a directory may have.
    for (int i = 1; i < 1000; ++i)
        tree().writeWritten(QStringLiteral("/presets/n%1").arg(i), R"({"value":{"string":"fm"}})");
    const QString full = QStringLiteral("Limits: No setting '%1' can be created: its directory has "
                                        "1000 settings made at run time");
    const QString three = QStringLiteral("/settings/presets/three");
    const QString text = QStringLiteral("fm");
    ChangeOptions options;
    options.isDryRun = true;

    // Those of a request that was rejected or only tried do not count.
    QCOMPARE(answerOf(settings().setMany({ { secondPreset, text }, { three, text } })),
             full.arg(three));
    QCOMPARE(answerOf(settings().set(three, text, options)), storedAs(QStringLiteral("s \"fm\"")));
    QCOMPARE(answerOf(settings().setMany({ { secondPreset, text } })),
             storedAs(QStringLiteral("s \"fm\"")));
    QCOMPARE(answerOf(settings().set(three, text)), full.arg(three));
}

} // namespace tulo
