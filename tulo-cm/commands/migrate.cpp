#include "tulo-cm/command.h"
#include "tulo-cm/place.h"
#include "tulo-cm/progress.h"
#include "tulo-cm/waiting.h"

#include "trees/migrator.h"
#include "trees/ownerlock.h"
#include "trees/plainjson.h"
#include "trees/plainroles.h"
#include "trees/treepreparation.h"
#include "trees/treestamp.h"

#include <tulo/settings.h>

#include <algorithm>

namespace tulo {
namespace {

constexpr Option dryRun { "dry-run", "", "only print what would be done" };
constexpr Option undo { "undo", "", "take back what the last migration did" };

QString shownValue(const TuloValue& value)
{
    return value.isEmpty() ? QString() : QString::fromUtf8(jsonOf(plainValue(value)));
}

void print(const PlannedMigration& value, Output& output)
{
    if (output.isJson()) {
        QVariantMap object { { QStringLiteral("from"), value.from },
                             { QStringLiteral("to"), value.to },
                             { QStringLiteral("causes"), value.causes } };
        if (!value.before.isEmpty())
            object.insert(QStringLiteral("before"), plainValue(value.before));
        if (!value.after.isEmpty())
            object.insert(QStringLiteral("after"), plainValue(value.after));
        if (!value.obstacle.isEmpty())
            object.insert(QStringLiteral("obstacle"), value.obstacle);
        output.object(object);
        return;
    }
    QString text = describe(value);
    if (value.before != value.after && value.obstacle.isEmpty()) {
        const QString before = shownValue(value.before);
        const QString after = shownValue(value.after);
        text += QStringLiteral(": ")
            + (before.isEmpty() || after.isEmpty() ? before + after
                                                   : before + QStringLiteral(" -> ") + after);
    }
    output.line(text);
}

int report(const MigrationResult& result, Output& output)
{
    for (const PlannedMigration& value : result.values)
        print(value, output);
    switch (result.status) {
    case MigrationResult::Status::Done:
        break;
    case MigrationResult::Status::BrokenImage:
    case MigrationResult::Status::Faulty:
        return output.report(Findings, "Faulty", result.message, QString());
    case MigrationResult::Status::Failed:
    case MigrationResult::Status::Unfinished:
        return output.report({ ErrorCode::NotSaved, result.message, QString() });
    }
    const auto staying =
        std::count_if(result.values.cbegin(), result.values.cend(),
                      [](const PlannedMigration& value) { return !value.obstacle.isEmpty(); });
    if (!output.isJson()) {
        output.note(
            QStringLiteral("values changed: %1, not changed for a reason: %2")
                .arg(QString::number(result.values.size() - staying), QString::number(staying)));
    }
    return Done;
}

// As the owner of the tree.
int migrateOwned(const MigrationPlace& place, MigrationRun kind, Output& output)
{
    OwnerLock lock;
    if (lock.acquire(place.writePath) != OwnerLock::Status::Owned)
        return output.report({ ErrorCode::Unavailable, lock.message(), QString() });
    const TreePreparation done = prepareTree(lock.directory(), place, kind);
    for (const QString& message : done.messages)
        output.note(message);
    if (!done.obstacle.isEmpty())
        return output.report({ ErrorCode::NotSaved, done.obstacle, QString() });
    return report(done.migration, output);
}

int plan(const MigrationPlace& place, MigrationRun kind, Output& output)
{
    // The plan looks at all files, an opening of the tree only at the stamp.
    if (place.migrationsPath.isEmpty() && isStampStale(place.defaultPath)) {
        output.note(QStringLiteral("the stamp of '%1' is stale: a device that has it already "
                                   "migrates nothing; stamp the tree with 'check --stamp'")
                        .arg(place.defaultPath));
    }
    return report(planMigrationOf(place, kind), output);
}

// On a service: where its trees are, which can be looked at only if they are here.
Error placeOfService(const Context& context, const Arguments& arguments, MigrationPlace* place)
{
    if (!arguments.isSet(dryRun) || !context.place.host.isEmpty()) {
        return { ErrorCode::Unavailable,
                 QStringLiteral(
                     "the service owns the writable tree and migrates it when it starts; "
                     "restart it, or stop it and use --in-process on the device"),
                 QString() };
    }
    const auto status = finished(context.settings->status());
    if (status.error())
        return status.error();
    place->defaultPath = status.value().defaultPath;
    place->writePath = status.value().writePath;
    place->productPostfix = status.value().product;
    return {};
}

int run(Context& context, const Arguments& arguments)
{
    const EngineOptions& engine = context.place.engine;
    MigrationPlace place { engine.defaultPath, engine.writePath, engine.productPostfix,
                           engine.migrationsPath };
    if (context.settings != nullptr) {
        const Error error = placeOfService(context, arguments, &place);
        if (error)
            return context.output.report(error);
    }
    const Progress progress(QStringLiteral("migrating"));
    const MigrationRun kind = arguments.isSet(undo) ? MigrationRun::Undo : MigrationRun::Migrate;
    return arguments.isSet(dryRun) ? plan(place, kind, context.output)
                                   : migrateOwned(place, kind, context.output);
}

} // namespace

namespace commands {

Command migrate()
{
    return { "migrate",
             "",
             {},
             { dryRun, undo },
             "Fits the written values to the image: a value follows the id of its setting, and the "
             "rules\nin settings-migrations do the rest, each once. An image that comes back gets "
             "its values\nback. All of it is done or nothing. Happens by itself whenever the "
             "writable tree is opened\nfor changes, by the service too; this is for a device where "
             "another framework serves it.",
             "--in-process migrate --dry-run",
             Command::Where::CommandLine,
             Command::Needs::OwnedTrees,
             Command::Runs::ToItsEnd,
             run };
}

} // namespace commands

} // namespace tulo
