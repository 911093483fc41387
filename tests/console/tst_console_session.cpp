#include "console_test_support.h"

#include "console/console_session.h"

#include <QSerialPort>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <netinet/in.h>
#include <sys/socket.h>

namespace {
// A listening socket whose accept queue is full, so a further connection
// attempt hangs in SYN retries: a device that does not answer.
class SilentListener
{
public:
    SilentListener()
    {
        m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (::bind(m_fd, reinterpret_cast<sockaddr *>(&address), length) != 0 || ::listen(m_fd, 0) != 0)
            return;
        ::getsockname(m_fd, reinterpret_cast<sockaddr *>(&address), &length);
        m_port = ntohs(address.sin_port);
        // Fill the queue; these are never accepted.
        for (int i = 0; i < 3; ++i) {
            QTcpSocket *filler = new QTcpSocket;
            filler->connectToHost(QHostAddress::LocalHost, m_port);
            m_fillers.append(filler);
        }
        QTest::qWait(100);
    }
    ~SilentListener()
    {
        qDeleteAll(m_fillers);
        if (m_fd >= 0)
            ::close(m_fd);
    }
    quint16 port() const { return m_port; }

private:
    int m_fd = -1;
    quint16 m_port = 0;
    QList<QTcpSocket *> m_fillers;
};
} // namespace

class TestConsoleSession : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();

    void serialFlow_data();
    void serialFlow();
    void serialBothWays();
    void serialOpenFailures_data();
    void serialOpenFailures();

    void tcpConnectSendAndPrompt();
    void tcpTimesOutWhenDeviceDoesNotAnswer();
    void tcpKeepAliveEverySecondIdleMinute();
    void tcpPeerCloseReportsTimedOut();
    void tcpRefusedGivesWinsockError();
    void disconnectTcpAndIdle();
    void sendingRuleUsesBothChannels();

private:
    QTcpSocket *acceptDevice(ConsoleSession &session) { return ::acceptDevice(m_server, session); }

    QTcpServer *m_server = nullptr;
};

void TestConsoleSession::init()
{
    m_server = new QTcpServer(this);
    QVERIFY2(m_server->listen(QHostAddress::LocalHost, 0), qPrintable(m_server->errorString()));
    ConsoleSession::setTelnetPort(m_server->serverPort());
}

void TestConsoleSession::cleanup()
{
    delete m_server;
    m_server = nullptr;
}

void TestConsoleSession::serialFlow_data()
{
    QTest::addColumn<QString>("flow");
    QTest::addColumn<bool>("opens");
    QTest::newRow("Xon/Xoff") << "Xon/Xoff" << true;
    QTest::newRow("Software") << "Software" << true;
    QTest::newRow("Hardware") << "Hardware" << false;
    QTest::newRow("None") << "None" << false;
}

void TestConsoleSession::serialFlow()
{
    QFETCH(QString, flow);
    QFETCH(bool, opens);
    PtyDevice device;
    QVERIFY2(device.isValid(), "openpty failed");
    ConsoleSession session;
    QSignalSpy boxes(&session, &ConsoleSession::messageBoxRequested);

    session.ConnectModem(device.path(), "9600", " None ", "8", "1", flow);
    QCOMPARE(session.serialSettings(), QStringLiteral("9600,N,8,1"));
    QCOMPARE(boxes.count(), 0);
    QCOMPARE(session.serialOpen(), opens);
    QCOMPARE(session.connectionKind(), opens ? QStringLiteral("Serial") : QString());
    if (!opens) {
        QTest::qWait(50);
        QCOMPARE(device.received(), QByteArray());
        return;
    }
    QTRY_COMPARE(device.received(), QByteArray("\r"));
    // The line really carries the settings.
    termios tio {};
    QCOMPARE(::tcgetattr(device.slaveFd(), &tio), 0);
    QCOMPARE(cfgetospeed(&tio), speed_t(B9600));
    QCOMPARE(tio.c_cflag & CSIZE, tcflag_t(CS8));
    QCOMPARE(tio.c_cflag & (PARENB | CSTOPB), tcflag_t(0));
    QVERIFY(tio.c_iflag & IXON);
}

