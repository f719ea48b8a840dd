#pragma once

#include <QString>
#include <QVariant>

namespace tulo {

/// `text` with "\uXXXX" for each character that could control a terminal or disguise what is
/// printed: control and format characters, line and paragraph separators. The joiners U+200C and
/// U+200D stay, as several scripts need them.
QString escaped(const QString& text);

/// JSON of what a file holds, for a message in one line: cut where it is long. Not escaped().
QString shownContent(const QVariant& content);

} // namespace tulo
