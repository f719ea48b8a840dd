#pragma once

#include "trees/treecheck.h"

#include <QByteArray>
#include <QString>
#include <QVector>

#include <functional>
#include <optional>

namespace tulo {

/// Which findings are allowed, and why: a file beside a tree, as JSON has no comments and a tree
/// holds nothing but settings. A line is RULE GLOB REASON; "#" begins a comment line:
///
///     no-title  audio/raw-*  Shown as icons only.
///
/// The glob matches the file's name below the tree; "*" matches "/" as well. What stops the service
/// cannot be allowed.
class RuleExceptions
{
public:
    /// Nothing, and the reason with the file's name in `error`, when the file cannot be read or
    /// understood.
    static std::optional<RuleExceptions> read(const QString& fileName, QString* error);

    /// Removes from `findings` what is allowed, and returns how many these were.
    int apply(QVector<TreeFinding>* findings);
    /// A finding for each exception that matched nothing so far, of the rules that were checked.
    [[nodiscard]] QVector<TreeFinding> unused(const std::function<bool(RuleId)>& isChecked) const;

private:
    struct Exception
    {
        RuleId rule;
        QByteArray glob;
        int line;
        bool isUsed;
    };

    QString parseLine(const QString& text, int line);
    bool allow(const TreeFinding& finding);

    QString m_fileName;
    QVector<Exception> m_exceptions;
};

} // namespace tulo
