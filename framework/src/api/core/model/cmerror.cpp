#include "api/core/model/cmerror.h"

namespace {

const QString nameKey = QStringLiteral("name");
const QString messageKey = QStringLiteral("message");
const QString titleKey = QStringLiteral("title");

} // namespace

CMError::CMError(const QString& name, const TrString& message, const TrString& title)
    : TuloHash(QVariantHash { { nameKey, name }, { messageKey, message }, { titleKey, title } })
{
}

const QString& CMError::Name()
{
    return nameKey;
}

const QString& CMError::Message()
{
    return messageKey;
}

const QString& CMError::Title()
{
    return titleKey;
}

TrString CMError::DefaultTitle()
{
    return TrString({ "CMError", "Error", nullptr, -1 }, {});
}

QString CMError::name() const
{
    return __hashAttribute(nameKey).toString();
}

TrString CMError::message() const
{
    return TrString::fromVariant(__hashAttribute(messageKey));
}

TrString CMError::title() const
{
    return TrString::fromVariant(__hashAttribute(titleKey));
}
