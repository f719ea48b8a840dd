#pragma once

class QString;

namespace tulo {

/// Tells whether listings show a child of this name. Thread-safe.
bool isListable(const QString& name);

} // namespace tulo
