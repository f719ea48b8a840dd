#include "trees/treecheck.h"

#include "client/base/checks.h"
#include "trees/fileprobe.h"
#include "trees/nodenames.h"
#include "trees/settingvalue.h"
#include "trees/treeowner.h"
#include "trees/treestamp.h"

#include "api/core/model/cmedit.h"
#include "api/core/tulojson.h"
#include "api/core/tuloroles.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QVariant>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tulo {

namespace {

using Kind = TreeFinding::Kind;
using Effect = TreeFinding::Effect;

// Of what a path can name; the mount is its first component.
constexpr int maximumDepth = maximumLevels - 1;
constexpr char metaName[] = ".meta";

QString shown(const QVariant& content)
{
    const QByteArray text = TuloJson::serialize(content);
    return text.isNull() ? QStringLiteral("?") : QString::fromUtf8(text);
}

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
        } else if (::faccessat(AT_FDCWD, fileName.constData(), wanted, AT_EACCESS) == 0) {
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

class Inspection
{
public:
    Inspection(const QString& root, User user)
        : m_root(QFile::encodeName(QDir::cleanPath(root)))
        , m_user(user)
    {
    }
    virtual ~Inspection() = default;
    Q_DISABLE_COPY(Inspection)

    QVector<TreeFinding> run()
    {
        Entry root;
        root.fileName = m_root;
        if (::stat(m_root.constData(), &root.file) != 0) {
            add(root, Kind::Unreadable, Effect::StopsStart, qt_error_string(errno));
            return m_findings;
        }
        inspectDirectory(root);
        for (std::size_t i = 0; i < m_directories.size(); ++i)
            inspectEntries(i);
        // A directory's entries follow it, before what has a longer name.
        const auto key = [](const TreeFinding& finding) {
            return QString(finding.file).replace(QLatin1Char('/'), QChar(1));
        };
        std::stable_sort(
            m_findings.begin(), m_findings.end(),
            [&key](const auto& one, const auto& other) { return key(one) < key(other); });
        return m_findings;
    }

protected:
    virtual void inspect(const Entry& entry) = 0;
    virtual void inspectDirectory(const Entry& entry) = 0;

    void add(const Entry& entry, Kind kind, Effect effect, const QString& message)
    {
        m_findings.append({ kind, effect, QFile::decodeName(entry.fileName), message });
    }

    void addSpecial(const Entry& entry)
    {
        add(entry, Kind::Special, Effect::StopsStart,
            QStringLiteral("is neither a regular file nor a directory"));
    }

    void addIfTooDeep(const Entry& entry)
    {
        if (entry.depth > maximumDepth) {
            add(entry, Kind::TooDeep, Effect::Wrong,
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

    /// The document in a regular file; nothing, and a finding, if there is none.
    std::optional<QVariant> parse(const Entry& entry, Effect unparsable)
    {
        // Not blocking, in case it is a pipe by now.
        const int descriptor =
            ::open(entry.fileName.constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (descriptor < 0) {
            add(entry, Kind::Unreadable, Effect::Wrong, qt_error_string(errno));
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
            add(entry, Kind::TooLarge, Effect::StopsStart, QStringLiteral("is larger than 1 MiB"));
            return std::nullopt;
        }
        if (file.error() != QFileDevice::NoError) {
            add(entry, Kind::Unreadable, Effect::Wrong, file.errorString());
            return std::nullopt;
        }
        TuloError error;
        const QVariant content = TuloJson::parse(text, error, nullptr);
        if (!error.isEmpty()) {
            add(entry, Kind::Unparsable, unparsable, error.message());
            return std::nullopt;
        }
        return content;
    }

    /// The message for a document that is not an object.
    static QString noObject(const QVariant& content)
    {
        return QStringLiteral("holds %1 instead of an object")
            .arg(content.isValid() ? TuloValue::ofContent(content).kind() : QStringLiteral("null"));
    }

private:
    void inspectEntries(std::size_t index)
    {
        const Entry directory = m_directories[index];
        DIR* const stream = ::opendir(directory.fileName.constData());
        if (stream == nullptr) {
            add(directory, Kind::Unreadable, Effect::Wrong, qt_error_string(errno));
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
    std::vector<Entry> m_directories; ///< that are or will be visited
    std::set<std::pair<dev_t, ino_t>> m_seen;
    QVector<TreeFinding> m_findings;
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
            add(entry, Kind::NotListed, Effect::Wrong,
                QStringLiteral("no listing shows this name"));
        } else if (entry.isSpecial()) {
            addSpecial(entry);
        } else if (!entry.isMeta() && !entry.isListed()) {
            add(entry, Kind::NotListed, Effect::Wrong,
                QStringLiteral("no listing shows this name"));
        } else if (entry.error != 0) {
            inspectMissing(entry);
        } else if (entry.isMeta()) {
            inspectMeta(entry);
        } else {
            addIfTooDeep(entry);
            if (entry.isDirectory())
                inspectDirectory(entry);
            else
                inspectFile(entry);
        }
    }

    void inspectMissing(const Entry& entry)
    {
        if (entry.isLink
            && (entry.error == ENOENT || entry.error == ENOTDIR || entry.error == ELOOP))
            add(entry, Kind::NotListed, Effect::Wrong,
                QStringLiteral("is a link that leads nowhere"));
        else
            add(entry, Kind::Unreadable, Effect::Wrong, qt_error_string(entry.error));
    }

    void inspectMeta(const Entry& entry)
    {
        // To the worker a file that holds nothing.
        if (entry.isDirectory())
            add(entry, Kind::Unparsable, Effect::StopsStart, QStringLiteral("is a directory"));
        else
            inspectFile(entry);
    }

    void inspectDirectory(const Entry& entry) override
    {
        const QString denied = denial(entry, R_OK | X_OK);
        if (!denied.isEmpty())
            add(entry, Kind::Unreadable, Effect::Wrong, denied);
        else if (entry.isLink && liesInItself(entry))
            add(entry, Kind::NotListed, Effect::Wrong,
                QStringLiteral("is a link to a directory that it lies in"));
        else
            enter(entry);
    }

    void inspectFile(const Entry& entry)
    {
        const QString denied = denial(entry, R_OK);
        if (!denied.isEmpty()) {
            add(entry, Kind::Unreadable, Effect::Wrong, denied);
            return;
        }
        const std::optional<QVariant> content = parse(entry, Effect::StopsStart);
        if (!content)
            return;
        if (content->userType() != QMetaType::QVariantHash) {
            // The worker takes null for a missing file that a listing shows.
            add(entry, Kind::NoObject, content->isValid() ? Effect::Wrong : Effect::StopsStart,
                noObject(*content));
            return;
        }
        const TuloRoles roles { TuloHash(content->toHash()) };
        if (!hasUsableEdit(entry, roles))
            return;
        inspectValue(entry, TuloRoles::Value(), roles);
        inspectValue(entry, TuloRoles::DefaultValue(), roles);
    }

    bool hasUsableEdit(const Entry& entry, const TuloRoles& roles)
    {
        const QVariant edit = roles.__hashAttribute(TuloRoles::Edit());
        if (!roles.__contains(TuloRoles::Edit()) || edit.userType() == QMetaType::QVariantHash)
            return true;
        add(entry, Kind::BadEdit, Effect::Wrong,
            QStringLiteral("edit: %1 is not an object").arg(shown(edit)));
        return false;
    }

    void inspectValue(const Entry& entry, const QString& role, const TuloRoles& roles)
    {
        if (!roles.__contains(role))
            return;
        const QVariant written = roles.__hashAttribute(role);
        const TuloValue value { TuloHash(written.toHash()) };
        if (written.userType() == QMetaType::QVariantHash && value.isEmpty())
            return;
        if (value.convertedTo(value.kind()).isEmpty()) {
            add(entry, Kind::NoKind, Effect::Wrong,
                QStringLiteral("%1: %2 is not a value of a known kind, such as {\"int\":5}")
                    .arg(role, shown(written)));
            return;
        }
        const QString reason = CMEdit::judge(value, value, roles.edit()).reason;
        if (!reason.isEmpty()) {
            add(entry, Kind::OutsideConstraints, Effect::Wrong,
                QStringLiteral("%1: %2: %3")
                    .arg(role, shown(value.content()), withLimits(reason, roles.edit())));
        }
    }
};

// ---------------------------------------------------------------------------------------------
// The writable tree: what changes left, and what is in the way of changes.
// ---------------------------------------------------------------------------------------------

class WritableInspection : public Inspection
{
public:
    WritableInspection(const QString& root, const QString& defaultRoot, const User& user)
        : Inspection(root, user)
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
            add(entry, Kind::Link, Effect::Wrong,
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
        add(entry, Kind::Clash, Effect::Wrong,
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
            add(entry, Kind::Unusable, Effect::StopsStart, denied);
    }

    void inspectFile(const Entry& entry)
    {
        const QString denied = denial(entry, R_OK);
        if (!denied.isEmpty()) {
            add(entry, Kind::Unusable, Effect::StopsStart, denied);
            return;
        }
        const std::optional<QVariant> content = parse(entry, Effect::Wrong);
        if (content && content->userType() != QMetaType::QVariantHash)
            add(entry, Kind::NoObject, Effect::Wrong, noObject(*content));
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
            add(entry, Kind::Link, Effect::Wrong,
                QStringLiteral("is a link, so no change of '%1' is written").arg(setting));
        } else if (entry.isSpecial()) {
            addSpecial(entry);
        } else if (entry.isDirectory()) {
            add(entry, Kind::Clash, Effect::Wrong,
                QStringLiteral("is a directory, so no change of '%1' can be written").arg(setting));
        } else if (entry.file.st_nlink > 1) {
            add(entry, Kind::HardLink, Effect::Wrong,
                QStringLiteral("has a second name, whose content the next write of '%1' would "
                               "overwrite")
                    .arg(setting));
        } else if (const QString denied = denial(entry, W_OK); !denied.isEmpty()) {
            add(entry, Kind::Unusable, hasSetting ? Effect::StopsStart : Effect::Wrong, denied);
        } else {
            add(entry, Kind::StaleTemporary, Effect::Harmless,
                QStringLiteral("may be left from an interrupted write of '%1', whose next write "
                               "reuses it")
                    .arg(setting));
        }
    }

    const QByteArray m_defaultRoot;
};

} // namespace

QString findingName(TreeFinding::Kind kind)
{
    switch (kind) {
    case Kind::Special:
        return QStringLiteral("special");
    case Kind::TooLarge:
        return QStringLiteral("tooLarge");
    case Kind::TooDeep:
        return QStringLiteral("tooDeep");
    case Kind::Unreadable:
        return QStringLiteral("unreadable");
    case Kind::Unusable:
        return QStringLiteral("unusable");
    case Kind::Unparsable:
        return QStringLiteral("unparsable");
    case Kind::NoObject:
        return QStringLiteral("noObject");
    case Kind::NoKind:
        return QStringLiteral("noKind");
    case Kind::BadEdit:
        return QStringLiteral("badEdit");
    case Kind::OutsideConstraints:
        return QStringLiteral("outsideConstraints");
    case Kind::NotListed:
        return QStringLiteral("notListed");
    case Kind::Link:
        return QStringLiteral("link");
    case Kind::HardLink:
        return QStringLiteral("hardLink");
    case Kind::Clash:
        return QStringLiteral("clash");
    case Kind::StaleTemporary:
        return QStringLiteral("staleTemporary");
    }
    return QString();
}

QVector<TreeFinding> inspectTrees(const QString& defaultPath, const QString& writePath)
{
    const User user(writePath);
    QVector<TreeFinding> findings = DefaultInspection(defaultPath, user).run();
    findings += WritableInspection(writePath, defaultPath, user).run();
    return findings;
}

} // namespace tulo
