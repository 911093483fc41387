#include "rtf_writer.h"

namespace {

void appendHex(QByteArray &out, uint byte)
{
    static const char digits[] = "0123456789abcdef";
    out += "\\'";
    out += digits[(byte >> 4) & 0xF];
    out += digits[byte & 0xF];
}

// next: the character after text in the document (the next run's first),
// or none.
void appendText(QByteArray &out, const QString &text, QChar next)
{
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char16_t ch = text.at(i).unicode();
        switch (ch) {
        case u'\\':
            out += "\\\\";
            continue;
        case u'{':
            out += "\\{";
            continue;
        case u'}':
            out += "\\}";
            continue;
        case u'\t':
            out += "\\tab ";
            continue;
        case u'\r':
            if ((i + 1 < text.size() ? text.at(i + 1) : next) == u'\n')
                continue; // CR LF is one break, also where a colour changes between the two
            out += "\\par\r\n";
            continue;
        case u'\n':
        case 0x2029: // paragraph separator
            out += "\\par\r\n";
            continue;
        case 0x2028: // line separator
            out += "\\line ";
            continue;
        default:
            break;
        }
        if (ch < 0x20)
            appendHex(out, ch);
        else if (ch < 0x80)
            out += char(ch);
        else if (ch >= 0xA0 && ch <= 0xFF) // same in Latin-1 and code page 1252
            appendHex(out, ch);
        else
            out += "\\u" + QByteArray::number(qint16(ch)) + '?';
    }
}

} // namespace

QByteArray RtfWriter::write(const RichText &text)
{
    QList<quint32> colours;
    for (const RichRun &run : text.runs) {
        if (run.colour && !colours.contains(*run.colour))
            colours.append(*run.colour);
    }

    QByteArray out;
    out.reserve(256 + text.plainText().size() * 11 / 10);
    out += "{\\rtf1\\ansi\\ansicpg1252\\deff0\\uc1"
           "{\\fonttbl{\\f0\\fmodern\\fprq1\\fcharset0 Courier New;}}\r\n";
    out += "{\\colortbl ;";
    for (quint32 colour : colours) {
        out += "\\red" + QByteArray::number((colour >> 16) & 0xFF);
        out += "\\green" + QByteArray::number((colour >> 8) & 0xFF);
        out += "\\blue" + QByteArray::number(colour & 0xFF) + ';';
    }
    out += "}\r\n\\viewkind4\\pard\\plain\\f0\\fs20 ";

    int current = 0;
    for (qsizetype r = 0; r < text.runs.size(); ++r) {
        const RichRun &run = text.runs.at(r);
        const int index = run.colour ? int(colours.indexOf(*run.colour)) + 1 : 0;
        if (index != current) {
            out += "\\cf" + QByteArray::number(index) + ' ';
            current = index;
        }
        qsizetype after = r + 1;
        while (after < text.runs.size() && text.runs.at(after).text.isEmpty())
            ++after;
        const QChar next = after < text.runs.size() ? text.runs.at(after).text.front() : QChar();
        appendText(out, run.text, next);
    }
    out += "}\r\n";
    return out;
}
