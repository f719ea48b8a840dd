#include "engine/localsettings.h"
#include "tests/settings/settingscontract.h"

#include "tests/support/childprocess.h"
#include "tests/support/logcapture.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <thread>

#include <malloc.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifdef TULO_ADDRESS_SANITIZER
#include <sanitizer/allocator_interface.h>
#endif

// In the place of the system's, which would wait for the disk: the error that it returns. Called on
// a thread beside the test's.
static std::atomic<int> syncError { 0 };

extern "C" int syncfs(int)
{
    errno = syncError;
    return syncError == 0 ? 0 : -1;
}

// Fails for a file of this name in a directory.
static const char* failingRemoval = nullptr;

extern "C" int unlinkat(int fd, const char* name, int flag)
{
    if (failingRemoval != nullptr && std::strcmp(name, failingRemoval) == 0) {
        errno = EIO;
        return -1;
    }
    return int(::syscall(SYS_unlinkat, fd, name, flag));
}

using namespace tulo;

namespace {

const QString volume = QStringLiteral("/settings/audio/volume");
const QStringList valueRole { QStringLiteral("value") };

} // namespace

/// The settings of this process: the contract, and what is their own.
class tst_LocalSettings : public SettingsContract
{
    Q_OBJECT

protected:
    std::unique_ptr<Settings> open(const TemporaryTree& tree) override
    {
        return openLocal(tree, EngineOptions::Access::Own);
    }
    void begin() override
    {
        syncError = 0;
        m_log = std::make_unique<LogCapture>();
    }
    void end() override
    {
        m_log->verifyNothingUnexpected();
        m_log.reset();
    }
    void expectRecord(const QString& message) override
    {
        const bool isError = message.startsWith(QLatin1String("Loaded path is invalid"))
            || message.startsWith(QLatin1String("Settings: Unable to parse"));
        m_log->expect(isError ? log4cplus::ERROR_LOG_LEVEL : log4cplus::WARN_LOG_LEVEL, message);
    }

private slots:
    void treeOfAnotherIsNotOpened();
    void readerTakesNoLockAndChangesNothing();
    void readerTellsWhoOwnsTheTree();
    void optionsOfTheEngineAreTold();

    void aChangeReadsItsSettingOnce_data();
    void aChangeReadsItsSettingOnce();
    void valuesReadBeforeCostTheWorkerNothing();
    void keptValueFollowsEachKindOfChange();
    void keptValueOfAnUnsavedSettingIsNotUsed();
    void requestFromAnotherThreadAborts();
    void timersHaveTheirTurnBetweenRequests();
    void eventsStayInOrderWhenAHandlerWaits();

    void resetIsRefusedWhileAChangeIsNotSaved();
    void resetSettingIsNotStoredAgain();
    void resetThatTheDiskRefusesChangesNothing();
    void resetThatTheDiskInterruptsIsFinishedLater();
    void resetTellsOfFilesThatCameUnseen();
    void resetsLeaveNoMemoryBehind();

    void stopWritesAndThenRefuses();
    void stopFailsWhatWaits();
    void stopAnswersFlushes();
    void requestDuringTheDestructionIsCancelled();
    void stopTellsWhatIsNotSaved();
    void unsavedChangesAreTold();
    void changeIsUnwrittenUntilTheFlush();

private:
    static EngineOptions optionsFor(const TemporaryTree& tree, EngineOptions::Access access)
    {
        EngineOptions options;
        options.pluginFile = QStringLiteral(TULO_PLUGIN_FILE);
        options.defaultPath = tree.defaultPath();
        options.writePath = tree.writePath();
        options.access = access;
        return options;
    }
    static std::unique_ptr<LocalSettings> openLocal(const TemporaryTree& tree,
                                                    EngineOptions::Access access)
    {
        EngineFailure failure;
        auto settings = LocalSettings::open(optionsFor(tree, access), &failure);
        if (!settings)
            qWarning("%s", qPrintable(failure.message));
        return settings;
    }
    LocalSettings& local() const { return static_cast<LocalSettings&>(settings()); }

