#pragma once

#include <tulo/settings.h>

#include "api/core/tuloroles.h"

#include <QString>
#include <QStringList>
#include <QVector>

namespace tulo {

/// Reads the two trees as the worker does, without a worker: the same listings, the same roles.
/// Paths are setting paths, "/audio/volume", "/" for the top; the caller has checked them.
///
/// Keeps nothing: each call reads the files again. Opens nothing but regular files of at most
/// 1 MiB, through links, writes nothing and takes no lock. Where the worker would end the process,
/// on a default file that is not JSON, it goes on as if that file were an empty object, and
/// defect() tells. Translates texts as the worker does. Encrypted values stay as they are in the
/// files.
///
/// No state beside the directories: may be used on several threads.
class TreeReader
{
public:
    /// An empty `writePath`: nothing is written. A null `productPostfix`: no product variant.
    TreeReader(const QString& defaultPath, const QString& writePath, const QString& productPostfix);

    /// The names that the listing of a directory shows, sorted as it does. Variants of other
    /// products are among them.
    QStringList children(const QString& path) const;
    bool isDirectory(const QString& path) const;
    /// Whether there is such a setting or directory.
    bool exists(const QString& path) const;
    /// All settings and directories at and below `path` that listings lead to, in their order, a
    /// directory before what is in it. One that is a link to a directory that it lies in is not
    /// entered.
    QStringList nodes(const QString& path) const;

    /// The roles of a setting or directory, also for a path at which there is none: those of the
    /// template then. They are complete, "path" included.
    TuloRoles roles(const QString& path) const;
    /// Where each role comes from: first the effective ones in the usual order, then what files
    /// have without effect. Values are plain ones, as get() answers them. For a setting that is
    /// encrypted, values that are not effective are left out.
    QVector<RoleOrigin> explain(const QString& path) const;
    /// What is wrong with a default file of this setting or directory that is there and gives no
    /// roles: its name, and why. Empty when nothing is.
    QString defect(const QString& path) const;

private:
    struct Source;
    struct Node;

    Node read(const QString& path) const;
    void readDirectory(const QString& path, Node* node) const;
    void readSetting(const QString& path, Node* node) const;
    QString defaultFile(const QString& path) const;
    QString writtenFile(const QString& path) const;
    void addNodes(const QString& path, const QVector<QByteArray>& around, QStringList* paths) const;
    QByteArray identity(const QString& path) const;

    const QString m_defaultPath;
    const QString m_writePath;
    const QString m_productPostfix;
};

} // namespace tulo
