#include "console_test_support.h"

#include "console/connection_history.h"
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
#include <QSettings>
#include <QSignalSpy>
#include <QTabBar>

// The console window on the offscreen platform, and its connection dialog.
class TestConsoleWindow : public QObject
{
    Q_OBJECT
    QTcpServer *m_server = nullptr;
    QPointer<ConsoleWindow> m_window;
    QStringList m_boxes;
    QString consoleText() const { return m_window->consoleBox()->toPlainText(); }
    QTcpSocket *acceptDevice() { return ::acceptDevice(m_server, *m_window->session()); }
    template <class T> T *child(const char *name) { return m_window->findChild<T *>(name); }

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
        QSettings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick")).clear();
        m_boxes.clear();
        tw::setMessageBoxHook([this](const QString &text, QMessageBox::Icon) { m_boxes << text; });
        m_server = new QTcpServer(this);
        QVERIFY(m_server->listen(QHostAddress::LocalHost, 0));
        m_window = new ConsoleWindow;
        m_window->setTag(QStringLiteral("5"));
        m_window->resize(800, 600);
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

    void keysEchoPromptAndLog()
    {
        QTcpSocket *device = acceptDevice();
        QVERIFY(device);
        connect(device, &QTcpSocket::readyRead, device, [device] { device->write(device->readAll()); });
        TerminalView *box = m_window->consoleBox();
        QByteArray sent;
        connect(box, &TerminalView::keyBytes, this, [&](const QByteArray &bytes) { sent += bytes; });
        QTest::keyClicks(box, "sh ip");
        QTest::sendKeyEvent(QTest::Click, box, Qt::Key_Eacute, QStringLiteral("\u00e9"), {});
        for (Qt::Key key : { Qt::Key_Tab, Qt::Key_Left, Qt::Key_Down, Qt::Key_Pause, Qt::Key_Delete })
            QTest::keyClick(box, key);
        QTest::keyClick(box, Qt::Key_A, Qt::ControlModifier);
        QTest::keyClick(box, Qt::Key_Pause, Qt::ControlModifier);
        QTest::keyClick(box, Qt::Key_Return);
        QCOMPARE(sent, QByteArray("sh ip\xe9\t\x1b[D\x1b[B\x01\xff\xf3\r"));
        // Typing never edits the view: only the device's echo shows, as printable text.
        QTRY_COMPARE(consoleText(), QStringLiteral("sh ip[D[B\n"));

        device->write("\r\n*Mar  1 00:00:07: %SYS-5-CONFIG_I: Configured from console\r\n\r\nR1(config)#");
        QTRY_COMPARE(m_window->windowTitle(), QStringLiteral("R1"));
        QCOMPARE(m_window->logBox()->toPlainText(),
            QStringLiteral("*Mar  1 00:00:07: %SYS-5-CONFIG_I: Configured from console\n"));
        device->write("\b\b\b\b\b\b\b\b\b\b\bR1#");
        QTRY_COMPARE(m_window->windowTitle(), QStringLiteral("R1#"));
        QVERIFY(consoleText().endsWith(QLatin1String("console\n\nR1#")));
    }

    void popupCopyAndPaste()
    {
        QTcpSocket *device = acceptDevice();
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
    }

    void clearButtons()
    {
        ConsoleSession *session = m_window->session();
        session->processReceived(QByteArray(60, 'x') + "\r\n");
        QTest::mouseClick(child<QPushButton>("Command1"), Qt::LeftButton);
        QCOMPARE(consoleText(), QString());
        // The terminal is short again, so a prompt now empties the caption.
        QSignalSpy caption(m_window.data(), &ConsoleWindow::captionChanged);
        session->processReceived("R1#");
        QCOMPARE(caption.count(), 1);
        QCOMPARE(caption.at(0).at(0).toString(), QString());
    }

    void menus()
    {
        child<QAction>("MnuDisconnect")->trigger();
        QCOMPARE(consoleText(), QStringLiteral("\n\nDisconected\n"));

        child<QAction>("MnuNewConnection")->trigger();
        QPointer<ModemOptions> dialog;
        for (QWidget *widget : QApplication::topLevelWidgets())
            dialog = dialog ? dialog.data() : qobject_cast<ModemOptions *>(widget);
        QVERIFY(dialog && dialog->isVisible());
        QCOMPARE(dialog->whoasked(), m_window->session());
        QTest::mouseClick(dialog->cancelButton(), Qt::LeftButton);
        QTRY_VERIFY(dialog.isNull());

        // Serial failures reach the user through the shared message box.
        m_window->session()->ConnectModem("/dev/tarnwick-no-such-tty", "9600", "None", "8", "1", "Xon/Xoff");
        QCOMPARE(m_boxes, QStringList { "cant connect socket in use?" });
    }

    void removeConsoleFreesTheLine()
    {
        PtyDevice line;
        QPointer<ConsoleSession> session = m_window->session();
        session->ConnectModem(line.path, "9600", "None", "8", "1", "Xon/Xoff");
        QVERIFY(session->serialOpen());
        QSignalSpy unloaded(m_window.data(), &ConsoleWindow::consoleUnloaded);
        child<QAction>("MnuRemoveConsole")->trigger();
        QCOMPARE(unloaded.count(), 1);
        QCOMPARE(unloaded.at(0).at(0).toString(), QStringLiteral("5"));
        QTRY_VERIFY(m_window.isNull());
        ConsoleSession other; // the line is free for another console at once
        other.ConnectModem(line.path, "9600", "None", "8", "1", "Xon/Xoff");
        QVERIFY(other.serialOpen());
    }

