#include "trees/treelint.h"

#include "trees/documentcheck.h"
#include "trees/printable.h"
#include "trees/producttree.h"
#include "trees/separator.h"
#include "trees/settingvalue.h"
#include "trees/texts.h"

#include "api/core/model/cmedit.h"

#include <QHash>
#include <QTranslator>

#include <algorithm>
#include <memory>
#include <vector>

namespace tulo {

namespace {

QString rolePointer(const QString& role)
{
    return pointerTo(QString(), role);
}

// ---------------------------------------------------------------------------------------------
// The default tree.
// ---------------------------------------------------------------------------------------------

class DefaultLint
{
public:
    DefaultLint(const TreeContents& contents, const TreesToCheck& trees)
        : m_contents(contents)
        , m_tree(contents, trees.product)
        , m_catalogues(trees.catalogues)
    {
        for (const TreeFinding& finding : contents.findings) {
            if (finding.rule == RuleId::NoKind || finding.rule == RuleId::ConstraintMalformed)
                m_withoutKnownKind.insert(finding.name);
        }
    }

    QVector<TreeFinding> run()
    {
        checkNames();
        for (const Variant& variant : m_tree.variants())
            checkVariant(variant);
        for (const QString& product : m_tree.products())
            checkProduct(product);
        checkDirectories();
        checkTexts();
        return std::move(m_findings);
    }

private:
    void add(const TreeDocument& document, RuleId rule, const QString& pointer,
             const QString& message)
    {
        m_findings.append(findingIn(document, rule, pointer, message));
    }

    /// About a file or directory as a whole.
    void addNamed(const QString& name, RuleId rule, const QString& message)
    {
        TreeFinding finding;
        finding.rule = rule;
        finding.name = name;
        finding.file = name.isEmpty()
            ? m_contents.directoryNames.value(name)
            : m_contents.directoryNames.value(parentOf(name)) + separator + nameOf(name);
        finding.settingPath = settingPathOf(name);
        finding.message = message;
        m_findings.append(finding);
    }

    bool exists(const QString& name) const
    {
        return m_contents.files.contains(name) || m_contents.directories.contains(name);
    }

    bool isOfInterest(const QString& product) const { return m_tree.products().contains(product); }

    // -----------------------------------------------------------------------------------------
    // Names.
    // -----------------------------------------------------------------------------------------

    void checkNames()
    {
        for (const Variant& variant : m_tree.doubtful()) {
            if (m_tree.variants().contains(variant.name))
                continue;
            addNamed(variant.name, RuleId::NameLikeVariant,
                     QStringLiteral("is named like the variant of '%1' for a product '%2'")
                         .arg(nameOf(variant.plain), variant.postfix));
        }
        for (const QString& name : m_contents.files) {
            if (nameOf(name).endsWith(QLatin1Char('_'))) {
                addNamed(name, RuleId::PostfixEmpty,
                         QStringLiteral("takes the place of '%1' where no product is configured")
                             .arg(nameOf(name).chopped(1)));
            }
        }
        for (const QString& name : m_contents.directories) {
            const int at = name.lastIndexOf(QLatin1Char('_'));
            if (at > name.lastIndexOf(separator) && m_tree.isProduct(name.mid(at + 1))
                && exists(name.left(at))) {
                addNamed(name, RuleId::NameLikeVariant,
                         QStringLiteral("is named like the variant of '%1' for the product '%2', "
                                        "but directories have no variants")
                             .arg(nameOf(name.left(at)), name.mid(at + 1)));
            }
        }
    }

    // -----------------------------------------------------------------------------------------
    // Variants.
    // -----------------------------------------------------------------------------------------

    void checkVariant(const Variant& variant)
    {
        // The plain product sees no variant: each belongs to its own.
        if (!isOfInterest(variant.postfix))
            return;
        const QString plainName = nameOf(variant.plain);
        if (m_contents.directories.contains(variant.plain)) {
            addNamed(variant.name, RuleId::FileDirectoryClash,
                     QStringLiteral("is the variant of '%1' for the product '%2', but '%1' is a "
                                    "directory")
                         .arg(plainName, variant.postfix));
            return;
        }
        if (!m_contents.files.contains(variant.plain)) {
            addNamed(variant.name, RuleId::VariantWithoutPlain,
                     QStringLiteral("is the variant for the product '%1' of '%2', which is not "
                                    "there")
                         .arg(variant.postfix, plainName));
            return;
        }
        const auto plain = m_contents.documents.constFind(variant.plain);
        const auto other = m_contents.documents.constFind(variant.name);
        if (plain != m_contents.documents.cend() && other != m_contents.documents.cend())
            compare(*plain, *other, variant);
    }

