#include "tests/support/waituntil.h"

#include <tulo/rowsmodel.h>
#include <tulo/setting.h>
#include <tulo/testsettings.h>

#include <QAbstractItemModelTester>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <csignal>
#include <limits>
#include <memory>

#include <poll.h>
#include <sys/resource.h>

using namespace tulo;

namespace {

const QString volumePath = QStringLiteral("/settings/audio/volume");

void writeVolume(const TestSettings& test, const QByteArray& value = "35")
{
    test.writeDefault(volumePath, R"({"value":{"int":)" + value + "}}");
}

template<typename T>
bool becomesReady(const Setting<T>& setting)
{
    return waitUntil([&] { return setting.isReady(); });
}

bool runs(qint64 processId)
{
    return ::kill(pid_t(processId), 0) == 0;
}

/// How often this thread has waited for something; a busy machine that takes the processor from it
/// does not count.
long waitCount()
{
    rusage usage = {};
    return ::getrusage(RUSAGE_THREAD, &usage) == 0 ? usage.ru_nvcsw : -1;
}

} // namespace

/// The service for tests of programs, and what a program sees of a service that ends and hangs.
class TstTestSettings : public QObject
{
    Q_OBJECT

private slots:
    void programReadsAndChanges();
    void serviceThatCannotStartTellsWhy();
    void serviceThatIsMissingIsNamed();
    void programMayRunBeforeTheService();
    void restartKeepsWhatWasChanged();
    void killLosesWhatWasNotWritten();
    void everythingEndsWithTheObject();
    void twoAtATimeKnowNothingOfEachOther();
    void modelKeepsItsRowsOverARestart();
    void hangingServiceHoldsNoProgramUp();
};

void TstTestSettings::programReadsAndChanges()
{
    TestSettings test;
    writeVolume(test);
    QVERIFY2(test.start(), qPrintable(test.error()));
    Setting<qint64> volume(&test.settings(), volumePath);
    QVERIFY(becomesReady(volume));
    QCOMPARE(volume.value(), qint64(35));

    QVERIFY(volume.set(40).wait());
    QCOMPARE(volume.value(), qint64(40));
    QVERIFY(test.written(volumePath).isNull());
    const Reply<int> flush = test.settings().flush();
    QVERIFY(flush.wait());

    QCOMPARE(flush.value(), 0);
    QVERIFY2(test.written(volumePath).contains(R"("value":{"int":40})"),
             test.written(volumePath).constData());
}

void TstTestSettings::serviceThatCannotStartTellsWhy()
{
    TestSettings test;
    test.writeDefault(volumePath, "{");

    QVERIFY(!test.start());

    QVERIFY2(test.error().contains(QStringLiteral("audio/volume")), qPrintable(test.error()));
    QCOMPARE(test.processId(), qint64(0));
    writeVolume(test);
    QVERIFY2(test.start(), qPrintable(test.error()));
    QCOMPARE(test.error(), QString());
}

void TstTestSettings::serviceThatIsMissingIsNamed()
{
    qputenv("TULO_SETTINGSD", "/nowhere/tulo-settingsd");
    TestSettings test;

    const bool isStarted = test.start();
    qunsetenv("TULO_SETTINGSD");

    QVERIFY(!isStarted);
    QVERIFY2(test.error().contains(QStringLiteral("/nowhere/tulo-settingsd")),
             qPrintable(test.error()));
}

void TstTestSettings::programMayRunBeforeTheService()
{
    TestSettings test;
    writeVolume(test);
    const Setting<qint64> volume(&test.settings(), volumePath, 1);
    QVERIFY(waitUntil([&] { return bool(volume.error()); }));
    QCOMPARE(volume.error().code, ErrorCode::Unavailable);
    QCOMPARE(volume.value(), qint64(1));

    QVERIFY2(test.start(), qPrintable(test.error()));

    QVERIFY(becomesReady(volume));
    QCOMPARE(volume.value(), qint64(35));
    QVERIFY(!volume.error());
}

void TstTestSettings::restartKeepsWhatWasChanged()
{
    TestSettings test;
    writeVolume(test);
    test.writeDefault(QStringLiteral("/settings/audio/loudness"), R"({"value":{"bool":true}})");
    QVERIFY2(test.start(), qPrintable(test.error()));
    Setting<qint64> volume(&test.settings(), volumePath);
    Setting<bool> loudness(&test.settings(), QStringLiteral("/settings/audio/loudness"));
    QVERIFY(becomesReady(volume) && becomesReady(loudness));
    QVERIFY(volume.set(40).wait());
    QSignalSpy volumeChanged(&volume, &AnySetting::changed);
    QSignalSpy loudnessChanged(&loudness, &AnySetting::changed);
    const qint64 before = test.processId();

    test.stop();
    QCOMPARE(volume.value(), qint64(40));
    QVERIFY(volume.isReady());
    // An image with another default.
    test.writeDefault(QStringLiteral("/settings/audio/loudness"), R"({"value":{"bool":false}})");
    QVERIFY2(test.restart(), qPrintable(test.error()));

    QVERIFY(waitUntil([&] { return !loudness.value(); }));
    QCOMPARE(volume.value(), qint64(40));
    QCOMPARE(volumeChanged.count(), 0);
    QCOMPARE(loudnessChanged.count(), 1);
    QVERIFY(test.processId() != before);
}

