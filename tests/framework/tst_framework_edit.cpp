#include "api/core/model/cmedit.h"
#include "api/core/tulojson.h"
#include "api/core/tuloroles.h"
#include "tests/support/logcapture.h"

#include <QTest>

#include <cmath>
#include <limits>
#include <memory>

namespace {

QVariantHash hash(const QByteArray& json)
{
    TuloError error;
    const QVariant parsed = TuloJson::parse(json, error, nullptr);
    if (!error.isEmpty())
        qFatal("%s: %s", json.constData(), qPrintable(error.message()));
    return parsed.toHash();
}

QByteArray json(const TuloHash& record)
{
    return TuloJson::serialize(record.__variant());
}

// The text as the writer writes it: large doubles have their shortest form there.
QByteArray canonical(const QByteArray& text)
{
    return json(TuloHash(hash(text)));
}

const QString belowMin = QStringLiteral("it is below 'min'");
const QString aboveMax = QStringLiteral("it is above 'max'");
const QString besideStep = QStringLiteral("it does not lie on a 'step'");
const QString notListed = QStringLiteral("it is not one of the 'values'");
const QString noneFits = QStringLiteral("no value fits the constraints");

QString notOfKind(const char* kind)
{
    return QStringLiteral("it is not of the kind '%1'").arg(QString::fromLatin1(kind));
}

QString malformed(const char* constraint)
{
    return QStringLiteral("the constraint '%1' is malformed").arg(QString::fromLatin1(constraint));
}

// Every row: constraints, requested value, the value to store ("{}" for a refusal), reason.
void addColumns()
{
    QTest::addColumn<QByteArray>("edit");
    QTest::addColumn<QByteArray>("requested");
    QTest::addColumn<QByteArray>("result");
    QTest::addColumn<QString>("reason");
}

void row(const char* edit, const char* requested, const char* result, const QString& reason = {})
{
    QTest::addRow("%s %s", edit, requested)
        << QByteArray(edit) << QByteArray(requested) << QByteArray(result) << reason;
}

void refused(const char* edit, const char* requested, const QString& reason)
{
    row(edit, requested, "{}", reason);
}

} // namespace

/// The kinds of values, and the judgement of the constraints about them.
class tst_framework_edit : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_log = std::make_unique<LogCapture>(); }
    void cleanup()
    {
        m_log->verifyNothingUnexpected();
        m_log.reset();
    }

    void valueHasOneEntryThatNamesItsKind_data();
    void valueHasOneEntryThatNamesItsKind();
    void contentTellsItsKind_data();
    void contentTellsItsKind();
    void numberChangesItsKindWithoutLossOnly_data();
    void numberChangesItsKindWithoutLossOnly();
    void contentThatJsonCannotHoldHasNoKind();
    void constraintsReadTheirEntries();
    void lengthsAreWholeNumbers_data();
    void lengthsAreWholeNumbers();
    void operationHasVerbAndOperand();

    void emptyRequestStaysEmpty();
    void emptyConstraintsAcceptWhatCanBeStored_data();
    void emptyConstraintsAcceptWhatCanBeStored();
    void emptyConstraintsRefuseWhatCannotBeStored_data() { notStorable(); }
    void emptyConstraintsRefuseWhatCannotBeStored() { judge(); }
    void contentThatJsonCannotHoldIsRefused();
    void kindOfTheConstraintsDecides_data() { kinds(); }
    void kindOfTheConstraintsDecides() { judge(); }
    void kindIsThatOfTheConstraintsBeforeTheStored_data();
    void kindIsThatOfTheConstraintsBeforeTheStored();
    void integerIsClampedAndSnapped_data() { integers(); }
    void integerIsClampedAndSnapped() { judge(); }
    void integerAtTheLimitsOf64Bits_data() { limits(); }
    void integerAtTheLimitsOf64Bits() { judge(); }
    void boundsOfTheOtherNumberKind_data() { mixedBounds(); }
    void boundsOfTheOtherNumberKind() { judge(); }
    void doubleIsClampedAndSnapped_data() { doubles(); }
    void doubleIsClampedAndSnapped() { judge(); }
    void valueOutsideTheListedIsRefused_data() { listed(); }
    void valueOutsideTheListedIsRefused() { judge(); }
    void lengthAndPatternRefuse_data() { texts(); }
    void lengthAndPatternRefuse() { judge(); }
    void listsAreJudgedByLength_data() { lists(); }
    void listsAreJudgedByLength() { judge(); }
    void elementsOfAListAreJudged_data() { elements(); }
    void elementsOfAListAreJudged() { judge(); }
    void storedValueOfAnotherKindDoesNotBind();
    void constraintsThatAreNoObjectRefuse_data();
    void constraintsThatAreNoObjectRefuse();
    void malformedConstraintRefuses_data() { malformedConstraints(); }
    void malformedConstraintRefuses() { judge(); }
    void constraintsOfOtherKindsAreIgnored_data() { otherKinds(); }
    void constraintsOfOtherKindsAreIgnored() { judge(); }
    void numberThatIsNotFiniteIsRefused_data();
    void numberThatIsNotFiniteIsRefused();
    void boundThatIsNotFiniteIsMalformed();
    void everyAdjustedNumberLiesInRangeAndOnStep();
    void refusalAndAdjustmentAreLogged_data();
    void refusalAndAdjustmentAreLogged();
    void recordTellsNoValue();

private:
    void kinds();
    void integers();
    void limits();
    void mixedBounds();
    void doubles();
    void listed();
    void texts();
    void lists();
    void elements();
    void notStorable();
    void malformedConstraints();
    void otherKinds();
    void judge();

    std::unique_ptr<LogCapture> m_log;
};

void tst_framework_edit::valueHasOneEntryThatNamesItsKind_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QString>("kind");
    const auto kind = [](const char* value, const char* name) {
        QTest::newRow(value) << QByteArray(value) << QString::fromLatin1(name);
    };
    kind(R"({"bool": true})", "bool");
    kind(R"({"int": 5})", "int");
    kind(R"({"double": 0.5})", "double");
    kind(R"({"string": "x"})", "string");
    kind(R"({"list": [1]})", "list");
    kind("{}", "");
    kind(R"({"color": 5})", "");
    kind(R"({"int": 5, "string": "x"})", "");
    kind(R"({"Int": 5})", "");
}

void tst_framework_edit::valueHasOneEntryThatNamesItsKind()
{
    QFETCH(QByteArray, value);

    const TuloValue record { TuloHash(hash(value)) };
    QTEST(record.kind(), "kind");
    QCOMPARE(record.content().isValid(), !record.kind().isEmpty());
}

