// The standard engine as a fleet meets it: refusals mixed with allowed requests, the transfer limit,
// repeated requests, a thousand transfers at once, the port handed between profiles, and files that
// are not what they seem (a FIFO, a file that shrinks while it is read).

#include "tftp/progress_delegate.h"
#include "tftp/report_view.h"
#include "tftp/standard_engine.h"
#include "tftp/standard_transfer.h"
#include "tftp/transfer_window.h"
#include "tftp_test_peer.h"

#include <QApplication>
#include <QHeaderView>
#include <QPainter>
#include <QPixmapCache>
#include <QScrollBar>
#include <QStandardItemModel>
#include <QStyleOptionProgressBar>

#include <sys/stat.h>
#include <unistd.h>

using namespace tftptest;

namespace {

// The engine's sockets in memory, for driving it with a clock of the test's own.
struct MemoryNet : EngineNet
{
    QList<QByteArray> sent;
    QMap<int, quint16> ports;
    int open(quint32, quint16 port) override
    {
        const int socket = ports.isEmpty() ? 3 : ports.lastKey() + 1;
        ports.insert(socket, port ? port : quint16(40000 + socket));
        return socket;
    }
    void close(int socket) override { ports.remove(socket); }
    quint16 localPort(int socket) const override { return ports.value(socket); }
    void send(int, const QByteArray &datagram, quint32, quint16) override { sent << datagram; }
    int sendBufferBytes(int) const override { return 212992; }
    QString errorString() const override { return {}; }
};

// The list as the user sees it: what the window asked for so far done (the
// header's deferred stretch, scroll bars shown or hidden, the repaints they
// ask for), and no focus frame (only the active window has one).
void settle(TransferWindow &window)
{
    window.transferList()->selectionModel()->clearCurrentIndex();
    for (int turn = 0; turn < 3; ++turn)
        QCoreApplication::processEvents();
}

} // namespace

