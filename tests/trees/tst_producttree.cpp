#include "trees/producttree.h"

#include "tests/support/temporarytree.h"
#include "trees/treereader.h"

#include <QProcess>
#include <QTest>

#include <algorithm>

using namespace tulo;

namespace {

const QByteArray volume = R"({"id":"A","title":"Volume","value":{"int":5}})";

QStringList names(const QVector<Variant>& variants)
{
    QStringList result;
    for (const Variant& variant : variants)
        result.append(variant.name);
    std::sort(result.begin(), result.end());
    return result;
}

QStringList list(const char* line)
{
    return QString::fromUtf8(line).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

} // namespace

/// A default tree as its products see it.
class tst_producttree : public QObject
{
    Q_OBJECT

private slots:
    void variantsAreRecognised_data();
    void variantsAreRecognised();
    void postfixThatIsGivenIsAProducts();
    void productsSeeWhatTheWorkerWouldServe_data();
    void productsSeeWhatTheWorkerWouldServe();
    void fileThatCannotBeUnderstoodIsNoSetting();
};

void tst_producttree::variantsAreRecognised_data()
{
    QTest::addColumn<QString>("name"); // beside "volume"
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QStringList>("products");
    QTest::addColumn<QStringList>("variants");
    QTest::addColumn<QStringList>("doubtful");
    const auto row = [](const char* title, const char* name, const QByteArray& content,
                        const char* products, const char* variants, const char* doubtful) {
        QTest::newRow(title) << QString::fromUtf8(name) << content << list(products)
                             << list(variants) << list(doubtful);
    };
    row("same id", "volume_sport", R"({"id":"A","title":"Loudness"})", "sport", "a/volume_sport",
        "");
    row("same title", "volume_sport", R"({"title":"Volume"})", "sport", "a/volume_sport", "");
    row("same title with another id", "volume_sport", R"({"id":"B","title":"Volume"})", "sport",
        "a/volume_sport", "");
    row("same kind without a title", "volume_sport", R"({"value":{"int":6}})", "sport",
        "a/volume_sport", "");
    row("another title", "volume_phone", R"({"title":"Phone","value":{"int":6}})", "", "",
        "a/volume_phone");
    row("another kind without a title", "volume_phone", R"({"value":{"bool":true}})", "", "",
        "a/volume_phone");
    row("another id without a title", "volume_phone", R"({"id":"B","value":{"int":6}})", "", "",
        "a/volume_phone");
    row("file that cannot be understood", "volume_sport", "{", "sport", "a/volume_sport", "");
    row("no plain file", "loudness_sport", volume, "", "", "");
    row("empty postfix", "volume_", volume, "", "", "");
    row("postfix with \"_\"", "volume_sport_plus", volume, "sport_plus", "a/volume_sport_plus", "");
    row("\"_\" in front", "_volume", volume, "", "", "");
}

void tst_producttree::variantsAreRecognised()
{
    QFETCH(const QString, name);
    QFETCH(const QByteArray, content);
    QFETCH(const QStringList, products);
    QFETCH(const QStringList, variants);
    QFETCH(const QStringList, doubtful);
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/a/volume"), volume);
    tree.writeDefault(QStringLiteral("/a/") + name, content);
    const TreeContents contents = readDefaultTree(tree.defaultPath(), QString());

    const ProductTree seen(contents, std::nullopt);

    QCOMPARE(seen.products(), QStringList(QString()) + products);
    QCOMPARE(QStringList(seen.variants().keys()), variants);
    QCOMPARE(names(seen.doubtful()), doubtful);
    QCOMPARE(seen.settings().contains(QStringLiteral("a/") + name), variants.isEmpty());
}

void tst_producttree::postfixThatIsGivenIsAProducts()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/a/volume"), volume);
    tree.writeDefault(QStringLiteral("/a/volume_phone"), R"({"title":"Phone"})");
    tree.writeDefault(QStringLiteral("/a/mode_phone"), R"({"title":"Mode"})");
    const TreeContents contents = readDefaultTree(tree.defaultPath(), QString());

    const ProductTree seen(contents, QStringLiteral("phone"));

    QCOMPARE(seen.products(), QStringList(QStringLiteral("phone")));
    QCOMPARE(QStringList(seen.variants().keys()), list("a/mode_phone a/volume_phone"));
    QCOMPARE(seen.settings(), list("a/mode a/volume"));
}

void tst_producttree::productsSeeWhatTheWorkerWouldServe_data()
{
    QTest::addColumn<QString>("product");
    QTest::newRow("none") << QString();
    QTest::newRow("sport") << QStringLiteral("sport");
    QTest::newRow("comfort") << QStringLiteral("comfort");
}

// The example tree, with what it does not have: templates for variants, an empty postfix.
void tst_producttree::productsSeeWhatTheWorkerWouldServe()
{
    QFETCH(const QString, product);
    const TemporaryTree tree;
    QCOMPARE(QProcess::execute(QStringLiteral("cp"),
                               { QStringLiteral("-r"), QStringLiteral(TULO_EXAMPLE_TREE "/."),
                                 tree.defaultPath() }),
             0);
    tree.writeDefault(QStringLiteral("/audio/presets/preset-01_sport"), "{}");
    tree.writeDefault(QStringLiteral("/audio/presets/preset-02_sport"),
                      R"({"value":{"string":"am:500"}})");
    tree.writeDefault(QStringLiteral("/audio/balance_"), R"({"value":{"int":7}})");
    const TreeContents contents = readDefaultTree(tree.defaultPath(), QString());
    const ProductTree seen(contents, std::nullopt);
    const TreeReader reader(tree.defaultPath(), QString(), product);
    QVERIFY(seen.products().contains(product));

    QVERIFY(seen.settings().size() > 100);
    for (const QString& name : seen.settings()) {
        const auto setting = seen.setting(name, product);
        QVERIFY2(setting, qPrintable(name));
        const TuloRoles expected = reader.roles(QLatin1Char('/') + name);
        QCOMPARE(setting->roles.value(), expected.value());
        QCOMPARE(setting->roles.defaultValue(), expected.defaultValue());
        QCOMPARE(setting->roles.edit(), expected.edit());
        QCOMPARE(setting->roles.id(), expected.id());
        QCOMPARE(setting->roles.modifiable(), expected.modifiable());
    }
}

void tst_producttree::fileThatCannotBeUnderstoodIsNoSetting()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/a/volume"), volume);
    tree.writeDefault(QStringLiteral("/a/volume_sport"), "{");
    const TreeContents contents = readDefaultTree(tree.defaultPath(), QString());
    const ProductTree seen(contents, std::nullopt);

    QVERIFY(seen.setting(QStringLiteral("a/volume"), QString()));
    QVERIFY(!seen.setting(QStringLiteral("a/volume"), QStringLiteral("sport")));
    QVERIFY(!seen.setting(QStringLiteral("a/none"), QString()));
}

QTEST_GUILESS_MAIN(tst_producttree)
#include "tst_producttree.moc"
