#include "changefixture.h"

#include "api/core/model/cmedit.h"
#include "tests/support/childprocess.h"

#include <QTest>

#include <csignal>

// The worker's clock: every reading is a second later than the one before.
static constexpr qint64 clockStart = 1700000000000;
static int clockReadings = 0; // NOLINT: reset before every test

qint64 testClock() asm("__wrap__ZN9QDateTime22currentMSecsSinceEpochEv");

qint64 testClock()
{
    return clockStart + 1000 * clockReadings++;
}

// What the worker passes to CMEdit::validate(), while a test looks on; the result is then the
// test's own.
struct Validation
{
    QByteArray stored;
    TuloValue requested;
    QByteArray edit;
    QString path;
};
static std::function<TuloValue(const Validation&)> onValidate; // NOLINT: set by tests

TuloValue realValidate(
    const TuloValue& stored, const TuloValue& requested, const TuloEdit& edit,
    const CMPath& path) asm("__real__ZN6CMEdit8validateERK9TuloValueS2_RK8TuloEditRK6CMPath");
TuloValue wrappedValidate(const TuloValue& stored, const TuloValue& requested, const TuloEdit& edit,
                          const CMPath& path) asm("__wrap__ZN6CMEdit8validateERK9TuloValueS2_"
                                                  "RK8TuloEditRK6CMPath");

TuloValue wrappedValidate(const TuloValue& stored, const TuloValue& requested, const TuloEdit& edit,
                          const CMPath& path)
{
    return onValidate ? onValidate({ json(stored), requested, json(edit), path.text() })
                      : realValidate(stored, requested, edit, path);
}

class tst_WorkerSaving : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void changedValueIsScheduledAnnouncedAndAnswered();
    void sameValueAgainAnnouncesDataOnly();
    void effectsComeInOrder();
    void everySaveReadsTheClockOnce();
    void timestamp_data();
    void timestamp();
    void pathRoleIsRefused_data();
    void pathRoleIsRefused();
    void emptyPathRoleIsNoPathRole();
    void readOnlySettingIsRefused_data();
    void readOnlySettingIsRefused();
    void refusalIsAnsweredBeforeItIsLogged_data();
    void refusalIsAnsweredBeforeItIsLogged();
    void refusalIsLoggedWithTheErrorOfTheReply();
    void validationGetsStoredRequestedConstraintsAndFullPath();
    void validatedValueReplacesTheRequestedOne();
    void emptyValidationKeepsTheStoredValue();
    void rolesWithoutAValueKeepTheValue();
    void settingWithoutAValueIsAnsweredWithAnEmptyOne();
    void valueOfAnotherKindIsAChange();
    void onlyFourRolesReachTheCache();
    void everyRoleOfTheClientReachesFileAndAnswer();
    void disabledFlag_data();
    void disabledFlag();
    void id_data();
    void id();
    void encryptedSettingIsWrittenAsEncrypted_data();
    void encryptedSettingIsWrittenAsEncrypted();
    void aliasOfASubscriberIsToldToo_data();
    void aliasOfASubscriberIsToldToo();
    void relativeRequestIsAnnouncedUnderTheFullPath();
    void missingSettingExistsOnceSaved();
    void savedSettingTakesThePlaceOfTheLeastRecentlyUsed();
    void saveInsideAnAnnouncementIsServed();
    void changeFromAnotherThreadIsAnnouncedThereAndScheduledHere();
    void pathWithoutASlashAborts();

private:
    /// Every role that a setting can have, as a client might send them.
    static QVariantHash allRoles();

    std::unique_ptr<ChangeFixture> m_fixture;
};

void tst_WorkerSaving::init()
{
    clockReadings = 0;
    m_fixture = std::make_unique<ChangeFixture>();
    m_fixture->tree.writeDefault("/audio/volume"_s, R"({"value":{"int":3}})");
    m_fixture->tree.writeDefault("/audio/fixed ä"_s, R"({"value":{"int":3},"modifiable":false})");
}

void tst_WorkerSaving::cleanup()
{
    onValidate = nullptr;
    m_fixture->log.verifyNothingUnexpected();
    m_fixture.reset();
}

