#include "api/core/model/cmworker.h"
#include "tests/support/childprocess.h"
#include "tests/support/replywaiter.h"

#include <QTest>

#include <csignal>
#include <cstddef>
#include <cstring>

namespace {

const QString name = QStringLiteral("worker");

// Notes which operation was called, and answers get data requests.
class NotingWorker : public CMWorker
{
public:
    explicit NotingWorker(const QVariantHash& configuration = {})
        : CMWorker(configuration, name)
    {
    }

    void ping(const CMSetDataRequest& request) override { note("ping", request); }
    void trace() override { calls << QStringLiteral("trace"); }
    void getDataRequest(const CMGetDataRequest& request) override
    {
        note("getData", request);
        request.reply().setValue({ request.path().text() });
    }
    void getRowsRequest(const CMGetRowsRequest& request) override { note("getRows", request); }
    void matchRowRequest(const CMMatchRowRequest& request) override { note("matchRow", request); }
    void setDataRequest(const CMSetDataRequest& request) override { note("setData", request); }

    QStringList calls;

private:
    void note(const char* operation, const CMRequest& request)
    {
        calls << QString::fromLatin1(operation) + QLatin1Char(' ') + request.path().text();
    }
};

class NotingRouter : public CMRouter
{
public:
    CMReply<QList<QVariant>> getData(const CMPath& path, const QStringList& roles,
                                     const CMReply<QList<QVariant>>& reply) override
    {
        calls << path.text() + QLatin1Char(' ') + roles.join(QLatin1Char(','));
        reply.setValue({ QStringLiteral("routed") });
        return reply;
    }

    QStringList calls;
};

const CMPath path(QStringLiteral("/settings/a"));
const QString invalidPath = QStringLiteral("InvalidPath: Invalid path '/settings/a'");

// See the virtual slots of the reply data.
template<typename Function>
int slotOf(Function function)
{
    std::ptrdiff_t words[2];
    static_assert(sizeof(function) == sizeof(words));
    std::memcpy(words, &function, sizeof(words));
    return int((words[0] & ~std::ptrdiff_t(1)) / std::ptrdiff_t(sizeof(void*)));
}

} // namespace

/// The base of all workers.
class tst_framework_worker_base : public QObject
{
    Q_OBJECT

private slots:
    void requestIsDispatchedByKind();
    void requestOnEmptyHandleAsserts();
    void inheritedPingAnswersInvalid();
    void inheritedOperationsAnswerInvalidPath();
    void inheritedChangeConnectionsDoNothing();
    void virtualSlotsAreInOrder();
    void nameIsKept();
    void prefixIsSettingsUnlessConfigured();
    void prefixOfSeveralComponentsAsserts_data();
    void prefixOfSeveralComponentsAsserts();
    void addPrefixUsesTheConfiguredPrefix();
    void getDataWithoutRouterServesOwnPaths_data();
    void getDataWithoutRouterServesOwnPaths();
    void getDataGoesThroughTheRouter();
    void getDataAfterTheRouterIsGone();
    void invalidPathErrorNamesTheEncodedPath();
    void internalErrorHasExactlyTheText();
    void eachWorkerHasItsRegistry();
    void queuedTypesAreRegisteredByTheFirstWorker();
};

void tst_framework_worker_base::requestIsDispatchedByKind()
{
    NotingWorker worker;
    const QStringList roles;
    const QString role;

    worker.request(CMSetDataRequest::ping(path, CMSetDataRequest::Reply::create()));
    worker.request(CMGetDataRequest(path, roles, CMGetDataRequest::Reply::create()));
    worker.request(CMGetRowsRequest(path, 0, 1, roles, CMGetRowsRequest::Reply::create()));
    worker.request(CMMatchRowRequest(path, role, {}, CMMatchRowRequest::Reply::create()));
    worker.request(CMSetDataRequest(path, role, {}, CMSetDataRequest::Reply::create()));

    QCOMPARE(
        worker.calls,
        QStringList({ QStringLiteral("ping /settings/a"), QStringLiteral("getData /settings/a"),
                      QStringLiteral("getRows /settings/a"), QStringLiteral("matchRow /settings/a"),
                      QStringLiteral("setData /settings/a") }));
}

