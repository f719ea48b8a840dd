#include "trees/treereader.h"

#include "client/base/checks.h"
#include "trees/fileprobe.h"
#include "trees/locatedjson.h"
#include "trees/nodenames.h"
#include "trees/plainroles.h"
#include "trees/separator.h"
#include "trees/uniquefd.h"

#include "api/core/model/cmpath.h"
#include "api/core/trstring.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QSet>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace tulo {

namespace {

using Layer = RoleOrigin::Layer;
using State = RoleOrigin::State;

const QLatin1String metaFile("/.meta");
const QLatin1String mount("/settings");

bool isAbsent(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ENAMETOOLONG || error == ELOOP;
}

QString systemText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

QString below(const QString& path, const QString& name)
{
    return path.endsWith(separator) ? path + name : path + separator + name;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// One file, and the roles in it.
// ---------------------------------------------------------------------------------------------

struct TreeReader::Source
{
    Layer layer = Layer::Default;
    QString file;
    bool isThere = false; ///< the worker finds something of this name that it may read
    LocatedJson json;
    QVariantHash roles; ///< none unless the file is an object
    QString defect; ///< why it gives no roles though it is there
    TextPosition defectPosition;
    bool isHidden = false; ///< no entry of it counts; `reason` tells why
    QString reason;

    /// Reads the file. Absence is not a defect.
    Source(Layer itsLayer, const QString& itsFile)
        : layer(itsLayer)
        , file(QDir::cleanPath(itsFile))
    {
        QByteArray text;
        if (!readText(&text))
            return;
        isThere = true;
        json = parseLocated(text);
        if (!json.isValid()) {
            defect = QStringLiteral("is not JSON: ") + json.error;
            defectPosition = json.errorPosition;
        } else if (json.value.userType() != QMetaType::QVariantHash) {
            defect = QStringLiteral("is not an object");
            defectPosition = { 1, 1 };
        }
        roles = json.value.toHash();
    }

    /// As the worker tells a missing setting: it takes null for one.
    bool isMissing() const
    {
        return !isThere || (json.positions.contains(QString()) && !json.value.isValid());
    }

private:
    // False, and possibly a defect, when there is nothing to parse.
    bool readText(QByteArray* text)
    {
        const QByteArray name = QFile::encodeName(file);
        struct stat status = {};
        if (::stat(name.constData(), &status) != 0)
            return fail(errno);
        if (!S_ISREG(status.st_mode)) {
            defect = QStringLiteral("is not a regular file");
            isThere = true;
            return false;
        }
        // Not blocking, in case it is a pipe by now.
        UniqueFd descriptor(::open(name.constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (!descriptor)
            return fail(errno);
        QFile opened;
        opened.open(descriptor.get(), QIODevice::ReadOnly);
        *text = opened.read(FileProbe::maximumFileBytes + 1);
        if (text->size() <= FileProbe::maximumFileBytes && opened.error() == QFileDevice::NoError)
            return true;
        defect = opened.error() == QFileDevice::NoError
            ? QStringLiteral("is larger than %1 bytes").arg(FileProbe::maximumFileBytes)
            : QStringLiteral("cannot be read: ") + opened.errorString();
        isThere = true;
        return false;
    }

    bool fail(int error)
    {
        if (!isAbsent(error))
            defect = QStringLiteral("cannot be read: ") + systemText(error);
        return false;
    }
};

// ---------------------------------------------------------------------------------------------
// A setting or directory: its roles as the worker merges them, step by step, and for each the
// entry of a file that it comes from.
// ---------------------------------------------------------------------------------------------

struct TreeReader::Node
{
    /// An entry of a file; -1 for a role that is set on reading.
    struct From
    {
        int source = -1;
        QString entry;
    };

    bool exists = false;
    bool isDirectory = false;
    TuloRoles roles;
    QVector<Source> sources; ///< the files that are looked at, the strongest first
    QHash<QString, From> from; ///< by role

    /// All roles of one source, in the place of those that are there.
    void take(int source)
    {
        const QVariantHash& taken = sources.at(source).roles;
        roles = TuloRoles(TuloHash(taken));
        for (auto role = taken.cbegin(); role != taken.cend(); ++role)
            from.insert(role.key(), { source, role.key() });
    }

    void setBuiltIn(const QString& role, const QVariant& value)
    {
        roles.__setHashAttribute(role, value);
        from.insert(role, From());
    }

    void set(const QString& role, const QVariant& value, int source, const QString& entry)
    {
        roles.__setHashAttribute(role, value);
        from.insert(role, { source, entry });
    }

    void remove(const QString& role)
    {
        roles.__remove(role);
        from.remove(role);
    }
};

namespace {

// Texts of the settings of one directory share the context "@settings" and that directory.
TrString translated(const QString& path, const QString& text)
{
    const QByteArray context = (QLatin1String("@settings") + parentOf(path)).toUtf8();
    const QByteArray source = text.toUtf8();
    return TrString({ context.constData(), source.constData(), nullptr, -1 }, {});
}

void translateTexts(const QString& path, TuloRoles* roles)
{
    for (const QString& role : { TuloRoles::Title(), TuloRoles::Description(),
                                 TuloRoles::LongDescription(), TuloRoles::ValueUnit() }) {
        const TrString text = TrString::fromVariant(roles->__hashAttribute(role));
        if (!text.isEmpty())
            roles->__setHashAttribute(role, translated(path, text.toString()));
    }
}

} // namespace

TreeReader::TreeReader(const QString& defaultPath, const QString& writePath,
                       const QString& productPostfix)
    : m_defaultPath(QDir::cleanPath(defaultPath))
    , m_writePath(writePath.isEmpty() ? QString() : QDir::cleanPath(writePath))
    , m_productPostfix(productPostfix)
{
}

QString TreeReader::defaultFile(const QString& path) const
{
    return m_defaultPath + path;
}

QString TreeReader::writtenFile(const QString& path) const
{
    // Without a writable tree a name that nothing has.
    return m_writePath.isEmpty() ? QStringLiteral("/dev/null/none") : m_writePath + path;
}

void TreeReader::readDirectory(const QString& path, Node* node) const
{
    node->isDirectory = true;
    node->exists = true;
    node->sources.append(Source(Layer::Default, defaultFile(path) + metaFile));
    node->take(0);
    node->setBuiltIn(TuloRoles::Type(), int(TuloRolesType::Directory));
    for (const Source& file :
         { Source(Layer::Default, defaultFile(path)), Source(Layer::Written, writtenFile(path)) }) {
        if (!QFileInfo(file.file).isFile())
            continue;
        node->sources.append(file);
        node->sources.last().isHidden = true;
        node->sources.last().reason = QStringLiteral("the other tree has a directory of this name");
    }
}

void TreeReader::readSetting(const QString& path, Node* node) const
{
    const QString variant = defaultFile(path) + QLatin1Char('_') + m_productPostfix;
    const bool hasVariant = QFileInfo(variant).isFile();
    node->sources.append(Source(Layer::Written, writtenFile(path)));
    if (hasVariant)
        node->sources.append(Source(Layer::Product, variant));
    node->sources.append(Source(Layer::Default, defaultFile(path)));
    node->sources.append(Source(Layer::Template, defaultFile(parentOf(path)) + metaFile));
    constexpr int writtenIndex = 0;
    constexpr int ownIndex = 1;
    const int templateIndex = node->sources.size() - 1;
    const QVariantHash written = node->sources.at(writtenIndex).roles;
    const QVariantHash own = node->sources.at(ownIndex).roles;

    node->exists = !node->sources.at(ownIndex).isMissing() || !written.isEmpty();
    node->take(own.isEmpty() ? templateIndex : ownIndex);
    if (hasVariant) {
        node->sources[ownIndex + 1].isHidden = true;
        node->sources[ownIndex + 1].reason =
            QStringLiteral("the file of the product variant takes the place of this one");
    }
    if (!own.isEmpty()) {
        node->sources[templateIndex].isHidden = true;
        node->sources[templateIndex].reason =
            QStringLiteral("a template is for settings without a default file");
    }
    if (node->roles.type() == TuloRolesType::Unset)
        node->setBuiltIn(TuloRoles::Type(), int(TuloRolesType::Setting));
    translateTexts(path, &node->roles);

    // All else in a written file is ignored.
    const TuloRoles change { TuloHash(written) };
    if (!change.value().__isEmpty()) {
        node->set(TuloRoles::Value(), change.value().__variant(), writtenIndex, TuloRoles::Value());
        node->remove(TuloRoles::EncryptedValue());
    }
    if (!change.encryptedValue().isEmpty())
        node->set(TuloRoles::EncryptedValue(), change.encryptedValue(), writtenIndex,
                  TuloRoles::EncryptedValue());
    if (change.timestamp() != 0)
        node->set(TuloRoles::Timestamp(), qlonglong(change.timestamp()), writtenIndex,
                  TuloRoles::Timestamp());
    if (!change.id().isEmpty())
        node->set(TuloRoles::Id(), change.id(), writtenIndex, TuloRoles::Id());

    const TuloValue defaultValue = TuloRoles(TuloHash(own)).value();
    if (!defaultValue.__isEmpty())
        node->set(TuloRoles::DefaultValue(), defaultValue.__variant(), ownIndex,
                  TuloRoles::Value());
}

TreeReader::Node TreeReader::read(const QString& path) const
{
    Node node;
    if (isDirectory(path))
        readDirectory(path, &node);
    else
        readSetting(path, &node);
    if (!node.roles.__contains(TuloRoles::Title()))
        node.setBuiltIn(TuloRoles::Title(), TrString(nameOf(path)));
    const QString base = path == separator ? QString() : path;
    node.setBuiltIn(TuloRoles::Path(), CMPath(mount + base).toVariant());
    return node;
}

TuloRoles TreeReader::roles(const QString& path) const
{
    return read(path).roles;
}

bool TreeReader::exists(const QString& path) const
{
    return read(path).exists;
}

QString TreeReader::defect(const QString& path) const
{
    const Node node = read(path);
    for (const Source& source : node.sources) {
        if (source.layer == Layer::Written || source.isHidden || source.defect.isEmpty())
            continue;
        const QString place = source.defectPosition.isKnown()
            ? QStringLiteral(":%1:%2")
                  .arg(source.defectPosition.line)
                  .arg(source.defectPosition.column)
            : QString();
        return source.file + place + QLatin1Char(' ') + source.defect;
    }
    return QString();
}

// ---------------------------------------------------------------------------------------------
// Explanation.
// ---------------------------------------------------------------------------------------------

namespace {

QStringList inUsualOrder(QStringList roles)
{
    std::sort(roles.begin(), roles.end(), [](const QString& left, const QString& right) {
        const QStringList& known = TuloRoles::keys();
        const auto rank = [&known](const QString& role) {
            const int index = known.indexOf(role);
            return index < 0 ? known.size() : index;
        };
        return rank(left) != rank(right) ? rank(left) < rank(right) : left < right;
    });
    return roles;
}

bool isSecret(const QString& role)
{
    return role == TuloRoles::Value() || role == TuloRoles::DefaultValue()
        || role == TuloRoles::EncryptedValue();
}

/// Why an entry of a written file has no effect.
QString reasonWritten(const QString& role)
{
    static const QSet<QString> known { TuloRoles::Value(), TuloRoles::EncryptedValue(),
                                       TuloRoles::Timestamp(), TuloRoles::Id() };
    return known.contains(role) ? QStringLiteral("is not a value that this role can have")
                                : QStringLiteral("a written file cannot change this role");
}

/// Why an entry of a default file, which is used, has no effect.
void explainDefault(const QString& role, bool isDirectory, RoleOrigin* origin)
{
    origin->state = State::Ignored;
    if (role == TuloRoles::Path()) {
        origin->reason = QStringLiteral("is set on reading");
    } else if (role == TuloRoles::Type()) {
        origin->reason = isDirectory ? QStringLiteral("is always 1 for a directory")
                                     : QStringLiteral("reads as 0, which stands for 101");
    } else {
        origin->state = State::Hidden;
        origin->reason = role == TuloRoles::DefaultValue()
            ? QStringLiteral("the value in this file is the default value")
            : QStringLiteral("the written file has one");
    }
}

} // namespace

QVector<RoleOrigin> TreeReader::explain(const QString& path) const
{
    const Node node = read(path);
    QVector<RoleOrigin> effective;
    QVector<RoleOrigin> others;
    const auto locate = [](const Source& source, const QString& entry, RoleOrigin* origin) {
        const TextPosition position = source.json.position(pointerTo(QString(), entry));
        origin->layer = source.layer;
        origin->file = source.file;
        origin->line = position.line;
        origin->column = position.column;
    };

    const QStringList roles = inUsualOrder(node.roles.__variant().toHash().keys());
    for (const QString& role : roles) {
        const Node::From from = node.from.value(role);
        RoleOrigin origin;
        origin.role = role;
        origin.value = plainRole(role, node.roles.__hashAttribute(role));
        if (from.source >= 0)
            locate(node.sources.at(from.source), from.entry, &origin);
        if (origin.value.isValid()) {
            effective.append(origin);
            continue;
        }
        origin.state = State::Ignored;
        origin.reason = QStringLiteral("is not a value that this role can have");
        others.append(origin);
    }

    for (int i = 0; i < node.sources.size(); ++i) {
        const Source& source = node.sources.at(i);
        if (!source.defect.isEmpty()) {
            RoleOrigin origin;
            origin.layer = source.layer;
            origin.state = State::Ignored;
            origin.file = source.file;
            origin.line = source.defectPosition.line;
            origin.column = source.defectPosition.column;
            origin.reason = source.defect;
            others.append(origin);
        }
        const TuloRoles fileRoles { TuloHash(source.roles) };
        const bool isEncrypted = node.roles.encrypted() || fileRoles.encrypted();
        const QStringList names = inUsualOrder(source.roles.keys());
        for (const QString& role : names) {
            const Node::From from = node.from.value(role);
            if (from.source == i && from.entry == role)
                continue;
            RoleOrigin origin;
            origin.role = role;
            locate(source, role, &origin);
            if (!isEncrypted || !isSecret(role))
                origin.value = plainRole(role, source.roles.value(role));
            if (source.isHidden) {
                origin.state = State::Hidden;
                origin.reason = source.reason;
            } else if (source.layer == Layer::Written) {
                origin.state = State::Ignored;
                origin.reason = reasonWritten(role);
            } else {
                explainDefault(role, node.isDirectory, &origin);
            }
            others.append(origin);
        }
    }
    return effective + others;
}

// ---------------------------------------------------------------------------------------------
// Listings.
// ---------------------------------------------------------------------------------------------

bool TreeReader::isDirectory(const QString& path) const
{
    return QFileInfo(defaultFile(path)).isDir() || QFileInfo(writtenFile(path)).isDir();
}

QStringList TreeReader::children(const QString& path) const
{
    const QDir::Filters filters = QDir::Dirs | QDir::Files | QDir::Readable | QDir::NoDotAndDotDot;
    QSet<QString> names;
    for (const QString& directory : { defaultFile(path), writtenFile(path) }) {
        const QStringList entries = QDir(directory).entryList(filters, QDir::NoSort);
        for (const QString& entry : entries) {
            if (isListable(entry))
                names.insert(entry);
        }
    }
    QStringList sorted(names.cbegin(), names.cend());
    sorted.sort(Qt::CaseSensitive);
    return sorted;
}

QStringList TreeReader::nodes(const QString& path) const
{
    QStringList paths;
    addNodes(path, {}, &paths);
    return paths;
}

// The directories of a path in both trees: the same ones under another name are the same.
QByteArray TreeReader::identity(const QString& path) const
{
    QByteArray result;
    for (const QString& directory : { defaultFile(path), writtenFile(path) }) {
        struct stat status = {};
        if (::stat(QFile::encodeName(directory).constData(), &status) == 0)
            result += QByteArray::number(qulonglong(status.st_dev)) + ':'
                + QByteArray::number(qulonglong(status.st_ino));
        result += ',';
    }
    return result;
}

void TreeReader::addNodes(const QString& path, const QVector<QByteArray>& around,
                          QStringList* paths) const
{
    if (!exists(path))
        return;
    if (!isDirectory(path)) {
        paths->append(path);
        return;
    }
    const QByteArray self = identity(path);
    // The mount is the first level of a path.
    if (around.contains(self) || around.size() == maximumLevels)
        return;
    paths->append(path);
    const QStringList names = children(path);
    for (const QString& name : names)
        addNodes(below(path, name), around + QVector<QByteArray> { self }, paths);
}

} // namespace tulo
