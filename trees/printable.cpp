#include "trees/printable.h"

#include "api/core/tulojson.h"

#include <QChar>

#include <algorithm>

namespace tulo {

namespace {

bool needsEscape(uint character)
{
    constexpr uint nonJoiner = 0x200c;
    constexpr uint joiner = 0x200d;
    switch (QChar::category(character)) {
    case QChar::Other_Control:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return true;
    case QChar::Other_Format:
        return character != nonJoiner && character != joiner;
    default:
        return false;
    }
}

// As the JSON writer spells it.
QString hex(QChar unit)
{
    return QStringLiteral("%1").arg(unit.unicode(), 4, 16, QLatin1Char('0')).toUpper();
}

} // namespace

QString escaped(const QString& text)
{
    const auto isPlain = [](QChar c) {
        return c >= QLatin1Char(' ') && c <= QLatin1Char('~');
    };
    if (std::all_of(text.cbegin(), text.cend(), isPlain))
        return text;
    QString result;
    int length = 0;
    for (int i = 0; i < text.size(); i += length) {
        const QChar unit = text.at(i);
        const QChar next = i + 1 < text.size() ? text.at(i + 1) : QChar();
        const bool isPair = unit.isHighSurrogate() && next.isLowSurrogate();
        length = isPair ? 2 : 1;
        if (!needsEscape(isPair ? QChar::surrogateToUcs4(unit, next) : unit.unicode())) {
            result += text.midRef(i, length);
            continue;
        }
        for (const QChar one : text.mid(i, length))
            result += QStringLiteral("\\u") + hex(one);
    }
    return result;
}

QString shownContent(const QVariant& content)
{
    constexpr int longest = 200;
    const QByteArray json = TuloJson::serialize(content);
    QString text = json.isNull() ? QStringLiteral("?") : QString::fromUtf8(json);
    if (text.size() <= longest)
        return text;
    // Not in the middle of a pair.
    return text.left(text.at(longest - 1).isHighSurrogate() ? longest - 1 : longest)
        + QStringLiteral("...");
}

} // namespace tulo
