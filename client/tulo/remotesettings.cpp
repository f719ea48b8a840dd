#include "tulo/remotesettings.h"

#include "base/checks.h"
#include "remote/servicelink.h"
#include "remote/subscriptions.h"
#include "wire/codec.h"
#include "wire/messages.h"
#include "wire/names.h"

#include <QObject>
#include <QPointer>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace tulo {
namespace {

// Paths of one call take at most so many bytes, so that several are under way at a time.
constexpr int pathBytesOfCall = 128 * 1024;

constexpr wire::Method getProperties { "org.freedesktop.DBus.Properties", "GetAll", "s", "a{sv}",
                                       "" };

const QLatin1String typeRole("type");

/// The get() calls of one turn for the same roles.
struct Batch
{
    QStringList roles;
    QStringList paths;
    QVector<Promise<QVariantMap>> promises; ///< one for each path
};

/// Paths that are asked for in as many calls as it takes.
struct PathsToRead
{
    QStringList paths;
    QStringList roles;
    std::function<void(int index, const Node& node)> take; ///< once for each path
    std::function<void(const Error& error)> finish; ///< after the last one or an error
    int next = 0; ///< the first one that has not been answered
    int left = 0; ///< those not taken
};

Error cancelledError()
{
    return { ErrorCode::Cancelled, QStringLiteral("cancelled"), QString() };
}

} // namespace

class RemoteSettingsPrivate : public QObject
{
public:
    RemoteSettingsPrivate(RemoteSettings* settings, const QString& bus);

    /// Calls the service; `convert` makes the result of the arguments of the answer, or none when
    /// they are malformed.
    template<typename T, typename Convert>
    Reply<T> ask(const wire::Method& method, const QVariantList& arguments, const QString& path,
                 Convert convert);
    template<typename T>
    Reply<T> refuse(const Error& error);

    Reply<QVariantMap> get(const QString& path, const QStringList& roles);
    Reply<QVector<Node>> getMany(const QStringList& paths, const QStringList& roles);
    Reply<QVector<Change>> setMany(const QVector<Assignment>& assignments,
                                   const QVariantMap& options);
    Reply<QStringList> reset(const QStringList& paths, const ResetOptions& options);
    Reply<Status> status();

    /// Sends what this turn of the event loop has gathered.
    void sendGathered();
    /// Has sendGathered() called at the end of this turn.
    void gather();
    void abandon();

    ServiceLink link;
    Subscriptions subscriptions;

private:
    void send(const Batch& batch);
    void read(const std::shared_ptr<PathsToRead>& reading, bool isNext);
    void on_nodes_answered(const std::shared_ptr<PathsToRead>& reading, int asked,
                           const ServiceLink::Answer& answer);

    QVector<Batch> m_batches;
    bool m_isGathering = false;
};

// ---------------------------------------------------------------------------------------------
// The way to the service.
// ---------------------------------------------------------------------------------------------

RemoteSettingsPrivate::RemoteSettingsPrivate(RemoteSettings* settings, const QString& bus)
    : link(bus)
    , subscriptions(link)
{
    connect(&link, &ServiceLink::connected, &subscriptions, &Subscriptions::renew);
    connect(&link, &ServiceLink::stateChanged, settings, &RemoteSettings::stateChanged);
    connect(&link, &ServiceLink::returned, settings, [settings] { settings->deliverMissed(); });
    connect(&link, &ServiceLink::eventReceived, settings,
            [settings](const Event& event) { settings->deliver(event); });
    connect(
        &subscriptions, &Subscriptions::failed, settings,
        [settings](Watch* watch, const Error& error) { settings->deliverFailed(watch, error); });
}

template<typename T, typename Convert>
Reply<T> RemoteSettingsPrivate::ask(const wire::Method& method, const QVariantList& arguments,
                                    const QString& path, Convert convert)
{
    // Requests are carried out in the order in which they are made.
    sendGathered();
    const Promise<T> promise;
    link.call(method, arguments, path, [promise, convert, path](const ServiceLink::Answer& answer) {
        if (answer.error) {
            promise.fail(answer.error);
            return;
        }
        const std::optional<T> result = convert(answer.arguments);
        if (result)
            promise.finish(*result);
        else
            promise.fail(ServiceLink::malformedAnswer(path));
    });
    return promise.reply();
}

