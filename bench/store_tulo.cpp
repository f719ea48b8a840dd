#include "store_tulo.h"

#include "engine/loader.h"
#include "engine/localsettings.h"

#include "api/core/model/tulosettingsactions.h"

#include <QCoreApplication>

#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

using namespace tulo;

namespace {

const QString prefix = QStringLiteral("/settings/");

void writeText(const std::filesystem::path& file, const std::string& text)
{
    std::ofstream stream(file, std::ios::binary);
    stream << text;
    if (!stream.flush())
        throw std::runtime_error("cannot write " + file.string());
}

// As on a device: the milestones are recorded, entries and single changes are not.
void configureLog()
{
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    if (!root.getAllAppenders().empty())
        return;
    root.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));
    root.setLogLevel(log4cplus::INFO_LOG_LEVEL);
}

void fill(const std::string& directory, const Shape& shape)
{
    for (const std::string& tree : { defaultTree(directory), writableTree(directory) }) {
        std::filesystem::create_directory(tree);
        for (int setting = 0; setting < shape.settings; setting += shape.perDirectory)
            std::filesystem::create_directory(tree + "/" + shape.directory(setting));
    }
    for (int setting = 0; setting < shape.settings; ++setting) {
        const std::string name = "/" + shape.directory(setting) + "/" + shape.name(setting);
        writeText(defaultTree(directory) + name, defaultFileText(setting, 0));
        writeText(writableTree(directory) + name, writtenFileText(shape.value(setting)));
    }
    for (int setting = 0; setting < shape.settings; setting += shape.perDirectory) {
        writeText(defaultTree(directory) + "/" + shape.directory(setting) + "/.meta",
                  R"({"title":"A group","description":"Settings that belong together"})");
    }
}

// The worker's timer needs one; the subjects of the driver have none of their own.
void ensureApplication()
{
    if (QCoreApplication::instance() != nullptr)
        return;
    static int argc = 1;
    static char name[] = "bench";
    static char* argv[] = { name, nullptr };
    static const QCoreApplication application(argc, argv);
}

std::unique_ptr<Store> open(const std::string& directory, const Shape& shape)
{
    ensureApplication();
    return std::make_unique<TuloStore>(directory, shape);
}

std::string version()
{
    return TULO_VERSION;
}

} // namespace

const StoreKind tuloStore { "tulo", version, fill, open };

std::unique_ptr<Settings> openSettings(const std::string& directory)
{
    configureLog();
    EngineOptions options;
    options.pluginFile = QStringLiteral(TULO_PLUGIN_FILE);
    options.defaultPath = QString::fromStdString(defaultTree(directory));
    options.writePath = QString::fromStdString(writableTree(directory));
    options.access = EngineOptions::Access::Own;
    EngineFailure failure;
    std::unique_ptr<Settings> settings = LocalSettings::open(options, &failure);
    if (!settings)
        throw std::runtime_error(failure.message.toStdString());
    return settings;
}

std::string defaultTree(const std::string& directory)
{
    return directory + "/default";
}

std::string writableTree(const std::string& directory)
{
    return directory + "/written";
}

std::string defaultFileText(int setting, int value)
{
    return R"({"title":"Setting )" + std::to_string(setting)
        + R"(","description":"One of the many settings that each store is measured on, with a )"
          R"(text of usual length","type":101,"permission":"readWrite","valueUnit":"percent",)"
          R"("modifiable":true,"value":{"int":)"
        + std::to_string(value) + R"(},"edit":{"kind":"int","min":0,"max":1000000000,"step":1}})";
}

std::string writtenFileText(int value)
{
    return R"({"timestamp":1700000000000,"value":{"int":)" + std::to_string(value) + "}}";
}

TuloStore::TuloStore(const std::string& directory, const Shape& shape)
    : m_shape(shape)
{
    configureLog();
    LoadResult result = loadWorker(
        QStringLiteral(TULO_PLUGIN_FILE),
        { { QStringLiteral("default_path"), QString::fromStdString(defaultTree(directory)) },
          { QStringLiteral("write_path"), QString::fromStdString(writableTree(directory)) } });
    if (result.worker == nullptr)
        throw std::runtime_error(result.message.toStdString());
    m_worker = std::move(result.worker);
}

CMPath TuloStore::path(int setting) const
{
    return CMPath(prefix + QString::fromStdString(m_shape.directory(setting)) + QLatin1Char('/')
                  + QString::fromStdString(m_shape.name(setting)));
}

void TuloStore::select(const std::vector<int>& settings)
{
    m_paths.clear();
    for (const int setting : settings)
        m_paths.push_back(path(setting));
}

QList<QVariant> TuloStore::get(std::size_t position, const QStringList& roles)
{
    const auto reply = CMGetDataRequest::Reply::create();
    m_worker->getDataRequest(CMGetDataRequest(m_paths[position], roles, reply));
    return reply.value();
}

int TuloStore::read(std::size_t position)
{
    static const QStringList roles { TuloRoles::Value() };
    const QList<QVariant> values = get(position, roles);
    if (values.size() != 1)
        throw std::runtime_error("no such setting");
    return values.first().toHash().value(TuloValue::Int()).toInt();
}

void TuloStore::set(std::size_t position, int value)
{
    const auto reply = CMSetDataRequest::Reply::create();
    m_worker->setDataRequest(CMSetDataRequest(m_paths[position], TuloRoles::Value(),
                                              QVariantHash { { TuloValue::Int(), value } }, reply));
    if (!reply.isFinished() || !reply.value().isValid())
        throw std::runtime_error("the change was refused");
}

void TuloStore::sync()
{
    if (!QMetaObject::invokeMethod(m_worker.get(), "on_writeTimer_timeout", Qt::DirectConnection))
        throw std::runtime_error("the write timer's slot cannot be called");
}

TuloRowsRoles TuloStore::rows(const std::string& name, int first, int last,
                              const QStringList& roles)
{
    const auto reply = CMGetRowsRequest::Reply::create();
    m_worker->getRowsRequest(
        CMGetRowsRequest(CMPath(prefix + QString::fromStdString(name)), first, last, roles, reply));
    return reply.value();
}

void TuloStore::dropCache()
{
    const auto reply = CMSetDataRequest::Reply::create();
    m_worker->setDataRequest(
        CMSetDataRequest(TuloSettingsActionsDropCache(), TuloRoles::Activate(), QVariant(), reply));
}
