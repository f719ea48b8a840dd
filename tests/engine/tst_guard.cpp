#include "engine/dispatcher.h"
#include "engine/guard.h"
#include "engine/loader.h"
#include "engine/router.h"
#include "trees/nodenames.h"

#include "api/core/model/tulosettingsactions.h"
#include "tests/support/enginechanges.h"
#include "tests/support/logcapture.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QDir>
#include <QFile>
#include <QTest>
#include <QVector>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>
#include <memory>

#include <sys/stat.h>
#include <unistd.h>

using namespace tulo;

Q_DECLARE_METATYPE(ErrorCode)

namespace {

const QString volume = QStringLiteral("/settings/audio/volume");
const QString readOnly = QStringLiteral("/settings/audio/serial");
const QString directory = QStringLiteral("/settings/audio");

QVariant intValue(qlonglong number)
{
    return TuloValue::of(TuloValue::Int(), number).__variant();
}

QVariant valueOf(const QString& kind, const QVariant& content)
{
    return TuloValue::of(kind, content).__variant();
}

QVariant listOf(const QVariant& content)
{
    return valueOf(TuloValue::List(), content);
}

QString names(int count, const QString& name)
{
    QString text;
    for (int i = 0; i < count; ++i)
        text += QLatin1Char('/') + name;
    return text;
}

QString ofLength(int length)
{
    return QString(length, QLatin1Char('a'));
}

// Lists in lists; the innermost is empty.
QVariant nestedLists(int depth)
{
    QVariant value = QVariantList();
    for (int level = 1; level < depth; ++level)
        value = QVariantList { value };
    return value;
}

QVariant nestedObjects(int depth)
{
    QVariant value = QVariantHash();
    for (int level = 1; level < depth; ++level)
        value = QVariantHash { { QStringLiteral("a"), value } };
    return value;
}

const QString loneSurrogate = QString(QChar(0xD800));

} // namespace

/// The guard in front of the real worker on a small tree.
class tst_guard : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void badPathIsRefusedForEveryRequest_data();
    void badPathIsRefusedForEveryRequest();
    void goodPathReachesTheWorker_data();
    void goodPathReachesTheWorker();
    void pathWithoutItsSlashIsServedWithTheWorkersWarning();
    void percentSignIsAnOrdinaryCharacter();

    void badRowsAreRefused_data();
    void badRowsAreRefused();
    void goodRowsAreAdmittedAsTheyAre_data();
    void goodRowsAreAdmittedAsTheyAre();
    void rowsAreClamped_data();
    void rowsAreClamped();
    void rowsOfAMissingDirectoryAreAnsweredWithoutTheWorker_data();
    void rowsOfAMissingDirectoryAreAnsweredWithoutTheWorker();
    void rowsOfADirectoryInEitherTreeAreServed_data();
    void rowsOfADirectoryInEitherTreeAreServed();
    void rowsOfADirectoryThatHoldsAnAcceptedChangeAreServed();
    void tooManyRolesAreRefused();

    void activateIsForTheTwoActions_data();
    void activateIsForTheTwoActions();
    void actionsAreAdmitted();
    void unknownRoleGetsTheWorkersAnswer();
    void pathOfAnotherWorkerIsLeftToTheRouter();

    void changeIsRefused_data();
    void changeIsRefused();
    void changeIsAdmitted_data();
    void changeIsAdmitted();
    void pathRoleIsRefusedInAnyForm_data();
    void pathRoleIsRefusedInAnyForm();
    void nameAcceptedAndNotYetWrittenExists();
    void nameAcceptedAndEvictedExists();
    void settingOfTheWritableTreeAloneExists();
    void changeInADirectoryOfTheWritableTreeAloneCreatesNothing();
    void linkInTheWritableTreeIsNotFollowedByAChange_data();
    void linkInTheWritableTreeIsNotFollowedByAChange();
    void pipeInTheWritableTreeIsNotOpenedByAChange();
    void hardLinkAsTemporaryFileIsNotWritten();
    void fileInPlaceOfADirectoryRefusesAChange();

    void badValueIsRefused_data();
    void badValueIsRefused();
    void goodValueIsAdmitted_data();
    void goodValueIsAdmitted();
    void badRolesAreRefused_data();
    void badRolesAreRefused();
    void firstBadKeyByNameIsTold();
    void badOperationIsRefused_data();
    void badOperationIsRefused();

    void valueThatGrowsIsLimited();
    void adjustmentIsTold();
    void newSettingsAreLimited();
    void settingsFoundInTheTreeCount();
    void rejectedNewSettingsDoNotCount();
    void unreadableFileIsUnavailable_data();
    void unreadableFileIsUnavailable();
    void rowsTellWhichOfThemCannotBeServed();

    void readOnlyGuardRefusesChangesOnly();
    void listableNamesAreThoseOfListings_data();
    void listableNamesAreThoseOfListings();

private:
    CMReply<QVariant> setData(const QString& path, const QString& role, const QVariant& value)
    {
        return sendChange(*m_dispatcher, CMPath(path), role, value);
    }
    bool workerSawRequest(const QString& operation) const;

    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<TemporaryTree> m_tree;
    std::unique_ptr<CMWorker> m_worker;
    std::unique_ptr<Router> m_router;
    std::unique_ptr<Guard> m_guard;
    std::unique_ptr<Dispatcher> m_dispatcher;
};

void tst_guard::init()
{
    m_log = std::make_unique<LogCapture>();
    m_tree = std::make_unique<TemporaryTree>();
    m_tree->writeDefault(QStringLiteral("/.meta"), "{}");
    m_tree->writeDefault(QStringLiteral("/top"), R"({"value":{"int":1}})");
    m_tree->writeDefault(QStringLiteral("/audio/.meta"), R"({"modifiable":false})");
    m_tree->writeDefault(QStringLiteral("/audio/volume"), R"({"value":{"int":5}})");
    m_tree->writeDefault(QStringLiteral("/audio/serial"),
                         R"({"value":{"string":"x"},"modifiable":false})");
    m_tree->writeDefault(QStringLiteral("/audio/a.json"), R"({"value":{"int":1}})");
    m_tree->writeDefault(QStringLiteral("/list/.meta"), R"({"value":{"int":3}})");
    m_tree->writeDefault(QStringLiteral("/plain/only"), R"({"value":{"int":4}})");
    m_tree->writeWritten(QStringLiteral("/old/kept"), R"({"value":{"int":1}})");

    m_worker = loadWorker(QStringLiteral(TULO_PLUGIN_FILE), m_tree->config()).worker;
    QVERIFY(m_worker);
    m_router = std::make_unique<Router>();
    m_router->addWorker(m_worker.get());
    m_guard = std::make_unique<Guard>(m_worker.get(), m_tree->defaultPath(), m_tree->writePath());
    m_dispatcher = std::make_unique<Dispatcher>(m_router.get(), m_guard.get());
    // What the worker says of its start.
    m_log->take();
}

