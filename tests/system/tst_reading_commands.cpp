#include "tests/system/commandline.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

namespace {

QByteArray joined(const QVector<QByteArray>& lines)
{
    QByteArray text;
    for (const QByteArray& line : lines)
        text += line + '\n';
    return text;
}

// Without blanks at the ends of lines, and runs of them as one: columns depend on the tree's path.
QByteArray simplified(const ChildResult& result, const CommandLine& trees)
{
    QByteArray text = result.standardOutput;
    text.replace(trees.tree.path().toUtf8(), "TREE");
    QByteArray simple;
    for (const QByteArray& line : text.split('\n'))
        simple += line.simplified() + '\n';
    return simple.trimmed();
}

QJsonObject objectOf(const QByteArray& line)
{
    return QJsonDocument::fromJson(line).object();
}

} // namespace

/// What people use to see into a tree: explain, describe, find and diff.
class TstReadingCommands : public QObject
{
    Q_OBJECT

private slots:
    void explainNamesLayerAndPlace();
    void explainOfADirectory();
    void explainAsJson();
    void explainShowsTextsInTheLanguage();
    void explainTellsOfADamagedWrittenFile();
    void explainOfNothing();

    void describeSaysWhatASettingIs_data();
    void describeSaysWhatASettingIs();
    void describeAsJson();
    void describeKeepsSecrets();
    void describeOfNothing();
    void manualHasASectionForEachNode();
    void manualEscapesMarkdown();
    void manualLeavesVariantsOfOtherProductsOut();
    void manualIsNotJson();
    void manualOfTheExampleTree();

    void findSearches_data();
    void findSearches();
    void findAsJson();
    void findKeepsSecrets();
    void findRejects_data();
    void findRejects();
    void findEndsACostlyPattern();

    void diffPrintsWhatIsChanged();
    void diffOfASubtree();
    void diffAsJson();
    void diffKeepsSecrets();
    void diffOfNothing();
    void diffOfTrees();
    void diffOfTreesAsJson();
    void diffOfTreesForAProduct();
    void diffOfTreesKeepsSecrets();
    void diffOfTreesReportsDamage();
    void diffOfTreesRejects_data();
    void diffOfTreesRejects();

    void controlCharactersAreEscaped_data();
    void controlCharactersAreEscaped();
};

// ---------------------------------------------------------------------------------------------
// explain.
// ---------------------------------------------------------------------------------------------

void TstReadingCommands::explainNamesLayerAndPlace()
{
    const CommandLine trees;
    trees.tree.writeDefault(QStringLiteral("/loose"), "{\n\"value\": {\"int\": 1}\n}");
    trees.tree.writeWritten(QStringLiteral("/loose"), R"({"value":{"int":2},"title":"No"})");

    const ChildResult result = trees.run("explain /settings/loose");

    QCOMPARE(simplified(result, trees),
             joined({
                        "role layer place value",
                        "value written TREE/write/loose:1 2",
                        "defaultValue default TREE/default/loose:2 1",
                        "title builtIn - loose",
                        "type builtIn - 101",
                        "path builtIn - /settings/loose",
                        "",
                        "role layer place without effect value",
                        "title written TREE/write/loose:1 ignored: a written file cannot change "
                        "this role No",
                        "value default TREE/default/loose:2 hidden: the written file has one 1",
                        "title template TREE/default/.meta:1 hidden: a template is for settings "
                        "without a default file Settings",
                        "modifiable template TREE/default/.meta:1 hidden: a template is for "
                        "settings without a default file false",
                    })
                 .trimmed());
    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.exitCode, 0);
}

void TstReadingCommands::explainOfADirectory()
{
    const CommandLine trees;

    const ChildResult result = trees.run("explain /settings/audio/");

    QCOMPARE(simplified(result, trees),
             joined({ "role layer place value", "title default TREE/default/audio/.meta:1 Audio",
                      "type builtIn - 1", "path builtIn - /settings/audio",
                      "modifiable default TREE/default/audio/.meta:1 false" })
                 .trimmed());
}

