#include "tests/daemon/servicefixture.h"

#include "tests/support/files.h"

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

/// Every entry of a directory and the directory itself, one a line: name, owner, rights, times.
QByteArray listing(const QString& directory)
{
    return ChildProcess::run(
               QStringLiteral("find"),
               { directory, QStringLiteral("-printf"), QStringLiteral("%p %u %g %m %s %T@ %C@\n") })
        .standardOutput;
}

/// Methods, signals and properties of an interface, one a line: what a client sees. Without the
/// annotations that only generators of code read.
QStringList interfaceOf(const QByteArray& xml, const QString& interface)
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
            isInside = reader.isStartElement() && attribute("name") == interface;
        } else if (isInside && reader.isStartElement()) {
            if (name == QLatin1String("arg")) {
                members.last() +=
                    QStringLiteral(" %1 %2 %3")
                        .arg(attribute("direction"), attribute("type"), attribute("name"));
            } else if (name == QLatin1String("annotation")) {
                if (!attribute("name").startsWith(QLatin1String("org.qtproject.")))
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
    void unitIsWellFormed_data();
    void unitIsWellFormed();
    void unitOfTheMigrationIsForTheCommand();
    void installedLogConfigurationShowsWarningsOnly();
    void installedServiceServes();
    void unitTurnsItsVariablesIntoOptions_data();
    void unitTurnsItsVariablesIntoOptions();
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
         { "lib/systemd/system/tulo-settingsd.service",
           "lib/systemd/system/tulo-settings-migrate.service", "lib/sysusers.d/tulo-settingsd.conf",
           "lib/tmpfiles.d/tulo-settingsd.conf",
           "share/dbus-1/system-services/org.tulo.ConfigurationManager1.service",
           "share/dbus-1/system.d/org.tulo.ConfigurationManager1.conf",
           "share/dbus-1/interfaces/org.tulo.ConfigurationManager1.xml", "include/tulo/bus-types.h",
           "share/man/man1/tulo-cm.1", "share/man/man5/tulo-settings.5",
           "share/man/man5/org.tulo.ConfigurationManager1.5", "share/man/man8/tulo-settingsd.8",
           "share/bash-completion/completions/tulo-cm", "share/zsh/site-functions/_tulo-cm",
           "share/fish/vendor_completions.d/tulo-cm.fish",
           "share/tulo/tulo-settingsd-log.properties", "share/doc/tulo/docs/guarantees.md" })
        QVERIFY2(!readFile(installed(name)).isEmpty(), name);
    for (const char* name : { "bin/tulo-cm", "bin/tulo-settingsd" })
        QVERIFY2(QFileInfo(installed(name)).isExecutable(), name);
    const QByteArray unit = readFile(installed("lib/systemd/system/tulo-settingsd.service"));
    for (const char* line :
         { "\nType=notify\n", "\nUMask=0077\n", "\nTimeoutStartSec=900\n", "\nTimeoutStopSec=120\n",
           "\nLimitCORE=0\n", "\nRequiresMountsFor=/settings /etc/tulo/settings-default\n",
           "\nConditionPathIsDirectory=/etc/tulo/settings-default\n",
           "\nLimitNOFILE=", "\nRestart=on-failure\n", "\nStartLimitIntervalSec=0\n",
           "\nWatchdogSec=60\n", "\nEnvironmentFile=-/etc/default/tulo-settingsd\n",
           "\nBusName=org.tulo.ConfigurationManager1\n",
           "\nExecStartPre=-+/usr/bin/tulo-settingsd --adopt tulo-cm\n" })
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

    const QString unit = QString::fromUtf8(readFile(
        root.path() + prefix + QLatin1String("/lib/systemd/system/tulo-settingsd.service")));

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
    QCOMPARE(command.first(), prefix + QLatin1String("/bin/tulo-settingsd"));
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
               QStringLiteral("systemd-sysusers /opt/tulo/lib/sysusers.d/tulo-settingsd.conf"),
               QStringLiteral(
                   "systemd-tmpfiles --create /opt/tulo/lib/tmpfiles.d/tulo-settingsd.conf"),
               QStringLiteral("systemctl link /opt/tulo/lib/systemd/system/tulo-settingsd.service")
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
        writeFile(root.filePath(QString::fromLatin1(name)), content);
    };
    write("etc/passwd", "root:x:0:0::/:/bin/sh\ntulo-cm:x:4711:4712::/:/bin/false\n");
    write("etc/group", "root:x:0:\ntulo-cm:x:4712:\n");
    const QStringList arguments { QStringLiteral("--create"), QStringLiteral("--remove"),
                                  QStringLiteral("--clean"),
                                  QStringLiteral("--root=") + root.path(),
                                  installed("lib/tmpfiles.d/tulo-settingsd.conf") };

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

    // Where another framework owns it.
    const QByteArray name = QFile::encodeName(root.filePath(QStringLiteral("settings")));
    QCOMPARE(::chown(name.constData(), 1234, 1235), 0);
    QCOMPARE(::chmod(name.constData(), 0755), 0);
    const ChildResult third = ChildProcess::run(QStringLiteral("systemd-tmpfiles"), arguments);
    QVERIFY2(third.exitCode == 0, third.standardError);
    QCOMPARE(::stat(name.constData(), &tree), 0);
    QCOMPARE(tree.st_mode, mode_t(S_IFDIR | 0755));
    QCOMPARE(tree.st_uid, 1234U);
    QCOMPARE(tree.st_gid, 1235U);
}