void tst_guard::cleanup()
{
    m_dispatcher.reset();
    m_worker.reset();
    m_log->verifyNothingUnexpected();
    m_log.reset();
    m_tree.reset();
}

// Needs the log at TRACE.
bool tst_guard::workerSawRequest(const QString& operation) const
{
    const QStringList messages =
        m_log->messages(log4cplus::TRACE_LOG_LEVEL) + m_log->messages(log4cplus::DEBUG_LOG_LEVEL);
    return std::any_of(messages.cbegin(), messages.cend(), [&operation](const QString& message) {
        return message.contains(operation);
    });
}

// ---------------------------------------------------------------------------------------------
// Paths
// ---------------------------------------------------------------------------------------------

void tst_guard::badPathIsRefusedForEveryRequest_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("error");
    const auto row = [](const char* name, const QString& path, const char* error) {
        QTest::newRow(name) << path << QString::fromLatin1(error);
    };
    row("empty", QString(), "Refused: The path is empty");

    row("root", QStringLiteral("/"), "Refused: Path '/' has an empty component");
    row("mount with a slash", QStringLiteral("/settings/"),
        "Refused: Path '/settings/' has an empty component");
    row("two slashes in front", QStringLiteral("//settings/a"),
        "Refused: Path '//settings/a' has an empty component");
    row("two slashes inside", QStringLiteral("/settings//a"),
        "Refused: Path '/settings//a' has an empty component");
    row("slash at the end", QStringLiteral("settings/a/"),
        "Refused: Path 'settings/a/' has an empty component");

    row("dot", QStringLiteral("/settings/./a"),
        "Refused: Path '/settings/./a' has a component that begins with '.'");
    row("two dots", QStringLiteral("/settings/../etc/passwd"),
        "Refused: Path '/settings/../etc/passwd' has a component that begins with '.'");
    row("two dots at the end", QStringLiteral("settings/audio/.."),
        "Refused: Path 'settings/audio/..' has a component that begins with '.'");
    row("two dots alone", QStringLiteral(".."),
        "Refused: Path '..' has a component that begins with '.'");
    row("directory roles", QStringLiteral("/settings/audio/.meta"),
        "Refused: Path '/settings/audio/.meta' has a component that begins with '.'");
    row("lock file", QStringLiteral("/settings/.tulo-cm.lock"),
        "Refused: Path '/settings/.tulo-cm.lock' has a component that begins with '.'");

    row("line feed", QStringLiteral("/settings/a\nb"),
        "Refused: Path '/settings/a%0Ab' holds a control character");
    row("zero", QStringLiteral("/settings/a") + QChar(0),
        "Refused: Path '/settings/a%00' holds a control character");
    row("delete", QStringLiteral("/settings/a") + QChar(0x7F),
        "Refused: Path '/settings/a%7F' holds a control character");
    row("next line", QStringLiteral("/settings/a") + QChar(0x85),
        "Refused: Path '/settings/a%C2%85' holds a control character");

    row("lone high surrogate", QStringLiteral("/settings/a") + QChar(0xD800),
        "Refused: Path '/settings/a%3F' is not valid Unicode");
    row("lone low surrogate", QStringLiteral("/settings/") + QChar(0xDC00) + QLatin1Char('b'),
        "Refused: Path '/settings/%3Fb' is not valid Unicode");

    row("17 levels", QStringLiteral("/settings") + names(16, QStringLiteral("a")),
        "Limits: Path '/settings/a/a/a/a/a/a/a/a/a/a/a/a/a/a/a/a' has more than 16 levels");
    row("17 levels without the slash", QStringLiteral("settings") + names(16, QStringLiteral("a")),
        "Limits: Path 'settings/a/a/a/a/a/a/a/a/a/a/a/a/a/a/a/a' has more than 16 levels");

    const QString longName = QStringLiteral("/settings/") + ofLength(201);
    QTest::newRow("name of 201 bytes")
        << longName
        << QStringLiteral("Limits: Path '%1...' has a name of more than 200 bytes")
               .arg(longName.left(200));
    const QString longName3 = QStringLiteral("/settings/") + QString(67, QChar(0x20AC));
    QTest::newRow("name of 67 characters, 201 bytes")
        << longName3
        << QStringLiteral("Limits: Path '%1...' has a name of more than 200 bytes")
               .arg(CMPath(longName3).toEncoded().left(200));
    // 9 + 4 * 200 + 192
    const QString longText =
        QStringLiteral("/settings") + names(4, ofLength(199)) + names(1, ofLength(191));
    QTest::newRow("text of 1001 bytes")
        << longText
        << QStringLiteral("Limits: Path '%1...' is longer than 1000 bytes").arg(longText.left(200));
    // A marker of the message's own kind in the path stays the path's.
    const QString markers = QStringLiteral("/settings") + names(340, QStringLiteral("%2"));
    QTest::newRow("long text with percent signs")
        << markers
        << QStringLiteral("Limits: Path '%1...' is longer than 1000 bytes")
               .arg(CMPath(markers).toEncoded().left(200));
}

void tst_guard::badPathIsRefusedForEveryRequest()
{
    QFETCH(QString, path);
    QFETCH(QString, error);
    m_log->setLevel(log4cplus::TRACE_LOG_LEVEL);

    const auto data = m_dispatcher->getData(CMPath(path), { TuloRoles::Value() });
    const auto rows = m_dispatcher->getRows(CMPath(path), 0, 9, {});
    const auto value = setData(path, TuloRoles::Value(), intValue(1));
    const auto roles = setData(path, TuloRoles::SetRoles(), QVariantHash());
    const auto action = setData(path, TuloRoles::Activate(), QVariant());

    QCOMPARE(errorText(data), error);
    QCOMPARE(errorText(rows), error);
    QCOMPARE(errorText(value), error);
    QCOMPARE(errorText(roles), error);
    QCOMPARE(errorText(action), error);
    QVERIFY(m_log->take().isEmpty());
}

void tst_guard::goodPathReachesTheWorker_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("blank") << QStringLiteral("/settings/a b");
    QTest::newRow("dot inside") << QStringLiteral("/settings/a.b");
    QTest::newRow("dot at the end") << QStringLiteral("/settings/a.");
    QTest::newRow("16 levels") << QStringLiteral("/settings") + names(15, QStringLiteral("a"));
    QTest::newRow("name of 200 bytes") << QStringLiteral("/settings/") + ofLength(200);
    QTest::newRow("text of 1000 bytes")
        << QStringLiteral("/settings") + names(4, ofLength(199)) + names(1, ofLength(190));
    QTest::newRow("character beyond 16 bits")
        << QStringLiteral("/settings/") + QString::fromUtf8("\xF0\x9F\x8E\xB5");
    QTest::newRow("quote") << QStringLiteral("/settings/it's");
}

