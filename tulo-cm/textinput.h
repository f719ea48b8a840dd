#pragma once

#include <QByteArray>
#include <QChar>
#include <QString>
#include <QStringList>

#include <optional>

namespace tulo {

// Each gives none, and says in `error` what is wrong with the input.

/// Text that comes in from outside, which has to be UTF-8. `what` names it in the error.
std::optional<QString> decode(const QByteArray& bytes, const QString& what, QString* error);

/// All of standard input. A signal to end ends it.
std::optional<QString> readStandardInput(QString* error);

/// What a file holds, standard input for "-"; of one that has more than `maximumBytes`, more than
/// that. A signal to end ends it.
std::optional<QByteArray> readInput(const QString& fileName, qint64 maximumBytes, QString* error);

/// Splits a line of the shell into words at blanks. Text in '...' is taken as it is; in "..." a
/// backslash takes the mark, or itself, out of its meaning; elsewhere it does so for any
/// character. A line with U+0000 is an error.
std::optional<QStringList> splitWords(const QString& line, QString* error);

/// A line that is being typed, up to the cursor.
struct TypedLine
{
    QStringList words; ///< without quotes; the last one is being typed and may be empty
    int wordStart = 0; ///< where the last word begins in the line
    QChar quote; ///< that is open; null outside of quotes
    int quoteStart = 0; ///< where it was opened
};

/// What a backslash takes out of its meaning between "...": of the shell, and of others.
inline constexpr QLatin1String escapable("\"\\", 2);
inline constexpr QLatin1String escapableElsewhere("\"\\$`", 4);

/// Splits a line as splitWords() does, whatever is missing at its end.
TypedLine splitTyped(const QString& line, QLatin1String escapableCharacters = escapable);
/// A word, or what is left of it, as it is typed behind an open quote; null for none.
QString quoted(const QString& word, QChar quote, QLatin1String escapableCharacters = escapable);

} // namespace tulo
