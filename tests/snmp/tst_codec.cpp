#include "response_builder.h"
#include "snmp/interface_table.h"
#include "snmp/snmp_poller.h"
#include "snmp/translate_snmp.h"

#include <QRandomGenerator>
#include <QtTest>

using namespace TranslateSNMP;
using test::berOid;
using test::response;

class TestCodec : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void encodeIdentifier_data();
    void encodeIdentifier();
    void sharedBuffer();
    void decodeKeys_data();
    void decodeKeys();
    void damagedDatagrams();
    void uptimeText_data();
    void uptimeText();
    void interfaceCells_data();
    void interfaceCells();
};

void TestCodec::encodeIdentifier_data()
{
    QTest::addColumn<QString>("dotted");
    QTest::addColumn<QByteArray>("hex");
    QTest::newRow("sysUpTime") << "1.3.6.1.2.1.1.3.0" << QByteArray("2b 06 01 02 01 01 03 00");
    QTest::newRow("trailing dot") << "1.3.6.1.2.1.1.3.0." << QByteArray("2b 06 01 02 01 01 03 00");
    QTest::newRow("cpu, 14 bytes") << "1.3.6.1.4.1.9.9.109.1.1.1.1.5.1"
                                   << QByteArray("2b 06 01 04 01 09 09 6d 01 01 01 01 05 01");
    QTest::newRow("first two pieces unread") << "2.7.6" << QByteArray("2b 06");
    QTest::newRow("200 and 172 are one byte") << "1.3.200.172" << QByteArray("2b c8 ac");
    QTest::newRow("256") << "1.3.256" << QByteArray("2b 82 00");
    QTest::newRow("383 rounds up") << "1.3.383" << QByteArray("2b 83 7f");
    QTest::newRow("320 and 448 halves to even") << "1.3.320.448" << QByteArray("2b 82 40 84 40");
    QTest::newRow("16384 cannot be held") << "1.3.16384.5" << QByteArray("2b 00 00 05");
}

void TestCodec::encodeIdentifier()
{
    QFETCH(QString, dotted);
    QFETCH(QByteArray, hex);
    QCOMPARE(TranslateSNMP::encodeIdentifier(dotted).toHex(' '), hex);
}

void TestCodec::sharedBuffer()
{
    QCOMPARE(snmpPacket(), QByteArray(packetSize, '\0')); // zeros before the first request
    QVERIFY(serialise(buildMessage(QString(100, QLatin1Char('x')), QStringLiteral("1.3.6.1"), 0xA1)));
    const QByteArray afterLong = snmpPacket();

    QVERIFY(serialise(buildMessage(QStringLiteral(" comstr "), QStringLiteral("1.3.6.1.2.1.1.3.0"), 0xA0)));
    QCOMPARE(snmpPacket().left(40).toHex(' '),
        QByteArray("30 26 02 01 00 04 06 63 6f 6d 73 74 72 a0 19 02 01 01 02 01 "
                   "00 02 01 00 30 0e 30 0c 06 08 2b 06 01 02 01 01 03 00 05 00"));
    // The tail is what the longer message left: the whole buffer is the datagram.
    QCOMPARE(snmpPacket().size(), packetSize);
    QCOMPARE(snmpPacket().mid(40), afterLong.mid(40));

    // Too long for the buffer: written to the end without its length, still sent.
    QVERIFY(
        !serialise(buildMessage(QString(300, QLatin1Char('y')), QStringLiteral("1.3.6.1.2.1.1.3.0"), 0xA0)));
    QCOMPARE(snmpPacket().size(), packetSize);
    QCOMPARE(snmpPacket().left(2).toHex(), QByteArray("3000"));
    QVERIFY(snmpPacket().endsWith("yyyy"));
}

void TestCodec::decodeKeys_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("key");
    QTest::addColumn<double>("number"); // ticks, or the number shown
    const auto row = [](const char *name, QList<quint32> oid, quint8 tag, const QByteArray &value, int error,
                         SnmpReply::Kind kind, const char *key, double number) {
        for (bool longForm : { false, true })
            QTest::addRow("%s%s", name, longForm ? ", long form" : "")
                << response({ berOid(oid), tag, value, error, longForm }) << int(kind) << key << number;
    };
    row("uptime sum", { 1, 3, 6, 1, 2, 1, 1, 3, 0 }, 0x43, QByteArray::fromHex("009A7EC0"), 0,
        SnmpReply::Uptime, " 6 1 2 1 1 3 0", 10124992);
    row("cpu shows the length octet", { 1, 3, 6, 1, 4, 1, 9, 9, 109, 1, 1, 1, 1, 5, 1 }, 0x42, "\x07", 0,
        SnmpReply::Cpu, " 6 1 4 1 9 9 109 1 1 1 1 5 1", 1);
    row("noSuchName shown like a value", { 1, 3, 6, 1, 4, 1, 9, 9, 109, 1, 1, 1, 1, 5, 1 }, 0x05, "", 2,
        SnmpReply::Cpu, " 6 1 4 1 9 9 109 1 1 1 1 5 1", 0);
    row("ifNumber", { 1, 3, 6, 1, 2, 1, 2, 1, 0 }, 0x02, "\x03", 0, SnmpReply::InterfaceCount,
        " 6 1 2 1 2 1 0", 3);
    row("free memory never matches", { 1, 3, 6, 1, 4, 1, 9, 2, 1, 8 }, 0x02, "\x10", 0, SnmpReply::Ignored,
        " 6 1 4 1 9 2 1 8", 0);
    row("outside the table", { 1, 3, 6, 1, 2, 1, 4, 1, 0 }, 0x02, "\x01", 0, SnmpReply::Ignored,
        " 6 1 2 1 4 1 0", 0);
    row("walk step, 172 as 129 44", { 1, 3, 6, 1, 2, 1, 2, 2, 1, 2, 172 }, 0x04, "eth0", 0,
        SnmpReply::InterfaceValue, " 6 1 2 1 2 2 1 2 129 44", 0);
}

