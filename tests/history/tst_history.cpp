// Random histories of a worker against a model of what it promises: each step is drawn from a
// random seed, which is printed, and every answer, record and file is compared with what the
// model says. A failing seed can be run again alone:
//
//   tst_history randomHistoryMatchesTheModel:"seed 7"

#include "cm_settings.h"

#include "api/core/model/tulosettingsactions.h"
#include "api/core/tulojson.h"
#include "tests/support/logcapture.h"
#include "tests/support/repeats.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QMap>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <utility>

namespace {

constexpr int stepsPerSeed = 2000;

// -------------------------------------------------------------------------------------------
// The model: settings as an operator would describe them, in three places each.
// -------------------------------------------------------------------------------------------

/// What a setting holds in one place.
struct State
{
    TuloValue value;
    qint64 timestamp = 0;
    QString id;

    bool operator==(const State& other) const
    {
        return value == other.value && timestamp == other.timestamp && id == other.id;
    }
};

/// A setting that the histories are about.
struct Setting
{
    bool hasDefault = true;
    bool isModifiable = true;
    State defaults;
    std::optional<bool> defaultDisabled;

    // What stands in the file, and what will be written into it.
    std::optional<State> written;
    std::optional<State> pending;
    /// A write fails as long as something stands in the way of the temporary file.
    bool isBlocked = false;

    /// What a fresh look finds; nothing for a setting that does not exist.
    std::optional<State> fresh() const
    {
        const std::optional<State>& changed = pending ? pending : written;
        if (!changed && !hasDefault)
            return std::nullopt;
        State state = defaults;
        if (changed) {
            if (!changed->value.__isEmpty())
                state.value = changed->value;
            if (changed->timestamp != 0)
                state.timestamp = changed->timestamp;
            if (!changed->id.isEmpty())
                state.id = changed->id;
        }
        return state;
    }
};

/// What the worker remembers of a setting: nothing inside when it remembers that there is none.
struct Remembered
{
    std::optional<State> state;
    std::optional<bool> disabled;
};

/// What the worker remembers of a directory's names.
struct Listing
{
    std::set<QString> names;
    bool exists = false;
};

QString parentOf(const QString& path)
{
    return path.left(path.lastIndexOf(QLatin1Char('/')));
}

QString nameOf(const QString& path)
{
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}

QString node(const QString& path)
{
    return path == QLatin1String("/") ? QStringLiteral("/settings")
                                      : QLatin1String("/settings") + path;
}

TuloValue intValue(qlonglong number)
{
    return TuloValue::of(TuloValue::Int(), number);
}

// -------------------------------------------------------------------------------------------
// One history.
// -------------------------------------------------------------------------------------------

class History
{
public:
    explicit History(unsigned seed)
        : m_random(seed)
    {
        makeSettings();
        start();
    }

    void run()
    {
        for (int step = 0; step < stepsPerSeed && !QTest::currentTestFailed(); ++step) {
            m_step = step;
            perform();
        }
        if (QTest::currentTestFailed()) {
            qWarning("step %d: %s", m_step, qPrintable(m_action));
            return;
        }
        // Whatever was accepted and flushed is there for the next process.
        flush();
        restart();
        for (auto entry = m_settings.cbegin(); entry != m_settings.cend(); ++entry)
            get(entry.key());
    }

private:
    void makeSettings();
    void start();
    void restart();
    void perform();

    void get(const QString& path);
    void setValue(const QString& path);
    void setWholeRoles(const QString& path);
    void add(const QString& path);
    void save(const QString& path, const TuloRoles& requested, const CMReply<QVariant>& reply,
              qint64 before);
    void refusePathRole(const QString& path);
    void list(const QString& directory);
    void write();
    void flush();
    void dropCache();
    void toggleBlock(const QString& path);

    int below(int bound) { return int(m_random() % unsigned(bound)); }
    QString anySetting() { return m_paths.at(below(m_paths.size())); }
    Setting& setting(const QString& path) { return m_settings[path]; }

    /// What the worker knows, after a look at the setting if it did not.
    Remembered& look(const QString& path);
    /// Whether it knows a directory as one; one that was met before it was there is not.
    bool lookAtDirectory(const QString& directory);
    bool isCached(const QString& path) const { return m_worker->m_valueCache.contains(path); }
    bool isOnDisk(const QString& directory) const
    {
        return m_defaultDirectories.contains(directory) || m_writtenDirectories.contains(directory);
    }
    /// The listing of the directory, made by the first look.
    Listing& listing(const QString& directory);
    /// Compares one row of an answer.
    void verifyRow(const QString& path, const QVariantList& values);
    /// Writes what is pending in the model and announces the records of failures.
    void drain();
    void verifyFiles();
    void expectRecord(log4cplus::LogLevel level, const QString& message)
    {
        m_log->expect(level, message);
    }
    void beginAction(const QString& text);
    void endAction();

