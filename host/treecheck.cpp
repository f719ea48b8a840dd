#include "host/treecheck.h"

#include "host/guard.h"
#include "host/settingvalue.h"

#include "api/core/model/cmedit.h"
#include "api/core/tulojson.h"
#include "api/core/tuloroles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

namespace {

using Kind = TreeFinding::Kind;

const QString metaName = QStringLiteral(".meta");

QString shown(const QVariant& content)
{
    const QByteArray text = TuloJson::serialize(content);
    return text.isNull() ? QStringLiteral("?") : QString::fromUtf8(text);
}

class TreeCheck
{
public:
    explicit TreeCheck(const QString& directory)
        : m_root(directory)
    {
    }

    QVector<TreeFinding> run()
    {
        checkDirectory(QString());
        return m_findings;
    }

private:
    void add(Kind kind, const QString& file, const QString& message)
    {
        m_findings.append({ kind, file, message });
    }

    void checkDirectory(const QString& below)
    {
        const QFileInfo self(m_root.filePath(below));
        const QString canonical = self.canonicalFilePath();
        if (m_open.contains(canonical)) {
            add(Kind::NotListed, below, QStringLiteral("is a link to a directory that it lies in"));
            return;
        }
        m_open.append(canonical);
        const QDir directory(self.filePath());
        const QStringList names = directory.entryList(
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::NoSort);
        QStringList sorted = names;
        sorted.sort();
        for (const QString& name : qAsConst(sorted))
            checkEntry(below.isEmpty() ? name : below + QLatin1Char('/') + name, name);
        m_open.removeLast();
    }

    void checkEntry(const QString& file, const QString& name)
    {
        const QFileInfo info(m_root.filePath(file));
        const bool isMeta = name == metaName;
        if (isMeta && info.isDir()) {
            add(Kind::Unparsable, file, QStringLiteral("is a directory"));
        } else if (!isMeta && !Guard::isListable(name)) {
            add(Kind::NotListed, file, QStringLiteral("no listing shows this name"));
        } else if (info.isDir() && info.isReadable()) {
            checkDirectory(file);
        } else if (info.isDir()) {
            add(Kind::Unreadable, file, QStringLiteral("cannot be read"));
        } else if (!info.exists()) {
            add(Kind::NotListed, file, QStringLiteral("is a link that leads nowhere"));
        } else if (!info.isFile()) {
            add(Kind::NotListed, file, QStringLiteral("is neither a file nor a directory"));
        } else {
            checkFile(file);
        }
    }

    void checkFile(const QString& name)
    {
        QFile file(m_root.filePath(name));
        if (!QFileInfo(file).isReadable()) {
            add(Kind::Unreadable, name, QStringLiteral("cannot be read"));
            return;
        }
        const QByteArray text = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        TuloError error;
        const QVariant content = TuloJson::parse(text, error, nullptr);
        if (!error.isEmpty()) {
            add(Kind::Unparsable, name, error.message());
        } else if (content.userType() != QMetaType::QVariantHash) {
            add(Kind::NoObject, name,
                QStringLiteral("holds %1 instead of an object")
                    .arg(content.isValid() ? TuloValue::ofContent(content).kind()
                                           : QStringLiteral("null")));
        } else {
            const TuloRoles roles { TuloHash(content.toHash()) };
            checkValue(name, TuloRoles::Value(), roles);
            checkValue(name, TuloRoles::DefaultValue(), roles);
        }
    }

    void checkValue(const QString& file, const QString& role, const TuloRoles& roles)
    {
        if (!roles.__contains(role))
            return;
        const QVariant entry = roles.__hashAttribute(role);
        const TuloValue value { TuloHash(entry.toHash()) };
        if (entry.userType() == QMetaType::QVariantHash && value.isEmpty())
            return;
        if (value.convertedTo(value.kind()).isEmpty()) {
            add(Kind::NoKind, file,
                QStringLiteral("%1: %2 is no value of a known kind").arg(role, shown(entry)));
            return;
        }
        const QString reason = CMEdit::judge(value, value, roles.edit()).reason;
        if (!reason.isEmpty()) {
            add(Kind::OutsideConstraints, file,
                QStringLiteral("%1: %2: %3")
                    .arg(role, shown(value.content()), withLimits(reason, roles.edit())));
        }
    }

    const QDir m_root;
    QStringList m_open; ///< canonical names of the directories being checked
    QVector<TreeFinding> m_findings;
};

} // namespace

QString findingName(TreeFinding::Kind kind)
{
    switch (kind) {
    case Kind::Unreadable:
        return QStringLiteral("unreadable");
    case Kind::Unparsable:
        return QStringLiteral("unparsable");
    case Kind::NoObject:
        return QStringLiteral("noObject");
    case Kind::NoKind:
        return QStringLiteral("noKind");
    case Kind::OutsideConstraints:
        return QStringLiteral("outsideConstraints");
    case Kind::NotListed:
        return QStringLiteral("notListed");
    }
    return QString();
}

QVector<TreeFinding> checkDefaultTree(const QString& directory)
{
    return TreeCheck(directory).run();
}
