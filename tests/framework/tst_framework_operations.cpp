#include "api/core/model/cmedit.h"
#include "api/core/model/cmoperation.h"
#include "api/core/tulojson.h"
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

void addColumns()
{
    QTest::addColumn<QByteArray>("current");
    QTest::addColumn<QByteArray>("edit");
    QTest::addColumn<QByteArray>("verb");
    QTest::addColumn<QByteArray>("operand");
    QTest::addColumn<QByteArray>("result");
}

void row(const char* current, const char* edit, const char* verb, const char* operand,
         const char* result)
{
    QTest::addRow("%s %s %s %s", current, edit, verb, operand)
        << QByteArray(current) << QByteArray(edit) << QByteArray(verb) << QByteArray(operand)
        << QByteArray(result);
}

} // namespace

/// Operations on values: every verb, on every kind, within the constraints.
class tst_framework_operations : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_log = std::make_unique<LogCapture>(); }
    void cleanup()
    {
        // No operation logs anything: it does not know the path.
        QVERIFY(m_log->records().isEmpty());
        m_log.reset();
    }

    void verbsAreListed();
    void setTakesTheOperand_data() { setRows(); }
    void setTakesTheOperand() { apply(); }
    void addSumsAndSaturates_data() { addRows(); }
    void addSumsAndSaturates() { apply(); }
    void multiplySaturates_data() { multiplyRows(); }
    void multiplySaturates() { apply(); }
    void toggleTakesTheOther_data() { toggleRows(); }
    void toggleTakesTheOther() { apply(); }
    void appendAddsAtTheEnd_data() { appendRows(); }
    void appendAddsAtTheEnd() { apply(); }
    void removeTakesOutEveryOccurrence_data() { removeRows(); }
    void removeTakesOutEveryOccurrence() { apply(); }
    void nextAndPreviousWalkTheListedValues_data() { valuesRows(); }
    void nextAndPreviousWalkTheListedValues() { apply(); }
    void nextAndPreviousStepNumbers_data() { stepRows(); }
    void nextAndPreviousStepNumbers() { apply(); }
    void emptyValueIsTheNeutralElement_data() { neutralRows(); }
    void emptyValueIsTheNeutralElement() { apply(); }
    void whatDoesNotFitLeavesTheValue_data() { unfitRows(); }
    void whatDoesNotFitLeavesTheValue() { apply(); }
    void sumsBeyondTheDoublesSaturate();
    void operandThatIsNotFiniteLeavesTheValue();
    void tenStepsOfATenthAreOne();
    void removeTakesTimeInProportion();

private:
    void setRows();
    void addRows();
    void multiplyRows();
    void toggleRows();
    void appendRows();
    void removeRows();
    void valuesRows();
    void stepRows();
    void neutralRows();
    void unfitRows();
    void apply();

    std::unique_ptr<LogCapture> m_log;
};

void tst_framework_operations::verbsAreListed()
{
    QCOMPARE(CMOperation::verbs().join(QLatin1Char(' ')),
             QStringLiteral("set add multiply toggle append remove next previous"));
}

void tst_framework_operations::apply()
{
    QFETCH(QByteArray, current);
    QFETCH(QByteArray, edit);
    QFETCH(QByteArray, verb);
    QFETCH(QByteArray, operand);
    QFETCH(QByteArray, result);
    const TuloValue value { TuloHash(hash(current)) };
    const TuloEdit constraints { TuloHash(hash(edit)) };
    const TuloOperation operation(QString::fromLatin1(verb), TuloValue(TuloHash(hash(operand))));

    const TuloValue changed = CMOperation::apply(value, constraints, operation);

    QCOMPARE(json(changed), result);
    // A value that changed is one that the constraints accept as it is.
    if (changed != value)
        QCOMPARE(CMEdit::judge(value, changed, constraints).reason, QString());
}

