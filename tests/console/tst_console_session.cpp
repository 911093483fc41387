#include "console_test_support.h"

#include <QRandomGenerator>
#include <QSignalSpy>

static const QString noCaption = QStringLiteral("(none)");

// Rebuilds what the terminal and the log page show from the session's signals.
struct Recorder : QObject
{
    QString terminal, log, caption = noCaption;
    QList<QPair<QString, quint32>> appends;
    explicit Recorder(ConsoleSession *s)
    {
        connect(s, &ConsoleSession::terminalAppend, this, [this](const QString &text, quint32 colour) {
            terminal += text;
            appends.append({ text, colour });
        });
        connect(s, &ConsoleSession::terminalDeleteLast, this,
            [this] { terminal.chop(terminal.endsWith(QLatin1String("\r\n")) ? 2 : 1); });
        connect(s, &ConsoleSession::logAppend, this, [this](const QString &text) { log += text; });
        connect(s, &ConsoleSession::captionChanged, this, [this](const QString &text) { caption = text; });
    }
};

class TestConsoleSession : public QObject
{
    Q_OBJECT
    QTcpServer *server = nullptr;
    QTcpSocket *acceptDevice(ConsoleSession &session) { return ::acceptDevice(server, session); }

private Q_SLOTS:
    void init()
    {
        server = new QTcpServer(this);
        QVERIFY(server->listen(QHostAddress::LocalHost, 0));
    }
    void cleanup() { delete server; }

    void received_data()
    {
        QTest::addColumn<QByteArrayList>("blocks"); // "@..." is status text the session writes itself
        QTest::addColumn<QString>("terminal");
        QTest::addColumn<QString>("log");
        QTest::addColumn<QString>("caption");
        const auto row = [](const char *name, const QByteArrayList &blocks, const QString &terminal,
                             const QString &caption = noCaption, const QString &log = {}) {
            QTest::newRow(name) << blocks << terminal << log << caption;
        };
        const QByteArray x50 = QByteArray(50, 'x') + "\r\n", x38 = QByteArray(38, 'x') + "\r\n";
        const QByteArray x39 = QByteArray(39, 'x') + "\r\n";
        const QString s50 = x50, timedOut = QStringLiteral("Connection timed out\r>\r");

        row("CR LF kept, LF alone dropped", { "a\r\nb\nc\n" }, "a\r\nbc");
        row("backspace within a block", { "ab\bc" }, "ac");
        row("backspace across blocks", { "ab", "\b" }, "a");
        row("backspace past pending", { "ab", "c\b\b" }, "a");
        row("backspace joins lines", { "ab\r\n", "\b" }, "ab");
        row("backspace on empty terminal", { "\b\bx" }, "x");
        row("controls and 8-bit dropped", { QByteArray("a\x07\x1b[0m\0\xff\xe9\x7f!", 11) }, "a[0m!");
        row("only star lines logged", { "*Mar 1 up\r\nMar 2 down\r\n" }, "*Mar 1 up\r\nMar 2 down\r\n",
            noCaption, "*Mar 1 up\r\n");
        row("star line split across blocks not logged", { "*Mar 1", " up\r\n" }, "*Mar 1 up\r\n");
        row("single > is not a prompt", { x50, ">" }, s50 + ">");
        row("R1# names the console", { x50, "R1#" }, s50 + "R1#", "R1#");
        row("R1(config)# gives R1", { x50, "R1(config)#" }, s50 + "R1(config)#", "R1");
        row("prompt in the banner's block", { x50 + "sw-2>" }, s50 + "sw-2>", "sw-2>");
        row("prompt then line end is none", { x50, "R1#\r\n" }, s50 + "R1#\r\n");
        row("short terminal empties the caption", { "R1#" }, "R1#", "");
        row("40 characters are too few", { x38, "R1#" }, QString(x38) + "R1#", "");
        row("41 characters are enough", { x39, "R1#" }, QString(x39) + "R1#", "R1#");
        row("parenthesis in the tail ends the name", { x50 + "(c) 1986\r\n", "R1#" }, s50 + "(c) 1986\r\nR1#",
            "");
        row("status text counts towards the tail", { "@" + timedOut.toLatin1().repeated(2), "R1#" },
            timedOut + timedOut + "R1#", "R1#");
    }

    void received()
    {
        QFETCH(QByteArrayList, blocks);
        ConsoleSession session;
        Recorder out(&session);
        for (const QByteArray &block : blocks) {
            if (block.startsWith('@'))
                session.appendTerminal(QString::fromLatin1(block.mid(1)), 0);
            else
                session.processReceived(block);
        }
        QTEST(out.terminal, "terminal");
        QTEST(out.log, "log");
        QTEST(out.caption, "caption");
    }

