#include "tests/settings/settingscontract.h"

#include "tests/support/replywaiter.h"
#include "trees/treestamp.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QRegularExpression>
#include <QTest>

#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

Q_DECLARE_METATYPE(tulo::Assignment)

namespace tulo {
namespace {

const QString audio = QStringLiteral("/settings/audio");
const QString volume = QStringLiteral("/settings/audio/volume");
const QString gain = QStringLiteral("/settings/audio/gain");
const QString loudness = QStringLiteral("/settings/audio/loudness");
const QString mode = QStringLiteral("/settings/audio/mode");
const QString sources = QStringLiteral("/settings/audio/sources");
const QString serial = QStringLiteral("/settings/serial");
const QString secret = QStringLiteral("/settings/secret");
const QString secondPreset = QStringLiteral("/settings/presets/two");
// Without constraints or a value: it takes what comes.
const QString token = QStringLiteral("/settings/token");

const QStringList valueRole { QStringLiteral("value") };

// ---------------------------------------------------------------------------------------------
// Answers as text, types included: "x 5" is a qlonglong, "d 5" a double. Timestamps, which differ
// from run to run, are "*".
// ---------------------------------------------------------------------------------------------

QString shown(const QVariant& value);

QString shown(const QVariantMap& map)
{
    QStringList entries;
    for (auto entry = map.cbegin(); entry != map.cend(); ++entry) {
        const bool isTime =
            entry.key() == QLatin1String("timestamp") && entry->userType() == QMetaType::LongLong;
        entries.append(QStringLiteral("%1: %2").arg(entry.key(),
                                                    isTime ? QStringLiteral("*") : shown(*entry)));
    }
    return QStringLiteral("{%1}").arg(entries.join(QStringLiteral(", ")));
}

QString shown(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::Bool:
        return QStringLiteral("b ") + value.toString();
    case QMetaType::LongLong:
        return QStringLiteral("x ") + value.toString();
    case QMetaType::ULongLong:
        return QStringLiteral("t ") + value.toString();
    case QMetaType::Double:
        return QStringLiteral("d ") + QString::number(value.toDouble(), 'g', 17);
    case QMetaType::QString:
        return QStringLiteral("s \"%1\"").arg(value.toString());
    case QMetaType::QVariantList: {
        QStringList entries;
        const QVariantList list = value.toList();
        for (const QVariant& entry : list)
            entries.append(shown(entry));
        return QStringLiteral("[%1]").arg(entries.join(QStringLiteral(", ")));
    }
    case QMetaType::QVariantMap:
        return shown(value.toMap());
    default:
        return QStringLiteral("unexpected %1").arg(QLatin1String(value.typeName()));
    }
}

/// "NAME: message" and the path, unless that is in the message.
QString shown(const Error& error)
{
    QString text = error.name() + QStringLiteral(": ") + error.message;
    if (!error.path.isEmpty() && !error.message.contains(error.path))
        text += QStringLiteral(" [%1]").arg(error.path);
    return text;
}

QString shown(const Change& change)
{
    QString text = shown(change.stored);
    if (change.isAdjusted)
        text += QStringLiteral(" for %1: %2").arg(shown(change.asked), change.reason);
    return text;
}

QString shown(const Node& node)
{
    return node.path + QLatin1Char(' ') + (node.error ? shown(node.error) : shown(node.roles));
}

QString shown(const Row& row)
{
    return row.name + QLatin1String(row.isDirectory ? "/ " : " ")
        + (row.error ? shown(row.error) : shown(row.roles));
}

/// "STATE LAYER ROLE VALUE NAME:LINE:COLUMN: REASON", without what there is not.
QString shown(const RoleOrigin& origin)
{
    QString text = nameOf(origin.state) + QLatin1Char(' ') + nameOf(origin.layer);
    if (!origin.role.isEmpty())
        text += QLatin1Char(' ') + origin.role;
    if (origin.value.isValid()) {
        text += QLatin1Char(' ')
            + (origin.role == QLatin1String("timestamp") ? QStringLiteral("*")
                                                         : shown(origin.value));
    }
    if (!origin.file.isEmpty()) {
        text += QStringLiteral(" %1:%2:%3")
                    .arg(origin.file.section(QLatin1Char('/'), -2))
                    .arg(origin.line)
                    .arg(origin.column);
    }
    return origin.reason.isEmpty() ? text : text + QStringLiteral(": ") + origin.reason;
}

template<typename Entry>
QString shown(const QVector<Entry>& entries)
{
    QStringList texts;
    for (const Entry& entry : entries)
        texts.append(shown(entry));
    return texts.join(QStringLiteral("; "));
}

QString shown(const Rows& rows)
{
    return QStringLiteral("%1 rows, version %2, %3: %4")
        .arg(QString::number(rows.count), QString::number(rows.version), shown(rows.directory),
             shown(rows.rows));
}

QString shown(const QString& text)
{
    return text;
}

QString shown(int number)
{
    return QString::number(number);
}

QString shown(const QStringList& texts)
{
    return texts.join(QStringLiteral(", "));
}

QString shown(const Event& event)
{
    switch (event.kind) {
    case Event::Kind::Value:
        return QStringLiteral("value %1 %2").arg(event.path, shown(event.value));
    case Event::Kind::Data:
        return QStringLiteral("data ") + event.path;
    case Event::Kind::Rows:
        break;
    }
    return QStringLiteral("rows %1 %2 %3")
        .arg(event.path, event.command, QString::number(event.version));
}

/// The answer, or the error, when it has come.
template<typename T>
QString answerOf(const Reply<T>& reply)
{
    return reply.wait() ? shown(reply.value()) : shown(reply.error());
}

/// What a watch tells, in order.
class EventLog
{
public:
    explicit EventLog(std::unique_ptr<Watch> watch)
        : m_watch(std::move(watch))
    {
        QObject::connect(m_watch.get(), &Watch::changed, m_watch.get(),
                         [this](const Event& event) { texts.append(shown(event)); });
        QObject::connect(m_watch.get(), &Watch::failed, m_watch.get(),
                         [this](const Error& error) { texts.append(shown(error)); });
    }

    Watch* watch() const { return m_watch.get(); }
    void destroyWatch() { m_watch.reset(); }

    QStringList texts;

private:
    std::unique_ptr<Watch> m_watch;
};

QVariantList list(std::initializer_list<QVariant> entries)
{
    return QVariantList(entries);
}

QVariant kinded(const char* kind, const QVariant& content)
{
    return QVariantMap { { QLatin1String(kind), content } };
}

/// A list of `depth` lists inside each other.
QVariant nested(int depth)
{
    QVariant value = QVariantList();
    for (int i = 1; i < depth; ++i)
        value = QVariantList { value };
    return value;
}

QString storedAs(const QString& value)
{
    return QStringLiteral("{timestamp: *, value: %1}").arg(value);
}

void fill(const TemporaryTree& tree)
{
    tree.writeDefault(QStringLiteral("/.meta"), R"({"title":"Settings","modifiable":false})");
    tree.writeDefault(QStringLiteral("/audio/.meta"), R"({"title":"Audio","modifiable":false})");
    tree.writeDefault(
        QStringLiteral("/audio/gain"),
        R"({"value":{"double":0.5},"edit":{"kind":"double","min":-1.0,"max":1.0,"step":0.25}})");
    tree.writeDefault(QStringLiteral("/audio/loudness"),
                      R"({"title":"Loudness","value":{"bool":true},"edit":{"kind":"bool"}})");
    tree.writeDefault(QStringLiteral("/audio/mode"),
                      R"({"value":{"string":"mid"},"edit":{"values":["low","mid","high"]}})");
    tree.writeDefault(QStringLiteral("/audio/sources"),
                      R"({"value":{"list":["fm","usb"]},"edit":{"kind":"list","maxLength":3}})");
    tree.writeDefault(QStringLiteral("/audio/volume"),
                      R"({"title":"Volume","value":{"int":35},"valueUnit":"%",)"
                      R"("edit":{"kind":"int","min":0,"max":100,"step":5}})");
    tree.writeDefault(QStringLiteral("/presets/.meta"),
                      R"({"title":"Preset","defaultValue":{"string":"fm:87.5"}})");
    tree.writeDefault(QStringLiteral("/presets/one"), "{}");
    tree.writeDefault(QStringLiteral("/serial"), R"({"value":{"string":"X1"},"modifiable":false})");
    tree.writeDefault(QStringLiteral("/secret"), R"({"encrypted":true,"value":{"string":"old"}})");
    tree.writeDefault(QStringLiteral("/token"), R"({"title":"Token"})");
    tree.writeDefault(QStringLiteral("/whole"),
                      R"({"value":{"double":5},"edit":{"min":-1,"max":10}})");
}

} // namespace

void SettingsContract::expectRecord(const QString&) { }

void SettingsContract::init()
{
    const QString function = QLatin1String(QTest::currentTestFunction());
    if (m_function == function)
        return;
    cleanupTestCase();
    m_function = function;
    m_tree = std::make_unique<TemporaryTree>();
    fill(*m_tree);
    begin();
    m_settings = open(*m_tree);
    QVERIFY(m_settings);
}

// For the next row: everything is as in the default tree again.
void SettingsContract::cleanup()
{
    if (QTest::currentDataTag() == nullptr)
        return;
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));
    const QStringList written = tree().writtenEntries();
    for (const QString& file : written) {
        if (!file.endsWith(QLatin1Char('/')) && file != QLatin1String("/.tulo-cm.lock"))
            QVERIFY(QFile::remove(tree().writePath() + file));
    }
    QVERIFY(settings().dropCache().wait());
}

void SettingsContract::cleanupTestCase()
{
    if (m_function.isEmpty())
        return;
    m_function.clear();
    m_settings.reset();
    end();
    m_tree.reset();
}

// ---------------------------------------------------------------------------------------------
// Reading.
// ---------------------------------------------------------------------------------------------

void SettingsContract::reading_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QStringList>("roles");
    QTest::addColumn<QString>("answer");
    const auto row = [](const char* name, const QString& path, const QStringList& roles,
                        const char* answer) {
        QTest::newRow(name) << path << roles << QString::fromUtf8(answer);
    };
    row("int", volume, valueRole, "{value: x 35}");
    row("double", gain, valueRole, "{value: d 0.5}");
    row("bool", loudness, valueRole, "{value: b true}");
    row("string", mode, valueRole, "{value: s \"mid\"}");
    row("list", sources, valueRole, "{value: [s \"fm\", s \"usb\"]}");
    row("several roles", volume,
        { QStringLiteral("title"), QStringLiteral("value"), QStringLiteral("valueUnit"),
          QStringLiteral("path"), QStringLiteral("type"), QStringLiteral("edit") },
        "{edit: {kind: s \"int\", max: x 100, min: x 0, step: x 5}, path: s "
        "\"/settings/audio/volume\", title: s \"Volume\", type: x 101, value: x 35, valueUnit: s "
        "\"%\"}");
    row("roles that it lacks", token, { QStringLiteral("value"), QStringLiteral("title") },
        "{title: s \"Token\"}");
    row("the same role twice", volume, valueRole + valueRole, "{value: x 35}");
    row("a role that nobody knows", volume, { QStringLiteral("colour") }, "{}");
    row("directory", audio,
        { QStringLiteral("title"), QStringLiteral("type"), QStringLiteral("modifiable") },
        "{modifiable: b false, title: s \"Audio\", type: x 1}");
    row("the mount", QStringLiteral("/settings"), { QStringLiteral("title") },
        "{title: s \"Settings\"}");
    row("no such path", QStringLiteral("/settings/nothing"), valueRole,
        "InvalidPath: Invalid path '/settings/nothing'");
    row("another mount", QStringLiteral("/other/audio"), valueRole,
        "InvalidPath: Invalid path '/other/audio'");
    row("empty path", QString(), valueRole, "Refused: The path is empty");
    row("parent", QStringLiteral("/settings/../audio"), valueRole,
        "Refused: Path '/settings/../audio' has a component that begins with '.'");
    row("blank", QStringLiteral("/settings/a b"), valueRole,
        "InvalidPath: Invalid path '/settings/a%20b' [/settings/a b]");
    QStringList many;
    for (int i = 0; i < 65; ++i)
        many.append(QStringLiteral("title"));
    row("65 roles", volume, many,
        "Limits: A request for '/settings/audio/volume' names more than 64 roles");
}

