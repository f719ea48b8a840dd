#include "tests/support/logcapture.h"

#include <QMutex>
#include <QTest>

#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>

#include <algorithm>
#include <utility>

namespace {

QString levelName(log4cplus::LogLevel level)
{
    return QString::fromStdString(log4cplus::getLogLevelManager().toString(level));
}

log4cplus::Logger loggerNamed(const QString& name)
{
    return name.isEmpty() ? log4cplus::Logger::getRoot()
                          : log4cplus::Logger::getInstance(name.toStdString());
}

} // namespace

// Shared with the logger, which may still be in a call of it on another thread when the capture
// lets go; so the records live here.
class LogCapture::Appender : public log4cplus::Appender
{
public:
    ~Appender() override { destructorImpl(); }

    void close() override { }

    QList<LogRecord> records() const
    {
        const QMutexLocker locker(&m_mutex);
        return m_records;
    }

    QList<LogRecord> take()
    {
        const QMutexLocker locker(&m_mutex);
        return std::exchange(m_records, {});
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        const LogRecord record { event.getLogLevel(),
                                 QString::fromStdString(event.getMessage()),
                                 QString::fromStdString(event.getLoggerName()),
                                 QString::fromStdString(event.getFile()),
                                 event.getLine(),
                                 QString::fromStdString(event.getFunction()) };
        const QMutexLocker locker(&m_mutex);
        m_records.append(record);
    }

private:
    mutable QMutex m_mutex;
    QList<LogRecord> m_records;
};

LogCapture::LogCapture(log4cplus::LogLevel level, const QString& loggerName)
    : m_logger(loggerNamed(loggerName))
    , m_levelBefore(m_logger.getLogLevel())
    , m_appender(new Appender)
{
    m_logger.setLogLevel(level);
    m_logger.addAppender(m_appender);
}

LogCapture::~LogCapture()
{
    m_logger.removeAppender(m_appender);
    m_logger.setLogLevel(m_levelBefore);
}

LogCapture::Appender* LogCapture::appender() const
{
    return static_cast<Appender*>(m_appender.get());
}

void LogCapture::setLevel(log4cplus::LogLevel level)
{
    m_logger.setLogLevel(level);
}

QList<LogRecord> LogCapture::records() const
{
    return appender()->records();
}

QStringList LogCapture::messages(log4cplus::LogLevel level) const
{
    QStringList messages;
    const QList<LogRecord> all = records();
    for (const LogRecord& record : all) {
        if (record.level == level)
            messages.append(record.message);
    }
    return messages;
}

QList<LogRecord> LogCapture::take()
{
    return appender()->take();
}

void LogCapture::expect(log4cplus::LogLevel level, const QString& message)
{
    m_expectations.append({ level, message });
}

void LogCapture::verifyNothingUnexpected() const
{
    QList<LogRecord> left = records();
    QStringList findings;
    for (const Expectation& expectation : m_expectations) {
        const auto record =
            std::find_if(left.begin(), left.end(), [&expectation](const LogRecord& candidate) {
                return candidate.level == expectation.level
                    && candidate.message == expectation.message;
            });
        if (record != left.end())
            left.erase(record);
        else
            findings.append(QStringLiteral("missing %1 record: %2")
                                .arg(levelName(expectation.level), expectation.message));
    }
    for (const LogRecord& record : std::as_const(left)) {
        if (record.level >= log4cplus::WARN_LOG_LEVEL)
            findings.append(QStringLiteral("unexpected %1 record of %2: %3")
                                .arg(levelName(record.level), record.logger, record.message));
    }
    if (!findings.isEmpty())
        QTest::qFail(qPrintable(findings.join(QLatin1Char('\n'))), __FILE__, __LINE__);
}
