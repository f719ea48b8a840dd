#include "cm_settings.h"

#include "api/core/tulojson.h"
#include "tests/support/childprocess.h"
#include "tests/support/logcapture.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QTest>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <memory>
#include <random>

#include <log4cplus/consoleappender.h>

namespace {

const QString written = QStringLiteral("/audio/volume");
const QStringList askedRoles { TuloRoles::Value(), TuloRoles::Timestamp(), TuloRoles::Id(),
                               TuloRoles::EncryptedValue(), TuloRoles::Modifiable() };
const QByteArray defaultRoles = QByteArrayLiteral(
    "{\"edit\":{\"max\":40},\"id\":\"volume\",\"modifiable\":true,\"value\":{\"int\":7}}");
constexpr int flipsPerFile = 1000;

/// Ten files as the worker writes them.
void addWrittenFiles()
{
    QTest::addColumn<QByteArray>("content");
    const std::pair<const char*, const char*> files[] {
        { "a number", R"({"timestamp":1700000000000,"value":{"int":12}})" },
        { "a large number", R"({"timestamp":1,"value":{"int":9223372036854775807}})" },
        { "a fraction", R"({"timestamp":1700000000001,"value":{"double":-0.125}})" },
        { "a text", R"({"timestamp":1700000000002,"value":{"string":"jazz"}})" },
        { "a text with escapes",
          R"({"timestamp":1700000000003,"value":{"string":"a\"b\\c\nd\u0001e"}})" },
        { "a text beyond ASCII",
          "{\"timestamp\":1700000000004,\"value\":{\"string\":\"K\u00f6ln \u65e5\U0001F3B5\"}}" },
        { "a switch", R"({"disabled":false,"timestamp":1700000000005,"value":{"bool":true}})" },
        { "a list",
          R"({"timestamp":1700000000006,"value":{"list":["fm",{"name":"usb","slot":2},[1,2.5],null]}})" },
        { "an encrypted value",
          R"({"encryptedValue":"U2FsdGVkX18=","id":"pin","timestamp":1700000000007})" },
        { "all roles that a client may send",
          R"({"description":"How loud","disabled":true,"edit":{"max":40,"min":0},"id":"vol","timestamp":1700000000008,"title":"Volume","value":{"int":3}})" },
    };
    for (const auto& [name, content] : files)
        QTest::newRow(name) << QByteArray(content);
}

/// A worker with a setting that has a default and one that has none, both with the same written
/// file. Reads it anew for each damage.
class Reader
{
public:
    Reader()
        : m_worker(m_tree.config())
        , m_handler(m_worker.m_encryptionHandler)
    {
        m_tree.writeDefault(written, defaultRoles);
    }

    /// Fails unless both settings are answered as the bytes of their written file demand.
    void verifyAnswersTo(const QByteArray& content)
    {
        m_tree.writeWritten(written, content);
        m_tree.writeWritten(orphan, content);
        m_worker.m_valueCache.clear();
        LogCapture log;
        TuloError error;
        const QVariantHash roles = TuloJson::parse(content, error, nullptr).toHash();
        if (!error.isEmpty()) {
            for (const QString& path : { written, orphan })
                log.expect(log4cplus::ERROR_LOG_LEVEL,
                           QStringLiteral("Settings: Unable to parse '%1': %2")
                               .arg(m_tree.writePath() + path, error.message()));
        }

        const auto answer = getData(&m_worker, node(written), askedRoles);
        const auto orphanAnswer = getData(&m_worker, node(orphan), askedRoles);

        log.verifyNothingUnexpected();
        QCOMPARE(errorText(answer), QString());
        QCOMPARE(TuloJson::serialize(answer.value()), TuloJson::serialize(merged(roles)));
        if (roles.isEmpty())
            QCOMPARE(errorText(orphanAnswer),
                     QStringLiteral("InvalidPath: Invalid path '%1'").arg(node(orphan)));
        else
            QCOMPARE(errorText(orphanAnswer), QString());
    }

private:
    static QString node(const QString& path) { return QLatin1String("/settings") + path; }

    /// The answer for the setting with a default, from what its written file holds.
    static QVariantList merged(const QVariantHash& fileRoles)
    {
        TuloError error;
        TuloRoles roles(TuloHash(TuloJson::parse(defaultRoles, error, nullptr).toHash()));
        const TuloRoles file((TuloHash(fileRoles)));
        if (!file.value().__isEmpty())
            roles.setValue(file.value());
        if (file.timestamp() != 0)
            roles.setTimestamp(file.timestamp());
        if (!file.id().isEmpty())
            roles.setId(file.id());
        if (!file.encryptedValue().isEmpty())
            roles.setEncryptedValue(file.encryptedValue());
        QVariantList values;
        for (const QString& role : askedRoles)
            values.append(roles.__hashAttribute(role));
        return values;
    }

    const QString orphan = QStringLiteral("/audio/orphan");
    const TemporaryTree m_tree;
    CMSettingsWorker m_worker;
    const std::unique_ptr<EncryptionHandler> m_handler;
};

} // namespace

