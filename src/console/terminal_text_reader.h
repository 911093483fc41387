#pragma once

#include "console/terminal_processor.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringDecoder>

struct VTerm;

// The text of a terminal-mode console with colours and escapes gone, for
// everything that reads what the device says: the prompt caption, the "*"
// lines for the log page, the flash listing reader and the session log.
//
// libvterm's parser splits the stream (escape sequences, control strings,
// UTF-8 text, C0 controls); this class keeps the text and the controls that
// shape lines (CR, LF, backspace, tab) and drops the rest. feed() returns the
// decoded text of one block (UTF-8 split across blocks is joined) and the
// same TerminalOps the classic processor gives for log lines and captions:
//  - a line that begins with "*" goes to the log page once, when its CR or
//    LF arrives, with CR LF;
//  - a block that leaves a line of two or more characters ending in "#" or
//    ">" (trailing blanks ignored, since coloured prompts end in a space)
//    captions the console with the host name read from that line.
class TerminalTextReader
{
public:
    TerminalTextReader();
    ~TerminalTextReader();
    TerminalTextReader(const TerminalTextReader &) = delete;
    TerminalTextReader &operator=(const TerminalTextReader &) = delete;

    struct Result
    {
        QString text;
        QList<TerminalOp> ops;
    };
    // withText false: only the ops (nobody logs the text); much cheaper.
    Result feed(const QByteArray &block, bool withText = true);

    // The line being written (what a prompt is read from).
    QString currentLine() const;

private:
    static int onText(const char *bytes, size_t length, void *user);
    static int onControl(unsigned char control, void *user);
    void addToLine(const char *bytes, qsizetype length);

    VTerm *m_vt;
    QStringDecoder m_decoder;
    QByteArray m_pendingText;
    QList<TerminalOp> m_ops;
    QByteArray m_line; // as the device sent it (UTF-8)
    bool m_keepText = true;
    bool m_lineLogged = false;
    bool m_crPending = false;

    friend struct TerminalTextReaderCallbacks;
};
