#include "console/connection_history.h"
#include "console/console_session.h"
#include "console/console_window.h"
#include "console/modem_options.h"
#include "console/terminal_view.h"
#include "util/mc_popup_menu.h"
#include "util/message_box.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QGroupBox>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSettings>
#include <QSignalSpy>
#include <QTabBar>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

#include "pty_device.h"
#include "test_support.h"

#include <termios.h>

static const QString noCaption = QStringLiteral("(none)");
using Appends = QList<QPair<QString, quint32>>;

// Rebuilds what the terminal and the log page show from the session's signals.
struct Recorder : QObject
{
    QString terminal, log, caption = noCaption;
    Appends appends;
    explicit Recorder(ConsoleSession *s)
    {
        connect(s, &ConsoleSession::terminalAppend, this, [this](const QString &t, quint32 colour) {
            terminal += t, appends.append({ t, colour });
        });
        connect(s, &ConsoleSession::terminalDeleteLast, this,
            [this] { terminal.chop(terminal.endsWith(QLatin1String("\r\n")) ? 2 : 1); });
        connect(s, &ConsoleSession::logAppend, this, [this](const QString &text) { log += text; });
        connect(s, &ConsoleSession::captionChanged, this, [this](const QString &text) { caption = text; });
    }
};

// The session against real peers (a pseudo-terminal, a local TCP device), the
// console window and its connection dialog on the offscreen platform, and a port
// per network connection (the text --connect takes, the dialog, the history).
class TestConsole : public QObject
{
    Q_OBJECT
    QTcpServer *m_server = nullptr;
    QPointer<ConsoleWindow> m_window;
    QStringList m_boxes;
    QString consoleText() const { return m_window->consoleBox()->toPlainText(); }
    template <class T> T *child(const char *name) { return m_window->findChild<T *>(name); }

    // Connects session to the local device; returns the device's end, or nullptr.
    QTcpSocket *acceptDevice(ConsoleSession &session)
    {
        ConsoleSession::setTelnetPort(m_server->serverPort());
        session.ConnectTCP(QStringLiteral("127.0.0.1"));
        if (!m_server->waitForNewConnection(30000))
            return nullptr;
        QTcpSocket *device = m_server->nextPendingConnection();
        return QTest::qWaitFor([&] { return session.tcpConnected(); }, 30000) ? device : nullptr;
    }

