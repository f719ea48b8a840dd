// How one setting file is read: pending writes first, then the disk; what is missing, what is
// damaged, and what ends the process.

#include "tests/support/childprocess.h"
#include "tests/support/replywaiter.h"
#include "workerfixture.h"

#include "api/core/model/tulosettingsactions.h"

#include <QFile>

#include <csignal>
#include <cstring>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Something that may be read and is no file: it cannot even be opened.
void makeSocket(const QString& name)
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    const QByteArray bytes = QFile::encodeName(name);
    if (std::size_t(bytes.size()) >= sizeof(address.sun_path))
        qFatal("too long for a socket: %s", bytes.constData());
    std::memcpy(address.sun_path, bytes.constData(), std::size_t(bytes.size()));
    const int handle = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (::bind(handle, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        qFatal("cannot make the socket %s", bytes.constData());
    ::close(handle);
}

void makeUnreadable(const QString& name)
{
    if (::chmod(QFile::encodeName(name).constData(), 0) != 0)
        qFatal("cannot change the mode of %s", qPrintable(name));
}

QString parseError(const QByteArray& text)
{
    TuloError error;
    TuloJson::parse(text, error, nullptr);
    return error.message();
}

} // namespace

class tst_worker_files : public QObject
{
    Q_OBJECT

private slots:
    void init() { m = std::make_unique<WorkerFixture>(); }
    void cleanup()
    {
        m->log.verifyNothingUnexpected();
        m.reset();
    }

    void missingFileIsInvalidAndSilent_data();
    void missingFileIsInvalidAndSilent();
    void documentIsReturnedAsParsed_data();
    void documentIsReturnedAsParsed();
    void fileIsReadWhole();
    void documentThatIsNoObjectContributesNoRoles_data();
    void documentThatIsNoObjectContributesNoRoles();

    void pendingRolesAnswerBeforeDisk_data();
    void pendingRolesAnswerBeforeDisk();
    void pendingRolesNeedTheExactFileName();
    void loadingInsertsNothingIntoPendingTable();
    void savedValueIsReadFromPendingTableWithoutFile();
    void savedValueIsReadFromPendingTableBeforeOlderFile();

    void damagedWrittenFileIsLoggedAndDefaultsStay_data();
    void damagedWrittenFileIsLoggedAndDefaultsStay();
    void damagedWrittenFileWithoutDefaultDoesNotExist();
    void damagedWrittenFileIsLoggedOncePerRead();
    void writtenPathThatCannotBeOpenedIsParseError();
    void damagedDefaultFileEndsProcess_data();
    void damagedDefaultFileEndsProcess();
    void defaultPathThatCannotBeOpenedEndsProcess();
    void directoryInPlaceOfMetaEndsProcess();

    void unreadableFileIsAbsentAndSilent_data();
    void unreadableFileIsAbsentAndSilent();

private:
    QString written(const char* settingPath) const
    {
        return m->tree.writePath() + QLatin1String(settingPath);
    }
    static QString unparsable(const QString& file, const QString& reason)
    {
        return QStringLiteral("Settings: Unable to parse '%1': %2").arg(file, reason);
    }

    std::unique_ptr<WorkerFixture> m;
};

void tst_worker_files::missingFileIsInvalidAndSilent_data()
{
    QTest::addColumn<QString>("file");

    QTest::newRow("missing") << QStringLiteral("/missing");
    QTest::newRow("in a missing folder") << QStringLiteral("/missing/file");
    QTest::newRow("below a file") << QStringLiteral("/file/below");
    QTest::newRow("dangling link") << QStringLiteral("/dangling");
}

void tst_worker_files::missingFileIsInvalidAndSilent()
{
    QFETCH(QString, file);
    m->tree.writeWritten(QStringLiteral("/file"), QByteArray("{}"));
    QVERIFY(QFile::link(written("/nowhere"), written("/dangling")));
    CMSettingsWorker& worker = m->create();

    for (const bool strict : { true, false })
        QVERIFY(!worker.loadFile(m->tree.writePath() + file, strict).isValid());
    QVERIFY(m->log.records().isEmpty());
}

void tst_worker_files::documentIsReturnedAsParsed_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QVariant>("document");

    QTest::newRow("object") << QByteArray(R"({"a": 1})")
                            << QVariant(QVariantHash { { QStringLiteral("a"), 1LL } });
    QTest::newRow("empty object") << QByteArray("{}") << QVariant(QVariantHash());
    QTest::newRow("list") << QByteArray("[true]") << QVariant(QVariantList { true });
    QTest::newRow("text") << QByteArray(R"("a")") << QVariant(QStringLiteral("a"));
    QTest::newRow("number") << QByteArray("0.5") << QVariant(0.5);
    QTest::newRow("null") << QByteArray("null") << QVariant();
    QTest::newRow("blanks around") << QByteArray("\n {} \n") << QVariant(QVariantHash());
}

