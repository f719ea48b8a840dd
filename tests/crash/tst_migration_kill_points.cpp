// Kills a process that migrates a tree before every call of it, and the process that recovers; and
// takes random trees from image to image and back under kills, beside a model of what the user set.

#include "tests/crash/killedcalls.h"

#include "trees/journal.h"
#include "trees/migrator.h"
#include "trees/ownerlock.h"

#include "tests/support/files.h"
#include "tests/support/inmemory.h"
#include "tests/support/repeats.h"
#include "tests/support/temporarytree.h"

#include "api/core/tulojson.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QRandomGenerator>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>
#include <QVector>

#include <memory>
#include <optional>

using namespace tulo;

namespace {

QByteArray json(const QVariant& content)
{
    return TuloJson::serialize(content);
}

/// An image in a directory: default tree and rules.
struct ImagePlace
{
    QString directory;

    QString defaultPath() const { return directory + QStringLiteral("/settings-default"); }
    void putDefault(const QString& path, const QByteArray& roles) const
    {
        writeFile(defaultPath() + path, roles);
    }
    void putRules(const QByteArray& rules) const
    {
        writeFile(directory + QStringLiteral("/settings-migrations/0001-all.json"), rules);
    }
};

/// What every process does that opens a tree for changes. False when it failed.
bool open(const ImagePlace& image, const QString& writePath)
{
    OwnerLock lock;
    if (lock.acquire(writePath) != OwnerLock::Status::Owned
        || redoJournal(lock.directory()).status != JournalResult::Status::Done)
        return false;
    const MigrationResult result =
        migrate(lock.directory(), { image.defaultPath(), writePath, QString(), QString() },
                MigrationRun::Migrate);
    return result.status == MigrationResult::Status::Done;
}

/// Everything that is written, without our own files and without directories.
QHash<QString, QByteArray> writtenIn(const TemporaryTree& tree)
{
    QHash<QString, QByteArray> files;
    const QStringList entries = tree.writtenEntries();
    for (const QString& entry : entries) {
        if (!entry.endsWith(QLatin1Char('/')) && !entry.contains(QLatin1String("/.")))
            files.insert(entry, tree.readWritten(entry));
    }
    return files;
}

} // namespace

class tst_MigrationKillPoints : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void migrationKilledAtAnyCallIsMadeAsAWholeOrNotAtAll();
    void recoveryKilledAtAnyCallIsFinishedByTheNext();
    void olderImageAfterAKillGetsItsValues();
    void imagesAThenBThenAKeepWhatTheUserSet();
};

namespace {

/// Two images that differ in everything that a migration does.
class Scenario
{
public:
    Scenario()
    {
        m_first.directory = m_directory.filePath(QStringLiteral("a"));
        m_second.directory = m_directory.filePath(QStringLiteral("b"));
        const QByteArray narrow = R"({"id":"V","value":{"int":5},"edit":{"min":0,"max":80}})";
        const QByteArray wide = R"({"id":"V","value":{"int":5},"edit":{"min":0,"max":100}})";
        const QByteArray plain = R"({"value":{"int":5}})";
        m_first.putDefault(QStringLiteral("/audio/volume"), wide);
        m_first.putDefault(QStringLiteral("/vehicle/mode"), R"({"id":"M","value":{"int":1}})");
        m_first.putDefault(QStringLiteral("/old/one"), plain);
        m_first.putDefault(QStringLiteral("/old/two"), plain);
        m_first.putDefault(QStringLiteral("/gone"), plain);
        m_second.putDefault(QStringLiteral("/audio/volume"), narrow);
        m_second.putDefault(QStringLiteral("/driving/mode"), R"({"id":"M","value":{"int":1}})");
        m_second.putDefault(QStringLiteral("/new/one"), plain);
        m_second.putDefault(QStringLiteral("/new/two"), plain);
        m_second.putRules(R"([{"rename":"/old","to":"/new"},{"clamp":"V"},{"remove":"/gone"}])");
        m_before = {
            { QStringLiteral("/audio/volume"), R"({"id":"V","timestamp":1,"value":{"int":95}})" },
            { QStringLiteral("/vehicle/mode"), R"({"id":"M","timestamp":2,"value":{"int":9}})" },
            { QStringLiteral("/old/one"), R"({"timestamp":3,"value":{"int":11}})" },
            { QStringLiteral("/old/two"), R"({"timestamp":4,"value":{"int":12}})" },
            { QStringLiteral("/gone"), R"({"timestamp":5,"value":{"int":13}})" },
        };
        m_after = {
            { QStringLiteral("/audio/volume"), R"({"id":"V","timestamp":1,"value":{"int":80}})" },
            { QStringLiteral("/driving/mode"), R"({"id":"M","timestamp":2,"value":{"int":9}})" },
            { QStringLiteral("/new/one"), R"({"timestamp":3,"value":{"int":11}})" },
            { QStringLiteral("/new/two"), R"({"timestamp":4,"value":{"int":12}})" },
        };
    }

