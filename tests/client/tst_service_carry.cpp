#include "tests/daemon/servicefixture.h"
#include "tests/support/childprocess.h"
#include "tests/support/repeats.h"
#include "tests/support/waituntil.h"

#include <tulo/remotesettings.h>
#include <tulo/rowsmodel.h>
#include <tulo/setting.h>

#include <QRandomGenerator>
#include <QTest>

#include <algorithm>
#include <csignal>
#include <memory>
#include <vector>

using namespace tulo;

namespace {

/// A service on trees and a bus, and commands on it.
class Device
{
public:
    Device() = default;

    bool serve()
    {
        m_service = std::make_unique<ServiceProcess>(trees, m_bus.address());
        m_service->replaceSync("true");
        return m_service->serve();
    }
    /// Everything is in the files then.
    bool end() { return m_service->end().exitCode == 0; }

    QString bus() const { return m_bus.address(); }
    ChildResult run(const QStringList& words, const QByteArray& input = QByteArray()) const
    {
        return ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM),
                                 QStringList { QStringLiteral("--bus"), m_bus.address() } + words,
                                 input);
    }
    ChildResult run(const char* line, const QByteArray& input = QByteArray()) const
    {
        return run(QString::fromUtf8(line).split(QLatin1Char(' ')), input);
    }

    CommandLine trees;

private:
    const PrivateBus m_bus;
    std::unique_ptr<ServiceProcess> m_service;
};

QByteArray loaded(int count)
{
    return "settings: " + QByteArray::number(count)
        + " loaded, 0 moved, 0 adjusted, 0 reset, 0 left out\n";
}

QByteArray dumpOf(const Device& device)
{
    const ChildResult result = device.run("dump --secrets");
    return result.exitCode == 0 ? result.standardOutput : result.standardError;
}

} // namespace

/// Settings carried from and to a device whose service runs.
class tst_ServiceCarry : public QObject
{
    Q_OBJECT

private slots:
    void dumpIsTheSameBothWays();
    void dumpHasWhatIsNotWrittenYet();
    void loadedSettingsKeepTheirTimestampsAndAreOnDisk();
    void secretsAreCarriedThroughTheService();
    void refusedSettingLeavesAllUnchanged();
    void whatDoesNotFitInOneRequestIsRefused();
    void replaceNeedsTheServiceStopped();
    void clientsEndWithWhatTheServiceHas();
};

void tst_ServiceCarry::dumpIsTheSameBothWays()
{
    Device device;
    device.trees.tree.writeDefault(QStringLiteral("/secret"),
                                   R"({"value":{"string":"x"},"encrypted":true})");
    QVERIFY(device.serve());
    const char* const changes[] = { "set /settings/audio/volume 20",
                                    "set /settings/presets/two fm:90", "set /settings/secret pass",
                                    "flush" };
    for (const char* line : changes)
        QCOMPARE(device.run(line).exitCode, 0);
    for (const char* line : { "dump", "dump --secrets", "dump /settings/presets" }) {
        const ChildResult served = device.run(line);
        const ChildResult own = device.trees.run(line);

        QCOMPARE(served.exitCode, 0);
        QCOMPARE(own.exitCode, 0);
        QVERIFY(served.standardOutput.count('\n') >= 2);
        QCOMPARE(served.standardOutput, own.standardOutput);
    }
}

void tst_ServiceCarry::dumpHasWhatIsNotWrittenYet()
{
    Device device;
    QVERIFY(device.serve());
    const BusClient client(device.bus());
    // One that equals the default is changed, too.
    QVERIFY(!client.call("SetValue", { QStringLiteral("/settings/audio/volume"), variantOf(35) })
                 .contains(QLatin1String("Error")));

    const QByteArray dump = dumpOf(device);

    QVERIFY2(dump.startsWith(R"({"count":1,)"), dump);
    QVERIFY2(dump.endsWith(R"("value":35})"
                           "\n"),
             dump);
    QVERIFY(dump.contains(R"("timestamp":1)"));
}

