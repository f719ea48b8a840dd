#pragma once

#include "engine/dispatcher.h"
#include "engine/engine.h"
#include "engine/servedtree.h"

#include <tulo/settings.h>

#include "api/core/model/cmsubscribe.h"

#include <QCache>
#include <QHash>
#include <QMap>
#include <QString>
#include <QVector>

#include <deque>
#include <functional>
#include <memory>
#include <optional>

class QEvent;

namespace tulo {

/// The settings of two directories, served by a worker in this process.
///
/// Lives on the thread that opens it, which becomes the worker's thread. Each request is carried
/// out in a separate turn of the event loop, so that timers, the worker's among them, have theirs
/// between two. A change is validated by the guard right before the worker makes it, against what
/// was read for that. What the worker announces is delivered after the worker has returned, before
/// the answer, so that a handler may do anything, also destroy the settings.
///
/// Opened for reading it takes no lock, and changes fail with Unavailable.
///
/// While the tree admits no change, changes fail with Unavailable and the reason: see ServedTree.
/// When it comes, goes or is replaced, everything in what was served before and in what is served
/// from then on is announced.
///
/// The worker keeps few settings loaded. As the owner of the tree, which hears of every change,
/// this keeps the small values of more, so that programs that read a thousand settings again cost
/// no thousand files. Like the worker's, they are read from files again after dropCache().
class LocalSettings : public Settings, private CMSubscriber
{
    Q_OBJECT

public:
    /// The most bytes of the changes of one setMany(), as JSON.
    static constexpr int maximumChangesBytes = 1024 * 1024;
    /// Values that are kept, about 250 bytes each; a text has at most so many characters.
    static constexpr int maximumKeptValues = 16384;
    static constexpr int maximumKeptCharacters = 100;

    /// Null when they cannot be opened; `failure` says why.
    static std::unique_ptr<LocalSettings> open(const EngineOptions& options,
                                               EngineFailure* failure);
    /// Stops.
    ~LocalSettings() override;

    State state() const override;

    Reply<QVariantMap> get(const QString& path, const QStringList& roles) override;
    Reply<QVector<Node>> getMany(const QStringList& paths, const QStringList& roles) override;
    Reply<Rows> rows(const QString& path, int first, int last, const QStringList& roles) override;
    Reply<QVector<RoleOrigin>> explain(const QString& path) override;
    Reply<Change> set(const QString& path, const QVariant& value,
                      const ChangeOptions& options = {}) override;
    Reply<Change> setRoles(const QString& path, const QVariantMap& roles,
                           const ChangeOptions& options = {}) override;
    Reply<Change> apply(const QString& path, const QString& verb, const QVariant& operand,
                        const ChangeOptions& options = {}) override;
    Reply<QVector<Change>> setMany(const QVector<Assignment>& assignments,
                                   const ChangeOptions& options = {}) override;
    Reply<QStringList> reset(const QStringList& paths, const ResetOptions& options = {}) override;
    Reply<int> flush() override;
    Reply<bool> dropCache() override;
    Reply<Status> status() override;
    Reply<QString> treeDigest() override;
    Reply<QVariantMap> statistics() override;
    Reply<QStringList> unsavedPaths(int maximum) override;

    /// Flushes if anything accepted may not be on disk, destroys the worker and gives the tree
    /// back. Requests that have not been carried out, and all later ones, fail with Unavailable.
    /// Returns whether everything accepted is on disk, a later call the same.
    bool stop();

