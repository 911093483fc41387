#include "terminal_processor.h"

namespace {
constexpr int tailKeep = 4096;
constexpr int tailLimit = 16384;
constexpr int hostTail = 41;

bool printable(uchar c)
{
    return c >= 32 && c <= 126;
}
} // namespace

void TerminalProcessor::flush(QByteArray &shown, QList<TerminalOp> &ops)
{
    if (shown.isEmpty())
        return;
    const QString text = QString::fromLatin1(shown);
    appendToTail(QStringView(text).right(qMin<qsizetype>(text.size(), tailLimit)));
    if (!ops.isEmpty() && ops.last().kind == TerminalOp::Append)
        ops.last().text += text;
    else
        ops.append(TerminalOp { TerminalOp::Append, text });
    shown.clear();
}

QList<TerminalOp> TerminalProcessor::feed(const QByteArray &block)
{
    QList<TerminalOp> ops;
    // Everything is ASCII by the time it is kept, so the pending line and the
    // text shown so far in this block are collected as bytes and turned into
    // text once per append.
    QByteArray pending;
    QByteArray shown;
    const char *data = block.constData();
    const qsizetype size = block.size();

    for (qsizetype i = 0; i < size; ++i) {
        const uchar c = uchar(data[i]);
        if (printable(c)) {
            qsizetype run = i + 1;
            while (run < size && printable(uchar(data[run])))
                ++run;
            pending.append(data + i, run - i);
            i = run - 1;
        } else if (c == 13) {
            if (pending.startsWith('*'))
                ops.append(TerminalOp { TerminalOp::LogLine, QString::fromLatin1(pending + "\r\n") });
            shown += pending;
            shown += "\r\n";
            pending.clear();
        } else if (c == 8) {
            if (!pending.isEmpty()) {
                pending.chop(1);
            } else {
                flush(shown, ops);
                ops.append(TerminalOp { TerminalOp::DeleteLast, QString() });
                deleteFromTail();
            }
        }
        // Every other byte (line feed, bell, escape, NUL, 127 and above) is dropped.
    }

    if (pending.size() > 1 && (pending.endsWith('#') || pending.endsWith('>'))) {
        flush(shown, ops);
        // A terminal too short for the tail leaves the text empty, and the
        // console's caption is then emptied too.
        const QString before = tail(hostTail);
        QString name;
        if (!before.isEmpty())
            name = hostName(QString(before + QString::fromLatin1(block)));
        ops.append(TerminalOp { TerminalOp::Caption, name });
    }
    shown += pending;
    flush(shown, ops);
    return ops;
}

void TerminalProcessor::noteAppended(const QString &text)
{
    appendToTail(text);
}

void TerminalProcessor::noteCleared()
{
    m_tail.clear();
    m_truncated = false;
}

QString TerminalProcessor::tail(int n) const
{
    if (m_tail.size() < n) {
        if (!m_truncated)
            return {};
        return m_tail; // should not happen: we always keep far more than n
    }
    return m_tail.right(n);
}

QString TerminalProcessor::hostName(QStringView text)
{
    QString word;
    for (const QChar ch : text) {
        if (ch == QLatin1Char('('))
            break;
        if (ch.unicode() < 33)
            word.clear();
        else
            word += ch;
    }
    return word;
}

QByteArray TerminalProcessor::keyBytes(int key, Qt::KeyboardModifiers modifiers, const QString &text)
{
    const bool ctrl = modifiers & Qt::ControlModifier;
    switch (key) {
    case Qt::Key_Tab:
        return QByteArray("\t");
    case Qt::Key_Pause:
    case Qt::Key_Cancel: // what some keyboards report for Ctrl+Break
        // Ctrl+Break is the Telnet IAC BRK pair, on serial lines too.
        return ctrl ? QByteArray("\xff\xf3", 2) : QByteArray();
    case Qt::Key_Left:
        return QByteArray("\x1b[D");
    case Qt::Key_Up:
        return QByteArray("\x1b[A");
    case Qt::Key_Right:
        return QByteArray("\x1b[C");
    case Qt::Key_Down:
        return QByteArray("\x1b[B");
    case Qt::Key_Return:
    case Qt::Key_Enter:
        return QByteArray("\r");
    case Qt::Key_Backspace:
        return QByteArray("\b");
    case Qt::Key_Escape:
        return QByteArray("\x1b");
    case Qt::Key_Delete:
        return {}; // a terminal key with no character of its own
    default:
        break;
    }
    // Ctrl with a letter is the control character, as a terminal sends it
    // (Ctrl+A gives 1); platforms differ in what text they attach to it.
    if (ctrl && key >= Qt::Key_A && key <= Qt::Key_Z)
        return QByteArray(1, char(key - Qt::Key_A + 1));
    if (text.isEmpty())
        return {};
    QByteArray bytes;
    for (const QChar ch : text)
        bytes.append(ch.unicode() < 256 ? char(ch.unicode()) : '?');
    return bytes;
}

void TerminalProcessor::appendToTail(QStringView text)
{
    m_tail.append(text);
    if (m_tail.size() > tailLimit) {
        m_tail.remove(0, m_tail.size() - tailKeep);
        m_truncated = true;
    }
}

void TerminalProcessor::deleteFromTail()
{
    // The view keeps a line end as one paragraph break, so deleting the last
    // character after CR LF takes both.
    if (m_tail.endsWith(QLatin1String("\r\n")))
        m_tail.chop(2);
    else
        m_tail.chop(1);
}
