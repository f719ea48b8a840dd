#pragma once

#include "trees/uniquefd.h"

#include <QString>
#include <QStringList>

namespace tulo {

/// The lines typed in this shell and those before it. They are kept in the file tulo-cm/history
/// below $XDG_STATE_HOME, by default ~/.local/state, which only its owner can read. Shells that
/// run at the same time keep the lines of all of them. Holds at most 1,000 lines and none twice.
class History
{
public:
    enum class Keep {
        Here, ///< until this shell ends
        InFile
    };

    /// Opens the file and reads it; creates it and its directory. Returns an empty text, or why
    /// nothing is kept in a file.
    [[nodiscard]] QString open();
    /// The latest one last.
    const QStringList& lines() const { return m_lines; }
    /// Returns an empty text, or why nothing is kept in the file from now on.
    [[nodiscard]] QString add(const QString& line, Keep keep);

private:
    UniqueFd m_file;
    QStringList m_lines;
};

} // namespace tulo
