#include "trees/treecompare.h"

#include "trees/printable.h"
#include "trees/producttree.h"
#include "trees/separator.h"
#include "trees/settingvalue.h"
#include "trees/treedocuments.h"

#include "api/core/model/cmedit.h"

#include <QHash>
#include <QPair>

#include <algorithm>
#include <cmath>

namespace tulo {

namespace {

QString shown(const QVariant& content)
{
    return content.isValid() ? shownContent(content) : QStringLiteral("absent");
}

// ---------------------------------------------------------------------------------------------
// Constraints that take fewer values than before.
// ---------------------------------------------------------------------------------------------

struct Narrowing
{
    QString pointer;
    QString message;
};

bool isLess(const QVariant& left, const QVariant& right)
{
    const bool areIntegers =
        left.userType() == QMetaType::LongLong && right.userType() == QMetaType::LongLong;
    return areIntegers ? left.toLongLong() < right.toLongLong()
                       : left.toDouble() < right.toDouble();
}

bool isMultiple(double amount, double step)
{
    constexpr double tolerance = 1e-6;
    const double count = amount / step;
    return std::abs(count - std::round(count)) < tolerance;
}

class Narrowings
{
public:
    Narrowings(const TuloEdit& before, const TuloEdit& now, QString kind, QString pointer)
        : m_before(before)
        , m_now(now)
        , m_kind(std::move(kind))
        , m_pointer(std::move(pointer))
    {
    }

    QVector<Narrowing> find()
    {
        if (!m_before.values().isEmpty()) {
            compareListed();
            return std::move(m_found);
        }
        if (!m_now.values().isEmpty())
            add(TuloEdit::Values(), QStringLiteral("it took values that are not listed"));
        if (isNumberKind(m_kind))
            compareNumbers();
        else if (m_kind == TuloValue::String())
            comparePatterns();
        if (m_kind == TuloValue::String() || m_kind == TuloValue::List())
            compareLengths();
        if (m_kind == TuloValue::List())
            compareElements();
        return std::move(m_found);
    }

private:
    void add(const QString& key, const QString& message)
    {
        m_found.append({ key.isEmpty() ? m_pointer : pointerTo(m_pointer, key), message });
    }

    void addChanged(const QString& key)
    {
        add(key,
            QStringLiteral("'%1' was %2 and is %3")
                .arg(key, shown(m_before.__hashAttribute(key)), shown(m_now.__hashAttribute(key))));
    }

    // Each of them can be asked.
    void compareListed()
    {
        QStringList lost;
        TuloEdit now = m_now;
        now.__setHashAttribute(TuloEdit::Kind(), m_kind);
        for (const QVariant& content : m_before.values()) {
            const TuloValue value = TuloValue::ofContent(content);
            if (CMEdit::judge(value, value, m_before).reason.isEmpty()
                && !CMEdit::judge(value, value, now).reason.isEmpty())
                lost.append(shown(content));
        }
        if (!lost.isEmpty()) {
            add(m_now.values().isEmpty() ? QString() : TuloEdit::Values(),
                QStringLiteral("it took %1").arg(lost.join(QStringLiteral(", "))));
        }
    }

    void compareNumbers()
    {
        if (m_now.min().isValid()
            && (!m_before.min().isValid() || isLess(m_before.min(), m_now.min())))
            addChanged(TuloEdit::Min());
        if (m_now.max().isValid()
            && (!m_before.max().isValid() || isLess(m_now.max(), m_before.max())))
            addChanged(TuloEdit::Max());
        const double step = m_now.step().toDouble();
        if (step <= 0.0 || (m_kind == TuloValue::Int() && step <= 1.0))
            return;
        const double before = m_before.step().toDouble();
        const double offset = m_before.min().toDouble() - m_now.min().toDouble();
        if (!m_before.step().isValid() || !isMultiple(before, step) || !isMultiple(offset, step))
            addChanged(TuloEdit::Step());
    }

    void compareLengths()
    {
        if (m_now.minLength() > std::max(0, m_before.minLength()))
            addChanged(TuloEdit::MinLength());
        const int now = m_now.maxLength();
        if (now >= 0 && (m_before.maxLength() < 0 || now < m_before.maxLength()))
            addChanged(TuloEdit::MaxLength());
    }

    // Whether one takes less than another cannot be told.
    void comparePatterns()
    {
        if (!m_now.pattern().isEmpty() && m_now.pattern() != m_before.pattern())
            addChanged(TuloEdit::Pattern());
    }

    void compareElements()
    {
        const TuloEdit now = m_now.elements();
        const TuloEdit before = m_before.elements();
        const QString kind = CMEdit::kind(TuloValue(), now);
        if (kind.isEmpty())
            return;
        if (CMEdit::kind(TuloValue(), before) != kind) {
            addChanged(TuloEdit::Elements());
            return;
        }
        m_found += Narrowings(before, now, kind, pointerTo(m_pointer, TuloEdit::Elements())).find();
    }

