#include "cm_settings.h"

#include "cm_settings_log.h"

#include "api/core/language.h"
#include "api/core/model/cmedit.h"
#include "api/core/model/cmoperation.h"
#include "api/core/model/cmsubscribe.h"
#include "api/core/model/tulosettingsactions.h"
#include "api/core/tulo.h"
#include "api/core/tulojson.h"
#include "api/core/tuloprocesshandler.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>
#include <QSet>
#include <QStringBuilder>
#include <QThread>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <iterator>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

// ---------------------------------------------------------------------------------------------
// Module. The logger is all that exists before the first worker.
// ---------------------------------------------------------------------------------------------

namespace {

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("CMSettingsWorker"));

const QLatin1Char separator('/');
const QLatin1String metaFile("/.meta");
constexpr int cacheCapacity = 300;
constexpr int writeDelayMs = 1000;
constexpr int syncTimeoutMs = 30000;

// The error that this worker makes itself; `message` is final, nothing of it is translated.
CMError requestError(const QString& message)
{
    return CMError(QVariantHash { { CMError::Name(), QStringLiteral("Error") },
                                  { CMError::Message(), TrString(message) },
                                  { CMError::Title(), CMError::DefaultTitle() } });
}

struct FileContent
{
    bool isReadable = false; ///< there is such a file and this process may read it
    int error = 0; ///< of the call that failed, otherwise 0
    QByteArray text; ///< all of the file; empty after an error
};

// Adds what is left to read of a file. Returns 0, or the error that ended it.
int readToEnd(int file, QByteArray* bytes)
{
    std::array<char, 4096> block; // NOLINT: filled by read()
    for (;;) {
        const ssize_t count = ::read(file, block.data(), block.size());
        if (count > 0)
            bytes->append(block.data(), int(count));
        else if (count == 0)
            return 0;
        else if (errno != EINTR)
            return errno;
    }
}

// Not through QFile, which hides the error of a call and asks for the kind and the size of each
// of the small files that settings are.
FileContent readFile(const QString& fileName)
{
    FileContent content;
    content.isReadable = QFileInfo(fileName).isReadable();
    if (!content.isReadable) {
        content.error = errno; // of access(), the only call that this makes
        return content;
    }
    const int file = ::open(QFile::encodeName(fileName).constData(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        content.error = errno;
        // access() asks for the real user, open() for the effective one.
        content.isReadable = content.error != EACCES;
        return content;
    }
    content.error = readToEnd(file, &content.text);
    ::close(file);
    // A part of a file may parse and say something else.
    if (content.error != 0)
        content.text.clear();
    return content;
}

// Whether a call that failed with `error` may succeed a moment later. Not when the name leads to
// no file.
bool mayPass(int error)
{
    switch (error) {
    case 0:
    case EINVAL:
    case EISDIR:
    case ELOOP:
    case ENAMETOOLONG:
    case ENOENT:
    case ENOTDIR:
        return false;
    default:
        return true;
    }
}

// A moment's error must not stand in for what is on disk: what is read is remembered, and the next
// change of the setting would write it. So `attempt`, which returns the error of its last call or
// 0, is made again after pauses that double, 31 ms in all. They block the worker's thread and its
// clients, which is less than what the wrong value would cost them.
template<typename Attempt>
void tryPatiently(Attempt attempt)
{
    constexpr unsigned long lastPauseMs = 16;
    for (unsigned long pauseMs = 1; mayPass(attempt()) && pauseMs <= lastPauseMs; pauseMs *= 2)
        QThread::msleep(pauseMs);
}

FileContent readFilePatiently(const QString& fileName)
{
    FileContent content;
    tryPatiently([&] {
        content = readFile(fileName);
        return content.error;
    });
    return content;
}

// Whether there is something of that name of which `question` holds.
bool holdsPatiently(const QString& fileName, bool (QFileInfo::*question)() const)
{
    bool answer = false;
    tryPatiently([&] {
        errno = 0;
        answer = (QFileInfo(fileName).*question)();
        return answer ? 0 : errno;
    });
    return answer;
}

// Letters, marks, digits, "_" and "-": what "^[\w-_]*$" stands for in a QRegExp, whose matching
// costs a multiple.
bool isListedName(const QString& name)
{
    return std::all_of(name.cbegin(), name.cend(), [](QChar character) {
        return character.isLetterOrNumber() || character.isMark() || character == QLatin1Char('_')
            || character == QLatin1Char('-');
    });
}

// A copy would count the references of what the value holds; the list's own append() makes one.
void append(QList<QVariant>* list, QVariant value)
{
    list->append(QVariant());
    list->last().swap(value);
}

// The text of a reply's error, for the record that tells the operator the same.
QString messageText(const CMVoidReply& reply)
{
    const QVariant message = reply.error().__hashAttribute(CMError::Message());
    return message.value<TrString>().toString();
}

} // namespace

