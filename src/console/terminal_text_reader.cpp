#include "terminal_text_reader.h"

#include <vterm.h>

// Escape sequences and control strings only need to be recognised to be
// dropped, so every callback but text and control just accepts them.
struct TerminalTextReaderCallbacks
{
    static int text(const char *bytes, size_t length, void *user)
    {
        return TerminalTextReader::onText(bytes, length, user);
    }
    static int control(unsigned char control, void *user)
    {
        return TerminalTextReader::onControl(control, user);
    }
    static int escape(const char *, size_t, void *) { return 1; }
    static int csi(const char *, const long[], int, const char *, char, void *) { return 1; }
    static int string(const char *, size_t, void *) { return 1; }
    static int resize(int, int, void *) { return 1; }
};

namespace {
const VTermParserCallbacks parserCallbacks = {
    TerminalTextReaderCallbacks::text,
    TerminalTextReaderCallbacks::control,
    TerminalTextReaderCallbacks::escape,
    TerminalTextReaderCallbacks::csi,
    TerminalTextReaderCallbacks::string, // OSC: titles and the like
    TerminalTextReaderCallbacks::string, // DCS
    TerminalTextReaderCallbacks::resize,
};
} // namespace

TerminalTextReader::TerminalTextReader()
    : m_vt(vterm_new(24, 80))
    , m_decoder(QStringDecoder::Utf8)
{
    vterm_set_utf8(m_vt, 1);
    vterm_parser_set_callbacks(m_vt, &parserCallbacks, this);
}

TerminalTextReader::~TerminalTextReader()
{
    vterm_free(m_vt);
}

int TerminalTextReader::onText(const char *bytes, size_t length, void *user)
{
    // The parser offers the rest of the input; text ends at the next control.
    size_t eaten = 0;
    while (eaten < length) {
        const auto c = uchar(bytes[eaten]);
        if (c < 0x20 || c == 0x7f)
            break;
        ++eaten;
    }
    static_cast<TerminalTextReader *>(user)->m_pendingText.append(bytes, qsizetype(eaten));
    return int(eaten);
}

int TerminalTextReader::onControl(unsigned char control, void *user)
{
    if (control == '\r' || control == '\n' || control == '\b' || control == '\t')
        static_cast<TerminalTextReader *>(user)->m_pendingText.append(char(control));
    return 1;
}

QString TerminalTextReader::decode(const QByteArray &block)
{
    QByteArray capped;
    const QByteArray &input = m_guard.cap(block.constData(), block.size(), &capped) ? capped : block;
    QByteArray guarded;
    const QByteArray &send = m_strings.cap(input.constData(), input.size(), &guarded) ? guarded : input;
    vterm_input_write(m_vt, send.constData(), size_t(send.size()));
    const QString text = m_decoder.decode(m_pendingText);
    m_pendingText.resize(0);
    return text;
}
