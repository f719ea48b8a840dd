#include "tests/system/commandline.h"

#include "tests/support/files.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

namespace {

const QString program = QStringLiteral(TULO_CM_PROGRAM);

QStringList words(const char* line)
{
    return QString::fromUtf8(line).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

} // namespace

/// The program as people and scripts use it in a process of its own: what it prints, where, and
/// how it ends.
class TstCommandline : public QObject
{
    Q_OBJECT

private slots:
    void sessions_data();
    void sessions();
    void commandLineErrors_data();
    void commandLineErrors();
    void commandLineErrorAsJson();
    void usage_data();
    void usage();
    void places_data();
    void places();
    void resetTakesTheWrittenLayerAway();
    void valueFromStandardInput();
    void valueThatIsNotUtf8();
    void keyOfTheTreesOwnIsARole();
    void listingInPages();
    void listingLeavesOutTheRowThatCannotBeRead();
    void treeLeavesOutTheRowThatCannotBeRead();
    void changeIsOnDiskWhenTheCommandEnds();
    void changeThatIsNotOnDisk();
    void changeOfATreeInUse();
    void readingOfATreeInUse();
    void readingLeavesNothingBehind();
    void productVariant();
    void translatedTitle();
    void languageWithoutCatalogue();
    void logLevelShowsWhatIsWritten();
    void logConfigurationDecides();
    void brokenWrittenFileIsToldAndOverwritten();
    void brokenDefaultFileEndsTheProcess();
    void closedPipeEndsQuietly();
    void fullDiskUnderTheResult();
    void overviewFitsOnAScreen();
    void helpOfEveryCommand();
    void helpAsJson();
    void versionAsTextAndJson();
    void noColourInAPipe();
    void coloursInAPipeWhereTheyAreAskedFor();
    void jsonNeverHasColours();
};

// ---------------------------------------------------------------------------------------------
// Commands, one process each: exact output, errors and exit code.
// ---------------------------------------------------------------------------------------------

void TstCommandline::sessions_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<QByteArray>("error");
    QTest::addColumn<int>("exitCode");

    const auto row = [](const char* name, const char* line, const char* output, const char* error,
                        int exitCode) {
        QTest::newRow(name) << words(line) << QByteArray(output) << QByteArray(error) << exitCode;
    };
    row("value", "get /settings/audio/volume", "35\n", "", 0);
    row("value of every kind",
        "get /settings/audio/gain /settings/audio/loudness /settings/audio/mode "
        "/settings/audio/sources",
        "/settings/audio/gain      0.5\n"
        "/settings/audio/loudness  true\n"
        "/settings/audio/mode      mid\n"
        "/settings/audio/sources   [\"fm\",\"usb\"]\n",
        "", 0);
    row("roles of one path", "get /settings/audio/volume --role title --role value",
        "title  Volume\nvalue  35\n", "", 0);
    row("one role that is missing", "get /settings/audio/volume --role id", "-\n", "", 0);
    row("roles of two paths",
        "get --role title --role value /settings/audio/volume /settings/serial",
        "path                    title   value\n"
        "/settings/audio/volume  Volume  35\n"
        "/settings/serial        serial  X1\n",
        "", 0);
    row("all roles", "get /settings/serial --all",
        "value         X1\n"
        "defaultValue  X1\n"
        "title         serial\n"
        "type          101\n"
        "path          /settings/serial\n"
        "modifiable    false\n",
        "", 0);
    row("all roles of two paths", "get /settings/token /settings/audio --all",
        "/settings/token\n"
        "title  Token\n"
        "type   101\n"
        "path   /settings/token\n"
        "/settings/audio\n"
        "title       Audio\n"
        "type        1\n"
        "path        /settings/audio\n"
        "modifiable  false\n",
        "", 0);
    row("unknown path", "get /settings/none", "", "tulo-cm: Invalid path '/settings/none'\n", 3);
    row("a good and a bad path", "get /settings/none /settings/serial", "/settings/serial  X1\n",
        "tulo-cm: Invalid path '/settings/none'\n", 3);
    row("path without its leading slash", "get settings/serial", "X1\n", "", 0);
    row("path that ends with a slash", "get /settings/serial/", "X1\n", "", 0);
    row("directory that ends with a slash", "get /settings/audio/ --role title", "Audio\n", "", 0);
    row("paths as they are served", "get settings/serial /settings/token/ /",
        "/settings/serial  X1\n"
        "/settings/token   -\n"
        "/settings         -\n",
        "", 0);
    row("set at a path without its slashes", "set settings/audio/volume/ 40", "40\n", "", 0);
    row("operation at a path without its slashes", "op settings/audio/volume/ add 5", "40\n", "",
        0);
    row("empty component", "get /settings//serial", "",
        "tulo-cm: Path '/settings//serial' has an empty component\n", 4);
    row("unknown path with letters beyond ASCII", "get /settings/\xe8\xa1\xa8\xe7\xa4\xba", "",
        "tulo-cm: Invalid path '/settings/\xe8\xa1\xa8\xe7\xa4\xba'\n", 3);
    row("rows of a path with letters beyond ASCII", "ls /settings/\xc3\xa4/", "",
        "tulo-cm: Invalid path '/settings/\xc3\xa4'\n", 3);
    row("path out of the tree", "get /settings/../etc/passwd", "",
        "tulo-cm: Path '/settings/../etc/passwd' has a component that begins with '.'\n", 4);
    row("JSON value", "--json get /settings/audio/volume",
        "{\"path\":\"/settings/audio/volume\",\"roles\":{\"value\":{\"int\":35}}}\n", "", 0);
    row("JSON null for a missing role", "get /settings/serial --json --role id --role title",
        "{\"path\":\"/settings/serial\",\"roles\":{\"id\":null,\"title\":\"serial\"}}\n", "", 0);
    row("JSON error", "get /settings/none --json", "",
        "{\"error\":{\"message\":\"Invalid path '/settings/none'\",\"name\":\"InvalidPath\","
        "\"title\":\"Error\"},\"path\":\"/settings/none\"}\n",
        3);
    row("JSON all roles", "get /settings/token --all --json",
        "{\"path\":\"/settings/token\",\"roles\":{\"path\":\"/settings/token\",\"title\":\"Token\","
        "\"type\":101}}\n",
        "", 0);

