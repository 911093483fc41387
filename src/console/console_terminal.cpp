#include "console_terminal.h"

ConsoleTerminal::ConsoleTerminal(QObject *parent)
    : QObject(parent)
{ }

void ConsoleTerminal::setEnabled(bool on)
{
    if (m_enabled == on)
        return;
    m_enabled = on;
    Q_EMIT enabledChanged(on);
}

ConsoleTerminal::Decoded ConsoleTerminal::feed(const QByteArray &block, bool withText)
{
    m_screen.feed(block);
    flushOutput();
    Q_EMIT screenChanged();
    Decoded decoded;
    if (withText)
        decoded.text = m_reader.decode(block);
    for (const QString &line : m_screen.takeStarLines())
        decoded.ops.append(TerminalOp { TerminalOp::LogLine, line + QStringLiteral("\r\n") });
    // A prompt is the cursor's row: two or more characters ending in "#" or
    // ">", trailing blanks aside (coloured prompts end in a space).
    const QString line = m_screen.rowText(m_screen.cursorRow());
    if (line.size() > 1 && (line.endsWith(QLatin1Char('#')) || line.endsWith(QLatin1Char('>'))))
        decoded.ops.append(TerminalOp { TerminalOp::Caption, TerminalProcessor::hostName(line) });
    return decoded;
}

QString ConsoleTerminal::decode(const QByteArray &block)
{
    return m_reader.decode(block);
}

void ConsoleTerminal::showMessage(const QString &text)
{
    QString lines;
    lines.reserve(text.size() + 8);
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar ch = text.at(i);
        if (ch == QLatin1Char('\r')) {
            lines += QStringLiteral("\r\n");
            if (i + 1 < text.size() && text.at(i + 1) == QLatin1Char('\n'))
                ++i;
        } else if (ch == QLatin1Char('\n')) {
            lines += QStringLiteral("\r\n");
        } else {
            lines += ch;
        }
    }
    // A message starts on a line of its own, after whatever the device left.
    if (m_screen.cursorColumn() != 0)
        lines.prepend(QStringLiteral("\r\n"));
    m_screen.feed(lines.toUtf8());
    m_screen.takeStarLines(); // the program's own words are not the device's log
    Q_EMIT screenChanged();
}

void ConsoleTerminal::clear()
{
    m_screen.reset();
    Q_EMIT screenChanged();
}

void ConsoleTerminal::resize(int rows, int columns)
{
    m_screen.resize(rows, columns);
    Q_EMIT screenChanged();
}

bool ConsoleTerminal::key(int qtKey, Qt::KeyboardModifiers modifiers, const QString &text)
{
    const bool sent = m_screen.key(qtKey, modifiers, text);
    flushOutput();
    return sent;
}

void ConsoleTerminal::paste(const QString &text)
{
    m_screen.paste(text);
    flushOutput();
}

void ConsoleTerminal::mouseButton(
    int row, int column, int button, bool pressed, Qt::KeyboardModifiers modifiers)
{
    m_screen.mouseButton(row, column, button, pressed, modifiers);
    flushOutput();
}

void ConsoleTerminal::mouseMove(int row, int column, Qt::KeyboardModifiers modifiers)
{
    m_screen.mouseMove(row, column, modifiers);
    flushOutput();
}

void ConsoleTerminal::flushOutput()
{
    if (m_screen.hasOutput())
        Q_EMIT sendRequested(m_screen.takeOutput());
}