    void compare(const TreeDocument& plain, const TreeDocument& other, const Variant& variant)
    {
        const QString plainName = nameOf(variant.plain);
        const auto plainSetting = m_tree.setting(variant.plain, QString());
        const auto setting = m_tree.setting(variant.plain, variant.postfix);
        if (!plainSetting || !setting)
            return;
        const QString kind = kindOfSetting(plainSetting->roles);
        const QString otherKind = kindOfSetting(setting->roles);
        if (!kind.isEmpty() && !otherKind.isEmpty() && kind != otherKind) {
            add(other, RuleId::VariantOtherKind, kindPointer(other),
                QStringLiteral("is of kind '%1', but '%2' is of kind '%3'")
                    .arg(otherKind, plainName, kind));
        }
        const QString id = plainSetting->roles.id();
        const QString otherId = setting->roles.id();
        if (id != otherId) {
            add(other, RuleId::VariantOtherId, rolePointer(TuloRoles::Id()),
                QStringLiteral("has %1, but '%2' has %3")
                    .arg(shownId(otherId), plainName, shownId(id)));
        }
        compareRoles(plain, other, plainName);
    }

    static QString shownId(const QString& id)
    {
        return id.isEmpty() ? QStringLiteral("no id") : QStringLiteral("the id '%1'").arg(id);
    }

    // Other roles, such as "disabled", may be left out on purpose.
    void compareRoles(const TreeDocument& plain, const TreeDocument& other,
                      const QString& plainName)
    {
        QStringList missing;
        for (const QString& role :
             { TuloRoles::Title(), TuloRoles::Description(), TuloRoles::Value(),
               TuloRoles::ValueUnit(), TuloRoles::Edit(), TuloRoles::Encrypted() }) {
            const bool isSecret =
                role == TuloRoles::Value() && other.roles.contains(TuloRoles::EncryptedValue());
            if (plain.roles.contains(role) && !other.roles.contains(role) && !isSecret)
                missing.append(role);
        }
        if (!missing.isEmpty()) {
            add(other, RuleId::VariantLacksRole, QString(),
                QStringLiteral("lacks what '%1' has: %2; nothing is taken from there")
                    .arg(plainName, missing.join(QStringLiteral(", "))));
        }
    }

    // -----------------------------------------------------------------------------------------
    // Settings as a product sees them.
    // -----------------------------------------------------------------------------------------

    void checkProduct(const QString& product)
    {
        QHash<QString, QString> owners; // by id
        for (const QString& name : m_tree.settings()) {
            const auto setting = m_tree.setting(name, product);
            if (!setting)
                continue;
            const TreeDocument& source = *setting->source;
            const bool hasOwnRoles = setting->source == setting->file;
            if (hasOwnRoles && setting->roles.title().isEmpty())
                addNoTitle(source);
            checkId(name, *setting, &owners);
            if (hasOwnRoles && setting->roles.modifiable())
                checkKind(source, setting->roles, QStringLiteral("the setting"));
        }
    }

    void addNoTitle(const TreeDocument& document)
    {
        // Where it has another type, that is what is wrong.
        if (document.roles.value(TuloRoles::Title()).toString().isEmpty()) {
            add(document, RuleId::NoTitle, rolePointer(TuloRoles::Title()),
                QStringLiteral("has no title"));
        }
    }

    void checkId(const QString& name, const ProductTree::Setting& setting,
                 QHash<QString, QString>* owners)
    {
        const QString id = setting.roles.id();
        if (id.isEmpty()) {
            if (setting.roles.modifiable()) {
                add(*setting.file, RuleId::IdMissing, QString(), QStringLiteral("has no id"));
            }
            return;
        }
        const auto owner = owners->constFind(id);
        if (owner == owners->cend()) {
            owners->insert(id, name);
            return;
        }
        add(*setting.source, RuleId::IdTwice, rolePointer(TuloRoles::Id()),
            QStringLiteral("'%1' is the id of '%2', too").arg(id, separator + *owner));
    }

