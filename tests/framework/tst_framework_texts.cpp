#include "api/core/language.h"
#include "api/core/model/cmerror.h"
#include "api/core/trstring.h"
#include "api/core/tulojson.h"
#include "tests/support/childprocess.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <vector>

namespace {

// Two catalogues, "first" and "second", compiled where the test can use them.
constexpr char firstGerman[] = R"(<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name>@settings/audio</name>
    <message><source>Volume</source><translation>Lautstärke</translation></message>
    <message><source>%1 of %2</source><translation>%2 davon %1</translation></message>
    <message><source>Off</source><comment>switch</comment><translation>Aus</translation></message>
    <message><source>Off</source><comment>distance</comment><translation>entfernt</translation></message>
    <message numerus="yes"><source>%n station(s)</source><translation>
        <numerusform>%n Sender hier</numerusform><numerusform>%n Sender da</numerusform>
    </translation></message>
</context>
<context>
    <name>@settings/display</name>
    <message><source>Volume</source><translation>Rauminhalt</translation></message>
</context>
<context>
    <name>CMError</name>
    <message><source>Error</source><translation>Fehler</translation></message>
</context>
</TS>
)";
constexpr char firstAustrian[] = R"(<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_AT">
<context>
    <name>@settings/audio</name>
    <message><source>Volume</source><translation>Lautheit</translation></message>
</context>
</TS>
)";
constexpr char secondGerman[] = R"(<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name>@settings/audio</name>
    <message><source>Balance</source><translation>Ausgleich</translation></message>
</context>
</TS>
)";

void compile(const QString& directory, const QString& name, const char* source)
{
    const QString base = QDir(directory).filePath(name);
    QFile file(base + QLatin1String(".ts"));
    if (!file.open(QIODevice::WriteOnly) || file.write(source) < 0)
        qFatal("cannot write %s", qPrintable(file.fileName()));
    file.close();
    const ChildResult result =
        ChildProcess::run(QStringLiteral("lrelease"),
                          { QStringLiteral("-silent"), file.fileName(), QStringLiteral("-qm"),
                            base + QLatin1String(".qm") });
    if (result.exitCode != 0)
        qFatal("lrelease failed: %s", result.standardError.constData());
}

TrString text(const char* source, const QList<TrArg>& arguments = {},
              const char* context = "@settings/audio", const char* disambiguation = nullptr,
              int n = -1)
{
    return TrString({ context, source, disambiguation, n }, arguments);
}

} // namespace

/// Translatable texts, and the language of the process.
class tst_framework_texts : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void literalIsItsText();
    void emptyTextIsEmpty();
    void sourceIsCopied();
    void argumentsReplaceTheirMarkers_data();
    void argumentsReplaceTheirMarkers();
    void equalityIsThatOfTheSource();
    void variantComparesByContent();
    void variantConvertsToPlainString();
    void fromVariantTakesTextsAndStrings();
    void isInRegistersNothing();

    void withoutCatalogueTheSourceIsShown();
    void translatesWhenAsked();
    void contextsAreApart();
    void disambiguationIsPartOfTheKey();
    void numberPicksThePluralForm();
    void translatedMarkersMayMove();
    void literalIsNeverTranslated();
    void errorTitleIsTranslated();
    void serializedInTheCurrentLanguage();

    void countryFallsBackToTheLanguage();
    void unknownLocaleInstallsNothing_data();
    void unknownLocaleInstallsNothing();
    void everyCatalogueOfTheDirectoriesIsInstalled();
    void changeIsAnnouncedAfterTheSwitch();
    void newLocaleReplacesTheOld();
    void emptyLocaleReturnsToTheSource();
    void brokenCatalogueIsLeftOut();
    void exampleCatalogueTranslates();
    void instanceIsOneForTheProcess();

private:
    QStringList directories() const { return { m_directory.path() }; }

    QTemporaryDir m_directory;
};

