#include "tests/client/scriptedsettings.h"

#include <tulo/rowsmodel.h>

#include <QAbstractItemModelTester>
#include <QPersistentModelIndex>
#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace tulo;

namespace {

QString path()
{
    return QStringLiteral("/settings/audio");
}

void turn()
{
    QCoreApplication::sendPostedEvents();
}

Row row(const QString& name, const QVariant& value)
{
    Row row;
    row.name = name;
    row.roles.insert(QStringLiteral("value"), value);
    return row;
}

/// The rows with these names, their values being their places in `names`.
Rows rowsOf(const QStringList& names, int version = 0)
{
    Rows rows;
    rows.count = names.size();
    rows.version = version;
    for (int i = 0; i < names.size(); ++i)
        rows.rows.append(row(names.at(i), qlonglong(i)));
    return rows;
}

/// The rows `first` to `last` of a directory of `count`: n0, n1, ...
Rows page(int first, int last, int count, int version = 0)
{
    Rows rows;
    rows.count = count;
    rows.version = version;
    for (int i = first; i <= last; ++i)
        rows.rows.append(row(QStringLiteral("n%1").arg(i), qlonglong(i)));
    return rows;
}

QStringList names(const RowsModel& model)
{
    QStringList names;
    for (int i = 0; i < model.rowCount(); ++i)
        names.append(model.data(model.index(i, 0)).toString());
    return names;
}

QStringList words(const char* text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

/// What the model announced: "+0-4", "-3-3", "reset", "changed 1-1".
class Announcements : public QStringList
{
public:
    explicit Announcements(const RowsModel& model)
    {
        const auto range = [this](const char* what, int first, int last) {
            append(QStringLiteral("%1%2-%3").arg(QLatin1String(what)).arg(first).arg(last));
        };
        QObject::connect(
            &model, &RowsModel::rowsInserted, &m_context,
            [range](const QModelIndex&, int first, int last) { range("+", first, last); });
        QObject::connect(
            &model, &RowsModel::rowsRemoved, &m_context,
            [range](const QModelIndex&, int first, int last) { range("-", first, last); });
        QObject::connect(&model, &RowsModel::modelReset, &m_context,
                         [this] { append(QStringLiteral("reset")); });
        QObject::connect(&model, &RowsModel::dataChanged, &m_context,
                         [range](const QModelIndex& first, const QModelIndex& last) {
                             range("changed ", first.row(), last.row());
                         });
    }

    QStringList take()
    {
        const QStringList taken = *this;
        clear();
        return taken;
    }

private:
    QObject m_context;
};

/// A model on scripted settings, checked by Qt's own rules for models.
struct Fixture
{
    explicit Fixture(const QStringList& roles = { QStringLiteral("value") })
        : settings(std::make_unique<ScriptedSettings>())
        , model(settings.get(), path(), roles)
        , tester(&model, QAbstractItemModelTester::FailureReportingMode::QtTest)
        , announced(model)
    {
    }

    /// Answers the first listing under way.
    void answer(const Rows& rows)
    {
        settings->listings.takeFirst().promise.finish(rows);
        turn();
    }
    /// Has all rows listed.
    void fill(const char* text)
    {
        answer(rowsOf(words(text)));
        settings->takeLog();
        announced.clear();
    }
    void event(const char* command, int version)
    {
        settings->deliverRows(path(), QLatin1String(command), version);
        turn();
    }

    std::unique_ptr<ScriptedSettings> settings;
    RowsModel model;
    QAbstractItemModelTester tester;
    Announcements announced;
};

} // namespace

/// A directory as a model, on settings that do exactly what each test says.
class TstRowsModel : public QObject
{
    Q_OBJECT

private slots:
    void listsTheDirectory();
    void rolesHaveNames();
    void viewShowsNamesAndRoles();
    void listsAreShownAsJson();
    void rowThatCannotBeServedTellsWhy();
    void emptyDirectoryIsReady();
    void pagesAreRequestedWhenLookedAt();
    void fewRequestsAreUnderWay();
    void lastPageLookedAtComesFirst();
    void rowsThatDidNotFitAreRequestedAgain();
    void changedRowIsReadAgain();
    void rowsChangedInOneTurnAreReadTogether();
    void changedRowThatWasNotLookedAtIsNotRead();
    void unchangedRowIsNotAnnounced();
    void newRowIsInserted();
    void goneRowIsRemoved();
    void pageUnderWayWhileRowsMoveIsRequestedAgain();
    void rowThatWentBeforeItWasReadIsNoError();
    void eventOutOfOrderListsAgain_data();
    void eventOutOfOrderListsAgain();
    void eventBeforeTheListingIsPartOfIt();
    void pageOfAnotherVersionListsAgain();
    void missedKeepsRowsByName_data();
    void missedKeepsRowsByName();
    void missedInLongDirectoryReadsOnlyWhatWasLoaded();
    void missedInLongDirectoryWithOtherRowsResets();
    void otherNamesInLaterPageReset();
    void unavailableDirectoryIsListedWhenTheSettingsAreReady();
    void failedPageStopsRequestsUntilTheNextListing();
    void failedWatchIsAnErrorUntilEventsAreComplete();
    void malformedAnswerIsAnError_data();
    void malformedAnswerIsAnError();
    void settingsMayBeDestroyedFirst();
    void thousandsOfRowsAreRequestedInPages();
};

void TstRowsModel::listsTheDirectory()
{
    Fixture f({ QStringLiteral("value"), QStringLiteral("title") });
    QSignalSpy ready(&f.model, &RowsModel::readyChanged);
    QCOMPARE(f.settings->takeLog(),
             QStringList({ QStringLiteral("+/settings/audio"),
                           QStringLiteral("rows /settings/audio 0-63 value,title") }));
    QCOMPARE(f.model.rowCount(), 0);
    QVERIFY(!f.model.isReady());

    f.answer(rowsOf(words("fader volume")));

    QVERIFY(f.model.isReady());
    QCOMPARE(ready.count(), 1);
    QCOMPARE(names(f.model), words("fader volume"));
    QCOMPARE(f.announced.take(), QStringList(QStringLiteral("+0-1")));
    QCOMPARE(f.settings->takeLog(), QStringList());
}

void TstRowsModel::rolesHaveNames()
{
    Fixture f({ QStringLiteral("value"), QStringLiteral("title") });
    Rows rows = rowsOf(words("presets volume"));
    rows.rows[0].isDirectory = true;
    rows.rows[1].roles.insert(QStringLiteral("title"), QStringLiteral("Volume"));
    f.answer(rows);
    const auto data = [&](int row, const char* role) {
        return f.model.index(row, 0).data(f.model.roleNames().key(role));
    };

    QCOMPARE(data(0, "name"), QVariant(QStringLiteral("presets")));
    QCOMPARE(data(0, "path"), QVariant(QStringLiteral("/settings/audio/presets")));
    QCOMPARE(data(0, "isDirectory"), QVariant(true));
    QCOMPARE(data(1, "isDirectory"), QVariant(false));
    QCOMPARE(data(1, "value"), QVariant(1LL));
    QCOMPARE(data(1, "title"), QVariant(QStringLiteral("Volume")));
    QCOMPARE(data(1, "errorMessage"), QVariant(QString()));
    QCOMPARE(data(0, "title"), QVariant());
}

void TstRowsModel::viewShowsNamesAndRoles()
{
    Fixture f;
    f.fill("fader volume");

    QCOMPARE(f.model.columnCount(), 2);
    QCOMPARE(f.model.headerData(0, Qt::Horizontal), QVariant(QStringLiteral("name")));
    QCOMPARE(f.model.headerData(1, Qt::Horizontal), QVariant(QStringLiteral("value")));
    QCOMPARE(f.model.index(1, 0).data(), QVariant(QStringLiteral("volume")));
    QCOMPARE(f.model.index(1, 1).data(), QVariant(1LL));
    QVERIFY(!f.model.hasChildren(f.model.index(1, 0)));
}

void TstRowsModel::listsAreShownAsJson()
{
    Fixture f;
    Rows rows = rowsOf(words("sources"));
    const QVariantList value { QStringLiteral("fm"), 5LL };
    rows.rows[0].roles.insert(QStringLiteral("value"), QVariant(value));
    f.answer(rows);

    QCOMPARE(f.model.index(0, 1).data(), QVariant(QStringLiteral("[\"fm\",5]")));
    QCOMPARE(f.model.index(0, 0).data(RowsModel::FirstSettingRole), QVariant(value));
}

void TstRowsModel::rowThatCannotBeServedTellsWhy()
{
    Fixture f;
    Rows rows = rowsOf(words("broken fine"));
    rows.rows[0].error = { ErrorCode::Unavailable, QStringLiteral("cannot be read"), path() };
    f.answer(rows);

    QCOMPARE(f.model.index(0, 0).data(RowsModel::ErrorMessageRole),
             QVariant(QStringLiteral("cannot be read")));
    QVERIFY(!f.model.error());
}

void TstRowsModel::emptyDirectoryIsReady()
{
    Fixture f;
    f.answer(rowsOf({}));

    QVERIFY(f.model.isReady());
    QCOMPARE(f.model.rowCount(), 0);
    f.event("+0", 1);
    QCOMPARE(f.announced.take(), QStringList(QStringLiteral("+0-0")));
}

void TstRowsModel::pagesAreRequestedWhenLookedAt()
{
    Fixture f;
    f.answer(page(0, 63, 200));
    QCOMPARE(f.model.rowCount(), 200);
    f.settings->takeLog();
    f.announced.clear();
    turn();
    QCOMPARE(f.settings->takeLog(), QStringList());

    QCOMPARE(f.model.index(130, 0).data(), QVariant());
    QCOMPARE(f.model.index(190, 0).data(), QVariant());
    turn();
    QCOMPARE(f.settings->takeLog(),
             QStringList(QStringLiteral("rows /settings/audio 128-191 value")));
    QCOMPARE(f.model.index(130, 0).data(), QVariant());
    turn();
    QCOMPARE(f.settings->takeLog(), QStringList());

    f.answer(page(128, 191, 200));
    QCOMPARE(f.announced.take(), QStringList(QStringLiteral("changed 128-191")));
    QCOMPARE(f.model.index(130, 0).data(), QVariant(QStringLiteral("n130")));
}

void TstRowsModel::fewRequestsAreUnderWay()
{
    Fixture f;
    f.answer(page(0, 63, 1000));
    f.settings->takeLog();
    for (int i = 0; i < 1000; ++i)
        f.model.index(i, 0).data();
    turn();
    QCOMPARE(f.settings->listings.size(), 3);

    int pages = 0;
    while (!f.settings->listings.isEmpty()) {
        const auto listing = f.settings->listings.first();
        f.answer(page(listing.first, listing.last, 1000));
        ++pages;
        QVERIFY(f.settings->listings.size() <= 3);
    }

    QCOMPARE(pages, 15);
    QCOMPARE(names(f.model).last(), QStringLiteral("n999"));
    QVERIFY(!names(f.model).contains(QString()));
}

void TstRowsModel::lastPageLookedAtComesFirst()
{
    Fixture f;
    f.answer(page(0, 63, 1000));
    f.settings->takeLog();

    f.model.index(70, 0).data();
    f.model.index(140, 0).data();
    f.model.index(900, 0).data();
    turn();

    QCOMPARE(f.settings->takeLog(),
             QStringList({ QStringLiteral("rows /settings/audio 896-959 value"),
                           QStringLiteral("rows /settings/audio 64-127 value"),
                           QStringLiteral("rows /settings/audio 128-191 value") }));
}

void TstRowsModel::rowsThatDidNotFitAreRequestedAgain()
{
    Fixture f;
    f.answer(page(0, 63, 128));
    f.settings->takeLog();
    f.model.index(64, 0).data();
    turn();
    f.settings->takeLog();

    f.answer(page(64, 99, 128));
    QCOMPARE(f.settings->takeLog(),
             QStringList(QStringLiteral("rows /settings/audio 100-127 value")));
    f.answer(page(100, 127, 128));

    QCOMPARE(names(f.model).last(), QStringLiteral("n127"));
}

void TstRowsModel::changedRowIsReadAgain()
{
    Fixture f;
    f.fill("a b c");

    f.event("1", 1);
    QCOMPARE(f.settings->takeLog(), QStringList(QStringLiteral("rows /settings/audio 1-1 value")));
    Rows rows = rowsOf(words("a b c"), 1);
    rows.rows = { row(QStringLiteral("b"), 7LL) };
    f.answer(rows);

    QCOMPARE(f.announced.take(), QStringList(QStringLiteral("changed 1-1")));
    QCOMPARE(f.model.index(1, 1).data(), QVariant(7LL));
}

void TstRowsModel::rowsChangedInOneTurnAreReadTogether()
{
    Fixture f;
    f.fill("a b c d e");

    f.settings->deliverRows(path(), QStringLiteral("1"), 1);
    f.settings->deliverRows(path(), QStringLiteral("3"), 2);
    f.settings->deliverRows(path(), QStringLiteral("1"), 3);
    turn();

    QCOMPARE(f.settings->takeLog(), QStringList(QStringLiteral("rows /settings/audio 1-3 value")));
}

void TstRowsModel::changedRowThatWasNotLookedAtIsNotRead()
{
    Fixture f;
    f.answer(page(0, 63, 200));
    f.settings->takeLog();

    f.event("150", 1);

    QCOMPARE(f.settings->takeLog(), QStringList());
}

void TstRowsModel::unchangedRowIsNotAnnounced()
{
    Fixture f;
    f.fill("a b c");

    f.event("1", 1);
    Rows rows = rowsOf(words("a b c"), 1);
    rows.rows = { row(QStringLiteral("b"), 1LL) };
    f.answer(rows);

    QCOMPARE(f.announced.take(), QStringList());
}

void TstRowsModel::newRowIsInserted()
{
    Fixture f;
    f.fill("a c");
    const QPersistentModelIndex selected = f.model.index(1, 0);

    f.event("+1", 1);
    QCOMPARE(f.announced.take(), QStringList(QStringLiteral("+1-1")));
    QCOMPARE(f.model.index(1, 0).data(), QVariant());
    turn();
    QCOMPARE(f.settings->takeLog(), QStringList(QStringLiteral("rows /settings/audio 1-1 value")));
    Rows rows = rowsOf(words("a b c"), 1);
    rows.rows = { rows.rows.at(1) };
    f.answer(rows);

    QCOMPARE(names(f.model), words("a b c"));
    QCOMPARE(selected.row(), 2);
}

void TstRowsModel::goneRowIsRemoved()
{
    Fixture f;
    f.fill("a b c");
    const QPersistentModelIndex selected = f.model.index(2, 0);

    f.event("-1", 1);

    QCOMPARE(f.announced.take(), QStringList(QStringLiteral("-1-1")));
    QCOMPARE(names(f.model), words("a c"));
    QCOMPARE(selected.row(), 1);
    QCOMPARE(f.settings->takeLog(), QStringList());
}

void TstRowsModel::pageUnderWayWhileRowsMoveIsRequestedAgain()
{
    Fixture f;
    f.answer(page(0, 63, 128));
    f.settings->takeLog();
    f.model.index(64, 0).data();
    turn();
    f.settings->takeLog();

    f.event("+0", 1);
    const auto older = f.settings->listings.first();
    while (!f.settings->listings.isEmpty()) {
        const auto listing = f.settings->listings.first();
        f.answer(page(listing.first - 1, listing.last - 1, 129, 1));
    }

    QCOMPARE(older.first, 64);
    QCOMPARE(f.model.index(64, 0).data(), QVariant(QStringLiteral("n63")));
    QCOMPARE(f.model.index(128, 0).data(), QVariant(QStringLiteral("n127")));
}

// Its answer has no rows: there is none behind the last one.
void TstRowsModel::rowThatWentBeforeItWasReadIsNoError()
{
    Fixture f;
    f.fill("a b c");
    f.event("2", 1);
    QCOMPARE(f.settings->takeLog(), QStringList(QStringLiteral("rows /settings/audio 2-2 value")));

    f.event("-0", 2);
    Rows rows = rowsOf(words("b c"), 2);
    rows.rows.clear();
    f.answer(rows);

    QCOMPARE(f.model.error(), Error());
    QCOMPARE(f.settings->takeLog(), QStringList(QStringLiteral("rows /settings/audio 1-1 value")));
    rows.rows = { row(QStringLiteral("c"), 7LL) };
    f.answer(rows);
    QCOMPARE(f.model.index(1, 1).data(), QVariant(7LL));
}

void TstRowsModel::eventOutOfOrderListsAgain_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<int>("version");
    QTest::addRow("one is missing") << QStringLiteral("1") << 2;
    QTest::addRow("an earlier one") << QStringLiteral("1") << 0;
    QTest::addRow("beyond the end") << QStringLiteral("3") << 1;
    QTest::addRow("new beyond the end") << QStringLiteral("+4") << 1;
    QTest::addRow("gone beyond the end") << QStringLiteral("-3") << 1;
    QTest::addRow("not a number") << QStringLiteral("x") << 1;
    QTest::addRow("negative") << QStringLiteral("--1") << 1;
    QTest::addRow("empty") << QString() << 1;
}