void tst_WorkerSaving::changedValueIsScheduledAnnouncedAndAnswered()
{
    CMSettingsWorker* worker = m_fixture->worker.get();
    RegistryObserver observer(worker->subscribe());
    observer.observe();
    m_fixture->log.setLevel(log4cplus::DEBUG_LOG_LEVEL);

    const auto reply = m_fixture->set("/audio/volume"_s, intValue(5));

    const QByteArray roles = R"({"timestamp":1700000000000,"value":{"int":5}})";
    QCOMPARE(json(reply.value()), roles);
    QCOMPARE(reply.value().userType(), int(QMetaType::QVariantHash));
    QCOMPARE(worker->m_pendingWrites.keys(),
             QStringList { m_fixture->fileName("/audio/volume"_s) });
    QCOMPARE(m_fixture->pending("/audio/volume"_s), roles);
    QVERIFY(worker->m_writeTimer->isActive());
    QCOMPARE(observer.texts(),
             QStringList({ "value /settings/audio/volume {int: 5}"_s,
                           "data /settings/audio/volume"_s, "rows /settings/audio 0 1"_s }));
    QCOMPARE(json(observer.announcements().first().value), QByteArray(R"({"int":5})"));
    QCOMPARE(m_fixture->log.messages(log4cplus::DEBUG_LOG_LEVEL).mid(1),
             QStringList({ "Value changed: /settings/audio/volume"_s,
                           "Data changed: /settings/audio/volume"_s,
                           "Rows Changed: /settings/audio 0 cmd: 0"_s }));
}

void tst_WorkerSaving::sameValueAgainAnnouncesDataOnly()
{
    CMSettingsWorker* worker = m_fixture->worker.get();
    m_fixture->set("/audio/volume"_s, intValue(5));
    RegistryObserver observer(worker->subscribe());
    observer.observe();
    m_fixture->log.setLevel(log4cplus::DEBUG_LOG_LEVEL);

    const auto reply = m_fixture->set("/audio/volume"_s, intValue(5));

    const QByteArray roles = R"({"timestamp":1700000001000,"value":{"int":5}})";
    QCOMPARE(json(reply.value()), roles);
    QCOMPARE(m_fixture->pending("/audio/volume"_s), roles);
    QCOMPARE(observer.texts(),
             QStringList({ "data /settings/audio/volume"_s, "rows /settings/audio 0 2"_s }));
    QCOMPARE(m_fixture->log.messages(log4cplus::DEBUG_LOG_LEVEL).mid(1),
             QStringList({ "Data changed: /settings/audio/volume"_s,
                           "Rows Changed: /settings/audio 0 cmd: 0"_s }));
}

// Each entry tells what a caller finds at that moment. "balance" is new, so the listing shows
// whether it was stored.
void tst_WorkerSaving::effectsComeInOrder()
{
    CMSettingsWorker* worker = m_fixture->worker.get();
    RegistryObserver client(worker->subscribe());
    client.subscribeValue("settings/audio/balance"_s);
    client.subscribeData("settings/audio/balance"_s);
    client.subscribeRows("settings/audio"_s);
    m_fixture->log.setLevel(log4cplus::DEBUG_LOG_LEVEL);
    Journal journal(&m_fixture->log);
    const auto reply = CMReply<QVariant>::create();
    const auto note = [&](const QString& event) {
        const CMSettingsWorker::CacheRecord* cached =
            worker->m_valueCache.object("/audio/balance"_s);
        QStringList state;
        if (cached != nullptr && cached->exists)
            state.append("cached "_s + QString::fromUtf8(json(cached->roles.value())));
        if (!m_fixture->pending("/audio/balance"_s).isNull())
            state.append("pending"_s);
        if (m_fixture->listing("/audio"_s).contains("balance"_s))
            state.append("listed"_s);
        if (reply.isFinished())
            state.append("finished"_s);
        journal.note(event + "; "_s + state.join(", "_s));
    };
    connect(worker, &CMSettingsWorker::privateScheduleWrite, this,
            [&](const QString& path, const TuloRoles& roles) {
                note("schedule "_s + path.mid(m_fixture->tree.writePath().size()) + " "_s
                     + QString::fromUtf8(json(roles)));
            });
    RegistryObserver observer(worker->subscribe());
    observer.onAnnouncement = [&](const Announcement& made) {
        note(made.text());
    };
    observer.observe();
    const ReplyHook hook(reply, [&] { note("answer"_s); });

    worker->setDataRequest(CMSetDataRequest(CMPath("/settings/audio/balance"_s), TuloRoles::Value(),
                                            intValue(5), reply));

    const QStringList expected {
        "DEBUG Settings: setDataRequest path:/settings/audio/balance role:value value:{int: 5}"_s,
        "schedule /audio/balance {\"timestamp\":1700000000000,\"value\":{\"int\":5}}; "
        "cached {\"int\":5}, pending"_s,
        "DEBUG Value changed: /settings/audio/balance"_s,
        "value /settings/audio/balance {int: 5}; cached {\"int\":5}, pending"_s,
        "DEBUG Data changed: /settings/audio/balance"_s,
        "data /settings/audio/balance; cached {\"int\":5}, pending"_s,
        "value settings/audio/balance {int: 5}; cached {\"int\":5}, pending"_s,
        "data settings/audio/balance; cached {\"int\":5}, pending"_s,
        "DEBUG Rows Changed: /settings/audio 0 cmd: +0"_s,
        "rows /settings/audio +0 1; cached {\"int\":5}, pending"_s,
        "rows settings/audio +0 1; cached {\"int\":5}, pending"_s,
        "answer; cached {\"int\":5}, pending, listed, finished"_s,
    };
    QCOMPARE(journal.entries(), expected);
}

