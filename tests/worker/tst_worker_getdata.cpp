// Get data requests: which values are answered, which errors, and what is locked meanwhile.

#include "tests/support/childprocess.h"
#include "tests/support/replywaiter.h"
#include "workerfixture.h"

#include "api/core/model/tulosettingsactions.h"

#include <csignal>

namespace {

const QString volume = QStringLiteral("/settings/volume");

/// Calls a function when a reply is finished.
class FinishHook : public CMReplyWatcher
{
public:
    FinishHook(const CMVoidReply& reply, const std::function<void()>& function)
        : m_reply(reply)
        , m_function(function)
    {
        m_reply.addWatcher(this);
    }
    ~FinishHook() override { m_reply.removeWatcher(this); }
    void replyFinished(const CMVoidReply&) override { m_function(); }

private:
    Q_DISABLE_COPY(FinishHook)

    const CMVoidReply m_reply;
    const std::function<void()> m_function;
};

} // namespace

class tst_worker_getdata : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        m = std::make_unique<WorkerFixture>();
        m->tree.writeDefault(QStringLiteral("/volume"),
                             json(R"({"value": {"int": 3}, "id": "v", "empty": null})"));
    }
    void cleanup()
    {
        m->log.verifyNothingUnexpected();
        m.reset();
    }

    void oneValuePerRoleInRequestedOrder();
    void roleAskedTwiceIsAnsweredTwice();
    void unknownRoleIsInvalidAndNoError();
    void noRolesGiveEmptyAnswer_data();
    void noRolesGiveEmptyAnswer();
    void entriesAreAnsweredAsLoadHoldsThem();
    void writtenValueIsAnswered();
    void directoryIsAnswered_data();
    void directoryIsAnswered();
    void pathWithoutLeadingSlashIsServedWithWarning();

    void flushPathAnswersPermissionOnly();
    void flushPathTouchesNeitherStoreNorMutex();
    void flushPathIsComparedAsItStands();
    void dropCachePathIsOrdinary();
    void dropCachePathNamesSettingIfThereIsOne();

    void missingSettingGetsInvalidPathError_data();
    void missingSettingGetsInvalidPathError();
    void errorNamesPathAsRequested();
    void missingSettingIsNotLogged();

    void mutexIsHeldDuringLoad();
    void mutexIsFreeWhenReplyIsFinished_data();
    void mutexIsFreeWhenReplyIsFinished();
    void mutexMayBeHeldByCallingThread();
    void replyIsFinishedOnce_data();
    void replyIsFinishedOnce();
    void requestFillsCacheAndWritesNothing();
    void requestWithoutDataAborts();

private:
    QList<QVariant> values(const QString& path, const QStringList& roles)
    {
        if (!m->worker)
            m->create();
        const auto reply = getData(m->worker.get(), path, roles);
        if (!reply.isFinished() || !errorText(reply).isEmpty())
            QTest::qFail(qPrintable(errorText(reply)), __FILE__, __LINE__);
        return reply.value();
    }

    std::unique_ptr<WorkerFixture> m;
};

void tst_worker_getdata::oneValuePerRoleInRequestedOrder()
{
    const QVariant value = json(R"({"int": 3})");
    const QVariant id = QStringLiteral("v");
    const QVariant type = 101;

    QCOMPARE(values(volume, { TuloRoles::Id(), TuloRoles::Value(), TuloRoles::Type() }),
             (QList<QVariant> { id, value, type }));
    QCOMPARE(values(volume, { TuloRoles::Type(), TuloRoles::Id(), TuloRoles::Value() }),
             (QList<QVariant> { type, id, value }));
}

void tst_worker_getdata::roleAskedTwiceIsAnsweredTwice()
{
    const QVariant id = QStringLiteral("v");

    QCOMPARE(values(volume, { TuloRoles::Id(), TuloRoles::Type(), TuloRoles::Id() }),
             (QList<QVariant> { id, 101, id }));
}

void tst_worker_getdata::unknownRoleIsInvalidAndNoError()
{
    const QList<QVariant> answer =
        values(volume,
               { QStringLiteral("unknown"), QString(), QStringLiteral("empty"),
                 QStringLiteral("ID"), TuloRoles::Id() });

    QCOMPARE(answer.size(), 5);
    for (int i = 0; i < 4; ++i)
        QVERIFY(!answer.at(i).isValid());
    QCOMPARE(answer.at(4), QVariant(QStringLiteral("v")));
}