template<typename T>
Reply<T> RemoteSettingsPrivate::refuse(const Error& error)
{
    const Promise<T> promise;
    link.refuse(error,
                [promise](const ServiceLink::Answer& answer) { promise.fail(answer.error); });
    return promise.reply();
}

void RemoteSettingsPrivate::gather()
{
    if (!std::exchange(m_isGathering, true)) {
        QMetaObject::invokeMethod(
            this, [this] { sendGathered(); }, Qt::QueuedConnection);
    }
}

void RemoteSettingsPrivate::sendGathered()
{
    m_isGathering = false;
    // First, so that nothing that happens after the answers is missed.
    subscriptions.update();
    const QVector<Batch> batches = std::exchange(m_batches, {});
    for (const Batch& batch : batches)
        send(batch);
}

void RemoteSettingsPrivate::abandon()
{
    const QVector<Batch> batches = std::exchange(m_batches, {});
    link.abandon();
    for (const Batch& batch : batches) {
        for (const Promise<QVariantMap>& promise : batch.promises)
            promise.fail(cancelledError());
    }
}

// ---------------------------------------------------------------------------------------------
// Reading many paths.
// ---------------------------------------------------------------------------------------------

Reply<QVariantMap> RemoteSettingsPrivate::get(const QString& path, const QStringList& roles)
{
    const auto hasRoles = [&roles](const Batch& batch) {
        return batch.roles == roles;
    };
    auto batch = std::find_if(m_batches.begin(), m_batches.end(), hasRoles);
    if (batch == m_batches.end()) {
        m_batches.append({ roles, {}, {} });
        batch = std::prev(m_batches.end());
    }
    const Promise<QVariantMap> promise;
    batch->paths.append(path);
    batch->promises.append(promise);
    gather();
    return promise.reply();
}

void RemoteSettingsPrivate::send(const Batch& batch)
{
    if (batch.paths.size() == 1) {
        const Promise<QVariantMap> promise = batch.promises.first();
        link.call(wire::getData, { batch.paths.first(), batch.roles }, batch.paths.first(),
                  [promise](const ServiceLink::Answer& answer) {
                      if (answer.error)
                          promise.fail(answer.error);
                      else
                          promise.finish(answer.arguments.value(0).toMap());
                  });
        return;
    }

    int first = 0;
    while (first < batch.paths.size()) {
        int count = 0;
        int bytes = 0;
        while (first + count < batch.paths.size() && count < Settings::maximumPaths
               && bytes < pathBytesOfCall) {
            bytes += batch.paths.at(first + count).size();
            ++count;
        }
        const auto promises = batch.promises.mid(first, count);
        const auto reading = std::make_shared<PathsToRead>();
        reading->paths = batch.paths.mid(first, count);
        reading->roles = batch.roles;
        reading->take = [promises](int index, const Node& node) {
            if (node.error)
                promises.at(index).fail(node.error);
            else
                promises.at(index).finish(node.roles);
        };
        reading->finish = [promises, paths = reading->paths](const Error& error) {
            for (int i = 0; i < promises.size() && error; ++i)
                promises.at(i).fail({ error.code, error.message, paths.at(i) });
        };
        read(reading, false);
        first += count;
    }
}

Reply<QVector<Node>> RemoteSettingsPrivate::getMany(const QStringList& paths,
                                                    const QStringList& roles)
{
    sendGathered();
    const Promise<QVector<Node>> promise;
    const auto nodes = std::make_shared<QVector<Node>>(paths.size());
    const auto reading = std::make_shared<PathsToRead>();
    reading->paths = paths;
    reading->roles = roles;
    reading->take = [nodes](int index, const Node& node) {
        (*nodes)[index] = node;
    };
    reading->finish = [promise, nodes](const Error& error) {
        if (error)
            promise.fail(error);
        else
            promise.finish(*nodes);
    };
    read(reading, false);
    return promise.reply();
}

void RemoteSettingsPrivate::read(const std::shared_ptr<PathsToRead>& reading, bool isNext)
{
    const QStringList paths = reading->paths.mid(reading->next);
    reading->left = isNext ? reading->left : paths.size();
    const QVariantList arguments { paths, reading->roles };
    const auto answered = [this, reading, asked = paths.size()](const ServiceLink::Answer& answer) {
        if (answer.error)
            reading->finish(answer.error);
        else
            on_nodes_answered(reading, asked, answer);
    };
    if (isNext)
        link.callNext(wire::getMany, arguments, QString(), answered);
    else
        link.call(wire::getMany, arguments, QString(), answered);
}

