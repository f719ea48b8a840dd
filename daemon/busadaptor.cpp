#include "daemon/busadaptor.h"

#include "wire/codec.h"
#include "wire/messages.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace tulo {

namespace {

const char* const everything = "/settings";

Error tooLarge(const QString& what, qint64 limit, const QString& path)
{
    return { ErrorCode::Limits,
             QStringLiteral("The %1 takes more than %2 bytes").arg(what).arg(limit), path };
}

// Keeps the entries that fit into one answer, from the front, at least one. One that alone does not
// fit keeps its place.
template<typename Entry, typename NameOf>
void fitIntoPage(QVector<Entry>* entries, const QString& what, NameOf nameOf)
{
    qint64 bytes = 0;
    int count = 0;
    for (Entry& entry : *entries) {
        entry.roles = wire::carriedRoles(entry.roles);
        const auto size = [&] {
            return wire::busSize(nameOf(entry))
                + wire::busSize(entry.error ? wire::errorEntry(entry.error) : entry.roles);
        };
        if (size() > BusAdaptor::maximumPageBytes) {
            entry.roles.clear();
            entry.error = tooLarge(what, BusAdaptor::maximumPageBytes, QString());
        }
        bytes += size();
        if (bytes > BusAdaptor::maximumPageBytes && count > 0)
            break;
        ++count;
    }
    entries->resize(count);
}

Change carried(Change change)
{
    change.stored = wire::carriedRoles(change.stored);
    if (!wire::isCarried(change.asked))
        change.asked = QVariant();
    return change;
}

bool differsInAnnounced(const Status& left, const Status& right)
{
    return left.isWritable != right.isWritable || left.unsavedCount != right.unsavedCount
        || left.lastWriteError != right.lastWriteError;
}

} // namespace

BusAdaptor::BusAdaptor(Settings& settings, std::function<Status()> status, BusThread& bus)
    : m_settings(settings)
    , m_statusNow(std::move(status))
    , m_bus(bus)
    , m_watch(settings.watchTree(QLatin1String(everything)))
    , m_status(m_statusNow())
    , m_announced(m_status)
{
    m_bus.setProperties(wire::statusToProperties(m_status));
    connect(m_watch.get(), &Watch::changed, this, &BusAdaptor::on_watch_changed);
    connect(&bus, &BusThread::called, this, &BusAdaptor::on_bus_called);
    m_announcement.setSingleShot(true);
    m_announcement.setInterval(announcementIntervalMs);
    connect(&m_announcement, &QTimer::timeout, this, &BusAdaptor::on_announcement_timeout);
    m_pendingCheck.setSingleShot(true);
    m_pendingCheck.setInterval(announcementIntervalMs);
    connect(&m_pendingCheck, &QTimer::timeout, this, &BusAdaptor::refreshStatus);
}

// ---------------------------------------------------------------------------------------------
// Calls. The bus has checked the types of the arguments.
// ---------------------------------------------------------------------------------------------

void BusAdaptor::on_bus_called(const BusCall& call)
{
    struct Entry
    {
        const wire::Method& method;
        void (BusAdaptor::*serve)(quint64, const Arguments&);
    };
    static const std::array<Entry, wire::methodTable.size()> entries { {
        { wire::getData, &BusAdaptor::getData },
        { wire::getMany, &BusAdaptor::getMany },
        { wire::getRows, &BusAdaptor::getRows },
        { wire::getTreeDigest, &BusAdaptor::getTreeDigest },
        { wire::explain, &BusAdaptor::explain },
        { wire::setValue, &BusAdaptor::setValue },
        { wire::setRoles, &BusAdaptor::setRoles },
        { wire::apply, &BusAdaptor::apply },
        { wire::setMany, &BusAdaptor::setMany },
        { wire::reset, &BusAdaptor::reset },
        { wire::resetBelow, &BusAdaptor::resetBelow },
        { wire::flush, &BusAdaptor::flush },
        { wire::dropCache, &BusAdaptor::dropCache },
        { wire::statistics, &BusAdaptor::statistics },
        { wire::getUnsaved, &BusAdaptor::getUnsaved },
    } };
    const auto* const entry =
        std::find_if(entries.begin(), entries.end(), [&call](const Entry& one) {
            return std::strcmp(one.method.interface, call.method->interface) == 0
                && std::strcmp(one.method.member, call.method->member) == 0;
        });
    Q_ASSERT(entry != entries.end());
    ++m_unanswered;
    if (entry->serve != &BusAdaptor::flush)
        m_served.insert(call.number);
    (this->*entry->serve)(call.number, call.arguments);
}