    std::unique_ptr<LogCapture> m_log;
};

// ---------------------------------------------------------------------------------------------
// Opening.
// ---------------------------------------------------------------------------------------------

void tst_LocalSettings::treeOfAnotherIsNotOpened()
{
    EngineFailure failure;

    const auto second =
        LocalSettings::open(optionsFor(tree(), EngineOptions::Access::Own), &failure);

    QVERIFY(!second);
    QCOMPARE(failure.kind, EngineFailure::Kind::InUse);
    QCOMPARE(failure.holder, qint64(::getpid()));
}

void tst_LocalSettings::readerTakesNoLockAndChangesNothing()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/audio/volume"), R"({"value":{"int":35}})");
    const auto reader = openLocal(tree, EngineOptions::Access::Read);
    const QString error =
        QStringLiteral("The writable tree '%1' is open for reading only").arg(tree.writePath());

    const Reply<QVariantMap> read = reader->get(volume, valueRole);
    QVERIFY(read.wait());
    QCOMPARE(read.value().value(QStringLiteral("value")), QVariant(35LL));
    const Reply<Change> change = reader->set(volume, 40);
    QVERIFY(!change.wait());
    QCOMPARE(change.error(), Error({ ErrorCode::Unavailable, error, volume }));
    const Reply<QVector<Change>> many = reader->setMany({ { volume, 40 } });
    QVERIFY(!many.wait());
    QCOMPARE(many.error(), change.error());
    const Reply<int> flush = reader->flush();
    QVERIFY(flush.wait());
    QCOMPARE(flush.value(), 0);

    const Reply<Status> status = reader->status();
    QVERIFY(status.wait());
    QVERIFY(!status.value().isWritable);
    QVERIFY(!reader->otherOwner());
    QCOMPARE(tree.writtenEntries(), QStringList());
}

void tst_LocalSettings::readerTellsWhoOwnsTheTree()
{
    const auto reader = openLocal(tree(), EngineOptions::Access::Read);

    QCOMPARE(reader->otherOwner(), std::optional<qint64>(::getpid()));
    const Reply<Change> change = reader->set(volume, 40);
    QVERIFY(!change.wait());
    QCOMPARE(change.error().message,
             QStringLiteral("The writable tree '%1' is in use by process %2")
                 .arg(tree().writePath(), QString::number(::getpid())));
}

void tst_LocalSettings::optionsOfTheEngineAreTold()
{
    const TemporaryTree tree;
    EngineOptions options = optionsFor(tree, EngineOptions::Access::Own);
    options.productPostfix = QStringLiteral("sport");
    EngineFailure failure;
    const auto settings = LocalSettings::open(options, &failure);
    QVERIFY(settings);

    QCOMPARE(settings->state(), Settings::State::Ready);
    QCOMPARE(settings->defaultPath(), tree.defaultPath());
    QCOMPARE(settings->writePath(), tree.writePath());
    QCOMPARE(settings->catalogueCount(), 0);
    const Reply<Status> status = settings->status();
    QVERIFY(status.wait());
    QCOMPARE(status.value().product, QStringLiteral("sport"));
    QCOMPARE(status.value().processId, qint64(::getpid()));
}

// ---------------------------------------------------------------------------------------------
// What the worker is asked, and when.
// ---------------------------------------------------------------------------------------------

void tst_LocalSettings::aChangeReadsItsSettingOnce_data()
{
    QTest::addColumn<int>("way");
    QTest::newRow("set") << 0;
    QTest::newRow("setRoles") << 1;
    QTest::newRow("apply") << 2;
    QTest::newRow("setMany") << 3;
    QTest::newRow("trial") << 4;
}

