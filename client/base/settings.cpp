#include "tulo/settings.h"

#include <QPointer>

namespace tulo {

// ---------------------------------------------------------------------------------------------
// Words.
// ---------------------------------------------------------------------------------------------

QString nameOf(RoleOrigin::State state)
{
    switch (state) {
    case RoleOrigin::State::Effective:
        return QStringLiteral("effective");
    case RoleOrigin::State::Hidden:
        return QStringLiteral("hidden");
    case RoleOrigin::State::Ignored:
        return QStringLiteral("ignored");
    }
    return QString();
}

QString nameOf(RoleOrigin::Layer layer)
{
    switch (layer) {
    case RoleOrigin::Layer::BuiltIn:
        return QStringLiteral("builtIn");
    case RoleOrigin::Layer::Template:
        return QStringLiteral("template");
    case RoleOrigin::Layer::Default:
        return QStringLiteral("default");
    case RoleOrigin::Layer::Product:
        return QStringLiteral("product");
    case RoleOrigin::Layer::Written:
        return QStringLiteral("written");
    case RoleOrigin::Layer::Pending:
        return QStringLiteral("pending");
    case RoleOrigin::Layer::Cached:
        return QStringLiteral("cached");
    }
    return QString();
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
