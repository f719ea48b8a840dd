#include "engine/guard.h"

#include "client/base/checks.h"
#include "trees/nodenames.h"
#include "trees/separator.h"
#include "trees/settingvalue.h"
#include "trees/writtenfiles.h"

#include "api/core/model/cmsubscribe.h"
#include "api/core/model/tulosettingsactions.h"
#include "api/core/tulo.h"
#include "api/core/tulojson.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cmath>

#include <sys/stat.h>

namespace tulo {

namespace {

CMError refusal(const QString& reason, const CMPath& path, ErrorCode kind = ErrorCode::Refused)
{
    return engineError(kind, reason.arg(shownPath(path.text())));
}

// A change to a path that names nothing, as for reading: most often it is mistyped.
CMError noSuchSetting(const char* reason, const CMPath& path)
{
    return engineError(ErrorCode::InvalidPath,
                       QStringLiteral("There is no setting '%1', and ").arg(shownPath(path.text()))
                           + QLatin1String(reason));
}

// The same for a limit: the path is %1, the limit %2.
CMError overLimit(const QString& reason, const CMPath& path, int limit)
{
    return engineError(ErrorCode::Limits,
                       reason.arg(shownPath(path.text()), QString::number(limit)));
}

bool isRefused(const CMError& error)
{
    return errorCode(error) != ErrorCode::None;
}

bool isAction(const CMPath& path)
{
    return path == TuloSettingsActionsFlush() || path == TuloSettingsActionsDropCache();
}

bool isInteger(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::Int:
    case QMetaType::Short:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::UShort:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        return true;
    default:
        return false;
    }
}

bool isFraction(const QVariant& value)
{
    return value.userType() == QMetaType::Double || value.userType() == QMetaType::Float;
}

bool isList(const QVariant& value)
{
    return value.userType() == QMetaType::QVariantList
        || value.userType() == QMetaType::QStringList;
}

bool fitsKind(const QString& kind, const QVariant& content)
{
    if (kind == TuloValue::Bool())
        return content.userType() == QMetaType::Bool;
    if (kind == TuloValue::Int())
        return isInteger(content);
    if (kind == TuloValue::Double())
        return isInteger(content) || isFraction(content);
    if (kind == TuloValue::String())
        return content.userType() == QMetaType::QString;
    return isList(content);
}

CMError checkText(const CMPath& path, const QString& text)
{
    if (!text.isValidUtf16())
        return refusal(QStringLiteral("A text for '%1' is not valid Unicode"), path);
    return CMError();
}

CMError tooDeep(const CMPath& path)
{
    return overLimit(QStringLiteral("A value for '%1' nests more than %2 deep"), path,
                     Guard::maximumDepth);
}

// What `check` finds wrong with the first key of `object` that it refuses. All are checked: a hash
// has them in another order in each process.
template<typename Object, typename Check>
CMError firstRefused(const Object& object, const Check& check)
{
    CMError first;
    QString firstKey;
    for (auto member = object.begin(); member != object.end(); ++member) {
        const CMError error = check(member.key(), *member);
        if (isRefused(error) && (!isRefused(first) || member.key() < firstKey)) {
            first = error;
            firstKey = member.key();
        }
    }
    return first;
}

// What JSON cannot hold, or not reliably. `depth` counts the lists and objects around `value`.
CMError checkJson(const CMPath& path, const QVariant& value, int depth = 0)
{
    const auto checkList = [&path, depth](const QVariantList& list) {
        if (depth == Guard::maximumDepth)
            return tooDeep(path);
        CMError error;
        for (auto entry = list.begin(); entry != list.end() && !isRefused(error); ++entry)
            error = checkJson(path, *entry, depth + 1);
        return error;
    };
    const auto checkObject = [&path, depth](const auto& object) {
        if (depth == Guard::maximumDepth)
            return tooDeep(path);
        return firstRefused(object, [&path, depth](const QString& key, const QVariant& member) {
            const CMError error = checkText(path, key);
            return isRefused(error) ? error : checkJson(path, member, depth + 1);
        });
    };

    if (!value.isValid() || value.userType() == QMetaType::Bool
        || value.userType() == QMetaType::Nullptr || isInteger(value))
        return CMError();
    if (isFraction(value)) {
        if (std::isfinite(value.toDouble()))
            return CMError();
        return refusal(QStringLiteral("A number for '%1' is not finite"), path);
    }
    if (value.userType() == QMetaType::QString || TrString::isIn(value) || CMPath::isIn(value))
        return checkText(path, value.toString());
    if (isList(value))
        return checkList(value.toList());
    if (value.userType() == QMetaType::QVariantHash)
        return checkObject(value.toHash());
    if (value.userType() == QMetaType::QVariantMap)
        return checkObject(value.toMap());
    return refusal(QStringLiteral("A value for '%1' holds something that JSON cannot hold"), path);
}

CMError checkRoles(const CMPath& path, int count)
{
    if (count <= Guard::maximumRoles)
        return CMError();
    return overLimit(QStringLiteral("A request for '%1' names more than %2 roles"), path,
                     Guard::maximumRoles);
}

CMError rejection(const CMPath& path, const QString& reason)
{
    return engineError(
        ErrorCode::Rejected,
        QStringLiteral("The value for '%1' was rejected: %2").arg(shownPath(path.text()), reason));
}

CMError checkSize(const CMPath& path, const QVariant& value)
{
    if (TuloJson::serialize(value).size() <= Guard::maximumValueBytes)
        return CMError();
    return overLimit(QStringLiteral("A value for '%1' takes more than %2 bytes"), path,
                     Guard::maximumValueBytes);
}

bool isChange(const QString& role)
{
    return role == TuloRoles::Value() || role == TuloRoles::SetRoles()
        || role == TuloRoles::ValueOperation();
}

} // namespace

