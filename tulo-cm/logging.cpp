#include "tulo-cm/logging.h"

#include "tulo-cm/output.h"

#include <QFileInfo>
#include <QStringList>

#include <algorithm>
#include <memory>
#include <sstream>

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

namespace tulo {

namespace {

QStringList levelNames()
{
    return { QStringLiteral("trace"), QStringLiteral("debug"), QStringLiteral("info"),
             QStringLiteral("warn"),  QStringLiteral("error"), QStringLiteral("fatal"),
             QStringLiteral("off") };
}

const log4cplus::LogLevel levels[] { log4cplus::TRACE_LOG_LEVEL, log4cplus::DEBUG_LOG_LEVEL,
                                     log4cplus::INFO_LOG_LEVEL,  log4cplus::WARN_LOG_LEVEL,
                                     log4cplus::ERROR_LOG_LEVEL, log4cplus::FATAL_LOG_LEVEL,
                                     log4cplus::OFF_LOG_LEVEL };

// "LEVEL LOGGER: MESSAGE", where a message may quote whatever a path or a file held.
class EscapingLayout : public log4cplus::PatternLayout
{
public:
    EscapingLayout()
        : PatternLayout(LOG4CPLUS_TEXT("%-5p %c: %m"))
    {
    }

    void formatAndAppend(log4cplus::tostream& output,
                         const log4cplus::spi::InternalLoggingEvent& event) override
    {
        std::ostringstream line;
        PatternLayout::formatAndAppend(line, event);
        output << escaped(QString::fromStdString(line.str())).toStdString() << '\n';
    }
};

} // namespace

QString configureLogging(const QString& level, const QString& configurationFile)
{
    const int index =
        level.isNull() ? levelNames().indexOf(QStringLiteral("warn")) : levelNames().indexOf(level);
    if (index < 0) {
        return QStringLiteral("unknown log level '%1'; levels are: %2")
            .arg(level, levelNames().join(QLatin1String(", ")));
    }
    if (!configurationFile.isNull()) {
        const QFileInfo file(configurationFile);
        if (!file.isFile() || !file.isReadable()) {
            return QStringLiteral("log configuration '%1' cannot be read").arg(configurationFile);
        }
        log4cplus::PropertyConfigurator::doConfigure(configurationFile.toStdString());
        return QString();
    }

    log4cplus::SharedAppenderPtr appender(new log4cplus::ConsoleAppender(true, true));
    appender->setLayout(std::make_unique<EscapingLayout>());
    appender->setThreshold(levels[index]);
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.removeAllAppenders();
    root.addAppender(appender);
    // Records that would not be shown are not even formatted.
    root.setLogLevel(levels[index]);
    return QString();
}

} // namespace tulo
