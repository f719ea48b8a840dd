// When the encryption handler is asked, with what, and what its answers change.

#include "tests/support/replywaiter.h"
#include "workerfixture.h"

#include <type_traits>

static_assert(std::is_abstract_v<EncryptionHandler>);
static_assert(std::has_virtual_destructor_v<EncryptionHandler>);
static_assert(EncryptionHandler::SettingType(0) == EncryptionHandler::DefaultSetting);
static_assert(EncryptionHandler::SettingType(1) == EncryptionHandler::WrittenSetting);

namespace {

const QString path = QStringLiteral("/audio/pin");

/// Writes down each call and answers from a list.
class RecordingHandler : public EncryptionHandler
{
public:
    bool enabled[2] = { true, true };
    /// The results of decryption, first to last; an empty value when there is none left.
    mutable QList<TuloValue> results;
    mutable QStringList calls;

    bool encryptionEnabled(SettingType type) const override
    {
        calls.append(QStringLiteral("enabled %1").arg(type));
        return enabled[type];
    }

    QString encryptValue(const TuloValue& value, SettingType type, const QString& file) override
    {
        calls.append(QStringLiteral("encrypt %1 %2 %3").arg(textOf(value)).arg(type).arg(file));
        return QStringLiteral("secret");
    }

    TuloValue decryptValue(const QString& encrypted, SettingType type,
                           const QString& settingPath) override
    {
        calls.append(QStringLiteral("decrypt %1 %2 %3").arg(encrypted).arg(type).arg(settingPath));
        return results.isEmpty() ? TuloValue() : results.takeFirst();
    }
};

} // namespace

class tst_worker_encryption : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        m = std::make_unique<WorkerFixture>();
        m_enabledForDefaults = true;
        m_enabledForWritten = true;
        m_results.clear();
    }
    void cleanup()
    {
        m->log.verifyNothingUnexpected();
        m.reset();
    }

    void noOpHandlerIsOffForEveryLayer();
    void noOpHandlerLeavesEncryptedValuesInRoles_data();
    void noOpHandlerLeavesEncryptedValuesInRoles();
    void noOpHandlerWritesPlainValueWithFlag();

    void defaultValueIsDecryptedBeforeCurrentValue();
    void writtenEncryptedValueIsDecryptedAsWritten();
    void writtenPlainValueIsNotDecrypted();
    void writtenEncryptedValueBeatsWrittenPlainValue();
    void templateEncryptedValueIsDecryptedAsDefault();
    void enabledForWrittenOnlyLeavesDefaultsEncrypted();
    void enabledForDefaultsOnlyLeavesWrittenEncrypted();
    void disabledForBothAsksAndLeavesEverything();
    void settingNotMarkedEncryptedAsksNothing_data();
    void settingNotMarkedEncryptedAsksNothing();
    void plainSettingMarkedEncryptedAsksNothing();
    void flagOfWrittenFileCountsForNothing();
    void emptyEncryptedValueCountsAsNone();
    void emptyResultForWrittenFallsBackToDefaultValue_data();
    void emptyResultForWrittenFallsBackToDefaultValue();
    void emptyResultForWrittenWithoutDefaultIsEmpty();
    void emptyResultForDefaultDoesNotFallBack();
    void encryptedValueStaysAsEmptyTextAfterDecryption();
    void directoryAsksNothing();
    void cachedRolesAreNotDecryptedAgain();
    void eachCallIsPrecededByQuestionForItsLayer();
    void writingPassesFileNameToEncryption();

private:
    /// Loads the setting whose files hold these texts (null: no file), with the handler.
    TuloRoles load(const char* defaults, const char* written)
    {
        if (defaults != nullptr)
            m->tree.writeDefault(path, QByteArray(defaults));
        if (written != nullptr)
            m->tree.writeWritten(path, QByteArray(written));
        createWithHandler();
        return m->worker->load(path, nullptr);
    }

    void createWithHandler()
    {
        CMSettingsWorker& worker = m->create();
        delete worker.m_encryptionHandler;
        m_handler = new RecordingHandler;
        m_handler->enabled[0] = m_enabledForDefaults;
        m_handler->enabled[1] = m_enabledForWritten;
        m_handler->results = m_results;
        worker.m_encryptionHandler = m_handler;
    }

    static QStringList calls(const char* lines)
    {
        return QString::fromLatin1(lines).split(QStringLiteral(", "), Qt::SkipEmptyParts);
    }

    std::unique_ptr<WorkerFixture> m;
    RecordingHandler* m_handler = nullptr; ///< the worker's; the fixture deletes it
    bool m_enabledForDefaults = true;
    bool m_enabledForWritten = true;
    QList<TuloValue> m_results;
};

