// From a request path to a setting path, and from a setting path to file names.

#include "workerfixture.h"

class tst_worker_paths : public QObject
{
    Q_OBJECT

private slots:
    void init() { m = std::make_unique<WorkerFixture>(); }
    void cleanup()
    {
        m->log.verifyNothingUnexpected();
        m.reset();
    }

    void baseWithLeadingSlashIsTakenUnchanged_data();
    void baseWithLeadingSlashIsTakenUnchanged();
    void baseWithoutLeadingSlashIsCorrectedWithWarning_data();
    void baseWithoutLeadingSlashIsCorrectedWithWarning();
    void warningIsRepeatedOnEveryCall();
    void parentPathIsWhatStandsBeforeLastSlash_data();
    void parentPathIsWhatStandsBeforeLastSlash();
    void filePathIsWhatStandsAfterLastSlash_data();
    void filePathIsWhatStandsAfterLastSlash();
    void builtInDirectoriesAreJoinedAsTheyStand();
    void filesOfSettingJoinDefaultsWithExtraSlash();
    void filesOfDirectoryJoinWithoutExtraSlash_data();
    void filesOfDirectoryJoinWithoutExtraSlash();
    void productFileStandsBesidePlainFile();
    void oddPathsReachFileSystemAsTheyAre_data();
    void oddPathsReachFileSystemAsTheyAre();

private:
    static QString warning(const QString& path)
    {
        return QStringLiteral("Wrong settings path detected: '%1' - please fix your code. Adding "
                              "missing leading '/' for now.")
            .arg(path);
    }

    std::unique_ptr<WorkerFixture> m;
};

void tst_worker_paths::baseWithLeadingSlashIsTakenUnchanged_data()
{
    QTest::addColumn<QString>("requestPath");
    QTest::addColumn<QString>("settingPath");

    const auto row = [](const char* path, const char* settingPath) {
        QTest::newRow(path) << QString::fromUtf8(path) << QString::fromUtf8(settingPath);
    };
    row("/settings/audio/volume", "/audio/volume");
    row("/settings/volume", "/volume");
    row("/settings", "/");
    row("/settings/", "/");
    row("/settings//audio", "//audio");
    row("/settings/audio//volume", "/audio//volume");
    row("/settings/audio/", "/audio/");
    row("/settings/./audio/../volume", "/./audio/../volume");
    row("/settings/ a%20\\", "/ a%20\\");
}

void tst_worker_paths::baseWithLeadingSlashIsTakenUnchanged()
{
    QFETCH(QString, requestPath);
    QFETCH(QString, settingPath);

    QCOMPARE(CMSettingsWorker::getRequestSettingPath(CMPath(requestPath)), settingPath);
    QVERIFY(m->log.records().isEmpty());
}

void tst_worker_paths::baseWithoutLeadingSlashIsCorrectedWithWarning_data()
{
    QTest::addColumn<QString>("requestPath");
    QTest::addColumn<QString>("settingPath");

    const auto row = [](const char* name, const char* path, const char* settingPath) {
        QTest::newRow(name) << QString::fromUtf8(path) << QString::fromUtf8(settingPath);
    };
    row("base audio/volume", "settings/audio/volume", "/audio/volume");
    row("base of one component", "settings/volume", "/volume");
    row("empty base", "settings", "/");
    row("empty path", "", "/");
    row("not ASCII", "settings/k\u00fche", "/k\u00fche");
}

void tst_worker_paths::baseWithoutLeadingSlashIsCorrectedWithWarning()
{
    QFETCH(QString, requestPath);
    QFETCH(QString, settingPath);
    m->log.expect(log4cplus::WARN_LOG_LEVEL, warning(requestPath));

    QCOMPARE(CMSettingsWorker::getRequestSettingPath(CMPath(requestPath)), settingPath);
    QCOMPARE(m->log.records().size(), 1);
}

void tst_worker_paths::warningIsRepeatedOnEveryCall()
{
    const CMPath path(QStringLiteral("settings/audio/volume"));
    for (int call = 0; call < 3; ++call) {
        m->log.expect(log4cplus::WARN_LOG_LEVEL, warning(path.text()));
        CMSettingsWorker::getRequestSettingPath(path);
    }

    QCOMPARE(m->log.records().size(), 3);
}

void tst_worker_paths::parentPathIsWhatStandsBeforeLastSlash_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("parent");

    // QTest keeps the difference of null and empty.
    QTest::newRow("nested") << QStringLiteral("/a/b") << QStringLiteral("/a");
    QTest::newRow("deeper") << QStringLiteral("/a/b/c") << QStringLiteral("/a/b");
    QTest::newRow("top") << QStringLiteral("/volume") << QStringLiteral("");
    QTest::newRow("root") << QStringLiteral("/") << QStringLiteral("");
    QTest::newRow("trailing slash") << QStringLiteral("/a/") << QStringLiteral("/a");
    QTest::newRow("doubled slash") << QStringLiteral("/a//b") << QStringLiteral("/a/");
    QTest::newRow("no slash") << QStringLiteral("volume") << QString();
    QTest::newRow("empty") << QStringLiteral("") << QString();
    QTest::newRow("relative") << QStringLiteral("a/b") << QStringLiteral("a");
}

