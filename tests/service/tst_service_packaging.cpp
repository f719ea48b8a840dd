#include "tests/service/servicefixture.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTest>
#include <QXmlStreamReader>

namespace {

QByteArray contentOf(const QString& name)
{
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// Methods, signals and properties of the service's interface, one a line: what a client sees.
QStringList interfaceOf(const QByteArray& xml)
{
    QStringList members;
    QXmlStreamReader reader(xml);
    bool isInside = false;
    while (!reader.atEnd()) {
        reader.readNext();
        const QStringRef name = reader.name();
        const QXmlStreamAttributes attributes = reader.attributes();
        const auto attribute = [&attributes](const char* key) {
            return attributes.value(QLatin1String(key)).toString();
        };
        if (name == QLatin1String("interface")) {
            isInside = reader.isStartElement()
                && attribute("name") == QLatin1String("org.tulo.ConfigurationManager1");
        } else if (isInside && reader.isStartElement()) {
            if (name == QLatin1String("arg")) {
                members.last() +=
                    QStringLiteral(" %1 %2 %3")
                        .arg(attribute("direction"), attribute("type"), attribute("name"));
            } else if (name == QLatin1String("annotation")) {
                members.last() +=
                    QStringLiteral(" %1=%2").arg(attribute("name"), attribute("value"));
            } else {
                members.append(QStringLiteral("%1 %2 %3 %4")
                                   .arg(name.toString(), attribute("name"), attribute("type"),
                                        attribute("access")));
            }
        }
    }
    members.sort();
    return members;
}

} // namespace

/// What an installation puts on a device.
class TstServicePackaging : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void filesAreInPlace();
    void unitIsHardened();
    void unitIsWellFormed();
    void installedLogConfigurationShowsWarningsOnly();
    void installedServiceServes();
    void interfaceFileSaysWhatTheServiceSays();

private:
    QString installed(const char* name) const
    {
        return m_prefix.filePath(QString::fromLatin1(name));
    }

    const QTemporaryDir m_prefix;
};

void TstServicePackaging::initTestCase()
{
    for (const char* component : { "service", "command", "worker", "framework" }) {
        const ChildResult result =
            ChildProcess::run(QStringLiteral("cmake"),
                              { QStringLiteral("--install"), QStringLiteral(TULO_BUILD_DIR),
                                QStringLiteral("--prefix"), m_prefix.path(),
                                QStringLiteral("--component"), QString::fromLatin1(component) });
        QVERIFY2(result.exitCode == 0, result.standardError);
    }
}

void TstServicePackaging::filesAreInPlace()
{
    for (const char* name : { "lib/systemd/system/tulo-cm.service", "lib/sysusers.d/tulo-cm.conf",
                              "lib/tmpfiles.d/tulo-cm.conf",
                              "share/dbus-1/system-services/org.tulo.ConfigurationManager1.service",
                              "share/dbus-1/system.d/org.tulo.ConfigurationManager1.conf",
                              "share/dbus-1/interfaces/org.tulo.ConfigurationManager1.xml",
                              "etc/tulo/tulo-cm-log.properties" })
        QVERIFY2(!contentOf(installed(name)).isEmpty(), name);
    QVERIFY(QFileInfo(installed("bin/tulo-cm")).isExecutable());
    const QByteArray unit = contentOf(installed("lib/systemd/system/tulo-cm.service"));
    QVERIFY(!unit.contains('@' + QByteArray("CMAKE")));
    for (const char* line : { "\nType=notify\n", "\nUMask=0077\n", "\nTimeoutStopSec=45\n",
                              "\nRequiresMountsFor=/settings /etc/tulo/settings-default\n",
                              "\nLimitNOFILE=", "\nRestart=on-failure\n",
                              "\nBusName=org.tulo.ConfigurationManager1\n" })
        QVERIFY2(unit.contains(line), line);
}

