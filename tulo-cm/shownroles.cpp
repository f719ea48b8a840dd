#include "tulo-cm/shownroles.h"

#include "tulo-cm/constraints.h"
#include "tulo-cm/roles.h"

#include "trees/printable.h"

#include <QDateTime>

namespace tulo {
namespace {

// Null for what no calendar has.
QString localDate(const QVariant& timestamp)
{
    constexpr qint64 lastMs = 253402300799999; // of the year 9999
    bool isNumber = false;
    const qint64 milliseconds = timestamp.toLongLong(&isNumber);
    if (!isNumber || milliseconds < 0 || milliseconds > lastMs)
        return QString();
    return QDateTime::fromMSecsSinceEpoch(milliseconds)
        .toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
}

} // namespace

QStringList neededRoles(const Output& output, const QStringList& names, bool isMarked)
{
    QStringList needed = names;
    const bool hasMarks = isMarked && output.showsMarks();
    if (hasMarks || (output.isForPeople() && names.contains(roles::edit())))
        needed << roles::value() << roles::defaultValue();
    if (hasMarks)
        needed << roles::modifiable();
    needed.removeDuplicates();
    return needed;
}

QString shownRole(const Output& output, const QString& name, const QVariantMap& roles)
{
    const QVariant role = roles.value(name);
    if (!role.isValid() || !output.isForPeople())
        return shownInCell(role);
    if (name == roles::edit())
        return escaped(valuesInWords(roles));
    const QString date = name == roles::timestamp() ? localDate(role) : QString();
    return date.isNull() ? shownInCell(role) : date;
}

QStringList roleCells(const Output& output, const QVariantMap& roles, const QStringList& names)
{
    QStringList cells;
    for (const QString& name : names)
        cells.append(shownRole(output, name, roles));
    return cells;
}

TableRow markedRow(const QStringList& cells, const QVariantMap& roles, bool isDirectory)
{
    if (isDirectory)
        return { cells, Style::Directory };
    TableRow row { cells };
    if (isChanged(roles)) {
        row.style = Style::Changed;
        row.marks += QLatin1Char('*');
    }
    if (isReadOnly(roles)) {
        row.style = row.style == Style::Changed ? Style::Changed : Style::ReadOnly;
        row.marks += QLatin1Char('=');
    }
    return row;
}

} // namespace tulo
