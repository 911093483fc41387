// The recovery tools through a real console: for ROMMON a pseudo-terminal is the
// device's serial line; for the flash backup a local TCP "device" that uploads
// with the real TFTP client (tftp-hpa) to Tarnwick's own TFTP server.

#include "console/console_session.h"
#include "console/console_window.h"
#include "console/pty_device.h"
#include "console/terminal_view.h"
#include "recovery/console_recovery.h"
#include "recovery/flash_backup_panel.h"
#include "recovery/flash_listing_reader.h"
#include "recovery/rommon_panel.h"
#include "test_support.h"
#include "tftp/tftp_test_peer.h"
#include "util/message_box.h"
#include "util/word_splitter.h"

#include <QAction>
#include <QGroupBox>
#include <QLineEdit>
#include <QProcess>
#include <QPushButton>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>
#include <QTreeView>

// A router's Telnet line: " dir flash: " gets a listing (aligned columns,
// header, a "--More--" prompt), a space its second page (the prompt wiped by
// backspaces, summary line, prompt), each copy command group a put from uploadDir.
const QByteArray firstPage
    = " dir flash: \r\nDirectory of flash:/\r\n\r\n"
      "    1  -rw-     8617624   Mar 01 1993 00:01:41 +00:00  c2600-i-mz.122-8.T.bin\r\n"
      "    2  -rw-        1024   Mar 01 1993 00:05:12 +00:00  startup-backup.cfg\r\n"
      "    3  -rw-         733   Mar 02 1993 10:11:12 +00:00  vlan.dat\r\n --More-- ";
const QByteArray secondPage = "\b\b\b\b\b\b\b\b\b\b          \b\b\b\b\b\b\b\b\b\b"
                              "    4  -rw-       52431   Mar 03 1993 09:00:00 +00:00  crashinfo_1993\r\n"
                              "\r\n15998976 bytes total (7381248 bytes free)\r\nR1#";
struct FakeFlashDevice
{
    FakeFlashDevice()
    {
        server.listen(QHostAddress::LocalHost, 0);
        QObject::connect(&server, &QTcpServer::newConnection, [this] {
            client = server.nextPendingConnection();
            QObject::connect(client, &QTcpSocket::readyRead, [this] { onReadyRead(); });
            client->write("\r\nR1#");
        });
    }
    void onReadyRead()
    {
        const QByteArray data = client->readAll();
        received += data;
        if (data == " " || data == " dir flash: \r")
            client->write(data == " " ? secondPage : firstPage);
        static const QRegularExpression group(QStringLiteral("copy flash:(\\S+) tftp\\r([^\\r]*)\\r\\r"));
        for (QRegularExpressionMatch m;
             (m = group.match(QString::fromLatin1(received), parsed)).hasMatch();) {
            parsed = m.capturedEnd();
            auto *put = new QProcess(client);
            put->setWorkingDirectory(uploadDir);
            QObject::connect(put, &QProcess::finished, [this] { ++uploaded; });
            put->start(
                "/usr/bin/tftp", { "-m", "binary", m.captured(2), tftpPort, "-c", "put", m.captured(1) });
        }
    }
    QTcpServer server;
    QTcpSocket *client = nullptr;
    QByteArray received;
    QString uploadDir, tftpPort;
    int parsed = 0, uploaded = 0;
};

class TestRecovery : public QObject
{
    Q_OBJECT
    std::optional<FakeFlashDevice> m_flash;
    std::optional<ConsoleWindow> m_console;
    FlashBackup *m_backup = nullptr;
    QStringList m_messages;
    std::optional<PtyDevice> m_line; // the device's serial line
    // What has reached the device since the line was last quiet.
    QByteArray received() { return m_line->received(); }
    void quiet() { m_line->received(), m_line->got.clear(); }