void tst_worker_getdata::noRolesGiveEmptyAnswer_data()
{
    QTest::addColumn<QString>("path");

    QTest::newRow("setting") << volume;
    QTest::newRow("directory") << QStringLiteral("/settings");
    QTest::newRow("flush action") << TuloSettingsActionsFlush().text();
}

void tst_worker_getdata::noRolesGiveEmptyAnswer()
{
    QFETCH(QString, path);

    QCOMPARE(values(path, {}), QList<QVariant>());
}

void tst_worker_getdata::entriesAreAnsweredAsLoadHoldsThem()
{
    m->tree.writeDefault(QStringLiteral("/audio/tone"),
                         json(R"({"title": "Tone", "custom": [1, {"a": 0.5}], "type": 7})"));
    const TuloRoles roles = m->create().load(QStringLiteral("/audio/tone"), nullptr);
    const QStringList names { TuloRoles::Title(), TuloRoles::Path(), QStringLiteral("custom"),
                              TuloRoles::Type() };

    const QList<QVariant> answer = values(QStringLiteral("/settings/audio/tone"), names);

    QCOMPARE(answer.size(), names.size());
    for (int i = 0; i < names.size(); ++i) {
        const QVariant entry = roles.__hashAttribute(names.at(i));
        QCOMPARE(answer.at(i).userType(), entry.userType());
        QCOMPARE(answer.at(i), entry);
    }
    QVERIFY(TrString::isIn(answer.at(0)));
    QVERIFY(CMPath::isIn(answer.at(1)));
}

void tst_worker_getdata::writtenValueIsAnswered()
{
    m->tree.writeWritten(QStringLiteral("/volume"), json(R"({"value": {"int": 4}})"));

    QCOMPARE(values(volume, { TuloRoles::Value(), TuloRoles::DefaultValue() }),
             (QList<QVariant> { json(R"({"int": 4})"), json(R"({"int": 3})") }));
}

void tst_worker_getdata::directoryIsAnswered_data()
{
    QTest::addColumn<QString>("path");

    QTest::newRow("directory") << QStringLiteral("/settings/audio");
    QTest::newRow("top") << QStringLiteral("/settings");
    QTest::newRow("top with slash") << QStringLiteral("/settings/");
}

void tst_worker_getdata::directoryIsAnswered()
{
    QFETCH(QString, path);
    m->tree.makeDefaultDirectory(QStringLiteral("/audio"));

    QCOMPARE(values(path, { TuloRoles::Type() }), (QList<QVariant> { 1 }));
}

void tst_worker_getdata::pathWithoutLeadingSlashIsServedWithWarning()
{
    m->create();
    m->log.expect(log4cplus::WARN_LOG_LEVEL,
                  QStringLiteral("Wrong settings path detected: 'settings/volume' - please fix "
                                 "your code. Adding missing leading '/' for now."));

    QCOMPARE(values(QStringLiteral("settings/volume"), { TuloRoles::Id() }),
             (QList<QVariant> { QStringLiteral("v") }));
    // Cached under the corrected path.
    QCOMPARE(m->worker->m_valueCache.keys(), QStringList(QStringLiteral("/volume")));
}

// ---------------------------------------------------------------------------------------------
// The actions' paths.
// ---------------------------------------------------------------------------------------------

void tst_worker_getdata::flushPathAnswersPermissionOnly()
{
    const QList<QVariant> answer =
        values(TuloSettingsActionsFlush().text(),
               { TuloRoles::Permission(), TuloRoles::Value(), TuloRoles::Title(),
                 TuloRoles::Permission(), QStringLiteral("unknown") });

    QCOMPARE(answer.size(), 5);
    for (const int i : { 0, 3 }) {
        QCOMPARE(answer.at(i).userType(), int(QMetaType::QString));
        QCOMPARE(answer.at(i).toString(), TuloPermission::Default_());
    }
    for (const int i : { 1, 2, 4 })
        QVERIFY(!answer.at(i).isValid());
}

