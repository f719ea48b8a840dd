// A setting loaded from a default tree and a writable tree that the input describes.
//
//   byte    which of the files are there, and whether log texts are built, for one in sixteen
//   chunks  the default file, the product file, the directory's .meta, the written file

#include "forgetall.h"
#include "fuzzinput.h"

#include "api/core/tulojson.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QCoreApplication>
#include <QFile>

#include <memory>
#include <utility>

namespace {

const QString path = QStringLiteral("/audio/volume");
const QString node = QStringLiteral("/settings/audio/volume");

enum Flag : unsigned { HasDefault = 1, HasProduct = 2, HasMeta = 4, HasWritten = 8 };

class Trees
{
public:
    Trees()
    {
        m_tree.makeDefaultDirectory(QStringLiteral("/audio"));
        m_tree.makeWriteDirectory(QStringLiteral("/audio"));
    }

    /// Writes the file or takes it away, and returns its roles. A default file that is no JSON
    /// ends the process, so there is none.
    QVariantHash putDefault(const QString& settingPath, bool isThere, const QByteArray& content)
    {
        return put(m_tree.defaultPath() + settingPath, isThere, content, true);
    }
    QVariantHash putWritten(bool isThere, const QByteArray& content)
    {
        return put(m_tree.writePath() + path, isThere, content, false);
    }

    std::unique_ptr<CMSettingsWorker> makeWorker()
    {
        QVariantHash config = m_tree.config();
        config.insert(QStringLiteral("product_postfix"), QStringLiteral("sport"));
        auto worker = std::make_unique<CMSettingsWorker>(config);
        delete std::exchange(worker->m_encryptionHandler, &m_handler);
        return worker;
    }

private:
    static QVariantHash put(const QString& name, bool isThere, const QByteArray& content,
                            bool isDefault)
    {
        TuloError error;
        const QVariant parsed = TuloJson::parse(content, error, nullptr);
        if (!isThere || (isDefault && !error.isEmpty())) {
            QFile::remove(name);
            return QVariantHash();
        }
        QFile file(name);
        TULO_ASSERT(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
        return parsed.toHash();
    }

    const TemporaryTree m_tree;
    NoOpEncryptionHandler m_handler;
};

/// The answer to a request for every role there is, as text; the error if it is one.
QByteArray answer(CMSettingsWorker* worker)
{
    const auto reply = getData(worker, node, TuloRoles::keys());
    TULO_ASSERT(reply.isFinished());
    const QString error = errorText(reply);
    return error.isEmpty() ? TuloJson::serialize(reply.value()) : error.toUtf8();
}

TuloValue valueOf(CMSettingsWorker* worker)
{
    const auto reply = getData(worker, node, { TuloRoles::Value() });
    return TuloValue(TuloHash(reply.value().value(0).toHash()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static int argumentCount = 0;
    static const QCoreApplication application(argumentCount, nullptr);
    static Trees trees;
    static const auto worker = trees.makeWorker();
    static const auto next = trees.makeWorker();
    FuzzInput input(data, size);
    const unsigned flags = input.byte();
    setLogging(flags >> 4 == 15);
    const QVariantHash plain = trees.putDefault(path, flags & HasDefault, input.chunk());
    const QVariantHash product =
        trees.putDefault(QStringLiteral("/audio/volume_sport"), flags & HasProduct, input.chunk());
    const QVariantHash meta =
        trees.putDefault(QStringLiteral("/audio/.meta"), flags & HasMeta, input.chunk());
    const TuloRoles written(TuloHash(trees.putWritten(flags & HasWritten, input.chunk())));
    Q_UNUSED(plain)
    Q_UNUSED(product)
    Q_UNUSED(meta)

    // The same answer whether it comes from the files or from the cache.
    forgetAll(worker.get());
    const QByteArray first = answer(worker.get());
    TULO_ASSERT(!first.isNull());
    TULO_ASSERT(answer(worker.get()) == first);
    worker->m_valueCache.clear();
    TULO_ASSERT(answer(worker.get()) == first);
    if (!written.value().__isEmpty())
        TULO_ASSERT(valueOf(worker.get()) == written.value());
    if (!written.__isEmpty())
        TULO_ASSERT(!first.startsWith("InvalidPath"));
    const auto rows = getRows(worker.get(), QStringLiteral("/settings/audio"), 0, 100,
                              { TuloRoles::Value(), TuloRoles::Title() });
    TULO_ASSERT(rows.isFinished());

    // A change is taken or refused; one that was taken is there for the next process.
    TuloRoles change;
    change.setValue(TuloValue::of(TuloValue::Int(), 5));
    const auto reply = setData(worker.get(), node, TuloRoles::SetRoles(), change.__variant());
    TULO_ASSERT(reply.isFinished());
    const TuloValue accepted = valueOf(worker.get());
    if (!errorText(reply).isEmpty())
        return 0;
    worker->on_writeTimer_timeout();
    forgetAll(next.get());
    TULO_ASSERT(valueOf(next.get()) == accepted);
    return 0;
}
