#include "tests/system/commandline.h"

#include "trees/rules.h"

#include "tests/support/files.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <cstdlib>
#include <functional>
#include <initializer_list>

#include <sys/stat.h>
#include <unistd.h>

using namespace tulo;

using Arrange = std::function<void(const QString& folder)>;

Q_DECLARE_METATYPE(Arrange)

namespace {

// ---------------------------------------------------------------------------------------------
// Trees in one folder: "default", "write", and for comparisons "old".
// ---------------------------------------------------------------------------------------------

const char* const soundVolume = R"({
  "id": "AUD-1",
  "title": "Volume",
  "value": {"int": 35},
  "edit": {
    "kind": "int",
    "min": 0,
    "max": 100
  }
})";

// In which no rule finds anything: a setting with a variant for "sport", one without, a template.
void putSoundTree(const QString& tree)
{
    writeFile(tree + QStringLiteral("/.meta"), R"({"title": "Settings", "modifiable": false})");
    writeFile(tree + QStringLiteral("/audio/.meta"), R"({"title": "Audio", "modifiable": false})");
    writeFile(tree + QStringLiteral("/audio/volume"), soundVolume);
    writeFile(tree + QStringLiteral("/audio/volume_sport"),
              QByteArray(soundVolume).replace("35", "45"));
    writeFile(
        tree + QStringLiteral("/audio/mode"),
        R"({"title": "Mode", "value": {"string": "mid"}, "edit": {"values": ["low", "mid"]}})");
    writeFile(
        tree + QStringLiteral("/presets/.meta"),
        R"({"title": "Preset", "value": {"string": "fm"}, "defaultValue": {"string": "fm"}})");
    writeFile(tree + QStringLiteral("/presets/one"), "{}");
}

Arrange file(const QByteArray& name, const QByteArray& content)
{
    return [name, content](const QString& folder) {
        writeFile(folder + QLatin1Char('/') + QString::fromUtf8(name), content);
    };
}

// Changes the first place of a text in one of the files.
Arrange changed(const char* name, const char* from, const char* to)
{
    return [=](const QString& folder) {
        const QString whole = folder + QLatin1Char('/') + QString::fromUtf8(name);
        QByteArray content = readFile(whole);
        const int place = content.indexOf(from);
        if (place < 0)
            qFatal("nothing to change");
        writeFile(whole, content.replace(place, int(qstrlen(from)), to));
    };
}

Arrange removed(const char* name)
{
    return [name](const QString& folder) {
        if (!QFile::remove(folder + QLatin1Char('/') + QString::fromUtf8(name)))
            qFatal("nothing to remove");
    };
}

Arrange both(const Arrange& one, const Arrange& other)
{
    return [=](const QString& folder) {
        one(folder);
        other(folder);
    };
}

/// The program in `folder`, so that places begin with the tree's name; by another user than root
/// if that is asked for.
ChildResult check(const QString& folder, const QStringList& words, bool asNobody = false)
{
    QString program = QStringLiteral(TULO_CM_PROGRAM);
    QStringList arguments { QStringLiteral("check") };
    arguments += words;
    if (asNobody && ::geteuid() == 0) {
        arguments = QStringList { QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"),
                                  QStringLiteral("--clear-groups"), program }
            + arguments;
        program = QStringLiteral("setpriv");
    }
    ChildProcess process(program, arguments);
    process.setWorkingDirectory(folder);
    if (!process.start())
        qFatal("cannot start the program");
    process.closeInput();
    return process.finish();
}

QStringList words(const char* line)
{
    return QString::fromUtf8(line).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

// With every text of the sound tree.
void makeCatalogue(const QString& folder)
{
    const QString source = folder + QStringLiteral("/catalogue.ts");
    writeFile(source, R"(<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context><name>@settings/audio</name>
<message><source>Volume</source><translation>Lautstärke</translation></message>
<message><source>Mode</source><translation>Art</translation></message>
</context>
<context><name>@settings/presets</name>
<message><source>Preset</source><translation>Speicherplatz</translation></message>
</context>
</TS>
)");
    const ChildResult result = ChildProcess::run(
        QStringLiteral("lrelease"),
        { source, QStringLiteral("-qm"), folder + QStringLiteral("/catalogue.qm") });
    if (result.exitCode != 0)
        qFatal("cannot make a catalogue");
}

QByteArray summary(const char* trees, const char* counts)
{
    return QByteArray("tulo-cm: checked ") + trees + ": " + counts + '\n';
}

/// A place as "FILE:LINE:COLUMN".
QByteArray placeOf(const QJsonObject& finding)
{
    QByteArray place = finding.value(QStringLiteral("file")).toString().toUtf8();
    const int line = finding.value(QStringLiteral("line")).toInt();
    if (line > 0) {
        place += ':' + QByteArray::number(line) + ':'
            + QByteArray::number(finding.value(QStringLiteral("column")).toInt());
    }
    return place;
}

QByteArray textOf(const QJsonObject& finding, const char* key)
{
    return finding.value(QLatin1String(key)).toString().toUtf8();
}

} // namespace

/// What is wrong in the trees is found before it is met.
class TstCheck : public QObject
{
    Q_OBJECT

private slots:
    void exampleTreeIsClean_data();
    void exampleTreeIsClean();
    void soundTreeHasNoFindings();
    void filesOfTheFormatPageAreClean();

    void plantedFault_data();
    void plantedFault();
    void realisticMistake_data();
    void realisticMistake();

    void severitiesCanBeSet();
    void warningsFailInStrictMode();
    void exceptionsBesideTheTreeAreUsed();
    void exceptionThatMatchesNothingIsReported();
    void exceptionIsNotUnusedWhereItsRuleDidNotRun();
    void whatStopsTheServiceCannotBeAllowed();
    void productRestrictsTheVariants();
    void writtenValueThatFitsAProductIsFine();
    void migrationCoversADifference();
    void outputHoldsNoControlCharacters();
    void sameImageHasNoDifference();
    void stampIsWrittenWhereThereAreNoErrors();
    void usageErrors_data();
    void usageErrors();

    void everyRuleIsExplained_data();
    void everyRuleIsExplained();
    void explanationAsJson();

    void treeCanBeNamedInSeveralWays();
    void allFindingsInListingOrder();
    void hiddenDirectoryIsNotEntered();
    void linksAreFollowedOnce();
    void writableTreeIsChecked();
    void shellChecksItsOwnTrees();
    void unreadableDirectoryIsAnError_data();
    void unreadableDirectoryIsAnError();
};

void TstCheck::exampleTreeIsClean_data()
{
    QTest::addColumn<bool>("asNobody");
    QTest::newRow("by this user") << false;
    QTest::newRow("by another user than root") << true;
}

void TstCheck::exampleTreeIsClean()
{
    QFETCH(const bool, asNobody);
    const TemporaryTree tree;
    QCOMPARE(::system(qPrintable(QStringLiteral("cp -r '%1' '%2/example'")
                                     .arg(QStringLiteral(TULO_EXAMPLE_TREE), tree.path()))),
             0);

    const ChildResult result = check(tree.path(), words("example --strict"), asNobody);

    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.standardError, summary("'example'", "0 errors, 0 warnings, 0 notes"));
    QCOMPARE(result.exitCode, 0);
}