void SettingsContract::reading()
{
    QFETCH(const QString, path);
    QFETCH(const QStringList, roles);
    QFETCH(const QString, answer);

    QCOMPARE(answerOf(settings().get(path, roles)), answer);
}

void SettingsContract::readingWithoutRolesAnswersAllThatThereAre()
{
    QCOMPARE(answerOf(settings().get(volume, {})),
             QStringLiteral("{defaultValue: x 35, edit: {kind: s \"int\", max: x 100, min: x 0, "
                            "step: x 5}, path: s \"/settings/audio/volume\", title: s \"Volume\", "
                            "type: x 101, value: x 35, valueUnit: s \"%\"}"));
    QCOMPARE(answerOf(settings().get(audio, {})),
             QStringLiteral("{modifiable: b false, path: s \"/settings/audio\", title: s "
                            "\"Audio\", type: x 1}"));
}

void SettingsContract::readingManyAnswersEachInItsPlace()
{
    QCOMPARE(answerOf(settings().getMany({ volume, QStringLiteral("/settings/nothing"), gain,
                                           QStringLiteral("/settings//x"), volume },
                                         valueRole)),
             QStringLiteral(
                 "/settings/audio/volume {value: x 35}; /settings/nothing InvalidPath: Invalid "
                 "path '/settings/nothing'; /settings/audio/gain {value: d 0.5}; /settings//x "
                 "Refused: Path '/settings//x' has an empty component; /settings/audio/volume "
                 "{value: x 35}"));
    QCOMPARE(answerOf(settings().getMany({}, valueRole)), QString());
    QCOMPARE(answerOf(settings().getMany({ token }, {})),
             QStringLiteral("/settings/token {path: s \"/settings/token\", title: s \"Token\", "
                            "type: x 101}"));
}

void SettingsContract::readingTooManyIsAnError()
{
    QStringList paths;
    for (int i = 0; i < Settings::maximumPaths; ++i)
        paths.append(volume);

    const Reply<QVector<Node>> most = settings().getMany(paths, valueRole);
    QVERIFY(most.wait());
    QCOMPARE(most.value().size(), Settings::maximumPaths);

    QCOMPARE(answerOf(settings().getMany(paths + QStringList(volume), valueRole)),
             QStringLiteral("Limits: A request names more than 1000 paths"));
}

void SettingsContract::doubleThatIsWrittenAsAnIntegerIsADouble()
{
    QCOMPARE(answerOf(settings().get(QStringLiteral("/settings/whole"),
                                     { QStringLiteral("value"), QStringLiteral("defaultValue") })),
             QStringLiteral("{defaultValue: d 5, value: d 5}"));
}

void SettingsContract::nullsAndZeroCharactersAreLeftOut()
{
    tree().writeDefault(QStringLiteral("/null/value"), R"({"value":{"int":null},"title":"A"})");
    tree().writeDefault(QStringLiteral("/null/list"), R"({"value":{"list":[1,null]},"title":"B"})");
    tree().writeDefault(QStringLiteral("/null/map"),
                        R"({"value":{"list":[{"a":null,"b":1}]},"title":null})");
    tree().writeDefault(QStringLiteral("/null/edit"),
                        R"({"value":{"int":1},"edit":{"min":null,"values":[null],"max":2}})");
    tree().writeDefault(QStringLiteral("/null/zero"), R"({"value":{"string":"a\u0000b"}})");
    const QStringList roles { QStringLiteral("value"), QStringLiteral("title"),
                              QStringLiteral("edit") };
    const QString directory = QStringLiteral("/settings/null");

    QCOMPARE(answerOf(settings().rows(directory, 0, 10, roles)),
             QStringLiteral(
                 "5 rows, version 0, {path: s \"/settings/null\", title: s \"null\", type: x 1}: "
                 "edit {edit: {max: x 2}, title: s \"edit\", value: x 1}; list {title: s \"B\"}; "
                 "map {value: [{b: x 1}]}; value {title: s \"A\"}; zero {title: s \"zero\"}"));
    QCOMPARE(answerOf(settings().get(directory + QStringLiteral("/list"), roles)),
             QStringLiteral("{title: s \"B\"}"));
    QCOMPARE(answerOf(settings().set(directory + QStringLiteral("/zero"), QStringLiteral("ab"))),
             storedAs(QStringLiteral("s \"ab\"")));
}

void SettingsContract::fileThatCannotBeReadIsUnavailable()
{
    tree().writeDefault(QStringLiteral("/audio/large"), QByteArray(1024 * 1024 + 1, ' '));
    const QString path = QStringLiteral("/settings/audio/large");
    const QString error =
        QStringLiteral("Unavailable: '%1/audio/large' is larger than 1048576 bytes [%2]")
            .arg(tree().defaultPath(), path);

    QCOMPARE(answerOf(settings().get(path, valueRole)), error);
    QCOMPARE(answerOf(settings().getMany({ path }, valueRole)), path + QLatin1Char(' ') + error);
    QCOMPARE(answerOf(settings().set(path, 1)), error);
}

void SettingsContract::relativePathIsServed()
{
    const QString path = volume.mid(1);
    const QString warning =
        QStringLiteral("Wrong settings path detected: '%1' - please fix your code. Adding missing "
                       "leading '/' for now.")
            .arg(path);
    expectRecord(warning);
    expectRecord(warning);
    EventLog log(settings().watch(volume));

    QCOMPARE(answerOf(settings().get(path, valueRole)), QStringLiteral("{value: x 35}"));
    QCOMPARE(answerOf(settings().set(path, 40)), storedAs(QStringLiteral("x 40")));

    QCOMPARE(log.texts,
             QStringList({ QStringLiteral("value /settings/audio/volume x 40"),
                           QStringLiteral("data /settings/audio/volume") }));
}

// ---------------------------------------------------------------------------------------------
// Rows.
// ---------------------------------------------------------------------------------------------

void SettingsContract::rows_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("last");
    QTest::addColumn<QStringList>("roles");
    QTest::addColumn<QString>("answer");
    const QString head = QStringLiteral("5 rows, version 0, {modifiable: b false, path: s "
                                        "\"/settings/audio\", title: s \"Audio\", type: x 1}: ");
    const int most = std::numeric_limits<int>::max();
    QTest::newRow("first two") << audio << 0 << 1 << valueRole
                               << head
            + QStringLiteral("gain {value: d 0.5}; loudness {value: b true}");
    QTest::newRow("last") << audio << 4 << most
                          << QStringList { QStringLiteral("title"), QStringLiteral("valueUnit") }
                          << head
            + QStringLiteral("volume {title: s \"Volume\", valueUnit: s "
                             "\"%\"}");
    QTest::newRow("without roles")
        << audio << 0 << 0 << QStringList() << head + QStringLiteral("gain {}");
    QTest::newRow("directories") << QStringLiteral("/settings") << 0 << 2 << QStringList()
                                 << QStringLiteral("6 rows, version 0, {modifiable: b false, path: "
                                                   "s \"/settings\", title: s \"Settings\", type: "
                                                   "x 1}: audio/ {}; presets/ {}; secret {}");
    QTest::newRow("empty range") << audio << 1 << 0 << valueRole << head;
    QTest::newRow("beyond the end") << audio << 9 << 12 << valueRole << head;
    QTest::newRow("negative") << audio << -1 << 2 << valueRole
                              << QStringLiteral("Refused: A row index at '/settings/audio' is "
                                                "negative");
    QTest::newRow("setting") << volume << 0 << 2 << valueRole
                             << QStringLiteral("InvalidPath: Invalid path "
                                               "'/settings/audio/volume'");
    QTest::newRow("no such path") << QStringLiteral("/settings/no") << 0 << 2 << valueRole
                                  << QStringLiteral("InvalidPath: Invalid path '/settings/no'");
}

void SettingsContract::rows()
{
    QFETCH(const QString, path);
    QFETCH(const int, first);
    QFETCH(const int, last);
    QFETCH(const QStringList, roles);
    QFETCH(const QString, answer);

    QCOMPARE(answerOf(settings().rows(path, first, last, roles)), answer);
}

void SettingsContract::rowsComeInPages()
{
    for (int i = 0; i < 600; ++i)
        tree().writeDefault(QStringLiteral("/many/n%1").arg(i, 4, 10, QLatin1Char('0')),
                            QByteArrayLiteral("{}"));
    const QString many = QStringLiteral("/settings/many");

    const Reply<Rows> first = settings().rows(many, 0, 1000, {});
    QVERIFY(first.wait());
    QCOMPARE(first.value().count, 600);
    QCOMPARE(first.value().rows.size(), Settings::maximumRows);
    QCOMPARE(first.value().rows.last().name, QStringLiteral("n0499"));

    const Reply<Rows> second = settings().rows(many, 500, 1000, {});
    QVERIFY(second.wait());
    QCOMPARE(second.value().rows.size(), 100);
    QCOMPARE(second.value().rows.first().name, QStringLiteral("n0500"));
}

void SettingsContract::rowThatCannotBeServedKeepsItsPlace()
{
    tree().writeDefault(QStringLiteral("/some/large"), QByteArray(1024 * 1024 + 1, ' '));
    tree().writeDefault(QStringLiteral("/some/small"), R"({"value":{"int":1}})");
    expectRecord(QStringLiteral("Loaded path is invalid: /settings/some/large"));
    expectRecord(QStringLiteral("Loaded path is invalid: /settings/some/large"));

    QCOMPARE(answerOf(settings().rows(QStringLiteral("/settings/some"), 0, 9, valueRole)),
             QStringLiteral("2 rows, version 0, {path: s \"/settings/some\", title: s \"some\", "
                            "type: x 1}: large Unavailable: '%1/some/large' is larger than 1048576 "
                            "bytes [/settings/some/large]; small {value: x 1}")
                 .arg(tree().defaultPath()));
}

// ---------------------------------------------------------------------------------------------
// Values.
// ---------------------------------------------------------------------------------------------

// ---------------------------------------------------------------------------------------------
// Explaining.
// ---------------------------------------------------------------------------------------------

