#include "engine/engine.h"
#include "trees/plainroles.h"
#include "trees/treereader.h"

#include "api/core/tulojson.h"
#include "tests/support/repeats.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <log4cplus/logger.h>

#include <memory>

using namespace tulo;

namespace {

const QString otherRole = QStringLiteral("somethingElse");

CMPath servedPath(const QString& path)
{
    return CMPath(QStringLiteral("/settings") + (path == QLatin1String("/") ? QString() : path));
}

/// Two trees as nobody would make them on purpose: what is in one is a directory in the other,
/// roles have wrong types, written files are broken, links lead back. Names repeat, so that the
/// trees, variants and templates meet. No default file is broken: the worker would end the process.
class RandomTrees
{
public:
    RandomTrees(quint32 seed, const QString& folder)
        : m_random(seed)
        , m_defaultPath(folder + QStringLiteral("/default"))
        , m_writePath(folder + QStringLiteral("/written"))
    {
        fillDefault(m_defaultPath, 0);
        fillWritten(m_writePath, 0);
        // The layers meet at the top at least.
        for (const QString& file : { m_defaultPath + QStringLiteral("/volume"),
                                     m_defaultPath + QStringLiteral("/volume_sport"),
                                     m_writePath + QStringLiteral("/volume") }) {
            if (!QFileInfo::exists(file) && !QFileInfo(file).isSymLink())
                save(file, object());
        }
    }

    const QString& defaultPath() const { return m_defaultPath; }
    const QString& writePath() const { return m_writePath; }

private:
    bool chance(int percent) { return int(m_random.bounded(100)) < percent; }

    template<typename T>
    T one(const QVector<T>& choices)
    {
        return choices.at(int(m_random.bounded(choices.size())));
    }

    QString name()
    {
        if (chance(40))
            return chance(50) ? QStringLiteral("volume") : QStringLiteral("volume_sport");
        return one<QString>({ QStringLiteral("volume"), QStringLiteral("volume_sport"),
                              QStringLiteral("volume_"), QStringLiteral("volume_sport_sport"),
                              QStringLiteral("bass"), QStringLiteral("bass_comfort"),
                              QStringLiteral("Zone"), QStringLiteral("zone"),
                              QStringLiteral(u"l\u00e4rm"), QStringLiteral("a b"),
                              QStringLiteral("audio"), QStringLiteral("audio_sport") });
    }

    void save(const QString& file, const QByteArray& content)
    {
        QFile opened(file);
        if (!opened.open(QIODevice::WriteOnly) || opened.write(content) != content.size())
            qFatal("cannot write %s", qPrintable(file));
    }

    QVariant value()
    {
        return one<QVariant>(
            { QVariantHash { { QStringLiteral("int"), 5LL } },
              QVariantHash { { QStringLiteral("double"), 5LL } },
              QVariantHash { { QStringLiteral("double"), 0.5 } },
              QVariantHash { { QStringLiteral("string"), QStringLiteral("x") } },
              QVariantHash { { QStringLiteral("list"), QVariantList { 1LL, QVariant() } } },
              QVariantHash { { QStringLiteral("bool"), false } },
              QVariantHash { { QStringLiteral("int"), 1LL }, { QStringLiteral("bool"), true } },
              QVariantHash { { QStringLiteral("strange"), 1LL } }, QVariantHash(), 5LL,
              QVariant() });
    }

    QVariant text()
    {
        return one<QVariant>({ QStringLiteral("A text"), QStringLiteral(""),
                               QStringLiteral("%1 & \u00e4"), QString(QChar(0)), 5LL, true,
                               QVariantList { 1LL }, QVariantHash(), QVariant() });
    }

    QVariant anything(const QString& role)
    {
        if (role == TuloRoles::Value() || role == TuloRoles::DefaultValue())
            return value();
        if (role == TuloRoles::Timestamp())
            return one<QVariant>({ 1700000000000LL, 0LL, QStringLiteral("7"), 1.5, QVariant() });
        if (role == TuloRoles::Type())
            return one<QVariant>({ 101LL, 0LL, 1LL, 7LL, QStringLiteral("x") });
        if (role == TuloRoles::Encrypted() || role == TuloRoles::Modifiable())
            return one<QVariant>({ true, false, QStringLiteral("no"), QVariant() });
        if (role == TuloRoles::Edit())
            return one<QVariant>({ QVariantHash { { QStringLiteral("max"), 9LL } }, 5LL });
        return text();
    }

    QByteArray object()
    {
        QVariantHash roles;
        const QStringList names = TuloRoles::keys() + QStringList { otherRole };
        const int count = chance(10) ? 0 : int(m_random.bounded(7));
        for (int i = 0; i < count; ++i) {
            QString role = names.at(int(m_random.bounded(names.size())));
            if (chance(50))
                role = one<QString>({ TuloRoles::Value(), TuloRoles::Value(), TuloRoles::Title(),
                                      TuloRoles::Encrypted(), TuloRoles::EncryptedValue(),
                                      TuloRoles::Timestamp(), TuloRoles::Id() });
            roles.insert(role, anything(role));
        }
        return TuloJson::serialize(roles);
    }

