#pragma once

#include <QString>

namespace tulo {

/// Decides where log records go: to standard error by default, `level` and above ("trace" to
/// "fatal", "off"); or where the log4cplus property file says. Both may be null: default level, no
/// file. Returns what is wrong with them; empty when nothing is.
///
/// Levels are held back at the output, not at the loggers, of which some are read by the program
/// itself.
[[nodiscard]] QString configureLogging(const QString& level, const QString& configurationFile);

} // namespace tulo
