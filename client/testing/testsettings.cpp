#include "tulo/testsettings.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>
#include <QUrl>

#include <csignal>
#include <functional>

#include <dlfcn.h>
#include <sys/prctl.h>

namespace tulo {
namespace {

// For what hangs, not for what is slow.
constexpr int waitMs = 60000;

/// A process that ends with this one, however that ends.
class BoundProcess : public QProcess
{
protected:
    void setupChildProcess() override { ::prctl(PR_SET_PDEATHSIG, SIGKILL); }
};

/// The service beside this library, in the build tree as in an installation.
QString installedProgram()
{
    Dl_info info {};
    if (::dladdr(reinterpret_cast<const void*>(&installedProgram), &info) == 0)
        return QString();
    const QDir directory = QFileInfo(QFile::decodeName(info.dli_fname)).absoluteDir();
    return QDir::cleanPath(directory.filePath(QStringLiteral(TULO_SETTINGSD_PLACE)));
}

QString program()
{
    const QString named = qEnvironmentVariable("TULO_SETTINGSD");
    return named.isEmpty() ? installedProgram() : named;
}

void writeFile(const QString& name, const QByteArray& content)
{
    QFile file(name);
    if (!QDir().mkpath(QFileInfo(name).path()) || !file.open(QIODevice::WriteOnly)
        || file.write(content) != content.size() || !file.flush())
        qFatal("cannot write '%s': %s", qPrintable(name), qPrintable(file.errorString()));
}

/// The path without its first component.
QString below(const QString& path)
{
    const int slash = path.indexOf(QLatin1Char('/'), 1);
    return slash < 0 ? QString() : path.mid(slash);
}

} // namespace

class TestSettingsPrivate
{
public:
    TestSettingsPrivate();
    ~TestSettingsPrivate();

    QString file(const char* name) const { return m_directory.filePath(QLatin1String(name)); }
    QString busAddress() const;
    bool start();
    void end(int signal);
    /// The same, and waits until the settings know.
    void endAndNotice(int signal);

    QStringList m_options;
    QString m_error;
    BoundProcess m_service;
    std::unique_ptr<RemoteSettings> m_settings;

private:
    void startBus();
    /// Runs the event loop.
    void waitUntil(const std::function<bool()>& condition);

    const QTemporaryDir m_directory;
    BoundProcess m_bus;
};

TestSettingsPrivate::TestSettingsPrivate()
{
    if (!m_directory.isValid())
        qFatal("no temporary directory: %s", qPrintable(m_directory.errorString()));
    for (const char* name : { "default", "written" }) {
        if (!QDir().mkpath(file(name)))
            qFatal("cannot make '%s'", qPrintable(file(name)));
    }
    startBus();
    m_settings = std::make_unique<RemoteSettings>(busAddress());
}

QString TestSettingsPrivate::busAddress() const
{
    // What an address may not hold as it is.
    return QStringLiteral("unix:path=")
        + QString::fromLatin1(QUrl::toPercentEncoding(file("bus"), "/", "~"));
}

// Allows what a session bus does.
void TestSettingsPrivate::startBus()
{
    writeFile(file("bus.conf"),
              R"(<busconfig>
  <listen>)" + busAddress().toLatin1()
                  + R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)");
    m_bus.start(QStringLiteral("dbus-daemon"),
                { QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
                  QStringLiteral("--print-address"),
                  QStringLiteral("--config-file=") + file("bus.conf") });
    // The address is printed when the bus listens.
    if (!m_bus.waitForStarted(waitMs) || !m_bus.waitForReadyRead(waitMs))
        qFatal("cannot start dbus-daemon: %s\n%s", qPrintable(m_bus.errorString()),
               m_bus.readAllStandardError().constData());
}

TestSettingsPrivate::~TestSettingsPrivate()
{
    end(SIGTERM);
    m_settings.reset();
    m_bus.kill();
    m_bus.waitForFinished(waitMs);
}

bool TestSettingsPrivate::start()
{
    endAndNotice(SIGTERM);
    m_error.clear();
    m_service.setStandardErrorFile(file("service.log"));
    m_service.setStandardOutputFile(QProcess::nullDevice());
    m_service.start(program(),
                    QStringList { QStringLiteral("--default-path"), file("default"),
                                  QStringLiteral("--write-path"), file("written"),
                                  QStringLiteral("--bus"), busAddress() }
                        + m_options);
    if (!m_service.waitForStarted(waitMs)) {
        m_error = QStringLiteral("cannot start '%1': %2").arg(program(), m_service.errorString());
        return false;
    }
    waitUntil([this] {
        return m_settings->state() == Settings::State::Ready
            || m_service.state() == QProcess::NotRunning;
    });
    if (m_settings->state() == Settings::State::Ready)
        return true;
    QFile log(file("service.log"));
    const bool isOpen = log.open(QIODevice::ReadOnly);
    m_error = QStringLiteral("'%1' does not serve: %2")
                  .arg(program(), isOpen ? QString::fromUtf8(log.readAll()) : log.errorString());
    end(SIGKILL);
    return false;
}

void TestSettingsPrivate::waitUntil(const std::function<bool()>& condition)
{
    QEventLoop loop;
    const auto look = [&] {
        if (condition())
            loop.quit();
    };
    QObject::connect(m_settings.get(), &Settings::stateChanged, &loop, look);
    QObject::connect(&m_service, &QProcess::stateChanged, &loop, look);
    QTimer::singleShot(waitMs, &loop, &QEventLoop::quit);
    QTimer::singleShot(0, &loop, look);
    loop.exec();
}

void TestSettingsPrivate::end(int signal)
{
    if (m_service.state() == QProcess::NotRunning)
        return;
    ::kill(pid_t(m_service.processId()), signal);
    // One that a test has stopped.
    ::kill(pid_t(m_service.processId()), SIGCONT);
    if (!m_service.waitForFinished(waitMs)) {
        m_service.kill();
        m_service.waitForFinished(waitMs);
    }
}

void TestSettingsPrivate::endAndNotice(int signal)
{
    end(signal);
    waitUntil([this] { return m_settings->state() != Settings::State::Ready; });
}

TestSettings::TestSettings()
    : d(std::make_unique<TestSettingsPrivate>())
{
}

TestSettings::~TestSettings() = default;

void TestSettings::writeDefault(const QString& path, const QByteArray& json) const
{
    writeFile(defaultPath() + below(path), json);
}

QByteArray TestSettings::written(const QString& path) const
{
    QFile file(writePath() + below(path));
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    const QByteArray content = file.readAll();
    return content.isNull() ? QByteArray("") : content;
}

QString TestSettings::defaultPath() const
{
    return d->file("default");
}

QString TestSettings::writePath() const
{
    return d->file("written");
}

QString TestSettings::busAddress() const
{
    return d->busAddress();
}

bool TestSettings::start(const QStringList& options)
{
    d->m_options = options;
    return d->start();
}

void TestSettings::stop()
{
    d->endAndNotice(SIGTERM);
}

void TestSettings::kill()
{
    d->endAndNotice(SIGKILL);
}

bool TestSettings::restart()
{
    return d->start();
}

qint64 TestSettings::processId() const
{
    return d->m_service.processId();
}

QString TestSettings::error() const
{
    return d->m_error;
}

RemoteSettings& TestSettings::settings() const
{
    return *d->m_settings;
}

} // namespace tulo
