#include "tests/support/childprocess.h"
#include "tests/support/files.h"

#include <tulo/testsettings.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <memory>
#include <vector>

using namespace tulo;

namespace {

const QString volumePath = QStringLiteral("/settings/audio/volume");

/// The blocks of a document that are marked as being of a language, in order.
QList<QByteArray> blocks(const QString& document, const QByteArray& language)
{
    QList<QByteArray> blocks;
    bool isBlock = false;
    bool isWanted = false;
    const QByteArray text = readFile(QStringLiteral(TULO_SOURCE_DIR "/") + document);
    for (const QByteArray& line : text.split('\n')) {
        if (line.startsWith("```")) {
            isBlock = !isBlock;
            isWanted = isBlock && line == "```" + language;
            if (isWanted)
                blocks.append(QByteArray());
        } else if (isWanted) {
            blocks.last() += line + '\n';
        }
    }
    return blocks;
}

/// Runs a program; fails the test with what it printed when that does not succeed.
bool runs(const QStringList& words, const QStringList& variables = {})
{
    ChildProcess process(words.first(), words.mid(1));
    for (const QString& variable : variables) {
        process.setVariable(variable.section(QLatin1Char('='), 0, 0),
                            variable.section(QLatin1Char('='), 1));
    }
    if (!process.start())
        return false;
    process.closeInput();
    // It may compile.
    const ChildResult result = process.finish(10 * ChildProcess::waitMs);
    if (result.exitCode != 0) {
        qWarning("%s: exit code %d\n%s%s", qPrintable(words.join(QLatin1Char(' '))),
                 result.exitCode, result.standardOutput.constData(),
                 result.standardError.constData());
    }
    return result.exitCode == 0;
}

} // namespace

/// Programs as their authors write them, built outside of the tree against an installation, on a
/// service of that installation.
class TstClientPrograms : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void exampleFollowsAndChanges_data();
    void exampleFollowsAndChanges();
    void exampleRejectsWhatIsNotANumber_data();
    void exampleRejectsWhatIsNotANumber();
    void exampleInPythonSaysThatThereIsNoService();
    void exampleInPythonEndsQuietlyOnCtrlC();
    void readmeShowsAProgramThatRuns();
    void documentShowsTheProgramOfTheReadme();
    void documentShowsATestThatPasses();
    void documentShowsWhatCompiles();
    void documentShowsCommandsThatRun_data();
    void documentShowsCommandsThatRun();
    void documentShowsMatchRulesThatMatch();

private:
    QString file(const QString& name) const { return m_directory.filePath(name); }
    QString lib() const { return file(QStringLiteral("prefix/" TULO_LIBDIR)); }
    QString makeDirectory(const QString& name) const;
    bool buildByCMake(const QString& source, const QString& build) const;
    bool buildByPkgConfig(const QString& source, const QString& program) const;
    QStringList example(const QString& build) const;

    const QTemporaryDir m_directory;
};

// With everything, as `cmake --install` does.
void TstClientPrograms::initTestCase()
{
    QVERIFY(
        runs({ QStringLiteral("cmake"), QStringLiteral("--install"), QStringLiteral(TULO_BUILD_DIR),
               QStringLiteral("--prefix"), file(QStringLiteral("prefix")) }));
}

QString TstClientPrograms::makeDirectory(const QString& name) const
{
    if (!QDir().mkpath(file(name)))
        qFatal("cannot make %s", qPrintable(name));
    return file(name);
}

bool TstClientPrograms::buildByCMake(const QString& source, const QString& build) const
{
    return runs({ QStringLiteral("cmake"), QStringLiteral("-S"), source, QStringLiteral("-B"),
                  build, QStringLiteral("-G"), QStringLiteral(TULO_GENERATOR), QStringLiteral("-D"),
                  QStringLiteral("CMAKE_CXX_COMPILER=" TULO_COMPILER), QStringLiteral("-D"),
                  QStringLiteral("CMAKE_PREFIX_PATH=") + file(QStringLiteral("prefix")) })
        && runs({ QStringLiteral("cmake"), QStringLiteral("--build"), build });
}

