#pragma once

#include "api/core/tulohash.h"

#include <QByteArray>
#include <QVariant>

/// JSON text (RFC 8259, UTF-8) to variants and back. Thread-safe: no state is kept.
class TuloJson
{
public:
    /// How deep objects and lists may nest, reading and writing alike.
    static constexpr int maximumDepth = 64;

    /// Parses one whole document. Objects become QVariantHash (the last of duplicate keys wins),
    /// lists QVariantList, texts non-null QString, integers qlonglong (qulonglong above its
    /// range), other numbers double, null an invalid variant. Scalars are documents too.
    ///
    /// A fault, which includes empty input, trailing text, a byte order mark, malformed UTF-8
    /// and deeper nesting, gives an invalid variant and sets the message of `error` to
    /// "line L, column C: reason" (both from 1, columns in characters). `offset`, unless null,
    /// receives the byte offset where reading stopped.
    static QVariant parse(const QByteArray& text, TuloError& error, unsigned int* offset);

    /// Writes one compact document with sorted keys. 64-bit integers are exact, doubles round
    /// trip and stay doubles, translatable texts and paths become strings.
    ///
    /// A NaN, an infinity, a type that JSON does not have or deeper nesting, anywhere inside,
    /// gives a null byte array.
    static QByteArray serialize(const QVariant& value);
};