void tst_LocalSettings::aChangeReadsItsSettingOnce()
{
    QFETCH(const int, way);
    ChangeOptions options;
    options.ifValue = 35;
    options.ifTimestamp = 0;
    m_log->setLevel(log4cplus::TRACE_LOG_LEVEL);

    if (way == 0)
        QVERIFY(settings().set(volume, 40, options).wait());
    else if (way == 1)
        QVERIFY(settings().setRoles(volume, { { QStringLiteral("value"), 40 } }, options).wait());
    else if (way == 2)
        QVERIFY(settings().apply(volume, QStringLiteral("add"), 5, options).wait());
    else if (way == 3)
        QVERIFY(settings().setMany({ { volume, 40 } }).wait());
    options.isDryRun = true;
    if (way == 4)
        QVERIFY(settings().set(volume, 40, options).wait());

    QCOMPARE(m_log->messages(log4cplus::TRACE_LOG_LEVEL)
                 .filter(QStringLiteral("CMSettingsWorker::getDataRequest"))
                 .size(),
             1);
    m_log->take();
    m_log->setLevel(log4cplus::INFO_LOG_LEVEL);
}

// More settings than the worker keeps loaded.
void tst_LocalSettings::valuesReadBeforeCostTheWorkerNothing()
{
    QStringList paths;
    for (int i = 0; i < 400; ++i) {
        const QString name = QStringLiteral("/many/setting%1").arg(i);
        tree().writeDefault(name, R"({"value":{"int":)" + QByteArray::number(i) + "}}");
        paths.append(QStringLiteral("/settings") + name);
    }
    const Reply<QVector<Node>> first = settings().getMany(paths, valueRole);
    QVERIFY(first.wait());
    m_log->setLevel(log4cplus::TRACE_LOG_LEVEL);

    const Reply<QVector<Node>> second = settings().getMany(paths, valueRole);

    QVERIFY(second.wait());
    for (int i = 0; i < paths.size(); ++i) {
        QCOMPARE(second.value().at(i).roles, (QVariantMap { { QStringLiteral("value"), i } }));
        QVERIFY(!second.value().at(i).error);
    }
    QCOMPARE(m_log->messages(log4cplus::TRACE_LOG_LEVEL), QStringList());
    m_log->setLevel(log4cplus::INFO_LOG_LEVEL);
}

void tst_LocalSettings::keptValueFollowsEachKindOfChange()
{
    const auto value = [this] {
        const Reply<QVariantMap> reply = settings().get(volume, valueRole);
        return reply.wait() ? reply.value().value(QStringLiteral("value")) : QVariant();
    };
    QCOMPARE(value(), QVariant(35));

    QVERIFY(settings().set(volume, 40).wait());
    QCOMPARE(value(), QVariant(40));
    QVERIFY(settings().apply(volume, QStringLiteral("add"), 5).wait());
    QCOMPARE(value(), QVariant(45));
    QVERIFY(settings().setRoles(volume, { { QStringLiteral("value"), 50 } }).wait());
    QCOMPARE(value(), QVariant(50));
    QVERIFY(settings().setMany({ { volume, 55 } }).wait());
    QCOMPARE(value(), QVariant(55));
}

void tst_LocalSettings::keptValueOfAnUnsavedSettingIsNotUsed()
{
    QVERIFY(settings().set(volume, 40).wait());
    QVERIFY(settings().get(volume, valueRole).wait());
    syncError = EIO;
    QVERIFY(!settings().flush().wait());
    m_log->setLevel(log4cplus::TRACE_LOG_LEVEL);

    QVERIFY(settings().get(volume, valueRole).wait());

    QCOMPARE(m_log->messages(log4cplus::TRACE_LOG_LEVEL)
                 .filter(QStringLiteral("CMSettingsWorker::getDataRequest"))
                 .size(),
             1);
    m_log->take();
    m_log->setLevel(log4cplus::INFO_LOG_LEVEL);
    syncError = 0;
}

void tst_LocalSettings::requestFromAnotherThreadAborts()
{
    const ChildResult child = ChildProcess::runInChild(
        [this] { std::thread([this] { (void)settings().get(volume, valueRole); }).join(); });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("ASSERT: \"QThread::currentThread() == thread()\""),
             child.standardError);
}