// Each planted fault is about what it adds to this tree.
void TstCheck::soundTreeHasNoFindings()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    tree.writeWritten(QStringLiteral("/audio/volume"), R"({"timestamp":1,"value":{"int":90}})");
    tree.writeWritten(QStringLiteral("/presets/two"), R"({"value":{"string":"dab"}})");

    const ChildResult result = check(tree.path(), words("default --write-path write --strict"));

    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.standardError,
             summary("'default' and 'write'", "0 errors, 0 warnings, 0 notes"));
    QCOMPARE(result.exitCode, 0);
}

// The examples of the page, in its order, are what they say they are.
void TstCheck::filesOfTheFormatPageAreClean()
{
    const QList<QByteArray> lines =
        readFile(QStringLiteral(TULO_SOURCE_DIR "/docs/file-format.md")).split('\n');
    QVector<QByteArray> files;
    for (int i = 0; i < lines.size(); ++i) {
        if (lines.at(i) != "```json")
            continue;
        files.append(QByteArray());
        for (++i; lines.at(i) != "```"; ++i)
            files.last() += lines.at(i) + '\n';
    }
    QCOMPARE(files.size(), 4);
    const QTemporaryDir defaults;
    const QTemporaryDir written;
    const QStringList names { defaults.filePath(QStringLiteral("audio/volume")),
                              defaults.filePath(QStringLiteral("audio/.meta")),
                              defaults.filePath(QStringLiteral("audio/presets/.meta")),
                              written.filePath(QStringLiteral("audio/volume")) };
    for (int i = 0; i < names.size(); ++i)
        writeFile(names.at(i), files.at(i));
    const QStringList trees { QStringLiteral("--default-path"), defaults.path(),
                              QStringLiteral("--write-path"), written.path() };
    const QString program = QStringLiteral(TULO_CM_PROGRAM);

    const ChildResult check =
        ChildProcess::run(program, trees + QStringList(QStringLiteral("check")));
    QCOMPARE(check.standardOutput, QByteArray());
    QCOMPARE(check.exitCode, 0);
    const ChildResult volume = ChildProcess::run(
        program,
        trees + QStringList { QStringLiteral("get"), QStringLiteral("/settings/audio/volume") });
    QCOMPARE(volume.standardOutput, QByteArray("20\n"));
    const ChildResult preset = ChildProcess::run(
        program,
        trees
            + QStringList { QStringLiteral("set"), QStringLiteral("/settings/audio/presets/one"),
                            QStringLiteral("dab:5C") });
    QCOMPARE(preset.standardOutput, QByteArray("dab:5C\n"));
}

// ---------------------------------------------------------------------------------------------
// One fault for each rule, with its exact place.
// ---------------------------------------------------------------------------------------------