void SettingsContract::explaining_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("written");
    QTest::addColumn<QString>("answer");
    const auto row = [](const char* name, const QString& path, const QByteArray& written,
                        const QStringList& entries) {
        QTest::newRow(name) << path << written << entries.join(QStringLiteral("; "));
    };
    const QString notChanged = QStringLiteral(": a written file cannot change this role");
    row("default file", loudness, {},
        { QStringLiteral("effective default value b true audio/loudness:1:21"),
          QStringLiteral("effective default defaultValue b true audio/loudness:1:21"),
          QStringLiteral("effective default title s \"Loudness\" audio/loudness:1:2"),
          QStringLiteral("effective builtIn type x 101"),
          QStringLiteral("effective builtIn path s \"/settings/audio/loudness\""),
          QStringLiteral("effective default edit {kind: s \"bool\"} audio/loudness:1:43"),
          QStringLiteral("hidden template title s \"Audio\" audio/.meta:1:2: a template is for "
                         "settings without a default file"),
          QStringLiteral("hidden template modifiable b false audio/.meta:1:18: a template is for "
                         "settings without a default file") });
    row("written file", token, R"({"timestamp":5,"value":{"int":7},"title":"Mine","x":1})",
        { QStringLiteral("effective written value x 7 write/token:1:16"),
          QStringLiteral("effective default title s \"Token\" default/token:1:2"),
          QStringLiteral("effective builtIn type x 101"),
          QStringLiteral("effective builtIn path s \"/settings/token\""),
          QStringLiteral("effective written timestamp * write/token:1:2"),
          QStringLiteral("ignored written title s \"Mine\" write/token:1:34") + notChanged,
          QStringLiteral("ignored written x x 1 write/token:1:49") + notChanged,
          QStringLiteral("hidden template title s \"Settings\" default/.meta:1:2: a template is "
                         "for settings without a default file"),
          QStringLiteral("hidden template modifiable b false default/.meta:1:21: a template is "
                         "for settings without a default file") });
    row("template", QStringLiteral("/settings/presets/one"), {},
        { QStringLiteral("effective template defaultValue s \"fm:87.5\" presets/.meta:1:19"),
          QStringLiteral("effective template title s \"Preset\" presets/.meta:1:2"),
          QStringLiteral("effective builtIn type x 101"),
          QStringLiteral("effective builtIn path s \"/settings/presets/one\"") });
    row("directory", audio, {},
        { QStringLiteral("effective default title s \"Audio\" audio/.meta:1:2"),
          QStringLiteral("effective builtIn type x 1"),
          QStringLiteral("effective builtIn path s \"/settings/audio\""),
          QStringLiteral("effective default modifiable b false audio/.meta:1:18") });
    row("directory without roles", QStringLiteral("/settings/made"), {},
        { QStringLiteral("effective builtIn title s \"made\""),
          QStringLiteral("effective builtIn type x 1"),
          QStringLiteral("effective builtIn path s \"/settings/made\"") });
    row("no such path", QStringLiteral("/settings/nothing"), {},
        { QStringLiteral("InvalidPath: Invalid path '/settings/nothing'") });
    row("no such path beside a template", secondPreset, {},
        { QStringLiteral("InvalidPath: Invalid path '/settings/presets/two'") });
    row("another mount", QStringLiteral("/other/audio"), {},
        { QStringLiteral("InvalidPath: Invalid path '/other/audio'") });
    row("empty path", QString(), {}, { QStringLiteral("Refused: The path is empty") });
    row("parent", QStringLiteral("/settings/../audio"), {},
        { QStringLiteral(
            "Refused: Path '/settings/../audio' has a component that begins with '.'") });
    row("an action", QStringLiteral("/settings/actions/flush"), {},
        { QStringLiteral("effective builtIn permission s \"readWrite\"") });
}

void SettingsContract::explaining()
{
    QFETCH(const QString, path);
    QFETCH(const QByteArray, written);
    QFETCH(const QString, answer);
    if (!written.isNull())
        tree().writeWritten(path.mid(int(qstrlen("/settings"))), written);
    if (path.endsWith(QLatin1String("/made")))
        tree().makeWriteDirectory(QStringLiteral("/made"));

    QCOMPARE(answerOf(settings().explain(path)), answer);
}

void SettingsContract::explanationIsWhatReadingAnswers_data()
{
    QTest::addColumn<QString>("path");
    for (const QString& path :
         { volume, gain, loudness, mode, sources, serial, secret, token, audio,
           QStringLiteral("/settings"), QStringLiteral("/settings/presets/one"),
           QStringLiteral("/settings/whole") })
        QTest::newRow(qPrintable(path)) << path;
}

void SettingsContract::explanationIsWhatReadingAnswers()
{
    QFETCH(const QString, path);

    const Reply<QVariantMap> read = settings().get(path, {});
    const Reply<QVector<RoleOrigin>> explained = settings().explain(path);

    QVERIFY(read.wait() && explained.wait());
    QVariantMap effective;
    for (const RoleOrigin& origin : explained.value()) {
        if (origin.state == RoleOrigin::State::Effective)
            effective.insert(origin.role, origin.value);
    }
    QCOMPARE(shown(effective), shown(read.value()));
}

void SettingsContract::explanationTellsOfAChangeThatIsNotWritten()
{
    tree().writeWritten(QStringLiteral("/audio/volume"), R"({"timestamp":5,"value":{"int":10}})");
    const QString reason = QStringLiteral(": a change that is not yet written takes its place");
    const QString expected =
        QStringList {
            QStringLiteral("effective pending value x 15"),
            QStringLiteral("effective default defaultValue x 35 audio/volume:1:19"),
            QStringLiteral("effective default title s \"Volume\" audio/volume:1:2"),
            QStringLiteral("effective default valueUnit s \"%\" audio/volume:1:38"),
            QStringLiteral("effective builtIn type x 101"),
            QStringLiteral("effective builtIn path s \"/settings/audio/volume\""),
            QStringLiteral("effective default edit {kind: s \"int\", max: x 100, min: x 0, step: "
                           "x 5} audio/volume:1:54"),
            QStringLiteral("effective pending timestamp *"),
            QStringLiteral("hidden written value x 10 audio/volume:1:16") + reason,
            QStringLiteral("hidden written timestamp * audio/volume:1:2") + reason,
            QStringLiteral("hidden default value x 35 audio/volume:1:19: the written file has one"),
            QStringLiteral("hidden template title s \"Audio\" audio/.meta:1:2: a template is for "
                           "settings without a default file"),
            QStringLiteral("hidden template modifiable b false audio/.meta:1:18: a template is "
                           "for settings without a default file"),
        }
            .join(QStringLiteral("; "));

    // The write may come between the two requests.
    QString answer;
    for (int attempt = 0; attempt < 20 && answer != expected; ++attempt) {
        tree().writeWritten(QStringLiteral("/audio/volume"),
                            R"({"timestamp":5,"value":{"int":10}})");
        const Reply<Change> changed = settings().set(volume, 15);
        answer = answerOf(settings().explain(volume));
        QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));
    }

    QCOMPARE(answer, expected);
}

void SettingsContract::explanationTellsOfAChangeThatIsWritten()
{
    QVERIFY(settings().set(secondPreset, QStringLiteral("dab:5A")).wait());
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));

    QCOMPARE(answerOf(settings().explain(secondPreset)),
             QStringList({
                             QStringLiteral("effective written value s \"dab:5A\" "
                                            "presets/two:1:28"),
                             QStringLiteral("effective template defaultValue s \"fm:87.5\" "
                                            "presets/.meta:1:19"),
                             QStringLiteral("effective template title s \"Preset\" "
                                            "presets/.meta:1:2"),
                             QStringLiteral("effective builtIn type x 101"),
                             QStringLiteral("effective builtIn path s \"/settings/presets/two\""),
                             QStringLiteral("effective written timestamp * presets/two:1:2"),
                         })
                 .join(QStringLiteral("; ")));
}

void SettingsContract::explanationTellsWhatIsKeptFromEarlier()
{
    QCOMPARE(answerOf(settings().get(token, valueRole)), QStringLiteral("{}"));
    tree().writeWritten(QStringLiteral("/token"), R"({"value":{"int":7}})");

    const QString before = answerOf(settings().explain(token));
    QVERIFY(settings().dropCache().wait());
    const QString after = answerOf(settings().explain(token));

    const QString hidden = QStringLiteral("hidden written value x 7 write/token:1:2: what was read "
                                          "earlier is kept until the caches are dropped");
    QVERIFY2(before.contains(hidden), qPrintable(before));
    QVERIFY2(after.startsWith(QLatin1String("effective written value x 7 write/token:1:2; ")),
             qPrintable(after));
}

void SettingsContract::explanationLeavesHiddenSecretsOut()
{
    QVERIFY(settings().set(secret, QStringLiteral("new")).wait());
    const QString pending = answerOf(settings().explain(secret));
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));
    const QString written = answerOf(settings().explain(secret));

    // What reading answers is shown: the value and the default value.
    for (const QString& answer : { pending, written }) {
        QCOMPARE(answer.count(QLatin1String("\"new\"")), 1);
        QCOMPARE(answer.count(QLatin1String("\"old\"")), 1);
        QVERIFY2(answer.contains(QLatin1String("effective default defaultValue s \"old\"")),
                 qPrintable(answer));
        QVERIFY2(answer.contains(QLatin1String("hidden default value default/secret:1:19: ")),
                 qPrintable(answer));
    }
}

void SettingsContract::setTakesEveryNumberType_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::newRow("short") << QVariant::fromValue(short(40));
    QTest::newRow("ushort") << QVariant::fromValue(ushort(40));
    QTest::newRow("int") << QVariant(40);
    QTest::newRow("uint") << QVariant(40U);
    QTest::newRow("long") << QVariant::fromValue(40L);
    QTest::newRow("qlonglong") << QVariant(40LL);
    QTest::newRow("qulonglong") << QVariant(40ULL);
    QTest::newRow("double") << QVariant(40.0);
    QTest::newRow("float") << QVariant(40.0F);
    QTest::newRow("with its kind") << kinded("int", 40);
    QTest::newRow("a double with its kind") << kinded("double", 40.0);
}

void SettingsContract::setTakesEveryNumberType()
{
    QFETCH(const QVariant, value);

    QCOMPARE(answerOf(settings().set(volume, value)), storedAs(QStringLiteral("x 40")));

    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 40}"));
}

void SettingsContract::setStores_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("stored");
    const auto row = [](const char* name, const QString& path, const QVariant& value,
                        const QString& stored) {
        QTest::newRow(name) << path << value << stored;
    };
    row("int for a double", gain, 1, QStringLiteral("d 1"));
    row("double", gain, -0.25, QStringLiteral("d -0.25"));
    row("bool", loudness, false, QStringLiteral("b false"));
    row("text", mode, QStringLiteral("high"), QStringLiteral("s \"high\""));
    row("number for a text", secondPreset, 5.5, QStringLiteral("s \"5.5\""));
    row("bool for a text", secondPreset, true, QStringLiteral("s \"true\""));
    row("list of texts", sources, QStringList { QStringLiteral("dab") },
        QStringLiteral("[s \"dab\"]"));
    row("list of many kinds", sources, list({ QStringLiteral("dab"), 5, true }),
        QStringLiteral("[s \"dab\", x 5, b true]"));
    row("list of lists", sources, list({ list({ 1, list({ 2 }) }) }),
        QStringLiteral("[[x 1, [x 2]]]"));
    row("empty list", sources, QVariantList(), QStringLiteral("[]"));
    // A setting without a kind takes that of the value.
    row("free: bool", token, true, QStringLiteral("b true"));
    row("free: int", token, -5, QStringLiteral("x -5"));
    row("free: smallest", token, std::numeric_limits<qlonglong>::min(),
        QStringLiteral("x -9223372036854775808"));
    row("free: largest with a sign", token, std::numeric_limits<qlonglong>::max(),
        QStringLiteral("x 9223372036854775807"));
    row("free: the same without a sign", token, qulonglong(std::numeric_limits<qlonglong>::max()),
        QStringLiteral("x 9223372036854775807"));
    row("free: largest", token, std::numeric_limits<qulonglong>::max(),
        QStringLiteral("t 18446744073709551615"));
    row("free: largest with its kind", token, kinded("int", std::numeric_limits<qulonglong>::max()),
        QStringLiteral("t 18446744073709551615"));
    row("free: double", token, 0.1, QStringLiteral("d 0.10000000000000001"));
    row("free: whole double", token, 5.0, QStringLiteral("d 5"));
    row("free: int as a double", token, kinded("double", 5), QStringLiteral("d 5"));
    row("free: empty text", token, QStringLiteral(""), QStringLiteral("s \"\""));
    row("free: null text", token, QString(), QStringLiteral("s \"\""));
    row("free: text", token, QString::fromUtf8("gr\303\274n \360\237\232\227"),
        QString::fromUtf8("s \"gr\303\274n \360\237\232\227\""));
    row("free: text that looks like JSON", token, QStringLiteral("{\"int\":1}"),
        QStringLiteral("s \"{\"int\":1}\""));
    row("free: list of maps", token, list({ QVariantMap { { QStringLiteral("a"), 1 } } }),
        QStringLiteral("[{a: x 1}]"));
    row("free: eight lists", token, nested(8), QStringLiteral("[[[[[[[[]]]]]]]]"));
}

