#include "engine/localsettings.h"

#include "tests/support/logcapture.h"
#include "tests/support/temporarytree.h"
#include "tests/support/waituntil.h"

#include <tulo/rowsmodel.h>
#include <tulo/setting.h>
#include <tulo/testsettings.h>

#include <QAbstractItemModelTester>
#include <QPersistentModelIndex>
#include <QSignalSpy>
#include <QTest>

#include <functional>
#include <memory>

// No test waits for a disk.
extern "C" int syncfs(int)
{
    return 0;
}

using namespace tulo;

namespace {

const QString audio = QStringLiteral("/settings/audio");
const QString volumePath = QStringLiteral("/settings/audio/volume");

/// Settings of any kind, on a small temporary tree.
class Served
{
public:
    virtual ~Served() = default;
    virtual void writeDefault(const QString& settingPath, const QByteArray& json) = 0;
    virtual bool start() = 0;
    virtual Settings& settings() = 0;
};

class ServedHere : public Served
{
public:
    void writeDefault(const QString& settingPath, const QByteArray& json) override
    {
        m_tree.writeDefault(settingPath, json);
    }
    bool start() override
    {
        EngineOptions options;
        options.pluginFile = QStringLiteral(TULO_PLUGIN_FILE);
        options.defaultPath = m_tree.defaultPath();
        options.writePath = m_tree.writePath();
        options.access = EngineOptions::Access::Own;
        EngineFailure failure;
        m_settings = LocalSettings::open(options, &failure);
        return m_settings != nullptr;
    }
    Settings& settings() override { return *m_settings; }

private:
    const LogCapture m_log; ///< what the worker logs is for its own tests
    TemporaryTree m_tree;
    std::unique_ptr<LocalSettings> m_settings;
};

class ServedOnABus : public Served
{
public:
    void writeDefault(const QString& settingPath, const QByteArray& json) override
    {
        m_test.writeDefault(QStringLiteral("/settings") + settingPath, json);
    }
    bool start() override
    {
        const bool isStarted = m_test.start();
        if (!isStarted)
            qWarning("%s", qPrintable(m_test.error()));
        return isStarted;
    }
    Settings& settings() override { return m_test.settings(); }

private:
    TestSettings m_test;
};

/// With so many settings in one more directory: n000, n001, ...
std::unique_ptr<Served> serve(int many = 0)
{
    QFETCH_GLOBAL(QString, kind);
    std::unique_ptr<Served> served;
    if (kind == QLatin1String("local"))
        served = std::make_unique<ServedHere>();
    else
        served = std::make_unique<ServedOnABus>();
    served->writeDefault(QStringLiteral("/audio/.meta"), R"({"title":"Audio","modifiable":false})");
    served->writeDefault(QStringLiteral("/audio/mode"),
                         R"({"value":{"string":"mid"},"edit":{"values":["low","mid","high"]}})");
    served->writeDefault(QStringLiteral("/audio/volume"),
                         R"({"title":"Volume","value":{"int":35},"valueUnit":"%",)"
                         R"("edit":{"kind":"int","min":0,"max":100,"step":5}})");
    served->writeDefault(QStringLiteral("/presets/.meta"),
                         R"({"title":"Preset","defaultValue":{"string":"fm:87.5"}})");
    served->writeDefault(QStringLiteral("/presets/one"), "{}");
    served->writeDefault(QStringLiteral("/presets/two"), "{}");
    served->writeDefault(QStringLiteral("/secret"),
                         R"({"encrypted":true,"value":{"string":"old"}})");
    for (int i = 0; i < many; ++i)
        served->writeDefault(QStringLiteral("/many/n%1").arg(i, 3, 10, QLatin1Char('0')),
                             QByteArray(R"({"value":{"int":)") + QByteArray::number(i) + "}}");
    if (!served->start())
        qFatal("the settings cannot be served");
    return served;
}

template<typename T>
bool becomesReady(const Setting<T>& setting)
{
    return waitUntil([&] { return setting.isReady() || setting.error(); }) && setting.isReady();
}

QStringList names(const RowsModel& model)
{
    QStringList names;
    for (int i = 0; i < model.rowCount(); ++i)
        names.append(model.index(i, 0).data().toString());
    return names;
}

bool becomesLoaded(const RowsModel& model)
{
    return waitUntil([&] { return model.isReady() && !names(model).contains(QString()); });
}

} // namespace

/// Settings and rows as objects, on a real worker: in this process, and behind a bus.
class TstObjects : public QObject
{
    Q_OBJECT

public:
    enum Mode { low, mid, high };
    Q_ENUM(Mode)

private slots:
    void initTestCase_data();

