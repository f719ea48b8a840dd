#include "tulo-cm/progress.h"

#include <QTest>

using namespace tulo;

/// What the line of progress shows at a time.
class tst_progress : public QObject
{
    Q_OBJECT

private slots:
    void nothingIsShownInTheFirstTwoSeconds();
    void knownCountsAreShown();
    void countIsNeverAboveTheTotal();
    void lineFitsTheTerminal_data();
    void lineFitsTheTerminal();
    void textIsEscaped();
};

void tst_progress::nothingIsShownInTheFirstTwoSeconds()
{
    Progress progress(QStringLiteral("loading"));
    progress.add(1000);

    QCOMPARE(progress.lineAt(0, 80), QString());
    QCOMPARE(progress.lineAt(1999, 80), QString());
    QCOMPARE(progress.lineAt(2000, 80), QStringLiteral("loading: 1000 ..."));
}

void tst_progress::knownCountsAreShown()
{
    Progress progress(QStringLiteral("loading"));

    QCOMPARE(progress.lineAt(5000, 80), QStringLiteral("loading ..."));
    progress.add(3);
    progress.add(4);
    QCOMPARE(progress.lineAt(5000, 80), QStringLiteral("loading: 7 ..."));
    progress.setTotal(10000);
    QCOMPARE(progress.lineAt(5000, 80), QStringLiteral("loading: 7 of 10000 ..."));
}

void tst_progress::countIsNeverAboveTheTotal()
{
    Progress progress(QStringLiteral("loading"));

    progress.setTotal(5);
    progress.add(7);

    QCOMPARE(progress.lineAt(5000, 80), QStringLiteral("loading: 5 of 5 ..."));
}

void tst_progress::lineFitsTheTerminal_data()
{
    QTest::addColumn<int>("columns");
    QTest::addColumn<QString>("line");
    QTest::newRow("nothing") << 0 << QString();
    QTest::newRow("1") << 1 << QStringLiteral("\u2026");
    QTest::newRow("8") << 8 << QStringLiteral("reading\u2026");
    QTest::newRow("1000") << 1000 << QStringLiteral("reading settings ...");
}

void tst_progress::lineFitsTheTerminal()
{
    QFETCH(int, columns);
    QFETCH(QString, line);
    const Progress progress(QStringLiteral("reading settings"));

    QCOMPARE(progress.lineAt(5000, columns), line);
}

void tst_progress::textIsEscaped()
{
    const Progress progress(QStringLiteral("a\x1b[31m"));

    QCOMPARE(progress.lineAt(5000, 80), QStringLiteral("a\\u001B[31m ..."));
}

QTEST_GUILESS_MAIN(tst_progress)
#include "tst_progress.moc"
