// How the layers of a setting become one roles record, and the cache of these records.

#include "tests/support/childprocess.h"
#include "tests/support/replywaiter.h"
#include "workerfixture.h"

#include "api/core/model/tulosettingsactions.h"

#include <QFile>

#include <csignal>

namespace {

const QString path = QStringLiteral("/audio/volume");

QVariant pathRole(const QString& text)
{
    return CMPath(text).toVariant();
}

// A text as load() makes it of a setting's file.
QVariant translated(const char* context, const char* source)
{
    return TrString({ context, source, nullptr, -1 }, {});
}

QVariantHash with(QVariantHash hash, const QString& key, const QVariant& value)
{
    hash.insert(key, value);
    return hash;
}

// What every loaded record of this path holds, whatever its files say.
QVariantHash bareSetting()
{
    return { { TuloRoles::Type(), 101 },
             { TuloRoles::Title(), TrString(QStringLiteral("volume")) },
             { TuloRoles::Path(), pathRole(QStringLiteral("/settings/audio/volume")) } };
}

QVariantHash bareSettingWith(const char* roles)
{
    QVariantHash hash = bareSetting();
    const QVariantHash more = json(roles);
    for (auto entry = more.cbegin(); entry != more.cend(); ++entry)
        hash.insert(entry.key(), entry.value());
    return hash;
}

} // namespace

class tst_worker_load : public QObject
{
    Q_OBJECT

private slots:
    void init() { m = std::make_unique<WorkerFixture>(); }
    void cleanup()
    {
        m->log.verifyNothingUnexpected();
        m.reset();
    }

    void settingWithoutFilesHasTypeTitleAndPathOnly();
    void pathMustBeginWithSlash_data();
    void pathMustBeginWithSlash();

    void everyKeyOfDefaultFileIsCopied();
    void unsetTypeBecomesSettingAndOthersStay_data();
    void unsetTypeBecomesSettingAndOthersStay();
    void pathRoleOfFileIsReplaced();
    void pathRoleFollowsPrefix();
    void titleFallsBackOnlyWhenKeyIsAbsent_data();
    void titleFallsBackOnlyWhenKeyIsAbsent();

    void productDefaultHidesPlainDefault();
    void productNameIsLookedUpWithEmptyPostfix_data();
    void productNameIsLookedUpWithEmptyPostfix();
    void productDefaultMustBeRegularFile();
    void productDefaultMayBeLink();
    void productDefaultAloneMakesSettingExist();
    void emptyProductDefaultHidesPlainDefaultAndTakesTemplate();

    void defaultFileWithoutRolesExistsAndTakesTemplate_data();
    void defaultFileWithoutRolesExistsAndTakesTemplate();
    void nullDefaultFileDoesNotExistAndTakesTemplate();
    void templateGivesRolesAndNotExistence();
    void templateIsNotMergedUnderDefaultFile();
    void templateOfTopLevelSettingLiesInTop();
    void templateOfGrandparentIsNotUsed();
    void templateOfWriteTreeIsNotUsed();
    void templateTypeStays();
    void templateTextsGetContextOfChild();
    void templateValueIsNoDefaultValue();
    void writtenFileOverTemplateExists();

    void writtenRolesOverrideDefaults_data();
    void writtenRolesOverrideDefaults();
    void emptyWrittenRolesKeepDefaults();
    void otherWrittenKeysAreIgnored_data();
    void otherWrittenKeysAreIgnored();
    void writtenFileMakesSettingExist_data();
    void writtenFileMakesSettingExist();
    void writtenValueRemovesEncryptedDefault();
    void writtenEncryptedValueComesBackAfterWrittenValue();
    void writtenEncryptedValueReplacesDefaultOne();

    void defaultValueIsValueOfDefaultFile();
    void defaultValueOfFileStaysWithoutValue();
    void defaultValueOfFileIsReplacedByValue();
    void emptyValueOfFileGivesNoDefaultValue();

    void directoryRolesComeFromMeta();
    void directoryTypeIsOneWhateverMetaSays_data();
    void directoryTypeIsOneWhateverMetaSays();
    void directoryTextsAreNotTranslated();
    void directoryTitleFallsBackToName();
    void directoryInWriteTreeOnlyTakesMetaOfDefaultTree();
    void directoryInWriteTreeOnlyHasBareRoles();
    void directoryInWriteTreeHidesDefaultFile();
    void directoryInDefaultTreeHidesWrittenFile();
    void rootDirectoryHasEmptyTitleAndPrefixPath();
    void linkToDirectoryIsDirectory();

