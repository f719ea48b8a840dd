// Not a store that anybody would use: files without names for roles, layers or notifications,
// replaced durably. What it costs is what a file a setting must cost.

#include "floors.h"
#include "store.h"
#include "store_tulo.h"

#include <filesystem>
#include <map>

namespace {

class FloorStore : public Store
{
public:
    FloorStore(const std::string& directory, const Shape& shape)
        : m_directory(directory)
        , m_shape(shape)
    {
    }

    void select(const std::vector<int>& settings) override { m_selected = settings; }
    int read(std::size_t position) override
    {
        const int setting = m_selected[position];
        return int(readFile((directoryOf(setting) + "/" + m_shape.name(setting)).c_str()));
    }
    void set(std::size_t position, int value) override { m_pending[m_selected[position]] = value; }
    void sync() override
    {
        for (const auto& [setting, value] : m_pending)
            replaceFile(directoryOf(setting), m_shape.name(setting), writtenFileText(value));
        m_pending.clear();
    }

private:
    std::string directoryOf(int setting) const
    {
        return m_directory + "/" + m_shape.directory(setting);
    }

    const std::string m_directory;
    const Shape m_shape;
    std::vector<int> m_selected;
    std::map<int, int> m_pending;
};

void fill(const std::string& directory, const Shape& shape)
{
    for (int setting = 0; setting < shape.settings; ++setting) {
        const std::string group = directory + "/" + shape.directory(setting);
        std::filesystem::create_directories(group);
        replaceFile(group, shape.name(setting), writtenFileText(shape.value(setting)));
    }
}

std::unique_ptr<Store> open(const std::string& directory, const Shape& shape)
{
    return std::make_unique<FloorStore>(directory, shape);
}

std::string version()
{
    return "";
}

} // namespace

const StoreKind floorStore { "floor", version, fill, open };