extern "C" Q_DECL_EXPORT CMWorker* worker_create(void*, const QVariantHash& config)
{
    return new CMSettingsWorker(config);
}

// ---------------------------------------------------------------------------------------------
// Construction. Chooses the two directories and wires the worker; reads no file.
// ---------------------------------------------------------------------------------------------

CMSettingsWorker::CMSettingsWorker(const QVariantHash& config)
    : CMWorker(config, QStringLiteral("CMSettingsWorker"))
    , m_mutex(QMutex::Recursive)
    // One with and one without a trailing slash: files are named by plain concatenation.
    , m_defaultPath(QStringLiteral("/etc/tulo/settings-default"))
    , m_writePath(QStringLiteral("/settings/"))
    , m_valueCache(cacheCapacity)
{
    static constexpr char signature[] = "CMSettingsWorker::CMSettingsWorker(const QVariantHash&)";
    if (logger.isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) {
        std::ostringstream entries;
        for (auto entry = config.cbegin(); entry != config.cend(); ++entry)
            entries << '(' << entry.key() << ", " << entry.value() << ')';
        CM_SETTINGS_ENTER("QHash(" << entries.str() << ')');
    }

    const auto configuredDirectory = [&config](const QString& key) {
        return config.contains(key) ? QFileInfo(config.value(key).toString()).canonicalFilePath()
                                    : QString();
    };
    const QString defaultPath = configuredDirectory(QStringLiteral("default_path"));
    if (!defaultPath.isEmpty()) {
        m_defaultPath = defaultPath;
        LOG4CPLUS_INFO(logger, "Using path " << m_defaultPath << " for default settings");
    }
    const QString writePath = configuredDirectory(QStringLiteral("write_path"));
    if (!writePath.isEmpty()) {
        m_writePath = writePath;
        LOG4CPLUS_INFO(logger, "Using path " << m_writePath << " for writable settings");
    }
    const QString postfixKey = QStringLiteral("product_postfix");
    if (config.contains(postfixKey))
        m_productPostfix = config.value(postfixKey).toString();

    checkedConnect(this, &CMSettingsWorker::privateScheduleWrite, this,
                   &CMSettingsWorker::on_scheduleWrite);
    checkedConnect(this, &CMSettingsWorker::privateFlushInvoked, this,
                   &CMSettingsWorker::on_flush_invoked);
    m_writeTimer = new QTimer(this);
    m_writeTimer->setInterval(writeDelayMs);
    m_writeTimer->setSingleShot(true);
    checkedConnect(m_writeTimer, &QTimer::timeout, this, &CMSettingsWorker::on_writeTimer_timeout);
    checkedConnect(Language::instance(), &Language::languageChanged, this,
                   &CMSettingsWorker::on_languageChanged);
    checkedConnect(subscribe(), &CMSubscribe::dataPathAdded, this,
                   &CMSettingsWorker::on_subscribe_dataPathAdded);
    checkedConnect(subscribe(), &CMSubscribe::rowsPathAdded, this,
                   &CMSettingsWorker::on_subscribe_rowsPathAdded);
    checkedConnect(subscribe(), &CMSubscribe::valuePathAdded, this,
                   &CMSettingsWorker::on_subscribe_valuePathAdded);

    m_encryptionHandler = new NoOpEncryptionHandler;
}

CMSettingsWorker::~CMSettingsWorker() = default;

// ---------------------------------------------------------------------------------------------
// Paths. No state; nothing but a missing leading "/" is ever repaired.
// ---------------------------------------------------------------------------------------------

QString CMSettingsWorker::getRequestSettingPath(const CMPath& path)
{
    static constexpr char signature[] =
        "static QString CMSettingsWorker::getRequestSettingPath(const CMPath&)";
    QString base = path.base();
    if (base.startsWith(separator))
        return base;
    LOG4CPLUS_WARN(logger,
                   "Wrong settings path detected: '"
                       << path << "' - please fix your code. Adding missing leading '/' for now.");
    return separator + base;
}

QString CMSettingsWorker::parentPath(const QString& path)
{
    const int last = path.lastIndexOf(separator);
    // left(-1) would return the whole path.
    return last < 0 ? QString() : path.left(last);
}

