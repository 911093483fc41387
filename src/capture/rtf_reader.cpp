#include "rtf_reader.h"

#include <QSet>

#include <vector>

namespace {

// Code page 1252's printable characters in 0x80..0x9F; the rest of the 8-bit
// range is Latin-1.
const char16_t cp1252High[32] = {
    0x20AC,
    0x0081,
    0x201A,
    0x0192,
    0x201E,
    0x2026,
    0x2020,
    0x2021,
    0x02C6,
    0x2030,
    0x0160,
    0x2039,
    0x0152,
    0x008D,
    0x017D,
    0x008F,
    0x0090,
    0x2018,
    0x2019,
    0x201C,
    0x201D,
    0x2022,
    0x2013,
    0x2014,
    0x02DC,
    0x2122,
    0x0161,
    0x203A,
    0x0153,
    0x009D,
    0x017E,
    0x0178,
};

QChar fromCodePage(uchar byte)
{
    if (byte >= 0x80 && byte <= 0x9F)
        return QChar(cp1252High[byte - 0x80]);
    return QChar(byte);
}

// Destinations whose text is not document text.
const QSet<QByteArray> &skippedDestinations()
{
    static const QSet<QByteArray> names {
        "fonttbl",
        "stylesheet",
        "info",
        "pict",
        "object",
        "header",
        "headerl",
        "headerr",
        "headerf",
        "footer",
        "footerl",
        "footerr",
        "footerf",
        "footnote",
        "fldinst",
        "listtable",
        "listoverridetable",
        "rsidtbl",
        "generator",
        "xmlnstbl",
        "themedata",
        "colorschememapping",
        "datastore",
        "latentstyles",
        "pgdsctbl",
        "revtbl",
        "filetbl",
        "annotation",
        "atnid",
        "atnauthor",
        "bkmkstart",
        "bkmkend",
        "shpinst",
        "nonshppict",
        "objdata",
        "template",
        "userprops",
        "txfieldtext",
        "pntext",
        "pntxta",
        "pntxtb",
        "listtext",
        "author",
        "operator",
        "title",
        "subject",
        "keywords",
        "comment",
        "doccomm",
    };
    return names;
}

class Parser
{
public:
    explicit Parser(const QByteArray &data)
        : m_data(data)
    {
        m_stack.reserve(64);
    }

    RichText run()
    {
        const qsizetype size = m_data.size();
        while (m_pos < size) {
            const char c = m_data.at(m_pos++);
            switch (c) {
            case '{':
                openGroup();
                break;
            case '}':
                closeGroup();
                break;
            case '\\':
                control();
                break;
            case '\r':
            case '\n':
                break;
            default:
                character(QChar(uchar(c)), uchar(c));
                break;
            }
        }
        return m_out;
    }

private:
    struct State
    {
        int colour = 0;
        int uc = 1;
        bool skip = false;
        bool colourTable = false;
        bool hidden = false;
    };

    void openGroup()
    {
        if (int(m_stack.size()) >= RtfReader::maxDepth) {
            ++m_overflow;
            return;
        }
        m_stack.push_back(m_state);
        m_pendingSkip = 0;
    }

    void closeGroup()
    {
        m_pendingSkip = 0;
        if (m_overflow > 0) {
            --m_overflow;
            return;
        }
        if (m_stack.empty())
            return; // a stray brace
        m_state = m_stack.back();
        m_stack.pop_back();
    }

    // One character of document text; `byte` is set when it came as an 8-bit
    // byte (plain or \'hh), so it can be decoded by the code page.
    void character(QChar ch, int byte = -1)
    {
        if (m_pendingSkip > 0) {
            --m_pendingSkip;
            return;
        }
        if (m_state.colourTable) {
            if (ch == QLatin1Char(';'))
                commitColour();
            return;
        }
        if (m_state.skip || m_state.hidden)
            return;
        if (byte >= 0x80)
            ch = fromCodePage(uchar(byte));
        output(QString(ch));
    }

    void output(const QString &text)
    {
        std::optional<quint32> colour;
        if (m_state.colour > 0 && m_state.colour < int(m_colours.size()))
            colour = m_colours[m_state.colour];
        m_out.append(text, colour);
    }

    void commitColour()
    {
        if (int(m_colours.size()) < RtfReader::maxColours)
            m_colours.push_back(m_haveComponent
                    ? std::optional<quint32>((m_red << 16) | (m_green << 8) | m_blue)
                    : std::nullopt);
        m_red = m_green = m_blue = 0;
        m_haveComponent = false;
    }

    static bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
    static bool isDigit(char c) { return c >= '0' && c <= '9'; }

    static int hexValue(char c)
    {
        if (isDigit(c))
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    }

