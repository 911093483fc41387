#include "http/http_wire.h"
#include "test_support.h"

#include <QTest>

using HttpWire::ByteRange;

// The parts of a request the HTTP server reads itself. Each table row is a
// case a real client or a hostile one sends.
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
        const qint64 big = qint64(5) << 30;
        QTest::newRow("closed") << QByteArray("bytes=100-199") << qint64(1000) << int(ByteRange::Part)
                                << qint64(100) << qint64(199);
        QTest::newRow("open, as curl -C - sends")
            << QByteArray("bytes=500-") << qint64(1000) << int(ByteRange::Part) << qint64(500) << qint64(999);
        QTest::newRow("suffix") << QByteArray("bytes=-10") << qint64(1000) << int(ByteRange::Part)
                                << qint64(990) << qint64(999);
        QTest::newRow("suffix past the start")
            << QByteArray("bytes=-5000") << qint64(1000) << int(ByteRange::Part) << qint64(0) << qint64(999);
        QTest::newRow("end clipped") << QByteArray("bytes=900-5000") << qint64(1000) << int(ByteRange::Part)
                                     << qint64(900) << qint64(999);
        QTest::newRow("past 4 GiB") << QByteArray("bytes=4294967396-") << big << int(ByteRange::Part)
                                    << qint64(4294967396) << big - 1;
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

    void validators()
    {
        // The example date of the HTTP standard, both ways; other forms are not read.
        QCOMPARE(HttpWire::httpDate(784111777), QByteArray("Sun, 06 Nov 1994 08:49:37 GMT"));
        QCOMPARE(HttpWire::parseHttpDate("Sun, 06 Nov 1994 08:49:37 GMT"), std::optional<qint64>(784111777));
        QVERIFY(!HttpWire::parseHttpDate("Sunday, 06-Nov-94 08:49:37 GMT"));
        QVERIFY(!HttpWire::parseHttpDate("Sun, 06 Nov 1994 08:49:37 CET"));
        const QByteArray tag = HttpWire::entityTag(0x6553f100, 42);
        QCOMPARE(tag, QByteArray("\"6553f100-2a\""));
        QVERIFY(HttpWire::tagListMatches("\"x\", W/\"6553f100-2a\"", tag));
        QVERIFY(HttpWire::tagListMatches("*", tag));
        QVERIFY(!HttpWire::tagListMatches("\"6553f100-2b\"", tag));
    }
};

QTEST_GUILESS_MAIN(HttpWireTest)
#include "tst_http_wire.moc"