    void secondLoadComesFromCache_data();
    void secondLoadComesFromCache();
    void existsFlagIsOptional();
    void cachedRecordIsCopied();
    void everyRecordCostsOne();
    void leastRecentlyUsedOf301IsEvicted();
    void missingSettingIsCachedLikeOthers();
    void changedFileIsSeenAfterDropCache();
    void loadTakesNoLock();

private:
    TuloRoles load(const QString& settingPath, bool* exists = nullptr)
    {
        if (!m->worker)
            m->create();
        return m->worker->load(settingPath, exists);
    }

    bool exists(const QString& settingPath)
    {
        bool result = false;
        load(settingPath, &result);
        return result;
    }

    std::unique_ptr<WorkerFixture> m;
};

void tst_worker_load::settingWithoutFilesHasTypeTitleAndPathOnly()
{
    bool doesExist = true;
    COMPARE_RECORDS(load(path, &doesExist), bareSetting());
    QVERIFY(!doesExist);
}

void tst_worker_load::pathMustBeginWithSlash_data()
{
    QTest::addColumn<QString>("wrongPath");

    QTest::newRow("relative") << QStringLiteral("audio/volume");
    QTest::newRow("empty") << QString();
}

void tst_worker_load::pathMustBeginWithSlash()
{
    QFETCH(QString, wrongPath);
    const ChildResult child = ChildProcess::runInChild([&] {
        CMSettingsWorker& worker = m->create();
        logToStandardError(log4cplus::TRACE_LOG_LEVEL);
        worker.load(wrongPath, nullptr);
    });

    QCOMPARE(child.signal, SIGABRT);
    const QByteArray expected = "TRACE - Enter CMSettingsWorker::load: " + wrongPath.toUtf8()
        + "\nASSERT: \"path.startsWith(\"/\")\" in file ";
    QVERIFY2(child.standardError.contains(expected), child.standardError.constData());
}

// ---------------------------------------------------------------------------------------------
// The default file.
// ---------------------------------------------------------------------------------------------

void tst_worker_load::everyKeyOfDefaultFileIsCopied()
{
    const char* const file = R"({
        "type": 5, "id": "a", "value": {"int": 3}, "edit": {"min": 0, "max": 9},
        "modifiable": false, "disabled": true, "permission": "readOnly", "timestamp": 17,
        "encrypted": false, "title": "Volume", "description": "How loud",
        "longDescription": "How loud it is", "valueUnit": "dB", "custom": [1, {"a": null}],
        "encryptedValue": "x", "activate": 1, "setRoles": {}, "valueOperation": {}})";
    m->tree.writeDefault(path, QByteArray(file));

    QVariantHash expected = json(file);
    expected.insert(TuloRoles::DefaultValue(), json(R"({"int": 3})"));
    expected.insert(TuloRoles::Title(), translated("@settings/audio", "Volume"));
    expected.insert(TuloRoles::Description(), translated("@settings/audio", "How loud"));
    expected.insert(TuloRoles::LongDescription(), translated("@settings/audio", "How loud it is"));
    expected.insert(TuloRoles::ValueUnit(), translated("@settings/audio", "dB"));
    expected.insert(TuloRoles::Path(), pathRole(QStringLiteral("/settings/audio/volume")));
    bool doesExist = false;
    COMPARE_RECORDS(load(path, &doesExist), expected);
    QVERIFY(doesExist);
    QVERIFY(m->log.records().isEmpty());
}

void tst_worker_load::unsetTypeBecomesSettingAndOthersStay_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<int>("type");

    QTest::newRow("absent") << QByteArray(R"({"id": "a"})") << 101;
    QTest::newRow("zero") << QByteArray(R"({"type": 0})") << 101;
    QTest::newRow("not a number") << QByteArray(R"({"type": "setting"})") << 101;
    QTest::newRow("101") << QByteArray(R"({"type": 101})") << 101;
    QTest::newRow("directory's") << QByteArray(R"({"type": 1})") << 1;
    QTest::newRow("unknown") << QByteArray(R"({"type": 4711})") << 4711;
}

void tst_worker_load::unsetTypeBecomesSettingAndOthersStay()
{
    QFETCH(QByteArray, file);
    QFETCH(int, type);
    m->tree.writeDefault(path, file);

    QCOMPARE(load(path).__hashAttribute(TuloRoles::Type()).toInt(), type);
}

