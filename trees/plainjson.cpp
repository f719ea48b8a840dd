#include "trees/plainjson.h"

#include "api/core/tulojson.h"

namespace tulo {
namespace {

QVariant withMaps(const QVariant& content)
{
    if (content.userType() == QMetaType::QVariantHash) {
        const QVariantHash hash = content.toHash();
        QVariantMap map;
        for (auto entry = hash.cbegin(); entry != hash.cend(); ++entry)
            map.insert(entry.key(), withMaps(*entry));
        return map;
    }
    if (content.userType() != QMetaType::QVariantList)
        return content;
    QVariantList list = content.toList();
    for (QVariant& element : list)
        element = withMaps(element);
    return list;
}

} // namespace

QByteArray jsonOf(const QVariant& value)
{
    return TuloJson::serialize(value);
}

QVariant fromJson(const QByteArray& text, QString* error)
{
    TuloError failure;
    const QVariant content = TuloJson::parse(text, failure, nullptr);
    *error = failure.message();
    return withMaps(content);
}

} // namespace tulo
