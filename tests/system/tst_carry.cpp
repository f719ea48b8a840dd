#include "tests/system/commandline.h"

#include "tests/support/repeats.h"
#include "tests/support/smalldisk.h"

#include "trees/dump.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTest>

#include <csignal>

#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Written files of all kinds.
void change(const CommandLine& device)
{
    device.tree.writeWritten(QStringLiteral("/audio/volume"),
                             R"({"timestamp":1700000000001,"value":{"int":20}})");
    device.tree.writeWritten(QStringLiteral("/audio/gain"),
                             R"({"timestamp":1700000000002,"value":{"double":1.0}})");
    device.tree.writeWritten(QStringLiteral("/presets/two"),
                             R"({"timestamp":1700000000003,"value":{"string":"fm:99"}})");
}

QByteArray dumpOf(const CommandLine& device, const char* line = "dump")
{
    const ChildResult result = device.run(line);
    return result.exitCode == 0 && result.standardError.isEmpty() ? result.standardOutput
                                                                  : result.standardError;
}

/// A dump with these lines, of the default tree that `device` has.
QByteArray dumpWith(const CommandLine& device, const QByteArrayList& lines,
                    const QByteArray& path = "/settings")
{
    QByteArray header = dumpOf(device, "dump /settings/serial");
    header.replace("\"path\":\"/settings/serial\"", "\"path\":\"" + path + '"');
    header.replace("\"count\":0", "\"count\":" + QByteArray::number(lines.size()));
    return header + lines.join('\n');
}

ChildResult load(const CommandLine& device, const QByteArray& dump, const char* options = "")
{
    return device.run((QByteArrayLiteral("load - ") + options).constData(), dump);
}

/// The written files by setting path, with their contents.
QMap<QString, QByteArray> filesOf(const CommandLine& device)
{
    QMap<QString, QByteArray> files;
    const QStringList entries = device.tree.writtenEntries();
    for (const QString& entry : entries) {
        if (!entry.endsWith(QLatin1Char('/')) && !entry.contains(QStringLiteral("/.")))
            files.insert(entry, device.tree.readWritten(entry));
    }
    return files;
}

} // namespace

/// Settings that are carried from one device to another as text.
class TstCarry : public QObject
{
    Q_OBJECT

private slots:
    void dumpHasWhatWasChanged();
    void dumpOfAPathHasWhatIsBelowIt();
    void dumpOfNothingIsADump();
    void encryptedSettingsAreLeftOutUnlessAskedFor();
    void dumpSaysThatAChangeIsNotFinished();
    void dumpLoadedElsewhereGivesTheSameDump();
    void randomDumpsAreTheSameAgain();
    void loadedFilesAreThoseOfTheWorker();
    void movedSettingIsFoundByItsId();
    void settingOfAnotherIdGoesWhereItsIdIs();
    void variantsDoNotHideWhereAnIdIs();
    void idOfSeveralSettingsIsRefused();
    void refusedSettingsAreNamedAndNothingIsChanged();
    void refusedSettingsAreSkippedWhenAsked();
    void valueOutsideTheConstraintsIsAdjusted();
    void dryRunChangesNothing();
    void replaceResetsWhatTheDumpDoesNotName();
    void replaceKeepsWhatIsOutsideTheDumpsPath();
    void replaceKeepsSecretsThatTheDumpLeftOut();
    void encryptedSettingIsRefused();
    void textThatIsNotADumpChangesNothing();
    void longTextHasNoLine();
    void fileThatCannotBeRead();
    void signalEndsReading_data();
    void signalEndsReading();
    void treeInUseIsNotLoadedInto();
    void whatIsInTheWayChangesNothing();
    void fullDiskChangesNothing();
    void loadAsJson();
};