void tst_worker_getdata::flushPathTouchesNeitherStoreNorMutex()
{
    // A file of that name, which would answer otherwise.
    m->tree.writeDefault(QStringLiteral("/actions/flush"), json(R"({"permission": "none"})"));
    CMSettingsWorker& worker = m->create();
    m->log.setLevel(log4cplus::TRACE_LOG_LEVEL);
    const HeldElsewhere held(&worker.m_mutex);

    const QList<QVariant> answer =
        values(TuloSettingsActionsFlush().text(), { TuloRoles::Permission() });

    QCOMPARE(answer, (QList<QVariant> { TuloPermission::Default_() }));
    QVERIFY(worker.m_valueCache.isEmpty());
    QCOMPARE(m->log.records().size(), 1); // the request's own entry
}

void tst_worker_getdata::flushPathIsComparedAsItStands()
{
    CMSettingsWorker& worker = m->create();
    m->log.expect(log4cplus::WARN_LOG_LEVEL,
                  QStringLiteral("Wrong settings path detected: 'settings/actions/flush' - please "
                                 "fix your code. Adding missing leading '/' for now."));

    const auto reply =
        getData(&worker, QStringLiteral("settings/actions/flush"), { TuloRoles::Permission() });

    QCOMPARE(reply.error().name(), QStringLiteral("InvalidPath"));
}

void tst_worker_getdata::dropCachePathIsOrdinary()
{
    const auto reply =
        getData(&m->create(), TuloSettingsActionsDropCache().text(), { TuloRoles::Permission() });

    COMPARE_RECORDS(reply.error(),
                    CMAbstractWorker::createErrorInvalidPath(TuloSettingsActionsDropCache()));
    QVERIFY(m->worker->m_valueCache.contains(QStringLiteral("/actions/dropCache")));
}

void tst_worker_getdata::dropCachePathNamesSettingIfThereIsOne()
{
    m->tree.writeDefault(QStringLiteral("/actions/dropCache"), json(R"({"permission": "none"})"));

    QCOMPARE(values(TuloSettingsActionsDropCache().text(), { TuloRoles::Permission() }),
             (QList<QVariant> { QStringLiteral("none") }));
}

// ---------------------------------------------------------------------------------------------
// Errors.
// ---------------------------------------------------------------------------------------------

void tst_worker_getdata::missingSettingGetsInvalidPathError_data()
{
    QTest::addColumn<QString>("path");

    QTest::newRow("nothing there") << QStringLiteral("/settings/missing");
    QTest::newRow("below a setting") << QStringLiteral("/settings/volume/x");
    QTest::newRow("in a missing directory") << QStringLiteral("/settings/missing/x");
    QTest::newRow("template only") << QStringLiteral("/settings/audio/new");
    QTest::newRow("not ASCII") << QStringLiteral("/settings/k\u00fche 7%");
}

void tst_worker_getdata::missingSettingGetsInvalidPathError()
{
    QFETCH(QString, path);
    m->tree.writeDefault(QStringLiteral("/audio/.meta"), json(R"({"id": "template"})"));

    const auto reply = getData(&m->create(), path, { TuloRoles::Id() });

    QVERIFY(reply.isFinished());
    COMPARE_RECORDS(reply.error(), CMAbstractWorker::createErrorInvalidPath(CMPath(path)));
    QVERIFY(reply.value().isEmpty());
}

void tst_worker_getdata::errorNamesPathAsRequested()
{
    m->create();
    m->log.expect(log4cplus::WARN_LOG_LEVEL,
                  QStringLiteral("Wrong settings path detected: 'settings/missing' - please fix "
                                 "your code. Adding missing leading '/' for now."));

    const auto reply =
        getData(m->worker.get(), QStringLiteral("settings/missing"), { TuloRoles::Id() });

    QCOMPARE(errorText(reply), QStringLiteral("InvalidPath: Invalid path 'settings/missing'"));
}

void tst_worker_getdata::missingSettingIsNotLogged()
{
    m->create();
    m->log.setLevel(log4cplus::DEBUG_LOG_LEVEL);

    const auto reply =
        getData(m->worker.get(), QStringLiteral("/settings/missing"), { TuloRoles::Id() });

    QVERIFY(!errorText(reply).isEmpty());
    QVERIFY(m->log.records().isEmpty());
}

