#include "tulo-cm/table.h"

#include <QTest>

#include <algorithm>
#include <clocale>

using namespace tulo;

namespace {

TableForm terminal(int columns)
{
    TableForm form;
    form.columns = columns;
    form.hasMarks = true;
    return form;
}

QVector<TableRow> someRows()
{
    return {
        { { QStringLiteral("volume"), QStringLiteral("40"), QStringLiteral("Volume") },
          Style::Changed,
          QStringLiteral("*") },
        { { QStringLiteral("serial"), QStringLiteral("X1"), QStringLiteral("Serial number") },
          Style::ReadOnly,
          QStringLiteral("=") },
        { { QStringLiteral("equalizer/"), QStringLiteral("-"), QString() }, Style::Directory },
    };
}

} // namespace

class tst_table : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void widestColumnsShrinkFirstAndNamesLast_data();
    void widestColumnsShrinkFirstAndNamesLast();
    void withoutLimitNothingIsCut();
    void marksAreShownOnATerminalOnly();
    void withoutMarksThereIsNoColumnForThem();
    void longCellIsCutAtItsEndAPathAtItsBeginning();
    void noLineExceedsTheTerminal_data();
    void noLineExceedsTheTerminal();
    void coloursDoNotCount();
    void wideCharactersAreAligned();
    void noRowsAreNoLines();
    void tenThousandRowsFit();
    void cellsAreEscaped();
};

void tst_table::initTestCase()
{
    QVERIFY(std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr);
}

void tst_table::widestColumnsShrinkFirstAndNamesLast_data()
{
    QTest::addColumn<QVector<int>>("widths");
    QTest::addColumn<int>("available");
    QTest::addColumn<QVector<int>>("fitted");
    using Widths = QVector<int>;
    QTest::newRow("none") << Widths {} << 10 << Widths {};
    QTest::newRow("fits") << Widths { 3, 4, 5 } << 12 << Widths { 3, 4, 5 };
    QTest::newRow("widest") << Widths { 3, 40, 5 } << 20 << Widths { 3, 12, 5 };
    QTest::newRow("two widest") << Widths { 4, 30, 50 } << 24 << Widths { 4, 10, 10 };
    QTest::newRow("rest of a division") << Widths { 3, 30, 30 } << 24 << Widths { 3, 10, 11 };
    QTest::newRow("names") << Widths { 20, 40, 40 } << 40 << Widths { 20, 10, 10 };
    QTest::newRow("names that leave little") << Widths { 20, 3, 40 } << 30 << Widths { 19, 3, 8 };
    QTest::newRow("names cut as the others") << Widths { 9, 9, 9 } << 21 << Widths { 7, 7, 7 };
    QTest::newRow("at least one each") << Widths { 5, 5, 5 } << 0 << Widths { 1, 1, 1 };
    QTest::newRow("less than nothing") << Widths { 5, 0 } << -7 << Widths { 1, 0 };
}

void tst_table::widestColumnsShrinkFirstAndNamesLast()
{
    QFETCH(QVector<int>, widths);
    QFETCH(int, available);
    QFETCH(QVector<int>, fitted);

    QCOMPARE(fittedWidths(widths, available), fitted);
}

void tst_table::withoutLimitNothingIsCut()
{
    const QString value(5000, QLatin1Char('x'));

    const QStringList lines =
        tableLines({ QStringLiteral("name"), QStringLiteral("value") },
                   { { { QStringLiteral("volume"), value }, Style::Changed, QStringLiteral("*") },
                     { { QStringLiteral("a"), QStringLiteral("b") } } },
                   {});

    QCOMPARE(lines,
             QStringList({ QStringLiteral("name    value"), QStringLiteral("volume  ") + value,
                           QStringLiteral("a       b") }));
}

void tst_table::marksAreShownOnATerminalOnly()
{
    QCOMPARE(tableLines({}, someRows(), terminal(80)),
             QStringList({ QStringLiteral("* volume      40  Volume"),
                           QStringLiteral("= serial      X1  Serial number"),
                           QStringLiteral("  equalizer/  -   ") }));
    QCOMPARE(tableLines({}, someRows(), {}),
             QStringList({ QStringLiteral("volume      40  Volume"),
                           QStringLiteral("serial      X1  Serial number"),
                           QStringLiteral("equalizer/  -   ") }));
}

void tst_table::withoutMarksThereIsNoColumnForThem()
{
    QCOMPARE(tableLines({ QStringLiteral("name") }, { { { QStringLiteral("a") } } }, terminal(80)),
             QStringList({ QStringLiteral("name"), QStringLiteral("a") }));
}

void tst_table::longCellIsCutAtItsEndAPathAtItsBeginning()
{
    const QVector<TableRow> rows { { { QStringLiteral("/settings/audio/volume"),
                                       QStringLiteral("a rather long description") } } };

    QCOMPARE(tableLines({}, rows, terminal(24)),
             QStringList(QStringLiteral("\u2026/audio/volume  a rathe\u2026")));
}

