#include "trees/nodenames.h"

#include <QRegExp>
#include <QTest>

using namespace tulo;

class tst_nodenames : public QObject
{
    Q_OBJECT

private slots:
    void listableNamesAreWhatTheWorkersPatternMatches();
    void namesOfVariantsContinueThoseOfSettings();
};

void tst_nodenames::listableNamesAreWhatTheWorkersPatternMatches()
{
    const QRegExp pattern(QStringLiteral("^[\\w-_]+$"));
    const QString letter = QStringLiteral("a");

    QCOMPARE(isListable(QString()), pattern.exactMatch(QString()));
    for (int code = 0; code <= 0xffff; ++code) {
        const QChar character(code);
        for (const QString& name : { QString(character), letter + character, character + letter }) {
            if (isListable(name) != pattern.exactMatch(name))
                QFAIL(qPrintable(QStringLiteral("U+%1").arg(code, 4, 16, QLatin1Char('0'))));
        }
    }
}

void tst_nodenames::namesOfVariantsContinueThoseOfSettings()
{
    QCOMPARE(plainPathsOf(QStringLiteral("/a_b/c_d_e")),
             QStringList({ QStringLiteral("/a_b/c_d"), QStringLiteral("/a_b/c") }));
    QCOMPARE(plainPathsOf(QStringLiteral("/a_b/c")), QStringList());
    QCOMPARE(plainPathsOf(QStringLiteral("/a/_c")), QStringList());
}

QTEST_GUILESS_MAIN(tst_nodenames)
#include "tst_nodenames.moc"
