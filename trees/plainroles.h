#pragma once

#include "api/core/tuloroles.h"
#include "api/core/tulovalue.h"

#include <QString>
#include <QVariant>

// Between the worker's records, in which a value is a hash under its kind and a text may be
// translatable, and the plain variants of tulo::Settings. No state; thread-safe.

namespace tulo {

// Out.

/// A role as programs see it: a value without its kind, integers as qlonglong (qulonglong above its
/// range), texts and paths as strings, hashes as maps. Entries that are null are left out of maps;
/// a null in a list and a text with a zero character, which D-Bus cannot carry, give an invalid
/// variant.
QVariant plainRole(const QString& role, const QVariant& value);

/// The content of a value, in the type that tells its kind.
QVariant plainValue(const TuloValue& value);

/// The roles that are there, of a hash whose keys are role names.
QVariantMap plainRoles(const QVariantHash& roles);

// In.

/// What a program gave, as the types that JSON is read into: bool, qlonglong (qulonglong above its
/// range), double, QString, QVariantList and QVariantHash. Invalid when it is, or holds, anything
/// else, such as null, bytes, a number that is not finite, and a text that is not valid Unicode or
/// has a zero character.
QVariant contentOf(const QVariant& given);

/// The value that `content` (from contentOf()) stands for in a setting with these roles. A hash
/// names its kind and is taken as it is, for the guard to validate.
TuloValue valueOf(const QVariant& content, const TuloRoles& setting);

} // namespace tulo