void TstCheck::plantedFault_data()
{
    QTest::addColumn<Arrange>("plant");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("place");
    QTest::addColumn<QByteArray>("severity");
    QTest::addColumn<QByteArray>("rule");
    QTest::addColumn<QByteArray>("message"); // up to "*" where the user's name follows
    QTest::addColumn<QByteArray>("path");

    QSet<QByteArray> planted;
    const auto row = [&planted](const char* rule, const Arrange& plant, const char* options,
                                const char* place, const char* severity, const char* message,
                                const char* path) {
        planted.insert(rule);
        QTest::addRow("%s %s", rule, place)
            << plant << words(options) << QByteArray(place) << QByteArray(severity)
            << QByteArray(rule) << QByteArray(message) << QByteArray(path);
    };
    const char* const x = "default/audio/x";
    const char* const xPath = "/settings/audio/x";

    // JSON.
    row("syntax", file(x, "{\n  \"title\": \"X\",\n}"), "", "default/audio/x:3:1", "error",
        "Missing a name for object member.", xPath);
    row("syntax", file("default/audio/.meta", ""), "", "default/audio/.meta:1:1", "error",
        "The document is empty.", "/settings/audio");
    row("byte-order-mark", file(x, "\xEF\xBB\xBF{}"), "", "default/audio/x:1:1", "error",
        "begins with a byte order mark", xPath);
    row("nested-too-deep",
        file(x, "{\"value\": {\"list\": " + QByteArray(100, '[') + QByteArray(100, ']') + "}}"), "",
        "default/audio/x:1:82", "error", "Nested too deeply.", xPath);
    row("no-object", file(x, "\n[]"), "", "default/audio/x:2:1", "error",
        "holds list instead of an object", xPath);
    row("no-object", file(x, "null"), "", "default/audio/x:1:1", "error",
        "holds null instead of an object", xPath);
    row("duplicate-key",
        file(x, "{\"title\": \"X\",\n \"value\": {\"int\": 5},\n \"title\": \"Y\"}"), "",
        "default/audio/x:3:2", "error", "'title' is there twice; the last one counts", xPath);

    // Roles.
    row("unknown-role", changed("default/audio/volume", "{\n", "{\n  \"modifable\": true,\n"), "",
        "default/audio/volume:2:3", "error", "unknown role 'modifable'; did you mean 'modifiable'?",
        "/settings/audio/volume");
    row("own-role", changed("default/audio/volume", "{\n", "{\n  \"vendorHint\": 5,\n"), "",
        "default/audio/volume:2:3", "info",
        "'vendorHint' is a role of the product: it is answered as it is", "/settings/audio/volume");
    row("role-type", changed("default/audio/volume", "{\n", "{\n  \"modifiable\": \"no\",\n"), "",
        "default/audio/volume:2:3", "error", "modifiable: \"no\" is not true or false",
        "/settings/audio/volume");
    row("reserved-role", changed("default/audio/volume", "{\n", "{ \"path\": \"/x\",\n"), "",
        "default/audio/volume:1:3", "warning",
        "'path' is set at run time and has no place in a default file", "/settings/audio/volume");
    row("reserved-role",
        changed("default/audio/volume", "{\n", "{ \"defaultValue\": {\"int\": 5},\n"), "",
        "default/audio/volume:1:3", "warning",
        "a setting's default is its 'value'; 'defaultValue' belongs into a .meta",
        "/settings/audio/volume");
    row("meta-value",
        file("default/presets/.meta", "{\"title\": \"Preset\",\n \"value\": {\"string\": \"fm\"}}"),
        "", "default/presets/.meta:2:2", "warning",
        "children get this value, but no default value; add 'defaultValue'", "/settings/presets");

    // Values and constraints.
    row("no-kind", changed("default/audio/volume", "{\"int\": 35}", "35"), "",
        "default/audio/volume:4:3", "error",
        "value: 35 is not a value of a known kind, such as {\"int\":5}", "/settings/audio/volume");
    row("no-kind", changed("default/audio/volume", "{\"int\": 35}", "{\"integer\": 35}"), "",
        "default/audio/volume:4:3", "error",
        "value: {\"integer\":35} is not a value of a known kind, such as {\"int\":5}; did you mean "
        "'int'?",
        "/settings/audio/volume");
    row("any-kind", file(x, "\n{\"title\": \"X\"}"), "", "default/audio/x:2:1", "warning",
        "nothing tells the kind of the setting; add a value or 'kind' to 'edit'", xPath);
    row("any-kind", changed("default/audio/.meta", ", \"modifiable\": false", ""), "",
        "default/audio/.meta:1:1", "warning",
        "nothing tells the kind of settings that clients make here (\"modifiable\": false forbids "
        "them); add a value or 'kind' to 'edit'",
        "/settings/audio");
    row("double-without-fraction", file(x, "{\"title\": \"X\",\n\"value\": {\"double\": 5}}"), "",
        "default/audio/x:2:1", "warning", "value: a double has a fraction: 5.0", xPath);
    row("default-outside-constraints", changed("default/audio/volume", "35", "135"), "",
        "default/audio/volume:4:3", "error", "value: 135: it is above 'max' (100)",
        "/settings/audio/volume");
    row("constraint-malformed", changed("default/audio/volume", "\"min\": 0", "\"min\": \"0\""), "",
        "default/audio/volume:7:5", "error", "'min': \"0\" is not a number",
        "/settings/audio/volume");
    row("constraint-malformed",
        file(x, "{\"title\": \"X\", \"value\": {\"int\": 5},\n\"edit\": \"0..100\"}"), "",
        "default/audio/x:2:1", "error", "edit: \"0..100\" is not an object", xPath);
    row("constraint-unknown", changed("default/audio/volume", "\"max\"", "\"maxx\""), "",
        "default/audio/volume:8:5", "error", "unknown constraint 'maxx'; did you mean 'max'?",
        "/settings/audio/volume");
    row("constraint-not-applicable",
        changed("default/audio/volume", "\"max\"", "\"maxLength\": 5, \"max\""), "",
        "default/audio/volume:8:5", "warning",
        "'maxLength' does not apply to a value of kind 'int'", "/settings/audio/volume");
    row("constraint-unsatisfiable",
        file(x, "{\"title\": \"X\", \"edit\": {\"kind\": \"int\",\n \"min\": 5, \"max\": 4}}"), "",
        "default/audio/x:2:2", "error", "no value of kind 'int' fits min, max and step", xPath);
    row("constraint-unreachable",
        changed("default/audio/volume", "\"max\"", "\"step\": 35, \"max\""), "",
        "default/audio/volume:8:17", "warning",
        "'max' (100) is not a number of steps from 'min'; the highest value is 70",
        "/settings/audio/volume");

    // The tree.
    row("not-listed", file("default/audio/volume.json", "{}"), "", "default/audio/volume.json",
        "error", "no listing shows this name", "/settings/audio/volume.json");
    const QByteArray longName = QByteArray("default/audio/") + QByteArray(201, 'x');
    row("name-too-long", file(longName, R"({"title": "X", "value": {"int": 5}})"), "",
        longName.constData(), "error", "the name has 201 bytes, of which a path takes 200",
        ("/settings/audio/" + QByteArray(201, 'x')).constData());
    row("path-too-deep",
        file("default/a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/x", R"({"title": "X", "value": {"int": 5}})"),
        "--rule no-title=off", "default/a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/x", "error",
        "is below level 16, so no path reaches it", "/settings/a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/x");
    row(
        "link",
        [](const QString& folder) {
            QFile::link(QStringLiteral("none"), folder + QStringLiteral("/default/audio/x"));
        },
        "", x, "error", "is a link that leads nowhere", xPath);
    row(
        "link",
        [](const QString& folder) {
            QDir().mkpath(folder + QStringLiteral("/write/audio"));
            QFile::link(QStringLiteral("none"), folder + QStringLiteral("/write/audio/mode"));
        },
        "--write-path write", "write/audio/mode", "error",
        "is a link; no change is written through it", "/settings/audio/mode");
    row(
        "special-file",
        [](const QString& folder) {
            ::mkfifo(QFile::encodeName(folder + QStringLiteral("/default/audio/x")).constData(),
                     0644);
        },
        "", x, "error", "is neither a regular file nor a directory", xPath);
    row("too-large", file(x, QByteArray(1024 * 1024 + 1, ' ')), "", x, "error",
        "is larger than 1 MiB", xPath);
    row("unreadable",
        both(file(x, "{}"),
             [](const QString& folder) {
                 ::chmod(QFile::encodeName(folder + QStringLiteral("/default/audio/x")).constData(),
                         0000);
             }),
        "", x, "error", "user '*", xPath);
    row("file-directory-clash",
        file("default/audio_sport", R"({"title": "X", "value": {"int": 5}})"), "",
        "default/audio_sport", "error",
        "is the variant of 'audio' for the product 'sport', but 'audio' is a directory",
        "/settings/audio_sport");
    row("file-directory-clash", file("write/audio/mode/x", "{}"), "--write-path write",
        "write/audio/mode", "error", "is a directory, but a setting in the default tree",
        "/settings/audio/mode");

    // Variants.
    row("variant-without-plain",
        file("default/audio/x_sport", R"({"title": "X", "value": {"int": 5}})"), "",
        "default/audio/x_sport", "error",
        "is the variant for the product 'sport' of 'x', which is not there",
        "/settings/audio/x_sport");
    row("variant-other-kind",
        both(changed("default/audio/volume_sport", "{\"int\": 45}", "{\"double\": 45.0}"),
             changed("default/audio/volume_sport", "\"kind\": \"int\"", "\"kind\": \"double\"")),
        "", "default/audio/volume_sport:6:5", "error",
        "is of kind 'double', but 'volume' is of kind 'int'", "/settings/audio/volume_sport");
    row("variant-other-id", changed("default/audio/volume_sport", "AUD-1", "AUD-2"), "",
        "default/audio/volume_sport:2:3", "error",
        "has the id 'AUD-2', but 'volume' has the id 'AUD-1'", "/settings/audio/volume_sport");
    row("variant-lacks-role",
        file("default/audio/volume_sport",
             R"({"id": "AUD-1", "title": "Volume", "value": {"int": 45}})"),
        "", "default/audio/volume_sport:1:1", "warning",
        "lacks what 'volume' has: edit; nothing is taken from there",
        "/settings/audio/volume_sport");
    row("name-like-variant",
        file("default/audio/volume_phone", R"({"title": "Phone", "value": {"int": 5}})"), "",
        "default/audio/volume_phone", "warning",
        "is named like the variant of 'volume' for a product 'phone'",
        "/settings/audio/volume_phone");
    row("name-like-variant",
        file("default/audio_sport/.meta", R"({"title": "Sport", "modifiable": false})"), "",
        "default/audio_sport", "warning",
        "is named like the variant of 'audio' for the product 'sport', but directories have no "
        "variants",
        "/settings/audio_sport");
    row("postfix-empty", file("default/audio/mode_", R"({"title": "X", "value": {"int": 5}})"), "",
        "default/audio/mode_", "error", "takes the place of 'mode' where no product is configured",
        "/settings/audio/mode_");

    // Ids, texts, secrets.
    row("id-missing", changed("default/audio/mode", "{", "\n{"),
        "--rule id-missing=warning --exceptions exceptions", "default/audio/mode:2:1", "warning",
        "has no id", "/settings/audio/mode");
    row("id-twice", changed("default/audio/mode", "{", "{\n \"id\": \"AUD-1\","), "--product none",
        "default/audio/volume:2:3", "error", "'AUD-1' is the id of '/audio/mode', too",
        "/settings/audio/volume");
    row("no-title", changed("default/audio/mode", "\"title\": \"Mode\", ", ""), "",
        "default/audio/mode:1:1", "warning", "has no title", "/settings/audio/mode");
    row("no-title", removed("default/audio/.meta"), "", "default/audio", "warning",
        "has no title, as it has no .meta", "/settings/audio");
    row("encrypted-with-plain-value",
        changed("default/audio/volume", "{\n", "{\n  \"encrypted\": true,\n"),
        "--rule variant-lacks-role=off", "default/audio/volume:5:3", "error",
        "the default of an encrypted setting is plain text in the image", "/settings/audio/volume");
    row("encrypted-without-kind",
        file(x, "{\"title\": \"X\",\n \"encrypted\": true, \"encryptedValue\": \"QUJD\"}"), "",
        "default/audio/x:2:2", "error",
        "nothing tells the kind of an encrypted setting; add 'kind' to 'edit'", xPath);

    // The writable tree.
    row("unusable",
        both(file("write/audio/mode", "{}"),
             [](const QString& folder) {
                 const QByteArray place = QFile::encodeName(folder);
                 ::chmod((place + "/write/audio/mode").constData(), 0000);
                 // As root left it in another user's tree.
                 if (::geteuid() == 0
                     && (::chown((place + "/write").constData(), 65534, 65534) != 0
                         || ::chown((place + "/write/audio").constData(), 65534, 65534) != 0))
                     qFatal("cannot give the tree away");
             }),
        "--write-path write", "write/audio/mode", "error", "user '*", "/settings/audio/mode");
    row("hard-link",
        both(file("write/audio/mode", "{}"),
             [](const QString& folder) {
                 const QByteArray place = QFile::encodeName(folder) + "/write/audio/";
                 if (::link((place + "mode").constData(), (place + ".volume").constData()) != 0)
                     qFatal("cannot link");
             }),
        "--write-path write", "write/audio/.volume", "error",
        "has a second name, whose content the next write of 'volume' would overwrite",
        "/settings/audio/volume");
    row("stale-temporary", file("write/audio/.volume", "{\"val"), "--write-path write",
        "write/audio/.volume", "info",
        "may be left from an interrupted write of 'volume', whose next write reuses it",
        "/settings/audio/volume");
    row("written-unparsable", file("write/audio/volume", "{\"val"), "--write-path write",
        "write/audio/volume:1:6", "error", "Missing a closing quotation mark in string.",
        "/settings/audio/volume");
    row("written-unparsable", file("write/audio/volume", "{\n\"value\": 5}"), "--write-path write",
        "write/audio/volume:2:1", "error", "the value is not of a known kind",
        "/settings/audio/volume");
    row("written-orphan", file("write/audio/loudness", R"({"id":"AUD-1","value":{"int":5}})"),
        "--write-path write", "write/audio/loudness:1:1", "warning",
        "the image has no such setting; its id 'AUD-1' is now that of '/audio/volume'",
        "/settings/audio/loudness");
    row("written-kind-changed",
        file("write/audio/volume", R"({"id":"A","value":{"string":"loud"}})"), "--write-path write",
        "write/audio/volume:1:11", "error",
        "\"loud\" is of kind 'string', but the setting is of kind 'int'", "/settings/audio/volume");
    row("written-outside-constraints",
        file("write/audio/volume", R"({"id":"A","value":{"int":101}})"), "--write-path write",
        "write/audio/volume:1:11", "error", "101: it is above 'max' (100)",
        "/settings/audio/volume");

    // An older image.
    row(
        "moved",
        [](const QString& folder) {
            for (const char* name : { "volume", "volume_sport" }) {
                const QString file = QString::fromUtf8(name);
                if (!QFile::rename(folder + QStringLiteral("/default/audio/") + file,
                                   folder + QStringLiteral("/default/presets/") + file))
                    qFatal("cannot move");
            }
        },
        "--against old --product none", "default/presets/volume:2:3", "info",
        "'/audio/volume' is now '/presets/volume'", "/settings/presets/volume");
    row("removed", removed("default/audio/mode"), "--against old", "old/audio/mode:1:1", "error",
        "'/audio/mode' is gone, and had no id to find it by", "/settings/audio/mode");
    row("narrowed", changed("default/audio/volume", "100", "80"), "--against old",
        "default/audio/volume:8:5", "error", "'max' was 100 and is 80", "/settings/audio/volume");
    row("kind-changed", file("default/audio/mode", R"({"title": "Mode", "value": {"int": 5}})"),
        "--against old --rule default-changed=off", "default/audio/mode:1:19", "error",
        "was of kind 'string' and is of kind 'int'", "/settings/audio/mode");
    row("made-read-only",
        changed("default/audio/volume", "\n  \"edit\"", "\n  \"modifiable\": false, \"edit\""),
        "--against old", "default/audio/volume:5:3", "error", "could be changed and is read-only",
        "/settings/audio/volume");
    row("default-changed", changed("default/audio/volume", "35", "25"), "--against old",
        "default/audio/volume:4:3", "info", "the default value was 35 and is 25",
        "/settings/audio/volume");

    row(
        "tree-empty",
        [](const QString& folder) {
            QDir tree(folder + QStringLiteral("/default"));
            if (!tree.removeRecursively() || !tree.mkpath(QStringLiteral(".")))
                qFatal("cannot empty the tree");
        },
        "", "default", "error", "the tree has no file of a setting or directory", "");
    row("stamp-stale", file("default/.tulo-cm.stamp", "tulo-stamp 1 0\n"), "",
        "default/.tulo-cm.stamp", "error", "the image has changed since it was stamped", "");

    // What belongs to the check itself.
    row("exception-unused", file("exceptions", "# Reasons\n\nno-title audio/* Icons only\n"),
        "--exceptions exceptions", "exceptions:3:1", "warning",
        "no finding of 'no-title' matches 'audio/*'", "");
    row("text-untranslated", changed("default/audio/mode", "\"Mode\"", "\"Way\""),
        "--catalogue catalogue.qm", "default/audio/mode:1:2", "warning",
        "title: 'catalogue.qm' has no translation of \"Way\"", "/settings/audio/mode");

    // Nobody adds a rule without a fault for it.
    for (const Rule& rule : allRules())
        QVERIFY2(planted.contains(rule.name), rule.name);
}

