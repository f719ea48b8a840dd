#include "trees/treecheck.h"

#include "client/base/checks.h"
#include "trees/documentcheck.h"
#include "trees/fileprobe.h"
#include "trees/nodenames.h"
#include "trees/separator.h"
#include "trees/treedocuments.h"
#include "trees/treelint.h"
#include "trees/treeowner.h"
#include "trees/treestamp.h"

#include "api/core/tulojson.h"
#include "api/core/tuloroles.h"
#include "api/core/tulovalue.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QVariant>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tulo {

namespace {

/// What a finding means for the service.
enum class Effect { None, StopsStart };

// Of what a path can name; the mount is its first component.
constexpr int maximumDepth = maximumLevels - 1;
constexpr char metaName[] = ".meta";

bool isRegular(const QByteArray& fileName)
{
    struct stat file = {};
    return ::stat(fileName.constData(), &file) == 0 && S_ISREG(file.st_mode);
}

// ---------------------------------------------------------------------------------------------
// The user for whom the trees have to be usable.
// ---------------------------------------------------------------------------------------------

class User
{
public:
    explicit User(const QString& writePath)
    {
        struct stat tree = {};
        if (m_id != 0 || ::stat(QFile::encodeName(writePath).constData(), &tree) != 0)
            return;
        m_id = tree.st_uid;
        m_group = tree.st_gid;
        m_isOther = m_id != 0;
    }

    /// Why the user may not; empty if they may. `wanted` is of R_OK, W_OK and X_OK.
    QString denial(const QByteArray& fileName, const struct stat& file, int wanted) const
    {
        if (m_isOther) {
            const int shift = file.st_uid == m_id ? 6 : file.st_gid == m_group ? 3 : 0;
            // The three constants are the bits of a mode.
            if ((int(file.st_mode >> shift) & wanted) == wanted)
                return QString();
        } else if (mayAccess(fileName, wanted)
                   // Of the whole file system, and may change.
                   || (errno == EROFS && mayAccess(fileName, wanted & ~W_OK))) {
            return QString();
        } else if (errno != EACCES) {
            return qt_error_string(errno);
        }
        const QString remedy = file.st_uid == m_id
            ? QStringLiteral("change its mode (chmod u+%1)").arg(modes(file, wanted))
            : QStringLiteral("change its owner (chown %1) or its mode").arg(userName(m_id));
        return QStringLiteral("user '%1' cannot %2 it; %3")
            .arg(userName(m_id), verbs(wanted), remedy);
    }

private:
    static bool mayAccess(const QByteArray& fileName, int wanted)
    {
        return ::faccessat(AT_FDCWD, fileName.constData(), wanted, AT_EACCESS) == 0;
    }

    static QString verbs(int wanted)
    {
        if ((wanted & W_OK) == 0)
            return QStringLiteral("read");
        return (wanted & R_OK) == 0 ? QStringLiteral("write") : QStringLiteral("read and write");
    }

    static QString modes(const struct stat& file, int wanted)
    {
        if (S_ISDIR(file.st_mode))
            return QStringLiteral("rwx");
        return wanted == W_OK ? QStringLiteral("w") : QStringLiteral("r");
    }

    uid_t m_id = ::geteuid();
    gid_t m_group = 0;
    bool m_isOther = false; ///< not this process's user, so modes have to tell
};

// ---------------------------------------------------------------------------------------------
// The walk, level by level, so that a directory with several names is visited where its own
// directories can be reached, too.
// ---------------------------------------------------------------------------------------------

struct Entry
{
    QByteArray name;
    QByteArray below; ///< its place below the tree, "audio/volume"
    QByteArray fileName;
    int depth = 0;
    std::size_t directory = 0; ///< that holds it
    bool isLink = false;
    bool isBehindLink = false; ///< is a link, or in a directory that is reached through one
    int error = 0; ///< of examining what a link leads to, or the file
    struct stat file = {}; ///< what a link leads to, if it leads somewhere