void TestConsoleSession::serialBothWays()
{
    PtyDevice device;
    QVERIFY(device.isValid());
    ConsoleSession session;
    TerminalRecorder recorder(&session);
    session.ConnectModem(device.path(), "19200", "Even", "7", "2", "Xon/Xoff");
    QVERIFY(session.serialOpen());
    QCOMPARE(session.serialPort()->parity(), QSerialPort::EvenParity);
    QCOMPARE(session.serialPort()->dataBits(), QSerialPort::Data7);
    QCOMPARE(session.serialPort()->stopBits(), QSerialPort::TwoStop);
    QTRY_COMPARE(device.received(), QByteArray("\r"));
    device.clearReceived();

    session.send("show version\r");
    QTRY_COMPARE(device.received(), QByteArray("show version\r"));

    QVERIFY(device.write("Cisco IOS Software, C2600 Software, Version 12.3\r\n\r\nrommon 1 >"));
    QTRY_COMPARE(recorder.terminal,
        QStringLiteral("Cisco IOS Software, C2600 Software, Version 12.3\r\n\r\nrommon 1 >"));
    // The name is the last word before the prompt character's end: here ">".
    QCOMPARE(recorder.caption, QStringLiteral(">"));

    // "Disconnect" releases the line.
    session.disconnectSession();
    QVERIFY(!session.serialOpen());
    QCOMPARE(session.connectionKind(), QString());
}

void TestConsoleSession::serialOpenFailures_data()
{
    QTest::addColumn<QString>("port");
    QTest::addColumn<QString>("baud");
    QTest::newRow("missing device") << "/dev/tarnwick-no-such-tty"
                                    << "9600";
    QTest::newRow("port number 0") << "0"
                                   << "9600";
    QTest::newRow("baud not a number") << "PTY"
                                       << "fast";
}

void TestConsoleSession::serialOpenFailures()
{
    QFETCH(QString, port);
    QFETCH(QString, baud);
    PtyDevice device;
    if (port == QLatin1String("PTY"))
        port = device.path();
    ConsoleSession session;
    QSignalSpy boxes(&session, &ConsoleSession::messageBoxRequested);
    session.ConnectModem(port, baud, "None", "8", "1", "Xon/Xoff");
    QCOMPARE(boxes.count(), 1);
    QCOMPARE(boxes.at(0).at(0).toString(), QStringLiteral("cant connect socket in use?"));
    QVERIFY(!session.serialOpen());
    QCOMPARE(session.connectionKind(), QString());
}

void TestConsoleSession::tcpConnectSendAndPrompt()
{
    ConsoleSession session;
    session.setTimerIntervals(0, 50);
    TerminalRecorder recorder(&session);
    QSignalSpy address(&session, &ConsoleSession::deviceAddressChanged);
    QTcpSocket *device = acceptDevice(session);
    QVERIFY(device);
    QCOMPARE(session.connectionKind(), QStringLiteral("TCP/IP"));
    QCOMPARE(session.deviceAddress(), QStringLiteral("127.0.0.1"));
    QCOMPARE(address.count(), 1);

    session.send("enable\r");
    QByteArray got;
    QTRY_COMPARE(got += device->readAll(), QByteArray("enable\r"));

    device->write("\r\nUser Access Verification, authorised staff only\r\n\r\nR1(config)#");
    QTRY_COMPARE(recorder.caption, QStringLiteral("R1"));
    QVERIFY(recorder.terminal.endsWith(QLatin1String("only\r\n\r\nR1(config)#")));
    // Data restarts the idle count.
    QCOMPARE(session.countDown(), qint16(60));
    QCOMPARE(session.keepAlive(), qint16(1));
}

void TestConsoleSession::tcpTimesOutWhenDeviceDoesNotAnswer()
{
    SilentListener silent;
    QVERIFY(silent.port());
    ConsoleSession::setTelnetPort(silent.port());
    ConsoleSession session;
    session.setTimerIntervals(0, 200);
    TerminalRecorder recorder(&session);
    session.ConnectTCP(QStringLiteral("127.0.0.1"));
    QCOMPARE(session.connectionKind(), QStringLiteral("TCP/IP"));
    QTRY_COMPARE_WITH_TIMEOUT(session.connectionKind(), QString(), 3000);
    QCOMPARE(recorder.appends.size(), 2);
    QCOMPARE(recorder.appends.at(0).text, QStringLiteral("Connection timed out\r"));
    QCOMPARE(recorder.appends.at(0).colour, 255u);
    QCOMPARE(recorder.appends.at(1).text, QStringLiteral(">\r"));
    QCOMPARE(recorder.appends.at(1).colour, 0u);
    QCOMPARE(session.tcpSocket()->state(), QAbstractSocket::UnconnectedState);
    // Timer2 is off: nothing more is written.
    QTest::qWait(500);
    QCOMPARE(recorder.appends.size(), 2);
}