    std::mt19937 m_random;
    const TemporaryTree m_tree;
    NoOpEncryptionHandler m_handler;
    std::unique_ptr<CMSettingsWorker> m_worker;
    std::unique_ptr<LogCapture> m_log;
    int m_step = 0;
    QString m_action;
    qlonglong m_nextNumber = 1000;

    // The model.
    QMap<QString, Setting> m_settings;
    QStringList m_paths;
    QStringList m_directories;
    QSet<QString> m_defaultDirectories;
    QSet<QString> m_writtenDirectories;
    QHash<QString, Remembered> m_remembered;
    QHash<QString, bool> m_rememberedDirectories;
    QHash<QString, Listing> m_listings;
};

void History::makeSettings()
{
    const auto addDefault = [this](const QString& path, int number, QVariantHash roles) {
        Setting added;
        added.defaults.value = intValue(number);
        added.defaults.id = roles.value(TuloRoles::Id()).toString();
        added.isModifiable = roles.value(TuloRoles::Modifiable(), true).toBool();
        if (roles.contains(TuloRoles::Disabled()))
            added.defaultDisabled = roles.value(TuloRoles::Disabled()).toBool();
        roles.insert(TuloRoles::Value(), added.defaults.value.__variant());
        m_tree.writeDefault(path, roles);
        m_settings.insert(path, added);
    };
    for (int i = 0; i < 12; ++i) {
        const QString path = QStringLiteral("/audio/s%1").arg(i);
        QVariantHash roles;
        if (i % 3 == 0)
            roles.insert(TuloRoles::Id(), QStringLiteral("id%1").arg(i));
        if (i % 4 == 1)
            roles.insert(TuloRoles::Disabled(), i % 8 == 1);
        if (i == 11)
            roles.insert(TuloRoles::Modifiable(), false);
        addDefault(path, i, roles);
    }
    addDefault(QStringLiteral("/audio/deep/er/one"), 1, {});
    addDefault(QStringLiteral("/top"), 2, {});
    // More than the value cache holds, so that settings leave it by themselves.
    for (int i = 0; i < 310; ++i)
        addDefault(QStringLiteral("/many/m%1").arg(i), i, {});
    // Settings that only a change makes, in a directory with a template and in new ones.
    m_tree.writeDefault(QStringLiteral("/list/.meta"), QVariantHash {});
    const QStringList created { QStringLiteral("/list/a"), QStringLiteral("/list/b"),
                                QStringLiteral("/list/c"), QStringLiteral("/new/x"),
                                QStringLiteral("/new/in/y") };
    for (const QString& path : created) {
        Setting added;
        added.hasDefault = false;
        m_settings.insert(path, added);
    }

    // The many are met one at a time, the others all the time.
    for (auto entry = m_settings.cbegin(); entry != m_settings.cend(); ++entry) {
        if (!entry.key().startsWith(QLatin1String("/many/")))
            m_paths.append(entry.key());
    }
    m_directories = QStringList { QStringLiteral("/"),        QStringLiteral("/audio"),
                                  QStringLiteral("/list"),    QStringLiteral("/new"),
                                  QStringLiteral("/new/in"),  QStringLiteral("/audio/deep"),
                                  QStringLiteral("/nowhere"), QStringLiteral("/audio/deep/er") };
    m_defaultDirectories = { QStringLiteral("/"),           QStringLiteral("/audio"),
                             QStringLiteral("/audio/deep"), QStringLiteral("/audio/deep/er"),
                             QStringLiteral("/list"),       QStringLiteral("/many") };
}

void History::start()
{
    {
        const LogCapture startRecords;
        m_worker = std::make_unique<CMSettingsWorker>(m_tree.config());
    }
    delete std::exchange(m_worker->m_encryptionHandler, &m_handler);
}

// The worker ends as in a crash: nothing of what is pending is written.
void History::restart()
{
    beginAction(QStringLiteral("restart"));
    m_worker.reset();
    for (Setting& entry : m_settings)
        entry.pending.reset();
    m_remembered.clear();
    m_rememberedDirectories.clear();
    m_listings.clear();
    start();
    endAction();
}

void History::perform()
{
    const int dice = below(1000);
    if (dice < 330)
        get(anySetting());
    else if (dice < 560)
        setValue(anySetting());
    else if (dice < 660)
        setWholeRoles(anySetting());
    else if (dice < 740)
        add(anySetting());
    else if (dice < 755)
        refusePathRole(anySetting());
    else if (dice < 855)
        list(m_directories.at(below(m_directories.size())));
    else if (dice < 885)
        write();
    else if (dice < 905)
        flush();
    else if (dice < 930)
        dropCache();
    else if (dice < 945)
        restart();
    else if (dice < 965)
        toggleBlock(QStringLiteral("/audio/s%1").arg(below(4)));
    else if (dice < 966)
        list(QStringLiteral("/many"));
    else
        get(QStringLiteral("/many/m%1").arg(below(310)));
}

void History::beginAction(const QString& text)
{
    m_action = text;
    m_log = std::make_unique<LogCapture>();
}

void History::endAction()
{
    m_log->verifyNothingUnexpected();
    m_log.reset();
}

// What is remembered holds until it leaves the cache: a disabled flag that is not read from files,
// a change whose write failed, a setting that was not there.
Remembered& History::look(const QString& path)
{
    // Which of the remembered settings leave the cache is the cache's own affair.
    const auto known = m_remembered.find(path);
    if (known != m_remembered.end() && isCached(path))
        return *known;
    Remembered remembered;
    remembered.state = setting(path).fresh();
    remembered.disabled = setting(path).defaultDisabled;
    return *m_remembered.insert(path, remembered);
}

void History::get(const QString& path)
{
    beginAction(QLatin1String("get ") + path);
    const Remembered expected = look(path);
    const QStringList roles { TuloRoles::Value(), TuloRoles::Timestamp(), TuloRoles::Id(),
                              TuloRoles::Disabled() };

    const auto reply = getData(m_worker.get(), node(path), roles);

    QVERIFY(reply.isFinished());
    if (!expected.state) {
        QCOMPARE(errorText(reply),
                 QStringLiteral("InvalidPath: Invalid path '%1'").arg(node(path)));
    } else {
        QCOMPARE(errorText(reply), QString());
        const QVariantList values = reply.value();
        const State answered { TuloValue(TuloHash(values.at(0).toHash())),
                               values.at(1).toLongLong(), values.at(2).toString() };
        QVERIFY2(answered == *expected.state, TuloJson::serialize(values));
        QCOMPARE(values.at(3).isValid(), expected.disabled.has_value());
        QCOMPARE(values.at(3).toBool(), expected.disabled.value_or(false));
    }
    endAction();
}

void History::setValue(const QString& path)
{
    beginAction(QLatin1String("set ") + path);
    TuloRoles requested;
    requested.setValue(intValue(m_nextNumber++));
    look(path);
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    save(path, requested,
         setData(m_worker.get(), node(path), TuloRoles::Value(), requested.value().__variant()),
         before);
    endAction();
}

void History::setWholeRoles(const QString& path)
{
    beginAction(QLatin1String("set roles of ") + path);
    TuloRoles requested;
    if (below(4) != 0)
        requested.setValue(intValue(m_nextNumber++));
    if (below(2) == 0)
        requested.setTimestamp(m_nextNumber++);
    if (below(3) == 0)
        requested.setId(QStringLiteral("id%1").arg(m_nextNumber++));
    if (below(3) == 0)
        requested.setDisabled(below(2) == 0);
    look(path);
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    save(path, requested,
         setData(m_worker.get(), node(path), TuloRoles::SetRoles(), requested.__variant()), before);
    endAction();
}

void History::add(const QString& path)
{
    beginAction(QLatin1String("add to ") + path);
    const Remembered& remembered = look(path);
    const qlonglong operand = below(100);
    const qlonglong current = remembered.state ? remembered.state->value.content().toLongLong() : 0;
    TuloRoles result;
    result.setValue(intValue(current + operand));
    const TuloOperation operation(QStringLiteral("add"), intValue(operand));
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    save(path, result,
         setData(m_worker.get(), node(path), TuloRoles::ValueOperation(), operation.__variant()),
         before);
    endAction();
}

// Compares the answer to a change with the model, which then makes the change as well.
void History::save(const QString& path, const TuloRoles& requested, const CMReply<QVariant>& reply,
                   qint64 before)
{
    QVERIFY(reply.isFinished());
    Setting& changed = setting(path);
    if (!changed.isModifiable) {
        const QString text = QLatin1String("Setting is not modifiable; path:") + node(path);
        QCOMPARE(errorText(reply), QLatin1String("InternalError: ") + text);
        expectRecord(log4cplus::FATAL_LOG_LEVEL, QLatin1String("==Report== ") + text);
        return;
    }
    QCOMPARE(errorText(reply), QString());
    const TuloRoles answer(TuloHash(reply.value().toHash()));
    Remembered& remembered = m_remembered[path];
    State state = remembered.state.value_or(State());
    if (!requested.value().__isEmpty())
        state.value = requested.value();
    if (requested.timestamp() != 0) {
        state.timestamp = requested.timestamp();
    } else {
        state.timestamp = answer.timestamp();
        QVERIFY(state.timestamp >= before);
        QVERIFY(state.timestamp <= QDateTime::currentMSecsSinceEpoch());
    }
    if (!requested.id().isEmpty())
        state.id = requested.id();
    if (requested.__contains(TuloRoles::Disabled()))
        remembered.disabled = requested.disabled();

    const State answered { answer.value(), answer.timestamp(), answer.id() };
    QVERIFY2(answered == state, TuloJson::serialize(reply.value()));
    // The client's own flag, whatever is stored.
    QCOMPARE(answer.__contains(TuloRoles::Disabled()), remembered.disabled.has_value());
    QCOMPARE(answer.disabled(), requested.disabled());

    remembered.state = state;
    changed.pending = state;
    Listing& parent = listing(parentOf(path));
    parent.names.insert(nameOf(path));
    parent.exists = true;
}

void History::refusePathRole(const QString& path)
{
    beginAction(QLatin1String("send the path of ") + path);
    TuloRoles requested;
    requested.setValue(intValue(m_nextNumber++));
    requested.setPath(CMPath(node(path)));
    look(path);
    const auto reply =
        setData(m_worker.get(), node(path), TuloRoles::SetRoles(), requested.__variant());

    QCOMPARE(errorText(reply), QStringLiteral("InternalError: Role path cannot be stored"));
    expectRecord(log4cplus::ERROR_LOG_LEVEL, QStringLiteral("Role path cannot be stored"));
    endAction();
}

bool History::lookAtDirectory(const QString& directory)
{
    const auto known = m_rememberedDirectories.constFind(directory);
    if (known != m_rememberedDirectories.cend() && isCached(directory))
        return *known;
    return *m_rememberedDirectories.insert(directory, isOnDisk(directory));
}

// The names that were on disk when the directory was first met, then every saved child too. A
// directory that appears later does not enter the listing of its own parent.
Listing& History::listing(const QString& directory)
{
    const auto known = m_listings.find(directory);
    if (known != m_listings.end())
        return *known;
    const QString parent = directory == QLatin1String("/") ? QString() : directory;
    Listing found;
    found.exists = parent.isEmpty() || isOnDisk(directory);
    for (auto entry = m_settings.cbegin(); entry != m_settings.cend(); ++entry) {
        if (parentOf(entry.key()) == parent && (entry->hasDefault || entry->written))
            found.names.insert(nameOf(entry.key()));
    }
    const QSet<QString> directories = m_defaultDirectories + m_writtenDirectories;
    for (const QString& other : directories) {
        if (other != QLatin1String("/") && parentOf(other) == parent)
            found.names.insert(nameOf(other));
    }
    return *m_listings.insert(directory, found);
}

void History::list(const QString& directory)
{
    const Listing rows = listing(directory);
    // Rows that come first could push later ones out of the cache, in the middle of a request.
    if (m_worker->m_valueCache.size() + int(rows.names.size()) >= m_worker->m_valueCache.maxCost())
        dropCache();
    beginAction(QLatin1String("list ") + directory);
    const QString prefix = directory == QLatin1String("/") ? QString() : directory;
    const int first = below(3);
    const int last = below(4) == 0 ? first + below(4) : 1000;
    if (rows.exists)
        lookAtDirectory(directory);
    QStringList answeredRows;
    QString failedRow;
    int index = 0;
    for (const QString& name : rows.names) {
        if (index >= first && index <= last && failedRow.isEmpty()) {
            const QString path = prefix + QLatin1Char('/') + name;
            const bool exists =
                m_settings.contains(path) ? look(path).state.has_value() : lookAtDirectory(path);
            if (exists)
                answeredRows.append(path);
            else
                failedRow = path;
        }
        ++index;
    }
    const auto reply = getRows(m_worker.get(), node(directory), first, last,
                               { TuloRoles::Value(), TuloRoles::Timestamp(), TuloRoles::Id() });

    QVERIFY(reply.isFinished());
    if (!rows.exists) {
        QCOMPARE(errorText(reply),
                 QStringLiteral("InvalidPath: Invalid path '%1'").arg(node(directory)));
    } else if (!failedRow.isEmpty()) {
        QCOMPARE(errorText(reply),
                 QStringLiteral("InvalidPath: Invalid path '%1'").arg(node(failedRow)));
        expectRecord(log4cplus::ERROR_LOG_LEVEL,
                     QLatin1String("Loaded path is invalid: ") + node(failedRow));
    } else {
        QCOMPARE(errorText(reply), QString());
        QCOMPARE(reply.value().rowsCount(), int(rows.names.size()));
        const QVariantList answers = reply.value().rows().toList();
        QCOMPARE(answers.size(), answeredRows.size());
        for (int row = 0; row < answers.size(); ++row)
            verifyRow(answeredRows.at(row), answers.at(row).toList());
    }
    endAction();
}

void History::verifyRow(const QString& path, const QVariantList& values)
{
    if (!m_settings.contains(path)) {
        QVERIFY2(!values.at(0).isValid(), qPrintable(path));
        return;
    }
    const State answered { TuloValue(TuloHash(values.at(0).toHash())), values.at(1).toLongLong(),
                           values.at(2).toString() };
    const Remembered& remembered = m_remembered[path];
    QVERIFY2(answered == *remembered.state, path.toUtf8() + ' ' + TuloJson::serialize(values));
}

void History::drain()
{
    for (auto entry = m_settings.begin(); entry != m_settings.end(); ++entry) {
        if (!entry->pending)
            continue;
        if (entry->isBlocked) {
            expectRecord(log4cplus::ERROR_LOG_LEVEL,
                         QStringLiteral("Settings: path '%1%2/.%3' open file failed")
                             .arg(m_tree.writePath(), parentOf(entry.key()), nameOf(entry.key())));
        } else {
            entry->written = entry->pending;
            for (QString up = parentOf(entry.key()); !up.isEmpty(); up = parentOf(up))
                m_writtenDirectories.insert(up);
        }
        entry->pending.reset();
    }
}

void History::verifyFiles()
{
    for (auto entry = m_settings.cbegin(); entry != m_settings.cend(); ++entry) {
        const QVariantHash content = m_tree.readWrittenRoles(entry.key());
        QCOMPARE(content.isEmpty(), !entry->written.has_value());
        if (!entry->written)
            continue;
        const TuloRoles roles((TuloHash(content)));
        const State inFile { roles.value(), roles.timestamp(), roles.id() };
        QVERIFY2(inFile == *entry->written, TuloJson::serialize(content));
    }
}

void History::write()
{
    beginAction(QStringLiteral("write"));
    drain();
    m_worker->on_writeTimer_timeout();
    verifyFiles();
    endAction();
}

void History::flush()
{
    beginAction(QStringLiteral("flush"));
    drain();
    const auto reply = activate(m_worker.get(), TuloSettingsActionsFlush());
    QVERIFY(reply.isFinished());
    verifyFiles();
    endAction();
}

void History::dropCache()
{
    beginAction(QStringLiteral("drop the cache"));
    const auto reply = activate(m_worker.get(), TuloSettingsActionsDropCache());
    QVERIFY(reply.isFinished());
    m_remembered.clear();
    m_rememberedDirectories.clear();
    endAction();
}

// A directory where the temporary file should be.
void History::toggleBlock(const QString& path)
{
    Setting& toggled = setting(path);
    toggled.isBlocked = !toggled.isBlocked;
    const QString obstacle = parentOf(path) + QLatin1String("/.") + nameOf(path);
    if (toggled.isBlocked)
        m_tree.makeWriteDirectory(obstacle);
    else
        QDir().rmdir(m_tree.writePath() + obstacle);
    m_writtenDirectories.insert(parentOf(path));
}

} // namespace

class tst_History : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void randomHistoryMatchesTheModel_data();
    void randomHistoryMatchesTheModel();

private:
    QTemporaryDir m_programs;
};

// Thousands of flushes need no disk that is as slow.
void tst_History::initTestCase()
{
    QVERIFY(QFile::link(QStringLiteral("/bin/true"), m_programs.filePath(QStringLiteral("sync"))));
    qputenv("PATH", QFile::encodeName(m_programs.path()) + ':' + qgetenv("PATH"));
}

void tst_History::randomHistoryMatchesTheModel_data()
{
    QTest::addColumn<unsigned>("seed");
#ifdef TULO_SANITIZED
    // Ten times as slow.
    const int count = repeats(5, 50);
#else
    const int count = repeats(10, 200);
#endif
    for (int seed = 1; seed <= count; ++seed)
        QTest::addRow("seed %d", seed) << unsigned(seed);
}

void tst_History::randomHistoryMatchesTheModel()
{
    QFETCH(const unsigned, seed);
    History(seed).run();
}

QTEST_GUILESS_MAIN(tst_History)
#include "tst_history.moc"
