#include "trees/documentcheck.h"

#include "api/core/tulojson.h"

#include <QTest>

#include <initializer_list>

using namespace tulo;

Q_DECLARE_METATYPE(DocumentUse)

namespace {

// "RULE POINTER: MESSAGE", sorted, as the roles come in no particular order.
QStringList lines(const QVector<DocumentFinding>& findings)
{
    QStringList result;
    for (const DocumentFinding& finding : findings) {
        result.append(
            QStringLiteral("%1 %2: %3")
                .arg(QLatin1String(ruleOf(finding.rule).name), finding.pointer, finding.message));
    }
    result.sort();
    return result;
}

QVariantHash parsed(const QByteArray& text)
{
    TuloError error;
    const QVariant value = TuloJson::parse(text, error, nullptr);
    if (!error.isEmpty())
        qFatal("the test's roles are not JSON");
    return value.toHash();
}

} // namespace

/// What one file tells by itself.
class tst_documentcheck : public QObject
{
    Q_OBJECT

private slots:
    void findings_data();
    void findings();
    void valuesAloneAreCheckedForTheService();
    void longContentIsCut();
};

void tst_documentcheck::findings_data()
{
    QTest::addColumn<QByteArray>("roles");
    QTest::addColumn<DocumentUse>("use");
    QTest::addColumn<QStringList>("expected");
    const auto row = [](const QByteArray& roles, const std::initializer_list<const char*>& expected,
                        DocumentUse use = DocumentUse::Setting) {
        QStringList found;
        for (const char* line : expected)
            found.append(QString::fromUtf8(line));
        QTest::newRow(roles.constData()) << roles << use << found;
    };

    // Nothing is wrong.
    row("{}", {});
    row(R"({"value":{}})", {});
    row(R"({"value":{"int":5},"type":7,"permission":"x","disabled":true,"encryptedValue":""})", {});
    row(R"({"value":{"double":5.0},"edit":{"min":0,"max":10,"step":1}})", {});
    row(R"({"value":{"int":5},"edit":{}})", {});
    row(R"({"edit":{"kind":"int","values":[]}})", {});
    row(R"({"value":{"int":18446744073709551615}})", {});
    row(R"({"value":{"list":[1,"a",[true]]}})", {});
    row(R"({"value":{"int":1},"defaultValue":{"int":1}})", {}, DocumentUse::Template);
    row(R"({"value":{"int":1}})", {}, DocumentUse::Directory);

    // Kinds of values.
    row(R"({"value":{"text":"x"}})",
        { "no-kind /value: value: {\"text\":\"x\"} is not a value of a known kind, such as "
          "{\"int\":5}" });
    row(R"({"value":{"boolean":true}})",
        { "no-kind /value: value: {\"boolean\":true} is not a value of a known kind, such as "
          "{\"int\":5}; did you mean 'bool'?" });
    row(R"({"value":{"str":"x"}})",
        { "no-kind /value: value: {\"str\":\"x\"} is not a value of a known kind, such as "
          "{\"int\":5}; did you mean 'string'?" });
    row(R"({"value":{"int":1,"double":1.0}})",
        { "no-kind /value: value: {\"double\":1.0,\"int\":1} is not a value of a known kind, such "
          "as {\"int\":5}" });
    row(R"({"value":null})",
        { "no-kind /value: value: null is not a value of a known kind, such as {\"int\":5}" });
    row(R"({"value":{"int":5.5}})",
        { "no-kind /value: value: {\"int\":5.5} is not a value of a known kind, such as "
          "{\"int\":5}" });

    // Forms of constraints.
    row(R"({"edit":null})", { "constraint-malformed /edit: edit: null is not an object" });
    row(R"({"edit":{"kind":"number"}})",
        { "constraint-malformed /edit/kind: 'kind': \"number\" is not bool, int, double, string or "
          "list" });
    row(R"({"edit":{"kind":"int","step":0}})",
        { "constraint-malformed /edit/step: 'step': 0 is not above 0" });
    row(R"({"edit":{"kind":"int","step":0.5}})",
        { "constraint-malformed /edit/step: 'step': 0.5 is not a whole number, as the kind 'int' "
          "needs" });
    row(R"({"edit":{"kind":"int","min":"0","max":true}})",
        { "constraint-malformed /edit/max: 'max': true is not a number",
          "constraint-malformed /edit/min: 'min': \"0\" is not a number" });
    row(R"({"edit":{"kind":"string","values":"a, b"}})",
        { "constraint-malformed /edit/values: 'values': \"a, b\" is not a list" });
    row(R"({"edit":{"values":["a",1]}})",
        { "constraint-malformed /edit/values: 'values': [\"a\",1] is not a list of contents of one "
          "kind" });
    row(R"({"edit":{"values":["a",null]}})",
        { "constraint-malformed /edit/values: 'values': [\"a\",null] is not a list of contents of "
          "one kind" });
    row(R"({"edit":{"kind":"string","minLength":-1,"maxLength":1.5}})",
        { "constraint-malformed /edit/maxLength: 'maxLength': 1.5 is not a length, which is a whole "
          "number from 0",
          "constraint-malformed /edit/minLength: 'minLength': -1 is not a length, which is a whole "
          "number from 0" });
    row(R"({"edit":{"kind":"string","pattern":5}})",
        { "constraint-malformed /edit/pattern: 'pattern': 5 is not a text" });
    row(R"({"edit":{"kind":"list","elements":[]}})",
        { "constraint-malformed /edit/elements: edit/elements: [] is not an object" });
    row(R"({"edit":{"kind":"list","elements":{"kind":"int","min":"1","mx":5}}})",
        { "constraint-malformed /edit/elements/min: 'min': \"1\" is not a number",
          "constraint-unknown /edit/elements/mx: unknown constraint 'mx'; did you mean 'max'?" });

    // Sense of constraints.
    row(R"({"edit":{"kind":"bool","min":0}})",
        { "constraint-not-applicable /edit/min: 'min' does not apply to a value of kind 'bool'" });
    row(R"({"edit":{"kind":"list","pattern":"a"}})",
        { "constraint-not-applicable /edit/pattern: 'pattern' does not apply to a value of kind "
          "'list'" });
    row(R"({"edit":{"kind":"string","minLength":5,"maxLength":4}})",
        { "constraint-unsatisfiable /edit/minLength: 'minLength' (5) is above 'maxLength' (4)" });
    row(R"({"edit":{"kind":"int","max":-1,"min":0}})",
        { "constraint-unsatisfiable /edit/min: no value of kind 'int' fits min, max and step" });
    row(R"({"edit":{"kind":"int","min":0.2,"max":0.8}})",
        { "constraint-unsatisfiable /edit/min: no value of kind 'int' fits min, max and step" });
    row(R"({"edit":{"kind":"double","min":1,"max":3,"step":0.75}})",
        { "constraint-unreachable /edit/max: 'max' (3) is not a number of steps from 'min'; the "
          "highest value is 2.5" });
    row(R"({"edit":{"kind":"int","max":5,"step":2}})",
        { "constraint-unreachable /edit/max: 'max' (5) is not a number of steps from 0; the highest "
          "value is 4" });
    row(R"({"edit":{"values":[5,50,500],"max":100}})",
        { "constraint-unreachable /edit/values/2: 500 cannot be stored: it is above 'max' (100)" });
    row(R"({"edit":{"values":["a","b"],"minLength":2}})",
        { "constraint-unsatisfiable /edit/values: none of 'values' fits the other constraints: "
          "\"a\" cannot be stored: it is shorter than 'minLength' (2)" });
    row(R"({"edit":{"kind":"list","elements":{"kind":"int","min":5,"max":4}}})",
        { "constraint-unsatisfiable /edit/elements/min: no value of kind 'int' fits min, max and "
          "step" });

    // Values under constraints.
    row(R"({"value":{"int":5},"edit":{"kind":"string"}})",
        { "default-outside-constraints /value: value: 5: it is not of the kind 'string'" });
    row(R"({"value":{"int":5},"defaultValue":{"int":50},"edit":{"max":10}})",
        { "default-outside-constraints /defaultValue: defaultValue: 50: it is above 'max' (10)" },
        DocumentUse::Template);
    // Said once, where the constraint is.
    row(R"({"value":{"int":5},"edit":{"max":"10"}})",
        { "constraint-malformed /edit/max: 'max': \"10\" is not a number" });

    // Roles.
    row(R"({"min":1,"values":[1]})",
        { "unknown-role /min: unknown role 'min'; constraints are entries of 'edit'",
          "unknown-role /values: unknown role 'values'; constraints are entries of 'edit'" });
    row(R"({"string":"x"})",
        { "unknown-role /string: unknown role 'string'; did you mean \"value\": {\"string\": ...}?" });
    row(R"({"a/b~c":1})",
        { "own-role /a~1b~0c: 'a/b~c' is a role of the product: it is answered as it is" });
    row(R"({"type":"101","id":7,"encrypted":1,"permission":null})",
        { "encrypted-without-kind /encrypted: nothing tells the kind of an encrypted setting; add "
          "'kind' to 'edit'",
          "role-type /encrypted: encrypted: 1 is not true or false",
          "role-type /id: id: 7 is not a text",
          "role-type /permission: permission: null is not a text",
          "role-type /type: type: \"101\" is not a whole number" });
    row(R"({"setRoles":{},"timestamp":5})",
        { "reserved-role /setRoles: 'setRoles' is set at run time and has no place in a default "
          "file",
          "reserved-role /timestamp: 'timestamp' is set at run time and has no place in a default "
          "file" });
    row(R"({"value":{"int":1}})",
        { "meta-value /value: children get this value, but no default value; add 'defaultValue'" },
        DocumentUse::Template);

    // Secrets.
    row(R"({"encrypted":true,"value":{"string":"x"},"edit":{"kind":"string"}})",
        { "encrypted-with-plain-value /value: the default of an encrypted setting is plain text in "
          "the image" });
    row(R"({"encrypted":true})",
        { "encrypted-without-kind /encrypted: nothing tells the kind of an encrypted setting; add "
          "'kind' to 'edit'" });
    row(R"({"encrypted":false,"value":{"string":"x"}})", {});
}

void tst_documentcheck::findings()
{
    QFETCH(const QByteArray, roles);
    QFETCH(const DocumentUse, use);
    QFETCH(const QStringList, expected);

    QCOMPARE(lines(checkDocument(parsed(roles), use)), expected);
}

void tst_documentcheck::valuesAloneAreCheckedForTheService()
{
    const QVariantHash roles =
        parsed(R"({"titel":"x","value":{"int":5},"edit":{"max":4,"mix":1}})");

    QCOMPARE(lines(checkValues(roles)),
             QStringList(QStringLiteral(
                 "default-outside-constraints /value: value: 5: it is above 'max' (4)")));
}

void tst_documentcheck::longContentIsCut()
{
    const QByteArray text(5000, 'x');

    const QStringList found =
        lines(checkDocument(parsed("{\"value\":\"" + text + "\"}"), DocumentUse::Setting));

    QCOMPARE(found,
             QStringList(QStringLiteral("no-kind /value: value: \"%1... is not a value of a known "
                                        "kind, such as {\"int\":5}")
                             .arg(QString(199, QLatin1Char('x')))));
}

QTEST_GUILESS_MAIN(tst_documentcheck)
#include "tst_documentcheck.moc"