void TstReadingCommands::explainAsJson()
{
    const CommandLine trees;
    trees.tree.writeDefault(QStringLiteral("/audio/volume_sport"),
                            R"({"value":{"int":45},"odd":[1]})");

    const ChildResult result = trees.run("--product sport --json explain /settings/audio/volume");

    const QJsonObject object = objectOf(result.standardOutput);
    QCOMPARE(object.value(QStringLiteral("path")).toString(),
             QStringLiteral("/settings/audio/volume"));
    const QJsonArray origins = object.value(QStringLiteral("origins")).toArray();
    const QJsonObject value {
        { QStringLiteral("role"), QStringLiteral("value") },
        { QStringLiteral("state"), QStringLiteral("effective") },
        { QStringLiteral("layer"), QStringLiteral("product") },
        { QStringLiteral("value"), QJsonObject { { QStringLiteral("int"), 45 } } },
        { QStringLiteral("file"),
          QString(trees.tree.defaultPath() + QStringLiteral("/audio/volume_sport")) },
        { QStringLiteral("line"), 1 },
        { QStringLiteral("column"), 2 }
    };
    QCOMPARE(origins.first().toObject(), value);
    QStringList hidden;
    for (const QJsonValue& origin : origins) {
        const QJsonObject entry = origin.toObject();
        if (entry.value(QStringLiteral("state")).toString() == QLatin1String("hidden")
            && entry.value(QStringLiteral("layer")).toString() == QLatin1String("default"))
            hidden.append(entry.value(QStringLiteral("role")).toString());
    }
    QCOMPARE(hidden,
             QStringList({ QStringLiteral("value"), QStringLiteral("title"),
                           QStringLiteral("valueUnit"), QStringLiteral("edit") }));
    QCOMPARE(result.exitCode, 0);
}

void TstReadingCommands::explainShowsTextsInTheLanguage()
{
    const QTemporaryDir written;
    const QStringList arguments {
        QStringLiteral("--default-path"), QStringLiteral(TULO_EXAMPLE_TREE),
        QStringLiteral("--write-path"),   written.path(),
        QStringLiteral("--language"),     QStringLiteral("de"),
        QStringLiteral("--catalogues"),   QStringLiteral(TULO_CATALOGUES),
        QStringLiteral("explain"),        QStringLiteral("/settings/audio/volume")
    };

    const ChildResult result = ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM), arguments);

    QCOMPARE(result.exitCode, 0);
    const QRegularExpression title(
        QStringLiteral(u"title +default +[^ ]*volume:3 +Lautst\u00e4rke\n"));
    QVERIFY(QString::fromUtf8(result.standardOutput).contains(title));
    QVERIFY(!result.standardOutput.contains("cached"));
}

void TstReadingCommands::explainTellsOfADamagedWrittenFile()
{
    const CommandLine trees;
    trees.tree.writeWritten(QStringLiteral("/token"), "{\n \"value\": }");

    const ChildResult result = trees.run("--log-level off explain /settings/token");

    QVERIFY2(simplified(result, trees)
                 .contains("- written TREE/write/token:2 ignored: is not JSON: Invalid value."),
             result.standardOutput.constData());
    QCOMPARE(result.exitCode, 0);
}

void TstReadingCommands::explainOfNothing()
{
    const CommandLine trees;

    const ChildResult result = trees.run("explain /settings/nothing");

    QCOMPARE(result.standardError, QByteArray("tulo-cm: Invalid path '/settings/nothing'\n"));
    QCOMPARE(result.exitCode, 3);
    QCOMPARE(trees.run("explain").exitCode, 2);
}

// ---------------------------------------------------------------------------------------------
// describe.
// ---------------------------------------------------------------------------------------------

