#include "api/core/model/cmpath.h"
#include "api/core/model/cmworker.h"
#include "api/core/model/tulosettingsactions.h"

#include <QTest>

#include <sstream>

/// Paths of the configuration tree: base, prefix, text forms, equality.
class tst_framework_paths : public QObject
{
    Q_OBJECT

private slots:
    void baseIsWhatFollowsTheMount_data();
    void baseIsWhatFollowsTheMount();
    void prefixGivesTheClientsFormBack_data();
    void prefixGivesTheClientsFormBack();
    void prefixOfEmptyBaseIsThatOfRoot();
    void equalityIsThatOfTexts();
    void emptyPathIsEmpty();
    void hashFollowsEquality();
    void encodedFormEscapesAllButUnreservedAndSlash_data();
    void encodedFormEscapesAllButUnreservedAndSlash();
    void streamedAsUtf8Text();
    void variantComparesAndConvertsByText();
    void fromVariantTakesPathsAndTexts();
    void isInRegistersNothing();
    void actionsHaveTheirPaths();
};

void tst_framework_paths::baseIsWhatFollowsTheMount_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("base");
    const auto row = [](const char* text, const char* base) {
        QTest::newRow(text) << QString::fromLatin1(text) << QString::fromLatin1(base);
    };
    row("/settings/audio/volume", "/audio/volume");
    row("settings/audio/volume", "audio/volume");
    row("/settings", "/");
    row("/settings/", "/");
    row("settings", "");
    row("settings/", "");
    row("", "");
    row("/", "/");
    row("/settings//a", "//a");
    row("/settings/a/", "/a/");
    row("/other/a", "/a");
}

void tst_framework_paths::baseIsWhatFollowsTheMount()
{
    QFETCH(QString, text);
    QFETCH(QString, base);

    QCOMPARE(CMPath(text).base(), base);
}

void tst_framework_paths::prefixGivesTheClientsFormBack_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("restored");
    const auto row = [](const char* text, const char* restored) {
        QTest::newRow(text) << QString::fromLatin1(text) << QString::fromLatin1(restored);
    };
    row("/settings/audio/volume", "/settings/audio/volume");
    row("settings/audio/volume", "settings/audio/volume");
    row("/settings", "/settings");
    row("/settings/", "/settings");
    row("settings", "/settings");
}

void tst_framework_paths::prefixGivesTheClientsFormBack()
{
    QFETCH(QString, text);
    QFETCH(QString, restored);
    const CMWorker worker({}, QStringLiteral("worker"));

    const CMPath path = worker.addPrefix(CMPath(text).base());
    QCOMPARE(path.text(), restored);
    QCOMPARE(path.base(), CMPath(restored).base());
}

void tst_framework_paths::prefixOfEmptyBaseIsThatOfRoot()
{
    const CMWorker worker({}, QStringLiteral("worker"));

    QCOMPARE(worker.addPrefix(QString()).text(), QStringLiteral("/settings"));
    QCOMPARE(worker.addPrefix(QStringLiteral("/")).text(), QStringLiteral("/settings"));
}

void tst_framework_paths::equalityIsThatOfTexts()
{
    const CMPath path(QStringLiteral("/settings/a"));

    QVERIFY(path == CMPath(QStringLiteral("/settings/a")));
    QVERIFY(path != CMPath(QStringLiteral("settings/a")));
    QVERIFY(path != CMPath(QStringLiteral("/settings/a/")));
    QVERIFY(path != CMPath(QStringLiteral("/settings/A")));
}

void tst_framework_paths::emptyPathIsEmpty()
{
    QVERIFY(CMPath().isEmpty());
    QVERIFY(CMPath(QString()).isEmpty());
    QVERIFY(CMPath() == CMPath(QStringLiteral("")));
    QVERIFY(!CMPath(QStringLiteral("/")).isEmpty());
}

void tst_framework_paths::hashFollowsEquality()
{
    const QHash<CMPath, int> hash { { CMPath(QStringLiteral("/a")), 1 },
                                    { CMPath(QStringLiteral("a")), 2 } };

    QCOMPARE(hash.value(CMPath(QStringLiteral("/a"))), 1);
    QCOMPARE(hash.value(CMPath(QStringLiteral("a"))), 2);
    QVERIFY(!hash.contains(CMPath(QStringLiteral("/A"))));
}

void tst_framework_paths::encodedFormEscapesAllButUnreservedAndSlash_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("encoded");
    const auto row = [](const char* name, const QString& text, const char* encoded) {
        QTest::newRow(name) << text << QString::fromLatin1(encoded);
    };
    row("unreserved", QStringLiteral("/settings/aZ09-._~"), "/settings/aZ09-._~");
    row("blank and percent", QStringLiteral("/settings/a b%20"), "/settings/a%20b%2520");
    row("reserved", QStringLiteral("/s/a?b#c:d@e!$&'()*+,;=[]"),
        "/s/a%3Fb%23c%3Ad%40e%21%24%26%27%28%29%2A%2B%2C%3B%3D%5B%5D");
    row("UTF-8", QStringLiteral(u"/settings/\u00e4\u20ac"), "/settings/%C3%A4%E2%82%AC");
    row("controls", QStringLiteral("/s/\n"), "/s/%0A");
    row("empty components", QStringLiteral("//a//"), "//a//");
    row("relative", QStringLiteral("settings/a"), "settings/a");
    row("empty", QString(), "");
}

void tst_framework_paths::encodedFormEscapesAllButUnreservedAndSlash()
{
    QFETCH(QString, text);
    QFETCH(QString, encoded);

    QCOMPARE(CMPath(text).toEncoded(), encoded);
}

void tst_framework_paths::streamedAsUtf8Text()
{
    std::ostringstream stream;
    stream << CMPath(QStringLiteral(u"/settings/\u00e4 b"));

    QCOMPARE(QByteArray::fromStdString(stream.str()), QByteArray("/settings/\xC3\xA4 b"));
}

void tst_framework_paths::variantComparesAndConvertsByText()
{
    const QVariant variant = CMPath(QStringLiteral("/settings/a")).toVariant();

    QVERIFY(variant == CMPath(QStringLiteral("/settings/a")).toVariant());
    QVERIFY(variant != CMPath(QStringLiteral("/settings/b")).toVariant());
    QCOMPARE(variant.toString(), QStringLiteral("/settings/a"));
    QCOMPARE(variant.typeName(), "CMPath");
}

void tst_framework_paths::fromVariantTakesPathsAndTexts()
{
    const CMPath path(QStringLiteral("/settings/a"));

    QVERIFY(CMPath::fromVariant(path.toVariant()) == path);
    QVERIFY(CMPath::fromVariant(QStringLiteral("/settings/a")) == path);
    QVERIFY(CMPath::fromVariant(QVariant()).isEmpty());
    QVERIFY(CMPath::isIn(path.toVariant()));
    QVERIFY(!CMPath::isIn(QStringLiteral("/settings/a")));
}

void tst_framework_paths::isInRegistersNothing()
{
    const int before = QMetaType::type("CMPath");
    const bool isIn = CMPath::isIn(QVariant(5));

    QVERIFY(!isIn);
    QCOMPARE(QMetaType::type("CMPath"), before);
}

void tst_framework_paths::actionsHaveTheirPaths()
{
    QCOMPARE(TuloSettingsActionsFlush().text(), QStringLiteral("/settings/actions/flush"));
    QCOMPARE(TuloSettingsActionsDropCache().text(), QStringLiteral("/settings/actions/dropCache"));
}

QTEST_GUILESS_MAIN(tst_framework_paths)
#include "tst_framework_paths.moc"
