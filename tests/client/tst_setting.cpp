#include "tests/client/scriptedsettings.h"

#include <tulo/setting.h>

#include <QSignalSpy>
#include <QTest>

#include <limits>
#include <memory>
#include <vector>

using namespace tulo;

namespace {

QString path()
{
    return QStringLiteral("/settings/a");
}

QVariantMap valueRoles(const QVariant& value)
{
    return { { QStringLiteral("value"), value } };
}

/// Has what was posted for this turn of the event loop done.
void turn()
{
    QCoreApplication::sendPostedEvents();
}

/// Answers the first read under way: a node for each value.
void answer(ScriptedSettings* settings, const QVariantList& values)
{
    QVector<Node> nodes;
    for (const QVariant& value : values)
        nodes.append({ QString(), valueRoles(value), {} });
    settings->manyReads.takeFirst().finish(nodes);
}

void answerError(ScriptedSettings* settings, ErrorCode code)
{
    settings->manyReads.takeFirst().finish(
        { { path(), {}, { code, QStringLiteral("failed"), path() } } });
}

Change stored(const QVariant& value)
{
    Change change;
    change.stored = valueRoles(value);
    return change;
}

} // namespace

/// Settings as objects, on settings that do exactly what each test says.
class TstSetting : public QObject
{
    Q_OBJECT

public:
    enum Mode { low, mid, high };
    Q_ENUM(Mode)
    enum class Plain { First, Second };

private slots:
    void fallbackStaysUntilTheSettingsAnswer();
    void subscribesBeforeItReads();
    void oneRequestReadsAllSettingsOfOneTurn();
    void manySettingsAreReadBySeveralRequests();
    void settingDestroyedBeforeItWasReadIsNotAskedFor();
    void settingDestroyedWhileItIsReadIsForgotten();
    void changedOnlyWhenTheValueDiffers();
    void eachTypeTakesItsValues();
    void valueOfAnotherTypeIsAnError_data();
    void valueOfAnotherTypeIsAnError();
    void valueOfAnotherTypeKeepsTheLastOne();
    void listElementsCompareWithTheirTypes();
    void absentValueIsAnError();
    void untypedSettingTakesEveryType();
    void enumerationIsTakenByNumberOrKey();
    void enumerationWithoutKeysIsNumbers();
    void eventWithoutValueReads();
    void dataEventAloneReads();
    void dataEventAfterAValueReadsNothing();
    void missedReadsAgainAndTellsDifferencesOnly();
    void unavailableSettingIsReadWhenTheSettingsAreReady();
    void unavailableSettingIsReadAgainOnceHoweverOftenItFailed();
    void otherErrorsStayUntilTheNextValue();
    void failedWatchIsAnErrorUntilEventsAreComplete();
    void failedRequestIsAnErrorOfAllItsSettings();
    void detailsAreRequestedWhenFirstAskedFor();
    void detailsFollowDataEventsButNotValues();
    void detailsOfUnavailableSettingComeLater();
    void setSendsAndWaitsForTheSettings();
    void setTakesTheAnswerWhenNoEventCame();
    void eventAfterTheChangeIsNewerThanItsAnswer();
    void dryRunChangesNothing();
    void setSoonHasOneChangeUnderWay();
    void setSoonSettlesOnAdjustedValue();
    void setSoonFailureIsAnError();
    void setDropsPendingSetSoon();
    void destroyedSettingSendsPendingSetSoon();
    void handlerMayAskForTheNextChange();
    void settingsMayBeDestroyedFirst();
    void handlerMayDestroyTheSetting();
    void handlerMayDestroyTheSettings();
    void propertiesAreForBindings();
};

void TstSetting::fallbackStaysUntilTheSettingsAnswer()
{
    ScriptedSettings settings;
    Setting<qint64> setting(&settings, path(), 35);
    QSignalSpy changed(&setting, &AnySetting::changed);
    QSignalSpy ready(&setting, &AnySetting::readyChanged);

    turn();
    QCOMPARE(setting.value(), qint64(35));
    QCOMPARE(setting.AnySetting::value(), QVariant(35LL));
    QVERIFY(!setting.isReady());

    answer(&settings, { 40LL });
    QCOMPARE(setting.value(), qint64(40));
    QCOMPARE(setting.AnySetting::value(), QVariant(40LL));
    QVERIFY(setting.isReady());
    QCOMPARE(changed.count(), 1);
    QCOMPARE(ready.count(), 1);
}

