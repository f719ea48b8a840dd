#pragma once

#include "trees/treedocuments.h"

#include "api/core/tuloroles.h"

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

namespace tulo {

/// A file of the default tree that takes the place of another one for a product.
struct Variant
{
    QString name; ///< below the tree, "audio/volume_sport"
    QString plain; ///< "audio/volume", which need not exist
    QString postfix; ///< "sport"
};

/// A default tree as its products see it. Refers to the contents, which have to outlive it.
///
/// Names do not tell which files are variants: "seat_heating" may be a setting beside "seat". A
/// postfix is taken for a product's when it is the given one, or when a file with it resembles the
/// plain file beside it: by its id, its title, or where these are missing by its kind.
class ProductTree
{
public:
    ProductTree(const TreeContents& contents, const std::optional<QString>& product);

    /// The products to look at; a null text is a device without one.
    const QStringList& products() const { return m_products; }
    /// Every file that is a variant, by name.
    const QMap<QString, Variant>& variants() const { return m_variants; }
    /// Files named like variants that do not resemble the plain file.
    const QVector<Variant>& doubtful() const { return m_doubtful; }
    /// The names of all settings: the plain ones, and those of which there are variants only.
    const QStringList& settings() const { return m_settings; }
    bool isProduct(const QString& postfix) const { return m_postfixes.contains(postfix); }

    /// A setting as one product sees it.
    struct Setting
    {
        const TreeDocument* file = nullptr; ///< the setting's
        const TreeDocument* source = nullptr; ///< that has the roles: the file, or a .meta
        TuloRoles roles; ///< with the default value
    };
    /// Nothing when the product has no such setting, or its file cannot be understood.
    std::optional<Setting> setting(const QString& name, const QString& product) const;
    /// The .meta of the directory that holds `name`; null when there is none.
    const TreeDocument* metaOf(const QString& name) const;

private:
    bool resembles(const Variant& variant) const;
    void findVariants(const std::optional<QString>& product);
    void findSettings();

    const TreeContents& m_contents;
    QStringList m_products;
    QSet<QString> m_postfixes;
    QMap<QString, Variant> m_variants;
    QVector<Variant> m_doubtful;
    QStringList m_settings;
};

} // namespace tulo
