#include "tests/support/temporarytree.h"
#include "tests/support/files.h"

#include "api/core/tulojson.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

namespace {

void makeDirectory(const QString& name)
{
    if (!QDir().mkpath(name))
        qFatal("cannot make the folder %s", qPrintable(name));
}

QByteArray asJson(const QVariantHash& roles)
{
    const QByteArray text = TuloJson::serialize(roles);
    if (text.isNull())
        qFatal("these roles cannot be written as JSON");
    return text;
}

QStringList entriesBelow(const QString& directory)
{
    QStringList entries;
    QDirIterator iterator(directory,
                          QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                          QDirIterator::Subdirectories);
    while (iterator.hasNext()) {
        QString entry = iterator.next().mid(directory.size());
        if (iterator.fileInfo().isDir() && !iterator.fileInfo().isSymLink())
            entry.append(QLatin1Char('/'));
        entries.append(entry);
    }
    entries.sort();
    return entries;
}

} // namespace

TemporaryTree::TemporaryTree()
    : m_path(QFileInfo(m_directory.path()).canonicalFilePath())
{
    if (!m_directory.isValid())
        qFatal("cannot make a temporary folder: %s", qPrintable(m_directory.errorString()));
    // As chmod 755.
    QFile::setPermissions(m_path, QFile::Permissions(0x7755));
    makeDirectory(defaultPath());
    makeDirectory(writePath());
}

QString TemporaryTree::path() const
{
    return m_path;
}

QString TemporaryTree::defaultPath() const
{
    return m_path + QLatin1String("/default");
}

QString TemporaryTree::writePath() const
{
    return m_path + QLatin1String("/write");
}

QVariantHash TemporaryTree::config() const
{
    return { { QStringLiteral("default_path"), defaultPath() },
             { QStringLiteral("write_path"), writePath() } };
}

void TemporaryTree::writeDefault(const QString& settingPath, const QByteArray& content) const
{
    writeFile(defaultPath() + settingPath, content);
}

void TemporaryTree::writeDefault(const QString& settingPath, const QVariantHash& roles) const
{
    writeDefault(settingPath, asJson(roles));
}

void TemporaryTree::writeWritten(const QString& settingPath, const QByteArray& content) const
{
    writeFile(writePath() + settingPath, content);
}

void TemporaryTree::writeWritten(const QString& settingPath, const QVariantHash& roles) const
{
    writeWritten(settingPath, asJson(roles));
}

void TemporaryTree::makeDefaultDirectory(const QString& settingPath) const
{
    makeDirectory(defaultPath() + settingPath);
}

void TemporaryTree::makeWriteDirectory(const QString& settingPath) const
{
    makeDirectory(writePath() + settingPath);
}

QByteArray TemporaryTree::readDefault(const QString& settingPath) const
{
    return readFile(defaultPath() + settingPath);
}

QByteArray TemporaryTree::readWritten(const QString& settingPath) const
{
    return readFile(writePath() + settingPath);
}

QVariantHash TemporaryTree::readWrittenRoles(const QString& settingPath) const
{
    TuloError error;
    return TuloJson::parse(readWritten(settingPath), error, nullptr).toHash();
}

QStringList TemporaryTree::defaultEntries() const
{
    return entriesBelow(defaultPath());
}

QStringList TemporaryTree::writtenEntries() const
{
    return entriesBelow(writePath());
}
