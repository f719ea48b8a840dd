#include "tests/daemon/servicefixture.h"

#include <QTemporaryDir>
#include <QTest>

/// Programs made of the description of the interfaces as it is installed, by the generators of Qt
/// and GLib: they compile and work.
class TstServiceProxies : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void classesOfQtWork();
    void functionsOfGLibWork();

private:
    /// Builds the program of a shell script, and runs it on the bus of a service.
    void buildAndRun(const char* script, const QByteArray& output);

    const QTemporaryDir m_root;
};

void TstServiceProxies::initTestCase()
{
    const ChildResult result = install(m_root.path(), QStringLiteral("/usr"));
    QVERIFY2(result.exitCode == 0, result.standardError);
}

void TstServiceProxies::buildAndRun(const char* script, const QByteArray& output)
{
    const CommandLine trees;
    const PrivateBus bus;
    ServiceProcess service(trees, bus.address(),
                           { QStringLiteral("--log-level"), QStringLiteral("error") });
    QVERIFY2(service.serve(), service.standardError());
    const QTemporaryDir work;
    ChildProcess build(QStringLiteral("sh"),
                       { QStringLiteral("-exc"), QString::fromLatin1(script), QStringLiteral("sh"),
                         m_root.path() + QLatin1String("/usr"),
                         QStringLiteral(TULO_SOURCE_DIR "/tests/daemon/proxies") });
    build.setWorkingDirectory(work.path());
    QVERIFY(build.start());
    // As long as the compiler takes, on a busy machine minutes; the test's own limit ends it.
    constexpr int noLimit = -1;
    const ChildResult built = build.finish(noLimit);
    QVERIFY2(built.exitCode == 0, built.standardError);

    const ChildResult result =
        ChildProcess::run(work.filePath(QStringLiteral("client")), { bus.address() });

    QVERIFY2(result.exitCode == 0, result.standardError);
    QCOMPARE(result.standardOutput, output);
    QCOMPARE(service.end().exitCode, 0);
}

// The classes of the first interface and of those below it in sources apart: the namespaces that
// qdbusxml2cpp adds exclude each other.
void TstServiceProxies::classesOfQtWork()
{
    buildAndRun(R"(
xml=$1/share/dbus-1/interfaces/org.tulo.ConfigurationManager1.xml
name=org.tulo.ConfigurationManager1
qdbusxml2cpp -i tulo/bus-types.h -c SettingsReader -p reader "$xml" $name
qdbusxml2cpp -i tulo/bus-types.h -c SettingsChanger -p changer "$xml" $name.Change
qdbusxml2cpp -i tulo/bus-types.h -c SettingsAdmin -p admin "$xml" $name.Admin

for class in reader changer admin; do
    $(pkg-config --variable=host_bins Qt5Core)/moc $class.h -o $class.moc.cpp
    cat $class.cpp $class.moc.cpp >$class.made.cpp
done
g++ -std=c++17 -fPIC -Wall -Wextra -Werror -I . -I "$1/include" "$2/reader.cpp" "$2/changer.cpp" \
    ./*.made.cpp $(pkg-config --cflags --libs Qt5DBus) -o client
)",
                "/settings/audio/volume 35\n"
                "/settings/nothing InvalidPath: Invalid path '/settings/nothing'\n"
                "5 volume 4\n"
                "40 it does not lie on a 'step' (5) 1 0\n"
                "40 0\n");
}

void TstServiceProxies::functionsOfGLibWork()
{
    buildAndRun(R"(
gdbus-codegen --interface-prefix org.tulo. --c-namespace Tulo --generate-c-code settings \
    "$1/share/dbus-1/interfaces/org.tulo.ConfigurationManager1.xml"
gcc -Wall -Wextra -Werror -Wno-unused-parameter -I . "$2/client.c" settings.c \
    $(pkg-config --cflags --libs gio-unix-2.0) -o client
)",
                "{'value': <int64 35>} 60 0\n");
}

QTEST_GUILESS_MAIN(TstServiceProxies)
#include "tst_service_proxies.moc"
