#include "api/core/model/cmerror.h"
#include "api/core/tulo.h"
#include "api/core/tulohash.h"
#include "api/core/tulojson.h"
#include "api/core/tuloroles.h"

#include <QSet>
#include <QTest>

#include <sstream>

namespace {

QVariantHash hash(const char* json)
{
    TuloError error;
    const QVariant parsed = TuloJson::parse(QByteArray(json), error, nullptr);
    if (!error.isEmpty())
        qFatal("%s: %s", json, qPrintable(error.message()));
    return parsed.toHash();
}

template<typename T>
QString streamed(const T& value)
{
    std::ostringstream stream;
    stream << value;
    return QString::fromStdString(stream.str());
}

} // namespace

/// Hash records: generic access, equality, text form, and the named entries of each record.
class tst_framework_records : public QObject
{
    Q_OBJECT

private slots:
    void absentEntryReadsInvalid();
    void entriesAreSetReadAndRemoved();
    void variantIsTheWholeHash();
    void copiesAreIndependent();
    void equalityIsStrict_data();
    void equalityIsStrict();
    void textsWithinCompareByContent();
    void printsSortedKeys();
    void printsEveryKindOfEntry_data();
    void printsEveryKindOfEntry();
    void errorCarriesAMessage();

    void roleKeysAreTheAccessorNames_data();
    void roleKeysAreTheAccessorNames();
    void keysListsThemAll();
    void absentRolesReadTheirDefaults();
    void settersWriteWhatGettersRead();
    void settersUseTheirKeys();
    void flagsReadAsStored_data();
    void flagsReadAsStored();
    void unknownTypeCodesPassThrough();
    void textRolesReadPlainStrings();
    void pathRoleReadsPlainStrings();
    void permissionDefaultIsReadWrite();
    void rowsRecordHoldsItsFour();

    void errorRecordHasThreeEntries();
    void errorRecordDefaultTitleIsError();
    void errorRecordWithoutNameIsNone();
};

void tst_framework_records::absentEntryReadsInvalid()
{
    const TuloHash record(hash(R"({"a": 1})"));

    QVERIFY(!record.__hashAttribute(QStringLiteral("b")).isValid());
    QVERIFY(!record.__contains(QStringLiteral("b")));
    // Asking leaves nothing behind.
    QCOMPARE(record.__variant().toHash().size(), 1);
}

void tst_framework_records::entriesAreSetReadAndRemoved()
{
    TuloHash record;
    QVERIFY(record.isEmpty());
    QVERIFY(record.__isEmpty());

    record.__setHashAttribute(QStringLiteral("a"), 1);
    record.__setHashAttribute(QStringLiteral("a"), 2);
    record.__setHashAttribute(QStringLiteral("none"), QVariant());

    QCOMPARE(record.__hashAttribute(QStringLiteral("a")), QVariant(2));
    QVERIFY(record.__contains(QStringLiteral("none")));
    QVERIFY(!record.isEmpty());

    record.__remove(QStringLiteral("a"));
    record.__remove(QStringLiteral("none"));
    record.__remove(QStringLiteral("never there"));
    QVERIFY(record.__isEmpty());
}

void tst_framework_records::variantIsTheWholeHash()
{
    const QVariantHash entries = hash(R"({"a": {"b": [1, "x"]}})");
    const QVariant variant = TuloHash(entries).__variant();

    QCOMPARE(variant.userType(), int(QMetaType::QVariantHash));
    QCOMPARE(variant.toHash(), entries);
}

void tst_framework_records::copiesAreIndependent()
{
    const TuloHash original(hash(R"({"a": 1})"));
    TuloHash copy = original;
    copy.__setHashAttribute(QStringLiteral("a"), 2);

    QCOMPARE(original.__hashAttribute(QStringLiteral("a")).toInt(), 1);
}

