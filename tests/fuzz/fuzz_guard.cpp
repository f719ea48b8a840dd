// Whatever path the guard lets pass names a place inside the trees, and whatever value it lets
// pass can be written.
//
//   byte    which kind of request
//   chunks  the path, the value as JSON

#include "forgetall.h"
#include "fuzzinput.h"

#include "engine/guard.h"

#include "api/core/tulojson.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <utility>

using namespace tulo;

namespace {

/// A writable tree with links that lead out of it.
class Stage
{
public:
    Stage()
        : m_worker(m_tree.config())
        , m_guard(&m_worker, m_tree.defaultPath(), m_tree.writePath())
    {
        delete std::exchange(m_worker.m_encryptionHandler, &m_handler);
        m_tree.writeDefault(QStringLiteral("/audio/.meta"), QVariantHash {});
        m_tree.writeDefault(QStringLiteral("/audio/volume"), QByteArrayLiteral("{\"value\":{}}"));
        m_tree.writeDefault(QStringLiteral("/out/.meta"), QVariantHash {});
        m_tree.writeDefault(QStringLiteral("/out/a"), QByteArrayLiteral("{\"value\":{}}"));
        m_tree.makeWriteDirectory(QStringLiteral("/audio"));
        QDir().mkpath(m_tree.path() + QLatin1String("/elsewhere"));
        QFile::link(m_tree.path() + QLatin1String("/elsewhere"),
                    m_tree.writePath() + QLatin1String("/out"));
        QFile::link(m_tree.path() + QLatin1String("/elsewhere/file"),
                    m_tree.writePath() + QLatin1String("/audio/link"));
    }

    CMRequest admit(const CMRequest& request, CMError* error)
    {
        // What it remembers of earlier inputs must not decide.
        forgetAll(&m_worker);
        return m_guard.admit(request, error);
    }

    /// The place of a setting path that is to be written, with all links followed.
    QString writtenPlace(const QString& settingPath) const
    {
        QFileInfo place(m_tree.writePath() + settingPath);
        while (!place.exists() && !place.isSymLink())
            place = QFileInfo(place.path());
        return place.isSymLink() ? place.symLinkTarget() : place.canonicalFilePath();
    }
    bool isInWritableTree(const QString& place) const
    {
        return place == m_tree.writePath()
            || place.startsWith(m_tree.writePath() + QLatin1Char('/'));
    }

private:
    const TemporaryTree m_tree;
    NoOpEncryptionHandler m_handler;
    CMSettingsWorker m_worker;
    Guard m_guard;
};

void checkPath(const QString& settingPath)
{
    // As a file system would read it.
    const QString below = QStringLiteral("/tree") + settingPath;
    TULO_ASSERT(QDir::cleanPath(below) == below || settingPath == QLatin1String("/"));
    TULO_ASSERT(!settingPath.contains(QChar(0)));
    TULO_ASSERT(!settingPath.contains(QLatin1String("/.")));
    const QStringList names = settingPath.split(QLatin1Char('/'));
    for (const QString& name : names)
        TULO_ASSERT(QFile::encodeName(name).size() <= 254);
    TULO_ASSERT(QFile::decodeName(QFile::encodeName(settingPath)) == settingPath);
}

CMRequest makeRequest(unsigned kind, const CMPath& path, const QVariant& value)
{
    switch (kind % 5) {
    case 0:
        return CMGetDataRequest(path, TuloRoles::keys(), CMGetDataRequest::Reply::create());
    case 1:
        return CMGetRowsRequest(path, 0, 1000, {}, CMGetRowsRequest::Reply::create());
    case 2:
        return CMSetDataRequest(path, TuloRoles::SetRoles(), value,
                                CMSetDataRequest::Reply::create());
    case 3:
        return CMSetDataRequest(path, TuloRoles::ValueOperation(), value,
                                CMSetDataRequest::Reply::create());
    default:
        return CMSetDataRequest(path, TuloRoles::Value(), value, CMSetDataRequest::Reply::create());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static int argumentCount = 0;
    static const QCoreApplication application(argumentCount, nullptr);
    static Stage stage;
    setLogging(false);
    FuzzInput input(data, size);
    const unsigned kind = input.byte();
    const CMPath path(input.text());
    TuloError parseError;
    const QVariant value = TuloJson::parse(input.chunk(), parseError, nullptr);
    const CMRequest request = makeRequest(kind, path, value);

    CMError error;
    const CMRequest admitted = stage.admit(request, &error);
    const bool isChange = request.kind() == CMRequest::Kind::SetData;
    if (!error.name().isEmpty()) {
        TULO_ASSERT(!error.message().isEmpty());
        TULO_ASSERT(!request.voidReply().isFinished());
        return 0;
    }

    TULO_ASSERT(admitted.path() == path);
    const QString base = path.base();
    const QString settingPath = base.startsWith(QLatin1Char('/')) ? base : QLatin1Char('/') + base;
    checkPath(settingPath);
    const QString text = path.text();
    const bool isServed = text == QLatin1String("settings") || text == QLatin1String("/settings")
        || text.startsWith(QLatin1String("settings/"))
        || text.startsWith(QLatin1String("/settings/"));
    if (!isChange || !isServed)
        return 0;
    TULO_ASSERT(stage.isInWritableTree(stage.writtenPlace(settingPath)));
    TULO_ASSERT(!TuloJson::serialize(CMSetDataRequest(admitted).value()).isNull());
    return 0;
}
