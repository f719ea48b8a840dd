#include "trees/migration.h"

#include "api/core/tulojson.h"

#include <QTest>

#include <initializer_list>
#include <utility>

using namespace tulo;

namespace {

using Files = QMap<QString, QString>;

QVariantHash objectOf(const QString& json)
{
    TuloError error;
    const QVariant content = TuloJson::parse(json.toUtf8(), error, nullptr);
    if (!error.isEmpty())
        qFatal("%s: %s", qPrintable(json), qPrintable(error.message()));
    return content.toHash();
}

QString path(const char* text)
{
    return QString::fromUtf8(text);
}

/// A device: what is written on it, and what its migrations remember.
struct Device
{
    Files written;
    MigrationRecord record;
};

/// What an image ships: default files by path, templates by directory, files of rules by name.
struct Image
{
    Files settings;
    Files templates;
    Files rules;
};

ImageSettings settingsOf(const Image& image)
{
    ImageSettings settings;
    for (auto file = image.settings.cbegin(); file != image.settings.cend(); ++file) {
        TuloRoles roles { TuloHash(objectOf(*file)) };
        roles.setDefaultValue(roles.value());
        settings.settings.insert(file.key(), roles);
        for (int end = file.key().lastIndexOf(QLatin1Char('/')); end > 0;
             end = file.key().lastIndexOf(QLatin1Char('/'), end - 1))
            settings.directories.insert(file.key().left(end));
    }
    for (auto file = image.templates.cbegin(); file != image.templates.cend(); ++file)
        settings.templates.insert(file.key(), TuloRoles(TuloHash(objectOf(*file))));
    return settings;
}

MigrationInput inputOf(const Device& device, const Image& image)
{
    MigrationInput input;
    for (auto file = device.written.cbegin(); file != device.written.cend(); ++file)
        input.written.insert(file.key(), file->toUtf8());
    input.image = settingsOf(image);
    for (auto file = image.rules.cbegin(); file != image.rules.cend(); ++file) {
        Migration migration;
        const QString fault = parseMigration(file.key(), file->toUtf8(), &migration);
        if (!fault.isEmpty())
            qFatal("%s", qPrintable(fault));
        input.migrations.append(migration);
    }
    input.record = device.record;
    return input;
}

void carryOut(const MigrationPlan& plan, Device* device)
{
    for (const FileChange& change : plan.changes) {
        if (change.content)
            device->written.insert(change.settingPath, QString::fromUtf8(*change.content));
        else
            device->written.remove(change.settingPath);
    }
    // As it comes back out of its file.
    const QString fault = MigrationRecord::fromJson(plan.record.toJson(), &device->record);
    if (!fault.isEmpty())
        qFatal("%s", qPrintable(fault));
}

/// The image starts on the device.
MigrationPlan start(const Image& image, Device* device)
{
    const MigrationPlan plan = planMigration(inputOf(*device, image));
    carryOut(plan, device);
    return plan;
}

QString text(const TuloValue& value)
{
    return QString::fromUtf8(TuloJson::serialize(value.content()));
}

QStringList textOf(const MigrationPlan& plan)
{
    QStringList lines;
    for (const PlannedMigration& value : plan.values) {
        lines.append(QStringLiteral("%1 -> %2: %3 -> %4 (%5)%6")
                         .arg(value.from, value.to, text(value.before), text(value.after),
                              value.causes.join(QStringLiteral(", ")),
                              value.obstacle.isEmpty()
                                  ? QString()
                                  : QStringLiteral(" stays: ") + value.obstacle));
    }
    return lines;
}

// A written file.
QString file(const char* id, const char* value, int timestamp = 1)
{
    const QByteArray idEntry = *id == '\0' ? QByteArray() : QByteArray("\"id\":\"") + id + "\",";
    return QString::fromUtf8("{" + idEntry + "\"timestamp\":" + QByteArray::number(timestamp)
                             + ",\"value\":" + value + "}");
}

QString intFile(const char* id, int value, int timestamp = 1)
{
    return file(id, "{\"int\":" + QByteArray::number(value) + "}", timestamp);
}

// A default file of a number from 0 on.
QString number(const char* id, int maximum)
{
    return QStringLiteral(
               R"({"id":"%1","value":{"int":35},"edit":{"kind":"int","min":0,"max":%2}})")
        .arg(QLatin1String(id), QString::number(maximum));
}

QString choice(const char* id, const char* values, const char* value)
{
    return QStringLiteral(R"({"id":"%1","value":{"string":"%2"},"edit":{"values":%3}})")
        .arg(QLatin1String(id), QLatin1String(value), QLatin1String(values));
}

const char clampVolume[] = R"([{"clamp":"/audio/volume"}])";

} // namespace

