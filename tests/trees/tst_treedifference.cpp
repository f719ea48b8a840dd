#include "trees/treedifference.h"

#include "tests/support/temporarytree.h"
#include "trees/treereader.h"

#include <QTest>

#include <memory>

using namespace tulo;

namespace {

QString shown(const QVariant& value)
{
    return value.isValid() ? value.toString() : QStringLiteral("-");
}

// One line a difference.
QStringList linesOf(const QVector<TreeDifference>& differences)
{
    QStringList lines;
    for (const TreeDifference& difference : differences) {
        const QString path = difference.path + QLatin1String(difference.isDirectory ? "/" : "");
        switch (difference.kind) {
        case TreeDifference::Kind::Added:
            lines.append(QStringLiteral("+ %1 %2").arg(path, shown(difference.newValue)));
            break;
        case TreeDifference::Kind::Removed:
            lines.append(QStringLiteral("- %1 %2").arg(path, shown(difference.oldValue)));
            break;
        case TreeDifference::Kind::Moved:
            lines.append(QStringLiteral("%1 > %2").arg(difference.oldPath, path));
            break;
        case TreeDifference::Kind::Changed:
            lines.append(QStringLiteral("%1 %2 %3 > %4")
                             .arg(path, difference.role, shown(difference.oldValue),
                                  shown(difference.newValue)));
            break;
        }
    }
    return lines;
}

} // namespace

/// What changed from one default tree to the next.
class TstTreeDifference : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void equalTreesDoNotDiffer();
    void exampleTreeDoesNotDifferFromItself();
    void settingsAreAddedAndRemoved();
    void settingMovesWithItsId();
    void settingThatMovedAndChangedHasBoth();
    void idOfSeveralSettingsMovesNothing();
    void idOfASettingThatStaysMovesNothing();
    void changedRolesAreTold();
    void kindOfAValueCounts();
    void directoriesAreCompared();
    void fileThatBecomesADirectoryIsAChange();
    void builtInTitleDoesNotCount();
    void secretsAreLeftOut();
    void variantOfTheProductCounts();
    void variantsMoveWithTheirSetting();

private:
    QStringList compare(const QString& product = QString()) const;

    std::unique_ptr<TemporaryTree> m_older;
    std::unique_ptr<TemporaryTree> m_newer;
};

void TstTreeDifference::init()
{
    m_older = std::make_unique<TemporaryTree>();
    m_newer = std::make_unique<TemporaryTree>();
}

QStringList TstTreeDifference::compare(const QString& product) const
{
    const TreeReader older(m_older->defaultPath(), QString(), product);
    const TreeReader newer(m_newer->defaultPath(), QString(), product);
    return linesOf(differencesOf(older, newer, product));
}

void TstTreeDifference::equalTreesDoNotDiffer()
{
    for (const TemporaryTree* tree : { m_older.get(), m_newer.get() }) {
        tree->writeDefault(QStringLiteral("/a/.meta"), R"({"title":"A"})");
        tree->writeDefault(QStringLiteral("/a/b"), R"({"value":{"int":5},"id":"1"})");
    }
    // Written otherwise, the same.
    m_newer->writeDefault(QStringLiteral("/a/b"), R"({ "id": "1", "value": {"int": 5} })");

    QCOMPARE(compare(), QStringList());
}

void TstTreeDifference::exampleTreeDoesNotDifferFromItself()
{
    const TreeReader tree(QStringLiteral(TULO_EXAMPLE_TREE), QString(), QStringLiteral("sport"));

    QVERIFY(differencesOf(tree, tree, QStringLiteral("sport")).isEmpty());
}

void TstTreeDifference::settingsAreAddedAndRemoved()
{
    m_older->writeDefault(QStringLiteral("/a/old"), R"({"value":{"int":5},"id":"1"})");
    m_newer->writeDefault(QStringLiteral("/a/new"), R"({"value":{"int":6},"id":"2"})");
    m_newer->writeDefault(QStringLiteral("/b/new"), "{}");

    const QStringList expected { QStringLiteral("+ /a/new 6"), QStringLiteral("- /a/old 5"),
                                 QStringLiteral("+ /b/ -"), QStringLiteral("+ /b/new -") };
    QCOMPARE(compare(), expected);
}

void TstTreeDifference::settingMovesWithItsId()
{
    m_older->writeDefault(QStringLiteral("/a/old"), R"({"value":{"int":5},"id":"1"})");
    m_newer->writeDefault(QStringLiteral("/a/new"), R"({"value":{"int":5},"id":"1"})");

    QCOMPARE(compare(), QStringList { QStringLiteral("/a/old > /a/new") });
}

void TstTreeDifference::settingThatMovedAndChangedHasBoth()
{
    m_older->writeDefault(QStringLiteral("/a/old"),
                          R"({"value":{"int":5},"id":"1","title":"Old"})");
    m_newer->writeDefault(QStringLiteral("/a/new"), R"({"value":{"int":6},"id":"1"})");

    const QStringList expected { QStringLiteral("/a/old > /a/new"),
                                 QStringLiteral("/a/new defaultValue 5 > 6"),
                                 QStringLiteral("/a/new title Old > -") };
    QCOMPARE(compare(), expected);
}

void TstTreeDifference::idOfSeveralSettingsMovesNothing()
{
    m_older->writeDefault(QStringLiteral("/a/old"), R"({"id":"1"})");
    m_newer->writeDefault(QStringLiteral("/a/new"), R"({"id":"1"})");
    m_newer->writeDefault(QStringLiteral("/a/next"), R"({"id":"1"})");

    const QStringList expected { QStringLiteral("+ /a/new -"), QStringLiteral("+ /a/next -"),
                                 QStringLiteral("- /a/old -") };
    QCOMPARE(compare(), expected);
}

