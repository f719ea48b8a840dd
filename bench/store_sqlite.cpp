// SQLite as a program that cares sets it up: a write-ahead log, and every commit on disk.

#include "store.h"

#include <sqlite3.h>

#include <stdexcept>

namespace {

std::string key(const Shape& shape, int setting)
{
    return shape.directory(setting) + "/" + shape.name(setting);
}

class SqliteStore : public Store
{
public:
    SqliteStore(const std::string& directory, const Shape& shape)
        : m_shape(shape)
    {
        check(sqlite3_open((directory + "/settings.db").c_str(), &m_database));
        execute("PRAGMA journal_mode = WAL");
        execute("PRAGMA synchronous = FULL");
        execute("CREATE TABLE IF NOT EXISTS settings"
                " (path TEXT PRIMARY KEY, value INTEGER) WITHOUT ROWID");
        m_read = prepare("SELECT value FROM settings WHERE path = ?1");
        m_write = prepare("INSERT OR REPLACE INTO settings VALUES (?1, ?2)");
    }

    ~SqliteStore() override
    {
        sqlite3_finalize(m_read);
        sqlite3_finalize(m_write);
        sqlite3_close(m_database);
    }

    void select(const std::vector<int>& settings) override
    {
        m_keys.clear();
        for (const int setting : settings)
            m_keys.push_back(key(m_shape, setting));
    }

    int read(std::size_t position) override
    {
        bindKey(m_read, m_keys[position]);
        if (sqlite3_step(m_read) != SQLITE_ROW)
            throw std::runtime_error("no such setting");
        const int value = sqlite3_column_int(m_read, 0);
        sqlite3_reset(m_read);
        return value;
    }

    void set(std::size_t position, int value) override
    {
        if (sqlite3_get_autocommit(m_database) != 0)
            execute("BEGIN");
        bindKey(m_write, m_keys[position]);
        check(sqlite3_bind_int(m_write, 2, value));
        if (sqlite3_step(m_write) != SQLITE_DONE)
            throw std::runtime_error(sqlite3_errmsg(m_database));
        sqlite3_reset(m_write);
    }

    void sync() override { execute("COMMIT"); }

private:
    void check(int code)
    {
        if (code != SQLITE_OK)
            throw std::runtime_error(sqlite3_errmsg(m_database));
    }

    void execute(const char* statement)
    {
        check(sqlite3_exec(m_database, statement, nullptr, nullptr, nullptr));
    }

    sqlite3_stmt* prepare(const char* text)
    {
        sqlite3_stmt* statement = nullptr;
        check(sqlite3_prepare_v2(m_database, text, -1, &statement, nullptr));
        return statement;
    }

    // The caller keeps the text until the statement is reset: nothing is copied.
    void bindKey(sqlite3_stmt* statement, const std::string& text)
    {
        check(sqlite3_bind_text(statement, 1, text.data(), int(text.size()), nullptr));
    }

    const Shape m_shape;
    sqlite3* m_database = nullptr;
    sqlite3_stmt* m_read = nullptr;
    sqlite3_stmt* m_write = nullptr;
    std::vector<std::string> m_keys;
};

std::unique_ptr<Store> open(const std::string& directory, const Shape& shape)
{
    return std::make_unique<SqliteStore>(directory, shape);
}

void fill(const std::string& directory, const Shape& shape)
{
    SqliteStore store(directory, shape);
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
    return sqlite3_libversion();
}

} // namespace

const StoreKind sqliteStore { "sqlite", version, fill, open };
