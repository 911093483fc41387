#pragma once

#include <QAbstractScrollArea>
#include <QPoint>

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
//    "Copy" and "Paste". The wheel and the scroll bar move through the
//    scrollback; new output returns the view to the bottom only if it was
//    there.
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
    void scrollContentsBy(int dx, int dy) override;

private:
    void onScreenChanged();
    void updateGrid();
    QPoint cellAt(const QPoint &position) const;
    bool selected(int row, int column) const;

    ConsoleTerminal *m_terminal;
    int m_cellWidth = 8;
    int m_cellHeight = 16;
    int m_ascent = 12;
    bool m_selecting = false;
    bool m_hasSelection = false;
    QPoint m_anchor; // (column, row)
    QPoint m_end;
};