void tst_worker_load::pathRoleOfFileIsReplaced()
{
    m->tree.writeDefault(path, json(R"({"path": "/elsewhere"})"));

    const QVariant role = load(path).__hashAttribute(TuloRoles::Path());

    QVERIFY(CMPath::isIn(role));
    QCOMPARE(role.value<CMPath>().text(), QStringLiteral("/settings/audio/volume"));
}

void tst_worker_load::pathRoleFollowsPrefix()
{
    m->create({ { QStringLiteral("prefix"), QStringLiteral("/device") } });

    QCOMPARE(load(path).path().text(), QStringLiteral("/device/audio/volume"));
}

void tst_worker_load::titleFallsBackOnlyWhenKeyIsAbsent_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<QVariant>("title");

    QTest::newRow("absent") << QByteArray(R"({"id": "a"})")
                            << QVariant(TrString(QStringLiteral("volume")));
    // Contained, so it stays as it was read.
    QTest::newRow("empty") << QByteArray(R"({"title": ""})") << QVariant(QStringLiteral(""));
    QTest::newRow("null") << QByteArray(R"({"title": null})") << QVariant();
}

void tst_worker_load::titleFallsBackOnlyWhenKeyIsAbsent()
{
    QFETCH(QByteArray, file);
    QFETCH(QVariant, title);
    m->tree.writeDefault(path, file);

    const TuloRoles roles = load(path);

    QVERIFY(roles.__contains(TuloRoles::Title()));
    const QVariant role = roles.__hashAttribute(TuloRoles::Title());
    QCOMPARE(role.userType(), title.userType());
    QCOMPARE(role, title);
    QCOMPARE(roles.title().context(), QString());
}

// ---------------------------------------------------------------------------------------------
// The product default.
// ---------------------------------------------------------------------------------------------

void tst_worker_load::productDefaultHidesPlainDefault()
{
    m->tree.writeDefault(path, json(R"({"value": {"int": 3}, "id": "plain"})"));
    m->tree.writeDefault(path + QLatin1String("_car"), json(R"({"value": {"int": 5}})"));
    m->create({ { QStringLiteral("product_postfix"), QStringLiteral("car") } });

    COMPARE_RECORDS(load(path),
                    bareSettingWith(R"({"value": {"int": 5}, "defaultValue": {"int": 5}})"));
}

void tst_worker_load::productNameIsLookedUpWithEmptyPostfix_data()
{
    QTest::addColumn<bool>("isConfigured");

    QTest::newRow("no postfix") << false;
    QTest::newRow("empty postfix") << true;
}

void tst_worker_load::productNameIsLookedUpWithEmptyPostfix()
{
    QFETCH(bool, isConfigured);
    m->tree.writeDefault(path, json(R"({"id": "plain"})"));
    m->tree.writeDefault(path + QLatin1String("_"), json(R"({"id": "product"})"));
    if (isConfigured)
        m->create({ { QStringLiteral("product_postfix"), QStringLiteral("") } });

    QCOMPARE(load(path).id(), QStringLiteral("product"));
}

void tst_worker_load::productDefaultMustBeRegularFile()
{
    m->tree.writeDefault(path, json(R"({"id": "plain"})"));
    m->tree.makeDefaultDirectory(path + QLatin1String("_car"));
    m->create({ { QStringLiteral("product_postfix"), QStringLiteral("car") } });

    QCOMPARE(load(path).id(), QStringLiteral("plain"));
}

void tst_worker_load::productDefaultMayBeLink()
{
    m->tree.writeDefault(path, json(R"({"id": "plain"})"));
    m->tree.writeDefault(QStringLiteral("/product"), json(R"({"id": "product"})"));
    QVERIFY(QFile::link(m->tree.defaultPath() + QLatin1String("/product"),
                        m->tree.defaultPath() + path + QLatin1String("_car")));
    m->create({ { QStringLiteral("product_postfix"), QStringLiteral("car") } });

    QCOMPARE(load(path).id(), QStringLiteral("product"));
}

void tst_worker_load::productDefaultAloneMakesSettingExist()
{
    m->tree.writeDefault(path + QLatin1String("_car"), json(R"({"id": "product"})"));
    m->create({ { QStringLiteral("product_postfix"), QStringLiteral("car") } });

    QVERIFY(exists(path));
}

