#pragma once

#include <QPlainTextEdit>

// `ConsoleBox`: the terminal of a console. It only shows text and turns input
// into bytes; the session decides what they mean.
//
// putText() appends at the end in a 24-bit blue-green-red colour (CR LF or a
// lone CR is one line break), deleteLastChar() removes the last character.
// The view never edits itself: every key is mapped to the bytes the device
// should get and announced with keyBytes() (what the user then sees is the
// device's echo), except Ctrl+Break, announced with breakRequested() so that
// the session can also hold a serial line in break. A right click offers "Copy" and "Paste": copy puts the
// selection on the clipboard, paste announces pasteRequested(text).
class TerminalView : public QPlainTextEdit
{
    Q_OBJECT
public:
    explicit TerminalView(QWidget *parent = nullptr);

    void putText(const QString &text, quint32 bgrColour);
    void deleteLastChar();

Q_SIGNALS:
    void keyBytes(const QByteArray &bytes);
    void breakRequested();
    void pasteRequested(const QString &text);

protected:
    bool event(QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
};
