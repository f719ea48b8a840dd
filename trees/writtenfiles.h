#pragma once

#include "api/core/tuloroles.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace tulo {

/// What the worker writes to the file of a setting that has these roles.
QByteArray writtenContent(const TuloRoles& roles);

/// Tells which files of a writable tree hold settings. A tree may hold other files, which must not
/// be removed: hidden ones, links, special files, and content that no setting can have. Paths are
/// setting paths, "/audio/volume"; the directory at the top is "/".
///
/// Looks at the files each time it is asked.
class WrittenFiles
{
public:
    /// Canonical directories. A null postfix: no product variants.
    WrittenFiles(const QString& defaultPath, const QString& writePath,
                 const QString& productPostfix);

    /// Tells whether the default tree has a file for the setting, so that it exists without a
    /// written one.
    bool hasDefault(const QString& settingPath) const;
    /// Tells whether the writable tree has a file that belongs to this setting: a regular one which
    /// is reached through no link. Where the default tree has no file for the setting, this one has
    /// to hold roles and nothing else, as those that the worker writes do.
    bool isWritten(const QString& settingPath) const;

    /// The settings at and below a directory that are written, sorted.
    QStringList settingsBelow(const QString& directory) const;
    /// The directories at, above and below `directory` that listings show although the default tree
    /// does not have them.
    QStringList strayDirectoriesBelow(const QString& directory) const;
    /// Those that a setting is in.
    QStringList strayDirectoriesAbove(const QString& settingPath) const;

private:
    bool isStrayDirectory(const QString& directory) const;
    bool isDirectoryHere(const QString& directory) const;
    bool belongsToSetting(const QString& settingPath) const;

    const QString m_defaultPath;
    const QString m_writePath;
    const QString m_productPostfix;
};

} // namespace tulo
