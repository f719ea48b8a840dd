// A disk begins to fail in the middle of everything. Afterwards its image is mounted as a start
// would find it: what a flush answered to be saved must be there.
//
// The writable tree lies on a private ext4, on a loop device over a file whose writes fail when
// the test wants (failing_disk). The moments are drawn at random among all writes of some rounds of
// changes and flushes, with a fixed seed: 12, in full 110.

#include "engine/engine.h"

#include "api/core/tulojson.h"

#include "tests/support/childprocess.h"
#include "tests/support/enginechanges.h"
#include "tests/support/logcapture.h"
#include "tests/support/repeats.h"
#include "tests/support/temporarytree.h"

#include <QDir>
#include <QFile>
#include <QMap>
#include <QRandomGenerator>
#include <QTest>

#include <memory>
#include <optional>

#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace tulo;

// -------------------------------------------------------------------------------------------
// A service that believes in sync(2), which reports nothing.
// -------------------------------------------------------------------------------------------

namespace {

bool ignoresTheDisk = false; // NOLINT: set while nothing is synced

} // namespace

extern "C" {

int syncfs(int file) noexcept
{
    const long result = ::syscall(SYS_syncfs, file);
    return ignoresTheDisk ? 0 : int(result);
}

int fremovexattr(int file, const char* name) noexcept
{
    const long result = ::syscall(SYS_fremovexattr, file, name);
    return ignoresTheDisk ? 0 : int(result);
}

int fstatvfs(int file, struct statvfs* fileSystem) noexcept
{
    struct statvfs64 found = {};
    const int result = ::fstatvfs64(file, &found);
    *fileSystem = {};
    if (!ignoresTheDisk)
        fileSystem->f_flag = found.f_flag;
    return result;
}
}

namespace {

// -------------------------------------------------------------------------------------------
// The disk.
// -------------------------------------------------------------------------------------------

/// From which write on, counted from the beginning of the changes, how many fail.
struct Moment
{
    int successes = 0;
    qint64 failures = 0;
};

constexpr qint64 forGood = qint64(1) << 40;

bool run(const QString& program, const QStringList& arguments)
{
    return ChildProcess::run(program, arguments).exitCode == 0;
}

/// The image of a disk, mounted through failing_disk, or as it is.
class Disk
{
public:
    explicit Disk(const QString& place)
        : m_image(place + QLatin1String("/image"))
        , m_device(place + QLatin1String("/device"))
        , m_directory(place + QLatin1String("/mounted"))
    {
        QDir().mkpath(m_device);
        QDir().mkpath(m_directory);
    }
    ~Disk() { unmount(); }
    Q_DISABLE_COPY(Disk)

    bool format()
    {
        QFile image(m_image);
        return image.open(QIODevice::WriteOnly) && image.resize(8 << 20)
            && run(QStringLiteral("mkfs.ext4"),
                   { QStringLiteral("-q"), QStringLiteral("-F"), QStringLiteral("-m"),
                     QStringLiteral("0"), m_image });
    }

    bool mountThroughFailingDisk(const QString& options)
    {
        m_server = std::make_unique<ChildProcess>(QStringLiteral(TULO_FAILING_DISK),
                                                  QStringList { m_image, m_device });
        m_isServed = m_server->start() && m_server->waitForOutput("mounted\n", mountMs);
        return m_isServed && mount(m_device + QLatin1String("/disk"), options);
    }

    bool mountImage() { return mount(m_image, QString()); }

    void unmount()
    {
        if (m_isMounted && !run(QStringLiteral("umount"), { m_directory }))
            qWarning("cannot unmount %s", qPrintable(m_directory));
        m_isMounted = false;
        if (m_isServed) {
            if (!run(QStringLiteral("umount"), { m_device }))
                qWarning("cannot unmount %s", qPrintable(m_device));
            m_server->finish();
        }
        m_isServed = false;
    }

    QString directory() const { return m_directory; }
    /// Why it could not be mounted.
    QString error() const { return m_error; }

    int writes() const
    {
        QFile control(m_device + QLatin1String("/control"));
        return control.open(QIODevice::ReadOnly) ? control.readAll().toInt() : -1;
    }

    bool fail(const Moment& moment) const
    {
        QFile control(m_device + QLatin1String("/control"));
        const QByteArray text =
            QByteArray::number(moment.successes) + ' ' + QByteArray::number(moment.failures);
        return control.open(QIODevice::WriteOnly | QIODevice::Unbuffered)
            && control.write(text) == text.size();
    }

private:
    static constexpr int mountMs = 10000;

