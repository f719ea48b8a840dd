#include "tulo-cm/watches.h"

#include "tulo-cm/listing.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/waiting.h"

#include "trees/plainjson.h"

#include <QCoreApplication>

#include <utility>

namespace tulo {
namespace {

// Encrypted values are not printed, as events do not hold them.
bool mayBePrinted(const VisitedNode& node)
{
    return !node.isDirectory && !node.roles.value(roles::encrypted()).toBool();
}

QVariant valueOf(const VisitedNode& node)
{
    return node.roles.value(roles::value());
}

QByteArray joined(const QStringList& names)
{
    QByteArray all;
    for (const QString& name : names)
        all += '/' + name.toUtf8();
    return all;
}

// The value of each setting, as JSON, and the names in each directory.
QHash<QString, QByteArray> contentsOf(const QVector<VisitedNode>& nodes)
{
    QHash<QString, QByteArray> contents;
    for (const VisitedNode& node : nodes) {
        if (mayBePrinted(node))
            contents.insert(node.path, jsonOf(valueOf(node)));
        const QString directory = node.path.section(QLatin1Char('/'), 0, -2);
        contents[directory] += '/' + node.name.toUtf8();
    }
    return contents;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Beginning and end. What there is now is read after subscribing, so that nothing is missed in
// between.
// ---------------------------------------------------------------------------------------------

Watches::Watches(Settings& settings, Output& output)
    : m_settings(settings)
    , m_output(output)
{
    connect(&m_settings, &Settings::stateChanged, this, &Watches::on_settings_stateChanged);
    m_missed.setSingleShot(true);
    connect(&m_missed, &QTimer::timeout, this, &Watches::on_missed_timeout);
}

Watches::~Watches() = default;

int Watches::add(const Request& request)
{
    m_exitCode = Done;
    const auto left = std::make_shared<int>(request.count);
    for (const QString& path : request.paths)
        addEntry(path, request, left);
    int exitCode = Done;
    QVector<QVector<VisitedNode>> nodes;
    for (const QString& path : request.paths) {
        nodes.append(QVector<VisitedNode>());
        if (exitCode == Done)
            exitCode = start(path, &nodes.last());
    }
    // A refusal that came with the last answer.
    QCoreApplication::processEvents();
    exitCode = firstFailure(exitCode, m_exitCode);
    for (int i = 0; i < request.paths.size(); ++i) {
        if (exitCode != Done)
            remove(request.paths.at(i));
        else if (request.isInitial)
            printInitial(request.paths.at(i), nodes.at(i));
    }
    return exitCode;
}

void Watches::addEntry(const QString& path, const Request& request,
                       const std::shared_ptr<int>& left)
{
    Entry& entry = m_entries[path];
    entry.watch =
        request.scope == Watch::Scope::Tree ? m_settings.watchTree(path) : m_settings.watch(path);
    entry.left = left;
    const Watch* const watch = entry.watch.get();
    connect(watch, &Watch::changed, this,
            [this, path](const Event& event) { on_watch_changed(path, event); });
    connect(watch, &Watch::missed, &m_missed, [this, path] {
        m_entries.at(path).rowNames.forget();
        m_missed.start(0);
    });
    connect(watch, &Watch::failed, this,
            [this, path](const Error& error) { on_watch_failed(path, error); });
}

bool Watches::namesRows(const Entry& entry) const
{
    return entry.watch->scope() == Watch::Scope::Tree && m_output.isForPeople();
}

int Watches::read(const QString& watched, Watch::Scope scope, QVector<VisitedNode>* nodes)
{
    const QStringList names { roles::value(), roles::encrypted() };
    if (scope == Watch::Scope::Tree) {
        const auto visit = [nodes](const VisitedNode& node) {
            nodes->append(node);
            return true;
        };
        const auto listed = [this, watched](const QString& directory, const Listing& listing) {
            const auto entry = m_entries.find(watched);
            if (entry != m_entries.end() && namesRows(entry->second))
                entry->second.rowNames.setListed(directory, listing.names, listing.rows.version);
        };
        return walk(m_settings, watched, names, m_output, visit, listed);
    }
    const auto node = finished(m_settings.get(watched, QStringList(roles::type()) + names));
    if (node.error())
        return m_output.report(node.error());
    nodes->append({ watched, nameOf(watched), 0, isDirectory(node.value()), node.value() });
    return Done;
}

int Watches::start(const QString& path, QVector<VisitedNode>* nodes)
{
    auto entry = m_entries.find(path);
    if (entry == m_entries.end())
        return Done;
    const int exitCode = read(path, entry->second.watch->scope(), nodes);
    // The watch may have failed meanwhile.
    entry = m_entries.find(path);
    if (entry != m_entries.end())
        entry->second.contents = contentsOf(*nodes);
    // A row that cannot be served hides no other.
    return nodes->isEmpty() ? exitCode : int(Done);
}

void Watches::printInitial(const QString& path, const QVector<VisitedNode>& nodes)
{
    const QHash<QString, QByteArray> read = contentsOf(nodes);
    for (const VisitedNode& node : nodes) {
        const auto entry = m_entries.find(path);
        if (entry == m_entries.end())
            return;
        // What has changed since it was read was printed then.
        const bool wasPrinted =
            !node.isDirectory && entry->second.contents.value(node.path) != read.value(node.path);
        if (!wasPrinted && (node.isDirectory || mayBePrinted(node)))
            print(eventOf(node));
    }
}

void Watches::remove(const QString& path)
{
    m_entries.erase(path);
}

void Watches::removeAll()
{
    m_entries.clear();
}

// ---------------------------------------------------------------------------------------------
// What the settings tell.
// ---------------------------------------------------------------------------------------------

void Watches::on_watch_changed(const QString& watched, const Event& event)
{
    if (event.kind == Event::Kind::Value)
        m_entries.at(watched).newValue = event.path;
    if (event.kind != Event::Kind::Value || event.value.isValid()) {
        tell(watched, event);
        return;
    }
    // Too large for a broadcast.
    m_settings.get(event.path, { roles::value() })
        .then(this, [this, watched, event](const Reply<QVariantMap>& reply) {
            Event complete = event;
            complete.value = reply.value().value(roles::value());
            tell(watched, complete);
        });
}

void Watches::on_watch_failed(const QString& watched, const Error& error)
{
    // The limits are the bus's, not those of the settings.
    const ErrorCode code = error.code == ErrorCode::Limits ? ErrorCode::Unavailable : error.code;
    const QString message = QStringLiteral("cannot watch '%1': %2").arg(watched, error.message);
    m_exitCode = firstFailure(m_exitCode, m_output.report({ code, message, watched }));
    remove(watched);
}

void Watches::on_settings_stateChanged(Settings::State state)
{
    if (state == Settings::State::Away && !isEmpty()) {
        m_output.report({ ErrorCode::Unavailable,
                          QStringLiteral("the service has gone; changes are missed until it is "
                                         "back"),
                          QString() });
    }
}

void Watches::on_missed_timeout()
{
    if (isEmpty())
        return;
    m_output.note(QStringLiteral("the service is back; what differs follows"));
    QStringList paths;
    for (const auto& entry : m_entries)
        paths.append(entry.first);
    for (const QString& path : qAsConst(paths))
        catchUp(path);
}

// Of a single directory the rows were not read, so they always count as changed.
void Watches::catchUp(const QString& watched)
{
    const auto before = m_entries.find(watched);
    if (before == m_entries.end())
        return;
    const Watch::Scope scope = before->second.watch->scope();
    QVector<VisitedNode> nodes;
    read(watched, scope, &nodes);
    const auto entry = m_entries.find(watched);
    if (nodes.isEmpty() || entry == m_entries.end())
        return;
    const QHash<QString, QByteArray> now = contentsOf(nodes);
    const QHash<QString, QByteArray> known = std::exchange(entry->second.contents, now);
    for (const VisitedNode& node : qAsConst(nodes)) {
        const bool isUnknown = node.isDirectory && scope == Watch::Scope::Node;
        if (!isUnknown && known.value(node.path) == now.value(node.path))
            continue;
        if (node.isDirectory && scope == Watch::Scope::Tree && m_output.isForPeople())
            tellOfRows(watched, node.path, known.value(node.path), now.value(node.path));
        else
            tell(watched, eventOf(node));
    }
}

// As if it had just changed.
Event Watches::eventOf(const VisitedNode& node)
{
    Event event;
    event.path = node.path;
    if (node.isDirectory) {
        event.kind = Event::Kind::Rows;
        // A range that ends before it begins: the version without any row.
        event.version = finished(m_settings.rows(node.path, 1, 0, {})).value().version;
    } else {
        event.kind = Event::Kind::Value;
        event.value = valueOf(node);
    }
    return event;
}

// ---------------------------------------------------------------------------------------------
// Printing.
// ---------------------------------------------------------------------------------------------

void Watches::tell(const QString& watched, const Event& event)
{
    const auto entry = m_entries.find(watched);
    if (entry == m_entries.end())
        return;
    if (event.kind == Event::Kind::Value)
        entry->second.contents.insert(event.path, jsonOf(event.value));
    QString row;
    if (namesRows(entry->second)) {
        row = entry->second.rowNames.take(event);
        if (entry->second.rowNames.isKnown(event.path))
            entry->second.contents.insert(event.path,
                                          joined(entry->second.rowNames.names(event.path)));
        else if (event.kind == Event::Kind::Rows)
            listAgain(watched, event.path);
    }
    if (isSaidAlready(entry->second, event, row))
        return;
    print(event, row);
    count(watched);
}

// For a person: after its value the roles of a setting, after these its row in a tree.
bool Watches::isSaidAlready(Entry& entry, const Event& event, const QString& row) const
{
    if (event.kind == Event::Kind::Data) {
        const bool hasNewValue = std::exchange(entry.newValue, QString()) == event.path;
        return hasNewValue && m_output.isForPeople();
    }
    const bool isNewOrGone =
        event.command.startsWith(QLatin1Char('+')) || event.command.startsWith(QLatin1Char('-'));
    return !row.isEmpty() && !isNewOrGone;
}

// Where one answer does not hold all of it, its rows keep their indexes.
void Watches::listAgain(const QString& watched, const QString& directory)
{
    m_settings.rows(directory, 0, Settings::maximumRows - 1, {})
        .then(this, [this, watched, directory](const Reply<Rows>& reply) {
            const auto entry = m_entries.find(watched);
            QStringList names;
            for (const Row& row : reply.value().rows)
                names.append(row.name);
            if (entry != m_entries.end() && !reply.error() && names.size() == reply.value().count)
                entry->second.rowNames.setListed(directory, names, reply.value().version);
        });
}

// What differs after events were missed, as one event.
void Watches::tellOfRows(const QString& watched, const QString& directory, const QByteArray& before,
                         const QByteArray& now)
{
    const QList<QByteArray> namesBefore = before.split('/');
    const QList<QByteArray> names = now.split('/');
    const auto print = [&](const QByteArray& name, const char* what) {
        m_output.line(QStringLiteral("row %1 %2")
                          .arg(pathBelow(directory, QString::fromUtf8(name)), QLatin1String(what)));
    };
    for (const QByteArray& name : namesBefore) {
        if (!names.contains(name))
            print(name, "gone");
    }
    for (const QByteArray& name : names) {
        if (!namesBefore.contains(name))
            print(name, "appeared");
    }
    m_output.flush();
    count(watched);
}

void Watches::print(const Event& event, const QString& row)
{
    const QString value = QStringLiteral("value");
    const QString kind = event.kind == Event::Kind::Value ? value
        : event.kind == Event::Kind::Rows                 ? QStringLiteral("rows")
                                                          : QStringLiteral("data");
    if (m_output.isJson()) {
        QVariantMap object { { QStringLiteral("event"), kind },
                             { QStringLiteral("path"), event.path } };
        if (event.kind == Event::Kind::Value)
            object.insert(value, valueObject(event.value));
        if (event.kind == Event::Kind::Rows) {
            object.insert(QStringLiteral("command"), event.command);
            object.insert(QStringLiteral("rowsVersion"), event.version);
        }
        m_output.object(object);
        return;
    }
    if (!row.isEmpty()) {
        const bool isNew = event.command.startsWith(QLatin1Char('+'));
        const char* const what = isNew ? "appeared" : "gone";
        m_output.line(QStringLiteral("row %1 %2").arg(row, QLatin1String(what)));
        m_output.flush();
        return;
    }
    QString line = kind + QLatin1Char(' ') + event.path;
    if (event.kind == Event::Kind::Value)
        line += QLatin1Char(' ') + shownInCell(event.value);
    if (!event.command.isEmpty())
        line += QLatin1Char(' ') + event.command;
    m_output.line(line);
    m_output.flush();
}

void Watches::count(const QString& watched)
{
    const std::shared_ptr<int> left = m_entries.at(watched).left;
    if (*left == 0 || --*left > 0)
        return;
    for (auto entry = m_entries.begin(); entry != m_entries.end();) {
        if (entry->second.left == left)
            entry = m_entries.erase(entry);
        else
            ++entry;
    }
}

} // namespace tulo
