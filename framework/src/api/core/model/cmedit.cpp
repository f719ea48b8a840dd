#include "api/core/model/cmedit.h"

#include "api/core/tulo.h"
#include "api/core/tulojson.h"

#include <QRegularExpression>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

namespace {

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("TuloFramework"));

using Judgement = CMEdit::Judgement;

// The smallest double above every qlonglong. Its negative is the lowest qlonglong.
constexpr double integersEnd = 9223372036854775808.0;
// How far beside a step, as a fraction of it, a double still lies on it; far from the origin of
// the grid more, as doubles get coarser there.
constexpr double stepTolerance = 1e-6;
constexpr double farStepTolerance = 1.0 / (1LL << 51);
// From this step on the doubles are as coarse as the grid, which then moves none of them.
constexpr double lastStep = 1LL << 49;

Judgement refused(const QString& reason)
{
    return { TuloValue(), reason };
}

Judgement malformed(const QString& constraint)
{
    return refused(QStringLiteral("the constraint '%1' is malformed").arg(constraint));
}

Judgement noneFits()
{
    return refused(QStringLiteral("no value fits the constraints"));
}

QString notOfKind(const QString& kind)
{
    return QStringLiteral("it is not of the kind '%1'").arg(kind);
}

Judgement adjusted(const TuloValue& value, const QStringList& reasons)
{
    return { value, reasons.join(QLatin1String(", ")) };
}

const QString belowMin = QStringLiteral("it is below 'min'");
const QString aboveMax = QStringLiteral("it is above 'max'");
const QString notJson = QStringLiteral("it holds what JSON cannot hold");
const QString besideStep = QStringLiteral("it does not lie on a 'step'");

bool isNumberKind(const QString& kind)
{
    return kind == TuloValue::Int() || kind == TuloValue::Double();
}

// ---------------------------------------------------------------------------------------------
// The kind.
// ---------------------------------------------------------------------------------------------

struct WantedKind
{
    QString kind; ///< empty when nothing names one
    QString malformedConstraint; ///< the one that ought to have named it
    bool isStored = false; ///< only the stored value has it
};

// The kind of all of them; ints among doubles count as doubles. Empty when they do not agree, or
// there are none.
QString commonKind(const QVariantList& values)
{
    QStringList kinds;
    for (const QVariant& value : values)
        kinds.append(TuloValue::ofContent(value).kind());
    kinds.removeDuplicates();
    if (kinds.size() <= 1)
        return kinds.value(0);
    const bool allNumbers = std::all_of(kinds.cbegin(), kinds.cend(), isNumberKind);
    return allNumbers ? TuloValue::Double() : QString();
}

WantedKind wantedKind(const TuloValue& stored, const TuloEdit& edit)
{
    if (edit.isMalformed())
        return { {}, TuloEdit::Malformed() };
    if (edit.__hashAttribute(TuloEdit::Kind()).isValid()) {
        const bool known = TuloValue::kinds().contains(edit.kind());
        return known ? WantedKind { edit.kind(), {} } : WantedKind { {}, TuloEdit::Kind() };
    }
    bool isBounded = false;
    bool isDouble = stored.kind() == TuloValue::Double();
    for (const QString& key : { TuloEdit::Min(), TuloEdit::Max() }) {
        const QVariant bound = edit.__hashAttribute(key);
        if (!bound.isValid())
            continue;
        const QString kind = TuloValue::ofContent(bound).kind();
        if (!isNumberKind(kind))
            return { {}, key };
        isBounded = true;
        isDouble = isDouble || kind == TuloValue::Double();
    }
    const QVariantList values = edit.values();
    const QString listed = commonKind(values);
    isDouble = isDouble || listed == TuloValue::Double();
    if (isBounded || isNumberKind(listed))
        return { isDouble ? TuloValue::Double() : TuloValue::Int(), {} };
    if (values.isEmpty())
        return { stored.kind(), {}, true };
    return listed.isEmpty() ? WantedKind { {}, TuloEdit::Values() } : WantedKind { listed, {} };
}

// Lists may hold anything.
bool holdsJson(const TuloValue& value)
{
    return value.kind() != TuloValue::List() || !TuloJson::serialize(value.content()).isNull();
}

// `requested` in the wanted kind: a number as the nearest one of it.
Judgement judgeKind(const TuloValue& requested, const QString& kind)
{
    const TuloValue same = requested.convertedTo(kind);
    if (!same.isEmpty())
        return { same, {} };
    if (kind.isEmpty())
        return refused(QStringLiteral("it is of no known kind"));
    const TuloValue number = requested.convertedTo(requested.kind());
    if (!isNumberKind(kind) || !isNumberKind(number.kind()))
        return refused(notOfKind(kind));
    if (kind == TuloValue::Double())
        return { TuloValue::of(kind, number.content().toDouble()), notOfKind(kind) };
    using Limits = std::numeric_limits<qlonglong>;
    const double rounded = std::round(number.content().toDouble());
    const qlonglong integer = rounded >= integersEnd ? Limits::max()
        : rounded < -integersEnd                     ? Limits::min()
                                                     : qlonglong(rounded);
    return { TuloValue::of(kind, integer), notOfKind(kind) };
}

