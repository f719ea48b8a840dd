#pragma once

#include "tulo-cm/output.h"

#include <tulo/settings.h>

namespace tulo {

/// Has everything accepted written and waits until it is on disk. Prints what is not, and returns
/// the exit code.
int flushChanges(Settings& settings, Output& output);
/// The same for a flush that was asked for before.
int finishFlush(Settings& settings, const Reply<int>& flush, Output& output);

/// The exit code of a command whose changes were then flushed. An adjusted value that is not on
/// disk is the latter.
int afterFlush(int exitCode, int flushed);

} // namespace tulo
