// The shipped plug-in, looked at and loaded by its file name: what it exports, what happens when
// it is loaded, and which system calls a worker's construction and destruction make.

#include "api/core/model/cmworker.h"
#include "tests/support/childprocess.h"
#include "tests/support/logcapture.h"
#include "tests/support/replywaiter.h"
#include "tests/support/temporarytree.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QLibrary>
#include <QRegularExpression>
#include <QTest>

#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

#include <csignal>
#include <memory>

#include <unistd.h>

namespace {

const QString pluginFile = QStringLiteral(TULO_PLUGIN_FILE);
constexpr char traceArgument[] = "--construct-and-destroy";
constexpr char traceVariable[] = "TULO_TEST_TREE";

CMWorkerCreate* loadPlugin()
{
    QLibrary plugin(pluginFile);
    if (!plugin.load())
        qFatal("cannot load the plug-in: %s", qPrintable(plugin.errorString()));
    return reinterpret_cast<CMWorkerCreate*>(plugin.resolve("worker_create"));
}

// A system call of no effect that a trace shows.
void mark(const char* name)
{
    if (::access(name, F_OK) == 0)
        qFatal("%s exists", name);
}

// What the traced child does: a worker from its construction to its destruction, with a change
// that is not written yet.
int constructAndDestroy()
{
    log4cplus::Logger::getRoot().addAppender(
        log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));
    const QString tree = qEnvironmentVariable(traceVariable);
    const QVariantHash config {
        { QStringLiteral("default_path"), QString(tree + QLatin1String("/default")) },
        { QStringLiteral("write_path"), QString(tree + QLatin1String("/write")) }
    };
    CMWorkerCreate* const create = loadPlugin();
    mark("/construction-begins");
    std::unique_ptr<CMWorker> worker(create(nullptr, config));
    mark("/construction-ends");
    const auto reply = setData(worker.get(), QStringLiteral("/settings/volume"), TuloRoles::Value(),
                               QVariantHash { { QStringLiteral("int"), 4 } });
    if (!errorText(reply).isEmpty())
        qFatal("%s", qPrintable(errorText(reply)));
    mark("/destruction-begins");
    worker.reset();
    mark("/destruction-ends");
    return 0;
}

QStringList between(const QStringList& lines, const char* begin, const char* end)
{
    const auto indexOf = [&lines](const char* mark) {
        const QStringList found = lines.filter(QLatin1String(mark));
        return found.isEmpty() ? -1 : lines.indexOf(found.first());
    };
    const int first = indexOf(begin);
    const int last = indexOf(end);
    if (first < 0 || last < first)
        return { QStringLiteral("no marks") };
    return lines.mid(first + 1, last - first - 1);
}

} // namespace

class tst_worker_plugin : public QObject
{
    Q_OBJECT

private slots:
    void onlyCreateFunctionIsExported();
    void sonameHasNoVersion();
    void loadingObtainsLoggerAndNothingElse();
    void createFunctionMakesSettingsWorker();
    void constructionReadsAndDestructionWritesNoFile();
};

void tst_worker_plugin::onlyCreateFunctionIsExported()
{
    const ChildResult symbols = ChildProcess::run(
        QStringLiteral("nm"),
        { QStringLiteral("--dynamic"), QStringLiteral("--defined-only"), pluginFile });

    QCOMPARE(symbols.exitCode, 0);
    const QStringList lines =
        QString::fromUtf8(symbols.standardOutput).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().endsWith(QLatin1String(" T worker_create")), qPrintable(lines.first()));
}

void tst_worker_plugin::sonameHasNoVersion()
{
    const ChildResult section =
        ChildProcess::run(QStringLiteral("readelf"),
                          { QStringLiteral("--dynamic"), QStringLiteral("--wide"), pluginFile });

    QCOMPARE(section.exitCode, 0);
    const QStringList names = QString::fromUtf8(section.standardOutput)
                                  .split(QLatin1Char('\n'))
                                  .filter(QStringLiteral("(SONAME)"));
    QCOMPARE(names.size(), 1);
    QVERIFY2(names.first().endsWith(QLatin1String("[libtulo_cb_settings.so]")),
             qPrintable(names.first()));
}

