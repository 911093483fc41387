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
    auto *self = static_cast<TerminalTextReader *>(user);
    if (control == '\r' || control == '\n' || control == '\b' || control == '\t') {
        self->m_pendingText.append(char(control));
    }
    return 1;
}

void TerminalTextReader::flushText()
{
    if (m_pendingText.isEmpty())
        return;
    const QString text = m_decoder.decode(m_pendingText);
    m_pendingText.clear();
    m_decoded += text;
    for (const QChar ch : text) {
        switch (ch.unicode()) {
        case '\r':
        case '\n':
            if (!m_lineLogged && m_line.startsWith(QLatin1Char('*'))) {
                m_ops.append(TerminalOp { TerminalOp::LogLine, m_line + QStringLiteral("\r\n") });
                m_lineLogged = true;
            }
            if (ch == QLatin1Char('\n')) {
                m_line.clear();
                m_lineLogged = false;
                m_crPending = false;
            } else {
                m_crPending = true;
            }
            break;
        case '\b':
            if (!m_line.isEmpty())
                m_line.chop(1);
            break;
        default:
            if (m_crPending) {
                // A carriage return without a line feed: the line is written anew.
                m_line.clear();
                m_lineLogged = false;
                m_crPending = false;
            }
            m_line += ch;
            break;
        }
    }
    // Only the end of a line can be a prompt; a very long line is kept short.
    if (m_line.size() > 4096)
        m_line.remove(0, m_line.size() - 1024);
}

TerminalTextReader::Result TerminalTextReader::feed(const QByteArray &block)
{
    vterm_input_write(m_vt, block.constData(), size_t(block.size()));
    flushText();
    if (!m_crPending) {
        QStringView line(m_line);
        while (!line.isEmpty() && line.last().isSpace())
            line.chop(1);
        if (line.size() > 1 && (line.endsWith(QLatin1Char('#')) || line.endsWith(QLatin1Char('>'))))
            m_ops.append(TerminalOp { TerminalOp::Caption, TerminalProcessor::hostName(line) });
    }
    Result result { std::move(m_decoded), std::move(m_ops) };
    m_decoded.clear();
    m_ops.clear();
    return result;
}