class TestTftpFleet : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // A refused device (127.0.0.2) and allowed ones take turns: every allowed request is answered with
    // its first block, every refusal with ERROR 2 from a port of its own, and the listener never moves.
    // The list keeps TftpKeepRows rows: the oldest finished go, a running one stays and is still found.
    void refusalsCostNothingAndRowsAreKept()
    {
        StandardFixture f(pattern(100));
        f.monitor.setKeepRows(30);
        QVERIFY(writeFile(f.path("held.bin"), pattern(700)));
        Client held;
        QCOMPARE(held.ask(request(1, "held.bin"), f.port), packet(3, 1, pattern(512)));
        for (int round = 0; round < 50; ++round) {
            Client refused(QHostAddress("127.0.0.2")), allowed;
            refused.send(request(1, "r" + QByteArray::number(round)), f.port);
            allowed.send(request(1, "f.bin"), f.port);
            QCOMPARE(refused.next().left(4), packet(5, 2));
            QVERIFY(refused.peer != f.port);
            QCOMPARE(allowed.next(), packet(3, 1, pattern(100)));
            allowed.send(packet(4, 1), allowed.peer);
        }
        // The rows follow the engine: wait for the last round's.
        QTRY_VERIFY_WITH_TIMEOUT(
            f.transfer(29, TM::Filename) == "r49" && f.transfer(30, TM::Status) == "FINISHED OK", 30000);
        QCOMPARE(f.monitor.transferCount(), 30);
        QCOMPARE(f.transfer(29, TM::Status), QString("Blocked"));
        QCOMPARE(f.transfer(1, TM::Filename), QString("held.bin"));
        QCOMPARE(f.socket(1), QString("Listen"));
        QCOMPARE(f.socket(1, TM::LocalPort), QString::number(f.port));
        QCOMPARE(held.ask(packet(4, 1)), packet(3, 2, pattern(700).mid(512)));
        held.send(packet(4, 2), held.peer);
        QTRY_COMPARE(f.transfer(1, TM::Status), QString("FINISHED OK")); // still found after rows moved
    }

    // A thousand transfers at once, each held after its first block, half on each engine loop; the
    // socket table shows the listener and the 29 oldest. One more request gets no answer and the
    // limit is reported once; when a transfer on the second loop ends, the waiting client's retry gets
    // in, and a request repeated by a client whose transfer runs there is not a second transfer.
    // Then the rest finish, and the table shows the one left.
    void thousandAtOnce()
    {
        const int limit = 1000;
        StandardFixture f(pattern(700), limit);
        QSignalSpy limitSpy(&f.server, &StandardServer::limitReached);
        std::vector<std::unique_ptr<Client>> clients;
        for (int i = 0; i < limit; ++i) {
            clients.push_back(std::make_unique<Client>());
            clients.back()->send(request(1, "f.bin"), f.port);
            if (i == 0) { // repeated at once; its row is the first
                clients.back()->send(request(1, "f.bin"), f.port);
                QTRY_COMPARE_WITH_TIMEOUT(f.monitor.transferCount(), 1, 30000);
            }
            if (i < 4) // one at a time: the first loop runs clients 0 and 2, the second 1 and 3
                QCOMPARE(clients.back()->next(), packet(3, 1, pattern(512)));
        }
        for (size_t i = 4; i < clients.size(); ++i) { // a burst may overflow the port's buffer: retry
            Client *c = clients[i].get();
            QByteArray reply = c->next(2000);
            for (int retry = 0; retry < 5 && reply.isEmpty(); ++retry) {
                c->send(request(1, "f.bin"), f.port);
                reply = c->next(2000);
            }
            QCOMPARE(reply, packet(3, 1, pattern(512)));
        }
        Client late;
        late.send(request(1, "f.bin"), f.port);
        QTRY_COMPARE_WITH_TIMEOUT(limitSpy.count(), 1, 30000);
        QCOMPARE(limitSpy[0][0].toString(), QString("TFTP: transfer limit (1000) reached"));
        late.send(request(1, "f.bin"), f.port);
        QTRY_COMPARE_WITH_TIMEOUT(f.monitor.transferCount(), limit, 30000);
        QCOMPARE(f.monitor.socketText(30, TM::SocketStatus), QString("SENDING"));
        QCOMPARE(f.transfer(1, TM::Status), QString("Allowed"));
        QCOMPARE(f.server.transfersPerLoop(), std::vector<int>({ limit / 2, limit / 2 }));
        // The second client's transfer ends on the second loop, and the first counts the place free:
        // a request repeated by the fourth (also there) is not taken for a new one; the late one is.
        QCOMPARE(clients[1]->ask(packet(4, 1)), packet(3, 2, pattern(700).mid(512)));
        clients[1]->send(packet(4, 2), clients[1]->peer);
        QTRY_COMPARE_WITH_TIMEOUT(f.transfer(2, TM::Status), QString("FINISHED OK"), 30000);
        clients[3]->send(request(1, "f.bin"), f.port);
        QCOMPARE(late.ask(request(1, "f.bin"), f.port), packet(3, 1, pattern(512)));
        QCOMPARE(limitSpy.count(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(f.socket(3, TM::LocalPort), QString::number(clients[2]->peer), 30000);
        QCOMPARE(f.socket(2, TM::LocalPort), QString::number(clients[0]->peer));
        QVERIFY(clients[0]->quiet()); // the repeated requests made no second transfer
        QVERIFY(clients[3]->quiet());
        for (size_t i = 0; i < clients.size(); ++i) {
            if (i == 1)
                continue;
            QCOMPARE(clients[i]->ask(packet(4, 1)).left(4), packet(3, 2));
            clients[i]->send(packet(4, 2), clients[i]->peer);
        }
        QTRY_COMPARE_WITH_TIMEOUT(f.transfer(limit, TM::Status), QString("FINISHED OK"), 30000);
        QTRY_COMPARE_WITH_TIMEOUT(f.socket(3), QString("ready"), 30000);
        QCOMPARE(f.socket(2, TM::LocalPort), QString::number(late.peer));
        QCOMPARE(f.monitor.transferCount(), limit + 1);
        QCOMPARE(f.transfer(1, TM::Status), QString("FINISHED OK"));
    }

    // The port goes from the classic server to the engine and back; a transfer running under either
    // finishes under the one that started it.
    void switchingHandsOverThePort()
    {
        StandardFixture f(pattern(1500));
        f.server.stopListening();
        TftpServer classic(&f.monitor, &f.acl);
        classic.setPort(f.port);
        classic.setBindAddress(QHostAddress::LocalHost);
        classic.setTraceFilePath(f.dir.filePath("bugfix.ini"));
        QVERIFY(classic.start());
        Client old;
        QCOMPARE(old.ask(request(1, "f.bin"), f.port), packet(3, 1, pattern(512)));
        classic.setStandardProfile(true);
        QVERIFY(f.server.listen());
        Client fresh;
        QCOMPARE(fresh.ask(request(1, "f.bin", "octet", bytes("tsize\0000\0")), f.port),
            bytes("\0\6tsize\0001500\0"));
        Client another;
        QCOMPARE(another.ask(request(1, "f.bin"), f.port), packet(3, 1, pattern(512)));
        QCOMPARE(old.ask(packet(4, 1)), packet(3, 2, pattern(1024).mid(512)));
        // The engine's two transfers in its socket table: it gives the rows back when the classic
        // profile returns, apart from the slots the classic profile itself uses.
        QTRY_COMPARE_WITH_TIMEOUT(f.monitor.socketText(3, TM::SocketStatus), QString("SENDING"), 30000);
        f.server.stopListening();
        classic.setStandardProfile(false);
        QVERIFY(classic.listenerSlot() != 0);
        for (int row = 1; row <= 30; ++row) {
            const QString status = f.monitor.socketText(row, TM::SocketStatus);
            if (row == classic.listenerSlot())
                QCOMPARE(status, QString("Listen"));
            else if (f.monitor.socketText(row, TM::LocalPort).toInt() == old.peer)
                QCOMPARE(status, QString("SENDING"));
            else
                QCOMPARE(status, QString("ready"));
        }
        QCOMPARE(fresh.ask(packet(4, 0)), packet(3, 1, pattern(512)));
        Client third;
        third.send(request(1, "f.bin", "octet", bytes("tsize\0000\0")), f.port);
        third.send(request(1, "f.bin"), f.port);
        // The classic profile left the option request unanswered: the plain one's block comes first.
        QCOMPARE(third.next(), packet(3, 1, pattern(512)));
    }

    // A FIFO is not served and does not stop the engine; a file that shrinks while it is read ends the
    // transfer with the block it gives (blocks come from chunks read ahead: the shrink shows in the
    // next chunk); a client holding its ACK holds the transfer mid-way, and the row shows how far it got.
    void filesThatAreNotWhatTheySeem()
    {
        const int chunk = StandardTransfer::aheadBytes;
        const int blocks = chunk / 512;
        StandardFixture f(pattern(chunk + 7000));
        QCOMPARE(::mkfifo(qPrintable(f.path("pipe")), 0644), 0);
        Client client;
        QCOMPARE(client.ask(request(1, "pipe"), f.port), error(1, "File not found"));
        client.send(request(1, "f.bin"), f.port);
        for (int block = 1; block <= blocks; ++block) {
            QCOMPARE(client.next(), packet(3, block, pattern(block * 512).mid((block - 1) * 512)));
            if (block < blocks)
                client.send(packet(4, block), client.peer);
        }
        // Held here: the row shows the last ACK, however soon it followed the one before.
        const QString held = QString("%1 of %2 bytes").arg((blocks - 1) * 512).arg(chunk + 7000);
        QTRY_VERIFY_WITH_TIMEOUT(f.transfer(2, TM::DataSentReceived).startsWith(held), 30000);
        QVERIFY(::truncate(qPrintable(f.path("f.bin")), chunk) == 0);
        client.send(packet(4, blocks), client.peer); // the next chunk finds the file short
        QCOMPARE(client.next(), packet(3, blocks + 1, QByteArray()));
        client.send(packet(4, blocks + 1), client.peer);
        QTRY_COMPARE_WITH_TIMEOUT(f.transfer(2, TM::Status), QString("FINISHED OK"), 30000);
        QCOMPARE(f.transfer(2, TM::DataSentReceived), QString("%1 bytes").arg(chunk));
        QTRY_COMPARE_WITH_TIMEOUT(f.monitor.socketText(2, TM::SocketStatus), QString("ready"), 30000);
    }

    // The retransmission timer counts from the last progress: a transfer that moves on, however slowly,
    // is never re-sent to; one that stops is, after the full interval.
    void retransmitOnlyWhenQuiet()
    {
        QTemporaryDir dir;
        QVERIFY(writeFile(dir.filePath("f.bin"), pattern(512 * 40)));
        MemoryNet net;
        StandardEngine engine(&net);
        qint64 clock = 0;
        engine.setClock([&clock] { return clock; });
        engine.setAccessEntries({ { "0.0.0.0", maskDisplayForm(0), "yes", "yes", dir.path(), 0 } });
        engine.setAddress(0x7f000001, 69);
        QVERIFY(engine.listen());
        engine.receive(engine.listenerSocket(), request(1, "f.bin"), 0x7f000001, 5000, 0x7f000001);
        const int socket = net.ports.lastKey();
        for (int block = 1; block <= 30; ++block) {
            QCOMPARE(net.sent.size(), block);
            QCOMPARE(net.sent.last().left(4), packet(3, block));
            clock += 3000; // well inside the 5 s timeout each time, far beyond it in total
            engine.expire(clock);
            engine.receive(socket, packet(4, block), 0x7f000001, 5000, 0x7f000001);
        }
        clock += 4999;
        engine.expire(clock);
        QCOMPARE(net.sent.size(), 31);
        clock += 1;
        engine.expire(clock);
        QCOMPARE(net.sent.size(), 32);
        QCOMPARE(net.sent.last(), net.sent[30]); // block 31 again
    }

    // Tiled in the 1024x720 main window the Transfer window is about 250 pixels wide; the progress
    // column must still be in view without scrolling, and a wide window keeps the usual widths. The list
    // keeps its cells' laid-out texts and its progress bars between paints: once its texts changed, a
    // transfer advanced and the window narrowed, it must look like a list drawn afresh.
    void transferListLayoutAndRedraw()
    {
        TransferMonitor monitor;
        monitor.addTransfer("a-long-image-name.bin", "127.0.0.1", "127.0.0.1", "Allowed");
        monitor.addTransfer("b.bin", "127.0.0.1", "127.0.0.1", "Allowed");
        monitor.setTransferText(1, TM::DataSentReceived, "1048576 of 100000000 bytes (1%)");
        const auto shown = [](TransferWindow &window, int width) {
            window.resize(width, 600);
            window.show();
            return QTest::qWaitForWindowExposed(&window);
        };
        const auto picture = [](TransferWindow &window) {
            settle(window);
            return window.transferList()->viewport()->grab().toImage();
        };
        TransferWindow drawn(&monitor);
        ReportView *list = drawn.transferList();
        for (const int width : { 250, 1000 }) {
            QVERIFY(shown(drawn, width));
            QTRY_COMPARE(list->horizontalScrollBar()->maximum(), 0);
            const int right = list->header()->sectionViewportPosition(TM::DataSentReceived)
                + list->header()->sectionSize(TM::DataSentReceived);
            QVERIFY(right <= list->viewport()->width());
            QVERIFY(list->header()->sectionSize(TM::DataSentReceived) >= width / 4);
        }
        QCOMPARE(list->columnWidth(TM::Filename), 180);
        const QImage before = picture(drawn);
        monitor.setTransferText(1, TM::Status, "FINISHED OK");
        monitor.setTransferText(1, TM::DataSentReceived, "6000000 of 10000000 bytes (60%)");
        monitor.setTransferText(2, TM::DataSentReceived, "6000000 of 10000000 bytes (60%)");
        QVERIFY(picture(drawn) != before);
        for (const int width : { 1000, 400 }) {
            QVERIFY(shown(drawn, width));
            const QImage redrawn = picture(drawn);
            QPixmapCache::clear(); // the bars too are drawn afresh
            TransferWindow fresh(&monitor);
            QVERIFY(shown(fresh, width));
            QCOMPARE(redrawn, picture(fresh));
        }
    }

    // Most bars are put together from three pictures the style drew: every one must be the style's
    // own bar, whatever the percentage and width (the label made invisible here).
    void progressBarsAreTheStyles()
    {
        QStandardItemModel model(1, 1);
        ProgressDelegate delegate;
        QStyleOptionViewItem option;
        option.state = QStyle::State_Enabled | QStyle::State_Active;
        option.palette.setColor(QPalette::Text, Qt::transparent);
        option.palette.setColor(QPalette::HighlightedText, Qt::transparent);
        for (const int width : { 40, 121, 360 }) {
            const QSize size(width, 17);
            option.rect = QRect(QPoint(0, 0), size);
            for (int percent = 0; percent <= 100; ++percent) {
                model.setData(model.index(0, 0), QStringLiteral("%1 of 100 bytes (%1%)").arg(percent));
                QImage drawn(size, QImage::Format_ARGB32_Premultiplied);
                drawn.fill(Qt::white);
                QPainter onDrawn(&drawn);
                delegate.paint(&onDrawn, option, model.index(0, 0));
                onDrawn.end();
                QStyleOptionProgressBar bar; // drawn on its own, then laid on the row as the list does
                bar.rect = QRect(0, 0, width - 2, size.height() - 2);
                bar.state = option.state | QStyle::State_Horizontal;
                bar.palette = option.palette;
                bar.maximum = 100;
                bar.progress = percent;
                QImage alone(bar.rect.size(), QImage::Format_ARGB32_Premultiplied);
                alone.fill(Qt::transparent);
                QPainter onAlone(&alone);
                QApplication::style()->drawControl(QStyle::CE_ProgressBar, &bar, &onAlone);
                onAlone.end();
                QImage styles(size, QImage::Format_ARGB32_Premultiplied);
                styles.fill(Qt::white);
                QPainter(&styles).drawImage(1, 1, alone);
                QVERIFY2(
                    drawn == styles, qPrintable(QStringLiteral("%1% at %2 pixels").arg(percent).arg(width)));
            }
        }
    }

    // The list repaints only what new, changed and removed rows touch: what is on screen after rows
    // came, changed and went while it was shown must be what a list drawn afresh shows. A click
    // selects the whole row, and the keys move through the rows and keep the current one in view.
    void transferListUpdatesInPlace()
    {
        TransferMonitor monitor;
        const auto add = [&](int n) {
            for (int i = 0; i < n; ++i)
                monitor.addTransfer(QStringLiteral("f%1.bin").arg(monitor.transfers()->rowCount()),
                    "127.0.0.1", "127.0.0.1", "Allowed");
        };
        const auto show = [](TransferWindow &window) {
            window.resize(700, 400);
            window.show();
            return QTest::qWaitForWindowExposed(&window);
        };
        const auto onScreen = [](TransferWindow &window) { // offscreen: the window's backing store as it is
            settle(window);
            QWidget *port = window.transferList()->viewport();
            const QImage all = window.screen()->grabWindow(window.winId()).toImage();
            return all.copy(QRect(port->mapTo(&window, QPoint(0, 0)), port->size()));
        };
        add(3);
        TransferWindow window(&monitor);
        QVERIFY(show(window));
        // Another window taking the focus redraws all: the picture is taken before.
        const auto asIfFresh = [&] {
            const QImage seen = onScreen(window);
            TransferWindow fresh(&monitor);
            const bool same = show(fresh) && QTest::qWaitFor([&] { return onScreen(fresh) == seen; })
                && QTest::qWaitFor([&] { // the scroll bar may catch up a little later
                       return window.transferList()->verticalScrollBar()->maximum()
                           == fresh.transferList()->verticalScrollBar()->maximum();
                   });
            window.activateWindow();
            return QTest::qWaitForWindowActive(&window) && same;
        };
        add(1); // in view
        monitor.setTransferText(2, TM::DataSentReceived, "5000 of 10000 bytes (50%)");
        QVERIFY(asIfFresh());
        add(40); // below the view: only the scroll bar changes, a little later
        QVERIFY(asIfFresh());
        monitor.setKeepRows(30); // the oldest go: every row moves up
        QVERIFY(asIfFresh());

        ReportView *list = window.transferList();
        const QAbstractItemModel *rows = monitor.transfers();
        QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualRect(rows->index(1, 2)).center());
        QCOMPARE(list->selectionModel()->selectedRows(), QModelIndexList { rows->index(1, 0) });
        QTest::keyClick(list, Qt::Key_Down);
        QCOMPARE(list->currentIndex().row(), 2);
        QTest::keyClick(list, Qt::Key_End, Qt::ShiftModifier);
        QCOMPARE(list->selectionModel()->selectedRows().size(), 28); // rows 2 to 29
        QVERIFY(list->viewport()->rect().contains(list->visualRect(rows->index(29, 0))));
    }
};

QTEST_MAIN(TestTftpFleet)
#include "tst_tftp_fleet.moc"