void tst_ServiceCarry::loadedSettingsKeepTheirTimestampsAndAreOnDisk()
{
    Device device;
    device.trees.tree.writeDefault(QStringLiteral("/moved"), R"({"id":"M-1","value":{"int":1}})");
    QVERIFY(device.serve());
    QByteArray dump = dumpOf(device);
    dump.replace("\"count\":0", "\"count\":3");
    dump += R"({"path":"/settings/audio/volume","timestamp":1700000000001,"value":20})"
            "\n"
            R"({"id":"M-1","path":"/settings/old","timestamp":1700000000002,"value":5})"
            "\n"
            R"({"path":"/settings/presets/new","timestamp":1700000000003,"value":"fm:1"})"
            "\n";
    SignalRecorder recorder(QDBusConnection::connectToBus(device.bus(), QStringLiteral("watch")));

    const ChildResult result = device.run("load -", dump);

    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.standardOutput,
             QByteArray("/settings/old -> /settings/moved\n"
                        "settings: 3 loaded, 1 moved, 0 adjusted, 0 reset, 0 left out\n"));
    QCOMPARE(result.exitCode, 0);
    QVERIFY(recorder.waitFor(QStringLiteral("ValueChanged /settings/moved x 5")));
    QDBusConnection::disconnectFromBus(QStringLiteral("watch"));
    QCOMPARE(device.trees.tree.readWritten(QStringLiteral("/audio/volume")),
             QByteArray(R"({"timestamp":1700000000001,"value":{"int":20}})"));
    QCOMPARE(device.trees.tree.readWritten(QStringLiteral("/moved")),
             QByteArray(R"({"id":"M-1","timestamp":1700000000002,"value":{"int":5}})"));
    dump.replace("/settings/old", "/settings/moved");
    const QByteArrayList lines = dump.split('\n');
    QCOMPARE(dumpOf(device),
             lines.at(0) + '\n' + lines.at(1) + '\n' + lines.at(2) + '\n' + lines.at(3) + '\n');
}

void tst_ServiceCarry::secretsAreCarriedThroughTheService()
{
    Device device;
    device.trees.tree.writeDefault(QStringLiteral("/secret"),
                                   R"({"value":{"string":"x"},"encrypted":true})");
    QVERIFY(device.serve());
    QCOMPARE(device.run("set /settings/secret pass --flush").exitCode, 0);
    const QByteArray dump = dumpOf(device);
    QVERIFY(dump.contains("pass"));
    QCOMPARE(device.run("set /settings/secret other").exitCode, 0);

    const ChildResult result = device.run("load -", dump);

    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.standardOutput, loaded(1));
    QCOMPARE(dumpOf(device), dump);
}

void tst_ServiceCarry::refusedSettingLeavesAllUnchanged()
{
    Device device;
    QVERIFY(device.serve());
    const QByteArray empty = dumpOf(device);
    QByteArray dump = empty;
    dump.replace("\"count\":0", "\"count\":2");
    dump += R"({"path":"/settings/audio/volume","value":20})"
            "\n"
            R"({"path":"/settings/audio/mode","value":"top"})"
            "\n";

    const ChildResult result = device.run("load -", dump);
    const ChildResult skipped = device.run("load - --skip-refused --dry-run", dump);

    QCOMPARE(result.exitCode, 4);
    QVERIFY2(result.standardError.startsWith("tulo-cm: -:3: The value for '/settings/audio/mode'"),
             result.standardError);
    QCOMPARE(skipped.standardOutput,
             QByteArray("dry run: 1 loaded, 0 moved, 0 adjusted, 0 reset, 1 left out\n"));
    QCOMPARE(skipped.exitCode, 5);
    QCOMPARE(dumpOf(device), empty);
}

void tst_ServiceCarry::whatDoesNotFitInOneRequestIsRefused()
{
    Device device;
    device.trees.tree.writeDefault(QStringLiteral("/texts/.meta"), "{}");
    QVERIFY(device.serve());
    const QByteArray empty = dumpOf(device);
    QByteArray dump = empty;
    constexpr int count = 26;
    dump.replace("\"count\":0", "\"count\":" + QByteArray::number(count));
    for (int i = 0; i < count; ++i) {
        dump += "{\"path\":\"/settings/texts/n" + QByteArray::number(i) + "\",\"timestamp\":7,"
            + "\"value\":\"" + QByteArray(42000, 'x') + "\"}\n";
    }

    const ChildResult result = device.run("load -", dump);

    QVERIFY2(result.standardError.startsWith("tulo-cm: nothing was changed: ")
                 && result.standardError.endsWith("; stop the service and load with "
                                                  "'--in-process'\n"),
             result.standardError);
    QCOMPARE(result.exitCode, 4);
    QCOMPARE(dumpOf(device), empty);
    // That works.
    QVERIFY(device.end());
    QCOMPARE(device.trees.run("load -", dump).standardOutput, loaded(count));
}

void tst_ServiceCarry::replaceNeedsTheServiceStopped()
{
    Device device;
    QVERIFY(device.serve());
    QCOMPARE(device.run("set /settings/audio/volume 20").exitCode, 0);
    const QByteArray before = dumpOf(device);

    const ChildResult served = device.run("load - --replace", before);
    const ChildResult own = device.trees.run("load - --replace", before);

    QCOMPARE(served.standardError,
             QByteArray("tulo-cm: '--replace' works on the files alone: stop the service and load "
                        "with '--in-process'\n"));
    QCOMPARE(served.exitCode, 7);
    QCOMPARE(own.exitCode, 7);
    QCOMPARE(dumpOf(device), before);
}

// -------------------------------------------------------------------------------------------
// Programs that read, change and watch while dumps are loaded.
// -------------------------------------------------------------------------------------------