    bool mount(const QString& image, const QString& options)
    {
        m_isMounted =
            run(QStringLiteral("mount"),
                { QStringLiteral("-o"), QStringLiteral("loop") + options, image, m_directory });
        return m_isMounted;
    }

    const QString m_image;
    const QString m_device;
    const QString m_directory;
    std::unique_ptr<ChildProcess> m_server;
    bool m_isServed = false;
    bool m_isMounted = false;
    QString m_error;
};

// -------------------------------------------------------------------------------------------
// Changes and flushes.
// -------------------------------------------------------------------------------------------

constexpr int rounds = 6;
constexpr int roundsAfterFailure = 2;

// In each round the same two, one of them with a text that needs extra blocks, and a new one
// in a new directory.
QStringList settingsOf(int round)
{
    return { QStringLiteral("/audio/volume"), QStringLiteral("/audio/long"),
             QStringLiteral("/made/in%1/first").arg(round) };
}

TuloValue valueOf(const QString& setting, int round)
{
    if (!setting.endsWith(QLatin1String("/long")))
        return TuloValue::of(TuloValue::Int(), round);
    return TuloValue::of(TuloValue::String(),
                         QString::number(round) + QString(5000, QLatin1Char('.')));
}

void writeDefaults(const TemporaryTree& tree)
{
    for (int round = 1; round <= rounds; ++round) {
        const QStringList settings = settingsOf(round);
        for (const QString& setting : settings) {
            TuloRoles roles;
            roles.setValue(valueOf(setting, 0));
            tree.writeDefault(setting, roles.__variant().toHash());
        }
    }
}

/// The round of the value in a written file, 0 without a file; -1 for one that is damaged.
int roundIn(const QString& fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly))
        return file.exists() ? -1 : 0;
    TuloError error { QVariantHash() };
    const QVariant content = TuloJson::parse(file.readAll(), error, nullptr);
    const QVariant value = TuloRoles(TuloHash(content.toHash())).value().content();
    const QString digits = value.toString().section(QLatin1Char('.'), 0, 0);
    bool isNumber = false;
    const int round = digits.toInt(&isNumber);
    return error.isEmpty() && isNumber ? round : -1;
}

/// What became of one moment.
struct Outcome
{
    QString trouble; ///< with the test's own means
    int writes = 0;
    int saved = 0; ///< flushes, the stop among them
    int notSaved = 0;
    QStringList lost; ///< answered to be saved, and not there
};

Outcome outcomeOf(const QString& mountOptions, const std::optional<Moment>& moment)
{
    const TemporaryTree tree;
    writeDefaults(tree);
    Disk disk(tree.path());
    Outcome outcome;
    if (!disk.format() || !disk.mountThroughFailingDisk(mountOptions)) {
        outcome.trouble = disk.error();
        return outcome;
    }
    QMap<QString, int> answered;
    {
        EngineOptions options;
        options.pluginFile = QStringLiteral(TULO_PLUGIN_FILE);
        options.defaultPath = tree.defaultPath();
        options.writePath = disk.directory();
        options.access = EngineOptions::Access::Own;
        EngineFailure failure;
        const std::unique_ptr<Engine> engine = Engine::open(options, &failure);
        if (!engine) {
            outcome.trouble = failure.message;
            return outcome;
        }
        // What was made by now is not what is tested.
        run(QStringLiteral("sync"), { QStringLiteral("-f"), disk.directory() });
        const int writesBefore = disk.writes();
        if (moment && !disk.fail(*moment))
            outcome.trouble = QStringLiteral("cannot make the disk fail");

        QMap<QString, int> accepted;
        const auto note = [&](bool isSaved) {
            if (isSaved)
                answered = accepted;
            ++(isSaved ? outcome.saved : outcome.notSaved);
        };
        int roundsLeft = rounds;
        for (int round = 1; round <= rounds && roundsLeft > 0; ++round, --roundsLeft) {
            const QStringList settings = settingsOf(round);
            for (const QString& setting : settings) {
                const auto reply =
                    sendValue(engine->dispatcher(), CMPath(QLatin1String("/settings") + setting),
                              valueOf(setting, round));
                if (reply.error().name().isEmpty())
                    accepted.insert(setting, round);
            }
            const FlushResult result = flushed(*engine);
            note(result.error.isEmpty() && result.unsaved == 0);
            if (outcome.notSaved == 1 && roundsLeft > roundsAfterFailure)
                roundsLeft = roundsAfterFailure + 1;
        }
        note(engine->stop());
        outcome.writes = disk.writes() - writesBefore;
    }
    disk.unmount();

    if (!disk.mountImage()) {
        outcome.trouble = disk.error();
        return outcome;
    }
    for (auto change = answered.cbegin(); change != answered.cend(); ++change) {
        const int found = roundIn(disk.directory() + change.key());
        // A later one, which was not answered, may have arrived.
        if (found < change.value()) {
            outcome.lost.append(QStringLiteral("%1: saved in round %2, found %3")
                                    .arg(change.key())
                                    .arg(change.value())
                                    .arg(found));
        }
    }
    return outcome;
}

} // namespace

