#include "tulo-cm/lineeditor.h"

#include "tulo-cm/linereader.h"
#include "tulo-cm/signalhandler.h"
#include "tulo-cm/terminal.h"

#include <QCoreApplication>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cwctype>
#include <iostream>
#include <streambuf>
#include <utility>

#include <histedit.h>
#include <unistd.h>

namespace tulo {

namespace {

// Lines to go back to within one shell.
constexpr int historySize = 1000;
constexpr int tabWidth = 8;

/// Where the cursor is behind a text, as libedit lays it out on rows of the screen.
class Layout
{
public:
    explicit Layout(int columns)
        : m_columns(columns)
    {
    }

    int row() const { return m_row; }

    void add(const std::wstring& text)
    {
        for (const wchar_t character : text)
            add(character);
    }

private:
    void add(wchar_t character)
    {
        if (character == L'\n')
            startRow();
        else if (character == L'\t')
            addTab();
        else if (std::iswprint(wint_t(character)) != 0)
            addCell(::wcwidth(character));
        else
            addCells(widthOfName(character));
    }

    // "^X", "\U+200B" or "\U+1F600".
    static int widthOfName(wchar_t character)
    {
        const bool isControl = character < 0x20 || character == 0x7f;
        return isControl ? 2 : character > 0xffff ? 8 : 7;
    }

    void addTab()
    {
        do
            addCell(1);
        while (m_column % tabWidth != 0);
    }

    void addCells(int count)
    {
        for (int i = 0; i < count; ++i)
            addCell(1);
    }

    void addCell(int width)
    {
        if (m_column + width > m_columns)
            startRow();
        m_column += width;
        if (m_column >= m_columns)
            startRow();
    }

    void startRow()
    {
        ++m_row;
        m_column = 0;
    }

    const int m_columns;
    int m_row = 0;
    int m_column = 0;
};

void writeTerminal(const std::string& text)
{
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

} // namespace

/// A stream of C++ that hides the line before anything is written to it.
class LineEditor::AboveLine : public std::streambuf
{
public:
    AboveLine(std::ostream& stream, LineEditor& editor)
        : m_stream(stream)
        , m_original(stream.rdbuf(this))
        , m_editor(editor)
    {
    }
    ~AboveLine() override { m_stream.rdbuf(m_original); }
    Q_DISABLE_COPY(AboveLine)

protected:
    int_type overflow(int_type character) override
    {
        hideLine();
        return m_original->sputc(traits_type::to_char_type(character));
    }

    std::streamsize xsputn(const char* text, std::streamsize size) override
    {
        hideLine();
        return m_original->sputn(text, size);
    }

    int sync() override { return m_original->pubsync(); }

private:
    void hideLine()
    {
        // Another thread cannot wait for the line: its text comes in between.
        if (QThread::currentThread() == QCoreApplication::instance()->thread())
            m_editor.hide();
    }

