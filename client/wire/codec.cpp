#include "wire/codec.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace tulo::wire {
namespace {

// ---------------------------------------------------------------------------------------------
// What can be carried.
// ---------------------------------------------------------------------------------------------

// sd-bus takes no text with a zero or with what Unicode calls a noncharacter.
bool isCarriedText(const QString& text)
{
    if (!text.isValidUtf16())
        return false;
    const auto isForbidden = [](const QChar& character) {
        const ushort code = character.unicode();
        if (character.isLowSurrogate()) {
            // The last two of each plane. In valid text the other half stands before it.
            return (QChar::surrogateToUcs4(*(&character - 1), character) & 0xFFFEU) == 0xFFFEU;
        }
        return code == 0 || (code >= 0xFDD0 && code <= 0xFDEF) || code >= 0xFFFE;
    };
    return std::none_of(text.cbegin(), text.cend(), isForbidden);
}

bool isCarriedInside(const QVariant& value, int depth);

bool isCarriedMap(const QVariantMap& map, int depth)
{
    for (auto entry = map.cbegin(); entry != map.cend(); ++entry) {
        if (!isCarriedText(entry.key()) || !isCarriedInside(entry.value(), depth))
            return false;
    }
    return true;
}

// `depth`: lists and maps that `value` is in.
bool isCarriedInside(const QVariant& value, int depth)
{
    switch (value.userType()) {
    case QMetaType::Bool:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return true;
    case QMetaType::Float:
    case QMetaType::Double:
        return std::isfinite(value.toDouble());
    case QMetaType::QString:
        return isCarriedText(value.toString());
    case QMetaType::QStringList:
    case QMetaType::QVariantList: {
        const QVariantList list = value.toList();
        return depth < maximumDepth
            && std::all_of(list.cbegin(), list.cend(), [depth](const QVariant& entry) {
                   return isCarriedInside(entry, depth + 1);
               });
    }
    case QMetaType::QVariantHash:
    case QMetaType::QVariantMap:
        return depth < maximumDepth && isCarriedMap(value.toMap(), depth + 1);
    default:
        return false;
    }
}

QVariant withoutInvalidEntries(const QVariant& value)
{
    if (value.userType() == QMetaType::QVariantList) {
        QVariantList list = value.toList();
        for (QVariant& entry : list)
            entry = withoutInvalidEntries(entry);
        return list;
    }
    if (value.userType() != QMetaType::QVariantMap)
        return value;
    QVariantMap present;
    const QVariantMap map = value.toMap();
    for (auto entry = map.cbegin(); entry != map.cend(); ++entry) {
        if (entry->isValid())
            present.insert(entry.key(), withoutInvalidEntries(*entry));
    }
    return present;
}

// ---------------------------------------------------------------------------------------------
// Writing. Values have been found to be carried before.
// ---------------------------------------------------------------------------------------------

template<typename T>
bool writeNumber(sd_bus_message* message, char type, T number)
{
    return sd_bus_message_append_basic(message, type, &number) >= 0;
}

bool writeText(sd_bus_message* message, const QString& text)
{
    return sd_bus_message_append_basic(message, SD_BUS_TYPE_STRING, text.toUtf8().constData()) >= 0;
}

template<typename Function>
bool writeContainer(sd_bus_message* message, char type, const char* contents,
                    const Function& content)
{
    return sd_bus_message_open_container(message, type, contents) >= 0 && content()
        && sd_bus_message_close_container(message) >= 0;
}

bool writeVariant(sd_bus_message* message, const QVariant& value);

bool writeMap(sd_bus_message* message, const QVariantMap& map)
{
    const auto writeEntries = [message, &map] {
        for (auto entry = map.cbegin(); entry != map.cend(); ++entry) {
            const auto writeEntry = [&] {
                return writeText(message, entry.key()) && writeVariant(message, entry.value());
            };
            if (!writeContainer(message, SD_BUS_TYPE_DICT_ENTRY, "sv", writeEntry))
                return false;
        }
        return true;
    };
    return writeContainer(message, SD_BUS_TYPE_ARRAY, "{sv}", writeEntries);
}

bool writeList(sd_bus_message* message, const QVariantList& list)
{
    return writeContainer(message, SD_BUS_TYPE_ARRAY, "v", [message, &list] {
        return std::all_of(list.cbegin(), list.cend(), [message](const QVariant& entry) {
            return writeVariant(message, entry);
        });
    });
}

const char* signatureOf(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::Bool:
        return "b";
    case QMetaType::Float:
    case QMetaType::Double:
        return "d";
    case QMetaType::QString:
        return "s";
    case QMetaType::QStringList:
    case QMetaType::QVariantList:
        return "av";
    case QMetaType::QVariantHash:
    case QMetaType::QVariantMap:
        return "a{sv}";
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        return value.toULongLong() > quint64(std::numeric_limits<qint64>::max()) ? "t" : "x";
    default:
        return "x";
    }
}