void tst_table::noLineExceedsTheTerminal_data()
{
    QTest::addColumn<int>("columns");
    for (const int columns : { 1, 2, 3, 5, 7, 20, 80, 1000 })
        QTest::addRow("%d", columns) << columns;
}

void tst_table::noLineExceedsTheTerminal()
{
    QFETCH(int, columns);
    QVector<TableRow> rows = someRows();
    rows.append({ { QString(300, QLatin1Char('n')), QString(3000, QChar(0x65e5)),
                    QStringLiteral("/") + QString(300, QLatin1Char('p')) } });

    const QStringList lines =
        tableLines({ QStringLiteral("name"), QStringLiteral("value"), QStringLiteral("title") },
                   rows, terminal(columns));

    QCOMPARE(lines.size(), 5);
    for (const QString& line : lines)
        QVERIFY2(widthOf(line) <= columns, qPrintable(line));
    // Wide as it is, all of it is used.
    const auto widest = std::max_element(
        lines.cbegin(), lines.cend(),
        [](const QString& left, const QString& right) { return widthOf(left) < widthOf(right); });
    QVERIFY(widthOf(*widest) >= columns - 2);
}

void tst_table::coloursDoNotCount()
{
    TableForm form = terminal(20);
    const QStringList plain = tableLines({ QStringLiteral("name") }, someRows(), form);
    form.hasColours = true;

    const QStringList coloured = tableLines({ QStringLiteral("name") }, someRows(), form);

    QCOMPARE(coloured.size(), plain.size());
    QCOMPARE(coloured.at(0), QStringLiteral("  \x1b[1mname\x1b[0m"));
    QCOMPARE(coloured.at(1),
             QStringLiteral("* \x1b[1m") + plain.at(1).mid(2) + QStringLiteral("\x1b[0m"));
    QCOMPARE(coloured.at(2),
             QStringLiteral("= \x1b[2m") + plain.at(2).mid(2) + QStringLiteral("\x1b[0m"));
    // Of a directory the name only.
    QVERIFY(coloured.at(3).startsWith(QStringLiteral("  \x1b[1;34m")));
    QVERIFY(!coloured.at(3).endsWith(QStringLiteral("\x1b[0m")));
    for (int i = 0; i < plain.size(); ++i) {
        QString without = coloured.at(i);
        for (const char* sequence : { "\x1b[0m", "\x1b[1m", "\x1b[2m", "\x1b[1;34m" })
            without.remove(QLatin1String(sequence));
        QCOMPARE(without, plain.at(i));
    }
}

void tst_table::wideCharactersAreAligned()
{
    // Two columns each, and an "e" with a combining accent in one.
    const QVector<TableRow> rows { { { QString::fromUtf8("日本"), QStringLiteral("1") } },
                                   { { QString::fromUtf8("e\u0301e\u0301"), QStringLiteral("2") } },
                                   { { QStringLiteral("abcd"), QStringLiteral("3") } } };

    QCOMPARE(tableLines({}, rows, {}),
             QStringList({ QString::fromUtf8("日本  1"), QString::fromUtf8("e\u0301e\u0301    2"),
                           QStringLiteral("abcd  3") }));
    QCOMPARE(tableLines({}, rows, terminal(6)),
             QStringList({ QString::fromUtf8("日…  1"), QString::fromUtf8("e\u0301e\u0301   2"),
                           QStringLiteral("ab\u2026  3") }));
}

void tst_table::noRowsAreNoLines()
{
    QCOMPARE(tableLines({}, {}, terminal(80)), QStringList());
    QCOMPARE(tableLines({ QStringLiteral("name") }, {}, terminal(80)),
             QStringList(QStringLiteral("name")));
    QCOMPARE(tableLines({}, { {} }, terminal(80)), QStringList(QString()));
}

void tst_table::tenThousandRowsFit()
{
    QVector<TableRow> rows;
    for (int i = 0; i < 10000; ++i)
        rows.append({ { QStringLiteral("name%1").arg(i), QString(i % 200, QLatin1Char('v')) } });

    const QStringList lines = tableLines({}, rows, terminal(40));

    QCOMPARE(lines.size(), 10000);
    QCOMPARE(lines.at(199),
             QStringLiteral("name199   ") + QString(29, QLatin1Char('v')) + QChar(0x2026));
    QCOMPARE(lines.last(),
             lines.at(199).mid(0, 4) + QStringLiteral("9999  ") + lines.at(199).mid(10));
}

void tst_table::cellsAreEscaped()
{
    TableForm form = terminal(80);
    form.hasColours = true;

    QCOMPARE(tableLines({}, { { { QStringLiteral("a\x1b[31m\nb") } } }, form),
             QStringList(QStringLiteral("a\\u001B[31m\\u000Ab")));
}

QTEST_GUILESS_MAIN(tst_table)
#include "tst_table.moc"
