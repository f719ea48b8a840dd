#include "daemon/busmessage.h"

#include <cstring>

namespace tulo {

namespace {

// Every element, with what aligns it.
constexpr qint64 elementBytes = 8;

// Of a fixed size each, and without values that would have to be checked.
bool isPlain(const char* type)
{
    return type[0] != '\0' && type[1] == '\0' && std::strchr("ynqiuxtd", type[0]) != nullptr;
}

bool addText(sd_bus_message* message, char type, qint64* bytes)
{
    const char* text = nullptr;
    if (sd_bus_message_read_basic(message, type, &text) <= 0)
        return false;
    *bytes += qint64(std::strlen(text));
    return true;
}

bool addPlainArray(sd_bus_message* message, char type, qint64* bytes)
{
    const void* content = nullptr;
    size_t size = 0;
    if (sd_bus_message_read_array(message, type, &content, &size) < 0)
        return false;
    *bytes += qint64(size);
    return true;
}

// Counts the remaining elements of the message or container. False when counting can stop.
bool addElements(sd_bus_message* message, qint64 limit, qint64* bytes)
{
    char type = '\0';
    const char* contents = nullptr;
    int found = 0;
    while ((found = sd_bus_message_peek_type(message, &type, &contents)) > 0) {
        *bytes += elementBytes;
        if (*bytes > limit)
            return false;
        bool isAdded = false;
        if (type == SD_BUS_TYPE_ARRAY && isPlain(contents)) {
            isAdded = addPlainArray(message, contents[0], bytes);
        } else if (contents != nullptr) {
            isAdded = sd_bus_message_enter_container(message, type, contents) > 0
                && addElements(message, limit, bytes)
                && sd_bus_message_exit_container(message) >= 0;
        } else if (type == SD_BUS_TYPE_STRING || type == SD_BUS_TYPE_OBJECT_PATH
                   || type == SD_BUS_TYPE_SIGNATURE) {
            isAdded = addText(message, type, bytes);
        } else {
            const char types[] { type, '\0' };
            isAdded = sd_bus_message_skip(message, types) >= 0;
        }
        if (!isAdded)
            return false;
    }
    return found == 0;
}

} // namespace

qint64 argumentBytes(sd_bus_message* message, qint64 limit)
{
    qint64 bytes = 0;
    // What is malformed or too large is refused when it is read.
    (void)addElements(message, limit, &bytes);
    sd_bus_message_rewind(message, 1);
    return bytes;
}

} // namespace tulo
