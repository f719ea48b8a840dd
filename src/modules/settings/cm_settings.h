#pragma once

#include "api/core/model/cmreply.h"
#include "api/core/model/cmrequest.h"
#include "api/core/model/cmworker.h"
#include "api/core/trstring.h"
#include "api/core/tuloroles.h"

#include <QCache>
#include <QHash>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVariant>

/// Encrypts and decrypts the values of settings that are marked encrypted. The worker asks
/// encryptionEnabled() for a layer before every other call for it; while that is false, values
/// are handled in plain form and encrypted ones found on disk are left untouched.
///
/// Called on the worker's thread only. A product that needs encryption supplies its own.
class EncryptionHandler
{
public:
    /// The layer that a value belongs to.
    enum SettingType { DefaultSetting = 0, WrittenSetting = 1 };

    virtual ~EncryptionHandler() = default;

    virtual bool encryptionEnabled(SettingType type) const = 0;
    /// Returns the text to store instead of `value`. `path` is the name of the file that is
    /// written: the write directory followed by the setting path.
    virtual QString encryptValue(const TuloValue& value, SettingType type, const QString& path) = 0;
    /// Returns the plain value. `path` is the setting path, not a file name: a handler that
    /// derives keys from it allows for both forms.
    virtual TuloValue decryptValue(const QString& encrypted, SettingType type,
                                   const QString& path) = 0;
};

/// Switches encryption off for both layers.
class NoOpEncryptionHandler : public EncryptionHandler
{
public:
    bool encryptionEnabled(SettingType type) const override;
    QString encryptValue(const TuloValue& value, SettingType type, const QString& path) override;
    TuloValue decryptValue(const QString& encrypted, SettingType type,
                           const QString& path) override;
};

/// Serves a settings subtree from two layers of small JSON files: read-only defaults below,
/// changed values in a writable tree above.
///
/// A setting path ("/audio/volume") names a setting in both layers. Its file in a layer is the
/// layer's directory followed directly by the setting path.
///
/// Promises: every request's reply is finished exactly once; a change is visible to every later
/// read when its reply is finished, is announced before that, and is written atomically about
/// one second later. Does not promise that a change which was answered is on disk: a failed
/// write is logged, dropped and never reported, and destroying the worker discards what is
/// pending. Only the flush action, answered, says that everything writable has been written.
///
/// Lives on the thread that creates it; the timer and all slots run there. The host delivers
/// requests on that thread, too: the tables that are not under the mutex rely on it. The creator
/// owns the worker.
class CMSettingsWorker : public CMWorker
{
    Q_OBJECT

public:
    /// One entry of the value cache: the merged roles, and whether the setting is defined.
    struct CacheRecord
    {
        TuloRoles roles;
        bool exists = false;
    };

    /// One entry of the directory cache: the child names in ascending order, and whether the
    /// directory exists in a layer.
    struct DirCacheRecord
    {
        QStringList entries;
        bool exists = false;
    };

    /// Reads `default_path`, `write_path` and `product_postfix`. A directory that does not
    /// resolve to an existing path is ignored silently and the built-in one stays. Reads no
    /// file.
    explicit CMSettingsWorker(const QVariantHash& config);
    /// Discards pending writes. The encryption handler outlives the worker.
    ~CMSettingsWorker() override;

    void getDataRequest(const CMGetDataRequest& request) override;
    void getRowsRequest(const CMGetRowsRequest& request) override;
    void setDataRequest(const CMSetDataRequest& request) override;

signals:
    // Hand work to the worker's own thread: at once when emitted there, queued from any other.
    void privateScheduleWrite(const QString&, const TuloRoles&);
    void privateFlushInvoked(const CMSetDataRequest&);

private slots:
    // The slots take no lock, but the timer's and the flush's may run inside a set data request
    // that holds the mutex.