void TstSetting::subscribesBeforeItReads()
{
    ScriptedSettings settings;
    {
        const Setting<bool> setting(&settings, path());
        turn();
    }

    QCOMPARE(
        settings.log,
        QStringList({ QStringLiteral("+/settings/a"), QStringLiteral("getMany /settings/a value"),
                      QStringLiteral("-/settings/a") }));
}

void TstSetting::oneRequestReadsAllSettingsOfOneTurn()
{
    ScriptedSettings settings;
    const Setting<qint64> first(&settings, QStringLiteral("/settings/a"));
    const Setting<QString> second(&settings, QStringLiteral("/settings/b"));
    settings.takeLog();

    turn();
    QCOMPARE(settings.takeLog(),
             QStringList(QStringLiteral("getMany /settings/a,/settings/b value")));

    answer(&settings, { 1LL, QStringLiteral("x") });
    QCOMPARE(first.value(), qint64(1));
    QCOMPARE(second.value(), QStringLiteral("x"));
}

// So that no answer is large.
void TstSetting::manySettingsAreReadBySeveralRequests()
{
    ScriptedSettings settings;
    std::vector<std::unique_ptr<AnySetting>> all;
    for (int i = 0; i < 1001; ++i)
        all.push_back(std::make_unique<AnySetting>(&settings, path()));

    turn();
    QCOMPARE(settings.manyReads.size(), 5);
    for (int i = 0; i < 1001; i += 250) {
        QVariantList values;
        for (int value = i; value < qMin(i + 250, 1001); ++value)
            values.append(qlonglong(value));
        answer(&settings, values);
    }

    for (int i = 0; i < 1001; ++i)
        QCOMPARE(all[std::size_t(i)]->value(), QVariant(qlonglong(i)));
}

void TstSetting::settingDestroyedBeforeItWasReadIsNotAskedFor()
{
    ScriptedSettings settings;
    auto first = std::make_unique<Setting<bool>>(&settings, QStringLiteral("/settings/a"));
    const Setting<bool> second(&settings, QStringLiteral("/settings/b"));
    first.reset();
    settings.takeLog();

    turn();

    QCOMPARE(settings.log, QStringList(QStringLiteral("getMany /settings/b value")));
}

void TstSetting::settingDestroyedWhileItIsReadIsForgotten()
{
    ScriptedSettings settings;
    auto first = std::make_unique<Setting<qint64>>(&settings, QStringLiteral("/settings/a"));
    const Setting<qint64> second(&settings, QStringLiteral("/settings/b"));
    turn();
    first.reset();

    answer(&settings, { 1LL, 2LL });

    QCOMPARE(second.value(), qint64(2));
}

void TstSetting::changedOnlyWhenTheValueDiffers()
{
    ScriptedSettings settings;
    Setting<qint64> setting(&settings, path(), 35);
    QSignalSpy changed(&setting, &AnySetting::changed);
    turn();

    answer(&settings, { 35LL });
    QVERIFY(setting.isReady());
    settings.deliverValue(path(), 35LL);
    QCOMPARE(changed.count(), 0);

    settings.deliverValue(path(), 36LL);
    settings.deliverValue(path(), 36LL);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(setting.value(), qint64(36));
}

