#include "tests/daemon/servicefixture.h"
#include "tests/support/hostilerequests.h"

#include "api/core/tuloroles.h"
#include "api/core/tulovalue.h"

#include <QFileInfo>
#include <QTest>

#include <algorithm>
#include <memory>

namespace {

const QString volume = QStringLiteral("/settings/audio/volume");

QVariantMap mapOf(const QVariant& object)
{
    QVariantMap map;
    const QVariantHash hash = object.toHash();
    for (auto entry = hash.cbegin(); entry != hash.cend(); ++entry)
        map.insert(entry.key(), *entry);
    return map;
}

// Hashes are what the worker takes, maps what the bus does.
QVariant forBus(const QVariant& value)
{
    if (value.userType() == QMetaType::QVariantHash) {
        QVariantMap map = mapOf(value);
        for (QVariant& entry : map)
            entry = forBus(entry);
        return map;
    }
    if (value.userType() == QMetaType::QVariantList) {
        QVariantList list = value.toList();
        for (QVariant& entry : list)
            entry = forBus(entry);
        return list;
    }
    return value;
}

// A library that is handed a null, or a type that the bus does not know, refuses or ends its
// process; a null on the wire has a test of its own.
bool canBeSent(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::QVariantList: {
        const QVariantList list = value.toList();
        return std::all_of(list.cbegin(), list.cend(), canBeSent);
    }
    case QMetaType::QVariantHash: {
        const QVariantHash hash = value.toHash();
        return std::all_of(hash.cbegin(), hash.cend(), canBeSent);
    }
    default:
        return value.isValid() && value.userType() != QMetaType::QChar;
    }
}

bool canBeSent(const Attempt& attempt)
{
    const bool isChangeOfValue = attempt.role == TuloRoles::Value()
        || attempt.role == TuloRoles::SetRoles() || attempt.role == TuloRoles::ValueOperation();
    return !isChangeOfValue || canBeSent(attempt.value);
}

// Half characters become whole ones on their way to the bus, and a zero character ends a text.
bool arrivesWhole(const QVariant& value)
{
    const auto isWhole = [](const QString& text) {
        return text.isValidUtf16() && !text.contains(QChar(0));
    };
    const auto isWholeEntry = [&isWhole](const QString& key, const QVariant& entry) {
        return isWhole(key) && arrivesWhole(entry);
    };
    switch (value.userType()) {
    case QMetaType::QString:
        return isWhole(value.toString());
    case QMetaType::QVariantList: {
        const QVariantList list = value.toList();
        return std::all_of(list.cbegin(), list.cend(), arrivesWhole);
    }
    case QMetaType::QVariantHash: {
        const QVariantMap map = mapOf(value);
        for (auto entry = map.cbegin(); entry != map.cend(); ++entry) {
            if (!isWholeEntry(entry.key(), *entry))
                return false;
        }
        return true;
    }
    default:
        return true;
    }
}

bool arrivesWhole(const Attempt& attempt)
{
    return arrivesWhole(attempt.path) && arrivesWhole(attempt.role) && arrivesWhole(attempt.value);
}

bool isObject(const QVariant& value)
{
    return value.userType() == QMetaType::QVariantHash;
}

// What is no object in a request is a plain value on the bus, and no offence there.
bool isPlain(const Attempt& attempt)
{
    QVariant value;
    if (attempt.role == TuloRoles::Value())
        value = attempt.value;
    else if (attempt.role == TuloRoles::SetRoles() && attempt.value.toHash().size() == 1)
        value = attempt.value.toHash().value(TuloRoles::Value());
    return value.isValid() && !isObject(value) && value.userType() != QMetaType::QByteArray;
}

