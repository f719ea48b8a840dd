#pragma once

#include <QString>

#include <log4cplus/logger.h>

namespace tulo {

// What the programs have in common where they decide where log records go.

/// The level that `name` names, "trace" to "fatal" or "off". Returns what is wrong with it; empty
/// when nothing is.
[[nodiscard]] QString findLogLevel(const QString& name, log4cplus::LogLevel* level);

/// What keeps a log4cplus property file from being read, in one line; empty when nothing does.
[[nodiscard]] QString checkLogConfiguration(const QString& file);

/// Sends the records of a logger, of `level` and above, to standard error: one line each, "LEVEL
/// LOGGER: MESSAGE", escaped(). It has no other appender then.
void logToStandardError(log4cplus::Logger logger, log4cplus::LogLevel level);

} // namespace tulo
