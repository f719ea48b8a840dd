// The log records of construction, paths and reading: exact texts, levels, functions and order.
// Tools match them, so they are an interface.

#include "tests/support/registryobserver.h"
#include "tests/support/replywaiter.h"
#include "workerfixture.h"

#include "api/core/language.h"
#include "api/core/model/tulosettingsactions.h"

namespace {

constexpr char constructor[] = "CMSettingsWorker::CMSettingsWorker(const QVariantHash&)";
constexpr char getRequestSettingPath[] =
    "static QString CMSettingsWorker::getRequestSettingPath(const CMPath&)";
constexpr char getDataRequest[] =
    "virtual void CMSettingsWorker::getDataRequest(const CMGetDataRequest&)";
constexpr char loadFile[] = "QVariant CMSettingsWorker::loadFile(const QString&, bool)";
constexpr char loadFunction[] = "TuloRoles CMSettingsWorker::load(const QString&, bool*)";

const QString path = QStringLiteral("/audio/volume");

QString levelName(log4cplus::LogLevel level)
{
    return QString::fromStdString(log4cplus::getLogLevelManager().toString(level));
}

QString line(log4cplus::LogLevel level, const char* function, const QString& message)
{
    return levelName(level) + QLatin1String(" [") + QLatin1String(function) + QLatin1String("] ")
        + message;
}

QString trace(const char* function, const QString& message)
{
    return line(log4cplus::TRACE_LOG_LEVEL, function, message);
}

} // namespace

class tst_worker_log_read : public QObject
{
    Q_OBJECT

private slots:
    void init() { m = std::make_unique<WorkerFixture>(); }
    void cleanup()
    {
        m->log.verifyNothingUnexpected();
        m.reset();
    }

    void constructionIsTraced_data();
    void constructionIsTraced();
    void chosenDirectoriesAreInfoOfConstructor();
    void missingLeadingSlashIsWarningOfPathFunction();
    void freshSettingIsTracedStepByStep();
    void productDefaultIsTracedUnderItsName();
    void templateIsReadAfterDefaultFile();
    void settingWithoutFilesIsTraced();
    void decryptedRolesAreTraced();
    void directoryIsTraced();
    void cachedRolesAreTraced();
    void pendingRolesAreTracedLikeFile();
    void unparsableFileIsErrorOfLoadFile();
    void getDataRequestIsTracedBeforeLoad();
    void requestOfFlushPathIsTraced();
    void missingSettingIsTracedWithoutError();
    void functionsWithoutRecordsLogNothing();
    void recordsBelowLevelAreLeftOut_data();
    void recordsBelowLevelAreLeftOut();

private:
    /// The records since the last call, each "LEVEL [function] message"; checks what all of them
    /// have in common.
    QStringList takeRecords()
    {
        QStringList lines;
        const QList<LogRecord> records = m->log.take();
        for (const LogRecord& record : records) {
            lines.append(
                line(record.level, record.function.toLatin1().constData(), record.message));
            if (record.logger != QLatin1String("CMSettingsWorker")
                || record.file != QLatin1String("src/modules/settings/cm_settings")
                || record.line <= 0)
                lines.append(QStringLiteral("the record before is of logger '%1', file '%2', "
                                            "line %3")
                                 .arg(record.logger, record.file)
                                 .arg(record.line));
        }
        return lines;
    }

    CMSettingsWorker& createTraced(const QVariantHash& more = {})
    {
        CMSettingsWorker& worker = m->create(more);
        m->log.setLevel(log4cplus::TRACE_LOG_LEVEL);
        return worker;
    }

    QString defaults(const QString& name) const { return m->tree.defaultPath() + name; }
    QString written(const QString& name) const { return m->tree.writePath() + name; }

    static QString entered(const char* name, const QString& argument)
    {
        return QStringLiteral("Enter CMSettingsWorker::%1: %2").arg(QLatin1String(name), argument);
    }

    std::unique_ptr<WorkerFixture> m;
};