    bool isHidden() const { return name.startsWith('.'); }
    bool isMeta() const { return name == metaName; }
    bool isListed() const { return isListable(QFile::decodeName(name)); }
    bool isDirectory() const { return error == 0 && S_ISDIR(file.st_mode); }
    bool isSpecial() const
    {
        return error == 0 && !S_ISDIR(file.st_mode) && !S_ISREG(file.st_mode);
    }
};

/// How much is looked at.
enum class Extent {
    Start, ///< what the service has to know before it starts
    All ///< everything, for which the documents are kept
};

class Inspection
{
public:
    Inspection(const QString& root, User user, Extent extent)
        : m_root(QFile::encodeName(QDir::cleanPath(root)))
        , m_user(user)
        , m_extent(extent)
    {
    }
    virtual ~Inspection() = default;
    Q_DISABLE_COPY(Inspection)

    TreeContents run()
    {
        Entry root;
        root.fileName = m_root;
        if (::stat(m_root.constData(), &root.file) != 0) {
            add(root, RuleId::Unreadable, Effect::StopsStart, qt_error_string(errno));
            return std::move(m_contents);
        }
        inspectDirectory(root);
        for (std::size_t i = 0; i < m_directories.size(); ++i)
            inspectEntries(i);
        sortFindings(&m_contents.findings);
        return std::move(m_contents);
    }

protected:
    virtual void inspect(const Entry& entry) = 0;
    virtual void inspectDirectory(const Entry& entry) = 0;

    bool isWhole() const { return m_extent == Extent::All; }

    void add(const Entry& entry, RuleId rule, Effect effect, const QString& message,
             TextPosition position = {})
    {
        TreeFinding finding;
        finding.rule = rule;
        finding.stopsStart = effect == Effect::StopsStart;
        finding.file = QFile::decodeName(entry.fileName);
        finding.name = QFile::decodeName(entry.below);
        finding.settingPath = settingPathOf(finding.name);
        finding.position = position;
        finding.message = message;
        m_contents.findings.append(finding);
    }

    void addSpecial(const Entry& entry)
    {
        add(entry, RuleId::SpecialFile, Effect::StopsStart,
            QStringLiteral("is neither a regular file nor a directory"));
    }

    void addIfTooDeep(const Entry& entry)
    {
        if (entry.depth > maximumDepth) {
            add(entry, RuleId::PathTooDeep, Effect::None,
                QStringLiteral("is below level %1, so no path reaches it").arg(maximumLevels));
        }
    }

    QString denial(const Entry& entry, int wanted) const
    {
        return m_user.denial(entry.fileName, entry.file, wanted);
    }

    /// Has the entries of a directory inspected, unless they have been.
    void enter(const Entry& entry)
    {
        const QString name = QFile::decodeName(entry.below);
        m_contents.directories.insert(name);
        m_contents.directoryNames.insert(name, QFile::decodeName(entry.fileName));
        if (m_seen.emplace(entry.file.st_dev, entry.file.st_ino).second)
            m_directories.push_back(entry);
    }

    /// Tells whether one of the directories that lead to the entry is the same.
    bool liesInItself(const Entry& entry) const
    {
        for (Entry at = m_directories[entry.directory];; at = m_directories[at.directory]) {
            if (at.file.st_dev == entry.file.st_dev && at.file.st_ino == entry.file.st_ino)
                return true;
            if (at.depth == 0)
                return false;
        }
    }

