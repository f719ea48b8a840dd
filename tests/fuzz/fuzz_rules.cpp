// Two images and a written value that the input describes, checked by every rule.
//
//   byte    which of the files are there
//   chunks  the default file, its variant, the directory's .meta, the written file, the default
//           file of the older image, its .meta, exceptions

#include "forgetall.h"
#include "fuzzinput.h"

#include "trees/ruleexceptions.h"
#include "trees/settingvalue.h"
#include "trees/treecheck.h"
#include "trees/treecompare.h"

#include "api/core/tulojson.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QCoreApplication>
#include <QFile>

#include <algorithm>
#include <memory>

using namespace tulo;

namespace {

enum Flag : unsigned {
    HasDefault = 1,
    HasVariant = 2,
    HasMeta = 4,
    HasWritten = 8,
    HasOld = 16,
    HasOldMeta = 32
};

const QString plainName = QStringLiteral("/audio/volume");
const QString variantName = QStringLiteral("/audio/volume_sport");
const QString metaName = QStringLiteral("/audio/.meta");

void put(const QString& name, bool isThere, const QByteArray& content)
{
    if (!isThere) {
        QFile::remove(name);
        return;
    }
    QFile file(name);
    TULO_ASSERT(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
}

QVariantHash rolesIn(const QByteArray& content)
{
    TuloError error;
    return TuloJson::parse(content, error, nullptr).toHash();
}

/// Each finding is at a place that exists, and its texts can be printed.
void checkPlaces(const QVector<TreeFinding>& findings)
{
    for (const TreeFinding& finding : findings) {
        TULO_ASSERT(!finding.file.isEmpty() && !finding.message.isEmpty());
        TULO_ASSERT(findRule(QLatin1String(ruleOf(finding.rule).name)) == &ruleOf(finding.rule));
        if (!finding.position.isKnown())
            continue;
        QFile file(finding.file);
        TULO_ASSERT(file.open(QIODevice::ReadOnly));
        const QList<QByteArray> lines = file.readAll().split('\n');
        TULO_ASSERT(finding.position.line <= lines.size());
        TULO_ASSERT(finding.position.column >= 1
                    && finding.position.column <= lines.at(finding.position.line - 1).size() + 1);
    }
}

bool has(const QVector<TreeFinding>& findings, const char* group)
{
    return std::any_of(findings.cbegin(), findings.cend(), [group](const TreeFinding& finding) {
        return qstrcmp(ruleOf(finding.rule).group, group) == 0;
    });
}

TuloRoles withDefault(const QVariantHash& roles)
{
    TuloRoles result { TuloHash(roles) };
    if (!result.value().__isEmpty())
        result.setDefaultValue(result.value());
    return result;
}

/// Whether a setting would take the value as it is.
bool takes(const TuloRoles& setting, const TuloValue& value)
{
    const QString kind = kindOfSetting(setting);
    if (kind.isEmpty())
        return true;
    const ValidatedValue validated = validateChange(setting, value);
    return validated.isAccepted && validated.value == value.convertedTo(kind);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static int argumentCount = 0;
    static const QCoreApplication application(argumentCount, nullptr);
    static const TemporaryTree tree;
    static const TemporaryTree oldTree;
    static const bool isMade = [] {
        setLogging(false);
        tree.makeDefaultDirectory(QStringLiteral("/audio"));
        tree.makeWriteDirectory(QStringLiteral("/audio"));
        oldTree.makeDefaultDirectory(QStringLiteral("/audio"));
        return true;
    }();
    Q_UNUSED(isMade)
    static const auto worker = [] {
        QVariantHash config = tree.config();
        config.insert(QStringLiteral("product_postfix"), QStringLiteral("sport"));
        return std::make_unique<CMSettingsWorker>(config);
    }();

    FuzzInput input(data, size);
    const unsigned flags = input.byte();
    const QByteArray plain = input.chunk();
    put(tree.defaultPath() + plainName, flags & HasDefault, plain);
    put(tree.defaultPath() + variantName, flags & HasVariant, input.chunk());
    put(tree.defaultPath() + metaName, flags & HasMeta, input.chunk());
    const QByteArray written = input.chunk();
    put(tree.writePath() + plainName, flags & HasWritten, written);
    const QByteArray before = input.chunk();
    put(oldTree.defaultPath() + plainName, flags & HasOld, before);
    put(oldTree.defaultPath() + metaName, flags & HasOldMeta, input.chunk());
    put(tree.path() + QStringLiteral("/exceptions"), true, input.chunk());

    TreesToCheck trees;
    trees.defaultPath = tree.defaultPath();
    trees.writePath = tree.writePath();
    QVector<TreeFinding> findings = checkTrees(trees);
    checkPlaces(findings);

    // What the service looks for is part of it.
    const QVector<TreeFinding> atStart = inspectTrees(trees.defaultPath, trees.writePath);
    bool mayStart = true;
    for (const TreeFinding& finding : atStart) {
        mayStart = mayStart && !finding.stopsStart;
        TULO_ASSERT(std::any_of(findings.cbegin(), findings.cend(), [&](const TreeFinding& other) {
            return other.rule == finding.rule && placeOf(other) == placeOf(finding)
                && other.stopsStart == finding.stopsStart;
        }));
    }
    // Nothing that passes ends the worker.
    if (mayStart) {
        forgetAll(worker.get());
        for (const char* node :
             { "/settings/audio/volume", "/settings/audio/volume_sport", "/settings/audio" }) {
            const auto reply = getData(worker.get(), QLatin1String(node), TuloRoles::keys());
            TULO_ASSERT(reply.isFinished());
        }
    }

    // A default in which nothing is wrong can be set again.
    const TuloRoles now = withDefault(rolesIn(plain));
    const bool isUnderstood = (flags & HasDefault) != 0 && !has(findings, "json")
        && !has(findings, "value") && !has(findings, "roles") && !rolesIn(plain).isEmpty();
    if (isUnderstood && !now.value().__isEmpty() && !TuloValue(now.value()).isEmpty())
        TULO_ASSERT(takes(now, now.value()));

    // What fitted the older image fits the new one, unless a difference says so.
    TULO_ASSERT(compareTrees(trees.defaultPath, trees, {}).isEmpty());
    TreesToCheck plainOnly = trees;
    plainOnly.product = QString();
    const QVector<TreeFinding> differences = compareTrees(oldTree.defaultPath(), plainOnly, {});
    checkPlaces(differences);
    const bool isNarrowed =
        std::any_of(differences.cbegin(), differences.cend(), [](const TreeFinding& finding) {
            return finding.rule != RuleId::DefaultChanged && finding.rule != RuleId::Moved;
        });
    const TuloRoles old = withDefault(rolesIn(before));
    const TuloValue value = TuloRoles(TuloHash(rolesIn(written))).value();
    if (isUnderstood && (flags & HasOld) != 0 && !rolesIn(before).isEmpty() && !isNarrowed
        && !kindOfSetting(old).isEmpty() && !value.isEmpty() && takes(old, value))
        TULO_ASSERT(takes(now, value));

    QString error;
    const auto exceptions =
        RuleExceptions::read(tree.path() + QStringLiteral("/exceptions"), &error);
    TULO_ASSERT(exceptions.has_value() == error.isEmpty());
    if (exceptions) {
        RuleExceptions used = *exceptions;
        const int found = findings.size();
        TULO_ASSERT(used.apply(&findings) + findings.size() == found);
        checkPlaces(used.unused([](RuleId) { return true; }));
    }
    return 0;
}
