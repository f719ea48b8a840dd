#include "api/core/model/cmsubscribe.h"
#include "tests/support/registryobserver.h"
#include "tests/support/replywaiter.h"

#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <memory>

namespace {

const QString a = QStringLiteral("/settings/a");
const QString b = QStringLiteral("/settings/b");

} // namespace

/// The subscription registry: who is told what, in which order, and the rows versions.
class tst_framework_registry : public QObject
{
    Q_OBJECT

private slots:
    void subscribersOfTheExactPathAreTold();
    void subscribersAreToldInOrderOfSubscription();
    void subscribingTwiceTellsOnce();
    void everySubscribeCallEmitsItsSignal();
    void kindsAreApart();
    void observersHearEverything();
    void observersAreToldLast();
    void observerThatSubscribedIsToldOnce();
    void unsubscribedIsNotTold();
    void deliveryIsOnTheAnnouncingThread();
    void subscriberMayUseTheRegistryInside();
    void subscriberTakenOutInsideIsNotToldAnyMore();
    void rowsVersionCountsTheChangesOfItsPath();
    void rowsVersionHasGrownBeforeDelivery();
    void dataPathsStartingWithComparesWholeComponents();
    void dataPathsStartingWithIncludesRelativeForms();
    void dataPathsStartingWithGivesEachPathOnceSorted();
    void dataPathsStartingWithTakesAnyFormOfThePrefix_data();
    void dataPathsStartingWithTakesAnyFormOfThePrefix();
    void dataPathsAreNotThoseOfValueOrRows();
    void unsubscribedPathsAreForgotten();
    void announcingWithoutSubscribersIsQuiet();
};

void tst_framework_registry::subscribersOfTheExactPathAreTold()
{
    CMSubscribe registry;
    RegistryObserver observer(&registry);
    observer.subscribeData(a);

    for (const char* path : { "/settings/a", "/settings/a/b", "/settings", "settings/a",
                              "/settings/a/", "/settings/A" })
        registry.dataChanged(CMPath(QString::fromLatin1(path)));

    QCOMPARE(observer.texts(), QStringList({ QStringLiteral("data /settings/a") }));
}

void tst_framework_registry::subscribersAreToldInOrderOfSubscription()
{
    CMSubscribe registry;
    QStringList order;
    RegistryObserver first(&registry);
    RegistryObserver second(&registry);
    first.onAnnouncement = [&order](const Announcement&) {
        order << QStringLiteral("first");
    };
    second.onAnnouncement = [&order](const Announcement&) {
        order << QStringLiteral("second");
    };
    second.subscribeValue(a);
    first.subscribeValue(a);

    registry.valueChanged(CMPath(a), 1);

    QCOMPARE(order, QStringList({ QStringLiteral("second"), QStringLiteral("first") }));
}

void tst_framework_registry::subscribingTwiceTellsOnce()
{
    CMSubscribe registry;
    RegistryObserver observer(&registry);
    observer.subscribeRows(a);
    observer.subscribeRows(a);

    registry.rowsChanged(CMPath(a), QStringLiteral("+0"), -1, -1);

    QCOMPARE(observer.texts(), QStringList({ QStringLiteral("rows /settings/a +0 1") }));
}

void tst_framework_registry::everySubscribeCallEmitsItsSignal()
{
    CMPath::registerMetaType();
    CMSubscribe registry;
    QSignalSpy values(&registry, &CMSubscribe::valuePathAdded);
    QSignalSpy datas(&registry, &CMSubscribe::dataPathAdded);
    QSignalSpy rows(&registry, &CMSubscribe::rowsPathAdded);
    RegistryObserver observer(&registry);

    observer.subscribeValue(a);
    observer.subscribeData(a);
    observer.subscribeData(a);
    observer.subscribeRows(b);

    QCOMPARE(values.size(), 1);
    QCOMPARE(datas.size(), 2);
    QCOMPARE(rows.size(), 1);
    QVERIFY(datas.at(1).first().value<CMPath>() == CMPath(a));
    QVERIFY(rows.first().first().value<CMPath>() == CMPath(b));
}

void tst_framework_registry::kindsAreApart()
{
    CMSubscribe registry;
    RegistryObserver value(&registry);
    RegistryObserver data(&registry);
    RegistryObserver rows(&registry);
    value.subscribeValue(a);
    data.subscribeData(a);
    rows.subscribeRows(a);

    registry.valueChanged(CMPath(a), QVariantHash { { QStringLiteral("int"), 5 } });
    registry.dataChanged(CMPath(a));
    registry.rowsChanged(CMPath(a), QStringLiteral("3"), -1, -1);

    QCOMPARE(value.texts(), QStringList({ QStringLiteral("value /settings/a {int: 5}") }));
    QCOMPARE(data.texts(), QStringList({ QStringLiteral("data /settings/a") }));
    QCOMPARE(rows.texts(), QStringList({ QStringLiteral("rows /settings/a 3 1") }));
}

