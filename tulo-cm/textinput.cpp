#include "textinput.h"

#include "commandline.h"

#include <QTextCodec>

#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace tulo {

Answer<QString> decode(const QByteArray& bytes, const QString& what)
{
    QTextCodec::ConverterState state;
    const QString text =
        QTextCodec::codecForName("UTF-8")->toUnicode(bytes.constData(), bytes.size(), &state);
    if (state.invalidChars > 0 || state.remainingChars > 0)
        return { {}, usageFailure(QStringLiteral("%1 is not UTF-8").arg(what)) };
    return { text, {} };
}

Answer<QString> readStandardInput()
{
    QByteArray all;
    char buffer[64 * 1024];
    ssize_t count = 0;
    do {
        count = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (count > 0)
            all.append(buffer, int(count));
    } while (count > 0 || (count < 0 && errno == EINTR));
    const QString name = QStringLiteral("standard input");
    if (count < 0) {
        return { {},
                 usageFailure(QStringLiteral("%1: %2").arg(
                     name, QString::fromLocal8Bit(std::strerror(errno)))) };
    }
    return decode(all, name);
}

Answer<QStringList> splitWords(const QString& line)
{
    const QChar backslash = QLatin1Char('\\');
    const QChar doubleMark = QLatin1Char('"');
    const QChar singleMark = QLatin1Char('\'');
    // Here it stands for "none", and no argument of a process can hold one.
    if (line.contains(QChar()))
        return { {}, usageFailure(QStringLiteral("the line holds a null character (U+0000)")) };
    QStringList words;
    QString word;
    bool inWord = false;
    QChar mark; // null outside of quotes
    for (int i = 0; i < line.size(); ++i) {
        const QChar character = line.at(i);
        const QChar following = i + 1 < line.size() ? line.at(i + 1) : QChar();
        const bool escapes = character == backslash
            && (mark.isNull()
                || (mark == doubleMark && (following == doubleMark || following == backslash)));
        if (escapes) {
            if (following.isNull())
                return { {}, usageFailure(QStringLiteral("the line ends in a backslash")) };
            word += following;
            inWord = true;
            ++i;
        } else if (character == mark) {
            mark = QChar();
        } else if (mark.isNull() && (character == doubleMark || character == singleMark)) {
            mark = character;
            inWord = true;
        } else if (mark.isNull() && character.isSpace()) {
            if (inWord)
                words.append(word);
            word.clear();
            inWord = false;
        } else {
            word += character;
            inWord = true;
        }
    }
    if (!mark.isNull())
        return { {}, usageFailure(QStringLiteral("a quote is not closed")) };
    if (inWord)
        words.append(word);
    return { words, {} };
}

} // namespace tulo
