#include "trees/settingvalue.h"

#include "api/core/tulojson.h"

#include <QTest>

using namespace tulo;

namespace {

TuloHash hashOf(const QByteArray& json)
{
    TuloError error;
    const QVariant content = TuloJson::parse(json, error, nullptr);
    if (!error.isEmpty())
        qFatal("%s: %s", json.constData(), qPrintable(error.message()));
    return TuloHash(content.toHash());
}

TuloRoles rolesOf(const QByteArray& json)
{
    return TuloRoles(hashOf(json));
}

TuloValue valueOf(const QByteArray& json)
{
    return TuloValue(hashOf(json));
}

QString textOf(const TuloValue& value)
{
    return QString::fromUtf8(TuloJson::serialize(value.__variant()));
}

} // namespace

/// What a change comes to, before the worker is asked.
class tst_settingvalue : public QObject
{
    Q_OBJECT

private slots:
    void kind_data();
    void kind();
    void change_data();
    void change();
    void operation_data();
    void operation();
};

void tst_settingvalue::kind_data()
{
    QTest::addColumn<QByteArray>("setting");
    QTest::addColumn<QString>("kind");
    const auto row = [](const char* name, const char* setting, const char* kind) {
        QTest::newRow(name) << QByteArray(setting) << QString::fromLatin1(kind);
    };
    row("nothing tells", "{}", "");
    row("named", R"({"edit":{"kind":"string"},"defaultValue":{"int":5}})", "string");
    row("default", R"({"defaultValue":{"bool":true},"value":{"string":"yes"}})", "bool");
    row("stored only", R"({"value":{"string":"yes"}})", "string");
    row("range", R"({"edit":{"min":1,"max":5}})", "int");
    row("range with a fraction", R"({"edit":{"min":1,"max":5.5}})", "double");
    row("range, default double", R"({"edit":{"min":1},"defaultValue":{"double":2.5}})", "double");
    row("range, stored double", R"({"edit":{"min":1},"value":{"double":2.5}})", "double");
    row("range, named int", R"({"edit":{"kind":"int","min":1},"defaultValue":{"double":2}})",
        "int");
    row("values", R"({"edit":{"values":["a","b"]},"defaultValue":{"int":2}})", "string");
}

void tst_settingvalue::kind()
{
    QFETCH(QByteArray, setting);

    QTEST(kindOfSetting(rolesOf(setting)), "kind");
}

void tst_settingvalue::change_data()
{
    QTest::addColumn<QByteArray>("setting");
    QTest::addColumn<QByteArray>("requested");
    QTest::addColumn<bool>("isAccepted");
    QTest::addColumn<QString>("stored");
    QTest::addColumn<QString>("reason");
    const auto row = [](const char* name, const char* setting, const char* requested,
                        bool isAccepted, const char* stored, const char* reason) {
        QTest::newRow(name) << QByteArray(setting) << QByteArray(requested) << isAccepted
                            << QString::fromUtf8(stored) << QString::fromUtf8(reason);
    };
    row("as asked", R"({"edit":{"max":100}})", R"({"int":5})", true, R"({"int":5})", "");
    row("adjusted", R"({"edit":{"max":100}})", R"({"int":500})", true, R"({"int":100})",
        "it is above 'max' (100)");
    row("text over a bool", R"({"defaultValue":{"bool":true}})", R"({"string":"yes"})", false, "{}",
        "it is not of the kind 'bool'");
    row("text over a bool that is a text by now",
        R"({"defaultValue":{"bool":true},"value":{"string":"yes"}})", R"({"string":"no"})", false,
        "{}", "it is not of the kind 'bool'");
    row("bool over a stale text", R"({"defaultValue":{"bool":true},"value":{"string":"yes"}})",
        R"({"bool":false})", true, R"({"bool":false})", "");
    row("text over a stale int, limited in length",
        R"({"defaultValue":{"string":"abc"},"value":{"int":5},"edit":{"maxLength":10}})",
        R"({"string":"hello"})", true, R"({"string":"hello"})", "");
    row("int for a double", R"({"defaultValue":{"double":0.5}})", R"({"int":5})", true,
        R"({"double":5.0})", "");
    row("no kind at all", "{}", R"({"string":"x"})", true, R"({"string":"x"})", "");
    row("not listed", R"({"edit":{"values":["a","b"]}})", R"({"string":"c"})", false, "{}",
        R"(it is not one of the 'values' (["a","b"]))");
    row("empty leaves the stored value", R"({"defaultValue":{"bool":true}})", "{}", true, "{}", "");
}