/// What becomes of written files when the image changes.
class tst_migration : public QObject
{
    Q_OBJECT

private slots:
    // By id.
    void valueFollowsItsId();
    void fileIsMovedUnchanged();
    void settingsSwapPaths();
    void pathGivenToAnotherSettingIsLeft();
    void whatStays_data();
    void whatStays();
    void variantsCountAsTheirSetting();
    void readOnlySettingTakesItsValue();
    void encryptedValueIsMovedAsItIs();
    void idempotent();

    // By rules.
    void directoryIsRenamed();
    void renamedFileTakesTheNewId();
    void renamesFollowOneAnother();
    void numberIsClamped();
    void clampFollowsLaterRenames();
    void ruleByIdFindsItsValueAnywhere();
    void ruleFindsAValueThatFollowedItsId();
    void valuesAreMapped();
    void valuesAreConverted_data();
    void valuesAreConverted();
    void valuesAreRemoved();
    void movedValueThatIsClampedFits();
    void eachIsAppliedOnce();
    void valueThatDoesNotFitStays();
    void twoValuesForOnePlaceStay();

    // Back.
    void olderImageGetsItsValuesBack_data();
    void olderImageGetsItsValuesBack();
    void valueThatWasClampedComesBackWhereItsIdIs();
    void changedValueIsCarriedBack();
    void changedValueThatDoesNotFitWaits();
    void changeUnderTheOlderImageIsNewest();
    void resetValueStaysReset();
    void resetValueIsNotGivenBackLater();
    void newerOfTwoValuesWins();
    void valueOfANewNameIsCarriedBack();
    void imageThatDroppedOldRulesUndoesNothing();
    void undoThatDoesNotFitIsKept();
    void imagesAreSkippedBothWays();
    void lastRunIsTakenBackOnRequest();
};

// ---------------------------------------------------------------------------------------------
// By id.
// ---------------------------------------------------------------------------------------------

void tst_migration::valueFollowsItsId()
{
    Device device { { { path("/vehicle/drive-mode"), file("VEH", R"({"string":"eco"})") } }, {} };
    const Image image {
        { { path("/driving/mode"), choice("VEH", R"(["eco","normal"])", "normal") } }, {}, {}
    };

    const MigrationPlan plan = start(image, &device);

    QCOMPARE(textOf(plan),
             QStringList(QStringLiteral(
                 R"(/vehicle/drive-mode -> /driving/mode: "eco" -> "eco" (id 'VEH'))")));
    QCOMPARE(device.written,
             (Files { { path("/driving/mode"), file("VEH", R"({"string":"eco"})") } }));
}

void tst_migration::fileIsMovedUnchanged()
{
    const QString content = QStringLiteral(
        R"({ "value" : {"int":5}, "id":"A", "timestamp":1700000000000, "own" : [1.50] })");
    Device device { { { path("/old"), content } }, {} };

    start({ { { path("/d/new"), number("A", 100) } }, {}, {} }, &device);

    QCOMPARE(device.written, (Files { { path("/d/new"), content } }));
}

void tst_migration::settingsSwapPaths()
{
    Device device { { { path("/left"), intFile("L", 1) }, { path("/right"), intFile("R", 2) } },
                    {} };

    start({ { { path("/left"), number("R", 100) }, { path("/right"), number("L", 100) } }, {}, {} },
          &device);

    QCOMPARE(device.written,
             (Files { { path("/left"), intFile("R", 2) }, { path("/right"), intFile("L", 1) } }));
}

void tst_migration::pathGivenToAnotherSettingIsLeft()
{
    Device device { { { path("/volume"), intFile("A", 90) } }, {} };

    start(
        { { { path("/volume"), number("B", 100) }, { path("/main"), number("A", 100) } }, {}, {} },
        &device);

    QCOMPARE(device.written, (Files { { path("/main"), intFile("A", 90) } }));
}