class tst_FailingDisk : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init() { m_log = std::make_unique<LogCapture>(); }
    void cleanup()
    {
        ignoresTheDisk = false;
        // Failures of the disk.
        m_log->take();
        m_log.reset();
    }

    void flushSavesOrSaysThatItDidNot_data() { addMountOptions(); }
    void flushSavesOrSaysThatItDidNot();
    void syncWithoutAnAnswerIsSeenToLoseChanges();

private:
    static void addMountOptions();

    std::unique_ptr<LogCapture> m_log;
    bool m_canMount = false;
};

void tst_FailingDisk::initTestCase()
{
    const LogCapture log;
    const TemporaryTree tree;
    Disk disk(tree.path());
    m_canMount = ::geteuid() == 0 && disk.format() && disk.mountThroughFailingDisk(QString());
}

void tst_FailingDisk::addMountOptions()
{
    QTest::addColumn<QString>("mountOptions");
    QTest::addColumn<int>("moments");
    QTest::newRow("default") << QString() << repeats(4, 60);
    QTest::newRow("remounted read-only") << QStringLiteral(",errors=remount-ro") << repeats(4, 30);
    QTest::newRow("data in the journal") << QStringLiteral(",data=journal") << repeats(4, 20);
}

namespace {

/// The moments of one test, for one kind of mount.
class Moments
{
public:
    explicit Moments(const QString& mountOptions)
        : m_random(quint32(mountOptions.size()) + 1)
        , m_writes(outcomeOf(mountOptions, std::nullopt).writes)
    {
    }

    int writes() const { return m_writes; }

    /// Every third disk recovers.
    Moment next()
    {
        const int successes = m_random.bounded(m_writes);
        const bool recovers = m_random.bounded(3) == 0;
        return { successes, recovers ? 1 + m_random.bounded(6) : forGood };
    }

private:
    QRandomGenerator m_random;
    const int m_writes;
};

} // namespace

void tst_FailingDisk::flushSavesOrSaysThatItDidNot()
{
    if (!m_canMount)
        QSKIP("needs root, FUSE and loop devices, for a disk that fails");
    QFETCH(const QString, mountOptions);
    QFETCH(const int, moments);
    Moments random(mountOptions);
    QVERIFY(random.writes() > rounds);

    int saved = 0;
    int notSaved = 0;
    for (int i = 0; i < moments; ++i) {
        const Moment moment = random.next();
        const Outcome outcome = outcomeOf(mountOptions, moment);
        const QString description = QStringLiteral("%1 writes, then %2 failures: ")
                                        .arg(moment.successes)
                                        .arg(moment.failures);
        QVERIFY2(outcome.trouble.isEmpty(), qPrintable(description + outcome.trouble));
        QVERIFY2(outcome.lost.isEmpty(),
                 qPrintable(description + outcome.lost.join(QStringLiteral("; "))));
        saved += outcome.saved;
        notSaved += outcome.notSaved;
    }

    // Both answers came, so both were tried.
    QVERIFY(saved > 0);
    QVERIFY(notSaved > 0);
    qInfo("%d moments among %d writes: %d flushes saved, %d did not, nothing lost", moments,
          random.writes(), saved, notSaved);
}

// Without it nobody would know whether the test above could fail.
void tst_FailingDisk::syncWithoutAnAnswerIsSeenToLoseChanges()
{
    if (!m_canMount)
        QSKIP("needs root, FUSE and loop devices, for a disk that fails");
    constexpr int maximumMoments = 60;
    const int wantedLosses = repeats(1, maximumMoments);
    Moments random { QString() };
    ignoresTheDisk = true;

    int moments = 0;
    int losses = 0;
    while (moments < maximumMoments && losses < wantedLosses) {
        const Outcome outcome = outcomeOf(QString(), random.next());
        QVERIFY2(outcome.trouble.isEmpty(), qPrintable(outcome.trouble));
        ++moments;
        losses += outcome.lost.isEmpty() ? 0 : 1;
    }

    QVERIFY(losses > 0);
    qInfo("%d of %d moments lose what was answered to be saved", losses, moments);
}

QTEST_GUILESS_MAIN(tst_FailingDisk)
#include "tst_failing_disk.moc"
