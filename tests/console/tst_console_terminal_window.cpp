#include "console/connection_history.h"
#include "console/console_session.h"
#include "console/console_terminal.h"
#include "console/console_window.h"
#include "console/log_session_dialog.h"
#include "console/session_log.h"
#include "console/terminal_screen.h"
#include "console/terminal_view.h"
#include "console/terminal_widget.h"
#include "test_support.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QFile>
#include <QLineEdit>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

// A console window in terminal mode and its session log, against a device
// played by a loopback TCP server.
class TestConsoleTerminalWindow : public QObject
{
    Q_OBJECT
    QTcpServer m_server;
    QPointer<QTcpSocket> m_device;
    QPointer<ConsoleWindow> m_window;
    QByteArray m_received;

    ConsoleSession &session() const { return *m_window->session(); }

    // Connects the window to our device as the connection dialog would.
    void connectDevice()
    {
        connectRemembered(m_window->session(), { "TCP/IP", "127.0.0.1", m_server.serverPort(), {} });
        QTRY_VERIFY_WITH_TIMEOUT(m_server.hasPendingConnections(), 10000);
        m_device = m_server.nextPendingConnection();
        connect(m_device, &QTcpSocket::readyRead, this, [this] { m_received += m_device->readAll(); });
        QTRY_VERIFY(session().tcpConnected());
    }

