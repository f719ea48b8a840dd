#include "trees/misspelling.h"

#include <QVector>

#include <algorithm>
#include <cstdlib>

namespace tulo {
namespace {

// Letters to insert, to remove, to replace or to swap with their neighbour.
int distance(const QString& from, const QString& to)
{
    QVector<int> beforeLast;
    QVector<int> last;
    QVector<int> row(to.size() + 1);
    for (int j = 0; j <= to.size(); ++j)
        row[j] = j;
    for (int i = 1; i <= from.size(); ++i) {
        beforeLast = last;
        last = row;
        row[0] = i;
        for (int j = 1; j <= to.size(); ++j) {
            const bool isSame = from.at(i - 1) == to.at(j - 1);
            row[j] = std::min({ last.at(j) + 1, row.at(j - 1) + 1, last.at(j - 1) + int(!isSame) });
            const bool isSwapped =
                i > 1 && j > 1 && from.at(i - 1) == to.at(j - 2) && from.at(i - 2) == to.at(j - 1);
            if (isSwapped)
                row[j] = std::min(row.at(j), beforeLast.at(j - 2) + 1);
        }
    }
    return row.last();
}

} // namespace

QString nearest(const QString& name, const QStringList& candidates)
{
    constexpr int shortestBeginning = 3;
    const QString lower = name.toLower();
    QString found;
    int least = -1;
    for (const QString& candidate : candidates) {
        const QString other = candidate.toLower();
        // One letter in four may be wrong; "desc" is the beginning of "description".
        const int allowed = (std::max(lower.size(), other.size()) + 1) / 4;
        const bool isBeginning = lower.size() >= shortestBeginning && other.startsWith(lower);
        if (!isBeginning && std::abs(lower.size() - other.size()) > allowed)
            continue;
        const int steps = isBeginning ? 1 : distance(lower, other);
        if (steps <= allowed && (least < 0 || steps < least)) {
            least = steps;
            found = candidate;
        }
    }
    return found;
}

QString suggestion(const QString& name, const QStringList& candidates)
{
    const QString found = nearest(name, candidates);
    return found.isEmpty() ? QString() : QStringLiteral("; did you mean '%1'?").arg(found);
}

} // namespace tulo