QString CMSettingsWorker::filePath(const QString& path)
{
    return path.mid(path.lastIndexOf(separator) + 1);
}

// ---------------------------------------------------------------------------------------------
// Get data. The mutex covers the load only.
// ---------------------------------------------------------------------------------------------

void CMSettingsWorker::getDataRequest(const CMGetDataRequest& request)
{
    static constexpr char signature[] =
        "virtual void CMSettingsWorker::getDataRequest(const CMGetDataRequest&)";
    CM_SETTINGS_ENTER(request.path());

    QList<QVariant> values;
    const QStringList& roleNames = request.roles();
    values.reserve(roleNames.size());

    if (request.path() == TuloSettingsActionsFlush()) {
        for (const QString& roleName : roleNames) {
            values.append(roleName == TuloRoles::Permission() ? QVariant(TuloPermission::Default_())
                                                              : QVariant());
        }
        request.reply().setValue(values);
        return;
    }

    const QString settingPath = getRequestSettingPath(request.path());
    if (settingPath.isEmpty()) {
        request.reply().setError(requestError(
            QStringLiteral("Invalid get data request path '%1'").arg(request.path().toEncoded())));
        return;
    }

    QMutexLocker locker(&m_mutex);
    bool exists = false;
    const TuloRoles roles = load(settingPath, &exists);
    locker.unlock();

    if (!exists) {
        request.reply().setError(createErrorInvalidPath(request.path()));
        return;
    }
    for (const QString& roleName : roleNames)
        append(&values, roles.__hashAttribute(roleName));
    request.reply().setValue(std::move(values));
}

// ---------------------------------------------------------------------------------------------
// Get rows. Holds the mutex until the rows version has been read: the row requests that come
// back to getDataRequest() lock it again on the same thread.
// ---------------------------------------------------------------------------------------------

void CMSettingsWorker::getRowsRequest(const CMGetRowsRequest& request)
{
    static constexpr char signature[] =
        "virtual void CMSettingsWorker::getRowsRequest(const CMGetRowsRequest&)";
    CM_SETTINGS_ENTER(request.path());

    QMutexLocker locker(&m_mutex);
    const QString settingPath = getRequestSettingPath(request.path());
    if (settingPath.isEmpty()) {
        request.reply().setError(requestError(
            QStringLiteral("Invalid get rows request path '%1'").arg(request.path().toEncoded())));
        return;
    }
    LOG4CPLUS_TRACE(logger, "path  : " << request.path());
    LOG4CPLUS_TRACE(logger, "roles : " << request.roles());
    LOG4CPLUS_TRACE(logger, "default path: " << m_defaultPath << settingPath);
    LOG4CPLUS_TRACE(logger, "write path  : " << m_writePath << settingPath);

    bool exists = false;
    const QStringList entries = getDir(settingPath, &exists);
    if (!exists) {
        request.reply().setError(createErrorInvalidPath(request.path()));
        return;
    }
    // A directory without roles of its own still lists its rows, so the flag is not asked again.
    const TuloRoles directoryRoles = load(settingPath, &exists);

    const QString rowPrefix = settingPath == separator ? settingPath : settingPath + separator;
    const QStringList& roleNames = request.roles();
    const int lastRow = std::min(request.lastRow(), entries.size() - 1);
    QList<QVariant> rows;
    for (int row = request.firstRow(); row <= lastRow; ++row) {
        TULO_ASSERT_TEXT(row >= 0, "index out of range");
        const CMPath rowPath = addPrefix(rowPrefix % entries.at(row));
        LOG4CPLUS_TRACE(logger, "row path: " << rowPath);
        const CMReply<QList<QVariant>> rowReply =
            getData(rowPath, roleNames, CMReply<QList<QVariant>>(new CMReplyData<QList<QVariant>>));
        TULO_ASSERT(rowReply.isFinished());
        const CMError error = rowReply.error();
        // Nearly always empty; asking for the name would cost as much as finding a role.
        if (!error.__isEmpty() && !error.__hashAttribute(CMError::Name()).toString().isEmpty()) {
            LOG4CPLUS_ERROR(logger, "Loaded path is invalid: " << rowPath);
            request.reply().setError(error);
            return;
        }
        rowReply.data()->waitForFinished(ULONG_MAX);
        const QList<QVariant> values = rowReply.value();
        LOG4CPLUS_TRACE(logger, "Data : " << values);
        append(&rows, values);
    }
    const int rowsVersion = subscribe()->rowsVersion(request.path());
    locker.unlock();

    TuloRowsRoles answer;
    answer.setRowsCount(entries.size());
    answer.setRows(rows);
    answer.setRowsVersion(rowsVersion);
    answer.setRoles(directoryRoles);
    request.reply().setValue(answer);
    LOG4CPLUS_TRACE(logger, "CMSettingsWorker::getRowsRequest " << answer);
}