    /// The text of a regular file; nothing, and a finding, if it cannot be read.
    std::optional<QByteArray> read(const Entry& entry)
    {
        // Not blocking, in case it is a pipe by now.
        const int descriptor =
            ::open(entry.fileName.constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (descriptor < 0) {
            add(entry, RuleId::Unreadable, Effect::None, qt_error_string(errno));
            return std::nullopt;
        }
        QFile file;
        file.open(descriptor, QIODevice::ReadOnly, QFile::AutoCloseHandle);
        struct stat opened = {};
        if (::fstat(descriptor, &opened) != 0 || !S_ISREG(opened.st_mode)) {
            addSpecial(entry);
            return std::nullopt;
        }
        // One that grows meanwhile is read no further.
        const QByteArray text = file.read(FileProbe::maximumFileBytes + 1);
        if (text.size() > FileProbe::maximumFileBytes) {
            add(entry, RuleId::TooLarge, Effect::StopsStart,
                QStringLiteral("is larger than 1 MiB"));
            return std::nullopt;
        }
        if (file.error() != QFileDevice::NoError) {
            add(entry, RuleId::Unreadable, Effect::None, file.errorString());
            return std::nullopt;
        }
        return text;
    }

    /// The message for a document that is not an object.
    static QString noObject(const QVariant& content)
    {
        return QStringLiteral("holds %1 instead of an object")
            .arg(content.isValid() ? TuloValue::ofContent(content).kind() : QStringLiteral("null"));
    }

    /// Keeps a document for what is found in several files together.
    void keep(const Entry& entry, const QVariantHash& roles, const LocatedJson& located)
    {
        TreeDocument document;
        document.file = QFile::decodeName(entry.fileName);
        document.name = QFile::decodeName(entry.below);
        document.roles = roles;
        for (auto at = located.positions.cbegin(); at != located.positions.cend(); ++at) {
            constexpr int levels = 2;
            if (at.key().count(separator) <= levels)
                document.positions.insert(at.key(), *at);
        }
        m_contents.documents.insert(document.name, document);
    }

    void noteFile(const Entry& entry) { m_contents.files.insert(QFile::decodeName(entry.below)); }

private:
    void inspectEntries(std::size_t index)
    {
        const Entry directory = m_directories[index];
        DIR* const stream = ::opendir(directory.fileName.constData());
        if (stream == nullptr) {
            add(directory, RuleId::Unreadable, Effect::None, qt_error_string(errno));
            return;
        }
        std::vector<QByteArray> names;
        while (const struct dirent* entry = ::readdir(stream))
            names.emplace_back(static_cast<const char*>(entry->d_name));
        ::closedir(stream);
        std::sort(names.begin(), names.end());
        for (const QByteArray& name : names) {
            // A listing of the last level still reads the roles of the directories in it.
            if (name != "." && name != ".."
                && (directory.depth <= maximumDepth || name == metaName))
                inspect(examine(directory, index, name));
        }
    }

    static Entry examine(const Entry& directory, std::size_t index, const QByteArray& name)
    {
        Entry entry;
        entry.name = name;
        entry.below = directory.below.isEmpty() ? name : directory.below + '/' + name;
        entry.fileName = directory.fileName + '/' + name;
        entry.depth = directory.depth + 1;
        entry.directory = index;
        if (::lstat(entry.fileName.constData(), &entry.file) != 0)
            entry.error = errno;
        entry.isLink = entry.error == 0 && S_ISLNK(entry.file.st_mode);
        entry.isBehindLink = directory.isBehindLink || entry.isLink;
        if (entry.isLink && ::stat(entry.fileName.constData(), &entry.file) != 0)
            entry.error = errno;
        return entry;
    }

    const QByteArray m_root;
    const User m_user;
    const Extent m_extent;
    std::vector<Entry> m_directories; ///< that are or will be visited
    std::set<std::pair<dev_t, ino_t>> m_seen;
    TreeContents m_contents;
};

// ---------------------------------------------------------------------------------------------
// The default tree: what the image brought.
// ---------------------------------------------------------------------------------------------

class DefaultInspection : public Inspection
{
public:
    using Inspection::Inspection;

private:
    void inspect(const Entry& entry) override
    {
        if (entry.depth == 1 && entry.name == stampName().latin1())
            return;
        if (entry.isHidden() && !entry.isMeta()) {
            add(entry, RuleId::NotListed, Effect::None,
                QStringLiteral("no listing shows this name"));
        } else if (entry.isSpecial()) {
            addSpecial(entry);
        } else if (!entry.isMeta() && !entry.isListed()) {
            add(entry, RuleId::NotListed, Effect::None,
                QStringLiteral("no listing shows this name"));
        } else if (entry.error != 0) {
            inspectMissing(entry);
        } else if (entry.isMeta()) {
            inspectMeta(entry);
        } else {
            addIfTooDeep(entry);
            addIfTooLong(entry);
            if (entry.isDirectory())
                inspectDirectory(entry);
            else
                inspectFile(entry);
        }
    }

    void addIfTooLong(const Entry& entry)
    {
        if (!isWhole())
            return;
        constexpr char mount[] = "/settings/";
        if (entry.name.size() > maximumNameBytes) {
            add(entry, RuleId::NameTooLong, Effect::None,
                QStringLiteral("the name has %1 bytes, of which a path takes %2")
                    .arg(entry.name.size())
                    .arg(maximumNameBytes));
        } else if (qstrlen(mount) + uint(entry.below.size()) > uint(maximumPathBytes)) {
            add(entry, RuleId::NameTooLong, Effect::None,
                QStringLiteral("the path has more than %1 bytes").arg(maximumPathBytes));
        }
    }