bool TstClientPrograms::buildByPkgConfig(const QString& source, const QString& program) const
{
    const QString command =
        QStringLiteral("'%1' '%2' -o '%3' $(pkg-config --cflags --libs tulo-settings)")
            .arg(QStringLiteral(TULO_COMPILER), source, program);
    return runs({ QStringLiteral("/bin/sh"), QStringLiteral("-c"), command },
                { QStringLiteral("PKG_CONFIG_PATH=") + lib() + QStringLiteral("/pkgconfig") });
}

// The words that start the example program; none when it cannot be built.
QStringList TstClientPrograms::example(const QString& build) const
{
    const QString examples = QStringLiteral(TULO_SOURCE_DIR "/examples/clients");
    if (build.isEmpty()) {
        return { QStringLiteral("/usr/bin/python3"),
                 examples + QStringLiteral("/python/volume.py") };
    }
    const QString directory = makeDirectory(QStringLiteral("example-") + build);
    const QString program = directory + QStringLiteral("/volume");
    const bool isBuilt = build == QLatin1String("cmake")
        ? buildByCMake(examples + QStringLiteral("/cpp"), directory)
        : buildByPkgConfig(examples + QStringLiteral("/cpp/volume.cpp"), program);
    return isBuilt ? QStringList { program } : QStringList();
}

void TstClientPrograms::exampleFollowsAndChanges_data()
{
    QTest::addColumn<QString>("build");
    QTest::addRow("C++ by CMake") << QStringLiteral("cmake");
    QTest::addRow("C++ by pkg-config") << QStringLiteral("pkg-config");
    QTest::addRow("Python") << QString();
}

void TstClientPrograms::exampleFollowsAndChanges()
{
    QFETCH(QString, build);
    const QStringList words = example(build);
    QVERIFY(!words.isEmpty());
    TestSettings test;
    test.writeDefault(volumePath, R"({"value":{"int":35},"edit":{"min":0,"max":100}})");
    QVERIFY2(test.start(), qPrintable(test.error()));
    const auto start = [&](const QString& value) {
        auto process = std::make_unique<ChildProcess>(words.first(), words.mid(1) << value);
        process->setVariable(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), test.busAddress());
        process->setVariable(QStringLiteral("LD_LIBRARY_PATH"), lib());
        return process->start() ? std::move(process) : nullptr;
    };

    const auto follows = start(QStringLiteral("40"));
    QVERIFY(follows);
    QVERIFY2(follows->waitForOutput("volume 40\n"), follows->standardError().constData());
    QVERIFY(test.settings().set(volumePath, 50).wait());
    QVERIFY(follows->waitForOutput("volume 50\n"));

    const auto adjusts = start(QStringLiteral("1000"));
    QVERIFY(adjusts);
    QVERIFY(adjusts->waitForError("adjusted: "));
    QVERIFY(adjusts->waitForOutput("volume 100\n"));
    QVERIFY(follows->waitForOutput("volume 100\n"));
    QVERIFY(test.restart());
    QVERIFY(follows->isRunning());
    QVERIFY(test.settings().set(volumePath, 60).wait());
    QVERIFY(follows->waitForOutput("volume 60\n"));
    QCOMPARE(follows->standardError(), QByteArray());
}

void TstClientPrograms::exampleRejectsWhatIsNotANumber_data()
{
    QTest::addColumn<QString>("build");
    QTest::addRow("C++") << QStringLiteral("cmake");
    QTest::addRow("Python") << QString();
}

void TstClientPrograms::exampleRejectsWhatIsNotANumber()
{
    QFETCH(QString, build);
    const QStringList words = example(build);
    QVERIFY(!words.isEmpty());
    TestSettings test;
    test.writeDefault(volumePath, R"({"value":{"int":35}})");
    QVERIFY2(test.start(), qPrintable(test.error()));
    ChildProcess program(words.first(), words.mid(1) << QStringLiteral("loud"));
    program.setVariable(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), test.busAddress());
    program.setVariable(QStringLiteral("LD_LIBRARY_PATH"), lib());
    QVERIFY(program.start());

    const ChildResult result = program.finish();

    QCOMPARE(result.exitCode, 2);
    QVERIFY2(result.standardError.contains("'loud'"), result.standardError.constData());
    QCOMPARE(result.standardOutput, QByteArray());
    QVERIFY(test.written(volumePath).isEmpty());
}