void tst_WorkerSaving::everySaveReadsTheClockOnce()
{
    m_fixture->set("/audio/volume"_s, intValue(5));
    QCOMPARE(clockReadings, 1);

    m_fixture->setRoles("/audio/volume"_s, { { TuloRoles::Timestamp(), 12 } });
    QCOMPARE(clockReadings, 2);
}

void tst_WorkerSaving::timestamp_data()
{
    QTest::addColumn<QVariant>("sent");
    QTest::addColumn<qint64>("saved");

    QTest::newRow("none") << QVariant() << clockStart;
    QTest::newRow("zero") << QVariant(0) << clockStart;
    QTest::newRow("no number") << QVariant("soon"_s) << clockStart;
    QTest::newRow("past") << QVariant(12) << qint64(12);
    QTest::newRow("before the epoch") << QVariant(-5) << qint64(-5);
    QTest::newRow("beyond 32 bits") << QVariant(qlonglong(9000000000000)) << qint64(9000000000000);
}

void tst_WorkerSaving::timestamp()
{
    QFETCH(QVariant, sent);
    QFETCH(qint64, saved);
    m_fixture->tree.writeWritten("/audio/volume"_s, R"({"value":{"int":4},"timestamp":77})");
    QVariantHash roles { { TuloRoles::Value(), intValue(5) } };
    if (sent.isValid())
        roles.insert(TuloRoles::Timestamp(), sent);

    const auto reply = m_fixture->setRoles("/audio/volume"_s, roles);

    const QByteArray expected =
        R"({"timestamp":)" + QByteArray::number(saved) + R"(,"value":{"int":5}})";
    QCOMPARE(json(reply.value()), expected);
    QCOMPARE(m_fixture->pending("/audio/volume"_s), expected);
    QCOMPARE(m_fixture->get("/audio/volume"_s, TuloRoles::Timestamp()).toLongLong(), saved);
}

void tst_WorkerSaving::pathRoleIsRefused_data()
{
    QTest::addColumn<QString>("path");

    QTest::newRow("modifiable") << "/audio/volume"_s;
    QTest::newRow("read-only, judged later") << "/audio/fixed ä"_s;
}

void tst_WorkerSaving::pathRoleIsRefused()
{
    QFETCH(QString, path);
    CMSettingsWorker* worker = m_fixture->worker.get();
    RegistryObserver observer(worker->subscribe());
    observer.observe();
    const QVariant before = m_fixture->get(path, TuloRoles::Value());
    const QByteArray cachedBefore = json(worker->m_valueCache.object(path)->roles);

    const auto reply = m_fixture->setRoles(
        path,
        { { TuloRoles::Value(), intValue(5) }, { TuloRoles::Path(), "/settings/elsewhere"_s } });

    QVERIFY(reply.error() == CMAbstractWorker::createErrorInternal("Role path cannot be stored"_s));
    QVERIFY(!reply.value().isValid());
    QCOMPARE(json(m_fixture->get(path, TuloRoles::Value())), json(before));
    QCOMPARE(json(worker->m_valueCache.object(path)->roles), cachedBefore);
    QVERIFY(worker->m_pendingWrites.isEmpty());
    QVERIFY(!worker->m_writeTimer->isActive());
    QVERIFY(worker->m_dirCache.isEmpty());
    QVERIFY(observer.texts().isEmpty());
    m_fixture->log.expect(log4cplus::ERROR_LOG_LEVEL, "Role path cannot be stored"_s);
}

void tst_WorkerSaving::emptyPathRoleIsNoPathRole()
{
    const auto reply = m_fixture->setRoles("/audio/volume"_s, { { TuloRoles::Path(), ""_s } });

    QCOMPARE(json(reply.value()),
             QByteArray(R"({"path":"","timestamp":1700000000000,"value":{"int":3}})"));
}