void tst_framework_operations::setRows()
{
    addColumns();
    row(R"({"int": 5})", "{}", "set", R"({"int": 7})", R"({"int":7})");
    row(R"({"int": 5})", "{}", "set", R"({"string": "x"})", R"({"string":"x"})");
    row(R"({"int": 5})", R"({"max": 6})", "set", R"({"int": 7})", R"({"int":6})");
    row(R"({"int": 5})", R"({"max": 6})", "set", R"({"double": 3.0})", R"({"int":3})");
    row(R"({"int": 5})", R"({"max": 6})", "set", R"({"double": 3.5})", R"({"int":4})");
    row(R"({"int": 5})", R"({"max": 6})", "set", R"({"string": "x"})", R"({"int":5})");
    row(R"({"int": 5})", "{}", "set", "{}", R"({"int":5})");
    row(R"({"color": 5})", "{}", "set", R"({"int": 7})", R"({"int":7})");
    row(R"({"string": "x"})", R"({"kind": "int"})", "set", R"({"int": 7})", R"({"int":7})");
}

void tst_framework_operations::addRows()
{
    addColumns();
    row(R"({"int": 5})", "{}", "add", R"({"int": 7})", R"({"int":12})");
    row(R"({"int": 5})", "{}", "add", R"({"int": -7})", R"({"int":-2})");
    row(R"({"int": 5})", "{}", "add", R"({"double": 2.0})", R"({"int":7})");
    row(R"({"int": 9223372036854775807})", "{}", "add", R"({"int": 1})",
        R"({"int":9223372036854775807})");
    row(R"({"int": 9223372036854775800})", "{}", "add", R"({"int": 100})",
        R"({"int":9223372036854775807})");
    row(R"({"int": -9223372036854775808})", "{}", "add", R"({"int": -1})",
        R"({"int":-9223372036854775808})");
    row(R"({"int": -9223372036854775808})", "{}", "add", R"({"int": 9223372036854775807})",
        R"({"int":-1})");
    row(R"({"double": 0.5})", "{}", "add", R"({"double": 0.25})", R"({"double":0.75})");
    row(R"({"double": 0.5})", "{}", "add", R"({"int": 1})", R"({"double":1.5})");
    row(R"({"int": 5})", R"({"kind": "double"})", "add", R"({"double": 0.5})", R"({"double":5.5})");
    row(R"({"int": 95})", R"({"min": 0, "max": 100, "step": 5})", "add", R"({"int": 7})",
        R"({"int":100})");
    row(R"({"int": 50})", R"({"min": 0, "max": 100, "step": 5})", "add", R"({"int": 7})",
        R"({"int":55})");
    row(R"({"int": 5})", R"({"min": 0, "max": 100})", "add", R"({"int": -9})", R"({"int":0})");
    row(R"({"double": 0.2})", R"({"step": 0.1})", "add", R"({"double": 0.1})", R"({"double":0.3})");
    row(R"({"int": 5})", R"({"values": [5, 10]})", "add", R"({"int": 5})", R"({"int":10})");
    row(R"({"int": 5})", R"({"values": [5, 10]})", "add", R"({"int": 1})", R"({"int":5})");
}

void tst_framework_operations::multiplyRows()
{
    addColumns();
    row(R"({"int": 5})", "{}", "multiply", R"({"int": -7})", R"({"int":-35})");
    row(R"({"int": 5})", "{}", "multiply", R"({"int": 0})", R"({"int":0})");
    row(R"({"int": 4611686018427387904})", "{}", "multiply", R"({"int": 2})",
        R"({"int":9223372036854775807})");
    row(R"({"int": 4611686018427387904})", "{}", "multiply", R"({"int": -2})",
        R"({"int":-9223372036854775808})");
    row(R"({"int": 4611686018427387904})", "{}", "multiply", R"({"int": -3})",
        R"({"int":-9223372036854775808})");
    row(R"({"int": -9223372036854775808})", "{}", "multiply", R"({"int": -1})",
        R"({"int":9223372036854775807})");
    row(R"({"double": 0.5})", "{}", "multiply", R"({"int": 3})", R"({"double":1.5})");
    row(R"({"double": 1e300})", "{}", "multiply", R"({"double": 0.0})", R"({"double":0.0})");
    row(R"({"int": 30})", R"({"max": 100})", "multiply", R"({"int": 9})", R"({"int":100})");
    row(R"({"int": 3})", "{}", "multiply", R"({"double": 1.5})", R"({"int":3})");
}

