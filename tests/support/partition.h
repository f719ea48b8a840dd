#pragma once

#include "tests/support/files.h"

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QTemporaryDir>

#include <sys/mount.h>

/// A file system that appears at a directory and goes from there again, with what is in it; for
/// root.
class Partition
{
public:
    Partition()
        : m_isMade(::mount("tmpfs", place().constData(), "tmpfs", 0, "size=1m,mode=755") == 0)
    {
    }
    ~Partition()
    {
        while (disappear()) { }
        if (m_isMade)
            ::umount2(place().constData(), MNT_DETACH);
    }
    Q_DISABLE_COPY(Partition)

    /// Where it is always found, for the test alone.
    QString path() const { return m_place.path(); }
    bool isMade() const { return m_isMade; }
    void write(const QString& name, const QByteArray& content) const
    {
        writeFile(path() + name, content);
    }
    QByteArray read(const QString& name) const { return readFile(path() + name); }

    bool appearAt(const QString& directory)
    {
        m_directory = QFile::encodeName(directory);
        return ::mount(place().constData(), m_directory.constData(), nullptr, MS_BIND, nullptr)
            == 0;
    }
    /// Once it has appeared, and nothing is open for writing there.
    bool setReadOnly(bool isReadOnly) const
    {
        return ::mount(nullptr, m_directory.constData(), nullptr,
                       MS_BIND | MS_REMOUNT | (isReadOnly ? ulong(MS_RDONLY) : 0), nullptr)
            == 0;
    }
    /// Also while somebody has something open there.
    bool disappear() const
    {
        return !m_directory.isEmpty() && ::umount2(m_directory.constData(), MNT_DETACH) == 0;
    }

private:
    QByteArray place() const { return QFile::encodeName(m_place.path()); }

    const QTemporaryDir m_place;
    const bool m_isMade;
    QByteArray m_directory;
};