void tst_framework_edit::contentTellsItsKind_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("value");
    const auto content = [](const char* text, const char* value) {
        QTest::newRow(text) << QByteArray(text) << QByteArray(value);
    };
    content("true", R"({"bool":true})");
    content("5", R"({"int":5})");
    content("5.0", R"({"double":5.0})");
    content("-9223372036854775808", R"({"int":-9223372036854775808})");
    content("9223372036854775808", R"({"double":9223372036854775808.0})");
    content("\"5\"", R"({"string":"5"})");
    content("[1,null]", R"({"list":[1,null]})");
    content("null", "{}");
    content("{}", "{}");
}

void tst_framework_edit::contentTellsItsKind()
{
    QFETCH(QByteArray, content);
    TuloError error;

    QFETCH(QByteArray, value);

    QCOMPARE(json(TuloValue::ofContent(TuloJson::parse(content, error, nullptr))),
             canonical(value));
}

void tst_framework_edit::numberChangesItsKindWithoutLossOnly_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QByteArray>("converted");
    const auto convert = [](const char* value, const char* kind, const char* converted) {
        QTest::addRow("%s to %s", value, kind)
            << QByteArray(value) << QString::fromLatin1(kind) << QByteArray(converted);
    };
    convert(R"({"double":5.0})", "int", R"({"int":5})");
    convert(R"({"double":-0.0})", "int", R"({"int":0})");
    convert(R"({"double":5.5})", "int", "{}");
    convert(R"({"double":1e300})", "int", "{}");
    convert(R"({"double":9223372036854775808.0})", "int", "{}");
    convert(R"({"double":9223372036854774784.0})", "int", R"({"int":9223372036854774784})");
    convert(R"({"double":-9223372036854775808.0})", "int", R"({"int":-9223372036854775808})");
    convert(R"({"double":-9223372036854777856.0})", "int", "{}");
    convert(R"({"int":5})", "double", R"({"double":5.0})");
    convert(R"({"int":9007199254740992})", "double", R"({"double":9007199254740992.0})");
    convert(R"({"int":9007199254740993})", "double", "{}");
    convert(R"({"int":9223372036854775807})", "double", "{}");
    convert(R"({"int":-9223372036854775808})", "double", R"({"double":-9223372036854775808.0})");
    convert(R"({"int":5.0})", "int", R"({"int":5})");
    convert(R"({"int":5.5})", "int", "{}");
    convert(R"({"int":5.5})", "double", "{}");
    convert(R"({"int":9223372036854775808})", "int", "{}");
    convert(R"({"int":9223372036854775808})", "double", "{}");
    convert(R"({"double":5})", "double", R"({"double":5.0})");
    convert(R"({"double":9007199254740993})", "double", "{}");
    convert(R"({"double":18446744073709551615})", "double", "{}");
    convert(R"({"double":9223372036854775808})", "double", R"({"double":9223372036854775808.0})");
    convert(R"({"int":1})", "bool", "{}");
    convert(R"({"bool":true})", "int", "{}");
    convert(R"({"bool":true})", "double", "{}");
    convert(R"({"bool":true})", "bool", R"({"bool":true})");
    convert(R"({"bool":1})", "bool", "{}");
    convert(R"({"int":true})", "int", "{}");
    convert(R"({"int":"5"})", "int", "{}");
    convert(R"({"string":"5"})", "int", "{}");
    convert(R"({"string":"5"})", "string", R"({"string":"5"})");
    convert(R"({"string":5})", "string", "{}");
    convert(R"({"list":[1]})", "list", R"({"list":[1]})");
    convert(R"({"list":"a"})", "list", "{}");
    convert(R"({"int":null})", "int", "{}");
    convert(R"({"int":5})", "", "{}");
    convert(R"({"int":5})", "color", "{}");
    convert("{}", "int", "{}");
    convert("{}", "", "{}");
}

void tst_framework_edit::numberChangesItsKindWithoutLossOnly()
{
    QFETCH(QByteArray, value);
    QFETCH(QString, kind);

    QFETCH(QByteArray, converted);

    QCOMPARE(json(TuloValue(TuloHash(hash(value))).convertedTo(kind)), canonical(converted));
}

void tst_framework_edit::contentThatJsonCannotHoldHasNoKind()
{
    const QVariantList contents { QVariant(std::nan("")), QVariant(HUGE_VAL),
                                  QVariant(QByteArray("x")),
                                  QVariant::fromValue<QObject*>(nullptr) };
    for (const QVariant& content : contents) {
        QVERIFY(TuloValue::ofContent(content).isEmpty());
        for (const QString& kind : TuloValue::kinds())
            QVERIFY(TuloValue::of(kind, content).convertedTo(kind).isEmpty());
    }
    QCOMPARE(json(TuloValue::ofContent(QStringList { QStringLiteral("a") })),
             QByteArray(R"({"list":["a"]})"));
    QCOMPARE(json(TuloValue::ofContent(QVariant::fromValue(short(3)))), QByteArray(R"({"int":3})"));
    QCOMPARE(json(TuloValue::ofContent(QVariant::fromValue(0.5F))),
             QByteArray(R"({"double":0.5})"));
}

void tst_framework_edit::constraintsReadTheirEntries()
{
    const TuloEdit edit { TuloHash(
        hash(R"({"kind": "int", "min": 1, "max": 9, "step": 2, "values": [1, 3], "minLength": 4,)"
             R"( "maxLength": 5, "pattern": "a*"})")) };

    QCOMPARE(edit.kind(), QStringLiteral("int"));
    QCOMPARE(edit.min(), QVariant(1));
    QCOMPARE(edit.max(), QVariant(9));
    QCOMPARE(edit.step(), QVariant(2));
    QCOMPARE(edit.values(), QVariantList({ 1, 3 }));
    QCOMPARE(edit.minLength(), 4);
    QCOMPARE(edit.maxLength(), 5);
    QCOMPARE(edit.pattern(), QStringLiteral("a*"));

    const TuloEdit none;
    QCOMPARE(none.kind(), QString());
    QVERIFY(!none.min().isValid());
    QVERIFY(!none.max().isValid());
    QVERIFY(!none.step().isValid());
    QCOMPARE(none.values(), QVariantList());
    QCOMPARE(none.minLength(), -1);
    QCOMPARE(none.maxLength(), -1);
    QCOMPARE(none.pattern(), QString());
}

