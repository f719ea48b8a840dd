#include "store.h"

#include <KConfig>
#include <KConfigGroup>
#include <kconfig_version.h>

#include <stdexcept>

namespace {

class KConfigStore : public Store
{
public:
    KConfigStore(const std::string& directory, const Shape& shape)
        : m_shape(shape)
        , m_config(QString::fromStdString(directory) + QLatin1String("/settingsrc"),
                   KConfig::SimpleConfig)
    {
    }

    void select(const std::vector<int>& settings) override
    {
        m_selected.clear();
        for (const int setting : settings) {
            m_selected.push_back(
                { KConfigGroup(&m_config, QString::fromStdString(m_shape.directory(setting))),
                  QString::fromStdString(m_shape.name(setting)) });
        }
    }

    int read(std::size_t position) override
    {
        const Selected& setting = m_selected[position];
        return setting.group.readEntry(setting.key, 0);
    }

    void set(std::size_t position, int value) override
    {
        Selected& setting = m_selected[position];
        setting.group.writeEntry(setting.key, value);
    }

    void sync() override
    {
        if (!m_config.sync())
            throw std::runtime_error("KConfig could not write");
    }

private:
    struct Selected
    {
        KConfigGroup group;
        QString key;
    };

    const Shape m_shape;
    KConfig m_config;
    std::vector<Selected> m_selected;
};

std::unique_ptr<Store> open(const std::string& directory, const Shape& shape)
{
    return std::make_unique<KConfigStore>(directory, shape);
}

void fill(const std::string& directory, const Shape& shape)
{
    KConfig config(QString::fromStdString(directory) + QLatin1String("/settingsrc"),
                   KConfig::SimpleConfig);
    for (int setting = 0; setting < shape.settings; ++setting) {
        KConfigGroup group(&config, QString::fromStdString(shape.directory(setting)));
        group.writeEntry(QString::fromStdString(shape.name(setting)), shape.value(setting));
    }
    if (!config.sync())
        throw std::runtime_error("KConfig could not write");
}

std::string version()
{
    return KCONFIG_VERSION_STRING;
}

} // namespace

const StoreKind kconfigStore { "kconfig", version, fill, open };
