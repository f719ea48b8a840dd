#include "trees/treecompare.h"

#include "tests/support/temporarytree.h"

#include <QTest>

#include <initializer_list>

using namespace tulo;

namespace {

// The older image has one setting, or template, with these roles; the new one with those.
struct Images
{
    Images(const QByteArray& before, const QByteArray& now, const char* name = "/audio/x")
    {
        const QString path = QString::fromLatin1(name);
        for (const TemporaryTree* tree : { &oldTree, &newTree })
            tree->writeDefault(QStringLiteral("/audio/.meta"), R"({"modifiable":false})");
        if (!before.isNull())
            oldTree.writeDefault(path, before);
        if (!now.isNull())
            newTree.writeDefault(path, now);
    }

    // "RULE PLACE: MESSAGE", "covered " in front where a migration takes care.
    QStringList differences(const QVector<Migration>& migrations = {}) const
    {
        TreesToCheck trees;
        trees.defaultPath = newTree.defaultPath();
        QStringList lines;
        for (const TreeFinding& finding : compareTrees(oldTree.defaultPath(), trees, migrations)) {
            QString place = tulo::placeOf(finding);
            place.replace(oldTree.defaultPath(), QStringLiteral("old"));
            place.replace(newTree.defaultPath(), QStringLiteral("new"));
            lines.append(QStringLiteral("%1%2 %3: %4")
                             .arg(QLatin1String(finding.isCovered ? "covered " : ""),
                                  QLatin1String(ruleOf(finding.rule).name), place,
                                  finding.message));
        }
        return lines;
    }

    TemporaryTree oldTree;
    TemporaryTree newTree;
};

} // namespace

/// What users of an older image would lose with the new one.
class tst_treecompare : public QObject
{
    Q_OBJECT

private slots:
    void differences_data();
    void differences();
    void movedSettingIsComparedAtItsNewPath();
    void idThatMovedAwayIsFollowedWhereThePathIsTakenAgain();
    void variantOfTheOldImageIsCompared();
    void newProductIsNotCompared();
    void templateThatHasGoneIsReported();
    void coveredChangesAreMarked();
    void settingMovedByARuleIsComparedThere();
    void fileThatCannotBeUnderstoodIsNotGone();
};

