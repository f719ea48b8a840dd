#pragma once

#include "tulo-cm/command.h"
#include "tulo-cm/lineeditor.h"

namespace tulo {

/// Completes the last word of a line of the shell as far as its candidates agree. Prints them,
/// with their descriptions, where they agree no further.
LineEditor::Edit completeLine(Context& context, const QString& line);

} // namespace tulo