void TstRowsModel::eventOutOfOrderListsAgain()
{
    QFETCH(QString, command);
    QFETCH(int, version);
    Fixture f;
    f.fill("a b c");

    f.settings->deliverRows(path(), command, version);
    QCOMPARE(f.settings->takeLog(), QStringList(QStringLiteral("rows /settings/audio 0-63 value")));
    f.answer(rowsOf(words("a c d"), 9));
    QCOMPARE(names(f.model), words("a c d"));

    f.event("-0", 10);
    QCOMPARE(names(f.model), words("c d"));
}

void TstRowsModel::eventBeforeTheListingIsPartOfIt()
{
    Fixture f;
    f.settings->takeLog();

    f.event("+1", 1);
    f.answer(rowsOf(words("a b"), 1));

    QCOMPARE(names(f.model), words("a b"));
    QCOMPARE(f.settings->takeLog(), QStringList());
}

void TstRowsModel::pageOfAnotherVersionListsAgain()
{
    Fixture f;
    f.fill("a b c");
    f.event("1", 1);
    f.settings->takeLog();

    Rows rows = rowsOf(words("a b c"), 2);
    rows.rows = { rows.rows.at(1) };
    f.answer(rows);

    QCOMPARE(f.settings->takeLog(), QStringList(QStringLiteral("rows /settings/audio 0-63 value")));
}

