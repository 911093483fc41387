#include "terminal_widget.h"

#include "console/console_terminal.h"
#include "util/mc_popup_menu.h"

#include <QApplication>
#include <QClipboard>
#include <QFontDatabase>
#include <QKeyEvent>
#include <QPainter>
#include <QScreen>
#include <QScrollBar>
#include <QTimer>
#include <cctype>

namespace {
enum PopupId { CopyId = 1, PasteId = 2 };

QColor colour(TerminalRgb rgb)
{
    return QColor::fromRgb(rgb);
}

bool wordChar(char32_t ch)
{
    if (ch == 0 || ch == U' ')
        return false;
    // Addresses, interface names and paths are one word each.
    if (ch < 128)
        return std::isalnum(int(ch)) || ch == U'.' || ch == U'/' || ch == U':' || ch == U'-' || ch == U'_'
            || ch == U'@';
    return true;
}
} // namespace

TerminalWidget::TerminalWidget(ConsoleTerminal *terminal, QWidget *parent)
    : QAbstractScrollArea(parent)
    , m_terminal(terminal)
    , m_frame(new QTimer(this))
{
    setObjectName(QStringLiteral("TerminalBox"));
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setStyleHint(QFont::TypeWriter);
    setFont(font);
    const QFontMetrics metrics(font);
    m_cellWidth = qMax(1, metrics.horizontalAdvance(QLatin1Char('M')));
    m_cellHeight = qMax(1, metrics.height());
    m_ascent = metrics.ascent();
    setFocusPolicy(Qt::StrongFocus);
    setAttribute(Qt::WA_InputMethodEnabled, true);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
    viewport()->setCursor(Qt::IBeamCursor);
    // paintEvent() covers every pixel, so nothing beneath is painted first.
    viewport()->setAutoFillBackground(false);
    viewport()->setAttribute(Qt::WA_OpaquePaintEvent);
    // One paint per frame of the screen it is on, however fast output comes.
    const qreal hz = screen() && screen()->refreshRate() > 1 ? screen()->refreshRate() : 60;
    m_frame->setSingleShot(true);
    m_frameInterval = qBound(4, qRound(1000 / hz), 50);
    connect(m_frame, &QTimer::timeout, this, &TerminalWidget::refresh);
    connect(m_terminal, &ConsoleTerminal::screenChanged, this, &TerminalWidget::onScreenChanged);
    refresh();
}

int TerminalWidget::gridColumns() const
{
    return qMax(20, viewport()->width() / m_cellWidth);
}

int TerminalWidget::gridRows() const
{
    return qMax(5, viewport()->height() / m_cellHeight);
}

int TerminalWidget::firstVisibleRow() const
{
    return verticalScrollBar()->value() - verticalScrollBar()->maximum();
}

void TerminalWidget::onScreenChanged()
{
    if (m_frame->isActive())
        return;
    // Output that keeps coming (a flood) is painted every second frame; the
    // first change after a quiet spell waits one frame.
    const int frame = m_frameInterval;
    const qint64 since = m_sinceRefresh.isValid() ? m_sinceRefresh.elapsed() : frame;
    m_frame->start(int(qMax(qint64(frame), 2 * frame - since)));
}

void TerminalWidget::refresh()
{
    m_sinceRefresh.start();
    const TerminalScreen &screen = m_terminal->screen();
    if (screen.epoch() != m_epoch) {
        m_epoch = screen.epoch();
        m_hasSelection = m_selecting = false;
    }
    if (m_hasSelection && screen.rowOf(qMin(m_anchorLine, m_endLine)) < -screen.scrollbackCount())
        m_hasSelection = m_selecting = false; // its lines have left the scrollback
    QScrollBar *bar = verticalScrollBar();
    const bool atBottom = bar->value() >= bar->maximum();
    const int count = screen.scrollbackCount();
    const int first = atBottom ? 0 : int(qBound(qint64(-count), screen.rowOf(m_topLine), qint64(0)));
    bar->setRange(0, count);
    bar->setPageStep(screen.rows());
    bar->setSingleStep(1);
    bar->setValue(count + first);
    viewport()->setMouseTracking(screen.mouseMode() == TerminalScreen::Mouse::Move);
    viewport()->update();
}