void tst_guard::goodPathReachesTheWorker()
{
    QFETCH(QString, path);
    m_log->setLevel(log4cplus::TRACE_LOG_LEVEL);

    const auto reply = m_dispatcher->getData(CMPath(path), { TuloRoles::Value() });

    // It names nothing, says the worker.
    QCOMPARE(errorCode(reply.error()), ErrorCode::InvalidPath);
    QVERIFY(workerSawRequest(QStringLiteral("CMSettingsWorker::getDataRequest: ") + path));
}

void tst_guard::pathWithoutItsSlashIsServedWithTheWorkersWarning()
{
    const QString warning = QStringLiteral("Wrong settings path detected: '%1' - please fix your "
                                           "code. Adding missing leading '/' for now.");
    m_log->expect(log4cplus::WARN_LOG_LEVEL, warning.arg(QStringLiteral("settings/audio/volume")));
    m_log->expect(log4cplus::WARN_LOG_LEVEL, warning.arg(QStringLiteral("settings/audio")));
    m_log->expect(log4cplus::WARN_LOG_LEVEL, warning.arg(QStringLiteral("settings/list/new")));

    const auto data = m_dispatcher->getData(CMPath(QStringLiteral("settings/audio/volume")),
                                            { TuloRoles::Value() });
    const auto rows = m_dispatcher->getRows(CMPath(QStringLiteral("settings/audio")), 0, 9, {});
    const auto change =
        setData(QStringLiteral("settings/list/new"), TuloRoles::Value(), intValue(1));

    // One warning each: the guard's own questions are asked in the proper form.
    QCOMPARE(data.value(), QList<QVariant>({ intValue(5) }));
    QCOMPARE(errorText(rows), QString());
    QCOMPARE(errorText(change), QString());
}

void tst_guard::percentSignIsAnOrdinaryCharacter()
{
    m_tree->writeDefault(QStringLiteral("/audio/%2e%2e"), R"({"value":{"int":7}})");

    const auto own = m_dispatcher->getData(CMPath(QStringLiteral("/settings/audio/%2e%2e")),
                                           { TuloRoles::Value() });
    const auto decoded = m_dispatcher->getData(CMPath(QStringLiteral("/settings/audio%2Fvolume")),
                                               { TuloRoles::Value() });

    QCOMPARE(own.value(), QList<QVariant>({ intValue(7) }));
    QCOMPARE(errorText(decoded),
             QStringLiteral("InvalidPath: Invalid path '/settings/audio%252Fvolume'"));
}

// ---------------------------------------------------------------------------------------------
// Rows and roles
// ---------------------------------------------------------------------------------------------

void tst_guard::badRowsAreRefused_data()
{
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("last");
    QTest::newRow("negative first") << -1 << 5;
    QTest::newRow("negative last") << 0 << -1;
    QTest::newRow("both negative") << -5 << -2;
    QTest::newRow("lowest first") << INT_MIN << INT_MAX;
    QTest::newRow("lowest last") << INT_MAX << INT_MIN;
}

void tst_guard::badRowsAreRefused()
{
    QFETCH(int, first);
    QFETCH(int, last);

    const auto reply = m_dispatcher->getRows(CMPath(directory), first, last, {});

    QCOMPARE(errorText(reply),
             QStringLiteral("Refused: A row index at '/settings/audio' is negative"));
}

void tst_guard::goodRowsAreAdmittedAsTheyAre_data()
{
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("last");
    QTest::newRow("one") << 0 << 0;
    QTest::newRow("as many as allowed") << 0 << 499;
    QTest::newRow("as many as allowed, later") << 100 << 599;
    QTest::newRow("last below first") << 5 << 2;
    QTest::newRow("last far below first") << INT_MAX << 0;
    QTest::newRow("the last that there is") << INT_MAX << INT_MAX;
}

void tst_guard::goodRowsAreAdmittedAsTheyAre()
{
    QFETCH(int, first);
    QFETCH(int, last);
    const CMGetRowsRequest request(CMPath(directory), first, last, { TuloRoles::Title() },
                                   CMGetRowsRequest::Reply::create());

    CMError error;
    const CMGetRowsRequest admitted(m_guard->admit(request, &error));

    QCOMPARE(errorCode(error), ErrorCode::None);
    QCOMPARE(admitted.firstRow(), first);
    QCOMPARE(admitted.lastRow(), last);
}

void tst_guard::rowsAreClamped_data()
{
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("last");
    QTest::addColumn<int>("clamped");
    QTest::newRow("one too many") << 0 << 500 << 499;
    QTest::newRow("all that there are") << 0 << INT_MAX << 499;
    QTest::newRow("later") << 1000 << INT_MAX << 1499;
    QTest::newRow("just below the largest number") << INT_MAX - 500 << INT_MAX << INT_MAX - 1;
}

void tst_guard::rowsAreClamped()
{
    QFETCH(int, first);
    QFETCH(int, last);
    QFETCH(int, clamped);
    const auto reply = CMGetRowsRequest::Reply::create();
    const CMGetRowsRequest request(CMPath(directory), first, last, { TuloRoles::Title() }, reply);

    CMError error;
    const CMGetRowsRequest admitted(m_guard->admit(request, &error));

    QCOMPARE(errorCode(error), ErrorCode::None);
    QCOMPARE(admitted.path(), CMPath(directory));
    QCOMPARE(admitted.firstRow(), first);
    QCOMPARE(admitted.lastRow(), clamped);
    QCOMPARE(admitted.roles(), QStringList(TuloRoles::Title()));
    QCOMPARE(admitted.reply().data(), reply.data());
}

void tst_guard::rowsOfAMissingDirectoryAreAnsweredWithoutTheWorker_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("missing") << QStringLiteral("/settings/none");
    QTest::newRow("missing, without the slash") << QStringLiteral("settings/none");
    QTest::newRow("below a missing one") << QStringLiteral("/settings/none/none");
    QTest::newRow("setting") << volume;
    QTest::newRow("below a setting") << volume + QStringLiteral("/a");
}

void tst_guard::rowsOfAMissingDirectoryAreAnsweredWithoutTheWorker()
{
    QFETCH(QString, path);
    m_log->setLevel(log4cplus::TRACE_LOG_LEVEL);

    const auto reply = m_dispatcher->getRows(CMPath(path), 0, 9, {});

    // The very error that the worker answers.
    QCOMPARE(reply.error(), CMAbstractWorker::createErrorInvalidPath(CMPath(path)));
    QVERIFY(m_log->take().isEmpty());
}

void tst_guard::rowsOfADirectoryInEitherTreeAreServed_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QStringList>("names");
    QTest::newRow("default tree") << directory
                                  << QStringList(
                                         { QStringLiteral("serial"), QStringLiteral("volume") });
    QTest::newRow("writable tree")
        << QStringLiteral("/settings/old") << QStringList(QStringLiteral("kept"));
    QTest::newRow("top") << QStringLiteral("/settings")
                         << QStringList({ QStringLiteral("audio"), QStringLiteral("list"),
                                          QStringLiteral("old"), QStringLiteral("plain"),
                                          QStringLiteral("top") });
}

