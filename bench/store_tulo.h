#pragma once

#include "store.h"

#include <tulo/settings.h>

#include "api/core/model/cmworker.h"

#include <QList>
#include <QStringList>
#include <QVariant>

#include <memory>
#include <string>
#include <vector>

/// Our own store: the plug-in's worker, asked through its virtual operations with a fresh
/// request and a fresh reply each time.
class TuloStore : public Store
{
public:
    TuloStore(const std::string& directory, const Shape& shape);

    void select(const std::vector<int>& settings) override;
    int read(std::size_t position) override;
    void set(std::size_t position, int value) override;
    /// Fires the write timer's slot.
    void sync() override;

    /// One role of a selected setting, as the reply gives it.
    QList<QVariant> get(std::size_t position, const QStringList& roles);
    /// Rows `first` to `last` of the directory `name`; no rows at all when `last` is below.
    TuloRowsRoles rows(const std::string& name, int first, int last, const QStringList& roles);
    /// Empties the value cache, not the directory cache.
    void dropCache();

private:
    CMPath path(int setting) const;

    const Shape m_shape;
    std::unique_ptr<CMWorker> m_worker;
    std::vector<CMPath> m_paths;
};

/// The settings of a process on a store's directory.
std::unique_ptr<tulo::Settings> openSettings(const std::string& directory);

/// The directories of the two layers inside a store's directory.
std::string defaultTree(const std::string& directory);
std::string writableTree(const std::string& directory);

/// The text of a setting's default file, and that of its written file.
std::string defaultFileText(int setting, int value);
std::string writtenFileText(int value);