void SettingsContract::setStores()
{
    QFETCH(const QString, path);
    QFETCH(const QVariant, value);
    QFETCH(const QString, stored);
    const QString read = QStringLiteral("{value: %1}").arg(stored);

    QCOMPARE(answerOf(settings().set(path, value)), storedAs(stored));

    QCOMPARE(answerOf(settings().get(path, valueRole)), read);
    // And the same from disk.
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));
    QVERIFY(settings().dropCache().wait());
    QCOMPARE(answerOf(settings().get(path, valueRole)), read);
}

void SettingsContract::valueIsAdjusted_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("answer");
    const auto row = [](const char* name, const QString& path, const QVariant& value,
                        const char* answer) {
        QTest::newRow(name) << path << value << QString::fromUtf8(answer);
    };
    row("above", volume, 400, "x 100} for x 400: it is above 'max' (100)");
    row("below", volume, -5, "x 0} for x -5: it is below 'min' (0)");
    row("between two steps", volume, 41, "x 40} for x 41: it does not lie on a 'step' (5)");
    row("fraction for an int", volume, 39.6,
        "x 40} for d 39.600000000000001: it is not of the kind 'int'");
    row("above all integers", volume, std::numeric_limits<qulonglong>::max(),
        "x 100} for d 1.8446744073709552e+19: it is not of the kind 'int', it is above 'max' "
        "(100)");
    row("double", gain, 0.3,
        "d 0.25} for d 0.29999999999999999: it does not lie on a 'step' "
        "(0.25)");
}

void SettingsContract::valueIsAdjusted()
{
    QFETCH(const QString, path);
    QFETCH(const QVariant, value);
    QFETCH(const QString, answer);
    const QString expected = QStringLiteral("{timestamp: *, value: ") + answer;

    QCOMPARE(answerOf(settings().set(path, value)), expected);
    QCOMPARE(answerOf(settings().setRoles(path, { { QStringLiteral("value"), value } })), expected);
    QCOMPARE(answerOf(settings().apply(path, QStringLiteral("set"), value)), expected);
}

void SettingsContract::valueIsRejected_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("error");
    const auto row = [](const char* name, const QString& path, const QVariant& value,
                        const QString& error) {
        QTest::newRow(name) << path << value << error;
    };
    const QString rejected = QStringLiteral("Rejected: The value for '%1' was rejected: %2");
    const QString notInt = rejected.arg(volume, QStringLiteral("it is not of the kind 'int'"));
    row("text for an int", volume, QStringLiteral("40"), notInt);
    row("text for a bool", loudness, QStringLiteral("true"),
        rejected.arg(loudness, QStringLiteral("it is not of the kind 'bool'")));
    row("bool for an int", volume, true, notInt);
    row("text that is not listed", mode, QStringLiteral("top"),
        rejected.arg(mode,
                     QStringLiteral(R"(it is not one of the 'values' (["low","mid","high"]))")));
    row("list too long", sources, list({ 1, 2, 3, 4 }),
        rejected.arg(sources, QStringLiteral("it is longer than 'maxLength' (3)")));
    row("another kind by name", volume, kinded("string", QStringLiteral("40")), notInt);

    const QString unsuitable = QStringLiteral("Rejected: The value for '/settings/token' is not "
                                              "one that a setting can have");
    const double infinity = std::numeric_limits<double>::infinity();
    row("none", token, QVariant(), unsuitable);
    row("bytes", token, QByteArrayLiteral("abc"), unsuitable);
    row("bytes in a list", token, list({ QByteArrayLiteral("abc") }), unsuitable);
    row("null in a list", token, list({ 1, QVariant() }), unsuitable);
    row("null in a map in a list", token,
        list({ QVariantMap { { QStringLiteral("a"), QVariant() } } }), unsuitable);
    row("date", token, QDate(2026, 1, 1), unsuitable);
    row("not a number", token, std::nan(""), unsuitable);
    row("infinity", token, infinity, unsuitable);
    row("negative infinity in a list", token, list({ -infinity }), unsuitable);
    row("infinity with its kind", token, kinded("double", infinity), unsuitable);
    row("zero character", token, QString(QChar(0)), unsuitable);
    row("half a character", token, QString(QChar(0xD800)), unsuitable);
    row("empty map", token, QVariantMap(), unsuitable);

    const QString refused = QStringLiteral("Refused: A value for '/settings/token' ");
    row("map of an unknown kind", token, kinded("colour", 1),
        refused + QStringLiteral("does not have one known kind"));
    row("map of two kinds", token,
        QVariantMap { { QStringLiteral("int"), 1 }, { QStringLiteral("bool"), true } },
        refused + QStringLiteral("does not have one known kind"));
    row("map of another kind than its content", token, kinded("int", QStringLiteral("x")),
        refused + QStringLiteral("is not of the kind it names"));
    const QString limits = QStringLiteral("Limits: A value for '/settings/token' ");
    row("nine lists", token, nested(9), limits + QStringLiteral("nests more than 8 deep"));
    row("large", token, QString(60000, QLatin1Char('x')),
        limits + QStringLiteral("takes more than 49152 bytes"));
}

void SettingsContract::valueIsRejected()
{
    QFETCH(const QString, path);
    QFETCH(const QVariant, value);
    QFETCH(const QString, error);
    EventLog log(settings().watchTree(QStringLiteral("/settings")));
    const QString before = answerOf(settings().get(path, {}));

    QCOMPARE(answerOf(settings().set(path, value)), error);
    QCOMPARE(answerOf(settings().setRoles(path,
                                          { { QStringLiteral("value"), value },
                                            { QStringLiteral("id"), QStringLiteral("X") } })),
             error);
    QCOMPARE(answerOf(settings().apply(path, QStringLiteral("set"), value)), error);
    QCOMPARE(answerOf(settings().setMany({ { path, value } })), error);

    QCOMPARE(answerOf(settings().get(path, {})), before);
    QCOMPARE(log.texts, QStringList());
    const Reply<Status> status = settings().status();
    QVERIFY(status.wait());
    QCOMPARE(status.value().pendingWrites, 0);
}

void SettingsContract::changeIsRefused_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("error");
    const auto row = [](const char* name, const char* path, const char* error) {
        QTest::newRow(name) << QString::fromUtf8(path) << QString::fromUtf8(error);
    };
    row("read-only", "/settings/serial",
        "NotModifiable: Setting '/settings/serial' is not modifiable");
    row("directory", "/settings/audio", "Refused: Path '/settings/audio' is a directory");
    row("the mount", "/settings", "Refused: Path '/settings' is a directory");
    row("another mount", "/other/x", "InvalidPath: Invalid path '/other/x'");
    row("empty", "", "Refused: The path is empty");
    row("nothing at the top", "/settings/new",
        "InvalidPath: There is no setting '/settings/new', and none can be created at the top");
    row("nothing in a directory", "/settings/audio/new",
        "InvalidPath: There is no setting '/settings/audio/new', and none can be created: its "
        "template is not modifiable");
    row("no such directory", "/settings/none/new",
        "InvalidPath: There is no setting '/settings/none/new', and no directory for it");
    row("below a setting", "/settings/token/new",
        "Refused: Path '/settings/token/new' is below a setting");
    row("name that is not listed", "/settings/presets/a.b",
        "Refused: No listing would show the setting '/settings/presets/a.b'");
    row("hidden", "/settings/.meta",
        "Refused: Path '/settings/.meta' has a component that begins with '.'");
    row("action", "/settings/actions/flush",
        "Refused: Path '/settings/actions/flush' is an action");
}

void SettingsContract::changeIsRefused()
{
    QFETCH(const QString, path);
    QFETCH(const QString, error);
    EventLog log(settings().watchTree(QStringLiteral("/settings")));

    QCOMPARE(answerOf(settings().set(path, 1)), error);
    QCOMPARE(answerOf(settings().setRoles(path, {})), error);
    QCOMPARE(answerOf(settings().apply(path, QStringLiteral("toggle"), {})), error);
    QCOMPARE(answerOf(settings().setMany({ { volume, 40 }, { path, 1 } })), error);
    ChangeOptions options;
    options.isDryRun = true;
    QCOMPARE(answerOf(settings().set(path, 1, options)), error);

    QCOMPARE(log.texts, QStringList());
}

// ---------------------------------------------------------------------------------------------
// Roles and operations.
// ---------------------------------------------------------------------------------------------

void SettingsContract::setRoles_data()
{
    QTest::addColumn<QVariantMap>("roles");
    QTest::addColumn<QString>("answer");
    const auto row = [](const char* name, const QVariantMap& roles, const QString& answer) {
        QTest::newRow(name) << roles << answer;
    };
    const auto role = [](const char* name, const QVariant& value) {
        return QVariantMap { { QLatin1String(name), value } };
    };
    row("value", role("value", 40), QStringLiteral("{timestamp: *, value: x 40}"));
    row("id", role("id", QStringLiteral("A1")),
        QStringLiteral("{id: s \"A1\", timestamp: *, value: x 35}"));
    row("disabled", role("disabled", true),
        QStringLiteral("{disabled: b true, timestamp: *, value: x 35}"));
    row("timestamp", role("timestamp", 1700000000000LL),
        QStringLiteral("{timestamp: *, value: x 35}"));
    row("none", {}, QStringLiteral("{timestamp: *, value: x 35}"));
    row("timestamp as text", role("timestamp", QStringLiteral("now")),
        QStringLiteral("Rejected: The role 'timestamp' of '/settings/audio/volume' cannot have "
                       "this value"));
    row("id as number", role("id", 1),
        QStringLiteral("Rejected: The role 'id' of '/settings/audio/volume' cannot have this "
                       "value"));
    row("disabled as number", role("disabled", 1),
        QStringLiteral("Rejected: The role 'disabled' of '/settings/audio/volume' cannot have "
                       "this value"));
    row("long id", role("id", QString(60000, QLatin1Char('i'))),
        QStringLiteral("Limits: A value for '/settings/audio/volume' takes more than 49152 "
                       "bytes"));
    for (const char* name :
         { "activate", "path", "title", "type", "edit", "modifiable", "encrypted", "encryptedValue",
           "defaultValue", "permission", "setRoles", "valueOperation", "colour", "Value" }) {
        row(name, { { QLatin1String(name), 1 }, { QStringLiteral("value"), 45 } },
            QStringLiteral("Refused: The role '%1' of '/settings/audio/volume' cannot be set; "
                           "those that can are value, timestamp, id, disabled")
                .arg(QLatin1String(name)));
    }
}

void SettingsContract::setRoles()
{
    QFETCH(const QVariantMap, roles);
    QFETCH(const QString, answer);

    QCOMPARE(answerOf(settings().setRoles(volume, roles)), answer);
}

