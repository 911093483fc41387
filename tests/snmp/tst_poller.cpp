#include "response_builder.h"
#include "snmp/snmp_poller.h"

#include <QNetworkDatagram>
#include <QRandomGenerator>
#include <QUdpSocket>
#include <QtTest>

using test::berOid;
using test::response;

namespace {

// A device on a loopback port: records every request and, when given
// answers, replies to the request's identifier (hex of its encoded bytes).
class Device : public QObject
{
public:
    struct Request
    {
        int size = 0;
        quint16 fromPort = 0;
        quint8 pdu = 0;
        QByteArray oid;
    };

    Device()
    {
        QVERIFY2(m_socket.bind(QHostAddress::LocalHost, 0), qPrintable(m_socket.errorString()));
        connect(&m_socket, &QUdpSocket::readyRead, this, [this] {
            while (m_socket.hasPendingDatagrams())
                handle(m_socket.receiveDatagram());
        });
    }
    quint16 port() const { return m_socket.localPort(); }

    QList<Request> requests;
    QHash<QByteArray, QByteArray> answers; // request identifier (hex) -> response datagram
    bool sendJunkFirst = false;

private:
    void handle(const QNetworkDatagram &d)
    {
        const QByteArray b = d.data();
        Request r;
        r.size = int(b.size());
        r.fromPort = quint16(d.senderPort());
        const int pduAt = 7 + quint8(b.at(6));
        r.pdu = quint8(b.at(pduAt));
        const int oidAt = pduAt + 2 + 9 + 4; // PDU header, three integers, two sequence headers
        r.oid = b.mid(oidAt + 2, quint8(b.at(oidAt + 1)));
        requests.append(r);

        const QByteArray answer = answers.value(r.oid.toHex());
        if (answer.isEmpty())
            return;
        if (sendJunkFirst) {
            QByteArray junk(QRandomGenerator::global()->bounded(1, 120), '\0');
            for (char &c : junk)
                c = char(QRandomGenerator::global()->bounded(256));
            m_socket.writeDatagram(junk, d.senderAddress(), d.senderPort());
            m_socket.writeDatagram(answer.left(answer.size() - 1), d.senderAddress(), d.senderPort());
        }
        m_socket.writeDatagram(answer, d.senderAddress(), d.senderPort());
    }

    QUdpSocket m_socket;
};

const QByteArray ifNumberOid = QByteArray::fromHex("2b06010201020100");
const QByteArray uptimeOid = QByteArray::fromHex("2b06010201010300");
const QByteArray cpuOid = QByteArray::fromHex("2b060104010909 6d0101010105 01");
const QByteArray freeMemoryOid = QByteArray::fromHex("2b0601040109020108");
const QByteArray walkStartOid = QByteArray::fromHex("2b06010201020201 0200");

} // namespace

class TestPoller : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void silentDevice();
    void noDeviceAddress();
    void answeringDeviceWithJunk();
};

// A device that never answers gets the four scalar requests and the walk's
// first identifier twice, 256 bytes each, then nothing; Start again restarts
// the cycle on the same socket.
void TestPoller::silentDevice()
{
    Device device;
    SnmpPoller::setAgentPort(device.port());
    SnmpPoller poller([] { return QStringLiteral(" 127.0.0.1 "); });
    poller.setStepInterval(5);
    QCOMPARE(poller.bindTag(), QStringLiteral("NoBind"));

    const QList<QPair<quint8, QByteArray>> cycle = {
        { 0xA0, ifNumberOid },
        { 0xA0, uptimeOid },
        { 0xA0, cpuOid },
        { 0xA0, freeMemoryOid },
        { 0xA1, walkStartOid },
        { 0xA1, walkStartOid },
    };
    for (int round = 1; round <= 2; ++round) {
        poller.start();
        QCOMPARE(poller.state(), QStringLiteral("Start"));
        QTRY_COMPARE(device.requests.size(), 6 * round);
        QTest::qWait(150); // some thirty more ticks: nothing more may go out
        QCOMPARE(device.requests.size(), 6 * round);
        QCOMPARE(poller.state(), QStringLiteral("Waiting"));
        QVERIFY(poller.snmpDelay()->isActive());
        QCOMPARE(poller.bindTag(), QStringLiteral("Bind"));
        for (int i = 0; i < 6; ++i) {
            const Device::Request &r = device.requests.at((round - 1) * 6 + i);
            QCOMPARE(r.size, 256);
            QCOMPARE(r.fromPort, poller.localPort());
            QCOMPARE(r.pdu, cycle.at(i).first);
            QCOMPARE(r.oid.toHex(' '), cycle.at(i).second.toHex(' '));
        }
    }
    QCOMPARE(device.requests.first().fromPort, device.requests.last().fromPort);

    // A community too long for the buffer still goes out as 256 bytes.
    poller.snmpSend(
        QStringLiteral("127.0.0.1"), QString(400, QLatin1Char('c')), QStringLiteral("1.3.6.1"), 0xA0);
    QTRY_COMPARE(device.requests.size(), 13);
    QCOMPARE(device.requests.last().size, 256);
}

