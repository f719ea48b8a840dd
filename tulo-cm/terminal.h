#pragma once

#include <QString>

namespace tulo {

// What a terminal shows: its size, the columns of a text, colours.

struct TerminalSize
{
    int columns = 0; ///< 0: not known
    int rows = 0; ///< 0: not known
};

/// Of the terminal that `descriptor` is; what it does not say, by COLUMNS and LINES.
TerminalSize terminalSize(int descriptor);

/// Tells whether the terminal can only add text: no colours, and no line that is drawn again.
bool isDumbTerminal();

/// Columns that a terminal uses for `text`, which is escaped().
int widthOf(const QString& text);
/// `text` in at most `columns`: "…" takes the place of its end where it is longer, or with
/// `keepsEnd` of its beginning. What combines with a character stays with it.
QString shortened(const QString& text, int columns, bool keepsEnd = false);

enum class Style {
    Plain,
    Heading,
    Directory,
    Changed, ///< a setting that differs from its default
    ReadOnly, ///< a setting that clients cannot change
    Warning, ///< done, but not as it was asked for
    Error
};

/// Ends every style.
inline constexpr char plainSequence[] = "\x1b[0m";
/// `text` in the style, with what a terminal needs for it.
QString styled(const QString& text, Style style);

/// When colours are used. Auto: on a terminal that can show them, unless the environment has
/// NO_COLOR.
enum class Colours { Auto, Always, Never };
/// Tells whether what goes to `descriptor` is coloured.
bool usesColours(Colours colours, int descriptor);

} // namespace tulo
