#include "response_builder.h"
#include "snmp/snmp_poller.h"

#include <QNetworkDatagram>
#include <QUdpSocket>
#include <QtTest>

using test::berOid;
using test::response;

class TestPoller : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void silentDevice();
    void noDeviceAddress();
    void interfaceList();

private:
    // A device on a loopback port that never answers; the requests it got.
    QUdpSocket m_device;
    QList<QNetworkDatagram> requests();
    QList<QNetworkDatagram> m_received;
};

void TestPoller::init()
{
    m_device.close();
    m_received.clear();
    QVERIFY2(m_device.bind(QHostAddress::LocalHost, 0), qPrintable(m_device.errorString()));
    SnmpPoller::setAgentPort(m_device.localPort());
}

QList<QNetworkDatagram> TestPoller::requests()
{
    while (m_device.hasPendingDatagrams())
        m_received << m_device.receiveDatagram();
    return m_received;
}

// Four scalar requests, the walk's first identifier twice, then nothing, 256
// bytes each; Start again restarts the cycle on the same socket.
void TestPoller::silentDevice()
{
    SnmpPoller poller([] { return QStringLiteral(" 127.0.0.1 "); });
    poller.setStepInterval(5);
    QCOMPARE(poller.bindTag(), QStringLiteral("NoBind"));
    const QList<QByteArray> cycle = {
        "a0 2b 06 01 02 01 02 01 00",
        "a0 2b 06 01 02 01 01 03 00",
        "a0 2b 06 01 04 01 09 09 6d 01 01 01 01 05 01",
        "a0 2b 06 01 04 01 09 02 01 08",
        "a1 2b 06 01 02 01 02 02 01 02 00",
        "a1 2b 06 01 02 01 02 02 01 02 00",
    };
    for (int round = 1; round <= 2; ++round) {
        poller.start();
        QCOMPARE(poller.state(), QStringLiteral("Start"));
        QTRY_COMPARE(requests().size(), 6 * round);
        QTest::qWait(150); // thirty more ticks: nothing more may go out
        QCOMPARE(requests().size(), 6 * round);
        QCOMPARE(poller.state(), QStringLiteral("Waiting"));
        QCOMPARE(poller.bindTag(), QStringLiteral("Bind"));
        for (int i = 0; i < 6; ++i) {
            const QByteArray d = m_received.at((round - 1) * 6 + i).data();
            QCOMPARE(d.size(), 256);
            QCOMPARE(m_received.at((round - 1) * 6 + i).senderPort(), int(poller.localPort()));
            QCOMPARE((d.mid(13, 1) + d.mid(13 + 17, quint8(d.at(13 + 16)))).toHex(' '), cycle.at(i));
        }
    }
    QCOMPARE(m_received.first().senderPort(), m_received.last().senderPort()); // bound once
}

// With no address the first request stops polling and asks for the message;
// once the console has a device, Start polls it on the socket bound before.
void TestPoller::noDeviceAddress()
{
    QString address;
    SnmpPoller poller([&address] { return address; });
    poller.setStepInterval(5);
    QSignalSpy noConnection(&poller, &SnmpPoller::noConnection);
    poller.start();
    QVERIFY(noConnection.wait(1000));
    QVERIFY(!poller.snmpDelay()->isActive());
    const quint16 boundPort = poller.localPort();

    address = QStringLiteral("127.0.0.1");
    poller.start();
    QTRY_COMPARE(requests().size(), 6);
    QCOMPARE(poller.localPort(), boundPort);
    QCOMPARE(noConnection.size(), 1);
}

// Rows are interfaces + 5, numbered; values outside the list are not shown
// but still move the walk on.
void TestPoller::interfaceList()
{
    SnmpPoller poller([] { return QString(); });
    poller.convertSnmp(response({ berOid({ 1, 3, 6, 1, 2, 1, 2, 1, 0 }), 0x02, "\x03" }));
    QStandardItemModel *m = poller.statistics();
    QCOMPARE(m->rowCount(), 8);
    QCOMPARE(m->item(7, 0)->text(), QStringLiteral("8"));

    poller.convertSnmp(response({ berOid({ 1, 3, 6, 1, 2, 1, 2, 2, 1, 2, 2 }), 0x04, "eth0" }));
    QCOMPARE(m->item(1, 0)->text(), QStringLiteral("eth0"));
    poller.convertSnmp(response({ berOid({ 1, 3, 6, 1, 2, 1, 2, 2, 1, 2, 9 }), 0x04, "far" }));
    QCOMPARE(poller.state(), QStringLiteral("1.3.6.1.2.1.2.2.1.2.9"));
    poller.convertSnmp(response({ berOid({ 1, 3, 6, 1, 2, 1, 2, 2, 1, 22, 1 }), 0x06, QByteArray(2, '\0') }));
    QCOMPARE(poller.state(), QStringLiteral("1.3.6.1.2.1.2.2.1.22.1"));
    QCOMPARE(m->rowCount(), 8);
    QCOMPARE(m->columnCount(), 20);

    poller.convertSnmp(response({ berOid({ 1, 3, 6, 1, 2, 1, 2, 1, 0 }), 0x02, "\x01" }));
    QCOMPARE(m->rowCount(), 8); // the list never shrinks
}

QTEST_GUILESS_MAIN(TestPoller)
#include "tst_poller.moc"
