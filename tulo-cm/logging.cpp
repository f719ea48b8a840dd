#include "tulo-cm/logging.h"

#include "engine/logging.h"

#include <log4cplus/configurator.h>
#include <log4cplus/logger.h>

namespace tulo {

QString configureLogging(const QString& level, const QString& configurationFile)
{
    log4cplus::LogLevel lowest = log4cplus::WARN_LOG_LEVEL;
    QString error = level.isNull() ? QString() : findLogLevel(level, &lowest);
    if (error.isEmpty() && !configurationFile.isNull())
        error = checkLogConfiguration(configurationFile);
    if (!error.isEmpty())
        return error;
    if (configurationFile.isNull())
        logToStandardError(log4cplus::Logger::getRoot(), lowest);
    else
        log4cplus::PropertyConfigurator::doConfigure(configurationFile.toStdString());
    return QString();
}

} // namespace tulo