bool writeVariant(sd_bus_message* message, const QVariant& value)
{
    const char* const signature = signatureOf(value);
    return writeContainer(message, SD_BUS_TYPE_VARIANT, signature, [&] {
        switch (signature[0]) {
        case SD_BUS_TYPE_BOOLEAN:
            return writeNumber(message, 'b', int(value.toBool()));
        case SD_BUS_TYPE_DOUBLE:
            return writeNumber(message, 'd', value.toDouble());
        case SD_BUS_TYPE_STRING:
            return writeText(message, value.toString());
        case SD_BUS_TYPE_UINT64:
            return writeNumber(message, 't', value.toULongLong());
        case SD_BUS_TYPE_INT64:
            return writeNumber(message, 'x', value.toLongLong());
        default:
            return std::strcmp(signature, "a{sv}") == 0 ? writeMap(message, value.toMap())
                                                        : writeList(message, value.toList());
        }
    });
}

// Behind the one complete type that `signature` begins with.
const char* endOfType(const char* signature)
{
    while (*signature == SD_BUS_TYPE_ARRAY)
        ++signature;
    int open = 0;
    do {
        if (*signature == SD_BUS_TYPE_STRUCT_BEGIN || *signature == SD_BUS_TYPE_DICT_ENTRY_BEGIN)
            ++open;
        else if (*signature == SD_BUS_TYPE_STRUCT_END || *signature == SD_BUS_TYPE_DICT_ENTRY_END)
            --open;
        ++signature;
    } while (open > 0 && *signature != '\0');
    return signature;
}

bool writeArgument(sd_bus_message* message, const QByteArray& type, const QVariant& value);

bool writeArray(sd_bus_message* message, const QByteArray& type, const QVariant& value)
{
    if (type == "a{sv}") {
        return value.userType() == QMetaType::QVariantMap && isCarriedMap(value.toMap(), 0)
            && writeMap(message, value.toMap());
    }
    const QByteArray elements = type.mid(1);
    const int listType = elements == "s" ? QMetaType::QStringList : QMetaType::QVariantList;
    const QVariantList list = value.toList();
    return value.userType() == listType
        && writeContainer(message, SD_BUS_TYPE_ARRAY, elements.constData(), [&] {
               return std::all_of(list.cbegin(), list.cend(), [&](const QVariant& element) {
                   return writeArgument(message, elements, element);
               });
           });
}

bool writeArgument(sd_bus_message* message, const QByteArray& type, const QVariant& value)
{
    const char first = type.isEmpty() ? '\0' : type.at(0);
    const int given = value.userType();
    switch (first) {
    case SD_BUS_TYPE_BOOLEAN:
        return given == QMetaType::Bool && writeNumber(message, first, int(value.toBool()));
    case SD_BUS_TYPE_INT32:
        return given == QMetaType::Int && writeNumber(message, first, value.toInt());
    case SD_BUS_TYPE_UINT32:
        return given == QMetaType::UInt && writeNumber(message, first, value.toUInt());
    case SD_BUS_TYPE_STRING:
        return given == QMetaType::QString && isCarriedText(value.toString())
            && writeText(message, value.toString());
    case SD_BUS_TYPE_VARIANT:
        return isCarried(value) && writeVariant(message, value);
    case SD_BUS_TYPE_ARRAY:
        return writeArray(message, type, value);
    case SD_BUS_TYPE_STRUCT_BEGIN: {
        const QByteArray members = type.mid(1, type.size() - 2);
        return given == QMetaType::QVariantList
            && writeContainer(message, SD_BUS_TYPE_STRUCT, members.constData(), [&] {
                   return appendArguments(message, members.constData(), value.toList());
               });
    }
    default:
        return false;
    }
}

// ---------------------------------------------------------------------------------------------
// Reading.
// ---------------------------------------------------------------------------------------------

