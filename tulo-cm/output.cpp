#include "tulo-cm/output.h"

#include "client/base/checks.h"
#include "trees/plainjson.h"
#include "trees/printable.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cwchar>

#include <poll.h>
#include <unistd.h>

namespace tulo {

namespace {

constexpr int flushBytes = 64 * 1024;
constexpr qint64 progressStartMs = 1000;
constexpr qint64 progressStepMs = 100;

const QLatin1String boldCode("\x1b[1m");
const QLatin1String blueCode("\x1b[1;34m");
const QLatin1String plainCode("\x1b[0m");

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

// Columns that a terminal uses for `text`.
int widthOf(const QString& text)
{
    int width = 0;
    const QVector<uint> characters = text.toUcs4();
    for (const uint character : characters) {
        const int columns = ::wcwidth(wchar_t(character));
        width += columns < 0 ? 1 : columns;
    }
    return width;
}

QString padded(const QString& text, int width)
{
    return text + QString(std::max(0, width - widthOf(text)), QLatin1Char(' '));
}

} // namespace

Output::Output(Form form)
    : m_form(form)
    , m_isTerminal(::isatty(STDOUT_FILENO) == 1)
    , m_colour(form == Form::Text && m_isTerminal && qEnvironmentVariableIsEmpty("NO_COLOR")
               && qgetenv("TERM") != "dumb")
{
}

Output::~Output()
{
    flush();
}

void Output::line(const QString& text)
{
    Output::text(escaped(text));
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

void Output::table(const QStringList& heading, const QVector<QStringList>& rows)
{
    QVector<int> widths(heading.size());
    const auto measure = [&widths](const QStringList& row) {
        widths.resize(std::max(widths.size(), row.size()));
        for (int i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths.at(i), widthOf(escaped(row.at(i))));
    };
    measure(heading);
    for (const QStringList& row : rows)
        measure(row);

    const auto joined = [&widths](const QStringList& row) {
        QString result;
        for (int i = 0; i < row.size(); ++i) {
            const bool isLast = i == row.size() - 1;
            const QString cell = escaped(row.at(i));
            result += isLast ? cell : padded(cell, widths.at(i) + 2);
        }
        return result;
    };
    if (!heading.isEmpty())
        text(emphasised(joined(heading)));
    for (const QStringList& row : rows) {
        const QString whole = joined(row);
        // Only now, so that the colour's own characters do not count.
        const QString name = escaped(row.value(0));
        text(name.endsWith(QLatin1Char('/')) ? directoryName(name) + whole.mid(name.size())
                                             : whole);
    }
}

QString Output::emphasised(const QString& text) const
{
    return m_colour ? boldCode + text + plainCode : text;
}

QString Output::directoryName(const QString& text) const
{
    return m_colour ? blueCode + text + plainCode : text;
}

void Output::prompt(const QString& text)
{
    m_pending += text.toUtf8();
    flush();
}

int Output::report(const Error& error)
{
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
    note(place + (needsPath ? path + QLatin1String(": ") + message : message));
    return exitCode;
}

void Output::reportObject(const QVariantMap& object)
{
    flush();
    if (m_errorsInPlace)
        Output::object(object);
    else
        writeError(escapedJson(object) + '\n');
}

void Output::note(const QString& text)
{
    // First what came before, for a terminal that shows both streams.
    flush();
    if (isJson())
        writeError(escapedJson(QVariantMap { { QStringLiteral("note"), text } }) + '\n');
    else
        writeError(QByteArrayLiteral("tulo-cm: ") + escaped(text).toUtf8() + '\n');
}

void Output::flush()
{
    if (!m_closed && !m_failed && !writeAll(STDOUT_FILENO, m_pending)) {
        m_closed = errno == EPIPE;
        m_failed = !m_closed;
        if (m_failed) {
            writeError(QByteArrayLiteral("tulo-cm: standard output: ")
                       + QByteArray(std::strerror(errno)) + '\n');
        }
    }
    m_pending.clear();
}

QString shownInCell(const QVariant& role)
{
    const QString text = shown(role);
    const QString safe = escaped(text);
    const bool isText = role.userType() == QMetaType::QString;
    const bool needsQuotes = isText && (text.isEmpty() || safe != text);
    return needsQuotes ? QString::fromUtf8(escapedJson(text)) : safe;
}

Progress::Progress(const QString& what)
    : m_what(what)
    , m_enabled(::isatty(STDERR_FILENO) == 1)
    , m_nextMs(progressStartMs)
{
    m_time.start();
}

Progress::~Progress()
{
    if (m_shown)
        writeError("\r\x1b[K");
}

void Progress::add(int count)
{
    m_count += count;
    if (!m_enabled || m_time.elapsed() < m_nextMs)
        return;
    m_shown = true;
    m_nextMs = m_time.elapsed() + progressStepMs;
    writeError(QStringLiteral("\r\x1b[K%1 %2").arg(m_count).arg(m_what).toUtf8());
}

} // namespace tulo
