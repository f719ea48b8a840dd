#include "api/core/tulo.h"

#include "api/core/model/cmpath.h"
#include "api/core/trstring.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ostream>

void tuloAssertionFailed(const char* condition, const char* file, int line)
{
    std::fprintf(stderr, "ASSERT: \"%s\" in file %s, line %d\n", condition, file, line);
    std::fflush(stderr);
    std::abort();
}

bool signalParametersAreQueueable(const QMetaMethod& method)
{
    // By name: QMetaMethod::parameterType() would register what it is asked for.
    const QList<QByteArray> types = method.parameterTypes();
    return std::all_of(types.cbegin(), types.cend(), [](const QByteArray& type) {
        return type.endsWith('*') || QMetaType::type(type) != QMetaType::UnknownType;
    });
}

std::string dbglog_scopedFunction(const std::string& signature, const std::string& className)
{
    const std::string qualifier = className + "::";
    const std::string::size_type parameters = signature.find('(');
    const std::string name = signature.substr(0, parameters);
    // The last one: the return type may name the class, too.
    const std::string::size_type scoped = name.rfind(qualifier);
    if (scoped != std::string::npos)
        return name.substr(scoped);
    const std::string::size_type blank = name.find_last_of(' ');
    return blank == std::string::npos ? name : name.substr(blank + 1);
}

std::ostream& operator<<(std::ostream& stream, const QString& text)
{
    const QByteArray bytes = text.toUtf8();
    return stream.write(bytes.constData(), bytes.size());
}

namespace {

template<typename List>
std::ostream& writeList(std::ostream& stream, const List& list)
{
    stream << '[';
    const char* separator = "";
    for (const auto& entry : list) {
        stream << separator << entry;
        separator = ", ";
    }
    return stream << ']';
}

std::ostream& writeHash(std::ostream& stream, const QVariantHash& hash)
{
    QStringList keys = hash.keys();
    keys.sort();
    stream << '{';
    const char* separator = "";
    for (const QString& key : qAsConst(keys)) {
        stream << separator << key << ": " << *hash.constFind(key);
        separator = ", ";
    }
    return stream << '}';
}

} // namespace

std::ostream& operator<<(std::ostream& stream, const QStringList& texts)
{
    return writeList(stream, texts);
}

std::ostream& operator<<(std::ostream& stream, const QList<QVariant>& values)
{
    return writeList(stream, values);
}

std::ostream& operator<<(std::ostream& stream, const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::UnknownType:
        return stream << "null";
    case QMetaType::QStringList:
        return stream << value.toStringList();
    case QMetaType::QVariantList:
        return stream << value.toList();
    case QMetaType::QVariantHash:
        return writeHash(stream, value.toHash());
    case QMetaType::QVariantMap: {
        QVariantHash hash;
        const QVariantMap map = value.toMap();
        for (auto entry = map.cbegin(); entry != map.cend(); ++entry)
            hash.insert(entry.key(), entry.value());
        return writeHash(stream, hash);
    }
    default:
        break;
    }
    if (CMPath::isIn(value))
        return stream << value.value<CMPath>();
    if (TrString::isIn(value))
        return stream << value.value<TrString>().toString();
    if (value.canConvert<QString>())
        return stream << value.toString();
    return stream << value.typeName();
}
