#include "trees/treereader.h"

#include "tests/support/temporarytree.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <memory>

#include <sys/stat.h>

using namespace tulo;

namespace {

const QString volume = QStringLiteral("/audio/volume");

TreeReader readerOf(const TemporaryTree& tree, const QString& product = QString())
{
    return TreeReader(tree.defaultPath(), tree.writePath(), product);
}

// One line an entry: state, layer, role, value, place, reason. Roles set on reading are left out.
QStringList linesOf(const TemporaryTree& tree, const QVector<RoleOrigin>& origins)
{
    QStringList lines;
    for (const RoleOrigin& origin : origins) {
        if (origin.layer == RoleOrigin::Layer::BuiltIn)
            continue;
        QString line = QStringList { nameOf(origin.state), nameOf(origin.layer), origin.role,
                                     origin.value.toString() }
                           .join(QLatin1Char(' '));
        line += QStringLiteral(" %1:%2:%3")
                    .arg(origin.file.mid(tree.path().size() + 1))
                    .arg(origin.line)
                    .arg(origin.column);
        if (!origin.reason.isEmpty())
            line += QStringLiteral(": ") + origin.reason;
        lines.append(line);
    }
    return lines;
}

} // namespace

/// Both trees as the worker reads them; a random test of the engine compares with the worker.
class TstTreeReader : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_tree = std::make_unique<TemporaryTree>(); }

    void writtenValueHidesTheDefault();
    void productFileHidesThePlainOne();
    void templateServesASettingWithoutADefault();
    void templateIsHiddenByADefaultFile();
    void defaultValueComesFromTheValue();
    void writtenFileChangesFourRolesOnly();
    void directoryIgnoresFilesOfItsName();
    void rolesSetOnReadingHaveNoFile();
    void settingWithoutFilesDoesNotExist();
    void damagedWrittenFileCountsAsMissing_data();
    void damagedWrittenFileCountsAsMissing();
    void damagedDefaultFileIsADefect_data();
    void damagedDefaultFileIsADefect();
    void pipeIsNotOpened();
    void largeFileIsNotRead();
    void templateOfASettingWithADefaultIsNoDefect();
    void withoutAWritableTreeNothingIsWritten();
    void hiddenValuesOfAnEncryptedSettingAreLeftOut();
    void nodesAreInTheOrderOfListings();
    void directoryInsideItselfIsNotEntered();

private:
    std::unique_ptr<TemporaryTree> m_tree;
};

void TstTreeReader::writtenValueHidesTheDefault()
{
    m_tree->writeDefault(volume, "{\n  \"value\": {\"int\": 35},\n  \"id\": \"A1\"\n}");
    m_tree->writeWritten(volume, R"({"id":"A1","timestamp":7,"value":{"int":20}})");

    const QStringList expected {
        QStringLiteral("effective written value 20 write/audio/volume:1:26"),
        QStringLiteral("effective default defaultValue 35 default/audio/volume:2:3"),
        QStringLiteral("effective written id A1 write/audio/volume:1:2"),
        QStringLiteral("effective written timestamp 7 write/audio/volume:1:12"),
        QStringLiteral(
            "hidden default value 35 default/audio/volume:2:3: the written file has one"),
        QStringLiteral("hidden default id A1 default/audio/volume:3:3: the written file has one"),
    };
    QCOMPARE(linesOf(*m_tree, readerOf(*m_tree).explain(volume)), expected);
}

void TstTreeReader::productFileHidesThePlainOne()
{
    m_tree->writeDefault(volume, R"({"value": {"int": 35}, "title": "Plain"})");
    m_tree->writeDefault(volume + QStringLiteral("_sport"), R"({"value": {"int": 45}})");

    const QString reason =
        QStringLiteral(": the file of the product variant takes the place of this one");
    const QStringList expected {
        QStringLiteral("effective product value 45 default/audio/volume_sport:1:2"),
        QStringLiteral("effective product defaultValue 45 default/audio/volume_sport:1:2"),
        QStringLiteral("hidden default value 35 default/audio/volume:1:2") + reason,
        QStringLiteral("hidden default title Plain default/audio/volume:1:24") + reason,
    };
    const TreeReader reader = readerOf(*m_tree, QStringLiteral("sport"));
    QCOMPARE(linesOf(*m_tree, reader.explain(volume)), expected);
    QCOMPARE(reader.roles(volume).title().toString(), QStringLiteral("volume"));
}

