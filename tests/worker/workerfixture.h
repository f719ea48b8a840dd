#pragma once

#include "cm_settings.h"

#include "api/core/tulojson.h"
#include "tests/support/logcapture.h"
#include "tests/support/temporarytree.h"

#include <QTest>

#include <log4cplus/appender.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/spi/loggingevent.h>

#include <future>
#include <memory>
#include <sstream>
#include <thread>

/// A worker on trees of its own, with the records of the process captured. One for each test
/// function; cleanup() has the capture verified.
struct WorkerFixture
{
    TemporaryTree tree;
    LogCapture log;
    std::unique_ptr<CMSettingsWorker> worker;

    WorkerFixture() = default;
    // The handler outlives the worker, so somebody else deletes it.
    ~WorkerFixture() { destroyWorker(); }

    /// Creates the worker on the two trees, with `more` in its configuration, and forgets the
    /// records of its construction.
    CMSettingsWorker& create(const QVariantHash& more = {})
    {
        QVariantHash config = tree.config();
        for (auto entry = more.cbegin(); entry != more.cend(); ++entry)
            config.insert(entry.key(), entry.value());
        destroyWorker();
        worker = std::make_unique<CMSettingsWorker>(config);
        log.take();
        return *worker;
    }

    void destroyWorker()
    {
        const EncryptionHandler* handler = worker ? worker->m_encryptionHandler : nullptr;
        worker.reset();
        delete handler;
    }

    /// The messages of the records that name a file that is about to be loaded, in order.
    QStringList loadedFiles() const
    {
        const QString entry = QStringLiteral("Enter CMSettingsWorker::loadFile: ");
        QStringList names;
        for (const QString& message : log.messages(log4cplus::TRACE_LOG_LEVEL)) {
            if (message.startsWith(entry))
                names.append(message.mid(entry.size()));
        }
        return names;
    }

private:
    Q_DISABLE_COPY(WorkerFixture)
};

/// Calls a function inside every log record of the process.
class RecordHook
{
public:
    using Function = std::function<void(const QString& message)>;

    explicit RecordHook(const Function& function)
        : m_appender(new Appender(function))
    {
        log4cplus::Logger::getRoot().addAppender(m_appender);
    }
    ~RecordHook() { log4cplus::Logger::getRoot().removeAppender(m_appender); }

private:
    Q_DISABLE_COPY(RecordHook)

    class Appender : public log4cplus::Appender
    {
    public:
        explicit Appender(const Function& function)
            : m_function(function)
        {
        }
        ~Appender() override { destructorImpl(); }
        void close() override { }

    protected:
        void append(const log4cplus::spi::InternalLoggingEvent& event) override
        {
            m_function(QString::fromStdString(event.getMessage()));
        }

    private:
        const Function m_function;
    };

    log4cplus::SharedAppenderPtr m_appender;
};

/// For a child that is going to abort: its records go to standard error, "LEVEL - message".
inline void logToStandardError(log4cplus::LogLevel level)
{
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.setLogLevel(level);
    root.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::ConsoleAppender(true, true)));
}

/// Holds a mutex on another thread, so that whoever locks it here would never return.
class HeldElsewhere
{
public:
    explicit HeldElsewhere(QMutex* mutex)
        : m_thread([this, mutex] {
            mutex->lock();
            m_locked.set_value();
            m_release.get_future().wait();
            mutex->unlock();
        })
    {
        m_locked.get_future().wait();
    }
    ~HeldElsewhere()
    {
        m_release.set_value();
        m_thread.join();
    }

private:
    Q_DISABLE_COPY(HeldElsewhere)

    std::promise<void> m_locked;
    std::promise<void> m_release;
    std::thread m_thread;
};

/// Tells whether another thread could lock the mutex now.
inline bool isFreeForOthers(QMutex* mutex)
{
    bool locked = false;
    std::thread([mutex, &locked] {
        locked = mutex->tryLock();
        if (locked)
            mutex->unlock();
    }).join();
    return locked;
}

/// The object that a JSON text describes.
inline QVariantHash json(const char* text)
{
    TuloError error;
    const QVariant value = TuloJson::parse(QByteArray(text), error, nullptr);
    if (value.userType() != QMetaType::QVariantHash)
        qFatal("not a JSON object: %s", text);
    return value.toHash();
}

inline QString textOf(const TuloHash& hash)
{
    std::ostringstream stream;
    stream << hash;
    return QString::fromStdString(stream.str());
}

/// Compares two records: first as texts, which tell more when they differ, then exactly.
#define COMPARE_RECORDS(actual, expected)                                                          \
    do {                                                                                           \
        QCOMPARE(textOf(actual), textOf(expected));                                                \
        QVERIFY(TuloHash(actual) == TuloHash(expected));                                           \
    } while (false)