    void floodAndNoiseKeepTheTerminalTrue()
    {
        ConsoleSession session;
        Recorder out(&session);
        QByteArray flood;
        for (int i = 0; i < 20000; ++i)
            flood += " ip address 10.0." + QByteArray::number(i % 250) + ".1 255.255.255.0\r\n";
        session.processReceived(flood);
        QCOMPARE(out.terminal.size(), flood.size());
        session.processReceived("edge-7#");
        QCOMPARE(out.caption, QStringLiteral("edge-7#"));

        QRandomGenerator random(20261122);
        for (int round = 0; round < 500; ++round) {
            QByteArray block(int(random.bounded(300)), '\0');
            for (char &byte : block)
                byte = char(random.bounded(256));
            session.processReceived(block);
        }
        for (const QChar ch : std::as_const(out.terminal))
            QVERIFY2((ch >= u' ' && ch <= u'~') || ch == u'\r' || ch == u'\n',
                qPrintable(QString::number(ch.unicode())));
        // A line end is always the CR LF pair the processor appends.
        QCOMPARE(out.terminal.count(u'\n'), out.terminal.count(QLatin1String("\r\n")));
    }

    void serialConnect_data()
    {
        QTest::addColumn<QString>("line"); // port ("PTY": the pseudo-terminal), baud and flow
        QTest::addColumn<int>("outcome"); // 1 opens, 0 stays closed, -1 refused with a message box
        QTest::newRow("Xon/Xoff opens") << "PTY 9600 Xon/Xoff" << 1;
        QTest::newRow("Software opens") << "PTY 9600 Software" << 1;
        QTest::newRow("Hardware stays closed") << "PTY 9600 Hardware" << 0;
        QTest::newRow("None stays closed") << "PTY 9600 None" << 0;
        QTest::newRow("missing device") << "/dev/tarnwick-no-such-tty 9600 Xon/Xoff" << -1;
        QTest::newRow("port number 0") << "0 9600 Xon/Xoff" << -1;
        QTest::newRow("baud not a number") << "PTY fast Xon/Xoff" << -1;
    }

    void serialConnect()
    {
        QFETCH(QString, line);
        QFETCH(int, outcome);
        const QStringList a = line.split(' ');
        PtyDevice device;
        ConsoleSession session;
        QSignalSpy boxes(&session, &ConsoleSession::messageBoxRequested);
        session.ConnectModem(a[0] == "PTY" ? device.path : a[0], a[1], " None ", "8", "1", a[2]);
        QCOMPARE(boxes,
            outcome < 0 ? QList<QVariantList> { { "cant connect socket in use?" } } : QList<QVariantList>());
        if (outcome >= 0)
            QCOMPARE(session.serialSettings(), QStringLiteral("9600,N,8,1"));
        QCOMPARE(session.serialOpen(), outcome > 0);
        QCOMPARE(session.connectionKind(), outcome > 0 ? QStringLiteral("Serial") : QString());
        QTest::qWait(50);
        QCOMPARE(device.received(), outcome > 0 ? QByteArray("\r") : QByteArray());
        if (outcome > 0) { // the line really carries the settings
            termios tio {};
            QCOMPARE(::tcgetattr(device.slave, &tio), 0);
            QCOMPARE(cfgetospeed(&tio), speed_t(B9600));
            QCOMPARE(tio.c_cflag & (CSIZE | PARENB | CSTOPB), tcflag_t(CS8));
            QVERIFY(tio.c_iflag & IXON);
        }
    }

    void serialAndTcpTogether()
    {
        PtyDevice line;
        ConsoleSession session;
        Recorder out(&session);
        QTcpSocket *device = acceptDevice(session);
        QVERIFY(device);
        session.ConnectModem(line.path, "19200", "Even", "7", "2", "Xon/Xoff");
        QVERIFY(session.serialOpen());
        QCOMPARE(session.serialPort()->parity(), QSerialPort::EvenParity);
        QCOMPARE(session.serialPort()->dataBits(), QSerialPort::Data7);
        QCOMPARE(session.serialPort()->stopBits(), QSerialPort::TwoStop);
        QTRY_COMPARE(line.received(), QByteArray("\r"));
        line.got.clear();

        // Typed bytes go to the line and to the socket; sendSerial only to the line.
        session.send("show version\r");
        session.sendSerial("tftpdnld\r");
        QTRY_COMPARE(line.received(), QByteArray("show version\rtftpdnld\r"));
        QByteArray got;
        QTRY_COMPARE(got += device->readAll(), QByteArray("show version\r"));
        QTest::qWait(50);
        QCOMPARE(device->readAll(), QByteArray());

        const QByteArray banner = "Cisco IOS Software, C2600 Software, Version 12.3\r\n\r\nrommon 1 >";
        QCOMPARE(::write(line.master, banner.constData(), banner.size()), banner.size());
        QTRY_COMPARE(out.terminal, QString::fromLatin1(banner));
        QCOMPARE(out.caption, QStringLiteral(">"));
    }