void tst_worker_load::emptyProductDefaultHidesPlainDefaultAndTakesTemplate()
{
    m->tree.writeDefault(QStringLiteral("/audio/.meta"), json(R"({"id": "template"})"));
    m->tree.writeDefault(path, json(R"({"id": "plain"})"));
    m->tree.writeDefault(path + QLatin1String("_car"), QByteArray("{}"));
    m->create({ { QStringLiteral("product_postfix"), QStringLiteral("car") } });

    QCOMPARE(load(path).id(), QStringLiteral("template"));
    QVERIFY(exists(path));
}

// ---------------------------------------------------------------------------------------------
// The template.
// ---------------------------------------------------------------------------------------------

void tst_worker_load::defaultFileWithoutRolesExistsAndTakesTemplate_data()
{
    QTest::addColumn<QByteArray>("file");

    for (const char* file : { "{}", "[]", R"("")", "0", "false" })
        QTest::newRow(file) << QByteArray(file);
}

void tst_worker_load::defaultFileWithoutRolesExistsAndTakesTemplate()
{
    QFETCH(QByteArray, file);
    m->tree.writeDefault(QStringLiteral("/audio/.meta"), json(R"({"id": "template"})"));
    m->tree.writeDefault(path, file);

    bool doesExist = false;
    COMPARE_RECORDS(load(path, &doesExist), bareSettingWith(R"({"id": "template"})"));
    QVERIFY(doesExist);
}

void tst_worker_load::nullDefaultFileDoesNotExistAndTakesTemplate()
{
    m->tree.writeDefault(QStringLiteral("/audio/.meta"), json(R"({"id": "template"})"));
    m->tree.writeDefault(path, QByteArray("null"));

    bool doesExist = true;
    COMPARE_RECORDS(load(path, &doesExist), bareSettingWith(R"({"id": "template"})"));
    QVERIFY(!doesExist);
    QVERIFY(m->log.records().isEmpty());
}

void tst_worker_load::templateGivesRolesAndNotExistence()
{
    m->tree.writeDefault(QStringLiteral("/audio/.meta"),
                         json(R"({"id": "template", "custom": 1, "disabled": true})"));

    bool doesExist = true;
    COMPARE_RECORDS(load(path, &doesExist),
                    bareSettingWith(R"({"id": "template", "custom": 1, "disabled": true})"));
    QVERIFY(!doesExist);
}

void tst_worker_load::templateIsNotMergedUnderDefaultFile()
{
    m->tree.writeDefault(QStringLiteral("/audio/.meta"), json(R"({"id": "template"})"));
    m->tree.writeDefault(path, json(R"({"custom": null})"));

    COMPARE_RECORDS(load(path), bareSettingWith(R"({"custom": null})"));
}

void tst_worker_load::templateOfTopLevelSettingLiesInTop()
{
    m->tree.writeDefault(QStringLiteral("/.meta"), json(R"({"id": "template"})"));

    QCOMPARE(load(QStringLiteral("/volume")).id(), QStringLiteral("template"));
}

void tst_worker_load::templateOfGrandparentIsNotUsed()
{
    m->tree.writeDefault(QStringLiteral("/.meta"), json(R"({"id": "template"})"));

    COMPARE_RECORDS(load(path), bareSetting());
}

void tst_worker_load::templateOfWriteTreeIsNotUsed()
{
    m->tree.writeWritten(QStringLiteral("/audio/.meta"), json(R"({"id": "template"})"));

    COMPARE_RECORDS(load(path), bareSetting());
}

void tst_worker_load::templateTypeStays()
{
    m->tree.writeDefault(QStringLiteral("/audio/.meta"), json(R"({"type": 7})"));

    COMPARE_RECORDS(load(path), bareSettingWith(R"({"type": 7})"));
}

void tst_worker_load::templateTextsGetContextOfChild()
{
    m->tree.writeDefault(QStringLiteral("/audio/.meta"), json(R"({"title": "Preset"})"));

    COMPARE_RECORDS(
        load(path),
        with(bareSetting(), TuloRoles::Title(), translated("@settings/audio", "Preset")));
}

void tst_worker_load::templateValueIsNoDefaultValue()
{
    m->tree.writeDefault(QStringLiteral("/audio/.meta"), json(R"({"value": {"int": 1}})"));

    COMPARE_RECORDS(load(path), bareSettingWith(R"({"value": {"int": 1}})"));
}