void tst_framework_texts::initTestCase()
{
    compile(m_directory.path(), QStringLiteral("first_de"), firstGerman);
    compile(m_directory.path(), QStringLiteral("first_de_AT"), firstAustrian);
    QVERIFY(QDir(m_directory.path()).mkdir(QStringLiteral("more")));
    compile(m_directory.filePath(QStringLiteral("more")), QStringLiteral("second_de"),
            secondGerman);
}

void tst_framework_texts::cleanup()
{
    Language::instance()->setLocale(QString(), {});
}

void tst_framework_texts::literalIsItsText()
{
    const TrString literal(QStringLiteral("Volume %1"));

    QCOMPARE(literal.toString(), QStringLiteral("Volume %1"));
    QCOMPARE(literal.source(), QStringLiteral("Volume %1"));
    QCOMPARE(literal.context(), QString());
    QVERIFY(!literal.isEmpty());
}

void tst_framework_texts::emptyTextIsEmpty()
{
    QVERIFY(TrString().isEmpty());
    QVERIFY(TrString(QString()).isEmpty());
    QVERIFY(text("").isEmpty());
    QVERIFY(TrString({ "context", nullptr, nullptr, -1 }, {}).isEmpty());
    QVERIFY(!text("x").isEmpty());
    QCOMPARE(TrString().toString(), QString());
}

void tst_framework_texts::sourceIsCopied()
{
    std::vector<char> context { 'c', '\0' };
    std::vector<char> source { 's', '\0' };
    std::vector<char> disambiguation { 'd', '\0' };
    const TrString copied({ context.data(), source.data(), disambiguation.data(), -1 }, {});
    for (std::vector<char>* bytes : { &context, &source, &disambiguation })
        bytes->front() = 'X';

    QCOMPARE(copied.toString(), QStringLiteral("s"));
    QCOMPARE(copied.context(), QStringLiteral("c"));
    QVERIFY(copied == TrString({ "c", "s", "d", -1 }, {}));
}

void tst_framework_texts::argumentsReplaceTheirMarkers_data()
{
    QTest::addColumn<QByteArray>("source");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("result");
    const auto row = [](const char* source, const QStringList& arguments, const char* result) {
        QTest::newRow(source) << QByteArray(source) << arguments << QString::fromLatin1(result);
    };
    const QString a = QStringLiteral("a");
    const QString b = QStringLiteral("b");
    row("x %1 y", { a }, "x a y");
    row("%2 %1", { a, b }, "b a");
    row("%1 %1", { a }, "a a");
    row("%1 inserted %2", { QStringLiteral("%2"), b }, "%2 inserted b");
    row("%3 is missing", { a, b }, "%3 is missing");
    row("100%", { a }, "100%");
    row("%0 %x", { a }, "%0 %x");
    row("none %1", {}, "none %1");
}

void tst_framework_texts::argumentsReplaceTheirMarkers()
{
    QFETCH(QByteArray, source);
    QFETCH(QStringList, arguments);

    QTEST(text(source.constData(), arguments).toString(), "result");
}

void tst_framework_texts::equalityIsThatOfTheSource()
{
    QVERIFY(text("a") == text("a"));
    QVERIFY(text("a") != text("b"));
    QVERIFY(text("a") != text("a", {}, "other"));
    QVERIFY(text("a") != text("a", { QStringLiteral("1") }));
    QVERIFY(text("a") != text("a", {}, "@settings/audio", "d"));
    QVERIFY(text("a") != text("a", {}, "@settings/audio", nullptr, 2));
    QVERIFY(text("a", {}, "") != TrString(QStringLiteral("a")));
    QVERIFY(TrString(QStringLiteral("a")) == TrString(QStringLiteral("a")));
}

void tst_framework_texts::variantComparesByContent()
{
    const QVariant variant = text("a");

    QVERIFY(variant == QVariant(text("a")));
    QVERIFY(variant != QVariant(text("b")));
    QCOMPARE(variant.typeName(), "TrString");
}

void tst_framework_texts::variantConvertsToPlainString()
{
    const QVariant variant = text("Volume");
    Language::instance()->setLocale(QStringLiteral("de"), directories());

    QCOMPARE(variant.toString(), QStringLiteral(u"Lautst\u00e4rke"));
}