void tst_LocalSettings::timersHaveTheirTurnBetweenRequests()
{
    QObject context;
    int answers = 0;
    QVector<Reply<QVariantMap>> replies;
    for (int i = 0; i < 1000; ++i) {
        replies.append(settings().get(volume, valueRole));
        replies.last().then(&context, [&answers](const Reply<QVariantMap>&) { ++answers; });
    }
    int answersAtTimer = -1;
    QTimer::singleShot(0, &context, [&] { answersAtTimer = answers; });

    QVERIFY(replies.last().wait());

    QCOMPARE(answers, 1000);
    QVERIFY2(answersAtTimer >= 0 && answersAtTimer < 10,
             qPrintable(QString::number(answersAtTimer)));
}

void tst_LocalSettings::eventsStayInOrderWhenAHandlerWaits()
{
    const QString gain = QStringLiteral("/settings/audio/gain");
    QStringList log;
    const auto watch = settings().watchTree(QStringLiteral("/settings"));
    connect(watch.get(), &Watch::changed, this, [&](const Event& event) {
        if (event.kind != Event::Kind::Value)
            return;
        log.append(event.path);
        if (event.path == volume)
            QVERIFY(settings().set(gain, 1).wait());
        log.append(QLatin1Char('/') + event.path);
    });
    const auto rest = settings().watchTree(QStringLiteral("/settings"));
    connect(rest.get(), &Watch::changed, this, [&](const Event& event) {
        if (event.kind == Event::Kind::Rows)
            log.append(QString::number(event.version));
    });

    QVERIFY(settings().set(volume, 40).wait());

    QCOMPARE(log,
             QStringList({ volume, QStringLiteral("1"), gain, QLatin1Char('/') + gain,
                           QStringLiteral("2"), QLatin1Char('/') + volume }));
}

// ---------------------------------------------------------------------------------------------
// Reset.
// ---------------------------------------------------------------------------------------------

void tst_LocalSettings::resetIsRefusedWhileAChangeIsNotSaved()
{
    const QString gain = QStringLiteral("/settings/audio/gain");
    tree().writeWritten(QStringLiteral("/audio/gain"), R"({"value":{"double":0.25}})");
    // In the way of the write.
    tree().makeWriteDirectory(QStringLiteral("/audio/.volume"));
    const QString failure = QStringLiteral("Settings: path '%1/audio/.volume' open file failed")
                                .arg(tree().writePath());
    m_log->expect(log4cplus::ERROR_LOG_LEVEL, failure);
    m_log->expect(log4cplus::ERROR_LOG_LEVEL, failure);
    QVERIFY(settings().set(volume, 40).wait());

    for (const QString& path : { gain, volume }) {
        const Reply<QStringList> reset = settings().reset({ path });
        QVERIFY(!reset.wait());
        QCOMPARE(reset.error(),
                 Error({ ErrorCode::NotSaved, QStringLiteral("Nothing was reset: ") + failure,
                         QString() }));
    }
    QVERIFY(!tree().readWritten(QStringLiteral("/audio/gain")).isNull());
    const Reply<QVariantMap> value = settings().get(volume, valueRole);
    QVERIFY(value.wait());
    QCOMPARE(value.value().value(QStringLiteral("value")), QVariant(40LL));

    QVERIFY(QDir(tree().writePath()).rmdir(QStringLiteral("audio/.volume")));
    const Reply<QStringList> both = settings().reset({ gain, volume });
    QVERIFY(both.wait());
    QCOMPARE(both.value(), QStringList({ gain, volume }));
    QCOMPARE(tree().writtenEntries().filter(QStringLiteral("/audio/")),
             QStringList(QStringLiteral("/audio/")));
}

// Were it known as written and not yet confirmed, a sync that fails would have it written again.
void tst_LocalSettings::resetSettingIsNotStoredAgain()
{
    QVERIFY(settings().set(volume, 40).wait());
    QVERIFY(settings().reset({ volume }).wait());
    syncError = EIO;
    QVERIFY(!settings().flush().wait());
    syncError = 0;

    QVERIFY(settings().flush().wait());

    QVERIFY(tree().readWritten(QStringLiteral("/audio/volume")).isNull());
    QVERIFY(local().notSavedPaths().isEmpty());
    QVERIFY(!local().hasUnwrittenChanges());
}