void TstReadingCommands::describeSaysWhatASettingIs_data()
{
    QTest::addColumn<QByteArray>("roles");
    QTest::addColumn<QByteArray>("values");
    const auto row = [](const char* name, const char* roles, const char* values) {
        QTest::newRow(name) << QByteArray(roles) << QByteArray(values);
    };
    row("anything", R"({"title":"one"})", "any value");
    row("truth value", R"({"value":{"bool":true}})", "true or false");
    row("range", R"({"value":{"int":5},"edit":{"min":0,"max":100,"step":5}})",
        "a whole number from 0 to 100 in steps of 5");
    row("lower end", R"({"value":{"double":5},"edit":{"min":0.5}})", "a number of at least 0.5");
    row("upper end", R"({"value":{"int":5},"edit":{"max":9}})", "a whole number of at most 9");
    row("double by its limit", R"({"value":{"int":5},"edit":{"max":9.5}})",
        "a number of at most 9.5");
    row("kind alone", R"({"edit":{"kind":"int"}})", "a whole number");
    row("listed values", R"({"edit":{"values":["low","mid",3]}})", "one of low, mid, 3");
    row("length", R"({"edit":{"kind":"string","minLength":4,"maxLength":8}})",
        "a text of 4 to 8 characters");
    row("one length", R"({"edit":{"kind":"string","minLength":1,"maxLength":1}})",
        "a text of 1 character");
    row("least length", R"({"edit":{"kind":"string","minLength":2}})",
        "a text of at least 2 characters");
    row("pattern", R"({"value":{"string":"a"},"edit":{"pattern":"[a-z]+"}})",
        "a text that matches the pattern [a-z]+");
    row("list", R"({"value":{"list":[]},"edit":{"maxLength":3,"elements":{"kind":"int","min":1}}})",
        "a list of at most 3 elements, each a whole number of at least 1");
    row("constraints that cannot be understood", R"({"value":{"int":5},"edit":5})",
        "no value: its constraints cannot be understood");
}

void TstReadingCommands::describeSaysWhatASettingIs()
{
    QFETCH(const QByteArray, roles);
    QFETCH(const QByteArray, values);
    const CommandLine trees;
    trees.tree.writeDefault(QStringLiteral("/one"), roles);

    const ChildResult result = trees.run("describe /settings/one");

    QVERIFY2(simplified(result, trees).startsWith("one\npath /settings/one\nvalues " + values),
             result.standardOutput.constData());
    QCOMPARE(result.exitCode, 0);
}

void TstReadingCommands::describeAsJson()
{
    const CommandLine trees;

    const ChildResult setting = trees.run("--json describe /settings/audio/volume");
    const ChildResult directory = trees.run("--json describe");

    const QJsonObject object = objectOf(setting.standardOutput);
    QCOMPARE(object.value(QStringLiteral("values")).toString(),
             QStringLiteral("a whole number from 0 to 100 in steps of 5"));
    const QJsonObject roles = object.value(QStringLiteral("roles")).toObject();
    QCOMPARE(roles.value(QStringLiteral("title")).toString(), QStringLiteral("Volume"));
    const QJsonObject defaultValue { { QStringLiteral("int"), 35 } };
    QCOMPARE(roles.value(QStringLiteral("defaultValue")).toObject(), defaultValue);
    QVERIFY(!roles.contains(QStringLiteral("value")));
    QCOMPARE(objectOf(directory.standardOutput).value(QStringLiteral("path")).toString(),
             QStringLiteral("/settings"));
}

void TstReadingCommands::describeKeepsSecrets()
{
    const CommandLine trees;
    trees.tree.writeDefault(QStringLiteral("/pin"),
                            R"({"encrypted":true,"disabled":true,"value":{"string":"1234"}})");
    trees.tree.writeWritten(QStringLiteral("/pin"), R"({"value":{"string":"5678"}})");

    for (const char* line :
         { "describe /settings/pin", "--json describe /settings/pin", "describe --markdown" }) {
        const ChildResult result = trees.run(line);
        QVERIFY(result.standardOutput.contains("ncrypted"));
        QVERIFY2(!result.standardOutput.contains("1234") && !result.standardOutput.contains("5678"),
                 line);
    }
    QVERIFY(simplified(trees.run("describe /settings/pin"), trees)
                .contains("disabled shown, but without effect\nencrypted kept encrypted"));
}

