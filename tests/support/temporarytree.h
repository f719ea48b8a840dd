#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QVariant>

/// A default tree and a writable tree of a test's own, in a fresh folder that is removed with
/// the object. Setting paths are those of the worker: "/audio/volume", "/audio/.meta".
///
/// Folders in between are made as needed; a file that cannot be made ends the test program.
/// Everybody may read the trees, so that a test can look at them as another user.
class TemporaryTree
{
public:
    TemporaryTree();

    /// The folder that holds both trees and whatever else a test puts beside them. Like the two
    /// below: absolute, canonical, without a trailing "/".
    QString path() const;
    QString defaultPath() const;
    QString writePath() const;
    /// {default_path, write_path}, what a worker on these trees is created with.
    QVariantHash config() const;

    // The file of a setting in either tree; roles are written as JSON.
    void writeDefault(const QString& settingPath, const QByteArray& content) const;
    void writeDefault(const QString& settingPath, const QVariantHash& roles) const;
    void writeWritten(const QString& settingPath, const QByteArray& content) const;
    void writeWritten(const QString& settingPath, const QVariantHash& roles) const;
    void makeDefaultDirectory(const QString& settingPath) const;
    void makeWriteDirectory(const QString& settingPath) const;

    /// The file's bytes; null when there is no such file.
    QByteArray readDefault(const QString& settingPath) const;
    QByteArray readWritten(const QString& settingPath) const;
    /// The written file's content as roles; empty when there is none or it does not parse.
    QVariantHash readWrittenRoles(const QString& settingPath) const;

    /// Every file, folder (with a trailing "/") and link below a tree, hidden ones included, by
    /// setting path in ascending order.
    QStringList defaultEntries() const;
    QStringList writtenEntries() const;

private:
    QTemporaryDir m_directory;
    QString m_path;
};
