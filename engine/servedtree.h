#pragma once

#include "engine/engine.h"
#include "engine/writetracker.h"
#include "trees/partition.h"

#include "api/core/model/cmsubscribe.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QTimer>
#include <QVector>

#include <atomic>
#include <memory>

namespace tulo {

/// A writable tree that may come late, go, or admit no change for a time, and the engine that
/// serves what is there of it.
///
/// The owner of a tree keeps an eye on it. While its file system is read-only, has no room (since a
/// write failed), or is not mounted, and when something else is found at the tree's path, changes
/// are refused with the reason, reading goes on, and what was accepted before is kept. The state is
/// looked at again every few seconds and when something is mounted. Then what was kept is stored,
/// in the tree that the path leads to now: it is opened anew if it is another one. While there is
/// no tree, an empty directory stands for it: the settings read as the default tree has them, and
/// nothing is written where the tree is missing. A tree that was on another file system than the
/// root directory is missing while it is not.
///
/// Owns the engine, one at a time, and what it accepted until that is confirmed. Lives on the
/// thread that opens it, which is the engine's and runs an event loop; all of it is for that thread
/// alone. What becomes of the tree is found out in the event loop, so between two requests.
class ServedTree : public QObject
{
    Q_OBJECT

public:
    /// How often a tree that admits no change is looked at.
    static constexpr int checkMs = 5000;

    /// Null when nothing can be served; `failure` says why.
    static std::unique_ptr<ServedTree> open(const EngineOptions& options, EngineFailure* failure);

    /// Lets `observer` hear what every engine announces, until stop(), which comes before its end.
    /// To be called once.
    void observe(CMSubscriber* observer);

    /// Another one after changed(). While nothing is served, the last one, which has ended.
    Engine& engine();
    const Engine& engine() const;
    /// Not when neither the tree nor a directory that stands for it could be opened.
    bool isServed() const;
    /// Canonical if it is there, otherwise as it was asked for.
    QString path() const;

    /// To be called after each request: what it met may be another state of the tree.
    void noticeRefusal();
    /// Looks at the tree, and opens what is there if it is not what is served.
    void check();

    // Of what was accepted, in the tree that is served and for one that is not there.
    bool hasUnwrittenChanges() const; ///< whether a flush has anything to do
    bool keepsChanges() const; ///< for a tree that is not there
    int pendingCount() const;
    int unsavedCount() const;
    QStringList unsavedPaths() const; ///< whose last write failed or was not confirmed, sorted
    QString lastWriteError() const; ///< empty when there was none
    // Of all trees that were served.
    qint64 writeCount() const;
    qint64 writeErrorCount() const;

    /// Stops the engine: see Engine::stop(). Returns whether everything accepted is on disk, a
    /// later call the same.
    bool stop();

signals:
    /// Another tree is served, or one as its owner. The settings that may read differently.
    void changed(const QStringList& paths);
    /// The engine's changeRefusal() reads differently.
    void refusalChanged();
    /// The unsaved changes or the last error may read differently. From the event loop.
    void unsavedChanged();

private:
    /// What is served.
    enum class Place {
        Owned, ///< the tree
        Read, ///< the tree, without a lock
        Substitute, ///< an empty directory
        Nothing
    };
    struct Opening
    {
        Place place = Place::Nothing;
        std::unique_ptr<Engine> engine; ///< null when nothing can be served, or what already is
        std::unique_ptr<QTemporaryDir> substitute;
        QString refusal; ///< why changes are refused; empty: they are not
        EngineFailure failure; ///< when nothing can be served, or the tree cannot be owned
    };

    ServedTree(const EngineOptions& options, Opening opening);
    static Opening openTree(const EngineOptions& options, Place present);
    static Opening openOwned(const EngineOptions& options);

    void use(Opening opening);
    void noteRefusal();
    void flushUnasked();
    void openAnew();

    EngineOptions m_options;
    Place m_place = Place::Nothing;
    DirectoryId m_readTree; ///< that is read without a lock
    std::unique_ptr<QTemporaryDir> m_substitute;
    std::unique_ptr<Engine> m_engine;
    CMSubscriber* m_observer = nullptr;
    QString m_refusal; ///< that was announced
    /// Accepted, and not confirmed to be in a tree that is not there; while it is not owned again.
    QVector<WriteTracker::Change> m_carried;
    // In trees that were served before.
    QString m_lastWriteError;
    qint64 m_writeCount = 0;
    qint64 m_writeErrorCount = 0;
    QTimer m_check;
    std::unique_ptr<MountWatch> m_mounts;
    std::atomic<int> m_unsavedRevision { 0 }; ///< that unsavedChanged() is emitted for
    bool m_isStopped = false;
};

} // namespace tulo