void tst_guard::rowsOfADirectoryInEitherTreeAreServed()
{
    QFETCH(QString, path);
    QFETCH(QStringList, names);

    const auto reply = m_dispatcher->getRows(CMPath(path), 0, INT_MAX, {});

    QCOMPARE(errorText(reply), QString());
    const DirectoryRows rows = Dispatcher::rowsOf(reply.value(), {});
    QStringList answered;
    for (const DirectoryRow& row : rows.rows)
        answered.append(row.name);
    QCOMPARE(answered, names);
}

void tst_guard::rowsOfADirectoryThatHoldsAnAcceptedChangeAreServed()
{
    const QString path = QStringLiteral("/settings/old/kept");
    QCOMPARE(errorText(m_dispatcher->getData(CMPath(path), {})), QString());
    QVERIFY(QFile::remove(m_tree->writePath() + QStringLiteral("/old/kept")));
    QVERIFY(QDir().rmdir(m_tree->writePath() + QStringLiteral("/old")));
    QCOMPARE(errorText(m_dispatcher->getRows(CMPath(QStringLiteral("/settings/old")), 0, 9, {})),
             QStringLiteral("InvalidPath: Invalid path '/settings/old'"));

    QCOMPARE(errorText(setData(path, TuloRoles::Value(), intValue(2))), QString());
    const auto reply = m_dispatcher->getRows(CMPath(QStringLiteral("/settings/old")), 0, 9, {});

    QCOMPARE(errorText(reply), QString());
    QCOMPARE(reply.value().rowsCount(), 1);
}

void tst_guard::tooManyRolesAreRefused()
{
    const QStringList roles = QVector<QString>(64, TuloRoles::Value()).toList();
    const QStringList tooMany = roles + QStringList { TuloRoles::Title() };
    const QString error = QStringLiteral("Limits: A request for '%1' names more than 64 roles");

    QCOMPARE(errorText(m_dispatcher->getData(CMPath(volume), roles)), QString());
    QCOMPARE(errorText(m_dispatcher->getRows(CMPath(directory), 0, 1, roles)), QString());
    QCOMPARE(errorText(m_dispatcher->getData(CMPath(volume), tooMany)), error.arg(volume));
    QCOMPARE(errorText(m_dispatcher->getRows(CMPath(directory), 0, 1, tooMany)),
             error.arg(directory));
}

// ---------------------------------------------------------------------------------------------
// Actions and roles of set data
// ---------------------------------------------------------------------------------------------

void tst_guard::activateIsForTheTwoActions_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("setting") << volume;
    QTest::newRow("directory of the actions") << QStringLiteral("/settings/actions");
    QTest::newRow("unknown action") << QStringLiteral("/settings/actions/reboot");
    QTest::newRow("action without its slash") << QStringLiteral("settings/actions/flush");
    QTest::newRow("other worker") << QStringLiteral("/media/actions/flush");
}

void tst_guard::activateIsForTheTwoActions()
{
    QFETCH(QString, path);

    const auto reply = setData(path, TuloRoles::Activate(), QVariant());

    QCOMPARE(errorText(reply), QStringLiteral("Refused: Path '%1' is not an action").arg(path));
}

void tst_guard::actionsAreAdmitted()
{
    for (const CMPath& path : { TuloSettingsActionsFlush(), TuloSettingsActionsDropCache() }) {
        const CMSetDataRequest request(path, TuloRoles::Activate(), QVariant(),
                                       CMReply<QVariant>::create());
        CMError error;

        const CMRequest admitted = m_guard->admit(request, &error);

        QCOMPARE(errorCode(error), ErrorCode::None);
        QCOMPARE(admitted.path(), path);
    }
}

void tst_guard::unknownRoleGetsTheWorkersAnswer()
{
    const auto reply = setData(volume, TuloRoles::Title(), QVariant());

    QCOMPARE(errorText(reply), QStringLiteral("Error: Invalid set data role: title"));
}

void tst_guard::pathOfAnotherWorkerIsLeftToTheRouter()
{
    for (const QString& path : { QStringLiteral("/media/a"), QStringLiteral("/settings2/a") }) {
        const QString error = QStringLiteral("InvalidPath: Invalid path '%1'").arg(path);
        QCOMPARE(errorText(m_dispatcher->getData(CMPath(path), {})), error);
        QCOMPARE(errorText(m_dispatcher->getRows(CMPath(path), 0, 1, {})), error);
        QCOMPARE(errorText(setData(path, TuloRoles::Value(), intValue(1))), error);
    }
}

// ---------------------------------------------------------------------------------------------
// Where a change may go
// ---------------------------------------------------------------------------------------------

void tst_guard::changeIsRefused_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("error");
    const auto row = [](const char* name, const char* path, const char* error) {
        QTest::newRow(name) << QString::fromUtf8(path) << QString::fromLatin1(error);
    };
    row("top directory", "/settings", "Refused: Path '/settings' is a directory");
    row("top directory, without the slash", "settings", "Refused: Path 'settings' is a directory");
    row("directory", "/settings/audio", "Refused: Path '/settings/audio' is a directory");
    row("directory of the writable tree alone", "/settings/old",
        "Refused: Path '/settings/old' is a directory");
    row("read-only setting", "/settings/audio/serial",
        "NotModifiable: Setting '/settings/audio/serial' is not modifiable");
    row("new name at the top", "/settings/new",
        "InvalidPath: There is no setting '/settings/new', and none can be created at the top");
    row("new name in a missing directory", "/settings/none/new",
        "InvalidPath: There is no setting '/settings/none/new', and no directory for it");
    row("new name below a setting", "/settings/audio/volume/new",
        "Refused: Path '/settings/audio/volume/new' is below a setting");
    row("new name two levels below a template", "/settings/list/a/b",
        "InvalidPath: There is no setting '/settings/list/a/b', and no directory for it");
    row("new name where there is no template", "/settings/plain/new",
        "InvalidPath: There is no setting '/settings/plain/new', and none can be created: its "
        "directory has no template");
    row("new name in the writable tree alone", "/settings/old/new",
        "InvalidPath: There is no setting '/settings/old/new', and none can be created: its "
        "directory has no template");
    row("new name under a read-only template", "/settings/audio/new",
        "InvalidPath: There is no setting '/settings/audio/new', and none can be created: its "
        "template is not modifiable");
    row("name with a dot", "/settings/list/a.b",
        "Refused: No listing would show the setting '/settings/list/a.b'");
    row("name with a blank", "/settings/list/a b",
        "Refused: No listing would show the setting '/settings/list/a%20b'");
    row("name of a symbol", "/settings/list/\xF0\x9F\x8E\xB5",
        "Refused: No listing would show the setting '/settings/list/%F0%9F%8E%B5'");
    row("action", "/settings/actions/flush",
        "Refused: Path '/settings/actions/flush' is an action");
    row("action without the slash", "settings/actions/flush",
        "Refused: Path 'settings/actions/flush' is an action");
    row("other action", "/settings/actions/dropCache",
        "Refused: Path '/settings/actions/dropCache' is an action");
}

