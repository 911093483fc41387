#include "terminal_screen.h"

#include <vterm.h>

#include <cstring>

namespace {
enum StoredAttr : quint8 {
    Bold = 1,
    Underline = 2,
    Italic = 4,
    Reverse = 8,
    DefaultBg = 16,
    DefaultFg = 32,
};
constexpr uint32_t wideContinuation = 0xFFFFFFFFu;

TerminalRgb rgbOf(const VTermScreen *screen, VTermColor colour)
{
    vterm_screen_convert_color_to_rgb(screen, &colour);
    return (TerminalRgb(colour.rgb.red) << 16) | (TerminalRgb(colour.rgb.green) << 8) | colour.rgb.blue;
}

quint8 red(TerminalRgb rgb)
{
    return quint8(rgb >> 16);
}

quint8 green(TerminalRgb rgb)
{
    return quint8(rgb >> 8);
}

quint8 blue(TerminalRgb rgb)
{
    return quint8(rgb);
}

bool blank(char32_t ch)
{
    return ch == 0 || ch == U' ';
}

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

// libvterm calls back with C function pointers; these forward to the object.
struct TerminalScreenCallbacks
{
    static int movecursor(VTermPos, VTermPos, int, void *) { return 1; }

    static int settermprop(VTermProp prop, VTermValue *value, void *user)
    {
        auto *self = static_cast<TerminalScreen *>(user);
        switch (prop) {
        case VTERM_PROP_CURSORVISIBLE:
            self->m_cursorVisible = value->boolean;
            break;
        case VTERM_PROP_ALTSCREEN:
            self->m_altScreen = value->boolean;
            break;
        case VTERM_PROP_TITLE:
            self->m_title = QString::fromUtf8(value->string);
            break;
        default:
            break;
        }
        return 1;
    }

    static int pushline(int columns, const VTermScreenCell *cells, void *user)
    {
        return TerminalScreen::onPushLine(columns, cells, user);
    }

