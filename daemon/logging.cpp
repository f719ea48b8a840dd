#include "daemon/logging.h"

#include "daemon/log.h"

#include "engine/logging.h"

#include <log4cplus/configurator.h>

namespace tulo {

QString configureLogging(const QString& level, const QString& configurationFile)
{
    log4cplus::LogLevel lowest = log4cplus::WARN_LOG_LEVEL;
    log4cplus::LogLevel ownLowest = log4cplus::INFO_LOG_LEVEL;
    QString error;
    if (!level.isEmpty()) {
        error = findLogLevel(level, &lowest);
        ownLowest = lowest;
    }
    if (error.isEmpty() && !configurationFile.isEmpty())
        error = checkLogConfiguration(configurationFile);
    if (!error.isEmpty())
        return error;

    log4cplus::Logger own = daemonLogger();
    if (!configurationFile.isEmpty()) {
        // What the file does not name is as if this had not been called before.
        own.removeAllAppenders();
        own.setAdditivity(true);
        own.setLogLevel(log4cplus::NOT_SET_LOG_LEVEL);
        log4cplus::PropertyConfigurator::doConfigure(configurationFile.toStdString());
        return QString();
    }
    logToStandardError(log4cplus::Logger::getRoot(), lowest);
    own.setAdditivity(false);
    logToStandardError(own, ownLowest);
    return QString();
}

} // namespace tulo
