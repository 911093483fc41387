#include "terminal_screen.h"
#include "terminal_screen_p.h"

#include <vterm.h>

#include <algorithm>
#include <cstring>

using namespace terminal_screen;

// libvterm calls back with C function pointers; these forward to the object.
struct TerminalScreenCallbacks
{
    static TerminalScreen *self(void *user) { return static_cast<TerminalScreen *>(user); }

    static int putglyph(VTermGlyphInfo *info, VTermPos pos, void *user)
    {
        self(user)->putGlyph(info->chars, info->width, info->protected_cell, pos.row, pos.col);
        return 1;
    }
    static int movecursor(VTermPos pos, VTermPos old, int, void *user)
    {
        self(user)->moveCursor(pos.row, pos.col, old.row, old.col);
        return 1;
    }
    static int scrollrect(VTermRect rect, int downward, int rightward, void *user)
    {
        return self(user)->scrollRect(
            rect.start_row, rect.end_row, rect.start_col, rect.end_col, downward, rightward);
    }
    static int moverect(VTermRect dest, VTermRect src, void *user)
    {
        self(user)->moveRect(dest.start_row, dest.start_col, src.start_row, src.start_col,
            dest.end_row - dest.start_row, dest.end_col - dest.start_col);
        return 1;
    }
    static int erase(VTermRect rect, int selective, void *user)
    {
        self(user)->erase(rect.start_row, rect.end_row, rect.start_col, rect.end_col, selective != 0);
        return 1;
    }
    static int initpen(void *user)
    {
        TerminalScreen *screen = self(user);
        VTermColor fg;
        VTermColor bg;
        vterm_state_get_default_colors(screen->m_state, &fg, &bg);
        screen->m_pen
            = TerminalScreen::Stored { 0, packColour(fg), packColour(bg), 1, DefaultFg | DefaultBg };
        return 1;
    }
    static int setpenattr(VTermAttr attr, VTermValue *value, void *user)
    {
        auto &pen = self(user)->m_pen;
        const auto flag
            = [&pen](quint8 bit, bool on) { pen.attrs = on ? (pen.attrs | bit) : (pen.attrs & ~bit); };
        switch (attr) {
        case VTERM_ATTR_BOLD:
            flag(Bold, value->boolean);
            break;
        case VTERM_ATTR_UNDERLINE:
            flag(Underline, value->number != 0);
            break;
        case VTERM_ATTR_ITALIC:
            flag(Italic, value->boolean);
            break;
        case VTERM_ATTR_REVERSE:
            flag(Reverse, value->boolean);
            break;
        case VTERM_ATTR_FOREGROUND:
            pen.fg = packColour(value->color);
            flag(DefaultFg, VTERM_COLOR_IS_DEFAULT_FG(&value->color));
            break;
        case VTERM_ATTR_BACKGROUND:
            pen.bg = packColour(value->color);
            flag(DefaultBg, VTERM_COLOR_IS_DEFAULT_BG(&value->color));
            break;
        default:
            break;
        }
        return 1;
    }
    static int settermprop(VTermProp prop, VTermValue *value, void *user)
    {
        TerminalScreen *screen = self(user);
        switch (prop) {
        case VTERM_PROP_CURSORVISIBLE:
            screen->m_cursorVisible = value->boolean;
            break;
        case VTERM_PROP_ALTSCREEN:
            // libvterm erases the alternate screen itself after the switch.
            if (screen->m_altScreen != bool(value->boolean))
                ++screen->m_epoch;
            screen->m_altScreen = value->boolean;
            screen->m_wrapNext = false;
            break;
        case VTERM_PROP_TITLE:
            screen->m_title = QString::fromUtf8(value->string);
            break;
        case VTERM_PROP_MOUSE:
            screen->m_mouse = value->number == VTERM_PROP_MOUSE_CLICK ? TerminalScreen::Mouse::Click
                : value->number == VTERM_PROP_MOUSE_DRAG              ? TerminalScreen::Mouse::Drag
                : value->number == VTERM_PROP_MOUSE_MOVE              ? TerminalScreen::Mouse::Move
                                                                      : TerminalScreen::Mouse::None;
            break;
        default:
            break;
        }
        return 1;
    }
    static int resize(int rows, int columns, VTermPos *delta, void *user)
    {
        self(user)->onResize(rows, columns, &delta->row, &delta->col);
        return 1;
    }
    static int setlineinfo(int, const VTermLineInfo *, const VTermLineInfo *, void *) { return 1; }
    static void output(const char *bytes, size_t length, void *user)
    {
        self(user)->m_output.append(bytes, qsizetype(length));
    }
};