void TstCarry::dumpHasWhatWasChanged()
{
    const CommandLine device;
    change(device);
    // One without a timestamp is changed; one without roles, or damaged, is not.
    device.tree.writeWritten(QStringLiteral("/audio/mode"), R"({"value":{"string":"mid"}})");
    device.tree.writeWritten(QStringLiteral("/audio/loudness"), "{}");

    const ChildResult result = device.run("dump");

    QCOMPARE(result.standardError, QByteArray());
    QList<QByteArray> lines = result.standardOutput.split('\n');
    const QByteArray header = lines.takeFirst();
    QVERIFY2(header.startsWith(R"({"count":4,"path":"/settings","product":"","secrets":false,)"
                               R"("tree":")"),
             header);
    QVERIFY2(header.endsWith(R"(","tulo":1})"), header);
    QCOMPARE(lines.join('\n'),
             QByteArray(R"({"path":"/settings/audio/gain","timestamp":1700000000002,"value":1.0})"
                        "\n"
                        R"({"path":"/settings/audio/mode","value":"mid"})"
                        "\n"
                        R"({"path":"/settings/audio/volume","timestamp":1700000000001,"value":20})"
                        "\n"
                        R"({"path":"/settings/presets/two","timestamp":1700000000003,)"
                        R"("value":"fm:99"})"
                        "\n"));
    QCOMPARE(result.exitCode, 0);
}

void TstCarry::dumpOfAPathHasWhatIsBelowIt()
{
    const CommandLine device;
    change(device);

    const QByteArray audio = dumpOf(device, "dump /settings/audio");
    const QByteArray volume = dumpOf(device, "dump /settings/audio/volume");

    QVERIFY2(audio.startsWith(R"({"count":2,"path":"/settings/audio",)"), audio);
    QCOMPARE(audio.count('\n'), 3);
    QVERIFY2(volume.startsWith(R"({"count":1,"path":"/settings/audio/volume",)"), volume);
    QCOMPARE(device.run("dump /settings/none").exitCode, 3);
}

void TstCarry::dumpOfNothingIsADump()
{
    const CommandLine device;

    const QByteArray dump = dumpOf(device);

    QCOMPARE(dump.count('\n'), 1);
    const ChildResult result = load(device, dump);
    QCOMPARE(result.standardOutput,
             QByteArray("settings: 0 loaded, 0 moved, 0 adjusted, 0 reset, 0 left out\n"));
    QCOMPARE(result.exitCode, 0);
}

void TstCarry::encryptedSettingsAreLeftOutUnlessAskedFor()
{
    const CommandLine device;
    device.tree.writeDefault(QStringLiteral("/secret"),
                             R"({"value":{"string":"x"},"encrypted":true})");
    device.tree.writeWritten(QStringLiteral("/secret"),
                             R"({"encrypted":true,"timestamp":7,"value":{"string":"pass"}})");

    const ChildResult without = device.run("dump");
    const ChildResult with = device.run("dump --secrets");

    QVERIFY(without.standardOutput.startsWith(R"({"count":0,"path":"/settings","product":"",)"
                                              R"("secrets":false,)"));
    QCOMPARE(without.standardOutput.count('\n'), 1);
    QCOMPARE(without.standardError,
             QByteArray("tulo-cm: encrypted settings left out: 1; '--secrets' takes them in\n"));
    QVERIFY(with.standardOutput.contains(R"("secrets":true)"));
    QVERIFY2(
        with.standardOutput.endsWith("\n"
                                     R"({"path":"/settings/secret","timestamp":7,"value":"pass"})"
                                     "\n"),
        with.standardOutput);
    QCOMPARE(with.standardError, QByteArray());
}

// It could hold one half of the change.
void TstCarry::dumpSaysThatAChangeIsNotFinished()
{
    const CommandLine device;
    device.tree.writeWritten(QStringLiteral("/.tulo-cm.journal"), "tulo-journal");

    const ChildResult result = device.run("dump");

    QCOMPARE(result.exitCode, 7);
    QCOMPARE(result.standardOutput, QByteArray());
    QVERIFY2(result.standardError.contains("is not finished"), result.standardError);
}

// -------------------------------------------------------------------------------------------
// There and back.
// -------------------------------------------------------------------------------------------

