#include "trees/nodenames.h"

#include <QRegExp>
#include <QString>

namespace tulo {

bool isListable(const QString& name)
{
    // The worker's own pattern, in the engine that takes it.
    static const QRegExp pattern(QStringLiteral("^[\\w-_]+$"));
    return pattern.exactMatch(name);
}

} // namespace tulo
