#include "engine/localsettings.h"
#include "tests/settings/settingscontract.h"

#include "tests/support/logcapture.h"

#include <QTest>

#include <memory>

// No test waits for a disk.
extern "C" int syncfs(int)
{
    return 0;
}

using namespace tulo;

namespace {

const QString volume = QStringLiteral("/settings/audio/volume");
const QStringList valueRole { QStringLiteral("value") };

} // namespace

/// The settings of this process: the contract, and what is their own.
class tst_LocalSettings : public SettingsContract
{
    Q_OBJECT

protected:
    std::unique_ptr<Settings> open(const TemporaryTree& tree) override
    {
        return openLocal(tree, EngineOptions::Access::Own);
    }
    void begin() override { m_log = std::make_unique<LogCapture>(); }
    void end() override
    {
        m_log->verifyNothingUnexpected();
        m_log.reset();
    }
    void expectRecord(const QString& message) override
    {
        const bool isError = message.startsWith(QLatin1String("Loaded path is invalid"));
        m_log->expect(isError ? log4cplus::ERROR_LOG_LEVEL : log4cplus::WARN_LOG_LEVEL, message);
    }

private:
    static std::unique_ptr<LocalSettings> openLocal(const TemporaryTree& tree,
                                                    EngineOptions::Access access)
    {
        EngineOptions options;
        options.pluginFile = QStringLiteral(TULO_PLUGIN_FILE);
        options.defaultPath = tree.defaultPath();
        options.writePath = tree.writePath();
        options.access = access;
        EngineFailure failure;
        auto settings = LocalSettings::open(options, &failure);
        if (!settings)
            qWarning("%s", qPrintable(failure.message));
        return settings;
    }

    std::unique_ptr<LogCapture> m_log;
};

QTEST_GUILESS_MAIN(tst_LocalSettings)
#include "tst_local_settings.moc"