void TstCarry::dumpLoadedElsewhereGivesTheSameDump()
{
    const CommandLine device;
    const CommandLine other;
    change(device);
    const QByteArray dump = dumpOf(device);

    const ChildResult result = load(other, dump);

    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.standardOutput,
             QByteArray("settings: 3 loaded, 0 moved, 0 adjusted, 0 reset, 0 left out\n"));
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(dumpOf(other), dump);
    QCOMPARE(filesOf(other), filesOf(device));
    QVERIFY(!other.tree.writtenEntries().contains(QStringLiteral("/.tulo-cm.journal")));
}

namespace {

QByteArray randomValue(QRandomGenerator* random)
{
    switch (random->bounded(5)) {
    case 0:
        return R"({"bool":)" + QByteArray(random->bounded(2) == 0 ? "true" : "false") + '}';
    case 1:
        return R"({"int":)" + QByteArray::number(qint64(random->generate64())) + '}';
    case 2:
        return R"({"double":)" + QByteArray::number(random->generateDouble() * 1e6, 'f', 6) + '}';
    case 3:
        return R"({"string":"a\u00e4\n\u200b)" + QByteArray::number(random->generate()) + "\"}";
    default:
        return R"({"list":[1,2.5,"x",{"k":[true,)" + QByteArray::number(random->generate())
            + "]}]}";
    }
}

// Settings whose defaults take any kind; a third of them changed, with and without id and
// timestamp.
void makeRandomTree(const CommandLine& device, quint32 seed, bool isChanged)
{
    QRandomGenerator random(seed);
    for (int i = 0; i < 30; ++i) {
        QString path;
        for (quint32 level = random.bounded(3U); level > 0; --level)
            path += QStringLiteral("/d%1").arg(random.bounded(4));
        path += QStringLiteral("/s-%1_\u00e9").arg(i);
        const QByteArray id = random.bounded(2) == 0
            ? QByteArray()
            : "\"id\":\"I" + QByteArray::number(i) + QByteArray("\",");
        const QByteArray value = randomValue(&random);
        const QByteArray timestamp = random.bounded(4) == 0
            ? QByteArray()
            : "\"timestamp\":" + QByteArray::number(random.generate()) + ',';
        const bool isWritten = random.bounded(3) == 0;
        device.tree.writeDefault(path, '{' + id + "\"title\":\"x\"}");
        if (isChanged && isWritten)
            device.tree.writeWritten(path, '{' + id + timestamp + "\"value\":" + value + '}');
    }
}

} // namespace

void TstCarry::randomDumpsAreTheSameAgain()
{
    const int rounds = repeats(6, 300);
    for (int round = 0; round < rounds; ++round) {
        const CommandLine device;
        const CommandLine other;
        makeRandomTree(device, quint32(round), true);
        makeRandomTree(other, quint32(round), false);
        const QByteArray dump = dumpOf(device);
        QVERIFY2(dump.startsWith("{\"count\":"), dump);

        const ChildResult result = load(other, dump, "--replace");

        QCOMPARE(result.standardError, QByteArray());
        QCOMPARE(result.exitCode, 0);
        QCOMPARE(dumpOf(other), dump);
        // Of the same values, down to the bytes.
        QCOMPARE(load(device, dump).exitCode, 0);
        QCOMPARE(filesOf(other), filesOf(device));
    }
}

void TstCarry::loadedFilesAreThoseOfTheWorker()
{
    const CommandLine written;
    const CommandLine loaded;
    for (const CommandLine* device : { &written, &loaded }) {
        device->tree.writeDefault(QStringLiteral("/switch"),
                                  R"({"id":"S-1","value":{"bool":false},"disabled":true})");
    }
    const char* const changes[] = {
        "set /settings/audio/volume 20",
        "set /settings/audio/gain 0.25",
        "set /settings/audio/sources [\"usb\"]",
        "set /settings/presets/two fm:90",
        "set /settings/switch true",
    };
    for (const char* line : changes)
        QCOMPARE(written.run(line).exitCode, 0);

    const ChildResult result = load(loaded, dumpOf(written));

    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(filesOf(loaded), filesOf(written));
}

// -------------------------------------------------------------------------------------------
// Another image.
// -------------------------------------------------------------------------------------------

