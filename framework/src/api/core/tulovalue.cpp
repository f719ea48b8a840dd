#include "api/core/tulovalue.h"

#include <QMetaType>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>

namespace {

// The smallest double above every qlonglong. Its negative is the lowest qlonglong.
constexpr double integerLimit = 9223372036854775808.0;

const QString boolKey = QStringLiteral("bool");
const QString intKey = QStringLiteral("int");
const QString doubleKey = QStringLiteral("double");
const QString stringKey = QStringLiteral("string");
const QString listKey = QStringLiteral("list");
const QStringList allKinds { boolKey, intKey, doubleKey, stringKey, listKey };

const QString kindKey = QStringLiteral("kind");
const QString minKey = QStringLiteral("min");
const QString maxKey = QStringLiteral("max");
const QString stepKey = QStringLiteral("step");
const QString valuesKey = QStringLiteral("values");
const QString minLengthKey = QStringLiteral("minLength");
const QString maxLengthKey = QStringLiteral("maxLength");
const QString patternKey = QStringLiteral("pattern");
const QString elementsKey = QStringLiteral("elements");
const QString malformedKey = QStringLiteral("edit");

const QString opKey = QStringLiteral("op");
const QString operandKey = QStringLiteral("value");

int lengthOf(const QVariant& entry)
{
    const QVariant length = TuloValue::ofContent(entry).convertedTo(intKey).content();
    if (!length.isValid() || length.toLongLong() < 0)
        return -1;
    return int(std::min(length.toLongLong(), qlonglong(INT_MAX)));
}

bool isInteger(const QVariant& content)
{
    switch (content.userType()) {
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::LongLong:
        return true;
    case QMetaType::ULongLong:
        return content.toULongLong() <= qulonglong(std::numeric_limits<qlonglong>::max());
    default:
        return false;
    }
}

bool isFiniteNumber(const QVariant& content)
{
    const int type = content.userType();
    if (type == QMetaType::Double || type == QMetaType::Float)
        return std::isfinite(content.toDouble());
    return isInteger(content) || type == QMetaType::ULongLong;
}

// Invalid unless the number is an integer of 64 bits.
QVariant asInteger(const QVariant& number)
{
    if (isInteger(number))
        return number.toLongLong();
    const double amount = number.toDouble();
    const bool fits = amount >= -integerLimit && amount < integerLimit;
    return fits && std::trunc(amount) == amount ? QVariant(qlonglong(amount)) : QVariant();
}

// Invalid unless a double holds exactly this number.
QVariant asDouble(const QVariant& number)
{
    const double amount = number.toDouble();
    if (isInteger(number)) {
        const bool exact = amount < integerLimit && qlonglong(amount) == number.toLongLong();
        return exact ? QVariant(amount) : QVariant();
    }
    const bool exact = number.userType() != QMetaType::ULongLong
        || (amount < 2 * integerLimit && qulonglong(amount) == number.toULongLong());
    return exact ? QVariant(amount) : QVariant();
}

// Whether the content has the type that convertedTo() gives it.
bool hasTypeOf(const QString& kind, const QVariant& content)
{
    switch (content.userType()) {
    case QMetaType::Bool:
        return kind == boolKey;
    case QMetaType::LongLong:
        return kind == intKey;
    case QMetaType::Double:
        return kind == doubleKey && std::isfinite(content.toDouble());
    case QMetaType::QString:
        return kind == stringKey;
    case QMetaType::QVariantList:
        return kind == listKey;
    default:
        return false;
    }
}

} // namespace

TuloValue::TuloValue(const TuloHash& hash)
    : TuloHash(hash)
{
}

const QString& TuloValue::Bool()
{
    return boolKey;
}

const QString& TuloValue::Int()
{
    return intKey;
}

const QString& TuloValue::Double()
{
    return doubleKey;
}

const QString& TuloValue::String()
{
    return stringKey;
}

const QString& TuloValue::List()
{
    return listKey;
}

const QStringList& TuloValue::kinds()
{
    return allKinds;
}

TuloValue TuloValue::of(const QString& kind, const QVariant& content)
{
    return TuloValue(QVariantHash { { kind, content } });
}

