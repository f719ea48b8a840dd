#include "tulo-cm/textinput.h"

#include "tulo-cm/signalhandler.h"

#include "trees/uniquefd.h"

#include <QFile>
#include <QTextCodec>

#include <cerrno>
#include <cstring>
#include <limits>

#include <fcntl.h>
#include <unistd.h>

namespace tulo {

std::optional<QString> decode(const QByteArray& bytes, const QString& what, QString* error)
{
    QTextCodec::ConverterState state;
    const QString text =
        QTextCodec::codecForName("UTF-8")->toUnicode(bytes.constData(), bytes.size(), &state);
    if (state.invalidChars == 0 && state.remainingChars == 0)
        return text;
    *error = QStringLiteral("%1 is not UTF-8").arg(what);
    return std::nullopt;
}

namespace {

QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

// Whether a call that failed was interrupted, but not for the end.
bool goesOn()
{
    return errno == EINTR && !SignalHandler::isEndRequested();
}

// Up to the end, or until it is more than `maximumBytes`. Returns false with errno.
bool readAll(int descriptor, qint64 maximumBytes, QByteArray* all)
{
    char buffer[64 * 1024];
    ssize_t count = 0;
    do {
        count = ::read(descriptor, buffer, sizeof buffer);
        if (count > 0)
            all->append(buffer, int(count));
    } while ((count > 0 && all->size() <= maximumBytes) || (count < 0 && goesOn()));
    return count >= 0;
}

} // namespace

std::optional<QString> readStandardInput(QString* error)
{
    const QString name = QStringLiteral("standard input");
    QByteArray all;
    if (readAll(STDIN_FILENO, std::numeric_limits<int>::max(), &all))
        return decode(all, name, error);
    *error = QStringLiteral("%1: %2").arg(name, systemError());
    return std::nullopt;
}

std::optional<QByteArray> readInput(const QString& fileName, qint64 maximumBytes, QString* error)
{
    QByteArray all;
    if (fileName == QLatin1String("-")) {
        if (readAll(STDIN_FILENO, maximumBytes, &all))
            return all;
        *error = QStringLiteral("standard input: %1").arg(systemError());
        return std::nullopt;
    }
    // Opening a pipe waits for its writer.
    UniqueFd file;
    do {
        file = UniqueFd(::open(QFile::encodeName(fileName).constData(), O_RDONLY | O_CLOEXEC));
    } while (!file && goesOn());
    if (file && readAll(file.get(), maximumBytes, &all))
        return all;
    *error = QStringLiteral("cannot read '%1': %2").arg(fileName, systemError());
    return std::nullopt;
}

namespace {

/// The words of a line, character by character.
class Splitter
{
public:
    explicit Splitter(const QString& line)
        : m_line(line)
    {
    }

    std::optional<QStringList> split(QString* error)
    {
        while (m_next < m_line.size()) {
            if (!takeCharacter()) {
                *error = QStringLiteral("the line ends in a backslash");
                return std::nullopt;
            }
        }
        if (!m_quote.isNull()) {
            *error = QStringLiteral("a quote is not closed");
            return std::nullopt;
        }
        endWord();
        return m_words;
    }

private:
    bool takeCharacter()
    {
        const QChar character = m_line.at(m_next++);
        if (escapes(character)) {
            if (m_next == m_line.size())
                return false;
            add(m_line.at(m_next++));
        } else if (!m_quote.isNull() && character == m_quote) {
            m_quote = QChar();
        } else if (m_quote.isNull() && isQuote(character)) {
            m_quote = character;
            m_isInWord = true;
        } else if (m_quote.isNull() && character.isSpace()) {
            endWord();
        } else {
            add(character);
        }
        return true;
    }

    bool escapes(QChar character) const
    {
        const QChar following = m_next < m_line.size() ? m_line.at(m_next) : QChar();
        const bool isMeant = m_quote.isNull()
            || (m_quote == QLatin1Char('"')
                && (following == QLatin1Char('"') || following == QLatin1Char('\\')));
        return character == QLatin1Char('\\') && isMeant;
    }

    static bool isQuote(QChar character)
    {
        return character == QLatin1Char('"') || character == QLatin1Char('\'');
    }

    void add(QChar character)
    {
        m_word += character;
        m_isInWord = true;
    }

    void endWord()
    {
        if (m_isInWord)
            m_words.append(m_word);
        m_word.clear();
        m_isInWord = false;
    }

    const QString& m_line;
    int m_next = 0;
    QChar m_quote; ///< that is open; null outside of quotes
    QStringList m_words;
    QString m_word;
    bool m_isInWord = false;
};

} // namespace

std::optional<QStringList> splitWords(const QString& line, QString* error)
{
    // No argument of a process can hold one either.
    if (line.contains(QChar())) {
        *error = QStringLiteral("the line holds a null character (U+0000)");
        return std::nullopt;
    }
    return Splitter(line).split(error);
}

} // namespace tulo