void TstCarry::movedSettingIsFoundByItsId()
{
    const CommandLine device;
    device.tree.writeDefault(QStringLiteral("/driving/mode"),
                             R"({"id":"V-1","value":{"string":"normal"}})");
    const QByteArray dump = dumpWith(device,
                                     { R"({"id":"V-1","path":"/settings/vehicle/mode",)"
                                       R"("timestamp":5,"value":"eco"})" });

    const ChildResult result = load(device, dump);

    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.standardOutput,
             QByteArray("/settings/vehicle/mode -> /settings/driving/mode\n"
                        "settings: 1 loaded, 1 moved, 0 adjusted, 0 reset, 0 left out\n"));
    QCOMPARE(device.tree.readWritten(QStringLiteral("/driving/mode")),
             QByteArray(R"({"id":"V-1","timestamp":5,"value":{"string":"eco"}})"));
    QCOMPARE(filesOf(device).size(), 1);
}

// The path is another setting's by now.
void TstCarry::settingOfAnotherIdGoesWhereItsIdIs()
{
    const CommandLine device;
    device.tree.writeDefault(QStringLiteral("/mode"), R"({"id":"N-1","value":{"string":"new"}})");
    device.tree.writeDefault(QStringLiteral("/old"), R"({"id":"O-1","value":{"string":"x"}})");
    const QByteArray dump =
        dumpWith(device,
                 { R"({"id":"O-1","path":"/settings/mode","timestamp":5,"value":"mine"})",
                   R"({"id":"gone","path":"/settings/audio/mode","value":"low"})" });

    QCOMPARE(load(device, dump).standardOutput,
             QByteArray("/settings/mode -> /settings/old\n"
                        "settings: 2 loaded, 1 moved, 0 adjusted, 0 reset, 0 left out\n"));

    QCOMPARE(filesOf(device),
             (QMap<QString, QByteArray> {
                 { QStringLiteral("/audio/mode"), R"({"id":"gone","value":{"string":"low"}})" },
                 { QStringLiteral("/old"),
                   R"({"id":"O-1","timestamp":5,"value":{"string":"mine"}})" } }));
}

// Which listings show beside their settings, with the same id.
void TstCarry::variantsDoNotHideWhereAnIdIs()
{
    const CommandLine device;
    device.tree.writeDefault(QStringLiteral("/one"), R"({"id":"T","value":{"int":1}})");
    device.tree.writeDefault(QStringLiteral("/one_x_y"), R"({"id":"T","value":{"int":2}})");

    QCOMPARE(load(device, dumpWith(device, { R"({"id":"T","path":"/settings/moved","value":5})" }))
                 .standardOutput,
             QByteArray("/settings/moved -> /settings/one\n"
                        "settings: 1 loaded, 1 moved, 0 adjusted, 0 reset, 0 left out\n"));
}

void TstCarry::idOfSeveralSettingsIsRefused()
{
    const CommandLine device;
    device.tree.writeDefault(QStringLiteral("/one"), R"({"id":"T","value":{"int":1}})");
    device.tree.writeDefault(QStringLiteral("/two"), R"({"id":"T","value":{"int":1}})");

    const ChildResult result =
        load(device, dumpWith(device, { R"({"id":"T","path":"/settings/moved","value":5})" }));

    QCOMPARE(result.standardError,
             QByteArray("tulo-cm: -:2: '/settings/moved' cannot be found: several settings have "
                        "the id 'T': /settings/one, /settings/two\n"
                        "tulo-cm: nothing was changed; '--skip-refused' loads the others\n"));
    QCOMPARE(result.exitCode, 4);
}

namespace {

QByteArrayList refusedLines()
{
    return { R"({"path":"/settings/audio/volume","timestamp":5,"value":"loud"})",
             R"({"path":"/settings/serial","value":"X2"})",
             R"({"path":"/settings/none/at/all","value":5})",
             R"({"path":"/settings/audio","value":5})",
             R"({"path":"/settings/audio/mode","timestamp":5,"value":"top"})",
             R"({"path":"/settings/audio/loudness","timestamp":5,"value":false})" };
}

const QByteArray refusals(
    "tulo-cm: -:2: The value for '/settings/audio/volume' was rejected: it is not of the kind "
    "'int'\n"
    "tulo-cm: -:3: Setting '/settings/serial' is not modifiable\n"
    "tulo-cm: -:4: There is no setting '/settings/none/at/all', and no directory for it\n"
    "tulo-cm: -:5: Path '/settings/audio' is a directory\n"
    "tulo-cm: -:6: The value for '/settings/audio/mode' was rejected: it is not one of the "
    "'values' ([\"low\",\"mid\",\"high\"])\n");

} // namespace

