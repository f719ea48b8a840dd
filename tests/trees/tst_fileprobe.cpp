#include "trees/fileprobe.h"

#include "tests/support/temporarytree.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <memory>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace tulo;

namespace {

const QString volume = QStringLiteral("/audio/volume");

/// No file can be opened while it lives.
class NoDescriptors
{
public:
    NoDescriptors()
    {
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        rlimit none = m_before;
        none.rlim_cur = 0;
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_before); }
    Q_DISABLE_COPY(NoDescriptors)

private:
    rlimit m_before = {};
};

} // namespace

/// The look at a node's files before the worker reads them.
class tst_fileprobe : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void soundFilesAreSound_data();
    void soundFilesAreSound();
    void unsoundFileIsNamed_data();
    void unsoundFileIsNamed();
    void templateIsLookedAtWhereTheWorkerReadsIt_data();
    void templateIsLookedAtWhereTheWorkerReadsIt();
    void templateIsNotLookedAtForADirectory();
    void fileThatCannotBeOpenedAtThisMomentIsUnsoundAtThisMomentOnly();
    void directoryThatCannotBeOpenedAtThisMomentIsUnsoundAtThisMomentOnly();
    void soundNodeIsLookedAtOnceUntilForgotten();
    void nodeThatTheWorkerMayReadAgainIsLookedAtAgain();
    void missingNodeIsLookedAtEachTime();
    void inspectAgainLooksEachTime();
    void inspectAgainTellsADirectoryOfEitherTree();

private:
    std::unique_ptr<TemporaryTree> m_tree;
    std::unique_ptr<FileProbe> m_probe;
};

void tst_fileprobe::init()
{
    m_tree = std::make_unique<TemporaryTree>();
    m_tree->writeDefault(volume, R"({"value":{"int":5}})");
    m_tree->writeWritten(volume, R"({"value":{"int":6}})");
    m_probe = std::make_unique<FileProbe>(m_tree->defaultPath(), m_tree->writePath(),
                                          QStringLiteral("sport"));
}

void tst_fileprobe::soundFilesAreSound_data()
{
    QTest::addColumn<QString>("settingPath");
    QTest::newRow("setting") << volume;
    QTest::newRow("directory") << QStringLiteral("/audio");
    QTest::newRow("top") << QStringLiteral("/");
    QTest::newRow("nothing there") << QStringLiteral("/audio/none");
    QTest::newRow("no such directory") << QStringLiteral("/none/none");
    QTest::newRow("below a setting") << QStringLiteral("/audio/volume/deeper");
    QTest::newRow("name too long for a file") << QLatin1Char('/') + QString(300, QLatin1Char('a'));
}

void tst_fileprobe::soundFilesAreSound()
{
    QFETCH(QString, settingPath);

    QCOMPARE(m_probe->inspect(settingPath), QString());
    QCOMPARE(m_probe->inspectListing(settingPath.section(QLatin1Char('/'), 0, -2)), QString());
}

void tst_fileprobe::unsoundFileIsNamed_data()
{
    QTest::addColumn<QString>("file"); // below the test's folder
    QTest::addColumn<QString>("kind");
    for (const char* kind : { "pipe", "link to a pipe", "link to a device", "loop", "large" }) {
        for (const char* file :
             { "default/audio/bass", "default/audio/bass_sport", "default/audio/.meta",
               "default/audio/bass/.meta", "write/audio/bass" }) {
            QTest::newRow(
                qPrintable(QStringLiteral("%1, %2").arg(QLatin1String(kind), QLatin1String(file))))
                << QString::fromLatin1(file) << QString::fromLatin1(kind);
        }
    }
}

void tst_fileprobe::unsoundFileIsNamed()
{
    QFETCH(QString, file);
    QFETCH(QString, kind);
    QString name = file;
    name.replace(QLatin1String("default/"), m_tree->defaultPath() + QLatin1Char('/'));
    name.replace(QLatin1String("write/"), m_tree->writePath() + QLatin1Char('/'));
    QVERIFY(QDir().mkpath(QFileInfo(name).path()));
    const QByteArray bytes = QFile::encodeName(name);
    const QByteArray pipe = QFile::encodeName(m_tree->path()) + "/pipe";
    if (kind == QLatin1String("pipe")) {
        QCOMPARE(::mkfifo(bytes.constData(), 0600), 0);
    } else if (kind == QLatin1String("link to a pipe")) {
        QCOMPARE(::mkfifo(pipe.constData(), 0600), 0);
        QCOMPARE(::symlink(pipe.constData(), bytes.constData()), 0);
    } else if (kind == QLatin1String("link to a device")) {
        QCOMPARE(::symlink("/dev/zero", bytes.constData()), 0);
    } else if (kind == QLatin1String("loop")) {
        QCOMPARE(::symlink(bytes.constData(), bytes.constData()), 0);
    } else {
        QFile large(name);
        QVERIFY(large.open(QIODevice::WriteOnly));
        QVERIFY(large.resize(FileProbe::maximumFileBytes + 1));
    }

    const QString reason = m_probe->inspect(QStringLiteral("/audio/bass"));

    QVERIFY2(reason.startsWith(QLatin1Char('\'') + name.section(QLatin1Char('/'), 0, -2)),
             qPrintable(reason));
    QCOMPARE(m_probe->inspect(volume), QString());
}

