// Which names a directory lists, in which order, and the directory cache.

#include "tests/support/childprocess.h"
#include "tests/support/replywaiter.h"
#include "workerfixture.h"

#include "api/core/model/tulosettingsactions.h"

#include <QDir>
#include <QFile>

#include <sys/stat.h>

namespace {

const QString audio = QStringLiteral("/audio");

void changeMode(const QString& name, mode_t mode)
{
    if (::chmod(QFile::encodeName(name).constData(), mode) != 0)
        qFatal("cannot change the mode of %s", qPrintable(name));
}

} // namespace

class tst_worker_listing : public QObject
{
    Q_OBJECT

private slots:
    void init() { m = std::make_unique<WorkerFixture>(); }
    void cleanup()
    {
        m->log.verifyNothingUnexpected();
        m.reset();
    }

    void namesOfBothTreesAreUnited();
    void nameInBothTreesIsListedOnce();
    void filesAndDirectoriesAreListedAlike();
    void namesAreSortedByCodeUnit();
    void onlyWordCharactersAndHyphensAreListed_data();
    void onlyWordCharactersAndHyphensAreListed();
    void hiddenNamesAreNotListed();
    void productDefaultIsListedAsRow();
    void workingLinksAreListedAndBrokenOnesAreNot();
    void specialFilesAreNotListed();
    void topDirectoryIsListed();

    void directoryExistsInEitherTree_data();
    void directoryExistsInEitherTree();
    void existsFlagIsOptional();
    void fileIsNoDirectory();
    void missingDirectoryIsCachedAsEmpty();
    void listingIsKeptAsItWasFirst();
    void recordHoldsEntriesAndFlag();
    void listingSurvivesDropCache();
    void cacheIsUnbounded();
    void cacheIsKeyedByPathAsGiven();
    void cachedListIsCopied();
    void loadingDoesNotTouchDirectoryCache();
    void listingLogsNothing();
    void listingTakesNoLock();

    void unreadableNamesAreNotListed();
    void unreadableDirectoryContributesNothing();

private:
    QStringList list(const QString& path, bool* exists = nullptr)
    {
        if (!m->worker)
            m->create();
        return m->worker->getDir(path, exists);
    }
    void addDefault(const char* name) const
    {
        m->tree.writeDefault(audio + QLatin1Char('/') + QString::fromUtf8(name), QByteArray("{}"));
    }
    void addWritten(const char* name) const
    {
        m->tree.writeWritten(audio + QLatin1Char('/') + QString::fromUtf8(name), QByteArray("{}"));
    }
    static QStringList names(std::initializer_list<const char*> list)
    {
        QStringList result;
        for (const char* name : list)
            result.append(QString::fromUtf8(name));
        return result;
    }

    std::unique_ptr<WorkerFixture> m;
};

void tst_worker_listing::namesOfBothTreesAreUnited()
{
    addDefault("b");
    addDefault("d");
    addWritten("a");
    addWritten("c");

    QCOMPARE(list(audio), names({ "a", "b", "c", "d" }));
}

void tst_worker_listing::nameInBothTreesIsListedOnce()
{
    addDefault("volume");
    addWritten("volume");

    QCOMPARE(list(audio), names({ "volume" }));
}

void tst_worker_listing::filesAndDirectoriesAreListedAlike()
{
    addDefault("setting");
    m->tree.makeDefaultDirectory(QStringLiteral("/audio/defaults"));
    m->tree.makeWriteDirectory(QStringLiteral("/audio/written"));
    addDefault("deep/below");

    QCOMPARE(list(audio), names({ "deep", "defaults", "setting", "written" }));
}

void tst_worker_listing::namesAreSortedByCodeUnit()
{
    for (const char* name :
         { "volume", "eq-band_2", "eq-band_10", "Volume", "_", "-", "1", "10", "2", "z", "\u00e4" })
        addDefault(name);

    QCOMPARE(list(audio),
             names({ "-", "1", "10", "2", "Volume", "_", "eq-band_10", "eq-band_2", "volume", "z",
                     "\u00e4" }));
}

void tst_worker_listing::onlyWordCharactersAndHyphensAreListed_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isListed");

    const auto row = [](const char* name, bool isListed) {
        QTest::newRow(name) << QString::fromUtf8(name) << isListed;
    };
    row("Volume", true);
    row("eq-band_2", true);
    row("-", true);
    row("_", true);
    row("7", true);
    row("\u00fcberblick", true);
    row("\u97f3\u91cf", true);
    row("a\u0301", true);
    row("a.json", false);
    row("a.", false);
    row("backup~", false);
    row("#backup#", false);
    row("with blank", false);
    row("line\nfeed", false);
    row("feed\n", false);
    row("a+b", false);
    row("a,b", false);
    row("[ab]", false);
    row("a\\b", false);
    row("a%20b", false);
    row("a:b", false);
    row("\u20ac", false);
}

