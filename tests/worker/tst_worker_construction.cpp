// What a new worker is made of, and what is left when it is destroyed.

#include "tests/support/replywaiter.h"
#include "workerfixture.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QPointer>
#include <QSharedPointer>

#include <cstdlib>
#include <new>

extern "C" CMWorker* worker_create(void*, const QVariantHash& config);

namespace {

// The block that was allocated for a worker, and whether it was given back.
std::size_t watchedSize = 0;
void* watchedBlock = nullptr;
bool watchedBlockWasFreed = false;

const QString defaultKey = QStringLiteral("default_path");
const QString writeKey = QStringLiteral("write_path");
const QString postfixKey = QStringLiteral("product_postfix");
const QString builtInDefaultPath = QStringLiteral("/etc/tulo/settings-default");
const QString builtInWritePath = QStringLiteral("/settings/");

} // namespace

void* operator new(std::size_t size)
{
    void* block = std::malloc(size);
    if (block == nullptr)
        throw std::bad_alloc();
    if (size == watchedSize)
        watchedBlock = block;
    return block;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return std::malloc(size);
}

void operator delete(void* block) noexcept
{
    if (block != nullptr && block == watchedBlock)
        watchedBlockWasFreed = true;
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept
{
    operator delete(block);
}

class tst_worker_construction : public QObject
{
    Q_OBJECT

private slots:
    void init() { m = std::make_unique<WorkerFixture>(); }
    void cleanup()
    {
        m->log.verifyNothingUnexpected();
        m.reset();
    }

    void withoutKeysBuiltInDirectoriesStay();
    void defaultPathThroughLinkIsResolvedAndLogged();
    void writePathThroughLinkIsResolvedAndLogged();
    void defaultPathIsLoggedBeforeWritePath();
    void pathOutsideAsciiIsLoggedInUtf8();
    void pathThatDoesNotResolveIsIgnoredSilently_data();
    void pathThatDoesNotResolveIsIgnoredSilently();
    void pathIsCanonicalised_data();
    void pathIsCanonicalised();
    void fileIsAcceptedAsDirectory();
    void emptyProductPostfixIsStored();
    void productPostfixIsStoredAsItIs_data();
    void productPostfixIsStoredAsItIs();
    void wholeConfigurationReachesBase();
    void containersAreEmpty();
    void writeTimerIsStoppedSingleShotOfOneSecond();
    void mutexIsRecursiveAndUnlocked();
    void encryptionHandlerIsItsOwnNoOp();
    void workerBelongsToCreatingThreadWithoutParent();
    void createFunctionIgnoresFirstArgument();
    void exceptionInConstructorPropagatesAndFreesMemory();
    void destructorLeavesPendingWriteUnwritten();
    void destructorDeletesTimer();
    void destructorDeletesCachedRecords();
    void destructorKeepsEncryptionHandler();

private:
    // A worker whose handler goes with it.
    struct Deleter
    {
        void operator()(CMSettingsWorker* worker) const
        {
            const EncryptionHandler* handler = worker->m_encryptionHandler;
            delete worker;
            delete handler;
        }
    };
    using Worker = std::unique_ptr<CMSettingsWorker, Deleter>;
    static Worker make(const QVariantHash& config) { return Worker(new CMSettingsWorker(config)); }

    std::unique_ptr<WorkerFixture> m;
};

void tst_worker_construction::withoutKeysBuiltInDirectoriesStay()
{
    const Worker worker = make({ { QStringLiteral("other"), 1 } });

    QCOMPARE(worker->m_defaultPath, builtInDefaultPath);
    QCOMPARE(worker->m_writePath, builtInWritePath);
    QVERIFY(worker->m_productPostfix.isNull());
    QVERIFY(m->log.records().isEmpty());
}

void tst_worker_construction::defaultPathThroughLinkIsResolvedAndLogged()
{
    const QString link = m->tree.path() + QLatin1String("/link");
    QVERIFY(QFile::link(m->tree.defaultPath(), link));

    const Worker worker = make({ { defaultKey, link } });

    QCOMPARE(worker->m_defaultPath, m->tree.defaultPath());
    QCOMPARE(worker->m_writePath, builtInWritePath);
    QCOMPARE(m->log.records().size(), 1);
    QCOMPARE(m->log.messages(log4cplus::INFO_LOG_LEVEL),
             QStringList {
                 QStringLiteral("Using path %1 for default settings").arg(m->tree.defaultPath()) });
}

void tst_worker_construction::writePathThroughLinkIsResolvedAndLogged()
{
    const QString link = m->tree.path() + QLatin1String("/link");
    QVERIFY(QFile::link(m->tree.writePath(), link));

    const Worker worker = make({ { writeKey, link } });

    QCOMPARE(worker->m_defaultPath, builtInDefaultPath);
    QCOMPARE(worker->m_writePath, m->tree.writePath());
    QCOMPARE(m->log.records().size(), 1);
    QCOMPARE(m->log.messages(log4cplus::INFO_LOG_LEVEL),
             QStringList {
                 QStringLiteral("Using path %1 for writable settings").arg(m->tree.writePath()) });
}

void tst_worker_construction::defaultPathIsLoggedBeforeWritePath()
{
    const Worker worker = make(m->tree.config());

    const QStringList expected {
        QStringLiteral("Using path %1 for default settings").arg(m->tree.defaultPath()),
        QStringLiteral("Using path %1 for writable settings").arg(m->tree.writePath())
    };
    QCOMPARE(m->log.messages(log4cplus::INFO_LOG_LEVEL), expected);
}

void tst_worker_construction::pathOutsideAsciiIsLoggedInUtf8()
{
    const QString directory = m->tree.path() + QStringLiteral("/Lautst\u00e4rke \u97f3");
    QVERIFY(QDir().mkpath(directory));

    const Worker worker = make({ { defaultKey, directory } });

    QCOMPARE(worker->m_defaultPath, directory);
    QCOMPARE(m->log.messages(log4cplus::INFO_LOG_LEVEL),
             QStringList { QStringLiteral("Using path %1 for default settings").arg(directory) });
}

void tst_worker_construction::pathThatDoesNotResolveIsIgnoredSilently_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QVariant>("value");

    for (const QString& key : { defaultKey, writeKey }) {
        const auto row = [&key](const char* name, const QVariant& value) {
            QTest::addRow("%s %s", qPrintable(key), name) << key << value;
        };
        row("missing", QStringLiteral("missing"));
        row("below a file", QStringLiteral("file/below"));
        row("dangling link", QStringLiteral("dangling"));
        row("empty", QString());
        row("invalid", QVariant());
        row("not a text", QVariantList { 1 });
    }
}