// ---------------------------------------------------------------------------------------------
// Set data. Holds the mutex to the end, a flush included when the request arrives on the
// worker's own thread.
// ---------------------------------------------------------------------------------------------

void CMSettingsWorker::setDataRequest(const CMSetDataRequest& request)
{
    static constexpr char signature[] =
        "virtual void CMSettingsWorker::setDataRequest(const CMSetDataRequest&)";
    LOG4CPLUS_DEBUG(logger,
                    "Settings: setDataRequest path:" << request.path() << " role:" << request.role()
                                                     << " value:" << request.value());

    const QMutexLocker locker(&m_mutex);
    const QString& role = request.role();

    // An action is known by its path as it stands; a path that is none is not corrected first.
    if (role == TuloRoles::Activate()) {
        if (request.path() == TuloSettingsActionsFlush()) {
            emit privateFlushInvoked(request);
        } else if (request.path() == TuloSettingsActionsDropCache()) {
            LOG4CPLUS_INFO(logger, "Dropping settings cache");
            m_valueCache.clear();
            request.reply().setValue(QVariant());
        } else {
            request.reply().setError(requestError(
                QStringLiteral("Invalid activate path: '%1'").arg(request.path().toEncoded())));
        }
        return;
    }

    const QString settingPath = getRequestSettingPath(request.path());
    if (settingPath.isEmpty()) {
        request.reply().setError(requestError(
            QStringLiteral("Invalid set data request path: %1").arg(request.path().toEncoded())));
        return;
    }

    if (role == TuloRoles::SetRoles()) {
        saveValue(request.reply(), settingPath, TuloRoles(TuloHash(request.value().toHash())));
    } else if (role == TuloRoles::Value()) {
        TuloRoles roles;
        roles.setValue(TuloValue(TuloHash(request.value().toHash())));
        saveValue(request.reply(), settingPath, roles);
    } else if (role == TuloRoles::ValueOperation()) {
        const TuloRoles current = load(settingPath, nullptr);
        const TuloOperation operation(TuloHash(request.value().toHash()));
        TuloRoles roles;
        roles.setValue(CMOperation::apply(current.value(), current.edit(), operation));
        saveValue(request.reply(), settingPath, roles);
    } else {
        request.reply().setError(
            requestError(QStringLiteral("Invalid set data role: %1").arg(role)));
    }
}

// ---------------------------------------------------------------------------------------------
// The store: setting files, their merge into one roles record, and the value cache. Runs on the
// worker's thread, under the mutex.
// ---------------------------------------------------------------------------------------------

QVariant CMSettingsWorker::loadFile(const QString& fileName, bool strict)
{
    static constexpr char signature[] = "QVariant CMSettingsWorker::loadFile(const QString&, bool)";
    CM_SETTINGS_ENTER(fileName);

    const auto pending = m_pendingWrites.constFind(fileName);
    if (pending != m_pendingWrites.cend())
        return pending->__variant();

    const FileContent content = readFilePatiently(fileName);
    if (!content.isReadable)
        return QVariant();
    // What cannot be read, a directory among it, parses as the empty text: an error like any other.
    TuloError error { QVariantHash() };
    QVariant result = TuloJson::parse(content.text, error, nullptr);
    if (!error.isEmpty()) {
        LOG4CPLUS_ERROR(logger,
                        "Settings: Unable to parse '" << fileName << "': " << error.message());
        if (strict)
            TULO_ASSERT(false);
    }
    return result;
}

