#include "api/core/model/cmoperation.h"

#include "api/core/model/cmedit.h"

#include <algorithm>
#include <limits>

namespace {

// What a verb works on. Its result is empty where it does not fit.
struct Change
{
    QString kind;
    TuloValue current; ///< of that kind, or empty
    TuloValue operand;
    const TuloEdit& edit;
};

// ---------------------------------------------------------------------------------------------
// Numbers.
// ---------------------------------------------------------------------------------------------

qlonglong saturated(bool negative)
{
    return negative ? std::numeric_limits<qlonglong>::min() : std::numeric_limits<qlonglong>::max();
}

double saturated(double amount)
{
    return std::clamp(amount, std::numeric_limits<double>::lowest(),
                      std::numeric_limits<double>::max());
}

// Both of the same number kind.
TuloValue sum(const TuloValue& left, const TuloValue& right)
{
    if (left.kind() == TuloValue::Double()) {
        return TuloValue::of(left.kind(),
                             saturated(left.content().toDouble() + right.content().toDouble()));
    }
    const qlonglong addend = right.content().toLongLong();
    qlonglong result = 0;
    if (__builtin_add_overflow(left.content().toLongLong(), addend, &result))
        result = saturated(addend < 0);
    return TuloValue::of(left.kind(), result);
}

TuloValue product(const TuloValue& left, const TuloValue& right)
{
    if (left.kind() == TuloValue::Double()) {
        return TuloValue::of(left.kind(),
                             saturated(left.content().toDouble() * right.content().toDouble()));
    }
    const qlonglong first = left.content().toLongLong();
    const qlonglong second = right.content().toLongLong();
    qlonglong result = 0;
    if (__builtin_mul_overflow(first, second, &result))
        result = saturated((first < 0) != (second < 0));
    return TuloValue::of(left.kind(), result);
}

bool isNumber(const Change& change)
{
    return change.kind == TuloValue::Int() || change.kind == TuloValue::Double();
}

TuloValue number(const Change& change, int amount)
{
    return TuloValue::of(TuloValue::Int(), amount).convertedTo(change.kind);
}

TuloValue currentOr(const Change& change, int neutral)
{
    return change.current.isEmpty() ? number(change, neutral) : change.current;
}

TuloValue add(const Change& change)
{
    const TuloValue addend = change.operand.convertedTo(change.kind);
    return isNumber(change) && !addend.isEmpty() ? sum(currentOr(change, 0), addend) : TuloValue();
}

TuloValue multiply(const Change& change)
{
    const TuloValue factor = change.operand.convertedTo(change.kind);
    return isNumber(change) && !factor.isEmpty() ? product(currentOr(change, 1), factor)
                                                 : TuloValue();
}

// ---------------------------------------------------------------------------------------------
// The other kinds.
// ---------------------------------------------------------------------------------------------

TuloValue set(const Change& change)
{
    return change.operand;
}

TuloValue toggle(const Change& change)
{
    return change.kind == TuloValue::Bool()
        ? TuloValue::of(change.kind, !change.current.content().toBool())
        : TuloValue();
}

QVariantList elements(const TuloValue& operand)
{
    return operand.kind() == TuloValue::List() ? operand.content().toList()
                                               : QVariantList { operand.content() };
}

TuloValue append(const Change& change)
{
    const QVariant current = change.current.content();
    if (change.kind == TuloValue::List() && !change.operand.isEmpty())
        return TuloValue::of(change.kind, current.toList() + elements(change.operand));
    if (change.kind == TuloValue::String() && change.operand.kind() == change.kind)
        return TuloValue::of(change.kind, current.toString() + change.operand.content().toString());
    return TuloValue();
}

// Alike as contents of the same kind: strictly by type, numbers by amount.
bool areAlike(const QVariant& left, const QVariant& right)
{
    const QString kind = TuloValue::List();
    return TuloValue::of(kind, left) == TuloValue::of(kind, right);
}

TuloValue remove(const Change& change)
{
    const QVariant current = change.current.content();
    if (change.kind == TuloValue::String() && change.operand.kind() == change.kind) {
        const QString unwanted = change.operand.content().toString();
        QString text = current.toString();
        return TuloValue::of(change.kind, unwanted.isEmpty() ? text : text.remove(unwanted));
    }
    if (change.kind != TuloValue::List() || change.operand.isEmpty())
        return TuloValue();
    const QVariantList unwanted = elements(change.operand);
    QVariantList left;
    const QVariantList all = current.toList();
    std::copy_if(all.cbegin(), all.cend(), std::back_inserter(left), [&](const QVariant& element) {
        return std::none_of(
            unwanted.cbegin(), unwanted.cend(),
            [&element](const QVariant& candidate) { return areAlike(candidate, element); });
    });
    return TuloValue::of(change.kind, left);
}

// ---------------------------------------------------------------------------------------------
// Next and previous; `direction` is 1 or -1.
// ---------------------------------------------------------------------------------------------

// Both of the same number kind.
bool isBelow(const TuloValue& left, const TuloValue& right)
{
    return left.kind() == TuloValue::Int()
        ? left.content().toLongLong() < right.content().toLongLong()
        : left.content().toDouble() < right.content().toDouble();
}

TuloValue neighbourInValues(const Change& change, int direction)
{
    const QVariantList values = change.edit.values();
    const auto valueAt = [&](int index) {
        return TuloValue::ofContent(values.at(index)).convertedTo(change.kind);
    };
    const int last = values.size() - 1;
    for (int index = 0; index <= last; ++index) {
        if (valueAt(index) == change.current && !change.current.isEmpty())
            return valueAt(std::clamp(index + direction, 0, last));
    }
    return valueAt(direction > 0 ? 0 : last);
}

TuloValue neighbourStep(const Change& change, int direction)
{
    const TuloValue start = currentOr(change, 0);
    const TuloValue onStep = CMEdit::judge(start, start, change.edit).value;
    const TuloValue step = change.edit.step().isValid()
        ? TuloValue::ofContent(change.edit.step()).convertedTo(change.kind)
        : number(change, 1);
    if (onStep.isEmpty() || step.isEmpty())
        return TuloValue();
    // From between two steps the nearest one may already be the neighbour.
    const bool isThere = direction > 0 ? isBelow(start, onStep) : isBelow(onStep, start);
    return isThere ? onStep : sum(onStep, product(step, number(change, direction)));
}

TuloValue neighbour(const Change& change, int direction)
{
    if (!change.edit.values().isEmpty())
        return neighbourInValues(change, direction);
    return isNumber(change) ? neighbourStep(change, direction) : TuloValue();
}

TuloValue next(const Change& change)
{
    return neighbour(change, 1);
}

TuloValue previous(const Change& change)
{
    return neighbour(change, -1);
}

struct Verb
{
    QString name;
    TuloValue (*apply)(const Change&);
};

const Verb allVerbs[] = {
    { QStringLiteral("set"), set },           { QStringLiteral("add"), add },
    { QStringLiteral("multiply"), multiply }, { QStringLiteral("toggle"), toggle },
    { QStringLiteral("append"), append },     { QStringLiteral("remove"), remove },
    { QStringLiteral("next"), next },         { QStringLiteral("previous"), previous },
};

} // namespace

const QStringList& CMOperation::verbs()
{
    static const QStringList names = [] {
        QStringList list;
        for (const Verb& verb : allVerbs)
            list.append(verb.name);
        return list;
    }();
    return names;
}

TuloValue CMOperation::apply(const TuloValue& current, const TuloEdit& edit,
                             const TuloOperation& operation)
{
    const auto* const verb =
        std::find_if(std::begin(allVerbs), std::end(allVerbs), [&operation](const Verb& candidate) {
            return candidate.name == operation.op();
        });
    const TuloValue operand = operation.value().convertedTo(operation.value().kind());
    if (verb == std::end(allVerbs) || operand.isEmpty() != operation.value().isEmpty())
        return current;

    QString kind = CMEdit::kind(current, edit);
    if (kind.isEmpty())
        kind = verb->apply == toggle ? TuloValue::Bool() : operand.kind();
    const Change change { kind, current.convertedTo(kind), operand, edit };
    // Of another kind, or malformed: only what replaces it whole fits.
    if (change.current.isEmpty() && !current.isEmpty() && verb->apply != set)
        return current;

    const TuloValue result = CMEdit::judge(current, verb->apply(change), edit).value;
    return result.isEmpty() ? current : result;
}