void TstCarry::refusedSettingsAreNamedAndNothingIsChanged()
{
    const CommandLine device;

    const ChildResult result = load(device, dumpWith(device, refusedLines()));

    QCOMPARE(result.standardError,
             refusals + "tulo-cm: nothing was changed; '--skip-refused' loads the others\n");
    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.exitCode, 4);
    QCOMPARE(filesOf(device).size(), 0);
}

void TstCarry::refusedSettingsAreSkippedWhenAsked()
{
    const CommandLine device;

    const ChildResult result =
        load(device, dumpWith(device, refusedLines()), "--skip-refused --replace");

    QCOMPARE(result.standardError, refusals);
    QCOMPARE(result.standardOutput,
             QByteArray("settings: 1 loaded, 0 moved, 0 adjusted, 0 reset, 5 left out\n"));
    QCOMPARE(result.exitCode, 5);
    QCOMPARE(filesOf(device).keys(), QStringList(QStringLiteral("/audio/loudness")));
}

void TstCarry::valueOutsideTheConstraintsIsAdjusted()
{
    const CommandLine device;

    const ChildResult result = load(
        device,
        dumpWith(device, { R"({"path":"/settings/audio/volume","timestamp":5,"value":103})" }));

    QCOMPARE(result.standardError,
             QByteArray("tulo-cm: -:2: '/settings/audio/volume': 103 was adjusted: it is "
                        "above 'max' (100); the value is 100\n"));
    QCOMPARE(result.standardOutput,
             QByteArray("settings: 1 loaded, 0 moved, 1 adjusted, 0 reset, 0 left out\n"));
    QCOMPARE(result.exitCode, 5);
    QCOMPARE(device.tree.readWritten(QStringLiteral("/audio/volume")),
             QByteArray(R"({"timestamp":5,"value":{"int":100}})"));
}

void TstCarry::dryRunChangesNothing()
{
    const CommandLine device;
    const CommandLine other;
    change(device);
    other.tree.writeWritten(QStringLiteral("/audio/mode"), R"({"value":{"string":"low"}})");
    const auto before = filesOf(other);

    const ChildResult result = load(other, dumpOf(device), "--dry-run --replace");

    QCOMPARE(result.standardOutput,
             QByteArray("/settings/audio/mode reset\n"
                        "dry run: 3 loaded, 0 moved, 0 adjusted, 1 reset, 0 left out\n"));
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(filesOf(other), before);
}

// -------------------------------------------------------------------------------------------
// In place of what is there.
// -------------------------------------------------------------------------------------------

void TstCarry::replaceResetsWhatTheDumpDoesNotName()
{
    const CommandLine device;
    const CommandLine other;
    change(device);
    other.tree.writeWritten(QStringLiteral("/audio/mode"), R"({"value":{"string":"low"}})");
    other.tree.writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":5}})");
    other.tree.writeWritten(QStringLiteral("/serial"), R"({"value":{"string":"X3"}})");
    const QByteArray dump = dumpOf(device);

    const ChildResult result = load(other, dump, "--replace");

    QCOMPARE(result.standardOutput,
             QByteArray("/settings/audio/mode reset\n/settings/serial reset\n"
                        "settings: 3 loaded, 0 moved, 0 adjusted, 2 reset, 0 left out\n"));
    QCOMPARE(dumpOf(other), dump);
    QCOMPARE(filesOf(other), filesOf(device));
}

void TstCarry::replaceKeepsWhatIsOutsideTheDumpsPath()
{
    const CommandLine device;
    const CommandLine other;
    change(other);

    const ChildResult result = load(other, dumpOf(device, "dump /settings/audio"), "--replace");

    QCOMPARE(result.standardOutput,
             QByteArray("/settings/audio/gain reset\n/settings/audio/volume reset\n"
                        "settings: 0 loaded, 0 moved, 0 adjusted, 2 reset, 0 left out\n"));
    QCOMPARE(filesOf(other).keys(), QStringList(QStringLiteral("/presets/two")));
}