void tst_guard::changeIsRefused()
{
    QFETCH(QString, path);
    QFETCH(QString, error);
    const QVariantHash operation { { QStringLiteral("op"), QStringLiteral("set") },
                                   { TuloRoles::Value(), intValue(1) } };
    m_log->setLevel(log4cplus::TRACE_LOG_LEVEL);

    const auto value = setData(path, TuloRoles::Value(), intValue(1));
    const auto roles = setData(path, TuloRoles::SetRoles(), QVariantHash());
    const auto applied = setData(path, TuloRoles::ValueOperation(), operation);

    QCOMPARE(errorText(value), error);
    QCOMPARE(errorText(roles), error);
    QCOMPARE(errorText(applied), error);
    QVERIFY(!workerSawRequest(QStringLiteral("setDataRequest")));
    QVERIFY(m_tree->writtenEntries()
            == QStringList({ QStringLiteral("/old/"), QStringLiteral("/old/kept") }));
}

void tst_guard::changeIsAdmitted_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("setting") << volume;
    QTest::newRow("setting at the top") << QStringLiteral("/settings/top");
    QTest::newRow("setting where there is no template") << QStringLiteral("/settings/plain/only");
    QTest::newRow("setting that no listing shows") << QStringLiteral("/settings/audio/a.json");
    QTest::newRow("setting of the writable tree alone") << QStringLiteral("/settings/old/kept");
    QTest::newRow("new name under a template") << QStringLiteral("/settings/list/new-1_A");
    QTest::newRow("new name in other letters")
        << QStringLiteral("/settings/list/") + QString::fromUtf8("\xC3\xA4\xCE\xB2\xE4\xB8\xAD");
}

void tst_guard::changeIsAdmitted()
{
    QFETCH(QString, path);

    const auto reply = setData(path, TuloRoles::Value(), intValue(8));

    QCOMPARE(errorText(reply), QString());
    QCOMPARE(m_dispatcher->getData(CMPath(path), { TuloRoles::Value() }).value(),
             QList<QVariant>({ intValue(8) }));
}

void tst_guard::pathRoleIsRefusedInAnyForm_data()
{
    QTest::addColumn<QVariant>("role");
    QTest::newRow("path") << QVariant::fromValue(CMPath(volume));
    QTest::newRow("text") << QVariant(volume);
    QTest::newRow("empty text") << QVariant(QString());
    QTest::newRow("object") << QVariant(QVariantHash { { QStringLiteral("a"), 1 } });
    QTest::newRow("list") << QVariant(QVariantList { 1 });
    QTest::newRow("number") << QVariant(1);
    QTest::newRow("null") << QVariant();
}

void tst_guard::pathRoleIsRefusedInAnyForm()
{
    QFETCH(QVariant, role);
    TuloRoles roles;
    roles.__setHashAttribute(TuloRoles::Path(), role);

    const auto reply = sendRoles(*m_dispatcher, CMPath(volume), roles);

    QCOMPARE(errorText(reply),
             QStringLiteral("Refused: The role 'path' of '/settings/audio/volume' cannot be set"));
}

void tst_guard::nameAcceptedAndNotYetWrittenExists()
{
    const QString path = QStringLiteral("/settings/list/new");
    QCOMPARE(errorText(setData(path, TuloRoles::Value(), intValue(1))), QString());
    // Nobody could create it any more.
    QVERIFY(QFile::remove(m_tree->defaultPath() + QStringLiteral("/list/.meta")));

    const auto again = setData(path, TuloRoles::Value(), intValue(2));
    const auto below = setData(path + QStringLiteral("/a"), TuloRoles::Value(), intValue(1));

    QCOMPARE(errorText(again), QString());
    QCOMPARE(errorText(below),
             QStringLiteral("Refused: Path '/settings/list/new/a' is below a setting"));
    QVERIFY(m_tree->readWritten(QStringLiteral("/list/new")).isNull());
}

void tst_guard::nameAcceptedAndEvictedExists()
{
    const QString path = QStringLiteral("/settings/list/new");
    QCOMPARE(errorText(setData(path, TuloRoles::Value(), intValue(1))), QString());
    QVERIFY(QFile::remove(m_tree->defaultPath() + QStringLiteral("/list/.meta")));

    QCOMPARE(errorText(m_dispatcher->dropCache()), QString());
    const auto again = setData(path, TuloRoles::Value(), intValue(2));

    QCOMPARE(errorText(again), QString());
}

void tst_guard::settingOfTheWritableTreeAloneExists()
{
    const auto reply =
        setData(QStringLiteral("/settings/old/kept"), TuloRoles::Value(), intValue(2));

    QCOMPARE(errorText(reply), QString());
}

void tst_guard::changeInADirectoryOfTheWritableTreeAloneCreatesNothing()
{
    // A template counts in the default tree only.
    m_tree->writeWritten(QStringLiteral("/old/.meta"), "{}");

    const auto reply =
        setData(QStringLiteral("/settings/old/new"), TuloRoles::Value(), intValue(2));

    QCOMPARE(errorCode(reply.error()), ErrorCode::InvalidPath);
}

void tst_guard::linkInTheWritableTreeIsNotFollowedByAChange_data()
{
    QTest::addColumn<QString>("link");
    QTest::addColumn<QString>("target");
    QTest::newRow("directory") << QStringLiteral("/list") << QStringLiteral("/outside");
    QTest::newRow("file") << QStringLiteral("/list/new") << QStringLiteral("/outside/file");
    QTest::newRow("file that is not there")
        << QStringLiteral("/list/new") << QStringLiteral("/outside/none");
    QTest::newRow("temporary file")
        << QStringLiteral("/list/.new") << QStringLiteral("/outside/file");
}

void tst_guard::linkInTheWritableTreeIsNotFollowedByAChange()
{
    QFETCH(QString, link);
    QFETCH(QString, target);
    QVERIFY(QDir().mkpath(m_tree->path() + QStringLiteral("/outside")));
    QFile outside(m_tree->path() + QStringLiteral("/outside/file"));
    QVERIFY(outside.open(QIODevice::WriteOnly));
    QCOMPARE(outside.write("{}"), qint64(2));
    outside.close();
    if (link != QStringLiteral("/list"))
        m_tree->makeWriteDirectory(QStringLiteral("/list"));
    QVERIFY(QFile::link(m_tree->path() + target, m_tree->writePath() + link));

    const auto reply =
        setData(QStringLiteral("/settings/list/new"), TuloRoles::Value(), intValue(1));

    QCOMPARE(errorText(reply),
             QStringLiteral("Refused: A symbolic link in the writable tree is in the way of "
                            "'/settings/list/new'"));
}

