#include "api/core/model/cmerror.h"

namespace {

const QString errorNameKey = QStringLiteral("name");
const QString errorMessageKey = QStringLiteral("message");
const QString errorTitleKey = QStringLiteral("title");

} // namespace

CMError::CMError(const QString& name, const TrString& message, const TrString& title)
    : TuloHash(QVariantHash {
        { errorNameKey, name }, { errorMessageKey, message }, { errorTitleKey, title } })
{
}

const QString& CMError::Name()
{
    return errorNameKey;
}

const QString& CMError::Message()
{
    return errorMessageKey;
}

const QString& CMError::Title()
{
    return errorTitleKey;
}

TrString CMError::DefaultTitle()
{
    return TrString({ "CMError", "Error", nullptr, -1 }, {});
}

QString CMError::name() const
{
    return __hashAttribute(errorNameKey).toString();
}

TrString CMError::message() const
{
    return TrString::fromVariant(__hashAttribute(errorMessageKey));
}

TrString CMError::title() const
{
    return TrString::fromVariant(__hashAttribute(errorTitleKey));
}