void TstTreeReader::templateServesASettingWithoutADefault()
{
    m_tree->writeDefault(QStringLiteral("/audio/.meta"),
                         R"({"title": "Preset", "defaultValue": {"int": 1}})");
    m_tree->writeWritten(volume, R"({"value": {"int": 2}})");

    const QStringList expected {
        QStringLiteral("effective written value 2 write/audio/volume:1:2"),
        QStringLiteral("effective template defaultValue 1 default/audio/.meta:1:21"),
        QStringLiteral("effective template title Preset default/audio/.meta:1:2"),
    };
    QCOMPARE(linesOf(*m_tree, readerOf(*m_tree).explain(volume)), expected);
}

void TstTreeReader::templateIsHiddenByADefaultFile()
{
    m_tree->writeDefault(QStringLiteral("/audio/.meta"), R"({"modifiable": false})");
    m_tree->writeDefault(volume, R"({"title": "Volume"})");

    const QStringList expected {
        QStringLiteral("effective default title Volume default/audio/volume:1:2"),
        QStringLiteral("hidden template modifiable false default/audio/.meta:1:2: a template is "
                       "for settings without a default file"),
    };
    QCOMPARE(linesOf(*m_tree, readerOf(*m_tree).explain(volume)), expected);
    QVERIFY(readerOf(*m_tree).roles(volume).modifiable());
}

void TstTreeReader::defaultValueComesFromTheValue()
{
    m_tree->writeDefault(volume, R"({"value": {"int": 5}, "defaultValue": {"int": 6}})");

    const QStringList expected {
        QStringLiteral("effective default value 5 default/audio/volume:1:2"),
        QStringLiteral("effective default defaultValue 5 default/audio/volume:1:2"),
        QStringLiteral("hidden default defaultValue 6 default/audio/volume:1:23: the value in "
                       "this file is the default value"),
    };
    QCOMPARE(linesOf(*m_tree, readerOf(*m_tree).explain(volume)), expected);
}

void TstTreeReader::writtenFileChangesFourRolesOnly()
{
    m_tree->writeDefault(volume, R"({"value": {"int": 5}})");
    m_tree->writeWritten(volume, R"({"value": 7, "timestamp": 0, "title": "Mine", "x": 1})");

    const QString notPossible = QStringLiteral(": is not a value that this role can have");
    const QString notChanged = QStringLiteral(": a written file cannot change this role");
    const QStringList expected {
        QStringLiteral("effective default value 5 default/audio/volume:1:2"),
        QStringLiteral("effective default defaultValue 5 default/audio/volume:1:2"),
        QStringLiteral("ignored written value  write/audio/volume:1:2") + notPossible,
        QStringLiteral("ignored written title Mine write/audio/volume:1:30") + notChanged,
        QStringLiteral("ignored written timestamp 0 write/audio/volume:1:14") + notPossible,
        QStringLiteral("ignored written x 1 write/audio/volume:1:47") + notChanged,
    };
    QCOMPARE(linesOf(*m_tree, readerOf(*m_tree).explain(volume)), expected);
}

void TstTreeReader::directoryIgnoresFilesOfItsName()
{
    m_tree->writeDefault(QStringLiteral("/audio/.meta"), R"({"type": 7, "title": "Audio"})");
    m_tree->writeWritten(QStringLiteral("/audio"), R"({"value": {"int": 1}})");

    const QStringList expected {
        QStringLiteral("effective default title Audio default/audio/.meta:1:13"),
        QStringLiteral("ignored default type 7 default/audio/.meta:1:2: is always 1 for a "
                       "directory"),
        QStringLiteral("hidden written value 1 write/audio:1:2: the other tree has a directory "
                       "of this name"),
    };
    QCOMPARE(linesOf(*m_tree, readerOf(*m_tree).explain(QStringLiteral("/audio"))), expected);
    QVERIFY(readerOf(*m_tree).isDirectory(QStringLiteral("/audio")));
}

