#pragma once

#include "console/terminal_processor.h"
#include "console/terminal_screen.h"
#include "console/terminal_text_reader.h"

#include <QObject>

// Terminal mode of one console ("Terminal Emulation"): the screen that
// libvterm keeps and the decoded text beside it. Off, the console uses the
// classic received-text processor and none of this runs.
//
// feed() takes a block from the device: the screen takes it, and what the
// session passes on (log lines, caption, text for a session log) comes back. Answers the
// terminal owes the device (cursor reports, keys, pastes) are announced with
// sendRequested(bytes); screenChanged() tells a view to repaint.
class ConsoleTerminal : public QObject
{
    Q_OBJECT
public:
    explicit ConsoleTerminal(QObject *parent = nullptr);

    bool isEnabled() const { return m_enabled; }
    void setEnabled(bool on);

    TerminalScreen &screen() { return m_screen; }
    const TerminalScreen &screen() const { return m_screen; }

    // What a block gives the rest of the console: its decoded text (only
    // when asked for, for a text session log) and the ops read from the
    // screen: a "*" line the device ended (LogLine, CR LF added) and, when
    // the cursor's row ends in a prompt, the caption.
    struct Decoded
    {
        QString text;
        QList<TerminalOp> ops;
    };
    Decoded feed(const QByteArray &block, bool withText);
    // Decoded text only, for readers that bypass the screen (flash listing).
    QString decode(const QByteArray &block);
    // A message of the program's own ("Disconected", "SSH Err: ..."); its
    // line ends may be a lone CR, which a terminal would not advance on.
    void showMessage(const QString &text);
    void clear();
    void resize(int rows, int columns);

    // Keys and pastes from a view; the bytes leave by sendRequested().
    bool key(int qtKey, Qt::KeyboardModifiers modifiers, const QString &text);
    void paste(const QString &text);
    // Mouse reports, sent only when the device asked for them.
    void mouseButton(int row, int column, int button, bool pressed, Qt::KeyboardModifiers modifiers);
    void mouseMove(int row, int column, Qt::KeyboardModifiers modifiers);

Q_SIGNALS:
    void enabledChanged(bool on);
    void screenChanged();
    void sendRequested(const QByteArray &bytes);

private:
    void flushOutput();

    bool m_enabled = false;
    TerminalScreen m_screen;
    TerminalTextReader m_reader;
};
