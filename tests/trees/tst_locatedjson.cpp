#include "trees/locatedjson.h"

#include "tests/support/repeats.h"

#include "api/core/tulojson.h"

#include <QDirIterator>
#include <QFile>
#include <QRandomGenerator>
#include <QTest>

using namespace tulo;

namespace {

struct Read
{
    QVariant value;
    QString error;
};

// As the worker reads it.
Read readByFramework(const QByteArray& document)
{
    Read read;
    TuloError error;
    read.value = TuloJson::parse(document, error, nullptr);
    read.error = error.message();
    return read;
}

// Equal in kind, too: variants compare 5 and "5" as equal.
bool isSame(const QVariant& one, const QVariant& other)
{
    return TuloJson::serialize(one) == TuloJson::serialize(other)
        && one.userType() == other.userType();
}

QByteArray nested(int depth)
{
    return QByteArray(depth, '[') + QByteArray(depth, ']');
}

QString asMessage(const LocatedJson& json)
{
    return QStringLiteral("line %1, column %2: %3")
        .arg(json.errorPosition.line)
        .arg(json.errorPosition.column)
        .arg(json.error);
}

// What stands in the document from a place on.
QByteArray textAt(const QByteArray& document, TextPosition position)
{
    const QString line = QString::fromUtf8(document).split(QLatin1Char('\n'))[position.line - 1];
    const QVector<uint> characters = line.toUcs4();
    const QString rest = QString::fromUcs4(characters.constData() + position.column - 1,
                                           characters.size() - position.column + 1);
    return rest.toUtf8();
}

// A document of random structure, laid out at random, with repeated keys now and then.
class RandomDocument
{
public:
    explicit RandomDocument(quint32 seed)
        : m_random(seed)
    {
    }

    QByteArray text() { return blank() + value(0) + blank(); }
    QByteArray damagedText()
    {
        QByteArray bytes = text();
        for (int i = 0; i < 1 + int(m_random.bounded(2)); ++i) {
            const int at = int(m_random.bounded(bytes.size()));
            switch (m_random.bounded(3)) {
            case 0:
                bytes.remove(at, 1);
                break;
            case 1:
                bytes[at] = char(m_random.bounded(256));
                break;
            default:
                bytes.insert(at, one({ "\"", "{", "]", ",", ":", "\\u", "\xEF\xBB\xBF", "\xED" }));
            }
        }
        return bytes;
    }

private:
    QByteArray one(const QVector<QByteArray>& choices)
    {
        return choices.at(int(m_random.bounded(choices.size())));
    }

    QByteArray blank() { return one({ "", "", " ", "\n", "\r\n\t", "  \n  " }); }