void SettingsContract::apply_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("before");
    QTest::addColumn<QString>("verb");
    QTest::addColumn<QVariant>("operand");
    QTest::addColumn<QString>("answer");
    const auto row = [](const char* name, const QString& path, const QVariant& before,
                        const char* verb, const QVariant& operand, const char* answer) {
        QTest::newRow(name) << path << before << QString(QLatin1String(verb)) << operand
                            << QString::fromUtf8(answer);
    };
    row("set", volume, 35, "set", 40, "{timestamp: *, value: x 40}");
    row("add", volume, 35, "add", QVariant::fromValue(ushort(5)), "{timestamp: *, value: x 40}");
    row("add beyond the range", volume, 35, "add", 500,
        "{timestamp: *, value: x 100} for x 535: it is above 'max' (100)");
    row("multiply", volume, 35, "multiply", 2, "{timestamp: *, value: x 70}");
    row("toggle", loudness, true, "toggle", {}, "{timestamp: *, value: b false}");
    row("toggle with an operand that it ignores", loudness, true, "toggle", 5,
        "{timestamp: *, value: b false}");
    row("append", sources, QStringList({ QStringLiteral("fm"), QStringLiteral("usb") }), "append",
        QStringLiteral("dab"), "{timestamp: *, value: [s \"fm\", s \"usb\", s \"dab\"]}");
    row("remove", sources, QStringList({ QStringLiteral("fm"), QStringLiteral("usb") }), "remove",
        QStringLiteral("fm"), "{timestamp: *, value: [s \"usb\"]}");
    row("next", mode, QStringLiteral("mid"), "next", {}, "{timestamp: *, value: s \"high\"}");
    row("previous", mode, QStringLiteral("mid"), "previous", {},
        "{timestamp: *, value: s \"low\"}");
    row("on another kind", volume, 35, "toggle", {},
        "Rejected: The value for '/settings/audio/volume' was rejected: 'toggle' is not applicable "
        "to a value of kind 'int'");
    row("without its operand", volume, 35, "add", {},
        "Rejected: The value for '/settings/audio/volume' is not one that a setting can have");
    const char* const verbs = "Refused: '%1' is not an operation for '/settings/audio/volume'; "
                              "operations are set, add, multiply, toggle, append, remove, next, "
                              "previous";
    row("unknown", volume, 35, "double", 1,
        qPrintable(QString::fromLatin1(verbs).arg(QStringLiteral("double"))));
    row("of two lines", volume, 35, "a\nb", 1,
        qPrintable(QString::fromLatin1(verbs).arg(QStringLiteral("a%0Ab"))));
    row("none", volume, 35, "", 1, qPrintable(QString::fromLatin1(verbs).arg(QString())));
}

void SettingsContract::apply()
{
    QFETCH(const QString, path);
    QFETCH(const QVariant, before);
    QFETCH(const QString, verb);
    QFETCH(const QVariant, operand);
    QFETCH(const QString, answer);
    QVERIFY(settings().set(path, before).wait());

    QCOMPARE(answerOf(settings().apply(path, verb, operand)), answer);
}

void SettingsContract::newSettingIsMadeFromItsTemplate()
{
    QCOMPARE(answerOf(settings().set(secondPreset, QStringLiteral("fm:99"))),
             storedAs(QStringLiteral("s \"fm:99\"")));

    QCOMPARE(answerOf(settings().get(secondPreset,
                                     { QStringLiteral("title"), QStringLiteral("value") })),
             QStringLiteral("{title: s \"Preset\", value: s \"fm:99\"}"));
}

// ---------------------------------------------------------------------------------------------
// Conditions and trials.
// ---------------------------------------------------------------------------------------------

void SettingsContract::dryRunChangesNothing_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("answer");
    QTest::newRow("good value") << volume << QVariant(40) << storedAs(QStringLiteral("x 40"));
    QTest::newRow("adjusted value") << volume << QVariant(400)
                                    << storedAs(QStringLiteral("x 100"))
            + QStringLiteral(" for x 400: it is above 'max' (100)");
    QTest::newRow("rejected value")
        << volume << QVariant(true)
        << QStringLiteral("Rejected: The value for '/settings/audio/volume' was rejected: it is "
                          "not of the kind 'int'");
    QTest::newRow("new setting") << secondPreset << QVariant(QStringLiteral("fm:99"))
                                 << storedAs(QStringLiteral("s \"fm:99\""));
    QTest::newRow("encrypted") << secret << QVariant(QStringLiteral("x"))
                               << QStringLiteral(
                                      "{encrypted: b true, timestamp: *, value: s \"x\"}");
}

void SettingsContract::dryRunChangesNothing()
{
    QFETCH(const QString, path);
    QFETCH(const QVariant, value);
    QFETCH(const QString, answer);
    EventLog log(settings().watchTree(QStringLiteral("/settings")));
    const QString before = answerOf(settings().get(path, {}));
    ChangeOptions options;
    options.isDryRun = true;

    QCOMPARE(answerOf(settings().set(path, value, options)), answer);
    QCOMPARE(answerOf(settings().setRoles(path, { { QStringLiteral("value"), value } }, options)),
             answer);
    QCOMPARE(answerOf(settings().apply(path, QStringLiteral("set"), value, options)), answer);

    QCOMPARE(answerOf(settings().get(path, {})), before);
    QCOMPARE(log.texts, QStringList());
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));
    QVERIFY(!tree().writtenEntries().join(QString()).contains(path.section(QLatin1Char('/'), -1)));
}

void SettingsContract::changeOnCondition_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("before");
    QTest::addColumn<QVariant>("ifValue");
    QTest::addColumn<bool>("isMade");
    QTest::newRow("value") << volume << QVariant(35) << QVariant(35) << true;
    QTest::newRow("value as a double") << volume << QVariant(35) << QVariant(35.0) << true;
    QTest::newRow("value with its kind") << volume << QVariant(35) << kinded("int", 35) << true;
    QTest::newRow("other value") << volume << QVariant(35) << QVariant(40) << false;
    QTest::newRow("text of the number")
        << volume << QVariant(35) << QVariant(QStringLiteral("35")) << false;
    QTest::newRow("not a value") << volume << QVariant(35) << QVariant(QDate(2026, 1, 1)) << false;
    QTest::newRow("list") << sources << QVariant(QStringList(QStringLiteral("fm")))
                          << QVariant(list({ QStringLiteral("fm") })) << true;
    QTest::newRow("other list") << sources << QVariant(QStringList(QStringLiteral("fm")))
                                << QVariant(QVariantList()) << false;
    QTest::newRow("text") << token << QVariant(QStringLiteral("5")) << QVariant(QStringLiteral("5"))
                          << true;
    QTest::newRow("number of the text")
        << token << QVariant(QStringLiteral("5")) << QVariant(5) << false;
    QTest::newRow("new setting") << secondPreset << QVariant()
                                 << QVariant(QStringLiteral("fm:87.5")) << false;
}

void SettingsContract::changeOnCondition()
{
    QFETCH(const QString, path);
    QFETCH(const QVariant, before);
    QFETCH(const QVariant, ifValue);
    QFETCH(const bool, isMade);
    const QString conflict =
        QStringLiteral("Conflict: Setting '%1' does not have the expected value").arg(path);
    if (before.isValid())
        QVERIFY(settings().set(path, before).wait());
    ChangeOptions options;
    options.ifValue = ifValue;

    const Reply<Change> byValue = settings().set(path, before, options);
    QVERIFY(byValue.wait() == isMade);
    if (!isMade)
        QCOMPARE(shown(byValue.error()), conflict);

    options = ChangeOptions();
    const Reply<QVariantMap> now = settings().get(path, { QStringLiteral("timestamp") });
    options.ifTimestamp =
        now.wait() ? now.value().value(QStringLiteral("timestamp")).toLongLong() : 0;
    const QVariantMap later { { QStringLiteral("timestamp"), *options.ifTimestamp + 1 } };
    QVERIFY(settings().setRoles(path, later, options).wait());
    QCOMPARE(
        answerOf(settings().setRoles(path, later, options)),
        QStringLiteral("Conflict: Setting '%1' does not have the expected timestamp").arg(path));
}

// ---------------------------------------------------------------------------------------------
// Many changes.
// ---------------------------------------------------------------------------------------------

void SettingsContract::manyChangesAreMadeTogether()
{
    EventLog log(settings().watchTree(QStringLiteral("/settings")));
    QStringList order;
    QObject context;
    connect(log.watch(), &Watch::changed, &context,
            [&order](const Event& event) { order.append(shown(event)); });
    const Reply<QVector<Change>> changes =
        settings().setMany({ { volume, 400 },
                             { secondPreset, QStringLiteral("fm:99") },
                             { gain, kinded("double", 1) } });
    changes.then(&context, [&order](const Reply<QVector<Change>>&) {
        order.append(QStringLiteral("answer"));
    });
    const Reply<QVariantMap> after = settings().get(volume, valueRole);
    after.then(&context, [&order](const Reply<QVariantMap>&) {
        order.append(QStringLiteral("next answer"));
    });

    QVERIFY(after.wait());

    QCOMPARE(answerOf(changes),
             QStringLiteral("{timestamp: *, value: x 100} for x 400: it is above 'max' (100); "
                            "{timestamp: *, value: s \"fm:99\"}; {timestamp: *, value: d 1}"));
    QCOMPARE(order,
             QStringList({ QStringLiteral("value /settings/audio/volume x 100"),
                           QStringLiteral("data /settings/audio/volume"),
                           QStringLiteral("rows /settings/audio 4 1"),
                           QStringLiteral("value /settings/presets/two s \"fm:99\""),
                           QStringLiteral("data /settings/presets/two"),
                           QStringLiteral("rows /settings/presets +1 1"),
                           QStringLiteral("value /settings/audio/gain d 1"),
                           QStringLiteral("data /settings/audio/gain"),
                           QStringLiteral("rows /settings/audio 0 2"), QStringLiteral("answer"),
                           QStringLiteral("next answer") }));
}

void SettingsContract::manyChangesAreAllOrNone_data()
{
    QTest::addColumn<QVector<Assignment>>("assignments");
    QTest::addColumn<QString>("error");
    const QVector<Assignment> good { { volume, 40 }, { secondPreset, QStringLiteral("fm:99") } };
    const QVector<Assignment> bad { { mode, QStringLiteral("top") }, { serial, 1 } };
    const QString rejected =
        QStringLiteral("Rejected: The value for '/settings/audio/mode' was rejected: it is not one "
                       "of the 'values' ([\"low\",\"mid\",\"high\"])");
    QTest::newRow("first rejected") << bad + good << rejected;
    QTest::newRow("last rejected") << good + bad.mid(0, 1) << rejected;
    QTest::newRow("read-only") << good + bad.mid(1, 1)
                               << QStringLiteral("NotModifiable: Setting '/settings/serial' is not "
                                                 "modifiable");
    QTest::newRow("path twice") << good + good.mid(0, 1)
                                << QStringLiteral("Refused: Path '/settings/audio/volume' is "
                                                  "changed twice by a request");
    QTest::newRow("too many") << QVector<Assignment>(Settings::maximumChanges + 1, { volume, 40 })
                              << QStringLiteral("Limits: A request makes more than 10000 changes");
    QVector<Assignment> large;
    for (int i = 0; i < 26; ++i) {
        large.append(
            { QStringLiteral("/settings/presets/n%1").arg(i), QString(42000, QLatin1Char('x')) });
    }
    QTest::newRow("too large") << large
                               << QStringLiteral("Limits: The changes of a request take more than "
                                                 "1048576 bytes");
}

void SettingsContract::manyChangesAreAllOrNone()
{
    QFETCH(const QVector<Assignment>, assignments);
    QFETCH(const QString, error);
    EventLog log(settings().watchTree(QStringLiteral("/settings")));

    QCOMPARE(answerOf(settings().setMany(assignments)), error);

    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 35}"));
    QCOMPARE(answerOf(settings().get(secondPreset, valueRole)),
             QStringLiteral("InvalidPath: Invalid path '/settings/presets/two'"));
    QCOMPARE(log.texts, QStringList());
    QCOMPARE(answerOf(settings().setMany({})), QString());
}

void SettingsContract::manyChangesOnATrial()
{
    EventLog log(settings().watchTree(QStringLiteral("/settings")));
    ChangeOptions options;
    options.isDryRun = true;

    QCOMPARE(answerOf(settings().setMany({ { volume, 400 }, { secondPreset, 5 } }, options)),
             QStringLiteral("{timestamp: *, value: x 100} for x 400: it is above 'max' (100); "
                            "{timestamp: *, value: s \"5\"}"));

    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 35}"));
    QCOMPARE(log.texts, QStringList());
}