TuloRoles CMSettingsWorker::load(const QString& path, bool* exists)
{
    static constexpr char signature[] = "TuloRoles CMSettingsWorker::load(const QString&, bool*)";
    CM_SETTINGS_ENTER(path);
    TULO_ASSERT_TEXT(path.startsWith(separator), "path.startsWith(\"/\")");

    if (const CacheRecord* cached = m_valueCache.object(path)) {
        LOG4CPLUS_TRACE(logger, "Value already cached: " << cached->roles);
        if (exists != nullptr)
            *exists = cached->exists;
        return cached->roles;
    }

    CacheRecord record;
    TuloRoles& roles = record.roles;
    const QString writtenName = m_writePath + path;
    if (holdsPatiently(m_defaultPath + path, &QFileInfo::isDir)
        || holdsPatiently(writtenName, &QFileInfo::isDir)) {
        const QVariantHash meta = loadFile(m_defaultPath + path + metaFile, true).toHash();
        for (auto entry = meta.cbegin(); entry != meta.cend(); ++entry)
            roles.__setHashAttribute(entry.key(), entry.value());
        roles.setType(TuloRolesType::Directory);
        record.exists = true;
    } else {
        QVariant defaults;
        roles = loadDefaultRoles(path, &defaults);

        const TuloRoles written(TuloHash(loadFile(writtenName, false).toHash()));
        LOG4CPLUS_TRACE(logger, "Load all: " << path << " writeRoles: " << written);
        record.exists = !defaults.isNull() || !written.__isEmpty();

        // All else in a written file is ignored: flags always come from the defaults.
        EncryptionHandler::SettingType type = EncryptionHandler::DefaultSetting;
        if (!written.value().__isEmpty()) {
            roles.setValue(written.value());
            roles.__remove(TuloRoles::EncryptedValue());
        }
        if (!written.encryptedValue().isEmpty()) {
            roles.setEncryptedValue(written.encryptedValue());
            type = EncryptionHandler::WrittenSetting;
        }
        if (written.timestamp() != 0)
            roles.setTimestamp(written.timestamp());
        if (!written.id().isEmpty())
            roles.setId(written.id());

        decryptRoles(path, TuloRoles(TuloHash(defaults.toHash())), type, &roles);
        LOG4CPLUS_TRACE(logger, "Load all finished loading: item: " << roles);
    }

    if (!roles.__contains(TuloRoles::Title()))
        roles.setTitle(TrString(filePath(path)));
    roles.setPath(addPrefix(path));
    LOG4CPLUS_TRACE(logger, "Load finished: " << path << " item.value: " << roles.value());

    m_valueCache.insert(path, new CacheRecord(record), 1);
    if (exists != nullptr)
        *exists = record.exists;
    return roles;
}

TuloRoles CMSettingsWorker::loadDefaultRoles(const QString& path, QVariant* fileContent)
{
    // A step of load(), under whose name it logs.
    static constexpr char signature[] = "TuloRoles CMSettingsWorker::load(const QString&, bool*)";
    const QString productName = path + QLatin1Char('_') + m_productPostfix;
    const QString productFile = m_defaultPath + separator + productName;
    if (holdsPatiently(productFile, &QFileInfo::isFile)) {
        *fileContent = loadFile(productFile, true);
        LOG4CPLUS_TRACE(logger, "Load all: " << productName);
    } else {
        *fileContent = loadFile(m_defaultPath + separator + path, true);
        LOG4CPLUS_TRACE(logger, "Load all: " << path);
    }

    TuloRoles roles;
    const QVariantHash defaults = fileContent->toHash();
    for (auto entry = defaults.cbegin(); entry != defaults.cend(); ++entry)
        roles.__setHashAttribute(entry.key(), entry.value());
    if (roles.__isEmpty()) {
        const QString templateFile = m_defaultPath + parentPath(path) + metaFile;
        roles = TuloRoles(TuloHash(loadFile(templateFile, true).toHash()));
    }
    if (roles.type() == TuloRolesType::Unset)
        roles.setType(TuloRolesType::Setting);

    if (!roles.title().isEmpty())
        roles.setTitle(translateString(path, roles.title().toString()));
    if (!roles.description().isEmpty())
        roles.setDescription(translateString(path, roles.description().toString()));
    if (!roles.longDescription().isEmpty())
        roles.setLongDescription(translateString(path, roles.longDescription().toString()));
    if (!roles.valueUnit().isEmpty())
        roles.setValueUnit(translateString(path, roles.valueUnit().toString()));
    return roles;
}

void CMSettingsWorker::decryptRoles(const QString& path, const TuloRoles& defaultRoles,
                                    EncryptionHandler::SettingType type, TuloRoles* roles)
{
    const auto defaultType = EncryptionHandler::DefaultSetting;
    if (!defaultRoles.encryptedValue().isEmpty() && roles->encrypted()
        && m_encryptionHandler->encryptionEnabled(defaultType)) {
        roles->setDefaultValue(
            m_encryptionHandler->decryptValue(defaultRoles.encryptedValue(), defaultType, path));
    } else if (!defaultRoles.value().__isEmpty()) {
        roles->setDefaultValue(defaultRoles.value());
    }

    if (roles->encryptedValue().isEmpty() || !roles->encrypted()
        || !m_encryptionHandler->encryptionEnabled(type))
        return;
    TuloValue value = m_encryptionHandler->decryptValue(roles->encryptedValue(), type, path);
    if (type == EncryptionHandler::WrittenSetting && value.__isEmpty())
        value = roles->defaultValue();
    roles->setValue(value);
    roles->setEncryptedValue(QStringLiteral(""));
}