// What is asked of a value that nothing constrains: that it can be stored. It stays as it is.
Judgement judgeUnconstrained(const TuloValue& requested)
{
    // Integers beyond the signed 64 bits, which no constraint can be about.
    const QString kind = requested.kind();
    if (kind == TuloValue::Int() && requested.content().userType() == QMetaType::ULongLong)
        return { requested, {} };
    Judgement judgement = judgeKind(requested, kind);
    if (judgement.value.isEmpty())
        return judgement;
    return holdsJson(judgement.value) ? Judgement { requested, {} } : refused(notJson);
}

// ---------------------------------------------------------------------------------------------
// Numbers. A range of the kind's own type is made of the bounds, whatever theirs; the grid lies
// in that range. 64-bit differences are taken unsigned, where they always fit.
// ---------------------------------------------------------------------------------------------

// The lowest qlonglong that is not below `min`; none when `min` lies above them all.
std::optional<qlonglong> lowestInteger(const QVariant& min)
{
    using Limits = std::numeric_limits<qlonglong>;
    if (!min.isValid())
        return Limits::min();
    const TuloValue bound = TuloValue::ofContent(min);
    if (bound.kind() == TuloValue::Int())
        return bound.content().toLongLong();
    const double lowest = std::ceil(bound.content().toDouble());
    if (lowest >= integersEnd)
        return std::nullopt;
    return lowest < -integersEnd ? Limits::min() : qlonglong(lowest);
}

std::optional<qlonglong> highestInteger(const QVariant& max)
{
    using Limits = std::numeric_limits<qlonglong>;
    if (!max.isValid())
        return Limits::max();
    const TuloValue bound = TuloValue::ofContent(max);
    if (bound.kind() == TuloValue::Int())
        return bound.content().toLongLong();
    const double highest = std::floor(bound.content().toDouble());
    if (highest < -integersEnd)
        return std::nullopt;
    return highest >= integersEnd ? Limits::max() : qlonglong(highest);
}

// The nearest step within the range; none when the range holds none.
std::optional<qlonglong> nearestStep(qlonglong value, qlonglong origin, qulonglong step,
                                     qlonglong lowest, qlonglong highest)
{
    const bool above = value >= origin;
    const qulonglong beyond = above ? (qulonglong(value) - qulonglong(origin)) % step
                                    : (qulonglong(origin) - qulonglong(value)) % step;
    if (beyond == 0)
        return value;
    const qulonglong down = above ? beyond : step - beyond;
    const qulonglong up = step - down;
    const bool canGoDown = down <= qulonglong(value) - qulonglong(lowest);
    const bool canGoUp = up <= qulonglong(highest) - qulonglong(value);
    if (canGoUp && (up <= down || !canGoDown))
        return qlonglong(qulonglong(value) + up);
    if (canGoDown)
        return qlonglong(qulonglong(value) - down);
    return std::nullopt;
}

Judgement judgeInteger(const TuloValue& value, const TuloEdit& edit)
{
    const std::optional<qlonglong> lowest = lowestInteger(edit.min());
    const std::optional<qlonglong> highest = highestInteger(edit.max());
    if (!lowest || !highest || *lowest > *highest)
        return noneFits();

    const qlonglong requested = value.content().toLongLong();
    QStringList reasons;
    if (requested < *lowest)
        reasons.append(belowMin);
    if (requested > *highest)
        reasons.append(aboveMax);
    qlonglong result = std::clamp(requested, *lowest, *highest);

    if (edit.step().isValid()) {
        const QVariant step =
            TuloValue::ofContent(edit.step()).convertedTo(TuloValue::Int()).content();
        if (step.toLongLong() < 1)
            return malformed(TuloEdit::Step());
        const qlonglong origin = edit.min().isValid() ? *lowest : 0;
        const std::optional<qlonglong> onStep =
            nearestStep(result, origin, step.toULongLong(), *lowest, *highest);
        if (!onStep)
            return noneFits();
        if (*onStep != result)
            reasons.append(besideStep);
        result = *onStep;
    }
    return adjusted(TuloValue::of(TuloValue::Int(), result), reasons);
}

// The lowest double that is not below `min`. An int of more than 53 bits may have been rounded.
double lowestDouble(const QVariant& min)
{
    if (!min.isValid())
        return std::numeric_limits<double>::lowest();
    const TuloValue bound = TuloValue::ofContent(min);
    const double lowest = bound.content().toDouble();
    const bool roundedDown = bound.kind() == TuloValue::Int() && lowest < integersEnd
        && qlonglong(lowest) < bound.content().toLongLong();
    return roundedDown ? std::nextafter(lowest, HUGE_VAL) : lowest;
}

