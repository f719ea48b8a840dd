#include "changefixture.h"

#include "api/core/model/tulosettingsactions.h"

#include <QTest>

// The records of rows, changes and writing, as tools match them: level, function and text. What
// the loads on the way log stands in another test.

namespace {

const QString getRowsFunction =
    "virtual void CMSettingsWorker::getRowsRequest(const CMGetRowsRequest&)"_s;
const QString setDataFunction =
    "virtual void CMSettingsWorker::setDataRequest(const CMSetDataRequest&)"_s;
const QString saveFunction = "void CMSettingsWorker::saveValue(CMReply<QVariant>, const QString&, "
                             "const TuloRoles&)"_s;
const QString parentFunction =
    "void CMSettingsWorker::updateParentDir(const QString&, const TuloRoles&)"_s;
const QString scheduleFunction =
    "void CMSettingsWorker::on_scheduleWrite(const QString&, const TuloRoles&)"_s;
const QString timeoutFunction = "void CMSettingsWorker::on_writeTimer_timeout()"_s;
const QString writeFunction =
    "void CMSettingsWorker::writeFile(const QString&, const TuloRoles&)"_s;
const QString flushFunction = "void CMSettingsWorker::on_flush_invoked(const CMSetDataRequest&)"_s;

} // namespace

class tst_WorkerLogChange : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void rows();
    void rowsOfAMissingDirectory();
    void failingRow();
    void changedValue();
    void changeOfANewSettingWithAliases();
    void sameValue();
    void pathRole();
    void readOnlySetting();
    void otherRole();
    void wrongActivatePath();
    void dropCache();
    void drain();
    void encryptedWrite();
    void failedParentDirectory();
    void failedTemporaryFile();
    void failedRename();
    void flush();
    void failedSync();
    void nothingBelowTheLevelIsLogged();

private:
    /// What was logged since the worker started or the last call, one record a text: level,
    /// function, message. Checks what all have in common.
    QStringList taken() const;
    static QString record(const QString& level, const QString& function, const QString& text);

    std::unique_ptr<ChangeFixture> m_fixture;
    QString m_volume; ///< the written file of "/audio/volume"
};

void tst_WorkerLogChange::init()
{
    m_fixture = std::make_unique<ChangeFixture>(log4cplus::TRACE_LOG_LEVEL);
    m_fixture->tree.writeDefault("/audio/volume"_s, R"({"value":{"int":3}})");
    m_fixture->tree.writeDefault("/fixed"_s, R"({"modifiable":false})");
    m_volume = m_fixture->fileName("/audio/volume"_s);
}

void tst_WorkerLogChange::cleanup()
{
    m_fixture->log.verifyNothingUnexpected();
    m_fixture.reset();
}

QString tst_WorkerLogChange::record(const QString& level, const QString& function,
                                    const QString& text)
{
    return level + " | "_s + function + " | "_s + text;
}

QStringList tst_WorkerLogChange::taken() const
{
    QStringList texts;
    const QList<LogRecord> records = m_fixture->log.take();
    for (const LogRecord& entry : records) {
        if (entry.logger != "CMSettingsWorker"_s
            || entry.file != "src/modules/settings/cm_settings"_s || entry.line <= 0)
            texts.append("wrong logger, file or line: "_s + entry.message);
        if (!entry.function.contains("::load"_s) && !entry.function.contains("::getDataRequest"_s))
            texts.append(record(
                QString::fromStdString(log4cplus::getLogLevelManager().toString(entry.level)),
                entry.function, entry.message));
    }
    return texts;
}