void tst_fileprobe::templateIsLookedAtWhereTheWorkerReadsIt_data()
{
    QTest::addColumn<QByteArray>("defaults"); // null: no such file
    QTest::addColumn<QByteArray>("productDefaults");
    QTest::addColumn<bool>("isLookedAt");
    const QByteArray none;
    const QByteArray roles(R"({"title":"Bass"})");
    const QByteArray large = '{' + QByteArray(8192, ' ') + R"("title":"Bass"})";
    QTest::newRow("no default file") << none << none << true;
    QTest::newRow("roles") << roles << none << false;
    QTest::newRow("roles behind a block of white space") << large << none << false;
    QTest::newRow("no roles") << QByteArray("{}") << none << true;
    QTest::newRow("no object") << QByteArray(R"(["title"])") << none << true;
    QTest::newRow("roles of the product") << QByteArray("{}") << roles << false;
    QTest::newRow("no roles of the product") << roles << QByteArray("{}") << true;
}

void tst_fileprobe::templateIsLookedAtWhereTheWorkerReadsIt()
{
    QFETCH(const QByteArray, defaults);
    QFETCH(const QByteArray, productDefaults);
    const QString bass = QStringLiteral("/audio/bass");
    if (!defaults.isNull())
        m_tree->writeDefault(bass, defaults);
    if (!productDefaults.isNull())
        m_tree->writeDefault(bass + QLatin1String("_sport"), productDefaults);
    const QByteArray meta = QFile::encodeName(m_tree->defaultPath()) + "/audio/.meta";
    QCOMPARE(::mkfifo(meta.constData(), 0600), 0);

    QTEST(!m_probe->inspect(bass).isEmpty(), "isLookedAt");
}

void tst_fileprobe::templateIsNotLookedAtForADirectory()
{
    m_tree->makeDefaultDirectory(QStringLiteral("/audio/plain"));
    m_tree->makeWriteDirectory(QStringLiteral("/audio/made"));
    const QByteArray meta = QFile::encodeName(m_tree->defaultPath()) + "/audio/.meta";
    QCOMPARE(::mkfifo(meta.constData(), 0600), 0);

    QCOMPARE(m_probe->inspect(QStringLiteral("/audio/plain")), QString());
    QCOMPARE(m_probe->inspect(QStringLiteral("/audio/made")), QString());
    QVERIFY(!m_probe->inspect(QStringLiteral("/audio")).isEmpty());
}

void tst_fileprobe::fileThatCannotBeOpenedAtThisMomentIsUnsoundAtThisMomentOnly()
{
    QString reason;
    {
        const NoDescriptors none;
        reason = m_probe->inspect(volume);
    }

    QVERIFY2(reason.endsWith(QStringLiteral("volume' cannot be read: Too many open files")),
             qPrintable(reason));
    QCOMPARE(m_probe->inspect(volume), QString());
}

void tst_fileprobe::directoryThatCannotBeOpenedAtThisMomentIsUnsoundAtThisMomentOnly()
{
    QString reason;
    {
        const NoDescriptors none;
        reason = m_probe->inspectListing(QStringLiteral("/audio"));
    }

    QVERIFY2(reason.endsWith(QStringLiteral("audio' cannot be read: Too many open files")),
             qPrintable(reason));
    QCOMPARE(m_probe->inspectListing(QStringLiteral("/audio")), QString());
}

void tst_fileprobe::soundNodeIsLookedAtOnceUntilForgotten()
{
    QCOMPARE(m_probe->inspect(volume), QString());
    const NoDescriptors none;
    QCOMPARE(m_probe->inspect(volume), QString());

    m_probe->forget();

    QVERIFY(!m_probe->inspect(volume).isEmpty());
}

// The worker holds 300 nodes, missing ones among them.
void tst_fileprobe::nodeThatTheWorkerMayReadAgainIsLookedAtAgain()
{
    QCOMPARE(m_probe->inspect(volume), QString());
    for (int i = 0; i < 300; ++i)
        QCOMPARE(m_probe->inspect(QStringLiteral("/audio/none%1").arg(i)), QString());
    const NoDescriptors none;

    QVERIFY(!m_probe->inspect(volume).isEmpty());
}

void tst_fileprobe::missingNodeIsLookedAtEachTime()
{
    QCOMPARE(m_probe->inspect(QStringLiteral("/audio/bass")), QString());
    m_tree->writeDefault(QStringLiteral("/audio/bass"), R"({"value":{"int":5}})");
    const NoDescriptors none;

    QVERIFY(!m_probe->inspect(QStringLiteral("/audio/bass")).isEmpty());
}

void tst_fileprobe::inspectAgainTellsADirectoryOfEitherTree()
{
    m_tree->writeWritten(QStringLiteral("/written/volume"), R"({"value":{"int":6}})");

    QVERIFY(m_probe->inspectAgain(QStringLiteral("/audio")).isDirectory);
    QVERIFY(m_probe->inspectAgain(QStringLiteral("/written")).isDirectory);
    QVERIFY(!m_probe->inspectAgain(volume).isDirectory);
    QVERIFY(!m_probe->inspectAgain(QStringLiteral("/none")).isDirectory);
}

void tst_fileprobe::inspectAgainLooksEachTime()
{
    QCOMPARE(m_probe->inspect(volume), QString());
    const NoDescriptors none;

    QVERIFY(!m_probe->inspectAgain(volume).reason.isEmpty());
}

QTEST_GUILESS_MAIN(tst_fileprobe)
#include "tst_fileprobe.moc"