void tst_framework_records::equalityIsStrict_data()
{
    QTest::addColumn<QVariantHash>("left");
    QTest::addColumn<QVariantHash>("right");
    QTest::addColumn<bool>("equal");
    const auto row = [](const char* left, const char* right, bool equal) {
        QTest::addRow("%s %s", left, right) << hash(left) << hash(right) << equal;
    };
    row("{}", "{}", true);
    row(R"({"a": 1})", "{}", false);
    row(R"({"a": 1})", R"({"b": 1})", false);
    row(R"({"a": null})", "{}", false);
    row(R"({"a": null})", R"({"b": null})", false);
    row(R"({"int": 5})", R"({"int": 5})", true);
    row(R"({"int": 5})", R"({"int": 6})", false);
    row(R"({"int": 5})", R"({"int": "5"})", false);
    row(R"({"int": 1})", R"({"int": true})", false);
    row(R"({"a": "true"})", R"({"a": true})", false);
    row(R"({"a": ""})", R"({"a": null})", false);
    row(R"({"a": 0})", R"({"a": null})", false);
    row(R"({"int": 5})", R"({"double": 5})", false);
    row(R"({"double": 5})", R"({"double": 5.0})", true);
    row(R"({"a": 0.1})", R"({"a": 0.1})", true);
    row(R"({"a": 9007199254740993})", R"({"a": 9007199254740992})", false);
    row(R"({"a": 9007199254740993})", R"({"a": 9007199254740992.0})", false);
    row(R"({"a": 9007199254740992})", R"({"a": 9007199254740992.0})", true);
    row(R"({"a": -9223372036854775808})", R"({"a": -9223372036854775808.0})", true);
    row(R"({"a": 9223372036854775807})", R"({"a": 9223372036854775808.0})", false);
    row(R"({"a": 18446744073709551615})", R"({"a": -1})", false);
    row(R"({"a": 18446744073709551615})", R"({"a": 18446744073709551615})", true);
    row(R"({"a": 18446744073709551615})", R"({"a": 18446744073709551616.0})", false);
    row(R"({"a": 9223372036854775808})", R"({"a": 9223372036854775808.0})", true);
    row(R"({"list": [1, "2"]})", R"({"list": [1, "2"]})", true);
    row(R"({"list": [1, "2"]})", R"({"list": [1, 2]})", false);
    row(R"({"list": [1, 2]})", R"({"list": [2, 1]})", false);
    row(R"({"list": [1]})", R"({"list": [1, 1]})", false);
    row(R"({"list": [1]})", R"({"list": [1.0]})", true);
    row(R"({"a": {"b": [{"c": 1}]}})", R"({"a": {"b": [{"c": 1}]}})", true);
    row(R"({"a": {"b": [{"c": 1}]}})", R"({"a": {"b": [{"c": "1"}]}})", false);
    row(R"({"a": {}})", R"({"a": []})", false);
}

void tst_framework_records::equalityIsStrict()
{
    QFETCH(QVariantHash, left);
    QFETCH(QVariantHash, right);
    QFETCH(bool, equal);

    QCOMPARE(TuloHash(left) == TuloHash(right), equal);
    QCOMPARE(TuloHash(right) == TuloHash(left), equal);
    QCOMPARE(TuloHash(left) != TuloHash(right), !equal);
}

void tst_framework_records::textsWithinCompareByContent()
{
    TuloRoles left;
    left.setTitle(TrString(QStringLiteral("Volume")));
    left.setPath(CMPath(QStringLiteral("/settings/a")));
    TuloRoles right;
    right.setTitle(TrString(QStringLiteral("Volume")));
    right.setPath(CMPath(QStringLiteral("/settings/a")));
    QVERIFY(left == right);

    right.setTitle(TrString(QStringLiteral("Balance")));
    QVERIFY(left != right);
}

void tst_framework_records::printsSortedKeys()
{
    QCOMPARE(streamed(TuloHash(hash(R"({"b": 2, "a": 1, "c": {"z": true, "y": "x"}})"))),
             QStringLiteral("{a: 1, b: 2, c: {y: x, z: true}}"));
    QCOMPARE(streamed(TuloHash()), QStringLiteral("{}"));
}