void tst_migration::whatStays_data()
{
    QTest::addColumn<Files>("written");
    QTest::addColumn<Files>("settings");
    QTest::addColumn<Files>("templates");
    QTest::addColumn<QString>("obstacle");
    const Files old { { path("/d/old"), intFile("A", 90) } };
    const auto with = [&old](const char* name, const QString& content) {
        Files files = old;
        files.insert(path(name), content);
        return files;
    };

    QTest::newRow("setting has gone") << old << Files() << Files() << QString();
    QTest::newRow("no id") << Files { { path("/d/old"), intFile("", 90) } }
                           << Files { { path("/new"), number("", 100) } } << Files() << QString();
    QTest::newRow("id twice in the image")
        << old << Files { { path("/new"), number("A", 100) }, { path("/new2"), number("A", 100) } }
        << Files() << QStringLiteral("several settings have this id: /new, /new2");
    QTest::newRow("id written twice")
        << with("/d/older", intFile("A", 80)) << Files { { path("/new"), number("A", 100) } }
        << Files() << QStringLiteral("several written values have this id");
    QTest::newRow("a value is there")
        << with("/new", intFile("A", 10)) << Files { { path("/new"), number("A", 100) } } << Files()
        << QStringLiteral("another value is there");
    QTest::newRow("a damaged file is there")
        << with("/new", path("{")) << Files { { path("/new"), number("A", 100) } } << Files()
        << QStringLiteral("a damaged file is there");
    QTest::newRow("a written file is above")
        << with("/new", intFile("", 1)) << Files { { path("/new/a"), number("A", 100) } } << Files()
        << QStringLiteral("'/new' is a written file");
    QTest::newRow("written files are below")
        << with("/new/a", intFile("", 1)) << Files { { path("/new"), number("A", 100) } } << Files()
        << QStringLiteral("a directory of written files is there");
    QTest::newRow("other kind") << old
                                << Files { { path("/new"), choice("A", R"(["eco"])", "eco") } }
                                << Files() << QStringLiteral("it is not of the kind 'string'");
    QTest::newRow("outside the constraints") << old << Files { { path("/new"), number("A", 80) } }
                                             << Files() << QStringLiteral("it is above 'max' (80)");
    QTest::newRow("child of a template")
        << old << Files { { path("/new"), number("A", 100) } }
        << Files { { path("/d"), path(R"({"value":{"int":1}})") } } << QString();
    QTest::newRow("default without an id")
        << old << Files { { path("/d/old"), number("", 100) }, { path("/new"), number("A", 100) } }
        << Files() << QString();
    QTest::newRow("damaged") << Files { { path("/d/old"), path("[]") } }
                             << Files { { path("/new"), number("A", 100) } } << Files()
                             << QString();
}

void tst_migration::whatStays()
{
    QFETCH(const Files, written);
    QFETCH(const Files, settings);
    QFETCH(const Files, templates);
    QFETCH(const QString, obstacle);
    Device device { written, {} };

    const MigrationPlan plan = start({ settings, templates, {} }, &device);

    QCOMPARE(device.written, written);
    QVERIFY(device.record.isEmpty());
    QCOMPARE(plan.values.isEmpty() ? QString() : plan.values.first().obstacle, obstacle);
}

void tst_migration::variantsCountAsTheirSetting()
{
    Device device { { { path("/old"), intFile("A", 90) } }, {} };

    start({ { { path("/d/new"), number("A", 100) },
              { path("/d/new_sport"), number("A", 100) },
              { path("/d/new_very_sport"), number("A", 100) } },
            {},
            {} },
          &device);

    QCOMPARE(device.written, (Files { { path("/d/new"), intFile("A", 90) } }));
}

void tst_migration::readOnlySettingTakesItsValue()
{
    Device device { { { path("/old"), intFile("A", 90) } }, {} };

    start({ { { path("/new"), path(R"({"id":"A","value":{"int":1},"modifiable":false})") } },
            {},
            {} },
          &device);

    QCOMPARE(device.written, (Files { { path("/new"), intFile("A", 90) } }));
}

