#pragma once

#include <QString>
#include <QVariant>

#include <optional>

struct sd_bus_message;

// Between messages and variants.
//
//   on the bus        variant
//   b                 bool
//   x, t              qlonglong, qulonglong above its range
//   d                 double
//   s                 QString
//   av                QVariantList
//   a{sv}             QVariantMap
//
// is what values and roles consist of; smaller numbers of C++ and a QVariantHash are widened to
// these when they are written. What is read is taken more generously: a value may come as any
// integer type, as an array of any of these types but bytes, and as nested variants. Object paths,
// signatures, handles, structures and numbers that are not finite are refused. Beside values, as is
// a QStringList, a structure a QVariantList of its members, i an int and u a uint.

namespace tulo::wire {

/// Lists and maps inside each other in one value, at most.
constexpr int maximumDepth = 16;

/// Appends `arguments` in the types of `signature`. False when one of them cannot be carried, and
/// the message is spoiled then: it must not be sent. Such are values of other types, an invalid
/// one, texts with a character that D-Bus does not have (among them U+0000), values nested deeper
/// than maximumDepth and numbers that are not finite.
[[nodiscard]] bool appendArguments(sd_bus_message* message, const char* signature,
                                   const QVariantList& arguments);

/// All arguments of a message, from its first. None when one of them is refused or the message is
/// malformed.
[[nodiscard]] std::optional<QVariantList> readArguments(sd_bus_message* message);

/// Whether appendArguments() takes `value` for a v.
[[nodiscard]] bool isCarried(const QVariant& value);

/// The roles of an answer as far as they can be carried: of the maps in them invalid entries are
/// left out, and then each role that isCarried() rejects.
[[nodiscard]] QVariantMap carriedRoles(const QVariantMap& roles);

/// At most so many bytes of a message does `value` take as a v.
[[nodiscard]] qint64 busSize(const QVariant& value);

} // namespace tulo::wire