void TstCheck::plantedFault()
{
    QFETCH(const Arrange, plant);
    QFETCH(const QStringList, options);
    QFETCH(const QByteArray, place);
    QFETCH(const QByteArray, severity);
    QFETCH(const QByteArray, rule);
    QFETCH(const QByteArray, message);
    QFETCH(const QByteArray, path);
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    if (options.contains(QStringLiteral("--against")))
        putSoundTree(tree.path() + QStringLiteral("/old"));
    writeFile(tree.path() + QStringLiteral("/exceptions"),
              "id-missing presets/one Made by the template\n");
    if (options.contains(QStringLiteral("--catalogue")))
        makeCatalogue(tree.path());
    plant(tree.path());
    const QStringList line = QStringList(QStringLiteral("default")) + options;
    // Root can read everything.
    const bool asNobody = rule == "unreadable";
    const bool isBeginning = message.endsWith('*');
    const QByteArray expectedMessage = isBeginning ? message.chopped(1) : message;

    const ChildResult text = check(tree.path(), line, asNobody);
    const ChildResult json = check(tree.path(), line + words("--format json"), asNobody);

    QVERIFY2(text.standardOutput.startsWith(place + ": " + severity + ": " + rule + ": "
                                            + expectedMessage),
             text.standardOutput);
    QCOMPARE(text.standardOutput.count('\n'), 1);
    if (!isBeginning)
        QCOMPARE(text.standardOutput.size(),
                 (place + ": " + severity + ": " + rule + ": " + message + '\n').size());
    QCOMPARE(json.standardOutput.count('\n'), 1);
    const QJsonObject object = QJsonDocument::fromJson(json.standardOutput).object();
    QCOMPARE(object.keys(), words("column file line message path rule severity"));
    QCOMPARE(placeOf(object), place);
    QCOMPARE(textOf(object, "rule"), rule);
    QCOMPARE(textOf(object, "severity"), severity);
    QVERIFY(textOf(object, "message").startsWith(expectedMessage));
    QCOMPARE(textOf(object, "path"), path);
    QCOMPARE(text.exitCode, severity == "error" ? 8 : 0);
    QCOMPARE(json.exitCode, text.exitCode);
    // Root made them for another user to fail at.
    for (const char* name : { "/default/audio/x", "/write/audio/mode" })
        ::chmod((QFile::encodeName(tree.path()) + name).constData(), 0755);
}