void tst_worker_load::writtenFileOverTemplateExists()
{
    m->tree.writeDefault(QStringLiteral("/audio/.meta"),
                         json(R"({"value": {"int": 1}, "custom": 1})"));
    m->tree.writeWritten(path, json(R"({"value": {"int": 2}})"));

    bool doesExist = false;
    COMPARE_RECORDS(load(path, &doesExist),
                    bareSettingWith(R"({"value": {"int": 2}, "custom": 1})"));
    QVERIFY(doesExist);
}

// ---------------------------------------------------------------------------------------------
// The written layer.
// ---------------------------------------------------------------------------------------------

void tst_worker_load::writtenRolesOverrideDefaults_data()
{
    QTest::addColumn<QByteArray>("written");
    QTest::addColumn<QByteArray>("merged");

    const auto row = [](const char* name, const char* written, const char* merged) {
        QTest::newRow(name) << QByteArray(written) << QByteArray(merged);
    };
    row("value", R"({"value": {"int": 4}})",
        R"({"value": {"int": 4}, "timestamp": 17, "id": "a", "defaultValue": {"int": 3}})");
    row("value of another kind", R"({"value": {"string": "4"}})",
        R"({"value": {"string": "4"}, "timestamp": 17, "id": "a", "defaultValue": {"int": 3}})");
    row("timestamp", R"({"timestamp": 18})",
        R"({"value": {"int": 3}, "timestamp": 18, "id": "a", "defaultValue": {"int": 3}})");
    row("id", R"({"id": "b"})",
        R"({"value": {"int": 3}, "timestamp": 17, "id": "b", "defaultValue": {"int": 3}})");
    row("encrypted value", R"({"encryptedValue": "x"})",
        R"({"value": {"int": 3}, "timestamp": 17, "id": "a", "defaultValue": {"int": 3},
            "encryptedValue": "x"})");
    row("all", R"({"value": {"int": 4}, "timestamp": 18, "id": "b", "encryptedValue": "x"})",
        R"({"value": {"int": 4}, "timestamp": 18, "id": "b", "defaultValue": {"int": 3},
            "encryptedValue": "x"})");
}

void tst_worker_load::writtenRolesOverrideDefaults()
{
    QFETCH(QByteArray, written);
    QFETCH(QByteArray, merged);
    m->tree.writeDefault(path, json(R"({"value": {"int": 3}, "timestamp": 17, "id": "a"})"));
    m->tree.writeWritten(path, written);

    COMPARE_RECORDS(load(path), bareSettingWith(merged.constData()));
}

void tst_worker_load::emptyWrittenRolesKeepDefaults()
{
    const char* const defaults =
        R"({"value": {"int": 3}, "timestamp": 17, "id": "a", "encryptedValue": "x"})";
    m->tree.writeDefault(path, json(defaults));
    m->tree.writeWritten(path,
                         json(R"({"value": {}, "timestamp": 0, "id": "", "encryptedValue": ""})"));

    COMPARE_RECORDS(
        load(path),
        with(bareSettingWith(defaults), TuloRoles::DefaultValue(), json(R"({"int": 3})")));
}

void tst_worker_load::otherWrittenKeysAreIgnored_data()
{
    QTest::addColumn<QByteArray>("written");

    for (const char* written :
         { R"({"disabled": true})", R"({"encrypted": true})", R"({"modifiable": false})",
           R"({"title": "Mine"})", R"({"description": "Mine"})", R"({"type": 5})",
           R"({"edit": {"max": 1}})", R"({"permission": "none"})", R"({"custom": 1})",
           R"({"defaultValue": {"int": 9}})", R"({"path": "/settings/other"})" })
        QTest::newRow(written) << QByteArray(written);
}

void tst_worker_load::otherWrittenKeysAreIgnored()
{
    QFETCH(QByteArray, written);
    m->tree.writeDefault(path, json(R"({"value": {"int": 3}})"));
    m->tree.writeWritten(path, written);

    COMPARE_RECORDS(load(path),
                    bareSettingWith(R"({"value": {"int": 3}, "defaultValue": {"int": 3}})"));
}

void tst_worker_load::writtenFileMakesSettingExist_data()
{
    QTest::addColumn<QByteArray>("written");
    QTest::addColumn<bool>("expected");

    QTest::newRow("value") << QByteArray(R"({"value": {"int": 3}})") << true;
    QTest::newRow("ignored keys only") << QByteArray(R"({"custom": null})") << true;
    QTest::newRow("empty object") << QByteArray("{}") << false;
    QTest::newRow("list") << QByteArray("[1]") << false;
    QTest::newRow("null") << QByteArray("null") << false;
}