    row("rows", "ls /settings/audio",
        "gain      0.5\n"
        "loudness  true\n"
        "mode      mid\n"
        "sources   [\"fm\",\"usb\"]\n"
        "volume    35\n",
        "", 0);
    row("rows with directories", "ls /settings",
        "audio/    -\n"
        "presets/  -\n"
        "serial    X1\n"
        "token     -\n",
        "", 0);
    row("rows of the top", "ls /",
        "audio/    -\n"
        "presets/  -\n"
        "serial    X1\n"
        "token     -\n",
        "", 0);
    row("rows without a path", "ls --role title",
        "audio/    Audio\n"
        "presets/  Preset\n"
        "serial    serial\n"
        "token     Token\n",
        "", 0);
    row("rows of a path that ends with a slash", "ls /settings/presets/", "one  -\n", "", 0);
    row("range of rows", "ls /settings/audio --first 1 --last 2",
        "loudness  true\n"
        "mode      mid\n",
        "", 0);
    row("range behind the end", "ls /settings/audio --first 9", "", "", 0);
    row("roles of rows", "ls /settings/audio --role title --role valueUnit --first 3",
        "name     title    valueUnit\n"
        "sources  sources  -\n"
        "volume   Volume   %\n",
        "", 0);
    row("negative row", "ls /settings/audio --first -1", "",
        "tulo-cm: A row index at '/settings/audio' is negative\n", 4);
    row("rows of a setting", "ls /settings/serial", "",
        "tulo-cm: Invalid path '/settings/serial'\n", 3);
    row("JSON rows", "ls /settings --first 1 --last 2 --json",
        "{\"path\":\"/settings\",\"roles\":{\"modifiable\":false,\"path\":\"/settings\","
        "\"title\":\"Settings\",\"type\":1},\"rows\":[{\"name\":\"presets\",\"path\":\"/settings/"
        "presets\",\"roles\":{\"value\":null}},{\"name\":\"serial\",\"path\":\"/settings/serial\","
        "\"roles\":{\"value\":{\"string\":\"X1\"}}}],\"rowsCount\":4,\"rowsVersion\":0}\n",
        "", 0);
    row("tree", "tree",
        "/settings/\n"
        "  audio/\n"
        "    gain      0.5\n"
        "    loudness  true\n"
        "    mode      mid\n"
        "    sources   [\"fm\",\"usb\"]\n"
        "    volume    35\n"
        "  presets/\n"
        "    one       -\n"
        "  serial      X1\n"
        "  token       -\n",
        "", 0);
    row("JSON tree", "tree /settings/presets --json",
        "{\"path\":\"/settings/presets\",\"roles\":{\"type\":1,\"value\":null}}\n"
        "{\"path\":\"/settings/presets/one\",\"roles\":{\"type\":101,\"value\":null}}\n",
        "", 0);
    row("tree of a path that ends with a slash", "tree settings/presets/",
        "/settings/presets/\n"
        "  one               -\n",
        "", 0);
    row("tree of a setting", "tree /settings/serial", "/settings/serial  X1\n", "", 0);
    row("tree of nothing", "tree /settings/none", "", "tulo-cm: Invalid path '/settings/none'\n",
        3);

    row("set a number", "set /settings/audio/volume 40", "40\n", "", 0);
    row("set a number of another kind", "set /settings/audio/gain 1", "1.0\n", "", 0);
    row("set a truth value", "set /settings/audio/loudness false", "false\n", "", 0);
    row("set a list", "set /settings/audio/sources [\"dab\"]", "[\"dab\"]\n", "", 0);
    row("set an object", "set /settings/audio/volume {\"int\":40}", "40\n", "", 0);
    row("set a number where nothing tells the kind",
        "set --json /settings/token --roles "
        "{\"value\":{\"double\":1.0},\"timestamp\":5}",
        "{\"path\":\"/settings/token\",\"roles\":{\"timestamp\":5,\"value\":{\"double\":1.0}}}\n",
        "", 0);
    row("set a text that looks like JSON", "set --string /settings/token [1,", "[1,\n", "", 0);
    row("set a new setting", "set /settings/presets/two fm:99.9", "fm:99.9\n", "", 0);
    row("set the default value", "set /settings/audio/volume --default", "35\n", "", 0);
    row("set a default value that there is not", "set /settings/token --default", "",
        "tulo-cm: /settings/token: there is no default value\n", 4);
    row("set JSON",
        "set /settings/audio/volume --json --roles "
        "{\"value\":{\"int\":40},\"timestamp\":5,\"id\":\"v\"}",
        "{\"path\":\"/settings/audio/volume\",\"roles\":{\"id\":\"v\",\"timestamp\":5,\"value\":{"
        "\"int\":40}}}\n",
        "", 0);
    row("adjusted to the range", "--log-level off set /settings/audio/volume 150", "100\n",
        "tulo-cm: /settings/audio/volume: 150 was adjusted: it is above 'max' (100); the value is "
        "now 100\n",
        5);
    row("adjusted to the step", "--log-level off set /settings/audio/volume 42", "40\n",
        "tulo-cm: /settings/audio/volume: 42 was adjusted: it does not lie on a 'step' (5); the "
        "value is now 40\n",
        5);
    row("adjusted, in JSON",
        "--log-level off --json set /settings/audio/volume --roles "
        "{\"value\":{\"int\":150},\"timestamp\":5}",
        "{\"path\":\"/settings/audio/volume\",\"roles\":{\"timestamp\":5,\"value\":{\"int\":100}}}\n",
        "{\"error\":{\"message\":\"150 was adjusted: it is above 'max' (100); the value is now "
        "100\",\"name\":\"Adjusted\",\"title\":\"Error\"},\"path\":\"/settings/audio/volume\"}\n",
        5);
    row("kept, as it is of the wrong kind", "--log-level off set /settings/audio/volume loud", "",
        "tulo-cm: The value for '/settings/audio/volume' was rejected: it is not of the kind "
        "'int'\n",
        4);
    row("kept, as it is not listed", "--log-level off set /settings/audio/mode loud", "",
        "tulo-cm: The value for '/settings/audio/mode' was rejected: it is not one of the 'values' "
        "([\"low\",\"mid\",\"high\"])\n",
        4);
    row("read-only", "set /settings/serial X2", "",
        "tulo-cm: Setting '/settings/serial' is not modifiable\n", 4);
    row("directory", "set /settings/audio 1", "",
        "tulo-cm: Path '/settings/audio' is a directory\n", 4);
    row("below a setting", "set /settings/serial/x 1", "",
        "tulo-cm: Path '/settings/serial/x' is below a setting\n", 4);
    row("new name where none may be", "set /settings/audio/new 1", "",
        "tulo-cm: There is no setting '/settings/audio/new', and none can be created: its "
        "template is not modifiable\n",
        3);

