#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

#include <sys/mount.h>

/// A file system that is soon full, in the place of a directory; for root.
class SmallDisk
{
public:
    explicit SmallDisk(const QString& directory)
        : m_directory(QFile::encodeName(directory))
        , m_isMounted(::mount("tmpfs", m_directory.constData(), "tmpfs", 0, "size=256k,mode=755")
                      == 0)
    {
    }
    ~SmallDisk()
    {
        if (m_isMounted)
            ::umount2(m_directory.constData(), MNT_DETACH);
    }
    Q_DISABLE_COPY(SmallDisk)

    bool isMounted() const { return m_isMounted; }
    bool fill() const
    {
        QFile file(filler());
        if (!file.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
            return false;
        const QByteArray page(4096, 'x');
        while (file.write(page) == page.size()) { }
        return file.error() == QFileDevice::ResourceError
            || file.error() == QFileDevice::WriteError;
    }
    bool makeRoom() const { return QFile::remove(filler()); }

private:
    QString filler() const { return QFile::decodeName(m_directory + "/filler"); }

    const QByteArray m_directory;
    const bool m_isMounted;
};
