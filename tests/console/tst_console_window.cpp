#include "console_test_support.h"

#include "console/console_session.h"
#include "console/console_window.h"
#include "console/idle_bar.h"
#include "console/modem_options.h"
#include "console/terminal_view.h"
#include "util/mc_popup_menu.h"
#include "util/message_box.h"
#include "util/twips.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QGroupBox>
#include <QMenu>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QSignalSpy>
#include <QTabBar>
#include <QTest>

using tw::twips;

class TestConsoleWindow : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();

    void tabsShowExactlyOnePage();
    void resizeFollowsTheMargins();
    void keysReachTheDeviceAndEchoShows();
    void promptCaptionsTheWindow();
    void popupCopyAndPaste();
    void clearButtons();
    void menus();
    void removeConsoleClosesSerialAndUnloads();

private:
    QString consoleText() const { return m_window->consoleBox()->toPlainText(); }

    QTcpServer *m_server = nullptr;
    QPointer<ConsoleWindow> m_window;
    QStringList m_boxes;
};

void TestConsoleWindow::init()
{
    m_boxes.clear();
    tw::setMessageBoxHook([this](const QString &text, QMessageBox::Icon) { m_boxes << text; });
    m_server = new QTcpServer(this);
    QVERIFY2(m_server->listen(QHostAddress::LocalHost, 0), qPrintable(m_server->errorString()));
    m_window = new ConsoleWindow;
    m_window->setTag(QStringLiteral("5"));
    m_window->resize(800, 600);
    m_window->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_window));
}

void TestConsoleWindow::cleanup()
{
    mcPopupMenu::setExecHook({});
    tw::setMessageBoxHook({});
    delete m_window;
    delete m_server;
}

void TestConsoleWindow::tabsShowExactlyOnePage()
{
    const QStringList frames { "Frame1", "Frame2", "Frame3", "Frame4" };
    QTabBar *tabs = m_window->findChild<QTabBar *>("TabStrip1");
    QVERIFY(tabs);
    QCOMPARE(tabs->count(), 4);
    QCOMPARE(tabs->tabText(3), QStringLiteral("Options"));
    QVERIFY(!m_window->findChild<QGroupBox *>("Frame6")->isVisible());
    QVERIFY(!m_window->findChild<QGroupBox *>("Frame7")->isVisible());

    for (int selected : { 2, 1, 3, 0 }) {
        QTest::mouseClick(tabs, Qt::LeftButton, {}, tabs->tabRect(selected).center());
        for (int i = 0; i < 4; ++i)
            QCOMPARE(m_window->findChild<QGroupBox *>(frames[i])->isVisible(), i == selected);
    }
    // Back on the terminal, the keyboard goes to it.
    QApplication::setActiveWindow(m_window);
    m_window->selectTab(2);
    m_window->selectTab(0);
    QTRY_COMPARE(QApplication::focusWidget(), static_cast<QWidget *>(m_window->consoleBox()));
}

void TestConsoleWindow::resizeFollowsTheMargins()
{
    m_window->resize(900, 700);
    QGroupBox *page = m_window->consoleFrame();
    QCOMPARE(page->x(), twips(125));
    QCOMPARE(page->width(), 900 - twips(600));
    QCOMPARE(page->y() + page->height(), 700 - twips(250));
    QCOMPARE(m_window->consoleBox()->width(), page->width() - twips(150));
    QCOMPARE(m_window->consoleBox()->height(), page->height() - twips(900));
    QCOMPARE(m_window->tabStrip()->width(), 900 - twips(100));
    QVERIFY(m_window->idleBar()->geometry().top() >= m_window->consoleBox()->geometry().bottom());

    // A hidden page keeps its size until it is shown again.
    const QSize logBefore = m_window->logFrame()->size();
    m_window->resize(700, 500);
    QCOMPARE(m_window->logFrame()->size(), logBefore);
    m_window->selectTab(2);
    QCOMPARE(m_window->logFrame()->width(), 700 - twips(600));
    QCOMPARE(m_window->logBox()->height(), m_window->logFrame()->height() - twips(500));

    // A side panel (flash backup) takes room at the right.
    m_window->backUpFlashFrame()->show();
    QVERIFY(m_window->backUpFlashFrame()->geometry().left() >= m_window->logFrame()->geometry().right());
}

