#include "tests/settings/settingscontract.h"

#include "tests/settings/contracttexts.h"

#include "tests/support/files.h"

#include <QFile>
#include <QTest>

#include <cstring>

namespace tulo {

// ---------------------------------------------------------------------------------------------
// Reset.
// ---------------------------------------------------------------------------------------------

namespace {

ResetOptions recursive(const QStringList& keep = {})
{
    ResetOptions options;
    options.isRecursive = true;
    options.keep = keep;
    return options;
}

/// Files of the writable tree, without those of its owner.
QStringList writtenFiles(const TemporaryTree& tree)
{
    QStringList files;
    const QStringList entries = tree.writtenEntries();
    for (const QString& entry : entries) {
        if (!entry.endsWith(QLatin1Char('/')) && entry != QLatin1String("/.tulo-cm.lock"))
            files.append(entry);
    }
    return files;
}

} // namespace

void SettingsContract::settingIsReset()
{
    QVERIFY(settings().setMany({ { volume, 40 }, { gain, 0.25 } }).wait());
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));

    QCOMPARE(answerOf(settings().reset({ volume })), volume);

    QCOMPARE(writtenFiles(tree()), QStringList(QStringLiteral("/audio/gain")));
    QCOMPARE(answerOf(settings().getMany({ volume, gain },
                                         valueRole + QStringList(QStringLiteral("timestamp")))),
             QStringLiteral("/settings/audio/volume {value: x 35}; "
                            "/settings/audio/gain {timestamp: *, value: d 0.25}"));
    // So does what a later image says.
    tree().writeDefault(QStringLiteral("/audio/volume"), R"({"value":{"int":25}})");
    QVERIFY(settings().dropCache().wait());
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 25}"));
}

void SettingsContract::unchangedSettingIsNotReset()
{
    EventLog log(settings().watchTree(QStringLiteral("/settings")));

    QCOMPARE(answerOf(settings().reset({ volume, gain, volume })), QString());
    QCOMPARE(answerOf(settings().reset({})), QString());
    QCOMPARE(answerOf(settings().reset({ QStringLiteral("/settings") }, recursive())), QString());

    QCOMPARE(log.texts, QStringList());
}

void SettingsContract::resetIsRefused_data()
{
    QTest::addColumn<QStringList>("paths");
    QTest::addColumn<bool>("isRecursive");
    QTest::addColumn<QStringList>("keep");
    QTest::addColumn<QString>("error");
    const auto row = [](const char* name, const QString& path, bool isRecursive, const char* error,
                        const QStringList& keep = {}) {
        // After one that could be reset.
        QTest::newRow(name) << QStringList({ volume, path }) << isRecursive << keep
                            << QString::fromUtf8(error);
    };
    row("directory", audio, false,
        "Refused: Path '/settings/audio' is a directory; only a recursive reset goes to "
        "directories");
    row("read-only setting", serial, false,
        "NotModifiable: Setting '/settings/serial' is not modifiable; only a recursive reset "
        "discards what is stored for it");
    row("no such setting", QStringLiteral("/settings/nothing"), false,
        "InvalidPath: Invalid path '/settings/nothing'");
    row("no such directory", QStringLiteral("/settings/nothing"), true,
        "InvalidPath: Invalid path '/settings/nothing'");
    row("setting that its directory could have", secondPreset, false,
        "InvalidPath: Invalid path '/settings/presets/two'");
    row("another mount", QStringLiteral("/other/audio"), true,
        "InvalidPath: Invalid path '/other/audio'");
    row("action", QStringLiteral("/settings/actions/flush"), true,
        "Refused: Path '/settings/actions/flush' is an action");
    row("hidden", QStringLiteral("/settings/.tulo-cm.lock"), false,
        "Refused: Path '/settings/.tulo-cm.lock' has a component that begins with '.'");
    row("keeping without recursion", gain, false, "Refused: Only a recursive reset keeps paths",
        { gain });
    const auto keepingRow = [&row](const char* name, const QString& glob) {
        const QByteArray error = "Refused: '" + glob.toUtf8()
            + "' is not a path to keep: it begins with '/settings', and '*' and '?' stand for any "
              "characters of a name";
        row(name, gain, true, error.constData(), { glob });
    };
    keepingRow("keeping what is not a path", QStringLiteral("audio"));
    keepingRow("keeping what is not below the top", QStringLiteral("/audio/*"));
    keepingRow("keeping what ends like a path", QStringLiteral("/*gain"));
    keepingRow("keeping what is not a pattern", QStringLiteral("/settings/[a"));
    keepingRow("keeping an empty name", QStringLiteral("/settings//audio"));
    QStringList many;
    for (int i = 0; i <= Settings::maximumChanges; ++i)
        many.append(volume);
    QTest::newRow("too many")
        << many << false << QStringList()
        << QStringLiteral("Limits: A request resets more than 10000 paths or keeps more than 1000");
}