void tst_framework_edit::lengthsAreWholeNumbers_data()
{
    QTest::addColumn<QByteArray>("length");
    QTest::addColumn<int>("result");
    const auto length = [](const char* text, int result) {
        QTest::newRow(text) << QByteArray(text) << result;
    };
    length("0", 0);
    length("7", 7);
    length("7.0", 7);
    length("7.5", -1);
    length("-1", -1);
    length("\"7\"", -1);
    length("true", -1);
    length("null", -1);
    length("10000000000", 2147483647);
}

void tst_framework_edit::lengthsAreWholeNumbers()
{
    QFETCH(QByteArray, length);
    const TuloEdit edit { TuloHash(
        hash(R"({"minLength": )" + length + R"(, "maxLength": )" + length + "}")) };

    QTEST(edit.minLength(), "result");
    QTEST(edit.maxLength(), "result");
}

void tst_framework_edit::operationHasVerbAndOperand()
{
    const TuloOperation operation(QStringLiteral("add"), TuloValue(hash(R"({"int": 5})")));

    QCOMPARE(json(operation), QByteArray(R"({"op":"add","value":{"int":5}})"));
    QCOMPARE(operation.op(), QStringLiteral("add"));
    QCOMPARE(json(operation.value()), QByteArray(R"({"int":5})"));
    QCOMPARE(TuloOperation().op(), QString());
    QVERIFY(TuloOperation().value().isEmpty());
}

void tst_framework_edit::emptyRequestStaysEmpty()
{
    const TuloValue stored(hash(R"({"int": 5})"));

    for (const char* edit : { "{}", R"({"kind": "int", "min": 10})", R"({"kind": "nonsense"})" }) {
        QVERIFY(CMEdit::validate(stored, TuloValue(), TuloEdit(TuloHash(hash(edit))), CMPath())
                    .isEmpty());
    }
}

void tst_framework_edit::emptyConstraintsAcceptWhatCanBeStored_data()
{
    QTest::addColumn<QByteArray>("requested");
    for (const char* value :
         { R"({"int":5})", R"({"string":"x"})", R"({"int":18446744073709551615})",
           R"({"double":-0.5})", R"({"list":[1,null,{"a":[]}]})" })
        QTest::newRow(value) << QByteArray(value);
}

void tst_framework_edit::emptyConstraintsAcceptWhatCanBeStored()
{
    QFETCH(QByteArray, requested);

    const TuloValue result =
        CMEdit::validate(TuloValue(hash(R"({"bool": true})")), TuloValue(TuloHash(hash(requested))),
                         TuloEdit(), CMPath());

    QCOMPARE(json(result), requested);
}

void tst_framework_edit::notStorable()
{
    const QString unknown = QStringLiteral("it is of no known kind");
    addColumns();
    refused("{}", R"({"color": [1]})", unknown);
    refused("{}", R"({"int": 5, "string": "x"})", unknown);
    refused("{}", R"({"int": "x"})", notOfKind("int"));
    refused("{}", R"({"int": 5.5})", notOfKind("int"));
    refused("{}", R"({"double": true})", notOfKind("double"));
    refused("{}", R"({"bool": null})", notOfKind("bool"));
}

void tst_framework_edit::contentThatJsonCannotHoldIsRefused()
{
    const QString notJson = QStringLiteral("it holds what JSON cannot hold");
    const QVariantList deep { 1, QVariantHash { { QStringLiteral("a"), std::nan("") } } };
    for (const char* edit : { "{}", R"({"kind": "list"})", R"({"maxLength": 5})" }) {
        const TuloEdit constraints { TuloHash(hash(edit)) };
        for (const QVariant& element :
             { QVariant(std::nan("")), QVariant(deep), QVariant::fromValue<QObject*>(nullptr) }) {
            const TuloValue list = TuloValue::of(TuloValue::List(), QVariantList { element });
            const CMEdit::Judgement judgement = CMEdit::judge(TuloValue(), list, constraints);
            QVERIFY(judgement.value.isEmpty());
            QCOMPARE(judgement.reason, notJson);
        }
    }
    for (const double number : { std::nan(""), HUGE_VAL }) {
        const TuloValue value = TuloValue::of(TuloValue::Double(), number);
        QCOMPARE(CMEdit::judge(TuloValue(), value, TuloEdit()).reason, notOfKind("double"));
    }
}

void tst_framework_edit::judge()
{
    QFETCH(QByteArray, edit);
    QFETCH(QByteArray, requested);
    QFETCH(QByteArray, result);
    QFETCH(QString, reason);
    const TuloEdit constraints { TuloHash(hash(edit)) };

    const CMEdit::Judgement judgement =
        CMEdit::judge(TuloValue(), TuloValue(TuloHash(hash(requested))), constraints);

    QCOMPARE(json(judgement.value), canonical(result));
    QCOMPARE(judgement.reason, reason);
    // What was accepted once is accepted as it is.
    const CMEdit::Judgement again = CMEdit::judge(judgement.value, judgement.value, constraints);
    QCOMPARE(json(again.value), canonical(result));
    QCOMPARE(again.reason, QString());
}

void tst_framework_edit::kinds()
{
    addColumns();
    row(R"({"kind": "int"})", R"({"int": 5})", R"({"int":5})");
    row(R"({"kind": "int"})", R"({"double": 5.0})", R"({"int":5})");
    // Between two integers the nearer one, from the middle away from 0.
    row(R"({"kind": "int"})", R"({"double": 5.4})", R"({"int":5})", notOfKind("int"));
    row(R"({"kind": "int"})", R"({"double": 5.5})", R"({"int":6})", notOfKind("int"));
    row(R"({"kind": "int"})", R"({"double": -5.5})", R"({"int":-6})", notOfKind("int"));
    row(R"({"kind": "int"})", R"({"double": -0.2})", R"({"int":0})", notOfKind("int"));
    row(R"({"kind": "int"})", R"({"double": 1e300})", R"({"int":9223372036854775807})",
        notOfKind("int"));
    row(R"({"kind": "int"})", R"({"double": -1e300})", R"({"int":-9223372036854775808})",
        notOfKind("int"));
    refused(R"({"kind": "int"})", R"({"string": "5"})", notOfKind("int"));
    refused(R"({"kind": "int"})", R"({"bool": true})", notOfKind("int"));
    refused(R"({"kind": "int"})", R"({"int": "5"})", notOfKind("int"));
    refused(R"({"kind": "int"})", R"({"int": 18446744073709551615})", notOfKind("int"));
    refused(R"({"kind": "int"})", R"({"int": 5, "double": 5.0})", notOfKind("int"));
    refused(R"({"kind": "int"})", R"({"color": 5})", notOfKind("int"));
    row(R"({"kind": "double"})", R"({"double": 0.5})", R"({"double":0.5})");
    row(R"({"kind": "double"})", R"({"int": 5})", R"({"double":5.0})");
    row(R"({"kind": "double"})", R"({"int": 9007199254740993})", R"({"double":9007199254740992.0})",
        notOfKind("double"));
    refused(R"({"kind": "double"})", R"({"bool": false})", notOfKind("double"));
    row(R"({"kind": "bool"})", R"({"bool": false})", R"({"bool":false})");
    refused(R"({"kind": "bool"})", R"({"int": 0})", notOfKind("bool"));
    refused(R"({"kind": "bool"})", R"({"string": "true"})", notOfKind("bool"));
    row(R"({"kind": "string"})", R"({"string": ""})", R"({"string":""})");
    refused(R"({"kind": "string"})", R"({"int": 5})", notOfKind("string"));
    row(R"({"kind": "list"})", R"({"list": []})", R"({"list":[]})");
    row(R"({"kind": "list"})", R"({"list": [1, "a", null, {"b": []}]})",
        R"({"list":[1,"a",null,{"b":[]}]})");
    refused(R"({"kind": "list"})", R"({"string": "a"})", notOfKind("list"));
    refused(R"({"minLength": 1})", R"({"color": 5})", QStringLiteral("it is of no known kind"));
    row(R"({"kind": null, "max": 5})", R"({"int": 5})", R"({"int":5})");
    row(R"({"unknown": 1})", R"({"string": "x"})", R"({"string":"x"})");
}