void tst_worker_plugin::loadingObtainsLoggerAndNothingElse()
{
    const ChildResult child = ChildProcess::runInChild([] {
        const LogCapture log(log4cplus::TRACE_LOG_LEVEL);
        const auto threads = [] {
            return QDir(QStringLiteral("/proc/self/task"))
                .entryList(QDir::Dirs | QDir::NoDotAndDotDot)
                .size();
        };
        const int threadsBefore = threads();
        QVERIFY(threadsBefore > 0);
        QVERIFY(!log4cplus::Logger::exists("CMSettingsWorker"));
        const std::size_t loggersBefore = log4cplus::Logger::getCurrentLoggers().size();

        QVERIFY(loadPlugin() != nullptr);

        QVERIFY(log4cplus::Logger::exists("CMSettingsWorker"));
        QCOMPARE(log4cplus::Logger::getCurrentLoggers().size(), loggersBefore + 1);
        for (const char* name : { "TuloRoles", "CMSetDataRequest", "CMPath", "TrString" })
            QCOMPARE(QMetaType::type(name), int(QMetaType::UnknownType));
        QCOMPARE(threads(), threadsBefore);
        QVERIFY(log.records().isEmpty());
    });

    QCOMPARE(child.signal, 0);
    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

void tst_worker_plugin::createFunctionMakesSettingsWorker()
{
    const ChildResult child = ChildProcess::runInChild([] {
        const TemporaryTree tree;
        tree.writeDefault(QStringLiteral("/volume"), QByteArray(R"({"id": "v"})"));
        CMWorkerCreate* const create = loadPlugin();
        QVERIFY(create != nullptr);

        const std::unique_ptr<CMWorker> worker(create(nullptr, tree.config()));

        QCOMPARE(worker->metaObject()->className(), "CMSettingsWorker");
        QCOMPARE(worker->workerName(), QStringLiteral("CMSettingsWorker"));
        const auto reply =
            getData(worker.get(), QStringLiteral("/settings/volume"), { TuloRoles::Id() });
        QCOMPARE(reply.value(), (QList<QVariant> { QStringLiteral("v") }));
    });

    QCOMPARE(child.signal, 0);
    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

void tst_worker_plugin::constructionReadsAndDestructionWritesNoFile()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/volume"), QByteArray(R"({"value": {"int": 3}})"));
    tree.writeDefault(QStringLiteral("/.meta"), QByteArray("{}"));
    const QString output = tree.path() + QLatin1String("/trace");
    ChildProcess child(QStringLiteral("strace"),
                       { QStringLiteral("-f"), QStringLiteral("-y"), QStringLiteral("-o"), output,
                         QCoreApplication::applicationFilePath(), QLatin1String(traceArgument) });
    child.setVariable(QLatin1String(traceVariable), tree.path());
    // The leak check traces the process itself.
    child.setVariable(QStringLiteral("ASAN_OPTIONS"), QStringLiteral("detect_leaks=0"));
    QVERIFY(child.start());
    const ChildResult result = child.finish();
    if (result.standardError.contains("PTRACE_TRACEME"))
        QSKIP("this machine does not let strace trace a process");
    QVERIFY2(result.exitCode == 0, result.standardError.constData());

    QFile file(output);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    // Whatever opens, reads, writes, makes or removes a file, or starts something. Sanitizers write
    // to a pipe of their own to see whether memory can be read.
    const QRegularExpression touching(QStringLiteral(
        R"(^\d+ +(open|creat|read\(|pread|readv|write\(\d+<(?!pipe:)|writev|pwrite)"
        R"(|getdents|rename|unlink|mkdir|rmdir|link|symlink|truncate|ftruncate|chmod)"
        R"(|fsync|fdatasync|sync|exec|fork|vfork|clone|timerfd|socket))"));
    const QStringList construction = between(lines, "/construction-begins", "/construction-ends");
    const QStringList destruction = between(lines, "/destruction-begins", "/destruction-ends");
    QCOMPARE(construction.filter(touching).join(QLatin1Char('\n')), QString());
    QCOMPARE(destruction.filter(touching).join(QLatin1Char('\n')), QString());
    // The directories themselves are resolved, so the trace sees what happens.
    QVERIFY(!construction.filter(tree.defaultPath()).isEmpty());
    QVERIFY(!construction.filter(tree.writePath()).isEmpty());
    // And the change in between was there to be lost: reading its setting opened files.
    QVERIFY(
        !between(lines, "/construction-ends", "/destruction-begins").filter(touching).isEmpty());
    QCOMPARE(tree.writtenEntries(), QStringList());
}

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    if (argc > 1 && qstrcmp(argv[1], traceArgument) == 0)
        return constructAndDestroy();
    tst_worker_plugin test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_worker_plugin.moc"