void TerminalWidget::updateGrid()
{
    const int columns = gridColumns();
    const int rows = gridRows();
    if (columns == m_terminal->screen().columns() && rows == m_terminal->screen().rows())
        return;
    m_terminal->resize(rows, columns);
    Q_EMIT gridChanged(columns, rows);
}

void TerminalWidget::resizeEvent(QResizeEvent *event)
{
    QAbstractScrollArea::resizeEvent(event);
    updateGrid();
}

void TerminalWidget::scrollContentsBy(int, int)
{
    m_topLine = m_terminal->screen().lineNumber(firstVisibleRow());
    viewport()->update();
}

bool TerminalWidget::selected(int row, int column) const
{
    if (!m_hasSelection)
        return false;
    const qint64 line = m_terminal->screen().lineNumber(row);
    qint64 fromLine = m_anchorLine;
    int fromColumn = m_anchorColumn;
    qint64 toLine = m_endLine;
    int toColumn = m_endColumn;
    if (toLine < fromLine || (toLine == fromLine && toColumn < fromColumn)) {
        std::swap(fromLine, toLine);
        std::swap(fromColumn, toColumn);
    }
    if (line < fromLine || line > toLine)
        return false;
    if (line == fromLine && column < fromColumn)
        return false;
    if (line == toLine && column >= toColumn)
        return false;
    return true;
}

void TerminalWidget::paintEvent(QPaintEvent *)
{
    const TerminalScreen &screen = m_terminal->screen();
    QPainter painter(viewport());
    painter.fillRect(viewport()->rect(), colour(screen.defaultBackground()));
    QFont normal = font();
    QFont bold = font();
    bold.setBold(true);
    const int first = firstVisibleRow();
    const bool cursorShown = screen.cursorVisible() && hasFocus();

    for (int line = 0; line < screen.rows(); ++line) {
        const int row = first + line;
        if (row >= screen.rows())
            break;
        const int y = line * m_cellHeight;
        int column = 0;
        while (column < screen.columns()) {
            // A run: cells of one look, drawn with one fill and one text.
            const TerminalCell head = screen.cell(row, column);
            const bool headSelected = selected(row, column);
            const bool headCursor
                = cursorShown && row == screen.cursorRow() && column == screen.cursorColumn();
            QString text;
            int end = column;
            while (end < screen.columns()) {
                const TerminalCell c = screen.cell(row, end);
                const bool isCursor
                    = cursorShown && row == screen.cursorRow() && end == screen.cursorColumn();
                if (end > column
                    && (c.fg != head.fg || c.bg != head.bg || c.bold != head.bold || c.reverse != head.reverse
                        || c.underline != head.underline || selected(row, end) != headSelected || isCursor
                        || headCursor || c.ch >= 128 || head.ch >= 128))
                    break;
                if (c.width != 0)
                    text += c.ch == 0 ? QString(QLatin1Char(' ')) : QString::fromUcs4(&c.ch, 1);
                ++end;
                if (head.ch >= 128 || headCursor)
                    break; // wide and non-ASCII characters sit in their own cells
            }
            if (head.width == 2 && end < screen.columns())
                ++end; // the right half of a wide character
            QColor fg = colour(head.fg);
            QColor bg
                = head.defaultBg && !head.reverse ? colour(screen.defaultBackground()) : colour(head.bg);
            if (head.reverse)
                std::swap(fg, bg);
            if (headSelected != headCursor)
                std::swap(fg, bg);
            const QRect cells(column * m_cellWidth, y, (end - column) * m_cellWidth, m_cellHeight);
            if (bg != colour(screen.defaultBackground()) || head.reverse || headSelected || headCursor)
                painter.fillRect(cells, bg);
            if (!text.trimmed().isEmpty()) {
                painter.setFont(head.bold ? bold : normal);
                painter.setPen(fg);
                painter.drawText(cells.left(), y + m_ascent, text);
            }
            if (head.underline)
                painter.fillRect(cells.left(), y + m_ascent + 1, cells.width(), 1, fg);
            column = end;
        }
    }
}

