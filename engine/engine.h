#pragma once

#include "engine/dispatcher.h"
#include "engine/flusher.h"
#include "engine/guard.h"
#include "engine/router.h"
#include "engine/writetracker.h"
#include "trees/journal.h"
#include "trees/migrator.h"
#include "trees/ownerlock.h"

#include <tulo/settings.h>

#include "api/core/model/cmsubscribe.h"

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>
#include <QVector>

#include <memory>
#include <optional>

namespace tulo {

/// What Engine::open() needs to know.
struct EngineOptions
{
    enum class Access {
        Read, ///< changes are refused; takes no lock
        Own ///< owns the writable tree
    };

    QString pluginFile;
    // The two trees; both, or neither for the worker's built-in directories.
    QString defaultPath;
    QString writePath;
    QString productPostfix; ///< null: no product variant
    QString migrationsPath; ///< of rules; empty: "settings-migrations" beside the default tree
    QString language; ///< a locale such as "de"; empty: the source texts
    QStringList catalogues; ///< directories to look for the language's catalogues in
    Access access = Access::Read;
    // Of an owner; for LocalSettings, which says what is served meanwhile.
    bool waitsForTree = false; ///< at the start, while its file system cannot be written
    bool waitsForMount = false; ///< while the writable tree is missing or on the root file system
};

/// Why an engine could not be opened.
struct EngineFailure
{
    enum class Kind {
        None,
        Usage, ///< the directories are not two separate, existing ones
        NoPlugin, ///< the plug-in gives no worker
        NoAccess, ///< a directory cannot be read or written
        NotWritable, ///< the file system of the writable tree is read-only or has no room
        InUse ///< another process owns the writable tree
    };

    Kind kind = Kind::None;
    QString message; ///< one line
    qint64 holder = 0; ///< InUse: the owner's process id, 0 when not known
};

/// Hosts the settings worker: loads it, stands guard, owns the writable tree, and stops in
/// order.
///
/// Opening for changes goes in this order: the tree's lock, what is to be done to the tree before
/// it is read (see trees/treepreparation.h), the worker. When a change cannot be finished, because
/// the disk is full for example, settings can be read and changes are refused: the next opening
/// would write older values over them.
///
/// The worker falls back silently to the device's own directories when one that it was given
/// does not exist, so the engine checks both before, and again after the worker has chosen.
///
/// Lives on the thread that opens it, which becomes the worker's thread and runs an event loop
/// if changes are to be written without a flush. Needs a QCoreApplication. All of it is
/// for that thread alone.
class Engine
{
public:
    /// The directories that a worker without configuration uses.
    static QString builtInDefaultPath();
    static QString builtInWritePath();
    /// Has the texts of this process translated by the catalogues of a language in these
    /// directories, whose number it returns; not at all for an empty language.
    static int translate(const QString& language, const QStringList& directories);

    /// Null when it cannot be opened; `failure` says why.
    static std::unique_ptr<Engine> open(const EngineOptions& options, EngineFailure* failure);
    /// Stops.
    ~Engine();
    Q_DISABLE_COPY(Engine)

    /// All requests go through it. Valid as long as the engine; refuses after stop().
    Dispatcher& dispatcher();
    /// Valid until stop().
    Guard& guard();
    /// Where changes are announced until the worker is renewed: see addObserver(). It keeps every
    /// path that is subscribed to. Null after stop().
    CMSubscribe* registry() const;
    /// Hears everything that workers of this engine announce, until removeObserver(), which comes
    /// before stop().
    void addObserver(CMSubscriber* observer);
    void removeObserver(CMSubscriber* observer);
    const WriteTracker& writes() const;
    WriteTracker& writes();

    /// Gets everything accepted onto the disk: see Flusher. `done` is called once, on this
    /// thread, at the latest by stop().
    void flush(const Flusher::Done& done);

    /// What is to be reset, by path.
    struct Reset
    {
        QStringList settings; ///< to remove the written files of, sorted
        QStringList directories; ///< to remove if they are empty then, deepest first
        QHash<QString, QByteArray> records; ///< of migrations, as they are to be then
        bool isEverything = false; ///< the whole tree, with nothing kept
    };
    /// Has what is pending written, and finds which of `paths` and, in a recursive reset, of
    /// everything below them have written files. A recursive one of the whole tree reaches what
    /// migrations have put aside, too.
    Error planReset(const QStringList& paths, const ResetOptions& options, Reset* reset);
    /// Removes the written files, all or none, and drops caches. The worker never forgets a name
    /// that it listed, so it is renewed when one is gone. `reset` becomes what was removed, also
    /// when the error is that the rest could not be: nothing when nothing was.
    Error carryOut(Reset* reset);

