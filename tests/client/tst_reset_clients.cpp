#include "tests/daemon/servicefixture.h"
#include "tests/support/childprocess.h"
#include "tests/support/repeats.h"
#include "tests/support/temporarytree.h"
#include "tests/support/waituntil.h"

#include <tulo/remotesettings.h>
#include <tulo/rowsmodel.h>
#include <tulo/setting.h>

#include <QTest>

#include <algorithm>
#include <csignal>
#include <memory>
#include <random>
#include <vector>

using namespace tulo;

namespace {

constexpr int clientCount = 8;
constexpr int settingCount = 10; ///< in each of the directories

const QString fixedDirectory = QStringLiteral("/settings/fixed"); // with defaults
const QString madeDirectory = QStringLiteral("/settings/made"); // made at run time
const QStringList valueRole { QStringLiteral("value") };

QStringList allPaths()
{
    QStringList paths;
    for (const QString& directory : { fixedDirectory, madeDirectory }) {
        for (int i = 0; i < settingCount; ++i)
            paths.append(QStringLiteral("%1/s%2").arg(directory).arg(i));
    }
    return paths;
}

/// "NAME=VALUE", a line for each row.
QString shown(const RowsModel& model)
{
    QStringList lines;
    for (int row = 0; row < model.rowCount(); ++row) {
        lines.append(model.index(row, 0).data().toString() + QLatin1Char('=')
                     + model.index(row, 1).data().toString());
    }
    return lines.join(QLatin1Char('\n'));
}

QString shown(const Rows& rows)
{
    QStringList lines;
    for (const Row& row : rows.rows)
        lines.append(row.name + QLatin1Char('=') + row.roles.value(valueRole.first()).toString());
    return lines.join(QLatin1Char('\n'));
}

/// A program on a separate connection, which keeps all settings and both directories.
class Client
{
public:
    explicit Client(const QString& bus)
        : settings(bus)
    {
        const QStringList paths = allPaths();
        for (const QString& path : paths)
            m_values.push_back(std::make_unique<Setting<qint64>>(&settings, path));
        for (const QString& directory : { fixedDirectory, madeDirectory })
            m_models.push_back(std::make_unique<RowsModel>(&settings, directory, valueRole));
    }

    /// Changes, reads or resets something.
    void act(std::mt19937* random)
    {
        const QStringList paths = allPaths();
        const QString& path = paths.at(int((*random)() % unsigned(paths.size())));
        const QString& second = paths.at(int((*random)() % unsigned(paths.size())));
        ResetOptions below;
        below.isRecursive = true;
        switch ((*random)() % 8) {
        case 0:
            m_resets.append(settings.reset({ path }));
            break;
        case 1:
            m_resets.append(settings.reset({ path, second }));
            break;
        case 2:
            m_resets.append(settings.reset({ path.section(QLatin1Char('/'), 0, 2) }, below));
            break;
        case 3:
            m_reads.append(settings.get(path, {}));
            break;
        default:
            m_changes.append(settings.set(path, qint64((*random)() % 1000)));
        }
    }
    bool isAnswered() const
    {
        const auto isFinished = [](const auto& reply) {
            return reply.isFinished();
        };
        return std::all_of(m_resets.cbegin(), m_resets.cend(), isFinished)
            && std::all_of(m_changes.cbegin(), m_changes.cend(), isFinished)
            && std::all_of(m_reads.cbegin(), m_reads.cend(), isFinished);
    }
    /// Resets that were carried out, and errors that no such request has.
    int resetCount() const
    {
        return int(std::count_if(m_resets.cbegin(), m_resets.cend(), [](const auto& reply) {
            return !reply.error() && !reply.value().isEmpty();
        }));
    }
    QStringList unexpectedErrors() const
    {
        QStringList messages;
        for (const auto& reply : m_resets) {
            if (reply.error() && reply.error().code != ErrorCode::InvalidPath)
                messages.append(reply.error().message);
        }
        for (const auto& reply : m_changes) {
            if (reply.error())
                messages.append(reply.error().message);
        }
        return messages;
    }

