#include "tulo/settings.h"

#include <QPointer>

#include <algorithm>
#include <iterator>

namespace tulo {

// ---------------------------------------------------------------------------------------------
// Words.
// ---------------------------------------------------------------------------------------------

namespace {

template<typename Word>
struct Named
{
    Word word;
    const char* name;
};

constexpr Named<RoleOrigin::State> stateNames[] {
    { RoleOrigin::State::Effective, "effective" },
    { RoleOrigin::State::Hidden, "hidden" },
    { RoleOrigin::State::Ignored, "ignored" },
};

constexpr Named<RoleOrigin::Layer> layerNames[] {
    { RoleOrigin::Layer::BuiltIn, "builtIn" }, { RoleOrigin::Layer::Template, "template" },
    { RoleOrigin::Layer::Default, "default" }, { RoleOrigin::Layer::Product, "product" },
    { RoleOrigin::Layer::Written, "written" }, { RoleOrigin::Layer::Pending, "pending" },
    { RoleOrigin::Layer::Cached, "cached" },
};

template<typename Names, typename Word>
QString nameIn(const Names& names, Word word)
{
    const auto found = std::find_if(std::begin(names), std::end(names),
                                    [word](const auto& named) { return named.word == word; });
    return found == std::end(names) ? QString() : QString::fromLatin1(found->name);
}

template<typename Word, typename Names>
std::optional<Word> wordIn(const Names& names, const QString& name)
{
    for (const auto& named : names) {
        if (name == QLatin1String(named.name))
            return named.word;
    }
    return std::nullopt;
}

} // namespace

QString nameOf(RoleOrigin::State state)
{
    return nameIn(stateNames, state);
}

QString nameOf(RoleOrigin::Layer layer)
{
    return nameIn(layerNames, layer);
}

std::optional<RoleOrigin::State> stateNamed(const QString& name)
{
    return wordIn<RoleOrigin::State>(stateNames, name);
}

std::optional<RoleOrigin::Layer> layerNamed(const QString& name)
{
    return wordIn<RoleOrigin::Layer>(layerNames, name);
}

// ---------------------------------------------------------------------------------------------
// Watches: owned by the program, known to the settings as long as both live.
// ---------------------------------------------------------------------------------------------

Watch::Watch(Settings* settings, const QString& path, Scope scope)
    : m_settings(settings)
    , m_path(path)
    , m_scope(scope)
{
}

Watch::~Watch()
{
    if (m_settings != nullptr)
        m_settings->remove(this);
}

void Watch::begin()
{
    m_settings->add(this);
}

void Watch::deliver(const Event& event)
{
    emit changed(event);
}

void Watch::deliverMissed()
{
    emit missed();
}

void Watch::deliverFailed(const Error& error)
{
    emit failed(error);
}

Settings::Settings() = default;

Settings::~Settings()
{
    for (const auto* watches : { &m_nodeWatches, &m_treeWatches }) {
        for (const QVector<Watch*>& ofPath : *watches) {
            for (Watch* const watch : ofPath)
                watch->m_settings = nullptr;
        }
    }
}

namespace {

// Events name full paths; a watch may lack the leading "/".
QString keyOf(const Watch* watch)
{
    return watch->path().startsWith(QLatin1Char('/')) ? watch->path()
                                                      : QLatin1Char('/') + watch->path();
}

} // namespace

std::unique_ptr<Watch> Settings::watch(const QString& path)
{
    std::unique_ptr<Watch> watch(new Watch(this, path, Watch::Scope::Node));
    watch->begin();
    return watch;
}

std::unique_ptr<Watch> Settings::watchTree(const QString& path)
{
    std::unique_ptr<Watch> watch(new Watch(this, path, Watch::Scope::Tree));
    watch->begin();
    return watch;
}

QHash<QString, QVector<Watch*>>& Settings::watchesOf(Watch::Scope scope)
{
    return scope == Watch::Scope::Node ? m_nodeWatches : m_treeWatches;
}

void Settings::add(Watch* watch)
{
    watchesOf(watch->scope())[keyOf(watch)].append(watch);
    watchAdded(watch);
}

void Settings::remove(Watch* watch)
{
    auto& watches = watchesOf(watch->scope());
    const auto ofPath = watches.find(keyOf(watch));
    ofPath->removeOne(watch);
    if (ofPath->isEmpty())
        watches.erase(ofPath);
    watchRemoved(watch);
}

// ---------------------------------------------------------------------------------------------
// Delivery. A handler may destroy any watch, so each is looked at again before its turn.
// ---------------------------------------------------------------------------------------------

namespace {

using Guarded = QVector<QPointer<Watch>>;

void append(Guarded* guarded, const QVector<Watch*>& watches)
{
    for (Watch* const watch : watches)
        guarded->append(watch);
}

} // namespace

void Settings::deliver(const Event& event)
{
    Guarded watches;
    append(&watches, m_nodeWatches.value(event.path));
    if (!m_treeWatches.isEmpty()) {
        // The path itself, and each directory above it.
        for (int length = event.path.size(); length > 0;
             length = event.path.lastIndexOf(QLatin1Char('/'), length - 1))
            append(&watches, m_treeWatches.value(event.path.left(length)));
    }
    for (const QPointer<Watch>& watch : qAsConst(watches)) {
        if (watch)
            watch->deliver(event);
    }
}

void Settings::deliverMissed()
{
    Guarded watches;
    for (const auto* known : { &m_nodeWatches, &m_treeWatches }) {
        for (const QVector<Watch*>& ofPath : *known)
            append(&watches, ofPath);
    }
    for (const QPointer<Watch>& watch : qAsConst(watches)) {
        if (watch)
            watch->deliverMissed();
    }
}

void Settings::deliverFailed(Watch* watch, const Error& error)
{
    QMetaObject::invokeMethod(
        watch, [watch, error] { watch->deliverFailed(error); }, Qt::QueuedConnection);
}

} // namespace tulo