void tst_treecompare::differences_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("now");
    QTest::addColumn<QStringList>("lines");
    const auto row = [](const char* name, const char* before, const char* now,
                        const std::initializer_list<const char*>& lines) {
        QStringList expected;
        for (const char* line : lines)
            expected.append(QString::fromUtf8(line));
        QTest::newRow(name) << QByteArray(before) << QByteArray(now) << expected;
    };
    // Constraints of a setting with this content as its default.
    const auto limits = [&row](const char* name, const QByteArray& value, const QByteArray& before,
                               const QByteArray& now,
                               const std::initializer_list<const char*>& lines) {
        const QByteArray start = "{\"value\":" + value + ",\n\"edit\":";
        row(name, start + before + '}', start + now + '}', lines);
    };

    row("the same", R"({"value":{"int":5}})", R"({"value":{"int":5}})", {});
    row("other texts", R"({"title":"A","value":{"int":5}})", R"({"title":"B","value":{"int":5}})",
        {});
    row("gone", R"({"value":{"int":5}})", nullptr,
        { "removed old/audio/x:1:1: '/audio/x' is gone, and had no id to find it by" });
    row("gone with its id", R"({"id":"A","value":{"int":5}})", nullptr,
        { "removed old/audio/x:1:1: '/audio/x' is gone, with its id 'A'" });
    row("new", nullptr, R"({"value":{"int":5}})", {});
    row("read-only", R"({"value":{"int":5}})", R"({"value":{"int":5}, "modifiable":false})",
        { "made-read-only new/audio/x:1:21: could be changed and is read-only" });
    row("no longer read-only", R"({"value":{"int":5},"modifiable":false})",
        R"({"value":{"int":5}})", {});
    row("default", R"({"value":{"int":5}})", R"({"value":{"int":6}})",
        { "default-changed new/audio/x:1:2: the default value was 5 and is 6" });
    row("default that has gone", R"({"value":{"int":5},"edit":{"kind":"int"}})",
        R"({"edit":{"kind":"int"}})",
        { "default-changed new/audio/x:1:1: the default value was 5 and is absent" });
    row("secret default", R"({"encrypted":true,"value":{"string":"a"},"edit":{"kind":"string"}})",
        R"({"encrypted":true,"value":{"string":"b"},"edit":{"kind":"string"}})",
        { "default-changed new/audio/x:1:19: the default value has changed" });
    row("kind", R"({"value":{"int":5}})", R"({"value":{"double":5.0}})",
        { "kind-changed new/audio/x:1:2: was of kind 'int' and is of kind 'double'",
          "default-changed new/audio/x:1:2: the default value was 5 and is 5.0" });
    row("kind where there was none", R"({"title":"A"})", R"({"edit":{"kind":"int"}})",
        { "narrowed new/audio/x:1:10: took values of every kind and is of kind 'int'" });
    row("no kind any more", R"({"edit":{"kind":"int"}})", R"({"title":"A"})", {});

    limits("minimum", "{\"int\":50}", R"({"min":0})", R"({"min":10})",
           { "narrowed new/audio/x:2:9: 'min' was 0 and is 10" });
    limits("new minimum", "{\"int\":50}", "{}", R"({"min":10})",
           { "narrowed new/audio/x:2:9: 'min' was absent and is 10" });
    limits("lower minimum", "{\"int\":50}", R"({"min":10})", R"({"min":0})", {});
    limits("no minimum any more", "{\"int\":50}", R"({"min":10})", "{}", {});
    limits("maximum", "{\"double\":0.5}", R"({"max":1.0})", R"({"max":0.75})",
           { "narrowed new/audio/x:2:9: 'max' was 1.0 and is 0.75" });
    limits("limits beyond what a double holds", "{\"int\":50}", R"({"max":9007199254740993})",
           R"({"max":9007199254740992})",
           { "narrowed new/audio/x:2:9: 'max' was 9007199254740993 and is 9007199254740992" });
    limits("finer step", "{\"int\":50}", R"({"step":10})", R"({"step":5})", {});
    limits("coarser step", "{\"int\":50}", R"({"step":5})", R"({"step":10})",
           { "narrowed new/audio/x:2:9: 'step' was 5 and is 10" });
    limits("step of one for an int", "{\"int\":50}", "{}", R"({"step":1})", {});
    limits("step from another minimum", "{\"int\":50}", R"({"min":5,"step":10})",
           R"({"min":0,"step":10})", { "narrowed new/audio/x:2:17: 'step' was 10 and is 10" });
    limits("finer step of a double", "{\"double\":0.5}", R"({"step":0.3})", R"({"step":0.1})", {});
    limits("list of values", "{\"string\":\"a\"}", R"({"values":["a","b","c"]})",
           R"({"values":["c","a"]})", { "narrowed new/audio/x:2:9: it took \"b\"" });
    limits("more values", "{\"string\":\"a\"}", R"({"values":["a"]})", R"({"values":["a","b"]})",
           {});
    limits("limits that all listed values fit", "{\"int\":5}", R"({"values":[5,6]})",
           R"({"min":5,"max":10})", {});
    limits("listed values only", "{\"string\":\"a\"}", R"({"maxLength":5})",
           R"({"values":["a"],"maxLength":5})",
           { "narrowed new/audio/x:2:9: it took values that are not listed" });
    limits("longer minimum", "{\"string\":\"abc\"}", "{}", R"({"minLength":1})",
           { "narrowed new/audio/x:2:9: 'minLength' was absent and is 1" });
    limits("minimum length of 0", "{\"string\":\"abc\"}", "{}", R"({"minLength":0})", {});
    limits("shorter maximum", "{\"list\":[]}", R"({"maxLength":8})", R"({"maxLength":4})",
           { "narrowed new/audio/x:2:9: 'maxLength' was 8 and is 4" });
    limits("pattern", "{\"string\":\"abc\"}", R"({"pattern":"[a-z]*"})", R"({"pattern":"[a-y]*"})",
           { "narrowed new/audio/x:2:9: 'pattern' was \"[a-z]*\" and is \"[a-y]*\"" });
    limits("no pattern any more", "{\"string\":\"abc\"}", R"({"pattern":"[a-z]*"})", "{}", {});
    limits("elements", "{\"list\":[]}", R"({"elements":{"kind":"int","max":8}})",
           R"({"elements":{"kind":"int","max":4}})",
           { "narrowed new/audio/x:2:9: 'max' was 8 and is 4" });
    limits("elements of another kind", "{\"list\":[]}", R"({"elements":{"kind":"int"}})",
           R"({"elements":{"kind":"string"}})",
           { "narrowed new/audio/x:2:9: 'elements' was {\"kind\":\"int\"} and is "
             "{\"kind\":\"string\"}" });
    limits("constraint of another kind", "{\"int\":5}", "{}", R"({"kind":"int","maxLength":4})",
           {});
}

void tst_treecompare::differences()
{
    QFETCH(const QByteArray, before);
    QFETCH(const QByteArray, now);
    QFETCH(const QStringList, lines);
    const Images images(before, now);

    QCOMPARE(images.differences(), lines);
}

void tst_treecompare::movedSettingIsComparedAtItsNewPath()
{
    const Images images(R"({"id":"A","value":{"int":5},"edit":{"max":10}})", QByteArray());
    images.newTree.writeDefault(QStringLiteral("/sound/y"),
                                R"({"id":"A","value":{"int":5},"edit":{"max":8}})");

    QCOMPARE(images.differences(),
             QStringList({ QStringLiteral("moved new/sound/y:1:2: '/audio/x' is now '/sound/y'"),
                           QStringLiteral("narrowed new/sound/y:1:37: 'max' was 10 and is 8") }));
}

