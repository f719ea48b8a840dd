#include "tests/support/hostilerequests.h"

#include "api/core/model/tulosettingsactions.h"
#include "api/core/tulovalue.h"

#include <QFile>
#include <QTest>

#include <climits>
#include <limits>

#include <sys/stat.h>

namespace {

const QString volume = QStringLiteral("/settings/audio/volume");

QString node(const QString& below)
{
    return QLatin1String("/settings/") + below;
}

Attempt getAttempt(const QString& path, const QStringList& roles = { TuloRoles::Type() })
{
    Attempt attempt;
    attempt.path = path;
    attempt.roles = roles;
    return attempt;
}

Attempt rowsAttempt(const QString& path, int firstRow = 0, int lastRow = 100,
                    const QStringList& roles = { TuloRoles::Type() })
{
    Attempt attempt;
    attempt.kind = CMRequest::Kind::GetRows;
    attempt.path = path;
    attempt.firstRow = firstRow;
    attempt.lastRow = lastRow;
    attempt.roles = roles;
    return attempt;
}

Attempt setAttempt(const QString& path, const QString& role, const QVariant& value)
{
    Attempt attempt;
    attempt.kind = CMRequest::Kind::SetData;
    attempt.path = path;
    attempt.role = role;
    attempt.value = value;
    return attempt;
}

QVariant intValue(qlonglong number)
{
    return TuloValue::of(TuloValue::Int(), number).__variant();
}

Attempt setAttempt(const QString& path)
{
    return setAttempt(path, TuloRoles::Value(), intValue(5));
}

void makeLink(const TemporaryTree& tree, const QString& target, const QString& name)
{
    QFile::link(tree.path() + target, tree.writePath() + name);
}

void addRow(const QString& name, const Attempt& attempt, const QString& refusal,
            const QString& outcome, const QString& record = QString())
{
    QTest::newRow(qPrintable(name)) << attempt << refusal << outcome << record;
}

QString invalidPath(const QString& path)
{
    return QLatin1String("InvalidPath: Invalid path '") + CMPath(path).toEncoded()
        + QLatin1Char('\'');
}

/// `message` with the encoded path in it, cut as the guard shows it.
QString about(const QString& path, const char* message)
{
    constexpr int shownLength = 200;
    const QString encoded = CMPath(path).toEncoded();
    return QString::fromLatin1(message).arg(
        encoded.size() <= shownLength ? encoded : encoded.left(shownLength) + QLatin1String("..."));
}

// Bad paths. The worker hands them to the file system as they are, and so finds nothing, finds a
// setting or a directory, or prepares to write.
void addBadPath(const char* name, const QString& path, const char* refusal, int found = 0,
                const char* rows = nullptr)
{
    const QString label = QString::fromLatin1(name);
    const QString nothing = QLatin1String("error ") + invalidPath(path);
    addRow(QLatin1String("get: ") + label, getAttempt(path), about(path, refusal),
           found == 0 ? nothing : QStringLiteral("answer [%1]").arg(found));
    addRow(QLatin1String("rows: ") + label, rowsAttempt(path), about(path, refusal),
           rows == nullptr ? nothing : QLatin1String("rows ") + QString::fromLatin1(rows));
    addRow(QLatin1String("set: ") + label, setAttempt(path), about(path, refusal),
           QStringLiteral("saved %1 {value: {int: 5}}").arg(CMPath(path).base()));
}

// Qt drops a last character that is half of one when it looks at a file, but writes "?" for it
// when it opens the file: the worker takes the setting for the directory that it is in.
void addLoneSurrogate(const char* name, const QString& path, const char* refusal)
{
    const QString label = QString::fromLatin1(name);
    const QString row = QLatin1String("/settings/audio/?/serial");
    addRow(QLatin1String("get: ") + label, getAttempt(path), about(path, refusal),
           QStringLiteral("answer [%1]").arg(TuloRolesType::Directory));
    addRow(QLatin1String("rows: ") + label, rowsAttempt(path), about(path, refusal),
           QLatin1String("error ") + invalidPath(row),
           QLatin1String("ERROR Loaded path is invalid: ") + row);
    addRow(QLatin1String("set: ") + label, setAttempt(path), about(path, refusal),
           QStringLiteral("saved %1 {value: {int: 5}}").arg(CMPath(path).base()));
}

void addBadPaths()
{
    const char* const hidden = "Refused: Path '%1' has a component that begins with '.'";
    const char* const empty = "Refused: Path '%1' has an empty component";
    const char* const control = "Refused: Path '%1' holds a control character";
    const char* const unicode = "Refused: Path '%1' is not valid Unicode";
    const char* const levels = "Limits: Path '%1' has more than 16 levels";
    const char* const longText = "Limits: Path '%1' is longer than 1000 bytes";
    const char* const longName = "Limits: Path '%1' has a name of more than 200 bytes";
    const char* const audioRows = "[[101], [101]]";
    const char* const topRows = "[[1], [1], [1], [1]]";
    const int setting = TuloRolesType::Setting;
    const int directory = TuloRolesType::Directory;
    const auto audio = [](const char* below) {
        return node(QLatin1String("audio/") + QString::fromUtf8(below));
    };
    const auto audioWith = [](const QString& name) {
        return node(QLatin1String("audio/") + name);
    };

    addBadPath("parent of the tree", node(QStringLiteral("../x")), hidden);
    addBadPath("parent inside the tree", audio("../audio/volume"), hidden, setting);
    addBadPath("parent at the end", audio(".."), hidden, directory, topRows);
    addBadPath("parents up to the root",
               node(QStringLiteral("../").repeated(20) + QLatin1String("no")), hidden);
    addBadPath("dot", node(QStringLiteral("./audio/volume")), hidden, setting);
    addBadPath("dot at the end", audio("."), hidden, directory, audioRows);
    addBadPath("three dots", audio("..."), hidden);
    addBadPath("temporary file", audio(".volume"), hidden);
    addBadPath("roles of a directory", audio(".meta"), hidden, setting);
    addBadPath("lock of the tree", node(QStringLiteral(".tulo-cm.lock")), hidden);
    addBadPath("doubled slash", audio("/volume"), empty, setting);
    addBadPath("doubled slash behind the mount", QStringLiteral("/settings//audio/volume"), empty,
               setting);
    addBadPath("slash behind a directory", audio(""), empty, directory, audioRows);
    addBadPath("slash behind a setting", audio("volume/"), empty);
    addBadPath("slash behind the mount", QStringLiteral("/settings/"), empty, directory, topRows);
    addBadPath("nothing but a slash", QStringLiteral("/"), empty, directory, topRows);
    addBadPath("zero character", audioWith(QStringLiteral("a") + QChar(0) + QLatin1Char('b')),
               control);
    addBadPath("line feed", audio("a\nb"), control);
    addBadPath("escape sequence", audio("\033[31m"), control);
    addBadPath("delete", audio("a\177"), control);
    addBadPath("control character beyond ASCII", audio("a\302\205"), control);
    addLoneSurrogate("lone high surrogate", audioWith(QChar(0xD800)), unicode);
    addLoneSurrogate("lone low surrogate", audioWith(QChar(0xDC00)), unicode);
    addBadPath("surrogates in the wrong order", audioWith(QString(QChar(0xDC00)) + QChar(0xD800)),
               unicode);
    addBadPath("seventeen levels", QLatin1String("/settings") + QStringLiteral("/a").repeated(16),
               levels);
    addBadPath("name of 201 bytes", audioWith(QString(201, QLatin1Char('a'))), longName);
    addBadPath("name of 202 bytes in 101 characters", audioWith(QString(101, QChar(0xE4))),
               longName);
    addBadPath("name that no file system holds", audioWith(QString(300, QLatin1Char('a'))),
               longName);
    addBadPath("text of 1009 bytes",
               QLatin1String("/settings") + QStringLiteral("/abcdefghi").repeated(100), longText);
    addBadPath("text that no file system holds",
               QLatin1String("/settings") + QStringLiteral("/a").repeated(5000), longText);
}

// Paths of nobody's, or of another's.
void addStrayPaths()
{
    const QString corrected = QStringLiteral("WARN Wrong settings path detected: '%1' - please fix "
                                             "your code. Adding missing leading '/' for now.");
    addRow(QStringLiteral("get: empty path"), getAttempt(QString()),
           QStringLiteral("Refused: The path is empty"), QStringLiteral("answer [1]"),
           corrected.arg(QString()));
    addRow(QStringLiteral("rows: empty path"), rowsAttempt(QString()),
           QStringLiteral("Refused: The path is empty"),
           QStringLiteral("rows [[1], [1], [1], [1]]"), corrected.arg(QString()));
    addRow(QStringLiteral("set: empty path"), setAttempt(QString()),
           QStringLiteral("Refused: The path is empty"),
           QStringLiteral("saved / {value: {int: 5}}"), corrected.arg(QString()));
    for (const char* other :
         { "/other/audio/volume", "/settings2/audio/volume", "/Settings/audio/volume" }) {
        const QString path = QString::fromLatin1(other);
        addRow(QLatin1String("get: ") + path, getAttempt(path), invalidPath(path),
               QStringLiteral("answer [101]"));
        addRow(QLatin1String("set: ") + path, setAttempt(path), invalidPath(path),
               QStringLiteral("saved /audio/volume {value: {int: 5}}"));
    }
    for (const char* absent : { "/settings/nowhere", "/settings/audio/volume",
                                "/settings/audio/nothing", "/settings/%61udio" }) {
        const QString path = QString::fromLatin1(absent);
        addRow(QLatin1String("rows: ") + path, rowsAttempt(path), invalidPath(path),
               QLatin1String("error ") + invalidPath(path));
    }
}

void addBadIndexes()
{
    const QString audio = QStringLiteral("/settings/audio");
    const QString refusal = QStringLiteral("Refused: A row index at '/settings/audio' is negative");
    const QString abort = QStringLiteral("abort index out of range");
    const QString none = QStringLiteral("rows []");
    const auto add = [&](int first, int last, const QString& outcome) {
        addRow(QStringLiteral("rows %1 to %2").arg(first).arg(last),
               rowsAttempt(audio, first, last), refusal, outcome);
    };
    add(-1, -1, abort);
    add(-1, 0, abort);
    add(-1, 100, abort);
    add(-2, -1, abort);
    add(-100, 1, abort);
    add(INT_MIN, INT_MAX, abort);
    add(INT_MIN, INT_MIN, abort);
    add(INT_MIN, 0, abort);
    add(-1, -2, none);
    add(-1, INT_MIN, none);
    add(0, -1, none);
    add(1, -1, none);
    add(INT_MAX, -1, none);
    add(INT_MAX, INT_MIN, none);
}

void addBadRoles()
{
    const auto manyRoles = [](int count) {
        QStringList roles;
        for (int i = 0; i < count; ++i)
            roles.append(TuloRoles::Type());
        return roles;
    };
    const auto manyAnswers = [&manyRoles](int count) {
        return QLatin1Char('[')
            + manyRoles(count)
                  .replaceInStrings(TuloRoles::Type(), QStringLiteral("101"))
                  .join(QLatin1String(", "))
            + QLatin1Char(']');
    };
    const char* const tooMany = "Limits: A request for '%1' names more than 64 roles";
    for (const int count : { 65, 1000 }) {
        addRow(QStringLiteral("get: %1 roles").arg(count), getAttempt(volume, manyRoles(count)),
               about(volume, tooMany), QLatin1String("answer ") + manyAnswers(count));
    }
    const QString audio = QStringLiteral("/settings/audio");
    // Of these, two count as those that the dispatcher adds.
    addRow(QStringLiteral("rows: 67 roles"), rowsAttempt(audio, 0, 100, manyRoles(67)),
           about(audio, tooMany), QStringLiteral("rows [%1, %1]").arg(manyAnswers(67)));

    // The worker's own answer serves.
    const QStringList unknown {
        QStringLiteral("title"), QStringLiteral("Value"), QStringLiteral("value "),
        QStringLiteral(""),      QStringLiteral("path"),  QStringLiteral("timestamp"),
        QStringLiteral("%1"),    QString(QChar(0xD800)),  QString(10000, QLatin1Char('r'))
    };
    for (const QString& role : unknown) {
        const QString error = QLatin1String("Error: Invalid set data role: ") + role;
        addRow(QLatin1String("set: role ") + role.left(20), setAttempt(volume, role, intValue(5)),
               error, QLatin1String("error ") + error);
    }
    for (const char* noAction :
         { "/settings/audio/volume", "/settings", "/settings/actions", "/settings/actions/Flush",
           "settings/actions/flush", "/settings/actions/flush/now", "/other/actions/flush" }) {
        const QString path = QString::fromLatin1(noAction);
        addRow(QLatin1String("activate: ") + path,
               setAttempt(path, TuloRoles::Activate(), QVariant()),
               about(path, "Refused: Path '%1' is not an action"),
               QStringLiteral("error Error: Invalid activate path: '%1'").arg(path));
    }
}

void addBadValues()
{
    const QString kept = QStringLiteral("saved /audio/volume {value: {int: 7}}");
    const auto add = [](const char* name, const QVariant& value, const char* refusal,
                        const QString& outcome) {
        addRow(QLatin1String("value: ") + QString::fromLatin1(name),
               setAttempt(volume, TuloRoles::Value(), value), about(volume, refusal), outcome);
    };
    const char* const noObject = "Refused: A value for '%1' is not an object";
    add("none", QVariant(), noObject, kept);
    add("a number", 5, noObject, kept);
    add("a text", QStringLiteral("5"), noObject, kept);
    add("a switch", true, noObject, kept);
    add("a list", QVariantList { 5 }, noObject, kept);
    add("bytes", QByteArrayLiteral("{\"int\":5}"), noObject, kept);

    // The framework refuses what cannot be stored, and the stored value stays.
    const auto addMalformed = [&kept](const char* name, const QVariantHash& value,
                                      const char* refusal, const char* reason) {
        addRow(QLatin1String("value: ") + QString::fromLatin1(name),
               setAttempt(volume, TuloRoles::Value(), value), about(volume, refusal), kept,
               QStringLiteral("WARN Value for '%1' refused: %2")
                   .arg(volume, QString::fromLatin1(reason)));
    };
    const char* const notInt = "it is not of the kind 'int'";
    const char* const notDouble = "it is not of the kind 'double'";
    const char* const notBool = "it is not of the kind 'bool'";
    const char* const notString = "it is not of the kind 'string'";
    const char* const notList = "it is not of the kind 'list'";
    const char* const ofNoKind = "it is of no known kind";
    const char* const notJson = "it holds what JSON cannot hold";
    const char* const noKind = "Refused: A value for '%1' does not have one known kind";
    addMalformed("two kinds", { { TuloValue::Int(), 1 }, { TuloValue::Bool(), true } }, noKind,
                 ofNoKind);
    addMalformed("unknown kind", { { QStringLiteral("colour"), 1 } }, noKind, ofNoKind);
    addMalformed("kind in another case", { { QStringLiteral("Int"), 1 } }, noKind, ofNoKind);
    addMalformed("kind without a name", { { QString(), 1 } }, noKind, ofNoKind);
    addMalformed("value inside a value", { { QStringLiteral("value"), intValue(1) } }, noKind,
                 ofNoKind);

    const char* const wrongKind = "Refused: A value for '%1' is not of the kind it names";
    addMalformed("int of a text", { { TuloValue::Int(), QStringLiteral("5") } }, wrongKind, notInt);
    addMalformed("int of a fraction", { { TuloValue::Int(), 1.5 } }, wrongKind, notInt);
    addMalformed("int of a switch", { { TuloValue::Int(), true } }, wrongKind, notInt);
    addMalformed("int of nothing", { { TuloValue::Int(), QVariant() } }, wrongKind, notInt);
    addMalformed("double of a text", { { TuloValue::Double(), QStringLiteral("x") } }, wrongKind,
                 notDouble);
    addMalformed("bool of a number", { { TuloValue::Bool(), 1 } }, wrongKind, notBool);
    addMalformed("bool of a text", { { TuloValue::Bool(), QStringLiteral("true") } }, wrongKind,
                 notBool);
    addMalformed("string of a number", { { TuloValue::String(), 5 } }, wrongKind, notString);
    addMalformed("string of nothing", { { TuloValue::String(), QVariant() } }, wrongKind,
                 notString);
    addMalformed("string of a list", { { TuloValue::String(), QVariantList { 1 } } }, wrongKind,
                 notString);
    addMalformed("list of a text", { { TuloValue::List(), QStringLiteral("x") } }, wrongKind,
                 notList);
    addMalformed("list of an object", { { TuloValue::List(), QVariantHash { { volume, 1 } } } },
                 wrongKind, notList);

    const char* const notFinite = "Refused: A number for '%1' is not finite";
    const double infinity = std::numeric_limits<double>::infinity();
    const double notANumber = std::numeric_limits<double>::quiet_NaN();
    addMalformed("not a number", { { TuloValue::Double(), notANumber } }, notFinite, notDouble);
    addMalformed("infinity", { { TuloValue::Double(), infinity } }, notFinite, notDouble);
    addMalformed("negative infinity", { { TuloValue::Double(), -infinity } }, notFinite, notDouble);
    addMalformed("infinity in a list", { { TuloValue::List(), QVariantList { 1, infinity } } },
                 notFinite, notJson);

    const char* const noJson = "Refused: A value for '%1' holds something that JSON cannot hold";
    addMalformed("string of bytes", { { TuloValue::String(), QByteArrayLiteral("x") } }, noJson,
                 notString);
    addMalformed("bytes in a list",
                 { { TuloValue::List(), QVariantList { QByteArrayLiteral("x") } } }, noJson,
                 notJson);
    addMalformed("character in a list", { { TuloValue::List(), QVariantList { QChar(u'x') } } },
                 noJson, notJson);

    const auto addContent = [&add](const char* name, const QVariantHash& value, const char* refusal,
                                   const char* stored) {
        add(name, value, refusal,
            QStringLiteral("saved /audio/volume {value: %1}").arg(QString::fromUtf8(stored)));
    };
    const char* const noUnicode = "Refused: A text for '%1' is not valid Unicode";
    const QString lone(QChar(0xDC00));
    addContent("text with a lone surrogate", { { TuloValue::String(), lone } }, noUnicode,
               "{string: ?}");
    addContent("lone surrogate in a list", { { TuloValue::List(), QVariantList { lone } } },
               noUnicode, "{list: [?]}");
    addContent("key with a lone surrogate",
               { { TuloValue::List(), QVariantList { QVariantHash { { lone, 1 } } } } }, noUnicode,
               "{list: [{?: 1}]}");

    const char* const tooDeep = "Limits: A value for '%1' nests more than 8 deep";
    QVariant lists = QVariantList();
    for (int depth = 1; depth < 9; ++depth)
        lists = QVariantList { lists };
    addContent("nine lists", { { TuloValue::List(), lists } }, tooDeep,
               "{list: [[[[[[[[[]]]]]]]]]}");
    QVariant objects = QVariantHash();
    for (int depth = 1; depth < 9; ++depth)
        objects = QVariantHash { { QStringLiteral("a"), objects } };
    addContent("nine objects", { { TuloValue::List(), QVariantList { objects } } }, tooDeep,
               "{list: [{a: {a: {a: {a: {a: {a: {a: {a: {}}}}}}}}}]}");
}

void addBadChanges()
{
    const QString kept = QStringLiteral("saved /audio/volume {value: {int: 7}}");
    const auto add = [](const char* name, const QString& role, const QVariant& value,
                        const char* refusal, const QString& outcome) {
        addRow(role + QLatin1String(": ") + QString::fromLatin1(name),
               setAttempt(volume, role, value), about(volume, refusal), outcome);
    };
    const double infinity = std::numeric_limits<double>::infinity();
    const QString title = TuloRoles::Title();
    const char* const noObject = "Refused: A change to '%1' is not an object";
    for (const QString& role : { TuloRoles::SetRoles(), TuloRoles::ValueOperation() }) {
        add("nothing", role, QVariant(), noObject, kept);
        add("a number", role, 5, noObject, kept);
        add("a list", role, QVariantList { intValue(1) }, noObject, kept);
        add("value that is no object", role, QVariantHash { { TuloRoles::Value(), 5 } },
            "Refused: A value for '%1' is not an object", kept);
    }
    const QVariantHash twoKinds { { TuloValue::Int(), 1 }, { TuloValue::Bool(), true } };
    addRow(QStringLiteral("setRoles: value of two kinds"),
           setAttempt(volume, TuloRoles::SetRoles(),
                      QVariantHash { { TuloRoles::Value(), twoKinds } }),
           about(volume, "Refused: A value for '%1' does not have one known kind"), kept,
           QStringLiteral("WARN Value for '%1' refused: it is of no known kind").arg(volume));
    add("role with an infinity", TuloRoles::SetRoles(), QVariantHash { { title, infinity } },
        "Refused: A number for '%1' is not finite",
        QStringLiteral("saved /audio/volume {title: inf, value: {int: 7}}"));
    add("role with bytes", TuloRoles::SetRoles(),
        QVariantHash { { title, QByteArrayLiteral("x") } },
        "Refused: A value for '%1' holds something that JSON cannot hold",
        QStringLiteral("saved /audio/volume {title: x, value: {int: 7}}"));
    add("role name with a lone surrogate", TuloRoles::SetRoles(),
        QVariantHash { { QString(QChar(0xD800)), 1 } },
        "Refused: A text for '%1' is not valid Unicode",
        QStringLiteral("saved /audio/volume {value: {int: 7}, ?: 1}"));
    add("verb that is a number without end", TuloRoles::ValueOperation(),
        QVariantHash { { QStringLiteral("op"), infinity } },
        "Refused: A number for '%1' is not finite", kept);

    const QString pathRole = QStringLiteral("InternalError: Role path cannot be stored");
    addRow(QStringLiteral("setRoles: the path"),
           setAttempt(volume, TuloRoles::SetRoles(),
                      QVariantHash { { TuloRoles::Path(), QStringLiteral("/etc/passwd") } }),
           QStringLiteral("Refused: The role 'path' of '%1' cannot be set").arg(volume),
           QLatin1String("error ") + pathRole, QStringLiteral("ERROR Role path cannot be stored"));
}

// Changes to what is no setting, or none that may be changed.
void addBadTargets()
{
    const auto add = [](const char* below, const char* refusal, const QString& record = QString()) {
        const QString path = node(QString::fromUtf8(below));
        addRow(QLatin1String("target: ") + path, setAttempt(path), about(path, refusal),
               QStringLiteral("saved /%1 {value: {int: 5}}").arg(QString::fromUtf8(below)), record);
    };
    add("audio", "Refused: Path '%1' is a directory");
    add("audio/volume/deeper", "Refused: Path '%1' is below a setting");
    add("audio/volume/deeper/still",
        "InvalidPath: There is no setting '%1', and no directory for it");
    add("new", "InvalidPath: There is no setting '%1', and none can be created at the top");
    add("nowhere/new", "InvalidPath: There is no setting '%1', and no directory for it");
    add("audio/a.b", "Refused: No listing would show the setting '%1'");
    add("audio/a b", "Refused: No listing would show the setting '%1'");
    add("audio/a~", "Refused: No listing would show the setting '%1'");
    add("audio/%2e%2e", "Refused: No listing would show the setting '%1'");
    add("audio/a\\b", "Refused: No listing would show the setting '%1'");
    add("audio/a:b", "Refused: No listing would show the setting '%1'");
    add("audio/link", "Refused: A symbolic link in the writable tree is in the way of '%1'");
    add("audio/trap", "Refused: A symbolic link in the writable tree is in the way of '%1'");
    add("plain/new",
        "InvalidPath: There is no setting '%1', and none can be created: its directory has no "
        "template");
    add("linked/new", "Refused: A symbolic link in the writable tree is in the way of '%1'");
    add("audio/socket", "Refused: '%1' is blocked by a special file in the writable tree",
        QStringLiteral("ERROR Settings: Unable to parse '%W/audio/socket': line 1, column 1: The "
                       "document is empty."));

    addRow(QStringLiteral("target: the mount"), setAttempt(QStringLiteral("/settings")),
           QStringLiteral("Refused: Path '/settings' is a directory"),
           QStringLiteral("saved / {value: {int: 5}}"));
    for (const char* below : { "audio/serial", "fixed/new" }) {
        const QString path = node(QString::fromLatin1(below));
        const bool isNew = path.endsWith(QLatin1String("new"));
        const QString error = QLatin1String("Setting is not modifiable; path:") + path;
        addRow(QLatin1String("target: ") + path, setAttempt(path),
               about(path,
                     isNew ? "InvalidPath: There is no setting '%1', and none can be created: its "
                             "template is not modifiable"
                           : "NotModifiable: Setting '%1' is not modifiable"),
               QLatin1String("error InternalError: ") + error,
               QLatin1String("FATAL ==Report== ") + error);
    }
}

} // namespace

