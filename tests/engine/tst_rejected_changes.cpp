#include "engine/engine.h"

#include "api/core/model/cmoperation.h"
#include "api/core/tulojson.h"
#include "tests/support/enginechanges.h"
#include "tests/support/logcapture.h"
#include "tests/support/registryobserver.h"
#include "tests/support/repeats.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QMap>
#include <QTest>

#include <memory>
#include <random>

using namespace tulo;

// No test waits for a disk.
extern "C" int syncfs(int)
{
    return 0;
}

namespace {

constexpr int stepsOfASequence = 20;

const QStringList settings {
    QStringLiteral("/settings/audio/volume"),   QStringLiteral("/settings/audio/gain"),
    QStringLiteral("/settings/audio/loudness"), QStringLiteral("/settings/audio/mode"),
    QStringLiteral("/settings/audio/sources"),  QStringLiteral("/settings/audio/free"),
    QStringLiteral("/settings/audio/serial"),   QStringLiteral("/settings/list/new"),
    QStringLiteral("/settings/none/new"),       QStringLiteral("/settings/audio")
};

/// Everything that a change could touch, as text.
QStringList traceOf(Engine& engine, const TemporaryTree& tree, const RegistryObserver& observer)
{
    QStringList trace;
    const QStringList entries = tree.writtenEntries();
    for (const QString& entry : entries) {
        const bool isDirectory = entry.endsWith(QLatin1Char('/'));
        trace.append(entry + QLatin1Char(' ')
                     + (isDirectory ? QString() : QString::fromUtf8(tree.readWritten(entry))));
    }
    for (const QString& setting : settings) {
        const auto reply = engine.dispatcher().getData(
            CMPath(setting), { TuloRoles::Value(), TuloRoles::Timestamp(), TuloRoles::Id() });
        trace.append(setting + QLatin1Char(' ') + errorText(reply));
        if (errorText(reply).isEmpty())
            trace.append(QString::fromUtf8(TuloJson::serialize(reply.value())));
    }
    for (const char* directory : { "/settings", "/settings/audio", "/settings/list" }) {
        const CMPath path(QString::fromLatin1(directory));
        trace.append(QString::number(engine.registry()->rowsVersion(path)));
    }
    return trace + observer.texts() + engine.writes().pendingPaths();
}

} // namespace

/// Random sequences of valid and invalid changes: what is rejected or refused leaves no trace.
class tst_rejected_changes : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void rejectedChangesLeaveNoTrace();

private:
    int pick(int count) { return std::uniform_int_distribution<int>(0, count - 1)(m_random); }
    TuloValue randomValue();
    CMReply<QVariant> change(Dispatcher& dispatcher, const CMPath& path);

    std::mt19937 m_random;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<TemporaryTree> m_tree;
};

void tst_rejected_changes::init()
{
    m_log = std::make_unique<LogCapture>();
    m_tree = std::make_unique<TemporaryTree>();
    m_tree->writeDefault(QStringLiteral("/audio/.meta"), R"({"modifiable":false})");
    m_tree->writeDefault(QStringLiteral("/audio/volume"),
                         R"({"value":{"int":35},"edit":{"min":0,"max":100,"step":5}})");
    m_tree->writeDefault(QStringLiteral("/audio/gain"),
                         R"({"value":{"double":0.5},"edit":{"min":-1,"max":1}})");
    m_tree->writeDefault(QStringLiteral("/audio/loudness"), R"({"value":{"bool":true}})");
    m_tree->writeDefault(QStringLiteral("/audio/mode"),
                         R"({"value":{"string":"a"},"edit":{"values":["a","b","c"]}})");
    m_tree->writeDefault(QStringLiteral("/audio/sources"),
                         R"({"value":{"list":["fm"]},"edit":{"kind":"list","maxLength":3}})");
    m_tree->writeDefault(QStringLiteral("/audio/free"), R"({"title":"Free"})");
    m_tree->writeDefault(QStringLiteral("/audio/serial"),
                         R"({"value":{"string":"X1"},"modifiable":false})");
    m_tree->writeDefault(QStringLiteral("/list/.meta"), R"({"value":{"int":1}})");
}