void tst_treecompare::idThatMovedAwayIsFollowedWhereThePathIsTakenAgain()
{
    const Images images(R"({"id":"A","value":{"int":5}})", R"({"id":"B","value":{"string":"x"}})");
    images.newTree.writeDefault(QStringLiteral("/audio/y"), R"({"id":"A","value":{"int":5}})");

    QCOMPARE(images.differences(),
             QStringList(QStringLiteral("moved new/audio/y:1:2: '/audio/x' is now '/audio/y'")));
}

void tst_treecompare::variantOfTheOldImageIsCompared()
{
    const Images images(R"({"title":"X","value":{"int":5},"edit":{"max":10}})",
                        R"({"title":"X","value":{"int":5},"edit":{"max":10}})");
    images.oldTree.writeDefault(QStringLiteral("/audio/x_sport"),
                                R"({"title":"X","value":{"int":5},"edit":{"max":20}})");

    QCOMPARE(images.differences(),
             QStringList(QStringLiteral(
                 "narrowed new/audio/x:1:40: 'max' was 20 and is 10 (product 'sport')")));
}

void tst_treecompare::newProductIsNotCompared()
{
    const Images images(R"({"title":"X","value":{"int":5},"edit":{"max":10}})",
                        R"({"title":"X","value":{"int":5},"edit":{"max":10}})");
    images.newTree.writeDefault(QStringLiteral("/audio/x_sport"),
                                R"({"title":"X","value":{"int":5},"edit":{"max":5}})");

    QCOMPARE(images.differences(), QStringList());
}

void tst_treecompare::templateThatHasGoneIsReported()
{
    const QByteArray meta = R"({"defaultValue":{"string":"fm"},"edit":{"maxLength":10}})";
    const QByteArray narrowed = QByteArray(meta).replace("10", "5");
    const QByteArray fixed = R"({"modifiable":false,"defaultValue":{"string":"fm"}})";

    QCOMPARE(Images(meta, QByteArray(), "/presets/.meta").differences(),
             QStringList(QStringLiteral("removed old/presets/.meta:1:1: settings that clients made "
                                        "in '/presets' have no template any more")));
    QCOMPARE(Images(meta, narrowed, "/presets/.meta").differences(),
             QStringList(
                 QStringLiteral("narrowed new/presets/.meta:1:41: 'maxLength' was 10 and is 5")));
    QCOMPARE(Images(meta, fixed, "/presets/.meta").differences(),
             QStringList(QStringLiteral(
                 "made-read-only new/presets/.meta:1:2: could be changed and is read-only")));
    QCOMPARE(Images(fixed, QByteArray(), "/presets/.meta").differences(), QStringList());
}

void tst_treecompare::coveredChangesAreMarked()
{
    const Images images(R"({"value":{"int":5},"edit":{"max":10}})",
                        R"({"value":{"int":5},"edit":{"max":8}, "modifiable":false})");
    Migration migration;
    const QString error = parseMigration(QStringLiteral("0001-volume.json"),
                                         R"([{"clamp": "/audio/x"}])", &migration);
    QCOMPARE(error, QString());

    QCOMPARE(
        images.differences({ migration }),
        QStringList({ QStringLiteral("covered narrowed new/audio/x:1:28: 'max' was 10 and is "
                                     "8; a migration covers it"),
                      QStringLiteral("made-read-only new/audio/x:1:38: could be changed and is "
                                     "read-only") }));
}

// Moved by a rule, as it has no id.
void tst_treecompare::settingMovedByARuleIsComparedThere()
{
    const Images images(R"({"value":{"int":5},"edit":{"max":10}})", QByteArray());
    Migration migration;
    const QString error = parseMigration(QStringLiteral("0001-sound.json"),
                                         R"([{"rename": "/audio", "to": "/sound"}])", &migration);
    QCOMPARE(error, QString());

    QCOMPARE(images.differences({ migration }),
             QStringList(QStringLiteral("removed old/audio/x:1:1: '/audio/x' is gone; a migration "
                                        "moves it to '/sound/x', which is not there")));

    images.newTree.writeDefault(QStringLiteral("/sound/x"),
                                R"({"value":{"int":5},"edit":{"max":8}})");
    QCOMPARE(images.differences({ migration }),
             QStringList({ QStringLiteral("moved new/sound/x:1:1: '/audio/x' is now '/sound/x'"),
                           QStringLiteral("narrowed new/sound/x:1:28: 'max' was 10 and is 8") }));
}

void tst_treecompare::fileThatCannotBeUnderstoodIsNotGone()
{
    QCOMPARE(Images(R"({"value":{"int":5}})", "{broken").differences(), QStringList());
    QCOMPARE(Images("{broken", R"({"value":{"int":5}})").differences(), QStringList());
}

QTEST_GUILESS_MAIN(tst_treecompare)
#include "tst_treecompare.moc"