void TstServicePackaging::unitIsHardened()
{
    if (QStandardPaths::findExecutable(QStringLiteral("systemd-analyze")).isEmpty())
        QSKIP("needs systemd-analyze");

    const ChildResult result =
        ChildProcess::run(QStringLiteral("systemd-analyze"),
                          { QStringLiteral("security"), QStringLiteral("--offline=true"),
                            QStringLiteral("--no-pager"), QStringLiteral("--threshold=20"),
                            installed("lib/systemd/system/tulo-settingsd.service") });

    const QRegularExpressionMatch exposure =
        QRegularExpression(QStringLiteral("Overall exposure level for [^:]*: ([0-9.]+)"))
            .match(QString::fromUtf8(result.standardOutput));
    QVERIFY2(exposure.hasMatch(), result.standardOutput + result.standardError);
    QVERIFY2(exposure.captured(1).toDouble() <= 2.0, qPrintable(exposure.captured()));
    QCOMPARE(result.exitCode, 0);
}

void TstServicePackaging::unitIsWellFormed_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("program");
    QTest::newRow("service") << QStringLiteral("tulo-settingsd.service")
                             << QByteArray("bin/tulo-settingsd");
    QTest::newRow("migration") << QStringLiteral("tulo-settings-migrate.service")
                               << QByteArray("bin/tulo-cm");
}

void TstServicePackaging::unitIsWellFormed()
{
    QFETCH(const QString, name);
    QFETCH(const QByteArray, program);
    if (QStandardPaths::findExecutable(QStringLiteral("systemd-analyze")).isEmpty())
        QSKIP("needs systemd-analyze");
    // With the program where this installation has it.
    const QTemporaryDir copy;
    writeFile(copy.filePath(name),
              readFile(installed("lib/systemd/system/") + name)
                  .replace("/usr/" + program, installed(program.constData()).toUtf8()));

    const ChildResult result =
        ChildProcess::run(QStringLiteral("systemd-analyze"),
                          { QStringLiteral("verify"), QStringLiteral("--man=no"),
                            QStringLiteral("--recursive-errors=no"), copy.filePath(name) });

    QVERIFY2(!result.standardError.contains(name.toUtf8()), result.standardError);
    QCOMPARE(result.exitCode, 0);
}

// Nobody enables it by installing.
void TstServicePackaging::unitOfTheMigrationIsForTheCommand()
{
    const QByteArray unit = readFile(installed("lib/systemd/system/tulo-settings-migrate.service"));

    QVERIFY2(unit.contains("\nType=oneshot\n"), unit);
    QVERIFY2(unit.contains("\nExecStart=/usr/bin/tulo-cm --in-process --product ${TULO_PRODUCT} "
                           "migrate\n"),
             unit);
    // Values, which the log must not have; and files that others may have to read.
    QVERIFY2(unit.contains("\nStandardOutput=null\n"), unit);
    QVERIFY2(!unit.contains("UMask="), unit);
    QVERIFY(!QFileInfo::exists(installed("lib/systemd/system/multi-user.target.wants")));
}

void TstServicePackaging::installedLogConfigurationShowsWarningsOnly()
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(
        trees, bus.address(),
        { QStringLiteral("--log-config"), installed("share/tulo/tulo-settingsd-log.properties") });
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
             "ERROR CMSettingsWorker: " + record + "\nERROR tulo-settingsd: not on disk: "
                 + volume.toUtf8() + " (" + record + ")\n");
    QCOMPARE(result.exitCode, 6);
}

