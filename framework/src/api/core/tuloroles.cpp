#include "api/core/tuloroles.h"

namespace {

const QString valueKey = QStringLiteral("value");
const QString defaultValueKey = QStringLiteral("defaultValue");
const QString titleKey = QStringLiteral("title");
const QString descriptionKey = QStringLiteral("description");
const QString longDescriptionKey = QStringLiteral("longDescription");
const QString valueUnitKey = QStringLiteral("valueUnit");
const QString typeKey = QStringLiteral("type");
const QString idKey = QStringLiteral("id");
const QString pathKey = QStringLiteral("path");
const QString editKey = QStringLiteral("edit");
const QString modifiableKey = QStringLiteral("modifiable");
const QString disabledKey = QStringLiteral("disabled");
const QString encryptedKey = QStringLiteral("encrypted");
const QString encryptedValueKey = QStringLiteral("encryptedValue");
const QString timestampKey = QStringLiteral("timestamp");
const QString permissionKey = QStringLiteral("permission");
const QString activateKey = QStringLiteral("activate");
const QString setRolesKey = QStringLiteral("setRoles");
const QString valueOperationKey = QStringLiteral("valueOperation");
const QStringList allKeys {
    valueKey,      defaultValueKey, titleKey,     descriptionKey,    longDescriptionKey,
    valueUnitKey,  typeKey,         idKey,        pathKey,           editKey,
    modifiableKey, disabledKey,     encryptedKey, encryptedValueKey, timestampKey,
    permissionKey, activateKey,     setRolesKey,  valueOperationKey
};

const QString rowsKey = QStringLiteral("rows");
const QString rowsCountKey = QStringLiteral("rowsCount");
const QString rowsVersionKey = QStringLiteral("rowsVersion");
const QString rolesKey = QStringLiteral("roles");
const QString defaultPermission = QStringLiteral("readWrite");

} // namespace

const QString& TuloPermission::Default_()
{
    return defaultPermission;
}

TuloRoles::TuloRoles(const TuloHash& hash)
    : TuloHash(hash)
{
}

const QString& TuloRoles::Value()
{
    return valueKey;
}

const QString& TuloRoles::DefaultValue()
{
    return defaultValueKey;
}

const QString& TuloRoles::Title()
{
    return titleKey;
}

const QString& TuloRoles::Description()
{
    return descriptionKey;
}

const QString& TuloRoles::LongDescription()
{
    return longDescriptionKey;
}

const QString& TuloRoles::ValueUnit()
{
    return valueUnitKey;
}

const QString& TuloRoles::Type()
{
    return typeKey;
}

const QString& TuloRoles::Id()
{
    return idKey;
}

const QString& TuloRoles::Path()
{
    return pathKey;
}

const QString& TuloRoles::Edit()
{
    return editKey;
}

const QString& TuloRoles::Modifiable()
{
    return modifiableKey;
}

const QString& TuloRoles::Disabled()
{
    return disabledKey;
}

const QString& TuloRoles::Encrypted()
{
    return encryptedKey;
}

const QString& TuloRoles::EncryptedValue()
{
    return encryptedValueKey;
}

const QString& TuloRoles::Timestamp()
{
    return timestampKey;
}

const QString& TuloRoles::Permission()
{
    return permissionKey;
}

const QString& TuloRoles::Activate()
{
    return activateKey;
}

const QString& TuloRoles::SetRoles()
{
    return setRolesKey;
}

const QString& TuloRoles::ValueOperation()
{
    return valueOperationKey;
}

const QStringList& TuloRoles::keys()
{
    return allKeys;
}

TuloValue TuloRoles::value() const
{
    return TuloValue(__hashAttribute(valueKey).toHash());
}

TuloValue TuloRoles::defaultValue() const
{
    return TuloValue(__hashAttribute(defaultValueKey).toHash());
}

TrString TuloRoles::title() const
{
    return TrString::fromVariant(__hashAttribute(titleKey));
}

TrString TuloRoles::description() const
{
    return TrString::fromVariant(__hashAttribute(descriptionKey));
}