void TstTreeReader::rolesSetOnReadingHaveNoFile()
{
    m_tree->writeDefault(volume, "{}");

    const QVector<RoleOrigin> origins = readerOf(*m_tree).explain(volume);

    QVariantMap values;
    for (const RoleOrigin& origin : origins) {
        QCOMPARE(origin.layer, RoleOrigin::Layer::BuiltIn);
        QVERIFY(origin.file.isEmpty() && origin.line == 0);
        values.insert(origin.role, origin.value);
    }
    const QVariantMap expected { { QStringLiteral("title"), QStringLiteral("volume") },
                                 { QStringLiteral("type"), 101LL },
                                 { QStringLiteral("path"),
                                   QStringLiteral("/settings/audio/volume") } };
    QCOMPARE(values, expected);
}

void TstTreeReader::settingWithoutFilesDoesNotExist()
{
    m_tree->writeDefault(QStringLiteral("/audio/.meta"), R"({"defaultValue": {"int": 1}})");

    const TreeReader reader = readerOf(*m_tree);

    QVERIFY(!reader.exists(volume));
    QVERIFY(reader.exists(QStringLiteral("/audio")));
    QVERIFY(reader.exists(QStringLiteral("/")));
    // What one would start from.
    QCOMPARE(reader.roles(volume).defaultValue().content(), QVariant(1LL));
}

void TstTreeReader::damagedWrittenFileCountsAsMissing_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("line");
    QTest::newRow("no JSON")
        << QByteArray("{\n \"value\"")
        << QStringLiteral(
               "ignored written   write/audio/volume:2:9: is not JSON: Missing a colon after a name of "
               "object member.");
    QTest::newRow("no object") << QByteArray(
        "5") << QStringLiteral("ignored written   write/audio/volume:1:1: is not an object");
    QTest::newRow("null") << QByteArray(
        "null") << QStringLiteral("ignored written   write/audio/volume:1:1: is not an object");
}

void TstTreeReader::damagedWrittenFileCountsAsMissing()
{
    QFETCH(const QByteArray, content);
    QFETCH(const QString, line);
    m_tree->writeDefault(volume, R"({"value": {"int": 5}})");
    m_tree->writeWritten(volume, content);

    const TreeReader reader = readerOf(*m_tree);

    QCOMPARE(linesOf(*m_tree, reader.explain(volume)).last(), line);
    QCOMPARE(reader.roles(volume).value().content(), QVariant(5LL));
    QVERIFY(reader.defect(volume).isEmpty());
}

void TstTreeReader::damagedDefaultFileIsADefect_data()
{
    QTest::addColumn<QString>("file");
    QTest::newRow("default file") << volume;
    QTest::newRow("product file") << QString(volume + QStringLiteral("_sport"));
    QTest::newRow("template") << QStringLiteral("/audio/.meta");
}

void TstTreeReader::damagedDefaultFileIsADefect()
{
    QFETCH(const QString, file);
    m_tree->writeDefault(file, "{\n,}");
    m_tree->writeWritten(volume, R"({"value": {"int": 2}})");

    const TreeReader reader = readerOf(*m_tree, QStringLiteral("sport"));

    QCOMPARE(reader.defect(volume),
             m_tree->defaultPath() + file
                 + QStringLiteral(":2:1 is not JSON: Missing a name for object member."));
    QCOMPARE(reader.roles(volume).value().content(), QVariant(2LL));
    QVERIFY(reader.nodes(QStringLiteral("/")).contains(volume));
}

void TstTreeReader::pipeIsNotOpened()
{
    m_tree->makeDefaultDirectory(QStringLiteral("/audio"));
    const QString name = m_tree->defaultPath() + volume;
    QCOMPARE(::mkfifo(QFile::encodeName(name).constData(), 0600), 0);

    const TreeReader reader = readerOf(*m_tree);

    QCOMPARE(reader.defect(volume), name + QStringLiteral(" is not a regular file"));
    QVERIFY(reader.children(QStringLiteral("/audio")).isEmpty());
}

void TstTreeReader::largeFileIsNotRead()
{
    m_tree->writeDefault(volume, QByteArray(1024 * 1024, ' ') + "{}");

    QCOMPARE(readerOf(*m_tree).defect(volume),
             m_tree->defaultPath() + volume + QStringLiteral(" is larger than 1048576 bytes"));
}

void TstTreeReader::templateOfASettingWithADefaultIsNoDefect()
{
    m_tree->writeDefault(QStringLiteral("/audio/.meta"), "{");
    m_tree->writeDefault(volume, R"({"value": {"int": 5}})");

    QVERIFY(readerOf(*m_tree).defect(volume).isEmpty());
    QVERIFY(!readerOf(*m_tree).defect(QStringLiteral("/audio")).isEmpty());
}