void tst_WorkerSaving::readOnlySettingIsRefused_data()
{
    QTest::addColumn<QString>("role");
    QTest::addColumn<QVariant>("value");

    QTest::newRow("value") << TuloRoles::Value() << intValue(5);
    QTest::newRow("roles") << TuloRoles::SetRoles()
                           << QVariant(QVariantHash { { TuloRoles::Modifiable(), true },
                                                      { TuloRoles::Value(), intValue(5) } });
    QTest::newRow("operation") << TuloRoles::ValueOperation()
                               << QVariant(QVariantHash { { "op"_s, "set"_s },
                                                          { "value"_s, intValue(5) } });
    QTest::newRow("nothing") << TuloRoles::SetRoles() << QVariant(QVariantHash());
}

void tst_WorkerSaving::readOnlySettingIsRefused()
{
    QFETCH(QString, role);
    QFETCH(QVariant, value);
    CMSettingsWorker* worker = m_fixture->worker.get();
    RegistryObserver observer(worker->subscribe());
    observer.observe();

    const auto reply = setData(worker, "/settings/audio/fixed ä"_s, role, value);

    const QString text = "Setting is not modifiable; path:/settings/audio/fixed%20%C3%A4"_s;
    QVERIFY(reply.error() == CMAbstractWorker::createErrorInternal(text));
    QVERIFY(!reply.value().isValid());
    QCOMPARE(json(worker->m_valueCache.object("/audio/fixed ä"_s)->roles),
             QByteArray(R"({"defaultValue":{"int":3},"modifiable":false,)"
                        R"("path":"/settings/audio/fixed ä","title":"fixed ä","type":101,)"
                        R"("value":{"int":3}})"));
    QVERIFY(worker->m_pendingWrites.isEmpty());
    QVERIFY(!worker->m_writeTimer->isActive());
    QVERIFY(worker->m_dirCache.isEmpty());
    QVERIFY(observer.texts().isEmpty());
    m_fixture->log.expect(log4cplus::FATAL_LOG_LEVEL, "==Report== "_s + text);
}

void tst_WorkerSaving::refusalIsAnsweredBeforeItIsLogged_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariantHash>("roles");
    QTest::addColumn<QString>("record");

    QTest::newRow("path role") << "/settings/audio/volume"_s
                               << QVariantHash { { TuloRoles::Path(), "x"_s } }
                               << "ERROR Role path cannot be stored"_s;
    QTest::newRow("read-only")
        << "/settings/audio/fixed ä"_s << QVariantHash()
        << "FATAL ==Report== Setting is not modifiable; path:/settings/audio/fixed%20%C3%A4"_s;
}

void tst_WorkerSaving::refusalIsAnsweredBeforeItIsLogged()
{
    QFETCH(QString, path);
    QFETCH(QVariantHash, roles);
    QFETCH(QString, record);
    Journal journal(&m_fixture->log);
    const auto reply = CMReply<QVariant>::create();
    const ReplyHook hook(reply, [&] { journal.note("answer"_s); });

    m_fixture->worker->setDataRequest(
        CMSetDataRequest(CMPath(path), TuloRoles::SetRoles(), roles, reply));

    QCOMPARE(journal.entries(), QStringList({ "answer"_s, record }));
}

// A reply that somebody else finished first keeps its error, and the record says what the
// client read.
void tst_WorkerSaving::refusalIsLoggedWithTheErrorOfTheReply()
{
    const auto reply = CMReply<QVariant>::create();
    reply.setError(CMAbstractWorker::createErrorInternal("cancelled"_s));

    m_fixture->worker->setDataRequest(CMSetDataRequest(
        CMPath("/settings/audio/fixed ä"_s), TuloRoles::SetRoles(), QVariantHash(), reply));

    m_fixture->log.expect(log4cplus::FATAL_LOG_LEVEL, "==Report== cancelled"_s);
}

void tst_WorkerSaving::validationGetsStoredRequestedConstraintsAndFullPath()
{
    m_fixture->tree.writeDefault("/audio/bass"_s, R"({"value":{"int":3},"edit":{"max":9}})");
    QList<Validation> validations;
    onValidate = [&validations](const Validation& validation) {
        validations.append(validation);
        return validation.requested;
    };

    setData(m_fixture->worker.get(), "settings/audio/bass"_s, TuloRoles::Value(), intValue(5));

    QCOMPARE(validations.size(), 1);
    QCOMPARE(validations.first().stored, QByteArray(R"({"int":3})"));
    QCOMPARE(json(validations.first().requested), QByteArray(R"({"int":5})"));
    QCOMPARE(validations.first().edit, QByteArray(R"({"max":9})"));
    QCOMPARE(validations.first().path, "/settings/audio/bass"_s);
    m_fixture->log.expect(
        log4cplus::WARN_LOG_LEVEL,
        "Wrong settings path detected: 'settings/audio/bass' - please fix your code. "
        "Adding missing leading '/' for now."_s);
}

