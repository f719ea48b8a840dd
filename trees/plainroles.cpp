#include "trees/plainroles.h"

#include "trees/settingvalue.h"

#include "api/core/model/cmpath.h"
#include "api/core/trstring.h"

#include <cmath>
#include <limits>

namespace tulo {
namespace {

bool isWhole(const QString& text)
{
    return text.isValidUtf16() && !text.contains(QChar(0));
}

bool isValueRole(const QString& role)
{
    return role == TuloRoles::Value() || role == TuloRoles::DefaultValue();
}

QVariant plainContent(const QVariant& value);

template<typename Object>
QVariantMap plainMap(const Object& object)
{
    QVariantMap map;
    for (auto entry = object.cbegin(); entry != object.cend(); ++entry) {
        const QVariant plain = plainContent(entry.value());
        if (plain.isValid())
            map.insert(entry.key(), plain);
    }
    return map;
}

QVariant plainText(const QString& text)
{
    return text.contains(QChar(0)) ? QVariant() : text;
}

QVariant plainContent(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::Bool:
    case QMetaType::Double:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return value;
    case QMetaType::QString:
        return plainText(value.toString());
    case QMetaType::Int:
    case QMetaType::UInt:
        return value.toLongLong();
    case QMetaType::QStringList:
    case QMetaType::QVariantList: {
        QVariantList list;
        const QVariantList entries = value.toList();
        for (const QVariant& entry : entries) {
            const QVariant plain = plainContent(entry);
            if (!plain.isValid())
                return QVariant();
            list.append(plain);
        }
        return list;
    }
    case QMetaType::QVariantHash:
        return plainMap(value.toHash());
    case QMetaType::QVariantMap:
        return plainMap(value.toMap());
    default:
        break;
    }
    if (TrString::isIn(value))
        return plainText(TrString::fromVariant(value).toString());
    if (CMPath::isIn(value))
        return plainText(CMPath::fromVariant(value).text());
    return QVariant();
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Out.
// ---------------------------------------------------------------------------------------------

QVariant plainRole(const QString& role, const QVariant& value)
{
    return isValueRole(role) ? plainValue(TuloValue(TuloHash(value.toHash())))
                             : plainContent(value);
}

QVariant plainValue(const TuloValue& value)
{
    // A double may have been written as 5.
    const TuloValue typed = value.convertedTo(value.kind());
    return plainContent((typed.isEmpty() ? value : typed).content());
}

QVariantMap plainRoles(const QVariantHash& roles)
{
    QVariantMap map;
    for (auto role = roles.cbegin(); role != roles.cend(); ++role) {
        const QVariant plain = plainRole(role.key(), role.value());
        if (plain.isValid())
            map.insert(role.key(), plain);
    }
    return map;
}

// ---------------------------------------------------------------------------------------------
// In.
// ---------------------------------------------------------------------------------------------

namespace {

template<typename Object>
QVariant contentOfMap(const Object& object)
{
    QVariantHash hash;
    for (auto entry = object.cbegin(); entry != object.cend(); ++entry) {
        const QVariant content = contentOf(entry.value());
        if (!content.isValid() || !isWhole(entry.key()))
            return QVariant();
        hash.insert(entry.key(), content);
    }
    return hash;
}

QVariant contentOfList(const QVariantList& entries)
{
    QVariantList list;
    for (const QVariant& entry : entries) {
        const QVariant content = contentOf(entry);
        if (!content.isValid())
            return QVariant();
        list.append(content);
    }
    return list;
}

} // namespace

QVariant contentOf(const QVariant& given)
{
    switch (given.userType()) {
    case QMetaType::Bool:
        return given;
    case QMetaType::QString:
        return isWhole(given.toString()) ? given : QVariant();
    case QMetaType::Float:
    case QMetaType::Double:
        return std::isfinite(given.toDouble()) ? QVariant(given.toDouble()) : QVariant();
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::LongLong:
        return given.toLongLong();
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        return given.toULongLong() <= qulonglong(std::numeric_limits<qlonglong>::max())
            ? QVariant(given.toLongLong())
            : QVariant(given.toULongLong());
    case QMetaType::QStringList:
    case QMetaType::QVariantList:
        return contentOfList(given.toList());
    case QMetaType::QVariantMap:
        return contentOfMap(given.toMap());
    case QMetaType::QVariantHash:
        return contentOfMap(given.toHash());
    default:
        return QVariant();
    }
}

TuloValue valueOf(const QVariant& content, const TuloRoles& setting)
{
    if (content.userType() == QMetaType::QVariantHash)
        return TuloValue(TuloHash(content.toHash()));
    const QString kind = kindOfSetting(setting);
    // No limit can be about an integer beyond the signed 64 bits; where there is one, it is clamped
    // as a double.
    const bool mayBeInt = kind.isEmpty() || kind == TuloValue::Int();
    if (content.userType() == QMetaType::ULongLong && mayBeInt && setting.edit().__isEmpty())
        return TuloValue::of(TuloValue::Int(), content);
    return valueOfKind(kind, content);
}

} // namespace tulo