    static int popline(int columns, VTermScreenCell *cells, void *user)
    {
        return TerminalScreen::onPopLine(columns, cells, user);
    }
};

namespace {
const VTermScreenCallbacks screenCallbacks = {
    nullptr, // damage: the view repaints by generation, not by rectangle
    nullptr, // moverect
    TerminalScreenCallbacks::movecursor,
    TerminalScreenCallbacks::settermprop,
    nullptr, // bell
    nullptr, // resize
    TerminalScreenCallbacks::pushline,
    TerminalScreenCallbacks::popline,
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
    vterm_output_set_callback(m_vt, &TerminalScreen::onOutput, this);
    m_screen = vterm_obtain_screen(m_vt);
    vterm_screen_set_callbacks(m_screen, &screenCallbacks, this);
    vterm_screen_enable_altscreen(m_screen, 1);
    vterm_screen_reset(m_screen, 1);
    // Bold blue directories and the like in the bright colour, as xterm shows them.
    vterm_state_set_bold_highbright(vterm_obtain_state(m_vt), 1);
    VTermColor fg;
    VTermColor bg;
    vterm_state_get_default_colors(vterm_obtain_state(m_vt), &fg, &bg);
    m_defaultFg = rgbOf(m_screen, fg);
    m_defaultBg = rgbOf(m_screen, bg);
    m_cursorVisible = true;
    m_altScreen = false;
    m_title.clear();
    primeRepeat();
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
    // A full reset (ESC c) forgets the last character again.
    const qsizetype size = input->size() - held;
    qsizetype from = 0;
    for (qsizetype reset = input->indexOf("\x1b"
                                          "c");
         reset >= 0 && reset + 2 <= size; reset = input->indexOf("\x1b"
                                                                 "c",
                                              reset + 2)) {
        vterm_input_write(m_vt, input->constData() + from, size_t(reset + 2 - from));
        primeRepeat();
        from = reset + 2;
    }
    vterm_input_write(m_vt, input->constData() + from, size_t(size - from));
    ++m_generation;
}

void TerminalScreen::resize(int rows, int columns)
{
    rows = qMax(minimumRows, rows);
    columns = qMax(minimumColumns, columns);
    if (rows == m_rows && columns == m_columns)
        return;
    m_rows = rows;
    m_columns = columns;
    vterm_set_size(m_vt, rows, columns);
    // libvterm 0.1.4 leaves positions outside a screen that got smaller: it
    // moves the cursor up with the lines it pushes into the scrollback, past
    // the top if it was near it, and keeps the saved cursor (DECSC) where it
    // was. The next character or DECRC then writes outside the screen. So
    // the cursor goes back onto the screen, and the saved cursor becomes that
    // position; programs redraw after a resize anyway.
    VTermPos cursor;
    vterm_state_get_cursorpos(vterm_obtain_state(m_vt), &cursor);
    QByteArray fix;
    if (cursor.row < 0 || cursor.row >= rows || cursor.col < 0 || cursor.col > columns) {
        fix = "\x1b[?6l\x1b[" + QByteArray::number(qBound(0, cursor.row, rows - 1) + 1) + ';'
            + QByteArray::number(qBound(0, cursor.col, columns - 1) + 1) + 'H';
    }
    fix += "\x1b"
           "7";
    vterm_input_write(m_vt, fix.constData(), size_t(fix.size()));
    ++m_generation;
}

void TerminalScreen::reset()
{
    m_partial.clear();
    m_scrollback.clear();
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

TerminalScreen::Stored TerminalScreen::toStored(const void *vtermCell) const
{
    // Colours stay as libvterm keeps them (palette index or RGB) until a row
    // is shown: a flood pushes far more lines than anyone looks at.
    const auto *cell = static_cast<const VTermScreenCell *>(vtermCell);
    Stored stored;
    stored.ch = cell->chars[0] == wideContinuation ? 0 : cell->chars[0];
    stored.width = cell->chars[0] == wideContinuation ? 0 : quint8(cell->width);
    static_assert(sizeof(VTermColor) == sizeof(stored.fg));
    std::memcpy(&stored.fg, &cell->fg, sizeof stored.fg);
    std::memcpy(&stored.bg, &cell->bg, sizeof stored.bg);
    stored.attrs = (cell->attrs.bold ? Bold : 0) | (cell->attrs.underline ? Underline : 0)
        | (cell->attrs.italic ? Italic : 0) | (cell->attrs.reverse ? Reverse : 0)
        | (VTERM_COLOR_IS_DEFAULT_BG(&cell->bg) ? DefaultBg : 0)
        | (VTERM_COLOR_IS_DEFAULT_FG(&cell->fg) ? DefaultFg : 0);
    return stored;
}

TerminalCell TerminalScreen::fromStored(const Stored &stored) const
{
    TerminalCell cell;
    cell.ch = stored.ch;
    cell.width = stored.width;
    VTermColor fg;
    VTermColor bg;
    std::memcpy(&fg, &stored.fg, sizeof fg);
    std::memcpy(&bg, &stored.bg, sizeof bg);
    cell.fg = rgbOf(m_screen, fg);
    cell.bg = rgbOf(m_screen, bg);
    cell.bold = stored.attrs & Bold;
    cell.underline = stored.attrs & Underline;
    cell.italic = stored.attrs & Italic;
    cell.reverse = stored.attrs & Reverse;
    cell.defaultBg = stored.attrs & DefaultBg;
    return cell;
}

int TerminalScreen::onPushLine(int columns, const void *cells, void *user)
{
    auto *self = static_cast<TerminalScreen *>(user);
    if (self->m_scrollbackLimit == 0)
        return 1;
    const auto *vcells = static_cast<const VTermScreenCell *>(cells);
    // Blank cells at the end of a line cost memory and show nothing.
    int used = columns;
    while (used > 0 && blank(vcells[used - 1].chars[0]) && VTERM_COLOR_IS_DEFAULT_BG(&vcells[used - 1].bg)
        && !vcells[used - 1].attrs.reverse)
        --used;
    // A full scrollback hands its oldest line's storage to the newest.
    Line line;
    if (int(self->m_scrollback.size()) >= self->m_scrollbackLimit) {
        line = std::move(self->m_scrollback.front());
        self->m_scrollback.pop_front();
        line.clear();
    }
    line.reserve(size_t(used));
    for (int i = 0; i < used; ++i)
        line.push_back(self->toStored(&vcells[i]));
    self->m_scrollback.push_back(std::move(line));
    return 1;
}

int TerminalScreen::onPopLine(int columns, void *cells, void *user)
{
    // The screen grew taller: its top takes back the newest scrollback line.
    auto *self = static_cast<TerminalScreen *>(user);
    if (self->m_scrollback.empty())
        return 0;
    const Line line = std::move(self->m_scrollback.back());
    self->m_scrollback.pop_back();
    auto *vcells = static_cast<VTermScreenCell *>(cells);
    for (int i = 0; i < columns; ++i) {
        VTermScreenCell &cell = vcells[i];
        std::memset(&cell, 0, sizeof cell);
        cell.width = 1;
        vterm_color_rgb(&cell.fg, red(self->m_defaultFg), green(self->m_defaultFg), blue(self->m_defaultFg));
        vterm_color_rgb(&cell.bg, red(self->m_defaultBg), green(self->m_defaultBg), blue(self->m_defaultBg));
        cell.fg.type |= VTERM_COLOR_DEFAULT_FG;
        cell.bg.type |= VTERM_COLOR_DEFAULT_BG;
        if (i >= int(line.size()))
            continue;
        const Stored &stored = line[size_t(i)];
        cell.chars[0] = stored.width == 0 ? wideContinuation : uint32_t(stored.ch);
        cell.width = stored.width == 0 ? 1 : stored.width;
        std::memcpy(&cell.fg, &stored.fg, sizeof cell.fg);
        std::memcpy(&cell.bg, &stored.bg, sizeof cell.bg);
        cell.attrs.bold = (stored.attrs & Bold) != 0;
        cell.attrs.underline = (stored.attrs & Underline) != 0;
        cell.attrs.italic = (stored.attrs & Italic) != 0;
        cell.attrs.reverse = (stored.attrs & Reverse) != 0;
    }
    return 1;
}

void TerminalScreen::onOutput(const char *bytes, size_t length, void *user)
{
    static_cast<TerminalScreen *>(user)->m_output.append(bytes, qsizetype(length));
}

TerminalCell TerminalScreen::cell(int row, int column) const
{
    TerminalCell blankCell;
    blankCell.fg = m_defaultFg;
    blankCell.bg = m_defaultBg;
    if (column < 0 || row >= m_rows || row < -scrollbackCount())
        return blankCell;
    if (row < 0) {
        const Line &line = m_scrollback[size_t(scrollbackCount() + row)];
        return column < int(line.size()) ? fromStored(line[size_t(column)]) : blankCell;
    }
    if (column >= m_columns)
        return blankCell;
    VTermScreenCell vcell;
    if (!vterm_screen_get_cell(m_screen, VTermPos { row, column }, &vcell))
        return blankCell;
    return fromStored(toStored(&vcell));
}

QString TerminalScreen::rowText(int row) const
{
    QString out;
    const int width = row < 0 && row >= -scrollbackCount()
        ? int(m_scrollback[size_t(scrollbackCount() + row)].size())
        : m_columns;
    for (int column = 0; column < width; ++column) {
        const TerminalCell c = cell(row, column);
        if (c.width == 0)
            continue; // the right half of a wide character
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
        const QString line = rowText(row);
        out += line;
        if (row == lastRow)
            break;
        // A row written to its last column wrapped into the next one.
        const bool wrapped = !blank(cell(row, m_columns - 1).ch) && line.size() >= m_columns - 1;
        if (!wrapped)
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
            if (blank(cell(row, m_columns - 1).ch))
                out += QLatin1Char('\n');
        } else {
            out += line;
        }
    }
    return out;
}

int TerminalScreen::cursorRow() const
{
    VTermPos pos;
    vterm_state_get_cursorpos(vterm_obtain_state(m_vt), &pos);
    return pos.row;
}

int TerminalScreen::cursorColumn() const
{
    VTermPos pos;
    vterm_state_get_cursorpos(vterm_obtain_state(m_vt), &pos);
    return pos.col;
}

QByteArray TerminalScreen::takeOutput()
{
    QByteArray out;
    out.swap(m_output);
    return out;
}

bool TerminalScreen::key(int qtKey, Qt::KeyboardModifiers modifiers, const QString &text)
{
    int mod = VTERM_MOD_NONE;
    if (modifiers & Qt::ShiftModifier)
        mod |= VTERM_MOD_SHIFT;
    if (modifiers & Qt::AltModifier)
        mod |= VTERM_MOD_ALT;
    if (modifiers & Qt::ControlModifier)
        mod |= VTERM_MOD_CTRL;
    const auto modifier = VTermModifier(mod);

    VTermKey special = VTERM_KEY_NONE;
    switch (qtKey) {
    case Qt::Key_Return:
        special = VTERM_KEY_ENTER;
        break;
    case Qt::Key_Enter:
        special = VTERM_KEY_KP_ENTER;
        break;
    case Qt::Key_Tab:
        special = VTERM_KEY_TAB;
        break;
    case Qt::Key_Backtab:
        special = VTERM_KEY_TAB;
        break;
    case Qt::Key_Backspace:
        special = VTERM_KEY_BACKSPACE;
        break;
    case Qt::Key_Escape:
        special = VTERM_KEY_ESCAPE;
        break;
    case Qt::Key_Up:
        special = VTERM_KEY_UP;
        break;
    case Qt::Key_Down:
        special = VTERM_KEY_DOWN;
        break;
    case Qt::Key_Left:
        special = VTERM_KEY_LEFT;
        break;
    case Qt::Key_Right:
        special = VTERM_KEY_RIGHT;
        break;
    case Qt::Key_Insert:
        special = VTERM_KEY_INS;
        break;
    case Qt::Key_Delete:
        special = VTERM_KEY_DEL;
        break;
    case Qt::Key_Home:
        special = VTERM_KEY_HOME;
        break;
    case Qt::Key_End:
        special = VTERM_KEY_END;
        break;
    case Qt::Key_PageUp:
        special = VTERM_KEY_PAGEUP;
        break;
    case Qt::Key_PageDown:
        special = VTERM_KEY_PAGEDOWN;
        break;
    default:
        if (qtKey >= Qt::Key_F1 && qtKey <= Qt::Key_F12)
            special = VTermKey(VTERM_KEY_FUNCTION(qtKey - Qt::Key_F1 + 1));
        break;
    }
    if (special == VTERM_KEY_KP_ENTER)
        special = VTERM_KEY_ENTER;
    if (special != VTERM_KEY_NONE) {
        vterm_keyboard_key(m_vt, special, modifier);
        return true;
    }

    // Ctrl with a letter is its control character, whatever text the
    // platform attaches; Alt puts ESC in front, as xterm's metaSendsEscape.
    QByteArray bytes;
    if ((modifiers & Qt::ControlModifier) && qtKey >= Qt::Key_A && qtKey <= Qt::Key_Z) {
        bytes = QByteArray(1, char(qtKey - Qt::Key_A + 1));
    } else if ((modifiers & Qt::ControlModifier) && qtKey >= Qt::Key_BracketLeft
        && qtKey <= Qt::Key_Underscore) {
        bytes = QByteArray(1, char(qtKey - Qt::Key_A + 1)); // Ctrl+[ \ ] ^ _
    } else if ((modifiers & Qt::ControlModifier) && (qtKey == Qt::Key_Space || qtKey == Qt::Key_At)) {
        bytes = QByteArray(1, '\0');
    } else if (!text.isEmpty()) {
        bytes = text.toUtf8();
    } else if ((modifiers & Qt::AltModifier) && qtKey >= Qt::Key_Space && qtKey <= Qt::Key_AsciiTilde) {
        const char base = char(qtKey);
        bytes = QByteArray(
            1, (modifiers & Qt::ShiftModifier) ? base : QChar::fromLatin1(base).toLower().toLatin1());
    }
    if (bytes.isEmpty())
        return false;
    if (modifiers & Qt::AltModifier)
        bytes.prepend('\x1b');
    m_output += bytes;
    return true;
}

void TerminalScreen::paste(const QString &text)
{
    QString normalised = text;
    normalised.replace(QLatin1String("\r\n"), QLatin1String("\r"));
    normalised.replace(QLatin1Char('\n'), QLatin1Char('\r'));
    vterm_keyboard_start_paste(m_vt);
    m_output += normalised.toUtf8();
    vterm_keyboard_end_paste(m_vt);
}
