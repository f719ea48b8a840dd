#pragma once

#include <QString>

namespace tulo {

/// Where log records go: as the log4cplus property file says, or without one to standard error, in
/// one line each: `level` and above ("trace" to "fatal", "off"). Without a level, warnings and
/// worse and the service's own milestones. An empty text stands for none.
///
/// Returns why it cannot be done, and changes nothing then. May be called again, also to read the
/// file again; appenders that others attached have to be attached again.
QString configureLogging(const QString& level, const QString& configurationFile);

} // namespace tulo