void tst_rejected_changes::cleanup()
{
    m_log->verifyNothingUnexpected();
    m_log.reset();
    m_tree.reset();
}

TuloValue tst_rejected_changes::randomValue()
{
    switch (pick(7)) {
    case 0:
        return TuloValue::of(TuloValue::Int(), pick(200) - 50);
    case 1:
        return TuloValue::of(TuloValue::Double(), (pick(100) - 50) / 20.0);
    case 2:
        return TuloValue::of(TuloValue::Bool(), pick(2) == 1);
    case 3:
        return TuloValue::of(TuloValue::String(),
                             QString(QChar(char16_t('a' + pick(6)))).repeated(1 + pick(2)));
    case 4:
        return TuloValue::of(
            TuloValue::List(),
            QVariantList { QStringLiteral("fm"), 1, true, 0.5, QVariantList() }.mid(0, pick(6)));
    case 5:
        return TuloValue::of(TuloValue::String(), QString(60000, QLatin1Char('x')));
    default:
        return TuloValue();
    }
}

CMReply<QVariant> tst_rejected_changes::change(Dispatcher& dispatcher, const CMPath& path)
{
    const int way = pick(3);
    if (way == 0)
        return sendValue(dispatcher, path, randomValue());
    if (way == 1) {
        const QStringList verbs = CMOperation::verbs() + QStringList(QStringLiteral("halve"));
        return sendOperation(dispatcher, path,
                             TuloOperation(verbs.at(pick(verbs.size())), randomValue()));
    }
    TuloRoles roles;
    roles.setValue(randomValue());
    roles.setId(QString::number(pick(100)));
    if (pick(4) == 0)
        roles.__setHashAttribute(TuloRoles::Path(), QVariantHash());
    return sendRoles(dispatcher, path, roles);
}

void tst_rejected_changes::rejectedChangesLeaveNoTrace()
{
    int accepted = 0;
    QMap<ErrorCode, int> failures;
    EngineOptions options;
    options.pluginFile = QStringLiteral(TULO_PLUGIN_FILE);
    options.defaultPath = m_tree->defaultPath();
    options.writePath = m_tree->writePath();
    options.access = EngineOptions::Access::Own;
    const int sequences = repeats(60, 300);
    for (int sequence = 0; sequence < sequences; ++sequence) {
        m_random.seed(unsigned(sequence));
        EngineFailure failure;
        const std::unique_ptr<Engine> engine = Engine::open(options, &failure);
        QVERIFY2(engine != nullptr, qPrintable(failure.message));
        RegistryObserver observer(engine->registry());
        observer.observe();
        for (int step = 0; step < stepsOfASequence; ++step) {
            const CMPath path(settings.at(pick(settings.size())));
            if (pick(8) == 0)
                QCOMPARE(flushed(*engine).error, QString());
            if (pick(8) == 0)
                QCOMPARE(errorText(engine->dispatcher().dropCache()), QString());
            const QStringList before = traceOf(*engine, *m_tree, observer);

            const CMReply<QVariant> reply = change(engine->dispatcher(), path);

            const ErrorCode kind = errorCode(reply.error());
            if (kind == ErrorCode::None) {
                ++accepted;
                continue;
            }
            ++failures[kind];
            const QString what =
                QStringLiteral("sequence %1, step %2: %3")
                    .arg(QString::number(sequence), QString::number(step), errorText(reply));
            QVERIFY2(traceOf(*engine, *m_tree, observer) == before, qPrintable(what));
        }
        QVERIFY(engine->stop());
    }
    // Each way out was taken often.
    QVERIFY(accepted > sequences);
    QVERIFY(failures.value(ErrorCode::Rejected) > sequences);
    QVERIFY(failures.value(ErrorCode::Refused) > sequences);
    QVERIFY(failures.value(ErrorCode::Limits) > sequences / 4);
    QVERIFY(failures.value(ErrorCode::NotModifiable) > sequences / 4);
    QCOMPARE(failures.value(ErrorCode::Internal), 0);
}

QTEST_GUILESS_MAIN(tst_rejected_changes)
#include "tst_rejected_changes.moc"