void tst_worker_construction::pathThatDoesNotResolveIsIgnoredSilently()
{
    QFETCH(QString, key);
    QFETCH(QVariant, value);
    const QString folder = m->tree.path() + QLatin1Char('/');
    QFile file(folder + QLatin1String("file"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QVERIFY(QFile::link(folder + QLatin1String("nowhere"), folder + QLatin1String("dangling")));
    if (!value.toString().isEmpty())
        value = QString(folder + value.toString());

    const Worker worker = make({ { key, value } });

    QCOMPARE(worker->m_defaultPath, builtInDefaultPath);
    QCOMPARE(worker->m_writePath, builtInWritePath);
    QVERIFY(m->log.records().isEmpty());
}

void tst_worker_construction::pathIsCanonicalised_data()
{
    QTest::addColumn<QString>("before");
    QTest::addColumn<QString>("after");
    QTest::addColumn<bool>("relative");

    QTest::newRow("trailing slash") << QString() << QStringLiteral("/") << false;
    QTest::newRow("doubled slash") << QStringLiteral("/") << QString() << false;
    QTest::newRow("dots") << QString() << QStringLiteral("/../default/.") << false;
    QTest::newRow("relative") << QString() << QString() << true;
}

void tst_worker_construction::pathIsCanonicalised()
{
    QFETCH(QString, before);
    QFETCH(QString, after);
    QFETCH(bool, relative);
    const QString path = m->tree.defaultPath();

    const Worker worker = make(
        { { defaultKey,
            relative ? QDir::current().relativeFilePath(path) : QString(before + path + after) } });

    QCOMPARE(worker->m_defaultPath, path);
}

void tst_worker_construction::fileIsAcceptedAsDirectory()
{
    m->tree.writeDefault(QStringLiteral("/file"), QByteArray("{}"));
    const QString file = m->tree.defaultPath() + QLatin1String("/file");

    const Worker worker = make({ { writeKey, file } });

    QCOMPARE(worker->m_writePath, file);
    QCOMPARE(m->log.records().size(), 1);
}

void tst_worker_construction::emptyProductPostfixIsStored()
{
    const Worker worker = make({ { postfixKey, QStringLiteral("") } });

    QVERIFY(worker->m_productPostfix.isEmpty());
    QVERIFY(!worker->m_productPostfix.isNull());
    QVERIFY(m->log.records().isEmpty());
}

void tst_worker_construction::productPostfixIsStoredAsItIs_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("postfix");

    QTest::newRow("text") << QVariant(QStringLiteral("car")) << QStringLiteral("car");
    QTest::newRow("looks like a path")
        << QVariant(QStringLiteral("/tmp/../x/")) << QStringLiteral("/tmp/../x/");
    QTest::newRow("existing folder")
        << QVariant(QStringLiteral("/tmp/.")) << QStringLiteral("/tmp/.");
    QTest::newRow("blanks") << QVariant(QStringLiteral(" a ")) << QStringLiteral(" a ");
    QTest::newRow("number") << QVariant(7) << QStringLiteral("7");
}

void tst_worker_construction::productPostfixIsStoredAsItIs()
{
    QFETCH(QVariant, value);
    QFETCH(QString, postfix);

    const Worker worker = make({ { postfixKey, value } });

    QCOMPARE(worker->m_productPostfix, postfix);
    QVERIFY(m->log.records().isEmpty());
}

void tst_worker_construction::wholeConfigurationReachesBase()
{
    const Worker worker = make({ { QStringLiteral("prefix"), QStringLiteral("/device") } });

    QCOMPARE(worker->prefixPath().text(), QStringLiteral("/device"));
    QCOMPARE(worker->workerName(), QStringLiteral("CMSettingsWorker"));
}

void tst_worker_construction::containersAreEmpty()
{
    const Worker worker = make(m->tree.config());

    QCOMPARE(worker->m_valueCache.maxCost(), 300);
    QCOMPARE(worker->m_valueCache.totalCost(), 0);
    QVERIFY(worker->m_valueCache.isEmpty());
    QVERIFY(worker->m_pendingWrites.isEmpty());
    QVERIFY(worker->m_dirCache.isEmpty());
    QVERIFY(worker->m_valuePathMap.isEmpty());
    QVERIFY(worker->m_dataPathMap.isEmpty());
    QVERIFY(worker->m_rowsPathMap.isEmpty());
}

void tst_worker_construction::writeTimerIsStoppedSingleShotOfOneSecond()
{
    const Worker worker = make(m->tree.config());

    const QTimer* timer = worker->m_writeTimer;
    QCOMPARE(timer->interval(), 1000);
    QVERIFY(timer->isSingleShot());
    QVERIFY(!timer->isActive());
    QCOMPARE(timer->parent(), worker.get());
    QCOMPARE(worker->findChildren<QTimer*>().size(), 1);
}

void tst_worker_construction::mutexIsRecursiveAndUnlocked()
{
    const Worker worker = make(m->tree.config());

    QVERIFY(isFreeForOthers(&worker->m_mutex));
    QVERIFY(worker->m_mutex.isRecursive());
    QVERIFY(worker->m_mutex.tryLock());
    QVERIFY(worker->m_mutex.tryLock());
    QVERIFY(!isFreeForOthers(&worker->m_mutex));
    worker->m_mutex.unlock();
    worker->m_mutex.unlock();
}

void tst_worker_construction::encryptionHandlerIsItsOwnNoOp()
{
    const Worker first = make(m->tree.config());
    const Worker second = make(m->tree.config());

    QVERIFY(dynamic_cast<NoOpEncryptionHandler*>(first->m_encryptionHandler) != nullptr);
    QVERIFY(dynamic_cast<NoOpEncryptionHandler*>(second->m_encryptionHandler) != nullptr);
    QVERIFY(first->m_encryptionHandler != second->m_encryptionHandler);
}

void tst_worker_construction::workerBelongsToCreatingThreadWithoutParent()
{
    const Worker worker = make(m->tree.config());

    QVERIFY(worker->parent() == nullptr);
    QCOMPARE(worker->thread(), QThread::currentThread());
    QCOMPARE(worker->m_writeTimer->thread(), QThread::currentThread());
}

void tst_worker_construction::createFunctionIgnoresFirstArgument()
{
    int anything = 0;
    for (void* first : { static_cast<void*>(nullptr), static_cast<void*>(&anything) }) {
        CMWorker* const created = worker_create(first, m->tree.config());

        const Worker worker(qobject_cast<CMSettingsWorker*>(created));
        QVERIFY(worker != nullptr);
        QCOMPARE(worker->m_defaultPath, m->tree.defaultPath());
        QCOMPARE(worker->m_writePath, m->tree.writePath());
    }
    QCOMPARE(anything, 0);
}

void tst_worker_construction::exceptionInConstructorPropagatesAndFreesMemory()
{
    watchedBlock = nullptr;
    watchedBlockWasFreed = false;
    watchedSize = sizeof(CMSettingsWorker);

    // As if memory were exhausted in the middle of the constructor.
    QString thrownAt;
    try {
        const RecordHook hook([](const QString&) { throw std::bad_alloc(); });
        worker_create(nullptr, m->tree.config());
    } catch (const std::bad_alloc&) {
        thrownAt = m->log.messages(log4cplus::INFO_LOG_LEVEL).join(QLatin1Char('\n'));
    }
    watchedSize = 0;

    QCOMPARE(thrownAt,
             QStringLiteral("Using path %1 for default settings").arg(m->tree.defaultPath()));
    QVERIFY(watchedBlock != nullptr);
    QVERIFY(watchedBlockWasFreed);
    watchedBlock = nullptr;
}

void tst_worker_construction::destructorLeavesPendingWriteUnwritten()
{
    m->tree.writeDefault(QStringLiteral("/volume"), json(R"({"value": {"int": 3}})"));
    CMSettingsWorker& worker = m->create();
    const auto reply = setData(&worker, QStringLiteral("/settings/volume"), TuloRoles::Value(),
                               json(R"({"int": 4})"));
    QVERIFY(reply.isFinished());
    QCOMPARE(worker.m_pendingWrites.size(), 1);
    QVERIFY(worker.m_writeTimer->isActive());

    m->destroyWorker();
    QCoreApplication::processEvents();

    QCOMPARE(m->tree.writtenEntries(), QStringList());
    QVERIFY(m->log.records().isEmpty());
}

void tst_worker_construction::destructorDeletesTimer()
{
    CMSettingsWorker& worker = m->create();
    const QPointer<QTimer> timer = worker.m_writeTimer;

    m->destroyWorker();

    QVERIFY(timer.isNull());
}

void tst_worker_construction::destructorDeletesCachedRecords()
{
    CMSettingsWorker& worker = m->create();
    QWeakPointer<QObject> inside;
    {
        const auto object = QSharedPointer<QObject>::create();
        inside = object;
        TuloRoles roles;
        roles.__setHashAttribute(QStringLiteral("object"), QVariant::fromValue(object));
        worker.m_valueCache.insert(QStringLiteral("/a"),
                                   new CMSettingsWorker::CacheRecord { roles, true }, 1);
        worker.m_pendingWrites.insert(QStringLiteral("file"), roles);
    }
    QVERIFY(!inside.isNull());

    m->destroyWorker();

    QVERIFY(inside.isNull());
}

void tst_worker_construction::destructorKeepsEncryptionHandler()
{
    struct CountedHandler : NoOpEncryptionHandler
    {
        explicit CountedHandler(int* count)
            : destructions(count)
        {
        }
        ~CountedHandler() override { ++*destructions; }
        int* const destructions;
    };
    CMSettingsWorker& worker = m->create();
    delete worker.m_encryptionHandler;
    int destructions = 0;
    const auto handler = std::make_unique<CountedHandler>(&destructions);
    worker.m_encryptionHandler = handler.get();

    m->worker.reset();

    QCOMPARE(destructions, 0);
}

QTEST_GUILESS_MAIN(tst_worker_construction)
#include "tst_worker_construction.moc"