bool TerminalWidget::event(QEvent *event)
{
    // Tab belongs to the device, not to focus navigation.
    if (event->type() == QEvent::KeyPress) {
        auto *key = static_cast<QKeyEvent *>(event);
        if (key->key() == Qt::Key_Tab || key->key() == Qt::Key_Backtab) {
            keyPressEvent(key);
            return true;
        }
    }
    return QAbstractScrollArea::event(event);
}

void TerminalWidget::keyPressEvent(QKeyEvent *event)
{
    const Qt::KeyboardModifiers mods = event->modifiers() & ~Qt::KeypadModifier;
    const int key = event->key();
    event->accept();
    if (mods == (Qt::ControlModifier | Qt::ShiftModifier) && key == Qt::Key_C)
        return copySelection();
    if (mods == (Qt::ControlModifier | Qt::ShiftModifier) && key == Qt::Key_V)
        return pasteClipboard();
    if (mods == Qt::ShiftModifier && (key == Qt::Key_PageUp || key == Qt::Key_PageDown)) {
        if (m_frame->isActive())
            refresh(); // scroll from what the screen holds now, not the last frame
        QScrollBar *bar = verticalScrollBar();
        bar->setValue(bar->value() + (key == Qt::Key_PageUp ? -1 : 1) * qMax(1, bar->pageStep() - 1));
        return;
    }
    if ((key == Qt::Key_Pause || key == Qt::Key_Cancel) && (mods & Qt::ControlModifier)) {
        Q_EMIT breakRequested();
        return;
    }
    if (key == Qt::Key_Shift || key == Qt::Key_Control || key == Qt::Key_Alt || key == Qt::Key_Meta)
        return;
    if (m_terminal->key(key, mods, event->text())) {
        // Typing brings the live screen back into view.
        verticalScrollBar()->setValue(verticalScrollBar()->maximum());
    }
}

QPoint TerminalWidget::cellAt(const QPoint &position) const
{
    const TerminalScreen &screen = m_terminal->screen();
    const int column = qBound(0, (position.x() + m_cellWidth / 2) / m_cellWidth, screen.columns());
    const int row = qBound(
        -screen.scrollbackCount(), firstVisibleRow() + position.y() / m_cellHeight, screen.rows() - 1);
    return QPoint(column, row);
}

bool TerminalWidget::reportsMouse(Qt::KeyboardModifiers modifiers) const
{
    // Shift keeps the mouse for selecting, as in xterm; the scrollback is ours.
    return m_terminal->screen().mouseMode() != TerminalScreen::Mouse::None && !(modifiers & Qt::ShiftModifier)
        && !m_selecting && firstVisibleRow() == 0;
}

void TerminalWidget::reportMouse(QMouseEvent *event, bool pressed)
{
    const QPoint at = event->position().toPoint();
    const int row = at.y() / m_cellHeight;
    const int column = at.x() / m_cellWidth;
    const Qt::MouseButton button = event->button();
    const int number = button == Qt::LeftButton ? 1
        : button == Qt::MiddleButton            ? 2
        : button == Qt::RightButton             ? 3
                                                : 0;
    if (event->type() == QEvent::MouseMove)
        m_terminal->mouseMove(row, column, event->modifiers());
    else if (number != 0)
        m_terminal->mouseButton(row, column, number, pressed, event->modifiers());
}

void TerminalWidget::mousePressEvent(QMouseEvent *event)
{
    setFocus();
    if (reportsMouse(event->modifiers()))
        return reportMouse(event, true);
    if (event->button() != Qt::LeftButton)
        return;
    const QPoint at = cellAt(event->position().toPoint());
    m_epoch = m_terminal->screen().epoch(); // a selection belongs to the screen it was made on
    m_anchorColumn = m_endColumn = at.x();
    m_anchorLine = m_endLine = m_terminal->screen().lineNumber(at.y());
    m_selecting = true;
    m_hasSelection = false;
    viewport()->update();
}