/// Whether a variant that is read is an argument, where each type has its own place, or a value,
/// which is made of few types.
enum class Part { Argument, Value };

bool readNext(sd_bus_message* message, Part part, int depth, QVariant* result);

template<typename T>
bool readNumber(sd_bus_message* message, char type, T* number)
{
    return sd_bus_message_read_basic(message, type, number) > 0;
}

template<typename Wire, typename Plain>
bool readAs(sd_bus_message* message, char type, QVariant* result)
{
    Wire number {};
    if (!readNumber(message, type, &number))
        return false;
    *result = QVariant::fromValue(Plain(number));
    return true;
}

bool readUnsigned(sd_bus_message* message, QVariant* result)
{
    quint64 number = 0;
    if (!readNumber(message, SD_BUS_TYPE_UINT64, &number))
        return false;
    if (number <= quint64(std::numeric_limits<qint64>::max()))
        *result = qlonglong(number);
    else
        *result = qulonglong(number);
    return true;
}

bool readDouble(sd_bus_message* message, QVariant* result)
{
    double number = 0;
    if (!readNumber(message, SD_BUS_TYPE_DOUBLE, &number) || !std::isfinite(number))
        return false;
    *result = number;
    return true;
}

bool readText(sd_bus_message* message, QString* result)
{
    const char* utf8 = nullptr;
    if (sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &utf8) <= 0)
        return false;
    *result = QString::fromUtf8(utf8);
    return true;
}

template<typename Function>
bool readContainer(sd_bus_message* message, char type, const char* contents,
                   const Function& element)
{
    if (sd_bus_message_enter_container(message, type, contents) <= 0)
        return false;
    int atEnd = 0;
    while ((atEnd = sd_bus_message_at_end(message, 0)) == 0) {
        if (!element())
            return false;
    }
    return atEnd > 0 && sd_bus_message_exit_container(message) >= 0;
}

bool readMap(sd_bus_message* message, const char* contents, int depth, QVariant* result)
{
    QVariantMap map;
    // Without its braces.
    const QByteArray entry(contents + 1, int(std::strlen(contents)) - 2);
    const bool isRead = readContainer(message, SD_BUS_TYPE_ARRAY, contents, [&] {
        QString key;
        QVariant value;
        return readContainer(message, SD_BUS_TYPE_DICT_ENTRY, entry.constData(),
                             [&] {
                                 return readText(message, &key)
                                     && readNext(message, Part::Value, depth, &value);
                             })
            && (map.insert(key, value), true);
    });
    *result = map;
    return isRead;
}

bool readStringList(sd_bus_message* message, QVariant* result)
{
    QStringList list;
    const bool isRead = readContainer(message, SD_BUS_TYPE_ARRAY, "s", [&] {
        list.append(QString());
        return readText(message, &list.last());
    });
    *result = list;
    return isRead;
}

bool readList(sd_bus_message* message, char type, const char* contents, Part part, int depth,
              QVariant* result)
{
    QVariantList list;
    const bool isRead = readContainer(message, type, contents, [&] {
        list.append(QVariant());
        return readNext(message, part, depth, &list.last());
    });
    *result = list;
    return isRead;
}

bool readArray(sd_bus_message* message, const char* contents, Part part, int depth,
               QVariant* result)
{
    // Also where an empty array has no element to be refused.
    const char* const refused = part == Part::Value ? "yhog(" : "yhog";
    if (depth >= maximumDepth || std::strpbrk(contents, refused) != nullptr)
        return false;
    const int inside = part == Part::Value ? depth + 1 : depth;
    if (contents[0] == SD_BUS_TYPE_DICT_ENTRY_BEGIN)
        return contents[1] == SD_BUS_TYPE_STRING && readMap(message, contents, inside, result);
    if (part == Part::Argument && std::strcmp(contents, "s") == 0)
        return readStringList(message, result);
    return readList(message, SD_BUS_TYPE_ARRAY, contents, part, inside, result);
}