    QByteArray defaultDocument()
    {
        return chance(90) ? object() : one<QByteArray>({ "{}", "5", "\"x\"", "[]", "null" });
    }

    QByteArray writtenDocument()
    {
        return chance(75)
            ? object()
            : one<QByteArray>({ "", "{", "{}", "null", "5", "\xEF\xBB\xBF{}", "[1]", "{\"a\":}",
                                "\xFF", "{\"value\":{\"int\":1},\"value\":{\"int\":2}}" });
    }

    void fillDefault(const QString& directory, int depth)
    {
        QDir().mkpath(directory);
        if (chance(60))
            save(directory + QStringLiteral("/.meta"), defaultDocument());
        fill(directory, depth, true);
    }

    void fillWritten(const QString& directory, int depth)
    {
        QDir().mkpath(directory);
        if (chance(20))
            save(directory + QStringLiteral("/.meta"), writtenDocument());
        if (chance(20))
            save(directory + QStringLiteral("/.volume"), writtenDocument());
        fill(directory, depth, false);
    }

    // Not out of the tree, and not to itself, which the engine refuses to read.
    void addLink(const QString& file, int depth)
    {
        const QString target = one<QString>(
            { QStringLiteral("."), depth > 0 ? QStringLiteral("..") : QStringLiteral("."),
              QStringLiteral("nowhere"), QStringLiteral("audio"), QStringLiteral("volume") });
        const bool isThere = QFileInfo::exists(QFileInfo(file).path() + QLatin1Char('/') + target);
        if (isThere || target == QLatin1String("nowhere"))
            QFile::link(target, file);
    }

    void fill(const QString& directory, int depth, bool isDefault)
    {
        const int count = 2 + int(m_random.bounded(5));
        for (int i = 0; i < count; ++i) {
            const QString file = directory + QLatin1Char('/') + name();
            if (QFileInfo::exists(file) || QFileInfo(file).isSymLink())
                continue;
            if (depth < 2 && chance(30)) {
                if (isDefault)
                    fillDefault(file, depth + 1);
                else
                    fillWritten(file, depth + 1);
            } else if (chance(10)) {
                addLink(file, depth);
            } else {
                save(file, isDefault ? defaultDocument() : writtenDocument());
            }
        }
    }

    QRandomGenerator m_random;
    const QString m_defaultPath;
    const QString m_writePath;
};

} // namespace

/// The trees read without a worker are what the worker serves.
class tst_tree_agreement : public QObject
{
    Q_OBJECT

private slots:
    void randomTreesReadAsTheWorkerServesThem();
    void exampleTreeReadsAsTheWorkerServesIt_data();
    void exampleTreeReadsAsTheWorkerServesIt();

private:
    void compareTrees(const QString& defaultPath, const QString& writePath, const QString& product);
    void compareBelow(const QString& path, int depth);
    void compareListing(const QString& path, const QStringList& names);
    void compareNode(const QString& path);
    void compareExplanation(const QString& path, const TuloRoles& roles);

    std::unique_ptr<Engine> m_engine;
    std::unique_ptr<TreeReader> m_reader;
    QStringList m_listed; ///< what listings lead to, in their order
    int m_maximumDepth = 4; ///< links lead back
    int m_nodes = 0;
    int m_missing = 0;
    QHash<QString, int> m_seen; ///< entries of explanations, by layer and state
};

void tst_tree_agreement::compareTrees(const QString& defaultPath, const QString& writePath,
                                      const QString& product)
{
    EngineOptions options;
    options.pluginFile = QStringLiteral(TULO_PLUGIN_FILE);
    options.defaultPath = defaultPath;
    options.writePath = writePath;
    options.productPostfix = product;
    EngineFailure failure;
    m_engine = Engine::open(options, &failure);
    QVERIFY2(m_engine != nullptr, qPrintable(failure.message));
    m_reader = std::make_unique<TreeReader>(defaultPath, writePath, product);
    m_listed.clear();

    compareBelow(QStringLiteral("/"), 0);
    for (const char* nothing : { "/nothing", "/audio/nothing", "/volume/nothing" })
        compareNode(QString::fromLatin1(nothing));
    m_engine.reset();
}

void tst_tree_agreement::compareBelow(const QString& path, int depth)
{
    compareNode(path);
    if (QTest::currentTestFailed() || depth == m_maximumDepth)
        return;
    if (m_reader->exists(path))
        m_listed.append(path);
    if (!m_reader->isDirectory(path))
        return;
    const QStringList names = m_reader->children(path);
    compareListing(path, names);
    for (const QString& name : names) {
        if (!QTest::currentTestFailed())
            compareBelow((path == QLatin1String("/") ? QString() : path) + QLatin1Char('/') + name,
                         depth + 1);
    }
}

