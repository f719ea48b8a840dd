#include "trees/treeoptions.h"

#include "trees/nodenames.h"

#include <QFileInfo>

namespace tulo {

QString checkDirectory(const QString& path)
{
    // An empty name would stand for the built-in directory further down.
    const QFileInfo directory(path);
    if (path.isEmpty() || !directory.exists())
        return QStringLiteral("directory '%1' does not exist").arg(path);
    if (!directory.isDir())
        return QStringLiteral("'%1' is not a directory").arg(path);
    return QString();
}

QString checkProduct(const QString& postfix)
{
    if (postfix.isEmpty() || isListable(postfix))
        return QString();
    return QStringLiteral(
               "'%1' is not a product postfix, which has only letters, digits, '_' and '-'")
        .arg(postfix);
}

} // namespace tulo