Guard::Guard(CMWorker* worker, const QString& defaultPath, const QString& writePath,
             const QString& productPostfix)
    : m_worker(worker)
    , m_defaultPath(defaultPath)
    , m_writePath(writePath)
    , m_productPostfix(productPostfix)
    , m_files(defaultPath, writePath, productPostfix)
{
}

QString Guard::settingPathOf(const CMPath& path)
{
    const QString& base = path.base();
    return base.startsWith(separator) ? base : separator + base;
}

void Guard::setWorker(CMWorker* worker)
{
    m_worker = worker;
}

void Guard::setRefusal(const std::function<QString()>& refusal)
{
    m_refusal = refusal;
}

// ---------------------------------------------------------------------------------------------
// What is wrong with a request by itself. Touches neither disk nor worker.
// ---------------------------------------------------------------------------------------------

CMError Guard::checkValue(const CMPath& path, const QVariant& value)
{
    if (value.userType() != QMetaType::QVariantHash)
        return refusal(QStringLiteral("A value for '%1' is not an object"), path);
    const TuloValue record(value.toHash());
    if (record.isEmpty())
        return CMError();
    if (record.kind().isEmpty())
        return refusal(QStringLiteral("A value for '%1' does not have one known kind"), path);
    CMError error = checkJson(path, record.content());
    if (isRefused(error))
        return error;
    if (!fitsKind(record.kind(), record.content()))
        return refusal(QStringLiteral("A value for '%1' is not of the kind it names"), path);
    return CMError();
}

// ---------------------------------------------------------------------------------------------
// Requests in front of the trees.
// ---------------------------------------------------------------------------------------------

