#include "api/core/model/cmpath.h"
#include "api/core/trstring.h"
#include "api/core/tulojson.h"
#include "api/core/tuloroles.h"

#include <QRandomGenerator>
#include <QTest>

#include <cmath>
#include <cstring>
#include <limits>

namespace {

struct Parsed
{
    QVariant value;
    QString error;
    unsigned int offset = 0;
};

Parsed parse(const QByteArray& text)
{
    Parsed parsed;
    TuloError error;
    parsed.value = TuloJson::parse(text, error, &parsed.offset);
    parsed.error = error.message();
    return parsed;
}

QByteArray nested(int depth)
{
    return QByteArray(depth, '[') + QByteArray(depth, ']');
}

QVariant nestedList(int depth)
{
    QVariant value = QVariantList();
    for (int i = 1; i < depth; ++i)
        value = QVariantList { value };
    return value;
}

} // namespace

/// JSON in both directions: what is accepted, what it becomes, and every way to fail.
class tst_framework_json : public QObject
{
    Q_OBJECT

private slots:
    void readsDocuments_data();
    void readsDocuments();
    void lastOfDuplicateKeysWins();
    void emptyTextIsNotNull();
    void faultsAreToldWithTheirPlace_data();
    void faultsAreToldWithTheirPlace();
    void successLeavesTheErrorAlone();
    void offsetMayBeNull();
    void depthIsLimitedReading();
    void deepTextCostsNoCallStack();
    void malformedUtf8IsAFault_data();
    void malformedUtf8IsAFault();
    void writesDocuments_data();
    void writesDocuments();
    void whatCannotBeWrittenGivesNull_data();
    void whatCannotBeWrittenGivesNull();
    void depthIsLimitedWriting();
    void integersAreExactBothWays_data();
    void integersAreExactBothWays();
    void doublesRoundTripAndStayDoubles_data();
    void doublesRoundTripAndStayDoubles();
    void randomDoublesRoundTrip();
    void textsRoundTrip_data();
    void textsRoundTrip();
    void equalRecordsGiveEqualBytes();
};

void tst_framework_json::readsDocuments_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QVariant>("value");
    const auto row = [](const char* text, const QVariant& value) {
        QTest::newRow(text) << QByteArray(text) << value;
    };
    row("null", QVariant());
    row("true", true);
    row("false", false);
    row("0", qlonglong(0));
    row("-5", qlonglong(-5));
    row("9223372036854775807", std::numeric_limits<qlonglong>::max());
    row("-9223372036854775808", std::numeric_limits<qlonglong>::min());
    row("9223372036854775808", qulonglong(9223372036854775808U));
    row("18446744073709551615", std::numeric_limits<qulonglong>::max());
    row("18446744073709551616", 18446744073709551616.0);
    row("-9223372036854775809", -9223372036854775808.0);
    row("0.5", 0.5);
    row("5.0", 5.0);
    row("1e2", 100.0);
    row("-1E-2", -0.01);
    row("0e308", 0.0);
    row("-0", qlonglong(0));
    row("1e-400", 0.0);
    row("5e-324", 5e-324);
    row("1.7976931348623157e308", 1.7976931348623157e308);
    row("\"\"", QStringLiteral(""));
    row("\"a\\n\\\"\\\\\\/\\u00e4\\ud83d\\ude00\"", QStringLiteral(u"a\n\"\\/\u00e4\U0001F600"));
    row("\"\xC3\xA4\"", QStringLiteral(u"\u00e4"));
    row("\"a\\u0000b\"", QString(QStringLiteral("a") + QChar(0) + QStringLiteral("b")));
    row("[]", QVariantList());
    row("{}", QVariantHash());
    row(" [ 1 , \"x\" , null ] \r\n\t",
        QVariantList { qlonglong(1), QStringLiteral("x"), QVariant() });
    row("{\"value\": {\"int\": 5}, \"other\": []}",
        QVariantHash {
            { QStringLiteral("value"), QVariantHash { { QStringLiteral("int"), qlonglong(5) } } },
            { QStringLiteral("other"), QVariantList() } });
    row("{\"\": 1}", QVariantHash { { QString(), qlonglong(1) } });
}

void tst_framework_json::readsDocuments()
{
    QFETCH(QByteArray, text);
    QFETCH(QVariant, value);

    const Parsed parsed = parse(text);

    QCOMPARE(parsed.error, QString());
    // The type first: variants compare loosely.
    QCOMPARE(parsed.value.userType(), value.userType());
    QCOMPARE(parsed.value, value);
    QCOMPARE(int(parsed.offset), text.size());
}

