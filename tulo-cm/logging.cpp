#include "tulo-cm/logging.h"

#include "tulo-cm/progress.h"

#include "engine/logging.h"

#include <log4cplus/appender.h>
#include <log4cplus/configurator.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/filter.h>

namespace tulo {
namespace {

// They go to the same terminal.
void pauseProgressForRecords()
{
    for (const auto& appender : log4cplus::Logger::getRoot().getAllAppenders()) {
        appender->addFilter([](const log4cplus::spi::InternalLoggingEvent&) {
            const ProgressPause pause;
            return log4cplus::spi::NEUTRAL;
        });
    }
}

} // namespace

QString configureLogging(const QString& level, const QString& configurationFile)
{
    log4cplus::LogLevel lowest = log4cplus::WARN_LOG_LEVEL;
    QString error = level.isNull() ? QString() : findLogLevel(level, &lowest);
    if (error.isEmpty() && !configurationFile.isNull())
        error = checkLogConfiguration(configurationFile);
    if (!error.isEmpty())
        return error;
    if (configurationFile.isNull()) {
        logToStandardError(log4cplus::Logger::getRoot(), lowest);
        pauseProgressForRecords();
    } else {
        log4cplus::PropertyConfigurator::doConfigure(configurationFile.toStdString());
    }
    return QString();
}

} // namespace tulo
