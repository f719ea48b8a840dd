#include "operations.h"

#include "floors.h"
#include "store_tulo.h"

#include "engine/writetracker.h"
#include "trees/migrator.h"
#include "trees/ownerlock.h"
#include "trees/treecheck.h"
#include "trees/treestamp.h"

#include "api/core/tulojson.h"

#include <QCache>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <unistd.h>

using namespace tulo;

namespace {

// More than the value cache holds.
constexpr int coldSet = 1000;
constexpr int sampleSetting = 7;

std::shared_ptr<TuloStore> openStore(const std::string& directory, const Shape& shape, int count)
{
    auto store = std::make_shared<TuloStore>(directory, shape);
    store->select(someSettings(shape, count));
    return store;
}

std::size_t selected(const Shape& shape, int count)
{
    return std::size_t(std::min(shape.settings, count));
}

// The operation, done `times` times.
Operation done(const Operation& operation, std::size_t times)
{
    for (std::size_t i = 0; i < times; ++i)
        operation(int(i));
    return operation;
}

QVariant parsed(const std::string& text)
{
    TuloError error;
    const QVariant result = TuloJson::parse(QByteArray::fromStdString(text), error, nullptr);
    if (!error.isEmpty())
        throw std::runtime_error("a default file does not parse");
    return result;
}

// What the default file of the sample setting holds.
QVariantHash sampleHash()
{
    static const QString kind = QStringLiteral("kind");
    static const QString minimum = QStringLiteral("min");
    static const QString maximum = QStringLiteral("max");
    static const QString step = QStringLiteral("step");
    const auto text = [](const char* bytes) {
        return QString::fromUtf8(bytes);
    };

    QVariantHash hash;
    hash.insert(TuloRoles::Title(), text("Setting 7"));
    hash.insert(TuloRoles::Description(),
                text("One of the many settings that each store is measured on, with a text of "
                     "usual length"));
    hash.insert(TuloRoles::Type(), 101LL);
    hash.insert(TuloRoles::Permission(), text("readWrite"));
    hash.insert(TuloRoles::ValueUnit(), text("percent"));
    hash.insert(TuloRoles::Modifiable(), true);
    QVariantHash value;
    value.insert(TuloValue::Int(), 0LL);
    hash.insert(TuloRoles::Value(), value);
    QVariantHash edit;
    edit.insert(kind, text("int"));
    edit.insert(minimum, 0LL);
    edit.insert(maximum, 1000000000LL);
    edit.insert(step, 1LL);
    hash.insert(TuloRoles::Edit(), edit);
    return hash;
}

} // namespace

std::vector<int> someSettings(const Shape& shape, int count)
{
    std::vector<int> settings(std::size_t(shape.settings));
    std::iota(settings.begin(), settings.end(), 0);
    // The order is the same in every run, so that runs can be compared.
    std::shuffle(settings.begin(), settings.end(), std::mt19937(1)); // NOLINT
    settings.resize(selected(shape, count));
    return settings;
}

Operation warmGet(const std::string& store, const Shape& shape)
{
    const auto tulo = openStore(store, shape, workingSet);
    const QStringList roles { TuloRoles::Value() };
    const std::size_t count = selected(shape, workingSet);
    return done([=](int i) { tulo->get(std::size_t(i) % count, roles); }, count);
}

Operation warmRows(const std::string& store, const Shape& shape)
{
    const auto tulo = openStore(store, shape, 0);
    const QStringList roles { TuloRoles::Value(), TuloRoles::Title(), TuloRoles::Type() };
    const std::string name = shape.directory(0);
    return done([=](int) { tulo->rows(name, 0, 19, roles); }, 1);
}

Operation firstLoad(const std::string& store, const Shape& shape)
{
    const auto tulo = openStore(store, shape, coldSet);
    const QStringList roles { TuloRoles::Value() };
    const std::size_t count = selected(shape, coldSet);
    return done([=](int i) { tulo->get(std::size_t(i) % count, roles); }, count);
}

Operation firstListing(const std::string& store, const Shape& shape)
{
    const std::string name = shape.directory(0);
    return done(
        [=](int) {
            TuloStore tulo(store, shape);
            if (tulo.rows(name, 0, -1, {}).rowsCount() != shape.perDirectory)
                throw std::runtime_error("the listing is not complete");
        },
        1);
}

Operation cachedListing(const std::string& store, const Shape& shape)
{
    const auto tulo = openStore(store, shape, 0);
    const std::string name = shape.directory(0);
    return done([=](int) { tulo->rows(name, 0, -1, {}); }, 1);
}

