#include "store.h"

#include <lmdb.h>

#include <cstring>
#include <stdexcept>

namespace {

constexpr std::size_t mapSize = std::size_t(64) << 20;

void check(int code)
{
    if (code != 0)
        throw std::runtime_error(mdb_strerror(code));
}

std::string key(const Shape& shape, int setting)
{
    return shape.directory(setting) + "/" + shape.name(setting);
}

class LmdbStore : public Store
{
public:
    LmdbStore(const std::string& directory, const Shape& shape)
        : m_shape(shape)
    {
        check(mdb_env_create(&m_environment));
        check(mdb_env_set_mapsize(m_environment, mapSize));
        check(mdb_env_open(m_environment, directory.c_str(), 0, 0600));
        check(mdb_txn_begin(m_environment, nullptr, MDB_RDONLY, &m_reading));
        check(mdb_dbi_open(m_reading, nullptr, 0, &m_database));
        mdb_txn_reset(m_reading);
    }

    ~LmdbStore() override
    {
        if (m_writing != nullptr)
            mdb_txn_abort(m_writing);
        mdb_txn_abort(m_reading);
        mdb_env_close(m_environment);
    }

    void select(const std::vector<int>& settings) override
    {
        m_keys.clear();
        for (const int setting : settings)
            m_keys.push_back(key(m_shape, setting));
    }

    int read(std::size_t position) override
    {
        check(mdb_txn_renew(m_reading));
        MDB_val name = keyOf(position);
        MDB_val content;
        check(mdb_get(m_reading, m_database, &name, &content));
        int value = 0;
        std::memcpy(&value, content.mv_data, sizeof value);
        mdb_txn_reset(m_reading);
        return value;
    }

    void set(std::size_t position, int value) override
    {
        if (m_writing == nullptr)
            check(mdb_txn_begin(m_environment, nullptr, 0, &m_writing));
        MDB_val name = keyOf(position);
        MDB_val content { sizeof value, &value };
        check(mdb_put(m_writing, m_database, &name, &content, 0));
    }

    void sync() override
    {
        MDB_txn* transaction = m_writing;
        m_writing = nullptr;
        check(mdb_txn_commit(transaction));
    }

private:
    MDB_val keyOf(std::size_t position)
    {
        return { m_keys[position].size(), m_keys[position].data() };
    }

    const Shape m_shape;
    MDB_env* m_environment = nullptr;
    MDB_txn* m_reading = nullptr;
    MDB_txn* m_writing = nullptr;
    MDB_dbi m_database = 0;
    std::vector<std::string> m_keys;
};

std::unique_ptr<Store> open(const std::string& directory, const Shape& shape)
{
    return std::make_unique<LmdbStore>(directory, shape);
}

void fill(const std::string& directory, const Shape& shape)
{
    LmdbStore store(directory, shape);
    std::vector<int> all(std::size_t(shape.settings));
    for (int setting = 0; setting < shape.settings; ++setting)
        all[std::size_t(setting)] = setting;
    store.select(all);
    for (int setting = 0; setting < shape.settings; ++setting)
        store.set(std::size_t(setting), shape.value(setting));
    store.sync();
}

std::string version()
{
    return std::to_string(MDB_VERSION_MAJOR) + "." + std::to_string(MDB_VERSION_MINOR) + "."
        + std::to_string(MDB_VERSION_PATCH);
}

} // namespace

const StoreKind lmdbStore { "lmdb", version, fill, open };
