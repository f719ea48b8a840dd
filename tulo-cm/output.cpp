#include "tulo-cm/output.h"

#include "tulo-cm/pager.h"
#include "tulo-cm/progress.h"
#include "tulo-cm/signalhandler.h"

#include "client/base/checks.h"
#include "trees/plainjson.h"
#include "trees/printable.h"

#include <QRegularExpression>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <poll.h>
#include <unistd.h>

namespace tulo {

namespace {

constexpr int flushBytes = 64 * 1024;

// Writes all of `bytes`; false with errno set when that is impossible.
bool writeAll(int descriptor, const QByteArray& bytes)
{
    const char* next = bytes.constData();
    qint64 left = bytes.size();
    while (left > 0) {
        const ssize_t written = ::write(descriptor, next, size_t(left));
        if (written >= 0) {
            next += written;
            left -= written;
        } else if (errno == EAGAIN) {
            // Another process shares the descriptor and made it non-blocking.
            pollfd ready { descriptor, POLLOUT, 0 };
            ::poll(&ready, 1, -1);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

void writeError(const QByteArray& line)
{
    // A failure of standard error cannot be reported anywhere.
    (void)writeAll(STDERR_FILENO, line);
}

// Outside of strings JSON has no character that needs an escape, and inside of them these are its
// own.
QByteArray escapedJson(const QVariant& value)
{
    return escaped(QString::fromUtf8(jsonOf(value))).toUtf8();
}

// As shownInCell(), but a text as it is.
QString shown(const QVariant& role)
{
    if (!role.isValid())
        return QStringLiteral("-");
    if (role.userType() == QMetaType::QString)
        return role.toString();
    return QString::fromUtf8(jsonOf(role));
}

// Lines of a terminal that `text` takes, which ends with a line end.
int linesOf(const QByteArray& text, int columns)
{
    static const QRegularExpression colours(QStringLiteral("\x1b\\[[0-9;]*m"));
    const QString plain = QString::fromUtf8(text).remove(colours);
    int lines = plain.count(QLatin1Char('\n'));
    if (columns < 1)
        return lines;
    for (const QStringRef& line : plain.splitRef(QLatin1Char('\n')))
        lines += std::max(0, widthOf(line.toString()) - 1) / columns;
    return lines;
}

} // namespace

Output::Output(Form form)
    : m_form(form)
    , m_isTerminal(::isatty(STDOUT_FILENO) == 1)
{
    setColours(Colours::Auto);
}

Output::~Output()
{
    flush();
}

void Output::setColours(Colours colours)
{
    m_hasColours = !isJson() && usesColours(colours, STDOUT_FILENO);
    m_hasErrorColours = !isJson() && usesColours(colours, STDERR_FILENO);
    // A line that is interrupted leaves its colour.
    if (m_isTerminal)
        writeOnSignal(STDOUT_FILENO, m_hasColours ? plainSequence : nullptr);
}

void Output::line(const QString& text, Style style)
{
    Output::text(m_hasColours ? styled(escaped(text), style) : escaped(text));
}

void Output::text(const QString& text)
{
    m_pending += text.toUtf8();
    m_pending += '\n';
    if (m_pending.size() >= flushBytes)
        flush();
}

void Output::value(const QVariant& role)
{
    text(m_isTerminal ? shownInCell(role) : shown(role));
}

void Output::object(const QVariantMap& object)
{
    m_pending += escapedJson(object);
    m_pending += '\n';
    flush();
}

void Output::done(const QString& path)
{
    if (isJson())
        object({ { QStringLiteral("path"), path }, { QStringLiteral("done"), true } });
}

void Output::table(const QStringList& heading, const QVector<TableRow>& rows)
{
    TableForm form;
    form.columns = isForPeople() ? terminalSize(STDOUT_FILENO).columns : 0;
    form.hasMarks = isForPeople();
    form.hasColours = m_hasColours;
    const QStringList lines = tableLines(heading, rows, form);
    for (const QString& line : lines)
        text(line);
}

void Output::list(const QVector<QStringList>& rows)
{
    QVector<TableRow> plain;
    for (const QStringList& cells : rows)
        plain.append({ cells });
    const QStringList lines = tableLines({}, plain, {});
    for (const QString& line : lines)
        text(line);
}

void Output::prompt(const QString& text)
{
    m_pending += text.toUtf8();
    flush();
}

int Output::report(const Error& error)
{
    if (error.code == ErrorCode::InvalidPath && m_unknownPath.isEmpty())
        m_unknownPath = error.path;
    // Messages name paths percent-encoded, which nobody can read.
    QString message = error.message;
    if (!error.path.isEmpty())
        message.replace(shownPath(error.path), error.path);
    return report(describe(error.code).exitCode, describe(error.code).name, message, error.path);
}

int Output::reportUsage(const QString& message)
{
    return report(Usage, "Usage", message, QString());
}

int Output::report(int exitCode, const char* name, const QString& message, const QString& path)
{
    if (isJson()) {
        const QVariantMap error { { QStringLiteral("name"), QLatin1String(name) },
                                  { QStringLiteral("message"), message },
                                  { QStringLiteral("title"), QStringLiteral("Error") } };
        reportObject({ { QStringLiteral("error"), error }, { QStringLiteral("path"), path } });
        return exitCode;
    }
    // A message that names the path needs no second time.
    const bool needsPath = !path.isEmpty() && !message.contains(path);
    const QString place =
        m_inputLine > 0 ? QStringLiteral("line %1: ").arg(m_inputLine) : QString();
    error(place + (needsPath ? path + QLatin1String(": ") + message : message),
          exitCode == Adjusted ? Style::Warning : Style::Error);
    return exitCode;
}

void Output::reportObject(const QVariantMap& object)
{
    flush();
    if (m_errorsInPlace)
        Output::object(object);
    else
        printError(escapedJson(object) + '\n');
}

// For people: a line on standard error.
void Output::error(const QString& text, Style style)
{
    const QString line = QStringLiteral("tulo-cm: ") + escaped(text);
    printError((m_hasErrorColours ? styled(line, style) : line).toUtf8() + '\n');
}

void Output::note(const QString& text)
{
    if (isJson())
        printError(escapedJson(QVariantMap { { QStringLiteral("note"), text } }) + '\n');
    else
        error(text, Style::Plain);
}

bool Output::showsHints() const
{
    return !isJson() && ::isatty(STDERR_FILENO) == 1;
}

void Output::printError(const QByteArray& line)
{
    if (m_isPaging) {
        m_pendingErrors += line;
        return;
    }
    // First what came before, for a terminal that shows both streams.
    flush();
    announceWriting();
    const ProgressPause pause;
    writeError(line);
}

void Output::announceWriting() const
{
    if (m_beforeWriting)
        m_beforeWriting();
}

void Output::flush()
{
    if (m_isPaging)
        return;
    QByteArray results;
    results.swap(m_pending);
    if (m_closed || m_failed || results.isEmpty())
        return;
    announceWriting();
    const ProgressPause pause;
    if (writeAll(STDOUT_FILENO, results))
        return;
    m_closed = errno == EPIPE;
    m_failed = !m_closed;
    if (m_failed) {
        writeError(QByteArrayLiteral("tulo-cm: standard output: ")
                   + QByteArray(std::strerror(errno)) + '\n');
    }
}

// ---------------------------------------------------------------------------------------------
// Long results.
// ---------------------------------------------------------------------------------------------

Paging::Paging(Output& output)
    : m_output(output)
    , m_isFirst(!output.m_isPaging)
{
    if (!m_isFirst || !output.m_mayPage || !output.isForPeople() || ::isatty(STDIN_FILENO) != 1
        || isDumbTerminal())
        return;
    output.flush();
    output.m_isPaging = true;
}

Paging::~Paging()
{
    if (m_isFirst && m_output.m_isPaging)
        m_output.finishPaging();
}

void Output::finishPaging()
{
    const TerminalSize screen = terminalSize(STDOUT_FILENO);
    const QString pager = pagerCommand();
    // What is printed while the pager runs, such as an event, follows it.
    QByteArray results;
    results.swap(m_pending);
    const bool isLong = screen.rows > 0 && linesOf(results, screen.columns) >= screen.rows;
    if (!isLong || pager.isEmpty() || !showInPager(pager, results))
        m_pending.prepend(results);
    m_isPaging = false;
    flush();
    QByteArray errors;
    errors.swap(m_pendingErrors);
    if (!errors.isEmpty())
        printError(errors);
}

QString shownInCell(const QVariant& role)
{
    const QString text = shown(role);
    const QString safe = escaped(text);
    const bool isText = role.userType() == QMetaType::QString;
    const bool needsQuotes = isText && (text.isEmpty() || safe != text);
    return needsQuotes ? QString::fromUtf8(escapedJson(text)) : safe;
}

} // namespace tulo
