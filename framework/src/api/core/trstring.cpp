#include "api/core/trstring.h"

#include <QCoreApplication>

namespace {

// One pass over the text: an argument that itself holds "%2" stays as it is.
QString withArguments(const QString& text, const QList<TrArg>& arguments)
{
    QString result;
    for (int i = 0; i < text.size(); ++i) {
        const int number = i + 1 < text.size() && text.at(i) == QLatin1Char('%')
            ? text.at(i + 1).digitValue()
            : -1;
        if (number < 1 || number > arguments.size()) {
            result.append(text.at(i));
            continue;
        }
        result.append(arguments.at(number - 1));
        ++i;
    }
    return result;
}

} // namespace

TrString::TrString(const QString& text)
    : m_literal(text)
{
}

TrString::TrString(const TrCharData& source, const QList<TrArg>& arguments)
    : m_context(source.context)
    , m_source(source.source == nullptr ? "" : source.source)
    , m_disambiguation(source.disambiguation)
    , m_n(source.n)
    , m_arguments(arguments)
{
}

bool TrString::isEmpty() const
{
    return m_literal.isEmpty() && m_source.isEmpty();
}

QString TrString::toString() const
{
    if (m_source.isNull())
        return m_literal;
    // constData() of a null array is "", which is another key than no disambiguation.
    const char* disambiguation = m_disambiguation.isNull() ? nullptr : m_disambiguation.constData();
    const QString text = QCoreApplication::translate(m_context.constData(), m_source.constData(),
                                                     disambiguation, m_n);
    return m_arguments.isEmpty() ? text : withArguments(text, m_arguments);
}

QString TrString::context() const
{
    return QString::fromUtf8(m_context);
}

QString TrString::source() const
{
    return m_source.isNull() ? m_literal : QString::fromUtf8(m_source);
}

bool TrString::operator==(const TrString& other) const
{
    return m_literal == other.m_literal && m_context == other.m_context
        && m_source == other.m_source && m_source.isNull() == other.m_source.isNull()
        && m_disambiguation == other.m_disambiguation && m_n == other.m_n
        && m_arguments == other.m_arguments;
}

bool TrString::operator!=(const TrString& other) const
{
    return !(*this == other);
}

TrString::operator QVariant() const
{
    // Once for the process. Without the comparator variants would compare by address.
    static const bool registered = QMetaType::registerEqualsComparator<TrString>()
        && QMetaType::registerConverter(&TrString::toString);
    Q_UNUSED(registered)
    return QVariant::fromValue(*this);
}

bool TrString::isIn(const QVariant& value)
{
    return value.userType() >= QMetaType::User && qstrcmp(value.typeName(), "TrString") == 0;
}

TrString TrString::fromVariant(const QVariant& value)
{
    return isIn(value) ? value.value<TrString>() : TrString(value.toString());
}
