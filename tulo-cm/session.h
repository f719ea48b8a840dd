#pragma once

#include "api/core/tulovalue.h"

#include <QHash>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <functional>

namespace tulo {

/// How the program ends; documented for scripts.
enum ExitCode : int {
    Done = 0,
    Failed = 1, ///< an error that has no code of its own
    Usage = 2,
    NoSuchPath = 3,
    Refused = 4, ///< not changed: refused or rejected
    Adjusted = 5, ///< stored, but not as it was asked for
    NotSaved = 6, ///< accepted, but not safely on disk
    Unavailable = 7, ///< no service, no plug-in, the tree has another owner, or not in this mode
    Findings = 8,
};

/// Why something was not done; without an exit code, nothing failed.
struct Failure
{
    int exitCode = Done;
    QString name; ///< for programs, such as "InvalidPath"
    QString message; ///< for people
    QString path; ///< what was asked for; empty when it was no path
    QString title = QStringLiteral("Error");

    explicit operator bool() const { return exitCode != Done; }
};

/// The failure of a flush, or of a change that should be on disk.
inline Failure notSaved(const QStringList& unsavedPaths, const QString& lastError)
{
    QString message = QStringLiteral("not on disk");
    if (!unsavedPaths.isEmpty())
        message += QStringLiteral(": ") + unsavedPaths.join(QStringLiteral(", "));
    if (!lastError.isEmpty())
        message += QStringLiteral(" (%1)").arg(lastError);
    return { NotSaved, QStringLiteral("NotSaved"), message, unsavedPaths.value(0) };
}

/// What an operation answers: a value unless it failed.
template<typename T>
struct Answer
{
    T value;
    Failure failure;
};

/// One row of a directory.
struct PageRow
{
    QString path;
    bool isDirectory = false;
    QVariantHash roles; ///< one entry for each role asked for, invalid where the row lacks it
    QString error {}; ///< why the row cannot be served, in place of its roles; empty when it can

    QString name() const { return path.section(QLatin1Char('/'), -1); }
};

/// The answer to a request for rows.
struct RowPage
{
    int count = 0; ///< of the whole directory
    int version = 0;
    QVariantHash roles; ///< the directory's own
    QVector<PageRow> rows;
};

/// The two trees as the file system names them.
struct TreeDirectories
{
    QString defaultPath;
    QString writePath;
};

/// A change that a session announces.
struct SessionEvent
{
    enum class Kind { Value, Data, Rows };

    Kind kind = Kind::Data;
    QString path;
    QVariantHash value; ///< of a value event, with its kind
    QString command; ///< of a rows event: the row's index, after "+" when it is new
    int rowsVersion = 0; ///< of a rows event
};

/// The settings as the commands see them, wherever they are: each command works on any session.
///
/// Every operation waits for its answer. Texts and paths in an answer are plain strings, values
/// are hashes that name their kind. Paths are full ones ("/settings/audio/volume").
class Session
{
public:
    virtual ~Session() = default;

    /// True when the settings are served by this process, so that they are gone with it.
    virtual bool isOwnProcess() const = 0;
    /// Where the trees are, for a process that may not find them there.
    virtual Answer<TreeDirectories> directories() = 0;

    /// One entry for each role asked for, invalid where the node lacks it.
    virtual Answer<QVariantHash> getData(const QString& path, const QStringList& roles) = 0;
    /// The rows with the indexes `first` to `last` (inclusive, at most 250); only the first of
    /// them when more do not fit in an answer.
    virtual Answer<RowPage> getRows(const QString& path, int first, int last,
                                    const QStringList& roles) = 0;

    // A change answers with the roles that were stored.
    virtual Answer<QVariantHash> setValue(const QString& path, const TuloValue& value) = 0;
    virtual Answer<QVariantHash> setRoles(const QString& path, const QVariantHash& roles) = 0;
    virtual Answer<QVariantHash> apply(const QString& path, const QString& verb,
                                       const TuloValue& operand) = 0;

    /// Writes every pending change; fails when one of them is not on disk.
    virtual Failure flush() = 0;
    virtual Failure dropCache() = 0;

    /// Waits until the changes made here are as safe as this session promises at its end;
    /// with `forDisk` until they are on disk in any case.
    virtual Failure settle(bool forDisk) = 0;

    /// Announces every change of the node itself and, for a directory, of its rows to the
    /// handler, once for each path.
    virtual Failure watch(const QString& path) = 0;
    virtual void unwatch(const QString& path) = 0;
    /// Called from any operation and from the event loop.
    void setEventHandler(std::function<void(const SessionEvent&)> handler)
    {
        m_eventHandler = std::move(handler);
    }

protected:
    void emitEvent(const SessionEvent& event) const
    {
        if (m_eventHandler)
            m_eventHandler(event);
    }

private:
    std::function<void(const SessionEvent&)> m_eventHandler;
};

} // namespace tulo
