// Translatable texts of settings, and what a change of language announces.

#include "tests/support/childprocess.h"
#include "tests/support/registryobserver.h"
#include "tests/support/replywaiter.h"
#include "workerfixture.h"

#include "api/core/language.h"

#include <QCoreApplication>
#include <QTranslator>

#include <csignal>

namespace {

const QString volume = QStringLiteral("/audio/volume");

/// A catalogue that knows some texts and writes down what it is asked.
class RecordingCatalogue : public QTranslator
{
public:
    RecordingCatalogue() { QCoreApplication::installTranslator(this); }
    ~RecordingCatalogue() override { QCoreApplication::removeTranslator(this); }

    bool isEmpty() const override { return false; }
    QString translate(const char* context, const char* source, const char* disambiguation,
                      int n) const override
    {
        const QString question = QString::fromUtf8(context) + QLatin1Char('|')
            + QString::fromUtf8(source)
            + (disambiguation == nullptr ? QString() : QStringLiteral("|disambiguated"))
            + (n == -1 ? QString() : QStringLiteral("|plural"));
        questions.append(question);
        return texts.value(question);
    }

    QHash<QString, QString> texts;
    mutable QStringList questions;
};

} // namespace

class tst_worker_texts : public QObject
{
    Q_OBJECT

private slots:
    void init() { m = std::make_unique<WorkerFixture>(); }
    void cleanup()
    {
        m->log.verifyNothingUnexpected();
        m.reset();
    }

    void contextIsDirectoryOfSetting_data();
    void contextIsDirectoryOfSetting();
    void textIsBuiltWithoutDisambiguationPluralAndArguments();
    void textOutlivesWhatItWasBuiltFrom();
    void translatedPathMustBeginWithSlash_data();
    void translatedPathMustBeginWithSlash();
    void emptyTextHasContextToo();

    void titleGetsContextAndSource();
    void everyTextOfSettingIsTranslated();
    void onlyTheFourTextsAreTranslated();
    void emptyTextsStayAsTheyAre();
    void textsAreTranslatedInFixedOrder();
    void catalogueIsAskedWhenTextIsNeeded();
    void cachedTextsFollowLanguage();
    void fallbackTitleIsNeverTranslated();

    void languageChangeAnnouncesEachDataPathOnce();
    void languageChangeAnnouncesPathsInOrderOfRegistry();
    void languageChangeLeavesForeignPathsAlone();
    void languageChangeFollowsConfiguredPrefix();
    void languageChangeWithoutSubscriptionsDoesNothing();
    void languageChangeReadsAndClearsNothing();
    void languageChangeTakesNoLock();

private:
    QVariant role(const QString& path, const QString& name)
    {
        if (!m->worker)
            m->create();
        return m->worker->load(path, nullptr).__hashAttribute(name);
    }

    std::unique_ptr<WorkerFixture> m;
};

void tst_worker_texts::contextIsDirectoryOfSetting_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("context");

    const auto row = [](const char* path, const char* context) {
        QTest::newRow(path) << QString::fromUtf8(path) << QString::fromUtf8(context);
    };
    row("/audio/volume", "@settings/audio");
    row("/volume", "@settings");
    row("/a/b/c/d", "@settings/a/b/c");
    row("/", "@settings");
    row("/audio/", "@settings/audio");
    row("//volume", "@settings/");
    row("/k\u00fche/\u97f3/x", "@settings/k\u00fche/\u97f3");
}

void tst_worker_texts::contextIsDirectoryOfSetting()
{
    QFETCH(QString, path);
    QFETCH(QString, context);

    const TrString text = m->create().translateString(path, QStringLiteral("Gr\u00f6\u00dfe"));

    QCOMPARE(text.context(), context);
    QCOMPARE(text.source(), QStringLiteral("Gr\u00f6\u00dfe"));
    QCOMPARE(text.m_context, context.toUtf8());
}