    /// Remembers `roles` as the next content of the file named `path` and starts the delay
    /// unless it is already running. A later call for the same file replaces the earlier one.
    void on_scheduleWrite(const QString& path, const TuloRoles& roles);
    /// Writes every pending entry and empties the table, whatever became of the writes.
    void on_writeTimer_timeout();
    /// Writes every pending entry at once, runs "sync" and answers the request, always with an
    /// invalid variant. Blocks the thread meanwhile, for up to 30 seconds of sync and
    /// one more when a kill does not end it.
    void on_flush_invoked(const CMSetDataRequest& request);
    /// Announces a data change for every subscribed data path of this worker. Caches keep their
    /// texts: these translate when they are asked.
    void on_languageChanged();
    // Remember under which path a client subscribed when that is not the corrected one.
    void on_subscribe_dataPathAdded(const CMPath& path);
    void on_subscribe_rowsPathAdded(const CMPath& path);
    void on_subscribe_valuePathAdded(const CMPath& path);

private:
    // Paths. `path` is a setting path.

    /// The setting path of a request path: its base, with a leading "/" added (and a warning
    /// logged) where the client left it out.
    static QString getRequestSettingPath(const CMPath& path);
    /// What stands before the last "/": "/a/b" gives "/a", "/a" the empty string, "a" null.
    QString parentPath(const QString& path);
    /// What stands after the last "/": "/a/b" gives "b", "/a/" the empty string, "a" itself.
    QString filePath(const QString& path);

    // The store. Caller holds the mutex, on the worker's thread.

    /// The content of the file named `fileName`: its pending roles if it has any, else the
    /// parsed file, invalid when there is none that may be read. A read that fails is tried again
    /// for 31 ms; one that still fails counts as a file that cannot be parsed: it is logged and
    /// ends the process if `strict`.
    QVariant loadFile(const QString& fileName, bool strict);
    /// The merged roles of a setting or directory, from the cache or both layers. `exists`, if
    /// not null, tells whether there is such a node; roles are returned even for one that does
    /// not exist. Fills the value cache.
    TuloRoles load(const QString& path, bool* exists);
    /// The default layer of a setting, or the template of its directory; `fileContent` receives
    /// the setting's own default file as read.
    TuloRoles loadDefaultRoles(const QString& path, QVariant* fileContent);
    /// Replaces a stored encrypted value and default value by what the handler makes of them.
    void decryptRoles(const QString& path, const TuloRoles& defaultRoles,
                      EncryptionHandler::SettingType type, TuloRoles* roles);
    /// The child names of a directory in both layers, sorted, from the cache or the disk.
    /// `exists`, if not null, tells whether there is such a directory.
    QStringList getDir(const QString& path, bool* exists);
    /// Adds a saved setting to its parent's cached listing and announces the row. Announces
    /// also when the row was there. One level up only; touches no file.
    void updateParentDir(const QString& path, const TuloRoles& roles);
    /// Texts of the settings of one directory share the context "@settings" + that directory.
    TrString translateString(const QString& path, const QString& text);
    /// Adds an entry to a path map when the client's base differs from the setting path.
    void rememberAlias(const CMPath& path, QHash<QString, QString>* aliases);

    // Changes.

    /// Accepts a change, or refuses it, and finishes `reply`: validates the value, updates the
    /// cache, schedules the write and announces, in this order. Caller holds the mutex.
    void saveValue(CMReply<QVariant> reply, const QString& path, const TuloRoles& roles);
    /// Writes `roles` into the file named `path` so that a reader or a power cut meets the old
    /// content or the new one whole. Costs one fsync. A failure is logged, leaves the old
    /// content and is not reported. Takes no lock.
    void writeFile(const QString& path, const TuloRoles& roles);

    // Held by the request operations while they read through the store.
    QMutex m_mutex;

    // Fixed after construction.
    QString m_defaultPath;
    QString m_writePath;

    // Under the mutex: setting path to merged roles.
    QCache<QString, CacheRecord> m_valueCache;
    // Worker thread only, without the mutex: file name to the roles to write into it.
    QHash<QString, TuloRoles> m_pendingWrites;
    // Under the mutex: setting path of a directory to its listing. Never shrinks.
    QHash<QString, DirCacheRecord> m_dirCache;

    // Fixed after construction. The timer is a child; the handler is never deleted.
    QTimer* m_writeTimer = nullptr;
    QString m_productPostfix;
    EncryptionHandler* m_encryptionHandler = nullptr;

    // Worker thread only, without the mutex: setting path to the base that a client subscribed
    // with, where that lacks the leading "/". Never shrink.
    QHash<QString, QString> m_valuePathMap;
    QHash<QString, QString> m_dataPathMap;
    QHash<QString, QString> m_rowsPathMap;
};