void TstTestSettings::killLosesWhatWasNotWritten()
{
    TestSettings test;
    writeVolume(test);
    QVERIFY2(test.start(), qPrintable(test.error()));
    Setting<qint64> volume(&test.settings(), volumePath);
    QVERIFY(becomesReady(volume));
    QVERIFY(volume.set(40).wait());

    test.kill();
    // What a slow machine wrote meanwhile is there.
    const qint64 expected = test.written(volumePath).isNull() ? 35 : 40;
    QVERIFY2(test.restart(), qPrintable(test.error()));

    QVERIFY(waitUntil([&] { return volume.value() == expected; }));
}

void TstTestSettings::everythingEndsWithTheObject()
{
    qint64 service = 0;
    QString tree;
    {
        TestSettings test;
        QVERIFY2(test.start(), qPrintable(test.error()));
        service = test.processId();
        tree = test.writePath();
        QVERIFY(runs(service));
        QVERIFY(QFileInfo::exists(tree));
    }

    QVERIFY(!runs(service));
    QVERIFY(!QFileInfo::exists(tree));
}

void TstTestSettings::twoAtATimeKnowNothingOfEachOther()
{
    TestSettings first;
    TestSettings second;
    writeVolume(first, "1");
    writeVolume(second, "2");
    QVERIFY2(first.start(), qPrintable(first.error()));
    QVERIFY2(second.start(), qPrintable(second.error()));

    const Setting<qint64> ofFirst(&first.settings(), volumePath);
    const Setting<qint64> ofSecond(&second.settings(), volumePath);
    QVERIFY(becomesReady(ofFirst) && becomesReady(ofSecond));

    QCOMPARE(ofFirst.value(), qint64(1));
    QCOMPARE(ofSecond.value(), qint64(2));
}

void TstTestSettings::modelKeepsItsRowsOverARestart()
{
    TestSettings test;
    for (const char* name : { "a", "b", "c" }) {
        test.writeDefault(QStringLiteral("/settings/rows/") + QLatin1String(name),
                          R"({"value":{"int":1}})");
    }
    QVERIFY2(test.start(), qPrintable(test.error()));
    const RowsModel model(&test.settings(), QStringLiteral("/settings/rows"));
    const QAbstractItemModelTester tester(const_cast<RowsModel*>(&model));
    QVERIFY(waitUntil([&] { return model.rowCount() == 3; }));
    QSignalSpy resets(&model, &RowsModel::modelReset);
    const QPersistentModelIndex selected = model.index(1, 0);

    test.stop();
    test.writeDefault(QStringLiteral("/settings/rows/aa"), R"({"value":{"int":2}})");
    QVERIFY2(test.restart(), qPrintable(test.error()));
    QVERIFY(waitUntil([&] { return model.rowCount() == 4; }));

    QCOMPARE(selected.row(), 2);
    QCOMPARE(selected.data(), QVariant(QStringLiteral("b")));
    QCOMPARE(resets.count(), 0);
}

// Whatever a program asks for then. The system may have the program wait, for memory for example,
// in some rounds; a call that waits does so in all of them.
void TstTestSettings::hangingServiceHoldsNoProgramUp()
{
    TestSettings test;
    writeVolume(test);
    QVERIFY2(test.start(), qPrintable(test.error()));
    Setting<qint64> volume(&test.settings(), volumePath);
    QVERIFY(becomesReady(volume));
    QVERIFY(::kill(pid_t(test.processId()), SIGSTOP) == 0);

    const long waitsBefore = waitCount();
    ::poll(nullptr, 0, 1);
    QVERIFY(waitCount() > waitsBefore);

    long fewestWaits = std::numeric_limits<long>::max();
    for (int round = 1; round <= 10; ++round) {
        int turns = 0;
        QTimer ticks;
        connect(&ticks, &QTimer::timeout, this, [&] { ++turns; });
        ticks.start(0);
        const long before = waitCount();
        const Reply<Change> change = volume.set(40);
        for (int i = 0; i < 100; ++i)
            volume.setSoon(i);
        const Setting<qint64> other(&test.settings(),
                                    QStringLiteral("/settings/other%1").arg(round), 7);
        const RowsModel model(&test.settings(), QStringLiteral("/settings/audio"));
        QVERIFY(other.title().isEmpty());
        QVERIFY(waitUntil([&] { return turns >= 100; }));
        fewestWaits = qMin(fewestWaits, waitCount() - before);

        QVERIFY(!change.isFinished());
        QCOMPARE(volume.value(), qint64(35));
        QCOMPARE(other.value(), qint64(7));
    }

    QCOMPARE(fewestWaits, 0L);
    QVERIFY(::kill(pid_t(test.processId()), SIGCONT) == 0);
    QVERIFY(waitUntil([&] { return volume.value() == 99; }));
}

QTEST_GUILESS_MAIN(TstTestSettings)
#include "tst_testsettings.moc"