void tst_worker_texts::textIsBuiltWithoutDisambiguationPluralAndArguments()
{
    const TrString text = m->create().translateString(volume, QStringLiteral("Volume %1"));

    QVERIFY(text.m_disambiguation.isNull());
    QCOMPARE(text.m_n, -1);
    QVERIFY(text.m_arguments.isEmpty());
    QCOMPARE(text.toString(), QStringLiteral("Volume %1"));
}

void tst_worker_texts::textOutlivesWhatItWasBuiltFrom()
{
    TrString text;
    {
        QString path = volume;
        QString source = QStringLiteral("Volume");
        path.detach();
        source.detach();
        text = m->create().translateString(path, source);
        path.fill(QLatin1Char('x'));
        source.fill(QLatin1Char('x'));
    }
    m->destroyWorker();

    QVERIFY(text == TrString({ "@settings/audio", "Volume", nullptr, -1 }, {}));
}

void tst_worker_texts::translatedPathMustBeginWithSlash_data()
{
    QTest::addColumn<QString>("path");

    QTest::newRow("relative") << QStringLiteral("audio/volume");
    QTest::newRow("empty") << QString();
}

void tst_worker_texts::translatedPathMustBeginWithSlash()
{
    QFETCH(QString, path);
    const ChildResult child = ChildProcess::runInChild(
        [&] { m->create().translateString(path, QStringLiteral("Volume")); });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("ASSERT: \"path.startsWith(\"/\")\" in file "),
             child.standardError.constData());
}

void tst_worker_texts::emptyTextHasContextToo()
{
    const TrString text = m->create().translateString(volume, QString());

    QVERIFY(text.isEmpty());
    QCOMPARE(text.context(), QStringLiteral("@settings/audio"));
}

// ---------------------------------------------------------------------------------------------
// The texts of a loaded setting.
// ---------------------------------------------------------------------------------------------

void tst_worker_texts::titleGetsContextAndSource()
{
    m->tree.writeDefault(volume, json(R"({"title": "Volume"})"));

    const QVariant title = role(volume, TuloRoles::Title());

    QVERIFY(TrString::isIn(title));
    QVERIFY(title.value<TrString>() == TrString({ "@settings/audio", "Volume", nullptr, -1 }, {}));
}

void tst_worker_texts::everyTextOfSettingIsTranslated()
{
    const QStringList names { TuloRoles::Title(), TuloRoles::Description(),
                              TuloRoles::LongDescription(), TuloRoles::ValueUnit() };
    QVariantHash roles;
    for (const QString& name : names)
        roles.insert(name, QString(QLatin1String("text of ") + name));
    m->tree.writeDefault(volume, roles);

    for (const QString& name : names) {
        const QByteArray source = "text of " + name.toUtf8();
        QVERIFY(role(volume, name).value<TrString>()
                == TrString({ "@settings/audio", source.constData(), nullptr, -1 }, {}));
    }
}

void tst_worker_texts::onlyTheFourTextsAreTranslated()
{
    m->tree.writeDefault(volume, json(R"({"id": "Volume", "permission": "Volume",
                                          "custom": "Volume", "value": {"string": "Volume"}})"));

    for (const char* name : { "id", "permission", "custom" }) {
        const QVariant entry = role(volume, QString::fromLatin1(name));
        QCOMPARE(entry.userType(), int(QMetaType::QString));
        QCOMPARE(entry.toString(), QStringLiteral("Volume"));
    }
    COMPARE_RECORDS(role(volume, TuloRoles::Value()).toHash(), json(R"({"string": "Volume"})"));
}

void tst_worker_texts::emptyTextsStayAsTheyAre()
{
    m->tree.writeDefault(volume, json(R"({"title": "", "description": "", "valueUnit": null})"));

    for (const QString& name : { TuloRoles::Title(), TuloRoles::Description() }) {
        const QVariant entry = role(volume, name);
        QCOMPARE(entry.userType(), int(QMetaType::QString));
        QVERIFY(entry.toString().isEmpty());
    }
    QVERIFY(!role(volume, TuloRoles::ValueUnit()).isValid());
    QVERIFY(!m->worker->load(volume, nullptr).__contains(TuloRoles::LongDescription()));
}

