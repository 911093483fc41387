#include "response_builder.h"
#include "snmp/interface_table.h"
#include "snmp/snmp_poller.h"
#include "snmp/translate_snmp.h"

#include <QRandomGenerator>
#include <QtTest>

using namespace TranslateSNMP;
using test::berOid;
using test::response;
using test::Response;

class TestCodec : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void encodeIdentifier_data();
    void encodeIdentifier();
    void serialiseExample();
    void leftoverBytesAndOverflow();
    void decodeKeys_data();
    void decodeKeys();
    void truncatedAtEveryOffset();
    void fuzz();
    void uptimeText_data();
    void uptimeText();
    void interfaceCells_data();
    void interfaceCells();
};

void TestCodec::initTestCase()
{
    // Before anything is serialised the shared buffer is all zeros.
    QCOMPARE(snmpPacket(), QByteArray(packetSize, '\0'));
}

void TestCodec::encodeIdentifier_data()
{
    QTest::addColumn<QString>("dotted");
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("sysUpTime") << "1.3.6.1.2.1.1.3.0" << QByteArray::fromHex("2B0601020101 0300");
    QTest::newRow("trailing dot") << "1.3.6.1.2.1.1.3.0." << QByteArray::fromHex("2B0601020101 0300");
    QTest::newRow("cpu, 109 in one byte")
        << " 1.3.6.1.4.1.9.9.109.1.1.1.1.5.1 " << QByteArray::fromHex("2B06010401 09096D0101010105 01");
    QTest::newRow("first two pieces unread") << "2.7.6" << QByteArray::fromHex("2B06");
    QTest::newRow("200 is one byte") << "1.3.200" << QByteArray::fromHex("2BC8");
    QTest::newRow("172 is one byte") << "1.3.6.172" << QByteArray::fromHex("2B06AC");
    QTest::newRow("256") << "1.3.256" << QByteArray::fromHex("2B8200");
    QTest::newRow("300") << "1.3.300" << QByteArray::fromHex("2B822C");
    QTest::newRow("383 rounds up") << "1.3.383" << QByteArray::fromHex("2B837F");
    QTest::newRow("320 half to even, down") << "1.3.320" << QByteArray::fromHex("2B8240");
    QTest::newRow("448 half to even, up") << "1.3.448" << QByteArray::fromHex("2B8440");
    QTest::newRow("16384 cannot be held") << "1.3.16384.5" << QByteArray::fromHex("2B000005");
    QTest::newRow("empty") << "" << QByteArray::fromHex("2B");
}

void TestCodec::encodeIdentifier()
{
    QFETCH(QString, dotted);
    QFETCH(QByteArray, bytes);
    QCOMPARE(TranslateSNMP::encodeIdentifier(dotted).toHex(' '), bytes.toHex(' '));
}

void TestCodec::serialiseExample()
{
    QVERIFY(serialise(buildMessage(
        QStringLiteral(" comstr "), QStringLiteral("1.3.6.1.2.1.1.3.0"), SnmpMessage::getRequest)));
    const QByteArray expected = QByteArray::fromHex("3026020100040663 6F6D737472 A019020101020100020100"
                                                    "300E300C06082B06010201010300 0500");
    QCOMPARE(expected.size(), 40);
    QCOMPARE(snmpPacket().size(), packetSize);
    QCOMPARE(snmpPacket().left(40).toHex(' '), expected.toHex(' '));
    QCOMPARE(lastMessageLength(), 38);

    serialise(buildMessage(
        QStringLiteral("comstr"), QStringLiteral("1.3.6.1.2.1.2.2.1.2.0"), SnmpMessage::getNextRequest));
    QCOMPARE(quint8(snmpPacket().at(13)), quint8(0xA1));
}