    void tcpTimesOutWhenDeviceDoesNotAnswer()
    {
        // A device that does not answer: its accept queue is full, so a further
        // connection attempt hangs in SYN retries.
        QTcpServer silent;
        silent.setListenBacklogSize(0);
        silent.setMaxPendingConnections(0);
        QVERIFY(silent.listen(QHostAddress::LocalHost, 0));
        QTcpSocket fillers[3];
        for (QTcpSocket &filler : fillers)
            filler.connectToHost(QHostAddress::LocalHost, silent.serverPort());
        QTest::qWait(100);
        ConsoleSession::setTelnetPort(silent.serverPort());
        ConsoleSession session;
        session.setTimerIntervals(0, 200);
        Recorder out(&session);
        session.ConnectTCP(QStringLiteral("127.0.0.1"));
        QCOMPARE(session.connectionKind(), QStringLiteral("TCP/IP"));
        QTRY_COMPARE_WITH_TIMEOUT(session.connectionKind(), QString(), 3000);
        QCOMPARE(out.appends,
            (QList<QPair<QString, quint32>> { { "Connection timed out\r", 255u }, { ">\r", 0u } }));
        QCOMPARE(session.tcpSocket()->state(), QAbstractSocket::UnconnectedState);
        QTest::qWait(500); // the connect check is off: nothing more is written
        QCOMPARE(out.appends.size(), 2);
    }

    void tcpPromptAndIdleKeepAlive()
    {
        ConsoleSession session;
        session.setTimerIntervals(0, 2);
        Recorder out(&session);
        QTcpSocket *device = acceptDevice(session);
        QVERIFY(device);
        int ticks = 0, ticksAtArrival = -1;
        connect(&session, &ConsoleSession::idleChanged, this, [&] { ++ticks; });
        QByteArray received;
        connect(device, &QTcpSocket::readyRead, this, [&] {
            received += device->readAll();
            ticksAtArrival = ticksAtArrival < 0 ? ticks : ticksAtArrival;
        });
        QTRY_VERIFY_WITH_TIMEOUT(received.size() >= 4, 10000);
        QCOMPARE(received.left(4), QByteArray("\b \b "));
        // Two idle minutes of 60 one-second ticks each before the first pair.
        QVERIFY2(ticksAtArrival >= 120 && ticksAtArrival < 130, qPrintable(QString::number(ticksAtArrival)));

        // Data from the device names the console and restarts the idle count.
        QTRY_VERIFY(session.countDown() < 50);
        session.setTimerIntervals(0, 60000);
        device->write("\r\nUser Access Verification, authorised staff only\r\n\r\nR1(config)#");
        QTRY_COMPARE(out.caption, QStringLiteral("R1"));
        QCOMPARE(session.countDown(), qint16(60));
    }

    void tcpPeerCloseAndSocketError()
    {
        ConsoleSession session;
        session.setTimerIntervals(0, 20);
        Recorder out(&session);
        QTcpSocket *device = acceptDevice(session);
        QVERIFY(device);
        device->close();
        QTRY_COMPARE(session.connectionKind(), QString());
        QCOMPARE(out.terminal, QStringLiteral("Connection timed out\r>\r"));

        // A refused connection is a socket error: its own line, then the connect check once.
        server->close();
        session.setTimerIntervals(0, 300);
        out.terminal.clear();
        out.appends.clear();
        session.ConnectTCP(QStringLiteral("127.0.0.1"));
        QTRY_VERIFY(out.terminal.startsWith(QLatin1String("Winsock Err: 10061-")));
        QCOMPARE(out.appends.at(0).second, ConsoleSession::errorColour);
        QCOMPARE(session.connectionKind(), QString());
        QTRY_VERIFY(out.terminal.endsWith(QLatin1String("\r\n>\r\nConnection timed out\r>\r")));
    }

    void disconnect()
    {
        ConsoleSession session;
        Recorder out(&session);
        QTcpSocket *device = acceptDevice(session);
        QVERIFY(device);
        QSignalSpy gone(device, &QTcpSocket::disconnected);
        session.disconnectSession();
        QCOMPARE(session.connectionKind(), QString());
        QCOMPARE(session.tcpSocket()->state(), QAbstractSocket::UnconnectedState);
        QVERIFY(gone.count() || gone.wait(5000));
        QCOMPARE(out.appends, (QList<QPair<QString, quint32>> { { "\r\n\r\nDisconected\r\n", 36u } }));

        PtyDevice line;
        session.ConnectModem(line.path, "9600", "None", "8", "1", "Xon/Xoff");
        QVERIFY(session.serialOpen());
        session.disconnectSession();
        QVERIFY(!session.serialOpen());
        QCOMPARE(out.terminal, QStringLiteral("\r\n\r\nDisconected\r\n\r\n\r\nDisconected\r\n"));
    }
};

QTEST_GUILESS_MAIN(TestConsoleSession)
#include "tst_console_session.moc"