void tst_worker_load::writtenFileMakesSettingExist()
{
    QFETCH(QByteArray, written);
    QFETCH(bool, expected);
    m->tree.writeWritten(path, written);

    QCOMPARE(exists(path), expected);
}

void tst_worker_load::writtenValueRemovesEncryptedDefault()
{
    m->tree.writeDefault(path, json(R"({"encrypted": true, "encryptedValue": "x"})"));
    m->tree.writeWritten(path, json(R"({"value": {"int": 4}})"));

    COMPARE_RECORDS(load(path), bareSettingWith(R"({"encrypted": true, "value": {"int": 4}})"));
}

void tst_worker_load::writtenEncryptedValueComesBackAfterWrittenValue()
{
    m->tree.writeDefault(path, json(R"({"encrypted": true, "encryptedValue": "x"})"));
    m->tree.writeWritten(path, json(R"({"value": {"int": 4}, "encryptedValue": "y"})"));

    COMPARE_RECORDS(
        load(path),
        bareSettingWith(R"({"encrypted": true, "value": {"int": 4}, "encryptedValue": "y"})"));
}

void tst_worker_load::writtenEncryptedValueReplacesDefaultOne()
{
    m->tree.writeDefault(path, json(R"({"encrypted": true, "encryptedValue": "x"})"));
    m->tree.writeWritten(path, json(R"({"encryptedValue": "y"})"));

    COMPARE_RECORDS(load(path), bareSettingWith(R"({"encrypted": true, "encryptedValue": "y"})"));
}

// ---------------------------------------------------------------------------------------------
// The default value.
// ---------------------------------------------------------------------------------------------

void tst_worker_load::defaultValueIsValueOfDefaultFile()
{
    m->tree.writeDefault(path, json(R"({"value": {"int": 3}})"));
    m->tree.writeWritten(path, json(R"({"value": {"int": 4}})"));

    COMPARE_RECORDS(load(path),
                    bareSettingWith(R"({"value": {"int": 4}, "defaultValue": {"int": 3}})"));
}

void tst_worker_load::defaultValueOfFileStaysWithoutValue()
{
    m->tree.writeDefault(path, json(R"({"defaultValue": {"int": 3}})"));

    COMPARE_RECORDS(load(path), bareSettingWith(R"({"defaultValue": {"int": 3}})"));
}

void tst_worker_load::defaultValueOfFileIsReplacedByValue()
{
    m->tree.writeDefault(path, json(R"({"defaultValue": {"int": 3}, "value": {"int": 5}})"));

    COMPARE_RECORDS(load(path),
                    bareSettingWith(R"({"defaultValue": {"int": 5}, "value": {"int": 5}})"));
}

void tst_worker_load::emptyValueOfFileGivesNoDefaultValue()
{
    m->tree.writeDefault(path, json(R"({"value": {}})"));

    COMPARE_RECORDS(load(path), bareSettingWith(R"({"value": {}})"));
}

// ---------------------------------------------------------------------------------------------
// Directories.
// ---------------------------------------------------------------------------------------------

void tst_worker_load::directoryRolesComeFromMeta()
{
    m->tree.writeDefault(QStringLiteral("/audio/.meta"),
                         json(R"({"id": "a", "value": {"int": 1}, "custom": [1]})"));
    m->tree.writeWritten(QStringLiteral("/audio/.meta"),
                         json(R"({"id": "b", "value": {"int": 2}, "other": 1})"));

    QVariantHash expected = json(R"({"id": "a", "value": {"int": 1}, "custom": [1], "type": 1})");
    expected.insert(TuloRoles::Title(), TrString(QStringLiteral("audio")));
    expected.insert(TuloRoles::Path(), pathRole(QStringLiteral("/settings/audio")));
    bool doesExist = false;
    COMPARE_RECORDS(load(QStringLiteral("/audio"), &doesExist), expected);
    QVERIFY(doesExist);
}

void tst_worker_load::directoryTypeIsOneWhateverMetaSays_data()
{
    QTest::addColumn<QByteArray>("meta");

    for (const char* meta : { "{}", R"({"type": 0})", R"({"type": 101})", R"({"type": "x"})" })
        QTest::newRow(meta) << QByteArray(meta);
}