    row("add", "op /settings/audio/volume add -5", "30\n", "", 0);
    row("toggle", "op /settings/audio/loudness toggle", "false\n", "", 0);
    row("next", "op /settings/audio/mode next", "high\n", "", 0);
    row("append", "op /settings/audio/sources append dab", "[\"fm\",\"usb\",\"dab\"]\n", "", 0);
    row("remove", "op /settings/audio/sources remove fm", "[\"usb\"]\n", "", 0);
    row("operation beyond the range", "op /settings/audio/volume add 100", "100\n",
        "tulo-cm: /settings/audio/volume: 135 was adjusted: it is above 'max' (100); the value is "
        "now 100\n",
        5);
    row("operation that the constraints refuse",
        "--log-level off op /settings/audio/sources append [\"dab\",\"am\"]", "",
        "tulo-cm: The value for '/settings/audio/sources' was rejected: it is longer than "
        "'maxLength' (3)\n",
        4);
    row("operation for another kind", "op /settings/audio/volume toggle", "",
        "tulo-cm: The value for '/settings/audio/volume' was rejected: 'toggle' is not applicable "
        "to a value of kind 'int'\n",
        4);
    row("operand of another kind", "op /settings/audio/volume add much", "",
        "tulo-cm: The value for '/settings/audio/volume' was rejected: 'add' is not applicable to "
        "a value of kind 'int'\n",
        4);
    row("flush", "flush", "", "", 0);
    row("JSON flush", "flush --json", "{\"done\":true,\"path\":\"/settings/actions/flush\"}\n", "",
        0);
    row("JSON check", "check --json --rule no-title=off --rule any-kind=off", "", "", 0);
    row("watch needs the service", "watch /settings/audio/volume", "",
        "tulo-cm: 'watch' works on the service or in the shell; this process would end at once\n",
        7);
    row("status needs the service", "status", "",
        "tulo-cm: 'status' works on the service or in the shell; this process would end at once\n",
        7);
    row("drop-cache needs the service", "drop-cache", "",
        "tulo-cm: 'drop-cache' works on the service or in the shell; this process would end at "
        "once\n",
        7);
    row("options end", "get -- /settings/serial", "X1\n", "", 0);
}

void TstCommandline::sessions()
{
    QFETCH(QStringList, arguments);
    const CommandLine cli;

    const ChildResult result = cli.run(arguments);

    QTEST(result.standardError, "error");
    QTEST(result.standardOutput, "output");
    QTEST(result.exitCode, "exitCode");
}

// ---------------------------------------------------------------------------------------------
// Usage: one line for everything that was said wrong.
// ---------------------------------------------------------------------------------------------

void TstCommandline::commandLineErrors_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("error");

    const auto row = [](const char* name, const QStringList& arguments, const char* error) {
        QTest::newRow(name) << arguments << QByteArray(error);
    };
    const char* const commands =
        "get, ls, tree, find, describe, explain, diff, set, op, reset, watch, dump, load, flush, drop-cache, check, "
        "migrate, "
        "texts, status, shell, help";
    row("no command", {}, (QByteArray("no command; commands are: ") + commands).constData());
    row("unknown command", words("gte"),
        (QByteArray("unknown command 'gte'; commands are: ") + commands).constData());
    row("command of the shell", words("wait 5"), "'wait' is a command of the shell only");
    row("unknown option", words("get --frobnicate /settings/serial"),
        "unknown option '--frobnicate'");
    row("unknown short option", words("get -x"), "unknown option '-x'");
    row("option of another command", words("get --first 1 /settings/serial"),
        "'get' takes no option '--first'");
    row("option without its value", words("get /settings/serial --role"),
        "missing value after '--role'");
    row("option with a value too many", words("get --json=1 /settings/serial"),
        "unexpected value after '--json'");
    row("colours of another kind", words("--color=red ls"),
        "'--color' needs auto, always or never, not 'red'");
    row("no kind of colours", words("--color= ls"),
        "'--color' needs auto, always or never, not ''");
    row("missing path", words("get"),
        "missing arguments for 'get'; usage: get PATH... [--role ROLE] [--all]");
    row("too many arguments", words("ls /settings /settings"),
        "too many arguments for 'ls'; usage: ls [PATH] [--role ROLE] [--first N] [--last N]");
}

void TstCommandline::commandLineErrors()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, error);
    const CommandLine cli;

    const ChildResult result = cli.run(arguments);

    QCOMPARE(result.standardError, "tulo-cm: " + error + "\ntulo-cm: try 'tulo-cm --help'\n");
    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.exitCode, 2);
}

// One object a line, and nothing else.
void TstCommandline::commandLineErrorAsJson()
{
    const ChildResult result =
        ChildProcess::run(program, words("--json get --frobnicate /settings/serial"));

    QCOMPARE(result.standardError,
             QByteArray("{\"error\":{\"message\":\"unknown option '--frobnicate'\",\"name\":"
                        "\"Usage\",\"title\":\"Error\"},\"path\":\"\"}\n"));
    QCOMPARE(result.exitCode, 2);
}