void TstReadingCommands::describeOfNothing()
{
    const CommandLine trees;

    QCOMPARE(trees.run("describe /settings/nothing").exitCode, 3);
    QCOMPARE(trees.run("describe --markdown /settings/nothing").exitCode, 3);
}

void TstReadingCommands::manualHasASectionForEachNode()
{
    const CommandLine trees;
    trees.tree.writeDefault(
        QStringLiteral("/audio/volume"),
        R"({"title":"Volume","description":"How loud.","longDescription":"One.\n\nTwo.",)"
        R"("id":"A-1","value":{"int":35},"valueUnit":"%","edit":{"min":0,"max":100}})");

    const ChildResult result = trees.run("describe --markdown /settings/audio");

    const QByteArray text = result.standardOutput;
    QVERIFY2(text.startsWith("# Audio\n\n`/settings/audio`\n\n- New settings: cannot be made "
                             "here\n\n## gain\n\n`/settings/audio/gain`\n\n"),
             text.constData());
    QVERIFY2(text.contains("## Volume\n\n`/settings/audio/volume`\n\nHow loud.\n\nOne.\n\nTwo.\n\n"
                           "- Values: a whole number from 0 to 100\n- Unit: %\n- Default: 35 %\n- "
                           "Id: A-1\n\n"),
             text.constData());
    QCOMPARE(text.count("\n`/settings/"), 6);
    QCOMPARE(result.exitCode, 0);
}

void TstReadingCommands::manualEscapesMarkdown()
{
    const CommandLine trees;
    trees.tree.writeDefault(
        QStringLiteral("/odd"),
        R"({"title":"a_b *c* <i>","description":"1. no list\n- nor here\n[x](y) `z` 50%"})");

    const QByteArray text = trees.run("describe --markdown /settings/odd").standardOutput;

    QCOMPARE(text,
             QByteArray("# a\\_b \\*c\\* \\<i\\>\n\n`/settings/odd`\n\n1\\. no list\n\n\\- nor "
                        "here\n\n\\[x\\](y) \\`z\\` 50%\n\n- Values: any value\n\n"));
}

void TstReadingCommands::manualLeavesVariantsOfOtherProductsOut()
{
    const CommandLine trees;
    const auto write = [&trees](const char* path, const char* roles) {
        trees.tree.writeDefault(QString::fromLatin1(path), QByteArray(roles));
    };
    write("/a/x", R"({"id":"1"})");
    write("/a/x_sport", R"({"id":"1"})");
    write("/a/y", R"({"title":"Y"})");
    write("/a/y_sport_plus", R"({"title":"Y"})");
    // Only named like one.
    write("/a/x_max", R"({"id":"2"})");
    write("/a/y_max", R"({"title":"Largest y"})");

    const QByteArray text = trees.run("describe --markdown /settings/a").standardOutput;

    QVERIFY(!text.contains("_sport"));
    QVERIFY(text.contains("x_max") && text.contains("y_max"));
}

void TstReadingCommands::manualIsNotJson()
{
    const CommandLine trees;

    const ChildResult result = trees.run("--json describe --markdown");

    QCOMPARE(result.exitCode, 2);
    QVERIFY(result.standardOutput.isEmpty());
}

void TstReadingCommands::manualOfTheExampleTree()
{
    const QTemporaryDir written;
    const QStringList arguments {
        QStringLiteral("--default-path"), QStringLiteral(TULO_EXAMPLE_TREE),
        QStringLiteral("--write-path"),   written.path(),
        QStringLiteral("describe"),       QStringLiteral("--markdown")
    };

    const ChildResult result = ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM), arguments);

    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.exitCode, 0);
    QVERIFY(result.standardOutput.count("\n`/settings/") > 80);
    QVERIFY(!result.standardOutput.contains("_sport`"));
}

// ---------------------------------------------------------------------------------------------
// find.
// ---------------------------------------------------------------------------------------------

