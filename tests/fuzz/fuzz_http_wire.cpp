// What the HTTP server reads from a request itself: the URL path (decoded
// once, then confined to a folder), the Range header and the dates and tags
// of conditional requests; and the index page built from folder names.
// Parts: URL path, Range header, If-Modified-Since, If-None-Match, then any
// number of names for the index page.
#include "fuzz_input.h"

#include "access/served_path.h"
#include "http/http_wire.h"

#include <QDir>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QList<QByteArray> parts = splitInput(data, size, 16);
    const auto part = [&parts](int i) { return i < parts.size() ? parts[i] : QByteArray(); };

    if (const std::optional<QString> name = HttpWire::servedName(part(0))) {
        if (name->contains(QChar(0)))
            std::abort();
        for (const char c : part(0)) {
            if (uchar(c) <= ' ' || c == '\x7f')
                std::abort(); // control characters and blanks come escaped or not at all
        }
        // A name that climbs or starts at the root never stays inside, whatever exists on disk.
        const bool climbs = name->split(QLatin1Char('/')).contains(QStringLiteral(".."));
        if ((climbs || name->startsWith(QLatin1Char('/')))
            && ServedPath::staysInside(QDir::tempPath(), *name))
            std::abort();
    }

    for (const qint64 fileSize : { qint64(0), qint64(1), qint64(1000), qint64(5) << 30 }) {
        const HttpWire::ByteRange range = HttpWire::parseRange(part(1), fileSize);
        if (range.kind == HttpWire::ByteRange::Part
            && (range.first < 0 || range.last >= fileSize || range.first > range.last))
            std::abort();
    }

    if (const std::optional<qint64> when = HttpWire::parseHttpDate(part(2))) {
        if (HttpWire::parseHttpDate(HttpWire::httpDate(*when)) != when)
            std::abort();
    }
    HttpWire::tagListMatches(part(3), HttpWire::entityTag(1700000000, 42));

    QList<HttpWire::IndexEntry> entries;
    for (int i = 4; i < parts.size(); ++i)
        entries.append({ QString::fromUtf8(parts[i]), i % 2 == 0, i });
    const QByteArray page = HttpWire::folderIndex(QString::fromUtf8(part(0)), entries);
    // Names are text in the page, never markup: the only tags are the page's own.
    if (page.count('<') != 14 + 4 * entries.size())
        std::abort();
    return 0;
}