void tst_framework_operations::toggleRows()
{
    addColumns();
    row(R"({"bool": true})", "{}", "toggle", "{}", R"({"bool":false})");
    row(R"({"bool": false})", R"({"kind": "bool"})", "toggle", "{}", R"({"bool":true})");
    row(R"({"bool": false})", "{}", "toggle", R"({"int": 5})", R"({"bool":true})");
    row(R"({"bool": true})", R"({"values": [true]})", "toggle", "{}", R"({"bool":true})");
    row(R"({"int": 1})", "{}", "toggle", "{}", R"({"int":1})");
    row(R"({"string": "true"})", "{}", "toggle", "{}", R"({"string":"true"})");
}

void tst_framework_operations::appendRows()
{
    addColumns();
    row(R"({"string": "ab"})", "{}", "append", R"({"string": "c"})", R"({"string":"abc"})");
    row(R"({"string": "ab"})", R"({"maxLength": 2})", "append", R"({"string": "c"})",
        R"({"string":"ab"})");
    row(R"({"string": "ab"})", "{}", "append", R"({"int": 5})", R"({"string":"ab"})");
    row(R"({"list": [1]})", "{}", "append", R"({"list": [2, "x"]})", R"({"list":[1,2,"x"]})");
    row(R"({"list": [1]})", "{}", "append", R"({"list": []})", R"({"list":[1]})");
    row(R"({"list": [1]})", "{}", "append", R"({"list": [[2]]})", R"({"list":[1,[2]]})");
    row(R"({"list": [1]})", "{}", "append", R"({"string": "x"})", R"({"list":[1,"x"]})");
    row(R"({"list": [1]})", "{}", "append", R"({"bool": true})", R"({"list":[1,true]})");
    row(R"({"list": [1]})", R"({"maxLength": 1})", "append", R"({"int": 2})", R"({"list":[1]})");
    row(R"({"list": [1]})", "{}", "append", "{}", R"({"list":[1]})");
    row(R"({"int": 1})", "{}", "append", R"({"int": 2})", R"({"int":1})");
    row(R"({"bool": true})", "{}", "append", R"({"bool": true})", R"({"bool":true})");
}

void tst_framework_operations::removeRows()
{
    addColumns();
    row(R"({"string": "banana"})", "{}", "remove", R"({"string": "an"})", R"({"string":"ba"})");
    row(R"({"string": "banana"})", "{}", "remove", R"({"string": "x"})", R"({"string":"banana"})");
    row(R"({"string": "banana"})", "{}", "remove", R"({"string": ""})", R"({"string":"banana"})");
    row(R"({"string": "ab"})", R"({"minLength": 2})", "remove", R"({"string": "a"})",
        R"({"string":"ab"})");
    row(R"({"list": [1, 2, 1, "1"]})", "{}", "remove", R"({"int": 1})", R"({"list":[2,"1"]})");
    row(R"({"list": [1, 2, 1, "1"]})", "{}", "remove", R"({"string": "1"})", R"({"list":[1,2,1]})");
    row(R"({"list": [1, 2.0]})", "{}", "remove", R"({"int": 2})", R"({"list":[1]})");
    row(R"({"list": [1, true]})", "{}", "remove", R"({"bool": true})", R"({"list":[1]})");
    row(R"({"list": [2, 2.5, -0.0, 9007199254740993]})", "{}", "remove",
        R"({"list": [2.0, 0, 9007199254740992.0]})", R"({"list":[2.5,9007199254740993]})");
    row(R"({"list": [18446744073709551615, true, 1, {"a": [1], "b": 2}, [1, "x"], ""]})", "{}",
        "remove", R"({"list": [18446744073709551615, 1.0, {"b": 2.0, "a": [1.0]}, [1, "x"]]})",
        R"({"list":[true,""]})");
    row(R"({"list": [1, 2, 3]})", "{}", "remove", R"({"list": [3, 1, 9]})", R"({"list":[2]})");
    row(R"({"list": [1, [2], {"a": 1}, {"a": 2}, null]})", "{}", "remove",
        R"({"list": [[2], {"a": 1}, null]})", R"({"list":[1,{"a":2}]})");
    row(R"({"list": [1]})", "{}", "remove", R"({"list": []})", R"({"list":[1]})");
    row(R"({"list": [1]})", R"({"minLength": 1})", "remove", R"({"int": 1})", R"({"list":[1]})");
    row(R"({"int": 1})", "{}", "remove", R"({"int": 1})", R"({"int":1})");
}