void tst_framework_edit::kindIsThatOfTheConstraintsBeforeTheStored_data()
{
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<QByteArray>("edit");
    QTest::addColumn<QString>("kind");
    const auto kind = [](const char* stored, const char* edit, const char* result) {
        QTest::addRow("%s %s", stored, edit)
            << QByteArray(stored) << QByteArray(edit) << QString::fromLatin1(result);
    };
    kind(R"({"int": 1})", R"({"kind": "string", "min": 0.5, "values": [true]})", "string");
    kind(R"({"string": "x"})", R"({"min": 0.5, "max": 1, "values": [true]})", "double");
    kind(R"({"string": "x"})", R"({"min": 0, "max": 1})", "int");
    // One double makes all of them doubles.
    kind(R"({"string": "x"})", R"({"min": 0, "max": 1.5})", "double");
    kind(R"({"string": "x"})", R"({"min": 0, "values": [1, 2.5]})", "double");
    kind(R"({"double": 21.5})", R"({"min": 16, "max": 28, "step": 0.5})", "double");
    kind(R"({"double": 1.0})", R"({"values": [1, 2]})", "double");
    kind(R"({"double": 1.0})", R"({"kind": "int", "max": 1.5})", "int");
    kind(R"({"double": 1.0})", R"({"values": ["a"]})", "string");
    kind(R"({"string": "x"})", R"({"max": 1.5, "values": [true]})", "double");
    kind(R"({"string": "x"})", R"({"values": [true, false]})", "bool");
    kind(R"({"int": 1})", R"({"values": ["a", "b"]})", "string");
    kind(R"({"int": 1})", R"({"values": [[1], []]})", "list");
    kind(R"({"string": "x"})", R"({"values": [1, 2]})", "int");
    kind(R"({"string": "x"})", R"({"values": [1, 2.5]})", "double");
    kind(R"({"string": "x"})", R"({"values": [2.5, 1, 2]})", "double");
    kind(R"({"string": "x"})", R"({"values": []})", "string");
    kind(R"({"string": "x"})", R"({"step": 5})", "string");
    kind(R"({"bool": true})", "{}", "bool");
    kind("{}", R"({"maxLength": 5})", "");
    kind("{}", "{}", "");
    kind(R"({"int": 1})", R"({"kind": "nonsense"})", "");
    kind(R"({"int": 1})", R"({"min": "a"})", "");
    kind(R"({"int": 1})", R"({"min": 0, "max": "a"})", "");
    kind(R"({"int": 1})", R"({"edit": "kind=int"})", "");
    kind(R"({"int": 1})", R"({"values": [1, "a"]})", "");
}

void tst_framework_edit::kindIsThatOfTheConstraintsBeforeTheStored()
{
    QFETCH(QByteArray, stored);
    QFETCH(QByteArray, edit);

    QTEST(CMEdit::kind(TuloValue(TuloHash(hash(stored))), TuloEdit(TuloHash(hash(edit)))), "kind");
}

void tst_framework_edit::integers()
{
    addColumns();
    const char* range = R"({"min": 0, "max": 100})";
    row(range, R"({"int": 0})", R"({"int":0})");
    row(range, R"({"int": 100})", R"({"int":100})");
    row(range, R"({"int": 101})", R"({"int":100})", aboveMax);
    row(range, R"({"int": -1})", R"({"int":0})", belowMin);
    row(range, R"({"double": 101.0})", R"({"int":100})", aboveMax);
    row(range, R"({"double": 28.6})", R"({"int":29})", notOfKind("int"));
    row(range, R"({"double": 100.5})", R"({"int":100})",
        notOfKind("int") + QStringLiteral(", ") + aboveMax);
    row(range, R"({"double": -1e300})", R"({"int":0})",
        notOfKind("int") + QStringLiteral(", ") + belowMin);
    const char* fives = R"({"min": 0, "max": 100, "step": 5})";
    row(fives, R"({"int": 35})", R"({"int":35})");
    row(fives, R"({"int": 36})", R"({"int":35})", besideStep);
    row(fives, R"({"int": 38})", R"({"int":40})", besideStep);
    row(fives, R"({"int": 103})", R"({"int":100})", aboveMax);
    const char* fromThree = R"({"min": 3, "max": 12, "step": 5})";
    row(fromThree, R"({"int": 3})", R"({"int":3})");
    row(fromThree, R"({"int": 5})", R"({"int":3})", besideStep);
    row(fromThree, R"({"int": 6})", R"({"int":8})", besideStep);
    // The next step would be 13.
    row(fromThree, R"({"int": 12})", R"({"int":8})", besideStep);
    row(fromThree, R"({"int": 99})", R"({"int":8})", aboveMax + QStringLiteral(", ") + besideStep);
    row(R"({"min": 0, "step": 4})", R"({"int": 6})", R"({"int":8})", besideStep);
    row(R"({"min": -10, "step": 4})", R"({"int": -8})", R"({"int":-6})", besideStep);
    row(R"({"kind": "int", "step": 5})", R"({"int": -7})", R"({"int":-5})", besideStep);
    row(R"({"kind": "int", "step": 5})", R"({"int": -8})", R"({"int":-10})", besideStep);
    row(R"({"kind": "int", "step": 4})", R"({"int": -6})", R"({"int":-4})", besideStep);
    row(R"({"max": -7, "step": 5})", R"({"int": -7})", R"({"int":-10})", besideStep);
    row(R"({"max": -7, "step": 5})", R"({"int": 7})", R"({"int":-10})",
        aboveMax + QStringLiteral(", ") + besideStep);
    row(R"({"min": 5, "max": 5, "step": 10})", R"({"int": 900})", R"({"int":5})", aboveMax);
    row(R"({"kind": "int", "step": 1})", R"({"int": 77})", R"({"int":77})");
    row(R"({"kind": "int", "step": 5.0})", R"({"int": 77})", R"({"int":75})", besideStep);
    refused(R"({"min": 10, "max": 5})", R"({"int": 7})", noneFits);
}