// ---------------------------------------------------------------------------------------------
// Encryption. This handler switches it off.
// ---------------------------------------------------------------------------------------------

bool NoOpEncryptionHandler::encryptionEnabled(SettingType) const
{
    return false;
}

QString NoOpEncryptionHandler::encryptValue(const TuloValue&, SettingType, const QString&)
{
    return QString();
}

TuloValue NoOpEncryptionHandler::decryptValue(const QString&, SettingType, const QString&)
{
    return TuloValue(QVariantHash());
}

// ---------------------------------------------------------------------------------------------
// Directories: the listing of both layers and the directory cache, which lives as long as the
// worker. Runs on the worker's thread, under the mutex.
// ---------------------------------------------------------------------------------------------

QStringList CMSettingsWorker::getDir(const QString& path, bool* exists)
{
    auto cached = m_dirCache.constFind(path);
    if (cached == m_dirCache.cend()) {
        const QDir defaultDirectory(m_defaultPath + separator + path);
        const QDir writeDirectory(m_writePath + separator + path);
        DirCacheRecord record;
        record.exists = defaultDirectory.exists() || writeDirectory.exists();

        // Without QDir::Hidden and QDir::System: no ".meta" and no broken links.
        const QDir::Filters filters =
            QDir::Dirs | QDir::Files | QDir::Readable | QDir::NoDotAndDotDot;
        const QStringList defaultNames = defaultDirectory.entryList(filters, QDir::NoSort);
        const QStringList writtenNames = writeDirectory.entryList(filters, QDir::NoSort);
        QSet<QString> names(defaultNames.cbegin(), defaultNames.cend());
        names.unite(QSet<QString>(writtenNames.cbegin(), writtenNames.cend()));

        std::copy_if(names.cbegin(), names.cend(), std::back_inserter(record.entries),
                     isListedName);
        record.entries.sort(Qt::CaseSensitive);
        cached = m_dirCache.insert(path, record);
    }
    if (exists != nullptr)
        *exists = cached->exists;
    return cached->entries;
}

void CMSettingsWorker::updateParentDir(const QString& path, const TuloRoles& roles)
{
    static constexpr char signature[] =
        "void CMSettingsWorker::updateParentDir(const QString&, const TuloRoles&)";
    CM_SETTINGS_ENTER("path:" << path << " roles:" << roles);

    const QString parent = parentPath(path);
    const CMPath parentNode = addPrefix(parent);
    const QString name = filePath(path);
    QStringList entries = getDir(parent, nullptr);

    const auto place = std::lower_bound(entries.cbegin(), entries.cend(), name);
    const int index = int(std::distance(entries.cbegin(), place));
    QString command = QString::number(index);
    // Only a new child may detach the list from the cached one: that copies all of it.
    if (place == entries.cend() || *place != name) {
        entries.insert(index, name);
        command.prepend(QLatin1Char('+'));
    }

    LOG4CPLUS_DEBUG(logger, "Rows Changed: " << parentNode << ' ' << index << " cmd: " << command);
    subscribe()->rowsChanged(parentNode, command, -1, -1);
    const auto alias = m_rowsPathMap.constFind(parent);
    if (alias != m_rowsPathMap.cend())
        subscribe()->rowsChanged(addPrefix(*alias), command, -1, -1);

    // After the announcements: a subscriber that lists the directory gets the old rows.
    m_dirCache.insert(parent, { entries, true });
}

// ---------------------------------------------------------------------------------------------
// Saving: the single place where a change is accepted. Runs under the mutex that setDataRequest()
// holds; subscribers and reply watchers are called on its thread.
// ---------------------------------------------------------------------------------------------

