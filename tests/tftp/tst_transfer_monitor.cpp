#include "tftp/transfer_monitor.h"
#include "tftp/transfer_window.h"

#include <QAction>
#include <QSignalSpy>
#include <QTest>
#include <QTreeView>

// The transfer monitor as the other parts use it: rows addressed by number,
// writes to missing rows ignored, "Clear Old Transfers" sparing the rows that
// running transfers still write to, and the window showing both lists.
class TransferMonitorTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void loadsThirtyReadySocketRowsAndAnEmptyTransferList()
    {
        TransferMonitor monitor;
        QCOMPARE(monitor.transferCount(), 0);
        QCOMPARE(monitor.sockets()->rowCount(), 30);
        const QStringList socketHeaders { "socket", "LocalPort", "RemotePort", "Status", "errror" };
        const QStringList transferHeaders { "Filename", "From", "To", "Status", "Data sent/Received" };
        for (int column = 0; column < 5; ++column) {
            QCOMPARE(monitor.sockets()->headerData(column, Qt::Horizontal).toString(), socketHeaders[column]);
            QCOMPARE(monitor.transfers()->headerData(column, Qt::Horizontal).toString(), transferHeaders[column]);
        }
        for (int slot = 1; slot <= 30; ++slot) {
            QCOMPARE(monitor.socketText(slot, TransferMonitor::SocketName), QString::number(slot));
            QCOMPARE(monitor.socketText(slot, TransferMonitor::SocketStatus), QStringLiteral("ready"));
        }
    }

    void writesByRowNumberAndIgnoresMissingRows()
    {
        TransferMonitor monitor;
        QSignalSpy socketRows(&monitor, &TransferMonitor::socketRowChanged);
        QSignalSpy transferRows(&monitor, &TransferMonitor::transferRowChanged);
        QCOMPARE(monitor.addTransfer("c2600.bin", "10.0.0.1", "10.0.0.9", "Allowed"), 1);
        monitor.setTransferText(1, TransferMonitor::From, QStringLiteral("No Such File"));
        QCOMPARE(monitor.transferText(1, TransferMonitor::From), QStringLiteral("No Such File"));
        QCOMPARE(transferRows.count(), 2);

        for (int row : { -1, 0, 2, 31, 1000 })
            monitor.setTransferText(row, TransferMonitor::Status, QStringLiteral("FINISHED OK"));
        monitor.setTransferText(1, 7, QStringLiteral("bad column"));
        monitor.setSocketText(31, TransferMonitor::SocketStatus, QStringLiteral("Listen"));
        monitor.setSocketText(0, TransferMonitor::SocketStatus, QStringLiteral("Listen"));
        QCOMPARE(monitor.transferCount(), 1);
        QCOMPARE(monitor.transferText(1, TransferMonitor::Status), QStringLiteral("Allowed"));
        QCOMPARE(socketRows.count(), 0);

        monitor.setSocketText(1, TransferMonitor::SocketStatus, QStringLiteral("Listen"));
        QCOMPARE(socketRows.count(), 1);
        QCOMPARE(monitor.socketLine(1), QStringLiteral("socket\t1\t1\t\t\tListen\t"));
        QCOMPARE(monitor.transferLine(1), QStringLiteral("transfer\t1\tc2600.bin\tNo Such File\t10.0.0.9\tAllowed\t"));
    }

    void clearOldTransfersSparesRowsStillInUse()
    {
        TransferMonitor monitor;
        for (int i = 1; i <= 6; ++i)
            monitor.addTransfer(QStringLiteral("f%1").arg(i), "a", "b", i % 2 ? "Blocked" : "Allowed");
        monitor.clearOldTransfers(3); // a running transfer may still write rows 1 to 3
        QCOMPARE(monitor.transferCount(), 5);
        QCOMPARE(monitor.transferText(3, TransferMonitor::Filename), QStringLiteral("f3"));
        QCOMPARE(monitor.transferText(4, TransferMonitor::Filename), QStringLiteral("f4"));
        QCOMPARE(monitor.transferText(5, TransferMonitor::Filename), QStringLiteral("f6"));
        monitor.clearOldTransfers(0); // nothing running: everything goes
        QCOMPARE(monitor.transferCount(), 0);
    }

    void windowShowsBothListsAndForwardsTheMenu()
    {
        TransferMonitor monitor;
        TransferWindow window(&monitor);
        window.resize(600, 400);
        window.show();
        auto *transfers = window.findChild<QTreeView *>(QStringLiteral("ListView1"));
        auto *sockets = window.findChild<QTreeView *>(QStringLiteral("ListView2"));
        QVERIFY(transfers && sockets);
        QCOMPARE(sockets->model(), monitor.sockets());
        QVERIFY(transfers->geometry().bottom() < sockets->geometry().top());
        QSignalSpy clear(&window, &TransferWindow::clearOldTransfersRequested);
        window.findChild<QAction *>(QStringLiteral("MnuClearOldTransfers"))->trigger();
        QCOMPARE(clear.count(), 1);
        window.close();
        QVERIFY(window.isHidden());
    }
};

QTEST_MAIN(TransferMonitorTest)
#include "tst_transfer_monitor.moc"