void TstSetting::eachTypeTakesItsValues()
{
    ScriptedSettings settings;
    const Setting<bool> truth(&settings, QStringLiteral("/settings/truth"));
    const Setting<qint64> number(&settings, QStringLiteral("/settings/number"));
    const Setting<double> fraction(&settings, QStringLiteral("/settings/fraction"));
    const Setting<QString> text(&settings, QStringLiteral("/settings/text"));
    const Setting<QVariantList> list(&settings, QStringLiteral("/settings/list"));
    const QVariantList values { true, std::numeric_limits<qint64>::min(), 0.25,
                                QStringLiteral("text"), QVariantList { 1LL } };
    turn();

    answer(&settings,
           { values.at(0), values.at(1), values.at(2), values.at(3),
             QVariant(values.at(4).toList()) });

    QCOMPARE(truth.value(), true);
    QCOMPARE(number.value(), std::numeric_limits<qint64>::min());
    QCOMPARE(fraction.value(), 0.25);
    QCOMPARE(text.value(), QStringLiteral("text"));
    QCOMPARE(list.value(), QVariantList { 1LL });
    for (const AnySetting* setting :
         std::initializer_list<const AnySetting*> { &truth, &number, &fraction, &text, &list })
        QVERIFY2(!setting->error(), qPrintable(setting->errorMessage()));
}

void TstSetting::valueOfAnotherTypeIsAnError_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addRow("text") << QVariant(QStringLiteral("5"));
    QTest::addRow("fraction") << QVariant(5.0);
    QTest::addRow("truth value") << QVariant(true);
    QTest::addRow("list") << QVariant(QVariantList { 5LL });
    QTest::addRow("beyond the range") << QVariant(std::numeric_limits<qulonglong>::max());
}

void TstSetting::valueOfAnotherTypeIsAnError()
{
    QFETCH(QVariant, value);
    ScriptedSettings settings;
    Setting<qint64> setting(&settings, path(), 35);
    QSignalSpy changed(&setting, &AnySetting::changed);
    QSignalSpy error(&setting, &AnySetting::errorChanged);
    turn();

    answer(&settings, { value });

    QCOMPARE(setting.value(), qint64(35));
    QVERIFY(!setting.isReady());
    QCOMPARE(changed.count(), 0);
    QCOMPARE(error.count(), 1);
    QCOMPARE(setting.error().code, ErrorCode::Rejected);
    QCOMPARE(setting.error().path, path());
    QVERIFY(setting.errorMessage().contains(QLatin1String(value.typeName())));

    settings.deliverValue(path(), 36LL);
    QCOMPARE(setting.value(), qint64(36));
    QCOMPARE(error.count(), 2);
    QVERIFY(!setting.error());
}

void TstSetting::valueOfAnotherTypeKeepsTheLastOne()
{
    ScriptedSettings settings;
    Setting<qint64> setting(&settings, path(), 35);
    turn();
    answer(&settings, { 40LL });

    settings.deliverValue(path(), QStringLiteral("loud"));

    QCOMPARE(setting.value(), qint64(40));
    QCOMPARE(setting.AnySetting::value(), QVariant(40LL));
    QVERIFY(setting.error());
}

void TstSetting::listElementsCompareWithTheirTypes()
{
    ScriptedSettings settings;
    const QVariantList numbers { 5LL, QVariantMap { { QStringLiteral("k"), 1LL } } };
    const QVariantList texts { 5LL, QVariantMap { { QStringLiteral("k"), QStringLiteral("1") } } };
    Setting<QVariantList> setting(&settings, path(), numbers);
    QSignalSpy changed(&setting, &AnySetting::changed);

    settings.deliverValue(path(), numbers);
    QCOMPARE(changed.count(), 0);
    settings.deliverValue(path(), texts);
    QCOMPARE(changed.count(), 1);
    settings.deliverValue(path(), QVariantList { 5LL });
    QCOMPARE(changed.count(), 2);
}

void TstSetting::absentValueIsAnError()
{
    ScriptedSettings settings;
    const Setting<qint64> setting(&settings, path(), 35);
    turn();

    settings.manyReads.takeFirst().finish({ { path(), {}, {} } });

    QCOMPARE(setting.value(), qint64(35));
    QCOMPARE(setting.errorMessage(), QStringLiteral("'/settings/a' has no value"));
}

