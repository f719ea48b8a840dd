#include "host/startcheck.h"

#include "host/guard.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

namespace {

const QDir::Filters everything =
    QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;

bool isSpecial(const QFileInfo& entry)
{
    // A link that leads nowhere counts as missing; it is no danger.
    return entry.exists() && !entry.isFile() && !entry.isDir();
}

bool isTemporary(const QFileInfo& entry)
{
    const QString name = entry.fileName();
    return entry.isFile() && !entry.isSymLink() && name.startsWith(QLatin1Char('.'))
        && name != QLatin1String(".meta") && name.size() > 1 && Guard::isListable(name.mid(1));
}

} // namespace

TreeOddities inspectDefaultTree(const QString& directory)
{
    TreeOddities oddities;
    QDirIterator entries(directory, everything, QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        entries.next();
        if (isSpecial(entries.fileInfo()))
            oddities.special.append(entries.filePath());
    }
    oddities.special.sort();
    return oddities;
}

TreeOddities inspectWritableTree(const QString& directory)
{
    TreeOddities oddities;
    QDirIterator entries(directory, everything, QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        entries.next();
        const QFileInfo entry = entries.fileInfo();
        if (entry.isSymLink())
            oddities.links.append(entry.filePath());
        else if (isSpecial(entry))
            oddities.special.append(entry.filePath());
        else if (isTemporary(entry))
            oddities.leftOver.append(entry.filePath());
    }
    oddities.special.sort();
    oddities.links.sort();
    oddities.leftOver.sort();
    return oddities;
}