void tst_worker_load::directoryTypeIsOneWhateverMetaSays()
{
    QFETCH(QByteArray, meta);
    m->tree.writeDefault(QStringLiteral("/audio/.meta"), meta);

    QCOMPARE(load(QStringLiteral("/audio")).__hashAttribute(TuloRoles::Type()), QVariant(1));
}

void tst_worker_load::directoryTextsAreNotTranslated()
{
    m->tree.writeDefault(QStringLiteral("/audio/.meta"),
                         json(R"({"title": "Sound", "description": "All about sound"})"));

    const TuloRoles roles = load(QStringLiteral("/audio"));

    const QVariant title = roles.__hashAttribute(TuloRoles::Title());
    QCOMPARE(title.userType(), int(QMetaType::QString));
    QCOMPARE(title.toString(), QStringLiteral("Sound"));
    QCOMPARE(roles.__hashAttribute(TuloRoles::Description()).userType(), int(QMetaType::QString));
}

void tst_worker_load::directoryTitleFallsBackToName()
{
    m->tree.makeDefaultDirectory(QStringLiteral("/audio/presets"));

    const QVariant title =
        load(QStringLiteral("/audio/presets")).__hashAttribute(TuloRoles::Title());

    QCOMPARE(title, QVariant(TrString(QStringLiteral("presets"))));
}

void tst_worker_load::directoryInWriteTreeOnlyTakesMetaOfDefaultTree()
{
    m->tree.makeWriteDirectory(QStringLiteral("/audio"));
    m->tree.writeWritten(QStringLiteral("/audio/.meta"), json(R"({"id": "written"})"));
    m->create();
    m->log.setLevel(log4cplus::TRACE_LOG_LEVEL);

    load(QStringLiteral("/audio"));

    QCOMPARE(m->loadedFiles(), QStringList(m->tree.defaultPath() + QLatin1String("/audio/.meta")));
}

void tst_worker_load::directoryInWriteTreeOnlyHasBareRoles()
{
    m->tree.makeWriteDirectory(QStringLiteral("/audio"));
    m->tree.writeDefault(QStringLiteral("/.meta"), json(R"({"id": "template"})"));

    QVariantHash expected { { TuloRoles::Type(), 1 },
                            { TuloRoles::Title(), TrString(QStringLiteral("audio")) },
                            { TuloRoles::Path(), pathRole(QStringLiteral("/settings/audio")) } };
    bool doesExist = false;
    COMPARE_RECORDS(load(QStringLiteral("/audio"), &doesExist), expected);
    QVERIFY(doesExist);
}

void tst_worker_load::directoryInWriteTreeHidesDefaultFile()
{
    m->tree.writeDefault(QStringLiteral("/audio"), json(R"({"id": "setting"})"));
    m->tree.makeWriteDirectory(QStringLiteral("/audio"));

    const TuloRoles roles = load(QStringLiteral("/audio"));

    QCOMPARE(int(roles.type()), 1);
    QCOMPARE(roles.id(), QString());
}

void tst_worker_load::directoryInDefaultTreeHidesWrittenFile()
{
    m->tree.makeDefaultDirectory(QStringLiteral("/audio"));
    m->tree.writeWritten(QStringLiteral("/audio"), json(R"({"id": "setting"})"));

    const TuloRoles roles = load(QStringLiteral("/audio"));

    QCOMPARE(int(roles.type()), 1);
    QCOMPARE(roles.id(), QString());
}

void tst_worker_load::rootDirectoryHasEmptyTitleAndPrefixPath()
{
    m->tree.writeDefault(QStringLiteral("/.meta"), json(R"({"id": "top"})"));

    QVariantHash expected = json(R"({"id": "top", "type": 1})");
    expected.insert(TuloRoles::Title(), TrString(QString()));
    expected.insert(TuloRoles::Path(), pathRole(QStringLiteral("/settings")));
    COMPARE_RECORDS(load(QStringLiteral("/")), expected);
}

void tst_worker_load::linkToDirectoryIsDirectory()
{
    m->tree.writeDefault(QStringLiteral("/audio/.meta"), json(R"({"id": "a"})"));
    QVERIFY(QFile::link(m->tree.defaultPath() + QLatin1String("/audio"),
                        m->tree.defaultPath() + QLatin1String("/sound")));

    const TuloRoles roles = load(QStringLiteral("/sound"));

    QCOMPARE(int(roles.type()), 1);
    QCOMPARE(roles.id(), QStringLiteral("a"));
}

