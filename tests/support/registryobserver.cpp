#include "tests/support/registryobserver.h"

#include "api/core/tulo.h"

#include <QMutexLocker>

#include <sstream>

QString Announcement::text() const
{
    std::ostringstream stream;
    switch (kind) {
    case Kind::Value:
        stream << "value " << path << ' ' << value;
        break;
    case Kind::Data:
        stream << "data " << path;
        break;
    case Kind::Rows:
        stream << "rows " << path << ' ' << command << ' ' << version;
        break;
    }
    return QString::fromStdString(stream.str());
}

RegistryObserver::RegistryObserver(CMSubscribe* registry)
    : m_registry(registry)
{
}

RegistryObserver::~RegistryObserver()
{
    if (!m_registry.isNull())
        m_registry->unsubscribe(this);
}

void RegistryObserver::observe()
{
    m_registry->addObserver(this);
}

void RegistryObserver::subscribeValue(const QString& path)
{
    m_registry->subscribeValue(CMPath(path), this);
}

void RegistryObserver::subscribeData(const QString& path)
{
    m_registry->subscribeData(CMPath(path), this);
}

void RegistryObserver::subscribeRows(const QString& path)
{
    m_registry->subscribeRows(CMPath(path), this);
}

QList<Announcement> RegistryObserver::announcements() const
{
    const QMutexLocker locker(&m_mutex);
    return m_announcements;
}

QStringList RegistryObserver::texts() const
{
    QStringList texts;
    const QList<Announcement> all = announcements();
    for (const Announcement& announcement : all)
        texts.append(announcement.text());
    return texts;
}

QStringList RegistryObserver::take()
{
    const QStringList taken = texts();
    const QMutexLocker locker(&m_mutex);
    m_announcements.erase(m_announcements.begin(), m_announcements.begin() + taken.size());
    return taken;
}

void RegistryObserver::valueChanged(const CMPath& path, const QVariant& value)
{
    record({ Announcement::Kind::Value, path, value, {}, 0 });
}

void RegistryObserver::dataChanged(const CMPath& path)
{
    record({ Announcement::Kind::Data, path, {}, {}, 0 });
}

void RegistryObserver::rowsChanged(const CMPath& path, const QString& command, int version)
{
    record({ Announcement::Kind::Rows, path, {}, command, version });
}

void RegistryObserver::record(const Announcement& announcement)
{
    {
        const QMutexLocker locker(&m_mutex);
        m_announcements.append(announcement);
    }
    if (onAnnouncement)
        onAnnouncement(announcement);
}