double highestDouble(const QVariant& max)
{
    if (!max.isValid())
        return std::numeric_limits<double>::max();
    const TuloValue bound = TuloValue::ofContent(max);
    const double highest = bound.content().toDouble();
    const bool roundedUp = bound.kind() == TuloValue::Int()
        && (highest >= integersEnd || qlonglong(highest) > bound.content().toLongLong());
    return roundedUp ? std::nextafter(highest, -HUGE_VAL) : highest;
}

// The amount of the step number `count`, free of the last digits' noise: three steps of 0.1 are
// 0.3 and not 0.30000000000000004.
double stepAmount(double origin, double step, double count)
{
    const double amount = origin + count * step;
    const double plain = QByteArray::number(amount, 'g', 15).toDouble();
    return std::abs(plain - amount) < step * stepTolerance ? plain : amount;
}

bool liesOnStep(double count)
{
    const double beside = std::abs(count - std::round(count));
    return std::abs(count) < lastStep
        && beside < stepTolerance + std::abs(count) * farStepTolerance;
}

// The nearest step within the range; none when the range holds none.
std::optional<double> nearestStep(double value, double origin, double step, double lowest,
                                  double highest)
{
    const double count = (value - origin) / step;
    // A step that leaves the range by rounding errors only is the range's end.
    const double beside = step * stepTolerance;
    double up = stepAmount(origin, step, std::ceil(count));
    if (up > highest && up - highest < beside)
        up = highest;
    double down = stepAmount(origin, step, std::floor(count));
    if (down < lowest && lowest - down < beside)
        down = lowest;
    const bool canGoUp = up <= highest;
    const bool canGoDown = down >= lowest;
    if (canGoUp && (up - value <= value - down || !canGoDown))
        return up;
    if (canGoDown)
        return down;
    return std::nullopt;
}

Judgement judgeDouble(const TuloValue& value, const TuloEdit& edit)
{
    const double lowest = lowestDouble(edit.min());
    const double highest = highestDouble(edit.max());
    if (lowest > highest)
        return noneFits();

    const double requested = value.content().toDouble();
    QStringList reasons;
    if (requested < lowest)
        reasons.append(belowMin);
    if (requested > highest)
        reasons.append(aboveMax);
    double result = std::clamp(requested, lowest, highest);

    if (edit.step().isValid()) {
        const double step = TuloValue::ofContent(edit.step()).content().toDouble();
        if (step <= 0.0)
            return malformed(TuloEdit::Step());
        const double origin = edit.min().isValid() ? lowest : 0.0;
        const double count = (result - origin) / step;
        if (liesOnStep(count)) {
            result = std::clamp(stepAmount(origin, step, std::round(count)), lowest, highest);
        } else if (std::abs(count) < lastStep) {
            const std::optional<double> onStep = nearestStep(result, origin, step, lowest, highest);
            if (!onStep)
                return noneFits();
            reasons.append(besideStep);
            result = *onStep;
        }
    }
    return adjusted(TuloValue::of(TuloValue::Double(), result), reasons);
}

Judgement judgeNumber(const TuloValue& value, const TuloEdit& edit)
{
    for (const QString& key : { TuloEdit::Min(), TuloEdit::Max(), TuloEdit::Step() }) {
        const QVariant constraint = edit.__hashAttribute(key);
        if (constraint.isValid() && !isNumberKind(TuloValue::ofContent(constraint).kind()))
            return malformed(key);
    }
    return value.kind() == TuloValue::Int() ? judgeInteger(value, edit) : judgeDouble(value, edit);
}

// ---------------------------------------------------------------------------------------------
// Texts and lists.
// ---------------------------------------------------------------------------------------------

Judgement judgeLength(const TuloValue& value, const TuloEdit& edit, int length)
{
    if (edit.__hashAttribute(TuloEdit::MinLength()).isValid() && edit.minLength() < 0)
        return malformed(TuloEdit::MinLength());
    if (edit.__hashAttribute(TuloEdit::MaxLength()).isValid() && edit.maxLength() < 0)
        return malformed(TuloEdit::MaxLength());
    if (length < edit.minLength())
        return refused(QStringLiteral("it is shorter than 'minLength'"));
    if (edit.maxLength() >= 0 && length > edit.maxLength())
        return refused(QStringLiteral("it is longer than 'maxLength'"));
    return { value, {} };
}