    void inspectMissing(const Entry& entry)
    {
        if (entry.isLink
            && (entry.error == ENOENT || entry.error == ENOTDIR || entry.error == ELOOP))
            add(entry, RuleId::Link, Effect::None, QStringLiteral("is a link that leads nowhere"));
        else
            add(entry, RuleId::Unreadable, Effect::None, qt_error_string(entry.error));
    }

    void inspectMeta(const Entry& entry)
    {
        // To the worker a file that holds nothing.
        if (entry.isDirectory())
            add(entry, RuleId::NoObject, Effect::StopsStart, QStringLiteral("is a directory"));
        else
            inspectFile(entry);
    }

    void inspectDirectory(const Entry& entry) override
    {
        const QString denied = denial(entry, R_OK | X_OK);
        if (!denied.isEmpty())
            add(entry, RuleId::Unreadable, Effect::None, denied);
        else if (entry.isLink && liesInItself(entry))
            add(entry, RuleId::Link, Effect::None,
                QStringLiteral("is a link to a directory that it lies in"));
        else
            enter(entry);
    }

    void inspectFile(const Entry& entry)
    {
        const QString denied = denial(entry, R_OK);
        if (!denied.isEmpty()) {
            add(entry, RuleId::Unreadable, Effect::None, denied);
            return;
        }
        noteFile(entry);
        const std::optional<QByteArray> text = read(entry);
        if (!text)
            return;
        TuloError error;
        const QVariant content = TuloJson::parse(*text, error, nullptr);
        if (!error.isEmpty()) {
            inspectSyntax(entry, *text);
        } else if (content.userType() != QMetaType::QVariantHash) {
            // The worker takes null for a missing file that a listing shows.
            add(entry, RuleId::NoObject, content.isValid() ? Effect::None : Effect::StopsStart,
                noObject(content), parseLocated(*text).position(QString()));
        } else {
            inspectRoles(entry, *text, content.toHash());
        }
    }

    void inspectSyntax(const Entry& entry, const QByteArray& text)
    {
        const LocatedJson located = parseLocated(text);
        RuleId rule = RuleId::Syntax;
        if (text.startsWith("\xEF\xBB\xBF"))
            rule = RuleId::ByteOrderMark;
        else if (located.error == QLatin1String("Nested too deeply."))
            rule = RuleId::NestedTooDeep;
        add(entry, rule, Effect::StopsStart,
            rule == RuleId::ByteOrderMark ? QStringLiteral("begins with a byte order mark")
                                          : located.error,
            located.errorPosition);
    }

    void inspectRoles(const Entry& entry, const QByteArray& text, const QVariantHash& roles)
    {
        const QVector<DocumentFinding> found =
            isWhole() ? checkDocument(roles, useOf(entry, roles)) : checkValues(roles);
        // Places cost a second reading.
        if (!isWhole() && found.isEmpty())
            return;
        const LocatedJson located = parseLocated(text);
        for (const DocumentFinding& finding : found) {
            add(entry, finding.rule, Effect::None, finding.message,
                located.position(finding.pointer));
        }
        if (!isWhole())
            return;
        for (const auto& duplicate : located.duplicates) {
            add(entry, RuleId::DuplicateKey, Effect::None,
                QStringLiteral("'%1' is there twice; the last one counts")
                    .arg(nameOf(duplicate.first)),
                duplicate.second);
        }
        keep(entry, roles, located);
    }

    // Clients make no children at the top, and none where the .meta forbids changes.
    static DocumentUse useOf(const Entry& entry, const QVariantHash& roles)
    {
        if (!entry.isMeta())
            return DocumentUse::Setting;
        const bool isTop = entry.below == entry.name;
        return isTop || !TuloRoles(TuloHash(roles)).modifiable() ? DocumentUse::Directory
                                                                 : DocumentUse::Template;
    }
};

// ---------------------------------------------------------------------------------------------
// The writable tree: what changes left, and what is in the way of changes.
// ---------------------------------------------------------------------------------------------

class WritableInspection : public Inspection
{
public:
    WritableInspection(const QString& root, const QString& defaultRoot, const User& user,
                       Extent extent)
        : Inspection(root, user, extent)
        , m_defaultRoot(QFile::encodeName(QDir::cleanPath(defaultRoot)))
    {
    }

private:
    void inspect(const Entry& entry) override
    {
        if (entry.isHidden()) {
            inspectTemporary(entry);
            return;
        }
        if (entry.isSpecial()) {
            addSpecial(entry);
            return;
        }
        if (!entry.isListed())
            return;
        if (entry.isLink) {
            add(entry, RuleId::Link, Effect::None,
                QStringLiteral("is a link; no change is written through it"));
        }
        // Gone since it was listed, or a link that leads nowhere: nothing is served from it.
        if (entry.error != 0 || clashes(entry))
            return;
        addIfTooDeep(entry);
        if (entry.isDirectory())
            inspectDirectory(entry);
        else
            inspectFile(entry);
    }