void tst_worker_files::documentIsReturnedAsParsed()
{
    QFETCH(QByteArray, text);
    QFETCH(QVariant, document);
    m->tree.writeWritten(QStringLiteral("/a"), text);
    CMSettingsWorker& worker = m->create();

    for (const bool strict : { true, false }) {
        const QVariant result = worker.loadFile(written("/a"), strict);
        QCOMPARE(result.userType(), document.userType());
        QCOMPARE(result, document);
    }
    QVERIFY(m->log.records().isEmpty());
}

void tst_worker_files::fileIsReadWhole()
{
    const QString longText = QString(300000, QChar(0x00e4));
    m->tree.writeWritten(QStringLiteral("/a"), { { QStringLiteral("id"), longText } });
    CMSettingsWorker& worker = m->create();

    const QVariantHash roles = worker.loadFile(written("/a"), true).toHash();

    QCOMPARE(roles.value(QStringLiteral("id")).toString(), longText);
}

void tst_worker_files::documentThatIsNoObjectContributesNoRoles_data()
{
    QTest::addColumn<QByteArray>("text");

    for (const char* text : { "[]", R"([{"value": {"int": 1}}])", R"("value")", "1", "null" })
        QTest::newRow(text) << QByteArray(text);
}

void tst_worker_files::documentThatIsNoObjectContributesNoRoles()
{
    QFETCH(QByteArray, text);
    m->tree.writeDefault(QStringLiteral("/a"), json(R"({"value": {"int": 3}})"));
    m->tree.writeWritten(QStringLiteral("/a"), text);
    m->tree.writeWritten(QStringLiteral("/b"), text);
    CMSettingsWorker& worker = m->create();

    COMPARE_RECORDS(worker.load(QStringLiteral("/a"), nullptr).value(), json(R"({"int": 3})"));
    bool exists = true;
    worker.load(QStringLiteral("/b"), &exists);
    QVERIFY(!exists);
    QVERIFY(m->log.records().isEmpty());
}

// ---------------------------------------------------------------------------------------------
// Pending writes.
// ---------------------------------------------------------------------------------------------

void tst_worker_files::pendingRolesAnswerBeforeDisk_data()
{
    QTest::addColumn<QByteArray>("onDisk");

    QTest::newRow("no file") << QByteArray();
    QTest::newRow("older file") << QByteArray(R"({"id": "old"})");
    QTest::newRow("damaged file") << QByteArray("{");
}

void tst_worker_files::pendingRolesAnswerBeforeDisk()
{
    QFETCH(QByteArray, onDisk);
    if (!onDisk.isNull())
        m->tree.writeWritten(QStringLiteral("/a"), onDisk);
    CMSettingsWorker& worker = m->create();
    const TuloRoles pending(json(R"({"id": "new"})"));
    worker.m_pendingWrites.insert(written("/a"), pending);

    for (const bool strict : { true, false }) {
        const QVariant result = worker.loadFile(written("/a"), strict);
        QCOMPARE(result.userType(), int(QMetaType::QVariantHash));
        COMPARE_RECORDS(result.toHash(), pending);
    }
    QVERIFY(m->log.records().isEmpty());
}

void tst_worker_files::pendingRolesNeedTheExactFileName()
{
    CMSettingsWorker& worker = m->create();
    worker.m_pendingWrites.insert(written("//a"), TuloRoles(json(R"({"id": "new"})")));

    QVERIFY(!worker.loadFile(written("/a"), false).isValid());
    QVERIFY(worker.loadFile(written("//a"), false).isValid());
}

void tst_worker_files::loadingInsertsNothingIntoPendingTable()
{
    m->tree.writeDefault(QStringLiteral("/a"), QByteArray("{}"));
    CMSettingsWorker& worker = m->create();

    worker.loadFile(written("/a"), false);
    worker.load(QStringLiteral("/a"), nullptr);
    worker.load(QStringLiteral("/missing"), nullptr);

    QVERIFY(worker.m_pendingWrites.isEmpty());
}

void tst_worker_files::savedValueIsReadFromPendingTableWithoutFile()
{
    m->tree.writeDefault(QStringLiteral("/volume"), json(R"({"value": {"int": 3}})"));
    CMSettingsWorker& worker = m->create();
    setData(&worker, QStringLiteral("/settings/volume"), TuloRoles::Value(), json(R"({"int": 4})"));
    activate(&worker, TuloSettingsActionsDropCache());
    QVERIFY(worker.m_valueCache.isEmpty());

    const TuloRoles roles = worker.load(QStringLiteral("/volume"), nullptr);

    COMPARE_RECORDS(roles.value(), json(R"({"int": 4})"));
    QVERIFY(roles.timestamp() != 0);
    QCOMPARE(m->tree.writtenEntries(), QStringList());
}

