#include "snmp/interface_table.h"
#include "snmp/snmp_page.h"
#include "snmp/snmp_poller.h"
#include "snmp/translate_snmp.h"
#include "test_support.h"
#include "util/message_box.h"

#include <QtNetwork>
#include <QtTest>
#include <QtWidgets>

using namespace TranslateSNMP;

const auto tlv
    = [](quint8 tag, const QByteArray &content) { return char(tag) + (char(content.size()) + content); };

// A version 1 GetResponse binding 1.3.<ids> to a value with BER sub-identifiers, as agents send it. longForm:
// outer length 0x82 HH LL even where short would do (0x81 LL decodes alike on either path, proving nothing).
static QByteArray response(std::initializer_list<quint32> ids, quint8 tag, const QByteArray &value,
    int error = 0, bool longForm = false)
{
    QByteArray oid(1, '\x2B');
    for (quint32 v : ids) {
        QByteArray piece(1, char(v & 0x7F));
        while (v >>= 7)
            piece.prepend(char(0x80 | (v & 0x7F)));
        oid += piece;
    }
    const QByteArray body = tlv(0x02, QByteArray(1, '\0')) + tlv(0x04, "public")
        + tlv(0xA2,
            tlv(0x02, "\x2A") + tlv(0x02, QByteArray(1, char(error)))
                + tlv(0x02, QByteArray(1, char(error ? 1 : 0)))
                + tlv(0x30, tlv(0x30, tlv(0x06, oid) + tlv(tag, value))));
    return longForm ? QByteArray("\x30\x82\x00", 3) + char(body.size()) + body : tlv(0x30, body);
}

class TestMonitor : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void encoderAndDecoder();
    void pollCycleAndFigures();
};

