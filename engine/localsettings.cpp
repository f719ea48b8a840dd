#include "engine/localsettings.h"

#include "client/base/checks.h"
#include "trees/plainjson.h"
#include "trees/plainroles.h"
#include "trees/separator.h"
#include "trees/settingvalue.h"
#include "trees/treereader.h"
#include "trees/treestamp.h"

#include <tulo/setting.h>

#include "api/core/model/cmoperation.h"
#include "api/core/model/tulosettingsactions.h"
#include "api/core/tulo.h"
#include "api/core/tulojson.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QEvent>
#include <QPointer>
#include <QSet>
#include <QThread>

#include <algorithm>
#include <iterator>
#include <utility>

namespace tulo {

/// A change as a program asks for it.
struct LocalSettings::Order
{
    QString path;
    QString role; ///< TuloRoles::Value(), SetRoles() or ValueOperation()
    QVariant value; ///< the value, or the operand
    QVariantMap roles; ///< for SetRoles()
    QString verb; ///< for ValueOperation()
    ChangeOptions options;
};

/// A change that the guard admitted.
struct LocalSettings::AdmittedChange
{
    QString path; ///< as the program gave it
    Guard::Target target;
    CMRequest request; ///< a CMSetDataRequest
    Guard::Adjustment adjustment;
};

namespace {

Error refusal(ErrorCode code, const QString& reason, const QString& path)
{
    return { code, reason.arg(shownPath(path)), path };
}

Error stoppedError()
{
    return { ErrorCode::Unavailable, QStringLiteral("The settings are closed"), QString() };
}

Error destroyedError()
{
    return { ErrorCode::Cancelled, QStringLiteral("cancelled"), QString() };
}

QString absolute(const QString& path)
{
    return path.startsWith(separator) ? path : separator + path;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Opening and the end.
// ---------------------------------------------------------------------------------------------

std::unique_ptr<LocalSettings> LocalSettings::open(const EngineOptions& options,
                                                   EngineFailure* failure)
{
    std::unique_ptr<ServedTree> tree = ServedTree::open(options, failure);
    if (!tree)
        return nullptr;
    return std::unique_ptr<LocalSettings>(
        new LocalSettings(std::move(tree), options.productPostfix));
}

LocalSettings::LocalSettings(std::unique_ptr<ServedTree> tree, const QString& productPostfix)
    : m_productPostfix(productPostfix)
    , m_tree(std::move(tree))
{
    m_tree->observe(this);
    connect(m_tree.get(), &ServedTree::changed, this, [this](const QStringList& paths) {
        m_keptValues.clear();
        announceFiles(paths);
        emit openedAnew();
    });
    connect(m_tree.get(), &ServedTree::refusalChanged, this, &LocalSettings::refusalChanged);
    connect(m_tree.get(), &ServedTree::unsavedChanged, this, &LocalSettings::unsavedChanged);
}

LocalSettings::~LocalSettings()
{
    m_isDestroyed = true;
    stop();
    const std::deque<Request> requests = std::exchange(m_requests, {});
    for (const Request& request : requests)
        request(destroyedError());
}

bool LocalSettings::stop()
{
    const bool wasStopped = std::exchange(m_isStopped, true);
    const bool isSaved = m_tree->stop();
    if (!wasStopped && !m_isDestroyed)
        emit stateChanged(State::Away);
    return isSaved;
}

Settings::State LocalSettings::state() const
{
    return m_isStopped ? State::Away : State::Ready;
}

QString LocalSettings::defaultPath() const
{
    return m_tree->engine().defaultPath();
}

QString LocalSettings::writePath() const
{
    return m_tree->engine().writePath();
}

std::optional<qint64> LocalSettings::otherOwner() const
{
    return m_tree->engine().otherOwner();
}

int LocalSettings::catalogueCount() const
{
    return m_tree->engine().catalogueCount();
}

QStringList LocalSettings::notes() const
{
    return m_tree->engine().notes();
}

int LocalSettings::treeDirectory() const
{
    return m_tree->engine().treeDirectory();
}

bool LocalSettings::hasUnwrittenChanges() const
{
    return m_tree->hasUnwrittenChanges();
}

QStringList LocalSettings::notSavedPaths() const
{
    return m_tree->unsavedPaths();
}

QString LocalSettings::changeRefusal() const
{
    return m_tree->engine().changeRefusal();
}

QString LocalSettings::lastWriteError() const
{
    return m_tree->lastWriteError();
}

void LocalSettings::followLog()
{
    m_tree->engine().writes().attach();
}

// ---------------------------------------------------------------------------------------------
// The queue: one request a turn of the event loop, from an event that is posted for it.
// ---------------------------------------------------------------------------------------------

template<typename T, typename Work>
Reply<T> LocalSettings::enqueue(Work work)
{
    TULO_ASSERT(QThread::currentThread() == thread());
    Promise<T> promise;
    if (m_isDestroyed) {
        promise.fail(destroyedError());
        return promise.reply();
    }
    m_requests.push_back([this, promise, work](const Error& error) {
        if (error) {
            promise.fail(error);
            return;
        }
        ++m_counters.requests;
        work(promise);
    });
    post();
    return promise.reply();
}

void LocalSettings::post()
{
    if (!std::exchange(m_isPosted, true))
        QCoreApplication::postEvent(this, new QEvent(QEvent::User));
}

void LocalSettings::customEvent(QEvent*)
{
    m_isPosted = false;
    if (m_requests.empty()) {
        deliverEvents();
        return;
    }
    const Request request = std::move(m_requests.front());
    m_requests.pop_front();
    // Before the request, whose handlers may run an event loop or destroy this.
    if (!m_requests.empty())
        post();
    if (m_tree->isServed())
        request(m_isStopped ? stoppedError() : Error());
    else
        request({ ErrorCode::Unavailable, changeRefusal(), QString() });
}

// The events of a change come before its answer, and a handler may destroy this.
template<typename T>
void LocalSettings::answer(const Promise<T>& promise, const Error& error, const T& value)
{
    const QPointer<LocalSettings> self(this);
    m_counters.failed += error ? 1 : 0;
    m_tree->noticeRefusal();
    deliverEvents();
    if (!self)
        promise.fail(destroyedError());
    else if (error)
        promise.fail(error);
    else
        promise.finish(value);
}

// ---------------------------------------------------------------------------------------------
// Reading.
// ---------------------------------------------------------------------------------------------

namespace {

bool isSmall(const QVariant& value)
{
    return value.userType() == QMetaType::QString
        ? value.toString().size() <= LocalSettings::maximumKeptCharacters
        : value.userType() != QMetaType::QVariantList;
}

} // namespace

// What the worker could not write it forgets in time, so that its answer may differ from a value
// that is kept.
bool LocalSettings::readKept(const QString& path, const QStringList& roles, QVariantMap* values)
{
    if (roles.size() != 1 || std::as_const(*m_tree).engine().writes().unsavedCount() > 0)
        return false;
    const QVariant* const value = m_keptValues.object(path);
    if (value == nullptr || roles.first() != TuloRoles::Value())
        return false;
    values->insert(roles.first(), *value);
    return true;
}

void LocalSettings::keep(const QString& path, const QStringList& roles, const QVariantMap& values)
{
    const QVariant value = values.value(TuloRoles::Value());
    const bool isPossible = roles.size() == 1 && m_tree->engine().ownsTree() && value.isValid()
        && path.startsWith(QLatin1Char('/'));
    if (isPossible && isSmall(value))
        m_keptValues.insert(path, new QVariant(value));
}

Error LocalSettings::read(const QString& path, const QStringList& roles, QVariantMap* values)
{
    if (readKept(path, roles, values))
        return {};
    const QStringList& names = roles.isEmpty() ? TuloRoles::keys() : roles;
    const CMGetDataRequest::Reply reply =
        m_tree->engine().dispatcher().getData(CMPath(path), names);
    Error error = errorOf(reply.error(), path);
    if (error)
        return error;
    const QList<QVariant> answers = reply.value();
    for (int i = 0; i < names.size(); ++i) {
        const QVariant value = plainRole(names.at(i), answers.value(i));
        if (value.isValid())
            values->insert(names.at(i), value);
    }
    keep(path, roles, *values);
    return {};
}

Reply<QVariantMap> LocalSettings::get(const QString& path, const QStringList& roles)
{
    return enqueue<QVariantMap>([this, path, roles](const Promise<QVariantMap>& promise) {
        QVariantMap values;
        const Error error = read(path, roles, &values);
        answer(promise, error, values);
    });
}

Reply<QVector<Node>> LocalSettings::getMany(const QStringList& paths, const QStringList& roles)
{
    return enqueue<QVector<Node>>([this, paths, roles](const Promise<QVector<Node>>& promise) {
        QVector<Node> nodes;
        if (paths.size() > maximumPaths) {
            answer(promise,
                   { ErrorCode::Limits,
                     QStringLiteral("A request names more than %1 paths").arg(maximumPaths),
                     QString() },
                   nodes);
            return;
        }
        for (const QString& path : paths) {
            Node node;
            node.path = path;
            node.error = read(path, roles, &node.roles);
            nodes.append(node);
        }
        answer(promise, Error(), nodes);
    });
}

Error LocalSettings::readRows(const QString& path, int first, int last, const QStringList& roles,
                              Rows* rows)
{
    CMError failure;
    const DirectoryRows answer =
        m_tree->engine().dispatcher().rows(CMPath(path), first, last, roles, &failure);
    Error error = errorOf(failure, path);
    if (error)
        return error;
    rows->count = answer.count;
    rows->version = m_rowsVersions.value(absolute(path));
    rows->directory = plainRoles(answer.directory.__variant().toHash());
    for (const DirectoryRow& served : answer.rows) {
        Row row;
        row.name = served.name;
        row.isDirectory = served.isDirectory;
        row.error = errorOf(served.error, served.path.text());
        for (int i = 0; i < served.values.size(); ++i) {
            const QVariant value = plainRole(roles.at(i), served.values.at(i));
            if (value.isValid())
                row.roles.insert(roles.at(i), value);
        }
        rows->rows.append(row);
    }
    return {};
}

Reply<Rows> LocalSettings::rows(const QString& path, int first, int last, const QStringList& roles)
{
    return enqueue<Rows>([this, path, first, last, roles](const Promise<Rows>& promise) {
        Rows rows;
        const Error error = readRows(path, first, last, roles, &rows);
        answer(promise, error, rows);
    });
}

// ---------------------------------------------------------------------------------------------
// Explaining: what the files say, held to what the worker answers. The worker knows changes that
// are not yet written, and keeps what it has read.
// ---------------------------------------------------------------------------------------------

namespace {

bool isSecretRole(const QString& role)
{
    return role == TuloRoles::Value() || role == TuloRoles::DefaultValue()
        || role == TuloRoles::EncryptedValue();
}

// Those that a write puts into the file.
bool isWrittenRole(const QString& role)
{
    return role == TuloRoles::Value() || role == TuloRoles::Timestamp() || role == TuloRoles::Id();
}

// Roles that are not among the known ones, as the files name them.
QStringList otherRoles(const QVector<RoleOrigin>& origins)
{
    QStringList roles;
    for (const RoleOrigin& origin : origins) {
        if (origin.state == RoleOrigin::State::Effective
            && !TuloRoles::keys().contains(origin.role))
            roles.append(origin.role);
    }
    return roles;
}

bool isIdentical(const QVariant& one, const QVariant& other)
{
    return one.userType() == other.userType() && jsonOf(one) == jsonOf(other);
}

// `served` are all roles; `memory` is the layer of those that the files do not have so.
QVector<RoleOrigin> reconciled(const QVector<RoleOrigin>& origins, QVariantMap served,
                               RoleOrigin::Layer memory)
{
    const bool isPending = memory == RoleOrigin::Layer::Pending;
    const bool isEncrypted = served.value(TuloRoles::Encrypted()).toBool();
    const QString reason = isPending
        ? QStringLiteral("a change that is not yet written takes its place")
        : QStringLiteral("what was read earlier is kept until the caches are dropped");
    QVector<RoleOrigin> effective;
    QVector<RoleOrigin> others;
    for (RoleOrigin origin : origins) {
        const bool isFromFile = origin.state == RoleOrigin::State::Effective
            && isIdentical(origin.value, served.value(origin.role))
            && !(isPending && isWrittenRole(origin.role));
        if (isFromFile) {
            served.remove(origin.role);
            effective.append(origin);
            continue;
        }
        if (origin.state == RoleOrigin::State::Effective) {
            origin.state = RoleOrigin::State::Hidden;
            origin.reason = reason;
            if (isEncrypted && isSecretRole(origin.role))
                origin.value = QVariant();
        }
        others.append(origin);
    }
    for (auto role = served.cbegin(); role != served.cend(); ++role) {
        RoleOrigin origin;
        origin.role = role.key();
        origin.layer = memory;
        origin.value = role.value();
        effective.append(origin);
    }
    const auto rank = [](const RoleOrigin& origin) {
        const int index = TuloRoles::keys().indexOf(origin.role);
        return index < 0 ? TuloRoles::keys().size() : index;
    };
    std::stable_sort(effective.begin(), effective.end(),
                     [&rank](const RoleOrigin& left, const RoleOrigin& right) {
                         return rank(left) < rank(right);
                     });
    return effective + others;
}

} // namespace

Error LocalSettings::explain(const QString& path, QVector<RoleOrigin>* origins)
{
    QVariantMap served;
    Error error = read(path, {}, &served);
    if (error)
        return error;
    const CMPath full(absolute(path));
    const TreeReader trees(defaultPath(), writePath(), m_productPostfix);
    const bool isPending =
        std::as_const(*m_tree).engine().writes().pendingPaths().contains(full.text());
    // Without files, a template is not about this path.
    if (isPending || trees.exists(full.base()))
        *origins = trees.explain(full.base());
    const QStringList others = otherRoles(*origins);
    for (int first = 0; first < others.size() && !error; first += Guard::maximumRoles)
        error = read(path, others.mid(first, Guard::maximumRoles), &served);
    const bool isAction = full == TuloSettingsActionsFlush();
    *origins = reconciled(*origins, served,
                          isPending      ? RoleOrigin::Layer::Pending
                              : isAction ? RoleOrigin::Layer::BuiltIn
                                         : RoleOrigin::Layer::Cached);
    return error;
}

Reply<QVector<RoleOrigin>> LocalSettings::explain(const QString& path)
{
    return enqueue<QVector<RoleOrigin>>([this, path](const Promise<QVector<RoleOrigin>>& promise) {
        QVector<RoleOrigin> origins;
        const Error error = explain(path, &origins);
        answer(promise, error, origins);
    });
}

// ---------------------------------------------------------------------------------------------
// Changes: what was asked for becomes a request of the worker, which the guard admits.
// ---------------------------------------------------------------------------------------------

namespace {

bool needsOperand(const QString& verb)
{
    return verb != QLatin1String("toggle") && verb != QLatin1String("next")
        && verb != QLatin1String("previous");
}

// The value that `given` stands for; empty, and `error` set, when it is none.
TuloValue checkedValue(const QString& path, const QVariant& given, const TuloRoles& setting,
                       Error* error)
{
    const QVariant content = contentOf(given);
    const bool isEmptyMap =
        content.userType() == QMetaType::QVariantHash && content.toHash().isEmpty();
    if (content.isValid() && !isEmptyMap)
        return valueOf(content, setting);
    *error = refusal(ErrorCode::Rejected,
                     QStringLiteral("The value for '%1' is not one that a setting can have"), path);
    return TuloValue();
}

// Whether `given` is `now`, or a number of the same amount.
bool isValue(const QVariant& given, const TuloValue& now)
{
    const QVariant content = contentOf(given);
    const TuloValue expected = content.userType() == QMetaType::QVariantHash
        ? TuloValue(TuloHash(content.toHash()))
        : content.userType() == QMetaType::ULongLong ? TuloValue::of(TuloValue::Int(), content)
                                                     : TuloValue::ofContent(content);
    if (expected.isEmpty() || now.isEmpty())
        return false;
    const TuloValue converted = expected.convertedTo(now.kind());
    return expected == now || (!converted.isEmpty() && converted == now.convertedTo(now.kind()));
}

Error checkConditions(const QString& path, const ChangeOptions& options,
                      const Guard::Target& target)
{
    const TuloRoles roles = target.isNew ? TuloRoles() : target.roles;
    if (options.ifValue.isValid() && !isValue(options.ifValue, roles.value())) {
        return refusal(ErrorCode::Conflict,
                       QStringLiteral("Setting '%1' does not have the expected value"), path);
    }
    if (options.ifTimestamp && *options.ifTimestamp != roles.timestamp()) {
        return refusal(ErrorCode::Conflict,
                       QStringLiteral("Setting '%1' does not have the expected timestamp"), path);
    }
    return {};
}

// What a program may change; the rest of a setting's roles belongs to its default file.
const QStringList& settableRoles()
{
    static const QStringList roles { TuloRoles::Value(), TuloRoles::Timestamp(), TuloRoles::Id(),
                                     TuloRoles::Disabled() };
    return roles;
}

// The roles without the value, as the worker knows them.
Error checkRoles(const QString& path, const QVariantMap& given, TuloRoles* roles)
{
    for (auto role = given.cbegin(); role != given.cend(); ++role) {
        const QVariant content = contentOf(*role);
        if (role.key() == TuloRoles::Value())
            continue;
        if (!settableRoles().contains(role.key())) {
            return { ErrorCode::Refused,
                     QStringLiteral("The role '%1' of '%2' cannot be set; those that can are %3")
                         .arg(shownPath(role.key()), shownPath(path),
                              settableRoles().join(QStringLiteral(", "))),
                     path };
        }
        if (role.key() == TuloRoles::Timestamp() && content.userType() == QMetaType::LongLong) {
            roles->setTimestamp(content.toLongLong());
        } else if (role.key() == TuloRoles::Id() && content.userType() == QMetaType::QString) {
            roles->setId(content.toString());
        } else if (role.key() == TuloRoles::Disabled() && content.userType() == QMetaType::Bool) {
            roles->setDisabled(content.toBool());
        } else {
            return { ErrorCode::Rejected,
                     QStringLiteral("The role '%1' of '%2' cannot have this value")
                         .arg(role.key(), shownPath(path)),
                     path };
        }
    }
    return {};
}

// What the worker would store for an admitted request.
TuloRoles storedBy(const CMSetDataRequest& request, const TuloRoles& setting)
{
    const TuloHash sent(request.value().toHash());
    TuloRoles stored(sent);
    if (request.role() == TuloRoles::Value()) {
        stored = TuloRoles();
        stored.setValue(TuloValue(sent));
    }
    if (stored.value().isEmpty())
        stored.__remove(TuloRoles::Value());
    for (const QString& role : { TuloRoles::Value(), TuloRoles::Id() }) {
        if (!stored.__contains(role) && setting.__contains(role))
            stored.__setHashAttribute(role, setting.__hashAttribute(role));
    }
    if (stored.timestamp() == 0)
        stored.setTimestamp(QDateTime::currentMSecsSinceEpoch());
    if (setting.__contains(TuloRoles::Disabled()))
        stored.setDisabled(stored.disabled());
    if (setting.encrypted())
        stored.setEncrypted(true);
    return stored;
}

bool isSame(const TuloValue& asked, const TuloValue& stored)
{
    return asked == stored || asked.convertedTo(stored.kind()) == stored;
}

} // namespace

// What is wrong with a change by itself. `roles` become those that are to be set beside the value.
Error LocalSettings::check(const Order& order, TuloRoles* roles)
{
    Error error = checkPath(order.path);
    if (error)
        return error;
    if (order.role == TuloRoles::ValueOperation() && !CMOperation::verbs().contains(order.verb)) {
        return { ErrorCode::Refused,
                 QStringLiteral("'%1' is not an operation for '%2'; operations are %3")
                     .arg(shownPath(order.verb), shownPath(order.path),
                          CMOperation::verbs().join(QStringLiteral(", "))),
                 order.path };
    }
    return checkRoles(order.path, order.roles, roles);
}

// The change in the worker's terms, for a setting that was read just now.
QVariant LocalSettings::contentFor(const Order& order, TuloRoles roles, const TuloRoles& setting,
                                   Error* error)
{
    if (order.role == TuloRoles::ValueOperation()) {
        const TuloValue operand = needsOperand(order.verb)
            ? checkedValue(order.path, order.value, setting, error)
            : TuloValue();
        return TuloOperation(order.verb, operand).__variant();
    }
    if (order.role == TuloRoles::Value())
        return checkedValue(order.path, order.value, setting, error).__variant();
    if (order.roles.contains(TuloRoles::Value()))
        roles.setValue(checkedValue(order.path, order.value, setting, error));
    return roles.__variant();
}

Error LocalSettings::admit(const Order& order, AdmittedChange* admitted)
{
    TuloRoles roles;
    Error error = check(order, &roles);
    if (error)
        return error;
    const CMPath path(order.path);
    Guard& guard = m_tree->engine().guard();
    admitted->path = order.path;
    error = errorOf(guard.checkTarget(path, &admitted->target), order.path);
    if (!error)
        error = checkConditions(order.path, order.options, admitted->target);
    if (error)
        return error;
    const QVariant content = contentFor(order, roles, admitted->target.roles, &error);
    if (error)
        return error;
    const CMSetDataRequest request(path, order.role, content, CMSetDataRequest::Reply::create());
    CMError rejection;
    admitted->request =
        guard.admitChange(admitted->target, request, &rejection, &admitted->adjustment);
    return errorOf(rejection, order.path);
}

Error LocalSettings::carryOut(const AdmittedChange& admitted, bool isDryRun, Change* change)
{
    TuloRoles stored;
    if (isDryRun) {
        m_tree->engine().guard().retract(admitted.target);
        stored = storedBy(CMSetDataRequest(admitted.request), admitted.target.roles);
    } else {
        m_carriedOut = &admitted;
        m_tree->engine().dispatcher().serveAdmitted(admitted.request);
        m_carriedOut = nullptr;
        const CMSetDataRequest::Reply reply = CMSetDataRequest(admitted.request).reply();
        Error error = errorOf(reply.error(), admitted.path);
        if (error)
            return error;
        stored = TuloRoles(TuloHash(reply.value().toHash()));
        ++m_counters.changes;
    }
    change->stored = plainRoles(stored.__variant().toHash());
    const Guard::Adjustment& adjustment = admitted.adjustment;
    change->isAdjusted =
        !adjustment.reason.isEmpty() && !isSame(adjustment.asked, adjustment.stored);
    if (change->isAdjusted) {
        change->asked = plainValue(adjustment.asked);
        change->reason = adjustment.reason;
    }
    return {};
}

Reply<Change> LocalSettings::change(const Order& order)
{
    return enqueue<Change>([this, order](const Promise<Change>& promise) {
        AdmittedChange admitted;
        Change change;
        Error error = admit(order, &admitted);
        if (!error)
            error = carryOut(admitted, order.options.isDryRun, &change);
        answer(promise, error, change);
    });
}

LocalSettings::Order LocalSettings::rolesOrder(const QString& path, const QVariantMap& roles,
                                               const ChangeOptions& options)
{
    return { path, TuloRoles::SetRoles(), roles.value(TuloRoles::Value()), roles, {}, options };
}

Reply<Change> LocalSettings::set(const QString& path, const QVariant& value,
                                 const ChangeOptions& options)
{
    return change({ path, TuloRoles::Value(), value, {}, {}, options });
}

Reply<Change> LocalSettings::setRoles(const QString& path, const QVariantMap& roles,
                                      const ChangeOptions& options)
{
    return change(rolesOrder(path, roles, options));
}

Reply<Change> LocalSettings::apply(const QString& path, const QString& verb,
                                   const QVariant& operand, const ChangeOptions& options)
{
    return change({ path, TuloRoles::ValueOperation(), operand, {}, verb, options });
}

// ---------------------------------------------------------------------------------------------
// Many changes: all admitted before the first is made.
// ---------------------------------------------------------------------------------------------

namespace {

Error checkSize(const QVector<Assignment>& assignments)
{
    if (assignments.size() > Settings::maximumChanges) {
        return {
            ErrorCode::Limits,
            QStringLiteral("A request makes more than %1 changes").arg(Settings::maximumChanges),
            QString()
        };
    }
    int bytes = 0;
    for (const Assignment& assignment : assignments) {
        bytes += assignment.path.toUtf8().size()
            + TuloJson::serialize(contentOf(assignment.value)).size()
            + TuloJson::serialize(contentOf(assignment.roles)).size();
        if (bytes > LocalSettings::maximumChangesBytes) {
            return { ErrorCode::Limits,
                     QStringLiteral("The changes of a request take more than %1 bytes")
                         .arg(LocalSettings::maximumChangesBytes),
                     QString() };
        }
    }
    return {};
}

Error checkUnique(const QVector<Assignment>& assignments)
{
    QSet<QString> paths;
    for (const Assignment& assignment : assignments) {
        const int before = paths.size();
        paths.insert(absolute(assignment.path));
        if (paths.size() == before) {
            return refusal(ErrorCode::Refused,
                           QStringLiteral("Path '%1' is changed twice by a request"),
                           assignment.path);
        }
    }
    return {};
}

} // namespace

LocalSettings::Order LocalSettings::orderFor(const Assignment& assignment)
{
    if (assignment.roles.isEmpty())
        return { assignment.path, TuloRoles::Value(), assignment.value, {}, {}, {} };
    QVariantMap roles = assignment.roles;
    if (assignment.value.isValid())
        roles.insert(TuloRoles::Value(), assignment.value);
    return rolesOrder(assignment.path, roles, {});
}

Error LocalSettings::admitAll(const QVector<Assignment>& assignments,
                              QVector<AdmittedChange>* admitted)
{
    Error error = checkSize(assignments);
    if (!error)
        error = checkUnique(assignments);
    for (auto assignment = assignments.cbegin(); assignment != assignments.cend() && !error;
         ++assignment) {
        AdmittedChange next;
        error = admit(orderFor(*assignment), &next);
        if (!error)
            admitted->append(next);
    }
    if (error) {
        for (const AdmittedChange& change : qAsConst(*admitted))
            m_tree->engine().guard().retract(change.target);
    }
    return error;
}

Reply<QVector<Change>> LocalSettings::setMany(const QVector<Assignment>& assignments,
                                              const ChangeOptions& options)
{
    const bool isDryRun = options.isDryRun;
    return enqueue<QVector<Change>>(
        [this, assignments, isDryRun](const Promise<QVector<Change>>& promise) {
            QVector<AdmittedChange> admitted;
            QVector<Change> changes;
            Error error = admitAll(assignments, &admitted);
            for (int i = 0; i < admitted.size() && !error; ++i) {
                Change change;
                error = carryOut(admitted.at(i), isDryRun, &change);
                changes.append(change);
            }
            answer(promise, error, changes);
        });
}

// ---------------------------------------------------------------------------------------------
// Reset: the engine removes the written files, and what reads differently then is announced.
// ---------------------------------------------------------------------------------------------

namespace {

// The index of a name in a sorted listing; -1 when it is not there.
int indexOf(const QStringList& names, const QString& name)
{
    const auto place = std::lower_bound(names.cbegin(), names.cend(), name);
    const bool isThere = place != names.cend() && *place == name;
    return isThere ? int(std::distance(names.cbegin(), place)) : -1;
}

} // namespace

// The names that listings of a directory show. Where they are not those that the worker lists,
// because files have come or gone since, indexes cannot tell what changes. Then a version is left
// out, so that clients list the directory again.
QStringList LocalSettings::listedNames(const CMPath& directory)
{
    CMError failure;
    const int count = m_tree->engine().dispatcher().rows(directory, 1, 0, {}, &failure).count;
    QStringList names = m_tree->engine().guard().listedNames(directory);
    if (errorCode(failure) != ErrorCode::None || count != names.size())
        ++m_rowsVersions[directory.text()];
    return names;
}

// Announces that a setting reads differently now; returns whether it does.
bool LocalSettings::announceDifference(const QString& path, const QVariantMap& before)
{
    QVariantMap after;
    const Error error = read(path, {}, &after);
    if (!error && detail::isSameValue(before, after))
        return false;
    Event event;
    event.kind = Event::Kind::Value;
    event.path = path;
    event.value = after.value(TuloRoles::Value());
    const bool isEncrypted = before.value(TuloRoles::Encrypted()).toBool()
        || after.value(TuloRoles::Encrypted()).toBool();
    if (event.value.isValid() && !isEncrypted
        && !detail::isSameValue(before.value(TuloRoles::Value()), event.value))
        append(event);
    dataChanged(CMPath(path));
    return true;
}

void LocalSettings::announceReset(const Engine::Reset& reset,
                                  const QHash<QString, QVariantMap>& before,
                                  const QMap<QString, QStringList>& namesBefore)
{
    QMap<QString, QSet<QString>> names;
    for (auto entry = namesBefore.cbegin(); entry != namesBefore.cend(); ++entry) {
        const QStringList present = m_tree->engine().guard().listedNames(CMPath(entry.key()));
        names.insert(entry.key(), QSet<QString>(present.cbegin(), present.cend()));
    }
    // The rows that stay come first, as long as the indexes of before hold.
    for (const QString& path : reset.settings) {
        const QString directory = parentOf(path);
        const QString name = nameOf(path);
        const int row = indexOf(namesBefore.value(directory), name);
        if (announceDifference(path, before.value(path)) && row >= 0
            && names.value(directory).contains(name))
            rowsChanged(CMPath(directory), QString::number(row), 0);
    }
    for (const QString& directory : reset.directories)
        dataChanged(CMPath(directory));
    for (auto entry = namesBefore.cbegin(); entry != namesBefore.cend(); ++entry) {
        for (int row = entry->size() - 1; row >= 0; --row) {
            if (!names.value(entry.key()).contains(entry->at(row)))
                rowsChanged(CMPath(entry.key()), QStringLiteral("-%1").arg(row), 0);
        }
    }
}

Error LocalSettings::carryOutReset(const QStringList& paths, const ResetOptions& options,
                                   QStringList* settings)
{
    Engine::Reset reset;
    Error error = m_tree->engine().planReset(paths, options, &reset);
    if (error)
        return error;
    QHash<QString, QVariantMap> before;
    for (const QString& path : qAsConst(reset.settings)) {
        // One that cannot be read reads differently afterwards.
        if (read(path, {}, &before[path]))
            before.remove(path);
    }
    QMap<QString, QStringList> namesBefore;
    for (const QString& path : reset.settings + reset.directories) {
        const QString directory = parentOf(path);
        if (!namesBefore.contains(directory))
            namesBefore.insert(directory, listedNames(CMPath(directory)));
    }
    error = m_tree->engine().carryOut(&reset);
    m_keptValues.clear();
    // After an error, too: one that was interrupted has removed some.
    announceReset(reset, before, namesBefore);
    *settings = reset.settings;
    m_counters.resets += error ? 0 : reset.settings.size();
    return error;
}

Reply<QStringList> LocalSettings::reset(const QStringList& paths, const ResetOptions& options)
{
    return enqueue<QStringList>([this, paths, options](const Promise<QStringList>& promise) {
        QStringList settings;
        const Error error = carryOutReset(paths, options, &settings);
        answer(promise, error, settings);
    });
}

// ---------------------------------------------------------------------------------------------
// Disk, caches and status.
// ---------------------------------------------------------------------------------------------

Reply<int> LocalSettings::flush()
{
    return enqueue<int>([this](const Promise<int>& promise) {
        if (m_tree->keepsChanges()) {
            answer(promise, { ErrorCode::NotSaved, changeRefusal(), QString() }, 0);
            return;
        }
        m_tree->engine().flush([this, promise](const FlushResult& result) {
            // In a later turn, as it may come from stop().
            ++m_counters.flushes;
            m_counters.failed += result.error.isEmpty() ? 0 : 1;
            m_requests.emplace_back([promise, result](const Error& error) {
                if (error.code == ErrorCode::Cancelled)
                    promise.fail(error);
                else if (!result.error.isEmpty())
                    promise.fail({ ErrorCode::NotSaved, result.error, QString() });
                else
                    promise.finish(result.unsaved);
            });
            post();
        });
    });
}

Reply<bool> LocalSettings::dropCache()
{
    return enqueue<bool>([this](const Promise<bool>& promise) {
        m_keptValues.clear();
        m_treeDigest.clear();
        const CMSetDataRequest::Reply reply = m_tree->engine().dispatcher().dropCache();
        answer(promise, errorOf(reply.error(), QString()), true);
    });
}

Status LocalSettings::currentStatus() const
{
    Status status;
    status.version = QStringLiteral(TULO_VERSION);
    status.product = m_productPostfix;
    status.defaultPath = defaultPath();
    status.writePath = m_tree->path();
    status.isWritable = m_tree->engine().ownsTree();
    status.pendingWrites = m_tree->pendingCount();
    status.unsavedCount = m_tree->unsavedCount();
    status.lastWriteError = lastWriteError();
    status.processId = QCoreApplication::applicationPid();
    return status;
}

Reply<Status> LocalSettings::status()
{
    return enqueue<Status>(
        [this](const Promise<Status>& promise) { answer(promise, Error(), currentStatus()); });
}

// Reads every file of the default tree, which is as it was until the caches are dropped.
Reply<QString> LocalSettings::treeDigest()
{
    return enqueue<QString>([this](const Promise<QString>& promise) {
        QString reason;
        if (m_treeDigest.isEmpty())
            m_treeDigest = QString::fromLatin1(tulo::treeDigest(defaultPath(), &reason));
        const Error error { reason.isEmpty() ? ErrorCode::None : ErrorCode::Unavailable, reason,
                            QString() };
        answer(promise, error, m_treeDigest);
    });
}

Reply<QVariantMap> LocalSettings::statistics()
{
    return enqueue<QVariantMap>([this](const Promise<QVariantMap>& promise) {
        const QVariantMap numbers {
            { QStringLiteral("requests"), m_counters.requests },
            { QStringLiteral("failed"), m_counters.failed },
            { QStringLiteral("changes"), m_counters.changes },
            { QStringLiteral("resets"), m_counters.resets },
            { QStringLiteral("announcements"), m_counters.announcements },
            { QStringLiteral("flushes"), m_counters.flushes },
            { QStringLiteral("writes"), m_tree->writeCount() },
            { QStringLiteral("writeErrors"), m_tree->writeErrorCount() },
            { QStringLiteral("keptValues"), qint64(m_keptValues.size()) },
        };
        answer(promise, Error(), numbers);
    });
}

Reply<QStringList> LocalSettings::unsavedPaths(int maximum)
{
    return enqueue<QStringList>([this, maximum](const Promise<QStringList>& promise) {
        const QStringList paths = notSavedPaths();
        answer(promise, Error(), QStringList(paths.mid(0, qMax(maximum, 0))));
    });
}

// ---------------------------------------------------------------------------------------------
// Events: every announcement of the worker, kept until it has returned. The registry learns of no
// watch, so a path that names nothing takes no room there.
// ---------------------------------------------------------------------------------------------

void LocalSettings::watchAdded(Watch* watch)
{
    const Error error = checkPath(watch->path());
    if (error)
        deliverFailed(watch, error);
}

void LocalSettings::watchRemoved(Watch*) { }

void LocalSettings::append(const Event& event)
{
    m_events.push_back(event);
    ++m_counters.announcements;
    // A change delivers its own before its answer.
    if (m_carriedOut == nullptr)
        post();
}

// A handler may run an event loop, which delivers the rest, or destroy this.
void LocalSettings::deliverEvents()
{
    const QPointer<LocalSettings> self(this);
    while (self && !m_events.empty()) {
        const Event event = std::move(m_events.front());
        m_events.pop_front();
        deliver(event);
    }
}

// Announces that any of these settings, and the directories that they are in, may read differently.
void LocalSettings::announceFiles(const QStringList& paths)
{
    QStringList settings = paths;
    settings.removeDuplicates();
    settings.sort();
    QStringList directories;
    for (const QString& path : qAsConst(settings)) {
        announceDifference(path, {});
        for (QString above = parentOf(path); !above.isEmpty(); above = parentOf(above))
            directories.append(above);
    }
    directories.removeDuplicates();
    directories.sort();
    for (const QString& directory : qAsConst(directories)) {
        // With a version left out, so that clients list it again.
        ++m_rowsVersions[directory];
        rowsChanged(CMPath(directory), QStringLiteral("0"), 0);
    }
}

void LocalSettings::valueChanged(const CMPath& path, const QVariant& value)
{
    m_keptValues.remove(path.text());
    Event event;
    event.kind = Event::Kind::Value;
    event.path = path.text();
    event.value = plainRole(TuloRoles::Value(), value);
    if (event.value.isValid() && !isEncrypted(path))
        append(event);
}

void LocalSettings::dataChanged(const CMPath& path)
{
    m_keptValues.remove(path.text());
    Event event;
    event.path = path.text();
    append(event);
}

// Versions are counted here: those of a worker begin again with it.
void LocalSettings::rowsChanged(const CMPath& path, const QString& command, int)
{
    Event event;
    event.kind = Event::Kind::Rows;
    event.path = path.text();
    event.command = command;
    event.version = ++m_rowsVersions[path.text()];
    append(event);
}

bool LocalSettings::isEncrypted(const CMPath& path)
{
    if (m_carriedOut != nullptr && absolute(m_carriedOut->path) == path.text())
        return m_carriedOut->target.roles.encrypted();
    QVariantMap values;
    // If we cannot tell, treat the value as encrypted.
    return read(path.text(), { TuloRoles::Encrypted() }, &values)
        || values.value(TuloRoles::Encrypted()).toBool();
}

} // namespace tulo
