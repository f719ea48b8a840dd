#pragma once

#include "tulo-cm/terminal.h"

#include <QString>
#include <QStringList>
#include <QVector>

namespace tulo {

/// One row of a table.
struct TableRow
{
    QStringList cells;
    Style style = Style::Plain; ///< a directory's colours its first cell only
    QString marks = {}; ///< in front of the cells, on a terminal
};

/// How a table is shown.
struct TableForm
{
    int columns = 0; ///< of the terminal, which no line exceeds; 0: without limit
    bool hasMarks = false;
    bool hasColours = false;
};

/// Rows of cells in aligned columns, two blanks apart, a line each. The first line is a heading
/// when `heading` is not empty. Cells are escaped here. Where they do not fit, the widest columns
/// shrink first, and the first one, which has the names, last: a cell that was cut has "…" at its
/// end or, when it is a path, at its beginning.
QStringList tableLines(const QStringList& heading, const QVector<TableRow>& rows,
                       const TableForm& form);

/// The widths of columns so that all of them take at most `available`, at least 1 each. The first
/// one shrinks when the others have little left.
QVector<int> fittedWidths(const QVector<int>& widths, int available);

} // namespace tulo