// ---------------------------------------------------------------------------------------------
// What people really do wrong, on the example tree.
// ---------------------------------------------------------------------------------------------

void TstCheck::realisticMistake_data()
{
    QTest::addColumn<Arrange>("make");
    QTest::addColumn<QStringList>("lines");
    const auto row = [](const char* name, const Arrange& make,
                        const std::initializer_list<const char*>& lines) {
        QStringList expected;
        for (const char* line : lines)
            expected.append(QString::fromUtf8(line));
        QTest::newRow(name) << make << expected;
    };

    row("comma after the last role",
        changed("audio/balance", "\"readWrite\"\n", "\"readWrite\",\n"),
        { "audio/balance:13:1: error: syntax: Missing a name for object member." });
    row("comma forgotten between two roles",
        changed("audio/balance", "{\"int\": 0},", "{\"int\": 0}"),
        { "audio/balance:6:3: error: syntax: Missing a comma or '}' after an object member." });
    row("single quotes", changed("audio/balance", "\"Balance\"", "'Balance'"),
        { "audio/balance:3:12: error: syntax: Invalid value." });
    row("comment", changed("audio/balance", "{\n  \"id\"", "{\n  // left, right\n  \"id\""),
        { "audio/balance:2:3: error: syntax: Missing a name for object member." });
    row("text in Latin-1", changed("climate/temperature-driver", "\xC2\xB0", "\xB0"),
        { "climate/temperature-driver:6:17: error: syntax: Invalid encoding in string." });
    row("two roles in one place after a merge",
        changed("audio/balance", "  \"permission\"", "  \"title\": \"Left\",\n  \"permission\""),
        { "audio/balance:12:3: error: duplicate-key: 'title' is there twice; the last one counts" });
    row("letters swapped in a role", changed("audio/balance", "\"value\"", "\"valeu\""),
        { "audio/balance:5:3: error: unknown-role: unknown role 'valeu'; did you mean 'value'?" });
    row("upper case", changed("audio/balance", "\"title\"", "\"Title\""),
        { "audio/balance:1:1: warning: no-title: has no title",
          "audio/balance:3:3: error: unknown-role: unknown role 'Title'; did you mean 'title'?" });
    row("constraints beside edit",
        changed("audio/balance", "  \"edit\": {\n    \"kind\": \"int\",\n    \"min\": -10,",
                "  \"min\": -10,\n  \"edit\": {\n    \"kind\": \"int\","),
        { "audio/balance:6:3: error: unknown-role: unknown role 'min'; constraints are entries of "
          "'edit'" });
    row("kind instead of value", changed("audio/balance", "\"value\": {\"int\": 0}", "\"int\": 0"),
        { "audio/balance:5:3: error: unknown-role: unknown role 'int'; did you mean \"value\": "
          "{\"int\": ...}?" });
    row("bare value", changed("audio/loudness", "{\"bool\": true}", "true"),
        { "audio/loudness:4:3: error: no-kind: value: true is not a value of a known kind, such as "
          "{\"int\":5}" });
    row("text for a truth value",
        changed("audio/loudness", "{\"bool\": true}", "{\"bool\": \"true\"}"),
        { "audio/loudness:4:3: error: no-kind: value: {\"bool\":\"true\"} is not a value of a known "
          "kind, such as {\"int\":5}" });
    row("number in quotes", changed("audio/balance", "\"max\": 10", "\"max\": \"10\""),
        { "audio/balance:9:5: error: constraint-malformed: 'max': \"10\" is not a number" });
    row("text where true or false belongs",
        changed("vehicle/identification-number", "\"modifiable\": false",
                "\"modifiable\": \"false\""),
        { "vehicle/identification-number:6:3: error: role-type: modifiable: \"false\" is not true or "
          "false" });
    row("double without its fraction",
        changed("audio/equalizer/treble", "{\"double\": 0.0}", "{\"double\": 0}"),
        { "audio/equalizer/treble:4:3: warning: double-without-fraction: value: a double has a "
          "fraction: 0.0" });
    row("default that is not listed",
        changed("audio/sound-stage", "{\"string\": \"all\"}", "{\"string\": \"All\"}"),
        { "audio/sound-stage:4:3: error: default-outside-constraints: value: \"All\": it is not one "
          "of the 'values' ([\"driver\",\"front\",\"rear\",\"all\"])" });
    row("limits exchanged",
        both(changed("audio/balance", "\"min\": -10", "\"min\": 10"),
             changed("audio/balance", "\"max\": 10", "\"max\": -10")),
        { "audio/balance:5:3: error: default-outside-constraints: value: 0: no value fits the "
          "constraints",
          "audio/balance:8:5: error: constraint-unsatisfiable: no value of kind 'int' fits min, max "
          "and step" });
    row("parenthesis forgotten in a pattern",
        changed("connectivity/wifi/country", "^[A-Z]{2}$", "^([A-Z]{2}$"),
        { "connectivity/wifi/country:9:5: error: constraint-malformed: 'pattern': \"^([A-Z]{2}$\" is "
          "not a regular expression: missing closing parenthesis at character 12" });
    row("length instead of maxLength", changed("device-name", "\"maxLength\"", "\"maxLenght\""),
        { "device-name:9:5: error: constraint-unknown: unknown constraint 'maxLenght'; did you mean "
          "'maxLength'?" });
    row("limits of a number for a text", changed("device-name", "\"maxLength\"", "\"max\""),
        { "device-name:9:5: warning: constraint-not-applicable: 'max' does not apply to a value of "
          "kind 'string'" });
    row("step that misses the end",
        changed("audio/startup-volume-limit", "\"step\": 5", "\"step\": 15"),
        { "audio/startup-volume-limit:5:3: error: default-outside-constraints: value: 60: it does "
          "not lie on a 'step' (15)",
          "audio/startup-volume-limit:10:5: warning: constraint-unreachable: 'max' (100) is not a "
          "number of steps from 'min'; the highest value is 95" });
    row("backup of an editor", file("audio/volume~", "{}"),
        { "audio/volume~: error: not-listed: no listing shows this name" });
    row("file with an extension", file("audio/bass.json", "{}"),
        { "audio/bass.json: error: not-listed: no listing shows this name" });
    row("folder without a .meta",
        file("seats/massage", R"({"title": "Massage", "value": {"bool": false}})"),
        { "seats: warning: no-title: has no title, as it has no .meta" });
    row("copied file with its id",
        file("vehicle/eco-mode", R"({"id": "AUD-0101", "title": "Eco", "value": {"bool": false}})"),
        { "vehicle/eco-mode:1:2: error: id-twice: 'AUD-0101' is the id of '/audio/volume', too" });
    row("variant that repeats only the value",
        file("display/brightness_sport", R"({"id": "DSP-0201", "value": {"int": 90}})"),
        { "display/brightness_sport:1:1: warning: variant-lacks-role: lacks what 'brightness' has: "
          "title, description, valueUnit, edit; nothing is taken from there",
          "display/brightness_sport:1:1: warning: no-title: has no title" });
    row("variant without its id", changed("audio/volume_sport", "  \"id\": \"AUD-0101\",\n", ""),
        { "audio/volume_sport:1:1: error: variant-other-id: has no id, but 'volume' has the id "
          "'AUD-0101'" });
    row("variant of a misspelt setting",
        file("audio/volum_sport", R"({"title": "Volume", "value": {"int": 45}})"),
        { "audio/volum_sport: error: variant-without-plain: is the variant for the product 'sport' "
          "of 'volum', which is not there" });
    row("default of a secret for the first tests",
        changed("connectivity/bluetooth/pin", "  \"encrypted\"",
                "  \"value\": {\"string\": \"0000\"},\n  \"encrypted\""),
        { "connectivity/bluetooth/pin:11:3: error: encrypted-with-plain-value: the default of an "
          "encrypted setting is plain text in the image" });
    row("directory that clients can write into",
        changed("climate/.meta", ",\n  \"modifiable\": false", ""),
        { "climate/.meta:1:1: warning: any-kind: nothing tells the kind of settings that clients "
          "make here (\"modifiable\": false forbids them); add a value or 'kind' to 'edit'" });
}

