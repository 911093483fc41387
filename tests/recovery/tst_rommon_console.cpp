// The ROMMON download through a real console: a pseudo-terminal is the
// device's serial line; the test reads what reaches it and when.

#include "pty_device.h"

#include "console/console_session.h"
#include "console/console_window.h"
#include "console/terminal_view.h"
#include "recovery/console_recovery.h"
#include "recovery/rommon_panel.h"

#include <QAction>
#include <QGroupBox>
#include <QHostAddress>
#include <QLineEdit>
#include <QPushButton>
#include <QTcpServer>
#include <QTest>

class TestRommonConsole : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();
    void menusOnSerialOnly();
    void bytesAndSpacingOnTheLine_data();
    void bytesAndSpacingOnTheLine();
    void portClosedMidSequence();
    void secondStartInterleaves();

private:
    bool connectSerial();
    QLineEdit *box(int n) { return m_console->findChild<QLineEdit *>(QStringLiteral("Text%1").arg(n)); }

    PtyDevice *m_device = nullptr;
    ConsoleWindow *m_console = nullptr;
    ConsoleRecovery *m_recovery = nullptr;
    static constexpr int step = 150;
};

void TestRommonConsole::init()
{
    m_device = new PtyDevice;
    QVERIFY2(m_device->isOpen(), "openpty failed: no pseudo-terminal for the serial device");
    m_console = new ConsoleWindow;
    m_recovery = attachRecovery(m_console);
    QCOMPARE(attachRecovery(m_console), m_recovery);
    m_recovery->rommonPanel()->sequence()->setStepInterval(step);
    m_console->resize(800, 600);
    m_console->show();
}

void TestRommonConsole::cleanup()
{
    delete m_console;
    m_console = nullptr;
    delete m_device;
    m_device = nullptr;
}

bool TestRommonConsole::connectSerial()
{
    m_device->clear();
    m_console->session()->ConnectModem(m_device->slavePath(), QStringLiteral("9600"), QStringLiteral("None"),
        QStringLiteral("8"), QStringLiteral("1"), QStringLiteral("Xon/Xoff"));
    if (m_console->session()->connectionKind() != QLatin1String("Serial"))
        return false;
    // Connecting writes one CR; start each case with a quiet line.
    if (!QTest::qWaitFor([this] { return !m_device->received().isEmpty(); }, 2000))
        return false;
    m_device->clear();
    return true;
}

void TestRommonConsole::menusOnSerialOnly()
{
    QGroupBox *frame = m_console->rommonFrame();
    QAction *menu = m_console->rommonAction();
    QVERIFY(frame->isHidden());
    QCOMPARE(frame->title(), QStringLiteral("TFTP Rommon "));
    QCOMPARE(box(3)->text(), QStringLiteral("255.255.255.0"));
    QCOMPARE(
        m_console->findChild<QPushButton *>(QStringLiteral("Command6"))->text(), QStringLiteral("Start"));

    // Not connected, then on a TCP console: nothing happens.
    menu->trigger();
    QVERIFY(frame->isHidden());
    QTcpServer device;
    QVERIFY(device.listen(QHostAddress::LocalHost, 0));
    ConsoleSession::setTelnetPort(device.serverPort());
    m_console->session()->ConnectTCP(QStringLiteral("127.0.0.1"));
    QCOMPARE(m_console->session()->connectionKind(), QStringLiteral("TCP/IP"));
    menu->trigger();
    QVERIFY(frame->isHidden());
    m_console->session()->disconnectSession();

    QVERIFY(connectSerial());
    QVERIFY(box(5)->text().isEmpty());
    menu->trigger();
    QVERIFY(frame->isVisible());
    // The server box is offered one of this workstation's addresses...
    QVERIFY2(
        QHostAddress(box(5)->text()).protocol() == QAbstractSocket::IPv4Protocol, qPrintable(box(5)->text()));
    // ...and follows the device's address to the local network it is on...
    QTest::keyClicks(box(2), QStringLiteral("127.0.0.5"));
    QTest::keyClick(box(2), Qt::Key_Return);
    QCOMPARE(box(5)->text(), QStringLiteral("127.0.0.1"));
    menu->trigger();
    QVERIFY(frame->isHidden());
    // ...but what the user typed there is never replaced.
    box(5)->clear();
    QTest::keyClicks(box(5), QStringLiteral("192.0.2.1"));
    menu->trigger();
    QCOMPARE(box(5)->text(), QStringLiteral("192.0.2.1"));

    // The flash backup is for TCP consoles: on this serial one it shows nothing.
    m_console->backUpFlashAction()->trigger();
    QVERIFY(m_console->backUpFlashFrame()->isHidden());
    QVERIFY(!m_console->session()->listingReaderActive());
    QTest::qWait(50);
    QVERIFY(m_device->received().isEmpty());
}