// The service answers from the front with what fits into one message.
void RemoteSettingsPrivate::on_nodes_answered(const std::shared_ptr<PathsToRead>& reading,
                                              int asked, const ServiceLink::Answer& answer)
{
    const QVector<Node> nodes = wire::nodesFromArguments(answer.arguments);
    bool isAnswer = nodes.size() <= asked && (!nodes.isEmpty() || asked == 0);
    for (int i = 0; i < nodes.size() && isAnswer; ++i)
        isAnswer = nodes.at(i).path == reading->paths.at(reading->next + i);
    if (!isAnswer) {
        reading->finish(ServiceLink::malformedAnswer(QString()));
        return;
    }
    const int first = reading->next;
    reading->next += nodes.size();
    // Before the handlers of the program, which may run an event loop or destroy this.
    if (reading->next < reading->paths.size())
        read(reading, true);
    const QPointer<RemoteSettingsPrivate> self(this);
    for (int i = 0; i < nodes.size() && self; ++i)
        reading->take(first + i, nodes.at(i));
    reading->left -= nodes.size();
    if (!self)
        reading->finish(cancelledError());
    else if (reading->left == 0)
        reading->finish(Error());
}

// ---------------------------------------------------------------------------------------------
// Changing many.
// ---------------------------------------------------------------------------------------------

namespace {

// An error has no place for the path on the bus, and names it in its message.
QString pathNamedIn(const QString& message, const QStringList& paths)
{
    for (const QString& path : paths) {
        if (message.contains(QStringLiteral("'%1'").arg(shownPath(path))))
            return path;
    }
    return QString();
}

} // namespace

Reply<QVector<Change>> RemoteSettingsPrivate::setMany(const QVector<Assignment>& assignments,
                                                      const QVariantMap& options)
{
    sendGathered();
    const Promise<QVector<Change>> promise;
    QStringList paths;
    for (const Assignment& assignment : assignments)
        paths.append(assignment.path);
    const auto answered = [promise, paths](const ServiceLink::Answer& answer) {
        if (answer.error) {
            promise.fail({ answer.error.code, answer.error.message,
                           pathNamedIn(answer.error.message, paths) });
            return;
        }
        const auto changes = wire::changesFromArguments(answer.arguments);
        if (changes && changes->size() == paths.size())
            promise.finish(*changes);
        else
            promise.fail(ServiceLink::malformedAnswer(QString()));
    };
    link.call(wire::setMany, { QVariant(wire::assignmentsToArgument(assignments)), options },
              QString(), answered);
    return promise.reply();
}

Reply<QStringList> RemoteSettingsPrivate::reset(const QStringList& paths,
                                                const ResetOptions& options)
{
    sendGathered();
    const Promise<QStringList> promise;
    const auto answered = [promise, paths](const ServiceLink::Answer& answer) {
        if (answer.error) {
            promise.fail({ answer.error.code, answer.error.message,
                           pathNamedIn(answer.error.message, paths) });
        } else {
            promise.finish(answer.arguments.value(0).toStringList());
        }
    };
    link.call(options.isRecursive ? wire::resetBelow : wire::reset,
              { paths, wire::resetOptionsToMap(options) }, QString(), answered);
    return promise.reply();
}

// ---------------------------------------------------------------------------------------------
// The state of the service: its properties and who it is.
// ---------------------------------------------------------------------------------------------

Reply<Status> RemoteSettingsPrivate::status()
{
    sendGathered();
    const Promise<Status> promise;
    const auto answered = [this, promise](const ServiceLink::Answer& answer) {
        if (answer.error) {
            promise.fail(answer.error);
            return;
        }
        const auto status = wire::statusFromProperties(answer.arguments.value(0).toMap());
        if (!status) {
            promise.fail(ServiceLink::malformedAnswer(QString()));
            return;
        }
        link.call(getProcessId, { QString::fromUtf8(link.owner()) }, QString(),
                  [promise, status](const ServiceLink::Answer& process) {
                      if (process.error.code == ErrorCode::Cancelled) {
                          promise.fail(process.error);
                          return;
                      }
                      Status whole = *status;
                      whole.processId = process.arguments.value(0).toUInt();
                      promise.finish(whole);
                  });
    };
    link.call(getProperties, { QLatin1String(wire::readInterface) }, QString(), answered);
    return promise.reply();
}