void tst_framework_json::lastOfDuplicateKeysWins()
{
    const QVariantHash hash = parse(R"({"a": 1, "b": 2, "a": {"a": 3}, "a": "x"})").value.toHash();

    QCOMPARE(hash.size(), 2);
    QCOMPARE(hash.value(QStringLiteral("a")), QVariant(QStringLiteral("x")));
}

void tst_framework_json::emptyTextIsNotNull()
{
    const QVariant value = parse("\"\"").value;

    QVERIFY(!value.isNull());
    QVERIFY(!value.toString().isNull());
}

void tst_framework_json::faultsAreToldWithTheirPlace_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("error");
    const auto row = [](const char* name, const QByteArray& text, const char* error) {
        QTest::newRow(name) << text << QString::fromLatin1(error);
    };
    row("empty", "", "line 1, column 1: The document is empty.");
    row("blank", " \n ", "line 2, column 2: The document is empty.");
    row("byte order mark", "\xEF\xBB\xBF{}", "line 1, column 1: Invalid value.");
    row("trailing text", "{} x",
        "line 1, column 4: The document root must not be followed by other values.");
    row("two documents", "1 2",
        "line 1, column 3: The document root must not be followed by other values.");
    row("trailing zero byte", QByteArray("{}\0", 3),
        "line 1, column 3: The document root must not be followed by other values.");
    row("zero byte and text", QByteArray("{}\0{}", 5),
        "line 1, column 3: The document root must not be followed by other values.");
    row("zero byte first", QByteArray("\0{}", 3), "line 1, column 1: The document is empty.");
    row("trailing comma in a list", "[1,]", "line 1, column 4: Invalid value.");
    row("trailing comma in an object", "{\"a\":1,}",
        "line 1, column 8: Missing a name for object member.");
    row("missing comma", "{\"a\": 1\n \"b\": 2}",
        "line 2, column 2: Missing a comma or '}' after an object member.");
    row("missing colon", "{\"a\" 1}",
        "line 1, column 6: Missing a colon after a name of object member.");
    row("unquoted name", "{a: 1}", "line 1, column 2: Missing a name for object member.");
    row("open object", "{\"a\": 1",
        "line 1, column 8: Missing a comma or '}' after an object member.");
    row("open list", "[1", "line 1, column 3: Missing a comma or ']' after an array element.");
    row("bad word", "nul", "line 1, column 4: Invalid value.");
    row("not a number", "NaN", "line 1, column 1: Invalid value.");
    row("infinity", "-Infinity", "line 1, column 2: Invalid value.");
    row("leading zero", "01",
        "line 1, column 2: The document root must not be followed by other values.");
    row("plus", "+1", "line 1, column 1: Invalid value.");
    row("no fraction", "1.", "line 1, column 3: Miss fraction part in number.");
    row("no exponent", "1e", "line 1, column 3: Miss exponent in number.");
    row("too big", "1e400", "line 1, column 1: Number too big to be stored in double.");
    row("just too big", "1.8e308", "line 1, column 1: Number too big to be stored in double.");
    row("single quotes", "'a'", "line 1, column 1: Invalid value.");
    row("comment", "// a\n1", "line 1, column 1: Invalid value.");
    row("bad hex digits", "\"\\u00zz\"",
        "line 1, column 2: Incorrect hex digit after \\u escape in string.");
    row("lone high surrogate", "\"\\ud800\"",
        "line 1, column 2: The surrogate pair in string is invalid.");
    row("lone low surrogate", "\"\\udc00\"",
        "line 1, column 9: The surrogate pair in string is invalid.");
    row("lone low surrogate in a key", "{\"a\\udfff\": 1}",
        "line 1, column 11: The surrogate pair in string is invalid.");
    row("zero byte in a string", QByteArray("\"a\0b\"", 5),
        "line 1, column 3: Missing a closing quotation mark in string.");
    row("columns are characters", "{\"\xC3\xA4\xE2\x82\xAC\": x}",
        "line 1, column 8: Invalid value.");
    row("lines", "{\n\n  \"a\": x}", "line 3, column 8: Invalid value.");
}

void tst_framework_json::faultsAreToldWithTheirPlace()
{
    QFETCH(QByteArray, text);
    QFETCH(QString, error);

    const Parsed parsed = parse(text);

    QVERIFY(!parsed.value.isValid());
    QCOMPARE(parsed.error, error);
    QVERIFY(int(parsed.offset) <= text.size());
}

void tst_framework_json::successLeavesTheErrorAlone()
{
    TuloError error { QVariantHash() };
    TuloJson::parse("{}", error, nullptr);

    QVERIFY(error.isEmpty());
}

