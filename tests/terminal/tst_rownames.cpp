#include "tulo-cm/rownames.h"

#include <QTest>

using namespace tulo;

namespace {

const QLatin1String directory("/settings/presets");

Event data(const char* name)
{
    Event event;
    event.kind = Event::Kind::Data;
    event.path = directory + QLatin1Char('/') + QLatin1String(name);
    return event;
}

Event rows(const char* command, int version)
{
    Event event;
    event.kind = Event::Kind::Rows;
    event.path = directory;
    event.command = QLatin1String(command);
    event.version = version;
    return event;
}

QString pathOf(const char* name)
{
    return directory + QLatin1Char('/') + QLatin1String(name);
}

RowNames listed()
{
    RowNames names;
    names.setListed(directory, { QStringLiteral("a"), QStringLiteral("c"), QStringLiteral("e") },
                    4);
    return names;
}

} // namespace

class tst_rownames : public QObject
{
    Q_OBJECT

private slots:
    void rowThatAppearsIsThatOfTheDataBefore();
    void rowThatGoesIsNamedByTheListing();
    void indexesFollowTheRowsThatMove();
    void changedRowNeedsNoListing();
    void versionLeftOutMakesRowsUnknown();
    void dataOfAnotherDirectoryNamesNoRow();
    void nothingIsKnownAfterEventsWereMissed();
    void indexBeyondTheRowsNamesNone();
};

void tst_rownames::rowThatAppearsIsThatOfTheDataBefore()
{
    RowNames names = listed();

    QCOMPARE(names.take(data("b")), QString());
    QCOMPARE(names.take(rows("+1", 5)), pathOf("b"));
    QCOMPARE(names.names(directory),
             QStringList({ QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c"),
                           QStringLiteral("e") }));
}

void tst_rownames::rowThatGoesIsNamedByTheListing()
{
    RowNames names = listed();

    // As a reset tells it: the data of all, then the rows from the last to the first.
    names.take(data("a"));
    names.take(data("e"));
    QCOMPARE(names.take(rows("-2", 5)), pathOf("e"));
    QCOMPARE(names.take(rows("-0", 6)), pathOf("a"));
    QCOMPARE(names.names(directory), QStringList(QStringLiteral("c")));
}

void tst_rownames::indexesFollowTheRowsThatMove()
{
    RowNames names = listed();

    names.take(data("b"));
    names.take(rows("+1", 5));
    names.take(data("d"));
    names.take(rows("+3", 6));

    QCOMPARE(names.take(rows("-4", 7)), pathOf("e"));
    QCOMPARE(names.take(rows("-1", 8)), pathOf("b"));
    QCOMPARE(names.take(rows("-1", 9)), pathOf("c"));
    QCOMPARE(names.take(rows("-1", 10)), pathOf("d"));
    QCOMPARE(names.take(rows("-0", 11)), pathOf("a"));
}

void tst_rownames::changedRowNeedsNoListing()
{
    RowNames names;

    names.take(data("c"));

    QCOMPARE(names.take(rows("1", 9)), pathOf("c"));
    QVERIFY(!names.isKnown(directory));
}

void tst_rownames::versionLeftOutMakesRowsUnknown()
{
    RowNames names = listed();

    QCOMPARE(names.take(rows("-0", 6)), QString());
    QVERIFY(!names.isKnown(directory));

    names.setListed(directory, { QStringLiteral("c"), QStringLiteral("e") }, 6);
    QCOMPARE(names.take(rows("-1", 7)), pathOf("e"));
}

void tst_rownames::dataOfAnotherDirectoryNamesNoRow()
{
    RowNames names = listed();
    names.setListed(QStringLiteral("/settings"), { QStringLiteral("presets") }, 1);

    names.take(data("deeper/b"));
    QCOMPARE(names.take(rows("+1", 5)), QString());
    // Which row it was decides what the others are.
    QVERIFY(!names.isKnown(directory));
    QVERIFY(names.isKnown(QStringLiteral("/settings")));
}

void tst_rownames::nothingIsKnownAfterEventsWereMissed()
{
    RowNames names = listed();

    names.forget();

    QVERIFY(!names.isKnown(directory));
    QCOMPARE(names.take(rows("-0", 5)), QString());
}

void tst_rownames::indexBeyondTheRowsNamesNone()
{
    RowNames names = listed();

    QCOMPARE(names.take(rows("-3", 5)), QString());
}

QTEST_GUILESS_MAIN(tst_rownames)
#include "tst_rownames.moc"