void TstCheck::realisticMistake()
{
    QFETCH(const Arrange, make);
    QFETCH(const QStringList, lines);
    const TemporaryTree tree;
    QCOMPARE(::system(qPrintable(QStringLiteral("cp -r '%1/.' '%2'")
                                     .arg(QStringLiteral(TULO_EXAMPLE_TREE), tree.defaultPath()))),
             0);
    make(tree.defaultPath());

    const ChildResult result = check(tree.defaultPath(), words("."));

    QCOMPARE(QString::fromUtf8(result.standardOutput),
             lines.join(QLatin1Char('\n')) + QLatin1Char('\n'));
    QCOMPARE(result.exitCode, result.standardOutput.contains(": error: ") ? 8 : 0);
}

// ---------------------------------------------------------------------------------------------
// Severities and exceptions.
// ---------------------------------------------------------------------------------------------

void TstCheck::severitiesCanBeSet()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    changed("default/audio/mode", "\"title\": \"Mode\", ", "")(tree.path());

    for (const char* severity : { "info", "warning", "error" }) {
        const ChildResult result =
            check(tree.path(),
                  words("default --rule") << QLatin1String("no-title=") + QLatin1String(severity));
        QCOMPARE(result.standardOutput,
                 QByteArray("default/audio/mode:1:1: ") + severity + ": no-title: has no title\n");
        QCOMPARE(result.exitCode, qstrcmp(severity, "error") == 0 ? 8 : 0);
    }
    // The last one counts.
    const ChildResult result =
        check(tree.path(), words("default --rule no-title=error --rule no-title=off"));
    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.exitCode, 0);
}

void TstCheck::warningsFailInStrictMode()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    changed("default/audio/mode", "\"title\": \"Mode\", ", "\"vendorHint\": 5, ")(tree.path());

    const ChildResult usual = check(tree.path(), words("default"));
    const ChildResult strict = check(tree.path(), words("default --strict"));
    const ChildResult notes = check(tree.path(), words("default --strict --rule no-title=off"));

    QCOMPARE(usual.exitCode, 0);
    QCOMPARE(strict.exitCode, 8);
    QCOMPARE(strict.standardOutput, usual.standardOutput);
    QCOMPARE(strict.standardError, summary("'default'", "0 errors, 1 warning, 1 note"));
    QCOMPARE(notes.exitCode, 0);
}

void TstCheck::exceptionsBesideTheTreeAreUsed()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    writeFile(tree.defaultPath() + QStringLiteral("/audio/x/y"), R"({"value": {"int": 5}})");
    writeFile(tree.defaultPath() + QStringLiteral("/z"), R"({"value": {"int": 5}})");
    writeFile(tree.defaultPath() + QStringLiteral(".exceptions"),
              "# Shown as icons.\n\nno-title\taudio/*  Icons, without a text.\r\n");

    const ChildResult result = check(tree.path(), words("default/"));
    const ChildResult inside = check(tree.defaultPath(), words("."));

    QCOMPARE(result.standardOutput, QByteArray("default/z:1:1: warning: no-title: has no title\n"));
    QCOMPARE(result.standardError,
             summary("'default/'", "0 errors, 1 warning, 0 notes, 2 allowed by exceptions"));
    QCOMPARE(inside.standardOutput, QByteArray("z:1:1: warning: no-title: has no title\n"));
}

void TstCheck::exceptionThatMatchesNothingIsReported()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    writeFile(tree.path() + QStringLiteral("/own"), "no-title audio/mode It has one by now.\n");

    const ChildResult result = check(tree.path(), words("default --exceptions own --strict"));

    QCOMPARE(result.standardOutput,
             QByteArray("own:1:1: warning: exception-unused: no finding of 'no-title' matches "
                        "'audio/mode'\n"));
    QCOMPARE(result.exitCode, 8);
}

void TstCheck::exceptionIsNotUnusedWhereItsRuleDidNotRun()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    writeFile(tree.path() + QStringLiteral("/default.exceptions"),
              "written-orphan * Kept for the next image.\nremoved audio/x Never sold.\n"
              "id-missing * Few have one.\ntext-untranslated * Later.\n");

    const ChildResult result = check(tree.path(), words("default --strict"));

    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.exitCode, 0);
}

void TstCheck::whatStopsTheServiceCannotBeAllowed()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    writeFile(tree.defaultPath() + QStringLiteral("/audio/x"), "{");
    writeFile(tree.path() + QStringLiteral("/default.exceptions"), "syntax * Later.\n");

    const ChildResult result = check(tree.path(), words("default --rule syntax=off"));

    QCOMPARE(result.standardOutput,
             QByteArray("default/audio/x:1:2: error: syntax: Missing a name for object member.\n"));
    QCOMPARE(result.exitCode, 8);
}

// ---------------------------------------------------------------------------------------------
// Products, and an older image.
// ---------------------------------------------------------------------------------------------

void TstCheck::productRestrictsTheVariants()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    // Below "sport" two settings share an id; a setting of another product has no title.
    writeFile(tree.defaultPath() + QStringLiteral("/audio/mode_sport"),
              R"({"title": "Mode", "id": "AUD-1", "value": {"string": "low"},
            "edit": {"values": ["low", "mid"]}})");
    writeFile(tree.defaultPath() + QStringLiteral("/audio/mode_eco"),
              R"({"title": "Mode", "value": {"string": "low"}})");
    const QStringList rules = words("--rule variant-other-id=off");

    const ChildResult all = check(tree.path(), words("default") + rules);
    const ChildResult sport = check(tree.path(), words("default --product sport") + rules);
    const ChildResult eco = check(tree.path(), words("default --product eco") + rules);

    const QByteArray twice =
        "default/audio/volume_sport:2:3: error: id-twice: 'AUD-1' is the id of '/audio/mode', too\n";
    const QByteArray lacks = "default/audio/mode_eco:1:1: warning: variant-lacks-role: lacks what "
                             "'mode' has: edit; nothing is taken from there\n";
    QCOMPARE(all.standardOutput, lacks + twice);
    QCOMPARE(sport.standardOutput, twice);
    QCOMPARE(eco.standardOutput, lacks);
}