void SettingsContract::manyChangesTakeRoles()
{
    const QString timestamp = QStringLiteral("timestamp");
    const Reply<QVector<Change>> changes =
        settings().setMany({ { volume, 40, { { timestamp, qlonglong(7) } } },
                             { gain, {}, { { timestamp, qlonglong(8) } } } });
    QCOMPARE(answerOf(changes),
             storedAs(QStringLiteral("x 40")) + QStringLiteral("; ")
                 + storedAs(QStringLiteral("d 0.5")));
    for (const auto& [path, time] : { std::pair(volume, 7), std::pair(gain, 8) }) {
        const Reply<QVariantMap> roles = settings().get(path, { timestamp });
        QVERIFY(roles.wait());
        QCOMPARE(roles.value(), QVariantMap({ { timestamp, qlonglong(time) } }));
    }

    QCOMPARE(answerOf(settings().setMany(
                 { { volume, 50 }, { gain, 0.25, { { QStringLiteral("title"), true } } } })),
             QStringLiteral("Refused: The role 'title' of '/settings/audio/gain' cannot be set; "
                            "those that can are value, timestamp, id, disabled"));
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 40}"));
}

void SettingsContract::manyChangesHaveNoConditions()
{
    ChangeOptions options;
    options.ifValue = 5;
    options.ifTimestamp = 5;

    QCOMPARE(answerOf(settings().setMany({ { volume, 40 } }, options)),
             storedAs(QStringLiteral("x 40")));
}

void SettingsContract::newSettingsOfOneRequestCount()
{
    // One less than a directory may have.
    for (int i = 1; i < 1000; ++i)
        tree().writeWritten(QStringLiteral("/presets/n%1").arg(i), R"({"value":{"string":"fm"}})");
    const QString full = QStringLiteral("Limits: No setting '%1' can be created: its directory has "
                                        "1000 settings made at run time");
    const QString three = QStringLiteral("/settings/presets/three");
    const QString text = QStringLiteral("fm");
    ChangeOptions options;
    options.isDryRun = true;

    // Those of a request that was rejected or only tried do not count.
    QCOMPARE(answerOf(settings().setMany({ { secondPreset, text }, { three, text } })),
             full.arg(three));
    QCOMPARE(answerOf(settings().set(three, text, options)), storedAs(QStringLiteral("s \"fm\"")));
    QCOMPARE(answerOf(settings().setMany({ { secondPreset, text } })),
             storedAs(QStringLiteral("s \"fm\"")));
    QCOMPARE(answerOf(settings().set(three, text)), full.arg(three));
}

// ---------------------------------------------------------------------------------------------
// Reset.
// ---------------------------------------------------------------------------------------------

namespace {

ResetOptions recursive(const QStringList& keep = {})
{
    ResetOptions options;
    options.isRecursive = true;
    options.keep = keep;
    return options;
}

/// Files of the writable tree, without those of its owner.
QStringList writtenFiles(const TemporaryTree& tree)
{
    QStringList files;
    const QStringList entries = tree.writtenEntries();
    for (const QString& entry : entries) {
        if (!entry.endsWith(QLatin1Char('/')) && entry != QLatin1String("/.tulo-cm.lock"))
            files.append(entry);
    }
    return files;
}

} // namespace

void SettingsContract::settingIsReset()
{
    QVERIFY(settings().setMany({ { volume, 40 }, { gain, 0.25 } }).wait());
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));

    QCOMPARE(answerOf(settings().reset({ volume })), volume);

    QCOMPARE(writtenFiles(tree()), QStringList(QStringLiteral("/audio/gain")));
    QCOMPARE(answerOf(settings().getMany({ volume, gain },
                                         valueRole + QStringList(QStringLiteral("timestamp")))),
             QStringLiteral("/settings/audio/volume {value: x 35}; "
                            "/settings/audio/gain {timestamp: *, value: d 0.25}"));
    // So does what a later image says.
    tree().writeDefault(QStringLiteral("/audio/volume"), R"({"value":{"int":25}})");
    QVERIFY(settings().dropCache().wait());
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 25}"));
}

void SettingsContract::unchangedSettingIsNotReset()
{
    EventLog log(settings().watchTree(QStringLiteral("/settings")));

    QCOMPARE(answerOf(settings().reset({ volume, gain, volume })), QString());
    QCOMPARE(answerOf(settings().reset({})), QString());
    QCOMPARE(answerOf(settings().reset({ QStringLiteral("/settings") }, recursive())), QString());

    QCOMPARE(log.texts, QStringList());
}

void SettingsContract::resetIsRefused_data()
{
    QTest::addColumn<QStringList>("paths");
    QTest::addColumn<bool>("isRecursive");
    QTest::addColumn<QStringList>("keep");
    QTest::addColumn<QString>("error");
    const auto row = [](const char* name, const QString& path, bool isRecursive, const char* error,
                        const QStringList& keep = {}) {
        // After one that could be reset.
        QTest::newRow(name) << QStringList({ volume, path }) << isRecursive << keep
                            << QString::fromUtf8(error);
    };
    row("directory", audio, false,
        "Refused: Path '/settings/audio' is a directory; only a recursive reset goes to "
        "directories");
    row("read-only setting", serial, false,
        "NotModifiable: Setting '/settings/serial' is not modifiable; only a recursive reset "
        "discards what is stored for it");
    row("no such setting", QStringLiteral("/settings/nothing"), false,
        "InvalidPath: Invalid path '/settings/nothing'");
    row("no such directory", QStringLiteral("/settings/nothing"), true,
        "InvalidPath: Invalid path '/settings/nothing'");
    row("setting that its directory could have", secondPreset, false,
        "InvalidPath: Invalid path '/settings/presets/two'");
    row("another mount", QStringLiteral("/other/audio"), true,
        "InvalidPath: Invalid path '/other/audio'");
    row("action", QStringLiteral("/settings/actions/flush"), true,
        "Refused: Path '/settings/actions/flush' is an action");
    row("hidden", QStringLiteral("/settings/.tulo-cm.lock"), false,
        "Refused: Path '/settings/.tulo-cm.lock' has a component that begins with '.'");
    row("keeping without recursion", gain, false, "Refused: Only a recursive reset keeps paths",
        { gain });
    const auto keepingRow = [&row](const char* name, const QString& glob) {
        const QByteArray error = "Refused: '" + glob.toUtf8()
            + "' is not a path to keep: it begins with '/settings', and '*' and '?' stand for any "
              "characters of a name";
        row(name, gain, true, error.constData(), { glob });
    };
    keepingRow("keeping what is not a path", QStringLiteral("audio"));
    keepingRow("keeping what is not below the top", QStringLiteral("/audio/*"));
    keepingRow("keeping what ends like a path", QStringLiteral("/*gain"));
    keepingRow("keeping what is not a pattern", QStringLiteral("/settings/[a"));
    keepingRow("keeping an empty name", QStringLiteral("/settings//audio"));
    QStringList many;
    for (int i = 0; i <= Settings::maximumChanges; ++i)
        many.append(volume);
    QTest::newRow("too many")
        << many << false << QStringList()
        << QStringLiteral("Limits: A request resets more than 10000 paths or keeps more than 1000");
}

void SettingsContract::resetIsRefused()
{
    QFETCH(const QStringList, paths);
    QFETCH(const bool, isRecursive);
    QFETCH(const QStringList, keep);
    QFETCH(const QString, error);
    QVERIFY(settings().set(volume, 40).wait());
    EventLog log(settings().watchTree(QStringLiteral("/settings")));
    ResetOptions options;
    options.isRecursive = isRecursive;
    options.keep = keep;

    QCOMPARE(answerOf(settings().reset(paths, options)), error);

    QCOMPARE(log.texts, QStringList());
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 40}"));
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));
    QCOMPARE(writtenFiles(tree()), QStringList(QStringLiteral("/audio/volume")));
}

void SettingsContract::pendingChangesAreResetAndOthersWritten()
{
    QVERIFY(settings().setMany({ { volume, 40 }, { gain, 0.25 } }).wait());

    QCOMPARE(answerOf(settings().reset({ volume })), volume);
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));

    QCOMPARE(writtenFiles(tree()), QStringList(QStringLiteral("/audio/gain")));
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 35}"));
    QCOMPARE(answerOf(settings().get(gain, valueRole)), QStringLiteral("{value: d 0.25}"));
}

void SettingsContract::damagedFileIsReset()
{
    expectRecord(QStringLiteral("Settings: Unable to parse '%1/audio/volume': line 1, column 2: "
                                "Missing a name for object member.")
                     .arg(tree().writePath()));
    tree().writeWritten(QStringLiteral("/audio/volume"), "{");

    QCOMPARE(answerOf(settings().reset({ volume })), volume);

    QCOMPARE(writtenFiles(tree()), QStringList());
}

void SettingsContract::recursiveReset_data()
{
    QTest::addColumn<QStringList>("paths");
    QTest::addColumn<QStringList>("keep");
    QTest::addColumn<QStringList>("reset");
    const auto row = [](const char* name, const QStringList& paths, const QStringList& keep,
                        const QStringList& reset) {
        QTest::newRow(name) << paths << keep << reset;
    };
    const QStringList all { gain, volume, secondPreset, token };
    const QStringList top { QStringLiteral("/settings") };
    row("everything", top, {}, all);
    row("directory", { audio }, {}, { gain, volume });
    row("directory in the other form", { audio.mid(1) }, {}, { gain, volume });
    row("directory and a setting in it", { audio, volume }, {}, { gain, volume });
    row("setting", { volume }, {}, { volume });
    row("keep a setting", top, { volume }, { gain, secondPreset, token });
    row("keep a directory", top, { audio }, { secondPreset, token });
    row("keep a directory with a slash", top, { audio + QLatin1Char('/') },
        { secondPreset, token });
    row("keep two", top, { token, QStringLiteral("/settings/presets/*") }, { gain, volume });
    row("keep by pattern", top, { QStringLiteral("/settings/*/??in") },
        { volume, secondPreset, token });
    row("a star is one name", top, { QStringLiteral("/settings/*olume") }, all);
    row("keep everything", top, { QStringLiteral("/settings/*") }, {});
    row("keep nothing that there is", top, { QStringLiteral("/settings/radio") }, all);
}

void SettingsContract::recursiveReset()
{
    QFETCH(const QStringList, paths);
    QFETCH(const QStringList, keep);
    QFETCH(const QStringList, reset);
    QVERIFY(settings()
                .setMany({ { volume, 40 },
                           { gain, 0.25 },
                           { token, QStringLiteral("t") },
                           { secondPreset, QStringLiteral("fm:99") } })
                .wait());

    QCOMPARE(answerOf(settings().reset(paths, recursive(keep))), shown(reset));

    QStringList left { QStringLiteral("/audio/gain"), QStringLiteral("/audio/volume"),
                       QStringLiteral("/presets/two"), QStringLiteral("/token") };
    for (const QString& path : reset)
        left.removeAll(path.mid(int(std::strlen("/settings"))));
    QCOMPARE(writtenFiles(tree()), left);
}

void SettingsContract::readOnlySettingIsResetRecursively()
{
    tree().writeWritten(QStringLiteral("/serial"), R"({"value":{"string":"old"}})");
    QCOMPARE(answerOf(settings().get(serial, valueRole)), QStringLiteral("{value: s \"old\"}"));

    QCOMPARE(answerOf(settings().reset({ serial }, recursive())), serial);

    QCOMPARE(answerOf(settings().get(serial, valueRole)), QStringLiteral("{value: s \"X1\"}"));
}

