#pragma once

#include "tulo-cm/output.h"

#include <QString>
#include <QStringList>
#include <QVariantMap>

namespace tulo {

// Roles as a person reads them. On a terminal a timestamp is a local date and constraints are in
// words; programs get them as they are.

/// The roles to ask for so that those of `names` can be shown; with `isMarked` for markedRow().
QStringList neededRoles(const Output& output, const QStringList& names, bool isMarked = false);

/// One of the roles, in one line and escaped().
QString shownRole(const Output& output, const QString& name, const QVariantMap& roles);
/// A cell for each name.
QStringList roleCells(const Output& output, const QVariantMap& roles, const QStringList& names);

/// A row of a table about a node: "*" marks a changed setting, "=" a read-only one.
TableRow markedRow(const QStringList& cells, const QVariantMap& roles, bool isDirectory);

} // namespace tulo