// ---------------------------------------------------------------------------------------------
// The handler that a worker comes with.
// ---------------------------------------------------------------------------------------------

void tst_worker_encryption::noOpHandlerIsOffForEveryLayer()
{
    NoOpEncryptionHandler handler;
    const TuloValue value(json(R"({"int": 1})"));

    for (const auto type :
         { EncryptionHandler::DefaultSetting, EncryptionHandler::WrittenSetting }) {
        QVERIFY(!handler.encryptionEnabled(type));
        QCOMPARE(handler.encryptValue(value, type, path), QString());
        QVERIFY(handler.decryptValue(QStringLiteral("x"), type, path).__isEmpty());
    }
}

void tst_worker_encryption::noOpHandlerLeavesEncryptedValuesInRoles_data()
{
    QTest::addColumn<QByteArray>("defaults");
    QTest::addColumn<QByteArray>("written");
    QTest::addColumn<QString>("encryptedValue");
    QTest::addColumn<QByteArray>("value");

    QTest::newRow("default only") << QByteArray(R"({"encrypted": true, "encryptedValue": "D"})")
                                  << QByteArray() << QStringLiteral("D") << QByteArray("{}");
    QTest::newRow("written only") << QByteArray(R"({"encrypted": true, "value": {"int": 3}})")
                                  << QByteArray(R"({"encryptedValue": "W"})") << QStringLiteral("W")
                                  << QByteArray(R"({"int": 3})");
    QTest::newRow("written, no value anywhere")
        << QByteArray(R"({"encrypted": true})") << QByteArray(R"({"encryptedValue": "W"})")
        << QStringLiteral("W") << QByteArray("{}");
}

void tst_worker_encryption::noOpHandlerLeavesEncryptedValuesInRoles()
{
    QFETCH(QByteArray, defaults);
    QFETCH(QByteArray, written);
    QFETCH(QString, encryptedValue);
    QFETCH(QByteArray, value);
    m->tree.writeDefault(path, defaults);
    if (!written.isNull())
        m->tree.writeWritten(path, written);

    const TuloRoles roles = m->create().load(path, nullptr);

    QCOMPARE(roles.encryptedValue(), encryptedValue);
    COMPARE_RECORDS(roles.value(), json(value.constData()));
    QVERIFY(roles.encrypted());
}

void tst_worker_encryption::noOpHandlerWritesPlainValueWithFlag()
{
    m->tree.writeDefault(path, json(R"({"encrypted": true, "value": {"int": 3}})"));
    CMSettingsWorker& worker = m->create();

    setData(&worker, QStringLiteral("/settings/audio/pin"), TuloRoles::Value(),
            json(R"({"int": 4})"));
    worker.on_writeTimer_timeout();

    QVariantHash written = m->tree.readWrittenRoles(path);
    QVERIFY(written.take(TuloRoles::Timestamp()).toLongLong() > 0);
    COMPARE_RECORDS(written, json(R"({"encrypted": true, "value": {"int": 4}})"));
}

// ---------------------------------------------------------------------------------------------
// What is asked, in which order.
// ---------------------------------------------------------------------------------------------

void tst_worker_encryption::defaultValueIsDecryptedBeforeCurrentValue()
{
    m_results = { json(R"({"int": 1})"), json(R"({"int": 2})") };

    const TuloRoles roles = load(R"({"encrypted": true, "encryptedValue": "D"})", nullptr);

    QCOMPARE(m_handler->calls,
             calls("enabled 0, decrypt D 0 /audio/pin, enabled 0, decrypt D 0 /audio/pin"));
    COMPARE_RECORDS(roles.defaultValue(), json(R"({"int": 1})"));
    COMPARE_RECORDS(roles.value(), json(R"({"int": 2})"));
}