void CMSettingsWorker::saveValue(CMReply<QVariant> reply, const QString& path,
                                 const TuloRoles& roles)
{
    static constexpr char signature[] =
        "void CMSettingsWorker::saveValue(CMReply<QVariant>, const QString&, const TuloRoles&)";
    CM_SETTINGS_ENTER(path << ' ' << roles);
    TULO_ASSERT_TEXT(path.startsWith(separator), "path.startsWith(\"/\")");

    TuloRoles storedRoles = load(path, nullptr);
    const TuloRoles snapshot = storedRoles;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    TuloRoles newRoles = roles;

    if (!newRoles.path().isEmpty()) {
        reply.setError(createErrorInternal(QStringLiteral("Role path cannot be stored")));
        LOG4CPLUS_ERROR(logger, messageText(reply));
        return;
    }
    if (!snapshot.modifiable()) {
        reply.setError(createErrorInternal(QStringLiteral("Setting is not modifiable; path:")
                                           + snapshot.path().toEncoded()));
        LOG4CPLUS_FATAL(logger, "==Report== " << messageText(reply));
        return;
    }

    if (newRoles.timestamp() == 0)
        newRoles.setTimestamp(now);
    newRoles.setValue(CMEdit::validate(storedRoles.value(), newRoles.value(), storedRoles.edit(),
                                       addPrefix(path)));

    if (!newRoles.value().__isEmpty())
        storedRoles.setValue(newRoles.value());
    if (newRoles.timestamp() != 0)
        storedRoles.setTimestamp(newRoles.timestamp());
    if (!newRoles.id().isEmpty())
        storedRoles.setId(newRoles.id());
    if (newRoles.__contains(TuloRoles::Disabled()))
        storedRoles.setDisabled(newRoles.disabled());

    m_valueCache.insert(path, new CacheRecord { storedRoles, true }, 1);

    // The new roles become what is written and answered.
    if (!storedRoles.value().__isEmpty())
        newRoles.setValue(storedRoles.value());
    if (storedRoles.timestamp() != 0)
        newRoles.setTimestamp(storedRoles.timestamp());
    if (!storedRoles.id().isEmpty())
        newRoles.setId(storedRoles.id());
    // The client's own flag on purpose, not the stored one: file and answer hold what was sent
    // (false when nothing was), the cache keeps the stored flag.
    if (storedRoles.__contains(TuloRoles::Disabled()))
        newRoles.setDisabled(newRoles.disabled());
    if (storedRoles.encrypted())
        newRoles.setEncrypted(true);

    emit privateScheduleWrite(m_writePath + path, newRoles);

    const CMPath node = addPrefix(path);
    const QVariant value = newRoles.value().__variant();
    const bool valueChanged = storedRoles.value() != snapshot.value();
    if (valueChanged) {
        LOG4CPLUS_DEBUG(logger, "Value changed: " << node);
        subscribe()->valueChanged(node, value);
    }
    LOG4CPLUS_DEBUG(logger, "Data changed: " << node);
    subscribe()->dataChanged(node);

    const auto valueAlias = m_valuePathMap.constFind(path);
    if (valueChanged && valueAlias != m_valuePathMap.cend())
        subscribe()->valueChanged(addPrefix(*valueAlias), value);
    const auto dataAlias = m_dataPathMap.constFind(path);
    if (dataAlias != m_dataPathMap.cend())
        subscribe()->dataChanged(addPrefix(*dataAlias));

    updateParentDir(path, newRoles);
    reply.setValue(newRoles.__variant());
}

// ---------------------------------------------------------------------------------------------
// Writing. The pending-writes table and the timer belong to the worker's thread and take no
// lock; an entry leaves the table once it was tried, whatever became of it.
// ---------------------------------------------------------------------------------------------

void CMSettingsWorker::on_scheduleWrite(const QString& path, const TuloRoles& roles)
{
    static constexpr char signature[] =
        "void CMSettingsWorker::on_scheduleWrite(const QString&, const TuloRoles&)";
    CM_SETTINGS_ENTER(path << ' ' << roles);

    m_pendingWrites.insert(path, roles);
    // Never restarted: the first unwritten change waits one delay at most.
    if (!m_writeTimer->isActive())
        m_writeTimer->start();
}

void CMSettingsWorker::on_writeTimer_timeout()
{
    static constexpr char signature[] = "void CMSettingsWorker::on_writeTimer_timeout()";
    CM_SETTINGS_ENTER("");

    const QHash<QString, TuloRoles> pendingWrites = m_pendingWrites;
    for (auto entry = pendingWrites.cbegin(); entry != pendingWrites.cend(); ++entry)
        writeFile(entry.key(), entry.value());
    m_pendingWrites = QHash<QString, TuloRoles>();
}

