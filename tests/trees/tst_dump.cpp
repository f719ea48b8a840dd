#include "trees/dump.h"

#include "trees/plainjson.h"

#include <QTest>

using namespace tulo;

namespace {

const QByteArray header(
    "{\"count\":%1,\"path\":\"/settings\",\"product\":\"sport\",\"secrets\":false,"
    "\"tree\":\"5f0c\",\"tulo\":1}\n");

QByteArray headerFor(int count)
{
    return QByteArray(header).replace("%1", QByteArray::number(count));
}

/// "LINE: MESSAGE" of each fault.
QStringList faultsIn(const QByteArray& text)
{
    Dump dump;
    QStringList shown;
    const QVector<DumpFault> faults = readDump(text, &dump);
    for (const DumpFault& fault : faults)
        shown.append(QStringLiteral("%1: %2").arg(QString::number(fault.line), fault.message));
    return shown;
}

} // namespace

class tst_Dump : public QObject
{
    Q_OBJECT

private slots:
    void whatIsWrittenIsReadAgain();
    void settingsAreSortedByTheBytesOfTheirPaths();
    void emptyLinesDoNotCount();
    void faultNamesItsLine_data();
    void faultNamesItsLine();
    void eachFaultIsNamed();
    void longTextIsNotADump();
};

void tst_Dump::whatIsWrittenIsReadAgain()
{
    Dump dump;
    dump.path = QStringLiteral("/settings");
    dump.product = QStringLiteral("sport");
    dump.tree = QStringLiteral("5f0c");
    dump.hasSecrets = true;
    dump.settings = {
        { QStringLiteral("/settings/a"), QStringLiteral("A-1"), qlonglong(5), qint64(1700), 0 },
        { QStringLiteral("/settings/b"), QString(), 5.0, std::nullopt, 0 },
        { QStringLiteral("/settings/c"), QString(), QString::fromUtf8("\"\n\xc3\xa4\xe2\x80\x8b"),
          qint64(0), 0 },
        { QStringLiteral("/settings/d"), QStringLiteral("D"), QVariant(), std::nullopt, 0 },
        { QStringLiteral("/settings/e"), QString(),
          QVariantList { true, QVariantList { QVariantMap { { QStringLiteral("x"), 1.5 } } } },
          qint64(1), 0 },
        { QStringLiteral("/settings/f"), QString(), qulonglong(18446744073709551615ULL),
          std::nullopt, 0 },
    };
    QByteArray text = jsonOf(headerObject(dump)) + '\n';
    for (const DumpedSetting& setting : qAsConst(dump.settings))
        text += jsonOf(settingObject(setting)) + '\n';

    Dump read;
    const QVector<DumpFault> faults = readDump(text, &read);

    QVERIFY2(faults.isEmpty(), qPrintable(faultsIn(text).join(QLatin1Char('\n'))));
    QCOMPARE(jsonOf(headerObject(read)), jsonOf(headerObject(dump)));
    QCOMPARE(read.settings.size(), dump.settings.size());
    for (int i = 0; i < read.settings.size(); ++i) {
        QCOMPARE(jsonOf(settingObject(read.settings.at(i))),
                 jsonOf(settingObject(dump.settings.at(i))));
        QCOMPARE(read.settings.at(i).value.userType(), dump.settings.at(i).value.userType());
        QCOMPARE(read.settings.at(i).line, i + 2);
    }
}

void tst_Dump::settingsAreSortedByTheBytesOfTheirPaths()
{
    Dump dump;
    const QStringList sorted { QStringLiteral("/settings/a-b"), QStringLiteral("/settings/a/b"),
                               QStringLiteral("/settings/a0"), QStringLiteral("/settings/\u00e4") };
    for (auto path = sorted.crbegin(); path != sorted.crend(); ++path)
        dump.settings.append({ *path, QString(), 1, std::nullopt, 0 });

    sortSettings(&dump);

    QStringList paths;
    for (const DumpedSetting& setting : qAsConst(dump.settings))
        paths.append(setting.path);
    QCOMPARE(paths, sorted);
}

void tst_Dump::emptyLinesDoNotCount()
{
    const QByteArray text = "\n" + headerFor(1) + "\r\n  \n{\"path\":\"/settings/a\",\"value\":1}";

    QCOMPARE(faultsIn(text), QStringList());
    QCOMPARE(faultsIn(headerFor(0)), QStringList());
}