    const TuloEdit m_before;
    const TuloEdit m_now;
    const QString m_kind;
    const QString m_pointer;
    QVector<Narrowing> m_found;
};

// ---------------------------------------------------------------------------------------------
// Two images.
// ---------------------------------------------------------------------------------------------

/// One setting, or what clients make in one directory, in both images.
struct Pair
{
    QString oldName;
    QString newName;
    TuloRoles before;
    TuloRoles now;
    const TreeDocument* file = nullptr; ///< that has the new roles
    QString remark; ///< for which product it holds
};

class Comparison
{
public:
    Comparison(const TreeContents& before, const TreeContents& now,
               const std::optional<QString>& product, const QVector<Migration>& migrations)
        : m_oldContents(before)
        , m_newContents(now)
        , m_before(before, product)
        , m_now(now, product)
        , m_migrations(migrations)
    {
    }

    QVector<TreeFinding> run()
    {
        for (const QString& product : m_before.products())
            compareProduct(product);
        for (const TreeDocument& document : m_oldContents.documents)
            compareTemplate(document);
        sortFindings(&m_findings);
        return std::move(m_findings);
    }

private:
    /// About `names`, the setting in both images; the new one is null for a setting that is gone.
    struct Names
    {
        QString before;
        QString now;
        QString id; ///< in the old image
    };

    void add(const TreeDocument& document, RuleId rule, const QString& pointer,
             const QString& message, const Names& names)
    {
        TreeFinding finding = findingIn(document, rule, pointer, message);
        finding.settingPath = separator + (names.now.isNull() ? names.before : names.now);
        finding.isCovered = isCovered(rule, names);
        if (finding.isCovered)
            finding.message += QStringLiteral("; a migration covers it");
        m_findings.append(finding);
    }

    bool isCovered(RuleId rule, const Names& names) const
    {
        using Kind = ImageChange::Kind;
        ImageChange change;
        switch (rule) {
        case RuleId::Removed:
            change.kind = Kind::Removed;
            break;
        case RuleId::Narrowed:
            change.kind = Kind::Narrowed;
            break;
        case RuleId::KindChanged:
            change.kind = Kind::KindChanged;
            break;
        case RuleId::MadeReadOnly:
            change.kind = Kind::MadeReadOnly;
            break;
        default:
            // Nothing is lost by the others.
            return false;
        }
        // A rule may move it to where nothing is.
        if (rule == RuleId::Removed
            && renamed(separator + names.before, names.id) != separator + names.before)
            return false;
        change.path = separator + names.before;
        change.newPath = separator + (names.now.isNull() ? names.before : names.now);
        change.id = names.id;
        return covers(m_migrations, change);
    }

    void compareProduct(const QString& product)
    {
        QHash<QString, QString> byId;
        for (const QString& name : m_now.settings()) {
            const auto setting = m_now.setting(name, product);
            if (setting && !setting->roles.id().isEmpty())
                byId.insert(setting->roles.id(), name);
        }
        for (const QString& name : m_before.settings()) {
            const auto setting = m_before.setting(name, product);
            if (setting)
                compareSetting(name, *setting, byId, product);
        }
    }

    void compareSetting(const QString& name, const ProductTree::Setting& before,
                        const QHash<QString, QString>& byId, const QString& product)
    {
        const QString id = before.roles.id();
        const auto samePath = m_now.setting(name, product);
        const bool isSame = samePath && samePath->roles.id() == id;
        QString newName = isSame ? name : byId.value(id, samePath ? name : QString());
        const bool isVariant = before.file->name != name;
        const QString remark = isVariant ? forProduct(product) : QString();
        if (newName.isNull()) {
            const QString target = renamed(separator + name, id);
            if (!m_now.setting(target.mid(1), product)) {
                addRemoved(name, id, *before.file, target, remark);
                return;
            }
            newName = target.mid(1);
        }
        const auto now = m_now.setting(newName, product);
        if (newName != name) {
            add(*now->source, RuleId::Moved, rolePointer(TuloRoles::Id()),
                QStringLiteral("'%1' is now '%2'").arg(separator + name, separator + newName)
                    + remark,
                { name, newName, id });
        }
        const bool isNowVariant = now->file->name != newName;
        compareRoles({ name, newName, before.roles, now->roles, now->source,
                       isVariant || isNowVariant ? forProduct(product) : QString() });
    }

    /// Where rules of the migrations carry a setting.
    QString renamed(QString path, const QString& id) const
    {
        for (const Migration& migration : m_migrations) {
            for (const MigrationStep& step : migration.steps) {
                if (step.kind != MigrationStep::Kind::Rename)
                    continue;
                if (path == step.target || path.startsWith(step.target + separator))
                    path = step.to + path.mid(step.target.size());
                else if (!id.isEmpty() && id == step.target)
                    path = step.to;
            }
        }
        return path;
    }