void tst_worker_texts::textsAreTranslatedInFixedOrder()
{
    // Texts that are translatable already tell when they are read. Files hold none, so they
    // stand where a pending write of that very file would.
    CMSettingsWorker& worker = m->create();
    TuloRoles roles;
    const auto text = [](const char* source) {
        return TrString({ "test", source, nullptr, -1 }, {});
    };
    roles.setValueUnit(text("4"));
    roles.setLongDescription(text("3"));
    roles.setDescription(text("2"));
    roles.setTitle(text("1"));
    worker.m_pendingWrites.insert(m->tree.defaultPath() + QLatin1Char('/') + volume, roles);
    const RecordingCatalogue catalogue;

    worker.load(volume, nullptr);

    const QStringList expected { QStringLiteral("test|1"), QStringLiteral("test|2"),
                                 QStringLiteral("test|3"), QStringLiteral("test|4") };
    QCOMPARE(catalogue.questions, expected);
}

void tst_worker_texts::catalogueIsAskedWhenTextIsNeeded()
{
    m->tree.writeDefault(volume, json(R"({"title": "Volume", "valueUnit": "dB"})"));
    RecordingCatalogue catalogue;
    const QString question = QStringLiteral("@settings/audio|Volume");
    catalogue.texts.insert(question, QStringLiteral("Lautst\u00e4rke"));

    const QVariant title = role(volume, TuloRoles::Title());
    QCOMPARE(catalogue.questions, QStringList());

    QCOMPARE(title.value<TrString>().toString(), QStringLiteral("Lautst\u00e4rke"));
    QCOMPARE(catalogue.questions, QStringList(question));
    // What the catalogue lacks is shown in the source language.
    QCOMPARE(role(volume, TuloRoles::ValueUnit()).value<TrString>().toString(),
             QStringLiteral("dB"));
}

void tst_worker_texts::cachedTextsFollowLanguage()
{
    m->tree.writeDefault(volume, json(R"({"title": "Volume"})"));
    const auto title = [this] {
        const auto reply = getData(m->worker.get(), QStringLiteral("/settings/audio/volume"),
                                   { TuloRoles::Title() });
        return reply.value().value(0).value<TrString>().toString();
    };
    m->create();
    QCOMPARE(title(), QStringLiteral("Volume"));

    {
        RecordingCatalogue catalogue;
        catalogue.texts.insert(QStringLiteral("@settings/audio|Volume"),
                               QStringLiteral("Lautst\u00e4rke"));
        emit Language::instance()->languageChanged();
        QCOMPARE(title(), QStringLiteral("Lautst\u00e4rke"));
    }
    QCOMPARE(title(), QStringLiteral("Volume"));
    QCOMPARE(m->worker->m_valueCache.size(), 1);
}

void tst_worker_texts::fallbackTitleIsNeverTranslated()
{
    RecordingCatalogue catalogue;
    for (const char* context : { "@settings/audio|volume", "|volume" })
        catalogue.texts.insert(QString::fromLatin1(context), QStringLiteral("Lautst\u00e4rke"));

    const TrString title = role(volume, TuloRoles::Title()).value<TrString>();

    QCOMPARE(title.toString(), QStringLiteral("volume"));
    QCOMPARE(catalogue.questions, QStringList());
}

// ---------------------------------------------------------------------------------------------
// A change of language.
// ---------------------------------------------------------------------------------------------

void tst_worker_texts::languageChangeAnnouncesEachDataPathOnce()
{
    CMSubscribe* const registry = m->create().subscribe();
    RegistryObserver observer(registry);
    observer.observe();
    RegistryObserver first(registry);
    RegistryObserver second(registry);
    first.subscribeData(QStringLiteral("/settings/a"));
    first.subscribeData(QStringLiteral("/settings/a"));
    second.subscribeData(QStringLiteral("/settings/a"));
    second.subscribeData(QStringLiteral("/settings/b"));
    first.subscribeRows(QStringLiteral("/settings/c"));
    first.subscribeValue(QStringLiteral("/settings/d"));

    emit Language::instance()->languageChanged();

    const QStringList expected { QStringLiteral("data /settings/a"),
                                 QStringLiteral("data /settings/b") };
    QCOMPARE(observer.texts(), expected);
    QCOMPARE(first.texts(), QStringList(QStringLiteral("data /settings/a")));
    QCOMPARE(second.texts(), expected);
}