void TstClientPrograms::exampleInPythonSaysThatThereIsNoService()
{
    TestSettings test;
    test.writeDefault(volumePath, R"({"value":{"int":35}})");
    QVERIFY2(test.start(), qPrintable(test.error()));
    test.stop();
    const QStringList words = example(QString());
    ChildProcess program(words.first(), words.mid(1));
    program.setVariable(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), test.busAddress());
    QVERIFY(program.start());

    const ChildResult result = program.finish();

    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.standardError.startsWith("no volume: "), result.standardError.constData());
    QCOMPARE(result.standardError.count('\n'), 1);
}

void TstClientPrograms::exampleInPythonEndsQuietlyOnCtrlC()
{
    TestSettings test;
    test.writeDefault(volumePath, R"({"value":{"int":35}})");
    QVERIFY2(test.start(), qPrintable(test.error()));
    const QStringList words = example(QString());
    ChildProcess program(words.first(), words.mid(1));
    program.setVariable(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), test.busAddress());
    QVERIFY(program.start());
    QVERIFY2(program.waitForOutput("volume 35\n"), program.standardError().constData());

    program.sendSignal(SIGINT);
    const ChildResult result = program.finish();

    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.exitCode, 130);
}

void TstClientPrograms::readmeShowsAProgramThatRuns()
{
    const QList<QByteArray> programs = blocks(QStringLiteral("README.md"), "cpp");
    QCOMPARE(programs.size(), 1);
    const QString directory = makeDirectory(QStringLiteral("readme"));
    writeFile(directory + QStringLiteral("/program.cpp"), programs.first());
    QVERIFY(buildByPkgConfig(directory + QStringLiteral("/program.cpp"),
                             directory + QStringLiteral("/program")));
    TestSettings test;
    test.writeDefault(volumePath, R"({"value":{"int":20}})");
    QVERIFY2(test.start(), qPrintable(test.error()));

    ChildProcess program(directory + QStringLiteral("/program"));
    program.setVariable(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), test.busAddress());
    program.setVariable(QStringLiteral("LD_LIBRARY_PATH"), lib());
    QVERIFY(program.start());

    QVERIFY(program.waitForError("40\n"));
}

void TstClientPrograms::documentShowsTheProgramOfTheReadme()
{
    QCOMPARE(blocks(QStringLiteral("docs/clients.md"), "cpp").first(),
             blocks(QStringLiteral("README.md"), "cpp").first());
}

// The library finds the service that was installed with it.
void TstClientPrograms::documentShowsATestThatPasses()
{
    QByteArray test;
    for (const QByteArray& block : blocks(QStringLiteral("docs/clients.md"), "cpp")) {
        if (block.contains("QTEST_"))
            test = block;
    }
    QVERIFY(!test.isEmpty());
    const QList<QByteArray> lines = blocks(QStringLiteral("docs/clients.md"), "cmake");
    QCOMPARE(lines.size(), 2);
    const QString directory = makeDirectory(QStringLiteral("test"));
    writeFile(directory + QStringLiteral("/volumetest.cpp"), test);
    writeFile(directory + QStringLiteral("/CMakeLists.txt"),
              "cmake_minimum_required(VERSION 3.25)\n"
              "project(test LANGUAGES CXX)\n"
              "set(CMAKE_AUTOMOC ON)\n"
              "find_package(TuloSettings 0.1 REQUIRED)\n"
              "add_executable(volumetest volumetest.cpp)\n"
                  + lines.last());

    QVERIFY(buildByCMake(directory, directory + QStringLiteral("/build")));

    QVERIFY(runs({ directory + QStringLiteral("/build/volumetest") }));
}