CMRequest Guard::admit(const CMRequest& request, CMError* error)
{
    const Error ofPath = checkPath(request.path().text());
    *error = ofPath ? engineError(ofPath.code, ofPath.message) : CMError();
    if (isRefused(*error))
        return CMRequest();

    switch (request.kind()) {
    case CMRequest::Kind::GetData:
        *error = checkRoles(request.path(), CMGetDataRequest(request).roles().size());
        if (!isRefused(*error))
            *error = checkFiles(request.path());
        break;
    case CMRequest::Kind::GetRows:
        *error = checkRows(CMGetRowsRequest(request));
        break;
    case CMRequest::Kind::SetData:
        return admitSetData(CMSetDataRequest(request), error);
    case CMRequest::Kind::Ping:
    case CMRequest::Kind::MatchRow:
        break;
    }
    if (isRefused(*error))
        return CMRequest();

    if (request.kind() != CMRequest::Kind::GetRows)
        return request;
    // In 64 bits: the first row may be the largest number that there is.
    const CMGetRowsRequest rows(request);
    const qint64 lastAllowed = qint64(rows.firstRow()) + maximumRows - 1;
    if (rows.lastRow() <= lastAllowed)
        return request;
    return CMGetRowsRequest(rows.path(), rows.firstRow(), qint32(lastAllowed), rows.roles(),
                            rows.reply());
}

CMError Guard::checkFiles(const CMPath& path)
{
    if (!isServed(path))
        return CMError();
    const QString reason = m_files.inspect(settingPathOf(path));
    return reason.isEmpty() ? CMError() : engineError(ErrorCode::Unavailable, reason);
}

CMError Guard::checkRows(const CMGetRowsRequest& request)
{
    const CMPath& path = request.path();
    if (request.firstRow() < 0 || request.lastRow() < 0)
        return refusal(QStringLiteral("A row index at '%1' is negative"), path);
    CMError error = checkRoles(path, request.roles().size() - addedRowRoles);
    if (isRefused(error))
        return error;
    // The worker would answer the same, and remember the directory for good.
    if (!isServed(path))
        return CMError();
    const QString settingPath = settingPathOf(path);
    if (!isDirectory(settingPath))
        return CMAbstractWorker::createErrorInvalidPath(path);
    // Neither would the worker ever forget that it could not list one.
    const QString reason = m_files.inspectListing(settingPath);
    if (!reason.isEmpty())
        return engineError(ErrorCode::Unavailable, reason);
    return checkFiles(path);
}

CMRequest Guard::admitSetData(const CMSetDataRequest& request, CMError* error)
{
    const CMPath& path = request.path();
    if (request.role() == TuloRoles::Activate()) {
        if (!isAction(path)) {
            *error = refusal(QStringLiteral("Path '%1' is not an action"), path);
            return CMRequest();
        }
        if (path == TuloSettingsActionsDropCache())
            m_files.forget();
        return request;
    }
    // The router and the worker have their own answers to these.
    if (!isServed(path) || !isChange(request.role()))
        return request;

    Target target;
    *error = checkTarget(path, &target);
    if (isRefused(*error))
        return CMRequest();
    Adjustment adjustment;
    return admitChange(target, request, error, &adjustment);
}

CMRequest Guard::admitChange(const Target& target, const CMSetDataRequest& request, CMError* error,
                             Adjustment* adjustment)
{
    *error = checkContent(request);
    if (isRefused(*error))
        return CMRequest();
    CMRequest admitted = admitContent(request, target.roles, error, adjustment);
    if (!isRefused(*error) && target.isNew)
        countCreated(settingPathOf(target.path));
    return admitted;
}

void Guard::retract(const Target& target)
{
    if (target.isNew)
        forgetCreated(settingPathOf(target.path));
}

CMError Guard::checkStoringAgain(const CMPath& path)
{
    return checkPlace(path, settingPathOf(path));
}

// The value that is to be stored, within the constraints.
CMRequest Guard::admitContent(const CMSetDataRequest& request, const TuloRoles& setting,
                              CMError* error, Adjustment* adjustment)
{
    const CMPath& path = request.path();
    const TuloHash sent(request.value().toHash());
    ValidatedValue validated;
    if (request.role() == TuloRoles::ValueOperation())
        validated = validateOperation(setting, TuloOperation(sent));
    else if (request.role() == TuloRoles::SetRoles())
        validated = validateChange(setting, TuloRoles(sent).value());
    else
        validated = validateChange(setting, TuloValue(sent));
    if (!validated.isAccepted) {
        *error = rejection(path, validated.reason);
        return CMRequest();
    }
    *error = checkSize(path, validated.value.__variant());
    if (isRefused(*error))
        return CMRequest();
    *adjustment = { validated.asked, validated.value, validated.reason };

    if (request.role() != TuloRoles::SetRoles()) {
        return CMSetDataRequest(path, TuloRoles::Value(), validated.value.__variant(),
                                request.reply());
    }
    TuloRoles roles(sent);
    if (!validated.value.isEmpty())
        roles.setValue(validated.value);
    return CMSetDataRequest(path, request.role(), roles.__variant(), request.reply());
}

