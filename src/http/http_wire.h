#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <optional>

// The byte-level pieces of serving files over HTTP that are ours rather than
// the HTTP library's: turning a request's URL path into a name under an
// access row's folder, reading a Range header, validators (Last-Modified,
// ETag) and the folder index page. Pure functions, no I/O, fuzzed directly.
namespace HttpWire {

// The name a URL path asks for, relative to the row's folder: the path must
// start with "/", which is dropped; percent-escapes are decoded exactly once
// (so "%252e" stays "%2e"). nullopt for a path that does not start with "/",
// a broken escape ("%", "%4", "%zz"), a NUL byte anywhere, or a control
// character or blank sent as it is rather than escaped. "/" gives "".
// Nothing is judged here: ".." and links are the confinement's business.
std::optional<QString> servedName(const QByteArray &urlPath);

struct ByteRange
{
    enum Kind { Whole, Part, Unsatisfiable };
    Kind kind = Whole;
    qint64 first = 0;
    qint64 last = -1; // inclusive
    qint64 length() const { return last - first + 1; }
};
// A "Range: bytes=..." header against a file of `size` bytes. One range
// ("a-b", "a-", "-n") is served as a part; a header that does not parse, uses
// another unit or asks for several ranges is ignored (the whole file, as the
// protocol allows); a single range that starts past the end, or a suffix of 0
// bytes, is unsatisfiable.
ByteRange parseRange(const QByteArray &header, qint64 size);

// IMF-fixdate ("Sun, 06 Nov 1994 08:49:37 GMT") of seconds since the epoch, and back.
QByteArray httpDate(qint64 secondsSinceEpoch);
std::optional<qint64> parseHttpDate(const QByteArray &text);

// A strong validator from the file's modification time and size.
QByteArray entityTag(qint64 modifiedSeconds, qint64 size);
// Whether an If-None-Match list ("*", or tags separated by commas, weak or
// strong) names this tag, compared weakly as the protocol asks for GET.
bool tagListMatches(const QByteArray &list, const QByteArray &tag);

struct IndexEntry
{
    QString name;
    bool folder = false;
    qint64 size = 0;
};
// A plain HTML page listing a folder: each name escaped for HTML and linked
// with its percent-encoded form (folders end in "/"), under a heading that
// names the URL path.
QByteArray folderIndex(const QString &urlPath, const QList<IndexEntry> &entries);
QByteArray htmlEscaped(const QString &text);

} // namespace HttpWire
