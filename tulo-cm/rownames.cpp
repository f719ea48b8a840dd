#include "tulo-cm/rownames.h"

namespace tulo {

void RowNames::setListed(const QString& directory, const QStringList& names, int version)
{
    m_directories.insert(directory, { names, version });
}

QString RowNames::take(const Event& event)
{
    if (event.kind == Event::Kind::Data)
        m_lastData = event.path;
    if (event.kind != Event::Kind::Rows)
        return QString();
    const auto directory = m_directories.find(event.path);
    if (directory != m_directories.end()) {
        // A version is left out where indexes do not tell what has changed.
        if (event.version == directory->version + 1)
            directory->version = event.version;
        else
            m_directories.erase(directory);
    }

    const bool isNew = event.command.startsWith(QLatin1Char('+'));
    const bool isGone = event.command.startsWith(QLatin1Char('-'));
    const int index = event.command.midRef(isNew || isGone ? 1 : 0).toInt();
    if (isGone)
        return removedRow(event.path, index);
    // The event of a row that is there follows that of its data.
    const QString start = event.path + QLatin1Char('/');
    const QString name = m_lastData.startsWith(start) ? m_lastData.mid(start.size()) : QString();
    if (name.isEmpty() || name.contains(QLatin1Char('/'))) {
        if (isNew)
            m_directories.remove(event.path);
        return QString();
    }
    if (isNew && isKnown(event.path))
        m_directories[event.path].names.insert(index, name);
    return m_lastData;
}

QString RowNames::removedRow(const QString& directory, int index)
{
    const auto known = m_directories.find(directory);
    if (known == m_directories.end() || index < 0 || index >= known->names.size())
        return QString();
    return directory + QLatin1Char('/') + known->names.takeAt(index);
}

} // namespace tulo