void tst_worker_listing::onlyWordCharactersAndHyphensAreListed()
{
    QFETCH(QString, name);
    QFETCH(bool, isListed);
    addDefault("other");
    m->tree.writeDefault(audio + QLatin1Char('/') + name, QByteArray("{}"));

    QCOMPARE(list(audio).contains(name), isListed);
    QCOMPARE(list(audio).size(), isListed ? 2 : 1);
}

void tst_worker_listing::hiddenNamesAreNotListed()
{
    addDefault(".meta");
    addDefault(".hidden");
    addWritten(".volume");
    m->tree.makeDefaultDirectory(QStringLiteral("/audio/.folder"));
    addDefault("volume");

    QCOMPARE(list(audio), names({ "volume" }));
}

void tst_worker_listing::productDefaultIsListedAsRow()
{
    addDefault("mode");
    addDefault("mode_car");
    m->create({ { QStringLiteral("product_postfix"), QStringLiteral("car") } });

    QCOMPARE(list(audio), names({ "mode", "mode_car" }));
}

void tst_worker_listing::workingLinksAreListedAndBrokenOnesAreNot()
{
    addDefault("file");
    m->tree.makeDefaultDirectory(QStringLiteral("/audio/folder"));
    const QString folder = m->tree.defaultPath() + QLatin1String("/audio/");
    const auto link = [&folder](const char* target, const char* name) {
        return QFile::link(folder + QLatin1String(target), folder + QLatin1String(name));
    };
    QVERIFY(link("file", "file-link"));
    QVERIFY(link("folder", "folder-link"));
    QVERIFY(link("missing", "broken-link"));

    QCOMPARE(list(audio), names({ "file", "file-link", "folder", "folder-link" }));
}

void tst_worker_listing::specialFilesAreNotListed()
{
    addDefault("file");
    const QString pipe = m->tree.defaultPath() + QLatin1String("/audio/pipe");
    QCOMPARE(::mkfifo(QFile::encodeName(pipe).constData(), 0644), 0);

    QCOMPARE(list(audio), names({ "file" }));
}

void tst_worker_listing::topDirectoryIsListed()
{
    addDefault("volume");
    m->tree.writeWritten(QStringLiteral("/language"), QByteArray("{}"));

    QCOMPARE(list(QStringLiteral("/")), names({ "audio", "language" }));
}

// ---------------------------------------------------------------------------------------------
// The record of a directory.
// ---------------------------------------------------------------------------------------------

void tst_worker_listing::directoryExistsInEitherTree_data()
{
    QTest::addColumn<bool>("inDefaults");
    QTest::addColumn<bool>("inWritten");

    QTest::newRow("default tree") << true << false;
    QTest::newRow("write tree") << false << true;
    QTest::newRow("both") << true << true;
    QTest::newRow("neither") << false << false;
}

void tst_worker_listing::directoryExistsInEitherTree()
{
    QFETCH(bool, inDefaults);
    QFETCH(bool, inWritten);
    if (inDefaults)
        m->tree.makeDefaultDirectory(audio);
    if (inWritten)
        m->tree.makeWriteDirectory(audio);
    const bool expected = inDefaults || inWritten;

    // Listed afresh, then from the cache.
    for (int call = 0; call < 2; ++call) {
        bool exists = !expected;
        QCOMPARE(list(audio, &exists), QStringList());
        QCOMPARE(exists, expected);
    }
}

void tst_worker_listing::existsFlagIsOptional()
{
    addDefault("volume");

    QCOMPARE(list(audio, nullptr), names({ "volume" }));
    QCOMPARE(list(audio, nullptr), names({ "volume" }));
}

void tst_worker_listing::fileIsNoDirectory()
{
    addDefault("volume");

    bool exists = true;
    QCOMPARE(list(QStringLiteral("/audio/volume"), &exists), QStringList());
    QVERIFY(!exists);
}

void tst_worker_listing::missingDirectoryIsCachedAsEmpty()
{
    bool exists = true;
    QCOMPARE(list(audio, &exists), QStringList());
    QVERIFY(!exists);
    addDefault("volume");
    addWritten("volume");

    exists = true;
    QCOMPARE(list(audio, &exists), QStringList());
    QVERIFY(!exists);
}