    void checkKind(const TreeDocument& document, const TuloRoles& roles, const QString& what)
    {
        // An encrypted one has a rule to itself.
        if (!kindOfSetting(roles).isEmpty() || roles.encrypted()
            || m_withoutKnownKind.contains(document.name))
            return;
        add(document, RuleId::AnyKind, QString(),
            QStringLiteral("nothing tells the kind of %1; add a value or 'kind' to 'edit'")
                .arg(what));
    }

    // -----------------------------------------------------------------------------------------
    // Directories.
    // -----------------------------------------------------------------------------------------

    void checkDirectories()
    {
        for (const QString& name : m_contents.directories) {
            const QString metaName =
                name.isEmpty() ? QStringLiteral(".meta") : name + QLatin1String("/.meta");
            const auto meta = m_contents.documents.constFind(metaName);
            if (meta == m_contents.documents.cend()) {
                // The top is hardly ever shown.
                if (!name.isEmpty() && !m_contents.files.contains(metaName)) {
                    addNamed(name, RuleId::NoTitle,
                             QStringLiteral("has no title, as it has no .meta"));
                }
                continue;
            }
            const TuloRoles roles { TuloHash(meta->roles) };
            if (roles.title().isEmpty())
                addNoTitle(*meta);
            // Clients make no settings at the top.
            if (!name.isEmpty() && roles.modifiable()) {
                checkKind(*meta, roles,
                          QStringLiteral("settings that clients make here (\"modifiable\": false "
                                         "forbids them)"));
            }
        }
    }

    // -----------------------------------------------------------------------------------------
    // Texts.
    // -----------------------------------------------------------------------------------------

    void checkTexts()
    {
        const QVector<TreeText> texts = m_catalogues.isEmpty()
            ? QVector<TreeText>()
            : textsOf(m_contents.directoryNames.value(QString()));
        for (const QString& name : m_catalogues) {
            QTranslator catalogue;
            if (catalogue.load(name))
                checkTexts(texts, catalogue, nameOf(name));
        }
    }

    void checkTexts(const QVector<TreeText>& texts, const QTranslator& catalogue,
                    const QString& catalogueName)
    {
        for (const TreeText& text : texts) {
            const auto document = m_contents.documents.constFind(text.file);
            const QString translated = catalogue.translate(text.context.toUtf8().constData(),
                                                           text.text.toUtf8().constData());
            if (!translated.isEmpty() || document == m_contents.documents.cend())
                continue;
            add(*document, RuleId::TextUntranslated, rolePointer(text.role),
                QStringLiteral("%1: '%2' has no translation of \"%3\"")
                    .arg(text.role, catalogueName, text.text));
        }
    }

    const TreeContents& m_contents;
    const ProductTree m_tree;
    const QStringList m_catalogues;
    QSet<QString> m_withoutKnownKind; ///< files whose kind has another finding
    QVector<TreeFinding> m_findings;
};

// ---------------------------------------------------------------------------------------------
// The writable tree.
// ---------------------------------------------------------------------------------------------

class WrittenLint
{
public:
    WrittenLint(const TreeContents& written, const TreeContents& defaults,
                const TreesToCheck& trees)
        : m_written(written)
        , m_defaults(defaults)
        , m_tree(defaults, trees.writtenBy ? trees.writtenBy : trees.product)
    {
        for (const TreeFinding& finding : defaults.findings) {
            if (finding.rule == RuleId::ConstraintMalformed)
                m_notUnderstood.insert(finding.name);
        }
    }

