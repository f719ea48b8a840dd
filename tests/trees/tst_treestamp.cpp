#include "trees/treestamp.h"

#include "trees/treecheck.h"

#include "tests/support/files.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace tulo;

/// What tells one image from another.
class tst_treestamp : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void sameFilesHaveTheSameDigest();
    void everyChangeChangesTheDigest_data();
    void everyChangeChangesTheDigest();
    void rulesBelongToTheImageOnly();
    void linksAreFollowedOnce();
    void unreadableTreeHasNoDigest();
    void stampIsReadBack();
    void stampOfAnEditedTreeIsStale();
    void whatIsNoStampCountsAsNone_data();
    void whatIsNoStampCountsAsNone();
    void stampIsNoFinding();

private:
    QString treePath() const { return m_directory->filePath(QStringLiteral("default")); }
    void put(const QString& name, const QByteArray& content) const;
    QByteArray digest() const;

    QScopedPointer<QTemporaryDir> m_directory;
};

void tst_treestamp::init()
{
    m_directory.reset(new QTemporaryDir);
    put(QStringLiteral("default/audio/volume"), R"({"value":{"int":35}})");
    put(QStringLiteral("default/audio/.meta"), "{}");
}

void tst_treestamp::cleanup()
{
    m_directory.reset();
}

void tst_treestamp::put(const QString& name, const QByteArray& content) const
{
    writeFile(m_directory->filePath(name), content);
}

QByteArray tst_treestamp::digest() const
{
    QString error;
    const QByteArray result = treeDigest(treePath(), &error);
    if (!error.isEmpty())
        qFatal("%s", qPrintable(error));
    return result;
}

void tst_treestamp::sameFilesHaveTheSameDigest()
{
    const QByteArray before = digest();
    QCOMPARE(before.size(), 64);

    put(QStringLiteral("default/.hidden"), "nobody reads it");
    put(QStringLiteral("default/audio/volume"), R"({"value":{"int":35}})");

    QCOMPARE(digest(), before);
}

void tst_treestamp::everyChangeChangesTheDigest_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("content");
    const auto row = [](const char* test, const char* name, const char* content) {
        QTest::newRow(test) << QStringLiteral("default/") + QLatin1String(name)
                            << QByteArray(content);
    };
    row("content", "audio/volume", R"({"value":{"int":36}})");
    row("template", "audio/.meta", R"({"title":"Audio"})");
    row("new file", "audio/mute", "");
    row("new variant", "audio/volume_sport", "{}");
}

void tst_treestamp::everyChangeChangesTheDigest()
{
    QFETCH(const QString, name);
    QFETCH(const QByteArray, content);
    const QByteArray before = digest();

    put(name, content);

    QVERIFY(digest() != before);
}

void tst_treestamp::rulesBelongToTheImageOnly()
{
    QString error;
    const QByteArray tree = digest();
    const QByteArray image = imageDigest(treePath(), &error);

    put(QStringLiteral("settings-migrations/0001-a.json"), "[]");

    QCOMPARE(digest(), tree);
    QVERIFY(imageDigest(treePath(), &error) != image);
    QCOMPARE(error, QString());
}

void tst_treestamp::linksAreFollowedOnce()
{
    put(QStringLiteral("elsewhere/bass"), "{}");
    QVERIFY(QFile::link(m_directory->filePath(QStringLiteral("elsewhere")),
                        treePath() + QStringLiteral("/linked")));
    QVERIFY(QFile::link(treePath(), treePath() + QStringLiteral("/audio/loop")));
    QVERIFY(QFile::link(QStringLiteral("nowhere"), treePath() + QStringLiteral("/dangling")));
    const QByteArray before = digest();

    put(QStringLiteral("elsewhere/bass"), R"({"id":"B"})");

    QVERIFY(digest() != before);
}

void tst_treestamp::unreadableTreeHasNoDigest()
{
    QString error;
    put(QStringLiteral("default/large"), QByteArray(1024 * 1024 + 1, ' '));

    QCOMPARE(treeDigest(treePath(), &error), QByteArray());
    QCOMPARE(error, treePath() + QStringLiteral("/large: is larger than 1 MiB"));
    QCOMPARE(treeDigest(treePath() + QStringLiteral("/none"), &error), QByteArray());
    QVERIFY(!error.isEmpty());
}

void tst_treestamp::stampIsReadBack()
{
    QString error;
    QCOMPARE(readStamp(treePath()), QByteArray());

    QCOMPARE(writeStamp(treePath()), QString());

    QCOMPARE(readStamp(treePath()), imageDigest(treePath(), &error));
    QCOMPARE(readStamp(treePath()).size(), 64);
    put(QStringLiteral("default/audio/volume"), "{}");
    QVERIFY(readStamp(treePath()) != imageDigest(treePath(), &error));
}

void tst_treestamp::stampOfAnEditedTreeIsStale()
{
    QVERIFY(!isStampStale(treePath()));
    QCOMPARE(writeStamp(treePath()), QString());
    QVERIFY(!isStampStale(treePath()));

    put(QStringLiteral("default/audio/volume"), "{}");

    QVERIFY(isStampStale(treePath()));
    QCOMPARE(writeStamp(treePath()), QString());
    QVERIFY(!isStampStale(treePath()));
    put(QStringLiteral("settings-migrations/0001-a.json"), "[]");
    QVERIFY(isStampStale(treePath()));
}

void tst_treestamp::whatIsNoStampCountsAsNone_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("other format") << "tulo-stamp 2 " + QByteArray(64, 'a') + '\n';
    QTest::newRow("cut") << "tulo-stamp 1 " + QByteArray(63, 'a') + '\n';
    QTest::newRow("long") << "tulo-stamp 1 " + QByteArray(64, 'a') + "\n\n";
}

void tst_treestamp::whatIsNoStampCountsAsNone()
{
    QFETCH(const QByteArray, content);
    put(QStringLiteral("default/.tulo-cm.stamp"), content);

    QCOMPARE(readStamp(treePath()), QByteArray());
}

void tst_treestamp::stampIsNoFinding()
{
    const QString writePath = m_directory->filePath(QStringLiteral("write"));
    QVERIFY(QDir().mkpath(writePath));
    QCOMPARE(writeStamp(treePath()), QString());

    QCOMPARE(inspectTrees(treePath(), writePath).size(), 0);
}

QTEST_APPLESS_MAIN(tst_treestamp)

#include "tst_treestamp.moc"