void TstCarry::replaceKeepsSecretsThatTheDumpLeftOut()
{
    const CommandLine device;
    const QByteArray empty = dumpOf(device, "dump");
    const QByteArray emptyWithSecrets = dumpOf(device, "dump --secrets");
    device.tree.writeDefault(QStringLiteral("/secret"),
                             R"({"value":{"string":"x"},"encrypted":true})");
    device.tree.writeWritten(QStringLiteral("/secret"), R"({"value":{"string":"pass"}})");

    QCOMPARE(load(device, empty, "--replace").exitCode, 0);
    QCOMPARE(filesOf(device).size(), 1);
    QCOMPARE(load(device, emptyWithSecrets, "--replace").exitCode, 0);
    QCOMPARE(filesOf(device).size(), 0);
}

// -------------------------------------------------------------------------------------------
// What is not done.
// -------------------------------------------------------------------------------------------

void TstCarry::encryptedSettingIsRefused()
{
    const CommandLine device;
    device.tree.writeDefault(QStringLiteral("/secret"),
                             R"({"value":{"string":"x"},"encrypted":true})");

    const ChildResult result =
        load(device, dumpWith(device, { R"({"path":"/settings/secret","value":"pass"})" }));

    QCOMPARE(result.standardError,
             QByteArray("tulo-cm: -:2: '/settings/secret' is encrypted, which only the service "
                        "can do\n"
                        "tulo-cm: nothing was changed; '--skip-refused' loads the others\n"));
    QCOMPARE(result.exitCode, 4);
    QCOMPARE(filesOf(device).size(), 0);
}

void TstCarry::textThatIsNotADumpChangesNothing()
{
    const CommandLine device;
    const QByteArray dump =
        dumpWith(device, { R"({"path":"/settings/audio/volume","value":20})", "{}", "x" });

    const ChildResult result = load(device, dump);

    QCOMPARE(result.standardError,
             QByteArray("tulo-cm: -:3: has no 'path'\n"
                        "tulo-cm: -:4: column 1: Invalid value.\n"));
    QCOMPARE(result.exitCode, 2);
    QCOMPARE(filesOf(device).size(), 0);
    QCOMPARE(load(device, "\xff\xfe").exitCode, 2);
}

void TstCarry::longTextHasNoLine()
{
    const CommandLine device;

    const ChildResult result = load(device, QByteArray(tulo::Dump::maximumBytes + 1, '\n'));

    QCOMPARE(result.standardError, QByteArray("tulo-cm: -: a dump takes at most 32 MiB\n"));
    QCOMPARE(result.exitCode, 2);
}

void TstCarry::fileThatCannotBeRead()
{
    const CommandLine device;
    const QString name = device.tree.path() + QStringLiteral("/none");

    const ChildResult result = device.run({ QStringLiteral("load"), name });

    QCOMPARE(result.standardError,
             QStringLiteral("tulo-cm: cannot read '%1': No such file or directory\n")
                 .arg(name)
                 .toUtf8());
    QCOMPARE(result.exitCode, 2);
}

void TstCarry::signalEndsReading_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::newRow("standard input") << QStringLiteral("-");
    QTest::newRow("pipe without a writer") << QStringLiteral("pipe");
}

void TstCarry::signalEndsReading()
{
    QFETCH(const QString, fileName);
    const CommandLine device;
    QCOMPARE(::mkfifo(QFile::encodeName(device.tree.path() + QStringLiteral("/pipe")), 0600), 0);
    // A note, by which signals have their handler.
    device.tree.writeWritten(QStringLiteral("/.tulo-cm.migrations"), "{");
    ChildProcess program(QStringLiteral(TULO_CM_PROGRAM),
                         device.arguments({ QStringLiteral("load"), fileName }));
    program.setWorkingDirectory(device.tree.path());
    QVERIFY(program.start());
    QVERIFY(program.waitForError("Migration failed"));

    // One that comes just before the reading does not interrupt it, and one that comes when the
    // program ends would kill it.
    constexpr int patienceMs = 2000;
    int signalsLeft = ChildProcess::waitMs / patienceMs;
    do {
        program.sendSignal(SIGINT);
    } while (!program.waitForError("\ntulo-cm: cancelled\n", patienceMs) && --signalsLeft > 0);

    const ChildResult result = program.finish();
    QVERIFY2(result.standardError.endsWith("\ntulo-cm: cancelled\n"), result.standardError);
    QCOMPARE(result.signal, 0);
    QCOMPARE(result.exitCode, 130);
}