void BusAdaptor::finish(quint64 call, const Error& error, const Arguments& arguments)
{
    --m_unanswered;
    m_served.remove(call);
    // Before the answer to a change is sent, so that the properties tell of it.
    refreshStatus();
    if (error)
        m_bus.fail(call, error);
    else
        m_bus.answer(call, arguments);
}

bool BusAdaptor::fail(quint64 call, const Error& error)
{
    if (!error)
        return false;
    finish(call, error, {});
    return true;
}

template<typename T, typename Convert>
void BusAdaptor::answer(quint64 call, const Reply<T>& reply, Convert convert)
{
    reply.then(this, [this, call, convert](const Reply<T>& finished) {
        if (!fail(call, finished.error()))
            finish(call, {}, convert(finished.value()));
    });
}

void BusAdaptor::getData(quint64 call, const Arguments& arguments)
{
    const QString path = arguments.at(0).toString();
    m_settings.get(path, arguments.at(1).toStringList())
        .then(this, [this, call, path](const Reply<QVariantMap>& reply) {
            if (fail(call, reply.error()))
                return;
            const QVariantMap roles = wire::carriedRoles(reply.value());
            if (wire::busSize(roles) > maximumRolesBytes)
                fail(call,
                     tooLarge(QStringLiteral("setting '%1'").arg(path), maximumRolesBytes, path));
            else
                finish(call, {}, { roles });
        });
}

void BusAdaptor::getMany(quint64 call, const Arguments& arguments)
{
    answer(call, m_settings.getMany(arguments.at(0).toStringList(), arguments.at(1).toStringList()),
           [](QVector<Node> nodes) {
               fitIntoPage(&nodes, QStringLiteral("node"),
                           [](const Node& node) { return node.path; });
               return wire::nodesToArguments(nodes);
           });
}

void BusAdaptor::getRows(quint64 call, const Arguments& arguments)
{
    const QString path = arguments.at(0).toString();
    m_settings
        .rows(path, arguments.at(1).toInt(), arguments.at(2).toInt(),
              arguments.at(3).toStringList())
        .then(this, [this, call, path](const Reply<Rows>& reply) {
            if (fail(call, reply.error()))
                return;
            Rows rows = reply.value();
            rows.directory = wire::carriedRoles(rows.directory);
            if (wire::busSize(rows.directory) > maximumRolesBytes) {
                fail(call,
                     tooLarge(QStringLiteral("directory '%1'").arg(path), maximumRolesBytes, path));
                return;
            }
            fitIntoPage(&rows.rows, QStringLiteral("row"), [](const Row& row) { return row.name; });
            finish(call, {}, wire::rowsToArguments(rows));
        });
}

void BusAdaptor::getTreeDigest(quint64 call, const Arguments& /*arguments*/)
{
    answer(call, m_settings.treeDigest(),
           [](const QString& digest) { return Arguments { digest }; });
}

void BusAdaptor::explain(quint64 call, const Arguments& arguments)
{
    const QString path = arguments.at(0).toString();
    m_settings.explain(path).then(
        this, [this, call, path](const Reply<QVector<RoleOrigin>>& reply) {
            if (fail(call, reply.error()))
                return;
            const Arguments origins = wire::originsToArguments(reply.value());
            if (wire::busSize(origins) > maximumRolesBytes)
                fail(call,
                     tooLarge(QStringLiteral("setting '%1'").arg(path), maximumRolesBytes, path));
            else
                finish(call, {}, origins);
        });
}

void BusAdaptor::setValue(quint64 call, const Arguments& arguments)
{
    ChangeOptions options;
    if (fail(call, wire::optionsFromMap(arguments.at(2).toMap(), &options)))
        return;
    answer(call, m_settings.set(arguments.at(0).toString(), arguments.at(1), options),
           [](const Change& change) { return wire::changeToArguments(carried(change)); });
}

void BusAdaptor::setRoles(quint64 call, const Arguments& arguments)
{
    ChangeOptions options;
    if (fail(call, wire::optionsFromMap(arguments.at(2).toMap(), &options)))
        return;
    answer(call, m_settings.setRoles(arguments.at(0).toString(), arguments.at(1).toMap(), options),
           [](const Change& change) { return wire::changeToArguments(carried(change)); });
}