void TstSetting::untypedSettingTakesEveryType()
{
    ScriptedSettings settings;
    AnySetting setting(&settings, path());
    QSignalSpy changed(&setting, &AnySetting::changed);
    QVERIFY(!setting.value().isValid());

    for (const QVariant& value : { QVariant(5LL), QVariant(QStringLiteral("5")), QVariant(5.0),
                                   QVariant(true), QVariant(QVariantList {}) }) {
        settings.deliverValue(path(), value);
        QCOMPARE(setting.value().userType(), value.userType());
        QCOMPARE(setting.value(), value);
    }
    QCOMPARE(changed.count(), 5);
}

void TstSetting::enumerationIsTakenByNumberOrKey()
{
    ScriptedSettings settings;
    Setting<Mode> setting(&settings, path(), mid);
    QCOMPARE(setting.AnySetting::value(), QVariant(QStringLiteral("mid")));
    settings.takeLog();

    (void)setting.set(high);
    settings.deliverValue(path(), QStringLiteral("low"));
    QCOMPARE(setting.value(), low);
    settings.deliverValue(path(), QStringLiteral("medium"));
    QCOMPARE(setting.value(), low);
    QVERIFY(setting.error());

    settings.deliverValue(path(), 2LL);
    QCOMPARE(setting.value(), high);
    QVERIFY(!setting.error());
    (void)setting.set(mid);
    QCOMPARE(settings.takeLog(),
             QStringList(
                 { QStringLiteral("set /settings/a high"), QStringLiteral("set /settings/a 1") }));
}

void TstSetting::enumerationWithoutKeysIsNumbers()
{
    ScriptedSettings settings;
    Setting<Plain> setting(&settings, path());
    QSignalSpy changed(&setting, &AnySetting::changed);
    settings.takeLog();

    settings.deliverValue(path(), 1LL);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(setting.value(), Plain::Second);
    (void)setting.set(Plain::First);
    QCOMPARE(settings.takeLog(), QStringList(QStringLiteral("set /settings/a 0")));

    settings.deliverValue(path(), QStringLiteral("First"));
    QVERIFY(setting.error());
    settings.deliverValue(path(), Q_INT64_C(1) << 40);
    QCOMPARE(setting.value(), Plain::Second);
    QVERIFY(setting.error());
}

void TstSetting::eventWithoutValueReads()
{
    ScriptedSettings settings;
    const Setting<qint64> setting(&settings, path());
    turn();
    answer(&settings, { 1LL });

    settings.deliverValue(path(), QVariant());
    settings.deliverData(path());
    turn();
    QCOMPARE(settings.manyReads.size(), 1);
    answer(&settings, { 2LL });

    QCOMPARE(setting.value(), qint64(2));
}

// Of an encrypted setting nothing else is announced.
void TstSetting::dataEventAloneReads()
{
    ScriptedSettings settings;
    const Setting<QString> setting(&settings, path());
    turn();
    answer(&settings, { QStringLiteral("old") });

    settings.deliverData(path());
    turn();
    answer(&settings, { QStringLiteral("new") });

    QCOMPARE(setting.value(), QStringLiteral("new"));
}

void TstSetting::dataEventAfterAValueReadsNothing()
{
    ScriptedSettings settings;
    const Setting<qint64> setting(&settings, path());
    turn();
    answer(&settings, { 1LL });
    settings.takeLog();

    settings.deliverValue(path(), 2LL);
    settings.deliverData(path());
    turn();

    QCOMPARE(settings.log, QStringList());
}

void TstSetting::missedReadsAgainAndTellsDifferencesOnly()
{
    ScriptedSettings settings;
    Setting<qint64> first(&settings, QStringLiteral("/settings/a"));
    Setting<qint64> second(&settings, QStringLiteral("/settings/b"));
    turn();
    answer(&settings, { 1LL, 1LL });
    QSignalSpy firstChanged(&first, &AnySetting::changed);
    QSignalSpy secondChanged(&second, &AnySetting::changed);

    settings.takeLog();
    settings.deliverMissed();
    turn();
    QCOMPARE(settings.manyReads.size(), 1);
    // In any order.
    const bool isFirstFirst =
        settings.log == QStringList(QStringLiteral("getMany /settings/a,/settings/b value"));
    answer(&settings, isFirstFirst ? QVariantList { 1LL, 2LL } : QVariantList { 2LL, 1LL });

    QCOMPARE(firstChanged.count(), 0);
    QCOMPARE(secondChanged.count(), 1);
    QCOMPARE(second.value(), qint64(2));
}