    QVector<TreeFinding> run()
    {
        for (const TreeDocument& document : m_written.documents)
            checkDocument(document);
        return std::move(m_findings);
    }

private:
    void checkDocument(const TreeDocument& document)
    {
        if (m_defaults.directories.contains(document.name))
            return;
        const QVariant written = document.roles.value(TuloRoles::Value());
        const TuloValue value { TuloHash(written.toHash()) };
        const bool hasValue = document.roles.contains(TuloRoles::Value())
            && !(written.userType() == QMetaType::QVariantHash && value.isEmpty());
        if (hasValue && !hasKnownKind(value)) {
            m_findings.append(findingIn(document, RuleId::WrittenUnparsable,
                                        rolePointer(TuloRoles::Value()),
                                        QStringLiteral("the value is not of a known kind")));
            return;
        }
        checkUnderProducts(document, hasValue ? value : TuloValue());
    }

    // Which product wrote it is not in the file.
    void checkUnderProducts(const TreeDocument& document, const TuloValue& value)
    {
        QVector<TreeFinding> found;
        for (const QString& product : m_tree.products()) {
            const auto finding = check(document, value, product);
            if (!finding)
                return;
            found.append(*finding);
        }
        if (!found.isEmpty())
            m_findings.append(found.first());
    }

    std::optional<TreeFinding> check(const TreeDocument& document, const TuloValue& value,
                                     const QString& product) const
    {
        const auto setting = m_tree.setting(document.name, product);
        if (setting)
            return checkValue(document, value, setting->roles, *setting->source);
        // One that cannot be understood has a finding.
        if (m_defaults.files.contains(document.name))
            return std::nullopt;
        const TreeDocument* const meta = m_tree.metaOf(document.name);
        const TuloRoles roles = meta == nullptr ? TuloRoles() : TuloRoles(TuloHash(meta->roles));
        const bool mayBeMade =
            meta != nullptr && roles.modifiable() && document.name.contains(separator);
        if (mayBeMade)
            return checkValue(document, value, roles, *meta);
        return findingIn(document, RuleId::WrittenOrphan, QString(),
                         orphanMessage(document, product));
    }

    QString orphanMessage(const TreeDocument& document, const QString& product) const
    {
        const QString id = TuloRoles(TuloHash(document.roles)).id();
        for (const QString& name : m_tree.settings()) {
            const auto setting = m_tree.setting(name, product);
            if (!id.isEmpty() && setting && setting->roles.id() == id) {
                return QStringLiteral("the image has no such setting; its id '%1' is now that of "
                                      "'%2'")
                    .arg(id, separator + name);
            }
        }
        return QStringLiteral("the image has no such setting");
    }

    std::optional<TreeFinding> checkValue(const TreeDocument& document, const TuloValue& value,
                                          const TuloRoles& roles, const TreeDocument& source) const
    {
        const QString kind = kindOfSetting(roles);
        if (value.isEmpty() || kind.isEmpty())
            return std::nullopt;
        const QString pointer = rolePointer(TuloRoles::Value());
        const QString what =
            roles.encrypted() ? QStringLiteral("the value") : shownContent(value.content());
        if (value.kind() != kind && value.convertedTo(kind).isEmpty()) {
            return findingIn(document, RuleId::WrittenKindChanged, pointer,
                             QStringLiteral("%1 is of kind '%2', but the setting is of kind '%3'")
                                 .arg(what, value.kind(), kind));
        }
        TuloEdit edit = roles.edit();
        if (edit.__isEmpty() || m_notUnderstood.contains(source.name))
            return std::nullopt;
        edit.__setHashAttribute(TuloEdit::Kind(), kind);
        const QString reason = CMEdit::judge(value, value, edit).reason;
        if (reason.isEmpty())
            return std::nullopt;
        return findingIn(document, RuleId::WrittenOutsideConstraints, pointer,
                         QStringLiteral("%1: %2").arg(what, withLimits(reason, edit)));
    }

    const TreeContents& m_written;
    const TreeContents& m_defaults;
    const ProductTree m_tree;
    QSet<QString> m_notUnderstood; ///< files of the default tree whose constraints have a finding
    QVector<TreeFinding> m_findings;
};

} // namespace

QVector<TreeFinding> lintDefaults(const TreeContents& defaults, const TreesToCheck& trees)
{
    return DefaultLint(defaults, trees).run();
}

QVector<TreeFinding> lintWritten(const TreeContents& written, const TreeContents& defaults,
                                 const TreesToCheck& trees)
{
    return WrittenLint(written, defaults, trees).run();
}

} // namespace tulo
