#include "wire/messages.h"

#include "wire/codec.h"

#include <QMetaType>

#include <algorithm>
#include <cstring>
#include <limits>

namespace tulo::wire {
namespace {

// Names of entries in maps.
const QLatin1String errorKey("error");
const QLatin1String valueKey("value");
const QLatin1String typeKey("type");
const QLatin1String ifValueKey("if-value");
const QLatin1String ifTimestampKey("if-timestamp");
const QLatin1String dryRunKey("dry-run");
const QLatin1String keepKey("keep");
const QLatin1String adjustedKey("adjusted");
const QLatin1String askedKey("asked");
const QLatin1String reasonKey("reason");
const QLatin1String layerKey("layer");
const QLatin1String stateKey("state");
const QLatin1String fileKey("file");
const QLatin1String lineKey("line");
const QLatin1String columnKey("column");

// The value of the role "type" of a directory.
constexpr int directoryType = 1;

bool hasType(const QVariant& value, int type)
{
    return value.userType() == type;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Errors in the place of roles.
// ---------------------------------------------------------------------------------------------

QVariantMap errorEntry(const Error& error)
{
    return { { errorKey, error.name() + QLatin1String(": ") + error.message } };
}

Error errorOf(const QVariantMap& entry, const QString& path)
{
    const QVariant value = entry.value(errorKey);
    if (entry.size() != 1 || !hasType(value, QMetaType::QString))
        return {};
    const QString text = value.toString();
    const int colon = text.indexOf(QLatin1String(": "));
    const QString name = text.left(colon);
    const ErrorCode code = errorCodeNamed(name);
    const bool isKnown = colon > 0 && name == QLatin1String(describe(code).name);
    return { code, isKnown ? text.mid(colon + 2) : text, path };
}

// ---------------------------------------------------------------------------------------------
// Reading.
// ---------------------------------------------------------------------------------------------

QVariantList nodesToArguments(const QVector<Node>& nodes)
{
    QVariantList list;
    for (const Node& node : nodes) {
        list.append(
            QVariant(QVariantList { node.path, node.error ? errorEntry(node.error) : node.roles }));
    }
    return { QVariant(list) };
}

QVector<Node> nodesFromArguments(const QVariantList& arguments)
{
    QVector<Node> nodes;
    const QVariantList list = arguments.value(0).toList();
    nodes.reserve(list.size());
    for (const QVariant& entry : list) {
        const QVariantList members = entry.toList();
        Node node { members.value(0).toString(), members.value(1).toMap(), {} };
        node.error = errorOf(node.roles, node.path);
        if (node.error)
            node.roles.clear();
        nodes.append(node);
    }
    return nodes;
}

QVariantList rowsToArguments(const Rows& rows)
{
    QVariantList list;
    for (const Row& row : rows.rows) {
        list.append(
            QVariant(QVariantList { row.name, row.error ? errorEntry(row.error) : row.roles }));
    }
    return { uint(rows.count), rows.version, rows.directory, QVariant(list) };
}

std::optional<Rows> rowsFromArguments(const QString& path, const QVariantList& arguments)
{
    const uint count = arguments.value(0).toUInt();
    const QVariantList list = arguments.value(3).toList();
    if (count < uint(list.size()) || count > uint(std::numeric_limits<int>::max()))
        return std::nullopt;
    Rows rows;
    rows.count = int(count);
    rows.version = arguments.value(1).toInt();
    rows.directory = arguments.value(2).toMap();
    rows.rows.reserve(list.size());
    const QLatin1Char separator('/');
    const QString directory = path.endsWith(separator) ? path : path + separator;
    for (const QVariant& entry : list) {
        const QVariantList members = entry.toList();
        Row row;
        row.name = members.value(0).toString();
        row.roles = members.value(1).toMap();
        row.isDirectory = row.roles.value(typeKey).toInt() == directoryType;
        row.error = errorOf(row.roles, directory + row.name);
        if (row.error)
            row.roles.clear();
        rows.rows.append(row);
    }
    return rows;
}

namespace {

QVariantMap particularsOf(const RoleOrigin& origin)
{
    QVariantMap map { { layerKey, nameOf(origin.layer) }, { stateKey, nameOf(origin.state) } };
    if (isCarried(origin.value))
        map.insert(valueKey, origin.value);
    if (!origin.file.isEmpty())
        map.insert(fileKey, origin.file);
    if (origin.line > 0) {
        map.insert(lineKey, origin.line);
        map.insert(columnKey, origin.column);
    }
    if (!origin.reason.isEmpty())
        map.insert(reasonKey, origin.reason);
    return map;
}

} // namespace

QVariantList originsToArguments(const QVector<RoleOrigin>& origins)
{
    QVariantList list;
    for (const RoleOrigin& origin : origins)
        list.append(QVariant(QVariantList { origin.role, particularsOf(origin) }));
    return { QVariant(list) };
}

std::optional<QVector<RoleOrigin>> originsFromArguments(const QVariantList& arguments)
{
    QVector<RoleOrigin> origins;
    const QVariantList list = arguments.value(0).toList();
    origins.reserve(list.size());
    for (const QVariant& entry : list) {
        const QVariantList members = entry.toList();
        const QVariantMap map = members.value(1).toMap();
        const auto layer = layerNamed(map.value(layerKey).toString());
        const auto state = stateNamed(map.value(stateKey).toString());
        if (!layer || !state)
            return std::nullopt;
        RoleOrigin origin;
        origin.role = members.value(0).toString();
        origin.layer = *layer;
        origin.state = *state;
        origin.value = map.value(valueKey);
        origin.file = map.value(fileKey).toString();
        origin.line = map.value(lineKey).toInt();
        origin.column = map.value(columnKey).toInt();
        origin.reason = map.value(reasonKey).toString();
        origins.append(origin);
    }
    return origins;
}

// ---------------------------------------------------------------------------------------------
// Changes.
// ---------------------------------------------------------------------------------------------

QVariantMap optionsToMap(const ChangeOptions& options)
{
    QVariantMap map;
    if (options.ifValue.isValid())
        map.insert(ifValueKey, options.ifValue);
    if (options.ifTimestamp)
        map.insert(ifTimestampKey, *options.ifTimestamp);
    if (options.isDryRun)
        map.insert(dryRunKey, true);
    return map;
}

Error optionsFromMap(const QVariantMap& map, ChangeOptions* options)
{
    ChangeOptions read;
    for (auto entry = map.cbegin(); entry != map.cend(); ++entry) {
        if (entry.key() == ifValueKey) {
            read.ifValue = entry.value();
        } else if (entry.key() == ifTimestampKey && hasType(entry.value(), QMetaType::LongLong)) {
            read.ifTimestamp = entry.value().toLongLong();
        } else if (entry.key() == dryRunKey && hasType(entry.value(), QMetaType::Bool)) {
            read.isDryRun = entry.value().toBool();
        } else {
            return { ErrorCode::Refused,
                     QStringLiteral("no option '%1' with such a value").arg(entry.key()),
                     QString() };
        }
    }
    *options = read;
    return {};
}

QVariantMap resetOptionsToMap(const ResetOptions& options)
{
    if (options.keep.isEmpty())
        return {};
    QVariantList keep;
    for (const QString& path : options.keep)
        keep.append(path);
    return { { keepKey, keep } };
}

Error resetOptionsFromMap(const QVariantMap& map, ResetOptions* options)
{
    QStringList keep;
    for (auto entry = map.cbegin(); entry != map.cend(); ++entry) {
        const QVariantList paths = entry->toList();
        const bool areTexts = std::all_of(paths.cbegin(), paths.cend(), [](const QVariant& path) {
            return hasType(path, QMetaType::QString);
        });
        if (entry.key() != keepKey || !hasType(*entry, QMetaType::QVariantList) || !areTexts) {
            return { ErrorCode::Refused,
                     QStringLiteral("no option '%1' with such a value").arg(entry.key()),
                     QString() };
        }
        for (const QVariant& path : paths)
            keep.append(path.toString());
    }
    options->keep = keep;
    return {};
}

namespace {

QVariantMap outcomeOf(const Change& change)
{
    if (!change.isAdjusted)
        return {};
    QVariantMap outcome { { adjustedKey, true }, { reasonKey, change.reason } };
    if (change.asked.isValid())
        outcome.insert(askedKey, change.asked);
    return outcome;
}

} // namespace

QVariantList changeToArguments(const Change& change)
{
    return { change.stored, outcomeOf(change) };
}

std::optional<Change> changeFromArguments(const QVariantList& arguments)
{
    const QVariantMap outcome = arguments.value(1).toMap();
    Change change;
    change.stored = arguments.value(0).toMap();
    if (!outcome.contains(adjustedKey))
        return change;
    if (!hasType(outcome.value(adjustedKey), QMetaType::Bool)
        || !hasType(outcome.value(reasonKey), QMetaType::QString))
        return std::nullopt;
    change.isAdjusted = outcome.value(adjustedKey).toBool();
    change.asked = outcome.value(askedKey);
    change.reason = outcome.value(reasonKey).toString();
    return change;
}

QVariantList changesToArguments(const QVector<Change>& changes)
{
    QVariantList list;
    for (const Change& change : changes)
        list.append(QVariant(changeToArguments(change)));
    return { QVariant(list) };
}

std::optional<QVector<Change>> changesFromArguments(const QVariantList& arguments)
{
    QVector<Change> changes;
    const QVariantList list = arguments.value(0).toList();
    changes.reserve(list.size());
    for (const QVariant& entry : list) {
        const std::optional<Change> change = changeFromArguments(entry.toList());
        if (!change)
            return std::nullopt;
        changes.append(*change);
    }
    return changes;
}

QVariantList assignmentsToArgument(const QVector<Assignment>& assignments)
{
    QVariantList list;
    for (const Assignment& assignment : assignments) {
        QVariantMap roles = assignment.roles;
        if (assignment.value.isValid() || roles.isEmpty())
            roles.insert(valueKey, assignment.value);
        list.append(QVariant(QVariantList { assignment.path, roles }));
    }
    return list;
}

Error assignmentsFromArgument(const QVariantList& argument, QVector<Assignment>* assignments)
{
    QVector<Assignment> read;
    read.reserve(argument.size());
    for (const QVariant& entry : argument) {
        const QVariantList members = entry.toList();
        const QString path = members.value(0).toString();
        QVariantMap roles = members.value(1).toMap();
        if (roles.isEmpty()) {
            return { ErrorCode::Refused,
                     QStringLiteral("an assignment has no roles; path:'%1'").arg(path), path };
        }
        const QVariant value = roles.take(valueKey);
        read.append({ path, value, roles });
    }
    *assignments = read;
    return {};
}

// ---------------------------------------------------------------------------------------------
// Events and the state of the service.
// ---------------------------------------------------------------------------------------------

const Signal& signalOf(Event::Kind kind)
{
    switch (kind) {
    case Event::Kind::Value:
        return valueChanged;
    case Event::Kind::Rows:
        return rowsChanged;
    case Event::Kind::Data:
        break;
    }
    return dataChanged;
}

QVariantList eventToArguments(const Event& event)
{
    switch (event.kind) {
    case Event::Kind::Value:
        return { event.path, event.value };
    case Event::Kind::Rows:
        return { event.path, event.command, event.version };
    case Event::Kind::Data:
        break;
    }
    return { event.path };
}

std::optional<Event> eventFromArguments(const char* member, const QVariantList& arguments)
{
    Event event;
    event.path = arguments.value(0).toString();
    if (std::strcmp(member, dataChanged.member) == 0) {
        event.kind = Event::Kind::Data;
    } else if (std::strcmp(member, valueChanged.member) == 0) {
        event.kind = Event::Kind::Value;
        event.value = arguments.value(1);
    } else if (std::strcmp(member, rowsChanged.member) == 0) {
        event.kind = Event::Kind::Rows;
        event.command = arguments.value(1).toString();
        event.version = arguments.value(2).toInt();
    } else {
        return std::nullopt;
    }
    return event;
}

QVariantMap statusToProperties(const Status& status)
{
    return { { QStringLiteral("Version"), status.version },
             { QStringLiteral("Product"), status.product },
             { QStringLiteral("DefaultPath"), status.defaultPath },
             { QStringLiteral("WritePath"), status.writePath },
             { QStringLiteral("Writable"), status.isWritable },
             { QStringLiteral("UnsavedCount"), uint(status.unsavedCount) },
             { QStringLiteral("LastWriteError"), status.lastWriteError },
             { QStringLiteral("PendingWrites"), uint(status.pendingWrites) } };
}

std::optional<Status> statusFromProperties(const QVariantMap& values)
{
    // In a variant each integer has 64 bits.
    const QVariantMap shapes = statusToProperties({});
    for (auto shape = shapes.cbegin(); shape != shapes.cend(); ++shape) {
        const int type =
            hasType(*shape, QMetaType::UInt) ? int(QMetaType::LongLong) : shape->userType();
        if (!hasType(values.value(shape.key()), type))
            return std::nullopt;
    }
    Status status;
    status.version = values.value(QStringLiteral("Version")).toString();
    status.product = values.value(QStringLiteral("Product")).toString();
    status.defaultPath = values.value(QStringLiteral("DefaultPath")).toString();
    status.writePath = values.value(QStringLiteral("WritePath")).toString();
    status.isWritable = values.value(QStringLiteral("Writable")).toBool();
    status.unsavedCount = values.value(QStringLiteral("UnsavedCount")).toInt();
    status.lastWriteError = values.value(QStringLiteral("LastWriteError")).toString();
    status.pendingWrites = values.value(QStringLiteral("PendingWrites")).toInt();
    return status;
}

} // namespace tulo::wire