void tst_worker_encryption::writtenEncryptedValueIsDecryptedAsWritten()
{
    m_results = { json(R"({"int": 1})"), json(R"({"int": 2})") };

    const TuloRoles roles =
        load(R"({"encrypted": true, "encryptedValue": "D"})", R"({"encryptedValue": "W"})");

    QCOMPARE(m_handler->calls,
             calls("enabled 0, decrypt D 0 /audio/pin, enabled 1, decrypt W 1 /audio/pin"));
    COMPARE_RECORDS(roles.defaultValue(), json(R"({"int": 1})"));
    COMPARE_RECORDS(roles.value(), json(R"({"int": 2})"));
}

void tst_worker_encryption::writtenPlainValueIsNotDecrypted()
{
    m_results = { json(R"({"int": 1})") };

    const TuloRoles roles =
        load(R"({"encrypted": true, "encryptedValue": "D"})", R"({"value": {"int": 4}})");

    // The default value is, though.
    QCOMPARE(m_handler->calls, calls("enabled 0, decrypt D 0 /audio/pin"));
    COMPARE_RECORDS(roles.defaultValue(), json(R"({"int": 1})"));
    COMPARE_RECORDS(roles.value(), json(R"({"int": 4})"));
    QVERIFY(!roles.__contains(TuloRoles::EncryptedValue()));
}

void tst_worker_encryption::writtenEncryptedValueBeatsWrittenPlainValue()
{
    m_results = { json(R"({"int": 2})") };

    const TuloRoles roles = load(R"({"encrypted": true, "value": {"int": 3}})",
                                 R"({"value": {"int": 4}, "encryptedValue": "W"})");

    QCOMPARE(m_handler->calls, calls("enabled 1, decrypt W 1 /audio/pin"));
    COMPARE_RECORDS(roles.value(), json(R"({"int": 2})"));
    COMPARE_RECORDS(roles.defaultValue(), json(R"({"int": 3})"));
}

void tst_worker_encryption::templateEncryptedValueIsDecryptedAsDefault()
{
    m->tree.writeDefault(QStringLiteral("/audio/.meta"),
                         json(R"({"encrypted": true, "encryptedValue": "T"})"));
    m_results = { json(R"({"int": 2})") };

    const TuloRoles roles = load(nullptr, nullptr);

    // A template has no default value.
    QCOMPARE(m_handler->calls, calls("enabled 0, decrypt T 0 /audio/pin"));
    COMPARE_RECORDS(roles.value(), json(R"({"int": 2})"));
    QVERIFY(!roles.__contains(TuloRoles::DefaultValue()));
}

void tst_worker_encryption::enabledForWrittenOnlyLeavesDefaultsEncrypted()
{
    m_enabledForDefaults = false;

    const TuloRoles roles =
        load(R"({"encrypted": true, "encryptedValue": "D", "value": {"int": 3}})", nullptr);

    QCOMPARE(m_handler->calls, calls("enabled 0, enabled 0"));
    QCOMPARE(roles.encryptedValue(), QStringLiteral("D"));
    COMPARE_RECORDS(roles.value(), json(R"({"int": 3})"));
    COMPARE_RECORDS(roles.defaultValue(), json(R"({"int": 3})"));
}

void tst_worker_encryption::enabledForDefaultsOnlyLeavesWrittenEncrypted()
{
    m_enabledForWritten = false;
    m_results = { json(R"({"int": 1})") };

    const TuloRoles roles =
        load(R"({"encrypted": true, "encryptedValue": "D"})", R"({"encryptedValue": "W"})");

    QCOMPARE(m_handler->calls, calls("enabled 0, decrypt D 0 /audio/pin, enabled 1"));
    QCOMPARE(roles.encryptedValue(), QStringLiteral("W"));
    COMPARE_RECORDS(roles.defaultValue(), json(R"({"int": 1})"));
    QVERIFY(!roles.__contains(TuloRoles::Value()));
}

