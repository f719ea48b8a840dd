#pragma once

#include "engine/errors.h"
#include "trees/fileprobe.h"

#include <tulo/settings.h>

#include "api/core/model/cmrequest.h"
#include "api/core/model/cmworker.h"

#include <QHash>
#include <QSet>
#include <QString>
#include <QVariant>

#include <functional>
#include <optional>

namespace tulo {

/// Stands in front of a settings worker and turns away what the worker must not be asked.
///
/// The worker passes paths to the file system as they come, remembers every directory it was
/// ever asked for, and ends the process on a negative row index. That is right for a part that
/// is driven by an engine, and wrong for the clients of that engine. So every request passes here
/// first, whichever way it came in, and gets one reason when it is refused.
///
/// Promises about whatever it admits:
/// - The path names a node inside the trees: no "..", nothing hidden (so no ".meta", no
///   temporary file, no lock), nothing that a file system could not hold. "%" is an ordinary
///   character; nothing is decoded.
/// - A change never goes through a symbolic link or to a special file in the writable tree.
///   Reading follows links as the file system does, in both trees: only who may write in a
///   tree can have put them there, no request makes one. The test and the use are two steps, so
///   it does not protect from changes of the trees at that very moment.
/// - A change goes to a setting that exists and is modifiable, or creates a listable name in a
///   directory that the default tree describes by a ".meta".
/// - It does not let clients grow the worker's caches: directories that do not exist are answered
///   here.
/// - The setting's files can be read at this moment (see FileProbe).
/// - A value is of the setting's kind and within its constraints: a number that was not is
///   adjusted here, any other value is rejected here, so that a rejected change reaches neither
///   worker nor subscribers. An operation arrives at the worker as the value that it makes.
/// - A tree gains so many new settings and no more.
///
/// Looks at what is on disk and, by asking the worker, what was accepted and is not yet written.
/// Worker thread only.
class Guard
{
public:
    /// How a value was changed to fit its setting.
    struct Adjustment
    {
        TuloValue asked;
        TuloValue stored;
        QString reason; ///< names the constraint and its limit; empty when nothing was adjusted
    };

    static constexpr int maximumRows = Settings::maximumRows; ///< answered by one request
    static constexpr int maximumRoles = 64; ///< named by one request
    static constexpr int addedRowRoles = 2; ///< that the dispatcher names beside those of a listing
    static constexpr int maximumDepth = 8; ///< of lists and objects inside a value
    static constexpr int maximumValueBytes = 48 * 1024; ///< of a value, as JSON
    static constexpr int maximumCreated = 10000; ///< settings without a default file in a tree
    static constexpr int maximumCreatedInDirectory = 1000;

    /// The path inside the trees; begins with "/".
    static QString settingPathOf(const CMPath& path);

    /// `worker` serves the directories `defaultPath` and `writePath`, with the product variants
    /// of `productPostfix` unless that is null, and outlives the guard.
    Guard(CMWorker* worker, const QString& defaultPath, const QString& writePath,
          const QString& productPostfix = QString());

    /// From now on it stands in front of this worker, which serves the same directories.
    void setWorker(CMWorker* worker);
    /// From now on each change is refused with the code Unavailable and the message that `refusal`
    /// returns for it, unless that is empty. The two actions stay admitted.
    void setRefusal(const std::function<QString()>& refusal);

    /// Returns the request to hand to the worker: `request` itself, or one that shares its reply
    /// and asks for fewer rows or changes to another value. Sets `error` and returns an empty
    /// handle when the request is refused; the reply is left to the caller.
    CMRequest admit(const CMRequest& request, CMError* error);

    /// A setting that a change may go to.
    struct Target
    {
        CMPath path;
        TuloRoles roles; ///< that tell which values it may have; of a new one its template's
        bool isNew = false; ///< it does not exist yet
    };

    /// What keeps any change to `path` from being made; an empty error, and `target`, when nothing
    /// does. Reads the setting once. admit() checks the target as well.
    CMError checkTarget(const CMPath& path, Target* target);
    /// The request to hand to the worker for a change to a target that was checked just now:
    /// `request`, or one that shares its reply and changes to another value, which `adjustment`
    /// then tells. Sets `error` and returns an empty handle when the change is rejected. A new
    /// setting counts as made from here on, unless retract() is called.
    CMRequest admitChange(const Target& target, const CMSetDataRequest& request, CMError* error,
                          Adjustment* adjustment);
    /// The admitted change to a new setting is not made.
    void retract(const Target& target);

    /// What keeps a setting, or with `isRecursive` a setting or directory, from being reset; an
    /// empty error when nothing does.
    CMError checkReset(const CMPath& path, bool isRecursive);
    /// A setting that was made at run time is gone.
    void forgetCreated(const QString& settingPath);

    /// What keeps the files of a setting or directory from being read; an empty error when
    /// nothing does.
    CMError checkFiles(const CMPath& path);

    /// What keeps a change that was admitted before from being stored again; an empty error when
    /// nothing does. Its value is not checked again.
    CMError checkStoringAgain(const CMPath& path);

    /// The names that listings of a directory show, sorted, as far as files and the settings
    /// made through this guard tell.
    QStringList listedNames(const CMPath& directory) const;

    /// Tells whether there is such a directory in a tree, or for an accepted change.
    bool isDirectory(const QString& settingPath) const;

private:
    CMError checkRows(const CMGetRowsRequest& request);
    CMRequest admitSetData(const CMSetDataRequest& request, CMError* error);
    static CMRequest admitContent(const CMSetDataRequest& request, const TuloRoles& setting,
                                  CMError* error, Adjustment* adjustment);
    static CMError checkValue(const CMPath& path, const QVariant& value);
    static CMError checkContent(const CMSetDataRequest& request);
    CMError checkPlace(const CMPath& path, const QString& settingPath);
    CMError checkNewSetting(const CMPath& path, const QString& settingPath, TuloRoles* setting);
    CMError checkWritableTree(const CMPath& path, const QString& settingPath) const;
    CMError checkQuota(const CMPath& path, const QString& settingPath);
    void countCreated(const QString& settingPath);
    void findCreated();

    /// Tells whether `path` is the worker's, in either form.
    bool isServed(const CMPath& path) const;
    bool hasRowsVersion(const QString& settingPath) const;
    /// What the worker knows of a setting or directory that tells what it may hold; nothing when
    /// the node does not exist.
    std::optional<TuloRoles> rolesOf(const QString& settingPath) const;

    CMWorker* m_worker;
    const QString m_defaultPath;
    const QString m_writePath;
    const QString m_productPostfix;
    FileProbe m_files;
    std::function<QString()> m_refusal;

    // Settings that only the writable tree holds: names by directory, in setting paths. Filled
    // when the first one is to be made.
    QHash<QString, QSet<QString>> m_created;
    int m_createdCount = 0;
    bool m_knowsCreated = false;
};

} // namespace tulo
