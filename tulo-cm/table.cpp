#include "tulo-cm/table.h"

#include "trees/printable.h"

#include <algorithm>
#include <numeric>

namespace tulo {
namespace {

constexpr int gap = 2;
// So that each of the other columns still shows something beside a long name.
constexpr int leastBesideName = 8;

} // namespace

QVector<int> fittedWidths(const QVector<int>& widths, int available)
{
    if (widths.isEmpty())
        return widths;
    const int besideName =
        std::accumulate(widths.cbegin() + 1, widths.cend(), 0,
                        [](int sum, int width) { return sum + std::min(width, leastBesideName); });
    // The name, then the narrow ones first. What is narrower than an equal part of what is left
    // keeps its width and leaves the rest to the others.
    QVector<int> order(widths.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin() + 1, order.end(),
                     [&widths](int left, int right) { return widths.at(left) < widths.at(right); });
    QVector<int> fitted = widths;
    int left = available;
    int count = widths.size();
    for (const int column : qAsConst(order)) {
        const int equal = left / count--;
        const int part = column == 0 ? std::max(equal, left - besideName) : equal;
        fitted[column] = std::min(widths.at(column), std::max(1, part));
        left -= fitted.at(column);
    }
    return fitted;
}

namespace {

class Table
{
public:
    Table(const QStringList& heading, const QVector<TableRow>& rows, const TableForm& form)
        : m_form(form)
    {
        measure(heading);
        for (const TableRow& row : rows) {
            measure(row.cells);
            if (m_form.hasMarks)
                m_marksWidth = std::max(m_marksWidth, row.marks.size() + 1);
        }
        // No mark, no column of marks; nor where nothing else would be seen.
        if (m_marksWidth == 1 || (isLimited() && m_marksWidth >= m_form.columns))
            m_marksWidth = 0;
        const int gaps = gap * std::max(0, m_widths.size() - 1);
        if (isLimited())
            m_widths = fittedWidths(m_widths, m_form.columns - m_marksWidth - gaps);
    }

    QString line(const TableRow& row) const
    {
        const QString marks = row.marks.leftJustified(m_marksWidth).left(m_marksWidth);
        QString text;
        for (int i = 0; i < row.cells.size(); ++i) {
            const bool isLast = i == row.cells.size() - 1;
            const QString cell = fitted(escaped(row.cells.at(i)), m_widths.at(i));
            text += isLast ? cell : padded(cell, m_widths.at(i) + gap);
        }
        if (!isLimited())
            return marks + coloured(text, row);
        // Where not even the gaps have room.
        return marks + coloured(shortened(text, m_form.columns - marks.size()), row);
    }

private:
    void measure(const QStringList& cells)
    {
        m_widths.resize(std::max(m_widths.size(), cells.size()));
        for (int i = 0; i < cells.size(); ++i)
            m_widths[i] = std::max(m_widths.at(i), widthOf(escaped(cells.at(i))));
    }

    bool isLimited() const { return m_form.columns > 0; }

    // Of a path the end tells most.
    QString fitted(const QString& cell, int width) const
    {
        return isLimited() ? shortened(cell, width, cell.startsWith(QLatin1Char('/'))) : cell;
    }

    static QString padded(const QString& text, int width)
    {
        return text + QString(std::max(0, width - widthOf(text)), QLatin1Char(' '));
    }

    // Last, so that the sequences do not count.
    QString coloured(const QString& text, const TableRow& row) const
    {
        if (!m_form.hasColours)
            return text;
        if (row.style != Style::Directory || row.cells.isEmpty())
            return styled(text, row.style);
        const QString name = fitted(escaped(row.cells.constFirst()), m_widths.constFirst());
        return text.startsWith(name) ? styled(name, row.style) + text.mid(name.size())
                                     : styled(text, row.style);
    }

    const TableForm m_form;
    QVector<int> m_widths;
    int m_marksWidth = 0; ///< with the blank behind them
};

} // namespace

QStringList tableLines(const QStringList& heading, const QVector<TableRow>& rows,
                       const TableForm& form)
{
    const Table table(heading, rows, form);
    QStringList lines;
    if (!heading.isEmpty())
        lines.append(table.line({ heading, Style::Heading }));
    for (const TableRow& row : rows)
        lines.append(table.line(row));
    return lines;
}

} // namespace tulo
