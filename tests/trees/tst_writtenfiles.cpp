#include "trees/writtenfiles.h"

#include "tests/support/temporarytree.h"

#include <QDir>
#include <QFile>
#include <QTest>

using namespace tulo;

namespace {

const QByteArray written = R"({"timestamp":5,"value":{"int":5}})";

} // namespace

class tst_WrittenFiles : public QObject
{
    Q_OBJECT

private slots:
    void fileBelongsToASetting_data();
    void fileBelongsToASetting();
    void productFileIsADefault();
    void settingsAreFoundAtAndBelowADirectory();
    void strayDirectoriesAreThoseOfOtherImages();
    void linksAreNotFollowed();
};

void tst_WrittenFiles::fileBelongsToASetting_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("withDefault");
    QTest::addColumn<bool>("withoutDefault");
    const auto row = [](const char* name, const QByteArray& content, bool withoutDefault) {
        QTest::newRow(name) << content << true << withoutDefault;
    };
    row("as the worker writes it", written, true);
    row("encrypted", R"({"encryptedValue":"x","encrypted":true,"timestamp":5})", true);
    row("without a value", R"({"id":"A1"})", true);
    row("damaged", R"({"value":)", false);
    row("empty", "", false);
    row("empty object", "{}", false);
    row("list", R"(["value"])", false);
    row("text", "value", false);
    row("something else beside", R"({"value":{"int":5},"version":2})", false);
    row("too large", R"({"id":")" + QByteArray(1024 * 1024, 'x') + R"("})", false);
}

void tst_WrittenFiles::fileBelongsToASetting()
{
    QFETCH(const QByteArray, content);
    QFETCH(const bool, withDefault);
    QFETCH(const bool, withoutDefault);
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/audio/volume"), "{}");
    tree.writeWritten(QStringLiteral("/audio/volume"), content);
    tree.writeWritten(QStringLiteral("/audio/old"), content);
    const WrittenFiles files(tree.defaultPath(), tree.writePath(), QString());

    QCOMPARE(files.isWritten(QStringLiteral("/audio/volume")), withDefault);
    QCOMPARE(files.isWritten(QStringLiteral("/audio/old")), withoutDefault);
    QVERIFY(!files.isWritten(QStringLiteral("/audio")));
    QVERIFY(!files.isWritten(QStringLiteral("/audio/none")));
}

void tst_WrittenFiles::productFileIsADefault()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/volume_sport"), "{}");
    tree.writeDefault(QStringLiteral("/directory/one"), "{}");
    const WrittenFiles plain(tree.defaultPath(), tree.writePath(), QString());
    const WrittenFiles sport(tree.defaultPath(), tree.writePath(), QStringLiteral("sport"));

    QVERIFY(!plain.hasDefault(QStringLiteral("/volume")));
    QVERIFY(sport.hasDefault(QStringLiteral("/volume")));
    // A row of its own in listings.
    QVERIFY(plain.hasDefault(QStringLiteral("/volume_sport")));
    QVERIFY(!plain.hasDefault(QStringLiteral("/directory")));
}

void tst_WrittenFiles::settingsAreFoundAtAndBelowADirectory()
{
    const TemporaryTree tree;
    // What is a setting in one image can be a directory in another one.
    tree.writeDefault(QStringLiteral("/was-setting/one"), "{}");
    for (const char* setting : { "/was-setting", "/audio/volume", "/audio/deep/one", "/audio2/x",
                                 "/audio/.hidden", "/audio/.deep/one" })
        tree.writeWritten(QLatin1String(setting), written);
    const WrittenFiles files(tree.defaultPath(), tree.writePath(), QString());

    QCOMPARE(files.settingsBelow(QStringLiteral("/audio")),
             QStringList({ QStringLiteral("/audio/deep/one"), QStringLiteral("/audio/volume") }));
    QCOMPARE(files.settingsBelow(QStringLiteral("/audio/volume")),
             QStringList(QStringLiteral("/audio/volume")));
    QCOMPARE(files.settingsBelow(QStringLiteral("/was-setting")),
             QStringList(QStringLiteral("/was-setting")));
    QCOMPARE(files.settingsBelow(QStringLiteral("/none")), QStringList());
    QCOMPARE(files.settingsBelow(QStringLiteral("/")),
             QStringList({ QStringLiteral("/audio/deep/one"), QStringLiteral("/audio/volume"),
                           QStringLiteral("/audio2/x"), QStringLiteral("/was-setting") }));
}

void tst_WrittenFiles::strayDirectoriesAreThoseOfOtherImages()
{
    const TemporaryTree tree;
    tree.makeDefaultDirectory(QStringLiteral("/audio"));
    for (const char* directory : { "/audio/old/deep", "/radio", "/lost+found", "/.hidden/radio" })
        tree.makeWriteDirectory(QLatin1String(directory));
    const WrittenFiles files(tree.defaultPath(), tree.writePath(), QString());
    const auto sorted = [](QStringList directories) {
        directories.sort();
        return directories;
    };

    QCOMPARE(sorted(files.strayDirectoriesBelow(QStringLiteral("/"))),
             QStringList({ QStringLiteral("/audio/old"), QStringLiteral("/audio/old/deep"),
                           QStringLiteral("/radio") }));
    QCOMPARE(sorted(files.strayDirectoriesBelow(QStringLiteral("/audio/old/deep"))),
             QStringList({ QStringLiteral("/audio/old"), QStringLiteral("/audio/old/deep") }));
    QCOMPARE(files.strayDirectoriesAbove(QStringLiteral("/audio/old/deep/one")),
             QStringList({ QStringLiteral("/audio/old/deep"), QStringLiteral("/audio/old") }));
    QCOMPARE(files.strayDirectoriesAbove(QStringLiteral("/audio/volume")), QStringList());
    QCOMPARE(files.strayDirectoriesAbove(QStringLiteral("/volume")), QStringList());
}

void tst_WrittenFiles::linksAreNotFollowed()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/linked"), "{}");
    tree.writeWritten(QStringLiteral("/audio/volume"), written);
    QVERIFY(QFile::link(tree.writePath() + QStringLiteral("/audio/volume"),
                        tree.writePath() + QStringLiteral("/linked")));
    QVERIFY(QFile::link(tree.writePath() + QStringLiteral("/audio"),
                        tree.writePath() + QStringLiteral("/other")));
    const WrittenFiles files(tree.defaultPath(), tree.writePath(), QString());

    QVERIFY(!files.isWritten(QStringLiteral("/linked")));
    QVERIFY(!files.isWritten(QStringLiteral("/other/volume")));
    QCOMPARE(files.settingsBelow(QStringLiteral("/other")), QStringList());
    QCOMPARE(files.settingsBelow(QStringLiteral("/")),
             QStringList(QStringLiteral("/audio/volume")));
    QCOMPARE(files.strayDirectoriesBelow(QStringLiteral("/")),
             QStringList(QStringLiteral("/audio")));
}

QTEST_GUILESS_MAIN(tst_WrittenFiles)
#include "tst_writtenfiles.moc"
