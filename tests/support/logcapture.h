#pragma once

#include <QList>
#include <QString>
#include <QStringList>

#include <log4cplus/logger.h>

/// One log record as its logger emitted it.
struct LogRecord
{
    log4cplus::LogLevel level = log4cplus::NOT_SET_LOG_LEVEL;
    QString message;
    QString logger;
    QString file;
    int line = 0;
    QString function;
};

/// Collects the log records of the process, from every logger unless one is named, and checks
/// them: a WARN, ERROR or FATAL that the test did not reckon with fails it. Use one for each
/// test function:
///
///     void init() { m_log = std::make_unique<LogCapture>(); }
///     void cleanup()
///     {
///         m_log->verifyNothingUnexpected();
///         m_log.reset();
///     }
///     void brokenFileIsLogged()
///     {
///         m_log->expect(log4cplus::ERROR_LOG_LEVEL, QStringLiteral("..."));
///
/// Records may come from any thread.
class LogCapture
{
public:
    /// Records `level` and above. The logger's own level is put back on destruction; an empty
    /// name means the root logger, to which all others pass their records on.
    explicit LogCapture(log4cplus::LogLevel level = log4cplus::INFO_LOG_LEVEL,
                        const QString& loggerName = QString());
    ~LogCapture();

    /// Records `level` and above from now on.
    void setLevel(log4cplus::LogLevel level);

    /// What came so far and was not taken, oldest first.
    QList<LogRecord> records() const;
    /// The messages of one level, oldest first.
    QStringList messages(log4cplus::LogLevel level) const;
    /// Returns what came so far and forgets it: the caller checks these records itself.
    QList<LogRecord> take();

    /// Announces one record, before or after it comes. Verifying fails when it is missing.
    void expect(log4cplus::LogLevel level, const QString& message);
    /// Fails the running test if an expected record is missing or a WARN, ERROR or FATAL was
    /// neither expected nor taken.
    void verifyNothingUnexpected() const;

private:
    Q_DISABLE_COPY(LogCapture)

    class Appender;
    struct Expectation
    {
        log4cplus::LogLevel level;
        QString message;
    };

    log4cplus::Logger m_logger;
    const log4cplus::LogLevel m_levelBefore;
    log4cplus::helpers::SharedObjectPtr<log4cplus::Appender> m_appender;
    QList<Expectation> m_expectations;

    Appender* appender() const;
};
