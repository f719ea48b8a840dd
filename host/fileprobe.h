#pragma once

#include <QSet>
#include <QString>

/// Opens a node's files before the worker does, and tells what the worker could not: a file that
/// cannot be read at this moment counts as missing for the worker, or ends the process, and its
/// value would be lost with the next change. A file that is not a regular one, also behind a
/// link, could hold up the process for ever.
///
/// Remembers what it has seen to be sound, until forget(); the worker's caches hold it from then
/// on. A name without a file is looked at each time and never remembered, so clients cannot make
/// it grow. The look and the worker's own reading are two steps: it does not protect from
/// somebody who changes the trees at that very moment.
///
/// Worker thread only.
class FileProbe
{
public:
    static constexpr int maximumFileBytes = 1024 * 1024;

    /// A null postfix: no product variants.
    FileProbe(const QString& defaultPath, const QString& writePath, const QString& productPostfix);

    /// Looks at the files of the setting or directory `settingPath` unless it has; returns what
    /// is wrong with one of them in one line, empty when nothing is.
    QString inspect(const QString& settingPath);
    /// The same, whatever was seen before.
    QString inspectAgain(const QString& settingPath);
    /// Looks whether a directory can be listed in both trees, unless it has.
    QString inspectListing(const QString& settingPath);

    /// The worker's caches have been dropped.
    void forget();

private:
    const QString m_defaultPath;
    const QString m_writePath;
    const QString m_productPostfix;
    QSet<QString> m_soundNodes;
    QSet<QString> m_soundListings;
};
