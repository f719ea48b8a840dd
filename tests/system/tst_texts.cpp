#include "tests/support/childprocess.h"
#include "tests/support/files.h"
#include "tests/support/temporarytree.h"

#include <QFile>
#include <QTest>

namespace {

/// A default tree, and a German catalogue beside it.
class Translations
{
public:
    ChildResult update(const QStringList& options = {}) const
    {
        return ChildProcess::run(
            QStringLiteral(TULO_CM_PROGRAM),
            QStringList { QStringLiteral("texts"), tree.defaultPath(), catalogueName() } + options);
    }

    QString catalogueName() const { return tree.path() + QStringLiteral("/settings_de.ts"); }

    QByteArray catalogue() const { return readFile(catalogueName()); }

    // Gives a text without a translation one.
    bool translate(const QByteArray& source, const QByteArray& translation) const
    {
        QByteArray content = catalogue();
        const int message = content.indexOf("<source>" + source + "</source>");
        const QByteArray missing = "<translation type=\"unfinished\"></translation>";
        const int place = content.indexOf(missing, message);
        if (message < 0 || place < 0)
            return false;
        content.replace(place, missing.size(), "<translation>" + translation + "</translation>");
        writeFile(catalogueName(), content);
        return true;
    }

    TemporaryTree tree;
};

QByteArray counts(int finished, int unfinished, int vanished)
{
    return ": " + QByteArray::number(finished) + " finished, " + QByteArray::number(unfinished)
        + " unfinished, " + QByteArray::number(vanished) + " vanished\n";
}

} // namespace

/// The texts of a default tree in Qt Linguist's catalogues.
class TstTexts : public QObject
{
    Q_OBJECT

private slots:
    void textHasItsContextAndItsPlace_data();
    void textHasItsContextAndItsPlace();
    void translationSurvives();
    void vanishedTextIsMarked();
    void brokenTreeChangesNoCatalogue();
    void textsOfTemplatesAreThere();
    void textsOfDirectoriesAreNot();
    void equalTextsOfVariantsAreOneMessage();
    void unusualCharactersSurvive_data();
    void unusualCharactersSurvive();
    void checkChangesNothing();
    void exampleTreeIsTranslated();
    void brokenCatalogueStays();
    void missingTreeIsWrongUsage();
    void ownLinkIsNotFollowedForEver();
};

void TstTexts::textHasItsContextAndItsPlace_data()
{
    QTest::addColumn<bool>("isRelative");
    QTest::newRow("absolute names") << false;
    QTest::newRow("relative names") << true;
}

void TstTexts::textHasItsContextAndItsPlace()
{
    QFETCH(const bool, isRelative);
    const Translations translations;
    translations.tree.writeDefault(QStringLiteral("/audio/volume"),
                                   "{\n  \"value\": {\"int\": 1},\n  \"title\": \"Volume\",\n"
                                   "  \"description\": \"Loudness\", \"valueUnit\": \"%\"\n}\n");
    const QString folder = translations.tree.path() + QLatin1Char('/');
    QString tree = translations.tree.defaultPath();
    QString catalogueName = translations.catalogueName();
    if (isRelative) {
        tree.remove(folder);
        catalogueName.remove(folder);
    }

    ChildProcess program(QStringLiteral(TULO_CM_PROGRAM),
                         { QStringLiteral("texts"), tree, catalogueName });
    program.setWorkingDirectory(folder);
    QVERIFY(program.start());
    const ChildResult result = program.finish();

    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.standardOutput, catalogueName.toUtf8() + counts(0, 3, 0));
    QCOMPARE(result.exitCode, 0);
    const QByteArray catalogue = translations.catalogue();
    QVERIFY(catalogue.contains("language=\"de_DE\""));
    QVERIFY(catalogue.contains("<name>@settings/audio</name>"));
    const QByteArray place = "<location filename=\""
        + translations.tree.defaultPath().mid(folder.size()).toUtf8() + "/audio/volume\" line=\"";
    QVERIFY2(catalogue.contains(place
                                + "3\"/>\n        <source>Volume</source>\n"
                                  "        <extracomment>title of /audio/volume"),
             catalogue.constData());
    QVERIFY(catalogue.contains(place
                               + "4\"/>\n        <source>Loudness</source>\n"
                                 "        <extracomment>description of /audio/volume"));
    QVERIFY(catalogue.contains(place
                               + "4\"/>\n        <source>%</source>\n"
                                 "        <extracomment>valueUnit of /audio/volume"));
}

