#include "tests/settings/settingscontract.h"

#include "tests/settings/contracttexts.h"

#include <QTest>

#include <limits>

namespace tulo {

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

} // namespace tulo