// ---------------------------------------------------------------------------------------------
// What is wrong with a request by itself is found here; the rest is the service's to say.
// ---------------------------------------------------------------------------------------------

namespace {

// What cannot be sent at all.
Error pathError(const QString& path)
{
    if (wire::isCarried(path))
        return {};
    Error error = checkPath(path);
    if (error)
        return error;
    return {
        ErrorCode::Refused,
        QStringLiteral("Path '%1' holds a character that D-Bus does not have").arg(shownPath(path)),
        path
    };
}

Error requestError(const QString& path, const QStringList& roles)
{
    if (wire::isCarried(roles))
        return pathError(path);
    return {
        ErrorCode::Refused,
        QStringLiteral("A role of '%1' has a name that D-Bus cannot carry").arg(shownPath(path)),
        path
    };
}

// What is not a value goes as an empty map, which is none either: so the service says what it has
// to say first, in the order in which it finds it.
QVariant sendable(const QVariant& value)
{
    return wire::isCarried(value) ? value : QVariantMap();
}

QVariantMap sendableRoles(QVariantMap roles)
{
    for (QVariant& role : roles)
        role = sendable(role);
    return roles;
}

QVariantMap sendable(const ChangeOptions& options)
{
    ChangeOptions sent = options;
    if (sent.ifValue.isValid())
        sent.ifValue = sendable(sent.ifValue);
    return wire::optionsToMap(sent);
}

} // namespace

RemoteSettings::RemoteSettings(const QString& bus)
    : d(std::make_unique<RemoteSettingsPrivate>(this, bus))
{
}

RemoteSettings::~RemoteSettings()
{
    d->abandon();
}

QString RemoteSettings::addressOfHost(const QString& host, Error* error)
{
    const auto isUnsuitable = [](const QChar& character) {
        return character.isSpace() || !character.isPrint();
    };
    if (host.isEmpty() || host.startsWith(QLatin1Char('-')) || !host.isValidUtf16()
        || std::any_of(host.cbegin(), host.cend(), isUnsuitable)) {
        *error = { ErrorCode::Refused,
                   QStringLiteral("'%1' is not the name of a machine").arg(host), QString() };
        return QString();
    }
    *error = {};
    // In a session apart: what the keyboard sends to a program's group does not reach ssh.
    return QStringLiteral("unixexec:path=setsid,argv1=ssh,argv2=-xT,argv3=--,argv4=%1,"
                          "argv5=systemd-stdio-bridge")
        .arg(QString::fromLatin1(host.toUtf8().toPercentEncoding(QByteArray(), QByteArray("~"))));
}

Settings::State RemoteSettings::state() const
{
    return d->link.state();
}

QString RemoteSettings::problem() const
{
    return d->link.problem();
}

// ---------------------------------------------------------------------------------------------
// Reading.
// ---------------------------------------------------------------------------------------------

Reply<QVariantMap> RemoteSettings::get(const QString& path, const QStringList& roles)
{
    const Error error = requestError(path, roles);
    return error ? d->refuse<QVariantMap>(error) : d->get(path, roles);
}

Reply<QVector<Node>> RemoteSettings::getMany(const QStringList& paths, const QStringList& roles)
{
    for (const QString& path : paths) {
        const Error error = requestError(path, roles);
        if (error)
            return d->refuse<QVector<Node>>(error);
    }
    return d->getMany(paths, roles);
}

Reply<Rows> RemoteSettings::rows(const QString& path, int first, int last, const QStringList& roles)
{
    const Error error = requestError(path, roles);
    if (error)
        return d->refuse<Rows>(error);
    // Tells directories from settings.
    const bool isTypeAsked = roles.contains(typeRole);
    const QStringList asked = isTypeAsked ? roles : roles + QStringList(typeRole);
    return d->ask<Rows>(wire::getRows, { path, first, last, asked }, path,
                        [path, isTypeAsked](const QVariantList& arguments) {
                            std::optional<Rows> rows = wire::rowsFromArguments(path, arguments);
                            if (rows && !isTypeAsked) {
                                for (Row& row : rows->rows)
                                    row.roles.remove(typeRole);
                            }
                            return rows;
                        });
}

Reply<QVector<RoleOrigin>> RemoteSettings::explain(const QString& path)
{
    const Error error = pathError(path);
    if (error)
        return d->refuse<QVector<RoleOrigin>>(error);
    return d->ask<QVector<RoleOrigin>>(wire::explain, { path }, path, wire::originsFromArguments);
}