    void control()
    {
        const qsizetype size = m_data.size();
        if (m_pos >= size)
            return;
        const char c = m_data.at(m_pos);
        if (!isLetter(c)) {
            ++m_pos;
            symbol(c);
            return;
        }
        // Control word: letters, then an optional signed number, then an
        // optional blank that belongs to the word. Words of any length are
        // consumed; only the first 32 letters are kept.
        const qsizetype start = m_pos;
        while (m_pos < size && isLetter(m_data.at(m_pos)))
            ++m_pos;
        const QByteArray word = m_data.mid(start, qMin<qsizetype>(m_pos - start, 32));
        bool hasParam = false;
        bool negative = false;
        qint64 param = 0;
        if (m_pos < size && m_data.at(m_pos) == '-' && m_pos + 1 < size && isDigit(m_data.at(m_pos + 1))) {
            negative = true;
            ++m_pos;
        }
        while (m_pos < size && isDigit(m_data.at(m_pos))) {
            hasParam = true;
            if (param < (qint64(1) << 40))
                param = param * 10 + (m_data.at(m_pos) - '0');
            ++m_pos;
        }
        if (m_pos < size && m_data.at(m_pos) == ' ')
            ++m_pos;
        param = qBound<qint64>(-(qint64(1) << 31), negative ? -param : param, (qint64(1) << 31) - 1);
        controlWord(word, hasParam, int(param));
    }

    void symbol(char c)
    {
        switch (c) {
        case '\\':
        case '{':
        case '}':
            character(QChar(uchar(c)));
            break;
        case '\'': {
            const qsizetype size = m_data.size();
            const int high = m_pos < size ? hexValue(m_data.at(m_pos)) : -1;
            const int low = m_pos + 1 < size ? hexValue(m_data.at(m_pos + 1)) : -1;
            if (high < 0 || low < 0) {
                // A broken escape: drop it, keep what follows as text.
                if (high >= 0)
                    ++m_pos;
                break;
            }
            m_pos += 2;
            const int byte = high * 16 + low;
            character(QChar(byte), byte);
            break;
        }
        case '*':
            m_state.skip = true; // an optional destination we do not know
            break;
        case '~':
            character(QChar(0x00A0));
            break;
        case '_':
            character(QChar(u'-'));
            break;
        case '\r':
        case '\n':
            character(QChar(u'\n'));
            break;
        default:
            break; // \- optional hyphen, \| and the rest: nothing to show
        }
    }

    void controlWord(const QByteArray &word, bool hasParam, int param)
    {
        if (skippedDestinations().contains(word)) {
            m_state.skip = true;
            return;
        }
        if (word == "colortbl") {
            m_state.colourTable = true;
            m_colours.clear();
            m_red = m_green = m_blue = 0;
            m_haveComponent = false;
            return;
        }
        if (m_state.colourTable) {
            const int value = qBound(0, param, 255);
            if (word == "red")
                m_red = value, m_haveComponent = true;
            else if (word == "green")
                m_green = value, m_haveComponent = true;
            else if (word == "blue")
                m_blue = value, m_haveComponent = true;
            return;
        }
        if (word == "bin") {
            // Binary data: skip exactly that many bytes, never past the end.
            const qint64 count = hasParam ? qMax(0, param) : 0;
            m_pos += qMin<qint64>(count, m_data.size() - m_pos);
            return;
        }
        if (word == "u") {
            if (m_pendingSkip > 0) {
                --m_pendingSkip;
                return;
            }
            const int code = param < 0 ? param + 65536 : param;
            if (!m_state.skip && !m_state.hidden && !m_state.colourTable && code >= 0 && code <= 0xFFFF)
                output(QString(QChar(char16_t(code))));
            m_pendingSkip = m_state.uc;
            return;
        }
        if (word == "uc") {
            m_state.uc = qBound(0, param, 16);
            return;
        }
        if (word == "cf") {
            m_state.colour = hasParam ? qMax(0, param) : 0;
            return;
        }
        if (word == "plain") {
            m_state.colour = 0;
            m_state.hidden = false;
            return;
        }
        if (word == "v") {
            m_state.hidden = !hasParam || param != 0;
            return;
        }
        const QString text = wordText(word);
        if (!text.isEmpty()) {
            if (m_pendingSkip > 0) {
                --m_pendingSkip;
                return;
            }
            if (!m_state.skip && !m_state.hidden)
                output(text);
        }
    }

    static QString wordText(const QByteArray &word)
    {
        if (word == "par" || word == "line" || word == "row" || word == "sect" || word == "page")
            return QStringLiteral("\n");
        if (word == "tab" || word == "cell")
            return QStringLiteral("\t");
        if (word == "emdash")
            return QString(QChar(0x2014));
        if (word == "endash")
            return QString(QChar(0x2013));
        if (word == "bullet")
            return QString(QChar(0x2022));
        if (word == "lquote")
            return QString(QChar(0x2018));
        if (word == "rquote")
            return QString(QChar(0x2019));
        if (word == "ldblquote")
            return QString(QChar(0x201C));
        if (word == "rdblquote")
            return QString(QChar(0x201D));
        if (word == "emspace" || word == "enspace" || word == "qmspace")
            return QStringLiteral(" ");
        return {};
    }

    const QByteArray &m_data;
    qsizetype m_pos = 0;
    State m_state;
    std::vector<State> m_stack;
    int m_overflow = 0;
    int m_pendingSkip = 0;
    std::vector<std::optional<quint32>> m_colours;
    int m_red = 0, m_green = 0, m_blue = 0;
    bool m_haveComponent = false;
    RichText m_out;
};

} // namespace

RichText RtfReader::read(const QByteArray &rtf)
{
    return Parser(rtf).run();
}
