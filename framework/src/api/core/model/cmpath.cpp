#include "api/core/model/cmpath.h"

#include "api/core/tulo.h"

#include <QStringBuilder>
#include <QUrl>

#include <ostream>

namespace {

QString baseOf(const QString& text)
{
    const QLatin1Char separator('/');
    const bool absolute = text.startsWith(separator);
    const int mountEnd = text.indexOf(separator, absolute ? 1 : 0);
    if (mountEnd < 0)
        return absolute ? QString(separator) : QString();
    return text.mid(absolute ? mountEnd : mountEnd + 1);
}

} // namespace

CMPath::CMPath(const QString& text)
    : m_text(text)
    , m_base(baseOf(text))
{
}

CMPath::CMPath(const QString& mount, const QString& base)
    : m_text(mount % base)
    , m_base(base)
{
}

bool CMPath::isEmpty() const
{
    return m_text.isEmpty();
}

const QString& CMPath::text() const&
{
    return m_text;
}

const QString& CMPath::base() const&
{
    return m_base;
}

QString CMPath::toEncoded() const
{
    return QString::fromLatin1(QUrl::toPercentEncoding(m_text, "/"));
}

bool CMPath::operator==(const CMPath& other) const
{
    return m_text == other.m_text;
}

bool CMPath::operator!=(const CMPath& other) const
{
    return m_text != other.m_text;
}

QVariant CMPath::toVariant() const
{
    registerMetaType();
    return QVariant::fromValue(*this);
}

bool CMPath::isIn(const QVariant& value)
{
    return value.userType() >= QMetaType::User && qstrcmp(value.typeName(), "CMPath") == 0;
}

CMPath CMPath::fromVariant(const QVariant& value)
{
    return isIn(value) ? value.value<CMPath>() : CMPath(value.toString());
}

void CMPath::registerMetaType()
{
    static const bool registered = qRegisterMetaType<CMPath>("CMPath") != QMetaType::UnknownType
        && QMetaType::registerEqualsComparator<CMPath>()
        && QMetaType::registerConverter<CMPath, QString>(
                                       [](const CMPath& path) { return path.text(); });
    Q_UNUSED(registered)
}

std::ostream& operator<<(std::ostream& stream, const CMPath& path)
{
    return stream << path.text();
}

uint qHash(const CMPath& path, uint seed)
{
    return qHash(path.text(), seed);
}
