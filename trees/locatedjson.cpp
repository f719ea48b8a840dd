#include "trees/locatedjson.h"

#include "trees/separator.h"

#include "api/core/tulojson.h"

#include <rapidjson/memorystream.h>
#include <rapidjson/rapidjson.h>
#include <rapidjson/reader.h>

#include <QSet>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace tulo {

namespace {

// ---------------------------------------------------------------------------------------------
// Places. Asked for in ascending order, so that a text is counted once.
// ---------------------------------------------------------------------------------------------

class PositionCounter
{
public:
    explicit PositionCounter(const QByteArray& text)
        : m_text(text)
    {
    }

    TextPosition at(int offset)
    {
        for (; m_offset < offset; ++m_offset) {
            const char byte = m_text.at(m_offset);
            if (byte == '\n')
                m_position = { m_position.line + 1, 1 };
            else if ((byte & 0xC0) != 0x80) // continuation bytes belong to the character before
                ++m_position.column;
        }
        return m_position;
    }

private:
    const QByteArray& m_text;
    int m_offset = 0;
    TextPosition m_position { 1, 1 };
};

// ---------------------------------------------------------------------------------------------
// A second reading of a document known to be valid. The reader tells what it has read, not where
// that began: between two events stand only blanks, commas and colons.
// ---------------------------------------------------------------------------------------------

class Locator
{
public:
    Locator(const QByteArray& text, const rapidjson::MemoryStream& stream, LocatedJson* result)
        : m_text(text)
        , m_stream(stream)
        , m_counter(text)
        , m_result(result)
    {
    }

    bool Null() { return scalar(); }
    bool Bool(bool) { return scalar(); }
    bool Int(int) { return scalar(); }
    bool Uint(unsigned) { return scalar(); }
    bool Int64(int64_t) { return scalar(); }
    bool Uint64(uint64_t) { return scalar(); }
    bool Double(double) { return scalar(); }
    bool RawNumber(const char*, rapidjson::SizeType, bool) { return scalar(); }
    bool String(const char*, rapidjson::SizeType, bool) { return scalar(); }

    bool Key(const char* text, rapidjson::SizeType length, bool)
    {
        const TextPosition position = m_counter.at(nextToken());
        m_next = int(m_stream.Tell());
        Container& object = m_open.back();
        const QString key = keyOf(text, length);
        object.entry = boundedPointer(object.pointer, key);
        if (object.keys.contains(key))
            m_result->duplicates.append({ object.entry, position });
        object.keys.insert(key);
        remember(object.entry, position);
        return true;
    }
    bool StartObject() { return open(true); }
    bool EndObject(rapidjson::SizeType) { return close(); }
    bool StartArray() { return open(false); }
    bool EndArray(rapidjson::SizeType) { return close(); }

private:
    struct Container
    {
        bool isObject = false;
        QString pointer;
        QString entry; ///< the pointer of an object's entry that is being read
        int count = 0; ///< elements of a list so far
        QSet<QString> keys; ///< of an object so far
    };

    /// Where the next token begins.
    int nextToken()
    {
        while (std::strchr(" \t\r\n,:", m_text.at(m_next)) != nullptr)
            ++m_next;
        return m_next;
    }

    // fromUtf8() takes a leading U+FEFF for a byte order mark and drops it.
    static QString keyOf(const char* text, rapidjson::SizeType length)
    {
        const QByteArray bytes = QByteArray::fromRawData(text, int(length));
        const QString key = QString::fromUtf8(bytes);
        return bytes.startsWith("\xEF\xBB\xBF") ? QChar(QChar::ByteOrderMark) + key : key;
    }

    /// The pointer of the value that begins here. A list's element has its place there, an
    /// object's entry has had its own by the key.
    QString beginValue()
    {
        const int offset = nextToken();
        if (!m_open.empty() && m_open.back().isObject)
            return m_open.back().entry;
        QString pointer;
        if (!m_open.empty())
            pointer = boundedPointer(m_open.back().pointer, m_open.back().count++);
        remember(pointer, m_counter.at(offset));
        return pointer;
    }