class tst_DamagedFiles : public QObject
{
    Q_OBJECT

private slots:
    void truncatedWrittenFileCountsAsMissing_data() { addWrittenFiles(); }
    void truncatedWrittenFileCountsAsMissing();
    void writtenFileWithAFlippedBitIsReadOrCountsAsMissing_data() { addWrittenFiles(); }
    void writtenFileWithAFlippedBitIsReadOrCountsAsMissing();
    void damagedDefaultFileEndsTheProcess_data();
    void damagedDefaultFileEndsTheProcess();
};

void tst_DamagedFiles::truncatedWrittenFileCountsAsMissing()
{
    QFETCH(const QByteArray, content);
    Reader reader;
    for (int length = 0; length <= content.size(); ++length) {
        reader.verifyAnswersTo(content.left(length));
        if (QTest::currentTestFailed())
            QFAIL(qPrintable(QStringLiteral("cut after %1 bytes").arg(length)));
    }
}

void tst_DamagedFiles::writtenFileWithAFlippedBitIsReadOrCountsAsMissing()
{
    QFETCH(const QByteArray, content);
    Reader reader;
    std::mt19937 random(20240229);
    for (int flip = 0; flip < flipsPerFile; ++flip) {
        const unsigned bit = unsigned(random() % unsigned(content.size() * 8));
        QByteArray damaged = content;
        damaged[int(bit / 8)] = char(damaged.at(int(bit / 8)) ^ (1 << (bit % 8)));
        reader.verifyAnswersTo(damaged);
        if (QTest::currentTestFailed())
            QFAIL(qPrintable(QStringLiteral("bit %1 flipped").arg(bit)));
    }
}

void tst_DamagedFiles::damagedDefaultFileEndsTheProcess_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("asked");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("reason");
    const QString plain = QStringLiteral("/audio/volume");
    const QString product = QStringLiteral("/audio/volume_sport");
    const QString meta = QStringLiteral("/audio/.meta");
    const QString directory = QStringLiteral("/audio");
    const QString child = QStringLiteral("/audio/new");
    QByteArray flipped = defaultRoles;
    flipped[0] = char(flipped.at(0) ^ 1);

    QTest::newRow("empty default file")
        << plain << plain << QByteArray("")
        << QStringLiteral("line 1, column 1: The document is empty.");
    QTest::newRow("truncated default file")
        << plain << plain << defaultRoles.left(1)
        << QStringLiteral("line 1, column 2: Missing a name for object member.");
    QTest::newRow("default file cut in the middle")
        << plain << plain << QByteArrayLiteral("{\"value\":{\"int\":7}")
        << QStringLiteral("line 1, column 19: Missing a comma or '}' after an object member.");
    QTest::newRow("default file with a flipped bit")
        << plain << plain << flipped << QStringLiteral("line 1, column 1: Invalid value.");
    QTest::newRow("product file") << product << plain << defaultRoles.left(1)
                                  << QStringLiteral(
                                         "line 1, column 2: Missing a name for object member.");
    QTest::newRow("directory's .meta")
        << meta << directory << defaultRoles.left(1)
        << QStringLiteral("line 1, column 2: Missing a name for object member.");
    QTest::newRow("template .meta of a child")
        << meta << child << defaultRoles.left(1)
        << QStringLiteral("line 1, column 2: Missing a name for object member.");
}

void tst_DamagedFiles::damagedDefaultFileEndsTheProcess()
{
    QFETCH(const QString, file);
    QFETCH(const QString, asked);
    QFETCH(const QByteArray, content);
    QFETCH(const QString, reason);

    const ChildResult child = ChildProcess::runInChild([&] {
        const TemporaryTree tree;
        tree.writeDefault(file, content);
        QVariantHash config = tree.config();
        config.insert(QStringLiteral("product_postfix"), QStringLiteral("sport"));
        CMSettingsWorker worker(config);
        // The record, printed while the process is still there.
        log4cplus::Logger::getRoot().addAppender(
            log4cplus::SharedAppenderPtr(new log4cplus::ConsoleAppender(false, true)));
        std::printf("directory %s\n", qPrintable(tree.defaultPath()));
        std::fflush(stdout);
        getData(&worker, QLatin1String("/settings") + asked, askedRoles);
        std::puts("answered");
    });

    QCOMPARE(child.signal, SIGABRT);
    // Among what QtTest itself prints: the place of the tree, then the record, and no answer.
    const QList<QByteArray> lines = child.standardOutput.split('\n');
    const auto place = std::find_if(lines.cbegin(), lines.cend(), [](const QByteArray& line) {
        return line.startsWith("directory ");
    });
    QVERIFY2(lines.cend() - place >= 2, child.standardOutput);
    const QString directory = QString::fromUtf8(*place).section(QLatin1Char(' '), 1);
    // Only plain and product files are named with one more "/".
    const QString separator =
        file.endsWith(QLatin1String(".meta")) ? QString() : QStringLiteral("/");
    QCOMPARE(QString::fromUtf8(*std::next(place)),
             QStringLiteral("ERROR - Settings: Unable to parse '%1%2%3': %4")
                 .arg(directory, separator, file, reason));
    QCOMPARE(child.standardOutput.count("ERROR - "), 1);
    QVERIFY2(!child.standardOutput.contains("answered"), child.standardOutput);
    QVERIFY2(child.standardError.contains("ASSERT: \"false\" in file "), child.standardError);
}

QTEST_GUILESS_MAIN(tst_DamagedFiles)
#include "tst_damaged_files.moc"
