#include "output.h"

#include "api/core/tulojson.h"
#include "api/core/tulovalue.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cwchar>

#include <poll.h>
#include <unistd.h>

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
            // Whoever shares the descriptor made it non-blocking.
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
    // Nobody is left to be told when this fails.
    (void)writeAll(STDERR_FILENO, line);
}

bool hasControlCharacters(const QString& text)
{
    return std::any_of(text.cbegin(), text.cend(),
                       [](QChar c) { return c.category() == QChar::Other_Control; });
}

// Whatever a message quotes, it stays one line and leaves the terminal alone.
QString oneLine(QString text)
{
    for (QChar& character : text) {
        if (character.category() == QChar::Other_Control)
            character = QChar::ReplacementCharacter;
    }
    return text;
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
{
    m_colour = form == Form::Text && ::isatty(STDOUT_FILENO) == 1
        && qEnvironmentVariableIsEmpty("NO_COLOR") && qgetenv("TERM") != "dumb";
}

Output::~Output()
{
    flush();
}

void Output::line(const QString& text)
{
    m_pending += text.toUtf8();
    m_pending += '\n';
    if (m_pending.size() >= flushBytes)
        flush();
}

void Output::object(const QVariantHash& object)
{
    m_pending += TuloJson::serialize(object);
    m_pending += '\n';
    flush();
}

void Output::table(const QStringList& heading, const QVector<QStringList>& rows)
{
    QVector<int> widths(heading.size());
    const auto measure = [&widths](const QStringList& row) {
        widths.resize(std::max(widths.size(), row.size()));
        for (int i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths.at(i), widthOf(row.at(i)));
    };
    measure(heading);
    for (const QStringList& row : rows)
        measure(row);

    const auto joined = [&widths](const QStringList& row) {
        QString text;
        for (int i = 0; i < row.size(); ++i) {
            const bool isLast = i == row.size() - 1;
            text += isLast ? row.at(i) : padded(row.at(i), widths.at(i) + 2);
        }
        return text;
    };
    if (!heading.isEmpty())
        line(emphasised(joined(heading)));
    for (const QStringList& row : rows) {
        const QString text = joined(row);
        // Only now, so that the colour's own characters do not count.
        const QString name = row.value(0);
        line(name.endsWith(QLatin1Char('/')) ? directoryName(name) + text.mid(name.size()) : text);
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
            writeError(TuloJson::serialize(line) + '\n');
        return;
    }
    // A message that names the path needs no second time.
    const bool namesPath = failure.path.isEmpty() || failure.message.contains(failure.path);
    note(namesPath ? failure.message : failure.path + QStringLiteral(": ") + failure.message);
}

void Output::note(const QString& text)
{
    // First what came before, for a terminal that shows both streams.
    flush();
    if (isJson())
        writeError(TuloJson::serialize(QVariantHash { { QStringLiteral("note"), text } }) + '\n');
    else
        writeError(QByteArrayLiteral("tulo-cm: ") + oneLine(text).toUtf8() + '\n');
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

QString shown(const QVariant& role)
{
    if (!role.isValid())
        return QStringLiteral("-");
    const TuloValue value { TuloHash(role.toHash()) };
    const QVariant content = value.kind().isEmpty() ? role : value.content();
    if (content.userType() == QMetaType::QString)
        return content.toString();
    return QString::fromUtf8(TuloJson::serialize(content));
}

QString shownInCell(const QVariant& role)
{
    const QString text = shown(role);
    return hasControlCharacters(text) ? QString::fromUtf8(TuloJson::serialize(text)) : text;
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