void tst_guard::pipeInTheWritableTreeIsNotOpenedByAChange()
{
    m_tree->makeWriteDirectory(QStringLiteral("/list"));
    const QByteArray pipe = QFile::encodeName(m_tree->writePath()) + "/list/new";
    QCOMPARE(::mkfifo(pipe.constData(), 0600), 0);

    const auto reply =
        setData(QStringLiteral("/settings/list/new"), TuloRoles::Value(), intValue(1));

    QCOMPARE(errorText(reply),
             QStringLiteral("Refused: '/settings/list/new' is blocked by a special file in the "
                            "writable tree"));
}

void tst_guard::hardLinkAsTemporaryFileIsNotWritten()
{
    const QString precious = m_tree->path() + QStringLiteral("/precious");
    QFile file(precious);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("precious");
    file.close();
    m_tree->makeWriteDirectory(QStringLiteral("/list"));
    const QString temporary = m_tree->writePath() + QStringLiteral("/list/.new");
    QCOMPARE(
        ::link(QFile::encodeName(precious).constData(), QFile::encodeName(temporary).constData()),
        0);

    const auto reply =
        setData(QStringLiteral("/settings/list/new"), TuloRoles::Value(), intValue(1));

    QCOMPARE(errorText(reply),
             QStringLiteral("Refused: The temporary file of '/settings/list/new' is another file, "
                            "too: a hard link"));
}

void tst_guard::fileInPlaceOfADirectoryRefusesAChange()
{
    m_tree->writeWritten(QStringLiteral("/list"), "{}");

    const auto reply =
        setData(QStringLiteral("/settings/list/new"), TuloRoles::Value(), intValue(1));

    QCOMPARE(errorText(reply),
             QStringLiteral("Refused: Path '/settings/list/new' is below a setting"));
}

// ---------------------------------------------------------------------------------------------
// What a change may hold
// ---------------------------------------------------------------------------------------------

void tst_guard::badValueIsRefused_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("error");
    const auto row = [](const char* name, const QVariant& value, const char* error) {
        QTest::newRow(name) << value << QString::fromLatin1(error).arg(volume);
    };
    row("none", QVariant(), "Refused: A value for '%1' is not an object");
    row("bare number", 5, "Refused: A value for '%1' is not an object");
    row("list", QVariantList(), "Refused: A value for '%1' is not an object");
    row("unknown kind", valueOf(QStringLiteral("date"), 5),
        "Refused: A value for '%1' does not have one known kind");
    row("two kinds", QVariantHash { { TuloValue::Int(), 5 }, { TuloValue::Double(), 5.0 } },
        "Refused: A value for '%1' does not have one known kind");

    row("text as a number", valueOf(TuloValue::Int(), QStringLiteral("5")),
        "Refused: A value for '%1' is not of the kind it names");
    row("fraction as an integer", valueOf(TuloValue::Int(), 5.5),
        "Refused: A value for '%1' is not of the kind it names");
    row("number as a truth value", valueOf(TuloValue::Bool(), 1),
        "Refused: A value for '%1' is not of the kind it names");
    row("object as a list", listOf(QVariantHash()),
        "Refused: A value for '%1' is not of the kind it names");
    row("null as a text", valueOf(TuloValue::String(), QVariant()),
        "Refused: A value for '%1' is not of the kind it names");

    row("not a number", valueOf(TuloValue::Double(), std::nan("")),
        "Refused: A number for '%1' is not finite");
    row("infinity", valueOf(TuloValue::Double(), std::numeric_limits<double>::infinity()),
        "Refused: A number for '%1' is not finite");
    row("infinity in a list", listOf(QVariantList { -std::numeric_limits<double>::infinity() }),
        "Refused: A number for '%1' is not finite");
    row("bytes", valueOf(TuloValue::String(), QByteArray("x")),
        "Refused: A value for '%1' holds something that JSON cannot hold");
    row("bytes in a list", listOf(QVariantList { QByteArray("x") }),
        "Refused: A value for '%1' holds something that JSON cannot hold");
    row("lone surrogate", valueOf(TuloValue::String(), loneSurrogate),
        "Refused: A text for '%1' is not valid Unicode");
    row("lone surrogate in a key", listOf(QVariantList { QVariantHash { { loneSurrogate, 1 } } }),
        "Refused: A text for '%1' is not valid Unicode");
    row("lone surrogate in a map's key",
        listOf(QVariantList { QVariantMap { { loneSurrogate, 1 } } }),
        "Refused: A text for '%1' is not valid Unicode");
    row("9 lists", listOf(nestedLists(9)), "Limits: A value for '%1' nests more than 8 deep");
    row("8 objects in a list", listOf(QVariantList { nestedObjects(8) }),
        "Limits: A value for '%1' nests more than 8 deep");
    row("1000 lists", listOf(nestedLists(1000)), "Limits: A value for '%1' nests more than 8 deep");
}

void tst_guard::badValueIsRefused()
{
    QFETCH(QVariant, value);
    QFETCH(QString, error);
    m_log->setLevel(log4cplus::DEBUG_LOG_LEVEL);

    const auto reply = setData(volume, TuloRoles::Value(), value);

    QCOMPARE(errorText(reply), error);
    QVERIFY(m_log->take().isEmpty());
}

void tst_guard::goodValueIsAdmitted_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::newRow("none") << QVariant(QVariantHash());
    QTest::newRow("truth value") << valueOf(TuloValue::Bool(), false);
    QTest::newRow("integer") << valueOf(TuloValue::Int(), 5);
    QTest::newRow("largest integer") << valueOf(TuloValue::Int(), ULLONG_MAX);
    QTest::newRow("fraction") << valueOf(TuloValue::Double(), 0.5);
    QTest::newRow("integer as a fraction") << valueOf(TuloValue::Double(), 20);
    QTest::newRow("empty text") << valueOf(TuloValue::String(), QStringLiteral(""));
    QTest::newRow("text with a control character")
        << valueOf(TuloValue::String(), QStringLiteral("a\nb"));
    QTest::newRow("8 lists") << listOf(nestedLists(8));
    QTest::newRow("7 objects in a list") << listOf(QVariantList { nestedObjects(7) });
    QTest::newRow("string list") << listOf(QStringList(QStringLiteral("a")));
    QTest::newRow("null in a list") << listOf(QVariantList { QVariant() });
}

void tst_guard::goodValueIsAdmitted()
{
    QFETCH(QVariant, value);

    // A setting of any kind.
    m_tree->writeDefault(QStringLiteral("/audio/free"), "{\"title\":\"Free\"}");
    const CMSetDataRequest request(CMPath(QStringLiteral("/settings/audio/free")),
                                   TuloRoles::Value(), value, CMReply<QVariant>::create());
    CMError error;
    const CMRequest admitted = m_guard->admit(request, &error);

    QCOMPARE(error.message().toString(), QString());
    QCOMPARE(admitted.voidReply().data(), request.voidReply().data());
}

