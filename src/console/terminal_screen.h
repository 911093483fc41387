#pragma once

#include "console/control_string_guard.h"
#include "console/csi_parameter_cap.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <Qt>

#include <deque>
#include <vector>

struct VTerm;
struct VTermState;

// Colours as 0xRRGGBB (the engine links no GUI module; QColor::fromRgb takes it).
using TerminalRgb = quint32;

// One character cell as the terminal shows it: the character (0 for an empty
// cell, and for the right half of a wide character, whose left half has
// width 2), its colours already resolved to RGB (reverse video applied by the
// painter, not here) and its attributes.
struct TerminalCell
{
    char32_t ch = 0;
    TerminalRgb fg = 0;
    TerminalRgb bg = 0;
    quint8 width = 1;
    bool bold : 1 = false;
    bool underline : 1 = false;
    bool italic : 1 = false;
    bool reverse : 1 = false;
    bool defaultBg : 1 = true;
};

// The screen state of a console in terminal mode. libvterm's state layer
// parses the stream and keeps the terminal's state (VT100, VT220 and xterm
// sequences, 256 colours and truecolour, modes, scroll regions, the
// alternate screen switch, UTF-8 and wide characters); this class keeps the
// cells it writes, in rows that a scroll rotates instead of copying, so a
// flood costs the same per line whatever the window's size. Beside that: the
// scrollback (lines that leave the top of the main screen, at most
// scrollbackLimit() of them, oldest dropped first), which rows were wrapped
// by the terminal rather than ended by the device, the answers the terminal
// owes the device (cursor reports, device attributes, keys, mouse reports)
// and the text of the screen for copying and tests.
//
// Rows are numbered from the top of the visible screen: 0 to rows() - 1 is the
// screen, -1 to -scrollbackCount() the scrollback going upwards. A row's
// absolute number (lineNumber(row)) does not change while output scrolls it
// into the scrollback, which is what a selection holds on to. No I/O and no
// widgets; a view asks for cells after feed() and repaints when generation()
// has moved on.
class TerminalScreen
{
public:
    static constexpr int defaultScrollback = 10000;
    // No view is ever smaller than this; libvterm 0.1.4 misbehaves on tiny
    // screens (a wide character on one column).
    static constexpr int minimumRows = 5;
    static constexpr int minimumColumns = 20;

    TerminalScreen(int rows = 24, int columns = 80, int scrollbackLines = defaultScrollback);
    ~TerminalScreen();
    TerminalScreen(const TerminalScreen &) = delete;
    TerminalScreen &operator=(const TerminalScreen &) = delete;

    void feed(const QByteArray &bytes);
    void resize(int rows, int columns);
    // Empties screen and scrollback and resets modes and colours.
    void reset();

    int rows() const { return m_rows; }
    int columns() const { return m_columns; }
    int scrollbackCount() const { return int(m_scrollback.size()); }
    int scrollbackLimit() const { return m_scrollbackLimit; }
    void setScrollbackLimit(int lines);

    TerminalCell cell(int row, int column) const;
    // The characters of one row, wide characters once, trailing blanks removed.
    QString rowText(int row) const;
    // True when the terminal wrapped this row into the next one (the device
    // wrote past the last column) rather than the device ending the line.
    bool wrapped(int row) const;
    // Rows first to last (inclusive) joined by "\n"; a wrapped row runs on
    // into the next one without a line break, as the device wrote it.
    QString text(int firstRow, int lastRow) const;
    // Everything from the oldest scrollback line to the cursor's row (or the
    // last row that holds text, if lower).
    QString allText() const;
    // Text between two cell positions (row, column), inclusive of the start,
    // exclusive of the end column, in reading order.
    QString selectionText(int startRow, int startColumn, int endRow, int endColumn) const;

    // Absolute line numbers: lineNumber(row) stays with the line's text as
    // output pushes it into the scrollback; rowOf() maps back (a result below
    // -scrollbackCount() means the line has left the scrollback).
    qint64 lineNumber(int row) const { return m_pushed + row; }
    qint64 rowOf(qint64 lineNumber) const { return lineNumber - m_pushed; }

    int cursorRow() const;
    int cursorColumn() const;
    bool cursorVisible() const { return m_cursorVisible; }
    bool altScreen() const { return m_altScreen; }
    QString title() const { return m_title; }
    // Moves whenever what the screen shows changes.
    quint64 generation() const { return m_generation; }
    // Moves when the screen switches between main and alternate, or resets.
    quint64 epoch() const { return m_epoch; }

