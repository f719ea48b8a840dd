#include "trees/plainroles.h"

#include "api/core/model/cmpath.h"
#include "api/core/trstring.h"
#include "api/core/tulojson.h"

#include <QDate>
#include <QTest>

#include <cmath>
#include <limits>

using namespace tulo;

namespace {

constexpr auto largest = std::numeric_limits<qulonglong>::max();

QVariant parsed(const QByteArray& json)
{
    TuloError error;
    const QVariant content = TuloJson::parse(json, error, nullptr);
    if (!error.isEmpty())
        qFatal("%s: %s", json.constData(), qPrintable(error.message()));
    return content;
}

TuloRoles rolesOf(const QByteArray& json)
{
    return TuloRoles(TuloHash(parsed(json).toHash()));
}

QVariantMap map(const char* key, const QVariant& value)
{
    return { { QLatin1String(key), value } };
}

} // namespace

class tst_plainroles : public QObject
{
    Q_OBJECT

private slots:
    void roleIsPlain_data();
    void roleIsPlain();
    void roleThatNobodyCanCarryIsNone_data();
    void roleThatNobodyCanCarryIsNone();
    void rolesKeepThoseThatThereAre();
    void contentIsThatOfJson_data();
    void contentIsThatOfJson();
    void contentOfAnythingElseIsNone_data();
    void contentOfAnythingElseIsNone();
    void valueIsOfTheSettingsKind_data();
    void valueIsOfTheSettingsKind();
};

// ---------------------------------------------------------------------------------------------
// Out.
// ---------------------------------------------------------------------------------------------

void tst_plainroles::roleIsPlain_data()
{
    QTest::addColumn<QString>("role");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QVariant>("plain");
    const auto row = [](const char* name, const QString& role, const QVariant& value,
                        const QVariant& plain) {
        QTest::newRow(name) << role << value << plain;
    };
    const QString value = TuloRoles::Value();
    row("bool", value, parsed(R"({"bool":true})"), true);
    row("int", value, parsed(R"({"int":5})"), 5LL);
    row("largest int", value, parsed(R"({"int":18446744073709551615})"), largest);
    row("double", value, parsed(R"({"double":0.5})"), 0.5);
    row("double that was written as an int", value, parsed(R"({"double":5})"), 5.0);
    row("default value", TuloRoles::DefaultValue(), parsed(R"({"double":5})"), 5.0);
    row("text", value, parsed(R"({"string":"x"})"), QStringLiteral("x"));
    row("list", value, parsed(R"({"list":[1,[0.5,{"a":true}]]})"),
        QVariantList { 1LL, QVariant(QVariantList { 0.5, map("a", true) }) });
    row("null in a map in a list", value, parsed(R"({"list":[{"a":null,"b":1}]})"),
        QVariantList { map("b", 1LL) });
    row("constraints", TuloRoles::Edit(), parsed(R"({"min":null,"max":2})"), map("max", 2LL));
    row("translatable text", TuloRoles::Title(), TrString(QStringLiteral("Volume")),
        QStringLiteral("Volume"));
    row("path", TuloRoles::Path(), CMPath(QStringLiteral("/settings/a")).toVariant(),
        QStringLiteral("/settings/a"));
    row("number", TuloRoles::Type(), 101, 101LL);
}

void tst_plainroles::roleIsPlain()
{
    QFETCH(const QString, role);
    QFETCH(const QVariant, value);
    QFETCH(const QVariant, plain);

    const QVariant result = plainRole(role, value);

    QCOMPARE(result, plain);
    // Variants compare loosely.
    QCOMPARE(result.userType(), plain.userType());
    if (role == TuloRoles::Value())
        QCOMPARE(plainValue(TuloValue(TuloHash(value.toHash()))), plain);
}

void tst_plainroles::roleThatNobodyCanCarryIsNone_data()
{
    QTest::addColumn<QString>("role");
    QTest::addColumn<QVariant>("value");
    const QString value = TuloRoles::Value();
    QTest::newRow("absent") << value << QVariant();
    QTest::newRow("no kind") << value << parsed("{}");
    QTest::newRow("unknown kind") << value << parsed(R"({"colour":1})");
    QTest::newRow("null") << value << parsed(R"({"int":null})");
    QTest::newRow("null in a list") << value << parsed(R"({"list":[1,null]})");
    QTest::newRow("zero character") << value << parsed(R"({"string":"a\u0000b"})");
    QTest::newRow("zero character in a title")
        << TuloRoles::Title() << QVariant(TrString(QString(QChar(0))));
    QTest::newRow("zero character in a list") << value << parsed(R"({"list":["\u0000"]})");
}

void tst_plainroles::roleThatNobodyCanCarryIsNone()
{
    QFETCH(const QString, role);
    QFETCH(const QVariant, value);

    QVERIFY(!plainRole(role, value).isValid());
}

void tst_plainroles::rolesKeepThoseThatThereAre()
{
    QCOMPARE(
        plainRoles(parsed(R"({"value":{"int":5},"defaultValue":{"int":null},"title":null,)"
                          R"("disabled":false})")
                       .toHash()),
        QVariantMap({ { QStringLiteral("value"), 5LL }, { QStringLiteral("disabled"), false } }));
}

