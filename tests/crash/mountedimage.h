#pragma once

#include "tests/support/childprocess.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>
#include <QStringList>

// File systems in files: a copy of the image, taken while one is mounted, is what a machine would
// find on its disk after a power cut. Mounting the copy replays the file system's journal as a
// start would.

namespace tulo {

/// An image file, mounted as long as the object lives; what a process has still open in it stays
/// usable until it is closed.
class MountedImage
{
public:
    /// `options` begin with a comma, or are empty.
    MountedImage(const QString& image, const QString& directory, const QString& options)
        : m_directory(directory)
    {
        QDir().mkpath(directory);
        const ChildResult mounted = ChildProcess::run(
            QStringLiteral("mount"),
            { QStringLiteral("-o"), QStringLiteral("loop") + options, image, directory });
        m_error = mounted.standardError;
        m_isMounted = mounted.exitCode == 0;
    }
    ~MountedImage()
    {
        if (m_isMounted)
            ChildProcess::run(QStringLiteral("umount"), { QStringLiteral("--lazy"), m_directory });
    }
    Q_DISABLE_COPY(MountedImage)

    bool isMounted() const { return m_isMounted; }
    QByteArray error() const { return m_error; }

private:
    const QString m_directory;
    QByteArray m_error;
    bool m_isMounted = false;
};

/// Makes an image of 8 MiB with an ext4 in it.
inline bool makeImage(const QString& image)
{
    QFile file(image);
    constexpr qint64 size = 8 << 20;
    return file.open(QIODevice::WriteOnly) && file.resize(size)
        && ChildProcess::run(QStringLiteral("mkfs.ext4"),
                             { QStringLiteral("-q"), QStringLiteral("-F"), QStringLiteral("-m"),
                               QStringLiteral("0"), image })
               .exitCode
        == 0;
}

/// What the disk holds at this moment; ends the program when it cannot be copied.
inline void copyImage(const QString& image, const QString& copy)
{
    QFile::remove(copy);
    if (ChildProcess::run(QStringLiteral("cp"), { QStringLiteral("--sparse=always"), image, copy })
            .exitCode
        != 0)
        qFatal("cannot copy the image");
}

} // namespace tulo