    // Of the engine, also after stop().
    QString defaultPath() const; ///< canonical
    QString writePath() const; ///< canonical; while the tree is missing, what stands for it
    /// The process that owned the tree when it was opened for reading, 0 when it had not said its
    /// process id; none when nobody owned it.
    std::optional<qint64> otherOwner() const;
    /// Catalogues found for the language; 0 when texts stay as they are.
    int catalogueCount() const;
    QStringList notes() const; ///< see Engine::notes()
    int treeDirectory() const; ///< see Engine::treeDirectory()
    /// Why changes are refused, as it was seen last; empty when they are admitted.
    QString changeRefusal() const;
    /// What status() answers, at once.
    Status currentStatus() const;
    /// Whether a flush has anything to do.
    bool hasUnwrittenChanges() const;
    /// Settings whose last write failed or was not confirmed, all of them, sorted.
    QStringList notSavedPaths() const;
    /// The last failure to write or sync; empty when there was none.
    QString lastWriteError() const;
    /// To be called after log4cplus was configured again: the engine learns from the worker's
    /// records what was written.
    void followLog();

signals:
    /// The status' unsavedCount or lastWriteError may read differently. From the event loop.
    void unsavedChanged();
    /// changeRefusal() reads differently.
    void refusalChanged();
    /// Another tree is served, or one as its owner: paths and notes() may read differently.
    void openedAnew();

protected:
    void watchAdded(Watch* watch) override;
    void watchRemoved(Watch* watch) override;
    void customEvent(QEvent* event) override;

private:
    // A request that waits; with an error it fails instead of being carried out.
    using Request = std::function<void(const Error& error)>;
    struct Order;
    struct AdmittedChange;

    LocalSettings(std::unique_ptr<ServedTree> tree, const QString& productPostfix);

    template<typename T, typename Work>
    Reply<T> enqueue(Work work);
    template<typename T>
    void answer(const Promise<T>& promise, const Error& error, const T& value);
    void post();
    void deliverEvents();
    void append(const Event& event);

    Error read(const QString& path, const QStringList& roles, QVariantMap* values);
    bool readKept(const QString& path, const QStringList& roles, QVariantMap* values);
    void keep(const QString& path, const QStringList& roles, const QVariantMap& values);
    Error readRows(const QString& path, int first, int last, const QStringList& roles, Rows* rows);
    static Order rolesOrder(const QString& path, const QVariantMap& roles,
                            const ChangeOptions& options);
    static Order orderFor(const Assignment& assignment);
    Error explain(const QString& path, QVector<RoleOrigin>* origins);
    Reply<Change> change(const Order& order);
    static Error check(const Order& order, TuloRoles* roles);
    static QVariant contentFor(const Order& order, TuloRoles roles, const TuloRoles& setting,
                               Error* error);
    Error admit(const Order& order, AdmittedChange* admitted);
    Error admitAll(const QVector<Assignment>& assignments, QVector<AdmittedChange>* admitted);
    Error carryOut(const AdmittedChange& admitted, bool isDryRun, Change* change);

    Error carryOutReset(const QStringList& paths, const ResetOptions& options,
                        QStringList* settings);
    QStringList listedNames(const CMPath& directory);
    void announceReset(const Engine::Reset& reset, const QHash<QString, QVariantMap>& before,
                       const QMap<QString, QStringList>& namesBefore);
    bool announceDifference(const QString& path, const QVariantMap& before);

    void valueChanged(const CMPath& path, const QVariant& value) override;
    void dataChanged(const CMPath& path) override;
    void rowsChanged(const CMPath& path, const QString& command, int version) override;
    bool isEncrypted(const CMPath& path);
    void announceFiles(const QStringList& paths);

    /// Since the settings were opened.
    struct Counters
    {
        qint64 requests = 0;
        qint64 failed = 0; ///< of the requests
        qint64 changes = 0;
        qint64 resets = 0; ///< settings
        qint64 announcements = 0;
        qint64 flushes = 0;
    };

    const QString m_productPostfix;
    const std::unique_ptr<ServedTree> m_tree;
    std::deque<Request> m_requests;
    bool m_isPosted = false; ///< the event that carries the next request out
    std::deque<Event> m_events; ///< announced and not yet delivered
    QString m_treeDigest; ///< empty: not known yet
    QHash<QString, int> m_rowsVersions; ///< by path; those of a worker begin again with it
    QCache<QString, QVariant> m_keptValues { maximumKeptValues }; ///< by path
    const AdmittedChange* m_carriedOut = nullptr; ///< while the worker makes it
    Counters m_counters;
    bool m_isStopped = false;
    bool m_isDestroyed = false;
};

} // namespace tulo