void TstTexts::translationSurvives()
{
    const Translations translations;
    translations.tree.writeDefault(QStringLiteral("/volume"), R"({"title":"Volume"})");
    QCOMPARE(translations.update().exitCode, 0);
    QVERIFY(translations.translate("Volume", "Lautstärke"));
    translations.tree.writeDefault(QStringLiteral("/volume"),
                                   R"({"title":"Volume","description":"How loud it is"})");

    const ChildResult result = translations.update();

    QVERIFY(result.standardOutput.endsWith(counts(1, 1, 0)));
    QVERIFY(translations.catalogue().contains("<translation>Lautstärke</translation>"));
}

void TstTexts::vanishedTextIsMarked()
{
    const Translations translations;
    translations.tree.writeDefault(QStringLiteral("/volume"), R"({"title":"Volume"})");
    QCOMPARE(translations.update().exitCode, 0);
    QVERIFY(translations.translate("Volume", "Lautstärke"));
    translations.tree.writeDefault(QStringLiteral("/volume"), R"({"title":"Unrelated words"})");

    const ChildResult result = translations.update();

    QVERIFY(result.standardOutput.endsWith(counts(0, 1, 1)));
    QVERIFY(translations.catalogue().contains("type=\"vanished\">Lautstärke</translation>"));
}

void TstTexts::brokenTreeChangesNoCatalogue()
{
    const Translations translations;
    translations.tree.writeDefault(QStringLiteral("/volume"), R"({"title":"Volume"})");
    QCOMPARE(translations.update().exitCode, 0);
    QVERIFY(translations.translate("Volume", "Lautstärke"));
    const QByteArray before = translations.catalogue();
    translations.tree.writeDefault(QStringLiteral("/volume"), R"({"title":"Volume",})");

    const ChildResult result = translations.update();

    QCOMPARE(result.standardError,
             "tulo-cm: " + translations.tree.defaultPath().toUtf8()
                 + "/volume:1:19 is not JSON: Missing a name for object member.\n");
    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(translations.catalogue(), before);
}

void TstTexts::textsOfTemplatesAreThere()
{
    const Translations translations;
    translations.tree.writeDefault(QStringLiteral("/open/.meta"), R"({"title":"Open preset"})");
    translations.tree.writeDefault(QStringLiteral("/closed/.meta"),
                                   R"({"title":"Closed preset","modifiable":false})");
    translations.tree.writeDefault(QStringLiteral("/closed/one"), "{}");
    translations.tree.writeDefault(QStringLiteral("/closed/two"), "{}");

    const ChildResult result = translations.update();

    QVERIFY2(result.standardOutput.endsWith(counts(0, 2, 0)), result.standardOutput.constData());
    const QByteArray catalogue = translations.catalogue();
    QVERIFY(catalogue.contains("<name>@settings/open</name>"));
    QVERIFY(catalogue.contains("<source>Open preset</source>"));
    QVERIFY(catalogue.contains("/closed/.meta\" line=\"1\"/>"));
}

void TstTexts::textsOfDirectoriesAreNot()
{
    const Translations translations;
    translations.tree.writeDefault(QStringLiteral("/audio/.meta"),
                                   R"({"title":"Audio","modifiable":false})");
    translations.tree.writeDefault(QStringLiteral("/audio/volume"), R"({"title":"Volume"})");

    const ChildResult result = translations.update();

    QVERIFY(result.standardOutput.endsWith(counts(0, 1, 0)));
    QVERIFY(!translations.catalogue().contains("<source>Audio</source>"));
}

void TstTexts::equalTextsOfVariantsAreOneMessage()
{
    const Translations translations;
    translations.tree.writeDefault(QStringLiteral("/volume"), R"({"title":"Volume"})");
    translations.tree.writeDefault(QStringLiteral("/volume_sport"),
                                   R"({"title":"Volume","valueUnit":"dB"})");

    const ChildResult result = translations.update();

    QVERIFY(result.standardOutput.endsWith(counts(0, 2, 0)));
    QCOMPARE(translations.catalogue().count("<source>Volume</source>"), 1);
    QVERIFY(translations.catalogue().contains("/volume_sport\" line=\"1\"/>"));
}

void TstTexts::unusualCharactersSurvive_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("quotes") << QStringLiteral(R"(say "loud" \ 'soft')");
    QTest::newRow("newline") << QStringLiteral("first\nsecond\tthird");
    QTest::newRow("other scripts") << QString::fromUtf8("ä € 音量 \xf0\x9f\x94\x8a");
    QTest::newRow("comments") << QStringLiteral("a /* b */ // c");
    QTest::newRow("macro") << QStringLiteral("QT_TRANSLATE_NOOP(\"x\", \"y\")");
    QTest::newRow("digits after a control character") << QStringLiteral("\t123");
    QTest::newRow("trigraph") << QStringLiteral("what?\?/n?\?=");
    QTest::newRow("markup") << QStringLiteral("<b>&amp; %1</b>");
}

