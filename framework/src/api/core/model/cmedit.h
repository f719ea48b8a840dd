#pragma once

#include "api/core/model/cmpath.h"
#include "api/core/tulovalue.h"

#include <QString>

/// Judges values against the constraints of a setting. Thread-safe: no state is kept.
///
/// - Without constraints every value passes that can be stored: one content of a known kind, of
///   that kind's type, that JSON can hold.
/// - Otherwise the kind comes first: the one that the constraints name, else that of min, max and
///   the listed values, else the stored value's; without any of these every kind will do. Numbers
///   are doubles as soon as one of them, or the stored one, is a double. Beside that a stored value
///   does not bind. A number of the other number kind is converted, silently if nothing of it is
///   lost; otherwise it is adjusted to the nearest one, from the middle away from 0. Any other kind
///   is refused. Only the constraints of that kind are looked at: a pattern means nothing to a
///   number.
/// - A number is clamped to the range, then moved to the nearest step; halfway goes up. Steps
///   count from min, without one from 0, and never lead out of the range. What is beside its
///   step by rounding errors only is put on it silently: with a step of 0.1 the sum of 0.1 and
///   0.2 is 0.3.
/// - Lengths and patterns refuse. A pattern matches the whole text.
/// - The constraints on elements judge each element of a list by its own; the list is refused, or
///   adjusted, when one of its elements is.
/// - The listed values refuse what is not among them; they are asked last, so about the adjusted
///   number. Numbers compare by their amount, lists as a whole. An empty list constrains nothing.
/// - A constraint that cannot be understood refuses every value: constraints that are not an
///   object, a kind that does not exist, a range or step that is not a finite number, a step of 0
///   or less, or of a fraction for an int, values of several kinds, a length that is not a whole
///   number, an invalid pattern. So does a range without a value in it.
class CMEdit
{
public:
    struct Judgement
    {
        TuloValue value; ///< empty when the request is refused
        QString reason; ///< of a refusal or an adjustment, naming the constraint; else empty
    };

    /// Returns the value to store in place of `requested`: empty for an empty or a refused
    /// request, which means that the stored one is kept.
    ///
    /// A refusal or an adjustment is a WARN on the logger "TuloFramework" with `fullPath`, and is
    /// never reported otherwise. The record holds no value: those of some settings are secret.
    static TuloValue validate(const TuloValue& stored, const TuloValue& requested,
                              const TuloEdit& edit, const CMPath& fullPath);

    /// The same judgement with its reason; nothing is logged. A caller who knows the kind that the
    /// setting has by its default value puts it into `edit`.
    static Judgement judge(const TuloValue& stored, const TuloValue& requested,
                           const TuloEdit& edit);

    /// The kind that a value must have; empty when every kind will do, or the constraint that
    /// ought to tell is malformed.
    static QString kind(const TuloValue& stored, const TuloEdit& edit);
};