void TestConsoleWindow::keysReachTheDeviceAndEchoShows()
{
    QTcpSocket *device = acceptDevice(m_server, *m_window->session());
    QVERIFY(device);
    connect(device, &QTcpSocket::readyRead, device, [device] { device->write(device->readAll()); });

    TerminalView *box = m_window->consoleBox();
    QByteArray sent;
    connect(box, &TerminalView::keyBytes, this, [&](const QByteArray &bytes) { sent += bytes; });
    QTest::keyClicks(box, "sh ip");
    QTest::keyClick(box, Qt::Key_Tab);
    QTest::keyClick(box, Qt::Key_Left);
    QTest::keyClick(box, Qt::Key_A, Qt::ControlModifier);
    QTest::keyClick(box, Qt::Key_Pause, Qt::ControlModifier);
    QTest::keyClick(box, Qt::Key_Return);
    QCOMPARE(sent, QByteArray("sh ip\t\x1b[D\x01\xff\xf3\r"));
    // Typing never edits the view: only the device's echo shows, as printable text.
    QTRY_COMPARE(consoleText(), QStringLiteral("sh ip[D\n"));
}

void TestConsoleWindow::promptCaptionsTheWindow()
{
    QSignalSpy caption(m_window.data(), &ConsoleWindow::captionChanged);
    QTcpSocket *device = acceptDevice(m_server, *m_window->session());
    QVERIFY(device);
    device->write("\r\n*Mar  1 00:00:07: %SYS-5-CONFIG_I: Configured from console\r\n\r\nR1(config)#");
    QTRY_COMPARE(caption.count(), 1);
    QCOMPARE(caption.at(0).at(0).toString(), QStringLiteral("R1"));
    QCOMPARE(m_window->windowTitle(), QStringLiteral("R1"));
    QCOMPARE(m_window->logBox()->toPlainText(),
        QStringLiteral("*Mar  1 00:00:07: %SYS-5-CONFIG_I: Configured from console\n"));
    QVERIFY(consoleText().endsWith(QLatin1String("console\n\nR1(config)#")));

    device->write("\b\b\b\b\b\b\b\b\b\b\bR1#");
    QTRY_VERIFY(consoleText().endsWith(QLatin1String("console\n\nR1#")));
    QTRY_COMPARE(m_window->windowTitle(), QStringLiteral("R1#"));
}

void TestConsoleWindow::popupCopyAndPaste()
{
    QTcpSocket *device = acceptDevice(m_server, *m_window->session());
    QVERIFY(device);
    m_window->session()->processReceived("interface Serial0/0\r\n");
    TerminalView *box = m_window->consoleBox();

    QString chosenText = QStringLiteral("Copy");
    QStringList offered;
    mcPopupMenu::setExecHook([&](QMenu *menu, const QPoint &) -> QAction * {
        QAction *chosen = nullptr;
        for (QAction *action : menu->actions()) {
            offered << action->text();
            if (action->text() == chosenText)
                chosen = action;
        }
        return chosen;
    });
    box->selectAll();
    QTest::mouseClick(box->viewport(), Qt::RightButton, {}, QPoint(20, 10));
    QCOMPARE(offered, QStringList({ "Copy", "Paste" }));
    QCOMPARE(QApplication::clipboard()->text(), QStringLiteral("interface Serial0/0\r\n"));

    QApplication::clipboard()->setText(QStringLiteral("no shutdown\r"));
    chosenText = QStringLiteral("Paste");
    QTest::mouseClick(box->viewport(), Qt::RightButton, {}, QPoint(20, 10));
    QByteArray got;
    QTRY_COMPARE(got += device->readAll(), QByteArray("no shutdown\r"));

    // A left click offers nothing.
    offered.clear();
    QTest::mouseClick(box->viewport(), Qt::LeftButton, {}, QPoint(20, 10));
    QVERIFY(offered.isEmpty());
}