    /// A tree as the first image left it.
    std::unique_ptr<TemporaryTree> tree() const
    {
        auto tree = std::make_unique<TemporaryTree>();
        for (auto file = m_before.cbegin(); file != m_before.cend(); ++file)
            tree->writeWritten(file.key(), *file);
        return tree;
    }

    const ImagePlace& first() const { return m_first; }
    const ImagePlace& second() const { return m_second; }
    const QHash<QString, QByteArray>& before() const { return m_before; }
    const QHash<QString, QByteArray>& after() const { return m_after; }

private:
    QTemporaryDir m_directory;
    ImagePlace m_first;
    ImagePlace m_second;
    QHash<QString, QByteArray> m_before;
    QHash<QString, QByteArray> m_after;
};

} // namespace

void tst_MigrationKillPoints::initTestCase()
{
    // A kill does not ask what the disk has.
    keepTreesInMemory();
}

void tst_MigrationKillPoints::migrationKilledAtAnyCallIsMadeAsAWholeOrNotAtAll()
{
    const Scenario scenario;
    int kills = 0;
    for (int call = 0;; ++call) {
        const auto tree = scenario.tree();
        const bool isKilled =
            isKilledAt(call, [&] { (void)open(scenario.second(), tree->writePath()); });
        kills += int(isKilled);

        QVERIFY2(open(scenario.second(), tree->writePath()), QByteArray::number(call));
        QVERIFY2(writtenIn(*tree) == scenario.after(), QByteArray::number(call));
        // Opened again, nothing more comes of it.
        QVERIFY(open(scenario.second(), tree->writePath()));
        QVERIFY2(writtenIn(*tree) == scenario.after(), QByteArray::number(call));
        QVERIFY(!tree->writtenEntries().contains(QStringLiteral("/old/")));
        if (!isKilled)
            break;
    }

    qInfo("killed at %d calls", kills);
    QVERIFY(kills > 60);
}

// Both at every call.
void tst_MigrationKillPoints::recoveryKilledAtAnyCallIsFinishedByTheNext()
{
    const Scenario scenario;
    int kills = 0;
    const int stride = repeats(17, 1);
    bool isToEnd = false;
    for (int call = 0; !isToEnd; call += stride) {
        bool isRecovered = false;
        for (int second = call % stride; !isRecovered; second += stride) {
            const auto tree = scenario.tree();
            isToEnd = !isKilledAt(call, [&] { (void)open(scenario.second(), tree->writePath()); });
            isRecovered =
                !isKilledAt(second, [&] { (void)open(scenario.second(), tree->writePath()); });
            kills += int(!isRecovered);

            QVERIFY(open(scenario.second(), tree->writePath()));
            QVERIFY2(writtenIn(*tree) == scenario.after(),
                     QByteArray::number(call) + ", " + QByteArray::number(second));
        }
    }

    qInfo("killed again at %d calls", kills);
    QVERIFY(kills > 20);
}

void tst_MigrationKillPoints::olderImageAfterAKillGetsItsValues()
{
    const Scenario scenario;
    for (int call = 0;; ++call) {
        const auto tree = scenario.tree();
        const bool isKilled =
            isKilledAt(call, [&] { (void)open(scenario.second(), tree->writePath()); });

        QVERIFY2(open(scenario.first(), tree->writePath()), QByteArray::number(call));
        QVERIFY2(writtenIn(*tree) == scenario.before(), QByteArray::number(call));
        if (!isKilled)
            break;
    }
}

// ---------------------------------------------------------------------------------------------
// Random images. The model knows each setting by its number and nothing of files: what the user set
// last under an image that could take it is what every image shows that can take it, too.
// ---------------------------------------------------------------------------------------------

namespace {

/// One setting in one image.
struct Shipped
{
    QString path;
    QString id; ///< empty: none
    int maximum = 100;
    bool isText = false; ///< texts of digits, without limits
};

/// A value, as a number; in an image where the setting is a text, its digits.
struct Value
{
    int number = 0;
    int timestamp = 0;