CMError Guard::checkContent(const CMSetDataRequest& request)
{
    const CMPath& path = request.path();
    const QVariant& value = request.value();
    if (request.role() == TuloRoles::Value()) {
        CMError error = checkValue(path, value);
        return isRefused(error) ? error : checkSize(path, value);
    }

    if (value.userType() != QMetaType::QVariantHash)
        return refusal(QStringLiteral("A change to '%1' is not an object"), path);
    const QVariantHash entries = value.toHash();
    // Roles and operations both hold their value under this key.
    const QString& valueKey = TuloRoles::Value();
    const CMError error =
        firstRefused(entries, [&path, &valueKey](const QString& key, const QVariant& entry) {
            CMError bad = checkText(path, key);
            // The store's own, in whatever form it comes.
            if (!isRefused(bad) && key == TuloRoles::Path())
                bad = refusal(QStringLiteral("The role 'path' of '%1' cannot be set"), path);
            if (!isRefused(bad))
                bad = key == valueKey ? checkValue(path, entry) : checkJson(path, entry);
            return bad;
        });
    return isRefused(error) ? error : checkSize(path, value);
}

// ---------------------------------------------------------------------------------------------
// The trees: what a change may go to. The worker is asked for what it knows of a setting, so
// changes that were accepted and not yet written count; a directory comes into being on disk
// before anything can be accepted in it, or is known by its rows version.
// ---------------------------------------------------------------------------------------------

bool Guard::isServed(const CMPath& path) const
{
    const QString prefix = m_worker->prefixPath().text();
    const QString text = path.text().startsWith(separator) ? path.text() : separator + path.text();
    return text == prefix || text.startsWith(prefix + separator);
}

bool Guard::isDirectory(const QString& settingPath) const
{
    return QFileInfo(m_defaultPath + settingPath).isDir()
        || QFileInfo(m_writePath + settingPath).isDir() || hasRowsVersion(settingPath);
}

bool Guard::hasRowsVersion(const QString& settingPath) const
{
    return m_worker->subscribe()->rowsVersion(m_worker->addPrefix(settingPath)) > 0;
}

CMError Guard::checkTarget(const CMPath& path, Target* target)
{
    if (!isServed(path))
        return CMAbstractWorker::createErrorInvalidPath(path);
    const QString refused = m_refusal ? m_refusal() : QString();
    if (!refused.isEmpty())
        return engineError(ErrorCode::Unavailable, refused);
    const QString settingPath = settingPathOf(path);
    // The worker answers for the flush action as if it were a setting.
    const CMPath node = m_worker->addPrefix(settingPath);
    if (isAction(node))
        return refusal(QStringLiteral("Path '%1' is an action"), path);
    CMError error = checkPlace(path, settingPath);
    if (isRefused(error))
        return error;
    const std::optional<TuloRoles> roles = rolesOf(settingPath);
    target->path = path;
    target->isNew = !roles;
    if (!roles)
        return checkNewSetting(path, settingPath, &target->roles);
    if (!roles->modifiable())
        return refusal(QStringLiteral("Setting '%1' is not modifiable"), path,
                       ErrorCode::NotModifiable);
    target->roles = *roles;
    return CMError();
}