void tst_framework_registry::observersHearEverything()
{
    CMSubscribe registry;
    RegistryObserver observer(&registry);
    observer.observe();

    registry.valueChanged(CMPath(a), 1);
    registry.dataChanged(CMPath(b));
    registry.rowsChanged(CMPath(QStringLiteral("/settings")), QStringLiteral("0"), -1, -1);

    QCOMPARE(
        observer.texts(),
        QStringList({ QStringLiteral("value /settings/a 1"), QStringLiteral("data /settings/b"),
                      QStringLiteral("rows /settings 0 1") }));
}

void tst_framework_registry::observersAreToldLast()
{
    CMSubscribe registry;
    QStringList order;
    RegistryObserver observer(&registry);
    RegistryObserver subscriber(&registry);
    observer.onAnnouncement = [&order](const Announcement&) {
        order << QStringLiteral("observer");
    };
    subscriber.onAnnouncement = [&order](const Announcement&) {
        order << QStringLiteral("subscriber");
    };
    observer.observe();
    subscriber.subscribeData(a);

    registry.dataChanged(CMPath(a));

    QCOMPARE(order, QStringList({ QStringLiteral("subscriber"), QStringLiteral("observer") }));
}

void tst_framework_registry::observerThatSubscribedIsToldOnce()
{
    CMSubscribe registry;
    RegistryObserver observer(&registry);
    observer.observe();
    observer.subscribeData(a);

    registry.dataChanged(CMPath(a));

    QCOMPARE(observer.texts().size(), 1);
}

void tst_framework_registry::unsubscribedIsNotTold()
{
    CMSubscribe registry;
    RegistryObserver observer(&registry);
    observer.observe();
    observer.subscribeValue(a);
    observer.subscribeData(a);
    observer.subscribeRows(a);
    registry.unsubscribe(&observer);

    registry.valueChanged(CMPath(a), 1);
    registry.dataChanged(CMPath(a));
    registry.rowsChanged(CMPath(a), QStringLiteral("0"), -1, -1);

    QCOMPARE(observer.texts(), QStringList());
}

void tst_framework_registry::deliveryIsOnTheAnnouncingThread()
{
    CMSubscribe registry;
    RegistryObserver observer(&registry);
    QThread* delivering = nullptr;
    observer.onAnnouncement = [&delivering](const Announcement&) {
        delivering = QThread::currentThread();
    };
    observer.subscribeData(a);
    const std::unique_ptr<QThread> thread(
        QThread::create([&registry] { registry.dataChanged(CMPath(a)); }));
    thread->start();
    QVERIFY(thread->wait(replyWaitMs));

    QCOMPARE(delivering, thread.get());
}

void tst_framework_registry::subscriberMayUseTheRegistryInside()
{
    CMSubscribe registry;
    RegistryObserver observer(&registry);
    int version = -1;
    observer.onAnnouncement = [&](const Announcement& announcement) {
        if (announcement.kind != Announcement::Kind::Rows)
            return;
        version = registry.rowsVersion(announcement.path);
        observer.subscribeData(b);
        registry.dataChanged(CMPath(b));
        registry.unsubscribe(&observer);
    };
    observer.subscribeRows(a);

    registry.rowsChanged(CMPath(a), QStringLiteral("+0"), -1, -1);
    registry.dataChanged(CMPath(b));

    QCOMPARE(version, 1);
    QCOMPARE(observer.texts(),
             QStringList(
                 { QStringLiteral("rows /settings/a +0 1"), QStringLiteral("data /settings/b") }));
}

void tst_framework_registry::subscriberTakenOutInsideIsNotToldAnyMore()
{
    CMSubscribe registry;
    RegistryObserver first(&registry);
    auto second = std::make_unique<RegistryObserver>(&registry);
    RegistryObserver third(&registry);
    first.subscribeData(a);
    second->subscribeData(a);
    third.subscribeData(a);
    first.onAnnouncement = [&second](const Announcement&) {
        second.reset();
    };

    registry.dataChanged(CMPath(a));

    QCOMPARE(third.texts(), QStringList({ QStringLiteral("data /settings/a") }));
}