// ---------------------------------------------------------------------------------------------
// Changes.
// ---------------------------------------------------------------------------------------------

Reply<Change> RemoteSettings::set(const QString& path, const QVariant& value,
                                  const ChangeOptions& options)
{
    const Error error = pathError(path);
    if (error)
        return d->refuse<Change>(error);
    return d->ask<Change>(wire::setValue, { path, sendable(value), sendable(options) }, path,
                          wire::changeFromArguments);
}

Reply<Change> RemoteSettings::setRoles(const QString& path, const QVariantMap& roles,
                                       const ChangeOptions& options)
{
    const Error error = requestError(path, roles.keys());
    if (error)
        return d->refuse<Change>(error);
    return d->ask<Change>(wire::setRoles, { path, sendableRoles(roles), sendable(options) }, path,
                          wire::changeFromArguments);
}

Reply<Change> RemoteSettings::apply(const QString& path, const QString& verb,
                                    const QVariant& operand, const ChangeOptions& options)
{
    Error error = pathError(path);
    if (!error && !wire::isCarried(verb)) {
        error = { ErrorCode::Refused,
                  QStringLiteral("The operation for '%1' has a name that D-Bus cannot carry")
                      .arg(shownPath(path)),
                  path };
    }
    if (error)
        return d->refuse<Change>(error);
    const QVariantList operands =
        operand.isValid() ? QVariantList { sendable(operand) } : QVariantList();
    return d->ask<Change>(wire::apply, { path, verb, QVariant(operands), sendable(options) }, path,
                          wire::changeFromArguments);
}

Reply<QVector<Change>> RemoteSettings::setMany(const QVector<Assignment>& assignments,
                                               const ChangeOptions& options)
{
    QVector<Assignment> sent = assignments;
    for (Assignment& assignment : sent) {
        const Error error = requestError(assignment.path, assignment.roles.keys());
        if (error)
            return d->refuse<QVector<Change>>(error);
        if (assignment.value.isValid() || assignment.roles.isEmpty())
            assignment.value = sendable(assignment.value);
        assignment.roles = sendableRoles(assignment.roles);
    }
    return d->setMany(sent, sendable(options));
}

Reply<QStringList> RemoteSettings::reset(const QStringList& paths, const ResetOptions& options)
{
    for (const QString& path : paths + options.keep) {
        const Error error = pathError(path);
        if (error)
            return d->refuse<QStringList>(error);
    }
    return d->reset(paths, options);
}

// ---------------------------------------------------------------------------------------------
// Disk, caches and how it all does.
// ---------------------------------------------------------------------------------------------

Reply<int> RemoteSettings::flush()
{
    return d->ask<int>(wire::flush, {}, QString(), [](const QVariantList& arguments) {
        return std::make_optional(arguments.value(0).toInt());
    });
}

Reply<bool> RemoteSettings::dropCache()
{
    return d->ask<bool>(wire::dropCache, {}, QString(),
                        [](const QVariantList&) { return std::make_optional(true); });
}

Reply<Status> RemoteSettings::status()
{
    return d->status();
}

Reply<QString> RemoteSettings::treeDigest()
{
    return d->ask<QString>(wire::getTreeDigest, {}, QString(), [](const QVariantList& arguments) {
        return std::optional<QString>(arguments.value(0).toString());
    });
}

Reply<QVariantMap> RemoteSettings::statistics()
{
    return d->ask<QVariantMap>(wire::statistics, {}, QString(), [](const QVariantList& arguments) {
        return std::make_optional(arguments.value(0).toMap());
    });
}

Reply<QStringList> RemoteSettings::unsavedPaths(int maximum)
{
    return d->ask<QStringList>(wire::getUnsaved, { uint(std::max(maximum, 0)) }, QString(),
                               [](const QVariantList& arguments) {
                                   return std::make_optional(arguments.value(0).toStringList());
                               });
}

// ---------------------------------------------------------------------------------------------
// Watches.
// ---------------------------------------------------------------------------------------------

void RemoteSettings::watchAdded(Watch* watch)
{
    Error error = checkPath(watch->path());
    if (!error)
        error = pathError(watch->path());
    if (error) {
        deliverFailed(watch, error);
        return;
    }
    d->subscriptions.add(watch);
    d->gather();
}

void RemoteSettings::watchRemoved(Watch* watch)
{
    d->subscriptions.remove(watch);
    d->gather();
}

} // namespace tulo
