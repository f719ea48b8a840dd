#include "tulo-cm/dumping.h"
#include "tulo-cm/flushing.h"
#include "tulo-cm/listing.h"
#include "tulo-cm/place.h"
#include "tulo-cm/progress.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/signalhandler.h"
#include "tulo-cm/textinput.h"
#include "tulo-cm/waiting.h"

#include "engine/localsettings.h"
#include "trees/journal.h"
#include "trees/nodenames.h"
#include "trees/plainroles.h"
#include "trees/writtenfiles.h"

#include <tulo/settings.h>

#include <QHash>
#include <QSet>

#include <algorithm>
#include <iterator>
#include <optional>

namespace tulo {
namespace {

constexpr Option dryRunOption { "dry-run", "", "say what would be done, change nothing" };
constexpr Option replaceOption { "replace", "", "reset what was changed and is not in the dump" };
constexpr Option skipOption { "skip-refused", "", "load the others when some are refused" };

/// A setting of the dump on its way.
struct Item
{
    DumpedSetting dumped;
    QString path; ///< where it goes
    QVariantMap roles; ///< for setRoles()
    Change change;
    Error error; ///< why it is refused
    bool isMoved() const { return path != dumped.path; }
};

/// One dump on its way into the settings. Everything is validated before the first change; the
/// steps are called in their order, each prints what keeps it from going on.
class Loading
{
public:
    Loading(Context& context, const QString& fileName, Dump dump)
        : m_context(context)
        , m_settings(*context.settings)
        , m_output(context.output)
        , m_fileName(fileName)
        , m_dump(std::move(dump))
    {
        for (const DumpedSetting& dumped : qAsConst(m_dump.settings))
            m_items.append({ dumped, dumped.path, {}, {}, {} });
    }

    int locate();
    int validate();
    int findResets();
    /// Prints what is refused, and leaves it out.
    int reportRefused();
    int store();
    int print(bool isDryRun);

private:
    bool isOwnProcess() const { return m_context.place.kind == Place::Kind::OwnProcess; }
    int findIds();
    void locate(Item* item, const Node& node);
    void validate(Item* item, const Change& change);
    void refuseSecondOfOnePath();
    QString inFile(const Item& item, const QString& message) const;
    int storeInFiles();
    int storeInService();
    QByteArray contentOf(const Item& item) const;
    void printItem(const Item& item, bool isDryRun);