    void deviceSays(const QByteArray &bytes, const QString &shownAtEnd)
    {
        m_device->write(bytes);
        QTRY_VERIFY2_WITH_TIMEOUT(
            m_window->shownText().endsWith(shownAtEnd), qPrintable(m_window->shownText()), 10000);
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.listen(QHostAddress::LocalHost, 0)); }

    void init()
    {
        m_received.clear();
        tw::test::settingsStore().clear(); // no history from the case before
        m_window = new ConsoleWindow;
        m_window->resize(800, 500);
        m_window->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_window));
        m_window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(m_window));
    }

    void cleanup()
    {
        delete m_window;
        delete m_device;
    }

    void terminalModeIsRememberedWithTheHistoryEntry()
    {
        connectDevice();
        // Raw TCP keeps the classic processor unless asked.
        QVERIFY(!session().terminalEmulation());
        QVERIFY(m_window->consoleBox()->isVisible() && !m_window->terminalBox()->isVisible());
        deviceSays("\x1b[1;32mleaf1#\x1b[0m ", QStringLiteral("[1;32mleaf1#[0m "));

        m_window->terminalEmulationAction()->trigger();
        QVERIFY(session().terminalEmulation() && m_window->terminalBox()->isVisible());
        deviceSays("\r\n\x1b[1;32mleaf1#\x1b[0m ", QStringLiteral("leaf1#"));
        QCOMPARE(m_window->windowTitle(), QStringLiteral("leaf1#"));
        // The far end learns the view's size when the view changes.
        const int columns = m_window->terminalBox()->gridColumns();
        m_window->resize(600, 500);
        QTRY_VERIFY(m_window->terminalBox()->gridColumns() < columns);
        QCOMPARE(session().terminal()->screen().columns(), m_window->terminalBox()->gridColumns());

        // The next connection to the same device starts in terminal mode.
        delete m_window;
        delete m_device;
        m_window = new ConsoleWindow;
        connectDevice();
        QVERIFY(session().terminalEmulation());
        QVERIFY(m_window->terminalEmulationAction()->isChecked());
    }

    void keysPasteSelectionScrollbackAndMouseReports()
    {
        connectDevice();
        m_window->terminalEmulationAction()->trigger();
        TerminalWidget *view = m_window->terminalBox();
        QTRY_VERIFY(view->hasFocus());
        QTest::keyClick(view, Qt::Key_Up);
        QTest::keyClick(view, Qt::Key_C, Qt::ControlModifier);
        QTest::keyClick(view, Qt::Key_B, Qt::AltModifier);
        QTest::keyClick(view, Qt::Key_F2);
        QTest::keyClick(view, Qt::Key_Tab);
        QTRY_COMPARE(m_received, QByteArray("\x1b[A\x03\033b\x1bOQ\t"));

        // A device that asks for bracketed paste gets it.
        deviceSays("\x1b[?2004hR1 uplink Gi0/1 to spine-2#", QStringLiteral("spine-2#"));
        m_received.clear();
        QApplication::clipboard()->setText(QStringLiteral("show ip int brief\nshow clock\n"));
        QTest::keyClick(view, Qt::Key_V, Qt::ControlModifier | Qt::ShiftModifier);
        QTRY_COMPARE(m_received, QByteArray("\x1b[200~show ip int brief\rshow clock\r\x1b[201~"));

        // A double click takes one word; a drag selects and Ctrl+Shift+C copies.
        const TerminalScreen &screen = session().terminal()->screen();
        const int h = view->cellSize().height(), w = view->cellSize().width();
        const auto drag = [view](int y, int from, int to, Qt::KeyboardModifiers mods = {}) {
            QTest::mousePress(view->viewport(), Qt::LeftButton, mods, QPoint(from, y));
            QTest::mouseMove(view->viewport(), QPoint(to, y));
            QTest::mouseRelease(view->viewport(), Qt::LeftButton, mods, QPoint(to, y));
        };
        const int y = screen.cursorRow() * h + h / 2;
        QTest::mouseDClick(view->viewport(), Qt::LeftButton, {}, QPoint(20 * w + w / 2, y));
        QCOMPARE(view->selectedText(), QStringLiteral("spine-2"));
        drag(y, 3 * w, 14 * w);
        QCOMPARE(view->selectedText(), QStringLiteral("uplink Gi0/"));
        QTest::keyClick(view, Qt::Key_C, Qt::ControlModifier | Qt::ShiftModifier);
        QCOMPARE(QApplication::clipboard()->text(), QStringLiteral("uplink Gi0/"));

        // Output pushes the selected line into the scrollback: the selection goes with it.
        QByteArray lines;
        for (int i = 0; i < 200; ++i)
            lines += "\r\ninterface Gi0/" + QByteArray::number(i);
        deviceSays(lines, QStringLiteral("Gi0/199"));
        QCOMPARE(view->selectedText(), QStringLiteral("uplink Gi0/"));
        QCOMPARE(view->firstVisibleRow(), 0);
        // Shift+PgUp goes back through the scrollback, and stays on its lines while more output
        // arrives; typing comes back down.
        QTest::keyClick(view, Qt::Key_PageUp, Qt::ShiftModifier);
        QVERIFY(view->firstVisibleRow() < 0);
        const QString top = screen.rowText(view->firstVisibleRow());
        deviceSays("\r\nmore\r\nlines", QStringLiteral("lines"));
        QTRY_COMPARE(screen.rowText(view->firstVisibleRow()), top);
        QTest::keyClick(view, Qt::Key_A);
        QCOMPARE(view->firstVisibleRow(), 0);

        // A device that asks for mouse reports (SGR encoding) gets clicks; Shift still selects.
        deviceSays("\x1b[?1000h\x1b[?1006h\r\nmenu> ", QStringLiteral("menu>"));
        m_received.clear();
        const int row = screen.cursorRow();
        QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, QPoint(4 * w + 1, row * h + 1));
        const QByteArray at = QByteArray::number(row + 1);
        QTRY_COMPARE(m_received, "\x1b[<0;5;" + at + "M\x1b[<0;5;" + at + "m");
        drag(row * h + h / 2, 0, 4 * w, Qt::ShiftModifier);
        QCOMPARE(view->selectedText(), QStringLiteral("menu"));
        QCOMPARE(m_received, "\x1b[<0;5;" + at + "M\x1b[<0;5;" + at + "m");
    }

    void sessionLogAsTextAsRawAndOnAWriteError()
    {
        QTemporaryDir logs;
        m_window->setLogFolderSource([&logs] { return logs.path(); });
        connectDevice();

        // Text as shown, classic console: offered in the log folder, named after the host.
        m_window->logSessionAction()->trigger();
        auto *dialog = m_window->window()->findChild<LogSessionDialog *>();
        QVERIFY(dialog);
        const QFileInfo offered(dialog->pathEdit()->text());
        QVERIFY2(offered.fileName().contains(
                     QRegularExpression(QStringLiteral("^127\\.0\\.0\\.1-\\d{8}-\\d{6}\\.log$"))),
            qPrintable(offered.filePath()));
        QCOMPARE(offered.absolutePath(), QFileInfo(logs.path()).absoluteFilePath());
        const QString textLog = logs.filePath(QStringLiteral("r1.log"));
        QVERIFY(tw::test::writeFile(textLog, "earlier\n"));
        dialog->pathEdit()->setText(textLog);
        dialog->accept();
        QVERIFY(m_window->windowTitle().contains(QStringLiteral("Logging")));
        deviceSays("show clock\r\n\x1b[1m22:10:00\x1b[0m UTC\r\nR1#", QStringLiteral("R1#"));
        m_window->logSessionAction()->trigger(); // stops
        QVERIFY(!session().sessionLog()->isActive()
            && !m_window->windowTitle().contains(QStringLiteral("Logging")));
        QCOMPARE(tw::test::readFile(textLog), QByteArray("earlier\nshow clock\n[1m22:10:00[0m UTC\nR1#"));

        // Raw bytes, terminal console.
        m_window->terminalEmulationAction()->trigger();
        const QString rawLog = logs.filePath(QStringLiteral("raw.log"));
        QVERIFY(session().sessionLog()->start(rawLog, SessionLog::Mode::Raw));
        deviceSays("\x1b[31mred\x1b[0m\r\n\xe2\x94\x80#", QStringLiteral("\u2500#"));
        QCOMPARE(tw::test::readFile(rawLog), QByteArray("\x1b[31mred\x1b[0m\r\n\xe2\x94\x80#"));

        // A full disk: logging stops and says so; the console goes on.
        QVERIFY(session().sessionLog()->start(QStringLiteral("/dev/full"), SessionLog::Mode::Text));
        QVERIFY(m_window->windowTitle().contains(QStringLiteral("Logging")));
        m_device->write("\r\nmore output");
        QTRY_VERIFY_WITH_TIMEOUT(!session().sessionLog()->isActive(), 10000);
        QVERIFY(m_window->shownText().contains(QStringLiteral("more output")));
        QVERIFY(
            m_window->shownText().contains(QStringLiteral("Session log stopped: cannot write /dev/full")));
        QVERIFY(!m_window->windowTitle().contains(QStringLiteral("Logging")));
        QVERIFY(session().tcpConnected());
        deviceSays("\r\nstill here#", QStringLiteral("still here#"));
    }
};

QTEST_MAIN(TestConsoleTerminalWindow)
#include "tst_console_terminal_window.moc"