    // Lines the device ended (a CR or LF, or the cursor leaving the row) whose
    // first character is "*", each once, wrapped rows joined; the console
    // copies them to the log page. Taken (and emptied) after feed(). The
    // alternate screen gives none: it is a full-screen program's canvas.
    QStringList takeStarLines();

    // Bytes the device should receive: keys, pastes and answers to its
    // queries. Taken (and emptied) after feed() and after the key calls.
    QByteArray takeOutput();
    bool hasOutput() const { return !m_output.isEmpty(); }

    // Keys in terminal mode. Returns false for a key the terminal does not
    // send anything for (the caller may then use it for itself).
    bool key(int qtKey, Qt::KeyboardModifiers modifiers, const QString &text);
    // The text as the device should get it: inside bracketed-paste markers
    // when the device asked for them, line ends as CR.
    void paste(const QString &text);

    // Mouse reporting, when the device asked for it (xterm modes 1000, 1002,
    // 1003, encoded as the device chose, 1006 included): None, or which
    // events it wants.
    enum class Mouse { None, Click, Drag, Move };
    Mouse mouseMode() const { return m_mouse; }
    // button 1 to 3, 4 and 5 for the wheel; row and column on the screen.
    void mouseButton(int row, int column, int button, bool pressed, Qt::KeyboardModifiers modifiers);
    void mouseMove(int row, int column, Qt::KeyboardModifiers modifiers);

    TerminalRgb defaultForeground() const { return m_defaultFg; }
    TerminalRgb defaultBackground() const { return m_defaultBg; }

private:
    struct Stored
    {
        char32_t ch;
        quint32 fg; // libvterm's VTermColor, as it is
        quint32 bg;
        quint8 width;
        quint8 attrs;
    };
    struct Line
    {
        std::vector<Stored> cells;
        bool wrapped = false;
    };
    using Lines = std::vector<Line>;

    void create(int rows, int columns);
    void primeRepeat();
    qsizetype nextStop(QByteArrayView data, qsizetype from, bool *repeat);
    TerminalCell fromStored(const Stored &stored) const;
    const Line *lineAt(int row) const;
    Lines &active() { return m_altScreen ? m_alt : m_primary; }
    const Lines &active() const { return m_altScreen ? m_alt : m_primary; }
    Stored blankCell() const;
    void blankLine(Line &line) const;
    void pushLine(Line &line);
    void resizeLines(Lines &lines, bool isActive, bool keepsScrollback, int rows, int columns, int *rowDelta);

    // libvterm's state calls these (through TerminalScreenCallbacks).
    void putGlyph(const uint32_t *chars, int width, bool protectedCell, int row, int column);
    void moveCursor(int row, int column, int oldRow, int oldColumn);
    void lineEnded(int row);
    bool scrollRect(int top, int bottom, int left, int right, int downward, int rightward);
    void moveRect(int destTop, int destLeft, int srcTop, int srcLeft, int height, int width);
    void erase(int top, int bottom, int left, int right, bool selective);
    void onResize(int rows, int columns, int *rowDelta, int *columnDelta);
    void reflow(int rows, int columns, int *rowDelta, int *columnDelta);

    VTerm *m_vt = nullptr;
    VTermState *m_state = nullptr;
    int m_rows;
    int m_columns;
    int m_scrollbackLimit;
    Lines m_primary;
    Lines m_alt;
    std::deque<Line> m_scrollback;
    qint64 m_pushed = 0; // lines that ever entered the scrollback
    Stored m_pen {};
    // Wrap detection: the last glyph ended in the last column at this row, and
    // the cursor has not moved away since.
    bool m_wrapNext = false;
    int m_lastGlyphRow = 0;
    QStringList m_starLines;
    qint64 m_starLogged = -1; // the line number of the last one
    QByteArray m_output;
    QByteArray m_partial; // an unfinished UTF-8 sequence at the end of the last block
    CsiParameterCap m_guard;
    ControlStringGuard m_strings;
    // Where the scan for REP and ESC c stands between blocks, and the width
    // of the glyph libvterm would repeat.
    enum class Sequence : quint8 { None, Escape, Intermediate, Csi };
    Sequence m_sequence = Sequence::None;
    int m_lastGlyphWidth = 1;
    QString m_title;
    bool m_cursorVisible = true;
    bool m_altScreen = false;
    Mouse m_mouse = Mouse::None;
    quint64 m_generation = 0;
    quint64 m_epoch = 0;
    TerminalRgb m_defaultFg;
    TerminalRgb m_defaultBg;

    friend struct TerminalScreenCallbacks;
};
