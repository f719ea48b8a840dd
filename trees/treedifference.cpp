#include "trees/treedifference.h"

#include "trees/nodenames.h"
#include "trees/plainjson.h"
#include "trees/plainroles.h"
#include "trees/separator.h"
#include "trees/treereader.h"

#include "api/core/tuloroles.h"

#include <QHash>
#include <QMap>
#include <QSet>
#include <QStringList>

#include <algorithm>

namespace tulo {

namespace {

using Kind = TreeDifference::Kind;

struct ComparedNode
{
    bool isDirectory = false;
    bool isEncrypted = false;
    QString id; ///< of a variant's file with its postfix: it has the id of the plain one
    QVariantMap roles;
};

using ComparedNodes = QMap<QString, ComparedNode>;

// Equal in type, too.
bool isSame(const QVariant& left, const QVariant& right)
{
    return left.userType() == right.userType() && jsonOf(left) == jsonOf(right);
}

// What follows from the path, or from another role, is not compared.
QVariantMap comparedRoles(QVariantMap roles, const QString& path)
{
    roles.remove(TuloRoles::Path());
    if (roles.value(TuloRoles::Title()).toString() == nameOf(path))
        roles.remove(TuloRoles::Title());
    if (isSame(roles.value(TuloRoles::Value()), roles.value(TuloRoles::DefaultValue())))
        roles.remove(TuloRoles::Value());
    return roles;
}

bool isVariantFile(const QString& path, const QString& postfix, const QSet<QString>& paths)
{
    return !postfix.isEmpty() && path.endsWith(postfix)
        && paths.contains(path.chopped(postfix.size()));
}

// A variant of another product has the id of the plain file beside it.
QString variantId(const QString& path, const ComparedNodes& nodes)
{
    QString id = nodes.value(path).id;
    const QStringList plainPaths = plainPathsOf(path);
    for (const QString& plain : plainPaths) {
        if (nodes.value(plain).id == id)
            return id + path.mid(plain.size());
    }
    return id;
}

ComparedNodes nodesOf(const TreeReader& tree, const QString& product)
{
    const QStringList list = tree.nodes(QString(separator));
    const QSet<QString> paths(list.cbegin(), list.cend());
    const QString postfix = product.isEmpty() ? QString() : QLatin1Char('_') + product;
    ComparedNodes nodes;
    for (const QString& path : list) {
        if (isVariantFile(path, postfix, paths))
            continue;
        const TuloRoles roles = tree.roles(path);
        ComparedNode node;
        node.isDirectory = tree.isDirectory(path);
        node.isEncrypted = roles.encrypted();
        node.id = node.isDirectory ? QString() : roles.id();
        node.roles = comparedRoles(plainRoles(roles.__variant().toHash()), path);
        nodes.insert(path, node);
    }
    const ComparedNodes plain = nodes;
    for (auto node = nodes.begin(); node != nodes.end(); ++node) {
        if (!node->id.isEmpty())
            node->id = variantId(node.key(), plain);
    }
    return nodes;
}

/// Paths by id, of the nodes that the other tree does not have; without the ids that several have.
QHash<QString, QString> onlyHere(const ComparedNodes& here, const ComparedNodes& there)
{
    QHash<QString, QString> paths;
    QSet<QString> repeated;
    for (auto node = here.cbegin(); node != here.cend(); ++node) {
        if (node->id.isEmpty() || there.contains(node.key()))
            continue;
        if (paths.contains(node->id))
            repeated.insert(node->id);
        paths.insert(node->id, node.key());
    }
    for (const QString& id : qAsConst(repeated))
        paths.remove(id);
    return paths;
}

bool isSecret(const QString& role)
{
    return role == TuloRoles::Value() || role == TuloRoles::DefaultValue()
        || role == TuloRoles::EncryptedValue();
}

QVariant defaultOf(const ComparedNode& node)
{
    return node.isEncrypted ? QVariant() : node.roles.value(TuloRoles::DefaultValue());
}

/// Names of the roles of either, known ones in their usual order first.
QStringList rolesOf(const ComparedNode& older, const ComparedNode& newer)
{
    QStringList names;
    for (const QString& role : TuloRoles::keys()) {
        if (older.roles.contains(role) || newer.roles.contains(role))
            names.append(role);
    }
    const QStringList all = older.roles.keys() + newer.roles.keys();
    for (const QString& role : all) {
        if (!names.contains(role))
            names.append(role);
    }
    return names;
}

void addRoleChanges(const QString& path, const ComparedNode& older, const ComparedNode& newer,
                    QVector<TreeDifference>* differences)
{
    const bool isEncrypted = older.isEncrypted || newer.isEncrypted;
    const QStringList names = rolesOf(older, newer);
    for (const QString& role : names) {
        TreeDifference difference;
        difference.isDirectory = newer.isDirectory;
        difference.path = path;
        difference.role = role;
        difference.oldValue = older.roles.value(role);
        difference.newValue = newer.roles.value(role);
        if (isSame(difference.oldValue, difference.newValue))
            continue;
        if (isEncrypted && isSecret(role))
            difference.oldValue = difference.newValue = QVariant();
        differences->append(difference);
    }
}

} // namespace

QVector<TreeDifference> differencesOf(const TreeReader& older, const TreeReader& newer,
                                      const QString& product)
{
    const ComparedNodes before = nodesOf(older, product);
    const ComparedNodes after = nodesOf(newer, product);
    const QHash<QString, QString> removed = onlyHere(before, after);
    const QHash<QString, QString> added = onlyHere(after, before);

    QVector<TreeDifference> differences;
    for (auto node = before.cbegin(); node != before.cend(); ++node) {
        const bool hasMoved = removed.value(node->id) == node.key() && added.contains(node->id);
        if (!after.contains(node.key()) && !hasMoved)
            differences.append({ Kind::Removed, node->isDirectory, node.key(), QString(), QString(),
                                 defaultOf(*node), QVariant() });
    }
    for (auto node = after.cbegin(); node != after.cend(); ++node) {
        const bool isNew = !before.contains(node.key());
        const QString oldPath = !isNew            ? node.key()
            : added.value(node->id) == node.key() ? removed.value(node->id)
                                                  : QString();
        if (oldPath.isEmpty()) {
            differences.append({ Kind::Added, node->isDirectory, node.key(), QString(), QString(),
                                 QVariant(), defaultOf(*node) });
            continue;
        }
        if (isNew)
            differences.append(
                { Kind::Moved, false, node.key(), oldPath, QString(), QVariant(), QVariant() });
        addRoleChanges(node.key(), before.value(oldPath), *node, &differences);
    }
    // A directory's entries follow it, before what has a longer name.
    const auto key = [](const TreeDifference& difference) {
        return QString(difference.path).replace(separator, QChar(1));
    };
    std::stable_sort(differences.begin(), differences.end(),
                     [&key](const TreeDifference& left, const TreeDifference& right) {
                         return key(left) < key(right);
                     });
    return differences;
}

} // namespace tulo
