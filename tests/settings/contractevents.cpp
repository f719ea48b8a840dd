#include "tests/settings/settingscontract.h"

#include "tests/settings/contracttexts.h"

#include <QTest>

namespace tulo {

// ---------------------------------------------------------------------------------------------
// Events.
// ---------------------------------------------------------------------------------------------

void SettingsContract::eventsComeInOrderBeforeTheAnswer()
{
    EventLog ofSetting(settings().watch(volume));
    EventLog ofDirectory(settings().watch(audio));
    QObject context;
    QStringList atAnswer;
    const Reply<Change> reply = settings().set(volume, 40);
    reply.then(&context,
               [&](const Reply<Change>&) { atAnswer = ofSetting.texts + ofDirectory.texts; });

    QVERIFY(reply.wait());

    QCOMPARE(atAnswer,
             QStringList({ QStringLiteral("value /settings/audio/volume x 40"),
                           QStringLiteral("data /settings/audio/volume"),
                           QStringLiteral("rows /settings/audio 4 1") }));
}

void SettingsContract::sameValueIsAnnouncedAsData()
{
    QVERIFY(settings().set(volume, 40).wait());
    EventLog log(settings().watch(volume));

    QVERIFY(settings().set(volume, 40).wait());

    QCOMPARE(log.texts, QStringList(QStringLiteral("data /settings/audio/volume")));
}

void SettingsContract::newSettingIsAnnouncedAsARow()
{
    EventLog log(settings().watch(QStringLiteral("/settings/presets")));

    QVERIFY(settings().set(secondPreset, QStringLiteral("fm:99")).wait());

    QCOMPARE(log.texts, QStringList(QStringLiteral("rows /settings/presets +1 1")));
}

void SettingsContract::rejectedChangeIsNotAnnounced()
{
    EventLog log(settings().watchTree(QStringLiteral("/settings")));

    QVERIFY(!settings().set(volume, true).wait());
    QVERIFY(!settings().set(serial, QStringLiteral("X2")).wait());
    QVERIFY(!settings().setRoles(volume, { { QStringLiteral("title"), 1 } }).wait());
    QVERIFY(!settings().apply(volume, QStringLiteral("toggle"), {}).wait());

    QCOMPARE(log.texts, QStringList());
}

void SettingsContract::treeWatchSeesEverythingBelow()
{
    EventLog all(settings().watchTree(QStringLiteral("/settings")));
    EventLog below(settings().watchTree(QStringLiteral("/settings/presets")));
    EventLog beside(settings().watchTree(QStringLiteral("/settings/aud")));

    QVERIFY(settings().set(volume, 40).wait());
    QVERIFY(settings().set(secondPreset, QStringLiteral("fm:99")).wait());

    QCOMPARE(all.texts.size(), 6);
    QCOMPARE(below.texts,
             QStringList({ QStringLiteral("value /settings/presets/two s \"fm:99\""),
                           QStringLiteral("data /settings/presets/two"),
                           QStringLiteral("rows /settings/presets +1 1") }));
    QCOMPARE(beside.texts, QStringList());
}

void SettingsContract::settingThatIsMadeLaterCanBeWatched()
{
    EventLog log(settings().watch(secondPreset));

    QVERIFY(settings().set(secondPreset, QStringLiteral("fm:99")).wait());

    QCOMPARE(log.texts,
             QStringList({ QStringLiteral("value /settings/presets/two s \"fm:99\""),
                           QStringLiteral("data /settings/presets/two") }));
}

void SettingsContract::relativePathCanBeWatched()
{
    EventLog log(settings().watch(volume.mid(1)));
    EventLog tree(settings().watchTree(audio.mid(1)));

    QVERIFY(settings().set(volume, 40).wait());

    QCOMPARE(log.watch()->path(), volume.mid(1));
    QCOMPARE(log.texts,
             QStringList({ QStringLiteral("value /settings/audio/volume x 40"),
                           QStringLiteral("data /settings/audio/volume") }));
    QCOMPARE(tree.texts.size(), 3);
}

void SettingsContract::encryptedValueIsNotAnnounced()
{
    EventLog log(settings().watchTree(QStringLiteral("/settings/secret")));
    const QString value = QStringLiteral("value");

    QCOMPARE(answerOf(settings().set(secret, QStringLiteral("hidden"))),
             QStringLiteral("{encrypted: b true, timestamp: *, value: s \"hidden\"}"));
    QVERIFY(settings().apply(secret, QStringLiteral("set"), QStringLiteral("too")).wait());
    QVERIFY(settings().setRoles(secret, { { value, QStringLiteral("three") } }).wait());
    QVERIFY(settings().setMany({ { secret, QStringLiteral("four") } }).wait());

    QCOMPARE(answerOf(settings().get(secret, valueRole)), QStringLiteral("{value: s \"four\"}"));
    QCOMPARE(log.texts,
             QStringList({ QStringLiteral("data /settings/secret"),
                           QStringLiteral("data /settings/secret"),
                           QStringLiteral("data /settings/secret"),
                           QStringLiteral("data /settings/secret") }));
}

void SettingsContract::watchOfARefusedPathFails_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("error");
    QTest::newRow("empty") << QString() << QStringLiteral("Refused: The path is empty");
    QTest::newRow("slash at the end")
        << audio + QLatin1Char('/')
        << QStringLiteral("Refused: Path '/settings/audio/' has an empty component");
    QTest::newRow("hidden") << QStringLiteral("/settings/.meta")
                            << QStringLiteral("Refused: Path '/settings/.meta' has a component "
                                              "that begins with '.'");
    QTest::newRow("long") << QStringLiteral("/settings/") + QString(201, QLatin1Char('x'))
                          << QStringLiteral(
                                 "Limits: Path '/settings/%1...' has a name of more than 200 bytes "
                                 "[/settings/%2]")
                                 .arg(QString(190, QLatin1Char('x')),
                                      QString(201, QLatin1Char('x')));
}

void SettingsContract::watchOfARefusedPathFails()
{
    QFETCH(const QString, path);
    QFETCH(const QString, error);

    EventLog node(settings().watch(path));
    EventLog tree(settings().watchTree(path));

    QCOMPARE(node.texts, QStringList());
    QVERIFY(settings().status().wait());
    QCOMPARE(node.texts, QStringList(error));
    QCOMPARE(tree.texts, QStringList(error));
}

void SettingsContract::destroyedWatchSeesNothing()
{
    EventLog log(settings().watch(volume));
    EventLog other(settings().watch(volume));
    log.destroyWatch();

    QVERIFY(settings().set(volume, 40).wait());

    QCOMPARE(log.texts, QStringList());
    QCOMPARE(other.texts.size(), 2);
}

} // namespace tulo
