#include "tests/settings/settingscontract.h"

#include "tests/settings/contracttexts.h"
#include "tests/support/smalltree.h"

#include <QFile>
#include <QTest>

namespace tulo {
namespace {

void fill(const TemporaryTree& tree)
{
    writeSmallTree(tree);
    tree.writeDefault(QStringLiteral("/presets/.meta"),
                      R"({"title":"Preset","defaultValue":{"string":"fm:87.5"}})");
    tree.writeDefault(QStringLiteral("/secret"), R"({"encrypted":true,"value":{"string":"old"}})");
    tree.writeDefault(QStringLiteral("/whole"),
                      R"({"value":{"double":5},"edit":{"min":-1,"max":10}})");
}

} // namespace

void SettingsContract::expectRecord(const QString&) { }

void SettingsContract::init()
{
    const QString function = QLatin1String(QTest::currentTestFunction());
    if (m_function == function)
        return;
    cleanupTestCase();
    m_function = function;
    m_tree = std::make_unique<TemporaryTree>();
    fill(*m_tree);
    begin();
    m_settings = open(*m_tree);
    QVERIFY(m_settings);
}

// For the next row: everything is as in the default tree again.
void SettingsContract::cleanup()
{
    if (QTest::currentDataTag() == nullptr)
        return;
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));
    const QStringList written = tree().writtenEntries();
    for (const QString& file : written) {
        if (!file.endsWith(QLatin1Char('/')) && file != QLatin1String("/.tulo-cm.lock"))
            QVERIFY(QFile::remove(tree().writePath() + file));
    }
    QVERIFY(settings().dropCache().wait());
}

void SettingsContract::cleanupTestCase()
{
    if (m_function.isEmpty())
        return;
    m_function.clear();
    m_settings.reset();
    end();
    m_tree.reset();
}

} // namespace tulo