    bool operator==(const Value& other) const
    {
        return number == other.number && timestamp == other.timestamp;
    }
};

struct Setting
{
    std::optional<Shipped> inFirst;
    std::optional<Shipped> inSecond;
    // What the user has: nothing where it was never set, or reset.
    std::optional<Value> first; ///< under the first image
    std::optional<Value> second; ///< under the second
};

class Images
{
public:
    explicit Images(QRandomGenerator* random)
        : m_random(*random)
    {
        m_first.directory = m_directory.filePath(QStringLiteral("a"));
        m_second.directory = m_directory.filePath(QStringLiteral("b"));
        const int count = 3 + m_random.bounded(10);
        QStringList rules;
        for (int i = 0; i < count; ++i)
            m_settings.append(make(i, &rules));
        swapSome();
        for (const Setting& setting : qAsConst(m_settings)) {
            if (setting.inFirst)
                m_first.putDefault(setting.inFirst->path, defaultOf(*setting.inFirst));
            if (setting.inSecond)
                m_second.putDefault(setting.inSecond->path, defaultOf(*setting.inSecond));
        }
        // An image needs a tree, and a rule that does nothing is a rule.
        m_first.putDefault(QStringLiteral("/fixed"), "{}");
        m_second.putDefault(QStringLiteral("/fixed"), "{}");
        m_second.putRules('[' + rules.join(QLatin1Char(',')).toUtf8() + ']');
    }

    const ImagePlace& place(bool isFirst) const { return isFirst ? m_first : m_second; }
    QVector<Setting>& settings() { return m_settings; }

    /// What the image does to the model when it starts.
    void start(bool isFirst)
    {
        for (Setting& setting : m_settings) {
            std::optional<Value>& here = isFirst ? setting.first : setting.second;
            std::optional<Value>& there = isFirst ? setting.second : setting.first;
            const auto& shipped = isFirst ? setting.inFirst : setting.inSecond;
            const auto& other = isFirst ? setting.inSecond : setting.inFirst;
            if (!shipped || !other)
                continue; // stays with the image that has it
            if (!isFirst) {
                // What the user has not changed under the first image is as it was left.
                if (setting.first == m_served.value(index(setting)))
                    continue;
                here = there;
                if (here && !shipped->isText)
                    here->number = qMin(here->number, shipped->maximum);
            } else if (isUnchangedSinceLeaving(setting)) {
                continue;
            } else if (!there || isTaken(*there, *shipped, *other)) {
                here = there;
            }
        }
        for (const Setting& setting : qAsConst(m_settings)) {
            if (isFirst)
                m_served.insert(index(setting), setting.first);
            else
                m_left.insert(index(setting), setting.second);
        }
    }

    /// The files that the image serves, by path.
    QHash<QString, QByteArray> expected(bool isFirst) const
    {
        QHash<QString, QByteArray> files;
        for (const Setting& setting : m_settings) {
            const auto& shipped = isFirst ? setting.inFirst : setting.inSecond;
            const auto& value = isFirst ? setting.first : setting.second;
            if (shipped && value)
                files.insert(shipped->path, fileOf(*shipped, *value));
        }
        return files;
    }

    static QByteArray fileOf(const Shipped& shipped, const Value& value)
    {
        QVariantHash content;
        if (shipped.isText)
            content.insert(QStringLiteral("string"), QString::number(value.number));
        else
            content.insert(QStringLiteral("int"), value.number);
        QVariantHash roles { { QStringLiteral("timestamp"), value.timestamp },
                             { QStringLiteral("value"), content } };
        if (!shipped.id.isEmpty())
            roles.insert(QStringLiteral("id"), shipped.id);
        return json(roles);
    }

private:
    int index(const Setting& setting) const { return int(&setting - m_settings.constData()); }

    // A setting that has not changed at all keeps what it has, as no migration is about it.
    static bool isTaken(const Value& value, const Shipped& shipped, const Shipped& other)
    {
        return shipped.isText == other.isText
            && (value.number <= shipped.maximum || shipped.path == other.path);
    }

    bool isUnchangedSinceLeaving(const Setting& setting) const
    {
        return setting.second == m_left.value(index(setting));
    }

    bool chance(int percent) { return int(m_random.bounded(100)) < percent; }

    QString randomPath(int number)
    {
        static const QStringList directories { QString(), QStringLiteral("/d"),
                                               QStringLiteral("/d/e"), QStringLiteral("/f") };
        return QStringLiteral("%1/s%2").arg(
            directories[int(m_random.bounded(quint32(directories.size())))],
            QString::number(number));
    }