void tst_LocalSettings::resetThatTheDiskRefusesChangesNothing()
{
    const QString preset = QStringLiteral("/settings/presets/two");
    QVERIFY(settings().set(volume, 40).wait());
    QVERIFY(settings().set(preset, QStringLiteral("fm:99")).wait());
    QVERIFY(settings().flush().wait());
    tree().writeWritten(QStringLiteral("/old/one"), R"({"value":{"int":1}})");
    // The place of the journal is taken.
    tree().makeWriteDirectory(QStringLiteral("/.tulo-cm.journal"));
    const QStringList written = tree().writtenEntries();
    QStringList events;
    const auto watch = settings().watchTree(QStringLiteral("/settings"));
    connect(watch.get(), &Watch::changed, this,
            [&events](const Event& event) { events.append(event.path); });

    const Reply<QStringList> reset =
        settings().reset({ volume, preset, QStringLiteral("/settings/old/one") });

    QVERIFY(!reset.wait());
    QCOMPARE(reset.error().code, ErrorCode::NotSaved);
    QVERIFY2(reset.error().message.startsWith(QLatin1String("Nothing was reset: ")),
             qPrintable(reset.error().message));
    QCOMPARE(tree().writtenEntries(), written);
    QCOMPARE(events, QStringList());
    QVERIFY(settings().set(preset, QStringLiteral("fm:100")).wait());
}

void tst_LocalSettings::resetThatTheDiskInterruptsIsFinishedLater()
{
    const QString gain = QStringLiteral("/settings/audio/gain");
    const QString mode = QStringLiteral("/settings/audio/mode");
    QVERIFY(settings().set(gain, 0.25).wait());
    QVERIFY(settings().set(mode, QStringLiteral("low")).wait());
    QVERIFY(settings().set(volume, 40).wait());
    QStringList values;
    const auto watch = settings().watchTree(QStringLiteral("/settings"));
    connect(watch.get(), &Watch::changed, this, [&values](const Event& event) {
        if (event.kind == Event::Kind::Value)
            values.append(event.path);
    });
    failingRemoval = "mode";

    const Reply<QStringList> reset = settings().reset({ gain, mode, volume });
    QVERIFY(!reset.wait());
    failingRemoval = nullptr;

    QCOMPARE(reset.error().code, ErrorCode::NotSaved);
    QVERIFY2(reset.error().message.contains(QLatin1String("admits no change")),
             qPrintable(reset.error().message));
    // What has been removed is announced; nothing is written that the end could undo.
    QStringList gone;
    for (const QString& path : { gain, mode, volume }) {
        if (tree().readWritten(path.mid(int(std::strlen("/settings")))).isNull())
            gone.append(path);
    }
    QVERIFY(!gone.contains(mode));
    QVERIFY(!gone.isEmpty());
    QCOMPARE(values, gone);
    const Reply<Change> change = settings().set(volume, 45);
    QVERIFY(!change.wait());
    QCOMPARE(change.error(), Error({ ErrorCode::Unavailable, reset.error().message, volume }));
    const Reply<Status> status = settings().status();
    QVERIFY(status.wait());
    QVERIFY(!status.value().isWritable);

    QVERIFY(local().stop());
    const auto next = openLocal(tree(), EngineOptions::Access::Own);
    QVERIFY(next);
    QCOMPARE(tree().writtenEntries(),
             QStringList({ QStringLiteral("/.tulo-cm.lock"), QStringLiteral("/audio/") }));
    QVERIFY(next->set(volume, 45).wait());
}