void tst_framework_records::printsEveryKindOfEntry_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("text");
    const auto row = [](const char* name, const QVariant& value, const QString& text) {
        QTest::newRow(name) << value << text;
    };
    row("invalid", QVariant(), QStringLiteral("null"));
    row("bool", true, QStringLiteral("true"));
    row("int", -5, QStringLiteral("-5"));
    row("64 bit", qulonglong(18446744073709551615U), QStringLiteral("18446744073709551615"));
    row("double", 0.1, QStringLiteral("0.1"));
    row("string", QStringLiteral(u"\u00e4 b"), QStringLiteral(u"\u00e4 b"));
    row("list", QVariantList { 1, QStringLiteral("x"), QVariant() },
        QStringLiteral("[1, x, null]"));
    row("empty list", QVariantList(), QStringLiteral("[]"));
    row("strings", QStringList { QStringLiteral("a"), QStringLiteral("b") },
        QStringLiteral("[a, b]"));
    row("map", QVariantMap { { QStringLiteral("k"), 1 } }, QStringLiteral("{k: 1}"));
    row("path", CMPath(QStringLiteral("/settings/a")).toVariant(), QStringLiteral("/settings/a"));
    row("text", TrString(QStringLiteral("Volume")), QStringLiteral("Volume"));
    row("without text form", QVariant::fromValue(TuloRoles()), QStringLiteral("TuloRoles"));
}

void tst_framework_records::printsEveryKindOfEntry()
{
    QFETCH(QVariant, value);
    QFETCH(QString, text);

    QCOMPARE(streamed(value), text);
    QCOMPARE(streamed(QList<QVariant> { value }), QStringLiteral("[%1]").arg(text));
}

void tst_framework_records::errorCarriesAMessage()
{
    TuloError error { QVariantHash() };
    QVERIFY(error.isEmpty());
    QCOMPARE(error.message(), QString());

    error.setMessage(QStringLiteral("line 1"));

    QVERIFY(!error.isEmpty());
    QCOMPARE(error.message(), QStringLiteral("line 1"));
}

void tst_framework_records::roleKeysAreTheAccessorNames_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("text");
    const auto row = [](const QString& key, const char* text) {
        QTest::newRow(text) << key << QString::fromLatin1(text);
    };
    row(TuloRoles::Value(), "value");
    row(TuloRoles::DefaultValue(), "defaultValue");
    row(TuloRoles::Title(), "title");
    row(TuloRoles::Description(), "description");
    row(TuloRoles::LongDescription(), "longDescription");
    row(TuloRoles::ValueUnit(), "valueUnit");
    row(TuloRoles::Type(), "type");
    row(TuloRoles::Id(), "id");
    row(TuloRoles::Path(), "path");
    row(TuloRoles::Edit(), "edit");
    row(TuloRoles::Modifiable(), "modifiable");
    row(TuloRoles::Disabled(), "disabled");
    row(TuloRoles::Encrypted(), "encrypted");
    row(TuloRoles::EncryptedValue(), "encryptedValue");
    row(TuloRoles::Timestamp(), "timestamp");
    row(TuloRoles::Permission(), "permission");
    row(TuloRoles::Activate(), "activate");
    row(TuloRoles::SetRoles(), "setRoles");
    row(TuloRoles::ValueOperation(), "valueOperation");
}

void tst_framework_records::roleKeysAreTheAccessorNames()
{
    QFETCH(QString, key);
    QFETCH(QString, text);

    QCOMPARE(key, text);
    QVERIFY(TuloRoles::keys().contains(text));
}

void tst_framework_records::keysListsThemAll()
{
    QCOMPARE(TuloRoles::keys().size(), 19);
    QCOMPARE(QSet<QString>(TuloRoles::keys().cbegin(), TuloRoles::keys().cend()).size(), 19);
}

void tst_framework_records::absentRolesReadTheirDefaults()
{
    const TuloRoles roles;

    QVERIFY(roles.value().isEmpty());
    QVERIFY(roles.defaultValue().isEmpty());
    QVERIFY(roles.title().isEmpty());
    QVERIFY(roles.description().isEmpty());
    QVERIFY(roles.longDescription().isEmpty());
    QVERIFY(roles.valueUnit().isEmpty());
    QCOMPARE(int(roles.type()), int(TuloRolesType::Unset));
    QCOMPARE(roles.id(), QString());
    QVERIFY(roles.path().isEmpty());
    QVERIFY(roles.edit().isEmpty());
    QVERIFY(roles.modifiable());
    QVERIFY(!roles.disabled());
    QVERIFY(!roles.encrypted());
    QCOMPARE(roles.encryptedValue(), QString());
    QCOMPARE(roles.timestamp(), 0LL);
    // Reading adds no entry.
    QVERIFY(roles.isEmpty());
}

