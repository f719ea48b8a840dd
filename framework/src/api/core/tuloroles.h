#pragma once

#include "api/core/model/cmpath.h"
#include "api/core/trstring.h"
#include "api/core/tulohash.h"
#include "api/core/tulovalue.h"

#include <QMetaType>
#include <QStringList>

/// The type code of a node. Numbers without a name pass through unchanged.
struct TuloRolesType
{
    enum Enum : int { Unset = 0, Directory = 1, Setting = 101 };
};

/// Texts of the permission role.
struct TuloPermission
{
    /// "readWrite", the permission of whatever names none.
    static const QString& Default_();
};

/// The roles of one node: a setting, or a directory of settings.
///
/// The static functions name the keys, which are the accessors' names in lower camel case. A
/// getter converts what it finds under its key; an absent key reads as an empty record, text or
/// path, 0 or false, except modifiable() which reads true.
class TuloRoles : public TuloHash
{
public:
    using TuloHash::TuloHash;
    TuloRoles() = default;
    TuloRoles(const TuloHash& hash); // NOLINT: records convert into each other

    static const QString& Value();
    static const QString& DefaultValue();
    static const QString& Title();
    static const QString& Description();
    static const QString& LongDescription();
    static const QString& ValueUnit();
    static const QString& Type();
    static const QString& Id();
    static const QString& Path();
    static const QString& Edit();
    static const QString& Modifiable();
    static const QString& Disabled();
    static const QString& Encrypted();
    static const QString& EncryptedValue();
    static const QString& Timestamp();
    static const QString& Permission();
    static const QString& Activate();
    static const QString& SetRoles();
    static const QString& ValueOperation();
    /// All keys above, in that order.
    static const QStringList& keys();

    TuloValue value() const;
    TuloValue defaultValue() const;
    TrString title() const;
    TrString description() const;
    TrString longDescription() const;
    TrString valueUnit() const;
    TuloRolesType::Enum type() const;
    QString id() const;
    CMPath path() const;
    TuloEdit edit() const;
    bool modifiable() const;
    bool disabled() const;
    bool encrypted() const;
    QString encryptedValue() const;
    /// Milliseconds since the epoch, 0 when unset.
    long long timestamp() const;

    void setValue(const TuloValue& value);
    void setDefaultValue(const TuloValue& value);
    void setTitle(TrString text);
    void setDescription(TrString text);
    void setLongDescription(TrString text);
    void setValueUnit(TrString text);
    void setType(TuloRolesType::Enum type);
    void setId(const QString& id);
    void setPath(const CMPath& path);
    void setDisabled(bool disabled);
    void setEncrypted(bool encrypted);
    void setEncryptedValue(const QString& encryptedValue);
    void setTimestamp(long long timestamp);
};

Q_DECLARE_METATYPE(TuloRoles)

/// The answer to a get rows request.
class TuloRowsRoles : public TuloHash
{
public:
    using TuloHash::TuloHash;
    TuloRowsRoles() = default;
    TuloRowsRoles(const TuloHash& hash); // NOLINT: records convert into each other

    /// A list with one entry a row, itself the list of the row's role values in requested order.
    QVariant rows() const;
    /// The number of rows of the whole directory, not of those answered.
    int rowsCount() const;
    int rowsVersion() const;
    /// The directory's own roles.
    TuloRoles roles() const;

    void setRows(const QVariant& rows);
    void setRowsCount(int count);
    void setRowsVersion(int version);
    void setRoles(const TuloRoles& roles);
};