void TestCodec::leftoverBytesAndOverflow()
{
    const QString longCommunity(100, QLatin1Char('x'));
    QVERIFY(serialise(buildMessage(longCommunity, QStringLiteral("1.3.6.1.4.1.9.9.109.1.1.1.1.5.1"), 0xA0)));
    const QByteArray afterLong = snmpPacket();
    QVERIFY(serialise(buildMessage(QStringLiteral("comstr"), QStringLiteral("1.3.6.1.2.1.1.3.0"), 0xA0)));
    // Only the shorter message is rewritten; the tail is what the longer one left.
    QCOMPARE(snmpPacket().size(), packetSize);
    QCOMPARE(snmpPacket().mid(40), afterLong.mid(40));
    QVERIFY(snmpPacket().mid(40, 80).count('x') > 0);

    // A community too long for the buffer fills it to the end and never gets
    // its message length: the partial buffer is what goes out.
    QVERIFY(
        !serialise(buildMessage(QString(300, QLatin1Char('y')), QStringLiteral("1.3.6.1.2.1.1.3.0"), 0xA0)));
    QCOMPARE(snmpPacket().size(), packetSize);
    QCOMPARE(snmpPacket().left(2), QByteArray("\x30\x00", 2));
    QCOMPARE(snmpPacket().right(10), QByteArray(10, 'y'));
}

void TestCodec::decodeKeys_data()
{
    QTest::addColumn<QByteArray>("oid");
    QTest::addColumn<int>("valueTag");
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<int>("errorStatus");
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("key");
    QTest::addColumn<double>("number"); // ticks, or the shown number

    const QByteArray uptime = berOid({ 1, 3, 6, 1, 2, 1, 1, 3, 0 });
    const QByteArray cpu = berOid({ 1, 3, 6, 1, 4, 1, 9, 9, 109, 1, 1, 1, 1, 5, 1 });
    QTest::newRow("uptime sum") << uptime << 0x43 << QByteArray::fromHex("009A7EC0") << 0
                                << int(SnmpReply::Uptime) << " 6 1 2 1 1 3 0" << 10124992.0;
    QTest::newRow("uptime five bytes") << uptime << 0x43 << QByteArray::fromHex("0100000000") << 0
                                       << int(SnmpReply::Uptime) << " 6 1 2 1 1 3 0" << 4294967296.0;
    QTest::newRow("uptime too long") << uptime << 0x43 << QByteArray(9, '\1') << 0
                                     << int(SnmpReply::Malformed) << " 6 1 2 1 1 3 0" << 0.0;
    QTest::newRow("cpu shows the length octet")
        << cpu << 0x42 << QByteArray::fromHex("07") << 0 << int(SnmpReply::Cpu)
        << " 6 1 4 1 9 9 109 1 1 1 1 5 1" << 1.0;
    QTest::newRow("cpu noSuchName shown like a value")
        << cpu << 0x05 << QByteArray() << 2 << int(SnmpReply::Cpu) << " 6 1 4 1 9 9 109 1 1 1 1 5 1" << 0.0;
    QTest::newRow("uptime noSuchName")
        << uptime << 0x05 << QByteArray() << 2 << int(SnmpReply::Uptime) << " 6 1 2 1 1 3 0" << 0.0;
    QTest::newRow("ifNumber") << berOid({ 1, 3, 6, 1, 2, 1, 2, 1, 0 }) << 0x02 << QByteArray::fromHex("03")
                              << 0 << int(SnmpReply::InterfaceCount) << " 6 1 2 1 2 1 0" << 3.0;
    QTest::newRow("ifNumber noSuchName: no content byte")
        << berOid({ 1, 3, 6, 1, 2, 1, 2, 1, 0 }) << 0x05 << QByteArray() << 2 << int(SnmpReply::Malformed)
        << " 6 1 2 1 2 1 0" << 0.0;
    QTest::newRow("free memory never matches")
        << berOid({ 1, 3, 6, 1, 4, 1, 9, 2, 1, 8 }) << 0x02 << QByteArray::fromHex("10") << 0
        << int(SnmpReply::Ignored) << " 6 1 4 1 9 2 1 8" << 0.0;
    QTest::newRow("fixed address-table key")
        << berOid({ 1, 3, 6, 1, 2, 1, 3, 1, 1, 1, 2, 1, 172, 25, 1, 1 }) << 0x40
        << QByteArray::fromHex("AC190101") << 0 << int(SnmpReply::Ignored)
        << " 6 1 2 1 3 1 1 1 2 1 129 44 25 1 1" << 0.0;
    QTest::newRow("outside the table")
        << berOid({ 1, 3, 6, 1, 2, 1, 4, 1, 0 }) << 0x02 << QByteArray::fromHex("01") << 0
        << int(SnmpReply::Ignored) << " 6 1 2 1 4 1 0" << 0.0;
    QTest::newRow("walk step, 172 as 129 44")
        << berOid({ 1, 3, 6, 1, 2, 1, 2, 2, 1, 2, 172 }) << 0x04 << QByteArray("eth0") << 0
        << int(SnmpReply::InterfaceValue) << " 6 1 2 1 2 2 1 2 129 44" << 0.0;
}