void makeHostileTrees(const TemporaryTree& tree)
{
    tree.writeDefault(QStringLiteral("/audio/.meta"), QByteArrayLiteral("{\"title\":\"Audio\"}"));
    tree.writeDefault(QStringLiteral("/audio/volume"),
                      QByteArrayLiteral("{\"value\":{\"int\":7}}"));
    tree.writeDefault(QStringLiteral("/audio/serial"),
                      QByteArrayLiteral("{\"modifiable\":false,\"value\":{\"string\":\"x\"}}"));
    tree.writeDefault(QStringLiteral("/fixed/.meta"), QByteArrayLiteral("{\"modifiable\":false}"));
    tree.makeDefaultDirectory(QStringLiteral("/plain"));
    // What somebody with access to the writable tree may have put there.
    tree.makeWriteDirectory(QStringLiteral("/audio"));
    makeLink(tree, QStringLiteral("/outside/file"), QStringLiteral("/audio/link"));
    makeLink(tree, QStringLiteral("/outside/file"), QStringLiteral("/audio/.trap"));
    tree.makeDefaultDirectory(QStringLiteral("/linked"));
    makeLink(tree, QStringLiteral("/outside"), QStringLiteral("/linked"));
    const QString socket = tree.writePath() + QLatin1String("/audio/socket");
    if (::mknod(QFile::encodeName(socket).constData(), S_IFSOCK | 0600, 0) != 0)
        qFatal("cannot make a socket");
}

void addHostileRequests()
{
    QTest::addColumn<Attempt>("attempt");
    QTest::addColumn<QString>("refusal");
    QTest::addColumn<QString>("outcome");
    QTest::addColumn<QString>("record");
    addBadPaths();
    addStrayPaths();
    addBadIndexes();
    addBadRoles();
    addBadValues();
    addBadChanges();
    addBadTargets();
}