void tst_WorkerLogChange::rows()
{
    getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 9,
            { TuloRoles::Value(), TuloRoles::Id() });

    const QString& function = getRowsFunction;
    QCOMPARE(
        taken(),
        QStringList(
            { record("TRACE"_s, function,
                     "Enter CMSettingsWorker::getRowsRequest: /settings/audio"_s),
              record("TRACE"_s, function, "path  : /settings/audio"_s),
              record("TRACE"_s, function, "roles : [value, id]"_s),
              record("TRACE"_s, function,
                     "default path: "_s + m_fixture->tree.defaultPath() + "/audio"_s),
              record("TRACE"_s, function,
                     "write path  : "_s + m_fixture->tree.writePath() + "/audio"_s),
              record("TRACE"_s, function, "row path: /settings/audio/volume"_s),
              record("TRACE"_s, function, "Data : [{int: 3}, null]"_s),
              record(
                  "TRACE"_s, function,
                  "CMSettingsWorker::getRowsRequest {roles: {path: /settings/audio, title: audio, "
                  "type: 1}, rows: [[{int: 3}, null]], rowsCount: 1, rowsVersion: 0}"_s) }));
}

void tst_WorkerLogChange::rowsOfAMissingDirectory()
{
    getRows(m_fixture->worker.get(), "/settings/none"_s, 0, 9, {});

    const QString& function = getRowsFunction;
    QCOMPARE(taken(),
             QStringList({ record("TRACE"_s, function,
                                  "Enter CMSettingsWorker::getRowsRequest: /settings/none"_s),
                           record("TRACE"_s, function, "path  : /settings/none"_s),
                           record("TRACE"_s, function, "roles : []"_s),
                           record("TRACE"_s, function,
                                  "default path: "_s + m_fixture->tree.defaultPath() + "/none"_s),
                           record("TRACE"_s, function,
                                  "write path  : "_s + m_fixture->tree.writePath() + "/none"_s) }));
}

// A row without a file of its own: listed because it was, gone since.
void tst_WorkerLogChange::failingRow()
{
    getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, -1, {});
    QVERIFY(QFile::remove(m_fixture->tree.defaultPath() + "/audio/volume"_s));
    taken();

    getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 9, {});

    QCOMPARE(taken().mid(5),
             QStringList({ record("TRACE"_s, getRowsFunction, "row path: /settings/audio/volume"_s),
                           record("ERROR"_s, getRowsFunction,
                                  "Loaded path is invalid: /settings/audio/volume"_s) }));
}

void tst_WorkerLogChange::changedValue()
{
    m_fixture->setRoles("/audio/volume"_s,
                        { { TuloRoles::Value(), intValue(5) }, { TuloRoles::Timestamp(), 12 } });

    QCOMPARE(
        taken(),
        QStringList(
            { record("DEBUG"_s, setDataFunction,
                     "Settings: setDataRequest path:/settings/audio/volume role:setRoles "
                     "value:{timestamp: 12, value: {int: 5}}"_s),
              record("TRACE"_s, saveFunction,
                     "Enter CMSettingsWorker::saveValue: /audio/volume "
                     "{timestamp: 12, value: {int: 5}}"_s),
              record("TRACE"_s, scheduleFunction,
                     "Enter CMSettingsWorker::on_scheduleWrite: "_s + m_volume
                         + " {timestamp: 12, value: {int: 5}}"_s),
              record("DEBUG"_s, saveFunction, "Value changed: /settings/audio/volume"_s),
              record("DEBUG"_s, saveFunction, "Data changed: /settings/audio/volume"_s),
              record("TRACE"_s, parentFunction,
                     "Enter CMSettingsWorker::updateParentDir: path:/audio/volume "
                     "roles:{timestamp: 12, value: {int: 5}}"_s),
              record("DEBUG"_s, parentFunction, "Rows Changed: /settings/audio 0 cmd: 0"_s) }));
}

