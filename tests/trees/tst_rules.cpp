#include "trees/rules.h"

#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

using namespace tulo;

namespace {

// As the page has it. A "|" would end the cell.
QString rowOf(const Rule& rule)
{
    const auto cell = [](const char* text) {
        return QString::fromUtf8(text).replace(QLatin1Char('|'), QLatin1String("\\|"));
    };
    return QStringLiteral("| `%1` | %2 | %3 %4 | `%5` | %6 |")
        .arg(cell(rule.name), severityName(rule.severity), cell(rule.sentence), cell(rule.why),
             cell(rule.example), cell(rule.remedy));
}

} // namespace

class tst_rules : public QObject
{
    Q_OBJECT

private slots:
    void everyRuleIsComplete();
    void pageHasEveryRuleInOrder();
    void severitiesHaveNames();
    void rulesAreFoundByName();
};

void tst_rules::everyRuleIsComplete()
{
    const QRegularExpression name(QStringLiteral("^[a-z]+(-[a-z]+)*$"));
    const QRegularExpression sentence(QStringLiteral("^[A-Z\"{].*\\.$"));
    QSet<QString> names;
    for (const Rule& rule : allRules()) {
        QVERIFY2(name.match(QLatin1String(rule.name)).hasMatch(), rule.name);
        QVERIFY2(name.match(QLatin1String(rule.group)).hasMatch(), rule.name);
        for (const char* text : { rule.sentence, rule.why, rule.remedy })
            QVERIFY2(sentence.match(QString::fromUtf8(text)).hasMatch(), text);
        QVERIFY2(*rule.example != 0, rule.name);
        names.insert(QLatin1String(rule.name));
    }
    QCOMPARE(names.size(), ruleCount);
}

// The rows of docs/rules.md are those of the table. Copy what is missing from the failure.
void tst_rules::pageHasEveryRuleInOrder()
{
    QFile page(QStringLiteral(TULO_SOURCE_DIR "/docs/rules.md"));
    QVERIFY(page.open(QIODevice::ReadOnly));
    QStringList rows;
    const QStringList lines = QString::fromUtf8(page.readAll()).split(QLatin1Char('\n'));
    for (const QString& line : lines) {
        if (line.startsWith(QLatin1String("| `")))
            rows.append(line);
    }

    QStringList expected;
    for (const Rule& rule : allRules())
        expected.append(rowOf(rule));
    for (int i = 0; i < expected.size(); ++i)
        QCOMPARE(rows.value(i), expected.at(i));
    QCOMPARE(rows.size(), expected.size());
}

void tst_rules::severitiesHaveNames()
{
    for (const Severity severity :
         { Severity::Off, Severity::Info, Severity::Warning, Severity::Error })
        QCOMPARE(severityNamed(severityName(severity)), std::optional<Severity>(severity));
    QCOMPARE(severityNamed(QStringLiteral("fatal")), std::optional<Severity>());
    QCOMPARE(severityNamed(QString()), std::optional<Severity>());
}

void tst_rules::rulesAreFoundByName()
{
    for (const Rule& rule : allRules()) {
        QCOMPARE(findRule(QLatin1String(rule.name)), &ruleOf(rule.id));
        QCOMPARE(&ruleOf(rule.id), &rule);
    }
    QCOMPARE(findRule(QStringLiteral("no-such-rule")), nullptr);
    QCOMPARE(findRule(QString()), nullptr);
}

QTEST_GUILESS_MAIN(tst_rules)
#include "tst_rules.moc"