TuloValue TuloValue::ofContent(const QVariant& content)
{
    if (isInteger(content))
        return of(intKey, content.toLongLong());
    if (isFiniteNumber(content))
        return of(doubleKey, content.toDouble());
    switch (content.userType()) {
    case QMetaType::Bool:
        return of(boolKey, content);
    case QMetaType::QString:
        return of(stringKey, content);
    case QMetaType::QVariantList:
    case QMetaType::QStringList:
        return of(listKey, content.toList());
    default:
        return TuloValue();
    }
}

QString TuloValue::kind() const
{
    const QVariantHash hash = __variant().toHash();
    return hash.size() == 1 && allKinds.contains(hash.cbegin().key()) ? hash.cbegin().key()
                                                                      : QString();
}

QVariant TuloValue::content() const
{
    return __hashAttribute(kind());
}

TuloValue TuloValue::convertedTo(const QString& kind) const
{
    const QString ownKind = this->kind();
    const QVariant own = content();
    if (ownKind == kind && hasTypeOf(kind, own))
        return *this;
    if (ownKind == intKey || ownKind == doubleKey) {
        // An int that holds a fraction is as malformed as one that holds a text.
        if (!isFiniteNumber(own) || (ownKind == intKey && !asInteger(own).isValid()))
            return TuloValue();
        const QVariant number = kind == intKey ? asInteger(own)
            : kind == doubleKey                ? asDouble(own)
                                               : QVariant();
        return number.isValid() ? of(kind, number) : TuloValue();
    }
    const TuloValue value = ofContent(own);
    return ownKind == kind && value.kind() == kind ? value : TuloValue();
}

TuloEdit::TuloEdit(const TuloHash& hash)
    : TuloHash(hash)
{
}

TuloEdit TuloEdit::fromVariant(const QVariant& entry)
{
    const int type = entry.userType();
    if (!entry.isValid() || type == QMetaType::QVariantHash || type == QMetaType::QVariantMap)
        return TuloEdit(entry.toHash());
    return TuloEdit(QVariantHash { { malformedKey, entry } });
}

const QString& TuloEdit::Kind()
{
    return kindKey;
}

const QString& TuloEdit::Min()
{
    return minKey;
}

const QString& TuloEdit::Max()
{
    return maxKey;
}

const QString& TuloEdit::Step()
{
    return stepKey;
}

const QString& TuloEdit::Values()
{
    return valuesKey;
}

const QString& TuloEdit::MinLength()
{
    return minLengthKey;
}

const QString& TuloEdit::MaxLength()
{
    return maxLengthKey;
}

const QString& TuloEdit::Pattern()
{
    return patternKey;
}

const QString& TuloEdit::Elements()
{
    return elementsKey;
}

const QString& TuloEdit::Malformed()
{
    return malformedKey;
}

bool TuloEdit::isMalformed() const
{
    return __contains(malformedKey);
}

QString TuloEdit::kind() const
{
    return __hashAttribute(kindKey).toString();
}

QVariant TuloEdit::min() const
{
    return __hashAttribute(minKey);
}

QVariant TuloEdit::max() const
{
    return __hashAttribute(maxKey);
}

QVariant TuloEdit::step() const
{
    return __hashAttribute(stepKey);
}

QVariantList TuloEdit::values() const
{
    return __hashAttribute(valuesKey).toList();
}

int TuloEdit::minLength() const
{
    return lengthOf(__hashAttribute(minLengthKey));
}

int TuloEdit::maxLength() const
{
    return lengthOf(__hashAttribute(maxLengthKey));
}

QString TuloEdit::pattern() const
{
    return __hashAttribute(patternKey).toString();
}

TuloEdit TuloEdit::elements() const
{
    return fromVariant(__hashAttribute(elementsKey));
}

TuloOperation::TuloOperation(const TuloHash& hash)
    : TuloHash(hash)
{
}

TuloOperation::TuloOperation(const QString& verb, const TuloValue& operand)
    : TuloHash(QVariantHash { { opKey, verb }, { operandKey, operand.__variant() } })
{
}

QString TuloOperation::op() const
{
    return __hashAttribute(opKey).toString();
}

TuloValue TuloOperation::value() const
{
    return TuloValue(__hashAttribute(operandKey).toHash());
}
