#pragma once

class QString;

namespace tulo {

// What the nodes of a tree may be called, for files and requests alike.

/// Components of a path, the mount included.
inline constexpr int maximumLevels = 16;

/// Tells whether listings show a child of this name. Thread-safe.
bool isListable(const QString& name);

} // namespace tulo