    std::ostream& m_stream;
    std::streambuf* const m_original;
    LineEditor& m_editor;
};

// ---------------------------------------------------------------------------------------------
// Beginning and end.
// ---------------------------------------------------------------------------------------------

bool LineEditor::isPossible()
{
    return !qEnvironmentVariableIsEmpty("TERM") && !isDumbTerminal();
}

LineEditor::LineEditor(Output& output, Completer completer)
    : m_output(output)
    , m_completer(std::move(completer))
    , m_editor(::el_init("tulo-cm", stdin, stdout, stderr))
    , m_history(::history_winit())
{
    if (m_editor == nullptr || m_history == nullptr)
        qFatal("no memory for editing lines");
    ::el_wset(m_editor, EL_CLIENTDATA, this);
    ::el_wset(m_editor, EL_PROMPT, promptOf);
    ::el_wset(m_editor, EL_GETCFN, readCharacter);
    ::el_wset(m_editor, EL_EDITOR, L"emacs");
    HistEventW event;
    ::history_w(m_history, &event, H_SETSIZE, historySize);
    ::el_wset(m_editor, EL_HIST, ::history_w, m_history);
    bindKeys();
    m_output.setBeforeWriting([this] { hide(); });
    m_standardOutput = std::make_unique<AboveLine>(std::cout, *this);
    m_standardError = std::make_unique<AboveLine>(std::cerr, *this);
}

LineEditor::~LineEditor()
{
    m_output.setBeforeWriting(nullptr);
    ::history_wend(m_history);
    ::el_end(m_editor);
}

void LineEditor::bindKeys()
{
    const wchar_t* const keys[][2] = {
        { L"^I", L"complete-word" },
        { L"^C", L"drop-line" },
        { L"^R", L"em-inc-search-prev" },
        { L"^S", L"em-inc-search-next" },
        { L"^W", L"ed-delete-prev-word" },
        { L"\\e[H", L"ed-move-to-beg" },
        { L"\\e[F", L"ed-move-to-end" },
        { L"\\e[1~", L"ed-move-to-beg" },
        { L"\\e[4~", L"ed-move-to-end" },
        { L"\\e[3~", L"ed-delete-next-char" },
        { L"\\e[1;5C", L"em-next-word" },
        { L"\\e[1;5D", L"ed-prev-word" },
        // Would take commands for libedit itself, on a separate line.
        { L"\\ex", L"ed-unassigned" },
        { L"\\eX", L"ed-unassigned" },
    };
    ::el_wset(m_editor, EL_ADDFN, L"complete-word", L"Complete the word", completeWord);
    // Typed right behind ^V it comes as a key: libedit lets no key be a signal there.
    ::el_wset(m_editor, EL_ADDFN, L"drop-line", L"Drop the line", dropLine);
    for (const auto& key : keys)
        ::el_wset(m_editor, EL_BIND, key[0], key[1], nullptr);
    // ^S is a key as any other. What is typed or pasted while a command runs, a ^C among it, shows
    // where the next line is edited, not in the middle of the command's output as well.
    ::el_wset(m_editor, EL_SETTY, L"-d", L"-ixon", nullptr);
    ::el_wset(m_editor, EL_SETTY, L"-x", L"-echo", nullptr);
}

void LineEditor::setHistory(const QStringList& lines)
{
    HistEventW event;
    ::history_w(m_history, &event, H_CLEAR);
    for (const QString& line : lines)
        ::history_w(m_history, &event, H_ENTER, line.toStdWString().c_str());
}

// ---------------------------------------------------------------------------------------------
// A line.
// ---------------------------------------------------------------------------------------------

LineEditor::Result LineEditor::next(const QString& prompt, QString* line)
{
    // Events have their turn between two lines, however fast these come.
    QCoreApplication::processEvents();
    if (SignalHandler::takeTerminalChange())
        ::el_resize(m_editor);
    m_prompt = prompt.toStdWString();
    // Before the prompt: what is typed as soon as it shows would be echoed as well.
    ::el_wset(m_editor, EL_PREP_TERM, 1);
    int length = 0;
    const wchar_t* const text = ::el_wgets(m_editor, &length);
    m_isEditing = false;
    // What comes once the line is complete is for its command.
    const bool isInterrupted =
        std::exchange(m_isDropped, false) || (text == nullptr && SignalHandler::takeInterruption());
    if (text != nullptr) {
        *line = QString::fromWCharArray(text, length);
        while (line->endsWith(QLatin1Char('\n')) || line->endsWith(QLatin1Char('\r')))
            line->chop(1);
        return Result::Line;
    }
    if (isInterrupted && !SignalHandler::isEndRequested()) {
        writeTerminal("^C\n");
        return Result::Dropped;
    }
    writeTerminal("\n");
    return Result::End;
}

const wchar_t* LineEditor::promptOf(editline* editor)
{
    LineEditor* self = nullptr;
    ::el_wget(editor, EL_CLIENTDATA, &self);
    return self->m_prompt.c_str();
}

int LineEditor::readCharacter(editline* editor, wchar_t* character)
{
    LineEditor* self = nullptr;
    ::el_wget(editor, EL_CLIENTDATA, &self);
    return self->read(character);
}

unsigned char LineEditor::completeWord(editline* editor, int)
{
    LineEditor* self = nullptr;
    ::el_wget(editor, EL_CLIENTDATA, &self);
    const LineInfoW* const line = ::el_wline(editor);
    const QString text = QString::fromWCharArray(line->buffer, int(line->cursor - line->buffer));
    const Edit edit = self->m_completer(text);
    const bool hasPrinted = self->m_isHidden;
    self->show();
    const QString removed = text.right(edit.removed);
    if (removed == edit.inserted)
        return hasPrinted ? CC_NORM : CC_ERROR;
    ::el_deletestr(editor, int(removed.toUcs4().size()));
    ::el_winsertstr(editor, edit.inserted.toStdWString().c_str());
    return CC_REFRESH;
}

unsigned char LineEditor::dropLine(editline* editor, int)
{
    LineEditor* self = nullptr;
    ::el_wget(editor, EL_CLIENTDATA, &self);
    self->moveToEnd();
    self->m_isDropped = true;
    return CC_EOF;
}

// As libedit wants it: 1 for a character, 0 at the end of the input, -1 for an error.
int LineEditor::read(wchar_t* character)
{
    m_isEditing = true;
    for (;;) {
        update();
        waitForInput([this] { update(); });
        if (SignalHandler::isEndRequested()) {
            moveToEnd();
            return -1;
        }
        // One at a time: what follows a line may be for a program that the line starts.
        char byte = 0;
        const ssize_t count = ::read(STDIN_FILENO, &byte, 1);
        if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN))
            return int(count);
        if (count > 0 && decode(byte, character))
            return 1;
    }
}

