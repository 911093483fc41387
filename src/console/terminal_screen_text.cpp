#include "terminal_screen.h"
#include "terminal_screen_p.h"

// Reading the screen: cells, rows, text for copying, and the "*" lines.

using namespace terminal_screen;

namespace {
void appendChar(QString &out, char32_t ch)
{
    if (ch == 0) {
        out += QLatin1Char(' ');
    } else {
        const char32_t one[1] = { ch };
        out += QString::fromUcs4(one, 1);
    }
}
} // namespace

void TerminalScreen::lineEnded(int row)
{
    if (m_altScreen || row < 0 || row >= m_rows || wrapped(row))
        return; // a wrapped row goes on in the next one
    int start = row;
    while (start > -scrollbackCount() && wrapped(start - 1))
        --start;
    const Line *first = lineAt(start);
    if (!first || first->cells.empty() || first->cells.front().ch != U'*'
        || lineNumber(start) == m_starLogged)
        return;
    m_starLogged = lineNumber(start);
    m_starLines.append(text(start, row));
}

QStringList TerminalScreen::takeStarLines()
{
    QStringList lines;
    lines.swap(m_starLines);
    return lines;
}

const TerminalScreen::Line *TerminalScreen::lineAt(int row) const
{
    if (row < -scrollbackCount() || row >= m_rows)
        return nullptr;
    if (row < 0)
        return &m_scrollback[size_t(scrollbackCount() + row)];
    const Lines &lines = active();
    return row < int(lines.size()) ? &lines[size_t(row)] : nullptr;
}

TerminalCell TerminalScreen::fromStored(const Stored &stored) const
{
    TerminalCell cell;
    cell.ch = stored.ch;
    cell.width = stored.width;
    cell.fg = rgbOf(m_state, stored.fg);
    cell.bg = rgbOf(m_state, stored.bg);
    cell.bold = stored.attrs & Bold;
    cell.underline = stored.attrs & Underline;
    cell.italic = stored.attrs & Italic;
    cell.reverse = stored.attrs & Reverse;
    cell.defaultBg = stored.attrs & DefaultBg;
    return cell;
}

TerminalCell TerminalScreen::cell(int row, int column) const
{
    const Line *line = lineAt(row);
    if (!line || column < 0 || column >= int(line->cells.size())) {
        TerminalCell blankCell;
        blankCell.fg = m_defaultFg;
        blankCell.bg = m_defaultBg;
        return blankCell;
    }
    return fromStored(line->cells[size_t(column)]);
}

bool TerminalScreen::wrapped(int row) const
{
    const Line *line = lineAt(row);
    return line && line->wrapped;
}

QString TerminalScreen::rowText(int row) const
{
    QString out;
    const Line *line = lineAt(row);
    if (!line)
        return out;
    for (const Stored &c : line->cells) {
        if (c.width != 0) // not the right half of a wide character
            appendChar(out, c.ch);
    }
    while (out.endsWith(QLatin1Char(' ')))
        out.chop(1);
    return out;
}

QString TerminalScreen::text(int firstRow, int lastRow) const
{
    QString out;
    for (int row = firstRow; row <= lastRow; ++row) {
        out += rowText(row);
        if (row == lastRow)
            break;
        if (!wrapped(row))
            out += QLatin1Char('\n');
    }
    return out;
}

QString TerminalScreen::allText() const
{
    int last = cursorRow();
    for (int row = m_rows - 1; row > last; --row) {
        if (!rowText(row).isEmpty()) {
            last = row;
            break;
        }
    }
    return text(-scrollbackCount(), last);
}

QString TerminalScreen::selectionText(int startRow, int startColumn, int endRow, int endColumn) const
{
    if (endRow < startRow || (endRow == startRow && endColumn < startColumn)) {
        std::swap(startRow, endRow);
        std::swap(startColumn, endColumn);
    }
    QString out;
    for (int row = startRow; row <= endRow; ++row) {
        const int from = row == startRow ? startColumn : 0;
        const int to = row == endRow ? endColumn : m_columns;
        QString line;
        for (int column = qMax(0, from); column < to; ++column) {
            const TerminalCell c = cell(row, column);
            if (c.width != 0)
                appendChar(line, c.ch);
        }
        if (row != endRow) {
            while (line.endsWith(QLatin1Char(' ')))
                line.chop(1);
            out += line;
            if (!wrapped(row))
                out += QLatin1Char('\n');
        } else {
            out += line;
        }
    }
    return out;
}
