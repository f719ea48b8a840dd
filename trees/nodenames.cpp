#include "trees/nodenames.h"

#include "trees/separator.h"

#include <QChar>
#include <QString>

#include <algorithm>

namespace tulo {

// As the worker: letters, marks, digits, "_" and "-". Not by its pattern "^[\w-_]+$" in a QRegExp,
// which threads must not share.
bool isListable(const QString& name)
{
    return !name.isEmpty() && std::all_of(name.cbegin(), name.cend(), [](QChar character) {
        return character.isLetterOrNumber() || character.isMark() || character == QLatin1Char('_')
            || character == QLatin1Char('-');
    });
}

QStringList plainPathsOf(const QString& path)
{
    const QLatin1Char beforePostfix('_');
    const int name = path.lastIndexOf(separator) + 1;
    QStringList paths;
    for (int end = path.lastIndexOf(beforePostfix); end > name;
         end = path.lastIndexOf(beforePostfix, end - 1))
        paths.append(path.left(end));
    return paths;
}

} // namespace tulo