    void settingFollowsEveryClient();
    void changeTellsWhatCameOfIt();
    void valueOfAnotherTypeIsAnError();
    void pathThatNamesNothingIsAnError();
    void settingThatIsMadeLaterBecomesReady();
    void encryptedSettingIsReadAgain();
    void enumerationByKey();
    void detailsComeWhenAskedFor();
    void setSoonEndsOnTheLastValue();
    void settledTellsOfAnAdjustedValue();

    void modelShowsTheDirectory();
    void modelFollowsValues();
    void modelFollowsNewRows();
    void modelPagesThroughLongDirectories();
    void modelKeepsRowsThatChangedWhileItWasLoading();

    void objectsFollowAReset();
};

void TstObjects::initTestCase_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addRow("in this process") << QStringLiteral("local");
    QTest::addRow("behind a bus") << QStringLiteral("remote");
}

void TstObjects::settingFollowsEveryClient()
{
    const auto served = serve();
    Setting<qint64> first(&served->settings(), volumePath, 1);
    Setting<qint64> second(&served->settings(), volumePath, 2);
    QVERIFY(becomesReady(first) && becomesReady(second));
    QCOMPARE(first.value(), qint64(35));
    QSignalSpy firstChanged(&first, &AnySetting::changed);
    QSignalSpy secondChanged(&second, &AnySetting::changed);

    QVERIFY(first.set(40).wait());
    QVERIFY(served->settings().apply(volumePath, QStringLiteral("add"), 5).wait());
    QVERIFY(waitUntil([&] { return second.value() == 45; }));

    QCOMPARE(first.value(), qint64(45));
    QCOMPARE(firstChanged.count(), 2);
    QCOMPARE(secondChanged.count(), 2);
}

void TstObjects::changeTellsWhatCameOfIt()
{
    const auto served = serve();
    Setting<qint64> setting(&served->settings(), volumePath);
    Setting<QString> mode(&served->settings(), QStringLiteral("/settings/audio/mode"));
    QVERIFY(becomesReady(setting) && becomesReady(mode));

    const Reply<Change> adjusted = setting.set(1000);
    QVERIFY(adjusted.wait());
    QVERIFY(adjusted.value().isAdjusted);
    QCOMPARE(adjusted.value().asked, QVariant(1000LL));
    QCOMPARE(setting.value(), qint64(100));

    const Reply<Change> rejected = mode.set(QStringLiteral("medium"));
    QVERIFY(!rejected.wait());
    QCOMPARE(rejected.error().code, ErrorCode::Rejected);
    QCOMPARE(mode.value(), QStringLiteral("mid"));
    QVERIFY(!mode.error());
}

void TstObjects::valueOfAnotherTypeIsAnError()
{
    const auto served = serve();
    const Setting<double> setting(&served->settings(), volumePath, 0.5);

    QVERIFY(!becomesReady(setting));

    QCOMPARE(setting.value(), 0.5);
    QCOMPARE(setting.error().code, ErrorCode::Rejected);
}

void TstObjects::pathThatNamesNothingIsAnError()
{
    const auto served = serve();
    const Setting<bool> nothing(&served->settings(), QStringLiteral("/settings/nothing"), true);
    const Setting<bool> refused(&served->settings(), QStringLiteral("/settings/../etc"), true);

    QVERIFY(!becomesReady(nothing) && !becomesReady(refused));

    QVERIFY(nothing.value() && refused.value());
    QCOMPARE(nothing.error().code, ErrorCode::InvalidPath);
    QCOMPARE(refused.error().code, ErrorCode::Refused);
}

void TstObjects::settingThatIsMadeLaterBecomesReady()
{
    const auto served = serve();
    Setting<QString> preset(&served->settings(), QStringLiteral("/settings/presets/three"));
    QVERIFY(!becomesReady(preset));

    QVERIFY(preset.set(QStringLiteral("fm:98.5")).wait());

    QVERIFY(preset.isReady());
    QVERIFY(!preset.error());
    QCOMPARE(preset.value(), QStringLiteral("fm:98.5"));
}

void TstObjects::encryptedSettingIsReadAgain()
{
    const auto served = serve();
    const QString path = QStringLiteral("/settings/secret");
    Setting<QString> setting(&served->settings(), path);
    Setting<QString> other(&served->settings(), path);
    QVERIFY(becomesReady(setting) && becomesReady(other));

    QVERIFY(setting.set(QStringLiteral("new")).wait());

    QVERIFY(waitUntil([&] { return other.value() == QLatin1String("new"); }));
    QVERIFY(waitUntil([&] { return setting.value() == QLatin1String("new"); }));
}