void TstSetting::unavailableSettingIsReadWhenTheSettingsAreReady()
{
    ScriptedSettings settings;
    settings.setState(Settings::State::Connecting);
    const Setting<qint64> setting(&settings, path(), 35);
    turn();
    answerError(&settings, ErrorCode::Unavailable);
    QCOMPARE(setting.error().code, ErrorCode::Unavailable);
    QCOMPARE(setting.value(), qint64(35));

    settings.setState(Settings::State::Away);
    turn();
    QVERIFY(settings.manyReads.isEmpty());

    settings.setState(Settings::State::Ready);
    turn();
    answer(&settings, { 40LL });
    QCOMPARE(setting.value(), qint64(40));
    QVERIFY(!setting.error());
}

void TstSetting::unavailableSettingIsReadAgainOnceHoweverOftenItFailed()
{
    ScriptedSettings settings;
    const Setting<qint64> setting(&settings, path());
    QCOMPARE(setting.title(), QString());
    turn();
    for (int i = 0; i < 3; ++i) {
        answerError(&settings, ErrorCode::Unavailable);
        settings.deliverData(path());
        turn();
    }
    settings.takeLog();

    settings.setState(Settings::State::Ready);
    turn();

    // One for the details; the value is being read.
    QCOMPARE(settings.log.size(), 2);
    QCOMPARE(settings.log.filter(QStringLiteral("getMany")).size(), 1);
}

void TstSetting::otherErrorsStayUntilTheNextValue()
{
    ScriptedSettings settings;
    Setting<qint64> setting(&settings, path(), 35);
    QSignalSpy error(&setting, &AnySetting::errorChanged);
    turn();
    answerError(&settings, ErrorCode::InvalidPath);
    QCOMPARE(setting.error().code, ErrorCode::InvalidPath);

    settings.setState(Settings::State::Ready);
    turn();
    QVERIFY(settings.manyReads.isEmpty());

    // It was created.
    settings.deliverValue(path(), 35LL);
    QVERIFY(setting.isReady());
    QVERIFY(!setting.error());
    QCOMPARE(error.count(), 2);
}

// The next value is right, but none is announced after it.
void TstSetting::failedWatchIsAnErrorUntilEventsAreComplete()
{
    ScriptedSettings settings;
    const Setting<qint64> setting(&settings, path());
    turn();
    const Error limits { ErrorCode::Limits, QStringLiteral("no more rules"), path() };

    settings.deliverFailed(settings.watches.first(), limits);
    turn();
    QCOMPARE(setting.error(), limits);
    answer(&settings, { 1LL });
    QCOMPARE(setting.value(), qint64(1));
    QCOMPARE(setting.error(), limits);

    settings.deliverMissed();
    turn();
    answer(&settings, { 2LL });
    QVERIFY(!setting.error());
}

void TstSetting::failedRequestIsAnErrorOfAllItsSettings()
{
    ScriptedSettings settings;
    const Setting<qint64> first(&settings, QStringLiteral("/settings/a"));
    const Setting<qint64> second(&settings, QStringLiteral("/settings/b"));
    turn();
    const Error limits { ErrorCode::Limits, QStringLiteral("too much"), QString() };

    settings.manyReads.takeFirst().fail(limits);

    QCOMPARE(first.error(), limits);
    QCOMPARE(second.error(), limits);
}

