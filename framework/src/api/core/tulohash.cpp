#include "api/core/tulohash.h"

#include "api/core/tulo.h"

#include <algorithm>
#include <ostream>

namespace {

const QString messageKey = QStringLiteral("message");

bool isInteger(int type)
{
    return type == QMetaType::Int || type == QMetaType::UInt || type == QMetaType::LongLong
        || type == QMetaType::ULongLong;
}

bool isNumber(int type)
{
    return isInteger(type) || type == QMetaType::Double || type == QMetaType::Float;
}

bool sameInteger(const QVariant& left, const QVariant& right)
{
    const bool leftIsLarge = left.userType() == QMetaType::ULongLong;
    const bool rightIsLarge = right.userType() == QMetaType::ULongLong;
    if (leftIsLarge == rightIsLarge)
        return left.toLongLong() == right.toLongLong();
    const QVariant& large = leftIsLarge ? left : right;
    const QVariant& other = leftIsLarge ? right : left;
    return other.toLongLong() >= 0 && large.toULongLong() == other.toULongLong();
}

bool sameNumber(const QVariant& left, const QVariant& right)
{
    const bool leftIsInteger = isInteger(left.userType());
    const bool rightIsInteger = isInteger(right.userType());
    if (leftIsInteger && rightIsInteger)
        return sameInteger(left, right);
    if (left.toDouble() != right.toDouble())
        return false;
    if (!leftIsInteger && !rightIsInteger)
        return true;
    // An integer of more than 53 bits has been rounded. 2^64 is past them all.
    const QVariant& integer = leftIsInteger ? left : right;
    const double amount = integer.toDouble();
    if (amount < 0)
        return qlonglong(amount) == integer.toLongLong();
    return amount < 18446744073709551616.0 && qulonglong(amount) == integer.toULongLong();
}

bool sameVariant(const QVariant& left, const QVariant& right)
{
    const int leftType = left.userType();
    const int rightType = right.userType();
    if (isNumber(leftType) && isNumber(rightType))
        return sameNumber(left, right);
    if (leftType != rightType)
        return false;
    if (leftType == QMetaType::QVariantHash)
        return TuloHash(left.toHash()) == TuloHash(right.toHash());
    if (leftType == QMetaType::QVariantList) {
        const QVariantList leftList = left.toList();
        const QVariantList rightList = right.toList();
        return std::equal(leftList.cbegin(), leftList.cend(), rightList.cbegin(), rightList.cend(),
                          sameVariant);
    }
    return left == right;
}

} // namespace

TuloHash::TuloHash(const QHash<QString, QVariant>& hash)
    : m_hash(hash)
{
}

QVariant TuloHash::__hashAttribute(const QString& key) const
{
    return m_hash.value(key);
}

void TuloHash::__setHashAttribute(const QString& key, const QVariant& value)
{
    m_hash.insert(key, value);
}

bool TuloHash::__contains(const QString& key) const
{
    return m_hash.contains(key);
}

void TuloHash::__remove(const QString& key)
{
    m_hash.remove(key);
}

bool TuloHash::__isEmpty() const
{
    return m_hash.isEmpty();
}

bool TuloHash::isEmpty() const
{
    return m_hash.isEmpty();
}

QVariant TuloHash::__variant() const
{
    return m_hash;
}

bool TuloHash::operator==(const TuloHash& other) const
{
    if (m_hash.size() != other.m_hash.size())
        return false;
    for (auto entry = m_hash.cbegin(); entry != m_hash.cend(); ++entry) {
        const auto counterpart = other.m_hash.constFind(entry.key());
        if (counterpart == other.m_hash.cend() || !sameVariant(*entry, *counterpart))
            return false;
    }
    return true;
}

bool TuloHash::operator!=(const TuloHash& other) const
{
    return !(*this == other);
}

std::ostream& operator<<(std::ostream& stream, const TuloHash& hash)
{
    return stream << hash.__variant();
}

QString TuloError::message() const
{
    return __hashAttribute(messageKey).toString();
}

void TuloError::setMessage(const QString& message)
{
    __setHashAttribute(messageKey, message);
}
