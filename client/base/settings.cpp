#include "tulo/settings.h"

#include <QPointer>

namespace tulo {

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

std::unique_ptr<Watch> Settings::watch(const QString& path)
{
    return addWatch(path, Watch::Scope::Node);
}

std::unique_ptr<Watch> Settings::watchTree(const QString& path)
{
    return addWatch(path, Watch::Scope::Tree);
}

std::unique_ptr<Watch> Settings::addWatch(const QString& path, Watch::Scope scope)
{
    std::unique_ptr<Watch> watch(new Watch(this, path, scope));
    auto& watches = scope == Watch::Scope::Node ? m_nodeWatches : m_treeWatches;
    watches[path].append(watch.get());
    watchAdded(watch.get());
    return watch;
}

void Settings::remove(Watch* watch)
{
    auto& watches = watch->scope() == Watch::Scope::Node ? m_nodeWatches : m_treeWatches;
    const auto ofPath = watches.find(watch->path());
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
            emit watch->changed(event);
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
            emit watch->missed();
    }
}

void Settings::deliverFailed(Watch* watch, const Error& error)
{
    QMetaObject::invokeMethod(
        watch, [watch, error] { emit watch->failed(error); }, Qt::QueuedConnection);
}

} // namespace tulo
