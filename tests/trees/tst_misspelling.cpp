#include "trees/misspelling.h"

#include <QTest>

using namespace tulo;

class tst_misspelling : public QObject
{
    Q_OBJECT

private slots:
    void misspellingIsRecognised_data();
    void misspellingIsRecognised();
};

void tst_misspelling::misspellingIsRecognised_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("meant");
    const auto row = [](const char* name, const char* meant) {
        QTest::newRow(name) << QString::fromUtf8(name) << QString::fromUtf8(meant);
    };
    row("titel", "title");
    row("tilte", "title");
    row("Title", "title");
    row("TITLE", "title");
    row("ttle", "title");
    row("titles", "title");
    row("modifyable", "modifiable");
    row("descripton", "description");
    row("desc", "description");
    row("longdescription", "longDescription");
    row("defaultvalue", "defaultValue");
    row("ID", "id");
    row("valueUnits", "valueUnit");
    // Words of their own.
    row("ip", "");
    row("vendorHint", "");
    row("tile-set", "");
    row("edited", "");
    row("", "");
    row("\xF0\x9F\x98\x80", "");
}

void tst_misspelling::misspellingIsRecognised()
{
    QFETCH(const QString, name);
    QFETCH(const QString, meant);
    const QStringList roles { QStringLiteral("value"),
                              QStringLiteral("defaultValue"),
                              QStringLiteral("title"),
                              QStringLiteral("description"),
                              QStringLiteral("longDescription"),
                              QStringLiteral("valueUnit"),
                              QStringLiteral("id"),
                              QStringLiteral("edit"),
                              QStringLiteral("modifiable") };

    QCOMPARE(nearest(name, roles), meant);
    QCOMPARE(suggestion(name, roles),
             meant.isEmpty() ? QString() : QStringLiteral("; did you mean '%1'?").arg(meant));
}

QTEST_GUILESS_MAIN(tst_misspelling)
#include "tst_misspelling.moc"