void tst_framework_registry::rowsVersionCountsTheChangesOfItsPath()
{
    CMSubscribe registry;
    QCOMPARE(registry.rowsVersion(CMPath(a)), 0);

    registry.rowsChanged(CMPath(a), QStringLiteral("+0"), -1, -1);
    registry.rowsChanged(CMPath(a), QStringLiteral("0"), -1, -1);
    registry.rowsChanged(CMPath(QStringLiteral("settings/a")), QStringLiteral("0"), -1, -1);
    registry.dataChanged(CMPath(b));

    QCOMPARE(registry.rowsVersion(CMPath(a)), 2);
    QCOMPARE(registry.rowsVersion(CMPath(QStringLiteral("settings/a"))), 1);
    QCOMPARE(registry.rowsVersion(CMPath(b)), 0);
}

void tst_framework_registry::rowsVersionHasGrownBeforeDelivery()
{
    CMSubscribe registry;
    RegistryObserver observer(&registry);
    QList<int> versions;
    observer.onAnnouncement = [&](const Announcement& announcement) {
        versions << registry.rowsVersion(announcement.path) << announcement.version;
    };
    observer.observe();

    registry.rowsChanged(CMPath(a), QStringLiteral("+0"), -1, -1);
    registry.rowsChanged(CMPath(a), QStringLiteral("0"), -1, -1);

    QCOMPARE(versions, QList<int>({ 1, 1, 2, 2 }));
}

namespace {

QStringList dataPaths(const CMSubscribe& registry, const char* prefix)
{
    QStringList texts;
    const QList<CMPath> paths = registry.dataPathsStartingWith(CMPath(QString::fromLatin1(prefix)));
    for (const CMPath& path : paths)
        texts.append(path.text());
    return texts;
}

} // namespace

void tst_framework_registry::dataPathsStartingWithComparesWholeComponents()
{
    CMSubscribe registry;
    RegistryObserver observer(&registry);
    for (const char* path :
         { "/settings", "/settings/a", "/settingsx", "/settings2/a", "/other", "/" })
        observer.subscribeData(QString::fromLatin1(path));

    QCOMPARE(dataPaths(registry, "/settings"),
             QStringList({ QStringLiteral("/settings"), QStringLiteral("/settings/a") }));
}

void tst_framework_registry::dataPathsStartingWithIncludesRelativeForms()
{
    CMSubscribe registry;
    RegistryObserver observer(&registry);
    observer.subscribeData(QStringLiteral("settings/a"));
    observer.subscribeData(QStringLiteral("settings"));

    QCOMPARE(dataPaths(registry, "/settings"),
             QStringList({ QStringLiteral("settings"), QStringLiteral("settings/a") }));
}

void tst_framework_registry::dataPathsStartingWithGivesEachPathOnceSorted()
{
    CMSubscribe registry;
    RegistryObserver first(&registry);
    RegistryObserver second(&registry);
    for (RegistryObserver* observer : { &first, &second }) {
        observer->subscribeData(b);
        observer->subscribeData(a);
        observer->subscribeData(a);
    }

    QCOMPARE(dataPaths(registry, "/settings"), QStringList({ a, b }));
}

void tst_framework_registry::dataPathsStartingWithTakesAnyFormOfThePrefix_data()
{
    QTest::addColumn<QByteArray>("prefix");
    for (const char* prefix : { "/settings", "settings", "/settings/", "/", "" })
        QTest::addRow("'%s'", prefix) << QByteArray(prefix);
}

void tst_framework_registry::dataPathsStartingWithTakesAnyFormOfThePrefix()
{
    QFETCH(QByteArray, prefix);
    CMSubscribe registry;
    RegistryObserver observer(&registry);
    observer.subscribeData(a);

    QCOMPARE(dataPaths(registry, prefix.constData()), QStringList({ a }));
}

void tst_framework_registry::dataPathsAreNotThoseOfValueOrRows()
{
    CMSubscribe registry;
    RegistryObserver observer(&registry);
    observer.subscribeValue(a);
    observer.subscribeRows(b);

    QCOMPARE(dataPaths(registry, "/settings"), QStringList());
}

void tst_framework_registry::unsubscribedPathsAreForgotten()
{
    CMSubscribe registry;
    RegistryObserver stays(&registry);
    stays.subscribeData(b);
    {
        RegistryObserver goes(&registry);
        goes.subscribeData(a);
        goes.subscribeData(b);
    }

    QCOMPARE(dataPaths(registry, "/settings"), QStringList({ b }));
}

void tst_framework_registry::announcingWithoutSubscribersIsQuiet()
{
    CMSubscribe registry;

    registry.valueChanged(CMPath(a), 1);
    registry.dataChanged(CMPath(a));
    registry.rowsChanged(CMPath(a), QStringLiteral("0"), -1, -1);

    QCOMPARE(registry.rowsVersion(CMPath(a)), 1);
    QCOMPARE(dataPaths(registry, "/"), QStringList());
}

QTEST_GUILESS_MAIN(tst_framework_registry)
#include "tst_framework_registry.moc"
