#pragma once

#include "cm_settings.h"

#include "api/core/tulojson.h"
#include "tests/support/logcapture.h"
#include "tests/support/registryobserver.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <functional>
#include <future>
#include <memory>
#include <utility>

// What the tests of the worker's changes share.

inline QString operator""_s(const char* text, std::size_t size)
{
    return QString::fromUtf8(text, int(size));
}

/// What stands in files and answers, in one strict form: numbers of another kind, missing keys
/// and additional ones differ.
inline QByteArray json(const QVariant& value)
{
    return TuloJson::serialize(value);
}

inline QByteArray json(const QVariantHash& hash)
{
    return TuloJson::serialize(hash);
}

inline QByteArray json(const TuloHash& record)
{
    return TuloJson::serialize(record.__variant());
}

inline QVariant intValue(int number)
{
    return TuloValue::of(TuloValue::Int(), number).__variant();
}

inline QVariant stringValue(const QString& text)
{
    return TuloValue::of(TuloValue::String(), text).__variant();
}

/// Runs `body` on a thread of its own, which has no event loop, to its end.
inline void onAnotherThread(const std::function<void()>& body)
{
    std::async(std::launch::async, body).get();
}

/// Whether nobody holds the worker's mutex. Asked from another thread: it is recursive.
inline bool mutexIsFree(CMSettingsWorker* worker)
{
    bool isFree = false;
    onAnotherThread([worker, &isFree] {
        isFree = worker->m_mutex.tryLock();
        if (isFree)
            worker->m_mutex.unlock();
    });
    return isFree;
}

/// Calls a function whenever a reply tells that it is finished.
class ReplyHook : public CMReplyWatcher
{
public:
    ReplyHook(const CMVoidReply& reply, std::function<void()> finished)
        : m_reply(reply)
        , m_finished(std::move(finished))
    {
        m_reply.addWatcher(this);
    }
    ~ReplyHook() override { m_reply.removeWatcher(this); }

    void replyFinished(const CMVoidReply&) override { m_finished(); }

private:
    Q_DISABLE_COPY(ReplyHook)

    const CMVoidReply m_reply;
    const std::function<void()> m_finished;
};

/// An encryption handler that a test looks into. Encrypts to "encrypted".
class RecordingHandler : public EncryptionHandler
{
public:
    bool enabledForDefaults = false;
    bool enabledForWritten = true;
    /// "enabled TYPE" and "encrypt VALUE TYPE PATH", in the order of the calls.
    mutable QStringList calls;
    /// Called inside encryptValue().
    std::function<void()> onEncrypt;

    bool encryptionEnabled(SettingType type) const override
    {
        calls.append(QStringLiteral("enabled %1").arg(type));
        return type == WrittenSetting ? enabledForWritten : enabledForDefaults;
    }
    QString encryptValue(const TuloValue& value, SettingType type, const QString& path) override
    {
        calls.append(QStringLiteral("encrypt %1 %2 %3")
                         .arg(QString::fromUtf8(json(value)), QString::number(type), path));
        if (onEncrypt)
            onEncrypt();
        return QStringLiteral("encrypted");
    }
    TuloValue decryptValue(const QString&, SettingType, const QString&) override
    {
        return TuloValue();
    }
};

/// A worker on fresh trees, and its log. Records from `level` on; that of the worker's start are
/// taken already.
class ChangeFixture
{
public:
    explicit ChangeFixture(log4cplus::LogLevel level = log4cplus::INFO_LOG_LEVEL)
        : log(level)
    {
        startWorker();
    }
    ~ChangeFixture() { destroyWorker(); }

    /// Ends the worker as it is, pending writes and all, and starts another on the same trees.
    void restartWorker()
    {
        destroyWorker();
        startWorker();
    }
    /// Ends the worker. The handler that it leaves behind is freed here.
    void destroyWorker()
    {
        worker.reset();
        m_handler.reset();
    }

    /// Sets the value role of `path`, below the prefix.
    CMReply<QVariant> set(const QString& path, const QVariant& value) const
    {
        return setData(worker.get(), node(path), TuloRoles::Value(), value);
    }
    CMReply<QVariant> setRoles(const QString& path, const QVariantHash& roles) const
    {
        return setData(worker.get(), node(path), TuloRoles::SetRoles(), roles);
    }
    /// One role of `path` as get data answers it.
    QVariant get(const QString& path, const QString& role) const
    {
        return getData(worker.get(), node(path), { role }).value().value(0);
    }
    /// The full path of a setting path.
    static QString node(const QString& path) { return QLatin1String("/settings") + path; }
    /// The file that a change of `path` is written to.
    QString fileName(const QString& path) const { return tree.writePath() + path; }
    /// What is pending for `path`, as JSON; null when nothing is.
    QByteArray pending(const QString& path) const
    {
        const auto entry = worker->m_pendingWrites.constFind(fileName(path));
        return entry == worker->m_pendingWrites.cend() ? QByteArray() : json(*entry);
    }
    /// The cached names of a directory.
    QStringList listing(const QString& path) const
    {
        return worker->m_dirCache.value(path).entries;
    }

    TemporaryTree tree;
    LogCapture log;
    std::unique_ptr<CMSettingsWorker> worker;

private:
    Q_DISABLE_COPY(ChangeFixture)

    void startWorker()
    {
        worker = std::make_unique<CMSettingsWorker>(tree.config());
        m_handler.reset(worker->m_encryptionHandler);
        log.take();
    }

    std::unique_ptr<EncryptionHandler> m_handler;
};

/// A program "sync" that stands first in the search path, while the object lives: a shell script
/// of the test's own instead of the machine's program. Counts its runs.
class FakeSync
{
public:
    explicit FakeSync(const TemporaryTree& tree, const QByteArray& body = QByteArray())
        : m_directory(tree.path() + QLatin1String("/bin"))
    {
        QDir().mkpath(m_directory);
        QFile script(m_directory + QLatin1String("/sync"));
        if (!script.open(QIODevice::WriteOnly)
            || script.write("#!/bin/sh\necho run >>'" + QFile::encodeName(runsFile()) + "'\n"
                            + body)
                < 0)
            qFatal("cannot write %s", qPrintable(script.fileName()));
        // As chmod 755.
        script.setPermissions(QFile::Permissions(0x7755));
        qputenv("PATH", QFile::encodeName(m_directory) + ':' + m_pathBefore);
    }
    ~FakeSync() { qputenv("PATH", m_pathBefore); }

    int runs() const
    {
        QFile file(runsFile());
        return file.open(QIODevice::ReadOnly) ? int(file.readAll().count('\n')) : 0;
    }

private:
    Q_DISABLE_COPY(FakeSync)

    QString runsFile() const { return m_directory + QLatin1String("/runs"); }

    const QString m_directory;
    const QByteArray m_pathBefore = qgetenv("PATH");
};

/// One ordered list of everything that a caller can see: log records as "LEVEL text", between
/// them whatever the test notes.
class Journal
{
public:
    explicit Journal(LogCapture* log)
        : m_log(log)
    {
        m_log->take();
    }

    void note(const QString& event)
    {
        takeRecords();
        m_entries.append(event);
    }
    QStringList entries()
    {
        takeRecords();
        return m_entries;
    }

private:
    void takeRecords()
    {
        const QList<LogRecord> records = m_log->take();
        for (const LogRecord& record : records) {
            m_entries.append(
                QString::fromStdString(log4cplus::getLogLevelManager().toString(record.level))
                + QLatin1Char(' ') + record.message);
        }
    }

    LogCapture* m_log;
    QStringList m_entries;
};