void tst_worker_files::savedValueIsReadFromPendingTableBeforeOlderFile()
{
    m->tree.writeWritten(QStringLiteral("/volume"), json(R"({"value": {"int": 3}})"));
    CMSettingsWorker& worker = m->create();
    setData(&worker, QStringLiteral("/settings/volume"), TuloRoles::Value(), json(R"({"int": 4})"));
    activate(&worker, TuloSettingsActionsDropCache());

    COMPARE_RECORDS(worker.load(QStringLiteral("/volume"), nullptr).value(), json(R"({"int": 4})"));
    COMPARE_RECORDS(m->tree.readWrittenRoles(QStringLiteral("/volume")),
                    json(R"({"value": {"int": 3}})"));
}

// ---------------------------------------------------------------------------------------------
// Damage.
// ---------------------------------------------------------------------------------------------

void tst_worker_files::damagedWrittenFileIsLoggedAndDefaultsStay_data()
{
    QTest::addColumn<QByteArray>("text");

    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("blank") << QByteArray(" \n");
    QTest::newRow("cut off") << QByteArray(R"({"value": {"int": 4})");
    QTest::newRow("not JSON") << QByteArray("value=4");
    QTest::newRow("trailing text") << QByteArray(R"({"value": {"int": 4}} x)");
    QTest::newRow("zero bytes") << QByteArray(64, '\0');
}

void tst_worker_files::damagedWrittenFileIsLoggedAndDefaultsStay()
{
    QFETCH(QByteArray, text);
    m->tree.writeDefault(QStringLiteral("/a"), json(R"({"value": {"int": 3}, "id": "a"})"));
    m->tree.writeWritten(QStringLiteral("/a"), text);
    CMSettingsWorker& worker = m->create();
    m->log.expect(log4cplus::ERROR_LOG_LEVEL, unparsable(written("/a"), parseError(text)));

    bool exists = false;
    const TuloRoles roles = worker.load(QStringLiteral("/a"), &exists);

    QVERIFY(exists);
    COMPARE_RECORDS(roles.value(), json(R"({"int": 3})"));
    QCOMPARE(roles.id(), QStringLiteral("a"));
    QCOMPARE(m->log.records().size(), 1);
}

void tst_worker_files::damagedWrittenFileWithoutDefaultDoesNotExist()
{
    m->tree.writeWritten(QStringLiteral("/a"), QByteArray(R"({"value")"));
    CMSettingsWorker& worker = m->create();
    m->log.expect(log4cplus::ERROR_LOG_LEVEL, unparsable(written("/a"), parseError(R"({"value")")));

    bool exists = true;
    worker.load(QStringLiteral("/a"), &exists);

    QVERIFY(!exists);
}

void tst_worker_files::damagedWrittenFileIsLoggedOncePerRead()
{
    m->tree.writeWritten(QStringLiteral("/a"), QByteArray(""));
    CMSettingsWorker& worker = m->create();
    for (int read = 0; read < 2; ++read) {
        m->log.expect(log4cplus::ERROR_LOG_LEVEL, unparsable(written("/a"), parseError("")));
        // What the parser gives for a document with a fault.
        QVERIFY(!worker.loadFile(written("/a"), false).isValid());
    }
}

void tst_worker_files::writtenPathThatCannotBeOpenedIsParseError()
{
    m->tree.writeDefault(QStringLiteral("/a"), json(R"({"value": {"int": 3}})"));
    makeSocket(written("/a"));
    CMSettingsWorker& worker = m->create();
    m->log.expect(log4cplus::ERROR_LOG_LEVEL, unparsable(written("/a"), parseError("")));

    COMPARE_RECORDS(worker.load(QStringLiteral("/a"), nullptr).value(), json(R"({"int": 3})"));
}

void tst_worker_files::damagedDefaultFileEndsProcess_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("load");
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("text");

    const auto row = [](const char* name, const char* file, const char* load, const char* fileName,
                        const char* text) {
        QTest::newRow(name) << QString::fromLatin1(file) << QString::fromLatin1(load)
                            << QByteArray(fileName) << QByteArray(text);
    };
    row("plain default", "/audio/volume", "/audio/volume", "/default//audio/volume", "{");
    row("plain default, empty", "/audio/volume", "/audio/volume", "/default//audio/volume", "");
    row("product default", "/audio/volume_p1", "/audio/volume", "/default//audio/volume_p1", "{");
    row("directory", "/audio/.meta", "/audio", "/default/audio/.meta", "{");
    row("template", "/audio/.meta", "/audio/volume", "/default/audio/.meta", "{");
    row("template of the top", "/.meta", "/volume", "/default/.meta", "{");
}