void tst_tree_agreement::compareListing(const QString& path, const QStringList& names)
{
    CMError error;
    const DirectoryRows rows =
        m_engine->dispatcher().rows(servedPath(path), 0, 500, { TuloRoles::Value() }, &error);

    QCOMPARE(rows.count, names.size());
    QStringList served;
    for (const DirectoryRow& row : rows.rows) {
        served.append(row.name);
        const QString rowPath = row.path.base();
        // A setting may claim to be one.
        if (errorCode(row.error) == ErrorCode::None)
            QCOMPARE(row.isDirectory, m_reader->roles(rowPath).type() == TuloRolesType::Directory);
    }
    QCOMPARE(served, names);
}

void tst_tree_agreement::compareNode(const QString& path)
{
    ++m_nodes;
    const QStringList names = TuloRoles::keys() + QStringList { otherRole };
    const CMGetDataRequest::Reply reply = m_engine->dispatcher().getData(servedPath(path), names);

    const ErrorCode code = errorCode(reply.error());
    QVERIFY(code == ErrorCode::None || code == ErrorCode::InvalidPath);
    QVERIFY2(m_reader->exists(path) == (code == ErrorCode::None), qPrintable(path));
    if (code != ErrorCode::None) {
        ++m_missing;
        return;
    }
    const QList<QVariant> values = reply.value();
    const TuloRoles roles = m_reader->roles(path);
    TuloRoles served;
    for (int i = 0; i < names.size(); ++i) {
        // The worker does not tell null from absent.
        if (values.at(i).isValid() || roles.__contains(names.at(i)))
            served.__setHashAttribute(names.at(i), values.at(i));
    }
    QVERIFY2(roles == served,
             (path.toUtf8() + TuloJson::serialize(roles.__variant()) + " is served as "
              + TuloJson::serialize(served.__variant()))
                 .constData());
    const QString defect = m_reader->defect(path);
    QVERIFY2(defect.isEmpty() || defect.endsWith(QLatin1String(" is not an object")),
             qPrintable(defect));
    compareExplanation(path, served);
}

void tst_tree_agreement::compareExplanation(const QString& path, const TuloRoles& roles)
{
    const QVariantMap served = plainRoles(roles.__variant().toHash());

    QVariantMap effective;
    const QVector<RoleOrigin> origins = m_reader->explain(path);
    for (const RoleOrigin& origin : origins) {
        ++m_seen[nameOf(origin.layer) + QLatin1Char(' ') + nameOf(origin.state)];
        QCOMPARE(origin.file.isEmpty(), origin.layer == RoleOrigin::Layer::BuiltIn);
        QCOMPARE(origin.reason.isEmpty(), origin.state == RoleOrigin::State::Effective);
        if (!origin.file.isEmpty())
            QVERIFY(QFileInfo(origin.file).isFile());
        if (origin.state != RoleOrigin::State::Effective)
            continue;
        QVERIFY2(!effective.contains(origin.role), qPrintable(path + origin.role));
        effective.insert(origin.role, origin.value);
    }
    QCOMPARE(TuloJson::serialize(effective), TuloJson::serialize(served));
    QCOMPARE(effective, served);
}

void tst_tree_agreement::randomTreesReadAsTheWorkerServesThem()
{
    log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("CMSettingsWorker"))
        .setAdditivity(false); // records about the broken files
    for (int i = 0; i < repeats(60, 1000); ++i) {
        const QTemporaryDir folder;
        const RandomTrees trees(quint32(i), folder.path());
        const QVector<QString> products { QString(), QStringLiteral(""), QStringLiteral("sport"),
                                          QStringLiteral("sport") };

        compareTrees(trees.defaultPath(), trees.writePath(), products.at(i % products.size()));

        if (QTest::currentTestFailed())
            QFAIL(qPrintable(QStringLiteral("tree %1").arg(i)));
    }

    // The trees held enough of everything.
    QVERIFY(m_nodes > 1000);
    QVERIFY(m_missing > 100);
    for (const char* kind :
         { "builtIn effective", "template effective", "template hidden", "default effective",
           "default hidden", "default ignored", "product effective", "product hidden",
           "written effective", "written ignored", "written hidden" })
        QVERIFY2(m_seen.value(QString::fromLatin1(kind)) >= repeats(1, 20), kind);
}

void tst_tree_agreement::exampleTreeReadsAsTheWorkerServesIt_data()
{
    QTest::addColumn<QString>("product");
    QTest::newRow("no product") << QString();
    QTest::newRow("sport") << QStringLiteral("sport");
}

void tst_tree_agreement::exampleTreeReadsAsTheWorkerServesIt()
{
    QFETCH(const QString, product);
    const QTemporaryDir folder;
    m_nodes = 0;
    m_maximumDepth = 15;

    compareTrees(QStringLiteral(TULO_EXAMPLE_TREE), folder.path(), product);

    QVERIFY(m_nodes > 100);
    const TreeReader reader(QStringLiteral(TULO_EXAMPLE_TREE), folder.path(), product);
    QCOMPARE(reader.nodes(QStringLiteral("/")), m_listed);
}

QTEST_GUILESS_MAIN(tst_tree_agreement)
#include "tst_tree_agreement.moc"
