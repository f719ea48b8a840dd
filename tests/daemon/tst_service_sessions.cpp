#include "tests/daemon/servicefixture.h"

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

namespace {

/// One line of a session: the words of a command, and what stands on its standard input.
struct Line
{
    QStringList words;
    QByteArray input;
};

using Session = QVector<Line>;

/// What a line printed and how it ended.
QString told(const ChildResult& result, const CommandLine& trees)
{
    static const QRegularExpression timestamp(QStringLiteral("\\b1[0-9]{12}\\b"));
    QString text = QString::fromUtf8(result.standardOutput) + QStringLiteral("--- errors\n")
        + QString::fromUtf8(result.standardError)
        + QStringLiteral("--- exit code %1").arg(result.exitCode);
    text.replace(timestamp, QStringLiteral("TIME"));
    return text.replace(trees.tree.path(), QStringLiteral("TREE"));
}

Line words(const char* text)
{
    return { QString::fromUtf8(text).split(QLatin1Char(' ')), QByteArray() };
}

Line set(const char* path, const char* value)
{
    return { { QStringLiteral("set"), QString::fromUtf8(path), QString::fromUtf8(value) },
             QByteArray() };
}

Line setRoles(const char* path, const char* roles)
{
    return { { QStringLiteral("set"), QString::fromUtf8(path), QStringLiteral("--roles"),
               QString::fromUtf8(roles) },
             QByteArray() };
}

Line shell(const QByteArray& input, bool isJson = false)
{
    Line line { { QStringLiteral("shell") }, input };
    if (isJson)
        line.words.prepend(QStringLiteral("--json"));
    return line;
}

} // namespace

Q_DECLARE_METATYPE(Session)

/// The same sessions in processes that serve the directories themselves and through the service:
/// the same output, the same errors, the same exit codes.
///
/// Only a disabled flag is set in a shell alone: it lives until the process ends that stored it.
class TstServiceSessions : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void sessionReadsTheSameBothWays_data();
    void sessionReadsTheSameBothWays();
    void longListingReadsTheSameBothWays();

private:
    void runBothWays(const Session& session, const CommandLine& own, const CommandLine& served);

    const QTemporaryDir m_programs;
};