// The method that comes nearest to the request. Arguments of the wrong type are sent as they are.
QString send(const BusClient& client, const Attempt& attempt)
{
    switch (attempt.kind) {
    case CMRequest::Kind::GetData:
        return client.call("GetData", { attempt.path, attempt.roles });
    case CMRequest::Kind::GetRows:
        return client.call("GetRows",
                           { attempt.path, attempt.firstRow, attempt.lastRow, attempt.roles });
    default:
        break;
    }
    const QVariant value = forBus(attempt.value);
    if (attempt.role == TuloRoles::Value())
        return client.call("SetValue", { attempt.path, variantOf(value) });
    if (attempt.role == TuloRoles::SetRoles())
        return client.call("SetRoles", { attempt.path, value });
    if (attempt.role == TuloRoles::ValueOperation()) {
        QVariantMap operation = mapOf(attempt.value);
        const QVariant verb = operation.value(QStringLiteral("op"), QString());
        QVariantList operand;
        if (operation.contains(TuloRoles::Value()))
            operand.append(variantOf(forBus(operation.value(TuloRoles::Value()))));
        return client.call("Apply", { attempt.path, verb, QVariant(operand) });
    }
    const QVariant sent = value.isValid() ? value : QVariant(true);
    return client.call("SetRoles", { attempt.path, QVariantMap { { attempt.role, sent } } });
}

} // namespace

/// Everything that clients may try, over the bus, on one service that lives through all of it.
class TstServiceHostile : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void requestIsRefusedAndTheServiceLives_data() { addHostileRequests(); }
    void requestIsRefusedAndTheServiceLives();

private:
    const CommandLine m_trees;
    const PrivateBus m_bus;
    ServiceProcess m_service { m_trees,
                               m_bus.address(),
                               { QStringLiteral("--log-level"), QStringLiteral("error") } };
    std::unique_ptr<BusClient> m_client;
    QStringList m_entries;
};

void TstServiceHostile::initTestCase()
{
    QVERIFY2(m_service.serve(), m_service.standardError());
    // Afterwards, as it does not start on a tree with a socket.
    makeHostileTrees(m_trees.tree);
    m_client = std::make_unique<BusClient>(m_bus.address());
    m_entries = m_trees.tree.writtenEntries();
    m_client->call("SetValue", { volume, variantOf(8) });
    QCOMPARE(m_client->call("Flush"), QStringLiteral("u 0"));
}

void TstServiceHostile::requestIsRefusedAndTheServiceLives()
{
    QFETCH(const Attempt, attempt);
    QFETCH(const QString, refusal);

    const QString answer = canBeSent(attempt) ? send(*m_client, attempt) : QString();

    const bool isChange = attempt.kind == CMRequest::Kind::SetData;
    const QVariantHash five { { TuloValue::Int(), 5LL } };
    if (!canBeSent(attempt) || !arrivesWhole(attempt)) {
        // The service lives.
    } else if (!isChange
               || (attempt.role == TuloRoles::Value() && attempt.value == QVariant(five))) {
        // In the table nobody has written the setting's file yet.
        const bool isBelow = attempt.path == volume + QLatin1String("/deeper/still");
        QCOMPARE(answer,
                 isBelow ? QStringLiteral("Refused: Path '%1' is below a setting").arg(attempt.path)
                         : refusal);
    } else if (isPlain(attempt)) {
        // Numbers are stored; anything else is of another kind than the setting.
        QVERIFY2(answer.startsWith(QLatin1String("{timestamp: *, value: "))
                     || answer.startsWith(QLatin1String("Rejected: The value for '")),
                 qPrintable(answer));
    } else {
        QVERIFY2(answer.contains(QLatin1String(": ")) && !answer.startsWith(QLatin1Char('{')),
                 qPrintable(answer));
    }

    QCOMPARE(m_client->call("SetValue", { volume, variantOf(8) }),
             QStringLiteral("{timestamp: *, value: x 8}"));
    QCOMPARE(m_client->value(volume), QStringLiteral("x 8"));
}

void TstServiceHostile::cleanupTestCase()
{
    const ChildResult result = m_service.end();

    QCOMPARE(ServiceProcess::complaints(result), QByteArray());
    QCOMPARE(result.exitCode, 0);
    // The one that a zero character made of "a" and something.
    m_entries += { QStringLiteral("/audio/a"), QStringLiteral("/audio/volume") };
    m_entries.sort();
    QCOMPARE(m_trees.tree.writtenEntries(), m_entries);
    QVERIFY(!QFileInfo::exists(m_trees.tree.path() + QLatin1String("/outside")));
}

QTEST_GUILESS_MAIN(TstServiceHostile)
#include "tst_service_hostile.moc"