void SettingsContract::resetIsRefused()
{
    QFETCH(const QStringList, paths);
    QFETCH(const bool, isRecursive);
    QFETCH(const QStringList, keep);
    QFETCH(const QString, error);
    QVERIFY(settings().set(volume, 40).wait());
    EventLog log(settings().watchTree(QStringLiteral("/settings")));
    ResetOptions options;
    options.isRecursive = isRecursive;
    options.keep = keep;

    QCOMPARE(answerOf(settings().reset(paths, options)), error);

    QCOMPARE(log.texts, QStringList());
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 40}"));
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));
    QCOMPARE(writtenFiles(tree()), QStringList(QStringLiteral("/audio/volume")));
}

void SettingsContract::pendingChangesAreResetAndOthersWritten()
{
    QVERIFY(settings().setMany({ { volume, 40 }, { gain, 0.25 } }).wait());

    QCOMPARE(answerOf(settings().reset({ volume })), volume);
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));

    QCOMPARE(writtenFiles(tree()), QStringList(QStringLiteral("/audio/gain")));
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 35}"));
    QCOMPARE(answerOf(settings().get(gain, valueRole)), QStringLiteral("{value: d 0.25}"));
}

void SettingsContract::damagedFileIsReset()
{
    expectRecord(QStringLiteral("Settings: Unable to parse '%1/audio/volume': line 1, column 2: "
                                "Missing a name for object member.")
                     .arg(tree().writePath()));
    tree().writeWritten(QStringLiteral("/audio/volume"), "{");

    QCOMPARE(answerOf(settings().reset({ volume })), volume);

    QCOMPARE(writtenFiles(tree()), QStringList());
}

void SettingsContract::recursiveReset_data()
{
    QTest::addColumn<QStringList>("paths");
    QTest::addColumn<QStringList>("keep");
    QTest::addColumn<QStringList>("reset");
    const auto row = [](const char* name, const QStringList& paths, const QStringList& keep,
                        const QStringList& reset) {
        QTest::newRow(name) << paths << keep << reset;
    };
    const QStringList all { gain, volume, secondPreset, token };
    const QStringList top { QStringLiteral("/settings") };
    row("everything", top, {}, all);
    row("directory", { audio }, {}, { gain, volume });
    row("directory in the other form", { audio.mid(1) }, {}, { gain, volume });
    row("directory and a setting in it", { audio, volume }, {}, { gain, volume });
    row("setting", { volume }, {}, { volume });
    row("keep a setting", top, { volume }, { gain, secondPreset, token });
    row("keep a directory", top, { audio }, { secondPreset, token });
    row("keep a directory with a slash", top, { audio + QLatin1Char('/') },
        { secondPreset, token });
    row("keep two", top, { token, QStringLiteral("/settings/presets/*") }, { gain, volume });
    row("keep by pattern", top, { QStringLiteral("/settings/*/??in") },
        { volume, secondPreset, token });
    row("a star is one name", top, { QStringLiteral("/settings/*olume") }, all);
    row("keep everything", top, { QStringLiteral("/settings/*") }, {});
    row("keep nothing that there is", top, { QStringLiteral("/settings/radio") }, all);
}

void SettingsContract::recursiveReset()
{
    QFETCH(const QStringList, paths);
    QFETCH(const QStringList, keep);
    QFETCH(const QStringList, reset);
    QVERIFY(settings()
                .setMany({ { volume, 40 },
                           { gain, 0.25 },
                           { token, QStringLiteral("t") },
                           { secondPreset, QStringLiteral("fm:99") } })
                .wait());

    QCOMPARE(answerOf(settings().reset(paths, recursive(keep))), shown(reset));

    QStringList left { QStringLiteral("/audio/gain"), QStringLiteral("/audio/volume"),
                       QStringLiteral("/presets/two"), QStringLiteral("/token") };
    for (const QString& path : reset)
        left.removeAll(path.mid(int(std::strlen("/settings"))));
    QCOMPARE(writtenFiles(tree()), left);
}