void tst_guard::badRolesAreRefused_data()
{
    QTest::addColumn<QVariant>("roles");
    QTest::addColumn<QString>("error");
    const auto row = [](const char* name, const QVariant& roles, const char* error) {
        QTest::newRow(name) << roles << QString::fromLatin1(error).arg(volume);
    };
    const QString id = TuloRoles::Id();
    row("no object", QVariantList(), "Refused: A change to '%1' is not an object");
    row("bad value", QVariantHash { { TuloRoles::Value(), 5 } },
        "Refused: A value for '%1' is not an object");
    row("bytes in another role", QVariantHash { { id, QByteArray("x") } },
        "Refused: A value for '%1' holds something that JSON cannot hold");
    row("infinity in another role",
        QVariantHash { { id, std::numeric_limits<double>::infinity() } },
        "Refused: A number for '%1' is not finite");
    row("lone surrogate in another role", QVariantHash { { id, loneSurrogate } },
        "Refused: A text for '%1' is not valid Unicode");
    row("lone surrogate as a role", QVariantHash { { loneSurrogate, 1 } },
        "Refused: A text for '%1' is not valid Unicode");
    row("9 objects in another role", QVariantHash { { id, nestedObjects(9) } },
        "Limits: A value for '%1' nests more than 8 deep");
}

void tst_guard::badRolesAreRefused()
{
    QFETCH(QVariant, roles);
    QFETCH(QString, error);

    QCOMPARE(errorText(setData(volume, TuloRoles::SetRoles(), roles)), error);
}

// In whatever order a hash has them in this process.
void tst_guard::firstBadKeyByNameIsTold()
{
    const QString notFinite =
        QStringLiteral("Refused: A number for '%1' is not finite").arg(volume);
    for (int i = 0; i < 20; ++i) {
        const QVariantHash bad { { QStringLiteral("a%1").arg(i),
                                   std::numeric_limits<double>::infinity() },
                                 { QStringLiteral("b%1").arg(i), loneSurrogate },
                                 { TuloRoles::Path(), volume } };

        QCOMPARE(errorText(setData(volume, TuloRoles::SetRoles(), bad)), notFinite);
        QCOMPARE(errorText(setData(volume, TuloRoles::SetRoles(),
                                   QVariantHash { { TuloRoles::Id(), bad } })),
                 notFinite);
    }
}

void tst_guard::badOperationIsRefused_data()
{
    QTest::addColumn<QVariant>("operation");
    QTest::addColumn<QString>("error");
    const auto row = [](const char* name, const QVariant& operation, const char* error) {
        QTest::newRow(name) << operation << QString::fromLatin1(error).arg(volume);
    };
    const QString op = QStringLiteral("op");
    row("no object", QStringLiteral("add"), "Refused: A change to '%1' is not an object");
    row("bytes as the verb", QVariantHash { { op, QByteArray("add") } },
        "Refused: A value for '%1' holds something that JSON cannot hold");
    row("bad operand",
        QVariantHash { { op, QStringLiteral("add") },
                       { TuloRoles::Value(), valueOf(TuloValue::Double(), std::nan("")) } },
        "Refused: A number for '%1' is not finite");
}

void tst_guard::badOperationIsRefused()
{
    QFETCH(QVariant, operation);
    QFETCH(QString, error);

    QCOMPARE(errorText(setData(volume, TuloRoles::ValueOperation(), operation)), error);
}

// ---------------------------------------------------------------------------------------------
// The rest
// ---------------------------------------------------------------------------------------------

// ---------------------------------------------------------------------------------------------
// Limits, adjustments, files.
// ---------------------------------------------------------------------------------------------

void tst_guard::valueThatGrowsIsLimited()
{
    m_tree->writeDefault(QStringLiteral("/audio/text"), R"({"value":{"string":""}})");
    m_tree->writeDefault(QStringLiteral("/audio/numbers"), R"({"value":{"list":[]}})");
    const CMPath textPath(QStringLiteral("/settings/audio/text"));
    const CMPath listPath(QStringLiteral("/settings/audio/numbers"));
    const TuloOperation longer(QStringLiteral("append"),
                               TuloValue::of(TuloValue::String(), ofLength(20000)));
    QVariantList numbers;
    for (int i = 0; i < 4000; ++i)
        numbers.append(1000 + i);
    const TuloOperation more(QStringLiteral("append"), TuloValue::of(TuloValue::List(), numbers));

    for (int i = 0; i < 2; ++i) {
        QCOMPARE(errorText(sendOperation(*m_dispatcher, textPath, longer)), QString());
        if (i == 0)
            QCOMPARE(errorText(sendOperation(*m_dispatcher, listPath, more)), QString());
    }

    QCOMPARE(errorText(sendOperation(*m_dispatcher, textPath, longer)),
             QStringLiteral("Limits: A value for '/settings/audio/text' takes more than 49152 "
                            "bytes"));
    QCOMPARE(errorText(sendOperation(*m_dispatcher, listPath, more)), QString());
    QCOMPARE(errorText(sendOperation(*m_dispatcher, listPath, more)),
             QStringLiteral("Limits: A value for '/settings/audio/numbers' takes more than 49152 "
                            "bytes"));
}

void tst_guard::adjustmentIsTold()
{
    m_tree->writeDefault(QStringLiteral("/audio/bass"), R"({"value":{"int":5},"edit":{"max":10}})");
    const CMPath bass(QStringLiteral("/settings/audio/bass"));

    const auto adjustmentOf = [&](int number) {
        Guard::Target target;
        Guard::Adjustment adjustment;
        CMError error = m_guard->checkTarget(bass, &target);
        const CMSetDataRequest request(bass, TuloRoles::Value(), intValue(number),
                                       CMSetDataRequest::Reply::create());
        m_guard->admitChange(target, request, &error, &adjustment);
        return adjustment;
    };

    const Guard::Adjustment adjustment = adjustmentOf(50);
    QVERIFY(adjustment.asked == TuloValue::of(TuloValue::Int(), 50));
    QVERIFY(adjustment.stored == TuloValue::of(TuloValue::Int(), 10));
    QCOMPARE(adjustment.reason, QStringLiteral("it is above 'max' (10)"));

    QCOMPARE(adjustmentOf(5).reason, QString());
}

