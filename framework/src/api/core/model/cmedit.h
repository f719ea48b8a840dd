#pragma once

#include "api/core/model/cmpath.h"
#include "api/core/tulovalue.h"

#include <QString>

/// Judges values against the constraints of a setting. Thread-safe: no state is kept.
///
/// - The kind comes first. Where the constraints do not name one it is that of min, max, the
///   listed values or the stored value, in this order; without any of these every kind will do.
///   A number of the other number kind is converted if nothing of it is lost, silently; any
///   other kind is refused. Only the constraints of that kind are looked at: a pattern means
///   nothing to a number.
/// - A number is clamped to the range, then moved to the nearest step; halfway goes up. Steps
///   count from min, without one from 0, and never lead out of the range. What is beside its
///   step by rounding errors only is put on it silently: with a step of 0.1 the sum of 0.1 and
///   0.2 is 0.3.
/// - Lengths and patterns refuse. A pattern matches the whole text.
/// - The listed values refuse what is not among them; they are asked last, so about the adjusted
///   number. Numbers compare by their amount, lists as a whole. An empty list constrains nothing.
/// - A constraint that cannot be understood refuses every value: a kind that does not exist, a
///   range or step that is no finite number, a step of 0 or less, or of a fraction for an int,
///   values of several kinds, a length that is no whole number, an invalid pattern. So does a
///   range without a value in it.
class CMEdit
{
public:
    struct Judgement
    {
        TuloValue value; ///< empty when the request is refused
        QString reason; ///< of a refusal or an adjustment, naming the constraint; else empty
    };

    /// Returns the value to store in place of `requested`: empty for an empty or a refused
    /// request, which means that the stored one is kept; unchanged when there are no constraints.
    ///
    /// A refusal or an adjustment is a WARN on the logger "TuloFramework" with `fullPath`, and is
    /// never reported otherwise. The record holds no value: those of some settings are secret.
    static TuloValue validate(const TuloValue& stored, const TuloValue& requested,
                              const TuloEdit& edit, const CMPath& fullPath);

    /// The same judgement for whoever wants the reason; nothing is logged.
    static Judgement judge(const TuloValue& stored, const TuloValue& requested,
                           const TuloEdit& edit);

    /// The kind that a value must have; empty when every kind will do, or the constraint that
    /// ought to tell is malformed.
    static QString kind(const TuloValue& stored, const TuloEdit& edit);
};