void tst_migration::encryptedValueIsMovedAsItIs()
{
    const QString content = path(R"({"encryptedValue":"c2VjcmV0","id":"A","timestamp":1})");
    Device device { { { path("/old"), content } }, {} };

    start({ { { path("/new"), path(R"({"encrypted":true,"id":"A","value":{"string":""}})") } },
            {},
            {} },
          &device);

    QCOMPARE(device.written, (Files { { path("/new"), content } }));
}

void tst_migration::idempotent()
{
    const Image image { { { path("/new"), number("A", 100) }, { path("/d/b"), number("B", 50) } },
                        {},
                        { { path("0001-b.json"), path(R"([{"clamp":"B"}])") } } };
    Device device { { { path("/old"), intFile("A", 90) }, { path("/d/b"), intFile("B", 70) } },
                    {} };
    start(image, &device);
    const Device before = device;

    const MigrationPlan plan = start(image, &device);

    QVERIFY(plan.changes.isEmpty());
    QVERIFY(plan.values.isEmpty());
    QCOMPARE(device.written, before.written);
    QCOMPARE(device.record.toJson(), before.record.toJson());
}

// ---------------------------------------------------------------------------------------------
// By rules.
// ---------------------------------------------------------------------------------------------

void tst_migration::directoryIsRenamed()
{
    Device device { { { path("/presets/one"), intFile("", 1) },
                      { path("/presets/more/two"), intFile("", 2) },
                      { path("/presets-old/one"), intFile("", 3) } },
                    {} };

    const MigrationPlan plan = start(
        { {},
          { { path("/audio/presets"), path("{}") }, { path("/audio/presets/more"), path("{}") } },
          { { path("0001-presets.json"),
              path(R"([{"rename":"/presets","to":"/audio/presets"}])") } } },
        &device);

    QCOMPARE(device.written,
             (Files { { path("/audio/presets/one"), intFile("", 1) },
                      { path("/audio/presets/more/two"), intFile("", 2) },
                      { path("/presets-old/one"), intFile("", 3) } }));
    QCOMPARE(textOf(plan).first(),
             QStringLiteral("/presets/more/two -> /audio/presets/more/two: 2 -> 2 "
                            "(0001-presets)"));
}

void tst_migration::renamedFileTakesTheNewId()
{
    Device device { { { path("/old"), intFile("A", 1) } }, {} };

    start({ { { path("/new"), number("B", 100) } },
            {},
            { { path("0001-new.json"), path(R"([{"rename":"/old","to":"/new"}])") } } },
          &device);

    QCOMPARE(device.written, (Files { { path("/new"), intFile("B", 1) } }));
}

void tst_migration::renamesFollowOneAnother()
{
    Device device { { { path("/one"), intFile("", 1) } }, {} };

    start({ { { path("/three"), number("", 100) } },
            {},
            { { path("0001-two.json"), path(R"([{"rename":"/one","to":"/two"}])") },
              { path("0002-three.json"), path(R"([{"rename":"/two","to":"/three"}])") } } },
          &device);

    QCOMPARE(device.written, (Files { { path("/three"), intFile("", 1) } }));
}

void tst_migration::numberIsClamped()
{
    Device device { { { path("/audio/volume"), intFile("A", 95) } }, {} };

    const MigrationPlan plan = start({ { { path("/audio/volume"), number("A", 80) } },
                                       {},
                                       { { path("0001-volume.json"), path(clampVolume) } } },
                                     &device);

    QCOMPARE(device.written, (Files { { path("/audio/volume"), intFile("A", 80) } }));
    QCOMPARE(textOf(plan),
             QStringList(QStringLiteral("/audio/volume -> /audio/volume: 95 -> 80 "
                                        "(0001-volume)")));
}

void tst_migration::clampFollowsLaterRenames()
{
    Device device { { { path("/audio/volume"), intFile("", 95) } }, {} };

    start({ { { path("/sound/volume"), number("", 80) } },
            {},
            { { path("0001-volume.json"), path(clampVolume) },
              { path("0002-sound.json"), path(R"([{"rename":"/audio","to":"/sound"}])") } } },
          &device);

    QCOMPARE(device.written, (Files { { path("/sound/volume"), intFile("", 80) } }));
}

