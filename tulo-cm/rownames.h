#pragma once

#include <tulo/settings.h>

#include <QHash>
#include <QString>
#include <QStringList>

namespace tulo {

/// Knows the rows of directories by their names, from one listing of each and the events of a
/// watched tree since, so that a row that has gone can be named, too.
class RowNames
{
public:
    /// All names of a directory, as a listing has just answered: every event so far is in it.
    void setListed(const QString& directory, const QStringList& names, int version);
    /// Events may be missing.
    void forget() { m_directories.clear(); }

    /// Takes each event in turn. Returns the path of the row that a rows event is about; empty when
    /// it cannot be known.
    QString take(const Event& event);
    /// Tells whether the rows of the directory were listed and can still be followed.
    bool isKnown(const QString& directory) const { return m_directories.contains(directory); }
    QStringList names(const QString& directory) const
    {
        return m_directories.value(directory).names;
    }

private:
    struct Directory
    {
        QStringList names;
        int version = 0;
    };

    QString removedRow(const QString& directory, int index);

    QHash<QString, Directory> m_directories; ///< by path
    QString m_lastData; ///< path of the last data event, which the event of its row follows
};

} // namespace tulo