    /// The paths of all files of the tree that is served that may be of settings, unordered; of the
    /// tree that is owned, also while its path leads somewhere else.
    QStringList filePaths() const;

    // Canonical.
    QString defaultPath() const;
    QString writePath() const;

    /// Tells whether changes are admitted.
    bool ownsTree() const;
    /// Why changes are refused, as it was seen last; empty when they are admitted.
    QString changeRefusal() const;
    /// Looks whether the writable tree is still there and its file system can be written, as is
    /// done before each change.
    void lookAtTree();
    /// Looks whether its file system has room, too. To be called when a write has failed: from then
    /// on changes are refused while it has none. Returns whether it has room again.
    bool lookForRoom();
    /// Whether it had none when it was last looked for.
    bool lacksRoom() const;
    /// Whether the path of the writable tree led somewhere else when it was last looked at.
    bool isTreeReplaced() const;
    /// The reason that changeRefusal() gives from now on; for an engine that only reads.
    void setReadOnlyReason(const QString& reason);
    /// Whether a change of several files has begun, which the next opening of the tree finishes.
    bool isUnfinished() const;
    /// A descriptor of the writable tree, as long as it is owned; otherwise -1.
    int treeDirectory() const;
    /// What was found and done when the tree was opened for changes, one line each, for the
    /// operator. Empty as a rule.
    QStringList notes() const;
    /// The process that owned the tree when the engine was opened for reading, 0 when it had not
    /// said its process id.
    std::optional<qint64> otherOwner() const;
    /// Catalogues found for the language; 0 when texts stay as they are.
    int catalogueCount() const;

    /// Ends at once, because the tree is no longer where its path leads: writes nothing, destroys
    /// the worker and gives the tree back. Returns what was accepted and is not confirmed to be on
    /// the disk. A language stays in use.
    [[nodiscard]] QVector<WriteTracker::Change> abandon();
    /// Ends in order: flushes if anything accepted may not be safely on disk, answers every
    /// flush() that waits, takes no more requests, destroys the worker, gives the tree back.
    /// Returns whether everything accepted is on disk. A later call changes nothing and returns
    /// the same.
    bool stop();

private:
    explicit Engine(const EngineOptions& options);

    bool chooseDirectories(EngineFailure* failure);
    bool takeTree(EngineFailure* failure);
    void prepareTree();
    MigrationPlace migrationPlace() const;
    void note(const MigrationResult& result);
    void refuseUntilFinished(const QString& reason);
    void end();
    bool createWorker(EngineFailure* failure);
    std::unique_ptr<CMWorker> newWorker(EngineFailure* failure) const;
    void replaceWorker(std::unique_ptr<CMWorker> successor);
    Error writeAccepted();
    JournalResult resetWithoutRoom();
    QStringList removeEmpty(const QStringList& directories) const;

    const EngineOptions m_options;
    QString m_defaultPath;
    QString m_writePath;
    OwnerLock m_lock;
    std::optional<qint64> m_otherOwner;
    QStringList m_notes;
    QString m_readOnlyReason; ///< why the tree admits no change; empty: as it was looked at
    bool m_isUnfinished = false; ///< a change of several files has begun
    QString m_noRoomReason; ///< since a write failed
    QString m_treeReason; ///< what was seen when the tree was last looked at
    bool m_isTreeReplaced = false;
    int m_catalogueCount = 0;

    // In the order of construction; each uses those before it.
    std::unique_ptr<WriteTracker> m_writes;
    Router m_router;
    std::unique_ptr<CMWorker> m_worker;
    QVector<CMSubscriber*> m_observers;
    std::unique_ptr<Guard> m_guard;
    std::unique_ptr<Dispatcher> m_dispatcher;
    std::unique_ptr<Flusher> m_flusher;
    bool m_isSaved = true; ///< after stop()
};

} // namespace tulo
