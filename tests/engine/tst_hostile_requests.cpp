// What clients may try, twice: through the guard, which turns it away with its reason while the
// service lives on, and on the bare worker, which does exactly what it does.

#include "cm_settings.h"

#include "engine/dispatcher.h"
#include "engine/guard.h"
#include "engine/router.h"

#include "tests/support/childprocess.h"
#include "tests/support/enginechanges.h"
#include "tests/support/hostilerequests.h"
#include "tests/support/logcapture.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QTest>

#include <csignal>
#include <memory>
#include <sstream>

using namespace tulo;

namespace {

template<typename T>
QString text(const T& printable)
{
    std::ostringstream stream;
    stream << printable;
    return QString::fromStdString(stream.str());
}

const QString volume = QStringLiteral("/settings/audio/volume");

QVariant intValue(qlonglong number)
{
    return TuloValue::of(TuloValue::Int(), number).__variant();
}

/// Trees, and a worker on them as it comes.
class Stage
{
public:
    Stage()
    {
        makeHostileTrees(m_tree);
        worker = std::make_unique<CMSettingsWorker>(m_tree.config());
        m_handler.reset(worker->m_encryptionHandler);
    }

    /// What comes of a request once it was served: "error NAME: MESSAGE", "answer TEXT", for
    /// rows "rows TEXT", for a change "saved FILE TEXT", with the file's name below the writable
    /// tree and without the time stamp.
    QString outcome(const CMRequest& request) const
    {
        const CMVoidReply reply = request.voidReply();
        if (!reply.isFinished())
            return QStringLiteral("no answer");
        if (!errorText(reply).isEmpty())
            return QLatin1String("error ") + errorText(reply);
        const QVariant answer = reply.data()->valueAsVariant();
        if (request.kind() == CMRequest::Kind::GetRows)
            return QLatin1String("rows ") + text(TuloRowsRoles(answer.toHash()).rows());
        if (request.kind() == CMRequest::Kind::GetData)
            return QLatin1String("answer ") + text(answer);
        QVariantHash roles = answer.toHash();
        if (roles.take(TuloRoles::Timestamp()).toLongLong() == 0)
            return QStringLiteral("no time stamp");
        const QStringList files = worker->m_pendingWrites.keys();
        return QStringLiteral("saved %1 %2")
            .arg(files.join(QLatin1Char(' ')).remove(m_tree.writePath()), text(QVariant(roles)));
    }

    QString writePath() const { return m_tree.writePath(); }
    QString defaultPath() const { return m_tree.defaultPath(); }
    QStringList entries() const { return m_tree.writtenEntries(); }

    std::unique_ptr<CMSettingsWorker> worker;

private:
    Q_DISABLE_COPY(Stage)

    const TemporaryTree m_tree;
    std::unique_ptr<EncryptionHandler> m_handler;
};

CMRequest makeRequest(const Attempt& attempt)
{
    const CMPath path(attempt.path);
    switch (attempt.kind) {
    case CMRequest::Kind::GetData:
        return CMGetDataRequest(path, attempt.roles, CMGetDataRequest::Reply::create());
    case CMRequest::Kind::GetRows:
        return CMGetRowsRequest(path, attempt.firstRow, attempt.lastRow, attempt.roles,
                                CMGetRowsRequest::Reply::create());
    default:
        return CMSetDataRequest(path, attempt.role, attempt.value,
                                CMSetDataRequest::Reply::create());
    }
}

log4cplus::LogLevel levelOf(const QString& record)
{
    const QString name = record.section(QLatin1Char(' '), 0, 0);
    return log4cplus::getLogLevelManager().fromString(name.toStdString());
}

} // namespace

