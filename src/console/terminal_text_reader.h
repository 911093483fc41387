#pragma once

#include "console/control_string_guard.h"
#include "console/csi_parameter_cap.h"

#include <QByteArray>
#include <QString>
#include <QStringDecoder>

struct VTerm;

// The text of a terminal-mode console with colours and escapes gone, for
// the readers that take the device's stream as text: the flash listing
// reader and the text session log. (The prompt caption and the "*" lines
// are read from the screen itself.)
//
// libvterm's parser splits the stream (escape sequences, control strings,
// UTF-8 text, C0 controls); this class keeps the text and the controls that
// shape lines (CR, LF, backspace, tab) and drops the rest. decode() returns
// the text of one block; UTF-8 split across blocks is joined.
class TerminalTextReader
{
public:
    TerminalTextReader();
    ~TerminalTextReader();
    TerminalTextReader(const TerminalTextReader &) = delete;
    TerminalTextReader &operator=(const TerminalTextReader &) = delete;

    QString decode(const QByteArray &block);

private:
    static int onText(const char *bytes, size_t length, void *user);
    static int onControl(unsigned char control, void *user);

    VTerm *m_vt;
    QStringDecoder m_decoder;
    QByteArray m_pendingText;
    CsiParameterCap m_guard;
    ControlStringGuard m_strings;

    friend struct TerminalTextReaderCallbacks;
};