void tst_framework_operations::valuesRows()
{
    addColumns();
    const char* words = R"({"values": ["eco", "normal", "sport"]})";
    row(R"({"string": "eco"})", words, "next", "{}", R"({"string":"normal"})");
    row(R"({"string": "normal"})", words, "next", "{}", R"({"string":"sport"})");
    row(R"({"string": "sport"})", words, "next", "{}", R"({"string":"sport"})");
    row(R"({"string": "sport"})", words, "previous", "{}", R"({"string":"normal"})");
    row(R"({"string": "eco"})", words, "previous", "{}", R"({"string":"eco"})");
    row(R"({"string": "other"})", words, "next", "{}", R"({"string":"eco"})");
    row(R"({"string": "other"})", words, "previous", "{}", R"({"string":"sport"})");
    row("{}", words, "next", "{}", R"({"string":"eco"})");
    row("{}", words, "previous", "{}", R"({"string":"sport"})");
    // In their order, not that of the numbers; the step is not theirs.
    row(R"({"int": 10})", R"({"values": [30, 10, 20]})", "next", "{}", R"({"int":20})");
    row(R"({"int": 10})", R"({"kind": "int", "values": [30, 10, 20], "step": 10})", "previous",
        "{}", R"({"int":30})");
    row(R"({"double": 2.4})", R"({"values": [2.4, 5]})", "next", "{}", R"({"double":5.0})");
    row(R"({"bool": true})", R"({"values": [true, false]})", "next", "{}", R"({"bool":false})");
    row(R"({"list": [1]})", R"({"values": [[1], [2]]})", "next", "{}", R"({"list":[2]})");
    row(R"({"int": 1})", words, "next", "{}", R"({"int":1})");
    // Past what the range refuses.
    const char* cut = R"({"values": [1, 100, 5, 200], "max": 10})";
    row(R"({"int": 1})", cut, "next", "{}", R"({"int":5})");
    row(R"({"int": 5})", cut, "next", "{}", R"({"int":5})");
    row(R"({"int": 5})", cut, "previous", "{}", R"({"int":1})");
    row(R"({"int": 100})", cut, "next", "{}", R"({"int":5})");
    row(R"({"int": 7})", cut, "previous", "{}", R"({"int":5})");
    row("{}", R"({"values": [100, 200], "max": 10})", "next", "{}", "{}");
}

void tst_framework_operations::stepRows()
{
    addColumns();
    const char* fives = R"({"min": 0, "max": 12, "step": 5})";
    row(R"({"int": 0})", fives, "next", "{}", R"({"int":5})");
    row(R"({"int": 10})", fives, "next", "{}", R"({"int":10})");
    row(R"({"int": 10})", fives, "previous", "{}", R"({"int":5})");
    row(R"({"int": 0})", fives, "previous", "{}", R"({"int":0})");
    // From between two steps.
    row(R"({"int": 7})", fives, "next", "{}", R"({"int":10})");
    row(R"({"int": 7})", fives, "previous", "{}", R"({"int":5})");
    row(R"({"int": 8})", fives, "next", "{}", R"({"int":10})");
    row(R"({"int": 8})", fives, "previous", "{}", R"({"int":5})");
    // From outside of the range.
    row(R"({"int": 99})", fives, "previous", "{}", R"({"int":10})");
    row(R"({"int": 99})", fives, "next", "{}", R"({"int":10})");
    row(R"({"int": -9})", fives, "next", "{}", R"({"int":0})");
    row(R"({"int": 5})", "{}", "next", "{}", R"({"int":6})");
    row(R"({"int": 5})", "{}", "previous", "{}", R"({"int":4})");
    row(R"({"int": 5})", R"({"kind": "int", "step": 3})", "next", "{}", R"({"int":6})");
    row(R"({"int": 9223372036854775807})", "{}", "next", "{}", R"({"int":9223372036854775807})");
    row(R"({"int": -9223372036854775808})", "{}", "previous", "{}",
        R"({"int":-9223372036854775808})");
    row(R"({"double": 0.2})", R"({"min": 0.0, "max": 1.0, "step": 0.1})", "next", "{}",
        R"({"double":0.3})");
    row(R"({"double": 0.3})", R"({"min": 0.0, "max": 1.0, "step": 0.1})", "previous", "{}",
        R"({"double":0.2})");
    row(R"({"double": 1.0})", R"({"min": 0.0, "max": 1.0, "step": 0.1})", "next", "{}",
        R"({"double":1.0})");
    row(R"({"double": 0.25})", R"({"min": 0.0, "max": 1.0, "step": 0.1})", "next", "{}",
        R"({"double":0.3})");
    row(R"({"double": 0.25})", R"({"min": 0.0, "max": 1.0, "step": 0.1})", "previous", "{}",
        R"({"double":0.2})");
    // Beside its step by rounding errors only.
    row(R"({"double": 0.30000000000000004})", R"({"min": 0.0, "max": 1.0, "step": 0.1})",
        "previous", "{}", R"({"double":0.2})");
    row(R"({"double": 0.7999999999999999})", R"({"min": 0.0, "max": 1.0, "step": 0.1})", "next",
        "{}", R"({"double":0.9})");
    row(R"({"double": 0.5})", "{}", "next", "{}", R"({"double":1.5})");
    // The operand does not matter.
    row(R"({"int": 5})", fives, "next", R"({"string": "x"})", R"({"int":10})");
}

