#pragma once

#include "tests/support/childprocess.h"
#include "tests/support/smalltree.h"
#include "tests/support/temporarytree.h"

#include <QStringList>

/// The program on two trees of a test's own.
class CommandLine
{
public:
    CommandLine() { writeSmallTree(tree); }

    /// `words` with the options that name the trees in front.
    QStringList arguments(const QStringList& words) const
    {
        return QStringList { QStringLiteral("--default-path"), tree.defaultPath(),
                             QStringLiteral("--write-path"), tree.writePath() }
        + words;
    }

    ChildResult run(const QStringList& words, const QByteArray& input = QByteArray()) const
    {
        return ChildProcess::run(QStringLiteral(TULO_CM_PROGRAM), arguments(words), input);
    }

    /// The words of a line without quotes.
    ChildResult run(const char* line, const QByteArray& input = QByteArray()) const
    {
        return run(QString::fromUtf8(line).split(QLatin1Char(' '), Qt::SkipEmptyParts), input);
    }

    TemporaryTree tree;
};