void TestConsoleWindow::clearButtons()
{
    ConsoleSession *session = m_window->session();
    session->processReceived(QByteArray(60, 'x') + "\r\n*Mar 1 %LINK-5-CHANGED\r\n");
    QVERIFY(!consoleText().isEmpty());
    QVERIFY(!m_window->logBox()->toPlainText().isEmpty());

    QTest::mouseClick(m_window->findChild<QPushButton *>("Command1"), Qt::LeftButton);
    QCOMPARE(consoleText(), QString());
    // The terminal is short again, so a prompt now empties the caption.
    QSignalSpy caption(m_window.data(), &ConsoleWindow::captionChanged);
    session->processReceived("R1#");
    QCOMPARE(caption.count(), 1);
    QCOMPARE(caption.at(0).at(0).toString(), QString());

    m_window->selectTab(2);
    QTest::mouseClick(m_window->findChild<QPushButton *>("Command2"), Qt::LeftButton);
    QCOMPARE(m_window->logBox()->toPlainText(), QString());
}

void TestConsoleWindow::menus()
{
    QSignalSpy newConsole(m_window.data(), &ConsoleWindow::newConsoleRequested);
    m_window->findChild<QAction *>("MnuNewConsole")->trigger();
    QCOMPARE(newConsole.count(), 1);

    m_window->findChild<QAction *>("MnuDisconnect")->trigger();
    QCOMPARE(consoleText(), QStringLiteral("\n\nDisconected\n"));

    m_window->findChild<QAction *>("MnuNewConnection")->trigger();
    ModemOptions *dialog = nullptr;
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        if (auto *candidate = qobject_cast<ModemOptions *>(widget))
            dialog = candidate;
    }
    QVERIFY(dialog);
    QVERIFY(dialog->isVisible());
    QCOMPARE(dialog->whoasked(), m_window->session());
    QCOMPARE(dialog->windowTitle(), QStringLiteral("Connection Settings"));
    QPointer<ModemOptions> guard(dialog);
    QTest::mouseClick(dialog->cancelButton(), Qt::LeftButton);
    QTRY_VERIFY(guard.isNull());

    // Serial failures reach the user through the shared message box.
    m_window->session()->ConnectModem("/dev/tarnwick-no-such-tty", "9600", "None", "8", "1", "Xon/Xoff");
    QCOMPARE(m_boxes, QStringList { "cant connect socket in use?" });
}

void TestConsoleWindow::removeConsoleClosesSerialAndUnloads()
{
    PtyDevice line;
    QVERIFY(line.isValid());
    QPointer<ConsoleSession> session = m_window->session();
    session->ConnectModem(line.path(), "9600", "None", "8", "1", "Xon/Xoff");
    QVERIFY(session->serialOpen());
    session->processReceived("Router>");
    QSignalSpy unloaded(m_window.data(), &ConsoleWindow::consoleUnloaded);

    m_window->findChild<QAction *>("MnuRemoveConsole")->trigger();
    QCOMPARE(unloaded.count(), 1);
    QCOMPARE(unloaded.at(0).at(0).toString(), QStringLiteral("5"));
    QVERIFY(session.isNull() || !session->serialOpen());
    QTRY_VERIFY(m_window.isNull());

    // The line is free for another console at once.
    ConsoleSession other;
    other.ConnectModem(line.path(), "9600", "None", "8", "1", "Xon/Xoff");
    QVERIFY(other.serialOpen());
}

QTEST_MAIN(TestConsoleWindow)
#include "tst_console_window.moc"