void tst_worker_files::damagedDefaultFileEndsProcess()
{
    QFETCH(QString, file);
    QFETCH(QString, load);
    QFETCH(QByteArray, name);
    QFETCH(QByteArray, text);
    const ChildResult child = ChildProcess::runInChild([&] {
        m->tree.writeDefault(file, text);
        CMSettingsWorker& worker =
            m->create({ { QStringLiteral("product_postfix"), QStringLiteral("p1") } });
        logToStandardError(log4cplus::ERROR_LOG_LEVEL);
        worker.load(load, nullptr);
    });

    QCOMPARE(child.signal, SIGABRT);
    const int record = child.standardError.indexOf("ERROR - Settings: Unable to parse '");
    const QByteArray end = name + "': " + parseError(text).toUtf8() + '\n';
    const int recordEnd = child.standardError.indexOf(end, record);
    const int assertion = child.standardError.indexOf("ASSERT: \"false\" in file", recordEnd);
    QVERIFY2(record >= 0 && recordEnd > record && assertion > recordEnd,
             child.standardError.constData());
}

void tst_worker_files::defaultPathThatCannotBeOpenedEndsProcess()
{
    const ChildResult child = ChildProcess::runInChild([this] {
        makeSocket(m->tree.defaultPath() + QLatin1String("/a"));
        m->create().load(QStringLiteral("/a"), nullptr);
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("ASSERT: \"false\" in file"),
             child.standardError.constData());
}

void tst_worker_files::directoryInPlaceOfMetaEndsProcess()
{
    const ChildResult child = ChildProcess::runInChild([this] {
        m->tree.makeDefaultDirectory(QStringLiteral("/audio/.meta"));
        m->create().load(QStringLiteral("/audio"), nullptr);
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("ASSERT: \"false\" in file"),
             child.standardError.constData());
}

// ---------------------------------------------------------------------------------------------
// Permissions, which root does not meet.
// ---------------------------------------------------------------------------------------------

void tst_worker_files::unreadableFileIsAbsentAndSilent_data()
{
    QTest::addColumn<QString>("unreadable");
    QTest::addColumn<QString>("load");
    QTest::addColumn<bool>("exists");
    QTest::addColumn<QString>("id");

    // Every file names itself as the id.
    const auto row = [](const char* name, const char* unreadable, const char* load, bool exists,
                        const char* id) {
        QTest::newRow(name) << QString::fromLatin1(unreadable) << QString::fromLatin1(load)
                            << exists << QString::fromLatin1(id);
    };
    row("written", "/write/audio/volume", "/audio/volume", true, "plain");
    row("plain default", "/default/audio/tone", "/audio/tone", false, "template");
    row("product default, still chosen", "/default/audio/mode_p1", "/audio/mode", false,
        "template");
    row("directory", "/default/audio/.meta", "/audio", true, "");
    row("template", "/default/audio/.meta", "/audio/other", false, "");
}

void tst_worker_files::unreadableFileIsAbsentAndSilent()
{
    QFETCH(QString, unreadable);
    QFETCH(QString, load);
    QFETCH(bool, exists);
    QFETCH(QString, id);
    m->tree.writeDefault(QStringLiteral("/audio/.meta"), json(R"({"id": "template"})"));
    m->tree.writeDefault(QStringLiteral("/audio/volume"), json(R"({"id": "plain"})"));
    m->tree.writeWritten(QStringLiteral("/audio/volume"), json(R"({"id": "written"})"));
    m->tree.writeDefault(QStringLiteral("/audio/tone"), json(R"({"id": "plain"})"));
    m->tree.writeDefault(QStringLiteral("/audio/mode"), json(R"({"id": "plain"})"));
    m->tree.writeDefault(QStringLiteral("/audio/mode_p1"), json(R"({"id": "product"})"));
    makeUnreadable(m->tree.path() + unreadable);
    const ChildResult child = ChildProcess::runInChild(
        [&] {
            CMSettingsWorker& worker =
                m->create({ { QStringLiteral("product_postfix"), QStringLiteral("p1") } });

            bool doesExist = !exists;
            const TuloRoles roles = worker.load(load, &doesExist);

            QCOMPARE(doesExist, exists);
            QCOMPARE(roles.id(), id);
            QVERIFY(m->log.records().isEmpty());
        },
        ChildProcess::User::Nobody);

    QCOMPARE(child.signal, 0);
    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

QTEST_GUILESS_MAIN(tst_worker_files)
#include "tst_worker_files.moc"
