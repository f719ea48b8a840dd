#include "tests/settings/contracttexts.h"

#include <QLatin1String>

namespace tulo {

QString shown(const QVariantMap& map)
{
    QStringList entries;
    for (auto entry = map.cbegin(); entry != map.cend(); ++entry) {
        const bool isTime =
            entry.key() == QLatin1String("timestamp") && entry->userType() == QMetaType::LongLong;
        entries.append(QStringLiteral("%1: %2").arg(entry.key(),
                                                    isTime ? QStringLiteral("*") : shown(*entry)));
    }
    return QStringLiteral("{%1}").arg(entries.join(QStringLiteral(", ")));
}

QString shown(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::Bool:
        return QStringLiteral("b ") + value.toString();
    case QMetaType::LongLong:
        return QStringLiteral("x ") + value.toString();
    case QMetaType::ULongLong:
        return QStringLiteral("t ") + value.toString();
    case QMetaType::Double:
        return QStringLiteral("d ") + QString::number(value.toDouble(), 'g', 17);
    case QMetaType::QString:
        return QStringLiteral("s \"%1\"").arg(value.toString());
    case QMetaType::QVariantList: {
        QStringList entries;
        const QVariantList list = value.toList();
        for (const QVariant& entry : list)
            entries.append(shown(entry));
        return QStringLiteral("[%1]").arg(entries.join(QStringLiteral(", ")));
    }
    case QMetaType::QVariantMap:
        return shown(value.toMap());
    default:
        return QStringLiteral("unexpected %1").arg(QLatin1String(value.typeName()));
    }
}

QString shown(const Error& error)
{
    QString text = error.name() + QStringLiteral(": ") + error.message;
    if (!error.path.isEmpty() && !error.message.contains(error.path))
        text += QStringLiteral(" [%1]").arg(error.path);
    return text;
}

QString shown(const Change& change)
{
    QString text = shown(change.stored);
    if (change.isAdjusted)
        text += QStringLiteral(" for %1: %2").arg(shown(change.asked), change.reason);
    return text;
}

QString shown(const Node& node)
{
    return node.path + QLatin1Char(' ') + (node.error ? shown(node.error) : shown(node.roles));
}

QString shown(const Row& row)
{
    return row.name + QLatin1String(row.isDirectory ? "/ " : " ")
        + (row.error ? shown(row.error) : shown(row.roles));
}

QString shown(const RoleOrigin& origin)
{
    QString text = nameOf(origin.state) + QLatin1Char(' ') + nameOf(origin.layer);
    if (!origin.role.isEmpty())
        text += QLatin1Char(' ') + origin.role;
    if (origin.value.isValid()) {
        text += QLatin1Char(' ')
            + (origin.role == QLatin1String("timestamp") ? QStringLiteral("*")
                                                         : shown(origin.value));
    }
    if (!origin.file.isEmpty()) {
        text += QStringLiteral(" %1:%2:%3")
                    .arg(origin.file.section(QLatin1Char('/'), -2))
                    .arg(origin.line)
                    .arg(origin.column);
    }
    return origin.reason.isEmpty() ? text : text + QStringLiteral(": ") + origin.reason;
}

QString shown(const Rows& rows)
{
    return QStringLiteral("%1 rows, version %2, %3: %4")
        .arg(QString::number(rows.count), QString::number(rows.version), shown(rows.directory),
             shown(rows.rows));
}

QString shown(const QString& text)
{
    return text;
}

QString shown(int number)
{
    return QString::number(number);
}

QString shown(const QStringList& texts)
{
    return texts.join(QStringLiteral(", "));
}

QString shown(const Event& event)
{
    switch (event.kind) {
    case Event::Kind::Value:
        return QStringLiteral("value %1 %2").arg(event.path, shown(event.value));
    case Event::Kind::Data:
        return QStringLiteral("data ") + event.path;
    case Event::Kind::Rows:
        break;
    }
    return QStringLiteral("rows %1 %2 %3")
        .arg(event.path, event.command, QString::number(event.version));
}

QString storedAs(const QString& value)
{
    return QStringLiteral("{timestamp: *, value: %1}").arg(value);
}

} // namespace tulo
