#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

// JSON text of the plain variants of tulo::Settings, as people write and read it. No state;
// thread-safe.

namespace tulo {

/// One compact document with sorted keys. Integers are exact, doubles stay doubles. A null byte
/// array for what JSON cannot hold.
QByteArray jsonOf(const QVariant& value);

/// Reads one whole document; objects become maps. What is not JSON gives an invalid variant and
/// sets `error` to "line L, column C: reason".
QVariant fromJson(const QByteArray& text, QString* error);

} // namespace tulo
