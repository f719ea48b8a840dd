#include "tests/daemon/servicefixture.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTest>
#include <QXmlStreamReader>

#include <sys/stat.h>
#include <unistd.h>

namespace {

QByteArray contentOf(const QString& name)
{
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// Every entry of a directory and the directory itself, one a line: name, owner, rights, times.
QByteArray listing(const QString& directory)
{
    return ChildProcess::run(
               QStringLiteral("find"),
               { directory, QStringLiteral("-printf"), QStringLiteral("%p %u %g %m %s %T@ %C@\n") })
        .standardOutput;
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
    void unitNamesInstalledFiles_data();
    void unitNamesInstalledFiles();
    void nothingIsWrittenOutsideThePrefix_data();
    void nothingIsWrittenOutsideThePrefix();
    void missingCommandsAreToldForAnotherPrefix_data();
    void missingCommandsAreToldForAnotherPrefix();
    void tmpfilesTouchNothingInTheWritableTree();
    void unitIsHardened();
    void unitIsWellFormed();
    void installedLogConfigurationShowsWarningsOnly();
    void installedServiceServes();
    void interfaceFileSaysWhatTheServiceSays();

private:
    QString installed(const char* name) const
    {
        return m_root.filePath(QLatin1String("usr/") + QLatin1String(name));
    }

    const QTemporaryDir m_root;
};

void TstServicePackaging::initTestCase()
{
    const ChildResult result = install(m_root.path(), QStringLiteral("/usr"));

    QVERIFY2(result.exitCode == 0, result.standardError);
    // Where bus and service manager look by themselves, nothing is missing.
    QCOMPARE(result.standardError, QByteArray());
}

void TstServicePackaging::filesAreInPlace()
{
    for (const char* name :
         { "lib/systemd/system/tulo-cm.service", "lib/sysusers.d/tulo-cm.conf",
           "lib/tmpfiles.d/tulo-cm.conf",
           "share/dbus-1/system-services/org.tulo.ConfigurationManager1.service",
           "share/dbus-1/system.d/org.tulo.ConfigurationManager1.conf",
           "share/dbus-1/interfaces/org.tulo.ConfigurationManager1.xml",
           "share/tulo/tulo-cm-log.properties", "share/doc/tulo/docs/guarantees.md" })
        QVERIFY2(!contentOf(installed(name)).isEmpty(), name);
    QVERIFY(QFileInfo(installed("bin/tulo-cm")).isExecutable());
    const QByteArray unit = contentOf(installed("lib/systemd/system/tulo-cm.service"));
    for (const char* line :
         { "\nType=notify\n", "\nUMask=0077\n", "\nTimeoutStopSec=120\n", "\nLimitCORE=0\n",
           "\nRequiresMountsFor=/settings /etc/tulo/settings-default\n",
           "\nLimitNOFILE=", "\nRestart=on-failure\n", "\nStartLimitIntervalSec=0\n",
           "\nBusName=org.tulo.ConfigurationManager1\n" })
        QVERIFY2(unit.contains(line), line);
}

void TstServicePackaging::unitNamesInstalledFiles_data()
{
    QTest::addColumn<QString>("prefix");
    QTest::newRow("/usr") << QStringLiteral("/usr");
    QTest::newRow("/usr/local") << QStringLiteral("/usr/local");
    QTest::newRow("another") << QStringLiteral("/opt/tulo");
}

// Whatever prefix the build was configured with.
void TstServicePackaging::unitNamesInstalledFiles()
{
    QFETCH(const QString, prefix);
    const QTemporaryDir root;
    const ChildResult result = install(root.path(), prefix);
    QVERIFY2(result.exitCode == 0, result.standardError);

    const QString unit = QString::fromUtf8(
        contentOf(root.path() + prefix + QLatin1String("/lib/systemd/system/tulo-cm.service")));

    const auto words = [&unit](const QString& key) {
        return QRegularExpression(QLatin1Char('^') + key + QLatin1String("=(.*)$"),
                                  QRegularExpression::MultilineOption)
            .match(unit)
            .captured(1)
            .remove(QStringLiteral("file:"))
            .split(QLatin1Char(' '));
    };
    const QStringList command = words(QStringLiteral("ExecStart"));
    const QStringList files =
        command.filter(QStringLiteral("/")) + words(QStringLiteral("Documentation"));
    QCOMPARE(files.size(), 4);
    QCOMPARE(command.first(), prefix + QLatin1String("/bin/tulo-cm"));
    for (const QString& file : files) {
        QVERIFY2(file.startsWith(prefix + QLatin1Char('/')), qPrintable(file));
        QVERIFY2(QFileInfo(root.path() + file).isFile(), qPrintable(file));
    }
}

void TstServicePackaging::nothingIsWrittenOutsideThePrefix_data()
{
    unitNamesInstalledFiles_data();
}

void TstServicePackaging::nothingIsWrittenOutsideThePrefix()
{
    QFETCH(const QString, prefix);
    const QTemporaryDir root;

    const ChildResult result = install(root.path(), prefix);

    QVERIFY2(result.exitCode == 0, result.standardError);
    QStringList outside;
    int inside = 0;
    QDirIterator entries(root.path(), QDir::Files | QDir::Hidden | QDir::System,
                         QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        if (entries.next().startsWith(root.path() + prefix + QLatin1Char('/')))
            ++inside;
        else
            outside.append(entries.filePath());
    }
    QCOMPARE(outside, QStringList());
    QVERIFY(inside > 20);
}

void TstServicePackaging::missingCommandsAreToldForAnotherPrefix_data()
{
    QTest::addColumn<QString>("prefix");
    QTest::addColumn<QStringList>("commands");
    const QString policy =
        QStringLiteral("install -D -m 644 -t /etc/dbus-1/system.d "
                       "%1/share/dbus-1/system.d/org.tulo.ConfigurationManager1.conf");
    QTest::newRow("/usr/local") << QStringLiteral("/usr/local")
                                << QStringList { policy.arg(QStringLiteral("/usr/local")) };
    QTest::newRow("another")
        << QStringLiteral("/opt/tulo")
        << QStringList {
               policy.arg(QStringLiteral("/opt/tulo")),
               QStringLiteral("install -D -m 644 -t /usr/local/share/dbus-1/system-services "
                              "/opt/tulo/share/dbus-1/system-services/"
                              "org.tulo.ConfigurationManager1.service"),
               QStringLiteral("systemd-sysusers /opt/tulo/lib/sysusers.d/tulo-cm.conf"),
               QStringLiteral("systemd-tmpfiles --create /opt/tulo/lib/tmpfiles.d/tulo-cm.conf"),
               QStringLiteral("systemctl link /opt/tulo/lib/systemd/system/tulo-cm.service")
           };
}

void TstServicePackaging::missingCommandsAreToldForAnotherPrefix()
{
    QFETCH(const QString, prefix);
    QFETCH(const QStringList, commands);
    const QTemporaryDir root;

    const ChildResult result = install(root.path(), prefix);

    QString expected =
        QStringLiteral("The service cannot start from this prefix before root has run:\n");
    for (const QString& command : commands) {
        expected += QLatin1String("    ") + command + QLatin1Char('\n');
        const QString file = command.section(QLatin1Char(' '), -1);
        QVERIFY2(QFileInfo(root.path() + file).isFile(), qPrintable(file));
    }
    QCOMPARE(QString::fromUtf8(result.standardError), expected);
}

// An administrator may have put anything there before, and the service runs again after each boot.
void TstServicePackaging::tmpfilesTouchNothingInTheWritableTree()
{
    if (QStandardPaths::findExecutable(QStringLiteral("systemd-tmpfiles")).isEmpty())
        QSKIP("needs systemd-tmpfiles");
    if (::geteuid() != 0)
        QSKIP("needs root to give a directory away");
    const QTemporaryDir root;
    QDir(root.path()).mkpath(QStringLiteral("etc"));
    const auto write = [&root](const char* name, const QByteArray& content) {
        QFile file(root.filePath(QString::fromLatin1(name)));
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            qFatal("cannot write %s", name);
    };
    write("etc/passwd", "root:x:0:0::/:/bin/sh\ntulo-cm:x:4711:4712::/:/bin/false\n");
    write("etc/group", "root:x:0:\ntulo-cm:x:4712:\n");
    const QStringList arguments { QStringLiteral("--create"), QStringLiteral("--remove"),
                                  QStringLiteral("--clean"),
                                  QStringLiteral("--root=") + root.path(),
                                  installed("lib/tmpfiles.d/tulo-cm.conf") };

    const ChildResult first = ChildProcess::run(QStringLiteral("systemd-tmpfiles"), arguments);
    QVERIFY2(first.exitCode == 0, first.standardError);
    struct stat tree = {};
    QCOMPARE(
        ::stat(QFile::encodeName(root.filePath(QStringLiteral("settings"))).constData(), &tree), 0);
    QCOMPARE(tree.st_mode, mode_t(S_IFDIR | 0700));
    QCOMPARE(tree.st_uid, 4711U);
    QCOMPARE(tree.st_gid, 4712U);
    QVERIFY(QDir(root.path()).mkpath(QStringLiteral("settings/audio")));
    write("settings/.profile", "mine\n");
    write("settings/audio/.volume", "mine\n");
    write("settings/audio/volume", "{}");
    QVERIFY(QFile::setPermissions(root.filePath(QStringLiteral("settings/audio/volume")),
                                  QFile::Permissions(0x6644)));
    const QByteArray before = listing(root.filePath(QStringLiteral("settings")));
    const ChildResult second = ChildProcess::run(QStringLiteral("systemd-tmpfiles"), arguments);

    QVERIFY2(second.exitCode == 0, second.standardError);
    QCOMPARE(before.count('\n'), 5);
    QCOMPARE(listing(root.filePath(QStringLiteral("settings"))), before);
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
                   .replace("/usr/bin/tulo-cm", installed("bin/tulo-cm").toUtf8()));
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
        { QStringLiteral("--log-config"), installed("share/tulo/tulo-cm-log.properties") });
    QVERIFY2(service.serve(), service.standardError());
    const BusClient client(bus.address());
    const QString volume = QStringLiteral("/settings/audio/volume");

    client.call("SetValue", { volume, variantOf(40) });
    // Which it knows from records that are not shown.
    QCOMPARE(client.call("Flush"), QStringLiteral("u 0"));
    QCOMPARE(client.property("PendingWrites"), QStringLiteral("u 0"));
    trees.tree.makeWriteDirectory(QStringLiteral("/audio/.volume"));
    client.call("SetValue", { volume, variantOf(45) });
    const ChildResult result = service.end();
    const QByteArray record =
        "Settings: path '" + trees.tree.writePath().toUtf8() + "/audio/.volume' open file failed";
    QCOMPARE(ServiceProcess::complaints(result),
             "ERROR CMSettingsWorker: " + record + "\ntulo-cm: not on disk: " + volume.toUtf8()
                 + " (" + record + ")\n");
    QCOMPARE(result.exitCode, 6);
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
