#include "api/core/tulojson.h"

#include "api/core/model/cmpath.h"
#include "api/core/trstring.h"
#include "api/core/tuloroles.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <QVarLengthArray>
#include <QtNumeric>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>
#include <unordered_map>

namespace {

// ---------------------------------------------------------------------------------------------
// Reading. The parser reports events; the builder keeps the open objects and lists on an
// explicit stack, so depth costs no call stack.
// ---------------------------------------------------------------------------------------------

// Most texts are, and need no look at each character's encoding.
bool isAscii(const char* text, int length)
{
    uchar bits = 0;
    for (int i = 0; i < length; ++i)
        bits = uchar(bits | uchar(text[i]));
    return bits < 0x80;
}

// fromUtf8() takes a leading U+FEFF for a byte order mark and drops it.
QString textOf(const char* text, int length)
{
    const bool startsWithMark = length >= 3 && std::memcmp(text, "\xEF\xBB\xBF", 3) == 0;
    const QString decoded = QString::fromUtf8(text, length);
    return startsWithMark ? QChar(QChar::ByteOrderMark) + decoded : decoded;
}

// The reader lets the escapes \uDC00 to \uDFFF pass alone, as three bytes that no text has: in
// the document's own bytes it has refused them.
bool holdsLoneSurrogate(const char* text, int length)
{
    const std::string_view bytes(text, std::size_t(length));
    for (auto lead = bytes.find('\xED'); lead != std::string_view::npos;
         lead = bytes.find('\xED', lead + 1)) {
        if (quint8(bytes[lead + 1]) >= 0xA0)
            return true;
    }
    return false;
}

// Role keys and kinds share one string each: a tree of settings holds them thousands of times.
QString internedKey(const char* text, int length)
{
    static const std::unordered_map<std::string_view, QString> known = [] {
        static const QList<QByteArray> names = [] {
            QList<QByteArray> list;
            for (const QString& key : TuloRoles::keys() + TuloValue::kinds())
                list.append(key.toLatin1());
            return list;
        }();
        std::unordered_map<std::string_view, QString> map;
        for (const QByteArray& name : names)
            map.emplace(std::string_view(name.constData(), std::size_t(name.size())),
                        QString::fromLatin1(name));
        return map;
    }();
    const auto entry = known.find(std::string_view(text, std::size_t(length)));
    return entry != known.end() ? entry->second : textOf(text, length);
}

QString reasonText(rapidjson::ParseErrorCode code)
{
    return QString::fromLatin1(rapidjson::GetParseError_En(code));
}

class VariantBuilder
{
public:
    bool Null() { return add(QVariant()); }
    bool Bool(bool value) { return add(value); }
    // Never called: numbers are asked for as text. The parser's own conversion of a zero with a
    // large exponent has no defined result.
    bool Int(int) { return false; }
    bool Uint(unsigned) { return false; }
    bool Int64(int64_t) { return false; }
    bool Uint64(uint64_t) { return false; }
    bool Double(double) { return false; }
    bool RawNumber(const char* text, rapidjson::SizeType length, bool)
    {
        const char* const end = text + length;
        qlonglong integer = 0;
        if (const auto all = std::from_chars(text, end, integer);
            all.ec == std::errc() && all.ptr == end)
            return add(integer);
        qulonglong natural = 0;
        if (const auto all = std::from_chars(text, end, natural);
            all.ec == std::errc() && all.ptr == end)
            return add(natural);
        // Tells overflow from underflow, which from_chars() does not.
        const double number = QByteArray::fromRawData(text, int(length)).toDouble();
        if (qIsInf(number))
            return refuse(reasonText(rapidjson::kParseErrorNumberTooBig));
        return add(number);
    }
    bool String(const char* text, rapidjson::SizeType length, bool)
    {
        if (isAscii(text, int(length)))
            return add(QString::fromLatin1(text, int(length)));
        if (holdsLoneSurrogate(text, int(length)))
            return refuse(reasonText(rapidjson::kParseErrorStringUnicodeSurrogateInvalid));
        return add(textOf(text, int(length)));
    }
    bool Key(const char* text, rapidjson::SizeType length, bool)
    {
        if (!isAscii(text, int(length)) && holdsLoneSurrogate(text, int(length)))
            return refuse(reasonText(rapidjson::kParseErrorStringUnicodeSurrogateInvalid));
        m_open.back().key = internedKey(text, int(length));
        return true;
    }
    bool StartObject() { return open(true); }
    bool EndObject(rapidjson::SizeType) { return close(); }
    bool StartArray() { return open(false); }
    bool EndArray(rapidjson::SizeType) { return close(); }

    const QVariant& result() const { return m_result; }
    /// Why the builder ended the reading.
    QString refusal() const { return m_refusal; }

private:
    struct Container
    {
        bool isObject = false;
        QVariantHash hash;
        QVariantList list;
        QString key; ///< of the member that comes next
    };

    bool open(bool isObject)
    {
        if (m_open.size() == TuloJson::maximumDepth)
            return refuse(QStringLiteral("Nested too deeply."));
        m_open.append({ isObject, {}, {}, {} });
        return true;
    }

    bool refuse(const QString& reason)
    {
        m_refusal = reason;
        return false;
    }