void SettingsContract::resetRemovesSettingsMadeAtRunTime()
{
    const QString presets = QStringLiteral("/settings/presets");
    const QString third = QStringLiteral("/settings/presets/three");
    const QString value = QStringLiteral("fm:99");
    QVERIFY(settings().setMany({ { secondPreset, value }, { third, value } }).wait());
    QVERIFY(settings().set(volume, 40).wait());
    QCOMPARE(answerOf(settings().rows(presets, 0, 9, valueRole)),
             QStringLiteral("3 rows, version 2, {defaultValue: s \"fm:87.5\", path: s "
                            "\"/settings/presets\", title: s \"Preset\", type: x 1}: "
                            "one {}; three {value: s \"fm:99\"}; two {value: s \"fm:99\"}"));
    EventLog log(settings().watchTree(presets));

    QCOMPARE(answerOf(settings().reset({ secondPreset, third })),
             QStringLiteral("/settings/presets/three, /settings/presets/two"));

    QCOMPARE(log.texts,
             QStringList({ QStringLiteral("data /settings/presets/three"),
                           QStringLiteral("data /settings/presets/two"),
                           QStringLiteral("rows /settings/presets -2 3"),
                           QStringLiteral("rows /settings/presets -1 4") }));
    QCOMPARE(answerOf(settings().get(third, valueRole)),
             QStringLiteral("InvalidPath: Invalid path '/settings/presets/three'"));
    QCOMPARE(answerOf(settings().rows(presets, 0, 9, valueRole)),
             QStringLiteral("1 rows, version 4, {defaultValue: s \"fm:87.5\", path: s "
                            "\"/settings/presets\", title: s \"Preset\", type: x 1}: one {}"));
    // Versions of all directories go on, and what was made once can be made again.
    EventLog after(settings().watchTree(QStringLiteral("/settings")));
    QVERIFY(settings().set(volume, 45).wait());
    QVERIFY(settings().set(third, value).wait());
    QCOMPARE(after.texts,
             QStringList({ QStringLiteral("value /settings/audio/volume x 45"),
                           QStringLiteral("data /settings/audio/volume"),
                           QStringLiteral("rows /settings/audio 4 2"),
                           QStringLiteral("value /settings/presets/three s \"fm:99\""),
                           QStringLiteral("data /settings/presets/three"),
                           QStringLiteral("rows /settings/presets +1 5") }));
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));
    QCOMPARE(writtenFiles(tree()),
             QStringList({ QStringLiteral("/audio/volume"), QStringLiteral("/presets/three") }));
}

void SettingsContract::resetRemovesWhatOlderImagesLeft()
{
    const QByteArray content = R"({"id":"A1","timestamp":5,"value":{"int":5}})";
    tree().writeWritten(QStringLiteral("/radio/deep/one"), content);
    tree().writeWritten(QStringLiteral("/radio/two"), content);
    tree().writeWritten(QStringLiteral("/audio/one"), content);
    tree().writeWritten(QStringLiteral("/empty/.one"), content);
    EventLog log(settings().watch(QStringLiteral("/settings")));
    QVERIFY(settings().rows(QStringLiteral("/settings"), 0, 9, {}).wait());
    const QString one = QStringLiteral("/settings/radio/deep/one");
    const QString beside = QStringLiteral("/settings/audio/one");
    QCOMPARE(answerOf(settings().get(one, valueRole)), QStringLiteral("{value: x 5}"));

    QCOMPARE(answerOf(settings().reset({ one, beside })), shown(QStringList({ beside, one })));
    QCOMPARE(tree().writtenEntries().filter(QStringLiteral("/radio")),
             QStringList({ QStringLiteral("/radio/"), QStringLiteral("/radio/two") }));
    QCOMPARE(answerOf(settings().reset({ QStringLiteral("/settings") }, recursive())),
             QStringLiteral("/settings/radio/two"));

    QCOMPARE(tree().writtenEntries(),
             QStringList({ QStringLiteral("/.tulo-cm.lock"), QStringLiteral("/audio/"),
                           QStringLiteral("/empty/"), QStringLiteral("/empty/.one") }));
    QCOMPARE(log.texts, QStringList(QStringLiteral("rows /settings -3 1")));
    QCOMPARE(answerOf(settings().get(QStringLiteral("/settings/radio"), valueRole)),
             QStringLiteral("InvalidPath: Invalid path '/settings/radio'"));
}

void SettingsContract::resetLeavesOtherFilesAlone()
{
    const QString writable = tree().writePath();
    tree().writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":40}})");
    tree().writeWritten(QStringLiteral("/audio/.volume"), "stale");
    tree().writeWritten(QStringLiteral("/audio/.hidden/volume"), R"({"value":{"int":40}})");
    tree().writeWritten(QStringLiteral("/notes"), "written by hand");
    tree().writeWritten(QStringLiteral("/list"), "[1]");
    tree().writeWritten(QStringLiteral("/empty"), "{}");
    tree().writeWritten(QStringLiteral("/package"), R"({"name":"x","value":{"int":40}})");
    tree().writeDefault(QStringLiteral("/linked"), R"({"value":{"int":1}})");
    tree().writeDefault(QStringLiteral("/elsewhere/one"), R"({"value":{"int":1}})");
    QDir().mkpath(tree().path() + QStringLiteral("/beside"));
    QFile target(tree().path() + QStringLiteral("/beside/one"));
    QVERIFY(target.open(QIODevice::WriteOnly));
    QVERIFY(target.write(R"({"value":{"int":2}})") > 0);
    target.close();
    QVERIFY(QFile::link(target.fileName(), writable + QStringLiteral("/linked")));
    QVERIFY(QFile::link(tree().path() + QStringLiteral("/beside"),
                        writable + QStringLiteral("/elsewhere")));
    QStringList left = tree().writtenEntries();

    QCOMPARE(answerOf(settings().reset({ QStringLiteral("/settings") }, recursive())), volume);

    left.removeAll(QStringLiteral("/audio/volume"));
    QCOMPARE(tree().writtenEntries(), left);
    QVERIFY(target.exists());
    const QString inTheWay =
        QStringLiteral("Refused: A symbolic link in the writable tree is in the way of '%1'");
    for (const char* path : { "/settings/linked", "/settings/elsewhere/one" }) {
        QCOMPARE(answerOf(settings().reset({ QLatin1String(path) })),
                 inTheWay.arg(QLatin1String(path)));
    }
    QCOMPARE(answerOf(settings().reset({ QStringLiteral("/settings/package") })),
             QStringLiteral("Refused: The file of '/settings/package' in the writable tree holds "
                            "more than a setting does; remove it by hand if nothing needs it"));
    QCOMPARE(tree().writtenEntries(), left);
}

void SettingsContract::resetAnnouncesWhatReadsDifferently()
{
    tree().writeWritten(QStringLiteral("/audio/gain"), R"({"value":{"double":0.5}})");
    tree().writeWritten(QStringLiteral("/audio/mode"),
                        R"({"timestamp":5,"value":{"string":"mid"}})");
    tree().writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"double":35.0}})");
    QVERIFY(settings().set(secret, QStringLiteral("hidden")).wait());
    EventLog log(settings().watchTree(QStringLiteral("/settings")));
    QObject context;
    QStringList atAnswer;
    const Reply<QStringList> reply = settings().reset({ secret, volume, mode, gain, loudness });
    reply.then(&context, [&](const Reply<QStringList>&) { atAnswer = log.texts; });

    QCOMPARE(answerOf(reply),
             QStringList({ gain, mode, volume, secret }).join(QLatin1String(", ")));

    QCOMPARE(atAnswer,
             QStringList({ QStringLiteral("data /settings/audio/mode"),
                           QStringLiteral("rows /settings/audio 2 1"),
                           QStringLiteral("value /settings/audio/volume x 35"),
                           QStringLiteral("data /settings/audio/volume"),
                           QStringLiteral("rows /settings/audio 4 2"),
                           QStringLiteral("data /settings/secret"),
                           QStringLiteral("rows /settings 2 2") }));
    QCOMPARE(log.texts, atAnswer);
}

void SettingsContract::changesAroundAResetKeepTheirOrder()
{
    const Reply<Change> before = settings().set(volume, 40);
    const Reply<QStringList> reset = settings().reset({ volume });
    const Reply<QVariantMap> between = settings().get(volume, valueRole);
    const Reply<Change> after = settings().set(volume, 45);
    const Reply<QStringList> second = settings().reset({ secondPreset });

    QCOMPARE(answerOf(second), QStringLiteral("InvalidPath: Invalid path '/settings/presets/two'"));
    QVERIFY(before.isFinished() && reset.isFinished() && after.isFinished());
    QCOMPARE(answerOf(reset), volume);
    QCOMPARE(answerOf(between), QStringLiteral("{value: x 35}"));
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 45}"));
}

// ---------------------------------------------------------------------------------------------
// Events.
// ---------------------------------------------------------------------------------------------

void SettingsContract::eventsComeInOrderBeforeTheAnswer()
{
    EventLog ofSetting(settings().watch(volume));
    EventLog ofDirectory(settings().watch(audio));
    QObject context;
    QStringList atAnswer;
    const Reply<Change> reply = settings().set(volume, 40);
    reply.then(&context,
               [&](const Reply<Change>&) { atAnswer = ofSetting.texts + ofDirectory.texts; });

    QVERIFY(reply.wait());

    QCOMPARE(atAnswer,
             QStringList({ QStringLiteral("value /settings/audio/volume x 40"),
                           QStringLiteral("data /settings/audio/volume"),
                           QStringLiteral("rows /settings/audio 4 1") }));
}

void SettingsContract::sameValueIsAnnouncedAsData()
{
    QVERIFY(settings().set(volume, 40).wait());
    EventLog log(settings().watch(volume));

    QVERIFY(settings().set(volume, 40).wait());

    QCOMPARE(log.texts, QStringList(QStringLiteral("data /settings/audio/volume")));
}

void SettingsContract::newSettingIsAnnouncedAsARow()
{
    EventLog log(settings().watch(QStringLiteral("/settings/presets")));

    QVERIFY(settings().set(secondPreset, QStringLiteral("fm:99")).wait());

    QCOMPARE(log.texts, QStringList(QStringLiteral("rows /settings/presets +1 1")));
}

void SettingsContract::rejectedChangeIsNotAnnounced()
{
    EventLog log(settings().watchTree(QStringLiteral("/settings")));

    QVERIFY(!settings().set(volume, true).wait());
    QVERIFY(!settings().set(serial, QStringLiteral("X2")).wait());
    QVERIFY(!settings().setRoles(volume, { { QStringLiteral("title"), 1 } }).wait());
    QVERIFY(!settings().apply(volume, QStringLiteral("toggle"), {}).wait());

    QCOMPARE(log.texts, QStringList());
}

void SettingsContract::treeWatchSeesEverythingBelow()
{
    EventLog all(settings().watchTree(QStringLiteral("/settings")));
    EventLog below(settings().watchTree(QStringLiteral("/settings/presets")));
    EventLog beside(settings().watchTree(QStringLiteral("/settings/aud")));

    QVERIFY(settings().set(volume, 40).wait());
    QVERIFY(settings().set(secondPreset, QStringLiteral("fm:99")).wait());

    QCOMPARE(all.texts.size(), 6);
    QCOMPARE(below.texts,
             QStringList({ QStringLiteral("value /settings/presets/two s \"fm:99\""),
                           QStringLiteral("data /settings/presets/two"),
                           QStringLiteral("rows /settings/presets +1 1") }));
    QCOMPARE(beside.texts, QStringList());
}

void SettingsContract::settingThatIsMadeLaterCanBeWatched()
{
    EventLog log(settings().watch(secondPreset));

    QVERIFY(settings().set(secondPreset, QStringLiteral("fm:99")).wait());

    QCOMPARE(log.texts,
             QStringList({ QStringLiteral("value /settings/presets/two s \"fm:99\""),
                           QStringLiteral("data /settings/presets/two") }));
}