void TestConsoleSession::tcpKeepAliveEverySecondIdleMinute()
{
    ConsoleSession session;
    session.setTimerIntervals(0, 2);
    QTcpSocket *device = acceptDevice(session);
    QVERIFY(device);
    int ticks = 0;
    connect(&session, &ConsoleSession::idleChanged, this, [&] { ++ticks; });
    const int startTicks = ticks;

    QByteArray received;
    QList<int> ticksAtArrival;
    connect(device, &QTcpSocket::readyRead, this, [&] {
        received += device->readAll();
        ticksAtArrival << ticks;
    });
    QTRY_VERIFY_WITH_TIMEOUT(received.size() >= 4, 10000);
    QCOMPARE(received.left(4), QByteArray("\b \b "));
    // Two idle minutes of 60 one-second ticks each before the first pair.
    QVERIFY2(ticksAtArrival.first() - startTicks >= 120, qPrintable(QString::number(ticksAtArrival.first())));
    QVERIFY2(ticksAtArrival.first() - startTicks < 130, qPrintable(QString::number(ticksAtArrival.first())));
    QVERIFY(session.tcpConnected());
}

void TestConsoleSession::tcpPeerCloseReportsTimedOut()
{
    ConsoleSession session;
    session.setTimerIntervals(0, 20);
    TerminalRecorder recorder(&session);
    QTcpSocket *device = acceptDevice(session);
    QVERIFY(device);
    device->close();
    QTRY_COMPARE(session.connectionKind(), QString());
    QCOMPARE(recorder.terminal, QStringLiteral("Connection timed out\r>\r"));
    QVERIFY(!recorder.terminal.contains(QLatin1String("Winsock")));
}

void TestConsoleSession::tcpRefusedGivesWinsockError()
{
    quint16 closedPort;
    {
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
        closedPort = probe.serverPort();
    }
    ConsoleSession::setTelnetPort(closedPort);
    ConsoleSession session;
    session.setTimerIntervals(0, 300);
    TerminalRecorder recorder(&session);
    session.ConnectTCP(QStringLiteral("127.0.0.1"));
    QTRY_VERIFY(recorder.terminal.startsWith(QLatin1String("Winsock Err: 10061-")));
    QCOMPARE(recorder.appends.at(0).colour, ConsoleSession::errorColour);
    QVERIFY(recorder.appends.at(0).text.endsWith(QLatin1String("\r\n")));
    QCOMPARE(recorder.appends.at(1).text, QStringLiteral(">\r\n"));
    QCOMPARE(session.connectionKind(), QString());
    // The connect check still runs once and then stops.
    QTRY_VERIFY(recorder.terminal.endsWith(QLatin1String("Connection timed out\r>\r")));
}

void TestConsoleSession::disconnectTcpAndIdle()
{
    ConsoleSession session;
    TerminalRecorder recorder(&session);
    session.disconnectSession();
    QCOMPARE(recorder.terminal, QStringLiteral("\r\n\r\nDisconected\r\n"));
    QCOMPARE(recorder.appends.at(0).colour, 36u);

    recorder.terminal.clear();
    QTcpSocket *device = acceptDevice(session);
    QVERIFY(device);
    QSignalSpy gone(device, &QTcpSocket::disconnected);
    session.disconnectSession();
    QCOMPARE(session.connectionKind(), QString());
    QCOMPARE(session.tcpSocket()->state(), QAbstractSocket::UnconnectedState);
    QVERIFY(gone.wait(5000));
    QCOMPARE(recorder.terminal, QStringLiteral("\r\n\r\nDisconected\r\n"));
    // Sending afterwards reaches nobody and does no harm.
    session.send("show run\r");
}

void TestConsoleSession::sendingRuleUsesBothChannels()
{
    PtyDevice line;
    QVERIFY(line.isValid());
    ConsoleSession session;
    QTcpSocket *device = acceptDevice(session);
    QVERIFY(device);
    session.ConnectModem(line.path(), "9600", "None", "8", "1", "Xon/Xoff");
    QVERIFY(session.serialOpen());
    QTRY_COMPARE(line.received(), QByteArray("\r"));
    line.clearReceived();

    session.send(QByteArray("\xff\xf3", 2));
    QTRY_COMPARE(line.received(), QByteArray("\xff\xf3", 2));
    QByteArray got;
    QTRY_COMPARE(got += device->readAll(), QByteArray("\xff\xf3", 2));

    session.sendSerial("tftpdnld\r");
    QTRY_COMPARE(line.received(),
        QByteArray("\xff\xf3"
                   "tftpdnld\r",
            11));
    QTest::qWait(50);
    QCOMPARE(device->readAll(), QByteArray());
}

QTEST_GUILESS_MAIN(TestConsoleSession)
#include "tst_console_session.moc"
