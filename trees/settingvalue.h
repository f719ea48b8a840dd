#pragma once

#include "api/core/tuloroles.h"
#include "api/core/tulovalue.h"

#include <QString>
#include <QVariant>

namespace tulo {

// Values without a kind, as people and D-Bus clients give them. No state; thread-safe.

/// Tells whether a kind is int or double.
bool isNumberKind(const QString& kind);

/// The kind that a setting's values have: that of its constraints, of its default value, or,
/// where there is none, of its current value; empty when none tells. Constraints that name
/// numbers only leave it to the default and current value whether it is int or double.
QString kindOfSetting(const TuloRoles& setting);

/// What validating a change gave.
struct [[nodiscard]] ValidatedValue
{
    bool isAccepted = true;
    TuloValue asked; ///< of an operation: its result without the limits; else what was sent
    TuloValue value; ///< to store; empty for an empty request
    QString reason; ///< of a rejection or an adjustment, with the limits; else empty
};

/// Validates `requested` against the kind and the constraints of `setting`, which holds its value,
/// defaultValue and edit. An empty request, which leaves the stored value, is accepted.
ValidatedValue validateChange(const TuloRoles& setting, const TuloValue& requested);

/// The same for what `operation` makes of the current value. A verb that does not exist or does
/// not apply to the setting's kind is rejected.
ValidatedValue validateOperation(const TuloRoles& setting, const TuloOperation& operation);

/// `content` as a value of `kind` if it can be one (a number that loses nothing, the text of a
/// number or truth value), otherwise of the kind that it has by itself. Empty when it has none.
TuloValue valueOfKind(const QString& kind, const QVariant& content);

/// What CMEdit::judge() gave as its reason, with the limits: "it is above 'max'" becomes
/// "it is above 'max' (100)".
QString withLimits(const QString& reason, const TuloEdit& edit);

} // namespace tulo
