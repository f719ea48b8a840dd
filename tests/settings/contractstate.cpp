#include "tests/settings/settingscontract.h"

#include "tests/settings/contracttexts.h"
#include "tests/support/replywaiter.h"
#include "trees/treestamp.h"

#include <QDir>
#include <QTest>

namespace tulo {

// ---------------------------------------------------------------------------------------------
// Disk and state.
// ---------------------------------------------------------------------------------------------

void SettingsContract::changeIsOnDiskAfterAFlush()
{
    QVERIFY(settings()
                .setRoles(volume,
                          { { QStringLiteral("value"), 40 },
                            { QStringLiteral("id"), QStringLiteral("A1") },
                            { QStringLiteral("timestamp"), 1700000000000LL } })
                .wait());

    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));

    QCOMPARE(tree().readWritten(QStringLiteral("/audio/volume")),
             QByteArray(R"({"id":"A1","timestamp":1700000000000,"value":{"int":40}})"));
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));
    QCOMPARE(answerOf(settings().unsavedPaths(10)), QString());
}

void SettingsContract::replacedTreeIsNotSaved()
{
    QVERIFY(settings().set(volume, 40).wait());
    const QString path = tree().writePath();
    QVERIFY(QDir().rename(path, path + QLatin1String(".old")));
    QVERIFY(QDir().mkdir(path));

    const Reply<int> flush = settings().flush();

    QVERIFY(!flush.wait());
    QCOMPARE(flush.error().code, ErrorCode::NotSaved);
    QVERIFY2(flush.error().message.contains(path), qPrintable(flush.error().message));
    const Reply<Status> status = settings().status();
    QVERIFY(status.wait());
    QCOMPARE(status.value().lastWriteError, flush.error().message);

    // What was accepted is stored in the new one.
    QTRY_COMPARE_WITH_TIMEOUT(answerOf(settings().flush()), QStringLiteral("0"), replyWaitMs);
    QVERIFY(tree().readWritten(QStringLiteral("/audio/volume")).contains(R"("value":{"int":40})"));
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 40}"));
}

void SettingsContract::treeDigestTellsDefaultTreesApart()
{
    QString error;
    const QString before = QString::fromLatin1(treeDigest(tree().defaultPath(), &error));
    QCOMPARE(answerOf(settings().treeDigest()), before);

    tree().writeDefault(QStringLiteral("/audio/new"), QByteArrayLiteral("{}"));
    QCOMPARE(answerOf(settings().treeDigest()), before);
    QVERIFY(settings().dropCache().wait());
    const QString after = QString::fromLatin1(treeDigest(tree().defaultPath(), &error));

    QVERIFY(after != before);
    QCOMPARE(answerOf(settings().treeDigest()), after);
}

void SettingsContract::dropCacheReadsTheFilesAgain()
{
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 35}"));
    tree().writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":45}})");
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 35}"));

    const Reply<bool> drop = settings().dropCache();

    QVERIFY(drop.wait());
    QVERIFY(drop.value());
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 45}"));
}

void SettingsContract::statusTells()
{
    const Reply<Status> before = settings().status();
    QVERIFY(before.wait());
    QCOMPARE(before.value().version, QStringLiteral(TULO_VERSION));
    QCOMPARE(before.value().product, QString());
    QCOMPARE(before.value().defaultPath, tree().defaultPath());
    QCOMPARE(before.value().writePath, tree().writePath());
    QVERIFY(before.value().isWritable);
    QCOMPARE(before.value().pendingWrites, 0);
    QCOMPARE(before.value().unsavedCount, 0);
    QCOMPARE(before.value().lastWriteError, QString());
    QVERIFY(before.value().processId > 0);

    QVERIFY(settings().set(volume, 40).wait());
    const Reply<Status> after = settings().status();
    QVERIFY(after.wait());
    QCOMPARE(after.value().pendingWrites, 1);
}

void SettingsContract::statisticsCount()
{
    const auto numbers = [this] {
        const Reply<QVariantMap> reply = settings().statistics();
        return reply.wait() ? shown(reply.value()) : shown(reply.error());
    };
    QCOMPARE(numbers(),
             QStringLiteral("{announcements: x 0, changes: x 0, failed: x 0, flushes: x 0, "
                            "keptValues: x 0, requests: x 1, resets: x 0, writeErrors: x 0, "
                            "writes: x 0}"));

    QVERIFY(settings().get(volume, valueRole).wait());
    QVERIFY(settings().set(volume, 40).wait());
    QVERIFY(settings().get(gain, valueRole).wait());
    QVERIFY(!settings().set(serial, QStringLiteral("X2")).wait());
    QVERIFY(settings().flush().wait());
    QVERIFY(settings().setMany({ { gain, 0.25 }, { loudness, false } }).wait());
    QVERIFY(settings().reset({ gain, loudness }).wait());
    QVERIFY(settings().get(volume, valueRole).wait());

    // Each change and each reset has a value, data and a row.
    QCOMPARE(numbers(),
             QStringLiteral("{announcements: x 15, changes: x 3, failed: x 1, flushes: x 1, "
                            "keptValues: x 1, requests: x 10, resets: x 2, writeErrors: x 0, "
                            "writes: x 3}"));
}

} // namespace tulo