// `depth`: what of a value the next one is in: arrays, and variants directly in variants.
bool readNext(sd_bus_message* message, Part part, int depth, QVariant* result)
{
    char type = 0;
    const char* contents = nullptr;
    if (sd_bus_message_peek_type(message, &type, &contents) <= 0)
        return false;
    const bool isArgument = part == Part::Argument;
    switch (type) {
    case SD_BUS_TYPE_BOOLEAN:
        return readAs<int, bool>(message, type, result);
    case SD_BUS_TYPE_BYTE:
        return readAs<quint8, qlonglong>(message, type, result);
    case SD_BUS_TYPE_INT16:
        return readAs<qint16, qlonglong>(message, type, result);
    case SD_BUS_TYPE_UINT16:
        return readAs<quint16, qlonglong>(message, type, result);
    case SD_BUS_TYPE_INT32:
        return isArgument ? readAs<qint32, int>(message, type, result)
                          : readAs<qint32, qlonglong>(message, type, result);
    case SD_BUS_TYPE_UINT32:
        return isArgument ? readAs<quint32, uint>(message, type, result)
                          : readAs<quint32, qlonglong>(message, type, result);
    case SD_BUS_TYPE_INT64:
        return readAs<qint64, qlonglong>(message, type, result);
    case SD_BUS_TYPE_UINT64:
        return readUnsigned(message, result);
    case SD_BUS_TYPE_DOUBLE:
        return readDouble(message, result);
    case SD_BUS_TYPE_STRING: {
        QString text;
        const bool isRead = readText(message, &text);
        *result = text;
        return isRead;
    }
    case SD_BUS_TYPE_VARIANT: {
        const int inside = contents[0] == SD_BUS_TYPE_VARIANT ? depth + 1 : depth;
        return inside <= maximumDepth && readContainer(message, type, contents, [&] {
                   return readNext(message, Part::Value, inside, result);
               });
    }
    case SD_BUS_TYPE_ARRAY:
        return readArray(message, contents, part, depth, result);
    case SD_BUS_TYPE_STRUCT:
        return isArgument && readList(message, type, contents, part, depth, result);
    default:
        return false;
    }
}

// ---------------------------------------------------------------------------------------------
// Sizes.
// ---------------------------------------------------------------------------------------------

qint64 textBytes(const QString& text)
{
    // Its length before it and a zero behind, aligned.
    qint64 bytes = 8;
    for (const QChar& character : text) {
        const ushort code = character.unicode();
        // Half of a pair takes two of four.
        bytes += code < 0x80 ? 1 : code < 0x800 || character.isSurrogate() ? 2 : 3;
    }
    return bytes;
}

} // namespace

bool isCarried(const QVariant& value)
{
    return isCarriedInside(value, 0);
}

QVariantMap carriedRoles(const QVariantMap& roles)
{
    QVariantMap carried;
    for (auto role = roles.cbegin(); role != roles.cend(); ++role) {
        const QVariant value = withoutInvalidEntries(role.value());
        if (isCarriedText(role.key()) && isCarried(value))
            carried.insert(role.key(), value);
    }
    return carried;
}

bool appendArguments(sd_bus_message* message, const char* signature, const QVariantList& arguments)
{
    for (const QVariant& argument : arguments) {
        const char* const end = endOfType(signature);
        if (!writeArgument(message, QByteArray(signature, int(end - signature)), argument))
            return false;
        signature = end;
    }
    return *signature == '\0';
}

std::optional<QVariantList> readArguments(sd_bus_message* message)
{
    if (sd_bus_message_rewind(message, 1) < 0)
        return std::nullopt;
    QVariantList arguments;
    int atEnd = 0;
    while ((atEnd = sd_bus_message_at_end(message, 1)) == 0) {
        arguments.append(QVariant());
        if (!readNext(message, Part::Argument, 0, &arguments.last()))
            return std::nullopt;
    }
    return atEnd > 0 ? std::make_optional(arguments) : std::nullopt;
}

qint64 busSize(const QVariant& value)
{
    // A signature of at most five characters with its ends, and what aligns the content.
    constexpr qint64 variantBytes = 16;
    constexpr qint64 lengthBytes = 8;

    qint64 size = variantBytes;
    switch (value.userType()) {
    case QMetaType::QString:
        size += textBytes(value.toString());
        break;
    case QMetaType::QStringList:
    case QMetaType::QVariantList: {
        size += lengthBytes;
        const QVariantList entries = value.toList();
        for (const QVariant& entry : entries)
            size += busSize(entry);
        break;
    }
    case QMetaType::QVariantHash:
    case QMetaType::QVariantMap: {
        size += lengthBytes;
        const QVariantMap entries = value.toMap();
        for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry)
            size += lengthBytes + textBytes(entry.key()) + busSize(entry.value());
        break;
    }
    default:
        size += qint64(sizeof(qint64));
    }
    return size;
}

} // namespace tulo::wire
