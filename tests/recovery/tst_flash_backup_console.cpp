// The flash backup through a real console: a local TCP "device" answers the
// listing and records what the console types into it.

#include "fake_flash_device.h"

#include "console/console_session.h"
#include "console/console_window.h"
#include "console/terminal_view.h"
#include "recovery/console_recovery.h"
#include "recovery/flash_backup_panel.h"
#include "util/message_box.h"

#include <QAction>
#include <QGroupBox>
#include <QLineEdit>
#include <QPushButton>
#include <QTest>
#include <QTreeView>

class TestFlashBackupConsole : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();
    void listingPagingAndTicking();
    void copyCommandGroups();

private:
    void connectAndList();
    void clickButton(const char *name)
    {
        QTest::mouseClick(m_console->findChild<QPushButton *>(QLatin1String(name)), Qt::LeftButton);
    }
    void tickInView(int row);
    FlashBackup *backup() { return m_recovery->flashPanel()->backup(); }

    FakeFlashDevice *m_device = nullptr;
    ConsoleWindow *m_console = nullptr;
    ConsoleRecovery *m_recovery = nullptr;
    QStringList m_messages;
};

void TestFlashBackupConsole::init()
{
    m_messages.clear();
    tw::setMessageBoxHook([this](const QString &text, QMessageBox::Icon) { m_messages.append(text); });
    m_device = new FakeFlashDevice;
    QVERIFY(m_device->port() != 0);
    ConsoleSession::setTelnetPort(m_device->port());
    m_console = new ConsoleWindow;
    m_recovery = attachRecovery(m_console);
    m_console->resize(900, 700);
    m_console->show();
}

void TestFlashBackupConsole::cleanup()
{
    delete m_console;
    delete m_device;
    m_console = nullptr;
    m_device = nullptr;
    tw::setMessageBoxHook({});
}

void TestFlashBackupConsole::connectAndList()
{
    m_console->session()->ConnectTCP(QStringLiteral("127.0.0.1"));
    QTRY_VERIFY(m_console->session()->tcpConnected());
    QTRY_VERIFY(m_console->consoleBox()->toPlainText().contains(QLatin1String("R1#")));
    m_console->backUpFlashAction()->trigger();
    QVERIFY(m_console->backUpFlashFrame()->isVisible());
    QTRY_COMPARE(backup()->rowCount(), 3);
}

void TestFlashBackupConsole::tickInView(int row)
{
    QTreeView *view = m_recovery->flashPanel()->list();
    view->setFocus();
    view->setCurrentIndex(view->model()->index(row, 0));
    QTest::keyClick(view, Qt::Key_Space);
}

void TestFlashBackupConsole::listingPagingAndTicking()
{
    connectAndList();
    QCOMPARE(m_device->received(), QByteArray(" dir flash: \r"));
    QCOMPARE(
        m_console->findChild<QGroupBox *>(QStringLiteral("Frame6"))->title(), QStringLiteral("BackUpFlash"));
    QVERIFY(m_console->findChild<QTreeView *>(QStringLiteral("ListView1")));
    const QStringList files = FakeFlashDevice::listedFiles();
    for (int row = 0; row < 3; ++row) {
        QCOMPARE(backup()->text(row, FlashBackup::NumberColumn), QString::number(row + 1));
        QCOMPARE(backup()->text(row, FlashBackup::NameColumn), files.at(row));
    }
    QCOMPARE(backup()->text(0, FlashBackup::SizeColumn), QStringLiteral("8617624"));
    // The listing went to the reader, not to the terminal.
    QVERIFY(!m_console->consoleBox()->toPlainText().contains(QLatin1String("vlan.dat")));

    // The last row so far cannot be ticked; paging on makes it ordinary.
    tickInView(2);
    QVERIFY(!backup()->isTicked(2));
    clickButton("Command4");
    QTRY_COMPARE(backup()->rowCount(), 5);
    QCOMPARE(m_device->received(), QByteArray(" dir flash: \r "));
    QCOMPARE(backup()->text(3, FlashBackup::NameColumn), files.at(3));
    QCOMPARE(backup()->text(4, FlashBackup::NumberColumn), QStringLiteral("15998976"));
    tickInView(2);
    QVERIFY(backup()->isTicked(2));
    tickInView(4);
    QVERIFY(!backup()->isTicked(4));
    tickInView(2);
    QVERIFY(!backup()->isTicked(2));

    clickButton("Command3");
    QCOMPARE(backup()->tickedFiles(), files);

    // Asking again starts a fresh list.
    m_console->backUpFlashAction()->trigger();
    QCOMPARE(backup()->rowCount(), 0);
    QTRY_COMPARE(backup()->rowCount(), 3);
    QVERIFY(backup()->tickedFiles().isEmpty());

    // Close: the panel goes away and the device's text reaches the terminal again.
    clickButton("CloseBackUpFlash");
    QVERIFY(m_console->backUpFlashFrame()->isHidden());
    m_device->sendToConsole("\r\n  9 -rw- 1 Jan 01 2000 00:00:00 +00:00 later.bin\r\nR1#");
    QTRY_VERIFY(m_console->consoleBox()->toPlainText().contains(QLatin1String("later.bin")));
    QCOMPARE(backup()->rowCount(), 3);
}

void TestFlashBackupConsole::copyCommandGroups()
{
    connectAndList();
    clickButton("Command4");
    QTRY_COMPARE(backup()->rowCount(), 5);
    tickInView(0);
    tickInView(2);
    const QByteArray asked = m_device->received();

    // No server address: a message and nothing sent.
    m_console->tftpServerEdit()->clear();
    clickButton("Command5");
    QCOMPARE(m_messages, QStringList { QStringLiteral("Please enter an IP address") });
    QTest::qWait(50);
    QCOMPARE(m_device->received(), asked);

    QStringList copied;
    connect(m_device, &FakeFlashDevice::copyRequested, this,
        [&](const QString &file, const QString &server) { copied.append(file + '@' + server); });
    QTest::keyClicks(m_console->tftpServerEdit(), QStringLiteral("10.9.9.9"));
    clickButton("Command5");
    QTRY_COMPARE(copied.size(), 2);
    QCOMPARE(m_device->received().mid(asked.size()),
        QByteArray("copy flash:c2600-i-mz.122-8.T.bin tftp\r10.9.9.9\r\r"
                   "copy flash:vlan.dat tftp\r10.9.9.9\r\r"));
    QCOMPARE(copied, (QStringList { "c2600-i-mz.122-8.T.bin@10.9.9.9", "vlan.dat@10.9.9.9" }));
    QCOMPARE(m_messages.size(), 1);

    // The device's answers to the copy show in the terminal, not as rows.
    m_device->sendToConsole("\r\n!!!!!!!!\r\n8617624 bytes copied in 9.1 secs\r\nR1#");
    QTRY_VERIFY(m_console->consoleBox()->toPlainText().contains(QLatin1String("bytes copied")));
    QCOMPARE(backup()->rowCount(), 5);
}

QTEST_MAIN(TestFlashBackupConsole)
#include "tst_flash_backup_console.moc"