void tst_WorkerSaving::validatedValueReplacesTheRequestedOne()
{
    RegistryObserver observer(m_fixture->worker->subscribe());
    observer.observe();
    onValidate = [](const Validation&) {
        return TuloValue::of(TuloValue::Int(), 9);
    };

    const auto reply = m_fixture->set("/audio/volume"_s, intValue(5));

    const QByteArray roles = R"({"timestamp":1700000000000,"value":{"int":9}})";
    QCOMPARE(json(reply.value()), roles);
    QCOMPARE(m_fixture->pending("/audio/volume"_s), roles);
    QCOMPARE(json(m_fixture->get("/audio/volume"_s, TuloRoles::Value())),
             QByteArray(R"({"int":9})"));
    QCOMPARE(observer.texts().first(), "value /settings/audio/volume {int: 9}"_s);
}

void tst_WorkerSaving::emptyValidationKeepsTheStoredValue()
{
    RegistryObserver observer(m_fixture->worker->subscribe());
    observer.observe();
    onValidate = [](const Validation&) {
        return TuloValue();
    };
    m_fixture->log.setLevel(log4cplus::DEBUG_LOG_LEVEL);

    const auto reply = m_fixture->set("/audio/volume"_s, intValue(5));

    const QByteArray roles = R"({"timestamp":1700000000000,"value":{"int":3}})";
    QCOMPARE(errorText(reply), QString());
    QCOMPARE(json(reply.value()), roles);
    QCOMPARE(m_fixture->pending("/audio/volume"_s), roles);
    QCOMPARE(json(m_fixture->get("/audio/volume"_s, TuloRoles::Value())),
             QByteArray(R"({"int":3})"));
    QCOMPARE(observer.texts(),
             QStringList({ "data /settings/audio/volume"_s, "rows /settings/audio 0 1"_s }));
    QCOMPARE(m_fixture->log.messages(log4cplus::DEBUG_LOG_LEVEL).mid(1),
             QStringList({ "Data changed: /settings/audio/volume"_s,
                           "Rows Changed: /settings/audio 0 cmd: 0"_s }));
}

void tst_WorkerSaving::rolesWithoutAValueKeepTheValue()
{
    RegistryObserver observer(m_fixture->worker->subscribe());
    observer.observe();

    const auto reply = m_fixture->setRoles("/audio/volume"_s, { { TuloRoles::Id(), "left"_s } });

    QCOMPARE(json(reply.value()),
             QByteArray(R"({"id":"left","timestamp":1700000000000,"value":{"int":3}})"));
    QCOMPARE(observer.texts(),
             QStringList({ "data /settings/audio/volume"_s, "rows /settings/audio 0 1"_s }));
}

void tst_WorkerSaving::settingWithoutAValueIsAnsweredWithAnEmptyOne()
{
    const auto reply = m_fixture->setRoles("/audio/none"_s, { { TuloRoles::Id(), "left"_s } });

    QCOMPARE(json(reply.value()),
             QByteArray(R"({"id":"left","timestamp":1700000000000,"value":{}})"));
    QVERIFY(!m_fixture->get("/audio/none"_s, TuloRoles::Value()).isValid());
}

void tst_WorkerSaving::valueOfAnotherKindIsAChange()
{
    RegistryObserver observer(m_fixture->worker->subscribe());
    onValidate = [](const Validation& validation) {
        return validation.requested;
    };
    observer.subscribeValue("/settings/audio/volume"_s);

    m_fixture->set("/audio/volume"_s, intValue(3));
    m_fixture->set("/audio/volume"_s, stringValue("3"_s));

    QCOMPARE(observer.texts(), QStringList({ "value /settings/audio/volume {string: 3}"_s }));
}

QVariantHash tst_WorkerSaving::allRoles()
{
    QVariantHash roles;
    for (const QString& key : TuloRoles::keys())
        roles.insert(key, "client "_s + key);
    roles.remove(TuloRoles::Path());
    roles.insert(TuloRoles::Value(), intValue(5));
    roles.insert(TuloRoles::Edit(), QVariantHash { { "max"_s, 1 } });
    roles.insert(TuloRoles::Type(), 7);
    roles.insert(TuloRoles::Modifiable(), false);
    roles.insert(TuloRoles::Disabled(), true);
    roles.insert(TuloRoles::Encrypted(), true);
    roles.insert(TuloRoles::Timestamp(), 12);
    roles.insert("colour"_s, "red"_s);
    return roles;
}

