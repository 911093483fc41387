#pragma once

#include <QByteArray>
#include <QString>
#include <Qt>

#include <deque>
#include <vector>

struct VTerm;
struct VTermScreen;

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

// The screen state of a console in terminal mode, kept by libvterm: VT100,
// VT220 and xterm sequences, 256 colours and truecolour, the alternate screen,
// scroll regions, UTF-8 and wide characters. This class adds what libvterm
// leaves to its user: the scrollback (lines that leave the top of the main
// screen, at most scrollbackLimit() of them, oldest dropped first), the
// answers the terminal owes the device (cursor reports, device attributes,
// key sequences) and the text of the screen for copying and tests.
//
// Rows are numbered from the top of the visible screen: 0 to rows() - 1 is the
// screen, -1 to -scrollbackCount() the scrollback going upwards. No I/O and no
// widgets; a view asks for cells after feed() and repaints when generation()
// has moved on.
class TerminalScreen
{
public:
    static constexpr int defaultScrollback = 10000;
    // libvterm 0.1.4 writes outside its buffers on very small screens (a wide
    // character on one column); no view is ever smaller than this anyway.
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
    // Rows first to last (inclusive) joined by "\n"; a row filled to its last
    // column runs on into the next one without a line break, as the device
    // wrote it.
    QString text(int firstRow, int lastRow) const;
    // Everything from the oldest scrollback line to the cursor's row (or the
    // last row that holds text, if lower).
    QString allText() const;
    // Text between two cell positions (row, column), inclusive of the start,
    // exclusive of the end column, in reading order.
    QString selectionText(int startRow, int startColumn, int endRow, int endColumn) const;

    int cursorRow() const;
    int cursorColumn() const;
    bool cursorVisible() const { return m_cursorVisible; }
    bool altScreen() const { return m_altScreen; }
    QString title() const { return m_title; }
    // Moves whenever what the screen shows changes.
    quint64 generation() const { return m_generation; }

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
    using Line = std::vector<Stored>;

    static int onDamage(int, int, int, int, void *);
    static int onPushLine(int columns, const void *cells, void *user);
    static int onPopLine(int columns, void *cells, void *user);
    static void onOutput(const char *bytes, size_t length, void *user);

    void create(int rows, int columns);
    void primeRepeat();
    TerminalCell fromStored(const Stored &stored) const;
    Stored toStored(const void *vtermCell) const;

    VTerm *m_vt = nullptr;
    VTermScreen *m_screen = nullptr;
    int m_rows;
    int m_columns;
    int m_scrollbackLimit;
    std::deque<Line> m_scrollback;
    QByteArray m_output;
    QByteArray m_partial; // an unfinished UTF-8 sequence at the end of the last block
    QString m_title;
    bool m_cursorVisible = true;
    bool m_altScreen = false;
    quint64 m_generation = 0;
    TerminalRgb m_defaultFg;
    TerminalRgb m_defaultBg;

    friend struct TerminalScreenCallbacks;
};