namespace {
const VTermStateCallbacks stateCallbacks = {
    TerminalScreenCallbacks::putglyph,
    TerminalScreenCallbacks::movecursor,
    TerminalScreenCallbacks::scrollrect,
    TerminalScreenCallbacks::moverect,
    TerminalScreenCallbacks::erase,
    TerminalScreenCallbacks::initpen,
    TerminalScreenCallbacks::setpenattr,
    TerminalScreenCallbacks::settermprop,
    nullptr, // bell
    TerminalScreenCallbacks::resize,
    TerminalScreenCallbacks::setlineinfo,
};
} // namespace

TerminalScreen::TerminalScreen(int rows, int columns, int scrollbackLines)
    : m_rows(qMax(minimumRows, rows))
    , m_columns(qMax(minimumColumns, columns))
    , m_scrollbackLimit(qMax(0, scrollbackLines))
{
    create(m_rows, m_columns);
}

TerminalScreen::~TerminalScreen()
{
    vterm_free(m_vt);
}

void TerminalScreen::create(int rows, int columns)
{
    if (m_vt)
        vterm_free(m_vt);
    m_vt = vterm_new(rows, columns);
    vterm_set_utf8(m_vt, 1);
    vterm_output_set_callback(m_vt, &TerminalScreenCallbacks::output, this);
    m_state = vterm_obtain_state(m_vt);
    m_cursorVisible = true;
    m_altScreen = false;
    m_mouse = Mouse::None;
    m_wrapNext = false;
    m_title.clear();
    VTermColor fg;
    VTermColor bg;
    vterm_state_get_default_colors(m_state, &fg, &bg);
    m_pen = Stored { 0, packColour(fg), packColour(bg), 1, DefaultFg | DefaultBg };
    for (Lines *lines : { &m_primary, &m_alt }) {
        lines->assign(size_t(rows), Line {});
        for (Line &line : *lines)
            blankLine(line);
    }
    vterm_state_set_callbacks(m_state, &stateCallbacks, this);
    // Bold blue directories and the like in the bright colour, as xterm shows them.
    vterm_state_set_bold_highbright(m_state, 1);
    vterm_state_reset(m_state, 1);
    m_defaultFg = rgbOf(m_state, packColour(fg));
    m_defaultBg = rgbOf(m_state, packColour(bg));
    primeRepeat();
    ++m_epoch;
}

void TerminalScreen::primeRepeat()
{
    // libvterm 0.1.4 loops for ever on REP (CSI b) when nothing has been
    // printed since a reset; a blank printed and taken back gives it a
    // character to repeat and leaves the screen as it was.
    vterm_input_write(m_vt, " \r", 2);
}