    Setting make(int number, QStringList* rules)
    {
        Setting setting;
        Shipped first;
        first.path = randomPath(number);
        if (chance(60))
            first.id = QStringLiteral("ID-%1").arg(number);
        Shipped second = first;
        const bool isRenamed = chance(50);
        if (isRenamed)
            second.path = randomPath(number) + QStringLiteral("-b");
        if (isRenamed && first.id.isEmpty())
            rules->append(
                QStringLiteral(R"({"rename":"%1","to":"%2"})").arg(first.path, second.path));
        const int kind = int(m_random.bounded(10));
        if (kind < 3) {
            second.maximum = 50;
            rules->append(QStringLiteral(R"({"clamp":"%1"})").arg(second.path));
        } else if (kind < 5) {
            second.maximum = 200;
        } else if (kind < 7) {
            second.isText = true;
            rules->append(QStringLiteral(R"({"convert":"%1","kind":"string"})").arg(second.path));
        }
        const int presence = int(m_random.bounded(10));
        if (presence != 0)
            setting.inFirst = first;
        if (presence != 1)
            setting.inSecond = second;
        return setting;
    }

    // Two that exchange their paths in the second image.
    void swapSome()
    {
        Setting* waiting = nullptr;
        for (Setting& setting : m_settings) {
            const bool isPlain = setting.inFirst && setting.inSecond
                && !setting.inFirst->id.isEmpty() && setting.inSecond->maximum == 100
                && !setting.inSecond->isText && setting.inSecond->path == setting.inFirst->path;
            if (!isPlain)
                continue;
            if (waiting == nullptr) {
                waiting = &setting;
                continue;
            }
            std::swap(setting.inSecond->path, waiting->inSecond->path);
            waiting = nullptr;
        }
    }

    static QByteArray defaultOf(const Shipped& shipped)
    {
        QVariantHash roles;
        if (shipped.isText) {
            roles.insert(QStringLiteral("value"),
                         QVariantHash { { QStringLiteral("string"), QStringLiteral("0") } });
        } else {
            roles.insert(QStringLiteral("value"), QVariantHash { { QStringLiteral("int"), 0 } });
            roles.insert(QStringLiteral("edit"),
                         QVariantHash { { QStringLiteral("min"), 0 },
                                        { QStringLiteral("max"), shipped.maximum } });
        }
        if (!shipped.id.isEmpty())
            roles.insert(QStringLiteral("id"), shipped.id);
        return json(roles);
    }

    QRandomGenerator& m_random;
    QTemporaryDir m_directory;
    ImagePlace m_first;
    ImagePlace m_second;
    QVector<Setting> m_settings;
    QHash<int, std::optional<Value>> m_served; ///< by the first image when it started
    QHash<int, std::optional<Value>> m_left; ///< by the second image when it started
};

} // namespace

void tst_MigrationKillPoints::imagesAThenBThenAKeepWhatTheUserSet()
{
    const int pairs = repeats(200, 2000);
    int kills = 0;
    for (int seed = 0; seed < pairs; ++seed) {
        QRandomGenerator random { quint32(seed) };
        Images images(&random);
        const TemporaryTree tree;
        int timestamp = 1;
        for (int start = 0; start < 5; ++start) {
            const bool isFirst = start % 2 == 0;
            const ImagePlace& image = images.place(isFirst);
            for (int kill = int(random.bounded(3)); kill > 0; --kill) {
                kills += int(isKilledAt(int(random.bounded(120)),
                                        [&] { (void)open(image, tree.writePath()); }));
            }
            QVERIFY2(open(image, tree.writePath()), QByteArray::number(seed));
            images.start(isFirst);

            // All of it, and nothing else where the image has a setting.
            const QHash<QString, QByteArray> written = writtenIn(tree);
            const QHash<QString, QByteArray> expected = images.expected(isFirst);
            for (const Setting& setting : qAsConst(images.settings())) {
                const auto& shipped = isFirst ? setting.inFirst : setting.inSecond;
                if (!shipped)
                    continue;
                const QByteArray place = "seed " + QByteArray::number(seed) + ", start "
                    + QByteArray::number(start) + ", " + shipped->path.toUtf8() + ": "
                    + written.value(shipped->path) + " instead of " + expected.value(shipped->path);
                QVERIFY2(written.value(shipped->path) == expected.value(shipped->path), place);
            }

            // The user.
            for (Setting& setting : images.settings()) {
                const auto& shipped = isFirst ? setting.inFirst : setting.inSecond;
                std::optional<Value>& value = isFirst ? setting.first : setting.second;
                const quint32 action = random.bounded(10U);
                if (!shipped || action > 4)
                    continue;
                if (action == 0) {
                    QFile::remove(tree.writePath() + shipped->path);
                    value = std::nullopt;
                    continue;
                }
                value = Value { int(random.bounded(shipped->maximum + 1)), ++timestamp };
                tree.writeWritten(shipped->path, Images::fileOf(*shipped, *value));
            }
        }
    }
    qInfo("killed %d times", kills);
    QVERIFY(kills > pairs);
}

QTEST_GUILESS_MAIN(tst_MigrationKillPoints)
#include "tst_migration_kill_points.moc"