void TstReadingCommands::findSearches_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::addColumn<QByteArray>("output");
    const auto row = [](const char* name, const QStringList& words,
                        const QVector<QByteArray>& lines) {
        QTest::newRow(name) << words << joined(lines).trimmed();
    };
    const QString in = QStringLiteral("--in");
    row("in any case", { QStringLiteral("VOLUME") }, { "/settings/audio/volume 40 Volume" });
    row("a part", { QStringLiteral("oudn") },
        { "/settings/audio/loudness true Loudness", "/settings/audio/volume 40 Volume" });
    row("description", { QStringLiteral("loudness"), in, QStringLiteral("description") },
        { "/settings/audio/volume 40 Volume" });
    row("title", { QStringLiteral("loudness"), in, QStringLiteral("title") },
        { "/settings/audio/loudness true Loudness" });
    row("directory", { QStringLiteral("audio"), in, QStringLiteral("title,description") },
        { "/settings/audio/ Audio" });
    row("changed", { QStringLiteral("audio"), QStringLiteral("--changed") },
        { "/settings/audio/volume 40 Volume" });
    row("pattern", { QStringLiteral("/^(?i)v.*e$/"), in, QStringLiteral("title") },
        { "/settings/audio/volume 40 Volume" });
    row("pattern with its case", { QStringLiteral("/^v/"), in, QStringLiteral("title") }, {});
    row("letters of a pattern", { QStringLiteral("/l\\w+rm/") }, { "/settings/l\xc3\xa4rm - x" });
    row("slash", { QStringLiteral("audio/vol") }, { "/settings/audio/volume 40 Volume" });
    row("one slash", { QStringLiteral("/vol") }, { "/settings/audio/volume 40 Volume" });
    row("nothing", { QStringLiteral("nothing") }, {});
    row("special in a text", { QStringLiteral("(") }, {});
}

void TstReadingCommands::findSearches()
{
    QFETCH(const QStringList, words);
    QFETCH(const QByteArray, output);
    const CommandLine trees;
    trees.tree.writeDefault(QStringLiteral("/audio/volume"),
                            R"({"title":"Volume","longDescription":"The loudness of all.",)"
                            R"("value":{"int":35}})");
    trees.tree.writeDefault(QStringLiteral(u"/l\u00e4rm"), R"({"title":"x"})");
    trees.tree.writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":40}})");
    trees.tree.writeWritten(QStringLiteral("/audio/loudness"), R"({"value":{"bool":true}})");

    const ChildResult result = trees.run(QStringList(QStringLiteral("find")) + words);

    QCOMPARE(simplified(result, trees), output);
    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.exitCode, 0);
}

void TstReadingCommands::findAsJson()
{
    const CommandLine trees;

    const ChildResult result = trees.run("--json find volume");

    QCOMPARE(result.standardOutput,
             QByteArray(R"({"path":"/settings/audio/volume","roles":{"title":"Volume","type":101,)"
                        R"("value":{"int":35}}})"
                        "\n"));
}

void TstReadingCommands::findKeepsSecrets()
{
    const CommandLine trees;
    trees.tree.writeDefault(QStringLiteral("/pin"),
                            R"({"encrypted":true,"value":{"string":"1234"}})");
    trees.tree.writeWritten(QStringLiteral("/pin"), R"({"value":{"string":"5678"}})");

    QCOMPARE(simplified(trees.run("find pin --changed"), trees),
             QByteArray("/settings/pin (encrypted) pin"));
    QCOMPARE(trees.run("--json find pin").standardOutput,
             QByteArray(R"({"path":"/settings/pin","roles":{"encrypted":true,"title":"pin",)"
                        R"("type":101}})"
                        "\n"));
}