    bool connectSerial()
    {
        quiet();
        m_console->session()->ConnectModem(m_line->path, "9600", "None", "8", "1", "Xon/Xoff");
        // Connecting writes one CR; start with a quiet line.
        const bool connected = QTest::qWaitFor([this] { return received() == "\r"; }, 30000);
        quiet();
        return connected && m_console->session()->connectionKind() == QLatin1String("Serial");
    }
    QLineEdit *box(int n) { return m_console->findChild<QLineEdit *>(QStringLiteral("Text%1").arg(n)); }
    void click(const char *name) { m_console->findChild<QPushButton *>(name)->click(); }
    void tick(int row)
    {
        auto *view = m_console->findChild<QTreeView *>(QStringLiteral("ListView1"));
        view->setCurrentIndex(view->model()->index(row, 0));
        QTest::keyClick(view, Qt::Key_Space);
    }
    QString terminal() { return m_console->consoleBox()->toPlainText(); }
    RommonSequence *sequence() { return attachRecovery(&*m_console)->rommonPanel()->sequence(); }
    // Runs out the one step timer that is waiting, as its interval would; false if none waits.
    bool nextStep()
    {
        QList<QTimer *> waiting = sequence()->findChildren<QTimer *>();
        waiting.removeIf([](const QTimer *timer) { return !timer->isActive(); });
        if (waiting.size() != 1)
            return false;
        waiting[0]->start(0);
        return QTest::qWaitFor([timer = waiting[0]] { return !timer->isActive(); }, 30000);
    }

private Q_SLOTS:
    void init()
    {
        QVERIFY(!m_line.emplace().path.isEmpty());
        m_messages.clear();
        tw::setMessageBoxHook([this](const QString &text, QMessageBox::Icon) { m_messages.append(text); });
        ConsoleSession::setTelnetPort(m_flash.emplace().server.serverPort());
        ConsoleRecovery *recovery = attachRecovery(&m_console.emplace());
        QCOMPARE(attachRecovery(&*m_console), recovery);
        // Steps never run out by themselves here: nextStep() lets each go, whatever the machine's speed.
        recovery->rommonPanel()->sequence()->setStepInterval(3600000);
        m_backup = recovery->flashPanel()->backup();
        m_console->show();
    }

    void cleanup()
    {
        m_console.reset();
        m_flash.reset();
        m_line.reset(); // held open until now, so the line does not hang up when the console reopens it
    }

    void splitterAndReader()
    {
        // Runs of spaces align a listing's columns: one separator, so the name
        // is word 9 (sub-item 8). Only the space separates; a tab stays in its word.
        const QString line = "    1  -rw-   8617624   Mar 01 1993 00:01:41 +00:00  c2600.bin  ";
        QCOMPARE(tw::splitWords(line).mid(7), (QStringList { "+00:00", "c2600.bin" }));
        QCOMPARE(tw::splitWords(u"a\tb   c"), (QStringList { "a\tb", "c" }));

        // The reader's edges (a full listing goes through the console below),
        // cut anywhere as TCP may: the number is digits only, words past the
        // ninth are dropped, NUL and escape too, and an endless line stops growing.
        const QByteArray text = QByteArray("\b\b1a x\r-1 y\r1.5 z\r4 a b c d e f g h i j\r\n") + '\0'
            + "5\x1b z\r" + QByteArray(5000, '7');
        for (int cut = 0; cut < text.size(); ++cut) {
            FlashListingReader reader;
            const QList<QStringList> got = reader.feed(text.left(cut));
            QCOMPARE(got + reader.feed(text.mid(cut)),
                (QList<QStringList> { { "4", "a", "b", "c", "d", "e", "f", "g", "h" }, { "5", "z" } }));
            QCOMPARE(reader.pendingLine(), QString(FlashListingReader::maxLineLength, u'7'));
        }
    }

