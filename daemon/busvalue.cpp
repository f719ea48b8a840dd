#include "daemon/busvalue.h"

#include "trees/settingvalue.h"

#include "api/core/model/cmpath.h"
#include "api/core/trstring.h"

#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusSignature>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>

#include <cmath>
#include <limits>

namespace tulo {

namespace {

bool isValueRole(const QString& role)
{
    return role == TuloRoles::Value() || role == TuloRoles::DefaultValue();
}

template<typename Object>
QVariant busMap(const Object& object);

// Invalid for whatever the bus cannot carry.
QVariant busPlain(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::Bool:
    case QMetaType::Double:
    case QMetaType::ULongLong:
        return value;
    case QMetaType::QString:
        // A string on the bus ends there.
        return value.toString().contains(QChar(0)) ? QVariant() : value;
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
        return value.toLongLong();
    case QMetaType::QStringList:
    case QMetaType::QVariantList: {
        QVariantList list;
        const QVariantList entries = value.toList();
        for (const QVariant& entry : entries) {
            const QVariant plain = busPlain(entry);
            if (!plain.isValid())
                return QVariant();
            list.append(plain);
        }
        return list;
    }
    case QMetaType::QVariantHash:
        return busMap(value.toHash());
    case QMetaType::QVariantMap:
        return busMap(value.toMap());
    default:
        break;
    }
    if (TrString::isIn(value))
        return TrString::fromVariant(value).toString();
    if (CMPath::isIn(value))
        return CMPath::fromVariant(value).text();
    return QVariant();
}

template<typename Object>
QVariant busMap(const Object& object)
{
    QVariantMap map;
    for (auto entry = object.cbegin(); entry != object.cend(); ++entry) {
        const QVariant plain = busPlain(entry.value());
        if (plain.isValid())
            map.insert(entry.key(), plain);
    }
    return map;
}

QVariant demarshalled(const QDBusArgument& argument, bool* accepted)
{
    switch (argument.currentType()) {
    case QDBusArgument::BasicType:
    case QDBusArgument::VariantType:
        return plainFromBus(argument.asVariant(), accepted);
    case QDBusArgument::ArrayType: {
        QVariantList list;
        // Bytes in a list would pass for numbers, those by themselves do not.
        *accepted = *accepted && argument.currentSignature() != QLatin1String("ay");
        argument.beginArray();
        // What is not accepted is not consumed either, so the end would never come.
        while (*accepted && !argument.atEnd())
            list.append(demarshalled(argument, accepted));
        argument.endArray();
        return list;
    }
    case QDBusArgument::MapType: {
        QVariantHash hash;
        argument.beginMap();
        while (*accepted && !argument.atEnd()) {
            argument.beginMapEntry();
            const QVariant key = demarshalled(argument, accepted);
            const QVariant value = demarshalled(argument, accepted);
            argument.endMapEntry();
            *accepted = *accepted && key.userType() == QMetaType::QString;
            hash.insert(key.toString(), value);
        }
        argument.endMap();
        return hash;
    }
    case QDBusArgument::MapEntryType:
    case QDBusArgument::StructureType:
    case QDBusArgument::UnknownType:
        break;
    }
    *accepted = false;
    return QVariant();
}

} // namespace

QDBusArgument& operator<<(QDBusArgument& argument, const BusRow& row)
{
    argument.beginStructure();
    argument << row.name << row.roles;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, BusRow& row)
{
    argument.beginStructure();
    argument >> row.name >> row.roles;
    argument.endStructure();
    return argument;
}

void registerBusTypes()
{
    qDBusRegisterMetaType<BusRow>();
    qDBusRegisterMetaType<BusRows>();
}

// ---------------------------------------------------------------------------------------------
// Out: from the worker's variants to what the bus carries.
// ---------------------------------------------------------------------------------------------