void TstCommandline::usage_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("error");

    const auto row = [](const char* name, const QStringList& arguments, const char* error) {
        QTest::newRow(name) << arguments << QByteArray(error);
    };
    row("both roles and all", words("get /settings/serial --all --role title"),
        "'--role' and '--all' exclude each other");
    row("unknown role", words("get /settings/serial --role value --role titel"),
        "unknown role 'titel'; did you mean 'title'?");
    row("unknown role of rows", words("ls /settings --role Description"),
        "unknown role 'Description'; did you mean 'description'?");
    row("unknown role that resembles none",
        words("get /settings/serial /settings/token --role unit"),
        "unknown role 'unit'; roles are: value, defaultValue, title, description, "
        "longDescription, valueUnit, type, id, path, edit, modifiable, disabled, encrypted, "
        "encryptedValue, timestamp, permission, activate, setRoles, valueOperation");
    row("roles in one word", words("get /settings/serial --role value,title"),
        "unknown role 'value,title'; give '--role' once for each role");
    row("row that is no number", words("ls /settings --first one"),
        "'--first' needs a whole number, not 'one'");
    row("no value", words("set /settings/audio/volume"),
        "'set' needs one of VALUE, '--roles JSON' and '--default'");
    row("two values", words("set /settings/audio/volume 5 --default"),
        "'set' needs one of VALUE, '--roles JSON' and '--default'");
    row("string without a value", words("set /settings/audio/volume --default --string"),
        "'--string' needs a VALUE");
    row("broken list", words("set /settings/audio/sources [1,"),
        "VALUE is not valid JSON (line 1, column 4: Invalid value.); '--string' takes it as a text");
    row("object of no kind", words("set /settings/audio/volume {\"number\":5}"),
        "VALUE is an object, but not one with a single kind (bool, int, double, string, list) and "
        "what fits it");
    row("object with what does not fit", words("set /settings/audio/volume {\"int\":\"5\"}"),
        "VALUE is an object, but not one with a single kind (bool, int, double, string, list) and "
        "what fits it");
    row("null", words("set /settings/audio/volume null"), "'null' is not a value");
    row("roles that are no object", words("set /settings/audio/volume --roles 5"),
        "'--roles' needs a JSON object");
    row("unknown verb", words("op /settings/audio/volume halve 2"),
        "unknown verb 'halve'; verbs are: set, add, multiply, toggle, append, remove, next, "
        "previous");
    row("verb without its value", words("op /settings/audio/volume add"), "'add' needs a VALUE");
    row("verb with a value too many", words("op /settings/audio/loudness toggle true"),
        "'toggle' takes no VALUE");
    row("log level", words("--log-level loud get /settings/serial"),
        "unknown log level 'loud'; levels are: trace, debug, info, warn, error, fatal, off");
    row("log configuration", words("--log-config /nowhere get /settings/serial"),
        "log configuration '/nowhere' cannot be read");
    row("product that is no postfix", words("--product ../x get /settings/serial"),
        "'../x' is not a product postfix, which has only letters, digits, '_' and '-'");
    row("language without catalogues", words("--language de get /settings/serial"),
        "'--language' needs '--catalogues'");
    row("catalogues that are not there", words("--catalogues /nowhere get /settings/serial"),
        "directory '/nowhere' does not exist");
    row("bus beside directories", words("--bus session get /settings/serial"),
        "'--bus' and '--default-path' exclude each other");
    row("help for no command", words("help gte"), "unknown command 'gte'");
}

void TstCommandline::usage()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, error);
    const CommandLine cli;

    const ChildResult result = cli.run(arguments);

    QCOMPARE(result.standardError, "tulo-cm: " + error + '\n');
    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.exitCode, 2);
}

// ---------------------------------------------------------------------------------------------
// Where it works: never on a tree that was not meant.
// ---------------------------------------------------------------------------------------------

void TstCommandline::places_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("error");
    QTest::addColumn<int>("exitCode");

    // DEFAULT and WRITE stand for the test's trees.
    const auto row = [](const char* name, const char* options, const char* error, int exitCode) {
        QTest::newRow(name) << words(options) << QByteArray(error) << exitCode;
    };
    row("default path alone", "--default-path DEFAULT", "'--default-path' needs '--write-path'", 2);
    row("write path alone", "--write-path WRITE", "'--write-path' needs '--default-path'", 2);
    row("default path that is not there", "--default-path /nowhere --write-path WRITE",
        "directory '/nowhere' does not exist", 2);
    row("write path that is not there", "--default-path DEFAULT --write-path /nowhere",
        "directory '/nowhere' does not exist", 2);
    row("write path that is a file", "--default-path DEFAULT --write-path DEFAULT/serial",
        "'DEFAULT/serial' is not a directory", 2);
    row("empty names", "--default-path= --write-path=", "directory '' does not exist", 2);
    row("the same directory twice", "--default-path DEFAULT --write-path DEFAULT",
        "The default tree 'DEFAULT' and the writable tree 'DEFAULT' must lie apart", 2);
    row("plug-in that is not there",
        "--default-path DEFAULT --write-path WRITE --plugin /nowhere.so",
        "Plug-in '/nowhere.so' does not exist", 7);
    row("plug-in without the entry point",
        "--default-path DEFAULT --write-path WRITE --plugin FRAMEWORK",
        "Plug-in 'FRAMEWORK' has no entry point 'worker_create'", 7);
    row("no service", "",
        "no service on the system bus; use --in-process, or --default-path and --write-path, to "
        "work without one",
        7);
    row("no service on the session bus", "--bus session",
        "no service on the session bus; use --in-process, or --default-path and --write-path, to "
        "work without one",
        7);
    row("bus whose name is mistyped", "--bus sesion",
        "'sesion' is not a bus, which is system, session or an address such as "
        "unix:path=/run/dbus/system_bus_socket",
        2);
    row("bus without a name", "--bus=",
        "'' is not a bus, which is system, session or an address such as "
        "unix:path=/run/dbus/system_bus_socket",
        2);
    row("no bus at this address", "--bus unix:path=/nowhere",
        "no service on the bus 'unix:path=/nowhere'; use --in-process, or --default-path and "
        "--write-path, to work without one",
        7);
    row("product on the service", "--product sport",
        "'--product' needs '--default-path' and '--write-path', or '--in-process'", 2);
    row("in this process and on the bus", "--in-process --bus session",
        "'--bus' and '--in-process' exclude each other", 2);
    row("on another device and on a bus of this one", "--host user@device --bus session",
        "'--bus' and '--host' exclude each other", 2);
    row("in this process and on another device", "--in-process --host device",
        "'--host' and '--in-process' exclude each other", 2);
    row("directories and another device",
        "--default-path DEFAULT --write-path WRITE --host user@device",
        "'--host' and '--default-path' exclude each other", 2);
    row("product on another device", "--product sport --host device",
        "'--product' needs '--default-path' and '--write-path', or '--in-process'", 2);
    row("host that ssh would take for an option", "--host -oProxyCommand=x",
        "'-oProxyCommand=x' is not the name of a machine", 2);
    row("the same in one word", "--host=-Fx", "'-Fx' is not the name of a machine", 2);
    row("host without a name", "--host=", "'' is not the name of a machine", 2);
}