    void rommonMenuOnSerialOnly()
    {
        QGroupBox *frame = m_console->rommonFrame();
        QAction *menu = m_console->rommonAction();
        // Not connected, then on a TCP console: nothing happens.
        menu->trigger();
        QVERIFY(frame->isHidden());
        m_console->session()->ConnectTCP(QStringLiteral("127.0.0.1"));
        QCOMPARE(m_console->session()->connectionKind(), QStringLiteral("TCP/IP"));
        menu->trigger();
        QVERIFY(frame->isHidden());
        m_console->session()->disconnectSession();

        QVERIFY(connectSerial());
        menu->trigger();
        QVERIFY(frame->isVisible());
        // The server box is offered this workstation's address on the device's network...
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
    }

    void rommonBytesAndSpacing_data()
    {
        QTest::addColumn<QStringList>("typed");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("filled, mask preset")
            << QStringList { "10.1.1.2", QString(), "10.1.1.1", "10.1.1.9", "c2600.bin" }
            << QByteArray("IP_ADDRESS=10.1.1.2\r\nIP_SUBNET_MASK=255.255.255.0\rDEFAULT_GATEWAY=10.1.1.1\r"
                          "TFTP_SERVER=10.1.1.9\rTFTP_FILE=c2600.bin\rtftpdnld\r");
        QTest::newRow("emptied boxes send bare assignments")
            << QStringList { "", "", "", "", "" }
            << QByteArray(
                   "IP_ADDRESS=\r\nIP_SUBNET_MASK=\rDEFAULT_GATEWAY=\rTFTP_SERVER=\rTFTP_FILE=\rtftpdnld\r");
    }

    void rommonBytesAndSpacing()
    {
        QFETCH(QStringList, typed);
        QFETCH(QByteArray, expected);
        QVERIFY(connectSerial());
        m_console->rommonAction()->trigger();
        for (int i = 0; i < 4; ++i) {
            if (!typed.at(i).isNull()) // a null entry leaves the box's preset
                box(2 + i)->setText(typed.at(i));
        }
        QSignalSpy lines(sequence(), &RommonSequence::lineReady);
        click("Command6");
        QVERIFY(m_console->rommonFrame()->isHidden());
        box(6)->setText(typed.at(4)); // typed during the run: each line is built as it goes out
        // One line at once, then one more each time a step's timer runs out, never sooner.
        for (int i = 1; i < 6; ++i) {
            QCOMPARE(lines.count(), i);
            QVERIFY(nextStep());
        }
        QCOMPARE(lines.count(), 6);
        QVERIFY(!sequence()->isRunning());
        QTRY_COMPARE(received(), expected);
    }

    void rommonStopsWhenThePortCloses()
    {
        // The port closes as the second line goes out; reopening it does not resume the run.
        QVERIFY(connectSerial());
        const auto closer
            = connect(sequence(), &RommonSequence::lineReady, this, [this](const QByteArray &line) {
                  if (line.startsWith("IP_SUBNET_MASK="))
                      m_console->session()->disconnectSession();
              });
        click("Command6"); // the frame is hidden, but the button still works
        QVERIFY(nextStep());
        QVERIFY(!sequence()->isRunning());
        QTRY_VERIFY(received().startsWith("IP_ADDRESS="));
        QVERIFY(!received().contains("DEFAULT_GATEWAY="));
        disconnect(closer);
        QVERIFY(connectSerial());
        QVERIFY(!sequence()->isRunning()); // so nothing more can go out
        QCOMPARE(received(), QByteArray());
    }