void TstReadingCommands::findRejects_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::addColumn<QByteArray>("error");
    const auto row = [](const char* name, const QStringList& words, const char* error) {
        QTest::newRow(name) << words << QByteArray("tulo-cm: ") + error + '\n';
    };
    row("broken pattern", { QStringLiteral("/a(b/") },
        "'a(b' is not a regular expression: missing closing parenthesis at character 4");
    row("empty text", { QString() }, "nothing to search for");
    row("unknown place", { QStringLiteral("x"), QStringLiteral("--in"), QStringLiteral("value") },
        "'--in' takes some of path,title,description, not 'value'");
    row("long pattern", { QLatin1Char('/') + QString(1001, QLatin1Char('a')) + QLatin1Char('/') },
        "a pattern has at most 1000 characters");
}

void TstReadingCommands::findRejects()
{
    QFETCH(const QStringList, words);
    QFETCH(const QByteArray, error);
    const CommandLine trees;

    const ChildResult result = trees.run(QStringList(QStringLiteral("find")) + words);

    QCOMPARE(result.standardError, error);
    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.exitCode, 2);
}

void TstReadingCommands::findEndsACostlyPattern()
{
    const CommandLine trees;
    const QByteArray text(60, 'a');
    trees.tree.writeDefault(QStringLiteral("/slow"), "{\"title\":\"" + text + "!\"}");

    const ChildResult result = trees.run("find /^(a+)+$/");

    QCOMPARE(result.standardError,
             QByteArray("tulo-cm: the pattern takes too many steps; repeat less inside of "
                        "repetitions\n"));
    QCOMPARE(result.exitCode, 2);
}

// ---------------------------------------------------------------------------------------------
// diff.
// ---------------------------------------------------------------------------------------------

void TstReadingCommands::diffPrintsWhatIsChanged()
{
    const CommandLine trees;
    trees.tree.writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":40}})");
    trees.tree.writeWritten(QStringLiteral("/audio/mode"), R"({"value":{"string":"mid"}})");
    trees.tree.writeWritten(QStringLiteral("/presets/two"), R"({"value":{"string":"fm:99"}})");
    trees.tree.writeWritten(QStringLiteral("/token"), R"({"value":{"bool":true}})");

    const ChildResult result = trees.run("diff");

    QCOMPARE(result.standardOutput,
             QByteArray("/settings/audio/volume: 35 -> 40\n"
                        "/settings/presets/two: fm:87.5 -> fm:99\n"
                        "/settings/token: - -> true\n"));
    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.exitCode, 0);
}

void TstReadingCommands::diffOfASubtree()
{
    const CommandLine trees;
    trees.tree.writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":40}})");
    trees.tree.writeWritten(QStringLiteral("/token"), R"({"value":{"bool":true}})");
    const QByteArray line = "/settings/audio/volume: 35 -> 40\n";

    QCOMPARE(trees.run("diff /settings/audio").standardOutput, line);
    QCOMPARE(trees.run("diff settings/audio/").standardOutput, line);
    QCOMPARE(trees.run("diff /settings/audio/volume").standardOutput, line);
    QCOMPARE(trees.run("diff /settings/audio/mode").standardOutput, QByteArray());
}

void TstReadingCommands::diffAsJson()
{
    const CommandLine trees;
    trees.tree.writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":40}})");

    QCOMPARE(trees.run("--json diff").standardOutput,
             QByteArray(R"({"defaultValue":{"int":35},"path":"/settings/audio/volume",)"
                        R"("value":{"int":40}})"
                        "\n"));
}

void TstReadingCommands::diffKeepsSecrets()
{
    const CommandLine trees;
    trees.tree.writeDefault(QStringLiteral("/pin"),
                            R"({"encrypted":true,"value":{"string":"1234"}})");
    trees.tree.writeWritten(QStringLiteral("/pin"), R"({"value":{"string":"5678"}})");

    QCOMPARE(trees.run("diff").standardOutput, QByteArray("/settings/pin: changed (encrypted)\n"));
    QCOMPARE(trees.run("--json diff").standardOutput,
             QByteArray("{\"encrypted\":true,\"path\":\"/settings/pin\"}\n"));
}

void TstReadingCommands::diffOfNothing()
{
    const CommandLine trees;

    QCOMPARE(trees.run("diff /settings/nothing").exitCode, 3);
}