void tst_guard::newSettingsAreLimited()
{
    for (int directories = 0; directories < 11; ++directories) {
        m_tree->writeDefault(QStringLiteral("/many%1/.meta").arg(directories),
                             R"({"value":{"int":1}})");
    }
    const auto create = [this](int directories, int number) {
        return errorText(
            setData(QStringLiteral("/settings/many%1/n%2").arg(directories).arg(number),
                    TuloRoles::Value(), intValue(1)));
    };
    for (int number = 0; number < Guard::maximumCreatedInDirectory; ++number)
        QCOMPARE(create(0, number), QString());

    QCOMPARE(create(0, Guard::maximumCreatedInDirectory),
             QStringLiteral("Limits: No setting '/settings/many0/n1000' can be created: its "
                            "directory has 1000 settings made at run time"));
    // Those that are there can be changed.
    QCOMPARE(create(0, 0), QString());
    // One is in the tree already.
    for (int number = 0; number < Guard::maximumCreated - Guard::maximumCreatedInDirectory - 1;
         ++number)
        QCOMPARE(create(1 + number / 1000, number % 1000), QString());
    QCOMPARE(create(10, 0),
             QStringLiteral("Limits: No setting '/settings/many10/n0' can be created: the tree has "
                            "10000 settings made at run time"));
}

void tst_guard::settingsFoundInTheTreeCount()
{
    for (int number = 0; number < Guard::maximumCreatedInDirectory; ++number)
        m_tree->writeWritten(QStringLiteral("/list/n%1").arg(number), R"({"value":{"int":1}})");

    const auto reply =
        setData(QStringLiteral("/settings/list/more"), TuloRoles::Value(), intValue(1));

    QCOMPARE(errorCode(reply.error()), ErrorCode::Limits);
}

void tst_guard::rejectedNewSettingsDoNotCount()
{
    for (int number = 0; number < Guard::maximumCreatedInDirectory; ++number) {
        const auto rejected = setData(QStringLiteral("/settings/list/n%1").arg(number),
                                      TuloRoles::Value(), QVariant(listOf(QVariantList())));
        QCOMPARE(errorCode(rejected.error()), ErrorCode::Rejected);
    }

    QCOMPARE(
        errorText(setData(QStringLiteral("/settings/list/one"), TuloRoles::Value(), intValue(1))),
        QString());
}

void tst_guard::unreadableFileIsUnavailable_data()
{
    QTest::addColumn<bool>("isWritten");
    QTest::newRow("default file") << false;
    QTest::newRow("written file") << true;
}

void tst_guard::unreadableFileIsUnavailable()
{
    QFETCH(bool, isWritten);
    const QString name =
        (isWritten ? m_tree->writePath() : m_tree->defaultPath()) + QStringLiteral("/audio/pipe");
    QVERIFY(QDir().mkpath(m_tree->writePath() + QStringLiteral("/audio")));
    const QByteArray target = QFile::encodeName(m_tree->path()) + "/pipe";
    QCOMPARE(::mkfifo(target.constData(), 0600), 0);
    QVERIFY(QFile::link(QFile::decodeName(target), name));
    const CMPath path(QStringLiteral("/settings/audio/pipe"));

    const QString error = QStringLiteral("Unavailable: '%1' is not a regular file").arg(name);
    QCOMPARE(errorText(m_dispatcher->getData(path, { TuloRoles::Value() })), error);
    if (!isWritten)
        QCOMPARE(errorText(sendValue(*m_dispatcher, path, TuloValue::of(TuloValue::Int(), 1))),
                 error);
    QCOMPARE(errorText(m_dispatcher->getData(CMPath(volume), { TuloRoles::Value() })), QString());
}

void tst_guard::rowsTellWhichOfThemCannotBeServed()
{
    m_tree->writeDefault(QStringLiteral("/audio/large"),
                         QByteArray(FileProbe::maximumFileBytes + 1, ' '));
    m_router->setRowCheck([this](const CMPath& path) { return m_guard->checkFiles(path); });
    // The worker's, with all rows and with the one.
    const QString record = QStringLiteral("Loaded path is invalid: /settings/audio/large");
    m_log->expect(log4cplus::ERROR_LOG_LEVEL, record);
    m_log->expect(log4cplus::ERROR_LOG_LEVEL, record);
    CMError error;

    const DirectoryRows rows =
        m_dispatcher->rows(CMPath(directory), 0, 9, { TuloRoles::Value() }, &error);

    QCOMPARE(error.message().toString(), QString());
    QCOMPARE(rows.count, 3);
    QCOMPARE(rows.rows.size(), 3);
    QCOMPARE(rows.rows.at(0).name, QStringLiteral("large"));
    QCOMPARE(
        rows.rows.at(0).error.message().toString(),
        QStringLiteral("'%1/audio/large' is larger than 1048576 bytes").arg(m_tree->defaultPath()));
    QCOMPARE(rows.rows.at(1).name, QStringLiteral("serial"));
    QVERIFY(rows.rows.at(1).error.isEmpty());
    QCOMPARE(rows.rows.at(2).values, QList<QVariant>({ intValue(5) }));
}

void tst_guard::readOnlyGuardRefusesChangesOnly()
{
    m_guard->setRefusal([] { return QStringLiteral("The tree is somebody else's"); });

    QCOMPARE(errorText(setData(volume, TuloRoles::Value(), intValue(1))),
             QStringLiteral("Unavailable: The tree is somebody else's"));
    QCOMPARE(errorText(setData(volume, TuloRoles::SetRoles(), QVariantHash())),
             QStringLiteral("Unavailable: The tree is somebody else's"));
    QCOMPARE(errorText(m_dispatcher->getData(CMPath(volume), {})), QString());
    QCOMPARE(errorText(m_dispatcher->getRows(CMPath(directory), 0, 1, {})), QString());
    QCOMPARE(errorText(m_dispatcher->dropCache()), QString());

    m_guard->setRefusal({});
    QCOMPARE(errorText(setData(volume, TuloRoles::Value(), intValue(1))), QString());
}

void tst_guard::listableNamesAreThoseOfListings_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("letters") << QStringLiteral("volume");
    QTest::newRow("capitals, digits, dash and underscore") << QStringLiteral("Eq-band_2");
    QTest::newRow("other letters") << QString::fromUtf8("L\xC3\xA4rm");
    QTest::newRow("dot") << QStringLiteral("a.json");
    QTest::newRow("tilde") << QStringLiteral("a~");
    QTest::newRow("blank") << QStringLiteral("a b");
    QTest::newRow("letter beyond 16 bits") << QString::fromUtf8("\xF0\x90\x90\x80");
    QTest::newRow("combining mark") << QString::fromUtf8("a\xCC\x88");
    QTest::newRow("dash") << QStringLiteral("-");
    QTest::newRow("backslash") << QStringLiteral("a\\b");
}

void tst_guard::listableNamesAreThoseOfListings()
{
    QFETCH(QString, name);
    m_tree->writeDefault(QStringLiteral("/names/") + name, "{}");

    const auto reply = m_dispatcher->getRows(CMPath(QStringLiteral("/settings/names")), 0, 9, {});

    QCOMPARE(errorText(reply), QString());
    QCOMPARE(isListable(name), reply.value().rowsCount() == 1);
}

QTEST_GUILESS_MAIN(tst_guard)
#include "tst_guard.moc"