// A flush else takes as long as the disk needs for what all other programs wrote.
void TstServiceSessions::initTestCase()
{
    QFile file(m_programs.filePath(QStringLiteral("sync")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("#!/bin/sh\nexit 0\n");
    QVERIFY(file.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
    qputenv("PATH", QFile::encodeName(m_programs.path()) + ':' + qgetenv("PATH"));
}

void TstServiceSessions::sessionReadsTheSameBothWays_data()
{
    QTest::addColumn<Session>("session");
    const char* const volume = "/settings/audio/volume";
    const char* const token = "/settings/token";
    const char* const sources = "/settings/audio/sources";

    QTest::newRow("reading") << Session {
        words("get /settings/audio/volume"),
        words("get /settings/audio/volume /settings/audio/gain /settings/audio/loudness "
              "/settings/audio/mode /settings/audio/sources /settings/token"),
        words("get settings/audio/volume"),
        words("get /settings/audio/volume/"),
        words("get /"),
        words("get /settings/audio/volume --role title --role edit --role path --role type"),
        words("get /settings/audio/volume --all"),
        words("get /settings/audio --all"),
        words("get /settings --role title"),
        words("get /settings/audio/volume --role colour"),
        words("--json get /settings/audio/volume --role value,title"),
        words("--json get /settings/audio/volume --all"),
        words("--json get /settings/audio/sources /settings/audio/gain /settings/nothing"),
    };
    QTest::newRow("reading what is not there") << Session {
        words("get /settings/nothing"),
        words("get /settings/../x"),
        words("get /settings//x"),
        words("get /other/x"),
        words("get /settings/\xe8\xa1\xa8"),
        words("get /settings/\xe2\x80\xae"),
        { { QStringLiteral("get"), QString() }, QByteArray() },
        words("ls /settings/nothing"),
        words("ls /settings/audio/volume"),
        words("tree /settings/nothing"),
        words("--json get /settings/nothing"),
    };
    QTest::newRow("listing") << Session {
        words("ls /settings"),
        words("ls"),
        words("ls /settings/audio"),
        words("ls /settings/audio/"),
        words("ls /settings/audio --role titel"),
        words("ls /settings/audio --first 1 --last 2 --role value --role title --role valueUnit"),
        words("--json ls /settings/audio --role value --role edit"),
        words("tree"),
        words("tree /settings/audio"),
        words("--json tree /settings"),
        words("check"),
    };
    QTest::newRow("explaining") << Session {
        words("set /settings/audio/volume 40 --flush"),
        words("explain /settings/audio/volume"),
        words("explain /settings/audio"),
        words("explain /settings/presets/one"),
        words("explain settings/serial/"),
        words("explain /settings/nothing"),
        words("explain /settings/../x"),
        words("--json explain /settings/audio/volume"),
        words("describe /settings/audio/volume"),
        words("describe"),
        words("describe /settings/nothing"),
        words("describe --markdown"),
        words("--json describe /settings/audio/sources"),
        words("find volume"),
        words("find audio --changed"),
        words("find /^V/ --in title"),
        words("find /(/"),
        words("--json find o"),
        words("diff"),
        words("diff /settings/presets"),
        words("diff /settings/nothing"),
        words("--json diff"),
    };
    QTest::newRow("usage") << Session {
        words("get"),
        words("nosuch"),
        words("set /settings/audio/volume"),
        words("get --nosuch /settings/audio/volume"),
        words("ls /settings/audio --first -1"),
        set(sources, "[broken"),
        setRoles(volume, "[]"),
        words("help get"),
        words("--json help"),
        words("--version"),
        words("--json --version"),
    };
    QTest::newRow("changes") << Session {
        set(volume, "40"),
        words("get /settings/audio/volume"),
        set(volume, "41"),
        set(volume, "400"),
        set(volume, "-5"),
        set(volume, "abc"),
        set(volume, "40.5"),
        set(volume, "true"),
        set(volume, "18446744073709551615"),
        set("/settings/audio/gain", "1"),
        set("/settings/audio/gain", "0.1"),
        set("/settings/audio/loudness", "false"),
        set("/settings/audio/loudness", "1"),
        set("/settings/audio/mode", "high"),
        set("/settings/audio/mode", "top"),
        words("set /settings/audio/volume 60 --flush"),
        words("set /settings/audio/volume --default"),
        words("set /settings/token --default"),
        words("flush"),
    };
    QTest::newRow("changes of lists and texts") << Session {
        set(sources, "[\"dab\"]"),
        set(sources, "[1,2,3,4]"),
        set(sources, "[1,[2,{\"a\":3}]]"),
        set(sources, "[null]"),
        set(sources, "[1.0,18446744073709551615]"),
        set(sources, "{\"a\":1}"),
        words("get /settings/audio/sources"),
        set(token, "hello"),
        set(token, "5"),
        set(token, "1.50"),
        set(token, "\"quoted\""),
        set(token, "null"),
        words("set /settings/token --string 7"),
        { { QStringLiteral("set"), QString::fromUtf8(token), QStringLiteral("-") },
          "from standard input\n" },
        words("--json get /settings/token"),
    };
    QTest::newRow("changes as JSON") << Session {
        words("--json set /settings/audio/volume 50"),
        words("--json set /settings/audio/volume 51"),
        words("--json set /settings/audio/volume 999"),
        words("--json set /settings/serial 1"),
        words("--json op /settings/audio/volume add -5"),
        words("--json flush"),
        words("--json set /settings/audio/mode top"),
        words("--json op /settings/audio/volume add 500"),
    };
    QTest::newRow("refused changes") << Session {
        set("/settings/serial", "X2"),
        set("/settings/audio", "1"),
        set("/settings/audio/new", "1"),
        set("/settings/new", "1"),
        set("/settings/none/new", "1"),
        set("/settings/presets/a.b", "fm:1"),
        set("/settings/../x", "1"),
        set("/other/x", "1"),
        set("/settings/audio/volume/deeper", "1"),
        words("ls /settings/presets"),
    };
    QTest::newRow("new settings") << Session {
        set("/settings/presets/two", "fm:99"),
        words("get /settings/presets/two --role title --role value"),
        words("ls /settings/presets"),
    };
    QTest::newRow("resetting") << Session {
        set(volume, "40"),
        set("/settings/presets/two", "fm:99"),
        set("/settings/presets/three", "fm:99"),
        words("reset /settings/audio/volume /settings/presets/two /settings/audio/gain"),
        words("get /settings/audio/volume /settings/presets/two"),
        words("ls /settings/presets"),
        words("reset /settings/audio/volume"),
        words("reset /settings/audio"),
        words("reset /settings/serial"),
        words("reset -r /settings/serial"),
        words("reset /settings/none"),
        words("reset /settings/../x"),
        words("reset"),
        words("reset --all /settings/audio"),
        words("reset --keep /settings/audio /settings/presets"),
        set(token, "5"),
        set(volume, "45"),
        words("reset --all --keep settings/aud*"),
        words("get /settings/audio/volume /settings/token"),
        words("--json reset -r settings/"),
        words("--json reset /settings/none"),
        words("reset --all"),
        shell("watch -r /settings\nset settings/audio/volume 40\nreset settings/audio/volume\n"),
    };
    QTest::newRow("roles") << Session {
        setRoles(volume, R"({"value":{"int":45},"id":"A1","timestamp":1700000000000})"),
        words("get /settings/audio/volume --all"),
        setRoles(volume, R"({"value":{"colour":1}})"),
        setRoles(volume, R"({"title":"Loud"})"),
        setRoles(volume, R"({"value":{"int":45},"path":"/x"})"),
        setRoles(volume, R"({"id":5})"),
        setRoles(volume, R"({"timestamp":"now"})"),
        setRoles(volume, R"({"disabled":1})"),
        setRoles(volume, R"({"id":null})"),
        setRoles(volume, R"({})"),
        setRoles("/settings/audio/gain", R"({"value":{"double":1}})"),
        setRoles("/settings/audio/gain", R"({"value":{"int":200}})"),
        setRoles(sources, R"({"value":{"list":[null]}})"),
        setRoles(sources, R"({"value":{"list":[{"a":null}]}})"),
        setRoles(volume, R"({"value":{"int":7}})"),
        setRoles("/settings/none/x", R"({"value":{"int":7}})"),
        setRoles("/settings/serial", R"({"value":{"string":"X2"}})"),
        words("get /settings/audio/volume --role value --role id"),
        setRoles(volume, R"({"value":{"int":"x"}})"),
        setRoles(volume, R"({"value":5})"),
        setRoles(volume, R"({"value":null})"),
        setRoles(volume, R"({"value":{}})"),
        setRoles(volume, R"({"value":{"int":1,"bool":true}})"),
        setRoles(token, R"({"value":{"int":18446744073709551615}})"),
        words("--json get /settings/token"),
    };
    QTest::newRow("operations") << Session {
        words("op /settings/audio/volume add 5"),
        words("op /settings/audio/volume multiply 2"),
        words("op /settings/audio/volume add 500"),
        words("op /settings/audio/loudness toggle"),
        words("op /settings/audio/sources append dab"),
        words("op /settings/audio/sources remove fm"),
        words("op /settings/audio/mode next"),
        words("op /settings/audio/mode previous"),
        words("op /settings/audio/volume double 2"),
        words("op /settings/audio/volume set 10"),
        words("op /settings/audio/volume add"),
        words("op /settings/serial set X"),
        words("op /settings/none/x toggle"),
        words("op /settings/token add 5"),
        words("op /settings/token append x"),
    };
    const QByteArray commands = "get /settings/audio/volume\n"
                                "set /settings/audio/volume 45\n"
                                "get /settings/audio/volume\n"
                                "get /settings/no\n"
                                "flush\n"
                                "drop-cache\n"
                                "get /settings/audio/volume\n"
                                "tree /settings/audio\n"
                                "serve\n"
                                "quit\n"
                                "get /settings/audio/volume\n";
    QTest::newRow("shell") << Session { shell(commands), shell(commands, true) };
    QTest::newRow("disabled flag")
        << Session { shell("set /settings/audio/volume --roles '{\"disabled\":true}'\n"
                           "get /settings/audio/volume --all\n"
                           "set /settings/audio/volume 45\n"
                           "get /settings/audio/volume --all\n") };
    const QByteArray watching = "watch /settings/audio/volume /settings/audio\n"
                                "watch /settings/presets --initial\n"
                                "set /settings/audio/volume 45\n"
                                "set /settings/audio/volume 45\n"
                                "op /settings/audio/volume add 5\n"
                                "set /settings/presets/two fm:1\n"
                                "unwatch /settings/presets\n"
                                "set /settings/presets/three fm:1\n"
                                "watch /settings/nothing\n"
                                "set /settings/serial 1\n";
    // Two, as the service counts the versions of rows on from one shell to the next.
    QTest::newRow("watching") << Session { shell(watching) };
    QTest::newRow("watching, as JSON") << Session { shell(watching, true) };
    const QByteArray recursive = "watch -r /settings/audio /settings/presets --initial\n"
                                 "set /settings/audio/volume 45\n"
                                 "set /settings/serial X2\n"
                                 "set /settings/presets/two fm:1\n"
                                 "unwatch /settings/audio\n"
                                 "set /settings/audio/volume 50\n"
                                 "watch --recursive /settings/nothing\n"
                                 "watch --recursive --count 2 /settings\n"
                                 "set /settings/audio/volume 55\n"
                                 "set /settings/audio/volume 60\n";
    QTest::newRow("watching subtrees") << Session { shell(recursive) };
    QTest::newRow("watching subtrees, as JSON") << Session { shell(recursive, true) };
}

void TstServiceSessions::sessionReadsTheSameBothWays()
{
    QFETCH(const Session, session);

    runBothWays(session, CommandLine(), CommandLine());
}

void TstServiceSessions::longListingReadsTheSameBothWays()
{
    const CommandLine own;
    const CommandLine served;
    for (const CommandLine* trees : { &own, &served }) {
        for (int i = 0; i < 300; ++i) {
            trees->tree.writeDefault(QStringLiteral("/many/n%1").arg(i, 3, 10, QLatin1Char('0')),
                                     QByteArrayLiteral("{\"value\":{\"int\":1}}"));
        }
    }

    runBothWays({ words("ls /settings/many"), words("ls /settings/many --first 240 --last 260"),
                  words("tree /settings/many") },
                own, served);
}

void TstServiceSessions::runBothWays(const Session& session, const CommandLine& own,
                                     const CommandLine& served)
{
    const PrivateBus bus;
    ServiceProcess service(served, bus.address(),
                           { QStringLiteral("--log-level"), QStringLiteral("off") });
    QVERIFY2(service.serve(), service.standardError());
    // The worker's records are the service's affair, in one of the two ways.
    const QStringList quiet { QStringLiteral("--log-level"), QStringLiteral("off") };

    for (const Line& line : session) {
        const ChildResult ownResult = own.run(quiet + line.words, line.input);
        const ChildResult servedResult = ChildProcess::run(
            QStringLiteral(TULO_CM_PROGRAM),
            QStringList { QStringLiteral("--bus"), bus.address() } + quiet + line.words,
            line.input);

        const QString command =
            QStringLiteral("$ ") + line.words.join(QLatin1Char(' ')) + QLatin1Char('\n');
        QCOMPARE(command + told(servedResult, served), command + told(ownResult, own));
    }
    QCOMPARE(service.end().exitCode, 0);
}

QTEST_GUILESS_MAIN(TstServiceSessions)
#include "tst_service_sessions.moc"