void TestRommonConsole::bytesAndSpacingOnTheLine_data()
{
    QTest::addColumn<QStringList>("typed");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("filled, mask untouched")
        << QStringList { "10.1.1.2", QString(), "10.1.1.1", "10.1.1.9", "c2600.bin" }
        << QByteArray("IP_ADDRESS=10.1.1.2\r\nIP_SUBNET_MASK=255.255.255.0\rDEFAULT_GATEWAY=10.1.1.1\r"
                      "TFTP_SERVER=10.1.1.9\rTFTP_FILE=c2600.bin\rtftpdnld\r");
    QTest::newRow("emptied boxes send bare assignments") << QStringList {
        "", "", "", "", ""
    } << QByteArray("IP_ADDRESS=\r\nIP_SUBNET_MASK=\rDEFAULT_GATEWAY=\rTFTP_SERVER=\rTFTP_FILE=\rtftpdnld\r");
}

void TestRommonConsole::bytesAndSpacingOnTheLine()
{
    QFETCH(QStringList, typed);
    QFETCH(QByteArray, expected);
    QVERIFY(connectSerial());
    m_console->rommonAction()->trigger();
    for (int i = 0; i < 5; ++i) {
        if (i == 1 && typed.at(i).isNull())
            continue; // the mask keeps its preset
        box(2 + i)->selectAll();
        QTest::keyClick(box(2 + i), Qt::Key_Delete);
        QTest::keyClicks(box(2 + i), typed.at(i));
    }
    QTest::mouseClick(m_console->findChild<QPushButton *>(QStringLiteral("Command6")), Qt::LeftButton);
    QVERIFY(m_console->rommonFrame()->isHidden());
    QTRY_COMPARE_WITH_TIMEOUT(m_device->received(), expected, 5000);

    // One line per step: the device sees six bursts about one step apart.
    const QList<PtyDevice::Chunk> chunks = m_device->chunks();
    QList<qint64> lineTimes;
    QByteArray seen;
    for (const PtyDevice::Chunk &chunk : chunks) {
        seen += chunk.bytes;
        if (seen.endsWith('\r') || seen.endsWith("\r\n"))
            lineTimes.append(chunk.at);
    }
    QCOMPARE(lineTimes.size(), 6);
    for (int i = 1; i < lineTimes.size(); ++i) {
        const qint64 gap = lineTimes.at(i) - lineTimes.at(i - 1);
        // The port writes from the event loop, so arrival jitters a little.
        QVERIFY2(gap > step * 6 / 10 && gap < step * 2, qPrintable(QStringLiteral("gap %1 ms").arg(gap)));
    }
    QTest::qWait(2 * step);
    QCOMPARE(m_device->received(), expected);
    QVERIFY(m_console->consoleBox()->toPlainText().indexOf(QLatin1String("IP_ADDRESS")) < 0);
}

void TestRommonConsole::portClosedMidSequence()
{
    QVERIFY(connectSerial());
    m_console->rommonAction()->trigger();
    RommonSequence *sequence = m_recovery->rommonPanel()->sequence();
    QTest::mouseClick(m_console->findChild<QPushButton *>(QStringLiteral("Command6")), Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(m_device->received().contains("IP_SUBNET_MASK="), 2000);
    m_console->session()->disconnectSession();
    QVERIFY(!sequence->isRunning());
    const QByteArray before = m_device->received();

    // Reopening the port does not resume the old run.
    QVERIFY(connectSerial());
    QTest::qWait(4 * step);
    QVERIFY2(m_device->received().isEmpty(), m_device->received().toHex().constData());
    QVERIFY(!before.contains("DEFAULT_GATEWAY"));
}

void TestRommonConsole::secondStartInterleaves()
{
    QVERIFY(connectSerial());
    m_console->rommonAction()->trigger();
    QTest::keyClicks(box(2), QStringLiteral("1.1.1.1"));
    auto *start = m_console->findChild<QPushButton *>(QStringLiteral("Command6"));
    QTest::mouseClick(start, Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(m_device->received().contains("IP_SUBNET_MASK="), 2000);
    QTest::mouseClick(start, Qt::LeftButton); // the frame is hidden, but the button still works
    QTRY_COMPARE_WITH_TIMEOUT(m_device->received().count("tftpdnld\r"), 2, 5000);

    QList<QByteArray> lines = m_device->received().replace("\r\n", "\r").split('\r');
    QCOMPARE(lines.takeLast(), QByteArray());
    QCOMPARE(lines.size(), 12);
    QCOMPARE(lines.mid(0, 3),
        (QList<QByteArray> { "IP_ADDRESS=1.1.1.1", "IP_SUBNET_MASK=255.255.255.0", "IP_ADDRESS=1.1.1.1" }));
    // Two complete runs, the second one step behind the first.
    for (const QByteArray &line : lines)
        QCOMPARE(lines.count(line), 2);
    QVERIFY(lines.indexOf("tftpdnld") < lines.lastIndexOf("TFTP_FILE="));
}

QTEST_MAIN(TestRommonConsole)
#include "tst_rommon_console.moc"