Operation acceptChange(const std::string& store, const Shape& shape)
{
    const auto tulo = openStore(store, shape, workingSet);
    const std::size_t count = selected(shape, workingSet);
    return done([=](int i) { tulo->set(std::size_t(i) % count, i); }, count);
}

Operation durableChange(const std::string& store, const Shape& shape)
{
    const auto tulo = openStore(store, shape, workingSet);
    const std::size_t count = selected(shape, workingSet);
    return done(
        [=](int i) {
            tulo->set(std::size_t(i) % count, i);
            tulo->sync();
        },
        1);
}

Operation thousandChanges(const std::string& store, const Shape& shape)
{
    const auto tulo = openStore(store, shape, 1);
    return done(
        [=](int i) {
            for (int change = 0; change < 1000; ++change)
                tulo->set(0, 1000 * i + change);
            tulo->sync();
        },
        1);
}

namespace {

QStringList somePaths(const Shape& shape, int count)
{
    QStringList paths;
    for (const int setting : someSettings(shape, count)) {
        paths.append(QString::fromStdString("/settings/" + shape.directory(setting) + "/"
                                            + shape.name(setting)));
    }
    return paths;
}

} // namespace

Operation firstRead(const std::string& store, const Shape& shape)
{
    const QStringList paths = somePaths(shape, coldSet);
    const QStringList roles { TuloRoles::Value() };
    const std::shared_ptr<Settings> settings = openSettings(store);
    const Operation operation = [=](int i) {
        const Reply<QVariantMap> read = settings->get(paths.at(i + 1), roles);
        if (!read.wait() || read.value().size() != roles.size())
            throw std::runtime_error("a setting cannot be read");
    };
    // They remember their answers: each setting is read once.
    operation(-1);
    return operation;
}

Operation judgedChange(const std::string& store, const Shape& shape)
{
    const QStringList paths = somePaths(shape, workingSet);
    const std::shared_ptr<Settings> settings = openSettings(store);
    ChangeOptions options;
    options.isDryRun = true;
    return done(
        [=](int i) {
            const Reply<Change> change = settings->set(paths.at(i % paths.size()), i, options);
            if (!change.wait())
                throw std::runtime_error("the change was refused");
        },
        std::size_t(paths.size()));
}

namespace {

// `names` are paths inside the trees.
Operation resetOf(const std::string& store, const std::vector<std::string>& names)
{
    const std::string written = store + "/file-to-reset";
    std::ofstream(written) << writtenFileText(sampleSetting);
    std::vector<std::string> files;
    QStringList paths;
    for (const std::string& name : names) {
        files.push_back(writableTree(store) + name);
        std::filesystem::remove(files.back());
        paths.append(QStringLiteral("/settings") + QString::fromStdString(name));
    }
    paths.sort();
    const std::shared_ptr<Settings> settings = openSettings(store);
    return done(
        [=](int) {
            for (const std::string& file : files) {
                if (::link(written.c_str(), file.c_str()) != 0)
                    throw std::runtime_error("cannot link " + file);
            }
            const Reply<QStringList> reset = settings->reset(paths);
            if (!reset.wait() || reset.value() != paths)
                throw std::runtime_error("not all was reset");
        },
        2);
}

} // namespace

Operation resetSettings(const std::string& store, const Shape& shape, int count)
{
    std::vector<std::string> names;
    for (int setting = 0; setting < count; ++setting)
        names.push_back("/" + shape.directory(setting) + "/" + shape.name(setting));
    return resetOf(store, names);
}

Operation resetMade(const std::string& store, const Shape& shape)
{
    const QString path =
        QStringLiteral("/settings/") + QString::fromStdString(shape.directory(0) + "/made");
    const std::shared_ptr<Settings> settings = openSettings(store);
    return done(
        [=](int i) {
            const Reply<Change> change = settings->set(path, i);
            const Reply<QStringList> reset = settings->reset({ path });
            if (!reset.wait() || reset.value() != QStringList(path))
                throw std::runtime_error("nothing was reset");
        },
        2);
}