void tst_migration::ruleByIdFindsItsValueAnywhere()
{
    Device device { { { path("/first/volume"), intFile("A", 95) } }, {} };

    start({ { { path("/third/volume"), number("A", 80) } },
            {},
            { { path("0001-volume.json"), path(R"([{"clamp":"A"}])") } } },
          &device);

    QCOMPARE(device.written, (Files { { path("/third/volume"), intFile("A", 80) } }));
}

void tst_migration::ruleFindsAValueThatFollowedItsId()
{
    Device device { { { path("/audio/volume"), intFile("A", 95) } }, {} };

    start({ { { path("/sound/volume"), number("A", 80) } },
            {},
            { { path("0001-volume.json"), path(clampVolume) } } },
          &device);

    QCOMPARE(device.written, (Files { { path("/sound/volume"), intFile("A", 80) } }));
}

void tst_migration::valuesAreMapped()
{
    Device device { { { path("/a"), file("", R"({"string":"eco"})") },
                      { path("/b"), file("", R"({"string":"sport"})") },
                      { path("/c"), intFile("", 2) } },
                    {} };
    const QString rules = path(R"([
        {"map":"/a","values":[["eco","economy"],["economy","eco"]]},
        {"map":"/b","values":[["eco","economy"]]},
        {"map":"/c","values":[[2,"two"]]}
    ])");

    start({ { { path("/a"), choice("", R"(["economy"])", "economy") },
              { path("/b"), choice("", R"(["sport"])", "sport") },
              { path("/c"), choice("", R"(["two"])", "two") } },
            {},
            { { path("0001-names.json"), rules } } },
          &device);

    QCOMPARE(device.written,
             (Files { { path("/a"), file("", R"({"string":"economy"})") },
                      { path("/b"), file("", R"({"string":"sport"})") },
                      { path("/c"), file("", R"({"string":"two"})") } }));
}

void tst_migration::valuesAreConverted_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QString>("step");
    QTest::addColumn<QByteArray>("after");
    const auto row = [](const char* name, const char* before, const char* step, const char* after) {
        QTest::newRow(name) << QByteArray(before) << path(step) << QByteArray(after);
    };
    row("int to double", R"({"int":5})", R"("kind":"double")", R"({"double":5.0})");
    row("double to int", R"({"double":2.5})", R"("kind":"int")", R"({"int":3})");
    row("scaled", R"({"int":5})", R"("kind":"int","scale":1000)", R"({"int":5000})");
    row("to a fraction", R"({"int":5})", R"("kind":"double","scale":0.1)", R"({"double":0.5})");
    row("int to string", R"({"int":5})", R"("kind":"string")", R"({"string":"5"})");
    row("string to int", R"({"string":"5"})", R"("kind":"int")", R"({"int":5})");
    row("not a number", R"({"string":"five"})", R"("kind":"int")", R"({"string":"five"})");
    row("list", R"({"list":[5]})", R"("kind":"int")", R"({"list":[5]})");
    row("too large", R"({"double":1e300})", R"("kind":"int")", R"({"double":1e+300})");
}

void tst_migration::valuesAreConverted()
{
    QFETCH(const QByteArray, before);
    QFETCH(const QString, step);
    QFETCH(const QByteArray, after);
    Device device { { { path("/a"), file("", before.constData()) } }, {} };

    start({ { { path("/a"), path("{}") } },
            {},
            { { path("0001-a.json"), QStringLiteral(R"([{"convert":"/a",%1}])").arg(step) } } },
          &device);

    QCOMPARE(objectOf(device.written.value(path("/a"))), objectOf(file("", after.constData())));
}

void tst_migration::valuesAreRemoved()
{
    Device device { { { path("/a/b/c"), intFile("", 1) }, { path("/a/bc"), intFile("", 2) } }, {} };

    const MigrationPlan plan =
        start({ { { path("/a/b/c"), number("", 100) } },
                {},
                { { path("0001-b.json"), path(R"([{"remove":"/a/b"}])") } } },
              &device);

    QCOMPARE(device.written, (Files { { path("/a/bc"), intFile("", 2) } }));
    QCOMPARE(textOf(plan), QStringList(QStringLiteral("/a/b/c -> : 1 -> null (0001-b)")));
}