QVariant busRole(const QString& role, const QVariant& value)
{
    if (!isValueRole(role))
        return busPlain(value);
    const TuloValue settingValue { TuloHash(value.toHash()) };
    // So that the type on the bus tells the kind again: a double may have been written as 5.
    const TuloValue typed = settingValue.convertedTo(settingValue.kind());
    return busPlain((typed.isEmpty() ? settingValue : typed).content());
}

QVariantMap busRoles(const QVariantHash& roles)
{
    QVariantMap map;
    for (auto role = roles.cbegin(); role != roles.cend(); ++role) {
        const QVariant value = busRole(role.key(), role.value());
        if (value.isValid())
            map.insert(role.key(), value);
    }
    return map;
}

int busSize(const QVariant& value)
{
    // A signature of at most five characters with its ends, and what aligns the content.
    constexpr int variantBytes = 16;
    constexpr int lengthBytes = 8;
    const auto textBytes = [](const QString& text) {
        return lengthBytes + text.toUtf8().size();
    };

    int size = variantBytes;
    if (value.userType() == QMetaType::QString) {
        size += textBytes(value.toString());
    } else if (value.userType() == QMetaType::QVariantList) {
        size += lengthBytes;
        const QVariantList entries = value.toList();
        for (const QVariant& entry : entries)
            size += busSize(entry);
    } else if (value.userType() == QMetaType::QVariantMap) {
        size += lengthBytes;
        const QVariantMap entries = value.toMap();
        for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry)
            size += lengthBytes + textBytes(entry.key()) + busSize(entry.value());
    } else {
        size += int(sizeof(qint64));
    }
    return size;
}

// ---------------------------------------------------------------------------------------------
// In: from the bus to plain variants and values.
// ---------------------------------------------------------------------------------------------

QVariant roleFromBus(const QString& role, const QVariant& value)
{
    bool accepted = true;
    QVariant plain = plainFromBus(value, &accepted);
    if (!isValueRole(role))
        return plain;
    // One beyond 64 bits with a sign was stored as an integer; plainly it would be a double.
    return plain.userType() == QMetaType::ULongLong
        ? TuloValue::of(TuloValue::Int(), plain).__variant()
        : TuloValue::ofContent(plain).__variant();
}

QVariant plainFromBus(const QVariant& value, bool* accepted)
{
    if (value.userType() == qMetaTypeId<QDBusVariant>())
        return plainFromBus(value.value<QDBusVariant>().variant(), accepted);
    if (value.userType() == qMetaTypeId<QDBusArgument>())
        return demarshalled(value.value<QDBusArgument>(), accepted);
    switch (value.userType()) {
    case QMetaType::Bool:
    case QMetaType::QString:
        return value;
    case QMetaType::Double:
        *accepted = *accepted && std::isfinite(value.toDouble());
        return value;
    case QMetaType::UChar:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
        return value.toLongLong();
    case QMetaType::ULongLong:
        return value.toULongLong() <= quint64(std::numeric_limits<qint64>::max())
            ? QVariant(value.toLongLong())
            : value;
    case QMetaType::QStringList:
    case QMetaType::QVariantList: {
        QVariantList list;
        const QVariantList entries = value.toList();
        for (const QVariant& entry : entries)
            list.append(plainFromBus(entry, accepted));
        return list;
    }
    case QMetaType::QVariantMap: {
        QVariantHash hash;
        const QVariantMap entries = value.toMap();
        for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry)
            hash.insert(entry.key(), plainFromBus(entry.value(), accepted));
        return hash;
    }
    default:
        // Among them object paths, signatures, handles and bytes.
        *accepted = false;
        return QVariant();
    }
}

TuloValue valueFromPlain(const QVariant& content, const TuloRoles& setting)
{
    if (content.userType() == QMetaType::QVariantHash)
        return TuloValue(TuloHash(content.toHash()));
    return valueOfKind(kindOfSetting(setting), content);
}

} // namespace tulo