void tst_framework_edit::limits()
{
    addColumns();
    row(R"({"kind": "int"})", R"({"int": 9223372036854775807})", R"({"int":9223372036854775807})");
    row(R"({"kind": "int"})", R"({"int": -9223372036854775808})",
        R"({"int":-9223372036854775808})");
    const char* all = R"({"min": -9223372036854775808, "max": 9223372036854775807, "step": 2})";
    row(all, R"({"int": -9223372036854775808})", R"({"int":-9223372036854775808})");
    row(all, R"({"int": -9223372036854775807})", R"({"int":-9223372036854775806})", besideStep);
    // One further up is no integer any more.
    row(all, R"({"int": 9223372036854775807})", R"({"int":9223372036854775806})", besideStep);
    const char* wide =
        R"({"min": -9223372036854775808, "max": 9223372036854775807, "step": 9223372036854775807})";
    row(wide, R"({"int": 0})", R"({"int":-1})", besideStep);
    row(wide, R"({"int": 9223372036854775807})", R"({"int":9223372036854775806})", besideStep);
    row(R"({"kind": "int", "step": 9223372036854775807})", R"({"int": -9223372036854775808})",
        R"({"int":-9223372036854775807})", besideStep);
    row(R"({"kind": "int", "step": 1000})", R"({"int": 9223372036854775807})",
        R"({"int":9223372036854775000})", besideStep);
    row(R"({"kind": "int", "step": 1000})", R"({"int": -9223372036854775808})",
        R"({"int":-9223372036854775000})", besideStep);
    refused(R"({"max": -9223372036854775807, "step": 1000})", R"({"int": 0})", noneFits);
    row(R"({"kind": "int", "max": 18446744073709551615})", R"({"int": 9223372036854775807})",
        R"({"int":9223372036854775807})");
    refused(R"({"kind": "int", "min": 18446744073709551615})", R"({"int": 5})", noneFits);
}

void tst_framework_edit::mixedBounds()
{
    addColumns();
    row(R"({"kind": "int", "min": 0.5, "max": 9.5})", R"({"int": 0})", R"({"int":1})", belowMin);
    row(R"({"kind": "int", "min": 0.5, "max": 9.5})", R"({"int": 10})", R"({"int":9})", aboveMax);
    row(R"({"kind": "int", "min": -9.5})", R"({"int": -10})", R"({"int":-9})", belowMin);
    refused(R"({"kind": "int", "min": 0.2, "max": 0.8})", R"({"int": 0})", noneFits);
    row(R"({"kind": "int", "min": -1e300, "max": 1e300})", R"({"int": 9223372036854775807})",
        R"({"int":9223372036854775807})");
    refused(R"({"kind": "int", "min": 1e300})", R"({"int": 5})", noneFits);
    refused(R"({"kind": "int", "max": -1e300})", R"({"int": 5})", noneFits);
    row(R"({"kind": "int", "max": 9223372036854775808.0})", R"({"int": 9223372036854775807})",
        R"({"int":9223372036854775807})");
    refused(R"({"kind": "int", "min": 9223372036854775808.0})", R"({"int": 9223372036854775807})",
            noneFits);
    row(R"({"kind": "int", "min": -9223372036854775808.0})", R"({"int": -9223372036854775808})",
        R"({"int":-9223372036854775808})");
    row(R"({"kind": "double", "min": 0, "max": 5})", R"({"double": 5.5})", R"({"double":5.0})",
        aboveMax);
    row(R"({"kind": "double", "min": 0, "max": 5})", R"({"int": -1})", R"({"double":0.0})",
        belowMin);
    // Bounds that no double holds exactly: the nearest one inside.
    row(R"({"kind": "double", "min": 9007199254740993})", R"({"double": 0.0})",
        R"({"double":9007199254740994.0})", belowMin);
    row(R"({"kind": "double", "max": 9007199254740993})", R"({"double": 1e300})",
        R"({"double":9007199254740992.0})", aboveMax);
    row(R"({"kind": "double", "max": 9223372036854775807})", R"({"double": 1e300})",
        R"({"double":9223372036854774784.0})", aboveMax);
    row(R"({"kind": "double", "min": 9223372036854775807})", R"({"double": 0.0})",
        R"({"double":9223372036854775808.0})", belowMin);
    row(R"({"kind": "double", "max": -9007199254740993})", R"({"double": 0.0})",
        R"({"double":-9007199254740994.0})", aboveMax);
}