void tst_migration::movedValueThatIsClampedFits()
{
    Device device { { { path("/old"), intFile("A", 95) } }, {} };

    start({ { { path("/new"), number("A", 80) } },
            {},
            { { path("0001-new.json"), path(R"([{"clamp":"/new"}])") } } },
          &device);

    QCOMPARE(device.written, (Files { { path("/new"), intFile("A", 80) } }));
}

void tst_migration::eachIsAppliedOnce()
{
    Device device { { { path("/a"), intFile("", 1) } }, {} };
    const Image image { { { path("/a"), number("", 100) } },
                        {},
                        { { path("0001-a.json"),
                            path(R"([{"convert":"/a","kind":"int","scale":10}])") } } };

    start(image, &device);
    start(image, &device);

    QCOMPARE(device.written, (Files { { path("/a"), intFile("", 10) } }));
}

void tst_migration::valueThatDoesNotFitStays()
{
    Device device {
        { { path("/a"), file("", R"({"string":"eco"})") }, { path("/b"), intFile("", 7) } }, {}
    };
    const Files before = device.written;
    const QString rules = path(R"([
        {"map":"/a","values":[["eco","economy"]]}, {"rename":"/b","to":"/none"}
    ])");

    const MigrationPlan plan = start({ { { path("/a"), choice("", R"(["normal"])", "normal") } },
                                       {},
                                       { { path("0001-a.json"), rules } } },
                                     &device);

    QCOMPARE(device.written, before);
    QCOMPARE(textOf(plan),
             (QStringList { QStringLiteral(R"(/a -> /a: "eco" -> "economy" (0001-a) stays: )"
                                           R"(it is not one of the 'values' (["normal"]))"),
                            QStringLiteral("/b -> /none: 7 -> 7 (0001-a) stays: the image has no "
                                           "such setting") }));
}

void tst_migration::twoValuesForOnePlaceStay()
{
    Device device { { { path("/a"), intFile("", 1) }, { path("/b"), intFile("", 2) } }, {} };
    const Files before = device.written;
    const QString rules = path(R"([{"rename":"/a","to":"/c"},{"rename":"/b","to":"/c"}])");

    start({ { { path("/c"), number("", 100) } }, {}, { { path("0001-c.json"), rules } } }, &device);

    QCOMPARE(device.written, before);
}

// ---------------------------------------------------------------------------------------------
// Back.
// ---------------------------------------------------------------------------------------------

void tst_migration::olderImageGetsItsValuesBack_data()
{
    QTest::addColumn<QString>("rules");
    QTest::addColumn<QString>("newPath");
    QTest::addColumn<QString>("newDefault");
    const auto row = [](const char* name, const char* rules, const char* newPath,
                        const QString& newDefault = number("Y", 80)) {
        QTest::newRow(name) << path(rules) << path(newPath) << newDefault;
    };
    row("id", "[]", "/b", number("X", 100));
    row("rename", R"([{"rename":"/a","to":"/b"}])", "/b", number("Y", 100));
    row("clamp", R"([{"clamp":"/a"}])", "/a");
    row("remove", R"([{"remove":"/a"}])", "/a");
    row("convert", R"([{"convert":"/a","kind":"int","scale":0.5}])", "/a");
    row("map", R"([{"map":"/a","values":[[95,5]]}])", "/a");
    row("all", R"([{"rename":"/a","to":"/b"},{"convert":"/b","kind":"int","scale":0.9},
                   {"clamp":"/b"}])",
        "/b");
}

void tst_migration::olderImageGetsItsValuesBack()
{
    QFETCH(const QString, rules);
    QFETCH(const QString, newPath);
    QFETCH(const QString, newDefault);
    Device device { { { path("/a"), intFile("X", 95) } }, {} };
    const Files before = device.written;
    const Image first { { { path("/a"), number("X", 100) } }, {}, {} };
    const Image second { { { newPath, newDefault } }, {}, { { path("0001-a.json"), rules } } };
    start(first, &device);

    start(second, &device);
    QVERIFY(device.written != before);
    start(first, &device);

    QCOMPARE(device.written, before);
}