void TestMonitor::encoderAndDecoder()
{
    // Every identifier is taken to start with 1.3; pieces up to 255 take one byte, larger ones two,
    // rounded half to even; 16384 and above cannot be held.
    const char *const rows[][2] = { { "1.3.6.1.2.1.1.3.0.", "2b 06 01 02 01 01 03 00" },
        { "1.3.6.1.4.1.9.9.109.1.1.1.1.5.1", "2b 06 01 04 01 09 09 6d 01 01 01 01 05 01" },
        { "2.7.6", "2b 06" }, { "1.3.200.172", "2b c8 ac" }, { "1.3.256", "2b 82 00" },
        { "1.3.383", "2b 83 7f" }, { "1.3.320.448", "2b 82 40 84 40" }, { "1.3.16384.5", "2b 00 00 05" } };
    for (const auto &[dotted, hex] : rows)
        QCOMPARE(dotted + (" = " + encodeIdentifier(dotted).toHex(' ')), dotted + (" = " + QByteArray(hex)));

    // The whole shared buffer is the datagram: zeros at first, then the tail of a longer one before.
    QCOMPARE(snmpPacket(), QByteArray(packetSize, '\0'));
    QVERIFY(serialise(buildMessage(QString(100, QLatin1Char('x')), QStringLiteral("1.3.6.1"), 0xA1)));
    const QByteArray afterLong = snmpPacket();
    QVERIFY(serialise(buildMessage(QStringLiteral(" comstr "), QStringLiteral("1.3.6.1.2.1.1.3.0"), 0xA0)));
    QCOMPARE(snmpPacket().left(40).toHex(' '),
        QByteArray("30 26 02 01 00 04 06 63 6f 6d 73 74 72 a0 19 02 01 01 02 01 "
                   "00 02 01 00 30 0e 30 0c 06 08 2b 06 01 02 01 01 03 00 05 00"));
    QCOMPARE(snmpPacket().mid(40), afterLong.mid(40));

    // Too long for the buffer: written to the end without its length, still sent.
    QVERIFY(
        !serialise(buildMessage(QString(300, QLatin1Char('y')), QStringLiteral("1.3.6.1.2.1.1.3.0"), 0xA0)));
    QVERIFY(snmpPacket().size() == packetSize && snmpPacket().startsWith(QByteArray("\x30\x00", 2))
        && snmpPacket().endsWith("yyyy"));

    // Kind, key and figure of one answer, in the short and the long outer form.
    const auto check = [](std::initializer_list<quint32> ids, quint8 tag, const QByteArray &value,
                           const char *shown, int error = 0) {
        for (const char *form : { "short", "long" }) {
            const SnmpReply r = convertSnmp(response(ids, tag, value, error, *form == 'l'));
            QCOMPARE(QStringLiteral("%1 %2:%3 = %4 %5 %6")
                         .arg(QLatin1String(form), QString::number(r.kind), r.key,
                             QString::number(r.kind == SnmpReply::Uptime ? r.ticks : r.number, 'f', 0),
                             QString::fromLatin1(r.value), r.walkPosition),
                QString(form + QLatin1String(" ") + shown));
        }
    };
    check({ 6, 1, 2, 1, 1, 3, 0 }, 0x43, QByteArray::fromHex("009A7EC0"), "2: 6 1 2 1 1 3 0 = 10124992  ");
    // CPU load shows the value's length octet; noSuchName is shown like a value.
    check({ 6, 1, 4, 1, 9, 9, 109, 1, 1, 1, 1, 5, 1 }, 0x42, "\x07", "3: 6 1 4 1 9 9 109 1 1 1 1 5 1 = 1  ");
    check({ 6, 1, 4, 1, 9, 9, 109, 1, 1, 1, 1, 5, 1 }, 0x05, "", "3: 6 1 4 1 9 9 109 1 1 1 1 5 1 = 0  ", 2);
    check({ 6, 1, 2, 1, 2, 1, 0 }, 0x02, "\x03", "5: 6 1 2 1 2 1 0 = 3  ");
    // Free memory's key can never be built; answers outside the table are ignored.
    check({ 6, 1, 4, 1, 9, 2, 1, 8 }, 0x02, "\x10", "1: 6 1 4 1 9 2 1 8 = 0  ");
    check({ 6, 1, 2, 1, 4, 1, 0 }, 0x02, "\x01", "1: 6 1 2 1 4 1 0 = 0  ");
    check({ 6, 1, 2, 1, 2, 2, 1, 2, 172 }, 0x04, "eth0",
        "6: 6 1 2 1 2 2 1 2 129 44 = 0 eth0 1.3.6.1.2.1.2.2.1.2.129.44");

    QCOMPARE(SnmpPoller::formatUptime(27432000.0) + ", " + SnmpPoller::formatUptime(25800000.0),
        QStringLiteral("3 days 4 hours 12 minutes, 3 days 0 hours 40 minutes"));

    // Where interface-table values land: the index bytes make the row; from "discards in" on each
    // header stands over the column before its own.
    const char *const cells[][3] = { { "2 129 44", "4769302f31", "172 Interface Gi0/1" },
        { "6 4", "02FC00000001", "4 Mac 02#FC#00#00#00#01" }, { "7 1", "02", "1 admin status Ad Down" },
        { "10 3", "00FFFFFFFF", "3 octets in 4294967295" }, { "12 1", "2A", "1 discards in 42" } };
    for (const auto &[key, hex, shown] : cells) {
        const auto cell = InterfaceTable::converttolist(
            QLatin1String(" 6 1 2 1 2 2 1 ") + key, QByteArray::fromHex(hex), key[0] == '6');
        QCOMPARE(
            QString::number(cell.row) + ' ' + InterfaceTable::headers().value(cell.subItem) + ' ' + cell.text,
            QLatin1String(shown));
    }

    // Every truncation of an answer is dropped whole; random bytes and damage (also to a four-byte and an
    // indefinite length and a bare trap header) never crash, and what still decodes matches its bytes.
    const QList<QByteArray> seeds
        = { response({ 6, 1, 2, 1, 1, 3, 0 }, 0x43, QByteArray::fromHex("009A7EC0")),
              response({ 6, 1, 2, 1, 2, 1, 0 }, 0x02, "\x04"),
              response({ 6, 1, 2, 1, 2, 2, 1, 6, 4 }, 0x04, QByteArray::fromHex("02FC00000001"), 0, true),
              QByteArray::fromHex("3084FFFFFFFF020100"), QByteArray::fromHex("3080020100"),
              QByteArray::fromHex("A41C") };
    for (const QByteArray &d : seeds)
        for (qsizetype cut = 0; cut < d.size(); ++cut)
            QVERIFY2(convertSnmp(d.left(cut)).kind == SnmpReply::Malformed, qPrintable(QString::number(cut)));

    QRandomGenerator rng(20261122);
    int recognised = 0;
    for (int i = 0; i < 20000; ++i) {
        QByteArray d = seeds.at(rng.bounded(int(seeds.size())));
        if (i % 2) {
            d = tw::test::junk(rng, 300);
        } else {
            d[rng.bounded(int(d.size()))] = char(rng.bounded(256));
            d.truncate(rng.bounded(int(d.size()) + 1) + (rng.bounded(2) ? int(d.size()) : 0));
        }
        const SnmpReply r = convertSnmp(d);
        recognised += r.kind != SnmpReply::Malformed;
        if (r.kind == SnmpReply::InterfaceValue) {
            QVERIFY(r.walkPosition.startsWith(QLatin1String("1.3.6.1.2.1.2.2.1")));
            QVERIFY(d.contains(r.value));
            QCOMPARE(r.physicalAddress, r.key.startsWith(QLatin1String(" 6 1 2 1 2 2 1 6")));
        }
    }
    QVERIFY(recognised > 1000);
}