void TerminalWidget::mouseMoveEvent(QMouseEvent *event)
{
    if (reportsMouse(event->modifiers()))
        return reportMouse(event, false);
    if (!m_selecting)
        return;
    const QPoint at = cellAt(event->position().toPoint());
    m_endColumn = at.x();
    m_endLine = m_terminal->screen().lineNumber(at.y());
    m_hasSelection = m_endColumn != m_anchorColumn || m_endLine != m_anchorLine;
    viewport()->update();
}

void TerminalWidget::wheelEvent(QWheelEvent *event)
{
    if (!reportsMouse(event->modifiers())) {
        if (m_frame->isActive())
            refresh();
        return QAbstractScrollArea::wheelEvent(event);
    }
    event->accept();
    const int delta = event->angleDelta().y();
    if (delta == 0)
        return;
    const QPoint at = event->position().toPoint();
    m_terminal->mouseButton(
        at.y() / m_cellHeight, at.x() / m_cellWidth, delta > 0 ? 4 : 5, true, event->modifiers());
}

void TerminalWidget::mouseReleaseEvent(QMouseEvent *event)
{
    if (reportsMouse(event->modifiers()))
        return reportMouse(event, false);
    if (event->button() == Qt::LeftButton) {
        m_selecting = false;
        if (m_hasSelection && QApplication::clipboard()->supportsSelection())
            QApplication::clipboard()->setText(selectedText(), QClipboard::Selection);
        return;
    }
    if (event->button() != Qt::RightButton)
        return;
    mcPopupMenu menu;
    menu.Add(CopyId, QStringLiteral("Copy"));
    menu.Add(PasteId, QStringLiteral("Paste"));
    const QPoint at = event->globalPosition().toPoint();
    const qint32 chosen = menu.Show(window(), at.x(), at.y());
    if (chosen == CopyId)
        copySelection();
    else if (chosen == PasteId)
        pasteClipboard();
}

void TerminalWidget::mouseDoubleClickEvent(QMouseEvent *event)
{
    if (reportsMouse(event->modifiers()))
        return reportMouse(event, true); // to the device, a second press
    if (event->button() != Qt::LeftButton)
        return;
    const TerminalScreen &screen = m_terminal->screen();
    const QPoint at = cellAt(event->position().toPoint() - QPoint(m_cellWidth / 2, 0));
    const int row = at.y();
    int from = qMin(at.x(), screen.columns() - 1);
    if (!wordChar(screen.cell(row, from).ch))
        return;
    int to = from;
    while (from > 0 && wordChar(screen.cell(row, from - 1).ch))
        --from;
    while (to + 1 < screen.columns() && wordChar(screen.cell(row, to + 1).ch))
        ++to;
    select(row, from, row, to + 1);
    m_selecting = false;
}

void TerminalWidget::select(int startRow, int startColumn, int endRow, int endColumn)
{
    const TerminalScreen &screen = m_terminal->screen();
    m_epoch = screen.epoch();
    m_anchorColumn = startColumn;
    m_anchorLine = screen.lineNumber(startRow);
    m_endColumn = endColumn;
    m_endLine = screen.lineNumber(endRow);
    m_hasSelection = m_anchorColumn != m_endColumn || m_anchorLine != m_endLine;
    viewport()->update();
}

QString TerminalWidget::selectedText() const
{
    const TerminalScreen &screen = m_terminal->screen();
    if (!m_hasSelection || screen.epoch() != m_epoch)
        return {};
    return screen.selectionText(
        int(screen.rowOf(m_anchorLine)), m_anchorColumn, int(screen.rowOf(m_endLine)), m_endColumn);
}

void TerminalWidget::copySelection()
{
    const QString text = selectedText();
    if (!text.isEmpty())
        QApplication::clipboard()->setText(text);
}

void TerminalWidget::pasteClipboard()
{
    const QString text = QApplication::clipboard()->text();
    if (!text.isEmpty())
        m_terminal->paste(text);
}