void tst_WorkerLogChange::changeOfANewSettingWithAliases()
{
    RegistryObserver client(m_fixture->worker->subscribe());
    client.subscribeValue("settings/x"_s);
    client.subscribeData("settings/x"_s);
    client.subscribeRows("settings"_s);
    taken();

    m_fixture->setRoles(
        "/x"_s, { { TuloRoles::Value(), stringValue("ä"_s) }, { TuloRoles::Timestamp(), 12 } });

    const QString roles = "{timestamp: 12, value: {string: ä}}"_s;
    QCOMPARE(
        taken(),
        QStringList(
            { record("DEBUG"_s, setDataFunction,
                     "Settings: setDataRequest path:/settings/x role:setRoles value:"_s + roles),
              record("TRACE"_s, saveFunction, "Enter CMSettingsWorker::saveValue: /x "_s + roles),
              record("TRACE"_s, scheduleFunction,
                     "Enter CMSettingsWorker::on_scheduleWrite: "_s + m_fixture->fileName("/x"_s)
                         + " "_s + roles),
              record("DEBUG"_s, saveFunction, "Value changed: /settings/x"_s),
              record("DEBUG"_s, saveFunction, "Data changed: /settings/x"_s),
              record("TRACE"_s, parentFunction,
                     "Enter CMSettingsWorker::updateParentDir: path:/x roles:"_s + roles),
              record("DEBUG"_s, parentFunction, "Rows Changed: /settings 2 cmd: +2"_s) }));
}

void tst_WorkerLogChange::sameValue()
{
    m_fixture->set("/audio/volume"_s, intValue(3));

    const QStringList records = taken();
    QCOMPARE(records.size(), 6);
    QCOMPARE(records.at(3),
             record("DEBUG"_s, saveFunction, "Data changed: /settings/audio/volume"_s));
}

void tst_WorkerLogChange::pathRole()
{
    m_fixture->setRoles("/audio/volume"_s, { { TuloRoles::Path(), "x"_s } });

    QCOMPARE(
        taken(),
        QStringList({ record("DEBUG"_s, setDataFunction,
                             "Settings: setDataRequest path:/settings/audio/volume role:setRoles "
                             "value:{path: x}"_s),
                      record("TRACE"_s, saveFunction,
                             "Enter CMSettingsWorker::saveValue: /audio/volume {path: x}"_s),
                      record("ERROR"_s, saveFunction, "Role path cannot be stored"_s) }));
}

void tst_WorkerLogChange::readOnlySetting()
{
    m_fixture->setRoles("/fixed"_s, {});

    QCOMPARE(
        taken(),
        QStringList(
            { record("DEBUG"_s, setDataFunction,
                     "Settings: setDataRequest path:/settings/fixed role:setRoles value:{}"_s),
              record("TRACE"_s, saveFunction, "Enter CMSettingsWorker::saveValue: /fixed {}"_s),
              record("FATAL"_s, saveFunction,
                     "==Report== Setting is not modifiable; path:/settings/fixed"_s) }));
}

void tst_WorkerLogChange::otherRole()
{
    setData(m_fixture->worker.get(), "/settings/x"_s, TuloRoles::Title(), "text"_s);

    QCOMPARE(taken(),
             QStringList {
                 record("DEBUG"_s, setDataFunction,
                        "Settings: setDataRequest path:/settings/x role:title value:text"_s) });
}

void tst_WorkerLogChange::wrongActivatePath()
{
    activate(m_fixture->worker.get(), CMPath("settings/x"_s));

    QCOMPARE(taken(),
             QStringList {
                 record("DEBUG"_s, setDataFunction,
                        "Settings: setDataRequest path:settings/x role:activate value:null"_s) });
}

void tst_WorkerLogChange::dropCache()
{
    activate(m_fixture->worker.get(), TuloSettingsActionsDropCache());

    QCOMPARE(taken(),
             QStringList(
                 { record("DEBUG"_s, setDataFunction,
                          "Settings: setDataRequest path:/settings/actions/dropCache role:activate "
                          "value:null"_s),
                   record("INFO"_s, setDataFunction, "Dropping settings cache"_s) }));
}

void tst_WorkerLogChange::drain()
{
    TuloRoles roles;
    roles.setTimestamp(12);
    m_fixture->worker->on_scheduleWrite(m_volume, roles);
    taken();

    m_fixture->worker->on_writeTimer_timeout();

    QCOMPARE(taken(),
             QStringList({ record("TRACE"_s, timeoutFunction,
                                  "Enter CMSettingsWorker::on_writeTimer_timeout: "_s),
                           record("TRACE"_s, writeFunction,
                                  "Enter CMSettingsWorker::writeFile: "_s + m_volume
                                      + " {timestamp: 12}"_s),
                           record("INFO"_s, writeFunction, "written file: "_s + m_volume) }));
}

