#pragma once

#include "session.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace tulo {

/// Text that comes in from outside, which has to be UTF-8. `what` names it in the failure.
Answer<QString> decode(const QByteArray& bytes, const QString& what);

/// All of standard input.
Answer<QString> readStandardInput();

/// Splits a line of the shell into words at blanks. Text in '...' is taken as it is; in "..." a
/// backslash takes the mark, or itself, out of its meaning; elsewhere it does so for any
/// character. A line with U+0000 fails.
Answer<QStringList> splitWords(const QString& line);

} // namespace tulo