// ---------------------------------------------------------------------------------------------
// The mutex and the reply.
// ---------------------------------------------------------------------------------------------

void tst_worker_getdata::mutexIsHeldDuringLoad()
{
    CMSettingsWorker& worker = m->create();
    m->log.setLevel(log4cplus::TRACE_LOG_LEVEL);
    QMap<QString, bool> isFree;
    {
        const RecordHook hook([&](const QString& message) {
            isFree.insert(message.section(QStringLiteral(": "), 0, 0),
                          isFreeForOthers(&worker.m_mutex));
        });
        getData(&worker, volume, { TuloRoles::Id() });
    }

    QCOMPARE(isFree.value(QStringLiteral("Enter CMSettingsWorker::getDataRequest")), true);
    QCOMPARE(isFree.value(QStringLiteral("Enter CMSettingsWorker::load"), true), false);
    QCOMPARE(isFree.value(QStringLiteral("Load finished"), true), false);
}

void tst_worker_getdata::mutexIsFreeWhenReplyIsFinished_data()
{
    QTest::addColumn<QString>("path");

    QTest::newRow("value") << volume;
    QTest::newRow("error") << QStringLiteral("/settings/missing");
    QTest::newRow("flush action") << TuloSettingsActionsFlush().text();
}

void tst_worker_getdata::mutexIsFreeWhenReplyIsFinished()
{
    QFETCH(QString, path);
    CMSettingsWorker& worker = m->create();
    const auto reply = CMReply<QList<QVariant>>::create();
    bool isFree = false;
    const FinishHook hook(reply, [&] { isFree = isFreeForOthers(&worker.m_mutex); });

    worker.getDataRequest(CMGetDataRequest(CMPath(path), { TuloRoles::Id() }, reply));

    QVERIFY(isFree);
    QVERIFY(isFreeForOthers(&worker.m_mutex));
}

void tst_worker_getdata::mutexMayBeHeldByCallingThread()
{
    CMSettingsWorker& worker = m->create();
    worker.m_mutex.lock();

    const QList<QVariant> answer = values(volume, { TuloRoles::Id() });

    // Still held once.
    QVERIFY(!isFreeForOthers(&worker.m_mutex));
    worker.m_mutex.unlock();
    QVERIFY(isFreeForOthers(&worker.m_mutex));
    QCOMPARE(answer, (QList<QVariant> { QStringLiteral("v") }));
}

void tst_worker_getdata::replyIsFinishedOnce_data()
{
    mutexIsFreeWhenReplyIsFinished_data();
}

void tst_worker_getdata::replyIsFinishedOnce()
{
    QFETCH(QString, path);
    const auto reply = CMReply<QList<QVariant>>::create();
    const ReplyWaiter waiter(reply);

    m->create().getDataRequest(CMGetDataRequest(CMPath(path), { TuloRoles::Id() }, reply));

    QCOMPARE(waiter.count(), 1);
    // One answer, not both.
    QCOMPARE(reply.value().isEmpty(), !errorText(reply).isEmpty());
}

void tst_worker_getdata::requestFillsCacheAndWritesNothing()
{
    CMSettingsWorker& worker = m->create();

    values(volume, { TuloRoles::Id() });
    getData(&worker, QStringLiteral("/settings/missing"), { TuloRoles::Id() });

    QStringList cached = worker.m_valueCache.keys();
    cached.sort();
    QCOMPARE(cached, (QStringList { QStringLiteral("/missing"), QStringLiteral("/volume") }));
    QVERIFY(worker.m_pendingWrites.isEmpty());
    QVERIFY(worker.m_dirCache.isEmpty());
    QVERIFY(!worker.m_writeTimer->isActive());
    QCOMPARE(m->tree.writtenEntries(), QStringList());
}

void tst_worker_getdata::requestWithoutDataAborts()
{
    const ChildResult child =
        ChildProcess::runInChild([this] { m->create().getDataRequest(CMGetDataRequest()); });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("ASSERT: \"d()\" in file"),
             child.standardError.constData());
}

QTEST_GUILESS_MAIN(tst_worker_getdata)
#include "tst_worker_getdata.moc"