void tst_framework_edit::doubles()
{
    addColumns();
    const char* range = R"({"min": -1.5, "max": 1.5})";
    row(range, R"({"double": 1.5})", R"({"double":1.5})");
    row(range, R"({"double": 1.6})", R"({"double":1.5})", aboveMax);
    row(range, R"({"double": -1e308})", R"({"double":-1.5})", belowMin);
    row(range, R"({"int": 1})", R"({"double":1.0})");
    const char* halves = R"({"min": 16.0, "max": 28.0, "step": 0.5})";
    row(halves, R"({"double": 21.5})", R"({"double":21.5})");
    row(halves, R"({"double": 21.6})", R"({"double":21.5})", besideStep);
    row(halves, R"({"double": 21.75})", R"({"double":22.0})", besideStep);
    row(halves, R"({"double": 28.1})", R"({"double":28.0})", aboveMax);
    const char* tenths = R"({"min": 0.0, "max": 1.0, "step": 0.1})";
    row(tenths, R"({"double": 0.3})", R"({"double":0.3})");
    row(tenths, R"({"double": 0.7})", R"({"double":0.7})");
    row(tenths, R"({"double": 1.0})", R"({"double":1.0})");
    row(tenths, R"({"double": 0.34})", R"({"double":0.3})", besideStep);
    // Rounding errors only.
    row(tenths, R"({"double": 0.30000000000000004})", R"({"double":0.3})");
    row(tenths, R"({"double": 0.7999999999999999})", R"({"double":0.8})");
    const char* odd = R"({"min": 0.0, "max": 1.0, "step": 0.4})";
    // The next step would be 1.2.
    row(odd, R"({"double": 1.0})", R"({"double":0.8})", besideStep);
    row(odd, R"({"double": 7.0})", R"({"double":0.8})",
        aboveMax + QStringLiteral(", ") + besideStep);
    row(R"({"kind": "double", "step": 0.5})", R"({"double": -0.3})", R"({"double":-0.5})",
        besideStep);
    row(R"({"kind": "double", "step": 0.5})", R"({"double": -0.25})", R"({"double":0.0})",
        besideStep);
    row(R"({"max": -0.7, "step": 0.5})", R"({"double": -0.7})", R"({"double":-1.0})", besideStep);
    refused(R"({"max": -1.5e308, "step": 1e308})", R"({"double": -1.6e308})", noneFits);
    row(R"({"kind": "double", "step": 0.001})", R"({"double": 100000000.0004})",
        R"({"double":100000000.0})", besideStep);
    // Finer than the doubles are there: nothing to move to.
    row(R"({"kind": "double", "step": 0.001})", R"({"double": 1e300})", R"({"double":1e300})");
    row(R"({"min": -1.7e308, "max": 1.7e308, "step": 1e-300})", R"({"double": 1.7e308})",
        R"({"double":1.7e308})");
    // The range's own end has more digits than a step.
    row(R"({"min": 0.10000000000000002, "max": 1, "step": 1})", R"({"double": 0.3})",
        R"({"double":0.10000000000000002})", besideStep);
    row(R"({"min": 0.3333333333333333, "step": 1})", R"({"double": 0.0})",
        R"({"double":0.3333333333333333})", belowMin);
    refused(R"({"min": 1.0, "max": 0.5})", R"({"double": 0.7})", noneFits);
}

void tst_framework_edit::listed()
{
    addColumns();
    const char* words = R"({"values": ["off", "low"]})";
    row(words, R"({"string": "low"})", R"({"string":"low"})");
    refused(words, R"({"string": "Low"})", notListed);
    refused(words, R"({"string": ""})", notListed);
    refused(words, R"({"int": 0})", notOfKind("string"));
    const char* numbers = R"({"values": [5, 10, 30]})";
    row(numbers, R"({"int": 10})", R"({"int":10})");
    row(numbers, R"({"double": 10.0})", R"({"int":10})");
    refused(numbers, R"({"int": 11})", notListed);
    refused(numbers, R"({"string": "10"})", notOfKind("int"));
    const char* mixed = R"({"values": [2.4, 5]})";
    row(mixed, R"({"double": 2.4})", R"({"double":2.4})");
    row(mixed, R"({"int": 5})", R"({"double":5.0})");
    refused(mixed, R"({"double": 2.5})", notListed);
    row(R"({"kind": "double", "values": [1, 2]})", R"({"double": 2.0})", R"({"double":2.0})");
    row(R"({"values": [true]})", R"({"bool": true})", R"({"bool":true})");
    refused(R"({"values": [true]})", R"({"bool": false})", notListed);
    refused(R"({"values": [true]})", R"({"int": 1})", notOfKind("bool"));
    refused(R"({"kind": "int", "values": [true, "1"]})", R"({"int": 1})", notListed);
    const char* whole = R"({"values": [["a", "b"], []]})";
    row(whole, R"({"list": ["a", "b"]})", R"({"list":["a","b"]})");
    row(whole, R"({"list": []})", R"({"list":[]})");
    refused(whole, R"({"list": ["a"]})", notListed);
    // Asked about the number as adjusted.
    row(R"({"min": 0, "max": 100, "values": [0, 100]})", R"({"int": 101})", R"({"int":100})",
        aboveMax);
    refused(R"({"min": 0, "max": 100, "values": [0, 50]})", R"({"int": 101})", notListed);
    row(R"({"kind": "string", "values": []})", R"({"string": "x"})", R"({"string":"x"})");
    row(R"({"kind": "string", "values": null})", R"({"string": "x"})", R"({"string":"x"})");
}

void tst_framework_edit::texts()
{
    const QString tooShort = QStringLiteral("it is shorter than 'minLength'");
    const QString tooLong = QStringLiteral("it is longer than 'maxLength'");
    const QString noMatch = QStringLiteral("it does not match the 'pattern'");
    addColumns();
    const char* length = R"({"kind": "string", "minLength": 2, "maxLength": 4})";
    refused(length, R"({"string": "a"})", tooShort);
    row(length, R"({"string": "ab"})", R"({"string":"ab"})");
    row(length, R"({"string": "abcd"})", R"({"string":"abcd"})");
    refused(length, R"({"string": "abcde"})", tooLong);
    // One character beyond the first plane is two code units.
    row(R"({"kind": "string", "maxLength": 2})", R"({"string": "\ud83d\ude00"})",
        "{\"string\":\"\xF0\x9F\x98\x80\"}");
    refused(R"({"kind": "string", "maxLength": 1})", R"({"string": "\ud83d\ude00"})", tooLong);
    row(R"({"kind": "string", "maxLength": 0})", R"({"string": ""})", R"({"string":""})");
    refused(R"({"kind": "string", "maxLength": 0})", R"({"string": "a"})", tooLong);
    refused(R"({"kind": "string", "minLength": 3, "maxLength": 2})", R"({"string": "abc"})",
            tooLong);
    const char* pattern = R"({"kind": "string", "pattern": "[a-z]+|X"})";
    row(pattern, R"({"string": "abc"})", R"({"string":"abc"})");
    row(pattern, R"({"string": "X"})", R"({"string":"X"})");
    refused(pattern, R"({"string": "abcX"})", noMatch);
    refused(pattern, R"({"string": "1abc"})", noMatch);
    refused(pattern, R"({"string": "abc\n"})", noMatch);
    refused(pattern, R"({"string": ""})", noMatch);
    // The shorter alternative comes first.
    row(R"({"kind": "string", "pattern": "a|ab"})", R"({"string": "ab"})", R"({"string":"ab"})");
    row(R"({"kind": "string", "pattern": "^[0-9]+$"})", R"({"string": "12"})",
        R"({"string":"12"})");
    refused(R"({"kind": "string", "pattern": "^[0-9]+$"})", R"({"string": "12\n"})", noMatch);
    row(R"({"kind": "string", "pattern": ""})", R"({"string": "x"})", R"({"string":"x"})");
    row(R"({"kind": "string", "pattern": "..", "minLength": 1})", R"({"string": "ab"})",
        R"({"string":"ab"})");
}