void TstRowsModel::missedKeepsRowsByName_data()
{
    QTest::addColumn<QString>("before");
    QTest::addColumn<QString>("after");
    QTest::addColumn<QString>("announced");
    const auto add = [](const char* before, const char* after, const char* announced) {
        QTest::addRow("%s > %s", before, after)
            << QString::fromLatin1(before) << QString::fromLatin1(after)
            << QString::fromLatin1(announced);
    };
    add("a b c", "a b c", "");
    add("a b c", "", "-0-2");
    add("a b c", "b", "-2-2,-0-0,changed 0-0");
    add("b", "a b c", "+0-0,+2-2,changed 1-1");
    add("a c", "a b d", "-1-1,+1-2");
    add("a b c d", "a x y d", "-1-2,+1-2");
    add("a b c", "x y z", "-0-2,+0-2");
    add("a b c", "c b a", "reset");
}

void TstRowsModel::missedKeepsRowsByName()
{
    QFETCH(QString, before);
    QFETCH(QString, after);
    QFETCH(QString, announced);
    Fixture f;
    f.fill(before.toLatin1().constData());
    QVector<QPersistentModelIndex> selected;
    const QStringList namesBefore = names(f.model);
    for (int i = 0; i < f.model.rowCount(); ++i)
        selected.append(f.model.index(i, 0));

    f.settings->deliverMissed();
    f.answer(rowsOf(words(after.toLatin1().constData()), 0));

    QCOMPARE(names(f.model), words(after.toLatin1().constData()));
    QCOMPARE(f.announced.join(QLatin1Char(',')), announced);
    for (int i = 0; i < selected.size(); ++i) {
        if (selected.at(i).isValid())
            QCOMPARE(selected.at(i).data().toString(), namesBefore.at(i));
        else
            QVERIFY(announced.startsWith(QLatin1String("reset"))
                    || !names(f.model).contains(namesBefore.at(i)));
    }
}