void tst_worker_log_read::constructionIsTraced_data()
{
    QTest::addColumn<QVariantHash>("config");
    QTest::addColumn<QString>("entries");

    QTest::newRow("empty") << QVariantHash() << QString();
    QTest::newRow("text") << QVariantHash { { QStringLiteral("a"), QStringLiteral("x y") } }
                          << QStringLiteral("(a, x y)");
    QTest::newRow("number") << QVariantHash { { QStringLiteral("a"), 5 } }
                            << QStringLiteral("(a, 5)");
    QTest::newRow("invalid") << QVariantHash { { QStringLiteral("a"), QVariant() } }
                             << QStringLiteral("(a, null)");
    QTest::newRow("hash") << QVariantHash { { QStringLiteral("a"), json(R"({"b": [true]})") } }
                          << QStringLiteral("(a, {b: [true]})");
    QTest::newRow("postfix") << QVariantHash { { QStringLiteral("product_postfix"),
                                                 QStringLiteral("") } }
                             << QStringLiteral("(product_postfix, )");

    // In the order of the hash, with nothing between the entries.
    const QVariantHash several { { QStringLiteral("a"), 1 },
                                 { QStringLiteral("b"), 2 },
                                 { QStringLiteral("c"), 3 } };
    QString entries;
    for (auto entry = several.cbegin(); entry != several.cend(); ++entry)
        entries += QStringLiteral("(%1, %2)").arg(entry.key(), entry->toString());
    QTest::newRow("several") << several << entries;
}

void tst_worker_log_read::constructionIsTraced()
{
    QFETCH(QVariantHash, config);
    QFETCH(QString, entries);
    m->log.setLevel(log4cplus::TRACE_LOG_LEVEL);

    m->worker = std::make_unique<CMSettingsWorker>(config);

    const QStringList expected { trace(
        constructor, entered("CMSettingsWorker", QStringLiteral("QHash(%1)").arg(entries))) };
    QCOMPARE(takeRecords(), expected);
}

void tst_worker_log_read::chosenDirectoriesAreInfoOfConstructor()
{
    const QVariantHash config = m->tree.config();
    m->log.setLevel(log4cplus::TRACE_LOG_LEVEL);

    m->worker = std::make_unique<CMSettingsWorker>(config);

    const QStringList records = takeRecords();
    QCOMPARE(records.size(), 3);
    QVERIFY(records.at(0).startsWith(trace(constructor, QStringLiteral("Enter "))));
    QCOMPARE(records.at(1),
             line(log4cplus::INFO_LOG_LEVEL, constructor,
                  QStringLiteral("Using path %1 for default settings").arg(defaults({}))));
    QCOMPARE(records.at(2),
             line(log4cplus::INFO_LOG_LEVEL, constructor,
                  QStringLiteral("Using path %1 for writable settings").arg(written({}))));
}

void tst_worker_log_read::missingLeadingSlashIsWarningOfPathFunction()
{
    createTraced();

    CMSettingsWorker::getRequestSettingPath(CMPath(QStringLiteral("settings/k\u00fche/a b")));

    const QStringList expected { line(
        log4cplus::WARN_LOG_LEVEL, getRequestSettingPath,
        QStringLiteral("Wrong settings path detected: 'settings/k\u00fche/a b' - please fix your "
                       "code. Adding missing leading '/' for now.")) };
    QCOMPARE(takeRecords(), expected);
}

void tst_worker_log_read::freshSettingIsTracedStepByStep()
{
    m->tree.writeDefault(path, json(R"({"value": {"int": 3}})"));
    m->tree.writeWritten(path, json(R"({"value": {"int": 4}, "id": "v", "other": 1})"));
    CMSettingsWorker& worker = createTraced();

    worker.load(path, nullptr);

    const QStringList expected {
        trace(loadFunction, entered("load", path)),
        trace(loadFile, entered("loadFile", defaults(QLatin1Char('/') + path))),
        trace(loadFunction, QStringLiteral("Load all: /audio/volume")),
        trace(loadFile, entered("loadFile", written(path))),
        trace(loadFunction,
              QStringLiteral("Load all: /audio/volume writeRoles: "
                             "{id: v, other: 1, value: {int: 4}}")),
        trace(loadFunction,
              QStringLiteral("Load all finished loading: item: {defaultValue: "
                             "{int: 3}, id: v, type: 101, value: {int: 4}}")),
        trace(loadFunction, QStringLiteral("Load finished: /audio/volume item.value: {int: 4}")),
    };
    QCOMPARE(takeRecords(), expected);
}

void tst_worker_log_read::productDefaultIsTracedUnderItsName()
{
    m->tree.writeDefault(path, json(R"({"id": "plain"})"));
    m->tree.writeDefault(path + QLatin1String("_car"), json(R"({"id": "product"})"));
    CMSettingsWorker& worker =
        createTraced({ { QStringLiteral("product_postfix"), QStringLiteral("car") } });

    worker.load(path, nullptr);

    const QStringList records = takeRecords();
    QCOMPARE(records.size(), 7);
    QCOMPARE(records.at(1),
             trace(loadFile, entered("loadFile", defaults(QStringLiteral("//audio/volume_car")))));
    QCOMPARE(records.at(2), trace(loadFunction, QStringLiteral("Load all: /audio/volume_car")));
    QCOMPARE(records.at(4),
             trace(loadFunction, QStringLiteral("Load all: /audio/volume writeRoles: {}")));
}