void tst_framework_texts::fromVariantTakesTextsAndStrings()
{
    QVERIFY(TrString::fromVariant(text("a")) == text("a"));
    QVERIFY(TrString::fromVariant(QStringLiteral("a")) == TrString(QStringLiteral("a")));
    QVERIFY(TrString::fromVariant(QVariant()).isEmpty());
    QVERIFY(TrString::isIn(text("a")));
    QVERIFY(!TrString::isIn(QStringLiteral("a")));
}

void tst_framework_texts::isInRegistersNothing()
{
    const ChildResult child = ChildProcess::runInChild([] {
        QVERIFY(!TrString::isIn(QVariant(5)));
        QCOMPARE(QMetaType::type("TrString"), int(QMetaType::UnknownType));
    });

    QVERIFY2(child.exitCode == 0, child.standardOutput);
}

void tst_framework_texts::withoutCatalogueTheSourceIsShown()
{
    QCOMPARE(text("Volume").toString(), QStringLiteral("Volume"));
    QCOMPARE(Language::instance()->locale(), QString());
}

void tst_framework_texts::translatesWhenAsked()
{
    const TrString volume = text("Volume");
    Language::instance()->setLocale(QStringLiteral("de"), directories());

    QCOMPARE(volume.toString(), QStringLiteral(u"Lautst\u00e4rke"));
    // The source stays.
    QCOMPARE(volume.source(), QStringLiteral("Volume"));
}

void tst_framework_texts::contextsAreApart()
{
    Language::instance()->setLocale(QStringLiteral("de"), directories());

    QCOMPARE(text("Volume", {}, "@settings/display").toString(), QStringLiteral("Rauminhalt"));
    QCOMPARE(text("Volume", {}, "@settings/other").toString(), QStringLiteral("Volume"));
}

void tst_framework_texts::disambiguationIsPartOfTheKey()
{
    Language::instance()->setLocale(QStringLiteral("de"), directories());

    QCOMPARE(text("Off", {}, "@settings/audio", "switch").toString(), QStringLiteral("Aus"));
    QCOMPARE(text("Off", {}, "@settings/audio", "distance").toString(), QStringLiteral("entfernt"));
}

void tst_framework_texts::numberPicksThePluralForm()
{
    Language::instance()->setLocale(QStringLiteral("de"), directories());
    const auto stations = [](int n) {
        return text("%n station(s)", {}, "@settings/audio", nullptr, n).toString();
    };

    QCOMPARE(stations(1), QStringLiteral("1 Sender hier"));
    QCOMPARE(stations(5), QStringLiteral("5 Sender da"));
}

void tst_framework_texts::translatedMarkersMayMove()
{
    const TrString share = text("%1 of %2", { QStringLiteral("one"), QStringLiteral("two") });
    QCOMPARE(share.toString(), QStringLiteral("one of two"));

    Language::instance()->setLocale(QStringLiteral("de"), directories());

    QCOMPARE(share.toString(), QStringLiteral("two davon one"));
}

void tst_framework_texts::literalIsNeverTranslated()
{
    Language::instance()->setLocale(QStringLiteral("de"), directories());

    QCOMPARE(TrString(QStringLiteral("Volume")).toString(), QStringLiteral("Volume"));
}

void tst_framework_texts::errorTitleIsTranslated()
{
    const CMError error(QStringLiteral("n"), TrString());
    Language::instance()->setLocale(QStringLiteral("de"), directories());

    QCOMPARE(error.title().toString(), QStringLiteral("Fehler"));
}

void tst_framework_texts::serializedInTheCurrentLanguage()
{
    const QVariant volume = text("Volume");
    Language::instance()->setLocale(QStringLiteral("de"), directories());

    QCOMPARE(TuloJson::serialize(volume), QByteArray("\"Lautst\xC3\xA4rke\""));
}