void tst_worker_listing::listingIsKeptAsItWasFirst()
{
    addDefault("a");
    addDefault("b");
    list(audio);
    addDefault("c");
    addWritten("d");
    QVERIFY(QFile::remove(m->tree.defaultPath() + QLatin1String("/audio/a")));

    QCOMPARE(list(audio), names({ "a", "b" }));
}

void tst_worker_listing::recordHoldsEntriesAndFlag()
{
    addDefault("b");
    addDefault("a");

    list(audio);
    list(QStringLiteral("/missing"));

    QCOMPARE(m->worker->m_dirCache.size(), 2);
    const CMSettingsWorker::DirCacheRecord found = m->worker->m_dirCache.value(audio);
    QCOMPARE(found.entries, names({ "a", "b" }));
    QVERIFY(found.exists);
    const CMSettingsWorker::DirCacheRecord missing =
        m->worker->m_dirCache.value(QStringLiteral("/missing"), { names({ "x" }), true });
    QCOMPARE(missing.entries, QStringList());
    QVERIFY(!missing.exists);
}

void tst_worker_listing::listingSurvivesDropCache()
{
    addDefault("a");
    list(audio);
    addDefault("b");

    activate(m->worker.get(), TuloSettingsActionsDropCache());

    QCOMPARE(list(audio), names({ "a" }));
}

void tst_worker_listing::cacheIsUnbounded()
{
    for (int number = 0; number < 1000; ++number)
        list(QStringLiteral("/directory-%1").arg(number));

    QCOMPARE(m->worker->m_dirCache.size(), 1000);
}

void tst_worker_listing::cacheIsKeyedByPathAsGiven()
{
    addDefault("a");
    list(audio);
    addDefault("b");

    // Another name of the same directory is listed for itself.
    QCOMPARE(list(QStringLiteral("/audio/")), names({ "a", "b" }));
    QCOMPARE(list(audio), names({ "a" }));
}

void tst_worker_listing::cachedListIsCopied()
{
    addDefault("a");

    QStringList changed = list(audio);
    changed.append(QStringLiteral("b"));

    QCOMPARE(list(audio), names({ "a" }));
}

void tst_worker_listing::loadingDoesNotTouchDirectoryCache()
{
    addDefault("a");
    CMSettingsWorker& worker = m->create();

    worker.load(audio, nullptr);
    worker.load(QStringLiteral("/audio/a"), nullptr);

    QVERIFY(worker.m_dirCache.isEmpty());
}

void tst_worker_listing::listingLogsNothing()
{
    addDefault("a");
    m->create();
    m->log.setLevel(log4cplus::TRACE_LOG_LEVEL);

    list(audio);
    list(audio);
    list(QStringLiteral("/missing"));

    QVERIFY(m->log.records().isEmpty());
}

void tst_worker_listing::listingTakesNoLock()
{
    m->create();
    const HeldElsewhere held(&m->worker->m_mutex);

    QCOMPARE(list(audio), QStringList());
}

// ---------------------------------------------------------------------------------------------
// Permissions, which root does not meet.
// ---------------------------------------------------------------------------------------------

void tst_worker_listing::unreadableNamesAreNotListed()
{
    addDefault("readable");
    addDefault("secret");
    addDefault("folder/x");
    const QString folder = m->tree.defaultPath() + QLatin1String("/audio/");
    changeMode(folder + QLatin1String("secret"), 0);
    changeMode(folder + QLatin1String("folder"), 0);

    const ChildResult child = ChildProcess::runInChild(
        [this] { QCOMPARE(list(audio), names({ "readable" })); }, ChildProcess::User::Nobody);

    changeMode(folder + QLatin1String("folder"), 0755);
    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

void tst_worker_listing::unreadableDirectoryContributesNothing()
{
    addDefault("a");
    addWritten("b");
    const QString folder = m->tree.defaultPath() + QLatin1String("/audio");
    changeMode(folder, 0);

    const ChildResult child = ChildProcess::runInChild(
        [this] {
            bool exists = false;
            QCOMPARE(list(audio, &exists), names({ "b" }));
            QVERIFY(exists);
            QVERIFY(m->log.records().isEmpty());
        },
        ChildProcess::User::Nobody);

    changeMode(folder, 0755);
    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

QTEST_GUILESS_MAIN(tst_worker_listing)
#include "tst_worker_listing.moc"