void tst_migration::valueThatWasClampedComesBackWhereItsIdIs()
{
    Device device { { { path("/old"), intFile("A", 95) } }, {} };
    const Files before = device.written;
    const Image first { { { path("/old"), number("A", 100) } }, {}, {} };
    start({ { { path("/new"), number("A", 80) } },
            {},
            { { path("0001-new.json"), path(R"([{"clamp":"/new"}])") } } },
          &device);
    QCOMPARE(device.written, (Files { { path("/new"), intFile("A", 80) } }));

    start(first, &device);

    QCOMPARE(device.written, before);
}

void tst_migration::changedValueIsCarriedBack()
{
    Device device { { { path("/old"), intFile("A", 95) }, { path("/a"), intFile("", 5) } }, {} };
    const Image first { { { path("/old"), number("A", 100) }, { path("/a"), number("", 100) } },
                        {},
                        {} };
    const Image second { { { path("/new"), number("A", 80) }, { path("/b"), number("", 100) } },
                         {},
                         { { path("0001-new.json"),
                             path(R"([{"clamp":"/new"},{"rename":"/a","to":"/b"}])") } } };
    start(second, &device);
    device.written = { { path("/new"), intFile("A", 60, 2) }, { path("/b"), intFile("", 6, 2) } };

    start(first, &device);

    QCOMPARE(device.written,
             (Files { { path("/old"), intFile("A", 60, 2) }, { path("/a"), intFile("", 6, 2) } }));
}

void tst_migration::changedValueThatDoesNotFitWaits()
{
    const Image first { { { path("/old"), number("A", 50) }, { path("/m"), number("", 100) } },
                        {},
                        {} };
    const Image second { { { path("/new"), number("A", 200) },
                           { path("/m"), choice("", R"(["low","high"])", "low") } },
                         {},
                         { { path("0001-m.json"),
                             path(R"([{"map":"/m","values":[[1,"low"],[2,"high"]]}])") } } };
    Device device { { { path("/old"), intFile("A", 40) }, { path("/m"), intFile("", 1) } }, {} };
    const Files before = device.written;
    start(second, &device);
    const Files changed { { path("/new"), intFile("A", 150, 2) },
                          { path("/m"), file("", R"({"string":"high"})", 2) } };
    device.written = changed;

    start(first, &device);
    QCOMPARE(device.written, before);
    start(second, &device);
    QCOMPARE(device.written, changed);
    start(first, &device);
    QCOMPARE(device.written, before);
}

void tst_migration::changeUnderTheOlderImageIsNewest()
{
    const Image first { { { path("/old"), number("A", 50) } }, {}, {} };
    const Image second { { { path("/new"), number("A", 200) } }, {}, {} };
    Device device { { { path("/old"), intFile("A", 40) } }, {} };
    start(second, &device);
    device.written = { { path("/new"), intFile("A", 150, 2) } };
    start(first, &device);
    device.written = { { path("/old"), intFile("A", 30, 3) } };

    start(second, &device);

    QCOMPARE(device.written, (Files { { path("/new"), intFile("A", 30, 3) } }));
}

void tst_migration::resetValueStaysReset()
{
    const Image first { { { path("/old"), number("A", 100) }, { path("/v"), number("", 100) } },
                        {},
                        {} };
    const Image second { { { path("/new"), number("A", 100) }, { path("/v"), number("", 80) } },
                         {},
                         { { path("0001-v.json"), path(R"([{"clamp":"/v"}])") } } };
    Device device { { { path("/old"), intFile("A", 40) }, { path("/v"), intFile("", 90) } }, {} };
    start(second, &device);
    device.written.clear();

    start(first, &device);

    QVERIFY(device.written.isEmpty());
}

void tst_migration::resetValueIsNotGivenBackLater()
{
    const Image first { { { path("/old"), number("A", 50) } }, {}, {} };
    const Image second { { { path("/new"), number("A", 200) } }, {}, {} };
    Device device { { { path("/old"), intFile("A", 40) } }, {} };
    start(second, &device);
    device.written.clear();
    start(first, &device);
    start(second, &device);
    device.written = { { path("/new"), intFile("A", 150, 2) } };

    start(first, &device);

    QVERIFY(!device.written.contains(path("/old")));
}