    void addRemoved(const QString& name, const QString& id, const TreeDocument& document,
                    const QString& target, const QString& remark)
    {
        // One that cannot be understood is there.
        if (m_newContents.files.contains(name))
            return;
        QString message = QStringLiteral("'%1' is gone").arg(separator + name);
        if (target != separator + name)
            message +=
                QStringLiteral("; a migration moves it to '%1', which is not there").arg(target);
        else if (id.isEmpty())
            message += QStringLiteral(", and had no id to find it by");
        else
            message += QStringLiteral(", with its id '%1'").arg(id);
        add(document, RuleId::Removed, QString(), message + remark, { name, QString(), id });
    }

    static QString forProduct(const QString& product)
    {
        return QStringLiteral(" (product '%1')").arg(product);
    }

    static QString rolePointer(const QString& role) { return pointerTo(QString(), role); }

    // Where a .meta does not forbid it, clients make children.
    static bool isTemplate(const TreeDocument& document)
    {
        return nameOf(document.name) == QLatin1String(".meta") && document.name.contains(separator)
            && TuloRoles(TuloHash(document.roles)).modifiable();
    }

    void compareTemplate(const TreeDocument& document)
    {
        if (!isTemplate(document))
            return;
        const QString directory = settingPathOf(document.name).mid(1);
        const auto now = m_newContents.documents.constFind(document.name);
        if (now != m_newContents.documents.cend()) {
            compareRoles({ directory, directory, TuloRoles(TuloHash(document.roles)),
                           TuloRoles(TuloHash(now->roles)), &*now, QString() });
        } else if (!m_newContents.files.contains(document.name)) {
            add(document, RuleId::Removed, QString(),
                QStringLiteral("settings that clients made in '%1' have no template any more")
                    .arg(separator + directory),
                { directory, QString(), QString() });
        }
    }

    void compareRoles(const Pair& pair)
    {
        const QString before = kindOfSetting(pair.before);
        const QString now = kindOfSetting(pair.now);
        if (!before.isEmpty() && !now.isEmpty() && before != now) {
            addTo(pair, RuleId::KindChanged, kindPointer(*pair.file),
                  QStringLiteral("was of kind '%1' and is of kind '%2'").arg(before, now));
        } else if (before.isEmpty() && !now.isEmpty()) {
            addTo(pair, RuleId::Narrowed, kindPointer(*pair.file),
                  QStringLiteral("took values of every kind and is of kind '%1'").arg(now));
        } else if (!now.isEmpty()) {
            const auto narrowings =
                Narrowings(pair.before.edit(), pair.now.edit(), now, rolePointer(TuloRoles::Edit()))
                    .find();
            for (const Narrowing& narrowing : narrowings)
                addTo(pair, RuleId::Narrowed, narrowing.pointer, narrowing.message);
        }
        if (pair.before.modifiable() && !pair.now.modifiable()) {
            addTo(pair, RuleId::MadeReadOnly, rolePointer(TuloRoles::Modifiable()),
                  QStringLiteral("could be changed and is read-only"));
        }
        compareDefaults(pair);
    }

    void compareDefaults(const Pair& pair)
    {
        const TuloValue before = pair.before.defaultValue();
        const TuloValue now = pair.now.defaultValue();
        if (before == now)
            return;
        const bool isSecret = pair.before.encrypted() || pair.now.encrypted();
        const bool isFile = pair.file->roles.contains(TuloRoles::Value());
        addTo(pair, RuleId::DefaultChanged,
              rolePointer(isFile ? TuloRoles::Value() : TuloRoles::DefaultValue()),
              isSecret ? QStringLiteral("the default value has changed")
                       : QStringLiteral("the default value was %1 and is %2")
                             .arg(shown(before.content()), shown(now.content())));
    }

    void addTo(const Pair& pair, RuleId rule, const QString& pointer, const QString& message)
    {
        add(*pair.file, rule, pointer, message + pair.remark,
            { pair.oldName, pair.newName, pair.before.id() });
    }

    const TreeContents& m_oldContents;
    const TreeContents& m_newContents;
    const ProductTree m_before;
    const ProductTree m_now;
    const QVector<Migration>& m_migrations;
    QVector<TreeFinding> m_findings;
};

} // namespace

QVector<TreeFinding> compareTrees(const QString& oldPath, const TreesToCheck& trees,
                                  const QVector<Migration>& migrations)
{
    const TreeContents before = readDefaultTree(oldPath, QString());
    const TreeContents now = readDefaultTree(trees.defaultPath, QString());
    return Comparison(before, now, trees.product, migrations).run();
}

} // namespace tulo
