#include "trees/writtenfiles.h"

#include "client/base/checks.h"
#include "trees/fileprobe.h"
#include "trees/nodenames.h"
#include "trees/separator.h"

#include "api/core/tulojson.h"
#include "api/core/tuloroles.h"

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QVariant>

#include <algorithm>

#include <sys/stat.h>

namespace tulo {

namespace {

// In front of a file name of the tree; "/" stands for the tree itself.
QString below(const QString& tree, const QString& settingPath)
{
    return settingPath == separator ? tree : tree + settingPath;
}

bool hasServedPath(const QString& settingPath)
{
    return !checkPath(QStringLiteral("/settings") + settingPath);
}

// Whether a file holds what the worker writes for a setting.
bool holdsRoles(const QString& fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly) || file.size() > FileProbe::maximumFileBytes)
        return false;
    TuloError error { QVariantHash() };
    const QVariant content = TuloJson::parse(file.readAll(), error, nullptr);
    if (!error.isEmpty() || content.userType() != QMetaType::QVariantHash)
        return false;
    const QStringList names = content.toHash().keys();
    const QStringList known = TuloRoles::keys();
    return !names.isEmpty()
        && std::all_of(names.cbegin(), names.cend(),
                       [&known](const QString& name) { return known.contains(name); });
}

} // namespace

QByteArray writtenContent(const TuloRoles& roles)
{
    return TuloJson::serialize(roles.__variant());
}

WrittenFiles::WrittenFiles(const QString& defaultPath, const QString& writePath,
                           const QString& productPostfix)
    : m_defaultPath(defaultPath)
    , m_writePath(writePath)
    , m_productPostfix(productPostfix)
{
}

bool WrittenFiles::hasDefault(const QString& settingPath) const
{
    const QString fileName = m_defaultPath + settingPath;
    // A null postfix leaves the underscore, with the worker as well.
    return QFileInfo(fileName + QLatin1Char('_') + m_productPostfix).isFile()
        || QFileInfo(fileName).isFile();
}

// Whether it is a directory of the writable tree that is reached through no link.
bool WrittenFiles::isDirectoryHere(const QString& directory) const
{
    const QFileInfo file(below(m_writePath, directory));
    return file.isDir() && file.canonicalFilePath() == file.filePath();
}

// The file itself, however it is reached.
bool WrittenFiles::belongsToSetting(const QString& settingPath) const
{
    const QString fileName = m_writePath + settingPath;
    struct stat file = {};
    return ::lstat(QFile::encodeName(fileName).constData(), &file) == 0 && S_ISREG(file.st_mode)
        && (hasDefault(settingPath) || holdsRoles(fileName));
}

bool WrittenFiles::isWritten(const QString& settingPath) const
{
    return belongsToSetting(settingPath)
        && isDirectoryHere(settingPath.left(settingPath.lastIndexOf(separator)));
}

QStringList WrittenFiles::settingsBelow(const QString& directory) const
{
    QStringList settings;
    if (directory != separator && isWritten(directory))
        settings.append(directory);
    if (!isDirectoryHere(directory))
        return settings;
    // Follows no link.
    QDirIterator files(below(m_writePath, directory), QDir::Files | QDir::NoSymLinks,
                       QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QString settingPath = files.next().mid(m_writePath.size());
        if (hasServedPath(settingPath) && belongsToSetting(settingPath))
            settings.append(settingPath);
    }
    settings.sort();
    return settings;
}

bool WrittenFiles::isStrayDirectory(const QString& directory) const
{
    return directory != separator && !directory.isEmpty() && isListable(nameOf(directory))
        && isDirectoryHere(directory) && !QFileInfo(m_defaultPath + directory).isDir();
}

QStringList WrittenFiles::strayDirectoriesAbove(const QString& settingPath) const
{
    QStringList stray;
    QString directory = settingPath.left(settingPath.lastIndexOf(separator));
    while (isStrayDirectory(directory)) {
        stray.append(directory);
        directory.truncate(directory.lastIndexOf(separator));
    }
    return stray;
}

QStringList WrittenFiles::strayDirectoriesBelow(const QString& directory) const
{
    QStringList stray = strayDirectoriesAbove(directory);
    if (!isDirectoryHere(directory))
        return stray;
    if (isStrayDirectory(directory))
        stray.append(directory);
    QDirIterator directories(below(m_writePath, directory),
                             QDir::Dirs | QDir::NoSymLinks | QDir::NoDotAndDotDot,
                             QDirIterator::Subdirectories);
    while (directories.hasNext()) {
        const QString settingPath = directories.next().mid(m_writePath.size());
        if (isStrayDirectory(settingPath))
            stray.append(settingPath);
    }
    return stray;
}

} // namespace tulo