void tst_WorkerSaving::onlyFourRolesReachTheCache()
{
    m_fixture->setRoles("/audio/volume"_s, allRoles());

    QCOMPARE(json(m_fixture->worker->m_valueCache.object("/audio/volume"_s)->roles),
             QByteArray(R"({"defaultValue":{"int":3},"disabled":true,"id":"client id",)"
                        R"("path":"/settings/audio/volume","timestamp":12,"title":"volume",)"
                        R"("type":101,"value":{"int":5}})"));
}

void tst_WorkerSaving::everyRoleOfTheClientReachesFileAndAnswer()
{
    const auto reply = m_fixture->setRoles("/audio/volume"_s, allRoles());
    QCOMPARE(m_fixture->pending("/audio/volume"_s), json(allRoles()));
    m_fixture->worker->on_writeTimer_timeout();

    QCOMPARE(json(reply.value()), json(allRoles()));
    QCOMPARE(m_fixture->tree.readWritten("/audio/volume"_s), json(allRoles()));
}

void tst_WorkerSaving::disabledFlag_data()
{
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<QVariant>("sent");
    QTest::addColumn<QByteArray>("cached");
    QTest::addColumn<QByteArray>("written");

    const QByteArray none = "null";
    QTest::newRow("none, none") << QByteArray("{}") << QVariant() << none << none;
    QTest::newRow("none, true") << QByteArray("{}") << QVariant(true) << QByteArray("true")
                                << QByteArray("true");
    QTest::newRow("none, false") << QByteArray("{}") << QVariant(false) << QByteArray("false")
                                 << QByteArray("false");
    // What is written is the client's own flag, and that reads false when none was sent.
    QTest::newRow("true, none") << QByteArray(R"({"disabled":true})") << QVariant()
                                << QByteArray("true") << QByteArray("false");
    QTest::newRow("true, true") << QByteArray(R"({"disabled":true})") << QVariant(true)
                                << QByteArray("true") << QByteArray("true");
    QTest::newRow("true, false") << QByteArray(R"({"disabled":true})") << QVariant(false)
                                 << QByteArray("false") << QByteArray("false");
    QTest::newRow("false, none") << QByteArray(R"({"disabled":false})") << QVariant()
                                 << QByteArray("false") << QByteArray("false");
    QTest::newRow("false, true") << QByteArray(R"({"disabled":false})") << QVariant(true)
                                 << QByteArray("true") << QByteArray("true");
}

void tst_WorkerSaving::disabledFlag()
{
    QFETCH(QByteArray, stored);
    QFETCH(QVariant, sent);
    QFETCH(QByteArray, cached);
    QFETCH(QByteArray, written);
    m_fixture->tree.writeDefault("/audio/flag"_s, stored);
    QVariantHash roles { { TuloRoles::Value(), intValue(5) } };
    if (sent.isValid())
        roles.insert(TuloRoles::Disabled(), sent);

    const auto reply = m_fixture->setRoles("/audio/flag"_s, roles);

    const TuloRoles pending =
        m_fixture->worker->m_pendingWrites.value(m_fixture->fileName("/audio/flag"_s));
    QCOMPARE(json(m_fixture->get("/audio/flag"_s, TuloRoles::Disabled())), cached);
    QCOMPARE(json(pending.__hashAttribute(TuloRoles::Disabled())), written);
    QCOMPARE(json(reply.value().toHash().value(TuloRoles::Disabled())), written);
}

void tst_WorkerSaving::id_data()
{
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<QVariant>("sent");
    QTest::addColumn<QByteArray>("cached");
    QTest::addColumn<QByteArray>("written");

    const QByteArray none = "null";
    const QByteArray named = R"({"id":"s"})";
    QTest::newRow("none, none") << QByteArray("{}") << QVariant() << none << none;
    QTest::newRow("none, empty") << QByteArray("{}") << QVariant(""_s) << none
                                 << QByteArray(R"("")");
    QTest::newRow("none, c") << QByteArray("{}") << QVariant("c"_s) << QByteArray(R"("c")")
                             << QByteArray(R"("c")");
    QTest::newRow("s, none") << named << QVariant() << QByteArray(R"("s")") << QByteArray(R"("s")");
    QTest::newRow("s, empty") << named << QVariant(""_s) << QByteArray(R"("s")")
                              << QByteArray(R"("s")");
    QTest::newRow("s, c") << named << QVariant("c"_s) << QByteArray(R"("c")")
                          << QByteArray(R"("c")");
}

