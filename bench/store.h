#pragma once

#include <memory>
#include <string>
#include <vector>

/// The settings that every store is measured on: integers, in directories of equal size.
struct Shape
{
    int settings = 1000;
    int perDirectory = 20;

    /// The name of a setting's directory, such as "group00007".
    std::string directory(int setting) const;
    /// The name of a setting inside its directory, such as "setting00003".
    std::string name(int setting) const;
    /// What a setting holds at first.
    int value(int setting) const { return setting; }
};

/// A settings store as a program uses it: one process, one thread. Failures throw
/// std::runtime_error: nothing is measured on a store that does not work.
class Store
{
public:
    Store() = default;
    virtual ~Store() = default;
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    /// Makes whatever a program keeps at hand to reach these settings. read() and set() address
    /// them by their position in the list.
    virtual void select(const std::vector<int>& settings) = 0;
    virtual int read(std::size_t position) = 0;
    /// Changes a setting; returns as soon as the store has accepted the change.
    virtual void set(std::size_t position, int value) = 0;
    /// Returns when every accepted change is safely on disk.
    virtual void sync() = 0;
};

/// One of the stores that are compared.
struct StoreKind
{
    const char* name;
    std::string (*version)();
    /// Makes a store of this shape in the empty directory `directory`.
    void (*fill)(const std::string& directory, const Shape& shape);
    /// Opens a store that fill() has made, as a program that starts.
    std::unique_ptr<Store> (*open)(const std::string& directory, const Shape& shape);
};

// Which of these there are depends on what is installed; see CMakeLists.txt.
extern const StoreKind floorStore;
extern const StoreKind tuloStore;
extern const StoreKind gsettingsStore;
extern const StoreKind kconfigStore;
extern const StoreKind qsettingsStore;
extern const StoreKind sqliteStore;
extern const StoreKind lmdbStore;
