#pragma once

#include "api/core/tulohash.h"

#include <QStringList>

/// A setting's value: one entry whose key names the kind, such as {"int": 5}. The empty record
/// is "no value". The kind is part of the value, so the number 5 and the text "5" differ.
class TuloValue : public TuloHash
{
public:
    using TuloHash::TuloHash;
    TuloValue() = default;
    TuloValue(const TuloHash& hash); // NOLINT: records convert into each other

    // The kinds.
    static const QString& Bool();
    static const QString& Int();
    static const QString& Double();
    static const QString& String();
    static const QString& List();
    /// The five kinds, in the order above.
    static const QStringList& kinds();

    /// {kind: content}. Nothing is checked or converted.
    static TuloValue of(const QString& kind, const QVariant& content);
    /// The value of a plain JSON scalar or list, its kind taken from its type. An integer beyond
    /// the signed 64 bits becomes a double. Empty for null, an object, a number that is not
    /// finite and whatever JSON does not have.
    static TuloValue ofContent(const QVariant& content);

    /// The kind, or an empty string unless the record is one entry under a known kind.
    QString kind() const;
    /// What stands under the kind, an invalid variant when there is none.
    QVariant content() const;
    /// The same value in `kind`, its content in that kind's own type: bool, qlonglong, double,
    /// QString or QVariantList. A number changes its kind if nothing of it is lost: the integral
    /// double 5.0 is the int 5, but 2^53 + 1 cannot be a double. A boolean is never a number. Empty
    /// when the value is not of that kind, or its content does not fit its own.
    TuloValue convertedTo(const QString& kind) const;
};

/// The constraints that a setting puts on its value. Every entry is optional.
class TuloEdit : public TuloHash
{
public:
    using TuloHash::TuloHash;
    TuloEdit() = default;
    TuloEdit(const TuloHash& hash); // NOLINT: records convert into each other
    /// What a setting or another constraint has for constraints: none without an entry, and
    /// malformed ones when that is not an object.
    static TuloEdit fromVariant(const QVariant& entry);

    static const QString& Kind();
    static const QString& Min();
    static const QString& Max();
    static const QString& Step();
    static const QString& Values();
    static const QString& MinLength();
    static const QString& MaxLength();
    static const QString& Pattern();
    static const QString& Elements();
    /// The key under which malformed constraints hold what they were made of.
    static const QString& Malformed();

    bool isMalformed() const;
    /// The kind a value must have; empty when the constraints do not name one.
    QString kind() const;
    // Range and grid of a number, invalid when absent. The grid starts at min, or at 0.
    QVariant min() const;
    QVariant max() const;
    QVariant step() const;
    /// The only contents allowed; empty when absent.
    QVariantList values() const;
    /// Length of a text in UTF-16 code units or of a list in elements; -1 when absent or no
    /// whole number from 0 on.
    int minLength() const;
    int maxLength() const;
    /// A regular expression that a text must match as a whole; empty when absent.
    QString pattern() const;
    /// The constraints on each element of a list.
    TuloEdit elements() const;
};

/// A change to apply to a value: {"op": verb, "value": operand}.
class TuloOperation : public TuloHash
{
public:
    using TuloHash::TuloHash;
    TuloOperation() = default;
    TuloOperation(const TuloHash& hash); // NOLINT: records convert into each other
    TuloOperation(const QString& verb, const TuloValue& operand);

    QString op() const;
    TuloValue value() const;
};