void tst_worker_encryption::disabledForBothAsksAndLeavesEverything()
{
    m_enabledForDefaults = false;
    m_enabledForWritten = false;

    const TuloRoles roles =
        load(R"({"encrypted": true, "encryptedValue": "D"})", R"({"encryptedValue": "W"})");

    QCOMPARE(m_handler->calls, calls("enabled 0, enabled 1"));
    QCOMPARE(roles.encryptedValue(), QStringLiteral("W"));
    QVERIFY(!roles.__contains(TuloRoles::Value()));
    QVERIFY(!roles.__contains(TuloRoles::DefaultValue()));
}

void tst_worker_encryption::settingNotMarkedEncryptedAsksNothing_data()
{
    QTest::addColumn<QByteArray>("defaults");

    QTest::newRow("no flag") << QByteArray(R"({"encryptedValue": "D"})");
    QTest::newRow("flag is false") << QByteArray(R"({"encryptedValue": "D", "encrypted": false})");
}

void tst_worker_encryption::settingNotMarkedEncryptedAsksNothing()
{
    QFETCH(QByteArray, defaults);

    const TuloRoles roles = load(defaults.constData(), R"({"encryptedValue": "W"})");

    QCOMPARE(m_handler->calls, QStringList());
    QCOMPARE(roles.encryptedValue(), QStringLiteral("W"));
    QVERIFY(!roles.__contains(TuloRoles::Value()));
}

void tst_worker_encryption::plainSettingMarkedEncryptedAsksNothing()
{
    const TuloRoles roles =
        load(R"({"encrypted": true, "value": {"int": 3}})", R"({"value": {"int": 4}})");

    QCOMPARE(m_handler->calls, QStringList());
    COMPARE_RECORDS(roles.value(), json(R"({"int": 4})"));
    COMPARE_RECORDS(roles.defaultValue(), json(R"({"int": 3})"));
}

void tst_worker_encryption::flagOfWrittenFileCountsForNothing()
{
    load(R"({"encryptedValue": "D"})", R"({"encrypted": true, "encryptedValue": "W"})");
    QCOMPARE(m_handler->calls, QStringList());

    m_results = { json(R"({"int": 2})") };
    const TuloRoles roles =
        load(R"({"encrypted": true})", R"({"encrypted": false, "encryptedValue": "W"})");
    QCOMPARE(m_handler->calls, calls("enabled 1, decrypt W 1 /audio/pin"));
    QVERIFY(roles.encrypted());
}

void tst_worker_encryption::emptyEncryptedValueCountsAsNone()
{
    const TuloRoles roles =
        load(R"({"encrypted": true, "encryptedValue": "", "value": {"int": 3}})",
             R"({"encryptedValue": ""})");

    QCOMPARE(m_handler->calls, QStringList());
    COMPARE_RECORDS(roles.value(), json(R"({"int": 3})"));
}

void tst_worker_encryption::emptyResultForWrittenFallsBackToDefaultValue_data()
{
    QTest::addColumn<QByteArray>("defaults");
    QTest::addColumn<QList<QByteArray>>("results");

    QTest::newRow("plain default")
        << QByteArray(R"({"encrypted": true, "value": {"int": 3}})") << QList<QByteArray> { "{}" };
    QTest::newRow("decrypted default")
        << QByteArray(R"({"encrypted": true, "encryptedValue": "D"})")
        << QList<QByteArray> { R"({"int": 3})", "{}" };
    QTest::newRow("default value of the file")
        << QByteArray(R"({"encrypted": true, "defaultValue": {"int": 3}})")
        << QList<QByteArray> { "{}" };
}

void tst_worker_encryption::emptyResultForWrittenFallsBackToDefaultValue()
{
    QFETCH(QByteArray, defaults);
    QFETCH(QList<QByteArray>, results);
    for (const QByteArray& result : qAsConst(results))
        m_results.append(json(result.constData()));

    const TuloRoles roles =
        load(defaults.constData(), R"({"value": {"int": 4}, "encryptedValue": "W"})");

    COMPARE_RECORDS(roles.value(), json(R"({"int": 3})"));
    QCOMPARE(roles.encryptedValue(), QString());
}

