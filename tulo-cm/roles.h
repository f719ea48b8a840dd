#pragma once

#include "tulo-cm/command.h"

#include <QVariantMap>
#include <QVector>

namespace tulo {

// Roles as they are named, chosen and printed.

namespace roles {

inline QString value()
{
    return QStringLiteral("value");
}

inline QString defaultValue()
{
    return QStringLiteral("defaultValue");
}

inline QString title()
{
    return QStringLiteral("title");
}

inline QString id()
{
    return QStringLiteral("id");
}

inline QString timestamp()
{
    return QStringLiteral("timestamp");
}

inline QString edit()
{
    return QStringLiteral("edit");
}

inline QString encrypted()
{
    return QStringLiteral("encrypted");
}

inline QString modifiable()
{
    return QStringLiteral("modifiable");
}

inline QString type()
{
    return QStringLiteral("type");
}

/// Those that every program knows, in the order in which they are printed. Files of the default
/// tree may have others.
const QStringList& known();

} // namespace roles

/// Tells whether the node with these roles, the type among them, is a directory.
bool isDirectory(const QVariantMap& roles);

QString nameOf(const QString& path);
QString pathBelow(const QString& directory, const QString& name);

inline constexpr Option roleOption {
    "role",  "ROLE", "a role to print; can be given more than once", "", WordKind::Role,
    nullptr, true
};

/// The roles that were asked for by roleOption; the value when there are none.
QStringList chosenRoles(const Arguments& arguments);

/// What is wrong with the roles that were asked for; empty when nothing is. A role that one of
/// `nodes` has is right, known or not.
QString validateRoles(const QStringList& roles, const QVector<QVariantMap>& nodes);

/// Tells whether the setting with these roles has another value than its default.
bool isChanged(const QVariantMap& roles);
/// Tells whether clients cannot change the node with these roles.
bool isReadOnly(const QVariantMap& roles);
/// Tells whether a role holds a value, whose kind programs want to know; see valueObject().
bool isValueRole(const QString& role);
/// Tells whether two values are the same, their kind included.
bool isSameValue(const QVariant& left, const QVariant& right);

/// The kind of a value by its type; empty when it is not a value.
QString kindOf(const QVariant& value);
const QStringList& kinds();

/// For a program: the roles with their values' kinds ({"int": 5}), those of `names` that the node
/// lacks as null.
QVariantMap roleObject(const QVariantMap& roles, const QStringList& names = {});
/// The same of a value alone.
QVariant valueObject(const QVariant& value);
/// A node with its roles.
QVariantMap nodeObject(const QString& path, const QVariantMap& roleObject);

} // namespace tulo