// The worker's listing is older, so that the index of a row could be another one. A version that
// is left out has clients list the directory again.
void tst_LocalSettings::resetTellsOfFilesThatCameUnseen()
{
    const QString presets = QStringLiteral("/settings/presets");
    const QString third = QStringLiteral("/settings/presets/three");
    QVERIFY(settings().set(third, QStringLiteral("fm:99")).wait());
    tree().writeWritten(QStringLiteral("/presets/alpha"), R"({"value":{"string":"fm:1"}})");
    QVector<int> versions;
    const auto watch = settings().watch(presets);
    connect(watch.get(), &Watch::changed, this,
            [&versions](const Event& event) { versions.append(event.version); });

    QVERIFY(settings().reset({ third }).wait());

    QCOMPARE(versions, QVector<int>({ 3 }));
    const Reply<Rows> rows = settings().rows(presets, 0, 9, {});
    QVERIFY(rows.wait());
    QCOMPARE(rows.value().version, 3);
    QCOMPARE(rows.value().rows.first().name, QStringLiteral("alpha"));
    QCOMPARE(rows.value().count, 2);
}

namespace {

qint64 allocatedBytes()
{
#ifdef TULO_ADDRESS_SANITIZER
    return qint64(__sanitizer_get_current_allocated_bytes());
#else
    const struct mallinfo2 info = ::mallinfo2();
    return qint64(info.uordblks + info.hblkhd);
#endif
}

} // namespace

void tst_LocalSettings::resetsLeaveNoMemoryBehind()
{
    constexpr int resets = 1000;
    constexpr qint64 allowedBytes = qint64(200) * 1024;
    const QString preset = QStringLiteral("/settings/presets/two");
    // In memory: each waits for the disk.
    const QByteArray place = qgetenv("TMPDIR");
    if (QFileInfo(QStringLiteral("/dev/shm")).isWritable())
        qputenv("TMPDIR", "/dev/shm");
    const TemporaryTree tree;
    if (place.isNull())
        qunsetenv("TMPDIR");
    else
        qputenv("TMPDIR", place);
    tree.writeDefault(QStringLiteral("/audio/volume"), R"({"value":{"int":35}})");
    tree.writeDefault(QStringLiteral("/presets/.meta"), R"({"defaultValue":{"string":"fm:87.5"}})");
    const auto opened = openLocal(tree, EngineOptions::Access::Own);
    QVERIFY(opened);
    const auto resetOnce = [&] {
        const Reply<Change> change = opened->set(preset, QStringLiteral("fm:99"));
        const Reply<Change> other = opened->set(volume, 40);
        const Reply<QStringList> reset = opened->reset({ preset, volume });
        m_log->take();
        return reset.wait() && reset.value().size() == 2;
    };
    // What grows once.
    for (int i = 0; i < 50; ++i)
        QVERIFY(resetOnce());
    m_log->take();
    const qint64 before = allocatedBytes();

    for (int i = 0; i < resets; ++i)
        QVERIFY(resetOnce());

    m_log->take();
    const qint64 grown = allocatedBytes() - before;
    qInfo("%d resets: %lld bytes", resets, grown);
    QVERIFY2(grown < allowedBytes, qPrintable(QString::number(grown)));
}

// ---------------------------------------------------------------------------------------------
// The end.
// ---------------------------------------------------------------------------------------------

void tst_LocalSettings::stopWritesAndThenRefuses()
{
    QVERIFY(settings().set(volume, 40).wait());
    QSignalSpy states(&settings(), &Settings::stateChanged);

    QVERIFY(local().stop());
    QVERIFY(local().stop());

    QCOMPARE(tree()
                 .readWrittenRoles(QStringLiteral("/audio/volume"))
                 .value(QStringLiteral("value"))
                 .toHash(),
             QVariantHash({ { QStringLiteral("int"), 40 } }));
    QCOMPARE(states.size(), 1);
    QCOMPARE(settings().state(), Settings::State::Away);
    const Error closed { ErrorCode::Unavailable, QStringLiteral("The settings are closed"),
                         QString() };
    const Reply<QVariantMap> read = settings().get(volume, valueRole);
    const Reply<int> flush = settings().flush();
    QVERIFY(!read.isFinished());
    QVERIFY(!read.wait());
    QCOMPARE(read.error(), closed);
    QVERIFY(!flush.wait());
    QCOMPARE(flush.error(), closed);
    QCOMPARE(local().writePath(), tree().writePath());
    // The tree has been given back.
    QVERIFY(openLocal(tree(), EngineOptions::Access::Own));
}

