#pragma once

#include "tulo-cm/command.h"

namespace tulo {

/// The command in one line: "get PATH... [--role ROLE] [--all]".
QString synopsis(const Command& command);
/// What the command does, in a few words.
QString shortSummary(const Command& command);

// Each prints help, as text or as an object, and returns Done.

/// The commands in one line each, which fits on a screen; of the shell those that it takes.
int printOverview(const Context& context);
/// Everything about the program: commands with examples, options, exit codes.
int printGeneralHelp(const Context& context);
int printHelp(const Context& context, const Command& command);

} // namespace tulo