namespace {

constexpr int clientCount = 8;
constexpr int settingCount = 12;
const QString directory = QStringLiteral("/settings/shared");
const QStringList valueRole { QStringLiteral("value") };

QStringList sharedPaths()
{
    QStringList paths;
    for (int i = 0; i < settingCount; ++i)
        paths.append(QStringLiteral("%1/s%2").arg(directory).arg(i));
    return paths;
}

class Client
{
public:
    explicit Client(const QString& bus)
        : m_settings(bus)
        , m_rows(&m_settings, directory, valueRole)
    {
        const QStringList paths = sharedPaths();
        for (const QString& path : paths)
            m_values.push_back(std::make_unique<Setting<qint64>>(&m_settings, path));
    }

    void act(QRandomGenerator* random)
    {
        const QString path = sharedPaths().at(random->bounded(settingCount));
        if (random->bounded(2) == 0)
            m_reads.append(m_settings.get(path, {}));
        else
            m_changes.append(m_settings.set(path, qint64(random->bounded(1000))));
    }
    bool isAnswered() const
    {
        const auto isFinished = [](const auto& reply) {
            return reply.isFinished();
        };
        return std::all_of(m_reads.cbegin(), m_reads.cend(), isFinished)
            && std::all_of(m_changes.cbegin(), m_changes.cend(), isFinished);
    }
    QString kept() const
    {
        QStringList texts;
        for (const auto& value : m_values)
            texts.append(QString::number(value->value()));
        for (int row = 0; row < m_rows.rowCount(); ++row)
            texts.append(m_rows.index(row, 1).data().toString());
        return texts.join(QLatin1Char(' '));
    }
    /// What the service has, in the same form.
    QString expected()
    {
        QStringList texts;
        const auto nodes = m_settings.getMany(sharedPaths(), valueRole);
        const auto rows = m_settings.rows(directory, 0, 99, valueRole);
        if (!nodes.wait() || !rows.wait())
            return QStringLiteral("no answer");
        for (const Node& node : nodes.value())
            texts.append(node.roles.value(valueRole.first()).toString());
        for (const Row& row : rows.value().rows)
            texts.append(row.roles.value(valueRole.first()).toString());
        return texts.join(QLatin1Char(' '));
    }

private:
    RemoteSettings m_settings;
    std::vector<std::unique_ptr<Setting<qint64>>> m_values;
    RowsModel m_rows;
    QVector<Reply<QVariantMap>> m_reads;
    QVector<Reply<Change>> m_changes;
};

} // namespace

void tst_ServiceCarry::clientsEndWithWhatTheServiceHas()
{
    Device device;
    for (int i = 0; i < settingCount; ++i) {
        device.trees.tree.writeDefault(QStringLiteral("/shared/s%1").arg(i),
                                       R"({"value":{"int":5}})");
    }
    QVERIFY(device.serve());
    QByteArray header = dumpOf(device);
    header.replace("\"count\":0", "\"count\":" + QByteArray::number(settingCount));
    QRandomGenerator random(1);
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < clientCount; ++i)
        clients.push_back(std::make_unique<Client>(device.bus()));

    const int rounds = repeats(6, 200);
    for (int round = 0; round < rounds; ++round) {
        QByteArray dump = header;
        for (const QString& path : sharedPaths()) {
            dump += "{\"path\":\"" + path.toUtf8()
                + "\",\"timestamp\":" + QByteArray::number(round + 1)
                + ",\"value\":" + QByteArray::number(random.bounded(1000)) + "}\n";
        }
        ChildProcess load(
            QStringLiteral(TULO_CM_PROGRAM),
            { QStringLiteral("--bus"), device.bus(), QStringLiteral("load"), QStringLiteral("-") });
        QVERIFY(load.start());
        load.writeInput(dump);
        load.closeInput();
        // They meet wherever they do.
        for (int i = 0; i < 40; ++i) {
            clients.at(random.bounded(clientCount))->act(&random);
            QCoreApplication::processEvents();
        }
        QVERIFY(waitUntil([&load] { return load.hasEnded(); }));
        const ChildResult result = load.finish();
        QCOMPARE(result.standardError, QByteArray());
        QCOMPARE(result.standardOutput, loaded(settingCount));
    }
    for (const auto& client : clients)
        QVERIFY(waitUntil([&client] { return client->isAnswered(); }));

    const QString expected = clients.front()->expected();
    for (const auto& client : clients) {
        if (!waitUntil([&] { return client->kept() == expected; }))
            QCOMPARE(client->kept(), expected);
    }
    // So do the files.
    QVERIFY(device.end());
    QVERIFY(device.serve());
    QVERIFY(waitUntil([&] { return clients.front()->expected() == expected; }));
}

QTEST_GUILESS_MAIN(tst_ServiceCarry)
#include "tst_service_carry.moc"
