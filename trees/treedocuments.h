#pragma once

#include "trees/treecheck.h"

#include <QHash>
#include <QMap>
#include <QSet>
#include <QString>
#include <QVariant>
#include <QVector>

namespace tulo {

/// A file of a tree that holds an object.
struct TreeDocument
{
    QString file; ///< with the tree's directory in front
    QString name; ///< below the tree, such as "audio/.meta"
    QVariantHash roles;
    /// Of roles and constraints, and of the object itself.
    QHash<QString, TextPosition> positions;

    /// The place of an entry or, when it has none, of the nearest one around it.
    TextPosition position(const QString& pointer) const;
};

/// What was found in one tree.
struct TreeContents
{
    QVector<TreeFinding> findings;
    QMap<QString, TreeDocument> documents; ///< by name below the tree
    QSet<QString> directories; ///< by name below the tree; "" is the tree
    QSet<QString> files; ///< settings and .meta files, also those without a document
    QHash<QString, QString> directoryNames; ///< file names of `directories`
};

/// The path of the setting or directory that the file `name` below a tree describes, as it stands:
/// that of a variant keeps its postfix.
QString settingPathOf(const QString& name);

/// The JSON pointer of the entry that tells the kind of a setting.
QString kindPointer(const TreeDocument& document);

/// A finding about `document` at the entry `pointer`.
TreeFinding findingIn(const TreeDocument& document, RuleId rule, const QString& pointer,
                      const QString& message);

/// Sorts as listings do: what a directory holds follows it. Removes what is there twice.
void sortFindings(QVector<TreeFinding>* findings);

/// Reads a default tree for the user who serves `writePath`, which may be empty, and finds what is
/// wrong in each file by itself.
[[nodiscard]] TreeContents readDefaultTree(const QString& defaultPath, const QString& writePath);
/// The same for a writable tree.
[[nodiscard]] TreeContents readWritableTree(const QString& writePath, const QString& defaultPath);

} // namespace tulo