    bool clashes(const Entry& entry)
    {
        struct stat other = {};
        const QByteArray otherName = m_defaultRoot + '/' + entry.below;
        if (::stat(otherName.constData(), &other) != 0
            || S_ISDIR(other.st_mode) == entry.isDirectory())
            return false;
        add(entry, RuleId::FileDirectoryClash, Effect::None,
            entry.isDirectory()
                ? QStringLiteral("is a directory, but a setting in the default tree")
                : QStringLiteral("is a file, but a directory in the default tree"));
        return true;
    }

    void inspectDirectory(const Entry& entry) override
    {
        const QString denied = denial(entry, entry.isBehindLink ? R_OK | X_OK : R_OK | W_OK | X_OK);
        if (denied.isEmpty())
            enter(entry);
        else
            add(entry, RuleId::Unusable, Effect::StopsStart, denied);
    }

    void inspectFile(const Entry& entry)
    {
        const QString denied = denial(entry, R_OK);
        if (!denied.isEmpty()) {
            add(entry, RuleId::Unusable, Effect::StopsStart, denied);
            return;
        }
        noteFile(entry);
        const std::optional<QByteArray> text = read(entry);
        if (!text)
            return;
        const LocatedJson located = parseLocated(*text);
        if (!located.isValid()) {
            add(entry, RuleId::WrittenUnparsable, Effect::None, located.error,
                located.errorPosition);
        } else if (located.value.userType() != QMetaType::QVariantHash) {
            add(entry, RuleId::WrittenUnparsable, Effect::None, noObject(located.value),
                located.position(QString()));
        } else if (isWhole()) {
            keep(entry, located.value.toHash(), located);
        }
    }

    /// A hidden entry, which matters only where the temporary file of a setting belongs.
    void inspectTemporary(const Entry& entry)
    {
        const QByteArray name = entry.name.mid(1);
        const QByteArray directory = entry.below.chopped(entry.name.size());
        const bool hasSetting = isRegular(entry.fileName.chopped(entry.name.size()) + name)
            || isRegular(m_defaultRoot + '/' + directory + name);
        // One that its first write would have made.
        const bool mayBeNew = !directory.isEmpty() && isListable(QFile::decodeName(name))
            && isRegular(m_defaultRoot + '/' + directory + metaName);
        if (entry.isMeta() || (!hasSetting && !mayBeNew))
            return;

        const QString setting = QFile::decodeName(name);
        if (entry.isLink) {
            add(entry, RuleId::Link, Effect::None,
                QStringLiteral("is a link, so no change of '%1' is written").arg(setting));
        } else if (entry.isSpecial()) {
            addSpecial(entry);
        } else if (entry.isDirectory()) {
            add(entry, RuleId::FileDirectoryClash, Effect::None,
                QStringLiteral("is a directory, so no change of '%1' can be written").arg(setting));
        } else if (entry.file.st_nlink > 1) {
            add(entry, RuleId::HardLink, Effect::None,
                QStringLiteral("has a second name, whose content the next write of '%1' would "
                               "overwrite")
                    .arg(setting));
        } else if (const QString denied = denial(entry, W_OK); !denied.isEmpty()) {
            add(entry, RuleId::Unusable, hasSetting ? Effect::StopsStart : Effect::None, denied);
        } else {
            add(entry, RuleId::StaleTemporary, Effect::None,
                QStringLiteral("may be left from an interrupted write of '%1', whose next write "
                               "reuses it")
                    .arg(setting));
        }
    }

