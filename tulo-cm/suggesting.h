#pragma once

#include "tulo-cm/command.h"

namespace tulo {

/// Runs the command. Where it reported that there is no such path, a person gets a hint at one that
/// may have been meant.
int runWithHints(Context& context, const Arguments& arguments);

/// For a person: what may have been meant in place of what was given; nothing when it is empty.
void suggest(Output& output, const QString& meant);

} // namespace tulo