void tst_WorkerSaving::id()
{
    QFETCH(QByteArray, stored);
    QFETCH(QVariant, sent);
    QFETCH(QByteArray, cached);
    QFETCH(QByteArray, written);
    m_fixture->tree.writeDefault("/audio/named"_s, stored);
    QVariantHash roles { { TuloRoles::Value(), intValue(5) } };
    if (sent.isValid())
        roles.insert(TuloRoles::Id(), sent);

    const auto reply = m_fixture->setRoles("/audio/named"_s, roles);

    const TuloRoles pending =
        m_fixture->worker->m_pendingWrites.value(m_fixture->fileName("/audio/named"_s));
    QCOMPARE(json(m_fixture->get("/audio/named"_s, TuloRoles::Id())), cached);
    QCOMPARE(json(pending.__hashAttribute(TuloRoles::Id())), written);
    QCOMPARE(json(reply.value().toHash().value(TuloRoles::Id())), written);
}

void tst_WorkerSaving::encryptedSettingIsWrittenAsEncrypted_data()
{
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<QVariant>("sent");
    QTest::addColumn<QByteArray>("written");

    const QByteArray encrypted = R"({"value":{"int":3},"encrypted":true})";
    QTest::newRow("none") << encrypted << QVariant() << QByteArray("true");
    QTest::newRow("false") << encrypted << QVariant(false) << QByteArray("true");
    QTest::newRow("true") << encrypted << QVariant(true) << QByteArray("true");
    QTest::newRow("plain setting")
        << QByteArray(R"({"encrypted":false})") << QVariant() << QByteArray("null");
    QTest::newRow("plain setting, true")
        << QByteArray("{}") << QVariant(true) << QByteArray("true");
}

void tst_WorkerSaving::encryptedSettingIsWrittenAsEncrypted()
{
    QFETCH(QByteArray, stored);
    QFETCH(QVariant, sent);
    QFETCH(QByteArray, written);
    m_fixture->tree.writeDefault("/secret"_s, stored);
    QVariantHash roles { { TuloRoles::Value(), intValue(5) } };
    if (sent.isValid())
        roles.insert(TuloRoles::Encrypted(), sent);

    const auto reply = m_fixture->setRoles("/secret"_s, roles);

    const TuloRoles pending =
        m_fixture->worker->m_pendingWrites.value(m_fixture->fileName("/secret"_s));
    QCOMPARE(json(pending.__hashAttribute(TuloRoles::Encrypted())), written);
    QCOMPARE(json(reply.value().toHash().value(TuloRoles::Encrypted())), written);
    QCOMPARE(json(pending.value()), QByteArray(R"({"int":5})"));
}

void tst_WorkerSaving::aliasOfASubscriberIsToldToo_data()
{
    QTest::addColumn<bool>("value");
    QTest::addColumn<bool>("data");
    QTest::addColumn<QStringList>("onChange");
    QTest::addColumn<QStringList>("onSame");

    QTest::newRow("neither") << false << false << QStringList() << QStringList();
    QTest::newRow("value") << true << false
                           << QStringList { "value settings/audio/volume {int: 5}"_s }
                           << QStringList();
    QTest::newRow("data") << false << true << QStringList { "data settings/audio/volume"_s }
                          << QStringList { "data settings/audio/volume"_s };
    QTest::newRow("both") << true << true
                          << QStringList { "value settings/audio/volume {int: 5}"_s,
                                           "data settings/audio/volume"_s }
                          << QStringList { "data settings/audio/volume"_s };
}

void tst_WorkerSaving::aliasOfASubscriberIsToldToo()
{
    QFETCH(bool, value);
    QFETCH(bool, data);
    QFETCH(QStringList, onChange);
    QFETCH(QStringList, onSame);
    RegistryObserver client(m_fixture->worker->subscribe());
    if (value)
        client.subscribeValue("settings/audio/volume"_s);
    if (data)
        client.subscribeData("settings/audio/volume"_s);
    m_fixture->log.setLevel(log4cplus::DEBUG_LOG_LEVEL);
    m_fixture->log.take();

    m_fixture->set("/audio/volume"_s, intValue(5));

    QCOMPARE(client.take(), onChange);
    QCOMPARE(m_fixture->log.take().size(), 4);
    m_fixture->set("/audio/volume"_s, intValue(5));
    QCOMPARE(client.take(), onSame);
    QCOMPARE(m_fixture->log.take().size(), 3);
}

void tst_WorkerSaving::relativeRequestIsAnnouncedUnderTheFullPath()
{
    RegistryObserver observer(m_fixture->worker->subscribe());
    observer.observe();

    setData(m_fixture->worker.get(), "settings/audio/volume"_s, TuloRoles::Value(), intValue(5));

    QCOMPARE(observer.texts(),
             QStringList({ "value /settings/audio/volume {int: 5}"_s,
                           "data /settings/audio/volume"_s, "rows /settings/audio 0 1"_s }));
    m_fixture->log.expect(
        log4cplus::WARN_LOG_LEVEL,
        "Wrong settings path detected: 'settings/audio/volume' - please fix your code. "
        "Adding missing leading '/' for now."_s);
}