// Start before the console has a device: "No connection" once and polling stops; Stop does nothing of its
// own. With one: four scalar requests, the walk's first identifier twice, then nothing, 256 bytes each
// with the typed community, all from the socket bound at the very first request; Start restarts the cycle.
void TestMonitor::pollCycleAndFigures()
{
    QUdpSocket device; // never answers
    QVERIFY(device.bind(QHostAddress::LocalHost, 0));
    SnmpPoller::setAgentPort(device.localPort());
    QStringList boxes;
    tw::setMessageBoxHook([&boxes](const QString &text, QMessageBox::Icon) { boxes << text; });
    const auto unhook = qScopeGuard([] { tw::setMessageBoxHook({}); });
    QString address;
    SnmpPage page([&address] { return address; });
    SnmpPoller *poller = page.poller();
    poller->setStepInterval(5);
    page.show();
    auto *community = page.findChild<QLineEdit *>(QStringLiteral("ComString"));
    community->clear();
    QTest::keyClicks(community, QStringLiteral("secret"));
    QSignalSpy started(&page, &SnmpPage::startClicked);
    const auto click = [&page](const char *name) {
        QTest::mouseClick(page.findChild<QPushButton *>(QLatin1String(name)), Qt::LeftButton);
    };
    click("SNMPStart");
    QTRY_COMPARE(boxes, QStringList { QStringLiteral("No connection") });
    QVERIFY(!poller->snmpDelay()->isActive());
    click("SNMPStop");
    const quint16 port = poller->localPort();

    address = QStringLiteral(" 127.0.0.1 ");
    const QList<QByteArray> cycle = { "a0 2b 06 01 02 01 02 01 00", "a0 2b 06 01 02 01 01 03 00",
        "a0 2b 06 01 04 01 09 09 6d 01 01 01 01 05 01", "a0 2b 06 01 04 01 09 02 01 08",
        "a1 2b 06 01 02 01 02 02 01 02 00", "a1 2b 06 01 02 01 02 02 01 02 00" };
    QList<QNetworkDatagram> got;
    const auto received = [&] {
        while (device.hasPendingDatagrams())
            got << device.receiveDatagram();
        return got.size();
    };
    int ticks = 0;
    connect(poller->snmpDelay(), &QTimer::timeout, &page, [&ticks] { ++ticks; });
    for (int round = 1; round <= 2; ++round) {
        click("SNMPStart");
        QTRY_COMPARE(received(), 6 * round);
        const int then = ticks;
        QTRY_VERIFY(ticks >= then + 30); // thirty more ticks: nothing more may go out
        QCOMPARE(received(), 6 * round);
        QCOMPARE(poller->state() + ' ' + poller->bindTag(), QStringLiteral("Waiting Bind"));
        for (int i = 0; i < 6; ++i) {
            const QByteArray d = got.at((round - 1) * 6 + i).data();
            QCOMPARE(QByteArray::number(d.size()) + ' '
                    + QByteArray::number(got.at((round - 1) * 6 + i).senderPort()) + ' ' + d.mid(7, 6) + ' '
                    + (d.mid(13, 1) + d.mid(13 + 17, quint8(d.at(13 + 16)))).toHex(' '),
                "256 " + QByteArray::number(port) + " secret " + cycle.at(i));
        }
    }
    QVERIFY(started.size() == 3 && boxes.size() == 1);

    // Figures reach their labels; the list has interfaces + 5 numbered rows and never shrinks;
    // values beyond it are not shown but still move the walk on.
    const auto answer = [poller](std::initializer_list<quint32> ids, quint8 tag, const QByteArray &value) {
        poller->convertSnmp(response(ids, tag, value));
        return poller->state();
    };
    answer({ 6, 1, 2, 1, 1, 3, 0 }, 0x43, "\x23\x27"); // 89.99 s
    answer({ 6, 1, 4, 1, 9, 9, 109, 1, 1, 1, 1, 5, 1 }, 0x42, "\x07");
    answer({ 6, 1, 2, 1, 2, 1, 0 }, 0x02, "\x03");
    const auto label
        = [&page](const char *name) { return page.findChild<QLabel *>(QLatin1String(name))->text(); };
    QCOMPARE(QStringList({ label("Label3"), label("Label4"), label("Label5"), label("Label9") }),
        QStringList({ "0 days 0 hours 2 minutes", "1 %", "", "3" }));
    const QAbstractItemModel *m = page.findChild<QTreeView *>(QStringLiteral("snmpstats"))->model();
    QCOMPARE(m->index(m->rowCount() - 1, 0).data().toString(), QStringLiteral("8"));
    answer({ 6, 1, 2, 1, 2, 2, 1, 2, 2 }, 0x04, "eth0");
    QCOMPARE(m->index(1, 0).data().toString(), QStringLiteral("eth0"));
    QCOMPARE(answer({ 6, 1, 2, 1, 2, 2, 1, 2, 9 }, 0x04, "far"), QStringLiteral("1.3.6.1.2.1.2.2.1.2.9"));
    QCOMPARE(answer({ 6, 1, 2, 1, 2, 2, 1, 22, 1 }, 0x06, QByteArray(2, '\0')),
        QStringLiteral("1.3.6.1.2.1.2.2.1.22.1"));
    answer({ 6, 1, 2, 1, 2, 1, 0 }, 0x02, "\x01");
    QCOMPARE(m->rowCount(), 8);
}

QTEST_MAIN(TestMonitor)
#include "tst_monitor.moc"
