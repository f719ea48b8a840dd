#pragma once

#include "session.h"

#include <QString>

namespace tulo {

/// Where log records go: to standard error by default, `level` and above ("trace" to "fatal",
/// "off"); or where the log4cplus property file says. Both may be null: default level, no file.
///
/// Levels are held back at the output, not at the loggers, of which some are read by the program
/// itself. Can be called again to reload the file; callers that attached appenders must attach
/// them again.
Failure configureLogging(const QString& level, const QString& configurationFile);

} // namespace tulo