void TstRowsModel::missedInLongDirectoryReadsOnlyWhatWasLoaded()
{
    Fixture f;
    f.answer(page(0, 63, 1000));
    f.model.index(900, 0).data();
    turn();
    f.answer(page(896, 959, 1000));
    f.settings->takeLog();
    f.announced.clear();

    f.settings->deliverMissed();
    QCOMPARE(f.settings->takeLog(),
             QStringList(QStringLiteral("rows /settings/audio 0-499 value")));
    f.answer(page(0, 499, 1000));
    QCOMPARE(f.settings->takeLog(),
             QStringList(QStringLiteral("rows /settings/audio 896-959 value")));
    f.answer(page(896, 959, 1000));

    QCOMPARE(f.announced.take(), QStringList(QStringLiteral("changed 64-499")));
}

void TstRowsModel::missedInLongDirectoryWithOtherRowsResets()
{
    Fixture f;
    f.answer(page(0, 63, 1000));
    f.announced.clear();

    f.settings->deliverMissed();
    f.answer(page(0, 499, 1001));

    QCOMPARE(f.announced.take(), QStringList(QStringLiteral("reset")));
    QCOMPARE(f.model.rowCount(), 1001);
}

void TstRowsModel::otherNamesInLaterPageReset()
{
    Fixture f;
    f.answer(page(0, 63, 1000));
    f.model.index(900, 0).data();
    turn();
    f.answer(page(896, 959, 1000));
    f.settings->deliverMissed();
    f.answer(page(0, 499, 1000));
    f.announced.clear();

    Rows rows = page(896, 959, 1000);
    rows.rows[5].name = QStringLiteral("other");
    f.answer(rows);

    QCOMPARE(f.announced.take(),
             QStringList({ QStringLiteral("reset"), QStringLiteral("changed 896-959") }));
    QCOMPARE(f.model.index(901, 0).data(), QVariant(QStringLiteral("other")));
}

