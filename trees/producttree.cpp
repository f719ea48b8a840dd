#include "trees/producttree.h"

#include "trees/separator.h"
#include "trees/settingvalue.h"

#include <QSet>

#include <algorithm>

namespace tulo {

namespace {

constexpr QLatin1Char beforePostfix('_');

bool isSettingFile(const QString& name)
{
    return !nameOf(name).startsWith(QLatin1Char('.'));
}

/// Every way to read a name as a variant's: "a_b_c" is "a" for "b_c", and "a_b" for "c".
QVector<Variant> readings(const QString& name)
{
    QVector<Variant> all;
    const int start = name.size() - nameOf(name).size();
    for (int at = name.indexOf(beforePostfix, start + 1); at > 0 && at + 1 < name.size();
         at = name.indexOf(beforePostfix, at + 1))
        all.append({ name, name.left(at), name.mid(at + 1) });
    return all;
}

QString metaNameOf(const QString& name)
{
    return name.chopped(nameOf(name).size()) + QLatin1String(".meta");
}

} // namespace

ProductTree::ProductTree(const TreeContents& contents, const std::optional<QString>& product)
    : m_contents(contents)
{
    findVariants(product);
    findSettings();
    if (product) {
        m_products = QStringList(*product);
        return;
    }
    m_products = m_postfixes.values();
    std::sort(m_products.begin(), m_products.end());
    m_products.prepend(QString());
}

const TreeDocument* ProductTree::metaOf(const QString& name) const
{
    const auto found = m_contents.documents.constFind(metaNameOf(name));
    return found == m_contents.documents.cend() ? nullptr : &*found;
}

std::optional<ProductTree::Setting> ProductTree::setting(const QString& name,
                                                         const QString& product) const
{
    // The worker looks for the empty postfix, too.
    const QString variant = name + beforePostfix + product;
    const auto file =
        m_contents.documents.constFind(m_contents.files.contains(variant) ? variant : name);
    if (file == m_contents.documents.cend())
        return std::nullopt;
    Setting setting;
    setting.file = &*file;
    setting.source = setting.file;
    const TreeDocument* const meta = metaOf(name);
    if (file->roles.isEmpty() && meta != nullptr)
        setting.source = meta;
    setting.roles = TuloRoles(TuloHash(setting.source->roles));
    const TuloValue value = TuloRoles(TuloHash(file->roles)).value();
    if (!value.__isEmpty())
        setting.roles.setDefaultValue(value);
    return setting;
}

bool ProductTree::resembles(const Variant& variant) const
{
    const auto plain = m_contents.documents.constFind(variant.plain);
    const auto other = m_contents.documents.constFind(variant.name);
    // One that cannot be understood is not known to be something else.
    if (plain == m_contents.documents.cend() || other == m_contents.documents.cend())
        return true;
    const TuloRoles one { TuloHash(plain->roles) };
    const TuloRoles two { TuloHash(other->roles) };
    if (!one.id().isEmpty() && one.id() == two.id())
        return true;
    const QString title = one.title().toString();
    const QString otherTitle = two.title().toString();
    if (!title.isEmpty() && !otherTitle.isEmpty())
        return title == otherTitle;
    return (one.id().isEmpty() || two.id().isEmpty()) && kindOfSetting(one) == kindOfSetting(two);
}

void ProductTree::findVariants(const std::optional<QString>& product)
{
    if (product && !product->isEmpty())
        m_postfixes.insert(*product);
    QVector<Variant> candidates;
    for (const QString& name : m_contents.files) {
        if (!isSettingFile(name))
            continue;
        const QVector<Variant> all = readings(name);
        std::copy_if(
            all.cbegin(), all.cend(), std::back_inserter(candidates),
            [this](const Variant& variant) { return m_contents.files.contains(variant.plain); });
    }
    for (const Variant& variant : candidates) {
        if (resembles(variant))
            m_postfixes.insert(variant.postfix);
    }
    QSet<QString> plains;
    for (const Variant& variant : candidates) {
        if (!m_postfixes.contains(variant.postfix)) {
            m_doubtful.append(variant);
            continue;
        }
        m_variants.insert(variant.name, variant);
        plains.insert(variant.plain);
    }
    // Without a plain file beside them. One that has variants itself is a setting.
    for (const QString& name : m_contents.files) {
        if (!isSettingFile(name) || m_variants.contains(name) || plains.contains(name))
            continue;
        for (const Variant& variant : readings(name)) {
            if (m_postfixes.contains(variant.postfix))
                m_variants.insert(name, variant);
        }
    }
}

void ProductTree::findSettings()
{
    QSet<QString> names;
    for (const QString& name : m_contents.files) {
        if (isSettingFile(name))
            names.insert(m_variants.contains(name) ? m_variants.value(name).plain : name);
    }
    m_settings = names.values();
    std::sort(m_settings.begin(), m_settings.end());
}

} // namespace tulo
