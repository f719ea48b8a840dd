#pragma once

// The types that programs with Qt's D-Bus library use for the settings' interfaces, which are
// described in org.tulo.ConfigurationManager1.xml. qdbusxml2cpp makes classes of that file that
// include this header (option -i tulo/bus-types.h).

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QMetaType>
#include <QString>
#include <QVariantMap>
#include <QVector>

namespace tulo {

/// A setting or directory, or a row of one, with some roles: (sa{sv}).
struct BusNode
{
    QString name; ///< a path, or the name of a row
    QVariantMap roles;
};

/// What a change came to: (a{sv}a{sv}).
struct BusChange
{
    QVariantMap stored;
    QVariantMap outcome;
};

using BusNodes = QVector<BusNode>;
using BusChanges = QVector<BusChange>;

inline QDBusArgument& operator<<(QDBusArgument& argument, const BusNode& node)
{
    argument.beginStructure();
    argument << node.name << node.roles;
    argument.endStructure();
    return argument;
}

inline const QDBusArgument& operator>>(const QDBusArgument& argument, BusNode& node)
{
    argument.beginStructure();
    argument >> node.name >> node.roles;
    argument.endStructure();
    return argument;
}

inline QDBusArgument& operator<<(QDBusArgument& argument, const BusChange& change)
{
    argument.beginStructure();
    argument << change.stored << change.outcome;
    argument.endStructure();
    return argument;
}

inline const QDBusArgument& operator>>(const QDBusArgument& argument, BusChange& change)
{
    argument.beginStructure();
    argument >> change.stored >> change.outcome;
    argument.endStructure();
    return argument;
}

} // namespace tulo

Q_DECLARE_METATYPE(tulo::BusNode)
Q_DECLARE_METATYPE(tulo::BusNodes)
Q_DECLARE_METATYPE(tulo::BusChange)
Q_DECLARE_METATYPE(tulo::BusChanges)

namespace tulo {

/// Makes the types known to Qt. To be called before the first call.
inline void registerBusTypes()
{
    qDBusRegisterMetaType<BusNode>();
    qDBusRegisterMetaType<BusNodes>();
    qDBusRegisterMetaType<BusChange>();
    qDBusRegisterMetaType<BusChanges>();
}

} // namespace tulo