    QByteArray key()
    {
        return one({ R"("value")", R"("edit")", R"("a/b")", R"("~")", R"("")", "\"\xC3\xA4\"",
                     R"("\ud83d\ude00")", R"("int")", R"("a\"b")" });
    }

    QByteArray scalar()
    {
        return one({ "0", "-0", "18446744073709551615", "18446744073709551616", "-1.5e3", "0.1",
                     "1e-400", "true", "false", "null", R"("")", R"("a\nb")", "\"\xC3\xA4,:\"",
                     R"("\u0000")", R"("{[")", "9007199254740993" });
    }

    QByteArray value(int depth)
    {
        const quint32 kind = m_random.bounded(depth < 5 ? 4 : 2);
        if (kind < 2)
            return scalar();
        QByteArray entries;
        const int count = int(m_random.bounded(4));
        for (int i = 0; i < count; ++i) {
            if (i > 0)
                entries += ',' + blank();
            if (kind == 2)
                entries += key() + blank() + ':' + blank();
            entries += value(depth + 1) + blank();
        }
        return kind == 2 ? '{' + blank() + entries + '}' : '[' + blank() + entries + ']';
    }

    QRandomGenerator m_random;
};

} // namespace

/// JSON with places: the same document as the framework reads, and where its entries stand.
class TstLocatedJson : public QObject
{
    Q_OBJECT

private slots:
    void documentIsWhatTheFrameworkReads_data();
    void documentIsWhatTheFrameworkReads();
    void exampleTreeIsWhatTheFrameworkReads();
    void randomDocumentsAreWhatTheFrameworkReads();
    void everyEntryOfARandomDocumentIsLocated();
    void keysAndElementsAreLocated();
    void columnsCountCharacters();
    void repeatedKeysAreReported();
    void placesInsideAnOverriddenObjectAreForgotten();
    void entryWithoutAPlaceHasThatAroundIt();
    void pointerEscapesSeparators();
    void hostileDocumentCostsLittle_data();
    void hostileDocumentCostsLittle();

private:
    static void compareWithFramework(const QByteArray& document);
    static void checkPlaces(const QVariant& value, const QString& pointer, const QByteArray& text,
                            const LocatedJson& json, int* seen);
};

void TstLocatedJson::compareWithFramework(const QByteArray& document)
{
    const Read expected = readByFramework(document);

    const LocatedJson json = parseLocated(document);

    QCOMPARE(json.isValid(), expected.error.isEmpty());
    QVERIFY2(isSame(json.value, expected.value), document.constData());
    if (json.isValid()) {
        QCOMPARE(json.errorPosition, TextPosition());
        QVERIFY(json.positions.value(QString()).isKnown());
    } else {
        QCOMPARE(asMessage(json), expected.error);
        QVERIFY(json.positions.isEmpty());
    }
}

void TstLocatedJson::documentIsWhatTheFrameworkReads_data()
{
    QTest::addColumn<QByteArray>("document");
    const auto row = [](const char* name, const QByteArray& document) {
        QTest::newRow(name) << document;
    };
    row("nothing", "");
    row("blanks", " \n\t ");
    row("null", "null");
    row("scalar", " 5\n");
    row("text", R"("x")");
    row("object", R"({"value": {"int": 5}, "edit": {"values": [1, 2]}})");
    row("repeated key", R"({"a": 1, "b": 2, "a": {"c": 3}, "a": [4]})");
    row("64 levels", nested(64));
    row("65 levels", nested(65));
    row("byte order mark", "\xEF\xBB\xBF{}");
    row("byte order mark in a text", "{\"\xEF\xBB\xBFk\": \"\xEF\xBB\xBFv\"}");
    row("invalid UTF-8", "{\"a\": \"\xFF\"}");
    row("truncated UTF-8", "{\"a\": \"\xC3\"}");
    row("overlong UTF-8", "{\"\xC0\xAF\": 1}");
    row("surrogate in UTF-8", "[\"\xED\xA0\x80\"]");
    row("lone low surrogate", R"(["\udc00"])");
    row("lone surrogate in a key", R"({"\udc00": 1})");
    row("lone high surrogate", R"(["\ud800x"])");
    row("largest integers", "[9223372036854775807, -9223372036854775808, 18446744073709551615]");
    row("beyond integers", "[18446744073709551616, -9223372036854775809]");
    row("largest double", "1.7976931348623157e308");
    row("too large", "{\"a\":\n 1e309}");
    row("tiny", "1e-400");
    row("zero with an exponent", "0e999999999999");
    row("long number", QByteArray(1000, '9'));
    row("zero byte after it", QByteArray("{}\0", 3));
    row("zero byte inside", QByteArray("[1,\0 2]", 7));
    row("trailing text", "{} x");
    row("trailing comma", "{\"a\": 1,\n}");
    row("missing colon", "{\n\"a\" 1}");
    row("missing comma", "[1\n2]");
    row("missing end", "{\"a\": [1, 2");
    row("missing quote", "{\"a: 1}");
    row("bad escape", R"({"a": "\x"})");
    row("line break in a text", "{\"a\": \"\n\"}");
    row("comment", "{ // no\n}");
    row("single quotes", "{'a': 1}");
    row("NaN", "NaN");
    row("leading zero", "[01]");
    row("plus", "[+1]");
}

void TstLocatedJson::documentIsWhatTheFrameworkReads()
{
    QFETCH(const QByteArray, document);

    compareWithFramework(document);
}

void TstLocatedJson::exampleTreeIsWhatTheFrameworkReads()
{
    int files = 0;
    QDirIterator walk(QStringLiteral(TULO_EXAMPLE_TREE), QDir::Files | QDir::Hidden,
                      QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        QFile file(walk.next());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray document = file.readAll();
        compareWithFramework(document);
        const LocatedJson json = parseLocated(document);
        QVERIFY(json.duplicates.isEmpty());
        int seen = 0;
        checkPlaces(json.value, QString(), document, json, &seen);
        QCOMPARE(seen, json.positions.size());
        ++files;
    }
    QVERIFY(files > 100);
}

void TstLocatedJson::randomDocumentsAreWhatTheFrameworkReads()
{
    int valid = 0;
    int invalid = 0;
    for (int i = 0; i < repeats(2000, 100000); ++i) {
        const quint32 seed = quint32(i);
        for (const QByteArray& document :
             { RandomDocument(seed).text(), RandomDocument(seed).damagedText() }) {
            compareWithFramework(document);
            if (QTest::currentTestFailed())
                QFAIL(qPrintable(QStringLiteral("seed %1: ").arg(seed)
                                 + QString::fromUtf8(document)));
            ++(parseLocated(document).isValid() ? valid : invalid);
        }
    }
    QVERIFY(valid > 1000);
    QVERIFY(invalid > 500);
}

// At the place of an object's entry stands its key, at that of an element the element.
void TstLocatedJson::checkPlaces(const QVariant& value, const QString& pointer,
                                 const QByteArray& text, const LocatedJson& json, int* seen)
{
    ++*seen;
    if (value.userType() == QMetaType::QVariantHash) {
        const QVariantHash object = value.toHash();
        for (auto entry = object.cbegin(); entry != object.cend(); ++entry) {
            const QString inner = pointerTo(pointer, entry.key());
            const QByteArray rest = textAt(text, json.positions.value(inner));
            // The key is the first text of a list that begins there.
            int end = 1;
            while (rest.at(end) != '"')
                end += rest.at(end) == '\\' ? 2 : 1;
            QCOMPARE(readByFramework(rest.left(end + 1)).value.toString(), entry.key());
            checkPlaces(*entry, inner, text, json, seen);
        }
    } else if (value.userType() == QMetaType::QVariantList) {
        const QVariantList list = value.toList();
        for (int i = 0; i < list.size(); ++i) {
            const QString inner = pointerTo(pointer, i);
            const TextPosition position = json.positions.value(inner);
            QVERIFY(position.isKnown());
            const char first = textAt(text, position).at(0);
            const QByteArray written = TuloJson::serialize(list.at(i));
            // Numbers may be spelled otherwise.
            QCOMPARE(isdigit(uchar(first)) != 0 || first == '-',
                     isdigit(uchar(written.at(0))) != 0 || written.at(0) == '-');
            if (isdigit(uchar(first)) == 0 && first != '-')
                QCOMPARE(first, written.at(0));
            checkPlaces(list.at(i), inner, text, json, seen);
        }
    }
}

void TstLocatedJson::everyEntryOfARandomDocumentIsLocated()
{
    int entries = 0;
    for (int i = 0; i < repeats(2000, 100000); ++i) {
        const QByteArray document = RandomDocument(quint32(i)).text();
        const LocatedJson json = parseLocated(document);
        int seen = 0;
        checkPlaces(json.value, QString(), document, json, &seen);
        if (QTest::currentTestFailed())
            QFAIL(qPrintable(QStringLiteral("seed %1: ").arg(i) + QString::fromUtf8(document)));
        QCOMPARE(json.positions.size(), seen);
        entries += seen;
    }
    QVERIFY(entries > 5000);
}

void TstLocatedJson::keysAndElementsAreLocated()
{
    const LocatedJson json = parseLocated("{\n"
                                          "  \"value\": {\"int\": 5},\n"
                                          "  \"edit\": {\"values\": [1,\n"
                                          "    [\"x\"], {\"k\":null}]}\n"
                                          "}\n");

    const QHash<QString, TextPosition> expected {
        { QString(), { 1, 1 } },
        { QStringLiteral("/value"), { 2, 3 } },
        { QStringLiteral("/value/int"), { 2, 13 } },
        { QStringLiteral("/edit"), { 3, 3 } },
        { QStringLiteral("/edit/values"), { 3, 12 } },
        { QStringLiteral("/edit/values/0"), { 3, 23 } },
        { QStringLiteral("/edit/values/1"), { 4, 5 } },
        { QStringLiteral("/edit/values/1/0"), { 4, 6 } },
        { QStringLiteral("/edit/values/2"), { 4, 12 } },
        { QStringLiteral("/edit/values/2/k"), { 4, 13 } },
    };
    QCOMPARE(json.positions, expected);
    QVERIFY(json.duplicates.isEmpty());
}

void TstLocatedJson::columnsCountCharacters()
{
    const LocatedJson json = parseLocated("{\"\xC3\xA4\": \"\xF0\x9F\x98\x80\", \"b\": 1}");

    QCOMPARE(json.positions.value(QStringLiteral("/b")), (TextPosition { 1, 12 }));
}

void TstLocatedJson::repeatedKeysAreReported()
{
    const LocatedJson json = parseLocated("{\"a\": 1,\n \"b\": {\"a\": 2, \"a\": 3},\n \"a\": 4}");

    const QVector<QPair<QString, TextPosition>> expected {
        { QStringLiteral("/b/a"), { 2, 16 } },
        { QStringLiteral("/a"), { 3, 2 } },
    };
    QCOMPARE(json.duplicates, expected);
    QCOMPARE(json.value.toHash().value(QStringLiteral("a")), QVariant(4LL));
    QCOMPARE(json.positions.value(QStringLiteral("/a")), (TextPosition { 3, 2 }));
}

void TstLocatedJson::placesInsideAnOverriddenObjectAreForgotten()
{
    const LocatedJson json = parseLocated(R"({"edit": {"max": 1, "min": 0}, "edit": {"max": 2}})");

    QVERIFY(!json.positions.contains(QStringLiteral("/edit/min")));
    QCOMPARE(json.positions.value(QStringLiteral("/edit/max")), (TextPosition { 1, 41 }));
    QCOMPARE(json.positions.size(), 3);
}

void TstLocatedJson::entryWithoutAPlaceHasThatAroundIt()
{
    const LocatedJson json = parseLocated(R"({"edit": {"max": 1}})");

    QCOMPARE(json.position(QStringLiteral("/edit/max")), (TextPosition { 1, 11 }));
    QCOMPARE(json.position(QStringLiteral("/edit/min/deeper")), (TextPosition { 1, 2 }));
    QCOMPARE(json.position(QStringLiteral("/title")), (TextPosition { 1, 1 }));
    QCOMPARE(parseLocated("{").position(QStringLiteral("/title")), TextPosition());
}

void TstLocatedJson::pointerEscapesSeparators()
{
    QCOMPARE(pointerTo(QStringLiteral("/edit"), QStringLiteral("a/b~c")),
             QStringLiteral("/edit/a~1b~0c"));
    QCOMPARE(pointerTo(QString(), 7), QStringLiteral("/7"));
    QVERIFY(parseLocated(R"({"a/b~c": 1})").positions.contains(QStringLiteral("/a~1b~0c")));
}

void TstLocatedJson::hostileDocumentCostsLittle_data()
{
    QTest::addColumn<QByteArray>("document");
    const QByteArray elements = QByteArray("0,").repeated(250000) + '0';
    QTest::newRow("many elements") << '[' + elements + ']';
    QTest::newRow("elements under a long key")
        << "{\"" + QByteArray(500000, 'k') + "\":[" + elements + "]}";
    QTest::newRow("repeated keys") << '{' + QByteArray("\"a\":0,").repeated(150000) + "\"a\":0}";
    QTest::newRow("deep elements under long keys")
        << QByteArray("{\"" + QByteArray(5000, 'k') + "\":").repeated(60) + '[' + elements + ']'
            + QByteArray(60, '}');
}

void TstLocatedJson::hostileDocumentCostsLittle()
{
    QFETCH(const QByteArray, document);

    const LocatedJson json = parseLocated(document);

    QVERIFY(json.isValid());
    QVERIFY(json.positions.size() <= LocatedJson::maximumPositions);
    for (auto entry = json.positions.cbegin(); entry != json.positions.cend(); ++entry)
        QVERIFY(entry.key().size() <= LocatedJson::maximumPointerLength);
}

QTEST_GUILESS_MAIN(TstLocatedJson)
#include "tst_locatedjson.moc"
