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
    Splitter(const QString& line, QLatin1String escapableCharacters)
        : m_line(line)
        , m_escapable(escapableCharacters)
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

    TypedLine splitTyped()
    {
        while (m_next < m_line.size() && takeCharacter()) { }
        const int wordStart = m_isInWord ? m_wordStart : m_line.size();
        return { m_words + QStringList(m_word), wordStart, m_quote, m_quoteStart };
    }

private:
    bool takeCharacter()
    {
        const int start = m_next;
        const QChar character = m_line.at(m_next++);
        if (escapes(character)) {
            beginWord(start);
            if (m_next == m_line.size())
                return false;
            add(m_line.at(m_next++));
        } else if (!m_quote.isNull() && character == m_quote) {
            m_quote = QChar();
        } else if (m_quote.isNull() && isQuote(character)) {
            m_quote = character;
            m_quoteStart = start;
            beginWord(start);
        } else if (m_quote.isNull() && character.isSpace()) {
            endWord();
        } else {
            beginWord(start);
            add(character);
        }
        return true;
    }

    bool escapes(QChar character) const
    {
        const QChar following = m_next < m_line.size() ? m_line.at(m_next) : QChar();
        const bool isMeant = m_quote.isNull()
            || (m_quote == QLatin1Char('"') && QString(m_escapable).contains(following));
        return character == QLatin1Char('\\') && isMeant;
    }

    static bool isQuote(QChar character)
    {
        return character == QLatin1Char('"') || character == QLatin1Char('\'');
    }

    void beginWord(int start)
    {
        if (!m_isInWord)
            m_wordStart = start;
        m_isInWord = true;
    }

    void add(QChar character) { m_word += character; }

    void endWord()
    {
        if (m_isInWord)
            m_words.append(m_word);
        m_word.clear();
        m_isInWord = false;
    }

    const QString& m_line;
    const QLatin1String m_escapable;
    int m_next = 0;
    QChar m_quote; ///< that is open; null outside of quotes
    int m_quoteStart = 0;
    QStringList m_words;
    QString m_word;
    bool m_isInWord = false;
    int m_wordStart = 0;
};

} // namespace

std::optional<QStringList> splitWords(const QString& line, QString* error)
{
    // No argument of a process can hold one either.
    if (line.contains(QChar())) {
        *error = QStringLiteral("the line holds a null character (U+0000)");
        return std::nullopt;
    }
    return Splitter(line, escapable).split(error);
}

TypedLine splitTyped(const QString& line, QLatin1String escapableCharacters)
{
    return Splitter(line, escapableCharacters).splitTyped();
}

QString quoted(const QString& word, QChar quote, QLatin1String escapableCharacters)
{
    if (quote == QLatin1Char('\''))
        return QString(word).replace(quote, QLatin1String("'\\''"));
    const QString special = quote.isNull() ? QStringLiteral(" \t\n\"'\\$`&|;<>()*?[]{}!~#")
                                           : QString(escapableCharacters);
    QString result;
    for (const QChar character : word) {
        if (special.contains(character))
            result += QLatin1Char('\\');
        result += character;
    }
    return result;
}

} // namespace tulo