void TstTreeReader::withoutAWritableTreeNothingIsWritten()
{
    m_tree->writeDefault(volume, R"({"value": {"int": 5}})");
    m_tree->writeWritten(volume, R"({"value": {"int": 6}})");
    m_tree->writeWritten(QStringLiteral("/audio/other"), R"({"value": {"int": 6}})");

    const TreeReader reader(m_tree->defaultPath(), QString(), QString());

    const QStringList expected { QStringLiteral("/"), QStringLiteral("/audio"), volume };
    QCOMPARE(reader.nodes(QStringLiteral("/")), expected);
    QCOMPARE(reader.roles(volume).value().content(), QVariant(5LL));
    QVERIFY(!reader.exists(QStringLiteral("/audio/other")));
    QCOMPARE(linesOf(*m_tree, reader.explain(volume)).size(), 2);
}

void TstTreeReader::hiddenValuesOfAnEncryptedSettingAreLeftOut()
{
    const QByteArray secret = R"({"encrypted": true, "value": {"string": "one"}})";
    m_tree->writeDefault(volume, secret);
    m_tree->writeDefault(volume + QStringLiteral("_sport"),
                         R"({"encrypted": true, "value": {"string": "two"}})");
    m_tree->writeWritten(volume, R"({"value": {"string": "three"}})");

    const QVector<RoleOrigin> origins = readerOf(*m_tree, QStringLiteral("sport")).explain(volume);

    QStringList shown;
    int leftOut = 0;
    for (const RoleOrigin& origin : origins) {
        if (origin.state == RoleOrigin::State::Effective)
            shown.append(origin.value.toString());
        else if (origin.role == TuloRoles::Value() && !origin.value.isValid())
            ++leftOut;
        else
            QCOMPARE(origin.role, TuloRoles::Encrypted());
    }
    QCOMPARE(leftOut, 2);
    // What get() answers, too.
    QVERIFY(shown.contains(QStringLiteral("two")) && shown.contains(QStringLiteral("three")));
    QVERIFY(!shown.contains(QStringLiteral("one")));
}

void TstTreeReader::nodesAreInTheOrderOfListings()
{
    for (const char* path : { "/b", "/a/y", "/a/x", "/C", "/a/.hidden", "/no name", "/a-b" })
        m_tree->writeDefault(QString::fromLatin1(path), "{}");
    m_tree->writeWritten(QStringLiteral("/a/new"), R"({"value": {"int": 1}})");
    m_tree->writeWritten(QStringLiteral("/a/broken"), "{");

    const TreeReader reader = readerOf(*m_tree);

    const QStringList expected { QStringLiteral("/"),    QStringLiteral("/C"),
                                 QStringLiteral("/a"),   QStringLiteral("/a/new"),
                                 QStringLiteral("/a/x"), QStringLiteral("/a/y"),
                                 QStringLiteral("/a-b"), QStringLiteral("/b") };
    QCOMPARE(reader.nodes(QStringLiteral("/")), expected);
    QCOMPARE(reader.nodes(QStringLiteral("/b")), QStringList { QStringLiteral("/b") });
    QVERIFY(reader.nodes(QStringLiteral("/nothing")).isEmpty());
}

void TstTreeReader::directoryInsideItselfIsNotEntered()
{
    m_tree->writeDefault(volume, "{}");
    QVERIFY(QFile::link(QStringLiteral(".."), m_tree->defaultPath() + QStringLiteral("/audio/up")));
    QVERIFY(QFile::link(QStringLiteral("audio"), m_tree->defaultPath() + QStringLiteral("/alias")));

    // "up" has no writable directory, unlike the top: listed once more, and not entered again.
    const QStringList expected { QStringLiteral("/"),
                                 QStringLiteral("/alias"),
                                 QStringLiteral("/alias/up"),
                                 QStringLiteral("/alias/volume"),
                                 QStringLiteral("/audio"),
                                 QStringLiteral("/audio/up"),
                                 volume };
    QCOMPARE(readerOf(*m_tree).nodes(QStringLiteral("/")), expected);
}

QTEST_GUILESS_MAIN(TstTreeReader)
#include "tst_treereader.moc"
