#include "engine/logging.h"

#include "trees/printable.h"

#include <QFileInfo>
#include <QStringList>

#include <memory>
#include <sstream>

#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/spi/loggingevent.h>

namespace tulo {

namespace {

// A message may quote anything that a path or a file held.
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

QString findLogLevel(const QString& name, log4cplus::LogLevel* level)
{
    const QStringList names { QStringLiteral("trace"), QStringLiteral("debug"),
                              QStringLiteral("info"),  QStringLiteral("warn"),
                              QStringLiteral("error"), QStringLiteral("fatal"),
                              QStringLiteral("off") };
    constexpr log4cplus::LogLevel levels[] { log4cplus::TRACE_LOG_LEVEL, log4cplus::DEBUG_LOG_LEVEL,
                                             log4cplus::INFO_LOG_LEVEL,  log4cplus::WARN_LOG_LEVEL,
                                             log4cplus::ERROR_LOG_LEVEL, log4cplus::FATAL_LOG_LEVEL,
                                             log4cplus::OFF_LOG_LEVEL };
    const int index = names.indexOf(name);
    if (index < 0) {
        return QStringLiteral("unknown log level '%1'; levels are: %2")
            .arg(name, names.join(QStringLiteral(", ")));
    }
    *level = levels[index];
    return QString();
}

QString checkLogConfiguration(const QString& file)
{
    const QFileInfo info(file);
    return info.isFile() && info.isReadable()
        ? QString()
        : QStringLiteral("log configuration '%1' cannot be read").arg(file);
}

void logToStandardError(log4cplus::Logger logger, log4cplus::LogLevel level)
{
    log4cplus::SharedAppenderPtr appender(new log4cplus::ConsoleAppender(true, true));
    appender->setLayout(std::make_unique<EscapingLayout>());
    appender->setThreshold(level);
    logger.removeAllAppenders();
    logger.addAppender(appender);
    // Records that would not be shown are not even formatted.
    logger.setLogLevel(level);
}

} // namespace tulo
