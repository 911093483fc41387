#pragma once

#include <QAbstractScrollArea>
#include <QElapsedTimer>
#include <QPoint>

class QTimer;

class ConsoleTerminal;

// The terminal of a console in terminal mode: paints the cells of the
// console's TerminalScreen in the user's fixed-width font and turns keys and
// mouse into terminal actions. It keeps no text of its own.
//
//  - Keys go to the terminal (xterm sequences, Ctrl+letter, Alt as ESC),
//    except Ctrl+Shift+C (copy the selection), Ctrl+Shift+V (paste, bracketed
//    when the device asked for it), Shift+PgUp/PgDn (scroll back) and
//    Ctrl+Break (breakRequested(), as in the classic view).
//  - A drag selects, a double click selects a word; a right click offers
//    "Copy" and "Paste". A selection holds on to its lines: output that
//    scrolls them into the scrollback takes the selection with them; it goes
//    when its lines leave the scrollback, or the screen switches to or from
//    the alternate screen or is reset.
//  - When the device asked for mouse reports (xterm modes 1000/1002/1003,
//    1006), clicks, drags and the wheel on the live screen go to the device;
//    with Shift held they select and scroll as usual.
//  - The wheel and the scroll bar move through the scrollback. New output
//    keeps the view at the bottom if it was there, and otherwise on the same
//    lines while they scroll up.
//  - Repaints follow the screen's refresh rate, however often output comes:
//    a change after a quiet spell is painted a frame later, and a flood
//    every second frame, not once per block.
//  - gridChanged(columns, rows): the view's size in characters, for the
//    screen and the far end's pty.
class TerminalWidget : public QAbstractScrollArea
{
    Q_OBJECT
public:
    explicit TerminalWidget(ConsoleTerminal *terminal, QWidget *parent = nullptr);

    int gridColumns() const;
    int gridRows() const;
    QSize cellSize() const { return QSize(m_cellWidth, m_cellHeight); }
    QString selectedText() const;
    // Selects from (row, column) to (row, column), rows as the screen numbers them.
    void select(int startRow, int startColumn, int endRow, int endColumn);
    void copySelection();
    void pasteClipboard();
    // First visible row (0 at the bottom of the scrollback, negative above).
    int firstVisibleRow() const;

Q_SIGNALS:
    void breakRequested();
    void gridChanged(int columns, int rows);

protected:
    bool event(QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void wheelEvent(QWheelEvent *event) override;
    void scrollContentsBy(int dx, int dy) override;

private:
    void onScreenChanged();
    void refresh();
    void updateGrid();
    QPoint cellAt(const QPoint &position) const;
    bool selected(int row, int column) const;
    bool reportsMouse(Qt::KeyboardModifiers modifiers) const;
    void reportMouse(QMouseEvent *event, bool pressed);

    ConsoleTerminal *m_terminal;
    int m_cellWidth = 8;
    int m_cellHeight = 16;
    int m_ascent = 12;
    QTimer *m_frame;
    int m_frameInterval = 16; // ms, one frame of the screen the view is on
    QElapsedTimer m_sinceRefresh;
    quint64 m_painted = ~quint64(0); // the screen generation shown
    quint64 m_epoch = 0;
    qint64 m_topLine = 0; // the first visible line's number while scrolled back
    bool m_selecting = false;
    bool m_hasSelection = false;
    // Selection ends as (column, absolute line number), so they move with the text.
    int m_anchorColumn = 0;
    qint64 m_anchorLine = 0;
    int m_endColumn = 0;
    qint64 m_endLine = 0;
};
