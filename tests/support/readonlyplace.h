#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

#include <sys/mount.h>

/// Nothing in a directory can be changed while this lives; for root.
class ReadOnlyPlace
{
public:
    explicit ReadOnlyPlace(const QString& directory)
        : m_directory(QFile::encodeName(directory))
        , m_isMounted(
              ::mount(m_directory.constData(), m_directory.constData(), nullptr, MS_BIND, nullptr)
              == 0)
        , m_isReadOnly(::mount(nullptr, m_directory.constData(), nullptr,
                               MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr)
                       == 0)
    {
    }
    ~ReadOnlyPlace()
    {
        if (m_isMounted)
            ::umount2(m_directory.constData(), MNT_DETACH);
    }
    Q_DISABLE_COPY(ReadOnlyPlace)

    bool isReadOnly() const { return m_isMounted && m_isReadOnly; }

private:
    const QByteArray m_directory;
    const bool m_isMounted;
    const bool m_isReadOnly;
};