void TstCommandline::places()
{
    QFETCH(QStringList, options);
    QFETCH(QByteArray, error);
    const CommandLine cli;
    const QString framework = QDir(QStringLiteral(TULO_PLUGIN_FILE "/../..")).absolutePath()
        + QStringLiteral("/libtulo_framework.so");
    for (QString& option : options) {
        option.replace(QStringLiteral("DEFAULT"), cli.tree.defaultPath());
        option.replace(QStringLiteral("WRITE"), cli.tree.writePath());
        option.replace(QStringLiteral("FRAMEWORK"), framework);
    }
    error.replace("DEFAULT", cli.tree.defaultPath().toUtf8());
    error.replace("FRAMEWORK", framework.toUtf8());

    const ChildResult result =
        ChildProcess::run(program, options + words("set /settings/audio/volume 40"));

    QCOMPARE(result.standardError, "tulo-cm: " + error + '\n');
    QCOMPARE(result.standardOutput, QByteArray());
    QTEST(result.exitCode, "exitCode");
    QCOMPARE(cli.tree.readWritten(QStringLiteral("/audio/volume")), QByteArray());
}

// ---------------------------------------------------------------------------------------------
// Values from standard input.
// ---------------------------------------------------------------------------------------------

void TstCommandline::resetTakesTheWrittenLayerAway()
{
    const CommandLine cli;
    QCOMPARE(cli.run("set /settings/audio/volume --default").exitCode, 0);
    QCOMPARE(cli.run("set /settings/audio/gain 1").exitCode, 0);
    QCOMPARE(cli.run("set /settings/presets/two fm:99").exitCode, 0);
    QCOMPARE(cli.run("set settings/token 5").exitCode, 0);
    // The next image.
    cli.tree.writeDefault(QStringLiteral("/audio/volume"), R"({"value":{"int":25}})");
    QCOMPARE(cli.run("get settings/audio/volume").standardOutput, QByteArray("35\n"));
    const auto check = [&cli](const char* line, const QByteArray& output, const QByteArray& error,
                              int exitCode) {
        const ChildResult result = cli.run(line);
        QCOMPARE(result.standardOutput, output);
        QCOMPARE(result.standardError, error);
        QCOMPARE(result.exitCode, exitCode);
    };

    check("reset settings/audio/volume /settings/audio/mode", "/settings/audio/volume\n", "", 0);
    check("get settings/audio/volume", "25\n", "", 0);
    check("reset settings/audio/volume", "", "", 0);
    check("reset settings/audio", "",
          "tulo-cm: Path '/settings/audio' is a directory; only a recursive reset goes to "
          "directories (option '-r')\n",
          4);
    check("reset settings/serial", "",
          "tulo-cm: Setting '/settings/serial' is not modifiable; only a recursive reset discards "
          "what is stored for it (option '-r')\n",
          4);
    check("reset", "", "tulo-cm: 'reset' needs one of PATH and '--all'\n", 2);
    check("reset --all /settings/audio", "", "tulo-cm: 'reset' needs one of PATH and '--all'\n", 2);
    check("reset settings/token --keep /settings/audio", "",
          "tulo-cm: '--keep' needs '-r' or '--all'\n", 2);
    check("reset settings/none", "", "tulo-cm: Invalid path '/settings/none'\n", 3);
    check("reset --json --all --keep settings/token --keep settings/audio/",
          "{\"done\":true,\"path\":\"/settings/presets/two\"}\n", "", 0);
    check("reset -r settings/audio", "/settings/audio/gain\n", "", 0);
    check("reset --all", "/settings/token\n", "", 0);
    check("reset --all", "", "", 0);
    QCOMPARE(cli.tree.writtenEntries().filter(QRegularExpression(QStringLiteral("[a-z]$"))),
             QStringList(QStringLiteral("/.tulo-cm.lock")));
}

void TstCommandline::valueFromStandardInput()
{
    const CommandLine cli;

    const ChildResult result =
        cli.run("--json set --string /settings/token -", "two\nlines, \xc3\xa4\n");

    QVERIFY(result.standardOutput.contains("\"value\":{\"string\":\"two\\nlines, \xc3\xa4\"}"));
    QCOMPARE(result.exitCode, 0);
}

void TstCommandline::valueThatIsNotUtf8()
{
    const CommandLine cli;

    const ChildResult result = cli.run("set /settings/token -", "\xff");

    QCOMPARE(result.standardError, QByteArray("tulo-cm: standard input is not UTF-8\n"));
    QCOMPARE(result.exitCode, 2);
}

// ---------------------------------------------------------------------------------------------
// Long and damaged directories.
// ---------------------------------------------------------------------------------------------

void TstCommandline::keyOfTheTreesOwnIsARole()
{
    const CommandLine cli;
    cli.tree.writeDefault(QStringLiteral("/audio/own"), R"({"colour":"green"})");

    const ChildResult one = cli.run("get /settings/audio/own --role colour");
    const ChildResult two = cli.run("get /settings/audio/own /settings/audio/nil --role colour");
    const ChildResult rows = cli.run("ls /settings/audio --role colour --first 2 --last 3");

    QCOMPARE(one.standardOutput, QByteArray("green\n"));
    QCOMPARE(two.standardOutput, QByteArray("/settings/audio/own  green\n"));
    QCOMPARE(two.exitCode, 3);
    QCOMPARE(rows.standardOutput, QByteArray("mode  -\nown   green\n"));
    QCOMPARE(rows.exitCode, 0);
}