void tst_Dump::faultNamesItsLine_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("fault");
    const auto row = [](const char* name, const QByteArray& text, const char* fault) {
        QTest::newRow(name) << text << QString::fromUtf8(fault);
    };
    const auto setting = [&row](const char* name, const QByteArray& line, const char* fault) {
        row(name, headerFor(1) + line, fault);
    };
    row("nothing", "", "1: is not a dump: it is empty");
    row("not JSON", "hello", "1: column 1: Invalid value.");
    row("not an object", "[1]", "1: is not a dump: its first line is not an object");
    row("another object", "{\"path\":\"/settings\"}",
        "1: is not a dump: its first line has no 'tulo'");
    row("another format", "\n{\"tulo\":2}",
        "2: is a dump of format 2, which this program does not know");
    row("no product", headerFor(0).replace("\"product\":\"sport\",", ""), "1: has no 'product'");
    row("wrong type in the header", headerFor(0).replace("false", "0"),
        "1: 'secrets' is not true or false");
    row("unknown key in the header", headerFor(0).replace("{", "{\"x\":1,"),
        "1: has the unknown key 'x'");
    row("path of the header", headerFor(0).replace("\"/settings\"", "\"/a/../b\""),
        "1: Path '/a/../b' has a component that begins with '.'");
    row("relative path of the header", headerFor(0).replace("\"/settings\"", "\"settings\""),
        "1: 'settings' is not a full path");
    row("cut off", headerFor(2) + "{\"path\":\"/settings/a\",\"value\":1}\n",
        "3: the dump is not complete: its first line tells of 2 settings, there are 1");
    row("two in one", headerFor(0) + "{\"path\":\"/settings/a\",\"value\":1}\n",
        "3: the dump is not complete: its first line tells of 0 settings, there are 1");
    setting("broken line", "{\"path\":", "2: column 9: Invalid value.");
    setting("key twice", "{\"path\":\"/settings/a\",\"value\":1,\"value\":2}",
            "2: column 33: the key 'value' is there twice");
    setting("no object", "5", "2: is not an object");
    setting("no path", "{\"value\":1}", "2: has no 'path'");
    setting("path of another type", "{\"path\":1,\"value\":1}", "2: 'path' is not a text");
    setting("relative path", "{\"path\":\"settings/a\",\"value\":1}",
            "2: 'settings/a' is not a full path");
    setting("hidden path", "{\"path\":\"/settings/.meta\",\"value\":1}",
            "2: Path '/settings/.meta' has a component that begins with '.'");
    setting("elsewhere", "{\"path\":\"/settings2/a\",\"value\":1}",
            "2: '/settings2/a' is not below '/settings'");
    setting("nothing to load", "{\"path\":\"/settings/a\"}",
            "2: has neither 'value' nor 'timestamp' nor 'id'");
    setting("unknown key", "{\"path\":\"/settings/a\",\"value\":1,\"valeu\":1}",
            "2: has the unknown key 'valeu'");
    setting("value null", "{\"path\":\"/settings/a\",\"value\":null}",
            "2: 'value' is not a value that a setting can have");
    setting("value an object", "{\"path\":\"/settings/a\",\"value\":{\"int\":1}}",
            "2: 'value' is not a value that a setting can have");
    setting("timestamp a text", "{\"path\":\"/settings/a\",\"value\":1,\"timestamp\":\"1\"}",
            "2: 'timestamp' is not a number of milliseconds");
    setting("negative timestamp", "{\"path\":\"/settings/a\",\"value\":1,\"timestamp\":-1}",
            "2: 'timestamp' is not a number of milliseconds");
    setting("id a number", "{\"path\":\"/settings/a\",\"value\":1,\"id\":5}",
            "2: 'id' is not a text");
}

void tst_Dump::faultNamesItsLine()
{
    QFETCH(const QByteArray, text);
    QFETCH(const QString, fault);

    QCOMPARE(faultsIn(text), QStringList(fault));
}

void tst_Dump::eachFaultIsNamed()
{
    const QByteArray good("{\"path\":\"/settings/a\",\"value\":1}\n");
    const QByteArray text = headerFor(4) + good + "{\"value\":5}\n" + good
        + "{\"path\":\"/settings/b\",\"value\":1,\"x\":1,\"y\":2}\n";

    QCOMPARE(faultsIn(text),
             QStringList({ QStringLiteral("3: has no 'path'"),
                           QStringLiteral("4: '/settings/a' was there in line 2"),
                           QStringLiteral("5: has the unknown key 'x'"),
                           QStringLiteral("5: has the unknown key 'y'") }));
}

void tst_Dump::longTextIsNotADump()
{
    QCOMPARE(faultsIn(QByteArray(Dump::maximumBytes + 1, '\n')),
             QStringList(QStringLiteral("0: a dump takes at most 32 MiB")));
}

QTEST_GUILESS_MAIN(tst_Dump)
#include "tst_dump.moc"
