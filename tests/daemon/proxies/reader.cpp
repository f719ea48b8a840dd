// A program of somebody who has made Qt's classes of the description of the interfaces. Prints what
// it reads, before and after a change.

#include "reader.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QTextStream>

#include <tulo/bus-types.h>

QString change(const QDBusConnection& bus);

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    tulo::registerBusTypes();
    const QDBusConnection bus =
        QDBusConnection::connectToBus(QString::fromLocal8Bit(argv[1]), QStringLiteral("proxies"));
    SettingsReader reader(QStringLiteral("org.tulo.ConfigurationManager1"),
                          QStringLiteral("/org/tulo/ConfigurationManager1"), bus);
    QTextStream output(stdout);

    const QStringList roles { QStringLiteral("value") };
    const QDBusReply<tulo::BusNodes> nodes = reader.GetMany(
        { QStringLiteral("/settings/audio/volume"), QStringLiteral("/settings/nothing") }, roles);
    for (const tulo::BusNode& node : nodes.value())
        output << node.name << ' ' << node.roles.first().toString() << '\n';
    int version = 0;
    QVariantMap directory;
    tulo::BusNodes rows;
    const QDBusReply<uint> count =
        reader.GetRows(QStringLiteral("/settings/audio"), 0, 9, roles, version, directory, rows);
    output << count.value() << ' ' << rows.last().name << ' ' << directory.size() << '\n';
    output << change(bus) << '\n';
    output << reader.GetData(QStringLiteral("/settings/audio/volume"), roles)
                  .value()
                  .value(QStringLiteral("value"))
                  .toInt()
           << ' ' << reader.unsavedCount() << '\n';
    return 0;
}