CMError Guard::checkReset(const CMPath& path, bool isRecursive)
{
    const Error ofPath = checkPath(path.text());
    if (ofPath)
        return engineError(ofPath.code, ofPath.message);
    if (!isServed(path))
        return CMAbstractWorker::createErrorInvalidPath(path);
    const QString refused = m_refusal ? m_refusal() : QString();
    if (!refused.isEmpty())
        return engineError(ErrorCode::Unavailable, refused);
    const QString settingPath = settingPathOf(path);
    if (isAction(m_worker->addPrefix(settingPath)))
        return refusal(QStringLiteral("Path '%1' is an action"), path);
    if (isRecursive && isDirectory(settingPath))
        return checkWritableTree(path, settingPath);
    if (isDirectory(settingPath)) {
        return refusal(QStringLiteral("Path '%1' is a directory; only a recursive reset goes to "
                                      "directories"),
                       path);
    }
    CMError error = checkPlace(path, settingPath);
    if (isRefused(error))
        return error;
    const std::optional<TuloRoles> roles = rolesOf(settingPath);
    if (!roles)
        return CMAbstractWorker::createErrorInvalidPath(path);
    const WrittenFiles files(m_defaultPath, m_writePath, m_productPostfix);
    // One that the image does not have takes the flag from its directory.
    if (!roles->modifiable() && !isRecursive && files.hasDefault(settingPath)) {
        return refusal(QStringLiteral("Setting '%1' is not modifiable; only a recursive reset "
                                      "discards what is stored for it"),
                       path, ErrorCode::NotModifiable);
    }
    return CMError();
}

// Whether the setting's files can be read and written, whatever the setting is.
CMError Guard::checkPlace(const CMPath& path, const QString& settingPath)
{
    const FileProbe::Seen seen = m_files.inspectAgain(settingPath);
    if (seen.isDirectory || hasRowsVersion(settingPath))
        return refusal(QStringLiteral("Path '%1' is a directory"), path);
    CMError error = checkWritableTree(path, settingPath);
    if (isRefused(error))
        return error;
    return seen.reason.isEmpty() ? CMError() : engineError(ErrorCode::Unavailable, seen.reason);
}

CMError Guard::checkNewSetting(const CMPath& path, const QString& settingPath, TuloRoles* setting)
{
    const QString parent = parentOf(settingPath);
    if (parent.isEmpty())
        return noSuchSetting("none can be created at the top", path);
    if (!isDirectory(parent)) {
        return rolesOf(parent) ? refusal(QStringLiteral("Path '%1' is below a setting"), path)
                               : noSuchSetting("no directory for it", path);
    }
    if (!QFileInfo(m_defaultPath + parent + QLatin1String("/.meta")).isFile()) {
        return noSuchSetting("none can be created: its directory has no template", path);
    }
    if (!isListable(nameOf(settingPath)))
        return refusal(QStringLiteral("No listing would show the setting '%1'"), path);
    // A new setting takes its roles from the directory's.
    const std::optional<TuloRoles> roles = rolesOf(parent);
    if (roles && !roles->modifiable()) {
        return noSuchSetting("none can be created: its template is not modifiable", path);
    }
    if (roles)
        *setting = *roles;
    return checkQuota(path, settingPath);
}

std::optional<TuloRoles> Guard::rolesOf(const QString& settingPath) const
{
    static const QStringList names { TuloRoles::Modifiable(),   TuloRoles::Value(),
                                     TuloRoles::DefaultValue(), TuloRoles::Edit(),
                                     TuloRoles::Encrypted(),    TuloRoles::Timestamp(),
                                     TuloRoles::Id(),           TuloRoles::Disabled() };
    const auto reply = CMGetDataRequest::Reply::create();
    m_worker->getDataRequest(CMGetDataRequest(m_worker->addPrefix(settingPath), names, reply));
    TULO_ASSERT(reply.isFinished());
    if (isRefused(reply.error()))
        return std::nullopt;
    TuloRoles roles;
    const QList<QVariant> answers = reply.value();
    for (int i = 0; i < names.size(); ++i) {
        const QVariant answer = answers.value(i);
        if (answer.isValid())
            roles.__setHashAttribute(names.at(i), answer);
    }
    return roles;
}

// ---------------------------------------------------------------------------------------------
// Settings made at run time: those that no default file describes.
// ---------------------------------------------------------------------------------------------