void TstCheck::writtenValueThatFitsAProductIsFine()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    changed("default/audio/volume_sport", "100", "200")(tree.path());
    tree.writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":150}})");
    const QStringList trees = words("default --write-path write");

    const ChildResult any = check(tree.path(), trees);
    const ChildResult sport = check(tree.path(), trees + words("--product sport"));
    const ChildResult other = check(tree.path(), trees + words("--product other"));

    QCOMPARE(any.standardOutput, QByteArray());
    QCOMPARE(sport.standardOutput, QByteArray());
    QCOMPARE(other.standardOutput,
             QByteArray("write/audio/volume:1:2: error: written-outside-constraints: 150: it is "
                        "above 'max' (100)\n"));
}

// The rules lie beside the tree, or where an option says.
void TstCheck::migrationCoversADifference()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    putSoundTree(tree.path() + QStringLiteral("/old"));
    changed("default/audio/volume", "100", "80")(tree.path());
    changed("default/audio/volume_sport", "100", "80")(tree.path());
    const QByteArray rules = R"([{"clamp": "/audio/volume"}])";
    writeFile(tree.path() + QStringLiteral("/rules/0001-volume.json"), rules);

    const ChildResult without = check(tree.path(), words("default --against old"));
    const ChildResult named =
        check(tree.path(), words("default --against old --migrations rules --strict"));
    writeFile(tree.path() + QStringLiteral("/settings-migrations/0001-volume.json"), rules);
    const ChildResult found = check(tree.path(), words("default --against old"));
    const ChildResult inside = check(tree.defaultPath(), words(". --against ../old"));
    writeFile(tree.path() + QStringLiteral("/settings-migrations/0001-volume.json"), "{");
    const ChildResult broken = check(tree.path(), words("default --against old"));

    QCOMPARE(without.exitCode, 8);
    const QByteArray covered =
        "default/audio/volume:8:5: info: narrowed: 'max' was 100 and is 80; a migration covers it\n"
        "default/audio/volume_sport:8:5: info: narrowed: 'max' was 100 and is 80 (product 'sport'); "
        "a migration covers it\n";
    QCOMPARE(named.standardOutput, covered);
    QCOMPARE(named.standardError,
             summary("'default' against 'old'", "0 errors, 0 warnings, 2 notes"));
    QCOMPARE(named.exitCode, 0);
    QCOMPARE(found.standardOutput, covered);
    QCOMPARE(inside.standardOutput, QByteArray(covered).replace("default/", ""));
    QVERIFY2(broken.standardError.contains("0001-volume.json:1:2: "), broken.standardError);
    QCOMPARE(broken.exitCode, 2);
}

// Names, keys and contents can hold anything.
void TstCheck::outputHoldsNoControlCharacters()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    putSoundTree(tree.path() + QStringLiteral("/old"));
    writeFile(tree.defaultPath() + QStringLiteral("/audio/\u001b[31m\n\u202e"), "{}");
    writeFile(tree.defaultPath() + QStringLiteral("/audio/mode"),
              R"({"title": "Mode", "\u001b[31m\n": 1, "value": {"string": "\u001b\u202e"},)"
              R"( "edit": {"kind": "string", "maxLength": 1, "\n": 1}, "id": "\u001b]0;x\u0007"})");
    writeFile(tree.defaultPath() + QStringLiteral("/audio/twice"),
              R"({"title": "Twice", "value": {"int": 1}, "id": "\u001b]0;x\u0007"})");

    for (const char* format : { "text", "json" }) {
        const ChildResult result =
            check(tree.path(),
                  words("default --against old --format") + QStringList(QLatin1String(format)));
        // Listed wrong, own role, unknown constraint, too long, one id twice, narrowed, other
        // default.
        QVERIFY2(result.standardOutput.count('\n') >= 7, result.standardOutput);
        const QString shown = QString::fromUtf8(result.standardOutput + result.standardError);
        for (const QChar character : shown)
            QVERIFY2(character == QLatin1Char('\n') || character.isPrint(), format);
        QVERIFY2(!shown.contains(QChar(0x202e)), format);
        QCOMPARE(result.exitCode, 8);
    }
}

void TstCheck::sameImageHasNoDifference()
{
    const QStringList line { QStringLiteral(TULO_EXAMPLE_TREE), QStringLiteral("--against"),
                             QStringLiteral(TULO_EXAMPLE_TREE), QStringLiteral("--strict") };

    const ChildResult result = check(QDir::rootPath(), line);

    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.exitCode, 0);
}

// ---------------------------------------------------------------------------------------------
// Usage and explanations.
// ---------------------------------------------------------------------------------------------

void TstCheck::stampIsWrittenWhereThereAreNoErrors()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    const QString stamp = tree.defaultPath() + QStringLiteral("/.tulo-cm.stamp");
    tree.writeDefault(QStringLiteral("/audio/broken"), QByteArray("{"));

    QCOMPARE(check(tree.path(), words("default --stamp")).exitCode, 8);
    QVERIFY(!QFile::exists(stamp));

    QVERIFY(QFile::remove(tree.defaultPath() + QStringLiteral("/audio/broken")));
    QCOMPARE(check(tree.path(), words("default --stamp")).exitCode, 0);
    QVERIFY(QFile::exists(stamp));
    QCOMPARE(check(tree.path(), words("default")).exitCode, 0);

    // Edited afterwards, and stamped again.
    QVERIFY(QFile::remove(tree.defaultPath() + QStringLiteral("/audio/mode")));
    QVERIFY(check(tree.path(), words("default")).standardOutput.contains("error: stamp-stale: "));
    QCOMPARE(check(tree.path(), words("default --stamp")).exitCode, 0);
    QCOMPARE(check(tree.path(), words("default")).exitCode, 0);
}

void TstCheck::usageErrors_data()
{
    QTest::addColumn<QStringList>("line");
    QTest::addColumn<QByteArray>("error");
    const auto row = [](const char* line, const char* error) {
        QTest::newRow(line) << words(line) << QByteArray(error);
    };
    row("default --rule no-titel=off", "unknown rule 'no-titel'; did you mean 'no-title'?");
    row("default --rule no-title",
        "'--rule' needs a rule and off, info, warning or error, such as "
        "no-title=warning");
    row("default --rule no-title=fatal",
        "'--rule' needs a rule and off, info, warning or error, "
        "such as no-title=warning");
    row("default --format xml", "'--format' needs text or json, not 'xml'");
    row("default --catalogue none.qm", "'none.qm' is not a catalogue, as lrelease makes them");
    row("default --catalogue no-reason", "'no-reason' is not a catalogue, as lrelease makes them");
    row("default --exceptions none", "cannot read 'none': No such file or directory");
    row("default --exceptions unknown-rule",
        "'unknown-rule', line 2: unknown rule 'no-titel'; did you mean 'no-title'?");
    row("default --exceptions no-reason",
        "'no-reason', line 1: an exception has a rule, a file or glob, and a reason");
    row("--explain sintax", "unknown rule 'sintax'; did you mean 'syntax'?");
    row("--explain nothing-like-it", "unknown rule 'nothing-like-it'");
    row("none", "directory 'none' does not exist");
    row("unknown-rule", "'unknown-rule' is not a directory");
    row("default --default-path old", "'--default-path' and 'default' exclude each other");
    row("default --against none", "directory 'none' does not exist");
    row("default --against unknown-rule", "'unknown-rule' is not a directory");
    row("default --migrations none", "directory 'none' does not exist");
    row("--host user@device", "'check' looks at files; run it on 'user@device' itself, by ssh");
    row("default --bus session", "'--bus' and 'default' exclude each other");
}