void tst_WorkerSaving::missingSettingExistsOnceSaved()
{
    const auto before =
        getData(m_fixture->worker.get(), "/settings/audio/new"_s, { TuloRoles::Value() });

    m_fixture->set("/audio/new"_s, intValue(5));

    const auto after =
        getData(m_fixture->worker.get(), "/settings/audio/new"_s, { TuloRoles::Value() });
    QCOMPARE(errorText(before), "InvalidPath: Invalid path '/settings/audio/new'"_s);
    QCOMPARE(errorText(after), QString());
    QCOMPARE(json(after.value().first()), QByteArray(R"({"int":5})"));
}

void tst_WorkerSaving::savedSettingTakesThePlaceOfTheLeastRecentlyUsed()
{
    auto& cache = m_fixture->worker->m_valueCache;
    m_fixture->get("/audio/volume"_s, TuloRoles::Value());
    for (int i = 0; i < 299; ++i)
        m_fixture->get("/other/%1"_s.arg(i), TuloRoles::Value());
    QCOMPARE(cache.totalCost(), 300);

    m_fixture->set("/audio/new"_s, intValue(5));

    QCOMPARE(cache.totalCost(), 300);
    QCOMPARE(cache.size(), 300);
    QVERIFY(cache.contains("/audio/new"_s));
    QVERIFY(!cache.contains("/audio/volume"_s));
    QVERIFY(cache.contains("/other/0"_s));
}

void tst_WorkerSaving::saveInsideAnAnnouncementIsServed()
{
    RegistryObserver observer(m_fixture->worker->subscribe());
    QByteArray nested;
    observer.onAnnouncement = [&](const Announcement& made) {
        if (made.text() == "data /settings/audio/volume"_s)
            nested = json(m_fixture->set("/other/bass"_s, intValue(1)).value());
    };
    observer.observe();

    const auto reply = m_fixture->set("/audio/volume"_s, intValue(5));

    QCOMPARE(nested, QByteArray(R"({"timestamp":1700000001000,"value":{"int":1}})"));
    QCOMPARE(json(reply.value()), QByteArray(R"({"timestamp":1700000000000,"value":{"int":5}})"));
    QCOMPARE(
        observer.texts(),
        QStringList({ "value /settings/audio/volume {int: 5}"_s, "data /settings/audio/volume"_s,
                      "value /settings/other/bass {int: 1}"_s, "data /settings/other/bass"_s,
                      "rows /settings/other +0 1"_s, "rows /settings/audio 0 1"_s }));
}

void tst_WorkerSaving::changeFromAnotherThreadIsAnnouncedThereAndScheduledHere()
{
    CMSettingsWorker* worker = m_fixture->worker.get();
    RegistryObserver observer(worker->subscribe());
    QList<QThread*> announcers;
    observer.onAnnouncement = [&](const Announcement&) {
        announcers.append(QThread::currentThread());
    };
    observer.observe();
    const auto reply = CMReply<QVariant>::create();
    const ReplyWaiter waiter(reply);
    QThread* client = nullptr;

    onAnotherThread([&] {
        client = QThread::currentThread();
        worker->setDataRequest(CMSetDataRequest(CMPath("/settings/audio/volume"_s),
                                                TuloRoles::Value(), intValue(5), reply));
    });

    QCOMPARE(announcers, QList<QThread*>({ client, client, client }));
    QCOMPARE(waiter.finishingThread(), client);
    QCOMPARE(json(m_fixture->get("/audio/volume"_s, TuloRoles::Value())),
             QByteArray(R"({"int":5})"));
    QVERIFY(worker->m_pendingWrites.isEmpty());
    QVERIFY(!worker->m_writeTimer->isActive());
    QCoreApplication::sendPostedEvents(worker);
    QCOMPARE(m_fixture->pending("/audio/volume"_s), json(reply.value()));
    QVERIFY(worker->m_writeTimer->isActive());
}

void tst_WorkerSaving::pathWithoutASlashAborts()
{
    const ChildResult child = ChildProcess::runInChild([&] {
        m_fixture->worker->saveValue(CMReply<QVariant>::create(), "audio/volume"_s, TuloRoles());
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("\"path.startsWith(\"/\")\""), child.standardError);
}

QTEST_GUILESS_MAIN(tst_WorkerSaving)
#include "tst_worker_saving.moc"
