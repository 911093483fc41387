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
    auto *self = static_cast<TerminalTextReader *>(user);
    self->addToLine(bytes, qsizetype(eaten));
    if (self->m_keepText)
        self->m_pendingText.append(bytes, qsizetype(eaten));
    return int(eaten);
}

void TerminalTextReader::addToLine(const char *bytes, qsizetype length)
{
    if (length == 0)
        return;
    if (m_crPending) {
        // A carriage return without a line feed: the line is written anew.
        m_line.resize(0);
        m_lineLogged = false;
        m_crPending = false;
    }
    m_line.append(bytes, length);
}

int TerminalTextReader::onControl(unsigned char control, void *user)
{
    auto *self = static_cast<TerminalTextReader *>(user);
    if (control != '\r' && control != '\n' && control != '\b' && control != '\t')
        return 1;
    if (self->m_keepText)
        self->m_pendingText.append(char(control));
    QByteArray &line = self->m_line;
    switch (control) {
    case '\t':
        self->addToLine("\t", 1);
        break;
    case '\b': {
        // One character back: a UTF-8 sequence goes whole.
        qsizetype end = line.size() - 1;
        while (end > 0 && (uchar(line.at(end)) & 0xC0) == 0x80)
            --end;
        line.truncate(qMax(qsizetype(0), end));
        break;
    }
    default:
        if (!self->m_lineLogged && line.startsWith('*')) {
            self->m_ops.append(
                TerminalOp { TerminalOp::LogLine, QString::fromUtf8(line) + QStringLiteral("\r\n") });
            self->m_lineLogged = true;
        }
        if (control == '\n') {
            line.resize(0); // keeps its storage for the next line
            self->m_lineLogged = false;
            self->m_crPending = false;
        } else {
            self->m_crPending = true;
        }
        break;
    }
    return 1;
}

QString TerminalTextReader::currentLine() const
{
    return QString::fromUtf8(m_line);
}

TerminalTextReader::Result TerminalTextReader::feed(const QByteArray &block, bool withText)
{
    // The line is kept as the device's bytes and decoded only when read: a
    // flood is mostly text that nobody reads again unless it is logged.
    m_keepText = withText;
    vterm_input_write(m_vt, block.constData(), size_t(block.size()));
    Result result;
    if (withText) {
        result.text = m_decoder.decode(m_pendingText);
        m_pendingText.resize(0);
    }
    // Only the end of a line can be a prompt; a very long line is kept short.
    if (m_line.size() > 4096)
        m_line.remove(0, m_line.size() - 1024);
    QByteArrayView bytes(m_line);
    while (!bytes.isEmpty() && (bytes.back() == ' ' || bytes.back() == '\t'))
        bytes.chop(1);
    // Decoded only when it may end in a prompt (non-ASCII may be a space).
    if (!m_crPending
        && (bytes.endsWith('#') || bytes.endsWith('>')
            || (!bytes.isEmpty() && uchar(bytes.back()) >= 0x80))) {
        QString line = QString::fromUtf8(m_line);
        while (!line.isEmpty() && line.back().isSpace())
            line.chop(1);
        if (line.size() > 1)
            m_ops.append(TerminalOp { TerminalOp::Caption, TerminalProcessor::hostName(line) });
    }
    result.ops = std::move(m_ops);
    m_ops.clear();
    return result;
}
