#include "daemon/logging.h"

#include "daemon/log.h"

#include <QFileInfo>
#include <QStringList>

#include <memory>
#include <sstream>

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/spi/loggingevent.h>

namespace tulo {

namespace {

// A message may quote whatever a path or a file held.
QString printable(const QString& text)
{
    QString line;
    for (const QChar character : text) {
        if (character.isPrint() || character.isSurrogate())
            line += character;
        else
            line += QStringLiteral("\\u%1").arg(character.unicode(), 4, 16, QLatin1Char('0'));
    }
    return line;
}

// "LEVEL LOGGER: MESSAGE"
class LineLayout : public log4cplus::PatternLayout
{
public:
    LineLayout()
        : PatternLayout(LOG4CPLUS_TEXT("%-5p %c: %m"))
    {
    }

    void formatAndAppend(log4cplus::tostream& output,
                         const log4cplus::spi::InternalLoggingEvent& event) override
    {
        std::ostringstream line;
        PatternLayout::formatAndAppend(line, event);
        output << printable(QString::fromStdString(line.str())).toStdString() << '\n';
    }
};

void logToStandardError(log4cplus::Logger logger, log4cplus::LogLevel level)
{
    log4cplus::SharedAppenderPtr appender(new log4cplus::ConsoleAppender(true, true));
    appender->setLayout(std::make_unique<LineLayout>());
    appender->setThreshold(level);
    logger.removeAllAppenders();
    logger.addAppender(appender);
    // Records that would not be shown are not even formatted.
    logger.setLogLevel(level);
}

} // namespace

QString configureLogging(const QString& level, const QString& configurationFile)
{
    const QStringList names { QStringLiteral("trace"), QStringLiteral("debug"),
                              QStringLiteral("info"),  QStringLiteral("warn"),
                              QStringLiteral("error"), QStringLiteral("fatal"),
                              QStringLiteral("off") };
    constexpr log4cplus::LogLevel levels[] { log4cplus::TRACE_LOG_LEVEL, log4cplus::DEBUG_LOG_LEVEL,
                                             log4cplus::INFO_LOG_LEVEL,  log4cplus::WARN_LOG_LEVEL,
                                             log4cplus::ERROR_LOG_LEVEL, log4cplus::FATAL_LOG_LEVEL,
                                             log4cplus::OFF_LOG_LEVEL };
    const int index = names.indexOf(level);
    if (!level.isEmpty() && index < 0) {
        return QStringLiteral("unknown log level '%1'; levels are: %2")
            .arg(level, names.join(QStringLiteral(", ")));
    }
    if (!configurationFile.isEmpty()) {
        const QFileInfo file(configurationFile);
        if (!file.isFile() || !file.isReadable())
            return QStringLiteral("log configuration '%1' cannot be read").arg(configurationFile);
        // What the file does not name is as if this had not been called before.
        log4cplus::Logger own = daemonLogger();
        own.removeAllAppenders();
        own.setAdditivity(true);
        own.setLogLevel(log4cplus::NOT_SET_LOG_LEVEL);
        log4cplus::PropertyConfigurator::doConfigure(configurationFile.toStdString());
        return QString();
    }
    logToStandardError(log4cplus::Logger::getRoot(),
                       index < 0 ? log4cplus::WARN_LOG_LEVEL : levels[index]);
    log4cplus::Logger own = daemonLogger();
    own.setAdditivity(false);
    logToStandardError(own, index < 0 ? log4cplus::INFO_LOG_LEVEL : levels[index]);
    return QString();
}

} // namespace tulo
