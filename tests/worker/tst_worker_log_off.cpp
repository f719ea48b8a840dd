// Nothing is formatted for a level that is off. This program replaces what the framework offers
// for building log texts by functions that count how often they are called.

#include "cm_settings.h"

#include "api/core/tulojson.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QTest>

#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

#include <ostream>

namespace {

using Operation = void (*)(CMSettingsWorker* worker);

int formatted = 0;

std::ostream& counted(std::ostream& stream)
{
    ++formatted;
    return stream;
}

} // namespace

std::ostream& operator<<(std::ostream& stream, const QString&)
{
    return counted(stream);
}

std::ostream& operator<<(std::ostream& stream, const QStringList&)
{
    return counted(stream);
}

std::ostream& operator<<(std::ostream& stream, const QVariant&)
{
    return counted(stream);
}

std::ostream& operator<<(std::ostream& stream, const QList<QVariant>&)
{
    return counted(stream);
}

std::ostream& operator<<(std::ostream& stream, const CMPath&)
{
    return counted(stream);
}

std::ostream& operator<<(std::ostream& stream, const TuloHash&)
{
    return counted(stream);
}

std::string dbglog_scopedFunction(const std::string&, const std::string&)
{
    ++formatted;
    return {};
}

Q_DECLARE_METATYPE(Operation)

class tst_worker_log_off : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void nothingIsFormattedBelowLevel_data();
    void nothingIsFormattedBelowLevel();
};

void tst_worker_log_off::initTestCase()
{
    log4cplus::Logger::getRoot().addAppender(
        log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));
}

void tst_worker_log_off::nothingIsFormattedBelowLevel_data()
{
    QTest::addColumn<Operation>("operation");

    const auto row = [](const char* name, Operation operation) {
        QTest::newRow(name) << operation;
    };
    row("construction", [](CMSettingsWorker*) {
        const QVariantHash config { { QStringLiteral("other"), 1 } };
        const CMSettingsWorker worker(config);
        delete worker.m_encryptionHandler;
    });
    row("get data, cold and warm", [](CMSettingsWorker* worker) {
        for (int request = 0; request < 2; ++request)
            getData(worker, QStringLiteral("/settings/volume"), { TuloRoles::Value() });
    });
    row("get data of a missing setting", [](CMSettingsWorker* worker) {
        getData(worker, QStringLiteral("/settings/missing"), { TuloRoles::Value() });
    });
    row("get data of a directory", [](CMSettingsWorker* worker) {
        getData(worker, QStringLiteral("/settings"), { TuloRoles::Value() });
    });
    row("get rows", [](CMSettingsWorker* worker) {
        getRows(worker, QStringLiteral("/settings"), 0, 9, { TuloRoles::Value() });
    });
    row("set data, and the write", [](CMSettingsWorker* worker) {
        setData(worker, QStringLiteral("/settings/volume"), TuloRoles::Value(),
                QVariantHash { { QStringLiteral("int"), 4 } });
        worker->on_writeTimer_timeout();
    });
}

void tst_worker_log_off::nothingIsFormattedBelowLevel()
{
    QFETCH(Operation, operation);
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/volume"), QByteArray(R"({"value": {"int": 3}})"));
    log4cplus::Logger root = log4cplus::Logger::getRoot();

    // At TRACE first, to know that the counters see what is formatted.
    for (const log4cplus::LogLevel level :
         { log4cplus::TRACE_LOG_LEVEL, log4cplus::WARN_LOG_LEVEL, log4cplus::OFF_LOG_LEVEL }) {
        root.setLogLevel(log4cplus::OFF_LOG_LEVEL);
        CMSettingsWorker worker(tree.config());
        root.setLogLevel(level);
        formatted = 0;

        operation(&worker);

        QCOMPARE(formatted > 0, level == log4cplus::TRACE_LOG_LEVEL);
        delete worker.m_encryptionHandler;
    }
}

QTEST_GUILESS_MAIN(tst_worker_log_off)
#include "tst_worker_log_off.moc"