void tst_framework_edit::lists()
{
    addColumns();
    const char* length = R"({"kind": "list", "minLength": 1, "maxLength": 2})";
    refused(length, R"({"list": []})", QStringLiteral("it is shorter than 'minLength'"));
    row(length, R"({"list": [null]})", R"({"list":[null]})");
    row(length, R"({"list": [[1, 2, 3], "x"]})", R"({"list":[[1,2,3],"x"]})");
    refused(length, R"({"list": [1, 2, 3]})", QStringLiteral("it is longer than 'maxLength'"));
}

void tst_framework_edit::elements()
{
    const auto unfit = [](const QString& reason) {
        return QStringLiteral("an element does not fit 'elements': ") + reason;
    };
    addColumns();
    const char* percents = R"({"kind": "list", "elements": {"min": 0, "max": 100}})";
    row(percents, R"({"list": [0, 100]})", R"({"list":[0,100]})");
    row(percents, R"({"list": []})", R"({"list":[]})");
    row(percents, R"({"list": [1, 101, -1, 102]})", R"({"list":[1,100,0,100]})",
        unfit(aboveMax) + QStringLiteral(", ") + unfit(belowMin));
    row(percents, R"({"list": [1.5]})", R"({"list":[2]})", unfit(notOfKind("int")));
    refused(percents, R"({"list": [1, "2"]})", unfit(notOfKind("int")));
    refused(percents, R"({"list": [1, null]})", unfit(QStringLiteral("it is of no known kind")));
    refused(percents, R"({"list": [{"int": 1}]})", unfit(QStringLiteral("it is of no known kind")));
    refused(percents, R"({"int": 1})", notOfKind("list"));
    const char* words = R"({"kind": "list", "maxLength": 2, "elements": {"values": ["a", "b"]}})";
    row(words, R"({"list": ["a", "b"]})", R"({"list":["a","b"]})");
    refused(words, R"({"list": ["a", "c"]})", unfit(notListed));
    refused(words, R"({"list": ["a", "a", "a"]})", QStringLiteral("it is longer than 'maxLength'"));
    // Lists of lists.
    const char* rows = R"({"kind": "list", "elements": {"kind": "list", "elements": {"max": 5}}})";
    row(rows, R"({"list": [[1], [], [5]]})", R"({"list":[[1],[],[5]]})");
    row(rows, R"({"list": [[1, 9]]})", R"({"list":[[1,5]]})", unfit(unfit(aboveMax)));
    // Each by its own kind.
    const char* shortOnes = R"({"kind": "list", "elements": {"maxLength": 1}})";
    row(shortOnes, R"({"list": ["a", 18446744073709551615, true, [1]]})",
        R"({"list":["a",18446744073709551615,true,[1]]})");
    refused(shortOnes, R"({"list": ["ab"]})",
            unfit(QStringLiteral("it is longer than 'maxLength'")));
    row(R"({"kind": "list", "elements": {}})", R"({"list": [null, {}]})", R"({"list":[null,{}]})");
    row(R"({"kind": "list", "elements": null})", R"({"list": [null]})", R"({"list":[null]})");
    refused(R"({"kind": "list", "elements": 5})", R"({"list": []})", malformed("elements"));
    refused(R"({"kind": "list", "elements": {"kind": "nonsense"}})", R"({"list": [1]})",
            unfit(malformed("kind")));
    row(R"({"kind": "int", "elements": 5})", R"({"int": 1})", R"({"int":1})");
}

void tst_framework_edit::storedValueOfAnotherKindDoesNotBind()
{
    const TuloValue stored(hash(R"({"string": "x"})"));
    const TuloValue requested(hash(R"({"int": 5})"));
    for (const char* edit : { R"({"kind": "int"})", R"({"max": 9})", R"({"values": [5]})", "{}" }) {
        const CMEdit::Judgement judgement =
            CMEdit::judge(stored, requested, TuloEdit(TuloHash(hash(edit))));
        QCOMPARE(json(judgement.value), json(requested));
        QCOMPARE(judgement.reason, QString());
    }
}

void tst_framework_edit::constraintsThatAreNoObjectRefuse_data()
{
    QTest::addColumn<QByteArray>("edit");
    QTest::addColumn<bool>("isMalformed");
    const auto entry = [](const char* text, bool isMalformed) {
        QTest::newRow(text) << QByteArray(text) << isMalformed;
    };
    entry("\"kind=int\"", true);
    entry("\"\"", true);
    entry("5", true);
    entry("false", true);
    entry("[]", true);
    entry("{}", false);
    entry("null", false);
}

void tst_framework_edit::constraintsThatAreNoObjectRefuse()
{
    QFETCH(QByteArray, edit);
    QFETCH(bool, isMalformed);
    const TuloRoles roles(TuloHash(hash("{\"edit\": " + edit + "}")));
    const TuloValue value(hash(R"({"int": 5})"));

    QCOMPARE(roles.edit().isMalformed(), isMalformed);
    for (const TuloValue& stored : { TuloValue(), value }) {
        const CMEdit::Judgement judgement = CMEdit::judge(stored, value, roles.edit());
        QCOMPARE(judgement.value.isEmpty(), isMalformed);
        QCOMPARE(judgement.reason, isMalformed ? malformed("edit") : QString());
    }
    // What a client is answered stays as it was.
    QCOMPARE(json(roles), canonical("{\"edit\": " + edit + "}"));
}

