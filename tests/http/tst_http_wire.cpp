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
    void urlPathDecodedOnce_data()
    {
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<QString>("name"); // null: refused as a bad request
        QTest::newRow("root") << QByteArray("/") << QString("");
        QTest::newRow("escaped blank") << QByteArray("/ios%20xe.bin") << QString("ios xe.bin");
        QTest::newRow("dots decoded, judged later") << QByteArray("/%2e%2E/x") << QString("../x");
        QTest::newRow("decoded once only") << QByteArray("/%252e%252e") << QString("%2e%2e");
        QTest::newRow("utf-8 name") << QByteArray("/caf%C3%A9") << QString::fromUtf8("café");
        QTest::newRow("no leading slash") << QByteArray("x") << QString();
        QTest::newRow("truncated escape") << QByteArray("/a%4") << QString();
        QTest::newRow("bare percent") << QByteArray("/a%") << QString();
        QTest::newRow("not hex") << QByteArray("/%zz") << QString();
        QTest::newRow("NUL") << QByteArray("/a%00.bin") << QString();
        QTest::newRow("raw CR") << QByteArray("/a\rb") << QString();
        QTest::newRow("escaped CR") << QByteArray("/a%0Db") << QString("a\rb");
    }
    void urlPathDecodedOnce()
    {
        QFETCH(QByteArray, path);
        QFETCH(QString, name);
        const std::optional<QString> got = HttpWire::servedName(path);
        QCOMPARE(got.has_value(), !name.isNull());
        if (got)
            QCOMPARE(*got, name);
    }

    void rangeHeader_data()
    {
        QTest::addColumn<QByteArray>("header");
        QTest::addColumn<qint64>("size");
        QTest::addColumn<int>("kind");
        QTest::addColumn<qint64>("first");
        QTest::addColumn<qint64>("last");
        QTest::newRow("suffix past the start")
            << QByteArray("bytes=-5000") << qint64(1000) << int(ByteRange::Part) << qint64(0) << qint64(999);
        QTest::newRow("end clipped") << QByteArray("bytes=900-5000") << qint64(1000) << int(ByteRange::Part)
                                     << qint64(900) << qint64(999);
        QTest::newRow("start at the end") << QByteArray("bytes=1000-") << qint64(1000)
                                          << int(ByteRange::Unsatisfiable) << qint64(0) << qint64(0);
        QTest::newRow("empty suffix") << QByteArray("bytes=-0") << qint64(1000)
                                      << int(ByteRange::Unsatisfiable) << qint64(0) << qint64(0);
        QTest::newRow("several: whole file") << QByteArray("bytes=0-1,5-6") << qint64(1000)
                                             << int(ByteRange::Whole) << qint64(0) << qint64(999);
        QTest::newRow("backwards: ignored")
            << QByteArray("bytes=5-1") << qint64(1000) << int(ByteRange::Whole) << qint64(0) << qint64(999);
        QTest::newRow("other unit") << QByteArray("items=0-1") << qint64(1000) << int(ByteRange::Whole)
                                    << qint64(0) << qint64(999);
        QTest::newRow("overflowing number") << QByteArray("bytes=99999999999999999999-") << qint64(1000)
                                            << int(ByteRange::Whole) << qint64(0) << qint64(999);
    }
    void rangeHeader()
    {
        QFETCH(QByteArray, header);
        QFETCH(qint64, size);
        QFETCH(int, kind);
        QFETCH(qint64, first);
        QFETCH(qint64, last);
        const ByteRange range = HttpWire::parseRange(header, size);
        QCOMPARE(int(range.kind), kind);
        if (kind != ByteRange::Unsatisfiable) {
            QCOMPARE(range.first, first);
            QCOMPARE(range.last, last);
        }
    }
};

QTEST_GUILESS_MAIN(HttpWireTest)
#include "tst_http_wire.moc"