void TstObjects::enumerationByKey()
{
    const auto served = serve();
    Setting<Mode> setting(&served->settings(), QStringLiteral("/settings/audio/mode"), low);
    QVERIFY(becomesReady(setting));
    QCOMPARE(setting.value(), mid);

    QVERIFY(setting.set(high).wait());

    QCOMPARE(setting.value(), high);
    QCOMPARE(setting.AnySetting::value(), QVariant(QStringLiteral("high")));
}

void TstObjects::detailsComeWhenAskedFor()
{
    const auto served = serve();
    Setting<qint64> setting(&served->settings(), volumePath);
    QSignalSpy details(&setting, &AnySetting::detailsChanged);
    QVERIFY(becomesReady(setting));
    QCOMPARE(setting.title(), QString());

    QVERIFY(details.wait(ChildProcess::waitMs));

    QCOMPARE(setting.title(), QStringLiteral("Volume"));
    QCOMPARE(setting.unit(), QStringLiteral("%"));
    QCOMPARE(setting.defaultValue(), QVariant(35LL));
    QCOMPARE(setting.minimum(), QVariant(0LL));
    QCOMPARE(setting.maximum(), QVariant(100LL));
    QCOMPARE(setting.step(), QVariant(5LL));
    QVERIFY(setting.isModifiable());
}

void TstObjects::setSoonEndsOnTheLastValue()
{
    const auto served = serve(1);
    const QString path = QStringLiteral("/settings/many/n000");
    Setting<qint64> setting(&served->settings(), path);
    QVERIFY(becomesReady(setting));
    const auto watch = served->settings().watch(path);
    int changes = 0;
    connect(watch.get(), &Watch::changed, this,
            [&](const Event& event) { changes += event.kind == Event::Kind::Value ? 1 : 0; });
    bool isSettled = false;
    connect(&setting, &AnySetting::settled, this, [&] { isSettled = true; });

    for (int value = 1; value <= 1000; ++value)
        setting.setSoon(value);
    QVERIFY(waitUntil([&] { return isSettled; }));

    QCOMPARE(setting.value(), qint64(1000));
    QCOMPARE(changes, 2);
}

void TstObjects::settledTellsOfAnAdjustedValue()
{
    const auto served = serve();
    Setting<qint64> setting(&served->settings(), volumePath);
    QVERIFY(becomesReady(setting));
    QSignalSpy changed(&setting, &AnySetting::changed);
    QSignalSpy settled(&setting, &AnySetting::settled);

    setting.setSoon(36);
    QVERIFY(settled.wait(ChildProcess::waitMs));

    QCOMPARE(setting.value(), qint64(35));
    QCOMPARE(changed.count(), 0);
}

void TstObjects::modelShowsTheDirectory()
{
    const auto served = serve();
    const RowsModel model(&served->settings(), QStringLiteral("/settings"));
    const QAbstractItemModelTester tester(const_cast<RowsModel*>(&model));

    QVERIFY(becomesLoaded(model));

    QCOMPARE(names(model).join(QLatin1Char(' ')), QStringLiteral("audio presets secret"));
    QCOMPARE(model.index(0, 0).data(RowsModel::IsDirectoryRole), QVariant(true));
    QCOMPARE(model.index(2, 0).data(RowsModel::IsDirectoryRole), QVariant(false));
    QCOMPARE(model.index(0, 2).data(), QVariant(QStringLiteral("Audio")));
    QCOMPARE(model.index(2, 1).data(), QVariant(QStringLiteral("old")));
}

void TstObjects::modelFollowsValues()
{
    const auto served = serve();
    const RowsModel model(&served->settings(), audio);
    const QAbstractItemModelTester tester(const_cast<RowsModel*>(&model));
    QVERIFY(becomesLoaded(model));
    QCOMPARE(model.index(1, 1).data(), QVariant(35LL));

    QVERIFY(served->settings().set(volumePath, 40).wait());

    QVERIFY(waitUntil([&] { return model.index(1, 1).data() == QVariant(40LL); }));
    QCOMPARE(names(model).join(QLatin1Char(' ')), QStringLiteral("mode volume"));
}

void TstObjects::modelFollowsNewRows()
{
    const auto served = serve();
    const RowsModel model(&served->settings(), QStringLiteral("/settings/presets"));
    const QAbstractItemModelTester tester(const_cast<RowsModel*>(&model));
    QSignalSpy resets(&model, &RowsModel::modelReset);
    QVERIFY(becomesLoaded(model));
    const QPersistentModelIndex selected = model.index(1, 0);

    QVERIFY(served->settings()
                .set(QStringLiteral("/settings/presets/three"), QStringLiteral("fm:98.5"))
                .wait());
    QVERIFY(waitUntil([&] { return model.rowCount() == 3; }));
    QVERIFY(becomesLoaded(model));

    QCOMPARE(names(model).join(QLatin1Char(' ')), QStringLiteral("one three two"));
    QCOMPARE(selected.data(), QVariant(QStringLiteral("two")));
    QCOMPARE(resets.count(), 0);
}