void tst_framework_edit::malformedConstraints()
{
    addColumns();
    const char* number = R"({"int": 5})";
    const char* text = R"({"string": "x"})";
    refused(R"({"kind": "integer"})", number, malformed("kind"));
    refused(R"({"kind": 5})", number, malformed("kind"));
    refused(R"({"kind": ""})", number, malformed("kind"));
    refused(R"({"min": "0"})", number, malformed("min"));
    refused(R"({"min": true})", number, malformed("min"));
    refused(R"({"max": [5]})", number, malformed("max"));
    refused(R"({"kind": "int", "min": "0"})", number, malformed("min"));
    refused(R"({"kind": "int", "max": {}})", number, malformed("max"));
    refused(R"({"kind": "int", "step": "1"})", number, malformed("step"));
    refused(R"({"kind": "int", "step": 0})", number, malformed("step"));
    refused(R"({"kind": "int", "step": -1})", number, malformed("step"));
    refused(R"({"kind": "int", "step": 0.5})", number, malformed("step"));
    refused(R"({"kind": "double", "step": 0})", number, malformed("step"));
    refused(R"({"kind": "double", "step": -0.5})", number, malformed("step"));
    refused(R"({"kind": "int", "values": 5})", number, malformed("values"));
    refused(R"({"kind": "string", "values": "x"})", text, malformed("values"));
    refused(R"({"values": [1, "x"]})", number, malformed("values"));
    refused(R"({"values": [null]})", number, malformed("values"));
    refused(R"({"kind": "string", "minLength": -1})", text, malformed("minLength"));
    refused(R"({"kind": "string", "minLength": "1"})", text, malformed("minLength"));
    refused(R"({"kind": "string", "maxLength": 1.5})", text, malformed("maxLength"));
    refused(R"({"kind": "string", "pattern": "("})", text, malformed("pattern"));
    refused(R"({"kind": "string", "pattern": "x)(y"})", text, malformed("pattern"));
    refused(R"({"kind": "string", "pattern": 5})", text, malformed("pattern"));
}

void tst_framework_edit::otherKinds()
{
    addColumns();
    row(R"({"kind": "string", "min": "a", "max": 0, "step": -1})", R"({"string": "x"})",
        R"({"string":"x"})");
    row(R"({"kind": "int", "minLength": 9, "pattern": "("})", R"({"int": 5})", R"({"int":5})");
    row(R"({"kind": "list", "pattern": "x", "min": 7})", R"({"list": []})", R"({"list":[]})");
    row(R"({"kind": "bool", "min": 7, "maxLength": 0})", R"({"bool": true})", R"({"bool":true})");
}

void tst_framework_edit::numberThatIsNotFiniteIsRefused_data()
{
    QTest::addColumn<double>("number");
    QTest::newRow("NaN") << std::numeric_limits<double>::quiet_NaN();
    QTest::newRow("infinity") << HUGE_VAL;
    QTest::newRow("minus infinity") << -HUGE_VAL;
}

void tst_framework_edit::numberThatIsNotFiniteIsRefused()
{
    QFETCH(double, number);
    for (const char* edit : { R"({"kind": "double"})", R"({"min": 0.0, "max": 1.0, "step": 0.1})",
                              R"({"kind": "int"})" }) {
        for (const QString& kind : { TuloValue::Double(), TuloValue::Int() }) {
            const CMEdit::Judgement judgement = CMEdit::judge(
                TuloValue(), TuloValue::of(kind, number), TuloEdit(TuloHash(hash(edit))));
            QVERIFY(judgement.value.isEmpty());
            QVERIFY(judgement.reason.startsWith(QStringLiteral("it is not of the kind ")));
        }
    }
}

void tst_framework_edit::boundThatIsNotFiniteIsMalformed()
{
    for (const QString& key : { TuloEdit::Min(), TuloEdit::Max(), TuloEdit::Step() }) {
        for (const double number : { std::numeric_limits<double>::quiet_NaN(), HUGE_VAL }) {
            const TuloEdit edit(
                QVariantHash { { TuloEdit::Kind(), TuloValue::Double() }, { key, number } });
            const CMEdit::Judgement judgement =
                CMEdit::judge(TuloValue(), TuloValue::of(TuloValue::Double(), 0.5), edit);
            QVERIFY(judgement.value.isEmpty());
            QCOMPARE(judgement.reason, malformed(key.toLatin1().constData()));
        }
    }
}

void tst_framework_edit::everyAdjustedNumberLiesInRangeAndOnStep()
{
    // Every small range, step and request: few enough to try them all.
    for (int min = -4; min <= 4; ++min) {
        for (int max = min; max <= 5; ++max) {
            for (int step = 1; step <= 4; ++step) {
                const TuloEdit edit(QVariantHash { { TuloEdit::Min(), min },
                                                   { TuloEdit::Max(), max },
                                                   { TuloEdit::Step(), step } });
                for (int requested = -7; requested <= 7; ++requested) {
                    const int result =
                        CMEdit::judge(TuloValue(), TuloValue::of(TuloValue::Int(), requested), edit)
                            .value.content()
                            .toInt();
                    QVERIFY(result >= min && result <= max);
                    QCOMPARE((result - min) % step, 0);
                    // No other step in the range is nearer to the clamped request.
                    const int clamped = qBound(min, requested, max);
                    for (int other = min; other <= max; other += step)
                        QVERIFY(qAbs(result - clamped) <= qAbs(other - clamped));
                }
            }
        }
    }
}

void tst_framework_edit::refusalAndAdjustmentAreLogged_data()
{
    QTest::addColumn<QByteArray>("requested");
    QTest::addColumn<QByteArray>("result");
    QTest::addColumn<QString>("message");
    QTest::newRow("accepted") << QByteArray(R"({"int": 5})") << QByteArray(R"({"int":5})")
                              << QString();
    QTest::newRow("converted") << QByteArray(R"({"double": 5.0})") << QByteArray(R"({"int":5})")
                               << QString();
    QTest::newRow("adjusted") << QByteArray(R"({"int": 99})") << QByteArray(R"({"int":10})")
                              << QStringLiteral(
                                     u"Value for '/settings/\u00e4 b' adjusted: it is above 'max'");
    QTest::newRow("refused")
        << QByteArray(R"({"string": "x"})") << QByteArray("{}")
        << QStringLiteral(u"Value for '/settings/\u00e4 b' refused: it is not of the kind 'int'");
}

void tst_framework_edit::refusalAndAdjustmentAreLogged()
{
    QFETCH(QByteArray, requested);
    QFETCH(QString, message);

    const TuloValue result = CMEdit::validate(
        TuloValue(hash(R"({"int": 3})")), TuloValue(TuloHash(hash(requested))),
        TuloEdit(hash(R"({"max": 10})")), CMPath(QStringLiteral(u"/settings/\u00e4 b")));

    QTEST(json(result), "result");
    const QList<LogRecord> records = m_log->take();
    QCOMPARE(records.size(), message.isEmpty() ? 0 : 1);
    if (message.isEmpty())
        return;
    QCOMPARE(records.first().level, log4cplus::WARN_LOG_LEVEL);
    QCOMPARE(records.first().logger, QStringLiteral("TuloFramework"));
    QCOMPARE(records.first().message, message);
}

void tst_framework_edit::recordTellsNoValue()
{
    CMEdit::validate(TuloValue(), TuloValue(hash(R"({"string": "4711"})")),
                     TuloEdit(hash(R"({"kind": "string", "minLength": 8})")),
                     CMPath(QStringLiteral("/settings/pin")));

    const QList<LogRecord> records = m_log->take();
    QCOMPARE(records.size(), 1);
    QVERIFY(!records.first().message.contains(QStringLiteral("4711")));
}

QTEST_GUILESS_MAIN(tst_framework_edit)
#include "tst_framework_edit.moc"