// False when more bytes are needed. What is not UTF-8 is dropped.
bool LineEditor::decode(char byte, wchar_t* character)
{
    const auto incomplete = size_t(-2);
    const auto invalid = size_t(-1);
    const bool isFirst = std::mbsinit(&m_decoder) != 0;
    const size_t size = std::mbrtowc(character, &byte, 1, &m_decoder);
    if (size != invalid)
        return size != incomplete;
    m_decoder = {};
    // It may begin a character where the one before was cut off.
    return !isFirst && decode(byte, character);
}

// ---------------------------------------------------------------------------------------------
// The line on the screen.
// ---------------------------------------------------------------------------------------------

// After each turn of the event loop.
void LineEditor::update()
{
    if (SignalHandler::takeTerminalChange()) {
        hide();
        // Another program may have set the terminal while this one was stopped.
        ::el_wset(m_editor, EL_PREP_TERM, 0);
        ::el_wset(m_editor, EL_PREP_TERM, 1);
        ::el_resize(m_editor);
    }
    show();
}

void LineEditor::hide()
{
    if (!m_isEditing || m_isHidden)
        return;
    m_isHidden = true;
    const int row = rowOfCursor();
    writeTerminal((row > 0 ? "\r\x1b[" + std::to_string(row) + "A" : std::string("\r")) + "\x1b[J");
}

void LineEditor::show()
{
    if (!m_isHidden)
        return;
    m_isHidden = false;
    ::el_wset(m_editor, EL_REFRESH);
}

// So that what follows overwrites none of the line.
void LineEditor::moveToEnd()
{
    hide();
    const LineInfoW* const line = ::el_wline(m_editor);
    ::el_cursor(m_editor, int(line->lastchar - line->cursor));
    show();
}

int LineEditor::number(const char* capability) const
{
    int value = 0;
    ::el_get(m_editor, EL_GETTC, capability, &value, nullptr);
    return value;
}

int LineEditor::rowOfCursor() const
{
    const LineInfoW* const line = ::el_wline(m_editor);
    Layout layout(std::max(number("co"), 2));
    layout.add(m_prompt);
    layout.add(std::wstring(line->buffer, line->cursor));
    return std::min(layout.row(), std::max(number("li"), 1) - 1);
}

} // namespace tulo
