#include "api/core/model/cmoperation.h"

#include "api/core/model/cmedit.h"

#include <QHash>
#include <QVariant>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <limits>
#include <unordered_set>

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

// ---------------------------------------------------------------------------------------------
// A set of contents, in which a number equals any number of the same amount and nothing else.
// ---------------------------------------------------------------------------------------------

struct Alike
{
    bool operator()(const QVariant& left, const QVariant& right) const
    {
        const QString kind = TuloValue::List();
        return TuloValue::of(kind, left) == TuloValue::of(kind, right);
    }
};

/// Equal for contents that are alike.
struct ContentHash
{
    std::size_t operator()(const QVariant& content) const
    {
        const TuloValue value = TuloValue::ofContent(content);
        const TuloValue number = value.convertedTo(TuloValue::Double());
        if (!number.isEmpty())
            return ::qHash(number.content().toDouble(), qGlobalQHashSeed());
        if (value.kind() == TuloValue::Int())
            return ::qHash(value.content().toLongLong(), qGlobalQHashSeed());
        if (value.kind() == TuloValue::String())
            return ::qHash(value.content().toString(), qGlobalQHashSeed());
        auto hash = std::size_t(content.userType());
        if (value.kind() == TuloValue::List()) {
            for (const QVariant& element : value.content().toList())
                hash = hash * 31 + (*this)(element);
        } else if (content.userType() == QMetaType::QVariantHash) {
            const QVariantHash entries = content.toHash();
            for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry)
                hash += ::qHash(entry.key(), qGlobalQHashSeed()) ^ (*this)(*entry);
        }
        return hash;
    }
};

using Contents = std::unordered_set<QVariant, ContentHash, Alike>;

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
    const QVariantList operands = elements(change.operand);
    const Contents unwanted(operands.cbegin(), operands.cend());
    QVariantList left;
    const QVariantList all = current.toList();
    std::copy_if(all.cbegin(), all.cend(), std::back_inserter(left),
                 [&unwanted](const QVariant& element) { return unwanted.count(element) == 0; });
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

// Past those that the other constraints refuse.
TuloValue neighbourInValues(const Change& change, int direction)
{
    const QVariantList values = change.edit.values();
    const auto valueAt = [&](int index) {
        return TuloValue::ofContent(values.at(index)).convertedTo(change.kind);
    };
    int index = 0;
    while (index < values.size() && (change.current.isEmpty() || valueAt(index) != change.current))
        ++index;
    if (index == values.size())
        index = direction > 0 ? -1 : values.size();
    for (index += direction; index >= 0 && index < values.size(); index += direction) {
        TuloValue value = valueAt(index);
        const CMEdit::Judgement judgement = CMEdit::judge(value, value, change.edit);
        if (!judgement.value.isEmpty() && judgement.reason.isEmpty())
            return value;
    }
    return change.current;
}

TuloValue neighbourStep(const Change& change, int direction)
{
    const TuloValue start = currentOr(change, 0);
    const CMEdit::Judgement onStep = CMEdit::judge(start, start, change.edit);
    const TuloValue step = change.edit.step().isValid()
        ? TuloValue::ofContent(change.edit.step()).convertedTo(change.kind)
        : number(change, 1);
    if (onStep.value.isEmpty() || step.isEmpty())
        return TuloValue();
    // From between two steps the nearest one may already be the neighbour. What is beside its step
    // by rounding errors only lies on it.
    const bool isThere = !onStep.reason.isEmpty()
        && (direction > 0 ? isBelow(start, onStep.value) : isBelow(onStep.value, start));
    return isThere ? onStep.value : sum(onStep.value, product(step, number(change, direction)));
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
