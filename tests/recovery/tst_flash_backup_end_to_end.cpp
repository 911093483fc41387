// The whole backup: the console lists the device's flash, the user ticks two
// files and copies them; the device (a local TCP fake) answers each copy by
// uploading the file with a real TFTP client (tftp-hpa) to Tarnwick's own TFTP
// server, and the files land in the access entry's folder.

#include "fake_flash_device.h"

#include "access/access_list.h"
#include "console/console_session.h"
#include "console/console_window.h"
#include "recovery/console_recovery.h"
#include "recovery/flash_backup_panel.h"
#include "tftp/tftp_server.h"
#include "tftp/transfer_monitor.h"
#include "util/message_box.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLineEdit>
#include <QProcess>
#include <QPushButton>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>
#include <QUdpSocket>

class TestFlashBackupEndToEnd : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void tickedFilesArriveInTheAccessFolder();
};

static quint16 freeUdpPort()
{
    QUdpSocket probe;
    probe.bind(QHostAddress::LocalHost, 0);
    return probe.localPort();
}

static QByteArray randomBytes(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &c : bytes)
        c = char(QRandomGenerator::global()->bounded(256));
    return bytes;
}

void TestFlashBackupEndToEnd::tickedFilesArriveInTheAccessFolder()
{
    const QString client = QStringLiteral("/usr/bin/tftp");
    QVERIFY2(QFileInfo(client).isExecutable(), "/usr/bin/tftp is missing: install the tftp-hpa package");
    tw::setMessageBoxHook([](const QString &text, QMessageBox::Icon) { QFAIL(qPrintable(text)); });

    QTemporaryDir temp;
    QVERIFY(temp.isValid());
    QDir root(temp.path());
    QVERIFY(root.mkdir(QStringLiteral("flash")) && root.mkdir(QStringLiteral("backups")));
    const QString flashDir = root.filePath(QStringLiteral("flash"));
    const QString backupDir = root.filePath(QStringLiteral("backups"));

    // The device's flash: what its TFTP client will upload. Sizes off and on
    // the 512-byte block boundary.
    const QMap<QString, QByteArray> flash { { QStringLiteral("c2600-i-mz.122-8.T.bin"), randomBytes(70001) },
        { QStringLiteral("vlan.dat"), randomBytes(1024) } };
    for (auto it = flash.begin(); it != flash.end(); ++it) {
        QFile file(QDir(flashDir).filePath(it.key()));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(it.value());
    }

    TransferMonitor monitor;
    AccessList acl;
    acl.appendEntry(
        { QStringLiteral("127.0.0.0"), QStringLiteral("255.0.0.0"), QString(), QString(), backupDir, 8 });
    TftpServer server(&monitor, &acl);
    const quint16 tftpPort = freeUdpPort();
    server.setBindAddress(QHostAddress::LocalHost);
    server.setPort(tftpPort);
    server.setTraceFilePath(root.filePath(QStringLiteral("bugfix.ini")));
    QVERIFY2(server.start(), qPrintable(server.errorString()));

    // The device answers every copy with a put to the address it was given,
    // one file after the other, as a router does.
    FakeFlashDevice device;
    QStringList queue;
    QString serverAsked;
    QProcess upload;
    upload.setWorkingDirectory(flashDir);
    upload.setProcessChannelMode(QProcess::MergedChannels);
    int uploadsDone = 0;
    auto startNext = [&] {
        if (queue.isEmpty() || upload.state() != QProcess::NotRunning)
            return;
        upload.start(client,
            { QStringLiteral("-m"), QStringLiteral("binary"), serverAsked, QString::number(tftpPort),
                QStringLiteral("-c"), QStringLiteral("put"), queue.takeFirst() });
    };
    connect(&device, &FakeFlashDevice::copyRequested, this, [&](const QString &file, const QString &address) {
        serverAsked = address;
        queue.append(file);
        startNext();
    });
    connect(&upload, &QProcess::finished, this, [&] {
        ++uploadsDone;
        startNext();
    });

    ConsoleSession::setTelnetPort(device.port());
    ConsoleWindow console;
    ConsoleRecovery *recovery = attachRecovery(&console);
    console.show();
    console.session()->ConnectTCP(QStringLiteral("127.0.0.1"));
    QTRY_VERIFY(console.session()->tcpConnected());
    console.backUpFlashAction()->trigger();
    FlashBackup *backup = recovery->flashPanel()->backup();
    QTRY_COMPARE(backup->rowCount(), 3);
    QTest::mouseClick(console.findChild<QPushButton *>(QStringLiteral("Command4")), Qt::LeftButton);
    QTRY_COMPARE(backup->rowCount(), 5);
    backup->setTicked(0, true);
    backup->setTicked(2, true);
    QTest::keyClicks(console.tftpServerEdit(), QStringLiteral("127.0.0.1"));
    QTest::mouseClick(console.findChild<QPushButton *>(QStringLiteral("Command5")), Qt::LeftButton);

    QTRY_COMPARE_WITH_TIMEOUT(uploadsDone, 2, 20000);
    QCOMPARE(serverAsked, QStringLiteral("127.0.0.1"));
    for (auto it = flash.begin(); it != flash.end(); ++it) {
        QFile arrived(QDir(backupDir).filePath(it.key()));
        QTRY_VERIFY2(arrived.exists(), qPrintable(it.key() + QString::fromLocal8Bit(upload.readAll())));
        QVERIFY(arrived.open(QIODevice::ReadOnly));
        QCOMPARE(arrived.readAll(), it.value());
    }
    tw::setMessageBoxHook({});
}

QTEST_MAIN(TestFlashBackupEndToEnd)
#include "tst_flash_backup_end_to_end.moc"