void TestCodec::decodeKeys()
{
    QFETCH(QByteArray, oid);
    QFETCH(int, valueTag);
    QFETCH(QByteArray, value);
    QFETCH(int, errorStatus);
    QFETCH(int, kind);
    QFETCH(QString, key);
    QFETCH(double, number);

    for (bool longForm : { false, true }) {
        const QByteArray datagram = response({ oid, quint8(valueTag), value, errorStatus, longForm });
        QCOMPARE(quint8(datagram.at(1)) == 0x81, longForm);
        const SnmpReply r = convertSnmp(datagram);
        QCOMPARE(int(r.kind), kind);
        QCOMPARE(r.key, key);
        if (kind == SnmpReply::Uptime)
            QCOMPARE(r.ticks, number);
        else if (kind == SnmpReply::Cpu || kind == SnmpReply::InterfaceCount)
            QCOMPARE(double(r.number), number);
        if (kind == SnmpReply::InterfaceValue) {
            QCOMPARE(r.value, value);
            QCOMPARE(r.walkPosition, QStringLiteral("1.3.6.1.2.1.2.2.1.2.129.44"));
            QVERIFY(!r.physicalAddress);
        }
    }
}

void TestCodec::truncatedAtEveryOffset()
{
    const QList<QByteArray> valid = {
        response({ berOid({ 1, 3, 6, 1, 2, 1, 1, 3, 0 }), 0x43, QByteArray::fromHex("009A7EC0") }),
        response({ berOid({ 1, 3, 6, 1, 2, 1, 2, 1, 0 }), 0x02, QByteArray::fromHex("04") }),
        response({ berOid({ 1, 3, 6, 1, 2, 1, 2, 2, 1, 6, 4 }), 0x04, QByteArray::fromHex("02FC00000001"), 0,
            true }),
    };
    for (const QByteArray &datagram : valid) {
        const SnmpReply whole = convertSnmp(datagram);
        QVERIFY(whole.kind != SnmpReply::Malformed);
        QCOMPARE(whole.physicalAddress, whole.key.startsWith(QLatin1String(" 6 1 2 1 2 2 1 6")));
        for (qsizetype cut = 0; cut < datagram.size(); ++cut) {
            const SnmpReply r = convertSnmp(datagram.left(cut));
            QVERIFY2(r.kind == SnmpReply::Malformed, qPrintable(QStringLiteral("cut at %1").arg(cut)));
        }
    }
}

// Random bytes and random damage to real answers: nothing may crash or read
// past the datagram (run under ASan to see the latter), and whatever is
// recognised must be consistent with the bytes it came from.
void TestCodec::fuzz()
{
    QRandomGenerator rng(20261122);
    const QList<QByteArray> seeds = {
        response({ berOid({ 1, 3, 6, 1, 2, 1, 1, 3, 0 }), 0x43, QByteArray::fromHex("009A7EC0") }),
        response({ berOid({ 1, 3, 6, 1, 2, 1, 2, 2, 1, 2, 1 }), 0x04, QByteArray("lo"), 0, true }),
        response({ berOid({ 1, 3, 6, 1, 2, 1, 2, 2, 1, 10, 4 }), 0x41, QByteArray(200, '\xFF') }),
        QByteArray::fromHex("3084FFFFFFFF020100040670 75626C6963A2"), QByteArray::fromHex("3080020100"),
        QByteArray::fromHex("308F"),
        QByteArray::fromHex("A41C"), // a trap PDU header where a message should be
    };
    int recognised = 0;
    for (int i = 0; i < 20000; ++i) {
        QByteArray d;
        if (i % 2) {
            d.resize(rng.bounded(300));
            for (char &c : d)
                c = char(rng.bounded(256));
        } else {
            d = seeds.at(rng.bounded(int(seeds.size())));
            for (int n = rng.bounded(1, 4); n > 0 && !d.isEmpty(); --n)
                d[rng.bounded(int(d.size()))] = char(rng.bounded(256));
            if (rng.bounded(4) == 0)
                d.truncate(rng.bounded(int(d.size()) + 1));
        }
        const SnmpReply r = convertSnmp(d);
        if (r.kind == SnmpReply::Malformed)
            continue;
        ++recognised;
        QVERIFY(r.key.size() < 4 * d.size() + 1);
        if (r.kind == SnmpReply::InterfaceValue) {
            QVERIFY(r.walkPosition.startsWith(QLatin1String("1.3.6.1.2.1.2.2.1")));
            QVERIFY(r.value.size() <= 255);
            const InterfaceTable::Cell cell
                = InterfaceTable::converttolist(r.key, r.value, r.physicalAddress);
            QVERIFY(cell.row >= 0);
        }
    }
    QVERIFY(recognised > 1000); // the damaged answers still reach the decoder's end often
}

