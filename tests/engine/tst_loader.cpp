#include "engine/loader.h"

#include "api/core/tulo.h"
#include "tests/support/logcapture.h"
#include "tests/support/temporarytree.h"

#include <QDir>
#include <QFile>
#include <QTest>
#include <QThread>

#include <memory>

#include <dlfcn.h>

using namespace tulo;

Q_DECLARE_METATYPE(LoadStatus)

namespace {

// A shared library that is no plug-in.
QString frameworkFile()
{
    Dl_info info = {};
    if (::dladdr(reinterpret_cast<const void*>(&tuloAssertionFailed), &info) == 0)
        qFatal("cannot tell the framework's file");
    return QString::fromLocal8Bit(info.dli_fname);
}

} // namespace

class tst_loader : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void workerIsCreatedWithItsConfiguration();
    void relativeNameIsTakenFromTheWorkingDirectory();
    void sameFileCreatesSeveralWorkers();
    void libraryStaysLoadedWithoutItsWorker();
    void failuresAreToldApart_data();
    void failuresAreToldApart();

private:
    std::unique_ptr<LogCapture> m_log;
};

void tst_loader::init()
{
    m_log = std::make_unique<LogCapture>();
}

void tst_loader::cleanup()
{
    m_log->verifyNothingUnexpected();
    m_log.reset();
}

void tst_loader::workerIsCreatedWithItsConfiguration()
{
    const TemporaryTree tree;

    const LoadResult result = loadWorker(QStringLiteral(TULO_PLUGIN_FILE), tree.config());

    QCOMPARE(result.status, LoadStatus::Loaded);
    QCOMPARE(result.message, QString());
    QVERIFY(result.worker);
    QCOMPARE(result.worker->workerName(), QStringLiteral("CMSettingsWorker"));
    QCOMPARE(result.worker->thread(), QThread::currentThread());
    QCOMPARE(m_log->messages(log4cplus::INFO_LOG_LEVEL),
             QStringList(
                 { QStringLiteral("Using path %1 for default settings").arg(tree.defaultPath()),
                   QStringLiteral("Using path %1 for writable settings").arg(tree.writePath()) }));
}

void tst_loader::relativeNameIsTakenFromTheWorkingDirectory()
{
    const TemporaryTree tree;
    QVERIFY(QFile::link(QStringLiteral(TULO_PLUGIN_FILE), tree.path() + QStringLiteral("/a.so")));
    const QString before = QDir::currentPath();

    QVERIFY(QDir::setCurrent(tree.path()));
    const LoadResult result = loadWorker(QStringLiteral("a.so"), tree.config());
    QVERIFY(QDir::setCurrent(before));

    QCOMPARE(result.status, LoadStatus::Loaded);
}

void tst_loader::sameFileCreatesSeveralWorkers()
{
    const TemporaryTree tree;

    const LoadResult first = loadWorker(QStringLiteral(TULO_PLUGIN_FILE), tree.config());
    const LoadResult second = loadWorker(QStringLiteral(TULO_PLUGIN_FILE), tree.config());

    QVERIFY(first.worker && second.worker);
    QVERIFY(first.worker != second.worker);
}

void tst_loader::libraryStaysLoadedWithoutItsWorker()
{
    const TemporaryTree tree;

    QVERIFY(loadWorker(QStringLiteral(TULO_PLUGIN_FILE), tree.config()).worker);

    void* const handle = ::dlopen(TULO_PLUGIN_FILE, RTLD_LAZY | RTLD_NOLOAD);
    QVERIFY(handle != nullptr);
    ::dlclose(handle);
}

void tst_loader::failuresAreToldApart_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<LoadStatus>("status");
    QTest::addColumn<QString>("message");
    QTest::newRow("missing file") << QStringLiteral("/no/such/plugin.so") << LoadStatus::NoSuchFile
                                  << QStringLiteral("Plug-in '/no/such/plugin.so' does not exist");
    QTest::newRow("empty name") << QString() << LoadStatus::NoSuchFile
                                << QStringLiteral("Plug-in '' does not exist");
    QTest::newRow("text file") << QStringLiteral(TULO_SOURCE_DIR "/CMakeLists.txt")
                               << LoadStatus::NotALibrary
                               << QStringLiteral("Plug-in '" TULO_SOURCE_DIR
                                                 "/CMakeLists.txt' cannot be loaded: ");
    QTest::newRow("directory") << QStringLiteral(TULO_SOURCE_DIR) << LoadStatus::NotALibrary
                               << QStringLiteral("Plug-in '" TULO_SOURCE_DIR
                                                 "' cannot be loaded: ");
    QTest::newRow("no entry point")
        << frameworkFile() << LoadStatus::NoEntryPoint
        << QStringLiteral("Plug-in '%1' has no entry point 'worker_create'").arg(frameworkFile());
    QTest::newRow("no worker") << QStringLiteral(TULO_NO_WORKER_PLUGIN) << LoadStatus::NoWorker
                               << QStringLiteral("Plug-in '" TULO_NO_WORKER_PLUGIN
                                                 "' created no worker");
}

void tst_loader::failuresAreToldApart()
{
    QFETCH(QString, fileName);
    QFETCH(LoadStatus, status);
    QFETCH(QString, message);

    const LoadResult result = loadWorker(fileName, QVariantHash());

    QVERIFY(!result.worker);
    QCOMPARE(result.status, status);
    // The system's own words follow where a library cannot be loaded.
    if (status == LoadStatus::NotALibrary) {
        QCOMPARE(result.message.left(message.size()), message);
        QVERIFY(result.message.size() > message.size());
        QVERIFY(!result.message.contains(QLatin1Char('\n')));
    } else {
        QCOMPARE(result.message, message);
    }
}

QTEST_GUILESS_MAIN(tst_loader)
#include "tst_loader.moc"
