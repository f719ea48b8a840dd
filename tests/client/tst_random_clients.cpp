#include "tests/daemon/servicefixture.h"
#include "tests/support/childprocess.h"
#include "tests/support/repeats.h"
#include "tests/support/temporarytree.h"

#include <tulo/remotesettings.h>

#include <QSignalSpy>
#include <QTest>

#include <csignal>
#include <memory>
#include <random>
#include <vector>

using namespace tulo;

namespace {

constexpr int clientCount = 8;
constexpr int settingCount = 20;

QString pathOf(int setting)
{
    return QStringLiteral("/settings/random/s%1").arg(setting);
}

bool waitForState(const Settings& settings, Settings::State state)
{
    if (settings.state() == state)
        return true;
    QSignalSpy changes(&settings, &Settings::stateChanged);
    while (settings.state() != state) {
        if (!changes.wait(ChildProcess::waitMs))
            return false;
    }
    return true;
}

} // namespace

/// Programs that change the same settings while the service is killed and started again: in the end
/// each knows what the service has.
class tst_RandomClients : public QObject
{
    Q_OBJECT

private slots:
    void cachesEqualTheServiceInTheEnd();

private:
    std::unique_ptr<ChildProcess> startService() const;

    const TemporaryTree m_tree;
    const PrivateBus m_bus;
};

std::unique_ptr<ChildProcess> tst_RandomClients::startService() const
{
    auto service = std::make_unique<ChildProcess>(
        QStringLiteral(TULO_SETTINGSD_PROGRAM),
        QStringList { QStringLiteral("--default-path"), m_tree.defaultPath(),
                      QStringLiteral("--write-path"), m_tree.writePath(), QStringLiteral("--bus"),
                      m_bus.address() });
    service->setVariable(QStringLiteral("LD_PRELOAD"), QStringLiteral(TULO_SCRIPTED_SYNC));
    service->setVariable(QStringLiteral("TULO_TEST_SYNC"), QStringLiteral("true"));
    if (!service->start() || !service->waitForError("serving '"))
        qFatal("the service does not start: %s", service->standardError().constData());
    return service;
}

void tst_RandomClients::cachesEqualTheServiceInTheEnd()
{
    m_tree.writeDefault(QStringLiteral("/.meta"), "{}");
    m_tree.writeDefault(QStringLiteral("/random/.meta"), "{}");
    for (int i = 0; i < settingCount; ++i) {
        m_tree.writeDefault(QStringLiteral("/random/s%1").arg(i),
                            R"({"value":{"int":1000},"edit":{"kind":"int"}})");
    }
    const unsigned seed = randomSeed();
    qInfo("seed %u", seed);
    std::mt19937 random(seed);
    auto service = startService();
    std::vector<std::unique_ptr<ChildProcess>> clients;
    for (int i = 0; i < clientCount; ++i) {
        clients.push_back(std::make_unique<ChildProcess>(
            QStringLiteral(TULO_RANDOM_CLIENT),
            QStringList { m_bus.address(), QString::number(random()) }));
        QVERIFY(clients.back()->start());
    }

    RemoteSettings settings(m_bus.address());
    const int rounds = repeats(4, 200);
    for (int round = 0; round < rounds; ++round) {
        // Any client's next fifty changes, so that each is served again after the restart; then at
        // another moment each time.
        ChildProcess& client = *clients.at(random() % clientCount);
        const int lines = client.standardOutput().count('\n');
        const QByteArray next = "answered " + QByteArray::number((lines + 1) * 50) + '\n';
        QVERIFY2(client.waitForOutput(next), client.standardError().constData());
        service->sendSignal(SIGKILL);
        service->finish();
        // The bus has to know that the name is free.
        QVERIFY(waitForState(settings, Settings::State::Away));
        service = startService();
        QVERIFY(waitForState(settings, Settings::State::Ready));
    }
    for (const auto& client : clients)
        client->writeInput("stop\n");
    for (const auto& client : clients)
        QVERIFY2(client->waitForOutput("stopped\n"), client->standardError().constData());

    QByteArray expected;
    for (int i = 0; i < settingCount; ++i) {
        const auto reply = settings.get(pathOf(i), { QStringLiteral("value") });
        QVERIFY(reply.wait());
        expected += pathOf(i).toUtf8() + '='
            + reply.value().value(QStringLiteral("value")).toString().toUtf8() + '\n';
    }
    for (const auto& client : clients) {
        client->writeInput("report\n");
        const ChildResult result = client->finish();
        QCOMPARE(result.standardError, QByteArray());
        QCOMPARE(result.exitCode, 0);
        const int end = result.standardOutput.indexOf("stopped\n") + int(qstrlen("stopped\n"));
        QCOMPARE(result.standardOutput.mid(end), expected);
    }
    service->sendSignal(SIGTERM);
    QCOMPARE(service->finish().exitCode, 0);
}

QTEST_GUILESS_MAIN(tst_RandomClients)
#include "tst_random_clients.moc"