void SettingsContract::readOnlySettingIsResetRecursively()
{
    tree().writeWritten(QStringLiteral("/serial"), R"({"value":{"string":"old"}})");
    QCOMPARE(answerOf(settings().get(serial, valueRole)), QStringLiteral("{value: s \"old\"}"));

    QCOMPARE(answerOf(settings().reset({ serial }, recursive())), serial);

    QCOMPARE(answerOf(settings().get(serial, valueRole)), QStringLiteral("{value: s \"X1\"}"));
}

void SettingsContract::resetRemovesSettingsMadeAtRunTime()
{
    const QString presets = QStringLiteral("/settings/presets");
    const QString third = QStringLiteral("/settings/presets/three");
    const QString value = QStringLiteral("fm:99");
    QVERIFY(settings().setMany({ { secondPreset, value }, { third, value } }).wait());
    QVERIFY(settings().set(volume, 40).wait());
    QCOMPARE(answerOf(settings().rows(presets, 0, 9, valueRole)),
             QStringLiteral("3 rows, version 2, {defaultValue: s \"fm:87.5\", path: s "
                            "\"/settings/presets\", title: s \"Preset\", type: x 1}: "
                            "one {}; three {value: s \"fm:99\"}; two {value: s \"fm:99\"}"));
    EventLog log(settings().watchTree(presets));

    QCOMPARE(answerOf(settings().reset({ secondPreset, third })),
             QStringLiteral("/settings/presets/three, /settings/presets/two"));

    QCOMPARE(log.texts,
             QStringList({ QStringLiteral("data /settings/presets/three"),
                           QStringLiteral("data /settings/presets/two"),
                           QStringLiteral("rows /settings/presets -2 3"),
                           QStringLiteral("rows /settings/presets -1 4") }));
    QCOMPARE(answerOf(settings().get(third, valueRole)),
             QStringLiteral("InvalidPath: Invalid path '/settings/presets/three'"));
    QCOMPARE(answerOf(settings().rows(presets, 0, 9, valueRole)),
             QStringLiteral("1 rows, version 4, {defaultValue: s \"fm:87.5\", path: s "
                            "\"/settings/presets\", title: s \"Preset\", type: x 1}: one {}"));
    // Versions of all directories go on, and what was made once can be made again.
    EventLog after(settings().watchTree(QStringLiteral("/settings")));
    QVERIFY(settings().set(volume, 45).wait());
    QVERIFY(settings().set(third, value).wait());
    QCOMPARE(after.texts,
             QStringList({ QStringLiteral("value /settings/audio/volume x 45"),
                           QStringLiteral("data /settings/audio/volume"),
                           QStringLiteral("rows /settings/audio 4 2"),
                           QStringLiteral("value /settings/presets/three s \"fm:99\""),
                           QStringLiteral("data /settings/presets/three"),
                           QStringLiteral("rows /settings/presets +1 5") }));
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));
    QCOMPARE(writtenFiles(tree()),
             QStringList({ QStringLiteral("/audio/volume"), QStringLiteral("/presets/three") }));
}

void SettingsContract::resetRemovesWhatOlderImagesLeft()
{
    const QByteArray content = R"({"id":"A1","timestamp":5,"value":{"int":5}})";
    tree().writeWritten(QStringLiteral("/radio/deep/one"), content);
    tree().writeWritten(QStringLiteral("/radio/two"), content);
    tree().writeWritten(QStringLiteral("/audio/one"), content);
    tree().writeWritten(QStringLiteral("/empty/.one"), content);
    EventLog log(settings().watch(QStringLiteral("/settings")));
    QVERIFY(settings().rows(QStringLiteral("/settings"), 0, 9, {}).wait());
    const QString one = QStringLiteral("/settings/radio/deep/one");
    const QString beside = QStringLiteral("/settings/audio/one");
    QCOMPARE(answerOf(settings().get(one, valueRole)), QStringLiteral("{value: x 5}"));

    QCOMPARE(answerOf(settings().reset({ one, beside })), shown(QStringList({ beside, one })));
    QCOMPARE(tree().writtenEntries().filter(QStringLiteral("/radio")),
             QStringList({ QStringLiteral("/radio/"), QStringLiteral("/radio/two") }));
    QCOMPARE(answerOf(settings().reset({ QStringLiteral("/settings") }, recursive())),
             QStringLiteral("/settings/radio/two"));

    QCOMPARE(tree().writtenEntries(),
             QStringList({ QStringLiteral("/.tulo-cm.lock"), QStringLiteral("/audio/"),
                           QStringLiteral("/empty/"), QStringLiteral("/empty/.one") }));
    QCOMPARE(log.texts, QStringList(QStringLiteral("rows /settings -3 1")));
    QCOMPARE(answerOf(settings().get(QStringLiteral("/settings/radio"), valueRole)),
             QStringLiteral("InvalidPath: Invalid path '/settings/radio'"));
}