void TstCommandline::listingInPages()
{
    const CommandLine cli;
    QByteArray expected;
    for (int i = 100; i < 700; ++i) {
        const QString name = QStringLiteral("s%1").arg(i);
        cli.tree.writeDefault(QStringLiteral("/many/") + name,
                              QByteArray("{\"value\":{\"int\":" + QByteArray::number(i) + "}}"));
        expected += name.toUtf8() + "  " + QByteArray::number(i) + '\n';
    }

    const ChildResult all = cli.run("ls /settings/many");
    const ChildResult some = cli.run("ls /settings/many --first 249 --last 500");

    QCOMPARE(all.standardOutput, expected);
    const int lineLength = 10; // "s100  100" and the line end
    QCOMPARE(some.standardOutput, expected.mid(249 * lineLength, 252 * lineLength));
}

void TstCommandline::listingLeavesOutTheRowThatCannotBeRead()
{
    const CommandLine cli;
    cli.tree.writeDefault(QStringLiteral("/audio/hollow"), QByteArray("null"));

    const ChildResult result = cli.run("--log-level off ls /settings/audio");

    QCOMPARE(result.standardOutput,
             QByteArray("gain      0.5\n"
                        "loudness  true\n"
                        "mode      mid\n"
                        "sources   [\"fm\",\"usb\"]\n"
                        "volume    35\n"));
    QCOMPARE(result.standardError,
             QByteArray("tulo-cm: row '/settings/audio/hollow' left out: Invalid path "
                        "'/settings/audio/hollow'\n"));
    QCOMPARE(result.exitCode, 1);
}

void TstCommandline::treeLeavesOutTheRowThatCannotBeRead()
{
    const CommandLine cli;
    cli.tree.writeDefault(QStringLiteral("/presets/hollow"), QByteArray("null"));

    const ChildResult result = cli.run("--log-level off tree /settings/presets --json");

    QCOMPARE(result.standardOutput,
             QByteArray(
                 "{\"path\":\"/settings/presets\",\"roles\":{\"type\":1,\"value\":null}}\n"
                 "{\"path\":\"/settings/presets/one\",\"roles\":{\"type\":101,\"value\":null}}\n"));
    QCOMPARE(result.standardError,
             QByteArray(
                 "{\"error\":{\"message\":\"row '/settings/presets/hollow' left out: Invalid path "
                 "'/settings/presets/hollow'\",\"name\":\"RowNotServed\",\"title\":\"Error\"},"
                 "\"path\":\"/settings/presets/hollow\"}\n"));
    QCOMPARE(result.exitCode, 1);
}

// ---------------------------------------------------------------------------------------------
// Changes: on disk, or told.
// ---------------------------------------------------------------------------------------------

void TstCommandline::changeIsOnDiskWhenTheCommandEnds()
{
    const CommandLine cli;

    const ChildResult result =
        cli.run("set /settings/audio/volume --roles {\"value\":{\"int\":40},\"timestamp\":5}");

    QCOMPARE(result.exitCode, 0);
    QCOMPARE(cli.tree.readWritten(QStringLiteral("/audio/volume")),
             QByteArray("{\"timestamp\":5,\"value\":{\"int\":40}}"));
    QCOMPARE(cli.run("get /settings/audio/volume").standardOutput, QByteArray("40\n"));
}

void TstCommandline::changeThatIsNotOnDisk()
{
    const CommandLine cli;
    // A directory where the temporary file has to be.
    cli.tree.writeWritten(QStringLiteral("/audio/.volume/kept"), QByteArray("{}"));

    const ChildResult result = cli.run("set /settings/audio/volume 40");

    QVERIFY(result.standardError.contains("ERROR CMSettingsWorker: Settings: path '"
                                          + cli.tree.writePath().toUtf8()
                                          + "/audio/.volume' open file failed\n"));
    QVERIFY(result.standardError.contains("tulo-cm: not on disk: /settings/audio/volume"));
    QCOMPARE(result.exitCode, 6);
}

void TstCommandline::changeOfATreeInUse()
{
    const CommandLine cli;
    ChildProcess owner(program, cli.arguments({ QStringLiteral("shell") }));
    QVERIFY(owner.start());
    owner.writeInput("get /settings/serial\n");
    QVERIFY(owner.waitForOutput("X1\n"));

    const ChildResult result = cli.run("set /settings/audio/volume 40");

    QVERIFY(result.standardError.contains("process " + QByteArray::number(owner.processId())));
    QCOMPARE(result.standardError.count('\n'), 1);
    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.exitCode, 7);
}

void TstCommandline::readingOfATreeInUse()
{
    const CommandLine cli;
    ChildProcess owner(program, cli.arguments({ QStringLiteral("shell") }));
    QVERIFY(owner.start());
    owner.writeInput("get /settings/serial\n");
    QVERIFY(owner.waitForOutput("X1\n"));

    const ChildResult result = cli.run("get /settings/serial");

    QCOMPARE(result.standardOutput, QByteArray("X1\n"));
    QCOMPARE(result.standardError,
             "tulo-cm: the writable tree is in use by process "
                 + QByteArray::number(owner.processId())
                 + ", whose latest changes may not be in it yet\n");
    QCOMPARE(result.exitCode, 0);
}

void TstCommandline::readingLeavesNothingBehind()
{
    const CommandLine cli;

    cli.run("tree");
    cli.run("flush");

    QCOMPARE(cli.tree.writtenEntries(), QStringList());
}

// ---------------------------------------------------------------------------------------------
// Variants, languages, logging.
// ---------------------------------------------------------------------------------------------

void TstCommandline::productVariant()
{
    const CommandLine cli;
    cli.tree.writeDefault(QStringLiteral("/audio/volume_sport"),
                          QByteArray(R"({"value":{"int":45}})"));

    QCOMPARE(cli.run("--product sport get /settings/audio/volume").standardOutput,
             QByteArray("45\n"));
    QCOMPARE(cli.run("get /settings/audio/volume").standardOutput, QByteArray("35\n"));
}

