#include "http/http_wire.h"

#include <QFile>
#include <QUrl>

#include <cstdio>
#include <ctime>
#include <limits>

namespace HttpWire {

namespace {

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// A run of decimal digits that fits 63 bits; nullopt for none or too many.
std::optional<qint64> readNumber(const QByteArray &text, qsizetype &at)
{
    const qsizetype start = at;
    qint64 value = 0;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
        if (value > (std::numeric_limits<qint64>::max() - 9) / 10)
            return std::nullopt;
        value = value * 10 + (text[at] - '0');
        ++at;
    }
    if (at == start)
        return std::nullopt;
    return value;
}

void skipBlanks(const QByteArray &text, qsizetype &at)
{
    while (at < text.size() && (text[at] == ' ' || text[at] == '\t'))
        ++at;
}

const char *const dayNames[] = { "Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat" };
const char *const monthNames[]
    = { "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec" };

} // namespace

std::optional<QString> servedName(const QByteArray &urlPath)
{
    if (!urlPath.startsWith('/'))
        return std::nullopt;
    QByteArray decoded;
    decoded.reserve(urlPath.size());
    for (qsizetype i = 1; i < urlPath.size(); ++i) {
        char c = urlPath[i];
        if (uchar(c) <= ' ' || c == '\x7f')
            return std::nullopt; // not a URL character unless escaped
        if (c == '%') {
            if (i + 2 >= urlPath.size())
                return std::nullopt;
            const int high = hexValue(urlPath[i + 1]), low = hexValue(urlPath[i + 2]);
            if (high < 0 || low < 0)
                return std::nullopt;
            c = char(high * 16 + low);
            i += 2;
        }
        if (c == '\0')
            return std::nullopt;
        decoded.append(c);
    }
    return QFile::decodeName(decoded);
}

ByteRange parseRange(const QByteArray &header, qint64 size)
{
    ByteRange whole;
    whole.last = size - 1;
    qsizetype at = 0;
    skipBlanks(header, at);
    if (!header.mid(at, 6).toLower().startsWith("bytes="))
        return whole;
    at += 6;
    skipBlanks(header, at);
    ByteRange range;
    if (at < header.size() && header[at] == '-') {
        ++at;
        const auto suffix = readNumber(header, at);
        if (!suffix)
            return whole;
        range.kind = ByteRange::Part;
        range.first = qMax<qint64>(0, size - *suffix);
        range.last = size - 1;
        if (*suffix == 0 || size == 0)
            range.kind = ByteRange::Unsatisfiable;
    } else {
        const auto first = readNumber(header, at);
        if (!first || at >= header.size() || header[at] != '-')
            return whole;
        ++at;
        std::optional<qint64> last;
        if (at < header.size() && header[at] >= '0' && header[at] <= '9') {
            last = readNumber(header, at);
            if (!last || *last < *first)
                return whole;
        }
        range.kind = *first >= size ? ByteRange::Unsatisfiable : ByteRange::Part;
        range.first = *first;
        range.last = qMin(last.value_or(size - 1), size - 1);
    }
    skipBlanks(header, at);
    if (at != header.size())
        return whole; // several ranges, or junk: the whole file
    return range;
}

QByteArray httpDate(qint64 secondsSinceEpoch)
{
    const std::time_t t = std::time_t(secondsSinceEpoch);
    std::tm tm {};
    if (!gmtime_r(&t, &tm))
        return {};
    char text[40];
    std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", dayNames[tm.tm_wday % 7],
        tm.tm_mday, monthNames[tm.tm_mon % 12], tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec);
    return text;
}

std::optional<qint64> parseHttpDate(const QByteArray &text)
{
    // Only the fixed form: every client in use sends it, and the obsolete
    // forms are allowed to be ignored (the request is then unconditional).
    if (text.size() != 29 || text.mid(3, 2) != ", " || !text.endsWith(" GMT"))
        return std::nullopt;
    std::tm tm {};
    int month = -1;
    for (int m = 0; m < 12; ++m) {
        if (text.mid(8, 3) == monthNames[m])
            month = m;
    }
    const QByteArray digits
        = text.mid(5, 2) + text.mid(12, 4) + text.mid(17, 2) + text.mid(20, 2) + text.mid(23, 2);
    for (char c : digits) {
        if (c < '0' || c > '9')
            return std::nullopt;
    }
    if (month < 0 || text[7] != ' ' || text[11] != ' ' || text[16] != ' ' || text[19] != ':'
        || text[22] != ':')
        return std::nullopt;
    tm.tm_mday = text.mid(5, 2).toInt();
    tm.tm_mon = month;
    tm.tm_year = text.mid(12, 4).toInt() - 1900;
    tm.tm_hour = text.mid(17, 2).toInt();
    tm.tm_min = text.mid(20, 2).toInt();
    tm.tm_sec = text.mid(23, 2).toInt();
    if (tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour > 23 || tm.tm_min > 59 || tm.tm_sec > 60)
        return std::nullopt;
    return qint64(timegm(&tm));
}

QByteArray entityTag(qint64 modifiedSeconds, qint64 size)
{
    return '"' + QByteArray::number(modifiedSeconds, 16) + '-' + QByteArray::number(size, 16) + '"';
}

bool tagListMatches(const QByteArray &list, const QByteArray &tag)
{
    const auto opaque = [](QByteArray t) {
        t = t.trimmed();
        return t.startsWith("W/") ? t.mid(2) : t;
    };
    const QByteArray mine = opaque(tag);
    for (const QByteArray &item : list.split(',')) {
        const QByteArray t = item.trimmed();
        if (t == "*" || (!t.isEmpty() && opaque(t) == mine))
            return true;
    }
    return false;
}

QByteArray htmlEscaped(const QString &text)
{
    return text.toHtmlEscaped().replace(QLatin1Char('\''), QLatin1String("&#39;")).toUtf8();
}

QByteArray folderIndex(const QString &urlPath, const QList<IndexEntry> &entries)
{
    const QByteArray title = "Index of " + htmlEscaped(urlPath);
    QByteArray page = "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>" + title
        + "</title></head>\n"
          "<body><h1>"
        + title + "</h1>\n<ul>\n";
    for (const IndexEntry &entry : entries) {
        const QString shown = entry.folder ? entry.name + QLatin1Char('/') : entry.name;
        // "./" keeps a name such as "a:b" from reading as a scheme.
        const QByteArray href = "./" + QUrl::toPercentEncoding(entry.name) + (entry.folder ? "/" : "");
        page += "<li><a href=\"" + href + "\">" + htmlEscaped(shown) + "</a>";
        if (!entry.folder)
            page += " " + QByteArray::number(entry.size);
        page += "</li>\n";
    }
    page += "</ul>\n</body></html>\n";
    return page;
}

} // namespace HttpWire