void TstCarry::treeInUseIsNotLoadedInto()
{
    const CommandLine device;
    ChildProcess shell(QStringLiteral(TULO_CM_PROGRAM),
                       device.arguments({ QStringLiteral("shell") }));
    QVERIFY(shell.start());
    shell.writeInput("set /settings/audio/volume 20\n");
    QVERIFY(shell.waitForOutput("20\n"));

    const ChildResult result = load(device, dumpWith(device, {}));

    QCOMPARE(result.exitCode, 7);
    QVERIFY2(result.standardError.contains("is in use by process"), result.standardError);
    shell.closeInput();
    QCOMPARE(shell.finish().exitCode, 0);
}

void TstCarry::whatIsInTheWayChangesNothing()
{
    const CommandLine device;
    const CommandLine other;
    change(device);
    QVERIFY(QFile::link(other.tree.path(), other.tree.writePath() + QStringLiteral("/presets")));

    const ChildResult result = load(other, dumpOf(device));

    QCOMPARE(result.exitCode, 4);
    QVERIFY2(result.standardError.contains("symbolic link"), result.standardError);
    QVERIFY(!QFile::exists(other.tree.writePath() + QStringLiteral("/audio")));
}

void TstCarry::fullDiskChangesNothing()
{
    if (::geteuid() != 0)
        QSKIP("needs root to mount a file system");
    const CommandLine device;
    const CommandLine other;
    change(device);
    const QByteArray dump = dumpOf(device);
    const SmallDisk disk(other.tree.writePath());
    if (!disk.isMounted())
        QSKIP("needs the right to mount a file system");
    other.tree.writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":5}})");
    // The lock is there as in every tree that was changed before.
    other.tree.writeWritten(QStringLiteral("/.tulo-cm.lock"), "");
    QVERIFY(disk.fill());

    const ChildResult result = load(other, dump);

    QVERIFY2(result.standardError.startsWith("tulo-cm: nothing was changed: the file system of the "
                                             "writable tree has no room for"),
             result.standardError);
    QCOMPARE(result.exitCode, 6);
    QCOMPARE(other.tree.readWritten(QStringLiteral("/audio/volume")),
             QByteArray(R"({"value":{"int":5}})"));
    QCOMPARE(filesOf(other).keys(),
             QStringList({ QStringLiteral("/audio/volume"), QStringLiteral("/filler") }));
    QVERIFY(disk.makeRoom());
    QCOMPARE(load(other, dump).exitCode, 0);
    QCOMPARE(dumpOf(other), dump);
}

void TstCarry::loadAsJson()
{
    const CommandLine device;
    device.tree.writeDefault(QStringLiteral("/mode"), R"({"id":"M","value":{"string":"x"}})");
    device.tree.writeWritten(QStringLiteral("/audio/mode"), R"({"value":{"string":"low"}})");
    const QByteArray dump =
        dumpWith(device, { R"({"id":"M","path":"/settings/old","timestamp":5,"value":"y"})" });

    const ChildResult result = load(device, dump, "--json --replace");

    QCOMPARE(result.standardOutput,
             QByteArray(R"({"from":"/settings/old","path":"/settings/mode",)"
                        R"("roles":{"id":"M","timestamp":5,"value":{"string":"y"}}})"
                        "\n"
                        R"({"path":"/settings/audio/mode","reset":true})"
                        "\n"));
    QCOMPARE(result.exitCode, 0);
}

QTEST_GUILESS_MAIN(TstCarry)
#include "tst_carry.moc"