Operation failedChange(int unsaved)
{
    struct Change
    {
        CMPath path;
        log4cplus::tstring record;
    };
    const auto watch = std::make_shared<WriteTracker>(QStringLiteral("/tree"),
                                                      CMPath(QStringLiteral("/settings")));
    watch->attach();
    std::vector<Change> changes;
    for (int i = 0; i < workingSet + unsaved; ++i) {
        changes.push_back(
            { CMPath(QStringLiteral("/settings/many/%1").arg(i)),
              "Settings: path '/tree/many/." + std::to_string(i) + "' open file failed" });
    }
    TuloRoles roles;
    roles.setValue(TuloValue::of(TuloValue::Int(), sampleSetting));
    const auto logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("CMSettingsWorker"));
    const auto fail = [=](std::size_t i) {
        watch->addPending(changes[i].path, roles);
        LOG4CPLUS_ERROR(logger, changes[i].record);
        // As the service asks for each change.
        watch->revision();
    };
    for (std::size_t i = 0; i < changes.size(); ++i)
        fail(i);
    if (watch->unsavedCount() != int(changes.size()) || watch->pendingCount() != 0)
        throw std::runtime_error("a failed write was not noted");
    return [=](int i) {
        fail(std::size_t(i) % workingSet);
    };
}

Operation checkBothTrees(const std::string& store)
{
    TreesToCheck trees;
    trees.defaultPath = QString::fromStdString(defaultTree(store));
    trees.writePath = QString::fromStdString(writableTree(store));
    return done(
        [=](int) {
            // Their .meta files take children of every kind; nothing else is wrong.
            for (const TreeFinding& finding : checkTrees(trees)) {
                if (ruleOf(finding.rule).severity == Severity::Error)
                    throw std::runtime_error(finding.message.toStdString());
            }
        },
        1);
}

Operation migrateNothing(const std::string& store, bool isStamped)
{
    const MigrationPlace place { QString::fromStdString(defaultTree(store)),
                                 QString::fromStdString(writableTree(store)), QString(),
                                 QString() };
    const QString error = isStamped ? writeStamp(place.defaultPath) : QString();
    if (!error.isEmpty())
        throw std::runtime_error(error.toStdString());
    const auto lock = std::make_shared<OwnerLock>();
    if (lock->acquire(place.writePath) != OwnerLock::Status::Owned)
        throw std::runtime_error(lock->message().toStdString());
    const auto run = [=](int) {
        const MigrationResult result = migrate(lock->directory(), place, MigrationRun::Migrate);
        if (result.status != MigrationResult::Status::Done || !result.values.isEmpty())
            throw std::runtime_error("there was something to migrate");
    };
    run(0);
    return done(run, 1);
}

Operation parseJson()
{
    const QByteArray text = QByteArray::fromStdString(defaultFileText(sampleSetting, 0));
    if (parsed(text.toStdString()) != QVariant(sampleHash()))
        throw std::runtime_error("the parsed and the built hash differ");
    return done(
        [=](int) {
            TuloError error;
            TuloJson::parse(text, error, nullptr);
        },
        1);
}

Operation serializeJson()
{
    const QVariant roles = parsed(defaultFileText(sampleSetting, 0));
    return done([=](int) { TuloJson::serialize(roles); }, 1);
}

Operation getFloor()
{
    struct Record
    {
        QVariantHash roles;
        bool exists;
    };
    const Shape shape;
    const auto cache = std::make_shared<QCache<QString, Record>>(300);
    std::vector<QString> paths;
    for (const int setting : someSettings(shape, workingSet)) {
        paths.push_back(
            QString::fromStdString("/" + shape.directory(setting) + "/" + shape.name(setting)));
        cache->insert(paths.back(),
                      new Record { parsed(defaultFileText(setting, 0)).toHash(), true }, 1);
    }
    return done(
        [=](int i) {
            const QVariantHash roles = cache->object(paths[std::size_t(i) % paths.size()])->roles;
            const QVariant value = roles.value(TuloRoles::Value());
            if (!value.isValid())
                throw std::runtime_error("a role is missing");
        },
        paths.size());
}

Operation loadFloor(const std::string& store, const Shape& shape)
{
    std::vector<std::string> files;
    for (const int setting : someSettings(shape, coldSet)) {
        const std::string name = "/" + shape.directory(setting) + "/" + shape.name(setting);
        files.push_back(defaultTree(store) + name);
        files.push_back(writableTree(store) + name);
    }
    const std::size_t count = selected(shape, coldSet);
    return done(
        [=](int i) {
            const std::size_t first = std::size_t(i) % count * 2;
            readFile(files[first].c_str());
            readFile(files[first + 1].c_str());
        },
        count);
}

Operation listFloor(const std::string& store, const Shape& shape)
{
    const std::string defaults = defaultTree(store) + "/" + shape.directory(0);
    const std::string written = writableTree(store) + "/" + shape.directory(0);
    return done(
        [=](int) {
            listDirectory(defaults.c_str());
            listDirectory(written.c_str());
        },
        1);
}

Operation buildHash()
{
    return done([](int) { sampleHash(); }, 1);
}