void TstCommandline::translatedTitle()
{
    const QTemporaryDir written;
    const auto title = [&written](const QStringList& options) {
        return ChildProcess::run(program,
                                 QStringList { QStringLiteral("--default-path"),
                                               QStringLiteral(TULO_EXAMPLE_TREE),
                                               QStringLiteral("--write-path"), written.path() }
                                     + options + words("get /settings/audio/volume --role title"))
            .standardOutput;
    };

    const QByteArray german =
        title({ QStringLiteral("--language"), QStringLiteral("de"), QStringLiteral("--catalogues"),
                QStringLiteral(TULO_CATALOGUES) });

    QCOMPARE(title({}), QByteArray("Volume\n"));
    QCOMPARE(german, QByteArray("Lautst\xc3\xa4rke\n"));
}

void TstCommandline::languageWithoutCatalogue()
{
    const CommandLine cli;

    const ChildResult result = cli.run(QStringList {
        QStringLiteral("--language"), QStringLiteral("xx"), QStringLiteral("--catalogues"),
        cli.tree.path(), QStringLiteral("get"), QStringLiteral("/settings/serial") });

    QCOMPARE(result.standardOutput, QByteArray("X1\n"));
    QCOMPARE(result.standardError,
             QByteArray("tulo-cm: no catalogue for 'xx': texts stay as they are\n"));
    QCOMPARE(result.exitCode, 0);
}

void TstCommandline::logLevelShowsWhatIsWritten()
{
    const CommandLine cli;

    const ChildResult result = cli.run("--log-level info set /settings/audio/volume 40");

    QCOMPARE(result.standardError,
             "INFO  CMSettingsWorker: Using path " + cli.tree.defaultPath().toUtf8()
                 + " for default settings\nINFO  CMSettingsWorker: Using path "
                 + cli.tree.writePath().toUtf8()
                 + " for writable settings\nINFO  CMSettingsWorker: written file: "
                 + cli.tree.writePath().toUtf8() + "/audio/volume\n");
    QCOMPARE(result.exitCode, 0);
}

void TstCommandline::logConfigurationDecides()
{
    const CommandLine cli;
    const QString log = cli.tree.path() + QStringLiteral("/log");
    const QString configuration = cli.tree.path() + QStringLiteral("/log.properties");
    writeFile(configuration,
              "log4cplus.rootLogger=ERROR, file\n"
              "log4cplus.logger.CMSettingsWorker=OFF, file\n"
              "log4cplus.appender.file=log4cplus::FileAppender\n"
              "log4cplus.appender.file.File="
                  + log.toUtf8()
                  + "\nlog4cplus.appender.file.Threshold=INFO\n"
                    "log4cplus.appender.file.layout=log4cplus::PatternLayout\n"
                    "log4cplus.appender.file.layout.ConversionPattern=%m%n\n");

    const ChildResult result = cli.run(QStringList { QStringLiteral("--log-config"), configuration }
                                       + words("set /settings/audio/volume 40"));

    // The configuration switched these records off; that the file is on disk is noticed anyway.
    QCOMPARE(result.standardError, QByteArray());
    QCOMPARE(result.exitCode, 0);
    QVERIFY(readFile(log).contains("written file: "));
}

void TstCommandline::brokenWrittenFileIsToldAndOverwritten()
{
    const CommandLine cli;
    cli.tree.writeWritten(QStringLiteral("/audio/volume"), QByteArray("{"));

    const ChildResult read = cli.run("get /settings/audio/volume");
    const ChildResult change =
        cli.run("set /settings/audio/volume --roles {\"value\":{\"int\":40},\"timestamp\":5}");

    QCOMPARE(read.standardOutput, QByteArray("35\n"));
    QVERIFY(read.standardError.startsWith("ERROR CMSettingsWorker: Settings: Unable to parse '"
                                          + cli.tree.writePath().toUtf8() + "/audio/volume': "));
    QCOMPARE(read.exitCode, 0);
    QCOMPARE(change.exitCode, 0);
    QCOMPARE(cli.tree.readWritten(QStringLiteral("/audio/volume")),
             QByteArray("{\"timestamp\":5,\"value\":{\"int\":40}}"));
}

void TstCommandline::brokenDefaultFileEndsTheProcess()
{
    const CommandLine cli;
    cli.tree.writeDefault(QStringLiteral("/audio/volume"), QByteArray("{"));

    const ChildResult result = cli.run("get /settings/audio/volume");

    QVERIFY(result.standardError.startsWith("ERROR CMSettingsWorker: Settings: Unable to parse '"
                                            + cli.tree.defaultPath().toUtf8()
                                            + "//audio/volume': "));
    QCOMPARE(result.standardOutput, QByteArray());
    QCOMPARE(result.signal, SIGABRT);
}

// ---------------------------------------------------------------------------------------------
// Standard output as it can be, and help.
// ---------------------------------------------------------------------------------------------

void TstCommandline::closedPipeEndsQuietly()
{
    const CommandLine cli;
    // More than a pipe holds.
    for (int i = 0; i < 1500; ++i) {
        cli.tree.writeDefault(
            QStringLiteral("/many/setting-with-a-long-name-%1").arg(i),
            QByteArray(R"({"value":{"string":"something of some length, to fill the pipe"}})"));
    }
    QStringList command { QStringLiteral("-c"),
                          QStringLiteral("{ \"$@\"; echo $? >&2; } | head -n 1"),
                          QStringLiteral("sh"), program };
    command += cli.arguments(words("tree /settings/many --json"));

    const ChildResult result = ChildProcess::run(QStringLiteral("/bin/sh"), command);

    QCOMPARE(result.standardOutput,
             QByteArray("{\"path\":\"/settings/many\",\"roles\":{\"type\":1,\"value\":null}}\n"));
    QCOMPARE(result.standardError, QByteArray("0\n"));
}

void TstCommandline::fullDiskUnderTheResult()
{
    const CommandLine cli;
    QStringList command { QStringLiteral("-c"), QStringLiteral("\"$@\" > /dev/full"),
                          QStringLiteral("sh"), program };
    command += cli.arguments(words("get /settings/serial"));

    const ChildResult result = ChildProcess::run(QStringLiteral("/bin/sh"), command);

    QCOMPARE(result.standardError,
             QByteArray("tulo-cm: standard output: No space left on device\n"));
    QCOMPARE(result.exitCode, 1);
}

