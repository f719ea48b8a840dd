#include "tests/settings/settingscontract.h"

#include "tests/settings/contracttexts.h"

#include <QTest>

#include <algorithm>

namespace tulo {

// ---------------------------------------------------------------------------------------------
// Replies.
// ---------------------------------------------------------------------------------------------

void SettingsContract::answerComesLater()
{
    const Reply<QVariantMap> good = settings().get(volume, valueRole);
    const Reply<QVariantMap> bad = settings().get(QString(), valueRole);
    const Reply<Change> change = settings().set(volume, true);

    QVERIFY(!good.isFinished());
    QVERIFY(!bad.isFinished());
    QVERIFY(!change.isFinished());
    QVERIFY(good.wait());
    QVERIFY(!bad.wait());
    QVERIFY(!change.wait());
}

void SettingsContract::answersComeInTheOrderOfTheRequests()
{
    constexpr int count = 10000;
    QObject context;
    QVector<int> order;
    QVector<Reply<QVariantMap>> replies;
    for (int i = 0; i < count; ++i) {
        replies.append(settings().get(i % 2 == 0 ? volume : gain, valueRole));
        replies.last().then(&context, [&order, i](const Reply<QVariantMap>&) { order.append(i); });
    }

    QVERIFY(replies.last().wait());

    QCOMPARE(order.size(), count);
    QVERIFY(std::is_sorted(order.cbegin(), order.cend()));
    QCOMPARE(shown(replies.at(0).value()), QStringLiteral("{value: x 35}"));
    QCOMPARE(shown(replies.at(count - 1).value()), QStringLiteral("{value: d 0.5}"));
}

void SettingsContract::cancelledReplyStaysCancelled()
{
    const Reply<QVariantMap> reply = settings().get(volume, valueRole);

    reply.cancel();

    QCOMPARE(shown(reply.error()), QStringLiteral("Cancelled: cancelled"));
    QVERIFY(settings().get(volume, valueRole).wait());
    QCOMPARE(shown(reply.error()), QStringLiteral("Cancelled: cancelled"));
    QCOMPARE(reply.value(), QVariantMap());
}

void SettingsContract::repliesOfDestroyedSettingsAreCancelled()
{
    const Reply<QVariantMap> read = settings().get(volume, valueRole);
    const Reply<Change> change = settings().set(volume, 40);
    const Reply<int> flush = settings().flush();
    const auto watch = settings().watch(volume);
    QObject context;
    bool isTold = false;
    read.then(&context, [&isTold](const Reply<QVariantMap>&) { isTold = true; });

    m_settings.reset();

    QVERIFY(isTold);
    QCOMPARE(read.error().code, ErrorCode::Cancelled);
    QCOMPARE(change.error().code, ErrorCode::Cancelled);
    QCOMPARE(flush.error().code, ErrorCode::Cancelled);
}

void SettingsContract::settingsMayBeDestroyedInsideOfAnEvent()
{
    EventLog log(settings().watchTree(QStringLiteral("/settings")));
    connect(log.watch(), &Watch::changed, this, [this] { m_settings.reset(); });
    const Reply<Change> change = settings().set(volume, 40);

    QVERIFY(!change.wait());

    QCOMPARE(change.error().code, ErrorCode::Cancelled);
    QCOMPARE(log.texts, QStringList(QStringLiteral("value /settings/audio/volume x 40")));
}

void SettingsContract::settingsMayBeDestroyedInsideOfAnAnswer()
{
    QObject context;
    const Reply<Change> change = settings().set(volume, 40);
    change.then(&context, [this](const Reply<Change>&) { m_settings.reset(); });
    const Reply<QVariantMap> next = settings().get(volume, valueRole);

    QVERIFY(!next.wait());

    QVERIFY(!change.error());
    QCOMPARE(next.error().code, ErrorCode::Cancelled);
    QVERIFY(!m_settings);
}

} // namespace tulo