void SettingsContract::resetLeavesOtherFilesAlone()
{
    const QString writable = tree().writePath();
    tree().writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":40}})");
    tree().writeWritten(QStringLiteral("/audio/.volume"), "stale");
    tree().writeWritten(QStringLiteral("/audio/.hidden/volume"), R"({"value":{"int":40}})");
    tree().writeWritten(QStringLiteral("/notes"), "written by hand");
    tree().writeWritten(QStringLiteral("/list"), "[1]");
    tree().writeWritten(QStringLiteral("/empty"), "{}");
    tree().writeWritten(QStringLiteral("/package"), R"({"name":"x","value":{"int":40}})");
    tree().writeDefault(QStringLiteral("/linked"), R"({"value":{"int":1}})");
    tree().writeDefault(QStringLiteral("/elsewhere/one"), R"({"value":{"int":1}})");
    const QString target = tree().path() + QStringLiteral("/beside/one");
    writeFile(target, R"({"value":{"int":2}})");
    QVERIFY(QFile::link(target, writable + QStringLiteral("/linked")));
    QVERIFY(QFile::link(tree().path() + QStringLiteral("/beside"),
                        writable + QStringLiteral("/elsewhere")));
    QStringList left = tree().writtenEntries();

    QCOMPARE(answerOf(settings().reset({ QStringLiteral("/settings") }, recursive())), volume);

    left.removeAll(QStringLiteral("/audio/volume"));
    QCOMPARE(tree().writtenEntries(), left);
    QVERIFY(QFile::exists(target));
    const QString inTheWay =
        QStringLiteral("Refused: A symbolic link in the writable tree is in the way of '%1'");
    for (const char* path : { "/settings/linked", "/settings/elsewhere/one" }) {
        QCOMPARE(answerOf(settings().reset({ QLatin1String(path) })),
                 inTheWay.arg(QLatin1String(path)));
    }
    QCOMPARE(answerOf(settings().reset({ QStringLiteral("/settings/package") })),
             QStringLiteral("Refused: The file of '/settings/package' in the writable tree holds "
                            "more than a setting does; remove it by hand if nothing needs it"));
    QCOMPARE(tree().writtenEntries(), left);
}

void SettingsContract::resetAnnouncesWhatReadsDifferently()
{
    tree().writeWritten(QStringLiteral("/audio/gain"), R"({"value":{"double":0.5}})");
    tree().writeWritten(QStringLiteral("/audio/mode"),
                        R"({"timestamp":5,"value":{"string":"mid"}})");
    tree().writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"double":35.0}})");
    QVERIFY(settings().set(secret, QStringLiteral("hidden")).wait());
    EventLog log(settings().watchTree(QStringLiteral("/settings")));
    QObject context;
    QStringList atAnswer;
    const Reply<QStringList> reply = settings().reset({ secret, volume, mode, gain, loudness });
    reply.then(&context, [&](const Reply<QStringList>&) { atAnswer = log.texts; });

    QCOMPARE(answerOf(reply),
             QStringList({ gain, mode, volume, secret }).join(QLatin1String(", ")));

    QCOMPARE(atAnswer,
             QStringList({ QStringLiteral("data /settings/audio/mode"),
                           QStringLiteral("rows /settings/audio 2 1"),
                           QStringLiteral("value /settings/audio/volume x 35"),
                           QStringLiteral("data /settings/audio/volume"),
                           QStringLiteral("rows /settings/audio 4 2"),
                           QStringLiteral("data /settings/secret"),
                           QStringLiteral("rows /settings 2 2") }));
    QCOMPARE(log.texts, atAnswer);
}

void SettingsContract::changesAroundAResetKeepTheirOrder()
{
    const Reply<Change> before = settings().set(volume, 40);
    const Reply<QStringList> reset = settings().reset({ volume });
    const Reply<QVariantMap> between = settings().get(volume, valueRole);
    const Reply<Change> after = settings().set(volume, 45);
    const Reply<QStringList> second = settings().reset({ secondPreset });

    QCOMPARE(answerOf(second), QStringLiteral("InvalidPath: Invalid path '/settings/presets/two'"));
    QVERIFY(before.isFinished() && reset.isFinished() && after.isFinished());
    QCOMPARE(answerOf(reset), volume);
    QCOMPARE(answerOf(between), QStringLiteral("{value: x 35}"));
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 45}"));
}

} // namespace tulo