void BusAdaptor::apply(quint64 call, const Arguments& arguments)
{
    const QString path = arguments.at(0).toString();
    const QVariantList operand = arguments.at(2).toList();
    ChangeOptions options;
    if (fail(call, wire::optionsFromMap(arguments.at(3).toMap(), &options)))
        return;
    if (operand.size() > 1) {
        fail(call,
             { ErrorCode::Refused,
               QStringLiteral("An operation takes one operand at most; path:'%1'").arg(path),
               path });
        return;
    }
    answer(call, m_settings.apply(path, arguments.at(1).toString(), operand.value(0), options),
           [](const Change& change) { return wire::changeToArguments(carried(change)); });
}

void BusAdaptor::setMany(quint64 call, const Arguments& arguments)
{
    ChangeOptions options;
    QVector<Assignment> assignments;
    if (fail(call, wire::optionsFromMap(arguments.at(1).toMap(), &options))
        || fail(call, wire::assignmentsFromArgument(arguments.at(0).toList(), &assignments)))
        return;
    answer(call, m_settings.setMany(assignments, options), [](QVector<Change> changes) {
        std::transform(changes.begin(), changes.end(), changes.begin(), carried);
        return wire::changesToArguments(changes);
    });
}

void BusAdaptor::reset(quint64 call, const Arguments& arguments)
{
    ResetOptions options;
    if (fail(call, wire::resetOptionsFromMap(arguments.at(1).toMap(), &options)))
        return;
    answer(call, m_settings.reset(arguments.at(0).toStringList(), options),
           [](const QStringList& settings) { return Arguments { settings }; });
}

void BusAdaptor::resetBelow(quint64 call, const Arguments& arguments)
{
    ResetOptions options;
    if (fail(call, wire::resetOptionsFromMap(arguments.at(1).toMap(), &options)))
        return;
    options.isRecursive = true;
    answer(call, m_settings.reset(arguments.at(0).toStringList(), options),
           [](const QStringList& settings) { return Arguments { settings }; });
}

void BusAdaptor::flush(quint64 call, const Arguments& /*arguments*/)
{
    answer(call, m_settings.flush(), [](int failed) { return Arguments { uint(failed) }; });
}

void BusAdaptor::dropCache(quint64 call, const Arguments& /*arguments*/)
{
    answer(call, m_settings.dropCache(), [](bool) { return Arguments(); });
}

void BusAdaptor::statistics(quint64 call, const Arguments& /*arguments*/)
{
    answer(call, m_settings.statistics(), [this](QVariantMap numbers) {
        if (const std::optional<qint64> limited = m_bus.limitedCount())
            numbers.insert(QStringLiteral("limited"), *limited);
        return Arguments { numbers };
    });
}

void BusAdaptor::getUnsaved(quint64 call, const Arguments& arguments)
{
    const uint maximum = arguments.at(0).toUInt();
    answer(call, m_settings.unsavedPaths(int(std::min(maximum, uint(Settings::maximumPaths)))),
           [](const QStringList& paths) { return Arguments { paths }; });
}

// ---------------------------------------------------------------------------------------------
// Events and properties.
// ---------------------------------------------------------------------------------------------

void BusAdaptor::on_watch_changed(const Event& event)
{
    // A value that the bus cannot carry is left to be read; the data event follows.
    if (event.kind == Event::Kind::Value && !wire::isCarried(event.value))
        return;
    m_bus.announce(wire::signalOf(event.kind), wire::eventToArguments(event), !m_served.isEmpty());
}

void BusAdaptor::refreshStatus()
{
    const Status status = m_statusNow();
    if (status.pendingWrites > 0 && !m_pendingCheck.isActive())
        m_pendingCheck.start();
    if (status.pendingWrites == m_status.pendingWrites && !differsInAnnounced(status, m_status))
        return;
    m_status = status;
    m_bus.setProperties(wire::statusToProperties(m_status));
    if (differsInAnnounced(m_status, m_announced) && !m_announcement.isActive())
        m_announcement.start();
}

void BusAdaptor::on_announcement_timeout()
{
    // They may read as before again.
    if (!differsInAnnounced(m_status, m_announced))
        return;
    m_announced = m_status;
    m_bus.announceProperties();
}

} // namespace tulo