void TstServicePackaging::installedServiceServes()
{
    const CommandLine trees;
    const PrivateBus bus;
    ChildProcess service(installed("bin/tulo-settingsd"),
                         trees.arguments({ QStringLiteral("--bus"), bus.address() }));
    QVERIFY(service.start());
    QVERIFY2(service.waitForError("INFO  tulo-settingsd: serving '"), service.standardError());

    QCOMPARE(BusClient(bus.address()).value(QStringLiteral("/settings/audio/volume")),
             QStringLiteral("x 35"));
    service.sendSignal(SIGTERM);
    QCOMPARE(service.finish().exitCode, 0);
}

void TstServicePackaging::unitTurnsItsVariablesIntoOptions_data()
{
    QTest::addColumn<QString>("product");
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("limit");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("value");
    QTest::newRow("none") << QString() << QString() << QString() << QStringLiteral("s \"Volume\"")
                          << QStringLiteral("x 35");
    QTest::newRow("all") << QStringLiteral("sport") << QStringLiteral("de") << QStringLiteral("9")
                         << QString::fromUtf8("s \"Lautst\303\244rke\"") << QStringLiteral("x 45");
}

// As systemd.service(5) has it: ${NAME} is one word, empty when the variable is, and $NAME as many
// as the variable has.
void TstServicePackaging::unitTurnsItsVariablesIntoOptions()
{
    QFETCH(const QString, product);
    QFETCH(const QString, language);
    QFETCH(const QString, limit);
    QFETCH(const QString, title);
    QFETCH(const QString, value);
    QString unit =
        QString::fromUtf8(readFile(installed("lib/systemd/system/tulo-settingsd.service")));
    unit.replace(QStringLiteral("\\\n"), QString());
    QStringList words =
        QRegularExpression(QStringLiteral("^ExecStart=(.*)$"), QRegularExpression::MultilineOption)
            .match(unit)
            .captured(1)
            .split(QLatin1Char(' '), Qt::SkipEmptyParts);
    const QHash<QString, QString> variables {
        { QStringLiteral("${TULO_PRODUCT}"), product },
        { QStringLiteral("${TULO_LANGUAGE}"), language },
        { QStringLiteral("${TULO_CATALOGUES}"),
          language.isEmpty() ? QString() : QStringLiteral(TULO_CATALOGUES) },
        { QStringLiteral("${TULO_CHANGES_PER_MINUTE}"), limit },
    };
    int replaced = 0;
    for (QString& word : words) {
        replaced += variables.contains(word) ? 1 : 0;
        word = variables.value(word, word);
        if (word.startsWith(QLatin1String("/usr/")))
            word = m_root.path() + word;
    }
    QCOMPARE(replaced, variables.size());
    QCOMPARE(words.removeAll(QStringLiteral("$TULO_OPTIONS")), 1);
    const TemporaryTree written;
    const PrivateBus bus;
    words << QStringLiteral("--default-path") << QStringLiteral(TULO_EXAMPLE_TREE)
          << QStringLiteral("--write-path") << written.writePath() << QStringLiteral("--bus")
          << bus.address();

    ChildProcess service(words.takeFirst(), words);
    QVERIFY(service.start());
    QVERIFY2(service.waitForError("INFO  tulo-settingsd: serving '"), service.standardError());

    const BusClient client(bus.address());
    QCOMPARE(client.call("GetData",
                         { QStringLiteral("/settings/audio/volume"),
                           QStringList { QStringLiteral("title"), QStringLiteral("value") } }),
             QStringLiteral("{title: %1, value: %2}").arg(title, value));
    QCOMPARE(client.property("Product"), QStringLiteral("s \"%1\"").arg(product));
    QCOMPARE(client.call("Statistics").contains(QLatin1String("limited: ")), !limit.isEmpty());
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

    const QByteArray told = answer.arguments().value(0).toString().toUtf8();
    const QByteArray committed =
        readFile(installed("share/dbus-1/interfaces/org.tulo.ConfigurationManager1.xml"));
    const QString first = QStringLiteral("org.tulo.ConfigurationManager1");
    const QVector<QPair<QString, int>> interfaces { { first, 16 },
                                                    { first + QLatin1String(".Change"), 6 },
                                                    { first + QLatin1String(".Admin"), 4 } };
    for (const auto& [interface, members] : interfaces) {
        QCOMPARE(interfaceOf(told, interface), interfaceOf(committed, interface));
        QCOMPARE(interfaceOf(told, interface).size(), members);
    }
    QCOMPARE(committed.count("<interface "), interfaces.size());
    // And the three of every object.
    QCOMPARE(told.count("<interface "), interfaces.size() + 3);
    QCOMPARE(service.end().exitCode, 0);
}

QTEST_GUILESS_MAIN(TstServicePackaging)
#include "tst_service_packaging.moc"