void TstSetting::detailsAreRequestedWhenFirstAskedFor()
{
    ScriptedSettings settings;
    Setting<qint64> setting(&settings, path());
    QSignalSpy details(&setting, &AnySetting::detailsChanged);
    turn();
    answer(&settings, { 1LL });
    settings.takeLog();

    QVERIFY(!setting.maximum().isValid());
    QVERIFY(setting.isModifiable());
    QCOMPARE(setting.title(), QString());
    QCOMPARE(settings.takeLog(),
             QStringList(QStringLiteral(
                 "get /settings/a defaultValue,edit,modifiable,title,description,valueUnit")));

    const QVariantMap edit { { QStringLiteral("min"), 0LL },
                             { QStringLiteral("max"), 100LL },
                             { QStringLiteral("step"), 5LL },
                             { QStringLiteral("values"), QVariantList { 0LL, 50LL } } };
    settings.reads.takeFirst().finish({ { QStringLiteral("defaultValue"), 35LL },
                                        { QStringLiteral("edit"), edit },
                                        { QStringLiteral("modifiable"), false },
                                        { QStringLiteral("title"), QStringLiteral("Volume") },
                                        { QStringLiteral("description"), QStringLiteral("Of all") },
                                        { QStringLiteral("valueUnit"), QStringLiteral("%") } });
    QCOMPARE(details.count(), 1);
    QCOMPARE(setting.defaultValue(), QVariant(35LL));
    QCOMPARE(setting.minimum(), QVariant(0LL));
    QCOMPARE(setting.maximum(), QVariant(100LL));
    QCOMPARE(setting.step(), QVariant(5LL));
    QCOMPARE(setting.values(), QVariantList({ 0LL, 50LL }));
    QVERIFY(!setting.isModifiable());
    QCOMPARE(setting.title(), QStringLiteral("Volume"));
    QCOMPARE(setting.description(), QStringLiteral("Of all"));
    QCOMPARE(setting.unit(), QStringLiteral("%"));
    QCOMPARE(settings.takeLog(), QStringList());
}

void TstSetting::detailsFollowDataEventsButNotValues()
{
    ScriptedSettings settings;
    Setting<qint64> setting(&settings, path());
    QSignalSpy details(&setting, &AnySetting::detailsChanged);
    turn();
    QCOMPARE(setting.title(), QString());
    settings.reads.takeFirst().finish({ { QStringLiteral("title"), QStringLiteral("Volume") } });

    settings.deliverValue(path(), 2LL);
    settings.deliverData(path());
    QVERIFY(settings.reads.isEmpty());

    settings.deliverData(path());
    settings.reads.takeFirst().finish({ { QStringLiteral("title"), QStringLiteral("Volume") } });
    QCOMPARE(details.count(), 1);
    settings.deliverMissed();
    settings.reads.takeFirst().finish(
        { { QStringLiteral("title"), QStringLiteral("Lautstärke") } });
    QCOMPARE(details.count(), 2);
    QCOMPARE(setting.title(), QStringLiteral("Lautstärke"));
}

void TstSetting::detailsOfUnavailableSettingComeLater()
{
    ScriptedSettings settings;
    const Setting<qint64> setting(&settings, path());
    QCOMPARE(setting.title(), QString());
    settings.reads.takeFirst().fail({ ErrorCode::Unavailable, {}, {} });

    settings.setState(Settings::State::Ready);
    QCOMPARE(settings.reads.size(), 1);
    settings.reads.takeFirst().finish({ { QStringLiteral("title"), QStringLiteral("Volume") } });

    QCOMPARE(setting.title(), QStringLiteral("Volume"));
}

void TstSetting::setSendsAndWaitsForTheSettings()
{
    ScriptedSettings settings;
    Setting<qint64> setting(&settings, path(), 35);
    settings.takeLog();

    const Reply<Change> reply = setting.set(40);
    QCOMPARE(settings.takeLog(), QStringList(QStringLiteral("set /settings/a 40")));
    QCOMPARE(setting.value(), qint64(35));
    settings.deliverValue(path(), 40LL);
    QCOMPARE(setting.value(), qint64(40));

    settings.changes.takeFirst().finish(stored(40LL));
    QVERIFY(reply.isFinished());
    QCOMPARE(reply.value().stored, valueRoles(40LL));
}