void tst_framework_worker_base::requestOnEmptyHandleAsserts()
{
    const ChildResult child = ChildProcess::runInChild([] {
        NotingWorker worker;
        worker.request(CMRequest());
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("ASSERT: \"d()\" in file "), child.standardError);
}

void tst_framework_worker_base::inheritedPingAnswersInvalid()
{
    CMWorker worker({}, name);
    const auto reply = CMSetDataRequest::Reply::create();

    worker.request(CMSetDataRequest::ping(path, reply));

    QVERIFY(reply.isFinished());
    QVERIFY(!reply.value().isValid());
    QCOMPARE(errorText(reply), QString());
}

void tst_framework_worker_base::inheritedOperationsAnswerInvalidPath()
{
    CMWorker worker({}, name);
    const auto data = CMGetDataRequest::Reply::create();
    const auto rows = CMGetRowsRequest::Reply::create();
    const auto match = CMMatchRowRequest::Reply::create();
    const auto set = CMSetDataRequest::Reply::create();

    worker.request(CMGetDataRequest(path, {}, data));
    worker.request(CMGetRowsRequest(path, 0, 0, {}, rows));
    worker.request(CMMatchRowRequest(path, {}, {}, match));
    worker.request(CMSetDataRequest(path, {}, {}, set));

    for (const CMVoidReply& reply :
         { CMVoidReply(data), CMVoidReply(rows), CMVoidReply(match), CMVoidReply(set) }) {
        QVERIFY(reply.isFinished());
        QCOMPARE(errorText(reply), invalidPath);
    }
}

void tst_framework_worker_base::inheritedChangeConnectionsDoNothing()
{
    CMWorker worker({}, name);
    int calls = 0;

    worker.connectChange(CMAbstractWorker::ChangeType::Value, path, this, [&](ChangeNotifier*) {
        ++calls;
        return true;
    });
    worker.disconnectChange(CMAbstractWorker::ChangeType::Value, path, this,
                            [&](ChangeNotifier*) { ++calls; });
    worker.trace();

    QCOMPARE(calls, 0);
}

void tst_framework_worker_base::virtualSlotsAreInOrder()
{
    // All virtual functions of QObject come before; how many there are is Qt's affair.
    const int first = slotOf(&CMAbstractWorker::request);
    QVERIFY(first > slotOf(&QObject::eventFilter));

    QCOMPARE(slotOf(&CMAbstractWorker::ping), first + 1);
    QCOMPARE(slotOf(&CMAbstractWorker::trace), first + 2);
    QCOMPARE(slotOf(&CMAbstractWorker::getDataRequest), first + 3);
    QCOMPARE(slotOf(&CMAbstractWorker::getRowsRequest), first + 4);
    QCOMPARE(slotOf(&CMAbstractWorker::matchRowRequest), first + 5);
    QCOMPARE(slotOf(&CMAbstractWorker::setDataRequest), first + 6);
    QCOMPARE(slotOf(&CMAbstractWorker::connectChange), first + 7);
    QCOMPARE(slotOf(&CMAbstractWorker::disconnectChange), first + 8);
    QCOMPARE(slotOf(&CMWorker::ping), first + 1);
    QCOMPARE(slotOf(&CMWorker::disconnectChange), first + 8);
}

void tst_framework_worker_base::nameIsKept()
{
    QCOMPARE(CMWorker({}, name).workerName(), name);
}

void tst_framework_worker_base::prefixIsSettingsUnlessConfigured()
{
    QCOMPARE(CMWorker({}, name).prefixPath().text(), QStringLiteral("/settings"));
    QCOMPARE(CMWorker({ { QStringLiteral("prefix"), QStringLiteral("/car") } }, name)
                 .prefixPath()
                 .text(),
             QStringLiteral("/car"));
}

void tst_framework_worker_base::prefixOfSeveralComponentsAsserts_data()
{
    QTest::addColumn<QString>("prefix");
    for (const char* prefix : { "/a/b", "a", "/", "", "/a/" })
        QTest::addRow("'%s'", prefix) << QString::fromLatin1(prefix);
}

void tst_framework_worker_base::prefixOfSeveralComponentsAsserts()
{
    QFETCH(QString, prefix);
    const ChildResult child = ChildProcess::runInChild([&prefix] {
        const CMWorker worker({ { QStringLiteral("prefix"), prefix } }, name);
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("\"the prefix is one component\""), child.standardError);
}

void tst_framework_worker_base::addPrefixUsesTheConfiguredPrefix()
{
    const CMWorker worker({ { QStringLiteral("prefix"), QStringLiteral("/car") } }, name);

    QCOMPARE(worker.addPrefix(QStringLiteral("/a")).text(), QStringLiteral("/car/a"));
    QCOMPARE(worker.addPrefix(QStringLiteral("a")).text(), QStringLiteral("car/a"));
    QCOMPARE(worker.addPrefix(QStringLiteral("/")).text(), QStringLiteral("/car"));
    QCOMPARE(worker.addPrefix(QString()).text(), QStringLiteral("/car"));
}

void tst_framework_worker_base::getDataWithoutRouterServesOwnPaths_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("served");
    const auto row = [](const char* text, bool served) {
        QTest::addRow("'%s'", text) << QString::fromLatin1(text) << served;
    };
    row("/settings/a", true);
    row("settings/a", true);
    row("/settings", true);
    row("/settingsx/a", false);
    row("/other", false);
    row("", false);
}

void tst_framework_worker_base::getDataWithoutRouterServesOwnPaths()
{
    QFETCH(QString, text);
    QFETCH(bool, served);
    NotingWorker worker;
    const auto reply = CMReply<QList<QVariant>>::create();

    const auto returned = worker.getData(CMPath(text), {}, reply);

    QCOMPARE(returned.data(), reply.data());
    QVERIFY(returned.isFinished());
    QCOMPARE(worker.calls.size(), served ? 1 : 0);
    QCOMPARE(errorText(reply),
             served ? QString() : QStringLiteral("InvalidPath: Invalid path '%1'").arg(text));
}

void tst_framework_worker_base::getDataGoesThroughTheRouter()
{
    NotingWorker worker;
    NotingRouter router;
    worker.setRouter(&router);

    const auto reply = worker.getData(path, { QStringLiteral("value"), QStringLiteral("title") },
                                      CMReply<QList<QVariant>>::create());

    QCOMPARE(reply.value(), QVariantList({ QStringLiteral("routed") }));
    QCOMPARE(router.calls, QStringList({ QStringLiteral("/settings/a value,title") }));
    QCOMPARE(worker.calls, QStringList());
}

void tst_framework_worker_base::getDataAfterTheRouterIsGone()
{
    NotingWorker worker;
    NotingRouter router;
    worker.setRouter(&router);
    worker.setRouter(nullptr);

    worker.getData(path, {}, CMReply<QList<QVariant>>::create());

    QCOMPARE(router.calls, QStringList());
    QCOMPARE(worker.calls, QStringList({ QStringLiteral("getData /settings/a") }));
}

void tst_framework_worker_base::invalidPathErrorNamesTheEncodedPath()
{
    const CMError error =
        CMAbstractWorker::createErrorInvalidPath(CMPath(QStringLiteral("/settings/a b/%1")));

    QCOMPARE(error.name(), QStringLiteral("InvalidPath"));
    QCOMPARE(error.message().toString(), QStringLiteral("Invalid path '/settings/a%20b/%251'"));
    QCOMPARE(error.title().toString(), QStringLiteral("Error"));
}

void tst_framework_worker_base::internalErrorHasExactlyTheText()
{
    const CMError error = CMAbstractWorker::createErrorInternal(QStringLiteral("what %1 \"x\""));

    QCOMPARE(error.name(), QStringLiteral("InternalError"));
    QCOMPARE(error.message().toString(), QStringLiteral("what %1 \"x\""));
    QCOMPARE(error.title().toString(), QStringLiteral("Error"));
}

void tst_framework_worker_base::eachWorkerHasItsRegistry()
{
    const CMWorker first({}, name);
    const CMWorker second({}, name);

    QVERIFY(first.subscribe() != nullptr);
    QVERIFY(first.subscribe() != second.subscribe());
    QCOMPARE(first.subscribe()->thread(), first.thread());
}

void tst_framework_worker_base::queuedTypesAreRegisteredByTheFirstWorker()
{
    // In a process where no worker has been yet.
    const ChildResult child = ChildProcess::runInChild([] {
        QCOMPARE(QMetaType::type("TuloRoles"), int(QMetaType::UnknownType));
        QCOMPARE(QMetaType::type("CMSetDataRequest"), int(QMetaType::UnknownType));
        const CMWorker worker({}, name);
        QVERIFY(QMetaType::type("TuloRoles") != QMetaType::UnknownType);
        QVERIFY(QMetaType::type("CMSetDataRequest") != QMetaType::UnknownType);
        QCOMPARE(QMetaType::type("CMPath"), int(QMetaType::UnknownType));
        QCOMPARE(QMetaType::type("TrString"), int(QMetaType::UnknownType));
        worker.subscribe()->subscribeData(path, nullptr);
        QVERIFY(QMetaType::type("CMPath") != QMetaType::UnknownType);
        const QVariant text = TrString(QStringLiteral("x"));
        QVERIFY(QMetaType::type("TrString") != QMetaType::UnknownType);
    });

    QCOMPARE(child.signal, 0);
    QVERIFY2(child.exitCode == 0, child.standardOutput);
}

QTEST_GUILESS_MAIN(tst_framework_worker_base)
#include "tst_framework_worker_base.moc"