void tst_LocalSettings::stopFailsWhatWaits()
{
    const Reply<Change> change = settings().set(volume, 40);

    QVERIFY(local().stop());

    QVERIFY(!change.isFinished());
    QVERIFY(!change.wait());
    QCOMPARE(change.error().code, ErrorCode::Unavailable);
    QVERIFY(tree().readWritten(QStringLiteral("/audio/volume")).isNull());
}

void tst_LocalSettings::stopAnswersFlushes()
{
    QVERIFY(settings().set(volume, 40).wait());
    const Reply<int> flush = settings().flush();
    // Its turn: it now waits for the disk.
    QCoreApplication::sendPostedEvents();
    QVERIFY(!flush.isFinished());

    QVERIFY(local().stop());

    QVERIFY(!flush.isFinished());
    QVERIFY(flush.wait());
    QCOMPARE(flush.value(), 0);
}

void tst_LocalSettings::requestDuringTheDestructionIsCancelled()
{
    const TemporaryTree tree;
    auto reader = openLocal(tree, EngineOptions::Access::Read);
    LocalSettings* const settings = reader.get();
    QVector<Reply<QVariantMap>> replies { settings->get(volume, valueRole) };
    replies.first().then(
        this, [&](const Reply<QVariantMap>&) { replies.append(settings->get(volume, valueRole)); });

    reader.reset();

    QCOMPARE(replies.size(), 2);
    QCOMPARE(replies.at(0).error().code, ErrorCode::Cancelled);
    QCOMPARE(replies.at(1).error().code, ErrorCode::Cancelled);
}

void tst_LocalSettings::stopTellsWhatIsNotSaved()
{
    QVERIFY(settings().set(volume, 40).wait());
    syncError = EIO;

    QVERIFY(!local().stop());

    QVERIFY(local().hasUnwrittenChanges());
}

void tst_LocalSettings::unsavedChangesAreTold()
{
    QSignalSpy told(&local(), &LocalSettings::unsavedChanged);
    QVERIFY(settings().set(volume, 40).wait());
    QVERIFY(settings().flush().wait());
    QVERIFY(settings().get(volume, valueRole).wait());
    QCOMPARE(told.size(), 0);
    QVERIFY(settings().set(volume, 45).wait());
    syncError = EIO;

    const Reply<int> flush = settings().flush();
    QVERIFY(!flush.wait());

    QCOMPARE(flush.error().code, ErrorCode::NotSaved);
    const Reply<Status> status = settings().status();
    QVERIFY(status.wait());
    QCOMPARE(status.value().unsavedCount, 1);
    QCOMPARE(status.value().lastWriteError, flush.error().message);
    const Reply<QStringList> paths = settings().unsavedPaths(10);
    QVERIFY(paths.wait());
    QCOMPARE(paths.value(), QStringList(volume));
    const Reply<QStringList> none = settings().unsavedPaths(0);
    QVERIFY(none.wait());
    QCOMPARE(none.value(), QStringList());
    QVERIFY(told.size() > 0);

    syncError = 0;
    QVERIFY(settings().flush().wait());
    QVERIFY(!local().hasUnwrittenChanges());
}

void tst_LocalSettings::changeIsUnwrittenUntilTheFlush()
{
    QVERIFY(!local().hasUnwrittenChanges());
    QVERIFY(settings().set(volume, 40).wait());
    QVERIFY(local().hasUnwrittenChanges());

    QVERIFY(settings().flush().wait());

    QVERIFY(!local().hasUnwrittenChanges());
}

QTEST_GUILESS_MAIN(tst_LocalSettings)
#include "tst_local_settings.moc"