// The record tells the roles as they were before; the handler has not been asked for the text.
void tst_WorkerLogChange::encryptedWrite()
{
    RecordingHandler handler;
    m_fixture->worker->m_encryptionHandler = &handler;
    QStringList before;
    handler.onEncrypt = [&] {
        before = taken();
    };
    TuloRoles roles;
    roles.setEncrypted(true);

    m_fixture->worker->writeFile(m_volume, roles);

    QCOMPARE(before,
             QStringList({ record("TRACE"_s, writeFunction,
                                  "Enter CMSettingsWorker::writeFile: "_s + m_volume
                                      + " {encrypted: true}"_s),
                           record("TRACE"_s, writeFunction,
                                  "Value needs to be encrypted: {encrypted: true}"_s) }));
    QCOMPARE(taken(),
             QStringList { record("INFO"_s, writeFunction, "written file: "_s + m_volume) });
}

void tst_WorkerLogChange::failedParentDirectory()
{
    m_fixture->tree.writeWritten("/audio"_s, "no directory");

    m_fixture->worker->writeFile(m_volume, TuloRoles());

    QCOMPARE(taken().mid(1),
             QStringList { record("ERROR"_s, writeFunction,
                                  "Settings: path '"_s + m_volume
                                      + "' could not create parent directory"_s) });
}

void tst_WorkerLogChange::failedTemporaryFile()
{
    m_fixture->tree.makeWriteDirectory("/audio/.volume"_s);

    m_fixture->worker->writeFile(m_volume, TuloRoles());

    QCOMPARE(taken().mid(1),
             QStringList { record("ERROR"_s, writeFunction,
                                  "Settings: path '"_s + m_fixture->fileName("/audio/.volume"_s)
                                      + "' open file failed"_s) });
}

void tst_WorkerLogChange::failedRename()
{
    m_fixture->tree.makeWriteDirectory("/audio/volume"_s);

    m_fixture->worker->writeFile(m_volume, TuloRoles());

    QCOMPARE(taken().mid(1),
             QStringList { record("ERROR"_s, writeFunction,
                                  "Settings: path '"_s + m_fixture->fileName("/audio/.volume"_s)
                                      + "' rename to path '"_s + m_volume + "' failed"_s) });
}

void tst_WorkerLogChange::flush()
{
    const FakeSync sync(m_fixture->tree);

    activate(m_fixture->worker.get(), TuloSettingsActionsFlush());

    QCOMPARE(
        taken(),
        QStringList({ record("DEBUG"_s, setDataFunction,
                             "Settings: setDataRequest path:/settings/actions/flush role:activate "
                             "value:null"_s),
                      record("INFO"_s, flushFunction, "Flush action: write cached data"_s),
                      record("TRACE"_s, timeoutFunction,
                             "Enter CMSettingsWorker::on_writeTimer_timeout: "_s),
                      record("INFO"_s, flushFunction, "Flush action: sync"_s) }));
}

void tst_WorkerLogChange::failedSync()
{
    const FakeSync sync(m_fixture->tree, "printf x\nexit 1\n");

    activate(m_fixture->worker.get(), TuloSettingsActionsFlush());

    QCOMPARE(taken().mid(4),
             QStringList { record("ERROR"_s, flushFunction,
                                  "Sync failed with return code1, output is: x"_s) });
}

void tst_WorkerLogChange::nothingBelowTheLevelIsLogged()
{
    m_fixture->log.setLevel(log4cplus::INFO_LOG_LEVEL);

    m_fixture->set("/audio/volume"_s, intValue(5));
    getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 9, {});
    m_fixture->worker->on_writeTimer_timeout();

    QCOMPARE(taken(),
             QStringList { record("INFO"_s, writeFunction, "written file: "_s + m_volume) });
}

QTEST_GUILESS_MAIN(tst_WorkerLogChange)
#include "tst_worker_log_change.moc"