CMError Guard::checkQuota(const CMPath& path, const QString& settingPath)
{
    findCreated();
    const QSet<QString> names = m_created.value(parentOf(settingPath));
    if (names.contains(nameOf(settingPath)))
        return CMError();
    if (names.size() >= maximumCreatedInDirectory) {
        return overLimit(QStringLiteral("No setting '%1' can be created: its directory has %2 "
                                        "settings made at run time"),
                         path, maximumCreatedInDirectory);
    }
    if (m_createdCount >= maximumCreated) {
        return overLimit(QStringLiteral("No setting '%1' can be created: the tree has %2 settings "
                                        "made at run time"),
                         path, maximumCreated);
    }
    return CMError();
}

void Guard::countCreated(const QString& settingPath)
{
    QSet<QString>& names = m_created[parentOf(settingPath)];
    const int before = names.size();
    names.insert(nameOf(settingPath));
    m_createdCount += names.size() - before;
}

void Guard::forgetCreated(const QString& settingPath)
{
    const auto names = m_created.find(parentOf(settingPath));
    if (names != m_created.end() && names->remove(nameOf(settingPath)))
        --m_createdCount;
}

void Guard::findCreated()
{
    if (m_knowsCreated)
        return;
    m_knowsCreated = true;
    QDirIterator files(m_writePath, QDir::Files | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QString settingPath = files.next().mid(m_writePath.size());
        const QString name = nameOf(settingPath);
        const QString defaultFile = m_defaultPath + settingPath;
        if (!isListable(name) || QFileInfo::exists(defaultFile)
            || QFileInfo::exists(defaultFile + QLatin1Char('_') + m_productPostfix))
            continue;
        m_created[parentOf(settingPath)].insert(name);
        ++m_createdCount;
    }
}

QStringList Guard::listedNames(const CMPath& directory) const
{
    const QString settingPath = settingPathOf(directory);
    QSet<QString> names = m_created.value(settingPath);
    for (const QString& tree : { m_defaultPath, m_writePath }) {
        const QStringList entries =
            QDir(tree + settingPath).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
        for (const QString& entry : entries) {
            if (isListable(entry))
                names.insert(entry);
        }
    }
    QStringList sorted(names.cbegin(), names.cend());
    sorted.sort();
    return sorted;
}

CMError Guard::checkWritableTree(const CMPath& path, const QString& settingPath) const
{
    const auto kindOf = [](const QByteArray& fileName) {
        struct stat file = {};
        return ::lstat(fileName.constData(), &file) == 0 ? file.st_mode & S_IFMT : mode_t(0);
    };
    const auto checkKind = [&path](mode_t kind) {
        if (kind == S_IFLNK) {
            return refusal(
                QStringLiteral("A symbolic link in the writable tree is in the way of '%1'"), path);
        }
        if (kind != 0 && kind != S_IFDIR && kind != S_IFREG) {
            return refusal(QStringLiteral("'%1' is blocked by a special file in the writable tree"),
                           path);
        }
        return CMError();
    };

    QByteArray directory = QFile::encodeName(m_writePath);
    const QStringList parents = parentOf(settingPath).split(separator, Qt::SkipEmptyParts);
    for (const QString& name : parents) {
        directory += '/' + QFile::encodeName(name);
        const mode_t kind = kindOf(directory);
        if (kind == 0)
            return CMError();
        if (kind == S_IFREG)
            return refusal(QStringLiteral("Path '%1' is below a setting"), path);
        CMError error = checkKind(kind);
        if (isRefused(error))
            return error;
    }
    // The file, and the temporary file that the worker writes first.
    const QByteArray name = QFile::encodeName(nameOf(settingPath));
    CMError error = checkKind(kindOf(directory + '/' + name));
    if (isRefused(error))
        return error;
    struct stat temporary = {};
    if (::lstat((directory + "/." + name).constData(), &temporary) != 0)
        return CMError();
    // The worker writes into it, and so into the other file.
    if (S_ISREG(temporary.st_mode) && temporary.st_nlink > 1) {
        return refusal(
            QStringLiteral("The temporary file of '%1' is another file, too: a hard link"), path);
    }
    return checkKind(temporary.st_mode & S_IFMT);
}

} // namespace tulo