// As of an encrypted setting, or when the bus refused to subscribe.
void TstSetting::setTakesTheAnswerWhenNoEventCame()
{
    ScriptedSettings settings;
    Setting<QString> setting(&settings, path());
    const Reply<Change> reply = setting.set(QStringLiteral("secret"));
    QString seen;
    reply.then(this, [&](const Reply<Change>&) { seen = setting.value(); });

    settings.deliverData(path());
    settings.changes.takeFirst().finish(stored(QStringLiteral("secret")));

    QCOMPARE(seen, QStringLiteral("secret"));
}

void TstSetting::eventAfterTheChangeIsNewerThanItsAnswer()
{
    ScriptedSettings settings;
    Setting<qint64> setting(&settings, path());
    (void)setting.set(40);

    settings.deliverValue(path(), 40LL);
    settings.deliverValue(path(), 41LL);
    settings.changes.takeFirst().finish(stored(40LL));

    QCOMPARE(setting.value(), qint64(41));
}

void TstSetting::dryRunChangesNothing()
{
    ScriptedSettings settings;
    Setting<qint64> setting(&settings, path(), 35);
    ChangeOptions options;
    options.isDryRun = true;
    settings.takeLog();

    (void)setting.set(40, options);
    QCOMPARE(settings.takeLog(), QStringList(QStringLiteral("set /settings/a 40 dry")));
    settings.changes.takeFirst().finish(stored(40LL));

    QCOMPARE(setting.value(), qint64(35));
}

void TstSetting::setSoonHasOneChangeUnderWay()
{
    ScriptedSettings settings;
    Setting<qint64> setting(&settings, path());
    QSignalSpy settled(&setting, &AnySetting::settled);
    settings.takeLog();

    for (int value = 1; value <= 1000; ++value)
        setting.setSoon(value);
    QCOMPARE(settings.takeLog(), QStringList(QStringLiteral("set /settings/a 1")));

    settings.deliverValue(path(), 1LL);
    settings.changes.takeFirst().finish(stored(1LL));
    QCOMPARE(settings.takeLog(), QStringList(QStringLiteral("set /settings/a 1000")));
    QCOMPARE(settled.count(), 0);

    settings.changes.takeFirst().finish(stored(1000LL));
    QCOMPARE(settings.takeLog(), QStringList());
    QCOMPARE(settled.count(), 1);
    QCOMPARE(setting.value(), qint64(1000));
}

void TstSetting::setSoonSettlesOnAdjustedValue()
{
    ScriptedSettings settings;
    Setting<qint64> setting(&settings, path(), 35);
    QSignalSpy changed(&setting, &AnySetting::changed);
    QSignalSpy settled(&setting, &AnySetting::settled);

    setting.setSoon(37);
    settings.changes.takeFirst().finish(stored(35LL));

    QCOMPARE(changed.count(), 0);
    QCOMPARE(settled.count(), 1);
}

void TstSetting::setSoonFailureIsAnError()
{
    ScriptedSettings settings;
    Setting<qint64> setting(&settings, path(), 35);
    QSignalSpy settled(&setting, &AnySetting::settled);
    const Error rejected { ErrorCode::Rejected, QStringLiteral("not now"), path() };

    setting.setSoon(1);
    setting.setSoon(2);
    settings.changes.takeFirst().fail(rejected);
    // That of the value in between is not what the program wants to know.
    QVERIFY(!setting.error());
    settings.changes.takeFirst().fail(rejected);

    QCOMPARE(setting.error(), rejected);
    QCOMPARE(settled.count(), 1);
    QCOMPARE(setting.value(), qint64(35));
}

void TstSetting::setDropsPendingSetSoon()
{
    ScriptedSettings settings;
    Setting<qint64> setting(&settings, path());
    settings.takeLog();

    setting.setSoon(1);
    setting.setSoon(2);
    (void)setting.set(3);
    settings.changes.takeFirst().finish(stored(1LL));
    settings.changes.takeFirst().finish(stored(3LL));

    QCOMPARE(
        settings.takeLog(),
        QStringList({ QStringLiteral("set /settings/a 1"), QStringLiteral("set /settings/a 3") }));
    QCOMPARE(setting.value(), qint64(3));
}

