#include "tulo-cm/roles.h"

#include "trees/misspelling.h"
#include "trees/plainjson.h"

#include <algorithm>

namespace tulo {

const QStringList& roles::known()
{
    static const QStringList names {
        roles::value(),
        roles::defaultValue(),
        roles::title(),
        QStringLiteral("description"),
        QStringLiteral("longDescription"),
        QStringLiteral("valueUnit"),
        roles::type(),
        QStringLiteral("id"),
        QStringLiteral("path"),
        roles::edit(),
        roles::modifiable(),
        QStringLiteral("disabled"),
        roles::encrypted(),
        QStringLiteral("encryptedValue"),
        QStringLiteral("timestamp"),
        QStringLiteral("permission"),
        QStringLiteral("activate"),
        QStringLiteral("setRoles"),
        QStringLiteral("valueOperation"),
    };
    return names;
}

bool isDirectory(const QVariantMap& roles)
{
    constexpr int directoryType = 1;
    return roles.value(roles::type()).toInt() == directoryType;
}

QString nameOf(const QString& path)
{
    return path.section(QLatin1Char('/'), -1);
}

QString pathBelow(const QString& directory, const QString& name)
{
    return directory + QLatin1Char('/') + name;
}

QStringList chosenRoles(const Arguments& arguments)
{
    return arguments.isSet(roleOption) ? arguments.values(roleOption)
                                       : QStringList { roles::value() };
}

// ---------------------------------------------------------------------------------------------
// Roles that there are not.
// ---------------------------------------------------------------------------------------------

namespace {

QString hintFor(const QString& role)
{
    if (role.contains(QLatin1Char(',')))
        return QStringLiteral("give '--role' once for each role");
    const QStringList& known = roles::known();
    const QString closest = nearest(role, known);
    if (!closest.isEmpty())
        return QStringLiteral("did you mean '%1'?").arg(closest);
    return QStringLiteral("roles are: %1").arg(known.join(QLatin1String(", ")));
}

} // namespace

QString validateRoles(const QStringList& roles, const QVector<QVariantMap>& nodes)
{
    for (const QString& role : roles) {
        const bool isFound =
            std::any_of(nodes.cbegin(), nodes.cend(),
                        [&role](const QVariantMap& node) { return node.contains(role); });
        if (!nodes.isEmpty() && !isFound && !roles::known().contains(role))
            return QStringLiteral("unknown role '%1'; %2").arg(role, hintFor(role));
    }
    return QString();
}

bool isValueRole(const QString& role)
{
    return role == roles::value() || role == roles::defaultValue();
}

bool isSameValue(const QVariant& left, const QVariant& right)
{
    return left.userType() == right.userType() && jsonOf(left) == jsonOf(right);
}

bool isChanged(const QVariantMap& roles)
{
    const QVariant value = roles.value(roles::value());
    return value.isValid() && !isSameValue(value, roles.value(roles::defaultValue()));
}

bool isReadOnly(const QVariantMap& roles)
{
    const QVariant modifiable = roles.value(roles::modifiable());
    return modifiable.isValid() && !modifiable.toBool();
}

// ---------------------------------------------------------------------------------------------
// Printing.
// ---------------------------------------------------------------------------------------------

QString kindOf(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::Bool:
        return QStringLiteral("bool");
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return QStringLiteral("int");
    case QMetaType::Double:
        return QStringLiteral("double");
    case QMetaType::QString:
        return QStringLiteral("string");
    case QMetaType::QVariantList:
        return QStringLiteral("list");
    default:
        return QString();
    }
}

const QStringList& kinds()
{
    static const QStringList names { QStringLiteral("bool"), QStringLiteral("int"),
                                     QStringLiteral("double"), QStringLiteral("string"),
                                     QStringLiteral("list") };
    return names;
}

QVariant valueObject(const QVariant& value)
{
    const QString kind = kindOf(value);
    return kind.isEmpty() ? value : QVariantMap { { kind, value } };
}

QVariantMap roleObject(const QVariantMap& roles, const QStringList& names)
{
    QVariantMap result = roles;
    for (const QString& role : { roles::value(), roles::defaultValue() }) {
        if (roles.contains(role))
            result.insert(role, valueObject(roles.value(role)));
    }
    for (const QString& name : names) {
        if (!result.contains(name))
            result.insert(name, QVariant());
    }
    return result;
}

QVariantMap nodeObject(const QString& path, const QVariantMap& roleObject)
{
    return { { QStringLiteral("path"), path }, { QStringLiteral("roles"), roleObject } };
}

} // namespace tulo