void tst_framework_operations::neutralRows()
{
    addColumns();
    row("{}", "{}", "add", R"({"int": 5})", R"({"int":5})");
    row("{}", "{}", "add", R"({"double": 0.5})", R"({"double":0.5})");
    row("{}", R"({"min": 10})", "add", R"({"int": 5})", R"({"int":10})");
    row("{}", "{}", "multiply", R"({"int": 5})", R"({"int":5})");
    row("{}", R"({"kind": "double"})", "multiply", R"({"int": 5})", R"({"double":5.0})");
    row("{}", "{}", "toggle", "{}", R"({"bool":true})");
    row("{}", "{}", "append", R"({"string": "x"})", R"({"string":"x"})");
    row("{}", "{}", "append", R"({"list": [1]})", R"({"list":[1]})");
    row("{}", R"({"kind": "list"})", "append", R"({"int": 1})", R"({"list":[1]})");
    row("{}", "{}", "remove", R"({"string": "x"})", R"({"string":""})");
    row("{}", R"({"kind": "list"})", "remove", R"({"int": 1})", R"({"list":[]})");
    row("{}", "{}", "set", R"({"int": 5})", R"({"int":5})");
    row("{}", R"({"kind": "int"})", "next", "{}", R"({"int":1})");
    row("{}", R"({"min": 10, "max": 20, "step": 5})", "next", "{}", R"({"int":10})");
    row("{}", R"({"min": 10, "max": 20, "step": 5})", "previous", "{}", R"({"int":10})");
    row("{}", "{}", "add", "{}", "{}");
    row("{}", "{}", "next", "{}", "{}");
    row("{}", "{}", "append", R"({"int": 1})", "{}");
}