void tst_worker_log_read::templateIsReadAfterDefaultFile()
{
    m->tree.writeDefault(QStringLiteral("/audio/.meta"), json(R"({"id": "template"})"));
    m->tree.writeDefault(path, QByteArray("{}"));
    CMSettingsWorker& worker = createTraced();

    worker.load(path, nullptr);

    const QStringList records = takeRecords();
    QCOMPARE(records.size(), 8);
    QCOMPARE(records.at(2), trace(loadFunction, QStringLiteral("Load all: /audio/volume")));
    QCOMPARE(records.at(3),
             trace(loadFile, entered("loadFile", defaults(QStringLiteral("/audio/.meta")))));
    QCOMPARE(records.at(4), trace(loadFile, entered("loadFile", written(path))));
    QCOMPARE(records.at(6),
             trace(loadFunction,
                   QStringLiteral("Load all finished loading: item: "
                                  "{id: template, type: 101}")));
}

void tst_worker_log_read::settingWithoutFilesIsTraced()
{
    CMSettingsWorker& worker = createTraced();

    worker.load(path, nullptr);

    const QStringList expected {
        trace(loadFunction, entered("load", path)),
        trace(loadFile, entered("loadFile", defaults(QLatin1Char('/') + path))),
        trace(loadFunction, QStringLiteral("Load all: /audio/volume")),
        trace(loadFile, entered("loadFile", defaults(QStringLiteral("/audio/.meta")))),
        trace(loadFile, entered("loadFile", written(path))),
        trace(loadFunction, QStringLiteral("Load all: /audio/volume writeRoles: {}")),
        trace(loadFunction, QStringLiteral("Load all finished loading: item: {type: 101}")),
        trace(loadFunction, QStringLiteral("Load finished: /audio/volume item.value: {}")),
    };
    QCOMPARE(takeRecords(), expected);
}

void tst_worker_log_read::decryptedRolesAreTraced()
{
    struct Handler : NoOpEncryptionHandler
    {
        bool encryptionEnabled(SettingType) const override { return true; }
        TuloValue decryptValue(const QString&, SettingType, const QString&) override
        {
            return json(R"({"int": 5})");
        }
    };
    m->tree.writeDefault(path, json(R"({"encrypted": true})"));
    m->tree.writeWritten(path, json(R"({"encryptedValue": "x"})"));
    CMSettingsWorker& worker = createTraced();
    delete worker.m_encryptionHandler;
    worker.m_encryptionHandler = new Handler;

    worker.load(path, nullptr);

    const QStringList records = takeRecords();
    QCOMPARE(records.size(), 7);
    QCOMPARE(records.at(5),
             trace(loadFunction,
                   QStringLiteral("Load all finished loading: item: {encrypted: true, "
                                  "encryptedValue: , type: 101, value: {int: 5}}")));
    QCOMPARE(
        records.at(6),
        trace(loadFunction, QStringLiteral("Load finished: /audio/volume item.value: {int: 5}")));
}

void tst_worker_log_read::directoryIsTraced()
{
    m->tree.writeDefault(QStringLiteral("/audio/.meta"), json(R"({"value": {"int": 1}})"));
    CMSettingsWorker& worker = createTraced();

    worker.load(QStringLiteral("/audio"), nullptr);

    const QStringList expected {
        trace(loadFunction, entered("load", QStringLiteral("/audio"))),
        trace(loadFile, entered("loadFile", defaults(QStringLiteral("/audio/.meta")))),
        trace(loadFunction, QStringLiteral("Load finished: /audio item.value: {int: 1}")),
    };
    QCOMPARE(takeRecords(), expected);
}

void tst_worker_log_read::cachedRolesAreTraced()
{
    m->tree.writeDefault(path, json(R"({"title": "Volume"})"));
    CMSettingsWorker& worker = createTraced();
    worker.load(path, nullptr);
    takeRecords();

    worker.load(path, nullptr);

    const QStringList expected {
        trace(loadFunction, entered("load", path)),
        trace(loadFunction,
              QStringLiteral("Value already cached: {path: /settings/audio/volume, "
                             "title: Volume, type: 101}")),
    };
    QCOMPARE(takeRecords(), expected);
}

void tst_worker_log_read::pendingRolesAreTracedLikeFile()
{
    CMSettingsWorker& worker = createTraced();
    worker.m_pendingWrites.insert(written(path), TuloRoles(json(R"({"id": "new"})")));

    worker.loadFile(written(path), false);

    QCOMPARE(takeRecords(), QStringList(trace(loadFile, entered("loadFile", written(path)))));
}