void TstClientPrograms::documentShowsWhatCompiles()
{
    QByteArray text = "#include <tulo/remotesettings.h>\n"
                      "#include <tulo/rowsmodel.h>\n"
                      "#include <tulo/setting.h>\n"
                      "#include <QDebug>\n"
                      "struct Program : QObject\n"
                      "{\n"
                      "    tulo::RemoteSettings settings;\n"
                      "    tulo::Setting<qint64> volume { &settings, \"/settings/volume\" };\n"
                      "    void readAgain() {}\n";
    int count = 0;
    for (const QByteArray& block : blocks(QStringLiteral("docs/clients.md"), "cpp")) {
        if (!block.contains("#include"))
            text += "void part" + QByteArray::number(++count) + "()\n{\n" + block + "}\n";
    }
    QVERIFY(count > 0);
    text += "};\nint main() {}\n";
    const QString directory = makeDirectory(QStringLiteral("parts"));
    writeFile(directory + QStringLiteral("/parts.cpp"), text);

    QVERIFY(buildByPkgConfig(directory + QStringLiteral("/parts.cpp"),
                             directory + QStringLiteral("/parts")));
}

void TstClientPrograms::documentShowsCommandsThatRun_data()
{
    QTest::addColumn<QStringList>("interpreter");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("output");
    int count = 0;
    for (const QByteArray& block : blocks(QStringLiteral("docs/clients.md"), "sh")) {
        if (block.contains("busctl")) {
            ++count;
            QTest::addRow("shell")
                << QStringList { QStringLiteral("/bin/sh"), QStringLiteral("-ec") } << block
                << QByteArray("a{sv} 1 \"value\" x 35\n");
        }
    }
    for (const QByteArray& block : blocks(QStringLiteral("docs/clients.md"), "python")) {
        ++count;
        QTest::addRow("Python") << QStringList { QStringLiteral("/usr/bin/python3"),
                                                 QStringLiteral("-c") }
                                << block << QByteArray("{'value': GLib.Variant('x', 35)}\n");
    }
    QCOMPARE(count, 2);
}

void TstClientPrograms::documentShowsCommandsThatRun()
{
    QFETCH(QStringList, interpreter);
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, output);
    TestSettings test;
    test.writeDefault(volumePath, R"({"value":{"int":35}})");
    QVERIFY2(test.start(), qPrintable(test.error()));

    ChildProcess process(interpreter.first(), interpreter.mid(1) << QString::fromUtf8(text));
    process.setVariable(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), test.busAddress());
    QVERIFY(process.start());
    const ChildResult result = process.finish();

    QVERIFY2(result.exitCode == 0, result.standardError.constData());
    QVERIFY2(result.standardOutput.startsWith(output), result.standardOutput.constData());
    const auto get = test.settings().get(volumePath, { QStringLiteral("value") });
    QVERIFY(get.wait());
    QCOMPARE(get.value().value(QStringLiteral("value")), QVariant(40LL));
}

void TstClientPrograms::documentShowsMatchRulesThatMatch()
{
    QList<QByteArray> rules;
    for (const QByteArray& block : blocks(QStringLiteral("docs/clients.md"), ""))
        rules += block.trimmed().split('\n');
    QCOMPARE(rules.size(), 2);
    TestSettings test;
    const QStringList paths { volumePath, QStringLiteral("/settings/audio/gain"),
                              QStringLiteral("/settings/other") };
    for (const QString& path : paths)
        test.writeDefault(path, R"({"value":{"int":35}})");
    QVERIFY2(test.start(), qPrintable(test.error()));
    std::vector<std::unique_ptr<ChildProcess>> monitors;
    for (const QByteArray& rule : rules) {
        monitors.push_back(std::make_unique<ChildProcess>(QStringLiteral("dbus-monitor"),
                                                          QStringList { QStringLiteral("--address"),
                                                                        test.busAddress(),
                                                                        QString::fromUtf8(rule) }));
        QVERIFY(monitors.back()->start());
        // Told by the bus when it listens.
        QVERIFY(monitors.back()->waitForOutput("NameLost"));
    }

    for (auto path = paths.crbegin(); path != paths.crend(); ++path)
        QVERIFY(test.settings().set(*path, 40).wait());

    for (const auto& monitor : monitors)
        QVERIFY(monitor->waitForOutput("\"/settings/audio/volume\""));
    QVERIFY(!monitors[0]->standardOutput().contains("/settings/audio/gain"));
    QVERIFY(monitors[1]->standardOutput().contains("/settings/audio/gain"));
    QVERIFY(!monitors[1]->standardOutput().contains("/settings/other"));
}

QTEST_GUILESS_MAIN(TstClientPrograms)
#include "tst_client_programs.moc"