void TstCheck::usageErrors()
{
    QFETCH(const QStringList, line);
    QFETCH(const QByteArray, error);
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    writeFile(tree.path() + QStringLiteral("/unknown-rule"), "# Reasons\nno-titel * Icons.\n");
    writeFile(tree.path() + QStringLiteral("/no-reason"), "no-title *\n");

    const ChildResult result = check(tree.path(), line);

    QCOMPARE(result.standardError, "tulo-cm: " + error + '\n');
    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.exitCode, 2);
}

void TstCheck::everyRuleIsExplained_data()
{
    QTest::addColumn<QString>("name");
    for (const Rule& rule : allRules())
        QTest::newRow(rule.name) << QString::fromLatin1(rule.name);
}

// Without a tree and without a service.
void TstCheck::everyRuleIsExplained()
{
    QFETCH(const QString, name);
    const Rule& rule = *findRule(name);

    const ChildResult result = check(QDir::rootPath(), { QStringLiteral("--explain"), name });

    QCOMPARE(result.standardOutput,
             name.toUtf8() + " (" + severityName(rule.severity).toUtf8() + "): " + rule.sentence
                 + "\nWhy:     " + rule.why + "\nExample: " + rule.example
                 + "\nRemedy:  " + rule.remedy + '\n');
    QCOMPARE(result.exitCode, 0);
}

void TstCheck::explanationAsJson()
{
    const ChildResult result = check(QDir::rootPath(), words("--explain no-kind --json"));

    QCOMPARE(
        result.standardOutput,
        QByteArray(R"({"example":"{\"value\": 5}","group":"value","remedy":"Write the value as an )"
                   R"(object with one entry: bool, int, double, string or list.","rule":"no-kind",)"
                   R"("sentence":"A value does not name its kind, or its content is not of that )"
                   R"(kind.","severity":"error","why":"The setting has no value that clients can )"
                   R"(use."})"
                   "\n"));
    QCOMPARE(result.exitCode, 0);
}

// ---------------------------------------------------------------------------------------------
// Where the trees are.
// ---------------------------------------------------------------------------------------------

void TstCheck::treeCanBeNamedInSeveralWays()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    changed("default/audio/mode", "\"title\": \"Mode\", ", "")(tree.path());
    const QByteArray finding = "audio/mode:1:1: warning: no-title: has no title\n";

    QCOMPARE(check(tree.path(), words("default")).standardOutput, "default/" + finding);
    QCOMPARE(check(tree.path(), words("default/")).standardOutput, "default/" + finding);
    QCOMPARE(check(tree.path(), words("./default")).standardOutput, "default/" + finding);
    QCOMPARE(check(tree.path(), words("--default-path default")).standardOutput,
             "default/" + finding);
    QCOMPARE(check(tree.path(), words("--default-path default --write-path write")).standardOutput,
             "default/" + finding);
    QCOMPARE(check(tree.defaultPath(), words(".")).standardOutput, finding);
    QCOMPARE(check(QDir::rootPath(), QStringList(tree.defaultPath())).standardOutput,
             tree.defaultPath().toUtf8() + '/' + finding);
}

void TstCheck::allFindingsInListingOrder()
{
    const TemporaryTree tree;
    for (const char* name : { "/b", "/a/z", "/a/Y" })
        tree.writeDefault(QString::fromLatin1(name), QByteArray("1"));

    const ChildResult result = check(tree.path(), words("default --rule no-title=off"));

    const QByteArray message = ":1:1: error: no-object: holds int instead of an object\n";
    QCOMPARE(result.standardOutput,
             "default/a/Y" + message + "default/a/z" + message + "default/b" + message);
}

void TstCheck::hiddenDirectoryIsNotEntered()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/.meta"), R"({"title":"Settings"})");
    tree.writeDefault(QStringLiteral("/.hidden/x"), QByteArray("broken"));

    QCOMPARE(check(tree.path(), words("default")).standardOutput,
             QByteArray("default/.hidden: error: not-listed: no listing shows this name\n"));
}

void TstCheck::linksAreFollowedOnce()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    QVERIFY(QFile::link(tree.defaultPath(), tree.defaultPath() + QStringLiteral("/audio/loop")));

    QCOMPARE(check(tree.path(), words("default")).standardOutput,
             QByteArray("default/audio/loop: error: link: is a link to a directory that it lies "
                        "in\n"));
}

void TstCheck::writableTreeIsChecked()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    tree.writeDefault(QStringLiteral("/audio/x"), QByteArray("{"));
    tree.writeWritten(QStringLiteral("/audio/volume"), QByteArray("{\"val"));
    QCOMPARE(::mkfifo((QFile::encodeName(tree.writePath()) + "/audio/mode").constData(), 0644), 0);

    const ChildResult result = check(tree.path(), words("default --write-path write"));

    QCOMPARE(result.standardOutput,
             QByteArray("default/audio/x:1:2: error: syntax: Missing a name for object member.\n"
                        "write/audio/mode: error: special-file: is neither a regular file nor a "
                        "directory\n"
                        "write/audio/volume:1:6: error: written-unparsable: Missing a closing "
                        "quotation mark in string.\n"));
    QCOMPARE(result.standardError,
             summary("'default' and 'write'", "3 errors, 0 warnings, 0 notes"));
    QCOMPARE(result.exitCode, 8);
}

void TstCheck::shellChecksItsOwnTrees()
{
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    putSoundTree(tree.path() + QStringLiteral("/other"));
    writeFile(tree.path() + QStringLiteral("/other/z"), R"({"value": {"int": 5}})");
    tree.writeWritten(QStringLiteral("/audio/volume"), QByteArray("5"));

    const ChildResult result = ChildProcess::run(
        QStringLiteral(TULO_CM_PROGRAM),
        { QStringLiteral("--default-path"), tree.defaultPath(), QStringLiteral("--write-path"),
          tree.writePath(), QStringLiteral("shell") },
        "check\ncheck '" + tree.path().toUtf8() + "/other'\n");

    QCOMPARE(result.standardOutput,
             tree.writePath().toUtf8()
                 + "/audio/volume:1:1: error: written-unparsable: holds int instead of an object\n"
                 + tree.path().toUtf8() + "/other/z:1:1: warning: no-title: has no title\n");
    QCOMPARE(result.exitCode, 8);
}

void TstCheck::unreadableDirectoryIsAnError_data()
{
    QTest::addColumn<bool>("isWritableTree");
    QTest::newRow("default tree") << false;
    QTest::newRow("writable tree") << true;
}

void TstCheck::unreadableDirectoryIsAnError()
{
    QFETCH(const bool, isWritableTree);
    const TemporaryTree tree;
    putSoundTree(tree.defaultPath());
    const QString closed = isWritableTree ? tree.writePath() : tree.defaultPath();
    QCOMPARE(::chmod(QFile::encodeName(closed).constData(), 0000), 0);

    const ChildResult result =
        check(tree.path(), { tree.defaultPath(), QStringLiteral("--write-path"), tree.writePath() },
              true);

    QCOMPARE(::chmod(QFile::encodeName(closed).constData(), 0755), 0);
    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.standardError, "tulo-cm: directory '" + closed.toUtf8() + "' cannot be read\n");
    QCOMPARE(result.exitCode, 7);
}

QTEST_GUILESS_MAIN(TstCheck)
#include "tst_check.moc"