void tst_framework_texts::countryFallsBackToTheLanguage()
{
    Language* const language = Language::instance();

    QCOMPARE(language->setLocale(QStringLiteral("de_AT"), directories()), 1);
    QCOMPARE(text("Volume").toString(), QStringLiteral("Lautheit"));

    QCOMPARE(language->setLocale(QStringLiteral("de_CH"), directories()), 1);
    QCOMPARE(text("Volume").toString(), QStringLiteral(u"Lautst\u00e4rke"));
    QCOMPARE(language->locale(), QStringLiteral("de_CH"));
}

void tst_framework_texts::unknownLocaleInstallsNothing_data()
{
    QTest::addColumn<QString>("locale");
    for (const char* locale : { "fi", "*", "?e", "[d]e", "d", "../first_de" })
        QTest::newRow(locale) << QString::fromLatin1(locale);
}

void tst_framework_texts::unknownLocaleInstallsNothing()
{
    QFETCH(QString, locale);

    QCOMPARE(Language::instance()->setLocale(locale, directories()), 0);
    QCOMPARE(text("Volume").toString(), QStringLiteral("Volume"));
}

void tst_framework_texts::everyCatalogueOfTheDirectoriesIsInstalled()
{
    const int installed = Language::instance()->setLocale(
        QStringLiteral("de"),
        { m_directory.path(), m_directory.filePath(QStringLiteral("more")),
          m_directory.filePath(QStringLiteral("none")) });

    QCOMPARE(installed, 2);
    QCOMPARE(text("Volume").toString(), QStringLiteral(u"Lautst\u00e4rke"));
    QCOMPARE(text("Balance").toString(), QStringLiteral("Ausgleich"));
}

void tst_framework_texts::changeIsAnnouncedAfterTheSwitch()
{
    QStringList seen;
    const QMetaObject::Connection connection =
        connect(Language::instance(), &Language::languageChanged, this,
                [&seen] { seen << text("Volume").toString(); });

    Language::instance()->setLocale(QStringLiteral("de"), directories());
    Language::instance()->setLocale(QString(), directories());
    disconnect(connection);

    QCOMPARE(seen, QStringList({ QStringLiteral(u"Lautst\u00e4rke"), QStringLiteral("Volume") }));
}

void tst_framework_texts::newLocaleReplacesTheOld()
{
    Language::instance()->setLocale(QStringLiteral("de"), directories());
    Language::instance()->setLocale(QStringLiteral("de_AT"), directories());

    QCOMPARE(text("Volume").toString(), QStringLiteral("Lautheit"));
    QCOMPARE(text("Volume", {}, "@settings/display").toString(), QStringLiteral("Volume"));
}

void tst_framework_texts::emptyLocaleReturnsToTheSource()
{
    Language::instance()->setLocale(QStringLiteral("de"), directories());

    QCOMPARE(Language::instance()->setLocale(QString(), directories()), 0);

    QCOMPARE(text("Volume").toString(), QStringLiteral("Volume"));
}

void tst_framework_texts::brokenCatalogueIsLeftOut()
{
    const QTemporaryDir directory;
    compile(directory.path(), QStringLiteral("good_de"), firstGerman);
    QFile broken(directory.filePath(QStringLiteral("broken_de.qm")));
    QVERIFY(broken.open(QIODevice::WriteOnly));
    QVERIFY(broken.write("no catalogue") > 0);
    broken.close();

    QCOMPARE(Language::instance()->setLocale(QStringLiteral("de"), { directory.path() }), 1);

    QCOMPARE(text("Volume").toString(), QStringLiteral(u"Lautst\u00e4rke"));
}

void tst_framework_texts::exampleCatalogueTranslates()
{
    QVERIFY(QDir(QStringLiteral(TULO_CATALOGUES)).exists());

    QVERIFY(
        Language::instance()->setLocale(QStringLiteral("de"), { QStringLiteral(TULO_CATALOGUES) })
        > 0);

    QCOMPARE(text("Volume").toString(), QStringLiteral(u"Lautst\u00e4rke"));
}

void tst_framework_texts::instanceIsOneForTheProcess()
{
    QCOMPARE(Language::instance(), Language::instance());
    QCOMPARE(Language::instance()->thread(), thread());
}

QTEST_GUILESS_MAIN(tst_framework_texts)
#include "tst_framework_texts.moc"
