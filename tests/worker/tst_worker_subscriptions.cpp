// What the worker remembers when a client subscribes: the form of the path, if it was a wrong one.

#include "tests/support/registryobserver.h"
#include "tests/support/replywaiter.h"
#include "workerfixture.h"

#include "api/core/model/tulosettingsactions.h"

namespace {

using Aliases = QHash<QString, QString>;

enum class Kind { Data, Rows, Value };
constexpr Kind kinds[] = { Kind::Data, Kind::Rows, Kind::Value };

void subscribe(RegistryObserver* client, Kind kind, const QString& path)
{
    switch (kind) {
    case Kind::Data:
        return client->subscribeData(path);
    case Kind::Rows:
        return client->subscribeRows(path);
    case Kind::Value:
        return client->subscribeValue(path);
    }
}

} // namespace

Q_DECLARE_METATYPE(Kind)

class tst_worker_subscriptions : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        m = std::make_unique<WorkerFixture>();
        m_client = std::make_unique<RegistryObserver>(m->create().subscribe());
    }
    void cleanup()
    {
        m_client.reset();
        m->log.verifyNothingUnexpected();
        m.reset();
    }

    void pathWithLeadingSlashIsNotRemembered_data();
    void pathWithLeadingSlashIsNotRemembered();
    void wrongPathIsRememberedForItsKindOnly_data();
    void wrongPathIsRememberedForItsKindOnly();
    void wrongPathForRowsAndValuesIsRememberedForBoth();
    void rememberedBaseIsWhatClientUsed_data();
    void rememberedBaseIsWhatClientUsed();
    void secondSubscriptionOverwritesWithWarning();
    void correctSubscriptionKeepsEarlierEntry();
    void entriesStayAfterUnsubscribing();
    void entriesStayAfterDropCache();
    void entriesOfDifferentPathsAddUp();
    void recordedBaseGivesClientsPathBack();
    void subscriptionLoadsAndAnswersNothing();
    void subscriptionTakesNoLock();
    void savingInsertsNothing();

private:
    const Aliases& aliases(Kind kind) const
    {
        switch (kind) {
        case Kind::Data:
            return m->worker->m_dataPathMap;
        case Kind::Rows:
            return m->worker->m_rowsPathMap;
        case Kind::Value:
            break;
        }
        return m->worker->m_valuePathMap;
    }
    void expectWarning(const QString& path)
    {
        m->log.expect(log4cplus::WARN_LOG_LEVEL,
                      QStringLiteral("Wrong settings path detected: '%1' - please fix your code. "
                                     "Adding missing leading '/' for now.")
                          .arg(path));
    }
    static void addKinds()
    {
        QTest::addColumn<Kind>("kind");
        QTest::newRow("data") << Kind::Data;
        QTest::newRow("rows") << Kind::Rows;
        QTest::newRow("value") << Kind::Value;
    }

    const QString m_wrong = QStringLiteral("settings/audio/volume");
    const Aliases m_remembered { { QStringLiteral("/audio/volume"),
                                   QStringLiteral("audio/volume") } };
    std::unique_ptr<WorkerFixture> m;
    std::unique_ptr<RegistryObserver> m_client;
};

void tst_worker_subscriptions::pathWithLeadingSlashIsNotRemembered_data()
{
    addKinds();
}

void tst_worker_subscriptions::pathWithLeadingSlashIsNotRemembered()
{
    QFETCH(Kind, kind);

    for (const char* path : { "/settings/audio/volume", "/settings", "/settings/", "/settings//a" })
        subscribe(m_client.get(), kind, QString::fromLatin1(path));

    for (const Kind each : kinds)
        QVERIFY(aliases(each).isEmpty());
    QVERIFY(m->log.records().isEmpty());
}

void tst_worker_subscriptions::wrongPathIsRememberedForItsKindOnly_data()
{
    addKinds();
}

void tst_worker_subscriptions::wrongPathIsRememberedForItsKindOnly()
{
    QFETCH(Kind, kind);
    expectWarning(m_wrong);

    subscribe(m_client.get(), kind, m_wrong);

    for (const Kind each : kinds)
        QCOMPARE(aliases(each), each == kind ? m_remembered : Aliases());
    QCOMPARE(m->log.records().size(), 1);
}

void tst_worker_subscriptions::wrongPathForRowsAndValuesIsRememberedForBoth()
{
    for (const Kind kind : { Kind::Rows, Kind::Value }) {
        expectWarning(m_wrong);
        subscribe(m_client.get(), kind, m_wrong);
    }

    QCOMPARE(aliases(Kind::Rows), m_remembered);
    QCOMPARE(aliases(Kind::Value), m_remembered);
    QCOMPARE(aliases(Kind::Data), Aliases());
}

void tst_worker_subscriptions::rememberedBaseIsWhatClientUsed_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("settingPath");
    QTest::addColumn<QString>("base");

    const auto row = [](const char* path, const char* settingPath, const char* base) {
        QTest::newRow(path) << QString::fromUtf8(path) << QString::fromUtf8(settingPath)
                            << QString::fromUtf8(base);
    };
    row("settings/a", "/a", "a");
    row("settings", "/", "");
    row("settings/a//b/", "/a//b/", "a//b/");
    row("settings/K\u00fche", "/K\u00fche", "K\u00fche");
}

