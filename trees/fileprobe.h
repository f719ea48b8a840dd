#pragma once

#include <QCache>
#include <QSet>
#include <QString>

namespace tulo {

/// Opens a node's files before the worker does, and tells what the worker could not: a file that
/// cannot be read at this moment counts as missing for the worker, or ends the process, and its
/// value would be lost with the next change. A file that is not a regular one, also behind a
/// link, could hold up the process for ever.
///
/// Remembers which of the last nodes it has seen to be sound, until forget(): so few that the
/// worker, whose cache of nodes is larger, reads none of them again meanwhile. The look and the
/// worker's own reading are two steps: it does not protect from changes of the trees at that very
/// moment.
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
    [[nodiscard]] QString inspect(const QString& settingPath);
    struct Seen
    {
        QString reason; ///< what is wrong with one of the files; empty when nothing is
        bool isDirectory = false; ///< in one of the trees; not known when something is wrong
    };
    /// The same, whatever was seen before.
    [[nodiscard]] Seen inspectAgain(const QString& settingPath);
    /// Looks whether a directory can be listed in both trees, unless it has.
    [[nodiscard]] QString inspectListing(const QString& settingPath);

    /// The worker's caches have been dropped.
    void forget();

private:
    const QString m_defaultPath;
    const QString m_writePath;
    const QString m_productPostfix;
    /// By setting path, the least recently used leaves first: whether it has files, all of them
    /// sound. One without a file counts, as it takes a place in the worker's cache as well.
    QCache<QString, bool> m_nodes;
    QSet<QString> m_soundListings; ///< the worker never forgets a listing
};

} // namespace tulo