// With no address the first request stops polling and asks for the message;
// once the console has a device, Start polls it on the socket bound before.
void TestPoller::noDeviceAddress()
{
    Device device;
    SnmpPoller::setAgentPort(device.port());
    QString address;
    SnmpPoller poller([&address] { return address; });
    poller.setStepInterval(5);
    QSignalSpy noConnection(&poller, &SnmpPoller::noConnection);

    poller.start();
    QVERIFY(noConnection.wait(1000));
    QCOMPARE(noConnection.size(), 1);
    QVERIFY(!poller.snmpDelay()->isActive());
    const quint16 boundPort = poller.localPort();
    QVERIFY(boundPort != 0);

    address = QStringLiteral("127.0.0.1");
    poller.start();
    QTRY_COMPARE(device.requests.size(), 6);
    QCOMPARE(poller.localPort(), boundPort);
    QCOMPARE(noConnection.size(), 1);
}

// A device that answers the whole cycle, with a random and a truncated
// datagram before every answer: the junk is dropped, the figures and the
// interface list are filled, and the first answer outside the table ends the walk.
void TestPoller::answeringDeviceWithJunk()
{
    Device device;
    device.sendJunkFirst = true;
    SnmpPoller::setAgentPort(device.port());
    SnmpPoller poller([] { return QStringLiteral("127.0.0.1"); });
    poller.setStepInterval(5);

    device.answers.insert(
        ifNumberOid.toHex(), response({ berOid({ 1, 3, 6, 1, 2, 1, 2, 1, 0 }), 0x02, "\x03" }));
    device.answers.insert(uptimeOid.toHex(),
        response({ berOid({ 1, 3, 6, 1, 2, 1, 1, 3, 0 }), 0x43, QByteArray::fromHex("009A7EC0") }));
    device.answers.insert(cpuOid.toHex(),
        response({ berOid({ 1, 3, 6, 1, 4, 1, 9, 9, 109, 1, 1, 1, 1, 5, 1 }), 0x05, QByteArray(), 2 }));

    struct Entry
    {
        QList<quint32> oid;
        quint8 tag;
        QByteArray value;
    };
    const QList<Entry> table = {
        { { 1, 3, 6, 1, 2, 1, 2, 2, 1, 2, 1 }, 0x04, "lo" },
        { { 1, 3, 6, 1, 2, 1, 2, 2, 1, 2, 2 }, 0x04, "eth0" },
        { { 1, 3, 6, 1, 2, 1, 2, 2, 1, 2, 9 }, 0x04, "beyond the list" },
        { { 1, 3, 6, 1, 2, 1, 2, 2, 1, 4, 1 }, 0x02, QByteArray::fromHex("010000") },
        { { 1, 3, 6, 1, 2, 1, 2, 2, 1, 6, 2 }, 0x04, QByteArray::fromHex("02FC00000001") },
        { { 1, 3, 6, 1, 2, 1, 2, 2, 1, 7, 2 }, 0x02, QByteArray::fromHex("01") },
        { { 1, 3, 6, 1, 2, 1, 2, 2, 1, 22, 1 }, 0x06, QByteArray::fromHex("0000") },
        { { 1, 3, 6, 1, 2, 1, 3, 1, 1, 1, 4, 1, 192, 0, 2, 1 }, 0x02, "\x04" },
    };
    QByteArray asked = walkStartOid;
    for (const Entry &e : table) {
        device.answers.insert(asked.toHex(), response({ berOid(e.oid), e.tag, e.value }));
        asked = berOid(e.oid);
    }
    const QByteArray lastInTable = berOid(table.at(table.size() - 2).oid);

    QSignalSpy states(&poller, &SnmpPoller::stateChanged);
    poller.start();
    QTRY_VERIFY(std::any_of(device.requests.cbegin(), device.requests.cend(),
        [&](const Device::Request &r) { return r.oid == lastInTable; }));
    QTest::qWait(100);
    const qsizetype sent = device.requests.size();
    QTest::qWait(100);
    QCOMPARE(device.requests.size(), sent);
    QCOMPARE(poller.state(), QStringLiteral("Waiting"));
    QVERIFY(states.contains(QVariantList { QStringLiteral("1.3.6.1.2.1.2.2.1.22.1") }));

    QCOMPARE(poller.interfacesText(), QStringLiteral("3"));
    QCOMPARE(poller.uptimeText(), QStringLiteral("1 days 4 hours 8 minutes"));
    QCOMPARE(poller.cpuText(), QStringLiteral("0 %"));
    QCOMPARE(poller.freeMemoryText(), QString());

    QStandardItemModel *m = poller.statistics();
    QCOMPARE(m->columnCount(), 20);
    QCOMPARE(m->rowCount(), 8);
    const auto cell = [m](int row, int column) { return m->item(row - 1, column)->text(); };
    QCOMPARE(cell(1, 0), QStringLiteral("lo"));
    QCOMPARE(cell(2, 0), QStringLiteral("eth0"));
    QCOMPARE(cell(3, 0), QStringLiteral("3"));
    QCOMPARE(cell(8, 0), QStringLiteral("8"));
    QCOMPARE(cell(1, 2), QStringLiteral("65536"));
    QCOMPARE(cell(2, 4), QStringLiteral("02#FC#00#00#00#01"));
    QCOMPARE(cell(2, 5), QStringLiteral("Ad up"));
    QCOMPARE(cell(1, 19), QString());
}

QTEST_GUILESS_MAIN(TestPoller)
#include "tst_poller.moc"
