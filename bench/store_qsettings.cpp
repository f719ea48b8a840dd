#include "store.h"

#include <QSettings>
#include <QVariant>

#include <stdexcept>

namespace {

QString fileName(const std::string& directory)
{
    return QString::fromStdString(directory) + QLatin1String("/settings.ini");
}

QString key(const Shape& shape, int setting)
{
    return QString::fromStdString(shape.directory(setting) + "/" + shape.name(setting));
}

class QSettingsStore : public Store
{
public:
    QSettingsStore(const std::string& directory, const Shape& shape)
        : m_shape(shape)
        , m_settings(fileName(directory), QSettings::IniFormat)
    {
    }

    void select(const std::vector<int>& settings) override
    {
        m_keys.clear();
        for (const int setting : settings)
            m_keys.push_back(key(m_shape, setting));
    }

    int read(std::size_t position) override { return m_settings.value(m_keys[position]).toInt(); }

    void set(std::size_t position, int value) override
    {
        m_settings.setValue(m_keys[position], value);
    }

    void sync() override
    {
        m_settings.sync();
        if (m_settings.status() != QSettings::NoError)
            throw std::runtime_error("QSettings could not write");
    }

private:
    const Shape m_shape;
    QSettings m_settings;
    std::vector<QString> m_keys;
};

std::unique_ptr<Store> open(const std::string& directory, const Shape& shape)
{
    return std::make_unique<QSettingsStore>(directory, shape);
}

void fill(const std::string& directory, const Shape& shape)
{
    QSettings settings(fileName(directory), QSettings::IniFormat);
    for (int setting = 0; setting < shape.settings; ++setting)
        settings.setValue(key(shape, setting), shape.value(setting));
    settings.sync();
    if (settings.status() != QSettings::NoError)
        throw std::runtime_error("QSettings could not write");
}

std::string version()
{
    return qVersion();
}

} // namespace

const StoreKind qsettingsStore { "qsettings", version, fill, open };