void tst_migration::newerOfTwoValuesWins()
{
    const Image image { { { path("/new"), number("A", 100) } }, {}, {} };
    Device device {
        { { path("/old"), intFile("A", 90, 2) }, { path("/new"), intFile("A", 10, 1) } }, {}
    };
    Device other { { { path("/old"), intFile("A", 90, 1) }, { path("/new"), intFile("A", 10, 2) } },
                   {} };

    start(image, &device);
    start(image, &other);

    QCOMPARE(device.written, (Files { { path("/new"), intFile("A", 90, 2) } }));
    QCOMPARE(other.written.value(path("/new")), intFile("A", 10, 2));
    QCOMPARE(other.written.size(), 2);
}

void tst_migration::valueOfANewNameIsCarriedBack()
{
    const Image first { { { path("/a/x"), number("", 100) } }, {}, {} };
    const Image second { { { path("/b/x"), number("", 100) } },
                         {},
                         { { path("0001-b.json"), path(R"([{"rename":"/a","to":"/b"}])") } } };
    Device device;
    start(second, &device);
    device.written = { { path("/b/x"), intFile("", 6) } };

    start(first, &device);

    QCOMPARE(device.written, (Files { { path("/a/x"), intFile("", 6) } }));
}

void tst_migration::imageThatDroppedOldRulesUndoesNothing()
{
    Device device { { { path("/audio/volume"), intFile("", 95) } }, {} };
    start({ { { path("/audio/volume"), number("", 80) } },
            {},
            { { path("0001-volume.json"), path(clampVolume) } } },
          &device);

    const MigrationPlan plan = start({ { { path("/audio/volume"), number("", 100) } },
                                       {},
                                       { { path("0002-other.json"), path("[]") } } },
                                     &device);

    QVERIFY(plan.changes.isEmpty());
    QCOMPARE(device.written, (Files { { path("/audio/volume"), intFile("", 80) } }));
}

void tst_migration::undoThatDoesNotFitIsKept()
{
    const Image narrow { { { path("/audio/volume"), number("", 80) } }, {}, {} };
    Image withRule = narrow;
    withRule.rules = { { path("0001-volume.json"), path(clampVolume) } };
    Device device { { { path("/audio/volume"), intFile("", 95) } }, {} };
    const Files before = device.written;
    start(withRule, &device);

    start(narrow, &device);
    QCOMPARE(device.written, (Files { { path("/audio/volume"), intFile("", 80) } }));
    start(withRule, &device);
    start({ { { path("/audio/volume"), number("", 100) } }, {}, {} }, &device);

    QCOMPARE(device.written, before);
}

void tst_migration::imagesAreSkippedBothWays()
{
    const Image first { { { path("/one"), number("A", 100) } }, {}, {} };
    const Image second { { { path("/two"), number("A", 80) } },
                         {},
                         { { path("0001-two.json"), path(R"([{"clamp":"A"}])") } } };
    Image third = second;
    third.settings = { { path("/three"), number("A", 80) } };
    Device device { { { path("/one"), intFile("A", 95) } }, {} };
    const Files before = device.written;
    start(second, &device);
    start(third, &device);
    QCOMPARE(device.written, (Files { { path("/three"), intFile("A", 80) } }));

    start(first, &device);
    QCOMPARE(device.written, before);
    start(third, &device);
    QCOMPARE(device.written, (Files { { path("/three"), intFile("A", 80) } }));
}

void tst_migration::lastRunIsTakenBackOnRequest()
{
    const Image second { { { path("/new"), number("A", 80) } },
                         {},
                         { { path("0001-new.json"), path(R"([{"clamp":"/new"}])") } } };
    Device device { { { path("/old"), intFile("A", 95) } }, {} };
    const Files before = device.written;
    start(second, &device);
    Image third = second;
    third.settings = { { path("/newer"), number("A", 80) } };
    start(third, &device);
    QCOMPARE(device.written, (Files { { path("/newer"), intFile("A", 80) } }));

    carryOut(planUndo(inputOf(device, third)), &device);
    QCOMPARE(device.written, (Files { { path("/new"), intFile("A", 80) } }));
    carryOut(planUndo(inputOf(device, third)), &device);
    QCOMPARE(device.written, before);
    QVERIFY(planUndo(inputOf(device, third)).changes.isEmpty());
}

QTEST_APPLESS_MAIN(tst_migration)

#include "tst_migration.moc"
