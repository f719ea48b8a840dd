#pragma once

#include "api/core/tulovalue.h"

#include <QStringList>

/// Applies an operation to a value. Thread-safe: no state is kept; nothing is logged.
class CMOperation
{
public:
    /// The verbs: set, add, multiply, toggle, append, remove, next, previous.
    static const QStringList& verbs();

    /// Returns the value that `operation` makes of `current`, within the constraints: the result
    /// is adjusted as CMEdit::judge() does it. What the constraints refuse, an unknown verb, a
    /// verb that does not fit the kind, and an operand of another kind leave the value as it was.
    /// A number of the other number kind will do: set takes the nearest one, the others one that
    /// loses nothing.
    ///
    /// The kind is CMEdit::kind(), and where that is empty the operand's, for toggle a boolean.
    /// Without any constraints set takes a value of every kind.
    ///
    ///     verb            kind            result
    ///     set             any             the operand
    ///     add, multiply   number          the sum, the product; saturates at the limits of the
    ///                                     64-bit integers and of the finite doubles
    ///     toggle          bool            the other one
    ///     append          string          the operand's text at the end
    ///                     list            the operand's elements at the end, or the operand as
    ///                                     one element if it is not a list
    ///     remove          string          without any occurrence of the operand's text
    ///                     list            without any element equal to one of the operand's, or
    ///                                     to the operand if it is not a list
    ///     next, previous  listed values   the neighbour in the list, of those that the other
    ///                                     constraints accept; from outside of the list its
    ///                                     first, or last
    ///                     other number    one step up or down, 1 where there is none; from
    ///                                     between two steps the nearest that way
    ///
    /// Next and previous stop at the ends. An empty current value counts as 0, for multiply as
    /// 1, as false, as the empty text or list, and as lying outside of the listed values.
    static TuloValue apply(const TuloValue& current, const TuloEdit& edit,
                           const TuloOperation& operation);
};
