#include "tests/support/terminal.h"

#include <QDeadlineTimer>
#include <QVector>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <vector>

#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vterm.h>

namespace {

winsize sizeOf(int columns, int rows)
{
    winsize size = {};
    size.ws_col = static_cast<unsigned short>(columns);
    size.ws_row = static_cast<unsigned short>(rows);
    return size;
}

// With its accents; nothing for the right half of a wide character.
QString textOf(const VTermScreenCell& cell)
{
    if (cell.chars[0] == uint32_t(-1))
        return QString();
    QVector<uint> characters;
    for (int i = 0; i < VTERM_MAX_CHARS_PER_CELL && cell.chars[i] != 0; ++i)
        characters.append(cell.chars[i]);
    return characters.isEmpty() ? QStringLiteral(" ")
                                : QString::fromUcs4(characters.constData(), characters.size());
}

QString withoutBlanks(QString row)
{
    while (row.endsWith(QLatin1Char(' ')))
        row.chop(1);
    return row;
}

} // namespace

Terminal::Terminal(int columns, int rows)
    : m_emulator(::vterm_new(rows, columns))
    , m_columns(columns)
    , m_rows(rows)
{
    ::vterm_set_utf8(m_emulator, 1);
    ::vterm_screen_enable_altscreen(::vterm_obtain_screen(m_emulator), 1);
    ::vterm_screen_reset(::vterm_obtain_screen(m_emulator), 1);
    setVariable("TERM", "xterm");
}

Terminal::~Terminal()
{
    hangUp();
    if (m_child > 0) {
        ::kill(m_child, SIGKILL);
        ::waitpid(m_child, nullptr, 0);
    }
    ::vterm_free(m_emulator);
}

void Terminal::setVariable(const QByteArray& name, const QByteArray& value)
{
    m_variables.append({ name, value });
}

void Terminal::start(const QString& program, const QStringList& arguments)
{
    std::vector<QByteArray> words { program.toUtf8() };
    for (const QString& argument : arguments)
        words.push_back(argument.toUtf8());
    std::vector<char*> argv;
    for (QByteArray& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    const winsize size = sizeOf(m_columns, m_rows);
    m_child = ::forkpty(&m_descriptor, nullptr, nullptr, &size);
    if (m_child < 0)
        qFatal("no terminal");
    if (m_child == 0) {
        for (const auto& variable : qAsConst(m_variables))
            ::setenv(variable.first.constData(), variable.second.constData(), 1);
        ::execv(argv.front(), argv.data());
        ::_exit(127);
    }
}

void Terminal::type(const QByteArray& keys)
{
    // A program that reads slowly, and writes what nobody reads meanwhile, would wait for ever.
    int written = 0;
    const QDeadlineTimer deadline(ChildProcess::waitMs);
    while (written < keys.size() && !deadline.hasExpired()) {
        pollfd terminal { m_descriptor, POLLIN | POLLOUT, 0 };
        ::poll(&terminal, 1, int(deadline.remainingTime()));
        if ((terminal.revents & POLLIN) != 0)
            (void)readUntil([] { return true; });
        if ((terminal.revents & POLLOUT) != 0) {
            const ssize_t count = ::write(m_descriptor, keys.constData() + written, 1);
            written += count > 0 ? int(count) : 0;
        }
    }
}

void Terminal::resize(int columns, int rows)
{
    // The emulator crashes on a wide character in a single column: it gets two, the program one.
    m_columns = qMax(columns, 2);
    m_rows = rows;
    ::vterm_set_size(m_emulator, rows, m_columns);
    keepCursorOnScreen();
    const winsize size = sizeOf(columns, rows);
    if (::ioctl(m_descriptor, TIOCSWINSZ, &size) != 0)
        qFatal("cannot resize the terminal");
}

// Where text below the cursor has to give way, the emulator leaves the cursor above the first row,
// and crashes on what is written there.
void Terminal::keepCursorOnScreen()
{
    VTermPos cursor;
    ::vterm_state_get_cursorpos(::vterm_obtain_state(m_emulator), &cursor);
    if (cursor.row >= 0)
        return;
    const QByteArray moveToFirstRow = "\x1b[1;" + QByteArray::number(cursor.col + 1) + 'H';
    ::vterm_input_write(m_emulator, moveToFirstRow.constData(), size_t(moveToFirstRow.size()));
}

void Terminal::hangUp()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    m_descriptor = -1;
}

void Terminal::sendSignal(int number) const
{
    ::kill(m_child, number);
}

QString Terminal::screen() const
{
    const VTermScreen* const screen = ::vterm_obtain_screen(m_emulator);
    VTermPos cursor;
    ::vterm_state_get_cursorpos(::vterm_obtain_state(m_emulator), &cursor);
    QStringList rows;
    for (int row = 0; row < m_rows; ++row) {
        QString text;
        QString beforeCursor;
        for (int column = 0; column < m_columns; ++column) {
            if (row == cursor.row && column == cursor.col)
                beforeCursor = text + QLatin1Char('|');
            VTermScreenCell cell;
            ::vterm_screen_get_cell(screen, { row, column }, &cell);
            text += textOf(cell);
        }
        const int marked = beforeCursor.size();
        rows.append(marked == 0 ? withoutBlanks(text)
                                : beforeCursor + withoutBlanks(text.mid(marked - 1)));
    }
    while (!rows.isEmpty() && rows.last().isEmpty())
        rows.removeLast();
    return rows.join(QLatin1Char('\n'));
}

// Reads what there is at least once, until `condition` holds. False when it never does.
bool Terminal::readUntil(const std::function<bool()>& condition)
{
    const QDeadlineTimer deadline(ChildProcess::waitMs);
    do {
        pollfd output { m_descriptor, POLLIN, 0 };
        char bytes[4096];
        const int ready = ::poll(&output, 1, condition() ? 0 : int(deadline.remainingTime()));
        const ssize_t count = ready > 0 ? ::read(m_descriptor, bytes, sizeof bytes) : ready;
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return condition();
        m_output.append(bytes, int(count));
        ::vterm_input_write(m_emulator, bytes, size_t(count));
        // What a terminal answers, for example where its cursor is.
        char answer[256];
        const size_t size = ::vterm_output_read(m_emulator, answer, sizeof answer);
        if (size > 0 && ::write(m_descriptor, answer, size) < 0)
            return condition();
    } while (!condition() && !deadline.hasExpired());
    return condition();
}

QString Terminal::screenSoon(const QString& expected)
{
    (void)readUntil([this, &expected] { return screen() == expected; });
    return screen();
}

bool Terminal::waitFor(const QString& text)
{
    return readUntil([this, &text] { return screen().remove(QLatin1Char('|')).contains(text); });
}

bool Terminal::waitForEnd(const QString& text)
{
    return readUntil([this, &text] { return screen().endsWith(text + QLatin1Char('|')); });
}

bool Terminal::waitForOutput(const QByteArray& text)
{
    return readUntil([this, &text] { return m_output.contains(text); });
}

QByteArray Terminal::output() const
{
    return QByteArray(m_output).replace("\r\n", "\n");
}

int Terminal::wait()
{
    // Its last words; reading fails once no process has the terminal open.
    if (m_descriptor >= 0)
        (void)readUntil([] { return false; });
    const int child = int(::syscall(SYS_pidfd_open, m_child, 0));
    pollfd ended { child, POLLIN, 0 };
    const bool hasEnded = ::poll(&ended, 1, ChildProcess::waitMs) == 1;
    ::close(child);
    if (!hasEnded)
        return -1;
    int status = 0;
    ::waitpid(m_child, &status, 0);
    m_child = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