    void dialogDefaults()
    {
        ModemOptions dialog;
        QCOMPARE(dialog.connectWith()->currentText(), QStringLiteral("Serial"));
        const QStringList expected { "1", "9600", "None", "8", "1", "Xon/Xoff" };
        const int order[] = { 7, 1, 2, 3, 4, 5 };
        for (int i = 0; i < 6; ++i)
            QCOMPARE(dialog.serialField(order[i])->currentText(), expected[i]);
        QVERIFY(dialog.serialFrame()->isEnabled() && !dialog.netFrame()->isEnabled());
    }

    void dialogHistoryFillsTheOctetBoxes()
    {
        QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
        for (int key = 9; key <= 13; ++key) // 9 belongs to History1: it must not leak in
            settings.setValue(QStringLiteral("Settings/histroy%1").arg(key), QString::number(10 * (key - 9)));
        settings.sync();
        ModemOptions dialog;
        dialog.show();
        choose(dialog.connectWith(), QStringLiteral("History2"));
        for (int i = 0; i < 4; ++i)
            QCOMPARE(dialog.octetBox(i)->text(), QString::number(10 * (i + 1)));
        QVERIFY(dialog.netFrame()->isEnabled() && !dialog.serialFrame()->isEnabled());
        choose(dialog.connectWith(), QStringLiteral("History5")); // never written: empty boxes
        QCOMPARE(dialog.octetBox(0)->text(), QString());
    }

    void dialogOctetBoxTyping()
    {
        ModemOptions dialog;
        dialog.show();
        QApplication::setActiveWindow(&dialog);
        QVERIFY(QTest::qWaitForWindowActive(&dialog));
        choose(dialog.connectWith(), QStringLiteral("TCP/IP"));
        QLineEdit *box0 = dialog.octetBox(0), *box1 = dialog.octetBox(1);
        box0->setFocus();
        QTest::keyClicks(box0, "192.");
        QCOMPARE(box0->text(), QStringLiteral("192"));
        QTRY_COMPARE(QApplication::focusWidget(), static_cast<QWidget *>(box1));
        QTest::keyClicks(box1, "007");
        QCOMPARE(box1->text(), QStringLiteral("7"));
        // Backspace in an empty box goes back to the previous one.
        dialog.octetBox(2)->setFocus();
        QTest::keyClick(dialog.octetBox(2), Qt::Key_Backspace);
        QTRY_COMPARE(QApplication::focusWidget(), static_cast<QWidget *>(box1));
    }

    void dialogOkConnectsSerialThenTcp()
    {
        PtyDevice line;
        ConsoleSession session;
        ModemOptions serial;
        serial.setWhoasked(&session);
        serial.show();
        serial.serialField(7)->setCurrentText(line.path);
        QTest::mouseClick(serial.okButton(), Qt::LeftButton);
        QCOMPARE(session.serialSettings(), QStringLiteral("9600,N,8,1"));
        QTRY_COMPARE(line.received(), QByteArray("\r"));
        QVERIFY(!serial.isVisible());
        // A serial connection leaves the address history alone; a TCP one enters it.
        QCOMPARE(ConnectionHistory::entry(0), QStringList({ "", "", "", "" }));

        ConsoleSession::setTelnetPort(m_server->serverPort());
        ModemOptions tcp;
        tcp.setWhoasked(&session);
        tcp.show();
        choose(tcp.connectWith(), QStringLiteral("TCP/IP"));
        const QStringList octets { "127", "0", "0", "1" };
        for (int i = 0; i < 4; ++i)
            QTest::keyClicks(tcp.octetBox(i), octets[i]);
        QTest::mouseClick(tcp.okButton(), Qt::LeftButton);
        QVERIFY(m_server->waitForNewConnection(5000));
        QCOMPARE(session.deviceAddress(), QStringLiteral("127.0.0.1"));
        QCOMPARE(ConnectionHistory::entry(0), octets);
    }

    void historyIsMostRecentFirst_data()
    {
        // Hosts connected to, and the history's entries afterwards from 0 on (the rest stay
        // empty); a digit d stands for the address d.d.d.d.
        QTest::addColumn<QString>("connected");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const char *connected, const char *expected) {
            QTest::newRow(name) << QString(connected) << QString(expected);
        };
        row("new ones push down", "1 2", "2 1");
        row("no duplicate", "1 1", "1");
        row("entry 3 moves to the front", "4 3 2 1 4", "4 1 2 3");
        row("seventh drops the oldest", "1 2 3 4 5 6 7", "7 6 5 4 3 2");
        row("entry 5 is not searched: a second copy", "1 2 3 4 5 6 1", "1 6 5 4 3 2");
        row("a host name is not remembered", "1 router.example", "1");
    }

    void historyIsMostRecentFirst()
    {
        const auto hosts = [](const QString &list) {
            QStringList result = list.split(' ');
            for (QString &host : result)
                host = host.size() == 1 ? QStringList(4, host).join('.') : host;
            return result;
        };
        QFETCH(QString, connected);
        QFETCH(QString, expected);
        ConsoleSession::setTelnetPort(9); // nothing listens: the attempts fail harmlessly
        ConsoleSession session;
        for (const QString &host : hosts(connected))
            connectTcpRemembered(&session, host);
        for (int n = 0; n < ConnectionHistory::entryCount; ++n)
            QCOMPARE(ConnectionHistory::entry(n).join('.'), hosts(expected).value(n, "..."));
        // Entry 0's last octet lies under key 3; key 4 of the stride stays unused.
        QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
        QCOMPARE(settings.value("Settings/histroy3").toString(), expected.left(1));
        QVERIFY(!settings.contains("Settings/histroy4"));
    }
};

QTEST_MAIN(TestConsoleWindow)
#include "tst_console_window.moc"