void tst_worker_log_read::unparsableFileIsErrorOfLoadFile()
{
    m->tree.writeWritten(path, QByteArray("{\n  x"));
    TuloError error;
    TuloJson::parse(QByteArray("{\n  x"), error, nullptr);
    QVERIFY(error.message().startsWith(QLatin1String("line 2, column 3: ")));
    CMSettingsWorker& worker = createTraced();

    worker.loadFile(written(path), false);

    const QStringList expected {
        trace(loadFile, entered("loadFile", written(path))),
        line(log4cplus::ERROR_LOG_LEVEL, loadFile,
             QStringLiteral("Settings: Unable to parse '%1': %2")
                 .arg(written(path), error.message())),
    };
    QCOMPARE(takeRecords(), expected);
}

void tst_worker_log_read::getDataRequestIsTracedBeforeLoad()
{
    m->tree.writeDefault(path, json(R"({"id": "v"})"));
    CMSettingsWorker& worker = createTraced();

    getData(&worker, QStringLiteral("/settings/audio/volume"), { TuloRoles::Id() });

    const QStringList records = takeRecords();
    QCOMPARE(records.size(), 8);
    QCOMPARE(
        records.at(0),
        trace(getDataRequest, entered("getDataRequest", QStringLiteral("/settings/audio/volume"))));
    QCOMPARE(records.at(1), trace(loadFunction, entered("load", path)));
}

void tst_worker_log_read::requestOfFlushPathIsTraced()
{
    CMSettingsWorker& worker = createTraced();

    getData(&worker, TuloSettingsActionsFlush().text(), { TuloRoles::Permission() });

    QCOMPARE(takeRecords(),
             QStringList(trace(getDataRequest,
                               entered("getDataRequest", TuloSettingsActionsFlush().text()))));
}

void tst_worker_log_read::missingSettingIsTracedWithoutError()
{
    CMSettingsWorker& worker = createTraced();

    getData(&worker, QStringLiteral("/settings/missing"), { TuloRoles::Id() });

    const QStringList records = takeRecords();
    QVERIFY(!records.isEmpty());
    for (const QString& record : records)
        QVERIFY2(record.startsWith(QLatin1String("TRACE ")), qPrintable(record));
}

void tst_worker_log_read::functionsWithoutRecordsLogNothing()
{
    m->tree.makeDefaultDirectory(QStringLiteral("/audio"));
    CMSettingsWorker& worker = createTraced();
    RegistryObserver client(worker.subscribe());

    worker.parentPath(path);
    worker.filePath(path);
    worker.getDir(QStringLiteral("/audio"), nullptr);
    worker.translateString(path, QStringLiteral("Volume"));
    client.subscribeData(QStringLiteral("/settings/audio/volume"));
    client.subscribeRows(QStringLiteral("/settings/audio"));
    client.subscribeValue(QStringLiteral("/settings/audio/volume"));
    emit Language::instance()->languageChanged();
    worker.ping(CMSetDataRequest::ping(CMPath(), CMReply<QVariant>::create()));
    worker.trace();
    m->destroyWorker();

    QCOMPARE(takeRecords(), QStringList());
}

void tst_worker_log_read::recordsBelowLevelAreLeftOut_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("INFO") << log4cplus::INFO_LOG_LEVEL
                          << QStringList { QStringLiteral("INFO"), QStringLiteral("INFO"),
                                           QStringLiteral("WARN"), QStringLiteral("ERROR") };
    QTest::newRow("WARN") << log4cplus::WARN_LOG_LEVEL
                          << QStringList { QStringLiteral("WARN"), QStringLiteral("ERROR") };
    QTest::newRow("ERROR") << log4cplus::ERROR_LOG_LEVEL << QStringList(QStringLiteral("ERROR"));
    QTest::newRow("OFF") << log4cplus::OFF_LOG_LEVEL << QStringList();
}

void tst_worker_log_read::recordsBelowLevelAreLeftOut()
{
    QFETCH(int, level);
    QFETCH(QStringList, expected);
    m->tree.writeWritten(path, QByteArray("{"));
    m->log.setLevel(level);

    m->worker = std::make_unique<CMSettingsWorker>(m->tree.config());
    getData(m->worker.get(), QStringLiteral("settings/audio/volume"), { TuloRoles::Id() });

    QStringList levels;
    const QStringList records = takeRecords();
    for (const QString& record : records)
        levels.append(record.section(QLatin1Char(' '), 0, 0));
    QCOMPARE(levels, expected);
}

QTEST_GUILESS_MAIN(tst_worker_log_read)
#include "tst_worker_log_read.moc"
