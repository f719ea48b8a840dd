#include "tests/daemon/servicefixture.h"
#include "tests/settings/settingscontract.h"

#include "tests/support/childprocess.h"

#include <tulo/remotesettings.h>

#include <QTest>

#include <algorithm>
#include <memory>

using namespace tulo;

/// The settings that the service offers, seen through the client library: the contract over a bus.
class tst_ServiceContract : public SettingsContract
{
    Q_OBJECT

protected:
    std::unique_ptr<Settings> open(const TemporaryTree& tree) override
    {
        m_service = std::make_unique<ChildProcess>(
            QStringLiteral(TULO_SETTINGSD_PROGRAM),
            QStringList { QStringLiteral("--default-path"), tree.defaultPath(),
                          QStringLiteral("--write-path"), tree.writePath(), QStringLiteral("--bus"),
                          m_bus->address() });
        // A flush would take as long as the disk needs for what all other programs wrote.
        m_service->setVariable(QStringLiteral("LD_PRELOAD"), QStringLiteral(TULO_SCRIPTED_SYNC));
        m_service->setVariable(QStringLiteral("TULO_TEST_SYNC"), QStringLiteral("true"));
        m_function = QLatin1String(QTest::currentTestFunction());
        if (!m_service->start() || !m_service->waitForError("serving '"))
            return nullptr;
        return std::make_unique<RemoteSettings>(m_bus->address());
    }
    void begin() override
    {
        m_bus = std::make_unique<PrivateBus>();
        m_expected.clear();
    }
    void end() override
    {
        m_service->sendSignal(SIGTERM);
        const ChildResult result = m_service->finish();
        if (m_function == QLatin1String("replacedTreeIsNotSaved"))
            expectRecord(QStringLiteral("opened the writable tree "));
        QCOMPARE(result.exitCode, 0);
        for (const QByteArray& line : result.standardError.split('\n')) {
            const QString text = QString::fromUtf8(line);
            const bool isExpected =
                std::any_of(m_expected.cbegin(), m_expected.cend(),
                            [&text](const QString& message) { return text.contains(message); });
            QVERIFY2(isExpected || text.isEmpty() || text.contains(QLatin1String("serving '")),
                     line.constData());
        }
        m_service.reset();
        m_bus.reset();
    }
    void expectRecord(const QString& message) override { m_expected.append(message); }

private:
    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<ChildProcess> m_service;
    QString m_function; ///< that the service was started for
    QStringList m_expected;
};

QTEST_GUILESS_MAIN(tst_ServiceContract)
#include "tst_service_contract.moc"
