// Sequences of requests through the client. Each is answered once, nothing ends the process,
// and nothing but well-formed files in the writable tree comes of it.
//
//   byte          whether log texts are built
//   per request   a byte for its kind, one for the path, and what the kind needs

#include "forgetall.h"
#include "fuzzinput.h"

#include "engine/dispatcher.h"
#include "engine/guard.h"
#include "engine/router.h"

#include "api/core/tulojson.h"
#include "tests/support/enginechanges.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QCoreApplication>
#include <QDir>

#include <memory>
#include <utility>

using namespace tulo;

namespace {

constexpr int mostRequests = 64;

const QStringList paths {
    QStringLiteral("/settings/audio/volume"),
    QStringLiteral("/settings/audio/name"),
    QStringLiteral("/settings/audio/list"),
    QStringLiteral("/settings/audio/fixed"),
    QStringLiteral("/settings/audio"),
    QStringLiteral("/settings"),
    QStringLiteral("/settings/audio/new"),
    QStringLiteral("/settings/audio/new/below"),
    QStringLiteral("settings/audio/volume"),
    QStringLiteral("/settings/empty/first"),
    QStringLiteral("/settings/empty"),
    QStringLiteral("/settings/nowhere/x"),
    QStringLiteral("/settings/../audio/volume"),
    QStringLiteral("/settings/audio/.meta"),
    QStringLiteral("/settings/actions/flush"),
    QStringLiteral("/settings/actions/dropCache"),
    QStringLiteral("/elsewhere/audio"),
    QStringLiteral("/settings/audio/"),
    QStringLiteral("/settings/audio/volume/deep"),
};

const QByteArray meta = QByteArrayLiteral("{\"title\":\"Audio\"}");
const QByteArray volume =
    QByteArrayLiteral("{\"value\":{\"int\":7},\"edit\":{\"min\":0,\"max\":40,\"step\":2}}");

/// An engine's parts on trees that are the same before each sequence.
class Stage
{
public:
    explicit Stage(const TemporaryTree& tree)
        : worker(tree.config())
        , m_guard(&worker, tree.defaultPath(), tree.writePath())
        , dispatcher(&m_router, &m_guard)
    {
        delete std::exchange(worker.m_encryptionHandler, &m_handler);
        m_router.addWorker(&worker);
    }
    ~Stage() { m_router.removeWorker(&worker); }
    Q_DISABLE_COPY(Stage)

    CMSettingsWorker worker;

private:
    NoOpEncryptionHandler m_handler;
    Router m_router;
    Guard m_guard;

public:
    Dispatcher dispatcher;
};

CMPath takePath(FuzzInput* input)
{
    const unsigned choice = input->byte();
    // One in eight is made of the input itself.
    if (choice % 8 == 7)
        return CMPath(QLatin1String("/settings/audio/") + input->text());
    return CMPath(paths.at(int(choice) % paths.size()));
}

QVariant takeJson(FuzzInput* input)
{
    TuloError error;
    return TuloJson::parse(input->chunk(), error, nullptr);
}

void perform(FuzzInput* input, Stage* stage)
{
    const unsigned kind = input->byte();
    const CMPath path = takePath(input);
    Dispatcher& dispatcher = stage->dispatcher;
    CMVoidReply reply;
    switch (kind % 10) {
    case 0:
    case 1:
        reply = dispatcher.getData(path, TuloRoles::keys());
        break;
    case 2: {
        const auto first = qint32(std::int8_t(input->byte()));
        const auto last = qint32(input->byte() << 24 | input->byte());
        reply = dispatcher.getRows(path, first, last, { TuloRoles::Value() });
        break;
    }
    case 3:
    case 4:
        reply = sendChange(dispatcher, path, TuloRoles::Value(), takeJson(input));
        break;
    case 5:
        reply = sendChange(dispatcher, path, TuloRoles::SetRoles(), takeJson(input));
        break;
    case 6:
        reply = sendChange(dispatcher, path, TuloRoles::ValueOperation(), takeJson(input));
        break;
    case 7:
        // Any role; the flush action, which runs a program, stays out.
        reply = sendChange(dispatcher, path == CMPath(paths.at(14)) ? CMPath(paths.at(15)) : path,
                           input->text(), takeJson(input));
        break;
    case 8:
        stage->worker.on_writeTimer_timeout();
        return;
    default:
        reply = dispatcher.dropCache();
        break;
    }
    TULO_ASSERT(reply.isFinished());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static int argumentCount = 0;
    static const QCoreApplication application(argumentCount, nullptr);
    static const TemporaryTree tree;
    static const QStringList defaults = [] {
        tree.writeDefault(QStringLiteral("/audio/.meta"), meta);
        tree.writeDefault(QStringLiteral("/audio/volume"), volume);
        tree.writeDefault(
            QStringLiteral("/audio/name"),
            QByteArrayLiteral("{\"value\":{\"string\":\"x\"},\"edit\":{\"maxLength\":8}}"));
        tree.writeDefault(QStringLiteral("/audio/list"),
                          QByteArrayLiteral("{\"value\":{\"list\":[1,2]}}"));
        tree.writeDefault(QStringLiteral("/audio/fixed"),
                          QByteArrayLiteral("{\"value\":{\"bool\":true},\"modifiable\":false}"));
        tree.writeDefault(QStringLiteral("/empty/.meta"), meta);
        return tree.defaultEntries();
    }();
    FuzzInput input(data, size);
    setLogging(input.byte() % 8 == 7);

    static Stage stage(tree);
    forgetAll(&stage.worker);
    for (int request = 0; request < mostRequests && !input.atEnd(); ++request)
        perform(&input, &stage);
    stage.worker.on_writeTimer_timeout();

    const QStringList written = tree.writtenEntries();
    for (const QString& entry : written) {
        if (entry.endsWith(QLatin1Char('/')))
            continue;
        TULO_ASSERT(!entry.contains(QLatin1String("/.")));
        TULO_ASSERT(!tree.readWrittenRoles(entry).isEmpty());
    }
    TULO_ASSERT(tree.defaultEntries() == defaults);
    TULO_ASSERT(tree.readDefault(QStringLiteral("/audio/volume")) == volume);
    TULO_ASSERT(QDir(tree.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).size() == 2);
    if (!written.isEmpty()) {
        QDir(tree.writePath()).removeRecursively();
        QDir().mkpath(tree.writePath());
    }
    return 0;
}
