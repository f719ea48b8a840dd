#pragma once

#include "api/core/tuloroles.h"
#include "api/core/tulovalue.h"

#include <QDBusArgument>
#include <QMetaType>
#include <QString>
#include <QVariant>
#include <QVector>

namespace tulo {

/// One row of a directory as it travels on the bus: (sa{sv}).
struct BusRow
{
    QString name;
    QVariantMap roles;
};

using BusRows = QVector<BusRow>;

QDBusArgument& operator<<(QDBusArgument& argument, const BusRow& row);
const QDBusArgument& operator>>(const QDBusArgument& argument, BusRow& row);

/// Registers BusRow and BusRows for marshalling. Before the first call on either side.
void registerBusTypes();

/// A role as the bus carries it: values without their kind, integers as x (t above), texts and
/// paths as strings, hashes as a{sv}. Entries that are null are left out of maps; a null in a
/// list, which the bus cannot carry, and a text with a zero character, which it would cut off,
/// give an invalid variant.
QVariant busRole(const QString& role, const QVariant& value);

/// The roles that are there, of a hash whose keys are role names.
QVariantMap busRoles(const QVariantHash& roles);

/// At most so many bytes of a message does `value`, which came from the two above, take.
int busSize(const QVariant& value);

/// A role that came over the bus as the worker's clients know it: a value is a hash under its
/// kind again, integers are 64 bits wide. The reverse of busRole().
QVariant roleFromBus(const QString& role, const QVariant& value);

/// What a client sent, with everything of the bus taken off: booleans, 64-bit integers,
/// doubles, strings, lists and hashes of these. Handles, object paths, signatures, bytes,
/// structures and what is no finite number are refused: `accepted` is false then.
QVariant plainFromBus(const QVariant& value, bool* accepted);

/// The value that `content` (from plainFromBus()) stands for in a setting with these roles; a
/// hash is taken as it is, for the guard to check its kind. Empty when it is none.
TuloValue valueFromPlain(const QVariant& content, const TuloRoles& setting);

} // namespace tulo

Q_DECLARE_METATYPE(tulo::BusRow)
Q_DECLARE_METATYPE(tulo::BusRows)