Judgement judgeText(const TuloValue& value, const TuloEdit& edit)
{
    const QString text = value.content().toString();
    const QVariant constraint = edit.__hashAttribute(TuloEdit::Pattern());
    if (constraint.isValid()) {
        // Judged alone: put between anchors, "a)(b" would become valid.
        if (constraint.userType() != QMetaType::QString
            || !QRegularExpression(edit.pattern()).isValid())
            return malformed(TuloEdit::Pattern());
        const QRegularExpression whole(QRegularExpression::anchoredPattern(edit.pattern()));
        if (!edit.pattern().isEmpty() && !whole.match(text).hasMatch())
            return refused(QStringLiteral("it does not match the 'pattern'"));
    }
    return judgeLength(value, edit, text.size());
}

// ---------------------------------------------------------------------------------------------
// All kinds.
// ---------------------------------------------------------------------------------------------

Judgement judgeList(const TuloValue& value, const TuloEdit& edit)
{
    if (!holdsJson(value))
        return refused(notJson);
    const TuloEdit constraints = edit.elements();
    if (constraints.isMalformed())
        return malformed(TuloEdit::Elements());
    QVariantList elements = value.content().toList();
    QStringList reasons;
    if (!constraints.isEmpty()) {
        for (QVariant& element : elements) {
            const TuloValue requested = TuloValue::ofContent(element);
            const Judgement judgement = requested.isEmpty()
                ? judgeKind(requested, QString())
                : CMEdit::judge(TuloValue(), requested, constraints);
            const QString reason =
                QStringLiteral("an element does not fit 'elements': ") + judgement.reason;
            if (judgement.value.isEmpty())
                return refused(reason);
            if (!judgement.reason.isEmpty() && !reasons.contains(reason))
                reasons.append(reason);
            // As it was where it fits: it may be an integer beyond the signed 64 bits.
            if (judgement.value != requested)
                element = judgement.value.content();
        }
    }
    const Judgement length = judgeLength(value, edit, elements.size());
    return length.value.isEmpty() ? length
                                  : adjusted(TuloValue::of(value.kind(), elements), reasons);
}

Judgement judgeByKind(const TuloValue& value, const TuloEdit& edit)
{
    const QString kind = value.kind();
    if (isNumberKind(kind))
        return judgeNumber(value, edit);
    if (kind == TuloValue::String())
        return judgeText(value, edit);
    if (kind == TuloValue::List())
        return judgeList(value, edit);
    return { value, {} };
}

Judgement judgeListed(const Judgement& judgement, const TuloEdit& edit)
{
    const QVariant constraint = edit.__hashAttribute(TuloEdit::Values());
    if (constraint.isValid() && TuloValue::ofContent(constraint).kind() != TuloValue::List())
        return malformed(TuloEdit::Values());
    const QVariantList values = edit.values();
    const TuloValue& value = judgement.value;
    const bool listed =
        std::any_of(values.cbegin(), values.cend(), [&value](const QVariant& content) {
            return TuloValue::ofContent(content).convertedTo(value.kind()) == value;
        });
    return listed || values.isEmpty() ? judgement
                                      : refused(QStringLiteral("it is not one of the 'values'"));
}

} // namespace

QString CMEdit::kind(const TuloValue& stored, const TuloEdit& edit)
{
    return wantedKind(stored, edit).kind;
}

CMEdit::Judgement CMEdit::judge(const TuloValue& stored, const TuloValue& requested,
                                const TuloEdit& edit)
{
    if (requested.isEmpty())
        return { requested, {} };
    if (edit.isEmpty())
        return judgeUnconstrained(requested);

    const WantedKind wanted = wantedKind(stored, edit);
    if (!wanted.malformedConstraint.isEmpty())
        return malformed(wanted.malformedConstraint);
    // What only the stored value tells may be left from another image.
    const bool isBound = !wanted.isStored && !wanted.kind.isEmpty();
    Judgement ofKind = judgeKind(requested, isBound ? wanted.kind : requested.kind());
    if (ofKind.value.isEmpty())
        return ofKind;
    Judgement judgement = judgeByKind(ofKind.value, edit);
    if (judgement.value.isEmpty())
        return judgement;
    if (ofKind.reason.isEmpty())
        return judgeListed(judgement, edit);
    QStringList reasons { ofKind.reason };
    if (!judgement.reason.isEmpty())
        reasons.append(judgement.reason);
    return judgeListed(adjusted(judgement.value, reasons), edit);
}

TuloValue CMEdit::validate(const TuloValue& stored, const TuloValue& requested,
                           const TuloEdit& edit, const CMPath& fullPath)
{
    const Judgement judgement = judge(stored, requested, edit);
    if (!judgement.reason.isEmpty()) {
        LOG4CPLUS_WARN(logger,
                       "Value for '" << fullPath << "' "
                                     << (judgement.value.isEmpty() ? "refused" : "adjusted") << ": "
                                     << judgement.reason);
    }
    return judgement.value;
}