class tst_HostileRequests : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_log = std::make_unique<LogCapture>(); }
    void cleanup()
    {
        m_log->verifyNothingUnexpected();
        m_log.reset();
    }

    void guardRefusesAndTheServiceLives_data() { addHostileRequests(); }
    void guardRefusesAndTheServiceLives();
    void bareWorkerDoesWhatItDoes_data() { addHostileRequests(); }
    void bareWorkerDoesWhatItDoes();
    void readOnlyHostRefusesEveryChange();

private:
    void expectRecord(const QString& record, const Stage& stage);

    std::unique_ptr<LogCapture> m_log;
};

void tst_HostileRequests::expectRecord(const QString& record, const Stage& stage)
{
    if (record.isEmpty())
        return;
    QString message = record.section(QLatin1Char(' '), 1);
    message.replace(QLatin1String("%W"), stage.writePath());
    m_log->expect(levelOf(record), message);
}

void tst_HostileRequests::guardRefusesAndTheServiceLives()
{
    QFETCH(const Attempt, attempt);
    QFETCH(const QString, refusal);
    QFETCH(const QString, outcome);
    QFETCH(const QString, record);
    const Stage stage;
    Guard guard(stage.worker.get(), stage.defaultPath(), stage.writePath());
    Router router;
    router.addWorker(stage.worker.get());
    Dispatcher dispatcher(&router, &guard);
    const QStringList entries = stage.entries();
    // What the guard leaves to the worker is logged by it as ever.
    if (outcome == QLatin1String("error ") + refusal)
        expectRecord(record, stage);

    const CMRequest request = makeRequest(attempt);
    dispatcher.submit(request);

    QCOMPARE(stage.outcome(request), QLatin1String("error ") + refusal);
    QCOMPARE(stage.worker->m_pendingWrites.size(), 0);
    QCOMPARE(stage.worker->m_dirCache.size(), 0);
    QCOMPARE(stage.entries(), entries);

    const auto change = sendChange(dispatcher, CMPath(volume), TuloRoles::Value(), intValue(8));
    const auto answer = dispatcher.getData(CMPath(volume), { TuloRoles::Value() });
    QCOMPARE(errorText(change), QString());
    QCOMPARE(text(answer.value()), QStringLiteral("[{int: 8}]"));
    router.removeWorker(stage.worker.get());
}

void tst_HostileRequests::bareWorkerDoesWhatItDoes()
{
    QFETCH(const Attempt, attempt);
    QFETCH(const QString, outcome);
    QFETCH(const QString, record);
    if (outcome.startsWith(QLatin1String("abort "))) {
        const ChildResult child = ChildProcess::runInChild([&attempt] {
            const Stage stage;
            stage.worker->request(makeRequest(attempt));
        });
        QCOMPARE(child.signal, SIGABRT);
        const QByteArray condition = outcome.section(QLatin1Char(' '), 1).toUtf8();
        QVERIFY2(child.standardError.contains("ASSERT: \"" + condition + "\" in file "),
                 child.standardError);
        return;
    }
    const Stage stage;
    expectRecord(record, stage);

    const CMRequest request = makeRequest(attempt);
    stage.worker->request(request);

    QCOMPARE(stage.outcome(request), outcome);
}

void tst_HostileRequests::readOnlyHostRefusesEveryChange()
{
    const Stage stage;
    Guard guard(stage.worker.get(), stage.defaultPath(), stage.writePath());
    Router router;
    router.addWorker(stage.worker.get());
    Dispatcher dispatcher(&router, &guard);
    guard.setRefusal([] { return QStringLiteral("The tree is in use"); });

    const auto set = sendChange(dispatcher, CMPath(volume), TuloRoles::Value(), intValue(8));
    const auto get = dispatcher.getData(CMPath(volume), { TuloRoles::Value() });

    QCOMPARE(errorText(set), QStringLiteral("Unavailable: The tree is in use"));
    QCOMPARE(text(get.value()), QStringLiteral("[{int: 7}]"));
    router.removeWorker(stage.worker.get());
}

QTEST_GUILESS_MAIN(tst_HostileRequests)
#include "tst_hostile_requests.moc"
