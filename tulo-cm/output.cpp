#include "output.h"

#include "api/core/model/cmpath.h"
#include "api/core/tulojson.h"
#include "api/core/tulovalue.h"

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

// Outside of strings JSON has no character that needs an escape, and inside of them these are its
// own.
QByteArray escapedJson(const QVariant& value)
{
    return escaped(QString::fromUtf8(TuloJson::serialize(value))).toUtf8();
}

// The content of a value, or any other role itself.
QVariant contentOf(const QVariant& role)
{
    const TuloValue value { TuloHash(role.toHash()) };
    return value.kind().isEmpty() ? role : value.content();
}

// As shownInCell(), but a text as it is.
QString shown(const QVariant& role)
{
    if (!role.isValid())
        return QStringLiteral("-");
    const QVariant content = contentOf(role);
    if (content.userType() == QMetaType::QString)
        return content.toString();
    return QString::fromUtf8(TuloJson::serialize(content));
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

void Output::object(const QVariantHash& object)
{
    m_pending += escapedJson(object);
    m_pending += '\n';
    flush();
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

void Output::failure(const Failure& failure)
{
    if (isJson()) {
        const QVariantHash error { { QStringLiteral("name"), failure.name },
                                   { QStringLiteral("message"), failure.message },
                                   { QStringLiteral("title"), failure.title } };
        const QVariantHash line { { QStringLiteral("error"), error },
                                  { QStringLiteral("path"), failure.path } };
        flush();
        if (m_failuresInPlace)
            object(line);
        else
            writeError(escapedJson(line) + '\n');
        return;
    }
    // The worker's messages name paths percent-encoded, which nobody can read.
    QString message = failure.message;
    if (!failure.path.isEmpty())
        message.replace(CMPath(failure.path).toEncoded(), failure.path);
    // A message that names the path needs no second time.
    if (!failure.path.isEmpty() && !message.contains(failure.path))
        message.prepend(failure.path + QStringLiteral(": "));
    if (failure.exitCode == Usage && m_inputLine > 0)
        message.prepend(QStringLiteral("line %1: ").arg(m_inputLine));
    note(message);
}

void Output::note(const QString& text)
{
    // First what came before, for a terminal that shows both streams.
    flush();
    if (isJson())
        writeError(escapedJson(QVariantHash { { QStringLiteral("note"), text } }) + '\n');
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
    const bool isText = contentOf(role).userType() == QMetaType::QString;
    const bool needsQuotes = isText && (text.isEmpty() || safe != text);
    return needsQuotes ? QString::fromUtf8(escapedJson(text)) : safe;
}

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