    // Chooses an entry the way a user does, with the keyboard.
    static void choose(QComboBox *combo, const QString &text)
    {
        const int target = combo->findText(text);
        combo->setCurrentIndex(target == 0 ? 1 : target - 1);
        QTest::keyClick(combo, target == 0 ? Qt::Key_Up : Qt::Key_Down);
        QCOMPARE(combo->currentText(), text);
    }

private Q_SLOTS:
    void init()
    {
        tw::test::settingsStore().clear();
        m_boxes.clear();
        tw::setMessageBoxHook([this](const QString &text, QMessageBox::Icon) { m_boxes << text; });
        m_server = new QTcpServer(this);
        QVERIFY(m_server->listen(QHostAddress::LocalHost, 0));
        m_window = new ConsoleWindow;
        m_window->setTag(QStringLiteral("5"));
        m_window->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_window));
    }

    void cleanup()
    {
        mcPopupMenu::setExecHook({});
        tw::setMessageBoxHook({});
        delete m_window;
        delete m_server;
    }

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
        const QByteArray x50 = QByteArray(50, 'x') + "\r\n", x38 = x50.mid(12), x39 = x50.mid(11);
        const QString s50 = x50, timedOut = QStringLiteral("Connection timed out\r>\r");

        row("CR LF kept, LF alone dropped", { "a\r\nb\nc\n" }, "a\r\nbc");
        // One backspace takes back a character of its own block, the next one of the block before.
        row("backspace past pending", { "ab", "c\b\b" }, "a");
        row("backspace joins lines", { "ab\r\n", "\b" }, "ab");
        row("backspace on empty terminal", { "\b\bx" }, "x");
        row("controls and 8-bit dropped", { QByteArray("a\x07\x1b[0m\0\xff\xe9\x7f!", 11) }, "a[0m!");
        row("only star lines logged", { "*Mar 1 up\r\nMar 2 down\r\n" }, "*Mar 1 up\r\nMar 2 down\r\n",
            noCaption, "*Mar 1 up\r\n");
        row("star line split across blocks not logged", { "*Mar 1", " up\r\n" }, "*Mar 1 up\r\n");
        row("single > is not a prompt", { x50, ">" }, s50 + ">");
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
        for (const QByteArray &block : blocks)
            block.startsWith('@') ? session.appendTerminal(QString::fromLatin1(block.mid(1)), 0)
                                  : session.processReceived(block);
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
        QRandomGenerator random(20261122);
        for (int round = 0; round < 500; ++round)
            session.processReceived(tw::test::junk(random, 300));
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
        for (const auto &[line, outcome] :
            { std::pair { "PTY 9600 Xon/Xoff", 1 }, { "PTY 9600 Software", 1 }, { "PTY 9600 Hardware", 0 },
                { "PTY 9600 None", 0 }, { "/dev/tarnwick-no-such-tty 9600 Xon/Xoff", -1 },
                { "0 9600 Xon/Xoff", -1 }, { "PTY fast Xon/Xoff", -1 } })
            QTest::newRow(line) << QString::fromLatin1(line) << outcome;
    }

    void serialConnect()
    {
        QFETCH(QString, line);
        QFETCH(int, outcome);
        const QStringList a = line.split(' ');
        PtyDevice device;
        ConsoleSession &session = *m_window->session();
        session.ConnectModem(a[0] == "PTY" ? device.path : a[0], a[1], " None ", "8", "1", a[2]);
        // A failure reaches the user through the window's message box.
        QCOMPARE(m_boxes, outcome < 0 ? QStringList { "cant connect socket in use?" } : QStringList());
        if (outcome >= 0)
            QCOMPARE(session.serialSettings(), QStringLiteral("9600,N,8,1"));
        QCOMPARE(session.serialOpen(), outcome > 0);
        QCOMPARE(session.connectionKind(), outcome > 0 ? QStringLiteral("Serial") : QString());
        if (outcome <= 0) { // nothing can reach a line that is not open
            QCOMPARE(session.serialPort()->isOpen(), false);
        } else { // the line really carries the settings
            QTRY_COMPARE(device.received(), QByteArray("\r"));
            termios tio {};
            QCOMPARE(::tcgetattr(device.slave, &tio), 0);
            QCOMPARE(cfgetospeed(&tio), speed_t(B9600));
            QCOMPARE(tio.c_cflag & (CSIZE | PARENB | CSTOPB), tcflag_t(CS8));
            QVERIFY(tio.c_iflag & IXON);
        }
    }

    void keysReachLineAndSocket()
    {
        ConsoleSession &session = *m_window->session();
        QTcpSocket *device = acceptDevice(session);
        QVERIFY(device);
        QByteArray atDevice;
        connect(device, &QTcpSocket::readyRead, device, [device, &atDevice] {
            atDevice += device->peek(device->bytesAvailable());
            device->write(device->readAll());
        });
        PtyDevice line;
        session.ConnectModem(line.path, "19200", "Even", "7", "2", "Xon/Xoff");
        QVERIFY(session.serialOpen());
        QCOMPARE(session.serialPort()->parity(), QSerialPort::EvenParity);
        QCOMPARE(session.serialPort()->dataBits(), QSerialPort::Data7);
        QCOMPARE(session.serialPort()->stopBits(), QSerialPort::TwoStop);
        QTRY_COMPARE(line.received(), QByteArray("\r"));

        // Typed bytes go to the line and to the socket; sendSerial only to the line.
        TerminalView *box = m_window->consoleBox();
        QTest::keyClicks(box, "sh ip");
        QTest::sendKeyEvent(QTest::Click, box, Qt::Key_Eacute, QStringLiteral("\u00e9"), {});
        for (Qt::Key key : { Qt::Key_Tab, Qt::Key_Left, Qt::Key_Down, Qt::Key_Pause, Qt::Key_Delete })
            QTest::keyClick(box, key);
        QTest::keyClick(box, Qt::Key_A, Qt::ControlModifier);
        // Ctrl+Break: the pair, then the line held in break until a single-shot timer lets it go.
        QSignalSpy breakState(session.serialPort(), &QSerialPort::breakEnabledChanged);
        const auto *release = session.findChild<QTimer *>(QStringLiteral("BreakTimer"));
        QTest::keyClick(box, Qt::Key_Pause, Qt::ControlModifier);
        QVERIFY(session.serialPort()->isBreakEnabled()); // no event has run since the key
        QVERIFY(release->isActive() && release->isSingleShot());
        QTest::keyClick(box, Qt::Key_Return);
        session.sendSerial("tftpdnld\r");
        QTRY_COMPARE(line.received(), QByteArray("\rsh ip\xe9\t\x1b[D\x1b[B\x01\xff\xf3\rtftpdnld\r"));
        // Typing never edits the view: only the device's echo shows, as printable text.
        QTRY_COMPARE(consoleText(), QStringLiteral("sh ip[D[B\n"));
        QTRY_COMPARE_WITH_TIMEOUT(breakState.count(), 2, 30000);
        // "Send Break" sends the pair down every open connection and breaks the serial line again.
        m_window->sendBreakAction()->trigger();
        QTRY_VERIFY(line.received().endsWith("tftpdnld\r\xff\xf3"));
        QTRY_VERIFY(atDevice.endsWith("\r\xff\xf3"));
        QTRY_COMPARE_WITH_TIMEOUT(breakState.count(), 4, 30000);
        QCOMPARE(breakState.at(2).first().toBool(), true);

        device->write("\r\n*Mar  1 00:00:07: %SYS-5-CONFIG_I: Configured from console\r\n\r\nR1(config)#");
        QTRY_COMPARE(m_window->windowTitle(), QStringLiteral("R1"));
        QCOMPARE(m_window->logBox()->toPlainText(),
            QStringLiteral("*Mar  1 00:00:07: %SYS-5-CONFIG_I: Configured from console\n"));
        device->write("\b\b\b\b\b\b\b\b\b\b\bR1#");
        QTRY_COMPARE(m_window->windowTitle(), QStringLiteral("R1#"));
        QVERIFY(consoleText().endsWith(QLatin1String("console\n\nR1#")));
        const QByteArray banner = "\r\nSystem Bootstrap, Version 12.3\r\n\r\nrommon 1 >";
        QCOMPARE(::write(line.master, banner.constData(), banner.size()), banner.size());
        QTRY_COMPARE(m_window->windowTitle(), QStringLiteral(">"));
        QVERIFY(consoleText().endsWith(QLatin1String("R1#\nSystem Bootstrap, Version 12.3\n\nrommon 1 >")));
    }

    void tcpPromptAndIdleKeepAlive()
    {
        ConsoleSession session;
        session.setTimerIntervals(0, 2);
        Recorder out(&session);
        QTcpSocket *device = acceptDevice(session);
        QVERIFY(device);
        // Counted in Timer2's own ticks (this handler runs after the session's): the pair goes out on
        // the tick that turns the idle phase from 2 back to 1, every second idle minute of 60 ticks.
        int ticks = 0, phase = session.keepAlive();
        const int first = session.countDown() + (phase == 1 ? 60 : 0);
        QList<int> sentAt;
        connect(session.findChild<QTimer *>(QStringLiteral("Timer2")), &QTimer::timeout, this, [&] {
            ++ticks;
            if (phase == 2 && session.keepAlive() == 1)
                sentAt << ticks;
            phase = session.keepAlive();
        });
        QByteArray received;
        connect(device, &QTcpSocket::readyRead, this, [&] { received += device->readAll(); });
        QTRY_VERIFY_WITH_TIMEOUT(sentAt.size() >= 2 && received.size() >= 4, 60000);
        QCOMPARE(received.left(4), QByteArray("\b \b "));
        QCOMPARE(sentAt.mid(0, 2), QList<int>({ first, first + 120 }));

        // Data from the device names the console and restarts the idle count.
        QTRY_VERIFY(session.countDown() < 50);
        session.setTimerIntervals(0, 60000);
        device->write("\r\nUser Access Verification, authorised staff only\r\n\r\nR1(config)#");
        QTRY_COMPARE(out.caption, QStringLiteral("R1"));
        QCOMPARE(session.countDown(), qint16(60));
    }

    void tcpTimesOutWhenDeviceDoesNotAnswer()
    {
        // A full accept queue leaves a further connection attempt hanging in SYN retries.
        QTcpServer silent;
        silent.setListenBacklogSize(0);
        silent.setMaxPendingConnections(0); // never take the fillers off the kernel's queue
        QVERIFY(silent.listen(QHostAddress::LocalHost, 0));
        QTcpSocket fillers[3];
        for (QTcpSocket &filler : fillers)
            filler.connectToHost(QHostAddress::LocalHost, silent.serverPort());
        QTRY_VERIFY_WITH_TIMEOUT(fillers[0].state() == QAbstractSocket::ConnectedState, 30000);
        ConsoleSession::setTelnetPort(silent.serverPort());
        ConsoleSession session;
        session.setTimerIntervals(0, 200);
        Recorder out(&session);
        session.ConnectTCP(QStringLiteral("127.0.0.1"));
        QTRY_COMPARE_WITH_TIMEOUT(session.connectionKind(), QString(), 30000);
        QCOMPARE(out.appends, (Appends { { "Connection timed out\r", 255u }, { ">\r", 0u } }));
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
        QCOMPARE(out.appends, (Appends { { "Connection timed out\r", 255u }, { ">\r", 0u } }));
        QCOMPARE(session.tcpSocket()->state(), QAbstractSocket::UnconnectedState);

        // A refused connection is a socket error: its own line, then the connect check once.
        m_server->close();
        session.setTimerIntervals(0, 300);
        session.ConnectTCP(QStringLiteral("127.0.0.1"));
        QTRY_VERIFY(out.terminal.contains(QLatin1String("\r>\rWinsock Err: 10061-")));
        QCOMPARE(out.appends.at(2).second, ConsoleSession::errorColour);
        QCOMPARE(session.connectionKind(), QString());
        QTRY_VERIFY(out.terminal.endsWith(QLatin1String("\r\n>\r\nConnection timed out\r>\r")));
        // The connect check is off, so nothing more can be written.
        QVERIFY(!session.findChild<QTimer *>(QStringLiteral("Timer2"))->isActive());
        QCOMPARE(out.terminal.count(QLatin1String("timed out")), 2);
    }

    void disconnectAndRemove()
    {
        ConsoleSession &session = *m_window->session();
        Recorder out(&session);
        QTcpSocket *device = acceptDevice(session);
        QVERIFY(device);
        QSignalSpy gone(device, &QTcpSocket::disconnected);
        child<QAction>("MnuDisconnect")->trigger();
        QCOMPARE(session.connectionKind(), QString());
        QVERIFY(gone.count() || gone.wait(30000));
        QCOMPARE(out.appends, (Appends { { "\r\n\r\nDisconected\r\n", 36u } }));

        PtyDevice line;
        session.ConnectModem(line.path, "9600", "None", "8", "1", "Xon/Xoff");
        QVERIFY(session.serialOpen());
        session.disconnectSession();
        QVERIFY(!session.serialOpen());
        QCOMPARE(out.terminal, QStringLiteral("\r\n\r\nDisconected\r\n\r\n\r\nDisconected\r\n"));

        // Removing the console frees its line for another console at once.
        session.ConnectModem(line.path, "9600", "None", "8", "1", "Xon/Xoff");
        QVERIFY(session.serialOpen());
        QSignalSpy unloaded(m_window.data(), &ConsoleWindow::consoleUnloaded);
        child<QAction>("MnuRemoveConsole")->trigger();
        QCOMPARE(unloaded, QList<QVariantList> { { QStringLiteral("5") } });
        QTRY_VERIFY(m_window.isNull());
        ConsoleSession other;
        other.ConnectModem(line.path, "9600", "None", "8", "1", "Xon/Xoff");
        QVERIFY(other.serialOpen());
    }

    void tabsShowOnePage()
    {
        QTabBar *tabs = child<QTabBar>("TabStrip1");
        QGroupBox *pages[] = { m_window->consoleFrame(), m_window->snmpFrame(), m_window->logFrame(),
            m_window->settingsFrame() };
        for (int selected : { 2, 1, 3, 0 }) {
            QTest::mouseClick(tabs, Qt::LeftButton, {}, tabs->tabRect(selected).center());
            for (int i = 0; i < 4; ++i)
                QCOMPARE(pages[i]->isVisible(), i == selected);
        }
        // Back on the terminal, the keyboard goes to it.
        QApplication::setActiveWindow(m_window);
        m_window->selectTab(2);
        m_window->selectTab(0);
        QTRY_COMPARE(QApplication::focusWidget(), static_cast<QWidget *>(m_window->consoleBox()));
    }

    void popupClearAndNewConnection()
    {
        QTcpSocket *device = acceptDevice(*m_window->session());
        QVERIFY(device);
        m_window->session()->processReceived("interface Serial0/0\r\n");
        QWidget *view = m_window->consoleBox()->viewport();
        int pick = 0;
        QStringList offered;
        mcPopupMenu::setExecHook([&](QMenu *menu, const QPoint &) {
            for (QAction *action : menu->actions())
                offered << action->text();
            return menu->actions().value(pick);
        });
        m_window->consoleBox()->selectAll();
        QTest::mouseClick(view, Qt::RightButton, {}, QPoint(20, 10));
        QCOMPARE(offered, QStringList({ "Copy", "Paste" }));
        QCOMPARE(QApplication::clipboard()->text(), QStringLiteral("interface Serial0/0\r\n"));

        QApplication::clipboard()->setText(QStringLiteral("no shutdown\r"));
        pick = 1;
        QTest::mouseClick(view, Qt::LeftButton, {}, QPoint(20, 10));
        QCOMPARE(offered.size(), 2); // a left click offers nothing
        QTest::mouseClick(view, Qt::RightButton, {}, QPoint(20, 10));
        QByteArray got;
        QTRY_COMPARE(got += device->readAll(), QByteArray("no shutdown\r"));

        ConsoleSession *session = m_window->session();
        session->processReceived(QByteArray(60, 'x') + "\r\n");
        QTest::mouseClick(child<QPushButton>("Command1"), Qt::LeftButton);
        QCOMPARE(consoleText(), QString());
        // The terminal is short again, so a prompt now empties the caption.
        QSignalSpy caption(m_window.data(), &ConsoleWindow::captionChanged);
        session->processReceived("R1#");
        QCOMPARE(caption, QList<QVariantList> { { QString() } });

        child<QAction>("MnuNewConnection")->trigger();
        QPointer<ModemOptions> dialog = m_window->findChild<ModemOptions *>();
        QVERIFY(dialog && dialog->isVisible());
        QCOMPARE(dialog->whoasked(), session);
        QTest::mouseClick(dialog->cancelButton(), Qt::LeftButton);
        QTRY_VERIFY(dialog.isNull());
    }

    void dialogDefaultsPortsAndHistory()
    {
        QSettings settings = tw::test::settingsStore();
        for (int key = 9; key <= 13; ++key) // 9 belongs to History1: it must not leak in
            settings.setValue(QStringLiteral("Settings/histroy%1").arg(key), QString::number(10 * (key - 9)));
        ModemOptions dialog;
        dialog.show();
        QCOMPARE(dialog.connectWith()->currentText(), QStringLiteral("Serial"));
        const QStringList expected { "1", "9600", "None", "8", "1", "Xon/Xoff" };
        const int order[] = { 7, 1, 2, 3, 4, 5 };
        for (int i = 0; i < 6; ++i)
            QCOMPARE(dialog.serialField(order[i])->currentText(), expected[i]);
        QVERIFY(dialog.serialFrame()->isEnabled() && !dialog.netFrame()->isEnabled());
        choose(dialog.connectWith(), QStringLiteral("History2"));
        for (int i = 0; i < 4; ++i)
            QCOMPARE(dialog.octetBox(i)->text(), QString::number(10 * (i + 1)));
        QVERIFY(dialog.netFrame()->isEnabled() && !dialog.serialFrame()->isEnabled());
        choose(dialog.connectWith(), QStringLiteral("History5")); // never written: empty boxes
        QCOMPARE(dialog.octetBox(0)->text(), QString());

        // OK on the serial defaults opens the line with them.
        PtyDevice line;
        ConsoleSession session;
        dialog.setWhoasked(&session);
        choose(dialog.connectWith(), QStringLiteral("Serial"));
        dialog.serialField(7)->setCurrentText(line.path);
        QTest::mouseClick(dialog.okButton(), Qt::LeftButton);
        QCOMPARE(session.serialSettings(), QStringLiteral("9600,N,8,1"));
        QTRY_COMPARE(line.received(), QByteArray("\r"));
        // A serial connection leaves the address history alone.
        QCOMPARE(ConnectionHistory::entry(0), QStringList({ "", "", "", "" }));
        session.disconnectSession();

        // SSH offers port 22 and a user; TCP/IP the Telnet port of this run and none.
        ConsoleSession::setTelnetPort(9); // nothing listens there: a wrong port never connects
        dialog.show();
        choose(dialog.connectWith(), QStringLiteral("SSH"));
        QCOMPARE(dialog.portBox()->text(), QStringLiteral("22"));
        QVERIFY(dialog.userBox()->isEnabled());
        choose(dialog.connectWith(), QStringLiteral("TCP/IP"));
        QCOMPARE(dialog.portBox()->text(), QStringLiteral("9"));
        QVERIFY(!dialog.userBox()->isEnabled() && dialog.netFrame()->isEnabled());
        QApplication::setActiveWindow(&dialog);
        QVERIFY(QTest::qWaitForWindowActive(&dialog));
        dialog.octetBox(0)->setFocus();
        // A dot moves on to the next box, leading zeros go, Backspace in an empty box goes back.
        for (const char *keys : { "127.", "000.", "\b", ".", "0.", "1" })
            QTest::keyClicks(QApplication::focusWidget(), keys);
        dialog.portBox()->clear();
        QTest::keyClicks(dialog.portBox(), QString::number(m_server->serverPort()));
        QTest::mouseClick(dialog.okButton(), Qt::LeftButton);
        QVERIFY(m_server->waitForNewConnection(30000));
        delete m_server->nextPendingConnection();
        QCOMPARE(session.devicePort(), m_server->serverPort());
        QCOMPARE(session.deviceAddress(), QStringLiteral("127.0.0.1"));
        // A TCP connection enters the history, and its entry brings the port back.
        QCOMPARE(ConnectionHistory::target(0),
            (ConnectTarget { "TCP/IP", "127.0.0.1", m_server->serverPort(), "" }));
        ModemOptions again;
        again.show();
        choose(again.connectWith(), QStringLiteral("History0"));
        QCOMPARE(again.portBox()->text(), QString::number(m_server->serverPort()));
    }

    void historyIsMostRecentFirst_data()
    {
        // Hosts connected to > the entries from 0 on (the rest empty); d stands for 127.0.0.d.
        QTest::addColumn<QString>("run");
        QTest::newRow("entry 3 moves to the front, pushing the others down") << "4 3 2 1 4 > 4 1 2 3";
        QTest::newRow("seventh drops the oldest") << "1 2 3 4 5 6 7 > 7 6 5 4 3 2";
        QTest::newRow("entry 5 is not searched: a second copy") << "1 2 3 4 5 6 1 > 1 6 5 4 3 2";
        QTest::newRow("a host name is not remembered") << "1 localhost > 1";
    }

    void historyIsMostRecentFirst()
    {
        const auto hosts = [](const QString &list) {
            return list.split(' ').replaceInStrings(QRegularExpression("^(\\d)$"), "127.0.0.\\1");
        };
        QFETCH(QString, run);
        const QString connected = run.section(" > ", 0, 0), expected = run.section(" > ", 1);
        ConsoleSession::setTelnetPort(
            tw::test::freeTcpPort()); // nothing listens: the attempts fail harmlessly
        ConsoleSession session;
        for (const QString &host : hosts(connected))
            connectTcpRemembered(&session, host);
        for (int n = 0; n < ConnectionHistory::entryCount; ++n)
            QCOMPARE(ConnectionHistory::entry(n).join('.'), hosts(expected).value(n, "..."));
    }

    void connectTargets()
    {
        // Text, then kind host port user, or "-" when refused.
        const char *const rows[][2] = { { "127.1.1.1", "TCP/IP 127.1.1.1 0 " },
            { "127.1.1.1:2003", "TCP/IP 127.1.1.1 2003 " }, { "cs1.lab:2001", "TCP/IP cs1.lab 2001 " },
            { "ssh://router", "SSH router 0 " }, { "ssh://admin@127.0.0.2:2222", "SSH 127.0.0.2 2222 admin" },
            { "127.1.1.1:0", "-" }, { "127.1.1.1:65536", "-" }, { "127.1.1.1:telnet", "-" },
            { "127.1.1.1:", "-" }, { "127.1.1.1:23:24", "-" }, { ":23", "-" }, { "ssh://admin@", "-" },
            { "ssh://admin:secret@r1", "-" }, { "ssh://r1/etc", "-" }, { "telnet://r1", "-" }, { "", "-" } };
        for (const auto &[text, expected] : rows) {
            const std::optional<ConnectTarget> t = parseConnectTarget(QString::fromLatin1(text));
            const QString parsed = t
                ? QStringLiteral("%1 %2 %3 %4").arg(t->kind, t->host).arg(t->port).arg(t->user)
                : QStringLiteral("-");
            QVERIFY2(parsed == QLatin1String(expected),
                qPrintable(QStringLiteral("%1 gave %2").arg(text, parsed)));
        }
    }

    void historyKeepsPortKindAndUser()
    {
        ConsoleSession::setTelnetPort(9);
        // An entry as earlier releases wrote it: four octets, nothing more.
        QSettings settings = tw::test::settingsStore();
        for (int i = 0; i < 4; ++i)
            settings.setValue(QStringLiteral("Settings/histroy%1").arg(i),
                i ? QStringLiteral("10") : QStringLiteral("127"));
        settings.sync();
        QCOMPARE(ConnectionHistory::target(0), (ConnectTarget { "TCP/IP", "127.10.10.10", 0, "" }));
        QCOMPARE(ConnectionHistory::target(0).effectivePort(), quint16(9));

        const ConnectTarget ssh { "SSH", "127.0.0.2", 2222, "admin" };
        const ConnectTarget cs1 { "TCP/IP", "127.0.0.9", 2001, "" };
        const ConnectTarget cs2 { "TCP/IP", "127.0.0.9", 2002, "" };
        const ConnectTarget plain { "TCP/IP", "127.0.0.9", 0, "" };
        for (const ConnectTarget &t : { ssh, cs1, cs2, plain, cs1 })
            ConnectionHistory::remember(t);
        // One console server, one entry per port; the reused port moved to the front.
        const QList<ConnectTarget> expected { cs1, plain, cs2, ssh, { "TCP/IP", "127.10.10.10", 0, "" } };
        for (int n = 0; n < expected.size(); ++n)
            QCOMPARE(ConnectionHistory::target(n), expected[n]);
        settings.sync();
        QCOMPARE(settings.value("Settings/histroy4").toString(), QStringLiteral("2001"));
        QVERIFY(!settings.contains("Settings/histroy9")); // the default port: as earlier releases wrote it
        QCOMPARE(settings.value("Settings/histroy19").toString(), QStringLiteral("2222"));

        // SSH on port 22 is its own entry beside raw TCP to the same address.
        ConnectionHistory::remember(ConnectTarget { "SSH", "127.0.0.9", 0, "" });
        QCOMPARE(ConnectionHistory::target(0), (ConnectTarget { "SSH", "127.0.0.9", 0, "" }));
        QCOMPARE(ConnectionHistory::target(1), cs1);
    }
};

QTEST_MAIN(TestConsole)
#include "tst_console_window.moc"