    bool close()
    {
        const Container container = std::move(m_open.back());
        m_open.removeLast();
        return container.isObject ? add(container.hash) : add(container.list);
    }

    bool add(const QVariant& value)
    {
        if (m_open.isEmpty()) {
            m_result = value;
            return true;
        }
        Container& container = m_open.back();
        if (container.isObject)
            container.hash.insert(container.key, value);
        else
            container.list.append(value);
        return true;
    }

    // Hardly any document nests deeper than this: the stack itself costs no allocation.
    QVarLengthArray<Container, 4> m_open;
    QVariant m_result;
    QString m_refusal;
};

QString placeInText(const QByteArray& text, std::size_t offset)
{
    const QByteArray before = text.left(int(offset));
    const int line = int(before.count('\n')) + 1;
    const QByteArray lineBefore = before.mid(before.lastIndexOf('\n') + 1);
    // Continuation bytes belong to the character before them.
    const auto characters = std::count_if(lineBefore.cbegin(), lineBefore.cend(),
                                          [](char byte) { return (byte & 0xC0) != 0x80; });
    return QStringLiteral("line %1, column %2").arg(line).arg(characters + 1);
}

// ---------------------------------------------------------------------------------------------
// Writing.
// ---------------------------------------------------------------------------------------------

class DocumentWriter
{
public:
    bool write(const QVariant& value, int depth)
    {
        switch (value.userType()) {
        case QMetaType::UnknownType:
        case QMetaType::Nullptr:
            return m_writer.Null();
        case QMetaType::Bool:
            return m_writer.Bool(value.toBool());
        case QMetaType::Int:
        case QMetaType::Short:
        case QMetaType::Long:
        case QMetaType::LongLong:
            return m_writer.Int64(value.toLongLong());
        case QMetaType::UInt:
        case QMetaType::UShort:
        case QMetaType::ULong:
        case QMetaType::ULongLong:
            return m_writer.Uint64(value.toULongLong());
        case QMetaType::Double:
        case QMetaType::Float:
            return m_writer.Double(value.toDouble()); // false for NaN and infinities
        case QMetaType::QString:
            return writeText(value.toString());
        case QMetaType::QStringList:
        case QMetaType::QVariantList:
            return depth < TuloJson::maximumDepth && writeList(value.toList(), depth + 1);
        case QMetaType::QVariantHash:
            return depth < TuloJson::maximumDepth && writeObject(value.toHash(), depth + 1);
        case QMetaType::QVariantMap:
            return depth < TuloJson::maximumDepth && writeObject(value.toMap(), depth + 1);
        default:
            break;
        }
        if (TrString::isIn(value))
            return writeText(value.value<TrString>().toString());
        if (CMPath::isIn(value))
            return writeText(value.value<CMPath>().text());
        return false;
    }

    QByteArray text() const { return QByteArray(m_buffer.GetString(), int(m_buffer.GetSize())); }

private:
    bool writeText(const QString& text)
    {
        const QByteArray bytes = text.toUtf8();
        return m_writer.String(bytes.constData(), rapidjson::SizeType(bytes.size()));
    }

    bool writeList(const QVariantList& list, int depth)
    {
        m_writer.StartArray();
        for (const QVariant& entry : list) {
            if (!write(entry, depth))
                return false;
        }
        return m_writer.EndArray();
    }

    template<typename Object>
    bool writeObject(const Object& object, int depth)
    {
        QStringList keys = object.keys();
        keys.sort();
        m_writer.StartObject();
        for (const QString& key : qAsConst(keys)) {
            if (!writeText(key) || !write(*object.constFind(key), depth))
                return false;
        }
        return m_writer.EndObject();
    }

    rapidjson::StringBuffer m_buffer;
    rapidjson::Writer<rapidjson::StringBuffer> m_writer { m_buffer };
};

} // namespace

QVariant TuloJson::parse(const QByteArray& text, TuloError& error, unsigned int* offset)
{
    constexpr unsigned flags =
        rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;
    constexpr unsigned validating = flags | rapidjson::kParseValidateEncodingFlag;
    rapidjson::MemoryStream stream(text.constData(), std::size_t(text.size()));
    rapidjson::Reader reader;
    VariantBuilder builder;
    const rapidjson::ParseResult result = isAscii(text.constData(), text.size())
        ? reader.Parse<flags>(stream, builder)
        : reader.Parse<validating>(stream, builder);
    // A zero byte ends the document for the reader, so what follows it is trailing text.
    const bool whole = stream.Tell() == std::size_t(text.size());
    const std::size_t stop = result.IsError() ? result.Offset() : stream.Tell();
    if (offset != nullptr)
        *offset = unsigned(stop);
    if (!result.IsError() && whole)
        return builder.result();
    const rapidjson::ParseErrorCode code =
        result.IsError() ? result.Code() : rapidjson::kParseErrorDocumentRootNotSingular;
    const QString reason =
        code == rapidjson::kParseErrorTermination ? builder.refusal() : reasonText(code);
    error.setMessage(placeInText(text, stop) + QLatin1String(": ") + reason);
    return QVariant();
}

QByteArray TuloJson::serialize(const QVariant& value)
{
    DocumentWriter writer;
    return writer.write(value, 0) ? writer.text() : QByteArray();
}