TrString TuloRoles::longDescription() const
{
    return TrString::fromVariant(__hashAttribute(longDescriptionKey));
}

TrString TuloRoles::valueUnit() const
{
    return TrString::fromVariant(__hashAttribute(valueUnitKey));
}

TuloRolesType::Enum TuloRoles::type() const
{
    return TuloRolesType::Enum(__hashAttribute(typeKey).toInt());
}

QString TuloRoles::id() const
{
    return __hashAttribute(idKey).toString();
}

CMPath TuloRoles::path() const
{
    return CMPath::fromVariant(__hashAttribute(pathKey));
}

TuloEdit TuloRoles::edit() const
{
    return TuloEdit::fromVariant(__hashAttribute(editKey));
}

bool TuloRoles::modifiable() const
{
    const QVariant entry = __hashAttribute(modifiableKey);
    return !entry.isValid() || entry.toBool();
}

bool TuloRoles::disabled() const
{
    return __hashAttribute(disabledKey).toBool();
}

bool TuloRoles::encrypted() const
{
    return __hashAttribute(encryptedKey).toBool();
}

QString TuloRoles::encryptedValue() const
{
    return __hashAttribute(encryptedValueKey).toString();
}

long long TuloRoles::timestamp() const
{
    return __hashAttribute(timestampKey).toLongLong();
}

void TuloRoles::setValue(const TuloValue& value)
{
    __setHashAttribute(valueKey, value.__variant());
}

void TuloRoles::setDefaultValue(const TuloValue& value)
{
    __setHashAttribute(defaultValueKey, value.__variant());
}

void TuloRoles::setTitle(TrString text)
{
    __setHashAttribute(titleKey, text);
}

void TuloRoles::setDescription(TrString text)
{
    __setHashAttribute(descriptionKey, text);
}

void TuloRoles::setLongDescription(TrString text)
{
    __setHashAttribute(longDescriptionKey, text);
}

void TuloRoles::setValueUnit(TrString text)
{
    __setHashAttribute(valueUnitKey, text);
}

void TuloRoles::setType(TuloRolesType::Enum type)
{
    __setHashAttribute(typeKey, int(type));
}

void TuloRoles::setId(const QString& id)
{
    __setHashAttribute(idKey, id);
}

void TuloRoles::setPath(const CMPath& path)
{
    __setHashAttribute(pathKey, path.toVariant());
}

void TuloRoles::setDisabled(bool disabled)
{
    __setHashAttribute(disabledKey, disabled);
}

void TuloRoles::setEncrypted(bool encrypted)
{
    __setHashAttribute(encryptedKey, encrypted);
}

void TuloRoles::setEncryptedValue(const QString& encryptedValue)
{
    __setHashAttribute(encryptedValueKey, encryptedValue);
}

void TuloRoles::setTimestamp(long long timestamp)
{
    __setHashAttribute(timestampKey, qlonglong(timestamp));
}

TuloRowsRoles::TuloRowsRoles(const TuloHash& hash)
    : TuloHash(hash)
{
}

QVariant TuloRowsRoles::rows() const
{
    return __hashAttribute(rowsKey);
}

int TuloRowsRoles::rowsCount() const
{
    return __hashAttribute(rowsCountKey).toInt();
}

int TuloRowsRoles::rowsVersion() const
{
    return __hashAttribute(rowsVersionKey).toInt();
}

TuloRoles TuloRowsRoles::roles() const
{
    return TuloRoles(__hashAttribute(rolesKey).toHash());
}

void TuloRowsRoles::setRows(const QVariant& rows)
{
    __setHashAttribute(rowsKey, rows);
}

void TuloRowsRoles::setRowsCount(int count)
{
    __setHashAttribute(rowsCountKey, count);
}

void TuloRowsRoles::setRowsVersion(int version)
{
    __setHashAttribute(rowsVersionKey, version);
}

void TuloRowsRoles::setRoles(const TuloRoles& roles)
{
    __setHashAttribute(rolesKey, roles.__variant());
}