    /// What it keeps, as expected() says it.
    QString kept() const
    {
        QStringList texts;
        for (const auto& value : m_values) {
            texts.append(value->error() ? value->error().name() : QString::number(value->value()));
        }
        for (const auto& model : m_models)
            texts.append(shown(*model));
        return texts.join(QLatin1Char('\n'));
    }
    /// What the service has.
    static QString expected(Settings* settings)
    {
        QStringList texts;
        const Reply<QVector<Node>> nodes = settings->getMany(allPaths(), valueRole);
        if (!nodes.wait())
            return nodes.error().message;
        for (const Node& node : nodes.value()) {
            texts.append(node.error ? node.error.name()
                                    : node.roles.value(valueRole.first()).toString());
        }
        for (const QString& directory : { fixedDirectory, madeDirectory }) {
            const Reply<Rows> rows = settings->rows(directory, 0, 99, valueRole);
            if (!rows.wait())
                return rows.error().message;
            texts.append(shown(rows.value()));
        }
        return texts.join(QLatin1Char('\n'));
    }

    RemoteSettings settings;

private:
    std::vector<std::unique_ptr<Setting<qint64>>> m_values;
    std::vector<std::unique_ptr<RowsModel>> m_models;
    QVector<Reply<QStringList>> m_resets;
    QVector<Reply<Change>> m_changes;
    QVector<Reply<QVariantMap>> m_reads;
};

} // namespace

/// Programs that change, read, watch and reset the same settings.
class tst_ResetClients : public QObject
{
    Q_OBJECT

private slots:
    void clientsEndWithWhatTheServiceHas();
};

void tst_ResetClients::clientsEndWithWhatTheServiceHas()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/.meta"), "{}");
    tree.writeDefault(QStringLiteral("/fixed/.meta"), R"({"modifiable":false})");
    tree.writeDefault(QStringLiteral("/made/.meta"), R"({"defaultValue":{"int":1}})");
    for (int i = 0; i < settingCount; ++i)
        tree.writeDefault(QStringLiteral("/fixed/s%1").arg(i), R"({"value":{"int":5}})");
    const PrivateBus bus;
    ChildProcess service(QStringLiteral(TULO_SETTINGSD_PROGRAM),
                         { QStringLiteral("--default-path"), tree.defaultPath(),
                           QStringLiteral("--write-path"), tree.writePath(),
                           QStringLiteral("--bus"), bus.address() });
    service.setVariable(QStringLiteral("LD_PRELOAD"), QStringLiteral(TULO_SCRIPTED_SYNC));
    service.setVariable(QStringLiteral("TULO_TEST_SYNC"), QStringLiteral("true"));
    QVERIFY(service.start() && service.waitForError("serving '"));
    const unsigned seed = randomSeed();
    qInfo("seed %u", seed);
    std::mt19937 random(seed);
    std::vector<std::unique_ptr<Client>> clients;
    clients.reserve(clientCount);
    for (int i = 0; i < clientCount; ++i)
        clients.push_back(std::make_unique<Client>(bus.address()));

    const int actions = repeats(300, 20000);
    for (int i = 0; i < actions; ++i) {
        clients.at(random() % clientCount)->act(&random);
        // Some at a time, so that they meet.
        if (random() % 8 == 0)
            QCoreApplication::processEvents();
    }
    QVERIFY(waitUntil([&clients] {
        return std::all_of(clients.cbegin(), clients.cend(),
                           [](const auto& client) { return client->isAnswered(); });
    }));

    int resets = 0;
    for (const auto& client : clients) {
        QCOMPARE(client->unexpectedErrors(), QStringList());
        resets += client->resetCount();
    }
    qInfo("%d resets", resets);
    QVERIFY(resets > 0);
    RemoteSettings settings(bus.address());
    const QString expected = Client::expected(&settings);
    for (const auto& client : clients) {
        if (!waitUntil([&] { return client->kept() == expected; }))
            QCOMPARE(client->kept(), expected);
    }
    service.sendSignal(SIGTERM);
    QCOMPARE(service.finish().exitCode, 0);
    // Started again, it serves the same.
    ChildProcess again(QStringLiteral(TULO_SETTINGSD_PROGRAM),
                       { QStringLiteral("--default-path"), tree.defaultPath(),
                         QStringLiteral("--write-path"), tree.writePath(), QStringLiteral("--bus"),
                         bus.address() });
    QVERIFY(again.start() && again.waitForError("serving '"));
    QVERIFY(waitUntil([&] { return settings.state() == Settings::State::Ready; }));
    QCOMPARE(Client::expected(&settings), expected);
}

QTEST_GUILESS_MAIN(tst_ResetClients)
#include "tst_reset_clients.moc"