void tst_worker_paths::parentPathIsWhatStandsBeforeLastSlash()
{
    QFETCH(QString, path);
    QFETCH(QString, parent);

    const QString result = m->create().parentPath(path);

    QCOMPARE(result, parent);
    QCOMPARE(result.isNull(), parent.isNull());
}

void tst_worker_paths::filePathIsWhatStandsAfterLastSlash_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("name");

    QTest::newRow("nested") << QStringLiteral("/a/b") << QStringLiteral("b");
    QTest::newRow("top") << QStringLiteral("/volume") << QStringLiteral("volume");
    QTest::newRow("root") << QStringLiteral("/") << QStringLiteral("");
    QTest::newRow("trailing slash") << QStringLiteral("/a/") << QStringLiteral("");
    QTest::newRow("no slash") << QStringLiteral("volume") << QStringLiteral("volume");
    QTest::newRow("relative") << QStringLiteral("a/b") << QStringLiteral("b");
    QTest::newRow("empty") << QStringLiteral("") << QStringLiteral("");
}

void tst_worker_paths::filePathIsWhatStandsAfterLastSlash()
{
    QFETCH(QString, path);
    QFETCH(QString, name);

    const QString result = m->create().filePath(path);

    QCOMPARE(result, name);
    QVERIFY(!result.isNull());
}

void tst_worker_paths::builtInDirectoriesAreJoinedAsTheyStand()
{
    CMSettingsWorker& worker = m->create();
    // What a configuration without directories gives.
    worker.m_defaultPath = QStringLiteral("/etc/tulo/settings-default");
    worker.m_writePath = QStringLiteral("/settings/");
    m->log.setLevel(log4cplus::TRACE_LOG_LEVEL);

    // No device has this setting, so all its places are visited.
    worker.load(QStringLiteral("/a-3f7c"), nullptr);

    const QStringList expected { QStringLiteral("/etc/tulo/settings-default//a-3f7c"),
                                 QStringLiteral("/etc/tulo/settings-default/.meta"),
                                 QStringLiteral("/settings//a-3f7c") };
    QCOMPARE(m->loadedFiles(), expected);
}

void tst_worker_paths::filesOfSettingJoinDefaultsWithExtraSlash()
{
    CMSettingsWorker& worker = m->create();
    m->log.setLevel(log4cplus::TRACE_LOG_LEVEL);

    worker.load(QStringLiteral("/audio/volume"), nullptr);

    const QStringList expected { m->tree.defaultPath() + QLatin1String("//audio/volume"),
                                 m->tree.defaultPath() + QLatin1String("/audio/.meta"),
                                 m->tree.writePath() + QLatin1String("/audio/volume") };
    QCOMPARE(m->loadedFiles(), expected);
}

void tst_worker_paths::filesOfDirectoryJoinWithoutExtraSlash_data()
{
    QTest::addColumn<QString>("path");

    QTest::newRow("root") << QStringLiteral("/");
    QTest::newRow("top") << QStringLiteral("/audio");
    QTest::newRow("nested") << QStringLiteral("/audio/presets");
    QTest::newRow("trailing slash") << QStringLiteral("/audio/");
}

void tst_worker_paths::filesOfDirectoryJoinWithoutExtraSlash()
{
    QFETCH(QString, path);
    m->tree.makeDefaultDirectory(QStringLiteral("/audio/presets"));
    CMSettingsWorker& worker = m->create();
    m->log.setLevel(log4cplus::TRACE_LOG_LEVEL);

    worker.load(path, nullptr);

    QCOMPARE(m->loadedFiles(), QStringList(m->tree.defaultPath() + path + QLatin1String("/.meta")));
}

void tst_worker_paths::productFileStandsBesidePlainFile()
{
    m->tree.writeDefault(QStringLiteral("/audio/volume_p1"), json(R"({"type": 5})"));
    CMSettingsWorker& worker =
        m->create({ { QStringLiteral("product_postfix"), QStringLiteral("p1") } });
    m->log.setLevel(log4cplus::TRACE_LOG_LEVEL);

    worker.load(QStringLiteral("/audio/volume"), nullptr);

    const QStringList expected { m->tree.defaultPath() + QLatin1String("//audio/volume_p1"),
                                 m->tree.writePath() + QLatin1String("/audio/volume") };
    QCOMPARE(m->loadedFiles(), expected);
}

void tst_worker_paths::oddPathsReachFileSystemAsTheyAre_data()
{
    QTest::addColumn<QString>("path");

    QTest::newRow("doubled slash") << QStringLiteral("/audio//volume");
    QTest::newRow("dot") << QStringLiteral("/./audio/volume");
    QTest::newRow("two dots") << QStringLiteral("/audio/../audio/volume");
    QTest::newRow("leaves the tree") << QStringLiteral("/../default/audio/volume");
}

void tst_worker_paths::oddPathsReachFileSystemAsTheyAre()
{
    QFETCH(QString, path);
    m->tree.writeDefault(QStringLiteral("/audio/volume"), json(R"({"id": "v"})"));
    CMSettingsWorker& worker = m->create();

    bool exists = false;
    const TuloRoles roles = worker.load(path, &exists);

    QVERIFY(exists);
    QCOMPARE(roles.id(), QStringLiteral("v"));
    QCOMPARE(worker.m_valueCache.keys(), QStringList(path));
}

QTEST_GUILESS_MAIN(tst_worker_paths)
#include "tst_worker_paths.moc"