void TstTreeDifference::idOfASettingThatStaysMovesNothing()
{
    m_older->writeDefault(QStringLiteral("/a/old"), R"({"id":"1"})");
    m_newer->writeDefault(QStringLiteral("/a/old"), R"({"id":"1"})");
    m_newer->writeDefault(QStringLiteral("/a/new"), R"({"id":"1"})");

    QCOMPARE(compare(), QStringList { QStringLiteral("+ /a/new -") });
}

void TstTreeDifference::changedRolesAreTold()
{
    m_older->writeDefault(QStringLiteral("/a"),
                          R"({"value":{"int":5},"title":"A","odd":1,"modifiable":false})");
    m_newer->writeDefault(QStringLiteral("/a"), R"({"value":{"int":6},"title":"B","id":"1"})");

    const QStringList expected { QStringLiteral("/a defaultValue 5 > 6"),
                                 QStringLiteral("/a title A > B"), QStringLiteral("/a id - > 1"),
                                 QStringLiteral("/a modifiable false > -"),
                                 QStringLiteral("/a odd 1 > -") };
    QCOMPARE(compare(), expected);
}

void TstTreeDifference::kindOfAValueCounts()
{
    m_older->writeDefault(QStringLiteral("/a"), R"({"value":{"int":5}})");
    m_newer->writeDefault(QStringLiteral("/a"), R"({"value":{"double":5}})");

    QCOMPARE(compare(), QStringList { QStringLiteral("/a defaultValue 5 > 5") });
}

void TstTreeDifference::directoriesAreCompared()
{
    m_older->writeDefault(QStringLiteral("/a/.meta"), R"({"title":"One","modifiable":false})");
    m_newer->writeDefault(QStringLiteral("/a/.meta"), R"({"title":"Two"})");

    const QStringList expected { QStringLiteral("/a/ title One > Two"),
                                 QStringLiteral("/a/ modifiable false > -") };
    QCOMPARE(compare(), expected);
}

void TstTreeDifference::fileThatBecomesADirectoryIsAChange()
{
    m_older->writeDefault(QStringLiteral("/a"), R"({"value":{"int":5}})");
    m_newer->writeDefault(QStringLiteral("/a/b"), "{}");

    const QStringList expected { QStringLiteral("/a/ defaultValue 5 > -"),
                                 QStringLiteral("/a/ type 101 > 1"), QStringLiteral("+ /a/b -") };
    QCOMPARE(compare(), expected);
}

void TstTreeDifference::builtInTitleDoesNotCount()
{
    m_older->writeDefault(QStringLiteral("/old"), R"({"id":"1"})");
    m_newer->writeDefault(QStringLiteral("/new"), R"({"id":"1","title":"new"})");

    QCOMPARE(compare(), QStringList { QStringLiteral("/old > /new") });
}

void TstTreeDifference::secretsAreLeftOut()
{
    m_older->writeDefault(QStringLiteral("/a"), R"({"value":{"string":"one"}})");
    m_newer->writeDefault(QStringLiteral("/a"), R"({"encrypted":true,"value":{"string":"two"}})");
    m_newer->writeDefault(QStringLiteral("/b"), R"({"encrypted":true,"value":{"string":"two"}})");

    const QStringList expected { QStringLiteral("/a defaultValue - > -"),
                                 QStringLiteral("/a encrypted - > true"),
                                 QStringLiteral("+ /b -") };
    QCOMPARE(compare(), expected);
}

void TstTreeDifference::variantOfTheProductCounts()
{
    for (const TemporaryTree* tree : { m_older.get(), m_newer.get() })
        tree->writeDefault(QStringLiteral("/a"), R"({"value":{"int":5}})");
    m_older->writeDefault(QStringLiteral("/a_sport"), R"({"value":{"int":6}})");
    m_newer->writeDefault(QStringLiteral("/a_sport"), R"({"value":{"int":7}})");

    QCOMPARE(compare(QStringLiteral("sport")),
             QStringList { QStringLiteral("/a defaultValue 6 > 7") });
    QCOMPARE(compare(), QStringList { QStringLiteral("/a_sport defaultValue 6 > 7") });
}

void TstTreeDifference::variantsMoveWithTheirSetting()
{
    for (const char* postfix : { "", "_sport", "_comfort" }) {
        const QString name = QString::fromLatin1(postfix);
        m_older->writeDefault(QStringLiteral("/a/old") + name, R"({"id":"1"})");
        m_newer->writeDefault(QStringLiteral("/b/new") + name, R"({"id":"1"})");
    }

    const QStringList expected { QStringLiteral("- /a/ -"), QStringLiteral("+ /b/ -"),
                                 QStringLiteral("/a/old > /b/new"),
                                 QStringLiteral("/a/old_comfort > /b/new_comfort"),
                                 QStringLiteral("/a/old_sport > /b/new_sport") };
    QCOMPARE(compare(), expected);
    const QStringList ofProduct { QStringLiteral("- /a/ -"), QStringLiteral("+ /b/ -"),
                                  QStringLiteral("/a/old > /b/new"),
                                  QStringLiteral("/a/old_comfort > /b/new_comfort") };
    QCOMPARE(compare(QStringLiteral("sport")), ofProduct);
}

QTEST_GUILESS_MAIN(TstTreeDifference)
#include "tst_treedifference.moc"