void tst_worker_subscriptions::rememberedBaseIsWhatClientUsed()
{
    QFETCH(QString, path);
    QFETCH(QString, settingPath);
    QFETCH(QString, base);

    for (const Kind kind : kinds) {
        expectWarning(path);
        subscribe(m_client.get(), kind, path);
        QCOMPARE(aliases(kind), (Aliases { { settingPath, base } }));
    }
}

void tst_worker_subscriptions::secondSubscriptionOverwritesWithWarning()
{
    for (const Kind kind : kinds) {
        for (int subscription = 0; subscription < 2; ++subscription) {
            expectWarning(m_wrong);
            subscribe(m_client.get(), kind, m_wrong);
        }
        QCOMPARE(aliases(kind), m_remembered);
    }
    QCOMPARE(m->log.records().size(), 6);

    // An entry is written anew, not kept.
    m->worker->m_dataPathMap.insert(QStringLiteral("/audio/volume"), QStringLiteral("stale"));
    expectWarning(m_wrong);
    subscribe(m_client.get(), Kind::Data, m_wrong);
    QCOMPARE(aliases(Kind::Data), m_remembered);
}

void tst_worker_subscriptions::correctSubscriptionKeepsEarlierEntry()
{
    for (const Kind kind : kinds) {
        expectWarning(m_wrong);
        subscribe(m_client.get(), kind, m_wrong);

        subscribe(m_client.get(), kind, QLatin1Char('/') + m_wrong);

        QCOMPARE(aliases(kind), m_remembered);
    }
}

void tst_worker_subscriptions::entriesStayAfterUnsubscribing()
{
    for (const Kind kind : kinds) {
        expectWarning(m_wrong);
        subscribe(m_client.get(), kind, m_wrong);
    }

    m_client.reset();

    for (const Kind kind : kinds)
        QCOMPARE(aliases(kind), m_remembered);
}

void tst_worker_subscriptions::entriesStayAfterDropCache()
{
    for (const Kind kind : kinds) {
        expectWarning(m_wrong);
        subscribe(m_client.get(), kind, m_wrong);
    }

    activate(m->worker.get(), TuloSettingsActionsDropCache());

    for (const Kind kind : kinds)
        QCOMPARE(aliases(kind), m_remembered);
}

void tst_worker_subscriptions::entriesOfDifferentPathsAddUp()
{
    for (const Kind kind : kinds) {
        for (const char* path : { "settings/a", "settings/b", "settings/B" }) {
            expectWarning(QString::fromLatin1(path));
            subscribe(m_client.get(), kind, QString::fromLatin1(path));
        }
        const Aliases expected { { QStringLiteral("/a"), QStringLiteral("a") },
                                 { QStringLiteral("/b"), QStringLiteral("b") },
                                 { QStringLiteral("/B"), QStringLiteral("B") } };
        QCOMPARE(aliases(kind), expected);
    }
}

void tst_worker_subscriptions::recordedBaseGivesClientsPathBack()
{
    expectWarning(m_wrong);
    subscribe(m_client.get(), Kind::Data, m_wrong);

    const QString base = aliases(Kind::Data).value(QStringLiteral("/audio/volume"));
    QCOMPARE(m->worker->addPrefix(base).text(), m_wrong);
}

void tst_worker_subscriptions::subscriptionLoadsAndAnswersNothing()
{
    m->tree.writeDefault(QStringLiteral("/audio/volume"), json(R"({"id": "v"})"));
    m->log.setLevel(log4cplus::TRACE_LOG_LEVEL);

    for (const Kind kind : kinds) {
        expectWarning(m_wrong);
        subscribe(m_client.get(), kind, m_wrong);
        subscribe(m_client.get(), kind, QLatin1Char('/') + m_wrong);
    }

    QVERIFY(m->worker->m_valueCache.isEmpty());
    QVERIFY(m->worker->m_dirCache.isEmpty());
    QVERIFY(m->worker->m_pendingWrites.isEmpty());
    QCOMPARE(m_client->texts(), QStringList());
    QCOMPARE(m->log.records().size(), 3); // the warnings
}

void tst_worker_subscriptions::subscriptionTakesNoLock()
{
    const HeldElsewhere held(&m->worker->m_mutex);

    for (const Kind kind : kinds) {
        expectWarning(m_wrong);
        subscribe(m_client.get(), kind, m_wrong);
    }

    QCOMPARE(aliases(Kind::Value), m_remembered);
}

void tst_worker_subscriptions::savingInsertsNothing()
{
    m->tree.writeDefault(QStringLiteral("/audio/volume"), json(R"({"value": {"int": 3}})"));

    const auto reply = setData(m->worker.get(), QStringLiteral("/settings/audio/volume"),
                               TuloRoles::Value(), json(R"({"int": 4})"));

    QCOMPARE(errorText(reply), QString());
    for (const Kind kind : kinds)
        QVERIFY(aliases(kind).isEmpty());
}

QTEST_GUILESS_MAIN(tst_worker_subscriptions)
#include "tst_worker_subscriptions.moc"
