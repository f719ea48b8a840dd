#include "tulo-cm/terminal.h"

#include <QVector>

#include <algorithm>
#include <cwchar>

#include <sys/ioctl.h>
#include <unistd.h>

namespace tulo {

TerminalSize terminalSize(int descriptor)
{
    winsize window = {};
    (void)::ioctl(descriptor, TIOCGWINSZ, &window);
    const auto orNamed = [](int number, const char* variable) {
        return number > 0 ? number : std::max(0, qEnvironmentVariableIntValue(variable));
    };
    return { orNamed(window.ws_col, "COLUMNS"), orNamed(window.ws_row, "LINES") };
}

bool isDumbTerminal()
{
    return qgetenv("TERM") == "dumb";
}

// ---------------------------------------------------------------------------------------------
// Columns.
// ---------------------------------------------------------------------------------------------

namespace {

int widthOf(uint character)
{
    const int columns = ::wcwidth(wchar_t(character));
    return columns < 0 ? 1 : columns;
}

QString joined(QVector<uint>::const_iterator begin, QVector<uint>::const_iterator end)
{
    return QString::fromUcs4(&*begin, int(end - begin));
}

} // namespace

int widthOf(const QString& text)
{
    int width = 0;
    const QVector<uint> characters = text.toUcs4();
    for (const uint character : characters)
        width += widthOf(character);
    return width;
}

QString shortened(const QString& text, int columns, bool keepsEnd)
{
    if (widthOf(text) <= columns)
        return text;
    if (columns < 1)
        return QString();
    const QString ellipsis = QStringLiteral("\u2026");
    const QVector<uint> characters = text.toUcs4();
    int width = widthOf(ellipsis);
    if (keepsEnd) {
        auto begin = characters.cend();
        // A character that combines is taken together with the one before it.
        for (auto next = begin; next != characters.cbegin();) {
            --next;
            width += widthOf(*next);
            if (width > columns)
                break;
            if (widthOf(*next) > 0)
                begin = next;
        }
        return ellipsis
            + (begin == characters.cend() ? QString() : joined(begin, characters.cend()));
    }
    auto end = characters.cbegin();
    while (width + widthOf(*end) <= columns)
        width += widthOf(*end++);
    return (end == characters.cbegin() ? QString() : joined(characters.cbegin(), end)) + ellipsis;
}

// ---------------------------------------------------------------------------------------------
// Colours.
// ---------------------------------------------------------------------------------------------

namespace {

const char* sequenceOf(Style style)
{
    switch (style) {
    case Style::Plain:
        break;
    case Style::Heading:
    case Style::Changed:
        return "\x1b[1m";
    case Style::Directory:
        return "\x1b[1;34m";
    case Style::ReadOnly:
        return "\x1b[2m";
    case Style::Warning:
        return "\x1b[33m";
    case Style::Error:
        return "\x1b[31m";
    }
    return "";
}

} // namespace

QString styled(const QString& text, Style style)
{
    if (style == Style::Plain || text.isEmpty())
        return text;
    return QLatin1String(sequenceOf(style)) + text + QLatin1String(plainSequence);
}

bool usesColours(Colours colours, int descriptor)
{
    if (colours != Colours::Auto)
        return colours == Colours::Always;
    return qEnvironmentVariableIsEmpty("NO_COLOR") && !isDumbTerminal()
        && ::isatty(descriptor) == 1;
}

} // namespace tulo
