#pragma once

#include "wire/names.h"

#include <tulo/error.h>
#include <tulo/settings.h>

#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <optional>

// Between what programs work with and the arguments of messages, for both ends of the bus. What is
// read returns nothing for arguments of the right signature that are not what the message promises.

namespace tulo::wire {

// ---------------------------------------------------------------------------------------------
// Errors in the place of a node's or row's roles: the single entry "error".
// ---------------------------------------------------------------------------------------------

/// {"error": "NAME: message"}.
[[nodiscard]] QVariantMap errorEntry(const Error& error);
/// The error of such an entry, about `path`; no error for other roles. Roles that were asked for
/// never look like it: no role has that name.
[[nodiscard]] Error errorOf(const QVariantMap& entry, const QString& path);

// ---------------------------------------------------------------------------------------------
// Reading.
// ---------------------------------------------------------------------------------------------

/// The answer of GetMany.
[[nodiscard]] QVariantList nodesToArguments(const QVector<Node>& nodes);
[[nodiscard]] QVector<Node> nodesFromArguments(const QVariantList& arguments);

/// The answer of GetRows. Whether a row is a directory is in its role "type".
[[nodiscard]] QVariantList rowsToArguments(const Rows& rows);
[[nodiscard]] std::optional<Rows> rowsFromArguments(const QString& path,
                                                    const QVariantList& arguments);

/// The answer of Explain. A value that cannot be carried is left out.
[[nodiscard]] QVariantList originsToArguments(const QVector<RoleOrigin>& origins);
[[nodiscard]] std::optional<QVector<RoleOrigin>> originsFromArguments(
    const QVariantList& arguments);

// ---------------------------------------------------------------------------------------------
// Changes.
// ---------------------------------------------------------------------------------------------

[[nodiscard]] QVariantMap optionsToMap(const ChangeOptions& options);
/// Refused for an option that there is not, or with a value of another type.
Error optionsFromMap(const QVariantMap& map, ChangeOptions* options);

/// The options of a reset, those of one that is not recursive are none.
[[nodiscard]] QVariantMap resetOptionsToMap(const ResetOptions& options);
/// Refused for an option that there is not, or with a value of another type.
Error resetOptionsFromMap(const QVariantMap& map, ResetOptions* options);

/// The answer of SetValue, SetRoles and Apply: stored and outcome.
[[nodiscard]] QVariantList changeToArguments(const Change& change);
[[nodiscard]] std::optional<Change> changeFromArguments(const QVariantList& arguments);

/// The answer of SetMany.
[[nodiscard]] QVariantList changesToArguments(const QVector<Change>& changes);
[[nodiscard]] std::optional<QVector<Change>> changesFromArguments(const QVariantList& arguments);

/// The first argument of SetMany.
[[nodiscard]] QVariantList assignmentsToArgument(const QVector<Assignment>& assignments);
/// Refused for an entry without roles.
Error assignmentsFromArgument(const QVariantList& argument, QVector<Assignment>* assignments);

// ---------------------------------------------------------------------------------------------
// Events and the state of the service.
// ---------------------------------------------------------------------------------------------

[[nodiscard]] const Signal& signalOf(Event::Kind kind);
[[nodiscard]] QVariantList eventToArguments(const Event& event);
/// The event that a signal of this name and with these arguments tells of.
[[nodiscard]] std::optional<Event> eventFromArguments(const char* member,
                                                      const QVariantList& arguments);

/// Each property by its name, in the type of its signature.
[[nodiscard]] QVariantMap statusToProperties(const Status& status);
/// From the properties as variants hold them. None when one is missing or of another type. The
/// process id is not among them.
[[nodiscard]] std::optional<Status> statusFromProperties(const QVariantMap& values);

} // namespace tulo::wire