void TstRowsModel::unavailableDirectoryIsListedWhenTheSettingsAreReady()
{
    Fixture f;
    QSignalSpy error(&f.model, &RowsModel::errorChanged);
    f.settings->setState(Settings::State::Away);
    f.settings->listings.takeFirst().promise.fail(
        { ErrorCode::Unavailable, QStringLiteral("no service"), path() });
    QCOMPARE(f.model.errorMessage(), QStringLiteral("no service"));
    QVERIFY(!f.model.isReady());

    f.settings->setState(Settings::State::Ready);
    f.answer(rowsOf(words("a")));

    QCOMPARE(names(f.model), words("a"));
    QVERIFY(!f.model.error());
    QCOMPARE(error.count(), 2);
}

void TstRowsModel::failedPageStopsRequestsUntilTheNextListing()
{
    Fixture f;
    f.answer(page(0, 63, 128));
    f.model.index(64, 0).data();
    turn();
    f.settings->listings.takeFirst().promise.fail(
        { ErrorCode::Unavailable, QStringLiteral("no service"), path() });
    f.settings->takeLog();

    f.model.index(64, 0).data();
    turn();
    QCOMPARE(f.settings->takeLog(), QStringList());
    QVERIFY(f.model.isReady());

    f.settings->deliverMissed();
    f.answer(page(0, 127, 128));
    QVERIFY(!f.model.error());
    QCOMPARE(f.model.index(64, 0).data(), QVariant(QStringLiteral("n64")));
}

