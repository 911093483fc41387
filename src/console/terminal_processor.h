#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <Qt>

// One thing the received-text processor asks the terminal to do.
struct TerminalOp
{
    enum Kind {
        Append, // append text (line ends as CR LF, or a lone CR) in the default colour
        DeleteLast, // delete the last character shown in the terminal
        LogLine, // append text (with its CR LF) to the log page: a device line that began with "*"
        Caption // the device printed a prompt: caption the console (text may be empty)
    };
    Kind kind;
    QString text;

    bool operator==(const TerminalOp &other) const = default;
};

// The received-text processor of a console, with no I/O and no widgets.
//
// It turns each block of device output into TerminalOps: it keeps printable
// ASCII (32 to 126), applies backspace and carriage return, drops everything
// else (line feed, bell, escape, NUL, bytes of 127 and above), copies lines
// that begin with "*" to the log page and recognises a prompt (a pending line
// of two or more characters ending in "#" or ">") to name the console.
//
// The pending line is emptied at the start of every block; whatever is left at
// the end of a block is appended at once, so a prompt or partial line shows
// without waiting for its line end. A backspace with nothing pending therefore
// deletes from the terminal itself.
//
// The host name is read from the last 41 characters of the terminal followed
// by the whole block, so the processor mirrors the end of the terminal's text.
// Anything else that writes into the terminal (status messages, "Clear
// Console") must be reported with noteAppended() / noteCleared() to keep that
// mirror true. The terminal's text counts a line end as CR LF, as appended.
//
// Consecutive appends within one block are merged into one op, so a flood
// costs the view one insert per block rather than one per line.
class TerminalProcessor
{
public:
    QList<TerminalOp> feed(const QByteArray &block);

    void noteAppended(const QString &text);
    void noteCleared();

    // The last n characters of the terminal, or an empty string when the
    // terminal holds n - 1 characters or fewer (the tail cannot be taken).
    QString tail(int n) const;

    // The host name in text: a word that restarts at every character below 33
    // and grows by every other, up to the first "(". "R1(config)#" gives "R1",
    // "R1#" gives "R1#".
    static QString hostName(QStringView text);

    // The bytes a key sends to the device, or an empty array when the key
    // sends nothing. Qt key codes and modifiers; text is the key's character.
    static QByteArray keyBytes(int key, Qt::KeyboardModifiers modifiers, const QString &text);

private:
    void flush(QByteArray &shown, QList<TerminalOp> &ops);
    void appendToTail(QStringView text);
    void deleteFromTail();

    // The end of the terminal's text; m_truncated says characters were dropped
    // from its front to bound memory (only the last few dozen ever matter).
    QString m_tail;
    bool m_truncated = false;
};