void CMSettingsWorker::writeFile(const QString& path, const TuloRoles& roles)
{
    static constexpr char signature[] =
        "void CMSettingsWorker::writeFile(const QString&, const TuloRoles&)";
    CM_SETTINGS_ENTER(path << ' ' << roles);
    TuloRoles fileRoles = roles;

    const QFileInfo target(path);
    const QString directory = target.dir().path();
    if (!QDir(m_writePath).mkpath(directory)) {
        LOG4CPLUS_ERROR(logger,
                        "Settings: path '" << path << "' could not create parent directory");
        return;
    }

    // In the target's own directory, so the rename cannot cross file systems.
    QFile file(directory + QLatin1String("/.") + target.fileName());
    const auto fail = [&file](const auto&... reason) {
        if (logger.isEnabledFor(log4cplus::ERROR_LOG_LEVEL)) {
            std::ostringstream text;
            text << "Settings: path '" << file.fileName() << "' ";
            (text << ... << reason);
            LOG4CPLUS_ERROR(logger, text.str());
        }
        // remove() alone would fail in its own close() after a failed flush.
        file.close();
        file.remove();
    };

    if (!file.open(QIODevice::WriteOnly))
        return fail("open file failed");
    // Spelled "writeable" on purpose: the log text is an interface.
    if (!file.isWritable())
        return fail("file is not writeable");

    const auto writtenType = EncryptionHandler::WrittenSetting;
    if (fileRoles.encrypted() && m_encryptionHandler->encryptionEnabled(writtenType)) {
        LOG4CPLUS_TRACE(logger, "Value needs to be encrypted: " << fileRoles);
        const QString encrypted =
            m_encryptionHandler->encryptValue(fileRoles.value(), writtenType, path);
        fileRoles.__remove(TuloRoles::Encrypted());
        fileRoles.__remove(TuloRoles::Value());
        fileRoles.setEncryptedValue(encrypted);
    }

    const QByteArray bytes = TuloJson::serialize(fileRoles.__variant());
    if (bytes.isNull())
        return fail("could not serialize variant value");

    const char* next = bytes.constData();
    qint64 left = bytes.size();
    while (left > 0) {
        const qint64 written = file.write(next, left);
        if (written < 1)
            return fail("write to file failed");
        next += written;
        left -= written;
    }
    if (!file.flush())
        return fail("flush failed");
    if (::fsync(file.handle()) != 0)
        return fail("fsync failed");

    file.close();
    if (std::rename(file.fileName().toUtf8().constData(), path.toUtf8().constData()) != 0)
        return fail("rename to path '", path, "' failed");
    LOG4CPLUS_INFO(logger, "written file: " << path);
}

void CMSettingsWorker::on_flush_invoked(const CMSetDataRequest& request)
{
    static constexpr char signature[] =
        "void CMSettingsWorker::on_flush_invoked(const CMSetDataRequest&)";
    LOG4CPLUS_INFO(logger, "Flush action: write cached data");
    on_writeTimer_timeout();

    LOG4CPLUS_INFO(logger, "Flush action: sync");
    const auto sync =
        TuloProcessHandler::startSync(QStringLiteral("sync"), QStringList(), syncTimeoutMs);
    if (sync.returnCode != 0) {
        LOG4CPLUS_ERROR(logger,
                        "Sync failed with return code"
                            << sync.returnCode << ", output is: " << sync.output.toStdString());
    }
    request.reply().setValue(QVariant());
}

// ---------------------------------------------------------------------------------------------
// Texts and subscriptions. The slots run on the worker's thread without the mutex.
// ---------------------------------------------------------------------------------------------

TrString CMSettingsWorker::translateString(const QString& path, const QString& text)
{
    TULO_ASSERT_TEXT(path.startsWith(separator), "path.startsWith(\"/\")");
    QString context = QLatin1String("@settings") + path;
    const int last = context.lastIndexOf(separator);
    if (last > 0)
        context.truncate(last);
    const QByteArray contextBytes = context.toUtf8();
    const QByteArray textBytes = text.toUtf8();
    return TrString({ contextBytes.constData(), textBytes.constData(), nullptr, -1 }, {});
}

void CMSettingsWorker::on_languageChanged()
{
    const QList<CMPath> paths = subscribe()->dataPathsStartingWith(prefixPath());
    for (const CMPath& path : paths)
        subscribe()->dataChanged(path);
}

void CMSettingsWorker::on_subscribe_dataPathAdded(const CMPath& path)
{
    rememberAlias(path, &m_dataPathMap);
}

void CMSettingsWorker::on_subscribe_rowsPathAdded(const CMPath& path)
{
    rememberAlias(path, &m_rowsPathMap);
}

void CMSettingsWorker::on_subscribe_valuePathAdded(const CMPath& path)
{
    rememberAlias(path, &m_valuePathMap);
}

void CMSettingsWorker::rememberAlias(const CMPath& path, QHash<QString, QString>* aliases)
{
    const QString settingPath = getRequestSettingPath(path);
    const QString& base = path.base();
    if (base != settingPath)
        aliases->insert(settingPath, base);
}