    const QByteArray m_defaultRoot;
};

} // namespace

// ---------------------------------------------------------------------------------------------
// Both trees.
// ---------------------------------------------------------------------------------------------

TextPosition TreeDocument::position(const QString& pointer) const
{
    for (QString at = pointer; !at.isEmpty(); at.truncate(at.lastIndexOf(separator))) {
        const auto known = positions.constFind(at);
        if (known != positions.cend())
            return *known;
    }
    return positions.value(QString());
}

QString kindPointer(const TreeDocument& document)
{
    const QString edit = pointerTo(QString(), TuloRoles::Edit());
    if (document.roles.value(TuloRoles::Edit()).toHash().contains(TuloEdit::Kind()))
        return pointerTo(edit, TuloEdit::Kind());
    const QString value = pointerTo(QString(), TuloRoles::Value());
    return document.roles.contains(TuloRoles::Value()) ? value : edit;
}

QString settingPathOf(const QString& name)
{
    if (name.isEmpty())
        return QString();
    const QString path = separator + name;
    const QString last = nameOf(path);
    const QString directory = path.chopped(last.size());
    if (last == QLatin1String(metaName))
        return directory.chopped(1);
    // A temporary file is named after its setting.
    return last.startsWith(QLatin1Char('.')) ? directory + last.mid(1) : path;
}

QString placeOf(const TreeFinding& finding)
{
    if (!finding.position.isKnown())
        return finding.file;
    return QStringLiteral("%1:%2:%3")
        .arg(finding.file, QString::number(finding.position.line),
             QString::number(finding.position.column));
}

TreeFinding findingIn(const TreeDocument& document, RuleId rule, const QString& pointer,
                      const QString& message)
{
    TreeFinding finding;
    finding.rule = rule;
    finding.file = document.file;
    finding.name = document.name;
    finding.settingPath = settingPathOf(document.name);
    finding.position = document.position(pointer);
    finding.message = message;
    return finding;
}

void sortFindings(QVector<TreeFinding>* findings)
{
    // A directory's entries follow it, before what has a longer name.
    const auto key = [](const TreeFinding& finding) {
        return std::make_tuple(QString(finding.file).replace(separator, QChar(1)),
                               finding.position.line, finding.position.column, finding.rule,
                               finding.message);
    };
    std::stable_sort(findings->begin(), findings->end(),
                     [&key](const auto& one, const auto& other) { return key(one) < key(other); });
    const auto isSame = [&key](const TreeFinding& one, const TreeFinding& other) {
        return key(one) == key(other);
    };
    findings->erase(std::unique(findings->begin(), findings->end(), isSame), findings->end());
}

TreeContents readDefaultTree(const QString& defaultPath, const QString& writePath)
{
    return DefaultInspection(defaultPath, User(writePath), Extent::All).run();
}

TreeContents readWritableTree(const QString& writePath, const QString& defaultPath)
{
    return WritableInspection(writePath, defaultPath, User(writePath), Extent::All).run();
}

QVector<TreeFinding> inspectTrees(const QString& defaultPath, const QString& writePath)
{
    const User user(writePath);
    QVector<TreeFinding> findings =
        DefaultInspection(defaultPath, user, Extent::Start).run().findings;
    findings += WritableInspection(writePath, defaultPath, user, Extent::Start).run().findings;
    return findings;
}

namespace {

// Not about what one of its files holds.
TreeFinding findingOnTree(RuleId rule, const QString& file, const QString& name,
                          const char* message)
{
    TreeFinding finding;
    finding.rule = rule;
    finding.file = file;
    finding.name = name;
    finding.message = QLatin1String(message);
    return finding;
}

} // namespace

QVector<TreeFinding> checkTrees(const TreesToCheck& trees)
{
    const TreeContents defaults = readDefaultTree(trees.defaultPath, trees.writePath);
    QVector<TreeFinding> findings = defaults.findings + lintDefaults(defaults, trees);
    if (isStampStale(trees.defaultPath)) {
        findings.append(findingOnTree(RuleId::StampStale, stampFile(trees.defaultPath), stampName(),
                                      "the image has changed since it was stamped"));
    }
    if (defaults.files.isEmpty()) {
        findings.append(findingOnTree(RuleId::TreeEmpty, trees.defaultPath, QString(),
                                      "the tree has no file of a setting or directory"));
    }
    sortFindings(&findings);
    if (trees.writePath.isEmpty())
        return findings;
    const TreeContents written = readWritableTree(trees.writePath, trees.defaultPath);
    QVector<TreeFinding> others = written.findings + lintWritten(written, defaults, trees);
    sortFindings(&others);
    return findings + others;
}

} // namespace tulo