void tst_framework_json::offsetMayBeNull()
{
    TuloError error;
    const QVariant value = TuloJson::parse("{", error, nullptr);

    QVERIFY(!value.isValid());
    QVERIFY(!error.isEmpty());
}

void tst_framework_json::depthIsLimitedReading()
{
    QCOMPARE(parse(nested(64)).error, QString());
    QVERIFY(parse(nested(65)).error.endsWith(QStringLiteral(": Nested too deeply.")));
    const QByteArray objects = QByteArray("{\"a\":").repeated(64) + '1' + QByteArray(64, '}');
    QCOMPARE(parse(objects).error, QString());
    QVERIFY(!parse("[" + objects + "]").error.isEmpty());
}

void tst_framework_json::deepTextCostsNoCallStack()
{
    QVERIFY(!parse(nested(2000000)).error.isEmpty());
    QVERIFY(!parse(QByteArray(2000000, '[')).error.isEmpty());
}

void tst_framework_json::malformedUtf8IsAFault_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("continuation alone") << QByteArray("\x80");
    QTest::newRow("cut short") << QByteArray("\xE2\x82");
    QTest::newRow("overlong two") << QByteArray("\xC0\x80");
    QTest::newRow("overlong three") << QByteArray("\xE0\x80\x80");
    QTest::newRow("overlong four") << QByteArray("\xF0\x80\x80\x80");
    QTest::newRow("high surrogate") << QByteArray("\xED\xA0\x80");
    QTest::newRow("low surrogate") << QByteArray("\xED\xB0\x80");
    QTest::newRow("beyond Unicode") << QByteArray("\xF4\x90\x80\x80");
    QTest::newRow("no such byte") << QByteArray("\xFF");
    QTest::newRow("Latin-1") << QByteArray("\xE4");
}

void tst_framework_json::malformedUtf8IsAFault()
{
    QFETCH(QByteArray, bytes);

    const Parsed value = parse("\"a" + bytes + "b\"");
    const Parsed key = parse("{\"a" + bytes + "b\": 1}");

    QVERIFY(!value.value.isValid());
    QVERIFY2(value.error.endsWith(QStringLiteral(": Invalid encoding in string.")),
             qPrintable(value.error));
    QVERIFY(!key.value.isValid());
    QVERIFY(!key.error.isEmpty());
}

void tst_framework_json::writesDocuments_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QByteArray>("text");
    const auto row = [](const char* text, const QVariant& value) {
        QTest::newRow(text) << value << QByteArray(text);
    };
    row("null", QVariant());
    row("true", true);
    row("-5", -5);
    row("7", 7U);
    row("18446744073709551615", std::numeric_limits<qulonglong>::max());
    row("-9223372036854775808", std::numeric_limits<qlonglong>::min());
    row("3", QVariant::fromValue(short(3)));
    row("5.0", 5.0);
    row("0.5", QVariant::fromValue(0.5F));
    row("\"a\\\"\\\\\\n\\u0001/\"", QStringLiteral("a\"\\\n\x01/"));
    row("\"\xC3\xA4\xF0\x9F\x98\x80\"", QStringLiteral(u"\u00e4\U0001F600"));
    row("\"\"", QString());
    row("[]", QVariantList());
    row("{}", QVariantHash());
    row("[1,[2],null]", QVariantList { 1, QVariantList { 2 }, QVariant() });
    row("[\"b\",\"a\"]", QStringList { QStringLiteral("b"), QStringLiteral("a") });
    row("{\"a\":1,\"b\":{\"c\":[]}}",
        QVariantHash {
            { QStringLiteral("b"), QVariantHash { { QStringLiteral("c"), QVariantList() } } },
            { QStringLiteral("a"), 1 } });
    row("{\"k\":1}", QVariantMap { { QStringLiteral("k"), 1 } });
    row("\"Volume\"", TrString(QStringLiteral("Volume")));
    row("\"/settings/a b\"", CMPath(QStringLiteral("/settings/a b")).toVariant());
}

void tst_framework_json::writesDocuments()
{
    QFETCH(QVariant, value);
    QFETCH(QByteArray, text);

    QCOMPARE(TuloJson::serialize(value), text);
}

void tst_framework_json::whatCannotBeWrittenGivesNull_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::newRow("NaN") << QVariant(std::nan(""));
    QTest::newRow("infinity") << QVariant(HUGE_VAL);
    QTest::newRow("minus infinity") << QVariant(-HUGE_VAL);
    QTest::newRow("float infinity") << QVariant::fromValue(float(HUGE_VAL));
    QTest::newRow("bytes") << QVariant(QByteArray("x"));
    QTest::newRow("unknown record") << QVariant::fromValue(TuloRoles());
    QTest::newRow("pointer") << QVariant::fromValue<QObject*>(nullptr);
}

