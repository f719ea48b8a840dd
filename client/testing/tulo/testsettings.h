#pragma once

#include "tulo/error.h"
#include "tulo/export.h"
#include "tulo/remotesettings.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <memory>

#ifdef TULO_SETTINGS_TESTING_BUILD
#define TULO_SETTINGS_TESTING_EXPORT Q_DECL_EXPORT
#else
#define TULO_SETTINGS_TESTING_EXPORT Q_DECL_IMPORT
#endif

namespace tulo {

class TestSettingsPrivate;

/// Real settings for a program's tests: tulo-settingsd on a bus and on trees that nobody else
/// knows. Everything ends with the object, also when the test program dies, and is removed.
///
///     tulo::TestSettings test;
///     test.writeDefault(QStringLiteral("/settings/audio/volume"), R"({"value":{"int":35}})");
///     QVERIFY(test.start());
///     tulo::Setting<qint64> volume(&test.settings(), QStringLiteral("/settings/audio/volume"));
///     QTRY_COMPARE(volume.value(), qint64(35));
///
/// Needs dbus-daemon. tulo-settingsd is taken from where this library was installed; the
/// environment variable TULO_SETTINGSD names another one. Needs a QCoreApplication. start() and
/// the functions that end the service wait; nothing else does.
class TULO_SETTINGS_TESTING_EXPORT TestSettings
{
public:
    /// Trees without settings and a bus; a bus that cannot be started ends the program.
    TestSettings();
    ~TestSettings();
    Q_DISABLE_COPY(TestSettings)

    /// Writes the default file of a setting, "/settings/audio/volume", or, for a name ".meta", of
    /// its directory. The service reads it at its start and after dropCache(). A file that cannot
    /// be written ends the program.
    void writeDefault(const QString& path, const QByteArray& json) const;
    /// The content of the file in which the service keeps a setting that was changed; null when
    /// there is none. The service writes about a second after a change, at a flush, and at its end.
    QByteArray written(const QString& path) const;

    // The folders of the trees, and the bus for programs that a test starts.
    QString defaultPath() const;
    QString writePath() const;
    QString busAddress() const;

    /// Starts the service and waits until it serves. False when it does not; error() says why.
    [[nodiscard]] bool start(const QStringList& options = {});
    /// Ends the service in order, as a device does, and waits: everything is written.
    void stop();
    /// Ends the service as a crash does: what was not written is lost.
    void kill();
    /// stop() and start() with the same options.
    [[nodiscard]] bool restart();
    /// Of the service; 0 when it does not run.
    qint64 processId() const;
    /// Why it does not serve, with what it wrote to standard error; empty when it does.
    QString error() const;

    /// A program's view of the service. Exists before the service is started.
    RemoteSettings& settings() const;

private:
    const std::unique_ptr<TestSettingsPrivate> d;
};

} // namespace tulo