    bool scalar()
    {
        beginValue();
        m_next = int(m_stream.Tell());
        return true;
    }

    bool open(bool isObject)
    {
        const QString pointer = beginValue();
        m_open.push_back({ isObject, pointer, {}, 0, {} });
        ++m_next;
        return true;
    }

    bool close()
    {
        m_open.pop_back();
        m_next = nextToken() + 1;
        return true;
    }

    /// A pointer that is too long to be remembered is not extended: copies of it for each entry
    /// below could take hours.
    template<typename Entry>
    static QString boundedPointer(const QString& parent, const Entry& entry)
    {
        return isBounded(parent) ? pointerTo(parent, entry) : parent;
    }

    static bool isBounded(const QString& pointer)
    {
        return pointer.size() <= LocatedJson::maximumPointerLength;
    }

    void remember(const QString& pointer, TextPosition position)
    {
        if (isBounded(pointer) && m_result->positions.size() < LocatedJson::maximumPositions)
            m_result->positions.insert(pointer, position);
    }

    const QByteArray& m_text;
    const rapidjson::MemoryStream& m_stream;
    PositionCounter m_counter;
    LocatedJson* const m_result;
    int m_next = 0; ///< the first byte after what was read
    std::vector<Container> m_open;
};

/// Keeps of `positions` those of what is in `value`: an object under a key that comes again
/// leaves the places of its entries behind.
void keepPresent(const QVariant& value, const QString& pointer,
                 const QHash<QString, TextPosition>& positions,
                 QHash<QString, TextPosition>* present)
{
    if (pointer.size() > LocatedJson::maximumPointerLength)
        return;
    const auto position = positions.constFind(pointer);
    if (position != positions.cend())
        present->insert(pointer, *position);
    if (value.userType() == QMetaType::QVariantHash) {
        const QVariantHash object = value.toHash();
        for (auto entry = object.cbegin(); entry != object.cend(); ++entry)
            keepPresent(*entry, pointerTo(pointer, entry.key()), positions, present);
    } else if (value.userType() == QMetaType::QVariantList) {
        const QVariantList list = value.toList();
        for (int i = 0; i < list.size(); ++i)
            keepPresent(list.at(i), pointerTo(pointer, i), positions, present);
    }
}

} // namespace

TextPosition LocatedJson::position(const QString& pointer) const
{
    for (QString at = pointer;; at.truncate(at.lastIndexOf(separator))) {
        const auto known = positions.constFind(at);
        if (known != positions.cend())
            return *known;
        if (at.isEmpty())
            return TextPosition();
    }
}

QString pointerTo(const QString& object, const QString& key)
{
    QString escapedKey = key;
    escapedKey.replace(QLatin1Char('~'), QLatin1String("~0"));
    escapedKey.replace(separator, QLatin1String("~1"));
    return object + separator + escapedKey;
}

QString pointerTo(const QString& list, int index)
{
    return list + separator + QString::number(index);
}

LocatedJson parseLocated(const QByteArray& document)
{
    LocatedJson result;
    TuloError error;
    unsigned int offset = 0;
    result.value = TuloJson::parse(document, error, &offset);
    if (!error.isEmpty()) {
        const QString message = error.message();
        result.error = message.mid(message.indexOf(QLatin1String(": ")) + 2);
        result.errorPosition = PositionCounter(document).at(int(offset));
        return result;
    }

    constexpr unsigned flags =
        rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;
    rapidjson::MemoryStream stream(document.constData(), std::size_t(document.size()));
    Locator locator(document, stream, &result);
    rapidjson::Reader().Parse<flags>(stream, locator);
    if (!result.duplicates.isEmpty()) {
        QHash<QString, TextPosition> present;
        keepPresent(result.value, QString(), result.positions, &present);
        result.positions = present;
    }
    return result;
}

} // namespace tulo