    Context& m_context;
    Settings& m_settings;
    Output& m_output;
    const QString m_fileName;
    const Dump m_dump;
    QVector<Item> m_items;
    std::optional<QHash<QString, QStringList>> m_ids; ///< paths by id, once somebody asked
    QStringList m_resets;
    int m_refused = 0;
};

QString settingPathOf(const QString& path)
{
    return path.mid(topPath().size());
}

// ---------------------------------------------------------------------------------------------
// Where the settings are in this image: at the same path or, by their id, at another.
// ---------------------------------------------------------------------------------------------

// A product's variant has the id of its setting, and is served in its place.
QStringList withoutVariants(const QStringList& paths)
{
    QStringList settings;
    std::copy_if(
        paths.cbegin(), paths.cend(), std::back_inserter(settings), [&paths](const QString& path) {
            const QStringList plainPaths = plainPathsOf(path);
            return std::none_of(plainPaths.cbegin(), plainPaths.cend(),
                                [&paths](const QString& plain) { return paths.contains(plain); });
        });
    return settings;
}

int Loading::findIds()
{
    m_ids.emplace();
    return walk(m_settings, topPath(), { roles::id() }, m_output, [this](const VisitedNode& node) {
        const QString id = node.roles.value(roles::id()).toString();
        if (!node.isDirectory && !id.isEmpty())
            (*m_ids)[id].append(node.path);
        return !SignalHandler::isEndRequested();
    });
}

int Loading::locate()
{
    for (int first = 0; first < m_items.size(); first += Settings::maximumPaths) {
        const int end = std::min(first + Settings::maximumPaths, int(m_items.size()));
        QStringList paths;
        for (int i = first; i < end; ++i)
            paths.append(m_items.at(i).path);
        const auto nodes = finished(m_settings.getMany(paths, { roles::id() }));
        if (nodes.error())
            return m_output.report(nodes.error());
        for (int i = first; i < end; ++i) {
            const Node node = nodes.value().value(i - first);
            const QString id = node.roles.value(roles::id()).toString();
            const QString dumpedId = m_items.at(i).dumped.id;
            const bool isElsewhere = node.error.code == ErrorCode::InvalidPath || id != dumpedId;
            if (!dumpedId.isEmpty() && isElsewhere && !m_ids) {
                const int exitCode = findIds();
                if (exitCode != Done)
                    return exitCode;
            }
            locate(&m_items[i], node);
        }
    }
    return Done;
}

void Loading::locate(Item* item, const Node& node)
{
    const DumpedSetting& dumped = item->dumped;
    const QString id = node.roles.value(roles::id()).toString();
    if (!dumped.id.isEmpty() && id != dumped.id) {
        const QStringList paths = withoutVariants(m_ids->value(dumped.id));
        if (paths.size() > 1) {
            item->error = { ErrorCode::Refused,
                            QStringLiteral("'%1' cannot be found: several settings have the id "
                                           "'%2': %3")
                                .arg(dumped.path, dumped.id, paths.join(QLatin1String(", "))),
                            dumped.path };
            return;
        }
        if (paths.size() == 1)
            item->path = paths.constFirst();
        else
            item->roles.insert(roles::id(), dumped.id);
    }
    if (dumped.value.isValid())
        item->roles.insert(roles::value(), valueObject(dumped.value));
    if (dumped.timestamp)
        item->roles.insert(roles::timestamp(), *dumped.timestamp);
    if (item->roles.isEmpty())
        item->roles.insert(roles::id(), dumped.id);
}

// ---------------------------------------------------------------------------------------------
// Whether the settings can have what the dump says.
// ---------------------------------------------------------------------------------------------

int Loading::validate()
{
    constexpr int requestsAtOnce = 32;
    Progress progress(QStringLiteral("validating settings"));
    progress.setTotal(m_items.size());
    ChangeOptions dryRun;
    dryRun.isDryRun = true;
    for (int first = 0; first < m_items.size(); first += requestsAtOnce) {
        const int end = std::min(first + requestsAtOnce, int(m_items.size()));
        QVector<std::optional<Reply<Change>>> replies;
        for (int i = first; i < end; ++i) {
            const Item& item = m_items.at(i);
            replies.append(item.error ? std::nullopt
                                      : std::make_optional(
                                          m_settings.setRoles(item.path, item.roles, dryRun)));
        }
        for (int i = first; i < end; ++i) {
            const auto& reply = replies.at(i - first);
            if (!reply)
                continue;
            const Error error = finished(*reply).error();
            if (error.code == ErrorCode::Cancelled || error.code == ErrorCode::Unavailable)
                return m_output.report(error);
            m_items[i].error = error;
            if (!error)
                validate(&m_items[i], reply->value());
        }
        progress.add(end - first);
    }
    refuseSecondOfOnePath();
    return Done;
}

void Loading::validate(Item* item, const Change& change)
{
    item->change = change;
    // The worker encrypts what it writes; the files are not written by it here.
    if (isOwnProcess() && change.stored.value(roles::encrypted()).toBool()) {
        item->error = {
            ErrorCode::Refused,
            QStringLiteral("'%1' is encrypted, which only the service can do").arg(item->path),
            item->path
        };
    }
}

void Loading::refuseSecondOfOnePath()
{
    QHash<QString, QString> sources;
    for (Item& item : m_items) {
        const QString other = sources.value(item.path);
        if (!item.error && !other.isEmpty()) {
            item.error = { ErrorCode::Refused,
                           QStringLiteral("'%1' is where '%2' goes").arg(item.path, other),
                           item.path };
        }
        sources.insert(item.path, item.dumped.path);
    }
}

QString Loading::inFile(const Item& item, const QString& message) const
{
    return QStringLiteral("%1:%2: %3").arg(m_fileName, QString::number(item.dumped.line), message);
}

int Loading::reportRefused()
{
    const auto firstRefused = std::stable_partition(m_items.begin(), m_items.end(),
                                                    [](const Item& item) { return !item.error; });
    for (auto item = firstRefused; item != m_items.end(); ++item) {
        Error error = item->error;
        error.message = inFile(*item, error.message);
        (void)m_output.report(error);
        ++m_refused;
    }
    m_items.erase(firstRefused, m_items.end());
    return m_refused == 0 ? int(Done) : describe(ErrorCode::Refused).exitCode;
}

// ---------------------------------------------------------------------------------------------
// What the dump does not name.
// ---------------------------------------------------------------------------------------------

int Loading::findResets()
{
    Changed changed;
    const int exitCode = readChanged(m_context, m_dump.path, false, &changed);
    if (exitCode != Done)
        return exitCode;
    // A dump without secrets says nothing about them.
    if (m_dump.hasSecrets)
        m_resets = changed.leftOut;
    for (const DumpedSetting& setting : qAsConst(changed.dump.settings))
        m_resets.append(setting.path);
    QSet<QString> named;
    for (const Item& item : qAsConst(m_items))
        named << item.path << item.dumped.path;
    m_resets.erase(std::remove_if(m_resets.begin(), m_resets.end(),
                                  [&named](const QString& path) { return named.contains(path); }),
                   m_resets.end());
    m_resets.sort();
    return Done;
}

// ---------------------------------------------------------------------------------------------
// Storing: all or nothing.
// ---------------------------------------------------------------------------------------------

int Loading::store()
{
    if (m_items.isEmpty() && m_resets.isEmpty())
        return Done;
    return isOwnProcess() ? storeInFiles() : storeInService();
}

// What the worker would write, but for what the dump does not have.
QByteArray Loading::contentOf(const Item& item) const
{
    const QVariantMap& stored = item.change.stored;
    TuloRoles written;
    for (auto role = stored.cbegin(); role != stored.cend(); ++role) {
        if (role.key() != roles::value() && role.key() != roles::timestamp())
            written.__setHashAttribute(role.key(), *role);
    }
    if (item.dumped.value.isValid())
        written.setValue(valueOf(tulo::contentOf(stored.value(roles::value())), TuloRoles()));
    if (item.dumped.timestamp)
        written.setTimestamp(stored.value(roles::timestamp()).toLongLong());
    return writtenContent(written);
}

int Loading::storeInFiles()
{
    const auto* const settings = qobject_cast<LocalSettings*>(m_context.settings);
    QVector<FileChange> changes;
    for (const Item& item : qAsConst(m_items))
        changes.append({ settingPathOf(item.path), contentOf(item) });
    for (const QString& path : qAsConst(m_resets))
        changes.append({ settingPathOf(path), std::nullopt });
    // From here on it is all.
    if (SignalHandler::isEndRequested())
        return m_output.report({ ErrorCode::Cancelled, QStringLiteral("cancelled"), QString() });
    const JournalResult result = commitChanges(settings->treeDirectory(), changes);
    if (result.status == JournalResult::Status::Done)
        return Done;
    const QString reason = result.status == JournalResult::Status::Refused
        ? QStringLiteral("nothing was changed: ") + result.message
        : result.message;
    return m_output.report({ ErrorCode::NotSaved, reason, QString() });
}

int Loading::storeInService()
{
    QVector<Assignment> assignments;
    for (const Item& item : qAsConst(m_items)) {
        QVariantMap roles = item.roles;
        const QVariant value = roles.take(roles::value());
        assignments.append({ item.path, value, roles });
    }
    const auto changes = finished(m_settings.setMany(assignments));
    Error error = changes.error();
    if (error.code == ErrorCode::Limits) {
        error.message = QStringLiteral("nothing was changed: %1; stop the service and load with "
                                       "'--in-process'")
                            .arg(error.message);
    }
    if (error)
        return m_output.report(error);
    return flushChanges(m_settings, m_output);
}

// ---------------------------------------------------------------------------------------------
// What became of it.
// ---------------------------------------------------------------------------------------------

void Loading::printItem(const Item& item, bool isDryRun)
{
    if (m_output.isJson()) {
        QVariantMap object = nodeObject(item.path, roleObject(item.change.stored));
        if (item.isMoved())
            object.insert(QStringLiteral("from"), item.dumped.path);
        if (isDryRun)
            object.insert(QStringLiteral("dryRun"), true);
        m_output.object(object);
    } else if (item.isMoved()) {
        m_output.line(QStringLiteral("%1 -> %2").arg(item.dumped.path, item.path));
    }
}

int Loading::print(bool isDryRun)
{
    int exitCode = m_refused == 0 ? Done : Adjusted;
    int adjusted = 0;
    int moved = 0;
    for (const Item& item : qAsConst(m_items)) {
        printItem(item, isDryRun);
        moved += item.isMoved() ? 1 : 0;
        if (!item.change.isAdjusted)
            continue;
        ++adjusted;
        const QString message =
            QStringLiteral("'%1': %2 was adjusted: %3; the value is %4")
                .arg(item.path, shownInCell(item.change.asked), item.change.reason,
                     shownInCell(item.change.stored.value(roles::value())));
        exitCode = m_output.report(Adjusted, "Adjusted", inFile(item, message), item.path);
    }
    for (const QString& path : qAsConst(m_resets)) {
        if (m_output.isJson())
            m_output.object(
                { { QStringLiteral("path"), path }, { QStringLiteral("reset"), true } });
        else
            m_output.line(QStringLiteral("%1 reset").arg(path));
    }
    if (!m_output.isJson()) {
        m_output.line(QStringLiteral("%1: %2 loaded, %3 moved, %4 adjusted, %5 reset, %6 left out")
                          .arg(isDryRun ? QStringLiteral("dry run") : QStringLiteral("settings"))
                          .arg(m_items.size())
                          .arg(moved)
                          .arg(adjusted)
                          .arg(m_resets.size())
                          .arg(m_refused));
    }
    return exitCode;
}

// ---------------------------------------------------------------------------------------------
// The command.
// ---------------------------------------------------------------------------------------------

int readDumpFile(Output& output, const QString& name, Dump* dump)
{
    QString error;
    const std::optional<QByteArray> text = readInput(name, Dump::maximumBytes, &error);
    if (!text && SignalHandler::isEndRequested())
        return output.report({ ErrorCode::Cancelled, QStringLiteral("cancelled"), QString() });
    if (!text)
        return output.reportUsage(error);
    const QVector<DumpFault> faults = readDump(*text, dump);
    for (const DumpFault& fault : faults) {
        const QString place =
            fault.line > 0 ? QStringLiteral("%1:%2").arg(name, QString::number(fault.line)) : name;
        (void)output.reportUsage(QStringLiteral("%1: %2").arg(place, fault.message));
    }
    return faults.isEmpty() ? Done : Usage;
}

int load(Context& context, const Arguments& arguments, Loading* loading)
{
    int exitCode = loading->locate();
    if (exitCode == Done)
        exitCode = loading->validate();
    // Before what is refused is left out: the dump names that, too.
    if (exitCode == Done && arguments.isSet(replaceOption))
        exitCode = loading->findResets();
    if (exitCode != Done)
        return exitCode;
    exitCode = loading->reportRefused();
    if (exitCode != Done && !arguments.isSet(skipOption)) {
        context.output.note(QStringLiteral("nothing was changed; '--skip-refused' loads the "
                                           "others"));
        return exitCode;
    }
    const bool isDryRun = arguments.isSet(dryRunOption);
    exitCode = isDryRun ? int(Done) : loading->store();
    return exitCode == Done ? loading->print(isDryRun) : exitCode;
}

int run(Context& context, const Arguments& arguments)
{
    const bool isOwnProcess = context.place.kind == Place::Kind::OwnProcess;
    if (arguments.isSet(replaceOption) && !isOwnProcess) {
        return context.output.report(
            { ErrorCode::Unavailable,
              QStringLiteral("'--replace' works on the files alone: stop the service and load "
                             "with '--in-process'"),
              QString() });
    }
    const QString name = arguments.positional.constFirst();
    Dump dump;
    const int exitCode = readDumpFile(context.output, name, &dump);
    if (exitCode != Done)
        return exitCode;
    const Progress progress(QStringLiteral("loading settings"));
    Loading loading(context, name, std::move(dump));
    return load(context, arguments, &loading);
}

} // namespace

namespace commands {

Command load()
{
    return { "load",
             "",
             { { "FILE", Argument::Count::One, Argument::Kind::File } },
             { dryRunOption, replaceOption, skipOption },
             "Changes the settings to what 'dump' printed, all or none. FILE is \"-\" for standard "
             "input.\nA setting whose path this image does not have is found by its id. Timestamps "
             "are kept.\nOn the service, one request has to hold all, and a power cut within the "
             "next moments can\nkeep part.",
             "load settings.dump --dry-run",
             Command::Where::CommandLine,
             Command::Needs::Changes,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