    void flashBackup()
    {
        QVERIFY2(QFileInfo("/usr/bin/tftp").isExecutable(), "/usr/bin/tftp is missing: install tftp-hpa");
        tftptest::Fixture tftp; // its share folder takes the backups
        QDir root(tftp.dir.path());
        QVERIFY(root.mkdir(QStringLiteral("flash")));
        m_flash->tftpPort = QString::number(tftp.port);
        m_flash->uploadDir = root.filePath("flash");

        m_console->session()->ConnectTCP(QStringLiteral("127.0.0.1"));
        QTRY_VERIFY(terminal().contains(QLatin1String("R1#")));
        m_console->backUpFlashAction()->trigger();
        QVERIFY(m_console->backUpFlashFrame()->isVisible());
        QTRY_COMPARE(m_backup->rowCount(), 3);
        QCOMPARE(m_flash->received, QByteArray(" dir flash: \r"));
        QCOMPARE(m_backup->text(0, FlashBackup::SizeColumn), QStringLiteral("8617624"));
        QVERIFY(!terminal().contains(QLatin1String("vlan.dat"))); // the listing went to the reader only

        // The last row so far cannot be ticked; paging on makes it ordinary.
        tick(2);
        QVERIFY(!m_backup->isTicked(2));
        click("Command4");
        QTRY_COMPARE(m_backup->rowCount(), 5);
        QCOMPARE(m_flash->received, QByteArray(" dir flash: \r "));
        QCOMPARE(m_backup->text(4, FlashBackup::NumberColumn), QStringLiteral("15998976"));
        tick(4);
        QVERIFY(!m_backup->isTicked(4));
        click("Command3");
        const QStringList files { "c2600-i-mz.122-8.T.bin", "startup-backup.cfg", "vlan.dat",
            "crashinfo_1993" };
        QCOMPARE(m_backup->tickedFiles(), files);
        tick(1);
        tick(3);
        QCOMPARE(m_backup->tickedFiles(), (QStringList { files.at(0), files.at(2) }));

        // The device's flash; sizes off and on the 512-byte block boundary.
        QMap<QString, QByteArray> flash;
        for (int row : { 0, 2 }) {
            QByteArray &bytes = flash[files.at(row)] = QByteArray(row ? 1024 : 70001, Qt::Uninitialized);
            for (char &c : bytes)
                c = char(QRandomGenerator::global()->bounded(256));
            QVERIFY(tw::test::writeFile(root.filePath("flash/" + files.at(row)), bytes));
        }
        // No server address: a message and nothing sent.
        const QByteArray asked = m_flash->received;
        m_console->tftpServerEdit()->clear();
        click("Command5");
        QCOMPARE(m_messages, QStringList { "Please enter an IP address" });
        QTest::keyClicks(m_console->tftpServerEdit(), QStringLiteral("127.0.0.1"));
        click("Command5");
        QTRY_COMPARE_WITH_TIMEOUT(m_flash->uploaded, 2, 20000);
        QCOMPARE(m_flash->received.mid(asked.size()),
            QByteArray("copy flash:c2600-i-mz.122-8.T.bin tftp\r127.0.0.1\r\rcopy flash:vlan.dat "
                       "tftp\r127.0.0.1\r\r"));
        QCOMPARE(m_messages.size(), 1);
        for (auto [name, bytes] : flash.asKeyValueRange()) // the last block may land after the put ends
            QTRY_COMPARE(tw::test::readFile(tftp.path(name)), bytes);

        // The device's answers show in the terminal, not as rows; asking again starts a fresh
        // list; closing hands the device's text back to the terminal.
        m_flash->client->write("\r\n8617624 bytes copied in 9.1 secs\r\nR1#");
        QTRY_VERIFY(terminal().contains(QLatin1String("bytes copied")));
        QCOMPARE(m_backup->rowCount(), 5);
        m_console->backUpFlashAction()->trigger();
        QCOMPARE(m_backup->rowCount(), 0);
        QTRY_COMPARE(m_backup->rowCount(), 3);
        click("CloseBackUpFlash");
        QVERIFY(m_console->backUpFlashFrame()->isHidden());
        m_flash->client->write("\r\n  9 -rw- 1 Jan 01 2000 00:00:00 +00:00 later.bin\r\nR1#");
        QTRY_VERIFY(terminal().contains(QLatin1String("later.bin")));
        QCOMPARE(m_backup->rowCount(), 3);
    }
};

QTEST_MAIN(TestRecovery)
#include "tst_recovery.moc"
