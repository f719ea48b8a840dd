#pragma once

#include <QByteArray>
#include <QString>

/// The content of a file; null when it cannot be read.
[[nodiscard]] QByteArray readFile(const QString& name);
/// Makes or replaces a file, with the directories above it. Ends the program when that fails.
void writeFile(const QString& name, const QByteArray& content);
