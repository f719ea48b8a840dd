#pragma once

#include "api/core/tuloroles.h"
#include "api/core/tulovalue.h"

#include <QString>
#include <QVariant>

// Values without a kind, as people and D-Bus clients give them. No state; thread-safe.

/// The kind that a setting's values have: that of its current value, its default value or its
/// constraints, in this order; empty when none tells.
QString kindOfSetting(const TuloRoles& roles);

/// `content` as a value of `kind` if it can be one (a number that loses nothing, the text of a
/// number or truth value), otherwise of the kind that it has by itself. Empty when it has none.
TuloValue valueOfKind(const QString& kind, const QVariant& content);

/// What CMEdit::judge() gave as its reason, with the limits: "it is above 'max'" becomes
/// "it is above 'max' (100)".
QString withLimits(const QString& reason, const TuloEdit& edit);