void tst_framework_records::settersWriteWhatGettersRead()
{
    TuloRoles roles;
    roles.setValue(TuloValue(hash(R"({"int": 5})")));
    roles.setDefaultValue(TuloValue(hash(R"({"int": 4})")));
    roles.setTitle(TrString(QStringLiteral("t")));
    roles.setDescription(TrString(QStringLiteral("d")));
    roles.setLongDescription(TrString(QStringLiteral("l")));
    roles.setValueUnit(TrString(QStringLiteral("u")));
    roles.setType(TuloRolesType::Setting);
    roles.setId(QStringLiteral("i"));
    roles.setPath(CMPath(QStringLiteral("/settings/a")));
    roles.setDisabled(true);
    roles.setEncrypted(true);
    roles.setEncryptedValue(QStringLiteral("e"));
    roles.setTimestamp(1700000000000);

    QVERIFY(roles.value() == TuloValue(hash(R"({"int": 5})")));
    QVERIFY(roles.defaultValue() == TuloValue(hash(R"({"int": 4})")));
    QCOMPARE(roles.title().toString(), QStringLiteral("t"));
    QCOMPARE(roles.description().toString(), QStringLiteral("d"));
    QCOMPARE(roles.longDescription().toString(), QStringLiteral("l"));
    QCOMPARE(roles.valueUnit().toString(), QStringLiteral("u"));
    QCOMPARE(int(roles.type()), 101);
    QCOMPARE(roles.id(), QStringLiteral("i"));
    QCOMPARE(roles.path().text(), QStringLiteral("/settings/a"));
    QVERIFY(roles.disabled());
    QVERIFY(roles.encrypted());
    QCOMPARE(roles.encryptedValue(), QStringLiteral("e"));
    QCOMPARE(roles.timestamp(), 1700000000000LL);
}

void tst_framework_records::settersUseTheirKeys()
{
    TuloRoles roles;
    roles.setValue(TuloValue(hash(R"({"int": 5})")));
    roles.setDefaultValue(TuloValue(hash(R"({"int": 4})")));
    roles.setTitle(TrString(QStringLiteral("t")));
    roles.setDescription(TrString(QStringLiteral("d")));
    roles.setLongDescription(TrString(QStringLiteral("l")));
    roles.setValueUnit(TrString(QStringLiteral("u")));
    roles.setType(TuloRolesType::Directory);
    roles.setId(QStringLiteral("i"));
    roles.setPath(CMPath(QStringLiteral("/settings/a")));
    roles.setDisabled(false);
    roles.setEncrypted(false);
    roles.setEncryptedValue(QStringLiteral("e"));
    roles.setTimestamp(7);

    QCOMPARE(TuloJson::serialize(roles.__variant()),
             QByteArray(R"({"defaultValue":{"int":4},"description":"d","disabled":false,)"
                        R"("encrypted":false,"encryptedValue":"e","id":"i","longDescription":"l",)"
                        R"("path":"/settings/a","timestamp":7,"title":"t","type":1,)"
                        R"("value":{"int":5},"valueUnit":"u"})"));
}

void tst_framework_records::flagsReadAsStored_data()
{
    QTest::addColumn<QVariantHash>("entries");
    QTest::addColumn<bool>("modifiable");
    QTest::addColumn<bool>("disabled");
    QTest::addColumn<bool>("encrypted");
    const auto row = [](const char* json, bool modifiable, bool disabled, bool encrypted) {
        QTest::newRow(json) << hash(json) << modifiable << disabled << encrypted;
    };
    row("{}", true, false, false);
    row(R"({"modifiable": false})", false, false, false);
    row(R"({"modifiable": true, "disabled": true, "encrypted": true})", true, true, true);
    row(R"({"modifiable": null, "disabled": null, "encrypted": null})", true, false, false);
    row(R"({"modifiable": 0, "disabled": 1, "encrypted": 1})", false, true, true);
}