void tst_framework_operations::unfitRows()
{
    addColumns();
    // Verbs.
    row(R"({"int": 5})", "{}", "increase", R"({"int": 1})", R"({"int":5})");
    row(R"({"int": 5})", "{}", "", R"({"int": 1})", R"({"int":5})");
    row(R"({"int": 5})", "{}", "ADD", R"({"int": 1})", R"({"int":5})");
    row("{}", "{}", "increase", R"({"int": 1})", "{}");
    // Kinds of the operand.
    row(R"({"int": 5})", "{}", "add", R"({"double": 0.5})", R"({"int":5})");
    row(R"({"int": 5})", "{}", "add", R"({"string": "1"})", R"({"int":5})");
    row(R"({"int": 5})", "{}", "add", R"({"bool": true})", R"({"int":5})");
    row(R"({"int": 5})", "{}", "add", "{}", R"({"int":5})");
    row(R"({"int": 5})", "{}", "add", R"({"color": 1})", R"({"int":5})");
    row(R"({"int": 5})", "{}", "add", R"({"int": "1"})", R"({"int":5})");
    row(R"({"int": 5})", "{}", "add", R"({"int": 1.5})", R"({"int":5})");
    row(R"({"int": 5})", "{}", "set", R"({"int": "1"})", R"({"int":5})");
    row(R"({"int": 5})", "{}", "set", R"({"color": 1})", R"({"int":5})");
    row(R"({"int": 5})", "{}", "add", R"({"int": 1, "double": 1.0})", R"({"int":5})");
    // Kinds of the current value.
    row(R"({"color": 5})", "{}", "add", R"({"int": 1})", R"({"color":5})");
    row(R"({"int": 5, "double": 5.0})", "{}", "add", R"({"int": 1})", R"({"double":5.0,"int":5})");
    row(R"({"int": "x"})", "{}", "add", R"({"int": 1})", R"({"int":"x"})");
    row(R"({"string": "x"})", R"({"kind": "int"})", "add", R"({"int": 1})", R"({"string":"x"})");
    row(R"({"string": "x"})", "{}", "add", R"({"int": 1})", R"({"string":"x"})");
    row(R"({"string": "x"})", "{}", "next", "{}", R"({"string":"x"})");
    row(R"({"bool": true})", "{}", "next", "{}", R"({"bool":true})");
    row(R"({"bool": true})", "{}", "multiply", R"({"int": 0})", R"({"bool":true})");
    // Constraints that cannot be understood.
    row(R"({"int": 5})", R"({"kind": "nonsense"})", "add", R"({"int": 1})", R"({"int":5})");
    row(R"({"int": 5})", R"({"kind": "int", "step": 0})", "next", "{}", R"({"int":5})");
    row(R"({"int": 5})", R"({"kind": "int", "step": 0.5})", "next", "{}", R"({"int":5})");
    row(R"({"int": 5})", R"({"kind": "int", "min": "a"})", "add", R"({"int": 1})", R"({"int":5})");
    row(R"({"int": 5})", R"({"min": 10, "max": 0})", "add", R"({"int": 1})", R"({"int":5})");
}

void tst_framework_operations::sumsBeyondTheDoublesSaturate()
{
    const double highest = std::numeric_limits<double>::max();
    const TuloValue value = TuloValue::of(TuloValue::Double(), highest);
    const TuloValue two = TuloValue::of(TuloValue::Double(), -2.0);

    QCOMPARE(CMOperation::apply(value, TuloEdit(), TuloOperation(QStringLiteral("add"), value)),
             value);
    QCOMPARE(CMOperation::apply(value, TuloEdit(), TuloOperation(QStringLiteral("multiply"), two)),
             TuloValue::of(TuloValue::Double(), -highest));
}

void tst_framework_operations::operandThatIsNotFiniteLeavesTheValue()
{
    const TuloValue value = TuloValue::of(TuloValue::Double(), 1.0);
    for (const char* verb : { "set", "add", "multiply" }) {
        for (const double number :
             { std::numeric_limits<double>::quiet_NaN(), HUGE_VAL, -HUGE_VAL }) {
            const TuloOperation operation(QString::fromLatin1(verb),
                                          TuloValue::of(TuloValue::Double(), number));
            QCOMPARE(CMOperation::apply(value, TuloEdit(), operation), value);
        }
    }
}

void tst_framework_operations::tenStepsOfATenthAreOne()
{
    const TuloEdit edit(hash(R"({"min": 0.0, "max": 2.0, "step": 0.1})"));
    TuloValue value = TuloValue::of(TuloValue::Double(), 0.0);
    QByteArray walked;
    for (int i = 0; i < 10; ++i) {
        value = CMOperation::apply(value, edit, TuloOperation(QStringLiteral("next"), TuloValue()));
        walked += TuloJson::serialize(value.content()) + ' ';
    }

    QCOMPARE(walked, QByteArray("0.1 0.2 0.3 0.4 0.5 0.6 0.7 0.8 0.9 1.0 "));
}

// Each compared with each, so many would take hours.
void tst_framework_operations::removeTakesTimeInProportion()
{
    constexpr int count = 200000;
    QVariantList all;
    QVariantList odd;
    for (int i = 0; i < count; ++i) {
        all.append(i);
        if (i % 2 != 0)
            odd.append(double(i));
    }

    const TuloValue result = CMOperation::apply(
        TuloValue::of(TuloValue::List(), all), TuloEdit(),
        TuloOperation(QStringLiteral("remove"), TuloValue::of(TuloValue::List(), odd)));

    QCOMPARE(result.content().toList().size(), count / 2);
}

QTEST_GUILESS_MAIN(tst_framework_operations)
#include "tst_framework_operations.moc"
