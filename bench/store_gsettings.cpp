// GSettings with dconf behind it. The database is named after the number of settings, so that
// one bus and one service serve stores of every size.

#include "store.h"

#include <gio/gio.h>
#define G_SETTINGS_ENABLE_BACKEND
#include <gio/gsettingsbackend.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>

namespace {

constexpr char schemaId[] = "org.tulo.bench";

std::string databaseName(const Shape& shape)
{
    return "bench" + std::to_string(shape.settings);
}

void run(const std::string& command)
{
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error("failed: " + command);
}

class GSettingsStore : public Store
{
public:
    GSettingsStore(const std::string& directory, const Shape& shape)
        : m_shape(shape)
    {
        ::setenv("DCONF_PROFILE", (directory + "/profile").c_str(), 1);
        GSettingsBackend* backend = g_settings_backend_get_default();
        const bool isDconf = std::strcmp(G_OBJECT_TYPE_NAME(backend), "DConfSettingsBackend") == 0;
        g_object_unref(backend);
        if (!isDconf)
            throw std::runtime_error("GSettings does not use dconf");
        GSettingsSchemaSource* source =
            g_settings_schema_source_new_from_directory(directory.c_str(), nullptr, TRUE, nullptr);
        if (source == nullptr)
            throw std::runtime_error("no schemas in " + directory);
        m_schema = g_settings_schema_source_lookup(source, schemaId, FALSE);
        g_settings_schema_source_unref(source);
    }

    ~GSettingsStore() override
    {
        for (const auto& entry : m_groups)
            g_object_unref(entry.second);
        g_settings_schema_unref(m_schema);
    }

    void select(const std::vector<int>& settings) override
    {
        m_selected.clear();
        for (const int setting : settings)
            m_selected.push_back({ group(m_shape.directory(setting)), m_shape.name(setting) });
    }

    int read(std::size_t position) override
    {
        const Selected& setting = m_selected[position];
        return g_settings_get_int(setting.group, setting.key.c_str());
    }

    void set(std::size_t position, int value) override
    {
        const Selected& setting = m_selected[position];
        if (g_settings_set(setting.group, setting.key.c_str(), "i", value) == FALSE)
            throw std::runtime_error("the change was refused");
    }

    void sync() override { g_settings_sync(); }

private:
    struct Selected
    {
        GSettings* group;
        std::string key;
    };

    GSettings* group(const std::string& name)
    {
        GSettings*& settings = m_groups[name];
        if (settings == nullptr) {
            const std::string path = "/org/tulo/bench/" + name + "/";
            settings = g_settings_new_full(m_schema, nullptr, path.c_str());
        }
        return settings;
    }

    const Shape m_shape;
    GSettingsSchema* m_schema = nullptr;
    std::map<std::string, GSettings*> m_groups;
    std::vector<Selected> m_selected;
};

void fill(const std::string& directory, const Shape& shape)
{
    std::ofstream schema(directory + "/" + schemaId + ".gschema.xml");
    schema << "<schemalist><schema id='" << schemaId << "'>\n";
    for (int key = 0; key < shape.perDirectory; ++key)
        schema << "<key name='" << shape.name(key) << "' type='i'><default>0</default></key>\n";
    schema << "</schema></schemalist>\n";
    schema.close();
    run("glib-compile-schemas '" + directory + "'");

    std::ofstream(directory + "/profile") << "user-db:" << databaseName(shape) << '\n';
    const char* config = std::getenv("XDG_CONFIG_HOME");
    if (config == nullptr)
        throw std::runtime_error("XDG_CONFIG_HOME is not set");
    const std::string databases = std::string(config) + "/dconf";
    std::filesystem::create_directories(databases);
    std::filesystem::create_directory(directory + "/keys");
    std::ofstream keys(directory + "/keys/values");
    for (int setting = 0; setting < shape.settings; ++setting) {
        if (setting % shape.perDirectory == 0)
            keys << "[org/tulo/bench/" << shape.directory(setting) << "]\n";
        keys << shape.name(setting) << '=' << shape.value(setting) << '\n';
    }
    keys.close();
    run("dconf compile '" + databases + "/" + databaseName(shape) + "' '" + directory + "/keys'");
}

std::unique_ptr<Store> open(const std::string& directory, const Shape& shape)
{
    return std::make_unique<GSettingsStore>(directory, shape);
}

std::string version()
{
    return std::to_string(glib_major_version) + "." + std::to_string(glib_minor_version) + "."
        + std::to_string(glib_micro_version);
}

} // namespace

const StoreKind gsettingsStore { "gsettings", version, fill, open };