void tst_settingvalue::change()
{
    QFETCH(QByteArray, setting);
    QFETCH(QByteArray, requested);

    const ValidatedValue validated = validateChange(rolesOf(setting), valueOf(requested));

    QTEST(validated.isAccepted, "isAccepted");
    QTEST(textOf(validated.value), "stored");
    QTEST(validated.reason, "reason");
    QVERIFY(validated.asked == valueOf(requested));
}

void tst_settingvalue::operation_data()
{
    QTest::addColumn<QByteArray>("setting");
    QTest::addColumn<QString>("verb");
    QTest::addColumn<QByteArray>("operand");
    QTest::addColumn<bool>("isAccepted");
    QTest::addColumn<QString>("asked");
    QTest::addColumn<QString>("stored");
    QTest::addColumn<QString>("reason");
    const auto row = [](const char* name, const char* setting, const char* verb,
                        const char* operand, bool isAccepted, const char* asked, const char* stored,
                        const char* reason) {
        QTest::newRow(name) << QByteArray(setting) << QString::fromLatin1(verb)
                            << QByteArray(operand) << isAccepted << QString::fromUtf8(asked)
                            << QString::fromUtf8(stored) << QString::fromUtf8(reason);
    };
    const char* const number = R"({"value":{"int":90},"edit":{"min":0,"max":100}})";
    row("add", number, "add", R"({"int":5})", true, R"({"int":95})", R"({"int":95})", "");
    row("add beyond the range", number, "add", R"({"int":50})", true, R"({"int":140})",
        R"({"int":100})", "it is above 'max' (100)");
    row("toggle of a number", number, "toggle", "{}", false, "{}", "{}",
        "'toggle' is not applicable to a value of kind 'int'");
    row("add a text", number, "add", R"({"string":"5"})", false, "{}", "{}",
        "'add' is not applicable to a value of kind 'int'");
    row("set another kind", number, "set", R"({"string":"x"})", false, R"({"string":"x"})", "{}",
        "it is not of the kind 'int'");
    row("unknown verb", number, "halve", R"({"int":5})", false, "{}", "{}",
        "'halve' is not an operation");
    row("toggle of nothing", "{}", "toggle", "{}", true, R"({"bool":true})", R"({"bool":true})",
        "");
    row("toggle where the default tells", R"({"defaultValue":{"string":"x"}})", "toggle", "{}",
        false, "{}", "{}", "'toggle' is not applicable to a value of kind 'string'");
    row("next within the list", R"({"value":{"string":"a"},"edit":{"values":["a","b"]}})", "next",
        "{}", true, R"({"string":"b"})", R"({"string":"b"})", "");
    row("append beyond a length", R"({"value":{"string":"abc"},"edit":{"maxLength":4}})", "append",
        R"({"string":"de"})", false, R"({"string":"abcde"})", "{}",
        "it is longer than 'maxLength' (4)");
}

void tst_settingvalue::operation()
{
    QFETCH(QByteArray, setting);
    QFETCH(QString, verb);
    QFETCH(QByteArray, operand);

    const ValidatedValue validated =
        validateOperation(rolesOf(setting), TuloOperation(verb, valueOf(operand)));

    QTEST(validated.isAccepted, "isAccepted");
    QTEST(textOf(validated.asked), "asked");
    QTEST(textOf(validated.value), "stored");
    QTEST(validated.reason, "reason");
}

QTEST_GUILESS_MAIN(tst_settingvalue)
#include "tst_settingvalue.moc"
