#include "tulo-cm/dumping.h"

#include "tulo-cm/listing.h"
#include "tulo-cm/progress.h"
#include "tulo-cm/roles.h"
#include "tulo-cm/waiting.h"

#include <tulo/settings.h>

#include <algorithm>
#include <optional>

namespace tulo {
namespace {

/// Requests under way at a time: a service takes more, and others want some of its time.
constexpr int requestsAtOnce = 32;

// Only these count in a written file.
bool isCarried(const QString& role)
{
    return role == roles::value() || role == QLatin1String("encryptedValue")
        || role == roles::timestamp() || role == roles::id();
}

bool isWritten(const RoleOrigin& origin)
{
    return isCarried(origin.role)
        && (origin.layer == RoleOrigin::Layer::Written
            || origin.layer == RoleOrigin::Layer::Pending);
}

/// Tells whether the effective role comes from a change, or was read when there was one.
bool isOfChange(const RoleOrigin& origin)
{
    return origin.state == RoleOrigin::State::Effective
        && (isWritten(origin) || origin.layer == RoleOrigin::Layer::Cached);
}

/// A setting that was come across.
struct Candidate
{
    QString path;
    bool isEncrypted = false;
};

/// What `origins` say of a setting that was changed; nothing when it was not.
std::optional<DumpedSetting> settingOf(const QString& path, const QVector<RoleOrigin>& origins)
{
    if (std::none_of(origins.cbegin(), origins.cend(), isWritten))
        return std::nullopt;
    DumpedSetting setting;
    setting.path = path;
    for (const RoleOrigin& origin : origins) {
        if (origin.state != RoleOrigin::State::Effective)
            continue;
        // As every written file has it, whatever its own says.
        if (origin.role == roles::id())
            setting.id = origin.value.toString();
        if (origin.role == roles::value() && isOfChange(origin))
            setting.value = origin.value;
        if (origin.role == roles::timestamp() && isOfChange(origin))
            setting.timestamp = origin.value.toLongLong();
    }
    return setting;
}

// The value of an encrypted setting, which explain() does not show.
Error readSecret(Settings& settings, DumpedSetting* setting)
{
    const auto roles = finished(settings.get(setting->path, { roles::value() }));
    setting->value = roles.value().value(roles::value());
    if (roles.error() || setting->value.isValid())
        return roles.error();
    return {
        ErrorCode::Unavailable,
        QStringLiteral("the value of '%1' is encrypted and cannot be read here").arg(setting->path),
        setting->path
    };
}

int findCandidates(Context& context, const QString& path, QVector<Candidate>* candidates)
{
    return walk(*context.settings, path, { roles::encrypted() }, context.output,
                [&](const VisitedNode& node) {
                    const bool isEncrypted = node.roles.value(roles::encrypted()).toBool();
                    if (!node.isDirectory)
                        candidates->append({ node.path, isEncrypted });
                    return !SignalHandler::isEndRequested();
                });
}

Error take(Settings& settings, const Candidate& candidate, const QVector<RoleOrigin>& origins,
           bool withSecrets, Changed* changed)
{
    std::optional<DumpedSetting> setting = settingOf(candidate.path, origins);
    if (!setting)
        return {};
    if (candidate.isEncrypted && !withSecrets) {
        changed->leftOut.append(candidate.path);
        return {};
    }
    Error error;
    if (candidate.isEncrypted)
        error = readSecret(settings, &*setting);
    if (!error)
        changed->dump.settings.append(*setting);
    return error;
}

} // namespace

int readChanged(Context& context, const QString& path, bool withSecrets, Changed* changed)
{
    QVector<Candidate> candidates;
    const int exitCode = findCandidates(context, path, &candidates);
    if (exitCode != Done)
        return exitCode;

    changed->dump.path = path;
    changed->dump.hasSecrets = withSecrets;
    Progress progress(QStringLiteral("looking for changed settings"));
    progress.setTotal(candidates.size());
    for (int first = 0; first < candidates.size(); first += requestsAtOnce) {
        const QVector<Candidate> some = candidates.mid(first, requestsAtOnce);
        QVector<Reply<QVector<RoleOrigin>>> replies;
        for (const Candidate& candidate : some)
            replies.append(context.settings->explain(candidate.path));
        for (int i = 0; i < some.size(); ++i) {
            const auto origins = finished(replies.at(i));
            // Gone since it was listed.
            if (origins.error().code == ErrorCode::InvalidPath)
                continue;
            const Error error = origins.error()
                ? origins.error()
                : take(*context.settings, some.at(i), origins.value(), withSecrets, changed);
            if (error)
                return context.output.report(error);
        }
        progress.add(some.size());
    }
    sortSettings(&changed->dump);
    changed->leftOut.sort();
    return Done;
}

} // namespace tulo
