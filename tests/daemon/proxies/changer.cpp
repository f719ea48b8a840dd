// The classes of the other two interfaces, in a source apart from that of the first one.

#include "changer.h"
#include "admin.h"

#include <QDBusConnection>

#include <tulo/bus-types.h>

QString change(const QDBusConnection& bus)
{
    const auto service = QStringLiteral("org.tulo.ConfigurationManager1");
    const auto object = QStringLiteral("/org/tulo/ConfigurationManager1");
    SettingsChanger changer(service, object, bus);
    QVariantMap outcome;
    const QDBusReply<QVariantMap> stored =
        changer.SetValue(QStringLiteral("/settings/audio/volume"), QDBusVariant(41), {}, outcome);
    const QDBusReply<tulo::BusChanges> changes = changer.SetMany(
        { { QStringLiteral("/settings/audio/loudness"), { { QStringLiteral("value"), false } } } },
        {});
    SettingsAdmin admin(service, object, bus);
    return QStringLiteral("%1 %2 %3 %4")
        .arg(stored.value().value(QStringLiteral("value")).toInt())
        .arg(outcome.value(QStringLiteral("reason")).toString())
        .arg(changes.value().size())
        .arg(admin.GetUnsaved(5).value().size());
}