void TstObjects::modelPagesThroughLongDirectories()
{
    const auto served = serve(200);
    const RowsModel model(&served->settings(), QStringLiteral("/settings/many"));
    const QAbstractItemModelTester tester(const_cast<RowsModel*>(&model));
    QVERIFY(waitUntil([&] { return model.isReady(); }));
    QCOMPARE(model.rowCount(), 200);

    QVERIFY(becomesLoaded(model));

    for (int row = 0; row < 200; ++row)
        QCOMPARE(model.index(row, 1).data(), QVariant(qlonglong(row)));
}

void TstObjects::modelKeepsRowsThatChangedWhileItWasLoading()
{
    const auto served = serve(200);
    const RowsModel model(&served->settings(), QStringLiteral("/settings/many"));
    const QAbstractItemModelTester tester(const_cast<RowsModel*>(&model));
    const auto path = [](int row) {
        return QStringLiteral("/settings/many/n%1").arg(row, 3, 10, QLatin1Char('0'));
    };
    QVERIFY(waitUntil([&] { return model.isReady(); }));

    for (int row = 0; row < 200; ++row) {
        model.index(row, 0).data();
        (void)served->settings().set(path(row), 1000 + row);
        QCoreApplication::processEvents();
    }
    QVERIFY(waitUntil([&] {
        for (int row = 0; row < 200; ++row) {
            if (model.index(row, 1).data() != QVariant(qlonglong(1000 + row)))
                return false;
        }
        return true;
    }));
}

void TstObjects::objectsFollowAReset()
{
    const auto served = serve();
    const QString presets = QStringLiteral("/settings/presets");
    const QString third = QStringLiteral("/settings/presets/three");
    const QString secret = QStringLiteral("/settings/secret");
    const QString value = QStringLiteral("fm:99");
    for (const QString& path : { third, presets + QStringLiteral("/alpha") })
        QVERIFY(served->settings().set(path, value).wait());
    QVERIFY(served->settings().set(volumePath, 40).wait());
    QVERIFY(served->settings().set(secret, QStringLiteral("new")).wait());
    Setting<qint64> volume(&served->settings(), volumePath);
    Setting<QString> preset(&served->settings(), third);
    Setting<QString> hidden(&served->settings(), secret);
    RowsModel audioRows(&served->settings(), audio, { QStringLiteral("value") });
    RowsModel presetRows(&served->settings(), presets, { QStringLiteral("value") });
    const QAbstractItemModelTester tester(&presetRows);
    QVERIFY(becomesReady(volume) && becomesReady(preset) && becomesReady(hidden));
    QVERIFY(becomesLoaded(audioRows) && becomesLoaded(presetRows));
    QCOMPARE(names(presetRows).join(QLatin1Char(' ')), QStringLiteral("alpha one three two"));
    const QPersistentModelIndex last = presetRows.index(3, 0);
    QSignalSpy removed(&presetRows, &QAbstractItemModel::rowsRemoved);
    QSignalSpy resets(&presetRows, &QAbstractItemModel::modelReset);

    QVERIFY(served->settings()
                .reset({ volumePath, third, presets + QStringLiteral("/alpha"), secret })
                .wait());

    QVERIFY(waitUntil([&] { return preset.error().code == ErrorCode::InvalidPath; }));
    QVERIFY(waitUntil([&] { return hidden.value() == QLatin1String("old"); }));
    QCOMPARE(volume.value(), qint64(35));
    QCOMPARE(preset.value(), value);
    QVERIFY(waitUntil([&] { return audioRows.index(1, 1).data() == QVariant(35LL); }));
    QCOMPARE(names(presetRows).join(QLatin1Char(' ')), QStringLiteral("one two"));
    QCOMPARE(removed.count(), 2);
    QCOMPARE(resets.count(), 0);
    QCOMPARE(last.row(), 1);

    // And go on following.
    QVERIFY(preset.set(QStringLiteral("fm:100")).wait());
    QVERIFY(waitUntil([&] { return preset.value() == QLatin1String("fm:100"); }));
    QVERIFY(!preset.error());
    QVERIFY(waitUntil([&] {
        return names(presetRows).join(QLatin1Char(' ')) == QLatin1String("one three two");
    }));
    QVERIFY(volume.set(45).wait());
    QVERIFY(waitUntil([&] { return audioRows.index(1, 1).data() == QVariant(45LL); }));
}

QTEST_GUILESS_MAIN(TstObjects)
#include "tst_objects.moc"