void tst_framework_records::flagsReadAsStored()
{
    QFETCH(QVariantHash, entries);
    const TuloRoles roles { TuloHash(entries) };

    QTEST(roles.modifiable(), "modifiable");
    QTEST(roles.disabled(), "disabled");
    QTEST(roles.encrypted(), "encrypted");
}

void tst_framework_records::unknownTypeCodesPassThrough()
{
    QCOMPARE(int(TuloRolesType::Unset), 0);
    QCOMPARE(int(TuloRolesType::Directory), 1);
    QCOMPARE(int(TuloRolesType::Setting), 101);
    QCOMPARE(int(TuloRoles(hash(R"({"type": 4711})")).type()), 4711);
}

void tst_framework_records::textRolesReadPlainStrings()
{
    const TuloRoles roles(hash(R"({"title": "Volume", "valueUnit": 5})"));

    QCOMPARE(roles.title().toString(), QStringLiteral("Volume"));
    QCOMPARE(roles.valueUnit().toString(), QStringLiteral("5"));
}

void tst_framework_records::pathRoleReadsPlainStrings()
{
    QCOMPARE(TuloRoles(hash(R"({"path": "/settings/a"})")).path().text(),
             QStringLiteral("/settings/a"));
}

void tst_framework_records::permissionDefaultIsReadWrite()
{
    QCOMPARE(TuloPermission::Default_(), QStringLiteral("readWrite"));
}

void tst_framework_records::rowsRecordHoldsItsFour()
{
    TuloRowsRoles rows;
    QVERIFY(!rows.rows().isValid());
    QCOMPARE(rows.rowsCount(), 0);
    QCOMPARE(rows.rowsVersion(), 0);
    QVERIFY(rows.roles().isEmpty());

    rows.setRows(QVariantList { QVariant(QVariantList { 1 }) });
    rows.setRowsCount(12);
    rows.setRowsVersion(3);
    rows.setRoles(TuloRoles(hash(R"({"type": 1})")));

    QCOMPARE(TuloJson::serialize(rows.__variant()),
             QByteArray(R"({"roles":{"type":1},"rows":[[1]],"rowsCount":12,"rowsVersion":3})"));
    QCOMPARE(rows.rows().toList().size(), 1);
    QCOMPARE(rows.rowsCount(), 12);
    QCOMPARE(rows.rowsVersion(), 3);
    QCOMPARE(int(rows.roles().type()), 1);
}

void tst_framework_records::errorRecordHasThreeEntries()
{
    const CMError error(QStringLiteral("Name"), TrString(QStringLiteral("What")),
                        TrString(QStringLiteral("Title")));

    QCOMPARE(TuloJson::serialize(error.__variant()),
             QByteArray(R"({"message":"What","name":"Name","title":"Title"})"));
    QCOMPARE(error.__hashAttribute(CMError::Name()).userType(), int(QMetaType::QString));
    QVERIFY(TrString::isIn(error.__hashAttribute(CMError::Message())));
    QVERIFY(TrString::isIn(error.__hashAttribute(CMError::Title())));
    QCOMPARE(error.name(), QStringLiteral("Name"));
    QCOMPARE(error.message().toString(), QStringLiteral("What"));
    QCOMPARE(error.title().toString(), QStringLiteral("Title"));
}

void tst_framework_records::errorRecordDefaultTitleIsError()
{
    QCOMPARE(CMError::DefaultTitle().toString(), QStringLiteral("Error"));
    QCOMPARE(CMError(QStringLiteral("n"), TrString()).title().toString(), QStringLiteral("Error"));
    QCOMPARE(CMError::Name(), QStringLiteral("name"));
    QCOMPARE(CMError::Message(), QStringLiteral("message"));
    QCOMPARE(CMError::Title(), QStringLiteral("title"));
}

void tst_framework_records::errorRecordWithoutNameIsNone()
{
    QVERIFY(CMError().isEmpty());
    QVERIFY(CMError().name().isEmpty());
    QVERIFY(CMError().__hashAttribute(CMError::Name()).toString().isEmpty());
}

QTEST_GUILESS_MAIN(tst_framework_records)
#include "tst_framework_records.moc"