// ---------------------------------------------------------------------------------------------
// The cache.
// ---------------------------------------------------------------------------------------------

void tst_worker_load::secondLoadComesFromCache_data()
{
    QTest::addColumn<QString>("settingPath");
    QTest::addColumn<bool>("expected");

    QTest::newRow("setting") << path << true;
    QTest::newRow("directory") << QStringLiteral("/audio") << true;
    QTest::newRow("missing") << QStringLiteral("/audio/missing") << false;
}

void tst_worker_load::secondLoadComesFromCache()
{
    QFETCH(QString, settingPath);
    QFETCH(bool, expected);
    m->tree.writeDefault(path, json(R"({"value": {"int": 3}})"));
    const TuloRoles first = load(settingPath);
    // Whatever is read from the disk now differs.
    for (const QString& name : { path, QStringLiteral("/audio/missing") })
        m->tree.writeWritten(name, json(R"({"id": "new", "value": {"int": 9}})"));
    m->tree.writeDefault(QStringLiteral("/audio/.meta"), json(R"({"id": "new"})"));
    m->log.setLevel(log4cplus::TRACE_LOG_LEVEL);

    bool doesExist = !expected;
    const TuloRoles second = load(settingPath, &doesExist);

    QCOMPARE(doesExist, expected);
    COMPARE_RECORDS(second, first);
    // Nothing else happens.
    const QStringList messages { QStringLiteral("Enter CMSettingsWorker::load: ") + settingPath,
                                 QStringLiteral("Value already cached: ") + textOf(first) };
    QCOMPARE(m->log.messages(log4cplus::TRACE_LOG_LEVEL), messages);
    QCOMPARE(m->log.take().size(), 2);
}

void tst_worker_load::existsFlagIsOptional()
{
    m->tree.writeDefault(path, json(R"({"id": "a"})"));

    const TuloRoles first = load(path, nullptr);
    const TuloRoles second = load(path, nullptr);

    COMPARE_RECORDS(second, first);
}

void tst_worker_load::cachedRecordIsCopied()
{
    m->tree.writeDefault(path, json(R"({"id": "a"})"));

    TuloRoles roles = load(path);
    roles.setId(QStringLiteral("changed"));

    QCOMPARE(load(path).id(), QStringLiteral("a"));
}

void tst_worker_load::everyRecordCostsOne()
{
    m->tree.makeDefaultDirectory(QStringLiteral("/audio"));
    for (const char* name : { "/audio", "/audio/volume", "/missing", "/" })
        load(QString::fromLatin1(name));
    load(path);

    QCOMPARE(m->worker->m_valueCache.size(), 4);
    QCOMPARE(m->worker->m_valueCache.totalCost(), 4);
    QVERIFY(m->worker->m_valueCache.contains(path));
}

void tst_worker_load::leastRecentlyUsedOf301IsEvicted()
{
    const auto name = [](int number) {
        return QStringLiteral("/setting-%1").arg(number);
    };
    for (int number = 0; number < 300; ++number)
        load(name(number));
    const auto& cache = m->worker->m_valueCache;
    QCOMPARE(cache.size(), 300);
    load(name(0)); // read again, so the next one is the oldest now

    load(name(300));

    QCOMPARE(cache.size(), 300);
    QVERIFY(cache.contains(name(0)));
    QVERIFY(!cache.contains(name(1)));
    QVERIFY(cache.contains(name(2)));
    QVERIFY(cache.contains(name(300)));
}

void tst_worker_load::missingSettingIsCachedLikeOthers()
{
    QVERIFY(!exists(path));
    m->tree.writeDefault(path, json(R"({"id": "a"})"));

    QVERIFY(!exists(path));
}

void tst_worker_load::changedFileIsSeenAfterDropCache()
{
    m->tree.writeDefault(path, json(R"({"id": "a"})"));
    load(path);
    m->tree.writeDefault(path, json(R"({"id": "b"})"));
    QCOMPARE(load(path).id(), QStringLiteral("a"));

    activate(m->worker.get(), TuloSettingsActionsDropCache());

    QCOMPARE(load(path).id(), QStringLiteral("b"));
}

void tst_worker_load::loadTakesNoLock()
{
    m->create();
    const HeldElsewhere held(&m->worker->m_mutex);

    load(path);
    load(path);
}

QTEST_GUILESS_MAIN(tst_worker_load)
#include "tst_worker_load.moc"