void TstRowsModel::failedWatchIsAnErrorUntilEventsAreComplete()
{
    Fixture f;
    const Error limits { ErrorCode::Limits, QStringLiteral("no more rules"), path() };
    f.settings->deliverFailed(f.settings->watches.first(), limits);
    f.answer(rowsOf(words("a")));
    QCOMPARE(f.model.error(), limits);
    QCOMPARE(names(f.model), words("a"));

    f.settings->deliverMissed();
    f.answer(rowsOf(words("a")));
    QVERIFY(!f.model.error());
}

void TstRowsModel::malformedAnswerIsAnError_data()
{
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("last");
    QTest::addRow("no rows") << 64 << 63;
    QTest::addRow("more rows than asked for") << 64 << 128;
}

void TstRowsModel::malformedAnswerIsAnError()
{
    QFETCH(int, first);
    QFETCH(int, last);
    Fixture f;
    f.answer(page(0, 63, 128));
    f.model.index(64, 0).data();
    turn();
    f.settings->takeLog();

    f.answer(page(first, last, 128));

    QCOMPARE(f.model.error().code, ErrorCode::Internal);
    QCOMPARE(f.settings->takeLog(), QStringList());
    f.settings->deliverMissed();
    f.answer(page(0, 5, 3));
    QCOMPARE(f.model.error().code, ErrorCode::Internal);
    QCOMPARE(f.model.rowCount(), 128);
}

void TstRowsModel::settingsMayBeDestroyedFirst()
{
    Fixture f;
    f.answer(page(0, 63, 128));
    f.model.index(64, 0).data();
    turn();
    f.model.index(127, 0).data();

    f.settings.reset();
    f.model.index(64, 0).data();
    turn();

    QCOMPARE(f.model.rowCount(), 128);
    QCOMPARE(f.model.index(1, 0).data(), QVariant(QStringLiteral("n1")));
    QVERIFY(!f.model.error());
}

// Sparse: a view looks at the rows that it shows.
void TstRowsModel::thousandsOfRowsAreRequestedInPages()
{
    ScriptedSettings settings;
    RowsModel model(&settings, path());
    settings.listings.takeFirst().promise.finish(page(0, 63, 10000));
    settings.takeLog();

    for (int i = 5000; i < 5080; ++i)
        model.index(i, 0).data();
    turn();

    QCOMPARE(settings.log.size(), 2);
    QCOMPARE(model.rowCount(), 10000);
}

QTEST_GUILESS_MAIN(TstRowsModel)
#include "tst_rowsmodel.moc"