// ---------------------------------------------------------------------------------------------
// In.
// ---------------------------------------------------------------------------------------------

void tst_plainroles::contentIsThatOfJson_data()
{
    QTest::addColumn<QVariant>("given");
    QTest::addColumn<QVariant>("content");
    const auto row = [](const char* name, const QVariant& given, const QVariant& content) {
        QTest::newRow(name) << given << content;
    };
    row("bool", true, true);
    row("short", QVariant::fromValue(short(5)), 5LL);
    row("uint", 5U, 5LL);
    row("long", QVariant::fromValue(5L), 5LL);
    row("qulonglong", 5ULL, 5LL);
    row("above the signed ones", largest, largest);
    row("float", 0.5F, 0.5);
    row("double", 5.0, 5.0);
    row("text", QStringLiteral("x"), QStringLiteral("x"));
    row("texts", QStringList(QStringLiteral("x")), QVariantList { QStringLiteral("x") });
    row("list", QVariantList { 1, QVariant(QVariantList { 2U }) },
        QVariantList { 1LL, QVariant(QVariantList { 2LL }) });
    row("map", map("int", 5), QVariantHash { { QStringLiteral("int"), 5LL } });
    row("map in a list", QVariantList { map("a", 5) },
        QVariantList { QVariantHash { { QStringLiteral("a"), 5LL } } });
    row("hash", QVariantHash { { QStringLiteral("int"), 5 } },
        QVariantHash { { QStringLiteral("int"), 5LL } });
}

void tst_plainroles::contentIsThatOfJson()
{
    QFETCH(const QVariant, given);
    QFETCH(const QVariant, content);

    const QVariant result = contentOf(given);

    QCOMPARE(result, content);
    QCOMPARE(result.userType(), content.userType());
}

void tst_plainroles::contentOfAnythingElseIsNone_data()
{
    QTest::addColumn<QVariant>("given");
    const auto row = [](const char* name, const QVariant& given) {
        QTest::newRow(name) << given;
        QTest::newRow(qPrintable(QString::fromLatin1(name) + QStringLiteral(", in a list")))
            << QVariant(QVariantList { 1, given });
        QTest::newRow(qPrintable(QString::fromLatin1(name) + QStringLiteral(", in a map")))
            << QVariant(map("int", given));
    };
    row("nothing", QVariant());
    row("null", QVariant::fromValue(nullptr));
    row("bytes", QByteArrayLiteral("x"));
    row("date", QDate(2026, 1, 1));
    row("not a number", std::nan(""));
    row("infinity", std::numeric_limits<double>::infinity());
    row("zero character", QString(QChar(0)));
    row("half a character", QString(QChar(0xD800)));
    QTest::newRow("zero character in a key") << QVariant(QVariantMap { { QString(QChar(0)), 1 } });
}

void tst_plainroles::contentOfAnythingElseIsNone()
{
    QFETCH(const QVariant, given);

    QVERIFY(!contentOf(given).isValid());
}

void tst_plainroles::valueIsOfTheSettingsKind_data()
{
    QTest::addColumn<QVariant>("content");
    QTest::addColumn<QByteArray>("setting");
    QTest::addColumn<QByteArray>("value");
    const auto row = [](const char* name, const QVariant& content, const char* setting,
                        const char* value) {
        QTest::newRow(name) << content << QByteArray(setting) << QByteArray(value);
    };
    row("int of none", 5LL, "{}", R"({"int":5})");
    row("int of a double", 5LL, R"({"value":{"double":1.0}})", R"({"double":5.0})");
    row("double of an int", 5.0, R"({"edit":{"kind":"int"}})", R"({"int":5})");
    row("fraction of an int", 5.5, R"({"edit":{"kind":"int"}})", R"({"double":5.5})");
    row("int of a text", 5LL, R"({"value":{"string":"x"}})", R"({"string":"5"})");
    row("bool of a text", true, R"({"value":{"string":"x"}})", R"({"string":"true"})");
    row("text of an int", QStringLiteral("5"), R"({"value":{"int":1}})", R"({"string":"5"})");
    row("largest of none", largest, "{}", R"({"int":18446744073709551615})");
    row("largest of an int", largest, R"({"value":{"int":1}})", R"({"int":18446744073709551615})");
    row("largest of a limited int", largest, R"({"value":{"int":1},"edit":{"max":100}})",
        R"({"double":1.8446744073709552e19})");
    row("largest of a double", largest, R"({"value":{"double":1.0}})",
        R"({"double":1.8446744073709552e19})");
    row("with its kind", QVariantHash { { QStringLiteral("double"), 5LL } },
        R"({"value":{"int":1}})", R"({"double":5})");
    row("of an unknown kind", QVariantHash { { QStringLiteral("colour"), 5LL } }, "{}",
        R"({"colour":5})");
}

void tst_plainroles::valueIsOfTheSettingsKind()
{
    QFETCH(const QVariant, content);
    QFETCH(const QByteArray, setting);
    QFETCH(const QByteArray, value);

    QCOMPARE(TuloJson::serialize(valueOf(content, rolesOf(setting)).__variant()),
             TuloJson::serialize(parsed(value)));
}

QTEST_GUILESS_MAIN(tst_plainroles)
#include "tst_plainroles.moc"