void tst_worker_encryption::emptyResultForWrittenWithoutDefaultIsEmpty()
{
    const TuloRoles roles =
        load(R"({"encrypted": true})", R"({"value": {"int": 4}, "encryptedValue": "W"})");

    QVERIFY(roles.__contains(TuloRoles::Value()));
    QVERIFY(roles.value().__isEmpty());
}

void tst_worker_encryption::emptyResultForDefaultDoesNotFallBack()
{
    m_results = { json(R"({"int": 1})"), TuloValue() };

    const TuloRoles roles =
        load(R"({"encrypted": true, "encryptedValue": "D", "value": {"int": 3}})", nullptr);

    COMPARE_RECORDS(roles.defaultValue(), json(R"({"int": 1})"));
    QVERIFY(roles.value().__isEmpty());
}

void tst_worker_encryption::encryptedValueStaysAsEmptyTextAfterDecryption()
{
    m_results = { json(R"({"int": 1})"), json(R"({"int": 1})") };

    const TuloRoles roles = load(R"({"encrypted": true, "encryptedValue": "D"})", nullptr);

    QVERIFY(roles.__contains(TuloRoles::EncryptedValue()));
    const QVariant role = roles.__hashAttribute(TuloRoles::EncryptedValue());
    QCOMPARE(role.userType(), int(QMetaType::QString));
    QVERIFY(role.toString().isEmpty());
    QVERIFY(roles.encrypted());
}

void tst_worker_encryption::directoryAsksNothing()
{
    m->tree.writeDefault(QStringLiteral("/audio/.meta"),
                         json(R"({"encrypted": true, "encryptedValue": "D"})"));
    createWithHandler();

    const TuloRoles roles = m->worker->load(QStringLiteral("/audio"), nullptr);

    QCOMPARE(m_handler->calls, QStringList());
    QCOMPARE(roles.encryptedValue(), QStringLiteral("D"));
}

void tst_worker_encryption::cachedRolesAreNotDecryptedAgain()
{
    m_results = { json(R"({"int": 1})"), json(R"({"int": 1})") };
    const TuloRoles first = load(R"({"encrypted": true, "encryptedValue": "D"})", nullptr);
    m_handler->calls.clear();

    COMPARE_RECORDS(m->worker->load(path, nullptr), first);
    QCOMPARE(m_handler->calls, QStringList());
}

void tst_worker_encryption::eachCallIsPrecededByQuestionForItsLayer()
{
    load(R"({"encrypted": true, "encryptedValue": "D"})", R"({"encryptedValue": "W"})");
    setData(m->worker.get(), QStringLiteral("/settings/audio/pin"), TuloRoles::Value(),
            json(R"({"int": 4})"));
    m->worker->on_writeTimer_timeout();

    const QStringList all = m_handler->calls;
    int answers = 0;
    for (int i = 0; i < all.size(); ++i) {
        if (all.at(i).startsWith(QLatin1String("enabled")))
            continue;
        ++answers;
        const QString type = all.at(i).section(QLatin1Char(' '), -2, -2);
        QVERIFY(i > 0);
        QCOMPARE(all.at(i - 1), QString(QLatin1String("enabled ") + type));
    }
    QCOMPARE(answers, 3); // default value, current value, the value written
}

void tst_worker_encryption::writingPassesFileNameToEncryption()
{
    load(R"({"encrypted": true, "value": {"int": 3}})", nullptr);
    setData(m->worker.get(), QStringLiteral("/settings/audio/pin"), TuloRoles::Value(),
            json(R"({"int": 4})"));
    m->worker->on_writeTimer_timeout();

    const QStringList expected { QStringLiteral("enabled 1"),
                                 QStringLiteral("encrypt {int: 4} 1 ") + m->tree.writePath()
                                     + path };
    QCOMPARE(m_handler->calls, expected);
    QCOMPARE(m->tree.readWrittenRoles(path).value(TuloRoles::EncryptedValue()).toString(),
             QStringLiteral("secret"));
}

QTEST_GUILESS_MAIN(tst_worker_encryption)
#include "tst_worker_encryption.moc"