void TestCodec::uptimeText_data()
{
    QTest::addColumn<double>("ticks");
    QTest::addColumn<QString>("text");
    QTest::newRow("zero") << 0.0 << "0 days 0 hours 0 minutes";
    QTest::newRow("90 s rounds to 2 minutes") << 8999.0 << "0 days 0 hours 2 minutes";
    QTest::newRow("3 d 4 h 12 min") << 27432000.0 << "3 days 4 hours 12 minutes";
    QTest::newRow("71 h 40 min rounds to 3 days") << 25800000.0 << "3 days 0 hours 40 minutes";
    QTest::newRow("1687.5 min half to even") << 10124992.0 << "1 days 4 hours 8 minutes";
}

void TestCodec::uptimeText()
{
    QFETCH(double, ticks);
    QFETCH(QString, text);
    QCOMPARE(SnmpPoller::formatUptime(ticks), text);
}

void TestCodec::interfaceCells_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<int>("row");
    QTest::addColumn<int>("subItem");
    QTest::addColumn<QString>("text");
    const QString k = QStringLiteral(" 6 1 2 1 2 2 1 ");
    QTest::newRow("description") << k + "2 1" << QByteArray("lo") << 1 << 0 << "lo";
    QTest::newRow("index 172") << k + "2 129 44" << QByteArray("Gi0/1") << 172 << 0 << "Gi0/1";
    QTest::newRow("mtu") << k + "4 1" << QByteArray::fromHex("010000") << 1 << 2 << "65536";
    QTest::newRow("speed") << k + "5 2" << QByteArray::fromHex("00989680") << 2 << 3 << "10000000";
    QTest::newRow("mac") << k + "6 4" << QByteArray::fromHex("02FC00000001") << 4 << 4 << "02#FC#00#00#00#01";
    QTest::newRow("mac empty") << k + "6 1" << QByteArray() << 1 << 4 << "";
    QTest::newRow("admin up") << k + "7 1" << QByteArray::fromHex("01") << 1 << 5 << "Ad up";
    QTest::newRow("admin down") << k + "7 1" << QByteArray::fromHex("02") << 1 << 5 << "Ad Down";
    QTest::newRow("counter above 2^31")
        << k + "10 3" << QByteArray::fromHex("00FFFFFFFF") << 3 << 8 << "4294967295";
    QTest::newRow("nucast in under discards in")
        << k + "12 1" << QByteArray::fromHex("2A") << 1 << 10 << "42";
    QTest::newRow("if specific beyond the list")
        << k + "22 1" << QByteArray::fromHex("0000") << 1 << 20 << "0000";
}

void TestCodec::interfaceCells()
{
    QFETCH(QString, key);
    QFETCH(QByteArray, value);
    QFETCH(int, row);
    QFETCH(int, subItem);
    QFETCH(QString, text);
    const InterfaceTable::Cell cell
        = InterfaceTable::converttolist(key, value, key.startsWith(" 6 1 2 1 2 2 1 6"));
    QCOMPARE(cell.row, row);
    QCOMPARE(cell.subItem, subItem);
    QCOMPARE(cell.text, text);
    QCOMPARE(InterfaceTable::headers().size(), InterfaceTable::columnCount);
    QCOMPARE(InterfaceTable::headers().at(10), QStringLiteral("discards in"));
}

QTEST_GUILESS_MAIN(TestCodec)
#include "tst_codec.moc"