void TstReadingCommands::diffOfTrees()
{
    const CommandLine older;
    const CommandLine newer;
    older.tree.writeDefault(QStringLiteral("/old"), R"({"id":"1","value":{"int":1}})");
    newer.tree.writeDefault(QStringLiteral("/new"), R"({"id":"1","value":{"int":2}})");
    newer.tree.writeDefault(QStringLiteral("/more/one"), R"({"value":{"string":"x"}})");
    newer.tree.writeDefault(QStringLiteral("/audio/mode"),
                            R"({"value":{"string":"mid"},"edit":{"values":["mid"]}})");
    newer.tree.writeDefault(QStringLiteral("/audio/.meta"), R"({"title":"Audio"})");
    QVERIFY(QFile::remove(newer.tree.defaultPath() + QStringLiteral("/serial")));

    // The options that name settings do not matter.
    const ChildResult result =
        ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM),
                          { QStringLiteral("diff"), QStringLiteral("--tree"),
                            older.tree.defaultPath(), newer.tree.defaultPath() });

    QCOMPARE(result.standardOutput,
             QByteArray("/settings/audio/: modifiable false -> -\n"
                        "/settings/audio/mode: edit {\"values\":[\"low\",\"mid\",\"high\"]} -> "
                        "{\"values\":[\"mid\"]}\n"
                        "/settings/more/: added\n"
                        "/settings/more/one: added, default x\n"
                        "/settings/new: moved from /settings/old\n"
                        "/settings/new: default 1 -> 2\n"
                        "/settings/serial: removed\n"));
    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.exitCode, 0);
}

void TstReadingCommands::diffOfTreesAsJson()
{
    const CommandLine older;
    const CommandLine newer;
    older.tree.writeDefault(QStringLiteral("/old"), R"({"id":"1","value":{"int":1}})");
    newer.tree.writeDefault(QStringLiteral("/new"),
                            R"({"id":"1","value":{"int":2},"title":"New"})");
    newer.tree.writeDefault(QStringLiteral("/one"), "{}");

    const ChildResult result = ChildProcess::run(
        QStringLiteral(TULO_CM_PROGRAM),
        { QStringLiteral("--json"), QStringLiteral("diff"), QStringLiteral("--tree"),
          older.tree.defaultPath(), newer.tree.defaultPath() });

    QCOMPARE(
        result.standardOutput,
        joined({
            R"({"change":"moved","directory":false,"from":"/settings/old","path":"/settings/new"})",
            R"({"change":"changed","directory":false,"new":{"int":2},"old":{"int":1},"path":"/settings/new","role":"defaultValue"})",
            R"({"change":"changed","directory":false,"new":"New","path":"/settings/new","role":"title"})",
            R"({"change":"added","directory":false,"path":"/settings/one"})",
        }));
}

void TstReadingCommands::diffOfTreesForAProduct()
{
    const CommandLine older;
    const CommandLine newer;
    older.tree.writeDefault(QStringLiteral("/token_sport"), R"({"value":{"int":1}})");
    newer.tree.writeDefault(QStringLiteral("/token_sport"), R"({"value":{"int":2}})");
    const QStringList words { QStringLiteral("diff"), QStringLiteral("--tree"),
                              older.tree.defaultPath(), newer.tree.defaultPath() };

    const ChildResult plain = ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM), words);
    const ChildResult sport = ChildProcess::run(
        QStringLiteral(TULO_CM_PROGRAM),
        QStringList { QStringLiteral("--product"), QStringLiteral("sport") } + words);

    QCOMPARE(plain.standardOutput, QByteArray("/settings/token_sport: default 1 -> 2\n"));
    QCOMPARE(sport.standardOutput, QByteArray("/settings/token: default 1 -> 2\n"));
}