void TstServicePackaging::unitIsHardened()
{
    if (QStandardPaths::findExecutable(QStringLiteral("systemd-analyze")).isEmpty())
        QSKIP("needs systemd-analyze");

    const ChildResult result =
        ChildProcess::run(QStringLiteral("systemd-analyze"),
                          { QStringLiteral("security"), QStringLiteral("--offline=true"),
                            QStringLiteral("--no-pager"), QStringLiteral("--threshold=20"),
                            installed("lib/systemd/system/tulo-cm.service") });

    const QRegularExpressionMatch exposure =
        QRegularExpression(QStringLiteral("Overall exposure level for [^:]*: ([0-9.]+)"))
            .match(QString::fromUtf8(result.standardOutput));
    QVERIFY2(exposure.hasMatch(), result.standardOutput + result.standardError);
    QVERIFY2(exposure.captured(1).toDouble() <= 2.0, qPrintable(exposure.captured()));
    QCOMPARE(result.exitCode, 0);
}

void TstServicePackaging::unitIsWellFormed()
{
    if (QStandardPaths::findExecutable(QStringLiteral("systemd-analyze")).isEmpty())
        QSKIP("needs systemd-analyze");
    // With the program where this installation has it.
    const QTemporaryDir copy;
    QFile file(copy.filePath(QStringLiteral("tulo-cm.service")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(contentOf(installed("lib/systemd/system/tulo-cm.service"))
                   .replace("/usr/local/bin/tulo-cm", installed("bin/tulo-cm").toUtf8()));
    file.close();

    const ChildResult result =
        ChildProcess::run(QStringLiteral("systemd-analyze"),
                          { QStringLiteral("verify"), QStringLiteral("--man=no"),
                            QStringLiteral("--recursive-errors=no"), file.fileName() });

    QVERIFY2(!result.standardError.contains("tulo-cm.service"), result.standardError);
    QCOMPARE(result.exitCode, 0);
}

void TstServicePackaging::installedLogConfigurationShowsWarningsOnly()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(
        trees, bus.address(),
        { QStringLiteral("--log-config"), installed("etc/tulo/tulo-cm-log.properties") });
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    const QString volume = QStringLiteral("/settings/audio/volume");

    client.call("SetValue", { volume, variantOf(400) });

    // Which it knows from records that are not shown.
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QCOMPARE(client.property("PendingWrites"), QStringLiteral("u 0"));
    const ChildResult result = service.end();
    QCOMPARE(ServiceProcess::complaints(result),
             QByteArray("WARN  TuloFramework: Value for '/settings/audio/volume' adjusted: it is "
                        "above 'max'\n"));
    QCOMPARE(result.exitCode, 0);
}

void TstServicePackaging::installedServiceServes()
{
    const CommandLine trees;
    const PrivateBus bus;
    ChildProcess service(
        installed("bin/tulo-cm"),
        trees.arguments({ QStringLiteral("--bus"), bus.address(), QStringLiteral("serve") }));
    QVERIFY(service.start());
    QVERIFY2(service.waitForError("tulo-cm: serving '"), service.standardError());

    const ChildResult get =
        ChildProcess::run(installed("bin/tulo-cm"),
                          { QStringLiteral("--bus"), bus.address(), QStringLiteral("get"),
                            QStringLiteral("/settings/audio/volume") });

    QCOMPARE(get.standardOutput, QByteArray("35\n"));
    service.sendSignal(SIGTERM);
    QCOMPARE(service.finish().exitCode, 0);
}

void TstServicePackaging::interfaceFileSaysWhatTheServiceSays()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address());
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());

    const QDBusMessage answer = client.connection().call(QDBusMessage::createMethodCall(
        QStringLiteral("org.tulo.ConfigurationManager1"),
        QStringLiteral("/org/tulo/ConfigurationManager1"),
        QStringLiteral("org.freedesktop.DBus.Introspectable"), QStringLiteral("Introspect")));

    const QStringList told = interfaceOf(answer.arguments().value(0).toString().toUtf8());
    QCOMPARE(told,
             interfaceOf(contentOf(
                 installed("share/dbus-1/interfaces/org.tulo.ConfigurationManager1.xml"))));
    QCOMPARE(told.size(), 16);
    QCOMPARE(service.end().exitCode, 0);
}

QTEST_GUILESS_MAIN(TstServicePackaging)
#include "tst_service_packaging.moc"
