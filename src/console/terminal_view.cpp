#include "terminal_view.h"

#include "console/terminal_processor.h"
#include "util/mc_popup_menu.h"

#include <QApplication>
#include <QClipboard>
#include <QKeyEvent>
#include <QScrollBar>
#include <QTextBlock>
#include <QTextCursor>

namespace {
enum PopupId { CopyId = 1, PasteId = 2 };
constexpr qsizetype paragraphChars = 2048;

QColor fromBgr(quint32 value)
{
    return QColor(int(value & 0xFF), int((value >> 8) & 0xFF), int((value >> 16) & 0xFF));
}
} // namespace

TerminalView::TerminalView(QWidget *parent)
    : QPlainTextEdit(parent)
{
    setObjectName(QStringLiteral("ConsoleBox"));
    QFont font(QStringLiteral("Courier"));
    font.setStyleHint(QFont::TypeWriter);
    setFont(font);
    setReadOnly(true);
    setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    setFocusPolicy(Qt::StrongFocus);
    setUndoRedoEnabled(false); // no undo history for megabytes of device output
    setContextMenuPolicy(Qt::NoContextMenu);
    setWordWrapMode(QTextOption::WrapAnywhere);
}

void TerminalView::putText(const QString &text, quint32 bgrColour)
{
    // A paragraph per device line makes the document's block bookkeeping the
    // cost of a flood, so lines are joined with line separators into
    // paragraphs of a few kilobytes. Plain text, selection and deletion treat
    // both kinds of break alike.
    QString converted;
    converted.reserve(text.size());
    qsizetype blockLength = document()->lastBlock().length() - 1;
    const qsizetype size = text.size();
    qsizetype from = 0;
    while (from < size) {
        qsizetype end = from;
        while (end < size && text.at(end) != QLatin1Char('\r') && text.at(end) != QLatin1Char('\n'))
            ++end;
        converted.append(QStringView(text).sliced(from, end - from));
        blockLength += end - from;
        if (end == size)
            break;
        if (text.at(end) == QLatin1Char('\r') && end + 1 < size && text.at(end + 1) == QLatin1Char('\n'))
            ++end;
        if (blockLength >= paragraphChars) {
            converted += QChar::ParagraphSeparator;
            blockLength = 0;
        } else {
            converted += QChar::LineSeparator;
            ++blockLength;
        }
        from = end + 1;
    }

    QScrollBar *bar = verticalScrollBar();
    const bool atBottom = bar->value() >= bar->maximum() - 1;
    QTextCursor cursor(document());
    cursor.movePosition(QTextCursor::End);
    QTextCharFormat format;
    format.setForeground(fromBgr(bgrColour));
    cursor.insertText(converted, format);
    if (atBottom)
        bar->setValue(bar->maximum());
}

void TerminalView::deleteLastChar()
{
    QTextCursor cursor(document());
    cursor.movePosition(QTextCursor::End);
    cursor.deletePreviousChar();
}

bool TerminalView::event(QEvent *event)
{
    // Tab belongs to the device, not to focus navigation.
    if (event->type() == QEvent::KeyPress) {
        auto *key = static_cast<QKeyEvent *>(event);
        if (key->key() == Qt::Key_Tab || key->key() == Qt::Key_Backtab) {
            keyPressEvent(key);
            return true;
        }
    }
    return QPlainTextEdit::event(event);
}

void TerminalView::keyPressEvent(QKeyEvent *event)
{
    switch (event->key()) {
    case Qt::Key_PageUp:
    case Qt::Key_PageDown:
    case Qt::Key_Home:
    case Qt::Key_End:
        if (!(event->modifiers() & Qt::ControlModifier) || event->key() == Qt::Key_Home
            || event->key() == Qt::Key_End) {
            QPlainTextEdit::keyPressEvent(event); // scrolling the history only
            return;
        }
        break;
    default:
        break;
    }
    const bool ctrlBreak = (event->key() == Qt::Key_Pause || event->key() == Qt::Key_Cancel)
        && (event->modifiers() & Qt::ControlModifier);
    if (ctrlBreak) {
        Q_EMIT breakRequested();
        event->accept();
        return;
    }
    const QByteArray bytes = TerminalProcessor::keyBytes(event->key(), event->modifiers(), event->text());
    if (!bytes.isEmpty())
        Q_EMIT keyBytes(bytes);
    event->accept();
}

void TerminalView::mouseReleaseEvent(QMouseEvent *event)
{
    QPlainTextEdit::mouseReleaseEvent(event);
    if (event->button() != Qt::RightButton)
        return;
    mcPopupMenu menu;
    menu.Add(CopyId, QStringLiteral("Copy"));
    menu.Add(PasteId, QStringLiteral("Paste"));
    const QPoint at = event->globalPosition().toPoint();
    const qint32 chosen = menu.Show(window(), at.x(), at.y());
    if (chosen == CopyId) {
        QClipboard *clipboard = QApplication::clipboard();
        clipboard->clear();
        QString text = textCursor().selectedText();
        text.replace(QChar::ParagraphSeparator, QStringLiteral("\r\n"));
        text.replace(QChar::LineSeparator, QStringLiteral("\r\n"));
        clipboard->setText(text);
    } else if (chosen == PasteId) {
        const QString text = QApplication::clipboard()->text();
        if (!text.isEmpty())
            Q_EMIT pasteRequested(text);
    }
}