void TstReadingCommands::diffOfTreesKeepsSecrets()
{
    const CommandLine older;
    const CommandLine newer;
    older.tree.writeDefault(QStringLiteral("/pin"),
                            R"({"encrypted":true,"value":{"string":"1234"}})");
    newer.tree.writeDefault(QStringLiteral("/pin"),
                            R"({"encrypted":true,"value":{"string":"5678"}})");

    const ChildResult result =
        ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM),
                          { QStringLiteral("diff"), QStringLiteral("--tree"),
                            older.tree.defaultPath(), newer.tree.defaultPath() });

    QCOMPARE(result.standardOutput, QByteArray("/settings/pin: default changed (encrypted)\n"));
}

void TstReadingCommands::diffOfTreesReportsDamage()
{
    const CommandLine older;
    const CommandLine newer;
    newer.tree.writeDefault(QStringLiteral("/token"), "{\n,");

    const ChildResult result =
        ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM),
                          { QStringLiteral("diff"), QStringLiteral("--tree"),
                            older.tree.defaultPath(), newer.tree.defaultPath() });

    QCOMPARE(result.standardError,
             QStringLiteral("tulo-cm: %1/token:2:1 is not JSON: Missing a name for object "
                            "member.\n")
                 .arg(newer.tree.defaultPath())
                 .toUtf8());
    QCOMPARE(result.exitCode, 1);
}

void TstReadingCommands::diffOfTreesRejects_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::addColumn<QByteArray>("error");
    const QString tree = QStringLiteral("--tree");
    const QString there = QStringLiteral(TULO_EXAMPLE_TREE);
    const QString nothing = QStringLiteral("/nothing/here");
    QTest::newRow("no newer tree")
        << QStringList { tree, there } << QByteArray("'--tree OLD' needs the newer tree");
    QTest::newRow("no older tree") << QStringList { tree, nothing, there }
                                   << QByteArray("directory '/nothing/here' does not exist");
    QTest::newRow("newer tree that is not there")
        << QStringList { tree, there, nothing }
        << QByteArray("directory '/nothing/here' does not exist");
    QTest::newRow("a file") << QStringList { tree, there, there + QStringLiteral("/device-name") }
                            << QByteArray("'" TULO_EXAMPLE_TREE "/device-name' is not a directory");
}

void TstReadingCommands::diffOfTreesRejects()
{
    QFETCH(const QStringList, words);
    QFETCH(const QByteArray, error);

    const ChildResult result = ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM),
                                                 QStringList(QStringLiteral("diff")) + words);

    QCOMPARE(result.standardError, "tulo-cm: " + error + '\n');
    QCOMPARE(result.exitCode, 2);
}

// ---------------------------------------------------------------------------------------------
// All of them.
// ---------------------------------------------------------------------------------------------

void TstReadingCommands::controlCharactersAreEscaped_data()
{
    QTest::addColumn<QString>("line");
    for (const char* line :
         { "explain /settings/odd", "describe /settings/odd", "describe --markdown /settings/odd",
           "find odd", "diff", "--json explain /settings/odd", "--json describe /settings/odd",
           "--json find odd", "--json diff" })
        QTest::newRow(line) << QString::fromLatin1(line);
}

void TstReadingCommands::controlCharactersAreEscaped()
{
    QFETCH(const QString, line);
    const CommandLine trees;
    trees.tree.writeDefault(
        QStringLiteral("/odd"),
        R"({"title":"t\u001b[31m","description":"d\u009b1m","valueUnit":"\u202e","id":"\u0007",)"
        R"("edit":{"values":["v\u001b[0m","w\u001b[1m"]},"value":{"string":"v\u001b[0m"}})");
    trees.tree.writeWritten(QStringLiteral("/odd"), R"({"value":{"string":"w\u001b[1m"}})");

    const ChildResult result = trees.run(line.toUtf8().constData());

    QCOMPARE(result.exitCode, 0);
    const QString text = QString::fromUtf8(result.standardOutput);
    QVERIFY(text.contains(QLatin1String("\\u001B")));
    for (const QChar character : text)
        QVERIFY(character == QLatin1Char('\n') || character.isPrint());
}

QTEST_GUILESS_MAIN(TstReadingCommands)
#include "tst_reading_commands.moc"