void SettingsContract::relativePathCanBeWatched()
{
    EventLog log(settings().watch(volume.mid(1)));
    EventLog tree(settings().watchTree(audio.mid(1)));

    QVERIFY(settings().set(volume, 40).wait());

    QCOMPARE(log.watch()->path(), volume.mid(1));
    QCOMPARE(log.texts,
             QStringList({ QStringLiteral("value /settings/audio/volume x 40"),
                           QStringLiteral("data /settings/audio/volume") }));
    QCOMPARE(tree.texts.size(), 3);
}

void SettingsContract::encryptedValueIsNotAnnounced()
{
    EventLog log(settings().watchTree(QStringLiteral("/settings/secret")));
    const QString value = QStringLiteral("value");

    QCOMPARE(answerOf(settings().set(secret, QStringLiteral("hidden"))),
             QStringLiteral("{encrypted: b true, timestamp: *, value: s \"hidden\"}"));
    QVERIFY(settings().apply(secret, QStringLiteral("set"), QStringLiteral("too")).wait());
    QVERIFY(settings().setRoles(secret, { { value, QStringLiteral("three") } }).wait());
    QVERIFY(settings().setMany({ { secret, QStringLiteral("four") } }).wait());

    QCOMPARE(answerOf(settings().get(secret, valueRole)), QStringLiteral("{value: s \"four\"}"));
    QCOMPARE(log.texts,
             QStringList({ QStringLiteral("data /settings/secret"),
                           QStringLiteral("data /settings/secret"),
                           QStringLiteral("data /settings/secret"),
                           QStringLiteral("data /settings/secret") }));
}

void SettingsContract::watchOfARefusedPathFails_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("error");
    QTest::newRow("empty") << QString() << QStringLiteral("Refused: The path is empty");
    QTest::newRow("slash at the end")
        << audio + QLatin1Char('/')
        << QStringLiteral("Refused: Path '/settings/audio/' has an empty component");
    QTest::newRow("hidden") << QStringLiteral("/settings/.meta")
                            << QStringLiteral("Refused: Path '/settings/.meta' has a component "
                                              "that begins with '.'");
    QTest::newRow("long") << QStringLiteral("/settings/") + QString(201, QLatin1Char('x'))
                          << QStringLiteral(
                                 "Limits: Path '/settings/%1...' has a name of more than 200 bytes "
                                 "[/settings/%2]")
                                 .arg(QString(190, QLatin1Char('x')),
                                      QString(201, QLatin1Char('x')));
}

void SettingsContract::watchOfARefusedPathFails()
{
    QFETCH(const QString, path);
    QFETCH(const QString, error);

    EventLog node(settings().watch(path));
    EventLog tree(settings().watchTree(path));

    QCOMPARE(node.texts, QStringList());
    QVERIFY(settings().status().wait());
    QCOMPARE(node.texts, QStringList(error));
    QCOMPARE(tree.texts, QStringList(error));
}

void SettingsContract::destroyedWatchSeesNothing()
{
    EventLog log(settings().watch(volume));
    EventLog other(settings().watch(volume));
    log.destroyWatch();

    QVERIFY(settings().set(volume, 40).wait());

    QCOMPARE(log.texts, QStringList());
    QCOMPARE(other.texts.size(), 2);
}

// ---------------------------------------------------------------------------------------------
// Replies.
// ---------------------------------------------------------------------------------------------

void SettingsContract::answerComesLater()
{
    const Reply<QVariantMap> good = settings().get(volume, valueRole);
    const Reply<QVariantMap> bad = settings().get(QString(), valueRole);
    const Reply<Change> change = settings().set(volume, true);

    QVERIFY(!good.isFinished());
    QVERIFY(!bad.isFinished());
    QVERIFY(!change.isFinished());
    QVERIFY(good.wait());
    QVERIFY(!bad.wait());
    QVERIFY(!change.wait());
}

void SettingsContract::answersComeInTheOrderOfTheRequests()
{
    constexpr int count = 10000;
    QObject context;
    QVector<int> order;
    QVector<Reply<QVariantMap>> replies;
    for (int i = 0; i < count; ++i) {
        replies.append(settings().get(i % 2 == 0 ? volume : gain, valueRole));
        replies.last().then(&context, [&order, i](const Reply<QVariantMap>&) { order.append(i); });
    }

    QVERIFY(replies.last().wait());

    QCOMPARE(order.size(), count);
    QVERIFY(std::is_sorted(order.cbegin(), order.cend()));
    QCOMPARE(shown(replies.at(0).value()), QStringLiteral("{value: x 35}"));
    QCOMPARE(shown(replies.at(count - 1).value()), QStringLiteral("{value: d 0.5}"));
}

void SettingsContract::cancelledReplyStaysCancelled()
{
    const Reply<QVariantMap> reply = settings().get(volume, valueRole);

    reply.cancel();

    QCOMPARE(shown(reply.error()), QStringLiteral("Cancelled: cancelled"));
    QVERIFY(settings().get(volume, valueRole).wait());
    QCOMPARE(shown(reply.error()), QStringLiteral("Cancelled: cancelled"));
    QCOMPARE(reply.value(), QVariantMap());
}

void SettingsContract::repliesOfDestroyedSettingsAreCancelled()
{
    const Reply<QVariantMap> read = settings().get(volume, valueRole);
    const Reply<Change> change = settings().set(volume, 40);
    const Reply<int> flush = settings().flush();
    const auto watch = settings().watch(volume);
    QObject context;
    bool isTold = false;
    read.then(&context, [&isTold](const Reply<QVariantMap>&) { isTold = true; });

    m_settings.reset();

    QVERIFY(isTold);
    QCOMPARE(read.error().code, ErrorCode::Cancelled);
    QCOMPARE(change.error().code, ErrorCode::Cancelled);
    QCOMPARE(flush.error().code, ErrorCode::Cancelled);
}

void SettingsContract::settingsMayBeDestroyedInsideOfAnEvent()
{
    EventLog log(settings().watchTree(QStringLiteral("/settings")));
    connect(log.watch(), &Watch::changed, this, [this] { m_settings.reset(); });
    const Reply<Change> change = settings().set(volume, 40);

    QVERIFY(!change.wait());

    QCOMPARE(change.error().code, ErrorCode::Cancelled);
    QCOMPARE(log.texts, QStringList(QStringLiteral("value /settings/audio/volume x 40")));
}

void SettingsContract::settingsMayBeDestroyedInsideOfAnAnswer()
{
    QObject context;
    const Reply<Change> change = settings().set(volume, 40);
    change.then(&context, [this](const Reply<Change>&) { m_settings.reset(); });
    const Reply<QVariantMap> next = settings().get(volume, valueRole);

    QVERIFY(!next.wait());

    QVERIFY(!change.error());
    QCOMPARE(next.error().code, ErrorCode::Cancelled);
    QVERIFY(!m_settings);
}

// ---------------------------------------------------------------------------------------------
// Disk and state.
// ---------------------------------------------------------------------------------------------

void SettingsContract::changeIsOnDiskAfterAFlush()
{
    QVERIFY(settings()
                .setRoles(volume,
                          { { QStringLiteral("value"), 40 },
                            { QStringLiteral("id"), QStringLiteral("A1") },
                            { QStringLiteral("timestamp"), 1700000000000LL } })
                .wait());

    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));

    QCOMPARE(tree().readWritten(QStringLiteral("/audio/volume")),
             QByteArray(R"({"id":"A1","timestamp":1700000000000,"value":{"int":40}})"));
    QCOMPARE(answerOf(settings().flush()), QStringLiteral("0"));
    QCOMPARE(answerOf(settings().unsavedPaths(10)), QString());
}

void SettingsContract::replacedTreeIsNotSaved()
{
    QVERIFY(settings().set(volume, 40).wait());
    const QString path = tree().writePath();
    QVERIFY(QDir().rename(path, path + QLatin1String(".old")));
    QVERIFY(QDir().mkdir(path));

    const Reply<int> flush = settings().flush();

    QVERIFY(!flush.wait());
    QCOMPARE(flush.error().code, ErrorCode::NotSaved);
    QVERIFY2(flush.error().message.contains(path), qPrintable(flush.error().message));
    const Reply<Status> status = settings().status();
    QVERIFY(status.wait());
    QCOMPARE(status.value().lastWriteError, flush.error().message);

    // What was accepted is stored in the new one.
    QTRY_COMPARE_WITH_TIMEOUT(answerOf(settings().flush()), QStringLiteral("0"), replyWaitMs);
    QVERIFY(tree().readWritten(QStringLiteral("/audio/volume")).contains(R"("value":{"int":40})"));
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 40}"));
}

void SettingsContract::treeDigestTellsDefaultTreesApart()
{
    QString error;
    const QString before = QString::fromLatin1(treeDigest(tree().defaultPath(), &error));
    QCOMPARE(answerOf(settings().treeDigest()), before);

    tree().writeDefault(QStringLiteral("/audio/new"), QByteArrayLiteral("{}"));
    QCOMPARE(answerOf(settings().treeDigest()), before);
    QVERIFY(settings().dropCache().wait());
    const QString after = QString::fromLatin1(treeDigest(tree().defaultPath(), &error));

    QVERIFY(after != before);
    QCOMPARE(answerOf(settings().treeDigest()), after);
}

void SettingsContract::dropCacheReadsTheFilesAgain()
{
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 35}"));
    tree().writeWritten(QStringLiteral("/audio/volume"), R"({"value":{"int":45}})");
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 35}"));

    const Reply<bool> drop = settings().dropCache();

    QVERIFY(drop.wait());
    QVERIFY(drop.value());
    QCOMPARE(answerOf(settings().get(volume, valueRole)), QStringLiteral("{value: x 45}"));
}

void SettingsContract::statusTells()
{
    const Reply<Status> before = settings().status();
    QVERIFY(before.wait());
    QCOMPARE(before.value().version, QStringLiteral(TULO_VERSION));
    QCOMPARE(before.value().product, QString());
    QCOMPARE(before.value().defaultPath, tree().defaultPath());
    QCOMPARE(before.value().writePath, tree().writePath());
    QVERIFY(before.value().isWritable);
    QCOMPARE(before.value().pendingWrites, 0);
    QCOMPARE(before.value().unsavedCount, 0);
    QCOMPARE(before.value().lastWriteError, QString());
    QVERIFY(before.value().processId > 0);

    QVERIFY(settings().set(volume, 40).wait());
    const Reply<Status> after = settings().status();
    QVERIFY(after.wait());
    QCOMPARE(after.value().pendingWrites, 1);
}

void SettingsContract::statisticsCount()
{
    const auto numbers = [this] {
        const Reply<QVariantMap> reply = settings().statistics();
        return reply.wait() ? shown(reply.value()) : shown(reply.error());
    };
    QCOMPARE(numbers(),
             QStringLiteral("{announcements: x 0, changes: x 0, failed: x 0, flushes: x 0, "
                            "keptValues: x 0, requests: x 1, resets: x 0, writeErrors: x 0, "
                            "writes: x 0}"));

    QVERIFY(settings().get(volume, valueRole).wait());
    QVERIFY(settings().set(volume, 40).wait());
    QVERIFY(settings().get(gain, valueRole).wait());
    QVERIFY(!settings().set(serial, QStringLiteral("X2")).wait());
    QVERIFY(settings().flush().wait());
    QVERIFY(settings().setMany({ { gain, 0.25 }, { loudness, false } }).wait());
    QVERIFY(settings().reset({ gain, loudness }).wait());
    QVERIFY(settings().get(volume, valueRole).wait());

    // Each change and each reset has a value, data and a row.
    QCOMPARE(numbers(),
             QStringLiteral("{announcements: x 15, changes: x 3, failed: x 1, flushes: x 1, "
                            "keptValues: x 1, requests: x 10, resets: x 2, writeErrors: x 0, "
                            "writes: x 3}"));
}

} // namespace tulo