void tst_worker_texts::languageChangeAnnouncesPathsInOrderOfRegistry()
{
    CMSettingsWorker& worker = m->create();
    RegistryObserver observer(worker.subscribe());
    m->log.expect(log4cplus::WARN_LOG_LEVEL,
                  QStringLiteral("Wrong settings path detected: 'settings/e' - please fix your "
                                 "code. Adding missing leading '/' for now."));
    for (const char* path : { "/settings/c", "/settings", "settings/e", "/settings/a/x",
                              "/settings/a", "/settings/b" })
        observer.subscribeData(QString::fromLatin1(path));
    observer.observe();

    emit Language::instance()->languageChanged();

    QStringList expected;
    const QList<CMPath> paths = worker.subscribe()->dataPathsStartingWith(worker.prefixPath());
    for (const CMPath& path : paths)
        expected.append(QLatin1String("data ") + path.text());
    QCOMPARE(expected.size(), 6);
    // Each path is told to its subscriber, and to the same one as an observer.
    QStringList announced = observer.texts();
    announced.removeDuplicates();
    QCOMPARE(announced, expected);
}

void tst_worker_texts::languageChangeLeavesForeignPathsAlone()
{
    CMSubscribe* const registry = m->create().subscribe();
    RegistryObserver observer(registry);
    for (const char* path : { "/settings/a", "/settingsx/a", "/other/settings", "/" })
        observer.subscribeData(QString::fromLatin1(path));

    emit Language::instance()->languageChanged();

    QCOMPARE(observer.texts(), QStringList(QStringLiteral("data /settings/a")));
}

void tst_worker_texts::languageChangeFollowsConfiguredPrefix()
{
    CMSubscribe* const registry =
        m->create({ { QStringLiteral("prefix"), QStringLiteral("/device") } }).subscribe();
    RegistryObserver observer(registry);
    observer.subscribeData(QStringLiteral("/settings/a"));
    observer.subscribeData(QStringLiteral("/device/a"));

    emit Language::instance()->languageChanged();

    QCOMPARE(observer.texts(), QStringList(QStringLiteral("data /device/a")));
}

void tst_worker_texts::languageChangeWithoutSubscriptionsDoesNothing()
{
    RegistryObserver observer(m->create().subscribe());
    observer.observe();

    emit Language::instance()->languageChanged();

    QCOMPARE(observer.texts(), QStringList());
}

void tst_worker_texts::languageChangeReadsAndClearsNothing()
{
    m->tree.writeDefault(volume, json(R"({"title": "Volume"})"));
    CMSettingsWorker& worker = m->create();
    worker.load(volume, nullptr);
    worker.getDir(QStringLiteral("/audio"), nullptr);
    RegistryObserver observer(worker.subscribe());
    observer.subscribeData(QStringLiteral("/settings/audio/volume"));
    m->log.setLevel(log4cplus::TRACE_LOG_LEVEL);

    emit Language::instance()->languageChanged();

    QCOMPARE(observer.texts().size(), 1);
    QCOMPARE(worker.m_valueCache.size(), 1);
    QCOMPARE(worker.m_dirCache.size(), 1);
    QCOMPARE(m->loadedFiles(), QStringList());
}

void tst_worker_texts::languageChangeTakesNoLock()
{
    CMSettingsWorker& worker = m->create();
    RegistryObserver observer(worker.subscribe());
    observer.subscribeData(QStringLiteral("/settings/a"));
    const HeldElsewhere held(&worker.m_mutex);

    emit Language::instance()->languageChanged();

    QCOMPARE(observer.texts().size(), 1);
}

QTEST_GUILESS_MAIN(tst_worker_texts)
#include "tst_worker_texts.moc"