void TestCodec::decodeKeys()
{
    QFETCH(QByteArray, datagram);
    QFETCH(int, kind);
    QFETCH(QString, key);
    QFETCH(double, number);
    const SnmpReply r = convertSnmp(datagram);
    QCOMPARE(int(r.kind), kind);
    QCOMPARE(r.key, key);
    QCOMPARE(kind == SnmpReply::Uptime ? r.ticks : double(r.number), number);
    if (kind == SnmpReply::InterfaceValue) {
        QCOMPARE(r.value, QByteArray("eth0"));
        QCOMPARE(r.walkPosition, QStringLiteral("1.3.6.1.2.1.2.2.1.2.129.44"));
    }
}

// Every truncation of an answer that is acted on is dropped whole; random
// bytes and random damage never crash (run under ASan to see stray reads),
// and whatever still decodes is consistent with the bytes it came from.
void TestCodec::damagedDatagrams()
{
    const QList<QByteArray> seeds = {
        response({ berOid({ 1, 3, 6, 1, 2, 1, 1, 3, 0 }), 0x43, QByteArray::fromHex("009A7EC0") }),
        response({ berOid({ 1, 3, 6, 1, 2, 1, 2, 1, 0 }), 0x02, "\x04" }),
        response({ berOid({ 1, 3, 6, 1, 2, 1, 2, 2, 1, 6, 4 }), 0x04, QByteArray::fromHex("02FC00000001"), 0,
            true }),
        QByteArray::fromHex("3084FFFFFFFF020100"),
        QByteArray::fromHex("3080020100"),
        QByteArray::fromHex("A41C"),
    };
    for (const QByteArray &d : seeds.mid(0, 3))
        for (qsizetype cut = 0; cut < d.size(); ++cut)
            QVERIFY2(convertSnmp(d.left(cut)).kind == SnmpReply::Malformed, qPrintable(QString::number(cut)));

    QRandomGenerator rng(20261122);
    int recognised = 0;
    for (int i = 0; i < 20000; ++i) {
        QByteArray d = seeds.at(rng.bounded(int(seeds.size())));
        if (i % 2) {
            d.resize(rng.bounded(300));
            for (char &c : d)
                c = char(rng.bounded(256));
        } else if (!d.isEmpty()) {
            d[rng.bounded(int(d.size()))] = char(rng.bounded(256));
            d.truncate(rng.bounded(int(d.size()) + 1) + (rng.bounded(2) ? int(d.size()) : 0));
        }
        const SnmpReply r = convertSnmp(d);
        if (r.kind == SnmpReply::Malformed)
            continue;
        ++recognised;
        if (r.kind == SnmpReply::InterfaceValue) {
            QVERIFY(r.walkPosition.startsWith(QLatin1String("1.3.6.1.2.1.2.2.1")));
            QVERIFY(d.contains(r.value));
            QCOMPARE(r.physicalAddress, r.key.startsWith(QLatin1String(" 6 1 2 1 2 2 1 6")));
        }
    }
    QVERIFY(recognised > 1000);
}

void TestCodec::uptimeText_data()
{
    QTest::addColumn<double>("ticks");
    QTest::addColumn<QString>("text");
    QTest::newRow("90 s round to 2 minutes") << 8999.0 << "0 days 0 hours 2 minutes";
    QTest::newRow("3 d 4 h 12 min") << 27432000.0 << "3 days 4 hours 12 minutes";
    QTest::newRow("71 h 40 min round to 3 days") << 25800000.0 << "3 days 0 hours 40 minutes";
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
    QTest::addColumn<QString>("header");
    QTest::addColumn<QString>("text");
    const QString k = QStringLiteral(" 6 1 2 1 2 2 1 ");
    QTest::newRow("description") << k + "2 129 44" << QByteArray("Gi0/1") << 172 << "Interface"
                                 << "Gi0/1";
    QTest::newRow("mtu") << k + "4 1" << QByteArray::fromHex("010000") << 1 << "MTU"
                         << "65536";
    QTest::newRow("mac") << k + "6 4" << QByteArray::fromHex("02FC00000001") << 4 << "Mac"
                         << "02#FC#00#00#00#01";
    QTest::newRow("admin") << k + "7 1" << QByteArray::fromHex("02") << 1 << "admin status"
                           << "Ad Down";
    QTest::newRow("counter above 2^31") << k + "10 3" << QByteArray::fromHex("00FFFFFFFF") << 3 << "octets in"
                                        << "4294967295";
    QTest::newRow("nucast in, shifted") << k + "12 1" << QByteArray::fromHex("2A") << 1 << "discards in"
                                        << "42";
}

void TestCodec::interfaceCells()
{
    QFETCH(QString, key);
    QFETCH(QByteArray, value);
    QFETCH(int, row);
    QFETCH(QString, header);
    QFETCH(QString, text);
    const InterfaceTable::Cell cell
        = InterfaceTable::converttolist(key, value, key.startsWith(" 6 1 2 1 2 2 1 6"));
    QCOMPARE(cell.row, row);
    QCOMPARE(InterfaceTable::headers().value(cell.subItem), header);
    QCOMPARE(cell.text, text);
}

QTEST_GUILESS_MAIN(TestCodec)
#include "tst_codec.moc"