// What the catalogue finds when the text is shown.
void TstTexts::unusualCharactersSurvive()
{
    QFETCH(const QString, text);
    const Translations translations;
    translations.tree.writeDefault(QStringLiteral("/volume"),
                                   QVariantHash { { QStringLiteral("title"), text } });
    QCOMPARE(translations.update().exitCode, 0);
    QByteArray catalogue = translations.catalogue();
    QCOMPARE(catalogue.count("<translation type=\"unfinished\"></translation>"), 1);
    catalogue.replace("<translation type=\"unfinished\"></translation>",
                      "<translation>found</translation>");
    writeFile(translations.catalogueName(), catalogue);
    QCOMPARE(ChildProcess::run(QStringLiteral("lrelease"),
                               { QStringLiteral("-silent"), translations.catalogueName() })
                 .exitCode,
             0);

    const ChildResult result = ChildProcess::run(
        QStringLiteral(TULO_CM_PROGRAM),
        { QStringLiteral("--default-path"), translations.tree.defaultPath(),
          QStringLiteral("--write-path"), translations.tree.writePath(),
          QStringLiteral("--catalogues"), translations.tree.path(), QStringLiteral("--language"),
          QStringLiteral("de"), QStringLiteral("get"), QStringLiteral("/settings/volume"),
          QStringLiteral("--role"), QStringLiteral("title") });

    QCOMPARE(result.standardOutput, QByteArray("found\n"));
}

void TstTexts::checkChangesNothing()
{
    const Translations translations;
    translations.tree.writeDefault(QStringLiteral("/volume"), R"({"title":"Volume"})");
    QCOMPARE(translations.update().exitCode, 0);
    QVERIFY(translations.translate("Volume", "Lautstärke"));
    QCOMPARE(translations.update({ QStringLiteral("--check") }).exitCode, 0);
    const QByteArray before = translations.catalogue();
    translations.tree.writeDefault(QStringLiteral("/other"), R"({"title":"Something new"})");

    const ChildResult result = translations.update({ QStringLiteral("--check") });

    QCOMPARE(result.exitCode, 8);
    QVERIFY(result.standardOutput.endsWith(counts(1, 1, 0)));
    QCOMPARE(translations.catalogue(), before);
}

void TstTexts::exampleTreeIsTranslated()
{
    const ChildResult result =
        ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM),
                          { QStringLiteral("texts"), QStringLiteral(TULO_EXAMPLE_TREE),
                            QStringLiteral(TULO_SOURCE_DIR "/examples/translations/settings_de.ts"),
                            QStringLiteral("--check") });

    QVERIFY2(result.standardOutput.endsWith(" 0 unfinished, 0 vanished\n"),
             result.standardOutput.constData());
    QCOMPARE(result.exitCode, 0);
}

void TstTexts::brokenCatalogueStays()
{
    const Translations translations;
    translations.tree.writeDefault(QStringLiteral("/volume"), R"({"title":"Volume"})");
    writeFile(translations.catalogueName(), "<TS");

    const ChildResult result = translations.update();

    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.standardError.startsWith("tulo-cm: lupdate: "),
             result.standardError.constData());
    QCOMPARE(translations.catalogue(), QByteArray("<TS"));
}

void TstTexts::missingTreeIsWrongUsage()
{
    const ChildResult result = ChildProcess::run(
        QStringLiteral(TULO_CM_PROGRAM),
        { QStringLiteral("texts"), QStringLiteral("/nowhere"), QStringLiteral("x.ts") });

    QCOMPARE(result.exitCode, 2);
    QVERIFY(result.standardError.contains("'/nowhere'"));
}

void TstTexts::ownLinkIsNotFollowedForEver()
{
    const Translations translations;
    translations.tree.writeDefault(QStringLiteral("/audio/volume"), R"({"title":"Volume"})");
    for (const char* name : { "/a", "/b", "/c" })
        QVERIFY(QFile::link(translations.tree.defaultPath(),
                            translations.tree.defaultPath() + QLatin1String(name)));

    const ChildResult result = translations.update();

    QVERIFY2(result.standardOutput.endsWith(counts(0, 1, 0)), result.standardOutput.constData());
}

QTEST_GUILESS_MAIN(TstTexts)
#include "tst_texts.moc"
