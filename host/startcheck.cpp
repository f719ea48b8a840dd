#include "host/startcheck.h"

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
    }
    oddities.special.sort();
    oddities.links.sort();
    return oddities;
}
