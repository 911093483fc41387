#include "http/http_wire.h"
#include "test_support.h"

#include <QTest>

using HttpWire::ByteRange;

// The parts of a request the HTTP server reads itself, in the cases nginx
// cannot be the oracle for: names it never sees decoded this way, and Range
// headers where the protocol lets servers choose (we serve the whole file).
class HttpWireTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // The path as sent, and the name served (null: refused as a bad request).
    void urlPathDecodedOnce()
    {
        const std::pair<QByteArray, QString> rows[] = {
            { "/", "" }, { "/ios%20xe.bin", "ios xe.bin" },
            { "/%2e%2E/x", "../x" }, // decoded here, judged later
            { "/%252e%252e", "%2e%2e" }, // decoded once only
            { "/caf%C3%A9", QString::fromUtf8("caf\xc3\xa9") }, { "x", {} }, // no leading slash
            { "/a%4", {} }, // truncated escape
            { "/a%", {} }, { "/%zz", {} }, // not hex
            { "/a%00.bin", {} }, { "/a\rb", {} }, // a raw CR
            { "/a%0Db", "a\rb" }, // an escaped one
        };
        for (const auto &[path, name] : rows) {
            const std::optional<QString> got = HttpWire::servedName(path);
            QCOMPARE(path + " -> " + got.value_or(QStringLiteral("refused")).toUtf8(),
                path + " -> " + (name.isNull() ? QByteArray("refused") : name.toUtf8()));
        }
    }

    // A file of 1000 bytes: header, kind, and the bytes served where they are served.
    void rangeHeader()
    {
        const int part = ByteRange::Part, whole = ByteRange::Whole, none = ByteRange::Unsatisfiable;
        const std::tuple<const char *, int, qint64, qint64> rows[] = {
            { "bytes=-5000", part, 0, 999 }, // suffix past the start
            { "bytes=900-5000", part, 900, 999 }, // end clipped
            { "bytes=1000-", none, 0, 0 }, // start at the end
            { "bytes=-0", none, 0, 0 }, // empty suffix
            { "bytes=0-1,5-6", whole, 0, 999 }, // several: the whole file
            { "bytes=5-1", whole, 0, 999 }, // backwards: ignored
            { "items=0-1", whole, 0, 999 }, // another unit
            { "bytes=99999999999999999999-", whole, 0, 999 }, // a number that overflows
        };
        for (const auto &[header, kind, first, last] : rows) {
            const ByteRange range = HttpWire::parseRange(header, 1000);
            const bool boundsMatter = range.kind != ByteRange::Unsatisfiable;
            QVERIFY2(
                int(range.kind) == kind && (!boundsMatter || (range.first == first && range.last == last)),
                header);
        }
    }
};

QTEST_GUILESS_MAIN(HttpWireTest)
#include "tst_http_wire.moc"