void TstSetting::destroyedSettingSendsPendingSetSoon()
{
    ScriptedSettings settings;
    {
        Setting<qint64> setting(&settings, path());
        settings.takeLog();
        setting.setSoon(1);
        setting.setSoon(2);
    }

    QCOMPARE(settings.takeLog(),
             QStringList({ QStringLiteral("set /settings/a 1"), QStringLiteral("set /settings/a 2"),
                           QStringLiteral("-/settings/a") }));
}

void TstSetting::handlerMayAskForTheNextChange()
{
    ScriptedSettings settings;
    Setting<qint64> setting(&settings, path());
    QSignalSpy settled(&setting, &AnySetting::settled);
    connect(&setting, &AnySetting::changed, this, [&] {
        if (setting.value() < 3)
            setting.setSoon(setting.value() + 1);
    });

    setting.setSoon(1);
    while (!settings.changes.isEmpty()) {
        const auto change = settings.changes.takeFirst();
        change.finish(stored(setting.value() + 1));
    }

    QCOMPARE(setting.value(), qint64(3));
    QCOMPARE(settled.count(), 1);
}

void TstSetting::settingsMayBeDestroyedFirst()
{
    auto settings = std::make_unique<ScriptedSettings>();
    Setting<qint64> read(settings.get(), path());
    turn();
    answer(settings.get(), { 40LL });
    Setting<qint64> unread(settings.get(), path(), 35);
    turn();
    read.setSoon(1);
    read.setSoon(2);
    QCOMPARE(unread.title(), QString());

    settings.reset();

    QCOMPARE(read.value(), qint64(40));
    QCOMPARE(read.path(), path());
    QCOMPARE(unread.value(), qint64(35));
    QCOMPARE(unread.description(), QString());
    unread.setSoon(3);
    const Reply<Change> reply = read.set(5);
    QVERIFY(!reply.isFinished());
    QVERIFY(!reply.wait());
    QCOMPARE(reply.error().code, ErrorCode::Unavailable);
}

void TstSetting::handlerMayDestroyTheSetting()
{
    for (const auto signal :
         { &AnySetting::readyChanged, &AnySetting::changed, &AnySetting::errorChanged,
           &AnySetting::settled, &AnySetting::detailsChanged }) {
        ScriptedSettings settings;
        auto setting = std::make_unique<Setting<qint64>>(&settings, path(), 35);
        QCOMPARE(setting->title(), QString());
        connect(setting.get(), signal, this, [&] { setting.reset(); });
        turn();

        settings.reads.takeFirst().finish({ { QStringLiteral("title"), QStringLiteral("x") } });
        answerError(&settings, ErrorCode::InvalidPath);
        settings.deliverValue(path(), 36LL);
        if (setting) {
            setting->setSoon(37);
            settings.changes.takeFirst().finish(stored(37LL));
        }

        QVERIFY(!setting);
    }
}

void TstSetting::handlerMayDestroyTheSettings()
{
    auto settings = std::make_unique<ScriptedSettings>();
    Setting<qint64> first(settings.get(), path());
    Setting<qint64> second(settings.get(), path());
    connect(&first, &AnySetting::changed, this, [&] { settings.reset(); });
    turn();
    const auto read = settings->manyReads.takeFirst();

    read.finish({ { path(), valueRoles(1LL), {} }, { path(), valueRoles(2LL), {} } });

    QVERIFY(!settings);
    QCOMPARE(first.value(), qint64(1));
}

void TstSetting::propertiesAreForBindings()
{
    ScriptedSettings settings;
    const Setting<qint64> setting(&settings, path(), 35);
    const QMetaObject* const meta = setting.metaObject();

    QCOMPARE(setting.property("value"), QVariant(35LL));
    QCOMPARE(setting.property("ready"), QVariant(false));
    QCOMPARE(setting.property("modifiable"), QVariant(true));
    for (int i = meta->propertyOffset(); i < meta->propertyCount(); ++i) {
        const QMetaProperty property = meta->property(i);
        QVERIFY2(property.hasNotifySignal() || property.isConstant(), property.name());
    }
}

QTEST_GUILESS_MAIN(TstSetting)
#include "tst_setting.moc"
