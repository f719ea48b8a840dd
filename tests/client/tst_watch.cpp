#include "tests/client/scriptedsettings.h"

#include <tulo/settings.h>

#include <QTest>

#include <memory>

using namespace tulo;

namespace {

Event dataEvent(const char* path)
{
    Event event;
    event.path = QLatin1String(path);
    return event;
}

} // namespace

class tst_Watch : public QObject
{
    Q_OBJECT

private slots:
    void nodeWatchSeesItsPathOnly();
    void treeWatchSeesItsPathAndAllBelow();
    void severalWatchesOfOnePathSeeEachEvent();
    void handlerMayDestroyWatches();
    void handlerMayAddWatches();
    void watchOutlivesTheSettings();
    void missedReachesAllWatches();
    void failureReachesOneWatch();
    void kindsOfSettingsLearnOfWatches();
};

void tst_Watch::nodeWatchSeesItsPathOnly()
{
    ScriptedSettings settings;
    const auto watch = settings.watch(QStringLiteral("/settings/a"));
    QStringList seen;
    connect(watch.get(), &Watch::changed, this, [&](const Event& event) { seen += event.path; });

    for (const char* path : { "/settings/a", "/settings", "/settings/a/b", "/settings/ab" })
        settings.deliver(dataEvent(path));

    QCOMPARE(seen, QStringList({ QStringLiteral("/settings/a") }));
}

void tst_Watch::treeWatchSeesItsPathAndAllBelow()
{
    ScriptedSettings settings;
    const auto watch = settings.watchTree(QStringLiteral("/settings/a"));
    QStringList seen;
    connect(watch.get(), &Watch::changed, this, [&](const Event& event) { seen += event.path; });

    for (const char* path : { "/settings/a", "/settings", "/settings/a/b", "/settings/a/b/c",
                              "/settings/ab", "relative", "" })
        settings.deliver(dataEvent(path));

    QCOMPARE(seen,
             QStringList({ QStringLiteral("/settings/a"), QStringLiteral("/settings/a/b"),
                           QStringLiteral("/settings/a/b/c") }));
}

void tst_Watch::severalWatchesOfOnePathSeeEachEvent()
{
    ScriptedSettings settings;
    int count = 0;
    const auto first = settings.watch(QStringLiteral("/settings/a"));
    const auto second = settings.watch(QStringLiteral("/settings/a"));
    const auto tree = settings.watchTree(QStringLiteral("/settings"));
    for (const Watch* const watch : { first.get(), second.get(), tree.get() })
        connect(watch, &Watch::changed, this, [&count] { ++count; });

    settings.deliver(dataEvent("/settings/a"));

    QCOMPARE(count, 3);
}

void tst_Watch::handlerMayDestroyWatches()
{
    ScriptedSettings settings;
    auto first = settings.watch(QStringLiteral("/settings/a"));
    auto second = settings.watch(QStringLiteral("/settings/a"));
    int count = 0;
    const auto destroyBoth = [&] {
        ++count;
        first.reset();
        second.reset();
    };
    connect(first.get(), &Watch::changed, this, destroyBoth);
    connect(second.get(), &Watch::changed, this, destroyBoth);

    settings.deliver(dataEvent("/settings/a"));
    settings.deliver(dataEvent("/settings/a"));

    QCOMPARE(count, 1);
}

void tst_Watch::handlerMayAddWatches()
{
    ScriptedSettings settings;
    const auto first = settings.watch(QStringLiteral("/settings/a"));
    std::unique_ptr<Watch> second;
    int count = 0;
    connect(first.get(), &Watch::changed, this, [&] {
        if (second)
            return;
        second = settings.watch(QStringLiteral("/settings/a"));
        connect(second.get(), &Watch::changed, this, [&count] { ++count; });
    });

    settings.deliver(dataEvent("/settings/a"));
    QCOMPARE(count, 0);
    settings.deliver(dataEvent("/settings/a"));
    QCOMPARE(count, 1);
}

void tst_Watch::watchOutlivesTheSettings()
{
    auto settings = std::make_unique<ScriptedSettings>();
    const auto node = settings->watch(QStringLiteral("/settings/a"));
    const auto tree = settings->watchTree(QStringLiteral("/settings"));

    settings.reset();

    QCOMPARE(node->path(), QStringLiteral("/settings/a"));
    QCOMPARE(tree->scope(), Watch::Scope::Tree);
}

void tst_Watch::missedReachesAllWatches()
{
    ScriptedSettings settings;
    const auto node = settings.watch(QStringLiteral("/settings/a"));
    const auto tree = settings.watchTree(QStringLiteral("/settings"));
    int count = 0;
    connect(node.get(), &Watch::missed, this, [&count] { ++count; });
    connect(tree.get(), &Watch::missed, this, [&count] { ++count; });

    settings.deliverMissed();

    QCOMPARE(count, 2);
}

void tst_Watch::failureReachesOneWatch()
{
    ScriptedSettings settings;
    const auto first = settings.watch(QStringLiteral("/settings/a"));
    const auto second = settings.watch(QStringLiteral("/settings/a"));
    QVector<Error> seen;
    bool hasSecondFailed = false;
    connect(first.get(), &Watch::failed, this, [&](const Error& error) { seen.append(error); });
    connect(second.get(), &Watch::failed, this, [&] { hasSecondFailed = true; });
    const Error error { ErrorCode::Limits, QStringLiteral("no more rules"), first->path() };

    settings.deliverFailed(first.get(), error);

    QVERIFY(seen.isEmpty());
    QCoreApplication::sendPostedEvents();
    QCOMPARE(seen, QVector<Error>({ error }));
    QVERIFY(!hasSecondFailed);
}

void tst_Watch::kindsOfSettingsLearnOfWatches()
{
    ScriptedSettings settings;
    auto first = settings.watch(QStringLiteral("/settings/a"));
    auto second = settings.watch(QStringLiteral("/settings/a"));
    first.reset();
    second.reset();

    QCOMPARE(settings.log.join(QLatin1Char(' ')),
             QStringLiteral("+/settings/a +/settings/a -/settings/a -/settings/a"));
}

QTEST_GUILESS_MAIN(tst_Watch)
#include "tst_watch.moc"