namespace {

const QStringList commandNames = words(
    "get ls tree find describe explain diff set op reset watch dump load flush drop-cache check migrate texts status shell "
    "help");

QJsonObject jsonOf(const ChildResult& result)
{
    return QJsonDocument::fromJson(result.standardOutput).object();
}

} // namespace

void TstCommandline::overviewFitsOnAScreen()
{
    const ChildResult overview = ChildProcess::run(program, { QStringLiteral("--help") });

    QCOMPARE(overview.exitCode, 0);
    QCOMPARE(overview.standardError, QByteArray());
    const QList<QByteArray> lines = overview.standardOutput.split('\n');
    QVERIFY2(lines.size() <= 33, overview.standardOutput); // with an empty last one
    for (const QByteArray& line : lines)
        QVERIFY2(line.size() <= 80, line);
    for (const QString& command : commandNames)
        QVERIFY2(overview.standardOutput.contains("\n  " + command.toUtf8() + ' '),
                 qPrintable(command));
    QCOMPARE(ChildProcess::run(program, { QStringLiteral("-h") }).standardOutput,
             overview.standardOutput);
}

void TstCommandline::helpOfEveryCommand()
{
    const ChildResult general = ChildProcess::run(program, { QStringLiteral("help") });
    QCOMPARE(general.exitCode, 0);
    QCOMPARE(general.standardError, QByteArray());

    for (const QString& command : commandNames) {
        const ChildResult help = ChildProcess::run(program, { QStringLiteral("help"), command });
        const ChildResult option =
            ChildProcess::run(program, { command, QStringLiteral("--help") });
        const QByteArray name = command.toUtf8();

        const QByteArray example =
            help.standardOutput.mid(help.standardOutput.lastIndexOf("tulo-cm ")).trimmed();
        QVERIFY2(example.contains(name), example);
        QVERIFY2(general.standardOutput.contains("\n      " + example + '\n'), example);
        QVERIFY2(help.standardOutput.startsWith("Usage: tulo-cm [OPTION]... " + name), name);
        QVERIFY2(help.standardOutput.contains("\nExample:\n  tulo-cm "), name);
        QCOMPARE(option.standardOutput, help.standardOutput);
        QCOMPARE(help.exitCode, 0);
        QCOMPARE(option.exitCode, 0);
    }
}

void TstCommandline::helpAsJson()
{
    const QJsonObject general = jsonOf(ChildProcess::run(program, words("help --json")));
    QStringList names;
    const QJsonArray commands = general.value(QStringLiteral("commands")).toArray();
    for (const QJsonValue& command : commands)
        names.append(command.toObject().value(QStringLiteral("name")).toString());
    const ChildResult get = ChildProcess::run(program, words("--json help get"));

    QCOMPARE(names, commandNames);
    QVERIFY(!general.value(QStringLiteral("options")).toArray().isEmpty());
    QCOMPARE(get.standardOutput,
             QByteArray(
                 R"({"arguments":"PATH...","example":"tulo-cm get /settings/audio/volume --role )"
                 R"(value --role title","name":"get","options":[{"description":"a role to print; )"
                 R"(can be given more than once","name":"role","value":"ROLE"},{"description":)"
                 R"("all known roles that the node has","name":"all","value":""}],"summary":)"
                 R"("Prints values of settings, or the roles that are named."})"
                 "\n"));
    QCOMPARE(ChildProcess::run(program, words("get --json -h")).standardOutput, get.standardOutput);
    QCOMPARE(jsonOf(ChildProcess::run(program, words("--json --help"))), general);
}

void TstCommandline::versionAsTextAndJson()
{
    const ChildResult text = ChildProcess::run(program, { QStringLiteral("--version") });
    const ChildResult json = ChildProcess::run(program, words("--version --json"));

    const QByteArray version = text.standardOutput.mid(8).trimmed();
    QVERIFY(text.standardOutput.startsWith("tulo-cm "));
    QCOMPARE(text.exitCode, 0);
    QCOMPARE(json.standardOutput, "{\"version\":\"" + version + "\"}\n");
    QCOMPARE(json.exitCode, 0);
}

void TstCommandline::noColourInAPipe()
{
    const CommandLine cli;

    QVERIFY(!cli.run("ls /settings --role value --role title").standardOutput.contains('\x1b'));
}

void TstCommandline::coloursInAPipeWhereTheyAreAskedFor()
{
    const CommandLine cli;
    QCOMPARE(cli.run("set /settings/audio/volume 40").exitCode, 0);
    QByteArray plain = cli.run("ls /settings").standardOutput;
    plain.replace("audio/", "\x1b[1;34maudio/\x1b[0m");
    plain.replace("presets/", "\x1b[1;34mpresets/\x1b[0m");
    plain.replace("serial    X1", "\x1b[2mserial    X1\x1b[0m");

    QCOMPARE(cli.run("--color always ls /settings").standardOutput, plain);
    QVERIFY(
        cli.run("--color=always tree").standardOutput.contains("\x1b[1m    volume    40\x1b[0m"));
    QCOMPARE(cli.run("--color always get /settings/nothing").standardError,
             QByteArray("\x1b[31mtulo-cm: Invalid path '/settings/nothing'\x1b[0m\n"));
    QVERIFY(cli.run("--color always set /settings/audio/volume 43")
                .standardError.startsWith("\x1b[33mtulo-cm: "));
    QVERIFY(!cli.run("--color never ls /settings").standardOutput.contains('\x1b'));
}

void TstCommandline::jsonNeverHasColours()
{
    const CommandLine cli;
    for (const char* line : { "ls /settings", "get /settings/nothing" }) {
        const QStringList words = QString::fromLatin1(line).split(QLatin1Char(' '));
        const ChildResult plain = cli.run(QStringList(QStringLiteral("--json")) + words);

        const ChildResult coloured = cli.run(
            QStringList { QStringLiteral("--json"), QStringLiteral("--color=always") } + words);

        QCOMPARE(coloured.standardOutput, plain.standardOutput);
        QCOMPARE(coloured.standardError, plain.standardError);
    }
}

QTEST_GUILESS_MAIN(TstCommandline)
#include "tst_commandline.moc"