void tst_framework_json::whatCannotBeWrittenGivesNull()
{
    QFETCH(QVariant, value);
    const QString key = QStringLiteral("k");

    QVERIFY(TuloJson::serialize(value).isNull());
    QVERIFY(TuloJson::serialize(QVariantList { 1, value }).isNull());
    QVERIFY(TuloJson::serialize(
                QVariantHash { { key, QVariantList { QVariantHash { { key, value } } } } })
                .isNull());
    QVERIFY(TuloJson::serialize(QVariantMap { { key, value } }).isNull());
}

void tst_framework_json::depthIsLimitedWriting()
{
    QCOMPARE(TuloJson::serialize(nestedList(64)), nested(64));
    QVERIFY(TuloJson::serialize(nestedList(65)).isNull());
}

void tst_framework_json::integersAreExactBothWays_data()
{
    QTest::addColumn<QByteArray>("text");
    for (const char* text :
         { "0", "-1", "9007199254740993", "-9007199254740993", "9223372036854775807",
           "-9223372036854775808", "9223372036854775808", "18446744073709551615" })
        QTest::newRow(text) << QByteArray(text);
}

void tst_framework_json::integersAreExactBothWays()
{
    QFETCH(QByteArray, text);

    QCOMPARE(TuloJson::serialize(parse(text).value), text);
}

void tst_framework_json::doublesRoundTripAndStayDoubles_data()
{
    QTest::addColumn<double>("number");
    using Limits = std::numeric_limits<double>;
    for (const double number : { 0.0,
                                 -0.0,
                                 1.0,
                                 -5.0,
                                 0.1,
                                 0.1 + 0.2,
                                 1.0 / 3,
                                 1e15,
                                 1e16,
                                 1e20,
                                 1e21,
                                 1e22,
                                 1e300,
                                 123456789012345680.0,
                                 9007199254740993.0,
                                 Limits::max(),
                                 Limits::lowest(),
                                 Limits::min(),
                                 Limits::denorm_min(),

                                 2.2250738585072011e-308,
                                 Limits::epsilon() })
        QTest::addRow("%.17g", number) << number;
}

void tst_framework_json::doublesRoundTripAndStayDoubles()
{
    QFETCH(double, number);

    const QByteArray text = TuloJson::serialize(number);
    const QVariant value = parse(text).value;

    QCOMPARE(value.userType(), int(QMetaType::Double));
    const double read = value.toDouble();
    // Bit for bit: QCOMPARE of doubles is fuzzy.
    QVERIFY2(std::memcmp(&read, &number, sizeof(read)) == 0, text);
}

void tst_framework_json::randomDoublesRoundTrip()
{
    QRandomGenerator random(20240229);
    for (int i = 0; i < 20000; ++i) {
        const quint64 bits = random.generate64();
        double number = 0;
        std::memcpy(&number, &bits, sizeof(number));
        if (!std::isfinite(number))
            continue;
        const QByteArray text = TuloJson::serialize(number);
        const double read = parse(text).value.toDouble();
        QVERIFY2(std::memcmp(&read, &number, sizeof(read)) == 0, text);
    }
}

void tst_framework_json::textsRoundTrip_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("controls") << QStringLiteral("\0\x01\x1f\x7f\b\f\r\t");
    QTest::newRow("zero") << QString(QChar(0));
    QTest::newRow("quotes") << QStringLiteral("\"\\/'");
    QTest::newRow("planes") << QStringLiteral(u"\u00e4\u20ac\uffff\U0001F600\U0010FFFF");
    QTest::newRow("byte order mark first") << QStringLiteral(u"\ufeffa");
    QTest::newRow("two byte order marks") << QStringLiteral(u"\ufeff\ufeff");
    QTest::newRow("long") << QString(100000, QLatin1Char('x'));
}

void tst_framework_json::textsRoundTrip()
{
    QFETCH(QString, text);
    const QVariantHash hash { { text, text } };

    QCOMPARE(parse(TuloJson::serialize(hash)).value, QVariant(hash));
}

void tst_framework_json::equalRecordsGiveEqualBytes()
{
    QVariantHash forwards;
    QVariantHash backwards;
    for (int i = 0; i < 100; ++i) {
        forwards.insert(QString::number(i), i);
        backwards.insert(QString::number(99 - i), 99 - i);
    }

    QCOMPARE(TuloJson::serialize(forwards), TuloJson::serialize(backwards));
}

QTEST_GUILESS_MAIN(tst_framework_json)
#include "tst_framework_json.moc"