namespace {
// How many bytes at the end of data begin a UTF-8 sequence that the data
// does not finish.
qsizetype unfinishedUtf8(const char *data, qsizetype size)
{
    for (qsizetype back = 1; back <= 3 && back <= size; ++back) {
        const auto c = uchar(data[size - back]);
        if ((c & 0xC0) == 0x80)
            continue; // a continuation byte: look further back for its lead
        const qsizetype needed = (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 1;
        return needed > back ? back : 0;
    }
    return 0;
}
// libvterm 0.1.4 takes a C1 control sent as UTF-8 (U+0080 to U+009F) for a
// glyph of width -1: it moves the cursor back and leaves a cell as wide as
// nothing else. There is nothing to show, so those two bytes are dropped.
bool dropUtf8C1(QByteArrayView data, QByteArray *out)
{
    const char *begin = data.data();
    const char *end = begin + data.size();
    const char *copied = begin;
    for (const char *at = begin; at + 1 < end; ++at) {
        at = static_cast<const char *>(std::memchr(at, 0xc2, size_t(end - at - 1)));
        if (!at)
            break;
        if (uchar(at[1]) < 0x80 || uchar(at[1]) > 0x9f)
            continue;
        out->append(copied, at - copied);
        copied = at + 2;
        ++at;
    }
    if (copied == begin)
        return false;
    out->append(copied, end - copied);
    return true;
}
} // namespace

void TerminalScreen::feed(const QByteArray &bytes)
{
    if (bytes.isEmpty())
        return;
    // libvterm takes a character split between two writes for two bad ones,
    // and the network splits blocks anywhere: the unfinished end waits for
    // the next block.
    QByteArray joined;
    const QByteArray *input = &bytes;
    if (!m_partial.isEmpty()) {
        joined = m_partial + bytes;
        m_partial.clear();
        input = &joined;
    }
    const qsizetype held = unfinishedUtf8(input->constData(), input->size());
    if (held > 0)
        m_partial = input->right(held);
    // What libvterm gets: the complete characters, past the guards. It is
    // only ever handed whole buffers or pieces of one, so it must not read
    // past a piece's end: ControlStringGuard sees to that.
    QByteArrayView send(input->constData(), input->size() - held);
    QByteArray capped;
    if (m_guard.cap(send.data(), send.size(), &capped))
        send = capped;
    QByteArray guarded;
    if (m_strings.cap(send.data(), send.size(), &guarded))
        send = guarded;
    QByteArray printable;
    if (dropUtf8C1(send, &printable))
        send = printable;
    // Each REP (CSI Ps b) and each full reset (ESC c) ends a write of its
    // own. A reset makes libvterm forget the last character again; a REP is
    // checked against the glyph it would repeat: libvterm 0.1.4 prints that
    // glyph until the cursor has moved Ps columns, and a glyph of no width (a
    // combining character with nothing to join, a C1 control sent as UTF-8,
    // which it takes for width -1) never moves it, so the loop runs for ever
    // or 2^31 times. Such a REP ends with CAN instead, which closes the
    // sequence with nothing done: there is nothing visible to repeat.
    qsizetype from = 0;
    while (from < send.size()) {
        bool repeat = false;
        const qsizetype stop = nextStop(send, from, &repeat);
        if (stop < 0) {
            vterm_input_write(m_vt, send.data() + from, size_t(send.size() - from));
            break;
        }
        if (!repeat) {
            vterm_input_write(m_vt, send.data() + from, size_t(stop + 1 - from));
            primeRepeat();
        } else {
            vterm_input_write(m_vt, send.data() + from, size_t(stop - from));
            vterm_input_write(m_vt, m_lastGlyphWidth > 0 ? "b" : "\x18", 1);
        }
        from = stop + 1;
    }
    ++m_generation;
}

// The index in data of the next REP's final byte (*repeat true) or of the
// "c" of the next ESC c, from `from` on; -1 when there is none. The scan
// follows libvterm's parser as CsiParameterCap does, across blocks.
qsizetype TerminalScreen::nextStop(QByteArrayView data, qsizetype from, bool *repeat)
{
    for (qsizetype i = from; i < data.size(); ++i) {
        const auto c = uchar(data[i]);
        if (m_sequence == Sequence::None) {
            i = nextEscape(data.data(), i, data.size());
            if (i < 0)
                return -1;
            m_sequence = Sequence::Escape;
            continue;
        }
        if (c == 0x1b) {
            m_sequence = Sequence::Escape;
            continue;
        }
        if (c == 0x18 || c == 0x1a) {
            m_sequence = Sequence::None;
            continue;
        }
        if (c < 0x20 || c >= 0x7f) {
            if (m_sequence == Sequence::Escape)
                m_sequence = Sequence::Intermediate; // only ESC right before c is a reset
            continue;
        }
        if (m_sequence == Sequence::Escape || m_sequence == Sequence::Intermediate) {
            if (c < 0x30) {
                m_sequence = Sequence::Intermediate; // ESC # c and the like are no reset
                continue;
            }
            const bool reset = c == 'c' && m_sequence == Sequence::Escape;
            m_sequence = c == '[' ? Sequence::Csi : Sequence::None;
            if (reset)
                return i;
            continue;
        }
        if (c >= 0x40) {
            m_sequence = Sequence::None;
            if (c == 'b') {
                *repeat = true;
                return i;
            }
        }
    }
    return -1;
}

void TerminalScreen::resize(int rows, int columns)
{
    rows = qMax(minimumRows, rows);
    columns = qMax(minimumColumns, columns);
    if (rows == m_rows && columns == m_columns)
        return;
    vterm_set_size(m_vt, rows, columns);
    // libvterm 0.1.4 keeps the saved cursor (DECSC) where it was, which may
    // now be off the screen; the next DECRC would write outside it. The
    // cursor is put back on the screen and saved there; programs redraw
    // after a resize anyway.
    VTermPos cursor;
    vterm_state_get_cursorpos(m_state, &cursor);
    QByteArray fix;
    if (cursor.row < 0 || cursor.row >= rows || cursor.col < 0 || cursor.col > columns) {
        fix = "\x1b[?6l\x1b[" + QByteArray::number(qBound(0, cursor.row, rows - 1) + 1) + ';'
            + QByteArray::number(qBound(0, cursor.col, columns - 1) + 1) + 'H';
    }
    // It also keeps a scroll region whose top is now below the last row,
    // and the next line feed then scrolls a rectangle of negative height
    // (a crash). The region goes back to the whole screen, as xterm does on
    // a resize; DECSTBM homes the cursor, so it is saved and restored round it.
    fix += "\x1b"
           "7\x1b[r\x1b"
           "8";
    vterm_input_write(m_vt, fix.constData(), size_t(fix.size()));
    ++m_generation;
}

void TerminalScreen::reset()
{
    m_partial.clear();
    m_guard = CsiParameterCap();
    m_strings = ControlStringGuard();
    m_sequence = Sequence::None;
    m_scrollback.clear();
    m_pushed = 0;
    m_starLogged = -1;
    m_starLines.clear();
    create(m_rows, m_columns);
    ++m_generation;
}

void TerminalScreen::setScrollbackLimit(int lines)
{
    m_scrollbackLimit = qMax(0, lines);
    while (int(m_scrollback.size()) > m_scrollbackLimit)
        m_scrollback.pop_front();
    ++m_generation;
}

TerminalScreen::Stored TerminalScreen::blankCell() const
{
    // Erased cells take the pen's colours (xterm's background colour erase)
    // and none of its other attributes.
    return Stored { 0, m_pen.fg, m_pen.bg, 1, quint8(m_pen.attrs & (DefaultFg | DefaultBg)) };
}

void TerminalScreen::blankLine(Line &line) const
{
    line.cells.assign(size_t(m_columns), blankCell());
    line.wrapped = false;
}

void TerminalScreen::pushLine(Line &line)
{
    // The line's cells move into the scrollback as they are, and the line
    // gets the oldest scrollback line's storage (or none) in return: a flood
    // scrolls without copying or allocating. The caller blanks the line.
    ++m_pushed;
    if (m_scrollbackLimit == 0)
        return;
    Line recycled;
    if (int(m_scrollback.size()) >= m_scrollbackLimit) {
        recycled = std::move(m_scrollback.front());
        m_scrollback.pop_front();
    }
    m_scrollback.push_back(std::move(line));
    line = std::move(recycled);
}

void TerminalScreen::putGlyph(const uint32_t *chars, int width, bool protectedCell, int row, int column)
{
    m_lastGlyphWidth = width;
    Lines &lines = active();
    if (row < 0 || row >= int(lines.size()) || column < 0 || column >= m_columns)
        return;
    std::vector<Stored> &cells = lines[size_t(row)].cells;
    // Writing over half of a wide character leaves a blank in its other half.
    if (cells[size_t(column)].width == 0 && column > 0)
        cells[size_t(column - 1)] = Stored { 0, cells[size_t(column - 1)].fg, cells[size_t(column - 1)].bg, 1,
            cells[size_t(column - 1)].attrs };
    const int end = qMin(column + qMax(1, width), m_columns);
    if (end < m_columns && cells[size_t(end)].width == 0)
        cells[size_t(end)]
            = Stored { 0, cells[size_t(end)].fg, cells[size_t(end)].bg, 1, cells[size_t(end)].attrs };
    Stored cell = m_pen;
    cell.ch = chars[0];
    cell.width = quint8(qMax(1, width));
    if (protectedCell)
        cell.attrs |= Protected;
    cells[size_t(column)] = cell;
    cell.ch = 0;
    cell.width = 0; // the right half of a wide character
    for (int c = column + 1; c < end; ++c)
        cells[size_t(c)] = cell;
    // A glyph at the start of the row below the one that filled the last
    // column is the terminal's own wrap.
    if (m_wrapNext && column == 0 && row == m_lastGlyphRow + 1) {
        if (m_lastGlyphRow >= 0)
            lines[size_t(m_lastGlyphRow)].wrapped = true;
        else if (m_lastGlyphRow >= -scrollbackCount())
            m_scrollback[size_t(scrollbackCount() + m_lastGlyphRow)].wrapped = true;
    }
    m_wrapNext = end == m_columns;
    m_lastGlyphRow = row;
}

void TerminalScreen::moveCursor(int row, int column, int oldRow, int oldColumn)
{
    // The cursor rests on the last column while a wrap is pending.
    if (m_wrapNext && (row != m_lastGlyphRow || column != m_columns - 1))
        m_wrapNext = false;
    // A carriage return, or the cursor going to another row, ends the line.
    if (row != oldRow || (column == 0 && oldColumn != 0))
        lineEnded(oldRow);
}

bool TerminalScreen::scrollRect(int top, int bottom, int left, int right, int downward, int rightward)
{
    // Whole rows scroll by rotating them; anything narrower is left to
    // libvterm, which then moves and erases rectangles.
    Lines &lines = active();
    if (rightward != 0 || left != 0 || right != m_columns || top < 0 || bottom > int(lines.size())
        || top >= bottom)
        return false;
    const int height = bottom - top;
    const int count = qMin(qAbs(downward), height);
    // A line feed on the last row ends its line; a wrap (pending after the
    // last column) does not.
    if (downward == 1 && !m_wrapNext && cursorRow() == bottom - 1)
        lineEnded(bottom - 1);
    if (downward > 0) {
        if (top == 0 && !m_altScreen) {
            for (int i = 0; i < count; ++i)
                pushLine(lines[size_t(i)]);
        }
        std::rotate(lines.begin() + top, lines.begin() + top + count, lines.begin() + bottom);
        for (int i = bottom - count; i < bottom; ++i)
            blankLine(lines[size_t(i)]);
    } else {
        std::rotate(lines.begin() + top, lines.begin() + bottom - count, lines.begin() + bottom);
        for (int i = top; i < top + count; ++i)
            blankLine(lines[size_t(i)]);
    }
    if (m_lastGlyphRow >= top && m_lastGlyphRow < bottom) {
        m_lastGlyphRow -= downward;
        if (m_lastGlyphRow >= bottom || (m_lastGlyphRow < top && (top != 0 || m_altScreen)))
            m_wrapNext = false;
    }
    return true;
}

void TerminalScreen::moveRect(int destTop, int destLeft, int srcTop, int srcLeft, int height, int width)
{
    Lines &lines = active();
    if (height <= 0 || width <= 0 || destLeft < 0 || srcLeft < 0 || destLeft + width > m_columns
        || srcLeft + width > m_columns || qMin(destTop, srcTop) < 0
        || qMax(destTop, srcTop) + height > int(lines.size()))
        return;
    const bool upwards = destTop <= srcTop;
    for (int k = 0; k < height; ++k) {
        const int i = upwards ? k : height - 1 - k;
        Line &dest = lines[size_t(destTop + i)];
        const Line &src = lines[size_t(srcTop + i)];
        std::memmove(
            &dest.cells[size_t(destLeft)], &src.cells[size_t(srcLeft)], size_t(width) * sizeof(Stored));
        if (width == m_columns)
            dest.wrapped = src.wrapped;
    }
    m_wrapNext = false;
}

void TerminalScreen::erase(int top, int bottom, int left, int right, bool selective)
{
    Lines &lines = active();
    const Stored cleared = blankCell();
    for (int row = qMax(0, top); row < qMin(bottom, int(lines.size())); ++row) {
        Line &line = lines[size_t(row)];
        for (int column = qMax(0, left); column < qMin(right, m_columns); ++column) {
            Stored &cell = line.cells[size_t(column)];
            if (!selective || !(cell.attrs & Protected))
                cell = cleared;
        }
        if (right >= m_columns)
            line.wrapped = false;
    }
}

void TerminalScreen::resizeLines(
    Lines &lines, bool isActive, bool keepsScrollback, int rows, int columns, int *rowDelta)
{
    int cursor = cursorRow();
    if (rows < int(lines.size())) {
        // Blank rows below the cursor go first, then rows off the top.
        while (int(lines.size()) > rows && (!isActive || int(lines.size()) - 1 > cursor)) {
            const Line &last = lines.back();
            if (std::any_of(
                    last.cells.begin(), last.cells.end(), [](const Stored &c) { return !blank(c.ch); }))
                break;
            lines.pop_back();
        }
        const int excess = int(lines.size()) - rows;
        if (excess > 0) {
            for (int i = 0; i < excess && keepsScrollback; ++i)
                pushLine(lines[size_t(i)]);
            lines.erase(lines.begin(), lines.begin() + excess);
            if (isActive)
                *rowDelta -= excess;
        }
    } else if (rows > int(lines.size())) {
        // A taller screen takes its top back from the scrollback.
        while (keepsScrollback && isActive && rows > int(lines.size()) && !m_scrollback.empty()) {
            lines.insert(lines.begin(), std::move(m_scrollback.back()));
            m_scrollback.pop_back();
            --m_pushed;
            ++*rowDelta;
        }
        while (rows > int(lines.size()))
            lines.emplace_back();
    }
    const Stored fill { 0, m_pen.fg, m_pen.bg, 1, quint8(m_pen.attrs & (DefaultFg | DefaultBg)) };
    for (Line &line : lines) {
        line.cells.resize(size_t(columns), fill);
        // A wide character cut in half by the new edge becomes a blank.
        if (!line.cells.empty() && line.cells.back().width == 2)
            line.cells.back() = fill;
        if (int(line.cells.size()) < columns)
            line.wrapped = false;
    }
}

void TerminalScreen::onResize(int rows, int columns, int *rowDelta, int *columnDelta)
{
    const Stored pen = m_pen;
    m_pen.attrs |= DefaultFg | DefaultBg; // new space is blank, whatever the pen
    VTermColor fg;
    VTermColor bg;
    vterm_state_get_default_colors(m_state, &fg, &bg);
    m_pen.fg = packColour(fg);
    m_pen.bg = packColour(bg);
    if (columns != m_columns && !m_altScreen)
        reflow(rows, columns, rowDelta, columnDelta);
    else
        resizeLines(m_primary, !m_altScreen, true, rows, columns, rowDelta);
    int unused = 0;
    resizeLines(m_alt, m_altScreen, false, rows, columns, m_altScreen ? rowDelta : &unused);
    m_pen = pen;
    m_rows = rows;
    m_columns = columns;
    m_wrapNext = false;
}

void TerminalScreen::reflow(int rows, int columns, int *rowDelta, int *columnDelta)
{
    // The lines the device wrote (rows the terminal wrapped joined), from the
    // oldest scrollback line to the last screen row in use, then cut again at
    // the new width. The cursor stays on its character.
    const int oldCursorRow = cursorRow();
    const int oldCursorColumn = cursorColumn();
    int lastUsed = oldCursorRow;
    for (int row = int(m_primary.size()) - 1; row > lastUsed; --row) {
        const auto &cells = m_primary[size_t(row)].cells;
        if (std::any_of(cells.begin(), cells.end(), [](const Stored &c) { return !blank(c.ch); })) {
            lastUsed = row;
            break;
        }
    }
    const int oldScrollback = scrollbackCount();
    std::vector<std::vector<Stored>> logical(1);
    size_t cursorLine = 0;
    size_t cursorOffset = 0;
    const auto take = [&](Line &line, bool cursorHere) {
        std::vector<Stored> &joined = logical.back();
        if (cursorHere) {
            cursorLine = logical.size() - 1;
            cursorOffset = joined.size() + size_t(qMax(0, oldCursorColumn));
        }
        size_t used = line.cells.size();
        if (!line.wrapped) {
            while (used > 0 && blank(line.cells[used - 1].ch) && (line.cells[used - 1].attrs & DefaultBg)
                && !(line.cells[used - 1].attrs & Reverse))
                --used;
        }
        if (joined.empty()) { // the usual case, one row: its storage moves, nothing is copied
            joined = std::move(line.cells);
            joined.resize(used);
        } else {
            joined.insert(joined.end(), line.cells.begin(), line.cells.begin() + qsizetype(used));
        }
        if (!line.wrapped)
            logical.emplace_back();
    };
    for (Line &line : m_scrollback)
        take(line, false);
    for (int row = 0; row <= lastUsed && row < int(m_primary.size()); ++row)
        take(m_primary[size_t(row)], row == oldCursorRow);
    if (logical.size() > 1 && logical.back().empty())
        logical.pop_back();

    const Stored fill = blankCell();
    std::vector<Line> cut;
    int cursorRowCut = 0;
    int cursorColumnCut = 0;
    cut.reserve(logical.size() + size_t(rows));
    for (size_t index = 0; index < logical.size(); ++index) {
        std::vector<Stored> &cells = logical[index];
        const size_t firstRow = cut.size();
        size_t at = 0;
        if (cells.size() <= size_t(columns) && index != cursorLine) {
            cells.resize(size_t(columns), fill);
            cut.push_back(Line { std::move(cells), false });
            continue;
        }
        do {
            size_t end = qMin(cells.size(), at + size_t(columns));
            // A wide character never straddles the edge: it starts the next row.
            if (end < cells.size() && end > at + 1 && cells[end - 1].width == 2)
                --end;
            Line line;
            line.cells.assign(cells.begin() + qsizetype(at), cells.begin() + qsizetype(end));
            line.cells.resize(size_t(columns), fill);
            line.wrapped = end < cells.size();
            cut.push_back(std::move(line));
            at = end;
        } while (at < cells.size());
        if (index == cursorLine) {
            // The cursor may stand past the line's end; the rows it needs are added.
            size_t offset = 0;
            size_t row = firstRow;
            for (; row + 1 < cut.size() && offset + size_t(columns) <= cursorOffset; ++row)
                offset += size_t(columns);
            while (cursorOffset - offset >= size_t(columns)) {
                cut[row].wrapped = true;
                cut.insert(cut.begin() + qsizetype(++row),
                    Line { std::vector<Stored>(size_t(columns), fill), false });
                offset += size_t(columns);
            }
            cursorRowCut = int(row);
            cursorColumnCut = int(cursorOffset - offset);
        }
    }

    // The last rows make the screen, and the cursor's row is always on it.
    int screenStart = qMax(0, int(cut.size()) - rows);
    screenStart = qMin(screenStart, cursorRowCut);
    m_scrollback.clear();
    for (int i = qMax(0, screenStart - m_scrollbackLimit); i < screenStart; ++i)
        m_scrollback.push_back(std::move(cut[size_t(i)]));
    m_primary.clear();
    for (int i = screenStart; i < screenStart + rows; ++i) {
        if (i < int(cut.size()))
            m_primary.push_back(std::move(cut[size_t(i)]));
        else
            m_primary.push_back(Line { std::vector<Stored>(size_t(columns), fill), false });
    }
    m_pushed += scrollbackCount() - oldScrollback;
    ++m_epoch; // line numbers changed: selections go
    *rowDelta += (cursorRowCut - screenStart) - oldCursorRow;
    *columnDelta += cursorColumnCut - oldCursorColumn;
}

int TerminalScreen::cursorRow() const
{
    VTermPos pos;
    vterm_state_get_cursorpos(m_state, &pos);
    return pos.row;
}

int TerminalScreen::cursorColumn() const
{
    VTermPos pos;
    vterm_state_get_cursorpos(m_state, &pos);
    return pos.col;
}

QByteArray TerminalScreen::takeOutput()
{
    QByteArray out;
    out.swap(m_output);
    return out;
}
